// The programs of the soak run (bench/soak.sh), one binary with a role per
// process, all on the queue manager of VXQM_DATA:
//
//   soak serve CSV
//       a command server (vxcsStart) until SIGTERM or SIGINT; writes "ready"
//       on standard output once it answers.
//   soak execute CSV SECONDS THREADS CALLS
//       THREADS threads calling vxExecute for SECONDS, in rounds of CALLS
//       calls each: ping, create queue, inquire queue names, inquire queue,
//       inquire queue status, delete queue, in turn, on a scratch queue of
//       each thread; every reply is counted and checked.
//   soak messages SECONDS PROCESSES MESSAGES DIR
//       PROCESSES worker processes (this program again) that put, in rounds
//       of MESSAGES each, messages with unique ids, persistent and not in
//       turn, while getting the messages of the others; then every message
//       is accounted for: each put got exactly once, nothing got that was
//       never put, the queues empty at the end.
//
// serve and execute, the long-lived processes, write a line a second to
// their CSV: seconds since start, resident set (kB), blocks and bytes of the
// common services' memory still live, and the anonymous part of the
// resident set (kB).  Each role ends with a line "RESULT
// ..." on standard output and exits 0 only when nothing failed.
#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "child.h"
#include "command_server.h"
#include "qm_admin.h"
#include "svc.h"
#include "vxai.h"
#include "vxqi.h"

extern char **environ;

