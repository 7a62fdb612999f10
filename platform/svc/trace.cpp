// Trace: readable lines in one file per process, or in memory for tests.
#include <sys/syscall.h>
#include <sys/time.h>
#include <unistd.h>

#include <cstdarg>
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
FILE *gTraceFile = nullptr;      // guarded by gTraceLock; opened on first use
pid_t gTraceFilePid = 0;         // guarded by gTraceLock; process that opened it
bool gCapturing = false;         // guarded by gTraceLock
std::deque<Captured> gCaptured;  // guarded by gTraceLock; a deque keeps
                                 // addresses stable while it grows

FILE *traceFile() {
  // A forked child inherits its parent's open file; it writes to a file of
  // its own.  Every line is flushed, so closing the inherited copy loses
  // nothing and leaves the parent's file as it is.
  if (gTraceFile && gTraceFilePid != getpid()) {
    std::fclose(gTraceFile);
    gTraceFile = nullptr;
  }
  if (!gTraceFile && svc::ensureDirectory(svc::traceDirectory())) {
    std::string path = svc::traceDirectory() + "/vxai." + std::to_string(getpid()) + ".trc";
    gTraceFile = std::fopen(path.c_str(), "a");
    gTraceFilePid = getpid();
  }
  return gTraceFile;
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
    FILE *file = traceFile();
    if (!file) return;
    std::string prefix = svc::timeAndThread() + " " + svc::functionName(function);
    if (isData) {
      std::fprintf(
          file, "%s  %d bytes\n%s", prefix.c_str(), length,
          svc::hexLines(reinterpret_cast<const unsigned char *>(bytes), length, "    ").c_str());
    } else {
      std::fprintf(file, "%s  %.*s\n", prefix.c_str(), static_cast<int>(length), bytes);
    }
    std::fflush(file);
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
