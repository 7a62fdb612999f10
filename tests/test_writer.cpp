// The bag-to-message writer: zaiBagToPCFMsg and the structure writers under
// it, zaiBagToPCFMsgInVXAIBuffer and the exported vxBagToBuffer.  Messages are
// compared byte for byte with a layout built by hand; buffers are prefilled,
// so that the bytes the writer must leave alone can be seen untouched.  The
// structure writers are also called directly with a control area set up
// here, where the area itself (written flags, lengths) is what matters.
#include <algorithm>
#include <cstddef>
#include <cstring>
#include <string>
#include <vector>

#include "vxtest.h"

namespace {

using vxtest::dataOf;

// What a buffer holds before the writer runs.
constexpr uint8_t kFill = 0xEE;

constexpr char kAreaLabel[] = "PCF Buffer Control Area";
constexpr int32_t kFrameAreaLength = sizeof(zaiPCFBUFFER);  // fixed part and 40 flags

// The nine selectors that are always written as lists.
constexpr int32_t kAttributeLists[] = {1001, 1002, 1003, 1004, 1015, 1019, 1026, 1093, 1524};

int32_t roundUp4(int32_t length) { return (length + 3) & ~3; }

// The start of a report's dump line for an item, which is dumped whole.
std::string propertyDumpLabel(const std::string &label) {
  return "Dump area     : " + label + " (" + std::to_string(sizeof(zaiPROPERTY)) + " bytes";
}

// A message laid out by hand.  Padding after strings is expected to hold
// whatever the buffer held (kFill unless the test says otherwise).
class Message {
 public:
  Message &word(int32_t value) {
    const auto *bytes = reinterpret_cast<const uint8_t *>(&value);
    bytes_.insert(bytes_.end(), bytes, bytes + sizeof value);
    return *this;
  }
  Message &text(const std::string &bytes) {
    bytes_.insert(bytes_.end(), bytes.begin(), bytes.end());
    return *this;
  }
  Message &fill(uint8_t byte, int32_t count) {
    bytes_.insert(bytes_.end(), static_cast<size_t>(count), byte);
    return *this;
  }
  // The defaults are the system items of a new bag.
  Message &header(int32_t type, int32_t command, int32_t parameters, int32_t sequence = 1,
                  int32_t control = 1, int32_t compCode = 0, int32_t reason = 0) {
    for (int32_t field : {type, 36, 1, command, sequence, control, compCode, reason, parameters})
      word(field);
    return *this;
  }
  Message &integer(int32_t selector, int32_t value) {
    return word(PCF_TYPE_INTEGER).word(16).word(selector).word(value);
  }
  Message &string(int32_t selector, int32_t ccsid, const std::string &bytes, uint8_t pad = kFill) {
    const auto length = static_cast<int32_t>(bytes.size());
    word(PCF_TYPE_STRING).word(20 + roundUp4(length)).word(selector).word(ccsid).word(length);
    return text(bytes).fill(pad, roundUp4(length) - length);
  }
  Message &integerList(int32_t selector, const std::vector<int32_t> &values) {
    const auto count = static_cast<int32_t>(values.size());
    word(PCF_TYPE_INTEGER_LIST).word(16 + 4 * count).word(selector).word(count);
    for (int32_t value : values) word(value);
    return *this;
  }
  // Each string zero-filled to the list's string length, then the final
  // padding as the buffer held it.
  Message &stringList(int32_t selector, int32_t ccsid, int32_t length,
                      const std::vector<std::string> &strings) {
    const auto count = static_cast<int32_t>(strings.size());
    const int32_t used = 24 + count * length;
    word(PCF_TYPE_STRING_LIST).word(roundUp4(used)).word(selector).word(ccsid).word(count);
    word(length);
    for (const std::string &bytes : strings)
      text(bytes).fill(0x00, length - static_cast<int32_t>(bytes.size()));
    return fill(kFill, roundUp4(used) - used);
  }

  int32_t size() const { return static_cast<int32_t>(bytes_.size()); }
  std::string hex() const { return dataOf(bytes_.data(), bytes_.size()); }

 private:
  std::vector<uint8_t> bytes_;
};

// The outcome of one zaiBagToPCFMsg into a prefilled buffer.  The outputs
// start with values the writer never gives, so that "not set" shows.
struct Converted {
  int32_t cc = -1;
  int32_t rc = -1;
  int32_t dataLength = -99;
  int32_t msgType = -99;
  std::string format = "????????";
  std::vector<uint8_t> buffer;

  // The first `length` bytes of the buffer (at most all of it), as hex.
  std::string head(int32_t length) const {
    return dataOf(buffer.data(), std::min(static_cast<size_t>(length), buffer.size()));
  }
  // True when every byte from `from` on still holds the fill.
  bool untouchedFrom(int32_t from, uint8_t fill = kFill) const {
    return std::all_of(buffer.begin() + std::min(static_cast<size_t>(from), buffer.size()),
                       buffer.end(), [fill](uint8_t byte) { return byte == fill; });
  }
};

// A buffer length of 0 or less goes with a null buffer.
Converted convert(VXHBAG bag, int32_t command, int32_t bufferLength = 512, uint8_t fill = kFill) {
  Converted out;
  out.buffer.assign(bufferLength > 0 ? static_cast<size_t>(bufferLength) : 0, fill);
  char format[ZAI_FORMAT_LENGTH];
  std::memcpy(format, out.format.data(), sizeof format);
  char *buffer = bufferLength > 0 ? reinterpret_cast<char *>(out.buffer.data()) : nullptr;
  zaiBagToPCFMsg(zaiDecodeHandle(bag), command, bufferLength, buffer, &out.dataLength, &out.msgType,
                 format, &out.cc, &out.rc);
  out.format.assign(format, sizeof format);
  return out;
}

// A control area as the driver sets one up, over a caller's buffer (none
// when it is empty).  No header has been written into it.
zaiPCFBUFFER controlArea(int32_t command, std::vector<uint8_t> &buffer) {
  zaiPCFBUFFER area;
  std::memset(&area, 0, sizeof area);
  std::memcpy(area.eyeCatcher, "ZPBC", 4);
  area.areaLength = sizeof area;
  area.command = command;
  area.buffer = buffer.empty() ? nullptr : reinterpret_cast<char *>(buffer.data());
  area.bufferLength = static_cast<int32_t>(buffer.size());
  return area;
}

std::vector<int32_t> flagsOf(zaiPCFBUFFER *area, int32_t items) {
  std::vector<int32_t> flags;
  for (int32_t index = 0; index < items; ++index) flags.push_back(*zaiWrittenFlag(area, index));
  return flags;
}

// The marker the calling thread wrote last into its trace history.
uint32_t latestMarker() {
  const svcTHREADANCHOR *anchor = svcThreadAnchor();
  return anchor->history[(anchor->historyIndex + anchor->historySize - 1) % anchor->historySize];
}

// One dump of the control area in the trace: the function of its label line
// and of its data line, and the bytes.
struct AreaDump {
  int32_t labelFunction;
  int32_t dataFunction;
  std::vector<uint8_t> bytes;
  int32_t field(size_t offset) const { return zaiGetField(bytes.data(), offset); }
};

std::vector<AreaDump> areaDumps(const vxtest::TraceCapture &trace) {
  const std::vector<vxtest::TraceLine> lines = trace.raw();
  std::vector<AreaDump> dumps;
  for (size_t i = 0; i + 1 < lines.size(); ++i)
    if (!lines[i].isData && lines[i].text == kAreaLabel && lines[i + 1].isData)
      dumps.push_back({lines[i].function, lines[i + 1].function, lines[i + 1].data});
  return dumps;
}

struct Live {
  int32_t blocks;
  int32_t bytes;
};
Live liveOf(int32_t function) {
  Live live{-1, -1};
  svcMemLive(ZAI_COMPONENT, function, &live.blocks, &live.bytes);
  return live;
}

std::string latestReport() {
  char text[4096] = {};
  svcLatestFailureReport(0, text, sizeof text);
  return text;
}

// Gives an item another type for the length of a test and puts the real one
// back, so that the bag can be deleted as usual.
class TypeChange {
 public:
  TypeChange(zaiPROPERTY *item, int32_t type) : item_(item), saved_(item->type) {
    item->type = type;
  }
  ~TypeChange() { item_->type = saved_; }
  TypeChange(const TypeChange &) = delete;
  TypeChange &operator=(const TypeChange &) = delete;

