// SPDX-License-Identifier: Apache-2.0
// Framework mutexes: a pthread mutex and its owner, kept inside the caller's
// 64-byte record.
#include <atomic>
#include <new>

#include <pthread.h>

#include "internal.h"

namespace {

// Ownership is tracked beside the mutex so that misuse (unlock by a
// non-owner, relock by the owner, destroying a held mutex) is refused before
// pthreads sees it: reported as a status, never undefined, and invisible to
// the sanitizers. The mutex is error-checking as well.
struct NativeMutex {
    pthread_mutex_t mutex;
    std::atomic<uintptr_t> owner; // token of the holding thread, 0 when free
};

static_assert(sizeof(NativeMutex) <= sizeof(TALVOMutex), "the mutex must fit in TALVOMutex");
static_assert(alignof(NativeMutex) <= alignof(TALVOMutex), "TALVOMutex must be aligned for the mutex");
static_assert(std::atomic<uintptr_t>::is_always_lock_free);

// The address of a thread_local is unique among live threads.
thread_local char t_token;
uintptr_t Self()
{
    return reinterpret_cast<uintptr_t>(&t_token);
}

NativeMutex *Native(TALVOMutex *mutex)
{
    return std::launder(reinterpret_cast<NativeMutex *>(mutex->opaque));
}

} // namespace

int32_t TALVOMutexInit(TALVOMutex *mutex)
{
    if (talvo::CallFails(TALVO_FN_MUTEX_INIT)) {
        return TALVO_TEST_INJECTED_ERROR;
    }
    if (mutex == nullptr) {
        return EINVAL;
    }
    pthread_mutexattr_t attr;
    int rc = pthread_mutexattr_init(&attr);
    if (rc != 0) {
        return rc;
    }
    rc = pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_ERRORCHECK);
    if (rc == 0) {
        auto *native = new (mutex->opaque) NativeMutex;
        native->owner.store(0, std::memory_order_relaxed);
        rc = pthread_mutex_init(&native->mutex, &attr);
    }
    (void)pthread_mutexattr_destroy(&attr);
    return rc;
}

int32_t TALVOMutexLock(TALVOMutex *mutex)
{
    if (talvo::CallFails(TALVO_FN_MUTEX_LOCK)) {
        return TALVO_TEST_INJECTED_ERROR;
    }
    if (mutex == nullptr) {
        return EINVAL;
    }
    NativeMutex *native = Native(mutex);
    // Only this thread ever stores its own token, so a relaxed load that
    // sees it is exact.
    if (native->owner.load(std::memory_order_relaxed) == Self()) {
        return EDEADLK;
    }
    const int rc = pthread_mutex_lock(&native->mutex);
    if (rc == 0) {
        native->owner.store(Self(), std::memory_order_relaxed);
    }
    return rc;
}

int32_t TALVOMutexUnlock(TALVOMutex *mutex)
{
    if (talvo::CallFails(TALVO_FN_MUTEX_UNLOCK)) {
        return TALVO_TEST_INJECTED_ERROR;
    }
    if (mutex == nullptr) {
        return EINVAL;
    }
    NativeMutex *native = Native(mutex);
    if (native->owner.load(std::memory_order_relaxed) != Self()) {
        return EPERM;
    }
    native->owner.store(0, std::memory_order_relaxed);
    return pthread_mutex_unlock(&native->mutex);
}

int32_t TALVOMutexDestroy(TALVOMutex *mutex)
{
    if (talvo::CallFails(TALVO_FN_MUTEX_DESTROY)) {
        return TALVO_TEST_INJECTED_ERROR;
    }
    if (mutex == nullptr) {
        return EINVAL;
    }
    NativeMutex *native = Native(mutex);
    if (native->owner.load(std::memory_order_relaxed) != 0) {
        return EBUSY;
    }
    const int rc = pthread_mutex_destroy(&native->mutex);
    if (rc == 0) {
        native->~NativeMutex();
    }
    return rc;
}
