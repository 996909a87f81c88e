// SPDX-License-Identifier: Apache-2.0
// Copyright (C) 2026 The kxcamera authors
// Test controls: an injected failure hits exactly the nth call of its kind
// from now, once; every call is counted; blocks are counted until freed.
#include "talvo/testing.h"

#include <atomic>
#include <deque>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "support.h"
#include "talvo/talvo.h"

namespace talvotest {
namespace {

constexpr int32_t kInjected = TALVO_TEST_INJECTED_ERROR;
void *Idle(void *) { return nullptr; }
int32_t Ignore(uint32_t, void *) { return 0; }

const char *const kNames[] = {"Malloc",       "MutexInit",  "MutexLock",    "MutexUnlock", "MutexDestroy",
                              "ThreadCreate", "ThreadJoin", "EventsCreate", "EventsCall",  "PacketInit",
                              "PacketWrite",  "DlOpen",     "DlSym"};
static_assert(sizeof(kNames) / sizeof(kNames[0]) == TALVO_FN_COUNT);

class InjectionTest : public PlatformTest, public ::testing::WithParamInterface<std::tuple<int, uint32_t>> {
protected:
    void TearDown() override
    {
        for (auto &undo : undo_) { // may call the same kind again, so after the counts
            undo();
        }
        TALVOEventsDestroy(queue_);
        TALVOPacketRelease(&packet_);
        PlatformTest::TearDown();
    }

    // One call of the kind under test; true when it failed by injection.
    bool Probe(TalvoTestFn fn)
    {
        switch (fn) {
        case TALVO_FN_MALLOC: {
            void *block = TalvoMalloc(2, 16);
            undo_.push_back([block] { TalvoFree(block); });
            return block == nullptr;
        }
        case TALVO_FN_MUTEX_INIT:
        case TALVO_FN_MUTEX_LOCK:
        case TALVO_FN_MUTEX_UNLOCK:
        case TALVO_FN_MUTEX_DESTROY: {
            TALVOMutex &m = mutexes_.emplace_back();
            int32_t status[4] = {TALVOMutexInit(&m), 0, 0, 0};
            for (int step = 1; step < 4 && status[step - 1] == 0; ++step) {
                status[step] = step == 1   ? TALVOMutexLock(&m)
                               : step == 2 ? TALVOMutexUnlock(&m)
                                           : TALVOMutexDestroy(&m);
            }
            if (fn == TALVO_FN_MUTEX_UNLOCK && status[2] == kInjected) {
                undo_.push_back([&m] { EXPECT_EQ(TALVOMutexUnlock(&m), 0); });
            }
            if (fn != TALVO_FN_MUTEX_INIT && status[fn - TALVO_FN_MUTEX_INIT] == kInjected) {
                undo_.push_back([&m] { EXPECT_EQ(TALVOMutexDestroy(&m), 0); });
            }
            return status[fn - TALVO_FN_MUTEX_INIT] == kInjected;
        }
        case TALVO_FN_THREAD_CREATE:
        case TALVO_FN_THREAD_JOIN: {
            const TALVOThreadParam param{0, nullptr, "probe"};
            TALVOThread thread = 0;
            if (TALVOThreadFw(&thread, Idle, &param) == kInjected) {
                return true;
            }
            if (TALVOThreadJoinFw(thread, nullptr) != kInjected) {
                return false;
            }
            undo_.push_back([thread] { EXPECT_EQ(TALVOThreadJoinFw(thread, nullptr), 0); });
            return true;
        }
        case TALVO_FN_EVENTS_CREATE: {
            void *queue = TALVOEventsCreate("probe", 1, 0, 4);
            return queue == nullptr || TALVOEventsDestroy(queue) != 0;
        }
        case TALVO_FN_EVENTS_CALL:
            queue_ = queue_ != nullptr ? queue_ : TALVOEventsCreate("probe", 1, 0, 0);
            return TALVOEventsCall(queue_, Ignore, 0, nullptr, nullptr) == kInjected;
        case TALVO_FN_PACKET_INIT: {
            TALVOPacket packet{};
            const bool injected = TALVOPacketInit(&packet, nullptr, 8) == kInjected;
            TALVOPacketRelease(&packet);
            return injected;
        }
        case TALVO_FN_PACKET_WRITE: {
            static const uint8_t kByte = 1;
            if (packet_.data == nullptr) {
                EXPECT_EQ(TALVOPacketInit(&packet_, nullptr, 256), 0);
            }
            const uint32_t before = packet_.length;
            int32_t status;
            switch (writes_++ % 4) { // the four writes share one count
            case 0:
                status = TALVOPacketWriteUint32(&packet_, 1);
                break;
            case 1:
                status = TALVOPacketWriteInt32(&packet_, 1);
                break;
            case 2:
                status = TALVOPacketWriteBytes(&packet_, &kByte, 1);
                break;
            default:
                status = TALVOPacketWriteString(&packet_, "ab", 2);
                break;
            }
            EXPECT_TRUE(status != kInjected || packet_.length == before) << "an injected failure writes nothing";
            return status == kInjected;
        }
        case TALVO_FN_DLOPEN:
        case TALVO_FN_DLSYM: {
            void *lib = TALVODlOpen("libm.so.6", 1);
            const bool injected = lib == nullptr || TALVODlSym(lib, "cos") == nullptr;
            EXPECT_TRUE(!injected || std::string(TALVODlError()) == "injected failure");
            if (lib != nullptr) {
                TALVODlClose(lib);
            }
            return injected;
        }
        default:
            ADD_FAILURE() << "no probe for kind " << fn;
            return false;
        }
    }

