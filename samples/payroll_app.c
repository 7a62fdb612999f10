/* payroll_app: an application of the queue manager, as a payroll program
 * would be.  It connects to the queue manager of VXQM_DATA, holds
 * "PAYROLL.IN" open for input, says so, and takes the requests put there by
 * any process, waiting for each; it prints each one and ends after COUNT of
 * them, or when none came within WAIT milliseconds.
 *
 *   payroll_app [COUNT [WAIT]]      (default 1 request, 30000 ms) */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "vxqi.h"

int main(int argc, char **argv) {
  const int count = argc > 1 ? atoi(argv[1]) : 1;
  const int32_t wait = argc > 2 ? atoi(argv[2]) : 30000;
  char qmName[QM_NAME_LENGTH] = "QM1";
  int32_t hconn = 0, hobj = 0, compCode = 0, reason = 0;
  VXCONN(qmName, &hconn, &compCode, &reason);
  if (compCode == CC_FAILED) {
    fprintf(stderr, "payroll-app: connect: reason %d\n", reason);
    return 1;
  }
  vxOBJDESC od = OD_DEFAULT;
  memcpy(od.objectName, "PAYROLL.IN", 10);
  VXOPEN(hconn, &od, OPEN_INPUT_SHARED, &hobj, &compCode, &reason);
  if (compCode == CC_FAILED) {
    fprintf(stderr, "payroll-app: open PAYROLL.IN: reason %d\n", reason);
    return 1;
  }
  printf("payroll-app: waiting for requests on PAYROLL.IN\n");
  fflush(stdout);
  int taken = 0;
  while (taken < count) {
    vxMSGDESC md = MD_DEFAULT;
    vxGETOPTS gmo = GMO_DEFAULT;
    gmo.options = GET_WAIT | GET_NO_SYNCPOINT;
    gmo.waitInterval = wait;
    char request[256];
    int32_t length = 0;
    VXGET(hconn, hobj, &md, &gmo, sizeof request, request, &length, &compCode, &reason);
    if (compCode == CC_FAILED) {
      fprintf(stderr, "payroll-app: get: reason %d\n", reason);
      break;
    }
    if (length > (int32_t)sizeof request) length = sizeof request;
    printf("payroll-app: request '%.*s' (%s)\n", (int)length, request,
           md.persistence == PERSISTENCE_PERSISTENT ? "persistent" : "not persistent");
    fflush(stdout);
    ++taken;
  }
  VXCLOSE(hconn, &hobj, CLOSE_NONE, &compCode, &reason);
  VXDISC(&hconn, &compCode, &reason);
  return taken == count ? 0 : 1;
}
