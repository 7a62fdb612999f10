// Records, function numbers and internal functions of the bag library.
//
// Three levels meet here: the exported entries (tbxzaii0) forward to the API
// layer (zaiVX...), which checks the caller's parameters once and calls the
// internal functions (zai...).  Internal functions trust what the API layer
// checked; they call one another directly and report through the same
// completion/reason pair.
#ifndef VXAI_INTERNAL_H
#define VXAI_INTERNAL_H

#include <stddef.h>
#include <stdint.h>
#include <string.h>

#include <array>

#include "svc.h"
#include "vxai.h"
#include "vxqi.h"

// ---------------------------------------------------------------------------
// Records
// ---------------------------------------------------------------------------

// The library is built for 32-bit Linux, where every record has its 32-bit
// layout, and for x86-64, where the same records carry 8-byte addresses.
// Address-bearing fields are plain pointers, so they take the width of the
// build; every other field is 32 bits in both.  The layouts of each build
// are asserted below each record.
constexpr bool ZAI_WIDE_ADDRESSES = sizeof(void *) == 8;
static_assert(sizeof(void *) == 4 || ZAI_WIDE_ADDRESSES, "addresses are 4 or 8 bytes");

// A record's layout in the 32-bit build, or in the 64-bit build.
constexpr size_t zaiLayout(size_t narrow, size_t wide) {
  return ZAI_WIDE_ADDRESSES ? wide : narrow;
}

// Growable array of fixed-size elements kept contiguous in insertion order.
// slots[i] always holds the address of place i, in use or not; elements
// 0 .. count-1 are in use.  The vector owns its one block of slot table and
// places.
struct zaiVECTOR {
  char eyeCatcher[4];    // "ZVEC"
  int32_t recordLength;  // the size of this record
  int32_t capacity;
  int32_t count;
  int32_t elementSize;
  int32_t slotSize;  // element size rounded up to a multiple of 4
  void **slots;
};
static_assert(offsetof(zaiVECTOR, capacity) == 8 && offsetof(zaiVECTOR, count) == 12 &&
              offsetof(zaiVECTOR, elementSize) == 16 && offsetof(zaiVECTOR, slotSize) == 20 &&
              offsetof(zaiVECTOR, slots) == 24);
static_assert(sizeof(zaiVECTOR) == zaiLayout(28, 32), "zaiVECTOR: seven 32-bit words");

// One item, stored by value in its bag's vector.  A string item owns its heap
// copy; a bag item owns its nested bag.
struct zaiPROPERTY {
  char eyeCatcher[4];  // "ZAPR"
  int32_t selector;
  int32_t type;  // ITEM_TYPE_INTEGER, ITEM_TYPE_STRING or ITEM_TYPE_BAG
  union {
    int32_t integer;
    char *string;  // null for a string of length 0
    VXHBAG bag;
  } value;
  int32_t stringLength;    // string items only; 0 otherwise
  int32_t codedCharSetId;  // string items only; 0 otherwise
};
static_assert(offsetof(zaiPROPERTY, selector) == 4 && offsetof(zaiPROPERTY, type) == 8 &&
              offsetof(zaiPROPERTY, value) == zaiLayout(12, 16) &&
              offsetof(zaiPROPERTY, stringLength) == zaiLayout(16, 24) &&
              offsetof(zaiPROPERTY, codedCharSetId) == zaiLayout(20, 28));
static_assert(sizeof(zaiPROPERTY) == zaiLayout(24, 32), "zaiPROPERTY: six 32-bit words");

// A bag.  The caller owns it from creation to deletion; it owns its vector,
// every item and, through them, its nested bags.
struct zaiBAG {
  char eyeCatcher[4];  // "ZABG"; "?ABG" once deleted
  int32_t systemBag;
  int32_t adminBag;
  int32_t commandBag;
  int32_t requiredParmsFirst;
  int32_t listForm;
  int32_t checkSelectors;
  zaiVECTOR *items;
};
static_assert(offsetof(zaiBAG, systemBag) == 4 && offsetof(zaiBAG, checkSelectors) == 24 &&
              offsetof(zaiBAG, items) == zaiLayout(28, 32));
static_assert(sizeof(zaiBAG) == zaiLayout(32, 40), "zaiBAG: eight 32-bit words");
static_assert(sizeof(zaiBAG) <= SVC_HANDLE_SLOT_BYTES, "a bag record fits a handle slot");

inline VXHBAG zaiHandleOf(const zaiBAG *bag) {
  return static_cast<VXHBAG>(reinterpret_cast<uintptr_t>(bag));
}

inline zaiPROPERTY *zaiItemAt(const zaiBAG *bag, int32_t index) {
  return static_cast<zaiPROPERTY *>(bag->items->slots[index]);
}

// Items are created with room for 40 and grow by doubling.
constexpr int32_t ZAI_INITIAL_ITEMS = 40;

// ---------------------------------------------------------------------------
// Function numbers: rows of the trace function-name table
// ---------------------------------------------------------------------------

constexpr int32_t ZAI_COMPONENT = 25;
constexpr int32_t ZSI_COMPONENT = 32;  // the queue-interface wrappers
constexpr int32_t ZAI_FUNCTION_NAME_ROWS = 196;
constexpr int32_t ZAI_FUNCTION_NAME_LENGTH = 40;

