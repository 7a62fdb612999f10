// Kills at every step: the crash harness of the shared queue manager.
//
//   qm_kills [KILLS [SEED]]     (or VXQM_KILLS and VXQM_KILL_SEED; 100 kills
//                                and a seed from the clock by default)
//
// Over a data directory of its own, it starts kill_worker, which puts, gets,
// commits and backs out messages for ever and journals each call (see
// kill_journal.h), and kills it with SIGKILL after a random delay: from its
// start (0 to 40 ms, so that some kills land in its connect) or from its
// first operation (0 to 30 ms, to the microsecond, so that kills land in
// the middle of the store's transactions). After each kill this process,
// through the entries, checks that:
//
//   - every put that returned is there, or was got by a get that returned
//     (or by the get the worker was killed in);
//   - no message is there twice, none is there that was got, none was got
//     twice, and nothing is there that was never put;
//   - no unit of work is half applied: a committed unit's puts are there and
//     its gets gone; a unit backed out, or interrupted before its commit,
//     left nothing of its puts and gave back its gets (with a backout count
//     one higher); a unit killed in its commit is whole one way or the other;
//   - the dead worker gave back everything: open counts are 0, its temporary
//     dynamic queue is gone, and each queue's depth is what it holds;
//   - its non-persistent messages that were put are there: the companion
//     outlives the process.
//
// What it found is then the state the next worker starts from. At the end
// it gets every message and compares them with what it expects. It prints
// the figures, and for a failure the kill that showed it: the seed, the
// kill's number and delay, and the journal's last lines (the kill position).
// Exit status 0 when nothing was lost, duplicated or half applied.
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <deque>
#include <filesystem>
#include <map>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "kill_journal.h"
#include "qm.h"
#include "qm_admin.h"
#include "qm_test.h"

extern char **environ;

namespace {

using killjournal::kQueueCount;
using killjournal::kQueues;
using Clock = std::chrono::steady_clock;

constexpr const char *kQm = "KQM";

// What the checker expects of a message that was put.
enum class Fate {
  kThere,
  kMaybePut,  // the worker was killed in its put
  kMaybeGot,  // the worker was killed in its get
};

struct Message {
  int queue = 0;
  Fate fate = Fate::kThere;
  int32_t backouts = 0;  // its backout count is at least this
};

// A unit of work of the worker's current life.
struct Unit {
  std::string name;
  std::vector<std::pair<std::string, int>> puts;  // id, queue
  std::vector<std::string> gets;
  bool commitAsked = false;
};

struct Figures {
  long kills = 0;
  long killsFromStart = 0;
  long acknowledged = 0;  // every call that returned: puts, gets, commits, backouts
  long puts = 0;
  long gets = 0;
  long unitPuts = 0;
  long unitGets = 0;
  long commits = 0;
  long backouts = 0;
  long messagesChecked = 0;  // a message's fate checked once after one kill
  long unitsChecked = 0;
  long unitsInterrupted = 0;  // killed before their commit
  long unitsInDoubt = 0;      // killed in their commit
  long unitsInDoubtCommitted = 0;
  long putsInDoubt = 0;
  long putsInDoubtDone = 0;
  long getsInDoubt = 0;
  long getsInDoubtDone = 0;
  long looks = 0;        // processes that looked after a kill and gave back what it left
  long looksKilled = 0;  // ... killed before they were done
  long drained = 0;
  long losses = 0;
  long duplicates = 0;
  long halfUnits = 0;
  long others = 0;  // a handle, temporary queue or depth not given back; a wrong backout count
};

// What the worker was doing when it was killed, for the report of a failure.
struct KillPosition {
  long kill = 0;
  bool fromStart = false;
  long delayUs = 0;
  long lookDelayUs = -1;  // the process that looked after it, killed then (-1: none)
  std::deque<std::string> lastLines;
};

class Harness {
 public:
  Harness(unsigned long long seed, std::string worker) : seed_(seed), worker_(std::move(worker)) {
    random_.seed(seed);
  }

  // Runs `kills` kills; false when a check failed (reported on stderr).
  bool run(long kills);
  const Figures &figures() const { return figures_; }

