// Benchmark of a queue manager shared by processes (VXQM_DATA), run by hand:
//   the latency of a waiting get woken by a put in another process, from
//   just before the put to the return of the get (CLOCK_MONOTONIC, the same
//   clock in every process), as a ping-pong over two queues so that every
//   round starts with the echo asleep; median, p90 and p99, non-persistent
//   and persistent, beside the same between two threads of one process;
//   the CPU time and context switches of a process whose get waits, with
//   no limit, for a few seconds: a wait that sleeps costs none;
//   messages per second of put and get across two processes (one puts, the
//   other gets at the same time), beside one process that puts then gets,
//   and two threads of one process; and one process putting while 8 other
//   processes get from the same queue.
// Usage: bench_shared [--data LOCATION] [rounds] [messages] [wait-seconds]
//   (defaults 1000, 5000, 2).  Without --data, the data directory and the
//   directory of storage in memory (VXQM_MEMORY_DIR) are made for the run,
//   under /tmp and /dev/shm, and removed at the end; with it, the queue
//   manager lives there (a directory, or a PostgreSQL server's URI) under a
//   name of the run's own.  The other processes are this program again,
//   started with a role: bench_shared --role ...
#include <stdlib.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "child.h"
#include "qm.h"
#include "qm_admin.h"
#include "vxqi_records.h"

extern char **environ;

namespace {

// The queue manager of the run: QMBENCH, or QMBENCH.<pid> with --data, so
// that runs over one server or directory never meet.
std::string qmName = "QMBENCH";
// Getters of the last throughput measure, each a process of its own.
constexpr int kGetterProcesses = 8;
constexpr int32_t kMessageLength = 256;
// Between a pong and the next ping: time for the echo to go back to sleep in
// its get, so that every round measures a get that was woken.
constexpr long kGapNs = 500000;
// The longest the driving side waits for an answer: an echo that died must
// not hang the run.
constexpr int32_t kAnswerWaitMs = 30000;

int64_t nowNs() {
  timespec t;
  clock_gettime(CLOCK_MONOTONIC, &t);
  return static_cast<int64_t>(t.tv_sec) * 1000000000 + t.tv_nsec;
}

[[noreturn]] void fatal(const char *what, int32_t reason) {
  std::fprintf(stderr, "bench_shared (pid %d): %s failed: %d\n", static_cast<int>(getpid()), what,
               reason);
  std::exit(1);
}

void checkAdmin(int32_t reason, const char *what) {
  if (reason != RC_NONE) fatal(what, reason);
}

// A connection and the handles of one test, used by one thread.
class Door {
 public:
  Door() {
    char name[QM_NAME_LENGTH] = {};
    std::memcpy(name, qmName.data(), qmName.size());
    int32_t cc = 0, rc = 0;
    qmCONN(name, &hconn_, &cc, &rc, 0);
    if (cc != CC_OK) fatal("connect", rc);
  }
  ~Door() {
    int32_t cc = 0, rc = 0;
    qmDISC(&hconn_, 0, &cc, &rc);
  }
  Door(const Door &) = delete;
  Door &operator=(const Door &) = delete;

  int32_t open(const std::string &queue, int32_t options) {
    vxOBJDESC od = OD_DEFAULT;
    std::memcpy(od.objectName, queue.data(), queue.size());
    int32_t hobj = 0, cc = 0, rc = 0;
    qmOPEN(hconn_, &od, options, &hobj, &cc, &rc);
    if (cc != CC_OK) fatal("open", rc);
    return hobj;
  }

  void put(int32_t hobj, const char *data, int32_t persistence) {
    vxMSGDESC md = MD_DEFAULT;
    md.persistence = persistence;
    vxPUTOPTS pmo = PMO_DEFAULT;
    pmo.options = PUT_NO_SYNCPOINT;
    int32_t cc = 0, rc = 0;
    qmPUT(hconn_, hobj, &md, &pmo, kMessageLength, const_cast<char *>(data), 0, &cc, &rc);
    if (cc != CC_OK) fatal("put", rc);
  }

