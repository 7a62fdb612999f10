// Bags in the caller's memory: vxBagToBuffer writes a bag as a PCF message
// into a caller's buffer, vxBufferToBag reads one back into a bag.  Their
// parameter checks and the order of them, the measuring of a message that
// does not fit, the API trace, memory failures and concurrent use.
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <climits>
#include <cstring>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "vxtest.h"

namespace {

using vxtest::countOf;
using vxtest::dataOf;
using vxtest::defaultItems;
using vxtest::exitMarker;
using vxtest::handleOf;
using vxtest::integer;
using vxtest::Item;
using vxtest::itemsOf;
using vxtest::liveBlocks;
using vxtest::stringItem;
using vxtest::operator+;
using Lines = std::vector<std::string>;
using Bytes = std::vector<char>;

constexpr int32_t kBufferToBag = ZAIFN_zaiVXBufferToBag;
constexpr int32_t kBagToBuffer = ZAIFN_zaiVXBagToBuffer;
static_assert(kBufferToBag == 111 && kBagToBuffer == 112);

// A bag of the caller's without list form or command options is a user PCF
// message.
constexpr int32_t kUserType = PCF_TYPE_USER;

const std::string kSeparator = "__________";
const std::string kCompOut = "Compcode      : Output Parm";
const std::string kReasonOut = "Reason        : Output Parm";

std::string data(int32_t value) { return dataOf(value); }
std::string data(const void *bytes, size_t length) { return dataOf(bytes, length); }

// A PCF message laid out field by field, every field in the machine's order.
class Message {
 public:
  Message &header(int32_t type, int32_t command, int32_t parameters, int32_t sequence = 1,
                  int32_t control = PCF_CONTROL_LAST, int32_t compCode = CC_OK,
                  int32_t reason = RC_NONE) {
    return words(
        {type, 36, PCF_HEADER_VERSION, command, sequence, control, compCode, reason, parameters});
  }
  Message &integer(int32_t parameter, int32_t value) {
    return words({PCF_TYPE_INTEGER, 16, parameter, value});
  }
  // The string's bytes, then `pad` up to a multiple of 4.
  Message &string(int32_t parameter, const std::string &text, char pad = '\0',
                  int32_t codedCharSetId = 0) {
    const int32_t length = static_cast<int32_t>(text.size());
    words({PCF_TYPE_STRING, 20 + zaiRoundUp4(length), parameter, codedCharSetId, length});
    bytes_.insert(bytes_.end(), text.begin(), text.end());
    bytes_.insert(bytes_.end(), static_cast<size_t>(zaiRoundUp4(length) - length), pad);
    return *this;
  }
  Message &integers(int32_t parameter, const std::vector<int32_t> &values) {
    const int32_t count = static_cast<int32_t>(values.size());
    words({PCF_TYPE_INTEGER_LIST, 16 + 4 * count, parameter, count});
    for (int32_t value : values) words({value});
    return *this;
  }
  // Every string zero padded to `stringLength`, the list to a multiple of 4.
  Message &strings(int32_t parameter, int32_t stringLength, const std::vector<std::string> &texts) {
    const int32_t count = static_cast<int32_t>(texts.size());
    const int32_t used = 24 + count * stringLength;
    words({PCF_TYPE_STRING_LIST, zaiRoundUp4(used), parameter, 0, count, stringLength});
    for (const std::string &text : texts) {
      std::string slot = text;
      slot.resize(static_cast<size_t>(stringLength), '\0');
      bytes_.insert(bytes_.end(), slot.begin(), slot.end());
    }
    bytes_.insert(bytes_.end(), static_cast<size_t>(zaiRoundUp4(used) - used), '\0');
    return *this;
  }

  const char *bytes() const { return bytes_.data(); }
  int32_t length() const { return static_cast<int32_t>(bytes_.size()); }
  Bytes asBytes() const { return bytes_; }

 private:
  Message &words(std::initializer_list<int32_t> values) {
    for (int32_t value : values) {
      char field[4];
      std::memcpy(field, &value, sizeof field);
      bytes_.insert(bytes_.end(), field, field + sizeof field);
    }
    return *this;
  }
  Bytes bytes_;
};

// The outcome of one call, with the caller's data length as the call left it.
struct Outcome {
  int32_t cc = -1;
  int32_t rc = -1;
  int32_t dataLength = -99;
  uint32_t marker = 0;
};

Outcome toBuffer(VXHBAG bag, int32_t length, void *buffer, VXHBAG options = BAG_NONE) {
  Outcome out;
  out.marker = vxBagToBuffer(options, bag, length, buffer, &out.dataLength, &out.cc, &out.rc);
  return out;
}

Outcome toBag(int32_t length, const void *buffer, VXHBAG bag, VXHBAG options = BAG_NONE) {
  Outcome out;
  out.marker = vxBufferToBag(options, length, buffer, bag, &out.cc, &out.rc);
  return out;
}

// The lines of the API trace of one call, rendered.
Lines apiLines(const vxtest::TraceCapture &capture, int32_t function) {
  Lines out;
  for (const vxtest::TraceLine &line : capture.raw())
    if (line.function == function) out.push_back(vxtest::render(line));
  return out;
}

// A message copied into a page that can then only be read.
struct ReadOnlyMessage {
  explicit ReadOnlyMessage(const Message &message) {
    page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    void *mapped = mmap(nullptr, page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    address = mapped == MAP_FAILED ? nullptr : static_cast<char *>(mapped);
    if (address) {
      std::memcpy(address, message.bytes(), static_cast<size_t>(message.length()));
      mprotect(address, page, PROT_READ);
    }
  }
  ~ReadOnlyMessage() {
    if (address) munmap(address, page);
  }
  size_t page;
  char *address;
};

class BufferTest : public vxtest::BagTest {
 protected:
  static void addInteger(VXHBAG bag, int32_t selector, int32_t value) {
    int32_t cc = -1, rc = -1;
    vxAddInteger(bag, selector, value, &cc, &rc);
    EXPECT_OK(cc, rc) << "adding " << value << " under " << selector;
  }
  static void addString(VXHBAG bag, int32_t selector, const std::string &text) {
    int32_t cc = -1, rc = -1;
    vxAddString(bag, selector, static_cast<int32_t>(text.size()), text.data(), &cc, &rc);
    EXPECT_OK(cc, rc) << "adding \"" << text << "\" under " << selector;
  }
  static void setInteger(VXHBAG bag, int32_t selector, int32_t value) {
    int32_t cc = -1, rc = -1;
    vxSetInteger(bag, selector, ITEM_INDEX_NONE, value, &cc, &rc);
    EXPECT_OK(cc, rc) << "setting " << selector;
  }

