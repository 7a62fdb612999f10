// Selector rules, item lookup and counting, nested bags and item information.
#include <climits>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "vxtest.h"

namespace {

using vxtest::dataOf;

// Every option combination a caller may pass to vxCreateBag.
std::vector<int32_t> validOptions() {
  std::vector<int32_t> out;
  for (int32_t options = 0; options <= 0x1F; ++options)
    if (!((options & BAG_OPT_ADMIN_BAG) && (options & BAG_OPT_COMMAND_BAG))) out.push_back(options);
  return out;
}

bool checksSelectors(int32_t options) {
  return (options & (BAG_OPT_ADMIN_BAG | BAG_OPT_CHECK_SELECTORS)) != 0;
}

// The system items of a new bag, in stored order.
constexpr int32_t kSystemOrder[8] = {SEL_BAG_OPTIONS, SEL_PCF_TYPE,       SEL_CODED_CHAR_SET_ID,
                                     SEL_COMMAND,     SEL_MSG_SEQ_NUMBER, SEL_CONTROL,
                                     SEL_COMP_CODE,   SEL_REASON};

// A bag made by vxCreateBag and deleted with it, unless handed to a holder.
class CallerBag {
 public:
  explicit CallerBag(int32_t options) {
    int32_t cc = -1, rc = -1;
    vxCreateBag(options, &handle_, &cc, &rc);
    EXPECT_OK(cc, rc) << "creating a bag with options " << options;
  }
  ~CallerBag() {
    if (handle_ == BAG_NONE) return;
    int32_t cc = -1, rc = -1;
    vxDeleteBag(&handle_, &cc, &rc);
    EXPECT_OK(cc, rc);
  }
  CallerBag(const CallerBag &) = delete;
  CallerBag &operator=(const CallerBag &) = delete;

  VXHBAG handle() const { return handle_; }
  zaiBAG *record() const { return zaiDecodeHandle(handle_); }
  // The bag now belongs to the bag it was nested in.
  VXHBAG release() {
    VXHBAG handle = handle_;
    handle_ = BAG_NONE;
    return handle;
  }

 private:
  VXHBAG handle_ = BAG_NONE;
};

// A system bag as the library makes one for a reply: checking, not deletable
// by the caller, so released with the internal delete.
class ReplyBag {
 public:
  ReplyBag() {
    int32_t cc = -1, rc = -1;
    zaiCreateBag(BAG_OPT_SYSTEM_BAG | BAG_OPT_CHECK_SELECTORS, &bag_, &cc, &rc);
    EXPECT_OK(cc, rc);
  }
  ~ReplyBag() {
    if (!bag_) return;
    int32_t cc = -1, rc = -1;
    zaiDeleteBag(&bag_, &cc, &rc);
    EXPECT_OK(cc, rc);
  }
  ReplyBag(const ReplyBag &) = delete;
  ReplyBag &operator=(const ReplyBag &) = delete;

  VXHBAG handle() const { return zaiHandleOf(bag_); }
  zaiBAG *record() const { return bag_; }
  VXHBAG release() {
    VXHBAG handle = zaiHandleOf(bag_);
    bag_ = nullptr;
    return handle;
  }

 private:
  zaiBAG *bag_ = nullptr;
};

void addInteger(VXHBAG bag, int32_t selector, int32_t value) {
  int32_t cc = -1, rc = -1;
  vxAddInteger(bag, selector, value, &cc, &rc);
  EXPECT_OK(cc, rc) << "adding integer selector " << selector;
}

void addString(VXHBAG bag, int32_t selector, const char *text) {
  int32_t cc = -1, rc = -1;
  vxAddString(bag, selector, -1, text, &cc, &rc);
  EXPECT_OK(cc, rc) << "adding string selector " << selector;
}

void nest(VXHBAG holder, int32_t selector, VXHBAG nested) {
  int32_t cc = -1, rc = -1;
  zaiAddBag(zaiDecodeHandle(holder), selector, nested, &cc, &rc);
  EXPECT_OK(cc, rc) << "nesting a bag under selector " << selector;
}

int32_t countOf(VXHBAG bag, int32_t selector) {
  int32_t cc = -1, rc = -1, count = -1;
  vxCountItems(bag, selector, &count, &cc, &rc);
  EXPECT_OK(cc, rc) << "counting selector " << selector;
  return count;
}

// The parameter lines among captured trace, with the function that wrote
// each: "167 pBag:...".  Entry and exit lines of the frames are left out.
std::vector<std::string> parmLines(const vxtest::TraceCapture &capture) {
  std::vector<std::string> out;
  for (const vxtest::TraceLine &line : capture.raw()) {
    if (line.isData || line.text.rfind("{ ", 0) == 0 || line.text.rfind("} ", 0) == 0) continue;
    out.push_back(std::to_string(line.function) + " " + line.text);
  }
  return out;
}

template <typename... Args>
std::string format(const char *pattern, Args... args) {
  char line[256];
  std::snprintf(line, sizeof line, pattern, args...);
  return line;
}

class SelectorTest : public vxtest::VxTest {};

// ===== zaiCheckSelector ===========================================================

TEST_F(SelectorTest, BagWithoutCheckingTakesAnyUserSelectorForAnyType) {
  CallerBag bag(0);
  for (int32_t type : {ITEM_TYPE_INTEGER, ITEM_TYPE_STRING, ITEM_TYPE_BAG}) {
    for (int32_t selector : {0, 1, 2000, 2001, 4000, 4001, 5000, 6000, 6001, INT32_MAX}) {
      SCOPED_TRACE("type " + std::to_string(type) + " selector " + std::to_string(selector));
      int32_t cc = -1, rc = -1;
      zaiCheckSelector(bag.record(), selector, type, &cc, &rc);
      EXPECT_OK(cc, rc);
    }
  }
}

TEST_F(SelectorTest, IntegerUnderSelector5000OnlyInBagWithoutChecking) {
  CallerBag plain(0);
  CallerBag admin(BAG_OPT_ADMIN_BAG);
  int32_t cc = -1, rc = -1;

  vxAddInteger(plain.handle(), 5000, 77, &cc, &rc);
  EXPECT_OK(cc, rc);
  int32_t value = 0;
  vxInquireInteger(plain.handle(), 5000, ITEM_INDEX_NONE, &value, &cc, &rc);
  EXPECT_OK(cc, rc);
  EXPECT_EQ(value, 77);

  zaiCheckSelector(admin.record(), 5000, ITEM_TYPE_INTEGER, &cc, &rc);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_SELECTOR_OUT_OF_RANGE);
  vxAddInteger(admin.handle(), 5000, 77, &cc, &rc);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_SELECTOR_OUT_OF_RANGE);
  EXPECT_EQ(countOf(admin.handle(), SEL_ANY_SELECTOR), 8);
  EXPECT_EQ(countOf(admin.handle(), 5000), 0);
}

TEST_F(SelectorTest, SelectorZeroIsOutOfRangeForEveryTypeInCheckingBags) {
  CallerBag checking(BAG_OPT_CHECK_SELECTORS);
  CallerBag admin(BAG_OPT_ADMIN_BAG);
  ReplyBag reply;
  for (zaiBAG *bag : {checking.record(), admin.record(), reply.record()}) {
    for (int32_t type : {ITEM_TYPE_INTEGER, ITEM_TYPE_STRING, ITEM_TYPE_BAG}) {
      SCOPED_TRACE("bag " + std::to_string(zaiHandleOf(bag)) + " type " + std::to_string(type));
      int32_t cc = -1, rc = -1;
      zaiCheckSelector(bag, 0, type, &cc, &rc);
      EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_SELECTOR_OUT_OF_RANGE);
    }
  }
}

TEST_F(SelectorTest, EachTypeHasItsOwnRangeInCheckingBags) {
  struct Case {
    int32_t type;
    int32_t selector;
    bool inRange;
  };
  const Case cases[] = {
      {ITEM_TYPE_INTEGER, 1, true},
      {ITEM_TYPE_INTEGER, 2000, true},
      {ITEM_TYPE_INTEGER, 2001, false},
      {ITEM_TYPE_INTEGER, 4001, false},
      {ITEM_TYPE_INTEGER, INT32_MAX, false},
      {ITEM_TYPE_STRING, 2000, false},
      {ITEM_TYPE_STRING, 2001, true},
      {ITEM_TYPE_STRING, 4000, true},
      {ITEM_TYPE_STRING, 4001, false},
      {ITEM_TYPE_STRING, 1, false},
      {ITEM_TYPE_BAG, 4000, false},
      {ITEM_TYPE_BAG, 4001, true},
      {ITEM_TYPE_BAG, 6000, true},
      {ITEM_TYPE_BAG, 6001, false},
      {ITEM_TYPE_BAG, 1, false},
      {ITEM_TYPE_BAG, INT32_MAX, false},
  };
  CallerBag checking(BAG_OPT_CHECK_SELECTORS);
  CallerBag admin(BAG_OPT_ADMIN_BAG);
  for (zaiBAG *bag : {checking.record(), admin.record()}) {
    for (const Case &c : cases) {
      SCOPED_TRACE("type " + std::to_string(c.type) + " selector " + std::to_string(c.selector));
      int32_t cc = -1, rc = -1;
      zaiCheckSelector(bag, c.selector, c.type, &cc, &rc);
      if (c.inRange)
        EXPECT_OK(cc, rc);
      else
        EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_SELECTOR_OUT_OF_RANGE);
    }
  }
}

