// Commands against the in-process queue manager: vxExecute with its options,
// queues and clean-up, the collection of replies, and the internal functions
// that open, inquire and close the queues of a conversation.
//
// The command server here is a scripted one: a thread that reads one request
// and answers with the replies a test asks for, so that every way a
// conversation can go is reached.
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "qm_admin.h"
#include "qm_test.h"
#include "vxqi.h"
#include "vxtest.h"

namespace {

using vxtest::Item;
using Lines = std::vector<std::string>;

constexpr char kCommandQueue[] = "SYSTEM.ADMIN.COMMAND.QUEUE";
constexpr int32_t kInquireQueue = 13;
constexpr int32_t kPing = 40;

void copyName(char (&to)[48], const std::string &name) {
  memset(to, ' ', sizeof to);
  memcpy(to, name.data(), name.size());
}

vxqm::QueueStatus statusOf(const std::string &queue) {
  vxqm::QueueStatus status;
  EXPECT_EQ(vxqm::admin::queueStatus("QM1", queue, &status), 0) << queue;
  return status;
}

// One reply of the scripted server.
struct Reply {
  int32_t compCode = CC_OK;
  int32_t reason = RC_NONE;
  bool last = true;
  std::string text;            // a string parameter 2016 when not empty
  int32_t padTo = 0;           // adds a string 3000 long enough to make the message this long
  int32_t codedCharSetId = 0;  // of the message and its strings
};

Reply reply(int32_t compCode = CC_OK, int32_t reason = RC_NONE, bool last = true) {
  Reply r;
  r.compCode = compCode;
  r.reason = reason;
  r.last = last;
  return r;
}

// Reads one request from the command queue and answers it as scripted.  It
// holds the command queue open for input from construction until it has
// answered (or waited `wait` ms for nothing), so vxExecute finds a server.
class ScriptedServer {
 public:
  explicit ScriptedServer(std::vector<Reply> replies, int32_t wait = 5000)
      : replies_(std::move(replies)), wait_(wait) {
    thread_ = std::thread([this] { run(); });
    std::unique_lock<std::mutex> lock(mutex_);
    ready_.wait(lock, [this] { return opened_; });
  }
  ~ScriptedServer() { finish(); }

  // What arrived; valid after the conversation (join with finish()).
  void finish() {
    if (thread_.joinable()) thread_.join();
  }
  bool gotRequest = false;
  vxMSGDESC request = MD_DEFAULT;
  std::vector<char> message;

 private:
  void run() {
    int32_t hconn = 0, hobj = 0, cc, rc;
    char name[48] = "QM1";
    VXCONN(name, &hconn, &cc, &rc);
    vxOBJDESC od = OD_DEFAULT;
    copyName(od.objectName, kCommandQueue);
    VXOPEN(hconn, &od, OPEN_INPUT_SHARED, &hobj, &cc, &rc);
    {
      std::lock_guard<std::mutex> lock(mutex_);
      opened_ = true;
    }
    ready_.notify_all();
    vxGETOPTS gmo = GMO_DEFAULT;
    gmo.options = GET_WAIT | GET_NO_SYNCPOINT;
    gmo.waitInterval = wait_;
    message.resize(65536);
    int32_t length = 0;
    VXGET(hconn, hobj, &request, &gmo, static_cast<int32_t>(message.size()), message.data(),
          &length, &cc, &rc);
    if (cc == CC_OK) {
      gotRequest = true;
      message.resize(static_cast<size_t>(length));
      int32_t sequence = 0;
      for (const Reply &reply : replies_) answer(hconn, reply, ++sequence);
    }
    VXCLOSE(hconn, &hobj, CLOSE_NONE, &cc, &rc);
    VXDISC(&hconn, &cc, &rc);
  }