  // A bag for command 42 with three user items, and the message it makes.
  VXHBAG sampleBag() {
    VXHBAG bag = newBag(0);
    setInteger(bag, SEL_COMMAND, 42);
    addInteger(bag, 5, 7);
    addString(bag, 2001, "ABCD");
    addInteger(bag, 6, -1);
    return bag;
  }
  static Message sampleMessage() {
    return Message().header(kUserType, 42, 3).integer(5, 7).string(2001, "ABCD").integer(6, -1);
  }
  static std::vector<Item> sampleItems() {
    std::vector<Item> items = defaultItems(0, kUserType);
    items[3] = integer(SEL_COMMAND, 42);
    return items + std::vector<Item>{integer(5, 7), stringItem(2001, "ABCD"), integer(6, -1)};
  }

  // A bag with user items of its own, as a target whose loss would show.
  VXHBAG filledBag() {
    VXHBAG bag = newBag(0);
    addInteger(bag, 11, 1100);
    addString(bag, 2011, "kept");
    return bag;
  }

  // The record of a live bag copied and marked as deletion marks it: the
  // address stays readable, so only the eye-catcher tells.
  VXHBAG deletedCopyOf(VXHBAG live) {
    std::memcpy(deletedRecord_.bytes, zaiDecodeHandle(live), sizeof(zaiBAG));
    deletedRecord_.bytes[0] = '?';
    return handleOf(deletedRecord_.bytes);
  }

  // Handles that name no bag, each with what it is.
  std::vector<std::pair<std::string, VXHBAG>> badHandles(VXHBAG live,
                                                         const vxtest::ProtectedPages &pages) {
    return {{"BAG_NONE", BAG_NONE},
            {"odd", live | 1},
            {"zeroed record", zeroedHandle()},
            {"record marked deleted", deletedCopyOf(live)},
            {"inaccessible page", handleOf(pages.none)},
            {"unmapped page", handleOf(pages.unmapped)}};
  }

  // A bag made and deleted again: its handle names a released record.  Use
  // it at once, before anything else is allocated that could take the
  // record's place.
  static VXHBAG deletedBag() {
    VXHBAG bag = BAG_NONE;
    int32_t cc = -1, rc = -1;
    vxCreateBag(0, &bag, &cc, &rc);
    EXPECT_OK(cc, rc);
    const VXHBAG handle = bag;
    vxDeleteBag(&bag, &cc, &rc);
    EXPECT_OK(cc, rc);
    return handle;
  }

  vxtest::LowPage deletedRecord_;
};

// ===== vxBagToBuffer: conversion ==============================================

TEST_F(BufferTest, BagIsWrittenAsAMessageIntoTheCallersBuffer) {
  VXHBAG bag = sampleBag();
  const Message expected = sampleMessage();
  Bytes buffer(static_cast<size_t>(expected.length()), 'x');
  Outcome got = toBuffer(bag, expected.length(), buffer.data());
  EXPECT_OK(got.cc, got.rc);
  EXPECT_EQ(got.dataLength, 92);
  EXPECT_EQ(buffer, expected.asBytes());
  EXPECT_EQ(got.marker, exitMarker(kBagToBuffer, RC_NONE));
  // Writing does not change the bag.
  EXPECT_EQ(itemsOf(bag), sampleItems());
}

TEST_F(BufferTest, CommandOfTheMessageComesFromTheCommandItem) {
  VXHBAG bag = newBag(0);
  addInteger(bag, 5, 1);
  for (int32_t command : {0, 17, 83, -4}) {
    SCOPED_TRACE(command);
    setInteger(bag, SEL_COMMAND, command);
    Bytes buffer(52, 'x');
    Outcome got = toBuffer(bag, 52, buffer.data());
    EXPECT_OK(got.cc, got.rc);
    EXPECT_EQ(buffer, Message().header(kUserType, command, 1).integer(5, 1).asBytes());
  }
}

TEST_F(BufferTest, HeaderCarriesTheBagsSystemItems) {
  VXHBAG bag = newBag(0);
  setInteger(bag, SEL_PCF_TYPE, PCF_TYPE_RESPONSE);
  setInteger(bag, SEL_COMMAND, 9);
  setInteger(bag, SEL_MSG_SEQ_NUMBER, 3);
  setInteger(bag, SEL_CONTROL, 0);
  setInteger(bag, SEL_COMP_CODE, CC_WARNING);
  setInteger(bag, SEL_REASON, 2309);
  Bytes buffer(36, 'x');
  Outcome got = toBuffer(bag, 36, buffer.data());
  EXPECT_OK(got.cc, got.rc);
  EXPECT_EQ(got.dataLength, 36);
  EXPECT_EQ(buffer, Message().header(PCF_TYPE_RESPONSE, 9, 0, 3, 0, CC_WARNING, 2309).asBytes());
}

TEST_F(BufferTest, LargerBufferKeepsItsBytesAfterTheMessage) {
  VXHBAG bag = sampleBag();
  Bytes buffer(200, 'x');
  Outcome got = toBuffer(bag, 200, buffer.data());
  EXPECT_OK(got.cc, got.rc);
  EXPECT_EQ(got.dataLength, 92);
  EXPECT_EQ(Bytes(buffer.begin(), buffer.begin() + 92), sampleMessage().asBytes());
  EXPECT_EQ(Bytes(buffer.begin() + 92, buffer.end()), Bytes(108, 'x'));
}

TEST_F(BufferTest, TooShortBufferIsMeasuredAndRetryWithThatLengthSucceeds) {
  VXHBAG bag = sampleBag();
  // The header alone does not fit in 10 bytes, so nothing is stored.
  Bytes buffer(128, 'x');
  Outcome got = toBuffer(bag, 10, buffer.data());
  EXPECT_OUTCOME(got.cc, got.rc, CC_FAILED, RC_BUFFER_LENGTH_ERROR);
  EXPECT_EQ(got.dataLength, 92);
  EXPECT_EQ(got.marker, exitMarker(kBagToBuffer, RC_BUFFER_LENGTH_ERROR));
  EXPECT_EQ(buffer, Bytes(128, 'x'));

  Bytes exact(static_cast<size_t>(got.dataLength), 'x');
  Outcome retry = toBuffer(bag, got.dataLength, exact.data());
  EXPECT_OK(retry.cc, retry.rc);
  EXPECT_EQ(retry.dataLength, 92);
  EXPECT_EQ(exact, sampleMessage().asBytes());
  EXPECT_EQ(itemsOf(bag), sampleItems());
}

TEST_F(BufferTest, ShortBufferIsNeverWrittenPastItsLength) {
  VXHBAG bag = sampleBag();
  for (int32_t length : {35, 36, 51, 52, 75, 91}) {
    SCOPED_TRACE(length);
    Bytes buffer(128, 'x');
    Outcome got = toBuffer(bag, length, buffer.data());
    EXPECT_OUTCOME(got.cc, got.rc, CC_FAILED, RC_BUFFER_LENGTH_ERROR);
    EXPECT_EQ(got.dataLength, 92);
    EXPECT_EQ(Bytes(buffer.begin() + length, buffer.end()),
              Bytes(static_cast<size_t>(128 - length), 'x'));
  }
}

TEST_F(BufferTest, ZeroOrNegativeLengthOnlyMeasures) {
  VXHBAG bag = sampleBag();
  vxtest::ProtectedPages pages;
  // No buffer is checked or touched for a length of 0 or less, whatever the
  // address.
  for (void *buffer : {static_cast<void *>(nullptr), pages.none, pages.readOnly, pages.unmapped}) {
    for (int32_t length : {0, -1, -92, INT_MIN}) {
      SCOPED_TRACE(std::to_string(length) + " at " +
                   std::to_string(reinterpret_cast<uintptr_t>(buffer)));
      Outcome got = toBuffer(bag, length, buffer);
      EXPECT_OUTCOME(got.cc, got.rc, CC_FAILED, RC_BUFFER_LENGTH_ERROR);
      EXPECT_EQ(got.dataLength, 92);
    }
  }
  EXPECT_EQ(static_cast<const char *>(pages.readOnly)[0], 'R');
}

TEST_F(BufferTest, SystemBagIsAcceptedAsSource) {
  VXHBAG bag = newSystemBag(BAG_OPT_SYSTEM_BAG);
  int32_t cc = -1, rc = -1;
  zaiAddInteger(zaiDecodeHandle(bag), 5, 9, &cc, &rc);
  ASSERT_OK(cc, rc);
  const Message expected = Message().header(kUserType, 0, 1).integer(5, 9);
  Bytes buffer(static_cast<size_t>(expected.length()), 'x');
  Outcome got = toBuffer(bag, expected.length(), buffer.data());
  EXPECT_OK(got.cc, got.rc);
  EXPECT_EQ(got.dataLength, expected.length());
  EXPECT_EQ(buffer, expected.asBytes());
}

// ===== vxBagToBuffer: parameter checks ========================================

TEST_F(BufferTest, BagToBufferRefusesAnyOptionsBag) {
  VXHBAG bag = sampleBag();
  VXHBAG other = newBag(0);
  for (VXHBAG options : {other, 0, -1, 1, BAG_NONE - 1}) {
    SCOPED_TRACE(options);
    Bytes buffer(92, 'x');
    const int32_t blocks = liveBlocks();
    Outcome got = toBuffer(bag, 92, buffer.data(), options);
    EXPECT_OUTCOME(got.cc, got.rc, CC_FAILED, RC_OPTIONS_ERROR);
    EXPECT_EQ(got.marker, exitMarker(kBagToBuffer, RC_OPTIONS_ERROR));
    EXPECT_EQ(got.dataLength, -99);
    EXPECT_EQ(buffer, Bytes(92, 'x'));
    EXPECT_EQ(liveBlocks(), blocks);
  }
  EXPECT_EQ(itemsOf(bag), sampleItems());
  EXPECT_EQ(itemsOf(other), defaultItems(0, kUserType));
}

TEST_F(BufferTest, BagToBufferChecksTheOptionsBagBeforeAnythingElse) {
  // Bad buffer, bad data length and bad bag: the options bag is reported.
  int32_t cc = -1, rc = -1;
  vxBagToBuffer(0, BAG_NONE, 10, nullptr, nullptr, &cc, &rc);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_OPTIONS_ERROR);
  vxtest::ProtectedPages pages;
  vxBagToBuffer(1, zeroedHandle(), 10, pages.readOnly, static_cast<int32_t *>(pages.none), &cc,
                &rc);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_OPTIONS_ERROR);
}

