// The thirteen entries of the queue manager (qm.h).  Each one sets the
// caller's completion and reason codes, asks whether a test scripted its
// outcome, checks its arguments in their order, copies the caller's records
// to aligned storage, calls the core and copies the records back.  No
// exception leaves an entry: a failure of memory is RC_STORAGE_NOT_AVAILABLE,
// anything unforeseen RC_UNEXPECTED_ERROR.
#include <cstring>
#include <new>
#include <string>
#include <vector>

#include "hooks.h"
#include "qm.h"
#include "queue_manager.h"
#include "svc.h"

namespace vxqm {
namespace {

using hooks::Entry;

// What a handle variable holds after its connection or object was closed.
constexpr int32_t kUnusableHandle = -1;
// More selectors than there are attributes is surely a mistake.
constexpr int32_t kMostSelectors = 256;

constexpr int32_t kOpenOptions = OPEN_INPUT_AS_Q_DEF | OPEN_INPUT_SHARED | OPEN_INPUT_EXCLUSIVE |
                                 OPEN_BROWSE | OPEN_OUTPUT | OPEN_INQUIRE | OPEN_SET;
constexpr int32_t kPutOptions = PUT_SYNCPOINT | PUT_NO_SYNCPOINT;
constexpr int32_t kGetOptions = GET_WAIT | GET_SYNCPOINT | GET_NO_SYNCPOINT | GET_BROWSE_FIRST |
                                GET_BROWSE_NEXT | GET_ACCEPT_TRUNCATED_MSG | GET_CONVERT;

void require(bool condition, int32_t reason) {
  if (!condition) throw Failure{reason};
}

bool readable(const void *address, int32_t length) {
  return svcCheckPointer(address, length, SVC_CHECK_READ) == 0;
}

bool writable(const void *address, int32_t length) {
  return svcCheckPointer(address, length, SVC_CHECK_READ_WRITE) == 0;
}

// Runs an entry's body: the caller's pair (or a pair of its own when the
// caller gave none) receives the outcome.
template <typename Body>
void runEntry(Entry entry, int32_t *pCompCode, int32_t *pReason, Body body) {
  int32_t ownCompCode;
  int32_t ownReason;
  int32_t &compCode = pCompCode != nullptr ? *pCompCode : ownCompCode;
  int32_t &reason = pReason != nullptr ? *pReason : ownReason;
  compCode = CC_OK;
  reason = RC_NONE;
  Outcome outcome;
  try {
    const std::optional<Outcome> scripted = hooks::intercept(entry);
    outcome = scripted ? *scripted : body();
  } catch (const Failure &failure) {
    outcome = {CC_FAILED, failure.reason};
  } catch (const std::bad_alloc &) {
    outcome = {CC_FAILED, RC_STORAGE_NOT_AVAILABLE};
  } catch (...) {
    outcome = {CC_FAILED, RC_UNEXPECTED_ERROR};
  }
  compCode = outcome.compCode;
  reason = outcome.reason;
}

int32_t readInteger(const void *address) {
  int32_t value;
  std::memcpy(&value, address, sizeof value);
  return value;
}

void writeInteger(void *address, int32_t value) { std::memcpy(address, &value, sizeof value); }

// A queue manager's name: up to 48 characters or a zero byte, read only as
// far as it goes.
std::string readQueueManagerName(const char *name) {
  size_t length = 0;
  for (; length < QM_NAME_LENGTH; ++length) {
    const char *byte = name + length;
    if (length == 0 || reinterpret_cast<uintptr_t>(byte) % 4096 == 0) {
      require(readable(byte, 1), RC_Q_MGR_NAME_ERROR);
    }
    if (*byte == 0) break;
  }
  return queueManagerName(std::string(name, length));
}

// The caller's message descriptor, version 1 or 2, in a version-2 record
// (the extension of a version-1 descriptor takes its defaults).  Returns the
// caller's length.
int32_t readDescriptor(const void *caller, vxMSGDESC &md) {
  md = MD_DEFAULT;
  require(writable(caller, MD_LENGTH_1), RC_MSG_DESCRIPTOR_ERROR);
  std::memcpy(&md, caller, MD_LENGTH_1);
  const bool known = std::memcmp(md.structId, MD_STRUC_ID, 4) == 0 &&
                     (md.version == MD_VERSION_1 || md.version == MD_VERSION_2);
  require(known, RC_MSG_DESCRIPTOR_ERROR);
  if (md.version == MD_VERSION_1) return MD_LENGTH_1;
  require(writable(caller, MD_LENGTH_2), RC_MSG_DESCRIPTOR_ERROR);
  std::memcpy(&md, caller, MD_LENGTH_2);
  return MD_LENGTH_2;
}

// Reads a record of a structure id and version 1, checked readable and
// writable; `reason` when it is not one.
template <typename Record>
void readRecord(const void *caller, const char *structId, int32_t reason, Record &record) {
  require(writable(caller, sizeof record), reason);
  std::memcpy(&record, caller, sizeof record);
  require(std::memcmp(record.structId, structId, 4) == 0 && record.version == 1, reason);
}

void checkOpenOptions(int32_t options) {
  const int32_t input = options & (OPEN_INPUT_AS_Q_DEF | OPEN_INPUT_SHARED | OPEN_INPUT_EXCLUSIVE);
  const bool valid = options != 0 && (options & ~kOpenOptions) == 0 && (input & (input - 1)) == 0;
  require(valid, RC_OPTIONS_ERROR);
}

void checkPutOptions(const vxPUTOPTS &pmo) {
  require((pmo.options & ~kPutOptions) == 0 && (pmo.options & kPutOptions) != kPutOptions,
          RC_OPTIONS_ERROR);
}

void checkGetOptions(const vxGETOPTS &gmo) {
  const int32_t options = gmo.options;
  const int32_t syncpoint = GET_SYNCPOINT | GET_NO_SYNCPOINT;
  const int32_t browse = GET_BROWSE_FIRST | GET_BROWSE_NEXT;
  const bool valid = (options & ~kGetOptions) == 0 && (options & syncpoint) != syncpoint &&
                     (options & browse) != browse &&
                     !((options & browse) != 0 && (options & GET_SYNCPOINT) != 0);
  require(valid, RC_OPTIONS_ERROR);
  if ((options & GET_WAIT) != 0)
    require(gmo.waitInterval >= WAIT_UNLIMITED, RC_WAIT_INTERVAL_ERROR);
}

void checkBuffer(int32_t length, const void *buffer, bool forWriting) {
  require(length >= 0, RC_BUFFER_LENGTH_ERROR);
  if (length > 0)
    require(forWriting ? writable(buffer, length) : readable(buffer, length), RC_BUFFER_ERROR);
}

// The arguments that INQ and SET share, checked in their order.
std::vector<int32_t> readSelectors(int32_t selectorCount, const int32_t *pSelectors,
                                   int32_t intCount, const int32_t *pIntAttrs, int32_t charLength,
                                   const char *pCharAttrs, bool forWriting) {
  const int32_t mode = forWriting ? SVC_CHECK_READ_WRITE : SVC_CHECK_READ;
  require(selectorCount >= 0 && selectorCount <= kMostSelectors, RC_SELECTOR_COUNT_ERROR);
  if (selectorCount > 0) {
    require(readable(pSelectors, selectorCount * 4), RC_SELECTOR_ERROR);
  }
  require(intCount >= 0, RC_INT_ATTR_COUNT_ERROR);
  if (intCount > 0) {
    require(svcCheckPointer(pIntAttrs, intCount * 4, mode) == 0, RC_INT_ATTRS_ARRAY_ERROR);
  }
  require(charLength >= 0, RC_CHAR_ATTR_LENGTH_ERROR);
  if (charLength > 0) {
    require(svcCheckPointer(pCharAttrs, charLength, mode) == 0, RC_CHAR_ATTRS_ERROR);
  }
  std::vector<int32_t> selectors(selectorCount);
  if (selectorCount > 0) std::memcpy(selectors.data(), pSelectors, selectors.size() * 4);
  return selectors;
}

Outcome connect(char *name, void *pConnectOpts, bool extended, int32_t *pHconn) {
  require(name != nullptr, RC_Q_MGR_NAME_ERROR);
  const std::string qmName = readQueueManagerName(name);
  if (extended && pConnectOpts != nullptr) {
    require(readable(pConnectOpts, 4), RC_CONNECT_OPTIONS_ERROR);
  }
  require(writable(pHconn, 4), RC_HCONN_ERROR);
  writeInteger(pHconn, Registry::instance().connect(qmName));
  return {};
}

}  // namespace
}  // namespace vxqm

