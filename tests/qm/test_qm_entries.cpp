// The queue manager's entries, called as a program calls them (libvxqm.so):
// connections, open and close, put and get, inquire and set, units of work,
// and every argument check in its order.
#include <chrono>
#include <set>
#include <thread>

#include "qm_admin.h"
#include "qm_testing.h"

using namespace qmtest;

namespace {

const char *const kLocal = "SYSTEM.DEFAULT.LOCAL.QUEUE";
const char *const kModel = "SYSTEM.DEFAULT.MODEL.QUEUE";
const char *const kCommand = "SYSTEM.ADMIN.COMMAND.QUEUE";

std::string id(const char *bytes) { return std::string(bytes, MSG_ID_LENGTH); }

// ---------------------------------------------------------------------------
// Connections

using QmConnect = QmTest;

TEST_F(QmConnect, DefaultNameBlanksAndNullTerminatedNamesReachTheSameQueueManager) {
  char empty[QM_NAME_LENGTH] = {};
  char blanks[QM_NAME_LENGTH];
  std::memset(blanks, ' ', sizeof blanks);
  char padded[QM_NAME_LENGTH];
  std::memset(padded, ' ', sizeof padded);
  std::memcpy(padded, "QM1", 3);
  char terminated[] = "QM1";
  int32_t handles[4] = {};
  char *names[4] = {empty, blanks, padded, terminated};
  for (int i = 0; i < 4; ++i) {
    Status s;
    qmCONN(names[i], &handles[i], &s.compCode, &s.reason, i % 2);
    EXPECT_EQ(s, ok());
    EXPECT_GT(handles[i], 0);
  }
  EXPECT_EQ(vxqm::test::connectionCount("QM1"), 4);
  EXPECT_EQ(std::set<int32_t>(handles, handles + 4).size(), 4u);
  for (int32_t &h : handles) {
    Status s;
    qmDISC(&h, 0, &s.compCode, &s.reason);
    EXPECT_EQ(s, ok());
    EXPECT_EQ(h, -1);
  }
  EXPECT_EQ(vxqm::test::connectionCount("QM1"), 0);
}

TEST_F(QmConnect, AQueueManagerIsCreatedOnFirstConnectWithItsInitialObjects) {
  vxqm::test::reset("QMX.1");
  Connection c("QMX.1");
  EXPECT_EQ(vxqm::test::queueCount("QMX.1"), 3);
  std::vector<std::string> names;
  EXPECT_EQ(vxqm::admin::listQueues("QMX.1", "*", 0, &names), 0);
  EXPECT_EQ(names, (std::vector<std::string>{kCommand, kLocal, kModel}));
  names.clear();
  EXPECT_EQ(vxqm::admin::listQueues("QMX.1", "*", QTYPE_MODEL, &names), 0);
  EXPECT_EQ(names, (std::vector<std::string>{kModel}));
  vxqm::QueueDefinition model;
  EXPECT_EQ(vxqm::admin::queueAttributes("QMX.1", kModel, &model), 0);
  EXPECT_EQ(model.definitionType, DEFTYPE_TEMPORARY_DYNAMIC);
}

TEST_F(QmConnect, QueueManagersOfDifferentNamesAreSeparate) {
  vxqm::test::reset("QM2");
  Connection a("QM1");
  Connection b("QM2");
  EXPECT_EQ(vxqm::admin::createQueue("QM2", "ONLY.IN.QM2", {}), 0);
  a.open("ONLY.IN.QM2", OPEN_OUTPUT, failed(RC_UNKNOWN_OBJECT_NAME));
  b.open("ONLY.IN.QM2", OPEN_OUTPUT);
  vxqm::test::reset("QM2");
}

TEST_F(QmConnect, BadNamesAreRefused) {
  const char *bad[] = {"QM 1", "QM-1", "QM*", " QM1", "Q\tM"};
  for (const char *name : bad) {
    char copy[64] = {};
    std::strcpy(copy, name);
    int32_t hconn = 0;
    Status s;
    qmCONN(copy, &hconn, &s.compCode, &s.reason, 0);
    EXPECT_EQ(s, failed(RC_Q_MGR_NAME_ERROR)) << name;
  }
  // 48 characters without a terminating zero is a whole name.
  char full[QM_NAME_LENGTH + 1];
  std::memset(full, 'Q', QM_NAME_LENGTH);
  full[QM_NAME_LENGTH] = '!';  // not part of the name
  int32_t hconn = 0;
  Status s;
  qmCONN(full, &hconn, &s.compCode, &s.reason, 0);
  EXPECT_EQ(s, ok());
  qmDISC(&hconn, 0, &s.compCode, &s.reason);
  vxqm::test::reset(std::string(QM_NAME_LENGTH, 'Q'));
}

TEST_F(QmConnect, ArgumentsAreCheckedInOrder) {
  ProtectedPages pages;
  int32_t hconn = 0;
  Status s;
  qmCONN(nullptr, &hconn, &s.compCode, &s.reason, 0);
  EXPECT_EQ(s, failed(RC_Q_MGR_NAME_ERROR));
  qmCONN(pages.none, nullptr, &s.compCode, &s.reason, 0);
  EXPECT_EQ(s, failed(RC_Q_MGR_NAME_ERROR));
  char name[] = "QM1";
  qmCONNX(name, pages.none, nullptr, &s.compCode, &s.reason, 0);
  EXPECT_EQ(s, failed(RC_CONNECT_OPTIONS_ERROR));
  qmCONNX(name, nullptr, reinterpret_cast<int32_t *>(pages.readOnly), &s.compCode, &s.reason, 0);
  EXPECT_EQ(s, failed(RC_HCONN_ERROR));
  qmCONN(name, nullptr, &s.compCode, &s.reason, 1);
  EXPECT_EQ(s, failed(RC_HCONN_ERROR));
  char options[16] = {};
  qmCONNX(name, options, &hconn, &s.compCode, &s.reason, 1);
  EXPECT_EQ(s, ok());
  qmDISC(&hconn, 0, &s.compCode, &s.reason);
  EXPECT_EQ(s, ok());
  EXPECT_EQ(vxqm::test::connectionCount("QM1"), 0);
}

TEST_F(QmConnect, DisconnectRefusesAStaleOrUnreadableHandle) {
  ProtectedPages pages;
  Status s;
  qmDISC(nullptr, 0, &s.compCode, &s.reason);
  EXPECT_EQ(s, failed(RC_HCONN_ERROR));
  qmDISC(reinterpret_cast<int32_t *>(pages.readOnly), 0, &s.compCode, &s.reason);
  EXPECT_EQ(s, failed(RC_HCONN_ERROR));
  int32_t never = 0;
  qmDISC(&never, 0, &s.compCode, &s.reason);
  EXPECT_EQ(s, failed(RC_HCONN_ERROR));
  Connection c;
  int32_t stale = c.hconn();
  qmDISC(&c.handle(), 0, &s.compCode, &s.reason);
  EXPECT_EQ(s, ok());
  qmDISC(&stale, 0, &s.compCode, &s.reason);
  EXPECT_EQ(s, failed(RC_HCONN_ERROR));
  qmCMIT(stale, &s.compCode, &s.reason);
  EXPECT_EQ(s, failed(RC_HCONN_ERROR));
}

TEST_F(QmConnect, NullCompletionAndReasonPointersDoNotCrash) {
  char name[] = "QM1";
  int32_t hconn = 0;
  qmCONN(name, &hconn, nullptr, nullptr, 0);
  EXPECT_GT(hconn, 0);
  int32_t hobj = 0;
  vxOBJDESC od = objectDescriptor(kLocal);
  qmOPEN(hconn, &od, OPEN_OUTPUT, &hobj, nullptr, nullptr);
  qmOPEN(0, nullptr, 0, nullptr, nullptr, nullptr);
  qmPUT(hconn, hobj, nullptr, nullptr, 0, nullptr, 0, nullptr, nullptr);
  qmGET(hconn, hobj, nullptr, nullptr, 0, nullptr, nullptr, 0, nullptr, nullptr);
  qmPUT1(hconn, nullptr, nullptr, nullptr, 0, nullptr, nullptr, nullptr);
  qmINQ(hconn, hobj, -1, nullptr, 0, nullptr, 0, nullptr, nullptr, nullptr);
  qmSET(hconn, hobj, -1, nullptr, 0, nullptr, 0, nullptr, nullptr, nullptr);
  qmBEGIN(hconn, nullptr, nullptr, nullptr);
  qmCMIT(hconn, nullptr, nullptr);
  qmBACK(hconn, nullptr, nullptr);
  qmCLOSE(hconn, &hobj, 0, nullptr, nullptr);
  qmCONNX(nullptr, nullptr, nullptr, nullptr, nullptr, 0);
  qmDISC(&hconn, 0, nullptr, nullptr);
  EXPECT_EQ(hconn, -1);
  EXPECT_EQ(vxqm::test::connectionCount("QM1"), 0);
}

TEST_F(QmConnect, HandlesAreNumbersThatAreNotGivenOutAgain) {
  std::set<int32_t> seen;
  for (int i = 0; i < 20; ++i) {
    Connection c;
    EXPECT_GT(c.hconn(), 0);
    EXPECT_TRUE(seen.insert(c.hconn()).second);
    int32_t hobj = c.open(kLocal, OPEN_OUTPUT);
    EXPECT_GT(hobj, 0);
    EXPECT_TRUE(seen.insert(hobj).second);
  }
}

// ---------------------------------------------------------------------------
// Open and close

using QmOpen = QmTest;

TEST_F(QmOpen, ArgumentsAreCheckedInOrder) {
  ProtectedPages pages;
  Connection c;
  vxOBJDESC od = objectDescriptor(kLocal);
  int32_t hobj = 0;
  Status s;
  qmOPEN(0, pages.none, 0, nullptr, &s.compCode, &s.reason);
  EXPECT_EQ(s, failed(RC_HCONN_ERROR));
  qmOPEN(c.hconn(), pages.readOnly, 0, nullptr, &s.compCode, &s.reason);
  EXPECT_EQ(s, failed(RC_OBJECT_DESCRIPTOR_ERROR));
  vxOBJDESC badId = od;
  badId.structId[0] = 'X';
  qmOPEN(c.hconn(), &badId, 0, nullptr, &s.compCode, &s.reason);
  EXPECT_EQ(s, failed(RC_OBJECT_DESCRIPTOR_ERROR));
  vxOBJDESC badVersion = od;
  badVersion.version = 2;
  qmOPEN(c.hconn(), &badVersion, 0, nullptr, &s.compCode, &s.reason);
  EXPECT_EQ(s, failed(RC_OBJECT_DESCRIPTOR_ERROR));
  for (int32_t options : {0, 0x80, OPEN_INPUT_SHARED | OPEN_INPUT_EXCLUSIVE,
                          OPEN_INPUT_AS_Q_DEF | OPEN_INPUT_SHARED}) {
    qmOPEN(c.hconn(), &od, options, nullptr, &s.compCode, &s.reason);
    EXPECT_EQ(s, failed(RC_OPTIONS_ERROR)) << options;
  }
  qmOPEN(c.hconn(), &od, OPEN_OUTPUT, nullptr, &s.compCode, &s.reason);
  EXPECT_EQ(s, failed(RC_HOBJ_ERROR));
  qmOPEN(c.hconn(), &od, OPEN_OUTPUT, &hobj, &s.compCode, &s.reason);
  EXPECT_EQ(s, ok());
}

TEST_F(QmOpen, ObjectNamesTypesAndQueueManagerNames) {
  Connection c;
  c.open("NO.SUCH.QUEUE", OPEN_OUTPUT, failed(RC_UNKNOWN_OBJECT_NAME));
  c.open("BAD NAME", OPEN_OUTPUT, failed(RC_OBJECT_NAME_ERROR));
  c.open("", OPEN_OUTPUT, failed(RC_OBJECT_NAME_ERROR));
  vxOBJDESC od = objectDescriptor(kLocal, 3);
  c.open(kLocal, OPEN_OUTPUT, failed(RC_OBJECT_TYPE_ERROR), &od);
  od = objectDescriptor(kLocal);
  std::memcpy(od.objectQMgrName, "QM9", 3);
  c.open(kLocal, OPEN_OUTPUT, failed(RC_UNKNOWN_OBJECT_Q_MGR), &od);
  od = objectDescriptor(kLocal);
  std::memcpy(od.objectQMgrName, "QM1", 3);
  c.open(kLocal, OPEN_OUTPUT, ok(), &od);
  // A blank-padded name is the same name.
  od = objectDescriptor("");
  std::memset(od.objectName, ' ', sizeof od.objectName);
  std::memcpy(od.objectName, kLocal, std::strlen(kLocal));
  c.open("", OPEN_OUTPUT, ok(), &od);
}

TEST_F(QmOpen, TheQueueManagerObjectOpensForInquireOnly) {
  Connection c;
  vxOBJDESC od = objectDescriptor("", OBJTYPE_Q_MGR);
  for (int32_t options :
       {OPEN_OUTPUT, OPEN_BROWSE, OPEN_INPUT_SHARED, OPEN_SET, OPEN_INQUIRE | OPEN_OUTPUT}) {
    c.open("", options, failed(RC_OPTIONS_ERROR), &od);
  }
  c.open("", OPEN_INQUIRE, ok(), &od);
  od = objectDescriptor("QM1", OBJTYPE_Q_MGR);
  c.open("QM1", OPEN_INQUIRE, ok(), &od);
  od = objectDescriptor("QM2", OBJTYPE_Q_MGR);
  c.open("QM2", OPEN_INQUIRE, failed(RC_UNKNOWN_OBJECT_NAME), &od);
}

TEST_F(QmOpen, ExclusiveInputConflictsWithAnyOtherInput) {
  Connection a;
  Connection b;
  int32_t exclusive = a.open(kLocal, OPEN_INPUT_EXCLUSIVE);
  b.open(kLocal, OPEN_INPUT_SHARED, failed(RC_OBJECT_IN_USE));
  b.open(kLocal, OPEN_INPUT_AS_Q_DEF, failed(RC_OBJECT_IN_USE));
  b.open(kLocal, OPEN_INPUT_EXCLUSIVE, failed(RC_OBJECT_IN_USE));
  a.open(kLocal, OPEN_INPUT_SHARED, failed(RC_OBJECT_IN_USE));
  b.open(kLocal, OPEN_OUTPUT | OPEN_BROWSE | OPEN_INQUIRE);  // not input: no conflict
  EXPECT_EQ(a.close(exclusive), ok());
  int32_t shared = b.open(kLocal, OPEN_INPUT_SHARED);
  a.open(kLocal, OPEN_INPUT_SHARED);
  a.open(kLocal, OPEN_INPUT_EXCLUSIVE, failed(RC_OBJECT_IN_USE));
  vxqm::QueueStatus status;
  EXPECT_EQ(vxqm::admin::queueStatus("QM1", kLocal, &status), 0);
  EXPECT_EQ(status.openInputCount, 2);
  EXPECT_EQ(status.openOutputCount, 1);
  EXPECT_EQ(b.close(shared), ok());
  EXPECT_EQ(vxqm::admin::queueStatus("QM1", kLocal, &status), 0);
  EXPECT_EQ(status.openInputCount, 1);
}

TEST_F(QmOpen, AModelQueueMakesATemporaryDynamicQueue) {
  Connection c;
  vxOBJDESC od = objectDescriptor(kModel);
  std::memset(od.dynamicQName, 0, sizeof od.dynamicQName);
  std::memcpy(od.dynamicQName, "VXAI.REPLY.*", 12);
  int32_t hobj = c.open(kModel, OPEN_INPUT_EXCLUSIVE | OPEN_INQUIRE, ok(), &od);
  const std::string name = field(od.objectName, Q_NAME_LENGTH);
  EXPECT_EQ(name.rfind("VXAI.REPLY.", 0), 0u) << name;
  EXPECT_EQ(name.size(), 11u + 16u);
  EXPECT_EQ(od.objectName[Q_NAME_LENGTH - 1], ' ');  // blank filled
  EXPECT_EQ(vxqm::test::temporaryQueueCount("QM1"), 1);
  // A second queue from the same model gets another name.
  vxOBJDESC od2 = objectDescriptor(kModel);
  std::memcpy(od2.dynamicQName, "VXAI.REPLY.*", 12);
  int32_t hobj2 = c.open(kModel, OPEN_OUTPUT, ok(), &od2);
  EXPECT_NE(field(od2.objectName, Q_NAME_LENGTH), name);
  // The new queue's attributes: its name, local, temporary dynamic.
  int32_t selectors[] = {ATTR_Q_TYPE, ATTR_DEFINITION_TYPE, ATTR_Q_NAME};
  int32_t ints[2] = {};
  char chars[Q_NAME_LENGTH];
  Status s;
  qmINQ(c.hconn(), hobj, 3, selectors, 2, ints, Q_NAME_LENGTH, chars, &s.compCode, &s.reason);
  EXPECT_EQ(s, ok());
  EXPECT_EQ(ints[0], QTYPE_LOCAL);
  EXPECT_EQ(ints[1], DEFTYPE_TEMPORARY_DYNAMIC);
  EXPECT_EQ(std::string(chars, Q_NAME_LENGTH), std::string(od.objectName, Q_NAME_LENGTH));
  // Other connections reach it by name.
  Connection other;
  int32_t put = other.open(name, OPEN_OUTPUT);
  EXPECT_EQ(other.put(put, "to the reply queue"), ok());
  EXPECT_EQ(c.close(hobj2), ok());
  EXPECT_EQ(vxqm::test::temporaryQueueCount("QM1"), 1);
}

TEST_F(QmOpen, DynamicNamesWithoutAStarAndTooLongPrefixes) {
  Connection c;
  vxOBJDESC od = objectDescriptor(kModel);
  std::memcpy(od.dynamicQName, "MY.OWN.NAME", 11);
  c.open(kModel, OPEN_INPUT_SHARED, ok(), &od);
  EXPECT_EQ(field(od.objectName, Q_NAME_LENGTH), "MY.OWN.NAME");
  od = objectDescriptor(kModel);
  std::memcpy(od.dynamicQName, "MY.OWN.NAME", 11);
  c.open(kModel, OPEN_INPUT_SHARED, failed(RC_OBJECT_ALREADY_EXISTS), &od);
  EXPECT_EQ(field(od.objectName, Q_NAME_LENGTH), kModel);  // unchanged on failure
  od = objectDescriptor(kModel);
  std::memset(od.dynamicQName, 'P', 32);
  od.dynamicQName[32] = '*';
  c.open(kModel, OPEN_INPUT_SHARED, ok(), &od);
  EXPECT_EQ(field(od.objectName, Q_NAME_LENGTH).size(), 48u);
  od = objectDescriptor(kModel);
  std::memset(od.dynamicQName, 'P', 33);
  od.dynamicQName[33] = '*';
  c.open(kModel, OPEN_INPUT_SHARED, failed(RC_OBJECT_NAME_ERROR), &od);
  for (const char *bad : {"", "A*B*", "A B*"}) {
    od = objectDescriptor(kModel);
    std::memcpy(od.dynamicQName, bad, std::strlen(bad) + 1);
    c.open(kModel, OPEN_INPUT_SHARED, failed(RC_OBJECT_NAME_ERROR), &od);
  }
}

using QmClose = QmTest;

TEST_F(QmClose, ArgumentsAreCheckedInOrder) {
  ProtectedPages pages;
  Connection c;
  Connection other;
  int32_t hobj = c.open(kLocal, OPEN_OUTPUT);
  Status s;
  qmCLOSE(0, &hobj, 0, &s.compCode, &s.reason);
  EXPECT_EQ(s, failed(RC_HCONN_ERROR));
  qmCLOSE(c.hconn(), reinterpret_cast<int32_t *>(pages.readOnly), 0, &s.compCode, &s.reason);
  EXPECT_EQ(s, failed(RC_HOBJ_ERROR));
  qmCLOSE(other.hconn(), &hobj, 0, &s.compCode, &s.reason);  // another connection's handle
  EXPECT_EQ(s, failed(RC_HOBJ_ERROR));
  qmCLOSE(c.hconn(), &hobj, 3, &s.compCode, &s.reason);
  EXPECT_EQ(s, failed(RC_OPTIONS_ERROR));
  qmCLOSE(c.hconn(), &hobj, CLOSE_DELETE, &s.compCode, &s.reason);  // not a dynamic queue
  EXPECT_EQ(s, failed(RC_OPTIONS_ERROR));
  const int32_t stale = hobj;
  EXPECT_EQ(c.close(hobj), ok());
  EXPECT_EQ(hobj, -1);
  int32_t again = stale;
  EXPECT_EQ(c.close(again), failed(RC_HOBJ_ERROR));
}

TEST_F(QmClose, TheCreatorsCloseDeletesATemporaryQueueWhateverTheOption) {
  for (int32_t option : {CLOSE_NONE, CLOSE_DELETE, CLOSE_DELETE_PURGE}) {
    Connection c;
    vxOBJDESC od = objectDescriptor(kModel);
    int32_t hobj = c.open(kModel, OPEN_OUTPUT | OPEN_INPUT_SHARED, ok(), &od);
    const std::string name = field(od.objectName, Q_NAME_LENGTH);
    EXPECT_EQ(c.put(hobj, "left behind"), ok());
    Connection other;
    int32_t otherHobj = other.open(name, OPEN_OUTPUT);
    EXPECT_EQ(c.close(hobj, option), ok()) << option;
    EXPECT_EQ(vxqm::test::temporaryQueueCount("QM1"), 0);
    EXPECT_EQ(vxqm::test::messageCount("QM1", name), -1);
    EXPECT_EQ(other.put(otherHobj, "too late"), failed(RC_Q_DELETED));
    EXPECT_EQ(other.close(otherHobj), ok());
  }
}

TEST_F(QmClose, OnlyTheHandleThatMadeATemporaryQueueDeletesIt) {
  Connection c;
  vxOBJDESC od = objectDescriptor(kModel);
  int32_t creator = c.open(kModel, OPEN_INPUT_EXCLUSIVE, ok(), &od);
  const std::string name = field(od.objectName, Q_NAME_LENGTH);
  // A second handle of the same connection, by name, and a one-call put:
  // their closes leave the queue to the handle that made it.
  int32_t second = c.open(name, OPEN_OUTPUT);
  EXPECT_EQ(c.put(second, "first"), ok());
  EXPECT_EQ(c.close(second), ok());
  vxOBJDESC byName = objectDescriptor(name);
  vxMSGDESC md = MD_DEFAULT;
  vxPUTOPTS pmo = PMO_DEFAULT;
  char text[] = "second";
  Status s;
  qmPUT1(c.hconn(), &byName, &md, &pmo, 6, text, &s.compCode, &s.reason);
  EXPECT_EQ(s, ok());
  EXPECT_EQ(vxqm::test::temporaryQueueCount("QM1"), 1);
  EXPECT_EQ(vxqm::test::messageCount("QM1", name), 2);
  std::string data;
  EXPECT_EQ(c.get(creator, &data), ok());
  EXPECT_EQ(data, "first");
  EXPECT_EQ(c.close(creator), ok());
  EXPECT_EQ(vxqm::test::temporaryQueueCount("QM1"), 0);
  EXPECT_EQ(vxqm::test::messageCount("QM1", name), -1);
}

TEST_F(QmClose, DeleteOptionsOnAPermanentDynamicQueue) {
  vxqm::QueueChanges model;
  model.queueType = QTYPE_MODEL;
  model.definitionType = DEFTYPE_PERMANENT_DYNAMIC;
  ASSERT_EQ(vxqm::admin::createQueue("QM1", "PERM.MODEL", model), 0);
  Connection c;
  vxOBJDESC od = objectDescriptor("PERM.MODEL");
  std::memcpy(od.dynamicQName, "PERM.*", 6);
  int32_t hobj = c.open("PERM.MODEL", OPEN_OUTPUT, ok(), &od);
  const std::string name = field(od.objectName, Q_NAME_LENGTH);
  EXPECT_EQ(c.close(hobj), ok());  // no option: it stays
  EXPECT_EQ(vxqm::test::messageCount("QM1", name), 0);
  hobj = c.open(name, OPEN_OUTPUT);
  EXPECT_EQ(c.put(hobj, "one"), ok());
  EXPECT_EQ(c.close(hobj, CLOSE_DELETE), failed(RC_Q_NOT_EMPTY));
  EXPECT_EQ(c.close(hobj, CLOSE_DELETE_PURGE), ok());
  EXPECT_EQ(vxqm::test::messageCount("QM1", name), -1);
  // An empty one goes with CLOSE_DELETE.
  od = objectDescriptor("PERM.MODEL");
  std::memcpy(od.dynamicQName, "PERM.*", 6);
  hobj = c.open("PERM.MODEL", OPEN_OUTPUT, ok(), &od);
  EXPECT_EQ(c.close(hobj, CLOSE_DELETE), ok());
  EXPECT_EQ(vxqm::test::messageCount("QM1", field(od.objectName, Q_NAME_LENGTH)), -1);
}

TEST_F(QmClose, DisconnectClosesHandlesAndDeletesTemporaryQueues) {
  Connection other;
  {
    Connection c;
    vxOBJDESC od = objectDescriptor(kModel);
    c.open(kModel, OPEN_INPUT_EXCLUSIVE, ok(), &od);
    c.open(kLocal, OPEN_INPUT_EXCLUSIVE);
    EXPECT_EQ(vxqm::test::temporaryQueueCount("QM1"), 1);
    other.open(kLocal, OPEN_INPUT_SHARED, failed(RC_OBJECT_IN_USE));
  }
  EXPECT_EQ(vxqm::test::temporaryQueueCount("QM1"), 0);
  other.open(kLocal, OPEN_INPUT_SHARED);
}

// ---------------------------------------------------------------------------
// Put

using QmPut = QmTest;

TEST_F(QmPut, ArgumentsAreCheckedInOrder) {
  ProtectedPages pages;
  Connection c;
  int32_t hobj = c.open(kLocal, OPEN_OUTPUT);
  vxMSGDESC md = MD_DEFAULT;
  vxPUTOPTS pmo = PMO_DEFAULT;
  char data[] = "data";
  Status s;
  auto put = [&](int32_t hconn, int32_t h, void *pmd, void *ppmo, int32_t length, void *buffer) {
    qmPUT(hconn, h, pmd, ppmo, length, buffer, 0, &s.compCode, &s.reason);
    return s;
  };
  EXPECT_EQ(put(0, 0, nullptr, nullptr, -1, nullptr), failed(RC_HCONN_ERROR));
  EXPECT_EQ(put(c.hconn(), 0, nullptr, nullptr, -1, nullptr), failed(RC_HOBJ_ERROR));
  EXPECT_EQ(put(c.hconn(), hobj, nullptr, nullptr, -1, nullptr), failed(RC_MSG_DESCRIPTOR_ERROR));
  EXPECT_EQ(put(c.hconn(), hobj, pages.readOnly, nullptr, -1, nullptr),
            failed(RC_MSG_DESCRIPTOR_ERROR));
  vxMSGDESC badMd = md;
  badMd.version = 3;
  EXPECT_EQ(put(c.hconn(), hobj, &badMd, nullptr, -1, nullptr), failed(RC_MSG_DESCRIPTOR_ERROR));
  badMd = md;
  std::memcpy(badMd.structId, "GMO ", 4);
  EXPECT_EQ(put(c.hconn(), hobj, &badMd, nullptr, -1, nullptr), failed(RC_MSG_DESCRIPTOR_ERROR));
  // A version-2 descriptor must be accessible to its end; a version-1 one only to its 324th byte.
  char *v2 = pages.edge - MD_LENGTH_1;
  std::memcpy(v2, &md, MD_LENGTH_1);
  EXPECT_EQ(put(c.hconn(), hobj, v2, nullptr, -1, nullptr), failed(RC_MSG_DESCRIPTOR_ERROR));
  reinterpret_cast<vxMSGDESC *>(v2)->version = MD_VERSION_1;
  EXPECT_EQ(put(c.hconn(), hobj, v2, nullptr, -1, nullptr), failed(RC_PUT_OPTIONS_ERROR));
  EXPECT_EQ(put(c.hconn(), hobj, &md, nullptr, -1, nullptr), failed(RC_PUT_OPTIONS_ERROR));
  vxPUTOPTS badPmo = pmo;
  badPmo.structId[0] = 'Q';
  EXPECT_EQ(put(c.hconn(), hobj, &md, &badPmo, -1, nullptr), failed(RC_PUT_OPTIONS_ERROR));
  badPmo = pmo;
  badPmo.options = 0x100;
  EXPECT_EQ(put(c.hconn(), hobj, &md, &badPmo, -1, nullptr), failed(RC_OPTIONS_ERROR));
  badPmo.options = PUT_SYNCPOINT | PUT_NO_SYNCPOINT;
  EXPECT_EQ(put(c.hconn(), hobj, &md, &badPmo, -1, nullptr), failed(RC_OPTIONS_ERROR));
  EXPECT_EQ(put(c.hconn(), hobj, &md, &pmo, -1, nullptr), failed(RC_BUFFER_LENGTH_ERROR));
  EXPECT_EQ(put(c.hconn(), hobj, &md, &pmo, 4, nullptr), failed(RC_BUFFER_ERROR));
  EXPECT_EQ(put(c.hconn(), hobj, &md, &pmo, 4, pages.none), failed(RC_BUFFER_ERROR));
  EXPECT_EQ(vxqm::test::messageCount("QM1", kLocal), 0);
  EXPECT_EQ(put(c.hconn(), hobj, &md, &pmo, 0, nullptr), ok());
  EXPECT_EQ(put(c.hconn(), hobj, &md, &pmo, 4, pages.readOnly), ok());  // read only is enough
  std::memset(md.msgId, 0, sizeof md.msgId);
  EXPECT_EQ(put(c.hconn(), hobj, &md, &pmo, 4, data), ok());
  EXPECT_EQ(vxqm::test::messageCount("QM1", kLocal), 3);
}

TEST_F(QmPut, DescriptorFieldValuesAreChecked) {
  Connection c;
  int32_t hobj = c.open(kLocal, OPEN_OUTPUT);
  vxMSGDESC md = MD_DEFAULT;
  md.priority = 10;
  EXPECT_EQ(c.put(hobj, "x", &md), failed(RC_PRIORITY_ERROR));
  md.priority = -2;
  EXPECT_EQ(c.put(hobj, "x", &md), failed(RC_PRIORITY_ERROR));
  md = MD_DEFAULT;
  md.persistence = 3;
  EXPECT_EQ(c.put(hobj, "x", &md), failed(RC_PERSISTENCE_ERROR));
  md = MD_DEFAULT;
  md.expiry = 0;
  EXPECT_EQ(c.put(hobj, "x", &md), failed(RC_EXPIRY_ERROR));
  md.expiry = -5;
  EXPECT_EQ(c.put(hobj, "x", &md), failed(RC_EXPIRY_ERROR));
  EXPECT_EQ(vxqm::test::messageCount("QM1", kLocal), 0);
}

TEST_F(QmPut, AnAllZeroMessageIdIsReplacedByAUniqueOne) {
  Connection c;
  int32_t hobj = c.open(kLocal, OPEN_OUTPUT);
  std::set<std::string> ids;
  for (int i = 0; i < 100; ++i) {
    vxMSGDESC md = MD_DEFAULT;
    ASSERT_EQ(c.put(hobj, "m", &md), ok());
    EXPECT_NE(id(md.msgId), std::string(MSG_ID_LENGTH, '\0'));
    EXPECT_TRUE(ids.insert(id(md.msgId)).second);
  }
  vxMSGDESC given = MD_DEFAULT;
  std::memset(given.msgId, 'G', MSG_ID_LENGTH);
  ASSERT_EQ(c.put(hobj, "g", &given), ok());
  EXPECT_EQ(id(given.msgId), std::string(MSG_ID_LENGTH, 'G'));
}

TEST_F(QmPut, TheQueueRefusesWhatItCannotTake) {
  vxqm::QueueChanges small;
  small.maxDepth = 2;
  small.maxMsgLength = 10;
  ASSERT_EQ(vxqm::admin::createQueue("QM1", "SMALL", small), 0);
  Connection c;
  int32_t hobj = c.open("SMALL", OPEN_OUTPUT | OPEN_SET);
  EXPECT_EQ(c.put(hobj, std::string(11, 'x')), failed(RC_MSG_TOO_BIG_FOR_Q));
  EXPECT_EQ(c.put(hobj, std::string(10, 'x')), ok());
  EXPECT_EQ(c.put(hobj, ""), ok());
  EXPECT_EQ(c.put(hobj, "x"), failed(RC_Q_FULL));
  vxqm::QueueChanges inhibit;
  inhibit.inhibitPut = INHIBIT_INHIBITED;
  inhibit.maxDepth = 10;
  ASSERT_EQ(vxqm::admin::changeQueue("QM1", "SMALL", inhibit), 0);
  EXPECT_EQ(c.put(hobj, "x"), failed(RC_PUT_INHIBITED));
  int32_t input = c.open("SMALL", OPEN_INPUT_SHARED);
  EXPECT_EQ(c.put(input, "x"), failed(RC_NOT_OPEN_FOR_OUTPUT));
  EXPECT_EQ(vxqm::test::messageCount("QM1", "SMALL"), 2);
}

TEST_F(QmPut, ResolvedNamesAreFilled) {
  Connection c;
  int32_t hobj = c.open(kLocal, OPEN_OUTPUT);
  vxMSGDESC md = MD_DEFAULT;
  vxPUTOPTS pmo = PMO_DEFAULT;
  Status s;
  char data[] = "x";
  qmPUT(c.hconn(), hobj, &md, &pmo, 1, data, 0, &s.compCode, &s.reason);
  ASSERT_EQ(s, ok());
  EXPECT_EQ(std::string(pmo.resolvedQName, Q_NAME_LENGTH),
            kLocal + std::string(Q_NAME_LENGTH - std::strlen(kLocal), ' '));
  EXPECT_EQ(field(pmo.resolvedQMgrName, QM_NAME_LENGTH), "QM1");
  EXPECT_EQ(pmo.resolvedQMgrName[QM_NAME_LENGTH - 1], ' ');
}

TEST_F(QmPut, Put1ChecksItsArgumentsInOrderAndPutsOnce) {
  ProtectedPages pages;
  Connection c;
  vxOBJDESC od = objectDescriptor(kLocal);
  vxMSGDESC md = MD_DEFAULT;
  vxPUTOPTS pmo = PMO_DEFAULT;
  char data[] = "put once";
  Status s;
  auto put1 = [&](int32_t hconn, void *pod, void *pmd, void *ppmo, int32_t length, void *buffer) {
    qmPUT1(hconn, pod, pmd, ppmo, length, buffer, &s.compCode, &s.reason);
    return s;
  };
  EXPECT_EQ(put1(0, nullptr, nullptr, nullptr, -1, nullptr), failed(RC_HCONN_ERROR));
  EXPECT_EQ(put1(c.hconn(), pages.readOnly, nullptr, nullptr, -1, nullptr),
            failed(RC_OBJECT_DESCRIPTOR_ERROR));
  EXPECT_EQ(put1(c.hconn(), &od, nullptr, nullptr, -1, nullptr), failed(RC_MSG_DESCRIPTOR_ERROR));
  EXPECT_EQ(put1(c.hconn(), &od, &md, nullptr, -1, nullptr), failed(RC_PUT_OPTIONS_ERROR));
  pmo.options = 0x8000;
  EXPECT_EQ(put1(c.hconn(), &od, &md, &pmo, -1, nullptr), failed(RC_OPTIONS_ERROR));
  pmo.options = 0;
  EXPECT_EQ(put1(c.hconn(), &od, &md, &pmo, -1, nullptr), failed(RC_BUFFER_LENGTH_ERROR));
  EXPECT_EQ(put1(c.hconn(), &od, &md, &pmo, 1, pages.none), failed(RC_BUFFER_ERROR));
  EXPECT_EQ(put1(c.hconn(), &od, &md, &pmo, 8, data), ok());
  EXPECT_NE(id(md.msgId), std::string(MSG_ID_LENGTH, '\0'));
  EXPECT_EQ(field(pmo.resolvedQName, Q_NAME_LENGTH), kLocal);
  vxOBJDESC model = objectDescriptor(kModel);
  EXPECT_EQ(put1(c.hconn(), &model, &md, &pmo, 8, data), failed(RC_OBJECT_TYPE_ERROR));
  vxOBJDESC qmgr = objectDescriptor("", OBJTYPE_Q_MGR);
  EXPECT_EQ(put1(c.hconn(), &qmgr, &md, &pmo, 8, data), failed(RC_OBJECT_TYPE_ERROR));
  vxOBJDESC unknown = objectDescriptor("NOT.THERE");
  EXPECT_EQ(put1(c.hconn(), &unknown, &md, &pmo, 8, data), failed(RC_UNKNOWN_OBJECT_NAME));
  // Nothing stays open.
  vxqm::QueueStatus status;
  ASSERT_EQ(vxqm::admin::queueStatus("QM1", kLocal, &status), 0);
  EXPECT_EQ(status.depth, 1);
  EXPECT_EQ(status.openOutputCount, 0);
  EXPECT_EQ(vxqm::admin::deleteQueue("QM1", kLocal, true), 0);
  int32_t input = c.open(kCommand, OPEN_INPUT_SHARED);
  std::string got;
  vxOBJDESC command = objectDescriptor(kCommand);
  EXPECT_EQ(put1(c.hconn(), &command, &md, &pmo, 8, data), ok());
  EXPECT_EQ(c.get(input, &got), ok());
  EXPECT_EQ(got, "put once");
}

// ---------------------------------------------------------------------------
// Get

using QmGet = QmTest;

TEST_F(QmGet, ArgumentsAreCheckedInOrder) {
  ProtectedPages pages;
  Connection c;
  int32_t hobj = c.open(kLocal, OPEN_INPUT_SHARED | OPEN_OUTPUT | OPEN_BROWSE);
  ASSERT_EQ(c.put(hobj, "data"), ok());
  vxMSGDESC md = MD_DEFAULT;
  vxGETOPTS gmo = GMO_DEFAULT;
  char buffer[16];
  int32_t length = 0;
  Status s;
  auto get = [&](int32_t hconn, int32_t h, void *pmd, void *pgmo, int32_t bufferLength,
                 void *pbuffer, int32_t *plength) {
    qmGET(hconn, h, pmd, pgmo, bufferLength, pbuffer, plength, 0, &s.compCode, &s.reason);
    return s;
  };
  EXPECT_EQ(get(0, 0, nullptr, nullptr, -1, nullptr, nullptr), failed(RC_HCONN_ERROR));
  EXPECT_EQ(get(c.hconn(), 0, nullptr, nullptr, -1, nullptr, nullptr), failed(RC_HOBJ_ERROR));
  EXPECT_EQ(get(c.hconn(), hobj, pages.readOnly, nullptr, -1, nullptr, nullptr),
            failed(RC_MSG_DESCRIPTOR_ERROR));
  EXPECT_EQ(get(c.hconn(), hobj, &md, pages.readOnly, -1, nullptr, nullptr),
            failed(RC_GET_OPTIONS_ERROR));
  vxGETOPTS bad = gmo;
  bad.version = 2;
  EXPECT_EQ(get(c.hconn(), hobj, &md, &bad, -1, nullptr, nullptr), failed(RC_GET_OPTIONS_ERROR));
  for (int32_t options : {0x8, GET_SYNCPOINT | GET_NO_SYNCPOINT, GET_BROWSE_FIRST | GET_BROWSE_NEXT,
                          GET_BROWSE_FIRST | GET_SYNCPOINT, GET_BROWSE_NEXT | GET_SYNCPOINT}) {
    bad = gmo;
    bad.options = options;
    EXPECT_EQ(get(c.hconn(), hobj, &md, &bad, -1, nullptr, nullptr), failed(RC_OPTIONS_ERROR))
        << options;
  }
  bad = gmo;
  bad.options = GET_WAIT;
  bad.waitInterval = -2;
  EXPECT_EQ(get(c.hconn(), hobj, &md, &bad, -1, nullptr, nullptr), failed(RC_WAIT_INTERVAL_ERROR));
  bad.options = 0;  // the interval counts only when the get waits
  EXPECT_EQ(get(c.hconn(), hobj, &md, &bad, -1, nullptr, nullptr), failed(RC_BUFFER_LENGTH_ERROR));
  EXPECT_EQ(get(c.hconn(), hobj, &md, &gmo, 4, pages.readOnly, nullptr), failed(RC_BUFFER_ERROR));
  EXPECT_EQ(get(c.hconn(), hobj, &md, &gmo, 4, buffer, nullptr), failed(RC_DATA_LENGTH_ERROR));
  EXPECT_EQ(get(c.hconn(), hobj, &md, &gmo, 4, buffer, reinterpret_cast<int32_t *>(pages.readOnly)),
            failed(RC_DATA_LENGTH_ERROR));
  EXPECT_EQ(vxqm::test::messageCount("QM1", kLocal), 1);
  EXPECT_EQ(get(c.hconn(), hobj, &md, &gmo, 16, buffer, &length), ok());
  EXPECT_EQ(length, 4);
  EXPECT_EQ(std::string(buffer, 4), "data");
}

TEST_F(QmGet, HandleOptionsAndInhibitedGets) {
  Connection c;
  int32_t output = c.open(kLocal, OPEN_OUTPUT | OPEN_INQUIRE);
  ASSERT_EQ(c.put(output, "x"), ok());
  EXPECT_EQ(c.get(output, nullptr), failed(RC_NOT_OPEN_FOR_INPUT));
  EXPECT_EQ(c.get(output, nullptr, GET_BROWSE_FIRST), failed(RC_NOT_OPEN_FOR_BROWSE));
  int32_t input = c.open(kLocal, OPEN_INPUT_SHARED | OPEN_SET);
  EXPECT_EQ(c.get(input, nullptr, GET_BROWSE_FIRST), failed(RC_NOT_OPEN_FOR_BROWSE));
  int32_t selector = ATTR_INHIBIT_GET;
  int32_t value = INHIBIT_INHIBITED;
  Status s;
  qmSET(c.hconn(), input, 1, &selector, 1, &value, 0, nullptr, &s.compCode, &s.reason);
  ASSERT_EQ(s, ok());
  EXPECT_EQ(c.get(input, nullptr), failed(RC_GET_INHIBITED));
  int32_t browse = c.open(kLocal, OPEN_BROWSE);
  EXPECT_EQ(c.get(browse, nullptr, GET_BROWSE_FIRST), failed(RC_GET_INHIBITED));
  value = INHIBIT_ALLOWED;
  qmSET(c.hconn(), input, 1, &selector, 1, &value, 0, nullptr, &s.compCode, &s.reason);
  ASSERT_EQ(s, ok());
  EXPECT_EQ(c.get(input, nullptr), ok());
  EXPECT_EQ(c.get(input, nullptr), failed(RC_NO_MSG_AVAILABLE));
}

TEST_F(QmGet, EveryDescriptorFieldTravelsWithTheMessage) {
  Connection c;
  int32_t hobj = c.open(kLocal, OPEN_OUTPUT | OPEN_INPUT_SHARED);
  vxMSGDESC put = MD_DEFAULT;
  put.reportOptions = 7;
  put.msgType = MSGTYPE_REQUEST;
  put.expiry = 600;
  put.feedback = 11;
  put.encoding = 273;
  put.codedCharSetId = 850;
  std::memcpy(put.format, "VXADMIN ", 8);
  put.priority = 4;
  put.persistence = PERSISTENCE_PERSISTENT;
  std::memset(put.correlId, 'C', CORREL_ID_LENGTH);
  put.backoutCount = 9;  // not kept: a new message has not been backed out
  std::memcpy(put.replyToQ, "REPLY.Q", 7);
  std::memcpy(put.replyToQMgr, "QM7", 3);
  std::memset(put.context, 'x', sizeof put.context);
  std::memset(put.groupId, 'g', GROUP_ID_LENGTH);
  put.msgSeqNumber = 3;
  put.offset = 5;
  put.msgFlags = 8;
  put.originalLength = 77;
  ASSERT_EQ(c.put(hobj, "payload", &put), ok());
  vxMSGDESC got = MD_DEFAULT;
  std::string data;
  ASSERT_EQ(c.get(hobj, &data, 0, 0, &got), ok());
  EXPECT_EQ(data, "payload");
  vxMSGDESC expected = put;
  expected.backoutCount = 0;
  EXPECT_EQ(std::memcmp(&got, &expected, sizeof got), 0);

  // A version-1 descriptor receives the first 324 bytes only.
  vxMSGDESC v1put = MD_DEFAULT;
  v1put.version = MD_VERSION_1;
  ASSERT_EQ(c.put(hobj, "v1", &v1put), ok());
  struct {
    vxMSGDESC md;
    char guard[8];
  } v1got;
  std::memset(&v1got, 0x5A, sizeof v1got);
  std::memcpy(&v1got.md, MD_STRUC_ID, 4);
  v1got.md.version = MD_VERSION_1;
  std::memset(v1got.md.msgId, 0, MSG_ID_LENGTH);
  std::memset(v1got.md.correlId, 0, CORREL_ID_LENGTH);
  ASSERT_EQ(c.get(hobj, &data, 0, 0, &v1got.md), ok());
  EXPECT_EQ(data, "v1");
  EXPECT_EQ(v1got.md.version, MD_VERSION_1);
  EXPECT_EQ(v1got.md.priority, 0);           // the queue's default
  EXPECT_EQ(v1got.md.persistence, 0);        // the queue's default
  EXPECT_EQ(v1got.md.codedCharSetId, 1208);  // the queue manager's
  EXPECT_EQ(v1got.md.groupId[0], 0x5A);      // untouched beyond version 1
  EXPECT_EQ(v1got.md.originalLength, 0x5A5A5A5A);
}

TEST_F(QmGet, PrioritiesFirstThenPutOrder) {
  vxqm::QueueChanges defaults;
  defaults.defaultPriority = 5;
  defaults.defaultPersistence = PERSISTENCE_PERSISTENT;
  ASSERT_EQ(vxqm::admin::createQueue("QM1", "PRIO", defaults), 0);
  Connection c;
  int32_t hobj = c.open("PRIO", OPEN_OUTPUT | OPEN_INPUT_SHARED);
  const std::pair<int32_t, const char *> puts[] = {{1, "a"}, {9, "b"}, {-1, "c"}, {1, "d"},
                                                   {9, "e"}, {0, "f"}, {-1, "g"}};
  for (const auto &[priority, text] : puts) {
    vxMSGDESC md = MD_DEFAULT;
    md.priority = priority;
    ASSERT_EQ(c.put(hobj, text, &md), ok());
  }
  std::string order;
  for (size_t i = 0; i < std::size(puts); ++i) {
    vxMSGDESC md = MD_DEFAULT;
    std::string data;
    ASSERT_EQ(c.get(hobj, &data, 0, 0, &md), ok());
    order += data;
    if (data == "c") {
      EXPECT_EQ(md.priority, 5);
      EXPECT_EQ(md.persistence, PERSISTENCE_PERSISTENT);
    }
  }
  EXPECT_EQ(order, "becgadf");
}

TEST_F(QmGet, MessageAndCorrelationIdsSelect) {
  Connection c;
  int32_t hobj = c.open(kLocal, OPEN_OUTPUT | OPEN_INPUT_SHARED);
  std::string ids[3];
  for (int i = 0; i < 3; ++i) {
    vxMSGDESC md = MD_DEFAULT;
    std::memset(md.correlId, 'A' + i, CORREL_ID_LENGTH);
    ASSERT_EQ(c.put(hobj, std::string(1, static_cast<char>('0' + i)), &md), ok());
    ids[i] = id(md.msgId);
  }
  vxMSGDESC md = MD_DEFAULT;
  std::memset(md.correlId, 'C', CORREL_ID_LENGTH);
  std::string data;
  ASSERT_EQ(c.get(hobj, &data, 0, 0, &md), ok());
  EXPECT_EQ(data, "2");
  EXPECT_EQ(id(md.msgId), ids[2]);
  md = MD_DEFAULT;
  std::memset(md.correlId, 'C', CORREL_ID_LENGTH);
  EXPECT_EQ(c.get(hobj, &data, 0, 0, &md), failed(RC_NO_MSG_AVAILABLE));
  md = MD_DEFAULT;
  std::memcpy(md.msgId, ids[1].data(), MSG_ID_LENGTH);
  std::memset(md.correlId, 'A', CORREL_ID_LENGTH);  // both must match
  EXPECT_EQ(c.get(hobj, &data, 0, 0, &md), failed(RC_NO_MSG_AVAILABLE));
  std::memset(md.correlId, 'B', CORREL_ID_LENGTH);
  ASSERT_EQ(c.get(hobj, &data, 0, 0, &md), ok());
  EXPECT_EQ(data, "1");
  md = MD_DEFAULT;
  ASSERT_EQ(c.get(hobj, &data, 0, 0, &md), ok());  // zero ids: any message
  EXPECT_EQ(data, "0");
}

TEST_F(QmGet, ATruncatedMessageStaysUnlessTruncationIsAccepted) {
  Connection c;
  int32_t hobj = c.open(kLocal, OPEN_OUTPUT | OPEN_INPUT_SHARED);
  vxMSGDESC put = MD_DEFAULT;
  std::memset(put.correlId, 'T', CORREL_ID_LENGTH);
  ASSERT_EQ(c.put(hobj, "0123456789", &put), ok());
  vxMSGDESC md = MD_DEFAULT;
  std::string data;
  int32_t length = 0;
  EXPECT_EQ(c.get(hobj, &data, 0, 0, &md, 4, &length), failed(RC_MSG_TRUNCATED));
  EXPECT_EQ(length, 10);
  EXPECT_EQ(data, "0123");
  EXPECT_EQ(id(md.msgId), id(put.msgId));  // the descriptor is filled
  EXPECT_EQ(id(md.correlId), std::string(CORREL_ID_LENGTH, 'T'));
  EXPECT_EQ(vxqm::test::messageCount("QM1", kLocal), 1);
  md = MD_DEFAULT;
  EXPECT_EQ(c.get(hobj, &data, GET_ACCEPT_TRUNCATED_MSG, 0, &md, 4, &length),
            warning(RC_MSG_TRUNCATED_ACCEPTED));
  EXPECT_EQ(length, 10);
  EXPECT_EQ(data, "0123");
  EXPECT_EQ(vxqm::test::messageCount("QM1", kLocal), 0);
  // A buffer of length 0 learns the length.
  ASSERT_EQ(c.put(hobj, "abc"), ok());
  EXPECT_EQ(c.get(hobj, nullptr, 0, 0, nullptr, 0, &length), failed(RC_MSG_TRUNCATED));
  EXPECT_EQ(length, 3);
}

TEST_F(QmGet, BrowseFirstAndNextDoNotRemove) {
  Connection c;
  int32_t hobj = c.open(kLocal, OPEN_OUTPUT | OPEN_BROWSE | OPEN_INPUT_SHARED);
  for (const char *text : {"1", "2", "3"}) ASSERT_EQ(c.put(hobj, text), ok());
  std::string data;
  EXPECT_EQ(c.get(hobj, &data, GET_BROWSE_NEXT), ok());  // no cursor yet: the first
  EXPECT_EQ(data, "1");
  EXPECT_EQ(c.get(hobj, &data, GET_BROWSE_NEXT), ok());
  EXPECT_EQ(data, "2");
  int32_t other = c.open(kLocal, OPEN_BROWSE);  // its own cursor
  EXPECT_EQ(c.get(other, &data, GET_BROWSE_NEXT), ok());
  EXPECT_EQ(data, "1");
  EXPECT_EQ(c.get(hobj, &data, GET_BROWSE_NEXT), ok());
  EXPECT_EQ(data, "3");
  EXPECT_EQ(c.get(hobj, &data, GET_BROWSE_NEXT), failed(RC_NO_MSG_AVAILABLE));
  EXPECT_EQ(c.get(hobj, &data, GET_BROWSE_FIRST), ok());
  EXPECT_EQ(data, "1");
  EXPECT_EQ(vxqm::test::messageCount("QM1", kLocal), 3);
  EXPECT_EQ(c.get(hobj, &data), ok());
  EXPECT_EQ(data, "1");
  EXPECT_EQ(c.get(hobj, &data, GET_BROWSE_FIRST), ok());
  EXPECT_EQ(data, "2");
}

TEST_F(QmGet, ExpiredMessagesAreNeverDeliveredAndAreRemoved) {
  Connection c;
  int32_t hobj = c.open(kLocal, OPEN_OUTPUT | OPEN_INPUT_SHARED | OPEN_BROWSE);
  vxMSGDESC md = MD_DEFAULT;
  md.expiry = 1;  // a tenth of a second
  ASSERT_EQ(c.put(hobj, "short lived", &md), ok());
  md = MD_DEFAULT;
  md.expiry = 36000;
  ASSERT_EQ(c.put(hobj, "long lived", &md), ok());
  EXPECT_EQ(vxqm::test::messageCount("QM1", kLocal), 2);
  std::this_thread::sleep_for(std::chrono::milliseconds(150));
  std::string data;
  EXPECT_EQ(c.get(hobj, &data, GET_BROWSE_FIRST), ok());
  EXPECT_EQ(data, "long lived");
  EXPECT_EQ(vxqm::test::messageCount("QM1", kLocal), 1);
  EXPECT_EQ(c.get(hobj, &data), ok());
  EXPECT_EQ(data, "long lived");
  EXPECT_EQ(c.get(hobj, &data), failed(RC_NO_MSG_AVAILABLE));
}

TEST_F(QmGet, AWaitEndsWithNoMessageAtItsDeadline) {
  Connection c;
  int32_t hobj = c.open(kLocal, OPEN_INPUT_SHARED);
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(c.get(hobj, nullptr, GET_WAIT, 100), failed(RC_NO_MSG_AVAILABLE));
  const auto waited = std::chrono::steady_clock::now() - start;
  EXPECT_GE(waited, std::chrono::milliseconds(100));
  EXPECT_LT(waited, std::chrono::seconds(5));
  EXPECT_EQ(c.get(hobj, nullptr, GET_WAIT, 0), failed(RC_NO_MSG_AVAILABLE));
}

// ---------------------------------------------------------------------------
// Data conversion on get

// A PCF message of one string parameter, in `ccsid` (0: the message's).
std::string pcfMessage(const std::string &text, int32_t ccsid) {
  const int32_t padded = static_cast<int32_t>((text.size() + 3) / 4 * 4);
  const int32_t header[9] = {8, 36, 1, 0, 1, 1, 0, 0, 1};
  const int32_t parm[5] = {4, 20 + padded, 3001, ccsid, static_cast<int32_t>(text.size())};
  std::string message(reinterpret_cast<const char *>(header), sizeof header);
  message.append(reinterpret_cast<const char *>(parm), sizeof parm);
  message += text;
  message.append(padded - text.size(), '\0');
  return message;
}

class QmConvert : public QmTest {
 protected:
  void SetUp() override {
    QmTest::SetUp();
    c_ = std::make_unique<Connection>();
    hobj_ = c_->open(kLocal, OPEN_OUTPUT | OPEN_INPUT_SHARED);
  }
  Status put(const std::string &data, int32_t ccsid, const char *format = "VXPCF   ",
             int32_t encoding = ENCODING_NATIVE) {
    vxMSGDESC md = MD_DEFAULT;
    md.codedCharSetId = ccsid;
    md.encoding = encoding;
    std::memcpy(md.format, format, FORMAT_LENGTH);
    return c_->put(hobj_, data, &md);
  }
  Status get(std::string *data, int32_t targetCcsid, int32_t *ccsid, int32_t bufferLength = 4096,
             int32_t *length = nullptr, int32_t options = GET_CONVERT) {
    vxMSGDESC md = MD_DEFAULT;
    md.codedCharSetId = targetCcsid;
    Status s = c_->get(hobj_, data, options, 0, &md, bufferLength, length);
    *ccsid = md.codedCharSetId;
    return s;
  }
  std::unique_ptr<Connection> c_;
  int32_t hobj_ = 0;
};

TEST_F(QmConvert, StringsAreConvertedToTheCallersCharacterSet) {
  const std::string latin1 = pcfMessage("caf\xE9", 0);
  for (const char *format : {"VXADMIN ", "VXEVENT ", "VXPCF   "}) {
    ASSERT_EQ(put(latin1, 819, format), ok());
    std::string data;
    int32_t ccsid = 0;
    EXPECT_EQ(get(&data, 1208, &ccsid), ok()) << format;
    EXPECT_EQ(ccsid, 1208);
    EXPECT_EQ(data, pcfMessage("caf\xC3\xA9", 1208)) << format;
  }
  // A target of 0 is the queue manager's character set.
  ASSERT_EQ(put(latin1, 819), ok());
  std::string data;
  int32_t ccsid = 0;
  EXPECT_EQ(get(&data, 0, &ccsid), ok());
  EXPECT_EQ(ccsid, 1208);
  EXPECT_EQ(data, pcfMessage("caf\xC3\xA9", 1208));
}

TEST_F(QmConvert, WithoutTheOptionOrForOtherFormatsNothingIsConverted) {
  const std::string latin1 = pcfMessage("caf\xE9", 0);
  ASSERT_EQ(put(latin1, 819), ok());
  std::string data;
  int32_t ccsid = 0;
  EXPECT_EQ(get(&data, 1208, &ccsid, 4096, nullptr, 0), ok());
  EXPECT_EQ(ccsid, 819);
  EXPECT_EQ(data, latin1);
  ASSERT_EQ(put(latin1, 819, "TEXT    "), ok());
  EXPECT_EQ(get(&data, 1208, &ccsid), ok());
  EXPECT_EQ(ccsid, 819);
  EXPECT_EQ(data, latin1);
}

TEST_F(QmConvert, AConvertedMessageTooLongForTheBufferIsTruncated) {
  const std::string latin1 = pcfMessage("\xE9\xE9\xE9\xE9", 0);  // 60 bytes, 64 converted
  ASSERT_EQ(latin1.size(), 60u);
  ASSERT_EQ(put(latin1, 819), ok());
  std::string data;
  int32_t ccsid = 0;
  int32_t length = 0;
  EXPECT_EQ(get(&data, 1208, &ccsid, 60, &length), failed(RC_MSG_TRUNCATED));
  EXPECT_EQ(length, 64);
  EXPECT_EQ(vxqm::test::messageCount("QM1", kLocal), 1);
  EXPECT_EQ(get(&data, 1208, &ccsid, 64, &length), ok());
  EXPECT_EQ(length, 64);
}

TEST_F(QmConvert, WhatCannotBeConvertedIsDeliveredAsItWasPut) {
  const std::string message = pcfMessage("caf\xE9", 0);
  const std::pair<int32_t, int32_t> cases[] = {{9999, ENCODING_NATIVE},  // unknown set
                                               {819, 273}};              // other encoding
  for (const auto &[from, encoding] : cases) {
    ASSERT_EQ(put(message, from, "VXPCF   ", encoding), ok());
    std::string data;
    int32_t ccsid = 0;
    EXPECT_EQ(get(&data, 1208, &ccsid), warning(RC_NOT_CONVERTED)) << from;
    EXPECT_EQ(ccsid, from);
    EXPECT_EQ(data, message);
  }
  // Bytes with no mapping in the target set.
  ASSERT_EQ(put(pcfMessage("\xE2\x82\xAC", 0), 1208), ok());  // the euro sign
  std::string data;
  int32_t ccsid = 0;
  EXPECT_EQ(get(&data, 819, &ccsid), warning(RC_NOT_CONVERTED));
  EXPECT_EQ(ccsid, 1208);
}

// ---------------------------------------------------------------------------
// Inquire and set

using QmInquire = QmTest;

TEST_F(QmInquire, ArgumentsAreCheckedInOrder) {
  ProtectedPages pages;
  Connection c;
  int32_t hobj = c.open(kLocal, OPEN_INQUIRE | OPEN_SET);
  int32_t selectors[2] = {ATTR_CURRENT_DEPTH, ATTR_Q_NAME};
  int32_t ints[1];
  char chars[48];
  Status s;
  using Entry = void (*)(int32_t, int32_t, int32_t, int32_t *, int32_t, int32_t *, int32_t, char *,
                         int32_t *, int32_t *);
  for (Entry entry : {Entry{qmINQ}, Entry{qmSET}}) {
    auto call = [&](int32_t hconn, int32_t h, int32_t count, void *psel, int32_t intCount,
                    void *pints, int32_t charLength, void *pchars) {
      entry(hconn, h, count, static_cast<int32_t *>(psel), intCount, static_cast<int32_t *>(pints),
            charLength, static_cast<char *>(pchars), &s.compCode, &s.reason);
      return s;
    };
    EXPECT_EQ(call(0, 0, -1, nullptr, -1, nullptr, -1, nullptr), failed(RC_HCONN_ERROR));
    EXPECT_EQ(call(c.hconn(), 0, -1, nullptr, -1, nullptr, -1, nullptr), failed(RC_HOBJ_ERROR));
    EXPECT_EQ(call(c.hconn(), hobj, -1, nullptr, -1, nullptr, -1, nullptr),
              failed(RC_SELECTOR_COUNT_ERROR));
    EXPECT_EQ(call(c.hconn(), hobj, 257, nullptr, -1, nullptr, -1, nullptr),
              failed(RC_SELECTOR_COUNT_ERROR));
    EXPECT_EQ(call(c.hconn(), hobj, 2, pages.none, -1, nullptr, -1, nullptr),
              failed(RC_SELECTOR_ERROR));
    EXPECT_EQ(call(c.hconn(), hobj, 2, selectors, -1, nullptr, -1, nullptr),
              failed(RC_INT_ATTR_COUNT_ERROR));
    EXPECT_EQ(call(c.hconn(), hobj, 2, selectors, 1, pages.none, -1, nullptr),
              failed(RC_INT_ATTRS_ARRAY_ERROR));
    EXPECT_EQ(call(c.hconn(), hobj, 2, selectors, 1, ints, -1, nullptr),
              failed(RC_CHAR_ATTR_LENGTH_ERROR));
    EXPECT_EQ(call(c.hconn(), hobj, 2, selectors, 1, ints, 48, pages.none),
              failed(RC_CHAR_ATTRS_ERROR));
  }
  // Outputs of an inquire must be writable; inputs of a set readable.
  EXPECT_EQ((qmINQ(c.hconn(), hobj, 2, selectors, 1, reinterpret_cast<int32_t *>(pages.readOnly),
                   48, chars, &s.compCode, &s.reason),
             s),
            failed(RC_INT_ATTRS_ARRAY_ERROR));
  EXPECT_EQ(
      (qmINQ(c.hconn(), hobj, 2, selectors, 1, ints, 48, pages.readOnly, &s.compCode, &s.reason),
       s),
      failed(RC_CHAR_ATTRS_ERROR));
  int32_t settable = ATTR_INHIBIT_PUT;
  EXPECT_EQ((qmSET(c.hconn(), hobj, 1, &settable, 1, reinterpret_cast<int32_t *>(pages.readOnly), 0,
                   nullptr, &s.compCode, &s.reason),
             s),
            ok());
  EXPECT_EQ((qmINQ(c.hconn(), hobj, 2, selectors, 1, ints, 48, chars, &s.compCode, &s.reason), s),
            ok());
}

TEST_F(QmInquire, EveryQueueAttribute) {
  vxqm::QueueChanges attributes;
  attributes.description = "A queue for the tests";
  attributes.defaultPersistence = 1;
  attributes.defaultPriority = 3;
  attributes.inhibitGet = 1;
  attributes.maxMsgLength = 1000;
  attributes.maxDepth = 20;
  ASSERT_EQ(vxqm::admin::createQueue("QM1", "INQ.Q", attributes), 0);
  Connection c;
  int32_t hobj = c.open("INQ.Q", OPEN_INQUIRE | OPEN_OUTPUT | OPEN_INPUT_SHARED);
  c.open("INQ.Q", OPEN_OUTPUT);
  ASSERT_EQ(c.put(hobj, "1"), ok());
  ASSERT_EQ(c.put(hobj, "2"), ok());
  int32_t selectors[] = {ATTR_CURRENT_DEPTH,   ATTR_DEF_PERSISTENCE,  ATTR_DEF_PRIORITY,
                         ATTR_DEFINITION_TYPE, ATTR_INHIBIT_GET,      ATTR_Q_DESC,
                         ATTR_INHIBIT_PUT,     ATTR_MAX_MSG_LENGTH,   ATTR_MAX_Q_DEPTH,
                         ATTR_Q_NAME,          ATTR_OPEN_INPUT_COUNT, ATTR_OPEN_OUTPUT_COUNT,
                         ATTR_Q_TYPE};
  int32_t ints[11];
  char chars[Q_DESC_LENGTH + Q_NAME_LENGTH];
  Status s;
  qmINQ(c.hconn(), hobj, 13, selectors, 11, ints, sizeof chars, chars, &s.compCode, &s.reason);
  ASSERT_EQ(s, ok());
  const int32_t expected[11] = {2, 1, 3, DEFTYPE_PREDEFINED, 1, 0, 1000, 20, 1, 2, QTYPE_LOCAL};
  EXPECT_EQ(std::vector<int32_t>(ints, ints + 11), std::vector<int32_t>(expected, expected + 11));
  EXPECT_EQ(std::string(chars, Q_DESC_LENGTH),
            "A queue for the tests" + std::string(Q_DESC_LENGTH - 21, ' '));
  EXPECT_EQ(std::string(chars + Q_DESC_LENGTH, Q_NAME_LENGTH),
            "INQ.Q" + std::string(Q_NAME_LENGTH - 5, ' '));
}

TEST_F(QmInquire, TheQueueManagerObject) {
  Connection c;
  vxOBJDESC od = objectDescriptor("", OBJTYPE_Q_MGR);
  int32_t hobj = c.open("", OPEN_INQUIRE, ok(), &od);
  int32_t selectors[] = {ATTR_Q_MGR_NAME, ATTR_CODED_CHAR_SET_ID};
  int32_t ccsid = 0;
  char name[QM_NAME_LENGTH];
  Status s;
  qmINQ(c.hconn(), hobj, 2, selectors, 1, &ccsid, QM_NAME_LENGTH, name, &s.compCode, &s.reason);
  ASSERT_EQ(s, ok());
  EXPECT_EQ(ccsid, 1208);
  EXPECT_EQ(std::string(name, QM_NAME_LENGTH), "QM1" + std::string(QM_NAME_LENGTH - 3, ' '));
  int32_t queueSelector = ATTR_CURRENT_DEPTH;
  qmINQ(c.hconn(), hobj, 1, &queueSelector, 1, &ccsid, 0, nullptr, &s.compCode, &s.reason);
  EXPECT_EQ(s, failed(RC_SELECTOR_ERROR));
  int32_t local = c.open(kLocal, OPEN_INQUIRE);
  qmINQ(c.hconn(), local, 2, selectors, 1, &ccsid, QM_NAME_LENGTH, name, &s.compCode, &s.reason);
  EXPECT_EQ(s, failed(RC_SELECTOR_ERROR));
}

TEST_F(QmInquire, TooFewIntegersOrCharactersReturnWhatFits) {
  Connection c;
  int32_t hobj = c.open(kLocal, OPEN_INQUIRE);
  int32_t selectors[] = {ATTR_MAX_Q_DEPTH, ATTR_Q_NAME, ATTR_MAX_MSG_LENGTH, ATTR_Q_DESC};
  int32_t ints[2] = {-1, -1};
  char chars[Q_NAME_LENGTH + 10];
  std::memset(chars, '#', sizeof chars);
  Status s;
  qmINQ(c.hconn(), hobj, 4, selectors, 1, ints, sizeof chars, chars, &s.compCode, &s.reason);
  EXPECT_EQ(s, warning(RC_INT_ATTR_COUNT_TOO_SMALL));
  EXPECT_EQ(ints[0], 5000);
  EXPECT_EQ(ints[1], -1);
  EXPECT_EQ(field(chars, Q_NAME_LENGTH), kLocal);
  // The description does not fit: its first 10 characters (blanks) fill the rest.
  EXPECT_EQ(std::string(chars + Q_NAME_LENGTH, 10), std::string(10, ' '));
  qmINQ(c.hconn(), hobj, 4, selectors, 2, ints, sizeof chars, chars, &s.compCode, &s.reason);
  EXPECT_EQ(s, warning(RC_CHAR_ATTRS_TOO_SHORT));
  EXPECT_EQ(ints[1], 4194304);
  // Room for 10 characters shows the first 10 of the name, and nothing after.
  std::memset(chars, '#', sizeof chars);
  qmINQ(c.hconn(), hobj, 2, selectors, 1, ints, 10, chars, &s.compCode, &s.reason);
  EXPECT_EQ(s, warning(RC_CHAR_ATTRS_TOO_SHORT));
  EXPECT_EQ(std::string(chars, 10), std::string(kLocal).substr(0, 10));
  EXPECT_EQ(chars[10], '#');
  qmINQ(c.hconn(), hobj, 0, nullptr, 0, nullptr, 0, nullptr, &s.compCode, &s.reason);
  EXPECT_EQ(s, ok());
}

TEST_F(QmInquire, UnknownSelectorsAndHandlesNotOpenForInquire) {
  Connection c;
  int32_t hobj = c.open(kLocal, OPEN_INQUIRE | OPEN_OUTPUT);
  for (int32_t selector : {0, 1, 4, 2, 2015, 2014, 9999, -1}) {
    int32_t value = 0;
    char chars[64];
    Status s;
    qmINQ(c.hconn(), hobj, 1, &selector, 1, &value, 64, chars, &s.compCode, &s.reason);
    EXPECT_EQ(s, failed(RC_SELECTOR_ERROR)) << selector;
  }
  int32_t output = c.open(kLocal, OPEN_OUTPUT);
  int32_t selector = ATTR_CURRENT_DEPTH;
  int32_t value = 0;
  Status s;
  qmINQ(c.hconn(), output, 1, &selector, 1, &value, 0, nullptr, &s.compCode, &s.reason);
  EXPECT_EQ(s, failed(RC_NOT_OPEN_FOR_INQUIRE));
}

using QmSet = QmTest;

TEST_F(QmSet, OnlyTheInhibitAttributesMayBeSet) {
  Connection c;
  int32_t hobj = c.open(kLocal, OPEN_SET | OPEN_INQUIRE | OPEN_OUTPUT);
  int32_t both[] = {ATTR_INHIBIT_GET, ATTR_INHIBIT_PUT};
  int32_t values[] = {1, 1};
  Status s;
  qmSET(c.hconn(), hobj, 2, both, 2, values, 0, nullptr, &s.compCode, &s.reason);
  ASSERT_EQ(s, ok());
  int32_t got[2] = {};
  qmINQ(c.hconn(), hobj, 2, both, 2, got, 0, nullptr, &s.compCode, &s.reason);
  EXPECT_EQ(got[0], 1);
  EXPECT_EQ(got[1], 1);
  EXPECT_EQ(c.put(hobj, "x"), failed(RC_PUT_INHIBITED));
  for (int32_t selector : {ATTR_CURRENT_DEPTH, ATTR_MAX_Q_DEPTH, ATTR_Q_NAME, ATTR_Q_DESC, 777}) {
    int32_t value = 0;
    char chars[64] = {};
    qmSET(c.hconn(), hobj, 1, &selector, 1, &value, 64, chars, &s.compCode, &s.reason);
    EXPECT_EQ(s, failed(RC_SELECTOR_ERROR)) << selector;
  }
  int32_t bad[] = {0, 2};
  qmSET(c.hconn(), hobj, 2, both, 2, bad, 0, nullptr, &s.compCode, &s.reason);
  EXPECT_EQ(s, failed(RC_SELECTOR_ERROR));
  qmSET(c.hconn(), hobj, 2, both, 1, values, 0, nullptr, &s.compCode, &s.reason);
  EXPECT_EQ(s, failed(RC_INT_ATTR_COUNT_TOO_SMALL));
  qmINQ(c.hconn(), hobj, 2, both, 2, got, 0, nullptr, &s.compCode, &s.reason);
  EXPECT_EQ(got[0], 1);  // nothing was changed by the failed sets
  int32_t inquireOnly = c.open(kLocal, OPEN_INQUIRE);
  qmSET(c.hconn(), inquireOnly, 2, both, 2, values, 0, nullptr, &s.compCode, &s.reason);
  EXPECT_EQ(s, failed(RC_NOT_OPEN_FOR_SET));
}

// ---------------------------------------------------------------------------
// Units of work

using QmUnitOfWork = QmTest;

TEST_F(QmUnitOfWork, PutsUnderSyncpointAppearAtCommit) {
  Connection c;
  Connection other;
  int32_t hobj = c.open(kLocal, OPEN_OUTPUT | OPEN_BROWSE);
  int32_t input = other.open(kLocal, OPEN_INPUT_SHARED);
  ASSERT_EQ(c.put(hobj, "in the unit", nullptr, PUT_SYNCPOINT), ok());
  ASSERT_EQ(c.put(hobj, "outside", nullptr, PUT_NO_SYNCPOINT), ok());
  EXPECT_EQ(vxqm::test::messageCount("QM1", kLocal), 2);  // depth counts both
  std::string data;
  EXPECT_EQ(c.get(hobj, &data, GET_BROWSE_FIRST), ok());
  EXPECT_EQ(data, "outside");
  EXPECT_EQ(other.get(input, &data), ok());
  EXPECT_EQ(data, "outside");
  EXPECT_EQ(other.get(input, &data), failed(RC_NO_MSG_AVAILABLE));
  EXPECT_EQ(other.commit(), ok());  // another connection's commit changes nothing
  EXPECT_EQ(other.get(input, &data), failed(RC_NO_MSG_AVAILABLE));
  EXPECT_EQ(c.commit(), ok());
  EXPECT_EQ(other.get(input, &data), ok());
  EXPECT_EQ(data, "in the unit");
}

TEST_F(QmUnitOfWork, BackoutRemovesPutsAndRestoresGets) {
  Connection c;
  int32_t hobj = c.open(kLocal, OPEN_OUTPUT | OPEN_INPUT_SHARED);
  ASSERT_EQ(c.put(hobj, "kept"), ok());
  ASSERT_EQ(c.put(hobj, "dropped", nullptr, PUT_SYNCPOINT), ok());
  vxMSGDESC md = MD_DEFAULT;
  std::string data;
  ASSERT_EQ(c.get(hobj, &data, GET_SYNCPOINT, 0, &md), ok());
  EXPECT_EQ(data, "kept");
  EXPECT_EQ(md.backoutCount, 0);
  EXPECT_EQ(c.get(hobj, &data), failed(RC_NO_MSG_AVAILABLE));
  EXPECT_EQ(c.backout(), ok());
  EXPECT_EQ(vxqm::test::messageCount("QM1", kLocal), 1);
  for (int32_t expected = 1; expected <= 2; ++expected) {
    md = MD_DEFAULT;
    ASSERT_EQ(c.get(hobj, &data, GET_SYNCPOINT, 0, &md), ok());
    EXPECT_EQ(data, "kept");
    EXPECT_EQ(md.backoutCount, expected);
    EXPECT_EQ(c.backout(), ok());
  }
  ASSERT_EQ(c.get(hobj, &data, GET_SYNCPOINT), ok());
  EXPECT_EQ(c.commit(), ok());
  EXPECT_EQ(vxqm::test::messageCount("QM1", kLocal), 0);
  EXPECT_EQ(c.commit(), ok());  // no unit: nothing to do
  EXPECT_EQ(c.backout(), ok());
}

TEST_F(QmUnitOfWork, BeginStartsAUnitOnlyWhenNoneIsOpen) {
  ProtectedPages pages;
  Connection c;
  int32_t hobj = c.open(kLocal, OPEN_OUTPUT);
  Status s;
  qmBEGIN(0, nullptr, &s.compCode, &s.reason);
  EXPECT_EQ(s, failed(RC_HCONN_ERROR));
  qmBEGIN(c.hconn(), pages.none, &s.compCode, &s.reason);
  EXPECT_EQ(s, failed(RC_BEGIN_OPTIONS_ERROR));
  qmBEGIN(c.hconn(), nullptr, &s.compCode, &s.reason);
  EXPECT_EQ(s, ok());
  qmBEGIN(c.hconn(), nullptr, &s.compCode, &s.reason);
  EXPECT_EQ(s, failed(RC_UOW_IN_PROGRESS));
  EXPECT_EQ(c.commit(), ok());
  char options[12] = {'B', 'O', ' ', ' ', 1};
  qmBEGIN(c.hconn(), options, &s.compCode, &s.reason);
  EXPECT_EQ(s, ok());
  EXPECT_EQ(c.backout(), ok());
  ASSERT_EQ(c.put(hobj, "x", nullptr, PUT_SYNCPOINT), ok());  // an implicit unit
  qmBEGIN(c.hconn(), nullptr, &s.compCode, &s.reason);
  EXPECT_EQ(s, failed(RC_UOW_IN_PROGRESS));
  qmCMIT(0, &s.compCode, &s.reason);
  EXPECT_EQ(s, failed(RC_HCONN_ERROR));
  qmBACK(0, &s.compCode, &s.reason);
  EXPECT_EQ(s, failed(RC_HCONN_ERROR));
}

TEST_F(QmUnitOfWork, DisconnectBacksOut) {
  Connection reader;
  int32_t input = reader.open(kLocal, OPEN_INPUT_SHARED | OPEN_OUTPUT);
  ASSERT_EQ(reader.put(input, "got then restored"), ok());
  {
    Connection c;
    int32_t hobj = c.open(kLocal, OPEN_OUTPUT | OPEN_INPUT_SHARED);
    ASSERT_EQ(c.put(hobj, "never seen", nullptr, PUT_SYNCPOINT), ok());
    ASSERT_EQ(c.get(hobj, nullptr, GET_SYNCPOINT), ok());
    EXPECT_EQ(vxqm::test::messageCount("QM1", kLocal), 2);
  }
  vxMSGDESC md = MD_DEFAULT;
  std::string data;
  ASSERT_EQ(reader.get(input, &data, 0, 0, &md), ok());
  EXPECT_EQ(data, "got then restored");
  EXPECT_EQ(md.backoutCount, 1);
  EXPECT_EQ(reader.get(input, &data), failed(RC_NO_MSG_AVAILABLE));
}

TEST_F(QmUnitOfWork, AQueueDeletedInsideAUnitLeavesTheUnitUsable) {
  Connection c;
  vxOBJDESC od = objectDescriptor(kModel);
  int32_t temporary = c.open(kModel, OPEN_OUTPUT | OPEN_INPUT_SHARED, ok(), &od);
  int32_t local = c.open(kLocal, OPEN_OUTPUT);
  ASSERT_EQ(c.put(temporary, "gone with its queue", nullptr, PUT_SYNCPOINT), ok());
  ASSERT_EQ(c.put(local, "stays", nullptr, PUT_SYNCPOINT), ok());
  ASSERT_EQ(c.close(temporary), ok());
  EXPECT_EQ(c.commit(), ok());
  EXPECT_EQ(vxqm::test::messageCount("QM1", kLocal), 1);
}

// ---------------------------------------------------------------------------
// Test hooks

using QmHooks = QmTest;

TEST_F(QmHooks, FailNextMakesTheNextCallsOfAnEntryFail) {
  EXPECT_FALSE(vxqm::test::failNext("qmNOTHING", 1, CC_FAILED, RC_Q_FULL));
  Connection c;
  int32_t hobj = c.open(kLocal, OPEN_OUTPUT);
  ASSERT_TRUE(vxqm::test::failNext("qmPUT", 2, CC_FAILED, RC_Q_FULL));
  EXPECT_EQ(c.put(hobj, "1"), failed(RC_Q_FULL));
  EXPECT_EQ(c.put(hobj, "2"), failed(RC_Q_FULL));
  EXPECT_EQ(c.put(hobj, "3"), ok());
  EXPECT_EQ(vxqm::test::messageCount("QM1", kLocal), 1);
  ASSERT_TRUE(vxqm::test::failNext("qmOPEN", 1, CC_WARNING, 1234));
  int32_t untouched = 77;
  vxOBJDESC od = objectDescriptor(kLocal);
  Status s;
  qmOPEN(c.hconn(), &od, OPEN_OUTPUT, &untouched, &s.compCode, &s.reason);
  EXPECT_EQ(s, warning(1234));
  EXPECT_EQ(untouched, 77);  // the call did nothing else
  ASSERT_TRUE(vxqm::test::failNext("qmGET", 5, CC_FAILED, RC_NO_MSG_AVAILABLE));
  ASSERT_TRUE(vxqm::test::failNext("qmGET", 0, CC_FAILED, RC_NO_MSG_AVAILABLE));  // cancelled
  int32_t input = c.open(kLocal, OPEN_INPUT_SHARED);
  EXPECT_EQ(c.get(input, nullptr), ok());
  // Every entry can be scripted.
  for (const char *entry : {"qmCONN", "qmCONNX", "qmDISC", "qmOPEN", "qmCLOSE", "qmGET", "qmPUT",
                            "qmPUT1", "qmINQ", "qmSET", "qmCMIT", "qmBACK", "qmBEGIN"}) {
    EXPECT_TRUE(vxqm::test::failNext(entry, 1, CC_FAILED, 4321));
  }
  char name[] = "QM1";
  int32_t h = 0;
  qmCONN(name, &h, &s.compCode, &s.reason, 0);
  EXPECT_EQ(s, failed(4321));
  qmCONNX(name, nullptr, &h, &s.compCode, &s.reason, 0);
  EXPECT_EQ(s, failed(4321));
  qmDISC(&h, 0, &s.compCode, &s.reason);
  EXPECT_EQ(s, failed(4321));
  qmCMIT(c.hconn(), &s.compCode, &s.reason);
  EXPECT_EQ(s, failed(4321));
  qmBACK(c.hconn(), &s.compCode, &s.reason);
  EXPECT_EQ(s, failed(4321));
  qmBEGIN(c.hconn(), nullptr, &s.compCode, &s.reason);
  EXPECT_EQ(s, failed(4321));
  qmINQ(0, 0, 0, nullptr, 0, nullptr, 0, nullptr, &s.compCode, &s.reason);
  EXPECT_EQ(s, failed(4321));
  qmSET(0, 0, 0, nullptr, 0, nullptr, 0, nullptr, &s.compCode, &s.reason);
  EXPECT_EQ(s, failed(4321));
  qmPUT1(0, nullptr, nullptr, nullptr, 0, nullptr, &s.compCode, &s.reason);
  EXPECT_EQ(s, failed(4321));
  EXPECT_EQ(c.close(hobj), failed(4321));
  EXPECT_EQ(c.put(hobj, "x"), failed(4321));
  EXPECT_EQ(c.get(input, nullptr), failed(4321));
  qmOPEN(0, nullptr, 0, nullptr, &s.compCode, &s.reason);
  EXPECT_EQ(s, failed(4321));
  EXPECT_EQ(c.close(hobj), ok());
}

TEST_F(QmHooks, ExceptionsInsideAnEntryBecomeReasons) {
  Connection c;
  int32_t hobj = c.open(kLocal, OPEN_OUTPUT);
  EXPECT_FALSE(vxqm::test::throwNext("qmELSE", vxqm::test::Fault::kUnexpected));
  ASSERT_TRUE(vxqm::test::throwNext("qmPUT", vxqm::test::Fault::kOutOfMemory));
  EXPECT_EQ(c.put(hobj, "x"), failed(RC_STORAGE_NOT_AVAILABLE));
  ASSERT_TRUE(vxqm::test::throwNext("qmPUT", vxqm::test::Fault::kUnexpected));
  EXPECT_EQ(c.put(hobj, "x"), failed(RC_UNEXPECTED_ERROR));
  EXPECT_EQ(c.put(hobj, "x"), ok());
  EXPECT_EQ(vxqm::test::messageCount("QM1", kLocal), 1);
}

TEST_F(QmHooks, HeldMessagesAppearWhenReleased) {
  Connection c;
  int32_t hobj = c.open(kLocal, OPEN_OUTPUT | OPEN_INPUT_SHARED);
  EXPECT_EQ(vxqm::test::holdMessages("QM1", "NOT.THERE", true), RC_UNKNOWN_OBJECT_NAME);
  EXPECT_EQ(vxqm::test::holdMessages("BAD NAME", kLocal, true), RC_Q_MGR_NAME_ERROR);
  ASSERT_EQ(vxqm::test::holdMessages("QM1", kLocal, true), 0);
  ASSERT_EQ(c.put(hobj, "held"), ok());
  EXPECT_EQ(vxqm::test::messageCount("QM1", kLocal), 1);
  EXPECT_EQ(c.get(hobj, nullptr), failed(RC_NO_MSG_AVAILABLE));
  ASSERT_EQ(vxqm::test::holdMessages("QM1", kLocal, false), 0);
  std::string data;
  EXPECT_EQ(c.get(hobj, &data), ok());
  EXPECT_EQ(data, "held");
}

TEST_F(QmHooks, DelayedMessagesAppearAfterTheirDelay) {
  Connection c;
  int32_t hobj = c.open(kLocal, OPEN_OUTPUT | OPEN_INPUT_SHARED);
  EXPECT_EQ(vxqm::test::delayMessages("QM1", kLocal, -1), RC_SELECTOR_ERROR);
  ASSERT_EQ(vxqm::test::delayMessages("QM1", kLocal, 100), 0);
  const auto start = std::chrono::steady_clock::now();
  ASSERT_EQ(c.put(hobj, "late"), ok());
  EXPECT_EQ(c.get(hobj, nullptr), failed(RC_NO_MSG_AVAILABLE));
  std::string data;
  EXPECT_EQ(c.get(hobj, &data, GET_WAIT, 5000), ok());
  const auto waited = std::chrono::steady_clock::now() - start;
  EXPECT_EQ(data, "late");
  EXPECT_GE(waited, std::chrono::milliseconds(100));
  EXPECT_LT(waited, std::chrono::seconds(2));
  ASSERT_EQ(vxqm::test::delayMessages("QM1", kLocal, 0), 0);
  ASSERT_EQ(c.put(hobj, "at once"), ok());
  EXPECT_EQ(c.get(hobj, &data), ok());
}

TEST_F(QmHooks, ResetRestoresTheInitialObjectsAndEndsConnections) {
  Connection c;
  ASSERT_EQ(vxqm::admin::createQueue("QM1", "EXTRA", {}), 0);
  int32_t hobj = c.open(kLocal, OPEN_OUTPUT);
  ASSERT_EQ(c.put(hobj, "x"), ok());
  vxOBJDESC od = objectDescriptor(kModel);
  c.open(kModel, OPEN_INPUT_SHARED, ok(), &od);
  ASSERT_EQ(vxqm::admin::deleteQueue("QM1", kCommand, false), 0);
  ASSERT_TRUE(vxqm::test::failNext("qmINQ", 3, CC_FAILED, 1));
  EXPECT_EQ(vxqm::test::queueCount("QM1"), 4);
  EXPECT_EQ(vxqm::test::temporaryQueueCount("QM1"), 1);
  EXPECT_EQ(vxqm::test::connectionCount("QM1"), 1);
  vxqm::test::reset("QM1");
  EXPECT_EQ(vxqm::test::queueCount("QM1"), 3);
  EXPECT_EQ(vxqm::test::temporaryQueueCount("QM1"), 0);
  EXPECT_EQ(vxqm::test::connectionCount("QM1"), 0);
  EXPECT_EQ(vxqm::test::messageCount("QM1", kLocal), 0);
  EXPECT_EQ(vxqm::test::messageCount("QM1", kCommand), 0);
  EXPECT_EQ(c.put(hobj, "x"), failed(RC_HCONN_ERROR));
  Connection fresh;
  int32_t inquire = fresh.open(kLocal, OPEN_INQUIRE);
  int32_t selector = ATTR_CURRENT_DEPTH;
  int32_t depth = -1;
  Status s;
  qmINQ(fresh.hconn(), inquire, 1, &selector, 1, &depth, 0, nullptr, &s.compCode, &s.reason);
  EXPECT_EQ(s, ok());  // the script was cancelled
  EXPECT_EQ(vxqm::test::queueCount("NEVER.CONNECTED"), -1);
  EXPECT_EQ(vxqm::test::messageCount("QM1", "NOT.THERE"), -1);
  EXPECT_EQ(vxqm::test::connectionCount("BAD NAME"), -1);
}

// ---------------------------------------------------------------------------
// Administration interface

using QmAdmin = QmTest;

TEST_F(QmAdmin, CreateWithDefaultsAndAttributes) {
  ASSERT_EQ(vxqm::admin::createQueue("", "NEW.LOCAL", {}), 0);
  vxqm::QueueDefinition d;
  ASSERT_EQ(vxqm::admin::queueAttributes("QM1", "NEW.LOCAL", &d), 0);
  EXPECT_EQ(d.name, "NEW.LOCAL");
  EXPECT_EQ(d.queueType, QTYPE_LOCAL);
  EXPECT_EQ(d.definitionType, DEFTYPE_PREDEFINED);
  EXPECT_EQ(d.description, "");
  EXPECT_EQ(d.defaultPersistence, 0);
  EXPECT_EQ(d.defaultPriority, 0);
  EXPECT_EQ(d.inhibitGet, 0);
  EXPECT_EQ(d.inhibitPut, 0);
  EXPECT_EQ(d.maxMsgLength, 4194304);
  EXPECT_EQ(d.maxDepth, 5000);
  EXPECT_EQ(vxqm::admin::createQueue("QM1", "NEW.LOCAL", {}), RC_OBJECT_ALREADY_EXISTS);
  for (const char *bad : {"", "A B", "A*", "ABCDEFGHIJABCDEFGHIJABCDEFGHIJABCDEFGHIJABCDEFGHI"}) {
    EXPECT_EQ(vxqm::admin::createQueue("QM1", bad, {}), RC_OBJECT_NAME_ERROR) << bad;
  }
  EXPECT_EQ(vxqm::admin::createQueue("QM1", "a.b_c/d%9", {}), 0);
  EXPECT_EQ(vxqm::admin::createQueue("BAD NAME", "X", {}), RC_Q_MGR_NAME_ERROR);
  vxqm::QueueChanges model;
  model.queueType = QTYPE_MODEL;
  model.description = "my model   ";
  ASSERT_EQ(vxqm::admin::createQueue("QM1", "MY.MODEL", model), 0);
  ASSERT_EQ(vxqm::admin::queueAttributes("QM1", "MY.MODEL", &d), 0);
  EXPECT_EQ(d.definitionType, DEFTYPE_TEMPORARY_DYNAMIC);
  EXPECT_EQ(d.description, "my model");
}

TEST_F(QmAdmin, BadAttributeValuesAreRefused) {
  auto refused = [](vxqm::QueueChanges changes) {
    return vxqm::admin::createQueue("QM1", "REFUSED", changes);
  };
  vxqm::QueueChanges c;
  c.queueType = 3;
  EXPECT_EQ(refused(c), RC_SELECTOR_ERROR);
  c = {};
  c.definitionType = DEFTYPE_TEMPORARY_DYNAMIC;  // a local queue is predefined
  EXPECT_EQ(refused(c), RC_SELECTOR_ERROR);
  c = {};
  c.queueType = QTYPE_MODEL;
  c.definitionType = DEFTYPE_PREDEFINED;
  EXPECT_EQ(refused(c), RC_SELECTOR_ERROR);
  c = {};
  c.description = std::string(65, 'd');
  EXPECT_EQ(refused(c), RC_SELECTOR_ERROR);
  const std::pair<std::optional<int32_t> vxqm::QueueChanges::*, std::pair<int32_t, int32_t>>
      limits[] = {{&vxqm::QueueChanges::defaultPersistence, {0, 1}},
                  {&vxqm::QueueChanges::defaultPriority, {0, 9}},
                  {&vxqm::QueueChanges::inhibitGet, {0, 1}},
                  {&vxqm::QueueChanges::inhibitPut, {0, 1}},
                  {&vxqm::QueueChanges::maxMsgLength, {0, 100 * 1024 * 1024}},
                  {&vxqm::QueueChanges::maxDepth, {0, 999999999}}};
  for (const auto &[member, range] : limits) {
    c = {};
    c.*member = range.first - 1;
    EXPECT_EQ(refused(c), RC_SELECTOR_ERROR);
    c.*member = range.second + 1;
    EXPECT_EQ(refused(c), RC_SELECTOR_ERROR);
    c.*member = range.second;
    EXPECT_EQ(refused(c), 0);
    EXPECT_EQ(vxqm::admin::deleteQueue("QM1", "REFUSED", false), 0);
  }
}

TEST_F(QmAdmin, ChangeCopyAndTypes) {
  vxqm::QueueChanges changes;
  changes.description = "changed";
  changes.maxDepth = 7;
  EXPECT_EQ(vxqm::admin::changeQueue("QM1", "NOT.THERE", changes), RC_UNKNOWN_OBJECT_NAME);
  ASSERT_EQ(vxqm::admin::changeQueue("QM1", kLocal, changes), 0);
  vxqm::QueueDefinition d;
  ASSERT_EQ(vxqm::admin::queueAttributes("QM1", kLocal, &d), 0);
  EXPECT_EQ(d.description, "changed");
  EXPECT_EQ(d.maxDepth, 7);
  vxqm::QueueChanges toModel;
  toModel.queueType = QTYPE_MODEL;
  EXPECT_EQ(vxqm::admin::changeQueue("QM1", kLocal, toModel), RC_OBJECT_TYPE_ERROR);
  vxqm::QueueChanges copyChanges;
  copyChanges.maxDepth = 9;
  ASSERT_EQ(vxqm::admin::copyQueue("QM1", kLocal, "COPY", copyChanges), 0);
  ASSERT_EQ(vxqm::admin::queueAttributes("QM1", "COPY", &d), 0);
  EXPECT_EQ(d.name, "COPY");
  EXPECT_EQ(d.description, "changed");
  EXPECT_EQ(d.maxDepth, 9);
  EXPECT_EQ(vxqm::admin::copyQueue("QM1", kLocal, "COPY", {}), RC_OBJECT_ALREADY_EXISTS);
  EXPECT_EQ(vxqm::admin::copyQueue("QM1", "NOT.THERE", "COPY2", {}), RC_UNKNOWN_OBJECT_NAME);
  EXPECT_EQ(vxqm::admin::copyQueue("QM1", kLocal, "BAD NAME", {}), RC_OBJECT_NAME_ERROR);
  EXPECT_EQ(vxqm::admin::copyQueue("QM1", kModel, "COPY.MODEL", toModel), 0);
  vxqm::QueueChanges toLocal;
  toLocal.queueType = QTYPE_LOCAL;
  EXPECT_EQ(vxqm::admin::copyQueue("QM1", kModel, "COPY.LOCAL", toLocal), RC_OBJECT_TYPE_ERROR);
  // The copy of a temporary dynamic queue is predefined.
  Connection c;
  vxOBJDESC od = objectDescriptor(kModel);
  c.open(kModel, OPEN_OUTPUT, ok(), &od);
  ASSERT_EQ(vxqm::admin::copyQueue("QM1", field(od.objectName, 48), "FROM.DYNAMIC", {}), 0);
  ASSERT_EQ(vxqm::admin::queueAttributes("QM1", "FROM.DYNAMIC", &d), 0);
  EXPECT_EQ(d.definitionType, DEFTYPE_PREDEFINED);
  EXPECT_EQ(vxqm::admin::queueAttributes("QM1", "NOT.THERE", &d), RC_UNKNOWN_OBJECT_NAME);
  EXPECT_EQ(vxqm::admin::queueAttributes("QM1", "", &d), RC_OBJECT_NAME_ERROR);
}

TEST_F(QmAdmin, DeleteAndClearAreRefusedWhileOpen) {
  ASSERT_EQ(vxqm::admin::createQueue("QM1", "BUSY", {}), 0);
  Connection c;
  int32_t hobj = c.open("BUSY", OPEN_INQUIRE | OPEN_OUTPUT);
  ASSERT_EQ(c.put(hobj, "x"), ok());
  EXPECT_EQ(vxqm::admin::deleteQueue("QM1", "BUSY", true), RC_OBJECT_IN_USE);
  EXPECT_EQ(vxqm::admin::clearQueue("QM1", "BUSY"), RC_OBJECT_IN_USE);
  ASSERT_EQ(c.close(hobj), ok());
  EXPECT_EQ(vxqm::admin::deleteQueue("QM1", "BUSY", false), RC_Q_NOT_EMPTY);
  EXPECT_EQ(vxqm::admin::clearQueue("QM1", "BUSY"), 0);
  EXPECT_EQ(vxqm::test::messageCount("QM1", "BUSY"), 0);
  EXPECT_EQ(vxqm::admin::deleteQueue("QM1", "BUSY", false), 0);
  EXPECT_EQ(vxqm::admin::deleteQueue("QM1", "BUSY", false), RC_UNKNOWN_OBJECT_NAME);
  EXPECT_EQ(vxqm::admin::clearQueue("QM1", "BUSY"), RC_UNKNOWN_OBJECT_NAME);
  EXPECT_EQ(vxqm::admin::clearQueue("QM1", kModel), RC_OBJECT_TYPE_ERROR);
  EXPECT_EQ(vxqm::admin::deleteQueue("QM1", "A B", false), RC_OBJECT_NAME_ERROR);
  ASSERT_EQ(vxqm::admin::createQueue("QM1", "FULL", {}), 0);
  hobj = c.open("FULL", OPEN_OUTPUT);
  ASSERT_EQ(c.put(hobj, "x"), ok());
  ASSERT_EQ(c.close(hobj), ok());
  EXPECT_EQ(vxqm::admin::deleteQueue("QM1", "FULL", true), 0);
  c.open("FULL", OPEN_OUTPUT, failed(RC_UNKNOWN_OBJECT_NAME));
}

TEST_F(QmAdmin, ListByGenericPatternInNameOrder) {
  for (const char *name : {"APP.B", "APP.A", "APPX", "OTHER"}) {
    ASSERT_EQ(vxqm::admin::createQueue("QM1", name, {}), 0);
  }
  std::vector<std::string> names;
  ASSERT_EQ(vxqm::admin::listQueues("QM1", "APP.*", 0, &names), 0);
  EXPECT_EQ(names, (std::vector<std::string>{"APP.A", "APP.B"}));
  ASSERT_EQ(vxqm::admin::listQueues("QM1", "APP*", QTYPE_LOCAL, &names), 0);
  EXPECT_EQ(names, (std::vector<std::string>{"APP.A", "APP.B", "APPX"}));
  ASSERT_EQ(vxqm::admin::listQueues("QM1", "OTHER", 0, &names), 0);
  EXPECT_EQ(names, (std::vector<std::string>{"OTHER"}));
  ASSERT_EQ(vxqm::admin::listQueues("QM1", "SYSTEM.*", QTYPE_LOCAL, &names), 0);
  EXPECT_EQ(names, (std::vector<std::string>{kCommand, kLocal}));
  ASSERT_EQ(vxqm::admin::listQueues("QM1", "NONE*", 0, &names), 0);
  EXPECT_TRUE(names.empty());
  ASSERT_EQ(vxqm::admin::listQueues("QM1", "*", 0, &names), 0);
  EXPECT_EQ(names.size(), 7u);
  EXPECT_TRUE(std::is_sorted(names.begin(), names.end()));
  for (const char *bad : {"", "A*B", "A B*", "**"}) {
    EXPECT_EQ(vxqm::admin::listQueues("QM1", bad, 0, &names), RC_OBJECT_NAME_ERROR) << bad;
  }
  EXPECT_EQ(vxqm::admin::listQueues("QM1", "*", 5, &names), RC_SELECTOR_ERROR);
}

TEST_F(QmAdmin, StatusCountsMessagesAndOpens) {
  Connection c;
  int32_t both = c.open(kLocal, OPEN_OUTPUT | OPEN_INPUT_SHARED);
  c.open(kLocal, OPEN_OUTPUT);
  ASSERT_EQ(c.put(both, "1"), ok());
  ASSERT_EQ(c.put(both, "2", nullptr, PUT_SYNCPOINT), ok());
  vxqm::QueueStatus status;
  ASSERT_EQ(vxqm::admin::queueStatus("QM1", kLocal, &status), 0);
  EXPECT_EQ(status.depth, 2);
  EXPECT_EQ(status.openInputCount, 1);
  EXPECT_EQ(status.openOutputCount, 2);
  EXPECT_EQ(vxqm::admin::queueStatus("QM1", "NOT.THERE", &status), RC_UNKNOWN_OBJECT_NAME);
}

}  // namespace
