// The SQLite store: queue definitions and persistent messages in one database
// file per queue manager, shared by every process that opens it; temporary
// dynamic queues and non-persistent messages in a memory store of this
// process.  docs/persistence.md describes what is shared and why.
//
// Like every store it is guarded by its queue manager's mutex: one database
// connection per store, used by one thread at a time.  Every statement is
// prepared once, when the store opens.  Every change is its own transaction,
// committed before the call returns, so what a call reported done survives a
// kill of the process.  A unit of work is not a database transaction (that
// would keep every other process from writing until it ends): its messages
// carry their state, the store's owner token and the unit number in their
// rows, and other processes skip them until the unit ends.
//
// Sequences: a persistent message's key sequence is its row id shifted left
// by 32 bits, so the delivery order of the database is the order of the puts
// of every process; a non-persistent message's is the highest row id this
// store has seen, shifted likewise, plus a counter of the store (never 0), so
// a key's low 32 bits say which part holds the message.
#include <fcntl.h>
#include <sqlite3.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <new>
#include <set>
#include <utility>

#include "queue_manager.h"
#include "store.h"

namespace vxqm {
namespace {

constexpr int kBusyTimeoutMilliseconds = 10000;
constexpr uint64_t kLowBits = 0xFFFFFFFFu;

enum Row : int { kAvailable = 0, kPutInUnit = 1, kGotInUnit = 2, kHeld = 3 };

// The schema.  The depth of each queue is kept by triggers, in the same
// transaction as the change, so that a put need not count the queue.  A row
// id is never given again (AUTOINCREMENT): a process that found a message
// removes it by its row id, and must not remove a newer message in its place
// when another process took the one it found.
constexpr const char *kSchema = R"sql(
CREATE TABLE IF NOT EXISTS queues (
  name TEXT PRIMARY KEY, queue_type INTEGER, definition_type INTEGER, description TEXT,
  persistence INTEGER, priority INTEGER, inhibit_get INTEGER, inhibit_put INTEGER,
  max_length INTEGER, max_depth INTEGER, depth INTEGER NOT NULL DEFAULT 0);
CREATE TABLE IF NOT EXISTS messages (
  seq INTEGER PRIMARY KEY AUTOINCREMENT, queue TEXT NOT NULL, priority INTEGER NOT NULL,
  state INTEGER NOT NULL, owner TEXT, unit INTEGER NOT NULL DEFAULT 0,
  msg_id BLOB NOT NULL, correl_id BLOB NOT NULL, backout INTEGER NOT NULL DEFAULT 0,
  expires INTEGER, visible INTEGER, descriptor BLOB NOT NULL, data BLOB NOT NULL);
CREATE INDEX IF NOT EXISTS messages_order ON messages (queue, state, priority DESC, seq);
CREATE INDEX IF NOT EXISTS messages_expiry ON messages (queue, expires) WHERE expires IS NOT NULL;
CREATE INDEX IF NOT EXISTS messages_owner ON messages (owner, unit) WHERE owner IS NOT NULL;
CREATE TRIGGER IF NOT EXISTS messages_added AFTER INSERT ON messages BEGIN
  UPDATE queues SET depth = depth + 1 WHERE name = new.queue; END;
CREATE TRIGGER IF NOT EXISTS messages_removed AFTER DELETE ON messages BEGIN
  UPDATE queues SET depth = depth - 1 WHERE name = old.queue; END;
)sql";

// Every statement of the store, by number: prepared once.
enum Sql : size_t {
  kFindQueue,
  kSaveQueue,
  kDeleteQueueMessages,
  kDeleteQueue,
  kQueueNames,
  kDepth,
  kAddMessage,
  kFindMessage,
  kNextVisible,
  kRemoveMessage,
  kTakeInUnit,
  kHasExpired,
  kDiscardExpired,
  kReleaseHeld,
  kUnitQueues,
  kDeleteUnit,
  kRestoreUnit,
  kOwners,
  kOwnerQueues,
  kDeleteOwner,
  kRestoreOwner,
  kBegin,
  kCommit,
  kRollback,
  kStatements
};

constexpr const char *kStatementTexts[kStatements] = {
    // kFindQueue
    "SELECT queue_type, definition_type, description, persistence, priority, inhibit_get,"
    " inhibit_put, max_length, max_depth FROM queues WHERE name = ?1",
    // kSaveQueue
    "INSERT INTO queues (name, queue_type, definition_type, description, persistence, priority,"
    " inhibit_get, inhibit_put, max_length, max_depth) VALUES (?1, ?2, ?3, ?4, ?5, ?6, ?7, ?8, ?9,"
    " ?10) ON CONFLICT (name) DO UPDATE SET queue_type = ?2, definition_type = ?3,"
    " description = ?4, persistence = ?5, priority = ?6, inhibit_get = ?7, inhibit_put = ?8,"
    " max_length = ?9, max_depth = ?10",
    // kDeleteQueueMessages
    "DELETE FROM messages WHERE queue = ?1",
    // kDeleteQueue
    "DELETE FROM queues WHERE name = ?1",
    // kQueueNames
    "SELECT name FROM queues ORDER BY name",
    // kDepth
    "SELECT depth FROM queues WHERE name = ?1",
    // kAddMessage
    "INSERT INTO messages (queue, priority, state, owner, unit, msg_id, correl_id, expires,"
    " visible, descriptor, data) VALUES (?1, ?2, ?3, ?4, ?5, ?6, ?7, ?8, ?9, ?10, ?11)",
    // kFindMessage: ?3 ?4 the ids or null, ?5 ?6 a browse cursor (priority, row id) or null
    "SELECT seq, priority, backout, expires, visible, descriptor, data FROM messages"
    " WHERE queue = ?1 AND state = 0 AND (expires IS NULL OR expires > ?2)"
    " AND (?3 IS NULL OR msg_id = ?3) AND (?4 IS NULL OR correl_id = ?4)"
    " AND (?5 IS NULL OR priority < ?5 OR (priority = ?5 AND seq > ?6))"
    " AND (visible IS NULL OR visible <= ?2) ORDER BY priority DESC, seq LIMIT 1",
    // kNextVisible
    "SELECT MIN(visible) FROM messages"
    " WHERE queue = ?1 AND state = 0 AND (expires IS NULL OR expires > ?2)"
    " AND (?3 IS NULL OR msg_id = ?3) AND (?4 IS NULL OR correl_id = ?4)"
    " AND (?5 IS NULL OR priority < ?5 OR (priority = ?5 AND seq > ?6)) AND visible > ?2",
    // kRemoveMessage
    "DELETE FROM messages WHERE seq = ?1 AND state = 0",
    // kTakeInUnit
    "UPDATE messages SET state = 2, owner = ?2, unit = ?3 WHERE seq = ?1 AND state = 0",
    // kHasExpired
    "SELECT 1 FROM messages WHERE queue = ?1 AND expires <= ?2 AND state <> 2 LIMIT 1",
    // kDiscardExpired
    "DELETE FROM messages WHERE queue = ?1 AND expires <= ?2 AND state <> 2",
    // kReleaseHeld
    "UPDATE messages SET state = 0, owner = NULL WHERE queue = ?1 AND state = 3 AND owner = ?2",
    // kUnitQueues: the queues on which messages of the unit in state ?3 become available
    "SELECT DISTINCT queue FROM messages WHERE owner = ?1 AND unit = ?2 AND state = ?3",
    // kDeleteUnit
    "DELETE FROM messages WHERE owner = ?1 AND unit = ?2 AND state = ?3",
    // kRestoreUnit: ?4 adds to the backout count
    "UPDATE messages SET state = 0, owner = NULL, unit = 0, backout = backout + ?4"
    " WHERE owner = ?1 AND unit = ?2 AND state = ?3",
    // kOwners
    "SELECT DISTINCT owner FROM messages WHERE owner IS NOT NULL",
    // kOwnerQueues
    "SELECT DISTINCT queue FROM messages WHERE owner = ?1 AND state <> 1",
    // kDeleteOwner: the puts of every unit of an owner that ended
    "DELETE FROM messages WHERE owner = ?1 AND state = 1",
    // kRestoreOwner: its gets come back one backout higher, its held messages plainly
    "UPDATE messages SET backout = backout + (state = 2), state = 0, owner = NULL, unit = 0"
    " WHERE owner = ?1",
    // kBegin
    "BEGIN IMMEDIATE",
    // kCommit
    "COMMIT",
    // kRollback
    "ROLLBACK",
};

// The reason of a SQLite result code: memory, or the store itself.
int32_t reasonOf(int result) {
  return (result & 0xFF) == SQLITE_NOMEM ? RC_STORAGE_NOT_AVAILABLE : RC_STORE_ERROR;
}

[[noreturn]] void fail(int result) { throw Failure{reasonOf(result)}; }

// Wall-clock milliseconds of a point of the monotonic clock: the database
// outlives the process, whose monotonic clock means nothing to another.
int64_t wallMilliseconds(Clock::time_point at) {
  const auto fromNow = at - Clock::now();
  const auto wall = std::chrono::system_clock::now() + fromNow;
  return std::chrono::duration_cast<std::chrono::milliseconds>(wall.time_since_epoch()).count();
}

Clock::time_point monotonicPoint(int64_t wallMs) {
  const auto wall = std::chrono::system_clock::time_point(std::chrono::milliseconds(wallMs));
  return Clock::now() +
         std::chrono::duration_cast<Clock::duration>(wall - std::chrono::system_clock::now());
}

// A token naming this store among the processes that share the database.
std::string newOwnerToken() {
  static std::atomic<uint32_t> counter{0};
  const uint64_t now =
      static_cast<uint64_t>(std::chrono::system_clock::now().time_since_epoch().count());
  char text[48];
  std::snprintf(text, sizeof text, "%08" PRIx32 "-%016" PRIx64 "-%" PRIu32,
                static_cast<uint32_t>(getpid()), now, ++counter);
  return text;
}

// One prepared statement in use: bound, stepped, and reset whatever happens.
class Use {
 public:
  explicit Use(sqlite3_stmt *statement) : statement_(statement) {}
  ~Use() {
    sqlite3_reset(statement_);
    sqlite3_clear_bindings(statement_);
  }
  Use(const Use &) = delete;
  Use &operator=(const Use &) = delete;

