// The PCF reader: zaiPCFMsgToBag and the structure readers behind it, reached
// directly and through vxBufferToBag, and the bag dump it writes on success.
// Messages are assembled by hand, word by word, so that every field can be
// made wrong on purpose.
#include <cstdio>
#include <cstring>
#include <ostream>
#include <string>
#include <vector>

#include "vxtest.h"

namespace {

using vxtest::countOf;
using vxtest::dataOf;
using vxtest::defaultItems;
using vxtest::integer;
using vxtest::Item;
using vxtest::itemsOf;
using vxtest::parmLines;
using vxtest::pointerText;
using vxtest::stringItem;
using vxtest::TraceCapture;
using vxtest::operator+;

constexpr uint32_t kDumpOptions = 0x20 | 0x400 | 0x80000;
constexpr uint32_t kDetailOptions = 0xC0000 | 0x1;

// Header fields a message carries into the bag's system items.
struct HeaderFields {
  int32_t type = PCF_TYPE_USER;
  int32_t command = 0;
  int32_t msgSeqNumber = 1;
  int32_t control = PCF_CONTROL_LAST;
  int32_t compCode = CC_OK;
  int32_t reason = RC_NONE;
};

// A PCF message assembled field by field.  Padding after string data is
// filled with '#', so that a reader that took it for data would show it.
class Message {
 public:
  Message &word(int32_t value) {
    const char *bytes = reinterpret_cast<const char *>(&value);
    bytes_.insert(bytes_.end(), bytes, bytes + sizeof value);
    return *this;
  }
  Message &text(const std::string &bytes) {
    bytes_.insert(bytes_.end(), bytes.begin(), bytes.end());
    return *this;
  }
  Message &fill(size_t count, char byte) {
    bytes_.insert(bytes_.end(), count, byte);
    return *this;
  }
  Message &padTo4() { return fill((4 - bytes_.size() % 4) % 4, '#'); }

  Message &header(int32_t parameterCount, const HeaderFields &fields = {}) {
    return word(fields.type)
        .word(36)
        .word(1)
        .word(fields.command)
        .word(fields.msgSeqNumber)
        .word(fields.control)
        .word(fields.compCode)
        .word(fields.reason)
        .word(parameterCount);
  }
  Message &integerParm(int32_t parameter, int32_t value) {
    return word(PCF_TYPE_INTEGER).word(16).word(parameter).word(value);
  }
  Message &stringParm(int32_t parameter, int32_t ccsid, const std::string &value) {
    const auto length = static_cast<int32_t>(value.size());
    return word(PCF_TYPE_STRING)
        .word(zaiRoundUp4(20 + length))
        .word(parameter)
        .word(ccsid)
        .word(length)
        .text(value)
        .padTo4();
  }
  Message &integerList(int32_t parameter, const std::vector<int32_t> &values) {
    const auto count = static_cast<int32_t>(values.size());
    word(PCF_TYPE_INTEGER_LIST).word(16 + 4 * count).word(parameter).word(count);
    for (int32_t value : values) word(value);
    return *this;
  }
  // Every string is padded with zeros to the list's string length.
  Message &stringList(int32_t parameter, int32_t ccsid, int32_t stringLength,
                      const std::vector<std::string> &strings) {
    const auto count = static_cast<int32_t>(strings.size());
    word(PCF_TYPE_STRING_LIST)
        .word(zaiRoundUp4(24 + count * stringLength))
        .word(parameter)
        .word(ccsid)
        .word(count)
        .word(stringLength);
    for (const std::string &value : strings) {
      text(value);
      fill(static_cast<size_t>(stringLength) - value.size(), '\0');
    }
    return padTo4();
  }

  // Overwrites the word at a byte offset.
  Message &put(size_t offset, int32_t value) {
    std::memcpy(bytes_.data() + offset, &value, sizeof value);
    return *this;
  }
  const char *data() const { return bytes_.data(); }
  int32_t length() const { return static_cast<int32_t>(bytes_.size()); }
  size_t size() const { return bytes_.size(); }

 private:
  std::vector<char> bytes_;
};

// A string item as stored: bytes and coded character set id.
struct StoredString {
  int32_t selector;
  std::string text;
  int32_t ccsid;
  bool operator==(const StoredString &) const = default;
};
std::ostream &operator<<(std::ostream &out, const StoredString &item) {
  return out << "{" << item.selector << ", " << dataOf(item.text.data(), item.text.size())
             << ", ccsid " << item.ccsid << "}";
}

// The string items of a bag, read from its record.
std::vector<StoredString> stringsOf(VXHBAG bag) {
  std::vector<StoredString> out;
  const zaiBAG *record = zaiDecodeHandle(bag);
  for (int32_t index = 0; index < record->items->count; ++index) {
    const zaiPROPERTY *item = zaiItemAt(record, index);
    if (item->type != ITEM_TYPE_STRING) continue;
    std::string text;
    if (item->stringLength > 0)
      text.assign(item->value.string, static_cast<size_t>(item->stringLength));
    out.push_back({item->selector, text, item->codedCharSetId});
  }
  return out;
}

std::vector<Item> userItemsOf(VXHBAG bag) {
  std::vector<Item> out;
  for (const Item &item : itemsOf(bag))
    if (item.selector >= 0) out.push_back(item);
  return out;
}

// The system items of a bag just filled from a header, in stored order.
std::vector<Item> systemItems(int32_t bagOptions, const HeaderFields &fields, int32_t ccsid = 0) {
  return {integer(SEL_BAG_OPTIONS, bagOptions),
          integer(SEL_PCF_TYPE, fields.type),
          integer(SEL_CODED_CHAR_SET_ID, ccsid),
          integer(SEL_COMMAND, fields.command),
          integer(SEL_MSG_SEQ_NUMBER, fields.msgSeqNumber),
          integer(SEL_CONTROL, fields.control),
          integer(SEL_COMP_CODE, fields.compCode),
          integer(SEL_REASON, fields.reason)};
}

// The items of a new bag with its character set changed.
std::vector<Item> clearedItems(int32_t bagOptions, int32_t pcfType, int32_t ccsid) {
  std::vector<Item> items = defaultItems(bagOptions, pcfType);
  items[2] = integer(SEL_CODED_CHAR_SET_ID, ccsid);
  return items;
}

// The data lines written under one function.
std::vector<std::string> dataLinesOf(const TraceCapture &trace, int32_t function) {
  std::vector<std::string> out;
  for (const vxtest::TraceLine &line : trace.raw())
    if (line.isData && line.function == function) out.push_back(vxtest::render(line));
  return out;
}

bool isFrameLine(const vxtest::TraceLine &line) {
  return !line.isData && (line.text.rfind("{ ", 0) == 0 || line.text.rfind("} ", 0) == 0);
}

// The bag dump written under one function: from "Bag Details" to the last
// item line (and its data), frame lines left out.
std::vector<std::string> dumpOf(const TraceCapture &trace, int32_t function) {
  std::vector<std::string> out;
  bool inDump = false;
  for (const vxtest::TraceLine &line : trace.raw()) {
    if (line.function != function || isFrameLine(line)) continue;
    if (!line.isData && line.text.rfind("Bag Details ", 0) == 0) inDump = true;
    const bool dumpLine = line.isData || line.text.rfind("Bag Details ", 0) == 0 ||
                          line.text.rfind("Size:", 0) == 0 ||
                          line.text == "Index: Selector: Value:" || line.text.rfind("  ", 0) == 0;
    if (inDump && !dumpLine) break;
    if (inDump) out.push_back(vxtest::render(line));
  }
  return out;
}

std::string formatted(const char *format, int32_t index, int32_t selector, int32_t value) {
  char line[128];
  std::snprintf(line, sizeof line, format, index, selector, value);
  return line;
}
std::string integerLine(int32_t index, int32_t selector, int32_t value) {
  return formatted("  %-2d     %-4d     (%d)", index, selector, value);
}
std::string stringLine(int32_t index, int32_t selector, int32_t ccsid) {
  return formatted("  %-2d     %-4d      ccsid: %d   String->", index, selector, ccsid);
}

// A copy of the message ending on the last readable byte before the page
// that cannot be read.
const char *atEdge(const vxtest::PageEdge &edge, const Message &message) {
  char *start = edge.tail(message.size());
  std::memcpy(start, message.data(), message.size());
  return start;
}

class ReaderTest : public vxtest::BagTest {
 protected:
  // Reads a message through the reader itself.
  static void read(VXHBAG bag, const char *bytes, int32_t length, int32_t *cc, int32_t *rc) {
    *cc = -1;
    *rc = -1;
    zaiPCFMsgToBag(length, bytes, zaiDecodeHandle(bag), cc, rc);
  }
  static void read(VXHBAG bag, const Message &message, int32_t *cc, int32_t *rc) {
    read(bag, message.data(), message.length(), cc, rc);
  }

