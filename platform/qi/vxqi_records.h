/*
 * The records of the queue interface: what passes between a program and the
 * queue manager (message descriptor, object descriptor, put-message and
 * get-message options), the values of their fields, the attribute selectors
 * and the reason codes.  Both the queue manager and the library that wraps
 * its entries (vxqi.h) are written against it.
 *
 * Every record starts with a four-character structure id and a version, and
 * every field is a 32-bit little-endian integer or a fixed-length character
 * field, blank or zero filled, never null terminated.  A program fills a
 * record by copying one of the *_DEFAULT initialisers and setting the fields
 * it needs.
 *
 * The values of the constants below never change and are never reused.
 *
 * This header compiles as C99 and as C++.
 */
#ifndef VXQI_RECORDS_H
#define VXQI_RECORDS_H

#include <stdint.h>

/* Lengths of the fixed character fields */
#define QM_NAME_LENGTH 48
#define Q_NAME_LENGTH 48
#define Q_DESC_LENGTH 64
#define MSG_ID_LENGTH 24
#define CORREL_ID_LENGTH 24
#define GROUP_ID_LENGTH 24
#define FORMAT_LENGTH 8

/* ---------------------------------------------------------------------- */
/* Message descriptor: 324 bytes at version 1, 364 at version 2           */
/* ---------------------------------------------------------------------- */

#define MD_STRUC_ID "MD  "
#define MD_VERSION_1 1
#define MD_VERSION_2 2

typedef struct vxMSGDESC {
  char structId[4];                 /*   0 "MD  " */
  int32_t version;                  /*   4 1, or 2 with the extension */
  int32_t reportOptions;            /*   8 */
  int32_t msgType;                  /*  12 MSGTYPE_* */
  int32_t expiry;                   /*  16 tenths of a second, or EXPIRY_UNLIMITED */
  int32_t feedback;                 /*  20 */
  int32_t encoding;                 /*  24 546: the machine's own byte order */
  int32_t codedCharSetId;           /*  28 0: the queue manager's */
  char format[FORMAT_LENGTH];       /*  32 "VXADMIN ", "VXPCF   ", ... */
  int32_t priority;                 /*  40 0..9, or PRIORITY_AS_Q_DEF */
  int32_t persistence;              /*  44 PERSISTENCE_* */
  char msgId[MSG_ID_LENGTH];        /*  48 all zero: the put generates one */
  char correlId[CORREL_ID_LENGTH];  /*  72 */
  int32_t backoutCount;             /*  96 gets that were backed out */
  char replyToQ[Q_NAME_LENGTH];     /* 100 */
  char replyToQMgr[QM_NAME_LENGTH]; /* 148 */
  char context[128];                /* 196 identity and origin context */
  /* Version 2 only: */
  char groupId[GROUP_ID_LENGTH]; /* 324 */
  int32_t msgSeqNumber;          /* 348 1 */
  int32_t offset;                /* 352 0 */
  int32_t msgFlags;              /* 356 0 */
  int32_t originalLength;        /* 360 -1 */
} vxMSGDESC;

#define MD_LENGTH_1 324
#define MD_LENGTH_2 364

/* Message types */
#define MSGTYPE_REQUEST 1
#define MSGTYPE_REPLY 2
#define MSGTYPE_DATAGRAM 8

/* Persistence, priority, expiry */
#define PERSISTENCE_NOT_PERSISTENT 0
#define PERSISTENCE_PERSISTENT 1
#define PERSISTENCE_AS_Q_DEF 2
#define PRIORITY_AS_Q_DEF (-1)
#define EXPIRY_UNLIMITED (-1)

/* The one numeric encoding: 32-bit integers in the machine's own order */
#ifndef ENCODING_NATIVE
#define ENCODING_NATIVE 546
#endif

/* A version-2 descriptor as a program starts it: datagram, no expiry,
 * native encoding, no format, priority and persistence of the queue. */
