// SPDX-License-Identifier: Apache-2.0
// Threads, mutexes and event queues; misuse reported as a status.
#include <pthread.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <semaphore>
#include <string>
#include <thread>
#include <tuple>

#include "support.h"

namespace {

using namespace talvotest;

std::string OwnName()
{
    char name[32] = {};
    pthread_getname_np(pthread_self(), name, sizeof(name));
    return name;
}

// (name given at creation, rename, its length) -> "name at start|name after the rename"
using Names = std::tuple<const char *, const char *, uint32_t, const char *>;
class ThreadTest : public PlatformTable<Names> {};
std::string g_seen;

void *RecordNames(void *arg)
{
    const auto &names = *static_cast<const Names *>(arg);
    g_seen = OwnName() + "|";
    EXPECT_EQ(TALVOThreadSetName(std::get<1>(names), std::get<2>(names)), 0);
    g_seen += OwnName();
    return arg;
}

TEST_P(ThreadTest, ThreadIsNamedBeforeItsEntryRunsAndJoinsOnceWithItsResult)
{
    const TALVOThreadParam param{0, const_cast<Names *>(&GetParam()), std::get<0>(GetParam())};
    TALVOThread thread = 0;
    ASSERT_EQ(TALVOThreadFw(&thread, RecordNames, &param), 0);
    void *result = nullptr;
    EXPECT_EQ(TALVOThreadJoinFw(thread, &result), 0);
    EXPECT_EQ(result, &GetParam());
    EXPECT_EQ(TALVOThreadJoinFw(thread, &result), ESRCH) << "joined twice";
    EXPECT_EQ(g_seen, std::get<3>(GetParam()));
}

INSTANTIATE_TEST_SUITE_P(Names, ThreadTest,
                         ::testing::Values(Names{"talvovencoder", "talvovencoder", 13, "talvovencoder|talvovencoder"},
                                           Names{"a-thread-name-too-long", "abcdef", 3, "a-thread-name-t|abc"},
                                           Names{"short", "another-name-too-long", 21, "short|another-name-to"}));

TEST_F(PlatformTest, ThreadAndMutexMisuseIsReportedNotUndefined)
{
    EXPECT_EQ(TALVOThreadJoinFw(0, nullptr), ESRCH);
    EXPECT_EQ(TALVOThreadFw(nullptr, RecordNames, nullptr), EINVAL);
    TALVOMutex mutex{};
    ASSERT_EQ(TALVOMutexInit(&mutex), 0);
    EXPECT_EQ(TALVOMutexUnlock(&mutex), EPERM) << "unlock of a free mutex";
    ASSERT_EQ(TALVOMutexLock(&mutex), 0);
    EXPECT_EQ(TALVOMutexLock(&mutex), EDEADLK) << "relock by the owner";
    int32_t byOther = 0;
    std::thread([&] { byOther = TALVOMutexUnlock(&mutex); }).join();
    EXPECT_EQ(byOther, EPERM) << "unlock by a thread that does not hold it";
    EXPECT_EQ(TALVOMutexDestroy(&mutex), EBUSY) << "destroy while held";
    EXPECT_EQ(TALVOMutexUnlock(&mutex), 0);
    EXPECT_EQ(TALVOMutexDestroy(&mutex), 0) << "destroy needs the mutex really free";
    EXPECT_EQ(TALVOMutexLock(nullptr), EINVAL);
    const int64_t start = TALVOSystemTimeUs();
    EXPECT_EQ(TALVOSleep(3), 0);
    EXPECT_GE(TALVOSystemTimeUs() - start, 3000);
}

// What happened to each posted message: 10 when handled in post order, 100
// when out of it, 1 per release.
std::array<std::atomic<int>, 64> g_fates;
std::atomic<uint32_t> g_posted{0}, g_handled{0};

int32_t Handle(uint32_t what, void *)
{
    return g_fates[what] += what == g_handled++ ? 10 : 100;
}
void Release(uint32_t what, void *)
{
    g_fates[what] += 1;
}

// Holds the worker until the gate opens; then may destroy its own queue.
struct Blocker {
    std::counting_semaphore<4> started{0}, gate{0}, done{0};
    void *destroyQueue = nullptr;
    int32_t destroyStatus = -1;
};

int32_t Block(uint32_t, void *raw)
{
    auto *blocker = static_cast<Blocker *>(raw);
    blocker->started.release();
    blocker->gate.acquire();
    blocker->destroyStatus = blocker->destroyQueue != nullptr ? TALVOEventsDestroy(blocker->destroyQueue) : 0;
    blocker->done.release();
    return 0;
}

class EventsTest : public PlatformTest {
protected:
    void SetUp() override
    {
        PlatformTest::SetUp();
        std::fill(g_fates.begin(), g_fates.end(), 0);
        g_posted = g_handled = 0;
    }
    // Holds the worker with a blocking event, then posts count events.
    void Post(void *queue, int count)
    {
        EXPECT_EQ(TALVOEventsCall(queue, Block, 0, &blocker_, nullptr), 0);
        blocker_.started.acquire();
        for (int i = 0; i < count; ++i) {
            EXPECT_EQ(TALVOEventsCall(queue, Handle, g_posted++, nullptr, Release), 0);
        }
    }
    // Each fate from first to the last posted is fate.
    static void ExpectFates(uint32_t first, int fate)
    {
        for (uint32_t i = first; i < g_posted; ++i) {
            EXPECT_EQ(g_fates[i], fate) << "message " << i;
        }
    }
    Blocker blocker_;
};

TEST_F(EventsTest, EventsRunInPostOrderUpToTheCapacityAndDestroyReleasesTheWaitingOnesAfterTheRunningOne)
{
    void *queue = TALVOEventsCreate("evtest", 1, 0, 30);
    Post(queue, 30); // the running event does not count
    EXPECT_EQ(TALVOEventsCall(queue, Handle, 0, nullptr, Release), EAGAIN);
    EXPECT_EQ(TALVOEventsCall(queue, nullptr, 0, nullptr, Release) +
                  TALVOEventsCall(nullptr, Handle, 0, nullptr, Release),
              2 * EINVAL);
    blocker_.gate.release();
    while (g_handled < 30) {
        std::this_thread::yield();
    }
    Post(queue, 3); // behind a second blocking event
    int32_t status = -1;
    std::thread destroyer([&] { status = TALVOEventsDestroy(queue); });
    // Accepted up to the capacity until destroy has stopped the queue, while
    // the running event still holds the worker; refused ones stay with their caller.
    int accepted = 0;
    int32_t rc;
    while ((rc = TALVOEventsCall(queue, Handle, 33, nullptr, Release)) == 0 || rc == EAGAIN) {
        accepted += rc == 0 ? 1 : 0;
    }
    EXPECT_EQ(g_fates[30] + g_fates[31] + g_fates[32] + g_fates[33], 0) << "released before the running event ended";
    blocker_.gate.release();
    destroyer.join();
    EXPECT_EQ(status, 0);
    EXPECT_EQ(g_fates[33], accepted);
    ExpectFates(30, 1);
    g_posted = 30;
    ExpectFates(0, 10);
    EXPECT_EQ(TALVOEventsDestroy(queue), EINVAL) << "a destroyed queue is no longer known";
}

TEST_F(EventsTest, DestroyFromInsideAHandlerReleasesTheWaitingEventsWithoutDeadlock)
{
    blocker_.destroyQueue = TALVOEventsCreate("evtest", 1, 0, 0);
    Post(blocker_.destroyQueue, 2);
    blocker_.gate.release();
    blocker_.done.acquire();
    EXPECT_EQ(blocker_.destroyStatus, 0);
    ExpectFates(0, 1);
}

} // namespace
