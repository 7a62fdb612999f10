// Every allocation of an online call fails in turn: the n-th block of the
// common services, or the n-th block of the heap (string copies, the
// writer's index, the reader's table), for n = 1, 2, ... until the call makes
// fewer than n.  Each failed call must end with RC_STORAGE_NOT_AVAILABLE, and
// every call, failed or not, must leave nothing behind: no block of the library, no temporary
// queue, bags that still work, and a command server that answers the next ping.
// Every case runs twice: against a queue manager in memory, and against one
// over a data directory, shared through its store.
//
// The library's objects and the command server's are linked into this
// program with malloc, calloc and realloc wrapped, so that the library's heap
// can be made to fail on the calling thread alone; the command server
// answers on its own thread, untouched.
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "bag_items.h"
#include "command_server.h"
#include "qm_admin.h"
#include "qm_test.h"
#include "vxtest.h"

extern "C" {
void *__real_malloc(size_t size);
void *__real_calloc(size_t count, size_t size);
void *__real_realloc(void *block, size_t size);
}

namespace {

// Heap requests of this thread still to go before the injected failure.
thread_local int tHeapCountdown = 0;

bool heapFails() { return tHeapCountdown > 0 && --tHeapCountdown == 0; }

}  // namespace

// Visible beyond the program: with the sanitizers the linker also resolves
// the shared objects' heap calls against the wrapped names.
#define VX_WRAPPER __attribute__((visibility("default")))

extern "C" {
VX_WRAPPER void *__wrap_malloc(size_t size) { return heapFails() ? nullptr : __real_malloc(size); }
VX_WRAPPER void *__wrap_calloc(size_t count, size_t size) {
  return heapFails() ? nullptr : __real_calloc(count, size);
}
VX_WRAPPER void *__wrap_realloc(void *block, size_t size) {
  return heapFails() ? nullptr : __real_realloc(block, size);
}
}

using servertest::addInteger;
using servertest::addString;
using vxtest::reasonName;

namespace {

constexpr char kQm[] = "QM1";
constexpr int32_t kLargestSweep = 2000;  // far more allocations than any call makes

enum class Failing { kServiceBlock, kHeapBlock };

void failNth(Failing what, int n) {
  if (what == Failing::kServiceBlock)
    svcInjectMemFailure(n);
  else
    tHeapCountdown = n;
}

// Whether the failure asked for has not happened: the call made fewer
// allocations.
bool stillPending(Failing what) {
  return what == Failing::kServiceBlock ? svcMemFailurePending() > 0 : tHeapCountdown > 0;
}

const char *nameOf(Failing what) {
  return what == Failing::kServiceBlock ? "common services' block" : "heap block";
}

struct Outcome {
  int32_t compCode = -1;
  int32_t reason = -1;
};

// The parameter: whether the queue manager is over a data directory.
class OnlineFailures : public ::testing::TestWithParam<bool> {
 protected:
  void SetUp() override {
    if (GetParam()) {
      char pattern[] = "/tmp/vxqm-online-XXXXXX";
      ASSERT_NE(mkdtemp(pattern), nullptr);
      directory_ = pattern;
      setenv("VXQM_DATA", directory_.c_str(), 1);
      vxqm::test::reset(kQm);  // made again over the directory
    }
    ASSERT_EQ(vxcsStart(kQm, &server_), 0);
    char name[QM_NAME_LENGTH + 1] = "QM1";
    int32_t cc, rc;
    VXCONN(name, &hconn_, &cc, &rc);
    ASSERT_EQ(cc, CC_OK) << reasonName(rc);
    for (const char *queue : {"SWEEP.A", "SWEEP.B", "SWEEP.DATA"})
      ASSERT_EQ(vxqm::admin::createQueue(kQm, queue, vxqm::QueueChanges()), 0);
    vxCreateBag(BAG_OPT_ADMIN_BAG, &request_, &cc, &rc);
    vxCreateBag(BAG_OPT_ADMIN_BAG, &reply_, &cc, &rc);
  }
  void TearDown() override {
    int32_t cc, rc;
    vxDeleteBag(&request_, &cc, &rc);
    vxDeleteBag(&reply_, &cc, &rc);
    std::vector<std::string> names;
    vxqm::admin::listQueues(kQm, "SWEEP*", 0, &names);
    for (const std::string &queue : names) vxqm::admin::deleteQueue(kQm, queue, true);
    VXDISC(&hconn_, &cc, &rc);
    vxcsStop(server_);
    if (GetParam()) {
      vxqm::test::restart(kQm);  // leaves nothing in memory
      unsetenv("VXQM_DATA");
      vxqm::test::reset(kQm);
      std::filesystem::remove_all(directory_);
    }
  }

