// String items: vxAddString, vxSetString, vxInquireString and their internal
// functions.  Items are examined through the bag record itself where the
// calls alone cannot show what was stored (heap copy, length, identifier).
#include <sys/resource.h>

#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include "emulation.h"
#include "vxtest.h"

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/asan_interface.h>
#include <sanitizer/lsan_interface.h>
#endif

namespace {

using vxtest::dataOf;

constexpr int32_t kHugeLength = 0x7FFFFFF0;

// Exit markers: reason << 16 | 25 << 10 | function number.
constexpr uint32_t kAddStringId = 25u << 10 | 95u;
constexpr uint32_t kSetStringId = 25u << 10 | 96u;
constexpr uint32_t kInquireStringId = 25u << 10 | 97u;

std::string data(const char *bytes, size_t length) { return dataOf(bytes, length); }
std::string data(int32_t value) { return dataOf(value); }

const std::string kSeparator = "__________";
const std::string kCompOut = "Compcode      : Output Parm";
const std::string kReasonOut = "Reason        : Output Parm";

// Lowers the process's address-space limit for its lifetime, so that a
// request for nearly 2 GiB cannot be met whatever the machine has free.
class AddressSpaceCap {
 public:
  AddressSpaceCap() {
    capped_ = getrlimit(RLIMIT_AS, &saved_) == 0;
    long kilobytes = currentSizeKb();
    if (!capped_ || kilobytes <= 0) {
      capped_ = false;
      return;
    }
    rlimit cap = saved_;
    cap.rlim_cur = static_cast<rlim_t>(kilobytes) * 1024u + (256u << 20);
    if (saved_.rlim_cur != RLIM_INFINITY && cap.rlim_cur > saved_.rlim_cur)
      cap.rlim_cur = saved_.rlim_cur;
    capped_ = setrlimit(RLIMIT_AS, &cap) == 0;
  }
  ~AddressSpaceCap() {
    if (capped_) setrlimit(RLIMIT_AS, &saved_);
  }

 private:
  static long currentSizeKb() {
    std::ifstream status("/proc/self/status");
    std::string line;
    while (std::getline(status, line))
      if (line.rfind("VmSize:", 0) == 0) return std::stol(line.substr(7));
    return -1;
  }
  rlimit saved_{};
  bool capped_ = false;
};

// True when a malloc of kHugeLength bytes returns null in this process now.
// Under the address sanitizer a refused allocation aborts unless the
// allocator is allowed to return null; then the probe is not even tried.
bool hugeMallocFails() {
#if defined(__SANITIZE_ADDRESS__)
  const char *options = std::getenv("ASAN_OPTIONS");
  if (!options || !std::strstr(options, "allocator_may_return_null=1")) return false;
#endif
  volatile size_t size = static_cast<size_t>(kHugeLength);
  void *block = std::malloc(size);
  if (!block) return true;
  std::free(block);
  return false;
}

// The result of one inquiry into a buffer prefilled with 'x' that has one
// guard byte beyond the length given to the call.
struct Inquired {
  int32_t cc = -1;
  int32_t rc = -1;
  int32_t length = -99;
  int32_t ccsid = -99;
  std::string bytes;  // the buffer as the call left it, without the guard
  bool guardIntact = false;
  uint32_t marker = 0;
};

class StringItems : public vxtest::VxTest {
 protected:
  void TearDown() override {
    for (zaiBAG *bag : bags_) {
      int32_t cc, rc;
      zaiDeleteBag(&bag, &cc, &rc);
    }
    bags_.clear();
    vxtest::VxTest::TearDown();
  }

  VXHBAG newBag(int32_t options = 0) {
    int32_t cc = -1, rc = -1;
    VXHBAG bag = BAG_NONE;
    vxCreateBag(options, &bag, &cc, &rc);
    EXPECT_OK(cc, rc);
    if (cc == CC_OK) bags_.push_back(zaiDecodeHandle(bag));
    return bag;
  }

  // A bag the library itself would make for a reply.
  VXHBAG newSystemBag() {
    zaiBAG *bag = nullptr;
    int32_t cc = -1, rc = -1;
    zaiCreateBag(BAG_OPT_SYSTEM_BAG | BAG_OPT_CHECK_SELECTORS, &bag, &cc, &rc);
    EXPECT_OK(cc, rc);
    if (!bag) return BAG_NONE;
    bags_.push_back(bag);
    return zaiHandleOf(bag);
  }

  static zaiBAG *recordOf(VXHBAG bag) { return zaiDecodeHandle(bag); }
  static int32_t itemCount(VXHBAG bag) { return recordOf(bag)->items->count; }
  static const zaiPROPERTY *itemAt(VXHBAG bag, int32_t position) {
    return zaiItemAt(recordOf(bag), position);
  }
  static int32_t occurrences(VXHBAG bag, int32_t selector) {
    int32_t found = 0;
    for (int32_t i = 0; i < itemCount(bag); ++i) found += itemAt(bag, i)->selector == selector;
    return found;
  }
  // Position in the bag of the n-th occurrence of a selector, or -1.
  static int32_t positionOf(VXHBAG bag, int32_t selector, int32_t occurrence = 0) {
    for (int32_t i = 0; i < itemCount(bag); ++i)
      if (itemAt(bag, i)->selector == selector && occurrence-- == 0) return i;
    return -1;
  }
  static const zaiPROPERTY *itemOf(VXHBAG bag, int32_t selector, int32_t occurrence = 0) {
    int32_t position = positionOf(bag, selector, occurrence);
    return position < 0 ? nullptr : itemAt(bag, position);
  }
  static std::string valueOf(const zaiPROPERTY *item) {
    if (!item || item->stringLength <= 0 || !item->value.string) return std::string();
    return std::string(item->value.string, static_cast<size_t>(item->stringLength));
  }

  static void add(VXHBAG bag, int32_t selector, const char *text) {
    int32_t cc = -1, rc = -1;
    vxAddString(bag, selector, -1, text, &cc, &rc);
    EXPECT_OK(cc, rc) << "adding \"" << text << "\" under " << selector;
  }
  static void addInteger(VXHBAG bag, int32_t selector, int32_t value) {
    int32_t cc = -1, rc = -1;
    vxAddInteger(bag, selector, value, &cc, &rc);
    EXPECT_OK(cc, rc);
  }
  static void setBagCcsid(VXHBAG bag, int32_t ccsid) {
    int32_t cc = -1, rc = -1;
    vxSetInteger(bag, SEL_CODED_CHAR_SET_ID, ITEM_INDEX_NONE, ccsid, &cc, &rc);
    EXPECT_OK(cc, rc);
  }

  static Inquired inquire(VXHBAG bag, int32_t selector, int32_t index, int32_t bufferLength,
                          bool withCcsid = true) {
    Inquired out;
    std::vector<char> buffer(static_cast<size_t>(bufferLength) + 1, 'x');
    out.marker = vxInquireString(bag, selector, index, bufferLength, buffer.data(), &out.length,
                                 withCcsid ? &out.ccsid : nullptr, &out.cc, &out.rc);
    out.bytes.assign(buffer.data(), static_cast<size_t>(bufferLength));
    out.guardIntact = buffer[static_cast<size_t>(bufferLength)] == 'x';
    return out;
  }

