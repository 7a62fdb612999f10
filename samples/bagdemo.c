/* bagdemo: shows the bag library at work. */
#include <stdio.h>
#include <string.h>

#include "vxai.h"

static void createAndDelete(const char *kind, int32_t options) {
  VXHBAG bag = BAG_NONE;
  int32_t compCode, reason;
  vxCreateBag(options, &bag, &compCode, &reason);
  printf("%-26s options 0x%02X: CompCode %d Reason %d", kind, (unsigned)options, compCode, reason);
  if (compCode == CC_OK) {
    vxDeleteBag(&bag, &compCode, &reason);
    printf(", deleted (handle now %d)", bag);
  }
  printf("\n");
}

int main(void) {
  int32_t compCode, reason;
  char field[12];
  char text[13];

  printf("Bags\n");
  createAndDelete("user bag", 0);
  createAndDelete("administration bag", BAG_OPT_ADMIN_BAG);
  createAndDelete("command bag", BAG_OPT_COMMAND_BAG);
  createAndDelete("checking list bag", BAG_OPT_CHECK_SELECTORS | BAG_OPT_LIST_FORM_ALLOWED);
  createAndDelete("admin and command at once", BAG_OPT_ADMIN_BAG | BAG_OPT_COMMAND_BAG);
  createAndDelete("system bag from a caller", BAG_OPT_SYSTEM_BAG);

  printf("\nPad and trim\n");
  vxPad("QM1", sizeof field, field, &compCode, &reason);
  printf("vxPad \"QM1\" into %u bytes: [%.*s] CompCode %d Reason %d\n", (unsigned)sizeof field,
         (int)sizeof field, field, compCode, reason);
  vxTrim(sizeof field, field, text, &compCode, &reason);
  printf("vxTrim back: \"%s\" CompCode %d Reason %d\n", text, compCode, reason);
  vxPad("SYSTEM.ADMIN.COMMAND.QUEUE", sizeof field, field, &compCode, &reason);
  printf("vxPad a longer name: [%.*s] CompCode %d Reason %d\n", (int)sizeof field, field, compCode,
         reason);
  return 0;
}
