// The command server against the in-process queue manager: every command
// with its replies through vxExecute, its errors, requests that are not
// command messages, requests without a reply-to queue, hostile requests, and
// many threads sharing one server.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <optional>
#include <string>
#include <thread>
#include <variant>
#include <vector>

#include "bag_items.h"
#include "emulation.h"
#include "command_server.h"
#include "qm_admin.h"
#include "qm_test.h"
#include "queue_attributes.h"
#include "svc.h"
#include "vxai.h"
#include "vxqi.h"

namespace {

constexpr char kQm[] = "QM1";
constexpr char kCommandQueue[] = "SYSTEM.ADMIN.COMMAND.QUEUE";
constexpr char kReplyQueue[] = "TEST.REPLY";
constexpr int32_t kLibraryComponent = 25;
constexpr int32_t kPcfTypeCommand = 1;
constexpr int32_t kPcfTypeResponse = 2;

using servertest::reasonName;

#define EXPECT_REASON(actual, expected) EXPECT_EQ(reasonName(actual), reasonName(expected))

void blankName(char *field, size_t length, const std::string &name) {
  std::memset(field, ' ', length);
  std::memcpy(field, name.data(), name.size());
}

int32_t liveLibraryBlocks() {
  int32_t blocks = 0, bytes = 0;
  svcMemLive(kLibraryComponent, -1, &blocks, &bytes);
  return blocks;
}

// One reply as the requester reads it: its header and its items in order.
struct ReplyMessage {
  int32_t pcfType = -1, command = -1, sequence = -1, control = -1, compCode = -1, reason = -1;
  std::vector<std::pair<int32_t, std::variant<int32_t, std::string>>> items;

  int32_t count(int32_t selector) const {
    int32_t n = 0;
    for (const auto &item : items) n += item.first == selector;
    return n;
  }
  int32_t integer(int32_t selector) const {
    for (const auto &item : items)
      if (item.first == selector && std::holds_alternative<int32_t>(item.second))
        return std::get<int32_t>(item.second);
    ADD_FAILURE() << "no integer " << selector;
    return -99;
  }
  // The string as it travelled, and trimmed of its blanks.
  std::string raw(int32_t selector, int32_t index = 0) const {
    for (const auto &item : items)
      if (item.first == selector && std::holds_alternative<std::string>(item.second) &&
          index-- == 0)
        return std::get<std::string>(item.second);
    ADD_FAILURE() << "no string " << selector;
    return {};
  }
  std::string text(int32_t selector, int32_t index = 0) const {
    std::string value = raw(selector, index);
    while (!value.empty() && (value.back() == ' ' || value.back() == '\0')) value.pop_back();
    return value;
  }
  std::vector<int32_t> selectors() const {
    std::vector<int32_t> all;
    for (const auto &item : items) all.push_back(item.first);
    return all;
  }
};

int32_t systemItem(VXHBAG bag, int32_t selector) {
  int32_t value = -99, cc, rc;
  vxInquireInteger(bag, selector, ITEM_INDEX_NONE, &value, &cc, &rc);
  EXPECT_EQ(cc, CC_OK) << "system item " << selector << ": " << reasonName(rc);
  return value;
}

ReplyMessage readBag(VXHBAG bag) {
  ReplyMessage reply;
  reply.pcfType = systemItem(bag, SEL_PCF_TYPE);
  reply.command = systemItem(bag, SEL_COMMAND);
  reply.sequence = systemItem(bag, SEL_MSG_SEQ_NUMBER);
  reply.control = systemItem(bag, SEL_CONTROL);
  reply.compCode = systemItem(bag, SEL_COMP_CODE);
  reply.reason = systemItem(bag, SEL_REASON);
  int32_t count = 0, cc, rc;
  vxCountItems(bag, SEL_ANY_USER_SELECTOR, &count, &cc, &rc);
  for (int32_t i = 0; i < count; ++i) {
    int32_t selector = 0, type = 0;
    vxInquireItemInfo(bag, SEL_ANY_USER_SELECTOR, i, &selector, &type, &cc, &rc);
    if (type == ITEM_TYPE_INTEGER) {
      int32_t value = 0;
      vxInquireInteger(bag, SEL_ANY_USER_SELECTOR, i, &value, &cc, &rc);
      reply.items.emplace_back(selector, value);
    } else {
      char text[256];
      int32_t length = 0, ccsid = 0;
      vxInquireString(bag, SEL_ANY_USER_SELECTOR, i, sizeof text, text, &length, &ccsid, &cc, &rc);
      reply.items.emplace_back(selector, std::string(text, static_cast<size_t>(length)));
    }
  }
  return reply;
}

// What one vxExecute brought back.
struct Execution {
  int32_t compCode = -1, reason = -1;
  std::vector<ReplyMessage> replies;
};

using Filler = std::function<void(VXHBAG)>;

using servertest::addInteger;
using servertest::addString;

// Runs one command through vxExecute on `hconn` and reads every reply.
Execution execute(int32_t hconn, int32_t command, const Filler &fill = {}, int32_t wait = 5000) {
  Execution result;
  int32_t cc, rc;
  VXHBAG request = BAG_NONE, reply = BAG_NONE, options = BAG_NONE;
  vxCreateBag(BAG_OPT_ADMIN_BAG, &request, &cc, &rc);
  vxCreateBag(BAG_OPT_ADMIN_BAG, &reply, &cc, &rc);
  vxCreateBag(0, &options, &cc, &rc);
  vxAddInteger(options, PARM_WAIT_INTERVAL, wait, &cc, &rc);
  if (fill) fill(request);
  vxExecute(hconn, command, options, request, reply, HOBJ_NONE, HOBJ_NONE, &result.compCode,
            &result.reason);
  int32_t nested = 0;
  vxCountItems(reply, SEL_NESTED_REPLY_BAG, &nested, &cc, &rc);
  for (int32_t i = 0; i < nested; ++i) {
    VXHBAG bag = BAG_NONE;
    vxInquireBag(reply, SEL_NESTED_REPLY_BAG, i, &bag, &cc, &rc);
    result.replies.push_back(readBag(bag));
  }
  vxDeleteBag(&request, &cc, &rc);
  vxDeleteBag(&reply, &cc, &rc);
  vxDeleteBag(&options, &cc, &rc);
  return result;
}

// A command that the server answers with one error reply.
void expectError(const Execution &execution, int32_t command, int32_t reason,
                 std::optional<int32_t> parameter) {
  EXPECT_EQ(execution.compCode, CC_FAILED);
  EXPECT_REASON(execution.reason, RC_COMMAND_FAILED);
  ASSERT_EQ(execution.replies.size(), 1u);
  const ReplyMessage &reply = execution.replies[0];
  EXPECT_EQ(reply.command, command);
  EXPECT_EQ(reply.compCode, CC_FAILED);
  EXPECT_REASON(reply.reason, reason);
  EXPECT_EQ(reply.control, PCF_CONTROL_LAST);
  if (parameter) {
    ASSERT_EQ(reply.count(PARM_ERROR_PARAMETER), 1);
    EXPECT_EQ(reply.integer(PARM_ERROR_PARAMETER), *parameter);
  } else {
    EXPECT_EQ(reply.count(PARM_ERROR_PARAMETER), 0);
  }
}

// A command answered by one successful reply without items.
void expectDone(const Execution &execution, int32_t command) {
  EXPECT_EQ(execution.compCode, CC_OK) << reasonName(execution.reason);
  ASSERT_EQ(execution.replies.size(), 1u);
  const ReplyMessage &reply = execution.replies[0];
  EXPECT_EQ(reply.pcfType, kPcfTypeResponse);
  EXPECT_EQ(reply.command, command);
  EXPECT_EQ(reply.sequence, 1);
  EXPECT_EQ(reply.control, PCF_CONTROL_LAST);
  EXPECT_EQ(reply.compCode, CC_OK);
  EXPECT_REASON(reply.reason, RC_NONE);
}

Filler named(const std::string &name, std::optional<int32_t> type = QTYPE_LOCAL,
             const Filler &more = {}) {
  return [=](VXHBAG bag) {
    addString(bag, ATTR_Q_NAME, name);
    if (type) addInteger(bag, ATTR_Q_TYPE, *type);
    if (more) more(bag);
  };
}

class CommandServerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    vxqm::test::reset(kQm);
    blocksAtStart_ = liveLibraryBlocks();
    ASSERT_EQ(vxcsStart(kQm, &server_), 0);
    ASSERT_NE(server_, nullptr);
    connect(&hconn_);
  }

  void TearDown() override {
    int32_t cc, rc;
    VXDISC(&hconn_, &cc, &rc);
    vxcsStop(server_);
    server_ = nullptr;
    EXPECT_EQ(liveLibraryBlocks(), blocksAtStart_) << "blocks left behind";
    EXPECT_EQ(vxqm::test::temporaryQueueCount(kQm), 0) << "temporary queues left behind";
    vxqm::test::reset(kQm);
  }

  static void connect(int32_t *hconn) {
    char name[QM_NAME_LENGTH + 1] = "QM1";
    int32_t cc, rc;
    VXCONN(name, hconn, &cc, &rc);
    ASSERT_EQ(cc, CC_OK) << reasonName(rc);
  }

  Execution run(int32_t command, const Filler &fill = {}) { return execute(hconn_, command, fill); }

  void createLocal(const std::string &name) {
    ASSERT_EQ(vxqm::admin::createQueue(kQm, name, vxqm::QueueChanges()), 0) << name;
  }

  // Opens a queue of the test's own connection.
  int32_t open(const std::string &name, int32_t options) {
    vxOBJDESC od = OD_DEFAULT;
    blankName(od.objectName, Q_NAME_LENGTH, name);
    int32_t hobj = HOBJ_UNUSABLE, cc, rc;
    VXOPEN(hconn_, &od, options, &hobj, &cc, &rc);
    EXPECT_EQ(cc, CC_OK) << name << ": " << reasonName(rc);
    return hobj;
  }

  void close(int32_t hobj) {
    int32_t cc, rc;
    VXCLOSE(hconn_, &hobj, CLOSE_NONE, &cc, &rc);
    EXPECT_EQ(cc, CC_OK) << reasonName(rc);
  }

  void putMessages(const std::string &queue, int32_t count) {
    const int32_t hobj = open(queue, OPEN_OUTPUT);
    for (int32_t i = 0; i < count; ++i) {
      vxMSGDESC md = MD_DEFAULT;
      vxPUTOPTS pmo = PMO_DEFAULT;
      pmo.options = PUT_NO_SYNCPOINT;
      char data[] = "message";
      int32_t cc, rc;
      VXPUT(hconn_, hobj, &md, &pmo, sizeof data, data, &cc, &rc);
      EXPECT_EQ(cc, CC_OK) << reasonName(rc);
    }
    close(hobj);
  }

  // Puts raw bytes on the command queue as a request; returns its message id.
  std::string putRequest(const void *bytes, int32_t length, const char *format,
                         const std::string &replyTo = kReplyQueue, int32_t expiry = -1) {
    const int32_t hobj = open(kCommandQueue, OPEN_OUTPUT);
    vxMSGDESC md = MD_DEFAULT;
    md.msgType = MSGTYPE_REQUEST;
    md.expiry = expiry;
    std::memcpy(md.format, format, FORMAT_LENGTH);
    if (!replyTo.empty()) blankName(md.replyToQ, Q_NAME_LENGTH, replyTo);
    vxPUTOPTS pmo = PMO_DEFAULT;
    pmo.options = PUT_NO_SYNCPOINT;
    int32_t cc, rc;
    VXPUT(hconn_, hobj, &md, &pmo, length, const_cast<void *>(bytes), &cc, &rc);
    EXPECT_EQ(cc, CC_OK) << reasonName(rc);
    close(hobj);
    return std::string(md.msgId, MSG_ID_LENGTH);
  }

  // A bag written as a request message.
  std::vector<char> requestBytes(int32_t command, const Filler &fill,
                                 int32_t options = BAG_OPT_ADMIN_BAG) {
    int32_t cc, rc;
    VXHBAG bag = BAG_NONE;
    vxCreateBag(options, &bag, &cc, &rc);
    vxSetInteger(bag, SEL_COMMAND, ITEM_INDEX_NONE, command, &cc, &rc);
    if (fill) fill(bag);
    std::vector<char> bytes(4096);
    int32_t length = 0;
    vxBagToBuffer(BAG_NONE, bag, static_cast<int32_t>(bytes.size()), bytes.data(), &length, &cc,
                  &rc);
    EXPECT_EQ(cc, CC_OK) << reasonName(rc);
    bytes.resize(static_cast<size_t>(length));
    vxDeleteBag(&bag, &cc, &rc);
    return bytes;
  }

  // Reads the next reply on the test's reply queue with vxGetBag, and its
  // descriptor (any message: the descriptor is made afresh).
  ReplyMessage readReply(vxMSGDESC *md, int32_t wait = 5000) {
    *md = MD_DEFAULT;
    const int32_t hobj = open(kReplyQueue, OPEN_INPUT_SHARED);
    vxGETOPTS gmo = GMO_DEFAULT;
    gmo.options = GET_WAIT | GET_NO_SYNCPOINT;
    gmo.waitInterval = wait;
    int32_t cc, rc;
    VXHBAG bag = BAG_NONE;
    vxCreateBag(0, &bag, &cc, &rc);
    vxGetBag(hconn_, hobj, md, &gmo, bag, &cc, &rc);
    EXPECT_EQ(cc, CC_OK) << reasonName(rc);
    ReplyMessage reply = cc == CC_OK ? readBag(bag) : ReplyMessage();
    vxDeleteBag(&bag, &cc, &rc);
    close(hobj);
    return reply;
  }

  vxcsSERVER *server_ = nullptr;
  int32_t hconn_ = 0;
  int32_t blocksAtStart_ = 0;
};