  void answer(int32_t hconn, const Reply &reply, int32_t sequence) {
    int32_t cc, rc;
    VXHBAG bag = BAG_NONE;
    vxCreateBag(BAG_OPT_ADMIN_BAG, &bag, &cc, &rc);
    vxSetInteger(bag, SEL_PCF_TYPE, ITEM_INDEX_NONE, 2, &cc, &rc);
    vxSetInteger(bag, SEL_COMMAND, ITEM_INDEX_NONE,
                 *reinterpret_cast<const int32_t *>(message.data() + 12), &cc, &rc);
    vxSetInteger(bag, SEL_MSG_SEQ_NUMBER, ITEM_INDEX_NONE, sequence, &cc, &rc);
    vxSetInteger(bag, SEL_CONTROL, ITEM_INDEX_NONE, reply.last ? 1 : 0, &cc, &rc);
    vxSetInteger(bag, SEL_COMP_CODE, ITEM_INDEX_NONE, reply.compCode, &cc, &rc);
    vxSetInteger(bag, SEL_REASON, ITEM_INDEX_NONE, reply.reason, &cc, &rc);
    if (reply.codedCharSetId)
      vxSetInteger(bag, SEL_CODED_CHAR_SET_ID, ITEM_INDEX_NONE, reply.codedCharSetId, &cc, &rc);
    if (!reply.text.empty()) vxAddString(bag, 2016, -1, reply.text.c_str(), &cc, &rc);
    if (reply.padTo > 0) {
      std::string pad(static_cast<size_t>(reply.padTo - 36 - 20), 'p');
      vxAddString(bag, 3000, static_cast<int32_t>(pad.size()), pad.data(), &cc, &rc);
    }
    std::vector<char> out(static_cast<size_t>(std::max(reply.padTo, 0)) + 4096);
    int32_t length = 0;
    vxBagToBuffer(BAG_NONE, bag, static_cast<int32_t>(out.size()), out.data(), &length, &cc, &rc);
    EXPECT_OK(cc, rc);
    vxDeleteBag(&bag, &cc, &rc);

    vxOBJDESC od = OD_DEFAULT;
    memcpy(od.objectName, request.replyToQ, sizeof od.objectName);
    vxMSGDESC md = MD_DEFAULT;
    md.msgType = MSGTYPE_REPLY;
    memcpy(md.correlId, request.msgId, sizeof md.correlId);
    memcpy(md.format, VX_FORMAT_ADMIN, 8);
    md.codedCharSetId = reply.codedCharSetId;
    vxPUTOPTS pmo = PMO_DEFAULT;
    pmo.options = PUT_NO_SYNCPOINT;
    // A requester that stopped waiting has deleted its reply queue.
    VXPUT1(hconn, &od, &md, &pmo, length, out.data(), &cc, &rc);
  }

  std::vector<Reply> replies_;
  int32_t wait_;
  std::thread thread_;
  std::mutex mutex_;
  std::condition_variable ready_;
  bool opened_ = false;
};

class ExecuteTest : public vxtest::BagTest {
 protected:
  void SetUp() override {
    vxqm::test::reset("QM1");
    BagTest::SetUp();
    char name[48] = "QM1";
    int32_t cc, rc;
    VXCONN(name, &hconn_, &cc, &rc);
    ASSERT_OK(cc, rc);
    request_ = newBag(BAG_OPT_ADMIN_BAG);
    reply_ = newBag(BAG_OPT_ADMIN_BAG);
  }
  void TearDown() override {
    int32_t cc, rc;
    VXDISC(&hconn_, &cc, &rc);
    BagTest::TearDown();
    EXPECT_EQ(vxqm::test::temporaryQueueCount("QM1"), 0) << "temporary queues left behind";
  }

  // vxExecute of a ping with an options bag asking for `wait` milliseconds.
  void execute(int32_t command, int32_t wait = 2000) {
    VXHBAG options = newBag(0);
    int32_t cc, rc;
    vxAddInteger(options, PARM_WAIT_INTERVAL, wait, &cc, &rc);
    ASSERT_OK(cc, rc);
    vxExecute(hconn_, command, options, request_, reply_, HOBJ_NONE, HOBJ_NONE, &cc_, &rc_);
  }

  int32_t nested() { return vxtest::countOf(reply_, SEL_NESTED_REPLY_BAG); }
  VXHBAG nestedBag(int32_t index) {
    VXHBAG bag = BAG_NONE;
    int32_t cc, rc;
    vxInquireBag(reply_, SEL_NESTED_REPLY_BAG, index, &bag, &cc, &rc);
    EXPECT_OK(cc, rc);
    return bag;
  }
  int32_t integerOf(VXHBAG bag, int32_t selector) {
    int32_t value = -99, cc, rc;
    vxInquireInteger(bag, selector, ITEM_INDEX_NONE, &value, &cc, &rc);
    EXPECT_OK(cc, rc);
    return value;
  }

  // Nothing this test's calls opened is still open.
  void expectCommandQueueClosed() {
    vxqm::QueueStatus status = statusOf(kCommandQueue);
    EXPECT_EQ(status.openOutputCount, 0);
  }

