// The handle region of a 64-bit process: fixed-size slots below 2 GiB for
// the records that a 32-bit handle names (see svcGetHandleMem).
//
// The region is reserved lazily, one chunk at a time, at chunk-aligned hints
// between kRegionStart and kRegionEnd, with MAP_FIXED_NOREPLACE so that a
// mapping that is already there (a program's own, a sanitizer's shadow) is
// never replaced; an address other than the hint is given back.  A program
// that uses low memory itself only leaves fewer chunks, and a region that
// cannot grow fails a request like any allocation that finds no memory.
//
// Slots in use carry their owner (component, function, size) in a table
// beside the chunk, never in the slot itself: a free slot is not touched,
// so the checkers can keep it unreachable.  AddressSanitizer sees free slots
// poisoned, valgrind sees each slot in use as a heap block of its own, and a
// freed slot waits behind kQuarantineSlots others before it is used again,
// so that a stale handle keeps naming a free slot for a while.
#include <sys/mman.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <deque>
#include <map>
#include <mutex>
#include <utility>

#include "svc.h"
#include "svc_internal.h"

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/asan_interface.h>
#include <sanitizer/lsan_interface.h>
#define VX_REGION_ASAN 1
#else
#define VX_REGION_ASAN 0
#endif
#include <valgrind/memcheck.h>

