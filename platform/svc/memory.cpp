// Memory with accounting and failure injection, and the pointer check.
//
// Every live block of svcGetMem is recorded in one registry (guarded by
// gRegistryLock): the accounting reads it, and the pointer check uses it to
// accept the library's own records without a system call.
#include <link.h>
#include <linux/futex.h>
#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <shared_mutex>
#include <unordered_map>
#include <vector>

#include "svc.h"
#include "svc_internal.h"

namespace {

// The budget of a thread under svcSetThreadMemLimit.  Its live bytes are
// shared with the registry entries of the blocks got under it, so that a
// release from any thread credits the budget the block was charged to.  The
// limits are read and written by the owning thread only.
struct ThreadBudget {
  std::int32_t largestBlock = 0;  // 0: no limit
  std::int32_t totalBytes = 0;    // 0: no limit
  std::atomic<std::int64_t> liveBytes{0};
};

struct Block {
  std::uint32_t size;
  std::int32_t component;
  std::int32_t function;
  std::shared_ptr<ThreadBudget> budget;  // null when got without a thread limit
};

std::shared_mutex gRegistryLock;
std::unordered_map<std::uintptr_t, Block> gRegistry;  // guarded by gRegistryLock

// Largest block a request may ask for; 0: no limit.
std::atomic<std::int32_t> gBlockLimit{0};

// Raised by every release.  A thread remembers the last block it found live
// together with this count, and trusts the memory as long as nothing has
// been released since: the same bag checked call after call costs no lock.
std::atomic<std::uint32_t> gReleases{0};

struct LastLiveBlock {
  std::uintptr_t address = 0;
  std::uint32_t size = 0;
  std::uint32_t releases = 0;
};
thread_local LastLiveBlock tLastLive __attribute__((tls_model("initial-exec")));

// The calling thread's budget, or null when it has no limit.
thread_local std::shared_ptr<ThreadBudget> tBudget;

// True when a block of `size` bytes fits the calling thread's budget.
bool withinThreadBudget(const ThreadBudget *budget, std::int32_t size) {
  if (!budget) return true;
  if (budget->largestBlock > 0 && size > budget->largestBlock) return false;
  return budget->totalBytes <= 0 ||
         budget->liveBytes.load(std::memory_order_relaxed) + size <= budget->totalBytes;
}

// Allocations of this thread still to go before the injected failure.
thread_local std::int32_t tInjectCountdown __attribute__((tls_model("initial-exec"))) = 0;

bool injectedFailure() {
  if (tInjectCountdown <= 0) return false;
  return --tInjectCountdown == 0;
}

// A request that fails before any memory is looked for: a bad size or flags,
// an injected failure, or a block above the process's limit.
bool refusedUpFront(std::int32_t size, std::int32_t flags) {
  if (size < 0 || flags != 0 || injectedFailure()) return true;
  const std::int32_t limit = gBlockLimit.load(std::memory_order_relaxed);
  return limit > 0 && size > limit;
}

// The calling thread's stack, [low, high), learnt once per thread.
struct StackBounds {
  std::uintptr_t low = 0;
  std::uintptr_t high = 0;
};

const StackBounds &threadStack() {
  thread_local StackBounds bounds __attribute__((tls_model("initial-exec"))) = [] {
    StackBounds learnt;
    pthread_attr_t attributes;
    void *address = nullptr;
    std::size_t size = 0;
    if (pthread_getattr_np(pthread_self(), &attributes) == 0) {
      if (pthread_attr_getstack(&attributes, &address, &size) == 0) {
        learnt.low = reinterpret_cast<std::uintptr_t>(address);
        learnt.high = learnt.low + size;
      }
      pthread_attr_destroy(&attributes);
    }
    return learnt;
  }();
  return bounds;
}

// The part of the thread's stack above the current stack pointer is in use,
// so it is mapped readable and writable: a caller's local variables are
// accepted without asking the kernel.
bool insideLiveStack(std::uintptr_t start, std::uintptr_t last) {
  const StackBounds &stack = threadStack();
  int marker = 0;
  const auto top = reinterpret_cast<std::uintptr_t>(&marker);
  return top >= stack.low && top < stack.high && start >= top && last < stack.high;
}

// Readable segments of the program and its libraries (string literals and
// constant tables live there), rebuilt whenever the loader has loaded or
// unloaded an object since the last look.
struct Segment {
  std::uintptr_t low;
  std::uintptr_t high;  // one past the end
};

struct LoadedImages {
  std::shared_mutex lock;
  unsigned long long adds = 0, subs = 0;  // guarded by lock
  std::vector<Segment> readable;          // guarded by lock
};

LoadedImages &loadedImages() {
  static LoadedImages images;
  return images;
}

struct LoaderCounts {
  unsigned long long adds, subs;
};

int readLoaderCounts(dl_phdr_info *info, std::size_t, void *counts) {
  *static_cast<LoaderCounts *>(counts) = LoaderCounts{info->dlpi_adds, info->dlpi_subs};
  return 1;  // the counts are the same in every entry: one is enough
}

int collectReadableSegments(dl_phdr_info *info, std::size_t, void *segments) {
  for (int i = 0; i < info->dlpi_phnum; ++i) {
    const ElfW(Phdr) &header = info->dlpi_phdr[i];
    if (header.p_type != PT_LOAD || !(header.p_flags & PF_R)) continue;
    std::uintptr_t low = info->dlpi_addr + header.p_vaddr;
    static_cast<std::vector<Segment> *>(segments)->push_back(Segment{low, low + header.p_memsz});
  }
  return 0;
}

bool insideLoadedImage(std::uintptr_t start, std::uintptr_t last) {
  LoadedImages &images = loadedImages();
  LoaderCounts counts{0, 0};
  dl_iterate_phdr(readLoaderCounts, &counts);
  {
    std::shared_lock lock(images.lock);
    if (counts.adds == images.adds && counts.subs == images.subs) {
      for (const Segment &segment : images.readable)
        if (start >= segment.low && last < segment.high) return true;
      return false;
    }
  }
  try {
    std::vector<Segment> readable;
    dl_iterate_phdr(collectReadableSegments, &readable);
    std::unique_lock lock(images.lock);
    images.readable = std::move(readable);
    images.adds = counts.adds;
    images.subs = counts.subs;
  } catch (...) {
    return false;  // without memory the kernel is asked instead
  }
  return insideLoadedImage(start, last);
}

// True when [address, address + length) lies inside a live block of
// svcGetMem: such memory is readable and writable without asking the kernel.
bool insideLiveBlock(std::uintptr_t address, std::uint32_t length) {
  const std::uint32_t releases = gReleases.load(std::memory_order_acquire);
  if (tLastLive.address == address && tLastLive.releases == releases)
    return length <= tLastLive.size;
  std::shared_lock lock(gRegistryLock);
  auto found = gRegistry.find(address);
  if (found == gRegistry.end()) return false;
  tLastLive = LastLiveBlock{address, found->second.size, releases};
  return length <= found->second.size;
}

std::uintptr_t pageSize() {
  static const std::uintptr_t size = static_cast<std::uintptr_t>(sysconf(_SC_PAGESIZE));
  return size;
}

// Asks the kernel whether the aligned word at `address` can be read (a
// compare-and-requeue of nobody, which only reads it) or written (an atomic
// add of zero, which leaves the value as it was even under concurrent
// writers).  Neither faults in user space.
bool wordAccessible(std::uintptr_t address, bool write) {
  static int spare;  // second futex of both operations; never waited on
  auto *word = reinterpret_cast<int *>(address & ~std::uintptr_t{3});
  long result =
      write ? syscall(SYS_futex, &spare, FUTEX_WAKE_OP | FUTEX_PRIVATE_FLAG, 0, 0, word,
                      FUTEX_OP(FUTEX_OP_ADD, 0, FUTEX_OP_CMP_EQ, 0))
            : syscall(SYS_futex, word, FUTEX_CMP_REQUEUE | FUTEX_PRIVATE_FLAG, 0, 0, &spare, 0);
  return result >= 0 || errno != EFAULT;
}

}  // namespace

