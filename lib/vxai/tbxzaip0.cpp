// The PCF structures: the writers that lay a bag's items out as parameter
// structures, the command rules that put a command's leading parameters
// first, and the readers that turn structures back into items.
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include "vxai_internal.h"

namespace {

constexpr char kAreaLabel[] = "PCF Buffer Control Area";
constexpr char kInvalidItemLabel[] = "Invalid zaiPROPERTY";
constexpr char kItemLabel[] = "zaiPROPERTY";
constexpr uint32_t kInvalidItemType = 0x20006122;
constexpr uint32_t kUnexpectedLookup = 0x20006118;

void *addressOf(const void *record) { return const_cast<void *>(record); }

// ----- Writing ----------------------------------------------------------------------

bool fits(const zaiPCFBUFFER *area, int32_t size) {
  return int64_t{area->usedLength} + size <= area->bufferLength;
}

// The used length counts every structure, stored or not.  A message longer
// than any buffer can be stays at the largest length there is.
void grow(zaiPCFBUFFER *area, int32_t size) {
  const int64_t used = int64_t{area->usedLength} + size;
  area->usedLength = used > INT32_MAX ? INT32_MAX : static_cast<int32_t>(used);
}

char *nextStructure(const zaiPCFBUFFER *area) { return area->buffer + area->usedLength; }

void countParameter(zaiPCFBUFFER *area) {
  if (area->header) zaiRaiseField(area->header, offsetof(PCFHeader, parameterCount), 1);
}

void traceArea(const zaiFRAME *frame, const zaiPCFBUFFER *area) {
  zaiTraceRecord(frame, kAreaLabel, area, area->areaLength);
}

void reportInvalidItem(int32_t function, const zaiPROPERTY *item, int32_t *pCompCode,
                       int32_t *pReason) {
  zaiReportDamage(function, kInvalidItemType, item->type, kInvalidItemLabel, item, sizeof *item);
  zaiFail(pCompCode, pReason, RC_SELECTOR_WRONG_TYPE);
}

// An integer among strings or a string among integers.
bool holdsOtherKind(const zaiPROPERTY *member, const zaiPROPERTY *opener) {
  const auto proper = [](int32_t type) {
    return type == ITEM_TYPE_INTEGER || type == ITEM_TYPE_STRING;
  };
  return proper(member->type) && proper(opener->type) && member->type != opener->type;
}

// ----- Command rules ----------------------------------------------------------------

// The attribute list that inquiry items of a command become.
struct InquiryRow {
  int32_t command;
  int32_t listSelector;
};
constexpr InquiryRow kInquiryLists[] = {
    {2, 1001},  {7, 1003},  {13, 1002}, {25, 1015}, {36, 1004},
    {41, 1026}, {42, 1524}, {70, 1093}, {83, 1019},
};

// The attribute list of a command, when it has one.
bool inquiryListOf(int32_t command, int32_t *listSelector) {
  for (const InquiryRow &row : kInquiryLists) {
    if (row.command != command) continue;
    *listSelector = row.listSelector;
    return true;
  }
  return false;
}

// Attribute-list selectors are always written as lists, even of one value.
bool isAttributeListSelector(int32_t selector) {
  for (const InquiryRow &row : kInquiryLists)
    if (row.listSelector == selector) return true;
  return false;
}

// One leading parameter of a command.  A step runs while nothing has failed;
// a step in place of a missing one runs only when the step before it ended
// with RC_PARAMETER_MISSING, and by succeeding clears that failure.
enum class Need { kMandatory, kOptional };
enum class When { kAllWell, kInPlaceOfMissing };
struct LeadingStep {
  int32_t selector;
  int32_t itemType;
  Need need;
  When when;
};

constexpr int32_t kMaxCommandsInRow = 7;
constexpr int32_t kMaxSteps = 4;

// One group of commands that lead with the same parameters.  Commands
// without a row lead with nothing.
struct LeadingRow {
  int32_t commands[kMaxCommandsInRow];  // 0 ends a shorter list
  LeadingStep steps[kMaxSteps];         // selector 0 ends a shorter list
};

constexpr LeadingStep M(int32_t selector, int32_t type) {
  return {selector, type, Need::kMandatory, When::kAllWell};
}
constexpr LeadingStep O(int32_t selector, int32_t type) {
  return {selector, type, Need::kOptional, When::kAllWell};
}
constexpr LeadingStep orElse(int32_t selector, int32_t type) {
  return {selector, type, Need::kMandatory, When::kInPlaceOfMissing};
}
constexpr int32_t kStr = ITEM_TYPE_STRING;
constexpr int32_t kInt = ITEM_TYPE_INTEGER;

constexpr LeadingRow kLeadingParms[] = {
    {{3, 5, 6, 7, 19}, {M(2012, kStr)}},
    {{4}, {M(3003, kStr), M(3004, kStr)}},
    {{8, 11}, {M(2016, kStr), M(20, kInt)}},
    {{9, 12, 17, 18}, {M(2016, kStr)}},
    {{10}, {M(3001, kStr), M(3002, kStr), M(20, kInt)}},
    {{13}, {M(2016, kStr), O(20, kInt)}},
    {{20, 24, 26, 27, 28, 29, 42}, {M(3501, kStr)}},
    {{21, 23}, {M(3501, kStr), M(1511, kInt)}},
    {{22}, {M(3007, kStr), M(3008, kStr), M(1511, kInt)}},
    {{25}, {M(3501, kStr), O(1511, kInt)}},
    {{30}, {M(2008, kStr)}},
    {{32, 34, 35, 36}, {M(2010, kStr)}},
    {{33}, {M(3005, kStr), M(3006, kStr)}},
    {{38}, {M(1017, kInt), M(3014, kStr)}},
    {{39}, {M(3501, kStr), M(1516, kInt)}},
    {{70}, {M(2031, kStr)}},
    {{71, 72}, {M(2029, kStr), orElse(2030, kStr)}},
    {{73}, {M(2029, kStr)}},
    {{74}, {M(2029, kStr), M(2032, kStr), orElse(2015, kStr), M(1086, kInt)}},
    {{79, 82, 83, 84}, {M(2045, kStr)}},
    {{80}, {M(3009, kStr), M(3010, kStr), M(66, kInt)}},
    {{81}, {M(2045, kStr), M(66, kInt), M(2053, kStr)}},
};

const LeadingRow *leadingRowOf(int32_t command) {
  if (command < 1 || command > 84) return nullptr;
  for (const LeadingRow &row : kLeadingParms)
    for (int32_t code : row.commands)
      if (code == command) return &row;
  return nullptr;
}

// The shared steps of a mandatory and an optional leading parameter.
void writeLeadingParm(const zaiFRAME *frame, zaiBAG *bag, zaiPCFBUFFER *area, int32_t selector,
                      int32_t type, Need need, int32_t *pCompCode, int32_t *pReason) {
  zaiTraceParms(frame, "pBag:%p, selector:%d, type:%d", static_cast<void *>(bag), selector, type);
  *pCompCode = CC_OK;
  *pReason = RC_NONE;
  int32_t found;
  const zaiPROPERTY *item =
      zaiFindSelector(bag, 0, selector, ITEM_INDEX_NONE, &found, pCompCode, pReason);
  if (*pCompCode != CC_OK) {
    if (*pReason == RC_SELECTOR_NOT_PRESENT) {
      if (need == Need::kMandatory) {
        zaiFail(pCompCode, pReason, RC_PARAMETER_MISSING);
      } else {
        *pCompCode = CC_OK;
        *pReason = RC_NONE;
      }
    }
  } else if (item->type != type) {
    zaiFail(pCompCode, pReason, RC_SELECTOR_WRONG_TYPE);
  } else {
    zaiWriteSinglePCFParm(item, area, pCompCode, pReason);
    if (*pCompCode == CC_OK) *zaiWrittenFlag(area, found) = 1;
  }
}

// ----- Index of a bag for one conversion ----------------------------------------------

// The rules ask, for an item, how often its selector occurs in the whole
// bag, which later strings could join its list, and which later items do.
// Asked item by item by scanning the bag, they make a conversion grow with
// the square of the items.  The index answers them from one pass over the
// bag: for each selector its count and a chain through its items in bag
// order.  A chain loses the items the conversion has left behind and those
// written, so that a walk meets only items that it writes, that end it, or
// that belong to another character set or kind than its list.  The
// conversion visits the items in bag order and asks about each one at most
// once, in that order.
struct SelectorKey {
  int32_t selector;
  int32_t count;  // occurrences in the whole bag; 0: a free key
  int32_t head;   // the first item still in the chain, or -1
};

}  // namespace

