// Messages in the library's own buffers, the driver that reads a PCF message
// into a bag, and the dump of a bag's items to the trace.
#include <stdint.h>
#include <stdio.h>

#include "vxai_internal.h"

namespace {

// A conversion into a buffer of the library's starts with this size and,
// when the message needs more, tries once more with exactly what it needs.
constexpr int32_t kFirstBufferSize = 4096;

// How a parameter structure of each type is handed on: the reader and the
// part of the structure that must lie inside the message before any of its
// fields is read.
struct StructureKind {
  int32_t type;
  int32_t fixedLength;
  void (*read)(const char *, zaiBAG *, zaiSELECTORTYPES *, int32_t *, int32_t *);
};
constexpr StructureKind kStructureKinds[] = {
    {PCF_TYPE_INTEGER, sizeof(PCFIntParm), zaiReadPCFIntParmKnown},
    {PCF_TYPE_STRING, sizeof(PCFStringParm), zaiReadPCFStringParmKnown},
    {PCF_TYPE_INTEGER_LIST, sizeof(PCFIntListParm), zaiReadPCFIntListParmKnown},
    {PCF_TYPE_STRING_LIST, sizeof(PCFStringListParm), zaiReadPCFStringListParmKnown},
};

// True when the bag holds nothing but system items.
bool holdsNoUserItem(const zaiBAG *bag) {
  for (int32_t index = 0; index < bag->items->count; ++index) {
    const zaiPROPERTY *item = zaiItemAt(bag, index);
    if (item && item->selector >= 0) return false;
  }
  return true;
}

const StructureKind *kindOf(int32_t type) {
  for (const StructureKind &kind : kStructureKinds)
    if (kind.type == type) return &kind;
  return nullptr;
}

void *addressOfHandle(VXHBAG handle) {
  return reinterpret_cast<void *>(static_cast<uintptr_t>(static_cast<uint32_t>(handle)));
}

}  // namespace

