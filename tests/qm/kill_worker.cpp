// The worker of the crash harness (qm_kills): over the data directory of
// VXQM_DATA, it puts, gets, commits and backs out messages on the queues of
// kill_journal.h, for ever, until the harness kills it, and journals every
// call on standard output as kill_journal.h describes.
//
//   kill_worker QM RUN SEED
//   kill_worker QM look         only connects and inquires the open counts,
//                               which gives back what a dead worker held
//
// At its start it browses the queues to learn which messages are there: the
// harness checked them since the last worker died. It then only gets
// messages it knows, so that the checker can name the message of every get.
// Exit status: 2 bad arguments, 3 a call failed or the queues did not hold
// what the worker expected (an "X" line says which).
#include <unistd.h>

#include <algorithm>
#include <cstdarg>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "kill_journal.h"
#include "qm.h"

namespace {

using killjournal::kQueueCount;
using killjournal::kQueues;

int32_t hconn = -1;
int32_t handles[kQueueCount];
std::mt19937_64 generator;
std::string run;
long sequence = 0;
long units = 0;
// The ids of the messages on each queue, as far as this worker knows; a
// message got in the open unit is not among them.
std::vector<std::string> known[kQueueCount];

// One line of the journal, in one write.
__attribute__((format(printf, 1, 2))) void journal(const char *format, ...) {
  char line[256];
  va_list arguments;
  va_start(arguments, format);
  int length = std::vsnprintf(line, sizeof line - 1, format, arguments);
  va_end(arguments);
  length = std::min(length, static_cast<int>(sizeof line) - 2);
  line[length] = '\n';
  const char *next = line;
  size_t left = static_cast<size_t>(length) + 1;
  while (left > 0) {
    const ssize_t written = write(1, next, left);
    if (written <= 0) std::_Exit(3);  // the harness is gone
    next += written;
    left -= static_cast<size_t>(written);
  }
}

[[noreturn]] void stop(const std::string &what) {
  journal("X %s", what.c_str());
  std::_Exit(3);
}

[[noreturn]] void failed(const char *call, int32_t reason) {
  stop(std::string(call) + " failed with reason " + std::to_string(reason));
}

size_t below(size_t limit) { return static_cast<size_t>(generator() % limit); }

void field(char *target, size_t length, const std::string &value) {
  std::memset(target, 0, length);
  std::memcpy(target, value.data(), std::min(length, value.size()));
}

int32_t open(const std::string &queue, int32_t options, std::string *opened = nullptr) {
  vxOBJDESC od = OD_DEFAULT;
  field(od.objectName, sizeof od.objectName, queue);
  int32_t hobj = 0;
  int32_t cc = 0;
  int32_t rc = 0;
  qmOPEN(hconn, &od, options, &hobj, &cc, &rc);
  if (cc != CC_OK) failed("qmOPEN", rc);
  if (opened != nullptr)
    opened->assign(od.objectName, strnlen(od.objectName, sizeof od.objectName));
  return hobj;
}

void put(int32_t hobj, const std::string &id, const std::string &unit, int32_t persistence,
         int32_t options) {
  vxMSGDESC md = MD_DEFAULT;
  md.persistence = persistence;
  field(md.msgId, sizeof md.msgId, id);
  vxPUTOPTS pmo = PMO_DEFAULT;
  pmo.options = options;
  std::string body = id + " " + unit;
  int32_t cc = 0;
  int32_t rc = 0;
  qmPUT(hconn, hobj, &md, &pmo, static_cast<int32_t>(body.size()), body.data(), 0, &cc, &rc);
  if (cc != CC_OK) failed("qmPUT", rc);
}

// Gets (or browses) a message: the one of message id `id`, or when `id` is
// empty the first there. Its id in *got; false when there was none.
bool get(int32_t hobj, const std::string &id, int32_t options, std::string *got) {
  vxMSGDESC md = MD_DEFAULT;
  if (!id.empty()) field(md.msgId, sizeof md.msgId, id);
  vxGETOPTS gmo = GMO_DEFAULT;
  gmo.options = options;
  char buffer[256];
  int32_t length = 0;
  int32_t cc = 0;
  int32_t rc = 0;
  qmGET(hconn, hobj, &md, &gmo, sizeof buffer, buffer, &length, 0, &cc, &rc);
  if (cc == CC_FAILED && rc == RC_NO_MSG_AVAILABLE) return false;
  if (cc != CC_OK) failed("qmGET", rc);
  const std::string body(buffer, static_cast<size_t>(std::min<int32_t>(length, sizeof buffer)));
  *got = body.substr(0, body.find(' '));
  if (got->empty() || std::string(md.msgId, strnlen(md.msgId, sizeof md.msgId)) != *got) {
    stop("a message whose body and message id differ: " + body);
  }
  if (!id.empty() && *got != id) stop("asked for " + id + ", got " + *got);
  return true;
}

std::string newId() { return run + "." + std::to_string(++sequence); }

// A queue of the kind (persistence), chosen at random.
int queueOf(int32_t persistence) {
  const int first = persistence == PERSISTENCE_PERSISTENT ? 0 : 2;
  return first + static_cast<int>(below(2));
}

// A queue of the kind that holds messages this worker knows, or -1.
int queueWithMessages(int32_t persistence) {
  const int first = queueOf(persistence);
  const int other = first ^ 1;
  if (!known[first].empty()) return first;
  return known[other].empty() ? -1 : other;
}

// Takes `id` out of what the worker knows is on queue q.
void forget(int q, const std::string &id) {
  auto &ids = known[q];
  const auto found = std::find(ids.begin(), ids.end(), id);
  if (found == ids.end()) stop("got " + id + " from " + kQueues[q].name + ", which was not there");
  ids.erase(found);
}

void putOutsideAUnit() {
  const int q =
      below(10) < 7 ? queueOf(PERSISTENCE_PERSISTENT) : queueOf(PERSISTENCE_NOT_PERSISTENT);
  const std::string id = newId();
  journal("p %s %s", id.c_str(), kQueues[q].name);
  put(handles[q], id, "-", kQueues[q].persistence, PUT_NO_SYNCPOINT);
  journal("P %s", id.c_str());
  known[q].push_back(id);
}

void getOutsideAUnit() {
  const int q =
      queueWithMessages(below(10) < 7 ? PERSISTENCE_PERSISTENT : PERSISTENCE_NOT_PERSISTENT);
  if (q < 0) return putOutsideAUnit();
  const std::string id = known[q][below(known[q].size())];
  journal("g %s %s", id.c_str(), kQueues[q].name);
  std::string got;
  if (!get(handles[q], id, GET_NO_SYNCPOINT, &got)) stop(id + " is not on " + kQueues[q].name);
  journal("G %s", id.c_str());
  forget(q, id);
}

// A unit of one to six puts and gets, all of one kind, committed or backed
// out. Half its gets take the first message there, half a chosen one.
void unitOfWork() {
  const int32_t persistence = below(10) < 8 ? PERSISTENCE_PERSISTENT : PERSISTENCE_NOT_PERSISTENT;
  const std::string unit = run + "u" + std::to_string(++units);
  struct Member {
    int q;
    std::string id;
  };
  std::vector<Member> puts;
  std::vector<Member> gets;
  const size_t members = 1 + below(6);
  for (size_t i = 0; i < members; ++i) {
    const int q = below(2) == 0 ? queueWithMessages(persistence) : -1;
    if (q >= 0) {
      const std::string wanted = below(2) == 0 ? known[q][below(known[q].size())] : "";
      std::string got;
      if (!get(handles[q], wanted, GET_SYNCPOINT, &got))
        stop(std::string(kQueues[q].name) + " is empty");
      journal("U %s G %s %s", unit.c_str(), got.c_str(), kQueues[q].name);
      forget(q, got);
      gets.push_back({q, got});
    } else {
      const int to = queueOf(persistence);
      const std::string id = newId();
      put(handles[to], id, unit, persistence, PUT_SYNCPOINT);
      journal("U %s P %s %s", unit.c_str(), id.c_str(), kQueues[to].name);
      puts.push_back({to, id});
    }
  }
  int32_t cc = 0;
  int32_t rc = 0;
  if (below(5) != 0) {
    journal("c %s", unit.c_str());
    qmCMIT(hconn, &cc, &rc);
    if (cc != CC_OK) failed("qmCMIT", rc);
    journal("C %s", unit.c_str());
    for (const Member &m : puts) known[m.q].push_back(m.id);
  } else {
    journal("b %s", unit.c_str());
    qmBACK(hconn, &cc, &rc);
    if (cc != CC_OK) failed("qmBACK", rc);
    journal("B %s", unit.c_str());
    for (const Member &m : gets) known[m.q].push_back(m.id);
  }
}

// A non-persistent message to the worker's own temporary queue and back:
// the queue and what is on it end with the worker.
void throughTheTemporaryQueue(int32_t temporary) {
  put(temporary, newId(), "-", PERSISTENCE_NOT_PERSISTENT, PUT_NO_SYNCPOINT);
  if (below(2) == 0) {
    std::string got;
    if (!get(temporary, "", GET_NO_SYNCPOINT, &got)) stop("the temporary queue is empty");
  }
}

// Connects, which gives back what the processes that died held, inquires
// the open counts of the queues, which looks again, and ends.
int look(char *qmName) {
  int32_t cc = 0;
  int32_t rc = 0;
  qmCONN(qmName, &hconn, &cc, &rc, 0);
  if (cc != CC_OK) failed("qmCONN", rc);
  for (const auto &queue : kQueues) {
    int32_t hobj = open(queue.name, OPEN_INQUIRE);
    int32_t selector = ATTR_OPEN_INPUT_COUNT;
    int32_t count = 0;
    qmINQ(hconn, hobj, 1, &selector, 1, &count, 0, nullptr, &cc, &rc);
    if (cc != CC_OK) failed("qmINQ", rc);
    qmCLOSE(hconn, &hobj, CLOSE_NONE, &cc, &rc);
  }
  qmDISC(&hconn, 0, &cc, &rc);
  return cc == CC_OK ? 0 : 3;
}

}  // namespace

