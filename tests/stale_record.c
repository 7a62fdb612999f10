/* Reads the record of a deleted bag through a handle kept from before the
 * delete, as a program with that bug would.  The memory checkers must report
 * the read: AddressSanitizer finds the slot poisoned, valgrind's memcheck
 * finds a freed block. */
#include <stdint.h>
#include <stdio.h>

#include "vxai.h"

int main(void) {
  VXHBAG bag = BAG_NONE;
  int32_t compCode, reason;
  vxCreateBag(BAG_OPT_ADMIN_BAG, &bag, &compCode, &reason);
  if (compCode != CC_OK) return 1;
  const VXHBAG kept = bag;
  vxDeleteBag(&bag, &compCode, &reason);
  const volatile char *record = (const volatile char *)(uintptr_t)(uint32_t)kept;
  printf("first byte of the deleted record: %c\n", record[0]);
  return 0;
}