enum zaiFUNCTIONNUMBER : int32_t {
  // API layer (the exported entries are the same rows less 22)
  ZAIFN_zaiVXCreateBag = 93,
  ZAIFN_zaiVXDeleteBag = 94,
  ZAIFN_zaiVXAddString = 95,
  ZAIFN_zaiVXSetString = 96,
  ZAIFN_zaiVXInquireString = 97,
  ZAIFN_zaiVXAddInteger = 98,
  ZAIFN_zaiVXSetInteger = 99,
  ZAIFN_zaiVXInquireInteger = 100,
  ZAIFN_zaiVXInquireBag = 101,
  ZAIFN_zaiVXInquireItemInfo = 102,
  ZAIFN_zaiVXAddInquiry = 103,
  ZAIFN_zaiVXDeleteItem = 104,
  ZAIFN_zaiVXClearBag = 105,
  ZAIFN_zaiVXTruncateBag = 106,
  ZAIFN_zaiVXCountItems = 107,
  ZAIFN_zaiVXExecute = 108,
  ZAIFN_zaiVXPutBag = 109,
  ZAIFN_zaiVXGetBag = 110,
  ZAIFN_zaiVXBufferToBag = 111,
  ZAIFN_zaiVXBagToBuffer = 112,
  ZAIFN_zaiVXPad = 113,
  ZAIFN_zaiVXTrim = 114,
  // Internal functions
  ZAIFN_zaiPadString = 115,
  ZAIFN_zaiTrimBuffer = 116,
  ZAIFN_zaiVectorCreate = 117,
  ZAIFN_zaiVectorDestroy = 118,
  ZAIFN_zaiVectorAdd = 119,
  ZAIFN_zaiVectorRemoveAt = 120,
  ZAIFN_zaiVectorSetAt = 121,
  ZAIFN_zaiOpenSysAdminCmdQueue = 122,
  ZAIFN_zaiOpenTempReplyQueue = 123,
  ZAIFN_zaiCloseSysAdminCmdQueue = 124,
  ZAIFN_zaiCloseTempReplyQueue = 125,
  ZAIFN_zaiProcessExecuteOptionsBag = 126,
  ZAIFN_zaiInquireReplyQueueName = 127,
  ZAIFN_zaiSendPCFMsg = 128,
  ZAIFN_zaiBagToPCFMsg = 129,
  ZAIFN_zaiBagToPCFMsgInVXAIBuffer = 130,
  ZAIFN_zaiFreeVXAIBuffer = 131,
  ZAIFN_zaiSendReceivePCFMsg = 132,
  ZAIFN_zaiWritePCFHeader = 133,
  ZAIFN_zaiWriteSinglePCFParm = 134,
  ZAIFN_zaiWriteSingleOrListPCFParm = 135,
  ZAIFN_zaiMapInquiryFromCommand = 136,
  ZAIFN_zaiWritePCFListHeader = 137,
  ZAIFN_zaiWritePCFListValue = 138,
  ZAIFN_zaiWriteRequiredParmsForCmd = 139,
  ZAIFN_zaiWriteMandatoryParm = 140,
  ZAIFN_zaiWriteOptionalParm = 141,
  ZAIFN_zaiFindLargestString = 142,
  ZAIFN_zaiReceivePCFMsg = 143,
  ZAIFN_zaiPCFMsgToBag = 144,
  ZAIFN_zaiReadPCFHeader = 145,
  ZAIFN_zaiReadPCFIntListParm = 146,
  ZAIFN_zaiReadPCFIntParm = 147,
  ZAIFN_zaiReadPCFStringParm = 148,
  ZAIFN_zaiReadPCFStringListParm = 149,
  ZAIFN_zaiFreeItem = 150,
  ZAIFN_zaiProcessPCFReplyMsg = 151,
  ZAIFN_zaiCreateBag = 152,
  ZAIFN_zaiDeleteBag = 153,
  ZAIFN_zaiAddString = 154,
  ZAIFN_zaiSetString = 155,
  ZAIFN_zaiInquireString = 156,
  ZAIFN_zaiAddInteger = 157,
  ZAIFN_zaiSetInteger = 158,
  ZAIFN_zaiInquireInteger = 159,
  ZAIFN_zaiInquireBag = 160,
  ZAIFN_zaiInquireItemInfo = 161,
  ZAIFN_zaiDeleteItem = 162,
  ZAIFN_zaiClearBag = 163,
  ZAIFN_zaiTruncateBag = 164,
  ZAIFN_zaiCountItems = 165,
  ZAIFN_zaiAddBag = 166,
  ZAIFN_zaiFindSelector = 167,
  ZAIFN_zaiCheckSelector = 169,
  ZAIFN_zaiCheckUniqueSelector = 170,
  ZAIFN_zaiAddDefaultSystemItems = 171,
};

extern "C" VXAI_EXPORT const char zaiFunctionNames[ZAI_FUNCTION_NAME_ROWS]
                                                  [ZAI_FUNCTION_NAME_LENGTH];

// ---------------------------------------------------------------------------
// Call frame
// ---------------------------------------------------------------------------

// The frame of one function: its thread's anchor (null when the thread has
// none) and its identifier, component << 10 | function number.
struct zaiFRAME {
  svcTHREADANCHOR *anchor;
  uint32_t identifier;
};

constexpr uint32_t ZAI_ENTRY_MARKER = 0xF0000000u;

inline void zaiRecordInHistory(svcTHREADANCHOR *anchor, uint32_t marker) {
  anchor->history[anchor->historyIndex] = marker;
  if (++anchor->historyIndex >= anchor->historySize) anchor->historyIndex = 0;
}

// Records the entry marker in the trace history and call stack of the
// thread whose anchor is given (none: nothing is recorded).  Every function
// pushes a frame on entry and pops it on exit, so both are inline: a frame
// costs a few stores when trace is off.
inline zaiFRAME zaiFramePush(svcTHREADANCHOR *anchor, int32_t component, int32_t function) {
  zaiFRAME frame = {anchor, static_cast<uint32_t>(component << 10 | function)};
  if (anchor) {
    const uint32_t marker = ZAI_ENTRY_MARKER | frame.identifier;
    zaiRecordInHistory(anchor, marker);
    if (anchor->callDepth >= 0 && anchor->callDepth < SVC_CALL_STACK_SLOTS)
      anchor->callStack[anchor->callDepth] = marker;
    ++anchor->callDepth;
    if (anchor->traceActive) trcFunctionEntry(anchor);
  }
  return frame;
}

// The same for the calling thread, whose anchor is looked up.
inline zaiFRAME zaiFramePush(int32_t component, int32_t function) {
  return zaiFramePush(static_cast<svcTHREADANCHOR *>(pthread_getspecific(threadAnchorKey)),
                      component, function);
}

// Records the exit marker (reason << 16 | identifier) and returns it.
inline uint32_t zaiFramePop(const zaiFRAME *frame, int32_t reason) {
  const uint32_t marker = static_cast<uint32_t>(reason) << 16 | frame->identifier;
  if (svcTHREADANCHOR *anchor = frame->anchor) {
    --anchor->callDepth;
    zaiRecordInHistory(anchor, marker);
    if (anchor->traceActive) trcFunctionExit(anchor, reason);
  }
  return marker;
}

// Writes an internal function's parameter line when parameter trace is on.
// Parameter lines need the thread's trace to be active: without it the
// arguments are not even formatted.
void zaiTraceParmLine(const zaiFRAME *frame, const char *format, ...)
    __attribute__((format(printf, 2, 3)));
