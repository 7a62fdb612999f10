// The common services: pointer checks, memory, dump areas and failure
// reports, trace, thread anchors, signal actions and the control block.
#include <dirent.h>
#include <malloc.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/lsan_interface.h>
#endif

#include "vxtest.h"

namespace {

constexpr int32_t kModes[] = {SVC_CHECK_READ, SVC_CHECK_WRITE, SVC_CHECK_READ_WRITE};
constexpr int32_t kWriteModes[] = {SVC_CHECK_WRITE, SVC_CHECK_READ_WRITE};

// A component of its own, so that the accounting of these tests is not
// mixed with the bag library's.
constexpr int32_t kTestComponent = 61;

size_t pageSize() { return static_cast<size_t>(sysconf(_SC_PAGESIZE)); }

std::string readFile(const std::string &path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream out;
  out << in.rdbuf();
  return out.str();
}

std::vector<std::string> linesOf(const std::string &text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

std::string latestReport(int32_t i = 0) {
  int32_t length = svcLatestFailureReport(i, nullptr, 0);
  if (length < 0) return {};
  std::vector<char> buffer(static_cast<size_t>(length) + 1);
  svcLatestFailureReport(i, buffer.data(), static_cast<int32_t>(buffer.size()));
  return buffer.data();
}

// The value after "Name : " on the report line that starts with `name`.
std::string reportField(const std::string &report, const std::string &name) {
  for (const std::string &line : linesOf(report)) {
    if (line.rfind(name, 0) != 0) continue;
    size_t colon = line.find(": ");
    if (colon != std::string::npos) return line.substr(colon + 2);
  }
  return "<no " + name + " line>";
}

// Bytes of the dump area whose heading names `label`, read back from the
// hex columns of the report.
std::vector<uint8_t> reportDump(const std::string &report, const std::string &label) {
  std::vector<uint8_t> bytes;
  bool inArea = false;
  for (const std::string &line : linesOf(report)) {
    if (line.rfind("Dump area", 0) == 0) {
      inArea = line.find(": " + label + " (") != std::string::npos;
      continue;
    }
    if (!inArea || line.rfind("  ", 0) != 0) continue;
    size_t hexStart = line.find_first_not_of(' ', 2);
    hexStart = line.find(' ', hexStart);  // past the offset column
    size_t hexEnd = line.find(" |");
    for (size_t at = hexStart; at < hexEnd; ++at) {
      if (line[at] == ' ') continue;
      bytes.push_back(static_cast<uint8_t>(std::stoi(line.substr(at, 2), nullptr, 16)));
      ++at;
    }
  }
  return bytes;
}

// A thread that runs `body` and is joined before the result is looked at.
template <typename Body>
void onNewThread(Body body) {
  std::thread thread(body);
  thread.join();
}

bool sameAction(const struct sigaction &a, const struct sigaction &b) {
  return a.sa_handler == b.sa_handler && a.sa_flags == b.sa_flags;
}

void handlerA(int) {}
void handlerB(int) {}

class SvcTest : public vxtest::VxTest {
 protected:
  void TearDown() override {
    trcCaptureStop();
    VxTest::TearDown();
  }
};

// ----- Pointer checks -----------------------------------------------------

TEST_F(SvcTest, NullAddressFailsInEveryMode) {
  for (int32_t mode : kModes) {
    EXPECT_NE(svcCheckPointer(nullptr, 4, mode), 0) << "mode " << mode;
    EXPECT_NE(svcCheckPointer(nullptr, 0, mode), 0) << "mode " << mode;
  }
}

TEST_F(SvcTest, UnmappedPageFailsInEveryMode) {
  vxtest::ProtectedPages pages;
  for (int32_t mode : kModes) {
    EXPECT_NE(svcCheckPointer(pages.unmapped, 4, mode), 0) << "mode " << mode;
    EXPECT_NE(svcCheckPointer(static_cast<char *>(pages.unmapped) + 100, 1, mode), 0)
        << "mode " << mode;
  }
}

TEST_F(SvcTest, InaccessiblePageFailsInEveryMode) {
  vxtest::ProtectedPages pages;
  for (int32_t mode : kModes) {
    EXPECT_NE(svcCheckPointer(pages.none, 4, mode), 0) << "mode " << mode;
    EXPECT_NE(svcCheckPointer(pages.none, static_cast<int32_t>(pageSize()), mode), 0)
        << "mode " << mode;
  }
}

TEST_F(SvcTest, ReadOnlyPagePassesOnlyForReading) {
  vxtest::ProtectedPages pages;
  const auto whole = static_cast<int32_t>(pageSize());
  EXPECT_EQ(svcCheckPointer(pages.readOnly, 4, SVC_CHECK_READ), 0);
  EXPECT_EQ(svcCheckPointer(pages.readOnly, whole, SVC_CHECK_READ), 0);
  for (int32_t mode : kWriteModes) {
    EXPECT_NE(svcCheckPointer(pages.readOnly, 4, mode), 0) << "mode " << mode;
    EXPECT_NE(svcCheckPointer(static_cast<char *>(pages.readOnly) + 13, 1, mode), 0)
        << "mode " << mode;
  }
  // Checking, even for writing, left the page as it was.
  const auto *bytes = static_cast<const char *>(pages.readOnly);
  for (size_t i = 0; i < pageSize(); ++i) ASSERT_EQ(bytes[i], 'R') << "byte " << i;
}

TEST_F(SvcTest, StringLiteralIsReadableButNotWritable) {
  const char *literal = "a string literal of the program";
  EXPECT_EQ(svcCheckPointer(literal, 32, SVC_CHECK_READ), 0);
  for (int32_t mode : kWriteModes) EXPECT_NE(svcCheckPointer(literal, 32, mode), 0);
}

TEST_F(SvcTest, StackAndHeapPassInEveryMode) {
  char stack[64];
  std::memset(stack, 0x5A, sizeof stack);
  std::vector<char> heap(10000, 0x33);
  for (int32_t mode : kModes) {
    EXPECT_EQ(svcCheckPointer(stack, sizeof stack, mode), 0) << "mode " << mode;
    EXPECT_EQ(svcCheckPointer(stack + 3, 5, mode), 0) << "mode " << mode;
    EXPECT_EQ(svcCheckPointer(heap.data(), static_cast<int32_t>(heap.size()), mode), 0)
        << "mode " << mode;
  }
  for (char c : stack) ASSERT_EQ(c, 0x5A);
  for (char c : heap) ASSERT_EQ(c, 0x33);
}

TEST_F(SvcTest, BlocksOfGetMemPassWithinTheirLength) {
  void *block = nullptr;
  ASSERT_EQ(svcGetMem(kTestComponent, 1, 100, 0, &block), 0);
  std::memset(block, 0x44, 100);
  for (int32_t mode : kModes) {
    EXPECT_EQ(svcCheckPointer(block, 100, mode), 0) << "mode " << mode;
    EXPECT_EQ(svcCheckPointer(block, 1, mode), 0) << "mode " << mode;
  }
  for (int i = 0; i < 100; ++i) ASSERT_EQ(static_cast<char *>(block)[i], 0x44);
  EXPECT_EQ(svcFreeMem(kTestComponent, block), 0);
}

// A page inside a block is made inaccessible behind the services' back: a
// check of the block as it was obtained still passes, because the block is
// recognised from its record alone, while a check one byte longer than the
// block has to ask the kernel and finds the page.  The hidden page is the
// first one that starts after the block does, so that it is never the
// block's own address (which would be recognised) when the block happens
// to start on a page boundary.
TEST_F(SvcTest, BlocksOfGetMemAreRecognisedWithoutAskingTheKernel) {
  const size_t page = pageSize();
  const auto size = static_cast<int32_t>(3 * page);
  void *block = nullptr;
  ASSERT_EQ(svcGetMem(kTestComponent, 2, size, 0, &block), 0);
  auto start = reinterpret_cast<uintptr_t>(block);
  auto *hidden = reinterpret_cast<char *>((start + page) & ~(page - 1));
  ASSERT_GT(reinterpret_cast<uintptr_t>(hidden), start);
  ASSERT_LE(reinterpret_cast<uintptr_t>(hidden) + page, start + 3 * page);
  ASSERT_EQ(mprotect(hidden, page, PROT_NONE), 0);

  for (int32_t mode : kModes) {
    EXPECT_EQ(svcCheckPointer(block, size, mode), 0) << "mode " << mode;
    EXPECT_NE(svcCheckPointer(block, size + 1, mode), 0) << "mode " << mode;
    EXPECT_NE(svcCheckPointer(hidden, 4, mode), 0) << "mode " << mode;
  }

  ASSERT_EQ(mprotect(hidden, page, PROT_READ | PROT_WRITE), 0);
  EXPECT_EQ(svcFreeMem(kTestComponent, block), 0);
}

TEST_F(SvcTest, RangeRunningIntoAnUnmappedPageFails) {
  const size_t page = pageSize();
  auto *pair = static_cast<char *>(
      mmap(nullptr, 2 * page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
  ASSERT_NE(pair, MAP_FAILED);
  ASSERT_EQ(munmap(pair + page, page), 0);
  char *nearEnd = pair + page - 8;
  for (int32_t mode : kModes) {
    EXPECT_EQ(svcCheckPointer(nearEnd, 8, mode), 0) << "mode " << mode;
    EXPECT_NE(svcCheckPointer(nearEnd, 9, mode), 0) << "mode " << mode;
    EXPECT_NE(svcCheckPointer(pair, static_cast<int32_t>(2 * page), mode), 0) << "mode " << mode;
  }
  munmap(pair, page);
}

TEST_F(SvcTest, RangeRunningIntoAReadOnlyPageFailsForWriting) {
  const size_t page = pageSize();
  auto *pair = static_cast<char *>(
      mmap(nullptr, 2 * page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
  ASSERT_NE(pair, MAP_FAILED);
  ASSERT_EQ(mprotect(pair + page, page, PROT_READ), 0);
  char *nearEnd = pair + page - 8;
  EXPECT_EQ(svcCheckPointer(nearEnd, 16, SVC_CHECK_READ), 0);
  for (int32_t mode : kWriteModes) {
    EXPECT_EQ(svcCheckPointer(nearEnd, 8, mode), 0) << "mode " << mode;
    EXPECT_NE(svcCheckPointer(nearEnd, 16, mode), 0) << "mode " << mode;
  }
  munmap(pair, 2 * page);
}

// A page mapped in the upper half of the address space, where a positive
// 32-bit length can run past its end.  Native 32-bit processes have their
// stack there; under an emulator the stack may lie low, so the page is asked
// for at one of a few high addresses.
struct HighPage {
  char *at = nullptr;
  const size_t length = static_cast<size_t>(sysconf(_SC_PAGESIZE));
  HighPage() {
    for (uintptr_t hint : {0xF0000000u, 0xE0000000u, 0xC0000000u, 0xA0000000u}) {
      void *page = mmap(reinterpret_cast<void *>(hint), length, PROT_READ | PROT_WRITE,
                        MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED_NOREPLACE, -1, 0);
      if (page != MAP_FAILED) {
        at = static_cast<char *>(page);
        return;
      }
    }
  }
  ~HighPage() {
    if (at) munmap(at, length);
  }
};

TEST_F(SvcTest, LengthWrappingTheAddressSpaceFails) {
  if (sizeof(void *) != 4)
    GTEST_SKIP() << "a 32-bit length cannot run past the end of a 64-bit address space";
  HighPage page;
  ASSERT_NE(page.at, nullptr) << "no page could be mapped in the upper half of the address space";
  char *local = page.at + 16;
  *local = 'x';
  const auto at = reinterpret_cast<uintptr_t>(local);
  const auto wrapping = static_cast<int32_t>(0xFFFFFFFFu - at + 2);
  ASSERT_GT(wrapping, 0);
  for (int32_t mode : kModes) {
    EXPECT_NE(svcCheckPointer(local, wrapping, mode), 0) << "mode " << mode;
    EXPECT_NE(svcCheckPointer(local, INT32_MAX, mode), 0) << "mode " << mode;
  }
  EXPECT_EQ(*local, 'x');
}

TEST_F(SvcTest, LengthZeroOrLessChecksOneByte) {
  vxtest::ProtectedPages pages;
  int32_t word = 7;
  for (int32_t length : {0, -1, INT32_MIN}) {
    for (int32_t mode : kModes) {
      EXPECT_EQ(svcCheckPointer(&word, length, mode), 0) << "length " << length;
      EXPECT_NE(svcCheckPointer(pages.unmapped, length, mode), 0) << "length " << length;
      EXPECT_NE(svcCheckPointer(pages.none, length, mode), 0) << "length " << length;
    }
    EXPECT_EQ(svcCheckPointer(pages.readOnly, length, SVC_CHECK_READ), 0) << "length " << length;
    EXPECT_NE(svcCheckPointer(pages.readOnly, length, SVC_CHECK_WRITE), 0) << "length " << length;
  }
  EXPECT_EQ(word, 7);
}

TEST_F(SvcTest, CheckingInstallsNoSignalHandler) {
  struct sigaction before[2], after[2];
  sigaction(SIGSEGV, nullptr, &before[0]);
  sigaction(SIGBUS, nullptr, &before[1]);
  vxtest::ProtectedPages pages;
  for (int32_t mode : kModes) {
    svcCheckPointer(pages.none, 4, mode);
    svcCheckPointer(pages.unmapped, 4, mode);
  }
  sigaction(SIGSEGV, nullptr, &after[0]);
  sigaction(SIGBUS, nullptr, &after[1]);
  EXPECT_TRUE(sameAction(before[0], after[0]));
  EXPECT_TRUE(sameAction(before[1], after[1]));
}

// The write check must leave a word as it was even while another thread
// keeps changing it: no increment of the other thread may be lost.
TEST_F(SvcTest, WriteCheckLosesNoConcurrentUpdate) {
  constexpr int32_t kChecks = 20000;
  auto *word = new std::atomic<int32_t>(0);
  std::atomic<bool> checking{true};
  int32_t increments = 0;
  // The writer keeps incrementing for as long as the checks run.
  std::thread writer([&] {
    while (checking.load(std::memory_order_relaxed) || increments < 1000) {
      word->fetch_add(1);
      ++increments;
    }
  });
  while (word->load() == 0) {
  }
  for (int32_t checks = 0; checks < kChecks; ++checks)
    ASSERT_EQ(svcCheckPointer(word, 4, checks % 2 ? SVC_CHECK_WRITE : SVC_CHECK_READ_WRITE), 0);
  checking = false;
  writer.join();
  EXPECT_EQ(word->load(), increments);
  delete word;
}

// ----- Memory -------------------------------------------------------------

TEST_F(SvcTest, GetMemAndFreeMemAreCountedPerComponentAndFunction) {
  int32_t blocks = -1, bytes = -1;
  svcMemLive(kTestComponent, -1, &blocks, &bytes);
  ASSERT_EQ(blocks, 0);
  ASSERT_EQ(bytes, 0);

  void *a = nullptr, *b = nullptr, *c = nullptr, *other = nullptr;
  ASSERT_EQ(svcGetMem(kTestComponent, 5, 10, 0, &a), 0);
  ASSERT_EQ(svcGetMem(kTestComponent, 5, 20, 0, &b), 0);
  ASSERT_EQ(svcGetMem(kTestComponent, 6, 300, 0, &c), 0);
  ASSERT_EQ(svcGetMem(kTestComponent + 1, 5, 7, 0, &other), 0);
  ASSERT_NE(a, nullptr);
  ASSERT_NE(b, nullptr);
  ASSERT_NE(c, nullptr);
  EXPECT_NE(a, b);

  svcMemLive(kTestComponent, -1, &blocks, &bytes);
  EXPECT_EQ(blocks, 3);
  EXPECT_EQ(bytes, 330);
  svcMemLive(kTestComponent, 5, &blocks, &bytes);
  EXPECT_EQ(blocks, 2);
  EXPECT_EQ(bytes, 30);
  svcMemLive(kTestComponent, 6, &blocks, &bytes);
  EXPECT_EQ(blocks, 1);
  EXPECT_EQ(bytes, 300);
  svcMemLive(kTestComponent, 7, &blocks, &bytes);
  EXPECT_EQ(blocks, 0);
  EXPECT_EQ(bytes, 0);
  svcMemLive(kTestComponent + 1, -1, &blocks, &bytes);
  EXPECT_EQ(blocks, 1);
  EXPECT_EQ(bytes, 7);

  // The whole block is usable.
  std::memset(c, 0x11, 300);

  EXPECT_EQ(svcFreeMem(kTestComponent, b), 0);
  svcMemLive(kTestComponent, 5, &blocks, &bytes);
  EXPECT_EQ(blocks, 1);
  EXPECT_EQ(bytes, 10);

  EXPECT_EQ(svcFreeMem(kTestComponent, a), 0);
  EXPECT_EQ(svcFreeMem(kTestComponent, c), 0);
  EXPECT_EQ(svcFreeMem(kTestComponent + 1, other), 0);
  svcMemLive(kTestComponent, -1, &blocks, &bytes);
  EXPECT_EQ(blocks, 0);
  EXPECT_EQ(bytes, 0);
  svcMemLive(kTestComponent + 1, -1, &blocks, &bytes);
  EXPECT_EQ(blocks, 0);
}

TEST_F(SvcTest, FreeMemRefusesWhatIsNotALiveBlock) {
  void *block = nullptr;
  ASSERT_EQ(svcGetMem(kTestComponent, 1, 64, 0, &block), 0);
  int32_t local = 0;
  void *heap = std::malloc(16);

  EXPECT_NE(svcFreeMem(kTestComponent, &local), 0);
  EXPECT_NE(svcFreeMem(kTestComponent, heap), 0);
  EXPECT_NE(svcFreeMem(kTestComponent, static_cast<char *>(block) + 4), 0);
  EXPECT_NE(svcFreeMem(kTestComponent, nullptr), 0);

  int32_t blocks = 0, bytes = 0;
  svcMemLive(kTestComponent, -1, &blocks, &bytes);
  EXPECT_EQ(blocks, 1) << "a refused release released something";
  EXPECT_EQ(bytes, 64);

  EXPECT_EQ(svcFreeMem(kTestComponent, block), 0);
  EXPECT_NE(svcFreeMem(kTestComponent, block), 0) << "a block released twice";
  std::free(heap);
}

TEST_F(SvcTest, BlockMayBeReleasedByAnotherThread) {
  void *block = nullptr;
  ASSERT_EQ(svcGetMem(kTestComponent, 1, 32, 0, &block), 0);
  int32_t result = -1;
  onNewThread([&] { result = svcFreeMem(kTestComponent, block); });
  EXPECT_EQ(result, 0);
  int32_t blocks = 0, bytes = 0;
  svcMemLive(kTestComponent, -1, &blocks, &bytes);
  EXPECT_EQ(blocks, 0);
}

TEST_F(SvcTest, LiveBlockIsFoundByComponentAndFunction) {
  void *block = &block;
  EXPECT_EQ(svcMemLiveBlock(kTestComponent, 8, &block), 1) << "none yet";
  void *mine = nullptr, *other = nullptr;
  ASSERT_EQ(svcGetMem(kTestComponent, 8, 12, 0, &mine), 0);
  ASSERT_EQ(svcGetMem(kTestComponent, 9, 12, 0, &other), 0);
  ASSERT_EQ(svcMemLiveBlock(kTestComponent, 8, &block), 0);
  EXPECT_EQ(block, mine);
  EXPECT_EQ(svcMemLiveBlock(kTestComponent + 1, 8, &block), 1) << "another component's";
  EXPECT_EQ(svcFreeMem(kTestComponent, mine), 0);
  EXPECT_EQ(svcMemLiveBlock(kTestComponent, 8, &block), 1) << "released";
  EXPECT_EQ(svcFreeMem(kTestComponent, other), 0);
}

TEST_F(SvcTest, BlockLimitRefusesLargerBlocksOnly) {
  svcSetMemBlockLimit(64);
  void *small = nullptr, *large = &large;
  EXPECT_EQ(svcGetMem(kTestComponent, 1, 64, 0, &small), 0);
  EXPECT_NE(svcGetMem(kTestComponent, 1, 65, 0, &large), 0);
  EXPECT_EQ(large, nullptr);
  svcSetMemBlockLimit(0);
  EXPECT_EQ(svcGetMem(kTestComponent, 1, 65, 0, &large), 0) << "limit lifted";
  EXPECT_EQ(svcFreeMem(kTestComponent, small), 0);
  EXPECT_EQ(svcFreeMem(kTestComponent, large), 0);
}

TEST_F(SvcTest, InjectedFailureHitsTheNthAllocationOnly) {
  void *blocks[4] = {};
  svcInjectMemFailure(3);
  EXPECT_EQ(svcGetMem(kTestComponent, 1, 8, 0, &blocks[0]), 0);
  EXPECT_EQ(svcGetMem(kTestComponent, 1, 8, 0, &blocks[1]), 0);
  blocks[2] = &blocks;  // must come back null
  EXPECT_NE(svcGetMem(kTestComponent, 1, 8, 0, &blocks[2]), 0);
  EXPECT_EQ(blocks[2], nullptr);
  EXPECT_EQ(svcGetMem(kTestComponent, 1, 8, 0, &blocks[3]), 0);

  int32_t live = 0, bytes = 0;
  svcMemLive(kTestComponent, -1, &live, &bytes);
  EXPECT_EQ(live, 3);
  for (void *block : blocks) {
    if (block) {
      EXPECT_EQ(svcFreeMem(kTestComponent, block), 0);
    }
  }
}

TEST_F(SvcTest, InjectedFailureOfTheNextAllocation) {
  void *block = nullptr;
  svcInjectMemFailure(1);
  EXPECT_NE(svcGetMem(kTestComponent, 1, 8, 0, &block), 0);
  EXPECT_EQ(block, nullptr);
  ASSERT_EQ(svcGetMem(kTestComponent, 1, 8, 0, &block), 0);
  EXPECT_EQ(svcFreeMem(kTestComponent, block), 0);
}

TEST_F(SvcTest, InjectionZeroCancels) {
  svcInjectMemFailure(2);
  svcInjectMemFailure(0);
  void *blocks[3] = {};
  for (void *&block : blocks) EXPECT_EQ(svcGetMem(kTestComponent, 1, 8, 0, &block), 0);
  for (void *block : blocks) EXPECT_EQ(svcFreeMem(kTestComponent, block), 0);
}

TEST_F(SvcTest, InjectionAffectsOnlyTheCallingThread) {
  svcInjectMemFailure(1);
  int32_t otherResult = -1;
  void *otherBlock = nullptr;
  onNewThread([&] {
    otherResult = svcGetMem(kTestComponent, 1, 8, 0, &otherBlock);
    // An injection of that thread does not reach this one either.
    svcInjectMemFailure(1);
  });
  EXPECT_EQ(otherResult, 0);
  EXPECT_EQ(svcFreeMem(kTestComponent, otherBlock), 0);

  void *block = nullptr;
  EXPECT_NE(svcGetMem(kTestComponent, 1, 8, 0, &block), 0) << "this thread's injection was lost";
  ASSERT_EQ(svcGetMem(kTestComponent, 1, 8, 0, &block), 0);
  EXPECT_EQ(svcFreeMem(kTestComponent, block), 0);
}

// ----- Dump areas ---------------------------------------------------------

TEST_F(SvcTest, DumpAreaHoldsALabelledCopy) {
  unsigned char source[40];
  for (int i = 0; i < 40; ++i) source[i] = static_cast<unsigned char>(i * 3);
  svcDUMPAREAS areas = {};
  svcBuildDumpArea(&areas, "Some record", source, 40);
  ASSERT_EQ(areas.count, 1);
  const svcDUMPAREA &area = areas.area[0];
  EXPECT_STREQ(area.label, "Some record");
  EXPECT_EQ(area.address, reinterpret_cast<uintptr_t>(source));
  ASSERT_EQ(area.length, 40);
  EXPECT_EQ(std::memcmp(area.data, source, 40), 0);

  // The copy shows the memory as it was when the area was built.
  source[0] = 0xEE;
  EXPECT_EQ(area.data[0], 0);
}

TEST_F(SvcTest, DumpAreaOfUnreadableMemoryIsEmpty) {
  vxtest::ProtectedPages pages;
  svcDUMPAREAS areas = {};
  svcBuildDumpArea(&areas, "Nothing", pages.none, 16);
  svcBuildDumpArea(&areas, "Gone", pages.unmapped, 16);
  svcBuildDumpArea(&areas, "Null", nullptr, 16);
  ASSERT_EQ(areas.count, 3);
  EXPECT_STREQ(areas.area[0].label, "Nothing");
  EXPECT_EQ(areas.area[0].length, 0);
  EXPECT_STREQ(areas.area[1].label, "Gone");
  EXPECT_EQ(areas.area[1].length, 0);
  EXPECT_STREQ(areas.area[2].label, "Null");
  EXPECT_EQ(areas.area[2].length, 0);
}

TEST_F(SvcTest, DumpAreaOfReadOnlyMemoryIsCopied) {
  vxtest::ProtectedPages pages;
  svcDUMPAREAS areas = {};
  svcBuildDumpArea(&areas, "Read only", pages.readOnly, 8);
  ASSERT_EQ(areas.count, 1);
  ASSERT_EQ(areas.area[0].length, 8);
  EXPECT_EQ(std::memcmp(areas.area[0].data, "RRRRRRRR", 8), 0);
}

TEST_F(SvcTest, DumpAreasBeyondFourAreDropped) {
  const char bytes[] = "abcdefgh";
  svcDUMPAREAS areas = {};
  const char *labels[] = {"one", "two", "three", "four", "five", "six"};
  for (int i = 0; i < 6; ++i) svcBuildDumpArea(&areas, labels[i], bytes + i, 2);
  ASSERT_EQ(areas.count, SVC_DUMP_AREAS);
  for (int i = 0; i < SVC_DUMP_AREAS; ++i) {
    EXPECT_STREQ(areas.area[i].label, labels[i]);
    ASSERT_EQ(areas.area[i].length, 2);
    EXPECT_EQ(areas.area[i].data[0], bytes[i]);
  }
}

TEST_F(SvcTest, DumpAreaLengthIsClampedTo256) {
  std::vector<unsigned char> source(1000);
  for (size_t i = 0; i < source.size(); ++i) source[i] = static_cast<unsigned char>(i);
  svcDUMPAREAS areas = {};
  svcBuildDumpArea(&areas, "Long", source.data(), 1000);
  svcBuildDumpArea(&areas, "Exact", source.data(), SVC_DUMP_BYTES);
  svcBuildDumpArea(&areas, "Negative", source.data(), -5);
  ASSERT_EQ(areas.count, 3);
  EXPECT_EQ(areas.area[0].length, SVC_DUMP_BYTES);
  EXPECT_EQ(std::memcmp(areas.area[0].data, source.data(), SVC_DUMP_BYTES), 0);
  EXPECT_EQ(areas.area[1].length, SVC_DUMP_BYTES);
  EXPECT_EQ(areas.area[2].length, 0);
}

TEST_F(SvcTest, DumpAreaLabelIsKeptWithinItsField) {
  const std::string label(100, 'L');
  const char bytes[4] = {1, 2, 3, 4};
  svcDUMPAREAS areas = {};
  svcBuildDumpArea(&areas, label.c_str(), bytes, 4);
  ASSERT_EQ(areas.count, 1);
  size_t kept = strnlen(areas.area[0].label, sizeof areas.area[0].label);
  EXPECT_LT(kept, sizeof areas.area[0].label) << "label not terminated";
  EXPECT_EQ(std::string(areas.area[0].label), label.substr(0, kept));
  EXPECT_EQ(areas.area[0].length, 4);
}

// ----- Failure reports ----------------------------------------------------

struct ReportInput {
  svcINSERTS inserts = {};
  svcDUMPAREAS areas = {};
  unsigned char record[20];
};

void fillReportInput(ReportInput &input, const char *text) {
  std::memcpy(input.inserts.eyeCatcher, "XMSA", 4);
  input.inserts.numeric[0] = 7;
  input.inserts.numeric[1] = -1;
  input.inserts.numeric[2] = 0;
  input.inserts.numeric[3] = 42;
  std::snprintf(input.inserts.text[0], sizeof input.inserts.text[0], "%s", text);
  std::memcpy(input.record, "ABCD\x01\x02\x03\x04WXYZ0123456789", 20);
  svcBuildDumpArea(&input.areas, "Test record", input.record, 20);
}

TEST_F(SvcTest, FailureReportIsKeptInMemory) {
  svcInitialize(48, 1030, 0, 0, 0);
  ReportInput input;
  fillReportInput(input, "kept in memory");
  const int32_t countBefore = svcFailureReportCount();

  svcFailureReport(25, 119, 3, 0x20805452u, &input.inserts, &input.areas);

  EXPECT_EQ(svcFailureReportCount(), countBefore + 1);
  const std::string report = latestReport();
  ASSERT_FALSE(report.empty());
  EXPECT_EQ(reportField(report, "Component"), "25");
  EXPECT_EQ(reportField(report, "Function"), "119 zaiVectorAdd");
  EXPECT_EQ(reportField(report, "Probe"), "3");
  EXPECT_EQ(reportField(report, "Result code"), "0x20805452");
  EXPECT_EQ(reportField(report, "Product"), "1030");
  EXPECT_EQ(reportField(report, "Inserts"), "XMSA 7 -1 0 42");
  EXPECT_NE(report.find("kept in memory"), std::string::npos);
  EXPECT_NE(report.find("Test record"), std::string::npos);
  // Hex and characters of the dump area.
  EXPECT_NE(report.find("41424344"), std::string::npos) << report;
  EXPECT_NE(report.find("|ABCD....WXYZ0123|"), std::string::npos) << report;
  const std::vector<uint8_t> dumped = reportDump(report, "Test record");
  EXPECT_EQ(dumped, std::vector<uint8_t>(input.record, input.record + 20));
}

TEST_F(SvcTest, FailureReportIsWrittenToTheReportDirectory) {
  ReportInput input;
  char marker[64];
  std::snprintf(marker, sizeof marker, "written to a file by %d after %d reports",
                static_cast<int>(getpid()), static_cast<int>(svcFailureReportCount()));
  fillReportInput(input, marker);
  svcFailureReport(25, 121, 0, 0x20805453u, &input.inserts, &input.areas);
  const std::string report = latestReport();
  ASSERT_NE(report.find(marker), std::string::npos);

  const std::string directory = svcReportDirectory();
  ASSERT_FALSE(directory.empty());
  DIR *dir = opendir(directory.c_str());
  ASSERT_NE(dir, nullptr) << directory;
  int32_t matches = 0;
  while (dirent *entry = readdir(dir)) {
    const std::string path = directory + "/" + entry->d_name;
    struct stat info;
    if (stat(path.c_str(), &info) != 0 || !S_ISREG(info.st_mode)) continue;
    const std::string text = readFile(path);
    if (text.find(marker) == std::string::npos) continue;
    ++matches;
    EXPECT_EQ(text, report) << path;
  }
  closedir(dir);
  EXPECT_EQ(matches, 1) << "report files holding this report in " << directory;
}

TEST_F(SvcTest, SixteenLatestReportsAreKept) {
  const int32_t countBefore = svcFailureReportCount();
  for (int32_t i = 0; i < 17; ++i) {
    svcINSERTS inserts = {};
    std::memcpy(inserts.eyeCatcher, "XMSA", 4);
    inserts.numeric[0] = 1000 + i;
    svcFailureReport(25, 117, i, 0x20805451u, &inserts, nullptr);
  }
  EXPECT_EQ(svcFailureReportCount(), countBefore + 17);
  for (int32_t i = 0; i < 16; ++i)
    EXPECT_EQ(reportField(latestReport(i), "Inserts"),
              "XMSA " + std::to_string(1016 - i) + " 0 0 0")
        << "report " << i;
  EXPECT_EQ(svcLatestFailureReport(16, nullptr, 0), -1);
  EXPECT_EQ(svcLatestFailureReport(-1, nullptr, 0), -1);
}

TEST_F(SvcTest, LatestReportIsCutToTheBuffer) {
  svcFailureReport(25, 120, 0, 0x20805453u, nullptr, nullptr);
  const std::string full = latestReport();
  char buffer[11];
  std::memset(buffer, '#', sizeof buffer);
  EXPECT_EQ(svcLatestFailureReport(0, buffer, 10), static_cast<int32_t>(full.size()));
  EXPECT_EQ(std::string(buffer), full.substr(0, 9));
  EXPECT_EQ(buffer[10], '#');
}

TEST_F(SvcTest, ReportCountGrowsFromEveryThread) {
  const int32_t countBefore = svcFailureReportCount();
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t)
    threads.emplace_back([] {
      for (int i = 0; i < 5; ++i) svcFailureReport(25, 118, i, 0x20805452u, nullptr, nullptr);
    });
  for (std::thread &thread : threads) thread.join();
  EXPECT_EQ(svcFailureReportCount(), countBefore + 20);
}

// ----- Trace --------------------------------------------------------------

struct Captured {
  int32_t component;
  int32_t function;
  bool isData;
  std::string bytes;
};

std::vector<Captured> captured() {
  std::vector<Captured> out;
  for (int32_t i = 0; i < trcCapturedCount(); ++i) {
    trcCAPTURED line;
    if (trcCaptured(i, &line) != 0) break;
    out.push_back(Captured{line.component, line.function, line.isData != 0,
                           std::string(line.bytes, static_cast<size_t>(line.length))});
  }
  return out;
}

TEST_F(SvcTest, CapturedTextLines) {
  trcCaptureStart();
  trcText(25, 152, "internal text");
  trcApiText(25, 93, "vxCreateBag >>");
  trcCaptureStop();
  trcText(25, 152, "not captured");

  const std::vector<Captured> lines = captured();
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_EQ(lines[0].component, 25);
  EXPECT_EQ(lines[0].function, 152);
  EXPECT_FALSE(lines[0].isData);
  EXPECT_EQ(lines[0].bytes, "internal text");
  EXPECT_EQ(lines[1].component, 25);
  EXPECT_EQ(lines[1].function, 93);
  EXPECT_FALSE(lines[1].isData);
  EXPECT_EQ(lines[1].bytes, "vxCreateBag >>");

  trcCAPTURED line;
  EXPECT_NE(trcCaptured(2, &line), 0);
  EXPECT_NE(trcCaptured(-1, &line), 0);
}

TEST_F(SvcTest, CapturedDataLines) {
  const unsigned char bytes[6] = {0x00, 0x41, 0xFF, 0x0A, 0x20, 0x7F};
  trcCaptureStart();
  trcData(25, 119, bytes, 6);
  trcApiData(25, 93, bytes, 4);
  trcDataDetail(25, 120, 2, bytes + 1, 5);
  trcCaptureStop();

  const std::vector<Captured> lines = captured();
  ASSERT_EQ(lines.size(), 3u);
  EXPECT_TRUE(lines[0].isData);
  EXPECT_EQ(lines[0].component, 25);
  EXPECT_EQ(lines[0].function, 119);
  EXPECT_EQ(lines[0].bytes, std::string(reinterpret_cast<const char *>(bytes), 6));
  EXPECT_TRUE(lines[1].isData);
  EXPECT_EQ(lines[1].function, 93);
  EXPECT_EQ(lines[1].bytes, std::string(reinterpret_cast<const char *>(bytes), 4));
  EXPECT_TRUE(lines[2].isData);
  EXPECT_EQ(lines[2].function, 120);
  EXPECT_EQ(lines[2].bytes, std::string(reinterpret_cast<const char *>(bytes) + 1, 5));
}

TEST_F(SvcTest, StartingACaptureClearsTheLastOne) {
  trcCaptureStart();
  trcText(25, 152, "first");
  trcCaptureStart();
  trcText(25, 152, "second");
  trcCaptureStop();
  const std::vector<Captured> lines = captured();
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0].bytes, "second");
}

TEST_F(SvcTest, ParameterLineUsesTheAnchorsTag) {
  svcInitialize(48, 1030, 0, 0, 0);
  svcTHREADANCHOR *anchor = svcThreadAnchor();
  ASSERT_NE(anchor, nullptr);
  anchor->tagComponent = 25;
  anchor->tagFunction = 117;
  anchor->tagLevel = 2;
  trcCaptureStart();
  trcParms(anchor, "InitialSpace:%d, ElementSize:%d", 40, 24);
  anchor->tagFunction = 121;
  trcParms(anchor, "pVector:%.8lX, index:%d", 0xABCUL, -1);
  trcCaptureStop();

  const std::vector<Captured> lines = captured();
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_EQ(lines[0].component, 25);
  EXPECT_EQ(lines[0].function, 117);
  EXPECT_FALSE(lines[0].isData);
  EXPECT_EQ(lines[0].bytes, "InitialSpace:40, ElementSize:24");
  EXPECT_EQ(lines[1].function, 121);
  EXPECT_EQ(lines[1].bytes, "pVector:00000ABC, index:-1");
}

// Pushes a marker into the history ring as the library's frames do.
void recordMarker(svcTHREADANCHOR *anchor, uint32_t marker) {
  anchor->history[anchor->historyIndex] = marker;
  if (++anchor->historyIndex >= anchor->historySize) anchor->historyIndex = 0;
}

TEST_F(SvcTest, EntryAndExitLinesNameTheLatestMarker) {
  svcInitialize(48, 1030, 0, 0, 0);
  svcTHREADANCHOR *anchor = svcThreadAnchor();
  ASSERT_NE(anchor, nullptr);
  const uint32_t identifier = 25u << 10 | 119u;
  trcCaptureStart();
  recordMarker(anchor, 0xF0000000u | identifier);
  trcFunctionEntry(anchor);
  recordMarker(anchor, 5u << 16 | identifier);
  trcFunctionExit(anchor, 5);
  trcCaptureStop();

  const std::vector<Captured> lines = captured();
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_EQ(lines[0].component, 25);
  EXPECT_EQ(lines[0].function, 119);
  EXPECT_EQ(lines[0].bytes, "{ zaiVectorAdd");
  EXPECT_EQ(lines[1].component, 25);
  EXPECT_EQ(lines[1].function, 119);
  EXPECT_EQ(lines[1].bytes, "} zaiVectorAdd rc=5");
}

TEST_F(SvcTest, EntryLineFindsTheMarkerAcrossTheEndOfTheRing) {
  svcInitialize(48, 1030, 0, 0, 0);
  svcTHREADANCHOR *anchor = svcThreadAnchor();
  ASSERT_NE(anchor, nullptr);
  const int32_t savedIndex = anchor->historyIndex;
  // The marker lands in the last slot, and the index turns back to 0.
  anchor->historyIndex = anchor->historySize - 1;
  trcCaptureStart();
  recordMarker(anchor, 0xF0000000u | (25u << 10 | 93u));
  ASSERT_EQ(anchor->historyIndex, 0);
  trcFunctionEntry(anchor);
  trcCaptureStop();
  anchor->historyIndex = savedIndex;

  const std::vector<Captured> lines = captured();
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0].bytes, "{ zaiVXCreateBag");
}

TEST_F(SvcTest, CaptureKeepsTheLinesOfEveryThread) {
  constexpr int kThreads = 4, kLines = 200;
  trcCaptureStart();
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t)
    threads.emplace_back([t] {
      for (int i = 0; i < kLines; ++i)
        trcText(25, 150 + t, (std::to_string(t) + ":" + std::to_string(i)).c_str());
    });
  for (std::thread &thread : threads) thread.join();
  trcCaptureStop();

