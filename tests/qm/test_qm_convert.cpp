// Data conversion of PCF messages on get: the character-set table, the
// conversion of string and string-list structures with their rewritten
// lengths and CCSIDs, what passes through untouched, and the messages that
// are refused.  Messages are assembled by hand, field by field, in buffers of
// exactly their length, so that a read past the end shows under ASan.
#include <gtest/gtest.h>
#include <iconv.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <iterator>
#include <random>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "convert.h"

namespace {

using vxqm::convertPcfMessage;
using vxqm::iconvNameOf;
using vxqm::knownCharacterSets;

constexpr int32_t kTypeInteger = 3;
constexpr int32_t kTypeString = 4;
constexpr int32_t kTypeIntegerList = 5;
constexpr int32_t kTypeStringList = 6;

constexpr int32_t kUtf8 = 1208;
constexpr int32_t kPc850 = 850;
constexpr int32_t kLatin1 = 819;
constexpr int32_t kWindows1252 = 1252;
constexpr int32_t kEbcdic37 = 37;
constexpr int32_t kEbcdic500 = 500;
constexpr int32_t kEbcdic1047 = 1047;

const std::string kHello = "HELLO world 123";
const std::string kHelloEbcdic = "\xC8\xC5\xD3\xD3\xD6\x40\xA6\x96\x99\x93\x84\x40\xF1\xF2\xF3";
const std::string kEAcuteUtf8 = "\xC3\xA9";
const std::string kEuroUtf8 = "\xE2\x82\xAC";

// A PCF message assembled field by field.  The bytes that pad a string
// structure to 4 are '#' unless asked otherwise, so that a conversion that
// kept them would show.
class Message {
 public:
  explicit Message(int32_t type = 8, int32_t command = 42) {
    word(type).word(36).word(1).word(command).word(7).word(1).word(2).word(3009).word(0);
  }