struct zaiBAGINDEX {
  const zaiBAG *bag;
  int32_t capacity;  // keys; a power of two, at most two thirds of them in use
  int32_t shift;     // 32 less the bits of a key's number
  SelectorKey *keys;
  int32_t *next;         // by item index: the next item of its chain, or -1
  int32_t firstInquiry;  // the first SEL_INQUIRY_ITEM item, or -1
  bool mapped;           // the command has an attribute list ...
  int32_t inquiryList;   // ... and this is its selector
};

namespace {

// The key of a selector: its own, or the free one where it would go.
SelectorKey *keyOf(const zaiBAGINDEX *index, int32_t selector) {
  const uint32_t mask = static_cast<uint32_t>(index->capacity - 1);
  // The high bits of a multiplicative hash: selectors in sequence spread.
  for (uint32_t slot = (static_cast<uint32_t>(selector) * 0x9E3779B1u) >> index->shift;;
       slot = (slot + 1) & mask) {
    SelectorKey *key = &index->keys[slot];
    if (key->count == 0 || key->selector == selector) return key;
  }
}

int32_t occurrences(const zaiBAGINDEX *index, int32_t selector) {
  return keyOf(index, selector)->count;
}

// One selector's chain as a walk reads it from a given item on: the items
// before that one are dropped for good, since the conversion has passed them.
class ChainReader {
 public:
  ChainReader() = default;
  ChainReader(zaiBAGINDEX *index, int32_t selector, int32_t from)
      : index_(index), key_(keyOf(index, selector)) {
    if (key_->count == 0) return;
    while (key_->head != -1 && key_->head < from) key_->head = index_->next[key_->head];
    at_ = key_->head;
  }
  int32_t at() const { return at_; }
  // To the next item, leaving the current one in the chain.
  void keep() {
    previous_ = at_;
    at_ = index_->next[at_];
  }
  // To the next item, taking the current one out of the chain.
  void drop() {
    const int32_t after = index_->next[at_];
    if (previous_ == -1)
      key_->head = after;
    else
      index_->next[previous_] = after;
    at_ = after;
  }