TEST_F(BufferTest, BufferThatCannotBeWrittenIsRefused) {
  VXHBAG bag = sampleBag();
  vxtest::ProtectedPages pages;
  vxtest::PageEdge edge;
  ASSERT_NE(edge.base, nullptr);
  const std::pair<std::string, void *> buffers[] = {
      {"null", nullptr},
      {"read-only page", pages.readOnly},
      {"inaccessible page", pages.none},
      {"unmapped page", pages.unmapped},
      {"runs into an inaccessible page", edge.tail(50)}};
  for (const auto &[what, buffer] : buffers) {
    SCOPED_TRACE(what);
    const int32_t blocks = liveBlocks();
    Outcome got = toBuffer(bag, 92, buffer);
    EXPECT_OUTCOME(got.cc, got.rc, CC_FAILED, RC_BUFFER_ERROR);
    EXPECT_EQ(got.marker, exitMarker(kBagToBuffer, RC_BUFFER_ERROR));
    EXPECT_EQ(got.dataLength, -99);
    EXPECT_EQ(liveBlocks(), blocks);
  }
  EXPECT_EQ(std::string(static_cast<const char *>(pages.readOnly), 92), std::string(92, 'R'));
  EXPECT_EQ(std::string(edge.tail(50), 50), std::string(50, 'A'));
  EXPECT_EQ(itemsOf(bag), sampleItems());
  // The same 50 bytes before the inaccessible page are enough for a shorter
  // message.
  VXHBAG small = newBag(0);
  Outcome got = toBuffer(small, 50, edge.tail(50));
  EXPECT_OK(got.cc, got.rc);
  EXPECT_EQ(got.dataLength, 36);
}

TEST_F(BufferTest, BagToBufferChecksTheBufferBeforeTheDataLength) {
  VXHBAG bag = sampleBag();
  vxtest::ProtectedPages pages;
  int32_t cc = -1, rc = -1;
  vxBagToBuffer(BAG_NONE, bag, 92, pages.readOnly, nullptr, &cc, &rc);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_BUFFER_ERROR);
  vxBagToBuffer(BAG_NONE, bag, 92, nullptr, static_cast<int32_t *>(pages.readOnly), &cc, &rc);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_BUFFER_ERROR);
}

