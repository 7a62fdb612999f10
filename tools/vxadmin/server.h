// A command server of its own: serve, start and stop.
#ifndef VXADMIN_SERVER_H
#define VXADMIN_SERVER_H

#include "common.h"

namespace vxadmin {

// Runs a command server until SIGTERM or SIGINT, then stops it: the body of
// serve, and of the daemon of start, whose pipe `ready` learns whether the
// server answers (-1: nobody waits).  Each event is a line of the log on
// standard error.  Returns the exit status.
int serve(const GlobalOptions &options, int ready);
Outcome startServer(const GlobalOptions &options);
Outcome stopServer(const GlobalOptions &options);

}  // namespace vxadmin

#endif  // VXADMIN_SERVER_H