#define zaiTraceParms(frame, ...)                                      \
  do {                                                                 \
    const zaiFRAME *zaiTracedFrame = (frame);                          \
    if (zaiTracedFrame->anchor && zaiTracedFrame->anchor->traceActive) \
      zaiTraceParmLine(zaiTracedFrame, __VA_ARGS__);                   \
  } while (0)
// A labelled record at detail level, when parameter trace is on.
void zaiTraceRecord(const zaiFRAME *frame, const char *label, const void *record, int32_t length);
// Whether the process has trace switched on at all: the gate of the trace
// text that the queue-interface wrappers write.
bool zaiTraceOn();
// Bag dumps: whether the process asks for them, and the tag their lines are
// written under (a frame that was not pushed).
bool zaiBagDumpsOn();
zaiFRAME zaiTraceTag(int32_t component, int32_t function);

// How a parameter of an exported call appears in the API trace.
enum zaiPARMKIND {
  ZAI_PARM_IN,          // 4-byte value shown at entry
  ZAI_PARM_OUT,         // caller's 4-byte variable shown at exit
  ZAI_PARM_INOUT,       // caller's 4-byte variable shown at entry and exit
  ZAI_PARM_IN_BUFFER,   // bytes over a length shown at entry
  ZAI_PARM_OUT_BUFFER,  // bytes over a length shown at exit
  ZAI_PARM_IN_STRING,   // null-terminated string shown at entry
  ZAI_PARM_OUT_STRING,  // null-terminated string shown at exit, when CC_OK
  // A record the call hands on to a queue-interface call: its bytes over a
  // length shown at entry, and at exit the line "name: caption", where the
  // caption says which call to look at ("Refer to VXPUT").
  ZAI_PARM_IN_RECORD_REFER,
  // A record shown only as "name: caption" at entry and at exit.
  ZAI_PARM_REFER,
  // A line "name: Input  Parm" at exit only.
  ZAI_PARM_EXIT_INPUT,
};

struct zaiAPIPARM {
  const char *caption;  // "Bufferlength" in the line "Bufferlength:"
  const char *name;     // "BufferLength" in "BufferLength  : Input  Parm"
  zaiPARMKIND kind;
  const void *value;      // the argument's address (IN), or the caller's pointer
  const int32_t *length;  // buffers: the length to show them over
};

// Parameter descriptions for the common cases, where the caption and the
// name are spelled alike.
constexpr zaiAPIPARM zaiParmIn(const char *name, const int32_t *value) {
  return {name, name, ZAI_PARM_IN, value, nullptr};
}
constexpr zaiAPIPARM zaiParmOut(const char *name, const int32_t *variable) {
  return {name, name, ZAI_PARM_OUT, variable, nullptr};
}
// The buffer length is captioned "Bufferlength:" but named "BufferLength".
constexpr zaiAPIPARM zaiParmBufferLength(const int32_t *length) {
  return {"Bufferlength", "BufferLength", ZAI_PARM_IN, length, nullptr};
}

// One API call in progress: frame, signal actions and what its trace shows.
// The completion and reason pointers are the caller's, or the call's own
// pair when the caller passed null.
struct zaiAPICALL {
  zaiFRAME frame;
  int32_t actionsSaved;
  const char *exportedName;
  const zaiAPIPARM *parms;
  int32_t parmCount;
  int32_t *pCompCode;
  int32_t *pReason;
  int32_t ownCompCode;
  int32_t ownReason;
};

// Steps shared by every API function, in the order they run: begin (thread
// set-up, signal actions, entry marker, codes cleared), entry trace, the
// call's own checks and internal call, end (exit trace, signal actions, exit
// marker, which it returns).
// They run in every call, so the steps are inline and only the trace lines
// are not.
void zaiApiSetUpThread();
void zaiApiTraceEntryLines(const zaiAPICALL *call);
void zaiApiTraceExitLines(const zaiAPICALL *call);

// Decided afresh at entry and at exit of every API call.
inline bool zaiApiTraceOn() {
  return (processAnchor.traceLevel != 0xFFFFFFFFu && (processAnchor.traceOptions & 0x1) != 0) ||
         processAnchor.earlyTrace != 0;
}

// The parameters are described only when the trace shows them: `parms`
// returns the array of their descriptions.
inline void zaiApiBegin(zaiAPICALL *call, int32_t function, const char *exportedName,
                        int32_t *pCompCode, int32_t *pReason) {
  // One look-up of the thread's anchor serves the whole call, unless the
  // thread is set up only now.
  auto *anchor = static_cast<svcTHREADANCHOR *>(pthread_getspecific(threadAnchorKey));
  if (!anchor || !anchor->initialised) {
    zaiApiSetUpThread();
    anchor = static_cast<svcTHREADANCHOR *>(pthread_getspecific(threadAnchorKey));
  }
  call->actionsSaved = 0;
  sigSaveActions(&call->actionsSaved);
  call->frame = zaiFramePush(anchor, ZAI_COMPONENT, function);
  call->exportedName = exportedName;
  call->parms = nullptr;
  call->parmCount = 0;
  // A caller without a completion or reason variable still gets a call
  // that runs to its end; it just cannot learn the outcome.
  call->pCompCode = pCompCode ? pCompCode : &call->ownCompCode;
  call->pReason = pReason ? pReason : &call->ownReason;
  *call->pCompCode = CC_OK;
  *call->pReason = RC_NONE;
}

template <typename Parms>
inline void zaiApiTraceEntry(zaiAPICALL *call, const Parms &parms) {
  if (!zaiApiTraceOn()) return;
  const auto described = parms();
  call->parms = described.data();
  call->parmCount = static_cast<int32_t>(described.size());
  zaiApiTraceEntryLines(call);
  call->parms = nullptr;
}

template <typename Parms>
inline uint32_t zaiApiEnd(zaiAPICALL *call, const Parms &parms) {
  if (zaiApiTraceOn()) {
    const auto described = parms();
    call->parms = described.data();
    call->parmCount = static_cast<int32_t>(described.size());
    zaiApiTraceExitLines(call);
    call->parms = nullptr;
  }
  if (call->actionsSaved) sigRestoreActions(&call->actionsSaved);
  return zaiFramePop(&call->frame, *call->pReason);
}