 private:
  zaiPROPERTY *item_;
  int32_t saved_;
};

class Writer : public vxtest::BagTest {
 protected:
  void addInteger(VXHBAG bag, int32_t selector, int32_t value) {
    int32_t cc = -1, rc = -1;
    vxAddInteger(bag, selector, value, &cc, &rc);
    EXPECT_OK(cc, rc) << "selector " << selector;
  }
  void addString(VXHBAG bag, int32_t selector, const std::string &bytes) {
    int32_t cc = -1, rc = -1;
    vxAddString(bag, selector, static_cast<int32_t>(bytes.size()), bytes.data(), &cc, &rc);
    EXPECT_OK(cc, rc) << "selector " << selector;
  }
  void addInquiry(VXHBAG bag, int32_t attribute) {
    int32_t cc = -1, rc = -1;
    vxAddInquiry(bag, attribute, &cc, &rc);
    EXPECT_OK(cc, rc) << "attribute " << attribute;
  }
  // System items (and the character set strings are added with).
  void setInteger(VXHBAG bag, int32_t selector, int32_t value) {
    int32_t cc = -1, rc = -1;
    vxSetInteger(bag, selector, ITEM_INDEX_NONE, value, &cc, &rc);
    EXPECT_OK(cc, rc) << "selector " << selector;
  }
  // A bag of `items` items in all: its 8 system items and integers with
  // selectors 1, 2, ... worth ten times their selector.
  VXHBAG bagOfItems(int32_t options, int32_t items) {
    VXHBAG bag = newBag(options);
    for (int32_t selector = 1; selector <= items - 8; ++selector)
      addInteger(bag, selector, 10 * selector);
    return bag;
  }
  Message messageOfItems(int32_t items) {
    Message message;
    message.header(PCF_TYPE_USER, 0, items - 8);
    for (int32_t selector = 1; selector <= items - 8; ++selector)
      message.integer(selector, 10 * selector);
    return message;
  }
  // Nests a new bag under a selector; the holder owns it from then on.
  void nestBag(VXHBAG holder, int32_t selector) {
    VXHBAG nested = BAG_NONE;
    int32_t cc = -1, rc = -1;
    vxCreateBag(0, &nested, &cc, &rc);
    ASSERT_OK(cc, rc);
    zaiAddBag(zaiDecodeHandle(holder), selector, nested, &cc, &rc);
    ASSERT_OK(cc, rc);
  }
  zaiPROPERTY *itemAt(VXHBAG bag, int32_t index) { return zaiItemAt(zaiDecodeHandle(bag), index); }
};

// ----- Header -----------------------------------------------------------------------

TEST_F(Writer, BagOfSystemItemsOnlyIsAHeaderWithNoParameters) {
  VXHBAG bag = newBag(0);
  Converted out = convert(bag, 0);
  EXPECT_OK(out.cc, out.rc);
  EXPECT_EQ(out.dataLength, 36);
  EXPECT_EQ(out.head(36), Message().header(PCF_TYPE_USER, 0, 0).hex());
  EXPECT_TRUE(out.untouchedFrom(36));
}

TEST_F(Writer, HeaderFieldsComeFromTheSystemItems) {
  VXHBAG bag = newBag(0);
  setInteger(bag, SEL_PCF_TYPE, PCF_TYPE_RESPONSE);
  setInteger(bag, SEL_MSG_SEQ_NUMBER, 7);
  setInteger(bag, SEL_CONTROL, 0);
  setInteger(bag, SEL_COMP_CODE, CC_WARNING);
  setInteger(bag, SEL_REASON, 2033);
  Converted out = convert(bag, 42);
  EXPECT_OK(out.cc, out.rc);
  EXPECT_EQ(out.head(36), Message().header(PCF_TYPE_RESPONSE, 42, 0, 7, 0, 1, 2033).hex());
}

TEST_F(Writer, CommandComesFromTheArgumentNotFromTheBag) {
  VXHBAG bag = newBag(0);
  setInteger(bag, SEL_COMMAND, 13);
  Converted out = convert(bag, 7);
  EXPECT_OK(out.cc, out.rc);
  EXPECT_EQ(out.head(36), Message().header(PCF_TYPE_USER, 7, 0).hex());
}

TEST_F(Writer, MissingSystemItemEndsTheConversionAtTheHeader) {
  VXHBAG bag = newBag(0);
  addInteger(bag, 1, 5);
  int32_t cc = -1, rc = -1;
  zaiDeleteItem(zaiDecodeHandle(bag), SEL_CONTROL, 0, 1, &cc, &rc);
  ASSERT_OK(cc, rc);
  Converted out = convert(bag, 3);
  EXPECT_OUTCOME(out.cc, out.rc, CC_FAILED, RC_SELECTOR_NOT_PRESENT);
  // The header is counted; the fields inquired before the failure are in it.
  EXPECT_EQ(out.dataLength, 36);
  EXPECT_EQ(out.head(20), Message().word(PCF_TYPE_USER).word(36).word(1).word(3).word(1).hex());
  EXPECT_TRUE(out.untouchedFrom(36)) << "no parameter follows a failed header";
  EXPECT_EQ(out.msgType, -99);
}

// ----- Single structures ------------------------------------------------------------

TEST_F(Writer, IntegerIsASixteenByteStructure) {
  VXHBAG bag = newBag(0);
  addInteger(bag, 5, -17);
  Converted out = convert(bag, 0);
  EXPECT_OK(out.cc, out.rc);
  EXPECT_EQ(out.dataLength, 52);
  EXPECT_EQ(out.head(52), Message().header(PCF_TYPE_USER, 0, 1).integer(5, -17).hex());
  EXPECT_EQ(dataOf(out.buffer.data() + 36, 16),
            "<data 03 00 00 00 10 00 00 00 05 00 00 00 EF FF FF FF>");
}

TEST_F(Writer, StringStructureLengthIsRoundedUpToFourBytes) {
  VXHBAG bag = newBag(0);
  addString(bag, 1, "");
  addString(bag, 2, "abcde");
  addString(bag, 3, "abcdefgh");
  addString(bag, 4, "abcdefghi");
  Converted out = convert(bag, 0);
  EXPECT_OK(out.cc, out.rc);
  // 20, 28, 28 and 32 bytes; the padding after 5 and 9 bytes is left as
  // the buffer held it.
  EXPECT_EQ(out.dataLength, 36 + 20 + 28 + 28 + 32);
  EXPECT_EQ(out.head(out.dataLength), Message()
                                          .header(PCF_TYPE_USER, 0, 4)
                                          .string(1, 0, "")
                                          .string(2, 0, "abcde")
                                          .string(3, 0, "abcdefgh")
                                          .string(4, 0, "abcdefghi")
                                          .hex());
  EXPECT_EQ(zaiGetField(out.buffer.data(), 56 + 4), 28);
  EXPECT_EQ(zaiGetField(out.buffer.data(), 112 + 4), 32);
  EXPECT_TRUE(out.untouchedFrom(out.dataLength));
}

TEST_F(Writer, StringPaddingKeepsWhatTheBufferHeld) {
  VXHBAG bag = newBag(0);
  addString(bag, 1, "abcde");
  Converted out = convert(bag, 0, 128, 0x5A);
  EXPECT_OK(out.cc, out.rc);
  EXPECT_EQ(out.head(64), Message().header(PCF_TYPE_USER, 0, 1).string(1, 0, "abcde", 0x5A).hex());
}

TEST_F(Writer, StringCarriesTheCharacterSetItWasAddedWith) {
  VXHBAG bag = newBag(0);
  addString(bag, 1, "a");
  setInteger(bag, SEL_CODED_CHAR_SET_ID, 1208);
  addString(bag, 2, "bc");
  setInteger(bag, SEL_CODED_CHAR_SET_ID, 850);
  addString(bag, 3, "def");
  Converted out = convert(bag, 0);
  EXPECT_OK(out.cc, out.rc);
  EXPECT_EQ(out.head(out.dataLength), Message()
                                          .header(PCF_TYPE_USER, 0, 3)
                                          .string(1, 0, "a")
                                          .string(2, 1208, "bc")
                                          .string(3, 850, "def")
                                          .hex());
}

TEST_F(Writer, WithoutListFormEveryItemIsASingleStructureInBagOrder) {
  VXHBAG bag = newBag(0);
  addInteger(bag, 1, 10);
  addInteger(bag, 1, 11);
  addString(bag, 2, "xy");
  addInteger(bag, 1002, 5);  // an attribute-list selector too
  addString(bag, 2, "z");
  Converted out = convert(bag, 0);
  EXPECT_OK(out.cc, out.rc);
  EXPECT_EQ(out.head(out.dataLength), Message()
                                          .header(PCF_TYPE_USER, 0, 5)
                                          .integer(1, 10)
                                          .integer(1, 11)
                                          .string(2, 0, "xy")
                                          .integer(1002, 5)
                                          .string(2, 0, "z")
                                          .hex());
}

TEST_F(Writer, SingleWriterStoresTheStructureWithoutSettingWrittenFlags) {
  VXHBAG bag = newBag(BAG_OPT_LIST_FORM_ALLOWED);
  addInteger(bag, 1, 10);
  addString(bag, 2, "abcde");
  std::vector<uint8_t> buffer(64, kFill);
  zaiPCFBUFFER area = controlArea(0, buffer);
  int32_t cc = -1, rc = -1;
  zaiWriteSinglePCFParm(itemAt(bag, 8), &area, &cc, &rc);
  EXPECT_OK(cc, rc);
  zaiWriteSinglePCFParm(itemAt(bag, 9), &area, &cc, &rc);
  EXPECT_OK(cc, rc);
  EXPECT_EQ(area.usedLength, 16 + 28);
  EXPECT_EQ(dataOf(buffer.data(), 44), Message().integer(1, 10).string(2, 0, "abcde").hex());
  EXPECT_EQ(flagsOf(&area, 10), std::vector<int32_t>(10, 0));
}

// ----- Message type and format ------------------------------------------------------

TEST_F(Writer, MessageTypeAndFormatFollowThePCFType) {
  const struct {
    int32_t pcfType;
    int32_t msgType;
    std::string format;
  } cases[] = {
      {PCF_TYPE_COMMAND, MSGTYPE_REQUEST, "VXADMIN "},
      {PCF_TYPE_RESPONSE, MSGTYPE_REPLY, "VXADMIN "},
      {PCF_TYPE_EVENT, MSGTYPE_DATAGRAM, "VXEVENT "},
      {PCF_TYPE_USER, MSGTYPE_DATAGRAM, "VXPCF   "},
      {3, MSGTYPE_DATAGRAM, "VXPCF   "},
      {0, MSGTYPE_DATAGRAM, "VXPCF   "},
      {-1, MSGTYPE_DATAGRAM, "VXPCF   "},
      {99, MSGTYPE_DATAGRAM, "VXPCF   "},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE("PCF type " + std::to_string(c.pcfType));
    VXHBAG bag = newBag(0);
    setInteger(bag, SEL_PCF_TYPE, c.pcfType);
    Converted out = convert(bag, 1);
    EXPECT_OK(out.cc, out.rc);
    EXPECT_EQ(out.msgType, c.msgType);
    EXPECT_EQ(out.format, c.format);
    EXPECT_EQ(zaiGetField(out.buffer.data(), 0), c.pcfType);
  }
}

TEST_F(Writer, MessageTypeAndFormatAreNotSetOnFailure) {
  VXHBAG tooLong = newBag(0);
  setInteger(tooLong, SEL_PCF_TYPE, PCF_TYPE_COMMAND);
  addInteger(tooLong, 1, 1);
  Converted shortBuffer = convert(tooLong, 1, 40);
  EXPECT_OUTCOME(shortBuffer.cc, shortBuffer.rc, CC_FAILED, RC_BUFFER_LENGTH_ERROR);
  EXPECT_EQ(shortBuffer.msgType, -99);
  EXPECT_EQ(shortBuffer.format, "????????");

  VXHBAG holder = newBag(0);
  nestBag(holder, 1);
  Converted nested = convert(holder, 1);
  EXPECT_OUTCOME(nested.cc, nested.rc, CC_FAILED, RC_NESTED_BAG_NOT_SUPPORTED);
  EXPECT_EQ(nested.msgType, -99);
  EXPECT_EQ(nested.format, "????????");
}

// ----- Lists ------------------------------------------------------------------------

TEST_F(Writer, RepeatedIntegerApartStaysSingleWithoutReordering) {
  VXHBAG bag = newBag(BAG_OPT_LIST_FORM_ALLOWED);
  addInteger(bag, 1, 1);
  addInteger(bag, 2, 2);
  addInteger(bag, 1, 3);
  Converted out = convert(bag, 0);
  EXPECT_OK(out.cc, out.rc);
  // The first 1 is followed by 2, so it goes out alone.
  EXPECT_EQ(out.head(out.dataLength),
            Message().header(PCF_TYPE_USER, 0, 3).integer(1, 1).integer(2, 2).integer(1, 3).hex());
}

TEST_F(Writer, RepeatedIntegerApartJoinsOneListWithReordering) {
  VXHBAG bag = newBag(BAG_OPT_LIST_FORM_ALLOWED | BAG_OPT_REQUIRED_PARMS_FIRST);
  addInteger(bag, 1, 1);
  addInteger(bag, 2, 2);
  addInteger(bag, 1, 3);
  Converted out = convert(bag, 0);
  EXPECT_OK(out.cc, out.rc);
  EXPECT_EQ(out.dataLength, 36 + 24 + 16);
  EXPECT_EQ(out.head(out.dataLength),
            Message().header(PCF_TYPE_USER, 0, 2).integerList(1, {1, 3}).integer(2, 2).hex());
}

TEST_F(Writer, AdjacentIntegersFormAListWithoutReordering) {
  VXHBAG bag = newBag(BAG_OPT_LIST_FORM_ALLOWED);
  addInteger(bag, 1, 1);
  addInteger(bag, 1, 2);
  addInteger(bag, 2, 3);
  addInteger(bag, 1, 4);
  Converted out = convert(bag, 0);
  EXPECT_OK(out.cc, out.rc);
  // The list takes the run of adjacent items only; the last 1 stands alone.
  EXPECT_EQ(out.head(out.dataLength), Message()
                                          .header(PCF_TYPE_USER, 0, 3)
                                          .integerList(1, {1, 2})
                                          .integer(2, 3)
                                          .integer(1, 4)
                                          .hex());
}

TEST_F(Writer, AdjacentStringsOfTwoAndSevenBytesFormOneList) {
  VXHBAG bag = newBag(BAG_OPT_LIST_FORM_ALLOWED);
  setInteger(bag, SEL_CODED_CHAR_SET_ID, 1208);
  addString(bag, 1, "ab");
  addString(bag, 1, "cdefghi");
  Converted out = convert(bag, 0);
  EXPECT_OK(out.cc, out.rc);
  // 24 + 2 x 7 = 38 bytes, rounded to 40.
  EXPECT_EQ(out.dataLength, 36 + 40);
  EXPECT_EQ(out.head(out.dataLength),
            Message().header(PCF_TYPE_USER, 0, 1).stringList(1, 1208, 7, {"ab", "cdefghi"}).hex());
  const uint8_t *list = out.buffer.data() + 36;
  EXPECT_EQ(zaiGetField(list, 4), 40);
  EXPECT_EQ(zaiGetField(list, 16), 2);
  EXPECT_EQ(zaiGetField(list, 20), 7);
  EXPECT_EQ(dataOf(list + 24, 7), dataOf("ab\0\0\0\0\0", 7)) << "the short string is zero filled";
  EXPECT_EQ(dataOf(list + 38, 2), dataOf("\xEE\xEE", 2)) << "the final padding is not written";
}

TEST_F(Writer, StringListTakesTheLengthOfItsLongestString) {
  VXHBAG bag = newBag(BAG_OPT_LIST_FORM_ALLOWED);
  addString(bag, 1, "abc");
  addString(bag, 1, "abcde");
  addString(bag, 1, "a");
  Converted out = convert(bag, 0);
  EXPECT_OK(out.cc, out.rc);
  // 24 + 3 x 5 = 39 bytes, rounded to 40.
  EXPECT_EQ(out.head(out.dataLength),
            Message().header(PCF_TYPE_USER, 0, 1).stringList(1, 0, 5, {"abc", "abcde", "a"}).hex());
  EXPECT_EQ(zaiGetField(out.buffer.data() + 36, 4), 40);
}

TEST_F(Writer, LongestStringFirstAlsoSetsTheListLength) {
  VXHBAG bag = newBag(BAG_OPT_LIST_FORM_ALLOWED);
  addString(bag, 1, "abcdefg");
  addString(bag, 1, "ab");
  Converted out = convert(bag, 0);
  EXPECT_OK(out.cc, out.rc);
  EXPECT_EQ(out.head(out.dataLength),
            Message().header(PCF_TYPE_USER, 0, 1).stringList(1, 0, 7, {"abcdefg", "ab"}).hex());
}

TEST_F(Writer, EmptyStringsFormAListOfStringLengthZero) {
  VXHBAG bag = newBag(BAG_OPT_LIST_FORM_ALLOWED);
  addString(bag, 1, "");
  addString(bag, 1, "");
  Converted out = convert(bag, 0);
  EXPECT_OK(out.cc, out.rc);
  EXPECT_EQ(out.head(out.dataLength),
            Message().header(PCF_TYPE_USER, 0, 1).stringList(1, 0, 0, {"", ""}).hex());
}

TEST_F(Writer, StringsOfOneSelectorInTwoCharacterSetsStaySeparate) {
  VXHBAG bag = newBag(BAG_OPT_LIST_FORM_ALLOWED);
  setInteger(bag, SEL_CODED_CHAR_SET_ID, 1208);
  addString(bag, 1, "ab");
  setInteger(bag, SEL_CODED_CHAR_SET_ID, 850);
  addString(bag, 1, "cdefghi");
  Converted out = convert(bag, 0);
  EXPECT_OK(out.cc, out.rc);
  EXPECT_EQ(
      out.head(out.dataLength),
      Message().header(PCF_TYPE_USER, 0, 2).string(1, 1208, "ab").string(1, 850, "cdefghi").hex());
}

TEST_F(Writer, RepeatedStringApartStaysSingleWithoutReordering) {
  VXHBAG bag = newBag(BAG_OPT_LIST_FORM_ALLOWED);
  addString(bag, 1, "a");
  addInteger(bag, 2, 9);
  addString(bag, 1, "bcd");
  Converted out = convert(bag, 0);
  EXPECT_OK(out.cc, out.rc);
  EXPECT_EQ(out.head(out.dataLength), Message()
                                          .header(PCF_TYPE_USER, 0, 3)
                                          .string(1, 0, "a")
                                          .integer(2, 9)
                                          .string(1, 0, "bcd")
                                          .hex());
}

TEST_F(Writer, RepeatedStringApartJoinsOneListWithReordering) {
  VXHBAG bag = newBag(BAG_OPT_LIST_FORM_ALLOWED | BAG_OPT_REQUIRED_PARMS_FIRST);
  addString(bag, 1, "a");
  addInteger(bag, 2, 9);
  addString(bag, 1, "bcd");
  Converted out = convert(bag, 0);
  EXPECT_OK(out.cc, out.rc);
  EXPECT_EQ(
      out.head(out.dataLength),
      Message().header(PCF_TYPE_USER, 0, 2).stringList(1, 0, 3, {"a", "bcd"}).integer(2, 9).hex());
}

TEST_F(Writer, AttributeListSelectorsAreListsEvenOfOneValue) {
  for (int32_t selector : kAttributeLists) {
    SCOPED_TRACE("selector " + std::to_string(selector));
    VXHBAG bag = newBag(BAG_OPT_LIST_FORM_ALLOWED);
    addInteger(bag, selector, 7);
    Converted out = convert(bag, 0);
    EXPECT_OK(out.cc, out.rc);
    EXPECT_EQ(out.head(out.dataLength),
              Message().header(PCF_TYPE_USER, 0, 1).integerList(selector, {7}).hex());
  }
}

TEST_F(Writer, ListWriterFlagsTheMembersItWrote) {
  VXHBAG bag = newBag(BAG_OPT_LIST_FORM_ALLOWED | BAG_OPT_REQUIRED_PARMS_FIRST);
  addInteger(bag, 1, 1);
  addInteger(bag, 2, 2);
  addInteger(bag, 1, 3);
  std::vector<uint8_t> buffer(64, kFill);
  zaiPCFBUFFER area = controlArea(0, buffer);
  int32_t cc = -1, rc = -1;
  zaiWriteSingleOrListPCFParm(itemAt(bag, 8), &area, zaiDecodeHandle(bag), 8, &cc, &rc);
  EXPECT_OK(cc, rc);
  EXPECT_EQ(area.usedLength, 24);
  EXPECT_EQ(dataOf(buffer.data(), 24), Message().integerList(1, {1, 3}).hex());
  EXPECT_EQ(area.integerList, reinterpret_cast<PCFIntListParm *>(buffer.data()));
  EXPECT_EQ(flagsOf(&area, 11), (std::vector<int32_t>{0, 0, 0, 0, 0, 0, 0, 0, 1, 0, 1}));
}

TEST_F(Writer, ListWalkPassesOverFlaggedMembers) {
  VXHBAG bag = newBag(BAG_OPT_LIST_FORM_ALLOWED | BAG_OPT_REQUIRED_PARMS_FIRST);
  addInteger(bag, 1, 1);
  addInteger(bag, 2, 2);
  addInteger(bag, 1, 3);
  addInteger(bag, 1, 4);
  std::vector<uint8_t> buffer(64, kFill);
  zaiPCFBUFFER area = controlArea(0, buffer);
  *zaiWrittenFlag(&area, 10) = 1;  // as if written ahead as a leading parameter
  int32_t cc = -1, rc = -1;
  zaiWriteSingleOrListPCFParm(itemAt(bag, 8), &area, zaiDecodeHandle(bag), 8, &cc, &rc);
  EXPECT_OK(cc, rc);
  EXPECT_EQ(dataOf(buffer.data(), 24), Message().integerList(1, {1, 4}).hex());
  EXPECT_EQ(area.usedLength, 24);
}

TEST_F(Writer, StringListCountsItsFinalPaddingWithoutWritingIt) {
  VXHBAG bag = newBag(BAG_OPT_LIST_FORM_ALLOWED);
  addString(bag, 1, "ab");
  addString(bag, 1, "cdefghi");
  std::vector<uint8_t> buffer(64, kFill);
  zaiPCFBUFFER area = controlArea(0, buffer);
  int32_t cc = -1, rc = -1;
  zaiWriteSingleOrListPCFParm(itemAt(bag, 8), &area, zaiDecodeHandle(bag), 8, &cc, &rc);
  EXPECT_OK(cc, rc);
  EXPECT_EQ(area.listStringLength, 7);
  EXPECT_EQ(area.currentListLength, 38);
  EXPECT_EQ(area.usedLength, 40);
  EXPECT_EQ(area.stringList, reinterpret_cast<PCFStringListParm *>(buffer.data()));
  EXPECT_EQ(dataOf(buffer.data(), 42),
            Message().stringList(1, 0, 7, {"ab", "cdefghi"}).fill(kFill, 2).hex());
  EXPECT_EQ(flagsOf(&area, 10), (std::vector<int32_t>{0, 0, 0, 0, 0, 0, 0, 0, 1, 1}));
}

// ----- Inquiry items ----------------------------------------------------------------

TEST_F(Writer, InquiryItemsBecomeTheCommandsAttributeList) {
  // Command 13 leads with its string 2016 and inquires through list 1002.
  VXHBAG bag = newBag(BAG_OPT_ADMIN_BAG);
  addInquiry(bag, 3);
  addString(bag, 2016, "Q1");
  addInquiry(bag, 2005);
  addInquiry(bag, 20);
  Converted out = convert(bag, 13);
  EXPECT_OK(out.cc, out.rc);
  EXPECT_EQ(out.head(out.dataLength), Message()
                                          .header(PCF_TYPE_COMMAND, 13, 2)
                                          .string(2016, 0, "Q1")
                                          .integerList(1002, {3, 2005, 20})
                                          .hex());
  EXPECT_EQ(out.msgType, MSGTYPE_REQUEST);
  EXPECT_EQ(out.format, "VXADMIN ");
}

TEST_F(Writer, InquiryListSelectorDependsOnTheCommand) {
  const struct {
    int32_t command;
    int32_t listSelector;
  } cases[] = {{2, 1001},  {7, 1003},  {13, 1002}, {25, 1015}, {36, 1004},
               {41, 1026}, {42, 1524}, {70, 1093}, {83, 1019}};
  for (const auto &c : cases) {
    SCOPED_TRACE("command " + std::to_string(c.command));
    // The items vxAddInquiry adds, in a list-form bag without leading
    // parameters.
    VXHBAG bag = newBag(BAG_OPT_LIST_FORM_ALLOWED);
    addInteger(bag, SEL_INQUIRY_ITEM, 3);
    addInteger(bag, SEL_INQUIRY_ITEM, 20);
    Converted out = convert(bag, c.command);
    EXPECT_OK(out.cc, out.rc);
    EXPECT_EQ(
        out.head(out.dataLength),
        Message().header(PCF_TYPE_USER, c.command, 1).integerList(c.listSelector, {3, 20}).hex());
  }
}

TEST_F(Writer, OneInquiryItemIsAListToo) {
  VXHBAG bag = newBag(BAG_OPT_LIST_FORM_ALLOWED);
  addInteger(bag, SEL_INQUIRY_ITEM, 3);
  Converted out = convert(bag, 2);
  EXPECT_OK(out.cc, out.rc);
  EXPECT_EQ(out.head(out.dataLength),
            Message().header(PCF_TYPE_USER, 2, 1).integerList(1001, {3}).hex());
}

TEST_F(Writer, InquiryItemsWithoutListFormAreSingleIntegers) {
  VXHBAG bag = newBag(0);
  addInteger(bag, SEL_INQUIRY_ITEM, 3);
  addInteger(bag, SEL_INQUIRY_ITEM, 20);
  Converted out = convert(bag, 13);
  EXPECT_OK(out.cc, out.rc);
  EXPECT_EQ(out.head(out.dataLength), Message()
                                          .header(PCF_TYPE_USER, 13, 2)
                                          .integer(SEL_INQUIRY_ITEM, 3)
                                          .integer(SEL_INQUIRY_ITEM, 20)
                                          .hex());
}

TEST_F(Writer, InquiryItemsOfACommandWithoutInquiryFail) {
  VXHBAG bag = newBag(BAG_OPT_LIST_FORM_ALLOWED);
  addInteger(bag, SEL_INQUIRY_ITEM, 3);
  Converted out = convert(bag, 1);
  EXPECT_OUTCOME(out.cc, out.rc, CC_FAILED, RC_COMMAND_HAS_NO_INQUIRY);
  EXPECT_EQ(out.dataLength, 36);
  EXPECT_EQ(out.head(36), Message().header(PCF_TYPE_USER, 1, 0).hex());
  EXPECT_TRUE(out.untouchedFrom(36));
}

// ----- Nested bags ------------------------------------------------------------------

TEST_F(Writer, NestedBagIsRefusedAfterWhatCameBeforeIt) {
  VXHBAG holder = newBag(0);
  addInteger(holder, 1, 5);
  nestBag(holder, 2);
  addInteger(holder, 3, 6);
  Converted out = convert(holder, 4);
  EXPECT_OUTCOME(out.cc, out.rc, CC_FAILED, RC_NESTED_BAG_NOT_SUPPORTED);
  EXPECT_EQ(out.dataLength, 52);
  EXPECT_EQ(out.head(52), Message().header(PCF_TYPE_USER, 4, 1).integer(1, 5).hex());
  EXPECT_TRUE(out.untouchedFrom(52));
}

TEST_F(Writer, NestedBagIsRefusedInAListFormBag) {
  VXHBAG holder = newBag(BAG_OPT_LIST_FORM_ALLOWED | BAG_OPT_REQUIRED_PARMS_FIRST);
  nestBag(holder, 2);
  addInteger(holder, 1, 5);
  Converted out = convert(holder, 0);
  EXPECT_OUTCOME(out.cc, out.rc, CC_FAILED, RC_NESTED_BAG_NOT_SUPPORTED);
  EXPECT_EQ(out.dataLength, 36);
  EXPECT_EQ(out.head(36), Message().header(PCF_TYPE_USER, 0, 0).hex());
  EXPECT_TRUE(out.untouchedFrom(36));
}

// ----- Buffer length ----------------------------------------------------------------

TEST_F(Writer, TenByteBufferStoresNothingButMeasuresTheMessage) {
  VXHBAG bag = newBag(BAG_OPT_LIST_FORM_ALLOWED);
  addInteger(bag, 1, 5);
  addString(bag, 2, "abcde");
  addString(bag, 2, "f");
  const Message expected =
      Message().header(PCF_TYPE_USER, 0, 2).integer(1, 5).stringList(2, 0, 5, {"abcde", "f"});
  Converted out = convert(bag, 0, 10);
  EXPECT_OUTCOME(out.cc, out.rc, CC_FAILED, RC_BUFFER_LENGTH_ERROR);
  EXPECT_EQ(out.dataLength, expected.size());
  EXPECT_TRUE(out.untouchedFrom(0));

  Converted again = convert(bag, 0, out.dataLength);
  EXPECT_OK(again.cc, again.rc);
  EXPECT_EQ(again.dataLength, expected.size());
  EXPECT_EQ(again.head(again.dataLength), expected.hex());
}

TEST_F(Writer, ShortBufferKeepsTheStructuresThatFit) {
  VXHBAG bag = newBag(0);
  addInteger(bag, 1, 5);
  addInteger(bag, 2, 6);
  Converted out = convert(bag, 0, 60);
  EXPECT_OUTCOME(out.cc, out.rc, CC_FAILED, RC_BUFFER_LENGTH_ERROR);
  EXPECT_EQ(out.dataLength, 68);
  // The header counts only the structure that was stored.
  EXPECT_EQ(out.head(52), Message().header(PCF_TYPE_USER, 0, 1).integer(1, 5).hex());
  EXPECT_TRUE(out.untouchedFrom(52));
}

TEST_F(Writer, BufferOfExactlyTheMessageLengthIsEnough) {
  VXHBAG bag = newBag(0);
  addInteger(bag, 1, 5);
  addInteger(bag, 2, 6);
  Converted out = convert(bag, 0, 68);
  EXPECT_OK(out.cc, out.rc);
  EXPECT_EQ(out.head(68), Message().header(PCF_TYPE_USER, 0, 2).integer(1, 5).integer(2, 6).hex());
}

TEST_F(Writer, ZeroLengthWithoutABufferMeasures) {
  VXHBAG bag = newBag(0);
  addString(bag, 1, "abcdefghi");
  Converted out = convert(bag, 0, 0);
  EXPECT_OUTCOME(out.cc, out.rc, CC_FAILED, RC_BUFFER_LENGTH_ERROR);
  EXPECT_EQ(out.dataLength, 36 + 32);
  EXPECT_EQ(out.msgType, -99);
}

TEST_F(Writer, NegativeBufferLengthMeasures) {
  VXHBAG bag = newBag(BAG_OPT_LIST_FORM_ALLOWED);
  addInteger(bag, 1, 5);
  addInteger(bag, 1, 6);
  Converted out = convert(bag, 0, -1);
  EXPECT_OUTCOME(out.cc, out.rc, CC_FAILED, RC_BUFFER_LENGTH_ERROR);
  EXPECT_EQ(out.dataLength, 36 + 24);
}

// ----- vxBagToBuffer ----------------------------------------------------------------

TEST_F(Writer, ExportedCallWritesTheBagsOwnCommand) {
  VXHBAG bag = newBag(BAG_OPT_LIST_FORM_ALLOWED);
  setInteger(bag, SEL_COMMAND, 13);
  addInteger(bag, 1, 5);
  addString(bag, 2, "abc");
  std::vector<uint8_t> buffer(128, kFill);
  int32_t dataLength = -1, cc = -1, rc = -1;
  vxBagToBuffer(BAG_NONE, bag, static_cast<int32_t>(buffer.size()), buffer.data(), &dataLength, &cc,
                &rc);
  EXPECT_OK(cc, rc);
  const Message expected = Message().header(PCF_TYPE_USER, 13, 2).integer(1, 5).string(2, 0, "abc");
  EXPECT_EQ(dataLength, expected.size());
  EXPECT_EQ(dataOf(buffer.data(), static_cast<size_t>(expected.size())), expected.hex());
  // The internal conversion with the same command gives the same bytes.
  Converted out = convert(bag, 13, 128);
  EXPECT_EQ(out.buffer, buffer);
}

TEST_F(Writer, ExportedCallMeasuresWithoutABuffer) {
  VXHBAG bag = newBag(0);
  addString(bag, 1, "abcde");
  int32_t dataLength = -1, cc = -1, rc = -1;
  vxBagToBuffer(BAG_NONE, bag, 0, nullptr, &dataLength, &cc, &rc);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_BUFFER_LENGTH_ERROR);
  EXPECT_EQ(dataLength, 36 + 28);
}

