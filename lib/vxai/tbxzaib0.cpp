// The call frame shared by every function of the library, and the API layer
// and internal functions of the bag calls.
#include <pthread.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "vxai_internal.h"

namespace {

constexpr char kBagEyeCatcher[4] = {'Z', 'A', 'B', 'G'};
constexpr char kItemEyeCatcher[4] = {'Z', 'A', 'P', 'R'};

// Arguments of the thread set-up: trace-history slots and product id.
constexpr int32_t kHistorySlots = 48;
constexpr int32_t kProductId = 1030;

constexpr uint32_t kTraceOff = 0xFFFFFFFFu;
constexpr uint32_t kParmTraceOptions = 0xC0000;
constexpr uint32_t kBagDumpOptions = 0x20 | 0x400 | 0x80000;  // all three together
constexpr int32_t kParmTraceLevel = 2;

svcTHREADANCHOR *threadAnchor() {
  return static_cast<svcTHREADANCHOR *>(pthread_getspecific(threadAnchorKey));
}

bool parmTraceOn(const svcTHREADANCHOR *anchor) {
  if (!anchor || !anchor->traceActive) return false;
  const svcPROCESSANCHOR &process = processAnchor;
  if (!process.traceEnabled) return process.earlyTrace != 0;
  return (process.traceLevel != kTraceOff || process.earlyTrace != 0) &&
         ((process.traceOptions & kParmTraceOptions) != 0 || process.earlyTrace != 0);
}

// ----- API trace lines --------------------------------------------------------

struct ApiTracer {
  int32_t function;

  void text(const char *line) const { trcApiText(ZAI_COMPONENT, function, line); }
  void data(const void *bytes, int32_t length) const {
    trcApiData(ZAI_COMPONENT, function, bytes, length);
  }

  // "Bag           : Input  Parm": the name padded to 14, then the direction.
  void fixed(const char *name, const char *direction) const {
    char line[64];
    snprintf(line, sizeof line, "%-14s: %s", name, direction);
    text(line);
  }

  // "Caption:" then the caller's bytes, or "Caption: NULL" when there is
  // nothing that can be read.
  void record(const char *caption, const void *address, int32_t length) const {
    char line[64];
    if (!address || svcCheckPointer(address, length, SVC_CHECK_READ) != 0) {
      snprintf(line, sizeof line, "%s: NULL", caption);
      text(line);
      return;
    }
    snprintf(line, sizeof line, "%s:", caption);
    text(line);
    data(address, length);
  }
  void variable(const char *caption, const void *address) const { record(caption, address, 4); }

  // "Caption:" then the bytes: all of a short buffer, or the first and the
  // last 64 bytes of a long one around a line of dots.
  void buffer(const char *caption, const void *bytes, int32_t length) const {
    char line[64];
    snprintf(line, sizeof line, "%s:", caption);
    text(line);
    if (!bytes || length <= 0 || svcCheckPointer(bytes, length, SVC_CHECK_READ) != 0) {
      text("NULL");
    } else if (length > 127) {
      data(bytes, 64);
      text("..............");
      data(static_cast<const char *>(bytes) + length - 64, 64);
    } else {
      data(bytes, length);
    }
  }

  void string(const char *caption, const char *value) const {
    char line[64];
    int32_t length = value ? zaiSafeStringLength(value) : -1;
    if (length < 0) {
      snprintf(line, sizeof line, "%s: NULL", caption);
      text(line);
      return;
    }
    snprintf(line, sizeof line, "%s:", caption);
    text(line);
    data(value, length % 65536);
  }

  void header(const char *exportedName, const char *arrows) const {
    char line[64];
    text("__________");
    snprintf(line, sizeof line, "%s %s", exportedName, arrows);
    text(line);
  }
};

ApiTracer tracerOf(const zaiAPICALL *call) {
  return ApiTracer{static_cast<int32_t>(call->frame.identifier & 0x3FF)};
}

// ----- Items ------------------------------------------------------------------

zaiPROPERTY integerItem(int32_t selector, int32_t value) {
  zaiPROPERTY item = {};
  memcpy(item.eyeCatcher, kItemEyeCatcher, 4);
  item.selector = selector;
  item.type = ITEM_TYPE_INTEGER;
  item.value.integer = value;
  return item;
}

// SEL_BAG_OPTIONS as rebuilt from the flags: an admin bag reads 0x0F.
int32_t optionsOf(const zaiBAG *bag) {
  return (bag->systemBag ? BAG_OPT_SYSTEM_BAG : 0) | (bag->adminBag ? BAG_OPT_ADMIN_BAG : 0) |
         (bag->requiredParmsFirst ? BAG_OPT_REQUIRED_PARMS_FIRST : 0) |
         (bag->listForm ? BAG_OPT_LIST_FORM_ALLOWED : 0) |
         (bag->checkSelectors ? BAG_OPT_CHECK_SELECTORS : 0) |
         (bag->commandBag ? BAG_OPT_COMMAND_BAG : 0);
}

void setFlags(zaiBAG *bag, int32_t options) {
  bag->systemBag = (options & BAG_OPT_SYSTEM_BAG) != 0;
  if (options & BAG_OPT_ADMIN_BAG) {
    bag->adminBag = bag->requiredParmsFirst = bag->listForm = bag->checkSelectors = 1;
    return;
  }
  bag->commandBag = (options & BAG_OPT_COMMAND_BAG) != 0;
  bag->requiredParmsFirst = (options & BAG_OPT_REQUIRED_PARMS_FIRST) != 0;
  bag->listForm = (options & BAG_OPT_LIST_FORM_ALLOWED) != 0;
  bag->checkSelectors = (options & BAG_OPT_CHECK_SELECTORS) != 0;
}

}  // namespace

// ----- Call frame ---------------------------------------------------------------

void zaiTraceParmLine(const zaiFRAME *frame, const char *format, ...) {
  if (!parmTraceOn(frame->anchor)) return;
  char line[256];
  va_list arguments;
  va_start(arguments, format);
  vsnprintf(line, sizeof line, format, arguments);
  va_end(arguments);
  svcTHREADANCHOR *anchor = frame->anchor;
  anchor->tagComponent = static_cast<uint16_t>(frame->identifier >> 10);
  anchor->tagFunction = static_cast<uint16_t>(frame->identifier & 0x3FF);
  anchor->tagLevel = kParmTraceLevel;
  trcParms(anchor, "%s", line);
}

bool zaiTraceOn() {
  const svcPROCESSANCHOR &process = processAnchor;
  return process.traceEnabled != 0 && (process.traceLevel != kTraceOff || process.earlyTrace != 0);
}

bool zaiBagDumpsOn() {
  return zaiTraceOn() && (processAnchor.traceOptions & kBagDumpOptions) == kBagDumpOptions;
}

zaiFRAME zaiTraceTag(int32_t component, int32_t function) {
  return {threadAnchor(), static_cast<uint32_t>(component << 10 | function)};
}

void zaiTraceRecord(const zaiFRAME *frame, const char *label, const void *record, int32_t length) {
  if (!parmTraceOn(frame->anchor)) return;
  zaiTraceParms(frame, "%s", label);
  trcDataDetail(static_cast<int32_t>(frame->identifier >> 10),
                static_cast<int32_t>(frame->identifier & 0x3FF), kParmTraceLevel, record, length);
}

void zaiApiSetUpThread() { svcInitialize(kHistorySlots, kProductId, 0, 0, 0); }

void zaiApiTraceEntryLines(const zaiAPICALL *call) {
  ApiTracer trace = tracerOf(call);
  trace.header(call->exportedName, ">>");
  for (int32_t i = 0; i < call->parmCount; ++i) {
    const zaiAPIPARM &parm = call->parms[i];
    switch (parm.kind) {
      case ZAI_PARM_IN:
      case ZAI_PARM_INOUT:
        trace.variable(parm.caption, parm.value);
        break;
      case ZAI_PARM_IN_BUFFER:
        trace.buffer(parm.caption, parm.value, *parm.length);
        break;
      case ZAI_PARM_IN_STRING:
        trace.string(parm.caption, static_cast<const char *>(parm.value));
        break;
      case ZAI_PARM_OUT:
      case ZAI_PARM_OUT_BUFFER:
      case ZAI_PARM_OUT_STRING:
        trace.fixed(parm.name, "Output Parm");
        break;
      case ZAI_PARM_IN_RECORD_REFER:
        trace.record(parm.name, parm.value, *parm.length);
        break;
      case ZAI_PARM_REFER:
        trace.fixed(parm.name, parm.caption);
        break;
      case ZAI_PARM_EXIT_INPUT:
        break;
    }
  }
  trace.fixed("Compcode", "Output Parm");
  trace.fixed("Reason", "Output Parm");
}