// Selector classes.
constexpr int32_t ZAI_FIRST_SYSTEM_SELECTOR = SEL_BAG_OPTIONS;  // -8 .. -1
inline bool zaiIsWildcard(int32_t selector) {
  return selector == SEL_ANY_SELECTOR || selector == SEL_ANY_USER_SELECTOR ||
         selector == SEL_ANY_SYSTEM_SELECTOR;
}
inline bool zaiIsSystemSelector(int32_t selector) {
  return selector >= ZAI_FIRST_SYSTEM_SELECTOR && selector < 0;
}

// Records a failure in the caller's pair.
inline void zaiFail(int32_t *pCompCode, int32_t *pReason, int32_t reason) {
  *pCompCode = CC_FAILED;
  *pReason = reason;
}

// The record a handle names, unchecked: BAG_NONE and odd handles give null.
inline zaiBAG *zaiDecodeHandle(VXHBAG handle) {
  if (handle == BAG_NONE || (handle & 1) != 0) return nullptr;
  return reinterpret_cast<zaiBAG *>(static_cast<uintptr_t>(static_cast<uint32_t>(handle)));
}

// Decodes a handle and checks the record it names: 0 with the record, or
// RC_BAG_HANDLE_ERROR.  BAG_NONE and odd handles decode to no bag.
int32_t zaiCheckBagHandle(VXHBAG handle, zaiBAG **bag);

// The bag a caller names, or null with RC_BAG_HANDLE_ERROR in the pair; the
// alterable form also refuses a system bag (RC_SYSTEM_BAG_NOT_ALTERABLE).
zaiBAG *zaiCallerBag(VXHBAG handle, int32_t *pCompCode, int32_t *pReason);
zaiBAG *zaiAlterableBag(VXHBAG handle, int32_t *pCompCode, int32_t *pReason);

// Length of a caller's null-terminated string, read page by page so that a
// string running into unmapped memory is refused rather than faulted on.
// Returns -1 when the string cannot be read.
int32_t zaiSafeStringLength(const char *string);

// Writes a failure report for a damaged record.
void zaiReportDamage(int32_t function, uint32_t resultCode, int32_t insert, const char *label,
                     const void *record, int32_t length);

// ---------------------------------------------------------------------------
// Element vector
// ---------------------------------------------------------------------------

constexpr int32_t VEC_NO_STORAGE = 0x20805451;
constexpr int32_t VEC_INVALID_VECTOR = 0x20805452;
constexpr int32_t VEC_INVALID_INDEX = 0x20805453;

extern "C" {
VXAI_EXPORT int32_t zaiVectorCreate(int32_t initialSpace, int32_t elementSize, zaiVECTOR **vector);
VXAI_EXPORT int32_t zaiVectorDestroy(zaiVECTOR *vector);
VXAI_EXPORT int32_t zaiVectorAdd(zaiVECTOR *vector, const void *element);
VXAI_EXPORT int32_t zaiVectorRemoveAt(zaiVECTOR *vector, int32_t index);
VXAI_EXPORT int32_t zaiVectorSetAt(zaiVECTOR *vector, const void *element, int32_t index);

// ---------------------------------------------------------------------------
// Bags
// ---------------------------------------------------------------------------

VXAI_EXPORT uint32_t zaiVXCreateBag(int32_t Options, VXHBAG *pBag, int32_t *pCompCode,
                                    int32_t *pReason);
VXAI_EXPORT uint32_t zaiVXDeleteBag(VXHBAG *pBag, int32_t *pCompCode, int32_t *pReason);

VXAI_EXPORT void zaiCreateBag(int32_t options, zaiBAG **ppBag, int32_t *pCompCode,
                              int32_t *pReason);
VXAI_EXPORT void zaiDeleteBag(zaiBAG **ppBag, int32_t *pCompCode, int32_t *pReason);
VXAI_EXPORT void zaiAddDefaultSystemItems(zaiBAG *bag, int32_t *pCompCode, int32_t *pReason);
VXAI_EXPORT void zaiFreeItem(zaiBAG *bag, int32_t vectorIndex, int32_t *pCompCode,
                             int32_t *pReason);

// ---------------------------------------------------------------------------
// Selectors, lookup and counting
// ---------------------------------------------------------------------------

VXAI_EXPORT void zaiCheckSelector(zaiBAG *bag, int32_t selector, int32_t type, int32_t *pCompCode,
                                  int32_t *pReason);
}  // extern "C"
// zaiCheckSelector called by a function that has its frame at hand: the
// check's own frame goes on the same thread anchor without looking it up.
void zaiCheckSelectorUnder(const zaiFRAME *caller, zaiBAG *bag, int32_t selector, int32_t type,
                           int32_t *pCompCode, int32_t *pReason);
extern "C" {
VXAI_EXPORT void zaiCheckUniqueSelector(zaiBAG *bag, int32_t selector, int32_t *pCompCode,
                                        int32_t *pReason);
// The item found, or null; its vector index in *foundIndex.
VXAI_EXPORT zaiPROPERTY *zaiFindSelector(zaiBAG *bag, int32_t startIndex, int32_t selector,
                                         int32_t itemIndex, int32_t *foundIndex, int32_t *pCompCode,
                                         int32_t *pReason);
VXAI_EXPORT int32_t zaiCountItems(zaiBAG *bag, int32_t startIndex, int32_t selector);
}  // extern "C"
// zaiCountItems called by a function that has its frame at hand, as
// vxCountItems does: one look-up of the thread's anchor serves the call.
int32_t zaiCountItemsUnder(const zaiFRAME *caller, zaiBAG *bag, int32_t startIndex,
                           int32_t selector);