  Use &text(int index, const std::string &value) {
    check(sqlite3_bind_text(statement_, index, value.data(), static_cast<int>(value.size()),
                            SQLITE_STATIC));
    return *this;
  }
  Use &integer(int index, int64_t value) {
    check(sqlite3_bind_int64(statement_, index, value));
    return *this;
  }
  Use &blob(int index, const void *bytes, size_t length) {
    check(sqlite3_bind_blob(statement_, index, length > 0 ? bytes : "", static_cast<int>(length),
                            SQLITE_STATIC));
    return *this;
  }
  // True while there is a row.
  bool step() {
    const int result = sqlite3_step(statement_);
    if (result == SQLITE_ROW) return true;
    if (result != SQLITE_DONE) fail(result);
    return false;
  }
  void run() { step(); }
  int64_t column(int index) const { return sqlite3_column_int64(statement_, index); }
  bool null(int index) const { return sqlite3_column_type(statement_, index) == SQLITE_NULL; }
  std::string columnText(int index) const {
    const auto *bytes = sqlite3_column_text(statement_, index);
    const int length = sqlite3_column_bytes(statement_, index);
    return bytes == nullptr
               ? std::string()
               : std::string(reinterpret_cast<const char *>(bytes), static_cast<size_t>(length));
  }
  // A blob column: its bytes (null when empty) and length.
  const char *columnBlob(int index, size_t *length) const {
    const void *bytes = sqlite3_column_blob(statement_, index);
    *length = static_cast<size_t>(sqlite3_column_bytes(statement_, index));
    return static_cast<const char *>(bytes);
  }