void zaiApiTraceExitLines(const zaiAPICALL *call) {
  {
    ApiTracer trace = tracerOf(call);
    trace.header(call->exportedName, "<<");
    for (int32_t i = 0; i < call->parmCount; ++i) {
      const zaiAPIPARM &parm = call->parms[i];
      switch (parm.kind) {
        case ZAI_PARM_IN:
        case ZAI_PARM_IN_BUFFER:
        case ZAI_PARM_IN_STRING:
        case ZAI_PARM_EXIT_INPUT:
          trace.fixed(parm.name, "Input  Parm");
          break;
        case ZAI_PARM_IN_RECORD_REFER:
        case ZAI_PARM_REFER:
          trace.fixed(parm.name, parm.caption);
          break;
        case ZAI_PARM_OUT:
        case ZAI_PARM_INOUT:
          trace.variable(parm.caption, parm.value);
          break;
        case ZAI_PARM_OUT_BUFFER:
          trace.buffer(parm.caption, parm.value, *parm.length);
          break;
        case ZAI_PARM_OUT_STRING:
          trace.string(parm.caption,
                       *call->pCompCode == CC_OK ? static_cast<const char *>(parm.value) : nullptr);
          break;
      }
    }
    trace.variable("Compcode", call->pCompCode);
    trace.variable("Reason", call->pReason);
  }
}

// ----- Shared checks and reports --------------------------------------------------

zaiBAG *zaiCallerBag(VXHBAG handle, int32_t *pCompCode, int32_t *pReason) {
  zaiBAG *bag = nullptr;
  if (int32_t reason = zaiCheckBagHandle(handle, &bag); reason != RC_NONE)
    zaiFail(pCompCode, pReason, reason);
  return bag;
}

zaiBAG *zaiAlterableBag(VXHBAG handle, int32_t *pCompCode, int32_t *pReason) {
  zaiBAG *bag = zaiCallerBag(handle, pCompCode, pReason);
  if (bag && bag->systemBag) {
    zaiFail(pCompCode, pReason, RC_SYSTEM_BAG_NOT_ALTERABLE);
    return nullptr;
  }
  return bag;
}

int32_t zaiCheckBagHandle(VXHBAG handle, zaiBAG **bag) {
  zaiBAG *record = zaiDecodeHandle(handle);
  *bag = nullptr;
  if (!record || svcCheckPointer(record, sizeof(zaiBAG), SVC_CHECK_READ_WRITE) != 0 ||
      memcmp(record->eyeCatcher, kBagEyeCatcher, 4) != 0)
    return RC_BAG_HANDLE_ERROR;
  *bag = record;
  return RC_NONE;
}

int32_t zaiSafeStringLength(const char *string) {
  constexpr uintptr_t kPage = 4096;
  int32_t length = 0;
  for (const char *at = string;;) {
    if (svcCheckPointer(at, 1, SVC_CHECK_READ) != 0) return -1;
    size_t inPage = kPage - (reinterpret_cast<uintptr_t>(at) & (kPage - 1));
    if (const void *end = memchr(at, 0, inPage))
      return length + static_cast<int32_t>(static_cast<const char *>(end) - at);
    if (length > INT32_MAX - static_cast<int32_t>(inPage)) return -1;
    length += static_cast<int32_t>(inPage);
    at += inPage;
  }
}

void zaiReportDamage(int32_t function, uint32_t resultCode, int32_t insert, const char *label,
                     const void *record, int32_t length) {
  svcDUMPAREAS areas = {};
  svcBuildDumpArea(&areas, label, record, length);
  svcINSERTS inserts = {};
  memcpy(inserts.eyeCatcher, "XMSA", 4);
  inserts.numeric[0] = insert;
  svcFailureReport(ZAI_COMPONENT, function, 0, resultCode, &inserts, &areas);
}

