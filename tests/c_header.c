/* The public headers compile as C99, and a C program can use the library. */
#include <stdio.h>

#include "vxai.h"
#include "vxqi.h"

/* The queue-interface records have the same layout in C. */
typedef char md_is_364_bytes[sizeof(vxMSGDESC) == MD_LENGTH_2 ? 1 : -1];
typedef char od_is_336_bytes[sizeof(vxOBJDESC) == OD_LENGTH ? 1 : -1];
typedef char pmo_is_152_bytes[sizeof(vxPUTOPTS) == PMO_LENGTH ? 1 : -1];
typedef char gmo_is_100_bytes[sizeof(vxGETOPTS) == GMO_LENGTH ? 1 : -1];

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