TEST_F(BufferTest, DataLengthThatCannotBeWrittenIsRefused) {
  VXHBAG bag = sampleBag();
  vxtest::ProtectedPages pages;
  vxtest::PageEdge edge;
  ASSERT_NE(edge.base, nullptr);
  const std::pair<std::string, void *> variables[] = {
      {"null", nullptr},
      {"read-only page", pages.readOnly},
      {"inaccessible page", pages.none},
      {"unmapped page", pages.unmapped},
      {"runs into an inaccessible page", edge.tail(2)}};
  for (const auto &[what, variable] : variables) {
    SCOPED_TRACE(what);
    Bytes buffer(92, 'x');
    int32_t cc = -1, rc = -1;
    uint32_t marker =
        vxBagToBuffer(BAG_NONE, bag, 92, buffer.data(), static_cast<int32_t *>(variable), &cc, &rc);
    EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_DATA_LENGTH_ERROR);
    EXPECT_EQ(marker, exitMarker(kBagToBuffer, RC_DATA_LENGTH_ERROR));
    EXPECT_EQ(buffer, Bytes(92, 'x'));
  }
  EXPECT_EQ(std::string(static_cast<const char *>(pages.readOnly), 4), "RRRR");
  EXPECT_EQ(itemsOf(bag), sampleItems());
}

TEST_F(BufferTest, DataLengthIsCheckedAlsoWhenTheBufferIsNot) {
  VXHBAG bag = sampleBag();
  vxtest::ProtectedPages pages;
  int32_t cc = -1, rc = -1;
  vxBagToBuffer(BAG_NONE, bag, 0, pages.none, nullptr, &cc, &rc);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_DATA_LENGTH_ERROR);
  vxBagToBuffer(BAG_NONE, bag, -1, nullptr, static_cast<int32_t *>(pages.readOnly), &cc, &rc);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_DATA_LENGTH_ERROR);
}

TEST_F(BufferTest, BagToBufferChecksTheDataLengthBeforeTheBag) {
  vxtest::ProtectedPages pages;
  Bytes buffer(92, 'x');
  int32_t cc = -1, rc = -1;
  vxBagToBuffer(BAG_NONE, BAG_NONE, 92, buffer.data(), nullptr, &cc, &rc);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_DATA_LENGTH_ERROR);
  vxBagToBuffer(BAG_NONE, zeroedHandle(), 92, buffer.data(), static_cast<int32_t *>(pages.none),
                &cc, &rc);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_DATA_LENGTH_ERROR);
}

TEST_F(BufferTest, BagToBufferRefusesHandlesThatNameNoBag) {
  VXHBAG live = sampleBag();
  vxtest::ProtectedPages pages;
  for (const auto &[what, handle] : badHandles(live, pages)) {
    SCOPED_TRACE(what);
    Bytes buffer(92, 'x');
    const int32_t blocks = liveBlocks();
    Outcome got = toBuffer(handle, 92, buffer.data());
    EXPECT_OUTCOME(got.cc, got.rc, CC_FAILED, RC_BAG_HANDLE_ERROR);
    EXPECT_EQ(got.marker, exitMarker(kBagToBuffer, RC_BAG_HANDLE_ERROR));
    EXPECT_EQ(got.dataLength, -99);
    EXPECT_EQ(buffer, Bytes(92, 'x'));
    EXPECT_EQ(liveBlocks(), blocks);
  }
  EXPECT_EQ(deletedRecord_.bytes[0], '?');
  EXPECT_EQ(itemsOf(live), sampleItems());
}

TEST_F(BufferTest, BagToBufferRefusesADeletedBag) {
  Bytes buffer(92, 'x');
  Outcome got = toBuffer(deletedBag(), 92, buffer.data());
  EXPECT_OUTCOME(got.cc, got.rc, CC_FAILED, RC_BAG_HANDLE_ERROR);
  EXPECT_EQ(got.dataLength, -99);
  EXPECT_EQ(buffer, Bytes(92, 'x'));
}

// ===== vxBufferToBag: conversion ==============================================

TEST_F(BufferTest, MessageReplacesWhatTheBagHeld) {
  VXHBAG bag = filledBag();
  const Message message = sampleMessage();
  Outcome got = toBag(message.length(), message.bytes(), bag);
  EXPECT_OK(got.cc, got.rc);
  EXPECT_EQ(got.marker, exitMarker(kBufferToBag, RC_NONE));
  EXPECT_EQ(itemsOf(bag), sampleItems());
}

TEST_F(BufferTest, ListsComeBackAsOneItemPerValue) {
  VXHBAG bag = newBag(0);
  const Message message = Message()
                              .header(PCF_TYPE_RESPONSE, 13, 3, 2, 0, CC_WARNING, 3008)
                              .integers(10, {4, 5, 6})
                              .strings(2002, 3, {"ab", "cde"})
                              .string(2003, "xyz", '!');
  Outcome got = toBag(message.length(), message.bytes(), bag);
  EXPECT_OK(got.cc, got.rc);
  const std::vector<Item> expected = {integer(SEL_BAG_OPTIONS, 0),
                                      integer(SEL_PCF_TYPE, PCF_TYPE_RESPONSE),
                                      integer(SEL_CODED_CHAR_SET_ID, 0),
                                      integer(SEL_COMMAND, 13),
                                      integer(SEL_MSG_SEQ_NUMBER, 2),
                                      integer(SEL_CONTROL, 0),
                                      integer(SEL_COMP_CODE, CC_WARNING),
                                      integer(SEL_REASON, 3008),
                                      integer(10, 4),
                                      integer(10, 5),
                                      integer(10, 6),
                                      stringItem(2002, std::string("ab\0", 3)),
                                      stringItem(2002, "cde"),
                                      stringItem(2003, "xyz")};
  EXPECT_EQ(itemsOf(bag), expected);
}

TEST_F(BufferTest, ReadOnlyBufferIsAccepted) {
  VXHBAG bag = filledBag();
  ReadOnlyMessage message(sampleMessage());
  ASSERT_NE(message.address, nullptr);
  Outcome got = toBag(sampleMessage().length(), message.address, bag);
  EXPECT_OK(got.cc, got.rc);
  EXPECT_EQ(itemsOf(bag), sampleItems());
}

TEST_F(BufferTest, MessageReadBackGivesTheSameItems) {
  VXHBAG source = newBag(0);
  setInteger(source, SEL_PCF_TYPE, PCF_TYPE_RESPONSE);
  setInteger(source, SEL_COMMAND, 13);
  setInteger(source, SEL_MSG_SEQ_NUMBER, 4);
  setInteger(source, SEL_CONTROL, 0);
  setInteger(source, SEL_COMP_CODE, CC_FAILED);
  setInteger(source, SEL_REASON, RC_COMMAND_FAILED);
  addInteger(source, 1, 100);
  addString(source, 2001, "first");
  addInteger(source, 1, 200);
  addString(source, 2002, "");
  addString(source, 2003, std::string(150, 'L'));
  addInteger(source, 0, INT_MIN);
  addString(source, 2001, std::string("a\0b", 3));

  int32_t length = -1, cc = -1, rc = -1;
  vxBagToBuffer(BAG_NONE, source, 0, nullptr, &length, &cc, &rc);
  ASSERT_OUTCOME(cc, rc, CC_FAILED, RC_BUFFER_LENGTH_ERROR);
  Bytes buffer(static_cast<size_t>(length));
  Outcome written = toBuffer(source, length, buffer.data());
  ASSERT_OK(written.cc, written.rc);
  EXPECT_EQ(written.dataLength, length);

  VXHBAG target = filledBag();
  Outcome read = toBag(length, buffer.data(), target);
  EXPECT_OK(read.cc, read.rc);
  EXPECT_EQ(itemsOf(target), itemsOf(source));
}