 private:
  bool killOnce();
  bool startAndKill(const std::vector<std::string> &arguments, bool afterReady, long delayUs,
                    std::vector<std::string> *lines, int *status);
  void readJournal(const std::vector<std::string> &lines);
  bool check();
  bool drainAll();
  void failure(long *counter, const std::string &what);

  unsigned long long seed_;
  std::string worker_;
  std::mt19937_64 random_;
  Figures figures_;
  KillPosition position_;
  std::map<std::string, Message> messages_;  // put and not got: on a queue
  std::set<std::string> gone_;               // got, or never put (killed before)
  std::set<std::string> vanished_;           // puts of units that did not commit
  std::vector<Unit> inDoubt_;                // killed in their commit (at most one)
  std::string temporary_;                    // the dead worker's temporary queue
  bool failed_ = false;
};

long queueIndex(const std::string &name) {
  for (int q = 0; q < kQueueCount; ++q) {
    if (name == kQueues[q].name) return q;
  }
  return -1;
}

void field(char *target, size_t length, const std::string &value) {
  std::memset(target, 0, length);
  std::memcpy(target, value.data(), std::min(length, value.size()));
}

void Harness::failure(long *counter, const std::string &what) {
  ++*counter;
  if (!failed_) {
    std::fprintf(stderr,
                 "qm_kills: failure after kill %ld (seed %llu), killed %s %ld us after %s\n",
                 position_.kill, seed_, position_.fromStart ? "from its start" : "at its work",
                 position_.delayUs, position_.fromStart ? "its start" : "its first operation");
    if (position_.lookDelayUs >= 0) {
      std::fprintf(stderr,
                   "qm_kills: then a process that looked was killed %ld us after its start\n",
                   position_.lookDelayUs);
    }
    std::fprintf(stderr, "qm_kills: the journal's last lines (the kill position):\n");
    for (const std::string &line : position_.lastLines)
      std::fprintf(stderr, "    %s\n", line.c_str());
  }
  failed_ = true;
  std::fprintf(stderr, "qm_kills: %s\n", what.c_str());
}

// Reads what the worker journaled, until the deadline.
void readUntil(int fd, Clock::time_point deadline, std::string *text, bool *ended,
               bool untilReady) {
  char buffer[65536];
  for (;;) {
    if (untilReady && text->find("\nR ") != std::string::npos) return;
    const auto left = std::chrono::duration_cast<std::chrono::nanoseconds>(deadline - Clock::now());
    if (left.count() <= 0) return;
    const timespec timeout{static_cast<time_t>(left.count() / 1000000000),
                           static_cast<long>(left.count() % 1000000000)};
    pollfd p{fd, POLLIN, 0};
    if (ppoll(&p, 1, &timeout, nullptr) <= 0) continue;
    const ssize_t got = read(fd, buffer, sizeof buffer);
    if (got <= 0) {
      *ended = true;
      return;
    }
    text->append(buffer, static_cast<size_t>(got));
  }
}

// Starts the worker with `arguments` and kills it `delayUs` after its start,
// or after its "R" line when `afterReady`. Its journal's whole lines in
// *lines (a line is written in one write: a part of one would be the
// harness's error, not the worker's); false when it could not start.
bool Harness::startAndKill(const std::vector<std::string> &arguments, bool afterReady, long delayUs,
                           std::vector<std::string> *lines, int *status) {
  int fds[2];
  if (pipe2(fds, O_CLOEXEC) != 0) {
    std::perror("qm_kills: pipe");
    return false;
  }
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, fds[1], 1);
  std::vector<std::string> all{worker_, kQm};
  all.insert(all.end(), arguments.begin(), arguments.end());
  std::vector<char *> argv;
  for (std::string &argument : all) argv.push_back(argument.data());
  argv.push_back(nullptr);
  pid_t pid = -1;
  const int spawned = posix_spawn(&pid, worker_.c_str(), &actions, nullptr, argv.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  close(fds[1]);
  if (spawned != 0) {
    close(fds[0]);
    std::fprintf(stderr, "qm_kills: cannot start %s: %s\n", worker_.c_str(),
                 std::strerror(spawned));
    return false;
  }
  // The text starts with a newline so that every line, the first too, is
  // found after one.
  std::string text = "\n";
  bool ended = false;
  if (afterReady) readUntil(fds[0], Clock::now() + std::chrono::seconds(60), &text, &ended, true);
  readUntil(fds[0], Clock::now() + std::chrono::microseconds(delayUs), &text, &ended, false);
  kill(pid, SIGKILL);
  waitpid(pid, status, 0);
  while (!ended) readUntil(fds[0], Clock::now() + std::chrono::seconds(60), &text, &ended, false);
  close(fds[0]);
  lines->clear();
  std::istringstream in(text.substr(1, text.rfind('\n')));
  for (std::string line; std::getline(in, line);) lines->push_back(line);
  return true;
}

bool Harness::killOnce() {
  ++figures_.kills;
  position_ = KillPosition{};
  position_.kill = figures_.kills;
  position_.fromStart = random_() % 5 == 0;
  position_.delayUs =
      static_cast<long>(position_.fromStart ? random_() % 40001 : random_() % 30001);
  figures_.killsFromStart += position_.fromStart ? 1 : 0;
  std::vector<std::string> lines;
  int status = 0;
  if (!startAndKill({std::to_string(figures_.kills), std::to_string(random_())},
                    !position_.fromStart, position_.delayUs, &lines, &status)) {
    return false;
  }
  for (const std::string &line : lines) {
    position_.lastLines.push_back(line);
    if (position_.lastLines.size() > 6) position_.lastLines.pop_front();
  }
  if (!WIFSIGNALED(status) || WTERMSIG(status) != SIGKILL) {
    failure(&figures_.others,
            "the worker ended before it was killed, status " + std::to_string(status));
  }
  readJournal(lines);
  // One kill in three, another process looks first and gives back what the
  // dead worker held, and is itself killed at a random moment of that.
  if (random_() % 3 == 0) {
    position_.lookDelayUs = static_cast<long>(random_() % 15001);
    if (!startAndKill({"look"}, false, position_.lookDelayUs, &lines, &status)) return false;
    ++figures_.looks;
    if (WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL) {
      ++figures_.looksKilled;
    } else if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
      failure(&figures_.others, "the process that looked failed, status " + std::to_string(status) +
                                    (lines.empty() ? "" : ": " + lines.back()));
    }
  }
  return check() && !failed_;
}

