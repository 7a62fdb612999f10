// Fuzz target for the command server: what anyone may put on the command
// queue.
//
// The process hosts a queue manager in memory (VXQM_DATA empty) and one
// command server (vxcsStart) for the whole run.  An input is a descriptor
// prefix and the request's bytes:
//
//   byte 0  bits 0-1 message type: request, datagram, reply, byte 2's value
//           bit 2    persistent
//           bits 3-5 format: "VXADMIN ", "VXPCF   ", "VXEVENT ", blanks,
//                    "VXSTRING", zeros, "vxadmin ", "VXADMIN "
//           bits 6-7 reply-to queue: FUZZ.REPLY (the harness's), none, the
//                    name in the input (below), one of kOtherReplyQueues by
//                    byte 2
//   byte 1  bits 0-1 reply-to queue manager: blanks, "QM1", "QM2", byte 2 as
//                    a character
//           bits 2-3 encoding: native (546), 273, 0, byte 2's value
//           bits 4-6 character set: 0, 37, 437, 500, 819, 1047, 1208, 65535
//           bit 7    an expiry of byte 2's value in tenths of a second (else
//                    none)
//   byte 2  a value for the choices above
//   byte 3  bits 0-5 the length of the reply-to name in the input (at most
//                    48), which follows
//   then the request itself, put with VXPUT1 at priority 0.
//
// After each put, a ping through vxExecute (CMD_PING, every input) must be
// answered: the server took the request off and is still serving.  A request
// that made pings impossible (gets inhibited on the command queue, the model
// queue of the reply queues deleted, ...) is let off that ping; the queue
// manager is put back (below) and the server must answer the next one.
// Then:
//   - a request naming FUZZ.REPLY (on this queue manager, without expiry)
//     has got at least one reply there, each a reply of format "VXADMIN "
//     correlated with the request, numbered from 1, the last one marked
//     last; a request whose command removed or changed FUZZ.REPLY is let
//     off, its replies may be dropped;
//   - no block of the library (components 25 and 32) is live beyond what
//     the idle server holds (looked at until the server has finished the
//     ping, at most 2 s);
//   - while the request was put and answered, the live heap of the process
//     grew by no more than kHeapPerByte times its size plus kHeapConstant;
//   - no failure report was raised.
// The queue manager is then put back as it was at start: queues the request
// made are deleted, changed ones changed back, deleted ones made again, and
// messages left on any queue but the command queue are cleared.
#include <sanitizer/allocator_interface.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "command_server.h"
#include "fuzz_queues.h"
#include "qm_admin.h"
#include "qm_test.h"
#include "svc.h"
#include "vxai.h"
#include "vxqi.h"

