// The queue manager with many threads: waiting gets woken by what other
// threads do, and many threads putting and getting on shared queues with
// nothing lost or duplicated.  Every suite here ends in "Threads": the test
// command also runs them under helgrind.
#include <atomic>
#include <chrono>
#include <map>
#include <mutex>
#include <thread>

#include "qm_admin.h"
#include "qm_testing.h"

using namespace qmtest;
using Clock = std::chrono::steady_clock;

namespace {

const char *const kLocal = "SYSTEM.DEFAULT.LOCAL.QUEUE";

// A wait that something else ends must end within this bound.  Far above the
// wake-up latency even under helgrind, far below the wait interval.
constexpr auto kBound = std::chrono::seconds(3);
constexpr int32_t kLongWait = 30000;

// Runs a get that waits up to kLongWait on its own thread; `then` runs once
// the get is waiting (a short pause makes that likely; the outcome is right
// either way, only the measured time would be shorter).
struct WaitingGet {
  WaitingGet(Connection &c, int32_t hobj, int32_t options = 0) {
    thread = std::thread([&c, hobj, options, this] {
      std::string data;
      status = c.get(hobj, &data, GET_WAIT | options, kLongWait);
      std::lock_guard<std::mutex> lock(mutex);
      got = data;
      ended = Clock::now();
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  // Joins, and returns how long the get went on after `since`.
  Clock::duration join(Clock::time_point since) {
    thread.join();
    std::lock_guard<std::mutex> lock(mutex);
    return ended - since;
  }
  std::thread thread;
  std::mutex mutex;
  Status status;
  std::string got;
  Clock::time_point ended;
};

using QmWaitThreads = QmTest;

TEST_F(QmWaitThreads, APutOnAnotherThreadWakesAWaitingGet) {
  Connection reader;
  Connection writer;
  int32_t input = reader.open(kLocal, OPEN_INPUT_SHARED);
  int32_t output = writer.open(kLocal, OPEN_OUTPUT);
  WaitingGet get(reader, input);
  const auto put = Clock::now();
  ASSERT_EQ(writer.put(output, "wake up"), ok());
  EXPECT_LT(get.join(put), kBound);
  EXPECT_EQ(get.status, ok());
  EXPECT_EQ(get.got, "wake up");
}

TEST_F(QmWaitThreads, ACommitWakesAWaitingGetAndAPutInAUnitDoesNot) {
  Connection reader;
  Connection writer;
  int32_t input = reader.open(kLocal, OPEN_INPUT_SHARED);
  int32_t output = writer.open(kLocal, OPEN_OUTPUT);
  WaitingGet get(reader, input);
  ASSERT_EQ(writer.put(output, "committed", nullptr, PUT_SYNCPOINT), ok());
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  {
    std::lock_guard<std::mutex> lock(get.mutex);
    EXPECT_EQ(get.ended, Clock::time_point{});  // still waiting
  }
  const auto commit = Clock::now();
  ASSERT_EQ(writer.commit(), ok());
  EXPECT_LT(get.join(commit), kBound);
  EXPECT_EQ(get.status, ok());
  EXPECT_EQ(get.got, "committed");
}

TEST_F(QmWaitThreads, ABackoutOfAGetWakesAWaitingGet) {
  Connection first;
  Connection second;
  int32_t a = first.open(kLocal, OPEN_INPUT_SHARED | OPEN_OUTPUT);
  int32_t b = second.open(kLocal, OPEN_INPUT_SHARED);
  ASSERT_EQ(first.put(a, "restored"), ok());
  ASSERT_EQ(first.get(a, nullptr, GET_SYNCPOINT), ok());
  WaitingGet get(second, b);
  const auto backout = Clock::now();
  ASSERT_EQ(first.backout(), ok());
  EXPECT_LT(get.join(backout), kBound);
  EXPECT_EQ(get.status, ok());
  EXPECT_EQ(get.got, "restored");
}

TEST_F(QmWaitThreads, ClosingTheWaitingHandleEndsTheGet) {
  Connection reader;
  int32_t input = reader.open(kLocal, OPEN_INPUT_SHARED);
  WaitingGet get(reader, input);
  const auto close = Clock::now();
  EXPECT_EQ(reader.close(input), ok());
  EXPECT_LT(get.join(close), kBound);
  EXPECT_EQ(get.status, failed(RC_HOBJ_ERROR));
}

TEST_F(QmWaitThreads, ClosingAHandleEndsEveryGetWaitingOnIt) {
  Connection reader;
  int32_t input = reader.open(kLocal, OPEN_INPUT_SHARED);
  WaitingGet first(reader, input);
  WaitingGet second(reader, input);
  const auto close = Clock::now();
  EXPECT_EQ(reader.close(input), ok());
  EXPECT_LT(first.join(close), kBound);
  EXPECT_LT(second.join(close), kBound);
  EXPECT_EQ(first.status, failed(RC_HOBJ_ERROR));
  EXPECT_EQ(second.status, failed(RC_HOBJ_ERROR));
}

// A close ends only the gets that wait on the handle it closes: a get on
// another handle of the same queue goes on waiting and takes the next message.
TEST_F(QmWaitThreads, ClosingAnotherHandleLeavesTheGetWaiting) {
  Connection reader;
  Connection writer;
  int32_t input = reader.open(kLocal, OPEN_INPUT_SHARED);
  int32_t other = reader.open(kLocal, OPEN_INPUT_SHARED);
  int32_t output = writer.open(kLocal, OPEN_OUTPUT);
  WaitingGet get(reader, input);
  EXPECT_EQ(reader.close(other), ok());
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  {
    std::lock_guard<std::mutex> lock(get.mutex);
    EXPECT_EQ(get.ended, Clock::time_point{}) << "the get ended with the other handle";
  }
  const auto put = Clock::now();
  ASSERT_EQ(writer.put(output, "after the close"), ok());
  EXPECT_LT(get.join(put), kBound);
  EXPECT_EQ(get.status, ok());
  EXPECT_EQ(get.got, "after the close");
}

// A handle whose waiting get was woken by a put still ends the next get that
// waits on it when it closes: each wait is counted once, and uncounted once.
TEST_F(QmWaitThreads, AWaitEndedByAPutLeavesTheHandleClosable) {
  Connection reader;
  Connection writer;
  int32_t input = reader.open(kLocal, OPEN_INPUT_SHARED);
  int32_t output = writer.open(kLocal, OPEN_OUTPUT);
  {
    WaitingGet first(reader, input);
    const auto put = Clock::now();
    ASSERT_EQ(writer.put(output, "one"), ok());
    EXPECT_LT(first.join(put), kBound);
    EXPECT_EQ(first.status, ok());
  }
  WaitingGet second(reader, input);
  const auto close = Clock::now();
  EXPECT_EQ(reader.close(input), ok());
  EXPECT_LT(second.join(close), kBound);
  EXPECT_EQ(second.status, failed(RC_HOBJ_ERROR));
}

TEST_F(QmWaitThreads, DisconnectingEndsTheGet) {
  Connection reader;
  int32_t input = reader.open(kLocal, OPEN_INPUT_SHARED);
  WaitingGet get(reader, input);
  const auto disconnect = Clock::now();
  int32_t hconn = reader.hconn();
  Status s;
  qmDISC(&hconn, 0, &s.compCode, &s.reason);
  EXPECT_EQ(s, ok());
  EXPECT_LT(get.join(disconnect), kBound);
  EXPECT_EQ(get.status, failed(RC_HCONN_ERROR));
}

TEST_F(QmWaitThreads, DeletingTheQueueEndsTheGet) {
  Connection creator;
  vxOBJDESC od = objectDescriptor("SYSTEM.DEFAULT.MODEL.QUEUE");
  int32_t own = creator.open("SYSTEM.DEFAULT.MODEL.QUEUE", OPEN_OUTPUT, ok(), &od);
  Connection reader;
  int32_t input = reader.open(field(od.objectName, Q_NAME_LENGTH), OPEN_INPUT_SHARED);
  WaitingGet get(reader, input);
  const auto close = Clock::now();
  EXPECT_EQ(creator.close(own), ok());
  EXPECT_LT(get.join(close), kBound);
  EXPECT_EQ(get.status, failed(RC_Q_DELETED));
}

TEST_F(QmWaitThreads, InhibitingGetsEndsTheGet) {
  Connection reader;
  int32_t input = reader.open(kLocal, OPEN_INPUT_SHARED);
  WaitingGet get(reader, input);
  const auto change = Clock::now();
  vxqm::QueueChanges inhibit;
  inhibit.inhibitGet = INHIBIT_INHIBITED;
  ASSERT_EQ(vxqm::admin::changeQueue("QM1", kLocal, inhibit), 0);
  EXPECT_LT(get.join(change), kBound);
  EXPECT_EQ(get.status, failed(RC_GET_INHIBITED));
}

TEST_F(QmWaitThreads, AResetEndsTheGet) {
  Connection reader;
  int32_t input = reader.open(kLocal, OPEN_INPUT_SHARED);
  WaitingGet get(reader, input);
  const auto reset = Clock::now();
  vxqm::test::reset("QM1");
  EXPECT_LT(get.join(reset), kBound);
  EXPECT_EQ(get.status, failed(RC_HCONN_ERROR));
}

TEST_F(QmWaitThreads, ReleasingHeldMessagesWakesAWaitingGet) {
  Connection reader;
  Connection writer;
  int32_t input = reader.open(kLocal, OPEN_INPUT_SHARED);
  int32_t output = writer.open(kLocal, OPEN_OUTPUT);
  ASSERT_EQ(vxqm::test::holdMessages("QM1", kLocal, true), 0);
  WaitingGet get(reader, input);
  ASSERT_EQ(writer.put(output, "held"), ok());
  const auto release = Clock::now();
  ASSERT_EQ(vxqm::test::holdMessages("QM1", kLocal, false), 0);
  EXPECT_LT(get.join(release), kBound);
  EXPECT_EQ(get.status, ok());
  EXPECT_EQ(get.got, "held");
}

TEST_F(QmWaitThreads, AGetWaitsOnlyForTheMessageItSelects) {
  Connection reader;
  Connection writer;
  int32_t input = reader.open(kLocal, OPEN_INPUT_SHARED);
  int32_t output = writer.open(kLocal, OPEN_OUTPUT);
  Status status;
  std::string got;
  std::thread thread([&] {
    vxMSGDESC md = MD_DEFAULT;
    std::memset(md.correlId, 'W', CORREL_ID_LENGTH);
    status = reader.get(input, &got, GET_WAIT, kLongWait, &md);
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  ASSERT_EQ(writer.put(output, "not this one"), ok());
  vxMSGDESC md = MD_DEFAULT;
  std::memset(md.correlId, 'W', CORREL_ID_LENGTH);
  ASSERT_EQ(writer.put(output, "this one", &md), ok());
  thread.join();
  EXPECT_EQ(status, ok());
  EXPECT_EQ(got, "this one");
  EXPECT_EQ(vxqm::test::messageCount("QM1", kLocal), 1);
}

// ---------------------------------------------------------------------------
// Many threads on shared queues

constexpr int kThreads = 8;
constexpr int kQueues = 8;
constexpr int kMessagesPerThread = 150;

std::string queueName(int i) { return "SHARED." + std::to_string(i); }

class QmPutGetThreads : public QmTest {
 protected:
  void SetUp() override {
    QmTest::SetUp();
    for (int q = 0; q < kQueues; ++q) {
      ASSERT_EQ(vxqm::admin::createQueue("QM1", queueName(q), {}), 0);
    }
  }
  // Every message counted by its content: each exactly once.
  std::mutex mutex_;
  std::map<std::string, int> seen_;  // guarded by mutex_
  void saw(const std::string &text) {
    std::lock_guard<std::mutex> lock(mutex_);
    ++seen_[text];
  }
  void expectEachOnce(int total) {
    std::lock_guard<std::mutex> lock(mutex_);
    EXPECT_EQ(static_cast<int>(seen_.size()), total);
    for (const auto &[text, count] : seen_) EXPECT_EQ(count, 1) << text;
  }
};

TEST_F(QmPutGetThreads, NothingIsLostOrDuplicated) {
  std::atomic<int> failures{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      Connection c;
      std::vector<int32_t> handles;
      for (int q = 0; q < kQueues; ++q) {
        handles.push_back(c.open(queueName(q), OPEN_OUTPUT | OPEN_INPUT_SHARED));
      }
      // Put to every queue in turn, and get from another one: the gets
      // take messages of other threads.
      for (int i = 0; i < kMessagesPerThread; ++i) {
        const std::string text = std::to_string(t) + "/" + std::to_string(i);
        if (c.put(handles[(t + i) % kQueues], text) != ok()) ++failures;
        std::string data;
        if (c.get(handles[(t + i + 3) % kQueues], &data) == ok()) {
          saw(data);
        }
      }
    });
  }
  for (auto &thread : threads) thread.join();
  EXPECT_EQ(failures, 0);
  // What is left is collected by one reader.
  Connection c;
  for (int q = 0; q < kQueues; ++q) {
    int32_t hobj = c.open(queueName(q), OPEN_INPUT_SHARED);
    std::string data;
    while (c.get(hobj, &data) == ok()) saw(data);
  }
  expectEachOnce(kThreads * kMessagesPerThread);
}

// Readers wait without a time limit and stop at a "stop" message, put after
// every writer has finished: no wait here ends at its deadline, a moment
// that helgrind cannot tell from a race inside the C library.
void putStops(int perQueue) {
  Connection c;
  for (int q = 0; q < 2; ++q) {
    int32_t hobj = c.open(queueName(q), OPEN_OUTPUT);
    for (int i = 0; i < perQueue; ++i) EXPECT_EQ(c.put(hobj, "stop"), ok());
  }
}

TEST_F(QmPutGetThreads, WaitingReadersTakeEveryMessageOfWriters) {
  // Four writers, four readers waiting on the same two queues.
  constexpr int kWriters = kThreads / 2;
  std::atomic<int> received{0};
  std::atomic<int> failures{0};
  std::vector<std::thread> readers;
  std::vector<std::thread> writers;
  for (int r = 0; r < kWriters; ++r) {
    readers.emplace_back([&, r] {
      Connection c;
      int32_t hobj = c.open(queueName(r % 2), OPEN_INPUT_SHARED);
      for (;;) {
        std::string data;
        if (c.get(hobj, &data, GET_WAIT, WAIT_UNLIMITED) != ok()) {
          ++failures;
          break;
        }
        if (data == "stop") break;
        saw(data);
        ++received;
      }
    });
  }
  for (int w = 0; w < kWriters; ++w) {
    writers.emplace_back([&, w] {
      Connection c;
      int32_t first = c.open(queueName(0), OPEN_OUTPUT);
      int32_t second = c.open(queueName(1), OPEN_OUTPUT);
      for (int i = 0; i < kMessagesPerThread; ++i) {
        const std::string text = "w" + std::to_string(w) + "/" + std::to_string(i);
        if (c.put(i % 2 == 0 ? first : second, text) != ok()) ++failures;
      }
    });
  }
  for (auto &thread : writers) thread.join();
  putStops(kWriters / 2);
  for (auto &thread : readers) thread.join();
  EXPECT_EQ(failures, 0);
  EXPECT_EQ(received, kWriters * kMessagesPerThread);
  expectEachOnce(kWriters * kMessagesPerThread);
}

TEST_F(QmPutGetThreads, OneConnectionServesManyThreads) {
  Connection c;
  int32_t hobj = c.open(queueName(0), OPEN_OUTPUT | OPEN_INPUT_SHARED);
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < kMessagesPerThread / 2; ++i) {
        EXPECT_EQ(c.put(hobj, std::to_string(t) + "/" + std::to_string(i)), ok());
        std::string data;
        if (c.get(hobj, &data) == ok()) saw(data);
      }
    });
  }
  for (auto &thread : threads) thread.join();
  std::string data;
  while (c.get(hobj, &data) == ok()) saw(data);
  expectEachOnce(kThreads * (kMessagesPerThread / 2));
}

