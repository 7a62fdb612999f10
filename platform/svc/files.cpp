// Files of the common services: where trace files and failure reports go,
// and directories and files there that only the process's user can reach.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <vector>

#include "svc_internal.h"

namespace {

constexpr std::int64_t kMegabyte = 1024 * 1024;
constexpr long long kDefaultTraceMegabytes = 64;
// A trace file stays below 2 GB, the largest file a 32-bit process writes
// without asking for large-file offsets.
constexpr long long kLargestTraceMegabytes = 2047;

// Set when the services are loaded and by svcReadFileSettings; a local static
// so that it is built before the load-time constructor of another source
// fills it.
struct FileSettings {
  std::mutex lock;
  svc::DirectorySetting trace{"", 1};
  svc::DirectorySetting report{"", 1};
  std::int64_t traceCap = kDefaultTraceMegabytes * kMegabyte;
};

FileSettings &settings() {
  static FileSettings fileSettings;
  return fileSettings;
}

bool isDirectory(const char *path) {
  struct stat info;
  return stat(path, &info) == 0 && S_ISDIR(info.st_mode);
}

// `base` without the slashes it ends with ("/" stays "/"), then `leaf`.
std::string joined(std::string base, const char *leaf) {
  while (base.size() > 1 && base.back() == '/') base.pop_back();
  if (base.back() != '/') base += '/';
  return base + leaf;
}

// The user's own directory of the services: under the state directory of
// the user's home, or in /tmp when there is no home.  The last component is
// the services' own.
std::string userDirectory() {
  if (const char *state = std::getenv("XDG_STATE_HOME"); state && state[0] == '/')
    return joined(state, "vxai");
  if (const char *home = std::getenv("HOME"); home && home[0] == '/' && isDirectory(home))
    return joined(joined(home, ".local/state"), "vxai");
  return "/tmp/vxai-" + std::to_string(geteuid());
}

// A directory named by the environment is the user's choice, so only it is
// checked; a default one is the services' own down from the user directory.
svc::DirectorySetting directoryFromEnvironment(const char *variable, const char *leaf) {
  if (const char *value = std::getenv(variable); value && *value) return {value, 1};
  return {joined(userDirectory(), leaf), 2};
}

std::int64_t traceCapFromEnvironment() {
  long long megabytes = kDefaultTraceMegabytes;
  if (const char *text = std::getenv("VXSVC_TRACE_MAX_MB"); text && *text) {
    char *end = nullptr;
    long long value = std::strtoll(text, &end, 10);
    if (end != text && *end == '\0' && value >= 1)
      megabytes = std::min(value, kLargestTraceMegabytes);
  }
  return megabytes * kMegabyte;
}

std::string systemError(int error) { return std::strerror(error); }

// Why an open directory may not hold the user's files, or "" when it may.
std::string privacyProblem(int descriptor) {
  struct stat info;
  if (fstat(descriptor, &info) != 0) return "cannot be examined (" + systemError(errno) + ")";
  if (!S_ISDIR(info.st_mode)) return "is not a directory";
  if (info.st_uid != geteuid()) return "is owned by another user";
  if ((info.st_mode & (S_IWGRP | S_IWOTH)) != 0) return "is writable by group or others";
  return "";
}

// Why `name` in the directory could not be opened as a directory.
std::string openProblem(int parent, const char *name, int error) {
  struct stat info;
  if (error == ELOOP || error == ENOTDIR) {
    if (fstatat(parent, name, &info, AT_SYMLINK_NOFOLLOW) == 0) {
      if (S_ISLNK(info.st_mode)) return "is a link, not a directory";
      if (!S_ISDIR(info.st_mode)) return "is not a directory";
    }
  }
  return "cannot be opened (" + systemError(error) + ")";
}

// `name` in the directory `path` ("" is the working directory).
std::string within(const std::string &path, const std::string &name) {
  if (path.empty()) return name;
  return path.back() == '/' ? path + name : path + '/' + name;
}

// Opens the directory of `setting`, making what is missing.  Components
// before the owned ones are made with mode 0700 and opened as the path says;
// each owned one is made with mode 0700, opened without following a link and
// checked.  Returns the descriptor, or -1 with the path and the reason.
int openPrivateDirectory(const svc::DirectorySetting &setting, std::string &what,
                         std::string &why) {
  std::vector<std::string> parts;
  for (std::size_t at = 0; at < setting.path.size();) {
    std::size_t next = setting.path.find('/', at);
    if (next == std::string::npos) next = setting.path.size();
    if (next > at) parts.push_back(setting.path.substr(at, next - at));
    at = next + 1;
  }
  const std::size_t owned =
      std::min(parts.size(), static_cast<std::size_t>(setting.ownedComponents));
  std::string path = setting.path[0] == '/' ? "/" : "";
  for (std::size_t i = 0; i < parts.size() - owned; ++i) {
    path = within(path, parts[i]);
    mkdir(path.c_str(), 0700);  // whether it could be made shows when it is opened
  }
  what = path.empty() ? "." : path;
  int descriptor = open(what.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (descriptor < 0) {
    why = "cannot be opened (" + systemError(errno) + ")";
    return -1;
  }
  // A path of no components ("/") names the directory just opened.
  if (owned == 0) {
    why = privacyProblem(descriptor);
    if (!why.empty()) {
      close(descriptor);
      return -1;
    }
  }
  for (std::size_t i = parts.size() - owned; i < parts.size(); ++i) {
    const char *name = parts[i].c_str();
    path = what = within(path, parts[i]);
    const bool made = mkdirat(descriptor, name, 0700) == 0;
    int next = openat(descriptor, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    if (next < 0) why = openProblem(descriptor, name, errno);
    close(descriptor);
    if (next < 0) return -1;
    descriptor = next;
    // The umask may only have taken permissions away; the owner needs all.
    if (made) fchmod(descriptor, 0700);
    why = privacyProblem(descriptor);
    if (!why.empty()) {
      close(descriptor);
      return -1;
    }
  }
  return descriptor;
}

}  // namespace

namespace svc {

DirectorySetting traceDirectorySetting() {
  std::lock_guard lock(settings().lock);
  return settings().trace;
}

DirectorySetting reportDirectorySetting() {
  std::lock_guard lock(settings().lock);
  return settings().report;
}

std::int64_t traceFileCapSetting() {
  std::lock_guard lock(settings().lock);
  return settings().traceCap;
}

void readFileSettings() {
  DirectorySetting trace = directoryFromEnvironment("VXSVC_TRACE_DIR", "trace");
  DirectorySetting report = directoryFromEnvironment("VXSVC_REPORT_DIR", "reports");
  std::lock_guard lock(settings().lock);
  settings().trace = std::move(trace);
  settings().report = std::move(report);
  settings().traceCap = traceCapFromEnvironment();
}

const char *traceDirectoryText() { return settings().trace.path.c_str(); }
const char *reportDirectoryText() { return settings().report.path.c_str(); }

PrivateDirectory::~PrivateDirectory() {
  if (descriptor_ >= 0) close(descriptor_);
}

void PrivateDirectory::reset(const DirectorySetting &setting) {
  if (descriptor_ >= 0) close(descriptor_);
  descriptor_ = -1;
  refused_ = false;
  setting_ = setting;
}

int PrivateDirectory::descriptor() {
  if (descriptor_ >= 0 || refused_) return descriptor_;
  std::string what, why;
  descriptor_ = openPrivateDirectory(setting_, what, why);
  if (descriptor_ < 0) refuse(what, why);
  return descriptor_;
}

void PrivateDirectory::refuse(const std::string &what, const std::string &why) {
  if (descriptor_ >= 0) close(descriptor_);
  descriptor_ = -1;
  if (refused_) return;
  refused_ = true;
  warn(std::string("vxai: ") + kind_ + " switched off for this process: " + what + " " + why);
}

int openPrivateFile(PrivateDirectory &directory, const std::string &name) {
  const int parent = directory.descriptor();
  if (parent < 0) return -1;
  int file =
      openat(parent, name.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_NOFOLLOW | O_CLOEXEC, 0600);
  if (file < 0) {
    directory.refuse(directory.pathOf(name), "cannot be opened (" + systemError(errno) + ")");
    return -1;
  }
  struct stat info;
  std::string why;
  if (fstat(file, &info) != 0)
    why = "cannot be examined (" + systemError(errno) + ")";
  else if (!S_ISREG(info.st_mode))
    why = "is not a regular file";
  else if (info.st_uid != geteuid())
    why = "is owned by another user";
  else if ((info.st_mode & 077) != 0 && fchmod(file, info.st_mode & 0700) != 0)
    why = "cannot be made private (" + systemError(errno) + ")";
  if (!why.empty()) {
    close(file);
    directory.refuse(directory.pathOf(name), why);
    return -1;
  }
  return file;
}

void warn(const std::string &line) {
  const std::string text = line + "\n";
  writeAll(STDERR_FILENO, text.data(), text.size());
}

bool writeAll(int descriptor, const char *bytes, std::size_t length) {
  while (length > 0) {
    ssize_t written = write(descriptor, bytes, length);
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) return false;
    bytes += written;
    length -= static_cast<std::size_t>(written);
  }
  return true;
}

}  // namespace svc