 private:
  zaiBAGINDEX *index_ = nullptr;
  SelectorKey *key_ = nullptr;
  int32_t previous_ = -1;
  int32_t at_ = -1;
};

// zaiFindLargestString from the item after `itemIndex` on.  With reordering
// the scan goes to the end of the bag and only the item's selector can
// match; without it, it ends at the first item that does not match and is no
// longer than the list it measures.
int32_t largestStringAfter(zaiBAG *bag, zaiPCFBUFFER *area, const zaiPROPERTY *item,
                           int32_t itemIndex, zaiBAGINDEX *index) {
  if (!index || !bag->requiredParmsFirst)
    return zaiFindLargestString(bag, area, item, itemIndex + 1);
  int32_t largest = -1;
  for (ChainReader chain(index, item->selector, itemIndex); chain.at() != -1;) {
    const int32_t at = chain.at();
    const zaiPROPERTY *other = zaiItemAt(bag, at);
    if (at == itemIndex) {
      chain.keep();
    } else if (*zaiWrittenFlag(area, at)) {
      chain.drop();  // no scan or walk needs it any more
    } else {
      if (other->type == ITEM_TYPE_STRING && other->codedCharSetId == item->codedCharSetId &&
          other->stringLength > largest)
        largest = other->stringLength;
      chain.keep();
    }
  }
  return largest;
}

// The members of a list as the rules walk them: from the item that opened
// it to the end of the bag, or without reordering to the first item that
// does not join.
void writeMembersByScan(const zaiPROPERTY *item, zaiPCFBUFFER *area, zaiBAG *bag, int32_t itemIndex,
                        int32_t listSelector, int32_t *pCompCode, int32_t *pReason) {
  for (int32_t index = itemIndex; index < bag->items->count && *pCompCode == CC_OK; ++index) {
    const zaiPROPERTY *member = zaiItemAt(bag, index);
    if (!member) continue;
    int32_t memberSelector = member->selector;
    if (memberSelector == SEL_INQUIRY_ITEM) {
      zaiMapInquiryFromCommand(area->command, &memberSelector, pCompCode, pReason);
      if (*pCompCode != CC_OK) break;
    }
    const bool joins =
        memberSelector == listSelector &&
        (member->type != ITEM_TYPE_STRING || member->codedCharSetId == item->codedCharSetId);
    if (joins) {
      uint8_t *written = zaiWrittenFlag(area, index);
      if (*written) {
        // Already out, as a leading parameter or in an earlier list.
      } else if (holdsOtherKind(member, item)) {
        // A list holds values of one kind; decided by the item that opened
        // it, so that measuring and writing agree.
        zaiFail(pCompCode, pReason, RC_SELECTOR_WRONG_TYPE);
      } else {
        zaiWritePCFListValue(member, area, pCompCode, pReason);
        if (*pCompCode == CC_OK) *written = 1;
      }
    } else if (!bag->requiredParmsFirst) {
      break;  // without reordering only adjacent items join a list
    }
  }
}

// The same walk with reordering, where the walk goes to the end of the bag
// and every item that does not join is passed over: only the items of the
// list selector's chain are visited, in bag order, and, when the command's
// attribute list is the list, those of the inquiry items.  When the command
// has no attribute list, the walk ends at the first inquiry item after the
// opener, where mapping its selector fails.
void writeIndexedMembers(const zaiPROPERTY *item, zaiPCFBUFFER *area, int32_t itemIndex,
                         int32_t listSelector, zaiBAGINDEX *index, int32_t *pCompCode,
                         int32_t *pReason) {
  ChainReader chains[2] = {{index, listSelector, itemIndex}, {}};
  if (index->mapped && index->inquiryList == listSelector)
    chains[1] = ChainReader(index, SEL_INQUIRY_ITEM, itemIndex);
  const int32_t unmappable =
      !index->mapped && index->firstInquiry >= itemIndex ? index->firstInquiry : -1;
  for (;;) {
    ChainReader *chain = &chains[0];
    if (chains[1].at() != -1 && (chain->at() == -1 || chains[1].at() < chain->at()))
      chain = &chains[1];
    const int32_t at = chain->at();
    if (at == -1 || (unmappable != -1 && at > unmappable)) break;
    const zaiPROPERTY *member = zaiItemAt(index->bag, at);
    uint8_t *written = zaiWrittenFlag(area, at);
    if (*written) {
      chain->drop();  // already out, as a leading parameter or in an earlier list
    } else if (member->type == ITEM_TYPE_STRING && member->codedCharSetId != item->codedCharSetId) {
      chain->keep();  // another character set: not of this list
    } else if (holdsOtherKind(member, item)) {
      zaiFail(pCompCode, pReason, RC_SELECTOR_WRONG_TYPE);
      return;
    } else {
      zaiWritePCFListValue(member, area, pCompCode, pReason);
      if (*pCompCode != CC_OK) return;
      *written = 1;
      chain->drop();
    }
  }
  if (unmappable != -1) {
    int32_t unused;
    zaiMapInquiryFromCommand(area->command, &unused, pCompCode, pReason);
  }
}

// ----- Reading ----------------------------------------------------------------------

bool isMultipleOf4(int32_t length) { return (length & 3) == 0; }

// The parameter identifier must name an item of the structure's type.
void checkParameter(const zaiFRAME *frame, zaiBAG *bag, int32_t parameter, int32_t itemType,
                    int32_t *pCompCode, int32_t *pReason) {
  if (parameter < 0)
    zaiFail(pCompCode, pReason, RC_SELECTOR_OUT_OF_RANGE);
  else
    zaiCheckSelectorUnder(frame, bag, parameter, itemType, pCompCode, pReason);
}

// Adds the values of one structure, all under its identifier, and keeps
// track of the type of the identifier's first occurrence: the first add
// learns it from what the reader knows, or by looking through the bag; once
// an add has succeeded, that type is the structure's own, since all items of
// a selector share one type.
class Adder {
 public:
  Adder(zaiSELECTORTYPES *known, int32_t selector, int32_t itemType, const int32_t *pCompCode)
      : known_(known),
        selector_(selector),
        itemType_(itemType),
        pCompCode_(pCompCode),
        firstType_(known ? zaiKnownType(known, selector) : ZAI_FIRST_UNKNOWN) {}