    std::vector<std::function<void()>> undo_;
    std::deque<TALVOMutex> mutexes_;
    void *queue_ = nullptr;
    TALVOPacket packet_{};
    int writes_ = 0;
};

TEST_P(InjectionTest, FailsExactlyTheNthCallOnceAndCountsEveryCall)
{
    const auto fn = static_cast<TalvoTestFn>(std::get<0>(GetParam()));
    const uint32_t nth = std::get<1>(GetParam());
    TalvoTestFailNth(fn, nth);
    std::vector<bool> failed, expected(5, false);
    expected[nth - 1] = true;
    for (int i = 0; i < 5; ++i) {
        failed.push_back(Probe(fn));
    }
    EXPECT_EQ(failed, expected);
    EXPECT_EQ(TalvoTestCallCount(fn), 5u) << "failed calls count too";

    TalvoTestFailNth(fn, 1);
    TalvoTestFailNth(fn, 0);
    EXPECT_FALSE(Probe(fn)) << "0 cancels";
    TalvoTestFailNth(fn, 1);
    TalvoTestReset();
    EXPECT_EQ(TalvoTestCallCount(fn), 0u);
    EXPECT_FALSE(Probe(fn)) << "reset cancels";
}

INSTANTIATE_TEST_SUITE_P(Kinds, InjectionTest,
                         ::testing::Combine(::testing::Range(0, static_cast<int>(TALVO_FN_COUNT)),
                                            ::testing::Values(1u, 3u)),
                         [](const auto &info) {
                             return std::string(kNames[std::get<0>(info.param)]) + "Call" +
                                    std::to_string(std::get<1>(info.param));
                         });

TEST(TestControlsTest, BlocksAndFailuresStayExactUnderConcurrentCalls)
{
    TalvoTestReset();
    const int64_t before = TalvoTestOutstandingAllocs();
    TalvoTestFailNth(TALVO_FN_MALLOC, 500);
    std::atomic<int> failures{0};
    auto work = [&] {
        std::vector<void *> blocks;
        for (int i = 0; i < 250; ++i) {
            blocks.push_back(TalvoMalloc(2, i % 3)); // size 0 still gives a block
            failures += blocks.back() == nullptr;
        }
        EXPECT_GE(TalvoTestOutstandingAllocs(), before + 249);
        for (void *block : blocks) {
            TalvoFree(block);
        }
    };
    std::thread a(work), b(work), c(work), d(work);
    a.join(), b.join(), c.join(), d.join();
    EXPECT_EQ(failures, 1);
    EXPECT_EQ(TalvoTestCallCount(TALVO_FN_MALLOC), 1000u);
    TalvoFree(nullptr);
    EXPECT_EQ(TalvoTestOutstandingAllocs(), before);
    TalvoTestReset();
}

} // namespace
} // namespace talvotest
