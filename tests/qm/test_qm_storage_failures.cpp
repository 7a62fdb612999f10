// Storage failing under the SQLite store: a full disk, a database that
// cannot be written and an I/O error, each reported by its own reason from
// the entries and the administration interface; nothing stored before is
// lost, no message is half written, a unit of work whose commit fails is
// whole or not at all, and the queue manager works again as soon as the
// cause is gone, in the same process.
//
// The faults come from a file system of SQLite's own (a VFS) that wraps the
// default one and is made the default before any queue manager opens its
// store: armed, it fails the writes or syncs of the files of one database
// (the one on disk, or the companion in memory), from the n-th write on.
// Where the machine lets the test mount a tmpfs, a real full file system and
// a real read-only one are used as well.
#include <gtest/gtest.h>
#include <sqlite3.h>
#include <stdlib.h>
#include <sys/mount.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "qm_admin.h"
#include "qm_testing.h"

namespace {

using qmtest::Connection;
using qmtest::failed;
using qmtest::ok;
using qmtest::Status;

constexpr const char *kQm = "SQM";
constexpr const char *kQueue = "STORED";

// ---------------------------------------------------------------------------
// The faulty file system.

// Which database's files a fault hits.
enum Target : int { kNone = -1, kDisk = 0, kCompanion = 1, kTargets = 2 };

// One target's fault.  Written by the test's thread while no call of the
// queue manager runs; read by SQLite under the queue manager's mutex.
struct Fault {
  std::atomic<int> writeResult{SQLITE_OK};  // what a write returns once armed
  std::atomic<int> syncResult{SQLITE_OK};   // what a sync returns
  std::atomic<int> writesBefore{0};         // writes that still pass before the fault
  std::atomic<int> writes{0};               // writes seen (armed or not)
  std::atomic<int> syncs{0};                // syncs seen
  std::atomic<int> failures{0};             // writes and syncs failed
};

Fault gFaults[kTargets];
// The directories whose files are the targets' (full paths, with a final '/').
std::string gDirectory[kTargets];
sqlite3_vfs *gReal = nullptr;

struct ShimFile {
  sqlite3_file base;
  Target target;
  sqlite3_file *real() { return reinterpret_cast<sqlite3_file *>(this + 1); }
};

ShimFile *shim(sqlite3_file *file) { return reinterpret_cast<ShimFile *>(file); }

Target targetOf(const char *name) {
  if (name == nullptr) return kNone;
  for (int t = 0; t < kTargets; ++t) {
    if (!gDirectory[t].empty() &&
        std::strncmp(name, gDirectory[t].c_str(), gDirectory[t].size()) == 0) {
      return static_cast<Target>(t);
    }
  }
  return kNone;
}

int shimClose(sqlite3_file *file) {
  sqlite3_file *real = shim(file)->real();
  return real->pMethods != nullptr ? real->pMethods->xClose(real) : SQLITE_OK;
}
int shimRead(sqlite3_file *file, void *buffer, int amount, sqlite3_int64 offset) {
  sqlite3_file *real = shim(file)->real();
  return real->pMethods->xRead(real, buffer, amount, offset);
}
int shimWrite(sqlite3_file *file, const void *buffer, int amount, sqlite3_int64 offset) {
  ShimFile *f = shim(file);
  if (f->target != kNone) {
    Fault &fault = gFaults[f->target];
    ++fault.writes;
    const int result = fault.writeResult.load();
    if (result != SQLITE_OK && fault.writesBefore.fetch_sub(1) <= 0) {
      ++fault.failures;
      return result;
    }
  }
  return f->real()->pMethods->xWrite(f->real(), buffer, amount, offset);
}
int shimTruncate(sqlite3_file *file, sqlite3_int64 size) {
  sqlite3_file *real = shim(file)->real();
  return real->pMethods->xTruncate(real, size);
}
int shimSync(sqlite3_file *file, int flags) {
  ShimFile *f = shim(file);
  if (f->target != kNone) {
    Fault &fault = gFaults[f->target];
    ++fault.syncs;
    const int result = fault.syncResult.load();
    if (result != SQLITE_OK) {
      ++fault.failures;
      return result;
    }
  }
  return f->real()->pMethods->xSync(f->real(), flags);
}
int shimFileSize(sqlite3_file *file, sqlite3_int64 *size) {
  sqlite3_file *real = shim(file)->real();
  return real->pMethods->xFileSize(real, size);
}
int shimLock(sqlite3_file *file, int level) {
  sqlite3_file *real = shim(file)->real();
  return real->pMethods->xLock(real, level);
}
int shimUnlock(sqlite3_file *file, int level) {
  sqlite3_file *real = shim(file)->real();
  return real->pMethods->xUnlock(real, level);
}
int shimCheckReservedLock(sqlite3_file *file, int *out) {
  sqlite3_file *real = shim(file)->real();
  return real->pMethods->xCheckReservedLock(real, out);
}
int shimFileControl(sqlite3_file *file, int op, void *argument) {
  sqlite3_file *real = shim(file)->real();
  return real->pMethods->xFileControl(real, op, argument);
}
int shimSectorSize(sqlite3_file *file) {
  sqlite3_file *real = shim(file)->real();
  return real->pMethods->xSectorSize(real);
}
int shimDeviceCharacteristics(sqlite3_file *file) {
  sqlite3_file *real = shim(file)->real();
  return real->pMethods->xDeviceCharacteristics(real);
}
int shimShmMap(sqlite3_file *file, int page, int pageSize, int extend, void volatile **out) {
  sqlite3_file *real = shim(file)->real();
  return real->pMethods->xShmMap(real, page, pageSize, extend, out);
}
int shimShmLock(sqlite3_file *file, int offset, int n, int flags) {
  sqlite3_file *real = shim(file)->real();
  return real->pMethods->xShmLock(real, offset, n, flags);
}
void shimShmBarrier(sqlite3_file *file) {
  sqlite3_file *real = shim(file)->real();
  real->pMethods->xShmBarrier(real);
}
int shimShmUnmap(sqlite3_file *file, int deleteFlag) {
  sqlite3_file *real = shim(file)->real();
  return real->pMethods->xShmUnmap(real, deleteFlag);
}
int shimFetch(sqlite3_file *file, sqlite3_int64 offset, int amount, void **out) {
  sqlite3_file *real = shim(file)->real();
  return real->pMethods->xFetch(real, offset, amount, out);
}
int shimUnfetch(sqlite3_file *file, sqlite3_int64 offset, void *pointer) {
  sqlite3_file *real = shim(file)->real();
  return real->pMethods->xUnfetch(real, offset, pointer);
}

const sqlite3_io_methods kShimMethods = {
    3,
    shimClose,
    shimRead,
    shimWrite,
    shimTruncate,
    shimSync,
    shimFileSize,
    shimLock,
    shimUnlock,
    shimCheckReservedLock,
    shimFileControl,
    shimSectorSize,
    shimDeviceCharacteristics,
    shimShmMap,
    shimShmLock,
    shimShmBarrier,
    shimShmUnmap,
    shimFetch,
    shimUnfetch,
};

int shimOpen(sqlite3_vfs * /*vfs*/, sqlite3_filename name, sqlite3_file *file, int flags,
             int *outFlags) {
  ShimFile *f = shim(file);
  f->base.pMethods = nullptr;
  f->target = targetOf(name);
  sqlite3_file *real = f->real();
  std::memset(real, 0, static_cast<size_t>(gReal->szOsFile));
  const int result = gReal->xOpen(gReal, name, real, flags, outFlags);
  if (result != SQLITE_OK) {
    if (real->pMethods != nullptr) real->pMethods->xClose(real);
    return result;
  }
  f->base.pMethods = &kShimMethods;
  return SQLITE_OK;
}

// Everything but the files goes to the real file system unchanged.
int shimDelete(sqlite3_vfs *, const char *name, int syncDirectory) {
  return gReal->xDelete(gReal, name, syncDirectory);
}
int shimAccess(sqlite3_vfs *, const char *name, int flags, int *out) {
  return gReal->xAccess(gReal, name, flags, out);
}
int shimFullPathname(sqlite3_vfs *, const char *name, int length, char *out) {
  return gReal->xFullPathname(gReal, name, length, out);
}
void *shimDlOpen(sqlite3_vfs *, const char *name) { return gReal->xDlOpen(gReal, name); }
void shimDlError(sqlite3_vfs *, int length, char *out) { gReal->xDlError(gReal, length, out); }
void (*shimDlSym(sqlite3_vfs *, void *library, const char *symbol))(void) {
  return gReal->xDlSym(gReal, library, symbol);
}
void shimDlClose(sqlite3_vfs *, void *library) { gReal->xDlClose(gReal, library); }
int shimRandomness(sqlite3_vfs *, int length, char *out) {
  return gReal->xRandomness(gReal, length, out);
}
int shimSleep(sqlite3_vfs *, int microseconds) { return gReal->xSleep(gReal, microseconds); }
int shimCurrentTime(sqlite3_vfs *, double *out) { return gReal->xCurrentTime(gReal, out); }
int shimGetLastError(sqlite3_vfs *, int length, char *out) {
  return gReal->xGetLastError(gReal, length, out);
}
int shimCurrentTimeInt64(sqlite3_vfs *, sqlite3_int64 *out) {
  return gReal->xCurrentTimeInt64(gReal, out);
}

sqlite3_vfs gShim;

// Makes the faulty file system SQLite's default, once, before any store opens.
void installShim() {
  if (gReal != nullptr) return;
  gReal = sqlite3_vfs_find(nullptr);
  ASSERT_NE(gReal, nullptr);
  ASSERT_GE(gReal->iVersion, 2);
  gShim.iVersion = 2;
  gShim.szOsFile = static_cast<int>(sizeof(ShimFile)) + gReal->szOsFile;
  gShim.mxPathname = gReal->mxPathname;
  gShim.zName = "vxqm-faulty";
  gShim.xOpen = shimOpen;
  gShim.xDelete = shimDelete;
  gShim.xAccess = shimAccess;
  gShim.xFullPathname = shimFullPathname;
  gShim.xDlOpen = shimDlOpen;
  gShim.xDlError = shimDlError;
  gShim.xDlSym = shimDlSym;
  gShim.xDlClose = shimDlClose;
  gShim.xRandomness = shimRandomness;
  gShim.xSleep = shimSleep;
  gShim.xCurrentTime = shimCurrentTime;
  gShim.xGetLastError = shimGetLastError;
  gShim.xCurrentTimeInt64 = shimCurrentTimeInt64;
  ASSERT_EQ(sqlite3_vfs_register(&gShim, 1), SQLITE_OK);
}

// Writes to the target's files fail with `result` after `writesBefore` more
// pass, until lifted.
void failWrites(Target target, int result, int writesBefore = 0) {
  gFaults[target].writesBefore = writesBefore;
  gFaults[target].writeResult = result;
}
void failSyncs(Target target, int result) { gFaults[target].syncResult = result; }
void lift() {
  for (Fault &fault : gFaults) {
    fault.writeResult = SQLITE_OK;
    fault.syncResult = SQLITE_OK;
    fault.writesBefore = 0;
  }
}

// ---------------------------------------------------------------------------
// Messages and what the queue holds.

// A message as the test put it: its data and the descriptor fields the
// queue manager must give back as they were.
struct Expected {
  std::string data;
  char msgId[MSG_ID_LENGTH];
  char correlId[CORREL_ID_LENGTH];
  int32_t persistence;
};

// Data of `size` bytes that tell which message they belong to everywhere.
std::string payload(int number, size_t size) {
  std::string data(size, '\0');
  for (size_t i = 0; i < size; ++i) {
    data[i] = static_cast<char>('a' + (static_cast<size_t>(number) * 7 + i) % 26);
  }
  const std::string tag = "#" + std::to_string(number) + "#";
  data.replace(0, std::min(tag.size(), size), tag, 0, std::min(tag.size(), size));
  return data;
}

vxMSGDESC descriptorFor(int number, int32_t persistence) {
  vxMSGDESC md = MD_DEFAULT;
  md.persistence = persistence;
  md.priority = 4;
  md.codedCharSetId = 1208;
  std::memcpy(md.format, "VXSTRING", FORMAT_LENGTH);
  std::snprintf(md.correlId, sizeof md.correlId, "correl-%d", number);
  qmtest::setField(md.replyToQ, sizeof md.replyToQ, "REPLY." + std::to_string(number));
  return md;
}

constexpr int32_t kBuffer = 1 << 20;

class StorageFailures : public ::testing::Test {
 protected:
  void SetUp() override {
    installShim();
    lift();
    data_ = temporaryDirectory("vxqm-data");
    memory_ = temporaryDirectory("vxqm-memory");
    begin(data_, memory_);
  }

