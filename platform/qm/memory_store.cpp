// The memory store: queue definitions, messages and handles in ordered maps,
// for one process.  Like every store it is guarded by its queue manager's
// mutex.  It has one owner, itself: owners() is always empty.
//
// Steps: while one is open, every change records how to undo it, before it
// changes anything (the record is the only part that may throw), and a step
// that is not kept runs the records backwards.  What a change removes moves
// into its record rather than being copied.
#include <algorithm>
#include <cstring>
#include <functional>
#include <map>
#include <memory>
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
  int64_t creator = 0;                           // the handle whose close deletes the queue, or 0
  std::map<MessageKey, StoredMessage> messages;  // in delivery order
  int32_t expiring = 0;                          // messages with an expiry: spares the scan when 0
};

bool idMatches(const char *wanted, const char *id, size_t length) {
  return wanted == nullptr || std::memcmp(wanted, id, length) == 0;
}

struct StoredHandle {
  std::string queue;
  int32_t options = 0;
};

constexpr int32_t kInputOptions = OPEN_INPUT_AS_Q_DEF | OPEN_INPUT_SHARED | OPEN_INPUT_EXCLUSIVE;

class MemoryStore final : public Store {
 public:
  bool findQueue(const std::string &name, QueueDefinition *definition) const override {
    auto it = queues_.find(name);
    if (it == queues_.end()) return false;
    if (definition != nullptr) *definition = it->second.definition;
    return true;
  }

  void createQueue(const QueueDefinition &definition, int64_t creator) override {
    StoredQueue created;
    created.definition = definition;
    created.creator = creator;
    Undo undo = prepare([this, name = definition.name] { queues_.erase(name); });
    if (queues_.emplace(created.definition.name, std::move(created)).second) record(undo);
  }

  void saveQueue(const QueueDefinition &definition) override {
    QueueDefinition copy = definition;  // may throw before anything changed
    auto it = queues_.find(copy.name);
    if (it != queues_.end()) {
      auto before = std::make_shared<QueueDefinition>(it->second.definition);
      Undo undo = prepare([this, before] { queues_.at(before->name).definition = *before; });
      it->second.definition = std::move(copy);
      record(undo);
      return;
    }
    createQueue(copy, 0);
  }

  void deleteQueue(const std::string &name) override {
    auto queue = std::make_shared<decltype(queues_)::node_type>();
    auto handles = std::make_shared<std::vector<decltype(handles_)::node_type>>();
    Undo undo;
    if (stepDepth_ > 0) {
      handles->reserve(handles_.size());
      undo = prepare([this, queue, handles] {
        if (!queue->empty()) queues_.insert(std::move(*queue));
        for (auto &handle : *handles) handles_.insert(std::move(handle));
      });
    }
    *queue = queues_.extract(name);
    for (auto it = handles_.begin(); it != handles_.end();) {
      auto next = std::next(it);
      if (it->second.queue == name) handles->push_back(handles_.extract(it));
      it = next;
    }
    record(undo);
  }

  std::vector<std::string> queueNames() const override {
    std::vector<std::string> names;
    names.reserve(queues_.size());
    for (const auto &entry : queues_) names.push_back(entry.first);
    return names;
  }

  int64_t addHandle(const std::string &queue, int32_t options) override {
    const int64_t number = lastHandle_ + 1;
    Undo undo = prepare([this, number] { handles_.erase(number); });
    handles_.emplace(number, StoredHandle{queue, options});
    lastHandle_ = number;  // never given again, even when the step is undone
    record(undo);
    return number;
  }

  void removeHandle(int64_t handle) override {
    auto removed = std::make_shared<decltype(handles_)::node_type>();
    Undo undo = prepare([this, removed] {
      if (!removed->empty()) handles_.insert(std::move(*removed));
    });
    *removed = handles_.extract(handle);
    record(undo);
  }

  bool handleExists(int64_t handle) const override { return handles_.contains(handle); }

  std::vector<std::string> queuesCreatedBy(int64_t handle) const override {
    std::vector<std::string> names;
    for (const auto &[name, queue] : queues_) {
      if (queue.creator == handle) names.push_back(name);
    }
    return names;
  }

  OpenCounts openCounts(const std::string &queue) const override {
    OpenCounts counts;
    for (const auto &[number, handle] : handles_) {
      if (handle.queue != queue) continue;
      ++counts.handles;
      if ((handle.options & kInputOptions) != 0) ++counts.input;
      if ((handle.options & OPEN_OUTPUT) != 0) ++counts.output;
      if ((handle.options & OPEN_INPUT_EXCLUSIVE) != 0) counts.exclusiveInput = true;
    }
    return counts;
  }

  int32_t depth(const std::string &queue) const override {
    return static_cast<int32_t>(queues_.at(queue).messages.size());
  }