extern "C" {

// ----- Bags -------------------------------------------------------------------------

uint32_t zaiVXCreateBag(int32_t Options, VXHBAG *pBag, int32_t *pCompCode, int32_t *pReason) {
  const auto parms = [&] {
    return std::to_array<zaiAPIPARM>({zaiParmIn("Options", &Options), zaiParmOut("Bag", pBag)});
  };
  zaiAPICALL call;
  zaiApiBegin(&call, ZAIFN_zaiVXCreateBag, "vxCreateBag", pCompCode, pReason);
  zaiApiTraceEntry(&call, parms);
  int32_t *cc = call.pCompCode, *rc = call.pReason;
  if (Options & ~(BAG_OPT_ADMIN_BAG | BAG_OPT_LIST_FORM_ALLOWED | BAG_OPT_REQUIRED_PARMS_FIRST |
                  BAG_OPT_CHECK_SELECTORS | BAG_OPT_COMMAND_BAG))
    zaiFail(cc, rc, RC_OPTIONS_ERROR);
  if ((Options & BAG_OPT_ADMIN_BAG) && (Options & BAG_OPT_COMMAND_BAG))
    zaiFail(cc, rc, RC_OPTIONS_ERROR);
  if (*cc == CC_OK && svcCheckPointer(pBag, sizeof *pBag, SVC_CHECK_WRITE) != 0)
    zaiFail(cc, rc, RC_BAG_HANDLE_ERROR);
  if (*cc == CC_OK) {
    zaiBAG *bag = nullptr;
    zaiCreateBag(Options, &bag, cc, rc);
    if (*cc == CC_OK) *pBag = zaiHandleOf(bag);
  }
  return zaiApiEnd(&call, parms);
}

uint32_t zaiVXDeleteBag(VXHBAG *pBag, int32_t *pCompCode, int32_t *pReason) {
  const auto parms = [&] {
    return std::to_array<zaiAPIPARM>({{"Bag", "Bag", ZAI_PARM_INOUT, pBag, nullptr}});
  };
  zaiAPICALL call;
  zaiApiBegin(&call, ZAIFN_zaiVXDeleteBag, "vxDeleteBag", pCompCode, pReason);
  zaiApiTraceEntry(&call, parms);
  int32_t *cc = call.pCompCode, *rc = call.pReason;
  zaiBAG *bag = nullptr;
  // The handle variable is read and then set to -1: it must be both.
  if (svcCheckPointer(pBag, sizeof *pBag, SVC_CHECK_READ_WRITE) != 0) {
    zaiFail(cc, rc, RC_BAG_HANDLE_ERROR);
  } else if (int32_t reason = zaiCheckBagHandle(*pBag, &bag); reason != RC_NONE) {
    zaiFail(cc, rc, reason);
  } else if (bag->systemBag) {
    zaiFail(cc, rc, RC_SYSTEM_BAG_NOT_DELETABLE);
  } else {
    zaiDeleteBag(&bag, cc, rc);
    *pBag = -1;
  }
  return zaiApiEnd(&call, parms);
}

void zaiCreateBag(int32_t options, zaiBAG **ppBag, int32_t *pCompCode, int32_t *pReason) {
  zaiFRAME frame = zaiFramePush(ZAI_COMPONENT, ZAIFN_zaiCreateBag);
  *pCompCode = CC_OK;
  *pReason = RC_NONE;
  zaiTraceParms(&frame, "options:%d ", options);
  void *record = nullptr;
  // The record's address is the caller's 32-bit handle.
  if (svcGetHandleMem(ZAI_COMPONENT, ZAIFN_zaiCreateBag, sizeof(zaiBAG), 0, &record) != 0) {
    zaiFail(pCompCode, pReason, RC_STORAGE_NOT_AVAILABLE);
  } else {
    auto *bag = static_cast<zaiBAG *>(record);
    memset(bag, 0, sizeof *bag);
    if (zaiVectorCreate(ZAI_INITIAL_ITEMS, sizeof(zaiPROPERTY), &bag->items) != 0) {
      // The record is kept, not released, when its vector cannot be had.
      zaiFail(pCompCode, pReason, RC_STORAGE_NOT_AVAILABLE);
    } else {
      memcpy(bag->eyeCatcher, kBagEyeCatcher, 4);
      setFlags(bag, options);
      zaiAddDefaultSystemItems(bag, pCompCode, pReason);
      if (*pCompCode == CC_OK) {
        *ppBag = bag;
        zaiTraceParms(&frame, "pBag:%p", static_cast<void *>(bag));
      } else {
        // A bag without its system items is of no use to anyone: release it.
        int32_t compCode, reason;
        zaiDeleteBag(&bag, &compCode, &reason);
      }
    }
  }
  zaiFramePop(&frame, *pReason);
}

void zaiDeleteBag(zaiBAG **ppBag, int32_t *pCompCode, int32_t *pReason) {
  zaiFRAME frame = zaiFramePush(ZAI_COMPONENT, ZAIFN_zaiDeleteBag);
  zaiTraceParms(&frame, "*ppBag:%p", static_cast<void *>(*ppBag));
  zaiBAG *bag = *ppBag;
  for (int32_t index = bag->items->count - 1; index >= 0; --index) {
    int32_t compCode, reason;
    zaiFreeItem(bag, index, &compCode, &reason);
  }
  zaiVectorDestroy(bag->items);
  bag->eyeCatcher[0] = '?';
  svcFreeMem(ZAI_COMPONENT, bag);
  *ppBag = nullptr;
  *pCompCode = CC_OK;
  *pReason = RC_NONE;
  zaiFramePop(&frame, RC_NONE);
}

void zaiAddDefaultSystemItems(zaiBAG *bag, int32_t *pCompCode, int32_t *pReason) {
  zaiFRAME frame = zaiFramePush(ZAI_COMPONENT, ZAIFN_zaiAddDefaultSystemItems);
  *pCompCode = CC_OK;
  *pReason = RC_NONE;
  // Only ever run on an empty vector, where adding an integer item amounts
  // to appending it: no earlier occurrence can be found.
  const zaiPROPERTY defaults[] = {
      integerItem(SEL_BAG_OPTIONS, optionsOf(bag)),
      integerItem(SEL_PCF_TYPE, bag->adminBag || bag->commandBag ? 1 : 8),
      integerItem(SEL_CODED_CHAR_SET_ID, 0),
      integerItem(SEL_COMMAND, 0),
      integerItem(SEL_MSG_SEQ_NUMBER, 1),
      integerItem(SEL_CONTROL, PCF_CONTROL_LAST),
      integerItem(SEL_COMP_CODE, CC_OK),
      integerItem(SEL_REASON, RC_NONE),
  };
  for (const zaiPROPERTY &item : defaults) {
    if (zaiVectorAdd(bag->items, &item) != 0) {
      zaiFail(pCompCode, pReason, RC_STORAGE_NOT_AVAILABLE);
      break;
    }
  }
  zaiFramePop(&frame, *pReason);
}

void zaiFreeItem(zaiBAG *bag, int32_t vectorIndex, int32_t *pCompCode, int32_t *pReason) {
  zaiFRAME frame = zaiFramePush(ZAI_COMPONENT, ZAIFN_zaiFreeItem);
  zaiTraceParms(&frame, "pBag:%p, vectorIdx:%d", static_cast<void *>(bag), vectorIndex);
  *pCompCode = CC_OK;
  *pReason = RC_NONE;
  zaiVECTOR *items = bag->items;
  if (vectorIndex < 0 || vectorIndex >= items->count || !items->slots[vectorIndex]) {
    zaiFail(pCompCode, pReason, RC_INDEX_NOT_PRESENT);
  } else {
    zaiPROPERTY removed = *zaiItemAt(bag, vectorIndex);
    zaiVectorRemoveAt(items, vectorIndex);
    if (removed.type == ITEM_TYPE_STRING && removed.stringLength > 0) free(removed.value.string);
    if (removed.type == ITEM_TYPE_BAG) {
      // The nested handle is read from the slot after the removal: for the
      // last item (always the case when a bag is deleted or cleared) the slot
      // still holds it; otherwise the item that moved down is the one taken.
      // Only a value that names a live bag is deleted.
      zaiBAG *nested = nullptr;
      if (zaiCheckBagHandle(zaiItemAt(bag, vectorIndex)->value.bag, &nested) == RC_NONE)
        zaiDeleteBag(&nested, pCompCode, pReason);
    }
  }
  zaiFramePop(&frame, *pReason);
}

}  // extern "C"

// ----- Selectors, lookup and counting ------------------------------------------------

namespace {

// First selector of each item type's range in a bag that checks selectors;
// each range holds 2000 selectors.
constexpr int32_t kRangeStart[] = {1, 2001, 4001};
constexpr int32_t kRangeSize = 2000;
constexpr int32_t kLastUserSelector = 6000;     // end of the bag range
constexpr int32_t kLastInquirySelector = 4000;  // end of the string range

// The check of the calls that accept any item type and the wildcards:
// negative selectors must be system selectors or wildcards, and a checking
// bag takes user selectors of any range.
void checkAnySelector(const zaiBAG *bag, int32_t selector, int32_t *pCompCode, int32_t *pReason) {
  if (selector < 0) {
    if (!zaiIsWildcard(selector) && !zaiIsSystemSelector(selector))
      zaiFail(pCompCode, pReason, RC_SYSTEM_ITEM_NOT_ALTERABLE);
  } else if (bag->checkSelectors && (selector < 1 || selector > kLastUserSelector)) {
    zaiFail(pCompCode, pReason, RC_SELECTOR_OUT_OF_RANGE);
  }
}

bool counts(const zaiPROPERTY *item, int32_t selector) {
  switch (selector) {
    case SEL_ANY_SELECTOR:
      return true;
    case SEL_ANY_USER_SELECTOR:
      return item->selector >= 0;
    case SEL_ANY_SYSTEM_SELECTOR:
      return item->selector < 0;
  }
  return item->selector == selector;
}

bool holdsSystemBag(const zaiPROPERTY *item) {
  zaiBAG *nested = nullptr;
  return item->type == ITEM_TYPE_BAG && zaiCheckBagHandle(item->value.bag, &nested) == RC_NONE &&
         nested->systemBag;
}

// Appends an item; the vector's only failure here is memory.
void appendItem(zaiBAG *bag, const zaiPROPERTY *item, int32_t *pCompCode, int32_t *pReason) {
  if (zaiVectorAdd(bag->items, item) != 0) zaiFail(pCompCode, pReason, RC_STORAGE_NOT_AVAILABLE);
}

// The first occurrence decides the type of a selector: an add looks for it,
// unless its caller already knows that type, and a selector not yet present
// is no failure.
void checkTypeForAdd(zaiBAG *bag, int32_t selector, int32_t type, int32_t firstType,
                     int32_t *pCompCode, int32_t *pReason) {
  *pCompCode = CC_OK;
  *pReason = RC_NONE;
  if (firstType == ZAI_FIRST_UNKNOWN) {
    int32_t found;
    zaiPROPERTY *first = zaiFindSelector(bag, 0, selector, 0, &found, pCompCode, pReason);
    if (*pCompCode != CC_OK) {
      if (*pReason == RC_SELECTOR_NOT_PRESENT) *pCompCode = *pReason = 0;
      return;
    }
    firstType = first->type;
  }
  if (firstType != ZAI_FIRST_NONE && firstType != type)
    zaiFail(pCompCode, pReason, RC_INCONSISTENT_ITEM_TYPE);
}

// Looks an item up for a set or an inquiry and demands its type.
zaiPROPERTY *findTyped(zaiBAG *bag, int32_t selector, int32_t itemIndex, int32_t type,
                       int32_t *pCompCode, int32_t *pReason) {
  int32_t found;
  zaiPROPERTY *item = zaiFindSelector(bag, 0, selector, itemIndex, &found, pCompCode, pReason);
  if (*pCompCode != CC_OK) return nullptr;
  if (item->type != type) {
    zaiFail(pCompCode, pReason, RC_SELECTOR_WRONG_TYPE);
    return nullptr;
  }
  return item;
}

// The character set a string takes: the bag's, at the moment it is stored.
int32_t bagCodedCharSetId(zaiBAG *bag, int32_t *pCompCode, int32_t *pReason) {
  int32_t codedCharSetId = 0;
  zaiInquireInteger(bag, SEL_CODED_CHAR_SET_ID, 0, &codedCharSetId, pCompCode, pReason);
  if (*pCompCode == CC_OK && codedCharSetId == -1) zaiFail(pCompCode, pReason, RC_CCSID_ERROR);
  return codedCharSetId;
}

// A private copy of a string's bytes; null for length 0 or without memory.
char *copyOf(const char *bytes, int32_t length) {
  if (length <= 0) return nullptr;
  auto *copy = static_cast<char *>(malloc(static_cast<size_t>(length)));
  if (copy) memcpy(copy, bytes, static_cast<size_t>(length));
  return copy;
}

// Resolves the buffer of an add or set: -1 means null-terminated.  Returns
// the length to store, and false when the buffer cannot be read.
bool resolveBuffer(const char *buffer, int32_t length, int32_t *resolved) {
  *resolved = 0;
  if (length == -1) {
    int32_t measured = buffer ? zaiSafeStringLength(buffer) : -1;
    if (measured < 0) return false;
    *resolved = measured;
  } else if (length > 0) {
    if (svcCheckPointer(buffer, length, SVC_CHECK_READ) != 0) return false;
    *resolved = length;
  }
  return true;
}

// The buffer check of the string calls runs whatever the earlier checks
// found, for the resolved length; an earlier failure still wins.
void checkStringBuffer(const char *buffer, int32_t length, int32_t *resolved, int32_t *pCompCode,
                       int32_t *pReason) {
  bool readable = resolveBuffer(buffer, length, resolved);
  if (*pCompCode == CC_OK && !readable) zaiFail(pCompCode, pReason, RC_BUFFER_ERROR);
}

}  // namespace