  template <typename Add>
  void operator()(Add add) {
    add(firstType_);
    if (*pCompCode_ != CC_OK || firstType_ == itemType_) return;
    if (known_ && firstType_ == ZAI_FIRST_NONE) zaiLearnType(known_, selector_, itemType_);
    firstType_ = itemType_;
  }

 private:
  zaiSELECTORTYPES *known_;
  int32_t selector_;
  int32_t itemType_;
  const int32_t *pCompCode_;
  int32_t firstType_;
};

// The steps every structure reader shares: the structure's fields are copied
// out of the message, its lengths and counts checked (wellFormed), its
// identifier checked as a selector of the item type its values take, and its
// values added (addItems).  When any step fails, the first `tracedLength`
// bytes of the structure go to the trace.
template <typename Record, typename WellFormed, typename AddItems>
void readStructure(int32_t function, int32_t tracedLength, int32_t itemType, const char *structure,
                   zaiBAG *bag, zaiSELECTORTYPES *known, int32_t *pCompCode, int32_t *pReason,
                   WellFormed wellFormed, AddItems addItems) {
  zaiFRAME frame = zaiFramePush(ZAI_COMPONENT, function);
  zaiTraceParms(&frame, "pParm:%p, pBag:%p", addressOf(structure), static_cast<void *>(bag));
  *pCompCode = CC_OK;
  *pReason = RC_NONE;
  Record record;
  memcpy(&record, structure, sizeof record);
  if (!wellFormed(record))
    zaiFail(pCompCode, pReason, RC_PCF_FORMAT_ERROR);
  else
    checkParameter(&frame, bag, record.parameter, itemType, pCompCode, pReason);
  if (*pCompCode == CC_OK) {
    Adder add(known, record.parameter, itemType, pCompCode);
    addItems(record, structure + sizeof record, add);
  }
  if (*pCompCode != CC_OK) trcData(ZAI_COMPONENT, function, structure, tracedLength);
  zaiFramePop(&frame, *pReason);
}

}  // namespace

extern "C" {

// ----- Writers ----------------------------------------------------------------------

void zaiWritePCFHeader(zaiBAG *bag, zaiPCFBUFFER *area, int32_t *pCompCode, int32_t *pReason) {
  zaiFRAME frame = zaiFramePush(ZAI_COMPONENT, ZAIFN_zaiWritePCFHeader);
  zaiTraceParms(&frame, "pBag:%p, usedLength:%d", static_cast<void *>(bag), area->usedLength);
  *pCompCode = CC_OK;
  *pReason = RC_NONE;
  if (fits(area, sizeof(PCFHeader))) {
    area->header = reinterpret_cast<PCFHeader *>(nextStructure(area));
    PCFHeader header = {};
    zaiInquireInteger(bag, SEL_PCF_TYPE, 0, &header.type, pCompCode, pReason);
    if (*pCompCode == CC_OK) {
      area->pcfType = header.type;
      header.structLength = sizeof(PCFHeader);
      header.version = PCF_HEADER_VERSION;
      header.command = area->command;
      const struct {
        int32_t selector;
        int32_t *field;
      } fromBag[] = {{SEL_MSG_SEQ_NUMBER, &header.msgSeqNumber},
                     {SEL_CONTROL, &header.control},
                     {SEL_COMP_CODE, &header.compCode},
                     {SEL_REASON, &header.reason}};
      for (const auto &system : fromBag) {
        zaiInquireInteger(bag, system.selector, 0, system.field, pCompCode, pReason);
        if (*pCompCode != CC_OK) break;
      }
    }
    memcpy(area->header, &header, sizeof header);
  }
  grow(area, sizeof(PCFHeader));
  traceArea(&frame, area);
  zaiFramePop(&frame, *pReason);
}

void zaiWriteSinglePCFParm(const zaiPROPERTY *item, zaiPCFBUFFER *area, int32_t *pCompCode,
                           int32_t *pReason) {
  zaiFRAME frame = zaiFramePush(ZAI_COMPONENT, ZAIFN_zaiWriteSinglePCFParm);
  zaiTraceParms(&frame, "pItem:%p, selector:%d", addressOf(item), item->selector);
  *pCompCode = CC_OK;
  *pReason = RC_NONE;
  if (item->type == ITEM_TYPE_INTEGER) {
    const PCFIntParm parm = {PCF_TYPE_INTEGER, sizeof parm, item->selector, item->value.integer};
    if (fits(area, parm.structLength)) {
      memcpy(nextStructure(area), &parm, sizeof parm);
      countParameter(area);
    }
    grow(area, parm.structLength);
  } else if (item->type == ITEM_TYPE_STRING) {
    const PCFStringParm parm = {PCF_TYPE_STRING,
                                static_cast<int32_t>(sizeof parm) + zaiRoundUp4(item->stringLength),
                                item->selector, item->codedCharSetId, item->stringLength};
    if (fits(area, parm.structLength)) {
      char *structure = nextStructure(area);
      memcpy(structure, &parm, sizeof parm);
      // The padding after the bytes is left as the buffer held it.
      if (item->stringLength > 0)
        memcpy(structure + sizeof parm, item->value.string,
               static_cast<size_t>(item->stringLength));
      countParameter(area);
    }
    grow(area, parm.structLength);
  } else {
    reportInvalidItem(ZAIFN_zaiWriteSinglePCFParm, item, pCompCode, pReason);
  }
  traceArea(&frame, area);
  zaiFramePop(&frame, *pReason);
}

void zaiWriteSingleOrListPCFParm(const zaiPROPERTY *item, zaiPCFBUFFER *area, zaiBAG *bag,
                                 int32_t itemIndex, int32_t *pCompCode, int32_t *pReason) {
  zaiWriteSingleOrListPCFParmIndexed(item, area, bag, itemIndex, nullptr, pCompCode, pReason);
}

}  // extern "C"

