/* bagdemo: shows the bag library at work.
 *
 * It creates bags of each kind and shows their system items, builds an
 * administration bag with integers, strings and inquiry items, walks it
 * item by item, and pads and trims strings. */
#include <stdio.h>
#include <string.h>

#include "vxai.h"

static const char *typeName(int32_t type) {
  switch (type) {
    case ITEM_TYPE_INTEGER:
      return "integer";
    case ITEM_TYPE_STRING:
      return "string";
    case ITEM_TYPE_BAG:
      return "bag";
  }
  return "?";
}

/* Prints every item of a bag in stored order, as a caller walks a bag:
 * SEL_ANY_SELECTOR with index n names the n-th item. */
static void printItems(VXHBAG bag) {
  int32_t count, compCode, reason;
  vxCountItems(bag, SEL_ANY_SELECTOR, &count, &compCode, &reason);
  for (int32_t i = 0; i < count; ++i) {
    int32_t selector, type;
    vxInquireItemInfo(bag, SEL_ANY_SELECTOR, i, &selector, &type, &compCode, &reason);
    printf("  %2d  selector %6d  %-7s  ", i, selector, typeName(type));
    if (type == ITEM_TYPE_INTEGER) {
      int32_t value;
      vxInquireInteger(bag, SEL_ANY_SELECTOR, i, &value, &compCode, &reason);
      printf("%d\n", value);
    } else if (type == ITEM_TYPE_STRING) {
      char value[49];
      int32_t length, codedCharSetId;
      vxInquireString(bag, SEL_ANY_SELECTOR, i, sizeof value - 1, value, &length, &codedCharSetId,
                      &compCode, &reason);
      if (length > (int32_t)sizeof value - 1) length = sizeof value - 1;
      printf("\"%.*s\" (ccsid %d)\n", (int)length, value, codedCharSetId);
    } else {
      VXHBAG nested;
      vxInquireBag(bag, SEL_ANY_SELECTOR, i, &nested, &compCode, &reason);
      printf("nested bag %d\n", nested);
    }
  }
}

static void showBagKind(const char *kind, int32_t options) {
  VXHBAG bag = BAG_NONE;
  int32_t compCode, reason, value;
  vxCreateBag(options, &bag, &compCode, &reason);
  printf("%s, options 0x%02X: CompCode %d Reason %d\n", kind, (unsigned)options, compCode, reason);
  if (compCode != CC_OK) return;
  vxInquireInteger(bag, SEL_BAG_OPTIONS, ITEM_INDEX_NONE, &value, &compCode, &reason);
  printf("  SEL_BAG_OPTIONS reads 0x%02X, ", (unsigned)value);
  vxInquireInteger(bag, SEL_PCF_TYPE, ITEM_INDEX_NONE, &value, &compCode, &reason);
  printf("SEL_PCF_TYPE reads %d\n", value);
  vxDeleteBag(&bag, &compCode, &reason);
}

static void check(const char *what, int32_t compCode, int32_t reason) {
  printf("%-44s CompCode %d Reason %d\n", what, compCode, reason);
}

int main(void) {
  VXHBAG bag = BAG_NONE;
  int32_t compCode, reason, count;
  char field[12];
  char text[13];

  printf("== Bags of each kind\n");
  showBagKind("user bag", 0);
  showBagKind("administration bag", BAG_OPT_ADMIN_BAG);
  showBagKind("command bag", BAG_OPT_COMMAND_BAG);
  showBagKind("checking list bag", BAG_OPT_CHECK_SELECTORS | BAG_OPT_LIST_FORM_ALLOWED);
  showBagKind("admin and command at once", BAG_OPT_ADMIN_BAG | BAG_OPT_COMMAND_BAG);
  showBagKind("system bag asked for by a caller", BAG_OPT_SYSTEM_BAG);

  printf("\n== An administration bag\n");
  vxCreateBag(BAG_OPT_ADMIN_BAG, &bag, &compCode, &reason);
  vxAddString(bag, 2016, -1, "PAYROLL.REQUEST", &compCode, &reason);
  check("vxAddString 2016 \"PAYROLL.REQUEST\"", compCode, reason);
  vxAddInteger(bag, 20, 1, &compCode, &reason);
  check("vxAddInteger 20 = 1", compCode, reason);
  vxAddInquiry(bag, 2016, &compCode, &reason);
  check("vxAddInquiry 2016", compCode, reason);
  vxAddInquiry(bag, 3, &compCode, &reason);
  check("vxAddInquiry 3", compCode, reason);
  vxAddInteger(bag, 5000, 7, &compCode, &reason);
  check("vxAddInteger 5000 (outside the integer range)", compCode, reason);
  vxSetInteger(bag, SEL_COMMAND, ITEM_INDEX_NONE, 13, &compCode, &reason);
  check("vxSetInteger SEL_COMMAND = 13", compCode, reason);
  vxCountItems(bag, SEL_ANY_USER_SELECTOR, &count, &compCode, &reason);
  printf("%d user items; the whole bag, item by item:\n", count);
  printItems(bag);
  vxTruncateBag(bag, 1, &compCode, &reason);
  check("vxTruncateBag to 1 user item", compCode, reason);
  vxCountItems(bag, SEL_ANY_USER_SELECTOR, &count, &compCode, &reason);
  printf("%d user item left\n", count);
  vxDeleteBag(&bag, &compCode, &reason);
  check("vxDeleteBag", compCode, reason);

  printf("\n== Pad and trim\n");
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