#define MD_DEFAULT                                                                                 \
  {                                                                                                \
    {'M', 'D', ' ', ' '}, MD_VERSION_2, 0, MSGTYPE_DATAGRAM, EXPIRY_UNLIMITED, 0, ENCODING_NATIVE, \
        0, {' ', ' ', ' ', ' ', ' ', ' ', ' ', ' '}, PRIORITY_AS_Q_DEF, PERSISTENCE_AS_Q_DEF, {0}, \
        {0}, 0, {0}, {0}, {0}, {0}, 1, 0, 0, -1                                                    \
  }

/* ---------------------------------------------------------------------- */
/* Object descriptor: 336 bytes                                           */
/* ---------------------------------------------------------------------- */

#define OD_STRUC_ID "OD  "
#define OD_VERSION_1 1

typedef struct vxOBJDESC {
  char structId[4];                    /*   0 "OD  " */
  int32_t version;                     /*   4 1 */
  int32_t objectType;                  /*   8 OBJTYPE_* */
  char objectName[Q_NAME_LENGTH];      /*  12 the model's name; after opening a
                                                 model queue, the new queue's name */
  char objectQMgrName[QM_NAME_LENGTH]; /*  60 */
  char dynamicQName[Q_NAME_LENGTH];    /* 108 name of a queue made from a model;
                                               a trailing '*' takes a unique suffix */
  char reserved[180];                  /* 156 zero */
} vxOBJDESC;

#define OD_LENGTH 336

/* Object types */
#define OBJTYPE_Q 1
#define OBJTYPE_Q_MGR 5

#define OD_DEFAULT                                                                       \
  {                                                                                      \
    {'O', 'D', ' ', ' '}, OD_VERSION_1, OBJTYPE_Q, {0}, {0}, {'V', 'X', '.', '*'}, { 0 } \
  }

/* Open options */
#define OPEN_INPUT_AS_Q_DEF 1
#define OPEN_INPUT_SHARED 2
#define OPEN_INPUT_EXCLUSIVE 4
#define OPEN_BROWSE 8
#define OPEN_OUTPUT 16
#define OPEN_INQUIRE 32
#define OPEN_SET 64

/* Close options */
#define CLOSE_NONE 0
#define CLOSE_DELETE 1
#define CLOSE_DELETE_PURGE 2

/* ---------------------------------------------------------------------- */
/* Put-message options: 152 bytes                                         */
/* ---------------------------------------------------------------------- */

#define PMO_STRUC_ID "PMO "
#define PMO_VERSION_1 1

typedef struct vxPUTOPTS {
  char structId[4];                      /*   0 "PMO " */
  int32_t version;                       /*   4 1 */
  int32_t options;                       /*   8 PUT_* */
  int32_t timeout;                       /*  12 -1 */
  int32_t context;                       /*  16 */
  int32_t knownDestCount;                /*  20 out: 1 after a put */
  int32_t unknownDestCount;              /*  24 */
  int32_t invalidDestCount;              /*  28 */
  char resolvedQName[Q_NAME_LENGTH];     /*  32 out: the queue put to */
  char resolvedQMgrName[QM_NAME_LENGTH]; /*  80 out */
  char reserved[24];                     /* 128 zero */
} vxPUTOPTS;

#define PMO_LENGTH 152

/* Put options */
#define PUT_SYNCPOINT 2
#define PUT_NO_SYNCPOINT 4

#define PMO_DEFAULT                                                         \
  {                                                                         \
    {'P', 'M', 'O', ' '}, PMO_VERSION_1, 0, -1, 0, 0, 0, 0, {0}, {0}, { 0 } \
  }

/* ---------------------------------------------------------------------- */
/* Get-message options: 100 bytes                                         */
/* ---------------------------------------------------------------------- */

#define GMO_STRUC_ID "GMO "
#define GMO_VERSION_1 1