namespace {

constexpr char kQm[] = "QM1";
constexpr char kCommandQueue[] = "SYSTEM.ADMIN.COMMAND.QUEUE";
constexpr char kReplyQueue[] = "FUZZ.REPLY";
constexpr int32_t kLibraryComponents[] = {25, 32};
constexpr int32_t kPingWait = 2000;  // ms; a server that lives answers in far less
constexpr int32_t kPrefixLength = 4;
constexpr int kSettleWait = 2000;  // ms

// What a request of n bytes may cost the heap while it is put and answered:
// the reader's caps (docs/command-server.md: 4 MiB of blocks) and the
// replies of an inquiry bound the constant, the copies of the message the
// per-byte share.
constexpr int64_t kHeapPerByte = 16;
constexpr int64_t kHeapConstant = 16 << 20;

const char *const kFormats[] = {"VXADMIN ", "VXPCF   ",         "VXEVENT ", "        ",
                                "VXSTRING", "\0\0\0\0\0\0\0\0", "vxadmin ", "VXADMIN "};
const char *const kOtherReplyQueues[] = {kCommandQueue,
                                         "SYSTEM.DEFAULT.MODEL.QUEUE",
                                         "SYSTEM.DEFAULT.LOCAL.QUEUE",
                                         "FUZZ.NONE",
                                         "VXAI.REPLY.X",
                                         "fuzz.reply",
                                         " FUZZ.REPLY",
                                         ""};
constexpr int32_t kCcsids[] = {0, 37, 437, 500, 819, 1047, 1208, 65535};

[[noreturn]] void broken(const char *rule, int32_t value = 0) {
  std::fprintf(stderr, "fuzz_command_server: %s (%d)\n", rule, value);
  std::abort();
}

void require(bool holds, const char *rule, int32_t value = 0) {
  if (!holds) broken(rule, value);
}

// ----- The live heap, followed by the allocator's hooks ------------------------------

std::atomic<int64_t> liveHeap{0};
std::atomic<int64_t> peakHeap{0};
// The largest growth seen, and the size of its request, printed at the end.
int64_t largestGrowth = 0;
size_t largestGrowthSize = 0;

void onMalloc(const volatile void *, size_t size) {
  const int64_t now = liveHeap.fetch_add(static_cast<int64_t>(size)) + static_cast<int64_t>(size);
  int64_t peak = peakHeap.load();
  while (now > peak && !peakHeap.compare_exchange_weak(peak, now)) {
  }
}

void onFree(const volatile void *block) {
  // Called before the block is released: its size is still known.
  liveHeap.fetch_sub(
      static_cast<int64_t>(__sanitizer_get_allocated_size(const_cast<void *>(block))));
}

// ----- The queue manager as it was at start ------------------------------------------

int32_t hconn = 0;
vxcsSERVER *server = nullptr;
std::unique_ptr<fuzzing::QueueSnapshot> initialQueues;  // as they were at start
int32_t initialBlocks[2], initialBytes[2];

// ----- Requests and replies ------------------------------------------------------------

void blankField(char *field, size_t length, const char *text, size_t textLength) {
  std::memset(field, ' ', length);
  std::memcpy(field, text, std::min(length, textLength));
}

// True when the command server answered a ping within kPingWait.
bool ping() {
  int32_t cc, rc;
  VXHBAG options = BAG_NONE, request = BAG_NONE, reply = BAG_NONE;
  vxCreateBag(BAG_OPT_ADMIN_BAG, &options, &cc, &rc);
  vxAddInteger(options, PARM_WAIT_INTERVAL, kPingWait, &cc, &rc);
  vxCreateBag(BAG_OPT_ADMIN_BAG, &request, &cc, &rc);
  vxCreateBag(BAG_OPT_ADMIN_BAG, &reply, &cc, &rc);
  int32_t compCode = CC_FAILED, reason = 0;
  vxExecute(hconn, CMD_PING, options, request, reply, HOBJ_NONE, HOBJ_NONE, &compCode, &reason);
  vxDeleteBag(&options, &cc, &rc);
  vxDeleteBag(&request, &cc, &rc);
  vxDeleteBag(&reply, &cc, &rc);
  return compCode == CC_OK;
}

int32_t headerField(const std::vector<char> &message, size_t offset) {
  int32_t value = 0;
  if (message.size() >= offset + 4) std::memcpy(&value, message.data() + offset, 4);
  return value;
}

// Takes every message off FUZZ.REPLY; checks them as the replies of the
// request `msgId` when `expected`.
void checkReplies(const char *msgId, bool expected) {
  vxOBJDESC od = OD_DEFAULT;
  std::memcpy(od.objectName, kReplyQueue, sizeof kReplyQueue - 1);
  int32_t hobj = HOBJ_UNUSABLE, cc, rc;
  VXOPEN(hconn, &od, OPEN_INPUT_SHARED, &hobj, &cc, &rc);
  require(cc != CC_FAILED, "FUZZ.REPLY cannot be opened", rc);
  int32_t replies = 0, lastControl = -1;
  std::vector<char> buffer(1 << 16);
  for (;;) {
    vxMSGDESC md = MD_DEFAULT;
    vxGETOPTS gmo = GMO_DEFAULT;
    gmo.options = GET_NO_SYNCPOINT | GET_ACCEPT_TRUNCATED_MSG;
    int32_t length = 0;
    VXGET(hconn, hobj, &md, &gmo, static_cast<int32_t>(buffer.size()), buffer.data(), &length, &cc,
          &rc);
    if (cc == CC_FAILED) {
      require(rc == RC_NO_MSG_AVAILABLE, "a get of FUZZ.REPLY failed", rc);
      break;
    }
    if (!expected) continue;
    std::vector<char> message(buffer.begin(), buffer.begin() + std::min<int32_t>(length, 1 << 16));
    ++replies;
    require(std::memcmp(md.correlId, msgId, CORREL_ID_LENGTH) == 0,
            "a reply is not correlated with its request");
    require(md.msgType == MSGTYPE_REPLY, "a reply is not of type reply", md.msgType);
    require(std::memcmp(md.format, VX_FORMAT_ADMIN, FORMAT_LENGTH) == 0,
            "a reply is not an administration message");
    require(lastControl != PCF_CONTROL_LAST, "a reply follows the last one");
    require(headerField(message, 16) == replies, "replies are not numbered in order",
            headerField(message, 16));
    lastControl = headerField(message, 20);
  }
  VXCLOSE(hconn, &hobj, CLOSE_NONE, &cc, &rc);
  if (expected) {
    require(replies > 0, "a request naming FUZZ.REPLY got no reply");
    require(lastControl == PCF_CONTROL_LAST, "the last reply is not marked last", lastControl);
  }
}

// At the end of the run, before the leak check: the server's bags are named
// by handles that the leak checker cannot follow.
void stopServer() {
  std::fprintf(stderr,
               "fuzz_command_server: largest heap growth %lld KiB, for an input of %zu bytes\n",
               static_cast<long long>(largestGrowth >> 10), largestGrowthSize);
  vxcsStop(server);
  int32_t cc, rc;
  VXDISC(&hconn, &cc, &rc);
}

void libraryBlocks(int32_t *blocks, int32_t *bytes) {
  for (size_t i = 0; i < 2; ++i) svcMemLive(kLibraryComponents[i], -1, &blocks[i], &bytes[i]);
}

// The server puts the last reply of a request before it deletes the
// request's bag and makes the bag of its next get: once a ping is answered,
// its blocks come back to what an idle server holds within moments.  False
// when they do not within kSettleWait.
bool serverIdle() {
  for (int waited = 0; waited < kSettleWait; ++waited) {
    int32_t blocks[2], bytes[2];
    libraryBlocks(blocks, bytes);
    if (std::equal(blocks, blocks + 2, initialBlocks) && std::equal(bytes, bytes + 2, initialBytes))
      return true;
    usleep(1000);
  }
  return false;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
  unsetenv("VXQM_DATA");
  char name[QM_NAME_LENGTH + 1] = "QM1";
  int32_t cc, rc;
  VXCONN(name, &hconn, &cc, &rc);
  require(cc != CC_FAILED, "the queue manager cannot be connected", rc);
  vxqm::QueueChanges local;
  local.queueType = QTYPE_LOCAL;
  require(vxqm::admin::createQueue(kQm, kReplyQueue, local) == 0, "FUZZ.REPLY cannot be made");
  const int32_t reason = vxcsStart(kQm, &server);
  require(reason == 0, "the command server does not start", reason);
  std::atexit(stopServer);
  require(ping(), "the command server does not answer");
  initialQueues = std::make_unique<fuzzing::QueueSnapshot>(kQm, "fuzz_command_server");
  // What the idle server holds: its reply bag and the bag of its get.
  usleep(200 * 1000);
  libraryBlocks(initialBlocks, initialBytes);
  __sanitizer_install_malloc_and_free_hooks(onMalloc, onFree);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size < kPrefixLength) return 0;
  const int32_t reportsBefore = svcFailureReportCount();
  const int64_t heapBefore = liveHeap.load();
  peakHeap.store(heapBefore);