void zaiWriteSingleOrListPCFParmIndexed(const zaiPROPERTY *item, zaiPCFBUFFER *area, zaiBAG *bag,
                                        int32_t itemIndex, zaiBAGINDEX *index, int32_t *pCompCode,
                                        int32_t *pReason) {
  zaiFRAME frame = zaiFramePush(ZAI_COMPONENT, ZAIFN_zaiWriteSingleOrListPCFParm);
  zaiTraceParms(&frame, "pBag:%p, itemIndex:%d, selector:%d", static_cast<void *>(bag), itemIndex,
                item->selector);
  *pCompCode = CC_OK;
  *pReason = RC_NONE;
  const int32_t selector = item->selector;
  int32_t listSelector = selector;
  bool listForm = false;
  int32_t largestString = -1;  // of the strings that join this one's list
  bool measured = false;
  if (selector == SEL_INQUIRY_ITEM) {
    zaiMapInquiryFromCommand(area->command, &listSelector, pCompCode, pReason);
    listForm = *pCompCode == CC_OK;
  } else if (isAttributeListSelector(selector)) {
    listForm = true;
  } else {
    // Found once in the whole bag, or more often.  The index counted the
    // occurrences of every selector once for the conversion.
    if (index) {
      if (occurrences(index, selector) > 1) zaiFail(pCompCode, pReason, RC_SELECTOR_NOT_UNIQUE);
    } else {
      int32_t found;
      zaiFindSelector(bag, itemIndex, selector, ITEM_INDEX_NONE, &found, pCompCode, pReason);
    }
    if (*pReason == RC_SELECTOR_NOT_UNIQUE) {
      *pCompCode = CC_OK;
      *pReason = RC_NONE;
      if (item->type == ITEM_TYPE_STRING) {
        largestString = largestStringAfter(bag, area, item, itemIndex, index);
        measured = true;
        listForm = largestString != -1;
      } else if (bag->requiredParmsFirst) {
        listForm = true;
      } else {
        // Without reordering an integer list takes only adjacent items.
        listForm = itemIndex + 1 < bag->items->count && bag->items->slots[itemIndex + 1] &&
                   zaiItemAt(bag, itemIndex + 1)->selector == selector;
      }
    } else if (*pCompCode != CC_OK) {
      zaiReportDamage(ZAIFN_zaiWriteSingleOrListPCFParm, kUnexpectedLookup, *pReason, kItemLabel,
                      item, sizeof *item);
    }
  }

  if (*pCompCode != CC_OK) {
    // The lookup or the mapping has failed: nothing is written.
  } else if (!listForm) {
    zaiWriteSinglePCFParm(item, area, pCompCode, pReason);
  } else {
    if (item->type == ITEM_TYPE_STRING) {
      // Every string of the list occupies the length of the longest, so
      // that none is cut.
      if (!measured) largestString = largestStringAfter(bag, area, item, itemIndex, index);
      area->listStringLength =
          largestString > item->stringLength ? largestString : item->stringLength;
    }
    zaiWritePCFListHeader(item, area, bag, itemIndex, listSelector, pCompCode, pReason);
    if (*pCompCode != CC_OK) {
      // No list to fill.
    } else if (index && bag->requiredParmsFirst) {
      writeIndexedMembers(item, area, itemIndex, listSelector, index, pCompCode, pReason);
    } else {
      writeMembersByScan(item, area, bag, itemIndex, listSelector, pCompCode, pReason);
    }
    if (item->type == ITEM_TYPE_STRING && *pCompCode == CC_OK) {
      // The pad bytes after the last string are counted, not written.
      const int32_t padding = zaiRoundUp4(area->currentListLength) - area->currentListLength;
      grow(area, padding);
      if (area->stringList)
        zaiRaiseField(area->stringList, offsetof(PCFStringListParm, structLength), padding);
    }
  }
  zaiFramePop(&frame, *pReason);
}

zaiBAGINDEX *zaiIndexBag(const zaiBAG *bag, int32_t command) {
  const int32_t items = bag->items->count;
  // A key per selector at most, and at least a third of the keys free.
  int64_t capacity = 16;
  int32_t shift = 28;
  while (2 * capacity < 3 * int64_t{items}) capacity *= 2, --shift;
  const int64_t size = int64_t{sizeof(zaiBAGINDEX)} + capacity * int64_t{sizeof(SelectorKey)} +
                       int64_t{items} * int64_t{sizeof(int32_t)};
  void *block = size > INT32_MAX ? nullptr : malloc(static_cast<size_t>(size));
  if (!block) return nullptr;
  auto *index = static_cast<zaiBAGINDEX *>(block);
  index->bag = bag;
  index->capacity = static_cast<int32_t>(capacity);
  index->shift = shift;
  index->keys = reinterpret_cast<SelectorKey *>(index + 1);
  index->next = reinterpret_cast<int32_t *>(index->keys + capacity);
  index->firstInquiry = -1;
  index->inquiryList = 0;
  index->mapped = inquiryListOf(command, &index->inquiryList);
  memset(index->keys, 0, static_cast<size_t>(capacity) * sizeof(SelectorKey));
  // From the last item to the first, each put at the head of its chain.
  for (int32_t at = items - 1; at >= 0; --at) {
    index->next[at] = -1;
    const zaiPROPERTY *item = zaiItemAt(bag, at);
    if (!item || item->selector < 0) continue;
    SelectorKey *key = keyOf(index, item->selector);
    if (key->count == 0) *key = {item->selector, 0, -1};
    ++key->count;
    index->next[at] = key->head;
    key->head = at;
    if (item->selector == SEL_INQUIRY_ITEM) index->firstInquiry = at;
  }
  return index;
}

