// Integer items: vxAddInteger, vxSetInteger, vxInquireInteger, vxAddInquiry
// and the internal functions behind them.
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <ostream>
#include <stdexcept>

#include "vxtest.h"

namespace {

using vxtest::bagItem;
using vxtest::countOf;
using vxtest::defaultItems;
using vxtest::exitMarker;
using vxtest::handleOf;
using vxtest::integer;
using vxtest::Item;
using vxtest::itemsOf;
using vxtest::stringItem;
using vxtest::operator+;

class IntegerTest : public vxtest::BagTest {
 protected:
  zaiBAG *recordOf(VXHBAG bag) { return zaiDecodeHandle(bag); }

  // Adds user integers until the bag holds `total` items.
  void fillTo(VXHBAG bag, int32_t total, int32_t firstSelector = 100) {
    int32_t cc, rc;
    for (int32_t selector = firstSelector; countOf(bag, SEL_ANY_SELECTOR) < total; ++selector) {
      vxAddInteger(bag, selector, selector * 10, &cc, &rc);
      ASSERT_OK(cc, rc);
    }
  }
};

// A page that can be read but not written, starting with a bag eye-catcher.
struct ReadOnlyBagPage {
  ReadOnlyBagPage() {
    const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    address = vxtest::mapLow(page, PROT_READ | PROT_WRITE);  // where a handle can name it
    if (!address) throw std::runtime_error("no low page");
    std::memset(address, 0, page);
    std::memcpy(address, "ZABG", 4);
    mprotect(address, page, PROT_READ);
  }
  ~ReadOnlyBagPage() { munmap(address, static_cast<size_t>(sysconf(_SC_PAGESIZE))); }
  void *address;
};

// ----- vxAddInteger -------------------------------------------------------------

TEST_F(IntegerTest, AddAppendsOccurrencesInOrder) {
  VXHBAG bag = newBag(BAG_OPT_ADMIN_BAG);
  int32_t cc = -1, rc = -1;
  vxAddInteger(bag, 5, 10, &cc, &rc);
  EXPECT_OK(cc, rc);
  vxAddInteger(bag, 6, 60, &cc, &rc);
  EXPECT_OK(cc, rc);
  vxAddInteger(bag, 5, 20, &cc, &rc);
  EXPECT_OK(cc, rc);
  vxAddInteger(bag, 5, 30, &cc, &rc);
  EXPECT_OK(cc, rc);

  EXPECT_EQ(itemsOf(bag),
            (defaultItems(15, 1) +
             std::vector<Item>{integer(5, 10), integer(6, 60), integer(5, 20), integer(5, 30)}));
  const int32_t expected[] = {10, 20, 30};
  for (int32_t index = 0; index < 3; ++index) {
    int32_t value = -1;
    vxInquireInteger(bag, 5, index, &value, &cc, &rc);
    EXPECT_OK(cc, rc);
    EXPECT_EQ(value, expected[index]) << "occurrence " << index;
  }
  int32_t value = -1;
  vxInquireInteger(bag, 5, 3, &value, &cc, &rc);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_INDEX_NOT_PRESENT);
  vxInquireInteger(bag, 5, ITEM_INDEX_NONE, &value, &cc, &rc);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_SELECTOR_NOT_UNIQUE);
  EXPECT_EQ(value, -1);
}

TEST_F(IntegerTest, AddTakesAnyIntegerValue) {
  VXHBAG bag = newBag(0);
  int32_t cc, rc;
  const int32_t values[] = {0, -1, INT32_MIN, INT32_MAX};
  for (int32_t value : values) {
    vxAddInteger(bag, 1, value, &cc, &rc);
    EXPECT_OK(cc, rc);
  }
  for (int32_t index = 0; index < 4; ++index) {
    int32_t value = 12345;
    vxInquireInteger(bag, 1, index, &value, &cc, &rc);
    EXPECT_OK(cc, rc);
    EXPECT_EQ(value, values[index]);
  }
}

TEST_F(IntegerTest, AddRefusesBadHandles) {
  VXHBAG live = newBag(0);
  vxtest::ProtectedPages pages;
  ReadOnlyBagPage readOnly;
  // A copy of a live record, marked as deleted bags are.
  vxtest::LowPage low;
  unsigned char *deleted = low.bytes;
  std::memcpy(deleted, recordOf(live), sizeof(zaiBAG));
  deleted[0] = '?';
  const VXHBAG handles[] = {BAG_NONE,
                            -1,
                            0,
                            live + 1,
                            zeroedHandle(),
                            handleOf(deleted),
                            handleOf(pages.none),
                            handleOf(pages.unmapped),
                            handleOf(readOnly.address)};
  for (VXHBAG handle : handles) {
    int32_t cc = -1, rc = -1;
    vxAddInteger(handle, 5, 1, &cc, &rc);
    EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_BAG_HANDLE_ERROR) << "handle " << handle;
  }
  EXPECT_EQ(deleted[0], '?');
  EXPECT_EQ(countOf(live, SEL_ANY_SELECTOR), 8);
}

TEST_F(IntegerTest, AddChecksInArgumentOrder) {
  VXHBAG system = newSystemBag();
  VXHBAG admin = newBag(BAG_OPT_ADMIN_BAG);
  int32_t cc, rc;
  // Bad handle and negative selector: the handle is reported.
  vxAddInteger(BAG_NONE, -3, 1, &cc, &rc);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_BAG_HANDLE_ERROR);
  vxAddInteger(zeroedHandle(), SEL_ANY_SELECTOR, 1, &cc, &rc);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_BAG_HANDLE_ERROR);
  // System bag and negative selector: the system bag is reported.
  vxAddInteger(system, -30002, 1, &cc, &rc);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_SYSTEM_BAG_NOT_ALTERABLE);
  vxAddInteger(system, -9, 1, &cc, &rc);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_SYSTEM_BAG_NOT_ALTERABLE);
  // System bag and a selector out of its range.
  vxAddInteger(system, 5000, 1, &cc, &rc);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_SYSTEM_BAG_NOT_ALTERABLE);
  // Even a selector the system bag would take.
  vxAddInteger(system, 5, 1, &cc, &rc);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_SYSTEM_BAG_NOT_ALTERABLE);
  EXPECT_EQ(countOf(system, SEL_ANY_SELECTOR), 8);
  // Negative selectors come before the range check and before the lookup.
  vxAddInteger(admin, -9, 1, &cc, &rc);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_SELECTOR_OUT_OF_RANGE);
  EXPECT_EQ(countOf(admin, SEL_ANY_SELECTOR), 8);
}