  int32_t hconn_ = 0;
  VXHBAG request_ = BAG_NONE;
  VXHBAG reply_ = BAG_NONE;
  int32_t cc_ = -1, rc_ = -1;
};

// ----- The conversation ----------------------------------------------------------------

TEST_F(ExecuteTest, OneReplyMarkedLastIsNestedAndSummarised) {
  ScriptedServer server({reply()});
  execute(kPing);
  server.finish();
  EXPECT_OK(cc_, rc_);
  ASSERT_EQ(nested(), 1);
  VXHBAG reply = nestedBag(0);
  EXPECT_EQ(integerOf(reply, SEL_CONTROL), PCF_CONTROL_LAST);
  EXPECT_EQ(integerOf(reply, SEL_PCF_TYPE), 2);
  EXPECT_EQ(integerOf(reply, SEL_COMMAND), kPing);
  EXPECT_EQ(integerOf(reply_, SEL_COMP_CODE), CC_OK);
  EXPECT_EQ(integerOf(reply_, SEL_REASON), RC_NONE);
  expectCommandQueueClosed();
}

TEST_F(ExecuteTest, TheRequestIsAnAdministrationRequestToTheServersQueue) {
  ScriptedServer server({reply()});
  int32_t cc, rc;
  vxAddString(request_, 2016, -1, "PAYROLL.*", &cc, &rc);
  vxExecute(hconn_, kInquireQueue, BAG_NONE, request_, reply_, HOBJ_NONE, HOBJ_NONE, &cc_, &rc_);
  server.finish();
  EXPECT_OK(cc_, rc_);
  ASSERT_TRUE(server.gotRequest);
  EXPECT_EQ(server.request.msgType, MSGTYPE_REQUEST);
  EXPECT_EQ(std::string(server.request.format, 8), VX_FORMAT_ADMIN);
  EXPECT_EQ(server.request.expiry, 300);  // the default 30000 ms in tenths of a second
  EXPECT_EQ(server.request.encoding, ENCODING_NATIVE);
  // The reply-to queue is the temporary one, its generated name in all 48
  // characters, blanks included.
  std::string replyTo(server.request.replyToQ, 48);
  EXPECT_EQ(replyTo.rfind("VXAI.REPLY.", 0), 0u) << replyTo;
  EXPECT_EQ(replyTo.find('\0'), std::string::npos) << replyTo;
  ASSERT_GE(server.message.size(), 36u);
  EXPECT_EQ(*reinterpret_cast<const int32_t *>(server.message.data() + 12), kInquireQueue);
}

TEST_F(ExecuteTest, WaitIntervalsBecomeExpiryInTenthsOfASecond) {
  const std::pair<int32_t, int32_t> cases[] = {{99, 1}, {0, 1},   {199, 1},  {250, 2},
                                               {-5, 1}, {-1, -1}, {1000, 10}};
  for (auto [wait, expiry] : cases) {
    // Waits of less than a reply's travel would time out before it comes:
    // the server answers before the request reaches it, so only the expiry
    // of what arrived is looked at.
    ScriptedServer server({reply()});
    execute(kPing, wait);
    server.finish();
    ASSERT_TRUE(server.gotRequest) << wait;
    EXPECT_EQ(server.request.expiry, expiry) << "wait " << wait;
  }
}

TEST_F(ExecuteTest, ThreeRepliesWithTheSecondFailingGiveAWarning) {
  ScriptedServer server({reply(CC_OK, RC_NONE, false),
                         reply(CC_FAILED, RC_UNKNOWN_OBJECT_NAME, false),
                         reply(CC_OK, RC_NONE, true)});
  execute(kPing);
  server.finish();
  EXPECT_OUTCOME(cc_, rc_, CC_WARNING, RC_COMMAND_FAILED);
  ASSERT_EQ(nested(), 3);
  for (int32_t i = 0; i < 3; ++i) EXPECT_EQ(integerOf(nestedBag(i), SEL_MSG_SEQ_NUMBER), i + 1);
  EXPECT_EQ(integerOf(nestedBag(1), SEL_REASON), RC_UNKNOWN_OBJECT_NAME);
  EXPECT_EQ(integerOf(reply_, SEL_COMP_CODE), CC_OK);  // the last reply's
}

TEST_F(ExecuteTest, EveryReplyFailingGivesAFailure) {
  ScriptedServer server({reply(CC_FAILED, 2085, false), reply(CC_WARNING, 2042, true)});
  execute(kPing);
  server.finish();
  EXPECT_OUTCOME(cc_, rc_, CC_FAILED, RC_COMMAND_FAILED);
  EXPECT_EQ(nested(), 2);
  EXPECT_EQ(integerOf(reply_, SEL_COMP_CODE), CC_WARNING);
  EXPECT_EQ(integerOf(reply_, SEL_REASON), 2042);
}

TEST_F(ExecuteTest, NoReplyBeforeTheWaitEndsIsAFailure) {
  ScriptedServer server({});
  execute(kPing, 200);
  server.finish();
  EXPECT_OUTCOME(cc_, rc_, CC_FAILED, RC_NO_MSG_AVAILABLE);
  EXPECT_EQ(nested(), 0);
  expectCommandQueueClosed();
}

TEST_F(ExecuteTest, TheWaitEndingAfterSomeRepliesIsAWarningWithoutSummary) {
  ScriptedServer server({reply(CC_OK, 0, false), reply(CC_FAILED, 2085, false)});
  execute(kPing, 300);
  server.finish();
  EXPECT_OUTCOME(cc_, rc_, CC_WARNING, RC_NO_MSG_AVAILABLE);
  EXPECT_EQ(nested(), 2);
  // The summary items keep the values they had.
  EXPECT_EQ(integerOf(reply_, SEL_COMP_CODE), 0);
  EXPECT_EQ(integerOf(reply_, SEL_REASON), 0);
}

TEST_F(ExecuteTest, ALongReplyIsReadAfterExactlyOneTruncation) {
  ScriptedServer server({[] {
    Reply r;
    r.padTo = 10000;
    return r;
  }()});
  vxtest::TraceCapture trace(0x1, /*threadTrace=*/true);
  execute(kPing);
  server.finish();
  EXPECT_OK(cc_, rc_);
  ASSERT_EQ(nested(), 1);
  int32_t truncated = 0;
  for (const std::string &line : trace.lines())
    if (line == "} VXGET rc=2080") ++truncated;
  EXPECT_EQ(truncated, 1);
  int32_t length = 0, ccsid = 0, cc, rc;
  char byte;
  vxInquireString(nestedBag(0), 3000, ITEM_INDEX_NONE, 1, &byte, &length, &ccsid, &cc, &rc);
  EXPECT_EQ(length, 10000 - 36 - 20);
}

TEST_F(ExecuteTest, RepliesArriveInTheReplyBagsCharacterSet) {
  // "é" in UTF-8 is C3 A9, in code page 850 it is 82.
  ScriptedServer server({[] {
    Reply r;
    r.text = "Q.\xC3\xA9";
    r.codedCharSetId = 1208;
    return r;
  }()});
  int32_t cc, rc;
  vxSetInteger(reply_, SEL_CODED_CHAR_SET_ID, ITEM_INDEX_NONE, 850, &cc, &rc);
  ASSERT_OK(cc, rc);
  execute(kPing);
  server.finish();
  EXPECT_OK(cc_, rc_);
  ASSERT_EQ(nested(), 1);
  VXHBAG reply = nestedBag(0);
  EXPECT_EQ(integerOf(reply, SEL_CODED_CHAR_SET_ID), 850);
  EXPECT_EQ(integerOf(reply_, SEL_CODED_CHAR_SET_ID), 850);
  char text[8];
  int32_t length = 0, ccsid = 0;
  vxInquireString(reply, 2016, ITEM_INDEX_NONE, sizeof text, text, &length, &ccsid, &cc, &rc);
  ASSERT_OK(cc, rc);
  EXPECT_EQ(std::string(text, static_cast<size_t>(length)), "Q.\x82");
  EXPECT_EQ(ccsid, 850);
}

TEST_F(ExecuteTest, AnEarlierCallsRepliesDoNotStay) {
  {
    ScriptedServer server({reply(CC_OK, 0, false), reply()});
    execute(kPing);
  }
  EXPECT_EQ(nested(), 2);
  {
    ScriptedServer server({reply()});
    execute(kPing);
  }
  EXPECT_OK(cc_, rc_);
  EXPECT_EQ(nested(), 1);
}

// ----- Parameter checks, in order --------------------------------------------------------

TEST_F(ExecuteTest, BadBagsAreRefusedInArgumentOrder) {
  const VXHBAG bad = zeroedHandle();
  struct Case {
    VXHBAG options, request, reply;
  };
  const Case cases[] = {{bad, BAG_NONE, BAG_NONE},      {3, request_, reply_},
                        {BAG_NONE, BAG_NONE, reply_},   {BAG_NONE, bad, BAG_NONE},
                        {BAG_NONE, request_, BAG_NONE}, {BAG_NONE, request_, bad}};
  for (const Case &c : cases) {
    vxExecute(hconn_, kPing, c.options, c.request, c.reply, HOBJ_NONE, HOBJ_NONE, &cc_, &rc_);
    EXPECT_OUTCOME(cc_, rc_, CC_FAILED, RC_BAG_HANDLE_ERROR);
  }
  expectCommandQueueClosed();
}

TEST_F(ExecuteTest, AnOptionsBagWithAnotherItemOpensNoQueue) {
  ScriptedServer server({}, 100);
  VXHBAG options = newBag(0);
  int32_t cc, rc;
  vxAddInteger(options, PARM_WAIT_INTERVAL, 1000, &cc, &rc);
  vxAddInteger(options, 7, 1, &cc, &rc);
  vxExecute(hconn_, kPing, options, request_, reply_, HOBJ_NONE, HOBJ_NONE, &cc_, &rc_);
  EXPECT_OUTCOME(cc_, rc_, CC_FAILED, RC_OPTIONS_ERROR);
  EXPECT_EQ(statusOf(kCommandQueue).openOutputCount, 0);
  server.finish();
  EXPECT_FALSE(server.gotRequest);
}

TEST_F(ExecuteTest, AWaitIntervalThatIsNotOneIntegerIsRefused) {
  VXHBAG twice = newBag(0), text = newBag(0);
  int32_t cc, rc;
  vxAddInteger(twice, PARM_WAIT_INTERVAL, 1000, &cc, &rc);
  vxAddInteger(twice, PARM_WAIT_INTERVAL, 2000, &cc, &rc);
  vxAddString(text, PARM_WAIT_INTERVAL, -1, "1000", &cc, &rc);
  for (VXHBAG options : {twice, text}) {
    vxExecute(hconn_, kPing, options, request_, reply_, HOBJ_NONE, HOBJ_NONE, &cc_, &rc_);
    EXPECT_OUTCOME(cc_, rc_, CC_FAILED, RC_WAIT_INTERVAL_ERROR);
  }
  expectCommandQueueClosed();
}

TEST_F(ExecuteTest, AnOptionsBagWithOnlySystemItemsStandsForTheDefault) {
  ScriptedServer server({reply()});
  VXHBAG options = newBag(BAG_OPT_ADMIN_BAG);
  vxExecute(hconn_, kPing, options, request_, reply_, HOBJ_NONE, HOBJ_NONE, &cc_, &rc_);
  server.finish();
  EXPECT_OK(cc_, rc_);
  EXPECT_EQ(server.request.expiry, 300);
}

TEST_F(ExecuteTest, ARequestBagThatIsNoCommandPutsNothing) {
  ScriptedServer server({}, 100);
  VXHBAG user = newBag(0);
  vxExecute(hconn_, kPing, BAG_NONE, user, reply_, HOBJ_NONE, HOBJ_NONE, &cc_, &rc_);
  EXPECT_OUTCOME(cc_, rc_, CC_FAILED, RC_COMMAND_TYPE_ERROR);
  EXPECT_EQ(statusOf(kCommandQueue).openOutputCount, 0);
  server.finish();
  EXPECT_FALSE(server.gotRequest);
}

TEST_F(ExecuteTest, WithoutACommandServerNothingIsLeftOpen) {
  vxExecute(hconn_, kPing, BAG_NONE, request_, reply_, HOBJ_NONE, HOBJ_NONE, &cc_, &rc_);
  EXPECT_OUTCOME(cc_, rc_, CC_FAILED, RC_COMMAND_SERVER_NOT_AVAILABLE);
  expectCommandQueueClosed();
  EXPECT_EQ(vxqm::test::messageCount("QM1", kCommandQueue), 0);
}

TEST_F(ExecuteTest, AFailedPutStillClosesBothQueuesAndFreesTheBuffer) {
  ScriptedServer server({}, 100);
  ASSERT_TRUE(vxqm::test::failNext("qmPUT", 1, CC_FAILED, RC_PUT_INHIBITED));
  execute(kPing);
  EXPECT_OUTCOME(cc_, rc_, CC_FAILED, RC_PUT_INHIBITED);
  expectCommandQueueClosed();
  EXPECT_EQ(vxqm::test::temporaryQueueCount("QM1"), 0);
  server.finish();
}

TEST_F(ExecuteTest, AFailedReplyQueueOpenClosesTheCommandQueue) {
  ScriptedServer server({}, 100);
  ASSERT_EQ(vxqm::admin::deleteQueue("QM1", "SYSTEM.DEFAULT.MODEL.QUEUE", false), 0);
  execute(kPing);
  EXPECT_OUTCOME(cc_, rc_, CC_FAILED, RC_UNKNOWN_OBJECT_NAME);
  expectCommandQueueClosed();
  server.finish();
  EXPECT_FALSE(server.gotRequest);
}

TEST_F(ExecuteTest, WithoutMemoryForTheMessageNothingIsLeftBehind) {
  ScriptedServer server({}, 100);
  svcInjectMemFailure(1);  // the message buffer is this call's first block
  vxExecute(hconn_, kPing, BAG_NONE, request_, reply_, HOBJ_NONE, HOBJ_NONE, &cc_, &rc_);
  svcInjectMemFailure(0);
  EXPECT_OUTCOME(cc_, rc_, CC_FAILED, RC_STORAGE_NOT_AVAILABLE);
  expectCommandQueueClosed();
  server.finish();
  EXPECT_FALSE(server.gotRequest);
}

TEST_F(ExecuteTest, WithoutMemoryForTheReplyBufferTheQueuesAreClosed) {
  ScriptedServer server({}, 100);
  svcInjectMemFailure(2);  // after the message buffer, the reply buffer
  vxExecute(hconn_, kPing, BAG_NONE, request_, reply_, HOBJ_NONE, HOBJ_NONE, &cc_, &rc_);
  svcInjectMemFailure(0);
  EXPECT_OUTCOME(cc_, rc_, CC_FAILED, RC_STORAGE_NOT_AVAILABLE);
  expectCommandQueueClosed();
  server.finish();
  EXPECT_FALSE(server.gotRequest);
}

TEST_F(ExecuteTest, AConversionThatFailsKeepsItsBufferAndClosesTheQueues) {
  ScriptedServer server({}, 100);
  // A nested bag cannot travel in a message.
  zaiBAG *request = zaiDecodeHandle(request_);
  VXHBAG inner = newSystemBag();
  int32_t cc, rc;
  zaiAddBag(request, 4001, inner, &cc, &rc);
  ASSERT_OK(cc, rc);
  systemBags_.pop_back();  // the request bag owns it now
  vxExecute(hconn_, kPing, BAG_NONE, request_, reply_, HOBJ_NONE, HOBJ_NONE, &cc_, &rc_);
  EXPECT_OUTCOME(cc_, rc_, CC_FAILED, RC_NESTED_BAG_NOT_SUPPORTED);
  expectCommandQueueClosed();
  // The one block a failed conversion keeps on purpose.
  EXPECT_TRUE(vxtest::releaseKeptBlock(ZAIFN_zaiBagToPCFMsgInVXAIBuffer));
  server.finish();
  EXPECT_FALSE(server.gotRequest);
}

// ----- Queues the caller supplies ----------------------------------------------------------

TEST_F(ExecuteTest, CallerQueuesAreUsedAndNeverClosed) {
  ScriptedServer server({reply()});
  int32_t commandQueue = 0, replyQueue = 0, cc, rc;
  vxOBJDESC od = OD_DEFAULT;
  copyName(od.objectName, kCommandQueue);
  VXOPEN(hconn_, &od, OPEN_OUTPUT, &commandQueue, &cc, &rc);
  ASSERT_OK(cc, rc);
  vxOBJDESC model = OD_DEFAULT;
  copyName(model.objectName, "SYSTEM.DEFAULT.MODEL.QUEUE");
  memcpy(model.dynamicQName, "MY.REPLIES.*", 12);
  VXOPEN(hconn_, &model, OPEN_INPUT_EXCLUSIVE | OPEN_INQUIRE, &replyQueue, &cc, &rc);
  ASSERT_OK(cc, rc);
  std::string replyName(model.objectName, 48);
  char inquired[48];
  zaiInquireReplyQueueName(hconn_, replyQueue, inquired, &cc, &rc);
  EXPECT_OK(cc, rc);
  EXPECT_EQ(std::string(inquired, 48), replyName);

  vxExecute(hconn_, kPing, BAG_NONE, request_, reply_, commandQueue, replyQueue, &cc_, &rc_);
  server.finish();
  EXPECT_OK(cc_, rc_);
  EXPECT_EQ(nested(), 1);
  EXPECT_EQ(std::string(server.request.replyToQ, 48), replyName);
  // Both are still open: the caller closes them.
  EXPECT_EQ(statusOf(kCommandQueue).openOutputCount, 1);
  EXPECT_EQ(vxqm::test::temporaryQueueCount("QM1"), 1);
  VXCLOSE(hconn_, &commandQueue, CLOSE_NONE, &cc, &rc);
  EXPECT_OK(cc, rc);
  VXCLOSE(hconn_, &replyQueue, CLOSE_NONE, &cc, &rc);
  EXPECT_OK(cc, rc);
}

// ----- The records every descriptor starts from ----------------------------------------------

// The 32-bit word at an offset of a record.
int32_t wordAt(const void *record, size_t offset) {
  int32_t value;
  memcpy(&value, static_cast<const char *>(record) + offset, sizeof value);
  return value;
}

bool allZero(const void *record, size_t from, size_t to) {
  const auto *bytes = static_cast<const unsigned char *>(record);
  for (size_t i = from; i < to; ++i)
    if (bytes[i] != 0) return false;
  return true;
}

TEST(Templates, TheRequestDescriptorIsADatagramWithoutExpiry) {
  const vxMSGDESC &md = zaiRequestMsgDescTemplate;
  EXPECT_EQ(std::string(md.structId, 4), "MD  ");
  const std::pair<size_t, int32_t> words[] = {{4, 1},    {8, 0},  {12, 8},  {16, -1}, {20, 0},
                                              {24, 546}, {28, 0}, {40, -1}, {44, 2},  {96, 0}};
  for (auto [offset, value] : words) EXPECT_EQ(wordAt(&md, offset), value) << offset;
  EXPECT_EQ(std::string(md.format, 8), "        ");
  EXPECT_TRUE(allZero(&md, 48, 96));
  EXPECT_TRUE(allZero(&md, 100, 324));
}

TEST(Templates, TheReplyDescriptorAddsTheExtension) {
  const vxMSGDESC &md = zaiReplyMsgDescTemplate;
  EXPECT_EQ(memcmp(&md, &zaiRequestMsgDescTemplate, MD_LENGTH_1), 0);
  EXPECT_EQ(md.version, 1);
  EXPECT_TRUE(allZero(&md, 324, 348));
  EXPECT_EQ(wordAt(&md, 348), 1);
  EXPECT_EQ(wordAt(&md, 352), 0);
  EXPECT_EQ(wordAt(&md, 356), 0);
  EXPECT_EQ(wordAt(&md, 360), -1);
}

TEST(Templates, OptionsAndObjectDescriptor) {
  const vxPUTOPTS &pmo = zaiPutMsgOptsTemplate;
  EXPECT_EQ(std::string(pmo.structId, 4), "PMO ");
  EXPECT_EQ(wordAt(&pmo, 4), 1);
  EXPECT_EQ(wordAt(&pmo, 8), 0);
  EXPECT_EQ(wordAt(&pmo, 12), -1);
  EXPECT_TRUE(allZero(&pmo, 16, 152));

  const vxGETOPTS &gmo = zaiGetMsgOptsTemplate;
  EXPECT_EQ(std::string(gmo.structId, 4), "GMO ");
  EXPECT_EQ(wordAt(&gmo, 4), 1);
  EXPECT_TRUE(allZero(&gmo, 8, 72));
  EXPECT_EQ(wordAt(&gmo, 72), 3);
  EXPECT_EQ(std::string(reinterpret_cast<const char *>(&gmo) + 76, 4), "    ");
  EXPECT_TRUE(allZero(&gmo, 80, 96));
  EXPECT_EQ(wordAt(&gmo, 96), -1);

  const vxOBJDESC &od = zaiObjDescTemplate;
  EXPECT_EQ(std::string(od.structId, 4), "OD  ");
  EXPECT_EQ(wordAt(&od, 4), 1);
  EXPECT_EQ(wordAt(&od, 8), 1);
  EXPECT_TRUE(allZero(&od, 12, 108));
  EXPECT_EQ(std::string(od.dynamicQName, 5), "TBX.*");
  EXPECT_TRUE(allZero(&od, 113, 336));
}

// ----- The queue functions ------------------------------------------------------------------

TEST_F(ExecuteTest, TheCommandQueueOpensOnlyWithAServerReadingIt) {
  int32_t hobj = -1, cc, rc;
  zaiOpenSysAdminCmdQueue(hconn_, &hobj, &cc, &rc);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_COMMAND_SERVER_NOT_AVAILABLE);
  EXPECT_EQ(hobj, -1);  // untouched
  expectCommandQueueClosed();

