// The command rules of the PCF writer: the parameters a command's message
// leads with, the failures when one of them is missing, held as the wrong
// type or given twice, and the attribute lists that inquiry items become.
// Messages are decoded structure by structure and compared with what each
// command demands; the demands are written out here on their own, so that a
// wrong row in the library's table shows as a wrong message.
#include <algorithm>
#include <cstdint>
#include <cstring>
#include <ostream>
#include <string>
#include <vector>

#include "vxtest.h"

namespace {

using vxtest::exitMarker;
using vxtest::operator+;

constexpr int32_t kStr = ITEM_TYPE_STRING;
constexpr int32_t kInt = ITEM_TYPE_INTEGER;
constexpr int32_t kHeaderLength = 36;

// ----- What each command leads with ---------------------------------------------------

// A leading parameter must be there, may be there, or is taken only in place
// of the one found missing just before it.
enum class Need { kMandatory, kOptional, kInPlaceOfMissing };

struct Leading {
  int32_t selector;
  int32_t type;
  Need need;
};

constexpr Leading mandatory(int32_t selector, int32_t type) {
  return {selector, type, Need::kMandatory};
}
constexpr Leading optional(int32_t selector, int32_t type) {
  return {selector, type, Need::kOptional};
}
constexpr Leading inPlace(int32_t selector, int32_t type) {
  return {selector, type, Need::kInPlaceOfMissing};
}

struct CommandRow {
  std::vector<int32_t> commands;
  std::vector<Leading> parms;  // in the order the message carries them
};

const std::vector<CommandRow> kRows = {
    {{3, 5, 6, 7, 19}, {mandatory(2012, kStr)}},
    {{4}, {mandatory(3003, kStr), mandatory(3004, kStr)}},
    {{8, 11}, {mandatory(2016, kStr), mandatory(20, kInt)}},
    {{9, 12, 17, 18}, {mandatory(2016, kStr)}},
    {{10}, {mandatory(3001, kStr), mandatory(3002, kStr), mandatory(20, kInt)}},
    {{13}, {mandatory(2016, kStr), optional(20, kInt)}},
    {{20, 24, 26, 27, 28, 29, 42}, {mandatory(3501, kStr)}},
    {{21, 23}, {mandatory(3501, kStr), mandatory(1511, kInt)}},
    {{22}, {mandatory(3007, kStr), mandatory(3008, kStr), mandatory(1511, kInt)}},
    {{25}, {mandatory(3501, kStr), optional(1511, kInt)}},
    {{30}, {mandatory(2008, kStr)}},
    {{32, 34, 35, 36}, {mandatory(2010, kStr)}},
    {{33}, {mandatory(3005, kStr), mandatory(3006, kStr)}},
    {{38}, {mandatory(1017, kInt), mandatory(3014, kStr)}},
    {{39}, {mandatory(3501, kStr), mandatory(1516, kInt)}},
    {{70}, {mandatory(2031, kStr)}},
    {{71, 72}, {mandatory(2029, kStr), inPlace(2030, kStr)}},
    {{73}, {mandatory(2029, kStr)}},
    {{74},
     {mandatory(2029, kStr), mandatory(2032, kStr), inPlace(2015, kStr), mandatory(1086, kInt)}},
    {{79, 82, 83, 84}, {mandatory(2045, kStr)}},
    {{80}, {mandatory(3009, kStr), mandatory(3010, kStr), mandatory(66, kInt)}},
    {{81}, {mandatory(2045, kStr), mandatory(66, kInt), mandatory(2053, kStr)}},
};

std::vector<int32_t> commandsWithoutRow() {
  std::vector<int32_t> commands = {1, 2, 14, 15, 16, 31, 37, 40, 41};
  for (int32_t command = 43; command <= 69; ++command) commands.push_back(command);
  for (int32_t command = 75; command <= 78; ++command) commands.push_back(command);
  // Outside the range of command codes altogether.
  commands.insert(commands.end(), {0, 85, -1});
  return commands;
}

const std::vector<Leading> &parmsOf(int32_t command) {
  static const std::vector<Leading> kNone;
  for (const CommandRow &row : kRows)
    if (std::find(row.commands.begin(), row.commands.end(), command) != row.commands.end())
      return row.parms;
  return kNone;
}

// What leads when every parameter of the row is present: the stand-ins stay
// in their place among the other items.
std::vector<Leading> firstChoices(const std::vector<Leading> &parms) {
  std::vector<Leading> out;
  for (const Leading &parm : parms)
    if (parm.need != Need::kInPlaceOfMissing) out.push_back(parm);
  return out;
}

// The attribute list that inquiry items of a command become.
struct InquiryList {
  int32_t command;
  int32_t listSelector;
};
constexpr InquiryList kInquiryLists[] = {
    {2, 1001},  {7, 1003},  {13, 1002}, {25, 1015}, {36, 1004},
    {41, 1026}, {42, 1524}, {70, 1093}, {83, 1019},
};

// ----- Decoded messages ------------------------------------------------------------------

// One parameter structure: its type, parameter identifier and value(s).
struct Parm {
  int32_t type;
  int32_t parameter;
  std::vector<int32_t> integers;     // types 3 and 5
  std::vector<std::string> strings;  // types 4 and 6
  bool operator==(const Parm &) const = default;
};

std::ostream &operator<<(std::ostream &out, const Parm &parm) {
  out << "{type " << parm.type << ", " << parm.parameter << ":";
  for (int32_t value : parm.integers) out << " " << value;
  for (const std::string &text : parm.strings) out << " \"" << text << "\"";
  return out << "}";
}

Parm intParm(int32_t selector, int32_t value) { return {PCF_TYPE_INTEGER, selector, {value}, {}}; }
Parm stringParm(int32_t selector, const std::string &text) {
  return {PCF_TYPE_STRING, selector, {}, {text}};
}
Parm intList(int32_t selector, const std::vector<int32_t> &values) {
  return {PCF_TYPE_INTEGER_LIST, selector, values, {}};
}

int32_t roundUp4(int32_t length) { return (length + 3) & ~3; }

// Each parameter of the tables gets a value of its own type that names it.
std::string textOf(int32_t selector) { return "V" + std::to_string(selector); }
int32_t valueOf(int32_t selector) { return selector * 10 + 3; }

Parm expectedOf(const Leading &parm) {
  return parm.type == kInt ? intParm(parm.selector, valueOf(parm.selector))
                           : stringParm(parm.selector, textOf(parm.selector));
}

// Bytes the parameter takes as a single structure.
int32_t sizeOf(const Leading &parm) {
  return parm.type == kInt ? 16 : 20 + roundUp4(static_cast<int32_t>(textOf(parm.selector).size()));
}

int32_t word(const char *structure, int32_t index) {
  int32_t value;
  std::memcpy(&value, structure + 4 * index, sizeof value);
  return value;
}

struct Message {
  int32_t compCode = -1;
  int32_t reason = -1;
  int32_t dataLength = -1;
  PCFHeader header{};
  std::vector<Parm> parms;
};

// Reads the header and as many structures as it counts.  A structure whose
// length disagrees with its contents, or runs past the data, fails the test;
// the structures must end exactly where the reported data ends.
void decode(const char *bytes, int32_t length, Message *message) {
  if (length < kHeaderLength) {
    ADD_FAILURE() << "data length " << length << " holds no header";
    return;
  }
  std::memcpy(&message->header, bytes, sizeof message->header);
  EXPECT_EQ(message->header.structLength, kHeaderLength);
  EXPECT_EQ(message->header.version, 1);
  int32_t offset = kHeaderLength;
  for (int32_t i = 0; i < message->header.parameterCount; ++i) {
    const char *structure = bytes + offset;
    if (length - offset < 8) {
      ADD_FAILURE() << "structure " << i << " at offset " << offset << " is beyond the data";
      return;
    }
    const int32_t type = word(structure, 0);
    const int32_t structLength = word(structure, 1);
    int32_t fixedLength = 0;
    if (type == PCF_TYPE_INTEGER || type == PCF_TYPE_INTEGER_LIST) fixedLength = 16;
    if (type == PCF_TYPE_STRING) fixedLength = 20;
    if (type == PCF_TYPE_STRING_LIST) fixedLength = 24;
    if (fixedLength == 0 || structLength < fixedLength || structLength > length - offset) {
      ADD_FAILURE() << "structure " << i << " at offset " << offset << " (type " << type
                    << ", length " << structLength << ") does not fit";
      return;
    }
    Parm parm{type, word(structure, 2), {}, {}};
    if (type == PCF_TYPE_INTEGER) {
      EXPECT_EQ(structLength, 16) << "structure " << i;
      parm.integers.push_back(word(structure, 3));
    } else if (type == PCF_TYPE_STRING) {
      const int32_t stringLength = word(structure, 4);
      if (stringLength < 0 || stringLength > structLength - 20) {
        ADD_FAILURE() << "string of structure " << i << " does not fit";
        return;
      }
      EXPECT_EQ(structLength, 20 + roundUp4(stringLength)) << "structure " << i;
      parm.strings.emplace_back(structure + 20, static_cast<size_t>(stringLength));
    } else if (type == PCF_TYPE_INTEGER_LIST) {
      const int32_t count = word(structure, 3);
      if (count < 0 || count > (structLength - 16) / 4) {
        ADD_FAILURE() << "values of structure " << i << " do not fit";
        return;
      }
      EXPECT_EQ(structLength, 16 + 4 * count) << "structure " << i;
      for (int32_t value = 0; value < count; ++value)
        parm.integers.push_back(word(structure, 4 + value));
    } else {
      const int32_t count = word(structure, 4);
      const int32_t stringLength = word(structure, 5);
      if (count < 0 || stringLength < 0 ||
          (count > 0 && stringLength > (structLength - 24) / count)) {
        ADD_FAILURE() << "strings of structure " << i << " do not fit";
        return;
      }
      EXPECT_EQ(structLength, roundUp4(24 + count * stringLength)) << "structure " << i;
      for (int32_t k = 0; k < count; ++k) {
        // The strings of a list are padded with zero bytes.
        std::string text(structure + 24 + k * stringLength, static_cast<size_t>(stringLength));
        text.erase(text.find_last_not_of('\0') + 1);
        parm.strings.push_back(text);
      }
    }
    message->parms.push_back(parm);
    offset += structLength;
  }
  EXPECT_EQ(offset, length) << "structures and data length disagree";
}

// Items around the leading parameters in most bags: two before, one after.
const std::vector<Parm> kBefore = {intParm(1999, 1), stringParm(3999, "other")};
const std::vector<Parm> kAfter = {intParm(5, 55)};

// ----- Fixture ---------------------------------------------------------------------------

class RulesTest : public vxtest::BagTest {
 protected:
  static constexpr int32_t kBufferLength = 4096;

