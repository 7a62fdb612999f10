// The call frame every exported call runs in: thread set-up, the markers of
// the trace history and call stack, the API trace, the parameter lines of the
// internal functions, signal actions and callers without a status pair.
#include <dlfcn.h>
#include <signal.h>

#include <cstdio>
#include <cstring>
#include <functional>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "vxtest.h"

namespace {

using vxtest::dataOf;
using Lines = std::vector<std::string>;

// Function numbers of the calls under test and of what they call.
constexpr int32_t kVXCreateBag = 93;
constexpr int32_t kVXDeleteBag = 94;
constexpr int32_t kVXPad = 113;
constexpr int32_t kVXTrim = 114;
constexpr int32_t kPadString = 115;
constexpr int32_t kTrimBuffer = 116;
constexpr int32_t kVectorCreate = 117;
constexpr int32_t kVectorDestroy = 118;
constexpr int32_t kVectorAdd = 119;
constexpr int32_t kVectorRemoveAt = 120;
constexpr int32_t kFreeItem = 150;
constexpr int32_t kCreateBag = 152;
constexpr int32_t kDeleteBag = 153;
constexpr int32_t kAddDefaultSystemItems = 171;

constexpr uint32_t kTraceOff = 0xFFFFFFFFu;

constexpr uint32_t identifierOf(int32_t function) {
  return static_cast<uint32_t>(25 << 10 | function);
}
constexpr uint32_t entryMarker(int32_t function) { return 0xF0000000u | identifierOf(function); }
constexpr uint32_t exitMarker(int32_t function, int32_t reason) {
  return static_cast<uint32_t>(reason) << 16 | identifierOf(function);
}

static_assert(entryMarker(kVXCreateBag) == 0xF000645Du);
static_assert(exitMarker(kVXCreateBag, RC_BAG_HANDLE_ERROR) == 0x0910645Du);

// The markers written to a thread's history since slot `start` (fewer than a
// full ring).
std::vector<uint32_t> historySince(const svcTHREADANCHOR *anchor, int32_t start) {
  std::vector<uint32_t> markers;
  for (int32_t slot = start; slot != anchor->historyIndex; slot = (slot + 1) % anchor->historySize)
    markers.push_back(anchor->history[slot]);
  return markers;
}

// One call as the history shows it: entered, left with a reason, and what it
// called meanwhile.
struct Call {
  int32_t function;
  int32_t reason;
  std::vector<Call> inner;
};

// Pairs every entry marker with the exit marker of the same identifier.
// Returns false, with what went wrong, when the markers do not nest.
bool callsOf(const std::vector<uint32_t> &markers, std::vector<Call> *calls, std::string *problem) {
  std::vector<Call> open;
  for (uint32_t marker : markers) {
    if ((marker & 0xF0000000u) == 0xF0000000u) {
      if ((marker & 0xFC00u) != identifierOf(0)) {
        *problem = "marker of another component: " + std::to_string(marker);
        return false;
      }
      open.push_back(Call{static_cast<int32_t>(marker & 0x3FF), 0, {}});
      continue;
    }
    if (open.empty() || identifierOf(open.back().function) != (marker & 0xFFFF)) {
      *problem = "exit marker without its entry: " + std::to_string(marker);
      return false;
    }
    Call done = open.back();
    open.pop_back();
    done.reason = static_cast<int32_t>(marker >> 16);
    (open.empty() ? *calls : open.back().inner).push_back(done);
  }
  if (!open.empty()) {
    *problem = "call not left: " + std::to_string(open.back().function);
    return false;
  }
  return true;
}

// Calls not in `kept` are left out, and what they called moves up a level.
std::vector<Call> keepOnly(const std::vector<Call> &calls, const std::set<int32_t> &kept) {
  std::vector<Call> out;
  for (const Call &call : calls) {
    std::vector<Call> inner = keepOnly(call.inner, kept);
    if (kept.count(call.function)) {
      out.push_back(Call{call.function, call.reason, inner});
    } else {
      out.insert(out.end(), inner.begin(), inner.end());
    }
  }
  return out;
}

// "93(152(117 171(119 ...)))"; a non-zero reason follows its call as "!2320".
std::string shape(const std::vector<Call> &calls) {
  std::string out;
  for (const Call &call : calls) {
    if (!out.empty()) out += ' ';
    out += std::to_string(call.function);
    if (call.reason != 0) out += "!" + std::to_string(call.reason);
    if (!call.inner.empty()) out += "(" + shape(call.inner) + ")";
  }
  return out;
}

std::string shapeOf(const std::vector<uint32_t> &markers, const std::set<int32_t> &kept = {}) {
  std::vector<Call> calls;
  std::string problem;
  if (!callsOf(markers, &calls, &problem)) return problem;
  return shape(kept.empty() ? calls : keepOnly(calls, kept));
}

std::string repeated(const std::string &item, int count) {
  std::string out;
  for (int i = 0; i < count; ++i) out += (i ? " " : "") + item;
  return out;
}

// The frame shape of a bag creation, without whatever helps add the system
// items, and of a bag deletion (eight items).
const std::set<int32_t> kCreateShapeCalls = {kVXCreateBag, kCreateBag, kVectorCreate,
                                             kAddDefaultSystemItems, kVectorAdd};
const std::string kCreateShape = "93(152(117 171(" + repeated("119", 8) + ")))";
const std::string kDeleteShape = "94(153(" + repeated("150(120)", 8) + " 118))";

using vxtest::pointerText;

std::string vectorText(const void *address) {
  char text[32];
  std::snprintf(text, sizeof text, "%.8lX",
                static_cast<unsigned long>(reinterpret_cast<uintptr_t>(address)));
  return text;
}

std::string bytesOf(const std::string &text) { return dataOf(text.data(), text.size()); }

// Rendered lines written under one function number.
Lines linesOf(const vxtest::TraceCapture &capture, int32_t function) {
  Lines out;
  for (const vxtest::TraceLine &line : capture.raw())
    if (line.function == function) out.push_back(vxtest::render(line));
  return out;
}

bool isFrameLine(const std::string &line) {
  return line.rfind("{ ", 0) == 0 || line.rfind("} ", 0) == 0;
}

// Every test starts from a quiet process (no trace, no signal guard, whatever
// the environment asked for) on a thread the library has set up, with its
// thread trace off; the process and thread words are put back afterwards.
class FrameTest : public vxtest::VxTest {
 protected:
  void SetUp() override {
    VxTest::SetUp();
    savedProcess_ = processAnchor;
    processAnchor.traceEnabled = 0;
    processAnchor.traceLevel = kTraceOff;
    processAnchor.traceOptions = 0;
    processAnchor.earlyTrace = 0;
    processAnchor.signalGuard = 0;
    int32_t cc, rc;
    vxPad(nullptr, 0, nullptr, &cc, &rc);
    anchor_ = svcThreadAnchor();
    ASSERT_NE(anchor_, nullptr);
    savedThreadTrace_ = anchor_->traceActive;
    anchor_->traceActive = 0;
  }

  void TearDown() override {
    if (anchor_) anchor_->traceActive = savedThreadTrace_;
    processAnchor = savedProcess_;
    VxTest::TearDown();
  }