extern "C" {

int32_t svcGetMem(int32_t component, int32_t function, int32_t size, int32_t flags, void **block) {
  *block = nullptr;
  if (refusedUpFront(size, flags)) return 1;
  const std::shared_ptr<ThreadBudget> &budget = tBudget;
  if (!withinThreadBudget(budget.get(), size)) return 1;
  void *memory = std::malloc(size > 0 ? static_cast<std::size_t>(size) : 1);
  if (!memory) return 1;
  try {
    std::unique_lock lock(gRegistryLock);
    gRegistry[reinterpret_cast<std::uintptr_t>(memory)] =
        Block{static_cast<std::uint32_t>(size), component, function, budget};
  } catch (...) {
    std::free(memory);
    return 1;
  }
  if (budget) budget->liveBytes.fetch_add(size, std::memory_order_relaxed);
  *block = memory;
  return 0;
}

int32_t svcGetHandleMem(int32_t component, int32_t function, int32_t size, int32_t flags,
                        void **block) {
  // Every address of a 32-bit process fits a handle.
  if constexpr (sizeof(void *) == 4) return svcGetMem(component, function, size, flags, block);
  *block = nullptr;
  if (refusedUpFront(size, flags)) return 1;
  *block = svc::regionGet(component, function, size);
  return *block ? 0 : 1;
}

int32_t svcFreeMem(int32_t, void *block) {
  // A slot of the handle region is not in the registry (nor in the cache of
  // the last live block, which the pointer check never asks for the region).
  if (svc::regionContains(block)) return svc::regionFree(block) ? 0 : 1;
  {
    std::unique_lock lock(gRegistryLock);
    auto found = gRegistry.find(reinterpret_cast<std::uintptr_t>(block));
    if (found == gRegistry.end()) return 1;
    if (found->second.budget)
      found->second.budget->liveBytes.fetch_sub(found->second.size, std::memory_order_relaxed);
    gRegistry.erase(found);
    gReleases.fetch_add(1, std::memory_order_release);
  }
  std::free(block);
  return 0;
}

void svcMemLive(int32_t component, int32_t function, int32_t *blocks, int32_t *bytes) {
  int32_t count = 0;
  std::int64_t total = 0;
  {
    std::shared_lock lock(gRegistryLock);
    for (const auto &[address, block] : gRegistry) {
      if (block.component != component) continue;
      if (function != -1 && block.function != function) continue;
      ++count;
      total += block.size;
    }
  }
  svc::regionUsage(component, function, &count, &total);
  *blocks = count;
  *bytes = static_cast<int32_t>(total);
}

int32_t svcMemLiveBlock(int32_t component, int32_t function, void **block) {
  {
    std::shared_lock lock(gRegistryLock);
    for (const auto &[address, live] : gRegistry) {
      if (live.component == component && live.function == function) {
        *block = reinterpret_cast<void *>(address);
        return 0;
      }
    }
  }
  return svc::regionLiveBlock(component, function, block) ? 0 : 1;
}

void svcHandleRegionUse(int64_t *liveSlots, int64_t *reservedBytes) {
  svc::regionTotals(liveSlots, reservedBytes);
}

void svcSetMemBlockLimit(int32_t largest) {
  gBlockLimit.store(largest > 0 ? largest : 0, std::memory_order_relaxed);
}

int32_t svcSetThreadMemLimit(int32_t largestBlock, int32_t totalBytes) {
  if (largestBlock <= 0 && totalBytes <= 0) {
    tBudget.reset();
    return 0;
  }
  if (!tBudget) {
    try {
      tBudget = std::make_shared<ThreadBudget>();
    } catch (...) {
      return 1;
    }
  }
  tBudget->largestBlock = largestBlock > 0 ? largestBlock : 0;
  tBudget->totalBytes = totalBytes > 0 ? totalBytes : 0;
  return 0;
}

void svcInjectMemFailure(int32_t nth) { tInjectCountdown = nth > 0 ? nth : 0; }

int32_t svcMemFailurePending(void) { return tInjectCountdown; }

int32_t svcCheckPointer(const void *address, int32_t length, int32_t mode) {
  const auto start = reinterpret_cast<std::uintptr_t>(address);
  if (start == 0) return 1;
  // A length of 0 or less checks the one byte at the address, so that an
  // address that cannot be used is refused whatever length comes with it.
  const auto count = static_cast<std::uintptr_t>(length > 0 ? length : 1);
  if (start + count - 1 < start) return 1;  // wraps past the address space
  const std::uintptr_t last = start + count - 1;
  // The handle region is never asked of the kernel: its free slots are
  // mapped, but no record lives there.
  if (svc::regionContains(address)) return svc::regionRangeLive(start, last) ? 0 : 1;
  if (insideLiveStack(start, last)) return 0;
  if (insideLiveBlock(start, static_cast<std::uint32_t>(count))) return 0;
  const bool write = mode != SVC_CHECK_READ;
  if (!write && insideLoadedImage(start, last)) return 0;
  // One word per page decides for the whole page; the first word may lie a
  // little before the address when it is not aligned, but in the same page.
  for (std::uintptr_t page = start & ~(pageSize() - 1); page <= last; page += pageSize()) {
    if (!wordAccessible(page < start ? start : page, write)) return 1;
    if (page + pageSize() < page) break;  // last page of the address space
  }
  return 0;
}

}  // extern "C"