extern "C" {

void zaiCheckSelector(zaiBAG *bag, int32_t selector, int32_t type, int32_t *pCompCode,
                      int32_t *pReason) {
  const zaiFRAME caller = {threadAnchor(), 0};
  zaiCheckSelectorUnder(&caller, bag, selector, type, pCompCode, pReason);
}

}  // extern "C"

void zaiCheckSelectorUnder(const zaiFRAME *caller, zaiBAG *bag, int32_t selector, int32_t type,
                           int32_t *pCompCode, int32_t *pReason) {
  zaiFRAME frame = zaiFramePush(caller->anchor, ZAI_COMPONENT, ZAIFN_zaiCheckSelector);
  zaiTraceParms(&frame, "pBag:%p, selector:%d, type: %d", static_cast<void *>(bag), selector, type);
  *pCompCode = CC_OK;
  *pReason = RC_NONE;
  if (selector >= 0) {
    if (bag->checkSelectors && type >= ITEM_TYPE_INTEGER && type <= ITEM_TYPE_BAG &&
        static_cast<uint32_t>(selector - kRangeStart[type - 1]) > kRangeSize - 1)
      zaiFail(pCompCode, pReason, RC_SELECTOR_OUT_OF_RANGE);
  } else if (!zaiIsSystemSelector(selector)) {
    zaiFail(pCompCode, pReason, RC_SYSTEM_ITEM_NOT_ALTERABLE);
  }
  zaiFramePop(&frame, *pReason);
}

extern "C" {

void zaiCheckUniqueSelector(zaiBAG *bag, int32_t selector, int32_t *pCompCode, int32_t *pReason) {
  zaiFRAME frame = zaiFramePush(ZAI_COMPONENT, ZAIFN_zaiCheckUniqueSelector);
  zaiTraceParms(&frame, "pBag:%p, selector:%d", static_cast<void *>(bag), selector);
  *pCompCode = CC_OK;
  *pReason = RC_NONE;
  int32_t occurrences = zaiCountItems(bag, 0, selector);
  if (occurrences == 0)
    zaiFail(pCompCode, pReason, RC_SELECTOR_NOT_PRESENT);
  else if (occurrences > 1)
    zaiFail(pCompCode, pReason, RC_SELECTOR_NOT_UNIQUE);
  zaiFramePop(&frame, *pReason);
}

zaiPROPERTY *zaiFindSelector(zaiBAG *bag, int32_t startIndex, int32_t selector, int32_t itemIndex,
                             int32_t *foundIndex, int32_t *pCompCode, int32_t *pReason) {
  zaiFRAME frame = zaiFramePush(ZAI_COMPONENT, ZAIFN_zaiFindSelector);
  zaiTraceParms(&frame, "pBag:%p, startIndex:%d, selector:%d, itemIndex:%d",
                static_cast<void *>(bag), startIndex, selector, itemIndex);
  *pCompCode = CC_OK;
  *pReason = RC_NONE;
  zaiPROPERTY *hit = nullptr;
  if ((zaiIsWildcard(selector) && itemIndex == ITEM_INDEX_NONE) || itemIndex < ITEM_INDEX_NONE) {
    zaiFail(pCompCode, pReason, RC_INDEX_ERROR);
  } else if (itemIndex == ITEM_INDEX_NONE) {
    zaiCheckUniqueSelector(bag, selector, pCompCode, pReason);
  }
  if (*pCompCode == CC_OK) {
    // With ITEM_INDEX_NONE the only occurrence is the one wanted.
    const int32_t wanted = itemIndex == ITEM_INDEX_NONE ? 1 : itemIndex + 1;
    int32_t all = 0, system = 0, user = 0, matches = 0;
    // The running total that the selector counts occurrences in.
    auto total = [&] {
      switch (selector) {
        case SEL_ANY_SELECTOR:
          return all;
        case SEL_ANY_SYSTEM_SELECTOR:
          return system;
        case SEL_ANY_USER_SELECTOR:
          return user;
      }
      return matches;
    };
    const zaiVECTOR *items = bag->items;
    *foundIndex = startIndex;
    for (int32_t i = startIndex < 0 ? 0 : startIndex; i < items->count; *foundIndex = ++i) {
      auto *item = static_cast<zaiPROPERTY *>(items->slots[i]);
      if (!item) {
        // An empty slot is reported, but a later hit is still returned.
        zaiFail(pCompCode, pReason, RC_INDEX_NOT_PRESENT);
        continue;
      }
      ++all;
      ++(item->selector < 0 ? system : user);
      if (item->selector == selector) ++matches;
      if (total() == wanted) {
        hit = item;
        break;
      }
    }
    if (!hit)
      zaiFail(pCompCode, pReason, total() == 0 ? RC_SELECTOR_NOT_PRESENT : RC_INDEX_NOT_PRESENT);
  }
  zaiFramePop(&frame, *pReason);
  return hit;
}

int32_t zaiCountItems(zaiBAG *bag, int32_t startIndex, int32_t selector) {
  const zaiFRAME caller = {threadAnchor(), 0};
  return zaiCountItemsUnder(&caller, bag, startIndex, selector);
}

}  // extern "C"

int32_t zaiCountItemsUnder(const zaiFRAME *caller, zaiBAG *bag, int32_t startIndex,
                           int32_t selector) {
  zaiFRAME frame = zaiFramePush(caller->anchor, ZAI_COMPONENT, ZAIFN_zaiCountItems);
  zaiTraceParms(&frame, "pBag:%p, startIndex:%d, selector:%d", static_cast<void *>(bag), startIndex,
                selector);
  const zaiVECTOR *items = bag->items;
  int32_t count = 0;
  if (selector == SEL_ANY_SELECTOR && startIndex == 0) {
    count = items->count;
  } else {
    for (int32_t i = startIndex < 0 ? 0 : startIndex; i < items->count; ++i) {
      auto *item = static_cast<const zaiPROPERTY *>(items->slots[i]);
      if (item && counts(item, selector)) ++count;
    }
  }
  zaiFramePop(&frame, RC_NONE);
  return count;
}

