// The SQLite store: everything of a queue manager, shared by every process
// that opens the same two databases.  docs/persistence.md describes the split
// and why.
//
// - The database on disk ("main") holds what outlives a restart: the queue
//   definitions and the durable messages.
// - The companion database ("v", on storage in memory) holds what does not:
//   messages that are not durable, temporary dynamic queues, open handles,
//   and the owners that hold them.  Its writes never reach a disk.
//
// Like every store it is guarded by its queue manager's mutex: one database
// connection per store, with the companion attached to it, used by one
// thread at a time.  Every statement is prepared once, when the store opens.
// Every change is its own transaction, committed before the call returns,
// so what a call reported done survives a kill of the process.  A unit of
// work is not a database transaction (that would keep every other process
// from writing until it ends): its messages carry their state, the owner's
// token and the unit number in their rows, and other owners skip them until
// the unit ends.
//
// Sequences: every message, in either database, takes a sequence above
// every one that either database ever gave (each keeps its highest, as
// AUTOINCREMENT does), in the put's write transaction, so the delivery
// order is the order of the puts of every process, and a sequence is never
// given again while a process may hold it.  A persistent put reads the
// companion but writes only to the disk.  A key's sequence is the row's
// shifted left by one, its low bit telling which database holds the
// message.
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
#include <cstring>
#include <filesystem>
#include <memory>
#include <set>
#include <utility>

#include "group_sync.h"
#include "processes.h"
#include "shared_file.h"
#include "queue_manager.h"
#include "store.h"

namespace vxqm {
namespace {

constexpr int kBusyTimeoutMilliseconds = 10000;
// The size of a log, in pages, at which a commit copies it into its
// database (SQLite's own default).
constexpr int kCheckpointPages = 1000;
constexpr int32_t kInputOptions = OPEN_INPUT_AS_Q_DEF | OPEN_INPUT_SHARED | OPEN_INPUT_EXCLUSIVE;

enum Row : int { kAvailable = 0, kPutInUnit = 1, kGotInUnit = 2 };

// The two databases that hold messages, by the low bit of a key's sequence.
enum Part : size_t { kDurable = 0, kVolatile = 1, kParts = 2 };
constexpr const char *kPartSchema[kParts] = {"main", "v"};

// The schema, alike in both databases ("{t}" names each): the queues they
// define (the companion's each with the handle that created it), their
// messages, and the depth of each queue, kept by triggers in the same
// transaction as the change, so that a put need not count the queue.  A
// message's sequence is never given again (AUTOINCREMENT): a process that
// found a message removes it by its sequence, and must not remove a newer
// message in its place when another process took the one it found.
constexpr const char *kSchema = R"sql(
CREATE TABLE IF NOT EXISTS {t}.queues (
  name TEXT PRIMARY KEY, queue_type INTEGER, definition_type INTEGER, description TEXT,
  persistence INTEGER, priority INTEGER, inhibit_get INTEGER, inhibit_put INTEGER,
  max_length INTEGER, max_depth INTEGER{creator});
CREATE TABLE IF NOT EXISTS {t}.messages (
  seq INTEGER PRIMARY KEY AUTOINCREMENT, queue TEXT NOT NULL, priority INTEGER NOT NULL,
  state INTEGER NOT NULL, owner TEXT, unit INTEGER NOT NULL DEFAULT 0,
  msg_id BLOB NOT NULL, correl_id BLOB NOT NULL, backout INTEGER NOT NULL DEFAULT 0,
  expires INTEGER, visible INTEGER, descriptor BLOB NOT NULL, data BLOB NOT NULL);
CREATE INDEX IF NOT EXISTS {t}.messages_order ON messages (queue, state, priority DESC, seq);
CREATE INDEX IF NOT EXISTS {t}.messages_expiry ON messages (queue, expires)
  WHERE expires IS NOT NULL;
CREATE INDEX IF NOT EXISTS {t}.messages_owner ON messages (owner, unit) WHERE owner IS NOT NULL;
CREATE TABLE IF NOT EXISTS {t}.depths (queue TEXT PRIMARY KEY, depth INTEGER NOT NULL);
CREATE TRIGGER IF NOT EXISTS {t}.messages_added AFTER INSERT ON messages BEGIN
  INSERT INTO depths VALUES (new.queue, 1) ON CONFLICT (queue) DO UPDATE SET depth = depth + 1;
END;
CREATE TRIGGER IF NOT EXISTS {t}.messages_removed AFTER DELETE ON messages BEGIN
  UPDATE depths SET depth = depth - 1 WHERE queue = old.queue; END;
)sql";

// What only the companion holds: the open handles and the owners, and the
// index of its queues by creator.  A handle number is never given again.
constexpr const char *kVolatileSchema = R"sql(
CREATE INDEX IF NOT EXISTS v.queues_creator ON queues (creator);
CREATE TABLE IF NOT EXISTS v.handles (
  id INTEGER PRIMARY KEY AUTOINCREMENT, queue TEXT NOT NULL, owner TEXT NOT NULL,
  options INTEGER NOT NULL);
CREATE INDEX IF NOT EXISTS v.handles_queue ON handles (queue);
CREATE INDEX IF NOT EXISTS v.handles_owner ON handles (owner);
CREATE TABLE IF NOT EXISTS v.owners (
  token TEXT PRIMARY KEY, host TEXT NOT NULL, pid INTEGER NOT NULL, start_time INTEGER NOT NULL);
)sql";

// The version of the schema on disk (PRAGMA user_version), and what brings
// a database of the first one up to it.
constexpr int kSchemaVersion = 2;
constexpr const char *kDropFirstTriggers =
    "DROP TRIGGER IF EXISTS main.messages_added; DROP TRIGGER IF EXISTS main.messages_removed;";
constexpr const char *kCountDepths =
    "INSERT OR REPLACE INTO main.depths SELECT queue, COUNT(*) FROM main.messages GROUP BY queue;"
    " PRAGMA main.user_version = 2;";