void zaiFreeBagIndex(zaiBAGINDEX *index) { free(index); }

extern "C" {

void zaiWritePCFListHeader(const zaiPROPERTY *item, zaiPCFBUFFER *area, zaiBAG *, int32_t,
                           int32_t listSelector, int32_t *pCompCode, int32_t *pReason) {
  zaiFRAME frame = zaiFramePush(ZAI_COMPONENT, ZAIFN_zaiWritePCFListHeader);
  zaiTraceParms(&frame, "pItem:%p, listSelector:%d", addressOf(item), listSelector);
  *pCompCode = CC_OK;
  *pReason = RC_NONE;
  int32_t size = 0;
  area->integerList = nullptr;
  area->stringList = nullptr;
  if (item->type == ITEM_TYPE_INTEGER) {
    const PCFIntListParm list = {PCF_TYPE_INTEGER_LIST, sizeof list, listSelector, 0};
    size = list.structLength;
    if (fits(area, size)) {
      area->integerList = reinterpret_cast<PCFIntListParm *>(nextStructure(area));
      memcpy(area->integerList, &list, sizeof list);
      countParameter(area);
    }
  } else if (item->type == ITEM_TYPE_STRING) {
    const PCFStringListParm list = {PCF_TYPE_STRING_LIST, sizeof list, listSelector,
                                    item->codedCharSetId, 0,           area->listStringLength};
    size = list.structLength;
    if (fits(area, size)) {
      area->stringList = reinterpret_cast<PCFStringListParm *>(nextStructure(area));
      memcpy(area->stringList, &list, sizeof list);
      countParameter(area);
    }
  } else {
    reportInvalidItem(ZAIFN_zaiWritePCFListHeader, item, pCompCode, pReason);
  }
  if (*pCompCode == CC_OK) {
    grow(area, size);
    area->currentListLength = size;
  }
  traceArea(&frame, area);
  zaiFramePop(&frame, *pReason);
}

void zaiWritePCFListValue(const zaiPROPERTY *item, zaiPCFBUFFER *area, int32_t *pCompCode,
                          int32_t *pReason) {
  zaiFRAME frame = zaiFramePush(ZAI_COMPONENT, ZAIFN_zaiWritePCFListValue);
  zaiTraceParms(&frame, "pItem:%p, selector:%d", addressOf(item), item->selector);
  *pCompCode = CC_OK;
  *pReason = RC_NONE;
  if (item->type == ITEM_TYPE_INTEGER) {
    constexpr int32_t size = sizeof item->value.integer;
    if (area->integerList && fits(area, size)) {
      memcpy(nextStructure(area), &item->value.integer, size);
      zaiRaiseField(area->integerList, offsetof(PCFIntListParm, structLength), size);
      zaiRaiseField(area->integerList, offsetof(PCFIntListParm, count), 1);
    }
    grow(area, size);
  } else if (item->type == ITEM_TYPE_STRING) {
    const int32_t size = area->listStringLength;
    if (item->selector == SEL_INQUIRY_ITEM) {
      // Inquiry items name attributes: they are integers.
      zaiFail(pCompCode, pReason, RC_SELECTOR_WRONG_TYPE);
    } else {
      if (area->stringList && fits(area, size)) {
        char *slot = nextStructure(area);
        const int32_t copied = item->stringLength < size ? item->stringLength : size;
        if (copied > 0) memcpy(slot, item->value.string, static_cast<size_t>(copied));
        memset(slot + copied, 0, static_cast<size_t>(size - copied));
        zaiRaiseField(area->stringList, offsetof(PCFStringListParm, structLength), size);
        zaiRaiseField(area->stringList, offsetof(PCFStringListParm, count), 1);
      }
      grow(area, size);
      area->currentListLength += size;
    }
  } else {
    reportInvalidItem(ZAIFN_zaiWritePCFListValue, item, pCompCode, pReason);
  }
  traceArea(&frame, area);
  zaiFramePop(&frame, *pReason);
}

int32_t zaiFindLargestString(zaiBAG *bag, zaiPCFBUFFER *area, const zaiPROPERTY *item,
                             int32_t startIndex) {
  zaiFRAME frame = zaiFramePush(ZAI_COMPONENT, ZAIFN_zaiFindLargestString);
  zaiTraceParms(&frame, "pBag:%p, selector:%d, startIndex:%d", static_cast<void *>(bag),
                item->selector, startIndex);
  int32_t largest = -1;
  for (int32_t index = startIndex; index < bag->items->count; ++index) {
    const zaiPROPERTY *other = zaiItemAt(bag, index);
    const bool matches = other && other->selector == item->selector &&
                         other->type == ITEM_TYPE_STRING &&
                         other->codedCharSetId == item->codedCharSetId;
    if (matches) {
      if (!*zaiWrittenFlag(area, index) && other->stringLength > largest)
        largest = other->stringLength;
    } else if (!bag->requiredParmsFirst) {
      break;
    }
  }
  // The exit marker carries the length found in place of a reason.
  zaiFramePop(&frame, largest);
  return largest;
}

// ----- Command rules ----------------------------------------------------------------

void zaiWriteRequiredParmsForCmd(zaiBAG *bag, zaiPCFBUFFER *area, int32_t *pCompCode,
                                 int32_t *pReason) {
  zaiFRAME frame = zaiFramePush(ZAI_COMPONENT, ZAIFN_zaiWriteRequiredParmsForCmd);
  zaiTraceParms(&frame, "pBag:%p, command:%d", static_cast<void *>(bag), area->command);
  *pCompCode = CC_OK;
  *pReason = RC_NONE;
  if (const LeadingRow *row = leadingRowOf(area->command)) {
    for (const LeadingStep &step : row->steps) {
      if (step.selector == 0) break;
      const bool runs =
          step.when == When::kAllWell ? *pCompCode == CC_OK : *pReason == RC_PARAMETER_MISSING;
      if (!runs) continue;
      if (step.need == Need::kMandatory)
        zaiWriteMandatoryParm(bag, area, step.selector, step.itemType, pCompCode, pReason);
      else
        zaiWriteOptionalParm(bag, area, step.selector, step.itemType, pCompCode, pReason);
    }
  }
  zaiFramePop(&frame, *pReason);
}

void zaiWriteMandatoryParm(zaiBAG *bag, zaiPCFBUFFER *area, int32_t selector, int32_t type,
                           int32_t *pCompCode, int32_t *pReason) {
  zaiFRAME frame = zaiFramePush(ZAI_COMPONENT, ZAIFN_zaiWriteMandatoryParm);
  writeLeadingParm(&frame, bag, area, selector, type, Need::kMandatory, pCompCode, pReason);
  zaiFramePop(&frame, *pReason);
}

void zaiWriteOptionalParm(zaiBAG *bag, zaiPCFBUFFER *area, int32_t selector, int32_t type,
                          int32_t *pCompCode, int32_t *pReason) {
  zaiFRAME frame = zaiFramePush(ZAI_COMPONENT, ZAIFN_zaiWriteOptionalParm);
  writeLeadingParm(&frame, bag, area, selector, type, Need::kOptional, pCompCode, pReason);
  zaiFramePop(&frame, *pReason);
}

void zaiMapInquiryFromCommand(int32_t command, int32_t *listSelector, int32_t *pCompCode,
                              int32_t *pReason) {
  zaiFRAME frame = zaiFramePush(ZAI_COMPONENT, ZAIFN_zaiMapInquiryFromCommand);
  zaiTraceParms(&frame, "command:%d", command);
  *pCompCode = CC_OK;
  *pReason = RC_NONE;
  if (!inquiryListOf(command, listSelector)) zaiFail(pCompCode, pReason, RC_COMMAND_HAS_NO_INQUIRY);
  zaiFramePop(&frame, *pReason);
}

// ----- Readers ----------------------------------------------------------------------

void zaiReadPCFHeader(const char *header, zaiBAG *bag, int32_t *pCompCode, int32_t *pReason) {
  zaiFRAME frame = zaiFramePush(ZAI_COMPONENT, ZAIFN_zaiReadPCFHeader);
  zaiTraceParms(&frame, "pHeader:%p, pBag:%p", addressOf(header), static_cast<void *>(bag));
  *pCompCode = CC_OK;
  *pReason = RC_NONE;
  zaiTraceRecord(&frame, "PCF Header", header, sizeof(PCFHeader));
  PCFHeader fields;
  memcpy(&fields, header, sizeof fields);
  if (fields.structLength != static_cast<int32_t>(sizeof fields) ||
      fields.version != PCF_HEADER_VERSION || fields.parameterCount < 0) {
    zaiFail(pCompCode, pReason, RC_PCF_FORMAT_ERROR);
  } else {
    const struct {
      int32_t selector;
      int32_t value;
    } toBag[] = {{SEL_PCF_TYPE, fields.type},
                 {SEL_COMMAND, fields.command},
                 {SEL_MSG_SEQ_NUMBER, fields.msgSeqNumber},
                 {SEL_CONTROL, fields.control},
                 {SEL_COMP_CODE, fields.compCode},
                 {SEL_REASON, fields.reason}};
    for (const auto &system : toBag) {
      zaiSetInteger(bag, system.selector, 0, system.value, pCompCode, pReason);
      if (*pCompCode != CC_OK) break;
    }
  }
  zaiFramePop(&frame, *pReason);
}

void zaiReadPCFIntParm(const char *structure, zaiBAG *bag, int32_t *pCompCode, int32_t *pReason) {
  zaiReadPCFIntParmKnown(structure, bag, nullptr, pCompCode, pReason);
}

void zaiReadPCFStringParm(const char *structure, zaiBAG *bag, int32_t *pCompCode,
                          int32_t *pReason) {
  zaiReadPCFStringParmKnown(structure, bag, nullptr, pCompCode, pReason);
}

void zaiReadPCFIntListParm(const char *structure, zaiBAG *bag, int32_t *pCompCode,
                           int32_t *pReason) {
  zaiReadPCFIntListParmKnown(structure, bag, nullptr, pCompCode, pReason);
}

void zaiReadPCFStringListParm(const char *structure, zaiBAG *bag, int32_t *pCompCode,
                              int32_t *pReason) {
  zaiReadPCFStringListParmKnown(structure, bag, nullptr, pCompCode, pReason);
}

}  // extern "C"

