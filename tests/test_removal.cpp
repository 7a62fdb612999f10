// Removing items: vxDeleteItem, vxClearBag, vxTruncateBag and the internal
// functions behind them.
#include <algorithm>
#include <cstdio>
#include <ostream>

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

class RemovalTest : public vxtest::BagTest {
 protected:
  // A bag the test hands over to a holder (or deletes itself).
  static VXHBAG createBag(int32_t options) {
    VXHBAG bag = BAG_NONE;
    int32_t cc = -1, rc = -1;
    vxCreateBag(options, &bag, &cc, &rc);
    EXPECT_OK(cc, rc);
    return bag;
  }

  // A reply-like bag, to be nested in a holder.
  static VXHBAG createSystemBag() {
    zaiBAG *bag = nullptr;
    int32_t cc = -1, rc = -1;
    zaiCreateBag(BAG_OPT_SYSTEM_BAG | BAG_OPT_CHECK_SELECTORS, &bag, &cc, &rc);
    EXPECT_OK(cc, rc);
    return handleOf(bag);
  }

  static void nest(VXHBAG holder, int32_t selector, VXHBAG nested) {
    int32_t cc = -1, rc = -1;
    zaiAddBag(zaiDecodeHandle(holder), selector, nested, &cc, &rc);
    ASSERT_OK(cc, rc);
  }

  static void addIntegers(VXHBAG bag, const std::vector<Item> &items) {
    for (const Item &item : items) {
      int32_t cc = -1, rc = -1;
      vxAddInteger(bag, item.selector, item.value, &cc, &rc);
      ASSERT_OK(cc, rc) << item;
    }
  }
};

// ----- vxDeleteItem ----------------------------------------------------------------

TEST_F(RemovalTest, DeleteAllOfAnAbsentSelectorSucceeds) {
  VXHBAG bag = newBag(BAG_OPT_ADMIN_BAG);
  addIntegers(bag, {integer(6, 60)});
  int32_t cc = -1, rc = -1;
  vxDeleteItem(bag, 5, ITEM_INDEX_ALL, &cc, &rc);
  EXPECT_OK(cc, rc);
  vxDeleteItem(bag, 5, 0, &cc, &rc);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_SELECTOR_NOT_PRESENT);
  vxDeleteItem(bag, 5, ITEM_INDEX_NONE, &cc, &rc);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_SELECTOR_NOT_PRESENT);
  vxDeleteItem(bag, 5, 3, &cc, &rc);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_SELECTOR_NOT_PRESENT);
  EXPECT_EQ(itemsOf(bag), (defaultItems(15, 1) + std::vector<Item>{integer(6, 60)}));
}

TEST_F(RemovalTest, DeleteNoneOfASelectorPresentTwiceIsNotUnique) {
  VXHBAG bag = newBag(BAG_OPT_ADMIN_BAG);
  addIntegers(bag, {integer(5, 1), integer(6, 2), integer(5, 3)});
  const std::vector<Item> before = itemsOf(bag);
  int32_t cc = -1, rc = -1;
  vxDeleteItem(bag, 5, ITEM_INDEX_NONE, &cc, &rc);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_SELECTOR_NOT_UNIQUE);
  EXPECT_EQ(itemsOf(bag), before);
  // A selector present once goes with index -1.
  vxDeleteItem(bag, 6, ITEM_INDEX_NONE, &cc, &rc);
  EXPECT_OK(cc, rc);
  EXPECT_EQ(itemsOf(bag), (defaultItems(15, 1) + std::vector<Item>{integer(5, 1), integer(5, 3)}));
}

TEST_F(RemovalTest, DeleteByIndexRemovesThatOccurrence) {
  VXHBAG bag = newBag(0);
  addIntegers(bag, {integer(5, 1), integer(6, 2), integer(5, 3), integer(5, 4)});
  int32_t cc = -1, rc = -1;
  vxDeleteItem(bag, 5, 1, &cc, &rc);
  EXPECT_OK(cc, rc);
  EXPECT_EQ(itemsOf(bag),
            (defaultItems(0, 8) + std::vector<Item>{integer(5, 1), integer(6, 2), integer(5, 4)}));
  vxDeleteItem(bag, 5, 2, &cc, &rc);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_INDEX_NOT_PRESENT);
  vxDeleteItem(bag, 5, 1, &cc, &rc);
  EXPECT_OK(cc, rc);
  EXPECT_EQ(itemsOf(bag), (defaultItems(0, 8) + std::vector<Item>{integer(5, 1), integer(6, 2)}));
  vxDeleteItem(bag, 5, 0, &cc, &rc);
  EXPECT_OK(cc, rc);
  EXPECT_EQ(itemsOf(bag), (defaultItems(0, 8) + std::vector<Item>{integer(6, 2)}));
}

TEST_F(RemovalTest, DeleteAllRemovesEveryOccurrenceAndKeepsTheOrder) {
  VXHBAG bag = newBag(0);
  int32_t cc = -1, rc = -1;
  addIntegers(bag, {integer(5, 1), integer(6, 2)});
  vxAddString(bag, 5000, -1, "kept", &cc, &rc);
  ASSERT_OK(cc, rc);
  addIntegers(bag, {integer(5, 3), integer(7, 4), integer(5, 5)});
  vxDeleteItem(bag, 5, ITEM_INDEX_ALL, &cc, &rc);
  EXPECT_OK(cc, rc);
  EXPECT_EQ(itemsOf(bag),
            (defaultItems(0, 8) +
             std::vector<Item>{integer(6, 2), stringItem(5000, "kept"), integer(7, 4)}));
  EXPECT_EQ(countOf(bag, 5), 0);
}

