// Trace: readable lines in one file per process, or in memory for tests.
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <deque>
#include <mutex>
#include <string>

#include "svc.h"
#include "svc_internal.h"

namespace {

struct Captured {
  std::int32_t component;
  std::int32_t function;
  bool isData;
  std::string bytes;
};

// The name table is registered once, when the product library is loaded.
const char (*gNames)[40] = nullptr;
std::int32_t gNameRows = 0;

std::mutex gTraceLock;
bool gCapturing = false;         // guarded by gTraceLock
std::deque<Captured> gCaptured;  // guarded by gTraceLock; a deque keeps
                                 // addresses stable while it grows

// The process's trace file, vxai.<pid>.trc in the trace directory.  When it
// would grow past the cap it is renamed to vxai.<pid>.trc.1, replacing the
// older one, and a new file begins: at most twice the cap is kept.
struct TraceFile {
  svc::PrivateDirectory directory{"trace"};
  bool started = false;         // the settings have been taken
  std::int64_t capSetting = 0;  // bytes, from the settings
  std::int64_t capSet = 0;      // bytes set by a test or tool; 0: the setting
  int descriptor = -1;          // open file, or -1
  pid_t pid = 0;                // process that opened it
  std::int64_t size = 0;        // bytes in the open file
};
TraceFile gTrace;  // guarded by gTraceLock

std::string traceFileName() { return "vxai." + std::to_string(getpid()) + ".trc"; }

void closeTraceFile() {
  if (gTrace.descriptor >= 0) close(gTrace.descriptor);
  gTrace.descriptor = -1;
}

bool openTraceFile() {
  gTrace.descriptor = svc::openPrivateFile(gTrace.directory, traceFileName());
  if (gTrace.descriptor < 0) return false;
  gTrace.pid = getpid();
  struct stat info;
  gTrace.size = fstat(gTrace.descriptor, &info) == 0 ? info.st_size : 0;
  return true;
}

// The full file becomes vxai.<pid>.trc.1; a link of that name is replaced,
// never followed.
bool rotateTraceFile() {
  const std::string name = traceFileName();
  closeTraceFile();
  const int directory = gTrace.directory.descriptor();
  if (renameat(directory, name.c_str(), directory, (name + ".1").c_str()) != 0 && errno != ENOENT) {
    const std::string why = std::string("cannot be renamed (") + std::strerror(errno) + ")";
    gTrace.directory.refuse(gTrace.directory.pathOf(name), why);
    return false;
  }
  return openTraceFile();
}

// Appends one line to the trace file.  A line longer than the cap is cut
// to it, so that no file ever holds more than the cap.
void writeTraceLine(const std::string &line) {
  // A forked child inherits its parent's open file; it writes to a file of
  // its own.  The directory checked by the parent serves it as well.
  if (gTrace.descriptor >= 0 && gTrace.pid != getpid()) closeTraceFile();
  if (!gTrace.started) {
    gTrace.directory.reset(svc::traceDirectorySetting());
    gTrace.capSetting = svc::traceFileCapSetting();
    gTrace.started = true;
  }
  if (gTrace.descriptor < 0 && !openTraceFile()) return;
  // Both caps are below 2 GB, so they fit a size_t.
  const std::int64_t cap = gTrace.capSet > 0 ? gTrace.capSet : gTrace.capSetting;
  const std::size_t length = std::min(line.size(), static_cast<std::size_t>(cap));
  if (gTrace.size > 0 && gTrace.size + static_cast<std::int64_t>(length) > cap &&
      !rotateTraceFile())
    return;
  if (svc::writeAll(gTrace.descriptor, line.data(), length))
    gTrace.size += static_cast<std::int64_t>(length);
}

void emit(std::int32_t component, std::int32_t function, bool isData, const char *bytes,
          std::int32_t length) {
  try {
    std::lock_guard lock(gTraceLock);
    if (gCapturing) {
      gCaptured.push_back(Captured{component, function, isData,
                                   std::string(bytes, static_cast<std::size_t>(length))});
      return;
    }
    std::string line = svc::timeAndThread() + " " + svc::functionName(function);
    if (isData) {
      line += "  " + std::to_string(length) + " bytes\n" +
              svc::hexLines(reinterpret_cast<const unsigned char *>(bytes), length, "    ");
    } else {
      line += "  ";
      line.append(bytes, static_cast<std::size_t>(length));
      line += '\n';
    }
    writeTraceLine(line);
  } catch (...) {
    // A trace line that cannot be stored is lost; the caller goes on.
  }
}

void emitText(std::int32_t component, std::int32_t function, const char *text) {
  emit(component, function, false, text ? text : "",
       text ? static_cast<std::int32_t>(std::char_traits<char>::length(text)) : 0);
}

void emitData(std::int32_t component, std::int32_t function, const void *data,
              std::int32_t length) {
  if (length < 0) length = 0;
  emit(component, function, true, data ? static_cast<const char *>(data) : "", data ? length : 0);
}

// The frame has just stored its marker in the history: its low 16 bits are
// the identifier, component << 10 | function number.
std::uint32_t latestIdentifier(const svcTHREADANCHOR *anchor) {
  std::int32_t slot = anchor->historyIndex - 1;
  if (slot < 0) slot = anchor->historySize - 1;
  return anchor->history[slot] & 0xFFFF;
}

void emitFrameLine(const svcTHREADANCHOR *anchor, const std::string &sign,
                   const std::string &tail) {
  std::uint32_t identifier = latestIdentifier(anchor);
  auto function = static_cast<std::int32_t>(identifier & 0x3FF);
  emitText(static_cast<std::int32_t>(identifier >> 10), function,
           (sign + svc::functionName(function) + tail).c_str());
}

}  // namespace