vxqm::QueueDefinition attributesOf(const std::string &name) {
  vxqm::QueueDefinition definition;
  EXPECT_EQ(vxqm::admin::queueAttributes(kQm, name, &definition), 0) << name;
  return definition;
}

bool exists(const std::string &name) {
  vxqm::QueueDefinition definition;
  return vxqm::admin::queueAttributes(kQm, name, &definition) == 0;
}

// ----- Starting and stopping ---------------------------------------------------------------

TEST_F(CommandServerTest, TheServerHoldsTheCommandQueueOpenForInputUntilStopped) {
  vxqm::QueueStatus status;
  ASSERT_EQ(vxqm::admin::queueStatus(kQm, kCommandQueue, &status), 0);
  EXPECT_EQ(status.openInputCount, 1);
  vxcsStop(server_);
  server_ = nullptr;
  ASSERT_EQ(vxqm::admin::queueStatus(kQm, kCommandQueue, &status), 0);
  EXPECT_EQ(status.openInputCount, 0);
  const Execution execution = run(CMD_PING);
  EXPECT_EQ(execution.compCode, CC_FAILED);
  EXPECT_REASON(execution.reason, RC_COMMAND_SERVER_NOT_AVAILABLE);
}

TEST_F(CommandServerTest, StartingAndStoppingAgainLeavesNothingBehind) {
  vxcsStop(server_);
  server_ = nullptr;
  const int32_t connections = vxqm::test::connectionCount(kQm);
  for (int i = 0; i < 20; ++i) {
    vxcsSERVER *server = nullptr;
    ASSERT_EQ(vxcsStart(nullptr, &server), 0) << "the default queue manager";
    if (i % 2 == 0) expectDone(run(CMD_PING), CMD_PING);
    vxcsStop(server);
  }
  EXPECT_EQ(vxqm::test::connectionCount(kQm), connections);
  EXPECT_EQ(liveLibraryBlocks(), blocksAtStart_);
  ASSERT_EQ(vxcsStart("", &server_), 0);
}

TEST_F(CommandServerTest, AQueueManagerNameThatIsNotValidIsRefused) {
  vxcsSERVER *server = reinterpret_cast<vxcsSERVER *>(&server);
  EXPECT_REASON(vxcsStart("NOT A NAME!", &server), RC_Q_MGR_NAME_ERROR);
  EXPECT_EQ(server, nullptr);
  server = reinterpret_cast<vxcsSERVER *>(&server);
  EXPECT_REASON(vxcsStart(std::string(49, 'Q').c_str(), &server), RC_Q_MGR_NAME_ERROR);
  EXPECT_EQ(server, nullptr);
  EXPECT_REASON(vxcsStart(kQm, nullptr), RC_OPTIONS_ERROR);
  vxcsStop(nullptr);
}

TEST_F(CommandServerTest, AServerWhoseConnectionEndedStopsWithoutWaiting) {
  vxqm::test::reset(kQm);  // ends every connection, the server's too
  const auto start = std::chrono::steady_clock::now();
  vxcsStop(server_);
  server_ = nullptr;
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(2));
  connect(&hconn_);
}

TEST_F(CommandServerTest, TwoServersShareTheQueueAndBothAnswer) {
  vxcsSERVER *second = nullptr;
  ASSERT_EQ(vxcsStart(kQm, &second), 0);
  vxqm::QueueStatus status;
  ASSERT_EQ(vxqm::admin::queueStatus(kQm, kCommandQueue, &status), 0);
  EXPECT_EQ(status.openInputCount, 2);
  for (int i = 0; i < 10; ++i) expectDone(run(CMD_PING), CMD_PING);
  vxcsStop(second);
}

// ----- Ping and the shape of every reply ------------------------------------------------

TEST_F(CommandServerTest, PingIsAnsweredByOneEmptyReply) {
  const Execution execution = run(CMD_PING);
  expectDone(execution, CMD_PING);
  EXPECT_TRUE(execution.replies[0].items.empty());
}

