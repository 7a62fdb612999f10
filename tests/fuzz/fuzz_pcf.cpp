// Fuzz target for the PCF reader and writer.
//
// An input is one selector byte followed by a message.  Bits 0-2 of the
// selector byte choose the kind of bag the message is read into; bit 3 gives
// that bag a character set and two items before the read, so that the
// reader's clearing of the bag is exercised too.  Each run:
//   1. reads the message with vxBufferToBag from a heap block of exactly its
//      length, and compares the outcome and every item with an independent
//      walk of the message;
//   2. whatever the read gave, writes the bag with vxBagToBuffer, measuring
//      first with a length of 0 and then writing into a block of the length
//      measured;
//   3. when the write succeeds, reads its message into a fresh bag of the
//      same kind, checks what a round trip must keep, and writes that bag
//      again: the second message must equal the first byte for byte;
//   4. deletes every bag and checks that no block of the library is left.
// A broken rule aborts, so that libFuzzer keeps the input.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <map>
#include <tuple>
#include <vector>

#include "svc.h"
#include "vxai.h"
#include "vxai_internal.h"

namespace {

constexpr int32_t kListForm = BAG_OPT_LIST_FORM_ALLOWED;
constexpr int32_t kReorder = BAG_OPT_REQUIRED_PARMS_FIRST;
constexpr int32_t kChecked = BAG_OPT_CHECK_SELECTORS;

// Bag kinds by the low three bits of the selector byte.
constexpr int32_t kKinds[] = {
    0,         BAG_OPT_ADMIN_BAG, kListForm | kReorder, kChecked,
    kListForm, kReorder,          BAG_OPT_COMMAND_BAG,  kListForm | kChecked};
constexpr uint8_t kKindMask = 0x07;
constexpr uint8_t kFillFirst = 0x08;
constexpr int32_t kFillCharSet = 850;

// Largest block svcGetMem hands out while fuzzing.  A message may legally
// hold a list of two thousand million empty strings in 28 bytes; with this
// limit the bag's item vector stops growing at 1,280 items and the read fails
// with RC_STORAGE_NOT_AVAILABLE instead of taking all memory.  A bigger bag
// takes no path that one of a thousand items does not (the writer indexes
// bags of more than 40), it only makes each run longer.
constexpr int32_t kBlockLimit = 1 << 16;

// The reader may run out of memory only with a bag this full: a vector of
// 28-byte slots at most doubles, so a refused block above kBlockLimit held
// room for at least a sixty-fourth of the limit in items.
constexpr size_t kFewestItemsAtLimit = kBlockLimit / 64;

// A message longer than this is measured but not written: the measuring pass
// runs the whole writer already, and a bag of twenty thousand copies of a
// long string would otherwise cost a hundred megabytes a run.
constexpr int32_t kLargestWrite = 16 << 20;

constexpr int32_t kHeaderLength = sizeof(PCFHeader);

[[noreturn]] void broken(const char *rule, int32_t compCode, int32_t reason) {
  std::fprintf(stderr, "fuzz_pcf: %s (completion code %d, reason %d)\n", rule, compCode, reason);
  std::abort();
}

void require(bool holds, const char *rule) {
  if (!holds) broken(rule, 0, 0);
}

void requireOk(int32_t compCode, int32_t reason, const char *call) {
  if (compCode != CC_OK || reason != RC_NONE) broken(call, compCode, reason);
}

int32_t fieldAt(const uint8_t *bytes, int64_t offset) {
  return zaiGetField(bytes, static_cast<size_t>(offset));
}

int32_t roundUp4(int32_t length) { return (length + 3) & ~3; }

// ----- Bags --------------------------------------------------------------------------

VXHBAG newBag(int32_t options) {
  VXHBAG bag = BAG_NONE;
  int32_t compCode, reason;
  vxCreateBag(options, &bag, &compCode, &reason);
  requireOk(compCode, reason, "vxCreateBag");
  return bag;
}

void deleteBag(VXHBAG *bag) {
  int32_t compCode, reason;
  vxDeleteBag(bag, &compCode, &reason);
  requireOk(compCode, reason, "vxDeleteBag");
}

const zaiBAG *recordOf(VXHBAG bag) { return zaiDecodeHandle(bag); }

int32_t systemValue(VXHBAG bag, int32_t selector) {
  int32_t value = 0, compCode, reason;
  vxInquireInteger(bag, selector, 0, &value, &compCode, &reason);
  requireOk(compCode, reason, "vxInquireInteger of a system item");
  return value;
}

// The user items of a bag in bag order, read from the records directly so
// that a bag of twenty thousand items costs one pass.
std::vector<const zaiPROPERTY *> userItems(VXHBAG handle) {
  const zaiBAG *bag = recordOf(handle);
  std::vector<const zaiPROPERTY *> items;
  for (int32_t index = 0; index < bag->items->count; ++index) {
    const zaiPROPERTY *item = zaiItemAt(bag, index);
    if (item->selector >= 0) items.push_back(item);
  }
  return items;
}

int32_t systemItemCount(VXHBAG handle) {
  const zaiBAG *bag = recordOf(handle);
  int32_t count = 0;
  for (int32_t index = 0; index < bag->items->count; ++index)
    if (zaiItemAt(bag, index)->selector < 0) ++count;
  return count;
}

// The header fields that travel as system items, in header order from the
// type to the reason.
constexpr int32_t kHeaderSelectors[] = {SEL_PCF_TYPE, SEL_COMMAND,   SEL_MSG_SEQ_NUMBER,
                                        SEL_CONTROL,  SEL_COMP_CODE, SEL_REASON};
constexpr size_t kHeaderFieldOffsets[] = {
    offsetof(PCFHeader, type),    offsetof(PCFHeader, command),  offsetof(PCFHeader, msgSeqNumber),
    offsetof(PCFHeader, control), offsetof(PCFHeader, compCode), offsetof(PCFHeader, reason)};

// ----- Reading -----------------------------------------------------------------------

// Walks a message as the reader must and compares each item the reader must
// add with the bag's next user item as soon as it is known, so that a list
// of two thousand million empty strings costs no more than the bag can hold.
class ReadCheck {
 public:
  ReadCheck(VXHBAG bag, const uint8_t *message, int32_t length)
      : items_(userItems(bag)),
        checkSelectors_(recordOf(bag)->checkSelectors != 0),
        message_(message),
        length_(length) {}