  static void setInteger(VXHBAG bag, int32_t selector, int32_t value) {
    int32_t cc = -1, rc = -1;
    vxSetInteger(bag, selector, ITEM_INDEX_NONE, value, &cc, &rc);
    EXPECT_OK(cc, rc);
  }
  static void addInteger(VXHBAG bag, int32_t selector, int32_t value) {
    int32_t cc = -1, rc = -1;
    vxAddInteger(bag, selector, value, &cc, &rc);
    EXPECT_OK(cc, rc);
  }
  static void addString(VXHBAG bag, int32_t selector, const std::string &value) {
    int32_t cc = -1, rc = -1;
    vxAddString(bag, selector, static_cast<int32_t>(value.size()), value.data(), &cc, &rc);
    EXPECT_OK(cc, rc);
  }

  // Writes the source bag with vxBagToBuffer and reads the message back into
  // the target with vxBufferToBag.
  static void roundTrip(VXHBAG source, VXHBAG target) {
    std::vector<char> buffer(8192);
    int32_t length = 0, cc = -1, rc = -1;
    vxBagToBuffer(BAG_NONE, source, static_cast<int32_t>(buffer.size()), buffer.data(), &length,
                  &cc, &rc);
    ASSERT_OK(cc, rc);
    vxBufferToBag(BAG_NONE, length, buffer.data(), target, &cc, &rc);
    ASSERT_OK(cc, rc);
  }

  // A message of each structure type, one after the other.
  static Message everyStructure() {
    return Message()
        .header(4)
        .integerParm(5, 42)
        .stringParm(7, 850, "AB")
        .integerList(9, {1, -2})
        .stringList(11, 437, 3, {"x", "yz"});
  }
};

// ----- Header ----------------------------------------------------------------------

TEST_F(ReaderTest, ShortMessageIsRefusedAfterTheBagWasCleared) {
  vxtest::ProtectedPages pages;
  for (int32_t ccsid : {1208, -1, 437}) {
    VXHBAG bag = newBag(0);
    // A bag whose character set is -1 takes no strings from its caller.
    if (ccsid != -1) addString(bag, 2, "text");
    setInteger(bag, SEL_CODED_CHAR_SET_ID, ccsid);
    setInteger(bag, SEL_COMMAND, 5);
    setInteger(bag, SEL_PCF_TYPE, PCF_TYPE_EVENT);
    addInteger(bag, 1, 10);
    int32_t cc, rc;
    Message full = Message().header(0);
    // 35 bytes: one short of a header.  Nothing of it is looked at.
    read(bag, full.data(), 35, &cc, &rc);
    EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_PCF_FORMAT_ERROR);
    EXPECT_EQ(itemsOf(bag), clearedItems(0, PCF_TYPE_USER, ccsid)) << "ccsid " << ccsid;

    // An empty message at an address that cannot be read.
    addInteger(bag, 1, 10);
    read(bag, static_cast<const char *>(pages.none), 0, &cc, &rc);
    EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_PCF_FORMAT_ERROR);
    EXPECT_EQ(itemsOf(bag), clearedItems(0, PCF_TYPE_USER, ccsid)) << "ccsid " << ccsid;
  }
}

TEST_F(ReaderTest, CharacterSetZeroIsNotSetBack) {
  VXHBAG bag = newBag(0);
  addInteger(bag, 1, 10);
  Message shortMessage = Message().header(0);
  int32_t cc, rc;
  {
    TraceCapture trace(kDetailOptions, true);
    read(bag, shortMessage.data(), 35, &cc, &rc);
    EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_PCF_FORMAT_ERROR);
    EXPECT_EQ(parmLines(trace, ZAIFN_zaiSetInteger), std::vector<std::string>{});
  }
  setInteger(bag, SEL_CODED_CHAR_SET_ID, 1208);
  {
    TraceCapture trace(kDetailOptions, true);
    read(bag, shortMessage.data(), 35, &cc, &rc);
    EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_PCF_FORMAT_ERROR);
    EXPECT_EQ(parmLines(trace, ZAIFN_zaiSetInteger),
              std::vector<std::string>{"pBag:" + pointerText(bag) + ", selector:-1, itemIndex:0"});
  }
  EXPECT_EQ(itemsOf(bag), clearedItems(0, PCF_TYPE_USER, 1208));
}

TEST_F(ReaderTest, CharacterSetSurvivesASuccessfulRead) {
  VXHBAG bag = newBag(BAG_OPT_CHECK_SELECTORS);
  setInteger(bag, SEL_CODED_CHAR_SET_ID, 1208);
  const HeaderFields fields{.type = PCF_TYPE_RESPONSE, .command = 13};
  int32_t cc, rc;
  read(bag, Message().header(1, fields).integerParm(20, 3), &cc, &rc);
  EXPECT_OK(cc, rc);
  EXPECT_EQ(itemsOf(bag),
            systemItems(BAG_OPT_CHECK_SELECTORS, fields, 1208) + std::vector{integer(20, 3)});
}

TEST_F(ReaderTest, HeaderWithWrongLengthVersionOrCountIsRefused) {
  // The header is refused although what follows it would be valid.
  const HeaderFields fields{.type = PCF_TYPE_COMMAND, .command = 77, .msgSeqNumber = 9};
  struct Case {
    const char *what;
    Message message;
  } cases[] = {
      {"version 2", Message().header(1, fields).integerParm(5, 1).put(8, 2)},
      {"version 0", Message().header(1, fields).integerParm(5, 1).put(8, 0)},
      {"structure length 40", Message().header(1, fields).word(0).integerParm(5, 1).put(4, 40)},
      {"structure length 32", Message().header(1, fields).integerParm(5, 1).put(4, 32)},
      {"parameter count -1", Message().header(-1, fields).integerParm(5, 1)},
      {"parameter count INT32_MIN", Message().header(INT32_MIN, fields)},
  };
  for (const Case &test : cases) {
    VXHBAG bag = newBag(0);
    setInteger(bag, SEL_CODED_CHAR_SET_ID, 819);
    addInteger(bag, 3, 3);
    int32_t cc, rc;
    read(bag, test.message, &cc, &rc);
    EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_PCF_FORMAT_ERROR) << test.what;
    // Cleared, and none of the header's fields taken.
    EXPECT_EQ(itemsOf(bag), clearedItems(0, PCF_TYPE_USER, 819)) << test.what;
  }
}

