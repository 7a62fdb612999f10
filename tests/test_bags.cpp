// Bags: creation options and flags, the system items, the bag record, deletion
// (nested bags and string copies included), freeing single items, memory
// accounting, storage failures and bags used on several threads at once.
#include <sys/mman.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "vxtest.h"

namespace {

// ----- Helpers ---------------------------------------------------------------

zaiBAG *recordOf(VXHBAG handle) {
  return reinterpret_cast<zaiBAG *>(static_cast<uintptr_t>(static_cast<uint32_t>(handle)));
}

VXHBAG handleOf(const void *address) { return vxtest::handleOf(address); }

// The records take the layout of the build: addresses are 4 or 8 bytes.
constexpr int32_t kBagBytes = sizeof(zaiBAG);
constexpr int32_t kVectorBytes = sizeof(zaiVECTOR);
constexpr int32_t kItemBytes = sizeof(zaiPROPERTY);

// What a bag of `capacity` items holds in memory: its record, its vector's
// record, and the vector's block of slot-table entries (one address each)
// and places.
constexpr int32_t bagBytes(int32_t capacity) {
  return kBagBytes + kVectorBytes + capacity * (kItemBytes + static_cast<int32_t>(sizeof(void *)));
}

constexpr int32_t kAllOptions = BAG_OPT_ADMIN_BAG | BAG_OPT_LIST_FORM_ALLOWED |
                                BAG_OPT_REQUIRED_PARMS_FIRST | BAG_OPT_CHECK_SELECTORS |
                                BAG_OPT_COMMAND_BAG;

bool adminWithCommand(int32_t options) {
  return (options & BAG_OPT_ADMIN_BAG) != 0 && (options & BAG_OPT_COMMAND_BAG) != 0;
}

// The flags a bag created with `options` carries.
struct Flags {
  int32_t system, admin, command, requiredParmsFirst, listForm, checkSelectors;
};

Flags flagsFor(int32_t options) {
  const bool admin = (options & BAG_OPT_ADMIN_BAG) != 0;
  Flags flags{};
  flags.system = (options & BAG_OPT_SYSTEM_BAG) != 0;
  flags.admin = admin;
  flags.command = !admin && (options & BAG_OPT_COMMAND_BAG) != 0;
  flags.requiredParmsFirst = admin || (options & BAG_OPT_REQUIRED_PARMS_FIRST) != 0;
  flags.listForm = admin || (options & BAG_OPT_LIST_FORM_ALLOWED) != 0;
  flags.checkSelectors = admin || (options & BAG_OPT_CHECK_SELECTORS) != 0;
  return flags;
}

// What SEL_BAG_OPTIONS reads for a bag with these flags.
int32_t optionsItemFor(const Flags &flags) {
  return (flags.system ? 0x20 : 0) | (flags.admin ? 0x01 : 0) |
         (flags.requiredParmsFirst ? 0x04 : 0) | (flags.listForm ? 0x02 : 0) |
         (flags.checkSelectors ? 0x08 : 0) | (flags.command ? 0x10 : 0);
}

int32_t pcfTypeFor(const Flags &flags) { return flags.admin || flags.command ? 1 : 8; }

zaiPROPERTY integerItem(int32_t selector, int32_t value) {
  zaiPROPERTY item{};
  std::memcpy(item.eyeCatcher, "ZAPR", 4);
  item.selector = selector;
  item.type = ITEM_TYPE_INTEGER;
  item.value.integer = value;
  return item;
}

zaiPROPERTY bagItem(VXHBAG nested, int32_t selector = SEL_NESTED_REPLY_BAG) {
  zaiPROPERTY item{};
  std::memcpy(item.eyeCatcher, "ZAPR", 4);
  item.selector = selector;
  item.type = ITEM_TYPE_BAG;
  item.value.bag = nested;
  return item;
}

// A string item owning a heap copy of `text`, as the string calls make them.
zaiPROPERTY stringItem(int32_t selector, const char *text) {
  const size_t length = std::strlen(text);
  zaiPROPERTY item{};
  std::memcpy(item.eyeCatcher, "ZAPR", 4);
  item.selector = selector;
  item.type = ITEM_TYPE_STRING;
  item.value.string = static_cast<char *>(std::malloc(length));
  std::memcpy(item.value.string, text, length);
  item.stringLength = static_cast<int32_t>(length);
  item.codedCharSetId = 850;
  return item;
}

void addItem(VXHBAG bag, const zaiPROPERTY &item) {
  ASSERT_EQ(zaiVectorAdd(recordOf(bag)->items, &item), 0);
}

int32_t itemCount(VXHBAG bag) { return recordOf(bag)->items->count; }

int32_t liveRecordsOfBags() {
  int32_t blocks, bytes;
  svcMemLive(ZAI_COMPONENT, ZAIFN_zaiCreateBag, &blocks, &bytes);
  return blocks;
}

struct SystemItem {
  int32_t selector;
  int32_t value;
};

// The eight items every new bag starts with, in their order.
std::vector<SystemItem> systemItemsFor(int32_t options) {
  const Flags flags = flagsFor(options);
  return {{SEL_BAG_OPTIONS, optionsItemFor(flags)},
          {SEL_PCF_TYPE, pcfTypeFor(flags)},
          {SEL_CODED_CHAR_SET_ID, 0},
          {SEL_COMMAND, 0},
          {SEL_MSG_SEQ_NUMBER, 1},
          {SEL_CONTROL, 1},
          {SEL_COMP_CODE, 0},
          {SEL_REASON, 0}};
}

// Checks the record, its vector and its system items against what a bag
// created with `options` must hold.
void expectNewBag(VXHBAG handle, int32_t options) {
  SCOPED_TRACE("options " + std::to_string(options));
  ASSERT_NE(handle, BAG_NONE);
  ASSERT_EQ(handle & 3, 0) << "a record is at least 4-byte aligned";
  const zaiBAG *bag = recordOf(handle);
  ASSERT_EQ(std::memcmp(bag->eyeCatcher, "ZABG", 4), 0);
  const Flags flags = flagsFor(options);
  EXPECT_EQ(bag->systemBag, flags.system);
  EXPECT_EQ(bag->adminBag, flags.admin);
  EXPECT_EQ(bag->commandBag, flags.command);
  EXPECT_EQ(bag->requiredParmsFirst, flags.requiredParmsFirst);
  EXPECT_EQ(bag->listForm, flags.listForm);
  EXPECT_EQ(bag->checkSelectors, flags.checkSelectors);
  const zaiVECTOR *items = bag->items;
  ASSERT_NE(items, nullptr);
  EXPECT_EQ(std::memcmp(items->eyeCatcher, "ZVEC", 4), 0);
  EXPECT_EQ(items->recordLength, kVectorBytes);
  EXPECT_EQ(items->capacity, 40);
  EXPECT_EQ(items->elementSize, kItemBytes);
  EXPECT_EQ(items->slotSize, kItemBytes);
  const std::vector<SystemItem> expected = systemItemsFor(options);
  ASSERT_EQ(items->count, static_cast<int32_t>(expected.size()));
  for (int32_t i = 0; i < items->count; ++i) {
    SCOPED_TRACE("item " + std::to_string(i));
    const zaiPROPERTY *item = zaiItemAt(bag, i);
    EXPECT_EQ(std::memcmp(item->eyeCatcher, "ZAPR", 4), 0);
    EXPECT_EQ(item->selector, expected[static_cast<size_t>(i)].selector);
    EXPECT_EQ(item->type, ITEM_TYPE_INTEGER);
    EXPECT_EQ(item->value.integer, expected[static_cast<size_t>(i)].value);
    EXPECT_EQ(item->stringLength, 0);
    EXPECT_EQ(item->codedCharSetId, 0);
  }
}

int32_t optionsItem(VXHBAG bag) { return zaiItemAt(recordOf(bag), 0)->value.integer; }
int32_t pcfTypeItem(VXHBAG bag) { return zaiItemAt(recordOf(bag), 1)->value.integer; }

// Two adjacent pages, the first writable and the second inaccessible: bytes at
// the end of the first run into memory that cannot be touched.  A handle can
// name them.
class GuardedPage {
 public:
  GuardedPage() {
    size_ = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    base_ = static_cast<char *>(vxtest::mapLow(2 * size_, PROT_READ | PROT_WRITE));
    if (!base_) throw std::runtime_error("no low pages");
    mprotect(base_ + size_, size_, PROT_NONE);
  }
  ~GuardedPage() { munmap(base_, 2 * size_); }
  GuardedPage(const GuardedPage &) = delete;
  GuardedPage &operator=(const GuardedPage &) = delete;
  // The first inaccessible byte.
  char *end() const { return base_ + size_; }