  // The reason the read must end with; the items are compared on the way.
  int32_t walk() {
    if (length_ < kHeaderLength) return RC_PCF_FORMAT_ERROR;
    if (fieldAt(message_, offsetof(PCFHeader, structLength)) != kHeaderLength ||
        fieldAt(message_, offsetof(PCFHeader, version)) != PCF_HEADER_VERSION ||
        fieldAt(message_, offsetof(PCFHeader, parameterCount)) < 0)
      return RC_PCF_FORMAT_ERROR;
    headerRead_ = true;
    const int32_t parameters = fieldAt(message_, offsetof(PCFHeader, parameterCount));
    int64_t offset = kHeaderLength;
    for (int32_t i = 0; i < parameters; ++i) {
      const int32_t reason = structure(offset);
      if (reason != RC_NONE) return reason;
      offset += fieldAt(message_, offset + 4);
    }
    return RC_NONE;
  }

  bool headerRead() const { return headerRead_; }
  // Every user item of the bag was given by the message.
  bool allCompared() const { return next_ == items_.size(); }
  size_t itemsHeld() const { return items_.size(); }

 private:
  int32_t structure(int64_t offset) {
    // Type and length are needed before anything else is known.
    if (offset + 8 > length_) return RC_PCF_FORMAT_ERROR;
    const int32_t type = fieldAt(message_, offset);
    const int32_t structLength = fieldAt(message_, offset + 4);
    int64_t fixedLength = 0;
    switch (type) {
      case PCF_TYPE_INTEGER:
        fixedLength = sizeof(PCFIntParm);
        break;
      case PCF_TYPE_STRING:
        fixedLength = sizeof(PCFStringParm);
        break;
      case PCF_TYPE_INTEGER_LIST:
        fixedLength = sizeof(PCFIntListParm);
        break;
      case PCF_TYPE_STRING_LIST:
        fixedLength = sizeof(PCFStringListParm);
        break;
      default:
        return RC_PCF_FORMAT_ERROR;
    }
    if (offset + structLength > length_ || offset + fixedLength > length_)
      return RC_PCF_FORMAT_ERROR;
    const uint8_t *at = message_ + offset;
    const int32_t parameter = fieldAt(at, 8);
    const bool multipleOf4 = (structLength & 3) == 0;
    if (type == PCF_TYPE_INTEGER) {
      if (structLength != fixedLength) return RC_PCF_FORMAT_ERROR;
      return values(parameter, ITEM_TYPE_INTEGER, 1, [&](int32_t) {
        return add(parameter, ITEM_TYPE_INTEGER, fieldAt(at, 12), nullptr, 0, 0);
      });
    }
    if (type == PCF_TYPE_STRING) {
      const int32_t ccsid = fieldAt(at, 12), stringLength = fieldAt(at, 16);
      if (!multipleOf4 || stringLength < 0 || structLength < fixedLength + stringLength)
        return RC_PCF_FORMAT_ERROR;
      return values(parameter, ITEM_TYPE_STRING, 1, [&](int32_t) {
        return add(parameter, ITEM_TYPE_STRING, 0, at + fixedLength, stringLength, ccsid);
      });
    }
    if (type == PCF_TYPE_INTEGER_LIST) {
      const int32_t count = fieldAt(at, 12);
      if (!multipleOf4 || count < 0 || structLength < fixedLength + int64_t{4} * count)
        return RC_PCF_FORMAT_ERROR;
      return values(parameter, ITEM_TYPE_INTEGER, count, [&](int32_t i) {
        return add(parameter, ITEM_TYPE_INTEGER, fieldAt(at, fixedLength + int64_t{4} * i), nullptr,
                   0, 0);
      });
    }
    const int32_t ccsid = fieldAt(at, 12), count = fieldAt(at, 16), stringLength = fieldAt(at, 20);
    if (!multipleOf4 || count < 0 || stringLength < 0 ||
        structLength < fixedLength + int64_t{count} * stringLength)
      return RC_PCF_FORMAT_ERROR;
    return values(parameter, ITEM_TYPE_STRING, count, [&](int32_t i) {
      return add(parameter, ITEM_TYPE_STRING, 0, at + fixedLength + int64_t{i} * stringLength,
                 stringLength, ccsid);
    });
  }

