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

constexpr uint32_t kEntryMarker = 0xF0000000u;
constexpr uint32_t kTraceOff = 0xFFFFFFFFu;
constexpr uint32_t kApiTraceOption = 0x1;
constexpr uint32_t kParmTraceOptions = 0xC0000;
constexpr int32_t kParmTraceLevel = 2;

svcTHREADANCHOR *threadAnchor() {
  return static_cast<svcTHREADANCHOR *>(pthread_getspecific(threadAnchorKey));
}

void recordInHistory(svcTHREADANCHOR *anchor, uint32_t marker) {
  anchor->history[anchor->historyIndex] = marker;
  if (++anchor->historyIndex >= anchor->historySize) anchor->historyIndex = 0;
}

// Decided afresh at entry and at exit of every API call.
bool apiTraceOn() {
  return (processAnchor.traceLevel != kTraceOff &&
          (processAnchor.traceOptions & kApiTraceOption) != 0) ||
         processAnchor.earlyTrace != 0;
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

  // "Caption:" then the caller's 4 bytes, or "Caption: NULL" when there is
  // nothing that can be read.
  void variable(const char *caption, const void *address) const {
    char line[64];
    if (!address || svcCheckPointer(address, 4, SVC_CHECK_READ) != 0) {
      snprintf(line, sizeof line, "%s: NULL", caption);
      text(line);
      return;
    }
    snprintf(line, sizeof line, "%s:", caption);
    text(line);
    data(address, 4);
  }

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

zaiFRAME zaiFramePush(int32_t component, int32_t function) {
  zaiFRAME frame = {threadAnchor(), static_cast<uint32_t>(component << 10 | function)};
  if (svcTHREADANCHOR *anchor = frame.anchor) {
    uint32_t marker = kEntryMarker | frame.identifier;
    recordInHistory(anchor, marker);
    if (anchor->callDepth >= 0 && anchor->callDepth < SVC_CALL_STACK_SLOTS)
      anchor->callStack[anchor->callDepth] = marker;
    ++anchor->callDepth;
    if (anchor->traceActive) trcFunctionEntry(anchor);
  }
  return frame;
}

uint32_t zaiFramePop(const zaiFRAME *frame, int32_t reason) {
  uint32_t marker = static_cast<uint32_t>(reason) << 16 | frame->identifier;
  if (svcTHREADANCHOR *anchor = frame->anchor) {
    --anchor->callDepth;
    recordInHistory(anchor, marker);
    if (anchor->traceActive) trcFunctionExit(anchor, reason);
  }
  return marker;
}

void zaiTraceParms(const zaiFRAME *frame, const char *format, ...) {
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

void zaiApiBegin(zaiAPICALL *call, int32_t function, const char *exportedName,
                 const zaiAPIPARM *parms, int32_t parmCount, int32_t *pCompCode, int32_t *pReason) {
  svcTHREADANCHOR *anchor = threadAnchor();
  if (!anchor || !anchor->initialised) svcInitialize(kHistorySlots, kProductId, 0, 0, 0);
  call->actionsSaved = 0;
  sigSaveActions(&call->actionsSaved);
  call->frame = zaiFramePush(ZAI_COMPONENT, function);
  call->exportedName = exportedName;
  call->parms = parms;
  call->parmCount = parmCount;
  // A caller without a completion or reason variable still gets a call
  // that runs to its end; it just cannot learn the outcome.
  call->pCompCode = pCompCode ? pCompCode : &call->ownCompCode;
  call->pReason = pReason ? pReason : &call->ownReason;
  *call->pCompCode = CC_OK;
  *call->pReason = RC_NONE;
}

void zaiApiTraceEntry(const zaiAPICALL *call) {
  if (!apiTraceOn()) return;
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
    }
  }
  trace.fixed("Compcode", "Output Parm");
  trace.fixed("Reason", "Output Parm");
}

uint32_t zaiApiEnd(zaiAPICALL *call) {
  if (apiTraceOn()) {
    ApiTracer trace = tracerOf(call);
    trace.header(call->exportedName, "<<");
    for (int32_t i = 0; i < call->parmCount; ++i) {
      const zaiAPIPARM &parm = call->parms[i];
      switch (parm.kind) {
        case ZAI_PARM_IN:
        case ZAI_PARM_IN_BUFFER:
        case ZAI_PARM_IN_STRING:
          trace.fixed(parm.name, "Input  Parm");
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
  if (call->actionsSaved) sigRestoreActions(&call->actionsSaved);
  return zaiFramePop(&call->frame, *call->pReason);
}

// ----- Shared checks and reports --------------------------------------------------

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
  const zaiAPIPARM parms[] = {zaiParmIn("Options", &Options), zaiParmOut("Bag", pBag)};
  zaiAPICALL call;
  zaiApiBegin(&call, ZAIFN_zaiVXCreateBag, "vxCreateBag", parms, pCompCode, pReason);
  zaiApiTraceEntry(&call);
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
  return zaiApiEnd(&call);
}

uint32_t zaiVXDeleteBag(VXHBAG *pBag, int32_t *pCompCode, int32_t *pReason) {
  const zaiAPIPARM parms[] = {{"Bag", "Bag", ZAI_PARM_INOUT, pBag, nullptr}};
  zaiAPICALL call;
  zaiApiBegin(&call, ZAIFN_zaiVXDeleteBag, "vxDeleteBag", parms, pCompCode, pReason);
  zaiApiTraceEntry(&call);
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
  return zaiApiEnd(&call);
}

void zaiCreateBag(int32_t options, zaiBAG **ppBag, int32_t *pCompCode, int32_t *pReason) {
  zaiFRAME frame = zaiFramePush(ZAI_COMPONENT, ZAIFN_zaiCreateBag);
  *pCompCode = CC_OK;
  *pReason = RC_NONE;
  zaiTraceParms(&frame, "options:%d ", options);
  void *record = nullptr;
  if (svcGetMem(ZAI_COMPONENT, ZAIFN_zaiCreateBag, sizeof(zaiBAG), 0, &record) != 0) {
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