  const std::vector<Captured> lines = captured();
  ASSERT_EQ(lines.size(), static_cast<size_t>(kThreads * kLines));
  int next[kThreads] = {};
  for (const Captured &line : lines) {
    const int t = line.function - 150;
    ASSERT_GE(t, 0);
    ASSERT_LT(t, kThreads);
    // Each thread's lines keep their order.
    EXPECT_EQ(line.bytes, std::to_string(t) + ":" + std::to_string(next[t]));
    ++next[t];
  }
  for (int t = 0; t < kThreads; ++t) EXPECT_EQ(next[t], kLines);
}

std::string traceFilePath(pid_t pid) {
  return std::string(svcTraceDirectory()) + "/vxai." + std::to_string(pid) + ".trc";
}

TEST_F(SvcTest, NameTableOfTheLibraryIsRegistered) {
  EXPECT_STREQ(zaiFunctionNames[93], "zaiVXCreateBag");
  trcCaptureStart();
  svcInitialize(48, 1030, 0, 0, 0);
  svcTHREADANCHOR *anchor = svcThreadAnchor();
  recordMarker(anchor, 0xF0000000u | (25u << 10 | 93u));
  trcFunctionEntry(anchor);
  trcCaptureStop();
  const std::vector<Captured> lines = captured();
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0].bytes, "{ zaiVXCreateBag");
}