 private:
  static void check(int result) {
    if (result != SQLITE_OK) fail(result);
  }
  sqlite3_stmt *statement_;
};

// In the owners directory: the suffix of an owner file being made, and the
// file whose lock guards the making (see lockOwnerFile).
constexpr const char *kBuildingSuffix = ".new";
constexpr const char *kGuardName = ".guard";

// The guard of an owners directory, locked as `operation` says (shared, or
// alone and without waiting) for as long as it lives.
class Guard {
 public:
  Guard(const std::string &directory, int operation)
      : fd_(open((directory + "/" + kGuardName).c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600)) {
    if (fd_ < 0) return;
    int result;
    do {
      result = flock(fd_, operation);
    } while (result != 0 && errno == EINTR);
    if (result != 0) {
      ::close(fd_);
      fd_ = -1;
    }
  }
  ~Guard() {
    if (fd_ >= 0) ::close(fd_);
  }
  Guard(const Guard &) = delete;
  Guard &operator=(const Guard &) = delete;

  bool held() const { return fd_ >= 0; }

 private:
  int fd_;
};

class SqliteStore final : public Store {
 public:
  explicit SqliteStore(const std::string &path)
      : owner_(newOwnerToken()), memory_(makeMemoryStore(&SqliteStore::nextLocal, this)) {
    int result =
        sqlite3_open_v2(path.c_str(), &db_,
                        SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX, nullptr);
    if (result != SQLITE_OK) {
      close();
      fail(result);
    }
    try {
      sqlite3_busy_timeout(db_, kBusyTimeoutMilliseconds);
      // WAL: readers and one writer at a time, across processes.  NORMAL:
      // a commit is in the log before it returns, which a killed process
      // cannot undo; only a failure of the machine can lose the latest ones.
      execute("PRAGMA journal_mode = WAL");
      execute("PRAGMA synchronous = NORMAL");
      execute("BEGIN IMMEDIATE");
      try {
        execute(kSchema);
        execute("COMMIT");
      } catch (...) {
        sqlite3_exec(db_, "ROLLBACK", nullptr, nullptr, nullptr);
        throw;
      }
      for (size_t i = 0; i < kStatements; ++i) {
        result = sqlite3_prepare_v3(db_, kStatementTexts[i], -1, SQLITE_PREPARE_PERSISTENT,
                                    &statements_[i], nullptr);
        if (result != SQLITE_OK) fail(result);
      }
      lockOwnerFile(path);
      recoverEndedOwners();
    } catch (...) {
      close();
      throw;
    }
  }

