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

uint32_t vxPad(const char *pString, int32_t BufferLength, char *pBuffer, int32_t *pCompCode,
               int32_t *pReason) {
  return zaiVXPad(pString, BufferLength, pBuffer, pCompCode, pReason);
}

uint32_t vxTrim(int32_t BufferLength, const char *pBuffer, char *pString, int32_t *pCompCode,
                int32_t *pReason) {
  return zaiVXTrim(BufferLength, pBuffer, pString, pCompCode, pReason);
}

}  // extern "C"