TEST_F(SvcTest, WithoutCaptureLinesGoToTheProcessTraceFile) {
  char marker[64];
  std::snprintf(marker, sizeof marker, "to the file %d %p", static_cast<int>(getpid()),
                static_cast<void *>(marker));
  const char data[] = "DATA-IN-FILE";
  trcText(25, 93, marker);
  trcData(25, 119, data, 12);

  const std::string path = traceFilePath(getpid());
  const std::vector<std::string> lines = linesOf(readFile(path));
  ASSERT_FALSE(lines.empty()) << path;
  size_t at = 0;
  while (at < lines.size() && lines[at].find(marker) == std::string::npos) ++at;
  ASSERT_LT(at, lines.size()) << "no line with \"" << marker << "\" in " << path;
  EXPECT_NE(lines[at].find("zaiVXCreateBag"), std::string::npos) << lines[at];
  // The data follows as a header naming the function and hex with characters.
  ASSERT_LT(at + 2, lines.size());
  EXPECT_NE(lines[at + 1].find("zaiVectorAdd"), std::string::npos) << lines[at + 1];
  EXPECT_NE(lines[at + 2].find("44415441"), std::string::npos) << lines[at + 2];
  EXPECT_NE(lines[at + 2].find("|DATA-IN-FILE|"), std::string::npos) << lines[at + 2];
}

