// The processes that own things in a shared store: who this process is, and
// whether the process an owner names is still there.  A process is named by
// its host, its pid and its start time, so that a pid the system gave again
// to a new process is never taken for the one that ended.
#ifndef VX_QM_PROCESSES_H
#define VX_QM_PROCESSES_H

#include "store.h"

namespace vxqm {

// This process: host name (VXQM_HOST when set), pid and start time (token
// left empty).
Owner thisProcess();

// True when the owner's process has certainly ended: it names this host, and
// no process here has its pid and start time.  An owner of another host, or
// of an unknown one, cannot be checked from here and is not called ended.
bool processEnded(const Owner &owner);

// A new token naming a store among the owners of a shared store: its pid,
// the time in nanoseconds and a counter.  It may name a file.
std::string newOwnerToken(const Owner &self);

// Times that other processes read: the wall clock in milliseconds, for a
// point of this process's monotonic clock (which means nothing to another
// process), and back.
int64_t wallMilliseconds(Clock::time_point at);
Clock::time_point monotonicPoint(int64_t wallMs);

}  // namespace vxqm

#endif  // VX_QM_PROCESSES_H
