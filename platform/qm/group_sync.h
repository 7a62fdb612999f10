// Group commit of a shared database: a commit that must be durable waits for
// a sync of the database's log that began after it, and one sync serves
// every commit made before it began, by any thread of any process.
//
// A committer takes a ticket right after its commit; the syncer of the
// moment reads the last ticket given, syncs the log, and records that every
// ticket up to that one is durable.  Committers that come while a sync runs
// wait for their turn and usually find their ticket covered by the next
// one.  The two counters live in a small shared file; the turn is an flock
// of that file (and, between the threads of a process, a mutex).
#ifndef VX_QM_GROUP_SYNC_H
#define VX_QM_GROUP_SYNC_H

#include <cstdint>
#include <mutex>
#include <string>

namespace vxqm {

class GroupSync {
 public:
  // The counters in `countsPath` (made, mode 0600, when missing); the log
  // synced is the file `logPath`, which must exist.  Throws Failure
  // (RC_STORE_ERROR) when either cannot be used.
  GroupSync(const std::string &countsPath, const std::string &logPath);
  ~GroupSync();
  GroupSync(const GroupSync &) = delete;
  GroupSync &operator=(const GroupSync &) = delete;

  // The ticket of a commit that has just completed.
  uint64_t committed();
  // Returns once the log is synced past the ticket (0: nothing to wait
  // for).  Any thread may call it, without the queue manager's mutex.
  // Throws Failure (RC_STORE_ERROR) when the sync fails.
  void waitDurable(uint64_t ticket);

 private:
  struct Counts;
  Counts *counts_ = nullptr;
  int countsFd_ = -1;
  int logFd_ = -1;
  std::mutex turn_;  // the turn between the threads of this process
};

}  // namespace vxqm

#endif  // VX_QM_GROUP_SYNC_H
