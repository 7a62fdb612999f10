// The entries' side of the test hooks (qm_test.h): before it does anything,
// every entry asks whether a test scripted its outcome.
#ifndef VX_QM_HOOKS_H
#define VX_QM_HOOKS_H

#include <optional>

#include "queue_manager.h"

namespace vxqm::hooks {

enum class Entry {
  kConn,
  kConnx,
  kDisc,
  kOpen,
  kClose,
  kGet,
  kPut,
  kPut1,
  kInq,
  kSet,
  kCmit,
  kBack,
  kBegin
};

// The outcome a test scripted for this call of the entry, if any (the call
// then does nothing else); throws the fault a test scripted with throwNext.
std::optional<Outcome> intercept(Entry entry);

}  // namespace vxqm::hooks

#endif  // VX_QM_HOOKS_H
