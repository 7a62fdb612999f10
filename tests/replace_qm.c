/* A program that brings its own queue manager: it defines the queue
 * manager's open entry itself (and is linked so that its definitions are
 * seen by the libraries it loads), and the VXOPEN of libvxai.so must arrive
 * here instead of in libvxqm.so. */
#include <stdio.h>
#include <string.h>

#include "qm.h"
#include "vxqi.h"

static int opensSeen;
static int32_t optionsSeen;

void qmOPEN(int32_t Hconn, void *pObjDesc, int32_t Options, int32_t *pHobj, int32_t *pCompCode,
            int32_t *pReason) {
  (void)Hconn;
  (void)pObjDesc;
  ++opensSeen;
  optionsSeen = Options;
  *pHobj = 4711;
  *pCompCode = CC_OK;
  *pReason = RC_NONE;
}

int main(void) {
  vxOBJDESC od = OD_DEFAULT;
  int32_t hobj = 0, compCode = -1, reason = -1;
  memcpy(od.objectName, "ANY.QUEUE", 9);
  VXOPEN(1, &od, OPEN_OUTPUT | OPEN_INQUIRE, &hobj, &compCode, &reason);
  if (opensSeen != 1 || optionsSeen != 48 || hobj != 4711 || compCode != CC_OK) {
    printf("VXOPEN did not reach the program's own queue manager: %d opens, handle %d, %d %d\n",
           opensSeen, hobj, compCode, reason);
    return 1;
  }
  printf("VXOPEN reached the program's own queue manager\n");
  return 0;
}
