// Signal actions saved around an API call, for processes that ask for it.
#include <csignal>
#include <iterator>

#include "svc.h"

namespace {

// The synchronous signals whose handlers a caller may depend on.
constexpr int kGuardedSignals[] = {SIGSEGV, SIGBUS, SIGILL, SIGFPE, SIGPIPE};

// Saved by the thread that runs the call; API calls do not nest.
thread_local struct sigaction tSaved[std::size(kGuardedSignals)];

}  // namespace

extern "C" {

void sigSaveActions(int32_t *actionsSaved) {
  if (!processAnchor.signalGuard) return;
  for (std::size_t i = 0; i < std::size(kGuardedSignals); ++i)
    if (sigaction(kGuardedSignals[i], nullptr, &tSaved[i]) != 0) return;
  *actionsSaved = 1;
}

void sigRestoreActions(int32_t *actionsSaved) {
  if (!*actionsSaved) return;
  for (std::size_t i = 0; i < std::size(kGuardedSignals); ++i)
    sigaction(kGuardedSignals[i], &tSaved[i], nullptr);
  *actionsSaved = 0;
}

}  // extern "C"
