/* The public header compiles as C99, and a C program can use the library. */
#include <stdio.h>

#include "vxai.h"

int main(void) {
  VXHBAG bag = BAG_NONE;
  int32_t compCode = -1, reason = -1;
  char field[4];
  vxCreateBag(BAG_OPT_ADMIN_BAG, &bag, &compCode, &reason);
  if (compCode != CC_OK || reason != RC_NONE) {
    printf("vxCreateBag: %d %d\n", compCode, reason);
    return 1;
  }
  vxDeleteBag(&bag, &compCode, &reason);
  if (compCode != CC_OK || bag != -1) {
    printf("vxDeleteBag: %d %d, handle %d\n", compCode, reason, bag);
    return 1;
  }
  vxPad("AB", sizeof field, field, &compCode, &reason);
  if (compCode != CC_OK || field[0] != 'A' || field[3] != ' ') {
    printf("vxPad: %d %d\n", compCode, reason);
    return 1;
  }
  printf("C program built against vxai.h ran\n");
  return 0;
}