// Brings the model up to the end of the worker's journal.
void Harness::readJournal(const std::vector<std::string> &lines) {
  Unit unit;
  std::set<std::string> gotInUnit;
  temporary_.clear();
  for (const std::string &line : lines) {
    std::istringstream in(line);
    std::string kind, a, b, c, d;
    in >> kind >> a >> b >> c >> d;
    const auto isNew = [&](const std::string &id) {
      if (messages_.count(id) != 0 || gone_.count(id) != 0 || vanished_.count(id) != 0) {
        failure(&figures_.others, "the id " + id + " was put twice: " + line);
        return false;
      }
      return true;
    };
    // A get may only take a message that is there: else it is got twice.
    const auto isThere = [&](const std::string &id) {
      const auto found = messages_.find(id);
      if (found == messages_.end() || found->second.fate != Fate::kThere ||
          gotInUnit.count(id) != 0) {
        failure(&figures_.duplicates, "got a message that was not there (got twice?): " + line);
        return false;
      }
      return true;
    };
    if (kind == "T") {
      temporary_ = a;
    } else if (kind == "R") {
    } else if (kind == "p") {
      if (isNew(a)) messages_[a] = Message{static_cast<int>(queueIndex(b)), Fate::kMaybePut, 0};
    } else if (kind == "P") {
      messages_[a].fate = Fate::kThere;
      ++figures_.puts;
      ++figures_.acknowledged;
    } else if (kind == "g") {
      if (isThere(a)) messages_[a].fate = Fate::kMaybeGot;
    } else if (kind == "G") {
      messages_.erase(a);
      gone_.insert(a);
      ++figures_.gets;
      ++figures_.acknowledged;
    } else if (kind == "U") {
      if (unit.name != a) unit = Unit{a, {}, {}, false};
      if (b == "P") {
        if (isNew(c)) unit.puts.emplace_back(c, static_cast<int>(queueIndex(d)));
        ++figures_.unitPuts;
      } else {
        if (isThere(c)) unit.gets.push_back(c);
        gotInUnit.insert(c);
        ++figures_.unitGets;
      }
      ++figures_.acknowledged;
    } else if (kind == "c") {
      unit.commitAsked = true;
    } else if (kind == "C" || kind == "B") {
      if (kind == "C") {
        for (const auto &[id, q] : unit.puts) messages_[id] = Message{q, Fate::kThere, 0};
        for (const std::string &id : unit.gets) {
          messages_.erase(id);
          gone_.insert(id);
        }
        ++figures_.commits;
      } else {
        for (const auto &put : unit.puts) vanished_.insert(put.first);
        for (const std::string &id : unit.gets) ++messages_[id].backouts;
        ++figures_.backouts;
      }
      ++figures_.acknowledged;
      ++figures_.unitsChecked;
      unit = Unit{};
      gotInUnit.clear();
    } else if (kind == "b") {
    } else if (kind == "X") {
      failure(&figures_.others, "the worker stopped: " + line.substr(2));
    } else {
      failure(&figures_.others, "a line the journal does not have: " + line);
    }
  }
  // The unit the worker was killed in: backed out by its end, unless the
  // worker was in its commit.
  if (unit.commitAsked) {
    inDoubt_.push_back(unit);
  } else if (!unit.name.empty()) {
    for (const auto &put : unit.puts) vanished_.insert(put.first);
    for (const std::string &id : unit.gets) ++messages_[id].backouts;
    ++figures_.unitsInterrupted;
    ++figures_.unitsChecked;
  }
}

