// Commands and bags as messages: vxExecute, which runs one administration
// command end to end; vxPutBag and vxGetBag, which move a bag through any
// queue as a message; the calls that write a bag into a caller's buffer and
// read one back; and the driver that writes a bag as a PCF message.
#include <stddef.h>
#include <stdint.h>
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

// The message formats that carry a bag.
constexpr const char *kBagFormats[] = {VX_FORMAT_ADMIN, VX_FORMAT_EVENT, VX_FORMAT_PCF};

bool isBagFormat(const char *format) {
  for (const char *accepted : kBagFormats)
    if (memcmp(format, accepted, ZAI_FORMAT_LENGTH) == 0) return true;
  return false;
}

// Fields of a caller's message descriptor and get-message options, which may
// sit at any alignment.
constexpr size_t kEncodingField = offsetof(vxMSGDESC, encoding);
constexpr size_t kCodedCharSetIdField = offsetof(vxMSGDESC, codedCharSetId);
constexpr size_t kFormatField = offsetof(vxMSGDESC, format);
constexpr size_t kMsgIdField = offsetof(vxMSGDESC, msgId);
constexpr size_t kCorrelIdField = offsetof(vxMSGDESC, correlId);
constexpr size_t kGetOptionsField = offsetof(vxGETOPTS, options);

// The API trace shows a descriptor at its full length, extension included.
constexpr int32_t kTracedDescriptorLength = MD_LENGTH_2;

// A request expires when nobody could wait for its reply any longer: the wait
// in tenths of a second, never below one.
int32_t expiryOf(int32_t waitInterval) {
  if (waitInterval == WAIT_UNLIMITED) return EXPIRY_UNLIMITED;
  const int32_t tenths = waitInterval / 100;
  return tenths < 1 ? 1 : tenths;
}

// vxGetBag sizes its buffer from the length a truncated get reports; a
// message whose converted form is longer gets a second try at three times
// that length, and no third.
constexpr int32_t kFirstGetBufferSize = 4096;
constexpr int64_t kConversionGrowth = 3;

}  // namespace

