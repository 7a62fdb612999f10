// Round trip of vxExecute against the command server: a ping, and an inquire
// queue matching 1, 100 and 1000 queues, beside the limit: a raw VXPUT and
// VXGET of the same request and reply bytes between the same two threads on
// the same queue manager, with queues that stay open (an echo thread answers
// each request with as many replies), and the cost of each step of a ping
// alone.  Run by hand (see README).
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <limits>
#include <new>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "command_server.h"
#include "qm_admin.h"
#include "svc.h"
#include "vxai.h"
#include "vxqi.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr char kQm[] = "QM1";
constexpr char kRawRequestQueue[] = "BENCH.RAW.REQUEST";
constexpr char kRawReplyQueue[] = "BENCH.RAW.REPLY";
constexpr int32_t kBenchComponent = 70;  // accounting of this program's buffers
constexpr double kTargetSeconds = 0.3;   // length of one timed run
constexpr int kRuns = 7;                 // timed runs per measurement; the best one counts

// Seconds taken by `repetitions` calls of `operation`.
template <typename Operation>
double secondsFor(long repetitions, Operation &operation) {
  auto start = Clock::now();
  for (long i = 0; i < repetitions; ++i) operation();
  return std::chrono::duration<double>(Clock::now() - start).count();
}

// Repetitions of `operation` that take about kTargetSeconds (found by
// doubling until a run lasts 50 ms).
template <typename Operation>
long repetitionsFor(Operation &operation) {
  long repetitions = 1;
  for (;;) {
    double seconds = secondsFor(repetitions, operation);
    if (seconds >= 0.05)
      return std::max(repetitions, static_cast<long>(repetitions * kTargetSeconds / seconds));
    repetitions *= 2;
  }
}

// Microseconds per call of each of two operations: kRuns runs of about
// kTargetSeconds each, taken in turns so that both see the same load of the
// machine; the best run of each counts.
template <typename First, typename Second>
std::pair<double, double> bestMicros(First first, Second second) {
  const long firstRepetitions = repetitionsFor(first);
  const long secondRepetitions = repetitionsFor(second);
  double bestFirst = std::numeric_limits<double>::infinity(), bestSecond = bestFirst;
  for (int run = 0; run < kRuns; ++run) {
    bestFirst = std::min(bestFirst, secondsFor(firstRepetitions, first) * 1e6 /
                                        static_cast<double>(firstRepetitions));
    bestSecond = std::min(bestSecond, secondsFor(secondRepetitions, second) * 1e6 /
                                          static_cast<double>(secondRepetitions));
  }
  return {bestFirst, bestSecond};
}

// Microseconds per call of one operation: the best of kRuns runs.
template <typename Operation>
double bestMicros(Operation operation) {
  const long repetitions = repetitionsFor(operation);
  double best = std::numeric_limits<double>::infinity();
  for (int run = 0; run < kRuns; ++run)
    best =
        std::min(best, secondsFor(repetitions, operation) * 1e6 / static_cast<double>(repetitions));
  return best;
}

// Memory of the common services, as the library's own message buffers are:
// the queue manager's pointer checks accept it without a system call, so
// the raw pair pays no more for its buffers than vxExecute does.
template <typename T>
struct SvcAllocator {
  using value_type = T;
  SvcAllocator() = default;
  template <typename U>
  SvcAllocator(const SvcAllocator<U> &) {}
  T *allocate(size_t count) {
    void *block = nullptr;
    if (svcGetMem(kBenchComponent, 1, static_cast<int32_t>(count * sizeof(T)), 0, &block) != 0)
      throw std::bad_alloc();
    return static_cast<T *>(block);
  }
  void deallocate(T *block, size_t) { svcFreeMem(kBenchComponent, block); }
  bool operator==(const SvcAllocator &) const { return true; }
};
using Bytes = std::vector<char, SvcAllocator<char>>;

void blankName(char *field, const std::string &name) {
  std::memset(field, ' ', Q_NAME_LENGTH);
  std::memcpy(field, name.data(), name.size());
}

bool ok(int32_t cc, int32_t rc, const char *what) {
  if (cc == CC_OK) return true;
  std::fprintf(stderr, "%s failed: %d %d\n", what, cc, rc);
  return false;
}

int32_t openQueue(int32_t hconn, const char *name, int32_t options) {
  vxOBJDESC od = OD_DEFAULT;
  blankName(od.objectName, name);
  int32_t hobj = HOBJ_UNUSABLE, cc, rc;
  VXOPEN(hconn, &od, options, &hobj, &cc, &rc);
  ok(cc, rc, name);
  return hobj;
}