  MessageKey addMessage(const std::string &queue, Message message, Durability /*durability*/,
                        MessageState state, uint64_t unit) override {
    // Nothing outlives the process: every message is as durable as another.
    StoredQueue &stored = queues_.at(queue);
    MessageKey key{message.descriptor.priority, ++lastSequence_};
    // Whatever may throw comes before anything changes: the unit's entry
    // (room made for it) and the copy of the queue's name.
    std::vector<std::pair<std::string, MessageKey>> *refs = nullptr;
    std::pair<std::string, MessageKey> ref{unit != 0 ? queue : std::string(), key};
    if (unit != 0) {
      refs = &units_[unit];
      refs->reserve(refs->size() + 1);
    }
    const bool expires = message.expiresAt != Clock::time_point::max();
    Undo undo = prepare([this, queue, key, unit, expires] {
      StoredQueue &added = queues_.at(queue);
      added.messages.erase(key);
      if (expires) --added.expiring;
      if (unit != 0) units_.at(unit).pop_back();
    });
    stored.messages.emplace(key, StoredMessage{std::move(message), state, unit});
    if (expires) ++stored.expiring;
    if (refs != nullptr) refs->push_back(std::move(ref));
    record(undo);
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
    StoredMessage *found = available(queue, key);
    if (found == nullptr) return false;
    // Kept until the next removal: the get that found it copies it out after.
    auto removed = std::make_shared<MessageNode>();
    Undo undo = prepare([this, queue, removed] { restore(queue, std::move(*removed)); });
    *removed = extract(queue, key);
    lastRemoved_ = std::move(removed);
    record(undo);
    return true;
  }

  bool takeInUnit(const std::string &queue, const MessageKey &key, uint64_t unit) override {
    StoredMessage *stored = available(queue, key);
    if (stored == nullptr) return false;
    // The only steps that may throw come first.
    auto &refs = units_[unit];
    refs.reserve(refs.size() + 1);
    Undo undo = prepare([this, queue, key, unit] {
      StoredMessage &taken = queues_.at(queue).messages.at(key);
      taken.state = MessageState::kAvailable;
      taken.unit = 0;
      units_.at(unit).pop_back();
    });
    refs.emplace_back(queue, key);
    stored->state = MessageState::kGotInUnit;
    stored->unit = unit;
    record(undo);
    return true;
  }

  int32_t discardExpired(const std::string &queue, Clock::time_point now) override {
    StoredQueue &stored = queues_.at(queue);
    int32_t discarded = 0;
    if (stored.expiring == 0) return 0;
    auto removed = std::make_shared<std::vector<MessageNode>>();
    Undo undo;
    if (stepDepth_ > 0) {
      removed->reserve(static_cast<size_t>(stored.expiring));
      undo = prepare([this, queue, removed] {
        for (MessageNode &node : *removed) restore(queue, std::move(node));
      });
    }
    for (auto it = stored.messages.begin(); it != stored.messages.end();) {
      auto next = std::next(it);
      // A message got under syncpoint stays until its unit ends.
      if (it->second.message.expiresAt <= now && it->second.state != MessageState::kGotInUnit) {
        MessageNode node = extract(queue, it->first);
        if (stepDepth_ > 0) removed->push_back(std::move(node));
        ++discarded;
      }
      it = next;
    }
    record(undo);
    return discarded;
  }

  void clearQueue(const std::string &queue) override {
    StoredQueue &stored = queues_.at(queue);
    auto removed = std::make_shared<std::map<MessageKey, StoredMessage>>();
    const int32_t expiring = stored.expiring;
    Undo undo = prepare([this, queue, removed, expiring] {
      StoredQueue &cleared = queues_.at(queue);
      cleared.messages.swap(*removed);
      cleared.expiring = expiring;
    });
    stored.messages.swap(*removed);
    stored.expiring = 0;
    record(undo);
  }

  std::vector<std::string> commit(uint64_t unit) override { return endUnit(unit, true); }
  std::vector<std::string> backout(uint64_t unit) override { return endUnit(unit, false); }

  std::vector<Owner> owners() const override { return {}; }
  bool ownerEnded(const Owner & /*owner*/) const override { return false; }
  std::vector<std::string> endOwner(const Owner & /*owner*/) override { return {}; }

  // Nothing outlives the process.
  uint64_t durableTicket() override { return 0; }
  void waitDurable(uint64_t /*ticket*/) override {}

  // One process, one thread at a time: no other sees a step before it ends.
  void beginStep() override { ++stepDepth_; }

  void endStep(bool keep) override {
    if (stepDepth_ == 0) return;
    stepUndone_ = stepUndone_ || !keep;
    if (--stepDepth_ > 0) return;
    if (stepUndone_) {
      for (auto undo = journal_.rbegin(); undo != journal_.rend(); ++undo) (*undo)();
    }
    journal_.clear();
    stepUndone_ = false;
  }

 private:
  using MessageNode = std::map<MessageKey, StoredMessage>::node_type;
  using Undo = std::function<void()>;