TEST_F(RemovalTest, DeleteOfStringItems) {
  VXHBAG bag = newBag(0);
  int32_t cc = -1, rc = -1;
  vxAddString(bag, 9, -1, "one", &cc, &rc);
  vxAddString(bag, 9, -1, "two", &cc, &rc);
  vxAddString(bag, 9, 0, nullptr, &cc, &rc);
  vxAddString(bag, 9, -1, "four", &cc, &rc);
  vxAddString(bag, 8, -1, "other", &cc, &rc);
  ASSERT_OK(cc, rc);
  vxDeleteItem(bag, 9, 1, &cc, &rc);
  EXPECT_OK(cc, rc);
  vxDeleteItem(bag, 9, 1, &cc, &rc);  // the empty one
  EXPECT_OK(cc, rc);
  EXPECT_EQ(itemsOf(bag),
            (defaultItems(0, 8) + std::vector<Item>{stringItem(9, "one"), stringItem(9, "four"),
                                                    stringItem(8, "other")}));
  vxDeleteItem(bag, 9, ITEM_INDEX_ALL, &cc, &rc);
  EXPECT_OK(cc, rc);
  EXPECT_EQ(itemsOf(bag), (defaultItems(0, 8) + std::vector<Item>{stringItem(8, "other")}));
}

TEST_F(RemovalTest, DeleteWithAnIndexBelowAllIsAnIndexError) {
  VXHBAG bag = newBag(0);
  addIntegers(bag, {integer(5, 1)});
  const std::vector<Item> before = itemsOf(bag);
  const int32_t indexes[] = {-3, -100, INT32_MIN};
  for (int32_t index : indexes) {
    int32_t cc = -1, rc = -1;
    vxDeleteItem(bag, 5, index, &cc, &rc);
    EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_INDEX_ERROR) << "index " << index;
  }
  EXPECT_EQ(itemsOf(bag), before);
}

TEST_F(RemovalTest, DeleteUserItemsThroughTheWildcard) {
  VXHBAG bag = newBag(BAG_OPT_ADMIN_BAG);
  addIntegers(bag, {integer(5, 1), integer(6, 2), integer(7, 3)});
  int32_t cc = -1, rc = -1;
  vxDeleteItem(bag, SEL_ANY_USER_SELECTOR, 0, &cc, &rc);
  EXPECT_OK(cc, rc);
  EXPECT_EQ(itemsOf(bag), (defaultItems(15, 1) + std::vector<Item>{integer(6, 2), integer(7, 3)}));
  vxDeleteItem(bag, SEL_ANY_USER_SELECTOR, 1, &cc, &rc);
  EXPECT_OK(cc, rc);
  EXPECT_EQ(itemsOf(bag), (defaultItems(15, 1) + std::vector<Item>{integer(6, 2)}));
  vxDeleteItem(bag, SEL_ANY_USER_SELECTOR, 1, &cc, &rc);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_INDEX_NOT_PRESENT);
  vxDeleteItem(bag, SEL_ANY_USER_SELECTOR, 0, &cc, &rc);
  EXPECT_OK(cc, rc);
  vxDeleteItem(bag, SEL_ANY_USER_SELECTOR, 0, &cc, &rc);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_SELECTOR_NOT_PRESENT);
  EXPECT_EQ(itemsOf(bag), defaultItems(15, 1));
}

TEST_F(RemovalTest, DeleteWildcardWithIndexNoneOrAllIsAnIndexError) {
  VXHBAG bag = newBag(BAG_OPT_ADMIN_BAG);
  addIntegers(bag, {integer(5, 1), integer(6, 2)});
  const std::vector<Item> before = itemsOf(bag);
  const int32_t selectors[] = {SEL_ANY_USER_SELECTOR, SEL_ANY_SELECTOR};
  const int32_t indexes[] = {ITEM_INDEX_ALL, ITEM_INDEX_NONE};
  for (int32_t selector : selectors) {
    for (int32_t index : indexes) {
      int32_t cc = -1, rc = -1;
      vxDeleteItem(bag, selector, index, &cc, &rc);
      EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_INDEX_ERROR)
          << "selector " << selector << " index " << index;
    }
  }
  EXPECT_EQ(itemsOf(bag), before);
}

TEST_F(RemovalTest, DeleteAnySelectorReachesSystemItemsButCannotDeleteThem) {
  VXHBAG bag = newBag(0);
  addIntegers(bag, {integer(5, 1), integer(6, 2)});
  int32_t cc = -1, rc = -1;
  vxDeleteItem(bag, SEL_ANY_SELECTOR, 0, &cc, &rc);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_SYSTEM_ITEM_NOT_DELETABLE);
  vxDeleteItem(bag, SEL_ANY_SELECTOR, 7, &cc, &rc);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_SYSTEM_ITEM_NOT_DELETABLE);
  EXPECT_EQ(countOf(bag, SEL_ANY_SELECTOR), 10);
  // The ninth item is the first user item.
  vxDeleteItem(bag, SEL_ANY_SELECTOR, 8, &cc, &rc);
  EXPECT_OK(cc, rc);
  EXPECT_EQ(itemsOf(bag), (defaultItems(0, 8) + std::vector<Item>{integer(6, 2)}));
  vxDeleteItem(bag, SEL_ANY_SELECTOR, 9, &cc, &rc);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_INDEX_NOT_PRESENT);
}

TEST_F(RemovalTest, DeleteOfSystemSelectorsIsOutOfRange) {
  VXHBAG bag = newBag(0);
  addIntegers(bag, {integer(5, 1)});
  const std::vector<Item> before = itemsOf(bag);
  const int32_t selectors[] = {SEL_ANY_SYSTEM_SELECTOR,
                               SEL_CODED_CHAR_SET_ID,
                               SEL_PCF_TYPE,
                               SEL_COMMAND,
                               SEL_MSG_SEQ_NUMBER,
                               SEL_CONTROL,
                               SEL_COMP_CODE,
                               SEL_REASON,
                               SEL_BAG_OPTIONS,
                               -9,
                               -30000,
                               -30004,
                               INT32_MIN};
  const int32_t indexes[] = {0, 7, ITEM_INDEX_NONE, ITEM_INDEX_ALL, -3};
  for (int32_t selector : selectors) {
    for (int32_t index : indexes) {
      int32_t cc = -1, rc = -1;
      vxDeleteItem(bag, selector, index, &cc, &rc);
      EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_SELECTOR_OUT_OF_RANGE)
          << "selector " << selector << " index " << index;
    }
  }
  EXPECT_EQ(itemsOf(bag), before);
}

