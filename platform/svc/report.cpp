// Failure reports: a readable text file per report, the latest kept in memory.
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <cerrno>
#include <cinttypes>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <deque>
#include <mutex>
#include <string>
#include <tuple>
#include <vector>

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
  // The address at the width of the process's addresses.
  return formatted("Dump area     : %.48s (%d bytes at 0x%0*" PRIXPTR ")\n", area.label,
                   area.length, static_cast<int>(2 * sizeof(void *)), area.address) +
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

// Files are kept per directory, of every process that writes there.
constexpr std::size_t kReportFilesKept = 100;

svc::PrivateDirectory gReportDirectory{"failure reports"};  // guarded by gReportLock
bool gReportStarted = false;                                // guarded by gReportLock

// A report file's age: its modification time, then, for files of the same
// moment, the process and the report's number in it.
struct ReportFile {
  std::string name;
  std::int64_t seconds;
  std::int64_t nanoseconds;
  unsigned long pid;
  unsigned long sequence;
  auto key() const { return std::tie(seconds, nanoseconds, pid, sequence); }
};

// Digits at `at` as a number, `at` moved past them; false when there are none.
bool number(const char *&at, unsigned long &value) {
  if (!std::isdigit(static_cast<unsigned char>(*at))) return false;
  for (value = 0; std::isdigit(static_cast<unsigned char>(*at)); ++at)
    value = value * 10 + static_cast<unsigned long>(*at - '0');
  return true;
}

// "VX<pid>.<n>.FDC", the name of a report file.
bool reportFileName(const char *name, unsigned long &pid, unsigned long &sequence) {
  if (std::strncmp(name, "VX", 2) != 0) return false;
  const char *at = name + 2;
  return number(at, pid) && *at++ == '.' && number(at, sequence) && std::strcmp(at, ".FDC") == 0;
}

// Removes the oldest report files until kReportFilesKept are left; other
// files of the directory are left alone.
void pruneReportFiles(int directory) {
  int listing = openat(directory, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (listing < 0) return;
  DIR *entries = fdopendir(listing);
  if (!entries) {
    close(listing);
    return;
  }
  std::vector<ReportFile> files;
  while (const dirent *entry = readdir(entries)) {
    ReportFile file{entry->d_name, 0, 0, 0, 0};
    struct stat info;
    if (!reportFileName(entry->d_name, file.pid, file.sequence) ||
        fstatat(directory, entry->d_name, &info, AT_SYMLINK_NOFOLLOW) != 0 ||
        !S_ISREG(info.st_mode))
      continue;
    file.seconds = info.st_mtim.tv_sec;
    file.nanoseconds = info.st_mtim.tv_nsec;
    files.push_back(std::move(file));
  }
  closedir(entries);
  if (files.size() <= kReportFilesKept) return;
  const auto oldestEnd =
      files.begin() + static_cast<std::ptrdiff_t>(files.size() - kReportFilesKept);
  std::nth_element(files.begin(), oldestEnd, files.end(),
                   [](const ReportFile &a, const ReportFile &b) { return a.key() < b.key(); });
  for (auto file = files.begin(); file != oldestEnd; ++file)
    unlinkat(directory, file->name.c_str(), 0);
}

// A new file for each report: a name that is taken (by a file of an earlier
// process of the same number, or by a link) is never opened, and the report
// stays in memory only.
void writeReportFile(const std::string &text, std::int32_t sequence) {
  std::lock_guard lock(gReportLock);
  if (!gReportStarted) {
    gReportDirectory.reset(svc::reportDirectorySetting());
    gReportStarted = true;
  }
  const int directory = gReportDirectory.descriptor();
  if (directory < 0) return;
  const std::string name =
      "VX" + std::to_string(getpid()) + "." + std::to_string(sequence) + ".FDC";
  int file = openat(directory, name.c_str(),
                    O_WRONLY | O_CREAT | O_EXCL | O_APPEND | O_NOFOLLOW | O_CLOEXEC, 0600);
  if (file < 0) {
    svc::warn("vxai: failure report not written: " + gReportDirectory.pathOf(name) + " " +
              "cannot be created (" + std::strerror(errno) + ")");
    return;
  }
  svc::writeAll(file, text.data(), text.size());
  close(file);
  pruneReportFiles(directory);
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

namespace svc {

void restartReportFiles() {
  std::lock_guard lock(gReportLock);
  gReportStarted = false;
}

}  // namespace svc

extern "C" {

void svcBuildDumpArea(svcDUMPAREAS *areas, const char *label, const void *address, int32_t length) {
  if (areas->count < 0 || areas->count >= SVC_DUMP_AREAS) return;
  svcDUMPAREA &area = areas->area[areas->count++];
  std::memset(&area, 0, sizeof area);
  std::snprintf(area.label, sizeof area.label, "%s", label ? label : "");
  area.address = reinterpret_cast<std::uintptr_t>(address);
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
