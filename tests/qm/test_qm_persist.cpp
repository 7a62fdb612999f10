// A queue manager with a data directory: what survives a restart (a reset
// opens the queue manager again from its database), and what two processes
// on the same directory see of each other (the second one is qm_peer).
#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <memory>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "emulation.h"
#include "qm_admin.h"
#include "qm_testing.h"

extern char **environ;

namespace {

using qmtest::Connection;
using qmtest::failed;
using qmtest::ok;
using qmtest::Status;

constexpr const char *kQm = "PQM";

// A second process: qm_peer with its arguments, its standard output in a pipe.
class Peer {
 public:
  explicit Peer(const std::vector<std::string> &arguments) {
    int fds[2];
    if (pipe(fds) != 0) return;
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, fds[1], 1);
    posix_spawn_file_actions_addclose(&actions, fds[0]);
    std::vector<std::string> all{QM_PEER, kQm};
    all.insert(all.end(), arguments.begin(), arguments.end());
    std::vector<char *> argv;
    for (std::string &a : all) argv.push_back(a.data());
    argv.push_back(nullptr);
    if (posix_spawn(&pid_, QM_PEER, &actions, nullptr, argv.data(), environ) != 0) pid_ = -1;
    posix_spawn_file_actions_destroy(&actions);
    close(fds[1]);
    out_ = fds[0];
  }
  ~Peer() {
    if (pid_ > 0) {
      kill(pid_, SIGKILL);
      waitpid(pid_, nullptr, 0);
    }
    if (out_ >= 0) close(out_);
  }
  Peer(const Peer &) = delete;
  Peer &operator=(const Peer &) = delete;

  // The next line of its output, or false at its end.
  bool line(std::string *text) {
    text->clear();
    char c;
    while (read(out_, &c, 1) == 1) {
      if (c == '\n') return true;
      *text += c;
    }
    return !text->empty();
  }
  std::vector<std::string> lines() {
    std::vector<std::string> all;
    std::string text;
    while (line(&text)) all.push_back(text);
    return all;
  }
  // Its exit status, once it ended.
  int wait() {
    int status = 0;
    waitpid(pid_, &status, 0);
    pid_ = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  }
  void kill9() {
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
    pid_ = -1;
  }

 private:
  pid_t pid_ = -1;
  int out_ = -1;
};

class QmPersist : public ::testing::Test {
 protected:
  void SetUp() override {
    char pattern[] = "/tmp/vxqm-data-XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    directory_ = pattern;
    setenv("VXQM_DATA", directory_.c_str(), 1);
    vxqm::test::reset(kQm);  // a queue manager left by another test reads it again
  }
  void TearDown() override {
    vxqm::test::restart(kQm);  // leaves nothing in memory
    unsetenv("VXQM_DATA");
    vxqm::test::reset(kQm);  // back in memory: the files can go
    if (!directory_.empty()) std::filesystem::remove_all(directory_);
  }
  // Ends the queue manager as a restart of the machine does, and opens it
  // again.
  void restart() { vxqm::test::restart(kQm); }

  void createQueue(const std::string &name, int32_t persistence = 0) {
    vxqm::QueueChanges changes;
    changes.maxDepth = 100000;
    changes.defaultPersistence = persistence;
    ASSERT_EQ(vxqm::admin::createQueue(kQm, name, changes), RC_NONE);
  }

  static Status putPersistence(Connection &c, int32_t hobj, const std::string &data,
                               int32_t persistence, int32_t options = 0) {
    vxMSGDESC md = MD_DEFAULT;
    md.persistence = persistence;
    return c.put(hobj, data, &md, options);
  }

  // Every message on the queue, got in order.
  static std::vector<std::string> drain(const std::string &queue) {
    Connection c(kQm);
    int32_t hobj = c.open(queue, OPEN_INPUT_SHARED);
    std::vector<std::string> got;
    std::string data;
    while (c.get(hobj, &data) == ok()) got.push_back(data);
    return got;
  }

  // Every expected message was got exactly once, and nothing else.
  static void expectEachOnce(const std::vector<std::string> &got,
                             const std::set<std::string> &expected) {
    std::multiset<std::string> counted(got.begin(), got.end());
    EXPECT_EQ(counted.size(), expected.size()) << "a message was lost or delivered twice";
    std::string missing;  // what was not delivered exactly once
    for (const std::string &message : expected) {
      if (counted.count(message) != 1) {
        missing += " " + message + " (" + std::to_string(counted.count(message)) + " times)";
      }
    }
    std::string unexpected;
    for (const std::string &message : counted) {
      if (expected.count(message) == 0) unexpected += " [" + message + "]";
    }
    EXPECT_EQ(missing, "") << "not delivered once; others:" << unexpected;
  }

  std::string directory_;
};