  // Waits `wait` ms (WAIT_UNLIMITED: no limit; 0: no wait).
  void get(int32_t hobj, char *buffer, int32_t wait) {
    vxMSGDESC md = MD_DEFAULT;
    vxGETOPTS gmo = GMO_DEFAULT;
    gmo.options = GET_NO_SYNCPOINT | (wait != 0 ? GET_WAIT : 0);
    gmo.waitInterval = wait;
    int32_t length = 0, cc = 0, rc = 0;
    qmGET(hconn_, hobj, &md, &gmo, kMessageLength, buffer, &length, 0, &cc, &rc);
    if (cc != CC_OK) fatal("get", rc);
  }

 private:
  int32_t hconn_ = 0;
};

int32_t persistenceOf(const std::string &word) {
  return word == "p" ? PERSISTENCE_PERSISTENT : PERSISTENCE_NOT_PERSISTENT;
}

// What a ping carries, and what its pong answers.
struct Ping {
  int64_t putAt;  // just before the put
};
struct Pong {
  int64_t latency;  // the get's return less the ping's putAt
  int32_t early;    // 1: the get began after the put began (it may not have slept)
};

void say(const std::string &line) {
  std::printf("%s\n", line.c_str());
  std::fflush(stdout);
}

// The echo of a ping-pong: gets each ping with no limit on its wait and
// answers with the latency it saw.  In a second process it writes "ready"
// once its queues are open.
void echo(const std::string &in, const std::string &out, int rounds, int32_t persistence,
          bool announce) {
  Door door;
  const int32_t hin = door.open(in, OPEN_INPUT_SHARED);
  const int32_t hout = door.open(out, OPEN_OUTPUT);
  if (announce) say("ready");
  std::vector<char> buffer(kMessageLength);
  std::vector<char> answer(kMessageLength, 'o');
  for (int i = 0; i < rounds; ++i) {
    const int64_t began = nowNs();
    door.get(hin, buffer.data(), WAIT_UNLIMITED);
    const int64_t returned = nowNs();
    Ping ping;
    std::memcpy(&ping, buffer.data(), sizeof ping);
    const Pong pong{returned - ping.putAt, began > ping.putAt ? 1 : 0};
    std::memcpy(answer.data(), &pong, sizeof pong);
    door.put(hout, answer.data(), persistence);
  }
}

// The latencies (ns) that the echo saw, and how many of its gets began
// after the put.
struct Latencies {
  std::vector<int64_t> samples;
  std::vector<int64_t> puts;  // how long each put took, for the driving side
  int early = 0;
};

Latencies drive(const std::string &out, const std::string &in, int rounds, int32_t persistence) {
  Door door;
  const int32_t hout = door.open(out, OPEN_OUTPUT);
  const int32_t hin = door.open(in, OPEN_INPUT_SHARED);
  std::vector<char> data(kMessageLength, 'p');
  std::vector<char> buffer(kMessageLength);
  Latencies result;
  result.samples.reserve(static_cast<size_t>(rounds));
  result.puts.reserve(static_cast<size_t>(rounds));
  const timespec gap{0, kGapNs};
  for (int i = 0; i < rounds; ++i) {
    nanosleep(&gap, nullptr);
    const Ping ping{nowNs()};
    std::memcpy(data.data(), &ping, sizeof ping);
    door.put(hout, data.data(), persistence);
    result.puts.push_back(nowNs() - ping.putAt);
    door.get(hin, buffer.data(), kAnswerWaitMs);
    Pong pong;
    std::memcpy(&pong, buffer.data(), sizeof pong);
    result.samples.push_back(pong.latency);
    result.early += pong.early;
  }
  return result;
}

// A second process: this program with `--role` and the arguments, its
// standard output a pipe whose read end is returned.
using bench::Child;

// The second process of a measure, told this one's pid so that it ends with it.
Child spawn(std::vector<std::string> arguments) {
  arguments.insert(arguments.begin(), {"--role", std::to_string(getpid())});
  arguments.push_back(qmName);
  return bench::spawnSelf("bench_shared", std::move(arguments));
}

// Its resource usage once it ended; exits when it failed.
rusage finish(Child &child) {
  rusage usage{};
  if (!child.finish(&usage)) {
    std::fprintf(stderr, "bench_shared: the second process failed\n");
    std::exit(1);
  }
  return usage;
}

double cpuSeconds(const rusage &u) {
  return static_cast<double>(u.ru_utime.tv_sec + u.ru_stime.tv_sec) +
         static_cast<double>(u.ru_utime.tv_usec + u.ru_stime.tv_usec) / 1e6;
}

// The roles of the second process.  Each writes "ready" once its handles
// are open and its next call is the one measured.
//   echo IN OUT ROUNDS np|p        the echo of a ping-pong
//   wait QUEUE                     one get with no limit; then a line
//                                  "<cpu seconds> <voluntary> <involuntary>"
//                                  (context switches) of the get alone
//   getter QUEUE COUNT             gets COUNT; then "done"
// The queue manager's name follows the role's arguments.
int role(int argc, char **argv) {
  // Ends with its parent, whatever happens to it; the parent's pid names it.
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (argc < 5 || getppid() != static_cast<pid_t>(std::atol(argv[2]))) return 2;
  qmName = argv[--argc];
  const std::string what = argv[3];
  if (what == "echo" && argc == 8) {
    echo(argv[4], argv[5], std::atoi(argv[6]), persistenceOf(argv[7]), true);
    return 0;
  }
  if (what == "wait" && argc == 5) {
    Door door;
    const int32_t hobj = door.open(argv[4], OPEN_INPUT_SHARED);
    std::vector<char> buffer(kMessageLength);
    say("ready");
    rusage before{}, after{};
    getrusage(RUSAGE_SELF, &before);
    door.get(hobj, buffer.data(), WAIT_UNLIMITED);
    getrusage(RUSAGE_SELF, &after);
    char text[128];
    std::snprintf(text, sizeof text, "%.6f %ld %ld", cpuSeconds(after) - cpuSeconds(before),
                  after.ru_nvcsw - before.ru_nvcsw, after.ru_nivcsw - before.ru_nivcsw);
    say(text);
    return 0;
  }
  if (what == "getter" && argc == 6) {
    Door door;
    const int32_t hobj = door.open(argv[4], OPEN_INPUT_SHARED);
    std::vector<char> buffer(kMessageLength);
    const long count = std::atol(argv[5]);
    say("ready");
    for (long i = 0; i < count; ++i) door.get(hobj, buffer.data(), kAnswerWaitMs);
    say("done");
    return 0;
  }
  return 2;
}

void expect(Child &child, const char *line) {
  if (child.line() != line) {
    std::fprintf(stderr, "bench_shared: the second process did not say '%s'\n", line);
    std::exit(1);
  }
}

// The latency test: the echo in a second process, or (`threads`) in a
// thread of this one.
Latencies latency(const std::string &tag, int rounds, int32_t persistence, bool threads) {
  const std::string ping = "LAT." + tag + ".PING", pong = "LAT." + tag + ".PONG";
  checkAdmin(vxqm::admin::createQueue(qmName, ping, {}), "create queue");
  checkAdmin(vxqm::admin::createQueue(qmName, pong, {}), "create queue");
  const char *word = persistence == PERSISTENCE_PERSISTENT ? "p" : "np";
  if (threads) {
    std::thread other(echo, ping, pong, rounds, persistence, false);
    Latencies result = drive(ping, pong, rounds, persistence);
    other.join();
    return result;
  }
  Child child = spawn({"echo", ping, pong, std::to_string(rounds), word});
  expect(child, "ready");
  Latencies result = drive(ping, pong, rounds, persistence);
  finish(child);
  return result;
}

double percentile(std::vector<int64_t> sorted, double p) {
  std::sort(sorted.begin(), sorted.end());
  const size_t index = static_cast<size_t>(p * static_cast<double>(sorted.size() - 1) + 0.5);
  return static_cast<double>(sorted[index]) / 1000.0;
}

void printLatency(const char *what, const Latencies &l) {
  std::printf("  %-44s %8.1f %8.1f %8.1f %8.1f %8.1f %6d\n", what, percentile(l.samples, 0.5),
              percentile(l.samples, 0.9), percentile(l.samples, 0.99), percentile(l.samples, 1.0),
              percentile(l.puts, 0.5), l.early);
}

// Messages per second, each put once and got once.
double rate(long count, int64_t ns) {
  return static_cast<double>(count) * 1e9 / static_cast<double>(ns);
}

std::string makeThroughputQueue(const std::string &name, long count) {
  vxqm::QueueChanges changes;
  changes.maxDepth = static_cast<int32_t>(std::min<long>(count, vxqm::kLargestMaxDepth));
  checkAdmin(vxqm::admin::createQueue(qmName, name, changes), "create queue");
  return name;
}

struct Throughput {
  double put;   // puts per second, alone (sequential) or while the getter gets
  double both;  // messages put and got per second
};

// One process, one thread: put `count`, then get them.
Throughput sequential(const std::string &tag, long count, int32_t persistence) {
  const std::string queue = makeThroughputQueue("RATE." + tag + ".SEQ", count);
  Door door;
  const int32_t hobj = door.open(queue, OPEN_OUTPUT | OPEN_INPUT_SHARED);
  std::vector<char> data(kMessageLength, 'x');
  const int64_t start = nowNs();
  for (long i = 0; i < count; ++i) door.put(hobj, data.data(), persistence);
  const int64_t put = nowNs();
  for (long i = 0; i < count; ++i) door.get(hobj, data.data(), 0);
  const int64_t end = nowNs();
  return {rate(count, put - start), rate(count, end - start)};
}

// One thread puts `count` while another (`threads`) or another process
// gets them.
Throughput concurrent(const std::string &tag, long count, int32_t persistence, bool threads) {
  const std::string queue =
      makeThroughputQueue("RATE." + tag + (threads ? ".THREADS" : ".PROCESSES"), count);
  Door door;
  const int32_t hobj = door.open(queue, OPEN_OUTPUT);
  std::vector<char> data(kMessageLength, 'x');
  std::thread getter;
  Child child;
  if (threads) {
    getter = std::thread([&queue, count] {
      Door other;
      const int32_t hin = other.open(queue, OPEN_INPUT_SHARED);
      std::vector<char> buffer(kMessageLength);
      for (long i = 0; i < count; ++i) other.get(hin, buffer.data(), kAnswerWaitMs);
    });
  } else {
    child = spawn({"getter", queue, std::to_string(count)});
    expect(child, "ready");
  }
  const int64_t start = nowNs();
  for (long i = 0; i < count; ++i) door.put(hobj, data.data(), persistence);
  const int64_t put = nowNs();
  if (threads) {
    getter.join();
  } else {
    expect(child, "done");
  }
  const int64_t end = nowNs();
  if (!threads) finish(child);
  return {rate(count, put - start), rate(count, end - start)};
}

// One thread puts `count` while `getters` other processes get them, each
// its share; returns the messages per second from the first put to the
// last get.
double manyGetters(const std::string &tag, long count, int getters, int32_t persistence) {
  const std::string queue = makeThroughputQueue("RATE." + tag + ".GETTERS", count);
  std::vector<Child> children;
  for (int g = 0; g < getters; ++g) {
    const long share = count / getters + (g < count % getters ? 1 : 0);
    children.push_back(spawn({"getter", queue, std::to_string(share)}));
  }
  for (Child &child : children) expect(child, "ready");
  Door door;
  const int32_t hobj = door.open(queue, OPEN_OUTPUT);
  std::vector<char> data(kMessageLength, 'x');
  const int64_t start = nowNs();
  for (long i = 0; i < count; ++i) door.put(hobj, data.data(), persistence);
  for (Child &child : children) expect(child, "done");
  const int64_t end = nowNs();
  for (Child &child : children) finish(child);
  return rate(count, end - start);
}

// A process whose get waits with no limit for `seconds`: the CPU it used
// and its context switches, from its own getrusage around the get, and from
// /proc while it waits.
void waitingCost(double seconds) {
  const std::string queue = "WAIT.COST";
  checkAdmin(vxqm::admin::createQueue(qmName, queue, {}), "create queue");
  Child child = spawn({"wait", queue});
  expect(child, "ready");
  const auto procTicks = [&child] {
    // utime and stime, fields 14 and 15 of /proc/<pid>/stat, in clock ticks.
    const std::string path = "/proc/" + std::to_string(child.pid) + "/stat";
    FILE *f = std::fopen(path.c_str(), "r");
    if (f == nullptr) return -1L;
    char text[1024] = {};
    const size_t n = std::fread(text, 1, sizeof text - 1, f);
    std::fclose(f);
    text[n] = 0;
    const char *p = std::strrchr(text, ')');
    long utime = 0, stime = 0;
    if (p == nullptr || std::sscanf(p + 2, "%*c %*d %*d %*d %*d %*d %*u %*u %*u %*u %*u %ld %ld",
                                    &utime, &stime) != 2)
      return -1L;
    return utime + stime;
  };
  // A moment for the get to reach its sleep.
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  const long ticksBefore = procTicks();
  std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
  const long ticksAfter = procTicks();
  {
    Door door;
    std::vector<char> data(kMessageLength, 'w');
    door.put(door.open(queue, OPEN_OUTPUT), data.data(), PERSISTENCE_NOT_PERSISTENT);
  }
  const std::string report = child.line();
  const rusage whole = finish(child);
  double cpu = 0;
  long voluntary = 0, involuntary = 0;
  if (std::sscanf(report.c_str(), "%lf %ld %ld", &cpu, &voluntary, &involuntary) != 3) {
    std::fprintf(stderr, "bench_shared: the waiting process reported '%s'\n", report.c_str());
    std::exit(1);
  }
  std::printf("\na get that waits %.1f s in another process (no limit on its wait)\n",
              seconds + 0.05);
  std::printf("  %-52s %10.3f ms\n", "CPU time of the get (its getrusage)", cpu * 1e3);
  std::printf("  %-52s %10ld\n", "voluntary context switches during the get", voluntary);
  std::printf("  %-52s %10ld\n", "involuntary context switches during the get", involuntary);
  std::printf("  %-52s %10.0f ms\n", "CPU time while it slept (/proc, 10 ms ticks)",
              static_cast<double>(ticksAfter - ticksBefore) * 1e3 /
                  static_cast<double>(sysconf(_SC_CLK_TCK)));
  std::printf("  %-52s %10.3f ms\n", "CPU time of the whole process (wait4)",
              cpuSeconds(whole) * 1e3);
}

// The directories made for the run: removed at exit, a failed run's too.
std::vector<std::string> madeDirectories;

void removeMadeDirectories() {
  std::error_code ignored;
  for (const std::string &path : madeDirectories) std::filesystem::remove_all(path, ignored);
}

std::string makeDirectory(const char *pattern) {
  std::string path = pattern;
  if (mkdtemp(path.data()) == nullptr) fatal("mkdtemp", errno);
  if (madeDirectories.empty()) std::atexit(removeMadeDirectories);
  madeDirectories.push_back(path);
  return path;
}

}  // namespace