TEST_F(CommandServerTest, GetsInhibitedOnTheCommandQueuePauseTheServerUntilAllowedAgain) {
  // The server refuses to inhibit gets on its command queue, but a program
  // with the queue manager's administration interface may: the server's get
  // fails at once, and the server waits for them to be allowed again instead
  // of ending.
  vxqm::QueueChanges inhibited;
  inhibited.inhibitGet = INHIBIT_INHIBITED;
  ASSERT_EQ(vxqm::admin::changeQueue(kQm, kCommandQueue, inhibited), 0);
  std::this_thread::sleep_for(std::chrono::milliseconds(300));
  vxqm::QueueChanges allowed;
  allowed.inhibitGet = INHIBIT_ALLOWED;
  ASSERT_EQ(vxqm::admin::changeQueue(kQm, kCommandQueue, allowed), 0);
  expectDone(run(CMD_PING), CMD_PING);
}

TEST_F(CommandServerTest, AReplyIsAnAdministrationReplyCorrelatedWithItsRequest) {
  createLocal(kReplyQueue);
  const std::vector<char> request = requestBytes(CMD_PING, {});
  const std::string msgId =
      putRequest(request.data(), static_cast<int32_t>(request.size()), VX_FORMAT_ADMIN);
  vxMSGDESC md = MD_DEFAULT;
  const ReplyMessage reply = readReply(&md);
  EXPECT_EQ(md.msgType, MSGTYPE_REPLY);
  EXPECT_EQ(std::string(md.format, FORMAT_LENGTH), VX_FORMAT_ADMIN);
  EXPECT_EQ(md.encoding, ENCODING_NATIVE);
  EXPECT_EQ(std::string(md.correlId, CORREL_ID_LENGTH), msgId);
  EXPECT_EQ(reply.pcfType, kPcfTypeResponse);
  EXPECT_EQ(reply.command, CMD_PING);
  EXPECT_EQ(reply.sequence, 1);
  EXPECT_EQ(reply.control, PCF_CONTROL_LAST);
  EXPECT_EQ(vxqm::test::messageCount(kQm, kReplyQueue), 0);
}

TEST_F(CommandServerTest, AnUnknownCommandGetsAnErrorReply) {
  expectError(run(99), 99, RC_COMMAND_NOT_SUPPORTED, std::nullopt);
  expectError(run(85), 85, RC_COMMAND_NOT_SUPPORTED, std::nullopt);
}

TEST_F(CommandServerTest, AParameterNoCommandTakesIsAParameterError) {
  expectError(run(CMD_PING, [](VXHBAG bag) { addInteger(bag, 77, 1); }), CMD_PING,
              RC_PARAMETER_ERROR, 77);
}

// ----- Inquire queue manager -----------------------------------------------------------------

TEST_F(CommandServerTest, InquireQueueManagerGivesItsNameAndCharacterSet) {
  const Execution execution = run(CMD_INQUIRE_Q_MGR);
  expectDone(execution, CMD_INQUIRE_Q_MGR);
  const ReplyMessage &reply = execution.replies[0];
  EXPECT_EQ(reply.raw(ATTR_Q_MGR_NAME), std::string("QM1") + std::string(45, ' '));
  int32_t hobj = HOBJ_UNUSABLE, cc, rc, ccsid = 0;
  vxOBJDESC od = OD_DEFAULT;
  od.objectType = OBJTYPE_Q_MGR;
  VXOPEN(hconn_, &od, OPEN_INQUIRE, &hobj, &cc, &rc);
  int32_t selector = ATTR_CODED_CHAR_SET_ID;
  VXINQ(hconn_, hobj, 1, &selector, 1, &ccsid, 0, nullptr, &cc, &rc);
  ASSERT_EQ(cc, CC_OK) << reasonName(rc);
  VXCLOSE(hconn_, &hobj, CLOSE_NONE, &cc, &rc);
  EXPECT_EQ(reply.integer(ATTR_CODED_CHAR_SET_ID), ccsid);
}

TEST_F(CommandServerTest, InquireQueueManagerReportsWhatItsAttributeListNames) {
  const Execution named = run(CMD_INQUIRE_Q_MGR, [](VXHBAG bag) {
    int32_t cc, rc;
    vxAddInquiry(bag, ATTR_Q_MGR_NAME, &cc, &rc);
  });
  expectDone(named, CMD_INQUIRE_Q_MGR);
  EXPECT_EQ(named.replies[0].selectors(), std::vector<int32_t>{ATTR_Q_MGR_NAME});
  const Execution all = run(CMD_INQUIRE_Q_MGR, [](VXHBAG bag) {
    int32_t cc, rc;
    vxAddInquiry(bag, PARM_ALL, &cc, &rc);
  });
  expectDone(all, CMD_INQUIRE_Q_MGR);
  EXPECT_EQ(all.replies[0].items.size(), 2u);
  expectError(run(CMD_INQUIRE_Q_MGR,
                  [](VXHBAG bag) {
                    int32_t cc, rc;
                    vxAddInquiry(bag, ATTR_MAX_Q_DEPTH, &cc, &rc);
                  }),
              CMD_INQUIRE_Q_MGR, RC_PARAMETER_ERROR, PARM_Q_MGR_ATTRS);
}

// ----- Create, change, copy, delete, clear ------------------------------------------------

TEST_F(CommandServerTest, CreateQueueDefinesItWithItsAttributes) {
  expectDone(run(CMD_CREATE_Q, named("TEST.Q1", QTYPE_LOCAL,
                                     [](VXHBAG bag) {
                                       addString(bag, ATTR_Q_DESC, "a queue");
                                       addInteger(bag, ATTR_DEF_PRIORITY, 7);
                                       addInteger(bag, ATTR_MAX_Q_DEPTH, 10);
                                       addInteger(bag, ATTR_INHIBIT_PUT, INHIBIT_INHIBITED);
                                     })),
             CMD_CREATE_Q);
  const vxqm::QueueDefinition definition = attributesOf("TEST.Q1");
  EXPECT_EQ(definition.queueType, QTYPE_LOCAL);
  EXPECT_EQ(definition.description, "a queue");
  EXPECT_EQ(definition.defaultPriority, 7);
  EXPECT_EQ(definition.maxDepth, 10);
  EXPECT_EQ(definition.inhibitPut, INHIBIT_INHIBITED);
  EXPECT_EQ(definition.maxMsgLength, vxqm::kDefaultMaxMsgLength);

  expectDone(run(CMD_CREATE_Q, named("TEST.MODEL", QTYPE_MODEL)), CMD_CREATE_Q);
  EXPECT_EQ(attributesOf("TEST.MODEL").queueType, QTYPE_MODEL);
}

TEST_F(CommandServerTest, CreateQueueRefusesWhatIsWrongNamingTheParameter) {
  createLocal("TEST.Q1");
  expectError(run(CMD_CREATE_Q, named("TEST.Q1")), CMD_CREATE_Q, RC_OBJECT_ALREADY_EXISTS,
              ATTR_Q_NAME);
  expectError(run(CMD_CREATE_Q, named("NOT VALID")), CMD_CREATE_Q, RC_OBJECT_NAME_ERROR,
              ATTR_Q_NAME);
  expectError(run(CMD_CREATE_Q, named(std::string(49, 'Q'))), CMD_CREATE_Q, RC_OBJECT_NAME_ERROR,
              ATTR_Q_NAME);
  expectError(run(CMD_CREATE_Q, named("TEST.Q2", 3)), CMD_CREATE_Q, RC_PARAMETER_ERROR,
              ATTR_Q_TYPE);
  const struct {
    int32_t selector;
    int32_t value;
  } badValues[] = {
      {ATTR_DEF_PERSISTENCE, 2}, {ATTR_DEF_PRIORITY, 10},
      {ATTR_DEF_PRIORITY, -1},   {ATTR_INHIBIT_GET, 2},
      {ATTR_INHIBIT_PUT, -1},    {ATTR_MAX_Q_DEPTH, -1},
      {ATTR_MAX_MSG_LENGTH, -1}, {ATTR_MAX_MSG_LENGTH, vxqm::kLargestMaxMsgLength + 1},
  };
  for (const auto &bad : badValues) {
    SCOPED_TRACE(bad.selector);
    expectError(
        run(CMD_CREATE_Q, named("TEST.Q2", QTYPE_LOCAL,
                                [&](VXHBAG bag) { addInteger(bag, bad.selector, bad.value); })),
        CMD_CREATE_Q, RC_PARAMETER_ERROR, bad.selector);
  }
  expectError(run(CMD_CREATE_Q,
                  named("TEST.Q2", QTYPE_LOCAL,
                        [](VXHBAG bag) { addString(bag, ATTR_Q_DESC, std::string(65, 'd')); })),
              CMD_CREATE_Q, RC_PARAMETER_ERROR, ATTR_Q_DESC);
  // An integer parameter sent as a string, and a parameter sent twice.
  expectError(run(CMD_CREATE_Q,
                  named("TEST.Q2", QTYPE_LOCAL, [](VXHBAG bag) { addString(bag, 2500, "x"); })),
              CMD_CREATE_Q, RC_PARAMETER_ERROR, 2500);
  expectError(run(CMD_CREATE_Q, named("TEST.Q2", QTYPE_LOCAL,
                                      [](VXHBAG bag) {
                                        addInteger(bag, ATTR_DEF_PRIORITY, 1);
                                        addInteger(bag, ATTR_DEF_PRIORITY, 2);
                                      })),
              CMD_CREATE_Q, RC_PARAMETER_ERROR, ATTR_DEF_PRIORITY);
  // Without its type (the writer needs both leading parameters; the bag
  // without required-parameters-first sends what it holds).
  createLocal(kReplyQueue);
  const std::vector<char> noType = requestBytes(
      CMD_CREATE_Q, [](VXHBAG bag) { addString(bag, ATTR_Q_NAME, "TEST.Q2"); },
      BAG_OPT_COMMAND_BAG);
  putRequest(noType.data(), static_cast<int32_t>(noType.size()), VX_FORMAT_ADMIN);
  vxMSGDESC md = MD_DEFAULT;
  const ReplyMessage reply = readReply(&md);
  EXPECT_REASON(reply.reason, RC_PARAMETER_MISSING);
  EXPECT_EQ(reply.integer(PARM_ERROR_PARAMETER), ATTR_Q_TYPE);
  EXPECT_FALSE(exists("TEST.Q2"));
}