int main(int argc, char **argv) {
  char qmName[QM_NAME_LENGTH];
  if (argc < 2) return 2;
  field(qmName, sizeof qmName, argv[1]);
  if (argc == 3 && std::strcmp(argv[2], "look") == 0) return look(qmName);
  if (argc != 4) return 2;
  run = argv[2];
  generator.seed(std::strtoull(argv[3], nullptr, 10));
  int32_t cc = 0;
  int32_t rc = 0;
  qmCONN(qmName, &hconn, &cc, &rc, 0);
  if (cc != CC_OK) failed("qmCONN", rc);
  std::string temporaryName;
  const int32_t temporary =
      open("SYSTEM.DEFAULT.MODEL.QUEUE", OPEN_INPUT_EXCLUSIVE | OPEN_OUTPUT, &temporaryName);
  journal("T %s", temporaryName.c_str());
  for (int q = 0; q < kQueueCount; ++q) {
    handles[q] = open(kQueues[q].name, OPEN_INPUT_SHARED | OPEN_OUTPUT | OPEN_BROWSE);
    std::string id;
    for (int32_t options = GET_BROWSE_FIRST; get(handles[q], "", options, &id);
         options = GET_BROWSE_NEXT) {
      known[q].push_back(id);
    }
  }
  journal("R %s", run.c_str());
  for (;;) {
    size_t depth = 0;
    for (const auto &ids : known) depth += ids.size();
    const size_t choice = below(100);
    if (choice < 2) {
      throughTheTemporaryQueue(temporary);
    } else if (depth > 400 || (depth > 100 && choice < 30)) {
      getOutsideAUnit();
    } else if (choice < 55) {
      putOutsideAUnit();
    } else {
      unitOfWork();
    }
  }
}