  VXHBAG adminBag() { return newBag(BAG_OPT_ADMIN_BAG); }
  // A command bag that reorders and makes lists but lets any selector hold
  // any type, so that a parameter can be given as the wrong one.
  VXHBAG anyTypeBag() {
    return newBag(BAG_OPT_COMMAND_BAG | BAG_OPT_LIST_FORM_ALLOWED | BAG_OPT_REQUIRED_PARMS_FIRST);
  }

  void addInteger(VXHBAG bag, int32_t selector, int32_t value) {
    int32_t cc = -1, rc = -1;
    vxAddInteger(bag, selector, value, &cc, &rc);
    EXPECT_OK(cc, rc) << "adding integer " << selector;
  }
  void addString(VXHBAG bag, int32_t selector, const std::string &text) {
    int32_t cc = -1, rc = -1;
    vxAddString(bag, selector, static_cast<int32_t>(text.size()), text.data(), &cc, &rc);
    EXPECT_OK(cc, rc) << "adding string " << selector;
  }
  void addInquiry(VXHBAG bag, int32_t selector) {
    int32_t cc = -1, rc = -1;
    vxAddInquiry(bag, selector, &cc, &rc);
    EXPECT_OK(cc, rc) << "adding inquiry " << selector;
  }
  void setInteger(VXHBAG bag, int32_t selector, int32_t value) {
    int32_t cc = -1, rc = -1;
    vxSetInteger(bag, selector, ITEM_INDEX_NONE, value, &cc, &rc);
    EXPECT_OK(cc, rc) << "setting " << selector;
  }