  void TearDown() override {
    lift();
    restart();
    unsetenv("VXQM_DATA");
    vxqm::test::reset(kQm);  // back in memory: the files can go
    for (int t = 0; t < kTargets; ++t) gDirectory[t].clear();
    for (const std::string &mounted : mounts_) umount2(mounted.c_str(), MNT_DETACH);
    std::filesystem::remove_all(data_);
    std::filesystem::remove_all(memory_);
  }

  static std::string temporaryDirectory(const char *stem) {
    std::string pattern = std::string("/tmp/") + stem + "-XXXXXX";
    if (mkdtemp(pattern.data()) == nullptr) return {};
    return std::filesystem::canonical(pattern).string();
  }

  // The queue manager opened again, as a restart of the machine does (only
  // definitions and persistent messages are left) or as a reset does.
  void restart() {
    browser_.reset();
    vxqm::test::restart(kQm);
    std::erase_if(expected_,
                  [](const Expected &e) { return e.persistence != PERSISTENCE_PERSISTENT; });
  }
  void reset() {
    browser_.reset();
    vxqm::test::reset(kQm);
  }

  // A queue manager over these directories, with the test's queue.
  void begin(const std::string &data, const std::string &memory) {
    gDirectory[kDisk] = data + "/";
    gDirectory[kCompanion] = memory + "/";
    setenv("VXQM_DATA", data.c_str(), 1);
    setenv("VXQM_MEMORY_DIR", memory.c_str(), 1);
    reset();
    vxqm::QueueChanges changes;
    changes.maxDepth = 100000;
    changes.maxMsgLength = kBuffer;
    ASSERT_EQ(vxqm::admin::createQueue(kQm, kQueue, changes), RC_NONE);
    openBrowser();
  }