  // The request bag holds `fill`'s parameters and nothing else.
  void prepare(const std::function<void(VXHBAG)> &fill) {
    int32_t cc, rc;
    vxClearBag(request_, &cc, &rc);
    ASSERT_EQ(cc, CC_OK);
    if (fill) fill(request_);
  }

  Outcome execute(int32_t command) {
    Outcome outcome;
    vxExecute(hconn_, command, BAG_NONE, request_, reply_, HOBJ_NONE, HOBJ_NONE, &outcome.compCode,
              &outcome.reason);
    return outcome;
  }

  // The command server answers the next request.
  void expectPingAnswered() {
    prepare({});
    const Outcome ping = execute(CMD_PING);
    EXPECT_EQ(ping.compCode, CC_OK) << "the command server answers: " << reasonName(ping.reason);
    int32_t cc, rc;
    vxClearBag(reply_, &cc, &rc);
  }

  struct Blocks {
    int32_t all;
    int32_t bagRecords;
  };

  // The library's live blocks of this thread's bags and calls, the response
  // bag emptied of the replies of the call before.  The command server
  // answers on its own thread with the same library, so it is stopped for the
  // count (it then holds nothing) and started again.
  Blocks quietBlocks() {
    int32_t cc, rc;
    vxClearBag(reply_, &cc, &rc);
    vxcsStop(server_);
    server_ = nullptr;
    int32_t records = 0, bytes = 0;
    svcMemLive(ZAI_COMPONENT, ZAIFN_zaiCreateBag, &records, &bytes);
    const Blocks blocks{vxtest::liveBlocks(), records};
    EXPECT_EQ(vxcsStart(kQm, &server_), 0);
    return blocks;
  }

  // What must hold after a call that failed for want of memory.
  void expectUnhurt(const Blocks &blocks) {
    int32_t cc, rc, count = -1;
    // The response bag may hold the replies read before the failure.
    vxClearBag(reply_, &cc, &rc);
    EXPECT_EQ(cc, CC_OK) << "the response bag still works";
    vxCountItems(request_, SEL_ANY_SELECTOR, &count, &cc, &rc);
    EXPECT_EQ(cc, CC_OK) << "the request bag still works";
    // Two leftovers are what the calls define, nothing else may stay: the
    // record of a bag whose item vector could not be had (one block), and a
    // reply bag that could not be read whole, which is neither nested nor
    // deleted (its record, its vector's record and block).
    expectPingAnswered();
    const Blocks now = quietBlocks();
    const int32_t left = now.all - blocks.all;
    const int32_t keptRecords = now.bagRecords - blocks.bagRecords;
    EXPECT_TRUE(left == 0 || ((left == 1 || left == 3) && keptRecords == 1))
        << left << " blocks of the library left behind, " << keptRecords << " of them bag records";
    std::vector<std::string> temporary;
    vxqm::admin::listQueues(kQm, "VXAI.REPLY.*", 0, &temporary);
    EXPECT_TRUE(temporary.empty()) << "a reply queue left behind: " << temporary.front();
    int32_t options = 0;
    vxInquireInteger(request_, SEL_BAG_OPTIONS, ITEM_INDEX_NONE, &options, &cc, &rc);
    EXPECT_EQ(cc, CC_OK);
  }

  // Fails the n-th allocation of `call` for n = 1, 2, ... until the call
  // makes fewer than n, and returns the attempts it took.  `before` runs ahead of each attempt,
  // outside the failures.
  int sweep(Failing what, const std::function<void()> &before,
            const std::function<Outcome()> &call) {
    int n = 1;
    for (; n <= kLargestSweep; ++n) {
      SCOPED_TRACE(std::string("failing ") + nameOf(what) + " " + std::to_string(n));
      const Blocks blocks = quietBlocks();
      if (before) before();
      failNth(what, n);
      const Outcome outcome = call();
      const bool failed = !stillPending(what);
      failNth(what, 0);
      if (!failed) {
        // Fewer than n allocations: every one of them has been failed.
        EXPECT_EQ(outcome.compCode, CC_OK) << reasonName(outcome.reason);
        break;
      }
      // A failure the call can do without (a table that only saves time)
      // lets it succeed; any other ends it for want of memory.
      if (outcome.compCode != CC_OK) {
        EXPECT_EQ(outcome.compCode, CC_FAILED);
        EXPECT_EQ(outcome.reason, RC_STORAGE_NOT_AVAILABLE) << reasonName(outcome.reason);
      }
      expectUnhurt(blocks);
      if (::testing::Test::HasFailure()) return n;
    }
    EXPECT_LE(n, kLargestSweep) << "the call never ran out of allocations";
    return n;
  }