void zaiReadPCFIntParmKnown(const char *structure, zaiBAG *bag, zaiSELECTORTYPES *known,
                            int32_t *pCompCode, int32_t *pReason) {
  readStructure<PCFIntParm>(
      ZAIFN_zaiReadPCFIntParm, 12, ITEM_TYPE_INTEGER, structure, bag, known, pCompCode, pReason,
      // No surplus: an integer structure is exactly its four words.
      [](const PCFIntParm &parm) { return parm.structLength == int32_t{sizeof parm}; },
      [&](const PCFIntParm &parm, const char *, Adder &add) {
        add([&](int32_t firstType) {
          zaiAddIntegerKnown(bag, parm.parameter, parm.value, firstType, pCompCode, pReason);
        });
      });
}

void zaiReadPCFStringParmKnown(const char *structure, zaiBAG *bag, zaiSELECTORTYPES *known,
                               int32_t *pCompCode, int32_t *pReason) {
  readStructure<PCFStringParm>(
      ZAIFN_zaiReadPCFStringParm, 20, ITEM_TYPE_STRING, structure, bag, known, pCompCode, pReason,
      [](const PCFStringParm &parm) {
        return isMultipleOf4(parm.structLength) && parm.stringLength >= 0 &&
               parm.structLength >= int64_t{sizeof parm} + parm.stringLength;
      },
      // Exactly the bytes the structure counts: the padding is not part of them.
      [&](const PCFStringParm &parm, const char *bytes, Adder &add) {
        add([&](int32_t firstType) {
          zaiAddStringKnown(bag, parm.parameter, parm.stringLength, bytes, parm.codedCharSetId,
                            firstType, pCompCode, pReason);
        });
      });
}

