// The store of a queue manager: everything that every process connected to
// the queue manager must see.  That is the queue definitions (temporary
// dynamic queues included), the messages, durable or not, the open handles
// with their options, and the units of work.  What stays in a process is
// its connections, its handle objects with their browse cursors, and its
// waits (queue_manager.h).
//
// The queue manager decides what the store keeps and for how long: which
// messages are durable, which queues die with the handle that made them,
// and when an owner has ended and what it held is given back.  A store
// carries that out and nothing more, so that each store (memory, SQLite,
// and any other behind this interface) passes the same contract suite.
//
// Owners: every handle and every message of a unit of work belongs to the
// store that made it, its owner.  A store of one
// process has one owner, itself.  A store shared by processes names each
// store that opens it by an owner token, and reports the others through
// owners(), so that the queue manager can end those that died.
//
// Nesting and threads: a store is not thread safe.  Its queue manager calls
// it only while holding its own mutex, and never while waiting.  A store may
// fail: it throws Failure (queue_manager.h) with the reason, after undoing
// what the call had begun, or std::bad_alloc.  Between beginStep and
// endStep, the calls form one step that other processes see whole or not
// at all; a step begun within a step is part of the outer one, and a step
// that is not kept undoes the outermost.
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
// first, then the order of the puts.  The sequence is unique in the store,
// and a message put later (by any owner) has a higher one.
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
};

// How long a message lasts.  A durable message outlives the queue manager's
// restart; one that is not never costs a write to disk and ends with a
// restart.
enum class Durability : uint8_t { kVolatile, kDurable };

// Which messages a get or a browse may take.
struct Selection {
  const char *msgId = nullptr;      // MSG_ID_LENGTH bytes, or null: any message id
  const char *correlId = nullptr;   // CORREL_ID_LENGTH bytes, or null: any
  std::optional<MessageKey> after;  // a browse-next cursor: only later messages
};

// What a search found: the message, its key, and the earliest time a
// matching message that is not visible yet (a delayed put) becomes visible,
// or max when there is none.  The message stays valid until the next call
// of the store; the removeMessage or takeInUnit of that message itself
// leaves it valid until the call after.
struct Found {
  const Message *message = nullptr;
  MessageKey key;
  Clock::time_point nextVisible = Clock::time_point::max();
  bool taken = false;    // takeMessage took the message
  bool changed = false;  // takeChecked: the definition is no longer the one seen
};

// What a put's checked add did: the message's key, none when the queue was
// full, or that the definition is no longer the one seen.
struct Added {
  std::optional<MessageKey> key;
  bool changed = false;
};

// The open handles of a queue, of every owner.
struct OpenCounts {
  int32_t input = 0;    // handles open for input, shared or exclusive
  int32_t output = 0;   // handles open for output
  int32_t handles = 0;  // every handle, whatever its options
  bool exclusiveInput = false;
};

// An owner of the store other than the caller: its token, and the process
// that it says it lives in.
struct Owner {
  std::string token;
  std::string host;
  int32_t pid = 0;
  int64_t startTime = 0;  // the process's start, in clock ticks after boot
};

class Store {
 public:
  virtual ~Store() = default;

  // Queue definitions.  A queue's name is unique among every queue.
  // createQueue adds a queue: with a creator (an open handle of this
  // owner), the queue is deleted with that handle; saveQueue creates or
  // replaces a definition, keeping a queue's creator.  deleteQueue removes
  // the queue, every message on it and every handle open on it.
  // queueNames lists every queue in name order.
  virtual bool findQueue(const std::string &name, QueueDefinition *definition) const = 0;
  virtual void createQueue(const QueueDefinition &definition, int64_t creator) = 0;
  virtual void saveQueue(const QueueDefinition &definition) = 0;
  virtual void deleteQueue(const std::string &name) = 0;
  virtual std::vector<std::string> queueNames() const = 0;
  // The definition that a put or a get checks in its own statement (see
  // addChecked, takeChecked): a store that checks it there may give the one
  // it saw last, to spare a round trip; this one reads it.
  virtual bool seenQueue(const std::string &name, QueueDefinition *definition) const {
    return findQueue(name, definition);
  }

  // Open handles, each with the options of its open, owned by this store.
  // addHandle returns a handle number that is never given again;
  // removeHandle of a handle that is gone (its queue was deleted) does
  // nothing.  queuesCreatedBy names the queues created with that handle.
  virtual int64_t addHandle(const std::string &queue, int32_t options) = 0;
  virtual void removeHandle(int64_t handle) = 0;
  virtual bool handleExists(int64_t handle) const = 0;
  virtual std::vector<std::string> queuesCreatedBy(int64_t handle) const = 0;
  virtual OpenCounts openCounts(const std::string &queue) const = 0;

