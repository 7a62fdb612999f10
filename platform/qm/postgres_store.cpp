// The PostgreSQL store: everything of a queue manager in one schema of a
// database (named as the queue manager, quoted), shared by every process on
// every host that names the same database.  docs/persistence.md describes
// the tables.
//
// - Logged tables hold what outlives a restart of the server: the queue
//   definitions and the durable messages.
// - UNLOGGED tables hold what does not: messages that are not durable,
//   temporary dynamic queues, open handles and their owners.  A crash of
//   the server empties them, as a restart of the machine empties the SQLite
//   store's companion.  The messages and the queues are each one table
//   partitioned by durability, a logged partition and an unlogged one, so
//   that one statement reads or takes across both in delivery order.  The
//   depths are counters in an unlogged table, counted again from the
//   messages when a crash emptied it.
//
// Like every store it is guarded by its queue manager's mutex: one
// connection per store, used by one thread at a time.  A call that changes
// more than one row is one transaction; a step is one transaction (steps
// within it are part of it).  A unit of work is not a transaction: its
// messages carry their state, the owner's token and the unit number, and
// others skip them until it ends.
//
// Owners: each store holds a session advisory lock keyed by the schema and
// its token for as long as its session lives.  The server drops it when the
// session ends, however it ends (a killed process, a lost host once the
// keepalives give up), so a free lock means an owner that ended.
//
// Durability: PostgreSQL's own commit is durable when it returns (with
// synchronous_commit as the server has it), and commits of many sessions
// share their flushes in the server: the store has nothing more to wait
// for, and durableTicket is always 0.
//
// A lost connection: the call fails with RC_CONNECTION_BROKEN; the next one
// opens a new session, with a new owner token (session() counts them).
// What the old session held is given back as for an owner that died, by
// whichever store finds its lock free first.
#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <map>
#include <memory>
#include <set>
#include <utility>

#include "pg.h"
#include "processes.h"
#include "queue_manager.h"
#include "store.h"

namespace vxqm {
namespace {

constexpr int32_t kInputOptions = OPEN_INPUT_AS_Q_DEF | OPEN_INPUT_SHARED | OPEN_INPUT_EXCLUSIVE;
// Version 1 kept each queue's depth in one row per durability, which every
// put and get locked; version 2 keeps counters that gets do not share with
// puts (kDepths).
constexpr int kSchemaVersion = 2;
// The counters of removals of each queue: a session adds to the one its
// server process picks, so that gets at once seldom wait for each other.
#define VX_REMOVAL_SLOTS "8"
// How often a transaction that lost a deadlock to another is tried again.
constexpr int kTransactionTries = 3;

enum Row : int { kAvailable = 0, kPutInUnit = 1, kGotInUnit = 2 };

// The tables of a queue manager as the first version made them, in its
// schema (the search path), less its depths, which kDepths makes.  A
// message's sequence comes from one logged sequence, never given again,
// even after a crash of the server.
constexpr const char *kTables = R"sql(
CREATE TABLE schema_version (version integer NOT NULL);
CREATE TABLE queues (
  name text NOT NULL, temporary boolean NOT NULL, queue_type integer NOT NULL,
  definition_type integer NOT NULL, description text NOT NULL, persistence integer NOT NULL,
  priority integer NOT NULL, inhibit_get integer NOT NULL, inhibit_put integer NOT NULL,
  max_length integer NOT NULL, max_depth integer NOT NULL, creator bigint,
  PRIMARY KEY (name, temporary)) PARTITION BY LIST (temporary);
CREATE TABLE durable_queues PARTITION OF queues FOR VALUES IN (false);
CREATE UNLOGGED TABLE temporary_queues PARTITION OF queues FOR VALUES IN (true);
CREATE INDEX temporary_queues_creator ON temporary_queues (creator);
CREATE SEQUENCE message_sequence;
CREATE TABLE messages (
  seq bigint NOT NULL, durable boolean NOT NULL, queue text NOT NULL, priority integer NOT NULL,
  state smallint NOT NULL, owner text, unit bigint NOT NULL DEFAULT 0, msg_id bytea NOT NULL,
  correl_id bytea NOT NULL, backout integer NOT NULL DEFAULT 0, expires bigint, visible bigint,
  descriptor bytea NOT NULL, data bytea NOT NULL,
  PRIMARY KEY (seq, durable)) PARTITION BY LIST (durable);
CREATE TABLE durable_messages PARTITION OF messages FOR VALUES IN (true);
CREATE UNLOGGED TABLE volatile_messages PARTITION OF messages FOR VALUES IN (false);
CREATE INDEX messages_order ON messages (queue, state, priority DESC, seq);
CREATE INDEX messages_msg_id ON messages (queue, msg_id);
CREATE INDEX messages_correl_id ON messages (queue, correl_id);
CREATE INDEX messages_expiry ON messages (queue, expires) WHERE expires IS NOT NULL;
CREATE INDEX messages_visible ON messages (queue, visible) WHERE visible IS NOT NULL;
CREATE INDEX messages_owner ON messages (owner, unit) WHERE owner IS NOT NULL;
CREATE SEQUENCE handle_sequence;
CREATE UNLOGGED TABLE handles (
  id bigint PRIMARY KEY, queue text NOT NULL, owner text NOT NULL, options integer NOT NULL);
CREATE INDEX handles_queue ON handles (queue);
CREATE INDEX handles_owner ON handles (owner);
CREATE UNLOGGED TABLE owners (
  token text PRIMARY KEY, host text NOT NULL, pid integer NOT NULL, start_time bigint NOT NULL);
INSERT INTO schema_version VALUES (1);
)sql";

// Each queue's depth, by counters: the depth is the sum of the queue's
// rows, kept by every statement that adds or removes messages, in its own
// transaction.  Slot 0 counts what was added and is the queue's lock for
// puts: a put's depth check updates it (VX_HOLD_DEPTH), so that the maximum
// depth holds across hosts.  Slots 1 to VX_REMOVAL_SLOTS count, negatively,
// what was removed (VX_REMOVAL_SLOT), each by the sessions whose server
// process picks it, so that a get waits neither for puts nor, mostly, for
// other gets.  A queue has all its rows from its creation to its deletion.
// The table is unlogged, so that a non-persistent put writes nothing to the
// log; a crash of the server empties it, and kCountDepths counts the
// messages again.  Replaces the first version's depths, which were one row
// per queue and durability, kept by triggers.
constexpr const char *kDepths = R"sql(
DROP TABLE IF EXISTS depths CASCADE;
DROP FUNCTION IF EXISTS messages_added() CASCADE;
DROP FUNCTION IF EXISTS messages_removed() CASCADE;
CREATE UNLOGGED TABLE depths (
  queue text NOT NULL, slot smallint NOT NULL, depth bigint NOT NULL, PRIMARY KEY (queue, slot));
UPDATE schema_version SET version = 2;
)sql";