extern "C" {

// ----- Integer items ------------------------------------------------------------------

uint32_t zaiVXAddInteger(VXHBAG Bag, int32_t Selector, int32_t ItemValue, int32_t *pCompCode,
                         int32_t *pReason) {
  const auto parms = [&] {
    return std::to_array<zaiAPIPARM>({zaiParmIn("Bag", &Bag), zaiParmIn("Selector", &Selector),
                                      zaiParmIn("ItemValue", &ItemValue)});
  };
  zaiAPICALL call;
  zaiApiBegin(&call, ZAIFN_zaiVXAddInteger, "vxAddInteger", pCompCode, pReason);
  zaiApiTraceEntry(&call, parms);
  int32_t *cc = call.pCompCode, *rc = call.pReason;
  zaiBAG *bag = zaiAlterableBag(Bag, cc, rc);
  if (*cc == CC_OK && Selector < 0)  // system items are never added
    zaiFail(cc, rc, RC_SELECTOR_OUT_OF_RANGE);
  if (*cc == CC_OK) zaiCheckSelectorUnder(&call.frame, bag, Selector, ITEM_TYPE_INTEGER, cc, rc);
  if (*cc == CC_OK) zaiAddInteger(bag, Selector, ItemValue, cc, rc);
  return zaiApiEnd(&call, parms);
}

uint32_t zaiVXSetInteger(VXHBAG Bag, int32_t Selector, int32_t ItemIndex, int32_t ItemValue,
                         int32_t *pCompCode, int32_t *pReason) {
  const auto parms = [&] {
    return std::to_array<zaiAPIPARM>({zaiParmIn("Bag", &Bag), zaiParmIn("Selector", &Selector),
                                      zaiParmIn("ItemIndex", &ItemIndex),
                                      zaiParmIn("ItemValue", &ItemValue)});
  };
  zaiAPICALL call;
  zaiApiBegin(&call, ZAIFN_zaiVXSetInteger, "vxSetInteger", pCompCode, pReason);
  zaiApiTraceEntry(&call, parms);
  int32_t *cc = call.pCompCode, *rc = call.pReason;
  zaiBAG *bag = zaiAlterableBag(Bag, cc, rc);
  if (*cc == CC_OK && Selector == SEL_BAG_OPTIONS)  // the options are fixed at creation
    zaiFail(cc, rc, RC_SELECTOR_SET_NOT_ALLOWED);
  if (*cc == CC_OK) zaiCheckSelectorUnder(&call.frame, bag, Selector, ITEM_TYPE_INTEGER, cc, rc);
  if (*cc == CC_OK) zaiSetInteger(bag, Selector, ItemIndex, ItemValue, cc, rc);
  return zaiApiEnd(&call, parms);
}

uint32_t zaiVXInquireInteger(VXHBAG Bag, int32_t Selector, int32_t ItemIndex, int32_t *pItemValue,
                             int32_t *pCompCode, int32_t *pReason) {
  const auto parms = [&] {
    return std::to_array<zaiAPIPARM>({zaiParmIn("Bag", &Bag), zaiParmIn("Selector", &Selector),
                                      zaiParmIn("ItemIndex", &ItemIndex),
                                      zaiParmOut("ItemValue", pItemValue)});
  };
  zaiAPICALL call;
  zaiApiBegin(&call, ZAIFN_zaiVXInquireInteger, "vxInquireInteger", pCompCode, pReason);
  zaiApiTraceEntry(&call, parms);
  int32_t *cc = call.pCompCode, *rc = call.pReason;
  zaiBAG *bag = zaiCallerBag(Bag, cc, rc);
  if (*cc == CC_OK && !zaiIsWildcard(Selector))
    zaiCheckSelectorUnder(&call.frame, bag, Selector, ITEM_TYPE_INTEGER, cc, rc);
  if (*cc == CC_OK && svcCheckPointer(pItemValue, sizeof *pItemValue, SVC_CHECK_WRITE) != 0)
    zaiFail(cc, rc, RC_ITEM_VALUE_ERROR);
  if (*cc == CC_OK) {
    int32_t value;
    zaiInquireInteger(bag, Selector, ItemIndex, &value, cc, rc);
    if (*cc == CC_OK) *pItemValue = value;
  }
  return zaiApiEnd(&call, parms);
}

uint32_t zaiVXAddInquiry(VXHBAG Bag, int32_t Selector, int32_t *pCompCode, int32_t *pReason) {
  const auto parms = [&] {
    return std::to_array<zaiAPIPARM>({zaiParmIn("Bag", &Bag), zaiParmIn("Selector", &Selector)});
  };
  zaiAPICALL call;
  zaiApiBegin(&call, ZAIFN_zaiVXAddInquiry, "vxAddInquiry", pCompCode, pReason);
  zaiApiTraceEntry(&call, parms);
  int32_t *cc = call.pCompCode, *rc = call.pReason;
  zaiBAG *bag = zaiAlterableBag(Bag, cc, rc);
  if (*cc == CC_OK && !bag->adminBag)  // only administration commands inquire
    zaiFail(cc, rc, RC_BAG_WRONG_TYPE);
  if (*cc == CC_OK && Selector < 0) zaiFail(cc, rc, RC_SELECTOR_OUT_OF_RANGE);
  // Integer and string attributes can be inquired, nested bags cannot.
  if (*cc == CC_OK && bag->checkSelectors && (Selector < 1 || Selector > kLastInquirySelector))
    zaiFail(cc, rc, RC_SELECTOR_OUT_OF_RANGE);
  if (*cc == CC_OK) zaiAddInteger(bag, SEL_INQUIRY_ITEM, Selector, cc, rc);
  return zaiApiEnd(&call, parms);
}

void zaiAddInteger(zaiBAG *bag, int32_t selector, int32_t value, int32_t *pCompCode,
                   int32_t *pReason) {
  zaiAddIntegerKnown(bag, selector, value, ZAI_FIRST_UNKNOWN, pCompCode, pReason);
}

void zaiSetInteger(zaiBAG *bag, int32_t selector, int32_t itemIndex, int32_t value,
                   int32_t *pCompCode, int32_t *pReason) {
  zaiFRAME frame = zaiFramePush(ZAI_COMPONENT, ZAIFN_zaiSetInteger);
  zaiTraceParms(&frame, "pBag:%p, selector:%d, itemIndex:%d", static_cast<void *>(bag), selector,
                itemIndex);
  if (itemIndex == ITEM_INDEX_ALL) {
    // Every occurrence makes way for one new item at the end of the bag.
    zaiDeleteItem(bag, selector, ITEM_INDEX_ALL, 0, pCompCode, pReason);
    if (*pCompCode == CC_OK) zaiAddInteger(bag, selector, value, pCompCode, pReason);
  } else if (zaiPROPERTY *item =
                 findTyped(bag, selector, itemIndex, ITEM_TYPE_INTEGER, pCompCode, pReason)) {
    item->value.integer = value;
  }
  zaiFramePop(&frame, *pReason);
}

void zaiInquireInteger(zaiBAG *bag, int32_t selector, int32_t itemIndex, int32_t *value,
                       int32_t *pCompCode, int32_t *pReason) {
  zaiFRAME frame = zaiFramePush(ZAI_COMPONENT, ZAIFN_zaiInquireInteger);
  zaiTraceParms(&frame, "pBag:%p, selector:%d, itemIndex:%d", static_cast<void *>(bag), selector,
                itemIndex);
  if (const zaiPROPERTY *item =
          findTyped(bag, selector, itemIndex, ITEM_TYPE_INTEGER, pCompCode, pReason))
    *value = item->value.integer;
  zaiFramePop(&frame, *pReason);
}

// ----- String items -------------------------------------------------------------------

uint32_t zaiVXAddString(VXHBAG Bag, int32_t Selector, int32_t BufferLength, const char *pBuffer,
                        int32_t *pCompCode, int32_t *pReason) {
  int32_t resolvedLength = 0;
  const auto parms = [&] {
    return std::to_array<zaiAPIPARM>({
        zaiParmIn("Bag", &Bag),
        zaiParmIn("Selector", &Selector),
        zaiParmBufferLength(&BufferLength),
        {"Buffer", "Buffer", ZAI_PARM_IN_BUFFER, pBuffer, &resolvedLength},
    });
  };
  zaiAPICALL call;
  zaiApiBegin(&call, ZAIFN_zaiVXAddString, "vxAddString", pCompCode, pReason);
  int32_t *cc = call.pCompCode, *rc = call.pReason;
  zaiBAG *bag = zaiAlterableBag(Bag, cc, rc);
  if (*cc == CC_OK && Selector < 0)  // system items are never added
    zaiFail(cc, rc, RC_SELECTOR_OUT_OF_RANGE);
  if (*cc == CC_OK) zaiCheckSelectorUnder(&call.frame, bag, Selector, ITEM_TYPE_STRING, cc, rc);
  if (*cc == CC_OK && BufferLength < -1) zaiFail(cc, rc, RC_BUFFER_LENGTH_ERROR);
  checkStringBuffer(pBuffer, BufferLength, &resolvedLength, cc, rc);
  // Written after the checks: it shows the buffer over its resolved length.
  zaiApiTraceEntry(&call, parms);
  if (*cc == CC_OK) {
    int32_t codedCharSetId = bagCodedCharSetId(bag, cc, rc);
    if (*cc == CC_OK) zaiAddString(bag, Selector, resolvedLength, pBuffer, codedCharSetId, cc, rc);
  }
  return zaiApiEnd(&call, parms);
}

uint32_t zaiVXSetString(VXHBAG Bag, int32_t Selector, int32_t ItemIndex, int32_t BufferLength,
                        const char *pBuffer, int32_t *pCompCode, int32_t *pReason) {
  // The bytes to be set are never shown: the trace names no buffer.
  const int32_t hiddenLength = 0;
  const auto parms = [&] {
    return std::to_array<zaiAPIPARM>({
        zaiParmIn("Bag", &Bag),
        zaiParmIn("Selector", &Selector),
        zaiParmIn("ItemIndex", &ItemIndex),
        zaiParmBufferLength(&BufferLength),
        {"Buffer", "Buffer", ZAI_PARM_IN_BUFFER, nullptr, &hiddenLength},
    });
  };
  zaiAPICALL call;
  zaiApiBegin(&call, ZAIFN_zaiVXSetString, "vxSetString", pCompCode, pReason);
  zaiApiTraceEntry(&call, parms);
  int32_t *cc = call.pCompCode, *rc = call.pReason;
  zaiBAG *bag = zaiAlterableBag(Bag, cc, rc);
  if (*cc == CC_OK && Selector == SEL_BAG_OPTIONS) zaiFail(cc, rc, RC_SELECTOR_SET_NOT_ALLOWED);
  // System selectors pass here and fail on the integer item they name.
  if (*cc == CC_OK) zaiCheckSelectorUnder(&call.frame, bag, Selector, ITEM_TYPE_STRING, cc, rc);
  if (*cc == CC_OK && BufferLength < -1) zaiFail(cc, rc, RC_BUFFER_LENGTH_ERROR);
  int32_t resolvedLength;
  checkStringBuffer(pBuffer, BufferLength, &resolvedLength, cc, rc);
  if (*cc == CC_OK) zaiSetString(bag, Selector, ItemIndex, resolvedLength, pBuffer, cc, rc);
  return zaiApiEnd(&call, parms);
}

uint32_t zaiVXInquireString(VXHBAG Bag, int32_t Selector, int32_t ItemIndex, int32_t BufferLength,
                            char *pBuffer, int32_t *pStringLength, int32_t *pCodedCharSetId,
                            int32_t *pCompCode, int32_t *pReason) {
  const auto parms = [&] {
    return std::to_array<zaiAPIPARM>({
        zaiParmIn("Bag", &Bag),
        zaiParmIn("Selector", &Selector),
        zaiParmIn("ItemIndex", &ItemIndex),
        zaiParmBufferLength(&BufferLength),
        {"Buffer", "Buffer", ZAI_PARM_OUT_BUFFER, pBuffer, &BufferLength},
        {"StringLength", "Stringlength", ZAI_PARM_OUT, pStringLength, nullptr},
        zaiParmOut("CodedCharSetId", pCodedCharSetId),
    });
  };
  zaiAPICALL call;
  zaiApiBegin(&call, ZAIFN_zaiVXInquireString, "vxInquireString", pCompCode, pReason);
  zaiApiTraceEntry(&call, parms);
  int32_t *cc = call.pCompCode, *rc = call.pReason;
  zaiBAG *bag = zaiCallerBag(Bag, cc, rc);
  // Without a buffer only the length (and character set) can be had.
  if (*cc == CC_OK &&
      (pBuffer ? svcCheckPointer(pBuffer, BufferLength, SVC_CHECK_WRITE) != 0 : BufferLength != 0))
    zaiFail(cc, rc, RC_BUFFER_ERROR);
  if (*cc == CC_OK && svcCheckPointer(pStringLength, sizeof *pStringLength, SVC_CHECK_WRITE) != 0)
    zaiFail(cc, rc, RC_STRING_LENGTH_ERROR);
  if (*cc == CC_OK && pCodedCharSetId &&
      svcCheckPointer(pCodedCharSetId, sizeof *pCodedCharSetId, SVC_CHECK_WRITE) != 0)
    zaiFail(cc, rc, RC_CCSID_ERROR);
  if (*cc == CC_OK && BufferLength < 0) zaiFail(cc, rc, RC_BUFFER_LENGTH_ERROR);
  if (*cc == CC_OK && !zaiIsWildcard(Selector))
    zaiCheckSelectorUnder(&call.frame, bag, Selector, ITEM_TYPE_STRING, cc, rc);
  if (*cc == CC_OK)
    zaiInquireString(bag, Selector, ItemIndex, BufferLength, pBuffer, pStringLength,
                     pCodedCharSetId, cc, rc);
  return zaiApiEnd(&call, parms);
}

void zaiAddString(zaiBAG *bag, int32_t selector, int32_t length, const char *bytes,
                  int32_t codedCharSetId, int32_t *pCompCode, int32_t *pReason) {
  zaiAddStringKnown(bag, selector, length, bytes, codedCharSetId, ZAI_FIRST_UNKNOWN, pCompCode,
                    pReason);
}

}  // extern "C"