  // Messages of an existing queue.  depth counts every message, whatever its
  // state.  unit is the unit of work of a message put under syncpoint, else 0.
  virtual int32_t depth(const std::string &queue) const = 0;
  virtual MessageKey addMessage(const std::string &queue, Message message, Durability durability,
                                MessageState state, uint64_t unit) = 0;
  // The first available message in delivery order that matches and is
  // visible and not expired at `now`.
  virtual Found findMessage(const std::string &queue, const Selection &selection,
                            Clock::time_point now) const = 0;
  // Both return false when the message is no longer available: another
  // owner may have taken it since it was found, and the get must look again.
  virtual bool removeMessage(const std::string &queue, const MessageKey &key) = 0;
  // An available message got under syncpoint: invisible until its unit ends.
  virtual bool takeInUnit(const std::string &queue, const MessageKey &key, uint64_t unit) = 0;
  // A put's add with its depth check in one call: removes the messages
  // expired at `now` (as discardExpired), then adds the message (as
  // addMessage) unless the queue holds `maxDepth` messages or more; nullopt
  // then.  A store shared by processes that can does it in one statement;
  // this one calls the three.
  virtual std::optional<MessageKey> addMessageWithin(const std::string &queue, Message message,
                                                     Durability durability, MessageState state,
                                                     uint64_t unit, int32_t maxDepth,
                                                     Clock::time_point now) {
    discardExpired(queue, now);
    if (depth(queue) >= maxDepth) return std::nullopt;
    return addMessage(queue, std::move(message), durability, state, unit);
  }
  // A get's discard, search and take in one call: the messages expired at
  // `now` are removed (as discardExpired), and the message that findMessage
  // would find is taken (removed with unit 0, else got in the unit as takeInUnit
  // does) when its data is at most `longest` bytes, and Found::taken says
  // so; a longer one stays in its place.  A store that can do it in one
  // statement does; this one discards, finds, takes, and looks again when
  // another owner took the message first.
  virtual Found takeMessage(const std::string &queue, const Selection &selection,
                            Clock::time_point now, uint64_t unit, size_t longest) {
    discardExpired(queue, now);
    for (;;) {
      Found found = findMessage(queue, selection, now);
      if (found.message == nullptr || found.message->data.size() > longest) return found;
      found.taken =
          unit == 0 ? removeMessage(queue, found.key) : takeInUnit(queue, found.key, unit);
      if (found.taken) return found;
    }
  }
  // addMessageWithin for a queue defined as `seen`: a store that serves
  // seenQueue from what it saw checks in the same statement that the
  // definition is still `seen` (Added::changed, with nothing done, when it
  // is not); this one adds.
  virtual Added addChecked(const std::string &queue, const QueueDefinition &seen, Message message,
                           Durability durability, MessageState state, uint64_t unit,
                           Clock::time_point now) {
    return {
        addMessageWithin(queue, std::move(message), durability, state, unit, seen.maxDepth, now),
        false};
  }
  // takeMessage from a queue defined as `seen`, checked as addChecked is
  // (Found::changed).
  virtual Found takeChecked(const std::string &queue, const QueueDefinition & /*seen*/,
                            const Selection &selection, Clock::time_point now, uint64_t unit,
                            size_t longest) {
    return takeMessage(queue, selection, now, unit, longest);
  }
  // Whether addChecked is one statement, a transaction of its own: a put
  // then needs no step around it.
  virtual bool putIsOneStatement() const { return false; }
  // Removes the messages expired at `now` (not those got in a unit); returns
  // how many.
  virtual int32_t discardExpired(const std::string &queue, Clock::time_point now) = 0;
  virtual void clearQueue(const std::string &queue) = 0;

  // Units of work of this owner.  Commit makes the unit's puts available and
  // removes its gets; backout removes its puts and makes its gets available
  // again, each with its backout count one higher.  Both return the names of
  // the queues on which messages became available.  Messages whose queue was
  // deleted meanwhile are gone and are skipped.
  virtual std::vector<std::string> commit(uint64_t unit) = 0;
  virtual std::vector<std::string> backout(uint64_t unit) = 0;