// The slot in which this session counts what it removes.
#define VX_REMOVAL_SLOT "1 + pg_backend_pid() % " VX_REMOVAL_SLOTS

// A put's hold on its queue's depth, a CTE named `held` that has a row when
// the message may be added: slot 0 is raised by one when its count, with
// the removals as the statement sees them, is below `limit` and
// `condition` holds.  A put of another session waits here for that one to
// end, and then reads what it added.  A removal that ends meanwhile is
// missed, which makes the queue look fuller, never emptier.  Expired
// messages still count: a put that finds the queue full discards them and
// tries again (addMessageWithin, addChecked).
#define VX_HOLD_DEPTH(queue, limit, condition)                         \
  " held AS (UPDATE depths SET depth = depth + 1 WHERE queue = " queue \
  " AND slot = 0"                                                      \
  " AND " condition                                                    \
  " AND depth + (SELECT coalesce(sum(depth), 0) FROM depths"           \
  " WHERE queue = " queue " AND slot > 0) < " limit " RETURNING 1)"

// A CTE that counts `count` messages removed from `queue` in this
// session's slot, when there are any.
#define VX_COUNT_REMOVED_FROM(queue, count) \
  VX_COUNT_REMOVED_SET count VX_COUNT_REMOVED_WHERE(queue) count " > 0)"
#define VX_COUNT_REMOVED_SET " counted AS (UPDATE depths SET depth = depth - "
#define VX_COUNT_REMOVED_WHERE(queue) " WHERE queue = " queue " AND slot = " VX_REMOVAL_SLOT " AND "

// A CTE that counts the messages that `removed` (a CTE that returns their
// queue) took away, of any queues, in this session's slot of each.
#define VX_COUNT_REMOVED(removed)                                                  \
  " counted AS (UPDATE depths d SET depth = d.depth - g.count FROM (SELECT queue," \
  " count(*) FROM " removed                                                        \
  " GROUP BY queue) g WHERE d.queue = g.queue"                                     \
  " AND d.slot = " VX_REMOVAL_SLOT ")"

// The unlogged tables, emptied as a crash of the server empties them (the
// next session counts the depths again).
constexpr const char *kEmptyVolatile =
    "TRUNCATE volatile_messages, temporary_queues, depths, handles, owners";

using pg::Statement;
const Statement kBegin{nullptr, "BEGIN"};
const Statement kCommit{nullptr, "COMMIT"};
const Statement kRollback{nullptr, "ROLLBACK"};
const Statement kNotify{"notify", "SELECT pg_notify($1, $2)"};
const Statement kFindQueue{
    "find_queue",
    "SELECT queue_type, definition_type, description, persistence, priority, inhibit_get,"
    " inhibit_put, max_length, max_depth FROM queues WHERE name = $1 LIMIT 1"};
const Statement kInsertQueue{
    "insert_queue",
    "WITH d AS (INSERT INTO depths SELECT $1, s, CASE WHEN s = 0 THEN (SELECT count(*)"
    " FROM messages WHERE queue = $1) ELSE 0 END FROM generate_series(0, " VX_REMOVAL_SLOTS
    ") s"
    " ON CONFLICT (queue, slot) DO UPDATE SET depth = excluded.depth)"
    " INSERT INTO queues (name, temporary, queue_type, definition_type, description, persistence,"
    " priority, inhibit_get, inhibit_put, max_length, max_depth, creator)"
    " VALUES ($1, $11::bigint IS NOT NULL, $2, $3, $4, $5, $6, $7, $8, $9, $10, $11)"};
const Statement kUpdateQueue{
    "update_queue",
    "UPDATE queues SET queue_type = $2, definition_type = $3, description = $4,"
    " persistence = $5, priority = $6, inhibit_get = $7, inhibit_put = $8, max_length = $9,"
    " max_depth = $10 WHERE name = $1"};
const Statement kDeleteQueue{
    "delete_queue",
    "WITH m AS (DELETE FROM messages WHERE queue = $1), h AS (DELETE FROM handles WHERE queue = "
    "$1), d AS (DELETE FROM depths WHERE queue = $1) DELETE FROM queues WHERE name = $1"};
const Statement kQueueNames{"queue_names", "SELECT name FROM queues ORDER BY name COLLATE \"C\""};
const Statement kAddHandle{"add_handle",
                           "INSERT INTO handles VALUES (nextval('handle_sequence'), $1, $2, $3)"
                           " RETURNING id"};
const Statement kRemoveHandle{"remove_handle", "DELETE FROM handles WHERE id = $1"};
const Statement kHandleExists{"handle_exists", "SELECT 1 FROM handles WHERE id = $1"};
const Statement kQueuesCreatedBy{
    "queues_created_by",
    "SELECT name FROM temporary_queues WHERE creator = $1 ORDER BY name COLLATE \"C\""};
const Statement kOpenCounts{
    "open_counts",
    "SELECT count(*), count(*) FILTER (WHERE options & $2 <> 0),"
    " count(*) FILTER (WHERE options & $3 <> 0), bool_or(options & $4 <> 0) IS TRUE"
    " FROM handles WHERE queue = $1"};
const Statement kDepth{"depth",
                       "SELECT coalesce(sum(depth), 0)::bigint FROM depths WHERE queue = $1"};
// Within a step: the queue's slot 0 stays locked until it ends, so that a
// put that follows the check is the only one that may fill the last place.
const Statement kLockedDepth{
    "locked_depth",
    "SELECT (coalesce((SELECT depth FROM depths WHERE queue = $1 AND slot = 0 FOR UPDATE), 0)"
    " + (SELECT coalesce(sum(depth), 0) FROM depths WHERE queue = $1 AND slot > 0))::bigint"};
// The insert of a message of columns $1 to $12, for each row of `from`.
#define VX_INSERT_MESSAGE(from)                                                                  \
  " INSERT INTO messages (seq, durable, queue, priority, state, owner, unit, msg_id, correl_id," \
  " expires, visible, descriptor, data) SELECT nextval('message_sequence'), $1, $2, $3, $4, $5," \
  " $6, $7, $8, $9, $10, $11, $12 FROM " from
const Statement kAddMessage{
    "add_message",
    "WITH added AS (" VX_INSERT_MESSAGE("(VALUES (1)) v") " RETURNING seq),"
    " counted AS (UPDATE depths SET depth = depth + 1 WHERE queue = $2 AND slot = 0)"
    " SELECT seq FROM added"};
