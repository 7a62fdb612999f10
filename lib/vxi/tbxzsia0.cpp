// The queue-interface wrappers VXCONN ... VXBEGIN: each records a trace frame
// under component 32 and forwards its arguments, unchanged and in the order
// received, to the queue manager's entry (qmCONN ... qmBEGIN).  A wrapper
// checks, changes and interprets nothing; the completion and reason codes are
// the queue manager's.  The library's own command and message functions call
// these same wrappers, so every queue operation of the library is traced here.
//
// The queue manager is reached only through the dynamic symbols of its
// entries: a program that defines them itself replaces libvxqm.so.
#include <stddef.h>
#include <stdio.h>
#include <string.h>

#include "qm.h"
#include "vxai_internal.h"
#include "vxqi.h"

// The records are those the queue manager reads; their layout is fixed.
static_assert(sizeof(vxMSGDESC) == MD_LENGTH_2, "the message descriptor is 364 bytes");
static_assert(offsetof(vxMSGDESC, version) == 4 && offsetof(vxMSGDESC, reportOptions) == 8 &&
                  offsetof(vxMSGDESC, msgType) == 12 && offsetof(vxMSGDESC, expiry) == 16 &&
                  offsetof(vxMSGDESC, feedback) == 20 && offsetof(vxMSGDESC, encoding) == 24 &&
                  offsetof(vxMSGDESC, codedCharSetId) == 28 && offsetof(vxMSGDESC, format) == 32 &&
                  offsetof(vxMSGDESC, priority) == 40 && offsetof(vxMSGDESC, persistence) == 44 &&
                  offsetof(vxMSGDESC, msgId) == 48 && offsetof(vxMSGDESC, correlId) == 72 &&
                  offsetof(vxMSGDESC, backoutCount) == 96 && offsetof(vxMSGDESC, replyToQ) == 100 &&
                  offsetof(vxMSGDESC, replyToQMgr) == 148 && offsetof(vxMSGDESC, context) == 196,
              "message descriptor fields of version 1");
static_assert(offsetof(vxMSGDESC, groupId) == MD_LENGTH_1 &&
                  offsetof(vxMSGDESC, msgSeqNumber) == 348 && offsetof(vxMSGDESC, offset) == 352 &&
                  offsetof(vxMSGDESC, msgFlags) == 356 &&
                  offsetof(vxMSGDESC, originalLength) == 360,
              "message descriptor extension of version 2");
static_assert(sizeof(vxOBJDESC) == OD_LENGTH && offsetof(vxOBJDESC, version) == 4 &&
                  offsetof(vxOBJDESC, objectType) == 8 && offsetof(vxOBJDESC, objectName) == 12 &&
                  offsetof(vxOBJDESC, objectQMgrName) == 60 &&
                  offsetof(vxOBJDESC, dynamicQName) == 108 && offsetof(vxOBJDESC, reserved) == 156,
              "object descriptor");
static_assert(sizeof(vxPUTOPTS) == PMO_LENGTH && offsetof(vxPUTOPTS, version) == 4 &&
                  offsetof(vxPUTOPTS, options) == 8 && offsetof(vxPUTOPTS, timeout) == 12 &&
                  offsetof(vxPUTOPTS, resolvedQName) == 32 &&
                  offsetof(vxPUTOPTS, resolvedQMgrName) == 80 &&
                  offsetof(vxPUTOPTS, reserved) == 128,
              "put-message options");
static_assert(sizeof(vxGETOPTS) == GMO_LENGTH && offsetof(vxGETOPTS, version) == 4 &&
                  offsetof(vxGETOPTS, options) == 8 && offsetof(vxGETOPTS, waitInterval) == 12 &&
                  offsetof(vxGETOPTS, resolvedQName) == 24 &&
                  offsetof(vxGETOPTS, matchOptions) == 72 &&
                  offsetof(vxGETOPTS, groupStatus) == 76 && offsetof(vxGETOPTS, msgToken) == 80 &&
                  offsetof(vxGETOPTS, returnedLength) == 96,
              "get-message options");