struct Seen {
  int queue;
  int32_t backouts;
  int32_t persistence;
};

// The checker's own connection to the queue manager, with the outcome of
// the connect.
int32_t connectChecker(int32_t *cc, int32_t *rc) {
  char name[QM_NAME_LENGTH];
  field(name, sizeof name, kQm);
  int32_t hconn = -1;
  qmCONN(name, &hconn, cc, rc, 0);
  return hconn;
}

// Looks at the queues through the entries and compares them with the model;
// what was in doubt becomes what was found.
bool Harness::check() {
  int32_t cc = 0;
  int32_t rc = 0;
  int32_t hconn = connectChecker(&cc, &rc);
  if (cc != CC_OK) {
    failure(&figures_.others, "qmCONN failed with reason " + std::to_string(rc));
    return false;
  }
  const auto open = [&](const std::string &queue, int32_t options, int32_t *reason) {
    vxOBJDESC od = OD_DEFAULT;
    field(od.objectName, sizeof od.objectName, queue);
    int32_t hobj = 0;
    int32_t openCc = 0;
    qmOPEN(hconn, &od, options, &hobj, &openCc, reason);
    return hobj;
  };
  // The inquiry of the open counts is a look that gives back what the dead
  // worker held (this process's queue manager was made before it died, so
  // its connect does not look). Depths are asked after it.
  int32_t opens[kQueueCount][2];
  for (int q = 0; q < kQueueCount; ++q) {
    int32_t reason = 0;
    int32_t inquiry = open(kQueues[q].name, OPEN_INQUIRE, &reason);
    int32_t selectors[] = {ATTR_OPEN_INPUT_COUNT, ATTR_OPEN_OUTPUT_COUNT};
    opens[q][0] = opens[q][1] = -1;
    qmINQ(hconn, inquiry, 2, selectors, 2, opens[q], 0, nullptr, &cc, &rc);
    if (reason != RC_NONE || cc != CC_OK) {
      failure(&figures_.others, std::string("cannot inquire ") + kQueues[q].name + ": reason " +
                                    std::to_string(reason != RC_NONE ? reason : rc));
    }
    qmCLOSE(hconn, &inquiry, CLOSE_NONE, &cc, &rc);
    if (opens[q][0] != 0 || opens[q][1] != 0) {
      failure(&figures_.others, std::string(kQueues[q].name) + " is still open: input " +
                                    std::to_string(opens[q][0]) + ", output " +
                                    std::to_string(opens[q][1]));
    }
  }
  if (!temporary_.empty()) {
    int32_t reason = 0;
    int32_t hobj = open(temporary_, OPEN_INQUIRE, &reason);
    if (reason != RC_UNKNOWN_OBJECT_NAME) {
      failure(&figures_.others, "the dead worker's temporary queue " + temporary_ +
                                    " is still there (open gave " + std::to_string(reason) + ")");
      if (reason == RC_NONE) qmCLOSE(hconn, &hobj, CLOSE_NONE, &cc, &rc);
    }
  }
  if (const int32_t count = vxqm::test::temporaryQueueCount(kQm); count != 0) {
    failure(&figures_.others, std::to_string(count) + " temporary queues are left");
  }
  std::map<std::string, std::vector<Seen>> seen;
  for (int q = 0; q < kQueueCount; ++q) {
    int32_t reason = 0;
    int32_t inquiry = open(kQueues[q].name, OPEN_INQUIRE, &reason);
    int32_t selector = ATTR_CURRENT_DEPTH;
    int32_t depth = -1;
    qmINQ(hconn, inquiry, 1, &selector, 1, &depth, 0, nullptr, &cc, &rc);
    qmCLOSE(hconn, &inquiry, CLOSE_NONE, &cc, &rc);
    int32_t browse = open(kQueues[q].name, OPEN_BROWSE, &reason);
    int32_t count = 0;
    for (int32_t options = GET_BROWSE_FIRST;; options = GET_BROWSE_NEXT) {
      vxMSGDESC md = MD_DEFAULT;
      vxGETOPTS gmo = GMO_DEFAULT;
      gmo.options = options;
      char buffer[256];
      int32_t length = 0;
      qmGET(hconn, browse, &md, &gmo, sizeof buffer, buffer, &length, 0, &cc, &rc);
      if (cc == CC_FAILED && rc == RC_NO_MSG_AVAILABLE) break;
      if (cc != CC_OK) {
        failure(&figures_.others, std::string("browsing ") + kQueues[q].name +
                                      " failed with reason " + std::to_string(rc));
        break;
      }
      ++count;
      const std::string body(buffer, static_cast<size_t>(std::min<int32_t>(length, sizeof buffer)));
      seen[body.substr(0, body.find(' '))].push_back(Seen{q, md.backoutCount, md.persistence});
    }
    qmCLOSE(hconn, &browse, CLOSE_NONE, &cc, &rc);
    if (depth != count) {
      failure(&figures_.others, std::string(kQueues[q].name) + " has a depth of " +
                                    std::to_string(depth) + " and holds " + std::to_string(count) +
                                    " messages");
    }
  }
  qmDISC(&hconn, 0, &cc, &rc);

  const auto there = [&](const std::string &id, int queue) {
    const auto found = seen.find(id);
    return found != seen.end() && found->second.front().queue == queue;
  };
  // A unit killed in its commit: whole one way or the other.
  for (const Unit &unit : inDoubt_) {
    ++figures_.unitsInDoubt;
    ++figures_.unitsChecked;
    size_t putsThere = 0;
    size_t getsThere = 0;
    for (const auto &[id, q] : unit.puts) putsThere += there(id, q) ? 1 : 0;
    for (const std::string &id : unit.gets) getsThere += there(id, messages_[id].queue) ? 1 : 0;
    const bool committed = putsThere == unit.puts.size() && getsThere == 0;
    const bool backedOut = putsThere == 0 && getsThere == unit.gets.size();
    if (committed == backedOut && !(unit.puts.empty() && unit.gets.empty())) {
      failure(&figures_.halfUnits,
              "the unit " + unit.name + ", killed in its commit, is half applied: " +
                  std::to_string(putsThere) + " of its " + std::to_string(unit.puts.size()) +
                  " puts are there, " + std::to_string(getsThere) + " of its " +
                  std::to_string(unit.gets.size()) + " gets came back");
    }
    if (committed) {
      ++figures_.unitsInDoubtCommitted;
      for (const auto &[id, q] : unit.puts) messages_[id] = Message{q, Fate::kThere, 0};
      for (const std::string &id : unit.gets) {
        messages_.erase(id);
        gone_.insert(id);
      }
    } else {
      for (const auto &put : unit.puts) vanished_.insert(put.first);
      for (const std::string &id : unit.gets) ++messages_[id].backouts;
    }
  }
  inDoubt_.clear();

  for (const auto &[id, copies] : seen) {
    if (copies.size() > 1) {
      failure(&figures_.duplicates, id + " is there " + std::to_string(copies.size()) + " times");
    }
    if (messages_.count(id) != 0) continue;
    if (gone_.count(id) != 0) {
      failure(&figures_.duplicates, id + " was got, and is there again");
    } else if (vanished_.count(id) != 0) {
      failure(&figures_.halfUnits, id + ", put in a unit that did not commit, is there");
    } else {
      failure(&figures_.others, id + " is there and was never put");
    }
  }
  for (auto it = messages_.begin(); it != messages_.end();) {
    const std::string &id = it->first;
    Message &m = it->second;
    ++figures_.messagesChecked;
    const auto found = seen.find(id);
    const bool isThere = there(id, m.queue);
    if (found != seen.end() && !isThere) {
      failure(&figures_.others, id + " is on " + kQueues[found->second.front().queue].name +
                                    ", put to " + kQueues[m.queue].name);
    }
    if (m.fate == Fate::kMaybePut) {
      ++figures_.putsInDoubt;
      figures_.putsInDoubtDone += isThere ? 1 : 0;
    } else if (m.fate == Fate::kMaybeGot) {
      ++figures_.getsInDoubt;
      figures_.getsInDoubtDone += isThere ? 0 : 1;
    } else if (!isThere) {
      failure(&figures_.losses, id + ", put to " + std::string(kQueues[m.queue].name) +
                                    ", and not got, is not there");
    }
    if (isThere) {
      const Seen &s = found->second.front();
      if (s.persistence != kQueues[m.queue].persistence) {
        failure(&figures_.others, id + " has the persistence " + std::to_string(s.persistence));
      }
      if (s.backouts < m.backouts) {
        failure(&figures_.others, id + " came back from " + std::to_string(m.backouts) +
                                      " units with a backout count of " +
                                      std::to_string(s.backouts));
      }
      m.fate = Fate::kThere;
      ++it;
    } else {
      gone_.insert(id);
      it = messages_.erase(it);
    }
  }
  return !failed_;
}