  void sweepCommand(int32_t command, const std::function<void(VXHBAG)> &fill,
                    const std::function<void()> &before = {}) {
    for (Failing what : {Failing::kServiceBlock, Failing::kHeapBlock}) {
      const int attempts = sweep(
          what,
          [&] {
            if (before) before();
            prepare(fill);
          },
          [&] { return execute(command); });
      // Every conversation gets blocks of the common services: its message
      // buffers and its reply bags.
      if (what == Failing::kServiceBlock) {
        EXPECT_GT(attempts, 3);
      }
    }
  }

  std::string directory_;  // the data directory, when there is one
  vxcsSERVER *server_ = nullptr;
  int32_t hconn_ = 0;
  VXHBAG request_ = BAG_NONE, reply_ = BAG_NONE;
  int unique_ = 0;
};

}  // namespace

TEST_P(OnlineFailures, Ping) { sweepCommand(CMD_PING, {}); }

TEST_P(OnlineFailures, InquireQueueManager) {
  sweepCommand(CMD_INQUIRE_Q_MGR, [](VXHBAG bag) { addInteger(bag, PARM_Q_MGR_ATTRS, PARM_ALL); });
}

TEST_P(OnlineFailures, CreateQueue) {
  // A create whose reply was lost still made its queue: each try has a name
  // of its own.
  sweepCommand(CMD_CREATE_Q, [this](VXHBAG bag) {
    addString(bag, ATTR_Q_NAME, "SWEEP.NEW." + std::to_string(++unique_));
    addInteger(bag, ATTR_Q_TYPE, QTYPE_LOCAL);
    addString(bag, ATTR_Q_DESC, "made while memory ran out");
  });
}

TEST_P(OnlineFailures, ChangeQueue) {
  sweepCommand(CMD_CHANGE_Q, [](VXHBAG bag) {
    addString(bag, ATTR_Q_NAME, "SWEEP.A");
    addInteger(bag, ATTR_Q_TYPE, QTYPE_LOCAL);
    addInteger(bag, ATTR_MAX_Q_DEPTH, 777);
  });
}

TEST_P(OnlineFailures, CopyQueue) {
  sweepCommand(CMD_COPY_Q, [this](VXHBAG bag) {
    addString(bag, PARM_FROM_Q_NAME, "SWEEP.A");
    addString(bag, PARM_TO_Q_NAME, "SWEEP.COPY." + std::to_string(++unique_));
    addInteger(bag, ATTR_Q_TYPE, QTYPE_LOCAL);
  });
}

TEST_P(OnlineFailures, DeleteQueue) {
  std::string victim;
  sweepCommand(
      CMD_DELETE_Q,
      [&victim](VXHBAG bag) {
        addString(bag, ATTR_Q_NAME, victim);
        addInteger(bag, PARM_PURGE, 1);
      },
      [this, &victim] {
        victim = "SWEEP.OLD." + std::to_string(++unique_);
        ASSERT_EQ(vxqm::admin::createQueue(kQm, victim, vxqm::QueueChanges()), 0);
      });
}

TEST_P(OnlineFailures, ClearQueue) {
  sweepCommand(CMD_CLEAR_Q, [](VXHBAG bag) { addString(bag, ATTR_Q_NAME, "SWEEP.B"); });
}

TEST_P(OnlineFailures, InquireQueue) {
  sweepCommand(CMD_INQUIRE_Q, [](VXHBAG bag) { addString(bag, ATTR_Q_NAME, "SWEEP.*"); });
}

TEST_P(OnlineFailures, InquireQueueNames) {
  sweepCommand(CMD_INQUIRE_Q_NAMES, [](VXHBAG bag) { addString(bag, ATTR_Q_NAME, "*"); });
}

