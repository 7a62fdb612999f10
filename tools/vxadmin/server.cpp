// A command server of its own: serve runs one in the foreground, start as a
// daemon, stop ends the one that either runs.
#include "server.h"

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

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <iostream>

#include "session.h"
#include "vxnames.h"
#include "vxqi.h"

namespace vxadmin {
namespace {

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

std::string pidText(pid_t pid) { return pid > 0 ? "pid " + std::to_string(pid) : "pid unknown"; }

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
  } catch (const Outcome &) {  // a bag that cannot be made
    compCode = CC_FAILED;
    reason = RC_STORAGE_NOT_AVAILABLE;
  }
  int32_t cc, rc;
  VXDISC(&hconn, &cc, &rc);
  return compCode == CC_OK ? 0 : reason;
}

}  // namespace

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
      logEvent("made queue manager " + options.qmgr + " in " + files.directory);
    logEvent(subject + " started (pid " + std::to_string(getpid()) + ", data directory " +
             files.directory + ", database " + files.database + ")");
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

namespace {

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

// What the daemon reports on `fd` before it closes the pipe: one line, or
// more when a failure has its account and next step after the reason.
// Empty when it closes the pipe without a report, "timeout" when the pipe
// stays open beyond `wait` ms (-1: no limit).
std::string readReport(int fd, int32_t wait) {
  int64_t deadline = monotonicMilliseconds() + wait;
  std::string report;
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
    if (length < 0) return "";
    if (length == 0) {
      if (!report.empty() && report.back() == '\n') report.pop_back();
      return report;
    }
    report.append(buffer, static_cast<size_t>(length));
  }
}

}  // namespace

// start: the server of serve as a daemon (a session of its own, not its
// leader, so it never gets a controlling terminal), which reports over a
// pipe whether it answers; start returns when it knows.
Outcome startServer(const GlobalOptions &global) {
  GlobalOptions options = global;
  const std::string subject = "command server of queue manager " + options.qmgr;
  const int32_t wait = options.waitOr(30000);
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
  std::string report = readReport(pipeFds[0], wait);
  close(pipeFds[0]);
  if (report.rfind("failed ", 0) == 0) return {kFailure, "start: " + report.substr(7)};
  if (report == "timeout")
    return {kFailure, "start: the " + subject + " did not report within " + std::to_string(wait) +
                          " ms (see " + files.logFile + ")"};
  if (report.rfind("ready ", 0) != 0)
    return {kFailure,
            "start: the " + subject + " ended before it was ready (see " + files.logFile + ")"};
  pid_t pid = static_cast<pid_t>(std::atoi(report.c_str() + 6));
  Json document;
  document["q_mgr_name"] = options.qmgr;
  document["command_server"] = "started";
  document["pid"] = pid;
  document["pid_file"] = files.pidFile;
  document["log_file"] = files.logFile;
  return Outcome(document);
}

// stop: SIGTERM to the server that holds the lock of the pid file, then a
// wait of at most 10 s for it to end.  A pid file whose lock nobody holds
// names no server, and its pid is never signalled.
Outcome stopServer(const GlobalOptions &options) {
  const std::string subject = "command server of queue manager " + options.qmgr;
  std::string dir = dataDirectoryOf(options);
  if (dir.empty()) throw Outcome{kFailure, "no data directory: give --data DIR or set VXQM_DATA"};
  checkQmgrName(options.qmgr);
  DataFiles files(absolutePath(dir), options.qmgr);
  const Outcome none{kNotFound, "no command server is running for queue manager " + options.qmgr};
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
  return Outcome(document);
}

}  // namespace vxadmin