// The statements on messages, once for each part: "{t}" names its schema.
enum PartSql : size_t {
  kAddMessage,
  kFindMessage,
  kNextVisible,
  kRemoveMessage,
  kTakeInUnit,
  kHasExpired,
  kDiscardExpired,
  kClearMessages,
  kUnitQueues,
  kDeleteUnit,
  kRestoreUnit,
  kOwnerQueues,
  kDeleteOwnerPuts,
  kRestoreOwner,
  kDepth,
  kDeleteDepth,
  kPartStatements
};

constexpr const char *kPartTexts[kPartStatements] = {
    // kAddMessage
    "INSERT INTO {t}.messages (seq, queue, priority, state, owner, unit, msg_id, correl_id,"
    " expires, visible, descriptor, data) VALUES (?12, ?1, ?2, ?3, ?4, ?5, ?6, ?7, ?8, ?9, ?10,"
    " ?11)",
    // kFindMessage: ?3 ?4 the ids or null, ?5 ?6 a browse cursor (priority, seq) or null
    "SELECT seq, priority, backout, expires, visible, descriptor, data FROM {t}.messages"
    " WHERE queue = ?1 AND state = 0 AND (expires IS NULL OR expires > ?2)"
    " AND (?3 IS NULL OR msg_id = ?3) AND (?4 IS NULL OR correl_id = ?4)"
    " AND (?5 IS NULL OR priority < ?5 OR (priority = ?5 AND seq > ?6))"
    " AND (visible IS NULL OR visible <= ?2) ORDER BY priority DESC, seq LIMIT 1",
    // kNextVisible
    "SELECT MIN(visible) FROM {t}.messages"
    " WHERE queue = ?1 AND state = 0 AND (expires IS NULL OR expires > ?2)"
    " AND (?3 IS NULL OR msg_id = ?3) AND (?4 IS NULL OR correl_id = ?4)"
    " AND (?5 IS NULL OR priority < ?5 OR (priority = ?5 AND seq > ?6)) AND visible > ?2",
    // kRemoveMessage
    "DELETE FROM {t}.messages WHERE seq = ?1 AND state = 0",
    // kTakeInUnit
    "UPDATE {t}.messages SET state = 2, owner = ?2, unit = ?3 WHERE seq = ?1 AND state = 0",
    // kHasExpired
    "SELECT 1 FROM {t}.messages WHERE queue = ?1 AND expires <= ?2 AND state <> 2 LIMIT 1",
    // kDiscardExpired
    "DELETE FROM {t}.messages WHERE queue = ?1 AND expires <= ?2 AND state <> 2",
    // kClearMessages
    "DELETE FROM {t}.messages WHERE queue = ?1",
    // kUnitQueues: the queues on which messages of the unit in state ?3 become available
    "SELECT DISTINCT queue FROM {t}.messages WHERE owner = ?1 AND unit = ?2 AND state = ?3",
    // kDeleteUnit
    "DELETE FROM {t}.messages WHERE owner = ?1 AND unit = ?2 AND state = ?3",
    // kRestoreUnit: ?4 adds to the backout count
    "UPDATE {t}.messages SET state = 0, owner = NULL, unit = 0, backout = backout + ?4"
    " WHERE owner = ?1 AND unit = ?2 AND state = ?3",
    // kOwnerQueues
    "SELECT DISTINCT queue FROM {t}.messages WHERE owner = ?1 AND state <> 1",
    // kDeleteOwnerPuts: the puts of every unit of an owner that ended
    "DELETE FROM {t}.messages WHERE owner = ?1 AND state = 1",
    // kRestoreOwner: its gets come back one backout higher
    "UPDATE {t}.messages SET backout = backout + (state = 2), state = 0, owner = NULL, unit = 0"
    " WHERE owner = ?1",
    // kDepth
    "SELECT depth FROM {t}.depths WHERE queue = ?1",
    // kDeleteDepth
    "DELETE FROM {t}.depths WHERE queue = ?1",
};

// The other statements, by number.
enum Sql : size_t {
  kFindQueue,
  kInsertQueue,
  kUpdateDurableQueue,
  kUpdateVolatileQueue,
  kCreateTemporaryQueue,
  kDeleteDurableQueue,
  kDeleteVolatileQueue,
  kDeleteQueueHandles,
  kQueueNames,
  kNextSequence,
  kAddHandle,
  kRemoveHandle,
  kHandleExists,
  kQueuesCreatedBy,
  kOpenCounts,
  kOwners,
  kOrphanedOwners,
  kAddOwner,
  kDeleteOwner,
  kOwnerTemporaryQueues,
  kDeleteOwnerHandles,
  kBegin,
  kCommit,
  kRollback,
  kStatements
};