// A put's add with its depth check: the message is added while the depth
// is below $13.
const Statement kAddMessageWithin{
    "add_message_within",
    "WITH" VX_HOLD_DEPTH("$2", "$13", "true") ", added AS (" VX_INSERT_MESSAGE(
        "held") " RETURNING seq) SELECT seq FROM added"};
// A put in one statement, its own transaction: kAddMessageWithin, done only
// while the queue's definition is still the one the store saw ($14 to $18
// and $13: what a put depends on), else a row of kind 2 and nothing done;
// an available message notifies its queue (channel $19).  Kind 1: added.
const Statement kAddChecked{
    "add_checked",
    "WITH ok AS (SELECT EXISTS (SELECT 1 FROM queues WHERE name = $2 AND definition_type = $14"
    " AND persistence = $15 AND priority = $16 AND inhibit_put = $17 AND max_length = $18"
    " AND max_depth = $13) AS ok)," VX_HOLD_DEPTH("$2", "$13", "(SELECT ok FROM ok)")
    ", added AS (" VX_INSERT_MESSAGE("held")
    " RETURNING seq, CASE WHEN state = 0 THEN pg_notify($19, queue) END)"
    " SELECT 1, seq FROM added UNION ALL SELECT 2, NULL FROM ok WHERE NOT ok.ok"};
const Statement kRemoveMessage{"remove_message",
                               "WITH gone AS (DELETE FROM messages WHERE seq = $1 AND state = 0 "
                               "RETURNING queue)," VX_COUNT_REMOVED("gone") " SELECT 1 FROM gone"};
const Statement kTakeInUnit{
    "take_in_unit",
    "UPDATE messages SET state = 2, owner = $2, unit = $3 WHERE seq = $1 AND state = 0"};
const Statement kDiscardExpired{
    "discard_expired",
    "WITH gone AS (DELETE FROM messages WHERE queue = $1 AND expires <= $2 AND state <> 2"
    " RETURNING 1)," VX_COUNT_REMOVED_FROM(
        "$1", "(SELECT count(*) FROM gone)") " SELECT count(*) FROM gone"};
const Statement kClearQueue{
    "clear_queue",
    "WITH gone AS (DELETE FROM messages WHERE queue = $1 RETURNING 1)," VX_COUNT_REMOVED_FROM(
        "$1", "(SELECT count(*) FROM gone)") " SELECT count(*) FROM gone"};
// A unit's end, one statement: the messages that leave (state $3) go, those
// that stay (state $4) become available with their backout count raised by
// $5, and the queues on which they did are notified (channel $6) and named.
const Statement kEndUnit{
    "end_unit",
    "WITH gone AS (DELETE FROM messages WHERE owner = $1 AND unit = $2 AND state = $3"
    " RETURNING queue)," VX_COUNT_REMOVED("gone") ","
    " kept AS (UPDATE messages SET state = 0, owner = NULL, unit = 0, backout = backout + $5"
    " WHERE owner = $1 AND unit = $2 AND state = $4 RETURNING queue)"
    " SELECT q.queue FROM (SELECT DISTINCT queue FROM kept) q,"
    " LATERAL (SELECT pg_notify($6, q.queue)) n"};
// Every other owner, with whether its lock is held: the owners' rows, and
// the tokens that only messages of units still carry.  pg_locks is read
// once for all of them (each read copies the server's lock table); it
// shows an advisory lock's two keys as unsigned numbers.
const Statement kOwners{
    "owners",
    "WITH held AS MATERIALIZED (SELECT classid::bigint AS schema, objid::bigint AS token"
    " FROM pg_locks WHERE locktype = 'advisory' AND granted AND objsubid = 2"
    " AND database = (SELECT oid FROM pg_database WHERE datname = current_database())),"
    " known AS (SELECT token, host, pid, start_time FROM owners WHERE token <> $2"
    " UNION ALL SELECT DISTINCT owner, '', 0, 0 FROM messages WHERE owner IS NOT NULL"
    " AND owner <> $2 AND owner NOT IN (SELECT token FROM owners))"
    " SELECT k.*, EXISTS (SELECT 1 FROM held h WHERE h.schema = (hashtext($1)::bigint & 4294967295)"
    " AND h.token = (hashtext(k.token)::bigint & 4294967295)) FROM known k"};
const Statement kTryOwnerLock{"try_owner_lock",
                              "SELECT pg_try_advisory_lock(hashtext($1), hashtext($2))"};
const Statement kOwnerUnlock{"owner_unlock",
                             "SELECT pg_advisory_unlock(hashtext($1), hashtext($2))"};
const Statement kOwnerLock{"owner_lock", "SELECT pg_advisory_lock(hashtext($1), hashtext($2))"};
const Statement kAddOwner{"add_owner", "INSERT INTO owners VALUES ($1, $2, $3, $4)"};
// An owner that ended: its temporary queues go with everything on them
// (their depths too: what went from them is counted nowhere), its units'
// puts go, its gets come back one backout higher, its handles and its row
// go.  Returns the queues on which messages became available.
const Statement kEndOwner{
    "end_owner",
    "WITH temporary AS (SELECT name FROM temporary_queues WHERE creator IN"
    " (SELECT id FROM handles WHERE owner = $1)),"
    " q AS (DELETE FROM queues WHERE temporary AND name IN (SELECT name FROM temporary)),"
    " d AS (DELETE FROM depths WHERE queue IN (SELECT name FROM temporary)),"
    " gone AS (DELETE FROM messages WHERE (owner = $1 AND state = 1)"
    " OR queue IN (SELECT name FROM temporary) RETURNING queue),"
    " removed AS (SELECT queue FROM gone WHERE queue NOT IN (SELECT name FROM temporary)),"
    VX_COUNT_REMOVED("removed") ","
    " kept AS (UPDATE messages SET backout = backout + 1, state = 0, owner = NULL, unit = 0"
    " WHERE owner = $1 AND state = 2 AND queue NOT IN (SELECT name FROM temporary)"
    " RETURNING queue),"
    " h AS (DELETE FROM handles WHERE owner = $1 OR queue IN (SELECT name FROM temporary)),"
    " o AS (DELETE FROM owners WHERE token = $1)"
    " SELECT DISTINCT queue FROM kept"};
// Depth counters of every queue, and of none other, in two statements: a
// queue without its slot 0 (after a crash of the server, or an upgrade,
// every queue) loses its other slots, then has them all again, with its
// messages counted into slot 0.
const Statement kForgetBrokenDepths{
    "forget_broken_depths",
    "DELETE FROM depths d WHERE d.queue NOT IN (SELECT name FROM queues)"
    " OR NOT EXISTS (SELECT 1 FROM depths z WHERE z.queue = d.queue AND z.slot = 0)"};
