// The queue-interface wrappers VXCONN ... VXBEGIN: each forwards its
// arguments in order, with its inserted constants, to the queue manager's
// entry and returns the queue manager's codes unchanged; each records its
// frame under component 32; VXOPEN, VXCLOSE and VXPUT write their trace
// lines; VXCONN alone forgets a parent's connection state in a forked child.
//
// This program defines the thirteen queue-manager entries itself, so they
// record what arrives instead of reaching a queue manager.
#include <sys/wait.h>
#include <unistd.h>

#include <cstdarg>
#include <cstring>
#include <thread>
#include <string>
#include <vector>

#include "qm.h"
#include "vxqi.h"
#include "vxtest.h"

namespace {

using vxtest::dataOf;
using Lines = std::vector<std::string>;

// What the last queue-manager entry received, as 32-bit words in argument
// order (pointers as their addresses), and what it answers.
struct Recorder {
  std::string entry;
  std::vector<uintptr_t> arguments;
  bool controlBlockAtCall = false;
  int32_t compCode = CC_OK;
  int32_t reason = RC_NONE;
  int32_t handleOut = 0;             // written to a handle output, when not 0
  const char *objectName = nullptr;  // written to the object descriptor
};
Recorder recorder;

template <typename... Words>
void record(const char *entry, int32_t *pCompCode, int32_t *pReason, Words... words) {
  recorder.entry = entry;
  recorder.arguments = {static_cast<uintptr_t>(words)...};
  recorder.controlBlockAtCall = svcControlBlock() != nullptr;
  if (pCompCode) *pCompCode = recorder.compCode;
  if (pReason) *pReason = recorder.reason;
}

uintptr_t word(const void *pointer) { return reinterpret_cast<uintptr_t>(pointer); }
uintptr_t word(int32_t value) { return static_cast<uint32_t>(value); }

}  // namespace