TEST_F(RemovalTest, DeleteChecksTheRangeInCheckingBags) {
  const int32_t checking[] = {BAG_OPT_ADMIN_BAG, BAG_OPT_CHECK_SELECTORS};
  for (int32_t options : checking) {
    VXHBAG bag = newBag(options);
    const int32_t refused[] = {0, 6001, INT32_MAX};
    for (int32_t selector : refused) {
      int32_t cc = -1, rc = -1;
      vxDeleteItem(bag, selector, ITEM_INDEX_ALL, &cc, &rc);
      EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_SELECTOR_OUT_OF_RANGE)
          << "options " << options << " selector " << selector;
    }
    // Any item type's range will do: 1 to 6000.
    const int32_t accepted[] = {1, 2000, 2001, 4000, 4001, 6000};
    for (int32_t selector : accepted) {
      int32_t cc = -1, rc = -1;
      vxDeleteItem(bag, selector, ITEM_INDEX_ALL, &cc, &rc);
      EXPECT_OK(cc, rc) << "options " << options << " selector " << selector;
      vxDeleteItem(bag, selector, 0, &cc, &rc);
      EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_SELECTOR_NOT_PRESENT)
          << "options " << options << " selector " << selector;
    }
  }
}

TEST_F(RemovalTest, DeleteTakesAnyUserSelectorInBagsThatDoNotCheck) {
  VXHBAG bag = newBag(0);
  addIntegers(bag, {integer(0, 1), integer(6001, 2)});
  int32_t cc = -1, rc = -1;
  vxDeleteItem(bag, 7000, 0, &cc, &rc);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_SELECTOR_NOT_PRESENT);
  vxDeleteItem(bag, 6001, ITEM_INDEX_NONE, &cc, &rc);
  EXPECT_OK(cc, rc);
  vxDeleteItem(bag, 0, 0, &cc, &rc);
  EXPECT_OK(cc, rc);
  EXPECT_EQ(itemsOf(bag), defaultItems(0, 8));
}

TEST_F(RemovalTest, DeleteFromASystemBag) {
  VXHBAG system = newSystemBag();
  int32_t cc = -1, rc = -1;
  zaiAddInteger(zaiDecodeHandle(system), 5, 1, &cc, &rc);
  ASSERT_OK(cc, rc);
  const std::vector<Item> before = itemsOf(system);
  vxDeleteItem(system, 5, 0, &cc, &rc);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_SYSTEM_BAG_NOT_ALTERABLE);
  vxDeleteItem(system, 5, ITEM_INDEX_ALL, &cc, &rc);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_SYSTEM_BAG_NOT_ALTERABLE);
  vxDeleteItem(system, SEL_ANY_USER_SELECTOR, 0, &cc, &rc);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_SYSTEM_BAG_NOT_ALTERABLE);
  // The selector check runs after it and its verdict wins.
  vxDeleteItem(system, SEL_CONTROL, 0, &cc, &rc);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_SELECTOR_OUT_OF_RANGE);
  vxDeleteItem(system, SEL_ANY_USER_SELECTOR, ITEM_INDEX_NONE, &cc, &rc);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_INDEX_ERROR);
  // The system bag checks selectors: 0 is out of range.
  vxDeleteItem(system, 0, 0, &cc, &rc);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_SELECTOR_OUT_OF_RANGE);
  EXPECT_EQ(itemsOf(system), before);
}

TEST_F(RemovalTest, DeleteWithAnInvalidHandleJudgesTheSelectorToo) {
  VXHBAG deleted = createBag(0);
  int32_t cc = -1, rc = -1;
  vxDeleteBag(&deleted, &cc, &rc);
  ASSERT_OK(cc, rc);
  ASSERT_EQ(deleted, -1);
  vxtest::ProtectedPages pages;
  VXHBAG live = newBag(0);
  vxtest::LowPage low;  // where a handle can name the copy
  unsigned char *marked = low.bytes;
  std::memcpy(marked, zaiDecodeHandle(live), sizeof(zaiBAG));
  marked[0] = '?';
  const VXHBAG handles[] = {deleted, zeroedHandle(),       handleOf(marked),        live + 1,
                            0,       handleOf(pages.none), handleOf(pages.readOnly)};
  for (VXHBAG handle : handles) {
    vxDeleteItem(handle, SEL_CONTROL, 0, &cc, &rc);
    EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_SELECTOR_OUT_OF_RANGE) << "handle " << handle;
    vxDeleteItem(handle, SEL_ANY_SYSTEM_SELECTOR, 0, &cc, &rc);
    EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_SELECTOR_OUT_OF_RANGE) << "handle " << handle;
    vxDeleteItem(handle, SEL_ANY_USER_SELECTOR, ITEM_INDEX_NONE, &cc, &rc);
    EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_INDEX_ERROR) << "handle " << handle;
    // A user selector is fine: the handle is reported, and without a bag
    // there is no range to check.
    vxDeleteItem(handle, 5, 0, &cc, &rc);
    EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_BAG_HANDLE_ERROR) << "handle " << handle;
    vxDeleteItem(handle, 0, 0, &cc, &rc);
    EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_BAG_HANDLE_ERROR) << "handle " << handle;
    vxDeleteItem(handle, 6001, 0, &cc, &rc);
    EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_BAG_HANDLE_ERROR) << "handle " << handle;
  }
  EXPECT_EQ(marked[0], '?');
}