  svcTHREADANCHOR *anchor_ = nullptr;
  svcPROCESSANCHOR savedProcess_{};
  int32_t savedThreadTrace_ = 0;
};

// ----- Thread set-up -----------------------------------------------------------------

// What a new thread's anchor looked like around its first call.
struct FirstCall {
  bool anchorBefore = true;
  bool anchorAfter = false;
  char eyeCatcher[4] = {};
  int32_t initialised = 0;
  int32_t historySize = 0;
  int32_t productId = 0;
  int32_t callDepth = -1;
  uint32_t firstMarker = 0;
};

// `body` runs on a new thread, then the anchor is looked at, then `after`.
template <typename Body, typename After = void (*)()>
FirstCall firstCallOnNewThread(
    Body body, After after = [] {}) {
  FirstCall seen;
  std::thread thread([&] {
    seen.anchorBefore = svcThreadAnchor() != nullptr;
    body();
    const svcTHREADANCHOR *anchor = svcThreadAnchor();
    seen.anchorAfter = anchor != nullptr;
    if (!anchor) return;
    std::memcpy(seen.eyeCatcher, anchor->eyeCatcher, 4);
    seen.initialised = anchor->initialised;
    seen.historySize = anchor->historySize;
    seen.productId = anchor->productId;
    seen.callDepth = anchor->callDepth;
    seen.firstMarker = anchor->history[0];
    after();
  });
  thread.join();
  return seen;
}

void expectSetUpBy(const FirstCall &seen, int32_t function) {
  EXPECT_FALSE(seen.anchorBefore);
  ASSERT_TRUE(seen.anchorAfter);
  EXPECT_EQ(std::string(seen.eyeCatcher, 4), "SVTA");
  EXPECT_EQ(seen.initialised, 1);
  EXPECT_EQ(seen.historySize, 48);
  EXPECT_EQ(seen.productId, 1030);
  EXPECT_EQ(seen.callDepth, 0);
  EXPECT_EQ(seen.firstMarker, entryMarker(function));
}

TEST_F(FrameTest, CreateBagOnANewThreadSetsTheThreadUp) {
  int32_t createCC = -1, createRC = -1, deleteCC = -1, deleteRC = -1;
  VXHBAG bag = BAG_NONE;
  FirstCall seen = firstCallOnNewThread([&] { vxCreateBag(0, &bag, &createCC, &createRC); },
                                        [&] { vxDeleteBag(&bag, &deleteCC, &deleteRC); });
  expectSetUpBy(seen, kVXCreateBag);
  EXPECT_OK(createCC, createRC);
  EXPECT_OK(deleteCC, deleteRC);
}

TEST_F(FrameTest, EveryCallSetsANewThreadUpEvenWhenItsChecksFail) {
  int32_t cc = -1, rc = -1;
  expectSetUpBy(firstCallOnNewThread([&] { vxCreateBag(0, nullptr, &cc, &rc); }), kVXCreateBag);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_BAG_HANDLE_ERROR);
  expectSetUpBy(firstCallOnNewThread([&] { vxDeleteBag(nullptr, &cc, &rc); }), kVXDeleteBag);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_BAG_HANDLE_ERROR);
  char field[4];
  expectSetUpBy(firstCallOnNewThread([&] { vxPad("AB", 4, field, &cc, &rc); }), kVXPad);
  EXPECT_OK(cc, rc);
  char string[5];
  expectSetUpBy(firstCallOnNewThread([&] { vxTrim(4, "AB  ", string, &cc, &rc); }), kVXTrim);
  EXPECT_OK(cc, rc);
}

TEST_F(FrameTest, AnAnchorNotMarkedInitialisedIsSetUpAgain) {
  FirstCall seen = firstCallOnNewThread([] {
    svcInitialize(10, 7, 0, 0, 0);
    svcThreadAnchor()->initialised = 0;
    int32_t cc, rc;
    char field[2];
    vxPad("A", 2, field, &cc, &rc);
  });
  EXPECT_EQ(seen.initialised, 1);
  EXPECT_EQ(seen.historySize, 48);
  EXPECT_EQ(seen.productId, 1030);
}

TEST_F(FrameTest, AnInitialisedThreadIsLeftAsItWas) {
  FirstCall seen = firstCallOnNewThread([] {
    svcInitialize(10, 7, 0, 0, 0);
    int32_t cc, rc;
    char field[2];
    vxPad("A", 2, field, &cc, &rc);
  });
  EXPECT_EQ(seen.initialised, 1);
  EXPECT_EQ(seen.historySize, 10);
  EXPECT_EQ(seen.productId, 7);
  EXPECT_EQ(seen.firstMarker, entryMarker(kVXPad));
}

// ----- Trace history and call stack --------------------------------------------------

TEST_F(FrameTest, CreateBagRecordsItsMarkersAndThoseOfWhatItCalls) {
  const int32_t start = anchor_->historyIndex;
  const int32_t depth = anchor_->callDepth;
  ASSERT_LT(depth + 1, SVC_CALL_STACK_SLOTS);
  VXHBAG bag = BAG_NONE;
  int32_t cc = -1, rc = -1;
  uint32_t result = vxCreateBag(0, &bag, &cc, &rc);
  ASSERT_OK(cc, rc);
  std::vector<uint32_t> markers = historySince(anchor_, start);
  ASSERT_GE(markers.size(), 2u);
  EXPECT_EQ(markers.front(), 0xF000645Du);
  EXPECT_EQ(markers.back(), 0x0000645Du);
  EXPECT_EQ(result, 0x0000645Du);
  EXPECT_EQ(shapeOf(markers, kCreateShapeCalls), kCreateShape);
  // Every call of the library made on the way nests and ends with reason 0.
  EXPECT_EQ(shapeOf(markers).find('!'), std::string::npos) << shapeOf(markers);
  EXPECT_EQ(anchor_->callDepth, depth);
  EXPECT_EQ(anchor_->callStack[depth], 0xF000645Du);
  EXPECT_EQ(anchor_->callStack[depth + 1], entryMarker(kCreateBag));
  vxDeleteBag(&bag, &cc, &rc);
  EXPECT_OK(cc, rc);
}

TEST_F(FrameTest, DeleteBagRecordsItsMarkersAndThoseOfWhatItCalls) {
  VXHBAG bag = BAG_NONE;
  int32_t cc = -1, rc = -1;
  vxCreateBag(BAG_OPT_ADMIN_BAG, &bag, &cc, &rc);
  ASSERT_OK(cc, rc);
  const int32_t start = anchor_->historyIndex;
  const int32_t depth = anchor_->callDepth;
  uint32_t result = vxDeleteBag(&bag, &cc, &rc);
  ASSERT_OK(cc, rc);
  std::vector<uint32_t> markers = historySince(anchor_, start);
  ASSERT_GE(markers.size(), 2u);
  EXPECT_EQ(markers.front(), 0xF000645Eu);
  EXPECT_EQ(markers.back(), 0x0000645Eu);
  EXPECT_EQ(result, 0x0000645Eu);
  EXPECT_EQ(shapeOf(markers), kDeleteShape);
  EXPECT_EQ(anchor_->callDepth, depth);
}

TEST_F(FrameTest, PadAndTrimRecordTheirMarkers) {
  char field[8];
  char string[9];
  int32_t cc = -1, rc = -1;
  struct Case {
    const char *what;
    std::function<uint32_t()> call;
    std::vector<uint32_t> markers;
  };
  const Case cases[] = {
      {"pad",
       [&] { return vxPad("AB", 5, field, &cc, &rc); },
       {0xF0006471u, 0xF0006473u, 0x00006473u, 0x00006471u}},
      {"pad truncating",
       [&] { return vxPad("ABCDEFGHIJ", 8, field, &cc, &rc); },
       {0xF0006471u, 0xF0006473u, 0x00006473u, 0x09076471u}},
      {"pad with a negative length",
       [&] { return vxPad("AB", -1, field, &cc, &rc); },
       {0xF0006471u, 0x07D56471u}},
      {"trim",
       [&] { return vxTrim(8, "AB      ", string, &cc, &rc); },
       {0xF0006472u, 0xF0006474u, 0x00006474u, 0x00006472u}},
      {"trim without a string",
       [&] { return vxTrim(8, "AB      ", nullptr, &cc, &rc); },
       {0xF0006472u, 0x09036472u}},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.what);
    const int32_t start = anchor_->historyIndex;
    const int32_t depth = anchor_->callDepth;
    uint32_t result = c.call();
    EXPECT_EQ(historySince(anchor_, start), c.markers);
    EXPECT_EQ(result, c.markers.back());
    EXPECT_EQ(anchor_->callDepth, depth);
  }
}