const Statement kCountDepths{
    "count_depths",
    "INSERT INTO depths SELECT q.name, s.slot, CASE WHEN s.slot = 0 THEN"
    " (SELECT count(*) FROM messages m WHERE m.queue = q.name) ELSE 0 END"
    " FROM (SELECT DISTINCT name FROM queues) q, generate_series(0, " VX_REMOVAL_SLOTS
    ") s (slot)"
    " WHERE NOT EXISTS (SELECT 1 FROM depths z WHERE z.queue = q.name AND z.slot = 0)"};

// Which messages a search or a take considers: the statement's variants
// differ in the conditions they have (an index serves each).
constexpr unsigned kByMsgId = 1;
constexpr unsigned kByCorrelId = 2;
constexpr unsigned kAfterCursor = 4;
constexpr unsigned kMatchVariants = 8;
enum TakeInto : unsigned { kRemoving = 0, kIntoUnit = 1 };

// The conditions of a match, its parameters numbered from `first`: the
// queue, the time, then the ids and the cursor that the variant has.
std::string matchConditions(unsigned variant, int *next) {
  std::string sql = "queue = $1 AND state = 0 AND (expires IS NULL OR expires > $2)";
  if ((variant & kByMsgId) != 0) sql += " AND msg_id = $" + std::to_string((*next)++);
  if ((variant & kByCorrelId) != 0) sql += " AND correl_id = $" + std::to_string((*next)++);
  if ((variant & kAfterCursor) != 0) {
    const std::string priority = "$" + std::to_string((*next)++);
    const std::string sequence = "$" + std::to_string((*next)++);
    sql += " AND (priority < " + priority + " OR (priority = " + priority + " AND seq > " +
           sequence + "))";
  }
  return sql;
}

constexpr const char *kMessageColumns =
    "seq, priority, backout, expires, visible, descriptor, data";

// The earliest time a matching message that is not visible yet becomes
// visible, when `none` holds.
std::string nextVisibleBranch(const std::string &match, const std::string &none) {
  return std::string(" UNION ALL SELECT 0, NULL, NULL, NULL, NULL, min(visible), NULL, NULL") +
         " FROM messages WHERE " + none + " AND " + match + " AND visible > $2";
}

// The first visible message that `match` holds for.
std::string firstVisible(const std::string &match) {
  return std::string("SELECT ") + kMessageColumns + " FROM messages WHERE " + match +
         " AND (visible IS NULL OR visible <= $2) ORDER BY priority DESC, seq LIMIT 1";
}

// A search: the first visible message (kind 1), else the next visible time
// (kind 0).
std::string findText(unsigned variant) {
  int next = 3;
  const std::string match = matchConditions(variant, &next);
  return "WITH first AS (" + firstVisible(match) + ") SELECT 1, * FROM first" +
         nextVisibleBranch(match, "NOT EXISTS (SELECT 1 FROM first)");
}

// A take in one statement: the expired messages go, and the first visible
// message, skipping those that others are taking, is removed (or taken into
// the unit) when its data is no longer than the limit (kind 1), and counted
// off the depth.  When it took nothing, the search's answer: the first
// visible message, too long or being taken by another (kind 2), else the
// next visible time (kind 0); only then are those parts run.  With an
// inhibit of getting given, only while the queue is still so defined, else
// kind 3 and nothing done.
std::string takeText(unsigned variant, TakeInto into) {
  int next = 3;
  const std::string match = matchConditions(variant, &next);
  const std::string longest = "$" + std::to_string(next++);
  const std::string first = "(m.seq, m.durable) = (SELECT seq, durable FROM messages WHERE " +
                            match +
                            " AND (visible IS NULL OR visible <= $2) AND (SELECT ok FROM ok)"
                            " ORDER BY priority DESC, seq LIMIT 1 FOR UPDATE SKIP LOCKED)"
                            " AND octet_length(m.data) <= " +
                            longest;
  std::string taking;
  std::string removed = "(SELECT count(*) FROM expired)";
  if (into == kRemoving) {
    taking = "DELETE FROM messages m WHERE " + first;
    removed = "(" + removed + " + (SELECT count(*) FROM taken))";
  } else {
    const std::string owner = "$" + std::to_string(next++);
    const std::string unit = "$" + std::to_string(next++);
    taking = "UPDATE messages m SET state = 2, owner = " + owner + ", unit = " + unit + " WHERE " +
             first;
  }
  const std::string inhibit = "$" + std::to_string(next++);
  const std::string nothingTaken = "NOT EXISTS (SELECT 1 FROM taken)";
  return "WITH ok AS (SELECT " + inhibit + "::integer IS NULL OR EXISTS (SELECT 1 FROM queues" +
         " WHERE name = $1 AND inhibit_get = " + inhibit + ") AS ok)," +
         " expired AS (DELETE FROM messages WHERE queue = $1 AND expires <= $2 AND state <> 2" +
         " AND (SELECT ok FROM ok) RETURNING 1), taken AS (" + taking +
         " RETURNING m.seq, m.priority, m.backout, m.expires, m.visible, m.descriptor, m.data)," +
         VX_COUNT_REMOVED_SET + removed + VX_COUNT_REMOVED_WHERE("$1") + removed + " > 0)," +
         " first AS (" + firstVisible(nothingTaken + " AND " + match) + ")" +
         " SELECT 1, * FROM taken UNION ALL SELECT 2, * FROM first" +
         nextVisibleBranch(match, nothingTaken + " AND NOT EXISTS (SELECT 1 FROM first)") +
         " UNION ALL SELECT 3, NULL, NULL, NULL, NULL, NULL, NULL, NULL FROM ok WHERE NOT ok.ok";
}

using admin::StoreFailure;
using admin::StoreProblem;

// Where a URI leads, for accounts of failures: host, port and database,
// never the password.
std::string locationOf(const std::string &uri) {
  char *error = nullptr;
  PQconninfoOption *options = PQconninfoParse(uri.c_str(), &error);
  if (options == nullptr) {
    PQfreemem(error);
    return "a PostgreSQL URI that cannot be read";
  }
  std::map<std::string, std::string> values;
  for (PQconninfoOption *o = options; o->keyword != nullptr; ++o) {
    if (o->val != nullptr) values[o->keyword] = o->val;
  }
  PQconninfoFree(options);
  return "postgresql://" + values["host"] + (values["port"].empty() ? "" : ":" + values["port"]) +
         "/" + values["dbname"];
}

class PostgresStore final : public Store {
 public:
  explicit PostgresStore(const PostgresPlace &place)
      : uri_(place.uri), qmName_(place.qmName), channel_(postgresChannel(place.qmName)) {
    location_ = locationOf(uri_) + " schema " + qmName_;
    for (unsigned v = 0; v < kMatchVariants; ++v) {
      findNames_[v] = "find_" + std::to_string(v);
      findTexts_[v] = findText(v);
      for (TakeInto into : {kRemoving, kIntoUnit}) {
        takeNames_[into][v] = "take_" + std::to_string(into) + "_" + std::to_string(v);
        takeTexts_[into][v] = takeText(v, into);
      }
    }
    openSession();
  }

