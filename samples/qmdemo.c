/* qmdemo: the library at work against a queue manager.
 *
 * The queue manager lives in this process (libvxqm.so), and so does its
 * command server (libvxcmdsrv.so), started with one call.  The program
 * connects, creates a queue with an administration command, puts two bags on
 * it as messages and gets them back, asks the command server about its
 * queues and prints every reply bag, deletes the queue and disconnects. */
#include <stdio.h>
#include <string.h>

#include "command_server.h"
#include "vxai.h"
#include "vxqi.h"

static const char kQueue[] = "DEMO.ORDERS";

/* Prints the user items of a bag, one line each. */
static void printItems(const char *indent, VXHBAG bag) {
  int32_t count, compCode, reason;
  vxCountItems(bag, SEL_ANY_USER_SELECTOR, &count, &compCode, &reason);
  for (int32_t i = 0; i < count; ++i) {
    int32_t selector, type;
    vxInquireItemInfo(bag, SEL_ANY_USER_SELECTOR, i, &selector, &type, &compCode, &reason);
    if (type == ITEM_TYPE_INTEGER) {
      int32_t value;
      vxInquireInteger(bag, SEL_ANY_USER_SELECTOR, i, &value, &compCode, &reason);
      printf("%sselector %5d  integer %d\n", indent, selector, value);
    } else if (type == ITEM_TYPE_STRING) {
      char value[64];
      int32_t length;
      vxInquireString(bag, SEL_ANY_USER_SELECTOR, i, sizeof value, value, &length, NULL, &compCode,
                      &reason);
      if (length > (int32_t)sizeof value) length = sizeof value;
      while (length > 0 && value[length - 1] == ' ') --length;
      printf("%sselector %5d  string  \"%.*s\"\n", indent, selector, (int)length, value);
    }
  }
}

static int check(const char *what, int32_t compCode, int32_t reason) {
  printf("%-44s CompCode %d Reason %d\n", what, compCode, reason);
  return compCode == CC_FAILED;
}

/* Runs one command; the replies are in the reply bag. */
static int execute(VXHCONN hconn, int32_t command, VXHBAG request, VXHBAG reply, const char *what) {
  int32_t compCode, reason;
  vxExecute(hconn, command, BAG_NONE, request, reply, HOBJ_NONE, HOBJ_NONE, &compCode, &reason);
  return check(what, compCode, reason);
}

static VXHBAG order(int32_t number, const char *item) {
  VXHBAG bag = BAG_NONE;
  int32_t compCode, reason;
  vxCreateBag(0, &bag, &compCode, &reason);
  vxAddInteger(bag, 1, number, &compCode, &reason);
  vxAddString(bag, 2, -1, item, &compCode, &reason);
  return bag;
}