TEST_F(FrameTest, ExitMarkerOfARefusedCreateCarriesTheReason) {
  const int32_t start = anchor_->historyIndex;
  const int32_t depth = anchor_->callDepth;
  int32_t cc = -1, rc = -1;
  uint32_t result = vxCreateBag(0, nullptr, &cc, &rc);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_BAG_HANDLE_ERROR);
  EXPECT_EQ(result, 0x0910645Du);
  // The internal function is not called after a failed check.
  EXPECT_EQ(historySince(anchor_, start), (std::vector<uint32_t>{0xF000645Du, 0x0910645Du}));
  EXPECT_EQ(anchor_->callDepth, depth);

  VXHBAG bag = 12345;
  const int32_t again = anchor_->historyIndex;
  result = vxCreateBag(BAG_OPT_SYSTEM_BAG, &bag, &cc, &rc);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_OPTIONS_ERROR);
  EXPECT_EQ(result, 0x07FE645Du);
  EXPECT_EQ(historySince(anchor_, again), (std::vector<uint32_t>{0xF000645Du, 0x07FE645Du}));
  EXPECT_EQ(bag, 12345);
}

TEST_F(FrameTest, ExitMarkerOfARefusedDeleteCarriesTheReason) {
  VXHBAG bag = -1;
  const int32_t start = anchor_->historyIndex;
  int32_t cc = -1, rc = -1;
  uint32_t result = vxDeleteBag(&bag, &cc, &rc);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_BAG_HANDLE_ERROR);
  EXPECT_EQ(result, 0x0910645Eu);
  EXPECT_EQ(historySince(anchor_, start), (std::vector<uint32_t>{0xF000645Eu, 0x0910645Eu}));
}

TEST_F(FrameTest, HistoryWrapsRoundItsRing) {
  ASSERT_EQ(anchor_->historySize, 48);
  anchor_->historyIndex = 46;
  anchor_->history[2] = 0x12345678u;
  char field[5];
  int32_t cc = -1, rc = -1;
  vxPad("AB", 5, field, &cc, &rc);
  ASSERT_OK(cc, rc);
  EXPECT_EQ(anchor_->history[46], 0xF0006471u);
  EXPECT_EQ(anchor_->history[47], 0xF0006473u);
  EXPECT_EQ(anchor_->history[0], 0x00006473u);
  EXPECT_EQ(anchor_->history[1], 0x00006471u);
  EXPECT_EQ(anchor_->history[2], 0x12345678u);
  EXPECT_EQ(anchor_->historyIndex, 2);
}

TEST_F(FrameTest, HistoryRingHasTheSizeTheThreadWasSetUpWith) {
  std::vector<uint32_t> ring;
  int32_t index = -1;
  std::thread thread([&] {
    svcInitialize(3, 1030, 0, 0, 0);
    char field[5];
    int32_t cc, rc;
    vxPad("AB", 5, field, &cc, &rc);
    const svcTHREADANCHOR *anchor = svcThreadAnchor();
    ring.assign(anchor->history, anchor->history + 4);
    index = anchor->historyIndex;
  });
  thread.join();
  // Four markers in three slots: the exit marker of vxPad overwrote its entry.
  EXPECT_EQ(ring, (std::vector<uint32_t>{0x00006471u, 0xF0006473u, 0x00006473u, 0u}));
  EXPECT_EQ(index, 1);
}

TEST_F(FrameTest, AFrameDeeperThanTheCallStackIsOnlyCounted) {
  const int32_t depth = anchor_->callDepth;
  const uint16_t component = anchor_->tagComponent, function = anchor_->tagFunction;
  const int32_t level = anchor_->tagLevel;
  anchor_->callDepth = SVC_CALL_STACK_SLOTS;
  char field[5];
  int32_t cc = -1, rc = -1;
  vxPad("AB", 5, field, &cc, &rc);
  EXPECT_OK(cc, rc);
  EXPECT_EQ(anchor_->callDepth, SVC_CALL_STACK_SLOTS);
  // What follows the call stack in the anchor is not written over.
  EXPECT_EQ(anchor_->tagComponent, component);
  EXPECT_EQ(anchor_->tagFunction, function);
  EXPECT_EQ(anchor_->tagLevel, level);
  anchor_->callDepth = depth;
}

// ----- API trace: vxCreateBag --------------------------------------------------------

TEST_F(FrameTest, CreateBagTrace) {
  vxtest::TraceCapture capture;
  VXHBAG bag = BAG_NONE;
  int32_t cc = -1, rc = -1;
  vxCreateBag(BAG_OPT_ADMIN_BAG, &bag, &cc, &rc);
  ASSERT_OK(cc, rc);
  const Lines expected = {"__________", "vxCreateBag >>", "Options:", dataOf(1),
                          "Bag           : Output Parm", "Compcode      : Output Parm",
                          "Reason        : Output Parm",
                          // exit
                          "__________", "vxCreateBag <<", "Options       : Input  Parm",
                          "Bag:", dataOf(bag), "Compcode:", dataOf(0), "Reason:", dataOf(0)};
  EXPECT_EQ(capture.lines(), expected);
  vxDeleteBag(&bag, &cc, &rc);
}

TEST_F(FrameTest, CreateBagTraceWhenTheOptionsAreRefused) {
  vxtest::TraceCapture capture;
  VXHBAG bag = 77;
  int32_t cc = -1, rc = -1;
  vxCreateBag(0x11, &bag, &cc, &rc);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_OPTIONS_ERROR);
  const Lines expected = {"__________", "vxCreateBag >>", "Options:", dataOf(0x11),
                          "Bag           : Output Parm", "Compcode      : Output Parm",
                          "Reason        : Output Parm",
                          // exit: the caller's variable as it was
                          "__________", "vxCreateBag <<", "Options       : Input  Parm",
                          "Bag:", dataOf(77), "Compcode:", dataOf(2), "Reason:", dataOf(2046)};
  EXPECT_EQ(capture.lines(), expected);
}

TEST_F(FrameTest, CreateBagTraceWithoutAHandleVariable) {
  vxtest::TraceCapture capture;
  int32_t cc = -1, rc = -1;
  vxCreateBag(0, nullptr, &cc, &rc);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_BAG_HANDLE_ERROR);
  const Lines expected = {"__________",
                          "vxCreateBag >>",
                          "Options:",
                          dataOf(0),
                          "Bag           : Output Parm",
                          "Compcode      : Output Parm",
                          "Reason        : Output Parm",
                          "__________",
                          "vxCreateBag <<",
                          "Options       : Input  Parm",
                          "Bag: NULL",
                          "Compcode:",
                          dataOf(2),
                          "Reason:",
                          dataOf(2320)};
  EXPECT_EQ(capture.lines(), expected);
}