TEST_F(CommandServerTest, ChangeQueueSetsTheAttributesGiven) {
  createLocal("TEST.Q1");
  expectDone(run(CMD_CHANGE_Q, named("TEST.Q1", QTYPE_LOCAL,
                                     [](VXHBAG bag) {
                                       addInteger(bag, ATTR_MAX_Q_DEPTH, 42);
                                       addInteger(bag, ATTR_INHIBIT_GET, INHIBIT_INHIBITED);
                                     })),
             CMD_CHANGE_Q);
  const vxqm::QueueDefinition definition = attributesOf("TEST.Q1");
  EXPECT_EQ(definition.maxDepth, 42);
  EXPECT_EQ(definition.inhibitGet, INHIBIT_INHIBITED);
  EXPECT_EQ(definition.defaultPriority, 0) << "untouched";
  expectError(run(CMD_CHANGE_Q, named("TEST.Q1", QTYPE_MODEL)), CMD_CHANGE_Q, RC_OBJECT_TYPE_ERROR,
              ATTR_Q_TYPE);
  expectError(run(CMD_CHANGE_Q, named("TEST.NONE")), CMD_CHANGE_Q, RC_UNKNOWN_OBJECT_NAME,
              ATTR_Q_NAME);
  expectError(run(CMD_CHANGE_Q, named("TEST.Q1", QTYPE_LOCAL,
                                      [](VXHBAG bag) { addInteger(bag, ATTR_MAX_Q_DEPTH, -5); })),
              CMD_CHANGE_Q, RC_PARAMETER_ERROR, ATTR_MAX_Q_DEPTH);
}

Filler copyOf(const std::string &from, const std::string &to, int32_t type = QTYPE_LOCAL,
              const Filler &more = {}) {
  return [=](VXHBAG bag) {
    addString(bag, PARM_FROM_Q_NAME, from);
    addString(bag, PARM_TO_Q_NAME, to);
    addInteger(bag, ATTR_Q_TYPE, type);
    if (more) more(bag);
  };
}

TEST_F(CommandServerTest, CopyQueueDefinesALikeQueueWithTheOverrides) {
  vxqm::QueueChanges changes;
  changes.maxDepth = 77;
  changes.description = "original";
  ASSERT_EQ(vxqm::admin::createQueue(kQm, "TEST.FROM", changes), 0);
  expectDone(run(CMD_COPY_Q, copyOf("TEST.FROM", "TEST.TO", QTYPE_LOCAL,
                                    [](VXHBAG bag) { addString(bag, ATTR_Q_DESC, "copy"); })),
             CMD_COPY_Q);
  const vxqm::QueueDefinition copy = attributesOf("TEST.TO");
  EXPECT_EQ(copy.maxDepth, 77);
  EXPECT_EQ(copy.description, "copy");
  expectError(run(CMD_COPY_Q, copyOf("TEST.NONE", "TEST.TO2")), CMD_COPY_Q, RC_UNKNOWN_OBJECT_NAME,
              PARM_FROM_Q_NAME);
  expectError(run(CMD_COPY_Q, copyOf("TEST.FROM", "TEST.TO")), CMD_COPY_Q, RC_OBJECT_ALREADY_EXISTS,
              PARM_TO_Q_NAME);
  expectError(run(CMD_COPY_Q, copyOf("TEST.FROM", "TEST TO")), CMD_COPY_Q, RC_OBJECT_NAME_ERROR,
              PARM_TO_Q_NAME);
  expectError(run(CMD_COPY_Q, copyOf("TEST.FROM", "TEST.TO3", QTYPE_MODEL)), CMD_COPY_Q,
              RC_OBJECT_TYPE_ERROR, ATTR_Q_TYPE);
  EXPECT_FALSE(exists("TEST.TO3"));
}

Filler purging(const std::string &name, int32_t purge) {
  return named(name, std::nullopt, [=](VXHBAG bag) { addInteger(bag, PARM_PURGE, purge); });
}

TEST_F(CommandServerTest, DeleteQueueRefusesAQueueWithMessagesUnlessPurged) {
  createLocal("TEST.Q1");
  putMessages("TEST.Q1", 2);
  expectError(run(CMD_DELETE_Q, named("TEST.Q1", std::nullopt)), CMD_DELETE_Q, RC_Q_NOT_EMPTY,
              std::nullopt);
  expectError(run(CMD_DELETE_Q, purging("TEST.Q1", 0)), CMD_DELETE_Q, RC_Q_NOT_EMPTY, std::nullopt);
  expectError(run(CMD_DELETE_Q, purging("TEST.Q1", 2)), CMD_DELETE_Q, RC_PARAMETER_ERROR,
              PARM_PURGE);
  EXPECT_TRUE(exists("TEST.Q1"));
  expectDone(run(CMD_DELETE_Q, purging("TEST.Q1", 1)), CMD_DELETE_Q);
  EXPECT_FALSE(exists("TEST.Q1"));
  expectError(run(CMD_DELETE_Q, named("TEST.Q1", std::nullopt)), CMD_DELETE_Q,
              RC_UNKNOWN_OBJECT_NAME, ATTR_Q_NAME);
}

TEST_F(CommandServerTest, DeleteAndClearRefuseAnOpenQueue) {
  createLocal("TEST.Q1");
  putMessages("TEST.Q1", 3);
  const int32_t hobj = open("TEST.Q1", OPEN_INQUIRE);
  expectError(run(CMD_DELETE_Q, purging("TEST.Q1", 1)), CMD_DELETE_Q, RC_OBJECT_IN_USE,
              std::nullopt);
  expectError(run(CMD_CLEAR_Q, named("TEST.Q1", std::nullopt)), CMD_CLEAR_Q, RC_OBJECT_IN_USE,
              std::nullopt);
  EXPECT_EQ(vxqm::test::messageCount(kQm, "TEST.Q1"), 3);
  close(hobj);
  expectDone(run(CMD_CLEAR_Q, named("TEST.Q1", std::nullopt)), CMD_CLEAR_Q);
  EXPECT_EQ(vxqm::test::messageCount(kQm, "TEST.Q1"), 0);
  EXPECT_TRUE(exists("TEST.Q1"));
  expectError(run(CMD_CLEAR_Q, named("TEST.NONE", std::nullopt)), CMD_CLEAR_Q,
              RC_UNKNOWN_OBJECT_NAME, ATTR_Q_NAME);
}

// ----- What would lock administrators out ----------------------------------------------

constexpr char kModelQueue[] = "SYSTEM.DEFAULT.MODEL.QUEUE";
constexpr char kDefaultLocalQueue[] = "SYSTEM.DEFAULT.LOCAL.QUEUE";

bool sameDefinition(const vxqm::QueueDefinition &a, const vxqm::QueueDefinition &b) {
  return a.name == b.name && a.queueType == b.queueType && a.definitionType == b.definitionType &&
         a.description == b.description && a.defaultPersistence == b.defaultPersistence &&
         a.defaultPriority == b.defaultPriority && a.inhibitGet == b.inhibitGet &&
         a.inhibitPut == b.inhibitPut && a.maxMsgLength == b.maxMsgLength &&
         a.maxDepth == b.maxDepth;
}

Filler setting(int32_t selector, int32_t value) {
  return [=](VXHBAG bag) { addInteger(bag, selector, value); };
}