namespace {

using Clock = std::chrono::steady_clock;

constexpr char kQm[] = "QM1";
constexpr char kMessageQueuePrefix[] = "SOAK.MSG.";
constexpr char kIdTag[4] = {'S', 'O', 'A', 'K'};
constexpr char kStopTag[4] = {'S', 'T', 'O', 'P'};
constexpr int32_t kMessageLength = 64;
// The longest a worker waits for the next message once the puts have ended:
// every message still to come was put before its stop message.
constexpr int32_t kDrainWaitMs = 120000;
// The common services' components that the processes may use.
constexpr int32_t kComponents = 128;

double secondsSince(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

void blankName(char *field, const std::string &name) {
  std::memset(field, ' ', Q_NAME_LENGTH);
  std::memcpy(field, name.data(), name.size());
}

// ---------------------------------------------------------------------------
// Memory of this process, a line a second.

// The resident set and its anonymous part (the heap and the stacks, without
// the pages of mapped files and shared memory), in kB, from
// /proc/self/status.
void resident(long *rssKb, long *anonKb) {
  *rssKb = -1;
  *anonKb = -1;
  FILE *f = std::fopen("/proc/self/status", "r");
  if (f == nullptr) return;
  char line[256];
  while (std::fgets(line, sizeof line, f) != nullptr) {
    std::sscanf(line, "VmRSS: %ld", rssKb);
    std::sscanf(line, "RssAnon: %ld", anonKb);
  }
  std::fclose(f);
}

void liveBlocks(int64_t *blocks, int64_t *bytes) {
  *blocks = 0;
  *bytes = 0;
  for (int32_t component = 0; component < kComponents; ++component) {
    int32_t n = 0, b = 0;
    svcMemLive(component, -1, &n, &b);
    *blocks += n;
    *bytes += b;
  }
}

// Writes the CSV from its own thread until stopped.
class Sampler {
 public:
  explicit Sampler(const char *path) : file_(std::fopen(path, "w")) {
    if (file_ == nullptr) {
      std::perror(path);
      std::exit(1);
    }
    std::fprintf(file_, "seconds,rss_kb,svc_blocks,svc_bytes,anon_kb\n");
    thread_ = std::thread([this] { run(); });
  }
  ~Sampler() {
    {
      std::lock_guard lock(mutex_);
      stopping_ = true;
    }
    wake_.notify_all();
    thread_.join();
    std::fclose(file_);
  }

 private:
  void run() {
    const Clock::time_point start = Clock::now();
    std::unique_lock lock(mutex_);
    for (int second = 0; !stopping_; ++second) {
      int64_t blocks = 0, bytes = 0;
      long rssKb = 0, anonKb = 0;
      liveBlocks(&blocks, &bytes);
      resident(&rssKb, &anonKb);
      std::fprintf(file_, "%d,%ld,%lld,%lld,%ld\n", second, rssKb, static_cast<long long>(blocks),
                   static_cast<long long>(bytes), anonKb);
      std::fflush(file_);
      wake_.wait_until(lock, start + std::chrono::seconds(second + 1),
                       [this] { return stopping_; });
    }
  }

  FILE *file_;
  std::mutex mutex_;
  std::condition_variable wake_;
  bool stopping_ = false;
  std::thread thread_;
};

// ---------------------------------------------------------------------------
// serve

int serve(const char *csv) {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGTERM);
  sigaddset(&signals, SIGINT);
  // Blocked before any thread starts, so that every thread inherits it and
  // only sigwait takes the signal.
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  vxcsSERVER *server = nullptr;
  const int32_t reason = vxcsStart(kQm, &server);
  if (reason != 0) {
    std::printf("RESULT serve failed to start: reason %d\n", reason);
    return 1;
  }
  int exitCode = 0;
  {
    Sampler sampler(csv);
    std::printf("ready %d\n", static_cast<int>(getpid()));
    std::fflush(stdout);
    int signal = 0;
    sigwait(&signals, &signal);
    vxcsStop(server);
  }
  int64_t blocks = 0, bytes = 0;
  liveBlocks(&blocks, &bytes);
  std::printf("RESULT serve stopped; svc blocks live after the stop %lld (%lld bytes)\n",
              static_cast<long long>(blocks), static_cast<long long>(bytes));
  return exitCode;
}

// ---------------------------------------------------------------------------
// execute

enum Step { kPing, kCreate, kNames, kInquire, kStatus, kDelete, kSteps };
constexpr const char *kStepNames[kSteps] = {"ping",          "create queue",   "inquire names",
                                            "inquire queue", "inquire status", "delete queue"};
constexpr int32_t kStepCommands[kSteps] = {CMD_PING,      CMD_CREATE_Q,         CMD_INQUIRE_Q_NAMES,
                                           CMD_INQUIRE_Q, CMD_INQUIRE_Q_STATUS, CMD_DELETE_Q};

struct Counts {
  std::atomic<long> calls[kSteps] = {};
  std::atomic<long> replies[kSteps] = {};
  std::atomic<long> failures[kSteps] = {};
};

std::mutex gReportLock;
int gReported = 0;

void reportFailure(int thread, long call, Step step, int32_t cc, int32_t rc, int32_t replies,
                   const char *why) {
  std::lock_guard lock(gReportLock);
  if (++gReported > 20) return;
  std::fprintf(stderr, "soak execute: thread %d call %ld %s: cc %d rc %d, %d replies: %s\n", thread,
               call, kStepNames[step], cc, rc, replies, why);
}

void executeThread(int thread, double seconds, Counts *counts) {
  const Clock::time_point start = Clock::now();
  char qmName[QM_NAME_LENGTH + 1] = {};
  std::memcpy(qmName, kQm, sizeof kQm);
  int32_t hconn = 0, cc = 0, rc = 0;
  VXCONN(qmName, &hconn, &cc, &rc);
  if (cc == CC_FAILED) {
    reportFailure(thread, 0, kPing, cc, rc, 0, "connect");
    counts->failures[kPing]++;
    return;
  }
  char scratch[Q_NAME_LENGTH + 1];
  std::snprintf(scratch, sizeof scratch, "SOAK.SCRATCH.%d.T%d", static_cast<int>(getpid()), thread);
  VXHBAG request = BAG_NONE, response = BAG_NONE;
  vxCreateBag(BAG_OPT_ADMIN_BAG, &request, &cc, &rc);
  vxCreateBag(BAG_OPT_ADMIN_BAG, &response, &cc, &rc);
  long call = 0;
  // Stops only between a delete and the next ping: the scratch queue goes.
  for (;; ++call) {
    const Step step = static_cast<Step>(call % kSteps);
    if (step == kPing && secondsSince(start) >= seconds) break;
    vxClearBag(request, &cc, &rc);
    switch (step) {
      case kPing:
        break;
      case kCreate:
        vxAddString(request, ATTR_Q_NAME, -1, scratch, &cc, &rc);
        vxAddInteger(request, ATTR_Q_TYPE, QTYPE_LOCAL, &cc, &rc);
        vxAddString(request, ATTR_Q_DESC, -1, "scratch queue of the soak", &cc, &rc);
        break;
      case kNames:
        vxAddString(request, ATTR_Q_NAME, -1, "*", &cc, &rc);
        break;
      case kInquire:
        vxAddString(request, ATTR_Q_NAME, -1, scratch, &cc, &rc);
        break;
      case kStatus:
        vxAddString(request, ATTR_Q_NAME, -1, "SOAK.*", &cc, &rc);
        break;
      case kDelete:
        vxAddString(request, ATTR_Q_NAME, -1, scratch, &cc, &rc);
        break;
      case kSteps:
        break;
    }
    vxExecute(hconn, kStepCommands[step], BAG_NONE, request, response, HOBJ_NONE, HOBJ_NONE, &cc,
              &rc);
    counts->calls[step]++;
    int32_t replies = 0, countCc = 0, countRc = 0;
    vxCountItems(response, SEL_NESTED_REPLY_BAG, &replies, &countCc, &countRc);
    counts->replies[step] += replies;
    const char *why = nullptr;
    if (cc != CC_OK)
      why = "not answered as done";
    else if (countCc != CC_OK || replies < 1)
      why = "no reply";
    else if ((step == kInquire || step == kNames) && replies != 1)
      why = "one reply expected";
    if (why != nullptr) {
      counts->failures[step]++;
      reportFailure(thread, call, step, cc, rc, replies, why);
    }
  }
  vxDeleteBag(&request, &cc, &rc);
  vxDeleteBag(&response, &cc, &rc);
  VXDISC(&hconn, &cc, &rc);
}

int execute(const char *csv, double seconds, int threads, long callsPerRound) {
  Counts counts;
  int64_t blocksBefore = 0, bytesBefore = 0, blocksAfter = 0, bytesAfter = 0;
  const Clock::time_point start = Clock::now();
  {
    Sampler sampler(csv);
    liveBlocks(&blocksBefore, &bytesBefore);
    std::vector<std::thread> workers;
    for (int t = 0; t < threads; ++t) workers.emplace_back(executeThread, t, seconds, &counts);
    for (std::thread &w : workers) w.join();
    liveBlocks(&blocksAfter, &bytesAfter);
  }
  const double elapsed = secondsSince(start);
  long calls = 0, replies = 0, failures = 0;
  for (int s = 0; s < kSteps; ++s) {
    calls += counts.calls[s];
    replies += counts.replies[s];
    failures += counts.failures[s];
    std::printf("execute %-15s calls %8ld replies %9ld failures %ld\n", kStepNames[s],
                counts.calls[s].load(), counts.replies[s].load(), counts.failures[s].load());
  }
  const bool leaked = blocksAfter != blocksBefore;
  std::printf(
      "RESULT execute threads %d calls %ld (%.0f/s) replies %ld failures %ld, rounds of %ld calls "
      "per thread %.2f; svc blocks live before %lld after %lld%s\n",
      threads, calls, static_cast<double>(calls) / elapsed, replies, failures, callsPerRound,
      static_cast<double>(calls) / threads / static_cast<double>(callsPerRound),
      static_cast<long long>(blocksBefore), static_cast<long long>(blocksAfter),
      leaked ? " (LEFT BLOCKS)" : "");
  return failures == 0 && calls > 0 && !leaked ? 0 : 1;
}

// ---------------------------------------------------------------------------
// messages

std::string messageQueue(int index) { return kMessageQueuePrefix + std::to_string(index); }

// A message's id: the worker in the high 16 bits, its sequence below.
uint64_t idOf(int worker, uint64_t sequence) {
  return (static_cast<uint64_t>(worker) << 48) | sequence;
}
int32_t persistenceOf(uint64_t sequence) {
  return sequence % 2 == 0 ? PERSISTENCE_PERSISTENT : PERSISTENCE_NOT_PERSISTENT;
}

// The queue manager's calls of a worker, each failure fatal: the run then
// fails, with the call named.
class Door {
 public:
  Door() {
    char name[QM_NAME_LENGTH + 1] = {};
    std::memcpy(name, kQm, sizeof kQm);
    int32_t cc = 0, rc = 0;
    VXCONN(name, &hconn_, &cc, &rc);
    check(cc, rc, "connect");
  }
  ~Door() {
    int32_t cc = 0, rc = 0;
    VXDISC(&hconn_, &cc, &rc);
  }
  Door(const Door &) = delete;
  Door &operator=(const Door &) = delete;

