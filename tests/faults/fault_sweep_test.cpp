// SPDX-License-Identifier: Apache-2.0
// Every framework call of one complete life of the service, made to fail
// once. The life: load with a raw-frame camera ("0") and one that encodes
// its own stream ("1"), callbacks, queries, parameters, open, frames on both
// roads, vendor reports of both kinds, a rate update, key frames, close and
// release. Each step waits for its effect, so that runs without failure make
// the same calls in the same order. Whatever failed, a run must end with no
// block left, no frame posted twice or from nowhere, every camera closed,
// no encoder instance and no plugin thread left.
#include <algorithm>
#include <array>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <thread>

#include "encoder_pacer.h"
#include "support.h"
#include "video/lane.h"

namespace kxfault {
namespace {

using kxtest::Fw;

constexpr uint32_t kFrames = 4; // per road
constexpr const char *kIds[2] = {"0", "1"};
// A queued frame is taken in one pass of the encoder thread; a pass whose
// queue lock failed takes it in the next.
constexpr uint32_t kMaxPasses = 4;

const char *FnName(TalvoTestFn fn)
{
    static const char *const kNames[TALVO_FN_COUNT] = {
        "MALLOC",        "MUTEX_INIT",  "MUTEX_LOCK",  "MUTEX_UNLOCK", "MUTEX_DESTROY", "THREAD_CREATE", "THREAD_JOIN",
        "EVENTS_CREATE", "EVENTS_CALL", "PACKET_INIT", "PACKET_WRITE", "DLOPEN",        "DLSYM",
    };
    return fn >= 0 && fn < TALVO_FN_COUNT ? kNames[fn] : "?";
}

// A raw frame's first luma bytes, which the fake encoder copies into its
// bitstream, name it; a direct unit is named by its bytes.
std::vector<uint8_t> Unit(size_t road, uint32_t index)
{
    std::vector<uint8_t> bytes(road == 0 ? 64 * 48 * 3 / 2 : 100 + index, 128);
    for (size_t i = 0; i < 64; ++i) {
        bytes[i] = static_cast<uint8_t>(index * 50 + i);
    }
    return bytes;
}

uint32_t FrameOf(size_t road, const kxtest::Message &m)
{
    for (uint32_t i = 0; i < kFrames; ++i) {
        const std::vector<uint8_t> unit = Unit(road, i);
        if (road == 1 ? m.bytes == unit
                      : m.bytes.size() >= kFakeBitstreamHeader + 16 &&
                            std::equal(unit.begin(), unit.begin() + 16, m.bytes.begin() + kFakeBitstreamHeader)) {
            return i;
        }
    }
    return kFrames;
}

size_t PluginThreads()
{
    size_t found = 0;
    std::error_code error;
    for (const auto &task : std::filesystem::directory_iterator("/proc/self/task", error)) {
        std::ifstream comm(task.path() / "comm");
        std::string name;
        found += std::getline(comm, name) && (name == "talvovencoder" || name == "talvocamera") ? 1 : 0;
    }
    return found;
}

struct Outcome {
    std::vector<int32_t> statuses;               // every entry's result, in order
    std::array<std::vector<uint32_t>, 2> posted; // frames that reached the framework, by road
    size_t states = 0, binaries = 0, notifications = 0;
    std::array<uint64_t, TALVO_FN_COUNT> calls{};
    uint64_t pauses = 0;
};

class Life {
public:
    Life(TalvoTestFn fn, uint32_t nth) : repairAfter_(fn == TALVO_FN_MUTEX_UNLOCK ? nth : 0), fn_(fn), nth_(nth) {}
    Outcome Go();

private:
    void Settle();
    void Repair();
    void Push(size_t road, uint32_t index);
    void Report(int32_t status);
    void Step(int32_t status)
    {
        out_.statuses.push_back(status);
        Settle();
    }