 private:
  char *base_;
  size_t size_;
};

// Writes into a page that is otherwise read-only.
void writeReadOnly(void *page, const void *bytes, size_t length) {
  const size_t size = static_cast<size_t>(sysconf(_SC_PAGESIZE));
  mprotect(page, size, PROT_READ | PROT_WRITE);
  std::memcpy(page, bytes, length);
  mprotect(page, size, PROT_READ);
}

// Trace-history markers.
constexpr uint32_t entryOf(int32_t function) {
  return 0xF0000000u | static_cast<uint32_t>(ZAI_COMPONENT << 10 | function);
}
constexpr uint32_t exitOf(int32_t function, int32_t reason = 0) {
  return static_cast<uint32_t>(reason) << 16 |
         static_cast<uint32_t>(ZAI_COMPONENT << 10 | function);
}

// The markers the calling thread has written since its history index was
// `start` (fewer than the ring holds).
std::vector<uint32_t> historySince(const svcTHREADANCHOR *anchor, int32_t start) {
  std::vector<uint32_t> markers;
  for (int32_t slot = start; slot != anchor->historyIndex; slot = (slot + 1) % anchor->historySize)
    markers.push_back(anchor->history[slot]);
  return markers;
}

uint32_t latestMarker(const svcTHREADANCHOR *anchor) {
  return anchor->history[(anchor->historyIndex + anchor->historySize - 1) % anchor->historySize];
}

std::vector<uint32_t> createMarkers() {
  std::vector<uint32_t> markers = {entryOf(ZAIFN_zaiVXCreateBag), entryOf(ZAIFN_zaiCreateBag),
                                   entryOf(ZAIFN_zaiVectorCreate), exitOf(ZAIFN_zaiVectorCreate),
                                   entryOf(ZAIFN_zaiAddDefaultSystemItems)};
  for (int i = 0; i < 8; ++i) {
    markers.push_back(entryOf(ZAIFN_zaiVectorAdd));
    markers.push_back(exitOf(ZAIFN_zaiVectorAdd));
  }
  markers.push_back(exitOf(ZAIFN_zaiAddDefaultSystemItems));
  markers.push_back(exitOf(ZAIFN_zaiCreateBag));
  markers.push_back(exitOf(ZAIFN_zaiVXCreateBag));
  return markers;
}

std::vector<uint32_t> deleteMarkers(int32_t items) {
  std::vector<uint32_t> markers = {entryOf(ZAIFN_zaiVXDeleteBag), entryOf(ZAIFN_zaiDeleteBag)};
  for (int32_t i = 0; i < items; ++i) {
    markers.push_back(entryOf(ZAIFN_zaiFreeItem));
    markers.push_back(entryOf(ZAIFN_zaiVectorRemoveAt));
    markers.push_back(exitOf(ZAIFN_zaiVectorRemoveAt));
    markers.push_back(exitOf(ZAIFN_zaiFreeItem));
  }
  markers.push_back(entryOf(ZAIFN_zaiVectorDestroy));
  markers.push_back(exitOf(ZAIFN_zaiVectorDestroy));
  markers.push_back(exitOf(ZAIFN_zaiDeleteBag));
  markers.push_back(exitOf(ZAIFN_zaiVXDeleteBag));
  return markers;
}

std::string hexList(const std::vector<uint32_t> &markers) {
  std::string out;
  char text[16];
  for (uint32_t marker : markers) {
    std::snprintf(text, sizeof text, "%08X ", marker);
    out += text;
  }
  return out;
}

class BagTest : public vxtest::VxTest {
 protected:
  void SetUp() override {
    VxTest::SetUp();
    recordsAtStart_ = liveRecordsOfBags();
    bytesAtStart_ = vxtest::liveBytes();
  }

  // Bag records and bytes of the library made by this test and still live.
  int32_t liveBagRecords() const { return liveRecordsOfBags() - recordsAtStart_; }
  int32_t liveBytes() const { return vxtest::liveBytes() - bytesAtStart_; }

  VXHBAG create(int32_t options) {
    VXHBAG handle = BAG_NONE;
    int32_t cc = -1, rc = -1;
    vxCreateBag(options, &handle, &cc, &rc);
    EXPECT_OK(cc, rc);
    return handle;
  }

  // A bag only the library may create: a system bag.
  VXHBAG createInternal(int32_t options) {
    zaiBAG *bag = nullptr;
    int32_t cc = -1, rc = -1;
    zaiCreateBag(options, &bag, &cc, &rc);
    EXPECT_OK(cc, rc);
    return handleOf(bag);
  }

  void destroy(VXHBAG &handle) {
    int32_t cc = -1, rc = -1;
    vxDeleteBag(&handle, &cc, &rc);
    EXPECT_OK(cc, rc);
    EXPECT_EQ(handle, -1);
  }

  void destroyInternal(VXHBAG handle) {
    zaiBAG *bag = recordOf(handle);
    int32_t cc = -1, rc = -1;
    zaiDeleteBag(&bag, &cc, &rc);
    EXPECT_OK(cc, rc);
    EXPECT_EQ(bag, nullptr);
  }

  int32_t recordsAtStart_ = 0;
  int32_t bytesAtStart_ = 0;
};

// ----- Options -----------------------------------------------------------------

TEST_F(BagTest, OptionsOutsideTheFiveCallerBitsAreRefused) {
  for (int32_t options : {0x20, 0x21, 0x28, 0x3F, 0x40, 0x80, 0x100, 0x10000, INT32_MIN, -1}) {
    SCOPED_TRACE("options " + std::to_string(options));
    VXHBAG handle = 12345678;
    int32_t cc = -1, rc = -1;
    vxCreateBag(options, &handle, &cc, &rc);
    EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_OPTIONS_ERROR);
    EXPECT_EQ(handle, 12345678);
    EXPECT_EQ(vxtest::liveBlocks(), blocksAtStart_);
  }
}

TEST_F(BagTest, AdminTogetherWithCommandIsRefused) {
  for (int32_t options = 0; options <= kAllOptions; ++options) {
    if (!adminWithCommand(options)) continue;
    SCOPED_TRACE("options " + std::to_string(options));
    VXHBAG handle = 12345678;
    int32_t cc = -1, rc = -1;
    vxCreateBag(options, &handle, &cc, &rc);
    EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_OPTIONS_ERROR);
    EXPECT_EQ(handle, 12345678);
  }
  EXPECT_EQ(vxtest::liveBlocks(), blocksAtStart_);
}