// One vxExecute conversation, reusing its bags; returns the replies read.
struct Conversation {
  int32_t hconn;
  int32_t command;
  VXHBAG request = BAG_NONE, reply = BAG_NONE;

  Conversation(int32_t connection, int32_t code, const std::string &pattern)
      : hconn(connection), command(code) {
    int32_t cc, rc;
    vxCreateBag(BAG_OPT_ADMIN_BAG, &request, &cc, &rc);
    vxCreateBag(BAG_OPT_ADMIN_BAG, &reply, &cc, &rc);
    if (!pattern.empty()) vxAddString(request, ATTR_Q_NAME, -1, pattern.c_str(), &cc, &rc);
  }
  ~Conversation() {
    int32_t cc, rc;
    vxDeleteBag(&request, &cc, &rc);
    vxDeleteBag(&reply, &cc, &rc);
  }
  int32_t operator()() {
    int32_t cc, rc, replies = 0;
    vxExecute(hconn, command, BAG_NONE, request, reply, HOBJ_NONE, HOBJ_NONE, &cc, &rc);
    if (!ok(cc, rc, "vxExecute")) return 0;
    vxCountItems(reply, SEL_NESTED_REPLY_BAG, &replies, &cc, &rc);
    return replies;
  }
  // The bytes of the request and of its first reply, as they travel.
  Bytes requestBytes() const { return bytesOf(request, command); }
  Bytes firstReplyBytes() const {
    VXHBAG first = BAG_NONE;
    int32_t cc, rc;
    vxInquireBag(reply, SEL_NESTED_REPLY_BAG, 0, &first, &cc, &rc);
    return bytesOf(first, command);
  }
  static Bytes bytesOf(VXHBAG bag, int32_t code) {
    Bytes bytes(1 << 16);
    int32_t length = 0, cc, rc;
    vxSetInteger(bag, SEL_COMMAND, ITEM_INDEX_NONE, code, &cc, &rc);
    vxBagToBuffer(BAG_NONE, bag, static_cast<int32_t>(bytes.size()), bytes.data(), &length, &cc,
                  &rc);
    ok(cc, rc, "vxBagToBuffer");
    bytes.resize(static_cast<size_t>(length));
    return bytes;
  }
};

// The limit: an echo thread that answers each raw request with `replies`
// raw replies, correlated as the command server does, on queues that stay
// open; a request while `replies` is 0 ends it.
class RawEcho {
 public:
  RawEcho() {
    char name[QM_NAME_LENGTH + 1] = "QM1";
    int32_t cc, rc;
    VXCONN(name, &hconn_, &cc, &rc);
    requests_ = openQueue(hconn_, kRawRequestQueue, OPEN_OUTPUT);
    replies_ = openQueue(hconn_, kRawReplyQueue, OPEN_INPUT_EXCLUSIVE);
    thread_ = std::thread([this] { echo(); });
  }
  ~RawEcho() {
    replyCount_ = 0;
    roundTrip();
    thread_.join();
    int32_t cc, rc;
    VXCLOSE(hconn_, &requests_, CLOSE_NONE, &cc, &rc);
    VXCLOSE(hconn_, &replies_, CLOSE_NONE, &cc, &rc);
    VXDISC(&hconn_, &cc, &rc);
  }

  void use(Bytes request, Bytes reply, int32_t replies) {
    request_ = std::move(request);
    reply_ = std::move(reply);
    replyCount_ = replies;
    buffer_.resize(reply_.size());
  }

  // Puts the request and gets every reply.
  int32_t roundTrip() {
    vxMSGDESC md = MD_DEFAULT;
    md.msgType = MSGTYPE_REQUEST;
    std::memcpy(md.format, VX_FORMAT_ADMIN, FORMAT_LENGTH);
    blankName(md.replyToQ, kRawReplyQueue);
    vxPUTOPTS pmo = PMO_DEFAULT;
    pmo.options = PUT_NO_SYNCPOINT;
    int32_t cc, rc;
    VXPUT(hconn_, requests_, &md, &pmo, static_cast<int32_t>(request_.size()), request_.data(), &cc,
          &rc);
    char correlId[CORREL_ID_LENGTH];
    std::memcpy(correlId, md.msgId, sizeof correlId);
    const int32_t expected = replyCount_.load();
    int32_t received = 0;
    for (; received < expected; ++received) {
      vxMSGDESC reply = MD_DEFAULT;
      std::memcpy(reply.correlId, correlId, sizeof correlId);
      vxGETOPTS gmo = GMO_DEFAULT;
      gmo.options = GET_WAIT | GET_NO_SYNCPOINT;
      gmo.waitInterval = 30000;
      int32_t length = 0;
      VXGET(hconn_, replies_, &reply, &gmo, static_cast<int32_t>(buffer_.size()), buffer_.data(),
            &length, &cc, &rc);
      if (!ok(cc, rc, "raw VXGET")) break;
    }
    return received;
  }