TEST_F(SelectorTest, TypesOutsideOneToThreeAreNotRangeChecked) {
  CallerBag admin(BAG_OPT_ADMIN_BAG);
  for (int32_t type : {0, 4, -1, 100, INT32_MIN}) {
    for (int32_t selector : {0, 6001, 9999, INT32_MAX}) {
      SCOPED_TRACE("type " + std::to_string(type) + " selector " + std::to_string(selector));
      int32_t cc = -1, rc = -1;
      zaiCheckSelector(admin.record(), selector, type, &cc, &rc);
      EXPECT_OK(cc, rc);
    }
    // Negative selectors are judged whatever the type.
    int32_t cc = -1, rc = -1;
    zaiCheckSelector(admin.record(), -9, type, &cc, &rc);
    EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_SYSTEM_ITEM_NOT_ALTERABLE);
  }
}

TEST_F(SelectorTest, NegativeSelectorsOutsideSystemRangeAreNotAlterable) {
  CallerBag plain(0);
  CallerBag admin(BAG_OPT_ADMIN_BAG);
  for (zaiBAG *bag : {plain.record(), admin.record()}) {
    for (int32_t type : {ITEM_TYPE_INTEGER, ITEM_TYPE_STRING, ITEM_TYPE_BAG}) {
      for (int32_t selector : {-9, -100, -30000, SEL_ANY_SELECTOR, SEL_ANY_USER_SELECTOR,
                               SEL_ANY_SYSTEM_SELECTOR, -30004, INT32_MIN}) {
        SCOPED_TRACE("type " + std::to_string(type) + " selector " + std::to_string(selector));
        int32_t cc = -1, rc = -1;
        zaiCheckSelector(bag, selector, type, &cc, &rc);
        EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_SYSTEM_ITEM_NOT_ALTERABLE);
      }
      for (int32_t selector = -8; selector <= -1; ++selector) {
        SCOPED_TRACE("type " + std::to_string(type) + " selector " + std::to_string(selector));
        int32_t cc = -1, rc = -1;
        zaiCheckSelector(bag, selector, type, &cc, &rc);
        EXPECT_OK(cc, rc);
      }
    }
  }
}

TEST_F(SelectorTest, CheckSelectorClearsCodesLeftByEarlierCall) {
  CallerBag admin(BAG_OPT_ADMIN_BAG);
  int32_t cc = CC_FAILED, rc = RC_SELECTOR_NOT_PRESENT;
  zaiCheckSelector(admin.record(), 17, ITEM_TYPE_INTEGER, &cc, &rc);
  EXPECT_OK(cc, rc);
}

// ===== zaiCheckUniqueSelector ====================================================

TEST_F(SelectorTest, UniqueSelectorNeedsExactlyOneOccurrence) {
  CallerBag bag(0);
  addInteger(bag.handle(), 5, 1);
  addInteger(bag.handle(), 6, 2);
  addInteger(bag.handle(), 5, 3);
  int32_t cc = -1, rc = -1;
  zaiCheckUniqueSelector(bag.record(), 6, &cc, &rc);
  EXPECT_OK(cc, rc);
  zaiCheckUniqueSelector(bag.record(), SEL_REASON, &cc, &rc);
  EXPECT_OK(cc, rc);
  zaiCheckUniqueSelector(bag.record(), 5, &cc, &rc);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_SELECTOR_NOT_UNIQUE);
  zaiCheckUniqueSelector(bag.record(), 7, &cc, &rc);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_SELECTOR_NOT_PRESENT);
  // Codes from a failure do not stick to the next call.
  zaiCheckUniqueSelector(bag.record(), 6, &cc, &rc);
  EXPECT_OK(cc, rc);
}

// ===== zaiFindSelector ===========================================================

TEST_F(SelectorTest, NewBagWildcardsFindSystemItemsOnly) {
  CallerBag bag(BAG_OPT_ADMIN_BAG);
  int32_t cc = -1, rc = -1, found = -1;

  const zaiPROPERTY *item =
      zaiFindSelector(bag.record(), 0, SEL_ANY_SYSTEM_SELECTOR, 7, &found, &cc, &rc);
  EXPECT_OK(cc, rc);
  ASSERT_NE(item, nullptr);
  EXPECT_EQ(item->selector, SEL_REASON);
  EXPECT_EQ(item->type, ITEM_TYPE_INTEGER);
  EXPECT_EQ(found, 7);

  item = zaiFindSelector(bag.record(), 0, SEL_ANY_SYSTEM_SELECTOR, 8, &found, &cc, &rc);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_INDEX_NOT_PRESENT);
  EXPECT_EQ(item, nullptr);

  item = zaiFindSelector(bag.record(), 0, SEL_ANY_USER_SELECTOR, 0, &found, &cc, &rc);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_SELECTOR_NOT_PRESENT);
  EXPECT_EQ(item, nullptr);

  for (int32_t index = 0; index < 8; ++index) {
    item = zaiFindSelector(bag.record(), 0, SEL_ANY_SELECTOR, index, &found, &cc, &rc);
    EXPECT_OK(cc, rc);
    ASSERT_NE(item, nullptr);
    EXPECT_EQ(item->selector, kSystemOrder[index]) << "index " << index;
    EXPECT_EQ(found, index);
  }
  item = zaiFindSelector(bag.record(), 0, SEL_ANY_SELECTOR, 8, &found, &cc, &rc);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_INDEX_NOT_PRESENT);
  EXPECT_EQ(item, nullptr);
}

// Items 8: 5 = 10, 9: 6 = 1, 10: 5 = 20.
class RepeatedSelectorTest : public SelectorTest {
 protected:
  void SetUp() override {
    SelectorTest::SetUp();
    bag_ = std::make_unique<CallerBag>(0);
    addInteger(bag_->handle(), 5, 10);
    addInteger(bag_->handle(), 6, 1);
    addInteger(bag_->handle(), 5, 20);
  }
  void TearDown() override {
    bag_.reset();
    SelectorTest::TearDown();
  }
  zaiBAG *record() const { return bag_->record(); }
  std::unique_ptr<CallerBag> bag_;
};

TEST_F(RepeatedSelectorTest, ItemIndexPicksOccurrenceInBagOrder) {
  int32_t cc = -1, rc = -1, found = -1;
  const zaiPROPERTY *item = zaiFindSelector(record(), 0, 5, ITEM_INDEX_NONE, &found, &cc, &rc);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_SELECTOR_NOT_UNIQUE);
  EXPECT_EQ(item, nullptr);

  item = zaiFindSelector(record(), 0, 5, 0, &found, &cc, &rc);
  EXPECT_OK(cc, rc);
  ASSERT_NE(item, nullptr);
  EXPECT_EQ(item->value.integer, 10);
  EXPECT_EQ(found, 8);
  EXPECT_EQ(item, zaiItemAt(record(), 8));

  item = zaiFindSelector(record(), 0, 5, 1, &found, &cc, &rc);
  EXPECT_OK(cc, rc);
  ASSERT_NE(item, nullptr);
  EXPECT_EQ(item->value.integer, 20);
  EXPECT_EQ(found, 10);

  item = zaiFindSelector(record(), 0, 5, 2, &found, &cc, &rc);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_INDEX_NOT_PRESENT);
  EXPECT_EQ(item, nullptr);

  // A lookup does not reorder: the first occurrence is still first.
  item = zaiFindSelector(record(), 0, 5, 0, &found, &cc, &rc);
  ASSERT_NE(item, nullptr);
  EXPECT_EQ(item->value.integer, 10);
}

TEST_F(RepeatedSelectorTest, IndexNoneFindsTheOnlyOccurrence) {
  int32_t cc = -1, rc = -1, found = -1;
  const zaiPROPERTY *item = zaiFindSelector(record(), 0, 6, ITEM_INDEX_NONE, &found, &cc, &rc);
  EXPECT_OK(cc, rc);
  ASSERT_NE(item, nullptr);
  EXPECT_EQ(item->selector, 6);
  EXPECT_EQ(found, 9);

  item = zaiFindSelector(record(), 0, SEL_COMMAND, ITEM_INDEX_NONE, &found, &cc, &rc);
  EXPECT_OK(cc, rc);
  ASSERT_NE(item, nullptr);
  EXPECT_EQ(found, 3);

  item = zaiFindSelector(record(), 0, 7, ITEM_INDEX_NONE, &found, &cc, &rc);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_SELECTOR_NOT_PRESENT);
  EXPECT_EQ(item, nullptr);
}