  // Puts message `number`; on success it is expected on the queue.
  Status put(Connection &c, int32_t hobj, int number, int32_t persistence, size_t size = 3000,
             int32_t options = 0) {
    vxMSGDESC md = descriptorFor(number, persistence);
    const std::string data = payload(number, size);
    const Status s = c.put(hobj, data, &md, options);
    if (s == ok() && (options & PUT_SYNCPOINT) == 0) remember(md, data);
    return s;
  }

  // Messages 0 .. count-1, persistent and not in turn.
  void putMixed(Connection &c, int32_t hobj, int count) {
    for (int i = 0; i < count; ++i) {
      ASSERT_EQ(put(c, hobj, i, i % 2 == 0 ? PERSISTENCE_PERSISTENT : PERSISTENCE_NOT_PERSISTENT),
                ok());
    }
  }

  void remember(const vxMSGDESC &md, const std::string &data) {
    Expected e;
    e.data = data;
    std::memcpy(e.msgId, md.msgId, MSG_ID_LENGTH);
    std::memcpy(e.correlId, md.correlId, CORREL_ID_LENGTH);
    e.persistence = md.persistence;
    expected_.push_back(e);
  }

  static int32_t depth() {
    vxqm::QueueStatus status;
    EXPECT_EQ(vxqm::admin::queueStatus(kQm, kQueue, &status), RC_NONE);
    return status.depth;
  }