TEST_F(CommandServerTest, PutsAndGetsStayAllowedOnTheCommandQueueAndTheReplyModel) {
  const std::pair<const char *, int32_t> queues[] = {{kCommandQueue, QTYPE_LOCAL},
                                                     {kModelQueue, QTYPE_MODEL}};
  for (const auto &[queue, type] : queues) {
    const vxqm::QueueDefinition before = attributesOf(queue);
    for (int32_t selector : {ATTR_INHIBIT_PUT, ATTR_INHIBIT_GET}) {
      SCOPED_TRACE(std::string(queue) + " " + std::to_string(selector));
      expectError(run(CMD_CHANGE_Q, named(queue, type, setting(selector, INHIBIT_INHIBITED))),
                  CMD_CHANGE_Q, RC_SYSTEM_Q_INHIBIT_REFUSED, selector);
      // Nothing else of the request is carried out either.
      expectError(run(CMD_CHANGE_Q, named(queue, type,
                                          [=](VXHBAG bag) {
                                            addInteger(bag, ATTR_MAX_Q_DEPTH, 7);
                                            addInteger(bag, selector, INHIBIT_INHIBITED);
                                          })),
                  CMD_CHANGE_Q, RC_SYSTEM_Q_INHIBIT_REFUSED, selector);
      EXPECT_TRUE(sameDefinition(attributesOf(queue), before));
      expectDone(run(CMD_PING), CMD_PING);
    }
    // Allowing is always accepted, and so is any other attribute.
    expectDone(run(CMD_CHANGE_Q, named(queue, type,
                                       [](VXHBAG bag) {
                                         addInteger(bag, ATTR_INHIBIT_PUT, INHIBIT_ALLOWED);
                                         addInteger(bag, ATTR_INHIBIT_GET, INHIBIT_ALLOWED);
                                         addString(bag, ATTR_Q_DESC, "kept open");
                                       })),
               CMD_CHANGE_Q);
    EXPECT_EQ(attributesOf(queue).description, "kept open");
  }
  // Other queues may be inhibited as before.
  createLocal("TEST.Q1");
  expectDone(run(CMD_CHANGE_Q,
                 named("TEST.Q1", QTYPE_LOCAL, setting(ATTR_INHIBIT_PUT, INHIBIT_INHIBITED))),
             CMD_CHANGE_Q);
  EXPECT_EQ(attributesOf("TEST.Q1").inhibitPut, INHIBIT_INHIBITED);
}

TEST_F(CommandServerTest, TheCommandQueueAndTheReplyModelKeepRoomForCommands) {
  const std::pair<const char *, int32_t> queues[] = {{kCommandQueue, QTYPE_LOCAL},
                                                     {kModelQueue, QTYPE_MODEL}};
  for (const auto &[queue, type] : queues) {
    const vxqm::QueueDefinition before = attributesOf(queue);
    SCOPED_TRACE(queue);
    expectError(run(CMD_CHANGE_Q, named(queue, type, setting(ATTR_MAX_Q_DEPTH, 0))), CMD_CHANGE_Q,
                RC_SYSTEM_Q_LIMIT_REFUSED, ATTR_MAX_Q_DEPTH);
    expectError(run(CMD_CHANGE_Q, named(queue, type, setting(ATTR_MAX_MSG_LENGTH, 4095))),
                CMD_CHANGE_Q, RC_SYSTEM_Q_LIMIT_REFUSED, ATTR_MAX_MSG_LENGTH);
    EXPECT_TRUE(sameDefinition(attributesOf(queue), before));
    expectDone(run(CMD_PING), CMD_PING);
    // The smallest limits that leave room for commands are accepted.
    expectDone(run(CMD_CHANGE_Q, named(queue, type,
                                       [](VXHBAG bag) {
                                         addInteger(bag, ATTR_MAX_Q_DEPTH, 100);
                                         addInteger(bag, ATTR_MAX_MSG_LENGTH, 4096);
                                       })),
               CMD_CHANGE_Q);
    expectDone(run(CMD_PING), CMD_PING);
  }
  // Other queues may have any limit, as before.
  createLocal("TEST.Q1");
  expectDone(run(CMD_CHANGE_Q, named("TEST.Q1", QTYPE_LOCAL, setting(ATTR_MAX_Q_DEPTH, 0))),
             CMD_CHANGE_Q);
}

TEST_F(CommandServerTest, TheRefusedLockOutLeavesEveryCommandAnswered) {
  // The change that once made every later command fail with 2051, the one
  // that would undo it included.
  expectError(run(CMD_CHANGE_Q,
                  named(kCommandQueue, QTYPE_LOCAL, setting(ATTR_INHIBIT_PUT, INHIBIT_INHIBITED))),
              CMD_CHANGE_Q, RC_SYSTEM_Q_INHIBIT_REFUSED, ATTR_INHIBIT_PUT);
  EXPECT_EQ(attributesOf(kCommandQueue).inhibitPut, INHIBIT_ALLOWED);
  expectDone(run(CMD_PING), CMD_PING);
  expectDone(run(CMD_INQUIRE_Q_MGR), CMD_INQUIRE_Q_MGR);
  createLocal("TEST.Q1");
  expectDone(run(CMD_CHANGE_Q,
                 named("TEST.Q1", QTYPE_LOCAL, setting(ATTR_INHIBIT_GET, INHIBIT_INHIBITED))),
             CMD_CHANGE_Q);
}

TEST_F(CommandServerTest, CreateAndCopyCannotMakeTheCommandQueuesInhibited) {
  // Both always exist, so create and copy onto them are refused anyway; the
  // inhibit is refused first, without a look at the queue manager.
  expectError(run(CMD_CREATE_Q,
                  named(kModelQueue, QTYPE_MODEL, setting(ATTR_INHIBIT_GET, INHIBIT_INHIBITED))),
              CMD_CREATE_Q, RC_SYSTEM_Q_INHIBIT_REFUSED, ATTR_INHIBIT_GET);
  createLocal("TEST.FROM");
  expectError(run(CMD_COPY_Q, copyOf("TEST.FROM", kCommandQueue, QTYPE_LOCAL,
                                     setting(ATTR_INHIBIT_PUT, INHIBIT_INHIBITED))),
              CMD_COPY_Q, RC_SYSTEM_Q_INHIBIT_REFUSED, ATTR_INHIBIT_PUT);
  expectError(run(CMD_COPY_Q, copyOf("TEST.FROM", kCommandQueue)), CMD_COPY_Q,
              RC_OBJECT_ALREADY_EXISTS, PARM_TO_Q_NAME);
  EXPECT_EQ(attributesOf(kCommandQueue).inhibitPut, INHIBIT_ALLOWED);
  EXPECT_EQ(attributesOf(kModelQueue).inhibitGet, INHIBIT_ALLOWED);
  // The copy of a SYSTEM. queue under another name is an ordinary queue.
  expectDone(run(CMD_COPY_Q, copyOf(kCommandQueue, "TEST.TO", QTYPE_LOCAL,
                                    setting(ATTR_INHIBIT_PUT, INHIBIT_INHIBITED))),
             CMD_COPY_Q);
  EXPECT_EQ(attributesOf("TEST.TO").inhibitPut, INHIBIT_INHIBITED);
}

TEST_F(CommandServerTest, NoSystemQueueIsDeleted) {
  const std::vector<vxqm::QueueDefinition> before = {
      attributesOf(kCommandQueue), attributesOf(kDefaultLocalQueue), attributesOf(kModelQueue)};
  for (const vxqm::QueueDefinition &queue : before) {
    SCOPED_TRACE(queue.name);
    expectError(run(CMD_DELETE_Q, named(queue.name, std::nullopt)), CMD_DELETE_Q,
                RC_SYSTEM_Q_DELETE_REFUSED, ATTR_Q_NAME);
    expectError(run(CMD_DELETE_Q, purging(queue.name, 1)), CMD_DELETE_Q, RC_SYSTEM_Q_DELETE_REFUSED,
                ATTR_Q_NAME);
    EXPECT_TRUE(sameDefinition(attributesOf(queue.name), queue));
  }
  // Messages on the default local queue stay too.
  putMessages(kDefaultLocalQueue, 2);
  expectError(run(CMD_DELETE_Q, purging(kDefaultLocalQueue, 1)), CMD_DELETE_Q,
              RC_SYSTEM_Q_DELETE_REFUSED, ATTR_Q_NAME);
  EXPECT_EQ(vxqm::test::messageCount(kQm, kDefaultLocalQueue), 2);
  // Any queue whose name begins with SYSTEM., the queue manager's or not.
  createLocal("SYSTEM.TEST.OWN");
  expectError(run(CMD_DELETE_Q, named("SYSTEM.TEST.OWN", std::nullopt)), CMD_DELETE_Q,
              RC_SYSTEM_Q_DELETE_REFUSED, ATTR_Q_NAME);
  EXPECT_TRUE(exists("SYSTEM.TEST.OWN"));
  // The prefix is exact: other names are deleted as before.
  createLocal("SYSTEMS.TEST");
  createLocal("system.test");
  expectDone(run(CMD_DELETE_Q, named("SYSTEMS.TEST", std::nullopt)), CMD_DELETE_Q);
  expectDone(run(CMD_DELETE_Q, named("system.test", std::nullopt)), CMD_DELETE_Q);
  expectDone(run(CMD_PING), CMD_PING);
}