TEST_F(BagTest, AllFiveBitsAreRefusedSinceTheyHoldAdminAndCommand) {
  VXHBAG handle = 4;
  int32_t cc = -1, rc = -1;
  vxCreateBag(0x1F, &handle, &cc, &rc);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_OPTIONS_ERROR);
  EXPECT_EQ(handle, 4);
}

TEST_F(BagTest, EveryAcceptedOptionValueSetsItsFlagsAndItems) {
  int32_t accepted = 0;
  for (int32_t options = 0; options <= kAllOptions; ++options) {
    if (adminWithCommand(options)) continue;
    ++accepted;
    VXHBAG handle = create(options);
    expectNewBag(handle, options);
    destroy(handle);
  }
  EXPECT_EQ(accepted, 24);
}

TEST_F(BagTest, AdminBagReadsFifteenAndCommandType) {
  VXHBAG bag = create(BAG_OPT_ADMIN_BAG);
  EXPECT_EQ(optionsItem(bag), 15);
  EXPECT_EQ(pcfTypeItem(bag), 1);
  EXPECT_EQ(itemCount(bag), 8);
  destroy(bag);
}

TEST_F(BagTest, PlainBagReadsZeroAndUserType) {
  VXHBAG bag = create(0);
  EXPECT_EQ(optionsItem(bag), 0);
  EXPECT_EQ(pcfTypeItem(bag), 8);
  destroy(bag);
}

TEST_F(BagTest, CommandBagReadsItsOwnBitAndCommandType) {
  VXHBAG bag = create(BAG_OPT_COMMAND_BAG);
  EXPECT_EQ(optionsItem(bag), 0x10);
  EXPECT_EQ(pcfTypeItem(bag), 1);
  EXPECT_EQ(recordOf(bag)->commandBag, 1);
  EXPECT_EQ(recordOf(bag)->adminBag, 0);
  destroy(bag);
}

TEST_F(BagTest, AdminBitHidesTheOtherBits) {
  for (int32_t options : {0x01, 0x03, 0x05, 0x07, 0x09, 0x0F}) {
    VXHBAG bag = create(options);
    EXPECT_EQ(optionsItem(bag), 15) << "options " << options;
    destroy(bag);
  }
}

TEST_F(BagTest, InternalCreationAcceptsTheSystemBit) {
  VXHBAG reply = createInternal(BAG_OPT_SYSTEM_BAG | BAG_OPT_CHECK_SELECTORS);
  expectNewBag(reply, 0x28);
  EXPECT_EQ(optionsItem(reply), 0x28);
  EXPECT_EQ(pcfTypeItem(reply), 8);
  destroyInternal(reply);

  VXHBAG adminReply = createInternal(BAG_OPT_SYSTEM_BAG | BAG_OPT_ADMIN_BAG);
  expectNewBag(adminReply, 0x21);
  EXPECT_EQ(optionsItem(adminReply), 0x2F);
  EXPECT_EQ(pcfTypeItem(adminReply), 1);
  destroyInternal(adminReply);
}

// ----- The record --------------------------------------------------------------

TEST_F(BagTest, HandleIsTheAddressOfALiveBagRecord) {
  int32_t vectorBlocks, vectorBytes;
  svcMemLive(ZAI_COMPONENT, ZAIFN_zaiVectorCreate, &vectorBlocks, &vectorBytes);
  VXHBAG bag = create(BAG_OPT_CHECK_SELECTORS);
  EXPECT_EQ(liveBagRecords(), 1);
  EXPECT_EQ(svcCheckPointer(recordOf(bag), kBagBytes, SVC_CHECK_READ_WRITE), 0);
  // The vector: its record and one block of 40 slot-table entries and places.
  int32_t blocks, bytes;
  svcMemLive(ZAI_COMPONENT, ZAIFN_zaiVectorCreate, &blocks, &bytes);
  EXPECT_EQ(blocks - vectorBlocks, 2);
  EXPECT_EQ(bytes - vectorBytes, bagBytes(40) - kBagBytes);
  EXPECT_EQ(liveBytes(), bagBytes(40));
  EXPECT_EQ(vxtest::liveBlocks(), blocksAtStart_ + 3);
  destroy(bag);
  EXPECT_EQ(vxtest::liveBlocks(), blocksAtStart_);
  EXPECT_EQ(liveBagRecords(), 0);
}

TEST_F(BagTest, BagsAreIndependent) {
  VXHBAG first = create(0);
  VXHBAG second = create(BAG_OPT_ADMIN_BAG);
  EXPECT_NE(first, second);
  EXPECT_NE(recordOf(first)->items, recordOf(second)->items);
  addItem(first, integerItem(7, 70));
  EXPECT_EQ(itemCount(first), 9);
  EXPECT_EQ(itemCount(second), 8);
  destroy(first);
  expectNewBag(second, BAG_OPT_ADMIN_BAG);
  destroy(second);
}

TEST_F(BagTest, CallsWithoutStatusVariablesStillRun) {
  VXHBAG bag = BAG_NONE;
  vxCreateBag(0, &bag, nullptr, nullptr);
  expectNewBag(bag, 0);
  vxDeleteBag(&bag, nullptr, nullptr);
  EXPECT_EQ(bag, -1);
}

// ----- Order of checks of vxCreateBag -----------------------------------------------

TEST_F(BagTest, BadOptionsAreFoundBeforeABadHandlePointer) {
  vxtest::ProtectedPages pages;
  for (int32_t options : {0x20, 0x11, 0x1F, 0x40}) {
    SCOPED_TRACE("options " + std::to_string(options));
    for (void *pointer :
         {static_cast<void *>(nullptr), pages.none, pages.unmapped, pages.readOnly}) {
      int32_t cc = -1, rc = -1;
      vxCreateBag(options, static_cast<VXHBAG *>(pointer), &cc, &rc);
      EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_OPTIONS_ERROR);
    }
  }
}

TEST_F(BagTest, HandlePointerThatCannotBeWrittenIsRefused) {
  vxtest::ProtectedPages pages;
  GuardedPage guarded;
  void *straddling = guarded.end() - 2;  // two bytes writable, two not
  for (int32_t options : {0, BAG_OPT_ADMIN_BAG}) {
    for (void *pointer :
         {static_cast<void *>(nullptr), pages.none, pages.unmapped, pages.readOnly, straddling}) {
      SCOPED_TRACE("pointer " + std::to_string(reinterpret_cast<uintptr_t>(pointer)));
      std::memset(guarded.end() - 2, 'G', 2);
      int32_t cc = -1, rc = -1;
      vxCreateBag(options, static_cast<VXHBAG *>(pointer), &cc, &rc);
      EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_BAG_HANDLE_ERROR);
      EXPECT_EQ(vxtest::liveBlocks(), blocksAtStart_) << "no bag is made for nobody";
      EXPECT_EQ(std::memcmp(pages.readOnly, "RRRR", 4), 0);
      EXPECT_EQ(std::memcmp(guarded.end() - 2, "GG", 2), 0);
    }
  }
}