// Gets every message left, and compares them with the model.
bool Harness::drainAll() {
  int32_t cc = 0;
  int32_t rc = 0;
  int32_t hconn = connectChecker(&cc, &rc);
  std::set<std::string> got;
  for (int q = 0; q < kQueueCount; ++q) {
    vxOBJDESC od = OD_DEFAULT;
    field(od.objectName, sizeof od.objectName, kQueues[q].name);
    int32_t hobj = 0;
    qmOPEN(hconn, &od, OPEN_INPUT_EXCLUSIVE, &hobj, &cc, &rc);
    for (;;) {
      vxMSGDESC md = MD_DEFAULT;
      vxGETOPTS gmo = GMO_DEFAULT;
      gmo.options = GET_NO_SYNCPOINT;
      char buffer[256];
      int32_t length = 0;
      qmGET(hconn, hobj, &md, &gmo, sizeof buffer, buffer, &length, 0, &cc, &rc);
      if (cc != CC_OK) break;
      ++figures_.drained;
      const std::string body(buffer, static_cast<size_t>(std::min<int32_t>(length, sizeof buffer)));
      const std::string id = body.substr(0, body.find(' '));
      const auto found = messages_.find(id);
      if (!got.insert(id).second) {
        failure(&figures_.duplicates, id + " was got twice at the end");
      } else if (found == messages_.end() || found->second.queue != q) {
        failure(&figures_.others,
                id + " was got at the end from " + kQueues[q].name + ", which should not hold it");
      }
    }
    if (rc != RC_NO_MSG_AVAILABLE) {
      failure(&figures_.others, std::string("getting from ") + kQueues[q].name +
                                    " at the end failed with reason " + std::to_string(rc));
    }
    qmCLOSE(hconn, &hobj, CLOSE_NONE, &cc, &rc);
  }
  qmDISC(&hconn, 0, &cc, &rc);
  for (const auto &entry : messages_) {
    if (got.count(entry.first) == 0) {
      failure(&figures_.losses, entry.first + " was not there at the end");
    }
  }
  return !failed_;
}

