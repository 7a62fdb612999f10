// Group commit: see group_sync.h.
#include "group_sync.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>

#include "queue_manager.h"

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
  countsFd_ = open(countsPath.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600);
  struct stat info;
  const bool usable = countsFd_ >= 0 && fstat(countsFd_, &info) == 0 && S_ISREG(info.st_mode) &&
                      info.st_uid == geteuid() && (info.st_mode & 077) == 0 &&
                      (info.st_size >= static_cast<off_t>(sizeof(Counts)) ||
                       ftruncate(countsFd_, sizeof(Counts)) == 0);
  void *mapped =
      usable ? mmap(nullptr, sizeof(Counts), PROT_READ | PROT_WRITE, MAP_SHARED, countsFd_, 0)
             : MAP_FAILED;
  logFd_ = open(logPath.c_str(), O_RDONLY | O_CLOEXEC);
  if (mapped == MAP_FAILED || logFd_ < 0) {
    if (mapped != MAP_FAILED) munmap(mapped, sizeof(Counts));
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