TEST_F(Writer, ExportedCallRefusesANestedBag) {
  VXHBAG holder = newBag(0);
  nestBag(holder, 1);
  std::vector<uint8_t> buffer(64, kFill);
  int32_t dataLength = -1, cc = -1, rc = -1;
  vxBagToBuffer(BAG_NONE, holder, static_cast<int32_t>(buffer.size()), buffer.data(), &dataLength,
                &cc, &rc);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_NESTED_BAG_NOT_SUPPORTED);
  EXPECT_EQ(dataLength, 36);
}

// ----- Library buffers --------------------------------------------------------------

TEST_F(Writer, LibraryBufferIsRetriedWithExactlyTheLengthNeeded) {
  // 36 + 20 + 4944 = 5000 bytes.
  VXHBAG bag = newBag(0);
  const std::string text(4944, 'x');
  addString(bag, 1, text);
  char *buffer = nullptr;
  int32_t dataLength = -1, msgType = -1, cc = -1, rc = -1;
  char format[ZAI_FORMAT_LENGTH] = {};
  std::vector<std::string> tries;
  {
    vxtest::TraceCapture trace(0xC0000, true);
    zaiBagToPCFMsgInVXAIBuffer(zaiDecodeHandle(bag), 0, &buffer, &dataLength, &msgType, format, &cc,
                               &rc);
    tries = vxtest::parmLines(trace, ZAIFN_zaiBagToPCFMsg);
  }
  ASSERT_OK(cc, rc);
  const std::string bagText = vxtest::pointerText(bag);
  EXPECT_EQ(tries, (std::vector<std::string>{
                       "pBag:" + bagText + ", command:0, bufferLength:4096",
                       "pBag:" + bagText + ", command:0, bufferLength:5000",
                   }));
  EXPECT_EQ(dataLength, 5000);
  EXPECT_EQ(msgType, MSGTYPE_DATAGRAM);
  EXPECT_EQ(std::string(format, sizeof format), "VXPCF   ");
  const Live live = liveOf(ZAIFN_zaiBagToPCFMsgInVXAIBuffer);
  EXPECT_EQ(live.blocks, 1);
  EXPECT_EQ(live.bytes, 5000);
  ASSERT_NE(buffer, nullptr);
  EXPECT_EQ(dataOf(buffer, 5000), Message().header(PCF_TYPE_USER, 0, 1).string(1, 0, text).hex());

  zaiFreeVXAIBuffer(&buffer);
  EXPECT_EQ(buffer, nullptr);
  EXPECT_EQ(liveOf(ZAIFN_zaiBagToPCFMsgInVXAIBuffer).blocks, 0);
}