int main(void) {
  int32_t compCode, reason;
  vxcsSERVER *server = NULL;
  reason = vxcsStart("QM1", &server);
  if (check("vxcsStart: the command server reads its queue", reason ? CC_FAILED : CC_OK, reason))
    return 1;

  char qmName[48] = "QM1";
  VXHCONN hconn = 0;
  VXCONN(qmName, &hconn, &compCode, &reason);
  if (check("VXCONN QM1", compCode, reason)) return 1;

  VXHBAG request = BAG_NONE, reply = BAG_NONE;
  vxCreateBag(BAG_OPT_ADMIN_BAG, &request, &compCode, &reason);
  vxCreateBag(BAG_OPT_ADMIN_BAG, &reply, &compCode, &reason);

  /* Create a local queue. */
  vxAddString(request, ATTR_Q_NAME, -1, kQueue, &compCode, &reason);
  vxAddInteger(request, ATTR_Q_TYPE, QTYPE_LOCAL, &compCode, &reason);
  vxAddString(request, ATTR_Q_DESC, -1, "orders of the demo", &compCode, &reason);
  if (execute(hconn, CMD_CREATE_Q, request, reply, "vxExecute create queue DEMO.ORDERS")) return 1;

  /* Put two bags on it and get them back. */
  vxOBJDESC od = OD_DEFAULT;
  memcpy(od.objectName, kQueue, sizeof kQueue);
  VXHOBJ hobj = 0;
  VXOPEN(hconn, &od, OPEN_INPUT_SHARED | OPEN_OUTPUT, &hobj, &compCode, &reason);
  if (check("VXOPEN DEMO.ORDERS", compCode, reason)) return 1;
  const char *items[] = {"paper", "pencils"};
  for (int32_t i = 0; i < 2; ++i) {
    VXHBAG bag = order(i + 1, items[i]);
    vxMSGDESC md = MD_DEFAULT;
    vxPUTOPTS pmo = PMO_DEFAULT;
    memcpy(md.format, VX_FORMAT_PCF, 8);
    pmo.options = PUT_NO_SYNCPOINT;
    vxPutBag(hconn, hobj, &md, &pmo, bag, &compCode, &reason);
    check("vxPutBag", compCode, reason);
    vxDeleteBag(&bag, &compCode, &reason);
  }
  for (int32_t i = 0; i < 2; ++i) {
    VXHBAG bag = BAG_NONE;
    vxCreateBag(0, &bag, &compCode, &reason);
    vxMSGDESC md = MD_DEFAULT;
    vxGETOPTS gmo = GMO_DEFAULT;
    gmo.options = GET_WAIT | GET_NO_SYNCPOINT;
    gmo.waitInterval = 1000;
    vxGetBag(hconn, hobj, &md, &gmo, bag, &compCode, &reason);
    check("vxGetBag", compCode, reason);
    printItems("    ", bag);
    vxDeleteBag(&bag, &compCode, &reason);
  }
  VXCLOSE(hconn, &hobj, CLOSE_NONE, &compCode, &reason);

  /* Ask about every queue whose name starts with DEMO or SYSTEM.DEFAULT. */
  const char *patterns[] = {"DEMO.*", "SYSTEM.DEFAULT.*"};
  for (int32_t p = 0; p < 2; ++p) {
    vxClearBag(request, &compCode, &reason);
    vxAddString(request, ATTR_Q_NAME, -1, patterns[p], &compCode, &reason);
    vxAddInquiry(request, ATTR_Q_NAME, &compCode, &reason);
    vxAddInquiry(request, ATTR_Q_TYPE, &compCode, &reason);
    vxAddInquiry(request, ATTR_CURRENT_DEPTH, &compCode, &reason);
    vxAddInquiry(request, ATTR_MAX_Q_DEPTH, &compCode, &reason);
    vxAddInquiry(request, ATTR_Q_DESC, &compCode, &reason);
    char what[64];
    snprintf(what, sizeof what, "vxExecute inquire queue %s", patterns[p]);
    if (execute(hconn, CMD_INQUIRE_Q, request, reply, what)) return 1;
    int32_t replies;
    vxCountItems(reply, SEL_NESTED_REPLY_BAG, &replies, &compCode, &reason);
    for (int32_t i = 0; i < replies; ++i) {
      VXHBAG nested;
      vxInquireBag(reply, SEL_NESTED_REPLY_BAG, i, &nested, &compCode, &reason);
      printf("  reply %d of %d\n", i + 1, replies);
      printItems("    ", nested);
    }
  }

  /* Delete the queue again. */
  vxClearBag(request, &compCode, &reason);
  vxAddString(request, ATTR_Q_NAME, -1, kQueue, &compCode, &reason);
  execute(hconn, CMD_DELETE_Q, request, reply, "vxExecute delete queue DEMO.ORDERS");

  vxDeleteBag(&request, &compCode, &reason);
  vxDeleteBag(&reply, &compCode, &reason);
  VXDISC(&hconn, &compCode, &reason);
  check("VXDISC", compCode, reason);
  vxcsStop(server);
  return 0;
}
