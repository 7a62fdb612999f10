// Helpers of the queue manager's tests: reasons by name, a connection that
// closes itself, and short forms of the common calls.
#ifndef VX_QM_TESTING_H
#define VX_QM_TESTING_H

#include <gtest/gtest.h>
#include <sys/mman.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "qm.h"
#include "qm_test.h"
#include "vxqi_records.h"

namespace qmtest {

struct ReasonName {
  int32_t value;
  const char *name;
};

inline const ReasonName kReasonNames[] = {
    {RC_NONE, "RC_NONE"},
    {RC_BUFFER_ERROR, "RC_BUFFER_ERROR"},
    {RC_BUFFER_LENGTH_ERROR, "RC_BUFFER_LENGTH_ERROR"},
    {RC_CHAR_ATTR_LENGTH_ERROR, "RC_CHAR_ATTR_LENGTH_ERROR"},
    {RC_CHAR_ATTRS_ERROR, "RC_CHAR_ATTRS_ERROR"},
    {RC_CHAR_ATTRS_TOO_SHORT, "RC_CHAR_ATTRS_TOO_SHORT"},
    {RC_CONNECTION_BROKEN, "RC_CONNECTION_BROKEN"},
    {RC_DATA_LENGTH_ERROR, "RC_DATA_LENGTH_ERROR"},
    {RC_EXPIRY_ERROR, "RC_EXPIRY_ERROR"},
    {RC_GET_INHIBITED, "RC_GET_INHIBITED"},
    {RC_HCONN_ERROR, "RC_HCONN_ERROR"},
    {RC_HOBJ_ERROR, "RC_HOBJ_ERROR"},
    {RC_INT_ATTR_COUNT_ERROR, "RC_INT_ATTR_COUNT_ERROR"},
    {RC_INT_ATTR_COUNT_TOO_SMALL, "RC_INT_ATTR_COUNT_TOO_SMALL"},
    {RC_INT_ATTRS_ARRAY_ERROR, "RC_INT_ATTRS_ARRAY_ERROR"},
    {RC_MSG_DESCRIPTOR_ERROR, "RC_MSG_DESCRIPTOR_ERROR"},
    {RC_MSG_TOO_BIG_FOR_Q, "RC_MSG_TOO_BIG_FOR_Q"},
    {RC_NO_MSG_AVAILABLE, "RC_NO_MSG_AVAILABLE"},
    {RC_NOT_OPEN_FOR_BROWSE, "RC_NOT_OPEN_FOR_BROWSE"},
    {RC_NOT_OPEN_FOR_INPUT, "RC_NOT_OPEN_FOR_INPUT"},
    {RC_NOT_OPEN_FOR_INQUIRE, "RC_NOT_OPEN_FOR_INQUIRE"},
    {RC_NOT_OPEN_FOR_OUTPUT, "RC_NOT_OPEN_FOR_OUTPUT"},
    {RC_NOT_OPEN_FOR_SET, "RC_NOT_OPEN_FOR_SET"},
    {RC_OBJECT_IN_USE, "RC_OBJECT_IN_USE"},
    {RC_OBJECT_TYPE_ERROR, "RC_OBJECT_TYPE_ERROR"},
    {RC_OBJECT_DESCRIPTOR_ERROR, "RC_OBJECT_DESCRIPTOR_ERROR"},
    {RC_OPTIONS_ERROR, "RC_OPTIONS_ERROR"},
    {RC_PERSISTENCE_ERROR, "RC_PERSISTENCE_ERROR"},
    {RC_PRIORITY_ERROR, "RC_PRIORITY_ERROR"},
    {RC_PUT_INHIBITED, "RC_PUT_INHIBITED"},
    {RC_Q_DELETED, "RC_Q_DELETED"},
    {RC_Q_FULL, "RC_Q_FULL"},
    {RC_Q_NOT_EMPTY, "RC_Q_NOT_EMPTY"},
    {RC_Q_MGR_NAME_ERROR, "RC_Q_MGR_NAME_ERROR"},
    {RC_Q_MGR_NOT_AVAILABLE, "RC_Q_MGR_NOT_AVAILABLE"},
    {RC_SELECTOR_COUNT_ERROR, "RC_SELECTOR_COUNT_ERROR"},
    {RC_SELECTOR_ERROR, "RC_SELECTOR_ERROR"},
    {RC_STORAGE_NOT_AVAILABLE, "RC_STORAGE_NOT_AVAILABLE"},
    {RC_MSG_TRUNCATED_ACCEPTED, "RC_MSG_TRUNCATED_ACCEPTED"},
    {RC_MSG_TRUNCATED, "RC_MSG_TRUNCATED"},
    {RC_UNKNOWN_OBJECT_NAME, "RC_UNKNOWN_OBJECT_NAME"},
    {RC_UNKNOWN_OBJECT_Q_MGR, "RC_UNKNOWN_OBJECT_Q_MGR"},
    {RC_WAIT_INTERVAL_ERROR, "RC_WAIT_INTERVAL_ERROR"},
    {RC_OBJECT_ALREADY_EXISTS, "RC_OBJECT_ALREADY_EXISTS"},
    {RC_NOT_CONVERTED, "RC_NOT_CONVERTED"},
    {RC_UOW_IN_PROGRESS, "RC_UOW_IN_PROGRESS"},
    {RC_BEGIN_OPTIONS_ERROR, "RC_BEGIN_OPTIONS_ERROR"},
    {RC_CONNECT_OPTIONS_ERROR, "RC_CONNECT_OPTIONS_ERROR"},
    {RC_OBJECT_NAME_ERROR, "RC_OBJECT_NAME_ERROR"},
    {RC_PUT_OPTIONS_ERROR, "RC_PUT_OPTIONS_ERROR"},
    {RC_GET_OPTIONS_ERROR, "RC_GET_OPTIONS_ERROR"},
    {RC_UNEXPECTED_ERROR, "RC_UNEXPECTED_ERROR"},
    {RC_STORE_ERROR, "RC_STORE_ERROR"},
    {RC_STORE_FULL, "RC_STORE_FULL"},
    {RC_STORE_READ_ONLY, "RC_STORE_READ_ONLY"},
};

// "RC_Q_FULL (2053)", or the bare number.
inline std::string reasonName(int32_t reason) {
  for (const ReasonName &r : kReasonNames) {
    if (r.value == reason) return std::string(r.name) + " (" + std::to_string(reason) + ")";
  }
  return std::to_string(reason);
}

// A completion/reason pair, compared and printed by name.
struct Status {
  int32_t compCode = -1;
  int32_t reason = -1;
  bool operator==(const Status &other) const = default;
};

inline void PrintTo(const Status &status, std::ostream *out) {
  static const char *const kCompCodes[] = {"CC_OK", "CC_WARNING", "CC_FAILED"};
  if (status.compCode >= 0 && status.compCode <= 2) {
    *out << kCompCodes[status.compCode];
  } else {
    *out << status.compCode;
  }
  *out << " " << reasonName(status.reason);
}

inline Status ok() { return {CC_OK, RC_NONE}; }
inline Status failed(int32_t reason) { return {CC_FAILED, reason}; }
inline Status warning(int32_t reason) { return {CC_WARNING, reason}; }

// Copies a name into a fixed field, zero filled.
inline void setField(char *field, size_t length, const std::string &name) {
  std::memset(field, 0, length);
  std::memcpy(field, name.data(), std::min(length, name.size()));
}

inline vxOBJDESC objectDescriptor(const std::string &name, int32_t type = OBJTYPE_Q) {
  vxOBJDESC od = OD_DEFAULT;
  od.objectType = type;
  setField(od.objectName, sizeof od.objectName, name);
  return od;
}

inline std::string field(const char *bytes, size_t length) {
  std::string text(bytes, length);
  text.erase(text.find_last_not_of(std::string(" \0", 2)) + 1);
  return text;
}

// A connection to a queue manager, disconnected at the end of its scope.
class Connection {
 public:
  explicit Connection(const char *qmName = "QM1") {
    Status s;
    char name[QM_NAME_LENGTH] = {};
    setField(name, sizeof name, qmName);
    qmCONN(name, &hconn_, &s.compCode, &s.reason, 0);
    EXPECT_EQ(s, ok());
  }
  ~Connection() {
    Status s;
    if (hconn_ != -1) qmDISC(&hconn_, 0, &s.compCode, &s.reason);
  }
  Connection(const Connection &) = delete;
  Connection &operator=(const Connection &) = delete;
  int32_t hconn() const { return hconn_; }
  int32_t &handle() { return hconn_; }