  const uint8_t b0 = data[0], b1 = data[1], b2 = data[2], b3 = data[3];
  size_t offset = kPrefixLength;
  const size_t nameLength =
      std::min<size_t>({static_cast<size_t>(b3 & 0x3F), Q_NAME_LENGTH, size - offset});
  const char *inputName = reinterpret_cast<const char *>(data + offset);
  offset += nameLength;
  const std::vector<char> request(data + offset, data + size);

  vxMSGDESC md = MD_DEFAULT;
  const int32_t types[] = {MSGTYPE_REQUEST, MSGTYPE_DATAGRAM, MSGTYPE_REPLY, b2};
  md.msgType = types[b0 & 3];
  md.persistence = (b0 & 4) ? PERSISTENCE_PERSISTENT : PERSISTENCE_NOT_PERSISTENT;
  std::memcpy(md.format, kFormats[(b0 >> 3) & 7], FORMAT_LENGTH);
  const int replyTo = b0 >> 6;
  if (replyTo == 0) blankField(md.replyToQ, Q_NAME_LENGTH, kReplyQueue, sizeof kReplyQueue - 1);
  if (replyTo == 2) blankField(md.replyToQ, Q_NAME_LENGTH, inputName, nameLength);
  if (replyTo == 3) {
    const char *name = kOtherReplyQueues[b2 & 7];
    blankField(md.replyToQ, Q_NAME_LENGTH, name, std::strlen(name));
  }
  const char qmgrChar = static_cast<char>(b2);
  const char *qmgrs[] = {"", "QM1", "QM2", &qmgrChar};
  const size_t qmgrLengths[] = {0, 3, 3, 1};
  blankField(md.replyToQMgr, QM_NAME_LENGTH, qmgrs[b1 & 3], qmgrLengths[b1 & 3]);
  const int32_t encodings[] = {ENCODING_NATIVE, 273, 0, b2};
  md.encoding = encodings[(b1 >> 2) & 3];
  md.codedCharSetId = kCcsids[(b1 >> 4) & 7];
  md.expiry = (b1 & 0x80) ? b2 : EXPIRY_UNLIMITED;
  md.priority = 0;

