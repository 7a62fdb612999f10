// The queue manager's core: see queue_manager.h.
#include "queue_manager.h"

#include <unistd.h>
#include <valgrind/memcheck.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <utility>

#include "convert.h"
#include "processes.h"
#include "queue_attributes.h"
#include "svc.h"

namespace vxqm {
namespace {

constexpr int32_t kInputOptions = OPEN_INPUT_AS_Q_DEF | OPEN_INPUT_SHARED | OPEN_INPUT_EXCLUSIVE;
constexpr size_t kSuffixLength = 16;  // hexadecimal digits that replace a dynamic name's '*'

[[noreturn]] void fail(int32_t reason) { throw Failure{reason}; }

bool allZero(const char *bytes, size_t length) {
  return std::all_of(bytes, bytes + length, [](char c) { return c == 0; });
}

// A message id unique in the process and, through the process id and the time
// the process first made one, across processes.
void newMessageId(char *id) {
  static const int64_t start = std::chrono::system_clock::now().time_since_epoch().count();
  static std::atomic<uint64_t> counter{0};
  const int32_t pid = static_cast<int32_t>(getpid());
  const uint64_t number = ++counter;
  std::memcpy(id, "VXQM", 4);
  std::memcpy(id + 4, &pid, 4);
  std::memcpy(id + 8, &start, 8);
  std::memcpy(id + 16, &number, 8);
}

// The unique suffix of a dynamic queue name: a counter in hexadecimal,
// written by hand (a queue is made for every command a requester sends).
std::string newSuffix() {
  static std::atomic<uint64_t> counter{
      static_cast<uint64_t>(std::chrono::system_clock::now().time_since_epoch().count())};
  uint64_t number = ++counter;
  std::string text(kSuffixLength, '0');
  for (size_t i = kSuffixLength; i-- > 0; number >>= 4) text[i] = "0123456789ABCDEF"[number & 0xF];
  return text;
}

bool isPcfFormat(const char *format) {
  static const char *const kFormats[] = {"VXADMIN ", "VXEVENT ", "VXPCF   "};
  return std::any_of(std::begin(kFormats), std::end(kFormats),
                     [&](const char *f) { return std::memcmp(format, f, FORMAT_LENGTH) == 0; });
}

// ---------------------------------------------------------------------------
// Attributes of inquire and set: one table.

struct AttributeView {
  const std::string &queueManager;
  const QueueDefinition *definition;  // null for the queue manager object
  OpenCounts opens;                   // of every process
  int32_t depth;
};

struct Attribute {
  int32_t selector;
  int32_t objectType;
  int32_t length;  // characters of a character attribute; 0 for an integer
  int32_t (*integer)(const AttributeView &);
  std::string (*characters)(const AttributeView &);
  int32_t QueueDefinition::*settable;  // the field that set changes, or null
};

bool isOpenCount(const Attribute &a) {
  return a.objectType == OBJTYPE_Q &&
         (a.selector == ATTR_OPEN_INPUT_COUNT || a.selector == ATTR_OPEN_OUTPUT_COUNT);
}

// Whether an attribute is read from the queue's definition in the store (the
// depth too: it is counted only for a queue that is still defined).  The
// inquiry of the open input count that a requester makes before every
// command reads only the open handles.
bool needsDefinition(const Attribute &a) { return a.objectType == OBJTYPE_Q && !isOpenCount(a); }

const Attribute kAttributes[] = {
    {ATTR_CURRENT_DEPTH, OBJTYPE_Q, 0, [](const AttributeView &v) { return v.depth; }, nullptr,
     nullptr},
    {ATTR_DEF_PERSISTENCE, OBJTYPE_Q, 0,
     [](const AttributeView &v) { return v.definition->defaultPersistence; }, nullptr, nullptr},
    {ATTR_DEF_PRIORITY, OBJTYPE_Q, 0,
     [](const AttributeView &v) { return v.definition->defaultPriority; }, nullptr, nullptr},
    {ATTR_DEFINITION_TYPE, OBJTYPE_Q, 0,
     [](const AttributeView &v) { return v.definition->definitionType; }, nullptr, nullptr},
    {ATTR_INHIBIT_GET, OBJTYPE_Q, 0,
     [](const AttributeView &v) { return v.definition->inhibitGet; }, nullptr,
     &QueueDefinition::inhibitGet},
    {ATTR_INHIBIT_PUT, OBJTYPE_Q, 0,
     [](const AttributeView &v) { return v.definition->inhibitPut; }, nullptr,
     &QueueDefinition::inhibitPut},
    {ATTR_MAX_MSG_LENGTH, OBJTYPE_Q, 0,
     [](const AttributeView &v) { return v.definition->maxMsgLength; }, nullptr, nullptr},
    {ATTR_MAX_Q_DEPTH, OBJTYPE_Q, 0, [](const AttributeView &v) { return v.definition->maxDepth; },
     nullptr, nullptr},
    {ATTR_OPEN_INPUT_COUNT, OBJTYPE_Q, 0, [](const AttributeView &v) { return v.opens.input; },
     nullptr, nullptr},
    {ATTR_OPEN_OUTPUT_COUNT, OBJTYPE_Q, 0, [](const AttributeView &v) { return v.opens.output; },
     nullptr, nullptr},
    {ATTR_Q_TYPE, OBJTYPE_Q, 0, [](const AttributeView &v) { return v.definition->queueType; },
     nullptr, nullptr},
    {ATTR_Q_NAME, OBJTYPE_Q, Q_NAME_LENGTH, nullptr,
     [](const AttributeView &v) { return v.definition->name; }, nullptr},
    {ATTR_Q_DESC, OBJTYPE_Q, Q_DESC_LENGTH, nullptr,
     [](const AttributeView &v) { return v.definition->description; }, nullptr},
    {ATTR_CODED_CHAR_SET_ID, OBJTYPE_Q_MGR, 0,
     [](const AttributeView &) { return kQueueManagerCcsid; }, nullptr, nullptr},
    {ATTR_Q_MGR_NAME, OBJTYPE_Q_MGR, QM_NAME_LENGTH, nullptr,
     [](const AttributeView &v) { return v.queueManager; }, nullptr},
};

const Attribute &attribute(int32_t selector, int32_t objectType) {
  for (const Attribute &a : kAttributes) {
    if (a.selector == selector && a.objectType == objectType) return a;
  }
  fail(RC_SELECTOR_ERROR);
}

// ---------------------------------------------------------------------------
// Attribute values of the administration interface.

bool inRange(int32_t value, int32_t low, int32_t high) { return value >= low && value <= high; }

void applyChanges(QueueDefinition &definition, const QueueChanges &changes, bool creating) {
  if (changes.queueType) {
    if (!creating && *changes.queueType != definition.queueType) fail(RC_OBJECT_TYPE_ERROR);
    if (!vxqi::accepts(ATTR_Q_TYPE, *changes.queueType)) fail(RC_SELECTOR_ERROR);
    definition.queueType = *changes.queueType;
  }
  if (creating && definition.queueType == QTYPE_MODEL) {
    definition.definitionType = DEFTYPE_TEMPORARY_DYNAMIC;
  }
  if (changes.definitionType) {
    const bool valid =
        definition.queueType == QTYPE_MODEL
            ? inRange(*changes.definitionType, DEFTYPE_PERMANENT_DYNAMIC, DEFTYPE_TEMPORARY_DYNAMIC)
            : *changes.definitionType == definition.definitionType;
    if (!valid) fail(RC_SELECTOR_ERROR);
    definition.definitionType = *changes.definitionType;
  }
  if (changes.description) {
    std::string description = *changes.description;
    description.erase(description.find_last_not_of(' ') + 1);
    if (!vxqi::accepts(ATTR_Q_DESC, description)) fail(RC_SELECTOR_ERROR);
    definition.description = description;
  }
  // The ranges are those of the table of queue attributes.
  const struct {
    int32_t selector;
    const std::optional<int32_t> &value;
    int32_t QueueDefinition::*field;
  } integers[] = {
      {ATTR_DEF_PERSISTENCE, changes.defaultPersistence, &QueueDefinition::defaultPersistence},
      {ATTR_DEF_PRIORITY, changes.defaultPriority, &QueueDefinition::defaultPriority},
      {ATTR_INHIBIT_GET, changes.inhibitGet, &QueueDefinition::inhibitGet},
      {ATTR_INHIBIT_PUT, changes.inhibitPut, &QueueDefinition::inhibitPut},
      {ATTR_MAX_MSG_LENGTH, changes.maxMsgLength, &QueueDefinition::maxMsgLength},
      {ATTR_MAX_Q_DEPTH, changes.maxDepth, &QueueDefinition::maxDepth}};
  for (const auto &[selector, value, field] : integers) {
    if (!value) continue;
    if (!vxqi::accepts(selector, *value)) fail(RC_SELECTOR_ERROR);
    definition.*field = *value;
  }
}

// One step of the store for as long as it lives: undone unless kept.
class StoreStep {
 public:
  explicit StoreStep(Store &store) : store_(store) { store_.beginStep(); }
  ~StoreStep() {
    if (!kept_) store_.endStep(false);
  }
  StoreStep(const StoreStep &) = delete;
  StoreStep &operator=(const StoreStep &) = delete;
  void keep() {
    store_.endStep(true);
    kept_ = true;
  }