TEST_F(RemovalTest, DeleteWithTheNullHandle) {
  int32_t cc = -1, rc = -1;
  vxDeleteItem(BAG_NONE, 5, 0, &cc, &rc);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_BAG_HANDLE_ERROR);
  vxDeleteItem(BAG_NONE, 0, ITEM_INDEX_ALL, &cc, &rc);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_BAG_HANDLE_ERROR);
  vxDeleteItem(BAG_NONE, 6001, 0, &cc, &rc);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_BAG_HANDLE_ERROR);
  vxDeleteItem(BAG_NONE, SEL_CONTROL, 0, &cc, &rc);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_SELECTOR_OUT_OF_RANGE);
  vxDeleteItem(BAG_NONE, SEL_ANY_SELECTOR, ITEM_INDEX_ALL, &cc, &rc);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_INDEX_ERROR);
}

TEST_F(RemovalTest, ReplyBagNestedInAResponseBagIsNotDeletable) {
  VXHBAG holder = newBag(0);
  const int32_t blocks = vxtest::liveBlocks();
  VXHBAG reply = createSystemBag();
  nest(holder, SEL_NESTED_REPLY_BAG, reply);
  int32_t cc = -1, rc = -1;
  zaiAddString(zaiDecodeHandle(reply), 3000, 5, "reply", 0, &cc, &rc);
  ASSERT_OK(cc, rc);
  const std::vector<Item> before = itemsOf(holder);
  ASSERT_EQ(before, (defaultItems(0, 8) + std::vector<Item>{bagItem(SEL_NESTED_REPLY_BAG, reply)}));

  const int32_t indexes[] = {0, ITEM_INDEX_NONE, ITEM_INDEX_ALL};
  for (int32_t index : indexes) {
    cc = rc = -1;
    vxDeleteItem(holder, SEL_NESTED_REPLY_BAG, index, &cc, &rc);
    EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_SYSTEM_ITEM_NOT_DELETABLE) << "index " << index;
  }
  vxDeleteItem(holder, SEL_ANY_USER_SELECTOR, 0, &cc, &rc);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_SYSTEM_ITEM_NOT_DELETABLE);
  zaiDeleteItem(zaiDecodeHandle(holder), SEL_NESTED_REPLY_BAG, 0, 0, &cc, &rc);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_SYSTEM_ITEM_NOT_DELETABLE);
  EXPECT_EQ(itemsOf(holder), before);
  EXPECT_EQ(countOf(reply, SEL_ANY_SELECTOR), 9);

  // Unprotected, the library itself can.
  cc = 9, rc = 9999;
  zaiDeleteItem(zaiDecodeHandle(holder), SEL_NESTED_REPLY_BAG, 0, 1, &cc, &rc);
  EXPECT_OK(cc, rc);
  EXPECT_EQ(itemsOf(holder), defaultItems(0, 8));
  EXPECT_EQ(vxtest::liveBlocks(), blocks);
}

TEST_F(RemovalTest, UnprotectedDeleteTakesSystemItems) {
  VXHBAG bag = newBag(0);
  int32_t cc = 9, rc = 9999;
  zaiDeleteItem(zaiDecodeHandle(bag), SEL_COMMAND, ITEM_INDEX_NONE, 1, &cc, &rc);
  EXPECT_OK(cc, rc);
  std::vector<Item> expected = defaultItems(0, 8);
  expected.erase(expected.begin() + 3);
  EXPECT_EQ(itemsOf(bag), expected);
  // Protected, it does not.
  zaiDeleteItem(zaiDecodeHandle(bag), SEL_CONTROL, 0, 0, &cc, &rc);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_SYSTEM_ITEM_NOT_DELETABLE);
  zaiDeleteItem(zaiDecodeHandle(bag), SEL_ANY_SYSTEM_SELECTOR, 0, 0, &cc, &rc);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_SYSTEM_ITEM_NOT_DELETABLE);
  EXPECT_EQ(itemsOf(bag), expected);
}

TEST_F(RemovalTest, NestedUserBagIsDeletedWithItsItem) {
  VXHBAG holder = newBag(BAG_OPT_ADMIN_BAG);
  const int32_t blocks = vxtest::liveBlocks();
  VXHBAG nested = createBag(0);
  int32_t cc = -1, rc = -1;
  vxAddString(nested, 1, -1, "inside", &cc, &rc);
  ASSERT_OK(cc, rc);
  nest(holder, 4001, nested);
  vxDeleteItem(holder, 4001, ITEM_INDEX_NONE, &cc, &rc);
  EXPECT_OK(cc, rc);
  EXPECT_EQ(itemsOf(holder), defaultItems(15, 1));
  EXPECT_EQ(vxtest::liveBlocks(), blocks);
}

// The nested handle is read from the slot after the removal: when a bag item
// is not the last one, the item that moved down is the one whose value is
// taken, and the nested bag stays alive.
TEST_F(RemovalTest, NestedBagNotLastTakesTheValueOfTheItemBelow) {
  VXHBAG holder = newBag(BAG_OPT_ADMIN_BAG);
  VXHBAG nested = createBag(0);
  int32_t cc = -1, rc = -1;
  zaiAddBag(zaiDecodeHandle(holder), 4001, nested, &cc, &rc);
  ASSERT_OK(cc, rc);
  addIntegers(holder, {integer(5, 7)});
  const int32_t blocks = vxtest::liveBlocks();
  vxDeleteItem(holder, 4001, 0, &cc, &rc);
  EXPECT_OK(cc, rc);
  EXPECT_EQ(itemsOf(holder), (defaultItems(15, 1) + std::vector<Item>{integer(5, 7)}));
  // The nested bag is still there: it is the test's to delete now.
  ASSERT_EQ(vxtest::liveBlocks(), blocks);
  EXPECT_EQ(countOf(nested, SEL_ANY_SELECTOR), 8);
  vxDeleteBag(&nested, &cc, &rc);
  EXPECT_OK(cc, rc);
}