  void add(VXHBAG bag, const Leading &parm) {
    if (parm.type == kInt)
      addInteger(bag, parm.selector, valueOf(parm.selector));
    else
      addString(bag, parm.selector, textOf(parm.selector));
  }
  // The parameter as an item of the other type.
  void addAsOtherType(VXHBAG bag, const Leading &parm) {
    if (parm.type == kInt)
      addString(bag, parm.selector, textOf(parm.selector));
    else
      addInteger(bag, parm.selector, valueOf(parm.selector));
  }
  void addBefore(VXHBAG bag) {
    addInteger(bag, 1999, 1);
    addString(bag, 3999, "other");
  }
  void addAfter(VXHBAG bag) { addInteger(bag, 5, 55); }

  // The bag through vxBagToBuffer, its command item set to `command`.
  Message convert(VXHBAG bag, int32_t command) {
    setInteger(bag, SEL_COMMAND, command);
    Message message;
    std::vector<char> buffer(kBufferLength, '\x5A');
    vxBagToBuffer(BAG_NONE, bag, kBufferLength, buffer.data(), &message.dataLength,
                  &message.compCode, &message.reason);
    decode(buffer.data(), std::min(message.dataLength, kBufferLength), &message);
    return message;
  }

  // The bag through the writer itself, with the command as its argument.
  Message convertDirect(VXHBAG bag, int32_t command) {
    Message message;
    std::vector<char> buffer(kBufferLength, '\x5A');
    int32_t msgType = -1;
    char format[8];
    zaiBagToPCFMsg(zaiDecodeHandle(bag), command, kBufferLength, buffer.data(), &message.dataLength,
                   &msgType, format, &message.compCode, &message.reason);
    decode(buffer.data(), std::min(message.dataLength, kBufferLength), &message);
    return message;
  }
};

// The parameters written ahead of `failing`, and the length they end at.
std::vector<Parm> leadingBefore(const std::vector<Leading> &parms, size_t failing) {
  std::vector<Parm> out;
  for (size_t i = 0; i < failing; ++i)
    if (parms[i].need != Need::kInPlaceOfMissing) out.push_back(expectedOf(parms[i]));
  return out;
}
int32_t lengthBefore(const std::vector<Leading> &parms, size_t failing) {
  int32_t length = kHeaderLength;
  for (size_t i = 0; i < failing; ++i)
    if (parms[i].need != Need::kInPlaceOfMissing) length += sizeOf(parms[i]);
  return length;
}

// ----- Every command with a row ----------------------------------------------------------

struct RowCase {
  int32_t command;
  std::vector<Leading> parms;
};

std::ostream &operator<<(std::ostream &out, const RowCase &rowCase) {
  out << "command " << rowCase.command << ":";
  for (const Leading &parm : rowCase.parms) out << " " << parm.selector;
  return out;
}

std::vector<RowCase> rowCases() {
  std::vector<RowCase> cases;
  for (const CommandRow &row : kRows)
    for (int32_t command : row.commands) cases.push_back({command, row.parms});
  std::sort(cases.begin(), cases.end(),
            [](const RowCase &a, const RowCase &b) { return a.command < b.command; });
  return cases;
}

class LeadingRowTest : public RulesTest, public ::testing::WithParamInterface<RowCase> {};

// Added in reverse and behind other items, the leading parameters still open
// the message in the row's order, each once; the rest keeps item order.
TEST_P(LeadingRowTest, LeadingParametersOpenTheMessageInOrder) {
  const RowCase &row = GetParam();
  VXHBAG bag = adminBag();
  addBefore(bag);
  for (auto parm = row.parms.rbegin(); parm != row.parms.rend(); ++parm) add(bag, *parm);
  addAfter(bag);

  const Message message = convert(bag, row.command);
  EXPECT_OK(message.compCode, message.reason);
  std::vector<Parm> expected;
  int32_t length = kHeaderLength;
  for (const Leading &parm : firstChoices(row.parms)) {
    expected.push_back(expectedOf(parm));
    length += sizeOf(parm);
  }
  expected = expected + kBefore;
  length += 16 + 28;  // an integer, and a string of 5 bytes
  // A stand-in whose first choice is present is an ordinary item.
  for (auto parm = row.parms.rbegin(); parm != row.parms.rend(); ++parm) {
    if (parm->need != Need::kInPlaceOfMissing) continue;
    expected.push_back(expectedOf(*parm));
    length += sizeOf(*parm);
  }
  expected = expected + kAfter;
  length += 16;
  EXPECT_EQ(message.parms, expected);
  EXPECT_EQ(message.dataLength, length);
  EXPECT_EQ(message.header.type, PCF_TYPE_COMMAND);
  EXPECT_EQ(message.header.command, row.command);
  EXPECT_EQ(message.header.parameterCount, static_cast<int32_t>(expected.size()));
}

// A missing mandatory parameter ends the conversion with 2321 right after the
// parameters that lead before it: nothing else reaches the buffer.
TEST_P(LeadingRowTest, MissingMandatoryParameterStopsAfterThoseBeforeIt) {
  const RowCase &row = GetParam();
  for (size_t missing = 0; missing < row.parms.size(); ++missing) {
    if (row.parms[missing].need != Need::kMandatory) continue;
    SCOPED_TRACE("missing " + std::to_string(row.parms[missing].selector));
    VXHBAG bag = adminBag();
    addBefore(bag);
    for (size_t i = row.parms.size(); i-- > 0;)
      if (i != missing && row.parms[i].need != Need::kInPlaceOfMissing) add(bag, row.parms[i]);
    addAfter(bag);

    const Message message = convert(bag, row.command);
    EXPECT_OUTCOME(message.compCode, message.reason, CC_FAILED, RC_PARAMETER_MISSING);
    EXPECT_EQ(message.parms, leadingBefore(row.parms, missing));
    EXPECT_EQ(message.dataLength, lengthBefore(row.parms, missing));
  }
}

// A leading parameter held as an item of the other type fails with 2312, and
// a stand-in present in the bag does not take its place.
TEST_P(LeadingRowTest, LeadingParameterOfTheWrongTypeFails) {
  const RowCase &row = GetParam();
  for (size_t wrong = 0; wrong < row.parms.size(); ++wrong) {
    if (row.parms[wrong].need == Need::kInPlaceOfMissing) continue;
    SCOPED_TRACE("wrong type " + std::to_string(row.parms[wrong].selector));
    VXHBAG bag = anyTypeBag();
    addBefore(bag);
    for (size_t i = row.parms.size(); i-- > 0;) {
      if (i == wrong)
        addAsOtherType(bag, row.parms[i]);
      else
        add(bag, row.parms[i]);
    }
    addAfter(bag);

    const Message message = convert(bag, row.command);
    EXPECT_OUTCOME(message.compCode, message.reason, CC_FAILED, RC_SELECTOR_WRONG_TYPE);
    EXPECT_EQ(message.parms, leadingBefore(row.parms, wrong));
    EXPECT_EQ(message.dataLength, lengthBefore(row.parms, wrong));
  }
}

// A leading parameter given twice cannot be chosen: 2305, not replaced.
TEST_P(LeadingRowTest, LeadingParameterGivenTwiceFails) {
  const RowCase &row = GetParam();
  for (size_t twice = 0; twice < row.parms.size(); ++twice) {
    if (row.parms[twice].need == Need::kInPlaceOfMissing) continue;
    SCOPED_TRACE("twice " + std::to_string(row.parms[twice].selector));
    VXHBAG bag = adminBag();
    addBefore(bag);
    for (auto parm = row.parms.rbegin(); parm != row.parms.rend(); ++parm) add(bag, *parm);
    addAfter(bag);
    add(bag, row.parms[twice]);

    const Message message = convert(bag, row.command);
    EXPECT_OUTCOME(message.compCode, message.reason, CC_FAILED, RC_SELECTOR_NOT_UNIQUE);
    EXPECT_EQ(message.parms, leadingBefore(row.parms, twice));
    EXPECT_EQ(message.dataLength, lengthBefore(row.parms, twice));
  }
}

INSTANTIATE_TEST_SUITE_P(Commands, LeadingRowTest, ::testing::ValuesIn(rowCases()),
                         [](const ::testing::TestParamInfo<RowCase> &info) {
                           return "Command" + std::to_string(info.param.command);
                         });

// ----- Commands without a row ------------------------------------------------------------

class NoRowTest : public RulesTest, public ::testing::WithParamInterface<int32_t> {};

// Parameters that lead other commands' messages, given out of order, stay in
// item order; none is demanded, so none is missing.
TEST_P(NoRowTest, ItemsKeepTheirOrderAndNothingIsDemanded) {
  const int32_t command = GetParam();
  VXHBAG bag = adminBag();
  addInteger(bag, 1086, valueOf(1086));
  addString(bag, 3999, "other");
  addString(bag, 2029, textOf(2029));
  addInteger(bag, 20, valueOf(20));
  addString(bag, 2012, textOf(2012));
  const std::vector<Parm> expected = {intParm(1086, valueOf(1086)), stringParm(3999, "other"),
                                      stringParm(2029, textOf(2029)), intParm(20, valueOf(20)),
                                      stringParm(2012, textOf(2012))};

  Message message = convert(bag, command);
  EXPECT_OK(message.compCode, message.reason);
  EXPECT_EQ(message.parms, expected);
  EXPECT_EQ(message.header.command, command);

  message = convertDirect(bag, command);
  EXPECT_OK(message.compCode, message.reason);
  EXPECT_EQ(message.parms, expected);
  EXPECT_EQ(message.header.command, command);
}

// A bag holding only its system items is a bare header for these commands.
TEST_P(NoRowTest, EmptyBagIsABareHeader) {
  const Message message = convertDirect(adminBag(), GetParam());
  EXPECT_OK(message.compCode, message.reason);
  EXPECT_EQ(message.dataLength, kHeaderLength);
  EXPECT_EQ(message.header.parameterCount, 0);
}

INSTANTIATE_TEST_SUITE_P(Commands, NoRowTest, ::testing::ValuesIn(commandsWithoutRow()),
                         [](const ::testing::TestParamInfo<int32_t> &info) {
                           return info.param < 0 ? "CommandMinus" + std::to_string(-info.param)
                                                 : "Command" + std::to_string(info.param);
                         });

// ----- Optional parameters ---------------------------------------------------------------

TEST_F(RulesTest, AbsentOptionalParameterIsNoFailure) {
  struct Case {
    int32_t command;
    int32_t mandatorySelector;
  };
  for (const Case &c : {Case{13, 2016}, Case{25, 3501}}) {
    SCOPED_TRACE("command " + std::to_string(c.command));
    VXHBAG bag = adminBag();
    addString(bag, 3999, "other");
    addString(bag, c.mandatorySelector, textOf(c.mandatorySelector));
    const Message message = convert(bag, c.command);
    EXPECT_OK(message.compCode, message.reason);
    EXPECT_EQ(message.parms,
              (std::vector<Parm>{stringParm(c.mandatorySelector, textOf(c.mandatorySelector)),
                                 stringParm(3999, "other")}));
  }
}

// ----- Stand-ins for a missing first choice ----------------------------------------------

TEST_F(RulesTest, SecondNameLeadsWhenTheFirstIsMissing) {
  for (int32_t command : {71, 72}) {
    SCOPED_TRACE("command " + std::to_string(command));
    VXHBAG bag = adminBag();
    addBefore(bag);
    addString(bag, 2030, textOf(2030));
    const Message message = convert(bag, command);
    EXPECT_OK(message.compCode, message.reason);
    EXPECT_EQ(message.parms, std::vector<Parm>{stringParm(2030, textOf(2030))} + kBefore);
  }
}

TEST_F(RulesTest, NeitherNameFailsWithNothingWritten) {
  for (int32_t command : {71, 72}) {
    SCOPED_TRACE("command " + std::to_string(command));
    VXHBAG bag = adminBag();
    addBefore(bag);
    const Message message = convert(bag, command);
    EXPECT_OUTCOME(message.compCode, message.reason, CC_FAILED, RC_PARAMETER_MISSING);
    EXPECT_EQ(message.dataLength, kHeaderLength);
    EXPECT_EQ(message.header.parameterCount, 0);
  }
}

// Only a missing first choice is replaced: one given twice, or as the wrong
// type, ends the conversion although the second name is there.
TEST_F(RulesTest, FirstNameFailingOtherwiseIsNotReplaced) {
  for (int32_t command : {71, 72}) {
    SCOPED_TRACE("command " + std::to_string(command));
    VXHBAG bag = adminBag();
    addString(bag, 2029, textOf(2029));
    addString(bag, 2029, "again");
    addString(bag, 2030, textOf(2030));
    Message message = convert(bag, command);
    EXPECT_OUTCOME(message.compCode, message.reason, CC_FAILED, RC_SELECTOR_NOT_UNIQUE);
    EXPECT_EQ(message.dataLength, kHeaderLength);

    bag = anyTypeBag();
    addInteger(bag, 2029, 1);
    addString(bag, 2030, textOf(2030));
    message = convert(bag, command);
    EXPECT_OUTCOME(message.compCode, message.reason, CC_FAILED, RC_SELECTOR_WRONG_TYPE);
    EXPECT_EQ(message.dataLength, kHeaderLength);
  }
}

// The second name is itself a mandatory parameter with its own checks.
TEST_F(RulesTest, SecondNameOfTheWrongTypeFails) {
  VXHBAG bag = anyTypeBag();
  addInteger(bag, 2030, 1);
  const Message message = convert(bag, 71);
  EXPECT_OUTCOME(message.compCode, message.reason, CC_FAILED, RC_SELECTOR_WRONG_TYPE);
  EXPECT_EQ(message.dataLength, kHeaderLength);
}

TEST_F(RulesTest, Command74StandInReplacesAMissingSecondName) {
  VXHBAG bag = adminBag();
  addBefore(bag);
  addInteger(bag, 1086, valueOf(1086));
  addString(bag, 2015, textOf(2015));
  addString(bag, 2029, textOf(2029));
  const Message message = convert(bag, 74);
  EXPECT_OK(message.compCode, message.reason);
  EXPECT_EQ(message.parms,
            (std::vector<Parm>{stringParm(2029, textOf(2029)), stringParm(2015, textOf(2015)),
                               intParm(1086, valueOf(1086))}) +
                kBefore);
}

// After the first name is missing the second is not tried at all: the
// stand-in leads and the second name stays among the other items.
TEST_F(RulesTest, Command74StandInReplacesAMissingFirstName) {
  VXHBAG bag = adminBag();
  addBefore(bag);
  addString(bag, 2032, textOf(2032));
  addInteger(bag, 1086, valueOf(1086));
  addString(bag, 2015, textOf(2015));
  const Message message = convert(bag, 74);
  EXPECT_OK(message.compCode, message.reason);
  EXPECT_EQ(message.parms,
            (std::vector<Parm>{stringParm(2015, textOf(2015)), intParm(1086, valueOf(1086))}) +
                kBefore + std::vector<Parm>{stringParm(2032, textOf(2032))});
}

TEST_F(RulesTest, Command74WithBothNamesNeedsNoStandIn) {
  VXHBAG bag = adminBag();
  addBefore(bag);
  addInteger(bag, 1086, valueOf(1086));
  addString(bag, 2032, textOf(2032));
  addString(bag, 2029, textOf(2029));
  const Message message = convert(bag, 74);
  EXPECT_OK(message.compCode, message.reason);
  EXPECT_EQ(message.parms,
            (std::vector<Parm>{stringParm(2029, textOf(2029)), stringParm(2032, textOf(2032)),
                               intParm(1086, valueOf(1086))}) +
                kBefore);
}

TEST_F(RulesTest, Command74FailuresStopAfterWhatLeadsBefore) {
  struct Case {
    const char *what;
    std::vector<int32_t> present;
    std::vector<Parm> written;
  };
  const Parm p2029 = stringParm(2029, textOf(2029));
  const Parm p2032 = stringParm(2032, textOf(2032));
  const Parm p2015 = stringParm(2015, textOf(2015));
  const std::vector<Case> cases = {
      {"1086 missing after both names", {2029, 2032}, {p2029, p2032}},
      {"1086 missing after the stand-in", {2015, 2032}, {p2015}},
      {"first name and stand-in missing", {2032, 1086}, {}},
      {"second name and stand-in missing", {2029, 1086}, {p2029}},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.what);
    VXHBAG bag = adminBag();
    addBefore(bag);
    for (int32_t selector : c.present) {
      if (selector == 1086)
        addInteger(bag, selector, valueOf(selector));
      else
        addString(bag, selector, textOf(selector));
    }
    const Message message = convert(bag, 74);
    EXPECT_OUTCOME(message.compCode, message.reason, CC_FAILED, RC_PARAMETER_MISSING);
    EXPECT_EQ(message.parms, c.written);
    // Each name written is a string of 5 bytes: 28 bytes.
    EXPECT_EQ(message.dataLength, kHeaderLength + 28 * static_cast<int32_t>(c.written.size()));
  }
}