TEST_F(BagTest, HandleVariableIsWrittenOnlyOnSuccess) {
  VXHBAG handle = 0x5A5A5A5A;
  int32_t cc = -1, rc = -1;
  vxCreateBag(0x11, &handle, &cc, &rc);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_OPTIONS_ERROR);
  EXPECT_EQ(handle, 0x5A5A5A5A);
  vxCreateBag(0x04, &handle, &cc, &rc);
  EXPECT_OK(cc, rc);
  EXPECT_NE(handle, 0x5A5A5A5A);
  expectNewBag(handle, 0x04);
  destroy(handle);
}

// ----- Deleting ------------------------------------------------------------------

TEST_F(BagTest, DeleteLeavesMinusOneAndReleasesEverything) {
  VXHBAG bag = create(BAG_OPT_ADMIN_BAG);
  EXPECT_EQ(vxtest::liveBlocks(), blocksAtStart_ + 3);
  int32_t cc = -1, rc = -1;
  vxDeleteBag(&bag, &cc, &rc);
  EXPECT_OK(cc, rc);
  EXPECT_EQ(bag, -1);
  EXPECT_EQ(vxtest::liveBlocks(), blocksAtStart_);
}

TEST_F(BagTest, DeletingTwiceIsRefusedTheSecondTime) {
  VXHBAG bag = create(0);
  destroy(bag);
  int32_t cc = -1, rc = -1;
  vxDeleteBag(&bag, &cc, &rc);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_BAG_HANDLE_ERROR);
  EXPECT_EQ(bag, -1);
}

TEST_F(BagTest, NoBagHandleIsRefused) {
  VXHBAG bag = BAG_NONE;
  int32_t cc = -1, rc = -1;
  vxDeleteBag(&bag, &cc, &rc);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_BAG_HANDLE_ERROR);
  EXPECT_EQ(bag, BAG_NONE);
}

TEST_F(BagTest, OddHandlesAreRefusedAndTheBagStaysIntact) {
  VXHBAG real = create(BAG_OPT_LIST_FORM_ALLOWED);
  for (VXHBAG odd : {real | 1, real + 3, 1, 3, -1, INT32_MAX, -3}) {
    SCOPED_TRACE("handle " + std::to_string(odd));
    VXHBAG handle = odd;
    int32_t cc = -1, rc = -1;
    vxDeleteBag(&handle, &cc, &rc);
    EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_BAG_HANDLE_ERROR);
    EXPECT_EQ(handle, odd);
  }
  expectNewBag(real, BAG_OPT_LIST_FORM_ALLOWED);
  destroy(real);
}

TEST_F(BagTest, HandleOfMemoryThatCannotBeAccessedIsRefused) {
  vxtest::ProtectedPages pages;
  GuardedPage guarded;
  std::memcpy(guarded.end() - 16, "ZABG", 4);  // 16 bytes of a record exist
  for (const void *address :
       {static_cast<const void *>(pages.none), static_cast<const void *>(pages.unmapped),
        static_cast<const void *>(guarded.end() - 16), static_cast<const void *>(guarded.end()),
        static_cast<const void *>(nullptr)}) {
    SCOPED_TRACE("address " + std::to_string(reinterpret_cast<uintptr_t>(address)));
    VXHBAG handle = handleOf(address);
    const VXHBAG before = handle;
    int32_t cc = -1, rc = -1;
    vxDeleteBag(&handle, &cc, &rc);
    EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_BAG_HANDLE_ERROR);
    EXPECT_EQ(handle, before);
  }
}

TEST_F(BagTest, EvenHandlesWhereNoRecordCanBeAreRefused) {
  // Null, the lowest page, the top of the address space (32 bytes from -4
  // would wrap) and the middle of it.
  for (VXHBAG even : {0, 4, 4096, -4, -8, -32, INT32_MIN}) {
    SCOPED_TRACE("handle " + std::to_string(even));
    VXHBAG handle = even;
    int32_t cc = -1, rc = -1;
    vxDeleteBag(&handle, &cc, &rc);
    EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_BAG_HANDLE_ERROR);
    EXPECT_EQ(handle, even);
  }
}

TEST_F(BagTest, HandleOfMemoryWithoutTheEyeCatcherIsRefused) {
  vxtest::ProtectedPages pages;
  // Writable records that are not bags, where a handle can name them.
  vxtest::LowPage low;
  char *fakes[4];
  for (size_t i = 0; i < 4; ++i) fakes[i] = reinterpret_cast<char *>(low.bytes) + i * kBagBytes;
  std::memcpy(fakes[0], "ZABX", 4);
  std::memcpy(fakes[1], "?ABG", 4);
  std::memcpy(fakes[2], "zabg", 4);
  std::memcpy(fakes[3], "ZVEC", 4);
  std::vector<const void *> addresses = {fakes[0], fakes[1], fakes[2], fakes[3], pages.readOnly};
  // A bag's own vector is a live block of the library, but not a bag.  In
  // the 64-bit build no handle can name one: only bag records lie low.
  VXHBAG real = create(0);
  if constexpr (!ZAI_WIDE_ADDRESSES) addresses.push_back(recordOf(real)->items);
  for (const void *address : addresses) {
    SCOPED_TRACE("address " + std::to_string(reinterpret_cast<uintptr_t>(address)));
    VXHBAG handle = handleOf(address);
    int32_t cc = -1, rc = -1;
    vxDeleteBag(&handle, &cc, &rc);
    EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_BAG_HANDLE_ERROR);
    EXPECT_EQ(handle, handleOf(address));
  }
  EXPECT_EQ(std::memcmp(fakes[1], "?ABG", 4), 0);
  expectNewBag(real, 0);
  destroy(real);
}

TEST_F(BagTest, RecordInMemoryThatCannotBeWrittenIsRefused) {
  vxtest::ProtectedPages pages;
  char record[sizeof(zaiBAG)] = {'Z', 'A', 'B', 'G'};
  writeReadOnly(pages.readOnly, record, sizeof record);
  VXHBAG handle = handleOf(pages.readOnly);
  int32_t cc = -1, rc = -1;
  vxDeleteBag(&handle, &cc, &rc);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_BAG_HANDLE_ERROR);
  EXPECT_EQ(handle, handleOf(pages.readOnly));
  EXPECT_EQ(std::memcmp(pages.readOnly, "ZABG", 4), 0);
}

TEST_F(BagTest, CopyOfADeletedHandleIsRefused) {
  VXHBAG bag = create(0);
  const VXHBAG original = bag;
  VXHBAG copy = bag;
  destroy(bag);
  int32_t cc = -1, rc = -1;
  vxDeleteBag(&copy, &cc, &rc);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_BAG_HANDLE_ERROR);
  EXPECT_EQ(copy, original);
  EXPECT_EQ(vxtest::liveBlocks(), blocksAtStart_);
}

TEST_F(BagTest, AddressOfTheHandleThatCannotBeUsedIsRefused) {
  vxtest::ProtectedPages pages;
  for (void *address : {static_cast<void *>(nullptr), pages.none, pages.unmapped, pages.readOnly}) {
    SCOPED_TRACE("address " + std::to_string(reinterpret_cast<uintptr_t>(address)));
    int32_t cc = -1, rc = -1;
    vxDeleteBag(static_cast<VXHBAG *>(address), &cc, &rc);
    EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_BAG_HANDLE_ERROR);
  }
}

TEST_F(BagTest, HandleHeldInReadOnlyMemoryIsRefusedAndTheBagKept) {
  // The handle variable is set to -1 after a delete, so it must be writable
  // before anything is deleted.
  vxtest::ProtectedPages pages;
  VXHBAG bag = create(0);
  writeReadOnly(pages.readOnly, &bag, sizeof bag);
  int32_t cc = -1, rc = -1;
  vxDeleteBag(static_cast<VXHBAG *>(pages.readOnly), &cc, &rc);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_BAG_HANDLE_ERROR);
  expectNewBag(bag, 0);
  destroy(bag);
}