TEST_F(ReaderTest, HeaderFieldsOtherThanLengthVersionAndCountAreNotChecked) {
  const HeaderFields headers[] = {
      {.type = 0, .command = 0, .msgSeqNumber = 0, .control = 0, .compCode = 0, .reason = 0},
      {.type = -1, .command = -5, .msgSeqNumber = -1, .control = 7, .compCode = 2, .reason = 2303},
      {.type = PCF_TYPE_RESPONSE, .command = 42, .msgSeqNumber = 3, .control = 0},
      {.type = PCF_TYPE_EVENT, .command = 99999, .compCode = 1, .reason = 3008},
      {.type = 12345,
       .command = INT32_MIN,
       .msgSeqNumber = INT32_MAX,
       .control = INT32_MIN,
       .compCode = INT32_MAX,
       .reason = -1},
  };
  for (const HeaderFields &fields : headers) {
    VXHBAG bag = newBag(BAG_OPT_ADMIN_BAG);
    addInteger(bag, 3, 3);
    int32_t cc, rc;
    read(bag, Message().header(0, fields), &cc, &rc);
    EXPECT_OK(cc, rc) << "type " << fields.type;
    EXPECT_EQ(itemsOf(bag), systemItems(15, fields)) << "type " << fields.type;
  }
}

TEST_F(ReaderTest, ParameterCountZeroIgnoresTrailingBytes) {
  const HeaderFields fields{.type = PCF_TYPE_RESPONSE, .command = 7, .msgSeqNumber = 2};
  VXHBAG bag = newBag(0);
  addString(bag, 2, "gone");
  int32_t cc, rc;
  read(bag, Message().header(0, fields).integerParm(5, 1).fill(7, '\xFF'), &cc, &rc);
  EXPECT_OK(cc, rc);
  EXPECT_EQ(itemsOf(bag), systemItems(0, fields));
}

TEST_F(ReaderTest, ParameterCountBeyondTheStructuresIsRefused) {
  VXHBAG bag = newBag(0);
  int32_t cc, rc;
  // Nothing after the one structure.
  read(bag, Message().header(2).integerParm(5, 1), &cc, &rc);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_PCF_FORMAT_ERROR);
  EXPECT_EQ(userItemsOf(bag), std::vector{integer(5, 1)});
  // Zeros after it: read as a structure of type 0.
  read(bag, Message().header(3).integerParm(5, 2).fill(16, '\0'), &cc, &rc);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_PCF_FORMAT_ERROR);
  EXPECT_EQ(userItemsOf(bag), std::vector{integer(5, 2)});
}

TEST_F(ReaderTest, BytesAfterTheLastCountedStructureAreIgnored) {
  VXHBAG bag = newBag(0);
  int32_t cc, rc;
  read(
      bag,
      Message().header(1).integerParm(5, 1).word(99).word(-4).fill(3, '\xEE').stringParm(6, 0, "x"),
      &cc, &rc);
  EXPECT_OK(cc, rc);
  EXPECT_EQ(userItemsOf(bag), std::vector{integer(5, 1)});
}

// ----- Structure validation ----------------------------------------------------------

TEST_F(ReaderTest, UnknownStructureTypesAreRefused) {
  VXHBAG bag = newBag(0);
  for (int32_t type : {0, 1, 2, 7, 8, -1, INT32_MIN}) {
    int32_t cc, rc;
    // A known structure first: its item stays.
    read(bag, Message().header(2).integerParm(5, 1).word(type).word(16).word(6).word(0), &cc, &rc);
    EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_PCF_FORMAT_ERROR) << "type " << type;
    EXPECT_EQ(userItemsOf(bag), std::vector{integer(5, 1)}) << "type " << type;
  }
}

TEST_F(ReaderTest, StructureReachingPastTheMessageIsRefused) {
  const Message messages[] = {
      Message().header(1).integerParm(5, 1),
      Message().header(1).stringParm(5, 0, "abcdefgh"),
      Message().header(1).integerList(5, {1, 2}),
      Message().header(1).stringList(5, 0, 4, {"ab", "cd"}),
  };
  VXHBAG bag = newBag(0);
  for (const Message &message : messages) {
    int32_t cc, rc;
    // Whole, it reads; four bytes short, its end lies past the message.
    read(bag, message, &cc, &rc);
    EXPECT_OK(cc, rc);
    read(bag, message.data(), message.length() - 4, &cc, &rc);
    EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_PCF_FORMAT_ERROR);
    EXPECT_EQ(userItemsOf(bag), std::vector<Item>{});
  }
  // A string structure that claims more than the message holds, although
  // its string would fit.
  int32_t cc, rc;
  read(bag, Message().header(1).stringParm(5, 0, "abcd").put(36 + 4, 40).word(0), &cc, &rc);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_PCF_FORMAT_ERROR);
  EXPECT_EQ(userItemsOf(bag), std::vector<Item>{});
}

TEST_F(ReaderTest, IntegerStructureIsExactlySixteenBytes) {
  VXHBAG bag = newBag(0);
  for (int32_t length : {20, 12, 0, 15, 32, -16}) {
    int32_t cc, rc;
    // Room for the claimed length, and a valid structure after it.
    Message message = Message().header(2).integerParm(5, 1).put(36 + 4, length).fill(16, '\0');
    message.integerParm(6, 2);
    read(bag, message, &cc, &rc);
    EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_PCF_FORMAT_ERROR) << "length " << length;
    EXPECT_EQ(userItemsOf(bag), std::vector<Item>{}) << "length " << length;
  }
}

TEST_F(ReaderTest, StringStructureChecks) {
  VXHBAG bag = newBag(0);
  struct Case {
    const char *what;
    Message message;
  } cases[] = {
      {"length not a multiple of 4",
       Message().header(1).stringParm(5, 0, "ab").put(36 + 4, 22).fill(4, '#')},
      {"negative string length", Message().header(1).stringParm(5, 0, "").put(36 + 16, -1)},
      {"string longer than the structure",
       Message().header(1).stringParm(5, 0, "abcd").put(36 + 16, 5)},
      {"string length INT32_MAX", Message().header(1).stringParm(5, 0, "").put(36 + 16, INT32_MAX)},
      {"structure length below 20", Message().header(1).stringParm(5, 0, "abcd").put(36 + 4, 16)},
  };
  for (const Case &test : cases) {
    int32_t cc, rc;
    read(bag, test.message, &cc, &rc);
    EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_PCF_FORMAT_ERROR) << test.what;
    EXPECT_EQ(userItemsOf(bag), std::vector<Item>{}) << test.what;
  }
  // The bounds themselves are accepted.
  int32_t cc, rc;
  read(bag, Message().header(2).stringParm(5, 0, "abcd").stringParm(6, 0, ""), &cc, &rc);
  EXPECT_OK(cc, rc);
  EXPECT_EQ(userItemsOf(bag), (std::vector{stringItem(5, "abcd"), stringItem(6, "")}));
}

TEST_F(ReaderTest, StringStructureSurplusIsSkipped) {
  VXHBAG bag = newBag(0);
  // Twelve bytes of surplus that look like an integer structure: the next
  // structure starts after them, so they are never read as one.
  Message message = Message().header(2).stringParm(5, 0, "abc");
  message.put(36 + 4, 24 + 12).word(PCF_TYPE_INTEGER).word(16).word(99).integerParm(6, 2);
  int32_t cc, rc;
  read(bag, message, &cc, &rc);
  EXPECT_OK(cc, rc);
  EXPECT_EQ(userItemsOf(bag), (std::vector{stringItem(5, "abc"), integer(6, 2)}));
}

TEST_F(ReaderTest, IntegerListChecks) {
  VXHBAG bag = newBag(0);
  struct Case {
    const char *what;
    Message message;
  } cases[] = {
      {"negative count", Message().header(1).integerList(5, {}).put(36 + 12, -1)},
      {"values beyond the structure", Message().header(1).integerList(5, {1, 2, 3}).put(40, 24)},
      {"length not a multiple of 4",
       Message().header(1).integerList(5, {1, 2, 3}).put(40, 30).fill(4, '\0')},
      // 16 + 4 × count does not fit in 32 bits.
      {"huge count", Message().header(1).integerList(5, {1}).put(36 + 12, 0x40000001)},
      {"structure length below 16", Message().header(1).integerList(5, {1}).put(40, 12)},
  };
  for (const Case &test : cases) {
    int32_t cc, rc;
    read(bag, test.message, &cc, &rc);
    EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_PCF_FORMAT_ERROR) << test.what;
    EXPECT_EQ(userItemsOf(bag), std::vector<Item>{}) << test.what;
  }
  // Surplus is accepted and skipped.
  Message message = Message().header(2).integerList(5, {1, 2}).put(40, 32).word(7).word(8);
  message.integerParm(6, 3);
  int32_t cc, rc;
  read(bag, message, &cc, &rc);
  EXPECT_OK(cc, rc);
  EXPECT_EQ(userItemsOf(bag), (std::vector{integer(5, 1), integer(5, 2), integer(6, 3)}));
}