TEST_F(RemovalTest, DeletingBagsFreesStringsAndNestedBags) {
  const int32_t blocks = vxtest::liveBlocks();
  VXHBAG holder = createBag(0);
  VXHBAG inner = createBag(0);
  VXHBAG reply = createSystemBag();
  int32_t cc = -1, rc = -1;
  vxAddString(holder, 1, -1, "holder's", &cc, &rc);
  vxAddString(inner, 1, -1, "inner's", &cc, &rc);
  ASSERT_OK(cc, rc);
  zaiAddString(zaiDecodeHandle(reply), 3000, 7, "reply's", 0, &cc, &rc);
  ASSERT_OK(cc, rc);
  VXHBAG innermost = createBag(0);
  vxAddString(innermost, 2, -1, "innermost", &cc, &rc);
  ASSERT_OK(cc, rc);
  nest(inner, 4002, innermost);
  nest(holder, 4001, inner);
  nest(holder, SEL_NESTED_REPLY_BAG, reply);
  vxAddString(holder, 1, -1, "last", &cc, &rc);
  ASSERT_OK(cc, rc);
  ASSERT_GT(vxtest::liveBlocks(), blocks);

  vxDeleteBag(&holder, &cc, &rc);
  EXPECT_OK(cc, rc);
  EXPECT_EQ(holder, -1);
  EXPECT_EQ(vxtest::liveBlocks(), blocks);
}

TEST_F(RemovalTest, DeleteItemReturnsTheExitMarker) {
  int32_t cc, rc;
  EXPECT_EQ(vxDeleteItem(BAG_NONE, SEL_COMMAND, 0, &cc, &rc),
            exitMarker(ZAIFN_zaiVXDeleteItem, RC_SELECTOR_OUT_OF_RANGE));
  VXHBAG bag = newBag(0);
  EXPECT_EQ(vxDeleteItem(bag, 5, ITEM_INDEX_ALL, &cc, &rc),
            exitMarker(ZAIFN_zaiVXDeleteItem, RC_NONE));
}

// ----- vxClearBag -------------------------------------------------------------------

TEST_F(RemovalTest, ClearRestoresTheDefaultSystemItems) {
  VXHBAG bag = newBag(BAG_OPT_ADMIN_BAG);
  const int32_t blocks = vxtest::liveBlocks();
  int32_t cc = -1, rc = -1;
  vxSetInteger(bag, SEL_CODED_CHAR_SET_ID, ITEM_INDEX_NONE, 850, &cc, &rc);
  ASSERT_OK(cc, rc);
  vxSetInteger(bag, SEL_COMMAND, ITEM_INDEX_NONE, 13, &cc, &rc);
  vxSetInteger(bag, SEL_REASON, ITEM_INDEX_NONE, 3008, &cc, &rc);
  vxAddString(bag, 2001, -1, "a string", &cc, &rc);
  vxAddString(bag, 2002, -1, "another", &cc, &rc);
  vxAddInteger(bag, 5, 5, &cc, &rc);
  vxAddInquiry(bag, 2016, &cc, &rc);
  ASSERT_OK(cc, rc);
  VXHBAG nested = createBag(0);
  vxAddString(nested, 1, -1, "nested", &cc, &rc);
  ASSERT_OK(cc, rc);
  nest(bag, 4001, nested);

  cc = rc = -1;
  vxClearBag(bag, &cc, &rc);
  EXPECT_OK(cc, rc);
  EXPECT_EQ(itemsOf(bag), defaultItems(15, 1));
  int32_t ccsid = -1;
  vxInquireInteger(bag, SEL_CODED_CHAR_SET_ID, ITEM_INDEX_NONE, &ccsid, &cc, &rc);
  EXPECT_OK(cc, rc);
  EXPECT_EQ(ccsid, 0);
  EXPECT_EQ(countOf(bag, SEL_ANY_SYSTEM_SELECTOR), 8);
  EXPECT_EQ(countOf(bag, SEL_ANY_USER_SELECTOR), 0);
  EXPECT_EQ(vxtest::liveBlocks(), blocks);
  // Strings added now take the default character set again.
  vxAddString(bag, 2001, -1, "x", &cc, &rc);
  ASSERT_OK(cc, rc);
  char buffer[4];
  int32_t length = -1;
  ccsid = -1;
  vxInquireString(bag, 2001, 0, sizeof buffer, buffer, &length, &ccsid, &cc, &rc);
  EXPECT_OK(cc, rc);
  EXPECT_EQ(ccsid, 0);
}

TEST_F(RemovalTest, ClearOfEveryOptionCombinationGivesTheDefaults) {
  for (int32_t options = 0; options <= 0x1F; ++options) {
    if ((options & BAG_OPT_ADMIN_BAG) && (options & BAG_OPT_COMMAND_BAG)) continue;
    VXHBAG bag = newBag(options);
    const bool admin = (options & BAG_OPT_ADMIN_BAG) != 0;
    const int32_t expectedOptions = admin ? 0x0F : options;
    const int32_t pcfType = admin || (options & BAG_OPT_COMMAND_BAG) ? 1 : 8;
    int32_t cc = -1, rc = -1;
    for (int32_t selector = SEL_REASON; selector <= SEL_CODED_CHAR_SET_ID; ++selector) {
      vxSetInteger(bag, selector, ITEM_INDEX_NONE, 4000 + selector, &cc, &rc);
      ASSERT_OK(cc, rc) << "options " << options << " selector " << selector;
    }
    vxAddInteger(bag, 1, 1, &cc, &rc);
    ASSERT_OK(cc, rc);
    cc = rc = -1;
    vxClearBag(bag, &cc, &rc);
    EXPECT_OK(cc, rc) << "options " << options;
    EXPECT_EQ(itemsOf(bag), defaultItems(expectedOptions, pcfType)) << "options " << options;
  }
}

