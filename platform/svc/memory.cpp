// Memory with accounting and failure injection, and the pointer check.
//
// Every live block of svcGetMem is recorded in one registry (guarded by
// gRegistryLock): the accounting reads it, and the pointer check uses it to
// accept the library's own records without a system call.
#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <mutex>
#include <shared_mutex>
#include <unordered_map>

#include "svc.h"
#include "svc_internal.h"

namespace {

struct Block {
  std::uint32_t size;
  std::int32_t component;
  std::int32_t function;
};

std::shared_mutex gRegistryLock;
std::unordered_map<std::uintptr_t, Block> gRegistry;  // guarded by gRegistryLock

// Allocations of this thread still to go before the injected failure.
thread_local std::int32_t tInjectCountdown = 0;

bool injectedFailure() {
  if (tInjectCountdown <= 0) return false;
  return --tInjectCountdown == 0;
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

namespace svc {

bool insideLiveBlock(std::uintptr_t address, std::uint32_t length) {
  std::shared_lock lock(gRegistryLock);
  auto found = gRegistry.find(address);
  return found != gRegistry.end() && length <= found->second.size;
}

}  // namespace svc

extern "C" {

int32_t svcGetMem(int32_t component, int32_t function, int32_t size, int32_t flags, void **block) {
  *block = nullptr;
  if (size < 0 || flags != 0 || injectedFailure()) return 1;
  void *memory = std::malloc(size > 0 ? static_cast<std::size_t>(size) : 1);
  if (!memory) return 1;
  try {
    std::unique_lock lock(gRegistryLock);
    gRegistry[reinterpret_cast<std::uintptr_t>(memory)] =
        Block{static_cast<std::uint32_t>(size), component, function};
  } catch (...) {
    std::free(memory);
    return 1;
  }
  *block = memory;
  return 0;
}

int32_t svcFreeMem(int32_t, void *block) {
  {
    std::unique_lock lock(gRegistryLock);
    if (gRegistry.erase(reinterpret_cast<std::uintptr_t>(block)) == 0) return 1;
  }
  std::free(block);
  return 0;
}

void svcMemLive(int32_t component, int32_t function, int32_t *blocks, int32_t *bytes) {
  int32_t count = 0, total = 0;
  std::shared_lock lock(gRegistryLock);
  for (const auto &[address, block] : gRegistry) {
    if (block.component != component) continue;
    if (function != -1 && block.function != function) continue;
    ++count;
    total += static_cast<int32_t>(block.size);
  }
  *blocks = count;
  *bytes = total;
}

void svcInjectMemFailure(int32_t nth) { tInjectCountdown = nth > 0 ? nth : 0; }

int32_t svcCheckPointer(const void *address, int32_t length, int32_t mode) {
  const auto start = reinterpret_cast<std::uintptr_t>(address);
  if (start == 0) return 1;
  if (length <= 0) return 0;  // nothing will be accessed
  const auto count = static_cast<std::uintptr_t>(length);
  if (start + count - 1 < start) return 1;  // wraps past the address space
  if (svc::insideLiveBlock(start, static_cast<std::uint32_t>(count))) return 0;
  const bool write = mode != SVC_CHECK_READ;
  const std::uintptr_t last = start + count - 1;
  // One word per page decides for the whole page; the first word may lie a
  // little before the address when it is not aligned, but in the same page.
  for (std::uintptr_t page = start & ~(pageSize() - 1); page <= last; page += pageSize()) {
    if (!wordAccessible(page < start ? start : page, write)) return 1;
    if (page + pageSize() < page) break;  // last page of the address space
  }
  return 0;
}

}  // extern "C"
