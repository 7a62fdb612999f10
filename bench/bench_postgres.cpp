// Benchmark of the PostgreSQL store, run by hand (bench/bench_postgres.sh
// starts a server for it): the time of one put and of one get of a 256-byte
// message through a queue manager over the server, persistent and not,
// beside the limit the server itself sets: a plain INSERT of the same row,
// each its own transaction, into a table of the same shape (logged for a
// persistent message, UNLOGGED for one that is not), and a plain DELETE …
// RETURNING of each row by its key.  The four are measured in turn, round
// after round, so that a slow spell of the disk's syncs falls on all of
// them; the medians of the rounds are compared.
// Usage: bench_postgres URI [messages] [rounds]   (default 2000 messages a
// round, 5 rounds).  Everything goes in schemas named after the run and
// the round, dropped at the end.
#include <libpq-fe.h>
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "put_then_get.h"
#include "qm.h"
#include "qm_admin.h"
#include "vxqi_records.h"

namespace {

using Clock = std::chrono::steady_clock;
constexpr int32_t kMessageLength = 256;

double microseconds(Clock::duration d, long count) {
  return std::chrono::duration<double, std::micro>(d).count() / static_cast<double>(count);
}

void check(bool good, const char *what) {
  if (!good) {
    std::fprintf(stderr, "bench_postgres: %s failed\n", what);
    std::exit(1);
  }
}

// Runs a statement that returns no rows; ends the run when it fails.
void run(PGconn *connection, const std::string &sql) {
  PGresult *result = PQexec(connection, sql.c_str());
  const bool good = PQresultStatus(result) == PGRES_COMMAND_OK;
  if (!good) std::fprintf(stderr, "%s: %s", sql.c_str(), PQerrorMessage(connection));
  PQclear(result);
  check(good, "a statement");
}

struct PerMessage {
  double put;  // microseconds per put (or insert)
  double get;  // microseconds per get (or delete)
};

// Plain statements: `count` inserts of a message's row, each its own
// transaction, then a DELETE … RETURNING of each by its key.
PerMessage plainStatements(PGconn *connection, const std::string &schema, bool logged, long count) {
  run(connection, "CREATE " + std::string(logged ? "" : "UNLOGGED ") + "TABLE " + schema +
                      ".messages (seq bigserial PRIMARY KEY, queue text NOT NULL,"
                      " priority integer NOT NULL, state smallint NOT NULL,"
                      " msg_id bytea NOT NULL, correl_id bytea NOT NULL,"
                      " descriptor bytea NOT NULL, data bytea NOT NULL)");
  run(connection, "CREATE INDEX ON " + schema + ".messages (queue, state, priority DESC, seq)");
  const std::string insert = "INSERT INTO " + schema +
                             ".messages (queue, priority, state, msg_id, correl_id,"
                             " descriptor, data) VALUES ($1, 0, 0, $2, $3, $4, $5) RETURNING seq";
  const std::string remove =
      "DELETE FROM " + schema + ".messages WHERE seq = $1 RETURNING descriptor, data";
  PGresult *prepared = PQprepare(connection, "insert", insert.c_str(), 5, nullptr);
  check(PQresultStatus(prepared) == PGRES_COMMAND_OK, "prepare insert");
  PQclear(prepared);
  prepared = PQprepare(connection, "remove", remove.c_str(), 1, nullptr);
  check(PQresultStatus(prepared) == PGRES_COMMAND_OK, "prepare delete");
  PQclear(prepared);

  const vxMSGDESC md = MD_DEFAULT;
  const std::vector<char> data(kMessageLength, 'x');
  std::vector<std::string> keys;
  keys.reserve(static_cast<size_t>(count));
  const Clock::time_point putStart = Clock::now();
  for (long i = 0; i < count; ++i) {
    char id[MSG_ID_LENGTH] = {};
    std::memcpy(id, &i, sizeof i);
    const char *values[5] = {"BENCH", id, md.correlId, reinterpret_cast<const char *>(&md),
                             data.data()};
    const int lengths[5] = {5, MSG_ID_LENGTH, CORREL_ID_LENGTH, sizeof md, kMessageLength};
    const int formats[5] = {0, 1, 1, 1, 1};
    PGresult *result =
        PQexecPrepared(connection, "insert", 5, values, lengths, formats, /*resultFormat=*/0);
    check(PQresultStatus(result) == PGRES_TUPLES_OK, "insert");
    keys.emplace_back(PQgetvalue(result, 0, 0));
    PQclear(result);
  }
  const Clock::duration putTime = Clock::now() - putStart;

  const Clock::time_point getStart = Clock::now();
  for (const std::string &key : keys) {
    const char *values[1] = {key.c_str()};
    PGresult *result = PQexecPrepared(connection, "remove", 1, values, nullptr, nullptr, 1);
    check(PQresultStatus(result) == PGRES_TUPLES_OK && PQntuples(result) == 1, "delete");
    PQclear(result);
  }
  const Clock::duration getTime = Clock::now() - getStart;
  PQclear(PQexec(connection, "DEALLOCATE ALL"));
  return {microseconds(putTime, count), microseconds(getTime, count)};
}

// `count` puts, then `count` gets, through the queue manager `qmName` (its
// store named by VXQM_DATA).
PerMessage throughQueueManager(const std::string &qmName, int32_t persistence, long count) {
  const bench::PutThenGet times = bench::putThenGet(qmName, persistence, count, kMessageLength);
  return {microseconds(times.put, count), microseconds(times.get, count)};
}

// The rounds of one way of putting and getting.
struct Rounds {
  std::vector<double> put, get;
  void add(const PerMessage &m) {
    put.push_back(m.put);
    get.push_back(m.get);
  }
};

double median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  const size_t n = values.size();
  return n % 2 == 1 ? values[n / 2] : (values[n / 2 - 1] + values[n / 2]) / 2;
}