TEST_F(CommandServerTest, NoSystemQueueChangesItsType) {
  const std::pair<const char *, int32_t> retyped[] = {
      {kCommandQueue, QTYPE_MODEL}, {kDefaultLocalQueue, QTYPE_MODEL}, {kModelQueue, QTYPE_LOCAL}};
  for (const auto &[queue, type] : retyped) {
    SCOPED_TRACE(queue);
    const vxqm::QueueDefinition before = attributesOf(queue);
    expectError(run(CMD_CHANGE_Q, named(queue, type, setting(ATTR_MAX_Q_DEPTH, 9))), CMD_CHANGE_Q,
                RC_SYSTEM_Q_TYPE_REFUSED, ATTR_Q_TYPE);
    EXPECT_TRUE(sameDefinition(attributesOf(queue), before));
  }
  // Another queue's type given wrongly is the wrong type, as before.
  createLocal("TEST.Q1");
  expectError(run(CMD_CHANGE_Q, named("TEST.Q1", QTYPE_MODEL)), CMD_CHANGE_Q, RC_OBJECT_TYPE_ERROR,
              ATTR_Q_TYPE);
  expectError(run(CMD_CHANGE_Q, named("SYSTEM.TEST.NONE", QTYPE_MODEL)), CMD_CHANGE_Q,
              RC_UNKNOWN_OBJECT_NAME, ATTR_Q_NAME);
}

TEST_F(CommandServerTest, AReplyModelWithGetsInhibitedCannotBeMadeThroughTheServer) {
  // Once gets were allowed to be inhibited on the model, every requester's
  // reply queue had them inhibited too: a delete of the model was carried
  // out, its reply put, and vxExecute failed with 2016 reading it.  Both
  // steps are refused now, and a command that fails has changed nothing.
  expectError(run(CMD_CHANGE_Q,
                  named(kModelQueue, QTYPE_MODEL, setting(ATTR_INHIBIT_GET, INHIBIT_INHIBITED))),
              CMD_CHANGE_Q, RC_SYSTEM_Q_INHIBIT_REFUSED, ATTR_INHIBIT_GET);
  expectError(run(CMD_DELETE_Q, named(kModelQueue, std::nullopt)), CMD_DELETE_Q,
              RC_SYSTEM_Q_DELETE_REFUSED, ATTR_Q_NAME);
  EXPECT_TRUE(exists(kModelQueue));
  EXPECT_EQ(attributesOf(kModelQueue).inhibitGet, INHIBIT_ALLOWED);
  expectDone(run(CMD_PING), CMD_PING);
}

TEST_F(CommandServerTest, AReplyModelInhibitedByAnotherProgramCanBeAllowedAgain) {
  // Only a program with the administration interface can still inhibit gets
  // on the model.  Every vxExecute then fails reading its reply (2016),
  // after the server carried the command out: that failure is the
  // requester's, and it is how the change that allows gets again gets
  // through.
  vxqm::QueueChanges inhibited;
  inhibited.inhibitGet = INHIBIT_INHIBITED;
  ASSERT_EQ(vxqm::admin::changeQueue(kQm, kModelQueue, inhibited), 0);
  const Execution allow = run(
      CMD_CHANGE_Q, named(kModelQueue, QTYPE_MODEL, setting(ATTR_INHIBIT_GET, INHIBIT_ALLOWED)));
  EXPECT_EQ(allow.compCode, CC_FAILED);
  EXPECT_REASON(allow.reason, RC_GET_INHIBITED);
  // The requester's get fails at once, perhaps before the server has taken
  // the request.
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(2);
  while (attributesOf(kModelQueue).inhibitGet != INHIBIT_ALLOWED &&
         std::chrono::steady_clock::now() < deadline)
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  EXPECT_EQ(attributesOf(kModelQueue).inhibitGet, INHIBIT_ALLOWED);
  expectDone(run(CMD_PING), CMD_PING);
}

// ----- Inquiries ------------------------------------------------------------------------------

TEST_F(CommandServerTest, InquireQueueAnswersOncePerQueueInNameOrder) {
  for (const char *name : {"TEST.C", "TEST.A", "TEST.B", "OTHER.A"}) createLocal(name);
  putMessages("TEST.B", 2);
  const Execution execution = run(CMD_INQUIRE_Q, named("TEST.*", std::nullopt));
  EXPECT_EQ(execution.compCode, CC_OK) << reasonName(execution.reason);
  ASSERT_EQ(execution.replies.size(), 3u);
  const char *expected[] = {"TEST.A", "TEST.B", "TEST.C"};
  for (int32_t i = 0; i < 3; ++i) {
    const ReplyMessage &reply = execution.replies[static_cast<size_t>(i)];
    SCOPED_TRACE(expected[i]);
    EXPECT_EQ(reply.command, CMD_INQUIRE_Q);
    EXPECT_EQ(reply.sequence, i + 1);
    EXPECT_EQ(reply.control, i == 2 ? PCF_CONTROL_LAST : 0);
    EXPECT_EQ(reply.compCode, CC_OK);
    EXPECT_EQ(reply.raw(ATTR_Q_NAME).size(), size_t{Q_NAME_LENGTH});
    EXPECT_EQ(reply.text(ATTR_Q_NAME), expected[i]);
    EXPECT_EQ(reply.integer(ATTR_Q_TYPE), QTYPE_LOCAL);
    EXPECT_EQ(reply.integer(ATTR_MAX_Q_DEPTH), vxqm::kDefaultMaxDepth);
    EXPECT_EQ(reply.integer(ATTR_CURRENT_DEPTH), i == 1 ? 2 : 0);
    EXPECT_EQ(reply.raw(ATTR_Q_DESC).size(), size_t{Q_DESC_LENGTH});
    EXPECT_EQ(reply.items.size(), 13u);
  }
}

TEST_F(CommandServerTest, InquireQueueReportsOnlyTheListedAttributes) {
  createLocal("TEST.A");
  const Execution execution = run(CMD_INQUIRE_Q, named("TEST.A", std::nullopt, [](VXHBAG bag) {
                                    int32_t cc, rc;
                                    vxAddInquiry(bag, ATTR_MAX_Q_DEPTH, &cc, &rc);
                                    vxAddInquiry(bag, ATTR_OPEN_INPUT_COUNT, &cc, &rc);
                                  }));
  expectDone(execution, CMD_INQUIRE_Q);
  EXPECT_EQ(execution.replies[0].selectors(),
            (std::vector<int32_t>{ATTR_Q_NAME, ATTR_MAX_Q_DEPTH, ATTR_OPEN_INPUT_COUNT}));
  expectError(run(CMD_INQUIRE_Q, named("TEST.A", std::nullopt,
                                       [](VXHBAG bag) {
                                         int32_t cc, rc;
                                         vxAddInquiry(bag, 999, &cc, &rc);
                                       })),
              CMD_INQUIRE_Q, RC_PARAMETER_ERROR, PARM_Q_ATTRS);
}

TEST_F(CommandServerTest, InquireQueueFiltersByTypeAndAnswersNoMatchWithAnError) {
  createLocal("TEST.A");
  const Execution models = run(CMD_INQUIRE_Q, named("*", QTYPE_MODEL));
  expectDone(models, CMD_INQUIRE_Q);
  EXPECT_EQ(models.replies[0].text(ATTR_Q_NAME), "SYSTEM.DEFAULT.MODEL.QUEUE");
  expectError(run(CMD_INQUIRE_Q, named("TEST.*", QTYPE_MODEL)), CMD_INQUIRE_Q,
              RC_UNKNOWN_OBJECT_NAME, ATTR_Q_NAME);
  expectError(run(CMD_INQUIRE_Q, named("NO.SUCH.Q", std::nullopt)), CMD_INQUIRE_Q,
              RC_UNKNOWN_OBJECT_NAME, ATTR_Q_NAME);
  expectError(run(CMD_INQUIRE_Q, named("TEST*.*", std::nullopt)), CMD_INQUIRE_Q,
              RC_OBJECT_NAME_ERROR, ATTR_Q_NAME);
  expectError(run(CMD_INQUIRE_Q, named("TEST.*", 5)), CMD_INQUIRE_Q, RC_PARAMETER_ERROR,
              ATTR_Q_TYPE);
}

