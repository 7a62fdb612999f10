// The queue manager's core: queue managers by name, their connections, object
// handles, queues, waits and units of work.  The entries (entries.cpp), the
// administration interface and the test hooks all call it; it keeps its
// queues and messages in a Store.
//
// Handles are opaque positive numbers from one process-wide counter, never
// addresses, so a handle that was closed is not given out again soon and a
// stale one is refused (RC_HCONN_ERROR, RC_HOBJ_ERROR).
//
// Failures are thrown as Failure (CC_FAILED with its reason) before anything
// has changed; the entries catch them.  Outcomes that still deliver something
// (warnings, a truncated message left on its queue) are returned.
#ifndef VX_QM_QUEUE_MANAGER_H
#define VX_QM_QUEUE_MANAGER_H

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "adaptive_mutex.h"
#include "home.h"
#include "qm_admin.h"
#include "store.h"
#include "vxqi_records.h"

namespace vxqm {

struct Failure {
  int32_t reason;
};

struct Outcome {
  int32_t compCode = CC_OK;
  int32_t reason = RC_NONE;
};

constexpr const char *kDefaultQueueManager = "QM1";
constexpr int32_t kQueueManagerCcsid = 1208;
constexpr const char *kAdminCommandQueue = "SYSTEM.ADMIN.COMMAND.QUEUE";
constexpr const char *kDefaultLocalQueue = "SYSTEM.DEFAULT.LOCAL.QUEUE";
constexpr const char *kDefaultModelQueue = "SYSTEM.DEFAULT.MODEL.QUEUE";

// A fixed-length name field: up to its first zero byte, trailing blanks
// dropped.
std::string readName(const char *field, size_t length);
// Copies a name into a fixed-length field, blank padded.
void writeName(char *field, size_t length, const std::string &name);
// 1 to 48 characters of A-Z a-z 0-9 . _ / %.
bool isValidName(const std::string &name);
// A queue manager's name as a connect gives it: "" (or blanks) is the default.
// Throws RC_Q_MGR_NAME_ERROR for a name that is not valid.
std::string queueManagerName(const std::string &name);

// What this process keeps of a queue beside the store: its waits and the
// test hooks.  Guarded by the mutex of its queue manager.
struct QueueState {
  bool deleted = false;  // deleted by this process: handles naming it get RC_Q_DELETED
  // Test hooks: the unit that holds the puts while the queue is held (0:
  // not held), and the delay of the puts.
  uint64_t heldUnit = 0;
  int32_t delayMilliseconds = 0;
  // For a queue manager of one process: signalled (under the mutex) when a
  // message may have become available, when the queue's attributes change,
  // when a handle on which a get waits closes, and when the queue is
  // deleted.  Waiting gets re-check everything after each wake.  A shared
  // queue manager's gets wait on its Waker instead.
  ConditionVariable changed;
};

// An open object.  Guarded by the mutex of its queue manager.  A waiting get
// looks its connection and handle up again after every wake-up, so it learns
// of a close or a disconnect; it holds only the QueueState it waits on.
struct ObjectHandle {
  int32_t objectType = OBJTYPE_Q;
  int32_t options = 0;
  std::string queueName;                   // empty for the queue manager object
  std::shared_ptr<QueueState> queue;       // null for the queue manager object
  int64_t storeHandle = 0;                 // the store's record of the open
  uint64_t storeSession = 0;               // the store's session of the open (Store::session)
  std::optional<MessageKey> browseCursor;  // the message last browsed
  int32_t waitingGets = 0;                 // gets waiting on this handle: its close wakes them
};

// A connection.  Guarded by the mutex of its queue manager.
struct Connection {
  uint64_t unit = 0;                        // the open unit of work, or 0
  uint64_t unitSession = 0;                 // the store's session when it began
  std::map<int32_t, ObjectHandle> handles;  // by object handle
};

// What a get delivered: the caller's records are written from these.
struct GetResult {
  Outcome outcome;
  int32_t dataLength = 0;
};

class QueueManager {
 public:
  // A queue manager over its store: one of this process alone, or one that
  // other processes share (then with a waker, which their gets wait on).
  QueueManager(std::string name, Home home);
  ~QueueManager();
  QueueManager(const QueueManager &) = delete;
  QueueManager &operator=(const QueueManager &) = delete;
  const std::string &name() const { return name_; }

  void addConnection(int32_t hconn);
  // Backs out the unit of work, closes every handle (deleting the temporary
  // dynamic queues the connection made) and wakes its waiting gets.
  void disconnect(int32_t hconn);
  // Ends every connection and wakes every waiting get (test reset).
  void shutdown();
  void checkHandles(int32_t hconn, std::optional<int32_t> hobj);

  // The calls of the entries.  The records are copies of the caller's, in
  // aligned storage (a descriptor of version 1 extended with the defaults of
  // version 2); the entry copies them back.  Integer attributes may lie at any
  // alignment.
  int32_t open(int32_t hconn, vxOBJDESC &od, int32_t options);
  void close(int32_t hconn, int32_t hobj, int32_t options);
  void put(int32_t hconn, int32_t hobj, vxMSGDESC &md, vxPUTOPTS &pmo, const char *data,
           int32_t length);
  void put1(int32_t hconn, vxOBJDESC &od, vxMSGDESC &md, vxPUTOPTS &pmo, const char *data,
            int32_t length);
  GetResult get(int32_t hconn, int32_t hobj, vxMSGDESC &md, vxGETOPTS &gmo, char *buffer,
                int32_t bufferLength);
  Outcome inquire(int32_t hconn, int32_t hobj, const std::vector<int32_t> &selectors,
                  int32_t *intAttrs, int32_t intCount, char *charAttrs, int32_t charLength);
  void set(int32_t hconn, int32_t hobj, const std::vector<int32_t> &selectors,
           const int32_t *intAttrs, int32_t intCount);
  void begin(int32_t hconn);
  void commit(int32_t hconn);
  void backout(int32_t hconn);