extern "C" {

void qmCONN(char *QMgrName, int32_t *pHconn, int32_t *pCompCode, int32_t *pReason, int32_t Family) {
  record("qmCONN", pCompCode, pReason, word(QMgrName), word(pHconn), word(pCompCode), word(pReason),
         word(Family));
}
void qmCONNX(char *QMgrName, void *pConnectOpts, int32_t *pHconn, int32_t *pCompCode,
             int32_t *pReason, int32_t Family) {
  record("qmCONNX", pCompCode, pReason, word(QMgrName), word(pConnectOpts), word(pHconn),
         word(pCompCode), word(pReason), word(Family));
}
void qmDISC(int32_t *pHconn, int32_t Zero, int32_t *pCompCode, int32_t *pReason) {
  record("qmDISC", pCompCode, pReason, word(pHconn), word(Zero), word(pCompCode), word(pReason));
}
void qmOPEN(int32_t Hconn, void *pObjDesc, int32_t Options, int32_t *pHobj, int32_t *pCompCode,
            int32_t *pReason) {
  record("qmOPEN", pCompCode, pReason, word(Hconn), word(pObjDesc), word(Options), word(pHobj),
         word(pCompCode), word(pReason));
  if (recorder.handleOut && pHobj) *pHobj = recorder.handleOut;
  if (recorder.objectName && pObjDesc) {
    auto *descriptor = static_cast<vxOBJDESC *>(pObjDesc);
    memset(descriptor->objectName, ' ', sizeof descriptor->objectName);
    memcpy(descriptor->objectName, recorder.objectName, strlen(recorder.objectName));
  }
}
void qmCLOSE(int32_t Hconn, int32_t *pHobj, int32_t Options, int32_t *pCompCode, int32_t *pReason) {
  record("qmCLOSE", pCompCode, pReason, word(Hconn), word(pHobj), word(Options), word(pCompCode),
         word(pReason));
  if (pHobj) *pHobj = 0;
}
void qmGET(int32_t Hconn, int32_t Hobj, void *pMsgDesc, void *pGetMsgOpts, int32_t BufferLength,
           void *pBuffer, int32_t *pDataLength, int32_t Zero, int32_t *pCompCode,
           int32_t *pReason) {
  record("qmGET", pCompCode, pReason, word(Hconn), word(Hobj), word(pMsgDesc), word(pGetMsgOpts),
         word(BufferLength), word(pBuffer), word(pDataLength), word(Zero), word(pCompCode),
         word(pReason));
}
void qmPUT(int32_t Hconn, int32_t Hobj, void *pMsgDesc, void *pPutMsgOpts, int32_t BufferLength,
           void *pBuffer, int32_t Zero, int32_t *pCompCode, int32_t *pReason) {
  record("qmPUT", pCompCode, pReason, word(Hconn), word(Hobj), word(pMsgDesc), word(pPutMsgOpts),
         word(BufferLength), word(pBuffer), word(Zero), word(pCompCode), word(pReason));
}
void qmPUT1(int32_t Hconn, void *pObjDesc, void *pMsgDesc, void *pPutMsgOpts, int32_t BufferLength,
            void *pBuffer, int32_t *pCompCode, int32_t *pReason) {
  record("qmPUT1", pCompCode, pReason, word(Hconn), word(pObjDesc), word(pMsgDesc),
         word(pPutMsgOpts), word(BufferLength), word(pBuffer), word(pCompCode), word(pReason));
}
void qmINQ(int32_t Hconn, int32_t Hobj, int32_t SelectorCount, int32_t *pSelectors,
           int32_t IntAttrCount, int32_t *pIntAttrs, int32_t CharAttrLength, char *pCharAttrs,
           int32_t *pCompCode, int32_t *pReason) {
  record("qmINQ", pCompCode, pReason, word(Hconn), word(Hobj), word(SelectorCount),
         word(pSelectors), word(IntAttrCount), word(pIntAttrs), word(CharAttrLength),
         word(pCharAttrs), word(pCompCode), word(pReason));
}
void qmSET(int32_t Hconn, int32_t Hobj, int32_t SelectorCount, int32_t *pSelectors,
           int32_t IntAttrCount, int32_t *pIntAttrs, int32_t CharAttrLength, char *pCharAttrs,
           int32_t *pCompCode, int32_t *pReason) {
  record("qmSET", pCompCode, pReason, word(Hconn), word(Hobj), word(SelectorCount),
         word(pSelectors), word(IntAttrCount), word(pIntAttrs), word(CharAttrLength),
         word(pCharAttrs), word(pCompCode), word(pReason));
}
void qmCMIT(int32_t Hconn, int32_t *pCompCode, int32_t *pReason) {
  record("qmCMIT", pCompCode, pReason, word(Hconn), word(pCompCode), word(pReason));
}
void qmBACK(int32_t Hconn, int32_t *pCompCode, int32_t *pReason) {
  record("qmBACK", pCompCode, pReason, word(Hconn), word(pCompCode), word(pReason));
}
void qmBEGIN(int32_t Hconn, void *pBeginOpts, int32_t *pCompCode, int32_t *pReason) {
  record("qmBEGIN", pCompCode, pReason, word(Hconn), word(pBeginOpts), word(pCompCode),
         word(pReason));
}

}  // extern "C"

namespace {

constexpr uint32_t identifierOf(int32_t number) { return static_cast<uint32_t>(32 << 10 | number); }
constexpr uint32_t entryMarker(int32_t number) { return 0xF0000000u | identifierOf(number); }
constexpr uint32_t exitMarker(int32_t number, int32_t reason) {
  return static_cast<uint32_t>(reason) << 16 | identifierOf(number);
}
static_assert(identifierOf(38) == 0x8026 && identifierOf(52) == 0x8034);

// The markers written to the thread's history since slot `start`.
std::vector<uint32_t> historySince(const svcTHREADANCHOR *anchor, int32_t start) {
  std::vector<uint32_t> markers;
  for (int32_t slot = start; slot != anchor->historyIndex; slot = (slot + 1) % anchor->historySize)
    markers.push_back(anchor->history[slot]);
  return markers;
}

class WrapperTest : public ::testing::Test {
 protected:
  void SetUp() override {
    svcInitialize(48, 1030, 0, 0, 0);
    anchor_ = svcThreadAnchor();
    ASSERT_NE(anchor_, nullptr);
    recorder = Recorder{};
    recorder.compCode = CC_WARNING;
    recorder.reason = 2119;  // any pair: the wrapper passes it on unchanged
    start_ = anchor_->historyIndex;
    depth_ = anchor_->callDepth;
  }

