// The administration interface (qm_admin.h): each function finds the queue
// manager by name and calls its core; nothing is thrown to the caller.
#include <new>

#include "qm_admin.h"
#include "queue_manager.h"
#include "store.h"

namespace vxqm::admin {
namespace {

template <typename Body>
int32_t run(const std::string &qmName, Body body) {
  try {
    body(*Registry::instance().manager(queueManagerName(qmName)));
    return RC_NONE;
  } catch (const Failure &failure) {
    return failure.reason;
  } catch (const std::bad_alloc &) {
    return RC_STORAGE_NOT_AVAILABLE;
  } catch (...) {
    return RC_UNEXPECTED_ERROR;
  }
}

}  // namespace

int32_t createQueue(const std::string &qmName, const std::string &name,
                    const QueueChanges &attributes) {
  return run(qmName, [&](QueueManager &qm) { qm.createQueue(name, attributes); });
}

int32_t changeQueue(const std::string &qmName, const std::string &name,
                    const QueueChanges &changes) {
  return run(qmName, [&](QueueManager &qm) { qm.changeQueue(name, changes); });
}

int32_t copyQueue(const std::string &qmName, const std::string &from, const std::string &to,
                  const QueueChanges &changes) {
  return run(qmName, [&](QueueManager &qm) { qm.copyQueue(from, to, changes); });
}

int32_t deleteQueue(const std::string &qmName, const std::string &name, bool purge) {
  return run(qmName, [&](QueueManager &qm) { qm.deleteQueue(name, purge); });
}

int32_t clearQueue(const std::string &qmName, const std::string &name) {
  return run(qmName, [&](QueueManager &qm) { qm.clearQueue(name); });
}

int32_t listQueues(const std::string &qmName, const std::string &pattern, int32_t queueType,
                   std::vector<std::string> *names) {
  return run(qmName, [&](QueueManager &qm) { *names = qm.listQueues(pattern, queueType); });
}

int32_t queueAttributes(const std::string &qmName, const std::string &name,
                        QueueDefinition *definition) {
  return run(qmName, [&](QueueManager &qm) { *definition = qm.queueAttributes(name); });
}

int32_t queueStatus(const std::string &qmName, const std::string &name, QueueStatus *status) {
  return run(qmName, [&](QueueManager &qm) { *status = qm.queueStatus(name); });
}

bool lastStoreFailure(const std::string &qmName, StoreFailure *failure) {
  try {
    return findStoreFailure(queueManagerName(qmName), failure);
  } catch (...) {
    return false;
  }
}

}  // namespace vxqm::admin