TEST_F(Writer, SmallMessageGetsAFirstBufferOf4096Bytes) {
  VXHBAG bag = newBag(0);
  addInteger(bag, 1, 5);
  char *buffer = nullptr;
  int32_t dataLength = -1, msgType = -1, cc = -1, rc = -1;
  char format[ZAI_FORMAT_LENGTH] = {};
  zaiBagToPCFMsgInVXAIBuffer(zaiDecodeHandle(bag), 9, &buffer, &dataLength, &msgType, format, &cc,
                             &rc);
  ASSERT_OK(cc, rc);
  EXPECT_EQ(dataLength, 52);
  const Live live = liveOf(ZAIFN_zaiBagToPCFMsgInVXAIBuffer);
  EXPECT_EQ(live.blocks, 1);
  EXPECT_EQ(live.bytes, 4096);
  EXPECT_EQ(dataOf(buffer, 52), Message().header(PCF_TYPE_USER, 9, 1).integer(1, 5).hex());
  zaiFreeVXAIBuffer(&buffer);
  EXPECT_EQ(buffer, nullptr);
}

TEST_F(Writer, MessageOfExactly4096BytesNeedsOneTry) {
  // 36 + 20 + 4040 = 4096 bytes.
  VXHBAG bag = newBag(0);
  addString(bag, 1, std::string(4040, 'y'));
  char *buffer = nullptr;
  int32_t dataLength = -1, msgType = -1, cc = -1, rc = -1;
  char format[ZAI_FORMAT_LENGTH] = {};
  std::vector<std::string> tries;
  {
    vxtest::TraceCapture trace(0xC0000, true);
    zaiBagToPCFMsgInVXAIBuffer(zaiDecodeHandle(bag), 0, &buffer, &dataLength, &msgType, format, &cc,
                               &rc);
    tries = vxtest::parmLines(trace, ZAIFN_zaiBagToPCFMsg);
  }
  ASSERT_OK(cc, rc);
  EXPECT_EQ(tries.size(), 1u);
  EXPECT_EQ(dataLength, 4096);
  EXPECT_EQ(liveOf(ZAIFN_zaiBagToPCFMsgInVXAIBuffer).bytes, 4096);
  zaiFreeVXAIBuffer(&buffer);
}