  std::vector<zaiBAG *> bags_;
};

// ----- Adding ---------------------------------------------------------------------

TEST_F(StringItems, NullTerminatedAddStoresBytesWithoutTheNull) {
  VXHBAG bag = newBag();
  const char text[] = "ABC";
  int32_t cc = -1, rc = -1;
  uint32_t marker = vxAddString(bag, 7, -1, text, &cc, &rc);
  EXPECT_OK(cc, rc);
  EXPECT_EQ(marker, kAddStringId);
  ASSERT_EQ(itemCount(bag), 9);
  const zaiPROPERTY *item = itemAt(bag, 8);
  EXPECT_EQ(std::memcmp(item->eyeCatcher, "ZAPR", 4), 0);
  EXPECT_EQ(item->selector, 7);
  EXPECT_EQ(item->type, ITEM_TYPE_STRING);
  EXPECT_EQ(item->stringLength, 3);
  EXPECT_EQ(item->codedCharSetId, 0);
  ASSERT_NE(item->value.string, nullptr);
  EXPECT_NE(item->value.string, text) << "the item must hold its own copy";
  EXPECT_EQ(std::memcmp(item->value.string, "ABC", 3), 0);
#if defined(__SANITIZE_ADDRESS__)
  // The copy is exactly three bytes long: the byte after it is not part of
  // the block.
  EXPECT_EQ(__asan_region_is_poisoned(item->value.string, 3), nullptr);
  EXPECT_TRUE(__asan_address_is_poisoned(item->value.string + 3));
#endif
}

TEST_F(StringItems, CopyIsIndependentOfTheCallersBuffer) {
  VXHBAG bag = newBag();
  char text[] = "XYZ";
  add(bag, 7, text);
  text[0] = 'Q';
  EXPECT_EQ(valueOf(itemOf(bag, 7)), "XYZ");
}

TEST_F(StringItems, CopiesComeFromTheHeapNotFromTheLibrarysBlocks) {
  VXHBAG bag = newBag();
  int32_t blocks = vxtest::liveBlocks();
  int32_t bytes = vxtest::liveBytes();
  add(bag, 7, "a string that is stored in the item");
  EXPECT_EQ(vxtest::liveBlocks(), blocks);
  EXPECT_EQ(vxtest::liveBytes(), bytes);
}

TEST_F(StringItems, PositiveLengthTakesEmbeddedNulls) {
  VXHBAG bag = newBag();
  const char bytes[] = {'A', '\0', 'B', '\0', 'C', 'D'};
  int32_t cc = -1, rc = -1;
  vxAddString(bag, 7, 5, bytes, &cc, &rc);
  EXPECT_OK(cc, rc);
  const zaiPROPERTY *item = itemOf(bag, 7);
  ASSERT_NE(item, nullptr);
  EXPECT_EQ(item->stringLength, 5);
  EXPECT_EQ(valueOf(item), std::string(bytes, 5));
  Inquired got = inquire(bag, 7, 0, 6);
  EXPECT_OK(got.cc, got.rc);
  EXPECT_EQ(got.length, 5);
  EXPECT_EQ(got.bytes, std::string("A\0B\0C ", 6));
}

TEST_F(StringItems, LengthZeroWithNullBufferAddsAnEmptyItem) {
  VXHBAG bag = newBag();
  int32_t cc = -1, rc = -1;
  vxAddString(bag, 7, 0, nullptr, &cc, &rc);
  EXPECT_OK(cc, rc);
  const zaiPROPERTY *item = itemOf(bag, 7);
  ASSERT_NE(item, nullptr);
  EXPECT_EQ(item->type, ITEM_TYPE_STRING);
  EXPECT_EQ(item->stringLength, 0);
  EXPECT_EQ(item->value.string, nullptr);
  Inquired got = inquire(bag, 7, 0, 4);
  EXPECT_OK(got.cc, got.rc);
  EXPECT_EQ(got.length, 0);
  EXPECT_EQ(got.bytes, "    ");
  EXPECT_TRUE(got.guardIntact);
}

TEST_F(StringItems, LengthZeroIgnoresTheBuffer) {
  VXHBAG bag = newBag();
  vxtest::ProtectedPages pages;
  int32_t cc = -1, rc = -1;
  vxAddString(bag, 7, 0, static_cast<const char *>(pages.none), &cc, &rc);
  EXPECT_OK(cc, rc);
  vxAddString(bag, 7, 0, "ignored", &cc, &rc);
  EXPECT_OK(cc, rc);
  ASSERT_EQ(occurrences(bag, 7), 2);
  EXPECT_EQ(itemOf(bag, 7, 0)->value.string, nullptr);
  EXPECT_EQ(itemOf(bag, 7, 1)->value.string, nullptr);
  EXPECT_EQ(itemOf(bag, 7, 1)->stringLength, 0);
}

TEST_F(StringItems, EmptyNullTerminatedStringHasNoCopy) {
  VXHBAG bag = newBag();
  add(bag, 7, "");
  const zaiPROPERTY *item = itemOf(bag, 7);
  ASSERT_NE(item, nullptr);
  EXPECT_EQ(item->stringLength, 0);
  EXPECT_EQ(item->value.string, nullptr);
}

TEST_F(StringItems, ReadOnlyBufferCanBeAdded) {
  VXHBAG bag = newBag();
  vxtest::ProtectedPages pages;
  int32_t cc = -1, rc = -1;
  vxAddString(bag, 7, 5, static_cast<const char *>(pages.readOnly), &cc, &rc);
  EXPECT_OK(cc, rc);
  EXPECT_EQ(valueOf(itemOf(bag, 7)), "RRRRR");
}

TEST_F(StringItems, RepeatedAddsMakeOccurrencesInOrder) {
  VXHBAG bag = newBag();
  add(bag, 7, "first");
  addInteger(bag, 8, 1);
  add(bag, 7, "second");
  add(bag, 7, "third");
  ASSERT_EQ(itemCount(bag), 12);
  EXPECT_EQ(positionOf(bag, 7, 0), 8);
  EXPECT_EQ(positionOf(bag, 7, 1), 10);
  EXPECT_EQ(positionOf(bag, 7, 2), 11);
  EXPECT_EQ(inquire(bag, 7, 0, 6).bytes, "first ");
  EXPECT_EQ(inquire(bag, 7, 1, 6).bytes, "second");
  EXPECT_EQ(inquire(bag, 7, 2, 6).bytes, "third ");
}

TEST_F(StringItems, NegativeSelectorOnAddIsOutOfRangeEvenWithoutChecking) {
  VXHBAG bag = newBag(0);
  for (int32_t selector : {SEL_CODED_CHAR_SET_ID, SEL_COMMAND, SEL_BAG_OPTIONS, -9,
                           SEL_ANY_SELECTOR, SEL_ANY_USER_SELECTOR, SEL_ANY_SYSTEM_SELECTOR}) {
    SCOPED_TRACE(selector);
    int32_t cc = -1, rc = -1;
    vxAddString(bag, selector, -1, "ABC", &cc, &rc);
    EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_SELECTOR_OUT_OF_RANGE);
  }
  EXPECT_EQ(itemCount(bag), 8);
}

TEST_F(StringItems, CheckingBagTakesStringsOnlyInTheirRange) {
  VXHBAG bag = newBag(BAG_OPT_ADMIN_BAG);
  for (int32_t selector : {0, 1, 2000, 4001, 6000, 6001}) {
    SCOPED_TRACE(selector);
    int32_t cc = -1, rc = -1;
    vxAddString(bag, selector, -1, "ABC", &cc, &rc);
    EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_SELECTOR_OUT_OF_RANGE);
  }
  EXPECT_EQ(itemCount(bag), 8);
  add(bag, 2001, "low");
  add(bag, 4000, "high");
  EXPECT_EQ(itemCount(bag), 10);

  VXHBAG checking = newBag(BAG_OPT_CHECK_SELECTORS);
  int32_t cc = -1, rc = -1;
  vxAddString(checking, 5, -1, "ABC", &cc, &rc);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_SELECTOR_OUT_OF_RANGE);
}

TEST_F(StringItems, NonCheckingBagTakesAnyUserSelector) {
  VXHBAG bag = newBag(0);
  add(bag, 0, "zero");
  add(bag, 5, "five");
  add(bag, 70000, "large");
  EXPECT_EQ(itemCount(bag), 11);
}

TEST_F(StringItems, StringUnderIntegerSelectorIsInconsistent) {
  VXHBAG bag = newBag();
  addInteger(bag, 7, 42);
  int32_t cc = -1, rc = -1;
  vxAddString(bag, 7, -1, "ABC", &cc, &rc);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_INCONSISTENT_ITEM_TYPE);
  EXPECT_EQ(itemCount(bag), 9);
  EXPECT_EQ(occurrences(bag, 7), 1);
}

TEST_F(StringItems, IntegerUnderStringSelectorIsInconsistent) {
  VXHBAG bag = newBag();
  add(bag, 7, "ABC");
  int32_t cc = -1, rc = -1;
  vxAddInteger(bag, 7, 42, &cc, &rc);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_INCONSISTENT_ITEM_TYPE);
  int32_t value = -1;
  vxInquireInteger(bag, 7, 0, &value, &cc, &rc);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_SELECTOR_WRONG_TYPE);
  EXPECT_EQ(value, -1);
}

TEST_F(StringItems, AddToSystemBagIsRefused) {
  VXHBAG bag = newSystemBag();
  int32_t cc = -1, rc = -1;
  vxAddString(bag, 2001, -1, "ABC", &cc, &rc);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_SYSTEM_BAG_NOT_ALTERABLE);
  // The system bag is reported before the selector.
  vxAddString(bag, -1, -5, nullptr, &cc, &rc);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_SYSTEM_BAG_NOT_ALTERABLE);
  EXPECT_EQ(itemCount(bag), 8);
}

TEST_F(StringItems, AddWithInvalidHandles) {
  vxtest::LowPage notABag;  // zeroed, where a handle can name it
  VXHBAG deleted = BAG_NONE;
  {
    int32_t cc = -1, rc = -1;
    vxCreateBag(0, &deleted, &cc, &rc);
    ASSERT_OK(cc, rc);
    vxDeleteBag(&deleted, &cc, &rc);
    ASSERT_OK(cc, rc);
  }
  VXHBAG good = newBag();
  const VXHBAG handles[] = {BAG_NONE, deleted, good | 1, vxtest::handleOf(notABag.bytes)};
  for (VXHBAG handle : handles) {
    SCOPED_TRACE(handle);
    int32_t cc = -1, rc = -1;
    uint32_t marker = vxAddString(handle, 7, -1, "ABC", &cc, &rc);
    EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_BAG_HANDLE_ERROR);
    EXPECT_EQ(marker, static_cast<uint32_t>(RC_BAG_HANDLE_ERROR) << 16 | kAddStringId);
  }
  EXPECT_EQ(itemCount(good), 8);
}

// ----- Order of the add checks ---------------------------------------------------