  ~SqliteStore() override {
    // The units this store leaves open back out, its held messages are
    // released: as for a process that ends without committing.
    try {
      endOwner(owner_);
    } catch (...) {
      // Nothing more can be done; the next store to open recovers them.
    }
    close();
  }

  bool shared() const override { return true; }

  bool findQueue(const std::string &name, QueueDefinition *definition) const override {
    // The memory part also knows the queues of the database, by name only.
    QueueDefinition temporaryQueue;
    if (memory_->findQueue(name, &temporaryQueue) && temporary(temporaryQueue)) {
      if (definition != nullptr) *definition = std::move(temporaryQueue);
      return true;
    }
    Use use(statement(kFindQueue));
    use.text(1, name);
    if (!use.step()) return false;
    if (definition != nullptr) {
      QueueDefinition found;
      found.name = name;
      found.queueType = static_cast<int32_t>(use.column(0));
      found.definitionType = static_cast<int32_t>(use.column(1));
      found.description = use.columnText(2);
      found.defaultPersistence = static_cast<int32_t>(use.column(3));
      found.defaultPriority = static_cast<int32_t>(use.column(4));
      found.inhibitGet = static_cast<int32_t>(use.column(5));
      found.inhibitPut = static_cast<int32_t>(use.column(6));
      found.maxMsgLength = static_cast<int32_t>(use.column(7));
      found.maxDepth = static_cast<int32_t>(use.column(8));
      *definition = std::move(found);
    }
    return true;
  }

  void saveQueue(const QueueDefinition &definition) override {
    if (temporary(definition)) {
      memory_->saveQueue(definition);
      return;
    }
    Use use(statement(kSaveQueue));
    use.text(1, definition.name)
        .integer(2, definition.queueType)
        .integer(3, definition.definitionType)
        .text(4, definition.description)
        .integer(5, definition.defaultPersistence)
        .integer(6, definition.defaultPriority)
        .integer(7, definition.inhibitGet)
        .integer(8, definition.inhibitPut)
        .integer(9, definition.maxMsgLength)
        .integer(10, definition.maxDepth)
        .run();
    ensureLocal(definition.name);
  }

