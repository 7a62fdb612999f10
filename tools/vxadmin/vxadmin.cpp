// vxadmin: the administration tool.  It hosts the queue manager in its own
// process and drives it only through the library's exported calls: every
// administrative command is a vxExecute to the command server, put and get
// are VXPUT1 and VXGET.  The command server is one that already reads the
// command queue (serve and start run one of their own, with a pid file and
// a log in the data directory), else one hosted in the process.
//
// Output is an aligned table for people, or with --json one JSON document
// per command whose keys are the attribute names of vxnames.  Errors go to
// standard error as one line; the exit status is 0 on success, 1 on a
// warning, 2 on a failure.
#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <iostream>
#include <iterator>
#include <nlohmann/json.hpp>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include "command_server.h"
#include "qm_admin.h"
#include "vxai.h"
#include "vxnames.h"
#include "vxqi.h"

namespace {

using Json = nlohmann::ordered_json;

constexpr int kOk = 0;
constexpr int kWarning = 1;
constexpr int kFailure = 2;
// stop: no command server runs for the queue manager.
constexpr int kNotRunning = 3;

// Edit distance between two words, for "did you mean" suggestions.
size_t editDistance(const std::string &a, const std::string &b) {
  std::vector<size_t> row(b.size() + 1);
  for (size_t j = 0; j <= b.size(); ++j) row[j] = j;
  for (size_t i = 1; i <= a.size(); ++i) {
    size_t diagonal = row[0];
    row[0] = i;
    for (size_t j = 1; j <= b.size(); ++j) {
      size_t above = row[j];
      row[j] = std::min({row[j] + 1, row[j - 1] + 1, diagonal + (a[i - 1] == b[j - 1] ? 0 : 1)});
      diagonal = above;
    }
  }
  return row[b.size()];
}

std::string closest(const std::string &word, const std::vector<std::string> &candidates) {
  std::string best;
  size_t bestDistance = SIZE_MAX;
  for (const std::string &candidate : candidates) {
    size_t distance = editDistance(word, candidate);
    if (distance < bestDistance) {
      bestDistance = distance;
      best = candidate;
    }
  }
  return best;
}

// A failure of the tool itself (bad arguments, a file that cannot be read),
// reported as one line and exit status 2.
struct UsageError {
  std::string message;
};

int32_t parseNumber(const std::string &option, const std::string &text) {
  errno = 0;
  char *end = nullptr;
  long long value = std::strtoll(text.c_str(), &end, 10);
  if (text.empty() || *end != '\0' || errno != 0 || value < INT32_MIN || value > INT32_MAX)
    throw UsageError{option + ": '" + text + "' is not a number"};
  return static_cast<int32_t>(value);
}

// A named value of an attribute ("inhibited"), or its number.
int32_t parseValue(const std::string &option, int32_t selector, const std::string &text) {
  int32_t value = 0;
  if (vxnames::valueOf(selector, text, &value)) return value;
  std::string names;
  for (const vxnames::Value &entry : vxnames::values())
    if (entry.selector == selector) names += std::string(names.empty() ? "" : ", ") + entry.name;
  char *end = nullptr;
  errno = 0;
  long long number = std::strtoll(text.c_str(), &end, 10);
  if (text.empty() || *end != '\0' || errno != 0 || number < INT32_MIN || number > INT32_MAX)
    throw UsageError{option + ": '" + text + "' is not one of " + names};
  return static_cast<int32_t>(number);
}

std::string trimmed(const char *text, size_t length) {
  std::string value(text, length);
  while (!value.empty() && (value.back() == ' ' || value.back() == '\0')) value.pop_back();
  return value;
}

std::string hex(const char *bytes, size_t length) {
  static const char digits[] = "0123456789ABCDEF";
  std::string out;
  for (size_t i = 0; i < length; ++i) {
    auto byte = static_cast<unsigned char>(bytes[i]);
    out += digits[byte >> 4];
    out += digits[byte & 0xF];
  }
  return out;
}

// A bag that is deleted with its owner.
class Bag {
 public:
  explicit Bag(int32_t options = BAG_OPT_ADMIN_BAG) {
    int32_t compCode, reason;
    vxCreateBag(options, &handle_, &compCode, &reason);
    if (compCode != CC_OK)
      throw UsageError{"a bag cannot be made: " + vxnames::describeReason(reason)};
  }
  ~Bag() {
    int32_t compCode, reason;
    vxDeleteBag(&handle_, &compCode, &reason);
  }
  Bag(const Bag &) = delete;
  Bag &operator=(const Bag &) = delete;
  VXHBAG get() const { return handle_; }
  void add(int32_t selector, int32_t value) {
    int32_t compCode, reason;
    vxAddInteger(handle_, selector, value, &compCode, &reason);
    check(compCode, reason);
  }
  void add(int32_t selector, const std::string &value) {
    int32_t compCode, reason;
    vxAddString(handle_, selector, static_cast<int32_t>(value.size()), value.data(), &compCode,
                &reason);
    check(compCode, reason);
  }

