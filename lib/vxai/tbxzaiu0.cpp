// Pad and trim: between null-terminated strings and the blank-padded
// fixed-length fields of the queue interface.
#include <string.h>

#include "vxai_internal.h"

extern "C" {

uint32_t zaiVXPad(const char *pString, int32_t BufferLength, char *pBuffer, int32_t *pCompCode,
                  int32_t *pReason) {
  const auto parms = [&] {
    return std::to_array<zaiAPIPARM>({
        {"String", "String", ZAI_PARM_IN_STRING, pString, nullptr},
        zaiParmBufferLength(&BufferLength),
        {"Buffer", "Buffer", ZAI_PARM_OUT_BUFFER, pBuffer, &BufferLength},
    });
  };
  zaiAPICALL call;
  zaiApiBegin(&call, ZAIFN_zaiVXPad, "vxPad", pCompCode, pReason);
  zaiApiTraceEntry(&call, parms);
  int32_t *cc = call.pCompCode, *rc = call.pReason;
  int32_t stringLength = 0;  // a null string pads like an empty one
  if (BufferLength < 0) {
    zaiFail(cc, rc, RC_BUFFER_LENGTH_ERROR);
  } else if (BufferLength > 0 &&
             (!pBuffer || svcCheckPointer(pBuffer, BufferLength, SVC_CHECK_WRITE) != 0)) {
    zaiFail(cc, rc, RC_BUFFER_ERROR);
  }
  if (*cc == CC_OK && pString) {
    stringLength = zaiSafeStringLength(pString);
    if (stringLength < 0) zaiFail(cc, rc, RC_STRING_ERROR);
  }
  if (*cc == CC_OK) {
    zaiPadString(pString, pBuffer, BufferLength);
    if (stringLength > BufferLength) {
      *cc = CC_WARNING;
      *rc = RC_STRING_TRUNCATED;
    }
  }
  return zaiApiEnd(&call, parms);
}

uint32_t zaiVXTrim(int32_t BufferLength, const char *pBuffer, char *pString, int32_t *pCompCode,
                   int32_t *pReason) {
  const auto parms = [&] {
    return std::to_array<zaiAPIPARM>({
        zaiParmBufferLength(&BufferLength),
        {"Buffer", "Buffer", ZAI_PARM_IN_BUFFER, pBuffer, &BufferLength},
        {"String", "String", ZAI_PARM_OUT_STRING, pString, nullptr},
    });
  };
  zaiAPICALL call;
  zaiApiBegin(&call, ZAIFN_zaiVXTrim, "vxTrim", pCompCode, pReason);
  zaiApiTraceEntry(&call, parms);
  int32_t *cc = call.pCompCode, *rc = call.pReason;
  if (BufferLength < 0) {
    zaiFail(cc, rc, RC_BUFFER_LENGTH_ERROR);
  } else if (BufferLength > 0 &&
             (!pBuffer || svcCheckPointer(pBuffer, BufferLength, SVC_CHECK_READ) != 0)) {
    zaiFail(cc, rc, RC_BUFFER_ERROR);
  }
  // The string takes the whole field and its terminator.
  if (*cc == CC_OK && (BufferLength == INT32_MAX ||
                       svcCheckPointer(pString, BufferLength + 1, SVC_CHECK_WRITE) != 0))
    zaiFail(cc, rc, RC_STRING_ERROR);
  if (*cc == CC_OK) zaiTrimBuffer(pBuffer, BufferLength, pString);
  return zaiApiEnd(&call, parms);
}

char *zaiPadString(const char *string, char *buffer, int32_t bufferLength) {
  zaiFRAME frame = zaiFramePush(ZAI_COMPONENT, ZAIFN_zaiPadString);
  int32_t length = string ? static_cast<int32_t>(strlen(string)) : 0;
  if (bufferLength > 0) {
    int32_t copied = length < bufferLength ? length : bufferLength;
    if (copied > 0 && string != buffer) memmove(buffer, string, static_cast<size_t>(copied));
    if (length < bufferLength)
      memset(buffer + length, ' ', static_cast<size_t>(bufferLength - length));
  }
  zaiFramePop(&frame, RC_NONE);
  return buffer;
}

char *zaiTrimBuffer(const char *buffer, int32_t bufferLength, char *string) {
  zaiFRAME frame = zaiFramePush(ZAI_COMPONENT, ZAIFN_zaiTrimBuffer);
  // The string has room for bufferLength + 1 bytes: a negative length leaves
  // none, and the terminator would land before the string.  Write nothing.
  if (bufferLength < 0) {
    zaiFramePop(&frame, RC_NONE);
    return string;
  }
  if (buffer != string && bufferLength > 0)
    memmove(string, buffer, static_cast<size_t>(bufferLength));
  // Only blanks are trimmed: a field that ends in nulls keeps them.
  int32_t end = bufferLength;
  while (end > 0 && string[end - 1] == ' ') --end;
  string[end] = '\0';
  zaiFramePop(&frame, RC_NONE);
  return string;
}

}  // extern "C"
