// Process and thread anchors, the environment that switches trace on, and
// the connection-state control block.
#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>

#include "svc.h"
#include "svc_internal.h"

svcPROCESSANCHOR processAnchor = {{'S', 'V', 'P', 'A'}, 0, 0xFFFFFFFFu, 0, 0, 0, 0};
pthread_key_t threadAnchorKey;

namespace {

// Trace option words behind the names VXSVC_TRACE accepts.
constexpr std::uint32_t kApiOptions = 0x1;
constexpr std::uint32_t kDetailOptions = 0x1 | 0xC0000 | 0x20 | 0x400 | 0x80000;

void releaseThreadAnchor(void *anchor) { std::free(anchor); }

void applyTraceSetting(const char *setting) {
  if (!setting || !*setting || std::strcmp(setting, "off") == 0) return;
  processAnchor.traceEnabled = 1;
  processAnchor.traceLevel = 0;
  processAnchor.traceOptions = std::strcmp(setting, "api") == 0 ? kApiOptions : kDetailOptions;
}

void loadCommonServices() {
  pthread_key_create(&threadAnchorKey, releaseThreadAnchor);
  processAnchor.owningPid = static_cast<int32_t>(getpid());
  applyTraceSetting(std::getenv("VXSVC_TRACE"));
  if (const char *options = std::getenv("VXSVC_TRACE_OPTIONS"))
    processAnchor.traceOptions = static_cast<std::uint32_t>(std::strtoul(options, nullptr, 0));
  if (const char *early = std::getenv("VXSVC_TRACE_EARLY"))
    processAnchor.earlyTrace = std::atoi(early);
  if (const char *guard = std::getenv("VXSVC_SIGNAL_GUARD"))
    processAnchor.signalGuard = std::atoi(guard);
  svc::readFileSettings();
}

// Runs when the services are loaded.
const bool gLoaded = (loadCommonServices(), true);

// The connection-state control block.  It is made under the mutex and
// published through the flag, so a reader that finds the flag set sees a
// whole block without taking the lock (the fork check of a connect reads it
// so).
svcCONTROLBLOCK gControlBlock;  // valid while its eye-catcher is "XIH "
std::mutex gControlBlockMutex;
std::atomic<bool> gControlBlockSet{false};

}  // namespace

extern "C" {

void svcInitialize(int32_t historySize, int32_t productId, int32_t, int32_t, int32_t) {
  auto *anchor = static_cast<svcTHREADANCHOR *>(pthread_getspecific(threadAnchorKey));
  if (!anchor) {
    anchor = static_cast<svcTHREADANCHOR *>(std::calloc(1, sizeof *anchor));
    if (!anchor) return;
    std::memcpy(anchor->eyeCatcher, "SVTA", 4);
    pthread_setspecific(threadAnchorKey, anchor);
  }
  if (historySize < 1) historySize = 1;
  if (historySize > SVC_HISTORY_SLOTS) historySize = SVC_HISTORY_SLOTS;
  anchor->historySize = historySize;
  anchor->productId = productId;
  anchor->traceActive = processAnchor.traceEnabled != 0;
  anchor->initialised = 1;
}

svcTHREADANCHOR *svcThreadAnchor(void) {
  return static_cast<svcTHREADANCHOR *>(pthread_getspecific(threadAnchorKey));
}

int32_t svcGetPid(void) { return static_cast<int32_t>(getpid()); }

const char *svcTraceDirectory(void) { return svc::traceDirectoryText(); }
const char *svcReportDirectory(void) { return svc::reportDirectoryText(); }

void svcReadFileSettings(void) {
  svc::readFileSettings();
  svc::restartTraceFile();
  svc::restartReportFiles();
}

svcCONTROLBLOCK *svcControlBlock(void) {
  return gControlBlockSet.load(std::memory_order_acquire) ? &gControlBlock : nullptr;
}

svcCONTROLBLOCK *svcEstablishControlBlock(void) {
  std::lock_guard<std::mutex> lock(gControlBlockMutex);
  if (!gControlBlockSet.load(std::memory_order_relaxed)) {
    std::memcpy(gControlBlock.eyeCatcher, "XIH ", 4);
    gControlBlock.ownerPid = svcGetPid();
    gControlBlock.connections = 0;
    gControlBlockSet.store(true, std::memory_order_release);
  }
  return &gControlBlock;
}

void svcNoteConnection(void) {
  svcCONTROLBLOCK *block = svcEstablishControlBlock();
  std::lock_guard<std::mutex> lock(gControlBlockMutex);
  ++block->connections;
}

void svcResetControlBlock(void) {
  std::lock_guard<std::mutex> lock(gControlBlockMutex);
  gControlBlockSet.store(false, std::memory_order_release);
  std::memset(&gControlBlock, 0, sizeof gControlBlock);
}

}  // extern "C"
