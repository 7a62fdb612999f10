/*
 * The command server: answers the administration commands that programs put
 * on "SYSTEM.ADMIN.COMMAND.QUEUE" of a queue manager, as vxExecute sends
 * them, and carries them out through the queue manager's administration
 * interface.  It lives in the program's process (libvxcmdsrv.so), on a thread
 * of its own, and reaches the queue manager only through the bag library's
 * calls: it reads each request with vxGetBag and answers on the request's
 * reply-to queue with vxPutBag.  docs/command-server.md lists the commands,
 * their parameters, their replies and the reasons of the error replies.
 *
 * The values of the constants below never change and are never reused.
 *
 * This header compiles as C99 and as C++.
 */
#ifndef VX_COMMAND_SERVER_H
#define VX_COMMAND_SERVER_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define VXCS_EXPORT __attribute__((visibility("default")))

/* Command codes (the command of vxExecute, the header's command field) */
#define CMD_CHANGE_Q 8
#define CMD_CLEAR_Q 9
#define CMD_COPY_Q 10
#define CMD_CREATE_Q 11
#define CMD_DELETE_Q 12
#define CMD_INQUIRE_Q 13
#define CMD_INQUIRE_Q_MGR 2
#define CMD_INQUIRE_Q_NAMES 18
#define CMD_INQUIRE_Q_STATUS 41
#define CMD_PING 40

/* Parameter selectors of the commands, besides the attribute selectors of
 * vxqi.h (ATTR_Q_NAME 2016 for names and generic names, ATTR_Q_TYPE 20, ...) */
#define PARM_Q_MGR_ATTRS 1001    /* integer list: attributes of command 2 */
#define PARM_Q_ATTRS 1002        /* integer list: attributes of command 13 */
#define PARM_ALL 1009            /* in an attribute list: every attribute */
#define PARM_PURGE 1019          /* integer: 1 deletes a queue with its messages */
#define PARM_Q_STATUS_ATTRS 1026 /* integer list: attributes of command 41 */
#define PARM_FROM_Q_NAME 3001    /* string: the queue copied */
#define PARM_TO_Q_NAME 3002      /* string: the queue made by the copy */
#define PARM_Q_NAMES 3011        /* string list: the names of a reply of command 18 */

/* Reasons of the error replies that refuse what would lock administrators
 * out (docs/command-server.md), besides those of vxqi.h.
 * RC_SYSTEM_Q_INHIBIT_REFUSED: puts or gets inhibited on
 * "SYSTEM.ADMIN.COMMAND.QUEUE" or "SYSTEM.DEFAULT.MODEL.QUEUE" (the model of
 * the requesters' reply queues).
 * RC_SYSTEM_Q_DELETE_REFUSED: a delete of a queue whose name begins with
 * "SYSTEM.".
 * RC_SYSTEM_Q_TYPE_REFUSED: a change queue giving a "SYSTEM." queue another
 * type than its own.
 * RC_SYSTEM_Q_LIMIT_REFUSED: a maximum depth of 0, or a maximum message
 * length under 4096, on either of the two queues above. */
#define RC_SYSTEM_Q_INHIBIT_REFUSED 3012
#define RC_SYSTEM_Q_DELETE_REFUSED 3013
#define RC_SYSTEM_Q_TYPE_REFUSED 3014
#define RC_SYSTEM_Q_LIMIT_REFUSED 3015

/* A running command server.  Only vxcsStop releases it. */
typedef struct vxcsSERVER vxcsSERVER;

/* Starts a command server for the queue manager `qmName` (a null-terminated
 * name; null, "" or blanks: the default one).  When it returns 0 the
 * server's thread is connected and holds the command queue open for shared
 * input, so the queue's open-input count shows it, and *server is the
 * server; otherwise it returns the reason (the connect's or the open's,
 * RC_Q_MGR_NAME_ERROR for a name longer than 48 characters,
 * RC_STORAGE_NOT_AVAILABLE) and *server is null.  A null `server` gives
 * RC_OPTIONS_ERROR.  Any thread may call it. */
VXCS_EXPORT int32_t vxcsStart(const char *qmName, vxcsSERVER **server);

/* Stops a server and releases it: closes the server's handle of the command
 * queue, which ends the get the server waits in, waits for its thread to end
 * and frees everything.  A request being carried out is finished first.
 * Null is accepted and does nothing.  Call it once per server, from a thread
 * other than the server's own. */
VXCS_EXPORT void vxcsStop(vxcsSERVER *server);

#ifdef __cplusplus
}
#endif

#endif /* VX_COMMAND_SERVER_H */