TEST_F(RepeatedSelectorTest, WildcardWithIndexNoneIsIndexError) {
  for (int32_t selector : {SEL_ANY_SELECTOR, SEL_ANY_USER_SELECTOR, SEL_ANY_SYSTEM_SELECTOR}) {
    SCOPED_TRACE("selector " + std::to_string(selector));
    int32_t cc = -1, rc = -1, found = -1;
    const zaiPROPERTY *item =
        zaiFindSelector(record(), 0, selector, ITEM_INDEX_NONE, &found, &cc, &rc);
    EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_INDEX_ERROR);
    EXPECT_EQ(item, nullptr);
  }
}

TEST_F(RepeatedSelectorTest, IndexBelowMinusOneIsIndexError) {
  for (int32_t selector :
       {5, 6, 7, SEL_REASON, SEL_ANY_SELECTOR, SEL_ANY_USER_SELECTOR, SEL_ANY_SYSTEM_SELECTOR}) {
    for (int32_t index : {ITEM_INDEX_ALL, -3, INT32_MIN}) {
      SCOPED_TRACE("selector " + std::to_string(selector) + " index " + std::to_string(index));
      int32_t cc = -1, rc = -1, found = -1;
      const zaiPROPERTY *item = zaiFindSelector(record(), 0, selector, index, &found, &cc, &rc);
      EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_INDEX_ERROR);
      EXPECT_EQ(item, nullptr);
    }
  }
}

TEST_F(RepeatedSelectorTest, StartIndexAtOrBeyondEndFindsNothing) {
  const int32_t count = record()->items->count;
  ASSERT_EQ(count, 11);
  for (int32_t start : {count, count + 1, count + 50}) {
    for (int32_t selector :
         {5, SEL_REASON, SEL_ANY_SELECTOR, SEL_ANY_USER_SELECTOR, SEL_ANY_SYSTEM_SELECTOR}) {
      SCOPED_TRACE("start " + std::to_string(start) + " selector " + std::to_string(selector));
      int32_t cc = -1, rc = -1, found = -1;
      const zaiPROPERTY *item = zaiFindSelector(record(), start, selector, 0, &found, &cc, &rc);
      EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_SELECTOR_NOT_PRESENT);
      EXPECT_EQ(item, nullptr);
      EXPECT_EQ(found, start);
    }
  }
}

TEST_F(RepeatedSelectorTest, FailedScanLeavesCountInFoundIndex) {
  int32_t cc = -1, rc = -1, found = -1;
  zaiFindSelector(record(), 0, 5, 2, &found, &cc, &rc);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_INDEX_NOT_PRESENT);
  EXPECT_EQ(found, 11);

  found = -1;
  zaiFindSelector(record(), 0, 7, 0, &found, &cc, &rc);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_SELECTOR_NOT_PRESENT);
  EXPECT_EQ(found, 11);

  found = -1;
  zaiFindSelector(record(), 4, SEL_ANY_USER_SELECTOR, 3, &found, &cc, &rc);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_INDEX_NOT_PRESENT);
  EXPECT_EQ(found, 11);
}

TEST_F(RepeatedSelectorTest, StartIndexSkipsEarlierItems) {
  int32_t cc = -1, rc = -1, found = -1;
  const zaiPROPERTY *item = zaiFindSelector(record(), 9, 5, 0, &found, &cc, &rc);
  EXPECT_OK(cc, rc);
  ASSERT_NE(item, nullptr);
  EXPECT_EQ(item->value.integer, 20);
  EXPECT_EQ(found, 10);

  item = zaiFindSelector(record(), 9, 5, 1, &found, &cc, &rc);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_INDEX_NOT_PRESENT);
  EXPECT_EQ(item, nullptr);

  item = zaiFindSelector(record(), 3, SEL_ANY_SELECTOR, 0, &found, &cc, &rc);
  EXPECT_OK(cc, rc);
  ASSERT_NE(item, nullptr);
  EXPECT_EQ(item->selector, SEL_COMMAND);
  EXPECT_EQ(found, 3);

  item = zaiFindSelector(record(), 3, SEL_ANY_SYSTEM_SELECTOR, 4, &found, &cc, &rc);
  EXPECT_OK(cc, rc);
  ASSERT_NE(item, nullptr);
  EXPECT_EQ(item->selector, SEL_REASON);
  EXPECT_EQ(found, 7);

  item = zaiFindSelector(record(), 3, SEL_ANY_SYSTEM_SELECTOR, 5, &found, &cc, &rc);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_INDEX_NOT_PRESENT);
  EXPECT_EQ(item, nullptr);
}

TEST_F(RepeatedSelectorTest, EmptySlotIsReportedButLaterHitStillReturned) {
  void **slots = record()->items->slots;
  void *const kept = slots[9];
  slots[9] = nullptr;
  int32_t cc = -1, rc = -1, found = -1;

  // The second 5 lies after the empty slot.
  const zaiPROPERTY *item = zaiFindSelector(record(), 0, 5, 1, &found, &cc, &rc);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_INDEX_NOT_PRESENT);
  EXPECT_EQ(item, static_cast<zaiPROPERTY *>(slots[10]));
  EXPECT_EQ(static_cast<zaiPROPERTY *>(slots[10])->value.integer, 20);
  EXPECT_EQ(found, 10);

  // Wildcards do not count the empty slot: the second user item is now the
  // one at 10.
  item = zaiFindSelector(record(), 0, SEL_ANY_USER_SELECTOR, 1, &found, &cc, &rc);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_INDEX_NOT_PRESENT);
  EXPECT_EQ(item, static_cast<zaiPROPERTY *>(slots[10]));
  EXPECT_EQ(found, 10);

  // A hit before the empty slot never meets it.
  item = zaiFindSelector(record(), 0, 5, 0, &found, &cc, &rc);
  EXPECT_OK(cc, rc);
  EXPECT_EQ(found, 8);

  // The selector that lived in the slot is no longer there.
  item = zaiFindSelector(record(), 0, 6, 0, &found, &cc, &rc);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_SELECTOR_NOT_PRESENT);
  EXPECT_EQ(item, nullptr);
  EXPECT_EQ(found, 11);

  slots[9] = kept;
  item = zaiFindSelector(record(), 0, 6, 0, &found, &cc, &rc);
  EXPECT_OK(cc, rc);
  EXPECT_EQ(found, 9);
}

// ===== zaiCountItems =============================================================

TEST_F(RepeatedSelectorTest, CountItemsBySelectorClassAndStart) {
  EXPECT_EQ(zaiCountItems(record(), 0, SEL_ANY_SELECTOR), 11);
  EXPECT_EQ(zaiCountItems(record(), 0, SEL_ANY_SYSTEM_SELECTOR), 8);
  EXPECT_EQ(zaiCountItems(record(), 0, SEL_ANY_USER_SELECTOR), 3);
  EXPECT_EQ(zaiCountItems(record(), 0, 5), 2);
  EXPECT_EQ(zaiCountItems(record(), 0, 6), 1);
  EXPECT_EQ(zaiCountItems(record(), 0, 7), 0);
  EXPECT_EQ(zaiCountItems(record(), 0, SEL_BAG_OPTIONS), 1);
  EXPECT_EQ(zaiCountItems(record(), 0, -9), 0);

  EXPECT_EQ(zaiCountItems(record(), 9, 5), 1);
  EXPECT_EQ(zaiCountItems(record(), 9, SEL_ANY_SELECTOR), 2);
  EXPECT_EQ(zaiCountItems(record(), 4, SEL_ANY_SYSTEM_SELECTOR), 4);
  EXPECT_EQ(zaiCountItems(record(), 11, SEL_ANY_SELECTOR), 0);
  EXPECT_EQ(zaiCountItems(record(), 40, 5), 0);
}

TEST_F(RepeatedSelectorTest, CountWalkSkipsEmptySlots) {
  void **slots = record()->items->slots;
  void *const kept = slots[9];
  slots[9] = nullptr;
  // From the start, every item is counted straight from the vector.
  const int32_t fromVector = zaiCountItems(record(), 0, SEL_ANY_SELECTOR);
  const int32_t walked = zaiCountItems(record(), 1, SEL_ANY_SELECTOR);
  const int32_t users = zaiCountItems(record(), 0, SEL_ANY_USER_SELECTOR);
  const int32_t sixes = zaiCountItems(record(), 0, 6);
  slots[9] = kept;
  EXPECT_EQ(fromVector, 11);
  EXPECT_EQ(walked, 9);
  EXPECT_EQ(users, 2);
  EXPECT_EQ(sixes, 0);
}

// ===== vxCountItems ==============================================================