  void deleteQueue(const std::string &name) override {
    memory_->deleteQueue(name);
    transaction([&] {
      Use(statement(kDeleteQueueMessages)).text(1, name).run();
      Use(statement(kDeleteQueue)).text(1, name).run();
    });
  }

  std::vector<std::string> queueNames() const override {
    std::vector<std::string> names;
    {
      Use use(statement(kQueueNames));
      while (use.step()) names.push_back(use.columnText(0));
    }
    for (std::string &name : memory_->queueNames()) {
      QueueDefinition definition;
      memory_->findQueue(name, &definition);
      if (temporary(definition)) names.push_back(std::move(name));
    }
    std::sort(names.begin(), names.end());
    return names;
  }

  int32_t depth(const std::string &queue) const override {
    int32_t stored = 0;
    if (!temporaryQueue(queue)) {
      Use use(statement(kDepth));
      use.text(1, queue);
      if (use.step()) stored = static_cast<int32_t>(use.column(0));
    }
    return stored + local(queue).depth(queue);
  }

  MessageKey addMessage(const std::string &queue, Message message, MessageState state,
                        uint64_t unit) override {
    if (message.descriptor.persistence != PERSISTENCE_PERSISTENT || temporaryQueue(queue)) {
      return local(queue).addMessage(queue, std::move(message), state, unit);
    }
    const vxMSGDESC &md = message.descriptor;
    Use use(statement(kAddMessage));
    use.text(1, queue)
        .integer(2, md.priority)
        .integer(3, rowState(state))
        .integer(5, static_cast<int64_t>(unit))
        .blob(6, md.msgId, MSG_ID_LENGTH)
        .blob(7, md.correlId, CORREL_ID_LENGTH)
        .blob(10, &md, sizeof md)
        .blob(11, message.data.data(), message.data.size());
    if (state == MessageState::kPutInUnit || state == MessageState::kHeld) use.text(4, owner_);
    if (message.expiresAt != Clock::time_point::max()) {
      use.integer(8, wallMilliseconds(message.expiresAt));
    }
    if (message.visibleFrom != Clock::time_point::min()) {
      use.integer(9, wallMilliseconds(message.visibleFrom));
    }
    use.run();
    const int64_t row = sqlite3_last_insert_rowid(db_);
    seen(row);
    return MessageKey{md.priority, static_cast<uint64_t>(row) << 32};
  }

  Found findMessage(const std::string &queue, const Selection &selection,
                    Clock::time_point now) const override {
    Found inMemory = local(queue).findMessage(queue, selection, now);
    if (temporaryQueue(queue)) return inMemory;
    Found stored = findStored(queue, selection, now);
    const Clock::time_point nextVisible = std::min(inMemory.nextVisible, stored.nextVisible);
    Found &first = inMemory.message == nullptr                              ? stored
                   : stored.message == nullptr || inMemory.key < stored.key ? inMemory
                                                                            : stored;
    first.nextVisible = nextVisible;
    return first;
  }

  bool removeMessage(const std::string &queue, const MessageKey &key) override {
    if (inMemory(key)) return local(queue).removeMessage(queue, key);
    Use use(statement(kRemoveMessage));
    use.integer(1, row(key)).run();
    return sqlite3_changes(db_) > 0;
  }

  bool takeInUnit(const std::string &queue, const MessageKey &key, uint64_t unit) override {
    if (inMemory(key)) return local(queue).takeInUnit(queue, key, unit);
    Use use(statement(kTakeInUnit));
    use.integer(1, row(key)).text(2, owner_).integer(3, static_cast<int64_t>(unit)).run();
    return sqlite3_changes(db_) > 0;
  }

  int32_t discardExpired(const std::string &queue, Clock::time_point now) override {
    int32_t discarded = local(queue).discardExpired(queue, now);
    if (temporaryQueue(queue)) return discarded;
    const int64_t wallNow = wallMilliseconds(now);
    {
      // A read first: most calls find nothing and need not take the lock
      // that every writing process waits for.
      Use has(statement(kHasExpired));
      has.text(1, queue).integer(2, wallNow);
      if (!has.step()) return discarded;
    }
    Use use(statement(kDiscardExpired));
    use.text(1, queue).integer(2, wallNow).run();
    return discarded + sqlite3_changes(db_);
  }