// What every shared store does, over SQLite and over PostgreSQL: the
// PostgreSQL queue manager lives in a database of the test's own on the
// test server (tests/CMakeLists.txt, fixture "postgres"), so that tests run
// in parallel.
class QmShared : public QmPersist, public ::testing::WithParamInterface<std::string> {
 protected:
  void SetUp() override {
    if (GetParam() == "Postgres") {
      const char *directory = std::getenv("VX_TEST_POSTGRES_DIR");
      ASSERT_NE(directory, nullptr) << "VX_TEST_POSTGRES_DIR is not set: run under ctest";
      std::ifstream file(std::string(directory) + "/uri");
      ASSERT_TRUE(std::getline(file, serverUri_))
          << "no PostgreSQL test server: " << directory << "/uri is missing";
      database_ = "persist_" + std::to_string(getpid());
      ASSERT_EQ(psql("DROP DATABASE IF EXISTS " + database_ + " WITH (FORCE)"), 0);
      ASSERT_EQ(psql("CREATE DATABASE " + database_), 0);
      std::string uri = serverUri_;
      const size_t name = uri.find("/vxtest?");
      ASSERT_NE(name, std::string::npos) << uri;
      uri.replace(name, 7, "/" + database_);
      setenv("VXQM_DATA", uri.c_str(), 1);
      vxqm::test::reset(kQm);
      directory_.clear();
      return;
    }
    QmPersist::SetUp();
  }
  void TearDown() override {
    QmPersist::TearDown();
    if (!database_.empty()) psql("DROP DATABASE IF EXISTS " + database_ + " WITH (FORCE)");
  }
  // Runs one statement on the test server's own database.
  int psql(const std::string &sql) const {
    const std::string command = "psql -q -v ON_ERROR_STOP=1 '" + serverUri_ +
                                "' -c 'SET client_min_messages = warning' -c '" + sql + "'";
    return std::system(command.c_str());
  }
  std::string serverUri_;
  std::string database_;
};

INSTANTIATE_TEST_SUITE_P(Stores, QmShared, ::testing::Values("Sqlite", "Postgres"),
                         [](const auto &info) { return info.param; });

// What only a store shared across hosts does.
class QmHosts : public QmShared {};

INSTANTIATE_TEST_SUITE_P(Stores, QmHosts, ::testing::Values("Postgres"),
                         [](const auto &info) { return info.param; });

TEST_P(QmHosts, AKilledProcessOfAnotherHostIsEndedByItsLock) {
  // Another host's pid means nothing here: only the session's advisory
  // lock, dropped by the server when the session ends, tells that it ended.
  createQueue("REMOTE");
  setenv("VXQM_HOST", "another-host", 1);
  Peer holder({"hold", "REMOTE", std::to_string(OPEN_INPUT_EXCLUSIVE)});
  unsetenv("VXQM_HOST");
  std::string line;
  ASSERT_TRUE(holder.line(&line));
  ASSERT_EQ(line.rfind("ready ", 0), 0u) << line;
  Connection c(kQm);
  c.open("REMOTE", OPEN_INPUT_SHARED, failed(RC_OBJECT_IN_USE));
  EXPECT_EQ(vxqm::test::temporaryQueueCount(kQm), 1);
  holder.kill9();
  int32_t hobj = 0;
  for (int tries = 0; tries < 100 && hobj == 0; ++tries) {
    vxOBJDESC od = OD_DEFAULT;
    qmtest::setField(od.objectName, sizeof od.objectName, "REMOTE");
    Status s;
    qmOPEN(c.hconn(), &od, OPEN_INPUT_EXCLUSIVE, &hobj, &s.compCode, &s.reason);
    if (s != ok()) {
      EXPECT_EQ(s, failed(RC_OBJECT_IN_USE));
      hobj = 0;
      usleep(20000);  // until the server has seen the session end
    }
  }
  EXPECT_NE(hobj, 0) << "the dead process of another host still holds the queue";
  EXPECT_EQ(vxqm::test::temporaryQueueCount(kQm), 0);
}

TEST_F(QmPersist, TheDatabaseIsOneFileInTheDataDirectory) {
  Connection c(kQm);
  EXPECT_TRUE(std::filesystem::exists(directory_ + "/PQM.db"));
}

TEST_F(QmPersist, ADatabaseThatCannotBeMadeIsAStoreError) {
  const std::string notADirectory = directory_ + "/file";
  std::fclose(std::fopen(notADirectory.c_str(), "w"));
  setenv("VXQM_DATA", notADirectory.c_str(), 1);
  vxqm::test::reset(kQm);
  char name[QM_NAME_LENGTH] = "PQM";
  int32_t hconn = 0;
  Status s;
  qmCONN(name, &hconn, &s.compCode, &s.reason, 0);
  EXPECT_EQ(s, failed(RC_STORE_ERROR));
  EXPECT_EQ(vxqm::admin::createQueue(kQm, "ANY", {}), RC_STORE_ERROR);
  vxqm::test::reset(kQm);  // nothing to reset: no queue manager was made
  setenv("VXQM_DATA", directory_.c_str(), 1);
  Connection c(kQm);  // the next connect makes it
}

