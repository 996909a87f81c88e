// SPDX-License-Identifier: Apache-2.0
// Copyright (C) 2026 The kxcamera authors
// Threads and mutexes: handles, joins, names; misuse reported as a status.
#include "talvo/talvo.h"

#include <pthread.h>

#include <string>
#include <thread>

#include "support.h"

namespace talvotest {
namespace {

class ThreadTest : public PlatformTest {};

std::string OwnName()
{
    char name[32] = {};
    pthread_getname_np(pthread_self(), name, sizeof(name));
    return name;
}

// The names a thread sees at its start and after TALVOThreadSetName.
struct Names {
    const char *rename;
    uint32_t len;
    std::string atStart, afterRename;
};

void *RecordNames(void *arg)
{
    auto *names = static_cast<Names *>(arg);
    names->atStart = OwnName();
    EXPECT_EQ(TALVOThreadSetName(names->rename, names->len), 0);
    names->afterRename = OwnName();
    return names;
}

TEST_F(ThreadTest, JoinGivesTheResultOnceAndRefusesUnknownHandles)
{
    Names names{"x", 1, "", ""};
    const TALVOThreadParam param{2, &names, "talvojoin"};
    TALVOThread thread = 0;
    ASSERT_EQ(TALVOThreadFw(&thread, RecordNames, &param), 0);
    EXPECT_NE(thread, 0u);
    void *result = nullptr;
    EXPECT_EQ(TALVOThreadJoinFw(thread, &result), 0);
    EXPECT_EQ(result, &names);
    EXPECT_NE(TALVOThreadJoinFw(thread, &result), 0) << "joined twice";
    EXPECT_NE(TALVOThreadJoinFw(0, nullptr), 0);
    EXPECT_NE(TALVOThreadJoinFw(thread + 1000, nullptr), 0);
    EXPECT_NE(TALVOThreadFw(nullptr, RecordNames, &param), 0);
}

TEST_F(ThreadTest, ThreadIsNamedBeforeItsEntryRunsAndCanRenameItself)
{
    const struct {
        const char *name, *rename;
        uint32_t len;
        const char *atStart, *afterRename;
    } cases[] = {{"talvovencoder", "talvovencoder", 13, "talvovencoder", "talvovencoder"},
                 {"a-thread-name-too-long", "abcdef", 3, "a-thread-name-t", "abc"},
                 {"short", "another-name-too-long", 21, "short", "another-name-to"}};
    for (const auto &c : cases) {
        Names names{c.rename, c.len, "", ""};
        const TALVOThreadParam param{0, &names, c.name};
        TALVOThread thread = 0;
        ASSERT_EQ(TALVOThreadFw(&thread, RecordNames, &param), 0);
        ASSERT_EQ(TALVOThreadJoinFw(thread, nullptr), 0);
        EXPECT_EQ(names.atStart, c.atStart);
        EXPECT_EQ(names.afterRename, c.afterRename);
    }
}

TEST_F(ThreadTest, SleepWaitsAtLeastTheRequestedTimeOnTheMonotonicClock)
{
    const int64_t start = TALVOSystemTimeUs();
    EXPECT_EQ(TALVOSleep(3), 0);
    EXPECT_GE(TALVOSystemTimeUs() - start, 3000);
}

class MutexTest : public PlatformTest {
protected:
    void SetUp() override
    {
        PlatformTest::SetUp();
        ASSERT_EQ(TALVOMutexInit(&mutex_), 0);
    }
    void TearDown() override
    {
        EXPECT_EQ(TALVOMutexDestroy(&mutex_), 0);
        PlatformTest::TearDown();
    }
    TALVOMutex mutex_{};
};

TEST_F(MutexTest, MisuseIsReportedNotUndefined)
{
    EXPECT_NE(TALVOMutexUnlock(&mutex_), 0) << "unlock of a free mutex";
    ASSERT_EQ(TALVOMutexLock(&mutex_), 0);
    EXPECT_NE(TALVOMutexLock(&mutex_), 0) << "relock by the owner";
    int32_t byOther = 0;
    std::thread([&] { byOther = TALVOMutexUnlock(&mutex_); }).join();
    EXPECT_NE(byOther, 0) << "unlock by a thread that does not hold it";
    EXPECT_NE(TALVOMutexDestroy(&mutex_), 0) << "destroy while held";
    EXPECT_EQ(TALVOMutexUnlock(&mutex_), 0);
    EXPECT_NE(TALVOMutexLock(nullptr), 0);
}

} // namespace
} // namespace talvotest