// ----- Bags that get no leading parameters -----------------------------------------------

TEST_F(RulesTest, ResponseTypeBagGetsNoLeadingParameters) {
  VXHBAG bag = adminBag();
  setInteger(bag, SEL_PCF_TYPE, PCF_TYPE_RESPONSE);
  addString(bag, 3999, "other");
  addString(bag, 2012, textOf(2012));
  Message message = convert(bag, 3);
  EXPECT_OK(message.compCode, message.reason);
  EXPECT_EQ(message.header.type, PCF_TYPE_RESPONSE);
  EXPECT_EQ(message.parms,
            (std::vector<Parm>{stringParm(3999, "other"), stringParm(2012, textOf(2012))}));

  // Nor is anything missing.
  bag = adminBag();
  setInteger(bag, SEL_PCF_TYPE, PCF_TYPE_RESPONSE);
  addString(bag, 3999, "other");
  message = convert(bag, 74);
  EXPECT_OK(message.compCode, message.reason);
  EXPECT_EQ(message.parms, std::vector<Parm>{stringParm(3999, "other")});
}

TEST_F(RulesTest, BagThatMayNotBeReorderedGetsNoLeadingParameters) {
  VXHBAG bag = newBag(BAG_OPT_COMMAND_BAG | BAG_OPT_LIST_FORM_ALLOWED | BAG_OPT_CHECK_SELECTORS);
  addString(bag, 3999, "other");
  addString(bag, 2012, textOf(2012));
  Message message = convert(bag, 3);
  EXPECT_OK(message.compCode, message.reason);
  EXPECT_EQ(message.header.type, PCF_TYPE_COMMAND);
  EXPECT_EQ(message.parms,
            (std::vector<Parm>{stringParm(3999, "other"), stringParm(2012, textOf(2012))}));

  bag = newBag(BAG_OPT_COMMAND_BAG | BAG_OPT_LIST_FORM_ALLOWED | BAG_OPT_CHECK_SELECTORS);
  addString(bag, 3999, "other");
  message = convert(bag, 3);
  EXPECT_OK(message.compCode, message.reason);
  EXPECT_EQ(message.parms, std::vector<Parm>{stringParm(3999, "other")});
}