TEST_F(FrameTest, CreateBagTraceWithAReadOnlyHandleVariable) {
  vxtest::ProtectedPages pages;
  vxtest::TraceCapture capture;
  int32_t cc = -1, rc = -1;
  vxCreateBag(0, static_cast<VXHBAG *>(pages.readOnly), &cc, &rc);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_BAG_HANDLE_ERROR);
  const Lines lines = capture.lines();
  ASSERT_EQ(lines.size(), 16u);
  const Lines exitLines(lines.begin() + 7, lines.end());
  const Lines expected = {"__________", "vxCreateBag <<", "Options       : Input  Parm",
                          "Bag:",       bytesOf("RRRR"),  "Compcode:",
                          dataOf(2),    "Reason:",        dataOf(2320)};
  EXPECT_EQ(exitLines, expected);
}

// ----- API trace: vxDeleteBag --------------------------------------------------------

TEST_F(FrameTest, DeleteBagTraceShowsTheHandleVariableBeforeAndAfter) {
  VXHBAG bag = BAG_NONE;
  int32_t cc = -1, rc = -1;
  vxCreateBag(0, &bag, &cc, &rc);
  ASSERT_OK(cc, rc);
  const VXHBAG handle = bag;
  vxtest::TraceCapture capture;
  vxDeleteBag(&bag, &cc, &rc);
  ASSERT_OK(cc, rc);
  const Lines expected = {"__________",
                          "vxDeleteBag >>",
                          "Bag:",
                          dataOf(handle),
                          "Compcode      : Output Parm",
                          "Reason        : Output Parm",
                          "__________",
                          "vxDeleteBag <<",
                          "Bag:",
                          dataOf(-1),
                          "Compcode:",
                          dataOf(0),
                          "Reason:",
                          dataOf(0)};
  EXPECT_EQ(capture.lines(), expected);
}

TEST_F(FrameTest, DeleteBagTraceWithoutAHandleVariable) {
  vxtest::TraceCapture capture;
  int32_t cc = -1, rc = -1;
  vxDeleteBag(nullptr, &cc, &rc);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_BAG_HANDLE_ERROR);
  const Lines expected = {"__________",
                          "vxDeleteBag >>",
                          "Bag: NULL",
                          "Compcode      : Output Parm",
                          "Reason        : Output Parm",
                          "__________",
                          "vxDeleteBag <<",
                          "Bag: NULL",
                          "Compcode:",
                          dataOf(2),
                          "Reason:",
                          dataOf(2320)};
  EXPECT_EQ(capture.lines(), expected);
}

TEST_F(FrameTest, DeleteBagTraceOfAnOddHandle) {
  vxtest::TraceCapture capture;
  VXHBAG bag = 0x1001;
  int32_t cc = -1, rc = -1;
  vxDeleteBag(&bag, &cc, &rc);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_BAG_HANDLE_ERROR);
  const Lines expected = {"__________",
                          "vxDeleteBag >>",
                          "Bag:",
                          dataOf(0x1001),
                          "Compcode      : Output Parm",
                          "Reason        : Output Parm",
                          "__________",
                          "vxDeleteBag <<",
                          "Bag:",
                          dataOf(0x1001),
                          "Compcode:",
                          dataOf(2),
                          "Reason:",
                          dataOf(2320)};
  EXPECT_EQ(capture.lines(), expected);
}

// ----- API trace: vxPad ----------------------------------------------------------------

Lines padEntry(const Lines &stringLines, int32_t length) {
  Lines lines = {"__________", "vxPad >>"};
  lines.insert(lines.end(), stringLines.begin(), stringLines.end());
  Lines rest = {"Bufferlength:", dataOf(length), "Buffer        : Output Parm",
                "Compcode      : Output Parm", "Reason        : Output Parm"};
  lines.insert(lines.end(), rest.begin(), rest.end());
  return lines;
}

Lines padExit(const Lines &bufferLines, int32_t cc, int32_t rc) {
  Lines lines = {"__________", "vxPad <<", "String        : Input  Parm",
                 "BufferLength  : Input  Parm", "Buffer:"};
  lines.insert(lines.end(), bufferLines.begin(), bufferLines.end());
  Lines rest = {"Compcode:", dataOf(cc), "Reason:", dataOf(rc)};
  lines.insert(lines.end(), rest.begin(), rest.end());
  return lines;
}

Lines joined(Lines first, const Lines &second) {
  first.insert(first.end(), second.begin(), second.end());
  return first;
}

TEST_F(FrameTest, PadTrace) {
  vxtest::TraceCapture capture;
  char field[5];
  int32_t cc = -1, rc = -1;
  vxPad("AB", 5, field, &cc, &rc);
  ASSERT_OK(cc, rc);
  EXPECT_EQ(capture.lines(),
            joined(padEntry({"String:", bytesOf("AB")}, 5), padExit({bytesOf("AB   ")}, 0, 0)));
}

TEST_F(FrameTest, PadTraceOfANullString) {
  vxtest::TraceCapture capture;
  char field[3];
  int32_t cc = -1, rc = -1;
  vxPad(nullptr, 3, field, &cc, &rc);
  ASSERT_OK(cc, rc);
  EXPECT_EQ(capture.lines(),
            joined(padEntry({"String: NULL"}, 3), padExit({bytesOf("   ")}, 0, 0)));
}

TEST_F(FrameTest, PadTraceOfATruncation) {
  vxtest::TraceCapture capture;
  char field[4];
  int32_t cc = -1, rc = -1;
  vxPad("ABCDEF", 4, field, &cc, &rc);
  EXPECT_OUTCOME(cc, rc, CC_WARNING, RC_STRING_TRUNCATED);
  EXPECT_EQ(capture.lines(), joined(padEntry({"String:", bytesOf("ABCDEF")}, 4),
                                    padExit({bytesOf("ABCD")}, 1, 2311)));
}

TEST_F(FrameTest, PadTraceShowsNoBufferForNullOrZeroOrNegativeLength) {
  vxtest::TraceCapture capture;
  char field[4] = {'x', 'x', 'x', 'x'};
  int32_t cc = -1, rc = -1;
  vxPad("AB", 4, nullptr, &cc, &rc);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_BUFFER_ERROR);
  vxPad("", 0, field, &cc, &rc);
  EXPECT_OK(cc, rc);
  vxPad("AB", -1, field, &cc, &rc);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_BUFFER_LENGTH_ERROR);
  const Lines expected =
      joined(joined(joined(padEntry({"String:", bytesOf("AB")}, 4), padExit({"NULL"}, 2, 2004)),
                    joined(padEntry({"String:", dataOf("", 0)}, 0), padExit({"NULL"}, 0, 0))),
             joined(padEntry({"String:", bytesOf("AB")}, -1), padExit({"NULL"}, 2, 2005)));
  EXPECT_EQ(capture.lines(), expected);
}

TEST_F(FrameTest, PadTraceShowsTheBufferAfterAFailedCheck) {
  vxtest::ProtectedPages pages;
  vxtest::TraceCapture capture;
  int32_t cc = -1, rc = -1;
  vxPad("AB", 4, static_cast<char *>(pages.readOnly), &cc, &rc);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_BUFFER_ERROR);
  EXPECT_EQ(capture.lines(),
            joined(padEntry({"String:", bytesOf("AB")}, 4), padExit({bytesOf("RRRR")}, 2, 2004)));
}

