#include "vxtest.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>

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

ProtectedPages::ProtectedPages() {
  const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
  none = mmap(nullptr, page, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  readOnly = mmap(nullptr, page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  std::memset(readOnly, 'R', page);
  mprotect(readOnly, page, PROT_READ);
  unmapped = mmap(nullptr, page, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  munmap(unmapped, page);
}

ProtectedPages::~ProtectedPages() {
  const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
  munmap(none, page);
  munmap(readOnly, page);
}

PageEdge::PageEdge() {
  page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
  void *mapped =
      mmap(nullptr, 2 * page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  base = mapped == MAP_FAILED ? nullptr : static_cast<char *>(mapped);
  if (base) {
    std::memset(base, 'A', page);
    mprotect(base + page, page, PROT_NONE);
  }
}

PageEdge::~PageEdge() {
  if (base) munmap(base, 2 * page);
}

VXHBAG handleOf(const void *record) {
  return static_cast<VXHBAG>(reinterpret_cast<uintptr_t>(record));
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

void BagTest::SetUp() {
  VxTest::SetUp();
  std::memset(zeroed_, 0, sizeof zeroed_);
}

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
