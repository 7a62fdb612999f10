// The memory store on its own: definitions, delivery order, selection,
// units of work, expiry and held messages.
#include <gtest/gtest.h>

#include <cstring>

#include "queue_manager.h"
#include "store.h"

namespace vxqm {
namespace {

Message message(int32_t priority, char idByte = 0, char correlByte = 0) {
  Message m;
  m.descriptor = MD_DEFAULT;
  m.descriptor.priority = priority;
  std::memset(m.descriptor.msgId, idByte, MSG_ID_LENGTH);
  std::memset(m.descriptor.correlId, correlByte, CORREL_ID_LENGTH);
  m.data = {static_cast<char>('0' + priority)};
  return m;
}

class QmStore : public ::testing::Test {
 protected:
  void SetUp() override {
    QueueDefinition q;
    q.name = "Q";
    store->saveQueue(q);
  }
  std::unique_ptr<Store> store = makeMemoryStore();
  const Clock::time_point now = Clock::now();
};

TEST_F(QmStore, DefinitionsInNameOrder) {
  QueueDefinition b;
  b.name = "B";
  b.maxDepth = 3;
  store->saveQueue(b);
  QueueDefinition a;
  a.name = "A";
  store->saveQueue(a);
  EXPECT_EQ(store->queueNames(), (std::vector<std::string>{"A", "B", "Q"}));
  QueueDefinition found;
  ASSERT_TRUE(store->findQueue("B", &found));
  EXPECT_EQ(found.maxDepth, 3);
  b.maxDepth = 4;
  store->saveQueue(b);  // replaces
  ASSERT_TRUE(store->findQueue("B", &found));
  EXPECT_EQ(found.maxDepth, 4);
  store->addMessage("B", message(0), MessageState::kAvailable, 0);
  store->deleteQueue("B");
  EXPECT_FALSE(store->findQueue("B", nullptr));
  store->saveQueue(b);
  EXPECT_EQ(store->depth("B"), 0);  // its messages went with it
}

TEST_F(QmStore, DeliveryOrderAndBrowseCursor) {
  for (int32_t priority : {1, 5, 1, 9}) {
    store->addMessage("Q", message(priority), MessageState::kAvailable, 0);
  }
  std::string order;
  Selection selection;
  for (;;) {
    const Found found = store->findMessage("Q", selection, now);
    if (found.message == nullptr) break;
    order += found.message->data[0];
    selection.after = found.key;
  }
  EXPECT_EQ(order, "9511");
  EXPECT_EQ(store->depth("Q"), 4);
}

TEST_F(QmStore, SelectionByIds) {
  store->addMessage("Q", message(0, 'a', 'x'), MessageState::kAvailable, 0);
  store->addMessage("Q", message(1, 'b', 'y'), MessageState::kAvailable, 0);
  const std::string x(CORREL_ID_LENGTH, 'x');
  const std::string b(MSG_ID_LENGTH, 'b');
  Selection selection;
  selection.correlId = x.data();
  EXPECT_EQ(store->findMessage("Q", selection, now).message->data[0], '0');
  selection.msgId = b.data();
  EXPECT_EQ(store->findMessage("Q", selection, now).message, nullptr);
  selection.correlId = nullptr;
  EXPECT_EQ(store->findMessage("Q", selection, now).message->data[0], '1');
}

TEST_F(QmStore, TheMessageRemovedStaysReadableUntilTheNextCall) {
  store->addMessage("Q", message(4), MessageState::kAvailable, 0);
  const Found found = store->findMessage("Q", {}, now);
  ASSERT_NE(found.message, nullptr);
  EXPECT_TRUE(store->removeMessage("Q", found.key));
  EXPECT_EQ(found.message->data[0], '4');
  EXPECT_FALSE(store->removeMessage("Q", found.key));  // gone already
  EXPECT_EQ(store->depth("Q"), 0);
}

TEST_F(QmStore, UnitsOfWork) {
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
  EXPECT_EQ(store->findMessage("Q", {}, now).message->data[0], '3');
  EXPECT_TRUE(store->commit(99).empty());  // an unknown unit
  // A unit whose queue went away.
  store->addMessage("Q", message(4), MessageState::kPutInUnit, 9);
  store->deleteQueue("Q");
  EXPECT_TRUE(store->commit(9).empty());
}

TEST_F(QmStore, ExpiredMessagesAreSkippedAndDiscarded) {
  Message expiring = message(5);
  expiring.expiresAt = now + std::chrono::seconds(1);
  store->addMessage("Q", std::move(expiring), MessageState::kAvailable, 0);
  store->addMessage("Q", message(1), MessageState::kAvailable, 0);
  EXPECT_EQ(store->findMessage("Q", {}, now).message->data[0], '5');
  const Clock::time_point later = now + std::chrono::seconds(2);
  EXPECT_EQ(store->findMessage("Q", {}, later).message->data[0], '1');
  EXPECT_EQ(store->depth("Q"), 2);
  EXPECT_EQ(store->discardExpired("Q", later), 1);
  EXPECT_EQ(store->depth("Q"), 1);
  EXPECT_EQ(store->discardExpired("Q", later), 0);
}

TEST_F(QmStore, HeldAndDelayedMessages) {
  store->addMessage("Q", message(9), MessageState::kHeld, 0);
  Message delayed = message(1);
  delayed.visibleFrom = now + std::chrono::milliseconds(500);
  store->addMessage("Q", std::move(delayed), MessageState::kAvailable, 0);
  Found found = store->findMessage("Q", {}, now);
  EXPECT_EQ(found.message, nullptr);
  EXPECT_EQ(found.nextVisible, now + std::chrono::milliseconds(500));
  EXPECT_EQ(store->releaseHeld("Q"), 1);
  EXPECT_EQ(store->findMessage("Q", {}, now).message->data[0], '9');
  found = store->findMessage("Q", {}, now + std::chrono::seconds(1));
  EXPECT_EQ(found.message->data[0], '9');
  store->clearQueue("Q");
  EXPECT_EQ(store->depth("Q"), 0);
}

TEST(QmNames, FieldsAndRules) {
  EXPECT_EQ(readName("AB  \0CD", 7), "AB");
  EXPECT_EQ(readName("ABCD", 2), "AB");
  EXPECT_EQ(readName("    ", 4), "");
  char field[6];
  writeName(field, sizeof field, "XY");
  EXPECT_EQ(std::string(field, 6), "XY    ");
  EXPECT_TRUE(isValidName("a.B_c/9%"));
  EXPECT_TRUE(isValidName(std::string(48, 'A')));
  EXPECT_FALSE(isValidName(std::string(49, 'A')));
  EXPECT_FALSE(isValidName(""));
  EXPECT_FALSE(isValidName("A-B"));
  EXPECT_EQ(queueManagerName(""), "QM1");
  EXPECT_EQ(queueManagerName("   "), "QM1");
  EXPECT_EQ(queueManagerName("QM7  "), "QM7");
  EXPECT_THROW(queueManagerName("Q M"), Failure);
}

}  // namespace
}  // namespace vxqm
