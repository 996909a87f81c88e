/* SPDX-License-Identifier: Apache-2.0 */
/*
 * Framework function set: every system service a plugin may use. The host
 * process provides these symbols (our libtalvo.so is one such provider); a
 * plugin imports them by name and never links the provider itself.
 *
 * Statuses: 0 for success; a failure is non-zero, in our provider a positive
 * errno value (the pthread error for mutexes and threads) or
 * TALVO_TEST_INJECTED_ERROR when a test injected it.
 */
#ifndef TALVO_TALVO_H
#define TALVO_TALVO_H

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#if defined(__GNUC__)
#define TALVO_PRINTF(fmtIdx, argIdx) __attribute__((format(printf, fmtIdx, argIdx)))
#else
#define TALVO_PRINTF(fmtIdx, argIdx)
#endif

/*
 * logging: slot = 4 - level (0 info, 1 debug, 2 warning, 3 error); all slots
 * are null until the host sets them. TALVOLog writes one stderr line
 * ("<seconds>.<us> <E|W|D|I|T> <tag>: <text>") when level <= TALVO_LOG_LEVEL
 * (read at each call; default 2). TalvoDfxlog keeps the last 256 lines in
 * memory and prints nothing.
 */
typedef void (*TALVOLogHook)(const char *tag, const char *func, const char *fmt, ...);
extern TALVOLogHook g_talvoLogFunc[4];
void TALVOLog(int32_t level, const char *tag, const char *fmt, ...) TALVO_PRINTF(3, 4);
void TalvoDfxlog(int32_t level, const char *tag, const char *fmt, ...) TALVO_PRINTF(3, 4);

/* memory: type is a pool tag, ignored by this implementation; size 0 gives a
 * distinct non-null block; TalvoFree(NULL) does nothing */
void *TalvoMalloc(uint32_t type, size_t size);
void TalvoFree(void *ptr);

/* mutexes: an opaque 64-byte record, 8-byte aligned, held in place by its user.
 * Error-checking: unlock by a non-owner, relock by the owner and destroying a
 * held mutex return non-zero instead of misbehaving. */
typedef struct {
    uint64_t opaque[8];
} TALVOMutex;
int32_t TALVOMutexInit(TALVOMutex *mutex);
int32_t TALVOMutexLock(TALVOMutex *mutex);
int32_t TALVOMutexUnlock(TALVOMutex *mutex);
int32_t TALVOMutexDestroy(TALVOMutex *mutex);

/* threads and time */
typedef uint64_t TALVOThread;
typedef void *(*TALVOThreadEntry)(void *arg);
typedef struct {
    uint64_t level; /* scheduling hint, not interpreted here */
    void *arg;
    const char *name;
} TALVOThreadParam;
int32_t TALVOThreadFw(TALVOThread *thread, TALVOThreadEntry entry, const TALVOThreadParam *param);
/* The new thread is named param->name (cut to 15 characters) before entry
 * runs; handles are never 0. Join: non-zero for an unknown or already joined
 * handle. */
int32_t TALVOThreadJoinFw(TALVOThread thread, void **result);
int32_t TALVOThreadSetName(const char *name, uint32_t len); /* names the calling thread: first len chars, at most 15 */
int32_t TALVOSleep(uint32_t ms);
int64_t TALVOSystemTimeUs(void); /* monotonic */

/*
 * lists: circular through the head, whose first three words overlay a node;
 * an empty list has first == last == the head. Insert links node after
 * `after` (the head itself for the front, the last node to append) and counts
 * it; a zeroed head is taken as empty. Get unlinks the first (oldest) node.
 */
typedef struct TALVODllNode {
    struct TALVODllNode *next;
    struct TALVODllNode *prev;
    void *data;
} TALVODllNode;
typedef struct {
    TALVODllNode *first;
    TALVODllNode *last;
    void *reserved;
    uint32_t count;
} TALVODllHead;
int32_t TALVODllInsertInMiddle(TALVODllHead *head, TALVODllNode *after, TALVODllNode *node);
TALVODllNode *TALVODllGet(TALVODllHead *head); /* unlinks the first node, or NULL */