// The account of the last store failure of `qmName`, as one line.
std::string lastFailure(const std::string &qmName, vxqm::admin::StoreProblem *problem = nullptr) {
  vxqm::admin::StoreFailure failure;
  if (!vxqm::admin::lastStoreFailure(qmName, &failure)) return "none";
  if (problem != nullptr) *problem = failure.problem;
  return std::to_string(failure.reason) + " " + failure.path + ": " + failure.action + ": " +
         failure.cause;
}

std::string modeOf(const std::string &path) {
  struct stat info;
  if (lstat(path.c_str(), &info) != 0) return "missing";
  char text[8];
  std::snprintf(text, sizeof text, "%o", static_cast<unsigned>(info.st_mode & 07777));
  return text;
}

// A queue manager's name becomes a file name in the data directory: one
// that would be a path is refused, and nothing is made outside.
TEST_F(QmPersist, ANameThatWouldBeAPathIsRefused) {
  const std::string inside = directory_ + "/inside";
  ASSERT_EQ(mkdir(inside.c_str(), 0700), 0);
  setenv("VXQM_DATA", inside.c_str(), 1);
  for (const char *name : {"../EVIL", "..", ".HIDDEN", "A/B", "/TMP", "A/../B"}) {
    EXPECT_EQ(vxqm::admin::createQueue(name, "ANY", {}), RC_Q_MGR_NAME_ERROR) << name;
    char field[QM_NAME_LENGTH] = {};
    qmtest::setField(field, sizeof field, name);
    int32_t hconn = 0;
    Status s;
    qmCONN(field, &hconn, &s.compCode, &s.reason, 0);
    EXPECT_EQ(s, failed(RC_Q_MGR_NAME_ERROR)) << name;
  }
  EXPECT_FALSE(std::filesystem::exists(directory_ + "/EVIL.db"));
  EXPECT_FALSE(std::filesystem::exists(inside + "/.HIDDEN.db"));
  EXPECT_FALSE(std::filesystem::exists(inside + "/A"));
  // Dots within a name are a file name like any other.
  EXPECT_EQ(vxqm::admin::createQueue("A.B", "ANY", {}), RC_NONE);
  EXPECT_TRUE(std::filesystem::exists(inside + "/A.B.db"));
  vxqm::test::restart("A.B");
  setenv("VXQM_DATA", directory_.c_str(), 1);
  // Without a data directory a name is no file name: '/' is a character of
  // names like any other.
  unsetenv("VXQM_DATA");
  EXPECT_EQ(vxqm::admin::createQueue("A/B", "ANY", {}), RC_NONE);
  vxqm::test::reset("A/B");
  setenv("VXQM_DATA", directory_.c_str(), 1);
}

// The files of the database are the user's alone whatever the umask.
TEST_F(QmPersist, TheFilesArePrivateWhateverTheUmask) {
  unsetenv("VXQM_DATA");
  vxqm::test::reset(kQm);  // in memory: the directory can go
  std::filesystem::remove_all(directory_);
  const mode_t old = umask(0);
  setenv("VXQM_DATA", directory_.c_str(), 1);
  vxqm::test::reset(kQm);
  {
    Connection c(kQm);
    int32_t hobj = c.open("SYSTEM.DEFAULT.LOCAL.QUEUE", OPEN_OUTPUT);
    vxMSGDESC md = MD_DEFAULT;
    md.persistence = PERSISTENCE_PERSISTENT;
    EXPECT_EQ(c.put(hobj, "private", &md), ok());
  }
  umask(old);
  EXPECT_EQ(modeOf(directory_), "700");
  EXPECT_EQ(modeOf(directory_ + "/PQM.db"), "600");
  EXPECT_EQ(modeOf(directory_ + "/PQM.db-wal"), "600");
  EXPECT_EQ(modeOf(directory_ + "/PQM.db-shm"), "600");
  EXPECT_EQ(modeOf(directory_ + "/PQM.db.owners"), "700");
  for (const auto &entry : std::filesystem::directory_iterator(directory_ + "/PQM.db.owners"))
    EXPECT_EQ(modeOf(entry.path().string()), "600") << entry.path();
}

// A database made readable by others before is made private when it opens.
TEST_F(QmPersist, ADatabaseOthersCouldReadIsMadePrivate) {
  { Connection c(kQm); }
  vxqm::test::restart(kQm);
  ASSERT_EQ(chmod((directory_ + "/PQM.db").c_str(), 0644), 0);
  vxqm::test::reset(kQm);
  EXPECT_EQ(modeOf(directory_ + "/PQM.db"), "600");
}

// Only the last level of a data directory is made; its parent must exist.
TEST_F(QmPersist, OnlyTheLastLevelOfTheDataDirectoryIsMade) {
  const std::string deep = directory_ + "/no/such/dir";
  setenv("VXQM_DATA", deep.c_str(), 1);
  vxqm::test::reset(kQm);
  vxqm::admin::StoreProblem problem{};
  EXPECT_EQ(vxqm::admin::createQueue(kQm, "ANY", {}), RC_STORE_ERROR);
  EXPECT_EQ(lastFailure(kQm, &problem),
            "2197 " + deep + ": making the data directory: its parent directory does not exist");
  EXPECT_EQ(problem, vxqm::admin::StoreProblem::kMissingDirectory);
  EXPECT_FALSE(std::filesystem::exists(directory_ + "/no"));
  const std::string one = directory_ + "/one";
  setenv("VXQM_DATA", one.c_str(), 1);
  vxqm::test::reset(kQm);
  EXPECT_EQ(vxqm::admin::createQueue(kQm, "ANY", {}), RC_NONE);
  EXPECT_EQ(modeOf(one), "700");
  vxqm::test::restart(kQm);
  setenv("VXQM_DATA", directory_.c_str(), 1);
}

