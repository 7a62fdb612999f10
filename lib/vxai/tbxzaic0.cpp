// Bags as messages: the calls that write a bag into a caller's buffer and read
// one back, and the driver that writes a bag as a PCF message.
#include <string.h>

#include "vxai_internal.h"

namespace {

constexpr char kAreaEyeCatcher[4] = {'Z', 'P', 'B', 'C'};

// The queue message that carries a message of this PCF type.
struct Carrier {
  int32_t pcfType;
  int32_t msgType;
  const char *format;
};
constexpr Carrier kCarriers[] = {
    {PCF_TYPE_COMMAND, MSGTYPE_REQUEST, VX_FORMAT_ADMIN},
    {PCF_TYPE_RESPONSE, MSGTYPE_REPLY, VX_FORMAT_ADMIN},
    {PCF_TYPE_EVENT, MSGTYPE_DATAGRAM, VX_FORMAT_EVENT},
};
constexpr Carrier kOtherCarrier = {PCF_TYPE_USER, MSGTYPE_DATAGRAM, VX_FORMAT_PCF};

const Carrier &carrierOf(int32_t pcfType) {
  for (const Carrier &carrier : kCarriers)
    if (carrier.pcfType == pcfType) return carrier;
  return kOtherCarrier;
}

// The control area of a conversion: the one in the caller's frame, or, for a
// bag with more items than it has flags for (and only when flags are used),
// an allocated one.  Null without memory.
zaiPCFBUFFER *controlAreaFor(const zaiBAG *bag, zaiPCFBUFFER *inFrame) {
  const bool usesFlags = bag->listForm || bag->requiredParmsFirst;
  const int32_t items = bag->items->count;
  zaiPCFBUFFER *area = inFrame;
  int32_t length = sizeof *inFrame;
  if (usesFlags && items > ZAI_FRAME_FLAGS) {
    length = static_cast<int32_t>(offsetof(zaiPCFBUFFER, written)) + items;
    void *block = nullptr;
    if (svcGetMem(ZAI_COMPONENT, ZAIFN_zaiBagToPCFMsg, length, 0, &block) != 0) return nullptr;
    area = static_cast<zaiPCFBUFFER *>(block);
  }
  memset(area, 0, static_cast<size_t>(length));
  memcpy(area->eyeCatcher, kAreaEyeCatcher, 4);
  area->areaLength = length;
  return area;
}

}  // namespace

extern "C" {

uint32_t zaiVXBagToBuffer(VXHBAG OptionsBag, VXHBAG DataBag, int32_t BufferLength, void *pBuffer,
                          int32_t *pDataLength, int32_t *pCompCode, int32_t *pReason) {
  const auto parms = [&] {
    return std::to_array<zaiAPIPARM>({
        zaiParmIn("OptionsBag", &OptionsBag),
        zaiParmIn("DataBag", &DataBag),
        zaiParmBufferLength(&BufferLength),
        {"Buffer", "Buffer", ZAI_PARM_OUT_BUFFER, pBuffer, &BufferLength},
        {"Datalength", "DataLength", ZAI_PARM_OUT, pDataLength, nullptr},
    });
  };
  zaiAPICALL call;
  zaiApiBegin(&call, ZAIFN_zaiVXBagToBuffer, "vxBagToBuffer", pCompCode, pReason);
  zaiApiTraceEntry(&call, parms);
  int32_t *cc = call.pCompCode, *rc = call.pReason;
  // These calls have no options yet: only "no options bag" is accepted.
  if (OptionsBag != BAG_NONE) zaiFail(cc, rc, RC_OPTIONS_ERROR);
  // A buffer of length 0 or less is not checked: the writer only measures.
  if (*cc == CC_OK && BufferLength > 0 &&
      svcCheckPointer(pBuffer, BufferLength, SVC_CHECK_WRITE) != 0)
    zaiFail(cc, rc, RC_BUFFER_ERROR);
  if (*cc == CC_OK && svcCheckPointer(pDataLength, sizeof *pDataLength, SVC_CHECK_WRITE) != 0)
    zaiFail(cc, rc, RC_DATA_LENGTH_ERROR);
  zaiBAG *bag = *cc == CC_OK ? zaiCallerBag(DataBag, cc, rc) : nullptr;
  int32_t command = 0;
  if (*cc == CC_OK) zaiInquireInteger(bag, SEL_COMMAND, ITEM_INDEX_NONE, &command, cc, rc);
  if (*cc == CC_OK) {
    // The length the message needs is reported also when the buffer is too
    // short for it, so that the caller can try again with the right size.
    int32_t msgType;
    char format[ZAI_FORMAT_LENGTH];
    zaiBagToPCFMsg(bag, command, BufferLength, static_cast<char *>(pBuffer), pDataLength, &msgType,
                   format, cc, rc);
  }
  return zaiApiEnd(&call, parms);
}

uint32_t zaiVXBufferToBag(VXHBAG OptionsBag, int32_t BufferLength, const void *pBuffer,
                          VXHBAG DataBag, int32_t *pCompCode, int32_t *pReason) {
  const auto parms = [&] {
    return std::to_array<zaiAPIPARM>({
        zaiParmIn("OptionsBag", &OptionsBag),
        zaiParmBufferLength(&BufferLength),
        {"Buffer", "Buffer", ZAI_PARM_IN_BUFFER, pBuffer, &BufferLength},
        zaiParmIn("DataBag", &DataBag),
    });
  };
  zaiAPICALL call;
  zaiApiBegin(&call, ZAIFN_zaiVXBufferToBag, "vxBufferToBag", pCompCode, pReason);
  zaiApiTraceEntry(&call, parms);
  int32_t *cc = call.pCompCode, *rc = call.pReason;
  if (OptionsBag != BAG_NONE) zaiFail(cc, rc, RC_OPTIONS_ERROR);
  if (*cc == CC_OK && BufferLength < 0) zaiFail(cc, rc, RC_BUFFER_LENGTH_ERROR);
  if (*cc == CC_OK && BufferLength > 0 &&
      svcCheckPointer(pBuffer, BufferLength, SVC_CHECK_READ) != 0)
    zaiFail(cc, rc, RC_BUFFER_ERROR);
  zaiBAG *bag = *cc == CC_OK ? zaiAlterableBag(DataBag, cc, rc) : nullptr;
  if (*cc == CC_OK) zaiPCFMsgToBag(BufferLength, static_cast<const char *>(pBuffer), bag, cc, rc);
  return zaiApiEnd(&call, parms);
}

void zaiBagToPCFMsg(zaiBAG *bag, int32_t command, int32_t bufferLength, char *buffer,
                    int32_t *dataLength, int32_t *msgType, char *format, int32_t *pCompCode,
                    int32_t *pReason) {
  // A small bag is scanned faster than it is indexed.
  const bool indexed = bag->listForm && bag->items->count > ZAI_FRAME_FLAGS;
  zaiBagToPCFMsgIndexed(indexed, bag, command, bufferLength, buffer, dataLength, msgType, format,
                        pCompCode, pReason);
}

}  // extern "C"