  // The identifier check, then one add per value until one fails.
  template <typename AddValue>
  int32_t values(int32_t parameter, int32_t itemType, int32_t count, AddValue addValue) {
    if (parameter < 0) return RC_SELECTOR_OUT_OF_RANGE;
    const int32_t rangeStart = itemType == ITEM_TYPE_INTEGER ? 1 : 2001;
    if (checkSelectors_ && (parameter < rangeStart || parameter > rangeStart + 1999))
      return RC_SELECTOR_OUT_OF_RANGE;
    for (int32_t i = 0; i < count; ++i) {
      const int32_t reason = addValue(i);
      if (reason != RC_NONE) return reason;
    }
    return RC_NONE;
  }

  int32_t add(int32_t selector, int32_t type, int32_t integer, const uint8_t *bytes,
              int32_t stringLength, int32_t ccsid) {
    // The first occurrence of a selector decides its type.
    const auto [first, added] = typeOf_.emplace(selector, type);
    if (!added && first->second != type) return RC_INCONSISTENT_ITEM_TYPE;
    // The message has an item left that the bag does not hold: only running
    // out of memory excuses that.
    if (next_ == items_.size()) return RC_STORAGE_NOT_AVAILABLE;
    const zaiPROPERTY *item = items_[next_++];
    require(item->selector == selector && item->type == type,
            "an item read differs in selector or type from the message");
    if (type == ITEM_TYPE_INTEGER) {
      require(item->value.integer == integer, "an integer read differs from the message");
    } else {
      require(item->stringLength == stringLength && item->codedCharSetId == ccsid,
              "a string read differs in length or character set from the message");
      require(stringLength == 0 ||
                  std::memcmp(item->value.string, bytes, static_cast<size_t>(stringLength)) == 0,
              "the bytes of a string read differ from the message");
    }
    return RC_NONE;
  }

