// The queue manager's locks: a mutex that spins a little before it sleeps,
// and the condition variable that waits with it.
//
// The queue manager's critical sections last a few microseconds, and a
// requester and a server take turns in them all the time (every call of
// either goes through the same queue manager).  A thread that went to sleep
// on every contended lock would pay a wake-up each time, longer than the
// section it waited for; spinning first lets it take the lock as soon as the
// other thread leaves.  A lock held longer still puts the waiter to sleep.
#ifndef VXQM_ADAPTIVE_MUTEX_H
#define VXQM_ADAPTIVE_MUTEX_H

#include <pthread.h>
#include <time.h>

#include <chrono>
#include <mutex>

namespace vxqm {

// A mutex for std::lock_guard and std::unique_lock.
class AdaptiveMutex {
 public:
  AdaptiveMutex() = default;
  ~AdaptiveMutex() { pthread_mutex_destroy(&mutex_); }
  AdaptiveMutex(const AdaptiveMutex &) = delete;
  AdaptiveMutex &operator=(const AdaptiveMutex &) = delete;

  void lock() { pthread_mutex_lock(&mutex_); }
  void unlock() { pthread_mutex_unlock(&mutex_); }
  pthread_mutex_t *native_handle() { return &mutex_; }

 private:
  pthread_mutex_t mutex_ = PTHREAD_ADAPTIVE_MUTEX_INITIALIZER_NP;
};

// A condition variable for a std::unique_lock<AdaptiveMutex>; deadlines are
// on the steady clock.
class ConditionVariable {
 public:
  ConditionVariable() = default;
  ~ConditionVariable() { pthread_cond_destroy(&condition_); }
  ConditionVariable(const ConditionVariable &) = delete;
  ConditionVariable &operator=(const ConditionVariable &) = delete;

  void notify_all() { pthread_cond_broadcast(&condition_); }

  void wait(std::unique_lock<AdaptiveMutex> &lock) {
    pthread_cond_wait(&condition_, lock.mutex()->native_handle());
  }

  // Returns at the deadline at the latest (or earlier, spuriously).  The
  // steady clock is the monotonic clock; a get's deadline lies at most a wait
  // interval (under 25 days) ahead, so its seconds fit a 32-bit time_t.
  void wait_until(std::unique_lock<AdaptiveMutex> &lock,
                  std::chrono::steady_clock::time_point deadline) {
    using namespace std::chrono;
    const auto sinceStart = deadline.time_since_epoch();
    const auto wholeSeconds = duration_cast<seconds>(sinceStart);
    timespec at{};
    at.tv_sec = static_cast<time_t>(wholeSeconds.count());
    at.tv_nsec = static_cast<long>(duration_cast<nanoseconds>(sinceStart - wholeSeconds).count());
    pthread_cond_clockwait(&condition_, lock.mutex()->native_handle(), CLOCK_MONOTONIC, &at);
  }

 private:
  pthread_cond_t condition_ = PTHREAD_COND_INITIALIZER;
};

}  // namespace vxqm

#endif  // VXQM_ADAPTIVE_MUTEX_H