  // The queue holds exactly the expected messages, in their order, each whole:
  // its data and its descriptor as put.  Browses with a handle opened before
  // any fault (an open writes to the companion), so it changes nothing and
  // works while writes fail.
  void openBrowser() {
    if (browser_) return;
    browser_ = std::make_unique<Connection>(kQm);
    browseHandle_ = browser_->open(kQueue, OPEN_BROWSE);
  }
  // The depth counts uncommitted messages too: `depthOf` when some are.
  void expectIntact(const char *when, int32_t depthOf = -1) {
    SCOPED_TRACE(when);
    EXPECT_EQ(depth(), depthOf >= 0 ? depthOf : static_cast<int32_t>(expected_.size()));
    openBrowser();
    Connection &c = *browser_;
    const int32_t hobj = browseHandle_;
    size_t seen = 0;
    for (int32_t option = GET_BROWSE_FIRST;; option = GET_BROWSE_NEXT) {
      vxMSGDESC md = MD_DEFAULT;
      std::string data;
      const Status s = c.get(hobj, &data, option, 0, &md, kBuffer);
      if (s == failed(RC_NO_MSG_AVAILABLE)) break;
      ASSERT_EQ(s, ok());
      ASSERT_LT(seen, expected_.size()) << "a message that was never put: " << data.substr(0, 12);
      const Expected &e = expected_[seen];
      EXPECT_TRUE(data == e.data) << "message " << seen << " is not whole: " << data.size()
                                  << " bytes, " << e.data.size() << " put";
      EXPECT_EQ(std::memcmp(md.msgId, e.msgId, MSG_ID_LENGTH), 0) << "message " << seen;
      EXPECT_EQ(std::memcmp(md.correlId, e.correlId, CORREL_ID_LENGTH), 0) << "message " << seen;
      EXPECT_EQ(md.persistence, e.persistence) << "message " << seen;
      EXPECT_EQ(md.priority, 4);
      EXPECT_EQ(md.codedCharSetId, 1208);
      EXPECT_EQ(std::memcmp(md.format, "VXSTRING", FORMAT_LENGTH), 0);
      EXPECT_EQ(qmtest::field(md.replyToQ, sizeof md.replyToQ),
                "REPLY." + std::string(e.correlId + 7));
      EXPECT_EQ(md.backoutCount, 0);
      ++seen;
    }
    EXPECT_EQ(seen, expected_.size()) << "messages were lost";
  }

  // Mounts a tmpfs of `size` at a new directory; empty (with the reason in
  // *why) when this machine does not let the test mount one.
  std::string mountTmpfs(const char *stem, const char *size, std::string *why) {
    const std::string directory = temporaryDirectory(stem);
    const std::string options = std::string("size=") + size + ",mode=0700";
    if (mount("tmpfs", directory.c_str(), "tmpfs", 0, options.c_str()) != 0) {
      *why = std::string("mount -t tmpfs -o size=") + size + " is not permitted here (" +
             std::strerror(errno) + ")";
      std::filesystem::remove(directory);
      return {};
    }
    mounts_.push_back(directory);
    return directory;
  }