  vxOBJDESC od = OD_DEFAULT;
  std::memcpy(od.objectName, kCommandQueue, sizeof kCommandQueue - 1);
  vxPUTOPTS pmo = PMO_DEFAULT;
  pmo.options = PUT_NO_SYNCPOINT;
  int32_t cc, rc;
  VXPUT1(hconn, &od, &md, &pmo, static_cast<int32_t>(request.size()),
         const_cast<char *>(request.data()), &cc, &rc);
  // A descriptor the queue manager refuses leaves nothing to answer.
  const bool put = cc != CC_FAILED;

  // The ping goes after the request: once it is answered, so is the request.
  // A request that stopped pings (gets or puts inhibited on the command
  // queue, the model queue of vxExecute's reply queues changed or deleted)
  // is let off until the queue manager is put back; then the server must
  // answer.
  const bool answered = ping();

  const bool qmgrIsThis = (b1 & 3) == 0 || (b1 & 3) == 1;
  const bool repliesExpected = put && replyTo == 0 && qmgrIsThis && md.expiry == EXPIRY_UNLIMITED;
  // Replies that a request which changed FUZZ.REPLY made impossible are not
  // looked for; the restore below clears whatever is there.
  // FUZZ.REPLY is there as it was at start: the request left it alone.
  if (answered && initialQueues->unchanged(kReplyQueue)) checkReplies(md.msgId, repliesExpected);
  // The server may still be carrying out a request that stopped the ping:
  // with the queues put back, the next ping waits for it to end, and only
  // then are the messages it left cleared.
  if (!answered) {
    initialQueues->restoreDefinitions();
    require(ping(), "the command server did not answer a ping");
  }
  initialQueues->restore(kCommandQueue);

  require(serverIdle(), "blocks of the library are left after the request was answered");
  const int64_t grown = peakHeap.load() - heapBefore;
  if (grown > largestGrowth) {
    largestGrowth = grown;
    largestGrowthSize = size;
  }
  require(grown <= kHeapPerByte * static_cast<int64_t>(size) + kHeapConstant,
          "answering a request took more memory than its size warrants",
          static_cast<int32_t>(grown >> 10));
  require(svcFailureReportCount() == reportsBefore, "a failure report was raised");
  return 0;
}
