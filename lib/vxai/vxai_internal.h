// Records, function numbers and internal functions of the bag library.
//
// Three levels meet here: the exported entries (tbxzaii0) forward to the API
// layer (zaiVX...), which checks the caller's parameters once and calls the
// internal functions (zai...).  Internal functions trust what the API layer
// checked; they call one another directly and report through the same
// completion/reason pair.
#ifndef VXAI_INTERNAL_H
#define VXAI_INTERNAL_H

#include <stdint.h>

#include "svc.h"
#include "vxai.h"

static_assert(sizeof(void *) == 4, "the library is built for 32-bit Linux only");

// ---------------------------------------------------------------------------
// Records
// ---------------------------------------------------------------------------

// Growable array of fixed-size elements kept contiguous in insertion order.
// slots[i] always holds the address of place i, in use or not; elements
// 0 .. count-1 are in use.  The vector owns its one block of slot table and
// places.
struct zaiVECTOR {
  char eyeCatcher[4];    // "ZVEC"
  int32_t recordLength;  // 28
  int32_t capacity;
  int32_t count;
  int32_t elementSize;
  int32_t slotSize;  // element size rounded up to a multiple of 4
  void **slots;
};
static_assert(sizeof(zaiVECTOR) == 28, "zaiVECTOR is seven 32-bit words");

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
static_assert(sizeof(zaiPROPERTY) == 24, "zaiPROPERTY is six 32-bit words");

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
static_assert(sizeof(zaiBAG) == 32, "zaiBAG is eight 32-bit words");

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
  ZAIFN_zaiFreeItem = 150,
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

// Records the entry marker in the trace history and call stack.
zaiFRAME zaiFramePush(int32_t component, int32_t function);
// Records the exit marker (reason << 16 | identifier) and returns it.
uint32_t zaiFramePop(const zaiFRAME *frame, int32_t reason);
// Writes an internal function's parameter line when parameter trace is on.
void zaiTraceParms(const zaiFRAME *frame, const char *format, ...)
    __attribute__((format(printf, 2, 3)));

// How a parameter of an exported call appears in the API trace.
enum zaiPARMKIND {
  ZAI_PARM_IN,          // 4-byte value shown at entry
  ZAI_PARM_OUT,         // caller's 4-byte variable shown at exit
  ZAI_PARM_INOUT,       // caller's 4-byte variable shown at entry and exit
  ZAI_PARM_IN_BUFFER,   // bytes over a length shown at entry
  ZAI_PARM_OUT_BUFFER,  // bytes over a length shown at exit
  ZAI_PARM_IN_STRING,   // null-terminated string shown at entry
  ZAI_PARM_OUT_STRING,  // null-terminated string shown at exit, when CC_OK
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
void zaiApiBegin(zaiAPICALL *call, int32_t function, const char *exportedName,
                 const zaiAPIPARM *parms, int32_t parmCount, int32_t *pCompCode, int32_t *pReason);
void zaiApiTraceEntry(const zaiAPICALL *call);
uint32_t zaiApiEnd(zaiAPICALL *call);

template <int32_t N>
inline void zaiApiBegin(zaiAPICALL *call, int32_t function, const char *exportedName,
                        const zaiAPIPARM (&parms)[N], int32_t *pCompCode, int32_t *pReason) {
  zaiApiBegin(call, function, exportedName, parms, N, pCompCode, pReason);
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
VXAI_EXPORT void zaiCheckUniqueSelector(zaiBAG *bag, int32_t selector, int32_t *pCompCode,
                                        int32_t *pReason);
// The item found, or null; its vector index in *foundIndex.
VXAI_EXPORT zaiPROPERTY *zaiFindSelector(zaiBAG *bag, int32_t startIndex, int32_t selector,
                                         int32_t itemIndex, int32_t *foundIndex, int32_t *pCompCode,
                                         int32_t *pReason);
VXAI_EXPORT int32_t zaiCountItems(zaiBAG *bag, int32_t startIndex, int32_t selector);

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