TEST_F(ReaderTest, StringListChecks) {
  VXHBAG bag = newBag(0);
  const std::vector<std::string> three = {"abc", "def", "ghi"};
  struct Case {
    const char *what;
    Message message;
  } cases[] = {
      {"negative count", Message().header(1).stringList(5, 0, 4, {}).put(36 + 16, -1)},
      {"negative string length", Message().header(1).stringList(5, 0, 0, {}).put(36 + 20, -1)},
      {"strings beyond the structure", Message().header(1).stringList(5, 0, 8, three).put(40, 44)},
      {"length not a multiple of 4",
       Message().header(1).stringList(5, 0, 5, three).put(40, 42).fill(4, '\0')},
      // count × string length does not fit in 32 bits.
      {"huge count and length",
       Message().header(1).stringList(5, 0, 0, {}).put(36 + 16, 0x10000).put(36 + 20, 0x10000)},
      {"structure length below 24", Message().header(1).stringList(5, 0, 0, {}).put(40, 20)},
  };
  for (const Case &test : cases) {
    int32_t cc, rc;
    read(bag, test.message, &cc, &rc);
    EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_PCF_FORMAT_ERROR) << test.what;
    EXPECT_EQ(userItemsOf(bag), std::vector<Item>{}) << test.what;
  }
  // Surplus is accepted and skipped: two strings of 3 take 30 bytes of 40.
  Message message = Message().header(2).stringList(5, 0, 3, {"ab", "cde"});
  message.put(40, 40).fill(8, '#').integerParm(6, 3);
  int32_t cc, rc;
  read(bag, message, &cc, &rc);
  EXPECT_OK(cc, rc);
  EXPECT_EQ(userItemsOf(bag), (std::vector{stringItem(5, std::string("ab\0", 3)),
                                           stringItem(5, "cde"), integer(6, 3)}));
}

TEST_F(ReaderTest, NoByteBeyondTheMessageIsRead) {
  vxtest::PageEdge edge;
  ASSERT_NE(edge.base, nullptr);
  VXHBAG bag = newBag(0);
  struct Case {
    const char *what;
    Message message;
  } cases[] = {
      {"count 1, nothing after the header", Message().header(1)},
      {"only the structure type", Message().header(1).word(PCF_TYPE_INTEGER)},
      {"type and length", Message().header(1).word(PCF_TYPE_INTEGER).word(16)},
      // The structure length claims no more than the message holds, but the
      // fixed part of its type would reach past it.
      {"integer claiming 12", Message().header(1).word(PCF_TYPE_INTEGER).word(12).word(5)},
      {"string claiming 16", Message().header(1).word(PCF_TYPE_STRING).word(16).word(5).word(0)},
      {"integer list claiming 12",
       Message().header(1).word(PCF_TYPE_INTEGER_LIST).word(12).word(5)},
      {"string list claiming 20",
       Message().header(1).word(PCF_TYPE_STRING_LIST).word(20).word(5).word(0).word(1)},
      {"second structure missing", Message().header(2).integerParm(5, 1)},
      {"second structure cut", Message().header(2).integerParm(5, 1).word(PCF_TYPE_STRING)},
  };
  for (const Case &test : cases) {
    int32_t cc, rc;
    read(bag, atEdge(edge, test.message), test.message.length(), &cc, &rc);
    EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_PCF_FORMAT_ERROR) << test.what;
  }
  int32_t cc, rc;
  Message header = Message().header(0);
  read(bag, atEdge(edge, header) + 1, 35, &cc, &rc);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_PCF_FORMAT_ERROR);

  // A message that ends on the last readable byte is read to its end.
  Message whole = everyStructure();
  read(bag, atEdge(edge, whole), whole.length(), &cc, &rc);
  EXPECT_OK(cc, rc);
  Message last = Message().header(1).stringParm(5, 0, "abcd");
  vxBufferToBag(BAG_NONE, last.length(), atEdge(edge, last), bag, &cc, &rc);
  EXPECT_OK(cc, rc);
  EXPECT_EQ(userItemsOf(bag), std::vector{stringItem(5, "abcd")});
}

// ----- Parameter identifiers -------------------------------------------------------

TEST_F(ReaderTest, NegativeIdentifierIsOutOfRangeForEveryType) {
  VXHBAG bag = newBag(0);
  for (int32_t parameter : {-1, SEL_CONTROL, SEL_BAG_OPTIONS, SEL_ANY_SELECTOR, INT32_MIN}) {
    const Message messages[] = {
        Message().header(1).integerParm(parameter, 1),
        Message().header(1).stringParm(parameter, 0, "ab"),
        Message().header(1).integerList(parameter, {1, 2}),
        Message().header(1).stringList(parameter, 0, 2, {"ab"}),
    };
    for (const Message &message : messages) {
      int32_t cc, rc;
      read(bag, message, &cc, &rc);
      EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_SELECTOR_OUT_OF_RANGE) << "identifier " << parameter;
      // Nothing added, and no system item changed.
      EXPECT_EQ(itemsOf(bag), defaultItems(0, PCF_TYPE_USER)) << "identifier " << parameter;
    }
  }
}

TEST_F(ReaderTest, CheckingBagsRefuseIdentifiersOutsideTheTypesRange) {
  for (int32_t options : {BAG_OPT_CHECK_SELECTORS, BAG_OPT_ADMIN_BAG}) {
    VXHBAG bag = newBag(options);
    const Message refused[] = {
        Message().header(1).integerParm(2500, 1),
        Message().header(1).integerParm(0, 1),
        Message().header(1).integerParm(2001, 1),
        Message().header(1).integerList(2500, {1, 2}),
        Message().header(1).stringParm(50, 0, "ab"),
        Message().header(1).stringParm(4001, 0, "ab"),
        Message().header(1).stringParm(2000, 0, "ab"),
        Message().header(1).stringList(50, 0, 2, {"ab", "cd"}),
    };
    for (const Message &message : refused) {
      int32_t cc, rc;
      read(bag, message, &cc, &rc);
      EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_SELECTOR_OUT_OF_RANGE) << "options " << options;
      EXPECT_EQ(userItemsOf(bag), std::vector<Item>{}) << "options " << options;
    }
    // The ends of each range are accepted.
    int32_t cc, rc;
    read(bag,
         Message()
             .header(6)
             .integerParm(1, 1)
             .integerParm(2000, 2)
             .integerList(1999, {3})
             .stringParm(2001, 0, "a")
             .stringParm(4000, 0, "b")
             .stringList(3999, 0, 1, {"c"}),
         &cc, &rc);
    EXPECT_OK(cc, rc) << "options " << options;
    EXPECT_EQ(userItemsOf(bag),
              (std::vector{integer(1, 1), integer(2000, 2), integer(1999, 3), stringItem(2001, "a"),
                           stringItem(4000, "b"), stringItem(3999, "c")}));
  }
}