using namespace vxqm;

extern "C" {

void qmCONN(char *QMgrName, int32_t *pHconn, int32_t *pCompCode, int32_t *pReason,
            int32_t /*Family: both families reach the same queue managers*/) {
  runEntry(Entry::kConn, pCompCode, pReason,
           [&] { return connect(QMgrName, nullptr, false, pHconn); });
}

void qmCONNX(char *QMgrName, void *pConnectOpts, int32_t *pHconn, int32_t *pCompCode,
             int32_t *pReason, int32_t /*Family*/) {
  runEntry(Entry::kConnx, pCompCode, pReason,
           [&] { return connect(QMgrName, pConnectOpts, true, pHconn); });
}

void qmDISC(int32_t *pHconn, int32_t /*Zero*/, int32_t *pCompCode, int32_t *pReason) {
  runEntry(Entry::kDisc, pCompCode, pReason, [&] {
    require(writable(pHconn, 4), RC_HCONN_ERROR);
    Registry::instance().disconnect(readInteger(pHconn));
    writeInteger(pHconn, kUnusableHandle);
    return Outcome{};
  });
}

void qmOPEN(int32_t Hconn, void *pObjDesc, int32_t Options, int32_t *pHobj, int32_t *pCompCode,
            int32_t *pReason) {
  runEntry(Entry::kOpen, pCompCode, pReason, [&] {
    auto manager = Registry::instance().connected(Hconn);
    vxOBJDESC od;
    readRecord(pObjDesc, OD_STRUC_ID, RC_OBJECT_DESCRIPTOR_ERROR, od);
    checkOpenOptions(Options);
    require(writable(pHobj, 4), RC_HOBJ_ERROR);
    const int32_t hobj = manager->open(Hconn, od, Options);
    std::memcpy(static_cast<char *>(pObjDesc) + offsetof(vxOBJDESC, objectName), od.objectName,
                Q_NAME_LENGTH);
    writeInteger(pHobj, hobj);
    return Outcome{};
  });
}

void qmCLOSE(int32_t Hconn, int32_t *pHobj, int32_t Options, int32_t *pCompCode, int32_t *pReason) {
  runEntry(Entry::kClose, pCompCode, pReason, [&] {
    auto manager = Registry::instance().connected(Hconn);
    require(writable(pHobj, 4), RC_HOBJ_ERROR);
    const int32_t hobj = readInteger(pHobj);
    manager->checkHandles(Hconn, hobj);
    require(Options == CLOSE_NONE || Options == CLOSE_DELETE || Options == CLOSE_DELETE_PURGE,
            RC_OPTIONS_ERROR);
    manager->close(Hconn, hobj, Options);
    writeInteger(pHobj, kUnusableHandle);
    return Outcome{};
  });
}

void qmGET(int32_t Hconn, int32_t Hobj, void *pMsgDesc, void *pGetMsgOpts, int32_t BufferLength,
           void *pBuffer, int32_t *pDataLength, int32_t /*Zero*/, int32_t *pCompCode,
           int32_t *pReason) {
  runEntry(Entry::kGet, pCompCode, pReason, [&] {
    auto manager = Registry::instance().connected(Hconn);
    manager->checkHandles(Hconn, Hobj);
    vxMSGDESC md;
    const int32_t mdLength = readDescriptor(pMsgDesc, md);
    vxGETOPTS gmo;
    readRecord(pGetMsgOpts, GMO_STRUC_ID, RC_GET_OPTIONS_ERROR, gmo);
    checkGetOptions(gmo);
    checkBuffer(BufferLength, pBuffer, true);
    require(writable(pDataLength, 4), RC_DATA_LENGTH_ERROR);
    const GetResult result =
        manager->get(Hconn, Hobj, md, gmo, static_cast<char *>(pBuffer), BufferLength);
    std::memcpy(pMsgDesc, &md, mdLength);
    std::memcpy(pGetMsgOpts, &gmo, sizeof gmo);
    writeInteger(pDataLength, result.dataLength);
    return result.outcome;
  });
}

void qmPUT(int32_t Hconn, int32_t Hobj, void *pMsgDesc, void *pPutMsgOpts, int32_t BufferLength,
           void *pBuffer, int32_t /*Zero*/, int32_t *pCompCode, int32_t *pReason) {
  runEntry(Entry::kPut, pCompCode, pReason, [&] {
    auto manager = Registry::instance().connected(Hconn);
    manager->checkHandles(Hconn, Hobj);
    vxMSGDESC md;
    const int32_t mdLength = readDescriptor(pMsgDesc, md);
    vxPUTOPTS pmo;
    readRecord(pPutMsgOpts, PMO_STRUC_ID, RC_PUT_OPTIONS_ERROR, pmo);
    checkPutOptions(pmo);
    checkBuffer(BufferLength, pBuffer, false);
    manager->put(Hconn, Hobj, md, pmo, static_cast<const char *>(pBuffer), BufferLength);
    std::memcpy(pMsgDesc, &md, mdLength);
    std::memcpy(pPutMsgOpts, &pmo, sizeof pmo);
    return Outcome{};
  });
}

void qmPUT1(int32_t Hconn, void *pObjDesc, void *pMsgDesc, void *pPutMsgOpts, int32_t BufferLength,
            void *pBuffer, int32_t *pCompCode, int32_t *pReason) {
  runEntry(Entry::kPut1, pCompCode, pReason, [&] {
    auto manager = Registry::instance().connected(Hconn);
    vxOBJDESC od;
    readRecord(pObjDesc, OD_STRUC_ID, RC_OBJECT_DESCRIPTOR_ERROR, od);
    vxMSGDESC md;
    const int32_t mdLength = readDescriptor(pMsgDesc, md);
    vxPUTOPTS pmo;
    readRecord(pPutMsgOpts, PMO_STRUC_ID, RC_PUT_OPTIONS_ERROR, pmo);
    checkPutOptions(pmo);
    checkBuffer(BufferLength, pBuffer, false);
    manager->put1(Hconn, od, md, pmo, static_cast<const char *>(pBuffer), BufferLength);
    std::memcpy(pMsgDesc, &md, mdLength);
    std::memcpy(pPutMsgOpts, &pmo, sizeof pmo);
    return Outcome{};
  });
}

void qmINQ(int32_t Hconn, int32_t Hobj, int32_t SelectorCount, int32_t *pSelectors,
           int32_t IntAttrCount, int32_t *pIntAttrs, int32_t CharAttrLength, char *pCharAttrs,
           int32_t *pCompCode, int32_t *pReason) {
  runEntry(Entry::kInq, pCompCode, pReason, [&] {
    auto manager = Registry::instance().connected(Hconn);
    manager->checkHandles(Hconn, Hobj);
    const std::vector<int32_t> selectors = readSelectors(
        SelectorCount, pSelectors, IntAttrCount, pIntAttrs, CharAttrLength, pCharAttrs, true);
    return manager->inquire(Hconn, Hobj, selectors, pIntAttrs, IntAttrCount, pCharAttrs,
                            CharAttrLength);
  });
}

void qmSET(int32_t Hconn, int32_t Hobj, int32_t SelectorCount, int32_t *pSelectors,
           int32_t IntAttrCount, int32_t *pIntAttrs, int32_t CharAttrLength, char *pCharAttrs,
           int32_t *pCompCode, int32_t *pReason) {
  runEntry(Entry::kSet, pCompCode, pReason, [&] {
    auto manager = Registry::instance().connected(Hconn);
    manager->checkHandles(Hconn, Hobj);
    const std::vector<int32_t> selectors = readSelectors(
        SelectorCount, pSelectors, IntAttrCount, pIntAttrs, CharAttrLength, pCharAttrs, false);
    manager->set(Hconn, Hobj, selectors, pIntAttrs, IntAttrCount);
    return Outcome{};
  });
}

void qmCMIT(int32_t Hconn, int32_t *pCompCode, int32_t *pReason) {
  runEntry(Entry::kCmit, pCompCode, pReason, [&] {
    Registry::instance().connected(Hconn)->commit(Hconn);
    return Outcome{};
  });
}

void qmBACK(int32_t Hconn, int32_t *pCompCode, int32_t *pReason) {
  runEntry(Entry::kBack, pCompCode, pReason, [&] {
    Registry::instance().connected(Hconn)->backout(Hconn);
    return Outcome{};
  });
}

void qmBEGIN(int32_t Hconn, void *pBeginOpts, int32_t *pCompCode, int32_t *pReason) {
  runEntry(Entry::kBegin, pCompCode, pReason, [&] {
    auto manager = Registry::instance().connected(Hconn);
    if (pBeginOpts != nullptr) require(readable(pBeginOpts, 4), RC_BEGIN_OPTIONS_ERROR);
    manager->begin(Hconn);
    return Outcome{};
  });
}

}  // extern "C"