// Reordering alone, without list form, is what brings leading parameters.
TEST_F(RulesTest, ReorderingWithoutListFormStillLeads) {
  VXHBAG bag = newBag(BAG_OPT_COMMAND_BAG | BAG_OPT_REQUIRED_PARMS_FIRST);
  addString(bag, 3999, "other");
  addString(bag, 2012, textOf(2012));
  Message message = convert(bag, 3);
  EXPECT_OK(message.compCode, message.reason);
  EXPECT_EQ(message.parms,
            (std::vector<Parm>{stringParm(2012, textOf(2012)), stringParm(3999, "other")}));

  bag = newBag(BAG_OPT_COMMAND_BAG | BAG_OPT_REQUIRED_PARMS_FIRST);
  addString(bag, 3999, "other");
  message = convert(bag, 3);
  EXPECT_OUTCOME(message.compCode, message.reason, CC_FAILED, RC_PARAMETER_MISSING);
  EXPECT_EQ(message.dataLength, kHeaderLength);
}

// A user bag that reorders leads only once its type is made a command.
TEST_F(RulesTest, OnlyCommandTypeBagsLead) {
  VXHBAG bag = newBag(BAG_OPT_REQUIRED_PARMS_FIRST);
  addString(bag, 3999, "other");
  addString(bag, 2012, textOf(2012));
  Message message = convert(bag, 3);
  EXPECT_OK(message.compCode, message.reason);
  EXPECT_EQ(message.header.type, PCF_TYPE_USER);
  EXPECT_EQ(message.parms,
            (std::vector<Parm>{stringParm(3999, "other"), stringParm(2012, textOf(2012))}));

  setInteger(bag, SEL_PCF_TYPE, PCF_TYPE_COMMAND);
  message = convert(bag, 3);
  EXPECT_OK(message.compCode, message.reason);
  EXPECT_EQ(message.parms,
            (std::vector<Parm>{stringParm(2012, textOf(2012)), stringParm(3999, "other")}));
}