TEST_F(FrameTest, PadTraceOfLongAndBoundaryBuffers) {
  std::string text;
  for (int i = 0; i < 150; ++i) text += static_cast<char>('!' + i % 90);
  for (int32_t length : {127, 128, 200}) {
    SCOPED_TRACE(length);
    std::vector<char> field(static_cast<size_t>(length));
    std::string padded = text.substr(0, static_cast<size_t>(length));
    padded.resize(static_cast<size_t>(length), ' ');
    vxtest::TraceCapture capture;
    int32_t cc = -1, rc = -1;
    vxPad(text.c_str(), length, field.data(), &cc, &rc);
    const bool truncated = length < 150;
    EXPECT_OUTCOME(cc, rc, truncated ? CC_WARNING : CC_OK, truncated ? RC_STRING_TRUNCATED : 0);
    const Lines bufferLines = length <= 127 ? Lines{bytesOf(padded)}
                                            : Lines{bytesOf(padded.substr(0, 64)), "..............",
                                                    bytesOf(padded.substr(padded.size() - 64))};
    EXPECT_EQ(capture.lines(),
              joined(padEntry({"String:", bytesOf(text)}, length),
                     padExit(bufferLines, truncated ? 1 : 0, truncated ? 2311 : 0)));
  }
}

TEST_F(FrameTest, PadTraceShowsAVeryLongStringModulo65536) {
  std::string text(70000, 'q');
  text[0] = 'A';
  vxtest::TraceCapture capture;
  char field[10];
  int32_t cc = -1, rc = -1;
  vxPad(text.c_str(), 10, field, &cc, &rc);
  EXPECT_OUTCOME(cc, rc, CC_WARNING, RC_STRING_TRUNCATED);
  EXPECT_EQ(capture.lines(),
            joined(padEntry({"String:", bytesOf(text.substr(0, 70000 - 65536))}, 10),
                   padExit({bytesOf(text.substr(0, 10))}, 1, 2311)));
}

// ----- API trace: vxTrim ---------------------------------------------------------------

Lines trimEntry(int32_t length, const Lines &bufferLines) {
  Lines lines = {"__________", "vxTrim >>", "Bufferlength:", dataOf(length), "Buffer:"};
  lines.insert(lines.end(), bufferLines.begin(), bufferLines.end());
  Lines rest = {"String        : Output Parm", "Compcode      : Output Parm",
                "Reason        : Output Parm"};
  lines.insert(lines.end(), rest.begin(), rest.end());
  return lines;
}

Lines trimExit(const Lines &stringLines, int32_t cc, int32_t rc) {
  Lines lines = {"__________", "vxTrim <<", "BufferLength  : Input  Parm",
                 "Buffer        : Input  Parm"};
  lines.insert(lines.end(), stringLines.begin(), stringLines.end());
  Lines rest = {"Compcode:", dataOf(cc), "Reason:", dataOf(rc)};
  lines.insert(lines.end(), rest.begin(), rest.end());
  return lines;
}

TEST_F(FrameTest, TrimTrace) {
  vxtest::TraceCapture capture;
  char string[7];
  int32_t cc = -1, rc = -1;
  vxTrim(6, "AB  C ", string, &cc, &rc);
  ASSERT_OK(cc, rc);
  EXPECT_EQ(capture.lines(), joined(trimEntry(6, {bytesOf("AB  C ")}),
                                    trimExit({"String:", bytesOf("AB  C")}, 0, 0)));
}

TEST_F(FrameTest, TrimTraceOfAnEmptyResult) {
  vxtest::TraceCapture capture;
  char string[5];
  int32_t cc = -1, rc = -1;
  vxTrim(4, "    ", string, &cc, &rc);
  ASSERT_OK(cc, rc);
  vxTrim(0, nullptr, string, &cc, &rc);
  ASSERT_OK(cc, rc);
  EXPECT_EQ(
      capture.lines(),
      joined(joined(trimEntry(4, {bytesOf("    ")}), trimExit({"String:", dataOf("", 0)}, 0, 0)),
             joined(trimEntry(0, {"NULL"}), trimExit({"String:", dataOf("", 0)}, 0, 0))));
}

TEST_F(FrameTest, TrimTraceShowsNoStringAfterAFailure) {
  vxtest::ProtectedPages pages;
  vxtest::TraceCapture capture;
  char string[8] = "ABCDEFG";
  int32_t cc = -1, rc = -1;
  vxTrim(-3, "AB ", string, &cc, &rc);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_BUFFER_LENGTH_ERROR);
  vxTrim(3, "AB ", nullptr, &cc, &rc);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_STRING_ERROR);
  vxTrim(3, "AB ", static_cast<char *>(pages.readOnly), &cc, &rc);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_STRING_ERROR);
  vxTrim(3, nullptr, string, &cc, &rc);
  EXPECT_OUTCOME(cc, rc, CC_FAILED, RC_BUFFER_ERROR);
  const Lines expected =
      joined(joined(joined(trimEntry(-3, {"NULL"}), trimExit({"String: NULL"}, 2, 2005)),
                    joined(trimEntry(3, {bytesOf("AB ")}), trimExit({"String: NULL"}, 2, 2307))),
             joined(joined(trimEntry(3, {bytesOf("AB ")}), trimExit({"String: NULL"}, 2, 2307)),
                    joined(trimEntry(3, {"NULL"}), trimExit({"String: NULL"}, 2, 2004))));
  EXPECT_EQ(capture.lines(), expected);
}

TEST_F(FrameTest, TrimTraceOfALongField) {
  std::string field;
  for (int i = 0; i < 300; ++i) field += static_cast<char>('A' + i % 26);
  field += std::string(20, ' ');
  std::vector<char> string(field.size() + 1);
  vxtest::TraceCapture capture;
  int32_t cc = -1, rc = -1;
  vxTrim(static_cast<int32_t>(field.size()), field.data(), string.data(), &cc, &rc);
  ASSERT_OK(cc, rc);
  // The buffer is shown in part, the string in full.
  EXPECT_EQ(capture.lines(), joined(trimEntry(320, {bytesOf(field.substr(0, 64)), "..............",
                                                    bytesOf(field.substr(256))}),
                                    trimExit({"String:", bytesOf(field.substr(0, 300))}, 0, 0)));
}

// ----- When API trace is written --------------------------------------------------------

// Runs one call of each kind; returns the history markers they wrote.
std::vector<uint32_t> runEachCall(const svcTHREADANCHOR *anchor) {
  const int32_t start = anchor->historyIndex;
  VXHBAG bag = BAG_NONE;
  int32_t cc, rc;
  char field[4];
  char string[5];
  vxPad("AB", 4, field, &cc, &rc);
  vxTrim(4, "AB  ", string, &cc, &rc);
  vxCreateBag(0, &bag, &cc, &rc);
  const std::vector<uint32_t> markers = historySince(anchor, start);
  vxDeleteBag(&bag, &cc, &rc);
  return markers;
}

std::string shapeOfEachCall() { return "113(115) 114(116) " + kCreateShape; }

TEST_F(FrameTest, NoApiTraceWhileTheTraceLevelIsOff) {
  vxtest::TraceCapture capture(0x1);
  processAnchor.traceLevel = kTraceOff;
  std::vector<uint32_t> markers = runEachCall(anchor_);
  EXPECT_EQ(capture.lines(), Lines{});
  EXPECT_EQ(shapeOf(markers, {kVXPad, kPadString, kVXTrim, kTrimBuffer, kVXCreateBag, kCreateBag,
                              kVectorCreate, kAddDefaultSystemItems, kVectorAdd}),
            shapeOfEachCall());
}

TEST_F(FrameTest, NoApiTraceWithoutOptionBitZero) {
  vxtest::TraceCapture capture(0xFFFFFFFEu);
  std::vector<uint32_t> markers = runEachCall(anchor_);
  EXPECT_EQ(capture.lines(), Lines{});
  EXPECT_EQ(shapeOf(markers, {kVXPad, kPadString, kVXTrim, kTrimBuffer, kVXCreateBag, kCreateBag,
                              kVectorCreate, kAddDefaultSystemItems, kVectorAdd}),
            shapeOfEachCall());
}