extern "C" {

// ----- Commands ----------------------------------------------------------------------

uint32_t zaiVXExecute(VXHCONN Hconn, int32_t Command, VXHBAG OptionsBag, VXHBAG RequestBag,
                      VXHBAG ReplyBag, VXHOBJ Requestq, VXHOBJ Replyq, int32_t *pCompCode,
                      int32_t *pReason) {
  const auto parms = [&] {
    return std::to_array<zaiAPIPARM>({
        zaiParmIn("Hconn", &Hconn),
        zaiParmIn("Command", &Command),
        zaiParmIn("OptionsBag", &OptionsBag),
        zaiParmIn("RequestBag", &RequestBag),
        zaiParmIn("ReplyBag", &ReplyBag),
        zaiParmIn("Requestq", &Requestq),
        zaiParmIn("Replyq", &Replyq),
    });
  };
  zaiAPICALL call;
  zaiApiBegin(&call, ZAIFN_zaiVXExecute, "vxExecute", pCompCode, pReason);
  zaiApiTraceEntry(&call, parms);
  int32_t *cc = call.pCompCode, *rc = call.pReason;

  // Everything this call acquires; released at the end whatever happened.
  vxMSGDESC requestDesc = zaiRequestMsgDescTemplate;
  vxPUTOPTS putOptions = zaiPutMsgOptsTemplate;
  VXHOBJ commandQueue = HOBJ_UNUSABLE;
  VXHOBJ replyQueue = HOBJ_UNUSABLE;
  char *buffer = nullptr;
  int32_t dataLength = 0;
  int32_t waitInterval = ZAI_DEFAULT_WAIT_INTERVAL;

  // No options bag (BAG_NONE) is no error; no request or reply bag is.
  zaiBAG *optionsBag = nullptr;
  if (OptionsBag != BAG_NONE) optionsBag = zaiCallerBag(OptionsBag, cc, rc);
  zaiBAG *requestBag = *cc == CC_OK ? zaiCallerBag(RequestBag, cc, rc) : nullptr;
  zaiBAG *replyBag = *cc == CC_OK ? zaiCallerBag(ReplyBag, cc, rc) : nullptr;
  if (*cc == CC_OK) zaiProcessExecuteOptionsBag(optionsBag, &waitInterval, cc, rc);
  if (*cc == CC_OK) requestDesc.expiry = expiryOf(waitInterval);
  if (*cc == CC_OK) {
    int32_t pcfType = 0;
    zaiInquireInteger(requestBag, SEL_PCF_TYPE, ITEM_INDEX_NONE, &pcfType, cc, rc);
    if (*cc == CC_OK && pcfType != PCF_TYPE_COMMAND) zaiFail(cc, rc, RC_COMMAND_TYPE_ERROR);
  }
  if (*cc == CC_OK) {
    if (Requestq == HOBJ_NONE)
      zaiOpenSysAdminCmdQueue(Hconn, &commandQueue, cc, rc);
    else
      commandQueue = Requestq;
  }
  if (*cc == CC_OK)
    zaiBagToPCFMsgInVXAIBuffer(requestBag, Command, &buffer, &dataLength, &requestDesc.msgType,
                               requestDesc.format, cc, rc);
  // The message goes out in the bag's character set (0: the queue manager's).
  if (*cc == CC_OK)
    zaiInquireInteger(requestBag, SEL_CODED_CHAR_SET_ID, ITEM_INDEX_NONE,
                      &requestDesc.codedCharSetId, cc, rc);
  putOptions.options |= PUT_NO_SYNCPOINT;
  // A command bag always makes a request (the writer gives PCF type command
  // message type request), so there are always replies to collect.
  if (*cc == CC_OK) {
    if (Replyq != HOBJ_NONE) {
      replyQueue = Replyq;
      zaiInquireReplyQueueName(Hconn, Replyq, requestDesc.replyToQ, cc, rc);
    } else {
      zaiOpenTempReplyQueue(Hconn, &replyQueue, requestDesc.replyToQ, cc, rc);
    }
  }
  if (*cc == CC_OK)
    zaiSendReceivePCFMsg(Hconn, commandQueue, &requestDesc, &putOptions, dataLength, buffer,
                         replyQueue, waitInterval, replyBag, cc, rc);

  // Clean-up reports into a pair of its own: the first failure stays the one
  // the caller sees.  Queues the caller supplied stay open.
  int32_t closeCompCode, closeReason;
  if (buffer) zaiFreeVXAIBuffer(&buffer);
  if (Replyq == HOBJ_NONE && replyQueue != HOBJ_UNUSABLE)
    zaiCloseTempReplyQueue(Hconn, &replyQueue, &closeCompCode, &closeReason);
  if (Requestq == HOBJ_NONE && commandQueue != HOBJ_UNUSABLE)
    zaiCloseSysAdminCmdQueue(Hconn, &commandQueue, &closeCompCode, &closeReason);
  return zaiApiEnd(&call, parms);
}

void zaiProcessExecuteOptionsBag(zaiBAG *optionsBag, int32_t *waitInterval, int32_t *pCompCode,
                                 int32_t *pReason) {
  zaiFRAME frame = zaiFramePush(ZAI_COMPONENT, ZAIFN_zaiProcessExecuteOptionsBag);
  *pCompCode = CC_OK;
  *pReason = RC_NONE;
  *waitInterval = ZAI_DEFAULT_WAIT_INTERVAL;
  if (optionsBag) {
    // The wait interval is the only user item an options bag may hold.
    const int32_t userItems = zaiCountItems(optionsBag, 0, SEL_ANY_USER_SELECTOR);
    int32_t found = 0, compCode, reason;
    zaiInquireInteger(optionsBag, PARM_WAIT_INTERVAL, ITEM_INDEX_NONE, waitInterval, &compCode,
                      &reason);
    if (compCode == CC_OK)
      found = 1;
    else if (reason != RC_SELECTOR_NOT_PRESENT)
      zaiFail(pCompCode, pReason, RC_WAIT_INTERVAL_ERROR);
    if (*pCompCode == CC_OK && found != userItems) zaiFail(pCompCode, pReason, RC_OPTIONS_ERROR);
  }
  zaiFramePop(&frame, *pReason);
}

// ----- Bags on queues ------------------------------------------------------------------

uint32_t zaiVXPutBag(VXHCONN Hconn, VXHOBJ Hobj, void *pMsgDesc, void *pPutMsgOpts, VXHBAG Bag,
                     int32_t *pCompCode, int32_t *pReason) {
  const auto parms = [&] {
    return std::to_array<zaiAPIPARM>({
        {"OptionsBag", "OptionsBag", ZAI_PARM_EXIT_INPUT, nullptr, nullptr},
        zaiParmIn("Hconn", &Hconn),
        zaiParmIn("Hobj", &Hobj),
        {"Refer to VXPUT", "Msgdesc", ZAI_PARM_IN_RECORD_REFER, pMsgDesc, &kTracedDescriptorLength},
        {"Refer to VXPUT", "Putmsgopts", ZAI_PARM_REFER, pPutMsgOpts, nullptr},
        zaiParmIn("Bag", &Bag),
    });
  };
  zaiAPICALL call;
  zaiApiBegin(&call, ZAIFN_zaiVXPutBag, "vxPutBag", pCompCode, pReason);
  zaiApiTraceEntry(&call, parms);
  int32_t *cc = call.pCompCode, *rc = call.pReason;
  zaiBAG *bag = zaiCallerBag(Bag, cc, rc);
  const char *descriptor = static_cast<const char *>(pMsgDesc);
  if (*cc == CC_OK && svcCheckPointer(pMsgDesc, MD_LENGTH_1, SVC_CHECK_READ_WRITE) != 0)
    zaiFail(cc, rc, RC_MSG_DESCRIPTOR_ERROR);
  if (*cc == CC_OK && zaiGetField(descriptor, kEncodingField) != ENCODING_NATIVE)
    zaiFail(cc, rc, RC_ENCODING_NOT_SUPPORTED);
  if (*cc == CC_OK && !isBagFormat(descriptor + kFormatField))
    zaiFail(cc, rc, RC_FORMAT_NOT_SUPPORTED);
  int32_t command = 0;
  if (*cc == CC_OK) zaiInquireInteger(bag, SEL_COMMAND, ITEM_INDEX_NONE, &command, cc, rc);
  char *buffer = nullptr;
  int32_t dataLength = 0;
  if (*cc == CC_OK) {
    // The caller's descriptor goes out exactly as the caller filled it: the
    // message type and format the writer proposes are not used.
    int32_t msgType;
    char format[ZAI_FORMAT_LENGTH];
    zaiBagToPCFMsgInVXAIBuffer(bag, command, &buffer, &dataLength, &msgType, format, cc, rc);
  }
  if (*cc == CC_OK) zaiSendPCFMsg(Hconn, Hobj, pMsgDesc, pPutMsgOpts, dataLength, buffer, cc, rc);
  if (buffer) zaiFreeVXAIBuffer(&buffer);
  return zaiApiEnd(&call, parms);
}

uint32_t zaiVXGetBag(VXHCONN Hconn, VXHOBJ Hobj, void *pMsgDesc, void *pGetMsgOpts, VXHBAG Bag,
                     int32_t *pCompCode, int32_t *pReason) {
  const auto parms = [&] {
    return std::to_array<zaiAPIPARM>({
        zaiParmIn("Hconn", &Hconn),
        zaiParmIn("Hobj", &Hobj),
        {"Refer to VXGET", "Msgdesc", ZAI_PARM_IN_RECORD_REFER, pMsgDesc, &kTracedDescriptorLength},
        {"Refer to VXGET", "Getmsgopts", ZAI_PARM_REFER, pGetMsgOpts, nullptr},
        zaiParmIn("Bag", &Bag),
    });
  };
  zaiAPICALL call;
  zaiApiBegin(&call, ZAIFN_zaiVXGetBag, "vxGetBag", pCompCode, pReason);
  zaiApiTraceEntry(&call, parms);
  int32_t *cc = call.pCompCode, *rc = call.pReason;
  char *descriptor = static_cast<char *>(pMsgDesc);
  char *getOptions = static_cast<char *>(pGetMsgOpts);

  // Without a bag (BAG_NONE) the message is taken off the queue and thrown
  // away.
  zaiBAG *bag = nullptr;
  if (Bag != BAG_NONE) bag = zaiCallerBag(Bag, cc, rc);
  if (*cc == CC_OK && bag && bag->systemBag) zaiFail(cc, rc, RC_SYSTEM_BAG_NOT_ALTERABLE);
  char msgId[MSG_ID_LENGTH], correlId[CORREL_ID_LENGTH];
  if (*cc == CC_OK &&
      svcCheckPointer(pMsgDesc, kCorrelIdField + CORREL_ID_LENGTH, SVC_CHECK_READ) != 0)
    zaiFail(cc, rc, RC_MSG_DESCRIPTOR_ERROR);
  if (*cc == CC_OK) {
    memcpy(msgId, descriptor + kMsgIdField, sizeof msgId);
    memcpy(correlId, descriptor + kCorrelIdField, sizeof correlId);
  }
  if (*cc == CC_OK &&
      svcCheckPointer(pGetMsgOpts, kGetOptionsField + sizeof(int32_t), SVC_CHECK_READ) != 0)
    zaiFail(cc, rc, RC_GET_OPTIONS_ERROR);
  int32_t options = 0, codedCharSetId = 0, encoding = 0;
  if (*cc == CC_OK) {
    options = zaiGetField(getOptions, kGetOptionsField);
    if (options & GET_CONVERT) {
      codedCharSetId = zaiGetField(descriptor, kCodedCharSetIdField);
      encoding = zaiGetField(descriptor, kEncodingField);
      if (encoding != ENCODING_NATIVE) zaiFail(cc, rc, RC_ENCODING_NOT_SUPPORTED);
    }
  }
  // The library must see a truncation itself, to size its buffer.
  if (*cc == CC_OK && (options & GET_ACCEPT_TRUNCATED_MSG)) zaiFail(cc, rc, RC_OPTIONS_ERROR);

  char *buffer = nullptr;
  int32_t bufferLength = 0;
  if (*cc == CC_OK && bag) {
    void *block = nullptr;
    if (svcGetMem(ZAI_COMPONENT, ZAIFN_zaiVXGetBag, kFirstGetBufferSize, 0, &block) != 0)
      zaiFail(cc, rc, RC_STORAGE_NOT_AVAILABLE);
    buffer = static_cast<char *>(block);
    bufferLength = kFirstGetBufferSize;
  } else if (*cc == CC_OK) {
    // Taking the message truncated to nothing removes it.  The options are
    // the caller's: they must be writable to be borrowed.
    if (svcCheckPointer(pGetMsgOpts, kGetOptionsField + sizeof(int32_t), SVC_CHECK_READ_WRITE) != 0)
      zaiFail(cc, rc, RC_GET_OPTIONS_ERROR);
    else
      zaiPutField(getOptions, kGetOptionsField, options | GET_ACCEPT_TRUNCATED_MSG);
  }

  int32_t dataLength = 0;
  bool got = false;
  while (*cc == CC_OK) {
    zaiReceivePCFMsg(Hconn, Hobj, pMsgDesc, pGetMsgOpts, bufferLength, buffer, &dataLength, cc, rc);
    got = true;
    if (*rc != RC_MSG_TRUNCATED || !bag) break;
    const int64_t grown = kConversionGrowth * dataLength;
    if (bufferLength == grown) break;
    const int64_t length = bufferLength == dataLength ? grown : dataLength;
    if (length > INT32_MAX) break;
    svcFreeMem(ZAI_COMPONENT, buffer);
    buffer = nullptr;
    void *block = nullptr;
    if (svcGetMem(ZAI_COMPONENT, ZAIFN_zaiVXGetBag, static_cast<int32_t>(length), 0, &block) != 0) {
      zaiFail(cc, rc, RC_STORAGE_NOT_AVAILABLE);
      break;
    }
    buffer = static_cast<char *>(block);
    bufferLength = static_cast<int32_t>(length);
    // The failed get filled the descriptor with the message's own values:
    // the next one selects and converts as the caller asked.
    memcpy(descriptor + kMsgIdField, msgId, sizeof msgId);
    memcpy(descriptor + kCorrelIdField, correlId, sizeof correlId);
    if (options & GET_CONVERT) {
      zaiPutField(descriptor, kCodedCharSetIdField, codedCharSetId);
      zaiPutField(descriptor, kEncodingField, encoding);
    }
    *cc = CC_OK;
    *rc = RC_NONE;
  }

  // A message the queue manager could not convert was still delivered, as it
  // was put: it is read like any other and the warning stays.
  const bool unconverted = got && *cc == CC_WARNING && *rc == RC_NOT_CONVERTED;
  if (got && (*cc == CC_OK || unconverted)) {
    const int32_t warning = *rc;
    *cc = CC_OK;
    *rc = RC_NONE;
    if (!isBagFormat(descriptor + kFormatField))
      zaiFail(cc, rc, RC_FORMAT_NOT_SUPPORTED);
    else if (zaiGetField(descriptor, kEncodingField) != ENCODING_NATIVE)
      zaiFail(cc, rc, RC_ENCODING_NOT_SUPPORTED);
    else if (bag)
      zaiPCFMsgToBag(dataLength, buffer, bag, cc, rc);
    if (*cc == CC_OK && unconverted) {
      *cc = CC_WARNING;
      *rc = warning;
    }
  }
  if (buffer) zaiFreeVXAIBuffer(&buffer);
  if (got && !bag) {
    zaiPutField(getOptions, kGetOptionsField, options);
    // Throwing the message away was the purpose.
    if (*cc == CC_WARNING && *rc == RC_MSG_TRUNCATED_ACCEPTED) {
      *cc = CC_OK;
      *rc = RC_NONE;
    }
  }
  return zaiApiEnd(&call, parms);
}

// ----- Bags in buffers ------------------------------------------------------------------

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