constexpr const char *kStatementTexts[kStatements] = {
    // kFindQueue
    "SELECT queue_type, definition_type, description, persistence, priority, inhibit_get,"
    " inhibit_put, max_length, max_depth FROM v.queues WHERE name = ?1 UNION ALL"
    " SELECT queue_type, definition_type, description, persistence, priority, inhibit_get,"
    " inhibit_put, max_length, max_depth FROM main.queues WHERE name = ?1",
    // kInsertQueue
    "INSERT INTO main.queues (name, queue_type, definition_type, description, persistence,"
    " priority, inhibit_get, inhibit_put, max_length, max_depth)"
    " VALUES (?1, ?2, ?3, ?4, ?5, ?6, ?7, ?8, ?9, ?10)",
    // kUpdateDurableQueue
    "UPDATE main.queues SET queue_type = ?2, definition_type = ?3, description = ?4,"
    " persistence = ?5, priority = ?6, inhibit_get = ?7, inhibit_put = ?8, max_length = ?9,"
    " max_depth = ?10 WHERE name = ?1",
    // kUpdateVolatileQueue
    "UPDATE v.queues SET queue_type = ?2, definition_type = ?3, description = ?4,"
    " persistence = ?5, priority = ?6, inhibit_get = ?7, inhibit_put = ?8, max_length = ?9,"
    " max_depth = ?10 WHERE name = ?1",
    // kCreateTemporaryQueue
    "INSERT INTO v.queues (name, queue_type, definition_type, description, persistence,"
    " priority, inhibit_get, inhibit_put, max_length, max_depth, creator)"
    " VALUES (?1, ?2, ?3, ?4, ?5, ?6, ?7, ?8, ?9, ?10, ?11)",
    // kDeleteDurableQueue
    "DELETE FROM main.queues WHERE name = ?1",
    // kDeleteVolatileQueue
    "DELETE FROM v.queues WHERE name = ?1",
    // kDeleteQueueHandles
    "DELETE FROM v.handles WHERE queue = ?1",
    // kQueueNames
    "SELECT name FROM main.queues UNION ALL SELECT name FROM v.queues ORDER BY name",
    // kNextSequence: above every sequence either database ever gave
    "SELECT MAX(COALESCE((SELECT seq FROM main.sqlite_sequence WHERE name = 'messages'), 0),"
    " COALESCE((SELECT seq FROM v.sqlite_sequence WHERE name = 'messages'), 0)) + 1",
    // kAddHandle
    "INSERT INTO v.handles (queue, owner, options) VALUES (?1, ?2, ?3)",
    // kRemoveHandle
    "DELETE FROM v.handles WHERE id = ?1",
    // kHandleExists
    "SELECT 1 FROM v.handles WHERE id = ?1",
    // kQueuesCreatedBy
    "SELECT name FROM v.queues WHERE creator = ?1 ORDER BY name",
    // kOpenCounts: ?2 the input options, ?3 output, ?4 exclusive input
    "SELECT COUNT(*), COALESCE(SUM((options & ?2) <> 0), 0), COALESCE(SUM((options & ?3) <> 0), 0),"
    " COALESCE(MAX((options & ?4) <> 0), 0) FROM v.handles WHERE queue = ?1",
    // kOwners
    "SELECT token, host, pid, start_time FROM v.owners WHERE token <> ?1",
    // kOrphanedOwners: owners of durable messages that the companion no longer
    // knows (it was emptied by a restart)
    "SELECT DISTINCT owner FROM main.messages WHERE owner IS NOT NULL"
    " AND owner NOT IN (SELECT token FROM v.owners)",
    // kAddOwner
    "INSERT OR REPLACE INTO v.owners (token, host, pid, start_time) VALUES (?1, ?2, ?3, ?4)",
    // kDeleteOwner
    "DELETE FROM v.owners WHERE token = ?1",
    // kOwnerTemporaryQueues
    "SELECT name FROM v.queues WHERE creator IN (SELECT id FROM v.handles WHERE owner = ?1)",
    // kDeleteOwnerHandles
    "DELETE FROM v.handles WHERE owner = ?1",
    // kBegin
    "BEGIN IMMEDIATE",
    // kCommit
    "COMMIT",
    // kRollback
    "ROLLBACK",
};

using admin::StoreFailure;
using admin::StoreProblem;

// The reason of a SQLite result code: memory, a full disk, a database that
// cannot be written, or any other failure of the store.
int32_t reasonOf(int result) {
  switch (result & 0xFF) {
    case SQLITE_NOMEM:
      return RC_STORAGE_NOT_AVAILABLE;
    case SQLITE_FULL:
      return RC_STORE_FULL;
    case SQLITE_READONLY:
      return RC_STORE_READ_ONLY;
    default:
      return RC_STORE_ERROR;
  }
}

// What a person does about a SQLite result code: the engine's code first,
// then the system's error beneath it.
StoreProblem problemOf(int result, int systemError) {
  switch (result & 0xFF) {
    case SQLITE_FULL:
      return StoreProblem::kFull;
    case SQLITE_READONLY:
      return StoreProblem::kReadOnly;
    case SQLITE_NOTADB:
      return StoreProblem::kNotADatabase;
    case SQLITE_CORRUPT:
      return StoreProblem::kDamaged;
    case SQLITE_BUSY:
    case SQLITE_LOCKED:
      return StoreProblem::kBusy;
    case SQLITE_PERM:
    case SQLITE_AUTH:
      return StoreProblem::kPermission;
    default:
      break;
  }
  switch (systemError) {
    case EACCES:
    case EPERM:
      return StoreProblem::kPermission;
    case EROFS:
      return StoreProblem::kReadOnly;
    case ENOSPC:
    case EDQUOT:
      return StoreProblem::kFull;
    default:
      return StoreProblem::kOther;
  }
}

// Where a store tells its failures: the queue manager whose account they
// become (lastStoreFailure), and the files they are about.
struct Reporter {
  std::string qmName;
  std::string database;
  sqlite3 *db = nullptr;  // null before the database opens
  mutable bool reported = false;

  // The failure of a SQLite call on `path` (default: the database), with the
  // engine's own words.
  [[noreturn]] void failed(int result, const std::string &action,
                           const std::string *path = nullptr) const {
    const int systemError = db != nullptr ? sqlite3_system_errno(db) : 0;
    std::string cause = db != nullptr ? sqlite3_errmsg(db) : sqlite3_errstr(result);
    if (systemError != 0 && (result & 0xFF) != SQLITE_NOTADB && (result & 0xFF) != SQLITE_CORRUPT)
      cause += std::string(" (") + std::strerror(systemError) + ")";
    failed(
        {reasonOf(result), problemOf(result, systemError), path ? *path : database, action, cause});
  }
  [[noreturn]] void failed(const StoreFailure &failure) const {
    reported = true;
    storeFailed(qmName, failure);
  }
};

// A prepared statement of a store, with whom its failures are told to.
struct Statement {
  sqlite3_stmt *handle;
  const Reporter *reporter;
};

std::string partText(const char *text, Part part) {
  std::string sql = text;
  for (size_t at = sql.find("{t}"); at != std::string::npos; at = sql.find("{t}", at)) {
    sql.replace(at, 3, kPartSchema[part]);
  }
  return sql;
}

// The schema of one database; the companion's queues name their creator.
std::string schemaOf(Part part) {
  std::string sql = partText(kSchema, part);
  const size_t at = sql.find("{creator}");
  sql.replace(at, 9, part == kVolatile ? ", creator INTEGER NOT NULL" : "");
  return sql;
}

