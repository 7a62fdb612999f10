// Benchmark of the persistent store, run by hand: messages per second of
// putting then getting persistent 256-byte messages through a queue manager
// over a SQLite database, in both modes of durability (every put synced
// before it returns, the default; and VXQM_SYNC=normal), each beside plain
// SQLite inserts of the same rows (same table, same index) in a transaction
// each with the same sync (the limit a persistent put is measured against);
// then 4 threads putting at once with every put synced, to show the syncs
// they share; and the same through a queue manager in memory.
// Usage: bench_store [messages]   (default 10000); the databases go in a new
// directory under /tmp, removed at the end.
#include <sqlite3.h>
#include <stdlib.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "put_then_get.h"
#include "qm.h"
#include "qm_admin.h"
#include "vxqi_records.h"

namespace {

using Clock = std::chrono::steady_clock;
constexpr int32_t kMessageLength = 256;

double seconds(Clock::duration d) { return std::chrono::duration<double>(d).count(); }

void check(bool good, const char *what) {
  if (!good) {
    std::fprintf(stderr, "%s failed\n", what);
    std::exit(1);
  }
}

struct Rates {
  double put;
  double get;
};

// Puts then gets `count` persistent messages through the queue manager
// `qmName`, created in this process with the environment as it is.
Rates throughQueueManager(const char *qmName, int count) {
  const bench::PutThenGet times =
      bench::putThenGet(qmName, PERSISTENCE_PERSISTENT, count, kMessageLength);
  return {count / seconds(times.put), count / seconds(times.get)};
}

// Puts `count` persistent messages from `threads` threads at once, each on
// a connection of its own, through the queue manager `qmName`; returns the
// messages per second of them all.
double concurrentPuts(const char *qmName, int threads, int count) {
  vxqm::QueueChanges changes;
  changes.maxDepth = count;
  check(vxqm::admin::createQueue(qmName, "BENCH", changes) == RC_NONE, "create queue");
  std::atomic<bool> failed{false};
  std::vector<std::thread> putters;
  const Clock::time_point start = Clock::now();
  for (int t = 0; t < threads; ++t) {
    putters.emplace_back([&, t] {
      char name[QM_NAME_LENGTH] = {};
      std::memcpy(name, qmName, std::strlen(qmName));
      int32_t hconn = 0, cc = 0, rc = 0;
      qmCONN(name, &hconn, &cc, &rc, 0);
      vxOBJDESC od = OD_DEFAULT;
      std::memcpy(od.objectName, "BENCH", 5);
      int32_t hobj = 0;
      if (cc == CC_OK) qmOPEN(hconn, &od, OPEN_OUTPUT, &hobj, &cc, &rc);
      std::vector<char> data(kMessageLength, 'x');
      for (int i = t; i < count && cc == CC_OK; i += threads) {
        vxMSGDESC md = MD_DEFAULT;
        md.persistence = PERSISTENCE_PERSISTENT;
        vxPUTOPTS pmo = PMO_DEFAULT;
        qmPUT(hconn, hobj, &md, &pmo, kMessageLength, data.data(), 0, &cc, &rc);
      }
      if (cc != CC_OK) failed = true;
      qmDISC(&hconn, 0, &cc, &rc);
    });
  }
  for (std::thread &putter : putters) putter.join();
  const Clock::duration time = Clock::now() - start;
  check(!failed, "concurrent puts");
  return count / seconds(time);
}

// The same rows inserted with SQLite alone, one transaction each, synced
// as `synchronous` says (FULL or NORMAL).
double plainInserts(const std::string &path, const char *synchronous, int count) {
  sqlite3 *db = nullptr;
  check(sqlite3_open(path.c_str(), &db) == SQLITE_OK, "sqlite open");
  const std::string setup =
      std::string("PRAGMA journal_mode = WAL; PRAGMA synchronous = ") + synchronous +
      ";"
      "CREATE TABLE messages (seq INTEGER PRIMARY KEY AUTOINCREMENT, queue TEXT NOT NULL,"
      " priority INTEGER NOT NULL, state INTEGER NOT NULL, owner TEXT,"
      " unit INTEGER NOT NULL DEFAULT 0, msg_id BLOB NOT NULL, correl_id BLOB NOT NULL,"
      " backout INTEGER NOT NULL DEFAULT 0, expires INTEGER, visible INTEGER,"
      " descriptor BLOB NOT NULL, data BLOB NOT NULL);"
      "CREATE INDEX messages_order ON messages (queue, state, priority DESC, seq);";
  check(sqlite3_exec(db, setup.c_str(), nullptr, nullptr, nullptr) == SQLITE_OK, "sqlite schema");
  sqlite3_stmt *insert = nullptr;
  check(sqlite3_prepare_v2(db,
                           "INSERT INTO messages (queue, priority, state, unit, msg_id,"
                           " correl_id, descriptor, data) VALUES (?1, 0, 0, 0, ?2, ?3, ?4, ?5)",
                           -1, &insert, nullptr) == SQLITE_OK,
        "sqlite prepare");
  const vxMSGDESC md = MD_DEFAULT;
  std::vector<char> data(kMessageLength, 'x');
  const Clock::time_point start = Clock::now();
  for (int i = 0; i < count; ++i) {
    char id[MSG_ID_LENGTH] = {};
    std::memcpy(id, &i, sizeof i);
    sqlite3_bind_text(insert, 1, "BENCH", 5, SQLITE_STATIC);
    sqlite3_bind_blob(insert, 2, id, MSG_ID_LENGTH, SQLITE_STATIC);
    sqlite3_bind_blob(insert, 3, md.correlId, CORREL_ID_LENGTH, SQLITE_STATIC);
    sqlite3_bind_blob(insert, 4, &md, sizeof md, SQLITE_STATIC);
    sqlite3_bind_blob(insert, 5, data.data(), kMessageLength, SQLITE_STATIC);
    check(sqlite3_step(insert) == SQLITE_DONE, "sqlite insert");
    sqlite3_reset(insert);
  }
  const Clock::duration time = Clock::now() - start;
  sqlite3_finalize(insert);
  sqlite3_close(db);
  return count / seconds(time);
}

}  // namespace

