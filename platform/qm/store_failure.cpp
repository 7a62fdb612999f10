// What the stores share about their files: the last failure of each queue
// manager's store, kept for admin::lastStoreFailure, and the rule for the
// directories that hold the files.
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <map>
#include <mutex>
#include <new>

#include "queue_manager.h"
#include "store.h"

namespace vxqm {
namespace {

// The last store failure of each queue manager named in the process; a
// queue manager that could not be made has one too.
struct StoreFailures {
  std::mutex lock;  // guards last
  std::map<std::string, admin::StoreFailure> last;
};

StoreFailures &storeFailures() {
  // Never destroyed: a store may fail while the program ends.
  static StoreFailures *failures = new StoreFailures;
  return *failures;
}

}  // namespace

admin::StoreFailure systemStoreFailure(int error, const std::string &path,
                                       const std::string &action) {
  admin::StoreFailure failure{RC_STORE_ERROR, admin::StoreProblem::kOther, path, action,
                              std::strerror(error)};
  if (error == EACCES || error == EPERM) failure.problem = admin::StoreProblem::kPermission;
  if (error == EROFS) {
    failure.reason = RC_STORE_READ_ONLY;
    failure.problem = admin::StoreProblem::kReadOnly;
  }
  if (error == ENOSPC || error == EDQUOT) {
    failure.reason = RC_STORE_FULL;
    failure.problem = admin::StoreProblem::kFull;
  }
  return failure;
}

// The same rule as the common services' for their trace and report
// directories: another user could otherwise read, replace or link the files.
std::string directoryProblem(int descriptor) {
  struct stat info;
  if (fstat(descriptor, &info) != 0) return std::strerror(errno);
  if (!S_ISDIR(info.st_mode)) return "it is not a directory";
  if (info.st_uid != geteuid()) return "it belongs to another user";
  if ((info.st_mode & (S_IWGRP | S_IWOTH)) != 0) return "group or others may write it";
  return "";
}

bool findStoreFailure(const std::string &qmName, admin::StoreFailure *failure) {
  StoreFailures &failures = storeFailures();
  std::lock_guard lock(failures.lock);
  auto found = failures.last.find(qmName);
  if (found == failures.last.end()) return false;
  if (failure != nullptr) *failure = found->second;
  return true;
}

void recordStoreFailure(const std::string &qmName, const admin::StoreFailure &failure) {
  try {
    StoreFailures &failures = storeFailures();
    std::lock_guard lock(failures.lock);
    failures.last[qmName] = failure;
  } catch (const std::bad_alloc &) {
    // The reason still reaches the caller; only its account is lost.
  }
}

void storeFailed(const std::string &qmName, const admin::StoreFailure &failure) {
  recordStoreFailure(qmName, failure);
  throw Failure{failure.reason};
}

}  // namespace vxqm
