// The queue manager when memory runs out: every allocation of a call is made
// to fail in turn, and the call must end with RC_STORAGE_NOT_AVAILABLE and
// leave the queue manager as it was (no connection, handle, open count,
// queue or message left behind), or succeed.
//
// This program replaces the global operator new, so the queue manager's
// allocations (and only those made while a test arms the failure) fail.
#include <atomic>
#include <cstdlib>
#include <new>

#include "qm_admin.h"
#include "qm_testing.h"

namespace {

// 0: no failure; n: the n-th allocation from now fails.
std::atomic<int> failAt{0};

}  // namespace

// The replacements allocate and release with malloc and free, as the ones
// they replace do.
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"

void *operator new(size_t size) {
  if (failAt.load() > 0 && failAt.fetch_sub(1) == 1) throw std::bad_alloc();
  void *block = std::malloc(size != 0 ? size : 1);
  if (block == nullptr) throw std::bad_alloc();
  return block;
}
void operator delete(void *block) noexcept { std::free(block); }
void operator delete(void *block, size_t) noexcept { std::free(block); }

using namespace qmtest;

namespace {

const char *const kLocal = "SYSTEM.DEFAULT.LOCAL.QUEUE";
const char *const kModel = "SYSTEM.DEFAULT.MODEL.QUEUE";

// Runs `call` again and again; `call` sets up, passes the one call of the
// queue manager under test to `armed`, and cleans up.  The 1st, 2nd, ...
// allocation of that call fails in turn, until it runs without reaching the
// failure.  `check` sees each outcome and whether a failure was injected.
// Returns the number of allocations swept.
template <typename Call, typename Check>
int sweep(Call call, Check check) {
  for (int n = 1;; ++n) {
    bool injected = false;
    auto armed = [&](auto entry) {
      failAt = n;
      entry();
      injected = failAt.exchange(0) == 0;
    };
    const Status s = call(armed);
    check(s, injected);
    if (!injected) return n - 1;
    if (n > 1000) {
      ADD_FAILURE() << "the sweep does not end";
      return n;
    }
  }
}

vxqm::QueueStatus status(const char *queue) {
  vxqm::QueueStatus s;
  EXPECT_EQ(vxqm::admin::queueStatus("QM1", queue, &s), 0);
  return s;
}

class QmMemory : public QmTest {
 protected:
  void SetUp() override {
    QmTest::SetUp();
    connection_ = std::make_unique<Connection>();  // the queue manager exists from here
  }
  void TearDown() override {
    connection_.reset();
    QmTest::TearDown();
  }
  std::unique_ptr<Connection> connection_;
};

TEST_F(QmMemory, Connect) {
  char name[] = "QM1";
  const int swept = sweep(
      [&](auto armed) {
        Status s;
        int32_t hconn = 0;
        armed([&] { qmCONN(name, &hconn, &s.compCode, &s.reason, 0); });
        if (s == ok()) qmDISC(&hconn, 0, nullptr, nullptr);
        return s;
      },
      [](const Status &s, bool injected) {
        EXPECT_EQ(s, injected ? failed(RC_STORAGE_NOT_AVAILABLE) : ok());
        EXPECT_EQ(vxqm::test::connectionCount("QM1"), 1);
      });
  EXPECT_GT(swept, 0);
}

TEST_F(QmMemory, OpenAModelAndAQueue) {
  Connection &c = *connection_;
  const int swept = sweep(
      [&](auto armed) {
        vxOBJDESC od = objectDescriptor(kModel);
        int32_t hobj = 0;
        Status s;
        armed([&] {
          qmOPEN(c.hconn(), &od, OPEN_INPUT_EXCLUSIVE | OPEN_OUTPUT, &hobj, &s.compCode, &s.reason);
        });
        if (s == ok()) {
          EXPECT_EQ(c.close(hobj), ok());
        }
        return s;
      },
      [](const Status &s, bool injected) {
        EXPECT_EQ(s, injected ? failed(RC_STORAGE_NOT_AVAILABLE) : ok());
        EXPECT_EQ(vxqm::test::temporaryQueueCount("QM1"), 0);
        EXPECT_EQ(vxqm::test::queueCount("QM1"), 3);
      });
  EXPECT_GT(swept, 0);
  sweep(
      [&](auto armed) {
        vxOBJDESC od = objectDescriptor(kLocal);
        int32_t hobj = 0;
        Status s;
        armed([&] {
          qmOPEN(c.hconn(), &od, OPEN_INPUT_EXCLUSIVE | OPEN_OUTPUT, &hobj, &s.compCode, &s.reason);
        });
        if (s == ok()) {
          EXPECT_EQ(c.close(hobj), ok());
        }
        return s;
      },
      [](const Status &s, bool injected) {
        EXPECT_EQ(s, injected ? failed(RC_STORAGE_NOT_AVAILABLE) : ok());
        const vxqm::QueueStatus q = status(kLocal);
        EXPECT_EQ(q.openInputCount, 0);
        EXPECT_EQ(q.openOutputCount, 0);
      });
}

TEST_F(QmMemory, PutAndPut1) {
  Connection &c = *connection_;
  int32_t hobj = c.open(kLocal, OPEN_OUTPUT | OPEN_INPUT_SHARED);
  int32_t depth = 0;
  for (int32_t options : {PUT_NO_SYNCPOINT, PUT_SYNCPOINT}) {
    sweep(
        [&](auto armed) {
          vxMSGDESC md = MD_DEFAULT;
          vxPUTOPTS pmo = PMO_DEFAULT;
          pmo.options = options;
          char data[] = "a message of some length, longer than a short string";
          Status s;
          armed([&] {
            qmPUT(c.hconn(), hobj, &md, &pmo, sizeof data, data, 0, &s.compCode, &s.reason);
          });
          return s;
        },
        [&](const Status &s, bool injected) {
          EXPECT_EQ(s, injected ? failed(RC_STORAGE_NOT_AVAILABLE) : ok());
          if (!injected) ++depth;
          EXPECT_EQ(status(kLocal).depth, depth);
        });
  }
  EXPECT_EQ(c.commit(), ok());
  EXPECT_EQ(c.get(hobj, nullptr), ok());
  EXPECT_EQ(c.get(hobj, nullptr), ok());
  EXPECT_EQ(c.get(hobj, nullptr), failed(RC_NO_MSG_AVAILABLE));
  sweep(
      [&](auto armed) {
        vxOBJDESC od = objectDescriptor(kLocal);
        vxMSGDESC md = MD_DEFAULT;
        vxPUTOPTS pmo = PMO_DEFAULT;
        char data[] = "put once";
        Status s;
        armed(
            [&] { qmPUT1(c.hconn(), &od, &md, &pmo, sizeof data, data, &s.compCode, &s.reason); });
        return s;
      },
      [&](const Status &s, bool injected) {
        EXPECT_EQ(s, injected ? failed(RC_STORAGE_NOT_AVAILABLE) : ok());
        const vxqm::QueueStatus q = status(kLocal);
        EXPECT_EQ(q.depth, injected ? 0 : 1);
        EXPECT_EQ(q.openOutputCount, 1);  // only the test's own handle
      });
}

TEST_F(QmMemory, GetUnderSyncpointCommitAndBackout) {
  Connection &c = *connection_;
  int32_t hobj = c.open(kLocal, OPEN_OUTPUT | OPEN_INPUT_SHARED);
  ASSERT_EQ(c.put(hobj, "the message"), ok());
  sweep(
      [&](auto armed) {
        vxMSGDESC md = MD_DEFAULT;
        vxGETOPTS gmo = GMO_DEFAULT;
        gmo.options = GET_SYNCPOINT;
        char buffer[64];
        int32_t length = 0;
        Status s;
        armed([&] {
          qmGET(c.hconn(), hobj, &md, &gmo, sizeof buffer, buffer, &length, 0, &s.compCode,
                &s.reason);
        });
        if (s == ok()) {
          EXPECT_EQ(c.backout(), ok());
        }
        return s;
      },
      [&](const Status &s, bool injected) {
        EXPECT_EQ(s, injected ? failed(RC_STORAGE_NOT_AVAILABLE) : ok());
        EXPECT_EQ(status(kLocal).depth, 1);
      });
  // Commit and backout with messages of a unit on two queues.
  for (bool commit : {true, false}) {
    ASSERT_EQ(c.get(hobj, nullptr, GET_SYNCPOINT), ok());
    ASSERT_EQ(c.put(hobj, "new", nullptr, PUT_SYNCPOINT), ok());
    sweep(
        [&](auto armed) {
          Status s;
          armed([&] {
            if (commit) {
              qmCMIT(c.hconn(), &s.compCode, &s.reason);
            } else {
              qmBACK(c.hconn(), &s.compCode, &s.reason);
            }
          });
          return s;
        },
        [&](const Status &s, bool injected) {
          EXPECT_EQ(s, injected ? failed(RC_STORAGE_NOT_AVAILABLE) : ok());
          EXPECT_EQ(status(kLocal).depth, injected ? 2 : 1);
        });
    std::string data;
    ASSERT_EQ(c.get(hobj, &data), ok());
    EXPECT_EQ(data, commit ? "new" : "the message");
    EXPECT_EQ(c.get(hobj, nullptr), failed(RC_NO_MSG_AVAILABLE));
    ASSERT_EQ(c.put(hobj, "the message"), ok());
  }
}

TEST_F(QmMemory, DisconnectWithHandlesAndAUnit) {
  sweep(
      [&](auto armed) {
        Connection c;
        vxOBJDESC od = objectDescriptor(kModel);
        int32_t temporary = c.open(kModel, OPEN_OUTPUT, ok(), &od);
        int32_t local = c.open(kLocal, OPEN_OUTPUT | OPEN_INPUT_EXCLUSIVE);
        EXPECT_EQ(c.put(temporary, "t", nullptr, PUT_SYNCPOINT), ok());
        EXPECT_EQ(c.put(local, "l", nullptr, PUT_SYNCPOINT), ok());
        Status s;
        armed([&] { qmDISC(&c.handle(), 0, &s.compCode, &s.reason); });
        return s;  // the Connection disconnects again, unarmed, if this one failed
      },
      [](const Status &s, bool injected) {
        EXPECT_EQ(s, injected ? failed(RC_STORAGE_NOT_AVAILABLE) : ok());
        EXPECT_EQ(vxqm::test::connectionCount("QM1"), 1);
        EXPECT_EQ(vxqm::test::temporaryQueueCount("QM1"), 0);
        const vxqm::QueueStatus q = status(kLocal);
        EXPECT_EQ(q.depth, 0);
        EXPECT_EQ(q.openInputCount, 0);
      });
}

TEST_F(QmMemory, Administration) {
  sweep(
      [&](auto armed) {
        vxqm::QueueChanges changes;
        changes.description = "a description long enough to be allocated";
        const std::string qmName = "QM1";  // the strings are the caller's: made unarmed
        const std::string name = "CREATED.BY.THE.SWEEP";
        Status s{CC_OK, RC_NONE};
        armed([&] { s.reason = vxqm::admin::createQueue(qmName, name, changes); });
        if (s.reason != 0) s.compCode = CC_FAILED;
        if (s == ok()) {
          EXPECT_EQ(vxqm::admin::deleteQueue("QM1", "CREATED.BY.THE.SWEEP", false), 0);
        }
        return s;
      },
      [](const Status &s, bool injected) {
        EXPECT_EQ(s, injected ? failed(RC_STORAGE_NOT_AVAILABLE) : ok());
        EXPECT_EQ(vxqm::test::queueCount("QM1"), 3);
      });
}

}  // namespace