TEST_P(OnlineFailures, InquireQueueStatus) {
  sweepCommand(CMD_INQUIRE_Q_STATUS, [](VXHBAG bag) { addString(bag, ATTR_Q_NAME, "SWEEP.*"); });
}

// A bag put on a queue and got back, each failing in turn.
TEST_P(OnlineFailures, PutBagAndGetBag) {
  int32_t cc, rc;
  vxOBJDESC od = OD_DEFAULT;
  std::memset(od.objectName, ' ', Q_NAME_LENGTH);
  std::memcpy(od.objectName, "SWEEP.DATA", 10);
  int32_t hobj = HOBJ_UNUSABLE;
  VXOPEN(hconn_, &od, OPEN_INPUT_SHARED | OPEN_OUTPUT, &hobj, &cc, &rc);
  ASSERT_EQ(cc, CC_OK) << reasonName(rc);
  VXHBAG data = BAG_NONE, got = BAG_NONE;
  vxCreateBag(0, &data, &cc, &rc);
  vxCreateBag(0, &got, &cc, &rc);
  for (int i = 0; i < 50; ++i) {
    addInteger(data, 100 + i, i);
    addString(data, 3000 + i, "value number " + std::to_string(i));
  }
  auto put = [&] {
    Outcome outcome;
    vxMSGDESC md = MD_DEFAULT;
    std::memcpy(md.format, "VXPCF   ", FORMAT_LENGTH);
    vxPUTOPTS pmo = PMO_DEFAULT;
    vxPutBag(hconn_, hobj, &md, &pmo, data, &outcome.compCode, &outcome.reason);
    return outcome;
  };
  auto get = [&] {
    Outcome outcome;
    vxMSGDESC md = MD_DEFAULT;
    vxGETOPTS gmo = GMO_DEFAULT;
    vxGetBag(hconn_, hobj, &md, &gmo, got, &outcome.compCode, &outcome.reason);
    return outcome;
  };
  // The queue is open here, so it is emptied by gets, not cleared.
  auto empty = [&] {
    for (;;) {
      vxMSGDESC md = MD_DEFAULT;
      vxGETOPTS gmo = GMO_DEFAULT;
      gmo.options = GET_ACCEPT_TRUNCATED_MSG;
      char byte;
      int32_t length = 0, getCc, getRc;
      VXGET(hconn_, hobj, &md, &gmo, 1, &byte, &length, &getCc, &getRc);
      if (getRc == RC_NO_MSG_AVAILABLE) break;
      ASSERT_NE(getCc, CC_FAILED) << reasonName(getRc);
    }
  };
  for (Failing what : {Failing::kServiceBlock, Failing::kHeapBlock}) {
    const int puts = sweep(what, empty, put);
    const int gets = sweep(
        what,
        [&] {
          empty();
          ASSERT_EQ(put().compCode, CC_OK);
        },
        get);
    // The put needs its message buffer, the get its buffer and the items'
    // memory: blocks of the services, and string copies on the heap.
    EXPECT_GT(what == Failing::kServiceBlock ? puts : gets, 1)
        << nameOf(what) << ": puts " << puts << ", gets " << gets;
    int32_t count = 0;
    vxCountItems(got, SEL_ANY_USER_SELECTOR, &count, &cc, &rc);
    EXPECT_EQ(count, 100) << "the last get read the whole bag";
  }
  vxDeleteBag(&data, &cc, &rc);
  vxDeleteBag(&got, &cc, &rc);
  VXCLOSE(hconn_, &hobj, CLOSE_NONE, &cc, &rc);
}