void zaiBagToPCFMsgIndexed(bool indexed, zaiBAG *bag, int32_t command, int32_t bufferLength,
                           char *buffer, int32_t *dataLength, int32_t *msgType, char *format,
                           int32_t *pCompCode, int32_t *pReason) {
  zaiFRAME frame = zaiFramePush(ZAI_COMPONENT, ZAIFN_zaiBagToPCFMsg);
  zaiTraceParms(&frame, "pBag:%p, command:%d, bufferLength:%d", static_cast<void *>(bag), command,
                bufferLength);
  zaiTraceBagContents(ZAI_COMPONENT, ZAIFN_zaiBagToPCFMsg, bag);
  *pCompCode = CC_OK;
  *pReason = RC_NONE;
  zaiPCFBUFFER inFrame;
  zaiPCFBUFFER *area = controlAreaFor(bag, &inFrame);
  if (!area) {
    zaiFail(pCompCode, pReason, RC_STORAGE_NOT_AVAILABLE);
  } else {
    area->command = command;
    area->buffer = buffer;
    area->bufferLength = bufferLength;
    zaiWritePCFHeader(bag, area, pCompCode, pReason);

    int32_t pcfType = 0;
    if (*pCompCode == CC_OK) zaiInquireInteger(bag, SEL_PCF_TYPE, 0, &pcfType, pCompCode, pReason);
    if (*pCompCode == CC_OK && bag->requiredParmsFirst && pcfType == PCF_TYPE_COMMAND)
      zaiWriteRequiredParmsForCmd(bag, area, pCompCode, pReason);

    zaiBAGINDEX *index = indexed && *pCompCode == CC_OK ? zaiIndexBag(bag, command) : nullptr;
    const bool flagged = bag->listForm || bag->requiredParmsFirst;
    for (int32_t at = 0; at < bag->items->count && *pCompCode == CC_OK; ++at) {
      const zaiPROPERTY *item = zaiItemAt(bag, at);
      if (!item) continue;
      if (item->type == ITEM_TYPE_BAG) {
        zaiFail(pCompCode, pReason, RC_NESTED_BAG_NOT_SUPPORTED);
      } else if (item->selector < 0) {
        // System items travel in the header.
      } else if (flagged && *zaiWrittenFlag(area, at)) {
        // Already written as a leading parameter or as a list member.
      } else if (bag->listForm) {
        zaiWriteSingleOrListPCFParmIndexed(item, area, bag, at, index, pCompCode, pReason);
      } else {
        zaiWriteSinglePCFParm(item, area, pCompCode, pReason);
      }
    }

    zaiFreeBagIndex(index);

    *dataLength = area->usedLength;
    if (*pCompCode == CC_OK && area->usedLength > bufferLength) {
      zaiFail(pCompCode, pReason, RC_BUFFER_LENGTH_ERROR);
    } else if (*pCompCode == CC_OK) {
      const Carrier &carrier = carrierOf(pcfType);
      *msgType = carrier.msgType;
      memcpy(format, carrier.format, ZAI_FORMAT_LENGTH);
    }
    if (area != &inFrame) svcFreeMem(ZAI_COMPONENT, area);
  }
  zaiFramePop(&frame, *pReason);
}