    uint64_t repairAfter_;
    TalvoTestFn fn_;
    uint32_t nth_;
    std::array<KxCameraService *, 2> records_{};
    std::vector<TALVOThread> threads_;
    Outcome out_;
};

// After an injected unlock failure the lock stays held by whoever failed to
// give it back; the run gives it back on that thread, so that what follows
// tests the plugin's handling of the failure, not a deadlock of our making.
void Life::Repair()
{
    if (repairAfter_ == 0 || TalvoTestCallCount(TALVO_FN_MUTEX_UNLOCK) < repairAfter_) {
        return;
    }
    (void)TALVOMutexUnlock(&g_cameraModule.lock); // refused unless this thread holds it
    for (KxCameraService *record : records_) {
        if (record != nullptr) {
            (void)TALVOMutexUnlock(&record->vencLock);
        }
    }
}

void Life::Settle()
{
    Repair();
    for (const KxCameraService *record : records_) {
        if (record == nullptr || __atomic_load_n(&record->laneGate, __ATOMIC_ACQUIRE) == 0) {
            continue;
        }
        if (std::find(threads_.begin(), threads_.end(), record->vencThread) == threads_.end()) {
            threads_.push_back(record->vencThread);
        }
        EXPECT_TRUE(EncoderPacer::Get().WaitParked(record)) << "encoder thread of " << record->serviceId << " stuck";
    }
}

// Once its step is over, a frame has been posted and freed by the framework,
// or released: the blocks in use are those of before, give or take the
// encoder thread's own buffers.
void Life::Push(size_t road, uint32_t index)
{
    const auto buffers = [this] {
        int64_t n = 0;
        for (const KxCameraService *record : records_) {
            const KxLaneThread *lane = record != nullptr ? record->laneThread : nullptr;
            n += lane == nullptr ? 0 : 1 + (lane->encFrame.data != nullptr) + (lane->convFrame.data != nullptr);
        }
        return n;
    };
    const int64_t blocks = TalvoTestOutstandingAllocs() - buffers();
    const std::vector<uint8_t> unit = Unit(road, index);
    Step(FakeCamera()->PushFrame(kIds[road], unit.data(), static_cast<uint32_t>(unit.size())));
    const KxCameraService *record = records_[road];
    for (uint32_t pass = 0;
         record != nullptr && __atomic_load_n(&record->laneGate, __ATOMIC_ACQUIRE) != 0 && record->vencQueue.count != 0;
         ++pass) {
        ASSERT_LT(pass, kMaxPasses) << "a queued frame stayed in the queue";
        EncoderPacer::Get().Step(record);
        Settle();
    }
    EXPECT_EQ(TalvoTestOutstandingAllocs() - buffers(), blocks) << "road " << road << " frame " << index << " lost";
}

void Life::Report(int32_t status)
{
    Repair();
    if (g_cameraModule.eventsHandle != nullptr) {
        // Repaired on the queue's thread by a marker of its own when an unlock failed there.
        const auto repair = [](uint32_t, void *after) {
            const auto call = *static_cast<uint64_t *>(after);
            if (call != 0 && TalvoTestCallCount(TALVO_FN_MUTEX_UNLOCK) >= call) {
                (void)TALVOMutexUnlock(&g_cameraModule.lock);
            }
            return 0;
        };
        // An injected failure fires once: the second post goes through.
        if (TALVOEventsCall(g_cameraModule.eventsHandle, repair, 0, &repairAfter_, nullptr) != 0) {
            (void)TALVOEventsCall(g_cameraModule.eventsHandle, repair, 0, &repairAfter_, nullptr);
        }
        EXPECT_TRUE(kxtest::DrainEventQueue());
    }
    Step(status);
}

Outcome Life::Go()
{
    const int64_t baseline = TalvoTestOutstandingAllocs();
    EncoderPacer::Get().Watch({});
    EncoderPacer::Get().RepairLocksAfterUnlockCall(repairAfter_);
    if (nth_ != 0) {
        TalvoTestFailNth(fn_, nth_);
    }
    const int32_t load = Fw().Load();
    if (g_cameraModule.inited == 1) {
        records_ = {kxtest::Camera("0"), kxtest::Camera("1")};
    }
    EncoderPacer::Get().Watch(records_);
    Step(load);
    Step(Fw().table.setGlbCmdCb(nullptr, kxtest::Framework::GlbCallback));
    for (size_t road : {0, 1}) {
        const KxServiceIdDesc index = kxtest::IndexOf(kIds[road]);
        Step(Fw().table.setCmdCb(&index, kxtest::Framework::CmdCallback, nullptr));
        Step(Fw().Send(kIds[road], KX_CMD_GET_ABILITY));
        Step(Fw().Send(kIds[road], KX_CMD_GET_WORK_MODE));
        Step(Fw().SetParams(kIds[road], kxtest::OpenParams(64, 48, 2, static_cast<int32_t>(road))));
        Step(Fw().Send(kIds[road], KX_CMD_OPEN));
    }
    for (uint32_t i = 0; i + 1 < kFrames; ++i) {
        Push(0, i);
        Push(1, i);
    }
    Report(FakeCamera()->PushStatus("0", 1));
    Report(FakeCamera()->PushAction("1", 7, "205"));
    Report(FakeCamera()->PushStatus("1", 2));
    for (size_t road : {0, 1}) {
        Step(Fw().SetParams(kIds[road], kxtest::FpsParams(25)));
        Step(Fw().Send(kIds[road], KX_CMD_TRIGGER_IFRAME));
    }
    Push(0, kFrames - 1);
    Push(1, kFrames - 1);
    for (size_t road : {0, 1}) {
        Step(Fw().Send(kIds[road], KX_CMD_CLOSE));
    }
    EXPECT_EQ(Fw().Release(), 0);
    // Threads first: once they are gone nothing reads what release freed.
    bool threadsGone = false;
    for (int i = 0; i < 30000 && !(threadsGone = PluginThreads() == 0); ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    EXPECT_TRUE(threadsGone) << "a plugin thread outlived release";
    EXPECT_EQ(g_cameraModule.inited, 0);
    {
        std::lock_guard lock(FakeCamera()->mutex);
        EXPECT_TRUE(FakeCamera()->frameCallbacks.empty()) << "a camera is still open at the vendor";
    }
    EXPECT_EQ(FakeEncoder()->LiveInstances(), 0u);
    EXPECT_EQ(TalvoTestOutstandingAllocs(), baseline) << "blocks taken and not given back";
    out_.pauses = EncoderPacer::Get().Pauses();
    for (int fn = 0; fn < TALVO_FN_COUNT; ++fn) {
        out_.calls[fn] = TalvoTestCallCount(static_cast<TalvoTestFn>(fn));
    }
    // A frame reaches the framework at most once, and only one handed over.
    for (size_t road : {0, 1}) {
        for (const auto &m : Fw().Messages(road == 0 ? KX_MSG_BITSTREAM : KX_MSG_CAMERA_FRAME)) {
            const uint32_t index = FrameOf(road, m);
            EXPECT_LT(index, kFrames) << "road " << road << ": a unit no frame was made into";
            EXPECT_EQ(std::count(out_.posted[road].begin(), out_.posted[road].end(), index), 0) << "posted twice";
            EXPECT_EQ(m.identity, road == 0 ? "0" : "Camera_1");
            out_.posted[road].push_back(index);
        }
    }
    out_.states = Fw().Messages(KX_MSG_CAMERA_STATE).size();
    out_.binaries = Fw().Messages(KX_MSG_BINARY_DATA).size();
    out_.notifications = Fw().Notifications().size();
    // A stop whose join failed left its thread to the framework to join.
    if (threadsGone) {
        for (TALVOThread thread : threads_) {
            (void)TALVOThreadJoinFw(thread, nullptr);
        }
    }
    if (::testing::Test::HasFailure()) {
        ADD_FAILURE() << "messages of the run:\n" << kxtest::DumpLogs();
    }
    EncoderPacer::Get().Watch({});
    EncoderPacer::Get().RepairLocksAfterUnlockCall(0);
    TalvoTestReset();
    TalvoTestLogCapture(1);
    FakeCamera()->Reset();
    FakeEncoder()->Reset();
    Fw().Reset();
    return out_;
}

class FaultScenario : public kxtest::PluginTest {};

TEST_F(FaultScenario, CleanRunsTakeEveryStepAndMakeTheSameCalls)
{
    const Outcome run = Life(TALVO_FN_MALLOC, 0).Go();
    EXPECT_EQ(std::count(run.statuses.begin(), run.statuses.end(), 0), static_cast<long>(run.statuses.size()));
    const std::vector<uint32_t> all = {0, 1, 2, 3};
    EXPECT_EQ(run.posted[1], all);
    EXPECT_EQ(run.posted[0], kxtest::ColourConversionBuiltIn() ? all : std::vector<uint32_t>{});
    EXPECT_EQ(run.states, 5u);        // opened and closed twice, the state action
    EXPECT_EQ(run.binaries, 6u);      // facing and rotation at each open, facing at each close
    EXPECT_EQ(run.notifications, 3u); // online, the state action, offline
    EXPECT_GT(run.pauses, 0u);
    for (int fn = 0; fn < TALVO_FN_COUNT; ++fn) {
        EXPECT_GT(run.calls[fn], 0u) << FnName(static_cast<TalvoTestFn>(fn)) << " is never called";
    }
    const Outcome again = Life(TALVO_FN_MALLOC, 0).Go();
    EXPECT_EQ(again.calls, run.calls);
    EXPECT_EQ(again.pauses, run.pauses);
}

class FrameworkFailure : public kxtest::PluginTest, public ::testing::WithParamInterface<TalvoTestFn> {};

TEST_P(FrameworkFailure, EachCallFailingOnceLeavesNothingBehind)
{
    const TalvoTestFn fn = GetParam();
    const uint64_t calls = Life(fn, 0).Go().calls[fn];
    ASSERT_GT(calls, 0u) << "the scenario never calls " << FnName(fn);
    for (uint32_t nth = 1; nth <= calls && !HasFailure(); ++nth) {
        SCOPED_TRACE(testing::Message() << FnName(fn) << " call " << nth << " of " << calls << " fails");
        EXPECT_GE(Life(fn, nth).Go().calls[fn], nth) << "the failing call was never made";
    }
    std::printf("fault sweep: %s K=%llu\n", FnName(fn), static_cast<unsigned long long>(calls));
}

INSTANTIATE_TEST_SUITE_P(Framework, FrameworkFailure,
                         ::testing::Values(TALVO_FN_MALLOC, TALVO_FN_MUTEX_INIT, TALVO_FN_MUTEX_LOCK,
                                           TALVO_FN_MUTEX_UNLOCK, TALVO_FN_MUTEX_DESTROY, TALVO_FN_THREAD_CREATE,
                                           TALVO_FN_THREAD_JOIN, TALVO_FN_EVENTS_CREATE, TALVO_FN_EVENTS_CALL,
                                           TALVO_FN_PACKET_INIT, TALVO_FN_PACKET_WRITE, TALVO_FN_DLOPEN,
                                           TALVO_FN_DLSYM),
                         [](const auto &info) { return std::string(FnName(info.param)); });

} // namespace
} // namespace kxfault