namespace {

// Function numbers of the wrappers: their rows of the function-name table.
enum zsiFUNCTIONNUMBER : int32_t {
  ZSIFN_VXCONN = 38,
  ZSIFN_VXDISC = 39,
  ZSIFN_VXGET = 40,
  ZSIFN_VXINQ = 41,
  ZSIFN_VXOPEN = 42,
  ZSIFN_VXPUT = 43,
  ZSIFN_VXPUT1 = 44,
  ZSIFN_VXSET = 45,
  ZSIFN_VXCLOSE = 46,
  ZSIFN_VXCMIT = 47,
  ZSIFN_VXBACK = 48,
  ZSIFN_zrtVXCONN = 49,
  ZSIFN_VXBEGIN = 50,
  ZSIFN_VXCONNX = 51,
  ZSIFN_zrtVXCONNX = 52,
};

// The family argument of the connect entries: which exports were used.
constexpr int32_t kPlainFamily = 0;
constexpr int32_t kAlternativeFamily = 1;
// The reserved argument of qmDISC, qmGET and qmPUT.
constexpr int32_t kReserved = 0;
// VXPUT traces at most this much of the message.
constexpr int32_t kTracedMessageBytes = 32;

// Runs one queue-manager call inside the wrapper's frame: the entry marker
// before it, the exit marker with the reason it set after it.  A caller
// without a reason variable gets an exit marker with reason 0.
template <typename Call>
void inFrame(int32_t function, const int32_t *pReason, Call call) {
  zaiFRAME frame = zaiFramePush(ZSI_COMPONENT, function);
  call();
  zaiFramePop(&frame, pReason ? *pReason : RC_NONE);
}

// A handle the caller holds, or 0 when it gave no variable.
int32_t handleIn(const int32_t *pHandle) { return pHandle ? *pHandle : 0; }

// A process made by fork inherits its parent's connection state, which is
// not its own: the child starts from none.
void forgetParentConnections() {
  svcCONTROLBLOCK *block = svcControlBlock();
  if (block && memcmp(block->eyeCatcher, "XIH ", 4) == 0 && processAnchor.owningPid != 0 &&
      processAnchor.owningPid != svcGetPid())
    svcResetControlBlock();
}

}  // namespace

