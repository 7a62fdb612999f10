// The queue manager as vxadmin reaches it: its data directory and files,
// the connection, the command server that answers, and the commands sent
// to it.
#ifndef VXADMIN_SESSION_H
#define VXADMIN_SESSION_H

#include <sys/types.h>

#include <string>
#include <vector>

#include "command_server.h"
#include "common.h"
#include "qm_admin.h"
#include "vxai.h"

namespace vxadmin {

constexpr char kCommandQueue[] = "SYSTEM.ADMIN.COMMAND.QUEUE";

// The reply queues of vxExecute: temporary dynamic queues made from the
// model queue with this prefix, one per command of any requester, this
// tool's own included.
bool isReplyQueue(const std::string &name);

std::string trimmed(const char *text, size_t length);
std::string hex(const char *bytes, size_t length);
void sleepFor(int milliseconds);
std::string absolutePath(const std::string &path);

// A bag that is deleted with its owner.
class Bag {
 public:
  explicit Bag(int32_t options = BAG_OPT_ADMIN_BAG);
  ~Bag();
  Bag(const Bag &) = delete;
  Bag &operator=(const Bag &) = delete;
  VXHBAG get() const { return handle_; }
  void add(int32_t selector, int32_t value);
  void add(int32_t selector, const std::string &value);

 private:
  VXHBAG handle_ = BAG_NONE;
};

// Whether --data or VXQM_DATA names a PostgreSQL database
// (postgresql://... or postgres://...) rather than a directory.
bool isDatabaseUri(const std::string &location);

// The files of a queue manager: the database it keeps (a file of its data
// directory, or its schema in a PostgreSQL database), and the pid file and
// log of a command server that serve or start runs.  Those two are files
// of the data directory; with a PostgreSQL database they are files of the
// user's state directory on this host, named after the queue manager and
// the database, so that stop finds the server that start ran here.
// `directory` is the location as it is shown: a URI's password is left out.
struct DataFiles {
  DataFiles(const std::string &location, const std::string &qmgr);
  std::string directory, database, pidFile, logFile;
};

// The user's state directory ($XDG_STATE_HOME/vxai, else
// ~/.local/state/vxai); empty when neither can be named.
std::string stateDirectory();
// The data directory: --data, else VXQM_DATA, else the user's state
// directory.  Empty when none can be named.  *named tells whether the user
// named it (--data or VXQM_DATA) rather than it being the default.
std::string dataDirectoryOf(const GlobalOptions &options, bool *named = nullptr);
// Makes the data directory and hands it to the queue manager; returns its
// absolute path.  A PostgreSQL database is handed over as it is named; the
// state directory, which then holds a command server's files, is made.
std::string prepareDataDirectory(const GlobalOptions &options);
void checkQmgrName(const std::string &qmgr);
bool databaseExists(const std::string &database);

// `line` with the account of the queue manager's last store failure when
// `reason` is a store reason and the failure happened in this process.
std::string withStoreFailure(const std::string &qmgr, int32_t reason, const std::string &line);

// The exit status of a command that failed with `reason`.
int statusOf(int32_t reason);
// The failure of a command: "WHAT: REASON", a hint of what to do where
// there is one, and the account of a store failure.
Outcome failure(const std::string &qmgr, const std::string &what, int32_t reason,
                const std::string &detail = "");

// The pid of the command server that holds the lock of the pid file at
// `path`: 0 when none does (no file, or a stale one), -1 when one does but
// its pid cannot be read.
pid_t lockHolder(const std::string &path);
// The pid written in an open pid file; 0 when it holds none (yet).
pid_t pidIn(int fd);

// The queue manager in this process, the connection the commands use, and
// the command server that answers them: one already running (a serve or
// start, or any other program's) when the command queue shows a reader,
// else one hosted in this process.  Each is made on the first command that
// needs it.
class Session {
 public:
  explicit Session(const GlobalOptions &options) : options_(options) {}
  ~Session();
  Session(const Session &) = delete;
  Session &operator=(const Session &) = delete;

  VXHCONN connection();
  // --direct: the queue manager opened in this process through its
  // administration interface; no command server is used.
  bool direct() const { return options_.direct; }
  void openDirect();
  // Makes sure that a command server reads the command queue.
  void useCommandServer();
  // Starts a command server in this process (the one that ran elsewhere
  // is gone, or there was none).
  void hostCommandServer();

  bool hostsServer() const { return server_ != nullptr; }
  // The pid of the server of another process that the commands use, from
  // its pid file: 0 when the server is hosted here or has no pid file.
  pid_t serverPid() const { return serverPid_; }
  DataFiles files() const { return DataFiles(dataDirectory_, options_.qmgr); }
  const std::string &qmgr() const { return options_.qmgr; }
  const GlobalOptions &options() const { return options_; }
  // A command of a shell may give its own --wait and -q.
  void setLineOptions(const GlobalOptions &line);

 private:
  bool prepare();
  void noteMade(bool existed);

  GlobalOptions options_;
  std::string dataDirectory_;
  bool directOpened_ = false;
  bool madeNoted_ = false;
  vxcsSERVER *server_ = nullptr;
  bool serverChosen_ = false;
  pid_t serverPid_ = 0;
  VXHCONN hconn_ = 0;
};

// Sends a command to the command server and returns the replies, each as a
// JSON object keyed by attribute name.  A failure (of the command or of
// vxExecute itself) is thrown as an Outcome that names the reason and, when
// the server names one, the parameter.
std::vector<Json> execute(Session &session, const std::string &what, int32_t command, Bag &request);

}  // namespace vxadmin

#endif  // VXADMIN_SESSION_H