void row(const char *what, const Rounds &r) {
  const auto [putLow, putHigh] = std::minmax_element(r.put.begin(), r.put.end());
  const auto [getLow, getHigh] = std::minmax_element(r.get.begin(), r.get.end());
  std::printf("  %-46s %7.1f (%5.0f-%5.0f) %7.1f (%5.0f-%5.0f)\n", what, median(r.put), *putLow,
              *putHigh, median(r.get), *getLow, *getHigh);
}

// The ratio of the medians, and the range of the rounds' own ratios.
void ratio(const char *what, const std::vector<double> &store, const std::vector<double> &plain) {
  std::vector<double> each;
  for (size_t i = 0; i < store.size(); ++i) each.push_back(store[i] / plain[i]);
  const auto [low, high] = std::minmax_element(each.begin(), each.end());
  std::printf("  %-34s %.2fx (rounds %.2fx-%.2fx)\n", what, median(store) / median(plain), *low,
              *high);
}

}  // namespace

int main(int argc, char **argv) {
  if (argc < 2 || argc > 4) {
    std::fprintf(stderr, "usage: bench_postgres URI [messages] [rounds]\n");
    return 2;
  }
  const std::string uri = argv[1];
  const long count = argc > 2 ? std::atol(argv[2]) : 2000;
  const int rounds = argc > 3 ? std::atoi(argv[3]) : 5;
  check(count > 0, "the count of messages");
  check(rounds > 0, "the count of rounds");
  const std::string tag = std::to_string(getpid());

  PGconn *connection = PQconnectdb(uri.c_str());
  check(PQstatus(connection) == CONNECTION_OK, "connecting to the server");
  // The drops at the end tell of every table they take with them.
  run(connection, "SET client_min_messages = warning");
  setenv("VXQM_DATA", uri.c_str(), 1);
  Rounds plainLogged, plainUnlogged, persistent, nonPersistent;
  std::vector<std::string> schemas;
  for (int round = 1; round <= rounds; ++round) {
    const std::string suffix = tag + "." + std::to_string(round);
    const std::string schema = "bench_plain_" + tag + "_" + std::to_string(round);
    run(connection, "CREATE SCHEMA " + schema);
    plainLogged.add(plainStatements(connection, schema, true, count));
    run(connection, "DROP TABLE " + schema + ".messages");
    persistent.add(throughQueueManager("BENCH.P." + suffix, PERSISTENCE_PERSISTENT, count));
    plainUnlogged.add(plainStatements(connection, schema, false, count));
    nonPersistent.add(throughQueueManager("BENCH.NP." + suffix, PERSISTENCE_NOT_PERSISTENT, count));
    schemas.insert(schemas.end(), {schema, "BENCH.P." + suffix, "BENCH.NP." + suffix});
  }
  for (const std::string &schema : schemas) {
    char *quoted = PQescapeIdentifier(connection, schema.c_str(), schema.size());
    run(connection, std::string("DROP SCHEMA IF EXISTS ") + quoted + " CASCADE");
    PQfreemem(quoted);
  }
  PQfinish(connection);

  std::printf("%ld messages of %d bytes a round, %d rounds, one process,\n", count, kMessageLength,
              rounds);
  std::printf("microseconds per message, median (lowest-highest round)\n");
  std::printf("  %-46s %21s %21s\n", "", "put", "get");
  row("queue manager, persistent", persistent);
  row("plain INSERT / DELETE ... RETURNING, logged", plainLogged);
  row("queue manager, non-persistent", nonPersistent);
  row("plain INSERT / DELETE ... RETURNING, unlogged", plainUnlogged);
  std::printf("the queue manager beside the plain statements (targets: 2x, persistent):\n");
  ratio("persistent put / logged insert", persistent.put, plainLogged.put);
  ratio("persistent get / logged delete", persistent.get, plainLogged.get);
  ratio("non-persistent put / unlogged insert", nonPersistent.put, plainUnlogged.put);
  ratio("non-persistent get / unlogged delete", nonPersistent.get, plainUnlogged.get);
  return 0;
}