extern "C" {

// ---------------------------------------------------------------------------
// Items
// ---------------------------------------------------------------------------

VXAI_EXPORT uint32_t zaiVXAddInteger(VXHBAG Bag, int32_t Selector, int32_t ItemValue,
                                     int32_t *pCompCode, int32_t *pReason);
VXAI_EXPORT uint32_t zaiVXSetInteger(VXHBAG Bag, int32_t Selector, int32_t ItemIndex,
                                     int32_t ItemValue, int32_t *pCompCode, int32_t *pReason);
VXAI_EXPORT uint32_t zaiVXInquireInteger(VXHBAG Bag, int32_t Selector, int32_t ItemIndex,
                                         int32_t *pItemValue, int32_t *pCompCode, int32_t *pReason);
VXAI_EXPORT uint32_t zaiVXAddInquiry(VXHBAG Bag, int32_t Selector, int32_t *pCompCode,
                                     int32_t *pReason);
VXAI_EXPORT uint32_t zaiVXAddString(VXHBAG Bag, int32_t Selector, int32_t BufferLength,
                                    const char *pBuffer, int32_t *pCompCode, int32_t *pReason);
VXAI_EXPORT uint32_t zaiVXSetString(VXHBAG Bag, int32_t Selector, int32_t ItemIndex,
                                    int32_t BufferLength, const char *pBuffer, int32_t *pCompCode,
                                    int32_t *pReason);
VXAI_EXPORT uint32_t zaiVXInquireString(VXHBAG Bag, int32_t Selector, int32_t ItemIndex,
                                        int32_t BufferLength, char *pBuffer, int32_t *pStringLength,
                                        int32_t *pCodedCharSetId, int32_t *pCompCode,
                                        int32_t *pReason);
VXAI_EXPORT uint32_t zaiVXInquireBag(VXHBAG Bag, int32_t Selector, int32_t ItemIndex,
                                     VXHBAG *pItemValue, int32_t *pCompCode, int32_t *pReason);
VXAI_EXPORT uint32_t zaiVXInquireItemInfo(VXHBAG Bag, int32_t Selector, int32_t ItemIndex,
                                          int32_t *pOutSelector, int32_t *pItemType,
                                          int32_t *pCompCode, int32_t *pReason);
VXAI_EXPORT uint32_t zaiVXCountItems(VXHBAG Bag, int32_t Selector, int32_t *pItemCount,
                                     int32_t *pCompCode, int32_t *pReason);
VXAI_EXPORT uint32_t zaiVXDeleteItem(VXHBAG Bag, int32_t Selector, int32_t ItemIndex,
                                     int32_t *pCompCode, int32_t *pReason);
VXAI_EXPORT uint32_t zaiVXClearBag(VXHBAG Bag, int32_t *pCompCode, int32_t *pReason);
VXAI_EXPORT uint32_t zaiVXTruncateBag(VXHBAG Bag, int32_t ItemCount, int32_t *pCompCode,
                                      int32_t *pReason);

VXAI_EXPORT void zaiAddInteger(zaiBAG *bag, int32_t selector, int32_t value, int32_t *pCompCode,
                               int32_t *pReason);
VXAI_EXPORT void zaiSetInteger(zaiBAG *bag, int32_t selector, int32_t itemIndex, int32_t value,
                               int32_t *pCompCode, int32_t *pReason);
VXAI_EXPORT void zaiInquireInteger(zaiBAG *bag, int32_t selector, int32_t itemIndex, int32_t *value,
                                   int32_t *pCompCode, int32_t *pReason);
// length is already resolved (never -1); the item takes its own copy.
VXAI_EXPORT void zaiAddString(zaiBAG *bag, int32_t selector, int32_t length, const char *bytes,
                              int32_t codedCharSetId, int32_t *pCompCode, int32_t *pReason);
VXAI_EXPORT void zaiSetString(zaiBAG *bag, int32_t selector, int32_t itemIndex, int32_t length,
                              const char *bytes, int32_t *pCompCode, int32_t *pReason);
// codedCharSetId may be null.
VXAI_EXPORT void zaiInquireString(zaiBAG *bag, int32_t selector, int32_t itemIndex,
                                  int32_t bufferLength, char *buffer, int32_t *stringLength,
                                  int32_t *codedCharSetId, int32_t *pCompCode, int32_t *pReason);
}  // extern "C"

// The adds of the message reader, which keeps track of the selectors it has
// added under: firstType is the type of the selector's first occurrence in
// the bag as the caller knows it, ZAI_FIRST_NONE when the selector does not
// occur, or ZAI_FIRST_UNKNOWN to have the add look it up as zaiAddInteger and
// zaiAddString do.  Frames, checks and outcomes are those of those two.
constexpr int32_t ZAI_FIRST_UNKNOWN = -1;
constexpr int32_t ZAI_FIRST_NONE = 0;
void zaiAddIntegerKnown(zaiBAG *bag, int32_t selector, int32_t value, int32_t firstType,
                        int32_t *pCompCode, int32_t *pReason);
void zaiAddStringKnown(zaiBAG *bag, int32_t selector, int32_t length, const char *bytes,
                       int32_t codedCharSetId, int32_t firstType, int32_t *pCompCode,
                       int32_t *pReason);

