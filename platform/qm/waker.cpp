// The shared waker: see waker.h.
#include "waker.h"

#include <linux/futex.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <ctime>

#include "queue_manager.h"
#include "shared_file.h"

namespace vxqm {
namespace {

constexpr size_t kSlots = 1024;

// One count, and how many gets sleep on it: a wake-up costs a system call
// only when some get sleeps.
// Both are only ever reached through std::atomic_ref, by every process.
struct Slot {
  uint32_t count;
  uint32_t sleepers;
};
static_assert(sizeof(Slot) == 8 && std::atomic_ref<uint32_t>::is_always_lock_free);

using Ref = std::atomic_ref<uint32_t>;

constexpr size_t kFileSize = kSlots * sizeof(Slot);

long futex(uint32_t *word, int operation, uint32_t value, const timespec *timeout) {
  return syscall(SYS_futex, word, operation, value, timeout, nullptr, 0);
}

class SharedWaker final : public Waker {
 public:
  explicit SharedWaker(const std::string &path) {
    void *mapped = mapSharedFile(path, kFileSize);
    if (mapped == nullptr) throw Failure{RC_STORE_ERROR};
    // The file starts as zeros, which are counts of zero.
    slots_ = static_cast<Slot *>(mapped);
  }
  ~SharedWaker() override { munmap(slots_, kFileSize); }
  SharedWaker(const SharedWaker &) = delete;
  SharedWaker &operator=(const SharedWaker &) = delete;

  uint32_t count(const std::string &queue) const override { return Ref(slot(queue).count).load(); }

  void sleep(const std::string &queue, uint32_t seen, Clock::time_point until) const override {
    Slot &s = slot(queue);
    timespec timeout{};
    const timespec *limit = nullptr;
    if (until != Clock::time_point::max()) {
      const auto left = until - Clock::now();
      if (left <= Clock::duration::zero()) return;
      const auto nanoseconds = std::chrono::duration_cast<std::chrono::nanoseconds>(left).count();
      timeout.tv_sec = static_cast<time_t>(nanoseconds / 1000000000);
      timeout.tv_nsec = static_cast<long>(nanoseconds % 1000000000);
      limit = &timeout;
    }
    Ref(s.sleepers).fetch_add(1);
    // Returns at once when the count moved since it was seen (EAGAIN), and
    // on a wake, a signal or the timeout: the get looks again each time.
    futex(&s.count, FUTEX_WAIT, seen, limit);
    Ref(s.sleepers).fetch_sub(1);
  }

  void wake(const std::string &queue) override { bump(slot(queue)); }

  void wakeAll() override {
    for (size_t i = 0; i < kSlots; ++i) bump(slots_[i]);
  }

 private:
  Slot &slot(const std::string &queue) const {
    // FNV-1a: the same slot in every process.
    uint32_t hash = 2166136261u;
    for (unsigned char c : queue) hash = (hash ^ c) * 16777619u;
    return slots_[hash % kSlots];
  }

  static void bump(Slot &s) {
    Ref(s.count).fetch_add(1);
    if (Ref(s.sleepers).load() > 0) futex(&s.count, FUTEX_WAKE, INT_MAX, nullptr);
  }

  Slot *slots_ = nullptr;
};

}  // namespace

std::unique_ptr<Waker> makeSharedWaker(const std::string &path) {
  return std::make_unique<SharedWaker>(path);
}

}  // namespace vxqm