TEST_F(BufferTest, ListFormBagReadBackGivesTheSameItems) {
  // Adjacent items of one selector travel as a list; strings of one length
  // come back as they were.
  VXHBAG source = newBag(BAG_OPT_LIST_FORM_ALLOWED);
  for (int32_t value : {1, 2, 3}) addInteger(source, 10, value);
  addString(source, 2001, "four");
  addString(source, 2001, "five");
  addInteger(source, 11, 6);
  Bytes buffer(256);
  Outcome written = toBuffer(source, 256, buffer.data());
  ASSERT_OK(written.cc, written.rc);
  EXPECT_EQ(written.dataLength, 36 + 28 + 32 + 16);
  VXHBAG target = newBag(BAG_OPT_LIST_FORM_ALLOWED);
  Outcome read = toBag(written.dataLength, buffer.data(), target);
  EXPECT_OK(read.cc, read.rc);
  EXPECT_EQ(itemsOf(target), itemsOf(source));
}

TEST_F(BufferTest, EmptyNullBufferReachesTheReaderAndClearsTheBag) {
  VXHBAG bag = filledBag();
  setInteger(bag, SEL_CODED_CHAR_SET_ID, 437);
  Outcome got = toBag(0, nullptr, bag);
  EXPECT_OUTCOME(got.cc, got.rc, CC_FAILED, RC_PCF_FORMAT_ERROR);
  EXPECT_EQ(got.marker, exitMarker(kBufferToBag, RC_PCF_FORMAT_ERROR));
  // Cleared before the message was found wanting; the character set stays.
  std::vector<Item> cleared = defaultItems(0, kUserType);
  cleared[2] = integer(SEL_CODED_CHAR_SET_ID, 437);
  EXPECT_EQ(itemsOf(bag), cleared);
  // A length of 0 ignores even an address that cannot be read.
  vxtest::ProtectedPages pages;
  addInteger(bag, 11, 1);
  got = toBag(0, pages.none, bag);
  EXPECT_OUTCOME(got.cc, got.rc, CC_FAILED, RC_PCF_FORMAT_ERROR);
  EXPECT_EQ(itemsOf(bag), cleared);
}

// ===== vxBufferToBag: parameter checks ========================================

TEST_F(BufferTest, BufferToBagRefusesAnyOptionsBag) {
  VXHBAG bag = filledBag();
  VXHBAG other = newBag(0);
  const std::vector<Item> before = itemsOf(bag);
  const Message message = sampleMessage();
  for (VXHBAG options : {other, 0, -1, 1, BAG_NONE - 1}) {
    SCOPED_TRACE(options);
    const int32_t blocks = liveBlocks();
    Outcome got = toBag(message.length(), message.bytes(), bag, options);
    EXPECT_OUTCOME(got.cc, got.rc, CC_FAILED, RC_OPTIONS_ERROR);
    EXPECT_EQ(got.marker, exitMarker(kBufferToBag, RC_OPTIONS_ERROR));
    EXPECT_EQ(itemsOf(bag), before);
    EXPECT_EQ(liveBlocks(), blocks);
  }
  EXPECT_EQ(itemsOf(other), defaultItems(0, kUserType));
}

TEST_F(BufferTest, BufferToBagChecksTheOptionsBagBeforeTheLength) {
  int32_t cc = -1, rc = -1;
  vxBufferToBag(0, -1, nullptr, BAG_NONE, &cc, &rc);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_OPTIONS_ERROR);
  vxtest::ProtectedPages pages;
  vxBufferToBag(1, 36, pages.none, zeroedHandle(), &cc, &rc);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_OPTIONS_ERROR);
}

TEST_F(BufferTest, NegativeLengthIsRefused) {
  VXHBAG bag = filledBag();
  const std::vector<Item> before = itemsOf(bag);
  const Message message = sampleMessage();
  for (int32_t length : {-1, -92, INT_MIN}) {
    SCOPED_TRACE(length);
    Outcome got = toBag(length, message.bytes(), bag);
    EXPECT_OUTCOME(got.cc, got.rc, CC_FAILED, RC_BUFFER_LENGTH_ERROR);
    EXPECT_EQ(got.marker, exitMarker(kBufferToBag, RC_BUFFER_LENGTH_ERROR));
    EXPECT_EQ(itemsOf(bag), before);
  }
}

TEST_F(BufferTest, BufferToBagChecksTheLengthBeforeTheBag) {
  int32_t cc = -1, rc = -1;
  vxBufferToBag(BAG_NONE, -1, nullptr, BAG_NONE, &cc, &rc);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_BUFFER_LENGTH_ERROR);
  VXHBAG system = newSystemBag();
  vxBufferToBag(BAG_NONE, -5, sampleMessage().bytes(), system, &cc, &rc);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_BUFFER_LENGTH_ERROR);
}

TEST_F(BufferTest, BufferThatCannotBeReadIsRefused) {
  VXHBAG bag = filledBag();
  const std::vector<Item> before = itemsOf(bag);
  vxtest::ProtectedPages pages;
  vxtest::PageEdge edge;
  ASSERT_NE(edge.base, nullptr);
  const std::pair<std::string, const void *> buffers[] = {
      {"null", nullptr},
      {"inaccessible page", pages.none},
      {"unmapped page", pages.unmapped},
      {"runs into an inaccessible page", edge.tail(50)}};
  for (const auto &[what, buffer] : buffers) {
    SCOPED_TRACE(what);
    const int32_t blocks = liveBlocks();
    Outcome got = toBag(92, buffer, bag);
    EXPECT_OUTCOME(got.cc, got.rc, CC_FAILED, RC_BUFFER_ERROR);
    EXPECT_EQ(got.marker, exitMarker(kBufferToBag, RC_BUFFER_ERROR));
    EXPECT_EQ(itemsOf(bag), before);
    EXPECT_EQ(liveBlocks(), blocks);
  }
}

