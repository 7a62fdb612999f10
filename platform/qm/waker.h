// Wake-ups of waiting gets across the processes of a shared queue manager.
//
// Each queue has a wake count, in a small file of shared memory that every
// process maps.  A get notes the count before it looks at the store, and
// sleeps (a futex wait, no CPU) only while the count is unchanged; whatever
// may end a wait (a put, a commit, a close, a change of the queue) adds one
// to the count after changing the store and wakes the sleepers.  Queues
// share counts by a hash of their names: a get may wake for another queue,
// look, and sleep again.
#ifndef VX_QM_WAKER_H
#define VX_QM_WAKER_H

#include <cstdint>
#include <memory>
#include <string>

#include "store.h"

namespace vxqm {

class Waker {
 public:
  virtual ~Waker() = default;
  virtual uint32_t count(const std::string &queue) const = 0;
  // Returns once the queue's count is no longer `seen`, or at `until`
  // (max: no limit), or sooner.
  virtual void sleep(const std::string &queue, uint32_t seen, Clock::time_point until) const = 0;
  virtual void wake(const std::string &queue) = 0;
  virtual void wakeAll() = 0;
};

// The waker of the counts in the file `path` (made, mode 0600, when
// missing).  Throws Failure (RC_STORE_ERROR) when the file cannot be used.
std::unique_ptr<Waker> makeSharedWaker(const std::string &path);

// The waker of a queue manager on PostgreSQL: counts in this process,
// raised by the notifications of its channel (postgresChannel), on which a
// thread of its own listens; a sleeper looks again at least every 1.5 s, in
// case a notification was lost with a connection.
std::unique_ptr<Waker> makePostgresWaker(const std::string &uri, const std::string &qmName);

}  // namespace vxqm

#endif  // VX_QM_WAKER_H