TEST_F(RemovalTest, ClearOfANewBagChangesNothing) {
  VXHBAG bag = newBag(BAG_OPT_COMMAND_BAG);
  int32_t cc = -1, rc = -1;
  vxClearBag(bag, &cc, &rc);
  EXPECT_OK(cc, rc);
  vxClearBag(bag, &cc, &rc);
  EXPECT_OK(cc, rc);
  EXPECT_EQ(itemsOf(bag), defaultItems(BAG_OPT_COMMAND_BAG, 1));
}

TEST_F(RemovalTest, ClearOfAResponseBagDeletesItsReplyBags) {
  VXHBAG holder = newBag(0);
  const int32_t blocks = vxtest::liveBlocks();
  nest(holder, SEL_NESTED_REPLY_BAG, createSystemBag());
  nest(holder, SEL_NESTED_REPLY_BAG, createSystemBag());
  ASSERT_EQ(countOf(holder, SEL_NESTED_REPLY_BAG), 2);
  int32_t cc = -1, rc = -1;
  vxClearBag(holder, &cc, &rc);
  EXPECT_OK(cc, rc);
  EXPECT_EQ(itemsOf(holder), defaultItems(0, 8));
  EXPECT_EQ(vxtest::liveBlocks(), blocks);
}

TEST_F(RemovalTest, ClearOfASystemBagIsNotAllowed) {
  VXHBAG system = newSystemBag();
  int32_t cc = -1, rc = -1;
  zaiSetInteger(zaiDecodeHandle(system), SEL_COMMAND, 0, 13, &cc, &rc);
  zaiAddInteger(zaiDecodeHandle(system), 5, 5, &cc, &rc);
  ASSERT_OK(cc, rc);
  const std::vector<Item> before = itemsOf(system);
  vxClearBag(system, &cc, &rc);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_SYSTEM_BAG_NOT_ALTERABLE);
  EXPECT_EQ(itemsOf(system), before);
  // The library's own clear has no such rule.
  cc = 9, rc = 9999;
  zaiClearBag(zaiDecodeHandle(system), &cc, &rc);
  EXPECT_OK(cc, rc);
  EXPECT_EQ(itemsOf(system), defaultItems(BAG_OPT_SYSTEM_BAG | BAG_OPT_CHECK_SELECTORS, 8));
}

TEST_F(RemovalTest, ClearRefusesBadHandles) {
  VXHBAG live = newBag(0);
  vxtest::ProtectedPages pages;
  vxtest::LowPage low;  // where a handle can name the copy
  unsigned char *marked = low.bytes;
  std::memcpy(marked, zaiDecodeHandle(live), sizeof(zaiBAG));
  marked[0] = '?';
  const VXHBAG handles[] = {
      BAG_NONE, -1, live + 1, zeroedHandle(), handleOf(marked), handleOf(pages.none), 0};
  for (VXHBAG handle : handles) {
    int32_t cc = -1, rc = -1;
    vxClearBag(handle, &cc, &rc);
    EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_BAG_HANDLE_ERROR) << "handle " << handle;
  }
  EXPECT_EQ(marked[0], '?');
}

TEST_F(RemovalTest, ClearReturnsTheExitMarker) {
  int32_t cc, rc;
  EXPECT_EQ(vxClearBag(BAG_NONE, &cc, &rc), exitMarker(ZAIFN_zaiVXClearBag, RC_BAG_HANDLE_ERROR));
}

// ----- vxTruncateBag ----------------------------------------------------------------

TEST_F(RemovalTest, TruncateToZeroKeepsTheSystemItems) {
  VXHBAG bag = newBag(BAG_OPT_ADMIN_BAG);
  const int32_t blocks = vxtest::liveBlocks();
  int32_t cc = -1, rc = -1;
  vxSetInteger(bag, SEL_CODED_CHAR_SET_ID, ITEM_INDEX_NONE, 850, &cc, &rc);
  addIntegers(bag, {integer(5, 1), integer(6, 2)});
  vxAddString(bag, 2001, -1, "text", &cc, &rc);
  ASSERT_OK(cc, rc);
  VXHBAG nested = createBag(0);
  nest(bag, 4001, nested);
  vxTruncateBag(bag, 0, &cc, &rc);
  EXPECT_OK(cc, rc);
  std::vector<Item> expected = defaultItems(15, 1);
  expected[2].value = 850;  // system items keep their values
  EXPECT_EQ(itemsOf(bag), expected);
  EXPECT_EQ(vxtest::liveBlocks(), blocks);
}

TEST_F(RemovalTest, TruncateKeepsTheFirstUserItemsInOrder) {
  VXHBAG bag = newBag(0);
  int32_t cc = -1, rc = -1;
  addIntegers(bag, {integer(5, 1), integer(6, 2)});
  vxAddString(bag, 7, -1, "seven", &cc, &rc);
  ASSERT_OK(cc, rc);
  addIntegers(bag, {integer(5, 3), integer(8, 4)});
  vxTruncateBag(bag, 3, &cc, &rc);
  EXPECT_OK(cc, rc);
  const std::vector<Item> three =
      defaultItems(0, 8) + std::vector<Item>{integer(5, 1), integer(6, 2), stringItem(7, "seven")};
  EXPECT_EQ(itemsOf(bag), three);
  // As many as there are: nothing to do.
  vxTruncateBag(bag, 3, &cc, &rc);
  EXPECT_OK(cc, rc);
  EXPECT_EQ(itemsOf(bag), three);
  vxTruncateBag(bag, 1, &cc, &rc);
  EXPECT_OK(cc, rc);
  EXPECT_EQ(itemsOf(bag), (defaultItems(0, 8) + std::vector<Item>{integer(5, 1)}));
}