TEST_F(Writer, FailedConversionHandsNoBufferBackAndKeepsTheLastOne) {
  VXHBAG holder = newBag(0);
  nestBag(holder, 1);
  char sentinel = 0;
  char *buffer = &sentinel;
  int32_t dataLength = -1, msgType = -1, cc = -1, rc = -1;
  char format[ZAI_FORMAT_LENGTH] = {};
  zaiBagToPCFMsgInVXAIBuffer(zaiDecodeHandle(holder), 0, &buffer, &dataLength, &msgType, format,
                             &cc, &rc);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_NESTED_BAG_NOT_SUPPORTED);
  EXPECT_EQ(buffer, &sentinel);
  EXPECT_EQ(dataLength, -1);
  EXPECT_EQ(msgType, -1);

  // The buffer of the failed try stays live by design: release it here.
  const Live live = liveOf(ZAIFN_zaiBagToPCFMsgInVXAIBuffer);
  EXPECT_EQ(live.blocks, 1);
  EXPECT_EQ(live.bytes, 4096);
  void *kept = nullptr;
  ASSERT_EQ(svcMemLiveBlock(ZAI_COMPONENT, ZAIFN_zaiBagToPCFMsgInVXAIBuffer, &kept), 0);
  EXPECT_EQ(svcFreeMem(ZAI_COMPONENT, kept), 0);
}

