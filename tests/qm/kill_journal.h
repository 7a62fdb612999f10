// What the crash harness (qm_kills) and its worker (kill_worker) share: the
// queues the worker uses and the lines of its journal.
//
// The worker writes its journal to standard output, a pipe to the harness,
// one write(2) per line (a pipe takes a write of fewer than PIPE_BUF bytes
// whole), so a SIGKILL leaves every line whole or absent. A line in capitals
// is written only after the call it reports returned success; a line in
// small letters is written just before a call whose effect the checker must
// be ready to find either done or not:
//
//   T <name>               the worker's temporary dynamic queue is open
//   R <run>                the worker is ready (connected, queues open and
//                          browsed); its operations follow
//   p <id> <queue>         a put outside a unit is about to be made
//   P <id>                 ... it returned
//   g <id> <queue>         a get outside a unit of the message <id> (selected
//                          by its message id) is about to be made
//   G <id>                 ... it returned that message
//   U <unit> P <id> <queue>  a put under syncpoint in the unit returned
//   U <unit> G <id> <queue>  a get under syncpoint in the unit returned it
//   c <unit> / C <unit>    the unit's commit is about to be made / returned
//   b <unit> / B <unit>    the unit's backout is about to be made / returned
//   X <text>               the worker found something wrong and stops
//
// A message's body is "<id> <unit>" ("-" outside a unit), its message id
// the id, zero filled. Ids are "<run>.<sequence>" and units "<run>u<n>": a
// run is one life of the worker, numbered by the harness.
#ifndef VX_KILL_JOURNAL_H
#define VX_KILL_JOURNAL_H

#include <cstdint>

#include "vxqi_records.h"

namespace killjournal {

struct QueueKind {
  const char *name;
  int32_t persistence;
};

// Persistent messages go to the first two, non-persistent ones to the
// others, so that each unit of work is of one kind: a unit of both kinds is
// atomic in each database, not across them (see docs/persistence.md).
inline constexpr QueueKind kQueues[] = {
    {"KILL.P1", PERSISTENCE_PERSISTENT},
    {"KILL.P2", PERSISTENCE_PERSISTENT},
    {"KILL.N1", PERSISTENCE_NOT_PERSISTENT},
    {"KILL.N2", PERSISTENCE_NOT_PERSISTENT},
};
inline constexpr int kQueueCount = 4;

}  // namespace killjournal

#endif  // VX_KILL_JOURNAL_H