int main(int argc, char **argv) {
  if (argc > 1 && std::strcmp(argv[1], "--role") == 0) return role(argc, argv);
  std::string location;
  if (argc > 2 && std::strcmp(argv[1], "--data") == 0) {
    location = argv[2];
    argv += 2;
    argc -= 2;
  }
  const int rounds = argc > 1 ? std::atoi(argv[1]) : 1000;
  const long messages = argc > 2 ? std::atol(argv[2]) : 5000;
  const double waitSeconds = argc > 3 ? std::atof(argv[3]) : 2.0;
  if (argc > 4 || rounds <= 0 || messages <= 0 || waitSeconds < 0) {
    std::fprintf(stderr,
                 "usage: bench_shared [--data LOCATION] [rounds] [messages] [wait-seconds]\n");
    return 2;
  }
  // The children inherit the variables; the queue manager reads them when it
  // is made.
  if (location.empty()) {
    location = makeDirectory("/tmp/bench_shared.XXXXXX");
    const std::string memory = makeDirectory("/dev/shm/bench_shared.XXXXXX");
    setenv("VXQM_MEMORY_DIR", memory.c_str(), 1);
  } else {
    qmName += "." + std::to_string(getpid());
  }
  setenv("VXQM_DATA", location.c_str(), 1);

  std::printf("queue manager shared by processes (%s), 256-byte messages\n", location.c_str());
  std::printf("\nwoken get: from before the put to the get's return, us, %d rounds\n", rounds);
  std::printf("  %-44s %8s %8s %8s %8s %8s %6s\n", "", "median", "p90", "p99", "max", "put",
              "early");
  struct Kind {
    const char *tag;
    const char *words;
    int32_t persistence;
  };
  for (const Kind kind : {Kind{"NP", "non-persistent", PERSISTENCE_NOT_PERSISTENT},
                          Kind{"P", "persistent", PERSISTENCE_PERSISTENT}}) {
    const Latencies processes =
        latency(std::string(kind.tag) + ".PROC", rounds, kind.persistence, false);
    const Latencies threads =
        latency(std::string(kind.tag) + ".THREAD", rounds, kind.persistence, true);
    printLatency((std::string(kind.words) + ", two processes").c_str(), processes);
    printLatency((std::string(kind.words) + ", two threads of one process").c_str(), threads);
  }
  std::printf(
      "  (put: the median time the put itself took; early: rounds whose get began\n"
      "   after the put began, so may not have slept)\n");

  waitingCost(waitSeconds);

  std::printf("\nthroughput, %ld messages, messages per second\n", messages);
  std::printf("  %-52s %10s %10s\n", "", "put", "put+get");
  for (const Kind kind : {Kind{"NP", "non-persistent", PERSISTENCE_NOT_PERSISTENT},
                          Kind{"P", "persistent", PERSISTENCE_PERSISTENT}}) {
    const Throughput processes = concurrent(kind.tag, messages, kind.persistence, false);
    const Throughput threads = concurrent(kind.tag, messages, kind.persistence, true);
    const Throughput one = sequential(kind.tag, messages, kind.persistence);
    const auto row = [&kind](const char *how, const Throughput &t) {
      std::printf("  %-52s %10.0f %10.0f\n", (std::string(kind.words) + ", " + how).c_str(), t.put,
                  t.both);
    };
    row("two processes, at once", processes);
    row("two threads, at once", threads);
    row("one thread, put all then get all", one);
    const double getters = manyGetters(kind.tag, messages, kGetterProcesses, kind.persistence);
    std::printf("  %-52s %10s %10.0f\n",
                (std::string(kind.words) + ", " + std::to_string(kGetterProcesses) +
                 " getter processes, one putter")
                    .c_str(),
                "", getters);
  }
  std::printf("  (put+get: the count over the time from the first put to the last get)\n");
  return 0;
}