  ScriptedServer server({});
  zaiOpenSysAdminCmdQueue(hconn_, &hobj, &cc, &rc);
  EXPECT_OK(cc, rc);
  EXPECT_EQ(statusOf(kCommandQueue).openOutputCount, 1);
  zaiCloseSysAdminCmdQueue(hconn_, &hobj, &cc, &rc);
  EXPECT_OK(cc, rc);
  expectCommandQueueClosed();
  // A message that asks for nothing lets the server go.
  vxOBJDESC od = OD_DEFAULT;
  copyName(od.objectName, kCommandQueue);
  vxMSGDESC md = MD_DEFAULT;
  vxPUTOPTS pmo = PMO_DEFAULT;
  VXPUT1(hconn_, &od, &md, &pmo, 4, const_cast<char *>("done"), &cc, &rc);
  server.finish();
}

TEST_F(ExecuteTest, TheTemporaryReplyQueueIsDeletedWithItsMessages) {
  int32_t hobj = -1, cc, rc;
  char name[48];
  memset(name, '#', sizeof name);
  zaiOpenTempReplyQueue(hconn_, &hobj, name, &cc, &rc);
  ASSERT_OK(cc, rc);
  std::string generated(name, 48);
  EXPECT_EQ(generated.rfind("VXAI.REPLY.", 0), 0u) << generated;
  EXPECT_EQ(generated.find('#'), std::string::npos);
  EXPECT_EQ(vxqm::test::temporaryQueueCount("QM1"), 1);

  vxMSGDESC md = MD_DEFAULT;
  vxPUTOPTS pmo = PMO_DEFAULT;
  vxOBJDESC od = OD_DEFAULT;
  memcpy(od.objectName, name, 48);
  VXPUT1(hconn_, &od, &md, &pmo, 4, const_cast<char *>("left"), &cc, &rc);
  ASSERT_OK(cc, rc);
  zaiCloseTempReplyQueue(hconn_, &hobj, &cc, &rc);
  EXPECT_OK(cc, rc);
  EXPECT_EQ(vxqm::test::temporaryQueueCount("QM1"), 0);
}