  ~PostgresStore() override {
    // What this store leaves is given back as for an owner that ended: its
    // handles close, its units back out.
    try {
      if (connection_ && !connection_->lost() && stepDepth_ == 0) endOwner(self_);
    } catch (...) {
      // Nothing more can be done; the next look at the owners ends it.
    }
  }

  uint64_t session() const override { return session_; }

  bool findQueue(const std::string &name, QueueDefinition *definition) const override {
    const pg::Result r = query(kFindQueue, pg::Params().text(name));
    if (r.rows() == 0) {
      seen_.erase(name);
      return false;
    }
    {
      QueueDefinition found;
      found.name = name;
      found.queueType = static_cast<int32_t>(r.integer(0, 0));
      found.definitionType = static_cast<int32_t>(r.integer(0, 1));
      found.description = r.text(0, 2);
      found.defaultPersistence = static_cast<int32_t>(r.integer(0, 3));
      found.defaultPriority = static_cast<int32_t>(r.integer(0, 4));
      found.inhibitGet = static_cast<int32_t>(r.integer(0, 5));
      found.inhibitPut = static_cast<int32_t>(r.integer(0, 6));
      found.maxMsgLength = static_cast<int32_t>(r.integer(0, 7));
      found.maxDepth = static_cast<int32_t>(r.integer(0, 8));
      if (definition != nullptr) *definition = found;
      seen_[name] = std::move(found);
    }
    return true;
  }

  // What a put or get checks in its statement comes from what was seen:
  // the statement finds a change, by any host.
  bool seenQueue(const std::string &name, QueueDefinition *definition) const override {
    const auto it = seen_.find(name);
    if (it == seen_.end()) return findQueue(name, definition);
    if (definition != nullptr) *definition = it->second;
    return true;
  }

  // A queue that dies with its handle need not outlive a restart: it is
  // kept in the unlogged partition.
  void createQueue(const QueueDefinition &definition, int64_t creator) override {
    seen_.erase(definition.name);
    pg::Params params = definitionParams(definition);
    if (creator == 0) {
      params.null();
    } else {
      params.integer(creator);
    }
    query(kInsertQueue, std::move(params));
  }

  void saveQueue(const QueueDefinition &definition) override {
    seen_.erase(definition.name);
    transaction([&] {
      notify(definition.name);
      if (query(kUpdateQueue, definitionParams(definition)).changed() > 0) return;
      query(kInsertQueue, definitionParams(definition).null());
    });
  }

  void deleteQueue(const std::string &name) override {
    seen_.erase(name);
    transaction([&] {
      notify(name);
      query(kDeleteQueue, pg::Params().text(name));
    });
  }

  std::vector<std::string> queueNames() const override {
    const pg::Result r = query(kQueueNames);
    std::vector<std::string> names;
    for (int i = 0; i < r.rows(); ++i) names.push_back(r.text(i, 0));
    return names;
  }

  int64_t addHandle(const std::string &queue, int32_t options) override {
    return query(kAddHandle, pg::Params().text(queue).text(owner_).integer(options)).integer(0, 0);
  }

  void removeHandle(int64_t handle) override { query(kRemoveHandle, pg::Params().integer(handle)); }

  bool handleExists(int64_t handle) const override {
    return query(kHandleExists, pg::Params().integer(handle)).rows() > 0;
  }

  std::vector<std::string> queuesCreatedBy(int64_t handle) const override {
    const pg::Result r = query(kQueuesCreatedBy, pg::Params().integer(handle));
    std::vector<std::string> names;
    for (int i = 0; i < r.rows(); ++i) names.push_back(r.text(i, 0));
    return names;
  }

  OpenCounts openCounts(const std::string &queue) const override {
    const pg::Result r = query(kOpenCounts, pg::Params()
                                                .text(queue)
                                                .integer(kInputOptions)
                                                .integer(OPEN_OUTPUT)
                                                .integer(OPEN_INPUT_EXCLUSIVE));
    OpenCounts counts;
    counts.handles = static_cast<int32_t>(r.integer(0, 0));
    counts.input = static_cast<int32_t>(r.integer(0, 1));
    counts.output = static_cast<int32_t>(r.integer(0, 2));
    counts.exclusiveInput = r.integer(0, 3) != 0;
    return counts;
  }

  int32_t depth(const std::string &queue) const override {
    const Statement &statement = stepDepth_ > 0 ? kLockedDepth : kDepth;
    return static_cast<int32_t>(query(statement, pg::Params().text(queue)).integer(0, 0));
  }

  MessageKey addMessage(const std::string &queue, Message message, Durability durability,
                        MessageState state, uint64_t unit) override {
    // The notification goes in the same round trip and the same transaction.
    if (state == MessageState::kAvailable) notify(queue);
    const int64_t sequence =
        query(kAddMessage, messageParams(queue, message, durability, state, unit)).integer(0, 0);
    return MessageKey{message.descriptor.priority, static_cast<uint64_t>(sequence)};
  }

  std::optional<MessageKey> addMessageWithin(const std::string &queue, Message message,
                                             Durability durability, MessageState state,
                                             uint64_t unit, int32_t maxDepth,
                                             Clock::time_point now) override {
    if (state == MessageState::kAvailable) notify(queue);
    const auto add = [&] {
      pg::Params params = messageParams(queue, message, durability, state, unit);
      params.integer(maxDepth);
      return query(kAddMessageWithin, std::move(params));
    };
    const pg::Result r = addMakingRoom(queue, now, add);
    if (r.rows() == 0) return std::nullopt;
    return MessageKey{message.descriptor.priority, static_cast<uint64_t>(r.integer(0, 0))};
  }

  Added addChecked(const std::string &queue, const QueueDefinition &seen, Message message,
                   Durability durability, MessageState state, uint64_t unit,
                   Clock::time_point now) override {
    const auto add = [&] {
      pg::Params params = messageParams(queue, message, durability, state, unit);
      params.integer(seen.maxDepth)
          .integer(seen.definitionType)
          .integer(seen.defaultPersistence)
          .integer(seen.defaultPriority)
          .integer(seen.inhibitPut)
          .integer(seen.maxMsgLength)
          .text(channel_);
      return query(kAddChecked, std::move(params));
    };
    const pg::Result r = addMakingRoom(queue, now, add);
    Added added;
    if (r.rows() == 0) return added;
    if (r.integer(0, 0) == 2) {
      added.changed = true;
      seen_.erase(queue);
      return added;
    }
    added.key = MessageKey{message.descriptor.priority, static_cast<uint64_t>(r.integer(0, 1))};
    return added;
  }