TEST_F(FrameTest, EarlyTraceAloneSwitchesApiTraceOn) {
  vxtest::TraceCapture capture(0);
  processAnchor.traceEnabled = 0;
  processAnchor.traceLevel = kTraceOff;
  processAnchor.earlyTrace = 1;
  char field[5];
  int32_t cc = -1, rc = -1;
  vxPad("AB", 5, field, &cc, &rc);
  ASSERT_OK(cc, rc);
  EXPECT_EQ(capture.lines(),
            joined(padEntry({"String:", bytesOf("AB")}, 5), padExit({bytesOf("AB   ")}, 0, 0)));
}

TEST_F(FrameTest, ApiTraceDoesNotLookAtTheEnabledWord) {
  vxtest::TraceCapture capture(0x1);
  processAnchor.traceEnabled = 0;
  char field[5];
  int32_t cc = -1, rc = -1;
  vxPad("AB", 5, field, &cc, &rc);
  ASSERT_OK(cc, rc);
  EXPECT_EQ(capture.lines(),
            joined(padEntry({"String:", bytesOf("AB")}, 5), padExit({bytesOf("AB   ")}, 0, 0)));
}

TEST_F(FrameTest, ApiTraceLinesCarryTheApiFunctionNumber) {
  struct Expected {
    int32_t function;
    const char *header;
  };
  vxtest::TraceCapture capture;
  runEachCall(anchor_);
  const std::vector<Expected> order = {{kVXPad, "vxPad >>"},
                                       {kVXPad, "vxPad <<"},
                                       {kVXTrim, "vxTrim >>"},
                                       {kVXTrim, "vxTrim <<"},
                                       {kVXCreateBag, "vxCreateBag >>"},
                                       {kVXCreateBag, "vxCreateBag <<"},
                                       {kVXDeleteBag, "vxDeleteBag >>"},
                                       {kVXDeleteBag, "vxDeleteBag <<"}};
  // Each call's lines, from its separator to the next one, are all under its
  // API function number and component 25.
  size_t call = 0;
  int32_t function = -1;
  for (int32_t i = 0; i < trcCapturedCount(); ++i) {
    trcCAPTURED line;
    ASSERT_EQ(trcCaptured(i, &line), 0);
    std::string text = line.isData ? "" : std::string(line.bytes, static_cast<size_t>(line.length));
    if (text == "__________") {
      ASSERT_LT(call, order.size());
      function = order[call++].function;
    }
    EXPECT_EQ(line.component, 25) << "line " << i;
    EXPECT_EQ(line.function, function) << "line " << i << " " << text;
  }
  EXPECT_EQ(call, order.size());
  Lines headers;
  for (const std::string &line : capture.lines())
    if (line.find(" >>") != std::string::npos || line.find(" <<") != std::string::npos)
      headers.push_back(line);
  Lines expectedHeaders;
  for (const Expected &e : order) expectedHeaders.push_back(e.header);
  EXPECT_EQ(headers, expectedHeaders);
}

// ----- Parameter lines and function entry and exit lines -----------------------------

TEST_F(FrameTest, ParameterLinesOfCreateBag) {
  vxtest::TraceCapture capture(0xC0000, true);
  VXHBAG bag = BAG_NONE;
  int32_t cc = -1, rc = -1;
  vxCreateBag(BAG_OPT_ADMIN_BAG, &bag, &cc, &rc);
  ASSERT_OK(cc, rc);
  const auto *record = reinterpret_cast<const zaiBAG *>(static_cast<uintptr_t>(bag));
  const std::string vector = vectorText(record->items);
  // No API trace: option bit 0 is clear.
  EXPECT_EQ(linesOf(capture, kVXCreateBag), (Lines{"{ zaiVXCreateBag", "} zaiVXCreateBag rc=0"}));
  EXPECT_EQ(linesOf(capture, kCreateBag),
            (Lines{"{ zaiCreateBag", "options:1 ", "pBag:" + pointerText(record),
                   "} zaiCreateBag rc=0"}));
  EXPECT_EQ(linesOf(capture, kVectorCreate),
            (Lines{"{ zaiVectorCreate",
                   "InitialSpace:40, ElementSize:" + std::to_string(sizeof(zaiPROPERTY)),
                   "} zaiVectorCreate rc=0"}));
  EXPECT_EQ(linesOf(capture, kAddDefaultSystemItems),
            (Lines{"{ zaiAddDefaultSystemItems", "} zaiAddDefaultSystemItems rc=0"}));
  const Lines adds = linesOf(capture, kVectorAdd);
  ASSERT_EQ(adds.size(), 24u);
  for (size_t i = 0; i < adds.size(); i += 3) {
    EXPECT_EQ(adds[i], "{ zaiVectorAdd");
    EXPECT_EQ(adds[i + 1].rfind("pVector:" + vector + ", pElement:", 0), 0u) << adds[i + 1];
    EXPECT_EQ(adds[i + 2], "} zaiVectorAdd rc=0");
  }
  const Lines all = capture.lines();
  ASSERT_FALSE(all.empty());
  EXPECT_EQ(all.front(), "{ zaiVXCreateBag");
  EXPECT_EQ(all.back(), "} zaiVXCreateBag rc=0");
  vxDeleteBag(&bag, &cc, &rc);
}

TEST_F(FrameTest, ParameterLinesOfDeleteBag) {
  VXHBAG bag = BAG_NONE;
  int32_t cc = -1, rc = -1;
  vxCreateBag(0, &bag, &cc, &rc);
  ASSERT_OK(cc, rc);
  const auto *record = reinterpret_cast<const zaiBAG *>(static_cast<uintptr_t>(bag));
  const std::string bagText = pointerText(record);
  const std::string vector = vectorText(record->items);
  vxtest::TraceCapture capture(0xC0000, true);
  vxDeleteBag(&bag, &cc, &rc);
  ASSERT_OK(cc, rc);
  EXPECT_EQ(linesOf(capture, kVXDeleteBag), (Lines{"{ zaiVXDeleteBag", "} zaiVXDeleteBag rc=0"}));
  EXPECT_EQ(linesOf(capture, kDeleteBag),
            (Lines{"{ zaiDeleteBag", "*ppBag:" + bagText, "} zaiDeleteBag rc=0"}));
  Lines frees, removes;
  for (int index = 7; index >= 0; --index) {
    Lines free = {"{ zaiFreeItem", "pBag:" + bagText + ", vectorIdx:" + std::to_string(index),
                  "} zaiFreeItem rc=0"};
    frees.insert(frees.end(), free.begin(), free.end());
    Lines remove = {"{ zaiVectorRemoveAt", "pVector:" + vector + ", index:" + std::to_string(index),
                    "} zaiVectorRemoveAt rc=0"};
    removes.insert(removes.end(), remove.begin(), remove.end());
  }
  EXPECT_EQ(linesOf(capture, kFreeItem), frees);
  EXPECT_EQ(linesOf(capture, kVectorRemoveAt), removes);
  EXPECT_EQ(linesOf(capture, kVectorDestroy),
            (Lines{"{ zaiVectorDestroy", "pVector:" + vector, "} zaiVectorDestroy rc=0"}));
}

