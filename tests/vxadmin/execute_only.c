/* A program that only calls vxExecute: it hosts no command server.  It
 * connects to the queue manager of VXQM_DATA, sends a ping and a request for
 * the names of its queues, and prints each outcome.  Exit status 0 when
 * both were answered.
 *
 *   execute_only [QMGR]     (default QM1) */
#include <stdio.h>
#include <string.h>

#include "command_server.h"
#include "vxai.h"
#include "vxqi.h"

int main(int argc, char **argv) {
  char qmName[QM_NAME_LENGTH + 1] = "QM1";
  if (argc > 1) snprintf(qmName, sizeof qmName, "%s", argv[1]);
  int32_t hconn = 0, compCode = 0, reason = 0;
  VXCONN(qmName, &hconn, &compCode, &reason);
  if (compCode == CC_FAILED) {
    printf("connect: reason %d\n", reason);
    return 1;
  }
  VXHBAG request = BAG_NONE, reply = BAG_NONE;
  vxCreateBag(BAG_OPT_ADMIN_BAG, &request, &compCode, &reason);
  vxCreateBag(BAG_OPT_ADMIN_BAG, &reply, &compCode, &reason);
  int answered = 0;
  vxExecute(hconn, CMD_PING, BAG_NONE, request, reply, HOBJ_NONE, HOBJ_NONE, &compCode, &reason);
  printf("ping: reason %d\n", reason);
  answered += compCode == CC_OK;
  vxAddString(request, ATTR_Q_NAME, -1, "*", &compCode, &reason);
  vxExecute(hconn, CMD_INQUIRE_Q_NAMES, BAG_NONE, request, reply, HOBJ_NONE, HOBJ_NONE, &compCode,
            &reason);
  printf("queue names: reason %d\n", reason);
  answered += compCode == CC_OK;
  vxDeleteBag(&request, &compCode, &reason);
  vxDeleteBag(&reply, &compCode, &reason);
  VXDISC(&hconn, &compCode, &reason);
  return answered == 2 ? 0 : 1;
}