 private:
  static void check(int32_t compCode, int32_t reason) {
    if (compCode != CC_OK)
      throw UsageError{"a request cannot be built: " + vxnames::describeReason(reason)};
  }
  VXHBAG handle_ = BAG_NONE;
};

// The user items of a reply as a JSON object keyed by attribute name, in
// the reply's order; a string list becomes an array.
Json bagToJson(VXHBAG bag) {
  Json object = Json::object();
  int32_t count = 0, compCode, reason;
  vxCountItems(bag, SEL_ANY_USER_SELECTOR, &count, &compCode, &reason);
  for (int32_t i = 0; i < count; ++i) {
    int32_t selector = 0, type = 0;
    vxInquireItemInfo(bag, SEL_ANY_USER_SELECTOR, i, &selector, &type, &compCode, &reason);
    if (selector == PARM_ERROR_PARAMETER) continue;
    std::string key = vxnames::selectorKey(selector);
    const vxnames::Selector *entry = vxnames::findSelector(selector);
    Json value;
    if (type == ITEM_TYPE_INTEGER) {
      int32_t number = 0;
      vxInquireInteger(bag, SEL_ANY_USER_SELECTOR, i, &number, &compCode, &reason);
      const char *name = vxnames::valueName(selector, number);
      value = name ? Json(name) : Json(number);
    } else if (type == ITEM_TYPE_STRING) {
      int32_t length = 0;
      vxInquireString(bag, SEL_ANY_USER_SELECTOR, i, 0, nullptr, &length, nullptr, &compCode,
                      &reason);
      std::string text(static_cast<size_t>(length), '\0');
      vxInquireString(bag, SEL_ANY_USER_SELECTOR, i, length, text.data(), &length, nullptr,
                      &compCode, &reason);
      value = trimmed(text.data(), text.size());
    } else {
      continue;
    }
    if (entry && entry->type == vxnames::ValueType::StringList) {
      if (!object.contains(key)) object[key] = Json::array();
      object[key].push_back(value);
    } else {
      object[key] = value;
    }
  }
  return object;
}

// Prints rows as columns separated by two blanks; the last column is not
// padded.
void printTable(std::ostream &out, const std::vector<std::vector<std::string>> &rows) {
  std::vector<size_t> widths;
  for (const auto &row : rows)
    for (size_t c = 0; c < row.size(); ++c) {
      if (widths.size() <= c) widths.push_back(0);
      widths[c] = std::max(widths[c], row[c].size());
    }
  for (const auto &row : rows) {
    std::string line;
    for (size_t c = 0; c < row.size(); ++c) {
      line += row[c];
      if (c + 1 < row.size()) line += std::string(widths[c] - row[c].size() + 2, ' ');
    }
    while (!line.empty() && line.back() == ' ') line.pop_back();
    out << line << "\n";
  }
}

std::string cell(const Json &value) {
  if (value.is_string()) return value.get<std::string>();
  return value.dump();
}

std::string upper(std::string text) {
  for (char &c : text) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  return text;
}

// An attribute-and-value table of one object.
void printObject(std::ostream &out, const Json &object) {
  std::vector<std::vector<std::string>> rows{{"ATTRIBUTE", "VALUE"}};
  for (const auto &[key, value] : object.items()) rows.push_back({key, cell(value)});
  printTable(out, rows);
}

// One row per object, the keys of the first as the heading.
void printRows(std::ostream &out, const Json &objects) {
  if (objects.empty()) return;
  std::vector<std::vector<std::string>> rows(1);
  for (const auto &[key, value] : objects[0].items()) rows[0].push_back(upper(key));
  for (const Json &object : objects) {
    rows.emplace_back();
    for (const auto &[key, value] : object.items()) rows.back().push_back(cell(value));
  }
  printTable(out, rows);
}

// The outcome of one command: its exit status, and the error or warning
// line (without the "vxadmin: " prefix) when there is one.
struct Outcome {
  int status = kOk;
  std::string message;
};

struct GlobalOptions {
  std::string qmgr = "QM1";
  std::string data;
  bool dataGiven = false;  // --data was given, even as ""
  bool direct = false;     // --direct: the administration interface, not the command server
  bool json = false;
  std::string wait;
};

constexpr char kCommandQueue[] = "SYSTEM.ADMIN.COMMAND.QUEUE";

// The data directory: --data, else VXQM_DATA, else the user's state
// directory.  Empty when none can be named.  *named tells whether the user
// named it (--data or VXQM_DATA) rather than it being the default.
std::string dataDirectoryOf(const GlobalOptions &options, bool *named = nullptr) {
  if (options.dataGiven && options.data.empty())
    throw Outcome{kFailure, "--data: the name of the data directory is empty"};
  if (named) *named = true;
  if (!options.data.empty()) return options.data;
  const char *fromEnv = std::getenv("VXQM_DATA");
  if (fromEnv && fromEnv[0]) return fromEnv;
  if (named) *named = false;
  const char *state = std::getenv("XDG_STATE_HOME");
  const char *home = std::getenv("HOME");
  if (state && state[0] == '/') return std::string(state) + "/vxai";
  if (home && home[0] == '/') return std::string(home) + "/.local/state/vxai";
  return "";
}

std::string absolutePath(const std::string &path) {
  char *absolute = realpath(path.c_str(), nullptr);
  if (!absolute) return path;
  std::string result = absolute;
  std::free(absolute);
  return result;
}

// A line on standard error that tells what the tool did on its own.
void notice(const std::string &text) { std::cerr << "vxadmin: " << text << std::endl; }

// The directory a store failure is about: the path itself when it names the
// data directory, else the directory of the file.
std::string directoryOf(const vxqm::admin::StoreFailure &failure) {
  using vxqm::admin::StoreProblem;
  if (failure.problem == StoreProblem::kUnsafeDirectory ||
      failure.problem == StoreProblem::kMissingDirectory ||
      failure.problem == StoreProblem::kNotADirectory)
    return failure.path;
  size_t slash = failure.path.rfind('/');
  return slash == std::string::npos ? "." : slash == 0 ? "/" : failure.path.substr(0, slash);
}

// What a person does next about a store failure.
std::string nextStep(const vxqm::admin::StoreFailure &failure) {
  using vxqm::admin::StoreProblem;
  const std::string dir = directoryOf(failure);
  switch (failure.problem) {
    case StoreProblem::kPermission:
      return "check the permissions of " + dir + " and of the queue manager's files in it";
    case StoreProblem::kReadOnly:
      return "make " + dir + " writable (is its file system mounted read-only?)";
    case StoreProblem::kFull:
      return "the disk is full: make room on the file system of " + dir;
    case StoreProblem::kNotADatabase:
      return "the file is not a database: move it away (a new, empty queue manager is then "
             "made) or give --data the directory of the right one";
    case StoreProblem::kDamaged:
      return "the database is damaged: restore it from a backup, or move it away to start an "
             "empty queue manager";
    case StoreProblem::kBusy:
      return "other processes hold the database: try again, or stop them";
    case StoreProblem::kUnsafeDirectory:
      return "use a directory of your own that no one else may write (chmod 700 " + dir +
             "), or give --data another one";
    case StoreProblem::kMissingDirectory:
      return "make its parent first, or check the name given to --data or VXQM_DATA";
    case StoreProblem::kNotADirectory:
      return "give --data a directory";
    case StoreProblem::kOther:
      break;
  }
  return "check " + dir + " and the queue manager's files in it";
}

// The lines that follow the reason line of a store failure: the file, the
// cause and what the store was doing, then the next step.
std::string storeFailureLines(const vxqm::admin::StoreFailure &failure) {
  return "\n" + failure.path + ": " + failure.cause + " (" + failure.action + ")" +
         "\nwhat to do: " + nextStep(failure);
}

// `line` with the account of the queue manager's last store failure when
// `reason` is a store reason and the failure happened in this process.
std::string withStoreFailure(const std::string &qmgr, int32_t reason, const std::string &line) {
  if (reason != RC_STORE_ERROR && reason != RC_STORE_FULL && reason != RC_STORE_READ_ONLY)
    return line;
  vxqm::admin::StoreFailure failure;
  if (!vxqm::admin::lastStoreFailure(qmgr, &failure) || failure.reason != reason) return line;
  return line + storeFailureLines(failure);
}

// A data directory that another user owns or that others may write is
// refused, as the queue manager refuses it: another user could read the
// messages in its files, or replace them.
void checkDataDirectory(const std::string &dir) {
  int fd = open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  struct stat info;
  std::string problem;
  if (fd < 0 || fstat(fd, &info) != 0)
    problem = std::strerror(errno);
  else if (info.st_uid != geteuid())
    problem = "it belongs to another user";
  else if ((info.st_mode & (S_IWGRP | S_IWOTH)) != 0)
    problem = "group or others may write it";
  if (fd >= 0) close(fd);
  if (problem.empty()) return;
  vxqm::admin::StoreFailure failure{RC_STORE_ERROR, vxqm::admin::StoreProblem::kUnsafeDirectory,
                                    dir, "checking the data directory", problem};
  throw Outcome{kFailure, "data directory " + dir + ": " + vxnames::describeReason(RC_STORE_ERROR) +
                              storeFailureLines(failure)};
}

// Makes the data directory (mode 0700) and hands it to the queue manager
// as VXQM_DATA, which it reads when it is created in this process: before
// the first connect.  A directory the user named is made one level deep
// only: a mistyped path is not made whole.  The default one is made with
// its parents under the user's state directory.  Returns the directory's
// absolute path.
std::string prepareDataDirectory(const GlobalOptions &options) {
  bool named = false;
  std::string dir = dataDirectoryOf(options, &named);
  if (dir.empty()) throw Outcome{kFailure, "no data directory: give --data DIR or set VXQM_DATA"};
  // A PostgreSQL database (docs/persistence.md): the queue manager's store
  // makes what it needs there.
  if (dir.starts_with("postgresql://") || dir.starts_with("postgres://")) {
    setenv("VXQM_DATA", dir.c_str(), 1);
    return dir;
  }
  while (dir.size() > 1 && dir.back() == '/') dir.pop_back();
  for (size_t slash = named ? dir.size() : 1; slash <= dir.size(); ++slash) {
    if (slash != dir.size() && dir[slash] != '/') continue;
    std::string part = dir.substr(0, slash);
    if (mkdir(part.c_str(), 0700) == 0) {
      chmod(part.c_str(), 0700);  // the umask may only have taken permissions away
      if (slash == dir.size()) notice("made the data directory " + absolutePath(dir));
    } else if (errno == ENOENT && named) {
      throw Outcome{kFailure, "data directory " + dir +
                                  ": its parent directory does not exist (only the last level "
                                  "is made: make the parent first, or check the name)"};
    } else if (errno != EEXIST) {
      throw Outcome{kFailure, "data directory " + dir + ": " + std::strerror(errno)};
    }
  }
  struct stat info;
  if (stat(dir.c_str(), &info) != 0 || !S_ISDIR(info.st_mode))
    throw Outcome{kFailure, "data directory " + dir + ": not a directory"};
  dir = absolutePath(dir);
  checkDataDirectory(dir);
  setenv("VXQM_DATA", dir.c_str(), 1);
  return dir;
}

// The files of a queue manager in its data directory: the database the
// queue manager keeps, and the pid file and log of a command server that
// serve or start runs.
struct DataFiles {
  DataFiles(const std::string &directory, const std::string &qmgr)
      : directory(directory),
        database(directory + "/" + qmgr + ".db"),
        pidFile(directory + "/" + qmgr + ".server.pid"),
        logFile(directory + "/" + qmgr + ".server.log") {}
  std::string directory, database, pidFile, logFile;
};

// The queue manager's own rule for the name of a queue manager with a data
// directory; checked before a name becomes part of a file name.  The
// characters of object names, and no path: no '/', no '.' first.
void checkQmgrName(const std::string &qmgr) {
  bool valid = !qmgr.empty() && qmgr.size() <= QM_NAME_LENGTH &&
               std::all_of(qmgr.begin(), qmgr.end(), [](char c) {
                 return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') ||
                        (c >= '0' && c <= '9') || c == '.' || c == '_' || c == '/' || c == '%';
               });
  std::string why;
  if (valid && (qmgr[0] == '.' || qmgr.find('/') != std::string::npos))
    why = " (the name of a queue manager names its files: no '/', and no '.' first)";
  if (!valid || !why.empty())
    throw Outcome{kFailure, "queue manager " + qmgr + ": " +
                                vxnames::describeReason(RC_Q_MGR_NAME_ERROR) + why};
}

// Whether the database of the queue manager is there.
bool databaseExists(const std::string &database) {
  struct stat info;
  return lstat(database.c_str(), &info) == 0;
}

void sleepFor(int milliseconds) {
  struct timespec interval = {milliseconds / 1000, (milliseconds % 1000) * 1000000L};
  while (nanosleep(&interval, &interval) != 0 && errno == EINTR) {
  }
}

// The pid written in an open pid file; 0 when it holds none (yet).
pid_t pidIn(int fd) {
  char text[32] = {};
  ssize_t length = pread(fd, text, sizeof text - 1, 0);
  if (length <= 0) return 0;
  char *end = nullptr;
  long pid = std::strtol(text, &end, 10);
  return pid > 0 && pid <= INT_MAX && (*end == '\n' || *end == '\0') ? static_cast<pid_t>(pid) : 0;
}

// The pid file of a command server run by serve or start.  The server holds
// an exclusive flock on it for its whole life and the system drops the lock
// however the process ends: a pid file whose lock nobody holds is stale,
// whatever pid it names, and never blocks a new server.
class PidFile {
 public:
  explicit PidFile(std::string path) : path_(std::move(path)) {}
  ~PidFile() { release(); }
  PidFile(const PidFile &) = delete;
  PidFile &operator=(const PidFile &) = delete;

