#include "vxtest.h"

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <stdexcept>

#include "vxnames.h"

namespace vxtest {

std::string reasonName(int32_t reason) {
  const vxnames::Reason *entry = vxnames::findReason(reason);
  if (entry) return std::string(entry->name) + " (" + std::to_string(reason) + ")";
  return std::to_string(reason);
}

std::string compCodeName(int32_t compCode) {
  switch (compCode) {
    case CC_OK:
      return "CC_OK";
    case CC_WARNING:
      return "CC_WARNING";
    case CC_FAILED:
      return "CC_FAILED";
  }
  return std::to_string(compCode);
}

::testing::AssertionResult outcomeIs(const char *, const char *, const char *, const char *,
                                     int32_t compCode, int32_t reason, int32_t expectedCompCode,
                                     int32_t expectedReason) {
  if (compCode == expectedCompCode && reason == expectedReason)
    return ::testing::AssertionSuccess();
  return ::testing::AssertionFailure()
         << "expected " << compCodeName(expectedCompCode) << " " << reasonName(expectedReason)
         << ", got " << compCodeName(compCode) << " " << reasonName(reason);
}

int32_t liveBlocks() {
  int32_t blocks, bytes;
  svcMemLive(ZAI_COMPONENT, -1, &blocks, &bytes);
  return blocks;
}

int32_t liveBytes() {
  int32_t blocks, bytes;
  svcMemLive(ZAI_COMPONENT, -1, &blocks, &bytes);
  return bytes;
}

bool releaseKeptBlock(int32_t function) {
  void *block = nullptr;
  return svcMemLiveBlock(ZAI_COMPONENT, function, &block) == 0 &&
         svcFreeMem(ZAI_COMPONENT, block) == 0;
}

std::string dataOf(const void *bytes, size_t length) {
  std::string out = "<data";
  char hex[4];
  for (size_t i = 0; i < length; ++i) {
    std::snprintf(hex, sizeof hex, " %02X", static_cast<const uint8_t *>(bytes)[i]);
    out += hex;
  }
  return out + ">";
}

std::string render(const TraceLine &line) {
  return line.isData ? dataOf(line.data.data(), line.data.size()) : line.text;
}

TraceCapture::TraceCapture(uint32_t options, bool threadTrace) : saved_(processAnchor) {
  svcInitialize(48, 1030, 0, 0, 0);
  savedThreadTrace_ = svcThreadAnchor()->traceActive;
  trcCaptureStart();
  processAnchor.traceEnabled = 1;
  processAnchor.traceLevel = 0;
  processAnchor.traceOptions = options;
  svcThreadAnchor()->traceActive = threadTrace ? 1 : 0;
}

TraceCapture::~TraceCapture() {
  trcCaptureStop();
  processAnchor = saved_;
  svcThreadAnchor()->traceActive = savedThreadTrace_;
}

std::vector<TraceLine> TraceCapture::raw() const {
  std::vector<TraceLine> out;
  for (int32_t i = 0; i < trcCapturedCount(); ++i) {
    trcCAPTURED captured;
    if (trcCaptured(i, &captured) != 0) break;
    TraceLine line{captured.isData != 0, captured.function, {}, {}};
    if (line.isData)
      line.data.assign(captured.bytes, captured.bytes + captured.length);
    else
      line.text.assign(captured.bytes, static_cast<size_t>(captured.length));
    out.push_back(line);
  }
  return out;
}

std::vector<std::string> TraceCapture::lines() const {
  std::vector<std::string> out;
  for (const TraceLine &line : raw()) out.push_back(render(line));
  return out;
}

std::vector<std::string> parmLines(const TraceCapture &trace, int32_t function) {
  std::vector<std::string> out;
  for (const TraceLine &line : trace.raw()) {
    if (line.isData || line.function != function) continue;
    if (line.text.rfind("{ ", 0) == 0 || line.text.rfind("} ", 0) == 0) continue;
    out.push_back(line.text);
  }
  return out;
}

void expectAllUnder(const TraceCapture &trace, int32_t function) {
  for (const TraceLine &line : trace.raw()) EXPECT_EQ(line.function, function) << render(line);
}

std::string pointerText(const void *address) {
  char text[32];
  std::snprintf(text, sizeof text, "%p", address);
  return text;
}

void *mapLow(size_t bytes, int prot) {
  constexpr int kFlags = MAP_PRIVATE | MAP_ANONYMOUS;
  // Below the handle region of a 64-bit process; what is already mapped
  // there (a program linked at a fixed address, its heap) is never replaced.
  // Places are taken in rising order, wrapping around, so that an address
  // just given back (ProtectedPages::unmapped) stays unmapped for a while.
  constexpr uintptr_t kLowest = uintptr_t{16} << 20, kEnd = uintptr_t{256} << 20;
  static std::atomic<uintptr_t> next{kLowest};
  const auto page = static_cast<uintptr_t>(sysconf(_SC_PAGESIZE));
  const uintptr_t length = (bytes + page - 1) / page * page;
  for (uintptr_t tried = 0; tried < kEnd - kLowest; tried += length) {
    uintptr_t hint = next.fetch_add(length);
    if (hint < kLowest || hint + length > kEnd) {
      hint = kLowest;
      next.store(kLowest + length);
    }
    void *mapped =
        mmap(reinterpret_cast<void *>(hint), bytes, prot, kFlags | MAP_FIXED_NOREPLACE, -1, 0);
    if (mapped == MAP_FAILED) {
      if (errno == EEXIST) continue;
      return nullptr;
    }
    if (reinterpret_cast<uintptr_t>(mapped) == hint) return mapped;
    munmap(mapped, bytes);  // a kernel that took the flag for a hint
  }
  return nullptr;
}

LowPage::LowPage() : size(static_cast<size_t>(sysconf(_SC_PAGESIZE))) {
  bytes = static_cast<unsigned char *>(mapLow(size, PROT_READ | PROT_WRITE));
  if (!bytes) throw std::runtime_error("no low page");
}

LowPage::~LowPage() { munmap(bytes, size); }

ProtectedPages::ProtectedPages() {
  const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
  none = mapLow(page, PROT_NONE);
  readOnly = mapLow(page, PROT_READ | PROT_WRITE);
  unmapped = mapLow(page, PROT_READ);
  if (!none || !readOnly || !unmapped) {
    for (void *mapped : {none, readOnly, unmapped})
      if (mapped) munmap(mapped, page);
    throw std::runtime_error("no low pages");
  }
  std::memset(readOnly, 'R', page);
  mprotect(readOnly, page, PROT_READ);
  munmap(unmapped, page);
}

ProtectedPages::~ProtectedPages() {
  const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
  munmap(none, page);
  munmap(readOnly, page);
}

PageEdge::PageEdge() {
  page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
  base = static_cast<char *>(mapLow(2 * page, PROT_READ | PROT_WRITE));
  if (base) {
    std::memset(base, 'A', page);
    mprotect(base + page, page, PROT_NONE);
  }
}

PageEdge::~PageEdge() {
  if (base) munmap(base, 2 * page);
}

VXHBAG handleOf(const void *record) {
  const auto address = reinterpret_cast<uintptr_t>(record);
  const auto handle = static_cast<VXHBAG>(address);
  // Above 32 bits the handle would name some other memory, and a test of a
  // refused handle would pass for the wrong reason.
  if (static_cast<uintptr_t>(static_cast<uint32_t>(handle)) != address)
    ADD_FAILURE() << "no handle can name " << record << ": place it with vxtest::mapLow";
  return handle;
}

uint32_t exitMarker(int32_t function, int32_t reason) {
  return static_cast<uint32_t>(reason) << 16 |
         static_cast<uint32_t>(ZAI_COMPONENT << 10 | function);
}

std::ostream &operator<<(std::ostream &out, const Item &item) {
  out << "{" << item.selector << ", type " << item.type << ", ";
  if (item.type == ITEM_TYPE_STRING) return out << "\"" << item.text << "\"}";
  return out << item.value << "}";
}

Item integer(int32_t selector, int32_t value) { return {selector, ITEM_TYPE_INTEGER, value, {}}; }
Item stringItem(int32_t selector, const std::string &text) {
  return {selector, ITEM_TYPE_STRING, 0, text};
}
Item bagItem(int32_t selector, VXHBAG bag) { return {selector, ITEM_TYPE_BAG, bag, {}}; }

std::vector<Item> itemsOf(VXHBAG bag) {
  std::vector<Item> items;
  int32_t count = -1, cc = -1, rc = -1;
  vxCountItems(bag, SEL_ANY_SELECTOR, &count, &cc, &rc);
  EXPECT_OK(cc, rc);
  for (int32_t i = 0; i < count; ++i) {
    Item item{0, 0, 0, {}};
    vxInquireItemInfo(bag, SEL_ANY_SELECTOR, i, &item.selector, &item.type, &cc, &rc);
    EXPECT_OK(cc, rc) << "item " << i;
    if (item.type == ITEM_TYPE_INTEGER) {
      vxInquireInteger(bag, SEL_ANY_SELECTOR, i, &item.value, &cc, &rc);
    } else if (item.type == ITEM_TYPE_STRING) {
      char buffer[256];
      int32_t length = 0;
      vxInquireString(bag, SEL_ANY_SELECTOR, i, sizeof buffer, buffer, &length, nullptr, &cc, &rc);
      item.text.assign(buffer, static_cast<size_t>(std::clamp<int32_t>(length, 0, 256)));
    } else {
      vxInquireBag(bag, SEL_ANY_SELECTOR, i, &item.value, &cc, &rc);
    }
    EXPECT_OK(cc, rc) << "item " << i;
    items.push_back(item);
  }
  return items;
}

std::vector<Item> defaultItems(int32_t bagOptions, int32_t pcfType) {
  return {integer(SEL_BAG_OPTIONS, bagOptions),
          integer(SEL_PCF_TYPE, pcfType),
          integer(SEL_CODED_CHAR_SET_ID, 0),
          integer(SEL_COMMAND, 0),
          integer(SEL_MSG_SEQ_NUMBER, 1),
          integer(SEL_CONTROL, 1),
          integer(SEL_COMP_CODE, 0),
          integer(SEL_REASON, 0)};
}

void VxTest::SetUp() {
  svcInjectMemFailure(0);
  blocksAtStart_ = liveBlocks();
}

void VxTest::TearDown() {
  svcInjectMemFailure(0);
  EXPECT_EQ(liveBlocks(), blocksAtStart_) << "blocks of the bag library left behind";
}

int32_t countOf(VXHBAG bag, int32_t selector) {
  int32_t count = -1, cc = -1, rc = -1;
  vxCountItems(bag, selector, &count, &cc, &rc);
  EXPECT_OK(cc, rc);
  return count;
}

void BagTest::SetUp() { VxTest::SetUp(); }

void BagTest::TearDown() {
  for (VXHBAG bag : bags_) {
    int32_t cc, rc;
    vxDeleteBag(&bag, &cc, &rc);
    EXPECT_OK(cc, rc);
  }
  for (zaiBAG *bag : systemBags_) {
    int32_t cc, rc;
    zaiDeleteBag(&bag, &cc, &rc);
  }
  VxTest::TearDown();
}

VXHBAG BagTest::newBag(int32_t options) {
  VXHBAG bag = BAG_NONE;
  int32_t cc = -1, rc = -1;
  vxCreateBag(options, &bag, &cc, &rc);
  EXPECT_OK(cc, rc);
  bags_.push_back(bag);
  return bag;
}

VXHBAG BagTest::newSystemBag(int32_t options) {
  zaiBAG *bag = nullptr;
  int32_t cc = -1, rc = -1;
  zaiCreateBag(options, &bag, &cc, &rc);
  EXPECT_OK(cc, rc);
  systemBags_.push_back(bag);
  return handleOf(bag);
}

}  // namespace vxtest