TEST_F(ReaderTest, UncheckedBagAcceptsAnyNonNegativeIdentifier) {
  VXHBAG bag = newBag(BAG_OPT_LIST_FORM_ALLOWED | BAG_OPT_REQUIRED_PARMS_FIRST);
  int32_t cc, rc;
  read(bag,
       Message()
           .header(6)
           .integerParm(2500, 1)
           .integerParm(0, 2)
           .integerList(INT32_MAX, {3})
           .stringParm(50, 0, "a")
           .stringParm(0x7FFF0000, 0, "b")
           .stringList(1, 0, 1, {"c"}),
       &cc, &rc);
  EXPECT_OK(cc, rc);
  EXPECT_EQ(userItemsOf(bag),
            (std::vector{integer(2500, 1), integer(0, 2), integer(INT32_MAX, 3),
                         stringItem(50, "a"), stringItem(0x7FFF0000, "b"), stringItem(1, "c")}));
}

// ----- Items -----------------------------------------------------------------------

TEST_F(ReaderTest, IntegerStructureGivesOneItem) {
  VXHBAG bag = newBag(0);
  int32_t cc, rc;
  read(bag,
       Message()
           .header(4)
           .integerParm(5, INT32_MIN)
           .integerParm(5, INT32_MAX)
           .integerParm(6, 0)
           .integerParm(5, -1),
       &cc, &rc);
  EXPECT_OK(cc, rc);
  EXPECT_EQ(itemsOf(bag), (defaultItems(0, PCF_TYPE_USER) +
                           std::vector{integer(5, INT32_MIN), integer(5, INT32_MAX), integer(6, 0),
                                       integer(5, -1)}));
}

TEST_F(ReaderTest, StringStructureGivesItsExactBytesAndCharacterSet) {
  VXHBAG bag = newBag(0);
  setInteger(bag, SEL_CODED_CHAR_SET_ID, 1208);
  int32_t cc, rc;
  // Trailing blanks and zeros are part of the string; the '#' padding after
  // it is not.
  read(bag,
       Message()
           .header(5)
           .stringParm(5, 850, "AB C  ")
           .stringParm(6, 37, std::string("x\0\0", 3))
           .stringParm(7, 0, "")
           .stringParm(8, -1, "ABCDEFGH")
           .stringParm(9, 1208, "123456789"),
       &cc, &rc);
  EXPECT_OK(cc, rc);
  EXPECT_EQ(stringsOf(bag), (std::vector<StoredString>{{5, "AB C  ", 850},
                                                       {6, std::string("x\0\0", 3), 37},
                                                       {7, "", 0},
                                                       {8, "ABCDEFGH", -1},
                                                       {9, "123456789", 1208}}));
}

TEST_F(ReaderTest, IntegerListGivesOneItemPerValueInOrder) {
  VXHBAG bag = newBag(0);
  int32_t cc, rc;
  read(bag,
       Message()
           .header(4)
           .integerList(9, {5, -1, 7, 5})
           .integerList(10, {})
           .integerParm(11, 1)
           .integerList(9, {8}),
       &cc, &rc);
  EXPECT_OK(cc, rc);
  // The empty list adds nothing, and the walk goes on after it.
  EXPECT_EQ(userItemsOf(bag), (std::vector{integer(9, 5), integer(9, -1), integer(9, 7),
                                           integer(9, 5), integer(11, 1), integer(9, 8)}));
}

TEST_F(ReaderTest, StringListGivesEachStringAtTheListsLength) {
  VXHBAG bag = newBag(0);
  int32_t cc, rc;
  read(bag,
       Message()
           .header(4)
           .stringList(5, 437, 8, {"ABC", "DEFGH   ", "12345678"})
           .stringList(6, 850, 8, {})
           .stringList(7, 1208, 0, {"", "", ""})
           .integerParm(8, 1),
       &cc, &rc);
  EXPECT_OK(cc, rc);
  EXPECT_EQ(stringsOf(bag), (std::vector<StoredString>{{5, std::string("ABC\0\0\0\0\0", 8), 437},
                                                       {5, "DEFGH   ", 437},
                                                       {5, "12345678", 437},
                                                       {7, "", 1208},
                                                       {7, "", 1208},
                                                       {7, "", 1208}}));
  EXPECT_EQ(countOf(bag, 6), 0);
  EXPECT_EQ(countOf(bag, 8), 1);
}

TEST_F(ReaderTest, ItemsAddedBeforeAFailureStay) {
  VXHBAG bag = newBag(0);
  int32_t cc, rc;
  // The integer list's selector already holds a string: its first value is
  // refused, and the string read before it stays.
  read(bag, Message().header(3).integerParm(4, 4).stringParm(7, 0, "abc").integerList(7, {1, 2, 3}),
       &cc, &rc);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_INCONSISTENT_ITEM_TYPE);
  EXPECT_EQ(userItemsOf(bag), (std::vector{integer(4, 4), stringItem(7, "abc")}));

  // A string under an integer's selector is refused likewise.
  read(bag, Message().header(2).integerList(7, {1, 2}).stringList(7, 0, 1, {"a", "b"}), &cc, &rc);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_INCONSISTENT_ITEM_TYPE);
  EXPECT_EQ(userItemsOf(bag), (std::vector{integer(7, 1), integer(7, 2)}));
}

TEST_F(ReaderTest, FailureInsideAStringListKeepsTheStringsBeforeIt) {
  VXHBAG bag = newBag(0);
  // 8 system items and 30 integers: the list's third string is the bag's
  // 41st item, the first that needs the vector to grow.
  std::vector<int32_t> values;
  for (int32_t value = 0; value < 30; ++value) values.push_back(value);
  Message message =
      Message().header(2).integerList(1, values).stringList(2, 850, 4, {"ab", "cdef", "gh"});
  TraceCapture trace(0x1, true);
  int32_t cc, rc;
  svcInjectMemFailure(1);
  read(bag, message, &cc, &rc);
  svcInjectMemFailure(0);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_STORAGE_NOT_AVAILABLE);
  EXPECT_EQ(countOf(bag, 1), 30);
  EXPECT_EQ(stringsOf(bag),
            (std::vector<StoredString>{{2, std::string("ab\0\0", 4), 850}, {2, "cdef", 850}}));
  // The list's fixed part goes to the trace.
  const size_t listOffset = 36 + 16 + 4 * values.size();
  EXPECT_EQ(dataLinesOf(trace, ZAIFN_zaiReadPCFStringListParm),
            std::vector{dataOf(message.data() + listOffset, 24)});
}

// ----- Unaligned messages --------------------------------------------------------------

TEST_F(ReaderTest, UnalignedMessagesReadTheSame) {
  const Message message = everyStructure();
  VXHBAG aligned = newBag(0);
  int32_t cc, rc;
  read(aligned, message, &cc, &rc);
  ASSERT_OK(cc, rc);
  const std::vector<Item> expected = itemsOf(aligned);
  const std::vector<StoredString> expectedStrings = stringsOf(aligned);
  EXPECT_EQ(expected, (defaultItems(0, PCF_TYPE_USER) +
                       std::vector{integer(5, 42), stringItem(7, "AB"), integer(9, 1),
                                   integer(9, -2), stringItem(11, std::string("x\0\0", 3)),
                                   stringItem(11, std::string("yz\0", 3))}));

  alignas(8) char buffer[256];
  ASSERT_LE(message.size() + 3, sizeof buffer);
  for (size_t offset = 1; offset <= 3; ++offset) {
    std::memcpy(buffer + offset, message.data(), message.size());
    VXHBAG bag = newBag(0);
    read(bag, buffer + offset, message.length(), &cc, &rc);
    EXPECT_OK(cc, rc) << "offset " << offset;
    EXPECT_EQ(itemsOf(bag), expected) << "offset " << offset;
    EXPECT_EQ(stringsOf(bag), expectedStrings) << "offset " << offset;
  }
}

// ----- Round trips -------------------------------------------------------------------

TEST_F(ReaderTest, RoundTripOfAnEmptyBag) {
  for (int32_t options : {0, BAG_OPT_ADMIN_BAG, BAG_OPT_COMMAND_BAG}) {
    VXHBAG source = newBag(options);
    VXHBAG target = newBag(options);
    addInteger(target, 1, 1);
    roundTrip(source, target);
    EXPECT_EQ(itemsOf(target), itemsOf(source)) << "options " << options;
  }
}