// The queue-interface calls allocate nothing of the library's: each succeeds
// whatever allocation is made to fail.
TEST_P(OnlineFailures, QueueInterfaceCalls) {
  char qmName[QM_NAME_LENGTH + 1] = "QM1";
  vxOBJDESC od = OD_DEFAULT;
  std::memset(od.objectName, ' ', Q_NAME_LENGTH);
  std::memcpy(od.objectName, "SWEEP.DATA", 10);
  char body[] = "hello";
  int32_t connectOptions[4] = {};  // the queue manager reads no field of them
  int32_t hconn = 0, hobj = HOBJ_UNUSABLE;
  auto outcomeOf = [](const std::function<void(int32_t *, int32_t *)> &call) {
    Outcome outcome;
    call(&outcome.compCode, &outcome.reason);
    return outcome;
  };
  struct Step {
    const char *name;
    std::function<Outcome()> call;
  };
  const std::vector<Step> steps = {
      {"VXCONN",
       [&] { return outcomeOf([&](auto *cc, auto *rc) { VXCONN(qmName, &hconn, cc, rc); }); }},
      {"VXOPEN",
       [&] {
         return outcomeOf([&](auto *cc, auto *rc) {
           vxOBJDESC copy = od;
           VXOPEN(hconn, &copy, OPEN_INPUT_SHARED | OPEN_OUTPUT | OPEN_INQUIRE | OPEN_SET, &hobj,
                  cc, rc);
         });
       }},
      {"VXPUT",
       [&] {
         return outcomeOf([&](auto *cc, auto *rc) {
           vxMSGDESC md = MD_DEFAULT;
           vxPUTOPTS pmo = PMO_DEFAULT;
           VXPUT(hconn, hobj, &md, &pmo, 5, body, cc, rc);
         });
       }},
      {"VXPUT1",
       [&] {
         return outcomeOf([&](auto *cc, auto *rc) {
           vxOBJDESC copy = od;
           vxMSGDESC md = MD_DEFAULT;
           vxPUTOPTS pmo = PMO_DEFAULT;
           VXPUT1(hconn, &copy, &md, &pmo, 5, body, cc, rc);
         });
       }},
      {"VXINQ",
       [&] {
         return outcomeOf([&](auto *cc, auto *rc) {
           int32_t selector = ATTR_CURRENT_DEPTH, depth = 0;
           VXINQ(hconn, hobj, 1, &selector, 1, &depth, 0, nullptr, cc, rc);
         });
       }},
      {"VXSET",
       [&] {
         return outcomeOf([&](auto *cc, auto *rc) {
           int32_t selector = ATTR_INHIBIT_PUT, value = INHIBIT_ALLOWED;
           VXSET(hconn, hobj, 1, &selector, 1, &value, 0, nullptr, cc, rc);
         });
       }},
      {"VXBEGIN",
       [&] { return outcomeOf([&](auto *cc, auto *rc) { VXBEGIN(hconn, nullptr, cc, rc); }); }},
      {"VXGET",
       [&] {
         return outcomeOf([&](auto *cc, auto *rc) {
           vxMSGDESC md = MD_DEFAULT;
           vxGETOPTS gmo = GMO_DEFAULT;
           gmo.options = GET_SYNCPOINT;
           char buffer[16];
           int32_t length = 0;
           VXGET(hconn, hobj, &md, &gmo, sizeof buffer, buffer, &length, cc, rc);
         });
       }},
      {"VXBACK", [&] { return outcomeOf([&](auto *cc, auto *rc) { VXBACK(hconn, cc, rc); }); }},
      {"VXCMIT", [&] { return outcomeOf([&](auto *cc, auto *rc) { VXCMIT(hconn, cc, rc); }); }},
      {"VXCLOSE",
       [&] {
         return outcomeOf([&](auto *cc, auto *rc) { VXCLOSE(hconn, &hobj, CLOSE_NONE, cc, rc); });
       }},
      {"VXDISC", [&] { return outcomeOf([&](auto *cc, auto *rc) { VXDISC(&hconn, cc, rc); }); }},
      {"VXCONNX",
       [&] {
         return outcomeOf(
             [&](auto *cc, auto *rc) { VXCONNX(qmName, connectOptions, &hconn, cc, rc); });
       }},
      {"zrtVXCONN",
       [&] {
         return outcomeOf([&](auto *cc, auto *rc) {
           int32_t other = 0, discCc, discRc;
           zrtVXCONN(qmName, &other, cc, rc);
           VXDISC(&other, &discCc, &discRc);
         });
       }},
      {"zrtVXCONNX",
       [&] {
         return outcomeOf([&](auto *cc, auto *rc) {
           int32_t other = 0, discCc, discRc;
           zrtVXCONNX(qmName, connectOptions, &other, cc, rc);
           VXDISC(&other, &discCc, &discRc);
         });
       }},
  };
  for (Failing what : {Failing::kServiceBlock, Failing::kHeapBlock}) {
    for (const Step &step : steps) {
      SCOPED_TRACE(std::string(step.name) + ", failing the first " + nameOf(what));
      const int32_t blocks = vxtest::liveBlocks();
      failNth(what, 1);
      const Outcome outcome = step.call();
      failNth(what, 0);
      EXPECT_EQ(outcome.compCode, CC_OK) << reasonName(outcome.reason);
      EXPECT_EQ(vxtest::liveBlocks(), blocks);
    }
    int32_t cc, rc;
    VXDISC(&hconn, &cc, &rc);
  }
}