void zaiReadPCFIntListParmKnown(const char *structure, zaiBAG *bag, zaiSELECTORTYPES *known,
                                int32_t *pCompCode, int32_t *pReason) {
  readStructure<PCFIntListParm>(
      ZAIFN_zaiReadPCFIntListParm, 16, ITEM_TYPE_INTEGER, structure, bag, known, pCompCode, pReason,
      [](const PCFIntListParm &list) {
        return isMultipleOf4(list.structLength) && list.count >= 0 &&
               list.structLength >= int64_t{sizeof list} + int64_t{4} * list.count;
      },
      // Values added before a failure stay in the bag.
      [&](const PCFIntListParm &list, const char *values, Adder &add) {
        for (int32_t i = 0; i < list.count && *pCompCode == CC_OK; ++i)
          add([&](int32_t firstType) {
            zaiAddIntegerKnown(bag, list.parameter, zaiGetField(values, 4 * static_cast<size_t>(i)),
                               firstType, pCompCode, pReason);
          });
      });
}

void zaiReadPCFStringListParmKnown(const char *structure, zaiBAG *bag, zaiSELECTORTYPES *known,
                                   int32_t *pCompCode, int32_t *pReason) {
  readStructure<PCFStringListParm>(
      ZAIFN_zaiReadPCFStringListParm, 24, ITEM_TYPE_STRING, structure, bag, known, pCompCode,
      pReason,
      [](const PCFStringListParm &list) {
        return isMultipleOf4(list.structLength) && list.count >= 0 && list.stringLength >= 0 &&
               list.structLength >= int64_t{sizeof list} + int64_t{list.count} * list.stringLength;
      },
      // Each string keeps the list's length, trailing zeros or blanks included.
      [&](const PCFStringListParm &list, const char *strings, Adder &add) {
        for (int32_t i = 0; i < list.count && *pCompCode == CC_OK; ++i)
          add([&](int32_t firstType) {
            zaiAddStringKnown(
                bag, list.parameter, list.stringLength,
                strings + static_cast<size_t>(i) * static_cast<size_t>(list.stringLength),
                list.codedCharSetId, firstType, pCompCode, pReason);
          });
      });
}

// ----- What the reader knows of its bag -----------------------------------------------

namespace {

constexpr int32_t kFirstTypeEntries = 64;

// The high bits of a multiplicative hash: selectors in sequence spread.
uint32_t slotOf(int32_t selector, int32_t capacity) {
  return static_cast<uint32_t>(
      (uint64_t{static_cast<uint32_t>(selector) * 0x9E3779B1u} * static_cast<uint32_t>(capacity)) >>
      32);
}

void giveUp(zaiSELECTORTYPES *known) {
  zaiForgetTypes(known);
  known->lost = true;
}

}  // namespace

int32_t zaiKnownType(const zaiSELECTORTYPES *known, int32_t selector) {
  if (known->lost) return ZAI_FIRST_UNKNOWN;
  if (known->capacity == 0) return ZAI_FIRST_NONE;
  for (uint32_t slot = slotOf(selector, known->capacity);;
       slot = (slot + 1) & static_cast<uint32_t>(known->capacity - 1)) {
    const zaiSELECTORTYPES::Entry &entry = known->entries[slot];
    if (entry.type == 0) return ZAI_FIRST_NONE;
    if (entry.selector == selector) return entry.type;
  }
}

void zaiLearnType(zaiSELECTORTYPES *known, int32_t selector, int32_t type) {
  if (known->lost) return;
  // Kept at most half full, so that every probe ends at a free entry.
  if (2 * (known->used + 1) > known->capacity) {
    const int32_t capacity = known->capacity == 0 ? kFirstTypeEntries : 2 * known->capacity;
    using Entry = zaiSELECTORTYPES::Entry;
    auto *entries =
        capacity > INT32_MAX / 16
            ? nullptr
            : static_cast<Entry *>(calloc(static_cast<size_t>(capacity), sizeof(Entry)));
    if (!entries) {
      giveUp(known);
      return;
    }
    for (int32_t i = 0; i < known->capacity; ++i) {
      const zaiSELECTORTYPES::Entry &old = known->entries[i];
      if (old.type == 0) continue;
      uint32_t slot = slotOf(old.selector, capacity);
      while (entries[slot].type != 0) slot = (slot + 1) & static_cast<uint32_t>(capacity - 1);
      entries[slot] = old;
    }
    free(known->entries);
    known->entries = entries;
    known->capacity = capacity;
  }
  uint32_t slot = slotOf(selector, known->capacity);
  while (known->entries[slot].type != 0 && known->entries[slot].selector != selector)
    slot = (slot + 1) & static_cast<uint32_t>(known->capacity - 1);
  if (known->entries[slot].type == 0) ++known->used;
  known->entries[slot] = {selector, type};
}

void zaiForgetTypes(zaiSELECTORTYPES *known) {
  free(known->entries);
  known->entries = nullptr;
  known->capacity = 0;
  known->used = 0;
}