TEST_F(BagTest, SystemBagCannotBeDeletedByTheCaller) {
  VXHBAG reply = createInternal(BAG_OPT_SYSTEM_BAG | BAG_OPT_CHECK_SELECTORS);
  VXHBAG handle = reply;
  int32_t cc = -1, rc = -1;
  vxDeleteBag(&handle, &cc, &rc);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_SYSTEM_BAG_NOT_DELETABLE);
  EXPECT_EQ(handle, reply);
  expectNewBag(reply, 0x28);
  EXPECT_EQ(vxtest::liveBlocks(), blocksAtStart_ + 3);
  destroyInternal(reply);
}

TEST_F(BagTest, DeletingAHolderDeletesItsNestedBag) {
  VXHBAG holder = create(0);
  VXHBAG nested = create(BAG_OPT_ADMIN_BAG);
  addItem(holder, bagItem(nested));
  EXPECT_EQ(liveBagRecords(), 2);
  destroy(holder);
  EXPECT_EQ(liveBagRecords(), 0);
  EXPECT_EQ(vxtest::liveBlocks(), blocksAtStart_);
}

TEST_F(BagTest, DeletingAHolderDeletesBagsNestedTwoDeep) {
  VXHBAG holder = create(BAG_OPT_ADMIN_BAG);
  VXHBAG middle = create(0);
  VXHBAG inner = create(BAG_OPT_COMMAND_BAG);
  addItem(inner, stringItem(3001, "innermost"));
  addItem(middle, bagItem(inner, 7));
  addItem(middle, integerItem(8, 80));
  addItem(holder, bagItem(middle));
  EXPECT_EQ(liveBagRecords(), 3);
  destroy(holder);
  EXPECT_EQ(liveBagRecords(), 0);
  EXPECT_EQ(vxtest::liveBlocks(), blocksAtStart_);
}

TEST_F(BagTest, DeletingAHolderDeletesANestedSystemBag) {
  VXHBAG holder = create(0);
  VXHBAG reply = createInternal(BAG_OPT_SYSTEM_BAG | BAG_OPT_CHECK_SELECTORS);
  addItem(reply, integerItem(1, 1));
  addItem(holder, bagItem(reply));
  destroy(holder);
  EXPECT_EQ(liveBagRecords(), 0);
  EXPECT_EQ(vxtest::liveBlocks(), blocksAtStart_);
}

TEST_F(BagTest, DeletingAHolderDeletesEveryNestedBagWhereverItStands) {
  VXHBAG holder = create(0);
  std::vector<VXHBAG> nested;
  for (int i = 0; i < 5; ++i) {
    nested.push_back(create(i % 2 ? BAG_OPT_ADMIN_BAG : 0));
    addItem(holder, bagItem(nested.back()));
    addItem(holder, integerItem(10 + i, i));
    addItem(holder, stringItem(3000 + i, "between the bags"));
  }
  EXPECT_EQ(liveBagRecords(), 6);
  destroy(holder);
  EXPECT_EQ(liveBagRecords(), 0);
  EXPECT_EQ(vxtest::liveBlocks(), blocksAtStart_);
}

TEST_F(BagTest, DeletingABagFreesItsStringCopies) {
  // The sanitizer build's leak check proves the copies are freed; a copy
  // freed twice or not from the heap would fail there as well.
  VXHBAG bag = create(0);
  addItem(bag, stringItem(3001, "QUEUE.ONE"));
  addItem(bag, stringItem(3002, "a longer string item of the bag"));
  addItem(bag, stringItem(3001, "QUEUE.TWO"));
  EXPECT_EQ(itemCount(bag), 11);
  destroy(bag);
}

TEST_F(BagTest, EmptyStringItemHasNoCopyToFree) {
  // A string of length 0 owns nothing, whatever its value word holds.
  static char notFromTheHeap[8] = "static";
  VXHBAG bag = create(0);
  zaiPROPERTY empty = stringItem(3001, "");
  std::free(empty.value.string);
  empty.value.string = notFromTheHeap;
  addItem(bag, empty);
  zaiPROPERTY none = stringItem(3002, "");
  std::free(none.value.string);
  none.value.string = nullptr;
  addItem(bag, none);
  destroy(bag);
  EXPECT_STREQ(notFromTheHeap, "static");
}

TEST_F(BagTest, DeletingTakesNoMemory) {
  VXHBAG bag = create(0);
  addItem(bag, bagItem(create(0)));
  svcInjectMemFailure(1);
  destroy(bag);
  svcInjectMemFailure(0);
  EXPECT_EQ(vxtest::liveBlocks(), blocksAtStart_);
}

TEST_F(BagTest, InternalDeleteClearsTheCallersPointerAndSucceeds) {
  VXHBAG handle = createInternal(0);
  zaiBAG *bag = recordOf(handle);
  int32_t cc = 77, rc = 88;
  zaiDeleteBag(&bag, &cc, &rc);
  EXPECT_OK(cc, rc);
  EXPECT_EQ(bag, nullptr);
}

// ----- Freeing items ------------------------------------------------------------

TEST_F(BagTest, FreeingAnIndexWithoutAnItemIsRefused) {
  VXHBAG bag = create(0);
  addItem(bag, integerItem(1, 10));
  const int32_t reports = svcFailureReportCount();
  for (int32_t index : {-1, 9, 10, INT32_MIN, INT32_MAX}) {
    SCOPED_TRACE("index " + std::to_string(index));
    int32_t cc = -1, rc = -1;
    zaiFreeItem(recordOf(bag), index, &cc, &rc);
    EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_INDEX_NOT_PRESENT);
    EXPECT_EQ(itemCount(bag), 9);
  }
  EXPECT_EQ(svcFailureReportCount(), reports) << "a refused index is not damage";
  destroy(bag);
}

TEST_F(BagTest, FreeingAnItemKeepsTheOrderOfTheRest) {
  VXHBAG bag = create(0);
  for (int32_t i = 0; i < 4; ++i) addItem(bag, integerItem(100 + i, i));
  int32_t cc = -1, rc = -1;
  zaiFreeItem(recordOf(bag), 9, &cc, &rc);
  EXPECT_OK(cc, rc);
  ASSERT_EQ(itemCount(bag), 11);
  const int32_t expected[] = {100, 102, 103};
  for (int32_t i = 0; i < 3; ++i) EXPECT_EQ(zaiItemAt(recordOf(bag), 8 + i)->selector, expected[i]);
  // A system item is just an item here: the internal call does not guard it.
  zaiFreeItem(recordOf(bag), 0, &cc, &rc);
  EXPECT_OK(cc, rc);
  EXPECT_EQ(zaiItemAt(recordOf(bag), 0)->selector, SEL_PCF_TYPE);
  EXPECT_EQ(itemCount(bag), 10);
  destroy(bag);
}

TEST_F(BagTest, FreeingTheLastBagItemDeletesItsBag) {
  VXHBAG holder = create(0);
  VXHBAG nested = create(0);
  addItem(holder, bagItem(nested));
  int32_t cc = -1, rc = -1;
  zaiFreeItem(recordOf(holder), 8, &cc, &rc);
  EXPECT_OK(cc, rc);
  EXPECT_EQ(itemCount(holder), 8);
  EXPECT_EQ(liveBagRecords(), 1);
  destroy(holder);
}