TEST_F(StringItems, AddBadHandleWinsOverBadLength) {
  int32_t cc = -1, rc = -1;
  vxAddString(BAG_NONE, 7, -5, "ABC", &cc, &rc);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_BAG_HANDLE_ERROR);
  vxtest::ProtectedPages pages;
  vxAddString(BAG_NONE, 7, 5, static_cast<const char *>(pages.unmapped), &cc, &rc);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_BAG_HANDLE_ERROR);
}

TEST_F(StringItems, AddBadSelectorWinsOverBadLengthAndBuffer) {
  VXHBAG bag = newBag(BAG_OPT_ADMIN_BAG);
  vxtest::ProtectedPages pages;
  int32_t cc = -1, rc = -1;
  vxAddString(bag, -1, -5, "ABC", &cc, &rc);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_SELECTOR_OUT_OF_RANGE);
  // The buffer is examined even though the selector has failed; the
  // selector's reason is the one reported.
  vxAddString(bag, 5, 5, static_cast<const char *>(pages.unmapped), &cc, &rc);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_SELECTOR_OUT_OF_RANGE);
  vxAddString(bag, -3, -1, static_cast<const char *>(pages.none), &cc, &rc);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_SELECTOR_OUT_OF_RANGE);
  EXPECT_EQ(itemCount(bag), 8);
}

TEST_F(StringItems, AddLengthBelowMinusOne) {
  VXHBAG bag = newBag();
  vxtest::ProtectedPages pages;
  for (int32_t length : {-2, -5, INT32_MIN}) {
    SCOPED_TRACE(length);
    int32_t cc = -1, rc = -1;
    vxAddString(bag, 7, length, "ABC", &cc, &rc);
    EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_BUFFER_LENGTH_ERROR);
    // The length is refused before the buffer is looked at.
    vxAddString(bag, 7, length, static_cast<const char *>(pages.unmapped), &cc, &rc);
    EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_BUFFER_LENGTH_ERROR);
    vxAddString(bag, 7, length, nullptr, &cc, &rc);
    EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_BUFFER_LENGTH_ERROR);
  }
  EXPECT_EQ(itemCount(bag), 8);
}

TEST_F(StringItems, AddUnreadableBuffer) {
  VXHBAG bag = newBag();
  vxtest::ProtectedPages pages;
  struct Case {
    const char *buffer;
    int32_t length;
  };
  const Case cases[] = {
      {nullptr, -1},
      {nullptr, 5},
      {static_cast<const char *>(pages.none), 5},
      {static_cast<const char *>(pages.none), -1},
      {static_cast<const char *>(pages.none), 1},
      {static_cast<const char *>(pages.unmapped), 5},
      {static_cast<const char *>(pages.unmapped), -1},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(testing::Message()
                 << static_cast<const void *>(c.buffer) << " length " << c.length);
    int32_t cc = -1, rc = -1;
    vxAddString(bag, 7, c.length, c.buffer, &cc, &rc);
    EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_BUFFER_ERROR);
  }
  EXPECT_EQ(itemCount(bag), 8);
}

TEST_F(StringItems, AddStringRunningIntoAnInaccessiblePage) {
  vxtest::PageEdge edge;
  ASSERT_NE(edge.base, nullptr);
  VXHBAG bag = newBag();
  int32_t cc = -1, rc = -1;
  // No terminator before the inaccessible page: refused, without a fault.
  vxAddString(bag, 7, -1, edge.tail(6), &cc, &rc);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_BUFFER_ERROR);
  vxAddString(bag, 7, -1, edge.base, &cc, &rc);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_BUFFER_ERROR);
  // An explicit length that reaches into it is refused as well.
  vxAddString(bag, 7, 7, edge.tail(6), &cc, &rc);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_BUFFER_ERROR);
  EXPECT_EQ(itemCount(bag), 8);

  // Up to the last readable byte is fine.
  vxAddString(bag, 7, 6, edge.tail(6), &cc, &rc);
  EXPECT_OK(cc, rc);
  edge.tail(1)[0] = '\0';
  vxAddString(bag, 7, -1, edge.tail(6), &cc, &rc);
  EXPECT_OK(cc, rc);
  EXPECT_EQ(valueOf(itemOf(bag, 7, 0)), "AAAAAA");
  EXPECT_EQ(valueOf(itemOf(bag, 7, 1)), "AAAAA");
}

TEST_F(StringItems, LongNullTerminatedStringAcrossPages) {
  VXHBAG bag = newBag();
  std::string text(3 * 4096 + 17, 'L');
  add(bag, 7, text.c_str());
  const zaiPROPERTY *item = itemOf(bag, 7);
  ASSERT_NE(item, nullptr);
  EXPECT_EQ(item->stringLength, static_cast<int32_t>(text.size()));
  EXPECT_EQ(valueOf(item), text);
}

TEST_F(StringItems, HugeLengthBeyondTheBufferIsRefusedByTheApi) {
  VXHBAG bag = newBag();
  const char small[4] = {'a', 'b', 'c', 'd'};
  int32_t cc = -1, rc = -1;
  vxAddString(bag, 7, kHugeLength, small, &cc, &rc);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_BUFFER_ERROR);
  EXPECT_EQ(itemCount(bag), 8);
}

// ----- Inquiring ------------------------------------------------------------------

TEST_F(StringItems, InquiryPadsWithBlanksAndWritesNoNull) {
  VXHBAG bag = newBag();
  add(bag, 7, "ABC");
  Inquired got = inquire(bag, 7, 0, 5);
  EXPECT_OK(got.cc, got.rc);
  EXPECT_EQ(got.marker, kInquireStringId);
  EXPECT_EQ(got.bytes, "ABC  ");
  EXPECT_TRUE(got.guardIntact) << "nothing may be written beyond the buffer";
  EXPECT_EQ(got.length, 3);
  EXPECT_EQ(got.ccsid, 0);
}

TEST_F(StringItems, InquiryOfExactLengthFillsTheBuffer) {
  VXHBAG bag = newBag();
  add(bag, 7, "ABC");
  Inquired got = inquire(bag, 7, 0, 3);
  EXPECT_OK(got.cc, got.rc);
  EXPECT_EQ(got.bytes, "ABC");
  EXPECT_TRUE(got.guardIntact);
  EXPECT_EQ(got.length, 3);
}

TEST_F(StringItems, InquiryIntoShortBufferTruncatesWithWarning) {
  VXHBAG bag = newBag();
  add(bag, 7, "ABC");
  Inquired got = inquire(bag, 7, 0, 2);
  EXPECT_OUTCOME(got.cc, got.rc, CC_WARNING, RC_STRING_TRUNCATED);
  EXPECT_EQ(got.marker, static_cast<uint32_t>(RC_STRING_TRUNCATED) << 16 | kInquireStringId);
  EXPECT_EQ(got.bytes, "AB");
  EXPECT_TRUE(got.guardIntact);
  EXPECT_EQ(got.length, 3) << "the full stored length is reported";
  EXPECT_EQ(got.ccsid, 0);
}

TEST_F(StringItems, InquiryWithoutBufferReportsLengthAndCcsid) {
  VXHBAG bag = newBag();
  setBagCcsid(bag, 1208);
  add(bag, 7, "ABC");
  int32_t length = -99, ccsid = -99, cc = -1, rc = -1;
  vxInquireString(bag, 7, 0, 0, nullptr, &length, &ccsid, &cc, &rc);
  // Nothing of the three bytes fits into no buffer.
  EXPECT_OUTCOME(cc, rc, CC_WARNING, RC_STRING_TRUNCATED);
  EXPECT_EQ(length, 3);
  EXPECT_EQ(ccsid, 1208);
}

TEST_F(StringItems, InquiryOfEmptyStringWithoutBufferIsComplete) {
  VXHBAG bag = newBag();
  int32_t cc = -1, rc = -1;
  vxAddString(bag, 7, 0, nullptr, &cc, &rc);
  ASSERT_OK(cc, rc);
  int32_t length = -99, ccsid = -99;
  vxInquireString(bag, 7, 0, 0, nullptr, &length, &ccsid, &cc, &rc);
  EXPECT_OK(cc, rc);
  EXPECT_EQ(length, 0);
  EXPECT_EQ(ccsid, 0);
}

TEST_F(StringItems, InquiryWithZeroLengthLeavesANonNullBufferAlone) {
  VXHBAG bag = newBag();
  add(bag, 7, "ABC");
  Inquired got = inquire(bag, 7, 0, 0);
  EXPECT_OUTCOME(got.cc, got.rc, CC_WARNING, RC_STRING_TRUNCATED);
  EXPECT_TRUE(got.guardIntact);
  EXPECT_EQ(got.length, 3);
}

TEST_F(StringItems, CcsidOutputIsOptional) {
  VXHBAG bag = newBag();
  add(bag, 7, "ABC");
  Inquired got = inquire(bag, 7, 0, 5, /*withCcsid=*/false);
  EXPECT_OK(got.cc, got.rc);
  EXPECT_EQ(got.bytes, "ABC  ");
  EXPECT_EQ(got.length, 3);
  EXPECT_EQ(got.ccsid, -99);
}