int main(int argc, char **argv) {
  const int count = argc > 1 ? std::atoi(argv[1]) : 10000;
  char pattern[] = "/tmp/vxqm-bench-XXXXXX";
  check(mkdtemp(pattern) != nullptr, "mkdtemp");
  const std::string directory = pattern;
  // The companion in memory goes in a folder of the run, removed with it.
  char memoryPattern[] = "/dev/shm/vxqm-bench-XXXXXX";
  check(mkdtemp(memoryPattern) != nullptr, "mkdtemp");
  const std::string memoryDirectory = memoryPattern;
  setenv("VXQM_MEMORY_DIR", memoryDirectory.c_str(), 1);

  setenv("VXQM_DATA", directory.c_str(), 1);
  unsetenv("VXQM_SYNC");
  const Rates full = throughQueueManager("BENCH.FULL", count);
  const double group = concurrentPuts("BENCH.GROUP", 4, count);
  setenv("VXQM_SYNC", "normal", 1);
  const Rates normal = throughQueueManager("BENCH.NORMAL", count);
  unsetenv("VXQM_SYNC");
  unsetenv("VXQM_DATA");
  const Rates memory = throughQueueManager("BENCH.MEMORY", count);
  const double plainFull = plainInserts(directory + "/full.db", "FULL", count);
  const double plainNormal = plainInserts(directory + "/normal.db", "NORMAL", count);
  std::filesystem::remove_all(directory);
  std::filesystem::remove_all(memoryDirectory);

  std::printf("%d persistent messages of %d bytes, messages per second\n", count, kMessageLength);
  std::printf("  every put synced before it returns (the default)\n");
  std::printf("    %-40s put %9.0f   get %9.0f\n", "queue manager, SQLite store", full.put,
              full.get);
  std::printf("    %-40s put %9.0f\n", "queue manager, 4 threads putting at once", group);
  std::printf("    %-40s put %9.0f\n", "plain SQLite insert, synchronous FULL", plainFull);
  std::printf("    persistent put takes %.2fx the time of a plain insert\n", plainFull / full.put);
  std::printf("  VXQM_SYNC=normal: synced when the log is copied into the database\n");
  std::printf("    %-40s put %9.0f   get %9.0f\n", "queue manager, SQLite store", normal.put,
              normal.get);
  std::printf("    %-40s put %9.0f\n", "plain SQLite insert, synchronous NORMAL", plainNormal);
  std::printf("    persistent put takes %.2fx the time of a plain insert (target: 2x or less)\n",
              plainNormal / normal.put);
  std::printf("  %-42s put %9.0f   get %9.0f\n", "queue manager in memory", memory.put, memory.get);
  return 0;
}
