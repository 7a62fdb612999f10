/*
 * VXAI: the administration-interface library.
 *
 * Administration programs build bags (ordered items: a selector with an
 * integer, a string or a nested bag), turn them into command messages, send
 * them to the queue manager's command server and read every reply back as
 * bags.  Every call reports through a completion code and a reason code, its
 * last two arguments; the value a call returns is its exit marker (reason
 * << 16 | function identifier), kept for diagnostics only.
 *
 * The values of the constants below never change and are never reused.
 *
 * This header compiles as C99 and as C++.
 */
#ifndef VXAI_H
#define VXAI_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define VXAI_EXPORT __attribute__((visibility("default")))

/* Handles: a bag handle is the address of the bag, as a 32-bit value. */
typedef int32_t VXHBAG;
typedef int32_t VXHCONN;
typedef int32_t VXHOBJ;

#define BAG_NONE (-2)
#define HOBJ_NONE 0
#define HOBJ_UNUSABLE (-1)

/* Item types */
#define ITEM_TYPE_INTEGER 1
#define ITEM_TYPE_STRING 2
#define ITEM_TYPE_BAG 3

/* System selectors, present in every bag */
#define SEL_CODED_CHAR_SET_ID (-1)
#define SEL_PCF_TYPE (-2)
#define SEL_COMMAND (-3)
#define SEL_MSG_SEQ_NUMBER (-4)
#define SEL_CONTROL (-5)
#define SEL_COMP_CODE (-6)
#define SEL_REASON (-7)
#define SEL_BAG_OPTIONS (-8)

/* Wildcard selectors */
#define SEL_ANY_SELECTOR (-30001)
#define SEL_ANY_USER_SELECTOR (-30002)
#define SEL_ANY_SYSTEM_SELECTOR (-30003)

/* User selectors with a meaning of their own */
#define SEL_INQUIRY_ITEM 1074
#define PARM_WAIT_INTERVAL 1075
#define SEL_NESTED_REPLY_BAG 4001

/* Item indexes */
#define ITEM_INDEX_NONE (-1)
#define ITEM_INDEX_ALL (-2)

/* Bag-creation options */
#define BAG_OPT_ADMIN_BAG 0x01
#define BAG_OPT_LIST_FORM_ALLOWED 0x02
#define BAG_OPT_REQUIRED_PARMS_FIRST 0x04
#define BAG_OPT_CHECK_SELECTORS 0x08
#define BAG_OPT_COMMAND_BAG 0x10
#define BAG_OPT_SYSTEM_BAG 0x20 /* internal: never accepted from a caller */

/* Control value of the last (or only) message of a set */
#define PCF_CONTROL_LAST 1

/* Message formats (8 characters, blank padded) and the one encoding */
#define VX_FORMAT_ADMIN "VXADMIN "
#define VX_FORMAT_EVENT "VXEVENT "
#define VX_FORMAT_PCF "VXPCF   "
#define ENCODING_NATIVE 546

/* Completion codes */
#define CC_OK 0
#define CC_WARNING 1
#define CC_FAILED 2

/* Reason codes */
#define RC_NONE 0
#define RC_BUFFER_ERROR 2004
#define RC_BUFFER_LENGTH_ERROR 2005
#define RC_DATA_LENGTH_ERROR 2010
#define RC_MSG_DESCRIPTOR_ERROR 2026
#define RC_NO_MSG_AVAILABLE 2033
#define RC_OPTIONS_ERROR 2046
#define RC_STORAGE_NOT_AVAILABLE 2071
#define RC_MSG_TRUNCATED_ACCEPTED 2079
#define RC_MSG_TRUNCATED 2080
#define RC_WAIT_INTERVAL_ERROR 2090
#define RC_GET_OPTIONS_ERROR 2186
#define RC_COMMAND_TYPE_ERROR 2300
#define RC_SELECTOR_SET_NOT_ALLOWED 2302
#define RC_PCF_FORMAT_ERROR 2303
#define RC_SELECTOR_OUT_OF_RANGE 2304
#define RC_SELECTOR_NOT_UNIQUE 2305
#define RC_INDEX_NOT_PRESENT 2306
#define RC_STRING_ERROR 2307
#define RC_ENCODING_NOT_SUPPORTED 2308
#define RC_SELECTOR_NOT_PRESENT 2309
#define RC_OUT_SELECTOR_ERROR 2310
#define RC_STRING_TRUNCATED 2311
#define RC_SELECTOR_WRONG_TYPE 2312
#define RC_INCONSISTENT_ITEM_TYPE 2313
#define RC_INDEX_ERROR 2314
#define RC_SYSTEM_BAG_NOT_ALTERABLE 2315
#define RC_ITEM_COUNT_ERROR 2316
#define RC_FORMAT_NOT_SUPPORTED 2317
#define RC_SYSTEM_ITEM_NOT_ALTERABLE 2318
#define RC_ITEM_VALUE_ERROR 2319
#define RC_BAG_HANDLE_ERROR 2320
#define RC_PARAMETER_MISSING 2321
#define RC_COMMAND_SERVER_NOT_AVAILABLE 2322
#define RC_STRING_LENGTH_ERROR 2323
#define RC_COMMAND_HAS_NO_INQUIRY 2324
#define RC_NESTED_BAG_NOT_SUPPORTED 2325
#define RC_BAG_WRONG_TYPE 2326
#define RC_ITEM_TYPE_ERROR 2327
#define RC_SYSTEM_BAG_NOT_DELETABLE 2328
#define RC_SYSTEM_ITEM_NOT_DELETABLE 2329
#define RC_CCSID_ERROR 2330
#define RC_COMMAND_FAILED 3008