TEST_F(SelectorTest, FreshBagsCountEightSystemItemsAndNoUserItems) {
  for (int32_t options : validOptions()) {
    SCOPED_TRACE("options " + std::to_string(options));
    CallerBag bag(options);
    EXPECT_EQ(countOf(bag.handle(), SEL_ANY_SELECTOR), 8);
    EXPECT_EQ(countOf(bag.handle(), SEL_ANY_SYSTEM_SELECTOR), 8);
    EXPECT_EQ(countOf(bag.handle(), SEL_ANY_USER_SELECTOR), 0);
    for (int32_t selector = -8; selector <= -1; ++selector)
      EXPECT_EQ(countOf(bag.handle(), selector), 1) << "selector " << selector;
  }
  ReplyBag reply;
  EXPECT_EQ(countOf(reply.handle(), SEL_ANY_SELECTOR), 8);
  EXPECT_EQ(countOf(reply.handle(), SEL_ANY_SYSTEM_SELECTOR), 8);
  EXPECT_EQ(countOf(reply.handle(), SEL_ANY_USER_SELECTOR), 0);
}

TEST_F(SelectorTest, CountOfAbsentSelectorIsZero) {
  for (int32_t options : {0, BAG_OPT_ADMIN_BAG, BAG_OPT_CHECK_SELECTORS}) {
    SCOPED_TRACE("options " + std::to_string(options));
    CallerBag bag(options);
    for (int32_t selector : {1, 2001, 4001, 6000}) {
      int32_t cc = -1, rc = -1, count = -1;
      vxCountItems(bag.handle(), selector, &count, &cc, &rc);
      EXPECT_OK(cc, rc);
      EXPECT_EQ(count, 0) << "selector " << selector;
    }
  }
}

TEST_F(SelectorTest, CountRefusesNegativeSelectorsOutsideSystemRange) {
  CallerBag plain(0);
  CallerBag admin(BAG_OPT_ADMIN_BAG);
  for (VXHBAG bag : {plain.handle(), admin.handle()}) {
    for (int32_t selector : {-9, -30000, -30004, INT32_MIN}) {
      SCOPED_TRACE("selector " + std::to_string(selector));
      int32_t cc = -1, rc = -1, count = 1234;
      vxCountItems(bag, selector, &count, &cc, &rc);
      EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_SYSTEM_ITEM_NOT_ALTERABLE);
      EXPECT_EQ(count, 1234);
    }
  }
}

TEST_F(SelectorTest, CountRangeIsCheckedOnlyInCheckingBags) {
  for (int32_t options : validOptions()) {
    SCOPED_TRACE("options " + std::to_string(options));
    CallerBag bag(options);
    for (int32_t selector : {0, 6001, INT32_MAX}) {
      int32_t cc = -1, rc = -1, count = 1234;
      vxCountItems(bag.handle(), selector, &count, &cc, &rc);
      if (checksSelectors(options)) {
        EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_SELECTOR_OUT_OF_RANGE) << "selector " << selector;
        EXPECT_EQ(count, 1234);
      } else {
        EXPECT_OK(cc, rc) << "selector " << selector;
        EXPECT_EQ(count, 0);
      }
    }
  }
  ReplyBag reply;
  int32_t cc = -1, rc = -1, count = 1234;
  vxCountItems(reply.handle(), 6001, &count, &cc, &rc);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_SELECTOR_OUT_OF_RANGE);
}

TEST_F(SelectorTest, CountIgnoresItemTypeOfTheRange) {
  CallerBag admin(BAG_OPT_ADMIN_BAG);
  addInteger(admin.handle(), 7, 1);
  addInteger(admin.handle(), 7, 2);
  addString(admin.handle(), 2500, "x");
  CallerBag nested(0);
  nest(admin.handle(), 4500, nested.release());
  EXPECT_EQ(countOf(admin.handle(), 7), 2);
  EXPECT_EQ(countOf(admin.handle(), 2500), 1);
  EXPECT_EQ(countOf(admin.handle(), 4500), 1);
  EXPECT_EQ(countOf(admin.handle(), SEL_ANY_USER_SELECTOR), 4);
  EXPECT_EQ(countOf(admin.handle(), SEL_ANY_SELECTOR), 12);
}

TEST_F(SelectorTest, CountChecksHandleThenCountPointerThenSelector) {
  vxtest::ProtectedPages pages;
  vxtest::LowPage low;  // where a handle can name it
  char *notABag = reinterpret_cast<char *>(low.bytes);
  std::memcpy(notABag, "ZXBGnot a bag at all, not at all", 32);
  const VXHBAG badHandles[] = {
      BAG_NONE,
      -1,
      vxtest::handleOf(notABag),
      vxtest::handleOf(notABag) + 1,
      vxtest::handleOf(pages.none),
      vxtest::handleOf(pages.unmapped),
  };
  for (VXHBAG handle : badHandles) {
    SCOPED_TRACE("handle " + std::to_string(handle));
    int32_t cc = -1, rc = -1, count = 1234;
    vxCountItems(handle, SEL_ANY_SELECTOR, &count, &cc, &rc);
    EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_BAG_HANDLE_ERROR);
    EXPECT_EQ(count, 1234);
    // A bad handle wins over a bad count pointer and a bad selector.
    vxCountItems(handle, -9, nullptr, &cc, &rc);
    EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_BAG_HANDLE_ERROR);
  }

  CallerBag admin(BAG_OPT_ADMIN_BAG);
  for (void *where : {static_cast<void *>(nullptr), pages.none, pages.readOnly, pages.unmapped}) {
    SCOPED_TRACE("count pointer " + std::to_string(reinterpret_cast<uintptr_t>(where)));
    auto *count = static_cast<int32_t *>(where);
    int32_t cc = -1, rc = -1;
    vxCountItems(admin.handle(), SEL_ANY_SELECTOR, count, &cc, &rc);
    EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_ITEM_COUNT_ERROR);
    // The count pointer is checked before the selector.
    vxCountItems(admin.handle(), -9, count, &cc, &rc);
    EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_ITEM_COUNT_ERROR);
    vxCountItems(admin.handle(), 6001, count, &cc, &rc);
    EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_ITEM_COUNT_ERROR);
  }
  EXPECT_EQ(*static_cast<const char *>(pages.readOnly), 'R');
}

// ===== vxInquireItemInfo =========================================================

TEST_F(SelectorTest, FirstItemOfFreshBagIsBagOptions) {
  for (int32_t options : validOptions()) {
    SCOPED_TRACE("options " + std::to_string(options));
    CallerBag bag(options);
    int32_t cc = -1, rc = -1, selector = 0, type = 0;
    vxInquireItemInfo(bag.handle(), SEL_ANY_SELECTOR, 0, &selector, &type, &cc, &rc);
    EXPECT_OK(cc, rc);
    EXPECT_EQ(selector, SEL_BAG_OPTIONS);
    EXPECT_EQ(type, ITEM_TYPE_INTEGER);
  }
}

// An admin bag holding, after its system items: 5 (integer), 2005 (string),
// 5 (integer), 4001 (bag), 2005 (string).
class MixedBagTest : public SelectorTest {
 protected:
  struct Expected {
    int32_t selector;
    int32_t type;
  };
  void SetUp() override {
    SelectorTest::SetUp();
    bag_ = std::make_unique<CallerBag>(BAG_OPT_ADMIN_BAG);
    addInteger(handle(), 5, 50);
    addString(handle(), 2005, "first");
    addInteger(handle(), 5, 51);
    CallerBag nested(0);
    nest(handle(), SEL_NESTED_REPLY_BAG, nested.release());
    addString(handle(), 2005, "second");
  }
  void TearDown() override {
    bag_.reset();
    SelectorTest::TearDown();
  }
  VXHBAG handle() const { return bag_->handle(); }

  static constexpr Expected kUserItems[5] = {{5, ITEM_TYPE_INTEGER},
                                             {2005, ITEM_TYPE_STRING},
                                             {5, ITEM_TYPE_INTEGER},
                                             {SEL_NESTED_REPLY_BAG, ITEM_TYPE_BAG},
                                             {2005, ITEM_TYPE_STRING}};
  std::unique_ptr<CallerBag> bag_;
};

TEST_F(MixedBagTest, WildcardsWalkItemsInStoredOrder) {
  std::vector<Expected> all;
  for (int32_t selector : kSystemOrder) all.push_back({selector, ITEM_TYPE_INTEGER});
  for (const Expected &user : kUserItems) all.push_back(user);

  int32_t cc = -1, rc = -1, selector = 0, type = 0;
  for (size_t n = 0; n < all.size(); ++n) {
    vxInquireItemInfo(handle(), SEL_ANY_SELECTOR, static_cast<int32_t>(n), &selector, &type, &cc,
                      &rc);
    EXPECT_OK(cc, rc) << "item " << n;
    EXPECT_EQ(selector, all[n].selector) << "item " << n;
    EXPECT_EQ(type, all[n].type) << "item " << n;
  }
  vxInquireItemInfo(handle(), SEL_ANY_SELECTOR, 13, &selector, &type, &cc, &rc);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_INDEX_NOT_PRESENT);

  for (int32_t n = 0; n < 5; ++n) {
    vxInquireItemInfo(handle(), SEL_ANY_USER_SELECTOR, n, &selector, &type, &cc, &rc);
    EXPECT_OK(cc, rc) << "user item " << n;
    EXPECT_EQ(selector, kUserItems[n].selector) << "user item " << n;
    EXPECT_EQ(type, kUserItems[n].type) << "user item " << n;
  }
  vxInquireItemInfo(handle(), SEL_ANY_USER_SELECTOR, 5, &selector, &type, &cc, &rc);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_INDEX_NOT_PRESENT);

  for (int32_t n = 0; n < 8; ++n) {
    vxInquireItemInfo(handle(), SEL_ANY_SYSTEM_SELECTOR, n, &selector, &type, &cc, &rc);
    EXPECT_OK(cc, rc) << "system item " << n;
    EXPECT_EQ(selector, kSystemOrder[n]) << "system item " << n;
    EXPECT_EQ(type, ITEM_TYPE_INTEGER) << "system item " << n;
  }
  vxInquireItemInfo(handle(), SEL_ANY_SYSTEM_SELECTOR, 8, &selector, &type, &cc, &rc);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_INDEX_NOT_PRESENT);
}