TEST_F(RemovalTest, TruncateAboveTheUserItemsChangesNothing) {
  VXHBAG bag = newBag(0);
  addIntegers(bag, {integer(5, 1), integer(6, 2), integer(7, 3)});
  const std::vector<Item> before = itemsOf(bag);
  const int32_t counts[] = {4, 11, INT32_MAX};
  for (int32_t count : counts) {
    int32_t cc = -1, rc = -1;
    vxTruncateBag(bag, count, &cc, &rc);
    EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_ITEM_COUNT_ERROR) << "count " << count;
  }
  EXPECT_EQ(itemsOf(bag), before);
  // A new bag holds no user items at all.
  VXHBAG fresh = newBag(BAG_OPT_ADMIN_BAG);
  int32_t cc = -1, rc = -1;
  vxTruncateBag(fresh, 1, &cc, &rc);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_ITEM_COUNT_ERROR);
  vxTruncateBag(fresh, 0, &cc, &rc);
  EXPECT_OK(cc, rc);
  EXPECT_EQ(itemsOf(fresh), defaultItems(15, 1));
}

TEST_F(RemovalTest, TruncateWithANegativeCount) {
  VXHBAG bag = newBag(0);
  addIntegers(bag, {integer(5, 1)});
  const std::vector<Item> before = itemsOf(bag);
  const int32_t counts[] = {-1, -2, INT32_MIN};
  for (int32_t count : counts) {
    int32_t cc = -1, rc = -1;
    vxTruncateBag(bag, count, &cc, &rc);
    EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_ITEM_COUNT_ERROR) << "count " << count;
  }
  EXPECT_EQ(itemsOf(bag), before);
}

TEST_F(RemovalTest, TruncateChecksInArgumentOrder) {
  VXHBAG system = newSystemBag();
  int32_t cc = -1, rc = -1;
  zaiAddInteger(zaiDecodeHandle(system), 5, 5, &cc, &rc);
  ASSERT_OK(cc, rc);
  const std::vector<Item> before = itemsOf(system);
  vxTruncateBag(system, 0, &cc, &rc);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_SYSTEM_BAG_NOT_ALTERABLE);
  vxTruncateBag(system, -1, &cc, &rc);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_SYSTEM_BAG_NOT_ALTERABLE);
  vxTruncateBag(system, 2, &cc, &rc);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_SYSTEM_BAG_NOT_ALTERABLE);
  EXPECT_EQ(itemsOf(system), before);
  vxTruncateBag(BAG_NONE, -1, &cc, &rc);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_BAG_HANDLE_ERROR);
  vxTruncateBag(zeroedHandle(), -1, &cc, &rc);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_BAG_HANDLE_ERROR);
  vxTruncateBag(-1, 0, &cc, &rc);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_BAG_HANDLE_ERROR);
  // The library's own truncate has no system-bag rule.
  cc = 9, rc = 9999;
  zaiTruncateBag(zaiDecodeHandle(system), 0, &cc, &rc);
  EXPECT_OK(cc, rc);
  EXPECT_EQ(itemsOf(system), defaultItems(BAG_OPT_SYSTEM_BAG | BAG_OPT_CHECK_SELECTORS, 8));
  zaiTruncateBag(zaiDecodeHandle(system), 1, &cc, &rc);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_ITEM_COUNT_ERROR);
}

TEST_F(RemovalTest, TruncatePassesOverSystemItemsWhereverTheyAre) {
  VXHBAG bag = newBag(0);
  addIntegers(bag, {integer(5, 1), integer(6, 2)});
  int32_t cc = -1, rc = -1;
  // Only the library can put a system item after user items.
  zaiAddInteger(zaiDecodeHandle(bag), SEL_COMMAND, 99, &cc, &rc);
  ASSERT_OK(cc, rc);
  addIntegers(bag, {integer(7, 3)});
  vxTruncateBag(bag, 1, &cc, &rc);
  EXPECT_OK(cc, rc);
  EXPECT_EQ(itemsOf(bag),
            (defaultItems(0, 8) + std::vector<Item>{integer(5, 1), integer(SEL_COMMAND, 99)}));
  vxTruncateBag(bag, 0, &cc, &rc);
  EXPECT_OK(cc, rc);
  EXPECT_EQ(itemsOf(bag), (defaultItems(0, 8) + std::vector<Item>{integer(SEL_COMMAND, 99)}));
}

TEST_F(RemovalTest, TruncateDeletesNestedReplyBags) {
  VXHBAG holder = newBag(0);
  addIntegers(holder, {integer(5, 1)});
  const int32_t blocks = vxtest::liveBlocks();
  nest(holder, SEL_NESTED_REPLY_BAG, createSystemBag());
  int32_t cc = -1, rc = -1;
  vxTruncateBag(holder, 1, &cc, &rc);
  EXPECT_OK(cc, rc);
  EXPECT_EQ(itemsOf(holder), (defaultItems(0, 8) + std::vector<Item>{integer(5, 1)}));
  EXPECT_EQ(vxtest::liveBlocks(), blocks);
}

TEST_F(RemovalTest, TruncateReturnsTheExitMarker) {
  VXHBAG bag = newBag(0);
  int32_t cc, rc;
  EXPECT_EQ(vxTruncateBag(bag, -1, &cc, &rc),
            exitMarker(ZAIFN_zaiVXTruncateBag, RC_ITEM_COUNT_ERROR));
}

// ----- API trace --------------------------------------------------------------------

using Lines = std::vector<std::string>;
using vxtest::dataOf;

using vxtest::expectAllUnder;
using vxtest::parmLines;
using vxtest::pointerText;

