// SPDX-License-Identifier: Apache-2.0
// Framework event queues: one worker thread per queue runs posted events in
// post order.
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <new>
#include <unordered_set>

#include <pthread.h>

#include "internal.h"

namespace {

struct Event {
    Event *next;
    TALVOEventHandler handler;
    uint32_t what;
    void *msg;
    TALVOEventRelease release;
};

struct EventQueue {
    std::mutex lock;
    std::condition_variable wake;
    Event *head = nullptr; // oldest waiting event
    Event *tail = nullptr;
    uint32_t waiting = 0;
    uint32_t capacity = 0; // 0: no limit
    bool stopping = false;
    bool ownedByWorker = false; // destroyed from its own handler: the worker frees it
    pthread_t worker{};
    char name[16] = {};
};

// Live queues. A handle that is not in the set (never created, or already
// destroyed) is refused instead of being dereferenced. Lock order: registry
// before queue.
std::mutex g_queuesLock;
std::unordered_set<EventQueue *> g_queues;

void *Worker(void *raw)
{
    auto *queue = static_cast<EventQueue *>(raw);
    (void)pthread_setname_np(pthread_self(), queue->name);
    std::unique_lock<std::mutex> guard(queue->lock);
    for (;;) {
        queue->wake.wait(guard, [queue] { return queue->stopping || queue->head != nullptr; });
        if (queue->stopping) {
            break;
        }
        Event *event = queue->head;
        queue->head = event->next;
        if (queue->head == nullptr) {
            queue->tail = nullptr;
        }
        --queue->waiting;
        guard.unlock();
        // The handler owns msg from here on; the queue calls nothing else
        // for this event.
        (void)event->handler(event->what, event->msg);
        delete event;
        guard.lock();
    }
    const bool freeHere = queue->ownedByWorker;
    guard.unlock();
    if (freeHere) {
        delete queue;
    }
    return nullptr;
}

void ReleaseAll(Event *event)
{
    while (event != nullptr) {
        Event *next = event->next;
        if (event->release != nullptr) {
            event->release(event->what, event->msg);
        }
        delete event;
        event = next;
    }
}

} // namespace

void *TALVOEventsCreate(const char *name, uint32_t threads, uint32_t flags, uint32_t capacity)
{
    // One worker whatever `threads` says: more would break post order.
    (void)threads;
    (void)flags;
    if (talvo::CallFails(TALVO_FN_EVENTS_CREATE)) {
        return nullptr;
    }
    auto *queue = new (std::nothrow) EventQueue;
    if (queue == nullptr) {
        return nullptr;
    }
    queue->capacity = capacity;
    const char *source = (name == nullptr || name[0] == '\0') ? "talvoevents" : name;
    std::strncpy(queue->name, source, sizeof(queue->name) - 1);

    if (pthread_create(&queue->worker, nullptr, Worker, queue) != 0) {
        delete queue;
        return nullptr;
    }
    std::lock_guard<std::mutex> registry(g_queuesLock);
    g_queues.insert(queue);
    return queue;
}

int32_t TALVOEventsCall(void *events, TALVOEventHandler handler, uint32_t what, void *msg, TALVOEventRelease release)
{
    if (talvo::CallFails(TALVO_FN_EVENTS_CALL)) {
        return TALVO_TEST_INJECTED_ERROR;
    }
    if (events == nullptr || handler == nullptr) {
        return EINVAL;
    }
    auto *event = new (std::nothrow) Event{nullptr, handler, what, msg, release};
    if (event == nullptr) {
        return ENOMEM;
    }
    auto *queue = static_cast<EventQueue *>(events);
    int32_t status = 0;
    {
        std::lock_guard<std::mutex> registry(g_queuesLock);
        if (g_queues.count(queue) == 0) {
            status = ESRCH;
        } else {
            std::lock_guard<std::mutex> guard(queue->lock);
            if (queue->stopping) {
                status = ESHUTDOWN;
            } else if (queue->capacity != 0 && queue->waiting >= queue->capacity) {
                status = EAGAIN;
            } else {
                (queue->tail == nullptr ? queue->head : queue->tail->next) = event;
                queue->tail = event;
                ++queue->waiting;
                queue->wake.notify_one();
            }
        }
    }
    if (status != 0) {
        delete event; // the caller keeps msg
    }
    return status;
}

int32_t TALVOEventsDestroy(void *events)
{
    auto *queue = static_cast<EventQueue *>(events);
    bool fromWorker;
    Event *waiting;
    {
        // Stopped under the registry lock: once a post is refused because the
        // queue is gone, no further event of it can start.
        std::lock_guard<std::mutex> registry(g_queuesLock);
        if (queue == nullptr || g_queues.erase(queue) == 0) {
            return EINVAL;
        }
        std::lock_guard<std::mutex> guard(queue->lock);
        fromWorker = pthread_equal(queue->worker, pthread_self()) != 0;
        queue->stopping = true;
        queue->ownedByWorker = fromWorker;
        waiting = queue->head;
        queue->head = nullptr;
        queue->tail = nullptr;
        queue->waiting = 0;
        queue->wake.notify_one();
    }
    if (fromWorker) {
        // Called from a handler: joining would wait for ourselves. The
        // worker stops once the handler returns and frees the queue.
        (void)pthread_detach(queue->worker);
        ReleaseAll(waiting);
        return 0;
    }
    // The event in progress, if any, finishes before the join returns.
    (void)pthread_join(queue->worker, nullptr);
    ReleaseAll(waiting);
    delete queue;
    return 0;
}