TEST_F(StringItems, InquiryByOccurrence) {
  VXHBAG bag = newBag();
  add(bag, 7, "one");
  add(bag, 7, "two");
  EXPECT_EQ(inquire(bag, 7, 0, 3).bytes, "one");
  EXPECT_EQ(inquire(bag, 7, 1, 3).bytes, "two");
  Inquired got = inquire(bag, 7, 2, 3);
  EXPECT_OUTCOME(got.cc, got.rc, CC_FAILED, RC_INDEX_NOT_PRESENT);
  got = inquire(bag, 7, ITEM_INDEX_NONE, 3);
  EXPECT_OUTCOME(got.cc, got.rc, CC_FAILED, RC_SELECTOR_NOT_UNIQUE);
  got = inquire(bag, 7, ITEM_INDEX_ALL, 3);
  EXPECT_OUTCOME(got.cc, got.rc, CC_FAILED, RC_INDEX_ERROR);
  got = inquire(bag, 8, 0, 3);
  EXPECT_OUTCOME(got.cc, got.rc, CC_FAILED, RC_SELECTOR_NOT_PRESENT);
  got = inquire(bag, 8, ITEM_INDEX_NONE, 3);
  EXPECT_OUTCOME(got.cc, got.rc, CC_FAILED, RC_SELECTOR_NOT_PRESENT);
  add(bag, 8, "only");
  got = inquire(bag, 8, ITEM_INDEX_NONE, 4);
  EXPECT_OK(got.cc, got.rc);
  EXPECT_EQ(got.bytes, "only");
}

TEST_F(StringItems, FailedInquiryWritesNoOutput) {
  VXHBAG bag = newBag();
  add(bag, 7, "ABC");
  addInteger(bag, 8, 5);
  for (int32_t selector : {9, 8, SEL_COMMAND}) {
    SCOPED_TRACE(selector);
    Inquired got = inquire(bag, selector, 0, 4);
    EXPECT_EQ(got.cc, CC_FAILED);
    EXPECT_EQ(got.bytes, "xxxx");
    EXPECT_EQ(got.length, -99);
    EXPECT_EQ(got.ccsid, -99);
  }
}

TEST_F(StringItems, InquiryOfIntegerItemIsWrongType) {
  VXHBAG bag = newBag();
  addInteger(bag, 8, 5);
  Inquired got = inquire(bag, 8, 0, 4);
  EXPECT_OUTCOME(got.cc, got.rc, CC_FAILED, RC_SELECTOR_WRONG_TYPE);
  // System items are integers.
  for (int32_t selector = SEL_BAG_OPTIONS; selector <= SEL_CODED_CHAR_SET_ID; ++selector) {
    SCOPED_TRACE(selector);
    got = inquire(bag, selector, ITEM_INDEX_NONE, 4);
    EXPECT_OUTCOME(got.cc, got.rc, CC_FAILED, RC_SELECTOR_WRONG_TYPE);
  }
}

TEST_F(StringItems, InquiryAcceptsWildcards) {
  VXHBAG bag = newBag();
  addInteger(bag, 5, 1);
  add(bag, 6, "ONE");
  add(bag, 7, "TWO");
  Inquired got = inquire(bag, SEL_ANY_USER_SELECTOR, 1, 3);
  EXPECT_OK(got.cc, got.rc);
  EXPECT_EQ(got.bytes, "ONE");
  got = inquire(bag, SEL_ANY_USER_SELECTOR, 2, 3);
  EXPECT_OK(got.cc, got.rc);
  EXPECT_EQ(got.bytes, "TWO");
  got = inquire(bag, SEL_ANY_SELECTOR, 10, 3);
  EXPECT_OK(got.cc, got.rc);
  EXPECT_EQ(got.bytes, "TWO");
  got = inquire(bag, SEL_ANY_USER_SELECTOR, 0, 3);
  EXPECT_OUTCOME(got.cc, got.rc, CC_FAILED, RC_SELECTOR_WRONG_TYPE);
  got = inquire(bag, SEL_ANY_SYSTEM_SELECTOR, 0, 3);
  EXPECT_OUTCOME(got.cc, got.rc, CC_FAILED, RC_SELECTOR_WRONG_TYPE);
  got = inquire(bag, SEL_ANY_USER_SELECTOR, 3, 3);
  EXPECT_OUTCOME(got.cc, got.rc, CC_FAILED, RC_INDEX_NOT_PRESENT);
  got = inquire(bag, SEL_ANY_USER_SELECTOR, ITEM_INDEX_NONE, 3);
  EXPECT_OUTCOME(got.cc, got.rc, CC_FAILED, RC_INDEX_ERROR);
}

TEST_F(StringItems, WildcardsPassEvenInACheckingBag) {
  VXHBAG bag = newBag(BAG_OPT_ADMIN_BAG);
  add(bag, 2001, "ADMIN");
  Inquired got = inquire(bag, SEL_ANY_USER_SELECTOR, 0, 5);
  EXPECT_OK(got.cc, got.rc);
  EXPECT_EQ(got.bytes, "ADMIN");
}

TEST_F(StringItems, InquirySelectorChecks) {
  VXHBAG admin = newBag(BAG_OPT_ADMIN_BAG);
  for (int32_t selector : {0, 5, 2000, 4001}) {
    SCOPED_TRACE(selector);
    Inquired got = inquire(admin, selector, 0, 4);
    EXPECT_OUTCOME(got.cc, got.rc, CC_FAILED, RC_SELECTOR_OUT_OF_RANGE);
  }
  for (int32_t selector : {-9, -30000, -30004, INT32_MIN}) {
    SCOPED_TRACE(selector);
    Inquired got = inquire(admin, selector, 0, 4);
    EXPECT_OUTCOME(got.cc, got.rc, CC_FAILED, RC_SYSTEM_ITEM_NOT_ALTERABLE);
  }
}

TEST_F(StringItems, SystemBagCanBeInquired) {
  VXHBAG bag = newSystemBag();
  int32_t cc = -1, rc = -1;
  // The reply reader stores strings in system bags through the internal call.
  zaiAddString(recordOf(bag), 3001, 4, "NAME", 819, &cc, &rc);
  ASSERT_OK(cc, rc);
  Inquired got = inquire(bag, 3001, 0, 6);
  EXPECT_OK(got.cc, got.rc);
  EXPECT_EQ(got.bytes, "NAME  ");
  EXPECT_EQ(got.length, 4);
  EXPECT_EQ(got.ccsid, 819);
}

// ----- Order of the inquiry checks ------------------------------------------------

TEST_F(StringItems, InquiryBadHandleComesFirst) {
  vxtest::ProtectedPages pages;
  int32_t cc = -1, rc = -1;
  uint32_t marker = vxInquireString(BAG_NONE, -9, -7, -1, static_cast<char *>(pages.unmapped),
                                    nullptr, static_cast<int32_t *>(pages.readOnly), &cc, &rc);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_BAG_HANDLE_ERROR);
  EXPECT_EQ(marker, static_cast<uint32_t>(RC_BAG_HANDLE_ERROR) << 16 | kInquireStringId);
}

TEST_F(StringItems, InquiryBufferCheck) {
  VXHBAG bag = newBag();
  add(bag, 7, "ABC");
  vxtest::ProtectedPages pages;
  struct Case {
    char *buffer;
    int32_t length;
  };
  const Case cases[] = {
      {static_cast<char *>(pages.unmapped), 4},
      {static_cast<char *>(pages.readOnly), 4},
      {static_cast<char *>(pages.none), 4},
      {nullptr, 4},
      {nullptr, -1},
      {nullptr, -5},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(testing::Message()
                 << static_cast<const void *>(c.buffer) << " length " << c.length);
    int32_t length = -99, ccsid = -99, cc = -1, rc = -1;
    // A bad buffer is reported before the bad string-length pointer and the
    // bad selector.
    vxInquireString(bag, -9, 0, c.length, c.buffer, nullptr, &ccsid, &cc, &rc);
    EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_BUFFER_ERROR);
    vxInquireString(bag, 7, 0, c.length, c.buffer, &length, &ccsid, &cc, &rc);
    EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_BUFFER_ERROR);
    EXPECT_EQ(length, -99);
    EXPECT_EQ(ccsid, -99);
  }
  EXPECT_EQ(static_cast<const char *>(pages.readOnly)[0], 'R');
}

TEST_F(StringItems, InquiryStringLengthCheck) {
  VXHBAG bag = newBag();
  add(bag, 7, "ABC");
  vxtest::ProtectedPages pages;
  char buffer[4] = {'x', 'x', 'x', 'x'};
  for (int32_t *pointer : {static_cast<int32_t *>(nullptr), static_cast<int32_t *>(pages.readOnly),
                           static_cast<int32_t *>(pages.unmapped)}) {
    SCOPED_TRACE(static_cast<const void *>(pointer));
    int32_t cc = -1, rc = -1;
    // Reported before the bad identifier pointer, the bad length and the
    // bad selector.
    vxInquireString(bag, -9, 0, -1, buffer, pointer, static_cast<int32_t *>(pages.readOnly), &cc,
                    &rc);
    EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_STRING_LENGTH_ERROR);
    vxInquireString(bag, 7, 0, 4, buffer, pointer, nullptr, &cc, &rc);
    EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_STRING_LENGTH_ERROR);
  }
  EXPECT_EQ(std::string(buffer, 4), "xxxx");
}