extern "C" {

void zaiBagToPCFMsgInVXAIBuffer(zaiBAG *bag, int32_t command, char **ppBuffer, int32_t *dataLength,
                                int32_t *msgType, char *format, int32_t *pCompCode,
                                int32_t *pReason) {
  zaiFRAME frame = zaiFramePush(ZAI_COMPONENT, ZAIFN_zaiBagToPCFMsgInVXAIBuffer);
  zaiTraceParms(&frame, "pBag:%p, command:%d", static_cast<void *>(bag), command);
  *pCompCode = CC_OK;
  *pReason = RC_NONE;
  int32_t size = kFirstBufferSize;
  char *buffer = nullptr;
  int32_t length = 0;
  for (bool firstTry = true;; firstTry = false) {
    void *block = nullptr;
    if (svcGetMem(ZAI_COMPONENT, ZAIFN_zaiBagToPCFMsgInVXAIBuffer, size, 0, &block) != 0) {
      zaiFail(pCompCode, pReason, RC_STORAGE_NOT_AVAILABLE);
      break;
    }
    buffer = static_cast<char *>(block);
    zaiBagToPCFMsg(bag, command, size, buffer, &length, msgType, format, pCompCode, pReason);
    if (!firstTry || *pReason != RC_BUFFER_LENGTH_ERROR) break;
    // The first try measured the message: the second gets exactly that.
    svcFreeMem(ZAI_COMPONENT, buffer);
    buffer = nullptr;
    size = length;
  }
  // After a failed conversion the last buffer is not handed back, and it is
  // not released either.
  if (*pCompCode == CC_OK) {
    *ppBuffer = buffer;
    *dataLength = length;
  }
  zaiFramePop(&frame, *pReason);
}

void zaiFreeVXAIBuffer(char **ppBuffer) {
  zaiFRAME frame = zaiFramePush(ZAI_COMPONENT, ZAIFN_zaiFreeVXAIBuffer);
  svcFreeMem(ZAI_COMPONENT, *ppBuffer);
  *ppBuffer = nullptr;
  zaiFramePop(&frame, RC_NONE);
}

void zaiPCFMsgToBag(int32_t messageLength, const char *message, zaiBAG *bag, int32_t *pCompCode,
                    int32_t *pReason) {
  zaiFRAME frame = zaiFramePush(ZAI_COMPONENT, ZAIFN_zaiPCFMsgToBag);
  zaiTraceParms(&frame, "msgLength:%d, pBag:%p", messageLength, static_cast<void *>(bag));
  *pCompCode = CC_OK;
  *pReason = RC_NONE;

  // The bag keeps its character set and loses everything else, whether or
  // not the message turns out to be valid.
  int32_t codedCharSetId = 0, compCode, reason;
  zaiInquireInteger(bag, SEL_CODED_CHAR_SET_ID, 0, &codedCharSetId, &compCode, &reason);
  if (compCode == CC_OK) {
    zaiClearBag(bag, pCompCode, pReason);
    if (*pCompCode == CC_OK && codedCharSetId != 0)
      zaiSetInteger(bag, SEL_CODED_CHAR_SET_ID, 0, codedCharSetId, pCompCode, pReason);
  }

  if (*pCompCode == CC_OK && messageLength < static_cast<int32_t>(sizeof(PCFHeader)))
    zaiFail(pCompCode, pReason, RC_PCF_FORMAT_ERROR);
  if (*pCompCode == CC_OK) zaiReadPCFHeader(message, bag, pCompCode, pReason);

  if (*pCompCode == CC_OK) {
    // What the adds of this read make of the bag's selectors is kept across
    // them; a bag that could not be cleared holds items that it does not know.
    zaiSELECTORTYPES known = {};
    known.lost = !holdsNoUserItem(bag);
    const int32_t parameters = zaiGetField(message, offsetof(PCFHeader, parameterCount));
    int64_t offset = zaiGetField(message, offsetof(PCFHeader, structLength));
    for (int32_t i = 0; i < parameters && *pCompCode == CC_OK; ++i) {
      // No field is read beyond the message: a structure whose type, length
      // or fixed part would lie past its end is refused like one whose
      // length reaches past it.
      if (offset + 2 * int64_t{sizeof(int32_t)} > messageLength) {
        zaiFail(pCompCode, pReason, RC_PCF_FORMAT_ERROR);
        break;
      }
      const char *structure = message + offset;
      const int32_t type = zaiGetField(structure, 0);
      const int32_t structLength = zaiGetField(structure, sizeof(int32_t));
      zaiTraceParms(&frame, "msgOffset:%d, *pParmType:%d", static_cast<int32_t>(offset), type);
      const StructureKind *kind = kindOf(type);
      if (!kind || offset + structLength > messageLength ||
          offset + kind->fixedLength > messageLength) {
        zaiFail(pCompCode, pReason, RC_PCF_FORMAT_ERROR);
      } else {
        kind->read(structure, bag, &known, pCompCode, pReason);
        offset += structLength;
      }
    }
    zaiForgetTypes(&known);
  }

  if (*pCompCode == CC_OK) zaiTraceBagContents(ZAI_COMPONENT, ZAIFN_zaiPCFMsgToBag, bag);
  zaiFramePop(&frame, *pReason);
}

void zaiTraceBagContents(int32_t component, int32_t function, const zaiBAG *bag) {
  // Every line goes out under the caller's tag, as a parameter line would.
  if (!zaiBagDumpsOn()) return;
  const zaiFRAME tag = zaiTraceTag(component, function);
  const zaiVECTOR *items = bag->items;
  zaiTraceParms(&tag, "Bag Details %p", static_cast<const void *>(bag));
  zaiTraceParms(&tag, "Size:%d", items->count);
  zaiTraceParms(&tag, "Index: Selector: Value:");
  for (int32_t index = 0; index < items->count; ++index) {
    const zaiPROPERTY *item = zaiItemAt(bag, index);
    if (!item) continue;
    switch (item->type) {
      case ITEM_TYPE_INTEGER:
        zaiTraceParms(&tag, "  %-2d     %-4d     (%d)", index, item->selector, item->value.integer);
        break;
      case ITEM_TYPE_STRING: {
        char line[80];
        snprintf(line, sizeof line, "  %-2d     %-4d      ccsid: %d   String->", index,
                 item->selector, item->codedCharSetId);
        zaiTraceRecord(&tag, line, item->value.string, item->stringLength % 65536);
        break;
      }
      default:
        zaiTraceParms(&tag, "  %-2d     %-4d     (%p)", index, item->selector,
                      addressOfHandle(item->value.bag));
        break;
    }
  }
}

}  // extern "C"
