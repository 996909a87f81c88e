// SPDX-License-Identifier: Apache-2.0
// Framework threads, sleeping and the monotonic clock.
#include <atomic>
#include <cstring>
#include <ctime>
#include <mutex>
#include <new>
#include <unordered_map>

#include <pthread.h>

#include "internal.h"

namespace {

// Linux keeps 15 characters of a thread name plus the terminator.
constexpr size_t kNameMax = 15;

struct StartRecord {
    TALVOThreadEntry entry;
    void *arg;
    char name[kNameMax + 1];
};

// Handles are small numbers mapped to pthread_t, so that a stale or made-up
// handle is refused instead of reaching pthread_join.
std::mutex g_threadsLock;
std::unordered_map<TALVOThread, pthread_t> g_threads;
std::atomic<TALVOThread> g_nextHandle{1};

void CopyName(char (&out)[kNameMax + 1], const char *name, size_t len)
{
    const size_t n = name == nullptr ? 0 : strnlen(name, len < kNameMax ? len : kNameMax);
    std::memcpy(out, name == nullptr ? "" : name, n);
    out[n] = '\0';
}

// The new thread names itself before running the entry, so the entry never
// observes the creator's name.
void *Trampoline(void *raw)
{
    const StartRecord start = *static_cast<StartRecord *>(raw);
    delete static_cast<StartRecord *>(raw);
    if (start.name[0] != '\0') {
        (void)pthread_setname_np(pthread_self(), start.name);
    }
    return start.entry(start.arg);
}

} // namespace

int32_t TALVOThreadFw(TALVOThread *thread, TALVOThreadEntry entry, const TALVOThreadParam *param)
{
    if (talvo::CallFails(TALVO_FN_THREAD_CREATE)) {
        return TALVO_TEST_INJECTED_ERROR;
    }
    if (thread == nullptr || entry == nullptr) {
        return EINVAL;
    }
    auto *start = new (std::nothrow) StartRecord{entry, param == nullptr ? nullptr : param->arg, {}};
    if (start == nullptr) {
        return ENOMEM;
    }
    CopyName(start->name, param == nullptr ? nullptr : param->name, kNameMax);

    pthread_t native;
    const int rc = pthread_create(&native, nullptr, Trampoline, start);
    if (rc != 0) {
        delete start;
        return rc;
    }
    const TALVOThread handle = g_nextHandle.fetch_add(1, std::memory_order_relaxed);
    {
        std::lock_guard<std::mutex> guard(g_threadsLock);
        g_threads.emplace(handle, native);
    }
    *thread = handle;
    return 0;
}

int32_t TALVOThreadJoinFw(TALVOThread thread, void **result)
{
    if (talvo::CallFails(TALVO_FN_THREAD_JOIN)) {
        return TALVO_TEST_INJECTED_ERROR;
    }
    pthread_t native;
    {
        std::lock_guard<std::mutex> guard(g_threadsLock);
        auto it = g_threads.find(thread);
        if (it == g_threads.end()) {
            return ESRCH;
        }
        if (pthread_equal(it->second, pthread_self())) {
            return EDEADLK;
        }
        // Taken out before joining: a second join of the same handle, even a
        // concurrent one, is refused rather than joining twice.
        native = it->second;
        g_threads.erase(it);
    }
    return pthread_join(native, result);
}

int32_t TALVOThreadSetName(const char *name, uint32_t len)
{
    if (name == nullptr) {
        return EINVAL;
    }
    char buffer[kNameMax + 1];
    CopyName(buffer, name, len);
    return pthread_setname_np(pthread_self(), buffer);
}

int32_t TALVOSleep(uint32_t ms)
{
    timespec left{static_cast<time_t>(ms / 1000), static_cast<long>(ms % 1000) * 1000000L};
    while (nanosleep(&left, &left) != 0) {
        if (errno != EINTR) {
            return errno;
        }
    }
    return 0;
}

int64_t TALVOSystemTimeUs(void)
{
    timespec now{};
    (void)clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<int64_t>(now.tv_sec) * 1000000 + now.tv_nsec / 1000;
}