// Units of work on many threads: writers commit some units and back out
// others; readers get under syncpoint and back out some gets.  Exactly the
// committed puts arrive, each once, and restored gets come back.
TEST_F(QmPutGetThreads, UnitsOfWorkOnManyThreads) {
  constexpr int kWriters = kThreads / 2;
  constexpr int kUnits = 20;
  constexpr int kPerUnit = 5;
  std::atomic<int> failures{0};
  std::vector<std::thread> readers;
  std::vector<std::thread> writers;
  for (int w = 0; w < kWriters; ++w) {
    writers.emplace_back([&, w] {
      Connection c;
      int32_t hobj = c.open(queueName(w % 2), OPEN_OUTPUT);
      for (int u = 0; u < kUnits; ++u) {
        for (int i = 0; i < kPerUnit; ++i) {
          const std::string text =
              "w" + std::to_string(w) + "/" + std::to_string(u) + "/" + std::to_string(i);
          if (c.put(hobj, text, nullptr, PUT_SYNCPOINT) != ok()) ++failures;
        }
        // Every third unit is backed out.
        if ((u % 3 == 2 ? c.backout() : c.commit()) != ok()) ++failures;
      }
    });
  }
  for (int r = 0; r < kWriters; ++r) {
    readers.emplace_back([&, r] {
      Connection c;
      int32_t hobj = c.open(queueName(r % 2), OPEN_INPUT_SHARED);
      int n = 0;
      for (;;) {
        std::string data;
        vxMSGDESC md = MD_DEFAULT;
        if (c.get(hobj, &data, GET_WAIT | GET_SYNCPOINT, WAIT_UNLIMITED, &md) != ok()) {
          ++failures;
          break;
        }
        if (data == "stop") {
          if (c.commit() != ok()) ++failures;
          break;
        }
        // Every fourth get is backed out once and taken again later.
        if (++n % 4 == 0 && md.backoutCount == 0) {
          if (c.backout() != ok()) ++failures;
          continue;
        }
        if (c.commit() != ok()) ++failures;
        saw(data);
      }
    });
  }
  for (auto &thread : writers) thread.join();
  putStops(kWriters / 2);
  for (auto &thread : readers) thread.join();
  EXPECT_EQ(failures, 0);
  int committedUnits = 0;
  for (int u = 0; u < kUnits; ++u) committedUnits += u % 3 == 2 ? 0 : 1;
  expectEachOnce(kWriters * committedUnits * kPerUnit);
  std::lock_guard<std::mutex> lock(mutex_);
  for (const auto &[text, count] : seen_) {
    const int unit = std::stoi(text.substr(text.find('/') + 1));
    EXPECT_NE(unit % 3, 2) << text << " was backed out";
  }
}

}  // namespace