TEST_F(BagTest, FreeingAStringItemFreesItsOwnCopyOnly) {
  VXHBAG bag = create(0);
  addItem(bag, stringItem(3001, "first"));
  addItem(bag, stringItem(3002, "second"));
  int32_t cc = -1, rc = -1;
  zaiFreeItem(recordOf(bag), 8, &cc, &rc);
  EXPECT_OK(cc, rc);
  ASSERT_EQ(itemCount(bag), 9);
  const zaiPROPERTY *left = zaiItemAt(recordOf(bag), 8);
  EXPECT_EQ(left->selector, 3002);
  ASSERT_EQ(left->stringLength, 6);
  EXPECT_EQ(std::memcmp(left->value.string, "second", 6), 0);
  destroy(bag);
}

TEST_F(BagTest, FreeingABagItemBeforeAnotherTakesTheBagThatMovedDown) {
  // The nested handle is read from the slot after the removal: with two bag
  // items side by side, freeing the first deletes the second one's bag.
  VXHBAG holder = create(0);
  VXHBAG first = create(BAG_OPT_ADMIN_BAG);
  VXHBAG second = create(0);
  // The second bag is grown, so that the bytes released tell which bag went.
  for (int32_t selector = 0; selector < 33; ++selector) addItem(second, integerItem(selector, 0));
  ASSERT_EQ(recordOf(second)->items->capacity, 80);
  addItem(holder, bagItem(first, 1));
  addItem(holder, bagItem(second, 2));
  EXPECT_EQ(liveBagRecords(), 3);
  const int32_t bytesBefore = liveBytes();
  int32_t cc = -1, rc = -1;
  zaiFreeItem(recordOf(holder), 8, &cc, &rc);
  EXPECT_OK(cc, rc);
  ASSERT_EQ(itemCount(holder), 9);
  zaiPROPERTY *moved = zaiItemAt(recordOf(holder), 8);
  EXPECT_EQ(moved->selector, 2);
  EXPECT_EQ(moved->type, ITEM_TYPE_BAG);
  EXPECT_EQ(moved->value.bag, second);
  ASSERT_EQ(liveBagRecords(), 2) << "holder and one nested bag are left";
  ASSERT_EQ(liveBytes(), bytesBefore - bagBytes(80)) << "the second nested bag is the one released";
  expectNewBag(first, BAG_OPT_ADMIN_BAG);  // untouched, and now owned by nobody
  // The moved item names a deleted bag; hand it the orphan so that deleting
  // the holder releases everything exactly once.
  moved->value.bag = first;
  destroy(holder);
  EXPECT_EQ(liveBagRecords(), 0);
}

TEST_F(BagTest, FreeingABagItemBeforeAnIntegerDeletesNothing) {
  // What moved down is no bag handle at all: odd, BAG_NONE, or an address
  // where nothing lives.
  for (int32_t value : {7, BAG_NONE, 8, 0}) {
    SCOPED_TRACE("value " + std::to_string(value));
    VXHBAG holder = create(0);
    VXHBAG nested = create(0);
    addItem(holder, bagItem(nested));
    addItem(holder, integerItem(5, value));
    int32_t cc = -1, rc = -1;
    zaiFreeItem(recordOf(holder), 8, &cc, &rc);
    EXPECT_OK(cc, rc);
    ASSERT_EQ(itemCount(holder), 9);
    EXPECT_EQ(zaiItemAt(recordOf(holder), 8)->value.integer, value);
    ASSERT_EQ(liveBagRecords(), 2);
    expectNewBag(nested, 0);
    destroyInternal(nested);
    destroy(holder);
  }
}

// ----- System items -------------------------------------------------------------

TEST_F(BagTest, SystemItemsAreRebuiltFromTheFlagsOfTheMoment) {
  VXHBAG bag = create(0);
  zaiBAG *record = recordOf(bag);
  for (int32_t index = itemCount(bag) - 1; index >= 0; --index) {
    int32_t cc = -1, rc = -1;
    zaiFreeItem(record, index, &cc, &rc);
    ASSERT_OK(cc, rc);
  }
  ASSERT_EQ(itemCount(bag), 0);
  record->listForm = 1;
  record->commandBag = 1;
  int32_t cc = -1, rc = -1;
  zaiAddDefaultSystemItems(record, &cc, &rc);
  EXPECT_OK(cc, rc);
  expectNewBag(bag, BAG_OPT_LIST_FORM_ALLOWED | BAG_OPT_COMMAND_BAG);
  EXPECT_EQ(optionsItem(bag), 0x12);
  EXPECT_EQ(pcfTypeItem(bag), 1);
  destroy(bag);
}

TEST_F(BagTest, SystemItemsStopAtTheFirstStorageFailure) {
  // A vector with room for two: the third item needs the vector to grow,
  // and that memory is refused.
  VXHBAG bag = create(0);
  zaiBAG *record = recordOf(bag);
  zaiVECTOR *own = record->items;
  zaiVECTOR *small = nullptr;
  ASSERT_EQ(zaiVectorCreate(2, sizeof(zaiPROPERTY), &small), 0);
  record->items = small;
  svcInjectMemFailure(1);
  int32_t cc = -1, rc = -1;
  zaiAddDefaultSystemItems(record, &cc, &rc);
  svcInjectMemFailure(0);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_STORAGE_NOT_AVAILABLE);
  ASSERT_EQ(small->count, 2);
  EXPECT_EQ(zaiItemAt(record, 0)->selector, SEL_BAG_OPTIONS);
  EXPECT_EQ(zaiItemAt(record, 1)->selector, SEL_PCF_TYPE);
  EXPECT_EQ(zaiVectorDestroy(small), 0);
  record->items = own;
  destroy(bag);
}

// ----- Growth --------------------------------------------------------------------

TEST_F(BagTest, BagWithMoreThanFortyItemsGrowsAndDeletesCleanly) {
  VXHBAG bag = create(0);
  for (int32_t selector = 0; selector < 32; ++selector)
    addItem(bag, integerItem(selector, selector * 10));
  ASSERT_EQ(itemCount(bag), 40);
  EXPECT_EQ(recordOf(bag)->items->capacity, 40);
  addItem(bag, integerItem(32, 320));
  EXPECT_EQ(itemCount(bag), 41);
  EXPECT_EQ(recordOf(bag)->items->capacity, 80);
  EXPECT_EQ(vxtest::liveBlocks(), blocksAtStart_ + 3) << "the old block is released";
  EXPECT_EQ(liveBytes(), bagBytes(80));
  const std::vector<SystemItem> system = systemItemsFor(0);
  for (int32_t i = 0; i < 8; ++i) {
    EXPECT_EQ(zaiItemAt(recordOf(bag), i)->selector, system[static_cast<size_t>(i)].selector);
    EXPECT_EQ(zaiItemAt(recordOf(bag), i)->value.integer, system[static_cast<size_t>(i)].value);
  }
  for (int32_t i = 8; i < 41; ++i) {
    EXPECT_EQ(zaiItemAt(recordOf(bag), i)->selector, i - 8);
    EXPECT_EQ(zaiItemAt(recordOf(bag), i)->value.integer, (i - 8) * 10);
  }
  for (int32_t selector = 33; selector < 73; ++selector)
    addItem(bag, integerItem(selector, selector * 10));
  EXPECT_EQ(itemCount(bag), 81);
  EXPECT_EQ(recordOf(bag)->items->capacity, 160);
  destroy(bag);
  EXPECT_EQ(vxtest::liveBlocks(), blocksAtStart_);
}