TEST_F(FrameTest, ParameterLinesCarryComponentAndFunctionOfTheirFunction) {
  vxtest::TraceCapture capture(0xC0000, true);
  VXHBAG bag = BAG_NONE;
  int32_t cc = -1, rc = -1;
  vxCreateBag(0, &bag, &cc, &rc);
  ASSERT_OK(cc, rc);
  bool found = false;
  for (int32_t i = 0; i < trcCapturedCount(); ++i) {
    trcCAPTURED line;
    ASSERT_EQ(trcCaptured(i, &line), 0);
    if (std::string(line.bytes, static_cast<size_t>(line.length)) != "options:0 ") continue;
    found = true;
    EXPECT_EQ(line.component, 25);
    EXPECT_EQ(line.function, kCreateBag);
  }
  EXPECT_TRUE(found);
  // The tag of the last parameter line stays on the anchor.
  EXPECT_EQ(anchor_->tagComponent, 25);
  EXPECT_EQ(anchor_->tagFunction, kCreateBag);
  EXPECT_EQ(anchor_->tagLevel, 2);
  vxDeleteBag(&bag, &cc, &rc);
}

TEST_F(FrameTest, FunctionEntryAndExitLinesOnlyFollowTheThreadTrace) {
  char field[5];
  int32_t cc = -1, rc = -1;
  {
    vxtest::TraceCapture capture(0, true);
    vxPad("AB", 5, field, &cc, &rc);
    vxPad("AB", -1, field, &cc, &rc);
    EXPECT_EQ(capture.lines(), (Lines{"{ zaiVXPad", "{ zaiPadString", "} zaiPadString rc=0",
                                      "} zaiVXPad rc=0", "{ zaiVXPad", "} zaiVXPad rc=2005"}));
  }
  {
    vxtest::TraceCapture capture(0xFFFFFFFEu, false);
    processAnchor.earlyTrace = 1;
    vxPad("AB", 5, field, &cc, &rc);
    for (const std::string &line : capture.lines()) EXPECT_FALSE(isFrameLine(line)) << line;
    EXPECT_EQ(capture.lines(),
              joined(padEntry({"String:", bytesOf("AB")}, 5), padExit({bytesOf("AB   ")}, 0, 0)));
  }
}

TEST_F(FrameTest, FrameLinesEncloseTheApiTrace) {
  vxtest::TraceCapture capture(0xC0001, true);
  char string[5];
  int32_t cc = -1, rc = -1;
  vxTrim(4, "AB  ", string, &cc, &rc);
  ASSERT_OK(cc, rc);
  Lines expected = {"{ zaiVXTrim"};
  expected = joined(expected, trimEntry(4, {bytesOf("AB  ")}));
  expected = joined(expected, {"{ zaiTrimBuffer", "} zaiTrimBuffer rc=0"});
  expected = joined(expected, trimExit({"String:", bytesOf("AB")}, 0, 0));
  expected.push_back("} zaiVXTrim rc=0");
  EXPECT_EQ(capture.lines(), expected);
}

// One setting of the process words and whether parameter lines follow.
struct ParmGate {
  const char *name;
  int32_t traceEnabled;
  uint32_t traceLevel;
  uint32_t traceOptions;
  int32_t earlyTrace;
  bool parameterLines;
};

void PrintTo(const ParmGate &gate, std::ostream *out) { *out << gate.name; }

class ParmGateTest : public FrameTest, public ::testing::WithParamInterface<ParmGate> {};

TEST_P(ParmGateTest, ParameterLinesFollowTheProcessWords) {
  const ParmGate &gate = GetParam();
  vxtest::TraceCapture capture(0, true);
  processAnchor.traceEnabled = gate.traceEnabled;
  processAnchor.traceLevel = gate.traceLevel;
  processAnchor.traceOptions = gate.traceOptions;
  processAnchor.earlyTrace = gate.earlyTrace;
  VXHBAG bag = BAG_NONE;
  int32_t cc = -1, rc = -1;
  vxCreateBag(BAG_OPT_CHECK_SELECTORS, &bag, &cc, &rc);
  ASSERT_OK(cc, rc);
  Lines expected = {"{ zaiCreateBag"};
  if (gate.parameterLines) {
    expected.push_back("options:8 ");
    expected.push_back("pBag:" +
                       pointerText(reinterpret_cast<void *>(static_cast<uintptr_t>(bag))));
  }
  expected.push_back("} zaiCreateBag rc=0");
  EXPECT_EQ(linesOf(capture, kCreateBag), expected);
  vxDeleteBag(&bag, &cc, &rc);
}

INSTANTIATE_TEST_SUITE_P(
    Gate, ParmGateTest,
    ::testing::Values(ParmGate{"BothOptionBits", 1, 0, 0xC0000, 0, true},
                      ParmGate{"OptionBit18", 1, 0, 0x40000, 0, true},
                      ParmGate{"OptionBit19", 1, 0, 0x80000, 0, true},
                      ParmGate{"ApiOptionOnly", 1, 0, 0x1, 0, false},
                      ParmGate{"EveryOtherOption", 1, 0, ~0xC0000u, 0, false},
                      ParmGate{"LevelOff", 1, kTraceOff, 0xC0000, 0, false},
                      ParmGate{"LevelOffWithEarlyTrace", 1, kTraceOff, 0, 1, true},
                      ParmGate{"EarlyTraceWithoutOptions", 1, 0, 0, 1, true},
                      ParmGate{"NotEnabled", 0, 0, 0xC0000, 0, false},
                      ParmGate{"NotEnabledWithEarlyTrace", 0, kTraceOff, 0, 1, true},
                      ParmGate{"NothingSet", 0, kTraceOff, 0, 0, false}),
    [](const ::testing::TestParamInfo<ParmGate> &info) { return std::string(info.param.name); });

TEST_F(FrameTest, NoParameterLinesWhileTheThreadTraceIsOff) {
  vxtest::TraceCapture capture(0xC0000, false);
  processAnchor.earlyTrace = 1;
  VXHBAG bag = BAG_NONE;
  int32_t cc = -1, rc = -1;
  vxCreateBag(0, &bag, &cc, &rc);
  ASSERT_OK(cc, rc);
  vxDeleteBag(&bag, &cc, &rc);
  ASSERT_OK(cc, rc);
  // Early trace still gives the API trace, and nothing else.
  const Lines lines = capture.lines();
  ASSERT_EQ(lines.size(), 16u + 14u);
  for (const std::string &line : lines) {
    EXPECT_FALSE(isFrameLine(line)) << line;
    EXPECT_EQ(line.find("options:"), std::string::npos) << line;
    EXPECT_EQ(line.find("pVector:"), std::string::npos) << line;
    EXPECT_EQ(line.find("ppBag:"), std::string::npos) << line;
  }
}

// ----- Signal actions -------------------------------------------------------------------

// Calls of the services that save and restore signal actions made by this
// thread, and what to do just after the actions have been saved.
thread_local int tSaveCalls = 0;
thread_local int tRestoreCalls = 0;
thread_local void (*tAfterSave)() = nullptr;

}  // namespace

// A seam round the common services' signal-action calls: the program's own
// definitions come before those of the services' library, count the calls
// and pass them on.  After a save a test may change the actions, as anything
// the call ran into might.
extern "C" void sigSaveActions(int32_t *actionsSaved) {
  using Service = void (*)(int32_t *);
  static const auto service = reinterpret_cast<Service>(dlsym(RTLD_NEXT, "sigSaveActions"));
  ++tSaveCalls;
  service(actionsSaved);
  if (tAfterSave) tAfterSave();
}

extern "C" void sigRestoreActions(int32_t *actionsSaved) {
  using Service = void (*)(int32_t *);
  static const auto service = reinterpret_cast<Service>(dlsym(RTLD_NEXT, "sigRestoreActions"));
  ++tRestoreCalls;
  service(actionsSaved);
}