  std::vector<const zaiPROPERTY *> items_;
  size_t next_ = 0;
  std::map<int32_t, int32_t> typeOf_;
  bool checkSelectors_;
  bool headerRead_ = false;
  const uint8_t *message_;
  int32_t length_;
};

// Reads a message from a block of exactly its length into the bag and checks
// the outcome, the items and the system items.  Returns the reason.
int32_t readAndCheck(const uint8_t *bytes, int32_t length, VXHBAG bag, int32_t ccsid) {
  // Any read past the end of the message lands outside the block.
  std::vector<uint8_t> message(bytes, bytes + length);
  const int32_t options = systemValue(bag, SEL_BAG_OPTIONS);
  const int32_t defaultType =
      recordOf(bag)->adminBag || recordOf(bag)->commandBag ? PCF_TYPE_COMMAND : PCF_TYPE_USER;
  int32_t compCode, reason;
  vxBufferToBag(BAG_NONE, length, message.data(), bag, &compCode, &reason);

  ReadCheck check(bag, message.data(), length);
  const int32_t expected = check.walk();
  if (compCode != (expected == RC_NONE ? CC_OK : CC_FAILED) || reason != expected) {
    std::fprintf(stderr, "fuzz_pcf: the message calls for reason %d\n", expected);
    broken("the read ended with another reason than the message calls for", compCode, reason);
  }
  require(check.allCompared(), "the bag holds items that the message does not give");
  if (reason == RC_STORAGE_NOT_AVAILABLE)
    require(check.itemsHeld() >= kFewestItemsAtLimit, "memory ran out for a bag of few items");

  // The bag keeps its character set and options; the other system items come
  // from the header when it was valid, and are the defaults otherwise.
  require(systemItemCount(bag) == 8, "the read left other than eight system items");
  require(systemValue(bag, SEL_CODED_CHAR_SET_ID) == ccsid, "the read lost the character set");
  require(systemValue(bag, SEL_BAG_OPTIONS) == options, "the read changed the bag options");
  constexpr int32_t kDefaults[] = {0, 0, 1, PCF_CONTROL_LAST, CC_OK, RC_NONE};
  for (size_t i = 0; i < std::size(kHeaderSelectors); ++i) {
    const int32_t wanted = !check.headerRead() ? (i == 0 ? defaultType : kDefaults[i])
                                               : fieldAt(message.data(), kHeaderFieldOffsets[i]);
    require(systemValue(bag, kHeaderSelectors[i]) == wanted,
            "a system item does not hold what the header gives");
  }
  return reason;
}

// ----- Writing -----------------------------------------------------------------------

struct Written {
  int32_t compCode;
  int32_t reason;
  int32_t length;
  std::vector<uint8_t> bytes;  // the message, when it was written
};

// Measures the bag's message, then writes it into a block of the length
// measured.  Both passes run the same writer, so they must agree.
Written write(VXHBAG bag) {
  Written result = {};
  vxBagToBuffer(BAG_NONE, bag, 0, nullptr, &result.length, &result.compCode, &result.reason);
  require(result.compCode == CC_FAILED, "a message was written into no bytes");
  require(result.length >= kHeaderLength, "the length measured leaves out the header");
  if (result.length > kLargestWrite) return result;

  // Zeros in the block make the padding the writer leaves alone compare
  // equal from one message to the next.
  std::vector<uint8_t> buffer(static_cast<size_t>(result.length), 0);
  int32_t length = -1, compCode, reason;
  vxBagToBuffer(BAG_NONE, bag, result.length, buffer.data(), &length, &compCode, &reason);
  require(length == result.length, "writing needs another length than measuring gave");
  if (result.reason == RC_BUFFER_LENGTH_ERROR) {
    if (compCode != CC_OK || reason != RC_NONE)
      broken("a message did not fit into the length measured for it", compCode, reason);
  } else if (compCode != result.compCode || reason != result.reason) {
    broken("measuring and writing failed differently", compCode, reason);
  }
  result.compCode = compCode;
  result.reason = reason;
  if (compCode == CC_OK) result.bytes = std::move(buffer);
  return result;
}

void putField(std::vector<uint8_t> &message, int32_t value) {
  const size_t at = message.size();
  message.resize(at + sizeof value);
  zaiPutField(message.data(), at, value);
}

// The message of a bag that neither lists nor reorders: the header from the
// system items, then one structure for each user item in bag order, padding
// as zeros.
std::vector<uint8_t> plainMessage(VXHBAG bag) {
  const std::vector<const zaiPROPERTY *> items = userItems(bag);
  std::vector<uint8_t> message;
  for (const int32_t selector : kHeaderSelectors) {
    putField(message, systemValue(bag, selector));
    if (selector == SEL_PCF_TYPE) {
      putField(message, kHeaderLength);
      putField(message, PCF_HEADER_VERSION);
    }
  }
  putField(message, static_cast<int32_t>(items.size()));
  for (const zaiPROPERTY *item : items) {
    if (item->type == ITEM_TYPE_INTEGER) {
      for (const int32_t field : {PCF_TYPE_INTEGER, 16, item->selector, item->value.integer})
        putField(message, field);
      continue;
    }
    for (const int32_t field : {PCF_TYPE_STRING, 20 + roundUp4(item->stringLength), item->selector,
                                item->codedCharSetId, item->stringLength})
      putField(message, field);
    const size_t at = message.size();
    message.resize(at + static_cast<size_t>(roundUp4(item->stringLength)), 0);
    if (item->stringLength > 0)
      std::memcpy(message.data() + at, item->value.string, static_cast<size_t>(item->stringLength));
  }
  return message;
}

// ----- Round trip --------------------------------------------------------------------

// The selector an item's value travels under: an inquiry item in a bag with
// list form joins the attribute list of the command.
int32_t travellingSelector(const zaiPROPERTY *item, bool listForm, int32_t command) {
  if (!listForm || item->selector != SEL_INQUIRY_ITEM) return item->selector;
  int32_t listSelector = item->selector, compCode, reason;
  zaiMapInquiryFromCommand(command, &listSelector, &compCode, &reason);
  return listSelector;
}

using ValueKey = std::tuple<int32_t, int32_t, int32_t>;  // selector, type, character set

std::map<ValueKey, std::vector<const zaiPROPERTY *>> valuesByKey(VXHBAG bag, bool listForm) {
  const int32_t command = systemValue(bag, SEL_COMMAND);
  std::map<ValueKey, std::vector<const zaiPROPERTY *>> values;
  for (const zaiPROPERTY *item : userItems(bag))
    values[{travellingSelector(item, listForm, command), item->type, item->codedCharSetId}]
        .push_back(item);
  return values;
}

// A written and re-read bag holds the same values under the same selectors,
// in the same order for each selector and character set: lists only group
// them.  A string that went out in a list comes back at the list's string
// length, its bytes followed by zeros.
void requireSameValues(VXHBAG original, VXHBAG reread, bool listForm) {
  const auto before = valuesByKey(original, listForm);
  const auto after = valuesByKey(reread, listForm);
  require(before.size() == after.size(), "the round trip changed the selectors of the values");
  for (const auto &[key, items] : before) {
    const auto found = after.find(key);
    require(found != after.end() && found->second.size() == items.size(),
            "the round trip changed the number of values of a selector");
    for (size_t i = 0; i < items.size(); ++i) {
      const zaiPROPERTY *was = items[i], *is = found->second[i];
      if (was->type == ITEM_TYPE_INTEGER) {
        require(was->value.integer == is->value.integer, "the round trip changed an integer");
        continue;
      }
      const auto length = static_cast<size_t>(was->stringLength);
      require(
          listForm ? is->stringLength >= was->stringLength : is->stringLength == was->stringLength,
          "the round trip changed the length of a string");
      require(length == 0 || std::memcmp(was->value.string, is->value.string, length) == 0,
              "the round trip changed the bytes of a string");
      for (int32_t at = was->stringLength; at < is->stringLength; ++at)
        require(is->value.string[at] == 0, "a string came back padded with other than zeros");
    }
  }
}

void roundTrip(VXHBAG bag, int32_t options, const Written &first) {
  const zaiBAG *record = recordOf(bag);
  const bool listForm = record->listForm != 0;
  const bool plain = !listForm && !record->requiredParmsFirst;
  const auto parameters =
      static_cast<size_t>(fieldAt(first.bytes.data(), offsetof(PCFHeader, parameterCount)));
  const size_t items = userItems(bag).size();
  if (plain)
    require(first.bytes == plainMessage(bag),
            "the message of a bag without list form or reordering is not its items in order");
  else
    require(parameters <= items, "the message has more structures than the bag has items");
  for (size_t i = 0; i < std::size(kHeaderSelectors); ++i)
    require(fieldAt(first.bytes.data(), kHeaderFieldOffsets[i]) ==
                systemValue(bag, kHeaderSelectors[i]),
            "a header field differs from the bag's system item");

  VXHBAG again = newBag(options);
  const int32_t reason = readAndCheck(first.bytes.data(), first.length, again, 0);
  // A bag that neither checks selectors nor keeps inquiry items apart can
  // hold integers under SEL_INQUIRY_ITEM and strings under the attribute
  // list those integers join when written; such a message holds both types
  // under one selector, which the reader refuses.
  const bool mixedTypesPossible = listForm && !record->checkSelectors;
  if (reason != RC_NONE && !(mixedTypesPossible && reason == RC_INCONSISTENT_ITEM_TYPE))
    broken("a message written from a bag could not be read into a bag of the same kind", CC_FAILED,
           reason);
  if (reason == RC_NONE) {
    require(userItems(again).size() == items, "the round trip changed the number of items");
    requireSameValues(bag, again, listForm);
    const Written second = write(again);
    requireOk(second.compCode, second.reason, "writing the re-read bag");
    require(second.bytes == first.bytes, "a re-read bag was written differently");
  }
  deleteBag(&again);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
  processAnchor.traceEnabled = 0;
  processAnchor.traceLevel = 0xFFFFFFFFu;
  processAnchor.traceOptions = 0;
  processAnchor.earlyTrace = 0;
  svcSetMemBlockLimit(kBlockLimit);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size == 0 || size - 1 > INT32_MAX) return 0;
  const uint8_t selectorByte = data[0];
  const int32_t options = kKinds[selectorByte & kKindMask];
  const int32_t reportsBefore = svcFailureReportCount();

  VXHBAG bag = newBag(options);
  int32_t ccsid = 0;
  if (selectorByte & kFillFirst) {
    int32_t compCode, reason;
    ccsid = kFillCharSet;
    vxSetInteger(bag, SEL_CODED_CHAR_SET_ID, 0, ccsid, &compCode, &reason);
    requireOk(compCode, reason, "vxSetInteger of the character set");
    vxAddInteger(bag, 1, 7, &compCode, &reason);
    requireOk(compCode, reason, "vxAddInteger");
    vxAddString(bag, 2001, 3, "abc", &compCode, &reason);
    requireOk(compCode, reason, "vxAddString");
  }

  readAndCheck(data + 1, static_cast<int32_t>(size - 1), bag, ccsid);
  const Written first = write(bag);
  if (first.compCode == CC_OK) roundTrip(bag, options, first);
  deleteBag(&bag);

  int32_t blocks = 0, bytes = 0;
  svcMemLive(ZAI_COMPONENT, -1, &blocks, &bytes);
  require(blocks == 0, "blocks of the library are left after every bag was deleted");
  // Failure reports mark damaged records, which no message can cause.
  require(svcFailureReportCount() == reportsBefore, "a failure report was raised");
  return 0;
}