TEST_F(ReaderTest, RoundTripOfIntegers) {
  VXHBAG source = newBag(0);
  const int32_t values[] = {0, 1, -1, INT32_MIN, INT32_MAX, 42};
  int32_t selector = 0;
  for (int32_t value : values) addInteger(source, selector++ % 4, value);
  VXHBAG target = newBag(0);
  roundTrip(source, target);
  EXPECT_EQ(itemsOf(target), itemsOf(source));
  EXPECT_EQ(userItemsOf(target).size(), 6u);
}

TEST_F(ReaderTest, RoundTripOfStringsOfEveryPaddingLength) {
  VXHBAG source = newBag(0);
  const std::string digits = "123456789";
  for (size_t length = 0; length <= 9; ++length)
    addString(source, static_cast<int32_t>(10 + length), digits.substr(0, length));
  addString(source, 20, std::string("a\0b \0", 5));
  VXHBAG target = newBag(0);
  roundTrip(source, target);
  EXPECT_EQ(itemsOf(target), itemsOf(source));
  EXPECT_EQ(stringsOf(target), stringsOf(source));
}

TEST_F(ReaderTest, RoundTripOfMixedItems) {
  VXHBAG source = newBag(BAG_OPT_CHECK_SELECTORS);
  addInteger(source, 1, 10);
  addString(source, 2001, "first");
  addInteger(source, 2, 20);
  addInteger(source, 1, 11);
  addString(source, 2001, "second string");
  addString(source, 2002, "");
  VXHBAG target = newBag(BAG_OPT_CHECK_SELECTORS);
  roundTrip(source, target);
  EXPECT_EQ(itemsOf(target), itemsOf(source));
}

TEST_F(ReaderTest, RoundTripOfSystemItems) {
  VXHBAG source = newBag(0);
  setInteger(source, SEL_PCF_TYPE, PCF_TYPE_EVENT);
  setInteger(source, SEL_COMMAND, 42);
  setInteger(source, SEL_MSG_SEQ_NUMBER, 3);
  setInteger(source, SEL_CONTROL, 0);
  setInteger(source, SEL_COMP_CODE, CC_WARNING);
  setInteger(source, SEL_REASON, RC_COMMAND_FAILED);
  addInteger(source, 5, 5);
  VXHBAG target = newBag(0);
  roundTrip(source, target);
  const HeaderFields fields{.type = PCF_TYPE_EVENT,
                            .command = 42,
                            .msgSeqNumber = 3,
                            .control = 0,
                            .compCode = CC_WARNING,
                            .reason = RC_COMMAND_FAILED};
  EXPECT_EQ(itemsOf(target), systemItems(0, fields) + std::vector{integer(5, 5)});
  EXPECT_EQ(itemsOf(target), itemsOf(source));
}

TEST_F(ReaderTest, RoundTripOfListsWithoutReorderingKeepsTheOrder) {
  VXHBAG source = newBag(BAG_OPT_LIST_FORM_ALLOWED);
  addInteger(source, 5, 1);
  addInteger(source, 5, 2);
  addString(source, 6, "ab");
  addString(source, 6, "abcdefg");
  addInteger(source, 7, 9);
  addInteger(source, 5, 3);
  VXHBAG target = newBag(BAG_OPT_LIST_FORM_ALLOWED);
  roundTrip(source, target);
  // The shorter string of the list comes back at the list's length.
  EXPECT_EQ(itemsOf(target), (defaultItems(BAG_OPT_LIST_FORM_ALLOWED, PCF_TYPE_USER) +
                              std::vector{integer(5, 1), integer(5, 2),
                                          stringItem(6, std::string("ab\0\0\0\0\0", 7)),
                                          stringItem(6, "abcdefg"), integer(7, 9), integer(5, 3)}));
}

TEST_F(ReaderTest, RoundTripOfListsWithReorderingGroupsTheValues) {
  const int32_t options = BAG_OPT_LIST_FORM_ALLOWED | BAG_OPT_REQUIRED_PARMS_FIRST;
  VXHBAG source = newBag(options);
  addInteger(source, 5, 1);
  addString(source, 6, "x");
  addInteger(source, 5, 3);
  addInteger(source, 7, 4);
  addString(source, 6, "yz");
  VXHBAG target = newBag(options);
  roundTrip(source, target);
  EXPECT_EQ(itemsOf(target),
            (defaultItems(options, PCF_TYPE_USER) +
             std::vector{integer(5, 1), integer(5, 3), stringItem(6, std::string("x\0", 2)),
                         stringItem(6, "yz"), integer(7, 4)}));
}

TEST_F(ReaderTest, RoundTripOfInquiriesGivesTheAttributeList) {
  VXHBAG source = newBag(BAG_OPT_ADMIN_BAG);
  setInteger(source, SEL_COMMAND, 2);
  addInteger(source, 1, 5);
  for (int32_t attribute : {2016, 20}) {
    int32_t cc = -1, rc = -1;
    vxAddInquiry(source, attribute, &cc, &rc);
    ASSERT_OK(cc, rc);
  }
  VXHBAG target = newBag(BAG_OPT_ADMIN_BAG);
  roundTrip(source, target);
  const HeaderFields fields{.type = PCF_TYPE_COMMAND, .command = 2};
  EXPECT_EQ(itemsOf(target), (systemItems(15, fields) +
                              std::vector{integer(1, 5), integer(1001, 2016), integer(1001, 20)}));
}

TEST_F(ReaderTest, RoundTripKeepsEachStringsCharacterSet) {
  VXHBAG source = newBag(BAG_OPT_LIST_FORM_ALLOWED);
  setInteger(source, SEL_CODED_CHAR_SET_ID, 1208);
  addString(source, 5, "utf");
  setInteger(source, SEL_CODED_CHAR_SET_ID, 437);
  addString(source, 5, "pc");
  addString(source, 6, "single");
  setInteger(source, SEL_CODED_CHAR_SET_ID, 0);
  VXHBAG target = newBag(BAG_OPT_LIST_FORM_ALLOWED);
  setInteger(target, SEL_CODED_CHAR_SET_ID, 850);
  roundTrip(source, target);
  // Two adjacent strings of different character sets are two structures.
  EXPECT_EQ(stringsOf(target),
            (std::vector<StoredString>{{5, "utf", 1208}, {5, "pc", 437}, {6, "single", 437}}));
  // The target keeps its own character set: the message carries none.
  EXPECT_EQ(itemsOf(target)[2], integer(SEL_CODED_CHAR_SET_ID, 850));
}

// ----- Trace of refused structures -------------------------------------------------

TEST_F(ReaderTest, RefusedStructureShowsItsFixedPart) {
  struct Case {
    int32_t function;
    Message message;
    size_t fixedLength;
  } cases[] = {
      {ZAIFN_zaiReadPCFIntParm, Message().header(1).integerParm(-1, 77), 12},
      {ZAIFN_zaiReadPCFIntParm, Message().header(1).integerParm(5, 77).put(40, 20).word(0), 12},
      {ZAIFN_zaiReadPCFStringParm, Message().header(1).stringParm(-1, 850, "abcdef"), 20},
      {ZAIFN_zaiReadPCFStringParm, Message().header(1).stringParm(5, 850, "ab").put(52, -1), 20},
      {ZAIFN_zaiReadPCFIntListParm, Message().header(1).integerList(-1, {1, 2, 3}), 16},
      {ZAIFN_zaiReadPCFIntListParm, Message().header(1).integerList(5, {1}).put(48, -1), 16},
      {ZAIFN_zaiReadPCFStringListParm, Message().header(1).stringList(-1, 37, 2, {"ab", "c"}), 24},
      {ZAIFN_zaiReadPCFStringListParm, Message().header(1).stringList(5, 37, 2, {}).put(52, -1),
       24},
  };
  VXHBAG bag = newBag(0);
  for (const Case &test : cases) {
    TraceCapture trace(0x1, true);
    int32_t cc, rc;
    read(bag, test.message, &cc, &rc);
    EXPECT_EQ(cc, CC_FAILED);
    EXPECT_EQ(dataLinesOf(trace, test.function),
              std::vector{dataOf(test.message.data() + 36, test.fixedLength)})
        << "function " << test.function;
  }
}