TEST_F(ExecuteTest, QueueFunctionsRecordTheirFrames) {
  vxtest::TraceCapture trace(0x1, /*threadTrace=*/true);
  int32_t hobj = -1, cc, rc;
  zaiOpenSysAdminCmdQueue(hconn_, &hobj, &cc, &rc);
  // The handle the queue manager gave, as VXOPEN traced it.
  const Lines lines = trace.lines();
  ASSERT_GE(lines.size(), 3u);
  const std::string handle = lines[2].substr(0, lines[2].find(' '));
  EXPECT_NE(handle, "ObjHandle=0");
  EXPECT_EQ(lines, (Lines{"{ zaiOpenSysAdminCmdQueue", "{ VXOPEN",
                          handle + " ObjType=1 ObjName=SYSTEM.ADMIN.COMMAND.QUEUE", "} VXOPEN rc=0",
                          "{ VXINQ", "} VXINQ rc=0", "{ zaiCloseSysAdminCmdQueue", "{ VXCLOSE",
                          handle, "} VXCLOSE rc=0", "} zaiCloseSysAdminCmdQueue rc=0",
                          "} zaiOpenSysAdminCmdQueue rc=2322"}));
}

// ----- Connections in a forked child -------------------------------------------------------

TEST_F(ExecuteTest, AConnectInAForkedChildStartsItsOwnConnectionState) {
  // The connect of SetUp made this process's connection state.
  svcCONTROLBLOCK *block = svcControlBlock();
  ASSERT_NE(block, nullptr);
  EXPECT_EQ(block->ownerPid, svcGetPid());
  const int32_t connections = block->connections;
  pid_t child = fork();
  if (child == 0) {
    char name[48] = "QM1";
    int32_t hconn = 0, cc, rc;
    VXCONN(name, &hconn, &cc, &rc);
    svcCONTROLBLOCK *own = svcControlBlock();
    // The parent's state was dropped and the child's own counts one connect.
    _exit(cc == CC_OK && own && own->ownerPid == svcGetPid() && own->connections == 1 ? 0 : 1);
  }
  int status = -1;
  waitpid(child, &status, 0);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
  EXPECT_EQ(block->connections, connections);
}