TEST_F(IntegerTest, AddRefusesEveryNegativeSelectorAsOutOfRange) {
  VXHBAG bag = newBag(0);
  const int32_t selectors[] = {SEL_CODED_CHAR_SET_ID,
                               SEL_PCF_TYPE,
                               SEL_COMMAND,
                               SEL_MSG_SEQ_NUMBER,
                               SEL_CONTROL,
                               SEL_COMP_CODE,
                               SEL_REASON,
                               SEL_BAG_OPTIONS,
                               -9,
                               SEL_ANY_SELECTOR,
                               SEL_ANY_USER_SELECTOR,
                               SEL_ANY_SYSTEM_SELECTOR,
                               INT32_MIN};
  for (int32_t selector : selectors) {
    int32_t cc = -1, rc = -1;
    vxAddInteger(bag, selector, 7, &cc, &rc);
    // -3 is a system selector, but an add never creates one: 2304, not 2318.
    EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_SELECTOR_OUT_OF_RANGE) << "selector " << selector;
  }
  EXPECT_EQ(itemsOf(bag), defaultItems(0, 8));
}

TEST_F(IntegerTest, AddChecksTheIntegerRangeInCheckingBags) {
  const int32_t checking[] = {BAG_OPT_ADMIN_BAG, BAG_OPT_CHECK_SELECTORS};
  for (int32_t options : checking) {
    VXHBAG bag = newBag(options);
    const int32_t refused[] = {0, 2001, 4000, 4001, 5000, 6001, INT32_MAX};
    for (int32_t selector : refused) {
      int32_t cc = -1, rc = -1;
      vxAddInteger(bag, selector, 1, &cc, &rc);
      EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_SELECTOR_OUT_OF_RANGE)
          << "options " << options << " selector " << selector;
    }
    EXPECT_EQ(countOf(bag, SEL_ANY_USER_SELECTOR), 0);
    const int32_t accepted[] = {1, 2, 1999, 2000};
    for (int32_t selector : accepted) {
      int32_t cc = -1, rc = -1;
      vxAddInteger(bag, selector, 1, &cc, &rc);
      EXPECT_OK(cc, rc) << "options " << options << " selector " << selector;
    }
    EXPECT_EQ(countOf(bag, SEL_ANY_USER_SELECTOR), 4);
  }
}

TEST_F(IntegerTest, AddTakesAnyUserSelectorInBagsThatDoNotCheck) {
  const int32_t options[] = {0, BAG_OPT_COMMAND_BAG, BAG_OPT_LIST_FORM_ALLOWED,
                             BAG_OPT_REQUIRED_PARMS_FIRST};
  for (int32_t option : options) {
    VXHBAG bag = newBag(option);
    const int32_t selectors[] = {0, 2001, 5000, 6001, INT32_MAX};
    for (int32_t selector : selectors) {
      int32_t cc = -1, rc = -1;
      vxAddInteger(bag, selector, selector, &cc, &rc);
      EXPECT_OK(cc, rc) << "options " << option << " selector " << selector;
    }
    EXPECT_EQ(itemsOf(bag),
              (defaultItems(option, option == BAG_OPT_COMMAND_BAG ? 1 : 8) +
               std::vector<Item>{integer(0, 0), integer(2001, 2001), integer(5000, 5000),
                                 integer(6001, 6001), integer(INT32_MAX, INT32_MAX)}));
  }
}

TEST_F(IntegerTest, AddUnderAStringSelectorIsInconsistent) {
  VXHBAG bag = newBag(0);
  int32_t cc, rc;
  vxAddString(bag, 7, -1, "abc", &cc, &rc);
  ASSERT_OK(cc, rc);
  vxAddInteger(bag, 7, 7, &cc, &rc);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_INCONSISTENT_ITEM_TYPE);
  EXPECT_EQ(itemsOf(bag), (defaultItems(0, 8) + std::vector<Item>{stringItem(7, "abc")}));
  // Another selector still takes integers.
  vxAddInteger(bag, 8, 7, &cc, &rc);
  EXPECT_OK(cc, rc);
}

TEST_F(IntegerTest, AddThatCannotGrowTheBagLeavesItAsItWas) {
  VXHBAG bag = newBag(BAG_OPT_ADMIN_BAG);
  fillTo(bag, ZAI_INITIAL_ITEMS);
  const std::vector<Item> before = itemsOf(bag);
  ASSERT_EQ(before.size(), 40u);
  const int32_t blocks = vxtest::liveBlocks();

  int32_t cc = -1, rc = -1;
  svcInjectMemFailure(1);
  vxAddInteger(bag, 5, 555, &cc, &rc);
  svcInjectMemFailure(0);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_STORAGE_NOT_AVAILABLE);
  EXPECT_EQ(itemsOf(bag), before);
  EXPECT_EQ(vxtest::liveBlocks(), blocks);

  // The bag is still whole: the next add grows it.
  vxAddInteger(bag, 5, 555, &cc, &rc);
  EXPECT_OK(cc, rc);
  EXPECT_EQ(itemsOf(bag), (before + std::vector<Item>{integer(5, 555)}));
}

TEST_F(IntegerTest, AddReturnsTheExitMarker) {
  int32_t cc, rc;
  EXPECT_EQ(vxAddInteger(BAG_NONE, 5, 1, &cc, &rc),
            exitMarker(ZAIFN_zaiVXAddInteger, RC_BAG_HANDLE_ERROR));
  VXHBAG bag = newBag(0);
  EXPECT_EQ(vxAddInteger(bag, 5, 1, &cc, &rc), exitMarker(ZAIFN_zaiVXAddInteger, RC_NONE));
}

// ----- vxSetInteger --------------------------------------------------------------

TEST_F(IntegerTest, SetCommandWithIndexNone) {
  VXHBAG bag = newBag(BAG_OPT_ADMIN_BAG);
  int32_t cc = -1, rc = -1;
  vxSetInteger(bag, SEL_COMMAND, ITEM_INDEX_NONE, 13, &cc, &rc);
  EXPECT_OK(cc, rc);
  std::vector<Item> expected = defaultItems(15, 1);
  expected[3].value = 13;  // in place, fourth item
  EXPECT_EQ(itemsOf(bag), expected);
}

TEST_F(IntegerTest, SetTakesEverySystemSelectorButTheOptions) {
  VXHBAG bag = newBag(0);
  std::vector<Item> expected = defaultItems(0, 8);
  for (Item &item : expected) {
    if (item.selector == SEL_BAG_OPTIONS) continue;
    int32_t cc = -1, rc = -1;
    vxSetInteger(bag, item.selector, 0, 1000 - item.selector, &cc, &rc);
    EXPECT_OK(cc, rc) << "selector " << item.selector;
    item.value = 1000 - item.selector;
  }
  EXPECT_EQ(itemsOf(bag), expected);
}

TEST_F(IntegerTest, SetOfTheOptionsIsNotAllowed) {
  VXHBAG bag = newBag(BAG_OPT_ADMIN_BAG);
  const int32_t indexes[] = {ITEM_INDEX_NONE, 0, ITEM_INDEX_ALL, 5, -7};
  for (int32_t index : indexes) {
    int32_t cc = -1, rc = -1;
    vxSetInteger(bag, SEL_BAG_OPTIONS, index, 0, &cc, &rc);
    EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_SELECTOR_SET_NOT_ALLOWED) << "index " << index;
  }
  EXPECT_EQ(itemsOf(bag), defaultItems(15, 1));
}