// ----- The steps themselves --------------------------------------------------------------

// A zeroed control area writing into a local buffer, without a header.
struct Area {
  Area() {
    std::memset(&area, 0, sizeof area);
    std::memcpy(area.eyeCatcher, "ZPBC", 4);
    area.areaLength = sizeof area;
    area.buffer = buffer;
    area.bufferLength = sizeof buffer;
  }
  zaiPCFBUFFER area;
  char buffer[256];
};

TEST_F(RulesTest, MandatoryStepWritesOneStructureAndMarksItsItem) {
  VXHBAG bag = adminBag();
  addString(bag, 3999, "other");       // item 8
  addString(bag, 2016, textOf(2016));  // item 9
  Area control;
  int32_t cc = -1, rc = -1;
  zaiWriteMandatoryParm(zaiDecodeHandle(bag), &control.area, 2016, kStr, &cc, &rc);
  EXPECT_OK(cc, rc);
  EXPECT_EQ(control.area.usedLength, 28);
  EXPECT_EQ(word(control.buffer, 0), PCF_TYPE_STRING);
  EXPECT_EQ(word(control.buffer, 1), 28);
  EXPECT_EQ(word(control.buffer, 2), 2016);
  EXPECT_EQ(word(control.buffer, 4), 5);
  EXPECT_EQ(std::string(control.buffer + 20, 5), textOf(2016));
  EXPECT_EQ(*zaiWrittenFlag(&control.area, 9), 1);
  EXPECT_EQ(*zaiWrittenFlag(&control.area, 8), 0);

  zaiWriteMandatoryParm(zaiDecodeHandle(bag), &control.area, 20, kInt, &cc, &rc);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_PARAMETER_MISSING);
  zaiWriteMandatoryParm(zaiDecodeHandle(bag), &control.area, 3999, kInt, &cc, &rc);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_SELECTOR_WRONG_TYPE);
  EXPECT_EQ(control.area.usedLength, 28);
  EXPECT_EQ(*zaiWrittenFlag(&control.area, 8), 0);
}

// An absent optional parameter clears a failure left from before and writes
// nothing; one of the wrong type still fails.
TEST_F(RulesTest, OptionalStepResetsTheOutcomeWhenAbsent) {
  VXHBAG bag = adminBag();
  addString(bag, 2016, textOf(2016));
  Area control;
  int32_t cc = CC_FAILED, rc = RC_PARAMETER_MISSING;
  zaiWriteOptionalParm(zaiDecodeHandle(bag), &control.area, 20, kInt, &cc, &rc);
  EXPECT_OK(cc, rc);
  EXPECT_EQ(control.area.usedLength, 0);

  zaiWriteOptionalParm(zaiDecodeHandle(bag), &control.area, 2016, kInt, &cc, &rc);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_SELECTOR_WRONG_TYPE);
  EXPECT_EQ(control.area.usedLength, 0);
  EXPECT_EQ(*zaiWrittenFlag(&control.area, 8), 0);

  zaiWriteOptionalParm(zaiDecodeHandle(bag), &control.area, 2016, kStr, &cc, &rc);
  EXPECT_OK(cc, rc);
  EXPECT_EQ(control.area.usedLength, 28);
  EXPECT_EQ(*zaiWrittenFlag(&control.area, 8), 1);
}

