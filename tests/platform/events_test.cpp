// SPDX-License-Identifier: Apache-2.0
// Copyright (C) 2026 The kxcamera authors
// Event queues: post order, capacity, and what destroy does with the running
// event and the waiting ones.
#include "talvo/talvo.h"

#include <atomic>
#include <deque>
#include <latch>
#include <mutex>
#include <semaphore>
#include <thread>
#include <vector>

#include "support.h"

namespace talvotest {
namespace {

std::mutex g_orderLock;
std::vector<uint32_t> g_order;          // `what` of each handled event
std::atomic<bool> g_blockerDone{false}; // the running (blocking) event has ended
std::atomic<int> g_releasedEarly{0};    // releases seen before that

struct Message {
    std::atomic<int> handled{0};
    std::atomic<int> released{0};
    std::latch *done = nullptr;
};

int32_t Handle(uint32_t what, void *msg)
{
    static_cast<Message *>(msg)->handled++;
    {
        std::lock_guard<std::mutex> guard(g_orderLock);
        g_order.push_back(what);
    }
    if (std::latch *done = static_cast<Message *>(msg)->done) {
        done->count_down();
    }
    return 0;
}

void Release(uint32_t, void *msg)
{
    static_cast<Message *>(msg)->released++;
    g_releasedEarly += g_blockerDone ? 0 : 1;
}

// Holds the worker until the gate opens; then may destroy its own queue.
struct Blocker {
    std::binary_semaphore started{0};
    std::binary_semaphore gate{0};
    void *destroyQueue = nullptr;
    int32_t destroyStatus = -1;
};

int32_t Block(uint32_t, void *raw)
{
    auto *blocker = static_cast<Blocker *>(raw);
    blocker->started.release();
    blocker->gate.acquire();
    if (blocker->destroyQueue != nullptr) {
        blocker->destroyStatus = TALVOEventsDestroy(blocker->destroyQueue);
    }
    g_blockerDone = true;
    return 0;
}

class EventsTest : public PlatformTest {
protected:
    void SetUp() override
    {
        PlatformTest::SetUp();
        g_order.clear();
        g_blockerDone = false;
        g_releasedEarly = 0;
    }
    // Starts a queue whose worker is held by a blocking event.
    void *StartBlocked(uint32_t capacity)
    {
        void *queue = TALVOEventsCreate("evtest", 1, 0, capacity);
        EXPECT_EQ(TALVOEventsCall(queue, Block, 0, &blocker_, nullptr), 0);
        blocker_.started.acquire();
        return queue;
    }
    void Post(void *queue, std::deque<Message> &msgs, int count, std::latch *done = nullptr)
    {
        for (int i = 0; i < count; ++i) {
            msgs.emplace_back().done = done;
            ASSERT_EQ(TALVOEventsCall(queue, Handle, static_cast<uint32_t>(msgs.size()), &msgs.back(), Release), 0);
        }
    }
    static void ExpectEach(std::deque<Message> &msgs, int handled, int released)
    {
        for (auto &msg : msgs) {
            EXPECT_EQ(msg.handled * 10 + msg.released, handled * 10 + released);
        }
    }
    Blocker blocker_;
};

TEST_F(EventsTest, EventsRunOnceEachInPostOrderAndAreNeverReleased)
{
    void *queue = TALVOEventsCreate("evorder", 1, 0, 100);
    std::latch all(60);
    std::deque<Message> msgs;
    Post(queue, msgs, 60, &all);
    all.wait();
    ASSERT_EQ(TALVOEventsDestroy(queue), 0);
    ExpectEach(msgs, 1, 0);
    for (uint32_t i = 0; i < g_order.size(); ++i) {
        EXPECT_EQ(g_order[i], i + 1);
    }
}

TEST_F(EventsTest, PostBeyondCapacityIsRefusedAndTheCallerKeepsTheMessage)
{
    void *queue = StartBlocked(3); // the running event does not count
    std::latch three(3);
    std::deque<Message> accepted;
    Post(queue, accepted, 3, &three);
    Message refused;
    EXPECT_NE(TALVOEventsCall(queue, Handle, 4, &refused, Release), 0);
    EXPECT_NE(TALVOEventsCall(queue, nullptr, 5, &refused, Release), 0);
    EXPECT_NE(TALVOEventsCall(nullptr, Handle, 6, &refused, Release), 0);
    blocker_.gate.release();
    three.wait();
    ASSERT_EQ(TALVOEventsDestroy(queue), 0);
    ExpectEach(accepted, 1, 0);
    EXPECT_EQ(refused.handled + refused.released, 0);
    EXPECT_NE(TALVOEventsDestroy(queue), 0) << "a destroyed queue is no longer known";
}

TEST_F(EventsTest, DestroyLetsTheRunningEventFinishThenReleasesEachWaitingOneOnce)
{
    void *queue = StartBlocked(0); // 0: no limit
    std::deque<Message> waiting;
    Post(queue, waiting, 3);
    Message noRelease;
    ASSERT_EQ(TALVOEventsCall(queue, Handle, 9, &noRelease, nullptr), 0);
    int32_t status = -1;
    std::thread destroyer([&] { status = TALVOEventsDestroy(queue); });
    // Accepted until destroy has stopped the queue; the first refusal shows
    // it has, while the running event still holds the worker.
    while (TALVOEventsCall(queue, Handle, 200, &waiting.emplace_back(), Release) == 0) {
        std::this_thread::yield();
    }
    blocker_.gate.release();
    destroyer.join();
    EXPECT_EQ(status, 0);
    EXPECT_EQ(waiting.back().released, 0) << "the refused message stays with its caller";
    waiting.pop_back();
    ExpectEach(waiting, 0, 1);
    EXPECT_EQ(noRelease.handled, 0);
    EXPECT_EQ(g_releasedEarly, 0) << "released before the running event ended";
}

TEST_F(EventsTest, DestroyFromInsideAHandlerReleasesTheWaitingEventsWithoutDeadlock)
{
    void *queue = StartBlocked(10);
    blocker_.destroyQueue = queue;
    std::deque<Message> waiting;
    Post(queue, waiting, 2);
    blocker_.gate.release();
    while (!g_blockerDone) {
        std::this_thread::yield();
    }
    EXPECT_EQ(blocker_.destroyStatus, 0);
    ExpectEach(waiting, 0, 1);
}

} // namespace
} // namespace talvotest
