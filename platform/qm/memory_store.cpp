// The memory store: queue definitions and messages in ordered maps.  Like
// every store it is guarded by its queue manager's mutex.
#include <algorithm>
#include <cstring>
#include <map>
#include <unordered_map>
#include <utility>

#include "store.h"

namespace vxqm {
namespace {

struct StoredMessage {
  Message message;
  MessageState state = MessageState::kAvailable;
  uint64_t unit = 0;
};

struct StoredQueue {
  QueueDefinition definition;
  std::map<MessageKey, StoredMessage> messages;  // in delivery order
  int32_t expiring = 0;                          // messages with an expiry: spares the scan when 0
};

bool idMatches(const char *wanted, const char *id, size_t length) {
  return wanted == nullptr || std::memcmp(wanted, id, length) == 0;
}

class MemoryStore final : public Store {
 public:
  MemoryStore(uint64_t (*nextSequence)(void *), void *context)
      : nextSequence_(nextSequence), context_(context) {}

  bool findQueue(const std::string &name, QueueDefinition *definition) const override {
    auto it = queues_.find(name);
    if (it == queues_.end()) return false;
    if (definition != nullptr) *definition = it->second.definition;
    return true;
  }

  void saveQueue(const QueueDefinition &definition) override {
    QueueDefinition copy = definition;  // may throw before anything changed
    auto it = queues_.find(copy.name);
    if (it != queues_.end()) {
      it->second.definition = std::move(copy);
      return;
    }
    StoredQueue created;
    created.definition = std::move(copy);
    queues_.emplace(created.definition.name, std::move(created));
  }

  void deleteQueue(const std::string &name) override { queues_.erase(name); }

  std::vector<std::string> queueNames() const override {
    std::vector<std::string> names;
    names.reserve(queues_.size());
    for (const auto &entry : queues_) names.push_back(entry.first);
    return names;
  }

  int32_t depth(const std::string &queue) const override {
    return static_cast<int32_t>(queues_.at(queue).messages.size());
  }

  MessageKey addMessage(const std::string &queue, Message message, MessageState state,
                        uint64_t unit) override {
    StoredQueue &stored = queues_.at(queue);
    MessageKey key{message.descriptor.priority,
                   nextSequence_ != nullptr ? nextSequence_(context_) : ++lastSequence_};
    // Whatever may throw comes before anything changes: the unit's entry
    // (room made for it) and the copy of the queue's name.
    std::vector<std::pair<std::string, MessageKey>> *refs = nullptr;
    std::pair<std::string, MessageKey> ref{unit != 0 ? queue : std::string(), key};
    if (unit != 0) {
      refs = &units_[unit];
      refs->reserve(refs->size() + 1);
    }
    const bool expires = message.expiresAt != Clock::time_point::max();
    stored.messages.emplace(key, StoredMessage{std::move(message), state, unit});
    if (expires) ++stored.expiring;
    if (refs != nullptr) refs->push_back(std::move(ref));
    return key;
  }

  Found findMessage(const std::string &queue, const Selection &selection,
                    Clock::time_point now) const override {
    const auto &messages = queues_.at(queue).messages;
    Found found;
    auto it = selection.after ? messages.upper_bound(*selection.after) : messages.begin();
    for (; it != messages.end(); ++it) {
      const StoredMessage &stored = it->second;
      const vxMSGDESC &md = stored.message.descriptor;
      if (stored.state != MessageState::kAvailable || stored.message.expiresAt <= now ||
          !idMatches(selection.msgId, md.msgId, MSG_ID_LENGTH) ||
          !idMatches(selection.correlId, md.correlId, CORREL_ID_LENGTH)) {
        continue;
      }
      if (stored.message.visibleFrom > now) {
        found.nextVisible = std::min(found.nextVisible, stored.message.visibleFrom);
        continue;
      }
      found.message = &stored.message;
      found.key = it->first;
      break;
    }
    return found;
  }