  // Takes the lock and writes this process's pid into the file (mode
  // 0600).  Returns false when another server holds the lock, with its pid
  // in *holder (-1 when it cannot be read).
  bool acquire(pid_t *holder) {
    for (int attempt = 0;; ++attempt) {
      int fd = open(path_.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
      if (fd < 0) throw Outcome{kFailure, "pid file " + path_ + ": " + std::strerror(errno)};
      if (flock(fd, LOCK_EX | LOCK_NB) == 0) {
        // A server that stops removes its file while it holds the lock: a
        // lock taken on the removed file is no lock on the one at the path.
        struct stat locked, named;
        if (fstat(fd, &locked) != 0 || stat(path_.c_str(), &named) != 0 ||
            locked.st_dev != named.st_dev || locked.st_ino != named.st_ino) {
          close(fd);
          continue;
        }
        std::string pid = std::to_string(getpid()) + "\n";
        if (fchmod(fd, 0600) != 0 || ftruncate(fd, 0) != 0 ||
            pwrite(fd, pid.data(), pid.size(), 0) != static_cast<ssize_t>(pid.size())) {
          std::string error = std::strerror(errno);
          close(fd);
          throw Outcome{kFailure, "pid file " + path_ + ": " + error};
        }
        fd_ = fd;
        return true;
      }
      int error = errno;
      if (error != EWOULDBLOCK) {
        close(fd);
        throw Outcome{kFailure, "pid file " + path_ + ": " + std::strerror(error)};
      }
      // Who looks whether a server runs holds a shared lock for a moment;
      // a server holds its lock for ever.
      if (attempt >= 25) {
        *holder = pidIn(fd);
        close(fd);
        if (*holder == 0) *holder = -1;
        return false;
      }
      close(fd);
      sleepFor(20);
    }
  }

  // Removes the file and drops the lock.
  void release() {
    if (fd_ < 0) return;
    unlink(path_.c_str());
    close(fd_);
    fd_ = -1;
  }

 private:
  std::string path_;
  int fd_ = -1;
};

// The pid of the command server that holds the lock of the pid file at
// `path`: 0 when none does (no file, or a stale one), -1 when one does but
// its pid cannot be read.
pid_t lockHolder(const std::string &path) {
  int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
  if (fd < 0) {
    if (errno == ENOENT) return 0;
    throw Outcome{kFailure, "pid file " + path + ": " + std::strerror(errno)};
  }
  if (flock(fd, LOCK_SH | LOCK_NB) == 0) {
    close(fd);
    return 0;
  }
  // A server writes its pid right after it takes the lock.
  pid_t pid = 0;
  for (int attempt = 0; attempt < 50 && (pid = pidIn(fd)) == 0; ++attempt) sleepFor(10);
  close(fd);
  return pid == 0 ? -1 : pid;
}

std::string pidText(pid_t pid) { return pid > 0 ? "pid " + std::to_string(pid) : "pid unknown"; }

// The number of handles that hold the command queue open for input: a
// command server (of any process) reads it when it is above 0.  0 when the
// queue cannot be inquired.
int32_t commandQueueReaders(VXHCONN hconn) {
  vxOBJDESC od = OD_DEFAULT;
  std::memcpy(od.objectName, kCommandQueue, sizeof kCommandQueue - 1);
  VXHOBJ hobj = 0;
  int32_t compCode, reason;
  VXOPEN(hconn, &od, OPEN_INQUIRE, &hobj, &compCode, &reason);
  if (compCode == CC_FAILED) return 0;
  int32_t selector = ATTR_OPEN_INPUT_COUNT, readers = 0;
  VXINQ(hconn, hobj, 1, &selector, 1, &readers, 0, nullptr, &compCode, &reason);
  if (compCode == CC_FAILED) readers = 0;
  int32_t cc, rc;
  VXCLOSE(hconn, &hobj, CLOSE_NONE, &cc, &rc);
  return readers;
}

// The queue manager in this process, the connection the commands use, and
// the command server that answers them: one already running (a serve or
// start, or any other program's) when the command queue shows a reader,
// else one hosted in this process.  Each is made on the first command that
// needs it.
class Session {
 public:
  explicit Session(const GlobalOptions &options) : options_(options) {}
  ~Session() {
    if (hconn_ != 0) {
      int32_t compCode, reason;
      VXDISC(&hconn_, &compCode, &reason);
    }
    vxcsStop(server_);
  }
  Session(const Session &) = delete;
  Session &operator=(const Session &) = delete;

  VXHCONN connection() {
    if (hconn_ != 0) return hconn_;
    const bool existed = prepare();
    char name[QM_NAME_LENGTH + 1] = {};
    std::strncpy(name, options_.qmgr.c_str(), QM_NAME_LENGTH);
    int32_t compCode, reason;
    VXCONN(name, &hconn_, &compCode, &reason);
    if (compCode == CC_FAILED) {
      hconn_ = 0;
      throw Outcome{kFailure, withStoreFailure(options_.qmgr, reason,
                                               "queue manager " + options_.qmgr + ": " +
                                                   vxnames::describeReason(reason))};
    }
    noteMade(existed);
    return hconn_;
  }

  // --direct: the queue manager opened in this process through its
  // administration interface; no command server is used.
  bool direct() const { return options_.direct; }
  void openDirect() {
    if (directOpened_) return;
    const bool existed = prepare();
    std::vector<std::string> names;
    int32_t reason = vxqm::admin::listQueues(options_.qmgr, kCommandQueue, 0, &names);
    if (reason != RC_NONE)
      throw Outcome{kFailure, withStoreFailure(options_.qmgr, reason,
                                               "queue manager " + options_.qmgr + ": " +
                                                   vxnames::describeReason(reason))};
    noteMade(existed);
    directOpened_ = true;
  }

  // Makes sure that a command server reads the command queue.
  void useCommandServer() {
    if (serverChosen_) return;
    VXHCONN hconn = connection();
    if (commandQueueReaders(hconn) > 0) {
      serverChosen_ = true;
      // Only a server of serve or start has a pid file; any other program's
      // server is used as well, without a pid.
      try {
        serverPid_ = lockHolder(files().pidFile);
      } catch (const Outcome &) {
        serverPid_ = 0;
      }
      return;
    }
    hostCommandServer();
  }

  // Starts a command server in this process (the one that ran elsewhere
  // is gone, or there was none).
  void hostCommandServer() {
    connection();
    int32_t reason = vxcsStart(options_.qmgr.c_str(), &server_);
    if (reason != 0)
      throw Outcome{kFailure,
                    "queue manager " + options_.qmgr +
                        ": the command server does not start: " + vxnames::describeReason(reason)};
    serverChosen_ = true;
    serverPid_ = 0;
  }

  bool hostsServer() const { return server_ != nullptr; }
  // The pid of the server of another process that the commands use, from
  // its pid file: 0 when the server is hosted here or has no pid file.
  pid_t serverPid() const { return serverPid_; }
  DataFiles files() const { return DataFiles(dataDirectory_, options_.qmgr); }

  const std::string &qmgr() const { return options_.qmgr; }
  const std::string &waitOption() const { return options_.wait; }
  // A command of a shell may give its own --wait.
  void setWait(const std::string &wait) { options_.wait = wait; }

 private:
  // Checks the name and makes the data directory, once; returns whether the
  // queue manager's database was there before.
  bool prepare() {
    if (dataDirectory_.empty()) {
      checkQmgrName(options_.qmgr);
      dataDirectory_ = prepareDataDirectory(options_);
    }
    return databaseExists(files().database);
  }
  // A queue manager that a command made anew is told, so that a mistyped
  // --qmgr is seen at once.
  void noteMade(bool existed) {
    if (!existed && !madeNoted_ && databaseExists(files().database)) {
      madeNoted_ = true;
      notice("made queue manager " + options_.qmgr + " in " + dataDirectory_);
    }
  }

  GlobalOptions options_;
  std::string dataDirectory_;
  bool directOpened_ = false;
  bool madeNoted_ = false;
  vxcsSERVER *server_ = nullptr;
  bool serverChosen_ = false;
  pid_t serverPid_ = 0;
  VXHCONN hconn_ = 0;
};

// The replies of one command, each as a JSON object.
struct Replies {
  std::vector<Json> objects;
};

// Sends a command to the command server.  A failure (of the command or of
// vxExecute itself) becomes an Outcome that names the reason and, when the
// server names one, the parameter.
Replies execute(Session &session, const std::string &what, int32_t command, Bag &request) {
  std::optional<Bag> options;
  if (!session.waitOption().empty()) {
    options.emplace();
    options->add(PARM_WAIT_INTERVAL, parseNumber("--wait", session.waitOption()));
  }
  session.useCommandServer();
  VXHCONN hconn = session.connection();
  std::optional<Bag> replyBag;
  int32_t compCode, reason, count = 0, cc, rc;
  for (;;) {
    replyBag.emplace();
    vxExecute(hconn, command, options ? options->get() : BAG_NONE, request.get(), replyBag->get(),
              HOBJ_NONE, HOBJ_NONE, &compCode, &reason);
    vxCountItems(replyBag->get(), SEL_NESTED_REPLY_BAG, &count, &cc, &rc);
    // The server of another process stopped since it was seen: nothing was
    // sent, so the command goes to one of this process.
    if (compCode == CC_FAILED && reason == RC_COMMAND_SERVER_NOT_AVAILABLE && count == 0 &&
        !session.hostsServer()) {
      session.hostCommandServer();
      continue;
    }
    break;
  }
  Bag &reply = *replyBag;
  Replies replies;
  std::string failure;
  int32_t failedReason = reason;
  for (int32_t i = 0; i < count; ++i) {
    VXHBAG nested = BAG_NONE;
    vxInquireBag(reply.get(), SEL_NESTED_REPLY_BAG, i, &nested, &cc, &rc);
    int32_t replyCompCode = CC_OK, replyReason = RC_NONE, parameter = 0;
    vxInquireInteger(nested, SEL_COMP_CODE, ITEM_INDEX_NONE, &replyCompCode, &cc, &rc);
    vxInquireInteger(nested, SEL_REASON, ITEM_INDEX_NONE, &replyReason, &cc, &rc);
    if (replyCompCode == CC_OK) {
      replies.objects.push_back(bagToJson(nested));
    } else if (failure.empty()) {
      failedReason = replyReason;
      failure = what + ": " + vxnames::describeReason(replyReason);
      vxInquireInteger(nested, PARM_ERROR_PARAMETER, ITEM_INDEX_NONE, &parameter, &cc, &rc);
      if (cc == CC_OK) failure += " (parameter " + vxnames::selectorKey(parameter) + ")";
    }
  }
  if (compCode == CC_OK) return replies;
  if (failure.empty()) failure = what + ": " + vxnames::describeReason(reason);
  throw Outcome{kFailure, withStoreFailure(session.qmgr(), failedReason, failure)};
}

// The attributes that create, change and copy take, as options.
struct QueueAttributes {
  std::string description;
  std::string maxDepth, maxMsgLength, defPriority, defPersistence, getState, putState;
  bool descriptionGiven = false;

  void addOptions(CLI::App *command) {
    command->add_option("--description", description, "description (at most 64 characters)");
    command->add_option("--max-depth", maxDepth, "maximum number of messages (0..999999999)")
        ->type_name("N");
    command
        ->add_option("--max-msg-length", maxMsgLength,
                     "maximum message length in bytes (0..104857600)")
        ->type_name("N");
    command->add_option("--def-priority", defPriority, "default priority (0..9)")->type_name("N");
    command->add_option("--def-persistence", defPersistence,
                        "default persistence: persistent or not_persistent");
    command->add_option("--get", getState, "gets: allowed or inhibited");
    command->add_option("--put", putState, "puts: allowed or inhibited");
  }