TEST_F(ReaderTest, AcceptedStructuresAreNotDumped) {
  VXHBAG bag = newBag(0);
  TraceCapture trace(0x1, true);
  int32_t cc, rc;
  read(bag, everyStructure(), &cc, &rc);
  EXPECT_OK(cc, rc);
  for (const vxtest::TraceLine &line : trace.raw())
    EXPECT_FALSE(line.isData) << "function " << line.function << ": " << vxtest::render(line);
}

// ----- Detailed trace --------------------------------------------------------------

TEST_F(ReaderTest, DetailedTraceShowsEachStructuresOffsetAndType) {
  VXHBAG bag = newBag(0);
  const Message message = everyStructure();
  TraceCapture trace(kDetailOptions, true);
  int32_t cc, rc;
  read(bag, message, &cc, &rc);
  EXPECT_OK(cc, rc);
  EXPECT_EQ(parmLines(trace, ZAIFN_zaiPCFMsgToBag),
            (std::vector<std::string>{
                "msgLength:" + std::to_string(message.length()) + ", pBag:" + pointerText(bag),
                "msgOffset:36, *pParmType:3", "msgOffset:52, *pParmType:4",
                "msgOffset:76, *pParmType:5", "msgOffset:100, *pParmType:6"}));
}

TEST_F(ReaderTest, DetailedTraceShowsTheTypeOfARefusedStructure) {
  VXHBAG bag = newBag(0);
  TraceCapture trace(kDetailOptions, true);
  int32_t cc, rc;
  read(bag, Message().header(2).integerParm(5, 1).word(9).word(16).word(5).word(0), &cc, &rc);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_PCF_FORMAT_ERROR);
  const std::vector<std::string> lines = parmLines(trace, ZAIFN_zaiPCFMsgToBag);
  ASSERT_EQ(lines.size(), 3u);
  EXPECT_EQ(lines[1], "msgOffset:36, *pParmType:3");
  EXPECT_EQ(lines[2], "msgOffset:52, *pParmType:9");
}

TEST_F(ReaderTest, DetailedTraceShowsTheHeader) {
  VXHBAG bag = newBag(0);
  const Message message = Message()
                              .header(1, {.type = PCF_TYPE_RESPONSE, .command = 13, .reason = 7})
                              .integerParm(5, 1);
  TraceCapture trace(kDetailOptions, true);
  int32_t cc, rc;
  read(bag, message, &cc, &rc);
  EXPECT_OK(cc, rc);
  std::vector<std::string> lines;
  for (const vxtest::TraceLine &line : trace.raw())
    if (line.function == ZAIFN_zaiReadPCFHeader && !isFrameLine(line))
      lines.push_back(vxtest::render(line));
  EXPECT_EQ(lines, (std::vector<std::string>{
                       "pHeader:" + pointerText(message.data()) + ", pBag:" + pointerText(bag),
                       "PCF Header", dataOf(message.data(), 36)}));
}

TEST_F(ReaderTest, NoDetailedTraceWithoutTheParameterBits) {
  VXHBAG bag = newBag(0);
  TraceCapture trace(0x1, true);
  int32_t cc, rc;
  read(bag, everyStructure(), &cc, &rc);
  EXPECT_OK(cc, rc);
  EXPECT_EQ(parmLines(trace, ZAIFN_zaiPCFMsgToBag), std::vector<std::string>{});
  EXPECT_EQ(parmLines(trace, ZAIFN_zaiReadPCFHeader), std::vector<std::string>{});
}

// ----- Bag dump ----------------------------------------------------------------------

TEST_F(ReaderTest, SuccessfulReadDumpsTheBag) {
  VXHBAG bag = newBag(0);
  TraceCapture trace(kDumpOptions, true);
  int32_t cc, rc;
  read(bag,
       Message()
           .header(3, {.msgSeqNumber = 4})
           .integerParm(5, 42)
           .stringParm(7, 850, "AB")
           .integerList(12345, {-1, 0}),
       &cc, &rc);
  ASSERT_OK(cc, rc);
  EXPECT_EQ(dumpOf(trace, ZAIFN_zaiPCFMsgToBag),
            (std::vector<std::string>{
                "Bag Details " + pointerText(bag), "Size:12",
                "Index: Selector: Value:", "  0      -8       (0)", "  1      -2       (8)",
                "  2      -1       (0)", "  3      -3       (0)", "  4      -4       (4)",
                "  5      -5       (1)", "  6      -6       (0)", "  7      -7       (0)",
                "  8      5        (42)", "  9      7         ccsid: 850   String->",
                "<data 41 42>", "  10     12345     (-1)", "  11     12345     (0)"}));
}

TEST_F(ReaderTest, DumpOfAnEmptyStringShowsNoBytes) {
  VXHBAG bag = newBag(0);
  TraceCapture trace(kDumpOptions, true);
  int32_t cc, rc;
  read(bag, Message().header(1).stringParm(3, 1208, ""), &cc, &rc);
  ASSERT_OK(cc, rc);
  const std::vector<std::string> dump = dumpOf(trace, ZAIFN_zaiPCFMsgToBag);
  ASSERT_EQ(dump.size(), 13u);
  EXPECT_EQ(dump[11], stringLine(8, 3, 1208));
  EXPECT_EQ(dump[12], "<data>");
}

TEST_F(ReaderTest, DumpTakesAStringsLengthModulo65536) {
  VXHBAG bag = newBag(0);
  const std::string text(65537, 'L');
  TraceCapture trace(kDumpOptions, true);
  int32_t cc, rc;
  read(bag, Message().header(1).stringParm(3, 0, text), &cc, &rc);
  ASSERT_OK(cc, rc);
  const std::vector<std::string> dump = dumpOf(trace, ZAIFN_zaiPCFMsgToBag);
  ASSERT_EQ(dump.size(), 13u);
  // The dump's length field holds 16 bits: 65537 bytes show as one.
  EXPECT_EQ(dump[12], "<data 4C>");
}

TEST_F(ReaderTest, DumpShowsANestedBagsHandle) {
  VXHBAG holder = newBag(0);
  VXHBAG nested = BAG_NONE;
  int32_t cc, rc;
  vxCreateBag(0, &nested, &cc, &rc);
  ASSERT_OK(cc, rc);
  // From here on the holder owns the nested bag.
  zaiAddBag(zaiDecodeHandle(holder), 4001, nested, &cc, &rc);
  ASSERT_OK(cc, rc);
  addInteger(holder, 3, 1);
  TraceCapture trace(kDumpOptions, true);
  zaiTraceBagContents(ZAI_COMPONENT, ZAIFN_zaiSendReceivePCFMsg, zaiDecodeHandle(holder));
  std::vector<std::string> expected = {"Bag Details " + pointerText(holder), "Size:10",
                                       "Index: Selector: Value:"};
  for (const Item &item : defaultItems(0, PCF_TYPE_USER))
    expected.push_back(
        integerLine(static_cast<int32_t>(expected.size()) - 3, item.selector, item.value));
  expected.push_back("  8      4001     (" + pointerText(nested) + ")");
  expected.push_back(integerLine(9, 3, 1));
  EXPECT_EQ(dumpOf(trace, ZAIFN_zaiSendReceivePCFMsg), expected);
  vxtest::expectAllUnder(trace, ZAIFN_zaiSendReceivePCFMsg);
}