  int32_t open(const std::string &queue, int32_t options) {
    vxOBJDESC od = OD_DEFAULT;
    blankName(od.objectName, queue);
    int32_t hobj = 0, cc = 0, rc = 0;
    VXOPEN(hconn_, &od, options, &hobj, &cc, &rc);
    check(cc, rc, "open");
    return hobj;
  }

  void put(int32_t hobj, const char tag[4], uint64_t id, int32_t persistence) {
    vxMSGDESC md = MD_DEFAULT;
    md.persistence = persistence;
    std::memcpy(md.msgId, tag, 4);
    std::memcpy(md.msgId + 4, &id, sizeof id);
    char data[kMessageLength] = {};
    std::memcpy(data, &id, sizeof id);
    std::memcpy(data + sizeof id, &persistence, sizeof persistence);
    vxPUTOPTS pmo = PMO_DEFAULT;
    pmo.options = PUT_NO_SYNCPOINT;
    int32_t cc = 0, rc = 0;
    VXPUT(hconn_, hobj, &md, &pmo, kMessageLength, data, &cc, &rc);
    check(cc, rc, "put");
  }

  // A message, or false when none came within `wait` ms.
  bool get(int32_t hobj, int32_t wait, vxMSGDESC *md, char *data) {
    *md = MD_DEFAULT;
    vxGETOPTS gmo = GMO_DEFAULT;
    gmo.options = GET_NO_SYNCPOINT | (wait != 0 ? GET_WAIT : 0);
    gmo.waitInterval = wait;
    int32_t length = 0, cc = 0, rc = 0;
    VXGET(hconn_, hobj, md, &gmo, kMessageLength, data, &length, &cc, &rc);
    if (cc == CC_FAILED && rc == RC_NO_MSG_AVAILABLE) return false;
    check(cc, rc, "get");
    if (length != kMessageLength) check(CC_FAILED, length, "get: the length of the message");
    return true;
  }

