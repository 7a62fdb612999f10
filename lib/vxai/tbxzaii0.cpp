// The exported bag calls.  Each forwards to its API-layer function and
// nothing else: thread set-up, trace and checks all live there.
#include "vxai_internal.h"

extern "C" {

uint32_t vxCreateBag(int32_t Options, VXHBAG *pBag, int32_t *pCompCode, int32_t *pReason) {
  return zaiVXCreateBag(Options, pBag, pCompCode, pReason);
}

uint32_t vxDeleteBag(VXHBAG *pBag, int32_t *pCompCode, int32_t *pReason) {
  return zaiVXDeleteBag(pBag, pCompCode, pReason);
}

uint32_t vxClearBag(VXHBAG Bag, int32_t *pCompCode, int32_t *pReason) {
  return zaiVXClearBag(Bag, pCompCode, pReason);
}

uint32_t vxTruncateBag(VXHBAG Bag, int32_t ItemCount, int32_t *pCompCode, int32_t *pReason) {
  return zaiVXTruncateBag(Bag, ItemCount, pCompCode, pReason);
}

uint32_t vxAddInteger(VXHBAG Bag, int32_t Selector, int32_t ItemValue, int32_t *pCompCode,
                      int32_t *pReason) {
  return zaiVXAddInteger(Bag, Selector, ItemValue, pCompCode, pReason);
}

uint32_t vxSetInteger(VXHBAG Bag, int32_t Selector, int32_t ItemIndex, int32_t ItemValue,
                      int32_t *pCompCode, int32_t *pReason) {
  return zaiVXSetInteger(Bag, Selector, ItemIndex, ItemValue, pCompCode, pReason);
}

uint32_t vxInquireInteger(VXHBAG Bag, int32_t Selector, int32_t ItemIndex, int32_t *pItemValue,
                          int32_t *pCompCode, int32_t *pReason) {
  return zaiVXInquireInteger(Bag, Selector, ItemIndex, pItemValue, pCompCode, pReason);
}

uint32_t vxAddInquiry(VXHBAG Bag, int32_t Selector, int32_t *pCompCode, int32_t *pReason) {
  return zaiVXAddInquiry(Bag, Selector, pCompCode, pReason);
}

uint32_t vxAddString(VXHBAG Bag, int32_t Selector, int32_t BufferLength, const char *pBuffer,
                     int32_t *pCompCode, int32_t *pReason) {
  return zaiVXAddString(Bag, Selector, BufferLength, pBuffer, pCompCode, pReason);
}

uint32_t vxSetString(VXHBAG Bag, int32_t Selector, int32_t ItemIndex, int32_t BufferLength,
                     const char *pBuffer, int32_t *pCompCode, int32_t *pReason) {
  return zaiVXSetString(Bag, Selector, ItemIndex, BufferLength, pBuffer, pCompCode, pReason);
}

uint32_t vxInquireString(VXHBAG Bag, int32_t Selector, int32_t ItemIndex, int32_t BufferLength,
                         char *pBuffer, int32_t *pStringLength, int32_t *pCodedCharSetId,
                         int32_t *pCompCode, int32_t *pReason) {
  return zaiVXInquireString(Bag, Selector, ItemIndex, BufferLength, pBuffer, pStringLength,
                            pCodedCharSetId, pCompCode, pReason);
}

uint32_t vxInquireBag(VXHBAG Bag, int32_t Selector, int32_t ItemIndex, VXHBAG *pItemValue,
                      int32_t *pCompCode, int32_t *pReason) {
  return zaiVXInquireBag(Bag, Selector, ItemIndex, pItemValue, pCompCode, pReason);
}

uint32_t vxInquireItemInfo(VXHBAG Bag, int32_t Selector, int32_t ItemIndex, int32_t *pOutSelector,
                           int32_t *pItemType, int32_t *pCompCode, int32_t *pReason) {
  return zaiVXInquireItemInfo(Bag, Selector, ItemIndex, pOutSelector, pItemType, pCompCode,
                              pReason);
}

uint32_t vxCountItems(VXHBAG Bag, int32_t Selector, int32_t *pItemCount, int32_t *pCompCode,
                      int32_t *pReason) {
  return zaiVXCountItems(Bag, Selector, pItemCount, pCompCode, pReason);
}

uint32_t vxDeleteItem(VXHBAG Bag, int32_t Selector, int32_t ItemIndex, int32_t *pCompCode,
                      int32_t *pReason) {
  return zaiVXDeleteItem(Bag, Selector, ItemIndex, pCompCode, pReason);
}

uint32_t vxPad(const char *pString, int32_t BufferLength, char *pBuffer, int32_t *pCompCode,
               int32_t *pReason) {
  return zaiVXPad(pString, BufferLength, pBuffer, pCompCode, pReason);
}

uint32_t vxTrim(int32_t BufferLength, const char *pBuffer, char *pString, int32_t *pCompCode,
                int32_t *pReason) {
  return zaiVXTrim(BufferLength, pBuffer, pString, pCompCode, pReason);
}

uint32_t vxExecute(VXHCONN Hconn, int32_t Command, VXHBAG OptionsBag, VXHBAG RequestBag,
                   VXHBAG ReplyBag, VXHOBJ Requestq, VXHOBJ Replyq, int32_t *pCompCode,
                   int32_t *pReason) {
  return zaiVXExecute(Hconn, Command, OptionsBag, RequestBag, ReplyBag, Requestq, Replyq, pCompCode,
                      pReason);
}

uint32_t vxPutBag(VXHCONN Hconn, VXHOBJ Hobj, void *pMsgDesc, void *pPutMsgOpts, VXHBAG Bag,
                  int32_t *pCompCode, int32_t *pReason) {
  return zaiVXPutBag(Hconn, Hobj, pMsgDesc, pPutMsgOpts, Bag, pCompCode, pReason);
}

uint32_t vxGetBag(VXHCONN Hconn, VXHOBJ Hobj, void *pMsgDesc, void *pGetMsgOpts, VXHBAG Bag,
                  int32_t *pCompCode, int32_t *pReason) {
  return zaiVXGetBag(Hconn, Hobj, pMsgDesc, pGetMsgOpts, Bag, pCompCode, pReason);
}

uint32_t vxBufferToBag(VXHBAG OptionsBag, int32_t BufferLength, const void *pBuffer, VXHBAG DataBag,
                       int32_t *pCompCode, int32_t *pReason) {
  return zaiVXBufferToBag(OptionsBag, BufferLength, pBuffer, DataBag, pCompCode, pReason);
}

uint32_t vxBagToBuffer(VXHBAG OptionsBag, VXHBAG DataBag, int32_t BufferLength, void *pBuffer,
                       int32_t *pDataLength, int32_t *pCompCode, int32_t *pReason) {
  return zaiVXBagToBuffer(OptionsBag, DataBag, BufferLength, pBuffer, pDataLength, pCompCode,
                          pReason);
}

}  // extern "C"