TEST_F(BagTest, GrownBagOfStringsAndBagsDeletesCleanly) {
  VXHBAG bag = create(BAG_OPT_ADMIN_BAG);
  for (int32_t i = 0; i < 50; ++i) {
    if (i % 10 == 0)
      addItem(bag, bagItem(create(0)));
    else
      addItem(bag, stringItem(3000 + i, "grown"));
  }
  EXPECT_EQ(recordOf(bag)->items->capacity, 80);
  EXPECT_EQ(liveBagRecords(), 6);
  destroy(bag);
  EXPECT_EQ(vxtest::liveBlocks(), blocksAtStart_);
}

// ----- Storage failures ----------------------------------------------------------

TEST_F(BagTest, EveryAllocationOfCreationCanFail) {
  ASSERT_EQ(vxtest::liveBlocks(), 0) << "the only record left must be the kept one";
  int32_t failures = 0;
  for (int32_t nth = 1; nth <= 10; ++nth) {
    SCOPED_TRACE("allocation " + std::to_string(nth));
    VXHBAG handle = 0x0BADBAD0;
    int32_t cc = -1, rc = -1;
    svcInjectMemFailure(nth);
    vxCreateBag(BAG_OPT_ADMIN_BAG, &handle, &cc, &rc);
    svcInjectMemFailure(0);
    if (cc == CC_OK) {
      // No allocation left to fail: the bag is whole.
      expectNewBag(handle, BAG_OPT_ADMIN_BAG);
      destroy(handle);
      break;
    }
    ++failures;
    EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_STORAGE_NOT_AVAILABLE);
    EXPECT_EQ(handle, 0x0BADBAD0);
    int32_t blocks, bytes;
    svcMemLive(ZAI_COMPONENT, ZAIFN_zaiVectorCreate, &blocks, &bytes);
    EXPECT_EQ(blocks, 0) << "no part of a vector is left";
    svcMemLive(ZAI_COMPONENT, ZAIFN_zaiCreateBag, &blocks, &bytes);
    if (nth == 1) {
      // The record itself: nothing was got.
      EXPECT_EQ(blocks, 0);
    } else {
      // The vector's block or its record: the bag record is kept.
      EXPECT_EQ(blocks, 1);
      EXPECT_EQ(bytes, kBagBytes);
      ASSERT_EQ(vxtest::liveBlocks(), 1);
      EXPECT_TRUE(vxtest::releaseKeptBlock(ZAIFN_zaiCreateBag)) << "kept record not found";
    }
    EXPECT_EQ(vxtest::liveBlocks(), 0);
  }
  EXPECT_EQ(failures, 3) << "record, vector block, vector record";
}

TEST_F(BagTest, InternalCreationLeavesThePointerAloneOnFailure) {
  ASSERT_EQ(vxtest::liveBlocks(), 0);
  zaiBAG sentinel{};
  for (int32_t nth = 1; nth <= 3; ++nth) {
    SCOPED_TRACE("allocation " + std::to_string(nth));
    zaiBAG *bag = &sentinel;
    int32_t cc = -1, rc = -1;
    svcInjectMemFailure(nth);
    zaiCreateBag(BAG_OPT_SYSTEM_BAG, &bag, &cc, &rc);
    svcInjectMemFailure(0);
    EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_STORAGE_NOT_AVAILABLE);
    EXPECT_EQ(bag, &sentinel);
    if (nth > 1) {
      EXPECT_TRUE(vxtest::releaseKeptBlock(ZAIFN_zaiCreateBag));
    }
    EXPECT_EQ(vxtest::liveBlocks(), 0);
  }
}

// ----- Trace ------------------------------------------------------------------------

TEST_F(BagTest, CreateAndDeleteRecordTheirFramesInTheHistory) {
  svcInitialize(48, 1030, 0, 0, 0);
  const svcTHREADANCHOR *anchor = svcThreadAnchor();
  ASSERT_NE(anchor, nullptr);
  const int32_t depth = anchor->callDepth;

  int32_t start = anchor->historyIndex;
  VXHBAG bag = create(0);
  EXPECT_EQ(hexList(historySince(anchor, start)), hexList(createMarkers()));

  addItem(bag, integerItem(1, 1));
  start = anchor->historyIndex;
  destroy(bag);
  EXPECT_EQ(hexList(historySince(anchor, start)), hexList(deleteMarkers(9)));

  start = anchor->historyIndex;
  int32_t cc = -1, rc = -1;
  vxCreateBag(0x20, &bag, &cc, &rc);
  EXPECT_EQ(
      hexList(historySince(anchor, start)),
      hexList({entryOf(ZAIFN_zaiVXCreateBag), exitOf(ZAIFN_zaiVXCreateBag, RC_OPTIONS_ERROR)}));
  start = anchor->historyIndex;
  vxDeleteBag(&bag, &cc, &rc);
  EXPECT_EQ(
      hexList(historySince(anchor, start)),
      hexList({entryOf(ZAIFN_zaiVXDeleteBag), exitOf(ZAIFN_zaiVXDeleteBag, RC_BAG_HANDLE_ERROR)}));
  EXPECT_EQ(anchor->callDepth, depth);
}

TEST_F(BagTest, ApiTraceOfCreateAndDelete) {
  VXHBAG bag = BAG_NONE;
  std::vector<std::string> created, deleted;
  {
    vxtest::TraceCapture capture;
    int32_t cc = -1, rc = -1;
    vxCreateBag(BAG_OPT_ADMIN_BAG, &bag, &cc, &rc);
    EXPECT_OK(cc, rc);
    created = capture.lines();
  }
  const VXHBAG handle = bag;
  {
    vxtest::TraceCapture capture;
    int32_t cc = -1, rc = -1;
    vxDeleteBag(&bag, &cc, &rc);
    EXPECT_OK(cc, rc);
    deleted = capture.lines();
  }
  const std::string zero = vxtest::dataOf(0);
  EXPECT_EQ(created,
            (std::vector<std::string>{"__________", "vxCreateBag >>", "Options:", vxtest::dataOf(1),
                                      "Bag           : Output Parm", "Compcode      : Output Parm",
                                      "Reason        : Output Parm", "__________", "vxCreateBag <<",
                                      "Options       : Input  Parm", "Bag:", vxtest::dataOf(handle),
                                      "Compcode:", zero, "Reason:", zero}));
  EXPECT_EQ(deleted,
            (std::vector<std::string>{
                "__________", "vxDeleteBag >>", "Bag:", vxtest::dataOf(handle),
                "Compcode      : Output Parm", "Reason        : Output Parm", "__________",
                "vxDeleteBag <<", "Bag:", vxtest::dataOf(-1), "Compcode:", zero, "Reason:", zero}));
}

TEST_F(BagTest, ApiTraceShowsNullForMissingHandleVariables) {
  std::vector<std::string> created, deleted;
  {
    vxtest::TraceCapture capture;
    int32_t cc = -1, rc = -1;
    vxCreateBag(0, nullptr, &cc, &rc);
    created = capture.lines();
    vxtest::TraceCapture again;
    vxDeleteBag(nullptr, &cc, &rc);
    deleted = again.lines();
  }
  const std::string failed = vxtest::dataOf(CC_FAILED);
  const std::string handleError = vxtest::dataOf(RC_BAG_HANDLE_ERROR);
  EXPECT_EQ(created,
            (std::vector<std::string>{"__________", "vxCreateBag >>", "Options:", vxtest::dataOf(0),
                                      "Bag           : Output Parm", "Compcode      : Output Parm",
                                      "Reason        : Output Parm", "__________", "vxCreateBag <<",
                                      "Options       : Input  Parm", "Bag: NULL",
                                      "Compcode:", failed, "Reason:", handleError}));
  EXPECT_EQ(deleted, (std::vector<std::string>{
                         "__________", "vxDeleteBag >>", "Bag: NULL", "Compcode      : Output Parm",
                         "Reason        : Output Parm", "__________", "vxDeleteBag <<", "Bag: NULL",
                         "Compcode:", failed, "Reason:", handleError}));
}