// ----- Inquiry mapping -------------------------------------------------------------------

TEST_F(RulesTest, InquiryMappingOfEveryCommand) {
  for (int32_t command = -1; command <= 100; ++command) {
    SCOPED_TRACE("command " + std::to_string(command));
    const InquiryList *mapped = nullptr;
    for (const InquiryList &list : kInquiryLists)
      if (list.command == command) mapped = &list;
    int32_t selector = 4242, cc = -1, rc = -1;
    zaiMapInquiryFromCommand(command, &selector, &cc, &rc);
    if (mapped) {
      EXPECT_OK(cc, rc);
      EXPECT_EQ(selector, mapped->listSelector);
    } else {
      EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_COMMAND_HAS_NO_INQUIRY);
      EXPECT_EQ(selector, 4242);
    }
  }
}

// Inquiry items, wherever they are, become one integer list after the
// leading parameters, under the command's attribute-list selector.
TEST_F(RulesTest, InquiryItemsBecomeTheCommandsAttributeList) {
  for (const InquiryList &list : kInquiryLists) {
    SCOPED_TRACE("command " + std::to_string(list.command));
    VXHBAG bag = adminBag();
    addInquiry(bag, 2016);
    addInquiry(bag, 4);
    addInteger(bag, 1999, 1);
    addInquiry(bag, 3501);
    addString(bag, 3999, "other");
    addInquiry(bag, 4);
    const std::vector<Leading> leading = firstChoices(parmsOf(list.command));
    for (const Leading &parm : leading) add(bag, parm);

    const Message message = convert(bag, list.command);
    EXPECT_OK(message.compCode, message.reason);
    std::vector<Parm> expected;
    for (const Leading &parm : leading) expected.push_back(expectedOf(parm));
    expected.push_back(intList(list.listSelector, {2016, 4, 3501, 4}));
    expected = expected + kBefore;
    EXPECT_EQ(message.parms, expected);
  }
}

TEST_F(RulesTest, SingleInquiryItemIsStillAList) {
  VXHBAG bag = adminBag();
  addInquiry(bag, 7);
  const Message message = convert(bag, 2);
  EXPECT_OK(message.compCode, message.reason);
  EXPECT_EQ(message.parms, std::vector<Parm>{intList(1001, {7})});
}

// Items already under the attribute-list selector join the same list, before
// or after the inquiry items; another command's list selector is a list of
// its own, also for a command without inquiries.
TEST_F(RulesTest, AttributeListItemsJoinTheInquiryList) {
  VXHBAG bag = adminBag();
  addInteger(bag, 1001, 5);
  addInquiry(bag, 7);
  addString(bag, 3999, "other");
  addInteger(bag, 1002, 3);
  addInteger(bag, 1001, 9);
  Message message = convert(bag, 2);
  EXPECT_OK(message.compCode, message.reason);
  EXPECT_EQ(message.parms, (std::vector<Parm>{intList(1001, {5, 7, 9}), stringParm(3999, "other"),
                                              intList(1002, {3})}));

  bag = adminBag();
  addInquiry(bag, 7);
  addInteger(bag, 1001, 5);
  message = convert(bag, 2);
  EXPECT_OK(message.compCode, message.reason);
  EXPECT_EQ(message.parms, std::vector<Parm>{intList(1001, {7, 5})});

  bag = adminBag();
  addString(bag, 2012, textOf(2012));
  addInteger(bag, 1001, 5);
  message = convert(bag, 3);
  EXPECT_OK(message.compCode, message.reason);
  EXPECT_EQ(message.parms, (std::vector<Parm>{stringParm(2012, textOf(2012)), intList(1001, {5})}));
}

// A command without inquiries stops at the first inquiry item, after what
// was written before it.
TEST_F(RulesTest, InquiryItemsForACommandWithoutInquiriesFail) {
  VXHBAG bag = adminBag();
  addInteger(bag, 1999, 1);
  addInquiry(bag, 2016);
  addInteger(bag, 5, 55);
  addInquiry(bag, 20);
  addString(bag, 2012, textOf(2012));
  const Message message = convert(bag, 3);
  EXPECT_OUTCOME(message.compCode, message.reason, CC_FAILED, RC_COMMAND_HAS_NO_INQUIRY);
  EXPECT_EQ(message.parms, (std::vector<Parm>{stringParm(2012, textOf(2012)), intParm(1999, 1)}));
  EXPECT_EQ(message.dataLength, kHeaderLength + 28 + 16);
}

// Without reordering only adjacent inquiry items share a list.
TEST_F(RulesTest, InquiryItemsWithoutReorderingJoinOnlyNeighbours) {
  VXHBAG bag = newBag(BAG_OPT_COMMAND_BAG | BAG_OPT_LIST_FORM_ALLOWED);
  addInteger(bag, SEL_INQUIRY_ITEM, 2016);
  addInteger(bag, SEL_INQUIRY_ITEM, 20);
  addInteger(bag, 1999, 1);
  addInteger(bag, SEL_INQUIRY_ITEM, 1);
  const Message message = convert(bag, 2);
  EXPECT_OK(message.compCode, message.reason);
  EXPECT_EQ(message.parms,
            (std::vector<Parm>{intList(1001, {2016, 20}), intParm(1999, 1), intList(1001, {1})}));
}

// Without list form an inquiry item is an integer like any other.
TEST_F(RulesTest, InquiryItemsWithoutListFormStayIntegers) {
  VXHBAG bag = newBag(BAG_OPT_COMMAND_BAG);
  addInteger(bag, SEL_INQUIRY_ITEM, 2016);
  addInteger(bag, SEL_INQUIRY_ITEM, 20);
  const Message message = convert(bag, 2);
  EXPECT_OK(message.compCode, message.reason);
  EXPECT_EQ(message.parms,
            (std::vector<Parm>{intParm(SEL_INQUIRY_ITEM, 2016), intParm(SEL_INQUIRY_ITEM, 20)}));
}

// ----- Trace and history -----------------------------------------------------------------

std::vector<std::string> textUnder(const vxtest::TraceCapture &trace, int32_t function) {
  std::vector<std::string> out;
  for (const vxtest::TraceLine &line : trace.raw())
    if (!line.isData && line.function == function) out.push_back(line.text);
  return out;
}