TEST_F(MixedBagTest, PlainSelectorsReportTheirType) {
  int32_t cc = -1, rc = -1, selector = 0, type = 0;
  vxInquireItemInfo(handle(), 2005, 1, &selector, &type, &cc, &rc);
  EXPECT_OK(cc, rc);
  EXPECT_EQ(selector, 2005);
  EXPECT_EQ(type, ITEM_TYPE_STRING);
  vxInquireItemInfo(handle(), SEL_NESTED_REPLY_BAG, ITEM_INDEX_NONE, &selector, &type, &cc, &rc);
  EXPECT_OK(cc, rc);
  EXPECT_EQ(selector, SEL_NESTED_REPLY_BAG);
  EXPECT_EQ(type, ITEM_TYPE_BAG);
  vxInquireItemInfo(handle(), SEL_PCF_TYPE, ITEM_INDEX_NONE, &selector, &type, &cc, &rc);
  EXPECT_OK(cc, rc);
  EXPECT_EQ(selector, SEL_PCF_TYPE);
  EXPECT_EQ(type, ITEM_TYPE_INTEGER);
}

TEST_F(MixedBagTest, ItemInfoLookupFailuresLeaveOutputsAlone) {
  struct Case {
    int32_t selector;
    int32_t index;
    int32_t reason;
  };
  const Case cases[] = {
      {6, 0, RC_SELECTOR_NOT_PRESENT},
      {6, ITEM_INDEX_NONE, RC_SELECTOR_NOT_PRESENT},
      {5, ITEM_INDEX_NONE, RC_SELECTOR_NOT_UNIQUE},
      {5, 2, RC_INDEX_NOT_PRESENT},
      {5, ITEM_INDEX_ALL, RC_INDEX_ERROR},
      {SEL_ANY_SELECTOR, ITEM_INDEX_NONE, RC_INDEX_ERROR},
      {SEL_ANY_USER_SELECTOR, ITEM_INDEX_NONE, RC_INDEX_ERROR},
      {SEL_ANY_SYSTEM_SELECTOR, ITEM_INDEX_NONE, RC_INDEX_ERROR},
      {SEL_ANY_SYSTEM_SELECTOR, -5, RC_INDEX_ERROR},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE("selector " + std::to_string(c.selector) + " index " + std::to_string(c.index));
    int32_t cc = -1, rc = -1, selector = 1234, type = 5678;
    vxInquireItemInfo(handle(), c.selector, c.index, &selector, &type, &cc, &rc);
    EXPECT_OUTCOME(cc, rc, CC_FAILED, c.reason);
    EXPECT_EQ(selector, 1234);
    EXPECT_EQ(type, 5678);
  }
}

TEST_F(SelectorTest, ItemInfoChecksInArgumentOrder) {
  vxtest::ProtectedPages pages;
  CallerBag admin(BAG_OPT_ADMIN_BAG);
  CallerBag plain(0);
  int32_t cc = -1, rc = -1, selector = 1234, type = 5678;

  for (VXHBAG handle : {BAG_NONE, -1, admin.handle() + 1, vxtest::handleOf(pages.unmapped)}) {
    SCOPED_TRACE("handle " + std::to_string(handle));
    vxInquireItemInfo(handle, SEL_ANY_SELECTOR, 0, &selector, &type, &cc, &rc);
    EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_BAG_HANDLE_ERROR);
    vxInquireItemInfo(handle, -9, 0, nullptr, nullptr, &cc, &rc);
    EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_BAG_HANDLE_ERROR);
  }

  for (int32_t bad : {-9, -30000, -30004, INT32_MIN}) {
    SCOPED_TRACE("selector " + std::to_string(bad));
    vxInquireItemInfo(plain.handle(), bad, 0, &selector, &type, &cc, &rc);
    EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_SYSTEM_ITEM_NOT_ALTERABLE);
    // The selector is judged before either output pointer.
    vxInquireItemInfo(plain.handle(), bad, 0, nullptr, nullptr, &cc, &rc);
    EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_SYSTEM_ITEM_NOT_ALTERABLE);
  }
  for (int32_t bad : {0, 6001}) {
    SCOPED_TRACE("selector " + std::to_string(bad));
    vxInquireItemInfo(admin.handle(), bad, 0, &selector, &type, &cc, &rc);
    EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_SELECTOR_OUT_OF_RANGE);
    vxInquireItemInfo(admin.handle(), bad, 0, nullptr, &type, &cc, &rc);
    EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_SELECTOR_OUT_OF_RANGE);
    // Without checking the selector passes and is simply not there.
    vxInquireItemInfo(plain.handle(), bad, 0, &selector, &type, &cc, &rc);
    EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_SELECTOR_NOT_PRESENT);
  }
  // Any range of a checking bag passes; the type is not considered.
  for (int32_t inRange : {1, 2000, 2001, 4000, 4001, 6000}) {
    vxInquireItemInfo(admin.handle(), inRange, 0, &selector, &type, &cc, &rc);
    EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_SELECTOR_NOT_PRESENT) << "selector " << inRange;
  }
  EXPECT_EQ(selector, 1234);
  EXPECT_EQ(type, 5678);

  for (void *where : {static_cast<void *>(nullptr), pages.none, pages.readOnly, pages.unmapped}) {
    SCOPED_TRACE("pointer " + std::to_string(reinterpret_cast<uintptr_t>(where)));
    auto *bad = static_cast<int32_t *>(where);
    vxInquireItemInfo(admin.handle(), SEL_ANY_SELECTOR, 0, bad, &type, &cc, &rc);
    EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_OUT_SELECTOR_ERROR);
    vxInquireItemInfo(admin.handle(), SEL_ANY_SELECTOR, 0, &selector, bad, &cc, &rc);
    EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_ITEM_TYPE_ERROR);
    // Both bad: the out selector comes first.
    vxInquireItemInfo(admin.handle(), SEL_ANY_SELECTOR, 0, bad, bad, &cc, &rc);
    EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_OUT_SELECTOR_ERROR);
  }
  EXPECT_EQ(selector, 1234);
  EXPECT_EQ(type, 5678);
  EXPECT_EQ(*static_cast<const char *>(pages.readOnly), 'R');
}

// ===== Nested bags ===============================================================

TEST_F(SelectorTest, InquireBagReturnsTheNestedHandles) {
  const int32_t blocksBefore = vxtest::liveBlocks();
  CallerBag holder(BAG_OPT_ADMIN_BAG);
  CallerBag first(0);
  ReplyBag second;
  const VXHBAG firstHandle = first.handle();
  const VXHBAG secondHandle = second.handle();
  addInteger(first.handle(), 3, 33);
  nest(holder.handle(), SEL_NESTED_REPLY_BAG, first.release());
  nest(holder.handle(), SEL_NESTED_REPLY_BAG, second.release());
  EXPECT_EQ(countOf(holder.handle(), SEL_NESTED_REPLY_BAG), 2);

  int32_t cc = -1, rc = -1;
  VXHBAG nested = BAG_NONE;
  vxInquireBag(holder.handle(), SEL_NESTED_REPLY_BAG, 0, &nested, &cc, &rc);
  EXPECT_OK(cc, rc);
  EXPECT_EQ(nested, firstHandle);
  vxInquireBag(holder.handle(), SEL_NESTED_REPLY_BAG, 1, &nested, &cc, &rc);
  EXPECT_OK(cc, rc);
  EXPECT_EQ(nested, secondHandle);

  nested = 4242;
  vxInquireBag(holder.handle(), SEL_NESTED_REPLY_BAG, ITEM_INDEX_NONE, &nested, &cc, &rc);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_SELECTOR_NOT_UNIQUE);
  vxInquireBag(holder.handle(), SEL_NESTED_REPLY_BAG, 2, &nested, &cc, &rc);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_INDEX_NOT_PRESENT);
  vxInquireBag(holder.handle(), 4002, 0, &nested, &cc, &rc);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_SELECTOR_NOT_PRESENT);
  EXPECT_EQ(nested, 4242);

  // The handles stay usable and still belong to the holder.
  int32_t value = 0;
  vxInquireInteger(firstHandle, 3, ITEM_INDEX_NONE, &value, &cc, &rc);
  EXPECT_OK(cc, rc);
  EXPECT_EQ(value, 33);
  vxInquireInteger(secondHandle, SEL_BAG_OPTIONS, ITEM_INDEX_NONE, &value, &cc, &rc);
  EXPECT_OK(cc, rc);
  EXPECT_EQ(value, BAG_OPT_SYSTEM_BAG | BAG_OPT_CHECK_SELECTORS);
  EXPECT_EQ(countOf(firstHandle, SEL_ANY_USER_SELECTOR), 1);
  EXPECT_EQ(countOf(holder.handle(), SEL_NESTED_REPLY_BAG), 2);
  EXPECT_GT(vxtest::liveBlocks(), blocksBefore);
}