  Message &word(int32_t value) {
    char bytes[sizeof value];
    std::memcpy(bytes, &value, sizeof value);
    bytes_.insert(bytes_.end(), bytes, bytes + sizeof bytes);
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

  Message &integer(int32_t id, int32_t value) {
    counted();
    return word(kTypeInteger).word(16).word(id).word(value);
  }
  Message &string(int32_t id, int32_t ccsid, const std::string &bytes, int32_t surplus = 0) {
    counted();
    const int32_t padded = (static_cast<int32_t>(bytes.size()) + 3) / 4 * 4;
    word(kTypeString).word(20 + padded + surplus).word(id).word(ccsid);
    word(static_cast<int32_t>(bytes.size())).text(bytes);
    return fill(padded - bytes.size() + surplus, '#');
  }
  Message &integerList(int32_t id, const std::vector<int32_t> &values, int32_t surplus = 0) {
    counted();
    word(kTypeIntegerList).word(16 + 4 * static_cast<int32_t>(values.size()) + surplus);
    word(id).word(static_cast<int32_t>(values.size()));
    for (const int32_t value : values) {
      word(value);
    }
    return fill(surplus, '#');
  }
  // A string list as the writer makes it: the string length of the longest
  // string, the others padded with zero bytes.
  Message &stringList(int32_t id, int32_t ccsid, const std::vector<std::string> &strings) {
    size_t longest = 0;
    for (const std::string &string : strings) {
      longest = std::max(longest, string.size());
    }
    counted();
    const size_t content = strings.size() * longest;
    const size_t padded = (24 + content + 3) / 4 * 4;
    word(kTypeStringList).word(static_cast<int32_t>(padded)).word(id).word(ccsid);
    word(static_cast<int32_t>(strings.size())).word(static_cast<int32_t>(longest));
    for (const std::string &string : strings) {
      text(string).fill(longest - string.size(), 0);
    }
    return fill(padded - 24 - content, '#');
  }

  // Overwrites the field at `offset`.
  Message &set(size_t offset, int32_t value) {
    std::memcpy(bytes_.data() + offset, &value, sizeof value);
    return *this;
  }
  Message &count(int32_t value) { return set(32, value); }

  const std::vector<char> &bytes() const { return bytes_; }
  size_t size() const { return bytes_.size(); }

 private:
  void counted() {
    int32_t parameterCount;
    std::memcpy(&parameterCount, bytes_.data() + 32, sizeof parameterCount);
    set(32, parameterCount + 1);
  }

  std::vector<char> bytes_;
};

int32_t fieldAt(const std::vector<char> &bytes, size_t offset) {
  if (offset + 4 > bytes.size()) {
    throw std::out_of_range("field past the end of the message");
  }
  int32_t value;
  std::memcpy(&value, bytes.data() + offset, sizeof value);
  return value;
}

std::string bytesAt(const std::vector<char> &bytes, size_t offset, size_t length) {
  if (offset + length > bytes.size()) {
    throw std::out_of_range("bytes past the end of the message");
  }
  return std::string(bytes.data() + offset, length);
}

// One structure of a converted message, read back.
struct Parm {
  size_t offset = 0;
  int32_t type = 0;
  int32_t length = 0;
  int32_t id = 0;
  int32_t ccsid = 0;         // string and string list
  int32_t stringLength = 0;  // string and string list
  std::vector<std::string> strings;
  std::string padding;  // bytes after the data up to the structure length
  std::string raw;      // the whole structure
};

std::vector<Parm> parmsOf(const std::vector<char> &message) {
  std::vector<Parm> parms;
  size_t offset = 36;
  const int32_t count = fieldAt(message, 32);
  for (int32_t i = 0; i < count; ++i) {
    Parm parm;
    parm.offset = offset;
    parm.type = fieldAt(message, offset);
    parm.length = fieldAt(message, offset + 4);
    parm.id = fieldAt(message, offset + 8);
    parm.raw = bytesAt(message, offset, parm.length);
    if (parm.type == kTypeString) {
      parm.ccsid = fieldAt(message, offset + 12);
      parm.stringLength = fieldAt(message, offset + 16);
      parm.strings.push_back(bytesAt(message, offset + 20, parm.stringLength));
      parm.padding =
          bytesAt(message, offset + 20 + parm.stringLength, parm.length - 20 - parm.stringLength);
    } else if (parm.type == kTypeStringList) {
      parm.ccsid = fieldAt(message, offset + 12);
      const int32_t strings = fieldAt(message, offset + 16);
      parm.stringLength = fieldAt(message, offset + 20);
      for (int32_t s = 0; s < strings; ++s) {
        parm.strings.push_back(bytesAt(
            message, offset + 24 + static_cast<size_t>(s) * parm.stringLength, parm.stringLength));
      }
      const size_t used = 24 + static_cast<size_t>(strings) * parm.stringLength;
      parm.padding = bytesAt(message, offset + used, parm.length - used);
    }
    parms.push_back(parm);
    offset += parm.length;
  }
  EXPECT_EQ(offset, message.size()) << "bytes after the last structure";
  return parms;
}

std::string padded(const std::string &string, size_t length) {
  return string + std::string(length - string.size(), '\0');
}

// Converts and expects success.
std::vector<char> converted(const Message &message, int32_t from, int32_t to) {
  std::vector<char> result;
  EXPECT_TRUE(convertPcfMessage(message.bytes().data(), static_cast<int32_t>(message.size()), from,
                                to, result));
  return result;
}

bool converts(const std::vector<char> &bytes, int32_t from, int32_t to) {
  std::vector<char> result;
  return convertPcfMessage(bytes.data(), static_cast<int32_t>(bytes.size()), from, to, result);
}

bool converts(const Message &message, int32_t from, int32_t to) {
  return converts(message.bytes(), from, to);
}

// The text of one string in each character set of the table: the greeting,
// e-acute and the euro sign ("" where the set has no such character).
struct Known {
  int32_t ccsid;
  std::string hello;
  std::string eAcute;
  std::string euro;
};

const std::vector<Known> kKnown = {
    {37, kHelloEbcdic, "\x51", ""},
    {367, kHello, "", ""},
    {437, kHello, "\x82", ""},
    {500, kHelloEbcdic, "\x51", ""},
    {819, kHello, "\xE9", ""},
    {850, kHello, "\x82", ""},
    {923, kHello, "\xE9", "\xA4"},
    {1047, kHelloEbcdic, "\x51", ""},
    {1208, kHello, kEAcuteUtf8, kEuroUtf8},
    {1252, kHello, "\xE9", "\x80"},
};

// ---------------------------------------------------------------------------

TEST(ConvertTable, NamesTheRequiredSets) {
  EXPECT_STREQ(iconvNameOf(437), "IBM437");
  EXPECT_STREQ(iconvNameOf(819), "ISO-8859-1");
  EXPECT_STREQ(iconvNameOf(850), "IBM850");
  EXPECT_STREQ(iconvNameOf(1208), "UTF-8");
  EXPECT_STREQ(iconvNameOf(1252), "CP1252");
  EXPECT_STREQ(iconvNameOf(37), "IBM037");
  EXPECT_STREQ(iconvNameOf(500), "IBM500");
  EXPECT_STREQ(iconvNameOf(1047), "IBM1047");
}

TEST(ConvertTable, UnknownIdsHaveNoName) {
  for (const int32_t ccsid : {0, -1, 1, 36, 38, 1200, 1209, 65535, INT32_MAX, INT32_MIN}) {
    EXPECT_EQ(iconvNameOf(ccsid), nullptr) << ccsid;
  }
}

TEST(ConvertTable, EveryEntryIsFoundAndOpensBothWays) {
  const auto sets = knownCharacterSets();
  ASSERT_FALSE(sets.empty());
  for (size_t i = 0; i < sets.size(); ++i) {
    if (i > 0) {
      EXPECT_LT(sets[i - 1].ccsid, sets[i].ccsid) << "table sorted by id, each id once";
    }
    EXPECT_EQ(iconvNameOf(sets[i].ccsid), sets[i].iconvName);
    for (const auto &[to, from] :
         {std::pair{"UTF-8", sets[i].iconvName}, std::pair{sets[i].iconvName, "UTF-8"}}) {
      const iconv_t descriptor = iconv_open(to, from);
      EXPECT_NE(descriptor, reinterpret_cast<iconv_t>(-1)) << from << " to " << to;
      if (descriptor != reinterpret_cast<iconv_t>(-1)) {
        iconv_close(descriptor);
      }
    }
  }
}

TEST(ConvertTable, EveryEntryHasKnownTextsInTheseTests) {
  std::vector<int32_t> table;
  for (const auto &set : knownCharacterSets()) {
    table.push_back(set.ccsid);
  }
  std::vector<int32_t> known;
  for (const Known &row : kKnown) {
    known.push_back(row.ccsid);
  }
  EXPECT_EQ(table, known);
}

// ---------------------------------------------------------------------------

TEST(Convert, EveryCharacterSetFromAndToUtf8) {
  for (const Known &row : kKnown) {
    SCOPED_TRACE(row.ccsid);
    Message utf8;
    utf8.string(2001, kUtf8, kHello);
    if (!row.eAcute.empty()) {
      utf8.string(2002, kUtf8, kEAcuteUtf8);
    }
    const std::vector<char> there = converted(utf8, kUtf8, row.ccsid);
    if (row.ccsid == kUtf8) {
      EXPECT_EQ(there, utf8.bytes()) << "nothing to convert";
    }
    const std::vector<Parm> parms = parmsOf(there);
    ASSERT_EQ(parms.size(), row.eAcute.empty() ? 1u : 2u);
    EXPECT_EQ(parms[0].strings[0], row.hello);
    EXPECT_EQ(parms[0].ccsid, row.ccsid);
    if (!row.eAcute.empty()) {
      EXPECT_EQ(parms[1].strings[0], row.eAcute);
    }

    std::vector<char> back;
    ASSERT_TRUE(convertPcfMessage(there.data(), static_cast<int32_t>(there.size()), row.ccsid,
                                  kUtf8, back));
    const std::vector<Parm> again = parmsOf(back);
    ASSERT_EQ(again.size(), parms.size());
    EXPECT_EQ(again[0].strings[0], kHello);
    EXPECT_EQ(again[0].ccsid, kUtf8);
    if (!row.eAcute.empty()) {
      EXPECT_EQ(again[1].strings[0], kEAcuteUtf8);
    }
  }
}

TEST(Convert, EuroSignWhereTheSetHasOne) {
  for (const Known &row : kKnown) {
    SCOPED_TRACE(row.ccsid);
    Message utf8;
    utf8.string(2001, 0, "price " + kEuroUtf8);
    std::vector<char> result;
    const bool done = convertPcfMessage(utf8.bytes().data(), static_cast<int32_t>(utf8.size()),
                                        kUtf8, row.ccsid, result);
    EXPECT_EQ(done, !row.euro.empty()) << "no mapping: not converted";
    if (done) {
      EXPECT_EQ(parmsOf(result)[0].strings[0].substr(6), row.euro);
    }
  }
}

TEST(Convert, EbcdicBytesOfTheThreeSets) {
  struct Row {
    int32_t ccsid;
    std::string bytes;  // "A[]!^a0"
  };
  const Row rows[] = {
      {kEbcdic37, "\xC1\xBA\xBB\x5A\xB0\x81\xF0"},
      {kEbcdic500, "\xC1\x4A\x5A\x4F\x5F\x81\xF0"},
      {kEbcdic1047, "\xC1\xAD\xBD\x5A\x5F\x81\xF0"},
  };
  for (const Row &row : rows) {
    SCOPED_TRACE(row.ccsid);
    Message ascii;
    ascii.string(2001, 0, "A[]!^a0");
    const std::vector<char> ebcdic = converted(ascii, kLatin1, row.ccsid);
    EXPECT_EQ(parmsOf(ebcdic)[0].strings[0], row.bytes);
    for (const Row &other : rows) {
      Message from;
      from.string(2001, 0, row.bytes);
      EXPECT_EQ(parmsOf(converted(from, row.ccsid, other.ccsid))[0].strings[0], other.bytes)
          << "to " << other.ccsid;
    }
  }
}

// ---------------------------------------------------------------------------

TEST(Convert, StringLengthsAndPaddingRewritten) {
  Message message;
  message.string(2001, 0, "\x82\x82\x82\x82\x82");  // 5 bytes in 850, 10 in UTF-8
  message.string(2002, 0, "abcd");                  // 4 bytes either way
  message.string(2003, 0, "");
  const std::vector<Parm> parms = parmsOf(converted(message, kPc850, kUtf8));
  ASSERT_EQ(parms.size(), 3u);
  EXPECT_EQ(parms[0].stringLength, 10);
  EXPECT_EQ(parms[0].length, 32);
  EXPECT_EQ(parms[0].padding, std::string(2, '\0'));
  EXPECT_EQ(parms[0].strings[0],
            kEAcuteUtf8 + kEAcuteUtf8 + kEAcuteUtf8 + kEAcuteUtf8 + kEAcuteUtf8);
  EXPECT_EQ(parms[1].length, 24);
  EXPECT_EQ(parms[1].strings[0], "abcd");
  EXPECT_EQ(parms[2].length, 20);
  EXPECT_EQ(parms[2].stringLength, 0);
  for (const Parm &parm : parms) {
    EXPECT_EQ(parm.type, kTypeString);
    EXPECT_EQ(parm.ccsid, kUtf8);
    EXPECT_EQ(parm.id, 2001 + static_cast<int32_t>(&parm - parms.data()));
  }
}

TEST(Convert, StringsShrinkAndPaddingBecomesZero) {
  Message message;
  message.string(2001, 0, kEAcuteUtf8 + kEAcuteUtf8 + kEAcuteUtf8);  // 6 bytes, 2 of padding
  const std::vector<Parm> parms = parmsOf(converted(message, kUtf8, kLatin1));
  ASSERT_EQ(parms.size(), 1u);
  EXPECT_EQ(parms[0].strings[0], "\xE9\xE9\xE9");
  EXPECT_EQ(parms[0].length, 24);
  EXPECT_EQ(parms[0].padding, std::string(1, '\0'));
}

TEST(Convert, SurplusOfAStringStructureDropped) {
  Message message;
  message.string(2001, 0, "abc", 8);
  const std::vector<Parm> parms = parmsOf(converted(message, kLatin1, kEbcdic37));
  ASSERT_EQ(parms.size(), 1u);
  EXPECT_EQ(parms[0].length, 24);
  EXPECT_EQ(parms[0].strings[0], "\x81\x82\x83");
  EXPECT_EQ(parms[0].padding, std::string(1, '\0'));
}

TEST(Convert, BlankPaddedStringsStayBlankPadded) {
  Message message;
  message.string(2016, 0, "Q1" + std::string(46, ' '));
  const std::vector<Parm> parms = parmsOf(converted(message, kLatin1, kEbcdic500));
  EXPECT_EQ(parms[0].strings[0], "\xD8\xF1" + std::string(46, '\x40'));
  EXPECT_EQ(parms[0].length, 68);
}

TEST(Convert, StringListOfDifferentConvertedLengths) {
  Message message;
  // In 850: "é" 1 byte, "abc" 3, "éé" 2; the list's string length is 3.
  message.stringList(3001, 0, {"\x82", "abc", "\x82\x82"});
  const std::vector<char> result = converted(message, kPc850, kUtf8);
  const std::vector<Parm> parms = parmsOf(result);
  ASSERT_EQ(parms.size(), 1u);
  EXPECT_EQ(parms[0].type, kTypeStringList);
  EXPECT_EQ(parms[0].id, 3001);
  EXPECT_EQ(parms[0].ccsid, kUtf8);
  EXPECT_EQ(parms[0].stringLength, 4) << "the longest converted string, padding not counted";
  EXPECT_EQ(parms[0].length, 24 + 12);
  EXPECT_EQ(parms[0].strings, (std::vector<std::string>{padded(kEAcuteUtf8, 4), padded("abc", 4),
                                                        kEAcuteUtf8 + kEAcuteUtf8}));
  EXPECT_EQ(parms[0].padding, "");
  EXPECT_EQ(fieldAt(result, 36 + 16), 3) << "count kept";
}

TEST(Convert, StringListShrinksAndRoundsUp) {
  Message message;
  message.stringList(3002, 0, {kEAcuteUtf8, "xy", kEAcuteUtf8 + "z", ""});  // string length 3
  const std::vector<Parm> parms = parmsOf(converted(message, kUtf8, kWindows1252));
  ASSERT_EQ(parms.size(), 1u);
  EXPECT_EQ(parms[0].stringLength, 2);
  EXPECT_EQ(parms[0].length, 32) << "24 + 4 x 2";
  EXPECT_EQ(parms[0].strings,
            (std::vector<std::string>{padded("\xE9", 2), "xy", "\xE9z", padded("", 2)}));

  Message three;
  three.stringList(3003, 0, {"abcde", "x", "yz"});  // 24 + 15 rounded to 40
  const std::vector<Parm> ebcdic = parmsOf(converted(three, kLatin1, kEbcdic1047));
  EXPECT_EQ(ebcdic[0].length, 40);
  EXPECT_EQ(ebcdic[0].stringLength, 5);
  EXPECT_EQ(ebcdic[0].padding, std::string(1, '\0'));
  EXPECT_EQ(ebcdic[0].strings[1], padded("\xA7", 5));
}

TEST(Convert, StringListOfEmptyStringsKeepsItsCount) {
  Message message;
  message.word(kTypeStringList).word(24).word(3004).word(0).word(50000000).word(0);
  message.count(1);
  const std::vector<char> result = converted(message, kLatin1, kUtf8);
  ASSERT_EQ(result.size(), 60u);
  EXPECT_EQ(fieldAt(result, 36 + 4), 24);
  EXPECT_EQ(fieldAt(result, 36 + 12), kUtf8);
  EXPECT_EQ(fieldAt(result, 36 + 16), 50000000);
  EXPECT_EQ(fieldAt(result, 36 + 20), 0);
}

TEST(Convert, HeaderIntegersAndIntegerListsUntouched) {
  Message message(2, 13);
  message.integer(1, -7)
      .string(2001, 0, "\xE9t\xE9")
      .integerList(2, {1, 2, INT32_MIN, INT32_MAX})
      .integerList(3, {}, 8)  // with surplus, kept as it is
      .stringList(3001, 0, {"\xE9", "b"})
      .integer(4, 0x7EEEEEEE);
  const std::vector<char> result = converted(message, kLatin1, kUtf8);
  EXPECT_EQ(bytesAt(result, 0, 36), bytesAt(message.bytes(), 0, 36));
  const std::vector<Parm> before = parmsOf(message.bytes());
  const std::vector<Parm> after = parmsOf(result);
  ASSERT_EQ(after.size(), 6u);
  for (const size_t i : {0u, 2u, 3u, 5u}) {
    EXPECT_EQ(after[i].raw, before[i].raw) << i;
  }
  EXPECT_EQ(after[1].strings[0], kEAcuteUtf8 + "t" + kEAcuteUtf8);
  EXPECT_EQ(after[4].strings[0], kEAcuteUtf8);
  EXPECT_EQ(after[4].strings[1], padded("b", 2));
}

TEST(Convert, OwnCcsidOfAStringOverridesTheMessages) {
  Message message;
  message
      .string(2001, 0, "\x82")                        // the message's 850: e-acute
      .string(2002, kWindows1252, "\x80")             // euro in 1252
      .string(2003, kUtf8, kEuroUtf8)                 // already in the target
      .stringList(3001, kEbcdic37, {"\xC1", "\x51"})  // "A", e-acute in 37
      .stringList(3002, 0, {"\x82"});
  const std::vector<Parm> parms = parmsOf(converted(message, kPc850, kUtf8));
  ASSERT_EQ(parms.size(), 5u);
  EXPECT_EQ(parms[0].strings[0], kEAcuteUtf8);
  EXPECT_EQ(parms[1].strings[0], kEuroUtf8);
  EXPECT_EQ(parms[2].strings[0], kEuroUtf8);
  EXPECT_EQ(parms[3].strings, (std::vector<std::string>{padded("A", 2), kEAcuteUtf8}));
  EXPECT_EQ(parms[4].strings[0], kEAcuteUtf8);
  for (const Parm &parm : parms) {
    EXPECT_EQ(parm.ccsid, kUtf8);
  }
}

TEST(Convert, ListAlreadyInTheTargetKeepsItsStrings) {
  Message message;
  message.string(2001, 0, "\xE9").stringList(3001, kUtf8, {kEAcuteUtf8, "a"});
  const std::vector<Parm> before = parmsOf(message.bytes());
  const std::vector<Parm> parms = parmsOf(converted(message, kLatin1, kUtf8));
  ASSERT_EQ(parms.size(), 2u);
  EXPECT_EQ(parms[1].raw.substr(12), before[1].raw.substr(12));
  EXPECT_EQ(parms[1].stringLength, 2);
}

TEST(Convert, BytesAfterTheLastStructureDropped) {
  Message message;
  message.string(2001, 0, "abc").fill(12, '\x77');
  const std::vector<char> result = converted(message, kLatin1, kEbcdic37);
  EXPECT_EQ(result.size(), 36u + 24u);
}

TEST(Convert, WorstGrowthStaysWithinTheBound) {
  // Every byte of 1252 from 0x80 up that has a character takes 2 or 3 bytes in UTF-8.
  Message message;
  message.stringList(3001, 0, std::vector<std::string>(1000, "\x80"));
  message.string(2001, 0, std::string(999, '\x80'));
  const std::vector<char> result = converted(message, kWindows1252, kUtf8);
  EXPECT_LE(static_cast<int64_t>(result.size()),
            vxqm::kMaxConversionGrowth * static_cast<int64_t>(message.size()));
  const std::vector<Parm> parms = parmsOf(result);
  EXPECT_EQ(parms[0].length, 24 + 3000);
  EXPECT_EQ(parms[1].stringLength, 2997);
}

// ---------------------------------------------------------------------------

TEST(ConvertFastPath, SameCharacterSetCopiesByteForByte) {
  Message message;
  message.string(2001, 0, "\xFF\xFE not UTF-8 at all", 4)
      .stringList(3001, kUtf8, {"\xFF", "ab"})
      .integer(1, 1)
      .fill(7, '\x55');  // bytes after the last structure, kept too
  std::vector<char> result = {'x'};
  ASSERT_TRUE(convertPcfMessage(message.bytes().data(), static_cast<int32_t>(message.size()), kUtf8,
                                kUtf8, result));
  EXPECT_EQ(result, message.bytes());
}

TEST(ConvertFastPath, OwnCcsidsAllInTheTarget) {
  Message message;
  message.string(2001, kEbcdic500, "\x4A\xFF").stringList(3001, kEbcdic500, {"\x5A"});
  std::vector<char> result;
  ASSERT_TRUE(convertPcfMessage(message.bytes().data(), static_cast<int32_t>(message.size()), 9999,
                                kEbcdic500, result));
  EXPECT_EQ(result, message.bytes());
}

TEST(ConvertFastPath, MessageWithoutStringsNeedsNoCharacterSet) {
  Message message;
  message.integer(1, 2).integerList(2, {3, 4});
  std::vector<char> result;
  ASSERT_TRUE(convertPcfMessage(message.bytes().data(), static_cast<int32_t>(message.size()), 4242,
                                4343, result));
  EXPECT_EQ(result, message.bytes());
}

TEST(ConvertFastPath, StillValidated) {
  Message message;
  message.string(2001, 0, "abc").count(2);
  EXPECT_FALSE(converts(message, kUtf8, kUtf8));
}

// ---------------------------------------------------------------------------

TEST(ConvertRefused, UnknownCharacterSets) {
  Message message;
  message.string(2001, 0, "abc");
  EXPECT_FALSE(converts(message, 9999, kUtf8)) << "unknown source";
  EXPECT_FALSE(converts(message, kUtf8, 9999)) << "unknown target";
  EXPECT_FALSE(converts(message, -1, kUtf8));

  Message own;
  own.string(2001, 4242, "abc");
  EXPECT_FALSE(converts(own, kLatin1, kUtf8)) << "unknown own CCSID of a string";
  Message list;
  list.stringList(3001, 4242, {"abc"});
  EXPECT_FALSE(converts(list, kLatin1, kUtf8)) << "unknown own CCSID of a list";
  Message empty;
  empty.string(2001, 4242, "");
  EXPECT_FALSE(converts(empty, kLatin1, kUtf8)) << "even an empty string's set must be known";
}

TEST(ConvertRefused, BytesWithNoMapping) {
  const std::vector<std::pair<Message, std::pair<int32_t, int32_t>>> cases = [] {
    std::vector<std::pair<Message, std::pair<int32_t, int32_t>>> all;
    Message euro;
    euro.string(2001, 0, "ok").string(2002, 0, "1 " + kEuroUtf8);
    all.push_back({euro, {kUtf8, kPc850}});
    Message invalid;
    invalid.string(2001, 0, "\xC3\x28");
    all.push_back({invalid, {kUtf8, kLatin1}});
    Message cut;
    cut.string(2001, 0, "ab\xC3");  // a character cut off at the end of the string
    all.push_back({cut, {kUtf8, kLatin1}});
    Message stray;
    stray.string(2001, 0, "\xFF");
    all.push_back({stray, {kUtf8, kEbcdic37}});
    Message inList;
    inList.stringList(3001, 0, {"fine", "\xE2\x82"});
    all.push_back({inList, {kUtf8, kWindows1252}});
    Message undefined;
    undefined.string(2001, 0, "\x81");  // no character in 1252
    all.push_back({undefined, {kWindows1252, kUtf8}});
    Message ascii;
    ascii.string(2001, 0, "\xE9");
    all.push_back({ascii, {kLatin1, 367}});
    return all;
  }();
  for (const auto &[message, pair] : cases) {
    EXPECT_FALSE(converts(message, pair.first, pair.second)) << pair.first << " to " << pair.second;
  }
}

// A message in a buffer of exactly its length, with field `offset` set.
std::vector<char> withField(Message message, size_t offset, int32_t value) {
  return message.set(offset, value).bytes();
}

TEST(ConvertRefused, MalformedHeaders) {
  Message valid;
  valid.string(2001, 0, "abc");
  std::vector<char> result;
  EXPECT_FALSE(convertPcfMessage(nullptr, 0, kLatin1, kUtf8, result));
  EXPECT_FALSE(convertPcfMessage(valid.bytes().data(), -1, kLatin1, kUtf8, result));
  for (const size_t length : {0u, 1u, 4u, 35u}) {
    const std::vector<char> truncated(valid.bytes().begin(), valid.bytes().begin() + length);
    EXPECT_FALSE(converts(truncated, kLatin1, kUtf8)) << length;
  }
  EXPECT_FALSE(converts(withField(valid, 4, 40), kLatin1, kUtf8)) << "header length 40";
  EXPECT_FALSE(converts(withField(valid, 4, 32), kLatin1, kUtf8)) << "header length 32";
  EXPECT_FALSE(converts(withField(valid, 8, 2), kLatin1, kUtf8)) << "version 2";
  EXPECT_FALSE(converts(withField(valid, 32, -1), kLatin1, kUtf8)) << "negative count";
  EXPECT_FALSE(converts(withField(valid, 32, INT32_MIN), kLatin1, kUtf8));
  EXPECT_FALSE(converts(withField(valid, 32, 2), kLatin1, kUtf8)) << "count past the end";
  EXPECT_FALSE(converts(withField(valid, 32, INT32_MAX), kLatin1, kUtf8)) << "huge count";
  EXPECT_TRUE(converts(withField(valid, 32, 0), kLatin1, kUtf8)) << "no structures: header only";
}

TEST(ConvertRefused, MalformedStructures) {
  Message string;
  string.string(2001, 0, "abcde");  // at 36: type, 28, id, ccsid, 5, data
  Message integer;
  integer.integer(1, 5);
  Message integers;
  integers.integerList(2, {1, 2});  // 24 bytes
  Message list;
  list.stringList(3001, 0, {"ab", "cd"});  // 28 bytes
  const struct {
    const char *what;
    std::vector<char> bytes;
  } cases[] = {
      {"unknown type 2", withField(string, 36, 2)},
      {"unknown type 7", withField(string, 36, 7)},
      {"unknown type -1", withField(string, 36, -1)},
      {"string past the end", withField(string, 40, 32)},
      {"string length below the fixed part", withField(string, 40, 16)},
      {"string length zero", withField(string, 40, 0)},
      {"string length negative", withField(string, 40, -28)},
      {"string length not a multiple of 4", withField(string, 40, 26)},
      {"string length huge", withField(string, 40, INT32_MAX - 3)},
      {"string longer than its structure", withField(string, 52, 9)},
      {"string length negative inside", withField(string, 52, -1)},
      {"string length huge inside", withField(string, 52, INT32_MAX)},
      {"integer of length 20", withField(Message(integer).fill(4, 0), 40, 20)},
      {"integer of length 12", withField(integer, 40, 12)},
      {"integer list count negative", withField(integers, 48, -1)},
      {"integer list count above its length", withField(integers, 48, 3)},
      {"integer list count huge", withField(integers, 48, 0x40000001)},
      {"string list count negative", withField(list, 52, -1)},
      {"string list string length negative", withField(list, 56, -2)},
      {"string list content above its length", withField(list, 56, 3)},
      {"string list count times length wraps in 32 bits",
       withField(Message(list).set(52, 0x10000), 56, 0x10000)},
      {"string list count huge", withField(list, 52, INT32_MAX)},
      {"string list past the end", withField(list, 40, 32)},
  };
  for (const auto &c : cases) {
    EXPECT_FALSE(converts(c.bytes, kLatin1, kUtf8)) << c.what;
    EXPECT_FALSE(converts(c.bytes, kUtf8, kUtf8)) << c.what << " (same character set)";
  }
}

TEST(ConvertRefused, EveryTruncationOfAValidMessage) {
  Message message;
  message.integer(1, 2)
      .string(2001, 0, "\xE9t\xE9")
      .integerList(2, {3, 4})
      .stringList(3001, 0, {"\xE9", "ab", "c"});
  ASSERT_TRUE(converts(message, kLatin1, kUtf8));
  for (size_t length = 0; length < message.size(); ++length) {
    const std::vector<char> truncated(message.bytes().begin(), message.bytes().begin() + length);
    EXPECT_FALSE(converts(truncated, kLatin1, kUtf8)) << length;
  }
}

// Random changes to a valid message: whatever the converter accepts it must
// accept as a whole message, and it never reads outside the buffer.
TEST(ConvertRefused, RandomlyDamagedMessages) {
  Message message;
  message.integer(1, 2)
      .string(2001, 0, "\xE9t\xE9")
      .integerList(2, {3, 4})
      .stringList(3001, 0, {"\xE9", "ab", "c"})
      .string(2002, kWindows1252, "\x80");
  std::mt19937 random(8);
  const int32_t interesting[] = {0, 1, 3, 4, 5, 6, 16, 20, 24, -1, INT32_MAX, INT32_MIN, 0x10000};
  int accepted = 0;
  for (int round = 0; round < 3000; ++round) {
    std::vector<char> bytes = message.bytes();
    const int changes = 1 + static_cast<int>(random() % 3);
    for (int change = 0; change < changes; ++change) {
      const size_t offset = random() % (bytes.size() / 4) * 4;
      const int32_t value = interesting[random() % std::size(interesting)];
      std::memcpy(bytes.data() + offset, &value, sizeof value);
    }
    bytes.resize(bytes.size() - random() % 8);
    std::vector<char> result;
    if (convertPcfMessage(bytes.data(), static_cast<int32_t>(bytes.size()), kLatin1, kUtf8,
                          result)) {
      ++accepted;
      ASSERT_GE(result.size(), 36u);
      EXPECT_LE(static_cast<int64_t>(result.size()),
                vxqm::kMaxConversionGrowth * static_cast<int64_t>(bytes.size()));
    }
  }
  EXPECT_GT(accepted, 0) << "some changes leave a valid message";
}

// ---------------------------------------------------------------------------

// Several threads convert at once between different pairs of sets, each
// with its own converters; every result must be the one a single thread
// gets.
TEST(ConvertThreads, ConcurrentConversionsAgree) {
  struct Job {
    Message message;
    int32_t from;
    int32_t to;
    std::vector<char> expected;
  };
  std::vector<Job> jobs;
  for (const Known &row : kKnown) {
    Message message;
    message.string(2001, 0, kHello).stringList(3001, 0, {kHello, "x"}).integer(1, row.ccsid);
    jobs.push_back({message, kUtf8, row.ccsid, {}});
  }
  Message pc;
  pc.stringList(3001, 0, {"\x82t\x82", "a"}).string(2001, kWindows1252, "\xE9");
  jobs.push_back({pc, kPc850, kEbcdic37, {}});
  jobs.push_back({pc, kPc850, kUtf8, {}});
  for (Job &job : jobs) {
    job.expected = converted(job.message, job.from, job.to);
  }

  constexpr int kThreads = 4;
  constexpr int kRounds = 3;
  std::vector<int> mismatches(kThreads, 0);
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&jobs, &mismatches, t] {
      for (int round = 0; round < kRounds; ++round) {
        for (size_t i = 0; i < jobs.size(); ++i) {
          const Job &job = jobs[(i + static_cast<size_t>(t) * 5) % jobs.size()];
          std::vector<char> result;
          if (!convertPcfMessage(job.message.bytes().data(),
                                 static_cast<int32_t>(job.message.size()), job.from, job.to,
                                 result) ||
              result != job.expected) {
            ++mismatches[t];
          }
        }
      }
    });
  }
  for (std::thread &thread : threads) {
    thread.join();
  }
  EXPECT_EQ(mismatches, std::vector<int>(kThreads, 0));
}

}  // namespace