 private:
  static void check(int32_t cc, int32_t rc, const char *what) {
    if (cc == CC_OK) return;
    std::printf("RESULT worker %d: %s failed: cc %d rc %d\n", static_cast<int>(getpid()), what, cc,
                rc);
    std::fflush(stdout);
    std::exit(1);
  }
  int32_t hconn_ = 0;
};

// A worker: puts to queue `worker % 2` and gets from the other, so that every
// message is got by another process, two getters taking turns on each
// queue.  Once its time is up it says "put N", gets until the stop message
// that the coordinator puts after every worker's last message, writes the
// ids it got to FILE and says "got N BAD".
int worker(int index, double seconds, long perRound, const char *file) {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  const Clock::time_point start = Clock::now();
  Door door;
  const int32_t out = door.open(messageQueue(index % 2), OPEN_OUTPUT);
  const int32_t in = door.open(messageQueue((index + 1) % 2), OPEN_INPUT_SHARED);
  std::vector<uint64_t> got;
  long bad = 0;
  vxMSGDESC md;
  char data[kMessageLength];
  // A message got is checked whole: its id in its message id and its data,
  // its persistence as put.
  const auto take = [&](const vxMSGDESC &m) {
    if (std::memcmp(m.msgId, kStopTag, 4) == 0) return false;
    uint64_t id = 0, dataId = 0;
    int32_t persistence = -1;
    std::memcpy(&id, m.msgId + 4, sizeof id);
    std::memcpy(&dataId, data, sizeof dataId);
    std::memcpy(&persistence, data + sizeof dataId, sizeof persistence);
    const uint64_t sequence = id & ((uint64_t{1} << 48) - 1);
    if (std::memcmp(m.msgId, kIdTag, 4) != 0 || id != dataId ||
        persistence != persistenceOf(sequence) || m.persistence != persistence) {
      if (++bad <= 10)
        std::fprintf(stderr,
                     "soak worker %d: a message not as put: id %llx data %llx persistence %d/%d\n",
                     index, static_cast<unsigned long long>(id),
                     static_cast<unsigned long long>(dataId), persistence, m.persistence);
    }
    got.push_back(id);
    return true;
  };
  uint64_t sequence = 0;
  while (secondsSince(start) < seconds) {
    for (long i = 0; i < perRound && secondsSince(start) < seconds; ++i, ++sequence) {
      door.put(out, kIdTag, idOf(index, sequence), persistenceOf(sequence));
      if (door.get(in, 0, &md, data)) take(md);
    }
  }
  std::printf("put %llu\n", static_cast<unsigned long long>(sequence));
  std::fflush(stdout);
  for (;;) {
    if (!door.get(in, kDrainWaitMs, &md, data)) {
      std::printf("RESULT worker %d: no stop message within %d ms\n", index, kDrainWaitMs);
      return 1;
    }
    if (!take(md)) break;
  }
  FILE *f = std::fopen(file, "wb");
  if (f == nullptr || std::fwrite(got.data(), sizeof(uint64_t), got.size(), f) != got.size() ||
      std::fclose(f) != 0) {
    std::printf("RESULT worker %d: cannot write %s\n", index, file);
    return 1;
  }
  std::printf("got %zu %ld\n", got.size(), bad);
  std::fflush(stdout);
  return 0;
}

using bench::Child;

Child spawn(std::vector<std::string> arguments) {
  return bench::spawnSelf("soak", std::move(arguments));
}

int messages(double seconds, int processes, long perRound, const std::string &dir) {
  for (int q = 0; q < 2; ++q) {
    vxqm::QueueChanges changes;
    changes.maxDepth = vxqm::kLargestMaxDepth;
    const int32_t reason = vxqm::admin::createQueue(kQm, messageQueue(q), changes);
    if (reason != 0) {
      std::printf("RESULT messages: cannot create %s: reason %d\n", messageQueue(q).c_str(),
                  reason);
      return 1;
    }
  }
  std::vector<Child> children;
  std::vector<std::string> files;
  for (int w = 0; w < processes; ++w) {
    files.push_back(dir + "/got." + std::to_string(w));
    children.push_back(spawn({"worker", std::to_string(w), std::to_string(seconds),
                              std::to_string(perRound), files.back()}));
  }
  bool failed = false;
  std::vector<uint64_t> puts(static_cast<size_t>(processes), 0);
  for (int w = 0; w < processes; ++w) {
    const std::string line = children[w].line();
    unsigned long long count = 0;
    if (std::sscanf(line.c_str(), "put %llu", &count) != 1) {
      std::printf("worker %d: %s\n", w, line.empty() ? "ended" : line.c_str());
      failed = true;
    }
    puts[w] = count;
  }
  // The stop messages, one per getter, after every message of the run.
  {
    Door door;
    for (int w = 0; w < processes; ++w)
      door.put(door.open(messageQueue(w % 2), OPEN_OUTPUT), kStopTag, 0,
               PERSISTENCE_NOT_PERSISTENT);
  }
  long bad = 0;
  for (int w = 0; w < processes; ++w) {
    const std::string line = children[w].line();
    size_t count = 0;
    long badOfWorker = 0;
    if (std::sscanf(line.c_str(), "got %zu %ld", &count, &badOfWorker) != 2) {
      std::printf("worker %d: %s\n", w, line.empty() ? "ended" : line.c_str());
      failed = true;
    }
    bad += badOfWorker;
    if (!children[w].finish()) failed = true;
  }
  // What is left on the queues was never got.
  long left = 0;
  {
    Door door;
    vxMSGDESC md;
    char data[kMessageLength];
    for (int q = 0; q < 2; ++q) {
      const int32_t hobj = door.open(messageQueue(q), OPEN_INPUT_SHARED);
      while (door.get(hobj, 0, &md, data)) ++left;
    }
  }
  // Each id put must be got once, by one of the workers.
  std::vector<std::vector<uint8_t>> seen(static_cast<size_t>(processes));
  for (int w = 0; w < processes; ++w) seen[w].assign(puts[w], 0);
  long got = 0, duplicated = 0, unknown = 0;
  for (const std::string &file : files) {
    FILE *f = std::fopen(file.c_str(), "rb");
    if (f == nullptr) continue;
    uint64_t id = 0;
    while (std::fread(&id, sizeof id, 1, f) == 1) {
      ++got;
      const uint64_t w = id >> 48, sequence = id & ((uint64_t{1} << 48) - 1);
      if (w >= static_cast<uint64_t>(processes) || sequence >= puts[w]) {
        ++unknown;
      } else if (seen[w][sequence]++ != 0) {
        ++duplicated;
      }
    }
    std::fclose(f);
  }
  long lost = 0, put = 0;
  for (int w = 0; w < processes; ++w) {
    put += static_cast<long>(puts[w]);
    for (uint8_t s : seen[w]) lost += s == 0 ? 1 : 0;
  }
  const bool accounted = !failed && put == got && lost == 0 && duplicated == 0 && unknown == 0 &&
                         left == 0 && bad == 0 && put > 0;
  std::printf(
      "RESULT messages processes %d put %ld (%.0f/s, rounds of %ld per process %.2f) got %ld lost "
      "%ld duplicated %ld unknown %ld left %ld not-as-put %ld%s\n",
      processes, put, static_cast<double>(put) / seconds, perRound,
      static_cast<double>(put) / static_cast<double>(processes) / static_cast<double>(perRound),
      got, lost, duplicated, unknown, left, bad, failed ? " (a worker failed)" : "");
  return accounted ? 0 : 1;
}

int usage() {
  std::fprintf(stderr,
               "usage: soak serve CSV\n"
               "       soak execute CSV SECONDS THREADS CALLS\n"
               "       soak messages SECONDS PROCESSES MESSAGES DIR\n");
  return 2;
}

}  // namespace

int main(int argc, char **argv) {
  if (argc < 2) return usage();
  const std::string role = argv[1];
  if (role == "serve" && argc == 3) return serve(argv[2]);
  if (role == "execute" && argc == 6)
    return execute(argv[2], std::atof(argv[3]), std::atoi(argv[4]), std::atol(argv[5]));
  if (role == "messages" && argc == 6)
    return messages(std::atof(argv[2]), std::atoi(argv[3]), std::atol(argv[4]), argv[5]);
  if (role == "worker" && argc == 6)
    return worker(std::atoi(argv[2]), std::atof(argv[3]), std::atol(argv[4]), argv[5]);
  return usage();
}