TEST_F(BagTest, ParameterLinesOfTheInternalFunctions) {
  std::vector<vxtest::TraceLine> lines;
  VXHBAG bag = BAG_NONE;
  {
    vxtest::TraceCapture capture(0xC0000, true);
    bag = createInternal(BAG_OPT_CHECK_SELECTORS);
    addItem(bag, integerItem(1, 1));
    zaiBAG *record = recordOf(bag);
    int32_t cc = -1, rc = -1;
    zaiFreeItem(record, 8, &cc, &rc);
    zaiDeleteBag(&record, &cc, &rc);
    lines = capture.raw();
  }
  char text[64];
  std::vector<std::string> expected = {"options:8 "};
  std::snprintf(text, sizeof text, "pBag:%p", static_cast<void *>(recordOf(bag)));
  expected.push_back(text);
  std::snprintf(text, sizeof text, "pBag:%p, vectorIdx:%d", static_cast<void *>(recordOf(bag)), 8);
  expected.push_back(text);
  std::snprintf(text, sizeof text, "*ppBag:%p", static_cast<void *>(recordOf(bag)));
  expected.push_back(text);
  // zaiDeleteBag frees the eight system items from the last down.
  for (int32_t index = 7; index >= 0; --index) {
    std::snprintf(text, sizeof text, "pBag:%p, vectorIdx:%d", static_cast<void *>(recordOf(bag)),
                  index);
    expected.push_back(text);
  }
  std::vector<std::string> found;
  for (const vxtest::TraceLine &line : lines) {
    const bool bagFunction = line.function == ZAIFN_zaiCreateBag ||
                             line.function == ZAIFN_zaiDeleteBag ||
                             line.function == ZAIFN_zaiFreeItem;
    // Entry and exit lines start with a brace; the rest are parameter lines.
    if (!line.isData && bagFunction && line.text[0] != '{' && line.text[0] != '}')
      found.push_back(line.text);
  }
  EXPECT_EQ(found, expected);
}

// ----- Threads ------------------------------------------------------------------------

TEST_F(BagTest, BagsOnSeveralThreadsAtOnce) {
  constexpr int kThreads = 8;
  constexpr int kCycles = 500;
  struct Outcome {
    int failures = 0;
    std::string firstFailure;
    int32_t historyAdvance = -1;
    int32_t expectedAdvance = 0;
    uint32_t lastMarker = 0;
    int32_t callDepth = -1;
    bool keptBagIntact = false;
  };
  std::vector<Outcome> outcomes(kThreads);
  std::vector<int32_t> acceptedOptions;
  for (int32_t options = 0; options <= kAllOptions; ++options)
    if (!adminWithCommand(options)) acceptedOptions.push_back(options);

  svcInitialize(48, 1030, 0, 0, 0);
  const svcTHREADANCHOR *mainAnchor = svcThreadAnchor();
  const int32_t mainIndex = mainAnchor->historyIndex;

  auto work = [&](int thread) {
    Outcome &outcome = outcomes[static_cast<size_t>(thread)];
    auto fail = [&](const std::string &what) {
      if (outcome.failures++ == 0) outcome.firstFailure = what;
    };
    svcInitialize(48, 1030, 0, 0, 0);
    const svcTHREADANCHOR *anchor = svcThreadAnchor();
    if (!anchor) return fail("no thread anchor");
    // One bag lives through the whole run, marked with the thread's number.
    VXHBAG kept = BAG_NONE;
    int32_t cc = -1, rc = -1;
    vxCreateBag(0, &kept, &cc, &rc);
    if (cc != CC_OK) return fail("kept bag not created");
    zaiPROPERTY mark = integerItem(900, thread);
    zaiVectorAdd(recordOf(kept)->items, &mark);

    const int32_t start = anchor->historyIndex;
    int32_t written = 0;
    for (int i = 0; i < kCycles; ++i) {
      const int32_t options =
          acceptedOptions[static_cast<size_t>(thread + i) % acceptedOptions.size()];
      VXHBAG bag = BAG_NONE;
      vxCreateBag(options, &bag, &cc, &rc);
      if (cc != CC_OK) {
        fail("create " + std::to_string(i) + " gave " + std::to_string(rc));
        continue;
      }
      written += static_cast<int32_t>(createMarkers().size());
      if (optionsItem(bag) != optionsItemFor(flagsFor(options)))
        fail("options item of cycle " + std::to_string(i));
      zaiPROPERTY own = integerItem(901, thread * 100000 + i);
      zaiVectorAdd(recordOf(bag)->items, &own);
      written += 2;
      if (zaiItemAt(recordOf(bag), 8)->value.integer != thread * 100000 + i)
        fail("item of cycle " + std::to_string(i));
      vxDeleteBag(&bag, &cc, &rc);
      written += static_cast<int32_t>(deleteMarkers(9).size());
      if (cc != CC_OK || bag != -1) fail("delete " + std::to_string(i));
    }
    outcome.historyAdvance =
        (anchor->historyIndex - start + anchor->historySize) % anchor->historySize;
    outcome.expectedAdvance = written % anchor->historySize;

    outcome.keptBagIntact =
        itemCount(kept) == 9 && zaiItemAt(recordOf(kept), 8)->value.integer == thread;
    vxDeleteBag(&kept, &cc, &rc);
    if (cc != CC_OK) fail("kept bag not deleted");

    // A last call whose outcome differs between threads.
    VXHBAG none = BAG_NONE;
    if (thread % 2)
      vxDeleteBag(&none, &cc, &rc);
    else
      vxCreateBag(0x40, &none, &cc, &rc);
    outcome.lastMarker = latestMarker(anchor);
    outcome.callDepth = anchor->callDepth;
  };

  std::vector<std::thread> threads;
  for (int thread = 0; thread < kThreads; ++thread) threads.emplace_back(work, thread);
  for (std::thread &thread : threads) thread.join();

  for (int thread = 0; thread < kThreads; ++thread) {
    SCOPED_TRACE("thread " + std::to_string(thread));
    const Outcome &outcome = outcomes[static_cast<size_t>(thread)];
    EXPECT_EQ(outcome.failures, 0) << outcome.firstFailure;
    EXPECT_EQ(outcome.historyAdvance, outcome.expectedAdvance);
    EXPECT_TRUE(outcome.keptBagIntact);
    EXPECT_EQ(outcome.lastMarker, thread % 2 ? exitOf(ZAIFN_zaiVXDeleteBag, RC_BAG_HANDLE_ERROR)
                                             : exitOf(ZAIFN_zaiVXCreateBag, RC_OPTIONS_ERROR));
    EXPECT_EQ(outcome.callDepth, 0);
  }
  EXPECT_EQ(mainAnchor->historyIndex, mainIndex) << "other threads wrote in this one's history";
  EXPECT_EQ(vxtest::liveBlocks(), blocksAtStart_);
}

}  // namespace