TEST_F(IntegerTest, SetRefusesWildcardsAndUnknownNegativeSelectors) {
  VXHBAG bag = newBag(0);
  int32_t cc, rc;
  vxAddInteger(bag, 5, 1, &cc, &rc);
  ASSERT_OK(cc, rc);
  const int32_t selectors[] = {
      SEL_ANY_SELECTOR, SEL_ANY_USER_SELECTOR, SEL_ANY_SYSTEM_SELECTOR, -9, -30000, -30004,
      INT32_MIN};
  for (int32_t selector : selectors) {
    cc = rc = -1;
    vxSetInteger(bag, selector, 0, 99, &cc, &rc);
    EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_SYSTEM_ITEM_NOT_ALTERABLE) << "selector " << selector;
    vxSetInteger(bag, selector, ITEM_INDEX_ALL, 99, &cc, &rc);
    EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_SYSTEM_ITEM_NOT_ALTERABLE) << "selector " << selector;
  }
  EXPECT_EQ(itemsOf(bag), (defaultItems(0, 8) + std::vector<Item>{integer(5, 1)}));
}

TEST_F(IntegerTest, SetChecksTheIntegerRangeInCheckingBags) {
  VXHBAG bag = newBag(BAG_OPT_ADMIN_BAG);
  const int32_t refused[] = {0, 2001, 4001, 6001};
  for (int32_t selector : refused) {
    int32_t cc = -1, rc = -1;
    vxSetInteger(bag, selector, ITEM_INDEX_ALL, 1, &cc, &rc);
    EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_SELECTOR_OUT_OF_RANGE) << "selector " << selector;
  }
  EXPECT_EQ(itemsOf(bag), defaultItems(15, 1));
}

TEST_F(IntegerTest, SetChecksInArgumentOrder) {
  VXHBAG system = newSystemBag();
  VXHBAG admin = newBag(BAG_OPT_ADMIN_BAG);
  int32_t cc, rc;
  vxSetInteger(BAG_NONE, SEL_BAG_OPTIONS, 0, 1, &cc, &rc);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_BAG_HANDLE_ERROR);
  vxSetInteger(zeroedHandle(), -9, 0, 1, &cc, &rc);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_BAG_HANDLE_ERROR);
  vxSetInteger(system, SEL_BAG_OPTIONS, 0, 1, &cc, &rc);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_SYSTEM_BAG_NOT_ALTERABLE);
  vxSetInteger(system, SEL_ANY_SELECTOR, 0, 1, &cc, &rc);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_SYSTEM_BAG_NOT_ALTERABLE);
  vxSetInteger(system, SEL_COMMAND, ITEM_INDEX_NONE, 1, &cc, &rc);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_SYSTEM_BAG_NOT_ALTERABLE);
  EXPECT_EQ(itemsOf(system), defaultItems(0x28, 8));
  // The options selector before the selector check, and before the index.
  vxSetInteger(admin, SEL_BAG_OPTIONS, -3, 1, &cc, &rc);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_SELECTOR_SET_NOT_ALLOWED);
  // The selector check before the lookup and its index.
  vxSetInteger(admin, SEL_ANY_SELECTOR, -3, 1, &cc, &rc);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_SYSTEM_ITEM_NOT_ALTERABLE);
  vxSetInteger(admin, 0, -3, 1, &cc, &rc);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_SELECTOR_OUT_OF_RANGE);
}

TEST_F(IntegerTest, SetReportsLookupFailures) {
  VXHBAG bag = newBag(0);
  int32_t cc, rc;
  vxAddInteger(bag, 5, 1, &cc, &rc);
  vxAddInteger(bag, 5, 2, &cc, &rc);
  vxAddInteger(bag, 6, 3, &cc, &rc);
  ASSERT_OK(cc, rc);
  const std::vector<Item> before = itemsOf(bag);

  struct Case {
    int32_t selector, index, reason;
  } cases[] = {
      {7, 0, RC_SELECTOR_NOT_PRESENT},
      {7, ITEM_INDEX_NONE, RC_SELECTOR_NOT_PRESENT},
      {5, 2, RC_INDEX_NOT_PRESENT},
      {6, 1, RC_INDEX_NOT_PRESENT},
      {5, ITEM_INDEX_NONE, RC_SELECTOR_NOT_UNIQUE},
      {5, -3, RC_INDEX_ERROR},
      {7, INT32_MIN, RC_INDEX_ERROR},
  };
  for (const Case &c : cases) {
    cc = rc = -1;
    vxSetInteger(bag, c.selector, c.index, 99, &cc, &rc);
    EXPECT_OUTCOME(cc, rc, CC_FAILED, c.reason)
        << "selector " << c.selector << " index " << c.index;
  }
  EXPECT_EQ(itemsOf(bag), before);
}

TEST_F(IntegerTest, SetKeepsThePosition) {
  VXHBAG bag = newBag(0);
  int32_t cc, rc;
  vxAddInteger(bag, 5, 1, &cc, &rc);
  vxAddInteger(bag, 6, 2, &cc, &rc);
  vxAddInteger(bag, 5, 3, &cc, &rc);
  vxAddInteger(bag, 7, 4, &cc, &rc);
  ASSERT_OK(cc, rc);
  vxSetInteger(bag, 5, 1, 33, &cc, &rc);
  EXPECT_OK(cc, rc);
  vxSetInteger(bag, 6, ITEM_INDEX_NONE, 22, &cc, &rc);
  EXPECT_OK(cc, rc);
  vxSetInteger(bag, 5, 0, 11, &cc, &rc);
  EXPECT_OK(cc, rc);
  EXPECT_EQ(itemsOf(bag), (defaultItems(0, 8) + std::vector<Item>{integer(5, 11), integer(6, 22),
                                                                  integer(5, 33), integer(7, 4)}));
}

TEST_F(IntegerTest, SetAllLeavesOneItemAtTheEnd) {
  VXHBAG bag = newBag(BAG_OPT_ADMIN_BAG);
  int32_t cc, rc;
  vxAddInteger(bag, 5, 1, &cc, &rc);
  vxAddInteger(bag, 6, 2, &cc, &rc);
  vxAddInteger(bag, 5, 3, &cc, &rc);
  vxAddInteger(bag, 7, 4, &cc, &rc);
  vxAddInteger(bag, 5, 5, &cc, &rc);
  ASSERT_OK(cc, rc);
  vxSetInteger(bag, 5, ITEM_INDEX_ALL, 99, &cc, &rc);
  EXPECT_OK(cc, rc);
  EXPECT_EQ(itemsOf(bag), (defaultItems(15, 1) +
                           std::vector<Item>{integer(6, 2), integer(7, 4), integer(5, 99)}));
  EXPECT_EQ(countOf(bag, 5), 1);
}

TEST_F(IntegerTest, SetAllAddsAnAbsentSelector) {
  VXHBAG bag = newBag(BAG_OPT_ADMIN_BAG);
  int32_t cc, rc;
  vxAddInteger(bag, 6, 2, &cc, &rc);
  ASSERT_OK(cc, rc);
  vxSetInteger(bag, 5, ITEM_INDEX_ALL, 99, &cc, &rc);
  EXPECT_OK(cc, rc);
  EXPECT_EQ(itemsOf(bag), (defaultItems(15, 1) + std::vector<Item>{integer(6, 2), integer(5, 99)}));
}