TEST_F(BufferTest, BufferToBagChecksTheBufferBeforeTheBag) {
  vxtest::ProtectedPages pages;
  int32_t cc = -1, rc = -1;
  vxBufferToBag(BAG_NONE, 36, nullptr, BAG_NONE, &cc, &rc);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_BUFFER_ERROR);
  VXHBAG system = newSystemBag();
  vxBufferToBag(BAG_NONE, 36, pages.unmapped, system, &cc, &rc);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_BUFFER_ERROR);
}

TEST_F(BufferTest, BufferToBagChecksTheBagBeforeReadingAnEmptyBuffer) {
  int32_t cc = -1, rc = -1;
  vxBufferToBag(BAG_NONE, 0, nullptr, BAG_NONE, &cc, &rc);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_BAG_HANDLE_ERROR);
  VXHBAG system = newSystemBag();
  vxBufferToBag(BAG_NONE, 0, nullptr, system, &cc, &rc);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_SYSTEM_BAG_NOT_ALTERABLE);
}

TEST_F(BufferTest, BufferToBagRefusesHandlesThatNameNoBag) {
  VXHBAG live = filledBag();
  const std::vector<Item> before = itemsOf(live);
  const Message message = sampleMessage();
  vxtest::ProtectedPages pages;
  for (const auto &[what, handle] : badHandles(live, pages)) {
    SCOPED_TRACE(what);
    const int32_t blocks = liveBlocks();
    Outcome got = toBag(message.length(), message.bytes(), handle);
    EXPECT_OUTCOME(got.cc, got.rc, CC_FAILED, RC_BAG_HANDLE_ERROR);
    EXPECT_EQ(got.marker, exitMarker(kBufferToBag, RC_BAG_HANDLE_ERROR));
    EXPECT_EQ(liveBlocks(), blocks);
  }
  EXPECT_EQ(deletedRecord_.bytes[0], '?');
  EXPECT_EQ(itemsOf(live), before);
}

TEST_F(BufferTest, BufferToBagRefusesADeletedBag) {
  const Message message = sampleMessage();
  Outcome got = toBag(message.length(), message.bytes(), deletedBag());
  EXPECT_OUTCOME(got.cc, got.rc, CC_FAILED, RC_BAG_HANDLE_ERROR);
}

TEST_F(BufferTest, SystemBagCannotBeTheTarget) {
  VXHBAG system = newSystemBag();
  const std::vector<Item> before = itemsOf(system);
  const Message message = sampleMessage();
  Outcome got = toBag(message.length(), message.bytes(), system);
  EXPECT_OUTCOME(got.cc, got.rc, CC_FAILED, RC_SYSTEM_BAG_NOT_ALTERABLE);
  EXPECT_EQ(got.marker, exitMarker(kBufferToBag, RC_SYSTEM_BAG_NOT_ALTERABLE));
  EXPECT_EQ(itemsOf(system), before);
}

// ===== API trace ==============================================================

TEST_F(BufferTest, BagToBufferTrace) {
  VXHBAG bag = sampleBag();
  Bytes buffer(92, 'x');
  vxtest::TraceCapture capture(0x1);
  Outcome got = toBuffer(bag, 92, buffer.data());
  EXPECT_OK(got.cc, got.rc);
  const Message message = sampleMessage();
  const Lines expected = {kSeparator,
                          "vxBagToBuffer >>",
                          "OptionsBag:",
                          data(BAG_NONE),
                          "DataBag:",
                          data(bag),
                          "Bufferlength:",
                          data(92),
                          "Buffer        : Output Parm",
                          "DataLength    : Output Parm",
                          kCompOut,
                          kReasonOut,
                          kSeparator,
                          "vxBagToBuffer <<",
                          "OptionsBag    : Input  Parm",
                          "DataBag       : Input  Parm",
                          "BufferLength  : Input  Parm",
                          "Buffer:",
                          data(message.bytes(), 92),
                          "Datalength:",
                          data(92),
                          "Compcode:",
                          data(CC_OK),
                          "Reason:",
                          data(RC_NONE)};
  EXPECT_EQ(apiLines(capture, kBagToBuffer), expected);
}

TEST_F(BufferTest, BagToBufferTraceCutsABufferOfMoreThan127Bytes) {
  VXHBAG bag = sampleBag();
  const Message message = sampleMessage();
  for (int32_t length : {127, 128, 300}) {
    SCOPED_TRACE(length);
    Bytes buffer(static_cast<size_t>(length), 'x');
    Lines lines;
    {
      vxtest::TraceCapture capture(0x1);
      Outcome got = toBuffer(bag, length, buffer.data());
      EXPECT_OK(got.cc, got.rc);
      lines = apiLines(capture, kBagToBuffer);
    }
    // The dump covers the buffer over the length the caller gave, message
    // and untouched bytes alike.
    Bytes shown = message.asBytes();
    shown.resize(static_cast<size_t>(length), 'x');
    Lines dump = {"Buffer:"};
    if (length <= 127) {
      dump.push_back(data(shown.data(), shown.size()));
    } else {
      dump.push_back(data(shown.data(), 64));
      dump.push_back("..............");
      dump.push_back(data(shown.data() + length - 64, 64));
    }
    dump =
        dump + Lines{"Datalength:", data(92), "Compcode:", data(CC_OK), "Reason:", data(RC_NONE)};
    ASSERT_GE(lines.size(), dump.size());
    EXPECT_EQ(Lines(lines.end() - static_cast<std::ptrdiff_t>(dump.size()), lines.end()), dump);
  }
}

TEST_F(BufferTest, BagToBufferTraceWithoutBufferOrDataLength) {
  VXHBAG bag = sampleBag();
  {
    // A measuring call.
    vxtest::TraceCapture capture(0x1);
    Outcome got = toBuffer(bag, 0, nullptr);
    EXPECT_OUTCOME(got.cc, got.rc, CC_FAILED, RC_BUFFER_LENGTH_ERROR);
    const Lines tail = {"Buffer:",   "NULL",          "Datalength:", data(92),
                        "Compcode:", data(CC_FAILED), "Reason:",     data(RC_BUFFER_LENGTH_ERROR)};
    const Lines lines = apiLines(capture, kBagToBuffer);
    ASSERT_EQ(lines.size(), 17u + tail.size());
    EXPECT_EQ(lines[7], data(0));
    EXPECT_EQ(Lines(lines.begin() + 17, lines.end()), tail);
  }
  {
    vxtest::TraceCapture capture(0x1);
    int32_t cc = -1, rc = -1;
    vxBagToBuffer(BAG_NONE, bag, 0, nullptr, nullptr, &cc, &rc);
    EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_DATA_LENGTH_ERROR);
    const Lines tail = {"Buffer:",       "NULL",    "Datalength: NULL",        "Compcode:",
                        data(CC_FAILED), "Reason:", data(RC_DATA_LENGTH_ERROR)};
    const Lines lines = apiLines(capture, kBagToBuffer);
    ASSERT_EQ(lines.size(), 17u + tail.size());
    EXPECT_EQ(Lines(lines.begin() + 17, lines.end()), tail);
  }
}

