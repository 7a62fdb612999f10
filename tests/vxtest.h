// Helpers shared by the test programs: reasons by name, memory accounting,
// trace capture and memory that cannot be read or written.
#ifndef VX_TEST_H
#define VX_TEST_H

#include <gtest/gtest.h>
#include <sys/mman.h>

#include <cstdint>
#include <cstring>
#include <ostream>
#include <string>
#include <vector>

#include "svc.h"
#include "vxai.h"
#include "vxai_internal.h"

namespace vxtest {

// "RC_BAG_HANDLE_ERROR (2320)", or the bare number for an unknown code.
std::string reasonName(int32_t reason);
std::string compCodeName(int32_t compCode);

// Compares a completion/reason pair with the expected one by name.
::testing::AssertionResult outcomeIs(const char *, const char *, const char *, const char *,
                                     int32_t compCode, int32_t reason, int32_t expectedCompCode,
                                     int32_t expectedReason);

// Blocks of svcGetMem still live for the bag library.
int32_t liveBlocks();
int32_t liveBytes();

// Releases a block that a call of the library keeps on purpose, found by the
// function number it was taken under; false when there is none.
bool releaseKeptBlock(int32_t function);

// One line of captured trace.
struct TraceLine {
  bool isData;
  int32_t function;
  std::string text;           // text lines
  std::vector<uint8_t> data;  // data lines
};

// Renders a line for comparisons: text as it is, data as "<data 01 00 00 00>".
std::string render(const TraceLine &line);
std::string dataOf(const void *bytes, size_t length);
inline std::string dataOf(int32_t value) { return dataOf(&value, sizeof value); }

// Switches trace on through the process anchor for its lifetime and keeps the
// lines written meanwhile.  `options` is the trace-option word.
class TraceCapture {
 public:
  explicit TraceCapture(uint32_t options = 0x1, bool threadTrace = false);
  ~TraceCapture();
  // Lines captured so far, rendered.
  std::vector<std::string> lines() const;
  std::vector<TraceLine> raw() const;

 private:
  svcPROCESSANCHOR saved_;
  int32_t savedThreadTrace_;
};

// The parameter lines that one function wrote: its captured text lines less
// the entry and exit lines of its frame.
std::vector<std::string> parmLines(const TraceCapture &trace, int32_t function);

// Expects every captured line to carry this function number.
void expectAllUnder(const TraceCapture &trace, int32_t function);

// An address as the parameter lines print it ("%p").
std::string pointerText(const void *address);
inline std::string pointerText(VXHBAG bag) { return pointerText(zaiDecodeHandle(bag)); }

// Maps `bytes` with protection `prot` where a 32-bit handle can name them:
// between 16 and 256 MiB, below the library's handle region.  Null when no
// place could be had.
void *mapLow(size_t bytes, int prot);

// A zeroed read-write page that a handle can name, for records made by hand.
// Throws when no such page can be had.
struct LowPage {
  LowPage();
  ~LowPage();
  LowPage(const LowPage &) = delete;
  LowPage &operator=(const LowPage &) = delete;
  unsigned char *bytes;
  size_t size;
};

// A page that cannot be accessed at all, and one that can only be read; all
// three addresses can be named by a handle.  Throws when the pages cannot be
// had.
struct ProtectedPages {
  ProtectedPages();
  ~ProtectedPages();
  void *none;      // PROT_NONE
  void *readOnly;  // PROT_READ, filled with 'R'
  void *unmapped;  // an address where nothing is mapped
};

// Two adjacent pages: the first readable and writable, filled with 'A' and
// holding no null; the second not accessible at all, so that whatever reads
// past the end of data placed at the end of the first page faults.  A handle
// can name them.
struct PageEdge {
  PageEdge();
  ~PageEdge();
  // The address `before` bytes ahead of the inaccessible page.
  char *tail(size_t before) const { return base + page - before; }
  size_t page;
  char *base;  // null when the pages could not be had
};

// A handle as the caller holds it, from a record's address.  Fails the test
// for an address that no handle can name (see mapLow).
VXHBAG handleOf(const void *record);

// Exit marker of a function of the library: reason << 16 | 25 << 10 | number.
uint32_t exitMarker(int32_t function, int32_t reason);

// One item as a caller sees it through the inquiry calls.
struct Item {
  int32_t selector;
  int32_t type;
  int32_t value;     // integer items: the value; bag items: the handle
  std::string text;  // string items
  bool operator==(const Item &) const = default;
};
std::ostream &operator<<(std::ostream &out, const Item &item);

Item integer(int32_t selector, int32_t value);
Item stringItem(int32_t selector, const std::string &text);
Item bagItem(int32_t selector, VXHBAG bag);

// Every item of a bag in stored order, walked with SEL_ANY_SELECTOR.
std::vector<Item> itemsOf(VXHBAG bag);

// The eight items of a new (or cleared) bag, in the order they are added.
std::vector<Item> defaultItems(int32_t bagOptions, int32_t pcfType);

template <typename T>
std::vector<T> operator+(std::vector<T> items, const std::vector<T> &more) {
  items.insert(items.end(), more.begin(), more.end());
  return items;
}

// Base of the library's tests: no block of component 25 may be left behind
// by a test, and injected failures are cancelled.
class VxTest : public ::testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;
  int32_t blocksAtStart_ = 0;
};

// Count of a selector's items through vxCountItems (expected to succeed).
int32_t countOf(VXHBAG bag, int32_t selector);

// A test that makes bags: those it makes are deleted when it ends.
class BagTest : public VxTest {
 protected:
  void SetUp() override;
  void TearDown() override;

  // A bag of the caller's kind.
  VXHBAG newBag(int32_t options);
  // A bag as the library makes them for replies; callers cannot create one.
  VXHBAG newSystemBag(int32_t options = BAG_OPT_SYSTEM_BAG | BAG_OPT_CHECK_SELECTORS);
  // A handle naming a record's worth of zero bytes: readable and writable,
  // but no bag.
  VXHBAG zeroedHandle() { return handleOf(zeroed_.bytes); }

  std::vector<VXHBAG> bags_;
  std::vector<zaiBAG *> systemBags_;
  LowPage zeroed_;
};

}  // namespace vxtest

// EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_BAG_HANDLE_ERROR) prints both pairs by name.
#define EXPECT_OUTCOME(cc, rc, ecc, erc) EXPECT_PRED_FORMAT4(::vxtest::outcomeIs, cc, rc, ecc, erc)
#define ASSERT_OUTCOME(cc, rc, ecc, erc) ASSERT_PRED_FORMAT4(::vxtest::outcomeIs, cc, rc, ecc, erc)
#define EXPECT_OK(cc, rc) EXPECT_OUTCOME(cc, rc, CC_OK, RC_NONE)
#define ASSERT_OK(cc, rc) ASSERT_OUTCOME(cc, rc, CC_OK, RC_NONE)

#endif