  void addTo(Bag &request, CLI::App *command) const {
    if (command->count("--description")) request.add(ATTR_Q_DESC, description);
    if (!maxDepth.empty()) request.add(ATTR_MAX_Q_DEPTH, parseNumber("--max-depth", maxDepth));
    if (!maxMsgLength.empty())
      request.add(ATTR_MAX_MSG_LENGTH, parseNumber("--max-msg-length", maxMsgLength));
    if (!defPriority.empty())
      request.add(ATTR_DEF_PRIORITY, parseNumber("--def-priority", defPriority));
    if (!defPersistence.empty())
      request.add(ATTR_DEF_PERSISTENCE,
                  parseValue("--def-persistence", ATTR_DEF_PERSISTENCE, defPersistence));
    if (!getState.empty())
      request.add(ATTR_INHIBIT_GET, parseValue("--get", ATTR_INHIBIT_GET, getState));
    if (!putState.empty())
      request.add(ATTR_INHIBIT_PUT, parseValue("--put", ATTR_INHIBIT_PUT, putState));
  }
};

// The type of an existing queue, which change and copy must name.
int32_t queueType(Session &session, const std::string &what, const std::string &name) {
  Bag request;
  request.add(ATTR_Q_NAME, name);
  request.add(PARM_Q_ATTRS, ATTR_Q_TYPE);
  Replies replies = execute(session, what, CMD_INQUIRE_Q, request);
  int32_t type = QTYPE_LOCAL;
  if (!replies.objects.empty() && replies.objects[0].contains("q_type"))
    vxnames::valueOf(ATTR_Q_TYPE, replies.objects[0]["q_type"].get<std::string>(), &type);
  return type;
}

// Everything one command line may hold, bound to the options of the parser.
struct Arguments {
  GlobalOptions global;
  std::string name, toName, pattern, text, file, type = "local", wait, count;
  std::string priority;
  bool purge = false, browse = false, nonPersistent = false, keepGoing = false, echo = false;
  bool all = false;
  QueueAttributes attributes;
  std::string shellFile;
};

struct Parser {
  CLI::App app{"vxadmin: administers the queue manager of this machine", "vxadmin"};
  Arguments args;
  const bool inShell;
  CLI::App *ping, *show, *showQmgr, *showQueue, *create, *createQueue, *change, *changeQueue, *copy,
      *copyQueue, *del, *deleteQueue, *clear, *clearQueue, *list, *listQueues, *status, *put, *get,
      *shell, *serve, *start, *stop;

  explicit Parser(bool inShell) : inShell(inShell) {
    app.allow_extras();
    app.set_help_flag("-h,--help", "print this help and exit");
    if (!inShell) {
      app.add_option("--qmgr", args.global.qmgr, "queue manager name (default QM1)")
          ->type_name("NAME");
      app.add_option("--data", args.global.data,
                     "data directory (default $VXQM_DATA, $XDG_STATE_HOME/vxai or "
                     "~/.local/state/vxai)")
          ->type_name("DIR");
      app.add_flag("--direct", args.global.direct,
                   "carry out queue commands in this process through the queue manager's "
                   "administration interface, without the command server (for recovery)");
    }
    app.add_flag("--json", args.global.json, "write one JSON document per command");
    app.add_option("--wait", args.global.wait,
                   "milliseconds to wait for the command server's replies (default 30000)")
        ->type_name("MS");

    ping = command(&app, "ping", "check that the command server answers");
    show = command(&app, "show", "show the queue manager or a queue");
    showQmgr = command(show, "qmgr", "show the queue manager's attributes");
    showQueue = command(show, "queue", "show every attribute of a queue");
    showQueue->add_option("NAME", args.name, "queue name")->required();
    create = command(&app, "create", "create an object");
    createQueue = command(create, "queue", "create a queue");
    createQueue->add_option("NAME", args.name, "queue name")->required();
    createQueue->add_option("--type", args.type, "local or model (default local)");
    args.attributes.addOptions(createQueue);
    change = command(&app, "change", "change an object");
    changeQueue = command(change, "queue", "change a queue's attributes");
    changeQueue->add_option("NAME", args.name, "queue name")->required();
    args.attributes.addOptions(changeQueue);
    copy = command(&app, "copy", "copy an object");
    copyQueue = command(copy, "queue", "make a queue with the attributes of another");
    copyQueue->add_option("FROM", args.name, "queue copied")->required();
    copyQueue->add_option("TO", args.toName, "queue made")->required();
    args.attributes.addOptions(copyQueue);
    del = command(&app, "delete", "delete an object");
    deleteQueue = command(del, "queue", "delete a queue");
    deleteQueue->add_option("NAME", args.name, "queue name")->required();
    deleteQueue->add_flag("--purge", args.purge, "delete the queue's messages too");
    clear = command(&app, "clear", "remove messages");
    clearQueue = command(clear, "queue", "remove every message of a queue");
    clearQueue->add_option("NAME", args.name, "queue name")->required();
    list = command(&app, "list", "list objects");
    listQueues = command(list, "queues", "list the names of queues");
    listQueues->add_option("PATTERN", args.pattern, "name or prefix followed by * (default *)");
    listQueues->add_flag("--all", args.all,
                         "include the temporary reply queues of commands (VXAI.REPLY.*)");
    status = command(&app, "status", "show the depth and open counts of queues");
    status->add_option("PATTERN", args.pattern, "name or prefix followed by * (default *)");
    status->add_flag("--all", args.all,
                     "include the temporary reply queues of commands (VXAI.REPLY.*)");
    put = command(&app, "put", "put a message on a queue");
    put->add_option("QUEUE", args.name, "queue name")->required();
    put->add_option("TEXT", args.text, "message text (default: standard input)");
    put->add_option("--file", args.file, "read the message from a file");
    put->add_flag("--non-persistent", args.nonPersistent, "put a non-persistent message");
    put->add_option("--priority", args.priority, "priority 0..9 (default: the queue's)")
        ->type_name("N");
    get = command(&app, "get", "get messages from a queue");
    get->add_option("QUEUE", args.name, "queue name")->required();
    get->add_option("--wait", args.wait, "milliseconds to wait for a message (default 0)")
        ->type_name("MS");
    get->add_flag("--browse", args.browse, "leave the messages on the queue");
    get->add_option("--count", args.count, "get up to this many messages (default 1)")
        ->type_name("N");
    if (!inShell) {
      shell = command(&app, "shell", "run commands from standard input or a file, one per line");
      shell->add_option("FILE", args.shellFile, "file of commands (default: standard input)");
      shell->add_flag("--keep-going", args.keepGoing, "go on after a failure");
      shell->add_flag("--echo", args.echo, "print each command before its output");
      // Not commands of a shell: start forks, which a process whose command
      // server's thread already runs must not do.
      serve = command(&app, "serve",
                      "run the command server in the foreground until SIGTERM or SIGINT");
      start = command(&app, "start", "run the command server in the background");
      stop = command(&app, "stop", "stop the command server that serve or start runs");
    } else {
      shell = serve = start = stop = nullptr;
    }
  }

  // Makes the parser ready for another command line: nothing given yet,
  // every value back to its default.  A shell parses each of its lines with
  // one parser: building the parser costs more than most commands do.
  void reset() {
    app.clear();
    args = Arguments{};
  }

