// The test hooks of qm_test.h and the entries' side of them (hooks.h).
#include <array>
#include <atomic>
#include <mutex>
#include <new>
#include <stdexcept>

#include "hooks.h"
#include "qm_test.h"

namespace vxqm {
namespace {

constexpr const char *kEntryNames[] = {"qmCONN", "qmCONNX", "qmDISC", "qmOPEN", "qmCLOSE",
                                       "qmGET",  "qmPUT",   "qmPUT1", "qmINQ",  "qmSET",
                                       "qmCMIT", "qmBACK",  "qmBEGIN"};
constexpr size_t kEntries = std::size(kEntryNames);

struct Script {
  int32_t calls = 0;  // calls still to fail
  Outcome outcome;
  std::optional<test::Fault> fault;  // thrown by the next call
};

// The scripts of every entry.  `armed` spares the entries the mutex while no
// test scripts anything.
struct Scripts {
  std::mutex mutex;
  std::array<Script, kEntries> entries;  // guarded by mutex
  std::atomic<bool> armed{false};
};

// The scripts of the calling thread's own calls: a countdown per entry.
struct ThreadScript {
  int32_t countdown = 0;  // calls until the failure; 0: none
  Outcome outcome;
};
thread_local std::array<ThreadScript, kEntries> tScripts;
thread_local int32_t tArmedScripts = 0;  // entries of tScripts with a countdown

Scripts &scripts() {
  static Scripts *all = new Scripts;  // never destroyed: entries may run at exit
  return *all;
}

std::optional<size_t> entryIndex(const std::string &entry) {
  for (size_t i = 0; i < kEntries; ++i) {
    if (entry == kEntryNames[i]) return i;
  }
  return std::nullopt;
}

void rearm(Scripts &all) {
  bool armed = false;
  for (const Script &script : all.entries) armed = armed || script.calls > 0 || script.fault;
  all.armed = armed;
}

// Runs a hook body; hooks never throw.
template <typename Body>
int32_t guarded(Body body) {
  try {
    body();
    return RC_NONE;
  } catch (const Failure &failure) {
    return failure.reason;
  } catch (const std::bad_alloc &) {
    return RC_STORAGE_NOT_AVAILABLE;
  } catch (...) {
    return RC_UNEXPECTED_ERROR;
  }
}

// A hook on an existing queue manager: -1 when there is none.
template <typename Count>
int32_t counted(const std::string &qmName, Count count) {
  try {
    auto manager = Registry::instance().existing(queueManagerName(qmName));
    return manager ? count(*manager) : -1;
  } catch (...) {
    return -1;
  }
}

}  // namespace

namespace hooks {

std::optional<Outcome> intercept(Entry entry) {
  if (tArmedScripts > 0) {
    ThreadScript &own = tScripts[static_cast<size_t>(entry)];
    if (own.countdown > 0 && --own.countdown == 0) {
      --tArmedScripts;
      return own.outcome;
    }
  }
  Scripts &all = scripts();
  if (!all.armed) return std::nullopt;
  std::lock_guard<std::mutex> lock(all.mutex);
  Script &script = all.entries[static_cast<size_t>(entry)];
  if (script.fault) {
    const test::Fault fault = *script.fault;
    script.fault.reset();
    rearm(all);
    if (fault == test::Fault::kOutOfMemory) throw std::bad_alloc();
    throw std::runtime_error("a fault scripted by a test");
  }
  if (script.calls == 0) return std::nullopt;
  --script.calls;
  rearm(all);
  return script.outcome;
}

}  // namespace hooks

namespace test {

bool failNext(const std::string &entry, int32_t calls, int32_t compCode, int32_t reason) {
  const std::optional<size_t> index = entryIndex(entry);
  if (!index) return false;
  Scripts &all = scripts();
  std::lock_guard<std::mutex> lock(all.mutex);
  Script &script = all.entries[*index];
  script.calls = calls > 0 ? calls : 0;
  script.outcome = {compCode, reason};
  rearm(all);
  return true;
}

bool failNthOnThisThread(const std::string &entry, int32_t nth, int32_t compCode, int32_t reason) {
  const std::optional<size_t> index = entryIndex(entry);
  if (!index) return false;
  ThreadScript &own = tScripts[*index];
  if (own.countdown > 0) --tArmedScripts;
  own.countdown = nth > 0 ? nth : 0;
  own.outcome = {compCode, reason};
  if (own.countdown > 0) ++tArmedScripts;
  return true;
}

int32_t callsBeforeFailureOnThisThread(const std::string &entry) {
  const std::optional<size_t> index = entryIndex(entry);
  return index ? tScripts[*index].countdown : 0;
}

bool throwNext(const std::string &entry, Fault fault) {
  const std::optional<size_t> index = entryIndex(entry);
  if (!index) return false;
  Scripts &all = scripts();
  std::lock_guard<std::mutex> lock(all.mutex);
  all.entries[*index].fault = fault;
  rearm(all);
  return true;
}

int32_t holdMessages(const std::string &qmName, const std::string &queue, bool hold) {
  return guarded(
      [&] { Registry::instance().manager(queueManagerName(qmName))->holdMessages(queue, hold); });
}

int32_t delayMessages(const std::string &qmName, const std::string &queue, int32_t milliseconds) {
  return guarded([&] {
    Registry::instance().manager(queueManagerName(qmName))->delayMessages(queue, milliseconds);
  });
}

namespace {

void restartOrReset(const std::string &qmName, bool emptyMemory) {
  guarded([&] { Registry::instance().reset(queueManagerName(qmName), emptyMemory); });
  Scripts &all = scripts();
  std::lock_guard<std::mutex> lock(all.mutex);
  all.entries = {};
  rearm(all);
}

}  // namespace

void reset(const std::string &qmName) { restartOrReset(qmName, false); }

void restart(const std::string &qmName) { restartOrReset(qmName, true); }

int32_t queueCount(const std::string &qmName) {
  return counted(qmName, [](QueueManager &manager) { return manager.queueCount(); });
}

int32_t temporaryQueueCount(const std::string &qmName) {
  return counted(qmName, [](QueueManager &manager) { return manager.temporaryQueueCount(); });
}

int32_t connectionCount(const std::string &qmName) {
  return counted(qmName, [](QueueManager &manager) { return manager.connectionCount(); });
}

int32_t messageCount(const std::string &qmName, const std::string &queue) {
  return counted(qmName, [&](QueueManager &manager) { return manager.messageCount(queue); });
}

}  // namespace test
}  // namespace vxqm
