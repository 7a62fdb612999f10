/*
 * The queue interface: the calls VXCONN ... VXBEGIN that the bag library
 * exports as traced wrappers of the queue manager's entries, with the
 * records, constants and reason codes they take (vxqi_records.h).
 *
 * This header compiles as C99 and as C++.
 */
#ifndef VXQI_H
#define VXQI_H

#include <stdint.h>

#include "vxqi_records.h"

#ifdef __cplusplus
extern "C" {
#endif

#ifndef VXAI_EXPORT
#define VXAI_EXPORT __attribute__((visibility("default")))
#endif

/* ---------------------------------------------------------------------- */
/* The calls                                                              */
/* ---------------------------------------------------------------------- */

/* Each call records a trace frame and forwards its arguments unchanged to
 * the queue manager; the outcome is in CompCode and Reason. */
VXAI_EXPORT void VXCONN(char *QMgrName, int32_t *pHconn, int32_t *pCompCode, int32_t *pReason);
VXAI_EXPORT void VXCONNX(char *QMgrName, void *pConnectOpts, int32_t *pHconn, int32_t *pCompCode,
                         int32_t *pReason);
VXAI_EXPORT void zrtVXCONN(char *QMgrName, int32_t *pHconn, int32_t *pCompCode, int32_t *pReason);
VXAI_EXPORT void zrtVXCONNX(char *QMgrName, void *pConnectOpts, int32_t *pHconn, int32_t *pCompCode,
                            int32_t *pReason);
VXAI_EXPORT void VXDISC(int32_t *pHconn, int32_t *pCompCode, int32_t *pReason);
VXAI_EXPORT void VXOPEN(int32_t Hconn, void *pObjDesc, int32_t Options, int32_t *pHobj,
                        int32_t *pCompCode, int32_t *pReason);
VXAI_EXPORT void VXCLOSE(int32_t Hconn, int32_t *pHobj, int32_t Options, int32_t *pCompCode,
                         int32_t *pReason);
VXAI_EXPORT void VXGET(int32_t Hconn, int32_t Hobj, void *pMsgDesc, void *pGetMsgOpts,
                       int32_t BufferLength, void *pBuffer, int32_t *pDataLength,
                       int32_t *pCompCode, int32_t *pReason);
VXAI_EXPORT void VXPUT(int32_t Hconn, int32_t Hobj, void *pMsgDesc, void *pPutMsgOpts,
                       int32_t BufferLength, void *pBuffer, int32_t *pCompCode, int32_t *pReason);
VXAI_EXPORT void VXPUT1(int32_t Hconn, void *pObjDesc, void *pMsgDesc, void *pPutMsgOpts,
                        int32_t BufferLength, void *pBuffer, int32_t *pCompCode, int32_t *pReason);
VXAI_EXPORT void VXINQ(int32_t Hconn, int32_t Hobj, int32_t SelectorCount, int32_t *pSelectors,
                       int32_t IntAttrCount, int32_t *pIntAttrs, int32_t CharAttrLength,
                       char *pCharAttrs, int32_t *pCompCode, int32_t *pReason);
VXAI_EXPORT void VXSET(int32_t Hconn, int32_t Hobj, int32_t SelectorCount, int32_t *pSelectors,
                       int32_t IntAttrCount, int32_t *pIntAttrs, int32_t CharAttrLength,
                       char *pCharAttrs, int32_t *pCompCode, int32_t *pReason);
VXAI_EXPORT void VXCMIT(int32_t Hconn, int32_t *pCompCode, int32_t *pReason);
VXAI_EXPORT void VXBACK(int32_t Hconn, int32_t *pCompCode, int32_t *pReason);
VXAI_EXPORT void VXBEGIN(int32_t Hconn, void *pBeginOpts, int32_t *pCompCode, int32_t *pReason);

#ifdef __cplusplus
}
#endif

#endif /* VXQI_H */
