// A queue manager on PostgreSQL whose server restarts (an immediate stop, as
// a crash, then a start) in the middle of a loop of puts: every put that
// returned success is there afterwards, none is there twice, the calls
// during the outage fail with RC_CONNECTION_BROKEN or RC_Q_MGR_NOT_AVAILABLE
// without hanging, and the calls after it reconnect.  The server is this
// test's own (fixture postgres_restart): the others' is never restarted.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <atomic>
#include <chrono>
#include <fstream>
#include <map>
#include <set>
#include <string>
#include <thread>

#include "qm_admin.h"
#include "qm_testing.h"

namespace {

using qmtest::Connection;
using qmtest::failed;
using qmtest::ok;
using qmtest::Status;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr const char *kQm = "RQM";
// Far longer than a call may take with the store's keepalives and timeouts.
constexpr auto kLongestCall = std::chrono::seconds(20);

bool outageReason(const Status &status) {
  return status == failed(RC_CONNECTION_BROKEN) || status == failed(RC_Q_MGR_NOT_AVAILABLE);
}

class PostgresRestart : public ::testing::Test {
 protected:
  void SetUp() override {
    const char *directory = std::getenv("VX_TEST_POSTGRES_DIR");
    ASSERT_NE(directory, nullptr) << "VX_TEST_POSTGRES_DIR is not set: run under ctest";
    directory_ = directory;
    std::ifstream file(directory_ + "/tcp_uri");
    std::string uri;
    ASSERT_TRUE(std::getline(file, uri))
        << "no PostgreSQL test server: " << directory_ << "/tcp_uri is missing";
    setenv("VXQM_DATA", uri.c_str(), 1);
    vxqm::test::reset(kQm);
  }
  void TearDown() override {
    unsetenv("VXQM_DATA");
    vxqm::test::reset(kQm);
  }
  // Restarts the server: stopped at once, as a crash, and started again.
  void restartServer() const {
    const std::string command = "sh " VX_PG_TEST_SERVER " restart " + directory_;
    EXPECT_EQ(std::system(command.c_str()), 0) << command;
  }
  std::string directory_;
};

TEST_F(PostgresRestart, PutsThroughARestartAreThereOnceAndTheNextCallsReconnect) {
  vxqm::QueueChanges changes;
  changes.maxDepth = 1000000;
  vxqm::admin::deleteQueue(kQm, "R", true);
  ASSERT_EQ(vxqm::admin::createQueue(kQm, "R", changes), RC_NONE);
  std::atomic<bool> restarted{false};
  std::thread restarter([&] {
    std::this_thread::sleep_for(milliseconds(300));
    restartServer();
    restarted = true;
  });
  Connection c(kQm);
  std::set<std::string> reported;
  std::map<int32_t, int> outages;  // reason: calls
  int32_t hobj = 0;
  int afterRestart = 0;
  auto longest = steady_clock::duration::zero();
  const auto deadline = steady_clock::now() + std::chrono::seconds(60);
  for (int i = 0; (!restarted || afterRestart < 50) && steady_clock::now() < deadline; ++i) {
    const auto start = steady_clock::now();
    Status s;
    if (hobj == 0) {
      vxOBJDESC od = OD_DEFAULT;
      qmtest::setField(od.objectName, sizeof od.objectName, "R");
      qmOPEN(c.hconn(), &od, OPEN_OUTPUT, &hobj, &s.compCode, &s.reason);
      if (s != ok()) hobj = 0;
    } else {
      vxMSGDESC md = MD_DEFAULT;
      md.persistence = PERSISTENCE_PERSISTENT;
      const std::string data = "M" + std::to_string(i);
      s = c.put(hobj, data, &md);
      if (s == ok()) {
        reported.insert(data);
        if (restarted) ++afterRestart;
      } else if (s == failed(RC_CONNECTION_BROKEN)) {
        // Its open belongs to the lost session: closed here only.
        EXPECT_EQ(c.close(hobj), ok());
        hobj = 0;
      }
    }
    longest = std::max(longest, steady_clock::now() - start);
    if (s != ok()) {
      EXPECT_TRUE(outageReason(s)) << s.reason;
      ++outages[s.reason];
      std::this_thread::sleep_for(milliseconds(20));
    }
  }
  restarter.join();
  EXPECT_GE(afterRestart, 50) << "no reconnect after the restart";
  EXPECT_EQ(outages[RC_CONNECTION_BROKEN], 1) << "the loss is told once, then the handle is closed";
  EXPECT_LT(longest, kLongestCall);
  EXPECT_GE(reported.size(), 100u);
  // Every put that returned is there once; one that failed may be there (its
  // commit may have ended before its answer was lost), once.
  Connection reader(kQm);
  const int32_t in = reader.open("R", OPEN_INPUT_SHARED);
  std::map<std::string, int> stored;
  std::string data;
  while (reader.get(in, &data) == ok()) ++stored[data];
  for (const std::string &put : reported) EXPECT_EQ(stored[put], 1) << put;
  for (const auto &[message, count] : stored) EXPECT_EQ(count, 1) << message;
  EXPECT_LE(stored.size(), reported.size() + 1);
}

TEST_F(PostgresRestart, AWaitingGetEndsWithTheConnectionAndTheNextGetReconnects) {
  vxqm::admin::deleteQueue(kQm, "W", true);
  ASSERT_EQ(vxqm::admin::createQueue(kQm, "W", {}), RC_NONE);
  Connection c(kQm);
  int32_t hobj = c.open("W", OPEN_INPUT_SHARED | OPEN_OUTPUT);
  std::thread restarter([&] {
    std::this_thread::sleep_for(milliseconds(300));
    restartServer();
  });
  std::string data;
  const auto start = steady_clock::now();
  // The waiting get looks again at least every 1.5 s: it meets the loss.
  EXPECT_EQ(c.get(hobj, &data, GET_WAIT, 30000), failed(RC_CONNECTION_BROKEN));
  EXPECT_LT(steady_clock::now() - start, kLongestCall);
  restarter.join();
  EXPECT_EQ(c.put(hobj, "stale"), failed(RC_CONNECTION_BROKEN));
  EXPECT_EQ(c.close(hobj), ok());
  // The server is back: the next open reconnects.
  Status s;
  for (int tries = 0; tries < 100; ++tries) {
    vxOBJDESC od = OD_DEFAULT;
    qmtest::setField(od.objectName, sizeof od.objectName, "W");
    qmOPEN(c.hconn(), &od, OPEN_INPUT_SHARED | OPEN_OUTPUT, &hobj, &s.compCode, &s.reason);
    if (s == ok()) break;
    EXPECT_TRUE(outageReason(s)) << s.reason;
    std::this_thread::sleep_for(milliseconds(100));
  }
  ASSERT_EQ(s, ok());
  EXPECT_EQ(c.put(hobj, "fresh"), ok());
  EXPECT_EQ(c.get(hobj, &data), ok());
  EXPECT_EQ(data, "fresh");
}

TEST_F(PostgresRestart, ACrashKeepsDefinitionsAndPersistentMessagesOnly) {
  vxqm::admin::deleteQueue(kQm, "C", true);
  ASSERT_EQ(vxqm::admin::createQueue(kQm, "C", {}), RC_NONE);
  {
    Connection c(kQm);
    const int32_t hobj = c.open("C", OPEN_OUTPUT);
    for (const int32_t persistence : {PERSISTENCE_PERSISTENT, PERSISTENCE_NOT_PERSISTENT}) {
      vxMSGDESC md = MD_DEFAULT;
      md.persistence = persistence;
      EXPECT_EQ(c.put(hobj, persistence == PERSISTENCE_PERSISTENT ? "kept" : "lost", &md), ok());
    }
    c.open("SYSTEM.DEFAULT.MODEL.QUEUE", OPEN_INPUT_EXCLUSIVE);
    EXPECT_EQ(vxqm::test::temporaryQueueCount(kQm), 1);
    restartServer();
  }
  // The disconnect met the lost session and closed what it held here alone.
  EXPECT_EQ(vxqm::test::connectionCount(kQm), 0);
  int32_t count = -1;
  for (int tries = 0; tries < 100 && count < 0; ++tries) {
    count = vxqm::test::messageCount(kQm, "C");
    if (count < 0) std::this_thread::sleep_for(milliseconds(100));
  }
  EXPECT_EQ(count, 1);
  EXPECT_EQ(vxqm::test::temporaryQueueCount(kQm), 0);
  Connection c(kQm);
  const int32_t hobj = c.open("C", OPEN_INPUT_SHARED);
  std::string data;
  EXPECT_EQ(c.get(hobj, &data), ok());
  EXPECT_EQ(data, "kept");
}

}  // namespace
