// The queues of a command conversation (the command server's queue, the
// temporary reply queue), putting and getting one message, the collection of
// replies, messages in the library's own buffers, the driver that reads a PCF
// message into a bag, and the dump of a bag's items to the trace.
//
// Every queue call goes through the library's own exported wrappers (VXOPEN,
// VXINQ, VXPUT, VXGET, VXCLOSE), so it is traced as a caller's would be.
#include <stdint.h>
#include <stdio.h>
#include <string.h>

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

constexpr char kCommandQueueName[] = "SYSTEM.ADMIN.COMMAND.QUEUE";
constexpr char kModelQueueName[] = "SYSTEM.DEFAULT.MODEL.QUEUE";
constexpr char kReplyQueuePrefix[] = "VXAI.REPLY.*";

// Open options of the command queue (put and inquire) and of the reply
// queue (the only reader); close options.
constexpr int32_t kCommandQueueOpenOptions = OPEN_OUTPUT | OPEN_INQUIRE;
constexpr int32_t kReplyQueueOpenOptions = OPEN_INPUT_EXCLUSIVE;

// Replies are got with a wait, outside any unit of work, converted to the
// reply bag's character set.
constexpr int32_t kReplyGetOptions = GET_WAIT | GET_NO_SYNCPOINT | GET_CONVERT;
constexpr int32_t kFirstReplyBufferSize = 4096;

// A name into a descriptor's 48-character field, followed by a zero byte.
template <size_t N>
void putName(char (&field)[Q_NAME_LENGTH], const char (&name)[N]) {
  static_assert(N <= Q_NAME_LENGTH);
  memcpy(field, name, N);
}

// The request descriptor: vxExecute makes it a request and sets its expiry.
// Its extension is not read (version 1).
constexpr vxMSGDESC kRequestDescriptor = {
    .structId = {'M', 'D', ' ', ' '},
    .version = MD_VERSION_1,
    .reportOptions = 0,
    .msgType = MSGTYPE_DATAGRAM,
    .expiry = EXPIRY_UNLIMITED,
    .feedback = 0,
    .encoding = ENCODING_NATIVE,
    .codedCharSetId = 0,
    .format = {' ', ' ', ' ', ' ', ' ', ' ', ' ', ' '},
    .priority = PRIORITY_AS_Q_DEF,
    .persistence = PERSISTENCE_AS_Q_DEF,
    .msgId = {},  // the queue manager generates one on put
    .correlId = {},
    .backoutCount = 0,
    .replyToQ = {},
    .replyToQMgr = {},
    .context = {},
    .groupId = {},
    .msgSeqNumber = 0,
    .offset = 0,
    .msgFlags = 0,
    .originalLength = 0,
};

// The reply descriptor: the same, with the extension filled in, which the
// library never changes.
constexpr vxMSGDESC withExtension(vxMSGDESC descriptor) {
  descriptor.msgSeqNumber = 1;
  descriptor.originalLength = -1;
  return descriptor;
}

}  // namespace