  // Opens a queue (or the model it names) and returns its handle.
  int32_t open(const std::string &name, int32_t options, Status expected = ok(),
               vxOBJDESC *descriptor = nullptr) {
    vxOBJDESC od = objectDescriptor(name);
    vxOBJDESC &used = descriptor != nullptr ? *descriptor : od;
    if (descriptor != nullptr && descriptor->objectName[0] == 0) {
      setField(used.objectName, sizeof used.objectName, name);
    }
    int32_t hobj = 0;
    Status s;
    qmOPEN(hconn_, &used, options, &hobj, &s.compCode, &s.reason);
    EXPECT_EQ(s, expected) << "open " << name;
    return hobj;
  }

  Status close(int32_t &hobj, int32_t options = CLOSE_NONE) {
    Status s;
    qmCLOSE(hconn_, &hobj, options, &s.compCode, &s.reason);
    return s;
  }

  // Puts `data`; the descriptor and options may be given.
  Status put(int32_t hobj, const std::string &data, vxMSGDESC *md = nullptr,
             int32_t putOptions = 0) {
    vxMSGDESC local = MD_DEFAULT;
    vxPUTOPTS pmo = PMO_DEFAULT;
    pmo.options = putOptions;
    Status s;
    qmPUT(hconn_, hobj, md != nullptr ? md : &local, &pmo, static_cast<int32_t>(data.size()),
          const_cast<char *>(data.data()), 0, &s.compCode, &s.reason);
    return s;
  }