  bool putIsOneStatement() const override { return true; }

  Found findMessage(const std::string &queue, const Selection &selection,
                    Clock::time_point now) const override {
    const unsigned variant = variantOf(selection);
    const Statement statement{findNames_[variant].c_str(), findTexts_[variant].c_str()};
    return found(query(statement, matchParams(queue, selection, now)), false);
  }

  Found takeMessage(const std::string &queue, const Selection &selection, Clock::time_point now,
                    uint64_t unit, size_t longest) override {
    return take(queue, nullptr, selection, now, unit, longest);
  }

  Found takeChecked(const std::string &queue, const QueueDefinition &seen,
                    const Selection &selection, Clock::time_point now, uint64_t unit,
                    size_t longest) override {
    return take(queue, &seen, selection, now, unit, longest);
  }

  bool removeMessage(const std::string & /*queue*/, const MessageKey &key) override {
    return query(kRemoveMessage, pg::Params().integer(static_cast<int64_t>(key.sequence))).rows() >
           0;
  }

  bool takeInUnit(const std::string & /*queue*/, const MessageKey &key, uint64_t unit) override {
    return query(kTakeInUnit, pg::Params()
                                  .integer(static_cast<int64_t>(key.sequence))
                                  .text(owner_)
                                  .integer(static_cast<int64_t>(unit)))
               .changed() > 0;
  }

  int32_t discardExpired(const std::string &queue, Clock::time_point now) override {
    return static_cast<int32_t>(
        query(kDiscardExpired, pg::Params().text(queue).integer(wallMilliseconds(now)))
            .integer(0, 0));
  }

  void clearQueue(const std::string &queue) override {
    query(kClearQueue, pg::Params().text(queue));
  }

  std::vector<std::string> commit(uint64_t unit) override { return endUnit(unit, true); }
  std::vector<std::string> backout(uint64_t unit) override { return endUnit(unit, false); }

  std::vector<Owner> owners() const override {
    const pg::Result r = query(kOwners, pg::Params().text(qmName_).text(owner_));
    std::vector<Owner> owners;
    alive_.clear();
    for (int i = 0; i < r.rows(); ++i) {
      Owner owner;
      owner.token = r.text(i, 0);
      owner.host = r.text(i, 1);
      owner.pid = static_cast<int32_t>(r.integer(i, 2));
      owner.startTime = r.integer(i, 3);
      if (r.integer(i, 4) != 0) alive_.insert(owner.token);
      owners.push_back(std::move(owner));
    }
    return owners;
  }

  // The lock of an owner that owners() saw held is taken as alive without
  // asking again; any other is tried, and given back at once when taken.
  bool ownerEnded(const Owner &owner) const override {
    if (owner.token == owner_ || alive_.contains(owner.token)) return false;
    if (query(kTryOwnerLock, pg::Params().text(qmName_).text(owner.token)).integer(0, 0) == 0)
      return false;
    query(kOwnerUnlock, pg::Params().text(qmName_).text(owner.token));
    return true;
  }

  std::vector<std::string> endOwner(const Owner &owner) override {
    std::vector<std::string> available;
    transaction([&] {
      available.clear();
      const pg::Result r = query(kEndOwner, pg::Params().text(owner.token));
      for (int i = 0; i < r.rows(); ++i) available.push_back(r.text(i, 0));
      for (const std::string &queue : available) notify(queue);
    });
    return available;
  }

  uint64_t durableTicket() override { return 0; }
  void waitDurable(uint64_t /*ticket*/) override {}

  // A step is one transaction; its BEGIN goes with its first statement.
  void beginStep() override {
    if (stepDepth_ == 0) beginPending_ = true;
    ++stepDepth_;
  }

  void endStep(bool keep) override {
    if (stepDepth_ == 0) return;
    stepUndone_ = stepUndone_ || !keep;
    if (stepDepth_ > 1) {
      --stepDepth_;
      return;
    }
    if (beginPending_) {
      // Nothing was sent: nothing to keep or undo.
      beginPending_ = false;
    } else if (stepUndone_) {
      rollback();
    } else {
      query(kCommit);  // on failure the step stays open, to be undone
      notified_.clear();
    }
    stepDepth_ = 0;
    stepUndone_ = false;
  }

 private:
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

  static unsigned variantOf(const Selection &selection) {
    return (selection.msgId != nullptr ? kByMsgId : 0u) |
           (selection.correlId != nullptr ? kByCorrelId : 0u) |
           (selection.after ? kAfterCursor : 0u);
  }

  static pg::Params definitionParams(const QueueDefinition &definition) {
    pg::Params params;
    params.text(definition.name)
        .integer(definition.queueType)
        .integer(definition.definitionType)
        .text(definition.description)
        .integer(definition.defaultPersistence)
        .integer(definition.defaultPriority)
        .integer(definition.inhibitGet)
        .integer(definition.inhibitPut)
        .integer(definition.maxMsgLength)
        .integer(definition.maxDepth);
    return params;
  }

  // A message's columns, as $1 .. $12 of kAddMessage.
  pg::Params messageParams(const std::string &queue, const Message &message, Durability durability,
                           MessageState state, uint64_t unit) const {
    const vxMSGDESC &md = message.descriptor;
    pg::Params params;
    params.text(durability == Durability::kDurable ? "true" : "false")
        .text(queue)
        .integer(md.priority)
        .integer(rowState(state));
    if (state == MessageState::kPutInUnit) {
      params.text(owner_);
    } else {
      params.null();
    }
    params.integer(static_cast<int64_t>(unit))
        .bytes(md.msgId, MSG_ID_LENGTH)
        .bytes(md.correlId, CORREL_ID_LENGTH);
    if (message.expiresAt != Clock::time_point::max()) {
      params.integer(wallMilliseconds(message.expiresAt));
    } else {
      params.null();
    }
    if (message.visibleFrom != Clock::time_point::min()) {
      params.integer(wallMilliseconds(message.visibleFrom));
    } else {
      params.null();
    }
    params.bytes(&md, sizeof md).bytes(message.data.data(), message.data.size());
    return params;
  }

  static pg::Params matchParams(const std::string &queue, const Selection &selection,
                                Clock::time_point now) {
    pg::Params params;
    params.text(queue).integer(wallMilliseconds(now));
    if (selection.msgId != nullptr) params.bytes(selection.msgId, MSG_ID_LENGTH);
    if (selection.correlId != nullptr) params.bytes(selection.correlId, CORREL_ID_LENGTH);
    if (selection.after) {
      params.integer(selection.after->priority)
          .integer(static_cast<int64_t>(selection.after->sequence));
    }
    return params;
  }

