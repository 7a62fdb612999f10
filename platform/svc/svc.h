/*
 * Common services: the contract between the product's libraries and the
 * platform they run on.
 *
 * Everything the bag library needs from its surroundings is declared here:
 * anchors, memory, pointer checks, failure reports, trace and signal-action
 * handling.  Each declaration carries its contract: who owns what, what may
 * fail, which thread may call.  Unless stated otherwise every service may be
 * called from any thread at any time and never throws.
 *
 * The header compiles as C99 and as C++.  The last section (test and tooling
 * controls) is for tests and tools only; the libraries never call it.
 */
#ifndef VX_SVC_H
#define VX_SVC_H

#include <stdint.h>
#include <pthread.h>

#ifdef __cplusplus
extern "C" {
#endif

#define SVC_EXPORT __attribute__((visibility("default")))

/* ---------------------------------------------------------------------- */
/* Anchors                                                                 */
/* ---------------------------------------------------------------------- */

/* Process anchor: one per process, filled from the environment when the
 * common services are loaded (see README, "Trace").  The libraries only read
 * it; tests and tools may write its words directly. */
typedef struct svcPROCESSANCHOR {
  char eyeCatcher[4];    /* "SVPA" */
  int32_t traceEnabled;  /* non-zero: trace of some kind is wanted */
  uint32_t traceLevel;   /* 0xFFFFFFFF: trace off; otherwise the level */
  uint32_t traceOptions; /* option bits: 0x1 API trace, 0xC0000 parameter
                            lines, 0x20|0x400|0x80000 bag dumps */
  int32_t earlyTrace;    /* non-zero: trace everything from the start */
  int32_t owningPid;     /* process that loaded the services */
  int32_t signalGuard;   /* non-zero: save and restore signal actions
                            around every API call */
} svcPROCESSANCHOR;

SVC_EXPORT extern svcPROCESSANCHOR processAnchor;

#define SVC_HISTORY_SLOTS 256 /* upper bound of a thread's trace history */
#define SVC_CALL_STACK_SLOTS 64

/* Thread anchor: one per thread, created by svcInitialize, released when the
 * thread ends.  Only its own thread reads or writes it. */
typedef struct svcTHREADANCHOR {
  char eyeCatcher[4];   /* "SVTA" */
  int32_t initialised;  /* set by svcInitialize */
  int32_t traceActive;  /* entry/exit lines and parameter lines wanted */
  int32_t productId;    /* second argument of svcInitialize */
  int32_t historySize;  /* slots of the ring in use, 1..SVC_HISTORY_SLOTS */
  int32_t historyIndex; /* next slot to write, 0..historySize-1 */
  uint32_t history[SVC_HISTORY_SLOTS];
  int32_t callDepth;                        /* frames entered and not yet left */
  uint32_t callStack[SVC_CALL_STACK_SLOTS]; /* entry markers; a frame deeper
                                               than the stack is counted only */
  uint16_t tagComponent;                    /* the tag read by trcParms and trcDataDetail */
  uint16_t tagFunction;
  int32_t tagLevel;
} svcTHREADANCHOR;

/* Key under which a thread's anchor is stored (pthread_getspecific). */
SVC_EXPORT extern pthread_key_t threadAnchorKey;

/* Creates the calling thread's anchor if it has none and marks it
 * initialised.  historySize: slots of the trace-history ring (clamped to
 * 1..SVC_HISTORY_SLOTS); productId: recorded in the anchor and in failure
 * reports; the last three arguments are reserved and must be 0.  Without
 * memory for the anchor the thread simply runs without one. */
SVC_EXPORT void svcInitialize(int32_t historySize, int32_t productId, int32_t reserved1,
                              int32_t reserved2, int32_t reserved3);

/* The calling thread's anchor, or null before svcInitialize. */
SVC_EXPORT svcTHREADANCHOR *svcThreadAnchor(void);

SVC_EXPORT int32_t svcGetPid(void);

/* ---------------------------------------------------------------------- */
/* Pointer checks                                                          */
/* ---------------------------------------------------------------------- */

#define SVC_CHECK_READ 1
#define SVC_CHECK_WRITE 2
#define SVC_CHECK_READ_WRITE 4

/* 0 when all `length` bytes from `address` may be accessed in `mode`, else
 * non-zero.  Never faults, installs no signal handler and never changes the
 * memory it checks.  A null address fails; a length of 0 or less checks one
 * byte.  Blocks of svcGetMem are recognised without a system call; inside
 * the handle region only the bytes of a slot in use pass. */
SVC_EXPORT int32_t svcCheckPointer(const void *address, int32_t length, int32_t mode);

/* ---------------------------------------------------------------------- */
/* Memory                                                                  */
/* ---------------------------------------------------------------------- */

/* Gets `size` bytes (contents undefined) tagged with the component and
 * function number, for accounting.  Returns 0 and the block in *block, or
 * non-zero with *block null when no memory can be had.  flags must be 0.
 * The caller owns the block until svcFreeMem. */
SVC_EXPORT int32_t svcGetMem(int32_t component, int32_t function, int32_t size, int32_t flags,
                             void **block);

/* Gets a block for a record that a 32-bit handle names: its address is
 * below 2 GiB, so the address itself, as a 32-bit value, is the handle.  In
 * a 32-bit process every address is, and this is svcGetMem.  In a 64-bit
 * process the block is a slot of SVC_HANDLE_SLOT_BYTES bytes (at least
 * `size`, which may not be more) in a region that the services reserve below
 * 2 GiB as it fills; when the address space there is taken it fails like
 * svcGetMem without memory.  Accounted under its component and function,
 * subject to svcInjectMemFailure and svcSetMemBlockLimit, and released with
 * svcFreeMem.  A free slot is unreachable for the memory checkers. */
#define SVC_HANDLE_SLOT_BYTES 48
SVC_EXPORT int32_t svcGetHandleMem(int32_t component, int32_t function, int32_t size, int32_t flags,
                                   void **block);

/* Releases a block of svcGetMem or svcGetHandleMem; any thread may release
 * it.  Returns 0, or non-zero (and releases nothing) for an address that is
 * not a live block. */
SVC_EXPORT int32_t svcFreeMem(int32_t component, void *block);

/* ---------------------------------------------------------------------- */
/* Failure reports                                                         */
/* ---------------------------------------------------------------------- */

#define SVC_DUMP_AREAS 4
#define SVC_DUMP_BYTES 256

/* A labelled copy of memory taken when a failure is noticed.  The bytes are
 * copied when the area is built, so the report shows the memory as it was. */
typedef struct svcDUMPAREA {
  char label[48];
  uintptr_t address; /* where the bytes came from */
  int32_t length;    /* bytes held in data; unreadable memory gives 0 */
  unsigned char data[SVC_DUMP_BYTES];
} svcDUMPAREA;

/* Up to SVC_DUMP_AREAS areas; start from all zeros (count 0). */
typedef struct svcDUMPAREAS {
  int32_t count;
  svcDUMPAREA area[SVC_DUMP_AREAS];
} svcDUMPAREAS;

/* Inserts of a report: four numbers and two short texts. */
typedef struct svcINSERTS {
  char eyeCatcher[4]; /* "XMSA" */
  int32_t numeric[4];
  char text[2][64];
} svcINSERTS;

/* Adds a labelled area holding up to `length` bytes (at most SVC_DUMP_BYTES)
 * copied from `address`; memory that cannot be read is not copied.  Areas
 * beyond SVC_DUMP_AREAS are dropped. */
SVC_EXPORT void svcBuildDumpArea(svcDUMPAREAS *areas, const char *label, const void *address,
                                 int32_t length);

/* Writes a failure report (a readable text file in the report directory,
 * where the latest 100 are kept) and keeps it in memory for tests.  Never
 * fails visibly: a report that cannot be written to a file is kept in memory
 * only, with a line on standard error. */
SVC_EXPORT void svcFailureReport(int32_t component, int32_t function, int32_t probe,
                                 uint32_t resultCode, const svcINSERTS *inserts,
                                 const svcDUMPAREAS *areas);

/* ---------------------------------------------------------------------- */
/* Trace                                                                   */
/* ---------------------------------------------------------------------- */

/* Trace lines go to one file per process in the trace directory (renamed to
 * vxai.<pid>.trc.1 when it reaches its cap), or to the in-memory capture when
 * a test has started one.  A directory or file that is not private to the
 * user switches the file off, not the lines: the capture still sees them.
 * The function names come from the table registered with
 * trcRegisterFunctionNames. */

/* Registers the product's function-name table (rows of 40 characters, row =
 * function number).  The table must outlive every trace call. */
SVC_EXPORT void trcRegisterFunctionNames(const char (*names)[40], int32_t rows);

/* Entry and exit lines of the frame on top of the anchor's call stack. */
SVC_EXPORT void trcFunctionEntry(svcTHREADANCHOR *anchor);
SVC_EXPORT void trcFunctionExit(svcTHREADANCHOR *anchor, int32_t reason);

/* A line of text, or data as hex and characters, under a component and a
 * function number.  The Api forms are the API trace of exported calls. */
SVC_EXPORT void trcText(int32_t component, int32_t function, const char *text);
SVC_EXPORT void trcApiText(int32_t component, int32_t function, const char *text);
SVC_EXPORT void trcData(int32_t component, int32_t function, const void *data, int32_t length);
SVC_EXPORT void trcApiData(int32_t component, int32_t function, const void *data, int32_t length);
SVC_EXPORT void trcDataDetail(int32_t component, int32_t function, int32_t level, const void *data,
                              int32_t length);

/* A formatted parameter line under the anchor's tag (component, function,
 * level), printf style. */
SVC_EXPORT void trcParms(svcTHREADANCHOR *anchor, const char *format, ...)
    __attribute__((format(printf, 2, 3)));

/* ---------------------------------------------------------------------- */
/* Signal actions                                                          */
/* ---------------------------------------------------------------------- */

/* Saves the process's actions for the synchronous signals when the process
 * anchor's signalGuard word is set, and then sets *actionsSaved to 1;
 * otherwise leaves it 0.  sigRestoreActions puts the saved actions back. */
SVC_EXPORT void sigSaveActions(int32_t *actionsSaved);
SVC_EXPORT void sigRestoreActions(int32_t *actionsSaved);

/* ---------------------------------------------------------------------- */
/* Connection-state control block                                         */
/* ---------------------------------------------------------------------- */

typedef struct svcCONTROLBLOCK {
  char eyeCatcher[4];  /* "XIH " while a connection state exists */
  int32_t ownerPid;    /* process that established it */
  int32_t connections; /* connections made through it */
} svcCONTROLBLOCK;

/* The process's control block, or null when none has been established.
 * Reading it takes no lock: a block that is there is whole. */
SVC_EXPORT svcCONTROLBLOCK *svcControlBlock(void);
/* Establishes the block for the calling process (idempotent). */
SVC_EXPORT svcCONTROLBLOCK *svcEstablishControlBlock(void);
/* Establishes the block if needed and counts one connection made through
 * it: the queue manager calls it on every connect. */
SVC_EXPORT void svcNoteConnection(void);
/* Discards the block, as a forked child must before it connects. */
SVC_EXPORT void svcResetControlBlock(void);

/* ---------------------------------------------------------------------- */
/* Test and tooling controls                                               */
/* ---------------------------------------------------------------------- */

/* Live blocks and bytes of svcGetMem and svcGetHandleMem for a component (and a function, or -1
 * for all of the component's functions). */
SVC_EXPORT void svcMemLive(int32_t component, int32_t function, int32_t *blocks, int32_t *bytes);

/* Finds a live block of a component's function (any one, when there are
 * several), so that a test can release a block that a call keeps on purpose.
 * Returns 0 with its address, or 1 when there is none. */
SVC_EXPORT int32_t svcMemLiveBlock(int32_t component, int32_t function, void **block);

/* The handle region of a 64-bit process: slots in use and bytes of address
 * space reserved (both 0 in a 32-bit process, which has no region). */
SVC_EXPORT void svcHandleRegionUse(int64_t *liveSlots, int64_t *reservedBytes);

/* Makes the n-th svcGetMem or svcGetHandleMem of the calling thread from now
 * fail (1 = the next one); 0 cancels.  Only the calling thread is affected. */
SVC_EXPORT void svcInjectMemFailure(int32_t nth);

/* Allocations of the calling thread still to go before the injected failure:
 * 0 once it has happened (or when none was asked for).  Tells a test that
 * fails each allocation in turn when a call has made fewer than n. */
SVC_EXPORT int32_t svcMemFailurePending(void);

/* Makes every svcGetMem of more than `largest` bytes fail, in every thread,
 * as if memory had run out; 0 lifts the limit.  Lets a tool that feeds the
 * library arbitrary input keep it from growing without end. */
SVC_EXPORT void svcSetMemBlockLimit(int32_t largest);

/* Caps what svcGetMem gives the calling thread: a block of more than
 * largestBlock bytes fails, and so does one that would take the bytes the
 * thread got since the cap was set, less those released since (by any
 * thread), above totalBytes; either value 0 (or less) leaves that limit
 * out, both lift the cap and end the count.  Other threads are not
 * affected.  Lets a thread that reads what anyone may send (a command
 * server) refuse a message whose contents would cost more than its size
 * warrants.  Returns 0, or non-zero (no cap) without memory for the count. */
SVC_EXPORT int32_t svcSetThreadMemLimit(int32_t largestBlock, int32_t totalBytes);

/* Number of failure reports raised since the process started. */
SVC_EXPORT int32_t svcFailureReportCount(void);

/* Copies the i-th latest report (0 = latest; 16 are kept) as text into
 * buffer (null-terminated, cut at bufferLength-1).  Returns the report's
 * full length, or -1 when there is no such report. */
SVC_EXPORT int32_t svcLatestFailureReport(int32_t i, char *buffer, int32_t bufferLength);

/* One captured trace line. */
typedef struct trcCAPTURED {
  int32_t component;
  int32_t function;
  int32_t isData;    /* 0: text line; 1: data dump */
  int32_t length;    /* text length, or data bytes */
  const char *bytes; /* the text (null-terminated) or the data */
} trcCAPTURED;

/* While a capture runs, trace lines of every thread are kept in memory
 * instead of going to the trace file.  Starting clears what was kept. */
SVC_EXPORT void trcCaptureStart(void);
SVC_EXPORT void trcCaptureStop(void);
/* Number of captured lines, and the i-th one (valid until the next start). */
SVC_EXPORT int32_t trcCapturedCount(void);
SVC_EXPORT int32_t trcCaptured(int32_t i, trcCAPTURED *line);

/* Where trace files and failure reports go (see README, "Trace"). */
SVC_EXPORT const char *svcTraceDirectory(void);
SVC_EXPORT const char *svcReportDirectory(void);

/* Reads again from the environment, as when the services are loaded, where
 * trace files and failure reports go and the trace-file cap (VXSVC_TRACE_DIR,
 * VXSVC_REPORT_DIR, XDG_STATE_HOME, HOME, VXSVC_TRACE_MAX_MB).  The trace file
 * is closed and a directory refused before is forgotten: the next trace line
 * and the next report check their directory afresh.  Call it while no other
 * thread traces or reports; strings of svcTraceDirectory and
 * svcReportDirectory taken before are then no longer valid. */
SVC_EXPORT void svcReadFileSettings(void);

/* Sets the size in bytes at which the trace file is renamed to
 * vxai.<pid>.trc.1 and a new one begun, in place of VXSVC_TRACE_MAX_MB;
 * 0 goes back to VXSVC_TRACE_MAX_MB. */
SVC_EXPORT void svcSetTraceFileCap(int32_t bytes);

#ifdef __cplusplus
}
#endif

#endif /* VX_SVC_H */