  // Gets into `data` (at most `bufferLength` bytes).
  Status get(int32_t hobj, std::string *data, int32_t getOptions = 0, int32_t wait = 0,
             vxMSGDESC *md = nullptr, int32_t bufferLength = 4096, int32_t *dataLength = nullptr) {
    vxMSGDESC local = MD_DEFAULT;
    vxGETOPTS gmo = GMO_DEFAULT;
    gmo.options = getOptions;
    gmo.waitInterval = wait;
    std::vector<char> buffer(bufferLength > 0 ? bufferLength : 1);
    int32_t length = -7;
    Status s;
    qmGET(hconn_, hobj, md != nullptr ? md : &local, &gmo, bufferLength, buffer.data(), &length, 0,
          &s.compCode, &s.reason);
    if (dataLength != nullptr) *dataLength = length;
    if (data != nullptr) {
      data->clear();
      if (length >= 0) data->assign(buffer.data(), std::min(length, bufferLength));
    }
    return s;
  }

  Status commit() {
    Status s;
    qmCMIT(hconn_, &s.compCode, &s.reason);
    return s;
  }
  Status backout() {
    Status s;
    qmBACK(hconn_, &s.compCode, &s.reason);
    return s;
  }

 private:
  int32_t hconn_ = -1;
};

// Three pages: one that can be read and written, one that cannot be accessed
// at all, and one that can only be read.  `edge` is the end of the first:
// a record placed just before it ends where access ends.
struct ProtectedPages {
  ProtectedPages() {
    base = static_cast<char *>(
        mmap(nullptr, 3 * 4096, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    edge = base + 4096;
    none = base + 4096;
    readOnly = base + 2 * 4096;
    mprotect(none, 4096, PROT_NONE);
    mprotect(readOnly, 4096, PROT_READ);
  }
  ~ProtectedPages() { munmap(base, 3 * 4096); }
  char *base;
  char *edge;
  char *none;
  char *readOnly;
};

// Every test starts with the default queue manager in its initial state.
class QmTest : public ::testing::Test {
 protected:
  void SetUp() override { vxqm::test::reset("QM1"); }
  void TearDown() override { vxqm::test::reset("QM1"); }
};

}  // namespace qmtest

#endif  // VX_QM_TESTING_H
