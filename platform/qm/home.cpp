// Where a queue manager lives: see home.h.
#include "home.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
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

// Makes the data directory (and its parents) when it is missing: mode 0700.
void makeDirectories(const std::string &path) {
  for (size_t slash = path.find('/', 1);; slash = path.find('/', slash + 1)) {
    const std::string part = path.substr(0, slash);
    if (mkdir(part.c_str(), 0700) != 0 && errno != EEXIST) throw Failure{RC_STORE_ERROR};
    if (slash == std::string::npos) return;
  }
}

std::string fullPath(const std::string &path) {
  char *resolved = realpath(path.c_str(), nullptr);
  if (resolved == nullptr) throw Failure{RC_STORE_ERROR};
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

// The data directory named by VXQM_DATA, made when missing, as a full path;
// empty when there is none.
std::string dataDirectory() {
  const char *variable = std::getenv("VXQM_DATA");
  if (variable == nullptr || variable[0] == 0) return {};
  std::string directory = variable;
  while (directory.size() > 1 && directory.back() == '/') directory.pop_back();
  makeDirectories(directory);
  return fullPath(directory);
}

}  // namespace

Home openHome(const std::string &qmName) {
  Home home;
  const std::string directory = dataDirectory();
  if (directory.empty()) {
    home.store = makeMemoryStore();
    return home;
  }
  const std::string stem = memoryStem(directory, qmName);
  home.waker = makeSharedWaker(stem + ".wake");
  home.store = makeSqliteStore({directory + "/" + qmName + ".db", stem + ".db", syncCommits()});
  return home;
}

void removeMemoryFiles(const std::string &qmName) {
  const std::string directory = dataDirectory();
  if (directory.empty()) return;
  const std::string stem = memoryStem(directory, qmName);
  for (const char *suffix : {".db", ".db-wal", ".db-shm", ".wake"}) {
    unlink((stem + suffix).c_str());
  }
}

}  // namespace vxqm