  // Administration (qm_admin.h); each throws Failure.
  void createQueue(const std::string &name, const QueueChanges &attributes);
  void changeQueue(const std::string &name, const QueueChanges &changes);
  void copyQueue(const std::string &from, const std::string &to, const QueueChanges &changes);
  void deleteQueue(const std::string &name, bool purge);
  void clearQueue(const std::string &name);
  std::vector<std::string> listQueues(const std::string &pattern, int32_t queueType);
  QueueDefinition queueAttributes(const std::string &name);
  QueueStatus queueStatus(const std::string &name);

  // Test hooks (qm_test.h).
  void holdMessages(const std::string &queue, bool hold);
  void delayMessages(const std::string &queue, int32_t milliseconds);
  int32_t queueCount();
  int32_t temporaryQueueCount();
  int32_t connectionCount();
  int32_t messageCount(const std::string &queue);

 private:
  using Lock = std::unique_lock<AdaptiveMutex>;

  Connection &connection(int32_t hconn);
  // A handle of the connection (RC_HOBJ_ERROR), and one that may be used:
  // RC_CONNECTION_BROKEN for a handle of a lost session of the store.
  ObjectHandle &anyHandle(Connection &connection, int32_t hobj);
  ObjectHandle &handle(Connection &connection, int32_t hobj);
  QueueDefinition definition(const std::string &queue) const;
  // The definition of the queue an open handle names: RC_Q_DELETED when it
  // was deleted since the open.
  QueueDefinition handleDefinition(const ObjectHandle &handle, bool seen = false) const;
  // The run-time state of an existing queue, made on first use for a queue
  // that another process sharing the store defined.
  QueueState &state(const std::string &queue);
  std::shared_ptr<QueueState> sharedState(const std::string &queue);
  int32_t openHandle(Connection &connection, vxOBJDESC &od, int32_t options);
  ObjectHandle openObject(vxOBJDESC &od, int32_t options);
  std::string dynamicQueueName(const std::string &dynamicName);
  // Opens a queue for an open handle's options: refused while an exclusive
  // input open holds it, or for an exclusive input while it is open for
  // input.  Returns the store's record of the open.
  int64_t openQueue(const std::string &name, int32_t options);
  // Gives back what the owners that ended held in a shared store.
  void endEndedOwners();
  // Wakes the gets that may wait on the queue, in every process.
  void notify(const std::string &queue);
  // Returns once the changes to the store that must outlive a restart are
  // on disk; the queue manager's mutex is released for the wait, so that
  // other calls' commits share its sync.  Last in a call.
  void awaitDurable(Lock &lock);
  void closeObject(Connection &connection, int32_t hobj, int32_t options);
  void putMessage(Connection &connection, const ObjectHandle &handle, vxMSGDESC &md, vxPUTOPTS &pmo,
                  const char *data, int32_t length);
  bool addMessage(Connection &connection, const ObjectHandle &handle, vxMSGDESC &md,
                  const vxPUTOPTS &pmo, const char *data, int32_t length, bool seen,
                  MessageState *state);
  void deleteQueueObject(const std::string &name);
  // The connection's unit of work, begun when there is none; RC_CONNECTION_BROKEN
  // when it was begun in a session of the store that was lost.
  uint64_t unitOf(Connection &connection);
  void endUnit(Connection &connection, bool commit);
  void wakeAvailable(const std::vector<std::string> &queues);
  void defineInitialObjects();

  const std::string name_;
  // Guards every member below, the store included, and every QueueState,
  // ObjectHandle and Connection of this queue manager.  Never held while a
  // get waits (the condition variables release it).
  AdaptiveMutex mutex_;
  std::unique_ptr<Store> store_;
  std::unique_ptr<Waker> waker_;                               // null for a store of one process
  std::map<std::string, std::shared_ptr<QueueState>> queues_;  // made on first use
  std::unordered_map<int32_t, Connection> connections_;        // by connection handle
  uint64_t lastUnit_ = 0;
};

// The queue managers of the process and the connections to them.
class Registry {
 public:
  static Registry &instance();

  // The queue manager of that name (already checked), created on first use.
  std::shared_ptr<QueueManager> manager(const std::string &name);
  // The queue manager of that name, or null when it does not exist.
  std::shared_ptr<QueueManager> existing(const std::string &name);
  int32_t connect(const std::string &name);
  // The queue manager a live connection belongs to; RC_HCONN_ERROR otherwise.
  std::shared_ptr<QueueManager> connected(int32_t hconn);
  void disconnect(int32_t hconn);
  // Replaces the queue manager by a new one, ending the old one's
  // connections; emptyMemory also removes what it keeps in memory shared
  // by processes (home.h).
  void reset(const std::string &name, bool emptyMemory);

 private:
  Registry() = default;
  std::mutex mutex_;  // guards both maps; taken before (never after) a queue manager's
  std::map<std::string, std::shared_ptr<QueueManager>> managers_;
  std::unordered_map<int32_t, std::shared_ptr<QueueManager>> connections_;
};

// A new handle number, unique in the process: positive, never 0.
int32_t newHandle();

}  // namespace vxqm

#endif  // VX_QM_QUEUE_MANAGER_H