TEST_F(SelectorTest, InquireBagOnOtherItemTypesIsWrongType) {
  CallerBag plain(0);
  addString(plain.handle(), 4002, "not a bag");
  addInteger(plain.handle(), 4003, 7);
  addString(plain.handle(), 9, "text");
  const int32_t cases[][2] = {{4002, 0},
                              {4003, ITEM_INDEX_NONE},
                              {9, 0},
                              {SEL_REASON, 0},
                              {SEL_BAG_OPTIONS, ITEM_INDEX_NONE}};
  for (const auto &c : cases) {
    SCOPED_TRACE("selector " + std::to_string(c[0]));
    int32_t cc = -1, rc = -1;
    VXHBAG nested = 4242;
    vxInquireBag(plain.handle(), c[0], c[1], &nested, &cc, &rc);
    EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_SELECTOR_WRONG_TYPE);
    EXPECT_EQ(nested, 4242);
  }
}

TEST_F(SelectorTest, InquireBagWorksOnSystemHolder) {
  ReplyBag holder;
  CallerBag nested(0);
  const VXHBAG nestedHandle = nested.handle();
  nest(holder.handle(), SEL_NESTED_REPLY_BAG, nested.release());
  int32_t cc = -1, rc = -1;
  VXHBAG found = BAG_NONE;
  vxInquireBag(holder.handle(), SEL_NESTED_REPLY_BAG, ITEM_INDEX_NONE, &found, &cc, &rc);
  EXPECT_OK(cc, rc);
  EXPECT_EQ(found, nestedHandle);
  int32_t selector = 0, type = 0;
  vxInquireItemInfo(holder.handle(), SEL_ANY_USER_SELECTOR, 0, &selector, &type, &cc, &rc);
  EXPECT_OK(cc, rc);
  EXPECT_EQ(selector, SEL_NESTED_REPLY_BAG);
  EXPECT_EQ(type, ITEM_TYPE_BAG);
  EXPECT_EQ(countOf(holder.handle(), SEL_ANY_SELECTOR), 9);
}

TEST_F(SelectorTest, InquireBagWildcardsSkipTheSelectorCheck) {
  CallerBag admin(BAG_OPT_ADMIN_BAG);
  CallerBag nested(0);
  const VXHBAG nestedHandle = nested.handle();
  nest(admin.handle(), 4500, nested.release());
  int32_t cc = -1, rc = -1;
  VXHBAG found = BAG_NONE;
  vxInquireBag(admin.handle(), SEL_ANY_USER_SELECTOR, 0, &found, &cc, &rc);
  EXPECT_OK(cc, rc);
  EXPECT_EQ(found, nestedHandle);
  vxInquireBag(admin.handle(), SEL_ANY_SELECTOR, 8, &found, &cc, &rc);
  EXPECT_OK(cc, rc);
  EXPECT_EQ(found, nestedHandle);

  found = 4242;
  vxInquireBag(admin.handle(), SEL_ANY_SELECTOR, 0, &found, &cc, &rc);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_SELECTOR_WRONG_TYPE);
  vxInquireBag(admin.handle(), SEL_ANY_SYSTEM_SELECTOR, 0, &found, &cc, &rc);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_SELECTOR_WRONG_TYPE);
  vxInquireBag(admin.handle(), SEL_ANY_USER_SELECTOR, ITEM_INDEX_NONE, &found, &cc, &rc);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_INDEX_ERROR);
  vxInquireBag(admin.handle(), SEL_ANY_USER_SELECTOR, 1, &found, &cc, &rc);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_INDEX_NOT_PRESENT);
  EXPECT_EQ(found, 4242);
}

TEST_F(SelectorTest, InquireBagChecksHandleThenValuePointerThenSelector) {
  vxtest::ProtectedPages pages;
  CallerBag admin(BAG_OPT_ADMIN_BAG);
  CallerBag plain(0);
  int32_t cc = -1, rc = -1;
  VXHBAG found = 4242;

  for (VXHBAG handle : {BAG_NONE, -1, admin.handle() + 1, vxtest::handleOf(pages.none)}) {
    SCOPED_TRACE("handle " + std::to_string(handle));
    vxInquireBag(handle, SEL_NESTED_REPLY_BAG, 0, &found, &cc, &rc);
    EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_BAG_HANDLE_ERROR);
    vxInquireBag(handle, -9, 0, nullptr, &cc, &rc);
    EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_BAG_HANDLE_ERROR);
  }

  for (void *where : {static_cast<void *>(nullptr), pages.none, pages.readOnly, pages.unmapped}) {
    SCOPED_TRACE("pointer " + std::to_string(reinterpret_cast<uintptr_t>(where)));
    auto *bad = static_cast<VXHBAG *>(where);
    vxInquireBag(admin.handle(), SEL_NESTED_REPLY_BAG, 0, bad, &cc, &rc);
    EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_ITEM_VALUE_ERROR);
    // The value pointer is checked before the selector.
    vxInquireBag(admin.handle(), -9, 0, bad, &cc, &rc);
    EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_ITEM_VALUE_ERROR);
    vxInquireBag(admin.handle(), 1, 0, bad, &cc, &rc);
    EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_ITEM_VALUE_ERROR);
  }
  EXPECT_EQ(*static_cast<const char *>(pages.readOnly), 'R');

  for (int32_t bad : {-9, -30000, INT32_MIN}) {
    vxInquireBag(plain.handle(), bad, 0, &found, &cc, &rc);
    EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_SYSTEM_ITEM_NOT_ALTERABLE) << "selector " << bad;
  }
  // A checking bag takes only the bag range here.
  for (int32_t bad : {0, 1, 2000, 2001, 4000, 6001}) {
    vxInquireBag(admin.handle(), bad, 0, &found, &cc, &rc);
    EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_SELECTOR_OUT_OF_RANGE) << "selector " << bad;
    vxInquireBag(plain.handle(), bad, 0, &found, &cc, &rc);
    EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_SELECTOR_NOT_PRESENT) << "selector " << bad;
  }
  for (int32_t inRange : {4001, 6000}) {
    vxInquireBag(admin.handle(), inRange, 0, &found, &cc, &rc);
    EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_SELECTOR_NOT_PRESENT) << "selector " << inRange;
  }
  EXPECT_EQ(found, 4242);
}

TEST_F(SelectorTest, AddBagRefusesSelectorOfAnotherType) {
  CallerBag plain(0);
  addInteger(plain.handle(), 4001, 1);
  addString(plain.handle(), 4002, "text");
  CallerBag nested(0);
  for (int32_t selector : {4001, 4002, SEL_REASON}) {
    int32_t cc = -1, rc = -1;
    zaiAddBag(plain.record(), selector, nested.handle(), &cc, &rc);
    EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_INCONSISTENT_ITEM_TYPE) << "selector " << selector;
  }
  EXPECT_EQ(countOf(plain.handle(), SEL_ANY_SELECTOR), 10);
  EXPECT_EQ(countOf(plain.handle(), 4001), 1);

  // The other way round: an integer cannot join a selector that holds bags.
  nest(plain.handle(), 4003, nested.release());
  int32_t cc = -1, rc = -1;
  vxAddInteger(plain.handle(), 4003, 1, &cc, &rc);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_INCONSISTENT_ITEM_TYPE);
  EXPECT_EQ(countOf(plain.handle(), 4003), 1);
}

TEST_F(SelectorTest, AddBagMakesNoRangeOrSystemBagCheck) {
  CallerBag admin(BAG_OPT_ADMIN_BAG);
  CallerBag first(0);
  nest(admin.handle(), 5, first.release());
  ReplyBag reply;
  CallerBag second(0);
  nest(reply.handle(), 7000, second.release());
  int32_t cc = -1, rc = -1, selector = 0, type = 0;
  vxInquireItemInfo(admin.handle(), SEL_ANY_USER_SELECTOR, 0, &selector, &type, &cc, &rc);
  EXPECT_OK(cc, rc);
  EXPECT_EQ(selector, 5);
  EXPECT_EQ(type, ITEM_TYPE_BAG);
  // The item is stored as given: "ZAPR", the selector, the type and the handle.
  const zaiPROPERTY *item = zaiItemAt(reply.record(), 8);
  EXPECT_EQ(std::memcmp(item->eyeCatcher, "ZAPR", 4), 0);
  EXPECT_EQ(item->selector, 7000);
  EXPECT_EQ(item->type, ITEM_TYPE_BAG);
  EXPECT_EQ(reply.record()->items->count, 9);
}