extern "C" {

// Nests a bag under a selector; from then on the holder owns it.  Only the
// library nests bags, so this one is not exported.
void zaiAddBag(zaiBAG *bag, int32_t selector, VXHBAG nestedBag, int32_t *pCompCode,
               int32_t *pReason);
// The nested handle stays owned by the holder.
VXAI_EXPORT void zaiInquireBag(zaiBAG *bag, int32_t selector, int32_t itemIndex, VXHBAG *nestedBag,
                               int32_t *pCompCode, int32_t *pReason);
VXAI_EXPORT void zaiInquireItemInfo(zaiBAG *bag, int32_t selector, int32_t itemIndex,
                                    int32_t *outSelector, int32_t *itemType, int32_t *pCompCode,
                                    int32_t *pReason);
// unprotected != 0 lifts the protection of system items and system bags.
VXAI_EXPORT void zaiDeleteItem(zaiBAG *bag, int32_t selector, int32_t itemIndex,
                               int32_t unprotected, int32_t *pCompCode, int32_t *pReason);
VXAI_EXPORT void zaiClearBag(zaiBAG *bag, int32_t *pCompCode, int32_t *pReason);
VXAI_EXPORT void zaiTruncateBag(zaiBAG *bag, int32_t itemCount, int32_t *pCompCode,
                                int32_t *pReason);

// ---------------------------------------------------------------------------
// PCF messages
// ---------------------------------------------------------------------------

// A message is a header followed by parameter structures, every field a
// 32-bit integer in the machine's own byte order.  The records below are the
// fixed parts; string bytes and list values follow them.  Messages sit in
// buffers of any alignment, so fields are read and written with memcpy only.

constexpr int32_t PCF_TYPE_COMMAND = 1;
constexpr int32_t PCF_TYPE_RESPONSE = 2;
constexpr int32_t PCF_TYPE_EVENT = 7;
constexpr int32_t PCF_TYPE_USER = 8;

constexpr int32_t PCF_TYPE_INTEGER = 3;
constexpr int32_t PCF_TYPE_STRING = 4;
constexpr int32_t PCF_TYPE_INTEGER_LIST = 5;
constexpr int32_t PCF_TYPE_STRING_LIST = 6;

constexpr int32_t PCF_HEADER_VERSION = 1;

struct PCFHeader {
  int32_t type;  // PCF_TYPE_COMMAND ...
  int32_t structLength;
  int32_t version;
  int32_t command;
  int32_t msgSeqNumber;
  int32_t control;
  int32_t compCode;
  int32_t reason;
  int32_t parameterCount;
};
static_assert(sizeof(PCFHeader) == 36, "PCFHeader is nine 32-bit words");

struct PCFIntParm {
  int32_t type;  // PCF_TYPE_INTEGER
  int32_t structLength;
  int32_t parameter;
  int32_t value;
};
static_assert(sizeof(PCFIntParm) == 16, "PCFIntParm is four 32-bit words");

// Followed by the string bytes and 0 to 3 bytes of padding.
struct PCFStringParm {
  int32_t type;  // PCF_TYPE_STRING
  int32_t structLength;
  int32_t parameter;
  int32_t codedCharSetId;
  int32_t stringLength;
};
static_assert(sizeof(PCFStringParm) == 20, "PCFStringParm has a 20-byte fixed part");

// Followed by count values.
struct PCFIntListParm {
  int32_t type;  // PCF_TYPE_INTEGER_LIST
  int32_t structLength;
  int32_t parameter;
  int32_t count;
};
static_assert(sizeof(PCFIntListParm) == 16, "PCFIntListParm has a 16-byte fixed part");

// Followed by count strings of stringLength bytes each, zero padded.
struct PCFStringListParm {
  int32_t type;  // PCF_TYPE_STRING_LIST
  int32_t structLength;
  int32_t parameter;
  int32_t codedCharSetId;
  int32_t count;
  int32_t stringLength;
};
static_assert(sizeof(PCFStringListParm) == 24, "PCFStringListParm has a 24-byte fixed part");

// A field of a record inside a message: read, written or raised by an amount.
inline int32_t zaiGetField(const void *record, size_t offset) {
  int32_t value;
  memcpy(&value, static_cast<const char *>(record) + offset, sizeof value);
  return value;
}
inline void zaiPutField(void *record, size_t offset, int32_t value) {
  memcpy(static_cast<char *>(record) + offset, &value, sizeof value);
}
inline void zaiRaiseField(void *record, size_t offset, int32_t by) {
  zaiPutField(record, offset, zaiGetField(record, offset) + by);
}

// Rounds a structure length up to the next multiple of 4.
constexpr int32_t zaiRoundUp4(int32_t length) { return (length + 3) & ~3; }

// The control area of one bag-to-message conversion.  The writers store a
// structure only when it fits in the buffer, but always count its length, so
// that a conversion into a buffer that is too short still measures the whole
// message.  The written flags, one per bag item, make sure every item goes
// out once although leading parameters and list members are written ahead of
// their turn.  The area in a call's frame has room for ZAI_FRAME_FLAGS items;
// a bigger bag gets an allocated area with a flag for each of its items.
constexpr int32_t ZAI_FRAME_FLAGS = 40;

struct zaiPCFBUFFER {
  char eyeCatcher[4];  // "ZPBC"
  int32_t areaLength;  // the whole area, flags included
  int32_t command;
  int32_t pcfType;
  char *buffer;
  int32_t bufferLength;
  int32_t usedLength;  // offset of the next structure; in the end, the length needed
  PCFHeader *header;   // in the buffer; null until written
  PCFIntListParm *integerList;
  PCFStringListParm *stringList;
  int32_t listStringLength;   // what each string of the current list occupies
  int32_t currentListLength;  // the current list structure so far
  uint8_t written[ZAI_FRAME_FLAGS];
};
static_assert(offsetof(zaiPCFBUFFER, buffer) == 16 &&
              offsetof(zaiPCFBUFFER, bufferLength) == zaiLayout(20, 24) &&
              offsetof(zaiPCFBUFFER, usedLength) == zaiLayout(24, 28) &&
              offsetof(zaiPCFBUFFER, header) == zaiLayout(28, 32) &&
              offsetof(zaiPCFBUFFER, integerList) == zaiLayout(32, 40) &&
              offsetof(zaiPCFBUFFER, stringList) == zaiLayout(36, 48) &&
              offsetof(zaiPCFBUFFER, listStringLength) == zaiLayout(40, 56) &&
              offsetof(zaiPCFBUFFER, currentListLength) == zaiLayout(44, 60) &&
              offsetof(zaiPCFBUFFER, written) == zaiLayout(48, 64));
static_assert(sizeof(zaiPCFBUFFER) == zaiLayout(48, 64) + ZAI_FRAME_FLAGS,
              "zaiPCFBUFFER: 12 words and the written flags");

// The written flag of a bag item; an allocated area's flags run past the
// declared array, so they are reached from the area's address.
inline uint8_t *zaiWrittenFlag(zaiPCFBUFFER *area, int32_t itemIndex) {
  return reinterpret_cast<uint8_t *>(area) + offsetof(zaiPCFBUFFER, written) + itemIndex;
}

// The eight characters of a message format, blank padded, not terminated.
constexpr int32_t ZAI_FORMAT_LENGTH = 8;

// ----- Bag to message ----------------------------------------------------------------

VXAI_EXPORT uint32_t zaiVXBagToBuffer(VXHBAG OptionsBag, VXHBAG DataBag, int32_t BufferLength,
                                      void *pBuffer, int32_t *pDataLength, int32_t *pCompCode,
                                      int32_t *pReason);

// Writes the bag as a message for a command into the buffer.  The data length
// is the length the whole message needs, also when the buffer is too short
// (RC_BUFFER_LENGTH_ERROR) or the conversion failed part way; message type and
// format are set only on success.
VXAI_EXPORT void zaiBagToPCFMsg(zaiBAG *bag, int32_t command, int32_t bufferLength, char *buffer,
                                int32_t *dataLength, int32_t *msgType, char *format,
                                int32_t *pCompCode, int32_t *pReason);
// The same into a buffer of the library's, released with zaiFreeVXAIBuffer.
VXAI_EXPORT void zaiBagToPCFMsgInVXAIBuffer(zaiBAG *bag, int32_t command, char **ppBuffer,
                                            int32_t *dataLength, int32_t *msgType, char *format,
                                            int32_t *pCompCode, int32_t *pReason);
VXAI_EXPORT void zaiFreeVXAIBuffer(char **ppBuffer);

VXAI_EXPORT void zaiWritePCFHeader(zaiBAG *bag, zaiPCFBUFFER *area, int32_t *pCompCode,
                                   int32_t *pReason);
VXAI_EXPORT void zaiWriteSinglePCFParm(const zaiPROPERTY *item, zaiPCFBUFFER *area,
                                       int32_t *pCompCode, int32_t *pReason);
VXAI_EXPORT void zaiWriteSingleOrListPCFParm(const zaiPROPERTY *item, zaiPCFBUFFER *area,
                                             zaiBAG *bag, int32_t itemIndex, int32_t *pCompCode,
                                             int32_t *pReason);
VXAI_EXPORT void zaiWritePCFListHeader(const zaiPROPERTY *item, zaiPCFBUFFER *area, zaiBAG *bag,
                                       int32_t itemIndex, int32_t listSelector, int32_t *pCompCode,
                                       int32_t *pReason);
VXAI_EXPORT void zaiWritePCFListValue(const zaiPROPERTY *item, zaiPCFBUFFER *area,
                                      int32_t *pCompCode, int32_t *pReason);
}  // extern "C"

