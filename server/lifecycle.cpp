// The life of a server: vxcsStart starts its thread and waits until it
// serves (or could not), the thread answers requests until its handle of
// the command queue is closed, and vxcsStop closes that handle, joins the
// thread and frees everything.
//
// The record vxcsSERVER is shared with the starting and the stopping thread
// under its mutex; its session is the server's thread's alone.
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <functional>
#include <mutex>
#include <thread>

#include "server_parts.h"

struct vxcsSERVER {
  vxcs::Session session;
  std::thread thread;

  std::mutex mutex;  // guards every member below
  std::condition_variable startedChanged;
  std::condition_variable stopAsked;  // vxcsStop closed the command queue's handle
  bool started = false;               // the thread has connected and opened, or failed to
  int32_t startReason = 0;            // 0, or why the thread could not start serving
  bool queueOpen = false;             // the thread's handle of the command queue is open
  int32_t hconn = 0;
  int32_t hobj = HOBJ_UNUSABLE;
};

namespace vxcs {
namespace {

// How often a server whose command queue has gets inhibited looks whether
// they are allowed again: the queue manager refuses a get of such a queue at
// once, wait or not, and wakes nobody when the attribute changes.
constexpr auto kInhibitedGetRetry = std::chrono::milliseconds(100);

void serve(vxcsSERVER *server, Session &session) {
  char qmName[QM_NAME_LENGTH + 1] = {};
  std::strncpy(qmName, session.qmName.c_str(), QM_NAME_LENGTH);
  int32_t cc = CC_OK, rc = RC_NONE, hobj = HOBJ_UNUSABLE;
  VXCONN(qmName, &session.hconn, &cc, &rc);
  if (cc != CC_FAILED) {
    vxOBJDESC od = OD_DEFAULT;
    std::memcpy(od.objectName, kCommandQueue, sizeof kCommandQueue - 1);
    VXOPEN(session.hconn, &od, OPEN_INPUT_SHARED, &hobj, &cc, &rc);
    if (cc == CC_FAILED) {
      int32_t discCc = CC_OK, discRc = RC_NONE;
      VXDISC(&session.hconn, &discCc, &discRc);
    }
  }
  if (cc != CC_FAILED) {
    vxCreateBag(BAG_OPT_LIST_FORM_ALLOWED, &session.replyBag, &cc, &rc);
    if (cc != CC_OK) {
      int32_t closeCc = CC_OK, closeRc = RC_NONE;
      VXCLOSE(session.hconn, &hobj, CLOSE_NONE, &closeCc, &closeRc);
      VXDISC(&session.hconn, &closeCc, &closeRc);
      cc = CC_FAILED;
    }
  }
  {
    std::lock_guard lock(server->mutex);
    server->started = true;
    server->startReason = cc == CC_FAILED ? rc : RC_NONE;
    server->queueOpen = cc != CC_FAILED;
    server->hconn = session.hconn;
    server->hobj = hobj;
    server->startedChanged.notify_all();
  }
  if (cc == CC_FAILED) return;

  for (;;) {
    const int32_t reason = serveOne(session, hobj);
    if (reason == RC_NONE) continue;
    if (reason != RC_GET_INHIBITED) break;
    // Gets inhibited on the command queue (a change queue that anyone may
    // send does it) pause the server until they are allowed again; only
    // vxcsStop, or the end of the connection, ends it.
    std::unique_lock lock(server->mutex);
    server->stopAsked.wait_for(lock, kInhibitedGetRetry, [server] { return !server->queueOpen; });
  }

  {
    std::lock_guard lock(server->mutex);
    if (server->queueOpen) VXCLOSE(session.hconn, &hobj, CLOSE_NONE, &cc, &rc);
    server->queueOpen = false;
  }
  vxDeleteBag(&session.replyBag, &cc, &rc);
  VXDISC(&session.hconn, &cc, &rc);
}

}  // namespace
}  // namespace vxcs

extern "C" {

int32_t vxcsStart(const char *qmName, vxcsSERVER **server) {
  if (!server) return RC_OPTIONS_ERROR;
  *server = nullptr;
  if (qmName && std::strlen(qmName) > QM_NAME_LENGTH) return RC_Q_MGR_NAME_ERROR;
  vxcsSERVER *created = nullptr;
  try {
    created = new vxcsSERVER;
    created->session.qmName = qmName ? qmName : "";
    created->thread = std::thread(vxcs::serve, created, std::ref(created->session));
  } catch (...) {
    delete created;
    return RC_STORAGE_NOT_AVAILABLE;
  }
  int32_t reason = RC_NONE;
  {
    std::unique_lock lock(created->mutex);
    created->startedChanged.wait(lock, [created] { return created->started; });
    reason = created->startReason;
  }
  if (reason != RC_NONE) {
    created->thread.join();
    delete created;
    return reason;
  }
  *server = created;
  return RC_NONE;
}

void vxcsStop(vxcsSERVER *server) {
  if (!server) return;
  {
    // Closing the handle ends the get the server's thread waits in; a
    // request being carried out is finished, and the next get fails.
    std::lock_guard lock(server->mutex);
    if (server->queueOpen) {
      int32_t hobj = server->hobj, cc = CC_OK, rc = RC_NONE;
      VXCLOSE(server->hconn, &hobj, CLOSE_NONE, &cc, &rc);
      server->queueOpen = false;
    }
    server->stopAsked.notify_all();
  }
  server->thread.join();
  delete server;
}

}  // extern "C"