// A directory that others may write, or that is another user's, is refused.
TEST_F(QmPersist, ADirectoryOthersMayWriteIsRefused) {
  vxqm::test::restart(kQm);
  ASSERT_EQ(chmod(directory_.c_str(), 0777), 0);
  vxqm::test::reset(kQm);
  vxqm::admin::StoreProblem problem{};
  EXPECT_EQ(vxqm::admin::createQueue(kQm, "ANY", {}), RC_STORE_ERROR);
  EXPECT_EQ(lastFailure(kQm, &problem),
            "2197 " + directory_ + ": checking the data directory: group or others may write it");
  EXPECT_EQ(problem, vxqm::admin::StoreProblem::kUnsafeDirectory);
  ASSERT_EQ(chmod(directory_.c_str(), 0700), 0);
  if (geteuid() == 0) {
    ASSERT_EQ(chown(directory_.c_str(), 65534, 65534), 0);
    vxqm::test::reset(kQm);
    EXPECT_EQ(vxqm::admin::createQueue(kQm, "ANY", {}), RC_STORE_ERROR);
    EXPECT_EQ(lastFailure(kQm),
              "2197 " + directory_ + ": checking the data directory: it belongs to another user");
    ASSERT_EQ(chown(directory_.c_str(), 0, 0), 0);
  }
  vxqm::test::reset(kQm);
  EXPECT_EQ(vxqm::admin::createQueue(kQm, "ANY", {}), RC_NONE);
}

// A file that is not a database is named, with the engine's own reason.
TEST_F(QmPersist, AFileThatIsNotADatabaseIsNamed) {
  vxqm::test::restart(kQm);
  std::filesystem::remove_all(directory_);
  ASSERT_EQ(mkdir(directory_.c_str(), 0700), 0);
  std::FILE *file = std::fopen((directory_ + "/PQM.db").c_str(), "w");
  ASSERT_NE(file, nullptr);
  for (int i = 0; i < 512; ++i) std::fputs("not a database, ", file);
  std::fclose(file);
  vxqm::test::reset(kQm);
  vxqm::admin::StoreProblem problem{};
  EXPECT_EQ(vxqm::admin::createQueue(kQm, "ANY", {}), RC_STORE_ERROR);
  EXPECT_EQ(lastFailure(kQm, &problem),
            "2197 " + directory_ + "/PQM.db: opening the database: file is not a database");
  EXPECT_EQ(problem, vxqm::admin::StoreProblem::kNotADatabase);
  std::filesystem::remove(directory_ + "/PQM.db");
  vxqm::test::reset(kQm);
}

TEST_P(QmShared, DefinitionsAndPersistentMessagesSurviveARestart) {
  createQueue("KEPT");
  vxqm::QueueChanges changes;
  changes.description = "changed";
  ASSERT_EQ(vxqm::admin::changeQueue(kQm, "SYSTEM.DEFAULT.LOCAL.QUEUE", changes), RC_NONE);
  {
    Connection c(kQm);
    int32_t hobj = c.open("KEPT", OPEN_OUTPUT);
    EXPECT_EQ(putPersistence(c, hobj, "persistent", PERSISTENCE_PERSISTENT), ok());
    EXPECT_EQ(putPersistence(c, hobj, "not persistent", PERSISTENCE_NOT_PERSISTENT), ok());
    EXPECT_EQ(vxqm::test::messageCount(kQm, "KEPT"), 2);
  }
  restart();
  vxqm::QueueDefinition definition;
  ASSERT_EQ(vxqm::admin::queueAttributes(kQm, "KEPT", &definition), RC_NONE);
  EXPECT_EQ(definition.maxDepth, 100000);
  ASSERT_EQ(vxqm::admin::queueAttributes(kQm, "SYSTEM.DEFAULT.LOCAL.QUEUE", &definition), RC_NONE);
  EXPECT_EQ(definition.description, "changed");  // not redefined by the restart
  EXPECT_EQ(vxqm::test::queueCount(kQm), 4);
  EXPECT_EQ(drain("KEPT"), (std::vector<std::string>{"persistent"}));
}