TEST_F(StringItems, InquiryCcsidCheck) {
  VXHBAG bag = newBag();
  add(bag, 7, "ABC");
  vxtest::ProtectedPages pages;
  char buffer[4] = {'x', 'x', 'x', 'x'};
  for (int32_t *pointer :
       {static_cast<int32_t *>(pages.readOnly), static_cast<int32_t *>(pages.unmapped),
        static_cast<int32_t *>(pages.none)}) {
    SCOPED_TRACE(static_cast<const void *>(pointer));
    int32_t length = -99, cc = -1, rc = -1;
    // Reported before the bad length and the bad selector.
    vxInquireString(bag, -9, 0, -1, buffer, &length, pointer, &cc, &rc);
    EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_CCSID_ERROR);
    vxInquireString(bag, 7, 0, 4, buffer, &length, pointer, &cc, &rc);
    EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_CCSID_ERROR);
    EXPECT_EQ(length, -99);
  }
  EXPECT_EQ(std::string(buffer, 4), "xxxx");
}

TEST_F(StringItems, InquiryNegativeLengthWithABuffer) {
  VXHBAG bag = newBag();
  add(bag, 7, "ABC");
  char buffer[4] = {'x', 'x', 'x', 'x'};
  for (int32_t length : {-1, -5, INT32_MIN}) {
    SCOPED_TRACE(length);
    int32_t stringLength = -99, ccsid = -99, cc = -1, rc = -1;
    // Reported before the bad selector.
    vxInquireString(bag, -9, 0, length, buffer, &stringLength, &ccsid, &cc, &rc);
    EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_BUFFER_LENGTH_ERROR);
    vxInquireString(bag, 7, 0, length, buffer, &stringLength, &ccsid, &cc, &rc);
    EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_BUFFER_LENGTH_ERROR);
    EXPECT_EQ(stringLength, -99);
    EXPECT_EQ(ccsid, -99);
  }
  EXPECT_EQ(std::string(buffer, 4), "xxxx");
}

// ----- Setting --------------------------------------------------------------------

TEST_F(StringItems, SetSameLengthReplacesInPlace) {
  VXHBAG bag = newBag();
  add(bag, 7, "ABC");
  const zaiPROPERTY *item = itemOf(bag, 7);
  ASSERT_NE(item, nullptr);
  const char *copy = item->value.string;
  int32_t cc = -1, rc = -1;
  uint32_t marker = vxSetString(bag, 7, 0, -1, "XYZ", &cc, &rc);
  EXPECT_OK(cc, rc);
  EXPECT_EQ(marker, kSetStringId);
  EXPECT_EQ(item->value.string, copy) << "a value of the same length is copied over the old one";
  EXPECT_EQ(item->stringLength, 3);
  EXPECT_EQ(valueOf(item), "XYZ");
  EXPECT_EQ(inquire(bag, 7, 0, 3).bytes, "XYZ");
}

TEST_F(StringItems, SetDifferentLengthReallocates) {
  VXHBAG bag = newBag();
  add(bag, 7, "ABC");
  const zaiPROPERTY *item = itemOf(bag, 7);
  ASSERT_NE(item, nullptr);
  const char *copy = item->value.string;
  int32_t cc = -1, rc = -1;
  vxSetString(bag, 7, 0, -1, "LONGER VALUE", &cc, &rc);
  EXPECT_OK(cc, rc);
  EXPECT_NE(item->value.string, copy);
  EXPECT_EQ(item->stringLength, 12);
  EXPECT_EQ(valueOf(item), "LONGER VALUE");
  vxSetString(bag, 7, 0, 2, "SHORT", &cc, &rc);
  EXPECT_OK(cc, rc);
  EXPECT_EQ(item->stringLength, 2);
  EXPECT_EQ(valueOf(item), "SH");
  Inquired got = inquire(bag, 7, 0, 4);
  EXPECT_EQ(got.bytes, "SH  ");
  EXPECT_EQ(got.length, 2);
}

TEST_F(StringItems, SetToLengthZeroFreesTheCopy) {
  VXHBAG bag = newBag();
  add(bag, 7, "ABC");
  const zaiPROPERTY *item = itemOf(bag, 7);
  ASSERT_NE(item, nullptr);
  int32_t cc = -1, rc = -1;
  vxSetString(bag, 7, 0, 0, nullptr, &cc, &rc);
  EXPECT_OK(cc, rc);
  EXPECT_EQ(item->stringLength, 0);
  EXPECT_EQ(item->value.string, nullptr);
  // And back from empty to a value.
  vxSetString(bag, 7, 0, -1, "BACK", &cc, &rc);
  EXPECT_OK(cc, rc);
  EXPECT_EQ(item->stringLength, 4);
  EXPECT_EQ(valueOf(item), "BACK");
  // An empty value set over an empty value.
  vxSetString(bag, 7, 0, 0, nullptr, &cc, &rc);
  vxSetString(bag, 7, 0, -1, "", &cc, &rc);
  EXPECT_OK(cc, rc);
  EXPECT_EQ(item->stringLength, 0);
  EXPECT_EQ(item->value.string, nullptr);
}

TEST_F(StringItems, SetKeepsPosition) {
  VXHBAG bag = newBag();
  add(bag, 7, "AAA");
  addInteger(bag, 8, 1);
  add(bag, 9, "BBB");
  add(bag, 7, "CCC");
  int32_t cc = -1, rc = -1;
  vxSetString(bag, 7, 0, -1, "a much longer value", &cc, &rc);
  EXPECT_OK(cc, rc);
  vxSetString(bag, 7, 1, -1, "C", &cc, &rc);
  EXPECT_OK(cc, rc);
  ASSERT_EQ(itemCount(bag), 12);
  EXPECT_EQ(itemAt(bag, 8)->selector, 7);
  EXPECT_EQ(valueOf(itemAt(bag, 8)), "a much longer value");
  EXPECT_EQ(itemAt(bag, 9)->selector, 8);
  EXPECT_EQ(valueOf(itemAt(bag, 10)), "BBB");
  EXPECT_EQ(itemAt(bag, 11)->selector, 7);
  EXPECT_EQ(valueOf(itemAt(bag, 11)), "C");
}

TEST_F(StringItems, SetTakesEmbeddedNulls) {
  VXHBAG bag = newBag();
  add(bag, 7, "ABC");
  int32_t cc = -1, rc = -1;
  vxSetString(bag, 7, ITEM_INDEX_NONE, 4, "\0\0Z\0", &cc, &rc);
  EXPECT_OK(cc, rc);
  EXPECT_EQ(valueOf(itemOf(bag, 7)), std::string("\0\0Z\0", 4));
}

TEST_F(StringItems, SetIndexAllLeavesOneOccurrenceAtTheEnd) {
  VXHBAG bag = newBag();
  add(bag, 20, "a");
  add(bag, 21, "x");
  add(bag, 20, "bb");
  add(bag, 22, "y");
  add(bag, 20, "ccc");
  int32_t cc = -1, rc = -1;
  vxSetString(bag, 20, ITEM_INDEX_ALL, -1, "NEW", &cc, &rc);
  EXPECT_OK(cc, rc);
  ASSERT_EQ(itemCount(bag), 11);
  EXPECT_EQ(occurrences(bag, 20), 1);
  EXPECT_EQ(itemAt(bag, 8)->selector, 21);
  EXPECT_EQ(itemAt(bag, 9)->selector, 22);
  EXPECT_EQ(itemAt(bag, 10)->selector, 20);
  EXPECT_EQ(valueOf(itemAt(bag, 10)), "NEW");
}

TEST_F(StringItems, SetIndexAllOnAbsentSelectorAdds) {
  VXHBAG bag = newBag();
  int32_t cc = -1, rc = -1;
  vxSetString(bag, 30, ITEM_INDEX_ALL, -1, "ADDED", &cc, &rc);
  EXPECT_OK(cc, rc);
  ASSERT_EQ(itemCount(bag), 9);
  EXPECT_EQ(itemAt(bag, 8)->selector, 30);
  EXPECT_EQ(valueOf(itemAt(bag, 8)), "ADDED");
}

TEST_F(StringItems, SetIndexAllReplacesIntegersOfTheSelector) {
  VXHBAG bag = newBag();
  addInteger(bag, 30, 1);
  addInteger(bag, 30, 2);
  int32_t cc = -1, rc = -1;
  vxSetString(bag, 30, ITEM_INDEX_ALL, -1, "NOW A STRING", &cc, &rc);
  EXPECT_OK(cc, rc);
  ASSERT_EQ(occurrences(bag, 30), 1);
  EXPECT_EQ(itemOf(bag, 30)->type, ITEM_TYPE_STRING);
  EXPECT_EQ(valueOf(itemOf(bag, 30)), "NOW A STRING");
}