TEST_F(BufferTest, BufferToBagTrace) {
  VXHBAG bag = newBag(0);
  const Message message = sampleMessage();
  vxtest::TraceCapture capture(0x1);
  Outcome got = toBag(message.length(), message.bytes(), bag);
  EXPECT_OK(got.cc, got.rc);
  const Lines expected = {kSeparator,
                          "vxBufferToBag >>",
                          "OptionsBag:",
                          data(BAG_NONE),
                          "Bufferlength:",
                          data(92),
                          "Buffer:",
                          data(message.bytes(), 92),
                          "DataBag:",
                          data(bag),
                          kCompOut,
                          kReasonOut,
                          kSeparator,
                          "vxBufferToBag <<",
                          "OptionsBag    : Input  Parm",
                          "BufferLength  : Input  Parm",
                          "Buffer        : Input  Parm",
                          "DataBag       : Input  Parm",
                          "Compcode:",
                          data(CC_OK),
                          "Reason:",
                          data(RC_NONE)};
  EXPECT_EQ(apiLines(capture, kBufferToBag), expected);
}

TEST_F(BufferTest, BufferToBagTraceCutsABufferOfMoreThan127Bytes) {
  VXHBAG bag = newBag(0);
  std::string text(200, 'm');
  for (size_t i = 0; i < text.size(); ++i) text[i] = static_cast<char>('a' + i % 26);
  const Message message = Message().header(kUserType, 0, 1).string(2001, text);
  ASSERT_EQ(message.length(), 256);
  // The dump follows the length argument, whether or not the message is
  // whole within it.
  const struct {
    int32_t length;
    int32_t reason;
  } cases[] = {{127, RC_PCF_FORMAT_ERROR}, {128, RC_PCF_FORMAT_ERROR}, {256, RC_NONE}};
  for (const auto &c : cases) {
    SCOPED_TRACE(c.length);
    Lines lines;
    {
      vxtest::TraceCapture capture(0x1);
      Outcome got = toBag(c.length, message.bytes(), bag);
      EXPECT_OUTCOME(got.cc, got.rc, c.reason == RC_NONE ? CC_OK : CC_FAILED, c.reason);
      lines = apiLines(capture, kBufferToBag);
    }
    Lines dump = {"Bufferlength:", data(c.length), "Buffer:"};
    if (c.length <= 127) {
      dump.push_back(data(message.bytes(), static_cast<size_t>(c.length)));
    } else {
      dump.push_back(data(message.bytes(), 64));
      dump.push_back("..............");
      dump.push_back(data(message.bytes() + c.length - 64, 64));
    }
    dump = dump + Lines{"DataBag:", data(bag)};
    ASSERT_GE(lines.size(), 4 + dump.size());
    EXPECT_EQ(
        Lines(lines.begin() + 4, lines.begin() + 4 + static_cast<std::ptrdiff_t>(dump.size())),
        dump);
    EXPECT_EQ(lines.back(), data(c.reason));
  }
}

TEST_F(BufferTest, BufferToBagTraceOfAnEmptyBufferAndOfARefusal) {
  VXHBAG bag = newBag(0);
  auto expectedFor = [&](int32_t length, int32_t compCode, int32_t reason) {
    return Lines{kSeparator,
                 "vxBufferToBag >>",
                 "OptionsBag:",
                 data(BAG_NONE),
                 "Bufferlength:",
                 data(length),
                 "Buffer:",
                 "NULL",
                 "DataBag:",
                 data(bag),
                 kCompOut,
                 kReasonOut,
                 kSeparator,
                 "vxBufferToBag <<",
                 "OptionsBag    : Input  Parm",
                 "BufferLength  : Input  Parm",
                 "Buffer        : Input  Parm",
                 "DataBag       : Input  Parm",
                 "Compcode:",
                 data(compCode),
                 "Reason:",
                 data(reason)};
  };
  vxtest::TraceCapture capture(0x1);
  Outcome got = toBag(0, nullptr, bag);
  EXPECT_OUTCOME(got.cc, got.rc, CC_FAILED, RC_PCF_FORMAT_ERROR);
  got = toBag(40, nullptr, bag);
  EXPECT_OUTCOME(got.cc, got.rc, CC_FAILED, RC_BUFFER_ERROR);
  EXPECT_EQ(apiLines(capture, kBufferToBag), expectedFor(0, CC_FAILED, RC_PCF_FORMAT_ERROR) +
                                                 expectedFor(40, CC_FAILED, RC_BUFFER_ERROR));
}

// ===== Memory ================================================================

// A message of five structures whose 91 items make the bag's item vector
// grow twice (past 40 and past 80 items).
Message manyStructures() {
  std::vector<int32_t> values;
  for (int32_t i = 0; i < 50; ++i) values.push_back(i * 3);
  std::vector<std::string> texts;
  for (int32_t i = 0; i < 30; ++i) texts.push_back("text" + std::to_string(i + 1000));
  return Message()
      .header(kUserType, 7, 5)
      .integer(1, 11)
      .string(2001, "ABCD")
      .integers(2, values)
      .strings(2002, 8, texts)
      .integer(3, 33);
}

std::vector<Item> manyStructuresItems() {
  std::vector<Item> items = defaultItems(0, kUserType);
  items[3] = integer(SEL_COMMAND, 7);
  items.push_back(integer(1, 11));
  items.push_back(stringItem(2001, "ABCD"));
  for (int32_t i = 0; i < 50; ++i) items.push_back(integer(2, i * 3));
  for (int32_t i = 0; i < 30; ++i)
    items.push_back(stringItem(2002, "text" + std::to_string(i + 1000)));
  items.push_back(integer(3, 33));
  return items;
}