// What one conversion knows of its bag: how often each selector occurs, and
// which items could join a list.  It answers the questions of the rules
// without a scan of the bag per item.  Built from the process heap for one
// conversion; null without memory, and the conversion then scans.
struct zaiBAGINDEX;
zaiBAGINDEX *zaiIndexBag(const zaiBAG *bag, int32_t command);
void zaiFreeBagIndex(zaiBAGINDEX *index);

// zaiWriteSingleOrListPCFParm answered from the index (or, with none, by
// scanning the bag as the rules are written).  The conversion that owns the
// index calls it for its items in bag order.
void zaiWriteSingleOrListPCFParmIndexed(const zaiPROPERTY *item, zaiPCFBUFFER *area, zaiBAG *bag,
                                        int32_t itemIndex, zaiBAGINDEX *index, int32_t *pCompCode,
                                        int32_t *pReason);

// zaiBagToPCFMsg with the bag indexed or not as the caller chooses.
// zaiBagToPCFMsg indexes a bag with list form and more items than the control
// area in its frame has flags for; tests compare both ways on any bag.
void zaiBagToPCFMsgIndexed(bool indexed, zaiBAG *bag, int32_t command, int32_t bufferLength,
                           char *buffer, int32_t *dataLength, int32_t *msgType, char *format,
                           int32_t *pCompCode, int32_t *pReason);

extern "C" {

// The largest length of the unwritten strings that can join the item's list,
// from startIndex on; -1 when there is none.
VXAI_EXPORT int32_t zaiFindLargestString(zaiBAG *bag, zaiPCFBUFFER *area, const zaiPROPERTY *item,
                                         int32_t startIndex);

// Command parameter rules.
VXAI_EXPORT void zaiWriteRequiredParmsForCmd(zaiBAG *bag, zaiPCFBUFFER *area, int32_t *pCompCode,
                                             int32_t *pReason);
VXAI_EXPORT void zaiWriteMandatoryParm(zaiBAG *bag, zaiPCFBUFFER *area, int32_t selector,
                                       int32_t type, int32_t *pCompCode, int32_t *pReason);
VXAI_EXPORT void zaiWriteOptionalParm(zaiBAG *bag, zaiPCFBUFFER *area, int32_t selector,
                                      int32_t type, int32_t *pCompCode, int32_t *pReason);
VXAI_EXPORT void zaiMapInquiryFromCommand(int32_t command, int32_t *listSelector,
                                          int32_t *pCompCode, int32_t *pReason);

// ----- Message to bag ----------------------------------------------------------------

VXAI_EXPORT uint32_t zaiVXBufferToBag(VXHBAG OptionsBag, int32_t BufferLength, const void *pBuffer,
                                      VXHBAG DataBag, int32_t *pCompCode, int32_t *pReason);

// Clears the bag (keeping its character set) and fills it from the message.
VXAI_EXPORT void zaiPCFMsgToBag(int32_t messageLength, const char *message, zaiBAG *bag,
                                int32_t *pCompCode, int32_t *pReason);
VXAI_EXPORT void zaiReadPCFHeader(const char *header, zaiBAG *bag, int32_t *pCompCode,
                                  int32_t *pReason);
VXAI_EXPORT void zaiReadPCFIntParm(const char *structure, zaiBAG *bag, int32_t *pCompCode,
                                   int32_t *pReason);
VXAI_EXPORT void zaiReadPCFStringParm(const char *structure, zaiBAG *bag, int32_t *pCompCode,
                                      int32_t *pReason);
VXAI_EXPORT void zaiReadPCFIntListParm(const char *structure, zaiBAG *bag, int32_t *pCompCode,
                                       int32_t *pReason);
VXAI_EXPORT void zaiReadPCFStringListParm(const char *structure, zaiBAG *bag, int32_t *pCompCode,
                                          int32_t *pReason);

}  // extern "C"

// What the message reader knows of the bag it fills: the type of the first
// occurrence of each user selector it has added under.  The bag holds no
// user item when the read starts, so the reader's own adds are all there is
// to know, and an add need not look through the bag.  The table lives in the
// process heap for one read and doubles as it fills; without memory for it,
// it is given up and the adds look through the bag again: slower, with the
// same outcome.
struct zaiSELECTORTYPES {
  struct Entry {
    int32_t selector;
    int32_t type;  // 0: a free entry
  };
  Entry *entries;
  int32_t capacity;  // a power of two, or 0 before the first entry
  int32_t used;
  bool lost;  // given up, or the bag held user items: nothing is known
};
// ZAI_FIRST_NONE for a selector not added under, ZAI_FIRST_UNKNOWN once lost.
int32_t zaiKnownType(const zaiSELECTORTYPES *known, int32_t selector);
void zaiLearnType(zaiSELECTORTYPES *known, int32_t selector, int32_t type);
void zaiForgetTypes(zaiSELECTORTYPES *known);

// The structure readers as the message reader calls them, with what it
// knows of the bag (null: nothing, as the exported readers).
void zaiReadPCFIntParmKnown(const char *structure, zaiBAG *bag, zaiSELECTORTYPES *known,
                            int32_t *pCompCode, int32_t *pReason);