  std::string data_;
  std::string memory_;
  std::vector<Expected> expected_;
  std::vector<std::string> mounts_;
  std::unique_ptr<Connection> browser_;
  int32_t browseHandle_ = 0;
};

// ---------------------------------------------------------------------------
// A full disk.

TEST_F(StorageFailures, AFullDiskRefusesAPersistentPutAndLosesNothing) {
  Connection c(kQm);
  int32_t hobj = c.open(kQueue, OPEN_OUTPUT);
  ASSERT_NO_FATAL_FAILURE(putMixed(c, hobj, 6));
  failWrites(kDisk, SQLITE_FULL);
  EXPECT_EQ(put(c, hobj, 100, PERSISTENCE_PERSISTENT), failed(RC_STORE_FULL));
  EXPECT_EQ(put(c, hobj, 101, PERSISTENCE_PERSISTENT, 200000), failed(RC_STORE_FULL));
  EXPECT_GT(gFaults[kDisk].failures.load(), 0) << "the fault was never met";
  // The one-call put: its open, put and close are undone together.
  {
    vxMSGDESC md = descriptorFor(102, PERSISTENCE_PERSISTENT);
    vxOBJDESC od = qmtest::objectDescriptor(kQueue);
    vxPUTOPTS pmo = PMO_DEFAULT;
    Status s;
    std::string data = payload(102, 100);
    qmPUT1(c.hconn(), &od, &md, &pmo, static_cast<int32_t>(data.size()), data.data(), &s.compCode,
           &s.reason);
    EXPECT_EQ(s, failed(RC_STORE_FULL));
  }
  // Administration that writes to the disk is refused; what reads is not.
  EXPECT_EQ(vxqm::admin::createQueue(kQm, "NEW.QUEUE", {}), RC_STORE_FULL);
  vxqm::QueueChanges changes;
  changes.description = "changed while full";
  EXPECT_EQ(vxqm::admin::changeQueue(kQm, kQueue, changes), RC_STORE_FULL);
  std::vector<std::string> names;
  EXPECT_EQ(vxqm::admin::listQueues(kQm, "*", 0, &names), RC_NONE);
  EXPECT_EQ(std::count(names.begin(), names.end(), "NEW.QUEUE"), 0);
  vxqm::QueueDefinition definition;
  EXPECT_EQ(vxqm::admin::queueAttributes(kQm, kQueue, &definition), RC_NONE);
  EXPECT_EQ(definition.description, "");
  vxqm::QueueStatus status;
  ASSERT_EQ(vxqm::admin::queueStatus(kQm, kQueue, &status), RC_NONE);
  EXPECT_EQ(status.openOutputCount, 1) << "the failed one-call put left its handle";
  // The companion is not full: a non-persistent put still goes.
  EXPECT_EQ(put(c, hobj, 6, PERSISTENCE_NOT_PERSISTENT), ok());
  expectIntact("while the disk is full");

  lift();  // room is made
  EXPECT_EQ(put(c, hobj, 7, PERSISTENCE_PERSISTENT), ok());
  EXPECT_EQ(vxqm::admin::createQueue(kQm, "NEW.QUEUE", {}), RC_NONE);
  EXPECT_EQ(vxqm::admin::changeQueue(kQm, kQueue, changes), RC_NONE);
  expectIntact("once there is room");
  restart();  // what is on disk is whole too
  expectIntact("after a restart");
}

TEST_F(StorageFailures, AFullCompanionRefusesANonPersistentPut) {
  Connection c(kQm);
  int32_t hobj = c.open(kQueue, OPEN_OUTPUT);
  ASSERT_NO_FATAL_FAILURE(putMixed(c, hobj, 4));
  failWrites(kCompanion, SQLITE_FULL);
  EXPECT_EQ(put(c, hobj, 100, PERSISTENCE_NOT_PERSISTENT), failed(RC_STORE_FULL));
  // A persistent put writes only to the disk.
  EXPECT_EQ(put(c, hobj, 4, PERSISTENCE_PERSISTENT), ok());
  // An open is a row of the companion.
  Connection other(kQm);
  other.open(kQueue, OPEN_INPUT_SHARED, failed(RC_STORE_FULL));
  vxqm::QueueStatus status;
  ASSERT_EQ(vxqm::admin::queueStatus(kQm, kQueue, &status), RC_NONE);
  EXPECT_EQ(status.openInputCount, 0);
  EXPECT_EQ(status.depth, 5);

  lift();
  EXPECT_EQ(put(c, hobj, 5, PERSISTENCE_NOT_PERSISTENT), ok());
  int32_t in = other.open(kQueue, OPEN_INPUT_SHARED);
  EXPECT_NE(in, 0);
  expectIntact("once the companion has room");
}

// A real full file system: the database on a tmpfs of 1 MiB, filled by
// persistent puts; then the companion on one of its own, filled by
// non-persistent ones.  Removing a file made beforehand makes room.
TEST_F(StorageFailures, ARealFullFileSystem) {
  std::string why;
  const std::string disk = mountTmpfs("vxqm-full-disk", "1m", &why);
  if (disk.empty()) GTEST_SKIP() << why;
  const std::string memory = mountTmpfs("vxqm-full-memory", "1m", &why);
  if (memory.empty()) GTEST_SKIP() << why;
  begin(disk + "/data", memory);
  const std::string filler[] = {disk + "/filler", memory + "/filler"};
  for (const std::string &file : filler) {
    std::ofstream(file) << std::string(256 * 1024, 'x');
  }
  int number = 0;
  for (int32_t persistence : {PERSISTENCE_PERSISTENT, PERSISTENCE_NOT_PERSISTENT}) {
    SCOPED_TRACE(persistence == PERSISTENCE_PERSISTENT ? "persistent" : "not persistent");
    Connection c(kQm);
    int32_t hobj = c.open(kQueue, OPEN_OUTPUT);
    Status s;
    while ((s = put(c, hobj, number, persistence, 20000)) == ok() && number < 200) ++number;
    EXPECT_EQ(s, failed(RC_STORE_FULL)) << "after " << number << " puts";
    EXPECT_EQ(put(c, hobj, number, persistence, 20000), failed(RC_STORE_FULL)) << "again";
    expectIntact("while full");
    std::filesystem::remove(filler[persistence == PERSISTENCE_PERSISTENT ? 0 : 1]);
    EXPECT_EQ(put(c, hobj, number++, persistence, 20000), ok()) << "once there is room";
    expectIntact("once there is room");
  }
}

// ---------------------------------------------------------------------------
// A database that cannot be written.

TEST_F(StorageFailures, ADatabaseThatCannotBeWrittenIsReadOnly) {
  Connection c(kQm);
  int32_t hobj = c.open(kQueue, OPEN_OUTPUT | OPEN_INPUT_SHARED);
  ASSERT_NO_FATAL_FAILURE(putMixed(c, hobj, 4));
  failWrites(kDisk, SQLITE_READONLY);
  EXPECT_EQ(put(c, hobj, 100, PERSISTENCE_PERSISTENT), failed(RC_STORE_READ_ONLY));
  EXPECT_EQ(vxqm::admin::createQueue(kQm, "NEW.QUEUE", {}), RC_STORE_READ_ONLY);
  vxqm::QueueChanges changes;
  changes.description = "changed while read-only";
  EXPECT_EQ(vxqm::admin::changeQueue(kQm, kQueue, changes), RC_STORE_READ_ONLY);
  // The first message is persistent: a get removes it from the disk.
  std::string data;
  EXPECT_EQ(c.get(hobj, &data, 0, 0, nullptr, kBuffer), failed(RC_STORE_READ_ONLY));
  expectIntact("while read-only");  // reading calls still work

  lift();
  EXPECT_EQ(c.get(hobj, &data, 0, 0, nullptr, kBuffer), ok());
  EXPECT_EQ(data, expected_.front().data);
  expected_.erase(expected_.begin());
  EXPECT_EQ(put(c, hobj, 4, PERSISTENCE_PERSISTENT), ok());
  expectIntact("once writable");
}

// A read-only file system: the queue manager opened again (a reset) finds
// its database on one, and works again once the file system is writable.
TEST_F(StorageFailures, ARealReadOnlyFileSystem) {
  std::string why;
  const std::string disk = mountTmpfs("vxqm-ro-disk", "4m", &why);
  if (disk.empty()) GTEST_SKIP() << why;
  const std::string data = disk + "/data";
  begin(data, memory_);
  {
    Connection c(kQm);
    int32_t hobj = c.open(kQueue, OPEN_OUTPUT);
    for (int i = 0; i < 4; ++i) ASSERT_EQ(put(c, hobj, i, PERSISTENCE_PERSISTENT), ok());
  }
  // Its store closes (elsewhere for a moment) so that the file system can
  // be made read-only.
  setenv("VXQM_DATA", data_.c_str(), 1);
  reset();
  ASSERT_EQ(mount(nullptr, disk.c_str(), nullptr, MS_REMOUNT | MS_RDONLY, nullptr), 0)
      << std::strerror(errno);
  setenv("VXQM_DATA", data.c_str(), 1);
  reset();
  std::vector<std::string> names;
  const int32_t listed = vxqm::admin::listQueues(kQm, "*", 0, &names);
  EXPECT_EQ(listed, RC_STORE_READ_ONLY) << qmtest::reasonName(listed);
  {
    char name[QM_NAME_LENGTH] = {};
    qmtest::setField(name, sizeof name, kQm);
    int32_t hconn = -1;
    Status s;
    qmCONN(name, &hconn, &s.compCode, &s.reason, 0);
    EXPECT_EQ(s, failed(RC_STORE_READ_ONLY));
  }
  ASSERT_EQ(mount(nullptr, disk.c_str(), nullptr, MS_REMOUNT, nullptr), 0) << std::strerror(errno);
  expectIntact("once the file system is writable");
  Connection c(kQm);
  int32_t hobj = c.open(kQueue, OPEN_OUTPUT);
  EXPECT_EQ(put(c, hobj, 4, PERSISTENCE_PERSISTENT), ok());
  expectIntact("after a put");
}

// ---------------------------------------------------------------------------
// I/O errors.

TEST_F(StorageFailures, AnIoErrorIsAStoreError) {
  Connection c(kQm);
  int32_t hobj = c.open(kQueue, OPEN_OUTPUT);
  ASSERT_NO_FATAL_FAILURE(putMixed(c, hobj, 4));
  failWrites(kDisk, SQLITE_IOERR_WRITE);
  EXPECT_EQ(put(c, hobj, 100, PERSISTENCE_PERSISTENT), failed(RC_STORE_ERROR));
  EXPECT_EQ(vxqm::admin::createQueue(kQm, "NEW.QUEUE", {}), RC_STORE_ERROR);
  lift();
  failWrites(kCompanion, SQLITE_IOERR_WRITE);
  EXPECT_EQ(put(c, hobj, 101, PERSISTENCE_NOT_PERSISTENT), failed(RC_STORE_ERROR));
  expectIntact("while writes fail");
  lift();
  EXPECT_EQ(put(c, hobj, 4, PERSISTENCE_PERSISTENT), ok());
  EXPECT_EQ(put(c, hobj, 5, PERSISTENCE_NOT_PERSISTENT), ok());
  expectIntact("once the fault is lifted");
}

// A put of a large message fails at each of its writes in turn: the first,
// the second, ... until it needs no more.  Each time, it is there whole or
// not at all, and the next put works.
TEST_F(StorageFailures, AWriteFailingAtEachPointOfAPutLeavesNoHalfMessage) {
  Connection c(kQm);
  int32_t hobj = c.open(kQueue, OPEN_OUTPUT);
  int number = 0;
  for (Target target : {kDisk, kCompanion}) {
    const int32_t persistence =
        target == kDisk ? PERSISTENCE_PERSISTENT : PERSISTENCE_NOT_PERSISTENT;
    for (int before = 0;; ++before) {
      SCOPED_TRACE((target == kDisk ? "disk, write " : "companion, write ") +
                   std::to_string(before + 1));
      failWrites(target, before % 2 == 0 ? SQLITE_IOERR_WRITE : SQLITE_FULL, before);
      const int failuresBefore = gFaults[target].failures.load();
      const Status s = put(c, hobj, number, persistence, 60000);
      const bool failedHere = gFaults[target].failures.load() > failuresBefore;
      lift();
      if (failedHere) {
        EXPECT_EQ(s, failed(before % 2 == 0 ? RC_STORE_ERROR : RC_STORE_FULL));
      } else {
        EXPECT_EQ(s, ok());
      }
      ++number;
      expectIntact("after the failure");
      EXPECT_EQ(put(c, hobj, number++, persistence, 100), ok());
      if (!failedHere) break;
      ASSERT_LT(before, 200) << "the put never got through";
    }
  }
  restart();
  expectIntact("after a restart");
}

// A sync that fails: a commit that syncs fails with it (and leaves nothing);
// one that does not sync is unaffected.  Either way nothing is lost, and a
// queue manager closed while syncs fail (its checkpoint fails) opens again
// whole.
TEST_F(StorageFailures, ASyncFailureLosesNothing) {
  Connection c(kQm);
  int32_t hobj = c.open(kQueue, OPEN_OUTPUT);
  for (int i = 0; i < 4; ++i) ASSERT_EQ(put(c, hobj, i, PERSISTENCE_PERSISTENT), ok());
  failSyncs(kDisk, SQLITE_IOERR_FSYNC);
  const int syncsBefore = gFaults[kDisk].syncs.load();
  const Status s = put(c, hobj, 4, PERSISTENCE_PERSISTENT);
  if (gFaults[kDisk].syncs.load() > syncsBefore) {
    EXPECT_EQ(s, failed(RC_STORE_ERROR)) << "the commit synced, and the sync failed";
    expected_.pop_back();
  } else {
    EXPECT_EQ(s, ok()) << "the commit did not sync";
  }
  expectIntact("while syncs fail");
  lift();
  EXPECT_EQ(put(c, hobj, 5, PERSISTENCE_PERSISTENT), ok());
  failSyncs(kDisk, SQLITE_IOERR_FSYNC);
  reset();  // closes the store: its checkpoint syncs
  lift();
  expectIntact("after a close whose syncs failed");
}

// ---------------------------------------------------------------------------
// Units of work.

int32_t mixed(int n) { return n % 2 == 0 ? PERSISTENCE_PERSISTENT : PERSISTENCE_NOT_PERSISTENT; }
int32_t notPersistent(int) { return PERSISTENCE_NOT_PERSISTENT; }

class StorageFailuresUnits : public StorageFailures {
 protected:
  // Empties the queue, puts messages 0 to 3, and in a unit of `c` gets 0 and
  // 1 and puts 10 to 13 (in puts_).
  void beginUnit(Connection &c, int32_t *hobj, int32_t (*kind)(int)) {
    expected_.clear();
    puts_.clear();
    browser_.reset();  // a queue that is open cannot be cleared
    ASSERT_EQ(vxqm::admin::clearQueue(kQm, kQueue), RC_NONE);
    openBrowser();
    *hobj = c.open(kQueue, OPEN_OUTPUT | OPEN_INPUT_SHARED);
    for (int i = 0; i < 4; ++i) ASSERT_EQ(put(c, *hobj, i, kind(i)), ok());
    std::string data;
    for (size_t i = 0; i < 2; ++i) {
      ASSERT_EQ(c.get(*hobj, &data, GET_SYNCPOINT, 0, nullptr, kBuffer), ok());
      ASSERT_TRUE(data == expected_[i].data);
    }
    for (int i = 10; i < 14; ++i) {
      vxMSGDESC md = descriptorFor(i, kind(i));
      const std::string text = payload(i, 8000);
      ASSERT_EQ(c.put(*hobj, text, &md, PUT_SYNCPOINT), ok());
      Expected e;
      e.data = text;
      std::memcpy(e.msgId, md.msgId, MSG_ID_LENGTH);
      std::memcpy(e.correlId, md.correlId, CORREL_ID_LENGTH);
      e.persistence = md.persistence;
      puts_.push_back(e);
    }
  }