// A child process writes to a trace file of its own, even when its parent
// had opened one before the fork.
TEST_F(SvcTest, ForkedChildTracesToItsOwnFile) {
  trcText(25, 93, "parent before fork");
  char marker[64];
  std::snprintf(marker, sizeof marker, "written by the child of %d", static_cast<int>(getpid()));
  const pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    trcText(25, 93, marker);
    _exit(0);
  }
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_NE(readFile(traceFilePath(child)).find(marker), std::string::npos)
      << "not in " << traceFilePath(child);
  EXPECT_EQ(readFile(traceFilePath(getpid())).find(marker), std::string::npos)
      << "the child wrote into its parent's file";
  std::remove(traceFilePath(child).c_str());
}

// ----- Anchors ------------------------------------------------------------

TEST_F(SvcTest, ProcessAnchorIsLoaded) {
  EXPECT_EQ(std::memcmp(processAnchor.eyeCatcher, "SVPA", 4), 0);
  EXPECT_EQ(processAnchor.owningPid, static_cast<int32_t>(getpid()));
}

TEST_F(SvcTest, NewThreadHasNoAnchorUntilItInitialises) {
  svcTHREADANCHOR sentinel = {};
  svcTHREADANCHOR *before = &sentinel;
  svcTHREADANCHOR *after = nullptr;
  svcTHREADANCHOR copy = {};
  void *fromKey = nullptr;
  onNewThread([&] {
    before = svcThreadAnchor();
    svcInitialize(48, 1030, 0, 0, 0);
    after = svcThreadAnchor();
    fromKey = pthread_getspecific(threadAnchorKey);
    if (after) copy = *after;
  });
  EXPECT_EQ(before, nullptr);
  ASSERT_NE(after, nullptr);
  EXPECT_EQ(fromKey, after);
  EXPECT_EQ(std::memcmp(copy.eyeCatcher, "SVTA", 4), 0);
  EXPECT_NE(copy.initialised, 0);
  EXPECT_EQ(copy.historySize, 48);
  EXPECT_EQ(copy.productId, 1030);
  EXPECT_EQ(copy.historyIndex, 0);
  EXPECT_EQ(copy.callDepth, 0);
}