TEST_F(BufferTest, BufferToBagSurvivesEveryAllocationFailure) {
  const Message message = manyStructures();
  const std::vector<Item> full = manyStructuresItems();
  ASSERT_EQ(full.size(), 91u);
  int32_t failures = 0;
  for (int32_t nth = 1;; ++nth) {
    ASSERT_LE(nth, 10) << "the conversion never succeeded";
    SCOPED_TRACE("allocation " + std::to_string(nth) + " fails");
    // A new bag each time: its vector still has its first 40 places.
    VXHBAG bag = newBag(0);
    const int32_t blocks = liveBlocks();
    svcInjectMemFailure(nth);
    Outcome got = toBag(message.length(), message.bytes(), bag);
    svcInjectMemFailure(0);
    // A vector that could not grow keeps its old block.
    EXPECT_EQ(liveBlocks(), blocks);
    const std::vector<Item> items = itemsOf(bag);
    if (got.cc == CC_OK) {
      EXPECT_EQ(got.rc, RC_NONE);
      EXPECT_EQ(items, full);
      break;
    }
    ++failures;
    EXPECT_OUTCOME(got.cc, got.rc, CC_FAILED, RC_STORAGE_NOT_AVAILABLE);
    EXPECT_EQ(got.marker, exitMarker(kBufferToBag, RC_STORAGE_NOT_AVAILABLE));
    // The items read before the failure stay, in order.
    ASSERT_LT(items.size(), full.size());
    EXPECT_EQ(items, std::vector<Item>(full.begin(),
                                       full.begin() + static_cast<std::ptrdiff_t>(items.size())));
  }
  EXPECT_EQ(failures, 2);
}

TEST_F(BufferTest, BagToBufferOfAListFormBagSurvivesAllocationFailure) {
  // 50 items are more than the control area in the call's frame has written
  // flags for, so the conversion allocates one.
  VXHBAG bag = newBag(BAG_OPT_LIST_FORM_ALLOWED);
  for (int32_t i = 0; i < 42; ++i) addInteger(bag, 100 + i / 3, i);
  ASSERT_EQ(countOf(bag, SEL_ANY_SELECTOR), 50);
  const std::vector<Item> before = itemsOf(bag);
  int32_t failures = 0;
  Bytes buffer(1024, 'x');
  Outcome got;
  for (int32_t nth = 1;; ++nth) {
    ASSERT_LE(nth, 10) << "the conversion never succeeded";
    SCOPED_TRACE("allocation " + std::to_string(nth) + " fails");
    const int32_t blocks = liveBlocks();
    svcInjectMemFailure(nth);
    got = toBuffer(bag, 1024, buffer.data());
    svcInjectMemFailure(0);
    EXPECT_EQ(liveBlocks(), blocks);
    EXPECT_EQ(itemsOf(bag), before);
    if (got.cc == CC_OK) break;
    ++failures;
    EXPECT_OUTCOME(got.cc, got.rc, CC_FAILED, RC_STORAGE_NOT_AVAILABLE);
    EXPECT_EQ(got.marker, exitMarker(kBagToBuffer, RC_STORAGE_NOT_AVAILABLE));
  }
  EXPECT_EQ(failures, 1);
  // Fourteen lists of three integers.
  EXPECT_EQ(got.dataLength, 36 + 14 * 28);
  VXHBAG target = newBag(BAG_OPT_LIST_FORM_ALLOWED);
  Outcome read = toBag(got.dataLength, buffer.data(), target);
  EXPECT_OK(read.cc, read.rc);
  EXPECT_EQ(itemsOf(target), before);
}

TEST_F(BufferTest, BagToBufferNeedsNoMemoryWhileTheFrameAreaIsEnough) {
  // 40 items with list form, or any number without it, fit the control area
  // in the call's frame: a pending allocation failure is left untouched.
  VXHBAG listForm = newBag(BAG_OPT_LIST_FORM_ALLOWED);
  for (int32_t i = 0; i < 32; ++i) addInteger(listForm, 100 + i / 4, i);
  VXHBAG plain = newBag(0);
  for (int32_t i = 0; i < 60; ++i) addInteger(plain, 100 + i, i);
  for (VXHBAG bag : {listForm, plain}) {
    Bytes buffer(2048);
    svcInjectMemFailure(1);
    Outcome got = toBuffer(bag, 2048, buffer.data());
    EXPECT_OK(got.cc, got.rc);
    void *block = nullptr;
    EXPECT_NE(svcGetMem(ZAI_COMPONENT, kBagToBuffer, 4, 0, &block), 0)
        << "the injected failure was used up by the conversion";
    if (block) svcFreeMem(ZAI_COMPONENT, block);
    svcInjectMemFailure(0);
  }
}

// ===== Threads ===============================================================

TEST_F(BufferTest, TwoThreadsConvertTheirOwnBagsAtOnce) {
  constexpr int32_t kRounds = 200;
  std::atomic<int32_t> wrong{0};
  std::vector<Item> results[2];
  // Each thread makes, converts and deletes its own two bags.
  auto work = [&](int32_t seed, std::vector<Item> *result) {
    VXHBAG source = BAG_NONE, target = BAG_NONE;
    int32_t cc = -1, rc = -1, created = 0;
    vxCreateBag(0, &source, &cc, &rc);
    created += cc == CC_OK;
    vxCreateBag(0, &target, &cc, &rc);
    created += cc == CC_OK;
    const std::string text = "thread " + std::to_string(seed);
    vxAddString(source, 2001, -1, text.c_str(), &cc, &rc);
    created += cc == CC_OK;
    vxAddInteger(source, 1, 0, &cc, &rc);
    created += cc == CC_OK;
    if (created != 4) ++wrong;
    const int32_t messageLength = 36 + 20 + zaiRoundUp4(static_cast<int32_t>(text.size())) + 16;
    char buffer[256];
    for (int32_t round = 0; round < kRounds && created == 4; ++round) {
      const int32_t value = seed * 100000 + round;
      vxSetInteger(source, 1, 0, value, &cc, &rc);
      int32_t length = -1;
      vxBagToBuffer(BAG_NONE, source, sizeof buffer, buffer, &length, &cc, &rc);
      if (cc != CC_OK || length != messageLength) ++wrong;
      vxBufferToBag(BAG_NONE, length, buffer, target, &cc, &rc);
      int32_t read = -1;
      vxInquireInteger(target, 1, 0, &read, &cc, &rc);
      if (cc != CC_OK || read != value) ++wrong;
    }
    if (created == 4) *result = itemsOf(target);
    vxDeleteBag(&source, &cc, &rc);
    vxDeleteBag(&target, &cc, &rc);
  };
  std::thread first(work, 1, &results[0]);
  std::thread second(work, 2, &results[1]);
  first.join();
  second.join();
  EXPECT_EQ(wrong.load(), 0);
  for (int32_t seed : {1, 2}) {
    SCOPED_TRACE(seed);
    const std::vector<Item> expected =
        defaultItems(0, kUserType) +
        std::vector<Item>{stringItem(2001, "thread " + std::to_string(seed)),
                          integer(1, seed * 100000 + kRounds - 1)};
    EXPECT_EQ(results[seed - 1], expected);
  }
}

}  // namespace