/* Bags */
VXAI_EXPORT uint32_t vxCreateBag(int32_t Options, VXHBAG *pBag, int32_t *pCompCode,
                                 int32_t *pReason);
VXAI_EXPORT uint32_t vxDeleteBag(VXHBAG *pBag, int32_t *pCompCode, int32_t *pReason);
VXAI_EXPORT uint32_t vxClearBag(VXHBAG Bag, int32_t *pCompCode, int32_t *pReason);
VXAI_EXPORT uint32_t vxTruncateBag(VXHBAG Bag, int32_t ItemCount, int32_t *pCompCode,
                                   int32_t *pReason);

/* Integer items */
VXAI_EXPORT uint32_t vxAddInteger(VXHBAG Bag, int32_t Selector, int32_t ItemValue,
                                  int32_t *pCompCode, int32_t *pReason);
VXAI_EXPORT uint32_t vxSetInteger(VXHBAG Bag, int32_t Selector, int32_t ItemIndex,
                                  int32_t ItemValue, int32_t *pCompCode, int32_t *pReason);
VXAI_EXPORT uint32_t vxInquireInteger(VXHBAG Bag, int32_t Selector, int32_t ItemIndex,
                                      int32_t *pItemValue, int32_t *pCompCode, int32_t *pReason);
VXAI_EXPORT uint32_t vxAddInquiry(VXHBAG Bag, int32_t Selector, int32_t *pCompCode,
                                  int32_t *pReason);

/* String items: a buffer length of -1 means a null-terminated string */
VXAI_EXPORT uint32_t vxAddString(VXHBAG Bag, int32_t Selector, int32_t BufferLength,
                                 const char *pBuffer, int32_t *pCompCode, int32_t *pReason);
VXAI_EXPORT uint32_t vxSetString(VXHBAG Bag, int32_t Selector, int32_t ItemIndex,
                                 int32_t BufferLength, const char *pBuffer, int32_t *pCompCode,
                                 int32_t *pReason);
VXAI_EXPORT uint32_t vxInquireString(VXHBAG Bag, int32_t Selector, int32_t ItemIndex,
                                     int32_t BufferLength, char *pBuffer, int32_t *pStringLength,
                                     int32_t *pCodedCharSetId, int32_t *pCompCode,
                                     int32_t *pReason);

/* Nested bags, item information, counting and removal */
VXAI_EXPORT uint32_t vxInquireBag(VXHBAG Bag, int32_t Selector, int32_t ItemIndex,
                                  VXHBAG *pItemValue, int32_t *pCompCode, int32_t *pReason);
VXAI_EXPORT uint32_t vxInquireItemInfo(VXHBAG Bag, int32_t Selector, int32_t ItemIndex,
                                       int32_t *pOutSelector, int32_t *pItemType,
                                       int32_t *pCompCode, int32_t *pReason);
VXAI_EXPORT uint32_t vxCountItems(VXHBAG Bag, int32_t Selector, int32_t *pItemCount,
                                  int32_t *pCompCode, int32_t *pReason);
VXAI_EXPORT uint32_t vxDeleteItem(VXHBAG Bag, int32_t Selector, int32_t ItemIndex,
                                  int32_t *pCompCode, int32_t *pReason);

/* Commands and bag messages */
VXAI_EXPORT uint32_t vxExecute(VXHCONN Hconn, int32_t Command, VXHBAG OptionsBag, VXHBAG RequestBag,
                               VXHBAG ReplyBag, VXHOBJ Requestq, VXHOBJ Replyq, int32_t *pCompCode,
                               int32_t *pReason);
VXAI_EXPORT uint32_t vxPutBag(VXHCONN Hconn, VXHOBJ Hobj, void *pMsgDesc, void *pPutMsgOpts,
                              VXHBAG Bag, int32_t *pCompCode, int32_t *pReason);
VXAI_EXPORT uint32_t vxGetBag(VXHCONN Hconn, VXHOBJ Hobj, void *pMsgDesc, void *pGetMsgOpts,
                              VXHBAG Bag, int32_t *pCompCode, int32_t *pReason);
VXAI_EXPORT uint32_t vxBufferToBag(VXHBAG OptionsBag, int32_t BufferLength, const void *pBuffer,
                                   VXHBAG DataBag, int32_t *pCompCode, int32_t *pReason);
VXAI_EXPORT uint32_t vxBagToBuffer(VXHBAG OptionsBag, VXHBAG DataBag, int32_t BufferLength,
                                   void *pBuffer, int32_t *pDataLength, int32_t *pCompCode,
                                   int32_t *pReason);

/* Blank-padded fields and null-terminated strings */
VXAI_EXPORT uint32_t vxPad(const char *pString, int32_t BufferLength, char *pBuffer,
                           int32_t *pCompCode, int32_t *pReason);
VXAI_EXPORT uint32_t vxTrim(int32_t BufferLength, const char *pBuffer, char *pString,
                            int32_t *pCompCode, int32_t *pReason);

#ifdef __cplusplus
}
#endif

#endif /* VXAI_H */