TEST_F(Writer, LibraryBufferAllocationFailureIsStorageNotAvailable) {
  VXHBAG bag = newBag(0);
  addInteger(bag, 1, 5);
  char sentinel = 0;
  char *buffer = &sentinel;
  int32_t dataLength = -1, msgType = -1, cc = -1, rc = -1;
  char format[ZAI_FORMAT_LENGTH] = {};
  svcInjectMemFailure(1);
  zaiBagToPCFMsgInVXAIBuffer(zaiDecodeHandle(bag), 0, &buffer, &dataLength, &msgType, format, &cc,
                             &rc);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_STORAGE_NOT_AVAILABLE);
  EXPECT_EQ(buffer, &sentinel);
  EXPECT_EQ(dataLength, -1);
  EXPECT_EQ(liveOf(ZAIFN_zaiBagToPCFMsgInVXAIBuffer).blocks, 0);
}

TEST_F(Writer, SecondLibraryBufferAllocationFailureLeavesNoBuffer) {
  VXHBAG bag = newBag(0);
  addString(bag, 1, std::string(4944, 'x'));
  char sentinel = 0;
  char *buffer = &sentinel;
  int32_t dataLength = -1, msgType = -1, cc = -1, rc = -1;
  char format[ZAI_FORMAT_LENGTH] = {};
  // The bag uses the area in the frame: the second allocation is the
  // buffer of the second try.
  svcInjectMemFailure(2);
  zaiBagToPCFMsgInVXAIBuffer(zaiDecodeHandle(bag), 0, &buffer, &dataLength, &msgType, format, &cc,
                             &rc);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_STORAGE_NOT_AVAILABLE);
  EXPECT_EQ(buffer, &sentinel);
  EXPECT_EQ(liveOf(ZAIFN_zaiBagToPCFMsgInVXAIBuffer).blocks, 0) << "the first buffer was released";
}

// ----- Control area -----------------------------------------------------------------

TEST_F(Writer, FortyOneItemsWithListFormAllocateTheControlArea) {
  VXHBAG bag = bagOfItems(BAG_OPT_LIST_FORM_ALLOWED, 41);
  svcInjectMemFailure(1);
  Converted failed = convert(bag, 0, 1024);
  EXPECT_OUTCOME(failed.cc, failed.rc, CC_FAILED, RC_STORAGE_NOT_AVAILABLE);
  EXPECT_EQ(failed.dataLength, -99) << "nothing is measured without an area";
  EXPECT_TRUE(failed.untouchedFrom(0));

  Converted out = convert(bag, 0, 1024);
  EXPECT_OK(out.cc, out.rc);
  EXPECT_EQ(out.head(out.dataLength), messageOfItems(41).hex());
}

TEST_F(Writer, ReorderingAloneAlsoAllocatesTheControlArea) {
  VXHBAG bag = bagOfItems(BAG_OPT_REQUIRED_PARMS_FIRST, 41);
  svcInjectMemFailure(1);
  Converted out = convert(bag, 0, 1024);
  EXPECT_OUTCOME(out.cc, out.rc, CC_FAILED, RC_STORAGE_NOT_AVAILABLE);
}

TEST_F(Writer, FortyItemsUseTheControlAreaInTheFrame) {
  VXHBAG bag = bagOfItems(BAG_OPT_LIST_FORM_ALLOWED | BAG_OPT_REQUIRED_PARMS_FIRST, 40);
  svcInjectMemFailure(1);
  Converted out = convert(bag, 0, 1024);
  svcInjectMemFailure(0);
  EXPECT_OK(out.cc, out.rc);
  EXPECT_EQ(out.head(out.dataLength), messageOfItems(40).hex());
}

TEST_F(Writer, FortyOneItemsWithoutFlagsUseTheControlAreaInTheFrame) {
  VXHBAG bag = bagOfItems(0, 41);
  svcInjectMemFailure(1);
  Converted out = convert(bag, 0, 1024);
  svcInjectMemFailure(0);
  EXPECT_OK(out.cc, out.rc);
  EXPECT_EQ(out.head(out.dataLength), messageOfItems(41).hex());
}

TEST_F(Writer, AllocatedAreaFlagsItemsBeyondTheFortieth) {
  VXHBAG bag = newBag(BAG_OPT_LIST_FORM_ALLOWED | BAG_OPT_REQUIRED_PARMS_FIRST);
  Message expected;
  expected.header(PCF_TYPE_USER, 0, 42);
  for (int32_t selector = 1; selector <= 40; ++selector) {
    addInteger(bag, selector, selector);
    expected.integer(selector, selector);
  }
  // Items 48 to 50: the list member at 50 is flagged when the list at 48 is
  // written, and must not go out a second time.
  addInteger(bag, 100, 1);
  addInteger(bag, 101, 2);
  addInteger(bag, 100, 3);
  expected.integerList(100, {1, 3}).integer(101, 2);
  Converted out = convert(bag, 0, 1024);
  EXPECT_OK(out.cc, out.rc);
  EXPECT_EQ(out.head(out.dataLength), expected.hex());
}

// ----- Detailed trace ---------------------------------------------------------------

