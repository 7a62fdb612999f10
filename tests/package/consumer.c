/* A program built against the installed package: it starts a command
 * server, connects and sends a ping with vxExecute.  Exits 0 when the
 * command server answers. */
#include <stdio.h>

#include "command_server.h"
#include "vxai.h"
#include "vxqi.h"

int main(void) {
  vxcsSERVER *server = NULL;
  int32_t reason = vxcsStart("QM1", &server);
  if (reason != 0) {
    printf("vxcsStart: reason %d\n", reason);
    return 1;
  }
  char qmName[QM_NAME_LENGTH] = "QM1";
  VXHCONN hconn = 0;
  VXHBAG request = BAG_NONE, reply = BAG_NONE;
  int32_t compCode, replies = 0;
  VXCONN(qmName, &hconn, &compCode, &reason);
  vxCreateBag(BAG_OPT_ADMIN_BAG, &request, &compCode, &reason);
  vxCreateBag(BAG_OPT_ADMIN_BAG, &reply, &compCode, &reason);
  vxExecute(hconn, CMD_PING, BAG_NONE, request, reply, HOBJ_NONE, HOBJ_NONE, &compCode, &reason);
  int32_t pingCompCode = compCode, pingReason = reason;
  vxCountItems(reply, SEL_NESTED_REPLY_BAG, &replies, &compCode, &reason);
  vxDeleteBag(&request, &compCode, &reason);
  vxDeleteBag(&reply, &compCode, &reason);
  VXDISC(&hconn, &compCode, &reason);
  vxcsStop(server);
  printf("ping: CompCode %d Reason %d, %d reply\n", pingCompCode, pingReason, replies);
  return pingCompCode == CC_OK && replies == 1 ? 0 : 1;
}