// One prepared statement in use: bound, stepped, and reset whatever happens.
class Use {
 public:
  explicit Use(Statement statement) : statement_(statement.handle), reporter_(statement.reporter) {}
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
  // A queue definition's fields, as ?1 .. ?10.
  Use &definition(const QueueDefinition &definition) {
    return text(1, definition.name)
        .integer(2, definition.queueType)
        .integer(3, definition.definitionType)
        .text(4, definition.description)
        .integer(5, definition.defaultPersistence)
        .integer(6, definition.defaultPriority)
        .integer(7, definition.inhibitGet)
        .integer(8, definition.inhibitPut)
        .integer(9, definition.maxMsgLength)
        .integer(10, definition.maxDepth);
  }
  // True while there is a row.
  bool step() {
    const int result = sqlite3_step(statement_);
    if (result == SQLITE_ROW) return true;
    if (result != SQLITE_DONE) failed(result);
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
  void check(int result) const {
    if (result != SQLITE_OK) failed(result);
  }
  [[noreturn]] void failed(int result) const {
    reporter_->failed(result, sqlite3_stmt_readonly(statement_) ? "reading the database"
                                                                : "writing the database");
  }
  sqlite3_stmt *statement_;
  const Reporter *reporter_;
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

// Makes the companion's file, or checks the one that is there: a regular
// file of this user that no one else may read, never a link.
void prepareCompanion(const Reporter &reporter, const std::string &path) {
  const char *action = "opening the companion";
  const int fd = open(path.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600);
  if (fd < 0) reporter.failed(systemStoreFailure(errno, path, action));
  const bool safe = privateFile(fd);
  ::close(fd);
  if (!safe) {
    reporter.failed({RC_STORE_ERROR, StoreProblem::kPermission, path, action,
                     "it is not a regular file of this user closed to others"});
  }
}

// Why a file of the store, open as `fd`, may not be used, or "" when it may:
// a regular file of this user, made private when others could reach it.
std::string fileProblem(int fd) {
  struct stat info;
  if (fstat(fd, &info) != 0) return std::strerror(errno);
  if (!S_ISREG(info.st_mode)) return "it is not a regular file";
  if (info.st_uid != geteuid()) return "it belongs to another user";
  if ((info.st_mode & 077) != 0 && fchmod(fd, info.st_mode & 0700) != 0)
    return std::string("it cannot be made private (") + std::strerror(errno) + ")";
  return "";
}

// Makes the database file, mode 0600 whatever the umask, before the engine
// opens it (the engine would make it 0644, and its log and shared-memory
// files take the database's mode); a database file, log or shared-memory
// file that is there is checked and made private.  Never follows a link.
void prepareDatabaseFiles(const Reporter &reporter, const std::string &database) {
  const char *action = "making the database";
  int fd = open(database.c_str(), O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
  if (fd >= 0) {
    // Made here: the umask may only have taken permissions away.
    const bool made = fchmod(fd, 0600) == 0;
    const int error = errno;
    ::close(fd);
    if (!made) reporter.failed(systemStoreFailure(error, database, action));
    return;
  }
  if (const int error = errno; error != EEXIST) {
    StoreFailure failure = systemStoreFailure(error, database, action);
    if (error == ELOOP) failure.cause = "it is a link";
    // A directory that cannot be written holds a database that cannot be.
    if (failure.problem == StoreProblem::kPermission) failure.reason = RC_STORE_READ_ONLY;
    reporter.failed(failure);
  }
  for (const char *suffix : {"", "-wal", "-shm"}) {
    const std::string path = database + suffix;
    fd = open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
    if (fd < 0 && errno == ENOENT) continue;
    std::string problem =
        fd < 0 ? (errno == ELOOP ? "it is a link" : std::strerror(errno)) : fileProblem(fd);
    if (fd >= 0) ::close(fd);
    if (!problem.empty()) {
      reporter.failed(
          {RC_STORE_ERROR, StoreProblem::kPermission, path, "opening the database", problem});
    }
  }
}

class SqliteStore final : public Store {
 public:
  explicit SqliteStore(const SqlitePaths &paths)
      : self_(thisProcess()), owner_(newOwnerToken(self_)) {
    self_.token = owner_;
    reporter_.qmName = paths.qmName;
    reporter_.database = paths.database;
    prepareDatabaseFiles(reporter_, paths.database);
    int result =
        sqlite3_open_v2(paths.database.c_str(), &db_,
                        SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX, nullptr);
    reporter_.db = db_;
    if (result != SQLITE_OK) {
      try {
        reporter_.failed(result, "opening the database");
      } catch (...) {
        close();
        throw;
      }
    }
    try {
      sqlite3_busy_timeout(db_, kBusyTimeoutMilliseconds);
      // The database's own header is read before the companion is
      // attached, so that a file that is not a database is named as such.
      execute("PRAGMA main.schema_version", "opening the database");
      prepareCompanion(reporter_, paths.companion);
      attachCompanion(paths.companion);
      // WAL: readers and one writer at a time, across processes.  On disk,
      // NORMAL: SQLite writes a commit to the log before it returns, which
      // a killed process cannot undo, and syncs the log only when it copies
      // it into the database; the group commit syncs it after the commits
      // that must be durable, once for all that came meanwhile.  The
      // companion is never synced: it lives in memory.
      execute("PRAGMA main.journal_mode = WAL");
      execute("PRAGMA main.synchronous = NORMAL");
      execute("PRAGMA v.journal_mode = WAL");
      execute("PRAGMA v.synchronous = OFF");
      execute("BEGIN IMMEDIATE");
      try {
        // A database of the first schema kept its depths in the queues
        // table, by triggers of the same names.
        if (userVersion() < kSchemaVersion) execute(kDropFirstTriggers);
        execute(schemaOf(kDurable).c_str());
        if (userVersion() < kSchemaVersion) execute(kCountDepths);
        execute(schemaOf(kVolatile).c_str());
        execute(kVolatileSchema);
        execute("COMMIT");
      } catch (...) {
        sqlite3_exec(db_, "ROLLBACK", nullptr, nullptr, nullptr);
        throw;
      }
      for (size_t i = 0; i < kStatements; ++i) prepare(kStatementTexts[i], &statements_[i]);
      for (size_t part = 0; part < kParts; ++part) {
        for (size_t i = 0; i < kPartStatements; ++i) {
          prepare(partText(kPartTexts[i], static_cast<Part>(part)).c_str(), &parts_[part][i]);
        }
      }
      lockOwnerFile(paths.database);
      Use(statement(kAddOwner))
          .text(1, owner_)
          .text(2, self_.host)
          .integer(3, self_.pid)
          .integer(4, self_.startTime)
          .run();
      removeLeftoverOwnerFiles();
      if (paths.syncCommits) {
        try {
          group_ = std::make_unique<GroupSync>(paths.companion + ".sync", paths.database + "-wal");
        } catch (const Failure &failure) {
          reporter_.failed({failure.reason, StoreProblem::kOther, paths.companion + ".sync",
                            "opening the counts of the group commit",
                            "it cannot be made, or it is not a regular file of this user closed "
                            "to others"});
        }
      }
      sqlite3_wal_hook(db_, &SqliteStore::committed, this);
    } catch (const Failure &failure) {
      // A database that could be opened only for reading (a read-only file
      // or file system), or whose directory cannot be written (its log
      // cannot be made), is read-only rather than failing.
      const std::string directory = std::filesystem::path(paths.database).parent_path().string();
      const bool fileReadOnly = sqlite3_db_readonly(db_, "main") == 1;
      const bool directoryReadOnly = access(directory.c_str(), W_OK) != 0;
      const int error = errno;
      close();
      StoreFailure account;
      if (!reporter_.reported || !findStoreFailure(paths.qmName, &account)) {
        account = {failure.reason, StoreProblem::kOther, paths.database, "opening the database",
                   "it cannot be opened"};
      }
      if (failure.reason == RC_STORE_ERROR && (fileReadOnly || directoryReadOnly)) {
        account.reason = RC_STORE_READ_ONLY;
        if (directoryReadOnly) {
          account = systemStoreFailure(error, directory, account.action);
          account.reason = RC_STORE_READ_ONLY;
          account.cause = "the directory cannot be written: " + account.cause;
        } else {
          account.problem = StoreProblem::kReadOnly;
        }
      }
      recordStoreFailure(paths.qmName, account);
      throw Failure{account.reason};
    } catch (...) {
      close();
      throw;
    }
  }

  ~SqliteStore() override {
    // What this store leaves is given back as for an owner that ended: its
    // handles close, its units back out.
    try {
      endOwner(self_);
    } catch (...) {
      // Nothing more can be done; the next look at the owners ends it.
    }
    close();
  }

  bool findQueue(const std::string &name, QueueDefinition *definition) const override {
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

  // A queue that dies with its handle need not outlive a restart: it is
  // kept in the companion.
  void createQueue(const QueueDefinition &definition, int64_t creator) override {
    if (creator == 0) {
      Use(statement(kInsertQueue)).definition(definition).run();
    } else {
      Use(statement(kCreateTemporaryQueue)).definition(definition).integer(11, creator).run();
    }
  }

  void saveQueue(const QueueDefinition &definition) override {
    transaction([&] {
      Use(statement(kUpdateVolatileQueue)).definition(definition).run();
      if (sqlite3_changes(db_) > 0) return;
      Use(statement(kUpdateDurableQueue)).definition(definition).run();
      if (sqlite3_changes(db_) > 0) return;
      Use(statement(kInsertQueue)).definition(definition).run();
    });
  }

  void deleteQueue(const std::string &name) override {
    transaction([&] { deleteQueueRows(name); });
  }

  std::vector<std::string> queueNames() const override {
    std::vector<std::string> names;
    Use use(statement(kQueueNames));
    while (use.step()) names.push_back(use.columnText(0));
    return names;
  }

  int64_t addHandle(const std::string &queue, int32_t options) override {
    Use(statement(kAddHandle)).text(1, queue).text(2, owner_).integer(3, options).run();
    return sqlite3_last_insert_rowid(db_);
  }

  void removeHandle(int64_t handle) override {
    Use(statement(kRemoveHandle)).integer(1, handle).run();
  }

  bool handleExists(int64_t handle) const override {
    Use use(statement(kHandleExists));
    use.integer(1, handle);
    return use.step();
  }

  std::vector<std::string> queuesCreatedBy(int64_t handle) const override {
    std::vector<std::string> names;
    Use use(statement(kQueuesCreatedBy));
    use.integer(1, handle);
    while (use.step()) names.push_back(use.columnText(0));
    return names;
  }

  OpenCounts openCounts(const std::string &queue) const override {
    Use use(statement(kOpenCounts));
    use.text(1, queue)
        .integer(2, kInputOptions)
        .integer(3, OPEN_OUTPUT)
        .integer(4, OPEN_INPUT_EXCLUSIVE);
    OpenCounts counts;
    if (use.step()) {
      counts.handles = static_cast<int32_t>(use.column(0));
      counts.input = static_cast<int32_t>(use.column(1));
      counts.output = static_cast<int32_t>(use.column(2));
      counts.exclusiveInput = use.column(3) != 0;
    }
    return counts;
  }

  int32_t depth(const std::string &queue) const override {
    int64_t depth = 0;
    for (size_t part = 0; part < kParts; ++part) {
      Use use(partStatement(static_cast<Part>(part), kDepth));
      use.text(1, queue);
      if (use.step()) depth += use.column(0);
    }
    return static_cast<int32_t>(depth);
  }

  MessageKey addMessage(const std::string &queue, Message message, Durability durability,
                        MessageState state, uint64_t unit) override {
    const Part part = durability == Durability::kDurable ? kDurable : kVolatile;
    const vxMSGDESC &md = message.descriptor;
    int64_t sequence = 0;
    transaction([&] {
      {
        Use next(statement(kNextSequence));
        if (!next.step()) throw Failure{RC_STORE_ERROR};
        sequence = next.column(0);
      }
      Use use(partStatement(part, kAddMessage));
      use.text(1, queue)
          .integer(2, md.priority)
          .integer(3, rowState(state))
          .integer(5, static_cast<int64_t>(unit))
          .blob(6, md.msgId, MSG_ID_LENGTH)
          .blob(7, md.correlId, CORREL_ID_LENGTH)
          .blob(10, &md, sizeof md)
          .blob(11, message.data.data(), message.data.size())
          .integer(12, sequence);
      if (state == MessageState::kPutInUnit) use.text(4, owner_);
      if (message.expiresAt != Clock::time_point::max()) {
        use.integer(8, wallMilliseconds(message.expiresAt));
      }
      if (message.visibleFrom != Clock::time_point::min()) {
        use.integer(9, wallMilliseconds(message.visibleFrom));
      }
      use.run();
    });
    return MessageKey{md.priority, keySequence(sequence, part)};
  }

  Found findMessage(const std::string &queue, const Selection &selection,
                    Clock::time_point now) const override {
    Found first;
    for (size_t part = 0; part < kParts; ++part) {
      Found found = findIn(static_cast<Part>(part), queue, selection, now);
      const Clock::time_point nextVisible = std::min(first.nextVisible, found.nextVisible);
      if (found.message != nullptr && (first.message == nullptr || found.key < first.key)) {
        first = found;
      }
      first.nextVisible = nextVisible;
    }
    if (first.message != nullptr) {
      // Kept where the caller reads it until the next call that changes the store.
      const Part part = partOf(first.key);
      current_ = std::move(candidates_[part]);
      first.message = &current_;
    }
    return first;
  }

  bool removeMessage(const std::string & /*queue*/, const MessageKey &key) override {
    Use use(partStatement(partOf(key), kRemoveMessage));
    use.integer(1, row(key)).run();
    return sqlite3_changes(db_) > 0;
  }

  bool takeInUnit(const std::string & /*queue*/, const MessageKey &key, uint64_t unit) override {
    Use use(partStatement(partOf(key), kTakeInUnit));
    use.integer(1, row(key)).text(2, owner_).integer(3, static_cast<int64_t>(unit)).run();
    return sqlite3_changes(db_) > 0;
  }

  int32_t discardExpired(const std::string &queue, Clock::time_point now) override {
    const int64_t wallNow = wallMilliseconds(now);
    int32_t discarded = 0;
    for (size_t part = 0; part < kParts; ++part) {
      {
        // A read first: most calls find nothing and need not take the lock
        // that every writing process waits for.
        Use has(partStatement(static_cast<Part>(part), kHasExpired));
        has.text(1, queue).integer(2, wallNow);
        if (!has.step()) continue;
      }
      Use use(partStatement(static_cast<Part>(part), kDiscardExpired));
      use.text(1, queue).integer(2, wallNow).run();
      discarded += sqlite3_changes(db_);
    }
    return discarded;
  }

  void clearQueue(const std::string &queue) override {
    transaction([&] {
      for (size_t part = 0; part < kParts; ++part) {
        Use(partStatement(static_cast<Part>(part), kClearMessages)).text(1, queue).run();
      }
    });
  }

  std::vector<std::string> commit(uint64_t unit) override { return endUnit(unit, true); }
  std::vector<std::string> backout(uint64_t unit) override { return endUnit(unit, false); }

  std::vector<Owner> owners() const override {
    std::vector<Owner> owners;
    {
      Use use(statement(kOwners));
      use.text(1, owner_);
      while (use.step()) {
        Owner owner;
        owner.token = use.columnText(0);
        owner.host = use.columnText(1);
        owner.pid = static_cast<int32_t>(use.column(2));
        owner.startTime = use.column(3);
        owners.push_back(std::move(owner));
      }
    }
    Use use(statement(kOrphanedOwners));
    while (use.step()) {
      Owner owner;
      owner.token = use.columnText(0);
      owners.push_back(std::move(owner));
    }
    return owners;
  }

  // An owner's file is locked for as long as its store lives, and the system
  // drops the lock when the process ends, however it ends.
  bool ownerEnded(const Owner &owner) const override {
    if (owner.token == owner_) return false;
    const int fd = open(ownerFile(owner.token).c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return errno == ENOENT;
    const bool free = flock(fd, LOCK_EX | LOCK_NB) == 0;
    ::close(fd);
    return free;
  }

  std::vector<std::string> endOwner(const Owner &owner) override {
    std::vector<std::string> available;
    transaction([&] {
      for (size_t part = 0; part < kParts; ++part) {
        Use use(partStatement(static_cast<Part>(part), kOwnerQueues));
        use.text(1, owner.token);
        while (use.step()) addName(available, use.columnText(0));
      }
      std::vector<std::string> temporary;
      {
        Use use(statement(kOwnerTemporaryQueues));
        use.text(1, owner.token);
        while (use.step()) temporary.push_back(use.columnText(0));
      }
      for (const std::string &name : temporary) deleteQueueRows(name);
      for (size_t part = 0; part < kParts; ++part) {
        Use(partStatement(static_cast<Part>(part), kDeleteOwnerPuts)).text(1, owner.token).run();
        Use(partStatement(static_cast<Part>(part), kRestoreOwner)).text(1, owner.token).run();
      }
      Use(statement(kDeleteOwnerHandles)).text(1, owner.token).run();
      Use(statement(kDeleteOwner)).text(1, owner.token).run();
    });
    if (owner.token != owner_) unlink(ownerFile(owner.token).c_str());
    return available;
  }

  uint64_t durableTicket() override { return std::exchange(durableTicket_, 0); }

  void waitDurable(uint64_t ticket) override {
    if (group_) group_->waitDurable(ticket);
  }

  // A step is one write transaction of both databases.  A step within a step
  // is part of it; one that is not kept undoes the outermost.
  void beginStep() override {
    if (stepDepth_ == 0) Use(statement(kBegin)).run();
    ++stepDepth_;
  }

  void endStep(bool keep) override {
    if (stepDepth_ == 0) return;
    stepUndone_ = stepUndone_ || !keep;
    if (stepDepth_ > 1) {
      --stepDepth_;
      return;
    }
    if (stepUndone_) {
      rollback();
    } else {
      Use(statement(kCommit)).run();  // on failure the step stays open, to be undone
    }
    stepDepth_ = 0;
    stepUndone_ = false;
  }

 private:
  static void addName(std::vector<std::string> &names, std::string name) {
    if (std::find(names.begin(), names.end(), name) == names.end())
      names.push_back(std::move(name));
  }
  static uint64_t keySequence(int64_t sequence, Part part) {
    return (static_cast<uint64_t>(sequence) << 1) | part;
  }
  static Part partOf(const MessageKey &key) { return static_cast<Part>(key.sequence & 1); }
  static int64_t row(const MessageKey &key) { return static_cast<int64_t>(key.sequence >> 1); }
  static int rowState(MessageState state) {
    switch (state) {
      case MessageState::kAvailable:
        return kAvailable;
      case MessageState::kPutInUnit:
        return kPutInUnit;
      case MessageState::kGotInUnit:
        return kGotInUnit;
    }
    return kAvailable;
  }

  // Within a transaction: the queue, its messages, depths and handles.
  void deleteQueueRows(const std::string &name) {
    for (size_t part = 0; part < kParts; ++part) {
      Use(partStatement(static_cast<Part>(part), kClearMessages)).text(1, name).run();
      Use(partStatement(static_cast<Part>(part), kDeleteDepth)).text(1, name).run();
    }
    Use(statement(kDeleteDurableQueue)).text(1, name).run();
    Use(statement(kDeleteVolatileQueue)).text(1, name).run();
    Use(statement(kDeleteQueueHandles)).text(1, name).run();
  }

  Found findIn(Part part, const std::string &queue, const Selection &selection,
               Clock::time_point now) const {
    Found found;
    const int64_t wallNow = wallMilliseconds(now);
    auto bind = [&](Use &use) {
      use.text(1, queue).integer(2, wallNow);
      if (selection.msgId != nullptr) use.blob(3, selection.msgId, MSG_ID_LENGTH);
      if (selection.correlId != nullptr) use.blob(4, selection.correlId, CORREL_ID_LENGTH);
      if (selection.after) {
        use.integer(5, selection.after->priority);
        use.integer(6, row(*selection.after));
      }
    };
    {
      Use use(partStatement(part, kFindMessage));
      bind(use);
      if (use.step()) {
        size_t length = 0;
        const char *descriptor = use.columnBlob(5, &length);
        if (length != sizeof(vxMSGDESC)) {
          reporter_.failed({RC_STORE_ERROR, StoreProblem::kDamaged, reporter_.database,
                            "reading the database", "a message's descriptor has the wrong length"});
        }
        Message &message = candidates_[part];
        std::memcpy(&message.descriptor, descriptor, sizeof message.descriptor);
        message.descriptor.backoutCount = static_cast<int32_t>(use.column(2));
        const char *data = use.columnBlob(6, &length);
        message.data.assign(data, data + length);
        message.expiresAt = use.null(3) ? Clock::time_point::max() : monotonicPoint(use.column(3));
        message.visibleFrom =
            use.null(4) ? Clock::time_point::min() : monotonicPoint(use.column(4));
        found.message = &message;
        found.key =
            MessageKey{static_cast<int32_t>(use.column(1)), keySequence(use.column(0), part)};
        return found;
      }
    }
    Use use(partStatement(part, kNextVisible));
    bind(use);
    if (use.step() && !use.null(0)) found.nextVisible = monotonicPoint(use.column(0));
    return found;
  }

  std::vector<std::string> endUnit(uint64_t unit, bool commit) {
    std::vector<std::string> available;
    const int becoming = commit ? kPutInUnit : kGotInUnit;
    const int leaving = commit ? kGotInUnit : kPutInUnit;
    transaction([&] {
      for (size_t p = 0; p < kParts; ++p) {
        const Part part = static_cast<Part>(p);
        {
          Use use(partStatement(part, kUnitQueues));
          use.text(1, owner_).integer(2, static_cast<int64_t>(unit)).integer(3, becoming);
          while (use.step()) addName(available, use.columnText(0));
        }
        Use(partStatement(part, kDeleteUnit))
            .text(1, owner_)
            .integer(2, static_cast<int64_t>(unit))
            .integer(3, leaving)
            .run();
        Use(partStatement(part, kRestoreUnit))
            .text(1, owner_)
            .integer(2, static_cast<int64_t>(unit))
            .integer(3, becoming)
            .integer(4, commit ? 0 : 1)
            .run();
      }
    });
    return available;
  }

  // Runs `body` in one write transaction: all of it, or nothing.  Within a
  // step it is part of the step's transaction.
  template <typename Body>
  void transaction(Body body) {
    if (stepDepth_ > 0) {
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
    sqlite3_stmt *statement = statements_[kRollback];
    sqlite3_step(statement);
    sqlite3_reset(statement);
  }

  void attachCompanion(const std::string &path) {
    sqlite3_stmt *attach = nullptr;
    prepare("ATTACH DATABASE ?1 AS v", &attach);
    sqlite3_bind_text(attach, 1, path.c_str(), -1, SQLITE_TRANSIENT);
    const int result = sqlite3_step(attach);
    sqlite3_finalize(attach);
    if (result != SQLITE_DONE) reporter_.failed(result, "attaching the companion", &path);
  }

  // The owner file: <database>.owners/<token>, locked for as long as the
  // store lives.  Made under a temporary name and renamed once locked, so
  // that a file of that name without a lock always means an owner that
  // ended.  A temporary file is unlocked for a moment after it is made: the
  // making holds the directory's guard shared, and only a store holding the
  // guard alone may take such a file for the leftover of a process that died.
  void lockOwnerFile(const std::string &path) {
    ownersDirectory_ = path + ".owners";
    const char *action = "opening the owners directory";
    if (mkdir(ownersDirectory_.c_str(), 0700) != 0 && errno != EEXIST) {
      reporter_.failed(systemStoreFailure(errno, ownersDirectory_, action));
    }
    // Private whatever the umask, and never another's: its files are locks
    // that other processes trust.
    const int directory =
        open(ownersDirectory_.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    if (directory < 0) reporter_.failed(systemStoreFailure(errno, ownersDirectory_, action));
    struct stat info;
    if (fstat(directory, &info) == 0 && info.st_uid == geteuid() && (info.st_mode & 077) != 0)
      fchmod(directory, 0700);
    const std::string problem = directoryProblem(directory);
    ::close(directory);
    if (!problem.empty()) {
      reporter_.failed(
          {RC_STORE_ERROR, StoreProblem::kUnsafeDirectory, ownersDirectory_, action, problem});
    }
    const Guard guard(ownersDirectory_, LOCK_SH);
    if (!guard.held()) {
      reporter_.failed(systemStoreFailure(errno, ownersDirectory_ + "/" + kGuardName,
                                          "locking the owners directory"));
    }
    const std::string file = ownerFile(owner_);
    const std::string building = file + kBuildingSuffix;
    ownerFd_ = open(building.c_str(), O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
    if (ownerFd_ < 0)
      reporter_.failed(systemStoreFailure(errno, building, "making the owner file"));
    if (flock(ownerFd_, LOCK_EX) != 0 || rename(building.c_str(), file.c_str()) != 0) {
      const int error = errno;
      unlink(building.c_str());
      reporter_.failed(systemStoreFailure(error, file, "locking the owner file"));
    }
  }

  std::string ownerFile(const std::string &owner) const { return ownersDirectory_ + "/" + owner; }

  // The files of owners that ended holding nothing (those that held
  // something are removed when they are ended), and what a process killed
  // while it made its file left, when no other is making one.
  void removeLeftoverOwnerFiles() {
    std::set<std::string> holding;
    for (const Owner &owner : owners()) holding.insert(owner.token);
    std::vector<std::string> files;
    std::error_code error;
    for (const auto &entry : std::filesystem::directory_iterator(ownersDirectory_, error)) {
      files.push_back(entry.path().filename().string());
    }
    const Guard guard(ownersDirectory_, LOCK_EX | LOCK_NB);
    for (const std::string &file : files) {
      if (file == kGuardName || file == owner_ || holding.contains(file)) continue;
      const bool building = file.ends_with(kBuildingSuffix);
      Owner named;
      named.token = file;
      if ((!building || guard.held()) && ownerEnded(named)) unlink(ownerFile(file).c_str());
    }
  }

  void prepare(const char *sql, sqlite3_stmt **statement) {
    const int result =
        sqlite3_prepare_v3(db_, sql, -1, SQLITE_PREPARE_PERSISTENT, statement, nullptr);
    if (result != SQLITE_OK) reporter_.failed(result, "preparing the database");
  }

  int userVersion() {
    sqlite3_stmt *query = nullptr;
    prepare("PRAGMA main.user_version", &query);
    const int result = sqlite3_step(query);
    const int version = result == SQLITE_ROW ? sqlite3_column_int(query, 0) : 0;
    sqlite3_finalize(query);
    if (result != SQLITE_ROW) reporter_.failed(result, "reading the database");
    return version;
  }

  void execute(const char *sql, const char *action = "preparing the database") {
    const int result = sqlite3_exec(db_, sql, nullptr, nullptr, nullptr);
    if (result != SQLITE_OK) reporter_.failed(result, action);
  }

  Statement statement(Sql which) const { return {statements_[which], &reporter_}; }
  Statement partStatement(Part part, PartSql which) const {
    return {parts_[part][which], &reporter_};
  }

  void close() {
    for (sqlite3_stmt *&s : statements_) {
      sqlite3_finalize(s);
      s = nullptr;
    }
    for (auto &part : parts_) {
      for (sqlite3_stmt *&s : part) {
        sqlite3_finalize(s);
        s = nullptr;
      }
    }
    if (db_ != nullptr) sqlite3_close_v2(db_);
    db_ = nullptr;
    reporter_.db = nullptr;
    if (ownerFd_ >= 0) {
      unlink(ownerFile(owner_).c_str());
      ::close(ownerFd_);
      ownerFd_ = -1;
    }
  }

  // After every commit that wrote to a log: a commit to the database on disk
  // takes its ticket of the group commit.  The hook takes the place of
  // SQLite's own, whose checkpoint it makes too.
  static int committed(void *context, sqlite3 *db, const char *schema, int pages) {
    auto *store = static_cast<SqliteStore *>(context);
    if (store->group_ && std::strcmp(schema, "main") == 0) {
      store->durableTicket_ = store->group_->committed();
    }
    if (pages >= kCheckpointPages) {
      sqlite3_wal_checkpoint_v2(db, schema, SQLITE_CHECKPOINT_PASSIVE, nullptr, nullptr);
    }
    return SQLITE_OK;
  }

  Owner self_;
  const std::string owner_;
  Reporter reporter_;
  sqlite3 *db_ = nullptr;
  sqlite3_stmt *statements_[kStatements] = {};
  sqlite3_stmt *parts_[kParts][kPartStatements] = {};
  std::string ownersDirectory_;
  int ownerFd_ = -1;
  std::unique_ptr<GroupSync> group_;    // null: commits are not synced
  uint64_t durableTicket_ = 0;          // the last commit to disk not yet asked for
  int stepDepth_ = 0;                   // steps begun and not ended
  bool stepUndone_ = false;             // a step of it was not kept
  mutable Message candidates_[kParts];  // what findIn found in each part
  mutable Message current_;             // the message findMessage found last
};

}  // namespace

std::unique_ptr<Store> makeSqliteStore(const SqlitePaths &paths) {
  return std::make_unique<SqliteStore>(paths);
}

}  // namespace vxqm