TEST_F(Writer, EachWriterDumpsTheControlAreaUnderItsOwnNumber) {
  VXHBAG bag = newBag(BAG_OPT_LIST_FORM_ALLOWED);
  addInteger(bag, 1, 5);
  addInteger(bag, 2, 7);
  addInteger(bag, 2, 8);
  std::vector<uint8_t> buffer(256, kFill);
  char *message = reinterpret_cast<char *>(buffer.data());
  int32_t dataLength = -1, msgType = -1, cc = -1, rc = -1;
  char format[ZAI_FORMAT_LENGTH] = {};
  std::vector<AreaDump> dumps;
  std::vector<std::string> headerLines, singleLines;
  {
    vxtest::TraceCapture trace(0x1 | 0xC0000, true);
    zaiBagToPCFMsg(zaiDecodeHandle(bag), 42, 256, message, &dataLength, &msgType, format, &cc, &rc);
    dumps = areaDumps(trace);
    headerLines = vxtest::parmLines(trace, ZAIFN_zaiWritePCFHeader);
    singleLines = vxtest::parmLines(trace, ZAIFN_zaiWriteSinglePCFParm);
  }
  ASSERT_OK(cc, rc);
  const int32_t writers[] = {ZAIFN_zaiWritePCFHeader, ZAIFN_zaiWriteSinglePCFParm,
                             ZAIFN_zaiWritePCFListHeader, ZAIFN_zaiWritePCFListValue,
                             ZAIFN_zaiWritePCFListValue};
  const int32_t usedLengths[] = {36, 52, 68, 72, 76};
  ASSERT_EQ(dumps.size(), 5u);
  for (size_t i = 0; i < dumps.size(); ++i) {
    SCOPED_TRACE("dump " + std::to_string(i));
    EXPECT_EQ(dumps[i].labelFunction, writers[i]);
    EXPECT_EQ(dumps[i].dataFunction, writers[i]);
    EXPECT_EQ(dumps[i].bytes.size(), static_cast<size_t>(kFrameAreaLength));
    EXPECT_EQ(dumps[i].field(offsetof(zaiPCFBUFFER, usedLength)), usedLengths[i]);
  }

  // The area right after the header: everything the driver and the header
  // writer put in it.
  zaiPCFBUFFER afterHeader;
  std::memset(&afterHeader, 0, sizeof afterHeader);
  std::memcpy(afterHeader.eyeCatcher, "ZPBC", 4);
  afterHeader.areaLength = kFrameAreaLength;
  afterHeader.command = 42;
  afterHeader.pcfType = PCF_TYPE_USER;
  afterHeader.buffer = message;
  afterHeader.bufferLength = 256;
  afterHeader.usedLength = 36;
  afterHeader.header = reinterpret_cast<PCFHeader *>(message);
  EXPECT_EQ(dataOf(dumps[0].bytes.data(), dumps[0].bytes.size()),
            dataOf(&afterHeader, sizeof afterHeader));

  EXPECT_EQ(headerLines, (std::vector<std::string>{
                             "pBag:" + vxtest::pointerText(bag) + ", usedLength:0", kAreaLabel}));
  EXPECT_EQ(singleLines,
            (std::vector<std::string>{
                "pItem:" + vxtest::pointerText(itemAt(bag, 8)) + ", selector:1", kAreaLabel}));
}

TEST_F(Writer, AllocatedAreaIsDumpedOverItsOwnLength) {
  VXHBAG bag = bagOfItems(BAG_OPT_LIST_FORM_ALLOWED, 41);
  std::vector<AreaDump> dumps;
  Converted out;
  {
    vxtest::TraceCapture trace(0xC0000, true);
    out = convert(bag, 0, 1024);
    dumps = areaDumps(trace);
  }
  EXPECT_OK(out.cc, out.rc);
  ASSERT_EQ(dumps.size(), 34u) << "the header and 33 integers";
  for (const AreaDump &dump : dumps) {
    // The fixed part and one written flag per item.
    EXPECT_EQ(dump.bytes.size(), offsetof(zaiPCFBUFFER, written) + 41u);
    EXPECT_EQ(dump.field(offsetof(zaiPCFBUFFER, areaLength)),
              static_cast<int32_t>(offsetof(zaiPCFBUFFER, written)) + 41);
  }
}

TEST_F(Writer, NoAreaDumpWithoutDetailedTrace) {
  VXHBAG bag = newBag(BAG_OPT_LIST_FORM_ALLOWED);
  addInteger(bag, 1, 5);
  std::vector<uint8_t> buffer(128, kFill);
  int32_t dataLength = -1, cc = -1, rc = -1;
  std::vector<std::string> lines;
  {
    vxtest::TraceCapture trace(0x1, true);
    vxBagToBuffer(BAG_NONE, bag, 128, buffer.data(), &dataLength, &cc, &rc);
    lines = trace.lines();
  }
  EXPECT_OK(cc, rc);
  EXPECT_FALSE(lines.empty()) << "the API trace is written";
  EXPECT_EQ(std::count(lines.begin(), lines.end(), kAreaLabel), 0);
}

// ----- Damaged items ----------------------------------------------------------------

TEST_F(Writer, CorruptItemTypeIsReportedBySingleWriter) {
  VXHBAG bag = newBag(0);
  addInteger(bag, 1, 5);
  std::vector<uint8_t> buffer(64, kFill);
  zaiPCFBUFFER area = controlArea(0, buffer);
  const int32_t reports = svcFailureReportCount();
  int32_t cc = -1, rc = -1;
  {
    TypeChange corrupt(itemAt(bag, 8), 9);
    zaiWriteSinglePCFParm(itemAt(bag, 8), &area, &cc, &rc);
  }
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_SELECTOR_WRONG_TYPE);
  EXPECT_EQ(area.usedLength, 0);
  EXPECT_EQ(svcFailureReportCount(), reports + 1);
  const std::string report = latestReport();
  EXPECT_NE(report.find("Function      : 134 "), std::string::npos) << report;
  EXPECT_NE(report.find("Result code   : 0x20006122\n"), std::string::npos) << report;
  EXPECT_NE(report.find("Inserts       : XMSA 9 0 0 0\n"), std::string::npos) << report;
  EXPECT_NE(report.find(propertyDumpLabel("Invalid zaiPROPERTY")), std::string::npos) << report;
  EXPECT_TRUE(std::all_of(buffer.begin(), buffer.end(), [](uint8_t b) { return b == kFill; }));
}

TEST_F(Writer, CorruptItemTypeStopsTheConversion) {
  VXHBAG bag = newBag(0);
  addInteger(bag, 1, 5);
  addInteger(bag, 2, 6);
  const int32_t reports = svcFailureReportCount();
  Converted out;
  {
    TypeChange corrupt(itemAt(bag, 8), 9);
    out = convert(bag, 0);
  }
  EXPECT_OUTCOME(out.cc, out.rc, CC_FAILED, RC_SELECTOR_WRONG_TYPE);
  EXPECT_EQ(out.dataLength, 36);
  EXPECT_TRUE(out.untouchedFrom(36));
  EXPECT_EQ(svcFailureReportCount(), reports + 1);
}

TEST_F(Writer, CorruptItemTypeIsReportedByTheListWriters) {
  VXHBAG bag = newBag(BAG_OPT_LIST_FORM_ALLOWED);
  addInteger(bag, 1002, 5);
  std::vector<uint8_t> buffer(64, kFill);
  zaiPCFBUFFER area = controlArea(0, buffer);
  TypeChange corrupt(itemAt(bag, 8), 9);
  int32_t cc = -1, rc = -1;

  int32_t reports = svcFailureReportCount();
  zaiWritePCFListHeader(itemAt(bag, 8), &area, zaiDecodeHandle(bag), 8, 1002, &cc, &rc);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_SELECTOR_WRONG_TYPE);
  EXPECT_EQ(area.usedLength, 0);
  EXPECT_EQ(svcFailureReportCount(), reports + 1);
  std::string report = latestReport();
  EXPECT_NE(report.find("Function      : 137 "), std::string::npos) << report;
  EXPECT_NE(report.find("Result code   : 0x20006122\n"), std::string::npos) << report;

  reports = svcFailureReportCount();
  zaiWritePCFListValue(itemAt(bag, 8), &area, &cc, &rc);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_SELECTOR_WRONG_TYPE);
  EXPECT_EQ(area.usedLength, 0);
  EXPECT_EQ(svcFailureReportCount(), reports + 1);
  report = latestReport();
  EXPECT_NE(report.find("Function      : 138 "), std::string::npos) << report;
  EXPECT_NE(report.find("Inserts       : XMSA 9 0 0 0\n"), std::string::npos) << report;
}

TEST_F(Writer, InquiryStringIsRefusedAsAListValueWithoutAReport) {
  char bytes[] = "abc";
  zaiPROPERTY item = {};
  std::memcpy(item.eyeCatcher, "ZAPR", 4);
  item.selector = SEL_INQUIRY_ITEM;
  item.type = ITEM_TYPE_STRING;
  item.value.string = bytes;
  item.stringLength = 3;
  std::vector<uint8_t> buffer(64, kFill);
  zaiPCFBUFFER area = controlArea(0, buffer);
  area.listStringLength = 3;
  const int32_t reports = svcFailureReportCount();
  int32_t cc = -1, rc = -1;
  zaiWritePCFListValue(&item, &area, &cc, &rc);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_SELECTOR_WRONG_TYPE);
  EXPECT_EQ(area.usedLength, 0);
  EXPECT_EQ(svcFailureReportCount(), reports);
}

// A bag without checked selectors can hold a string under an attribute-list
// selector beside inquiry items.  The list takes values of the kind of the
// item that opened it; a value of the other kind is refused the same way
// whether the buffer has room or the call only measures.
TEST_F(Writer, ListOfOneKindRefusesTheOtherAlikeWhenMeasuringAndWriting) {
  for (bool stringFirst : {true, false}) {
    SCOPED_TRACE(stringFirst ? "string opens the list" : "inquiry opens the list");
    VXHBAG bag = newBag(BAG_OPT_LIST_FORM_ALLOWED | BAG_OPT_REQUIRED_PARMS_FIRST);
    if (stringFirst) addString(bag, 1001, "x");
    addInteger(bag, SEL_INQUIRY_ITEM, 5);
    if (!stringFirst) addString(bag, 1001, "x");
    Converted measured = convert(bag, 2, 0);
    EXPECT_OUTCOME(measured.cc, measured.rc, CC_FAILED, RC_SELECTOR_WRONG_TYPE);
    Converted written = convert(bag, 2, 4096);
    EXPECT_OUTCOME(written.cc, written.rc, CC_FAILED, RC_SELECTOR_WRONG_TYPE);
    EXPECT_EQ(written.dataLength, measured.dataLength);
  }
}