// ----- API trace ------------------------------------------------------------------------------

TEST_F(ExecuteTest, ApiTraceNamesEveryArgument) {
  vxtest::TraceCapture trace;
  int32_t command = kPing;
  vxExecute(hconn_, command, BAG_NONE, request_, reply_, HOBJ_NONE, HOBJ_NONE, &cc_, &rc_);
  using vxtest::dataOf;
  const int32_t none = BAG_NONE, zero = 0;
  Lines expected = {"__________",
                    "vxExecute >>",
                    "Hconn:",
                    dataOf(hconn_),
                    "Command:",
                    dataOf(command),
                    "OptionsBag:",
                    dataOf(none),
                    "RequestBag:",
                    dataOf(request_),
                    "ReplyBag:",
                    dataOf(reply_),
                    "Requestq:",
                    dataOf(zero),
                    "Replyq:",
                    dataOf(zero),
                    "Compcode      : Output Parm",
                    "Reason        : Output Parm"};
  Lines lines = trace.lines();
  ASSERT_GE(lines.size(), expected.size());
  EXPECT_EQ(Lines(lines.begin(), lines.begin() + static_cast<long>(expected.size())), expected);
  Lines exit = {"__________",
                "vxExecute <<",
                "Hconn         : Input  Parm",
                "Command       : Input  Parm",
                "OptionsBag    : Input  Parm",
                "RequestBag    : Input  Parm",
                "ReplyBag      : Input  Parm",
                "Requestq      : Input  Parm",
                "Replyq        : Input  Parm",
                "Compcode:",
                dataOf(CC_FAILED),
                "Reason:",
                dataOf(RC_COMMAND_SERVER_NOT_AVAILABLE)};
  EXPECT_EQ(Lines(lines.end() - static_cast<long>(exit.size()), lines.end()), exit);
}

}  // namespace