namespace svc {
namespace {

// Below 256 MiB lie the images and the break heap of programs linked at
// fixed addresses; from 2 GiB up AddressSanitizer keeps its shadow.
constexpr std::uintptr_t kRegionStart = 0x10000000;
constexpr std::uintptr_t kRegionEnd = 0x80000000;
constexpr std::uintptr_t kChunkBytes = std::uintptr_t{64} << 20;
constexpr std::uint32_t kSlotBytes = SVC_HANDLE_SLOT_BYTES;
constexpr std::uint32_t kSlotsPerChunk = kChunkBytes / kSlotBytes;
constexpr std::size_t kChunkPlaces = (kRegionEnd - kRegionStart) / kChunkBytes;
constexpr std::size_t kQuarantineSlots = 1024;

static_assert(kSlotBytes % 16 == 0, "slots keep the alignment of malloc");

// The owner of a slot in use; sizePlusOne 0 marks a free slot.  Written
// under the region's lock, read without it by the pointer check.
struct SlotOwner {
  std::atomic<std::int32_t> sizePlusOne;
  std::int32_t component;
  std::int32_t function;
};

struct Chunk {
  std::uintptr_t base = 0;
  SlotOwner *owners = nullptr;  // kSlotsPerChunk entries, zeroed
};

struct Usage {
  std::int32_t blocks = 0;
  std::int64_t bytes = 0;
};

struct Region {
  std::mutex lock;
  // One place per chunk-aligned address of the region; a place is filled
  // once, under the lock, and never emptied (the region is never given back).
  std::array<std::atomic<Chunk *>, kChunkPlaces> chunkAt{};
  Chunk *current = nullptr;                // guarded by lock: the chunk slots are cut from
  std::uint32_t currentUsed = 0;           // guarded by lock: slots cut from it so far
  std::uintptr_t nextHint = kRegionStart;  // guarded by lock
  std::deque<std::uintptr_t> freed;        // guarded by lock: oldest first
  std::int64_t liveSlots = 0;              // guarded by lock
  std::int64_t reservedBytes = 0;          // guarded by lock
  std::map<std::pair<std::int32_t, std::int32_t>, Usage> usage;  // guarded by lock
};

Region &region() {
  static Region *theRegion = new Region;  // lives as long as the process
  return *theRegion;
}

Chunk *chunkOf(Region &r, std::uintptr_t address) {
  if (address < kRegionStart || address >= kRegionEnd) return nullptr;
  return r.chunkAt[(address - kRegionStart) / kChunkBytes].load(std::memory_order_acquire);
}

SlotOwner &ownerOf(const Chunk &chunk, std::uintptr_t address) {
  return chunk.owners[(address - chunk.base) / kSlotBytes];
}

// Reserves the next chunk the address space has room for.  Called with the
// region locked.
Chunk *reserveChunk(Region &r) {
  while (r.nextHint + kChunkBytes <= kRegionEnd) {
    const std::uintptr_t hint = r.nextHint;
    r.nextHint += kChunkBytes;
    void *mapped = mmap(reinterpret_cast<void *>(hint), kChunkBytes, PROT_READ | PROT_WRITE,
                        MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE | MAP_FIXED_NOREPLACE, -1, 0);
    if (mapped == MAP_FAILED) {
      if (errno == EEXIST) continue;  // taken: try the next chunk-aligned place
      return nullptr;
    }
    if (reinterpret_cast<std::uintptr_t>(mapped) != hint) {
      // A kernel that does not know MAP_FIXED_NOREPLACE takes it for a hint.
      munmap(mapped, kChunkBytes);
      continue;
    }
    auto *owners = static_cast<SlotOwner *>(std::calloc(kSlotsPerChunk, sizeof(SlotOwner)));
    auto *chunk = static_cast<Chunk *>(std::calloc(1, sizeof(Chunk)));
    if (!owners || !chunk) {
      std::free(owners);
      std::free(chunk);
      munmap(mapped, kChunkBytes);
      r.nextHint = hint;  // the same place may serve when memory is back
      return nullptr;
    }
    chunk->base = hint;
    chunk->owners = owners;
#if VX_REGION_ASAN
    ASAN_POISON_MEMORY_REGION(mapped, kChunkBytes);
    // A slot in use may hold the only pointer to a heap block.
    __lsan_register_root_region(mapped, kChunkBytes);
#endif
    VALGRIND_MAKE_MEM_NOACCESS(mapped, kChunkBytes);
    r.reservedBytes += static_cast<std::int64_t>(kChunkBytes);
    r.chunkAt[(hint - kRegionStart) / kChunkBytes].store(chunk, std::memory_order_release);
    return chunk;
  }
  // Every place was taken: the next request looks at them all again, since
  // the program may have given one back.
  r.nextHint = kRegionStart;
  return nullptr;
}

// A free slot, or 0 when the region can give none.  Called with the region
// locked.
std::uintptr_t takeSlot(Region &r) {
  auto reuse = [&r] {
    const std::uintptr_t slot = r.freed.front();
    r.freed.pop_front();
    return slot;
  };
  if (r.freed.size() > kQuarantineSlots) return reuse();
  if (!r.current || r.currentUsed == kSlotsPerChunk) {
    if (Chunk *fresh = reserveChunk(r)) {
      r.current = fresh;
      r.currentUsed = 0;
    } else {
      return r.freed.empty() ? 0 : reuse();
    }
  }
  return r.current->base + std::uintptr_t{r.currentUsed++} * kSlotBytes;
}

}  // namespace

void *regionGet(std::int32_t component, std::int32_t function, std::int32_t size) {
  if (size < 0 || static_cast<std::uint32_t>(size) > kSlotBytes) return nullptr;
  Region &r = region();
  std::lock_guard guard(r.lock);
  try {
    Usage &usage = r.usage[{component, function}];
    const std::uintptr_t slot = takeSlot(r);
    if (slot == 0) return nullptr;
    SlotOwner &owner = ownerOf(*chunkOf(r, slot), slot);
    owner.component = component;
    owner.function = function;
    owner.sizePlusOne.store(size + 1, std::memory_order_release);
    ++usage.blocks;
    usage.bytes += size;
    ++r.liveSlots;
    auto *memory = reinterpret_cast<void *>(slot);
#if VX_REGION_ASAN
    ASAN_UNPOISON_MEMORY_REGION(memory, kSlotBytes);
#endif
    VALGRIND_MALLOCLIKE_BLOCK(memory, size, 0, 0);
    return memory;
  } catch (...) {
    return nullptr;  // no memory for the usage entry
  }
}

bool regionContains(const void *address) {
  return chunkOf(region(), reinterpret_cast<std::uintptr_t>(address)) != nullptr;
}

bool regionFree(void *block) {
  Region &r = region();
  const auto address = reinterpret_cast<std::uintptr_t>(block);
  std::lock_guard guard(r.lock);
  Chunk *chunk = chunkOf(r, address);
  if (!chunk || (address - chunk->base) % kSlotBytes != 0) return false;
  SlotOwner &owner = ownerOf(*chunk, address);
  const std::int32_t size = owner.sizePlusOne.load(std::memory_order_relaxed) - 1;
  if (size < 0) return false;
  owner.sizePlusOne.store(0, std::memory_order_release);
  Usage &usage = r.usage[{owner.component, owner.function}];
  --usage.blocks;
  usage.bytes -= size;
  --r.liveSlots;
  VALGRIND_FREELIKE_BLOCK(block, 0);
#if VX_REGION_ASAN
  ASAN_POISON_MEMORY_REGION(block, kSlotBytes);
#endif
  try {
    r.freed.push_back(address);
  } catch (...) {
    // Without memory to remember it the slot is not used again: a little
    // address space is lost, nothing else.
  }
  return true;
}

bool regionRangeLive(std::uintptr_t start, std::uintptr_t last) {
  Chunk *chunk = chunkOf(region(), start);
  if (!chunk) return false;
  const std::uintptr_t slot = start - (start - chunk->base) % kSlotBytes;
  const std::int32_t size = ownerOf(*chunk, slot).sizePlusOne.load(std::memory_order_acquire) - 1;
  return size >= 0 && last < slot + static_cast<std::uint32_t>(size > 0 ? size : 1);
}

void regionUsage(std::int32_t component, std::int32_t function, std::int32_t *blocks,
                 std::int64_t *bytes) {
  Region &r = region();
  std::lock_guard guard(r.lock);
  for (const auto &[owner, usage] : r.usage) {
    if (owner.first != component || (function != -1 && owner.second != function)) continue;
    *blocks += usage.blocks;
    *bytes += usage.bytes;
  }
}

bool regionLiveBlock(std::int32_t component, std::int32_t function, void **block) {
  Region &r = region();
  std::lock_guard guard(r.lock);
  for (const auto &place : r.chunkAt) {
    const Chunk *chunk = place.load(std::memory_order_relaxed);
    if (!chunk) continue;
    for (std::uint32_t i = 0; i < kSlotsPerChunk; ++i) {
      const SlotOwner &owner = chunk->owners[i];
      if (owner.sizePlusOne.load(std::memory_order_relaxed) != 0 && owner.component == component &&
          owner.function == function) {
        *block = reinterpret_cast<void *>(chunk->base + std::uintptr_t{i} * kSlotBytes);
        return true;
      }
    }
  }
  return false;
}

void regionTotals(std::int64_t *liveSlots, std::int64_t *reservedBytes) {
  Region &r = region();
  std::lock_guard guard(r.lock);
  *liveSlots = r.liveSlots;
  *reservedBytes = r.reservedBytes;
}

}  // namespace svc