extern "C" {

void VXCONN(char *QMgrName, int32_t *pHconn, int32_t *pCompCode, int32_t *pReason) {
  forgetParentConnections();
  inFrame(ZSIFN_VXCONN, pReason,
          [&] { qmCONN(QMgrName, pHconn, pCompCode, pReason, kPlainFamily); });
}

void VXCONNX(char *QMgrName, void *pConnectOpts, int32_t *pHconn, int32_t *pCompCode,
             int32_t *pReason) {
  inFrame(ZSIFN_VXCONNX, pReason,
          [&] { qmCONNX(QMgrName, pConnectOpts, pHconn, pCompCode, pReason, kPlainFamily); });
}

void zrtVXCONN(char *QMgrName, int32_t *pHconn, int32_t *pCompCode, int32_t *pReason) {
  inFrame(ZSIFN_zrtVXCONN, pReason,
          [&] { qmCONN(QMgrName, pHconn, pCompCode, pReason, kAlternativeFamily); });
}

void zrtVXCONNX(char *QMgrName, void *pConnectOpts, int32_t *pHconn, int32_t *pCompCode,
                int32_t *pReason) {
  inFrame(ZSIFN_zrtVXCONNX, pReason,
          [&] { qmCONNX(QMgrName, pConnectOpts, pHconn, pCompCode, pReason, kAlternativeFamily); });
}

void VXDISC(int32_t *pHconn, int32_t *pCompCode, int32_t *pReason) {
  inFrame(ZSIFN_VXDISC, pReason, [&] { qmDISC(pHconn, kReserved, pCompCode, pReason); });
}

void VXOPEN(int32_t Hconn, void *pObjDesc, int32_t Options, int32_t *pHobj, int32_t *pCompCode,
            int32_t *pReason) {
  inFrame(ZSIFN_VXOPEN, pReason, [&] {
    qmOPEN(Hconn, pObjDesc, Options, pHobj, pCompCode, pReason);
    if (!zaiTraceOn()) return;
    // The descriptor as the queue manager left it: after opening a model
    // queue it names the new queue.
    int32_t objectType = 0;
    char objectName[Q_NAME_LENGTH + 1] = "";
    if (pObjDesc &&
        svcCheckPointer(pObjDesc, offsetof(vxOBJDESC, objectQMgrName), SVC_CHECK_READ) == 0) {
      const char *descriptor = static_cast<const char *>(pObjDesc);
      objectType = zaiGetField(descriptor, offsetof(vxOBJDESC, objectType));
      memcpy(objectName, descriptor + offsetof(vxOBJDESC, objectName), Q_NAME_LENGTH);
    }
    char line[128];
    snprintf(line, sizeof line, "ObjHandle=%d ObjType=%d ObjName=%.48s", handleIn(pHobj),
             objectType, objectName);
    trcText(ZSI_COMPONENT, ZSIFN_VXOPEN, line);
  });
}

void VXCLOSE(int32_t Hconn, int32_t *pHobj, int32_t Options, int32_t *pCompCode, int32_t *pReason) {
  inFrame(ZSIFN_VXCLOSE, pReason, [&] {
    // Traced before the call: the close resets the caller's handle.
    if (zaiTraceOn()) {
      char line[32];
      snprintf(line, sizeof line, "ObjHandle=%d", handleIn(pHobj));
      trcText(ZSI_COMPONENT, ZSIFN_VXCLOSE, line);
    }
    qmCLOSE(Hconn, pHobj, Options, pCompCode, pReason);
  });
}

void VXGET(int32_t Hconn, int32_t Hobj, void *pMsgDesc, void *pGetMsgOpts, int32_t BufferLength,
           void *pBuffer, int32_t *pDataLength, int32_t *pCompCode, int32_t *pReason) {
  inFrame(ZSIFN_VXGET, pReason, [&] {
    qmGET(Hconn, Hobj, pMsgDesc, pGetMsgOpts, BufferLength, pBuffer, pDataLength, kReserved,
          pCompCode, pReason);
  });
}

void VXPUT(int32_t Hconn, int32_t Hobj, void *pMsgDesc, void *pPutMsgOpts, int32_t BufferLength,
           void *pBuffer, int32_t *pCompCode, int32_t *pReason) {
  inFrame(ZSIFN_VXPUT, pReason, [&] {
    qmPUT(Hconn, Hobj, pMsgDesc, pPutMsgOpts, BufferLength, pBuffer, kReserved, pCompCode, pReason);
    if (!zaiTraceOn()) return;
    char line[64];
    snprintf(line, sizeof line, "ObjHandle=%d BufferLen=%d", Hobj, BufferLength);
    trcText(ZSI_COMPONENT, ZSIFN_VXPUT, line);
    // The head of the message; a negative length shows as its value modulo
    // 65536.  Memory that cannot be read is not shown.
    int32_t shown =
        (BufferLength > kTracedMessageBytes ? kTracedMessageBytes : BufferLength) & 0xFFFF;
    bool readable = pBuffer && shown > 0 && svcCheckPointer(pBuffer, shown, SVC_CHECK_READ) == 0;
    trcData(ZSI_COMPONENT, ZSIFN_VXPUT, readable ? pBuffer : nullptr, shown);
  });
}

void VXPUT1(int32_t Hconn, void *pObjDesc, void *pMsgDesc, void *pPutMsgOpts, int32_t BufferLength,
            void *pBuffer, int32_t *pCompCode, int32_t *pReason) {
  inFrame(ZSIFN_VXPUT1, pReason, [&] {
    qmPUT1(Hconn, pObjDesc, pMsgDesc, pPutMsgOpts, BufferLength, pBuffer, pCompCode, pReason);
  });
}

void VXINQ(int32_t Hconn, int32_t Hobj, int32_t SelectorCount, int32_t *pSelectors,
           int32_t IntAttrCount, int32_t *pIntAttrs, int32_t CharAttrLength, char *pCharAttrs,
           int32_t *pCompCode, int32_t *pReason) {
  inFrame(ZSIFN_VXINQ, pReason, [&] {
    qmINQ(Hconn, Hobj, SelectorCount, pSelectors, IntAttrCount, pIntAttrs, CharAttrLength,
          pCharAttrs, pCompCode, pReason);
  });
}

void VXSET(int32_t Hconn, int32_t Hobj, int32_t SelectorCount, int32_t *pSelectors,
           int32_t IntAttrCount, int32_t *pIntAttrs, int32_t CharAttrLength, char *pCharAttrs,
           int32_t *pCompCode, int32_t *pReason) {
  inFrame(ZSIFN_VXSET, pReason, [&] {
    qmSET(Hconn, Hobj, SelectorCount, pSelectors, IntAttrCount, pIntAttrs, CharAttrLength,
          pCharAttrs, pCompCode, pReason);
  });
}

void VXCMIT(int32_t Hconn, int32_t *pCompCode, int32_t *pReason) {
  inFrame(ZSIFN_VXCMIT, pReason, [&] { qmCMIT(Hconn, pCompCode, pReason); });
}

void VXBACK(int32_t Hconn, int32_t *pCompCode, int32_t *pReason) {
  inFrame(ZSIFN_VXBACK, pReason, [&] { qmBACK(Hconn, pCompCode, pReason); });
}

void VXBEGIN(int32_t Hconn, void *pBeginOpts, int32_t *pCompCode, int32_t *pReason) {
  inFrame(ZSIFN_VXBEGIN, pReason, [&] { qmBEGIN(Hconn, pBeginOpts, pCompCode, pReason); });
}

}  // extern "C"