bool Harness::run(long kills) {
  for (int q = 0; q < kQueueCount; ++q) {
    vxqm::QueueChanges changes;
    changes.maxDepth = 100000;
    if (const int32_t reason = vxqm::admin::createQueue(kQm, kQueues[q].name, changes);
        reason != RC_NONE) {
      std::fprintf(stderr, "qm_kills: cannot create %s: reason %" PRId32 "\n", kQueues[q].name,
                   reason);
      return false;
    }
  }
  for (long i = 0; i < kills; ++i) {
    if (!killOnce()) return false;
  }
  position_ = KillPosition{};
  position_.kill = figures_.kills;
  return drainAll();
}

long numberFrom(int argc, char **argv, int index, const char *variable, long otherwise) {
  if (argc > index) return std::strtol(argv[index], nullptr, 10);
  const char *value = std::getenv(variable);
  return value != nullptr && value[0] != 0 ? std::strtol(value, nullptr, 10) : otherwise;
}

}  // namespace

int main(int argc, char **argv) {
  const long kills = numberFrom(argc, argv, 1, "VXQM_KILLS", 100);
  const char *seedText = argc > 2 ? argv[2] : std::getenv("VXQM_KILL_SEED");
  const unsigned long long seed =
      seedText != nullptr && seedText[0] != 0
          ? std::strtoull(seedText, nullptr, 10)
          : static_cast<unsigned long long>(Clock::now().time_since_epoch().count());
  if (kills <= 0) {
    std::fprintf(stderr, "usage: qm_kills [KILLS [SEED]]\n");
    return 2;
  }
  char pattern[] = "/tmp/vxqm-kills-XXXXXX";
  if (mkdtemp(pattern) == nullptr) {
    std::perror("qm_kills: mkdtemp");
    return 1;
  }
  const std::string directory = pattern;
  setenv("VXQM_DATA", directory.c_str(), 1);
  std::printf("qm_kills: %ld kills, seed %llu, data in %s\n", kills, seed, directory.c_str());
  std::fflush(stdout);

  const auto start = Clock::now();
  Harness harness(seed, KILL_WORKER);
  const bool passed = harness.run(kills);
  const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
  const Figures &f = harness.figures();
  std::printf(
      "qm_kills: %ld kills (%ld from the worker's start) in %.1f s\n"
      "  operations acknowledged: %ld (puts %ld, gets %ld, puts in units %ld, gets in units %ld,"
      " commits %ld, backouts %ld)\n"
      "  messages checked: %ld (a message's fate after one kill), %ld got at the end\n"
      "  units checked: %ld (%ld killed before their commit, %ld killed in their commit, of which"
      " %ld committed)\n"
      "  killed in a put: %ld (%ld done), in a get: %ld (%ld done)\n"
      "  processes that looked after a kill: %ld (%ld killed while they looked)\n"
      "  losses %ld, duplicates %ld, half units %ld, other failures %ld\n",
      f.kills, f.killsFromStart, seconds, f.acknowledged, f.puts, f.gets, f.unitPuts, f.unitGets,
      f.commits, f.backouts, f.messagesChecked, f.drained, f.unitsChecked, f.unitsInterrupted,
      f.unitsInDoubt, f.unitsInDoubtCommitted, f.putsInDoubt, f.putsInDoubtDone, f.getsInDoubt,
      f.getsInDoubtDone, f.looks, f.looksKilled, f.losses, f.duplicates, f.halfUnits, f.others);
  if (!passed) {
    std::printf("qm_kills: FAILED; the data directory %s is kept\n", directory.c_str());
    return 1;
  }
  vxqm::test::restart(kQm);  // removes the companion
  unsetenv("VXQM_DATA");
  vxqm::test::reset(kQm);
  std::filesystem::remove_all(directory);
  return 0;
}