TEST_P(QmShared, PersistenceAsTheQueueDefault) {
  createQueue("DEFAULT.P", PERSISTENCE_PERSISTENT);
  createQueue("DEFAULT.N", PERSISTENCE_NOT_PERSISTENT);
  {
    Connection c(kQm);
    int32_t p = c.open("DEFAULT.P", OPEN_OUTPUT);
    int32_t n = c.open("DEFAULT.N", OPEN_OUTPUT);
    EXPECT_EQ(putPersistence(c, p, "p", PERSISTENCE_AS_Q_DEF), ok());
    EXPECT_EQ(putPersistence(c, n, "n", PERSISTENCE_AS_Q_DEF), ok());
    EXPECT_EQ(putPersistence(c, n, "n-but-persistent", PERSISTENCE_PERSISTENT), ok());
  }
  restart();
  EXPECT_EQ(drain("DEFAULT.P"), (std::vector<std::string>{"p"}));
  EXPECT_EQ(drain("DEFAULT.N"), (std::vector<std::string>{"n-but-persistent"}));
}

TEST_P(QmShared, AnOpenUnitOfWorkEndsWithItsQueueManager) {
  createQueue("UNIT");
  {
    Connection c(kQm);
    int32_t hobj = c.open("UNIT", OPEN_OUTPUT);
    EXPECT_EQ(putPersistence(c, hobj, "committed", PERSISTENCE_PERSISTENT), ok());
  }
  Connection c(kQm);
  int32_t hobj = c.open("UNIT", OPEN_OUTPUT | OPEN_INPUT_SHARED);
  std::string data;
  EXPECT_EQ(c.get(hobj, &data, GET_SYNCPOINT), ok());
  EXPECT_EQ(putPersistence(c, hobj, "uncommitted", PERSISTENCE_PERSISTENT, PUT_SYNCPOINT), ok());
  restart();  // the connection ends without a commit
  vxMSGDESC md = MD_DEFAULT;
  Connection again(kQm);
  int32_t in = again.open("UNIT", OPEN_INPUT_SHARED);
  EXPECT_EQ(again.get(in, &data, 0, 0, &md), ok());
  EXPECT_EQ(data, "committed");
  EXPECT_EQ(md.backoutCount, 1);
  EXPECT_EQ(again.get(in, &data), failed(RC_NO_MSG_AVAILABLE));
}

TEST_P(QmShared, NonPersistentMessagesMoveBetweenProcesses) {
  createQueue("MIXED");
  Connection c(kQm);
  int32_t hobj = c.open("MIXED", OPEN_OUTPUT | OPEN_INPUT_SHARED);
  EXPECT_EQ(putPersistence(c, hobj, "np", PERSISTENCE_NOT_PERSISTENT), ok());
  EXPECT_EQ(putPersistence(c, hobj, "p", PERSISTENCE_PERSISTENT), ok());
  Peer peer({"drain", "MIXED", "100"});
  EXPECT_EQ(peer.lines(), (std::vector<std::string>{"np", "p"}));
  EXPECT_EQ(peer.wait(), 0);
  std::string data;
  EXPECT_EQ(c.get(hobj, &data), failed(RC_NO_MSG_AVAILABLE));
}

TEST_P(QmShared, AnotherProcessInhibitingTakesEffectOnTheNextPutAndGet) {
  createQueue("INHIBITED");
  Connection c(kQm);
  const int32_t hobj = c.open("INHIBITED", OPEN_OUTPUT | OPEN_INPUT_SHARED);
  std::string data;
  EXPECT_EQ(putPersistence(c, hobj, "before", PERSISTENCE_PERSISTENT), ok());
  EXPECT_EQ(putPersistence(c, hobj, "kept", PERSISTENCE_PERSISTENT), ok());
  EXPECT_EQ(c.get(hobj, &data), ok());
  EXPECT_EQ(data, "before");
  EXPECT_EQ(Peer({"inhibit", "INHIBITED", "1"}).wait(), 0);
  EXPECT_EQ(putPersistence(c, hobj, "after", PERSISTENCE_PERSISTENT), failed(RC_PUT_INHIBITED));
  EXPECT_EQ(c.get(hobj, &data), failed(RC_GET_INHIBITED));
  EXPECT_EQ(Peer({"inhibit", "INHIBITED", "0"}).wait(), 0);
  EXPECT_EQ(putPersistence(c, hobj, "allowed", PERSISTENCE_PERSISTENT), ok());
  EXPECT_EQ(c.get(hobj, &data), ok());
  EXPECT_EQ(data, "kept");
  EXPECT_EQ(c.get(hobj, &data), ok());
  EXPECT_EQ(data, "allowed");
}

TEST_P(QmShared, AUnitIsInvisibleToAnotherProcessUntilCommitted) {
  createQueue("SYNC");
  Connection c(kQm);
  int32_t hobj = c.open("SYNC", OPEN_OUTPUT);
  EXPECT_EQ(putPersistence(c, hobj, "later", PERSISTENCE_PERSISTENT, PUT_SYNCPOINT), ok());
  {
    Peer peer({"drain", "SYNC", "0"});
    EXPECT_TRUE(peer.lines().empty());
    EXPECT_EQ(peer.wait(), 0);
  }
  EXPECT_EQ(c.commit(), ok());
  Peer peer({"drain", "SYNC", "0"});
  EXPECT_EQ(peer.lines(), (std::vector<std::string>{"later"}));
  EXPECT_EQ(peer.wait(), 0);
}