  void clearQueue(const std::string &queue) override {
    local(queue).clearQueue(queue);
    if (!temporaryQueue(queue)) Use(statement(kDeleteQueueMessages)).text(1, queue).run();
  }

  int32_t releaseHeld(const std::string &queue) override {
    int32_t released = local(queue).releaseHeld(queue);
    if (temporaryQueue(queue)) return released;
    Use use(statement(kReleaseHeld));
    use.text(1, queue).text(2, owner_).run();
    return released + sqlite3_changes(db_);
  }

  std::vector<std::string> commit(uint64_t unit) override { return endUnit(unit, true); }
  std::vector<std::string> backout(uint64_t unit) override { return endUnit(unit, false); }

 private:
  static bool temporary(const QueueDefinition &definition) {
    return definition.queueType == QTYPE_LOCAL &&
           definition.definitionType == DEFTYPE_TEMPORARY_DYNAMIC;
  }
  bool temporaryQueue(const std::string &queue) const {
    QueueDefinition definition;
    return memory_->findQueue(queue, &definition) && temporary(definition);
  }
  static bool inMemory(const MessageKey &key) { return (key.sequence & kLowBits) != 0; }
  static int64_t row(const MessageKey &key) { return static_cast<int64_t>(key.sequence >> 32); }
  static int rowState(MessageState state) {
    switch (state) {
      case MessageState::kAvailable:
        return kAvailable;
      case MessageState::kPutInUnit:
        return kPutInUnit;
      case MessageState::kGotInUnit:
        return kGotInUnit;
      case MessageState::kHeld:
        return kHeld;
    }
    return kAvailable;
  }

  // The memory part of a queue of the database: made on first use, since
  // another process may have defined the queue.
  Store &local(const std::string &queue) const {
    if (!memory_->findQueue(queue, nullptr)) {
      QueueDefinition definition;
      definition.name = queue;
      memory_->saveQueue(definition);
    }
    return *memory_;
  }
  void ensureLocal(const std::string &queue) { local(queue); }

  static uint64_t nextLocal(void *context) {
    auto *store = static_cast<SqliteStore *>(context);
    ++store->localCounter_;
    if ((store->localCounter_ & kLowBits) == 0) ++store->localCounter_;
    return (store->highestRow_ << 32) | (store->localCounter_ & kLowBits);
  }
  void seen(int64_t rowId) const {
    highestRow_ = std::max(highestRow_, static_cast<uint64_t>(rowId));
  }

  Found findStored(const std::string &queue, const Selection &selection,
                   Clock::time_point now) const {
    Found found;
    const int64_t wallNow = wallMilliseconds(now);
    auto bind = [&](Use &use) {
      use.text(1, queue).integer(2, wallNow);
      if (selection.msgId != nullptr) use.blob(3, selection.msgId, MSG_ID_LENGTH);
      if (selection.correlId != nullptr) use.blob(4, selection.correlId, CORREL_ID_LENGTH);
      if (selection.after) {
        use.integer(5, selection.after->priority);
        use.integer(6, static_cast<int64_t>(selection.after->sequence >> 32));
      }
    };
    {
      Use use(statement(kFindMessage));
      bind(use);
      if (use.step()) {
        size_t length = 0;
        const char *descriptor = use.columnBlob(5, &length);
        if (length != sizeof(vxMSGDESC)) throw Failure{RC_STORE_ERROR};
        Message &message = current_;
        std::memcpy(&message.descriptor, descriptor, sizeof message.descriptor);
        message.descriptor.backoutCount = static_cast<int32_t>(use.column(2));
        const char *data = use.columnBlob(6, &length);
        message.data.assign(data, data + length);
        message.expiresAt = use.null(3) ? Clock::time_point::max() : monotonicPoint(use.column(3));
        message.visibleFrom =
            use.null(4) ? Clock::time_point::min() : monotonicPoint(use.column(4));
        const int64_t rowId = use.column(0);
        seen(rowId);
        found.message = &current_;
        found.key =
            MessageKey{static_cast<int32_t>(use.column(1)), static_cast<uint64_t>(rowId) << 32};
        return found;
      }
    }
    Use use(statement(kNextVisible));
    bind(use);
    if (use.step() && !use.null(0)) found.nextVisible = monotonicPoint(use.column(0));
    return found;
  }