TEST_F(Writer, UnexpectedLookupResultIsReported) {
  // An item that is not in the bag at the index given: its selector is not
  // found from there on.
  VXHBAG bag = newBag(BAG_OPT_LIST_FORM_ALLOWED);
  addInteger(bag, 1, 5);
  zaiPROPERTY stranger = *itemAt(bag, 8);
  stranger.selector = 77;
  std::vector<uint8_t> buffer(64, kFill);
  zaiPCFBUFFER area = controlArea(0, buffer);
  const int32_t reports = svcFailureReportCount();
  int32_t cc = -1, rc = -1;
  zaiWriteSingleOrListPCFParm(&stranger, &area, zaiDecodeHandle(bag), 8, &cc, &rc);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_SELECTOR_NOT_PRESENT);
  EXPECT_EQ(area.usedLength, 0);
  EXPECT_EQ(svcFailureReportCount(), reports + 1);
  const std::string report = latestReport();
  EXPECT_NE(report.find("Function      : 135 "), std::string::npos) << report;
  EXPECT_NE(report.find("Result code   : 0x20006118\n"), std::string::npos) << report;
  EXPECT_NE(report.find("Inserts       : XMSA 2309 0 0 0\n"), std::string::npos) << report;
  EXPECT_NE(report.find(propertyDumpLabel("zaiPROPERTY")), std::string::npos) << report;
}

// ----- Largest string ---------------------------------------------------------------

class WriterLargestString : public Writer {
 protected:
  // Item 8 is the string "ab" under selector 1 that the others are measured
  // for.
  VXHBAG bagStartingWithAb(int32_t options) {
    VXHBAG bag = newBag(options);
    addString(bag, 1, "ab");
    return bag;
  }
  int32_t largest(VXHBAG bag, zaiPCFBUFFER *area, int32_t start = 9) {
    return zaiFindLargestString(zaiDecodeHandle(bag), area, itemAt(bag, 8), start);
  }
  std::vector<uint8_t> noBuffer_;
  zaiPCFBUFFER area_ = controlArea(0, noBuffer_);
};

TEST_F(WriterLargestString, NoFollowingMatchGivesMinusOne) {
  VXHBAG bag = bagStartingWithAb(BAG_OPT_LIST_FORM_ALLOWED);
  EXPECT_EQ(largest(bag, &area_), -1);
  EXPECT_EQ(latestMarker(), vxtest::exitMarker(ZAIFN_zaiFindLargestString, -1));
}

TEST_F(WriterLargestString, GivesTheLargestOfTheFollowingMatches) {
  VXHBAG bag = bagStartingWithAb(BAG_OPT_LIST_FORM_ALLOWED);
  addString(bag, 1, "");
  addString(bag, 1, "abcd");
  addString(bag, 1, "abc");
  EXPECT_EQ(largest(bag, &area_), 4);
  EXPECT_EQ(latestMarker(), vxtest::exitMarker(ZAIFN_zaiFindLargestString, 4));
}

TEST_F(WriterLargestString, EmptyMatchGivesZero) {
  VXHBAG bag = bagStartingWithAb(BAG_OPT_LIST_FORM_ALLOWED);
  addString(bag, 1, "");
  EXPECT_EQ(largest(bag, &area_), 0);
  EXPECT_EQ(latestMarker(), vxtest::exitMarker(ZAIFN_zaiFindLargestString, 0));
}

TEST_F(WriterLargestString, WrittenMatchesArePassedOver) {
  VXHBAG bag = bagStartingWithAb(BAG_OPT_LIST_FORM_ALLOWED);
  addString(bag, 1, "abcdefgh");
  addString(bag, 1, "abc");
  *zaiWrittenFlag(&area_, 9) = 1;
  EXPECT_EQ(largest(bag, &area_), 3);
  *zaiWrittenFlag(&area_, 10) = 1;
  EXPECT_EQ(largest(bag, &area_), -1) << "every match is written";
}

TEST_F(WriterLargestString, StopsAtTheFirstOtherItemWithoutReordering) {
  VXHBAG bag = bagStartingWithAb(BAG_OPT_LIST_FORM_ALLOWED);
  addString(bag, 1, "abc");
  addInteger(bag, 2, 0);
  addString(bag, 1, "abcdefghij");
  EXPECT_EQ(largest(bag, &area_), 3);
  EXPECT_EQ(largest(bag, &area_, 10), -1) << "the scan ends at once";
}

TEST_F(WriterLargestString, ScansToTheEndWithReordering) {
  VXHBAG bag = bagStartingWithAb(BAG_OPT_LIST_FORM_ALLOWED | BAG_OPT_REQUIRED_PARMS_FIRST);
  addString(bag, 1, "abc");
  addInteger(bag, 2, 0);
  addString(bag, 1, "abcdefghij");
  EXPECT_EQ(largest(bag, &area_), 10);
  EXPECT_EQ(largest(bag, &area_, 10), 10);
}

TEST_F(WriterLargestString, OtherCharacterSetIsNoMatch) {
  VXHBAG bag = bagStartingWithAb(BAG_OPT_LIST_FORM_ALLOWED | BAG_OPT_REQUIRED_PARMS_FIRST);
  setInteger(bag, SEL_CODED_CHAR_SET_ID, 850);
  addString(bag, 1, "abcdefgh");
  setInteger(bag, SEL_CODED_CHAR_SET_ID, 0);
  addString(bag, 1, "abc");
  EXPECT_EQ(largest(bag, &area_), 3);
}

// ----- Memory on every path ---------------------------------------------------------

TEST_F(Writer, InjectedFailuresInAConversionLeaveNothingLive) {
  VXHBAG bag = bagOfItems(BAG_OPT_LIST_FORM_ALLOWED, 41);
  const int32_t before = vxtest::liveBlocks();
  int32_t n = 1;
  for (; n <= 10; ++n) {
    SCOPED_TRACE("failing allocation " + std::to_string(n));
    svcInjectMemFailure(n);
    Converted out = convert(bag, 0, 1024);
    svcInjectMemFailure(0);
    EXPECT_EQ(vxtest::liveBlocks(), before);
    if (out.cc == CC_OK) break;
    EXPECT_OUTCOME(out.cc, out.rc, CC_FAILED, RC_STORAGE_NOT_AVAILABLE);
  }
  EXPECT_EQ(n, 2) << "the control area is the conversion's only allocation";
}

TEST_F(Writer, InjectedFailuresInALibraryBufferConversionLeaveOnlyTheKeptBuffer) {
  // 41 items with list form and a message longer than 4096 bytes: each of
  // the two tries allocates a buffer and then a control area.
  VXHBAG bag = newBag(BAG_OPT_LIST_FORM_ALLOWED);
  for (int32_t selector = 1; selector <= 32; ++selector) addInteger(bag, selector, selector);
  addString(bag, 100, std::string(4000, 'z'));
  const int32_t before = vxtest::liveBlocks();
  std::vector<int32_t> kept;
  int32_t n = 1;
  for (; n <= 10; ++n) {
    SCOPED_TRACE("failing allocation " + std::to_string(n));
    char *buffer = nullptr;
    int32_t dataLength = -1, msgType = -1, cc = -1, rc = -1;
    char format[ZAI_FORMAT_LENGTH] = {};
    svcInjectMemFailure(n);
    zaiBagToPCFMsgInVXAIBuffer(zaiDecodeHandle(bag), 0, &buffer, &dataLength, &msgType, format, &cc,
                               &rc);
    svcInjectMemFailure(0);
    if (cc == CC_OK) {
      EXPECT_EQ(dataLength, 36 + 32 * 16 + 20 + 4000);
      zaiFreeVXAIBuffer(&buffer);
      EXPECT_EQ(vxtest::liveBlocks(), before);
      break;
    }
    EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_STORAGE_NOT_AVAILABLE);
    EXPECT_EQ(buffer, nullptr);
    // A failed control area leaves its try's buffer live, by design.
    const int32_t live = liveOf(ZAIFN_zaiBagToPCFMsgInVXAIBuffer).blocks;
    kept.push_back(live);
    void *block = nullptr;
    if (live == 1 && svcMemLiveBlock(ZAI_COMPONENT, ZAIFN_zaiBagToPCFMsgInVXAIBuffer, &block) == 0)
      svcFreeMem(ZAI_COMPONENT, block);
    EXPECT_EQ(vxtest::liveBlocks(), before);
  }
  EXPECT_EQ(n, 5);
  EXPECT_EQ(kept, (std::vector<int32_t>{0, 1, 0, 1}));
}

}  // namespace