TEST_P(QmShared, TheUnitOfAProcessThatDiesIsBackedOut) {
  createQueue("DIES");
  {
    Connection c(kQm);
    int32_t hobj = c.open("DIES", OPEN_OUTPUT);
    EXPECT_EQ(putPersistence(c, hobj, "taken", PERSISTENCE_PERSISTENT), ok());
  }
  Peer peer({"unit", "DIES"});
  std::string line;
  ASSERT_TRUE(peer.line(&line));
  EXPECT_EQ(line, "ready");
  EXPECT_EQ(vxqm::test::messageCount(kQm, "DIES"), 2);  // its get and its put, both in its unit
  peer.kill9();
  restart();  // opening the store ends the units of processes that died
  Connection c(kQm);
  int32_t hobj = c.open("DIES", OPEN_INPUT_SHARED);
  vxMSGDESC md = MD_DEFAULT;
  std::string data;
  EXPECT_EQ(c.get(hobj, &data, 0, 0, &md), ok());
  EXPECT_EQ(data, "taken");
  EXPECT_EQ(md.backoutCount, 1);
  EXPECT_EQ(c.get(hobj, &data), failed(RC_NO_MSG_AVAILABLE));  // its put vanished
}

TEST_P(QmShared, AWaitingGetSeesAPutOfAnotherProcessWithin50ms) {
  createQueue("WAKE");
  Connection c(kQm);
  int32_t hobj = c.open("WAKE", OPEN_INPUT_SHARED);
  Peer peer({"putafter", "WAKE", "300"});
  std::string data;
  EXPECT_EQ(c.get(hobj, &data, GET_WAIT, 10000), ok());
  const auto gotAt = std::chrono::steady_clock::now().time_since_epoch();
  EXPECT_EQ(data, "wake");
  std::string line;
  ASSERT_TRUE(peer.line(&line));
  const auto putAt = std::chrono::nanoseconds(std::stoll(line));
  EXPECT_LT(std::chrono::duration_cast<std::chrono::milliseconds>(gotAt - putAt).count(),
            50 * vxtest::slowdown());
  EXPECT_EQ(peer.wait(), 0);
}

TEST_P(QmShared, TwoProcessesMove10000MessagesAndLoseNone) {
  createQueue("SHARED");
  constexpr int kEach = 5000;
  // Two processes put half each while two others take whatever comes, in
  // competition for every message; the test takes what is left.
  Peer putterA({"put", "SHARED", std::to_string(kEach), "A"});
  Peer putterB({"put", "SHARED", std::to_string(kEach), "B"});
  Peer getterA({"drain", "SHARED", "1000"});
  Peer getterB({"drain", "SHARED", "1000"});
  EXPECT_EQ(putterA.lines().size(), static_cast<size_t>(kEach));
  EXPECT_EQ(putterB.lines().size(), static_cast<size_t>(kEach));
  EXPECT_EQ(putterA.wait(), 0);
  EXPECT_EQ(putterB.wait(), 0);
  std::vector<std::string> got = getterA.lines();
  const std::vector<std::string> more = getterB.lines();
  EXPECT_EQ(getterA.wait(), 0);
  EXPECT_EQ(getterB.wait(), 0);
  const std::vector<std::string> left = drain("SHARED");
  got.insert(got.end(), more.begin(), more.end());
  got.insert(got.end(), left.begin(), left.end());
  std::set<std::string> expected;
  for (int i = 0; i < kEach; ++i) {
    expected.insert("A" + std::to_string(i));
    expected.insert("B" + std::to_string(i));
  }
  expectEachOnce(got, expected);
}

TEST_P(QmShared, FourProcessesPutAndGet10000MixedMessagesEachOnce) {
  createQueue("MIXED.LOAD");
  constexpr int kEach = 10000;
  // Four processes put, persistent and not in turn, while four take
  // whatever comes; the test takes what is left.
  std::vector<std::unique_ptr<Peer>> putters;
  std::vector<std::unique_ptr<Peer>> getters;
  for (const char *prefix : {"A", "B", "C", "D"}) {
    putters.push_back(std::make_unique<Peer>(
        std::vector<std::string>{"mixed", "MIXED.LOAD", std::to_string(kEach), prefix}));
    getters.push_back(
        std::make_unique<Peer>(std::vector<std::string>{"drain", "MIXED.LOAD", "2000"}));
  }
  for (auto &putter : putters) EXPECT_EQ(putter->wait(), 0);
  std::vector<std::string> got;
  for (auto &getter : getters) {
    const std::vector<std::string> lines = getter->lines();
    got.insert(got.end(), lines.begin(), lines.end());
    EXPECT_EQ(getter->wait(), 0);
  }
  const std::vector<std::string> left = drain("MIXED.LOAD");
  got.insert(got.end(), left.begin(), left.end());
  std::set<std::string> expected;
  for (const char *prefix : {"A", "B", "C", "D"}) {
    for (int i = 0; i < kEach; ++i) expected.insert(prefix + std::to_string(i));
  }
  expectEachOnce(got, expected);
}

