/* SPDX-License-Identifier: Apache-2.0 */
/*
 * Test controls of the framework layer: log capture, allocation accounting
 * and failure injection, so that a test can drive every failure path of a
 * plugin. Not part of the function set a plugin imports.
 */
#ifndef TALVO_TESTING_H
#define TALVO_TESTING_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Framework functions whose failure a test can inject. */
typedef enum {
    TALVO_FN_MALLOC = 0,
    TALVO_FN_MUTEX_INIT,
    TALVO_FN_MUTEX_LOCK,
    TALVO_FN_MUTEX_UNLOCK,
    TALVO_FN_MUTEX_DESTROY,
    TALVO_FN_THREAD_CREATE,
    TALVO_FN_THREAD_JOIN,
    TALVO_FN_EVENTS_CREATE,
    TALVO_FN_EVENTS_CALL,
    TALVO_FN_PACKET_INIT,
    TALVO_FN_PACKET_WRITE, /* any of the four packet writes */
    TALVO_FN_DLOPEN,
    TALVO_FN_DLSYM,
    TALVO_FN_COUNT
} TalvoTestFn;

/* Status an injected failure returns (pointer-returning functions give NULL). */
#define TALVO_TEST_INJECTED_ERROR (-99)

/* Makes the nth call (1 = the next one) of fn from now fail, once. 0 cancels. */
void TalvoTestFailNth(TalvoTestFn fn, uint32_t nth);
/* Calls of fn made since the last reset, failed ones included. Counting
   starts with the first use of any of these controls. */
uint64_t TalvoTestCallCount(TalvoTestFn fn);
/* TalvoMalloc blocks not yet freed (process-wide, since load). */
int64_t TalvoTestOutstandingAllocs(void);

/* One captured log message. Text fields are NUL-terminated copies. */
typedef struct {
    int32_t level;
    char tag[32];
    char func[64]; /* empty when the message reached no hook */
    char fmt[256];
    char text[512];
    uint8_t viaHook; /* went through g_talvoLogFunc */
    uint8_t viaLog;  /* went through TALVOLog */
} TalvoTestLogEntry;

/*
 * Capture every message that reaches TalvoDfxlog (each plugin message does,
 * exactly once), with the function name and route of the hook or TALVOLog
 * call that preceded it on the same thread. Enabling capture installs
 * recording hooks in all four slots of g_talvoLogFunc; a test may clear
 * slots afterwards to exercise the TALVOLog route.
 */
void TalvoTestLogCapture(int enable);
uint32_t TalvoTestLogCount(void);
/* Copies entry index; returns 0, or -1 when there is no such entry. */
int32_t TalvoTestLogGet(uint32_t index, TalvoTestLogEntry *entry);
void TalvoTestLogClear(void);

/* Cancels injected failures, zeroes call counts, stops and clears capture. */
void TalvoTestReset(void);

#ifdef __cplusplus
}
#endif

#endif /* TALVO_TESTING_H */
