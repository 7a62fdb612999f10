// Bag handles are 32-bit values in every build.  A 64-bit process keeps bag
// records in the handle region below 2 GiB: every handle is the record's
// address with bit 31 and above clear, whatever else the program has mapped
// low, and a region that finds no room fails like any allocation.
//
// Tests that need the region as it is before any bag was made run in a child
// of a process that has made none (ctest runs each test in a process of its
// own).
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdint>
#include <set>
#include <vector>

#include <gtest/gtest.h>

#include "vxtest.h"

using namespace vxtest;

namespace {

constexpr bool kHasRegion = sizeof(void *) == 8;
constexpr const char *kNoRegion =
    "a 32-bit process has no handle region: every address fits a handle";

// The places the region may take, 64 MiB each, between 256 MiB and 2 GiB.
constexpr uintptr_t kRegionStart = 0x10000000, kRegionEnd = 0x80000000;
constexpr uintptr_t kChunk = uintptr_t{64} << 20;

bool fitsHandle(VXHBAG handle) { return handle >= 0 && (handle & 1) == 0; }

// Runs `body` in a child process and returns its exit status (-1 when it did
// not exit normally).  The child exits with what body returns.
template <typename Body>
int inChild(Body body) {
  fflush(nullptr);
  const pid_t child = fork();
  if (child == 0) _exit(body());
  int status = 0;
  if (child < 0 || waitpid(child, &status, 0) != child) return -1;
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// Whether this process has not reserved any of its region yet.
bool regionUntouched() {
  int64_t live = 0, reserved = 0;
  svcHandleRegionUse(&live, &reserved);
  return reserved == 0;
}
constexpr const char *kRegionInUse = "this process has made bags already: run the test alone";

// Maps an inaccessible reservation at `at`, never over what is there.
bool reserve(uintptr_t at, uintptr_t length) {
  void *mapped = mmap(reinterpret_cast<void *>(at), length, PROT_NONE,
                      MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE | MAP_FIXED_NOREPLACE, -1, 0);
  if (mapped == MAP_FAILED) return false;
  if (reinterpret_cast<uintptr_t>(mapped) == at) return true;
  munmap(mapped, length);
  return false;
}

}  // namespace

TEST(Handles, NoHandleCarriesBitsAbove31) {
  const int32_t blocks = liveBlocks();
  std::vector<VXHBAG> bags;
  std::set<VXHBAG> distinct;
  for (int i = 0; i < 20000; ++i) {
    VXHBAG bag = BAG_NONE;
    int32_t cc = -1, rc = -1;
    vxCreateBag(i % 2 ? BAG_OPT_ADMIN_BAG : 0, &bag, &cc, &rc);
    ASSERT_OK(cc, rc);
    ASSERT_TRUE(fitsHandle(bag)) << std::hex << bag;
    // The handle is the record's address, zero-extended.
    ASSERT_EQ(reinterpret_cast<uintptr_t>(zaiDecodeHandle(bag)),
              static_cast<uintptr_t>(static_cast<uint32_t>(bag)));
    bags.push_back(bag);
    distinct.insert(bag);
  }
  EXPECT_EQ(distinct.size(), bags.size());
  for (VXHBAG bag : bags) {
    int32_t count = -1, cc = -1, rc = -1;
    vxCountItems(bag, SEL_ANY_SYSTEM_SELECTOR, &count, &cc, &rc);
    ASSERT_OK(cc, rc);
    ASSERT_EQ(count, 8);
    vxDeleteBag(&bag, &cc, &rc);
    ASSERT_OK(cc, rc);
  }
  EXPECT_EQ(liveBlocks(), blocks);
}

TEST(Handles, BagRecordsAreSlotsOfTheRegion) {
  if (!kHasRegion) GTEST_SKIP() << kNoRegion;
  int64_t slots = -1, reserved = -1;
  svcHandleRegionUse(&slots, &reserved);
  VXHBAG bag = BAG_NONE;
  int32_t cc = -1, rc = -1;
  vxCreateBag(0, &bag, &cc, &rc);
  ASSERT_OK(cc, rc);
  int64_t slotsWithBag = -1;
  svcHandleRegionUse(&slotsWithBag, &reserved);
  EXPECT_EQ(slotsWithBag, slots + 1);
  EXPECT_GE(reserved, static_cast<int64_t>(kChunk));
  const auto address = static_cast<uintptr_t>(static_cast<uint32_t>(bag));
  EXPECT_GE(address, kRegionStart);
  EXPECT_LT(address, kRegionEnd);
  vxDeleteBag(&bag, &cc, &rc);
  svcHandleRegionUse(&slotsWithBag, &reserved);
  EXPECT_EQ(slotsWithBag, slots);
}

TEST(Handles, AHandleKeptAfterTheDeleteIsRefused) {
  if (!kHasRegion)
    GTEST_SKIP() << "a 32-bit process keeps bag records on the heap, where the "
                    "memory of a deleted bag may be another's at once";
  VXHBAG bag = BAG_NONE;
  int32_t cc = -1, rc = -1;
  vxCreateBag(BAG_OPT_ADMIN_BAG, &bag, &cc, &rc);
  ASSERT_OK(cc, rc);
  const VXHBAG kept = bag;
  vxDeleteBag(&bag, &cc, &rc);
  ASSERT_OK(cc, rc);
  EXPECT_EQ(bag, -1);
  // The freed slot is not read: the pointer check knows it is free.
  int32_t count = -1;
  vxCountItems(kept, SEL_ANY_SELECTOR, &count, &cc, &rc);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_BAG_HANDLE_ERROR);
  EXPECT_EQ(count, -1);
  VXHBAG again = kept;
  vxDeleteBag(&again, &cc, &rc);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_BAG_HANDLE_ERROR);
  EXPECT_EQ(again, kept);
  // Nor is a handle into the middle of a live record taken for one.
  vxCreateBag(0, &bag, &cc, &rc);
  ASSERT_OK(cc, rc);
  vxCountItems(bag + 8, SEL_ANY_SELECTOR, &count, &cc, &rc);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_BAG_HANDLE_ERROR);
  vxDeleteBag(&bag, &cc, &rc);
}