TEST_F(StringItems, SetLookupFailures) {
  VXHBAG bag = newBag();
  add(bag, 7, "one");
  add(bag, 7, "two");
  addInteger(bag, 8, 5);
  struct Case {
    int32_t selector;
    int32_t index;
    int32_t reason;
  };
  const Case cases[] = {
      {9, 0, RC_SELECTOR_NOT_PRESENT},
      {9, ITEM_INDEX_NONE, RC_SELECTOR_NOT_PRESENT},
      {7, 2, RC_INDEX_NOT_PRESENT},
      {7, ITEM_INDEX_NONE, RC_SELECTOR_NOT_UNIQUE},
      {7, -3, RC_INDEX_ERROR},
      {8, 0, RC_SELECTOR_WRONG_TYPE},
      {8, ITEM_INDEX_NONE, RC_SELECTOR_WRONG_TYPE},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(testing::Message() << "selector " << c.selector << " index " << c.index);
    int32_t cc = -1, rc = -1;
    vxSetString(bag, c.selector, c.index, -1, "NEW", &cc, &rc);
    EXPECT_OUTCOME(cc, rc, CC_FAILED, c.reason);
  }
  ASSERT_EQ(itemCount(bag), 11);
  EXPECT_EQ(valueOf(itemOf(bag, 7, 0)), "one");
  EXPECT_EQ(valueOf(itemOf(bag, 7, 1)), "two");
  EXPECT_EQ(itemOf(bag, 8)->value.integer, 5);
}

TEST_F(StringItems, SetOfBagOptionsIsNotAllowed) {
  VXHBAG bag = newBag();
  vxtest::ProtectedPages pages;
  int32_t cc = -1, rc = -1;
  vxSetString(bag, SEL_BAG_OPTIONS, ITEM_INDEX_NONE, -1, "ABC", &cc, &rc);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_SELECTOR_SET_NOT_ALLOWED);
  // Before the length and the buffer.
  vxSetString(bag, SEL_BAG_OPTIONS, 0, -5, static_cast<const char *>(pages.unmapped), &cc, &rc);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_SELECTOR_SET_NOT_ALLOWED);
  vxSetString(bag, SEL_BAG_OPTIONS, 0, 4, static_cast<const char *>(pages.none), &cc, &rc);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_SELECTOR_SET_NOT_ALLOWED);
}

TEST_F(StringItems, SetOfSystemSelectorFailsOnItsIntegerItem) {
  VXHBAG bag = newBag();
  for (int32_t selector = SEL_REASON; selector <= SEL_CODED_CHAR_SET_ID; ++selector) {
    SCOPED_TRACE(selector);
    int32_t cc = -1, rc = -1;
    vxSetString(bag, selector, 0, -1, "ABC", &cc, &rc);
    EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_SELECTOR_WRONG_TYPE);
    vxSetString(bag, selector, ITEM_INDEX_NONE, -1, "ABC", &cc, &rc);
    EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_SELECTOR_WRONG_TYPE);
    vxSetString(bag, selector, ITEM_INDEX_ALL, -1, "ABC", &cc, &rc);
    EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_SYSTEM_ITEM_NOT_DELETABLE);
  }
  ASSERT_EQ(itemCount(bag), 8);
  EXPECT_EQ(positionOf(bag, SEL_COMMAND), 3);
  int32_t command = -1, cc = -1, rc = -1;
  vxInquireInteger(bag, SEL_COMMAND, ITEM_INDEX_NONE, &command, &cc, &rc);
  EXPECT_OK(cc, rc);
  EXPECT_EQ(command, 0);
}

TEST_F(StringItems, SetSelectorChecks) {
  VXHBAG admin = newBag(BAG_OPT_ADMIN_BAG);
  for (int32_t selector : {0, 5, 2000, 4001}) {
    SCOPED_TRACE(selector);
    int32_t cc = -1, rc = -1;
    vxSetString(admin, selector, 0, -1, "ABC", &cc, &rc);
    EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_SELECTOR_OUT_OF_RANGE);
  }
  for (int32_t selector : {-9, SEL_ANY_SELECTOR, SEL_ANY_USER_SELECTOR, SEL_ANY_SYSTEM_SELECTOR}) {
    SCOPED_TRACE(selector);
    int32_t cc = -1, rc = -1;
    vxSetString(admin, selector, 0, -1, "ABC", &cc, &rc);
    EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_SYSTEM_ITEM_NOT_ALTERABLE);
  }
  EXPECT_EQ(itemCount(admin), 8);
}

TEST_F(StringItems, SetCheckOrder) {
  VXHBAG bag = newBag();
  add(bag, 7, "ABC");
  vxtest::ProtectedPages pages;
  const char *unmapped = static_cast<const char *>(pages.unmapped);
  int32_t cc = -1, rc = -1;
  vxSetString(BAG_NONE, SEL_BAG_OPTIONS, 0, -5, unmapped, &cc, &rc);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_BAG_HANDLE_ERROR);
  vxSetString(bag | 1, 7, 0, -1, "XYZ", &cc, &rc);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_BAG_HANDLE_ERROR);
  vxSetString(bag, -9, 0, -5, unmapped, &cc, &rc);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_SYSTEM_ITEM_NOT_ALTERABLE);
  vxSetString(bag, 7, 0, -5, unmapped, &cc, &rc);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_BUFFER_LENGTH_ERROR);
  vxSetString(bag, 7, 0, -2, "XYZ", &cc, &rc);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_BUFFER_LENGTH_ERROR);
  for (int32_t length : {-1, 3}) {
    SCOPED_TRACE(length);
    vxSetString(bag, 7, 0, length, unmapped, &cc, &rc);
    EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_BUFFER_ERROR);
    vxSetString(bag, 7, 0, length, static_cast<const char *>(pages.none), &cc, &rc);
    EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_BUFFER_ERROR);
    vxSetString(bag, 7, 0, length, nullptr, &cc, &rc);
    EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_BUFFER_ERROR);
    // The buffer is checked before the item is looked for.
    vxSetString(bag, 9, 0, length, unmapped, &cc, &rc);
    EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_BUFFER_ERROR);
  }
  EXPECT_EQ(valueOf(itemOf(bag, 7)), "ABC");
  EXPECT_EQ(itemCount(bag), 9);
}

TEST_F(StringItems, SetStringRunningIntoAnInaccessiblePage) {
  vxtest::PageEdge edge;
  ASSERT_NE(edge.base, nullptr);
  VXHBAG bag = newBag();
  add(bag, 7, "ABC");
  int32_t cc = -1, rc = -1;
  vxSetString(bag, 7, 0, -1, edge.tail(3), &cc, &rc);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_BUFFER_ERROR);
  EXPECT_EQ(valueOf(itemOf(bag, 7)), "ABC");
  vxSetString(bag, 7, 0, 3, edge.tail(3), &cc, &rc);
  EXPECT_OK(cc, rc);
  EXPECT_EQ(valueOf(itemOf(bag, 7)), "AAA");
}

TEST_F(StringItems, SetOnSystemBagIsRefused) {
  VXHBAG bag = newSystemBag();
  int32_t cc = -1, rc = -1;
  zaiAddString(recordOf(bag), 3001, 3, "OLD", 0, &cc, &rc);
  ASSERT_OK(cc, rc);
  vxSetString(bag, 3001, 0, -1, "NEW", &cc, &rc);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_SYSTEM_BAG_NOT_ALTERABLE);
  vxSetString(bag, SEL_BAG_OPTIONS, 0, -5, nullptr, &cc, &rc);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_SYSTEM_BAG_NOT_ALTERABLE);
  EXPECT_EQ(valueOf(itemOf(bag, 3001)), "OLD");
}

// ----- Coded character set identifiers -------------------------------------------

TEST_F(StringItems, StringsTakeTheBagsCcsidWhenStored) {
  VXHBAG bag = newBag();
  add(bag, 7, "before");
  setBagCcsid(bag, 437);
  add(bag, 8, "after");
  EXPECT_EQ(itemOf(bag, 7)->codedCharSetId, 0);
  EXPECT_EQ(itemOf(bag, 8)->codedCharSetId, 437);
  EXPECT_EQ(inquire(bag, 7, 0, 6).ccsid, 0);
  EXPECT_EQ(inquire(bag, 8, 0, 6).ccsid, 437);
}

TEST_F(StringItems, SetRestampsTheCcsid) {
  VXHBAG bag = newBag();
  add(bag, 7, "same");
  add(bag, 8, "other");
  setBagCcsid(bag, 850);
  int32_t cc = -1, rc = -1;
  vxSetString(bag, 7, 0, -1, "SAME", &cc, &rc);
  EXPECT_OK(cc, rc);
  vxSetString(bag, 8, 0, -1, "longer", &cc, &rc);
  EXPECT_OK(cc, rc);
  EXPECT_EQ(inquire(bag, 7, 0, 4).ccsid, 850);
  EXPECT_EQ(inquire(bag, 8, 0, 6).ccsid, 850);
  setBagCcsid(bag, 1208);
  vxSetString(bag, 7, ITEM_INDEX_ALL, -1, "all", &cc, &rc);
  EXPECT_OK(cc, rc);
  EXPECT_EQ(inquire(bag, 7, 0, 3).ccsid, 1208);
}