  // The undoing of a change about to be made, when a step is open: room is
  // made for its record, so that record() cannot throw.
  template <typename F>
  Undo prepare(F undo) {
    if (stepDepth_ == 0) return {};
    journal_.reserve(journal_.size() + 1);
    return Undo(std::move(undo));
  }
  void record(Undo &undo) noexcept {
    if (stepDepth_ > 0 && undo) journal_.push_back(std::move(undo));
  }

  // An available message, or null.
  StoredMessage *available(const std::string &queueName, const MessageKey &key) {
    auto queue = queues_.find(queueName);
    if (queue == queues_.end()) return nullptr;
    auto it = queue->second.messages.find(key);
    if (it == queue->second.messages.end() || it->second.state != MessageState::kAvailable) {
      return nullptr;
    }
    return &it->second;
  }

  MessageNode extract(const std::string &queueName, const MessageKey &key) {
    StoredQueue &queue = queues_.at(queueName);
    MessageNode node = queue.messages.extract(key);
    if (!node.empty() && node.mapped().message.expiresAt != Clock::time_point::max()) {
      --queue.expiring;
    }
    return node;
  }

  void restore(const std::string &queueName, MessageNode node) {
    if (node.empty()) return;
    StoredQueue &queue = queues_.at(queueName);
    if (node.mapped().message.expiresAt != Clock::time_point::max()) ++queue.expiring;
    queue.messages.insert(std::move(node));
  }

  std::vector<std::string> endUnit(uint64_t unit, bool commit) {
    std::vector<std::string> available;
    auto refs = units_.find(unit);
    if (refs == units_.end()) return available;
    // First the names of the queues on which messages become available and
    // the undoing (the only steps that may throw), then the changes.
    for (const auto &[queueName, key] : refs->second) {
      StoredMessage *stored = find(queueName, key, unit);
      if (stored == nullptr || (stored->state == MessageState::kPutInUnit) != commit) continue;
      if (std::find(available.begin(), available.end(), queueName) == available.end()) {
        available.push_back(queueName);
      }
    }
    struct Ended {
      decltype(units_)::node_type refs;
      std::vector<std::pair<const std::string *, MessageNode>> removed;
      std::vector<std::pair<const std::string *, MessageKey>> madeAvailable;
    };
    auto ended = std::make_shared<Ended>();
    Undo undo;
    if (stepDepth_ > 0) {
      ended->removed.reserve(refs->second.size());
      ended->madeAvailable.reserve(refs->second.size());
      undo = prepare([this, ended, unit, commit] {
        for (auto &[queueName, node] : ended->removed) restore(*queueName, std::move(node));
        for (const auto &[queueName, key] : ended->madeAvailable) {
          StoredMessage &stored = queues_.at(*queueName).messages.at(key);
          stored.state = commit ? MessageState::kPutInUnit : MessageState::kGotInUnit;
          stored.unit = unit;
          if (!commit) --stored.message.descriptor.backoutCount;
        }
        units_.insert(std::move(ended->refs));
      });
    }
    for (const auto &[queueName, key] : refs->second) {
      StoredMessage *stored = find(queueName, key, unit);
      if (stored == nullptr) continue;
      if ((stored->state == MessageState::kPutInUnit) !=
          commit) {  // a put backed out, a get committed
        MessageNode node = extract(queueName, key);
        if (stepDepth_ > 0) ended->removed.emplace_back(&queueName, std::move(node));
        continue;
      }
      if (!commit) ++stored->message.descriptor.backoutCount;
      stored->state = MessageState::kAvailable;
      stored->unit = 0;
      if (stepDepth_ > 0) ended->madeAvailable.emplace_back(&queueName, key);
    }
    // The names stay where they are, in the unit's list, which the undoing keeps.
    ended->refs = units_.extract(refs);
    record(undo);
    return available;
  }

  // A message of a unit, or null when it (or its queue) has gone.
  StoredMessage *find(const std::string &queueName, const MessageKey &key, uint64_t unit) {
    auto queue = queues_.find(queueName);
    if (queue == queues_.end()) return nullptr;
    auto it = queue->second.messages.find(key);
    return it == queue->second.messages.end() || it->second.unit != unit ? nullptr : &it->second;
  }

  std::map<std::string, StoredQueue> queues_;
  std::map<int64_t, StoredHandle> handles_;
  int64_t lastHandle_ = 0;
  std::shared_ptr<MessageNode> lastRemoved_;  // shared with the undoing of its removal
  // The messages of each open unit of work, by queue name and key.
  std::unordered_map<uint64_t, std::vector<std::pair<std::string, MessageKey>>> units_;
  uint64_t lastSequence_ = 0;
  int stepDepth_ = 0;          // steps begun and not ended
  bool stepUndone_ = false;    // a step of it was not kept
  std::vector<Undo> journal_;  // how to undo the open step's changes, in order
};

}  // namespace

std::unique_ptr<Store> makeMemoryStore() { return std::make_unique<MemoryStore>(); }

}  // namespace vxqm