  bool removeMessage(const std::string &queue, const MessageKey &key) override {
    StoredQueue &stored = queues_.at(queue);
    auto it = stored.messages.find(key);
    if (it == stored.messages.end()) return false;
    if (it->second.message.expiresAt != Clock::time_point::max()) --stored.expiring;
    // Kept until the next removal: the get that found it copies it out after.
    lastRemoved_ = stored.messages.extract(it);
    return true;
  }

  bool takeInUnit(const std::string &queue, const MessageKey &key, uint64_t unit) override {
    auto &refs = units_[unit];
    refs.emplace_back(queue, key);  // the only step that may throw comes first
    StoredMessage &stored = queues_.at(queue).messages.at(key);
    stored.state = MessageState::kGotInUnit;
    stored.unit = unit;
    return true;
  }

  int32_t discardExpired(const std::string &queue, Clock::time_point now) override {
    StoredQueue &stored = queues_.at(queue);
    int32_t discarded = 0;
    if (stored.expiring == 0) return 0;
    for (auto it = stored.messages.begin(); it != stored.messages.end();) {
      // A message got under syncpoint stays until its unit ends.
      if (it->second.message.expiresAt <= now && it->second.state != MessageState::kGotInUnit) {
        it = stored.messages.erase(it);
        --stored.expiring;
        ++discarded;
      } else {
        ++it;
      }
    }
    return discarded;
  }

  void clearQueue(const std::string &queue) override {
    StoredQueue &stored = queues_.at(queue);
    stored.messages.clear();
    stored.expiring = 0;
  }

  int32_t releaseHeld(const std::string &queue) override {
    int32_t released = 0;
    for (auto &entry : queues_.at(queue).messages) {
      if (entry.second.state == MessageState::kHeld) {
        entry.second.state = MessageState::kAvailable;
        ++released;
      }
    }
    return released;
  }

  std::vector<std::string> commit(uint64_t unit) override { return endUnit(unit, true); }
  std::vector<std::string> backout(uint64_t unit) override { return endUnit(unit, false); }

 private:
  std::vector<std::string> endUnit(uint64_t unit, bool commit) {
    std::vector<std::string> available;
    auto refs = units_.find(unit);
    if (refs == units_.end()) return available;
    // First the names of the queues on which messages become available (the
    // only step that may throw), then the changes.
    for (const auto &[queueName, key] : refs->second) {
      StoredMessage *stored = find(queueName, key, unit);
      if (stored == nullptr || (stored->state == MessageState::kPutInUnit) != commit) continue;
      if (std::find(available.begin(), available.end(), queueName) == available.end()) {
        available.push_back(queueName);
      }
    }
    for (const auto &[queueName, key] : refs->second) {
      StoredMessage *stored = find(queueName, key, unit);
      if (stored == nullptr) continue;
      if ((stored->state == MessageState::kPutInUnit) !=
          commit) {  // a put backed out, a get committed
        removeMessage(queueName, key);
        continue;
      }
      if (!commit) ++stored->message.descriptor.backoutCount;
      stored->state = MessageState::kAvailable;
      stored->unit = 0;
    }
    units_.erase(refs);
    return available;
  }

  // A message of a unit, or null when it (or its queue) has gone.
  StoredMessage *find(const std::string &queueName, const MessageKey &key, uint64_t unit) {
    auto queue = queues_.find(queueName);
    if (queue == queues_.end()) return nullptr;
    auto it = queue->second.messages.find(key);
    return it == queue->second.messages.end() || it->second.unit != unit ? nullptr : &it->second;
  }

  uint64_t (*nextSequence_)(void *);
  void *context_;
  std::map<std::string, StoredQueue> queues_;
  std::map<MessageKey, StoredMessage>::node_type lastRemoved_;
  // The messages of each open unit of work, by queue name and key.
  std::unordered_map<uint64_t, std::vector<std::pair<std::string, MessageKey>>> units_;
  uint64_t lastSequence_ = 0;
};

}  // namespace

std::unique_ptr<Store> makeMemoryStore() { return std::make_unique<MemoryStore>(nullptr, nullptr); }

std::unique_ptr<Store> makeMemoryStore(uint64_t (*nextSequence)(void *context), void *context) {
  return std::make_unique<MemoryStore>(nextSequence, context);
}

}  // namespace vxqm