TEST_F(SvcTest, EachThreadHasItsOwnAnchor) {
  svcInitialize(48, 1030, 0, 0, 0);
  svcTHREADANCHOR *mine = svcThreadAnchor();
  ASSERT_NE(mine, nullptr);
  svcTHREADANCHOR *other = nullptr;
  int32_t otherProduct = 0;
  onNewThread([&] {
    svcInitialize(16, 77, 0, 0, 0);
    other = svcThreadAnchor();
    otherProduct = other ? other->productId : 0;
  });
  EXPECT_NE(other, mine);
  EXPECT_EQ(otherProduct, 77);
  EXPECT_EQ(mine->productId, 1030);
  EXPECT_EQ(mine->historySize, 48);
}

TEST_F(SvcTest, InitialisingAgainKeepsTheAnchor) {
  svcTHREADANCHOR *first = nullptr, *second = nullptr;
  uint32_t keptMarker = 0;
  onNewThread([&] {
    svcInitialize(48, 1030, 0, 0, 0);
    first = svcThreadAnchor();
    first->history[0] = 0xF0006475u;
    svcInitialize(48, 1030, 0, 0, 0);
    second = svcThreadAnchor();
    keptMarker = second->history[0];
  });
  ASSERT_NE(first, nullptr);
  EXPECT_EQ(second, first);
  EXPECT_EQ(keptMarker, 0xF0006475u);
}