namespace svc {

std::string hexLines(const unsigned char *data, std::int32_t length, const char *indent) {
  std::string out;
  char text[16];
  for (std::int32_t offset = 0; offset < length; offset += 16) {
    std::string hex, chars;
    for (std::int32_t i = offset; i < offset + 16; ++i) {
      if (i < length) {
        std::snprintf(text, sizeof text, "%02X", data[i]);
        hex += text;
        chars += (data[i] >= 0x20 && data[i] < 0x7F) ? static_cast<char>(data[i]) : '.';
      } else {
        hex += "  ";
      }
      if (i % 4 == 3) hex += ' ';
    }
    std::snprintf(text, sizeof text, "%08X  ", static_cast<unsigned>(offset));
    out += indent + std::string(text) + hex + " |" + chars + "|\n";
  }
  return out;
}

std::string functionName(std::int32_t function) {
  if (gNames && function >= 0 && function < gNameRows && gNames[function][0])
    return std::string(gNames[function], strnlen(gNames[function], 40));
  return "function " + std::to_string(function);
}

std::string timeAndThread() {
  timeval now;
  gettimeofday(&now, nullptr);
  tm local;
  localtime_r(&now.tv_sec, &local);
  char text[64];
  std::snprintf(text, sizeof text, "%02d:%02d:%02d.%06ld %d.%ld", local.tm_hour, local.tm_min,
                local.tm_sec, static_cast<long>(now.tv_usec), static_cast<int>(getpid()),
                static_cast<long>(syscall(SYS_gettid)));
  return text;
}

void restartTraceFile() {
  std::lock_guard lock(gTraceLock);
  closeTraceFile();
  gTrace.started = false;
}

}  // namespace svc

extern "C" {

void trcRegisterFunctionNames(const char (*names)[40], int32_t rows) {
  std::lock_guard lock(gTraceLock);
  gNames = names;
  gNameRows = rows;
}

void trcFunctionEntry(svcTHREADANCHOR *anchor) {
  try {
    emitFrameLine(anchor, "{ ", "");
  } catch (...) {
  }
}

void trcFunctionExit(svcTHREADANCHOR *anchor, int32_t reason) {
  try {
    emitFrameLine(anchor, "} ", " rc=" + std::to_string(reason));
  } catch (...) {
  }
}

void trcText(int32_t component, int32_t function, const char *text) {
  emitText(component, function, text);
}

void trcApiText(int32_t component, int32_t function, const char *text) {
  emitText(component, function, text);
}

void trcData(int32_t component, int32_t function, const void *data, int32_t length) {
  emitData(component, function, data, length);
}

void trcApiData(int32_t component, int32_t function, const void *data, int32_t length) {
  emitData(component, function, data, length);
}

void trcDataDetail(int32_t component, int32_t function, int32_t, const void *data, int32_t length) {
  emitData(component, function, data, length);
}

void trcParms(svcTHREADANCHOR *anchor, const char *format, ...) {
  char text[512];
  va_list arguments;
  va_start(arguments, format);
  std::vsnprintf(text, sizeof text, format, arguments);
  va_end(arguments);
  emitText(anchor->tagComponent, anchor->tagFunction, text);
}

void svcSetTraceFileCap(int32_t bytes) {
  std::lock_guard lock(gTraceLock);
  gTrace.capSet = bytes > 0 ? bytes : 0;
}

void trcCaptureStart(void) {
  std::lock_guard lock(gTraceLock);
  gCaptured.clear();
  gCapturing = true;
}

void trcCaptureStop(void) {
  std::lock_guard lock(gTraceLock);
  gCapturing = false;
}

int32_t trcCapturedCount(void) {
  std::lock_guard lock(gTraceLock);
  return static_cast<int32_t>(gCaptured.size());
}

int32_t trcCaptured(int32_t i, trcCAPTURED *line) {
  std::lock_guard lock(gTraceLock);
  if (i < 0 || static_cast<std::size_t>(i) >= gCaptured.size()) return 1;
  const Captured &entry = gCaptured[static_cast<std::size_t>(i)];
  *line = trcCAPTURED{entry.component, entry.function, entry.isData ? 1 : 0,
                      static_cast<int32_t>(entry.bytes.size()), entry.bytes.c_str()};
  return 0;
}

}  // extern "C"
