/* bagdemo: shows the bag library at work.
 *
 * It creates bags of each kind and shows their system items, builds an
 * administration bag with integers, strings and inquiry items, walks it
 * item by item, writes a command bag as a PCF message, dumps the message
 * field by field and reads it back into a bag, and pads and trims strings. */
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
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

/* Reads the 32-bit field at `offset` of a message; fields are in the byte
 * order of this machine. */
static int32_t field(const unsigned char *message, int32_t offset) {
  int32_t value;
  memcpy(&value, message + offset, sizeof value);
  return value;
}

/* One line of the dump: the offset, `length` bytes (at most 8) in hex, and
 * the note made from `format`. */
__attribute__((format(printf, 4, 5))) static void dumpLine(const unsigned char *message,
                                                           int32_t offset, int32_t length,
                                                           const char *format, ...) {
  char bytes[8 * 3 + 1] = "";
  for (int32_t i = 0; i < length; ++i)
    snprintf(bytes + 3 * i, sizeof bytes - 3 * (size_t)i, "%02x ", message[offset + i]);
  printf("  %04x  %-24s ", (unsigned)offset, bytes);
  va_list args;
  va_start(args, format);
  vprintf(format, args);
  va_end(args);
  printf("\n");
}

/* Dumps the integer field `name` at `offset` and returns its value. */
static int32_t dumpInteger(const unsigned char *message, int32_t offset, const char *name) {
  int32_t value = field(message, offset);
  dumpLine(message, offset, 4, "%-15s %d", name, value);
  return value;
}

/* Dumps `length` bytes of string data, eight to a line with their characters
 * beside them (a byte that is not printable, such as the zero bytes that
 * fill the strings of a list, shows as '.'). */
static void dumpText(const unsigned char *message, int32_t offset, int32_t length,
                     const char *name) {
  if (length == 0) printf("  %04x  %-24s %-15s \"\"\n", (unsigned)offset, "", name);
  for (int32_t done = 0; done < length; done += 8) {
    int32_t part = length - done < 8 ? length - done : 8;
    char text[9];
    for (int32_t i = 0; i < part; ++i) {
      unsigned char byte = message[offset + done + i];
      text[i] = byte >= 0x20 && byte < 0x7f ? (char)byte : '.';
    }
    text[part] = '\0';
    dumpLine(message, offset + done, part, "%-15s \"%s\"", done == 0 ? name : "", text);
  }
}

/* Dumps the bytes from `offset` to `end` that only round a structure up to
 * a multiple of 4; the writer leaves them as the buffer held them. */
static void dumpPadding(const unsigned char *message, int32_t offset, int32_t end) {
  if (offset < end) dumpLine(message, offset, end - offset, "(padding)");
}

static const char *pcfTypeName(int32_t type) {
  switch (type) {
    case 1:
      return "command";
    case 2:
      return "response";
    case 7:
      return "event";
    case 8:
      return "user";
  }
  return "other";
}

static const char *structureKind(int32_t type) {
  switch (type) {
    case 3:
      return "integer";
    case 4:
      return "string";
    case 5:
      return "integer list";
    case 6:
      return "string list";
  }
  return NULL;
}

/* Dumps one parameter structure, whose type and length were checked to fit
 * the message; returns 0 when its contents do not fit its length. */
static int dumpParameter(const unsigned char *message, int32_t offset, int32_t strucLength) {
  int32_t type = dumpInteger(message, offset, "Type");
  dumpInteger(message, offset + 4, "StrucLength");
  dumpInteger(message, offset + 8, "Parameter");
  int32_t end = offset + strucLength, count, length;
  switch (type) {
    case 3:
      dumpInteger(message, offset + 12, "Value");
      return 1;
    case 4:
      dumpInteger(message, offset + 12, "CodedCharSetId");
      length = dumpInteger(message, offset + 16, "StringLength");
      if (length < 0 || length > strucLength - 20) return 0;
      dumpText(message, offset + 20, length, "String");
      dumpPadding(message, offset + 20 + length, end);
      return 1;
    case 5:
      count = dumpInteger(message, offset + 12, "Count");
      if (count < 0 || count > (strucLength - 16) / 4) return 0;
      for (int32_t i = 0; i < count; ++i) {
        char name[24];
        snprintf(name, sizeof name, "Value %d", i + 1);
        dumpInteger(message, offset + 16 + 4 * i, name);
      }
      return 1;
    default: /* 6 */
      dumpInteger(message, offset + 12, "CodedCharSetId");
      count = dumpInteger(message, offset + 16, "Count");
      length = dumpInteger(message, offset + 20, "StringLength");
      if (count < 0 || length < 0 || (length > 0 && count > (strucLength - 24) / length)) return 0;
      for (int32_t i = 0; i < count; ++i) {
        char name[24];
        snprintf(name, sizeof name, "String %d", i + 1);
        dumpText(message, offset + 24 + length * i, length, name);
      }
      dumpPadding(message, offset + 24 + length * count, end);
      return 1;
  }
}

/* Prints a PCF message as an annotated hex dump: the header field by field,
 * then each parameter structure with its kind, offset and fields. */