TEST_F(RulesTest, MandatoryAndOptionalStepsTraceUnderTheirOwnNumbers) {
  VXHBAG bag = adminBag();
  addString(bag, 2016, textOf(2016));
  setInteger(bag, SEL_COMMAND, 13);
  std::vector<std::string> rules, mandatoryLines, optionalLines;
  {
    vxtest::TraceCapture trace(0x1 | 0xC0000, true);
    char buffer[256];
    int32_t length = -1, cc = -1, rc = -1;
    vxBagToBuffer(BAG_NONE, bag, sizeof buffer, buffer, &length, &cc, &rc);
    EXPECT_OK(cc, rc);
    rules = textUnder(trace, ZAIFN_zaiWriteRequiredParmsForCmd);
    mandatoryLines = textUnder(trace, ZAIFN_zaiWriteMandatoryParm);
    optionalLines = textUnder(trace, ZAIFN_zaiWriteOptionalParm);
  }
  ASSERT_GE(rules.size(), 2u);
  EXPECT_EQ(rules.front(), "{ zaiWriteRequiredParmsForCmd");
  EXPECT_EQ(rules.back(), "} zaiWriteRequiredParmsForCmd rc=0");
  ASSERT_EQ(mandatoryLines.size(), 3u);
  EXPECT_EQ(mandatoryLines.front(), "{ zaiWriteMandatoryParm");
  EXPECT_NE(mandatoryLines[1].find("selector:2016,"), std::string::npos) << mandatoryLines[1];
  EXPECT_EQ(mandatoryLines.back(), "} zaiWriteMandatoryParm rc=0");
  ASSERT_EQ(optionalLines.size(), 3u);
  EXPECT_EQ(optionalLines.front(), "{ zaiWriteOptionalParm");
  EXPECT_NE(optionalLines[1].find("selector:20,"), std::string::npos) << optionalLines[1];
  EXPECT_EQ(optionalLines.back(), "} zaiWriteOptionalParm rc=0");
}

// The failing step and the rules around it leave with the reason; the
// optional step after it does not run.
TEST_F(RulesTest, MissingParameterIsTracedAtItsStep) {
  VXHBAG bag = adminBag();
  setInteger(bag, SEL_COMMAND, 13);
  std::vector<std::string> rules, mandatoryLines, optionalLines;
  {
    vxtest::TraceCapture trace(0x1 | 0xC0000, true);
    char buffer[256];
    int32_t length = -1, cc = -1, rc = -1;
    vxBagToBuffer(BAG_NONE, bag, sizeof buffer, buffer, &length, &cc, &rc);
    EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_PARAMETER_MISSING);
    rules = textUnder(trace, ZAIFN_zaiWriteRequiredParmsForCmd);
    mandatoryLines = textUnder(trace, ZAIFN_zaiWriteMandatoryParm);
    optionalLines = textUnder(trace, ZAIFN_zaiWriteOptionalParm);
  }
  ASSERT_FALSE(rules.empty());
  EXPECT_EQ(rules.back(), "} zaiWriteRequiredParmsForCmd rc=2321");
  ASSERT_FALSE(mandatoryLines.empty());
  EXPECT_EQ(mandatoryLines.back(), "} zaiWriteMandatoryParm rc=2321");
  EXPECT_TRUE(optionalLines.empty());
}

std::vector<uint32_t> historySince(const svcTHREADANCHOR *anchor, int32_t start) {
  std::vector<uint32_t> markers;
  for (int32_t slot = start; slot != anchor->historyIndex; slot = (slot + 1) % anchor->historySize)
    markers.push_back(anchor->history[slot]);
  return markers;
}

constexpr uint32_t entryMarker(int32_t function) {
  return 0xF0000000u | static_cast<uint32_t>(ZAI_COMPONENT << 10 | function);
}

bool holds(const std::vector<uint32_t> &markers, uint32_t marker) {
  return std::find(markers.begin(), markers.end(), marker) != markers.end();
}

TEST_F(RulesTest, HistoryMarkersOfTheRulesCarryTheReason) {
  VXHBAG bag = adminBag();
  svcTHREADANCHOR *anchor = svcThreadAnchor();
  ASSERT_NE(anchor, nullptr);

  Area missing;
  missing.area.command = 13;
  int32_t start = anchor->historyIndex;
  int32_t cc = -1, rc = -1;
  zaiWriteRequiredParmsForCmd(zaiDecodeHandle(bag), &missing.area, &cc, &rc);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_PARAMETER_MISSING);
  std::vector<uint32_t> markers = historySince(anchor, start);
  ASSERT_FALSE(markers.empty());
  EXPECT_EQ(markers.front(), entryMarker(ZAIFN_zaiWriteRequiredParmsForCmd));
  EXPECT_EQ(markers.back(), exitMarker(ZAIFN_zaiWriteRequiredParmsForCmd, RC_PARAMETER_MISSING));
  EXPECT_TRUE(holds(markers, exitMarker(ZAIFN_zaiWriteMandatoryParm, RC_PARAMETER_MISSING)));
  EXPECT_FALSE(holds(markers, entryMarker(ZAIFN_zaiWriteOptionalParm)));
  EXPECT_EQ(missing.area.usedLength, 0);

  addString(bag, 2016, textOf(2016));
  Area written;
  written.area.command = 13;
  start = anchor->historyIndex;
  zaiWriteRequiredParmsForCmd(zaiDecodeHandle(bag), &written.area, &cc, &rc);
  EXPECT_OK(cc, rc);
  markers = historySince(anchor, start);
  ASSERT_FALSE(markers.empty());
  EXPECT_EQ(markers.back(), exitMarker(ZAIFN_zaiWriteRequiredParmsForCmd, RC_NONE));
  EXPECT_TRUE(holds(markers, exitMarker(ZAIFN_zaiWriteMandatoryParm, RC_NONE)));
  EXPECT_TRUE(holds(markers, exitMarker(ZAIFN_zaiWriteOptionalParm, RC_NONE)));
  EXPECT_EQ(written.area.usedLength, 28);
}

}  // namespace
