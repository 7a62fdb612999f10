// The administration interface of the queue manager: what a command server
// needs to define, change, copy, delete, clear, list and inspect queues.  It
// is exported from libvxqm.so beside the qm* entries, but it is not part of
// the queue interface: programs reach it only through a command server.
//
// Every function may be called from any thread, never throws, and returns 0
// or the reason it failed (a value of vxqi.h; the completion code of a
// failure is CC_FAILED).  qmName names a queue manager as a connect does ("" or
// blanks: the default, "QM1"); one that does not exist yet is created with its
// initial objects.  Object names are 1 to 48 characters of A-Z a-z 0-9 . _ / %.
//
// Where a queue manager keeps its objects: when the environment variable
// VXQM_DATA names a directory at the moment a queue manager is created in the
// process (its first connect, or an administration call or test hook that
// names it), it is one queue manager for every process that uses the same
// directory: its definitions and persistent messages live in the SQLite
// database `$VXQM_DATA/<qmName>.db`, the rest in a companion database in
// memory; otherwise (unset or empty) everything is in memory, for the life of
// the process.  A program that hosts queue managers over a directory sets the
// variable before its first connect.  docs/persistence.md says how the
// processes share it.
//
// The data directory is made (mode 0700) when it is missing and its parent
// exists; one that belongs to another user or that group or others may write
// is refused (RC_STORE_ERROR).  Every file of the queue manager is mode 0600,
// whatever the umask.  The name of a queue manager with a data directory
// becomes a file name, so it never holds '/' nor begins with '.'
// (RC_Q_MGR_NAME_ERROR).  A full disk is reported as RC_STORE_FULL, a
// database that cannot be written as RC_STORE_READ_ONLY, any other failure of
// the database or its directory as RC_STORE_ERROR; lastStoreFailure says
// which file and why.
#ifndef VX_QM_ADMIN_H
#define VX_QM_ADMIN_H

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "queue_attributes.h"
#include "vxqi_records.h"

#define QM_ADMIN_EXPORT __attribute__((visibility("default")))

