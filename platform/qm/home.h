// Where a queue manager lives, chosen when it is made in a process.
//
// When the environment variable VXQM_DATA names a directory, the queue
// manager is shared by every process that names the same directory: its
// store is the SQLite store, with the database `<dir>/<qmName>.db` on disk
// and its companion in storage in memory, beside the file of wake counts
// (/dev/shm/vxqm-<hash>-<qmName>.db and .wake, the hash that of the
// directory's full path; VXQM_MEMORY_DIR names another directory than
// /dev/shm, and without either the data directory serves).  A persistent
// change is on disk when its call returns, unless VXQM_SYNC is "normal":
// then it survives the death of its process, not a crash of the machine.
// When VXQM_DATA is a postgresql:// or postgres:// URI, the queue manager
// lives in the schema of its name in that database, shared by every
// process on every host that names it (docs/persistence.md): no data
// directory and no file in memory.  Otherwise (unset or empty) it lives in
// the memory of its process, and its waits need nothing shared.
#ifndef VX_QM_HOME_H
#define VX_QM_HOME_H

#include <memory>
#include <string>

#include "store.h"
#include "waker.h"

namespace vxqm {

struct Home {
  std::unique_ptr<Store> store;
  std::unique_ptr<Waker> waker;  // null: the queue manager's waits stay in its process
};

// With a data directory, refuses a name that is no file name of it (one with
// '/' or that begins with '.': RC_Q_MGR_NAME_ERROR), makes the directory
// when it is missing and its parent exists (mode 0700), and refuses one that
// another user owns or that others may write.  Throws Failure (RC_STORE_ERROR,
// RC_STORE_FULL or RC_STORE_READ_ONLY, the account kept for
// admin::lastStoreFailure) when the directory or its files cannot be used.
Home openHome(const std::string &qmName);

// Whether a queue manager's name may name its files in a data directory:
// no '/' and no '.' first.
bool isFileName(const std::string &qmName);

// Removes what the queue manager keeps in storage in memory, as a restart of
// the machine does, or empties its unlogged tables, as a crash of its
// PostgreSQL server does (test hooks).  Nothing to do without VXQM_DATA.
void removeMemoryFiles(const std::string &qmName);

}  // namespace vxqm

#endif  // VX_QM_HOME_H