  // The row of a search or a take (see findText and takeText).
  // A take, checked against the definition `seen` when there is one.
  Found take(const std::string &queue, const QueueDefinition *seen, const Selection &selection,
             Clock::time_point now, uint64_t unit, size_t longest) {
    const unsigned variant = variantOf(selection);
    const TakeInto into = unit == 0 ? kRemoving : kIntoUnit;
    const Statement statement{takeNames_[into][variant].c_str(), takeTexts_[into][variant].c_str()};
    pg::Params params = matchParams(queue, selection, now);
    params.integer(static_cast<int64_t>(std::min<uint64_t>(longest, INT64_MAX)));
    if (into == kIntoUnit) params.text(owner_).integer(static_cast<int64_t>(unit));
    if (seen == nullptr) {
      params.null();
    } else {
      params.integer(seen->inhibitGet);
    }
    Found taken = found(query(statement, std::move(params)), true);
    if (taken.changed) seen_.erase(queue);
    // The first message, not taken and not too long, is another session's
    // to take.
    if (!taken.taken && taken.message != nullptr && taken.message->data.size() <= longest)
      return Found{};
    return taken;
  }

  Found found(const pg::Result &r, bool taking) const {
    Found found;
    for (int i = 0; i < r.rows(); ++i) {
      if (r.integer(i, 0) == 3) {
        found.changed = true;
        return found;
      }
    }
    if (r.rows() == 0) return found;
    const int64_t kind = r.integer(0, 0);
    if (kind == 0) {
      if (!r.null(0, 5)) found.nextVisible = monotonicPoint(r.integer(0, 5));
      return found;
    }
    size_t length = 0;
    const char *descriptor = r.bytes(0, 6, &length);
    if (length != sizeof(vxMSGDESC)) {
      failed({RC_STORE_ERROR, StoreProblem::kDamaged, location_, "reading the database",
              "a message's descriptor has the wrong length"});
    }
    Message &message = current_;
    std::memcpy(&message.descriptor, descriptor, sizeof message.descriptor);
    message.descriptor.backoutCount = static_cast<int32_t>(r.integer(0, 3));
    const char *data = r.bytes(0, 7, &length);
    message.data.assign(data, data + length);
    message.expiresAt = r.null(0, 4) ? Clock::time_point::max() : monotonicPoint(r.integer(0, 4));
    message.visibleFrom = r.null(0, 5) ? Clock::time_point::min() : monotonicPoint(r.integer(0, 5));
    found.message = &message;
    found.key =
        MessageKey{static_cast<int32_t>(r.integer(0, 2)), static_cast<uint64_t>(r.integer(0, 1))};
    found.taken = taking && kind == 1;
    return found;
  }

  std::vector<std::string> endUnit(uint64_t unit, bool commit) {
    std::vector<std::string> available;
    const int leaving = commit ? kGotInUnit : kPutInUnit;
    const int becoming = commit ? kPutInUnit : kGotInUnit;
    retrying([&] {
      available.clear();
      const pg::Result r = query(kEndUnit, pg::Params()
                                               .text(owner_)
                                               .integer(static_cast<int64_t>(unit))
                                               .integer(leaving)
                                               .integer(becoming)
                                               .integer(commit ? 0 : 1)
                                               .text(channel_));
      for (int i = 0; i < r.rows(); ++i) available.push_back(r.text(i, 0));
    });
    return available;
  }

  // Runs `add`, a put's statement that has no row when the queue is full;
  // a full queue may have room once its expired messages go, and then it
  // runs again.
  template <typename Add>
  pg::Result addMakingRoom(const std::string &queue, Clock::time_point now, Add add) {
    pg::Result r = add();
    if (r.rows() == 0 && discardExpired(queue, now) > 0) r = add();
    return r;
  }

  // A notification of a change to the queue, sent with the next statement
  // in the same transaction: at most one per queue per transaction.
  void notify(const std::string &queue) {
    if (!notified_.insert(queue).second) return;
    startPending().queue(kNotify, pg::Params().text(channel_).text(queue));
  }

  // Runs `body` in one transaction, all of it or nothing; within a step or
  // another transaction it is part of it.  Tried again when it lost a
  // deadlock (other sessions end units on several queues at once).
  template <typename Body>
  void transaction(Body body) {
    if (stepDepth_ > 0 || inTransaction_) {
      body();
      return;
    }
    for (int tries = 1;; ++tries) {
      inTransaction_ = true;
      beginPending_ = true;
      try {
        body();
        if (!beginPending_) query(kCommit);
        inTransaction_ = false;
        beginPending_ = false;
        notified_.clear();
        return;
      } catch (const Retry &) {
        rollback();
        inTransaction_ = false;
        if (tries == kTransactionTries) failed(retryFailure_);
      } catch (...) {
        rollback();
        inTransaction_ = false;
        throw;
      }
    }
  }

  // Runs `body`, one statement that is its own transaction, again when it
  // lost a deadlock; within a step or a transaction it is part of it.
  template <typename Body>
  void retrying(Body body) {
    if (stepDepth_ > 0 || inTransaction_) {
      body();
      return;
    }
    for (int tries = 1;; ++tries) {
      retrying_ = true;
      try {
        body();
        retrying_ = false;
        return;
      } catch (const Retry &) {
        // The server undid the statement with its implicit transaction.
        retrying_ = false;
        if (tries == kTransactionTries) failed(retryFailure_);
      } catch (...) {
        retrying_ = false;
        throw;
      }
    }
  }

  // Undoes the open transaction; a failure here leaves nothing more to undo
  // (a lost connection took the transaction with it).
  void rollback() {
    notified_.clear();
    if (beginPending_) {
      beginPending_ = false;
      if (connection_) connection_->discardQueued();
      return;
    }
    if (!connection_ || connection_->lost()) return;
    connection_->discardQueued();
    try {
      connection_->query(kRollback);
    } catch (const pg::Error &) {
      // Gone with the connection, or already undone.
    }
  }

  // The connection, opening a new session when the last one was lost and
  // no step needs the old one.
  pg::Connection &usableConnection() const {
    if (connection_ && !connection_->lost()) return *connection_;
    noteLost();
    // A transaction that began on the server was lost with it; one whose
    // BEGIN waits to be sent has done nothing yet, and starts on the new
    // session.
    if ((stepDepth_ > 0 || inTransaction_) && !beginPending_) {
      failed({RC_CONNECTION_BROKEN, StoreProblem::kOther, location_, "using the database",
              "the connection to the server was lost"});
    }
    // A new session changes nothing that the store holds: what the old one
    // held is given back as another owner's.
    const_cast<PostgresStore *>(this)->openSession();
    return *connection_;
  }

