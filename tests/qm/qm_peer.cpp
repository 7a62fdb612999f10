// A second process for the tests of the persistent queue manager: it opens
// the queue manager named by its first argument over the data directory of
// VXQM_DATA (inherited from the test) and does one thing, reporting on
// standard output, one line per event, flushed at once.
//
//   qm_peer QM put QUEUE COUNT PREFIX [np]  puts COUNT messages PREFIX<i>
//                                           (persistent unless np); a line
//                                           "<i>" after each put returned
//   qm_peer QM drain QUEUE WAIT_MS          gets until none comes within
//                                           WAIT_MS; a line per message
//   qm_peer QM putafter QUEUE DELAY_MS      sleeps, puts one persistent
//                                           message, writes the monotonic
//                                           time (ns) just after the put
//   qm_peer QM unit QUEUE                   gets a message and puts "unit"
//                                           under syncpoint, writes "ready"
//                                           and waits to be killed
//   qm_peer QM hold QUEUE OPTIONS           opens QUEUE with OPTIONS (a
//                                           number) and a temporary queue
//                                           from the default model, writes
//                                           "ready <its name>", waits to be
//                                           killed
//   qm_peer QM open QUEUE OPTIONS           opens QUEUE with OPTIONS, writes
//                                           the reason (0: opened), closes
//   qm_peer QM mixed QUEUE COUNT PREFIX     puts COUNT messages PREFIX<i>,
//                                           persistent and not in turn
//
// Exit status: 0 done, 2 bad arguments, 3 a call failed (its reason on
// standard error).
#include <unistd.h>

#include <chrono>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "qm.h"
#include "qm_admin.h"
#include "vxqi_records.h"

namespace {

int32_t hconn = -1;

void field(char *target, size_t length, const std::string &value) {
  std::memset(target, 0, length);
  std::memcpy(target, value.data(), std::min(length, value.size()));
}

[[noreturn]] void failed(const char *call, int32_t reason) {
  std::fprintf(stderr, "qm_peer: %s failed with reason %" PRId32 "\n", call, reason);
  std::exit(3);
}

// Opens a queue; the name it has (a model's makes a new one) in *opened.
int32_t tryOpen(const std::string &queue, int32_t options, int32_t *reason,
                std::string *opened = nullptr) {
  vxOBJDESC od = OD_DEFAULT;
  field(od.objectName, sizeof od.objectName, queue);
  int32_t hobj = 0;
  int32_t cc = 0;
  qmOPEN(hconn, &od, options, &hobj, &cc, reason);
  if (opened != nullptr) {
    opened->assign(od.objectName, sizeof od.objectName);
    opened->erase(opened->find_last_not_of(' ') + 1);
  }
  return hobj;
}

int32_t openQueue(const std::string &queue, int32_t options, std::string *opened = nullptr) {
  int32_t rc = 0;
  const int32_t hobj = tryOpen(queue, options, &rc, opened);
  if (rc != RC_NONE) failed("qmOPEN", rc);
  return hobj;
}

void put(int32_t hobj, const std::string &data, int32_t persistence, int32_t options) {
  vxMSGDESC md = MD_DEFAULT;
  md.persistence = persistence;
  vxPUTOPTS pmo = PMO_DEFAULT;
  pmo.options = options;
  int32_t cc = 0;
  int32_t rc = 0;
  qmPUT(hconn, hobj, &md, &pmo, static_cast<int32_t>(data.size()), const_cast<char *>(data.data()),
        0, &cc, &rc);
  if (cc != CC_OK) failed("qmPUT", rc);
}

// A message's data, or false when none came within the wait.
bool get(int32_t hobj, int32_t waitMs, int32_t options, std::string *data) {
  vxMSGDESC md = MD_DEFAULT;
  vxGETOPTS gmo = GMO_DEFAULT;
  gmo.options = options | GET_WAIT;
  gmo.waitInterval = waitMs;
  std::vector<char> buffer(4096);
  int32_t length = 0;
  int32_t cc = 0;
  int32_t rc = 0;
  qmGET(hconn, hobj, &md, &gmo, static_cast<int32_t>(buffer.size()), buffer.data(), &length, 0, &cc,
        &rc);
  if (cc == CC_FAILED && rc == RC_NO_MSG_AVAILABLE) return false;
  if (cc != CC_OK) failed("qmGET", rc);
  data->assign(buffer.data(), static_cast<size_t>(length));
  return true;
}

}  // namespace