TEST_F(SvcTest, HistorySizeIsClamped) {
  const std::pair<int32_t, int32_t> cases[] = {{0, 1},     {-7, 1},    {1, 1},       {255, 255},
                                               {256, 256}, {257, 256}, {100000, 256}};
  for (const auto &[asked, expected] : cases) {
    int32_t size = -1;
    onNewThread([&] {
      svcInitialize(asked, 1030, 0, 0, 0);
      if (svcTHREADANCHOR *anchor = svcThreadAnchor()) size = anchor->historySize;
    });
    EXPECT_EQ(size, expected) << "asked for " << asked;
  }
}

#if defined(__SANITIZE_ADDRESS__)
// The leak checker sees an anchor that outlived its thread.
TEST_F(SvcTest, AnchorIsReleasedWhenTheThreadEnds) {
  for (int i = 0; i < 8; ++i) onNewThread([] { svcInitialize(48, 1030, 0, 0, 0); });
  EXPECT_EQ(__lsan_do_recoverable_leak_check(), 0);
}
#else
// Anchors that outlived their threads would show as memory still in use.
TEST_F(SvcTest, AnchorIsReleasedWhenTheThreadEnds) {
  constexpr int kThreads = 64;
  // A first round settles the allocator's per-thread arenas.
  for (int i = 0; i < 4; ++i) onNewThread([] { svcInitialize(48, 1030, 0, 0, 0); });
  const size_t before = mallinfo2().uordblks;
  for (int i = 0; i < kThreads; ++i) onNewThread([] { svcInitialize(48, 1030, 0, 0, 0); });
  const size_t after = mallinfo2().uordblks;
  const size_t growth = after > before ? after - before : 0;
  EXPECT_LT(growth, kThreads * sizeof(svcTHREADANCHOR) / 4)
      << "memory in use grew by " << growth << " bytes over " << kThreads << " threads";
}
#endif