  // The connection, with the BEGIN of the open step or transaction queued
  // when nothing was sent in it yet.
  pg::Connection &startPending() const {
    pg::Connection &c = usableConnection();
    if (beginPending_) {
      c.queue(kBegin);
      beginPending_ = false;
    }
    return c;
  }

  pg::Result query(const Statement &statement, pg::Params params = {}) const {
    pg::Connection &c = startPending();
    try {
      pg::Result result = c.query(statement, std::move(params));
      if (stepDepth_ == 0 && !inTransaction_) notified_.clear();
      return result;
    } catch (const pg::Error &error) {
      if (stepDepth_ == 0 && !inTransaction_) notified_.clear();
      fail(error, "using the database");
    }
  }

  // A transaction that lost a deadlock or a serialisation is tried again.
  struct Retry {};

  void noteLost() const {
    if (!lostNoted_) ++session_;
    lostNoted_ = true;
  }

  [[noreturn]] void fail(const pg::Error &error, const char *action) const {
    if (error.lost) {
      noteLost();
      failed({RC_CONNECTION_BROKEN, StoreProblem::kOther, location_, action, error.message});
    }
    StoreFailure failure{RC_STORE_ERROR, StoreProblem::kOther, location_, action, error.message};
    if (error.sqlState == "40P01" || error.sqlState == "40001") {
      if ((inTransaction_ || retrying_) && stepDepth_ == 0) {
        retryFailure_ = failure;
        throw Retry{};
      }
      failure.problem = StoreProblem::kBusy;
    } else if (error.sqlState == "53100") {
      failure.reason = RC_STORE_FULL;
      failure.problem = StoreProblem::kFull;
    } else if (error.sqlState == "25006") {
      failure.reason = RC_STORE_READ_ONLY;
      failure.problem = StoreProblem::kReadOnly;
    } else if (error.sqlState == "42501") {
      failure.problem = StoreProblem::kPermission;
    }
    failed(failure);
  }

  [[noreturn]] void failed(StoreFailure failure) const {
    failure.server = true;
    storeFailed(qmName_, failure);
  }

  // A new session: connects, makes or checks the schema, and takes the
  // owner's lock before its row is seen.  What a previous session held is
  // another owner's from here on, given back once its lock is free.  Throws
  // Failure (RC_Q_MGR_NOT_AVAILABLE) when the server cannot be reached.
  void openSession() {
    connection_.reset();
    try {
      connection_ = std::make_unique<pg::Connection>(uri_);
    } catch (const pg::Error &error) {
      failed({RC_Q_MGR_NOT_AVAILABLE, StoreProblem::kOther, location_, "connecting to the server",
              error.message});
    }
    self_ = thisProcess();
    // The host too: the token is unique across the hosts that share the database.
    owner_ = self_.host.substr(0, 32) + "-" + newOwnerToken(self_);
    self_.token = owner_;
    alive_.clear();
    notified_.clear();
    try {
      pg::Connection &c = *connection_;
      c.query({nullptr, "SELECT set_config('search_path', $1, false)"},
              pg::Params().text(c.identifier(qmName_)));
      c.execute("BEGIN");
      c.query({nullptr, "SELECT pg_advisory_xact_lock(hashtext('vxqm schema'), hashtext($1))"},
              pg::Params().text(qmName_));
      c.execute("CREATE SCHEMA IF NOT EXISTS " + c.identifier(qmName_));
      const pg::Result made =
          c.query({nullptr, "SELECT to_regclass('schema_version') IS NOT NULL"}, pg::Params());
      if (made.integer(0, 0) == 0) c.execute(kTables);
      const int64_t version =
          c.query({nullptr, "SELECT max(version) FROM schema_version"}).integer(0, 0);
      if (version < 2) c.execute(kDepths);
      if (version > kSchemaVersion) {
        c.execute("ROLLBACK");
        failed({RC_STORE_ERROR, StoreProblem::kOther, location_, "opening the database",
                "its schema is of a later version (" + std::to_string(version) +
                    ") than this queue manager knows"});
      }
      c.query(kForgetBrokenDepths);
      c.query(kCountDepths);
      c.execute("COMMIT");
      c.query(kOwnerLock, pg::Params().text(qmName_).text(owner_));
      c.query(
          kAddOwner,
          pg::Params().text(owner_).text(self_.host).integer(self_.pid).integer(self_.startTime));
    } catch (const pg::Error &error) {
      connection_.reset();
      if (error.lost) {
        failed({RC_Q_MGR_NOT_AVAILABLE, StoreProblem::kOther, location_, "opening the database",
                error.message});
      }
      fail(error, "opening the database");
    }
    lostNoted_ = false;
  }

  const std::string uri_;
  const std::string qmName_;
  const std::string channel_;
  std::string location_;  // for accounts of failures: where, without a password
  Owner self_;
  std::string owner_;
  std::unique_ptr<pg::Connection> connection_;  // null while there is no session
  // Raised as soon as a loss is seen, so that what was opened before it is
  // refused from then on, not only once a new session is open.
  mutable uint64_t session_ = 1;
  mutable bool lostNoted_ = false;
  std::array<std::string, kMatchVariants> findNames_;
  std::array<std::string, kMatchVariants> findTexts_;
  std::array<std::string, kMatchVariants> takeNames_[2];
  std::array<std::string, kMatchVariants> takeTexts_[2];
  int stepDepth_ = 0;                       // steps begun and not ended
  bool stepUndone_ = false;                 // a step of it was not kept
  bool inTransaction_ = false;              // within transaction()
  bool retrying_ = false;                   // within retrying()
  mutable bool beginPending_ = false;       // the BEGIN goes with the next statement
  mutable std::set<std::string> notified_;  // queues notified in this transaction
  // Each queue's definition as last read here, for the statements that check it.
  mutable std::map<std::string, QueueDefinition> seen_;
  mutable std::set<std::string> alive_;  // owners whose lock owners() saw held
  mutable StoreFailure retryFailure_;    // the last failure that asked to try again
  mutable Message current_;              // the message found or taken last
};

}  // namespace

std::string postgresChannel(const std::string &qmName) { return "vxqm." + qmName; }

bool isPostgresUri(const std::string &text) {
  return text.starts_with("postgresql://") || text.starts_with("postgres://");
}

std::unique_ptr<Store> makePostgresStore(const PostgresPlace &place) {
  return std::make_unique<PostgresStore>(place);
}

void emptyPostgresVolatile(const PostgresPlace &place) {
  try {
    pg::Connection c(place.uri);
    c.query({nullptr, "SELECT set_config('search_path', $1, false)"},
            pg::Params().text(c.identifier(place.qmName)));
    c.execute(kEmptyVolatile);
  } catch (const pg::Error &) {
    // No server, or no schema yet: nothing volatile to empty.
  }
}

}  // namespace vxqm
