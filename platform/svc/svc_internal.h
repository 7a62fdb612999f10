// Pieces shared by the common-services sources; not part of the contract.
#ifndef VX_SVC_INTERNAL_H
#define VX_SVC_INTERNAL_H

#include <cstdint>
#include <string>

namespace svc {

// Where files of one kind go: the directory, and how many of its last
// components the services own (made by them, and checked as private).
struct DirectorySetting {
  std::string path;
  int ownedComponents;
};

// Settings read from the environment when the services are loaded, and again
// by svcReadFileSettings; each returns a copy.
DirectorySetting traceDirectorySetting();
DirectorySetting reportDirectorySetting();
std::int64_t traceFileCapSetting();  // bytes

// Reads the settings above from the environment.
void readFileSettings();

// The path strings handed out by svcTraceDirectory and svcReportDirectory.
const char *traceDirectoryText();
const char *reportDirectoryText();

// Forget the open trace file and the checked directories, so that the next
// line or report starts from the settings afresh.
void restartTraceFile();
void restartReportFiles();

// A directory that only the process's user can reach: a real directory, owned
// by the effective user and writable by nobody else.  The components the
// services own are made with mode 0700 and reached one at a time without
// following a link.  The directory is opened on first use and kept open, and
// files are opened relative to it, so renaming or replacing the path later
// leads nowhere else.  When the directory or a file in it cannot be used,
// files of its kind are switched off for the process, with one line on
// standard error.  Not thread-safe: its owner guards it.
class PrivateDirectory {
 public:
  explicit PrivateDirectory(const char *kind) : kind_(kind) {}
  PrivateDirectory(const PrivateDirectory &) = delete;
  PrivateDirectory &operator=(const PrivateDirectory &) = delete;
  ~PrivateDirectory();

  // Starts again from `setting`: closes the directory and forgets a refusal.
  void reset(const DirectorySetting &setting);
  // The open directory, or -1 when files of this kind are switched off.
  int descriptor();
  // Switches files of this kind off; `what` and `why` go on the line.
  void refuse(const std::string &what, const std::string &why);
  // The path of a file in the directory, for messages.
  std::string pathOf(const std::string &name) const { return setting_.path + "/" + name; }

 private:
  const char *kind_;
  DirectorySetting setting_;
  int descriptor_ = -1;
  bool refused_ = false;
};

// Opens a file of the directory for appending, created with mode 0600 if
// missing, never through a link; an existing file must be a regular file of
// the user and loses any permission for group and others.  Returns the
// descriptor, or -1 after refusing the directory.
int openPrivateFile(PrivateDirectory &directory, const std::string &name);

// One line on standard error, written at once.
void warn(const std::string &line);

// Writes all of `length` bytes; false when the file takes no more.
bool writeAll(int descriptor, const char *bytes, std::size_t length);

// Name of a function number from the registered table ("function N" if none).
std::string functionName(std::int32_t function);

// "HH:MM:SS.uuuuuu pid.tid", the prefix of trace lines and report headers.
std::string timeAndThread();

// Bytes as lines of 16: offset, hex in groups of four, characters; each line
// starts with `indent` and ends with a newline.
std::string hexLines(const unsigned char *data, std::int32_t length, const char *indent);

// The handle region of a 64-bit process (handle_region.cpp), behind
// svcGetHandleMem.  The region is reserved only when a slot is first asked
// for, so in a 32-bit process, which never asks, it contains nothing.
// A free slot of at least `size` bytes, or null.
void *regionGet(std::int32_t component, std::int32_t function, std::int32_t size);
// Whether the address lies in a reserved chunk of the region.
bool regionContains(const void *address);
// Releases a slot in use; false when the address is not one.
bool regionFree(void *block);
// Whether [start, last] lies within one slot in use (false outside the region).
bool regionRangeLive(std::uintptr_t start, std::uintptr_t last);
// Adds the region's blocks and bytes of a component (and function, or -1).
void regionUsage(std::int32_t component, std::int32_t function, std::int32_t *blocks,
                 std::int64_t *bytes);
// Finds a slot in use of a component's function.
bool regionLiveBlock(std::int32_t component, std::int32_t function, void **block);
void regionTotals(std::int64_t *liveSlots, std::int64_t *reservedBytes);

}  // namespace svc

#endif