typedef struct vxGETOPTS {
  char structId[4];                  /*   0 "GMO " */
  int32_t version;                   /*   4 1 */
  int32_t options;                   /*   8 GET_* */
  int32_t waitInterval;              /*  12 milliseconds, or WAIT_UNLIMITED */
  int32_t signal1;                   /*  16 */
  int32_t signal2;                   /*  20 */
  char resolvedQName[Q_NAME_LENGTH]; /*  24 out: the queue got from */
  int32_t matchOptions;              /*  72 3 */
  char groupStatus;                  /*  76 ' ' */
  char segmentStatus;                /*  77 ' ' */
  char segmentation;                 /*  78 ' ' */
  char reserved1;                    /*  79 ' ' */
  char msgToken[16];                 /*  80 zero */
  int32_t returnedLength;            /*  96 -1 */
} vxGETOPTS;

#define GMO_LENGTH 100

/* Get options */
#define GET_WAIT 0x0001
#define GET_SYNCPOINT 0x0002
#define GET_NO_SYNCPOINT 0x0004
#define GET_BROWSE_FIRST 0x0010
#define GET_BROWSE_NEXT 0x0020
#define GET_ACCEPT_TRUNCATED_MSG 0x0040
#define GET_CONVERT 0x4000

#define WAIT_UNLIMITED (-1)

#define GMO_DEFAULT \
  { {'G', 'M', 'O', ' '}, GMO_VERSION_1, 0, 0, 0, 0, {0}, 3, ' ', ' ', ' ', ' ', {0}, -1 }

/* ---------------------------------------------------------------------- */
/* Attributes of INQ and SET                                              */
/* ---------------------------------------------------------------------- */

/* Integer attributes of a queue */
#define ATTR_CURRENT_DEPTH 3
#define ATTR_DEF_PERSISTENCE 5
#define ATTR_DEF_PRIORITY 6
#define ATTR_DEFINITION_TYPE 7
#define ATTR_INHIBIT_GET 9  /* settable */
#define ATTR_INHIBIT_PUT 10 /* settable */
#define ATTR_MAX_MSG_LENGTH 13
#define ATTR_MAX_Q_DEPTH 15
#define ATTR_OPEN_INPUT_COUNT 17
#define ATTR_OPEN_OUTPUT_COUNT 18
#define ATTR_Q_TYPE 20
/* Integer attribute of the queue manager */
#define ATTR_CODED_CHAR_SET_ID 2

/* Character attributes, selectors 2001 and above */
#define ATTR_FIRST_CHAR_SELECTOR 2001
#define ATTR_Q_DESC 2013     /* 64 characters */
#define ATTR_Q_MGR_NAME 2015 /* 48 characters, the queue manager object */
#define ATTR_Q_NAME 2016     /* 48 characters */

/* Values of ATTR_DEFINITION_TYPE */
#define DEFTYPE_PREDEFINED 1
#define DEFTYPE_PERMANENT_DYNAMIC 2
#define DEFTYPE_TEMPORARY_DYNAMIC 3

/* Values of ATTR_Q_TYPE */
#define QTYPE_LOCAL 1
#define QTYPE_MODEL 2

/* Values of ATTR_INHIBIT_GET and ATTR_INHIBIT_PUT */
#define INHIBIT_ALLOWED 0
#define INHIBIT_INHIBITED 1

/* ---------------------------------------------------------------------- */
/* Completion and reason codes of the queue manager                       */
/* ---------------------------------------------------------------------- */

/* The same values as in vxai.h; a program may include both headers. */
#define CC_OK 0
#define CC_WARNING 1
#define CC_FAILED 2