TEST_F(RemovalTest, TraceOfDeleteItem) {
  VXHBAG bag = newBag(0);
  addIntegers(bag, {integer(5, 1)});
  int32_t cc, rc;
  {
    vxtest::TraceCapture trace(0x1);
    vxDeleteItem(bag, 5, ITEM_INDEX_NONE, &cc, &rc);
    EXPECT_OK(cc, rc);
    EXPECT_EQ(trace.lines(),
              (Lines{"__________", "vxDeleteItem >>", "Bag:", dataOf(bag), "Selector:", dataOf(5),
                     "ItemIndex:", dataOf(ITEM_INDEX_NONE), "Compcode      : Output Parm",
                     "Reason        : Output Parm", "__________", "vxDeleteItem <<",
                     "Bag           : Input  Parm", "Selector      : Input  Parm",
                     "ItemIndex     : Input  Parm", "Compcode:", dataOf(0), "Reason:", dataOf(0)}));
    expectAllUnder(trace, ZAIFN_zaiVXDeleteItem);
  }
  {
    vxtest::TraceCapture trace(0x1);
    vxDeleteItem(BAG_NONE, SEL_CONTROL, 0, &cc, &rc);
    EXPECT_EQ(trace.lines(),
              (Lines{"__________", "vxDeleteItem >>", "Bag:", dataOf(BAG_NONE),
                     "Selector:", dataOf(SEL_CONTROL), "ItemIndex:", dataOf(0),
                     "Compcode      : Output Parm", "Reason        : Output Parm", "__________",
                     "vxDeleteItem <<", "Bag           : Input  Parm",
                     "Selector      : Input  Parm", "ItemIndex     : Input  Parm",
                     "Compcode:", dataOf(CC_FAILED), "Reason:", dataOf(RC_SELECTOR_OUT_OF_RANGE)}));
  }
}

TEST_F(RemovalTest, TraceOfClearBag) {
  VXHBAG bag = newBag(0);
  VXHBAG system = newSystemBag();
  int32_t cc, rc;
  {
    vxtest::TraceCapture trace(0x1);
    vxClearBag(bag, &cc, &rc);
    EXPECT_OK(cc, rc);
    EXPECT_EQ(trace.lines(), (Lines{"__________", "vxClearBag >>", "Bag:", dataOf(bag),
                                    "Compcode      : Output Parm", "Reason        : Output Parm",
                                    "__________", "vxClearBag <<", "Bag           : Input  Parm",
                                    "Compcode:", dataOf(0), "Reason:", dataOf(0)}));
    expectAllUnder(trace, ZAIFN_zaiVXClearBag);
  }
  {
    vxtest::TraceCapture trace(0x1);
    vxClearBag(system, &cc, &rc);
    EXPECT_EQ(trace.lines(),
              (Lines{"__________", "vxClearBag >>", "Bag:", dataOf(system),
                     "Compcode      : Output Parm", "Reason        : Output Parm", "__________",
                     "vxClearBag <<", "Bag           : Input  Parm", "Compcode:", dataOf(CC_FAILED),
                     "Reason:", dataOf(RC_SYSTEM_BAG_NOT_ALTERABLE)}));
  }
}

TEST_F(RemovalTest, TraceOfTruncateBag) {
  VXHBAG bag = newBag(0);
  addIntegers(bag, {integer(5, 1)});
  int32_t cc, rc;
  {
    vxtest::TraceCapture trace(0x1);
    vxTruncateBag(bag, 0, &cc, &rc);
    EXPECT_OK(cc, rc);
    EXPECT_EQ(trace.lines(),
              (Lines{"__________", "vxTruncateBag >>", "Bag:", dataOf(bag), "ItemCount:", dataOf(0),
                     "Compcode      : Output Parm", "Reason        : Output Parm", "__________",
                     "vxTruncateBag <<", "Bag           : Input  Parm",
                     "ItemCount     : Input  Parm", "Compcode:", dataOf(0), "Reason:", dataOf(0)}));
    expectAllUnder(trace, ZAIFN_zaiVXTruncateBag);
  }
  {
    vxtest::TraceCapture trace(0x1);
    vxTruncateBag(bag, 1, &cc, &rc);
    EXPECT_EQ(
        trace.lines(),
        (Lines{"__________", "vxTruncateBag >>", "Bag:", dataOf(bag), "ItemCount:", dataOf(1),
               "Compcode      : Output Parm", "Reason        : Output Parm", "__________",
               "vxTruncateBag <<", "Bag           : Input  Parm", "ItemCount     : Input  Parm",
               "Compcode:", dataOf(CC_FAILED), "Reason:", dataOf(RC_ITEM_COUNT_ERROR)}));
  }
}

TEST_F(RemovalTest, NoTraceWhenApiTraceIsOff) {
  VXHBAG bag = newBag(0);
  addIntegers(bag, {integer(5, 1), integer(6, 2)});
  vxtest::TraceCapture trace(0x0);
  processAnchor.earlyTrace = 0;
  int32_t cc, rc;
  vxDeleteItem(bag, 5, 0, &cc, &rc);
  EXPECT_OK(cc, rc);
  vxTruncateBag(bag, 0, &cc, &rc);
  EXPECT_OK(cc, rc);
  vxClearBag(bag, &cc, &rc);
  EXPECT_OK(cc, rc);
  vxDeleteItem(BAG_NONE, 5, 0, &cc, &rc);
  vxClearBag(BAG_NONE, &cc, &rc);
  vxTruncateBag(BAG_NONE, 0, &cc, &rc);
  EXPECT_EQ(trace.lines(), Lines{});
}

TEST_F(RemovalTest, ParameterLinesOfTheInternalFunctions) {
  VXHBAG bag = newBag(0);
  addIntegers(bag, {integer(5, 1), integer(6, 2)});
  const std::string pBag = "pBag:" + pointerText(bag);
  int32_t cc, rc;
  vxtest::TraceCapture trace(0xC0000, true);
  vxDeleteItem(bag, 5, ITEM_INDEX_ALL, &cc, &rc);
  vxTruncateBag(bag, 0, &cc, &rc);
  vxClearBag(bag, &cc, &rc);
  EXPECT_OK(cc, rc);
  EXPECT_EQ(parmLines(trace, ZAIFN_zaiDeleteItem), Lines{pBag + ", selector:5, itemIndex:-2"});
  EXPECT_EQ(parmLines(trace, ZAIFN_zaiTruncateBag), Lines{pBag + ", ItemCount:0"});
  EXPECT_EQ(parmLines(trace, ZAIFN_zaiClearBag), Lines{pBag});
}

}  // namespace
