/*
 * The queue manager's entries: the calls a program makes to connect to a
 * queue manager, open queues, put and get messages, inquire and set
 * attributes, and commit or back out units of work.  The records and
 * constants they take are those of vxqi.h.
 *
 * The library that wraps them (VXCONN ... VXBEGIN in libvxai.so) reaches them
 * only through these dynamic symbols, so a program that defines all thirteen
 * itself puts its own queue manager in the place of libvxqm.so.
 *
 * Every entry may be called from any thread, never throws, and reports
 * through CompCode and Reason.  The "Zero" arguments are reserved and are
 * always 0.  Family is 0 for the plain connect entries, 1 for the alternative
 * ones; both reach the same queue managers.
 *
 * This header compiles as C99 and as C++.
 */
#ifndef VX_QM_H
#define VX_QM_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define QM_EXPORT __attribute__((visibility("default")))

QM_EXPORT void qmCONN(char *QMgrName, int32_t *pHconn, int32_t *pCompCode, int32_t *pReason,
                      int32_t Family);
QM_EXPORT void qmCONNX(char *QMgrName, void *pConnectOpts, int32_t *pHconn, int32_t *pCompCode,
                       int32_t *pReason, int32_t Family);
QM_EXPORT void qmDISC(int32_t *pHconn, int32_t Zero, int32_t *pCompCode, int32_t *pReason);
QM_EXPORT void qmOPEN(int32_t Hconn, void *pObjDesc, int32_t Options, int32_t *pHobj,
                      int32_t *pCompCode, int32_t *pReason);
QM_EXPORT void qmCLOSE(int32_t Hconn, int32_t *pHobj, int32_t Options, int32_t *pCompCode,
                       int32_t *pReason);
QM_EXPORT void qmGET(int32_t Hconn, int32_t Hobj, void *pMsgDesc, void *pGetMsgOpts,
                     int32_t BufferLength, void *pBuffer, int32_t *pDataLength, int32_t Zero,
                     int32_t *pCompCode, int32_t *pReason);
QM_EXPORT void qmPUT(int32_t Hconn, int32_t Hobj, void *pMsgDesc, void *pPutMsgOpts,
                     int32_t BufferLength, void *pBuffer, int32_t Zero, int32_t *pCompCode,
                     int32_t *pReason);
QM_EXPORT void qmPUT1(int32_t Hconn, void *pObjDesc, void *pMsgDesc, void *pPutMsgOpts,
                      int32_t BufferLength, void *pBuffer, int32_t *pCompCode, int32_t *pReason);
QM_EXPORT void qmINQ(int32_t Hconn, int32_t Hobj, int32_t SelectorCount, int32_t *pSelectors,
                     int32_t IntAttrCount, int32_t *pIntAttrs, int32_t CharAttrLength,
                     char *pCharAttrs, int32_t *pCompCode, int32_t *pReason);
QM_EXPORT void qmSET(int32_t Hconn, int32_t Hobj, int32_t SelectorCount, int32_t *pSelectors,
                     int32_t IntAttrCount, int32_t *pIntAttrs, int32_t CharAttrLength,
                     char *pCharAttrs, int32_t *pCompCode, int32_t *pReason);
QM_EXPORT void qmCMIT(int32_t Hconn, int32_t *pCompCode, int32_t *pReason);
QM_EXPORT void qmBACK(int32_t Hconn, int32_t *pCompCode, int32_t *pReason);
QM_EXPORT void qmBEGIN(int32_t Hconn, void *pBeginOpts, int32_t *pCompCode, int32_t *pReason);

#ifdef __cplusplus
}
#endif

#endif /* VX_QM_H */