TEST_F(IntegerTest, SetAllOfASystemSelectorIsNotDeletable) {
  VXHBAG bag = newBag(BAG_OPT_ADMIN_BAG);
  const int32_t selectors[] = {
      SEL_CODED_CHAR_SET_ID, SEL_PCF_TYPE,  SEL_COMMAND, SEL_MSG_SEQ_NUMBER,
      SEL_CONTROL,           SEL_COMP_CODE, SEL_REASON};
  for (int32_t selector : selectors) {
    int32_t cc = -1, rc = -1;
    vxSetInteger(bag, selector, ITEM_INDEX_ALL, 77, &cc, &rc);
    EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_SYSTEM_ITEM_NOT_DELETABLE) << "selector " << selector;
  }
  EXPECT_EQ(itemsOf(bag), defaultItems(15, 1));
}

TEST_F(IntegerTest, SetAllReplacesStringsByAnInteger) {
  VXHBAG bag = newBag(0);
  int32_t cc, rc;
  vxAddString(bag, 7, -1, "first", &cc, &rc);
  vxAddInteger(bag, 8, 1, &cc, &rc);
  vxAddString(bag, 7, -1, "second", &cc, &rc);
  ASSERT_OK(cc, rc);
  vxSetInteger(bag, 7, ITEM_INDEX_ALL, 70, &cc, &rc);
  EXPECT_OK(cc, rc);
  EXPECT_EQ(itemsOf(bag), (defaultItems(0, 8) + std::vector<Item>{integer(8, 1), integer(7, 70)}));
}

TEST_F(IntegerTest, SetOfAStringItemIsTheWrongType) {
  VXHBAG bag = newBag(0);
  int32_t cc, rc;
  vxAddString(bag, 7, -1, "abc", &cc, &rc);
  ASSERT_OK(cc, rc);
  const int32_t indexes[] = {0, ITEM_INDEX_NONE};
  for (int32_t index : indexes) {
    cc = rc = -1;
    vxSetInteger(bag, 7, index, 1, &cc, &rc);
    EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_SELECTOR_WRONG_TYPE) << "index " << index;
  }
  EXPECT_EQ(itemsOf(bag), (defaultItems(0, 8) + std::vector<Item>{stringItem(7, "abc")}));
}

TEST_F(IntegerTest, SetAllWhoseAddCannotGrowTheBagLeavesItAsItWas) {
  VXHBAG bag = newBag(BAG_OPT_ADMIN_BAG);
  fillTo(bag, ZAI_INITIAL_ITEMS);
  const std::vector<Item> before = itemsOf(bag);
  const int32_t blocks = vxtest::liveBlocks();

  int32_t cc = -1, rc = -1;
  svcInjectMemFailure(1);
  vxSetInteger(bag, 5, ITEM_INDEX_ALL, 555, &cc, &rc);
  svcInjectMemFailure(0);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_STORAGE_NOT_AVAILABLE);
  EXPECT_EQ(itemsOf(bag), before);
  EXPECT_EQ(vxtest::liveBlocks(), blocks);

  vxSetInteger(bag, 5, ITEM_INDEX_ALL, 555, &cc, &rc);
  EXPECT_OK(cc, rc);
  EXPECT_EQ(itemsOf(bag), (before + std::vector<Item>{integer(5, 555)}));
}

TEST_F(IntegerTest, SetReturnsTheExitMarker) {
  VXHBAG bag = newBag(0);
  int32_t cc, rc;
  EXPECT_EQ(vxSetInteger(bag, SEL_BAG_OPTIONS, 0, 1, &cc, &rc),
            exitMarker(ZAIFN_zaiVXSetInteger, RC_SELECTOR_SET_NOT_ALLOWED));
  EXPECT_EQ(vxSetInteger(bag, SEL_COMMAND, 0, 1, &cc, &rc),
            exitMarker(ZAIFN_zaiVXSetInteger, RC_NONE));
}

// ----- vxInquireInteger ----------------------------------------------------------

TEST_F(IntegerTest, InquireReadsEachSystemItem) {
  VXHBAG bag = newBag(BAG_OPT_ADMIN_BAG);
  for (const Item &item : defaultItems(15, 1)) {
    int32_t value = -99, cc = -1, rc = -1;
    vxInquireInteger(bag, item.selector, ITEM_INDEX_NONE, &value, &cc, &rc);
    EXPECT_OK(cc, rc);
    EXPECT_EQ(value, item.value) << "selector " << item.selector;
  }
}

TEST_F(IntegerTest, InquireAnySystemSelectorFirstGivesTheOptions) {
  struct Case {
    int32_t options, expected;
  } cases[] = {{BAG_OPT_ADMIN_BAG, 15},
               {0, 0},
               {BAG_OPT_COMMAND_BAG, BAG_OPT_COMMAND_BAG},
               {BAG_OPT_CHECK_SELECTORS | BAG_OPT_LIST_FORM_ALLOWED, 0x0A}};
  for (const Case &c : cases) {
    VXHBAG bag = newBag(c.options);
    int32_t value = -1, cc = -1, rc = -1;
    vxInquireInteger(bag, SEL_ANY_SYSTEM_SELECTOR, 0, &value, &cc, &rc);
    EXPECT_OK(cc, rc);
    EXPECT_EQ(value, c.expected) << "options " << c.options;
  }
}

TEST_F(IntegerTest, InquireIsAllowedOnASystemBag) {
  VXHBAG system = newSystemBag();
  int32_t value = -1, cc = -1, rc = -1;
  vxInquireInteger(system, SEL_ANY_SYSTEM_SELECTOR, 0, &value, &cc, &rc);
  EXPECT_OK(cc, rc);
  EXPECT_EQ(value, 0x28);
  vxInquireInteger(system, SEL_PCF_TYPE, ITEM_INDEX_NONE, &value, &cc, &rc);
  EXPECT_OK(cc, rc);
  EXPECT_EQ(value, 8);
  // It is a checking bag: the integer range applies.
  vxInquireInteger(system, 5000, 0, &value, &cc, &rc);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_SELECTOR_OUT_OF_RANGE);
}

