// The waker of a queue manager on PostgreSQL: see waker.h.
//
// A thread of its own holds a connection that listens on the queue
// manager's channel and sleeps in poll() on its socket; each notification
// (sent by a store in the transaction that made a message available or
// changed a queue, on any host) raises its queue's count and wakes the
// sleepers.  A notification can be missed (the connection is lost and made
// again), so a sleeper also looks again after kLookAgain however quiet the
// channel stays.
#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <thread>

#include "pg.h"
#include "queue_manager.h"
#include "waker.h"

namespace vxqm {
namespace {

constexpr size_t kSlots = 1024;
constexpr auto kLookAgain = std::chrono::milliseconds(1500);
// How long the listener waits before it connects again to a server that
// could not be reached.
constexpr int kReconnectMilliseconds = 1000;

class PostgresWaker final : public Waker {
 public:
  PostgresWaker(const std::string &uri, const std::string &qmName)
      : uri_(uri), channel_(postgresChannel(qmName)) {
    if (pipe2(stop_, O_CLOEXEC) != 0) throw Failure{RC_STORE_ERROR};
    listener_ = std::thread([this] { listen(); });
  }
  ~PostgresWaker() override {
    const char byte = 0;
    if (write(stop_[1], &byte, 1) != 1) std::terminate();
    listener_.join();
    close(stop_[0]);
    close(stop_[1]);
  }
  PostgresWaker(const PostgresWaker &) = delete;
  PostgresWaker &operator=(const PostgresWaker &) = delete;

  uint32_t count(const std::string &queue) const override {
    std::lock_guard<std::mutex> lock(mutex_);
    return counts_[slot(queue)];
  }

  void sleep(const std::string &queue, uint32_t seen, Clock::time_point until) const override {
    const size_t s = slot(queue);
    std::unique_lock<std::mutex> lock(mutex_);
    changed_.wait_until(lock, std::min(until, Clock::now() + kLookAgain),
                        [&] { return counts_[s] != seen; });
  }

  void wake(const std::string &queue) override { bump(slot(queue)); }

  void wakeAll() override {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      for (uint32_t &count : counts_) ++count;
    }
    changed_.notify_all();
  }

 private:
  static size_t slot(const std::string &queue) {
    uint32_t hash = 2166136261u;  // FNV-1a
    for (unsigned char c : queue) hash = (hash ^ c) * 16777619u;
    return hash % kSlots;
  }

  void bump(size_t s) {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      ++counts_[s];
    }
    changed_.notify_all();
  }

  // The listener's thread: until the stop pipe speaks.
  void listen() {
    std::unique_ptr<pg::Connection> connection;
    for (;;) {
      if (!connection) {
        try {
          connection = std::make_unique<pg::Connection>(uri_);
          connection->execute("LISTEN " + connection->identifier(channel_));
          // What was notified while no one listened is looked at again.
          wakeAll();
        } catch (const pg::Error &) {
          connection.reset();
        } catch (const std::bad_alloc &) {
          connection.reset();
        }
      }
      pollfd fds[2] = {{stop_[0], POLLIN, 0}, {-1, POLLIN, 0}};
      if (connection) fds[1].fd = PQsocket(connection->raw());
      const int ready = poll(fds, 2, connection ? -1 : kReconnectMilliseconds);
      if (ready > 0 && fds[0].revents != 0) return;
      if (!connection || ready <= 0) continue;
      if (PQconsumeInput(connection->raw()) != 1) {
        connection.reset();
        wakeAll();
        continue;
      }
      while (PGnotify *notification = PQnotifies(connection->raw())) {
        bump(slot(notification->extra));
        PQfreemem(notification);
      }
    }
  }

  const std::string uri_;
  const std::string channel_;
  mutable std::mutex mutex_;  // guards counts_
  mutable std::condition_variable changed_;
  std::array<uint32_t, kSlots> counts_{};
  int stop_[2] = {-1, -1};
  std::thread listener_;
};

}  // namespace

std::unique_ptr<Waker> makePostgresWaker(const std::string &uri, const std::string &qmName) {
  return std::make_unique<PostgresWaker>(uri, qmName);
}

}  // namespace vxqm