TEST_F(StringItems, BagWithCcsidMinusOneTakesNoStrings) {
  VXHBAG bag = newBag();
  add(bag, 7, "kept");
  add(bag, 7, "also");
  setBagCcsid(bag, -1);
  int32_t cc = -1, rc = -1;
  vxAddString(bag, 8, -1, "ABC", &cc, &rc);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_CCSID_ERROR);
  vxSetString(bag, 7, 0, -1, "ABCD", &cc, &rc);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_CCSID_ERROR);
  vxSetString(bag, 7, ITEM_INDEX_ALL, -1, "ABCD", &cc, &rc);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_CCSID_ERROR);
  ASSERT_EQ(itemCount(bag), 10);
  EXPECT_EQ(valueOf(itemOf(bag, 7, 0)), "kept");
  EXPECT_EQ(valueOf(itemOf(bag, 7, 1)), "also");
  // A buffer failure is found first.
  vxtest::ProtectedPages pages;
  vxAddString(bag, 8, 3, static_cast<const char *>(pages.unmapped), &cc, &rc);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_BUFFER_ERROR);
  // The strings already there can still be read.
  Inquired got = inquire(bag, 7, 0, 4);
  EXPECT_OK(got.cc, got.rc);
  EXPECT_EQ(got.bytes, "kept");
  EXPECT_EQ(got.ccsid, 0);
}

TEST_F(StringItems, InternalAddTakesTheGivenCcsid) {
  VXHBAG bag = newBag();
  setBagCcsid(bag, 437);
  int32_t cc = -1, rc = -1;
  zaiAddString(recordOf(bag), 7, 3, "ABC", 500, &cc, &rc);
  EXPECT_OK(cc, rc);
  EXPECT_EQ(inquire(bag, 7, 0, 3).ccsid, 500);
}

// ----- Failure paths ------------------------------------------------------------

TEST_F(StringItems, AddFailingToGrowTheBagChangesNothing) {
  VXHBAG bag = newBag();
  for (int32_t i = 0; i < ZAI_INITIAL_ITEMS - 8; ++i) add(bag, 7, "fill");
  ASSERT_EQ(itemCount(bag), ZAI_INITIAL_ITEMS);
  ASSERT_EQ(recordOf(bag)->items->capacity, ZAI_INITIAL_ITEMS);
  int32_t blocks = vxtest::liveBlocks();
  svcInjectMemFailure(1);
  int32_t cc = -1, rc = -1;
  vxAddString(bag, 9, -1, "this copy must be released again", &cc, &rc);
  svcInjectMemFailure(0);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_STORAGE_NOT_AVAILABLE);
  EXPECT_EQ(itemCount(bag), ZAI_INITIAL_ITEMS);
  EXPECT_EQ(recordOf(bag)->items->capacity, ZAI_INITIAL_ITEMS);
  EXPECT_EQ(occurrences(bag, 9), 0);
  EXPECT_EQ(vxtest::liveBlocks(), blocks);
#if defined(__SANITIZE_ADDRESS__)
  EXPECT_EQ(__lsan_do_recoverable_leak_check(), 0) << "the string copy of the failed add leaked";
#endif
  // The same add succeeds once memory can be had.
  vxAddString(bag, 9, -1, "stored", &cc, &rc);
  EXPECT_OK(cc, rc);
  EXPECT_EQ(itemCount(bag), ZAI_INITIAL_ITEMS + 1);
  EXPECT_EQ(valueOf(itemOf(bag, 9)), "stored");
}

TEST_F(StringItems, InternalAddWithoutMemoryForTheCopy) {
  if (vxtest::emulated()) GTEST_SKIP() << "the emulator does not hold an address-space limit";
  AddressSpaceCap cap;
  if (!hugeMallocFails()) GTEST_SKIP() << "a malloc of 0x7FFFFFF0 bytes does not fail here";
  VXHBAG bag = newBag();
  const char small[4] = {'a', 'b', 'c', 'd'};
  int32_t cc = -1, rc = -1;
  // The copy is allocated before anything is read from the buffer.
  zaiAddString(recordOf(bag), 7, kHugeLength, small, 0, &cc, &rc);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_STORAGE_NOT_AVAILABLE);
  EXPECT_EQ(itemCount(bag), 8);
}

TEST_F(StringItems, InternalSetWithoutMemoryKeepsTheOldValue) {
  if (vxtest::emulated()) GTEST_SKIP() << "the emulator does not hold an address-space limit";
  AddressSpaceCap cap;
  if (!hugeMallocFails()) GTEST_SKIP() << "a malloc of 0x7FFFFFF0 bytes does not fail here";
  VXHBAG bag = newBag();
  add(bag, 7, "OLD");
  const zaiPROPERTY *item = itemOf(bag, 7);
  ASSERT_NE(item, nullptr);
  const char *copy = item->value.string;
  setBagCcsid(bag, 437);
  const char small[4] = {'a', 'b', 'c', 'd'};
  int32_t cc = -1, rc = -1;
  zaiSetString(recordOf(bag), 7, 0, kHugeLength, small, &cc, &rc);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_STORAGE_NOT_AVAILABLE);
  EXPECT_EQ(item->value.string, copy);
  EXPECT_EQ(item->stringLength, 3);
  EXPECT_EQ(item->codedCharSetId, 0);
  EXPECT_EQ(valueOf(item), "OLD");
  EXPECT_EQ(itemCount(bag), 9);
}

// ----- API trace ------------------------------------------------------------------

TEST_F(StringItems, AddTraceShowsBufferOverResolvedLength) {
  VXHBAG bag = newBag();
  vxtest::TraceCapture capture(0x1);
  int32_t cc = -1, rc = -1;
  vxAddString(bag, 7, -1, "ABC", &cc, &rc);
  EXPECT_OK(cc, rc);
  const std::vector<std::string> expected = {
      kSeparator,
      "vxAddString >>",
      "Bag:",
      data(bag),
      "Selector:",
      data(7),
      "Bufferlength:",
      data(-1),
      "Buffer:",
      data("ABC", 3),
      kCompOut,
      kReasonOut,
      kSeparator,
      "vxAddString <<",
      "Bag           : Input  Parm",
      "Selector      : Input  Parm",
      "BufferLength  : Input  Parm",
      "Buffer        : Input  Parm",
      "Compcode:",
      data(CC_OK),
      "Reason:",
      data(RC_NONE),
  };
  EXPECT_EQ(capture.lines(), expected);
  for (const vxtest::TraceLine &line : capture.raw()) EXPECT_EQ(line.function, 95);
}

TEST_F(StringItems, AddTraceAfterFailedChecks) {
  VXHBAG bag = newBag();
  vxtest::ProtectedPages pages;
  vxtest::TraceCapture capture(0x1);
  int32_t cc = -1, rc = -1;
  // The selector fails, yet the buffer was measured for the trace.
  vxAddString(bag, -4, -1, "ABCD", &cc, &rc);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_SELECTOR_OUT_OF_RANGE);
  // An unreadable buffer is shown as NULL.
  vxAddString(bag, 7, 5, static_cast<const char *>(pages.none), &cc, &rc);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_BUFFER_ERROR);
  // So is a refused length.
  vxAddString(bag, 7, -5, "ABC", &cc, &rc);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_BUFFER_LENGTH_ERROR);
  auto call = [&](int32_t selector, int32_t length, const std::vector<std::string> &buffer,
                  int32_t reason) {
    std::vector<std::string> lines = {kSeparator,      "vxAddString >>", "Bag:",
                                      data(bag),       "Selector:",      data(selector),
                                      "Bufferlength:", data(length),     "Buffer:"};
    lines.insert(lines.end(), buffer.begin(), buffer.end());
    const std::vector<std::string> rest = {kCompOut,
                                           kReasonOut,
                                           kSeparator,
                                           "vxAddString <<",
                                           "Bag           : Input  Parm",
                                           "Selector      : Input  Parm",
                                           "BufferLength  : Input  Parm",
                                           "Buffer        : Input  Parm",
                                           "Compcode:",
                                           data(CC_FAILED),
                                           "Reason:",
                                           data(reason)};
    lines.insert(lines.end(), rest.begin(), rest.end());
    return lines;
  };
  std::vector<std::string> expected = call(-4, -1, {data("ABCD", 4)}, RC_SELECTOR_OUT_OF_RANGE);
  for (const auto &part :
       {call(7, 5, {"NULL"}, RC_BUFFER_ERROR), call(7, -5, {"NULL"}, RC_BUFFER_LENGTH_ERROR)})
    expected.insert(expected.end(), part.begin(), part.end());
  EXPECT_EQ(capture.lines(), expected);
}