TEST_P(QmShared, OpenCountsAndExclusiveInputCountEveryProcess) {
  createQueue("OPENS");
  Peer holder({"hold", "OPENS", std::to_string(OPEN_INPUT_EXCLUSIVE | OPEN_OUTPUT)});
  std::string line;
  ASSERT_TRUE(holder.line(&line));
  ASSERT_EQ(line.rfind("ready ", 0), 0u) << line;
  vxqm::QueueStatus status;
  ASSERT_EQ(vxqm::admin::queueStatus(kQm, "OPENS", &status), RC_NONE);
  EXPECT_EQ(status.openInputCount, 1);
  EXPECT_EQ(status.openOutputCount, 1);
  // The exclusive open of the other process holds the queue against every
  // input open of this one, shared or not, and against a delete.
  Connection c(kQm);
  c.open("OPENS", OPEN_INPUT_SHARED, failed(RC_OBJECT_IN_USE));
  c.open("OPENS", OPEN_INPUT_EXCLUSIVE, failed(RC_OBJECT_IN_USE));
  EXPECT_EQ(vxqm::admin::deleteQueue(kQm, "OPENS", true), RC_OBJECT_IN_USE);
  EXPECT_EQ(vxqm::admin::clearQueue(kQm, "OPENS"), RC_OBJECT_IN_USE);
  // The inquiry of a handle counts the other process's opens too.
  int32_t inquiry = c.open("OPENS", OPEN_INQUIRE);
  int32_t selectors[] = {ATTR_OPEN_INPUT_COUNT, ATTR_OPEN_OUTPUT_COUNT};
  int32_t counts[2] = {};
  Status s;
  qmINQ(c.hconn(), inquiry, 2, selectors, 2, counts, 0, nullptr, &s.compCode, &s.reason);
  EXPECT_EQ(s, ok());
  EXPECT_EQ(counts[0], 1);
  EXPECT_EQ(counts[1], 1);
  // Another process is refused as well; once the holder is killed, this
  // process's own open holds the queue against an exclusive one.
  {
    Peer asker({"open", "OPENS", std::to_string(OPEN_INPUT_SHARED)});
    EXPECT_EQ(asker.lines(), (std::vector<std::string>{std::to_string(RC_OBJECT_IN_USE)}));
  }
  holder.kill9();
  int32_t shared = c.open("OPENS", OPEN_INPUT_SHARED);
  Peer exclusive({"open", "OPENS", std::to_string(OPEN_INPUT_EXCLUSIVE)});
  EXPECT_EQ(exclusive.lines(), (std::vector<std::string>{std::to_string(RC_OBJECT_IN_USE)}));
  EXPECT_EQ(c.close(shared), ok());
  Peer again({"open", "OPENS", std::to_string(OPEN_INPUT_EXCLUSIVE)});
  EXPECT_EQ(again.lines(), (std::vector<std::string>{"0"}));
}

TEST_P(QmShared, AKilledProcessGivesBackItsHandlesTemporaryQueueAndUnit) {
  createQueue("HELD");
  {
    Connection c(kQm);
    int32_t hobj = c.open("HELD", OPEN_OUTPUT);
    EXPECT_EQ(putPersistence(c, hobj, "taken", PERSISTENCE_PERSISTENT), ok());
    EXPECT_EQ(putPersistence(c, hobj, "taken too", PERSISTENCE_NOT_PERSISTENT), ok());
  }
  Peer unit({"unit", "HELD"});
  std::string line;
  ASSERT_TRUE(unit.line(&line));
  EXPECT_EQ(line, "ready");
  Peer temporary({"hold", "SYSTEM.DEFAULT.LOCAL.QUEUE", std::to_string(OPEN_OUTPUT)});
  ASSERT_TRUE(temporary.line(&line));
  ASSERT_EQ(line.rfind("ready ", 0), 0u) << line;
  const std::string temporaryName = line.substr(6);
  EXPECT_EQ(vxqm::test::temporaryQueueCount(kQm), 1);
  vxqm::QueueStatus status;
  ASSERT_EQ(vxqm::admin::queueStatus(kQm, "HELD", &status), RC_NONE);
  EXPECT_EQ(status.openInputCount, 1);
  EXPECT_EQ(status.depth, 3);  // its get and its put, in its unit, and the other
  unit.kill9();
  temporary.kill9();
  // No restart: the next look of any process ends what the dead ones held.
  ASSERT_EQ(vxqm::admin::queueStatus(kQm, "HELD", &status), RC_NONE);
  EXPECT_EQ(status.openInputCount, 0);
  EXPECT_EQ(status.depth, 2);
  EXPECT_EQ(vxqm::admin::queueStatus(kQm, temporaryName, &status), RC_UNKNOWN_OBJECT_NAME);
  EXPECT_EQ(vxqm::test::temporaryQueueCount(kQm), 0);
  Connection c(kQm);
  int32_t hobj = c.open("HELD", OPEN_INPUT_EXCLUSIVE);
  vxMSGDESC md = MD_DEFAULT;
  std::string data;
  EXPECT_EQ(c.get(hobj, &data, 0, 0, &md), ok());
  EXPECT_EQ(data, "taken");
  EXPECT_EQ(md.backoutCount, 1);
  EXPECT_EQ(c.get(hobj, &data), ok());
  EXPECT_EQ(data, "taken too");
  EXPECT_EQ(c.get(hobj, &data), failed(RC_NO_MSG_AVAILABLE));  // its put vanished
}