/*
 * Event queue. One worker thread per queue runs the posted events one at a
 * time, in post order. At most `capacity` events wait; a post beyond that is
 * refused with a non-zero status and the caller keeps its message. Once a
 * post is accepted the handler owns the message: the queue calls nothing
 * after it. Destroy lets the event in progress finish, stops the worker and
 * hands every message still waiting to its release function (none when
 * release is null).
 * `threads` and `flags` are not interpreted: always one worker, named after
 * the queue. Capacity 0 means no limit. Posts are refused (non-zero) without
 * a handler, when full, and once destroy has begun; a destroyed handle is
 * refused too. Destroy may be called from a handler: it releases the waiting
 * messages at once and the worker frees the queue when that handler returns.
 */
typedef int32_t (*TALVOEventHandler)(uint32_t what, void *msg);
typedef void (*TALVOEventRelease)(uint32_t what, void *msg);
void *TALVOEventsCreate(const char *name, uint32_t threads, uint32_t flags, uint32_t capacity);
int32_t TALVOEventsCall(void *events, TALVOEventHandler handler, uint32_t what, void *msg, TALVOEventRelease release);
int32_t TALVOEventsDestroy(void *events);

/*
 * Packets: integers in network byte order, bytes and strings without length
 * prefix or terminator. A write that would pass the capacity fails and writes
 * nothing. Init with a NULL buffer allocates `capacity` bytes (0 is refused);
 * Release frees only such a buffer and zeroes the record. A string write of
 * len bytes is refused when the text is shorter than len.
 */
typedef struct {
    uint8_t *data;
    uint32_t capacity;
    uint32_t length;
} TALVOPacket;
int32_t TALVOPacketInit(TALVOPacket *packet, uint8_t *buffer, uint32_t capacity); /* NULL buffer: allocate */
int32_t TALVOPacketWriteUint32(TALVOPacket *packet, uint32_t value);
int32_t TALVOPacketWriteInt32(TALVOPacket *packet, int32_t value);
int32_t TALVOPacketWriteBytes(TALVOPacket *packet, const uint8_t *bytes, uint32_t len);
int32_t TALVOPacketWriteString(TALVOPacket *packet, const char *text, uint32_t len);
int32_t TALVOPacketRelease(TALVOPacket *packet);

/*
 * text: Strlen(NULL) is 0. Strcmp orders like strcmp; NULL sorts first and
 * equals nothing, not even NULL. Atoi reads like atoi and saturates at the
 * int32 range (NULL: 0). AnonyString writes a same-length copy with the
 * middle masked by '*': len/4 characters stay at each end, so texts shorter
 * than 4 are all '*'; it refuses NULL text or out and outSize <= strlen(text)
 * (clearing out[0] when it can).
 */
uint32_t TALVOStrlen(const char *text);
int32_t TALVOStrcmp(const char *a, const char *b);
int32_t TalvoAtoi(const char *text);
int32_t TALVOAnonyString(const char *text, char *out, uint32_t outSize);
/* top-level key of a JSON object; the value as NUL-terminated text: strings
 * without quotes, numbers in their shortest exact form, true/false, null as
 * "", objects and arrays as compact JSON. False, with value "" when there is
 * room, for a missing key, malformed or non-object text, NULL arguments or a
 * value that does not fit. */
bool GetAttribute(const char *text, const char *key, char *value, uint32_t valueSize);

/* dynamic loading: TALVO_VENDOR_PATH directories first (for a name without
 * '/', read at each call, empty entries skipped), then the usual search. Every
 * mode means RTLD_NOW | RTLD_LOCAL. TALVODlError gives this thread's last
 * failure, "" if none; it is never NULL. */
void *TALVODlOpen(const char *file, int32_t mode);
void *TALVODlSym(void *handle, const char *symbol);
int32_t TALVODlClose(void *handle);
const char *TALVODlError(void);

#ifdef __cplusplus
}
#endif

#endif /* TALVO_TALVO_H */