int main(int argc, char **argv) {
  if (argc < 4) return 2;
  const std::string command = argv[2];
  const std::string queue = argv[3];
  char qmName[QM_NAME_LENGTH];
  field(qmName, sizeof qmName, argv[1]);
  int32_t cc = 0;
  int32_t rc = 0;
  qmCONN(qmName, &hconn, &cc, &rc, 0);
  if (cc != CC_OK) failed("qmCONN", rc);

  if (command == "put" && argc >= 6) {
    const long count = std::atol(argv[4]);
    const int32_t persistence = argc > 6 && std::strcmp(argv[6], "np") == 0
                                    ? PERSISTENCE_NOT_PERSISTENT
                                    : PERSISTENCE_PERSISTENT;
    const int32_t hobj = openQueue(queue, OPEN_OUTPUT);
    for (long i = 0; i < count; ++i) {
      put(hobj, argv[5] + std::to_string(i), persistence, PUT_NO_SYNCPOINT);
      std::printf("%ld\n", i);
      std::fflush(stdout);
    }
  } else if (command == "drain" && argc >= 5) {
    const int32_t hobj = openQueue(queue, OPEN_INPUT_SHARED);
    std::string data;
    while (get(hobj, std::atoi(argv[4]), GET_NO_SYNCPOINT, &data))
      std::printf("%s\n", data.c_str());
  } else if (command == "putafter" && argc >= 5) {
    const int32_t hobj = openQueue(queue, OPEN_OUTPUT);
    std::this_thread::sleep_for(std::chrono::milliseconds(std::atoi(argv[4])));
    put(hobj, "wake", PERSISTENCE_PERSISTENT, PUT_NO_SYNCPOINT);
    const auto now = std::chrono::steady_clock::now().time_since_epoch();
    std::printf("%lld\n", static_cast<long long>(std::chrono::nanoseconds(now).count()));
  } else if (command == "unit") {
    const int32_t hobj = openQueue(queue, OPEN_INPUT_SHARED | OPEN_OUTPUT);
    std::string data;
    if (!get(hobj, 0, GET_SYNCPOINT, &data)) failed("qmGET", RC_NO_MSG_AVAILABLE);
    put(hobj, "unit", PERSISTENCE_PERSISTENT, PUT_SYNCPOINT);
    std::printf("ready\n");
    std::fflush(stdout);
    for (;;) pause();
  } else if (command == "hold" && argc >= 5) {
    openQueue(queue, std::atoi(argv[4]));
    std::string temporary;
    openQueue("SYSTEM.DEFAULT.MODEL.QUEUE", OPEN_INPUT_EXCLUSIVE, &temporary);
    std::printf("ready %s\n", temporary.c_str());
    std::fflush(stdout);
    for (;;) pause();
  } else if (command == "open" && argc >= 5) {
    int32_t reason = 0;
    int32_t hobj = tryOpen(queue, std::atoi(argv[4]), &reason);
    std::printf("%" PRId32 "\n", reason);
    if (reason == RC_NONE) qmCLOSE(hconn, &hobj, CLOSE_NONE, &cc, &rc);
  } else if (command == "inhibit" && argc >= 5) {
    // Puts and gets inhibited (1) or allowed (0), as another host's change.
    vxqm::QueueChanges changes;
    changes.inhibitPut = std::atoi(argv[4]) != 0 ? INHIBIT_INHIBITED : INHIBIT_ALLOWED;
    changes.inhibitGet = changes.inhibitPut;
    const int32_t reason = vxqm::admin::changeQueue(argv[1], queue, changes);
    if (reason != RC_NONE) failed("changeQueue", reason);
  } else if (command == "mixed" && argc >= 6) {
    const long count = std::atol(argv[4]);
    const int32_t hobj = openQueue(queue, OPEN_OUTPUT);
    for (long i = 0; i < count; ++i) {
      put(hobj, argv[5] + std::to_string(i),
          i % 2 == 0 ? PERSISTENCE_PERSISTENT : PERSISTENCE_NOT_PERSISTENT, PUT_NO_SYNCPOINT);
    }
  } else {
    return 2;
  }
  std::fflush(stdout);
  qmDISC(&hconn, 0, &cc, &rc);
  return cc == CC_OK ? 0 : 3;
}