namespace {

void firstHandler(int) {}
void secondHandler(int) {}

// Puts the process's actions for the guarded signals back when it ends.
class SavedActions {
 public:
  SavedActions() {
    for (size_t i = 0; i < kCount; ++i) sigaction(kSignals[i], nullptr, &saved_[i]);
  }
  ~SavedActions() {
    for (size_t i = 0; i < kCount; ++i) sigaction(kSignals[i], &saved_[i], nullptr);
  }
  static void install(void (*handler)(int)) {
    struct sigaction action = {};
    action.sa_handler = handler;
    sigemptyset(&action.sa_mask);
    for (int number : kSignals) sigaction(number, &action, nullptr);
  }
  static bool installed(void (*handler)(int)) {
    for (int number : kSignals) {
      struct sigaction current = {};
      sigaction(number, nullptr, &current);
      if (current.sa_handler != handler) return false;
    }
    return true;
  }

 private:
  static constexpr size_t kCount = 2;
  static constexpr int kSignals[kCount] = {SIGSEGV, SIGPIPE};
  struct sigaction saved_[kCount];
};

TEST_F(FrameTest, SignalGuardKeepsTheCallersHandlers) {
  SavedActions saved;
  processAnchor.signalGuard = 1;
  SavedActions::install(firstHandler);
  runEachCall(anchor_);
  EXPECT_TRUE(SavedActions::installed(firstHandler));
  // The actions are saved afresh by every call.
  SavedActions::install(secondHandler);
  runEachCall(anchor_);
  EXPECT_TRUE(SavedActions::installed(secondHandler));
}

TEST_F(FrameTest, WithoutTheGuardNoEarlierActionsArePutBack) {
  SavedActions saved;
  processAnchor.signalGuard = 1;
  SavedActions::install(firstHandler);
  runEachCall(anchor_);
  processAnchor.signalGuard = 0;
  SavedActions::install(secondHandler);
  runEachCall(anchor_);
  EXPECT_TRUE(SavedActions::installed(secondHandler));
  int32_t cc = -1, rc = -1;
  vxCreateBag(0, nullptr, &cc, &rc);
  EXPECT_TRUE(SavedActions::installed(secondHandler));
}

TEST_F(FrameTest, SignalGuardPutsBackActionsChangedDuringTheCall) {
  SavedActions saved;
  processAnchor.signalGuard = 1;
  SavedActions::install(firstHandler);
  tAfterSave = [] { SavedActions::install(secondHandler); };
  runEachCall(anchor_);
  tAfterSave = nullptr;
  EXPECT_TRUE(SavedActions::installed(firstHandler));
}

TEST_F(FrameTest, WithoutTheGuardActionsChangedDuringTheCallStay) {
  SavedActions saved;
  SavedActions::install(firstHandler);
  tAfterSave = [] { SavedActions::install(secondHandler); };
  runEachCall(anchor_);
  tAfterSave = nullptr;
  EXPECT_TRUE(SavedActions::installed(secondHandler));
}

TEST_F(FrameTest, EveryCallSavesOnceAndRestoresOnlyWhatWasSaved) {
  SavedActions saved;
  const int saves = tSaveCalls, restores = tRestoreCalls;
  processAnchor.signalGuard = 1;
  char field[4];
  int32_t cc = -1, rc = -1;
  vxPad("AB", 4, field, &cc, &rc);
  vxPad("AB", -1, field, &cc, &rc);
  EXPECT_EQ(tSaveCalls - saves, 2);
  EXPECT_EQ(tRestoreCalls - restores, 2);
  processAnchor.signalGuard = 0;
  vxPad("AB", 4, field, &cc, &rc);
  EXPECT_EQ(tSaveCalls - saves, 3);
  EXPECT_EQ(tRestoreCalls - restores, 2);
  // Internal functions leave signal actions alone.
  processAnchor.signalGuard = 1;
  zaiPadString("AB", field, 4);
  EXPECT_EQ(tSaveCalls - saves, 3);
  EXPECT_EQ(tRestoreCalls - restores, 2);
}

// ----- Callers without a status pair -------------------------------------------------

TEST_F(FrameTest, CallsRunWithoutCompletionAndReasonVariables) {
  VXHBAG bag = BAG_NONE;
  EXPECT_EQ(vxCreateBag(0, &bag, nullptr, nullptr), 0x0000645Du);
  ASSERT_NE(bag, BAG_NONE);
  // The bag was made: it can be deleted.
  int32_t cc = -1, rc = -1;
  vxDeleteBag(&bag, &cc, &rc);
  EXPECT_OK(cc, rc);

  vxCreateBag(0, &bag, nullptr, nullptr);
  ASSERT_NE(bag, -1);
  EXPECT_EQ(vxDeleteBag(&bag, nullptr, nullptr), 0x0000645Eu);
  EXPECT_EQ(bag, -1);
  EXPECT_EQ(vxDeleteBag(&bag, nullptr, nullptr), 0x0910645Eu);

  VXHBAG untouched = 55;
  EXPECT_EQ(vxCreateBag(BAG_OPT_SYSTEM_BAG, &untouched, nullptr, nullptr), 0x07FE645Du);
  EXPECT_EQ(untouched, 55);

  char field[4];
  EXPECT_EQ(vxPad("AB", 4, field, nullptr, nullptr), 0x00006471u);
  EXPECT_EQ(std::string(field, 4), "AB  ");
  EXPECT_EQ(vxPad("ABCDEF", 4, field, nullptr, nullptr), 0x09076471u);
  EXPECT_EQ(std::string(field, 4), "ABCD");
  char string[5] = "xxxx";
  EXPECT_EQ(vxTrim(4, "AB  ", string, nullptr, nullptr), 0x00006472u);
  EXPECT_STREQ(string, "AB");
}

TEST_F(FrameTest, OneMissingVariableStillLeavesTheOther) {
  VXHBAG bag = 55;
  int32_t cc = -1, rc = -1;
  vxCreateBag(BAG_OPT_SYSTEM_BAG, &bag, nullptr, &rc);
  EXPECT_EQ(rc, RC_OPTIONS_ERROR);
  vxCreateBag(BAG_OPT_SYSTEM_BAG, &bag, &cc, nullptr);
  EXPECT_EQ(cc, CC_FAILED);
  char field[2];
  cc = rc = -1;
  vxPad("ABC", 2, field, &cc, nullptr);
  EXPECT_EQ(cc, CC_WARNING);
  vxPad("ABC", 2, field, nullptr, &rc);
  EXPECT_EQ(rc, RC_STRING_TRUNCATED);
  EXPECT_EQ(bag, 55);
}

TEST_F(FrameTest, ApiTraceWithoutCompletionAndReasonVariables) {
  vxtest::TraceCapture capture;
  VXHBAG bag = BAG_NONE;
  EXPECT_EQ(vxCreateBag(0, &bag, nullptr, nullptr), 0x0000645Du);
  const Lines lines = capture.lines();
  ASSERT_EQ(lines.size(), 16u);
  EXPECT_EQ(lines[8], "vxCreateBag <<");
  EXPECT_EQ(lines[10], "Bag:");
  EXPECT_EQ(lines[11], dataOf(bag));
  EXPECT_EQ(lines[12], "Compcode:");
  EXPECT_EQ(lines[14], "Reason:");
  int32_t cc = -1, rc = -1;
  vxDeleteBag(&bag, &cc, &rc);
  EXPECT_OK(cc, rc);
}

}  // namespace
