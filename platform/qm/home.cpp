// Where a queue manager lives: see home.h.
#include "home.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "queue_manager.h"

namespace vxqm {
namespace {

// Storage in memory that every process of the machine sees, emptied when the
// machine restarts; VXQM_MEMORY_DIR names another (a test run's own).
constexpr const char *kMemoryDirectory = "/dev/shm";

std::string memoryDirectory() {
  const char *variable = std::getenv("VXQM_MEMORY_DIR");
  return variable != nullptr && variable[0] != 0 ? variable : kMemoryDirectory;
}

using admin::StoreProblem;

// Makes the data directory of the queue manager `qmName` when it is missing,
// mode 0700 whatever the umask, but never its parent: a directory named by
// mistake is not made with every missing directory above it.  Refuses a
// directory that is not this user's alone to write.  Returns its full path.
std::string openDataDirectory(const std::string &qmName, const std::string &directory) {
  const char *checking = "checking the data directory";
  if (mkdir(directory.c_str(), 0700) == 0) {
    chmod(directory.c_str(), 0700);
  } else if (errno == ENOENT) {
    storeFailed(qmName, {RC_STORE_ERROR, StoreProblem::kMissingDirectory, directory,
                         "making the data directory", "its parent directory does not exist"});
  } else if (errno != EEXIST) {
    storeFailed(qmName, systemStoreFailure(errno, directory, "making the data directory"));
  }
  const int descriptor = open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (descriptor < 0) {
    if (errno == ENOTDIR) {
      storeFailed(qmName, {RC_STORE_ERROR, StoreProblem::kNotADirectory, directory, checking,
                           "it is not a directory"});
    }
    storeFailed(qmName, systemStoreFailure(errno, directory, checking));
  }
  const std::string problem = directoryProblem(descriptor);
  close(descriptor);
  if (!problem.empty()) {
    storeFailed(qmName,
                {RC_STORE_ERROR, StoreProblem::kUnsafeDirectory, directory, checking, problem});
  }
  char *resolved = realpath(directory.c_str(), nullptr);
  if (resolved == nullptr) storeFailed(qmName, systemStoreFailure(errno, directory, checking));
  std::string full = resolved;
  std::free(resolved);
  return full;
}

// The stem of the files in memory of the queue manager `qmName` of the data
// directory `directory` (a full path): the same for every process that
// names the directory, however it spells it.
std::string memoryStem(const std::string &directory, const std::string &qmName) {
  const std::string memory = memoryDirectory();
  struct stat info;
  const bool shared = stat(memory.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
  // FNV-1a of the directory's path.
  uint64_t hash = 14695981039346656037ull;
  for (unsigned char c : directory) hash = (hash ^ c) * 1099511628211ull;
  char name[40];
  std::snprintf(name, sizeof name, "vxqm-%016" PRIx64 "-", hash);
  // Without such storage, the data directory serves: the companion then
  // lasts until it is removed.
  return (shared ? memory : directory) + "/" + name + qmName;
}

// Whether a change that must be durable is on disk when its call returns:
// yes unless VXQM_SYNC is "normal" (any other value keeps the safe default).
bool syncCommits() {
  const char *variable = std::getenv("VXQM_SYNC");
  return variable == nullptr || std::string_view(variable) != "normal";
}

// The data directory named by VXQM_DATA, as it is named; empty when there is
// none.
std::string namedDirectory() {
  const char *variable = std::getenv("VXQM_DATA");
  if (variable == nullptr || variable[0] == 0) return {};
  std::string directory = variable;
  while (directory.size() > 1 && directory.back() == '/') directory.pop_back();
  return directory;
}

}  // namespace

bool isFileName(const std::string &qmName) {
  return !qmName.empty() && qmName[0] != '.' && qmName.find('/') == std::string::npos;
}

Home openHome(const std::string &qmName) {
  Home home;
  const char *variable = std::getenv("VXQM_DATA");
  if (variable != nullptr && isPostgresUri(variable)) {
    // The store first: a server that cannot be reached is its failure.
    home.store = makePostgresStore({variable, qmName});
    home.waker = makePostgresWaker(variable, qmName);
    return home;
  }
  const std::string named = namedDirectory();
  if (named.empty()) {
    home.store = makeMemoryStore();
    return home;
  }
  // The name becomes a file name: it never leaves the directory.
  if (!isFileName(qmName)) throw Failure{RC_Q_MGR_NAME_ERROR};
  const std::string directory = openDataDirectory(qmName, named);
  const std::string stem = memoryStem(directory, qmName);
  try {
    home.waker = makeSharedWaker(stem + ".wake");
  } catch (const Failure &failure) {
    storeFailed(qmName, {failure.reason, StoreProblem::kOther, stem + ".wake",
                         "opening the file of wake counts",
                         "it cannot be made, or it is not a regular file of this user closed to "
                         "others"});
  }
  home.store =
      makeSqliteStore({directory + "/" + qmName + ".db", stem + ".db", syncCommits(), qmName});
  return home;
}

void removeMemoryFiles(const std::string &qmName) {
  const char *variable = std::getenv("VXQM_DATA");
  if (variable != nullptr && isPostgresUri(variable)) {
    emptyPostgresVolatile({variable, qmName});
    return;
  }
  const std::string named = namedDirectory();
  if (named.empty() || !isFileName(qmName)) return;
  char *resolved = realpath(named.c_str(), nullptr);
  if (resolved == nullptr) return;
  const std::string directory = resolved;
  std::free(resolved);
  const std::string stem = memoryStem(directory, qmName);
  for (const char *suffix : {".db", ".db-wal", ".db-shm", ".wake"}) {
    unlink((stem + suffix).c_str());
  }
}

}  // namespace vxqm