void zaiReadPCFStringParmKnown(const char *structure, zaiBAG *bag, zaiSELECTORTYPES *known,
                               int32_t *pCompCode, int32_t *pReason);
void zaiReadPCFIntListParmKnown(const char *structure, zaiBAG *bag, zaiSELECTORTYPES *known,
                                int32_t *pCompCode, int32_t *pReason);
void zaiReadPCFStringListParmKnown(const char *structure, zaiBAG *bag, zaiSELECTORTYPES *known,
                                   int32_t *pCompCode, int32_t *pReason);

extern "C" {

// Writes one line per item of the bag to the trace when bag dumps are on.
VXAI_EXPORT void zaiTraceBagContents(int32_t component, int32_t function, const zaiBAG *bag);

// ---------------------------------------------------------------------------
// Commands and bag messages on queues
// ---------------------------------------------------------------------------

// The records every descriptor and options record of the library starts
// from: a function copies one whole and sets the fields it needs.  The
// request descriptor is a version-1 descriptor (its 324 bytes are what the
// queue manager reads); the reply descriptor carries the extension.
extern const vxMSGDESC zaiRequestMsgDescTemplate;
extern const vxMSGDESC zaiReplyMsgDescTemplate;
extern const vxPUTOPTS zaiPutMsgOptsTemplate;
extern const vxGETOPTS zaiGetMsgOptsTemplate;
extern const vxOBJDESC zaiObjDescTemplate;

// The wait for each reply of vxExecute when the options bag names none.
constexpr int32_t ZAI_DEFAULT_WAIT_INTERVAL = 30000;

VXAI_EXPORT uint32_t zaiVXExecute(VXHCONN Hconn, int32_t Command, VXHBAG OptionsBag,
                                  VXHBAG RequestBag, VXHBAG ReplyBag, VXHOBJ Requestq,
                                  VXHOBJ Replyq, int32_t *pCompCode, int32_t *pReason);
VXAI_EXPORT uint32_t zaiVXPutBag(VXHCONN Hconn, VXHOBJ Hobj, void *pMsgDesc, void *pPutMsgOpts,
                                 VXHBAG Bag, int32_t *pCompCode, int32_t *pReason);
VXAI_EXPORT uint32_t zaiVXGetBag(VXHCONN Hconn, VXHOBJ Hobj, void *pMsgDesc, void *pGetMsgOpts,
                                 VXHBAG Bag, int32_t *pCompCode, int32_t *pReason);

// The wait interval an options bag asks for (null: none), by default
// ZAI_DEFAULT_WAIT_INTERVAL.
VXAI_EXPORT void zaiProcessExecuteOptionsBag(zaiBAG *optionsBag, int32_t *waitInterval,
                                             int32_t *pCompCode, int32_t *pReason);

// Opens the command server's queue and proves that a command server reads
// it; the handle is stored only on success, and on failure nothing stays
// open.
VXAI_EXPORT void zaiOpenSysAdminCmdQueue(VXHCONN Hconn, VXHOBJ *pHobj, int32_t *pCompCode,
                                         int32_t *pReason);
// Opens a temporary dynamic reply queue and copies its 48-character name;
// neither output is written on failure.
VXAI_EXPORT void zaiOpenTempReplyQueue(VXHCONN Hconn, VXHOBJ *pHobj, char *queueName,
                                       int32_t *pCompCode, int32_t *pReason);
VXAI_EXPORT void zaiCloseSysAdminCmdQueue(VXHCONN Hconn, VXHOBJ *pHobj, int32_t *pCompCode,
                                          int32_t *pReason);
// Closes and deletes the temporary queue with whatever is left on it.
VXAI_EXPORT void zaiCloseTempReplyQueue(VXHCONN Hconn, VXHOBJ *pHobj, int32_t *pCompCode,
                                        int32_t *pReason);
VXAI_EXPORT void zaiInquireReplyQueueName(VXHCONN Hconn, VXHOBJ Hobj, char *queueName,
                                          int32_t *pCompCode, int32_t *pReason);
VXAI_EXPORT void zaiSendPCFMsg(VXHCONN Hconn, VXHOBJ Hobj, void *pMsgDesc, void *pPutMsgOpts,
                               int32_t dataLength, char *buffer, int32_t *pCompCode,
                               int32_t *pReason);
VXAI_EXPORT void zaiReceivePCFMsg(VXHCONN Hconn, VXHOBJ Hobj, void *pMsgDesc, void *pGetMsgOpts,
                                  int32_t bufferLength, char *buffer, int32_t *dataLength,
                                  int32_t *pCompCode, int32_t *pReason);

// Puts the request and collects every reply to it into the reply bag, each
// as a system bag nested under SEL_NESTED_REPLY_BAG; the reply bag owns
// them.
VXAI_EXPORT void zaiSendReceivePCFMsg(VXHCONN Hconn, VXHOBJ commandQueue, vxMSGDESC *requestDesc,
                                      vxPUTOPTS *putOptions, int32_t dataLength, char *buffer,
                                      VXHOBJ replyQueue, int32_t waitInterval, zaiBAG *replyBag,
                                      int32_t *pCompCode, int32_t *pReason);
// Reads one reply message into a new system bag.  The bag is created first
// and stays allocated whatever happens after that: the caller owns it.
VXAI_EXPORT void zaiProcessPCFReplyMsg(int32_t dataLength, const char *buffer,
                                       int32_t codedCharSetId, zaiBAG **newBag, int32_t *control,
                                       int32_t *compCode, int32_t *reason, int32_t *pCompCode,
                                       int32_t *pReason);

// ---------------------------------------------------------------------------
// Pad and trim
// ---------------------------------------------------------------------------

VXAI_EXPORT uint32_t zaiVXPad(const char *pString, int32_t BufferLength, char *pBuffer,
                              int32_t *pCompCode, int32_t *pReason);
VXAI_EXPORT uint32_t zaiVXTrim(int32_t BufferLength, const char *pBuffer, char *pString,
                               int32_t *pCompCode, int32_t *pReason);
VXAI_EXPORT char *zaiPadString(const char *string, char *buffer, int32_t bufferLength);
VXAI_EXPORT char *zaiTrimBuffer(const char *buffer, int32_t bufferLength, char *string);
}

#endif