static void dumpMessage(const unsigned char *message, int32_t length) {
  if (length < 36) {
    printf("  a message of %d bytes has no room for its header\n", length);
    return;
  }
  printf("  offset  bytes                    field\n");
  printf("  header, offset 0, 36 bytes\n");
  int32_t type = field(message, 0);
  dumpLine(message, 0, 4, "%-15s %d (%s)", "Type", type, pcfTypeName(type));
  int32_t offset = dumpInteger(message, 4, "StrucLength");
  dumpInteger(message, 8, "Version");
  dumpInteger(message, 12, "Command");
  dumpInteger(message, 16, "MsgSeqNumber");
  dumpInteger(message, 20, "Control");
  dumpInteger(message, 24, "CompCode");
  dumpInteger(message, 28, "Reason");
  int32_t count = dumpInteger(message, 32, "ParameterCount");
  for (int32_t n = 1; n <= count; ++n) {
    const char *kind = offset <= length - 12 ? structureKind(field(message, offset)) : NULL;
    int32_t strucLength = kind != NULL ? field(message, offset + 4) : 0;
    if (kind == NULL || strucLength < 16 || strucLength % 4 != 0 || strucLength > length - offset) {
      printf("  parameter %d at offset %d is not a structure this dump knows\n", n, offset);
      return;
    }
    printf("  parameter %d: %s, offset %d, %d bytes\n", n, kind, offset, strucLength);
    if (!dumpParameter(message, offset, strucLength)) {
      printf("  its contents do not fit its length\n");
      return;
    }
    offset += strucLength;
  }
  if (offset != length) printf("  %d bytes follow the last parameter\n", length - offset);
}

/* Builds a command 13 request, writes it as a PCF message, dumps the message
 * and reads it back into a new bag. */
static void showMessage(void) {
  VXHBAG bag = BAG_NONE, readBag = BAG_NONE;
  int32_t compCode, reason, dataLength = 0;
  char label[64];

  vxCreateBag(BAG_OPT_ADMIN_BAG, &bag, &compCode, &reason);
  check("vxCreateBag BAG_OPT_ADMIN_BAG", compCode, reason);
  if (compCode != CC_OK) return;
  vxSetInteger(bag, SEL_COMMAND, ITEM_INDEX_NONE, 13, &compCode, &reason);
  check("vxSetInteger SEL_COMMAND = 13", compCode, reason);
  vxAddInteger(bag, 40, 1, &compCode, &reason);
  check("vxAddInteger 40 = 1", compCode, reason);
  vxAddString(bag, 3012, -1, "SALES", &compCode, &reason);
  check("vxAddString 3012 \"SALES\"", compCode, reason);
  vxAddInquiry(bag, 2016, &compCode, &reason);
  check("vxAddInquiry 2016", compCode, reason);
  /* Added after other items, yet written first: command 13 leads with
   * 2016 and, when present, 20. */
  vxAddString(bag, 2016, -1, "PAYROLL.REQUEST", &compCode, &reason);
  check("vxAddString 2016 \"PAYROLL.REQUEST\"", compCode, reason);
  vxAddInteger(bag, 40, 2, &compCode, &reason);
  check("vxAddInteger 40 = 2", compCode, reason);
  vxAddString(bag, 3012, -1, "ACCOUNTS.EU", &compCode, &reason);
  check("vxAddString 3012 \"ACCOUNTS.EU\"", compCode, reason);
  vxAddInteger(bag, 20, 1, &compCode, &reason);
  check("vxAddInteger 20 = 1", compCode, reason);
  vxAddInquiry(bag, 3, &compCode, &reason);
  check("vxAddInquiry 3", compCode, reason);
  vxAddInteger(bag, 40, 3, &compCode, &reason);
  check("vxAddInteger 40 = 3", compCode, reason);
  vxAddString(bag, 2030, -1, "QM1", &compCode, &reason);
  check("vxAddString 2030 \"QM1\"", compCode, reason);
  vxAddInteger(bag, 45, 5000, &compCode, &reason);
  check("vxAddInteger 45 = 5000", compCode, reason);
  vxAddInquiry(bag, 20, &compCode, &reason);
  check("vxAddInquiry 20", compCode, reason);

  /* A buffer of length 0 only measures: the call fails with
   * RC_BUFFER_LENGTH_ERROR and reports the length the message needs. */
  vxBagToBuffer(BAG_NONE, bag, 0, NULL, &dataLength, &compCode, &reason);
  check("vxBagToBuffer, buffer length 0", compCode, reason);
  printf("the message needs %d bytes\n", dataLength);
  unsigned char *buffer =
      compCode == CC_FAILED && reason == RC_BUFFER_LENGTH_ERROR ? malloc((size_t)dataLength) : NULL;
  if (buffer != NULL) {
    /* The writer leaves the padding of a structure as the buffer held it;
     * clearing the buffer first keeps the dump the same from run to run. */
    memset(buffer, 0, (size_t)dataLength);
    snprintf(label, sizeof label, "vxBagToBuffer, buffer length %d", dataLength);
    vxBagToBuffer(BAG_NONE, bag, dataLength, buffer, &dataLength, &compCode, &reason);
    check(label, compCode, reason);
    if (compCode == CC_OK) {
      printf("the message, %d bytes:\n", dataLength);
      dumpMessage(buffer, dataLength);
      vxCreateBag(BAG_OPT_ADMIN_BAG, &readBag, &compCode, &reason);
      check("vxCreateBag BAG_OPT_ADMIN_BAG", compCode, reason);
    }
    if (compCode == CC_OK) {
      vxBufferToBag(BAG_NONE, dataLength, buffer, readBag, &compCode, &reason);
      check("vxBufferToBag into the new bag", compCode, reason);
      printf(
          "the bag read back, one item per value of a list (the strings of a list keep\n"
          "the list's string length, zero filled):\n");
      printItems(readBag);
      vxDeleteBag(&readBag, &compCode, &reason);
      check("vxDeleteBag (read back)", compCode, reason);
    }
    free(buffer);
  }
  vxDeleteBag(&bag, &compCode, &reason);
  check("vxDeleteBag", compCode, reason);
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

  printf("\n== A command message and back\n");
  showMessage();

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