namespace vxqm {

// Defaults of a new local queue.
constexpr int32_t kDefaultMaxDepth = 5000;
constexpr int32_t kDefaultMaxMsgLength = 4 * 1024 * 1024;
// Upper limits of the attributes an administrator sets: those of the table
// of queue attributes.
using vxqi::kLargestMaxDepth;
using vxqi::kLargestMaxMsgLength;
using vxqi::kLargestPriority;

// A queue's definition: its name and the attributes that an administrator
// sets.  The run-time state of a queue (open counts, messages) is not here.
struct QueueDefinition {
  std::string name;                             // 1 to 48 characters
  int32_t queueType = QTYPE_LOCAL;              // QTYPE_LOCAL or QTYPE_MODEL
  int32_t definitionType = DEFTYPE_PREDEFINED;  // of a model: the kind of queue it makes
  std::string description;                      // at most 64 characters
  int32_t defaultPersistence = PERSISTENCE_NOT_PERSISTENT;
  int32_t defaultPriority = 0;  // 0 .. kLargestPriority
  int32_t inhibitGet = INHIBIT_ALLOWED;
  int32_t inhibitPut = INHIBIT_ALLOWED;
  int32_t maxMsgLength = kDefaultMaxMsgLength;  // 0 .. kLargestMaxMsgLength
  int32_t maxDepth = kDefaultMaxDepth;          // 0 .. kLargestMaxDepth
};

// Attributes to set; an empty one keeps its value (on create: its default).
// Bad values are refused with RC_SELECTOR_ERROR, a change of queue type with
// RC_OBJECT_TYPE_ERROR.  A model's definition type is DEFTYPE_TEMPORARY_DYNAMIC
// (its default) or DEFTYPE_PERMANENT_DYNAMIC; a local queue's is predefined.
struct QueueChanges {
  std::optional<int32_t> queueType;
  std::optional<int32_t> definitionType;
  std::optional<std::string> description;
  std::optional<int32_t> defaultPersistence;
  std::optional<int32_t> defaultPriority;
  std::optional<int32_t> inhibitGet;
  std::optional<int32_t> inhibitPut;
  std::optional<int32_t> maxMsgLength;
  std::optional<int32_t> maxDepth;
};

struct QueueStatus {
  int32_t depth = 0;  // every message on the queue, committed or not
  int32_t openInputCount = 0;
  int32_t openOutputCount = 0;
};

namespace admin {

// Defines a new queue (RC_OBJECT_ALREADY_EXISTS when the name is taken).
QM_ADMIN_EXPORT int32_t createQueue(const std::string &qmName, const std::string &name,
                                    const QueueChanges &attributes);
// Changes an existing queue, open or not.
QM_ADMIN_EXPORT int32_t changeQueue(const std::string &qmName, const std::string &name,
                                    const QueueChanges &changes);
// Defines `to` like `from`, with the changes; the copy of a dynamic queue is
// a predefined one.
QM_ADMIN_EXPORT int32_t copyQueue(const std::string &qmName, const std::string &from,
                                  const std::string &to, const QueueChanges &changes);
// Deletes a queue: refused while it is open (RC_OBJECT_IN_USE) or, unless
// purge, while messages are on it (RC_Q_NOT_EMPTY).
QM_ADMIN_EXPORT int32_t deleteQueue(const std::string &qmName, const std::string &name, bool purge);
// Removes every message of a local queue: refused while it is open.
QM_ADMIN_EXPORT int32_t clearQueue(const std::string &qmName, const std::string &name);
// The names of the queues that match `pattern` (a name, or a prefix followed
// by '*'; "*" alone matches every name), in name order; queueType 0 lists
// both types, QTYPE_LOCAL or QTYPE_MODEL only that one.
QM_ADMIN_EXPORT int32_t listQueues(const std::string &qmName, const std::string &pattern,
                                   int32_t queueType, std::vector<std::string> *names);
QM_ADMIN_EXPORT int32_t queueAttributes(const std::string &qmName, const std::string &name,
                                        QueueDefinition *definition);
QM_ADMIN_EXPORT int32_t queueStatus(const std::string &qmName, const std::string &name,
                                    QueueStatus *status);

// What a store failure was about: what a person does next depends on it.
enum class StoreProblem : int32_t {
  kOther = 0,
  kPermission,        // the file or directory may not be read or written
  kReadOnly,          // the file or its file system is read-only
  kFull,              // the file system is full
  kNotADatabase,      // the file is not a database
  kDamaged,           // the database is damaged
  kBusy,              // other processes held the database beyond the busy timeout
  kUnsafeDirectory,   // the directory is another user's, or others may write it
  kMissingDirectory,  // the data directory's parent does not exist
  kNotADirectory,     // the data directory names something else
};

// The last failure of a queue manager's store in this process.
struct StoreFailure {
  // RC_STORE_ERROR, RC_STORE_FULL, RC_STORE_READ_ONLY; from a database
  // server also RC_Q_MGR_NOT_AVAILABLE and RC_CONNECTION_BROKEN.
  int32_t reason = RC_NONE;
  StoreProblem problem = StoreProblem::kOther;
  std::string path;     // the file or directory, or the server's database and schema
  std::string action;   // what the store was doing ("opening the database")
  std::string cause;    // the database engine's or the system's own words
  bool server = false;  // the store is a database server's, not files
};

// The last store failure of the queue manager `qmName` in this process
// (since it was first named here, even when it could not be made), in
// *failure; false when there was none.  The reason a call returns cannot
// carry the file and its cause: a caller that got a store reason reads them
// here.
QM_ADMIN_EXPORT bool lastStoreFailure(const std::string &qmName, StoreFailure *failure);

}  // namespace admin
}  // namespace vxqm

#endif  // VX_QM_ADMIN_H