extern "C" {

const vxMSGDESC zaiRequestMsgDescTemplate = kRequestDescriptor;
const vxMSGDESC zaiReplyMsgDescTemplate = withExtension(kRequestDescriptor);

const vxPUTOPTS zaiPutMsgOptsTemplate = {
    .structId = {'P', 'M', 'O', ' '},
    .version = PMO_VERSION_1,
    .options = 0,
    .timeout = -1,
    .context = 0,
    .knownDestCount = 0,
    .unknownDestCount = 0,
    .invalidDestCount = 0,
    .resolvedQName = {},
    .resolvedQMgrName = {},
    .reserved = {},
};

const vxGETOPTS zaiGetMsgOptsTemplate = {
    .structId = {'G', 'M', 'O', ' '},
    .version = GMO_VERSION_1,
    .options = 0,
    .waitInterval = 0,
    .signal1 = 0,
    .signal2 = 0,
    .resolvedQName = {},
    .matchOptions = 3,
    .groupStatus = ' ',
    .segmentStatus = ' ',
    .segmentation = ' ',
    .reserved1 = ' ',
    .msgToken = {},
    .returnedLength = -1,
};

const vxOBJDESC zaiObjDescTemplate = {
    .structId = {'O', 'D', ' ', ' '},
    .version = OD_VERSION_1,
    .objectType = OBJTYPE_Q,
    .objectName = {},
    .objectQMgrName = {},
    .dynamicQName = {'T', 'B', 'X', '.', '*'},
    .reserved = {},
};

// ----- The queues of a conversation ------------------------------------------------

void zaiOpenSysAdminCmdQueue(VXHCONN Hconn, VXHOBJ *pHobj, int32_t *pCompCode, int32_t *pReason) {
  zaiFRAME frame = zaiFramePush(ZAI_COMPONENT, ZAIFN_zaiOpenSysAdminCmdQueue);
  vxOBJDESC descriptor = zaiObjDescTemplate;
  putName(descriptor.objectName, kCommandQueueName);
  bool opened = false;
  *pCompCode = CC_OK;
  *pReason = RC_NONE;
  VXHOBJ hobj = HOBJ_UNUSABLE;
  VXOPEN(Hconn, &descriptor, kCommandQueueOpenOptions, &hobj, pCompCode, pReason);
  if (*pCompCode == CC_OK) {
    opened = true;
    int32_t selector = ATTR_OPEN_INPUT_COUNT;
    int32_t readers = 0;
    VXINQ(Hconn, hobj, 1, &selector, 1, &readers, 0, nullptr, pCompCode, pReason);
    // Nobody would ever answer a command put to a queue that no command
    // server reads: fail now rather than at the end of the wait.
    if (*pCompCode == CC_OK && readers < 1)
      zaiFail(pCompCode, pReason, RC_COMMAND_SERVER_NOT_AVAILABLE);
  }
  if (*pCompCode == CC_OK) {
    *pHobj = hobj;
  } else if (opened) {
    int32_t compCode, reason;
    zaiCloseSysAdminCmdQueue(Hconn, &hobj, &compCode, &reason);
  }
  zaiFramePop(&frame, *pReason);
}

void zaiOpenTempReplyQueue(VXHCONN Hconn, VXHOBJ *pHobj, char *queueName, int32_t *pCompCode,
                           int32_t *pReason) {
  zaiFRAME frame = zaiFramePush(ZAI_COMPONENT, ZAIFN_zaiOpenTempReplyQueue);
  vxOBJDESC descriptor = zaiObjDescTemplate;
  putName(descriptor.objectName, kModelQueueName);
  putName(descriptor.dynamicQName, kReplyQueuePrefix);
  *pCompCode = CC_OK;
  *pReason = RC_NONE;
  VXHOBJ hobj = HOBJ_UNUSABLE;
  VXOPEN(Hconn, &descriptor, kReplyQueueOpenOptions, &hobj, pCompCode, pReason);
  if (*pCompCode == CC_OK) {
    *pHobj = hobj;
    // The queue manager wrote the new queue's generated name into the
    // descriptor: all 48 characters go to the caller, blanks included.
    memcpy(queueName, descriptor.objectName, Q_NAME_LENGTH);
  }
  zaiFramePop(&frame, *pReason);
}

void zaiCloseSysAdminCmdQueue(VXHCONN Hconn, VXHOBJ *pHobj, int32_t *pCompCode, int32_t *pReason) {
  zaiFRAME frame = zaiFramePush(ZAI_COMPONENT, ZAIFN_zaiCloseSysAdminCmdQueue);
  VXCLOSE(Hconn, pHobj, CLOSE_NONE, pCompCode, pReason);
  zaiFramePop(&frame, *pReason);
}

void zaiCloseTempReplyQueue(VXHCONN Hconn, VXHOBJ *pHobj, int32_t *pCompCode, int32_t *pReason) {
  zaiFRAME frame = zaiFramePush(ZAI_COMPONENT, ZAIFN_zaiCloseTempReplyQueue);
  VXCLOSE(Hconn, pHobj, CLOSE_DELETE_PURGE, pCompCode, pReason);
  zaiFramePop(&frame, *pReason);
}

void zaiInquireReplyQueueName(VXHCONN Hconn, VXHOBJ Hobj, char *queueName, int32_t *pCompCode,
                              int32_t *pReason) {
  zaiFRAME frame = zaiFramePush(ZAI_COMPONENT, ZAIFN_zaiInquireReplyQueueName);
  int32_t selector = ATTR_Q_NAME;
  VXINQ(Hconn, Hobj, 1, &selector, 0, nullptr, Q_NAME_LENGTH, queueName, pCompCode, pReason);
  zaiFramePop(&frame, *pReason);
}

void zaiSendPCFMsg(VXHCONN Hconn, VXHOBJ Hobj, void *pMsgDesc, void *pPutMsgOpts,
                   int32_t dataLength, char *buffer, int32_t *pCompCode, int32_t *pReason) {
  zaiFRAME frame = zaiFramePush(ZAI_COMPONENT, ZAIFN_zaiSendPCFMsg);
  VXPUT(Hconn, Hobj, pMsgDesc, pPutMsgOpts, dataLength, buffer, pCompCode, pReason);
  zaiFramePop(&frame, *pReason);
}

void zaiReceivePCFMsg(VXHCONN Hconn, VXHOBJ Hobj, void *pMsgDesc, void *pGetMsgOpts,
                      int32_t bufferLength, char *buffer, int32_t *dataLength, int32_t *pCompCode,
                      int32_t *pReason) {
  zaiFRAME frame = zaiFramePush(ZAI_COMPONENT, ZAIFN_zaiReceivePCFMsg);
  VXGET(Hconn, Hobj, pMsgDesc, pGetMsgOpts, bufferLength, buffer, dataLength, pCompCode, pReason);
  zaiFramePop(&frame, *pReason);
}

// ----- Reply collection --------------------------------------------------------------

void zaiSendReceivePCFMsg(VXHCONN Hconn, VXHOBJ commandQueue, vxMSGDESC *requestDesc,
                          vxPUTOPTS *putOptions, int32_t dataLength, char *buffer,
                          VXHOBJ replyQueue, int32_t waitInterval, zaiBAG *replyBag,
                          int32_t *pCompCode, int32_t *pReason) {
  zaiFRAME frame = zaiFramePush(ZAI_COMPONENT, ZAIFN_zaiSendReceivePCFMsg);
  *pCompCode = CC_OK;
  *pReason = RC_NONE;
  vxGETOPTS getOptions = zaiGetMsgOptsTemplate;
  vxMSGDESC replyDesc = zaiReplyMsgDescTemplate;
  int32_t replyLength = kFirstReplyBufferSize;
  char *reply = nullptr;
  {
    void *block = nullptr;
    if (svcGetMem(ZAI_COMPONENT, ZAIFN_zaiSendReceivePCFMsg, replyLength, 0, &block) != 0)
      zaiFail(pCompCode, pReason, RC_STORAGE_NOT_AVAILABLE);
    reply = static_cast<char *>(block);
  }
  int32_t targetCodedCharSetId = 0;
  if (*pCompCode == CC_OK)
    zaiInquireInteger(replyBag, SEL_CODED_CHAR_SET_ID, ITEM_INDEX_NONE, &targetCodedCharSetId,
                      pCompCode, pReason);
  // Replies of an earlier call do not stay in the bag.
  if (*pCompCode == CC_OK) zaiClearBag(replyBag, pCompCode, pReason);
  if (*pCompCode == CC_OK)
    zaiSendPCFMsg(Hconn, commandQueue, requestDesc, putOptions, dataLength, buffer, pCompCode,
                  pReason);

  getOptions.options = kReplyGetOptions;
  getOptions.waitInterval = waitInterval;
  int32_t received = 0, failed = 0;
  bool lastArrived = false;
  int32_t lastCompCode = CC_OK, lastReason = RC_NONE;
  while (*pCompCode == CC_OK && !lastArrived) {
    // Only replies to this request, converted to the reply bag's character
    // set.
    replyDesc.encoding = ENCODING_NATIVE;
    replyDesc.codedCharSetId = targetCodedCharSetId;
    memset(replyDesc.msgId, 0, sizeof replyDesc.msgId);
    memcpy(replyDesc.correlId, requestDesc->msgId, sizeof replyDesc.correlId);
    int32_t length = 0;
    zaiReceivePCFMsg(Hconn, replyQueue, &replyDesc, &getOptions, replyLength, reply, &length,
                     pCompCode, pReason);
    if (*pReason == RC_MSG_TRUNCATED) {
      // The reply stayed on the queue: get it again into a buffer of exactly
      // its size, which serves the later replies too.
      *pCompCode = CC_OK;
      *pReason = RC_NONE;
      svcFreeMem(ZAI_COMPONENT, reply);
      reply = nullptr;
      replyLength = length;
      void *block = nullptr;
      if (svcGetMem(ZAI_COMPONENT, ZAIFN_zaiSendReceivePCFMsg, replyLength, 0, &block) != 0)
        zaiFail(pCompCode, pReason, RC_STORAGE_NOT_AVAILABLE);
      reply = static_cast<char *>(block);
      continue;
    }
    if (*pReason == RC_NO_MSG_AVAILABLE) {
      // The wait ran out: what arrived stays in the bag, unsummarised.
      *pCompCode = received > 0 ? CC_WARNING : CC_FAILED;
      break;
    }
    // A reply the queue manager could not convert still arrived; its strings
    // carry the character set they are in.
    if (*pCompCode == CC_WARNING && *pReason == RC_NOT_CONVERTED) {
      *pCompCode = CC_OK;
      *pReason = RC_NONE;
    }
    if (*pCompCode != CC_OK) break;

    ++received;
    zaiBAG *replyItem = nullptr;
    int32_t control = 0;
    zaiProcessPCFReplyMsg(length, reply, replyDesc.codedCharSetId, &replyItem, &control,
                          &lastCompCode, &lastReason, pCompCode, pReason);
    if (*pCompCode != CC_OK) break;
    if (lastCompCode != CC_OK) ++failed;
    if (control == PCF_CONTROL_LAST) lastArrived = true;
    zaiAddBag(replyBag, SEL_NESTED_REPLY_BAG, zaiHandleOf(replyItem), pCompCode, pReason);
  }

  // The summary, only when the conversation ended with its last reply.
  if (lastArrived && *pCompCode == CC_OK) {
    zaiSetInteger(replyBag, SEL_CODED_CHAR_SET_ID, ITEM_INDEX_NONE, replyDesc.codedCharSetId,
                  pCompCode, pReason);
    if (*pCompCode == CC_OK)
      zaiSetInteger(replyBag, SEL_COMP_CODE, ITEM_INDEX_NONE, lastCompCode, pCompCode, pReason);
    if (*pCompCode == CC_OK)
      zaiSetInteger(replyBag, SEL_REASON, ITEM_INDEX_NONE, lastReason, pCompCode, pReason);
    if (*pCompCode == CC_OK)
      zaiTraceBagContents(ZAI_COMPONENT, ZAIFN_zaiSendReceivePCFMsg, replyBag);
    if (failed > 0) {
      *pCompCode = failed < received ? CC_WARNING : CC_FAILED;
      *pReason = RC_COMMAND_FAILED;
    }
  }
  if (reply) svcFreeMem(ZAI_COMPONENT, reply);
  zaiFramePop(&frame, *pReason);
}

void zaiProcessPCFReplyMsg(int32_t dataLength, const char *buffer, int32_t codedCharSetId,
                           zaiBAG **newBag, int32_t *control, int32_t *compCode, int32_t *reason,
                           int32_t *pCompCode, int32_t *pReason) {
  zaiFRAME frame = zaiFramePush(ZAI_COMPONENT, ZAIFN_zaiProcessPCFReplyMsg);
  *pCompCode = CC_OK;
  *pReason = RC_NONE;
  // The caller can read a reply but neither alter nor delete it.
  zaiCreateBag(BAG_OPT_SYSTEM_BAG | BAG_OPT_CHECK_SELECTORS, newBag, pCompCode, pReason);
  zaiBAG *bag = *newBag;
  if (*pCompCode == CC_OK)
    zaiSetInteger(bag, SEL_CODED_CHAR_SET_ID, ITEM_INDEX_NONE, codedCharSetId, pCompCode, pReason);
  if (*pCompCode == CC_OK) zaiPCFMsgToBag(dataLength, buffer, bag, pCompCode, pReason);
  if (*pCompCode == CC_OK)
    zaiInquireInteger(bag, SEL_CONTROL, ITEM_INDEX_NONE, control, pCompCode, pReason);
  if (*pCompCode == CC_OK)
    zaiInquireInteger(bag, SEL_COMP_CODE, ITEM_INDEX_NONE, compCode, pCompCode, pReason);
  if (*pCompCode == CC_OK)
    zaiInquireInteger(bag, SEL_REASON, ITEM_INDEX_NONE, reason, pCompCode, pReason);
  if (*pCompCode == CC_OK)
    zaiTraceParms(&frame, "pBag:%.8lX, BagControl:%d  BagCompCode:%d, BagReason: %d",
                  static_cast<unsigned long>(zaiHandleOf(bag)), *control, *compCode, *reason);
  zaiFramePop(&frame, *pReason);
}

// ----- Library buffers -----------------------------------------------------------------

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