// ----- The queue manager failing under vxExecute -----------------------------------

namespace {

// The failures each entry can give (its warnings are left out: a scripted
// call does nothing, and a warning promises a result).
struct EntryFailures {
  const char *entry;
  std::vector<int32_t> reasons;
};

const std::vector<EntryFailures> kEntryFailures = {
    {"qmCONN", {RC_Q_MGR_NAME_ERROR, RC_HCONN_ERROR, RC_STORAGE_NOT_AVAILABLE}},
    {"qmCONNX", {RC_Q_MGR_NAME_ERROR, RC_CONNECT_OPTIONS_ERROR, RC_HCONN_ERROR}},
    {"qmDISC", {RC_HCONN_ERROR}},
    {"qmOPEN",
     {RC_HCONN_ERROR, RC_OBJECT_DESCRIPTOR_ERROR, RC_OPTIONS_ERROR, RC_HOBJ_ERROR,
      RC_OBJECT_TYPE_ERROR, RC_OBJECT_NAME_ERROR, RC_UNKNOWN_OBJECT_Q_MGR, RC_UNKNOWN_OBJECT_NAME,
      RC_OBJECT_IN_USE, RC_OBJECT_ALREADY_EXISTS, RC_STORAGE_NOT_AVAILABLE, RC_UNEXPECTED_ERROR,
      RC_STORE_ERROR}},
    {"qmCLOSE",
     {RC_HCONN_ERROR, RC_HOBJ_ERROR, RC_OPTIONS_ERROR, RC_Q_NOT_EMPTY, RC_STORAGE_NOT_AVAILABLE,
      RC_UNEXPECTED_ERROR, RC_STORE_ERROR}},
    {"qmGET",
     {RC_HCONN_ERROR, RC_HOBJ_ERROR, RC_MSG_DESCRIPTOR_ERROR, RC_GET_OPTIONS_ERROR,
      RC_OPTIONS_ERROR, RC_WAIT_INTERVAL_ERROR, RC_BUFFER_LENGTH_ERROR, RC_BUFFER_ERROR,
      RC_DATA_LENGTH_ERROR, RC_NOT_OPEN_FOR_INPUT, RC_Q_DELETED, RC_GET_INHIBITED,
      RC_NO_MSG_AVAILABLE, RC_MSG_TRUNCATED, RC_STORAGE_NOT_AVAILABLE, RC_UNEXPECTED_ERROR,
      RC_STORE_ERROR}},
    {"qmPUT",
     {RC_HCONN_ERROR, RC_HOBJ_ERROR, RC_MSG_DESCRIPTOR_ERROR, RC_PUT_OPTIONS_ERROR,
      RC_OPTIONS_ERROR, RC_BUFFER_LENGTH_ERROR, RC_BUFFER_ERROR, RC_NOT_OPEN_FOR_OUTPUT,
      RC_Q_DELETED, RC_PRIORITY_ERROR, RC_PERSISTENCE_ERROR, RC_EXPIRY_ERROR, RC_PUT_INHIBITED,
      RC_MSG_TOO_BIG_FOR_Q, RC_Q_FULL, RC_STORAGE_NOT_AVAILABLE, RC_UNEXPECTED_ERROR,
      RC_STORE_ERROR}},
    {"qmPUT1", {RC_OBJECT_DESCRIPTOR_ERROR, RC_UNKNOWN_OBJECT_NAME, RC_Q_FULL}},
    {"qmINQ",
     {RC_HCONN_ERROR, RC_HOBJ_ERROR, RC_SELECTOR_COUNT_ERROR, RC_SELECTOR_ERROR,
      RC_INT_ATTR_COUNT_ERROR, RC_INT_ATTRS_ARRAY_ERROR, RC_CHAR_ATTR_LENGTH_ERROR,
      RC_CHAR_ATTRS_ERROR, RC_NOT_OPEN_FOR_INQUIRE, RC_STORAGE_NOT_AVAILABLE, RC_UNEXPECTED_ERROR}},
    {"qmSET", {RC_HOBJ_ERROR, RC_NOT_OPEN_FOR_SET}},
    {"qmCMIT", {RC_HCONN_ERROR}},
    {"qmBACK", {RC_HCONN_ERROR}},
    {"qmBEGIN", {RC_HCONN_ERROR, RC_BEGIN_OPTIONS_ERROR, RC_UOW_IN_PROGRESS}},
};

}  // namespace