  std::vector<std::string> endUnit(uint64_t unit, bool commit) {
    std::vector<std::string> available = commit ? memory_->commit(unit) : memory_->backout(unit);
    const int becoming = commit ? kPutInUnit : kGotInUnit;
    const int leaving = commit ? kGotInUnit : kPutInUnit;
    transaction([&] {
      {
        Use use(statement(kUnitQueues));
        use.text(1, owner_).integer(2, static_cast<int64_t>(unit)).integer(3, becoming);
        while (use.step()) {
          std::string name = use.columnText(0);
          if (std::find(available.begin(), available.end(), name) == available.end()) {
            available.push_back(std::move(name));
          }
        }
      }
      Use(statement(kDeleteUnit))
          .text(1, owner_)
          .integer(2, static_cast<int64_t>(unit))
          .integer(3, leaving)
          .run();
      Use(statement(kRestoreUnit))
          .text(1, owner_)
          .integer(2, static_cast<int64_t>(unit))
          .integer(3, becoming)
          .integer(4, commit ? 0 : 1)
          .run();
    });
    return available;
  }

  // Ends whatever an owner left: its puts in units vanish, its gets in units
  // come back (one backout higher), its held messages become available.
  // Returns the queues on which messages became available.
  std::vector<std::string> endOwner(const std::string &owner) {
    std::vector<std::string> queues;
    transaction([&] {
      {
        Use use(statement(kOwnerQueues));
        use.text(1, owner);
        while (use.step()) queues.push_back(use.columnText(0));
      }
      Use(statement(kDeleteOwner)).text(1, owner).run();
      Use(statement(kRestoreOwner)).text(1, owner).run();
    });
    return queues;
  }

  // A step is one write transaction, but not for a temporary queue, which
  // lives in memory only.  A step within a step is part of it; one that is
  // not kept undoes the outermost.
  void beginStep(const std::string &queue) override {
    if (stepDepth_ == 0 && !temporaryQueue(queue)) {
      Use(statement(kBegin)).run();
      inStep_ = true;
    }
    ++stepDepth_;
  }
  void endStep(bool keep) override {
    if (stepDepth_ == 0) return;
    stepUndone_ = stepUndone_ || !keep;
    if (stepDepth_ > 1) {
      --stepDepth_;
      return;
    }
    if (inStep_) {
      if (stepUndone_) {
        rollback();
      } else {
        Use(statement(kCommit)).run();  // on failure the step stays open, to be undone
      }
    }
    stepDepth_ = 0;
    inStep_ = false;
    stepUndone_ = false;
  }

  // Runs `body` in one write transaction: all of it, or nothing.  Within a
  // step it is part of the step's transaction.
  template <typename Body>
  void transaction(Body body) {
    if (inStep_) {
      body();
      return;
    }
    Use(statement(kBegin)).run();
    try {
      body();
      Use(statement(kCommit)).run();
    } catch (...) {
      rollback();
      throw;
    }
  }

  // Undoes the open transaction; a failure here leaves nothing more to undo.
  void rollback() {
    sqlite3_stmt *statement = this->statement(kRollback);
    sqlite3_step(statement);
    sqlite3_reset(statement);
  }