// ----- Signal actions -----------------------------------------------------

constexpr int kGuardedSignals[] = {SIGSEGV, SIGBUS, SIGILL, SIGFPE};

class SignalActionTest : public SvcTest {
 protected:
  void SetUp() override {
    SvcTest::SetUp();
    savedGuard_ = processAnchor.signalGuard;
    for (size_t i = 0; i < std::size(kGuardedSignals); ++i)
      sigaction(kGuardedSignals[i], nullptr, &original_[i]);
  }
  void TearDown() override {
    for (size_t i = 0; i < std::size(kGuardedSignals); ++i)
      sigaction(kGuardedSignals[i], &original_[i], nullptr);
    processAnchor.signalGuard = savedGuard_;
    SvcTest::TearDown();
  }
  static void install(int signal, void (*handler)(int)) {
    struct sigaction action = {};
    action.sa_handler = handler;
    sigemptyset(&action.sa_mask);
    sigaction(signal, &action, nullptr);
  }
  static void (*current(int signal))(int) {
    struct sigaction action;
    sigaction(signal, nullptr, &action);
    return action.sa_handler;
  }
  int32_t savedGuard_ = 0;
  struct sigaction original_[std::size(kGuardedSignals)];
};

TEST_F(SignalActionTest, WithoutTheGuardNothingIsSaved) {
  processAnchor.signalGuard = 0;
  for (int signal : kGuardedSignals) install(signal, handlerA);
  int32_t saved = 0;
  sigSaveActions(&saved);
  EXPECT_EQ(saved, 0);
  for (int signal : kGuardedSignals) install(signal, handlerB);
  sigRestoreActions(&saved);
  for (int signal : kGuardedSignals) EXPECT_EQ(current(signal), handlerB) << "signal " << signal;
}

TEST_F(SignalActionTest, WithTheGuardAChangedHandlerIsPutBack) {
  processAnchor.signalGuard = 1;
  for (int signal : kGuardedSignals) install(signal, handlerA);
  int32_t saved = 0;
  sigSaveActions(&saved);
  EXPECT_NE(saved, 0);
  for (int signal : kGuardedSignals) install(signal, handlerB);
  sigRestoreActions(&saved);
  for (int signal : kGuardedSignals) EXPECT_EQ(current(signal), handlerA) << "signal " << signal;
}

// ----- Control block and process id ----------------------------------------

class ControlBlockTest : public SvcTest {
 protected:
  void TearDown() override {
    svcResetControlBlock();
    SvcTest::TearDown();
  }
};