TEST_F(SelectorTest, DeletingHolderDeletesNestedBagsRecursively) {
  const int32_t blocksBefore = vxtest::liveBlocks();
  VXHBAG holder = BAG_NONE;
  int32_t cc = -1, rc = -1;
  vxCreateBag(BAG_OPT_ADMIN_BAG, &holder, &cc, &rc);
  ASSERT_OK(cc, rc);
  {
    CallerBag middle(0);
    ReplyBag inner;
    // Callers cannot alter a system bag; the library fills it from inside.
    int32_t innerCc = -1, innerRc = -1;
    zaiAddString(inner.record(), 2001, 4, "deep", 0, &innerCc, &innerRc);
    EXPECT_OK(innerCc, innerRc);
    CallerBag sibling(BAG_OPT_CHECK_SELECTORS);
    addString(middle.handle(), 2001, "middle string");
    addInteger(middle.handle(), 1, 1);
    nest(middle.handle(), 4001, inner.release());
    addString(holder, 2002, "holder string");
    nest(holder, 4001, middle.release());
    nest(holder, 4001, sibling.release());
  }
  EXPECT_GT(vxtest::liveBlocks(), blocksBefore);
  EXPECT_EQ(countOf(holder, SEL_NESTED_REPLY_BAG), 2);
  vxDeleteBag(&holder, &cc, &rc);
  EXPECT_OK(cc, rc);
  EXPECT_EQ(holder, -1);
  EXPECT_EQ(vxtest::liveBlocks(), blocksBefore);
}

TEST_F(SelectorTest, GrowingBagKeepsItsOrder) {
  CallerBag bag(0);
  struct Added {
    int32_t selector;
    int32_t type;
  };
  std::vector<Added> added;
  for (int32_t i = 0; i < 100; ++i) {
    if (i % 10 == 9) {
      CallerBag nested(0);
      addInteger(nested.handle(), 1, i);
      nest(bag.handle(), 4001 + i, nested.release());
      added.push_back({4001 + i, ITEM_TYPE_BAG});
    } else if (i % 3 == 0) {
      addString(bag.handle(), 2001 + i, ("item " + std::to_string(i)).c_str());
      added.push_back({2001 + i, ITEM_TYPE_STRING});
    } else {
      addInteger(bag.handle(), 1 + i, i * 7);
      added.push_back({1 + i, ITEM_TYPE_INTEGER});
    }
    // Look back at the whole bag as it crosses 40 and 80 items.
    const int32_t items = 8 + i + 1;
    if (items == 40 || items == 41 || items == 80 || items == 81) {
      int32_t cc = -1, rc = -1, selector = 0, type = 0;
      vxInquireItemInfo(bag.handle(), SEL_ANY_SELECTOR, items - 1, &selector, &type, &cc, &rc);
      EXPECT_OK(cc, rc);
      EXPECT_EQ(selector, added.back().selector) << "at " << items << " items";
      vxInquireItemInfo(bag.handle(), SEL_ANY_SELECTOR, 0, &selector, &type, &cc, &rc);
      EXPECT_EQ(selector, SEL_BAG_OPTIONS) << "at " << items << " items";
    }
  }
  EXPECT_EQ(countOf(bag.handle(), SEL_ANY_SELECTOR), 108);
  EXPECT_EQ(countOf(bag.handle(), SEL_ANY_USER_SELECTOR), 100);
  EXPECT_EQ(countOf(bag.handle(), SEL_ANY_SYSTEM_SELECTOR), 8);

  int32_t cc = -1, rc = -1, selector = 0, type = 0;
  for (int32_t n = 0; n < 8; ++n) {
    vxInquireItemInfo(bag.handle(), SEL_ANY_SELECTOR, n, &selector, &type, &cc, &rc);
    EXPECT_OK(cc, rc);
    EXPECT_EQ(selector, kSystemOrder[n]) << "item " << n;
  }
  for (int32_t i = 0; i < 100; ++i) {
    vxInquireItemInfo(bag.handle(), SEL_ANY_SELECTOR, 8 + i, &selector, &type, &cc, &rc);
    EXPECT_OK(cc, rc) << "item " << 8 + i;
    EXPECT_EQ(selector, added[i].selector) << "item " << 8 + i;
    EXPECT_EQ(type, added[i].type) << "item " << 8 + i;
    vxInquireItemInfo(bag.handle(), SEL_ANY_USER_SELECTOR, i, &selector, &type, &cc, &rc);
    EXPECT_EQ(selector, added[i].selector) << "user item " << i;
  }
  vxInquireItemInfo(bag.handle(), SEL_ANY_SELECTOR, 108, &selector, &type, &cc, &rc);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_INDEX_NOT_PRESENT);

  // The values moved with their items.
  for (int32_t i = 0; i < 100; ++i) {
    if (added[i].type == ITEM_TYPE_INTEGER) {
      int32_t value = -1;
      vxInquireInteger(bag.handle(), added[i].selector, ITEM_INDEX_NONE, &value, &cc, &rc);
      EXPECT_OK(cc, rc);
      EXPECT_EQ(value, i * 7);
    } else if (added[i].type == ITEM_TYPE_STRING) {
      char buffer[16];
      int32_t length = 0;
      vxInquireString(bag.handle(), added[i].selector, 0, sizeof buffer, buffer, &length, nullptr,
                      &cc, &rc);
      EXPECT_OK(cc, rc);
      const std::string expected = "item " + std::to_string(i);
      EXPECT_EQ(std::string(buffer, static_cast<size_t>(length)), expected);
    } else {
      VXHBAG nested = BAG_NONE;
      vxInquireBag(bag.handle(), added[i].selector, ITEM_INDEX_NONE, &nested, &cc, &rc);
      EXPECT_OK(cc, rc);
      int32_t value = -1;
      vxInquireInteger(nested, 1, 0, &value, &cc, &rc);
      EXPECT_OK(cc, rc);
      EXPECT_EQ(value, i);
    }
  }
}

// ===== Trace =====================================================================

TEST_F(SelectorTest, CountItemsWritesItsApiTrace) {
  CallerBag bag(0);
  addInteger(bag.handle(), 5, 1);
  const VXHBAG handle = bag.handle();
  int32_t cc = -1, rc = -1, count = -1;
  std::vector<vxtest::TraceLine> raw;
  {
    vxtest::TraceCapture capture(0x1);
    vxCountItems(handle, SEL_ANY_USER_SELECTOR, &count, &cc, &rc);
    raw = capture.raw();
  }
  EXPECT_OK(cc, rc);
  EXPECT_EQ(count, 1);
  std::vector<std::string> lines;
  for (const vxtest::TraceLine &line : raw) {
    lines.push_back(vxtest::render(line));
    EXPECT_EQ(line.function, ZAIFN_zaiVXCountItems) << lines.back();
  }
  const std::vector<std::string> expected = {
      "__________",
      "vxCountItems >>",
      "Bag:",
      dataOf(handle),
      "Selector:",
      dataOf(SEL_ANY_USER_SELECTOR),
      "ItemCount     : Output Parm",
      "Compcode      : Output Parm",
      "Reason        : Output Parm",
      "__________",
      "vxCountItems <<",
      "Bag           : Input  Parm",
      "Selector      : Input  Parm",
      "ItemCount:",
      dataOf(1),
      "Compcode:",
      dataOf(CC_OK),
      "Reason:",
      dataOf(RC_NONE),
  };
  EXPECT_EQ(lines, expected);
}

TEST_F(SelectorTest, CountItemsTraceOfFailureShowsMissingCount) {
  CallerBag bag(0);
  const VXHBAG handle = bag.handle();
  int32_t cc = -1, rc = -1;
  std::vector<std::string> lines;
  {
    vxtest::TraceCapture capture(0x1);
    vxCountItems(handle, -9, nullptr, &cc, &rc);
    lines = capture.lines();
  }
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_ITEM_COUNT_ERROR);
  const std::vector<std::string> expected = {
      "__________",
      "vxCountItems >>",
      "Bag:",
      dataOf(handle),
      "Selector:",
      dataOf(-9),
      "ItemCount     : Output Parm",
      "Compcode      : Output Parm",
      "Reason        : Output Parm",
      "__________",
      "vxCountItems <<",
      "Bag           : Input  Parm",
      "Selector      : Input  Parm",
      "ItemCount: NULL",
      "Compcode:",
      dataOf(CC_FAILED),
      "Reason:",
      dataOf(RC_ITEM_COUNT_ERROR),
  };
  EXPECT_EQ(lines, expected);
}