void zaiAddIntegerKnown(zaiBAG *bag, int32_t selector, int32_t value, int32_t firstType,
                        int32_t *pCompCode, int32_t *pReason) {
  zaiFRAME frame = zaiFramePush(ZAI_COMPONENT, ZAIFN_zaiAddInteger);
  zaiTraceParms(&frame, "pBag:%p, selector:%d", static_cast<void *>(bag), selector);
  checkTypeForAdd(bag, selector, ITEM_TYPE_INTEGER, firstType, pCompCode, pReason);
  if (*pCompCode == CC_OK) {
    const zaiPROPERTY item = integerItem(selector, value);
    appendItem(bag, &item, pCompCode, pReason);
  }
  zaiFramePop(&frame, *pReason);
}

void zaiAddStringKnown(zaiBAG *bag, int32_t selector, int32_t length, const char *bytes,
                       int32_t codedCharSetId, int32_t firstType, int32_t *pCompCode,
                       int32_t *pReason) {
  zaiFRAME frame = zaiFramePush(ZAI_COMPONENT, ZAIFN_zaiAddString);
  zaiTraceParms(&frame, "pBag:%p, selector:%d", static_cast<void *>(bag), selector);
  checkTypeForAdd(bag, selector, ITEM_TYPE_STRING, firstType, pCompCode, pReason);
  if (*pCompCode == CC_OK) {
    zaiPROPERTY item = {};
    memcpy(item.eyeCatcher, kItemEyeCatcher, 4);
    item.selector = selector;
    item.type = ITEM_TYPE_STRING;
    item.value.string = copyOf(bytes, length);
    item.stringLength = length;
    item.codedCharSetId = codedCharSetId;
    if (length > 0 && !item.value.string) {
      zaiFail(pCompCode, pReason, RC_STORAGE_NOT_AVAILABLE);
    } else {
      appendItem(bag, &item, pCompCode, pReason);
      if (*pCompCode != CC_OK) free(item.value.string);
    }
  }
  zaiFramePop(&frame, *pReason);
}