TEST_F(IntegerTest, InquireWithWildcards) {
  VXHBAG bag = newBag(0);
  int32_t cc, rc;
  vxSetInteger(bag, SEL_REASON, ITEM_INDEX_NONE, 2033, &cc, &rc);
  vxAddInteger(bag, 5, 50, &cc, &rc);
  vxAddString(bag, 6, -1, "six", &cc, &rc);
  vxAddInteger(bag, 7, 70, &cc, &rc);
  ASSERT_OK(cc, rc);

  struct Case {
    int32_t selector, index, compCode, reason, value;
  } cases[] = {
      {SEL_ANY_SELECTOR, 0, CC_OK, RC_NONE, 0},  // SEL_BAG_OPTIONS of a plain bag
      {SEL_ANY_SELECTOR, 1, CC_OK, RC_NONE, 8},  // SEL_PCF_TYPE
      {SEL_ANY_SELECTOR, 7, CC_OK, RC_NONE, 2033},
      {SEL_ANY_SELECTOR, 8, CC_OK, RC_NONE, 50},
      {SEL_ANY_SELECTOR, 9, CC_FAILED, RC_SELECTOR_WRONG_TYPE, -1},
      {SEL_ANY_SELECTOR, 10, CC_OK, RC_NONE, 70},
      {SEL_ANY_SELECTOR, 11, CC_FAILED, RC_INDEX_NOT_PRESENT, -1},
      {SEL_ANY_SELECTOR, ITEM_INDEX_NONE, CC_FAILED, RC_INDEX_ERROR, -1},
      {SEL_ANY_SYSTEM_SELECTOR, 7, CC_OK, RC_NONE, 2033},
      {SEL_ANY_SYSTEM_SELECTOR, 8, CC_FAILED, RC_INDEX_NOT_PRESENT, -1},
      {SEL_ANY_SYSTEM_SELECTOR, ITEM_INDEX_NONE, CC_FAILED, RC_INDEX_ERROR, -1},
      {SEL_ANY_USER_SELECTOR, 0, CC_OK, RC_NONE, 50},
      {SEL_ANY_USER_SELECTOR, 1, CC_FAILED, RC_SELECTOR_WRONG_TYPE, -1},
      {SEL_ANY_USER_SELECTOR, 2, CC_OK, RC_NONE, 70},
      {SEL_ANY_USER_SELECTOR, 3, CC_FAILED, RC_INDEX_NOT_PRESENT, -1},
      {SEL_ANY_USER_SELECTOR, -2, CC_FAILED, RC_INDEX_ERROR, -1},
  };
  for (const Case &c : cases) {
    int32_t value = -1;
    cc = rc = -1;
    vxInquireInteger(bag, c.selector, c.index, &value, &cc, &rc);
    EXPECT_OUTCOME(cc, rc, c.compCode, c.reason)
        << "selector " << c.selector << " index " << c.index;
    EXPECT_EQ(value, c.value) << "selector " << c.selector << " index " << c.index;
  }
}

TEST_F(IntegerTest, InquireAnyUserSelectorOfANewBagIsNotPresent) {
  VXHBAG bag = newBag(BAG_OPT_ADMIN_BAG);
  int32_t value = -1, cc = -1, rc = -1;
  vxInquireInteger(bag, SEL_ANY_USER_SELECTOR, 0, &value, &cc, &rc);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_SELECTOR_NOT_PRESENT);
  EXPECT_EQ(value, -1);
}

TEST_F(IntegerTest, InquireOfAStringItemIsTheWrongType) {
  VXHBAG bag = newBag(0);
  int32_t cc, rc;
  vxAddString(bag, 7, -1, "abc", &cc, &rc);
  ASSERT_OK(cc, rc);
  int32_t value = -1;
  vxInquireInteger(bag, 7, 0, &value, &cc, &rc);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_SELECTOR_WRONG_TYPE);
  EXPECT_EQ(value, -1);
}

TEST_F(IntegerTest, InquireReportsLookupFailuresAndLeavesTheValue) {
  VXHBAG bag = newBag(BAG_OPT_ADMIN_BAG);
  int32_t cc, rc;
  vxAddInteger(bag, 5, 1, &cc, &rc);
  vxAddInteger(bag, 5, 2, &cc, &rc);
  ASSERT_OK(cc, rc);
  struct Case {
    int32_t selector, index, reason;
  } cases[] = {
      {6, 0, RC_SELECTOR_NOT_PRESENT},     {6, ITEM_INDEX_NONE, RC_SELECTOR_NOT_PRESENT},
      {5, 2, RC_INDEX_NOT_PRESENT},        {5, ITEM_INDEX_NONE, RC_SELECTOR_NOT_UNIQUE},
      {5, ITEM_INDEX_ALL, RC_INDEX_ERROR}, {5, -3, RC_INDEX_ERROR},
  };
  for (const Case &c : cases) {
    int32_t value = 4711;
    cc = rc = -1;
    vxInquireInteger(bag, c.selector, c.index, &value, &cc, &rc);
    EXPECT_OUTCOME(cc, rc, CC_FAILED, c.reason)
        << "selector " << c.selector << " index " << c.index;
    EXPECT_EQ(value, 4711);
  }
}

TEST_F(IntegerTest, InquireChecksTheSelector) {
  VXHBAG admin = newBag(BAG_OPT_ADMIN_BAG);
  VXHBAG plain = newBag(0);
  int32_t cc, rc, value = -1;
  const int32_t unknown[] = {-9, -30000, -30004, INT32_MIN};
  for (int32_t selector : unknown) {
    vxInquireInteger(plain, selector, 0, &value, &cc, &rc);
    EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_SYSTEM_ITEM_NOT_ALTERABLE) << "selector " << selector;
  }
  const int32_t outOfRange[] = {0, 2001, 4001, 6001};
  for (int32_t selector : outOfRange) {
    vxInquireInteger(admin, selector, 0, &value, &cc, &rc);
    EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_SELECTOR_OUT_OF_RANGE) << "selector " << selector;
    // The plain bag checks no range: the selector is merely absent.
    vxInquireInteger(plain, selector, 0, &value, &cc, &rc);
    EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_SELECTOR_NOT_PRESENT) << "selector " << selector;
  }
  EXPECT_EQ(value, -1);
}

TEST_F(IntegerTest, InquireChecksTheValuePointerAfterTheSelector) {
  VXHBAG bag = newBag(BAG_OPT_ADMIN_BAG);
  vxtest::ProtectedPages pages;
  int32_t *const pointers[] = {nullptr, static_cast<int32_t *>(pages.none),
                               static_cast<int32_t *>(pages.unmapped),
                               static_cast<int32_t *>(pages.readOnly)};
  for (int32_t *pointer : pointers) {
    int32_t cc = -1, rc = -1;
    // A valid selector: the pointer is refused.
    vxInquireInteger(bag, SEL_COMMAND, ITEM_INDEX_NONE, pointer, &cc, &rc);
    EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_ITEM_VALUE_ERROR) << static_cast<void *>(pointer);
    // Also before the lookup: an absent selector is not looked for.
    vxInquireInteger(bag, 5, 0, pointer, &cc, &rc);
    EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_ITEM_VALUE_ERROR) << static_cast<void *>(pointer);
    vxInquireInteger(bag, SEL_ANY_USER_SELECTOR, -3, pointer, &cc, &rc);
    EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_ITEM_VALUE_ERROR) << static_cast<void *>(pointer);
    // A bad selector is reported first.
    vxInquireInteger(bag, -9, 0, pointer, &cc, &rc);
    EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_SYSTEM_ITEM_NOT_ALTERABLE) << static_cast<void *>(pointer);
    vxInquireInteger(bag, 0, 0, pointer, &cc, &rc);
    EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_SELECTOR_OUT_OF_RANGE) << static_cast<void *>(pointer);
    // And a bad handle before that.
    vxInquireInteger(BAG_NONE, -9, 0, pointer, &cc, &rc);
    EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_BAG_HANDLE_ERROR) << static_cast<void *>(pointer);
  }
  EXPECT_EQ(static_cast<const char *>(pages.readOnly)[0], 'R');
}

