// Items added to the bags of the command-server tests: a refusal by the
// library fails the test at once, with the reason by name.
#pragma once

#include <string>

#include <gtest/gtest.h>

#include "vxai.h"
#include "vxnames.h"

namespace servertest {

inline std::string reasonName(int32_t reason) {
  const vxnames::Reason *entry = vxnames::findReason(reason);
  return (entry ? std::string(entry->name) : std::string("reason")) + " (" +
         std::to_string(reason) + ")";
}

inline void addString(VXHBAG bag, int32_t selector, const std::string &value) {
  int32_t cc, rc;
  vxAddString(bag, selector, static_cast<int32_t>(value.size()), value.data(), &cc, &rc);
  ASSERT_EQ(cc, CC_OK) << reasonName(rc);
}

inline void addInteger(VXHBAG bag, int32_t selector, int32_t value) {
  int32_t cc, rc;
  vxAddInteger(bag, selector, value, &cc, &rc);
  ASSERT_EQ(cc, CC_OK) << reasonName(rc);
}

}  // namespace servertest