 private:
  Store &store_;
  bool kept_ = false;
};

bool matchesPattern(const std::string &name, const std::string &pattern) {
  if (!pattern.empty() && pattern.back() == '*') {
    return name.compare(0, pattern.size() - 1, pattern, 0, pattern.size() - 1) == 0;
  }
  return name == pattern;
}

}  // namespace

// ---------------------------------------------------------------------------
// Names

std::string readName(const char *field, size_t length) {
  size_t end = 0;
  while (end < length && field[end] != 0) ++end;
  while (end > 0 && field[end - 1] == ' ') --end;
  return std::string(field, end);
}

void writeName(char *field, size_t length, const std::string &name) {
  const size_t n = std::min(length, name.size());
  std::memcpy(field, name.data(), n);
  std::memset(field + n, ' ', length - n);
}

bool isValidName(const std::string &name) {
  if (name.empty() || name.size() > Q_NAME_LENGTH) return false;
  return std::all_of(name.begin(), name.end(), [](char c) {
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '.' ||
           c == '_' || c == '/' || c == '%';
  });
}

std::string queueManagerName(const std::string &name) {
  const std::string trimmed = readName(name.c_str(), name.size());
  if (trimmed.empty()) return kDefaultQueueManager;
  if (!isValidName(trimmed)) fail(RC_Q_MGR_NAME_ERROR);
  return trimmed;
}

int32_t newHandle() {
  static std::atomic<uint32_t> last{0};
  for (;;) {
    const int32_t handle = static_cast<int32_t>(++last & 0x7FFFFFFF);
    if (handle != 0) return handle;
  }
}

// ---------------------------------------------------------------------------
// Queue manager: set-up, connections, handles

QueueManager::QueueManager(std::string name, Home home)
    : name_(std::move(name)), store_(std::move(home.store)), waker_(std::move(home.waker)) {
  defineInitialObjects();
  endEndedOwners();
}

QueueManager::~QueueManager() {
  // The last owner may be another thread than the last caller: taking the
  // mutex orders the destruction after every call that used the members, for
  // tools (helgrind) that do not follow the shared owners' count.
  std::lock_guard<AdaptiveMutex> lock(mutex_);
}

void QueueManager::defineInitialObjects() {
  // A store that outlives the process has them already, perhaps changed.
  StoreStep step(*store_);
  QueueDefinition local;
  local.name = kAdminCommandQueue;
  if (!store_->findQueue(local.name, nullptr)) store_->createQueue(local, 0);
  local.name = kDefaultLocalQueue;
  if (!store_->findQueue(local.name, nullptr)) store_->createQueue(local, 0);
  QueueDefinition model;
  model.name = kDefaultModelQueue;
  model.queueType = QTYPE_MODEL;
  model.definitionType = DEFTYPE_TEMPORARY_DYNAMIC;
  if (!store_->findQueue(model.name, nullptr)) store_->createQueue(model, 0);
  step.keep();
}

void QueueManager::endEndedOwners() {
  for (const Owner &owner : store_->owners()) {
    if (!store_->ownerEnded(owner) && !processEnded(owner)) continue;
    for (const std::string &queue : store_->endOwner(owner)) notify(queue);
  }
}

void QueueManager::notify(const std::string &queue) {
  if (waker_) {
    waker_->wake(queue);
    return;
  }
  auto it = queues_.find(queue);
  if (it != queues_.end()) it->second->changed.notify_all();
}

void QueueManager::addConnection(int32_t hconn) {
  Lock lock(mutex_);
  // Every connect, not only a process's first, gives back what processes
  // that died held.
  endEndedOwners();
  connections_.emplace(hconn, Connection{});
}

Connection &QueueManager::connection(int32_t hconn) {
  auto it = connections_.find(hconn);
  if (it == connections_.end()) fail(RC_HCONN_ERROR);
  return it->second;
}

ObjectHandle &QueueManager::anyHandle(Connection &connection, int32_t hobj) {
  auto it = connection.handles.find(hobj);
  if (it == connection.handles.end()) fail(RC_HOBJ_ERROR);
  return it->second;
}

ObjectHandle &QueueManager::handle(Connection &connection, int32_t hobj) {
  ObjectHandle &h = anyHandle(connection, hobj);
  // Opened in a session of the store that was lost: the other owners give
  // its open back.  Only a close still works (closeObject).
  if (h.queue && h.storeSession != store_->session()) fail(RC_CONNECTION_BROKEN);
  return h;
}

void QueueManager::checkHandles(int32_t hconn, std::optional<int32_t> hobj) {
  Lock lock(mutex_);
  Connection &c = connection(hconn);
  if (hobj) anyHandle(c, *hobj);
}

QueueDefinition QueueManager::definition(const std::string &queue) const {
  QueueDefinition definition;
  if (!store_->findQueue(queue, &definition)) fail(RC_UNKNOWN_OBJECT_NAME);
  return definition;
}

// `seen`: the one the store saw last will do, for a call that checks it.
QueueDefinition QueueManager::handleDefinition(const ObjectHandle &h, bool seen) const {
  QueueDefinition definition;
  const bool found = seen ? store_->seenQueue(h.queueName, &definition)
                          : store_->findQueue(h.queueName, &definition);
  if (h.queue->deleted || !found) fail(RC_Q_DELETED);
  return definition;
}

QueueState &QueueManager::state(const std::string &queue) { return *sharedState(queue); }

std::shared_ptr<QueueState> QueueManager::sharedState(const std::string &queue) {
  auto it = queues_.find(queue);
  if (it != queues_.end()) return it->second;
  auto queueState = std::make_shared<QueueState>();
  queues_.emplace(queue, queueState);
  return queueState;
}

void QueueManager::disconnect(int32_t hconn) {
  Lock lock(mutex_);
  Connection &c = connection(hconn);
  // A store that loses its session on the way (RC_CONNECTION_BROKEN, or
  // RC_Q_MGR_NOT_AVAILABLE when no new one opens) has the rest closed in
  // this process alone: the other owners give back what that session held.
  // Another failure leaves the connection with the handles not yet closed:
  // the disconnect may be made again.
  auto sessionLost = [](const Failure &failure) {
    return failure.reason == RC_CONNECTION_BROKEN || failure.reason == RC_Q_MGR_NOT_AVAILABLE;
  };
  try {
    if (c.unit != 0) endUnit(c, false);
  } catch (const Failure &failure) {
    if (!sessionLost(failure)) throw;
    c.unit = 0;
  }
  while (!c.handles.empty()) {
    try {
      closeObject(c, c.handles.begin()->first, CLOSE_NONE);
    } catch (const Failure &failure) {
      // The handle is now of the lost session: the next round closes it here.
      if (!sessionLost(failure)) throw;
    }
  }
  connections_.erase(hconn);
  awaitDurable(lock);
}

void QueueManager::shutdown() {
  Lock lock(mutex_);
  connections_.clear();
  for (auto &[name, queue] : queues_) {
    queue->deleted = true;
    queue->changed.notify_all();
  }
  if (waker_) waker_->wakeAll();
}

// ---------------------------------------------------------------------------
// Open and close

int32_t QueueManager::open(int32_t hconn, vxOBJDESC &od, int32_t options) {
  Lock lock(mutex_);
  return openHandle(connection(hconn), od, options);
}

int32_t QueueManager::openHandle(Connection &c, vxOBJDESC &od, int32_t options) {
  const int32_t hobj = newHandle();
  auto slot = c.handles.try_emplace(hobj).first;  // may throw before anything changed
  try {
    slot->second = openObject(od, options);
  } catch (...) {
    c.handles.erase(slot);
    throw;
  }
  return hobj;
}

ObjectHandle QueueManager::openObject(vxOBJDESC &od, int32_t options) {
  ObjectHandle opened;
  opened.objectType = od.objectType;
  opened.options = options;
  if (od.objectType == OBJTYPE_Q_MGR) {
    const std::string name = readName(od.objectName, Q_NAME_LENGTH);
    if (!name.empty() && name != name_) fail(RC_UNKNOWN_OBJECT_NAME);
    if (options != OPEN_INQUIRE) fail(RC_OPTIONS_ERROR);
    return opened;
  }
  if (od.objectType != OBJTYPE_Q) fail(RC_OBJECT_TYPE_ERROR);
  std::string name = readName(od.objectName, Q_NAME_LENGTH);
  if (!isValidName(name)) fail(RC_OBJECT_NAME_ERROR);
  const std::string qmName = readName(od.objectQMgrName, QM_NAME_LENGTH);
  if (!qmName.empty() && qmName != name_) fail(RC_UNKNOWN_OBJECT_Q_MGR);
  // The open, with the queue that a model makes: one step, so that no other
  // process opens between the check of the open counts and the open.
  StoreStep step(*store_);
  QueueDefinition queue = definition(name);
  const bool model = queue.queueType == QTYPE_MODEL;
  if (model) {
    name = dynamicQueueName(readName(od.dynamicQName, Q_NAME_LENGTH));
    queue.name = name;
    queue.queueType = QTYPE_LOCAL;
  }
  std::shared_ptr<QueueState> queueState = sharedState(name);
  if (model) {
    // A new queue has no open that could conflict.
    opened.storeHandle = store_->addHandle(name, options);
    // A temporary dynamic queue lives as long as the handle that made it.
    const bool temporary = queue.definitionType == DEFTYPE_TEMPORARY_DYNAMIC;
    store_->createQueue(queue, temporary ? opened.storeHandle : 0);
  } else {
    opened.storeHandle = openQueue(name, options);
  }
  step.keep();
  opened.storeSession = store_->session();
  if (model) writeName(od.objectName, Q_NAME_LENGTH, name);
  opened.queueName = std::move(name);
  opened.queue = std::move(queueState);
  return opened;
}

int64_t QueueManager::openQueue(const std::string &name, int32_t options) {
  if ((options & kInputOptions) != 0) {
    // The opens of a process that died must not hold the queue.
    endEndedOwners();
    const OpenCounts opens = store_->openCounts(name);
    const bool exclusive = (options & OPEN_INPUT_EXCLUSIVE) != 0;
    if (opens.exclusiveInput || (exclusive && opens.input > 0)) fail(RC_OBJECT_IN_USE);
  }
  return store_->addHandle(name, options);
}

std::string QueueManager::dynamicQueueName(const std::string &dynamicName) {
  std::string name = dynamicName;
  const bool generated = !name.empty() && name.back() == '*';
  if (generated) {
    name.pop_back();
    if (name.size() > Q_NAME_LENGTH - kSuffixLength) fail(RC_OBJECT_NAME_ERROR);
    const std::string prefix = name;
    do {
      name = prefix + newSuffix();
    } while (store_->findQueue(name, nullptr));
  }
  if (!isValidName(name)) fail(RC_OBJECT_NAME_ERROR);
  if (!generated && store_->findQueue(name, nullptr)) fail(RC_OBJECT_ALREADY_EXISTS);
  return name;
}

void QueueManager::close(int32_t hconn, int32_t hobj, int32_t options) {
  Lock lock(mutex_);
  closeObject(connection(hconn), hobj, options);
  awaitDurable(lock);
}

void QueueManager::closeObject(Connection &c, int32_t hobj, int32_t options) {
  ObjectHandle &h = anyHandle(c, hobj);
  std::vector<std::string> deleted;
  // A handle of a lost session of the store has nothing left there to
  // close: the other owners give its open back.
  if (h.queue && !h.queue->deleted && h.storeSession == store_->session()) {
    // A queue deleted since the open has nothing left to close.  With the
    // memory store, a plain close of a handle that made no queue allocates
    // nothing: a disconnect and a put1 close whatever memory is left.
    QueueDefinition queue;
    if (store_->findQueue(h.queueName, options != CLOSE_NONE ? &queue : nullptr)) {
      StoreStep step(*store_);
      deleted = store_->queuesCreatedBy(h.storeHandle);
      const bool temporaryOfHandle = !deleted.empty();
      if (options != CLOSE_NONE && queue.definitionType == DEFTYPE_PREDEFINED) {
        fail(RC_OPTIONS_ERROR);
      }
      if (options == CLOSE_DELETE && !temporaryOfHandle && store_->depth(h.queueName) > 0) {
        fail(RC_Q_NOT_EMPTY);
      }
      if (options != CLOSE_NONE && !temporaryOfHandle) deleted.push_back(h.queueName);
      store_->removeHandle(h.storeHandle);
      for (const std::string &name : deleted) store_->deleteQueue(name);
      step.keep();
    }
    // A get waiting on this handle wakes and finds it gone.
    if (h.waitingGets > 0) notify(h.queueName);
  }
  const std::string name = std::move(h.queueName);
  c.handles.erase(hobj);
  for (const std::string &gone : deleted) deleteQueueObject(gone);
  // What the process keeps of a queue lasts while a handle or a waiting get
  // holds it, or a test hook is set on it: a queue that another process
  // makes and deletes, such as the reply queue a command server answers on,
  // would otherwise stay here for ever.
  auto it = queues_.find(name);
  if (it != queues_.end() && it->second.use_count() == 1 && it->second->heldUnit == 0 &&
      it->second->delayMilliseconds == 0) {
    queues_.erase(it);
  }
}

// What the process keeps of a queue that the store no longer has.
void QueueManager::deleteQueueObject(const std::string &name) {
  auto it = queues_.find(name);
  if (it != queues_.end()) {
    it->second->deleted = true;
    it->second->changed.notify_all();
    queues_.erase(it);
  }
  if (waker_) waker_->wake(name);
}

// ---------------------------------------------------------------------------
// Put

void QueueManager::put(int32_t hconn, int32_t hobj, vxMSGDESC &md, vxPUTOPTS &pmo, const char *data,
                       int32_t length) {
  Lock lock(mutex_);
  Connection &c = connection(hconn);
  putMessage(c, handle(c, hobj), md, pmo, data, length);
  awaitDurable(lock);
}

void QueueManager::put1(int32_t hconn, vxOBJDESC &od, vxMSGDESC &md, vxPUTOPTS &pmo,
                        const char *data, int32_t length) {
  Lock lock(mutex_);
  Connection &c = connection(hconn);
  // Only a queue takes messages; a dynamic queue made from a model only to be
  // put to once would be lost at once.
  if (od.objectType != OBJTYPE_Q) fail(RC_OBJECT_TYPE_ERROR);
  const std::string name = readName(od.objectName, Q_NAME_LENGTH);
  // The open, the put and the close: one step of the store.
  StoreStep step(*store_);
  QueueDefinition queue;
  if (isValidName(name) && store_->findQueue(name, &queue) && queue.queueType == QTYPE_MODEL) {
    fail(RC_OBJECT_TYPE_ERROR);
  }
  const int32_t hobj = openHandle(c, od, OPEN_OUTPUT);
  try {
    putMessage(c, c.handles.at(hobj), md, pmo, data, length);
  } catch (...) {
    closeObject(c, hobj, CLOSE_NONE);
    throw;
  }
  closeObject(c, hobj, CLOSE_NONE);
  step.keep();
  awaitDurable(lock);
}

void QueueManager::putMessage(Connection &c, const ObjectHandle &h, vxMSGDESC &md, vxPUTOPTS &pmo,
                              const char *data, int32_t length) {
  if ((h.options & OPEN_OUTPUT) == 0) fail(RC_NOT_OPEN_FOR_OUTPUT);
  if (h.queue->deleted) fail(RC_Q_DELETED);
  if (md.priority != PRIORITY_AS_Q_DEF && !inRange(md.priority, 0, kLargestPriority)) {
    fail(RC_PRIORITY_ERROR);
  }
  if (!inRange(md.persistence, PERSISTENCE_NOT_PERSISTENT, PERSISTENCE_AS_Q_DEF)) {
    fail(RC_PERSISTENCE_ERROR);
  }
  if (md.expiry != EXPIRY_UNLIMITED && md.expiry <= 0) fail(RC_EXPIRY_ERROR);
  // A store that puts in one statement checks there the definition it saw,
  // and needs no step around it; a definition changed since is read again.
  std::optional<StoreStep> step;
  if (!store_->putIsOneStatement()) step.emplace(*store_);
  MessageState messageState = MessageState::kAvailable;
  bool seen = true;
  while (!addMessage(c, h, md, pmo, data, length, seen, &messageState)) seen = false;
  if (step) step->keep();

  writeName(pmo.resolvedQName, Q_NAME_LENGTH, h.queueName);
  writeName(pmo.resolvedQMgrName, QM_NAME_LENGTH, name_);
  pmo.knownDestCount = 1;
  if (messageState == MessageState::kAvailable) notify(h.queueName);
}

// The add of a put, for the definition the store saw (`seen`) or read
// again; false when the store found it changed, having done nothing.
bool QueueManager::addMessage(Connection &c, const ObjectHandle &h, vxMSGDESC &md,
                              const vxPUTOPTS &pmo, const char *data, int32_t length, bool seen,
                              MessageState *state) {
  const QueueDefinition queue = handleDefinition(h, seen);
  // A refusal stands on the definition as it is now, not as it was seen.
  const bool refused = queue.inhibitPut == INHIBIT_INHIBITED || length > queue.maxMsgLength;
  if (refused && seen) return false;
  if (queue.inhibitPut == INHIBIT_INHIBITED) fail(RC_PUT_INHIBITED);
  if (length > queue.maxMsgLength) fail(RC_MSG_TOO_BIG_FOR_Q);
  const Clock::time_point now = Clock::now();

  Message message;
  message.data.assign(data, data + length);
  // The bytes are the caller's, kept as they are: what a program left
  // undefined in its buffer (the padding after a string of a command
  // message) is defined from here on, for the memory checker, since the
  // store writes and checksums it.
  VALGRIND_MAKE_MEM_DEFINED(message.data.data(), message.data.size());
  message.descriptor = md;
  std::memcpy(message.descriptor.structId, MD_STRUC_ID, 4);
  message.descriptor.version = MD_VERSION_2;
  message.descriptor.backoutCount = 0;
  if (md.priority == PRIORITY_AS_Q_DEF) message.descriptor.priority = queue.defaultPriority;
  if (md.persistence == PERSISTENCE_AS_Q_DEF) {
    message.descriptor.persistence = queue.defaultPersistence;
  }
  if (md.codedCharSetId == 0) message.descriptor.codedCharSetId = kQueueManagerCcsid;
  if (allZero(md.msgId, MSG_ID_LENGTH)) newMessageId(message.descriptor.msgId);
  if (md.expiry != EXPIRY_UNLIMITED) {
    message.expiresAt = now + std::chrono::milliseconds(int64_t{md.expiry} * 100);
  }
  if (h.queue->delayMilliseconds > 0) {
    message.visibleFrom = now + std::chrono::milliseconds(h.queue->delayMilliseconds);
  }
  MessageState &messageState = *state;
  uint64_t unit = 0;
  if ((pmo.options & PUT_SYNCPOINT) != 0) {
    unit = unitOf(c);
    messageState = MessageState::kPutInUnit;
  } else if (h.queue->heldUnit != 0) {
    // A test holds the queue: its puts wait in a unit that the release commits.
    unit = h.queue->heldUnit;
    messageState = MessageState::kPutInUnit;
  }
  // Persistent messages outlive a restart, others do not; nor does anything
  // on a temporary dynamic queue, which ends with its handle.
  const Durability durability = message.descriptor.persistence == PERSISTENCE_PERSISTENT &&
                                        queue.definitionType != DEFTYPE_TEMPORARY_DYNAMIC
                                    ? Durability::kDurable
                                    : Durability::kVolatile;
  char msgId[MSG_ID_LENGTH];
  std::memcpy(msgId, message.descriptor.msgId, MSG_ID_LENGTH);
  const Added added = store_->addChecked(h.queueName, queue, std::move(message), durability,
                                         messageState, unit, now);
  if (added.changed) return false;
  if (!added.key) fail(RC_Q_FULL);
  std::memcpy(md.msgId, msgId, MSG_ID_LENGTH);
  return true;
}

// ---------------------------------------------------------------------------
// Get

GetResult QueueManager::get(int32_t hconn, int32_t hobj, vxMSGDESC &md, vxGETOPTS &gmo,
                            char *buffer, int32_t bufferLength) {
  Lock lock(mutex_);
  const int32_t options = gmo.options;
  const bool browse = (options & (GET_BROWSE_FIRST | GET_BROWSE_NEXT)) != 0;
  std::shared_ptr<QueueState> queue;
  {
    const ObjectHandle &h = handle(connection(hconn), hobj);
    if (browse && (h.options & OPEN_BROWSE) == 0) fail(RC_NOT_OPEN_FOR_BROWSE);
    if (!browse && (h.options & kInputOptions) == 0) fail(RC_NOT_OPEN_FOR_INPUT);
    queue = h.queue;
  }
  Selection selection;
  if (!allZero(md.msgId, MSG_ID_LENGTH)) selection.msgId = md.msgId;
  if (!allZero(md.correlId, CORREL_ID_LENGTH)) selection.correlId = md.correlId;
  const bool wait = (options & GET_WAIT) != 0;
  const Clock::time_point deadline =
      wait && gmo.waitInterval != WAIT_UNLIMITED
          ? Clock::now() + std::chrono::milliseconds(gmo.waitInterval)
          : Clock::time_point::max();

  bool waited = false;
  bool ownersChecked = false;
  bool seen = true;
  for (;;) {
    // Looked up again after every wake-up: a close or a disconnect ends the wait.
    Connection &c = connection(hconn);
    ObjectHandle &h = handle(c, hobj);
    if (waited) --h.waitingGets;
    waited = false;
    // Noted before the look at the store: a put after the look changes it.
    const uint32_t wakeCount = waker_ ? waker_->count(h.queueName) : 0;
    // A get that converts nothing discards the expired messages and takes
    // its message in the same call of the store as it finds it (one round
    // trip to a server), which checks the definition it saw; one that may
    // convert learns the length only after the conversion.
    const bool takeNow = !browse && (options & GET_CONVERT) == 0;
    const bool fromSeen = takeNow && seen;
    const QueueDefinition definitionNow = handleDefinition(h, fromSeen);
    if (definitionNow.inhibitGet == INHIBIT_INHIBITED) {
      // A refusal stands on the definition as it is now, not as it was seen.
      if (!fromSeen) fail(RC_GET_INHIBITED);
      seen = false;
      continue;
    }
    const Clock::time_point now = Clock::now();
    selection.after.reset();
    if ((options & GET_BROWSE_NEXT) != 0) selection.after = h.browseCursor;
    if (!takeNow) store_->discardExpired(h.queueName, now);
    const bool syncpoint = (options & GET_SYNCPOINT) != 0;
    const bool newUnit = takeNow && syncpoint && c.unit == 0;
    const uint64_t unit = takeNow && syncpoint ? unitOf(c) : 0;
    const size_t longest = (options & GET_ACCEPT_TRUNCATED_MSG) != 0
                               ? SIZE_MAX
                               : static_cast<size_t>(std::max(bufferLength, 0));
    const Found found =
        takeNow ? store_->takeChecked(h.queueName, definitionNow, selection, now, unit, longest)
                : store_->findMessage(h.queueName, selection, now);
    if (newUnit && !found.taken) c.unit = 0;
    // Changed since the store saw it: read again, and nothing was done.
    seen = !found.changed;
    if (found.changed) continue;
    if (found.message == nullptr) {
      if (!wait || now >= deadline) fail(RC_NO_MSG_AVAILABLE);
      if (!ownersChecked) {
        // Before it sleeps, a get gives back what processes that died
        // held: a message got in a dead process's unit comes back.
        ownersChecked = true;
        endEndedOwners();
        continue;
      }
      const Clock::time_point wakeAt = std::min(deadline, found.nextVisible);
      ++h.waitingGets;
      waited = true;
      if (waker_) {
        const std::string name = h.queueName;
        lock.unlock();
        waker_->sleep(name, wakeCount, wakeAt);
        lock.lock();
      } else if (wakeAt == Clock::time_point::max()) {
        queue->changed.wait(lock);
      } else {
        queue->changed.wait_until(lock, wakeAt);
      }
      continue;
    }

    const Message &message = *found.message;
    const char *bytes = message.data.data();
    int32_t length = static_cast<int32_t>(message.data.size());
    int32_t ccsid = message.descriptor.codedCharSetId;
    bool notConverted = false;
    std::vector<char> converted;
    if ((options & GET_CONVERT) != 0 && isPcfFormat(message.descriptor.format)) {
      const int32_t target = md.codedCharSetId == 0 ? kQueueManagerCcsid : md.codedCharSetId;
      if (message.descriptor.encoding == ENCODING_NATIVE &&
          convertPcfMessage(bytes, length, ccsid, target, converted)) {
        bytes = converted.data();
        length = static_cast<int32_t>(converted.size());
        ccsid = target;
      } else {
        notConverted = true;
      }
    }
    const bool truncated = length > bufferLength;
    const bool refused = truncated && (options & GET_ACCEPT_TRUNCATED_MSG) == 0;
    // Taken before anything is written to the caller: a store shared with
    // other processes may find that one of them took the message first.
    if (!browse && !refused && !found.taken) {
      if (syncpoint) {
        const bool begun = c.unit == 0;
        if (!store_->takeInUnit(h.queueName, found.key, unitOf(c))) {
          if (begun) c.unit = 0;
          continue;
        }
      } else if (!store_->removeMessage(h.queueName, found.key)) {
        continue;
      }
    }
    const int32_t copied = std::min(length, bufferLength);
    if (copied > 0) std::memcpy(buffer, bytes, copied);
    const vxMSGDESC asked = md;
    md = message.descriptor;
    std::memcpy(md.structId, asked.structId, 4);
    md.version = asked.version;
    md.codedCharSetId = ccsid;
    writeName(gmo.resolvedQName, Q_NAME_LENGTH, h.queueName);
    gmo.returnedLength = copied;
    if (browse) h.browseCursor = found.key;

    GetResult result;
    result.dataLength = length;
    if (refused) {
      result.outcome = {CC_FAILED, RC_MSG_TRUNCATED};
      return result;
    }
    if (truncated) {
      result.outcome = {CC_WARNING, RC_MSG_TRUNCATED_ACCEPTED};
    } else if (notConverted) {
      result.outcome = {CC_WARNING, RC_NOT_CONVERTED};
    }
    // A persistent message got is gone for good only once that is on disk.
    awaitDurable(lock);
    return result;
  }
}

// ---------------------------------------------------------------------------
// Inquire and set

Outcome QueueManager::inquire(int32_t hconn, int32_t hobj, const std::vector<int32_t> &selectors,
                              int32_t *intAttrs, int32_t intCount, char *charAttrs,
                              int32_t charLength) {
  Lock lock(mutex_);
  const ObjectHandle &h = handle(connection(hconn), hobj);
  if ((h.options & OPEN_INQUIRE) == 0) fail(RC_NOT_OPEN_FOR_INQUIRE);
  std::vector<const Attribute *> wanted;
  bool wantsDefinition = false;
  bool wantsDepth = false;
  bool wantsOpens = false;
  for (int32_t selector : selectors) {
    const Attribute &a = attribute(selector, h.objectType);
    wanted.push_back(&a);
    wantsDefinition = wantsDefinition || needsDefinition(a);
    wantsDepth = wantsDepth || selector == ATTR_CURRENT_DEPTH;
    wantsOpens = wantsOpens || isOpenCount(a);
  }
  QueueDefinition queue;
  int32_t depth = 0;
  OpenCounts opens;
  if (h.queue) {
    if (h.queue->deleted) fail(RC_Q_DELETED);
    if (wantsDefinition) queue = handleDefinition(h);
    if (wantsDepth) {
      store_->discardExpired(h.queueName, Clock::now());
      depth = store_->depth(h.queueName);
    }
    if (wantsOpens) {
      endEndedOwners();
      opens = store_->openCounts(h.queueName);
    }
  }
  const AttributeView view{name_, h.queue ? &queue : nullptr, opens, depth};
  int32_t integers = 0;
  int32_t characters = 0;
  bool intsTooFew = false;
  bool charsTooFew = false;
  for (const Attribute *a : wanted) {
    if (a->integer != nullptr) {
      if (integers < intCount) {
        const int32_t value = a->integer(view);
        std::memcpy(intAttrs + integers, &value, sizeof value);
      } else {
        intsTooFew = true;
      }
      ++integers;
    } else if (!charsTooFew) {
      // What fits is filled; the attribute that does not fit is cut short,
      // and those after it are left out.
      const int32_t room = std::min(a->length, charLength - characters);
      if (room > 0) writeName(charAttrs + characters, room, a->characters(view));
      characters += room;
      charsTooFew = room < a->length;
    }
  }
  if (intsTooFew) return {CC_WARNING, RC_INT_ATTR_COUNT_TOO_SMALL};
  if (charsTooFew) return {CC_WARNING, RC_CHAR_ATTRS_TOO_SHORT};
  return {};
}

void QueueManager::set(int32_t hconn, int32_t hobj, const std::vector<int32_t> &selectors,
                       const int32_t *intAttrs, int32_t intCount) {
  Lock lock(mutex_);
  const ObjectHandle &h = handle(connection(hconn), hobj);
  if ((h.options & OPEN_SET) == 0) fail(RC_NOT_OPEN_FOR_SET);
  std::vector<const Attribute *> wanted;
  for (int32_t selector : selectors) {
    const Attribute &a = attribute(selector, h.objectType);
    if (a.settable == nullptr) fail(RC_SELECTOR_ERROR);
    wanted.push_back(&a);
  }
  if (static_cast<int32_t>(wanted.size()) > intCount) fail(RC_INT_ATTR_COUNT_TOO_SMALL);
  QueueDefinition queue = handleDefinition(h);
  for (size_t i = 0; i < wanted.size(); ++i) {
    int32_t value;
    std::memcpy(&value, intAttrs + i, sizeof value);
    if (!inRange(value, INHIBIT_ALLOWED, INHIBIT_INHIBITED)) fail(RC_SELECTOR_ERROR);
    queue.*(wanted[i]->settable) = value;
  }
  store_->saveQueue(queue);
  notify(h.queueName);  // waiting gets learn of an inhibited get
  awaitDurable(lock);
}

// ---------------------------------------------------------------------------
// Units of work

void QueueManager::begin(int32_t hconn) {
  Lock lock(mutex_);
  Connection &c = connection(hconn);
  if (c.unit != 0) fail(RC_UOW_IN_PROGRESS);
  unitOf(c);
}

void QueueManager::commit(int32_t hconn) {
  Lock lock(mutex_);
  Connection &c = connection(hconn);
  if (c.unit != 0) endUnit(c, true);
  awaitDurable(lock);
}

void QueueManager::backout(int32_t hconn) {
  Lock lock(mutex_);
  Connection &c = connection(hconn);
  if (c.unit != 0) endUnit(c, false);
  awaitDurable(lock);
}

uint64_t QueueManager::unitOf(Connection &c) {
  if (c.unit == 0) {
    c.unit = ++lastUnit_;
    c.unitSession = store_->session();
  } else if (c.unitSession != store_->session()) {
    fail(RC_CONNECTION_BROKEN);
  }
  return c.unit;
}

void QueueManager::endUnit(Connection &c, bool commit) {
  if (c.unitSession != store_->session()) {
    // Begun in a session of the store that was lost: the other owners back
    // it out as a dead owner's.
    c.unit = 0;
    if (commit) fail(RC_CONNECTION_BROKEN);
    return;
  }
  const std::vector<std::string> available =
      commit ? store_->commit(c.unit) : store_->backout(c.unit);
  c.unit = 0;
  wakeAvailable(available);
}

void QueueManager::wakeAvailable(const std::vector<std::string> &queues) {
  for (const std::string &name : queues) notify(name);
}

void QueueManager::awaitDurable(Lock &lock) {
  // Changes of another call that failed after its commit are covered too.
  const uint64_t ticket = store_->durableTicket();
  if (ticket == 0) return;
  lock.unlock();
  store_->waitDurable(ticket);
}

// ---------------------------------------------------------------------------
// Administration

void QueueManager::createQueue(const std::string &name, const QueueChanges &attributes) {
  Lock lock(mutex_);
  if (!isValidName(name)) fail(RC_OBJECT_NAME_ERROR);
  if (store_->findQueue(name, nullptr)) fail(RC_OBJECT_ALREADY_EXISTS);
  QueueDefinition created;
  created.name = name;
  applyChanges(created, attributes, true);
  store_->createQueue(created, 0);
  awaitDurable(lock);
}

void QueueManager::changeQueue(const std::string &name, const QueueChanges &changes) {
  Lock lock(mutex_);
  if (!isValidName(name)) fail(RC_OBJECT_NAME_ERROR);
  QueueDefinition changed = definition(name);
  applyChanges(changed, changes, false);
  store_->saveQueue(changed);
  notify(name);
  awaitDurable(lock);
}

void QueueManager::copyQueue(const std::string &from, const std::string &to,
                             const QueueChanges &changes) {
  Lock lock(mutex_);
  if (!isValidName(from) || !isValidName(to)) fail(RC_OBJECT_NAME_ERROR);
  QueueDefinition copy = definition(from);
  if (store_->findQueue(to, nullptr)) fail(RC_OBJECT_ALREADY_EXISTS);
  copy.name = to;
  if (copy.queueType == QTYPE_LOCAL) copy.definitionType = DEFTYPE_PREDEFINED;
  applyChanges(copy, changes, false);
  store_->createQueue(copy, 0);
  awaitDurable(lock);
}

void QueueManager::deleteQueue(const std::string &name, bool purge) {
  Lock lock(mutex_);
  if (!isValidName(name)) fail(RC_OBJECT_NAME_ERROR);
  definition(name);
  endEndedOwners();
  StoreStep step(*store_);
  if (store_->openCounts(name).handles > 0) fail(RC_OBJECT_IN_USE);
  if (!purge && store_->depth(name) > 0) fail(RC_Q_NOT_EMPTY);
  store_->deleteQueue(name);
  step.keep();
  deleteQueueObject(name);
  awaitDurable(lock);
}

void QueueManager::clearQueue(const std::string &name) {
  Lock lock(mutex_);
  if (!isValidName(name)) fail(RC_OBJECT_NAME_ERROR);
  if (definition(name).queueType != QTYPE_LOCAL) fail(RC_OBJECT_TYPE_ERROR);
  endEndedOwners();
  StoreStep step(*store_);
  if (store_->openCounts(name).handles > 0) fail(RC_OBJECT_IN_USE);
  store_->clearQueue(name);
  step.keep();
  awaitDurable(lock);
}

std::vector<std::string> QueueManager::listQueues(const std::string &pattern, int32_t queueType) {
  Lock lock(mutex_);
  const bool generic = !pattern.empty() && pattern.back() == '*';
  const std::string stem = generic ? pattern.substr(0, pattern.size() - 1) : pattern;
  if (!(generic && stem.empty()) && !isValidName(stem)) fail(RC_OBJECT_NAME_ERROR);
  if (queueType != 0 && queueType != QTYPE_LOCAL && queueType != QTYPE_MODEL) {
    fail(RC_SELECTOR_ERROR);
  }
  std::vector<std::string> names;
  for (const std::string &name : store_->queueNames()) {
    if (!matchesPattern(name, pattern)) continue;
    if (queueType != 0 && definition(name).queueType != queueType) continue;
    names.push_back(name);
  }
  return names;
}

QueueDefinition QueueManager::queueAttributes(const std::string &name) {
  Lock lock(mutex_);
  if (!isValidName(name)) fail(RC_OBJECT_NAME_ERROR);
  return definition(name);
}

QueueStatus QueueManager::queueStatus(const std::string &name) {
  Lock lock(mutex_);
  if (!isValidName(name)) fail(RC_OBJECT_NAME_ERROR);
  definition(name);
  endEndedOwners();
  const OpenCounts opens = store_->openCounts(name);
  store_->discardExpired(name, Clock::now());
  return {store_->depth(name), opens.input, opens.output};
}

// ---------------------------------------------------------------------------
// Test hooks

void QueueManager::holdMessages(const std::string &queue, bool hold) {
  Lock lock(mutex_);
  definition(queue);
  QueueState &held = state(queue);
  if (hold) {
    if (held.heldUnit == 0) held.heldUnit = ++lastUnit_;
    return;
  }
  if (held.heldUnit == 0) return;
  const std::vector<std::string> available = store_->commit(held.heldUnit);
  held.heldUnit = 0;
  wakeAvailable(available);
}

void QueueManager::delayMessages(const std::string &queue, int32_t milliseconds) {
  Lock lock(mutex_);
  if (milliseconds < 0) fail(RC_SELECTOR_ERROR);
  definition(queue);
  state(queue).delayMilliseconds = milliseconds;
}

int32_t QueueManager::queueCount() {
  Lock lock(mutex_);
  return static_cast<int32_t>(store_->queueNames().size());
}

int32_t QueueManager::temporaryQueueCount() {
  Lock lock(mutex_);
  int32_t count = 0;
  for (const std::string &name : store_->queueNames()) {
    const QueueDefinition queue = definition(name);
    if (queue.queueType == QTYPE_LOCAL && queue.definitionType == DEFTYPE_TEMPORARY_DYNAMIC) {
      ++count;
    }
  }
  return count;
}

int32_t QueueManager::connectionCount() {
  Lock lock(mutex_);
  return static_cast<int32_t>(connections_.size());
}

int32_t QueueManager::messageCount(const std::string &queue) {
  Lock lock(mutex_);
  if (!store_->findQueue(queue, nullptr)) return -1;
  store_->discardExpired(queue, Clock::now());
  return store_->depth(queue);
}

// ---------------------------------------------------------------------------
// Registry

Registry &Registry::instance() {
  // Never destroyed: a program may end while its threads still wait in a get.
  static Registry *registry = new Registry;
  return *registry;
}

std::shared_ptr<QueueManager> Registry::manager(const std::string &name) {
  std::lock_guard<std::mutex> lock(mutex_);
  auto &manager = managers_[name];
  if (!manager) manager = std::make_shared<QueueManager>(name, openHome(name));
  return manager;
}

std::shared_ptr<QueueManager> Registry::existing(const std::string &name) {
  std::lock_guard<std::mutex> lock(mutex_);
  auto it = managers_.find(name);
  return it == managers_.end() ? nullptr : it->second;
}

int32_t Registry::connect(const std::string &name) {
  std::lock_guard<std::mutex> lock(mutex_);
  auto &manager = managers_[name];
  if (!manager) manager = std::make_shared<QueueManager>(name, openHome(name));
  const int32_t hconn = newHandle();
  manager->addConnection(hconn);
  try {
    connections_.emplace(hconn, manager);
  } catch (...) {
    manager->disconnect(hconn);
    throw;
  }
  // The process now holds connection state, which a child made by fork must
  // not take for its own.
  svcNoteConnection();
  return hconn;
}

std::shared_ptr<QueueManager> Registry::connected(int32_t hconn) {
  std::lock_guard<std::mutex> lock(mutex_);
  auto it = connections_.find(hconn);
  if (it == connections_.end()) fail(RC_HCONN_ERROR);
  return it->second;
}

void Registry::disconnect(int32_t hconn) {
  std::shared_ptr<QueueManager> manager = connected(hconn);
  manager->disconnect(hconn);
  std::lock_guard<std::mutex> lock(mutex_);
  connections_.erase(hconn);
}

void Registry::reset(const std::string &name, bool emptyMemory) {
  std::shared_ptr<QueueManager> old;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = managers_.find(name);
    if (it == managers_.end()) return;
    old = std::move(it->second);
    managers_.erase(it);
    std::erase_if(connections_, [&](const auto &entry) { return entry.second == old; });
  }
  // None when the queue manager could not be made (its store failed to open).
  if (old) old->shutdown();
  // Its store closes (backing out its units) before the new one opens,
  // unless a get still waiting holds it.
  old.reset();
  if (emptyMemory) removeMemoryFiles(name);
  // When the new one cannot be made, there is none until the next use.
  auto fresh = std::make_shared<QueueManager>(name, openHome(name));
  std::lock_guard<std::mutex> lock(mutex_);
  managers_.try_emplace(name, std::move(fresh));
}

}  // namespace vxqm