TEST_F(IntegerTest, InquireRefusesBadHandles) {
  VXHBAG live = newBag(0);
  vxtest::LowPage low;  // where a handle can name the copy
  unsigned char *deleted = low.bytes;
  std::memcpy(deleted, recordOf(live), sizeof(zaiBAG));
  deleted[0] = '?';
  const VXHBAG handles[] = {BAG_NONE, -1, live + 1, zeroedHandle(), handleOf(deleted)};
  for (VXHBAG handle : handles) {
    int32_t value = -1, cc = -1, rc = -1;
    vxInquireInteger(handle, SEL_ANY_SYSTEM_SELECTOR, 0, &value, &cc, &rc);
    EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_BAG_HANDLE_ERROR) << "handle " << handle;
    EXPECT_EQ(value, -1);
  }
}

TEST_F(IntegerTest, InquireReturnsTheExitMarker) {
  VXHBAG bag = newBag(0);
  int32_t cc, rc;
  EXPECT_EQ(vxInquireInteger(bag, SEL_COMMAND, 0, nullptr, &cc, &rc),
            exitMarker(ZAIFN_zaiVXInquireInteger, RC_ITEM_VALUE_ERROR));
}

// ----- vxAddInquiry ---------------------------------------------------------------

TEST_F(IntegerTest, InquiryIsStoredUnderTheInquirySelector) {
  VXHBAG bag = newBag(BAG_OPT_ADMIN_BAG);
  int32_t cc = -1, rc = -1;
  vxAddInquiry(bag, 2016, &cc, &rc);
  EXPECT_OK(cc, rc);
  EXPECT_EQ(countOf(bag, SEL_INQUIRY_ITEM), 1);
  int32_t value = -1;
  vxInquireInteger(bag, SEL_INQUIRY_ITEM, 0, &value, &cc, &rc);
  EXPECT_OK(cc, rc);
  EXPECT_EQ(value, 2016);
  EXPECT_EQ(itemsOf(bag),
            (defaultItems(15, 1) + std::vector<Item>{integer(SEL_INQUIRY_ITEM, 2016)}));
}

TEST_F(IntegerTest, InquiriesAreAppendedInOrderWithDuplicates) {
  VXHBAG bag = newBag(BAG_OPT_ADMIN_BAG);
  int32_t cc, rc;
  const int32_t selectors[] = {2016, 1, 2016, 4000, 1074};
  for (int32_t selector : selectors) {
    cc = rc = -1;
    vxAddInquiry(bag, selector, &cc, &rc);
    EXPECT_OK(cc, rc) << "selector " << selector;
  }
  vxAddInteger(bag, 5, 5, &cc, &rc);
  vxAddInquiry(bag, 3, &cc, &rc);
  EXPECT_OK(cc, rc);
  EXPECT_EQ(itemsOf(bag),
            (defaultItems(15, 1) + std::vector<Item>{integer(1074, 2016), integer(1074, 1),
                                                     integer(1074, 2016), integer(1074, 4000),
                                                     integer(1074, 1074), integer(5, 5),
                                                     integer(1074, 3)}));
}

TEST_F(IntegerTest, InquiryWantsAnAdministrationBag) {
  const int32_t options[] = {0, BAG_OPT_COMMAND_BAG, BAG_OPT_CHECK_SELECTORS,
                             BAG_OPT_LIST_FORM_ALLOWED | BAG_OPT_REQUIRED_PARMS_FIRST |
                                 BAG_OPT_CHECK_SELECTORS | BAG_OPT_COMMAND_BAG};
  for (int32_t option : options) {
    VXHBAG bag = newBag(option);
    int32_t cc = -1, rc = -1;
    vxAddInquiry(bag, 2016, &cc, &rc);
    EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_BAG_WRONG_TYPE) << "options " << option;
    // The bag type comes before the selector.
    vxAddInquiry(bag, -1, &cc, &rc);
    EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_BAG_WRONG_TYPE) << "options " << option;
    EXPECT_EQ(countOf(bag, SEL_ANY_SELECTOR), 8);
  }
}

TEST_F(IntegerTest, InquirySelectorRange) {
  VXHBAG bag = newBag(BAG_OPT_ADMIN_BAG);
  const int32_t refused[] = {4001,      6000,     6001, -1, 0, SEL_ANY_SELECTOR, SEL_BAG_OPTIONS,
                             INT32_MIN, INT32_MAX};
  for (int32_t selector : refused) {
    int32_t cc = -1, rc = -1;
    vxAddInquiry(bag, selector, &cc, &rc);
    EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_SELECTOR_OUT_OF_RANGE) << "selector " << selector;
  }
  EXPECT_EQ(countOf(bag, SEL_ANY_SELECTOR), 8);
  const int32_t accepted[] = {1, 2000, 2001, 4000};
  for (int32_t selector : accepted) {
    int32_t cc = -1, rc = -1;
    vxAddInquiry(bag, selector, &cc, &rc);
    EXPECT_OK(cc, rc) << "selector " << selector;
  }
  EXPECT_EQ(countOf(bag, SEL_INQUIRY_ITEM), 4);
}

TEST_F(IntegerTest, InquiryChecksInArgumentOrder) {
  VXHBAG systemAdmin = newSystemBag(BAG_OPT_SYSTEM_BAG | BAG_OPT_ADMIN_BAG);
  VXHBAG system = newSystemBag();
  int32_t cc, rc;
  vxAddInquiry(BAG_NONE, -1, &cc, &rc);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_BAG_HANDLE_ERROR);
  vxAddInquiry(zeroedHandle(), 2016, &cc, &rc);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_BAG_HANDLE_ERROR);
  vxAddInquiry(systemAdmin, 2016, &cc, &rc);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_SYSTEM_BAG_NOT_ALTERABLE);
  vxAddInquiry(systemAdmin, 4001, &cc, &rc);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_SYSTEM_BAG_NOT_ALTERABLE);
  // Not an administration bag either: the system bag is reported.
  vxAddInquiry(system, 2016, &cc, &rc);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_SYSTEM_BAG_NOT_ALTERABLE);
  EXPECT_EQ(countOf(systemAdmin, SEL_ANY_SELECTOR), 8);
  EXPECT_EQ(countOf(system, SEL_ANY_SELECTOR), 8);
}

TEST_F(IntegerTest, InquiryOverAStringInquirySelectorIsInconsistent) {
  VXHBAG bag = newBag(BAG_OPT_ADMIN_BAG);
  int32_t cc = -1, rc = -1;
  // Only the library itself can put a string there.
  zaiAddString(recordOf(bag), SEL_INQUIRY_ITEM, 3, "abc", 0, &cc, &rc);
  ASSERT_OK(cc, rc);
  vxAddInquiry(bag, 2016, &cc, &rc);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_INCONSISTENT_ITEM_TYPE);
  EXPECT_EQ(itemsOf(bag),
            (defaultItems(15, 1) + std::vector<Item>{stringItem(SEL_INQUIRY_ITEM, "abc")}));
}