  // The owner file: <database>.owners/<token>, locked for as long as the
  // store lives (the system drops the lock when the process dies, however it
  // dies).  Made under a temporary name and renamed once locked, so that a
  // file of that name without a lock always means an owner that ended.  A
  // temporary file is unlocked for a moment after it is made: the making
  // holds the directory's guard shared, and only a store holding the guard
  // alone may take such a file for the leftover of a process that died.
  void lockOwnerFile(const std::string &path) {
    ownersDirectory_ = path + ".owners";
    if (mkdir(ownersDirectory_.c_str(), 0700) != 0 && errno != EEXIST) {
      throw Failure{RC_STORE_ERROR};
    }
    const Guard guard(ownersDirectory_, LOCK_SH);
    if (!guard.held()) throw Failure{RC_STORE_ERROR};
    const std::string file = ownerFile(owner_);
    const std::string building = file + kBuildingSuffix;
    ownerFd_ = open(building.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    if (ownerFd_ < 0) throw Failure{RC_STORE_ERROR};
    if (flock(ownerFd_, LOCK_EX) != 0 || rename(building.c_str(), file.c_str()) != 0) {
      unlink(building.c_str());
      throw Failure{RC_STORE_ERROR};
    }
  }

  std::string ownerFile(const std::string &owner) const { return ownersDirectory_ + "/" + owner; }

  // True when the owner's file is gone or not locked: its process ended.
  bool ended(const std::string &owner) const {
    const int fd = open(ownerFile(owner).c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return errno == ENOENT;
    const bool free = flock(fd, LOCK_EX | LOCK_NB) == 0;
    ::close(fd);
    return free;
  }

  // The units and held messages of processes that died are ended here, when
  // a process opens the store, and the files of owners that ended (with
  // units or without) are removed.
  void recoverEndedOwners() {
    std::set<std::string> owners;
    {
      Use use(statement(kOwners));
      while (use.step()) owners.insert(use.columnText(0));
    }
    std::set<std::string> files;
    std::error_code error;
    for (const auto &entry : std::filesystem::directory_iterator(ownersDirectory_, error)) {
      files.insert(entry.path().filename().string());
    }
    for (const std::string &owner : owners) {
      if (owner == owner_ || !ended(owner)) continue;
      endOwner(owner);
      unlink(ownerFile(owner).c_str());
      files.erase(owner);
    }
    // The owners that ended without units; and what a process killed while
    // it made its file left, when no other is making one.
    const Guard guard(ownersDirectory_, LOCK_EX | LOCK_NB);
    for (const std::string &file : files) {
      if (file == kGuardName || file == owner_) continue;
      const bool building = file.ends_with(kBuildingSuffix);
      if ((!building || guard.held()) && ended(file)) unlink(ownerFile(file).c_str());
    }
  }

  void execute(const char *sql) {
    const int result = sqlite3_exec(db_, sql, nullptr, nullptr, nullptr);
    if (result != SQLITE_OK) fail(result);
  }

  sqlite3_stmt *statement(Sql which) const { return statements_[which]; }

  void close() {
    for (sqlite3_stmt *&s : statements_) {
      sqlite3_finalize(s);
      s = nullptr;
    }
    if (db_ != nullptr) sqlite3_close_v2(db_);
    db_ = nullptr;
    if (ownerFd_ >= 0) {
      unlink(ownerFile(owner_).c_str());
      ::close(ownerFd_);
      ownerFd_ = -1;
    }
  }

  const std::string owner_;
  sqlite3 *db_ = nullptr;
  sqlite3_stmt *statements_[kStatements] = {};
  std::string ownersDirectory_;
  int ownerFd_ = -1;
  int stepDepth_ = 0;        // steps begun and not ended
  bool inStep_ = false;      // the outermost step's transaction is open
  bool stepUndone_ = false;  // a step of it was not kept
  // Temporary dynamic queues, and the non-persistent messages of every queue.
  std::unique_ptr<Store> memory_;
  uint64_t localCounter_ = 0;
  mutable uint64_t highestRow_ = 0;
  mutable Message current_;  // the message findMessage found last
};

// Makes the data directory (and its parents) when it is missing: mode 0700.
void makeDirectories(const std::string &path) {
  for (size_t slash = path.find('/', 1);; slash = path.find('/', slash + 1)) {
    const std::string part = path.substr(0, slash);
    if (mkdir(part.c_str(), 0700) != 0 && errno != EEXIST) throw Failure{RC_STORE_ERROR};
    if (slash == std::string::npos) return;
  }
}

}  // namespace

std::unique_ptr<Store> makeSqliteStore(const std::string &path) {
  return std::make_unique<SqliteStore>(path);
}

std::unique_ptr<Store> makeStore(const std::string &qmName) {
  const char *directory = std::getenv("VXQM_DATA");
  if (directory == nullptr || directory[0] == 0) return makeMemoryStore();
  std::string path = directory;
  while (path.size() > 1 && path.back() == '/') path.pop_back();
  makeDirectories(path);
  return makeSqliteStore(path + "/" + qmName + ".db");
}

}  // namespace vxqm