#define RC_NONE 0
#define RC_BUFFER_ERROR 2004           /* buffer not accessible */
#define RC_BUFFER_LENGTH_ERROR 2005    /* buffer length below 0 */
#define RC_CHAR_ATTR_LENGTH_ERROR 2006 /* character length below 0 */
#define RC_CHAR_ATTRS_ERROR 2007       /* character attributes not accessible */
#define RC_CHAR_ATTRS_TOO_SHORT 2008   /* warning: only what fits was returned */
#define RC_CONNECTION_BROKEN 2009      /* the connection to the queue manager's store was lost */
#define RC_DATA_LENGTH_ERROR 2010      /* data length not writable (as in vxai.h) */
#define RC_EXPIRY_ERROR 2013           /* expiry neither positive nor unlimited */
#define RC_GET_INHIBITED 2016
#define RC_HCONN_ERROR 2018              /* not a live connection handle */
#define RC_HOBJ_ERROR 2019               /* not a live object handle of the connection */
#define RC_INT_ATTR_COUNT_ERROR 2021     /* integer count below 0 */
#define RC_INT_ATTR_COUNT_TOO_SMALL 2022 /* warning: only what fits was returned */
#define RC_INT_ATTRS_ARRAY_ERROR 2023    /* integer attributes not accessible */
#define RC_MSG_DESCRIPTOR_ERROR 2026
#define RC_MSG_TOO_BIG_FOR_Q 2030
#define RC_NO_MSG_AVAILABLE 2033
#define RC_NOT_OPEN_FOR_BROWSE 2036
#define RC_NOT_OPEN_FOR_INPUT 2037
#define RC_NOT_OPEN_FOR_INQUIRE 2038
#define RC_NOT_OPEN_FOR_OUTPUT 2039
#define RC_NOT_OPEN_FOR_SET 2040
#define RC_OBJECT_IN_USE 2042     /* an input open conflicts, or the queue is open */
#define RC_OBJECT_TYPE_ERROR 2043 /* wrong object or queue type */
#define RC_OBJECT_DESCRIPTOR_ERROR 2044
#define RC_OPTIONS_ERROR 2046
#define RC_PERSISTENCE_ERROR 2047 /* persistence not 0, 1 or 2 */
#define RC_PRIORITY_ERROR 2050    /* priority not 0..9 or -1 */
#define RC_PUT_INHIBITED 2051
#define RC_Q_DELETED 2052 /* the handle's queue was deleted */
#define RC_Q_FULL 2053
#define RC_Q_NOT_EMPTY 2055
#define RC_Q_MGR_NAME_ERROR 2058
#define RC_Q_MGR_NOT_AVAILABLE 2059 /* the queue manager's server cannot be reached */
#define RC_SELECTOR_COUNT_ERROR 2065
#define RC_SELECTOR_ERROR 2067
#define RC_STORAGE_NOT_AVAILABLE 2071
#define RC_MSG_TRUNCATED_ACCEPTED 2079 /* warning */
#define RC_MSG_TRUNCATED 2080
#define RC_UNKNOWN_OBJECT_NAME 2085
#define RC_UNKNOWN_OBJECT_Q_MGR 2086 /* object queue-manager name not the one connected */
#define RC_WAIT_INTERVAL_ERROR 2090
#define RC_OBJECT_ALREADY_EXISTS 2100
#define RC_NOT_CONVERTED 2119 /* warning: delivered as it was put */
#define RC_UOW_IN_PROGRESS 2128
#define RC_BEGIN_OPTIONS_ERROR 2134
#define RC_CONNECT_OPTIONS_ERROR 2139
#define RC_OBJECT_NAME_ERROR 2152
#define RC_PUT_OPTIONS_ERROR 2173
#define RC_GET_OPTIONS_ERROR 2186
#define RC_UNEXPECTED_ERROR 2195
#define RC_STORE_ERROR 2197     /* the queue manager's database failed (I/O, damaged, locked) */
#define RC_STORE_FULL 2198      /* the queue manager's storage is full (disk full) */
#define RC_STORE_READ_ONLY 2199 /* the queue manager's database cannot be written */

/* ---------------------------------------------------------------------- */
/* Command server                                                         */
/* ---------------------------------------------------------------------- */

/* Reasons of the command server's error replies, besides those above.
 * RC_COMMAND_NOT_SUPPORTED: no command has the request's command code.
 * RC_PARAMETER_ERROR: a parameter has a bad value or type, occurs twice, or
 * is not one of the command's. */
#define RC_COMMAND_NOT_SUPPORTED 3009
#define RC_PARAMETER_ERROR 3010

/* Integer item of an error reply about a parameter: the parameter's selector */
#define PARM_ERROR_PARAMETER 1021

#endif /* VXQI_RECORDS_H */
