// Benchmark of the queue manager, run by hand:
//   messages per second of a put and a get of a 256-byte message, on one
//   thread and on 8 threads over 8 queues;
//   the latency of a get woken by a put on another thread, beside a bare
//   mutex-and-condition-variable hand-off between the same two threads, the
//   limit it is measured against.
// Usage: bench_qm [messages]   (default 200000)
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "qm.h"
#include "qm_admin.h"
#include "vxqi_records.h"

namespace {

using Clock = std::chrono::steady_clock;
constexpr int32_t kMessageLength = 256;
constexpr int kThreads = 8;

double seconds(Clock::duration d) { return std::chrono::duration<double>(d).count(); }

void check(int32_t compCode, int32_t reason, const char *what) {
  if (compCode != CC_OK) {
    std::fprintf(stderr, "%s failed: %d %d\n", what, compCode, reason);
    std::exit(1);
  }
}

int32_t connect() {
  char name[] = "QM1";
  int32_t hconn = 0, cc = 0, rc = 0;
  qmCONN(name, &hconn, &cc, &rc, 0);
  check(cc, rc, "connect");
  return hconn;
}

int32_t open(int32_t hconn, const std::string &queue, int32_t options) {
  vxOBJDESC od = OD_DEFAULT;
  std::memcpy(od.objectName, queue.data(), queue.size());
  int32_t hobj = 0, cc = 0, rc = 0;
  qmOPEN(hconn, &od, options, &hobj, &cc, &rc);
  check(cc, rc, "open");
  return hobj;
}

void put(int32_t hconn, int32_t hobj, char *data) {
  vxMSGDESC md = MD_DEFAULT;
  vxPUTOPTS pmo = PMO_DEFAULT;
  int32_t cc = 0, rc = 0;
  qmPUT(hconn, hobj, &md, &pmo, kMessageLength, data, 0, &cc, &rc);
  check(cc, rc, "put");
}

void get(int32_t hconn, int32_t hobj, char *buffer, int32_t wait) {
  vxMSGDESC md = MD_DEFAULT;
  vxGETOPTS gmo = GMO_DEFAULT;
  gmo.options = wait != 0 ? GET_WAIT : 0;
  gmo.waitInterval = wait;
  int32_t length = 0, cc = 0, rc = 0;
  qmGET(hconn, hobj, &md, &gmo, kMessageLength, buffer, &length, 0, &cc, &rc);
  check(cc, rc, "get");
}

std::string queueName(int i) { return "BENCH." + std::to_string(i); }

// Each thread puts and gets `messages` messages on its own queue.
double putGetRate(int threads, int messages) {
  std::vector<std::thread> running;
  const Clock::time_point start = Clock::now();
  for (int t = 0; t < threads; ++t) {
    running.emplace_back([t, messages] {
      const int32_t hconn = connect();
      const int32_t hobj = open(hconn, queueName(t), OPEN_OUTPUT | OPEN_INPUT_SHARED);
      std::vector<char> data(kMessageLength, 'x');
      std::vector<char> buffer(kMessageLength);
      for (int i = 0; i < messages; ++i) {
        put(hconn, hobj, data.data());
        get(hconn, hobj, buffer.data(), 0);
      }
      int32_t cc = 0, rc = 0;
      int32_t h = hconn;
      qmDISC(&h, 0, &cc, &rc);
    });
  }
  for (auto &thread : running) thread.join();
  return threads * static_cast<double>(messages) / seconds(Clock::now() - start);
}

// One-way latency of a waiting get woken by a put: a ping-pong over two
// queues, half a round trip each way.
double queueHandOff(int rounds) {
  std::thread echo([rounds] {
    const int32_t hconn = connect();
    const int32_t in = open(hconn, queueName(0), OPEN_INPUT_SHARED);
    const int32_t out = open(hconn, queueName(1), OPEN_OUTPUT);
    std::vector<char> buffer(kMessageLength);
    for (int i = 0; i < rounds; ++i) {
      get(hconn, in, buffer.data(), WAIT_UNLIMITED);
      put(hconn, out, buffer.data());
    }
    int32_t cc = 0, rc = 0, h = hconn;
    qmDISC(&h, 0, &cc, &rc);
  });
  const int32_t hconn = connect();
  const int32_t out = open(hconn, queueName(0), OPEN_OUTPUT);
  const int32_t in = open(hconn, queueName(1), OPEN_INPUT_SHARED);
  std::vector<char> data(kMessageLength, 'p');
  const Clock::time_point start = Clock::now();
  for (int i = 0; i < rounds; ++i) {
    put(hconn, out, data.data());
    get(hconn, in, data.data(), WAIT_UNLIMITED);
  }
  const double elapsed = seconds(Clock::now() - start);
  echo.join();
  int32_t cc = 0, rc = 0, h = hconn;
  qmDISC(&h, 0, &cc, &rc);
  return elapsed / rounds / 2;
}

// The same ping-pong with nothing but a mutex, a condition variable and a
// turn number between the same two threads.
double bareHandOff(int rounds) {
  std::mutex mutex;
  std::condition_variable changed;
  int turn = 0;  // guarded by mutex: even, the first thread's; odd, the echo's
  std::thread echo([&] {
    for (int i = 0; i < rounds; ++i) {
      std::unique_lock<std::mutex> lock(mutex);
      changed.wait(lock, [&] { return turn % 2 == 1; });
      ++turn;
      changed.notify_all();
    }
  });
  const Clock::time_point start = Clock::now();
  for (int i = 0; i < rounds; ++i) {
    std::unique_lock<std::mutex> lock(mutex);
    ++turn;
    changed.notify_all();
    changed.wait(lock, [&] { return turn % 2 == 0; });
  }
  const double elapsed = seconds(Clock::now() - start);
  echo.join();
  return elapsed / rounds / 2;
}

}  // namespace

int main(int argc, char **argv) {
  const int messages = argc > 1 ? std::atoi(argv[1]) : 200000;
  if (messages <= 0) {
    std::fprintf(stderr, "usage: bench_qm [messages]\n");
    return 2;
  }
  for (int q = 0; q < kThreads; ++q) vxqm::admin::createQueue("QM1", queueName(q), {});
  const int rounds = messages / 10;

  const double one = putGetRate(1, messages);
  const double eight = putGetRate(kThreads, messages / kThreads);
  // Best of three for the latencies: other work on the machine only adds.
  double queue = 1e9, bare = 1e9;
  for (int i = 0; i < 3; ++i) {
    queue = std::min(queue, queueHandOff(rounds));
    bare = std::min(bare, bareHandOff(rounds));
  }

  std::printf("%-44s %14s\n", "queue manager, 256-byte messages", "result");
  std::printf("%-44s %10.0f msg/s\n", "put+get, 1 thread", one);
  std::printf("%-44s %10.0f msg/s\n", "put+get, 8 threads over 8 queues", eight);
  std::printf("%-44s %10.2f us\n", "get woken by a put on another thread", queue * 1e6);
  std::printf("%-44s %10.2f us\n", "bare mutex+condition variable hand-off", bare * 1e6);
  std::printf("%-44s %10.2f x   (target: 3x or less)\n", "woken get / bare hand-off", queue / bare);
  return 0;
}
