// The SQLite store on its own: what the memory store does, plus what lasts
// beyond a store (definitions, persistent messages) and what two stores on
// one database (as two processes would have) see of each other.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/file.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <iterator>

#include "queue_manager.h"
#include "store.h"

namespace vxqm {
namespace {

Message message(int32_t priority, char idByte = 0, char correlByte = 0,
                int32_t persistence = PERSISTENCE_PERSISTENT) {
  Message m;
  m.descriptor = MD_DEFAULT;
  m.descriptor.priority = priority;
  m.descriptor.persistence = persistence;
  std::memset(m.descriptor.msgId, idByte, MSG_ID_LENGTH);
  std::memset(m.descriptor.correlId, correlByte, CORREL_ID_LENGTH);
  m.data = {static_cast<char>('0' + priority)};
  return m;
}

std::string firstData(Store &store, const std::string &queue, Clock::time_point now) {
  const Found found = store.findMessage(queue, {}, now);
  return found.message == nullptr ? std::string() : std::string(found.message->data.data(), 1);
}

class QmSqliteStore : public ::testing::Test {
 protected:
  void SetUp() override {
    char pattern[] = "/tmp/vxqm-store-XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    directory = pattern;
    path = directory + "/QM1.db";
    store = makeSqliteStore(path);
    QueueDefinition q;
    q.name = "Q";
    store->saveQueue(q);
  }
  void TearDown() override {
    store.reset();
    std::filesystem::remove_all(directory);
  }
  std::string directory;
  std::string path;
  std::unique_ptr<Store> store;
  const Clock::time_point now = Clock::now();
};

TEST_F(QmSqliteStore, DefinitionsInNameOrderAndLasting) {
  QueueDefinition b;
  b.name = "B";
  b.maxDepth = 3;
  b.description = "queue b";
  b.defaultPersistence = PERSISTENCE_PERSISTENT;
  store->saveQueue(b);
  QueueDefinition a;
  a.name = "A";
  store->saveQueue(a);
  EXPECT_EQ(store->queueNames(), (std::vector<std::string>{"A", "B", "Q"}));
  b.maxDepth = 4;
  store->saveQueue(b);  // replaces
  store.reset();
  store = makeSqliteStore(path);
  QueueDefinition found;
  ASSERT_TRUE(store->findQueue("B", &found));
  EXPECT_EQ(found.maxDepth, 4);
  EXPECT_EQ(found.description, "queue b");
  EXPECT_EQ(found.defaultPersistence, PERSISTENCE_PERSISTENT);
  store->addMessage("B", message(0), MessageState::kAvailable, 0);
  store->deleteQueue("B");
  EXPECT_FALSE(store->findQueue("B", nullptr));
  store->saveQueue(b);
  EXPECT_EQ(store->depth("B"), 0);  // its messages went with it
}

TEST_F(QmSqliteStore, DeliveryOrderAcrossPersistentAndNot) {
  int32_t persistence = PERSISTENCE_PERSISTENT;
  for (int32_t priority : {1, 5, 1, 9, 5}) {
    store->addMessage("Q", message(priority, 0, 0, persistence), MessageState::kAvailable, 0);
    persistence = 1 - persistence;
  }
  std::string order;
  Selection selection;
  for (;;) {
    const Found found = store->findMessage("Q", selection, now);
    if (found.message == nullptr) break;
    order += found.message->data[0];
    order += found.message->descriptor.persistence == PERSISTENCE_PERSISTENT ? 'p' : 'n';
    selection.after = found.key;
  }
  EXPECT_EQ(order, "9n5n5p1p1p");
  EXPECT_EQ(store->depth("Q"), 5);
}

TEST_F(QmSqliteStore, OnlyPersistentMessagesLast) {
  store->addMessage("Q", message(1), MessageState::kAvailable, 0);
  store->addMessage("Q", message(2, 0, 0, PERSISTENCE_NOT_PERSISTENT), MessageState::kAvailable, 0);
  EXPECT_EQ(store->depth("Q"), 2);
  store.reset();
  store = makeSqliteStore(path);
  EXPECT_EQ(store->depth("Q"), 1);
  EXPECT_EQ(firstData(*store, "Q", now), "1");
}

TEST_F(QmSqliteStore, SelectionByIdsAndRemoval) {
  store->addMessage("Q", message(0, 'a', 'x'), MessageState::kAvailable, 0);
  store->addMessage("Q", message(1, 'b', 'y'), MessageState::kAvailable, 0);
  const std::string x(CORREL_ID_LENGTH, 'x');
  const std::string b(MSG_ID_LENGTH, 'b');
  Selection selection;
  selection.correlId = x.data();
  const Found found = store->findMessage("Q", selection, now);
  ASSERT_NE(found.message, nullptr);
  EXPECT_EQ(found.message->data[0], '0');
  selection.msgId = b.data();
  EXPECT_EQ(store->findMessage("Q", selection, now).message, nullptr);
  selection.correlId = nullptr;
  EXPECT_EQ(store->findMessage("Q", selection, now).message->data[0], '1');
  EXPECT_TRUE(store->removeMessage("Q", found.key));
  EXPECT_FALSE(store->removeMessage("Q", found.key));  // gone already
  EXPECT_EQ(store->depth("Q"), 1);
}

TEST_F(QmSqliteStore, UnitsOfWork) {
  store->addMessage("Q", message(1), MessageState::kPutInUnit, 7);
  const MessageKey got = store->addMessage("Q", message(2), MessageState::kAvailable, 0);
  EXPECT_TRUE(store->takeInUnit("Q", got, 7));
  EXPECT_EQ(store->findMessage("Q", {}, now).message, nullptr);
  EXPECT_EQ(store->depth("Q"), 2);
  EXPECT_EQ(store->backout(7), (std::vector<std::string>{"Q"}));
  EXPECT_EQ(store->depth("Q"), 1);
  const Found restored = store->findMessage("Q", {}, now);
  ASSERT_NE(restored.message, nullptr);
  EXPECT_EQ(restored.message->descriptor.backoutCount, 1);
  EXPECT_TRUE(store->takeInUnit("Q", restored.key, 8));
  store->addMessage("Q", message(3), MessageState::kPutInUnit, 8);
  EXPECT_EQ(store->commit(8), (std::vector<std::string>{"Q"}));
  EXPECT_EQ(store->depth("Q"), 1);
  EXPECT_EQ(firstData(*store, "Q", now), "3");
  EXPECT_TRUE(store->commit(99).empty());  // an unknown unit
  store->addMessage("Q", message(4), MessageState::kPutInUnit, 9);
  store->deleteQueue("Q");
  EXPECT_TRUE(store->commit(9).empty());  // its queue went away
}

TEST_F(QmSqliteStore, ExpiredMessagesAreSkippedAndDiscarded) {
  Message expiring = message(5);
  expiring.expiresAt = now + std::chrono::seconds(1);
  store->addMessage("Q", std::move(expiring), MessageState::kAvailable, 0);
  store->addMessage("Q", message(1), MessageState::kAvailable, 0);
  EXPECT_EQ(firstData(*store, "Q", now), "5");
  const Clock::time_point later = now + std::chrono::seconds(2);
  EXPECT_EQ(firstData(*store, "Q", later), "1");
  EXPECT_EQ(store->depth("Q"), 2);
  EXPECT_EQ(store->discardExpired("Q", later), 1);
  EXPECT_EQ(store->depth("Q"), 1);
  EXPECT_EQ(store->discardExpired("Q", later), 0);
}

TEST_F(QmSqliteStore, HeldAndDelayedMessages) {
  store->addMessage("Q", message(9), MessageState::kHeld, 0);
  Message delayed = message(1);
  delayed.visibleFrom = now + std::chrono::milliseconds(500);
  store->addMessage("Q", std::move(delayed), MessageState::kAvailable, 0);
  Found found = store->findMessage("Q", {}, now);
  EXPECT_EQ(found.message, nullptr);
  // Kept to the millisecond on the wall clock.
  EXPECT_LT(std::chrono::abs(found.nextVisible - (now + std::chrono::milliseconds(500))),
            std::chrono::milliseconds(5));
  EXPECT_EQ(store->releaseHeld("Q"), 1);
  EXPECT_EQ(firstData(*store, "Q", now), "9");
  store->clearQueue("Q");
  EXPECT_EQ(store->depth("Q"), 0);
}

TEST_F(QmSqliteStore, TemporaryQueuesStayInTheProcess) {
  QueueDefinition temporary;
  temporary.name = "TEMP";
  temporary.definitionType = DEFTYPE_TEMPORARY_DYNAMIC;
  store->saveQueue(temporary);
  store->addMessage("TEMP", message(1), MessageState::kAvailable, 0);
  EXPECT_EQ(store->queueNames(), (std::vector<std::string>{"Q", "TEMP"}));
  EXPECT_EQ(store->depth("TEMP"), 1);
  auto other = makeSqliteStore(path);
  EXPECT_FALSE(other->findQueue("TEMP", nullptr));
  EXPECT_EQ(other->queueNames(), (std::vector<std::string>{"Q"}));
}

TEST_F(QmSqliteStore, TwoStoresShareDefinitionsAndPersistentMessages) {
  auto other = makeSqliteStore(path);
  EXPECT_TRUE(other->shared());
  QueueDefinition r;
  r.name = "R";
  other->saveQueue(r);
  EXPECT_TRUE(store->findQueue("R", nullptr));
  store->addMessage("R", message(1), MessageState::kAvailable, 0);
  store->addMessage("R", message(2, 0, 0, PERSISTENCE_NOT_PERSISTENT), MessageState::kAvailable, 0);
  EXPECT_EQ(other->depth("R"), 1);
  const Found mine = store->findMessage("R", {}, now);
  const Found theirs = other->findMessage("R", {}, now);
  ASSERT_NE(theirs.message, nullptr);
  EXPECT_EQ(theirs.message->data[0], '1');
  // Both found the persistent one after the non-persistent one of higher
  // priority; only one of them takes it.
  EXPECT_EQ(mine.message->data[0], '2');
  EXPECT_TRUE(other->removeMessage("R", theirs.key));
  EXPECT_FALSE(store->removeMessage("R", theirs.key));
}

TEST_F(QmSqliteStore, AStepIsSeenByOthersWholeOrNotAtAll) {
  auto other = makeSqliteStore(path);
  store->beginStep("Q");
  store->addMessage("Q", message(1), MessageState::kAvailable, 0);
  EXPECT_EQ(store->depth("Q"), 1);
  EXPECT_EQ(other->depth("Q"), 0) << "seen before the step ended";
  store->endStep(true);
  EXPECT_EQ(other->depth("Q"), 1);

  store->beginStep("Q");
  store->addMessage("Q", message(2), MessageState::kAvailable, 0);
  store->endStep(false);
  EXPECT_EQ(store->depth("Q"), 1);
  EXPECT_EQ(other->depth("Q"), 1);
}

TEST_F(QmSqliteStore, AStepWithinAStepThatIsNotKeptUndoesTheWhole) {
  for (const bool innerKept : {true, false}) {
    SCOPED_TRACE(innerKept ? "outer step not kept" : "inner step not kept");
    store->beginStep("Q");
    store->addMessage("Q", message(1), MessageState::kAvailable, 0);
    store->beginStep("Q");
    store->addMessage("Q", message(2), MessageState::kAvailable, 0);
    store->endStep(innerKept);
    store->endStep(!innerKept);
    EXPECT_EQ(store->depth("Q"), 0);
  }
  store->beginStep("Q");
  store->beginStep("Q");
  store->addMessage("Q", message(3), MessageState::kAvailable, 0);
  store->endStep(true);
  store->endStep(true);
  EXPECT_EQ(makeSqliteStore(path)->depth("Q"), 1);
}

TEST_F(QmSqliteStore, AStepOfATemporaryQueueLeavesTheDatabaseToOthers) {
  QueueDefinition temporary;
  temporary.name = "TEMP";
  temporary.definitionType = DEFTYPE_TEMPORARY_DYNAMIC;
  store->saveQueue(temporary);
  auto other = makeSqliteStore(path);
  store->beginStep("TEMP");
  store->addMessage("TEMP", message(1), MessageState::kAvailable, 0);
  // Would wait for the lock, then fail, if the step held the database.
  other->addMessage("Q", message(2), MessageState::kAvailable, 0);
  store->endStep(true);
  EXPECT_EQ(store->depth("TEMP"), 1);
  EXPECT_EQ(store->depth("Q"), 1);
}

TEST_F(QmSqliteStore, AUnitIsInvisibleToOthersUntilItEnds) {
  auto other = makeSqliteStore(path);
  store->addMessage("Q", message(1), MessageState::kPutInUnit, 1);
  EXPECT_EQ(other->findMessage("Q", {}, now).message, nullptr);
  EXPECT_EQ(store->commit(1), (std::vector<std::string>{"Q"}));
  const Found found = other->findMessage("Q", {}, now);
  ASSERT_NE(found.message, nullptr);
  EXPECT_TRUE(other->takeInUnit("Q", found.key, 1));  // the other's unit 1: not the same unit
  EXPECT_EQ(store->findMessage("Q", {}, now).message, nullptr);
  EXPECT_TRUE(store->backout(1).empty());
  EXPECT_EQ(store->findMessage("Q", {}, now).message, nullptr);
  EXPECT_EQ(other->backout(1), (std::vector<std::string>{"Q"}));
  EXPECT_EQ(firstData(*store, "Q", now), "1");
}

TEST_F(QmSqliteStore, AStoreThatEndsBacksOutItsUnits) {
  auto other = makeSqliteStore(path);
  const MessageKey key = other->addMessage("Q", message(1), MessageState::kAvailable, 0);
  EXPECT_TRUE(other->takeInUnit("Q", key, 3));
  other->addMessage("Q", message(2), MessageState::kPutInUnit, 3);
  EXPECT_EQ(store->depth("Q"), 2);
  other.reset();
  EXPECT_EQ(store->depth("Q"), 1);
  const Found found = store->findMessage("Q", {}, now);
  ASSERT_NE(found.message, nullptr);
  EXPECT_EQ(found.message->data[0], '1');
  EXPECT_EQ(found.message->descriptor.backoutCount, 1);
}

// The owner files of an owners directory, without its guard.
long ownerFiles(const std::string &owners) {
  long count = 0;
  for (const auto &entry : std::filesystem::directory_iterator(owners)) {
    if (entry.path().filename() != ".guard") ++count;
  }
  return count;
}

TEST_F(QmSqliteStore, OwnerFilesOfStoresThatEndedAreRemoved) {
  const std::string owners = path + ".owners";
  EXPECT_EQ(ownerFiles(owners), 1);
  {
    auto other = makeSqliteStore(path);
    EXPECT_EQ(ownerFiles(owners), 2);
  }
  EXPECT_EQ(ownerFiles(owners), 1);
  // A file left unlocked, as by a process that was killed.
  const std::string left = owners + "/left-by-a-dead-process";
  std::fclose(std::fopen(left.c_str(), "w"));
  auto other = makeSqliteStore(path);
  EXPECT_FALSE(std::filesystem::exists(left));
  EXPECT_EQ(ownerFiles(owners), 2);
}

TEST_F(QmSqliteStore, AnOwnerFileBeingMadeIsNotTakenForALeftover) {
  // An owner file is made under a temporary name, unlocked for a moment: a
  // store that opens meanwhile leaves it alone.
  const std::string owners = path + ".owners";
  const std::string making = owners + "/being-made.new";
  std::fclose(std::fopen(making.c_str(), "w"));
  const int guard = open((owners + "/.guard").c_str(), O_RDWR | O_CLOEXEC);
  ASSERT_GE(guard, 0);
  ASSERT_EQ(flock(guard, LOCK_SH), 0);  // as a process making its file holds it
  makeSqliteStore(path).reset();
  EXPECT_TRUE(std::filesystem::exists(making));
  close(guard);
  // Without a maker, the same file is what a process killed while making
  // its own left.
  makeSqliteStore(path).reset();
  EXPECT_FALSE(std::filesystem::exists(making));
}

TEST_F(QmSqliteStore, ADatabaseThatCannotBeOpenedIsAStoreError) {
  try {
    makeSqliteStore(directory + "/missing/QM1.db");
    FAIL() << "opened";
  } catch (const Failure &failure) {
    EXPECT_EQ(failure.reason, RC_STORE_ERROR);
  }
}

}  // namespace
}  // namespace vxqm