extern "C" {

void zaiSetString(zaiBAG *bag, int32_t selector, int32_t itemIndex, int32_t length,
                  const char *bytes, int32_t *pCompCode, int32_t *pReason) {
  zaiFRAME frame = zaiFramePush(ZAI_COMPONENT, ZAIFN_zaiSetString);
  zaiTraceParms(&frame, "pBag:%p, selector:%d, itemIndex:%d", static_cast<void *>(bag), selector,
                itemIndex);
  int32_t codedCharSetId = bagCodedCharSetId(bag, pCompCode, pReason);
  if (*pCompCode != CC_OK) {
    // A bag whose character set is -1 takes no strings.
  } else if (itemIndex == ITEM_INDEX_ALL) {
    zaiDeleteItem(bag, selector, ITEM_INDEX_ALL, 0, pCompCode, pReason);
    if (*pCompCode == CC_OK)
      zaiAddString(bag, selector, length, bytes, codedCharSetId, pCompCode, pReason);
  } else if (zaiPROPERTY *item =
                 findTyped(bag, selector, itemIndex, ITEM_TYPE_STRING, pCompCode, pReason)) {
    if (length == item->stringLength) {
      item->codedCharSetId = codedCharSetId;
      if (length > 0) memcpy(item->value.string, bytes, static_cast<size_t>(length));
    } else {
      // The new copy comes first, so that without memory the item keeps its value.
      char *copy = copyOf(bytes, length);
      if (length > 0 && !copy) {
        zaiFail(pCompCode, pReason, RC_STORAGE_NOT_AVAILABLE);
      } else {
        char *old = item->stringLength > 0 ? item->value.string : nullptr;
        item->codedCharSetId = codedCharSetId;
        item->stringLength = length;
        item->value.string = copy;
        free(old);
      }
    }
  }
  zaiFramePop(&frame, *pReason);
}

void zaiInquireString(zaiBAG *bag, int32_t selector, int32_t itemIndex, int32_t bufferLength,
                      char *buffer, int32_t *stringLength, int32_t *codedCharSetId,
                      int32_t *pCompCode, int32_t *pReason) {
  zaiFRAME frame = zaiFramePush(ZAI_COMPONENT, ZAIFN_zaiInquireString);
  zaiTraceParms(&frame, "pBag:%p, selector:%d, itemIndex:%d, bufferLength:%d",
                static_cast<void *>(bag), selector, itemIndex, bufferLength);
  if (const zaiPROPERTY *item =
          findTyped(bag, selector, itemIndex, ITEM_TYPE_STRING, pCompCode, pReason)) {
    const int32_t stored = item->stringLength;
    const int32_t copied = stored < bufferLength ? stored : bufferLength;
    if (copied > 0) memcpy(buffer, item->value.string, static_cast<size_t>(copied));
    if (stored < bufferLength)
      memset(buffer + stored, ' ', static_cast<size_t>(bufferLength - stored));
    if (stored > bufferLength) {
      *pCompCode = CC_WARNING;
      *pReason = RC_STRING_TRUNCATED;
    }
    *stringLength = stored;  // the full length, also when cut
    if (codedCharSetId) *codedCharSetId = item->codedCharSetId;
  }
  zaiFramePop(&frame, *pReason);
}

// ----- Nested bags, item information and counting ----------------------------------------

uint32_t zaiVXInquireBag(VXHBAG Bag, int32_t Selector, int32_t ItemIndex, VXHBAG *pItemValue,
                         int32_t *pCompCode, int32_t *pReason) {
  const auto parms = [&] {
    return std::to_array<zaiAPIPARM>({zaiParmIn("Bag", &Bag), zaiParmIn("Selector", &Selector),
                                      zaiParmIn("ItemIndex", &ItemIndex),
                                      zaiParmOut("ItemValue", pItemValue)});
  };
  zaiAPICALL call;
  zaiApiBegin(&call, ZAIFN_zaiVXInquireBag, "vxInquireBag", pCompCode, pReason);
  zaiApiTraceEntry(&call, parms);
  int32_t *cc = call.pCompCode, *rc = call.pReason;
  zaiBAG *bag = zaiCallerBag(Bag, cc, rc);
  if (*cc == CC_OK && svcCheckPointer(pItemValue, sizeof *pItemValue, SVC_CHECK_WRITE) != 0)
    zaiFail(cc, rc, RC_ITEM_VALUE_ERROR);
  if (*cc == CC_OK && !zaiIsWildcard(Selector))
    zaiCheckSelectorUnder(&call.frame, bag, Selector, ITEM_TYPE_BAG, cc, rc);
  if (*cc == CC_OK) {
    VXHBAG nested;
    zaiInquireBag(bag, Selector, ItemIndex, &nested, cc, rc);
    if (*cc == CC_OK) *pItemValue = nested;
  }
  return zaiApiEnd(&call, parms);
}

uint32_t zaiVXInquireItemInfo(VXHBAG Bag, int32_t Selector, int32_t ItemIndex,
                              int32_t *pOutSelector, int32_t *pItemType, int32_t *pCompCode,
                              int32_t *pReason) {
  const auto parms = [&] {
    return std::to_array<zaiAPIPARM>({zaiParmIn("Bag", &Bag), zaiParmIn("Selector", &Selector),
                                      zaiParmIn("ItemIndex", &ItemIndex),
                                      zaiParmOut("OutSelector", pOutSelector),
                                      zaiParmOut("ItemType", pItemType)});
  };
  zaiAPICALL call;
  zaiApiBegin(&call, ZAIFN_zaiVXInquireItemInfo, "vxInquireItemInfo", pCompCode, pReason);
  zaiApiTraceEntry(&call, parms);
  int32_t *cc = call.pCompCode, *rc = call.pReason;
  zaiBAG *bag = zaiCallerBag(Bag, cc, rc);
  if (*cc == CC_OK) checkAnySelector(bag, Selector, cc, rc);
  if (*cc == CC_OK && svcCheckPointer(pOutSelector, sizeof *pOutSelector, SVC_CHECK_WRITE) != 0)
    zaiFail(cc, rc, RC_OUT_SELECTOR_ERROR);
  if (*cc == CC_OK && svcCheckPointer(pItemType, sizeof *pItemType, SVC_CHECK_WRITE) != 0)
    zaiFail(cc, rc, RC_ITEM_TYPE_ERROR);
  if (*cc == CC_OK) {
    int32_t outSelector, itemType;
    zaiInquireItemInfo(bag, Selector, ItemIndex, &outSelector, &itemType, cc, rc);
    if (*cc == CC_OK) {
      *pOutSelector = outSelector;
      *pItemType = itemType;
    }
  }
  return zaiApiEnd(&call, parms);
}

uint32_t zaiVXCountItems(VXHBAG Bag, int32_t Selector, int32_t *pItemCount, int32_t *pCompCode,
                         int32_t *pReason) {
  const auto parms = [&] {
    return std::to_array<zaiAPIPARM>({zaiParmIn("Bag", &Bag), zaiParmIn("Selector", &Selector),
                                      zaiParmOut("ItemCount", pItemCount)});
  };
  zaiAPICALL call;
  zaiApiBegin(&call, ZAIFN_zaiVXCountItems, "vxCountItems", pCompCode, pReason);
  zaiApiTraceEntry(&call, parms);
  int32_t *cc = call.pCompCode, *rc = call.pReason;
  zaiBAG *bag = zaiCallerBag(Bag, cc, rc);
  if (*cc == CC_OK && svcCheckPointer(pItemCount, sizeof *pItemCount, SVC_CHECK_WRITE) != 0)
    zaiFail(cc, rc, RC_ITEM_COUNT_ERROR);
  if (*cc == CC_OK) checkAnySelector(bag, Selector, cc, rc);
  if (*cc == CC_OK) *pItemCount = zaiCountItemsUnder(&call.frame, bag, 0, Selector);
  return zaiApiEnd(&call, parms);
}

void zaiAddBag(zaiBAG *bag, int32_t selector, VXHBAG nestedBag, int32_t *pCompCode,
               int32_t *pReason) {
  zaiFRAME frame = zaiFramePush(ZAI_COMPONENT, ZAIFN_zaiAddBag);
  zaiTraceParms(&frame, "pBag:%p, selector:%d", static_cast<void *>(bag), selector);
  checkTypeForAdd(bag, selector, ITEM_TYPE_BAG, ZAI_FIRST_UNKNOWN, pCompCode, pReason);
  if (*pCompCode == CC_OK) {
    zaiPROPERTY item = {};
    memcpy(item.eyeCatcher, kItemEyeCatcher, 4);
    item.selector = selector;
    item.type = ITEM_TYPE_BAG;
    item.value.bag = nestedBag;
    appendItem(bag, &item, pCompCode, pReason);
  }
  zaiFramePop(&frame, *pReason);
}

void zaiInquireBag(zaiBAG *bag, int32_t selector, int32_t itemIndex, VXHBAG *nestedBag,
                   int32_t *pCompCode, int32_t *pReason) {
  zaiFRAME frame = zaiFramePush(ZAI_COMPONENT, ZAIFN_zaiInquireBag);
  zaiTraceParms(&frame, "pBag:%p, selector:%d, itemIndex:%d", static_cast<void *>(bag), selector,
                itemIndex);
  if (const zaiPROPERTY *item =
          findTyped(bag, selector, itemIndex, ITEM_TYPE_BAG, pCompCode, pReason))
    *nestedBag = item->value.bag;
  zaiFramePop(&frame, *pReason);
}

void zaiInquireItemInfo(zaiBAG *bag, int32_t selector, int32_t itemIndex, int32_t *outSelector,
                        int32_t *itemType, int32_t *pCompCode, int32_t *pReason) {
  zaiFRAME frame = zaiFramePush(ZAI_COMPONENT, ZAIFN_zaiInquireItemInfo);
  zaiTraceParms(&frame, "pBag:%p, selector:%d, itemIndex:%d", static_cast<void *>(bag), selector,
                itemIndex);
  int32_t found;
  if (const zaiPROPERTY *item =
          zaiFindSelector(bag, 0, selector, itemIndex, &found, pCompCode, pReason);
      *pCompCode == CC_OK) {
    *outSelector = item->selector;
    *itemType = item->type;
  }
  zaiFramePop(&frame, *pReason);
}

// ----- Removing items ------------------------------------------------------------------

uint32_t zaiVXDeleteItem(VXHBAG Bag, int32_t Selector, int32_t ItemIndex, int32_t *pCompCode,
                         int32_t *pReason) {
  const auto parms = [&] {
    return std::to_array<zaiAPIPARM>({zaiParmIn("Bag", &Bag), zaiParmIn("Selector", &Selector),
                                      zaiParmIn("ItemIndex", &ItemIndex)});
  };
  zaiAPICALL call;
  zaiApiBegin(&call, ZAIFN_zaiVXDeleteItem, "vxDeleteItem", pCompCode, pReason);
  zaiApiTraceEntry(&call, parms);
  int32_t *cc = call.pCompCode, *rc = call.pReason;
  // The system bag is kept at hand: a selector check may still overwrite.
  zaiBAG *bag = zaiCallerBag(Bag, cc, rc);
  if (*cc == CC_OK && bag->systemBag) zaiFail(cc, rc, RC_SYSTEM_BAG_NOT_ALTERABLE);
  // The selector is judged even after a bad handle, and its verdict wins.
  // Without a bag there are no flags, so the range is not checked then.
  if ((Selector == SEL_ANY_SELECTOR || Selector == SEL_ANY_USER_SELECTOR) &&
      (ItemIndex == ITEM_INDEX_NONE || ItemIndex == ITEM_INDEX_ALL))
    zaiFail(cc, rc, RC_INDEX_ERROR);
  else if (Selector < 0 && Selector != SEL_ANY_SELECTOR && Selector != SEL_ANY_USER_SELECTOR)
    zaiFail(cc, rc, RC_SELECTOR_OUT_OF_RANGE);
  else if (Selector >= 0 && bag && bag->checkSelectors &&
           (Selector < 1 || Selector > kLastUserSelector))
    zaiFail(cc, rc, RC_SELECTOR_OUT_OF_RANGE);
  if (*cc == CC_OK) zaiDeleteItem(bag, Selector, ItemIndex, 0, cc, rc);
  return zaiApiEnd(&call, parms);
}

uint32_t zaiVXClearBag(VXHBAG Bag, int32_t *pCompCode, int32_t *pReason) {
  const auto parms = [&] { return std::to_array<zaiAPIPARM>({zaiParmIn("Bag", &Bag)}); };
  zaiAPICALL call;
  zaiApiBegin(&call, ZAIFN_zaiVXClearBag, "vxClearBag", pCompCode, pReason);
  zaiApiTraceEntry(&call, parms);
  int32_t *cc = call.pCompCode, *rc = call.pReason;
  zaiBAG *bag = zaiAlterableBag(Bag, cc, rc);
  if (*cc == CC_OK) zaiClearBag(bag, cc, rc);
  return zaiApiEnd(&call, parms);
}

uint32_t zaiVXTruncateBag(VXHBAG Bag, int32_t ItemCount, int32_t *pCompCode, int32_t *pReason) {
  const auto parms = [&] {
    return std::to_array<zaiAPIPARM>({zaiParmIn("Bag", &Bag), zaiParmIn("ItemCount", &ItemCount)});
  };
  zaiAPICALL call;
  zaiApiBegin(&call, ZAIFN_zaiVXTruncateBag, "vxTruncateBag", pCompCode, pReason);
  zaiApiTraceEntry(&call, parms);
  int32_t *cc = call.pCompCode, *rc = call.pReason;
  zaiBAG *bag = zaiAlterableBag(Bag, cc, rc);
  if (*cc == CC_OK && ItemCount < 0) zaiFail(cc, rc, RC_ITEM_COUNT_ERROR);
  if (*cc == CC_OK) zaiTruncateBag(bag, ItemCount, cc, rc);
  return zaiApiEnd(&call, parms);
}

void zaiDeleteItem(zaiBAG *bag, int32_t selector, int32_t itemIndex, int32_t unprotected,
                   int32_t *pCompCode, int32_t *pReason) {
  zaiFRAME frame = zaiFramePush(ZAI_COMPONENT, ZAIFN_zaiDeleteItem);
  zaiTraceParms(&frame, "pBag:%p, selector:%d, itemIndex:%d", static_cast<void *>(bag), selector,
                itemIndex);
  // ITEM_INDEX_ALL takes the first remaining occurrence until none is left.
  const int32_t lookupIndex = itemIndex == ITEM_INDEX_ALL ? 0 : itemIndex;
  do {
    int32_t found;
    const zaiPROPERTY *item =
        zaiFindSelector(bag, 0, selector, lookupIndex, &found, pCompCode, pReason);
    if (*pCompCode != CC_OK) break;
    // A system item, or a bag the caller could not have made, stays.
    if (!unprotected && (item->selector < 0 || holdsSystemBag(item))) {
      zaiFail(pCompCode, pReason, RC_SYSTEM_ITEM_NOT_DELETABLE);
      break;
    }
    zaiFreeItem(bag, found, pCompCode, pReason);
  } while (itemIndex == ITEM_INDEX_ALL && *pCompCode == CC_OK);
  if (itemIndex == ITEM_INDEX_ALL && *pReason == RC_SELECTOR_NOT_PRESENT) {
    *pCompCode = CC_OK;
    *pReason = RC_NONE;
  }
  zaiFramePop(&frame, *pReason);
}

void zaiClearBag(zaiBAG *bag, int32_t *pCompCode, int32_t *pReason) {
  zaiFRAME frame = zaiFramePush(ZAI_COMPONENT, ZAIFN_zaiClearBag);
  zaiTraceParms(&frame, "pBag:%p", static_cast<void *>(bag));
  *pCompCode = CC_OK;
  *pReason = RC_NONE;
  for (int32_t index = bag->items->count - 1; index >= 0 && *pCompCode == CC_OK; --index)
    zaiFreeItem(bag, index, pCompCode, pReason);
  // Fresh system items: whatever the caller had set in them is gone.
  if (*pCompCode == CC_OK) zaiAddDefaultSystemItems(bag, pCompCode, pReason);
  zaiFramePop(&frame, *pReason);
}

void zaiTruncateBag(zaiBAG *bag, int32_t itemCount, int32_t *pCompCode, int32_t *pReason) {
  zaiFRAME frame = zaiFramePush(ZAI_COMPONENT, ZAIFN_zaiTruncateBag);
  zaiTraceParms(&frame, "pBag:%p, ItemCount:%d", static_cast<void *>(bag), itemCount);
  *pCompCode = CC_OK;
  *pReason = RC_NONE;
  const int32_t userItems = zaiCountItems(bag, 0, SEL_ANY_USER_SELECTOR);
  if (itemCount > userItems) {
    zaiFail(pCompCode, pReason, RC_ITEM_COUNT_ERROR);
  } else {
    // From the end backwards, user items only: system items stay in place.
    int32_t toFree = userItems - itemCount;
    for (int32_t index = bag->items->count - 1; index >= 0 && toFree > 0; --index) {
      if (zaiItemAt(bag, index)->selector < 0) continue;
      zaiFreeItem(bag, index, pCompCode, pReason);
      if (*pCompCode != CC_OK) break;
      --toFree;
    }
  }
  zaiFramePop(&frame, *pReason);
}

}  // extern "C"