  static CLI::App *command(CLI::App *parent, const std::string &name, const std::string &what) {
    CLI::App *sub = parent->add_subcommand(name, what);
    sub->allow_extras();
    sub->fallthrough();
    return sub;
  }
};

// The chain of parsed commands ("create queue") and the last of them.
CLI::App *leafOf(CLI::App &app, std::string *path) {
  CLI::App *leaf = &app;
  for (;;) {
    std::vector<CLI::App *> parsed = leaf->get_subcommands();
    if (parsed.empty()) return leaf;
    leaf = parsed[0];
    *path += (path->empty() ? "" : " ") + leaf->get_name();
  }
}

std::vector<std::string> optionNames(CLI::App *leaf) {
  std::vector<std::string> names;
  for (CLI::App *app = leaf; app; app = app->get_parent())
    for (const CLI::Option *option : app->get_options())
      for (const std::string &name : option->get_lnames()) names.push_back("--" + name);
  return names;
}

Outcome runParsed(Parser &parser, Session &session, std::istream *commandInput);

// Parses one command line (the words after "vxadmin") and carries it out.
Outcome runCommand(Parser &parser, std::vector<std::string> words, Session *session,
                   std::istream *commandInput) {
  std::reverse(words.begin(), words.end());
  try {
    parser.app.parse(words);
  } catch (const CLI::CallForHelp &) {
    std::cout << parser.app.help();
    return {};
  } catch (const CLI::ParseError &error) {
    std::string path;
    leafOf(parser.app, &path);
    std::string message = error.what();
    const std::string required = " is required";
    if (message.size() > required.size() &&
        message.compare(message.size() - required.size(), required.size(), required) == 0)
      message = "missing argument " + message.substr(0, message.size() - required.size());
    const std::string valueMissing = " missing";
    size_t colon = message.find(": 1 required ");
    if (colon != std::string::npos && message.size() > valueMissing.size() &&
        message.compare(message.size() - valueMissing.size(), valueMissing.size(), valueMissing) ==
            0)
      message = message.substr(0, colon) + ": missing value";
    return {kFailure, (path.empty() ? "" : path + ": ") + message};
  }
  if (!parser.inShell) parser.args.global.dataGiven = parser.app.count("--data") > 0;
  std::string path;
  CLI::App *leaf = leafOf(parser.app, &path);
  std::vector<std::string> extra = parser.app.remaining(true);
  std::string prefix = path.empty() ? "" : path + ": ";
  if (!extra.empty()) {
    const std::string &word = extra[0];
    if (word.size() > 1 && word[0] == '-') {
      std::string option = word.substr(0, word.find('='));
      return {kFailure, prefix + "unknown option '" + option + "' (did you mean '" +
                            closest(option, optionNames(leaf)) + "'?)"};
    }
    if (!leaf->get_subcommands({}).empty()) {
      std::vector<std::string> names;
      for (CLI::App *sub : leaf->get_subcommands({})) names.push_back(sub->get_name());
      return {kFailure, prefix + "unknown command '" + word + "' (did you mean '" +
                            closest(word, names) + "'?)"};
    }
    return {kFailure, prefix + "unexpected argument '" + word + "'"};
  }
  if (!leaf->get_subcommands({}).empty()) {
    std::vector<std::string> names;
    for (CLI::App *sub : leaf->get_subcommands({})) names.push_back(sub->get_name());
    std::string list;
    for (const std::string &name : names) list += (list.empty() ? "" : ", ") + name;
    return {kFailure, prefix + "missing command: one of " + list + " (see --help)"};
  }
  if (!session) {
    Session own(parser.args.global);
    return runParsed(parser, own, commandInput);
  }
  return runParsed(parser, *session, commandInput);
}

void emit(const Parser &parser, const Json &document, const std::string &text) {
  if (parser.args.global.json)
    std::cout << document.dump(2, ' ', false, Json::error_handler_t::replace) << "\n";
  else
    std::cout << text;
}

std::string readAll(std::istream &in) {
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

Outcome runShell(Parser &parser, Session &session);

Outcome putMessage(Parser &parser, Session &session, std::istream *commandInput) {
  const Arguments &args = parser.args;
  std::string data;
  if (parser.put->count("TEXT")) {
    data = args.text;
    if (parser.put->count("--file")) throw UsageError{"give either TEXT or --file"};
  } else if (parser.put->count("--file")) {
    std::ifstream file(args.file, std::ios::binary);
    if (!file) throw UsageError{args.file + ": " + std::strerror(errno)};
    data = readAll(file);
  } else {
    if (commandInput == &std::cin)
      throw UsageError{"give TEXT or --file (standard input holds the commands)"};
    data = readAll(std::cin);
  }
  std::string what = "put " + args.name;
  if (args.name.size() > Q_NAME_LENGTH)
    return {kFailure, what + ": " + vxnames::describeReason(RC_OBJECT_NAME_ERROR)};
  VXHCONN hconn = session.connection();
  vxOBJDESC od = OD_DEFAULT;
  std::memcpy(od.objectName, args.name.data(), args.name.size());
  vxMSGDESC md = MD_DEFAULT;
  md.persistence = args.nonPersistent ? PERSISTENCE_NOT_PERSISTENT : PERSISTENCE_PERSISTENT;
  if (!args.priority.empty()) md.priority = parseNumber("--priority", args.priority);
  vxPUTOPTS pmo = PMO_DEFAULT;
  pmo.options = PUT_NO_SYNCPOINT;
  int32_t compCode, reason;
  VXPUT1(hconn, &od, &md, &pmo, static_cast<int32_t>(data.size()), data.data(), &compCode, &reason);
  if (compCode == CC_FAILED)
    return {kFailure, withStoreFailure(session.qmgr(), reason,
                                       what + ": " + vxnames::describeReason(reason))};
  Json document;
  document["q_name"] = args.name;
  document["msg_id"] = hex(md.msgId, MSG_ID_LENGTH);
  document["length"] = data.size();
  document["persistence"] = vxnames::valueName(ATTR_DEF_PERSISTENCE, md.persistence);
  emit(parser, document,
       "put " + std::to_string(data.size()) + " bytes on " + args.name + " (" +
           document["persistence"].get<std::string>() + "), message id " +
           document["msg_id"].get<std::string>() + "\n");
  if (compCode == CC_WARNING) return {kWarning, what + ": " + vxnames::describeReason(reason)};
  return {};
}

Outcome getMessages(Parser &parser, Session &session) {
  const Arguments &args = parser.args;
  std::string what = (args.browse ? "browse " : "get ") + args.name;
  int32_t wait = args.wait.empty() ? 0 : parseNumber("--wait", args.wait);
  int32_t count = args.count.empty() ? 1 : parseNumber("--count", args.count);
  if (count < 1) throw UsageError{"--count: '" + args.count + "' is not a number of 1 or more"};
  if (wait < -1) throw UsageError{"--wait: '" + args.wait + "' is not -1 or more"};
  if (args.name.size() > Q_NAME_LENGTH)
    return {kFailure, what + ": " + vxnames::describeReason(RC_OBJECT_NAME_ERROR)};
  VXHCONN hconn = session.connection();
  vxOBJDESC od = OD_DEFAULT;
  std::memcpy(od.objectName, args.name.data(), args.name.size());
  int32_t compCode, reason;
  VXHOBJ hobj = 0;
  VXOPEN(hconn, &od, args.browse ? OPEN_BROWSE : OPEN_INPUT_SHARED, &hobj, &compCode, &reason);
  if (compCode == CC_FAILED) return {kFailure, what + ": " + vxnames::describeReason(reason)};
  Json messages = Json::array();
  std::string text;
  std::vector<char> buffer(65536);
  Outcome outcome;
  for (int32_t got = 0; got < count;) {
    vxMSGDESC md = MD_DEFAULT;
    vxGETOPTS gmo = GMO_DEFAULT;
    gmo.options = GET_NO_SYNCPOINT | (wait != 0 ? GET_WAIT : 0);
    if (args.browse) gmo.options |= got == 0 ? GET_BROWSE_FIRST : GET_BROWSE_NEXT;
    gmo.waitInterval = wait;
    int32_t length = 0;
    VXGET(hconn, hobj, &md, &gmo, static_cast<int32_t>(buffer.size()), buffer.data(), &length,
          &compCode, &reason);
    if (reason == RC_MSG_TRUNCATED) {  // the message stays: get it again, whole
      buffer.resize(static_cast<size_t>(length));
      continue;
    }
    if (compCode == CC_FAILED) {
      if (got == 0)
        outcome = {kFailure, withStoreFailure(session.qmgr(), reason,
                                              what + ": " + vxnames::describeReason(reason))};
      else if (parser.get->count("--count"))
        outcome = {kWarning, what + ": " + std::to_string(got) + " of " + std::to_string(count) +
                                 " messages: " + vxnames::describeReason(reason)};
      break;
    }
    ++got;
    std::string data(buffer.data(), static_cast<size_t>(length));
    Json message;
    message["msg_id"] = hex(md.msgId, MSG_ID_LENGTH);
    message["length"] = length;
    message["persistence"] = vxnames::valueName(ATTR_DEF_PERSISTENCE, md.persistence)
                                 ? vxnames::valueName(ATTR_DEF_PERSISTENCE, md.persistence)
                                 : std::to_string(md.persistence);
    message["priority"] = md.priority;
    message["data"] = data;
    messages.push_back(message);
    text += data;
    if (data.empty() || data.back() != '\n') text += "\n";
  }
  VXCLOSE(hconn, &hobj, CLOSE_NONE, &compCode, &reason);
  if (!messages.empty()) {
    Json document;
    document["q_name"] = args.name;
    document["messages"] = messages;
    emit(parser, document, text);
  }
  return outcome;
}

// The reply queues of vxExecute: temporary dynamic queues made from the
// model queue with this prefix, one per command of any requester, this
// tool's own included.
constexpr char kReplyQueuePrefix[] = "VXAI.REPLY.";

bool isReplyQueue(const std::string &name) { return name.rfind(kReplyQueuePrefix, 0) == 0; }

bool isReplyQueue(const Json &name) {
  return name.is_string() && isReplyQueue(name.get<std::string>());
}

// ----- A command server of its own: serve, start and stop ---------------------

// One line of a command server's log on standard error, written in one go
// so that lines never mix.
void logEvent(const std::string &text) {
  char stamp[40] = "";
  time_t now = std::time(nullptr);
  struct tm local;
  if (localtime_r(&now, &local)) std::strftime(stamp, sizeof stamp, "%Y-%m-%dT%H:%M:%S%z", &local);
  std::string line =
      std::string(stamp) + " vxadmin[" + std::to_string(getpid()) + "]: " + text + "\n";
  for (size_t done = 0; done < line.size();) {
    ssize_t written = write(STDERR_FILENO, line.data() + done, line.size() - done);
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) break;
    done += static_cast<size_t>(written);
  }
}

// Tells the start that waits on the pipe `*fd` (-1: none) how its server
// fared, "ready PID" or "failed MESSAGE", and closes the pipe.
void report(int *fd, const std::string &line) {
  if (*fd < 0) return;
  std::string text = line + "\n";
  // A start that gave up reads no more (SIGPIPE is ignored): nobody to tell.
  [[maybe_unused]] ssize_t written = write(*fd, text.data(), text.size());
  close(*fd);
  *fd = -1;
}

// A ping through the queue manager, as any requester sends it: 0 when a
// command server answers, else the reason.
int32_t pingCommandServer(const std::string &qmgr) {
  char name[QM_NAME_LENGTH + 1] = {};
  std::strncpy(name, qmgr.c_str(), QM_NAME_LENGTH);
  VXHCONN hconn = 0;
  int32_t compCode, reason;
  VXCONN(name, &hconn, &compCode, &reason);
  if (compCode == CC_FAILED) return reason;
  try {
    Bag options, request, reply;
    options.add(PARM_WAIT_INTERVAL, 10000);
    vxExecute(hconn, CMD_PING, options.get(), request.get(), reply.get(), HOBJ_NONE, HOBJ_NONE,
              &compCode, &reason);
  } catch (const UsageError &) {
    compCode = CC_FAILED;
    reason = RC_STORAGE_NOT_AVAILABLE;
  }
  int32_t cc, rc;
  VXDISC(&hconn, &cc, &rc);
  return compCode == CC_OK ? 0 : reason;
}

// Runs a command server until SIGTERM or SIGINT, then stops it: the body of
// serve, and of the daemon of start, whose pipe `ready` learns whether the
// server answers (-1: nobody waits).  Each event is a line of the log on
// standard error.  Returns the exit status.
int serve(const GlobalOptions &options, int ready) {
  const std::string subject = "command server of queue manager " + options.qmgr;
  auto fail = [&](const std::string &message) {
    logEvent(message);
    report(&ready, "failed " + message);
    return kFailure;
  };
  // Standard error may be a pipe whose reader is gone: the server goes on.
  signal(SIGPIPE, SIG_IGN);
  // The stop signals wait for sigwait in every thread; the server's thread
  // inherits the mask.  One that comes while the server starts is kept.  A
  // signal ignored is discarded unseen, and a shell ignores SIGINT for what
  // it runs in the background: the server's own disposition is the default.
  signal(SIGTERM, SIG_DFL);
  signal(SIGINT, SIG_DFL);
  sigset_t stopSignals;
  sigemptyset(&stopSignals);
  sigaddset(&stopSignals, SIGTERM);
  sigaddset(&stopSignals, SIGINT);
  pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);
  try {
    checkQmgrName(options.qmgr);
    std::string dir = prepareDataDirectory(options);
    DataFiles files(dir, options.qmgr);
    const bool existed = databaseExists(files.database);
    PidFile pidFile(files.pidFile);
    pid_t holder = 0;
    if (!pidFile.acquire(&holder))
      return fail("a " + subject + " is already running (" + pidText(holder) + ")");
    vxcsSERVER *server = nullptr;
    int32_t reason = vxcsStart(options.qmgr.c_str(), &server);
    if (reason == 0 && (reason = pingCommandServer(options.qmgr)) != 0) vxcsStop(server);
    if (reason != 0)
      return fail(withStoreFailure(
          options.qmgr, reason, subject + " does not start: " + vxnames::describeReason(reason)));
    if (!existed && databaseExists(files.database))
      logEvent("made queue manager " + options.qmgr + " in " + dir);
    logEvent(subject + " started (pid " + std::to_string(getpid()) + ", data directory " + dir +
             ", database " + files.database + ")");
    report(&ready, "ready " + std::to_string(getpid()));
    int received = 0;
    while (sigwait(&stopSignals, &received) != 0) {
    }
    logEvent("stopping the " + subject + " (" + (received == SIGINT ? "SIGINT" : "SIGTERM") + ")");
    vxcsStop(server);
    pidFile.release();
    logEvent(subject + " stopped");
    return kOk;
  } catch (const Outcome &outcome) {
    return fail(outcome.message);
  } catch (const std::exception &error) {
    return fail(error.what());
  }
}

// Closes every descriptor the daemon inherited but `keep`: a pipe of
// whoever ran start that stays open here would keep it waiting for the
// pipe's end as long as the server runs.
void closeInheritedFiles(int keep) {
  std::vector<int> inherited;
  if (DIR *fds = opendir("/proc/self/fd")) {
    while (struct dirent *entry = readdir(fds)) {
      int fd = std::atoi(entry->d_name);
      if (fd > STDERR_FILENO && fd != keep && fd != dirfd(fds)) inherited.push_back(fd);
    }
    closedir(fds);
  }
  for (int fd : inherited) close(fd);
}

// The daemon of start: standard input from /dev/null, standard output and
// error appended to the log, then the server.
int runDaemon(const GlobalOptions &options, const DataFiles &files, int ready) {
  closeInheritedFiles(ready);
  if (chdir("/") != 0) return kFailure;
  int null = open("/dev/null", O_RDONLY);
  int log = open(files.logFile.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_NOFOLLOW, 0600);
  if (null < 0 || log < 0 || fchmod(log, 0600) != 0 || dup2(null, STDIN_FILENO) < 0 ||
      dup2(log, STDOUT_FILENO) < 0 || dup2(log, STDERR_FILENO) < 0) {
    report(&ready, "failed log " + files.logFile + ": " + std::strerror(errno));
    return kFailure;
  }
  if (null > STDERR_FILENO) close(null);
  if (log > STDERR_FILENO) close(log);
  return serve(options, ready);
}

int64_t monotonicMilliseconds() {
  struct timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<int64_t>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

// The line the daemon reports on `fd`; empty when it ends the pipe without
// one, "timeout" when none comes within `wait` ms (-1: no limit).
std::string readReport(int fd, int32_t wait) {
  int64_t deadline = monotonicMilliseconds() + wait;
  std::string line;
  for (;;) {
    int remaining =
        wait < 0 ? -1 : static_cast<int>(std::max<int64_t>(0, deadline - monotonicMilliseconds()));
    struct pollfd readable = {fd, POLLIN, 0};
    int ready = poll(&readable, 1, remaining);
    if (ready < 0 && errno == EINTR) continue;
    if (ready == 0) return "timeout";
    char buffer[512];
    ssize_t length = read(fd, buffer, sizeof buffer);
    if (length < 0 && errno == EINTR) continue;
    if (length <= 0) return "";
    line.append(buffer, static_cast<size_t>(length));
    size_t end = line.find('\n');
    if (end != std::string::npos) return line.substr(0, end);
  }
}

// start: the server of serve as a daemon (a session of its own, not its
// leader, so it never gets a controlling terminal), which reports over a
// pipe whether it answers; start returns when it knows.
Outcome startServer(Parser &parser) {
  GlobalOptions options = parser.args.global;
  const std::string subject = "command server of queue manager " + options.qmgr;
  int32_t wait = options.wait.empty() ? 30000 : parseNumber("--wait", options.wait);
  // The daemon works from "/": it takes the directory as an absolute path.
  checkQmgrName(options.qmgr);
  options.data = prepareDataDirectory(options);
  DataFiles files(options.data, options.qmgr);
  pid_t running = lockHolder(files.pidFile);
  if (running != 0)
    return {kFailure, "start: a " + subject + " is already running (" + pidText(running) + ")"};
  int pipeFds[2];
  if (pipe2(pipeFds, O_CLOEXEC) != 0)
    return {kFailure, "start: " + std::string(std::strerror(errno))};
  std::cout.flush();
  std::cerr.flush();
  pid_t child = fork();
  if (child < 0) {
    std::string error = std::strerror(errno);
    close(pipeFds[0]);
    close(pipeFds[1]);
    return {kFailure, "start: " + error};
  }
  if (child == 0) {
    close(pipeFds[0]);
    int ready = pipeFds[1];
    if (setsid() < 0 || (child = fork()) < 0) {
      report(&ready, "failed " + std::string(std::strerror(errno)));
      _exit(kFailure);
    }
    if (child != 0) _exit(kOk);
    return {runDaemon(options, files, ready), ""};
  }
  close(pipeFds[1]);
  while (waitpid(child, nullptr, 0) < 0 && errno == EINTR) {
  }
  std::string line = readReport(pipeFds[0], wait);
  close(pipeFds[0]);
  if (line.rfind("failed ", 0) == 0) return {kFailure, "start: " + line.substr(7)};
  if (line == "timeout")
    return {kFailure, "start: the " + subject + " did not report within " + std::to_string(wait) +
                          " ms (see " + files.logFile + ")"};
  if (line.rfind("ready ", 0) != 0)
    return {kFailure,
            "start: the " + subject + " ended before it was ready (see " + files.logFile + ")"};
  pid_t pid = static_cast<pid_t>(std::atoi(line.c_str() + 6));
  Json document;
  document["q_mgr_name"] = options.qmgr;
  document["command_server"] = "started";
  document["pid"] = pid;
  document["pid_file"] = files.pidFile;
  document["log_file"] = files.logFile;
  emit(parser, document,
       subject + " started (pid " + std::to_string(pid) + ", log " + files.logFile + ")\n");
  return {};
}

// stop: SIGTERM to the server that holds the lock of the pid file, then a
// wait of at most 10 s for it to end.  A pid file whose lock nobody holds
// names no server, and its pid is never signalled.
Outcome stopServer(Parser &parser) {
  const GlobalOptions &options = parser.args.global;
  const std::string subject = "command server of queue manager " + options.qmgr;
  std::string dir = dataDirectoryOf(options);
  if (dir.empty()) throw Outcome{kFailure, "no data directory: give --data DIR or set VXQM_DATA"};
  checkQmgrName(options.qmgr);
  DataFiles files(absolutePath(dir), options.qmgr);
  const Outcome none{kNotRunning, "no command server is running for queue manager " + options.qmgr};
  pid_t pid = lockHolder(files.pidFile);
  if (pid == 0) return none;
  if (pid < 0) return {kFailure, "stop: the " + subject + " names no pid in " + files.pidFile};
  // A handle of the process itself, taken while the lock shows it alive:
  // the signal cannot reach a process that got the pid after the server
  // ended.  Kernels without one fall back to the pid.
  int pidfd = -1;
#ifdef SYS_pidfd_open
  pidfd = static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
#endif
  auto closeHandle = [&] {
    if (pidfd >= 0) close(pidfd);
    pidfd = -1;
  };
  if (lockHolder(files.pidFile) != pid) {
    closeHandle();
    return none;
  }
  long sent = -1;
#ifdef SYS_pidfd_send_signal
  if (pidfd >= 0) sent = syscall(SYS_pidfd_send_signal, pidfd, SIGTERM, nullptr, 0);
#endif
  if (pidfd < 0) sent = kill(pid, SIGTERM);
  if (sent != 0) {
    std::string error = std::strerror(errno);
    bool gone = errno == ESRCH;
    closeHandle();
    if (gone) return none;
    return {kFailure, "stop: the " + subject + " (pid " + std::to_string(pid) + "): " + error};
  }
  constexpr int kStopWait = 10000;
  int64_t deadline = monotonicMilliseconds() + kStopWait;
  bool ended = false;
  while (!ended) {
    int64_t remaining = deadline - monotonicMilliseconds();
    if (remaining <= 0) break;
    if (pidfd >= 0) {
      // The handle becomes readable when the process ends.
      struct pollfd handle = {pidfd, POLLIN, 0};
      int polled = poll(&handle, 1, static_cast<int>(remaining));
      if (polled < 0 && errno != EINTR) break;
      ended = polled > 0;
    } else {
      ended = lockHolder(files.pidFile) != pid;
      if (!ended) sleepFor(20);
    }
  }
  closeHandle();
  if (!ended)
    return {kFailure, "stop: the " + subject + " (pid " + std::to_string(pid) +
                          ") did not stop within " + std::to_string(kStopWait / 1000) + " s"};
  Json document;
  document["q_mgr_name"] = options.qmgr;
  document["command_server"] = "stopped";
  document["pid"] = pid;
  emit(parser, document, subject + " stopped (pid " + std::to_string(pid) + ")\n");
  return {};
}

// ----- --direct: the administration interface, without the command server ----

// The attributes of create, change and copy as the queue manager takes them.
vxqm::QueueChanges queueChanges(const QueueAttributes &attributes, CLI::App *command) {
  vxqm::QueueChanges changes;
  if (command->count("--description")) changes.description = attributes.description;
  if (!attributes.maxDepth.empty())
    changes.maxDepth = parseNumber("--max-depth", attributes.maxDepth);
  if (!attributes.maxMsgLength.empty())
    changes.maxMsgLength = parseNumber("--max-msg-length", attributes.maxMsgLength);
  if (!attributes.defPriority.empty())
    changes.defaultPriority = parseNumber("--def-priority", attributes.defPriority);
  if (!attributes.defPersistence.empty())
    changes.defaultPersistence =
        parseValue("--def-persistence", ATTR_DEF_PERSISTENCE, attributes.defPersistence);
  if (!attributes.getState.empty())
    changes.inhibitGet = parseValue("--get", ATTR_INHIBIT_GET, attributes.getState);
  if (!attributes.putState.empty())
    changes.inhibitPut = parseValue("--put", ATTR_INHIBIT_PUT, attributes.putState);
  return changes;
}

// An attribute's value as the command server's replies show it: the name
// of an enumeration's value, else the number.
Json attributeValue(int32_t selector, int32_t value) {
  const char *name = vxnames::valueName(selector, value);
  return name ? Json(name) : Json(value);
}

// Fails with the reason of an administration call, and the account of a
// store failure.
void checkDirect(const Session &session, const std::string &what, int32_t reason) {
  if (reason != RC_NONE)
    throw Outcome{kFailure, withStoreFailure(session.qmgr(), reason,
                                             what + ": " + vxnames::describeReason(reason))};
}

// The queues whose names match `pattern`, without the reply queues of
// commands unless `all`; none is RC_UNKNOWN_OBJECT_NAME, as the command
// server replies.
std::vector<std::string> directQueues(Session &session, const std::string &what,
                                      const std::string &pattern, bool all) {
  std::vector<std::string> names;
  checkDirect(session, what, vxqm::admin::listQueues(session.qmgr(), pattern, 0, &names));
  if (!all) std::erase_if(names, [](const std::string &name) { return isReplyQueue(name); });
  return names;
}

// The queue manager's attributes, inquired through the queue interface.
Json directQueueManager(Session &session) {
  VXHCONN hconn = session.connection();
  vxOBJDESC od = OD_DEFAULT;
  od.objectType = OBJTYPE_Q_MGR;
  VXHOBJ hobj = 0;
  int32_t compCode, reason;
  VXOPEN(hconn, &od, OPEN_INQUIRE, &hobj, &compCode, &reason);
  if (compCode == CC_FAILED) checkDirect(session, "show qmgr", reason);
  int32_t selectors[] = {ATTR_CODED_CHAR_SET_ID, ATTR_Q_MGR_NAME};
  int32_t ccsid = 0;
  char name[QM_NAME_LENGTH];
  VXINQ(hconn, hobj, 2, selectors, 1, &ccsid, QM_NAME_LENGTH, name, &compCode, &reason);
  int32_t cc, rc;
  VXCLOSE(hconn, &hobj, CLOSE_NONE, &cc, &rc);
  if (compCode == CC_FAILED) checkDirect(session, "show qmgr", reason);
  Json document;
  document[vxnames::selectorKey(ATTR_Q_MGR_NAME)] = trimmed(name, QM_NAME_LENGTH);
  document[vxnames::selectorKey(ATTR_CODED_CHAR_SET_ID)] = ccsid;
  return document;
}

// Carries out a queue command of --direct through the queue manager's
// administration interface, in this process: the way back when the command
// server cannot answer (its queue inhibited, say).  Returns nothing for a
// command that needs no command server anyway (put, get, shell).
std::optional<Outcome> runDirect(Parser &parser, Session &session) {
  const Arguments &args = parser.args;
  const std::string &qm = session.qmgr();
  auto done = [&](const std::string &name, const std::string &result) {
    Json document;
    document["q_name"] = name;
    document["result"] = result;
    emit(parser, document, "queue " + name + " " + result + "\n");
    return Outcome{};
  };
  for (CLI::App *needsServer : {parser.ping, parser.serve, parser.start, parser.stop})
    if (needsServer && needsServer->parsed())
      return Outcome{kFailure, needsServer->get_name() +
                                   ": --direct works without the command server; this command "
                                   "needs it"};
  if (parser.put->parsed() || parser.get->parsed() || (parser.shell && parser.shell->parsed()))
    return std::nullopt;
  session.openDirect();
  if (parser.createQueue->parsed()) {
    vxqm::QueueChanges changes = queueChanges(args.attributes, parser.createQueue);
    changes.queueType = parseValue("--type", ATTR_Q_TYPE, args.type);
    checkDirect(session, "create queue " + args.name,
                vxqm::admin::createQueue(qm, args.name, changes));
    return done(args.name, "created");
  }
  if (parser.changeQueue->parsed()) {
    checkDirect(
        session, "change queue " + args.name,
        vxqm::admin::changeQueue(qm, args.name, queueChanges(args.attributes, parser.changeQueue)));
    return done(args.name, "changed");
  }
  if (parser.copyQueue->parsed()) {
    checkDirect(session, "copy queue " + args.name + " " + args.toName,
                vxqm::admin::copyQueue(qm, args.name, args.toName,
                                       queueChanges(args.attributes, parser.copyQueue)));
    return done(args.toName, "copied");
  }
  if (parser.deleteQueue->parsed()) {
    checkDirect(session, "delete queue " + args.name,
                vxqm::admin::deleteQueue(qm, args.name, args.purge));
    return done(args.name, "deleted");
  }
  if (parser.clearQueue->parsed()) {
    checkDirect(session, "clear queue " + args.name, vxqm::admin::clearQueue(qm, args.name));
    return done(args.name, "cleared");
  }
  if (parser.listQueues->parsed()) {
    std::string pattern = args.pattern.empty() ? "*" : args.pattern;
    Json names = Json::array();
    std::vector<std::vector<std::string>> rows{{"Q_NAME"}};
    for (const std::string &name :
         directQueues(session, "list queues " + pattern, pattern, args.all)) {
      names.push_back(name);
      rows.push_back({name});
    }
    Json document;
    document["q_names"] = names;
    std::ostringstream text;
    printTable(text, rows);
    emit(parser, document, text.str());
    return Outcome{};
  }
  if (parser.showQueue->parsed() || parser.status->parsed()) {
    const bool show = parser.showQueue->parsed();
    const std::string pattern = show ? args.name : args.pattern.empty() ? "*" : args.pattern;
    const std::string what = (show ? "show queue " : "status ") + pattern;
    if (show && pattern.find('*') != std::string::npos)
      throw Outcome{kFailure, what + ": " + vxnames::describeReason(RC_OBJECT_NAME_ERROR) +
                                  " (a pattern: use list queues or status)"};
    Json queues = Json::array();
    for (const std::string &name : directQueues(session, what, pattern, show || args.all)) {
      vxqm::QueueDefinition definition;
      vxqm::QueueStatus status;
      int32_t reason = show ? vxqm::admin::queueAttributes(qm, name, &definition) : RC_NONE;
      if (reason == RC_NONE) reason = vxqm::admin::queueStatus(qm, name, &status);
      if (reason == RC_UNKNOWN_OBJECT_NAME) continue;  // deleted meanwhile
      checkDirect(session, what, reason);
      Json object;
      object[vxnames::selectorKey(ATTR_Q_NAME)] = name;
      if (show) {
        object[vxnames::selectorKey(ATTR_Q_TYPE)] =
            attributeValue(ATTR_Q_TYPE, definition.queueType);
        object[vxnames::selectorKey(ATTR_Q_DESC)] = definition.description;
        object[vxnames::selectorKey(ATTR_DEF_PERSISTENCE)] =
            attributeValue(ATTR_DEF_PERSISTENCE, definition.defaultPersistence);
        object[vxnames::selectorKey(ATTR_DEF_PRIORITY)] = definition.defaultPriority;
        object[vxnames::selectorKey(ATTR_DEFINITION_TYPE)] =
            attributeValue(ATTR_DEFINITION_TYPE, definition.definitionType);
        object[vxnames::selectorKey(ATTR_INHIBIT_GET)] =
            attributeValue(ATTR_INHIBIT_GET, definition.inhibitGet);
        object[vxnames::selectorKey(ATTR_INHIBIT_PUT)] =
            attributeValue(ATTR_INHIBIT_PUT, definition.inhibitPut);
        object[vxnames::selectorKey(ATTR_MAX_MSG_LENGTH)] = definition.maxMsgLength;
        object[vxnames::selectorKey(ATTR_MAX_Q_DEPTH)] = definition.maxDepth;
      }
      object[vxnames::selectorKey(ATTR_CURRENT_DEPTH)] = status.depth;
      object[vxnames::selectorKey(ATTR_OPEN_INPUT_COUNT)] = status.openInputCount;
      object[vxnames::selectorKey(ATTR_OPEN_OUTPUT_COUNT)] = status.openOutputCount;
      queues.push_back(object);
    }
    if (queues.empty()) checkDirect(session, what, RC_UNKNOWN_OBJECT_NAME);
    std::ostringstream text;
    if (show) {
      printObject(text, queues[0]);
      emit(parser, queues[0], text.str());
    } else {
      Json document;
      document["queues"] = queues;
      printRows(text, queues);
      emit(parser, document, text.str());
    }
    return Outcome{};
  }
  if (parser.showQmgr->parsed()) {
    Json document = directQueueManager(session);
    Json shown = document;
    DataFiles files = session.files();
    document["command_server"] = "not used (--direct)";
    document["data_directory"] = files.directory;
    document["database"] = files.database;
    shown["command_server"] = "not used (--direct)";
    shown["data_directory"] = files.directory;
    shown["database"] = files.database;
    std::ostringstream text;
    printObject(text, shown);
    emit(parser, document, text.str());
    return Outcome{};
  }
  return std::nullopt;
}

Outcome runParsed(Parser &parser, Session &session, std::istream *commandInput) {
  const Arguments &args = parser.args;
  try {
    if (!args.global.wait.empty()) session.setWait(args.global.wait);
    if (session.direct()) {
      std::optional<Outcome> outcome = runDirect(parser, session);
      if (outcome) return *outcome;
    }
    if (parser.ping->parsed()) {
      Bag request;
      execute(session, "ping", CMD_PING, request);
      Json document;
      document["q_mgr_name"] = session.qmgr();
      document["command_server"] = "available";
      emit(parser, document, "queue manager " + session.qmgr() + ": the command server answers\n");
    } else if (parser.showQmgr->parsed()) {
      Bag request;
      Replies replies = execute(session, "show qmgr", CMD_INQUIRE_Q_MGR, request);
      Json document = replies.objects.empty() ? Json::object() : replies.objects[0];
      // Which command server answered, and where the data lives.
      Json shown = document;
      DataFiles files = session.files();
      pid_t pid = session.serverPid();
      document["command_server"] = session.hostsServer() ? "hosted" : "running";
      if (!session.hostsServer() && pid > 0) document["command_server_pid"] = pid;
      document["data_directory"] = files.directory;
      document["database"] = files.database;
      shown["command_server"] = session.hostsServer() ? "hosted by this vxadmin process"
                                : pid > 0             ? "running (pid " + std::to_string(pid) + ")"
                                                      : "running in another process";
      shown["data_directory"] = files.directory;
      shown["database"] = files.database;
      std::ostringstream text;
      printObject(text, shown);
      emit(parser, document, text.str());
    } else if (parser.showQueue->parsed()) {
      Bag request;
      request.add(ATTR_Q_NAME, args.name);
      request.add(PARM_Q_ATTRS, PARM_ALL);
      if (args.name.find('*') != std::string::npos)
        throw Outcome{kFailure, "show queue " + args.name + ": " +
                                    vxnames::describeReason(RC_OBJECT_NAME_ERROR) +
                                    " (a pattern: use list queues or status)"};
      Replies replies = execute(session, "show queue " + args.name, CMD_INQUIRE_Q, request);
      Json document = replies.objects.empty() ? Json::object() : replies.objects[0];
      std::ostringstream text;
      printObject(text, document);
      emit(parser, document, text.str());
    } else if (parser.createQueue->parsed() || parser.changeQueue->parsed() ||
               parser.copyQueue->parsed()) {
      CLI::App *sub = parser.createQueue->parsed()   ? parser.createQueue
                      : parser.changeQueue->parsed() ? parser.changeQueue
                                                     : parser.copyQueue;
      std::string verb = sub->get_parent()->get_name();
      std::string what = verb + " queue " + args.name;
      Bag request;
      int32_t command = CMD_CREATE_Q;
      if (sub == parser.createQueue) {
        int32_t type = parseValue("--type", ATTR_Q_TYPE, args.type);
        request.add(ATTR_Q_NAME, args.name);
        request.add(ATTR_Q_TYPE, type);
      } else if (sub == parser.changeQueue) {
        command = CMD_CHANGE_Q;
        int32_t type = queueType(session, what, args.name);
        request.add(ATTR_Q_NAME, args.name);
        request.add(ATTR_Q_TYPE, type);
      } else {
        command = CMD_COPY_Q;
        what += " " + args.toName;
        int32_t type = queueType(session, what, args.name);
        request.add(PARM_FROM_Q_NAME, args.name);
        request.add(PARM_TO_Q_NAME, args.toName);
        request.add(ATTR_Q_TYPE, type);
      }
      args.attributes.addTo(request, sub);
      execute(session, what, command, request);
      std::string done = verb == "create" ? "created" : verb == "change" ? "changed" : "copied";
      const std::string &name = sub == parser.copyQueue ? args.toName : args.name;
      Json document;
      document["q_name"] = name;
      document["result"] = done;
      emit(parser, document, "queue " + name + " " + done + "\n");
    } else if (parser.deleteQueue->parsed() || parser.clearQueue->parsed()) {
      bool isDelete = parser.deleteQueue->parsed();
      std::string verb = isDelete ? "delete" : "clear";
      Bag request;
      request.add(ATTR_Q_NAME, args.name);
      if (isDelete && args.purge) request.add(PARM_PURGE, 1);
      execute(session, verb + " queue " + args.name, isDelete ? CMD_DELETE_Q : CMD_CLEAR_Q,
              request);
      Json document;
      document["q_name"] = args.name;
      document["result"] = isDelete ? "deleted" : "cleared";
      emit(parser, document,
           "queue " + args.name + " " + document["result"].get<std::string>() + "\n");
    } else if (parser.listQueues->parsed()) {
      std::string pattern = args.pattern.empty() ? "*" : args.pattern;
      Bag request;
      request.add(ATTR_Q_NAME, pattern);
      Replies replies = execute(session, "list queues " + pattern, CMD_INQUIRE_Q_NAMES, request);
      Json names = Json::array();
      if (!replies.objects.empty() && replies.objects[0].contains("q_names"))
        for (const Json &name : replies.objects[0]["q_names"])
          if (args.all || !isReplyQueue(name)) names.push_back(name);
      Json document;
      document["q_names"] = names;
      std::vector<std::vector<std::string>> rows{{"Q_NAME"}};
      for (const Json &name : names) rows.push_back({name.get<std::string>()});
      std::ostringstream text;
      printTable(text, rows);
      emit(parser, document, text.str());
    } else if (parser.status->parsed()) {
      std::string pattern = args.pattern.empty() ? "*" : args.pattern;
      Bag request;
      request.add(ATTR_Q_NAME, pattern);
      Replies replies = execute(session, "status " + pattern, CMD_INQUIRE_Q_STATUS, request);
      Json queues = Json::array();
      for (const Json &object : replies.objects)
        if (args.all || !isReplyQueue(object.value("q_name", Json()))) queues.push_back(object);
      Json document;
      document["queues"] = queues;
      std::ostringstream text;
      printRows(text, queues);
      emit(parser, document, text.str());
    } else if (parser.put->parsed()) {
      return putMessage(parser, session, commandInput);
    } else if (parser.get->parsed()) {
      return getMessages(parser, session);
    } else if (parser.shell && parser.shell->parsed()) {
      return runShell(parser, session);
    } else if (parser.serve && parser.serve->parsed()) {
      return {serve(args.global, -1), ""};
    } else if (parser.start && parser.start->parsed()) {
      return startServer(parser);
    } else if (parser.stop && parser.stop->parsed()) {
      return stopServer(parser);
    } else {
      std::cerr << parser.app.help();
      return {kFailure, ""};
    }
  } catch (const Outcome &outcome) {
    return outcome;
  } catch (const UsageError &error) {
    std::string path;
    leafOf(parser.app, &path);
    return {kFailure, path + ": " + error.message};
  }
  return {};
}

// Splits a line into words: blanks separate them, single and double quotes
// group, a backslash takes the next character as it is, and a '#' that
// begins a word begins a comment.
std::vector<std::string> splitLine(const std::string &line) {
  std::vector<std::string> words;
  std::string word;
  bool inWord = false;
  char quote = 0;
  for (size_t i = 0; i < line.size(); ++i) {
    char c = line[i];
    if (quote) {
      if (c == quote)
        quote = 0;
      else if (c == '\\' && quote == '"' && i + 1 < line.size())
        word += line[++i];
      else
        word += c;
    } else if (c == '\'' || c == '"') {
      quote = c;
      inWord = true;
    } else if (c == '\\' && i + 1 < line.size()) {
      word += line[++i];
      inWord = true;
    } else if (c == ' ' || c == '\t' || c == '\r') {
      if (inWord) words.push_back(word);
      word.clear();
      inWord = false;
    } else if (c == '#' && !inWord) {
      break;
    } else {
      word += c;
      inWord = true;
    }
  }
  if (quote) throw UsageError{"unterminated quote"};
  if (inWord) words.push_back(word);
  return words;
}

// An error or warning on standard error: its first line after `where`, each
// line that follows (the account of a store failure) on a line of its own.
void printMessage(const std::string &where, const std::string &message) {
  std::istringstream lines(message);
  std::string line;
  for (bool first = true; std::getline(lines, line); first = false)
    std::cerr << "vxadmin: " << (first ? where : "") << line << "\n";
}

Outcome runShell(Parser &parser, Session &session) {
  std::ifstream file;
  std::istream *in = &std::cin;
  std::string source = "line ";
  if (parser.shell->count("FILE")) {
    file.open(parser.args.shellFile);
    if (!file) return {kFailure, "shell: " + parser.args.shellFile + ": " + std::strerror(errno)};
    in = &file;
    source = parser.args.shellFile + ":";
  }
  int worst = kOk;
  std::string line;
  Parser lineParser(true);
  for (int number = 1; std::getline(*in, line); ++number) {
    Outcome outcome;
    try {
      std::vector<std::string> words = splitLine(line);
      if (words.empty()) continue;
      if (parser.args.echo) std::cout << "vxadmin> " << line << std::endl;
      if (parser.args.global.json) words.insert(words.begin(), "--json");
      lineParser.reset();
      outcome = runCommand(lineParser, words, &session, in);
    } catch (const UsageError &error) {
      outcome = {kFailure, error.message};
    }
    // Each command's output leaves as the command ends: whoever reads it (a
    // person at a terminal, a script at the other end of a pipe) sees what
    // is done even while later lines are still running.
    std::cout.flush();
    if (!outcome.message.empty())
      printMessage(source + std::to_string(number) + ": ", outcome.message);
    worst = std::max(worst, outcome.status);
    if (outcome.status == kFailure && !parser.args.keepGoing) break;
  }
  return {worst, ""};
}

}  // namespace

int main(int argc, char **argv) {
  std::vector<std::string> words(argv + 1, argv + argc);
  Outcome outcome;
  try {
    Parser parser(false);
    outcome = runCommand(parser, words, nullptr, nullptr);
  } catch (const Outcome &thrown) {
    outcome = thrown;
  } catch (const UsageError &error) {
    outcome = {kFailure, error.message};
  } catch (const std::exception &error) {
    outcome = {kFailure, error.what()};
  }
  if (!outcome.message.empty()) printMessage("", outcome.message);
  return outcome.status;
}