  // Counts the sessions that the store opened with what it shares: a new
  // one follows a lost connection, and what was opened or begun under an
  // older one (handles, units) is given back as an ended owner's.  A store
  // that cannot lose its session says 0.
  virtual uint64_t session() const { return 0; }

  // The other owners that hold something in the store.
  virtual std::vector<Owner> owners() const = 0;
  // True when the owner has certainly ended, whatever process it named (a
  // store may know, for example from a lock the owner held).
  virtual bool ownerEnded(const Owner &owner) const = 0;
  // Gives back everything an ended owner held: its handles close, the
  // queues created with them are deleted and its units back out.  Returns
  // the queues on which messages became available.
  virtual std::vector<std::string> endOwner(const Owner &owner) = 0;

  // Durability.  durableTicket names the changes that this store made since
  // it was last asked and that must outlive a restart (0: none);
  // waitDurable returns once they are on disk.  waitDurable is the one call
  // a store takes without its queue manager's mutex, from any thread, so
  // that commits of other threads and processes made meanwhile share its
  // sync.  It throws Failure when the changes cannot be made durable.
  virtual uint64_t durableTicket() = 0;
  virtual void waitDurable(uint64_t ticket) = 0;

  // Steps (see the top of this file).  endStep keeps what the step did, or
  // (keep false, after a failure) undoes it.  It throws only when keeping
  // fails; the step must then still be ended with keep false.
  virtual void beginStep() = 0;
  virtual void endStep(bool keep) = 0;
};

// A store that keeps everything in memory, for the life of its queue manager
// and its one process.
std::unique_ptr<Store> makeMemoryStore();

// Where a SQLite store keeps things: durable ones in `database`, on disk;
// volatile ones (messages that are not durable, handles, temporary queues,
// owners) in `companion`, on storage in memory, beside the counters of its
// group commit (`<companion>.sync`).  With syncCommits, a change that must
// be durable is on disk when its call returns; without, it is in the
// database's log, which survives the death of the process but not a crash
// of the machine.
struct SqlitePaths {
  std::string database;
  std::string companion;
  bool syncCommits = true;
  std::string qmName = "";  // whose failures the store records (lastStoreFailure)
};

// The SQLite store, shared by every process that opens the same files
// (docs/persistence.md).  Throws Failure when they cannot be opened.
// Makes the database file itself, mode 0600, before the engine opens it.
std::unique_ptr<Store> makeSqliteStore(const SqlitePaths &paths);

// Where a PostgreSQL store keeps things: the database that a URI names
// (postgresql:// or postgres://, with any of libpq's parameters), in the
// schema named as the queue manager, which the store makes and upgrades.
struct PostgresPlace {
  std::string uri;
  std::string qmName;
};

// Whether VXQM_DATA names a PostgreSQL database rather than a directory.
bool isPostgresUri(const std::string &text);

// The PostgreSQL store, shared by every process on every host that names
// the same database and queue manager (docs/persistence.md).  Throws
// Failure: RC_Q_MGR_NOT_AVAILABLE when the server cannot be reached,
// RC_STORE_ERROR when the schema cannot be made or used.
std::unique_ptr<Store> makePostgresStore(const PostgresPlace &place);

// The channel of the notifications of the queue manager `qmName`: its
// payload is the name of a queue on which something changed.
std::string postgresChannel(const std::string &qmName);

// Empties the unlogged tables, as a crash of the server does (test hooks).
void emptyPostgresVolatile(const PostgresPlace &place);

// The account of a system error met while making or using a file of the
// store: its reason (RC_STORE_FULL for a full disk, RC_STORE_READ_ONLY for a
// read-only file system, else RC_STORE_ERROR) and its problem.
admin::StoreFailure systemStoreFailure(int error, const std::string &path,
                                       const std::string &action);
// Why an open directory may not hold a queue manager's files (another user
// owns it, or group or others may write it), or "" when it may.
std::string directoryProblem(int descriptor);
// The last store failure kept for the queue manager `qmName`; false when none.
bool findStoreFailure(const std::string &qmName, admin::StoreFailure *failure);
// Keeps `failure` as the last store failure of the queue manager `qmName`
// (admin::lastStoreFailure), then throws Failure with its reason.
[[noreturn]] void storeFailed(const std::string &qmName, const admin::StoreFailure &failure);
// Keeps `failure` as the last one without throwing.
void recordStoreFailure(const std::string &qmName, const admin::StoreFailure &failure);

}  // namespace vxqm

#endif  // VX_QM_STORE_H
