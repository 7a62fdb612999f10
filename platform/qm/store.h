// The store of a queue manager: its queue definitions and the messages on its
// queues.  The queue manager reaches them only through this interface, so
// that another store (a persistent one) can take the place of the memory
// store without any change to the entries, the waits or the units of work,
// which all live above it.
//
// A store is not thread safe: its queue manager calls it only while holding
// its own mutex, and never while waiting.  A store may fail: it throws
// Failure (queue_manager.h) with the reason, after undoing what the call had
// begun, or std::bad_alloc.
#ifndef VX_QM_STORE_H
#define VX_QM_STORE_H

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "qm_admin.h"
#include "vxqi_records.h"

namespace vxqm {

using Clock = std::chrono::steady_clock;

// A message as it lies on a queue.
struct Message {
  vxMSGDESC descriptor{};  // as put (version 2 layout), priority, persistence,
                           // character set and message id resolved
  std::vector<char> data;
  Clock::time_point expiresAt = Clock::time_point::max();
  Clock::time_point visibleFrom = Clock::time_point::min();  // a delayed put
};

// Where a message stands in its queue's delivery order: higher priorities
// first, then the order of the puts.  The sequence is unique in the store.
struct MessageKey {
  int32_t priority = 0;
  uint64_t sequence = 0;
  bool operator<(const MessageKey &other) const {
    return priority != other.priority ? priority > other.priority : sequence < other.sequence;
  }
  bool operator==(const MessageKey &other) const = default;
};

enum class MessageState : uint8_t {
  kAvailable,  // may be got and browsed
  kPutInUnit,  // put under syncpoint, invisible until its unit commits
  kGotInUnit,  // got under syncpoint, invisible, restored if its unit backs out
  kHeld,       // put while a test holds the queue, invisible until released
};

// Which messages a get or a browse may take.
struct Selection {
  const char *msgId = nullptr;      // MSG_ID_LENGTH bytes, or null: any message id
  const char *correlId = nullptr;   // CORREL_ID_LENGTH bytes, or null: any
  std::optional<MessageKey> after;  // a browse-next cursor: only later messages
};

// What a search found: the message, its key, and the earliest time a
// matching message that is not visible yet (a delayed put) becomes visible,
// or max when there is none.  The message stays valid until the next call
// that changes the store; the removeMessage or takeInUnit of that message
// itself leaves it valid until the call after.
struct Found {
  const Message *message = nullptr;
  MessageKey key;
  Clock::time_point nextVisible = Clock::time_point::max();
};

class Store {
 public:
  virtual ~Store() = default;

  // Queue definitions.  saveQueue creates or replaces; deleteQueue removes the
  // queue and every message on it.  queueNames lists them in name order.
  virtual bool findQueue(const std::string &name, QueueDefinition *definition) const = 0;
  virtual void saveQueue(const QueueDefinition &definition) = 0;
  virtual void deleteQueue(const std::string &name) = 0;
  virtual std::vector<std::string> queueNames() const = 0;

  // Messages of an existing queue.  depth counts every message, whatever its
  // state.  unit is the unit of work of a message put under syncpoint, else 0.
  virtual int32_t depth(const std::string &queue) const = 0;
  virtual MessageKey addMessage(const std::string &queue, Message message, MessageState state,
                                uint64_t unit) = 0;
  // The first available message in delivery order that matches and is
  // visible and not expired at `now`.
  virtual Found findMessage(const std::string &queue, const Selection &selection,
                            Clock::time_point now) const = 0;
  // Both return false when the message is no longer available: a store
  // shared with other processes may have seen it taken by one of them since
  // it was found, and the get must look again.
  virtual bool removeMessage(const std::string &queue, const MessageKey &key) = 0;
  // An available message got under syncpoint: invisible until its unit ends.
  virtual bool takeInUnit(const std::string &queue, const MessageKey &key, uint64_t unit) = 0;
  // Removes the messages expired at `now`; returns how many.
  virtual int32_t discardExpired(const std::string &queue, Clock::time_point now) = 0;
  virtual void clearQueue(const std::string &queue) = 0;
  // Makes held messages available; returns how many.
  virtual int32_t releaseHeld(const std::string &queue) = 0;

  // Units of work.  Commit makes the unit's puts available and removes its
  // gets; backout removes its puts and makes its gets available again, each
  // with its backout count one higher.  Both return the names of the queues
  // on which messages became available.  Messages whose queue was deleted
  // meanwhile are gone and are skipped.
  virtual std::vector<std::string> commit(uint64_t unit) = 0;
  virtual std::vector<std::string> backout(uint64_t unit) = 0;

  // Makes what follows, up to endStep, one step that other processes see
  // whole or not at all: a put's reads of its queue's definition and depth
  // with the put itself, so that no other process's put comes between them.
  // A store of one process has nothing to do.
  virtual void beginStep(const std::string & /*queue*/) {}
  // Ends the step: keeps what it did, or (keep false, after a failure)
  // undoes it.  Throws only when keeping fails; the step must then still be
  // ended with keep false.
  virtual void endStep(bool /*keep*/) {}

  // True when other processes change the store too: they cannot signal this
  // process's waiting gets, which then look again every kSharedPollInterval.
  virtual bool shared() const { return false; }
};

constexpr std::chrono::milliseconds kSharedPollInterval{10};

// A store that keeps everything in memory, for the life of its queue manager.
// A sequence source, when given, numbers the messages (it must only grow).
std::unique_ptr<Store> makeMemoryStore();
std::unique_ptr<Store> makeMemoryStore(uint64_t (*nextSequence)(void *context), void *context);

// The store of a queue manager with a data directory: definitions and
// persistent messages in the SQLite database `path`, shared with the other
// processes that open it; non-persistent messages and temporary dynamic
// queues in memory, for this process alone (docs/persistence.md).  Throws
// Failure when the database cannot be opened.
std::unique_ptr<Store> makeSqliteStore(const std::string &path);

// The store of a new queue manager: a SQLite store in the directory named by
// the environment variable VXQM_DATA (`<dir>/<qmName>.db`), else a memory
// store.
std::unique_ptr<Store> makeStore(const std::string &qmName);

}  // namespace vxqm

#endif  // VX_QM_STORE_H