TEST_F(CommandServerTest, InquireQueueNamesAnswersOnceWithTheNames) {
  createLocal("TEST.B");
  createLocal("TEST.A");
  const Execution execution = run(CMD_INQUIRE_Q_NAMES, named("SYSTEM.*", std::nullopt));
  expectDone(execution, CMD_INQUIRE_Q_NAMES);
  const ReplyMessage &reply = execution.replies[0];
  ASSERT_EQ(reply.count(PARM_Q_NAMES), 3);
  const char *expected[] = {"SYSTEM.ADMIN.COMMAND.QUEUE", "SYSTEM.DEFAULT.LOCAL.QUEUE",
                            "SYSTEM.DEFAULT.MODEL.QUEUE"};
  for (int32_t i = 0; i < 3; ++i) EXPECT_EQ(reply.text(PARM_Q_NAMES, i), expected[i]);
  const Execution tests = run(CMD_INQUIRE_Q_NAMES, named("TEST.*", std::nullopt));
  expectDone(tests, CMD_INQUIRE_Q_NAMES);
  ASSERT_EQ(tests.replies[0].count(PARM_Q_NAMES), 2);
  EXPECT_EQ(tests.replies[0].raw(PARM_Q_NAMES, 0), "TEST.A" + std::string(42, ' '));
  EXPECT_EQ(tests.replies[0].text(PARM_Q_NAMES, 1), "TEST.B");

  const Execution locals = run(CMD_INQUIRE_Q_NAMES, named("SYSTEM.*", QTYPE_LOCAL));
  expectDone(locals, CMD_INQUIRE_Q_NAMES);
  EXPECT_EQ(locals.replies[0].count(PARM_Q_NAMES), 2);
  const Execution none = run(CMD_INQUIRE_Q_NAMES, named("NOTHING.*", std::nullopt));
  expectDone(none, CMD_INQUIRE_Q_NAMES);
  EXPECT_EQ(none.replies[0].count(PARM_Q_NAMES), 0);
}

TEST_F(CommandServerTest, InquireQueueStatusGivesDepthAndOpenCounts) {
  createLocal("TEST.A");
  createLocal("TEST.B");
  putMessages("TEST.B", 4);
  const int32_t input = open("TEST.B", OPEN_INPUT_SHARED);
  const int32_t output = open("TEST.B", OPEN_OUTPUT);
  const Execution execution = run(CMD_INQUIRE_Q_STATUS, named("TEST.*", std::nullopt));
  EXPECT_EQ(execution.compCode, CC_OK) << reasonName(execution.reason);
  ASSERT_EQ(execution.replies.size(), 2u);
  const ReplyMessage &b = execution.replies[1];
  EXPECT_EQ(b.selectors(), (std::vector<int32_t>{ATTR_Q_NAME, ATTR_CURRENT_DEPTH,
                                                 ATTR_OPEN_INPUT_COUNT, ATTR_OPEN_OUTPUT_COUNT}));
  EXPECT_EQ(b.text(ATTR_Q_NAME), "TEST.B");
  EXPECT_EQ(b.integer(ATTR_CURRENT_DEPTH), 4);
  EXPECT_EQ(b.integer(ATTR_OPEN_INPUT_COUNT), 1);
  EXPECT_EQ(b.integer(ATTR_OPEN_OUTPUT_COUNT), 1);
  EXPECT_EQ(execution.replies[0].integer(ATTR_CURRENT_DEPTH), 0);
  EXPECT_EQ(execution.replies[0].control, 0);
  EXPECT_EQ(b.control, PCF_CONTROL_LAST);
  close(input);
  close(output);

  const Execution depth = run(CMD_INQUIRE_Q_STATUS, named("TEST.B", std::nullopt, [](VXHBAG bag) {
                                int32_t cc, rc;
                                vxAddInquiry(bag, ATTR_CURRENT_DEPTH, &cc, &rc);
                              }));
  expectDone(depth, CMD_INQUIRE_Q_STATUS);
  EXPECT_EQ(depth.replies[0].selectors(), (std::vector<int32_t>{ATTR_Q_NAME, ATTR_CURRENT_DEPTH}));
  expectError(run(CMD_INQUIRE_Q_STATUS, named("TEST.B", std::nullopt,
                                              [](VXHBAG bag) {
                                                int32_t cc, rc;
                                                vxAddInquiry(bag, ATTR_MAX_Q_DEPTH, &cc, &rc);
                                              })),
              CMD_INQUIRE_Q_STATUS, RC_PARAMETER_ERROR, PARM_Q_STATUS_ATTRS);
  expectError(run(CMD_INQUIRE_Q_STATUS, named("NONE.*", std::nullopt)), CMD_INQUIRE_Q_STATUS,
              RC_UNKNOWN_OBJECT_NAME, ATTR_Q_NAME);
}

// ----- The table of queue attributes ----------------------------------------------------------

// The selectors of the table's rows that an inquiry reports, in its order.
std::vector<int32_t> tableSelectors(bool statusOnly) {
  std::vector<int32_t> selectors;
  for (const vxqi::QueueAttribute &attribute : vxqi::queueAttributes())
    if (!statusOnly || attribute.shown != vxqi::Shown::InShow)
      selectors.push_back(attribute.selector);
  return selectors;
}

TEST_F(CommandServerTest, InquiriesReportTheRowsOfTheTableOfQueueAttributesInItsOrder) {
  createLocal("TEST.A");
  const Execution all = run(CMD_INQUIRE_Q, named("TEST.A", std::nullopt));
  expectDone(all, CMD_INQUIRE_Q);
  EXPECT_EQ(all.replies[0].selectors(), tableSelectors(false));
  for (const vxqi::QueueAttribute &attribute : vxqi::queueAttributes()) {
    if (attribute.type != vxqi::AttributeType::String) continue;
    SCOPED_TRACE(attribute.name);
    EXPECT_EQ(all.replies[0].raw(attribute.selector).size(), static_cast<size_t>(attribute.length));
  }
  const Execution status = run(CMD_INQUIRE_Q_STATUS, named("TEST.A", std::nullopt));
  expectDone(status, CMD_INQUIRE_Q_STATUS);
  EXPECT_EQ(status.replies[0].selectors(), tableSelectors(true));
}

TEST_F(CommandServerTest, ChangeQueueTakesTheTablesRangeAndRefusesOnePast) {
  createLocal("TEST.Q1");
  for (const int32_t selector : {ATTR_MAX_Q_DEPTH, ATTR_MAX_MSG_LENGTH, ATTR_DEF_PRIORITY}) {
    const vxqi::QueueAttribute &attribute = *vxqi::findQueueAttribute(selector);
    const auto changeTo = [&](int32_t value) {
      return run(CMD_CHANGE_Q, named("TEST.Q1", QTYPE_LOCAL,
                                     [=](VXHBAG bag) { addInteger(bag, selector, value); }));
    };
    SCOPED_TRACE(attribute.name);
    expectDone(changeTo(attribute.minimum), CMD_CHANGE_Q);
    expectDone(changeTo(attribute.maximum), CMD_CHANGE_Q);
    expectError(changeTo(attribute.minimum - 1), CMD_CHANGE_Q, RC_PARAMETER_ERROR, selector);
    expectError(changeTo(attribute.maximum + 1), CMD_CHANGE_Q, RC_PARAMETER_ERROR, selector);
  }
  EXPECT_EQ(attributesOf("TEST.Q1").maxDepth, vxqm::kLargestMaxDepth);
  // The queue manager refuses the same values: the server's check is not
  // the only one.
  vxqm::QueueChanges changes;
  changes.maxDepth = vxqm::kLargestMaxDepth + 1;
  EXPECT_REASON(vxqm::admin::changeQueue(kQm, "TEST.Q1", changes), RC_SELECTOR_ERROR);
}

TEST_F(CommandServerTest, CreateChangeAndCopyTakeOnlyTheAttributesThatCommandsChange) {
  createLocal("TEST.Q1");
  for (const vxqi::QueueAttribute &attribute : vxqi::queueAttributes()) {
    if (attribute.setting != vxqi::Setting::ReadOnly) continue;
    SCOPED_TRACE(attribute.name);
    const Filler readOnly = [&](VXHBAG bag) { addInteger(bag, attribute.selector, 1); };
    expectError(run(CMD_CREATE_Q, named("TEST.Q2", QTYPE_LOCAL, readOnly)), CMD_CREATE_Q,
                RC_PARAMETER_ERROR, attribute.selector);
    expectError(run(CMD_CHANGE_Q, named("TEST.Q1", QTYPE_LOCAL, readOnly)), CMD_CHANGE_Q,
                RC_PARAMETER_ERROR, attribute.selector);
    expectError(run(CMD_COPY_Q, copyOf("TEST.Q1", "TEST.Q2", QTYPE_LOCAL, readOnly)), CMD_COPY_Q,
                RC_PARAMETER_ERROR, attribute.selector);
  }
  EXPECT_FALSE(exists("TEST.Q2"));
}

// ----- Requests that are not command messages --------------------------------------------------

