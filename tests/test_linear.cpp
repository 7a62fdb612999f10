// Conversions that cost a bounded amount per item: the writer answers the
// rules from an index of the bag, the reader remembers the selectors it has
// added under.  Both must give exactly what the rules give when asked item
// by item: these property tests build random bags and messages and compare
// the two ways, byte for byte and code for code, written flags included.
#include <chrono>
#include <cstring>
#include <fstream>
#include <iterator>
#include <random>
#include <string>
#include <vector>

#include "emulation.h"
#include "vxtest.h"

namespace {

using vxtest::Item;
using vxtest::itemsOf;

// Selectors a random bag draws from: a few plain ones that repeat, the
// attribute-list selectors, the inquiry selector, and leading parameters of
// the commands below.
constexpr int32_t kIntegerSelectors[] = {5, 6, 7, 20, 30, 1001, 1002, 1003, 1074, 1086, 1511};
constexpr int32_t kStringSelectors[] = {2012, 2015, 2016, 2029, 2030, 2032, 3001, 3501, 3502};
constexpr int32_t kCommands[] = {0, 2, 3, 7, 13, 25, 71, 74, 85};
constexpr int32_t kOptions[] = {
    BAG_OPT_LIST_FORM_ALLOWED,
    BAG_OPT_LIST_FORM_ALLOWED | BAG_OPT_REQUIRED_PARMS_FIRST,
    BAG_OPT_ADMIN_BAG,
    BAG_OPT_LIST_FORM_ALLOWED | BAG_OPT_CHECK_SELECTORS,
    BAG_OPT_REQUIRED_PARMS_FIRST,
    0,
};

class Linear : public vxtest::BagTest {
 protected:
  // A bag of random items: integers and strings under repeating selectors,
  // strings in two character sets, inquiry items in an administration bag,
  // and now and then a type that the selector's first occurrence refuses or
  // a nested bag.
  VXHBAG randomBag(std::mt19937 &random, int32_t items) {
    const int32_t options = kOptions[random() % std::size(kOptions)];
    VXHBAG bag = newBag(options);
    int32_t cc, rc;
    vxSetInteger(bag, SEL_COMMAND, 0, kCommands[random() % std::size(kCommands)], &cc, &rc);
    zaiBAG *record = zaiDecodeHandle(bag);
    for (int32_t n = 0; n < items; ++n) {
      const uint32_t draw = random() % 100;
      if (draw < 3) {
        // Strings added from here on carry another character set.
        const int32_t ccsids[] = {0, 437, 850};
        vxSetInteger(bag, SEL_CODED_CHAR_SET_ID, 0, ccsids[random() % 3], &cc, &rc);
      } else if (draw < 45) {
        const int32_t selector = kIntegerSelectors[random() % std::size(kIntegerSelectors)];
        zaiAddInteger(record, selector, static_cast<int32_t>(random() % 1000), &cc, &rc);
      } else if (draw < 85) {
        // Strings also under integer selectors, where an unchecked bag takes
        // them: a list then meets values of the other kind.
        const int32_t selector = random() % 8 == 0
                                     ? kIntegerSelectors[random() % std::size(kIntegerSelectors)]
                                     : kStringSelectors[random() % std::size(kStringSelectors)];
        const std::string value(random() % 9, static_cast<char>('a' + random() % 26));
        int32_t ccsid = 0;
        zaiInquireInteger(record, SEL_CODED_CHAR_SET_ID, 0, &ccsid, &cc, &rc);
        zaiAddString(record, selector, static_cast<int32_t>(value.size()), value.data(), ccsid, &cc,
                     &rc);
      } else if (draw < 98) {
        if (record->adminBag)
          vxAddInquiry(bag, 1 + static_cast<int32_t>(random() % 3000), &cc, &rc);
      } else if (random() % 4 == 0) {
        VXHBAG nested = BAG_NONE;
        vxCreateBag(0, &nested, &cc, &rc);
        zaiAddBag(record, 4001, nested, &cc, &rc);
      }
    }
    return bag;
  }
};

struct Written {
  int32_t cc = -1, rc = -1, dataLength = -99, msgType = -99;
  std::string format = "????????";
  std::vector<uint8_t> bytes;
  bool operator==(const Written &) const = default;
};

Written write(bool indexed, VXHBAG bag, int32_t command, int32_t bufferLength) {
  Written out;
  out.bytes.assign(bufferLength > 0 ? static_cast<size_t>(bufferLength) : 0, 0xEE);
  char format[ZAI_FORMAT_LENGTH];
  std::memcpy(format, out.format.data(), sizeof format);
  zaiBagToPCFMsgIndexed(indexed, zaiDecodeHandle(bag), command, bufferLength,
                        bufferLength > 0 ? reinterpret_cast<char *>(out.bytes.data()) : nullptr,
                        &out.dataLength, &out.msgType, format, &out.cc, &out.rc);
  out.format.assign(format, sizeof format);
  return out;
}

TEST_F(Linear, IndexedWriterWritesWhatTheRulesWrite) {
  std::mt19937 random(20261123);
  int32_t lists = 0, failures = 0;
  for (int32_t round = 0; round < 600; ++round) {
    SCOPED_TRACE("round " + std::to_string(round));
    const int32_t items = static_cast<int32_t>(random() % (round % 3 == 0 ? 160 : 50));
    VXHBAG bag = randomBag(random, items);
    const int32_t command = kCommands[random() % std::size(kCommands)];
    // The whole message, a measurement, and a buffer that is too short.
    const Written byRules = write(false, bag, command, 8192);
    EXPECT_EQ(write(true, bag, command, 8192), byRules);
    EXPECT_EQ(write(true, bag, command, 0), write(false, bag, command, 0));
    const int32_t shorter = byRules.dataLength / 2;
    EXPECT_EQ(write(true, bag, command, shorter), write(false, bag, command, shorter));
    failures += byRules.cc != CC_OK;
    lists += byRules.cc == CC_OK && zaiGetField(byRules.bytes.data(), 32) < items;
    if (HasFailure()) break;
  }
  // The random bags reach both lists and failures often.
  EXPECT_GT(lists, 100);
  EXPECT_GT(failures, 50);
}

// The writer's steps one item at a time, as the driver takes them, on two
// control areas: after each step both have the same codes, lengths and
// written flags.
TEST_F(Linear, IndexedListWriterFlagsWhatTheRulesFlag) {
  std::mt19937 random(7);
  for (int32_t round = 0; round < 300; ++round) {
    SCOPED_TRACE("round " + std::to_string(round));
    VXHBAG bag = randomBag(random, static_cast<int32_t>(random() % 120));
    zaiBAG *record = zaiDecodeHandle(bag);
    if (!record->listForm) continue;
    const int32_t count = record->items->count;
    const int32_t command = kCommands[random() % std::size(kCommands)];
    const size_t areaLength = offsetof(zaiPCFBUFFER, written) + static_cast<size_t>(count);
    std::vector<uint8_t> blocks[2];
    std::vector<uint8_t> buffers[2];
    zaiPCFBUFFER *areas[2];
    for (int32_t way = 0; way < 2; ++way) {
      blocks[way].assign(areaLength + sizeof(zaiPCFBUFFER), 0);
      buffers[way].assign(4096, 0xEE);
      areas[way] = reinterpret_cast<zaiPCFBUFFER *>(blocks[way].data());
      areas[way]->command = command;
      areas[way]->buffer = reinterpret_cast<char *>(buffers[way].data());
      areas[way]->bufferLength = 4096;
    }
    zaiBAGINDEX *index = zaiIndexBag(record, command);
    ASSERT_NE(index, nullptr);
    int32_t cc[2] = {0, 0}, rc[2] = {0, 0};
    for (int32_t at = 0; at < count && cc[0] == CC_OK; ++at) {
      const zaiPROPERTY *item = zaiItemAt(record, at);
      if (item->type == ITEM_TYPE_BAG || item->selector < 0 || *zaiWrittenFlag(areas[0], at))
        continue;
      zaiWriteSingleOrListPCFParmIndexed(item, areas[0], record, at, index, &cc[0], &rc[0]);
      zaiWriteSingleOrListPCFParmIndexed(item, areas[1], record, at, nullptr, &cc[1], &rc[1]);
      ASSERT_OUTCOME(cc[0], rc[0], cc[1], rc[1]) << "item " << at;
      ASSERT_EQ(areas[0]->usedLength, areas[1]->usedLength) << "item " << at;
      ASSERT_EQ(
          std::memcmp(&blocks[0][offsetof(zaiPCFBUFFER, written)],
                      &blocks[1][offsetof(zaiPCFBUFFER, written)], static_cast<size_t>(count)),
          0)
          << "written flags after item " << at;
    }
    zaiFreeBagIndex(index);
    EXPECT_EQ(buffers[0], buffers[1]);
  }
}

// ----- Reader ------------------------------------------------------------------------

int32_t roundUp(int32_t length) { return (length + 3) & ~3; }

// A random message of well-formed structures under a few selectors, so that
// selectors repeat, change type, and fall outside a checking bag's ranges.
std::vector<uint8_t> randomMessage(std::mt19937 &random) {
  std::vector<uint8_t> message;
  auto word = [&](int32_t value) {
    const size_t at = message.size();
    message.resize(at + 4);
    std::memcpy(&message[at], &value, 4);
  };
  const int32_t structures = static_cast<int32_t>(random() % 60);
  for (int32_t field : {1, 36, 1, 13, 1, 1, 0, 0, structures}) word(field);
  constexpr int32_t kSelectors[] = {1, 2, 3, 2001, 2002, 2003, 4500, 0};
  for (int32_t n = 0; n < structures; ++n) {
    const int32_t selector = kSelectors[random() % std::size(kSelectors)];
    const int32_t count = static_cast<int32_t>(random() % 4);
    const int32_t length = static_cast<int32_t>(random() % 6);
    switch (random() % 4) {
      case 0:
        for (int32_t field : {PCF_TYPE_INTEGER, 16, selector, n}) word(field);
        break;
      case 1:
        for (int32_t field : {PCF_TYPE_STRING, 20 + roundUp(length), selector, 437, length})
          word(field);
        message.resize(message.size() + static_cast<size_t>(roundUp(length)), 'a' + n % 26);
        break;
      case 2:
        for (int32_t field : {PCF_TYPE_INTEGER_LIST, 16 + 4 * count, selector, count}) word(field);
        for (int32_t i = 0; i < count; ++i) word(n * 10 + i);
        break;
      default:
        for (int32_t field :
             {PCF_TYPE_STRING_LIST, 24 + roundUp(count * length), selector, 850, count, length})
          word(field);
        message.resize(message.size() + static_cast<size_t>(roundUp(count * length)), 'A' + n % 26);
        break;
    }
  }
  return message;
}

// The rules as written: each structure through its exported reader, whose
// adds look through the bag.
void readByRules(const std::vector<uint8_t> &message, zaiBAG *bag, int32_t *cc, int32_t *rc) {
  zaiClearBag(bag, cc, rc);
  const char *bytes = reinterpret_cast<const char *>(message.data());
  if (*cc == CC_OK) zaiReadPCFHeader(bytes, bag, cc, rc);
  const int32_t structures = zaiGetField(bytes, 32);
  size_t offset = 36;
  for (int32_t n = 0; n < structures && *cc == CC_OK; ++n) {
    const char *structure = bytes + offset;
    switch (zaiGetField(structure, 0)) {
      case PCF_TYPE_INTEGER:
        zaiReadPCFIntParm(structure, bag, cc, rc);
        break;
      case PCF_TYPE_STRING:
        zaiReadPCFStringParm(structure, bag, cc, rc);
        break;
      case PCF_TYPE_INTEGER_LIST:
        zaiReadPCFIntListParm(structure, bag, cc, rc);
        break;
      default:
        zaiReadPCFStringListParm(structure, bag, cc, rc);
        break;
    }
    offset += static_cast<size_t>(zaiGetField(structure, 4));
  }
}

TEST_F(Linear, ReaderThatRemembersItsSelectorsReadsWhatTheRulesRead) {
  std::mt19937 random(11);
  int32_t inconsistent = 0, outOfRange = 0;
  for (int32_t round = 0; round < 1500; ++round) {
    SCOPED_TRACE("round " + std::to_string(round));
    const std::vector<uint8_t> message = randomMessage(random);
    const int32_t options = random() % 2 ? BAG_OPT_CHECK_SELECTORS : 0;
    VXHBAG fast = newBag(options), byRules = newBag(options);
    int32_t cc[2], rc[2];
    zaiPCFMsgToBag(static_cast<int32_t>(message.size()),
                   reinterpret_cast<const char *>(message.data()), zaiDecodeHandle(fast), &cc[0],
                   &rc[0]);
    readByRules(message, zaiDecodeHandle(byRules), &cc[1], &rc[1]);
    ASSERT_OUTCOME(cc[0], rc[0], cc[1], rc[1]);
    ASSERT_EQ(itemsOf(fast), itemsOf(byRules));
    inconsistent += rc[0] == RC_INCONSISTENT_ITEM_TYPE;
    outOfRange += rc[0] == RC_SELECTOR_OUT_OF_RANGE;
  }
  EXPECT_GT(inconsistent, 100);
  EXPECT_GT(outOfRange, 100);
}

// Without memory for its table the reader looks through the bag again, with
// the same outcome.
TEST_F(Linear, SelectorTableGivenUpKnowsNothing) {
  zaiSELECTORTYPES known = {};
  EXPECT_EQ(zaiKnownType(&known, 5), ZAI_FIRST_NONE);
  for (int32_t selector = 0; selector < 1000; ++selector)
    zaiLearnType(&known, selector, selector % 2 ? ITEM_TYPE_STRING : ITEM_TYPE_INTEGER);
  EXPECT_EQ(known.used, 1000);
  EXPECT_EQ(zaiKnownType(&known, 7), ITEM_TYPE_STRING);
  EXPECT_EQ(zaiKnownType(&known, 8), ITEM_TYPE_INTEGER);
  EXPECT_EQ(zaiKnownType(&known, 1000), ZAI_FIRST_NONE);
  known.lost = true;
  EXPECT_EQ(zaiKnownType(&known, 7), ZAI_FIRST_UNKNOWN);
  zaiForgetTypes(&known);
}

TEST_F(Linear, ReaderIntoABagThatKeptUserItemsLooksThemUp) {
  // A bag whose character set cannot be inquired is not cleared; what it
  // holds still decides the type of its selectors.
  VXHBAG bag = newBag(0);
  zaiBAG *record = zaiDecodeHandle(bag);
  int32_t cc, rc;
  zaiAddString(record, 7, 2, "ab", 0, &cc, &rc);
  ASSERT_OK(cc, rc);
  zaiDeleteItem(record, SEL_CODED_CHAR_SET_ID, 0, 1, &cc, &rc);
  ASSERT_OK(cc, rc);
  const int32_t message[] = {1, 36, 1, 0, 1, 1, 0, 0, 1, PCF_TYPE_INTEGER, 16, 7, 99};
  zaiPCFMsgToBag(sizeof message, reinterpret_cast<const char *>(message), record, &cc, &rc);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_INCONSISTENT_ITEM_TYPE);
}