  // What another connection sees: as before the unit (not its puts, not
  // the messages it got), with the unit's rows still counted in the depth.
  void expectUnitNotApplied() {
    std::vector<Expected> unit = expected_;
    expected_.assign(unit.begin() + 2, unit.end());
    // The unit's rows must all still be there.
    expectIntact("a failed commit changed nothing that others see", 8);
    expected_ = unit;
  }

  // The unit committed: its gets gone, its puts available after the rest.
  void expectUnitCommitted() {
    expected_.erase(expected_.begin(), expected_.begin() + 2);
    expected_.insert(expected_.end(), puts_.begin(), puts_.end());
    expectIntact("the unit committed whole");
  }

  std::vector<Expected> puts_;
};

// A unit's commit fails at each of its writes in turn, on the disk with
// persistent and non-persistent messages in the unit, on the companion with
// non-persistent ones.  The commit reports the reason, and the unit is then
// not applied at all: its puts are not available (they still count in the
// depth), its gets not removed.  A second commit, the fault lifted, commits
// it whole.
TEST_F(StorageFailuresUnits, AUnitWhoseCommitFailsIsNotAppliedAtAll) {
  for (Target target : {kDisk, kCompanion}) {
    for (int before = 0;; ++before) {
      SCOPED_TRACE((target == kDisk ? "disk, write " : "companion, write ") +
                   std::to_string(before + 1));
      Connection c(kQm);
      int32_t hobj = 0;
      beginUnit(c, &hobj, target == kDisk ? mixed : notPersistent);
      failWrites(target, before % 2 == 0 ? SQLITE_FULL : SQLITE_IOERR_WRITE, before);
      const int failuresBefore = gFaults[target].failures.load();
      const Status s = c.commit();
      const bool failedHere = gFaults[target].failures.load() > failuresBefore;
      lift();
      if (!failedHere) {
        EXPECT_EQ(s, ok());
        expectUnitCommitted();
        break;
      }
      EXPECT_EQ(s, failed(before % 2 == 0 ? RC_STORE_FULL : RC_STORE_ERROR));
      expectUnitNotApplied();
      EXPECT_EQ(c.commit(), ok());
      expectUnitCommitted();
      ASSERT_LT(before, 200) << "the commit never got through";
    }
  }
}

// The same unit backed out after its commit failed: nothing of it remains,
// and the messages it got are back, in their place, one backout higher.
TEST_F(StorageFailuresUnits, AUnitBackedOutAfterAFailedCommitLeavesNothing) {
  for (Target target : {kDisk, kCompanion}) {
    SCOPED_TRACE(target == kDisk ? "disk" : "companion");
    Connection c(kQm);
    int32_t hobj = 0;
    beginUnit(c, &hobj, target == kDisk ? mixed : notPersistent);
    failWrites(target, SQLITE_FULL);
    EXPECT_EQ(c.commit(), failed(RC_STORE_FULL));
    lift();
    EXPECT_EQ(c.backout(), ok());
    Connection other(kQm);
    int32_t in = other.open(kQueue, OPEN_BROWSE);
    std::vector<std::string> seen;
    std::string data;
    for (int32_t option = GET_BROWSE_FIRST;; option = GET_BROWSE_NEXT) {
      vxMSGDESC md = MD_DEFAULT;
      if (other.get(in, &data, option, 0, &md, kBuffer) != ok()) break;
      seen.push_back(data.substr(0, 3) + ":" + std::to_string(md.backoutCount));
    }
    EXPECT_EQ(seen, (std::vector<std::string>{"#0#:1", "#1#:1", "#2#:0", "#3#:0"}));
    EXPECT_EQ(depth(), 4);
  }
}

// A unit of both kinds whose commit fails on the companion: SQLite commits
// the two databases one after the other (the disk first), so the disk's part
// may be committed when the companion's fails (docs/persistence.md,
// "Limits").  The commit reports the reason and the unit stays open; a
// second commit, the cause gone, makes it whole.
TEST_F(StorageFailuresUnits, AUnitOfBothKindsIsWholeOnceItsCommitIsMadeAgain) {
  for (int before = 0;; ++before) {
    SCOPED_TRACE("companion, write " + std::to_string(before + 1));
    Connection c(kQm);
    int32_t hobj = 0;
    beginUnit(c, &hobj, mixed);
    failWrites(kCompanion, SQLITE_FULL, before);
    const int failuresBefore = gFaults[kCompanion].failures.load();
    const Status s = c.commit();
    const bool failedHere = gFaults[kCompanion].failures.load() > failuresBefore;
    lift();
    if (!failedHere) {
      EXPECT_EQ(s, ok());
      expectUnitCommitted();
      break;
    }
    EXPECT_EQ(s, failed(RC_STORE_FULL));
    EXPECT_EQ(c.commit(), ok());
    expectUnitCommitted();
    ASSERT_LT(before, 200) << "the commit never got through";
  }
}

}  // namespace