TEST_F(StringItems, AddTraceBufferDisplayRules) {
  VXHBAG bag = newBag();
  std::string bytes(300, '\0');
  for (size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<char>(i);
  struct Case {
    int32_t length;
    std::vector<std::string> shown;
  };
  const Case cases[] = {
      {0, {"NULL"}},
      {1, {data(bytes.data(), 1)}},
      {127, {data(bytes.data(), 127)}},
      {128, {data(bytes.data(), 64), "..............", data(bytes.data() + 64, 64)}},
      {300, {data(bytes.data(), 64), "..............", data(bytes.data() + 236, 64)}},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.length);
    vxtest::TraceCapture capture(0x1);
    int32_t cc = -1, rc = -1;
    vxAddString(bag, 7, c.length, bytes.data(), &cc, &rc);
    EXPECT_OK(cc, rc);
    std::vector<std::string> lines = capture.lines();
    ASSERT_GE(lines.size(), 9u + c.shown.size());
    EXPECT_EQ(lines[8], "Buffer:");
    std::vector<std::string> shown(lines.begin() + 9, lines.begin() + 9 + c.shown.size());
    EXPECT_EQ(shown, c.shown);
    EXPECT_EQ(lines[9 + c.shown.size()], kCompOut);
  }
  // A null-terminated string of more than 127 bytes is cut the same way.
  std::string text(200, 'T');
  text[0] = 'F';
  text[199] = 'L';
  vxtest::TraceCapture capture(0x1);
  add(bag, 8, text.c_str());
  std::vector<std::string> lines = capture.lines();
  ASSERT_GE(lines.size(), 12u);
  EXPECT_EQ(lines[7], data(-1));
  EXPECT_EQ(lines[9], data(text.data(), 64));
  EXPECT_EQ(lines[10], "..............");
  EXPECT_EQ(lines[11], data(text.data() + 136, 64));
}

TEST_F(StringItems, SetTraceNeverShowsTheValue) {
  VXHBAG bag = newBag();
  add(bag, 7, "OLD");
  vxtest::TraceCapture capture(0x1);
  int32_t cc = -1, rc = -1;
  vxSetString(bag, 7, 0, -1, "NEW", &cc, &rc);
  EXPECT_OK(cc, rc);
  vxSetString(bag, 9, ITEM_INDEX_NONE, 3, "NEW", &cc, &rc);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_SELECTOR_NOT_PRESENT);
  auto call = [&](int32_t selector, int32_t index, int32_t length, int32_t compCode,
                  int32_t reason) {
    return std::vector<std::string>{kSeparator,
                                    "vxSetString >>",
                                    "Bag:",
                                    data(bag),
                                    "Selector:",
                                    data(selector),
                                    "ItemIndex:",
                                    data(index),
                                    "Bufferlength:",
                                    data(length),
                                    "Buffer:",
                                    "NULL",
                                    kCompOut,
                                    kReasonOut,
                                    kSeparator,
                                    "vxSetString <<",
                                    "Bag           : Input  Parm",
                                    "Selector      : Input  Parm",
                                    "ItemIndex     : Input  Parm",
                                    "BufferLength  : Input  Parm",
                                    "Buffer        : Input  Parm",
                                    "Compcode:",
                                    data(compCode),
                                    "Reason:",
                                    data(reason)};
  };
  std::vector<std::string> expected = call(7, 0, -1, CC_OK, RC_NONE);
  const std::vector<std::string> second =
      call(9, ITEM_INDEX_NONE, 3, CC_FAILED, RC_SELECTOR_NOT_PRESENT);
  expected.insert(expected.end(), second.begin(), second.end());
  EXPECT_EQ(capture.lines(), expected);
  for (const vxtest::TraceLine &line : capture.raw()) EXPECT_EQ(line.function, 96);
}

TEST_F(StringItems, InquireTraceShowsCallersBufferAndOutputs) {
  VXHBAG bag = newBag();
  setBagCcsid(bag, 437);
  add(bag, 7, "ABC");
  vxtest::TraceCapture capture(0x1);
  char buffer[5];
  int32_t length = -99, ccsid = -99, cc = -1, rc = -1;
  vxInquireString(bag, 7, 0, 5, buffer, &length, &ccsid, &cc, &rc);
  EXPECT_OK(cc, rc);
  const std::vector<std::string> expected = {
      kSeparator,
      "vxInquireString >>",
      "Bag:",
      data(bag),
      "Selector:",
      data(7),
      "ItemIndex:",
      data(0),
      "Bufferlength:",
      data(5),
      "Buffer        : Output Parm",
      "Stringlength  : Output Parm",
      "CodedCharSetId: Output Parm",
      kCompOut,
      kReasonOut,
      kSeparator,
      "vxInquireString <<",
      "Bag           : Input  Parm",
      "Selector      : Input  Parm",
      "ItemIndex     : Input  Parm",
      "BufferLength  : Input  Parm",
      "Buffer:",
      data("ABC  ", 5),
      "StringLength:",
      data(3),
      "CodedCharSetId:",
      data(437),
      "Compcode:",
      data(CC_OK),
      "Reason:",
      data(RC_NONE),
  };
  EXPECT_EQ(capture.lines(), expected);
  for (const vxtest::TraceLine &line : capture.raw()) EXPECT_EQ(line.function, 97);
}

TEST_F(StringItems, InquireTraceWithoutBufferOrCcsid) {
  VXHBAG bag = newBag();
  add(bag, 7, "ABC");
  vxtest::TraceCapture capture(0x1);
  int32_t length = -99, cc = -1, rc = -1;
  vxInquireString(bag, 7, 0, 0, nullptr, &length, nullptr, &cc, &rc);
  EXPECT_OUTCOME(cc, rc, CC_WARNING, RC_STRING_TRUNCATED);
  std::vector<std::string> lines = capture.lines();
  const std::vector<std::string> tail = {"Buffer:",
                                         "NULL",
                                         "StringLength:",
                                         data(3),
                                         "CodedCharSetId: NULL",
                                         "Compcode:",
                                         data(CC_WARNING),
                                         "Reason:",
                                         data(RC_STRING_TRUNCATED)};
  ASSERT_GE(lines.size(), tail.size());
  EXPECT_EQ(
      std::vector<std::string>(lines.end() - static_cast<std::ptrdiff_t>(tail.size()), lines.end()),
      tail);
}

TEST_F(StringItems, InquireTraceOfTruncationAndFailure) {
  VXHBAG bag = newBag();
  std::string text(150, 'a');
  for (size_t i = 0; i < text.size(); ++i) text[i] = static_cast<char>('a' + i % 26);
  add(bag, 7, text.c_str());
  std::vector<char> buffer(140, 'x');
  {
    vxtest::TraceCapture capture(0x1);
    int32_t length = -99, ccsid = -99, cc = -1, rc = -1;
    vxInquireString(bag, 7, 0, 140, buffer.data(), &length, &ccsid, &cc, &rc);
    EXPECT_OUTCOME(cc, rc, CC_WARNING, RC_STRING_TRUNCATED);
    std::vector<std::string> lines = capture.lines();
    const std::vector<std::string> tail = {"Buffer:",         data(text.data(), 64),
                                           "..............",  data(text.data() + 76, 64),
                                           "StringLength:",   data(150),
                                           "CodedCharSetId:", data(0),
                                           "Compcode:",       data(CC_WARNING),
                                           "Reason:",         data(RC_STRING_TRUNCATED)};
    ASSERT_GE(lines.size(), tail.size());
    EXPECT_EQ(std::vector<std::string>(lines.end() - static_cast<std::ptrdiff_t>(tail.size()),
                                       lines.end()),
              tail);
  }
  {
    // A failed inquiry shows what the caller's variables still hold.
    vxtest::TraceCapture capture(0x1);
    char small[3] = {'x', 'y', 'z'};
    int32_t length = -99, ccsid = -98, cc = -1, rc = -1;
    vxInquireString(bag, 8, 0, 3, small, &length, &ccsid, &cc, &rc);
    EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_SELECTOR_NOT_PRESENT);
    std::vector<std::string> lines = capture.lines();
    const std::vector<std::string> tail = {
        "Buffer:", data("xyz", 3), "StringLength:", data(-99), "CodedCharSetId:",
        data(-98), "Compcode:",    data(CC_FAILED), "Reason:", data(RC_SELECTOR_NOT_PRESENT)};
    ASSERT_GE(lines.size(), tail.size());
    EXPECT_EQ(std::vector<std::string>(lines.end() - static_cast<std::ptrdiff_t>(tail.size()),
                                       lines.end()),
              tail);
  }
}

TEST_F(StringItems, NoTraceWhenApiTraceIsOff) {
  VXHBAG bag = newBag();
  vxtest::TraceCapture capture(0);
  processAnchor.earlyTrace = 0;
  int32_t length = -99, ccsid = -99, cc = -1, rc = -1;
  char buffer[4];
  vxAddString(bag, 7, -1, "ABC", &cc, &rc);
  EXPECT_OK(cc, rc);
  vxSetString(bag, 7, 0, -1, "XYZ", &cc, &rc);
  EXPECT_OK(cc, rc);
  vxInquireString(bag, 7, 0, 4, buffer, &length, &ccsid, &cc, &rc);
  EXPECT_OK(cc, rc);
  // The trace level "off" wins over the option bit.
  processAnchor.traceOptions = 0x1;
  processAnchor.traceLevel = 0xFFFFFFFFu;
  vxInquireString(bag, 7, 0, 4, buffer, &length, &ccsid, &cc, &rc);
  EXPECT_OK(cc, rc);
  EXPECT_TRUE(capture.lines().empty());
  // The same capture does see the calls once the option is effective.
  processAnchor.traceLevel = 0;
  vxInquireString(bag, 7, 0, 4, buffer, &length, &ccsid, &cc, &rc);
  EXPECT_EQ(capture.lines().size(), 31u);
}

}  // namespace