// ----- Cost that does not grow with the items -----------------------------------------

// The message that once took many seconds: two lists of empty strings, the
// second claiming 1.5 million strings, read into a bag with list form and
// reordering under a block limit of 1 MiB (twenty thousand items), then
// written.
TEST_F(Linear, TwoLongListsOfEmptyStringsAreReadAndWrittenQuickly) {
  std::ifstream file(VX_FUZZ_CORPUS "/two_empty_string_lists", std::ios::binary);
  const std::vector<char> input{std::istreambuf_iterator<char>(file), {}};
  ASSERT_EQ(input.size(), 202u);
  ASSERT_EQ(input[0], 2) << "the fuzz target's bag of list form and reordering";
  VXHBAG bag = newBag(BAG_OPT_LIST_FORM_ALLOWED | BAG_OPT_REQUIRED_PARMS_FIRST);
  svcSetMemBlockLimit(1 << 20);
  const auto start = std::chrono::steady_clock::now();
  int32_t cc, rc, length = 0;
  vxBufferToBag(BAG_NONE, static_cast<int32_t>(input.size() - 1), input.data() + 1, bag, &cc, &rc);
  const int32_t readReason = rc;
  vxBagToBuffer(BAG_NONE, bag, 0, nullptr, &length, &cc, &rc);
  const double seconds =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  svcSetMemBlockLimit(0);
  EXPECT_EQ(readReason, RC_STORAGE_NOT_AVAILABLE) << "the items stop at the block limit";
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_BUFFER_LENGTH_ERROR);
  EXPECT_GT(vxtest::countOf(bag, SEL_ANY_USER_SELECTOR), 10000);
  EXPECT_LT(seconds, 0.1 * vxtest::slowdown());
}

}  // namespace