TEST_F(IntegerTest, InquiryThatCannotGrowTheBagLeavesItAsItWas) {
  VXHBAG bag = newBag(BAG_OPT_ADMIN_BAG);
  fillTo(bag, ZAI_INITIAL_ITEMS);
  const std::vector<Item> before = itemsOf(bag);
  const int32_t blocks = vxtest::liveBlocks();
  int32_t cc = -1, rc = -1;
  svcInjectMemFailure(1);
  vxAddInquiry(bag, 2016, &cc, &rc);
  svcInjectMemFailure(0);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_STORAGE_NOT_AVAILABLE);
  EXPECT_EQ(itemsOf(bag), before);
  EXPECT_EQ(vxtest::liveBlocks(), blocks);
}

TEST_F(IntegerTest, InquiryReturnsTheExitMarker) {
  VXHBAG bag = newBag(0);
  int32_t cc, rc;
  EXPECT_EQ(vxAddInquiry(bag, 2016, &cc, &rc),
            exitMarker(ZAIFN_zaiVXAddInquiry, RC_BAG_WRONG_TYPE));
}

// ----- Internal functions ---------------------------------------------------------

TEST_F(IntegerTest, InternalAddAppliesOnlyTheTypeRule) {
  VXHBAG handle = newSystemBag();
  zaiBAG *bag = recordOf(handle);
  int32_t cc = 9, rc = 9999;
  // A system bag, a selector outside the integer range: no caller rules here.
  zaiAddInteger(bag, 5000, 1, &cc, &rc);
  EXPECT_OK(cc, rc);
  cc = 9, rc = 9999;
  zaiAddInteger(bag, 5000, 2, &cc, &rc);
  EXPECT_OK(cc, rc);
  zaiAddString(bag, 3000, 2, "xy", 0, &cc, &rc);
  ASSERT_OK(cc, rc);
  zaiAddInteger(bag, 3000, 3, &cc, &rc);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_INCONSISTENT_ITEM_TYPE);
  EXPECT_EQ(itemsOf(handle),
            (defaultItems(0x28, 8) +
             std::vector<Item>{integer(5000, 1), integer(5000, 2), stringItem(3000, "xy")}));
}

TEST_F(IntegerTest, InternalSetAndInquire) {
  VXHBAG handle = newSystemBag();
  zaiBAG *bag = recordOf(handle);
  int32_t cc = 9, rc = 9999;
  // The options item can be written by the library itself.
  zaiSetInteger(bag, SEL_BAG_OPTIONS, 0, 0x2A, &cc, &rc);
  EXPECT_OK(cc, rc);
  int32_t value = -1;
  cc = 9, rc = 9999;
  zaiInquireInteger(bag, SEL_BAG_OPTIONS, ITEM_INDEX_NONE, &value, &cc, &rc);
  EXPECT_OK(cc, rc);
  EXPECT_EQ(value, 0x2A);
  // Index -2 deletes in caller mode: system items stay.
  zaiSetInteger(bag, SEL_COMMAND, ITEM_INDEX_ALL, 5, &cc, &rc);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_SYSTEM_ITEM_NOT_DELETABLE);
  zaiSetInteger(bag, 7000, ITEM_INDEX_ALL, 5, &cc, &rc);
  EXPECT_OK(cc, rc);
  zaiSetInteger(bag, 7001, 0, 5, &cc, &rc);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_SELECTOR_NOT_PRESENT);
  value = -1;
  zaiInquireInteger(bag, 7001, 0, &value, &cc, &rc);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_SELECTOR_NOT_PRESENT);
  EXPECT_EQ(value, -1);
  zaiInquireInteger(bag, SEL_ANY_USER_SELECTOR, 0, &value, &cc, &rc);
  EXPECT_OK(cc, rc);
  EXPECT_EQ(value, 5);
  std::vector<Item> expected = defaultItems(0x28, 8) + std::vector<Item>{integer(7000, 5)};
  expected[0].value = 0x2A;
  EXPECT_EQ(itemsOf(handle), expected);
}

// ----- API trace --------------------------------------------------------------------

using Lines = std::vector<std::string>;
using vxtest::dataOf;

using vxtest::expectAllUnder;
using vxtest::parmLines;
using vxtest::pointerText;

TEST_F(IntegerTest, TraceOfAddInteger) {
  VXHBAG bag = newBag(BAG_OPT_ADMIN_BAG);
  int32_t cc, rc;
  {
    vxtest::TraceCapture trace(0x1);
    vxAddInteger(bag, 5, 42, &cc, &rc);
    EXPECT_OK(cc, rc);
    EXPECT_EQ(trace.lines(),
              (Lines{"__________", "vxAddInteger >>", "Bag:", dataOf(bag), "Selector:", dataOf(5),
                     "ItemValue:", dataOf(42), "Compcode      : Output Parm",
                     "Reason        : Output Parm", "__________", "vxAddInteger <<",
                     "Bag           : Input  Parm", "Selector      : Input  Parm",
                     "ItemValue     : Input  Parm", "Compcode:", dataOf(0), "Reason:", dataOf(0)}));
    expectAllUnder(trace, ZAIFN_zaiVXAddInteger);
  }
  {
    vxtest::TraceCapture trace(0x1);
    vxAddInteger(BAG_NONE, -3, 7, &cc, &rc);
    EXPECT_EQ(trace.lines(),
              (Lines{"__________", "vxAddInteger >>", "Bag:", dataOf(BAG_NONE),
                     "Selector:", dataOf(-3), "ItemValue:", dataOf(7),
                     "Compcode      : Output Parm", "Reason        : Output Parm", "__________",
                     "vxAddInteger <<", "Bag           : Input  Parm",
                     "Selector      : Input  Parm", "ItemValue     : Input  Parm",
                     "Compcode:", dataOf(CC_FAILED), "Reason:", dataOf(RC_BAG_HANDLE_ERROR)}));
  }
}

TEST_F(IntegerTest, TraceOfSetInteger) {
  VXHBAG bag = newBag(BAG_OPT_ADMIN_BAG);
  int32_t cc, rc;
  vxtest::TraceCapture trace(0x1);
  vxSetInteger(bag, SEL_BAG_OPTIONS, ITEM_INDEX_NONE, 3, &cc, &rc);
  EXPECT_EQ(trace.lines(), (Lines{"__________",
                                  "vxSetInteger >>",
                                  "Bag:",
                                  dataOf(bag),
                                  "Selector:",
                                  dataOf(SEL_BAG_OPTIONS),
                                  "ItemIndex:",
                                  dataOf(ITEM_INDEX_NONE),
                                  "ItemValue:",
                                  dataOf(3),
                                  "Compcode      : Output Parm",
                                  "Reason        : Output Parm",
                                  "__________",
                                  "vxSetInteger <<",
                                  "Bag           : Input  Parm",
                                  "Selector      : Input  Parm",
                                  "ItemIndex     : Input  Parm",
                                  "ItemValue     : Input  Parm",
                                  "Compcode:",
                                  dataOf(CC_FAILED),
                                  "Reason:",
                                  dataOf(RC_SELECTOR_SET_NOT_ALLOWED)}));
  expectAllUnder(trace, ZAIFN_zaiVXSetInteger);
}