TEST_F(CommandServerTest, AMalformedRequestGetsOneErrorReplyAndTheServerGoesOn) {
  createLocal(kReplyQueue);
  const char junk[20] = "not a PCF message";
  putRequest(junk, sizeof junk, VX_FORMAT_ADMIN);
  vxMSGDESC md = MD_DEFAULT;
  ReplyMessage reply = readReply(&md);
  EXPECT_EQ(reply.pcfType, kPcfTypeResponse);
  EXPECT_EQ(reply.compCode, CC_FAILED);
  EXPECT_REASON(reply.reason, RC_PCF_FORMAT_ERROR);
  EXPECT_EQ(reply.control, PCF_CONTROL_LAST);
  EXPECT_EQ(md.msgType, MSGTYPE_REPLY);

  // Not a bag message at all.
  putRequest(junk, sizeof junk, "TEXT    ");
  reply = readReply(&md);
  EXPECT_REASON(reply.reason, RC_FORMAT_NOT_SUPPORTED);

  // A bag message that is not a command.
  const std::vector<char> user = requestBytes(
      CMD_PING, [](VXHBAG bag) { addInteger(bag, 5, 1); }, 0);
  putRequest(user.data(), static_cast<int32_t>(user.size()), VX_FORMAT_PCF);
  reply = readReply(&md);
  EXPECT_REASON(reply.reason, RC_COMMAND_TYPE_ERROR);
  EXPECT_EQ(reply.command, CMD_PING);

  EXPECT_EQ(vxqm::test::messageCount(kQm, kReplyQueue), 0) << "one reply each";
  expectDone(run(CMD_PING), CMD_PING);
}

TEST_F(CommandServerTest, ARequestWithoutReplyQueueIsCarriedOutWithoutReply) {
  createLocal(kReplyQueue);
  const std::vector<char> create = requestBytes(CMD_CREATE_Q, named("TEST.SILENT"));
  putRequest(create.data(), static_cast<int32_t>(create.size()), VX_FORMAT_ADMIN, "");
  const char junk[8] = "junk";
  putRequest(junk, sizeof junk, VX_FORMAT_ADMIN, "");
  // Requests are answered in order: once the ping is, the others are done.
  expectDone(run(CMD_PING), CMD_PING);
  EXPECT_TRUE(exists("TEST.SILENT"));
  EXPECT_EQ(vxqm::test::messageCount(kQm, kReplyQueue), 0);
  EXPECT_EQ(vxqm::test::messageCount(kQm, kCommandQueue), 0);
}

TEST_F(CommandServerTest, AnExpiredRequestIsNeverCarriedOut) {
  createLocal(kReplyQueue);
  vxcsStop(server_);
  server_ = nullptr;
  const std::vector<char> create = requestBytes(CMD_CREATE_Q, named("TEST.LATE"));
  putRequest(create.data(), static_cast<int32_t>(create.size()), VX_FORMAT_ADMIN, kReplyQueue, 1);
  std::this_thread::sleep_for(std::chrono::milliseconds(250));
  ASSERT_EQ(vxcsStart(kQm, &server_), 0);
  expectDone(run(CMD_PING), CMD_PING);
  EXPECT_FALSE(exists("TEST.LATE"));
  EXPECT_EQ(vxqm::test::messageCount(kQm, kReplyQueue), 0);
}

// ----- Hostile requests ----------------------------------------------------------------------

// A request of a header and one string list that claims two thousand million
// empty strings: 60 bytes that the reader accepts.
std::vector<int32_t> hugeEmptyStringList() {
  return {kPcfTypeCommand, 36, 1, CMD_PING, 1, 1, 0, 0, 1, 6, 24, 3011, 1208, 2000000000, 0};
}

TEST_F(CommandServerTest, HostileRequestsAreRefusedAndTheNextPingIsAnsweredQuickly) {
  createLocal(kReplyQueue);
  const std::vector<int32_t> strings = hugeEmptyStringList();
  const int32_t stringsLength = static_cast<int32_t>(strings.size() * sizeof(int32_t));
  // A header claiming more structures than the message holds.
  const std::vector<int32_t> counted = {kPcfTypeCommand, 36, 1,  CMD_PING, 1, 1, 0, 0,
                                        2000000000,      3,  16, 5,        1};
  // A message larger than the server reads: its buffer alone passes the cap.
  std::vector<int32_t> large(600 * 1024, 0);
  const int32_t header[] = {kPcfTypeCommand,
                            36,
                            1,
                            CMD_PING,
                            1,
                            1,
                            0,
                            0,
                            1,
                            4,
                            static_cast<int32_t>(large.size() * 4 - 36),
                            2500,
                            1208,
                            static_cast<int32_t>(large.size() * 4 - 56)};
  std::memcpy(large.data(), header, sizeof header);
  // Many small items: within its size, but more items than the cap holds.
  std::vector<int32_t> many = {kPcfTypeCommand, 36,   1,     CMD_PING, 1, 1, 0, 0, 1, 5,
                               16 + 4 * 200000, 1002, 200000};
  many.resize(many.size() + 200000, ATTR_MAX_Q_DEPTH);

  putRequest(strings.data(), stringsLength, VX_FORMAT_ADMIN);
  putRequest(counted.data(), static_cast<int32_t>(counted.size() * 4), VX_FORMAT_ADMIN);
  putRequest(large.data(), static_cast<int32_t>(large.size() * 4), VX_FORMAT_ADMIN);
  putRequest(many.data(), static_cast<int32_t>(many.size() * 4), VX_FORMAT_ADMIN);
  putRequest(strings.data(), stringsLength, VX_FORMAT_ADMIN);

  const auto start = std::chrono::steady_clock::now();
  const Execution ping = run(CMD_PING);
  const auto elapsed = std::chrono::duration_cast<std::chrono::milliseconds>(
      std::chrono::steady_clock::now() - start);
  expectDone(ping, CMD_PING);
  EXPECT_LT(elapsed.count(), 100 * vxtest::slowdown()) << "the hostile requests held the ping up";

  const int32_t expected[] = {RC_STORAGE_NOT_AVAILABLE, RC_PCF_FORMAT_ERROR,
                              RC_STORAGE_NOT_AVAILABLE, RC_STORAGE_NOT_AVAILABLE,
                              RC_STORAGE_NOT_AVAILABLE};
  for (int32_t reason : expected) {
    vxMSGDESC md = MD_DEFAULT;
    const ReplyMessage reply = readReply(&md, 0);
    EXPECT_EQ(reply.compCode, CC_FAILED);
    EXPECT_REASON(reply.reason, reason);
  }
  EXPECT_EQ(vxqm::test::messageCount(kQm, kCommandQueue), 0) << "every request taken";
}

TEST_F(CommandServerTest, TooManyParameterValuesAreRefused) {
  const Execution execution = run(CMD_INQUIRE_Q, named("*", std::nullopt, [](VXHBAG bag) {
                                    int32_t cc, rc;
                                    for (int i = 0; i < 300; ++i)
                                      vxAddInquiry(bag, ATTR_MAX_Q_DEPTH, &cc, &rc);
                                  }));
  expectError(execution, CMD_INQUIRE_Q, RC_PARAMETER_ERROR, std::nullopt);
}

// ----- Many requesters ------------------------------------------------------------------------

class CommandServerThreads : public CommandServerTest {};

TEST_F(CommandServerThreads, EveryRequestOfEightThreadsIsAnswered) {
  const int32_t perThread = std::getenv("VX_UNDER_VALGRIND") ? 100 : 1000;
  constexpr int32_t kThreads = 8;
  createLocal("TEST.A");
  std::vector<int32_t> answered(kThreads, 0), wrong(kThreads, 0);
  std::vector<std::thread> threads;
  for (int32_t t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      int32_t hconn = 0, cc, rc;
      char name[QM_NAME_LENGTH + 1] = "QM1";
      VXCONN(name, &hconn, &cc, &rc);
      for (int32_t i = 0; i < perThread; ++i) {
        // Every fourth request an inquiry, the others pings.
        const bool inquire = i % 4 == 3;
        const Execution execution =
            inquire ? execute(hconn, CMD_INQUIRE_Q_STATUS, named("TEST.A", std::nullopt), 30000)
                    : execute(hconn, CMD_PING, {}, 30000);
        const bool right =
            execution.compCode == CC_OK && execution.replies.size() == 1 &&
            execution.replies[0].command == (inquire ? CMD_INQUIRE_Q_STATUS : CMD_PING) &&
            execution.replies[0].control == PCF_CONTROL_LAST && execution.replies[0].sequence == 1;
        ++(right ? answered : wrong)[static_cast<size_t>(t)];
      }
      VXDISC(&hconn, &cc, &rc);
    });
  }
  for (std::thread &thread : threads) thread.join();
  int32_t total = 0;
  for (int32_t t = 0; t < kThreads; ++t) {
    EXPECT_EQ(wrong[static_cast<size_t>(t)], 0) << "thread " << t;
    total += answered[static_cast<size_t>(t)];
  }
  EXPECT_EQ(total, kThreads * perThread);
  EXPECT_EQ(vxqm::test::messageCount(kQm, kCommandQueue), 0);
}

}  // namespace