 private:
  void echo() {
    char name[QM_NAME_LENGTH + 1] = "QM1";
    int32_t hconn = 0, cc, rc;
    VXCONN(name, &hconn, &cc, &rc);
    int32_t input = openQueue(hconn, kRawRequestQueue, OPEN_INPUT_SHARED);
    int32_t output = openQueue(hconn, kRawReplyQueue, OPEN_OUTPUT);
    Bytes buffer(1 << 16);
    for (;;) {
      vxMSGDESC md = MD_DEFAULT;
      vxGETOPTS gmo = GMO_DEFAULT;
      gmo.options = GET_WAIT | GET_NO_SYNCPOINT;
      gmo.waitInterval = WAIT_UNLIMITED;
      int32_t length = 0;
      VXGET(hconn, input, &md, &gmo, static_cast<int32_t>(buffer.size()), buffer.data(), &length,
            &cc, &rc);
      const int32_t replies = replyCount_.load();
      if (cc != CC_OK || replies == 0) break;
      for (int32_t i = 0; i < replies; ++i) {
        vxMSGDESC reply = MD_DEFAULT;
        reply.msgType = MSGTYPE_REPLY;
        std::memcpy(reply.format, VX_FORMAT_ADMIN, FORMAT_LENGTH);
        std::memcpy(reply.correlId, md.msgId, CORREL_ID_LENGTH);
        vxPUTOPTS pmo = PMO_DEFAULT;
        pmo.options = PUT_NO_SYNCPOINT;
        VXPUT(hconn, output, &reply, &pmo, static_cast<int32_t>(reply_.size()), reply_.data(), &cc,
              &rc);
      }
    }
    VXCLOSE(hconn, &input, CLOSE_NONE, &cc, &rc);
    VXCLOSE(hconn, &output, CLOSE_NONE, &cc, &rc);
    VXDISC(&hconn, &cc, &rc);
  }

  int32_t hconn_ = 0, requests_ = HOBJ_UNUSABLE, replies_ = HOBJ_UNUSABLE;
  // Set by the measuring thread between round trips; the echo thread reads
  // them after the put of a request that follows.
  Bytes request_, reply_, buffer_;
  std::atomic<int32_t> replyCount_{1};
  std::thread thread_;
};

// The steps that every vxExecute of a ping takes, each timed alone with the
// library's exported calls, beside the whole round trip.
void printPingSteps(int32_t hconn, double ping, double raw) {
  Conversation conversation(hconn, CMD_PING, "");
  conversation();
  const Bytes request = conversation.requestBytes();
  const Bytes reply = conversation.firstReplyBytes();
  int32_t cc, rc;

  auto commandQueue = [&] {
    int32_t hobj = openQueue(hconn, "SYSTEM.ADMIN.COMMAND.QUEUE", OPEN_OUTPUT | OPEN_INQUIRE);
    int32_t selector = ATTR_OPEN_INPUT_COUNT, readers = 0;
    VXINQ(hconn, hobj, 1, &selector, 1, &readers, 0, nullptr, &cc, &rc);
    VXCLOSE(hconn, &hobj, CLOSE_NONE, &cc, &rc);
  };
  auto replyQueue = [&] {
    vxOBJDESC od = OD_DEFAULT;
    blankName(od.objectName, "SYSTEM.DEFAULT.MODEL.QUEUE");
    blankName(od.dynamicQName, "VXAI.REPLY.*");
    int32_t hobj = HOBJ_UNUSABLE;
    VXOPEN(hconn, &od, OPEN_INPUT_EXCLUSIVE, &hobj, &cc, &rc);
    VXCLOSE(hconn, &hobj, CLOSE_DELETE_PURGE, &cc, &rc);
  };
  Bytes buffer(1 << 16);
  auto requestConversion = [&] {
    int32_t length = 0;
    vxSetInteger(conversation.request, SEL_COMMAND, ITEM_INDEX_NONE, CMD_PING, &cc, &rc);
    vxBagToBuffer(BAG_NONE, conversation.request, static_cast<int32_t>(buffer.size()),
                  buffer.data(), &length, &cc, &rc);
  };
  VXHBAG replyBag = BAG_NONE;
  vxCreateBag(BAG_OPT_ADMIN_BAG, &replyBag, &cc, &rc);
  auto replyConversion = [&] {
    vxBufferToBag(BAG_NONE, static_cast<int32_t>(reply.size()), const_cast<char *>(reply.data()),
                  replyBag, &cc, &rc);
  };
  auto replyBagLife = [&] {
    VXHBAG bag = BAG_NONE;
    vxCreateBag(BAG_OPT_ADMIN_BAG, &bag, &cc, &rc);
    vxDeleteBag(&bag, &cc, &rc);
  };
  auto responseBagClear = [&] { vxClearBag(conversation.reply, &cc, &rc); };

  struct Step {
    const char *label;
    double micros;
  } steps[] = {
      {"command queue: open, inquire, close", bestMicros(commandQueue)},
      {"reply queue: open from the model, close and delete", bestMicros(replyQueue)},
      {"request: bag to message", bestMicros(requestConversion)},
      {"request put and reply got (the raw pair)", raw},
      {"response bag cleared", bestMicros(responseBagClear)},
      {"reply bag created and deleted", bestMicros(replyBagLife)},
      {"reply: message to bag", bestMicros(replyConversion)},
  };
  vxDeleteBag(&replyBag, &cc, &rc);
  std::printf("\nsteps of a ping, each alone:\n");
  double sum = 0;
  for (const Step &step : steps) {
    std::printf("  %-52s %8.2f us\n", step.label, step.micros);
    sum += step.micros;
  }
  std::printf("  %-52s %8.2f us\n", "sum of the steps", sum);
  std::printf("  %-52s %8.2f us\n", "vxExecute ping", ping);
}

