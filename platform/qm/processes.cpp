// Process identities: see processes.h.
#include "processes.h"

#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace vxqm {
namespace {

// VXQM_HOST names the host instead of the system's name: for containers
// that share one name, and for tests that play several hosts on one
// machine.  Owners of another host are never judged by their pid.
std::string hostName() {
  const char *named = std::getenv("VXQM_HOST");
  if (named != nullptr && named[0] != 0) return named;
  char name[256] = {};
  if (gethostname(name, sizeof name - 1) != 0) return {};
  return name;
}

// The start time of a process in clock ticks after boot (the 22nd field of
// /proc/<pid>/stat), or -1 when there is no such process.
int64_t startTime(int32_t pid) {
  char path[64];
  std::snprintf(path, sizeof path, "/proc/%d/stat", static_cast<int>(pid));
  std::FILE *file = std::fopen(path, "re");
  if (file == nullptr) return -1;
  char line[1024];
  const size_t length = std::fread(line, 1, sizeof line - 1, file);
  std::fclose(file);
  line[length] = 0;
  // The command name (field 2) may hold blanks and parentheses: count the
  // fields after its last closing parenthesis.
  const char *field = std::strrchr(line, ')');
  if (field == nullptr) return -1;
  for (int number = 2; number < 22 && field != nullptr; ++number)
    field = std::strchr(field + 1, ' ');
  if (field == nullptr) return -1;
  long long ticks = -1;
  if (std::sscanf(field + 1, "%lld", &ticks) != 1) return -1;
  return ticks;
}

}  // namespace

Owner thisProcess() {
  Owner self;
  self.host = hostName();
  self.pid = static_cast<int32_t>(getpid());
  self.startTime = startTime(self.pid);
  return self;
}

bool processEnded(const Owner &owner) {
  static const std::string host = hostName();
  // Without /proc nothing can be told: better a queue left in use than the
  // handles of a live process taken away.
  static const bool canTell = startTime(static_cast<int32_t>(getpid())) >= 0;
  if (!canTell || owner.host.empty() || owner.host != host || owner.pid <= 0) return false;
  return startTime(owner.pid) != owner.startTime;
}

std::string newOwnerToken(const Owner &self) {
  static std::atomic<uint32_t> counter{0};
  const uint64_t now =
      static_cast<uint64_t>(std::chrono::system_clock::now().time_since_epoch().count());
  char text[48];
  std::snprintf(text, sizeof text, "%08" PRIx32 "-%016" PRIx64 "-%" PRIu32,
                static_cast<uint32_t>(self.pid), now, ++counter);
  return text;
}

int64_t wallMilliseconds(Clock::time_point at) {
  const auto fromNow = at - Clock::now();
  const auto wall = std::chrono::system_clock::now() + fromNow;
  return std::chrono::duration_cast<std::chrono::milliseconds>(wall.time_since_epoch()).count();
}

Clock::time_point monotonicPoint(int64_t wallMs) {
  const auto wall = std::chrono::system_clock::time_point(std::chrono::milliseconds(wallMs));
  return Clock::now() +
         std::chrono::duration_cast<Clock::duration>(wall - std::chrono::system_clock::now());
}

}  // namespace vxqm