  // The wrapper left one frame, under its own number, with the reason the
  // queue manager set, and the queue manager's codes reached the caller.
  void expectOneFrame(int32_t number) {
    EXPECT_EQ(historySince(anchor_, start_),
              (std::vector<uint32_t>{entryMarker(number), exitMarker(number, recorder.reason)}));
    EXPECT_EQ(anchor_->callDepth, depth_);
    EXPECT_OUTCOME(cc_, rc_, CC_WARNING, 2119);
  }

  svcTHREADANCHOR *anchor_ = nullptr;
  int32_t start_ = 0;
  int32_t depth_ = 0;
  int32_t cc_ = -1;
  int32_t rc_ = -1;
  char name_[48] = "QM1";
  int32_t hconn_ = 0;
  int32_t hobj_ = 77;
  char buffer_[64] = "message";
  int32_t numbers_[4] = {17, 2016, 3, 0};
  int32_t dataLength_ = 0;
  vxOBJDESC od_ = OD_DEFAULT;
  vxMSGDESC md_ = MD_DEFAULT;
  vxPUTOPTS pmo_ = PMO_DEFAULT;
  vxGETOPTS gmo_ = GMO_DEFAULT;
  char options_[16] = {};
};

using Words = std::vector<uintptr_t>;

// ----- Forwarding ---------------------------------------------------------------

TEST_F(WrapperTest, ConnectForwardsWithThePlainFamily) {
  VXCONN(name_, &hconn_, &cc_, &rc_);
  EXPECT_EQ(recorder.entry, "qmCONN");
  EXPECT_EQ(recorder.arguments, (Words{word(name_), word(&hconn_), word(&cc_), word(&rc_), 0}));
  expectOneFrame(38);
}

TEST_F(WrapperTest, ConnectWithOptionsForwardsWithThePlainFamily) {
  VXCONNX(name_, options_, &hconn_, &cc_, &rc_);
  EXPECT_EQ(recorder.entry, "qmCONNX");
  EXPECT_EQ(recorder.arguments,
            (Words{word(name_), word(options_), word(&hconn_), word(&cc_), word(&rc_), 0}));
  expectOneFrame(51);
}

TEST_F(WrapperTest, AlternativeConnectForwardsWithFamilyOne) {
  zrtVXCONN(name_, &hconn_, &cc_, &rc_);
  EXPECT_EQ(recorder.entry, "qmCONN");
  EXPECT_EQ(recorder.arguments, (Words{word(name_), word(&hconn_), word(&cc_), word(&rc_), 1}));
  expectOneFrame(49);
}

TEST_F(WrapperTest, AlternativeConnectWithOptionsForwardsWithFamilyOne) {
  zrtVXCONNX(name_, options_, &hconn_, &cc_, &rc_);
  EXPECT_EQ(recorder.entry, "qmCONNX");
  EXPECT_EQ(recorder.arguments,
            (Words{word(name_), word(options_), word(&hconn_), word(&cc_), word(&rc_), 1}));
  expectOneFrame(52);
}

TEST_F(WrapperTest, DisconnectInsertsTheReservedZero) {
  VXDISC(&hconn_, &cc_, &rc_);
  EXPECT_EQ(recorder.entry, "qmDISC");
  EXPECT_EQ(recorder.arguments, (Words{word(&hconn_), 0, word(&cc_), word(&rc_)}));
  expectOneFrame(39);
}

TEST_F(WrapperTest, OpenForwardsTheSameSix) {
  VXOPEN(5, &od_, 48, &hobj_, &cc_, &rc_);
  EXPECT_EQ(recorder.entry, "qmOPEN");
  EXPECT_EQ(recorder.arguments, (Words{5, word(&od_), 48, word(&hobj_), word(&cc_), word(&rc_)}));
  expectOneFrame(42);
}

TEST_F(WrapperTest, CloseForwardsTheSameFive) {
  VXCLOSE(5, &hobj_, CLOSE_DELETE_PURGE, &cc_, &rc_);
  EXPECT_EQ(recorder.entry, "qmCLOSE");
  EXPECT_EQ(recorder.arguments, (Words{5, word(&hobj_), 2, word(&cc_), word(&rc_)}));
  expectOneFrame(46);
}

TEST_F(WrapperTest, GetInsertsTheReservedZeroBeforeTheCodes) {
  VXGET(5, 6, &md_, &gmo_, 64, buffer_, &dataLength_, &cc_, &rc_);
  EXPECT_EQ(recorder.entry, "qmGET");
  EXPECT_EQ(recorder.arguments, (Words{5, 6, word(&md_), word(&gmo_), 64, word(buffer_),
                                       word(&dataLength_), 0, word(&cc_), word(&rc_)}));
  expectOneFrame(40);
}

TEST_F(WrapperTest, PutInsertsTheReservedZeroBeforeTheCodes) {
  VXPUT(5, 6, &md_, &pmo_, 7, buffer_, &cc_, &rc_);
  EXPECT_EQ(recorder.entry, "qmPUT");
  EXPECT_EQ(recorder.arguments,
            (Words{5, 6, word(&md_), word(&pmo_), 7, word(buffer_), 0, word(&cc_), word(&rc_)}));
  expectOneFrame(43);
}

TEST_F(WrapperTest, PutOneForwardsTheSameEight) {
  VXPUT1(5, &od_, &md_, &pmo_, 7, buffer_, &cc_, &rc_);
  EXPECT_EQ(recorder.entry, "qmPUT1");
  EXPECT_EQ(recorder.arguments, (Words{5, word(&od_), word(&md_), word(&pmo_), 7, word(buffer_),
                                       word(&cc_), word(&rc_)}));
  expectOneFrame(44);
}

TEST_F(WrapperTest, InquireForwardsTheSameTen) {
  VXINQ(5, 6, 2, numbers_, 1, numbers_ + 2, 48, buffer_, &cc_, &rc_);
  EXPECT_EQ(recorder.entry, "qmINQ");
  EXPECT_EQ(recorder.arguments, (Words{5, 6, 2, word(numbers_), 1, word(numbers_ + 2), 48,
                                       word(buffer_), word(&cc_), word(&rc_)}));
  expectOneFrame(41);
}

TEST_F(WrapperTest, SetForwardsTheSameTen) {
  VXSET(5, 6, 1, numbers_, 1, numbers_ + 3, 0, nullptr, &cc_, &rc_);
  EXPECT_EQ(recorder.entry, "qmSET");
  EXPECT_EQ(recorder.arguments,
            (Words{5, 6, 1, word(numbers_), 1, word(numbers_ + 3), 0, 0, word(&cc_), word(&rc_)}));
  expectOneFrame(45);
}

TEST_F(WrapperTest, CommitBackOutAndBeginForwardTheirArguments) {
  VXCMIT(5, &cc_, &rc_);
  EXPECT_EQ(recorder.entry, "qmCMIT");
  EXPECT_EQ(recorder.arguments, (Words{5, word(&cc_), word(&rc_)}));
  expectOneFrame(47);

  start_ = anchor_->historyIndex;
  VXBACK(5, &cc_, &rc_);
  EXPECT_EQ(recorder.entry, "qmBACK");
  EXPECT_EQ(recorder.arguments, (Words{5, word(&cc_), word(&rc_)}));
  expectOneFrame(48);

  start_ = anchor_->historyIndex;
  VXBEGIN(5, options_, &cc_, &rc_);
  EXPECT_EQ(recorder.entry, "qmBEGIN");
  EXPECT_EQ(recorder.arguments, (Words{5, word(options_), word(&cc_), word(&rc_)}));
  expectOneFrame(50);
}

TEST_F(WrapperTest, NullArgumentsArePassedOnUnchecked) {
  recorder.reason = RC_NONE;
  VXPUT(0, 0, nullptr, nullptr, -1, nullptr, nullptr, nullptr);
  EXPECT_EQ(recorder.arguments, (Words{0, 0, 0, 0, word(-1), 0, 0, 0, 0}));
  // Without a reason variable the exit marker carries reason 0.
  EXPECT_EQ(historySince(anchor_, start_),
            (std::vector<uint32_t>{entryMarker(43), exitMarker(43, 0)}));
}

TEST_F(WrapperTest, ExitMarkerCarriesTheQueueManagersReason) {
  recorder.compCode = CC_FAILED;
  recorder.reason = RC_NO_MSG_AVAILABLE;
  VXGET(5, 6, &md_, &gmo_, 64, buffer_, &dataLength_, &cc_, &rc_);
  EXPECT_OUTCOME(cc_, rc_, CC_FAILED, RC_NO_MSG_AVAILABLE);
  EXPECT_EQ(historySince(anchor_, start_), (std::vector<uint32_t>{0xF0008028u, 0x07F18028u}));
}

TEST_F(WrapperTest, WrappersDoNotSetUpAThread) {
  // A thread that never used the library has no anchor: the wrapper still
  // forwards, and records nothing.
  std::thread([] {
    int32_t cc = -1, rc = -1;
    VXCMIT(9, &cc, &rc);
    EXPECT_EQ(svcThreadAnchor(), nullptr);
    EXPECT_EQ(recorder.entry, "qmCMIT");
  }).join();
}

// ----- Trace --------------------------------------------------------------------

TEST_F(WrapperTest, EntryAndExitLinesNameTheWrapper) {
  vxtest::TraceCapture trace(0x1, /*threadTrace=*/true);
  VXCMIT(5, &cc_, &rc_);
  EXPECT_EQ(trace.lines(), (Lines{"{ VXCMIT", "} VXCMIT rc=2119"}));
}

TEST_F(WrapperTest, OpenTracesTheReturnedHandleTypeAndName) {
  recorder.handleOut = 4242;
  recorder.objectName = "VXAI.REPLY.0000000000000001";
  memcpy(od_.objectName, "SYSTEM.DEFAULT.MODEL.QUEUE", 26);
  vxtest::TraceCapture trace;
  VXOPEN(5, &od_, OPEN_INPUT_EXCLUSIVE, &hobj_, &cc_, &rc_);
  std::string name = std::string(recorder.objectName) + std::string(48 - 27, ' ');
  EXPECT_EQ(trace.lines(), (Lines{"ObjHandle=4242 ObjType=1 ObjName=" + name}));
  for (const vxtest::TraceLine &line : trace.raw()) EXPECT_EQ(line.function, 42);
}

TEST_F(WrapperTest, OpenWithoutAHandleVariableTracesHandleZero) {
  od_.objectType = OBJTYPE_Q_MGR;
  vxtest::TraceCapture trace;
  VXOPEN(5, &od_, OPEN_INQUIRE, nullptr, &cc_, &rc_);
  EXPECT_EQ(trace.lines(), (Lines{"ObjHandle=0 ObjType=5 ObjName="}));
}

TEST_F(WrapperTest, CloseTracesTheHandleItWasGiven) {
  vxtest::TraceCapture trace;
  VXCLOSE(5, &hobj_, CLOSE_NONE, &cc_, &rc_);
  EXPECT_EQ(hobj_, 0);  // the queue manager reset it
  EXPECT_EQ(trace.lines(), (Lines{"ObjHandle=77"}));
  for (const vxtest::TraceLine &line : trace.raw()) EXPECT_EQ(line.function, 46);
}

TEST_F(WrapperTest, CloseWithoutAHandleVariableTracesHandleZero) {
  vxtest::TraceCapture trace;
  VXCLOSE(5, nullptr, CLOSE_NONE, &cc_, &rc_);
  EXPECT_EQ(trace.lines(), (Lines{"ObjHandle=0"}));
}

TEST_F(WrapperTest, PutTracesAtMost32BytesOfTheMessage) {
  std::vector<char> message(100);
  for (size_t i = 0; i < message.size(); ++i) message[i] = static_cast<char>('a' + i % 26);
  vxtest::TraceCapture trace;
  VXPUT(5, 6, &md_, &pmo_, 100, message.data(), &cc_, &rc_);
  EXPECT_EQ(trace.lines(), (Lines{"ObjHandle=6 BufferLen=100", dataOf(message.data(), 32)}));
  for (const vxtest::TraceLine &line : trace.raw()) EXPECT_EQ(line.function, 43);
}

TEST_F(WrapperTest, PutTracesAShortMessageWhole) {
  vxtest::TraceCapture trace;
  VXPUT(5, 6, &md_, &pmo_, 5, buffer_, &cc_, &rc_);
  EXPECT_EQ(trace.lines(), (Lines{"ObjHandle=6 BufferLen=5", dataOf(buffer_, 5)}));
}

TEST_F(WrapperTest, PutTracesANegativeLengthModulo65536) {
  std::vector<char> message(65536, 'm');
  vxtest::TraceCapture trace;
  VXPUT(5, 6, &md_, &pmo_, -5, message.data(), &cc_, &rc_);
  std::vector<vxtest::TraceLine> lines = trace.raw();
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_EQ(lines[0].text, "ObjHandle=6 BufferLen=-5");
  EXPECT_TRUE(lines[1].isData);
  EXPECT_EQ(lines[1].data.size(), 65531u);
}

TEST_F(WrapperTest, PutDoesNotShowMemoryThatCannotBeRead) {
  vxtest::ProtectedPages pages;
  vxtest::TraceCapture trace;
  VXPUT(5, 6, &md_, &pmo_, 10, pages.none, &cc_, &rc_);
  EXPECT_EQ(trace.lines(), (Lines{"ObjHandle=6 BufferLen=10", dataOf(nullptr, 0)}));
}

TEST_F(WrapperTest, TraceTextFollowsTheProcessTraceSwitches) {
  vxtest::TraceCapture trace;
  processAnchor.traceLevel = 0xFFFFFFFFu;  // trace level off ...
  VXCLOSE(5, &hobj_, CLOSE_NONE, &cc_, &rc_);
  EXPECT_TRUE(trace.lines().empty());
  processAnchor.earlyTrace = 1;  // ... unless early trace is on
  hobj_ = 8;
  VXCLOSE(5, &hobj_, CLOSE_NONE, &cc_, &rc_);
  EXPECT_EQ(trace.lines(), (Lines{"ObjHandle=8"}));
  processAnchor.traceEnabled = 0;  // and nothing when trace is not enabled
  VXPUT(5, 6, &md_, &pmo_, 5, buffer_, &cc_, &rc_);
  EXPECT_EQ(trace.lines(), (Lines{"ObjHandle=8"}));
}

TEST_F(WrapperTest, OtherWrappersWriteNoText) {
  vxtest::TraceCapture trace;
  VXCONN(name_, &hconn_, &cc_, &rc_);
  VXGET(5, 6, &md_, &gmo_, 64, buffer_, &dataLength_, &cc_, &rc_);
  VXPUT1(5, &od_, &md_, &pmo_, 7, buffer_, &cc_, &rc_);
  VXINQ(5, 6, 2, numbers_, 1, numbers_ + 2, 48, buffer_, &cc_, &rc_);
  VXDISC(&hconn_, &cc_, &rc_);
  EXPECT_TRUE(trace.lines().empty());
}

// ----- The fork check of VXCONN -------------------------------------------------

// Runs `connect` in a forked child of a process that holds a connection
// state, and tells whether the state was still there when the queue manager
// was called.
bool stateSeenInForkedChild(void (*connect)()) {
  svcEstablishControlBlock();
  pid_t child = fork();
  if (child == 0) {
    connect();
    _exit(recorder.controlBlockAtCall ? 1 : 0);
  }
  int status = 0;
  waitpid(child, &status, 0);
  svcResetControlBlock();
  EXPECT_TRUE(WIFEXITED(status));
  return WEXITSTATUS(status) == 1;
}

char gName[48] = "QM1";
int32_t gHconn, gCompCode, gReason;

TEST_F(WrapperTest, ConnectInAForkedChildForgetsTheParentsState) {
  EXPECT_FALSE(stateSeenInForkedChild([] { VXCONN(gName, &gHconn, &gCompCode, &gReason); }));
}

TEST_F(WrapperTest, OnlyThePlainConnectChecksForFork) {
  EXPECT_TRUE(
      stateSeenInForkedChild([] { VXCONNX(gName, nullptr, &gHconn, &gCompCode, &gReason); }));
  EXPECT_TRUE(stateSeenInForkedChild([] { zrtVXCONN(gName, &gHconn, &gCompCode, &gReason); }));
  EXPECT_TRUE(
      stateSeenInForkedChild([] { zrtVXCONNX(gName, nullptr, &gHconn, &gCompCode, &gReason); }));
}

TEST_F(WrapperTest, ConnectInTheOwningProcessKeepsItsState) {
  svcEstablishControlBlock();
  VXCONN(name_, &hconn_, &cc_, &rc_);
  EXPECT_TRUE(recorder.controlBlockAtCall);
  EXPECT_NE(svcControlBlock(), nullptr);
  svcResetControlBlock();
}

}  // namespace
