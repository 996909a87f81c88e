/* SPDX-License-Identifier: Apache-2.0 */
/*
 * Framework function set: every system service a plugin may use. The host
 * process provides these symbols (our libtalvo.so is one such provider); a
 * plugin imports them by name and never links the provider itself.
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

/* logging: slot = 4 - level (0 info, 1 debug, 2 warning, 3 error) */
typedef void (*TALVOLogHook)(const char *tag, const char *func, const char *fmt, ...);
extern TALVOLogHook g_talvoLogFunc[4];
void TALVOLog(int32_t level, const char *tag, const char *fmt, ...) TALVO_PRINTF(3, 4);
void TalvoDfxlog(int32_t level, const char *tag, const char *fmt, ...) TALVO_PRINTF(3, 4);

/* memory: type is a pool tag, ignored by this implementation */
void *TalvoMalloc(uint32_t type, size_t size);
void TalvoFree(void *ptr);

/* mutexes: an opaque 64-byte record, 8-byte aligned, held in place by its user */
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
/* non-zero for an unknown or already joined handle */
int32_t TALVOThreadJoinFw(TALVOThread thread, void **result);
int32_t TALVOThreadSetName(const char *name, uint32_t len); /* names the calling thread */
int32_t TALVOSleep(uint32_t ms);
int64_t TALVOSystemTimeUs(void); /* monotonic */

/* lists: circular through the head, whose first three words overlay a node */
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
 * hands every message still waiting to its release function.
 */
typedef int32_t (*TALVOEventHandler)(uint32_t what, void *msg);
typedef void (*TALVOEventRelease)(uint32_t what, void *msg);
void *TALVOEventsCreate(const char *name, uint32_t threads, uint32_t flags, uint32_t capacity);
int32_t TALVOEventsCall(void *events, TALVOEventHandler handler, uint32_t what, void *msg,
                        TALVOEventRelease release);
int32_t TALVOEventsDestroy(void *events);

/*
 * Packets: integers in network byte order, bytes and strings without length
 * prefix or terminator. A write that would pass the capacity fails and writes
 * nothing.
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

/* text */
uint32_t TALVOStrlen(const char *text);
int32_t TALVOStrcmp(const char *a, const char *b);
int32_t TalvoAtoi(const char *text);
int32_t TALVOAnonyString(const char *text, char *out, uint32_t outSize);
/* top-level key of a JSON object; the value as NUL-terminated text */
bool GetAttribute(const char *text, const char *key, char *value, uint32_t valueSize);

/* dynamic loading: TALVO_VENDOR_PATH directories first, then the usual search */
void *TALVODlOpen(const char *file, int32_t mode);
void *TALVODlSym(void *handle, const char *symbol);
int32_t TALVODlClose(void *handle);
const char *TALVODlError(void);

#ifdef __cplusplus
}
#endif

#endif /* TALVO_TALVO_H */