TEST_F(ControlBlockTest, EstablishedBlockBelongsToThisProcess) {
  svcResetControlBlock();
  EXPECT_EQ(svcControlBlock(), nullptr);
  svcCONTROLBLOCK *block = svcEstablishControlBlock();
  ASSERT_NE(block, nullptr);
  EXPECT_EQ(std::memcmp(block->eyeCatcher, "XIH ", 4), 0);
  EXPECT_EQ(block->ownerPid, static_cast<int32_t>(getpid()));
  EXPECT_EQ(block->connections, 0);
  EXPECT_EQ(svcControlBlock(), block);
}

TEST_F(ControlBlockTest, EstablishingAgainKeepsTheBlock) {
  svcResetControlBlock();
  svcCONTROLBLOCK *block = svcEstablishControlBlock();
  ASSERT_NE(block, nullptr);
  block->connections = 3;
  EXPECT_EQ(svcEstablishControlBlock(), block);
  EXPECT_EQ(block->connections, 3);
}

TEST_F(ControlBlockTest, EachConnectionNotedIsCounted) {
  svcResetControlBlock();
  svcNoteConnection();
  svcNoteConnection();
  svcCONTROLBLOCK *block = svcControlBlock();
  ASSERT_NE(block, nullptr);
  EXPECT_EQ(block->ownerPid, static_cast<int32_t>(getpid()));
  EXPECT_EQ(block->connections, 2);
}

TEST_F(ControlBlockTest, ResetLeavesNoBlock) {
  ASSERT_NE(svcEstablishControlBlock(), nullptr);
  svcResetControlBlock();
  EXPECT_EQ(svcControlBlock(), nullptr);
  svcCONTROLBLOCK *again = svcEstablishControlBlock();
  ASSERT_NE(again, nullptr);
  EXPECT_EQ(again->connections, 0);
}

// A forked child inherits its parent's block, sees the parent as its owner,
// and gets a block of its own after a reset.
TEST_F(ControlBlockTest, ForkedChildSeesItsParentsBlock) {
  svcResetControlBlock();
  ASSERT_NE(svcEstablishControlBlock(), nullptr);
  const int32_t parent = svcGetPid();
  const pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    int code = 0;
    svcCONTROLBLOCK *inherited = svcControlBlock();
    if (!inherited || inherited->ownerPid != parent) code |= 1;
    if (svcGetPid() == parent || svcGetPid() != static_cast<int32_t>(getpid())) code |= 2;
    svcResetControlBlock();
    if (svcControlBlock() != nullptr) code |= 4;
    svcCONTROLBLOCK *own = svcEstablishControlBlock();
    if (!own || own->ownerPid != static_cast<int32_t>(getpid())) code |= 8;
    _exit(code);
  }
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 0) << "failed checks (bits): " << WEXITSTATUS(status);
  // The parent's block is untouched by the child.
  ASSERT_NE(svcControlBlock(), nullptr);
  EXPECT_EQ(svcControlBlock()->ownerPid, parent);
}

TEST_F(SvcTest, GetPidIsTheProcessId) {
  EXPECT_EQ(svcGetPid(), static_cast<int32_t>(getpid()));
  int32_t fromThread = 0;
  onNewThread([&] { fromThread = svcGetPid(); });
  EXPECT_EQ(fromThread, static_cast<int32_t>(getpid()));
}

}  // namespace

// ----- Per-thread memory limit ---------------------------------------------

namespace {

constexpr int32_t kThreadLimitComponent = 62;

class ThreadMemLimitTest : public vxtest::VxTest {
 protected:
  void TearDown() override {
    svcSetThreadMemLimit(0, 0);
    VxTest::TearDown();
  }
};

TEST_F(ThreadMemLimitTest, LargestBlockRefusesLargerBlocksOfThisThreadOnly) {
  ASSERT_EQ(svcSetThreadMemLimit(100, 0), 0);
  void *fits = nullptr, *tooLarge = &tooLarge, *elsewhere = nullptr;
  EXPECT_EQ(svcGetMem(kThreadLimitComponent, 1, 100, 0, &fits), 0);
  EXPECT_NE(svcGetMem(kThreadLimitComponent, 1, 101, 0, &tooLarge), 0);
  EXPECT_EQ(tooLarge, nullptr);
  int32_t other = -1;
  std::thread thread([&] { other = svcGetMem(kThreadLimitComponent, 1, 1000, 0, &elsewhere); });
  thread.join();
  EXPECT_EQ(other, 0) << "another thread is not limited";
  EXPECT_EQ(svcFreeMem(kThreadLimitComponent, fits), 0);
  EXPECT_EQ(svcFreeMem(kThreadLimitComponent, elsewhere), 0);
}

TEST_F(ThreadMemLimitTest, TotalCountsLiveBytesAndReleasesCreditThem) {
  ASSERT_EQ(svcSetThreadMemLimit(0, 300), 0);
  void *a = nullptr, *b = nullptr, *c = &c;
  ASSERT_EQ(svcGetMem(kThreadLimitComponent, 1, 200, 0, &a), 0);
  ASSERT_EQ(svcGetMem(kThreadLimitComponent, 1, 100, 0, &b), 0);
  EXPECT_NE(svcGetMem(kThreadLimitComponent, 1, 1, 0, &c), 0) << "301 bytes would be live";
  EXPECT_EQ(c, nullptr);
  // A release from another thread credits the thread that got the block.
  std::thread thread([&] { EXPECT_EQ(svcFreeMem(kThreadLimitComponent, a), 0); });
  thread.join();
  EXPECT_EQ(svcGetMem(kThreadLimitComponent, 1, 200, 0, &c), 0);
  EXPECT_EQ(svcFreeMem(kThreadLimitComponent, b), 0);
  EXPECT_EQ(svcFreeMem(kThreadLimitComponent, c), 0);
}

TEST_F(ThreadMemLimitTest, LiftingTheLimitEndsTheCountAndANewOneStartsAtZero) {
  void *before = nullptr, *large = nullptr, *after = nullptr;
  ASSERT_EQ(svcGetMem(kThreadLimitComponent, 1, 500, 0, &before), 0);
  ASSERT_EQ(svcSetThreadMemLimit(64, 128), 0);
  EXPECT_NE(svcGetMem(kThreadLimitComponent, 1, 65, 0, &large), 0);
  ASSERT_EQ(svcSetThreadMemLimit(0, 0), 0);
  EXPECT_EQ(svcGetMem(kThreadLimitComponent, 1, 65, 0, &large), 0) << "limit lifted";
  // Blocks got before the cap, or while none was set, are not counted.
  ASSERT_EQ(svcSetThreadMemLimit(0, 128), 0);
  EXPECT_EQ(svcGetMem(kThreadLimitComponent, 1, 128, 0, &after), 0);
  EXPECT_EQ(svcFreeMem(kThreadLimitComponent, before), 0);
  EXPECT_EQ(svcFreeMem(kThreadLimitComponent, large), 0);
  EXPECT_EQ(svcFreeMem(kThreadLimitComponent, after), 0);
  int32_t blocks = -1, bytes = -1;
  svcMemLive(kThreadLimitComponent, -1, &blocks, &bytes);
  EXPECT_EQ(blocks, 0);
}

}  // namespace