TEST_F(ReaderTest, DumpOfABagWithoutItems) {
  VXHBAG bag = newBag(0);
  zaiBAG *record = zaiDecodeHandle(bag);
  int32_t cc, rc;
  for (int32_t index = record->items->count - 1; index >= 0; --index) {
    zaiFreeItem(record, index, &cc, &rc);
    ASSERT_OK(cc, rc);
  }
  {
    TraceCapture trace(kDumpOptions, true);
    zaiTraceBagContents(ZAI_COMPONENT, ZAIFN_zaiPCFMsgToBag, record);
    EXPECT_EQ(vxtest::parmLines(trace, ZAIFN_zaiPCFMsgToBag),
              (std::vector<std::string>{"Bag Details " + pointerText(bag), "Size:0",
                                        "Index: Selector: Value:"}));
  }
  zaiAddDefaultSystemItems(record, &cc, &rc);
  ASSERT_OK(cc, rc);
}

TEST_F(ReaderTest, DumpNeedsEveryOneOfItsThreeOptionBits) {
  VXHBAG bag = newBag(0);
  for (uint32_t bit : {0x20u, 0x400u, 0x80000u}) {
    TraceCapture trace((kDumpOptions | 0x1) & ~bit, true);
    zaiTraceBagContents(ZAI_COMPONENT, ZAIFN_zaiPCFMsgToBag, zaiDecodeHandle(bag));
    EXPECT_EQ(trace.lines(), std::vector<std::string>{}) << "without bit " << bit;
  }
  TraceCapture trace(kDumpOptions, true);
  zaiTraceBagContents(ZAI_COMPONENT, ZAIFN_zaiPCFMsgToBag, zaiDecodeHandle(bag));
  EXPECT_EQ(trace.lines().size(), 11u);
}

TEST_F(ReaderTest, DumpNeedsTraceEnabledALevelAndTheThreadsTrace) {
  const zaiBAG *record = zaiDecodeHandle(newBag(0));
  {
    TraceCapture trace(kDumpOptions, false);
    zaiTraceBagContents(ZAI_COMPONENT, ZAIFN_zaiPCFMsgToBag, record);
    EXPECT_EQ(trace.lines(), std::vector<std::string>{}) << "thread trace off";
  }
  {
    TraceCapture trace(kDumpOptions, true);
    processAnchor.traceEnabled = 0;
    processAnchor.earlyTrace = 1;
    zaiTraceBagContents(ZAI_COMPONENT, ZAIFN_zaiPCFMsgToBag, record);
    EXPECT_EQ(trace.lines(), std::vector<std::string>{}) << "trace not enabled";
  }
  {
    TraceCapture trace(kDumpOptions, true);
    processAnchor.traceLevel = 0xFFFFFFFFu;
    processAnchor.earlyTrace = 0;
    zaiTraceBagContents(ZAI_COMPONENT, ZAIFN_zaiPCFMsgToBag, record);
    EXPECT_EQ(trace.lines(), std::vector<std::string>{}) << "level all ones";
  }
  {
    // Early trace stands in for the level.
    TraceCapture trace(kDumpOptions, true);
    processAnchor.traceLevel = 0xFFFFFFFFu;
    processAnchor.earlyTrace = 1;
    zaiTraceBagContents(ZAI_COMPONENT, ZAIFN_zaiPCFMsgToBag, record);
    EXPECT_EQ(trace.lines().size(), 11u) << "level all ones, early trace";
  }
}

TEST_F(ReaderTest, FailedReadIsNotDumped) {
  VXHBAG bag = newBag(0);
  TraceCapture trace(kDumpOptions, true);
  int32_t cc, rc;
  read(bag, Message().header(2).integerParm(5, 1).integerParm(-1, 2), &cc, &rc);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_SELECTOR_OUT_OF_RANGE);
  EXPECT_EQ(dumpOf(trace, ZAIFN_zaiPCFMsgToBag), std::vector<std::string>{});
}

TEST_F(ReaderTest, WriterDumpsTheBagBeforeWriting) {
  VXHBAG bag = newBag(0);
  addString(bag, 7, "abc");
  TraceCapture trace(kDumpOptions, true);
  // Too short a buffer: the conversion fails, the dump was written first.
  char buffer[10];
  int32_t length = 0, cc, rc;
  vxBagToBuffer(BAG_NONE, bag, sizeof buffer, buffer, &length, &cc, &rc);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_BUFFER_LENGTH_ERROR);
  std::vector<std::string> expected = {"Bag Details " + pointerText(bag), "Size:9",
                                       "Index: Selector: Value:"};
  for (const Item &item : defaultItems(0, PCF_TYPE_USER))
    expected.push_back(
        integerLine(static_cast<int32_t>(expected.size()) - 3, item.selector, item.value));
  expected.push_back(stringLine(8, 7, 0));
  expected.push_back("<data 61 62 63>");
  EXPECT_EQ(dumpOf(trace, ZAIFN_zaiBagToPCFMsg), expected);
  // It comes right after the function's parameter line.
  const std::vector<std::string> lines = parmLines(trace, ZAIFN_zaiBagToPCFMsg);
  ASSERT_GE(lines.size(), 2u);
  EXPECT_EQ(lines[1], expected[0]);
}

// ----- Memory --------------------------------------------------------------------------

TEST_F(ReaderTest, InjectedAllocationFailuresLeaveNothingBehind) {
  // 8 system items and 100 read: the vector grows at the 41st and the 81st.
  std::vector<int32_t> values;
  std::vector<std::string> strings;
  for (int32_t i = 0; i < 40; ++i) values.push_back(i);
  for (int32_t i = 0; i < 50; ++i) strings.push_back(std::string(static_cast<size_t>(i % 5), 'S'));
  const Message message = Message()
                              .header(5)
                              .integerList(1, values)
                              .stringList(2, 850, 4, strings)
                              .integerParm(3, 3)
                              .stringParm(4, 0, "last")
                              .integerParm(5, 5);
  int32_t failures = 0;
  for (int32_t nth = 1; nth <= 10; ++nth) {
    const int32_t blocks = vxtest::liveBlocks();
    VXHBAG bag = BAG_NONE;
    int32_t cc = -1, rc = -1;
    vxCreateBag(0, &bag, &cc, &rc);
    ASSERT_OK(cc, rc);
    svcInjectMemFailure(nth);
    vxBufferToBag(BAG_NONE, message.length(), message.data(), bag, &cc, &rc);
    svcInjectMemFailure(0);
    const int32_t count = countOf(bag, SEL_ANY_SELECTOR);
    const bool done = cc == CC_OK;
    if (done) {
      EXPECT_EQ(count, 101);
    } else {
      EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_STORAGE_NOT_AVAILABLE) << "failure " << nth;
      // Everything read before the failure stays.
      EXPECT_EQ(count, 40 * nth) << "failure " << nth;
      ++failures;
    }
    vxDeleteBag(&bag, &cc, &rc);
    EXPECT_OK(cc, rc);
    EXPECT_EQ(vxtest::liveBlocks(), blocks) << "failure " << nth;
    if (done) break;
  }
  EXPECT_EQ(failures, 2);
}

TEST_F(ReaderTest, ReadingAgainReleasesTheItemsOfTheLastRead) {
  VXHBAG bag = newBag(0);
  const Message message = everyStructure();
  const int32_t blocks = vxtest::liveBlocks();
  for (int32_t i = 0; i < 5; ++i) {
    int32_t cc, rc;
    read(bag, message, &cc, &rc);
    EXPECT_OK(cc, rc);
    read(bag, message.data(), message.length() - 4, &cc, &rc);
    EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_PCF_FORMAT_ERROR);
  }
  EXPECT_EQ(vxtest::liveBlocks(), blocks);
  // What the last, failed read took before it was refused.
  EXPECT_EQ(countOf(bag, SEL_ANY_SELECTOR), 12);
}

}  // namespace
