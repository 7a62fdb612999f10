// Failure reports: a readable text file per report, the latest kept in memory.
#include <unistd.h>

#include <algorithm>
#include <cstdarg>
#include <atomic>
#include <cstdio>
#include <cstring>
#include <deque>
#include <mutex>
#include <string>

#include "svc.h"
#include "svc_internal.h"

namespace {

constexpr std::size_t kReportsKept = 16;

std::mutex gReportLock;
std::deque<std::string> gLatest;  // guarded by gReportLock; front is latest
std::atomic<std::int32_t> gReportCount{0};

std::string formatted(const char *format, ...) __attribute__((format(printf, 1, 2)));
std::string formatted(const char *format, ...) {
  char text[256];
  va_list arguments;
  va_start(arguments, format);
  std::vsnprintf(text, sizeof text, format, arguments);
  va_end(arguments);
  return text;
}

std::string dumpText(const svcDUMPAREA &area) {
  return formatted("Dump area     : %.48s (%d bytes at 0x%08X)\n", area.label, area.length,
                   area.address) +
         svc::hexLines(area.data, area.length, "  ");
}

std::string reportText(std::int32_t component, std::int32_t function, std::int32_t probe,
                       std::uint32_t resultCode, const svcINSERTS *inserts,
                       const svcDUMPAREAS *areas) {
  const svcTHREADANCHOR *anchor = svcThreadAnchor();
  std::string text = "VXAI failure report\n";
  text += "Time          : " + svc::timeAndThread() + "\n";
  text += formatted("Product       : %d\n", anchor ? anchor->productId : 0);
  text += formatted("Component     : %d\n", component);
  text += formatted("Function      : %d %s\n", function, svc::functionName(function).c_str());
  text += formatted("Probe         : %d\n", probe);
  text += formatted("Result code   : 0x%08X\n", resultCode);
  if (inserts) {
    text +=
        formatted("Inserts       : %.4s %d %d %d %d\n", inserts->eyeCatcher, inserts->numeric[0],
                  inserts->numeric[1], inserts->numeric[2], inserts->numeric[3]);
    for (const auto &insert : inserts->text)
      if (insert[0]) text += formatted("Text insert   : %.64s\n", insert);
  }
  if (areas)
    for (std::int32_t i = 0; i < std::min<std::int32_t>(areas->count, SVC_DUMP_AREAS); ++i)
      text += dumpText(areas->area[i]);
  return text;
}

void writeReportFile(const std::string &text, std::int32_t sequence) {
  if (!svc::ensureDirectory(svc::reportDirectory())) return;
  std::string path = svc::reportDirectory() + "/VX" + std::to_string(getpid()) + "." +
                     std::to_string(sequence) + ".FDC";
  if (FILE *file = std::fopen(path.c_str(), "w")) {
    std::fputs(text.c_str(), file);
    std::fclose(file);
  }
}

// A dump may reach past the record it was asked for (the first 64 bytes at
// a 28-byte record, say) into memory that is readable but belongs to no one
// in particular; the pointer check has found it readable, so it is copied a
// byte at a time, without the bounds a memory checker puts on each block.
__attribute__((no_sanitize("address"))) void copyReadable(unsigned char *to, const void *from,
                                                          std::size_t length) {
  const volatile unsigned char *source = static_cast<const volatile unsigned char *>(from);
  for (std::size_t i = 0; i < length; ++i) to[i] = source[i];
}

}  // namespace

extern "C" {

void svcBuildDumpArea(svcDUMPAREAS *areas, const char *label, const void *address, int32_t length) {
  if (areas->count < 0 || areas->count >= SVC_DUMP_AREAS) return;
  svcDUMPAREA &area = areas->area[areas->count++];
  std::memset(&area, 0, sizeof area);
  std::snprintf(area.label, sizeof area.label, "%s", label ? label : "");
  area.address = static_cast<std::uint32_t>(reinterpret_cast<std::uintptr_t>(address));
  std::int32_t wanted = std::clamp<std::int32_t>(length, 0, SVC_DUMP_BYTES);
  // A damaged record may sit next to unmapped memory: copy only what reads.
  if (wanted > 0 && svcCheckPointer(address, wanted, SVC_CHECK_READ) == 0) {
    copyReadable(area.data, address, static_cast<std::size_t>(wanted));
    area.length = wanted;
  }
}

void svcFailureReport(int32_t component, int32_t function, int32_t probe, uint32_t resultCode,
                      const svcINSERTS *inserts, const svcDUMPAREAS *areas) {
  std::int32_t sequence = ++gReportCount;
  try {
    std::string text = reportText(component, function, probe, resultCode, inserts, areas);
    {
      std::lock_guard lock(gReportLock);
      gLatest.push_front(text);
      if (gLatest.size() > kReportsKept) gLatest.pop_back();
    }
    writeReportFile(text, sequence);
  } catch (...) {
    // The report is lost; the failure itself is still returned by the caller.
  }
}

int32_t svcFailureReportCount(void) { return gReportCount.load(); }

int32_t svcLatestFailureReport(int32_t i, char *buffer, int32_t bufferLength) {
  std::lock_guard lock(gReportLock);
  if (i < 0 || static_cast<std::size_t>(i) >= gLatest.size()) return -1;
  const std::string &text = gLatest[static_cast<std::size_t>(i)];
  if (buffer && bufferLength > 0)
    std::snprintf(buffer, static_cast<std::size_t>(bufferLength), "%s", text.c_str());
  return static_cast<int32_t>(text.size());
}

}  // extern "C"
