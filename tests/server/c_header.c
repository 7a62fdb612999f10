/* The command server's header compiles as C99, and a C program starts and
 * stops a server with it. */
#include <stdio.h>

#include "command_server.h"
#include "vxqi.h"

int main(void) {
  vxcsSERVER *server = NULL;
  int32_t reason = vxcsStart("QM1", &server);
  if (reason != 0 || server == NULL) {
    printf("vxcsStart: %d\n", (int)reason);
    return 1;
  }
  vxcsStop(server);
  vxcsStop(NULL);
  return CMD_PING == 40 && PARM_ERROR_PARAMETER == 1021 && RC_PARAMETER_ERROR == 3010 ? 0 : 1;
}
