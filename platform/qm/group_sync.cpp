// Group commit: see group_sync.h.
#include "group_sync.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>

#include "queue_manager.h"
#include "shared_file.h"

namespace vxqm {

// Reached only through std::atomic_ref, by every process.
struct GroupSync::Counts {
  uint64_t committed;  // the last ticket given
  uint64_t synced;     // every ticket up to this one is durable
};

namespace {

using Ref = std::atomic_ref<uint64_t>;
static_assert(std::atomic_ref<uint64_t>::is_always_lock_free);

// Holds the flock of a file for as long as it lives.
class FileTurn {
 public:
  explicit FileTurn(int fd) : fd_(fd) {
    while (flock(fd_, LOCK_EX) != 0) {
      if (errno != EINTR) throw Failure{RC_STORE_ERROR};
    }
  }
  ~FileTurn() { flock(fd_, LOCK_UN); }
  FileTurn(const FileTurn &) = delete;
  FileTurn &operator=(const FileTurn &) = delete;

 private:
  int fd_;
};

}  // namespace

GroupSync::GroupSync(const std::string &countsPath, const std::string &logPath) {
  void *mapped = mapSharedFile(countsPath, sizeof(Counts), &countsFd_);
  logFd_ = open(logPath.c_str(), O_RDONLY | O_CLOEXEC);
  if (mapped == nullptr || logFd_ < 0) {
    if (mapped != nullptr) munmap(mapped, sizeof(Counts));
    if (countsFd_ >= 0) close(countsFd_);
    if (logFd_ >= 0) close(logFd_);
    throw Failure{RC_STORE_ERROR};
  }
  counts_ = static_cast<Counts *>(mapped);
}

GroupSync::~GroupSync() {
  munmap(counts_, sizeof(Counts));
  close(countsFd_);
  close(logFd_);
}

uint64_t GroupSync::committed() { return Ref(counts_->committed).fetch_add(1) + 1; }

void GroupSync::waitDurable(uint64_t ticket) {
  if (ticket == 0 || Ref(counts_->synced).load() >= ticket) return;
  std::lock_guard<std::mutex> threads(turn_);
  const FileTurn processes(countsFd_);
  // Another thread or process may have synced past it while this one waited.
  if (Ref(counts_->synced).load() >= ticket) return;
  // Every ticket given so far belongs to a commit already in the log.
  const uint64_t covered = Ref(counts_->committed).load();
  if (fdatasync(logFd_) != 0) throw Failure{RC_STORE_ERROR};
  uint64_t synced = Ref(counts_->synced).load();
  while (synced < covered && !Ref(counts_->synced).compare_exchange_weak(synced, covered)) {
  }
}

}  // namespace vxqm