TEST_P(QmShared, AGetThatWouldWaitTakesBackWhatADeadProcessGot) {
  createQueue("BACK");
  Connection c(kQm);
  int32_t hobj = c.open("BACK", OPEN_OUTPUT | OPEN_INPUT_SHARED);
  EXPECT_EQ(putPersistence(c, hobj, "taken", PERSISTENCE_PERSISTENT), ok());
  Peer peer({"unit", "BACK"});
  std::string line;
  ASSERT_TRUE(peer.line(&line));
  EXPECT_EQ(line, "ready");
  std::string data;
  EXPECT_EQ(c.get(hobj, &data), failed(RC_NO_MSG_AVAILABLE));  // in the peer's unit
  peer.kill9();
  // The handle was opened before the kill: only the get looks at the owners.
  EXPECT_EQ(c.get(hobj, &data, GET_WAIT, 5000), ok());
  EXPECT_EQ(data, "taken");
}

TEST_P(QmShared, EveryConnectGivesBackWhatADeadProcessHeld) {
  createQueue("CONNECTS");
  Connection first(kQm);  // the queue manager of this process is made
  Peer holder({"hold", "CONNECTS", std::to_string(OPEN_INPUT_EXCLUSIVE)});
  std::string line;
  ASSERT_TRUE(holder.line(&line));
  ASSERT_EQ(line.rfind("ready ", 0), 0u) << line;
  holder.kill9();
  EXPECT_EQ(vxqm::test::temporaryQueueCount(kQm), 1);  // nobody looked yet
  Connection second(kQm);
  EXPECT_EQ(vxqm::test::temporaryQueueCount(kQm), 0);
}

TEST_F(QmPersist, ProcessesOpeningTheStoreAtOnceAllConnect) {
  // Each opening process makes its owner file and clears the files of
  // owners that ended, while the others make theirs.
  createQueue("OPENED");
  constexpr int kRounds = 10;
  constexpr int kAtOnce = 8;
  for (int round = 0; round < kRounds; ++round) {
    std::vector<std::unique_ptr<Peer>> peers;
    for (int i = 0; i < kAtOnce; ++i) {
      peers.push_back(std::make_unique<Peer>(std::vector<std::string>{"drain", "OPENED", "0"}));
    }
    for (auto &peer : peers) ASSERT_EQ(peer->wait(), 0) << "in round " << round;
  }
  // A store that opens removes the owner files of the processes that ended:
  // once this process opens its store again, its own file is the only one,
  // beside the directory's guard.
  restart();
  ASSERT_EQ(vxqm::test::messageCount(kQm, "OPENED"), 0);
  std::vector<std::string> left;
  for (const auto &entry : std::filesystem::directory_iterator(directory_ + "/PQM.db.owners")) {
    if (entry.path().filename() != ".guard") left.push_back(entry.path().filename());
  }
  EXPECT_EQ(left.size(), 1u);
}

TEST_P(QmShared, TheMaximumDepthHoldsForTwoProcessesPuttingAtOnce) {
  // The check of the depth and the put are one step: no put of the other
  // process comes between them, so neither overfills the queue.
  vxqm::QueueChanges changes;
  changes.maxDepth = 200;
  ASSERT_EQ(vxqm::admin::createQueue(kQm, "FILLED", changes), RC_NONE);
  Peer putterA({"put", "FILLED", "150", "A"});
  Peer putterB({"put", "FILLED", "150", "B"});
  const size_t put = putterA.lines().size() + putterB.lines().size();
  const int statusA = putterA.wait(), statusB = putterB.wait();
  EXPECT_TRUE(statusA == 3 || statusB == 3) << "neither found the queue full";
  EXPECT_EQ(put, 200u);
  EXPECT_EQ(drain("FILLED").size(), 200u);
}

TEST_P(QmShared, EveryPutThatReturnedSurvivesAKill) {
  createQueue("KILLED");
  Peer peer({"put", "KILLED", "1000000", "M"});
  std::string line;
  std::set<std::string> reported;
  while (reported.size() < 500 && peer.line(&line)) reported.insert("M" + line);
  peer.kill9();
  while (peer.line(&line)) reported.insert("M" + line);  // reported before it died
  ASSERT_GE(reported.size(), 500u);
  restart();
  const std::vector<std::string> got = drain("KILLED");
  const std::set<std::string> stored(got.begin(), got.end());
  for (const std::string &message : reported) {
    EXPECT_EQ(stored.count(message), 1u) << message << " was reported put and is gone";
  }
  EXPECT_LE(stored.size(), reported.size() + 1);  // at most the put it was killed in
}

}  // namespace