void createQueues(const std::string &prefix, int32_t count) {
  for (int32_t i = 0; i < count; ++i) {
    char name[Q_NAME_LENGTH + 1];
    std::snprintf(name, sizeof name, "%s.%04d", prefix.c_str(), i);
    if (vxqm::admin::createQueue(kQm, name, vxqm::QueueChanges()) != 0)
      std::fprintf(stderr, "cannot create %s\n", name);
  }
}

}  // namespace

int main() {
  vxcsSERVER *server = nullptr;
  if (vxcsStart(kQm, &server) != 0) {
    std::fprintf(stderr, "the command server does not start\n");
    return 1;
  }
  for (const char *queue : {kRawRequestQueue, kRawReplyQueue})
    vxqm::admin::createQueue(kQm, queue, vxqm::QueueChanges());
  createQueues("BENCH1", 1);
  createQueues("BENCH100", 100);
  createQueues("BENCH1000", 1000);

  char name[QM_NAME_LENGTH + 1] = "QM1";
  int32_t hconn = 0, cc, rc;
  VXCONN(name, &hconn, &cc, &rc);
  if (!ok(cc, rc, "VXCONN")) return 1;

  std::printf("%-24s %10s %12s %12s %12s %8s\n", "round trip", "replies", "us/call", "raw us/call",
              "us/reply", "ratio");
  RawEcho raw;
  double pingRatio = 0, pingMicros = 0, rawPingMicros = 0, perReply100 = 0, perReply1000 = 0;
  struct Case {
    const char *label;
    int32_t command;
    std::string pattern;
  } cases[] = {
      {"ping", CMD_PING, ""},
      {"inquire queue, 1", CMD_INQUIRE_Q, "BENCH1.*"},
      {"inquire queue, 100", CMD_INQUIRE_Q, "BENCH100.*"},
      {"inquire queue, 1000", CMD_INQUIRE_Q, "BENCH1000.*"},
  };
  for (const Case &c : cases) {
    Conversation conversation(hconn, c.command, c.pattern);
    const int32_t replies = conversation();
    raw.use(conversation.requestBytes(), conversation.firstReplyBytes(), replies);
    const auto [execute, limit] = bestMicros([&] { conversation(); }, [&] { raw.roundTrip(); });
    const double perReply = execute / replies;
    std::printf("%-24s %10d %12.1f %12.1f %12.2f %8.2f   (%.0f replies/s)\n", c.label, replies,
                execute, limit, perReply, execute / limit, replies * 1e6 / execute);
    if (c.command == CMD_PING) {
      pingRatio = execute / limit;
      pingMicros = execute;
      rawPingMicros = limit;
    }
    if (replies == 100) perReply100 = perReply;
    if (replies == 1000) perReply1000 = perReply;
  }
  std::printf("\nping: %.2fx the raw pair (target 2.0x)\n", pingRatio);
  std::printf("time per reply, 1000 against 100 replies: %.2fx (target 1.3x)\n",
              perReply1000 / perReply100);
  printPingSteps(hconn, pingMicros, rawPingMicros);

  VXDISC(&hconn, &cc, &rc);
  vxcsStop(server);
  return 0;
}