TEST_F(IntegerTest, TraceOfInquireIntegerShowsTheValueAtExit) {
  VXHBAG bag = newBag(BAG_OPT_ADMIN_BAG);
  int32_t cc, rc;
  vxSetInteger(bag, SEL_COMMAND, 0, 0x01020304, &cc, &rc);
  ASSERT_OK(cc, rc);
  int32_t value = -1;
  vxtest::TraceCapture trace(0x1);
  vxInquireInteger(bag, SEL_COMMAND, 0, &value, &cc, &rc);
  EXPECT_OK(cc, rc);
  EXPECT_EQ(trace.lines(), (Lines{"__________",
                                  "vxInquireInteger >>",
                                  "Bag:",
                                  dataOf(bag),
                                  "Selector:",
                                  dataOf(SEL_COMMAND),
                                  "ItemIndex:",
                                  dataOf(0),
                                  "ItemValue     : Output Parm",
                                  "Compcode      : Output Parm",
                                  "Reason        : Output Parm",
                                  "__________",
                                  "vxInquireInteger <<",
                                  "Bag           : Input  Parm",
                                  "Selector      : Input  Parm",
                                  "ItemIndex     : Input  Parm",
                                  "ItemValue:",
                                  "<data 04 03 02 01>",
                                  "Compcode:",
                                  dataOf(0),
                                  "Reason:",
                                  dataOf(0)}));
  expectAllUnder(trace, ZAIFN_zaiVXInquireInteger);
}

TEST_F(IntegerTest, TraceOfAFailedInquireShowsTheCallersVariable) {
  VXHBAG bag = newBag(BAG_OPT_ADMIN_BAG);
  const Lines entry{"__________",
                    "vxInquireInteger >>",
                    "Bag:",
                    dataOf(bag),
                    "Selector:",
                    dataOf(5),
                    "ItemIndex:",
                    dataOf(0),
                    "ItemValue     : Output Parm",
                    "Compcode      : Output Parm",
                    "Reason        : Output Parm",
                    "__________",
                    "vxInquireInteger <<",
                    "Bag           : Input  Parm",
                    "Selector      : Input  Parm",
                    "ItemIndex     : Input  Parm"};
  int32_t cc, rc;
  {
    int32_t value = 0x11223344;
    vxtest::TraceCapture trace(0x1);
    vxInquireInteger(bag, 5, 0, &value, &cc, &rc);
    EXPECT_EQ(trace.lines(),
              (entry + Lines{"ItemValue:", "<data 44 33 22 11>", "Compcode:", dataOf(CC_FAILED),
                             "Reason:", dataOf(RC_SELECTOR_NOT_PRESENT)}));
  }
  {
    vxtest::TraceCapture trace(0x1);
    vxInquireInteger(bag, 5, 0, nullptr, &cc, &rc);
    EXPECT_EQ(trace.lines(), (entry + Lines{"ItemValue: NULL", "Compcode:", dataOf(CC_FAILED),
                                            "Reason:", dataOf(RC_ITEM_VALUE_ERROR)}));
  }
  {
    vxtest::ProtectedPages pages;
    vxtest::TraceCapture trace(0x1);
    vxInquireInteger(bag, 5, 0, static_cast<int32_t *>(pages.readOnly), &cc, &rc);
    EXPECT_EQ(trace.lines(),
              (entry + Lines{"ItemValue:", "<data 52 52 52 52>", "Compcode:", dataOf(CC_FAILED),
                             "Reason:", dataOf(RC_ITEM_VALUE_ERROR)}));
  }
}

TEST_F(IntegerTest, TraceOfAddInquiry) {
  VXHBAG bag = newBag(BAG_OPT_ADMIN_BAG);
  int32_t cc, rc;
  vxtest::TraceCapture trace(0x1);
  vxAddInquiry(bag, 2016, &cc, &rc);
  EXPECT_OK(cc, rc);
  EXPECT_EQ(trace.lines(),
            (Lines{"__________", "vxAddInquiry >>", "Bag:", dataOf(bag), "Selector:", dataOf(2016),
                   "Compcode      : Output Parm", "Reason        : Output Parm", "__________",
                   "vxAddInquiry <<", "Bag           : Input  Parm", "Selector      : Input  Parm",
                   "Compcode:", dataOf(0), "Reason:", dataOf(0)}));
  expectAllUnder(trace, ZAIFN_zaiVXAddInquiry);
}

TEST_F(IntegerTest, NoTraceWhenApiTraceIsOff) {
  VXHBAG bag = newBag(BAG_OPT_ADMIN_BAG);
  auto callAll = [&] {
    int32_t cc, rc, value;
    vxAddInteger(bag, 5, 1, &cc, &rc);
    vxSetInteger(bag, 5, 0, 2, &cc, &rc);
    vxInquireInteger(bag, 5, 0, &value, &cc, &rc);
    vxAddInquiry(bag, 2016, &cc, &rc);
    vxAddInteger(BAG_NONE, 5, 1, &cc, &rc);
  };
  {
    // Option bit 0 not set.
    vxtest::TraceCapture trace(0x0);
    processAnchor.earlyTrace = 0;
    callAll();
    EXPECT_EQ(trace.lines(), Lines{});
  }
  {
    // The option set, but the level says off.
    vxtest::TraceCapture trace(0x1);
    processAnchor.earlyTrace = 0;
    processAnchor.traceLevel = 0xFFFFFFFFu;
    callAll();
    EXPECT_EQ(trace.lines(), Lines{});
  }
  // The calls themselves ran.
  EXPECT_EQ(countOf(bag, 5), 2);
  EXPECT_EQ(countOf(bag, SEL_INQUIRY_ITEM), 2);
}

TEST_F(IntegerTest, ParameterLinesOfTheInternalFunctions) {
  VXHBAG bag = newBag(BAG_OPT_ADMIN_BAG);
  const std::string pBag = "pBag:" + pointerText(bag);
  int32_t cc, rc, value;
  vxtest::TraceCapture trace(0xC0000, true);
  vxAddInteger(bag, 5, 1, &cc, &rc);
  vxSetInteger(bag, 5, 0, 2, &cc, &rc);
  vxInquireInteger(bag, 5, ITEM_INDEX_NONE, &value, &cc, &rc);
  vxAddInquiry(bag, 2016, &cc, &rc);
  EXPECT_OK(cc, rc);
  EXPECT_EQ(parmLines(trace, ZAIFN_zaiAddInteger),
            (Lines{pBag + ", selector:5", pBag + ", selector:1074"}));
  EXPECT_EQ(parmLines(trace, ZAIFN_zaiSetInteger), Lines{pBag + ", selector:5, itemIndex:0"});
  EXPECT_EQ(parmLines(trace, ZAIFN_zaiInquireInteger), Lines{pBag + ", selector:5, itemIndex:-1"});
  // No API trace without its option.
  const Lines all = trace.lines();
  EXPECT_EQ(std::count(all.begin(), all.end(), "__________"), 0);
}

}  // namespace