// Each entry fails at each of its calls in a conversation (a ping, with one
// reply, and an inquiry with three), with each failure it can give.  The
// conversation ends with that failure, or as the calls define it for those
// that are not failures of the conversation: a reply longer than the buffer
// is got again, the end of the wait after the first reply is a warning, and
// a close of the clean-up never changes the outcome.  Its blocks are
// released, no reply queue stays, and the next ping is answered.
TEST_P(OnlineFailures, TheQueueManagerFailingAtEachCallOfAConversation) {
  struct Conversation {
    int32_t command;
    std::function<void(VXHBAG)> fill;
    int32_t replies;
  } conversations[] = {
      {CMD_PING, {}, 1},
      {CMD_INQUIRE_Q, [](VXHBAG bag) { addString(bag, ATTR_Q_NAME, "SWEEP.*"); }, 3},
  };
  int runs = 0;
  for (const Conversation &conversation : conversations) {
    for (const EntryFailures &failures : kEntryFailures) {
      for (int32_t reason : failures.reasons) {
        for (int32_t nth = 1;; ++nth) {
          SCOPED_TRACE(std::string(failures.entry) + " call " + std::to_string(nth) +
                       " fails with " + reasonName(reason) + ", command " +
                       std::to_string(conversation.command));
          const Blocks blocks = quietBlocks();
          prepare(conversation.fill);
          ASSERT_TRUE(vxqm::test::failNthOnThisThread(failures.entry, nth, CC_FAILED, reason));
          const Outcome outcome = execute(conversation.command);
          const bool failed = vxqm::test::callsBeforeFailureOnThisThread(failures.entry) == 0;
          vxqm::test::failNthOnThisThread(failures.entry, 0, CC_OK, RC_NONE);
          int32_t replies = 0, cc, rc;
          vxCountItems(reply_, SEL_NESTED_REPLY_BAG, &replies, &cc, &rc);
          if (!failed) {
            // The conversation makes fewer calls of the entry: all were failed.
            EXPECT_EQ(outcome.compCode, CC_OK) << reasonName(outcome.reason);
            EXPECT_EQ(replies, conversation.replies);
            break;
          }
          ++runs;
          const std::string entry = failures.entry;
          if (entry == "qmCLOSE") {
            // The clean-up's closes never change the outcome.
            EXPECT_EQ(outcome.compCode, CC_OK) << reasonName(outcome.reason);
            EXPECT_EQ(replies, conversation.replies);
          } else if (entry == "qmGET" && reason == RC_MSG_TRUNCATED) {
            EXPECT_EQ(outcome.compCode, CC_OK) << reasonName(outcome.reason);
            EXPECT_EQ(replies, conversation.replies) << "every reply, each once";
          } else if (entry == "qmGET" && reason == RC_NO_MSG_AVAILABLE && replies > 0) {
            EXPECT_EQ(outcome.compCode, CC_WARNING);
            EXPECT_EQ(outcome.reason, RC_NO_MSG_AVAILABLE) << reasonName(outcome.reason);
          } else {
            EXPECT_EQ(outcome.compCode, CC_FAILED);
            EXPECT_EQ(outcome.reason, reason) << reasonName(outcome.reason);
          }
          // A close that failed leaves its queue open, and a reply queue that
          // is not closed is not deleted: the connection's end closes both.
          if (entry == "qmCLOSE") {
            VXDISC(&hconn_, &cc, &rc);
            char name[QM_NAME_LENGTH + 1] = "QM1";
            VXCONN(name, &hconn_, &cc, &rc);
            ASSERT_EQ(cc, CC_OK) << reasonName(rc);
          }
          EXPECT_EQ(vxqm::test::temporaryQueueCount(kQm), 0) << "a reply queue left behind";
          expectUnhurt(blocks);
          if (::testing::Test::HasFailure()) return;
        }
      }
    }
  }
  // Opens, inquiries, puts, gets and closes were each failed somewhere.
  EXPECT_GT(runs, 100);
}

INSTANTIATE_TEST_SUITE_P(Stores, OnlineFailures, ::testing::Values(false, true),
                         [](const ::testing::TestParamInfo<bool> &info) {
                           return info.param ? "OverADataDirectory" : "InMemory";
                         });