TEST(Handles, TenMillionSlotsFitTheRegion) {
  if (!kHasRegion) GTEST_SKIP() << kNoRegion;
  const int status = inChild([] {
    constexpr int32_t kSlots = 10'000'000;
    std::vector<void *> slots(kSlots);
    for (void *&slot : slots) {
      if (svcGetHandleMem(ZAI_COMPONENT, ZAIFN_zaiCreateBag, sizeof(zaiBAG), 0, &slot) != 0)
        return 1;
      if (reinterpret_cast<uintptr_t>(slot) >= kRegionEnd) return 2;
    }
    int64_t live = 0, reserved = 0;
    svcHandleRegionUse(&live, &reserved);
    if (live != kSlots) return 3;
    int32_t blocks = 0, bytes = 0;
    svcMemLive(ZAI_COMPONENT, ZAIFN_zaiCreateBag, &blocks, &bytes);
    if (blocks != kSlots) return 4;
    for (void *slot : slots)
      if (svcFreeMem(ZAI_COMPONENT, slot) != 0) return 5;
    svcHandleRegionUse(&live, &reserved);
    return live == 0 ? 0 : 6;
  });
  EXPECT_EQ(status, 0);
}

TEST(Handles, AProgramThatMappedLowMemoryStillGetsBags) {
  if (!kHasRegion) GTEST_SKIP() << kNoRegion;
  if (!regionUntouched()) GTEST_SKIP() << kRegionInUse;
  const int status = inChild([] {
    // The first half gigabyte of the region's places is the program's own.
    constexpr uintptr_t kTaken = uintptr_t{512} << 20;
    if (!reserve(kRegionStart, kTaken)) return 10;
    for (int i = 0; i < 1000; ++i) {
      VXHBAG bag = BAG_NONE;
      int32_t cc = -1, rc = -1;
      vxCreateBag(BAG_OPT_ADMIN_BAG, &bag, &cc, &rc);
      if (cc != CC_OK) return 1;
      const auto address = static_cast<uintptr_t>(static_cast<uint32_t>(bag));
      if (!fitsHandle(bag) || address < kRegionStart + kTaken) return 2;
      vxAddInteger(bag, 5, i, &cc, &rc);
      if (cc != CC_OK) return 3;
    }
    return 0;
  });
  EXPECT_EQ(status, 0);
}

TEST(Handles, AFullRegionFailsACreateWithStorageNotAvailable) {
  if (!kHasRegion) GTEST_SKIP() << kNoRegion;
  if (!regionUntouched()) GTEST_SKIP() << kRegionInUse;
  const int status = inChild([] {
    // Every place the region could take is taken by the program.
    std::vector<uintptr_t> taken;
    for (uintptr_t at = kRegionStart; at < kRegionEnd; at += kChunk)
      if (reserve(at, kChunk)) taken.push_back(at);
    if (taken.empty()) return 10;
    VXHBAG bag = BAG_NONE;
    int32_t cc = -1, rc = -1;
    vxCreateBag(0, &bag, &cc, &rc);
    if (cc != CC_FAILED || rc != RC_STORAGE_NOT_AVAILABLE) return 1;
    if (bag != BAG_NONE) return 2;
    if (liveBlocks() != 0) return 3;
    // Room again: the next create succeeds.
    munmap(reinterpret_cast<void *>(taken.back()), kChunk);
    vxCreateBag(0, &bag, &cc, &rc);
    if (cc != CC_OK || !fitsHandle(bag)) return 4;
    vxDeleteBag(&bag, &cc, &rc);
    return liveBlocks() == 0 ? 0 : 5;
  });
  EXPECT_EQ(status, 0);
}

TEST(Handles, InjectedFailureOfTheRecordLeavesNothing) {
  const int32_t blocks = liveBlocks();
  VXHBAG bag = BAG_NONE;
  int32_t cc = -1, rc = -1;
  svcInjectMemFailure(1);
  vxCreateBag(0, &bag, &cc, &rc);
  svcInjectMemFailure(0);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_STORAGE_NOT_AVAILABLE);
  EXPECT_EQ(bag, BAG_NONE);
  EXPECT_EQ(liveBlocks(), blocks);
}