TEST_F(SelectorTest, InquireBagWritesItsApiTrace) {
  CallerBag holder(BAG_OPT_ADMIN_BAG);
  CallerBag nested(0);
  const VXHBAG nestedHandle = nested.handle();
  nest(holder.handle(), SEL_NESTED_REPLY_BAG, nested.release());
  const VXHBAG handle = holder.handle();
  int32_t cc = -1, rc = -1;
  VXHBAG found = BAG_NONE;
  std::vector<vxtest::TraceLine> raw;
  {
    vxtest::TraceCapture capture(0x1);
    vxInquireBag(handle, SEL_NESTED_REPLY_BAG, 0, &found, &cc, &rc);
    raw = capture.raw();
  }
  EXPECT_OK(cc, rc);
  EXPECT_EQ(found, nestedHandle);
  std::vector<std::string> lines;
  for (const vxtest::TraceLine &line : raw) {
    lines.push_back(vxtest::render(line));
    EXPECT_EQ(line.function, ZAIFN_zaiVXInquireBag) << lines.back();
  }
  const std::vector<std::string> expected = {
      "__________",
      "vxInquireBag >>",
      "Bag:",
      dataOf(handle),
      "Selector:",
      dataOf(SEL_NESTED_REPLY_BAG),
      "ItemIndex:",
      dataOf(0),
      "ItemValue     : Output Parm",
      "Compcode      : Output Parm",
      "Reason        : Output Parm",
      "__________",
      "vxInquireBag <<",
      "Bag           : Input  Parm",
      "Selector      : Input  Parm",
      "ItemIndex     : Input  Parm",
      "ItemValue:",
      dataOf(nestedHandle),
      "Compcode:",
      dataOf(CC_OK),
      "Reason:",
      dataOf(RC_NONE),
  };
  EXPECT_EQ(lines, expected);
}

TEST_F(SelectorTest, InquireItemInfoWritesItsApiTrace) {
  CallerBag bag(0);
  addString(bag.handle(), 2500, "s");
  const VXHBAG handle = bag.handle();
  int32_t cc = -1, rc = -1, selector = 0, type = 0;
  std::vector<vxtest::TraceLine> raw;
  {
    vxtest::TraceCapture capture(0x1);
    vxInquireItemInfo(handle, SEL_ANY_USER_SELECTOR, 0, &selector, &type, &cc, &rc);
    raw = capture.raw();
  }
  EXPECT_OK(cc, rc);
  std::vector<std::string> lines;
  for (const vxtest::TraceLine &line : raw) {
    lines.push_back(vxtest::render(line));
    EXPECT_EQ(line.function, ZAIFN_zaiVXInquireItemInfo) << lines.back();
  }
  const std::vector<std::string> expected = {
      "__________",
      "vxInquireItemInfo >>",
      "Bag:",
      dataOf(handle),
      "Selector:",
      dataOf(SEL_ANY_USER_SELECTOR),
      "ItemIndex:",
      dataOf(0),
      "OutSelector   : Output Parm",
      "ItemType      : Output Parm",
      "Compcode      : Output Parm",
      "Reason        : Output Parm",
      "__________",
      "vxInquireItemInfo <<",
      "Bag           : Input  Parm",
      "Selector      : Input  Parm",
      "ItemIndex     : Input  Parm",
      "OutSelector:",
      dataOf(2500),
      "ItemType:",
      dataOf(ITEM_TYPE_STRING),
      "Compcode:",
      dataOf(CC_OK),
      "Reason:",
      dataOf(RC_NONE),
  };
  EXPECT_EQ(lines, expected);
}

TEST_F(SelectorTest, InquireItemInfoTraceOfFailureShowsUntouchedOutputs) {
  CallerBag bag(0);
  const VXHBAG handle = bag.handle();
  int32_t cc = -1, rc = -1, type = 5678;
  std::vector<std::string> lines;
  {
    vxtest::TraceCapture capture(0x1);
    vxInquireItemInfo(handle, SEL_ANY_SELECTOR, 3, nullptr, &type, &cc, &rc);
    lines = capture.lines();
  }
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_OUT_SELECTOR_ERROR);
  const std::vector<std::string> expected = {
      "__________",
      "vxInquireItemInfo >>",
      "Bag:",
      dataOf(handle),
      "Selector:",
      dataOf(SEL_ANY_SELECTOR),
      "ItemIndex:",
      dataOf(3),
      "OutSelector   : Output Parm",
      "ItemType      : Output Parm",
      "Compcode      : Output Parm",
      "Reason        : Output Parm",
      "__________",
      "vxInquireItemInfo <<",
      "Bag           : Input  Parm",
      "Selector      : Input  Parm",
      "ItemIndex     : Input  Parm",
      "OutSelector: NULL",
      "ItemType:",
      dataOf(5678),
      "Compcode:",
      dataOf(CC_FAILED),
      "Reason:",
      dataOf(RC_OUT_SELECTOR_ERROR),
  };
  EXPECT_EQ(lines, expected);
}

TEST_F(SelectorTest, NoApiTraceWhenTraceIsOff) {
  CallerBag holder(0);
  CallerBag nested(0);
  nest(holder.handle(), SEL_NESTED_REPLY_BAG, nested.release());
  int32_t cc = -1, rc = -1, count = 0, selector = 0, type = 0;
  VXHBAG found = BAG_NONE;
  std::vector<std::string> lines;
  {
    vxtest::TraceCapture capture(0x0);
    processAnchor.earlyTrace = 0;
    vxCountItems(holder.handle(), SEL_ANY_SELECTOR, &count, &cc, &rc);
    EXPECT_OK(cc, rc);
    vxInquireBag(holder.handle(), SEL_NESTED_REPLY_BAG, 0, &found, &cc, &rc);
    EXPECT_OK(cc, rc);
    vxInquireItemInfo(holder.handle(), SEL_ANY_SELECTOR, 0, &selector, &type, &cc, &rc);
    EXPECT_OK(cc, rc);
    vxCountItems(holder.handle(), -9, &count, &cc, &rc);
    EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_SYSTEM_ITEM_NOT_ALTERABLE);
    lines = capture.lines();
  }
  EXPECT_EQ(count, 9);
  EXPECT_EQ(lines, std::vector<std::string>{});
}

TEST_F(SelectorTest, InternalFunctionsWriteTheirParameterLines) {
  CallerBag bag(0);
  addInteger(bag.handle(), 5, 1);
  addInteger(bag.handle(), 5, 2);
  zaiBAG *record = bag.record();
  const void *address = record;
  std::vector<std::string> lines;
  {
    vxtest::TraceCapture capture(0xC0000, true);
    int32_t cc = -1, rc = -1, found = -1;
    zaiCheckSelector(record, 17, ITEM_TYPE_STRING, &cc, &rc);
    EXPECT_OK(cc, rc);
    EXPECT_EQ(zaiCountItems(record, 3, SEL_ANY_SYSTEM_SELECTOR), 5);
    zaiFindSelector(record, 2, 5, 1, &found, &cc, &rc);
    EXPECT_OK(cc, rc);
    EXPECT_EQ(found, 9);
    // With index -1 the lookup asks for uniqueness, which counts.
    zaiFindSelector(record, 0, SEL_REASON, ITEM_INDEX_NONE, &found, &cc, &rc);
    EXPECT_OK(cc, rc);
    lines = parmLines(capture);
  }
  const std::vector<std::string> expected = {
      format("169 pBag:%p, selector:17, type: 2", address),
      format("165 pBag:%p, startIndex:3, selector:-30003", address),
      format("167 pBag:%p, startIndex:2, selector:5, itemIndex:1", address),
      format("167 pBag:%p, startIndex:0, selector:-7, itemIndex:-1", address),
      format("170 pBag:%p, selector:-7", address),
      format("165 pBag:%p, startIndex:0, selector:-7", address),
  };
  EXPECT_EQ(lines, expected);
}

TEST_F(SelectorTest, NoParameterLinesWithoutTheirOptionOrThreadTrace) {
  CallerBag bag(0);
  zaiBAG *record = bag.record();
  for (bool threadTrace : {false, true}) {
    const uint32_t options = threadTrace ? 0x1 : 0xC0000;
    SCOPED_TRACE("options " + std::to_string(options));
    std::vector<std::string> lines;
    {
      vxtest::TraceCapture capture(options, threadTrace);
      processAnchor.earlyTrace = 0;
      int32_t cc = -1, rc = -1, found = -1;
      zaiCheckSelector(record, 17, ITEM_TYPE_INTEGER, &cc, &rc);
      zaiCountItems(record, 0, SEL_ANY_SELECTOR);
      zaiFindSelector(record, 0, SEL_ANY_SELECTOR, 0, &found, &cc, &rc);
      EXPECT_OK(cc, rc);
      lines = parmLines(capture);
    }
    EXPECT_EQ(lines, std::vector<std::string>{});
  }
}

}  // namespace
