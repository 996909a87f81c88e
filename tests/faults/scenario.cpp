// SPDX-License-Identifier: Apache-2.0
#include "scenario.h"

#include "video/lane.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <thread>

#include <gtest/gtest.h>

#include "camera_support.h"
#include "encoder_pacer.h"
#include "fake_access.h"
#include "registry/registry.h"
#include "registry_support.h"
#include "service_support.h"

namespace kxfault {
namespace {

using kxtest::CallbackLog;
using kxtest::UnitSink;

constexpr int32_t kWidth = 64;
constexpr int32_t kHeight = 48;
constexpr int32_t kColorFmtNv21 = 2;
constexpr int32_t kCodecRaw = 0;
constexpr int32_t kCodecH264 = 1;
constexpr int32_t kNewFps = 25;
constexpr size_t kRaw = 0;    // camera "0" delivers raw frames
constexpr size_t kDirect = 1; // camera "1" encodes its own stream
constexpr const char *kVendorIds[2] = {"0", "1"};
constexpr const char *kServiceIds[2] = {"Camera_0", "Camera_1"};
constexpr uint32_t kStatusOnline = 1;
constexpr uint32_t kStatusOffline = 2;
constexpr uint32_t kActionCameraState = 7;
// A queued frame is taken in one pass of the encoder thread; a pass whose
// queue lock failed takes it in the next.
constexpr uint32_t kMaxPassesPerFrame = 4;
// Only a hang guard, never a measurement.
constexpr auto kHangGuard = std::chrono::seconds(30);
// What the fake encoder writes ahead of the first input bytes it copies.
constexpr size_t kBitstreamHeadOffset = 16;

const char *const kThreadNames[] = {"talvovencoder", "talvocamera"};

// Raw frames differ from their first luma byte on, which the fake encoder
// copies into its bitstream: that is how a bitstream names its frame.
std::vector<uint8_t> RawFrame(uint32_t index)
{
    const size_t luma = static_cast<size_t>(kWidth) * kHeight;
    std::vector<uint8_t> frame(luma * 3 / 2, 128);
    for (size_t i = 0; i < luma; ++i) {
        frame[i] = static_cast<uint8_t>(index * 50 + i);
    }
    return frame;
}

std::vector<uint8_t> DirectUnit(uint32_t index)
{
    // Start code, IDR slice header byte, the index, then filler. Filled
    // first and written over: growing a short vector trips GCC 12's
    // -Warray-bounds at -O3.
    std::vector<uint8_t> unit(100 + index, static_cast<uint8_t>(0xA0 + index));
    const uint8_t head[] = {0, 0, 0, 1, 0x65, static_cast<uint8_t>(index)};
    std::copy(std::begin(head), std::end(head), unit.begin());
    return unit;
}

// Index of the raw frame a bitstream was made from, or kFramesPerRoad.
uint32_t RawFrameOf(const std::vector<uint8_t> &bitstream)
{
    if (bitstream.size() < kBitstreamHeadOffset + kFakeBitstreamInputBytes ||
        std::memcmp(bitstream.data(), "FKBS", 4) != 0) {
        return kFramesPerRoad;
    }
    for (uint32_t i = 0; i < kFramesPerRoad; ++i) {
        if (std::equal(bitstream.begin() + kBitstreamHeadOffset,
                       bitstream.begin() + kBitstreamHeadOffset + kFakeBitstreamInputBytes, RawFrame(i).begin())) {
            return i;
        }
    }
    return kFramesPerRoad;
}

uint32_t DirectUnitOf(const std::vector<uint8_t> &bytes)
{
    for (uint32_t i = 0; i < kFramesPerRoad; ++i) {
        if (bytes == DirectUnit(i)) {
            return i;
        }
    }
    return kFramesPerRoad;
}

// Parameter texts as the framework negotiates them.
std::string OpenParams(int32_t width, int32_t height, int32_t colorFmt, int32_t codecType)
{
    return "{\"Width\":" + std::to_string(width) + ",\"Height\":" + std::to_string(height) +
           ",\"ColorFormat\":" + std::to_string(colorFmt) + ",\"CodecType\":" + std::to_string(codecType) + "}";
}

std::string FpsParams(int32_t fps)
{
    return "{\"Fps\":" + std::to_string(fps) + "}";
}

size_t ThreadsNamed(const char *name)
{
    size_t found = 0;
    std::error_code error;
    for (const auto &task : std::filesystem::directory_iterator("/proc/self/task", error)) {
        std::ifstream comm(task.path() / "comm");
        std::string text;
        if (std::getline(comm, text) && text == name) {
            ++found;
        }
    }
    return found;
}

bool PluginThreadsGone()
{
    const auto deadline = std::chrono::steady_clock::now() + kHangGuard;
    for (;;) {
        size_t left = 0;
        for (const char *name : kThreadNames) {
            left += ThreadsNamed(name);
        }
        if (left == 0) {
            return true;
        }
        if (std::chrono::steady_clock::now() > deadline) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
}

bool ThreadStarted(const KxCameraService *service)
{
    return service != nullptr && __atomic_load_n(&service->laneGate, __ATOMIC_ACQUIRE) != 0;
}

// A mark posted behind the events already queued: once it has run, so have they.
struct Marker {
    std::mutex mutex;
    std::condition_variable ran;
    bool done = false;
    uint64_t repairAfter = 0; // see EncoderPacer::RepairLocksAfterUnlockCall
};

int32_t RunMarker(uint32_t, void *raw)
{
    auto *marker = static_cast<Marker *>(raw);
    if (marker->repairAfter != 0 && TalvoTestCallCount(TALVO_FN_MUTEX_UNLOCK) >= marker->repairAfter) {
        // The module lock, if a handler on this thread failed to give it back.
        (void)TALVOMutexUnlock(&g_cameraModule.lock);
    }
    std::lock_guard lock(marker->mutex);
    marker->done = true;
    marker->ran.notify_all();
    return 0;
}

class Run {
public:
    explicit Run(const Injection &injection) : injection_(injection) {}
    Outcome Go();

private:
    KxServiceIdDesc Index(size_t camera) const
    {
        return KxServiceIdDesc{kServiceIds[camera], static_cast<uint32_t>(std::strlen(kServiceIds[camera])), 1};
    }
    int32_t Send(size_t camera, uint32_t code);
    int32_t SetParams(size_t camera, const std::string &text);
    // Per-frame buffers of the cameras' encoder threads, kept between frames.
    int64_t EncoderBuffers() const;
    void PushRaw(uint32_t index);
    void PushDirect(uint32_t index);
    void Report(int32_t result);

    void Load();
    void Settle();
    // After an injected unlock failure the lock stays held by whoever failed
    // to give it back; the run gives it back on that thread, so that what
    // follows tests the plugin's handling of the failure, not a deadlock of
    // the framework's making.
    uint64_t RepairAfter() const;
    void RepairLocksOfThisThread();
    void DrainEvents();
    void TakeQueuedFrame(size_t camera);
    void Observe(int64_t baseline);
    void CheckFrames();

    Injection injection_;
    KxServiceHandler table_{};
    KxServiceCallbacks callbacks_{};
    // The cameras' records while the service is loaded. A camera that encodes
    // its own stream gets an encoder thread too when its parameters leave it
    // on raw frames, so both are watched.
    std::array<KxCameraService *, 2> records_{};
    // Every encoder thread the plugin started, by its framework handle.
    std::vector<TALVOThread> threads_;
    Outcome out_;
};

int32_t Run::Send(size_t camera, uint32_t code)
{
    const KxServiceIdDesc index = Index(camera);
    KxCommand command{};
    command.code = code;
    const int32_t ret = table_.setCommand(&index, &command);
    Settle();
    return ret;
}

int32_t Run::SetParams(size_t camera, const std::string &text)
{
    const KxServiceIdDesc index = Index(camera);
    KxSetParamsInput input{};
    input.para = text.c_str();
    KxCommand command{};
    command.code = KX_CMD_SET_PARAMS;
    command.input = &input;
    command.inputLen = sizeof(input);
    const int32_t ret = table_.setCommand(&index, &command);
    Settle();
    return ret;
}

int64_t Run::EncoderBuffers() const
{
    int64_t buffers = 0;
    for (const KxCameraService *record : records_) {
        const KxLaneThread *lane = record != nullptr ? record->laneThread : nullptr;
        if (lane != nullptr) {
            buffers += (lane->encFrame.data != nullptr ? 1 : 0) + (lane->convFrame.data != nullptr ? 1 : 0) + 1;
        }
    }
    return buffers;
}

// Once its step is over, a frame has been posted (and freed by the framework's
// side) or released: the blocks in use are those of before, give or take the
// encoder thread's own buffers.
void Run::PushRaw(uint32_t index)
{
    const std::vector<uint8_t> frame = RawFrame(index);
    const int64_t blocks = TalvoTestOutstandingAllocs() - EncoderBuffers();
    out_.rawPushes.push_back(
        FakeCamera()->PushFrame(kVendorIds[kRaw], frame.data(), static_cast<uint32_t>(frame.size())));
    Settle();
    TakeQueuedFrame(kRaw);
    EXPECT_EQ(TalvoTestOutstandingAllocs() - EncoderBuffers(), blocks)
        << "raw frame " << index << " was neither posted nor released";
}

void Run::PushDirect(uint32_t index)
{
    const std::vector<uint8_t> unit = DirectUnit(index);
    const int64_t blocks = TalvoTestOutstandingAllocs() - EncoderBuffers();
    out_.directPushes.push_back(
        FakeCamera()->PushFrame(kVendorIds[kDirect], unit.data(), static_cast<uint32_t>(unit.size())));
    Settle();
    TakeQueuedFrame(kDirect);
    EXPECT_EQ(TalvoTestOutstandingAllocs() - EncoderBuffers(), blocks)
        << "unit " << index << " was neither handed on nor released";
}

void Run::Report(int32_t result)
{
    out_.reports.push_back(result);
    RepairLocksOfThisThread();
    DrainEvents();
    Settle();
}

uint64_t Run::RepairAfter() const
{
    return injection_.nth != 0 && injection_.fn == TALVO_FN_MUTEX_UNLOCK ? injection_.nth : 0;
}

void Run::RepairLocksOfThisThread()
{
    const uint64_t after = RepairAfter();
    if (after == 0 || TalvoTestCallCount(TALVO_FN_MUTEX_UNLOCK) < after) {
        return;
    }
    // Each is refused unless this thread holds it.
    (void)TALVOMutexUnlock(&g_cameraModule.lock);
    for (KxCameraService *record : records_) {
        if (record != nullptr) {
            (void)TALVOMutexUnlock(&record->vencLock);
        }
    }
}

void Run::DrainEvents()
{
    void *queue = g_cameraModule.eventsHandle;
    if (queue == nullptr) {
        return;
    }
    Marker marker;
    marker.repairAfter = RepairAfter();
    int32_t ret = TALVOEventsCall(queue, RunMarker, 0, &marker, nullptr);
    if (ret == TALVO_TEST_INJECTED_ERROR) {
        // The mark itself drew the injected failure, which fires once.
        ret = TALVOEventsCall(queue, RunMarker, 0, &marker, nullptr);
    }
    if (ret != 0) {
        ADD_FAILURE() << "the module event queue refused the mark: " << ret;
        return;
    }
    std::unique_lock lock(marker.mutex);
    if (!marker.ran.wait_for(lock, kHangGuard, [&marker] { return marker.done; })) {
        ADD_FAILURE() << "the module event queue did not reach the mark";
        // The mark lives on this stack.
        marker.ran.wait(lock, [&marker] { return marker.done; });
    }
}

void Run::Settle()
{
    RepairLocksOfThisThread();
    for (const KxCameraService *record : records_) {
        if (!ThreadStarted(record)) {
            continue;
        }
        if (std::find(threads_.begin(), threads_.end(), record->vencThread) == threads_.end()) {
            threads_.push_back(record->vencThread);
        }
        if (!EncoderPacer::Get().WaitParked(record)) {
            ADD_FAILURE() << "the encoder thread of " << record->serviceId << " did not come back to its pause";
        }
    }
}

// One step of the encoder thread per pass until the frame has left the
// queue: taken, prepared, encoded and posted, or dropped, before the run goes on.
void Run::TakeQueuedFrame(size_t camera)
{
    const KxCameraService *record = records_[camera];
    for (uint32_t pass = 0; ThreadStarted(record) && record->vencQueue.count != 0; ++pass) {
        if (pass == kMaxPassesPerFrame) {
            ADD_FAILURE() << "a queued frame stayed in the queue for " << pass << " passes";
            return;
        }
        EncoderPacer::Get().Step(record);
        Settle();
    }
}

void Run::Load()
{
    (void)TALVOGetCameraServiceHandler(&table_);
    callbacks_ = kxtest::RecordingCallbacks();
    out_.load = table_.loadService(&callbacks_);
    out_.loaded = g_cameraModule.inited == 1;
    out_.announced = kxtest::AnnouncedServices().size();
    if (out_.loaded) {
        for (size_t camera : {kRaw, kDirect}) {
            records_[camera] =
                GetCameraHandlerById(kServiceIds[camera], static_cast<uint32_t>(std::strlen(kServiceIds[camera])));
        }
    }
    EncoderPacer::Get().Watch(records_);
    Settle();
}

Outcome Run::Go()
{
    FakeCamera()->Reset();
    FakeEncoder()->Reset();
    CallbackLog::Get().Clear();
    UnitSink::Get().Clear();
    EncoderPacer::Get().Watch({});
    EncoderPacer::Get().RepairLocksAfterUnlockCall(RepairAfter());
    TalvoTestReset();
    TalvoTestLogCapture(1);
    const int64_t baseline = TalvoTestOutstandingAllocs();
    if (injection_.nth != 0) {
        TalvoTestFailNth(injection_.fn, injection_.nth);
    }

    Load();
    out_.glbCmdCb = table_.setGlbCmdCb(nullptr, CallbackLog::GlbCallback);
    Settle();
    for (size_t camera : {kRaw, kDirect}) {
        const KxServiceIdDesc index = Index(camera);
        out_.cmdCb[camera] = table_.setCmdCb(&index, UnitSink::CmdCallback, nullptr);
        Settle();
    }
    for (size_t camera : {kRaw, kDirect}) {
        out_.queries[camera * 2] = Send(camera, KX_CMD_GET_ABILITY);
        out_.queries[camera * 2 + 1] = Send(camera, KX_CMD_GET_WORK_MODE);
    }
    out_.openParams[kRaw] = SetParams(kRaw, OpenParams(kWidth, kHeight, kColorFmtNv21, kCodecRaw));
    out_.openParams[kDirect] = SetParams(kDirect, OpenParams(kWidth, kHeight, kColorFmtNv21, kCodecH264));
    for (size_t camera : {kRaw, kDirect}) {
        out_.open[camera] = Send(camera, KX_CMD_OPEN);
    }
    for (uint32_t i = 0; i + 1 < kFramesPerRoad; ++i) {
        PushRaw(i);
        PushDirect(i);
    }
    Report(FakeCamera()->PushStatus(kVendorIds[kRaw], kStatusOnline));
    Report(FakeCamera()->PushAction(kVendorIds[kDirect], kActionCameraState, "205"));
    Report(FakeCamera()->PushStatus(kVendorIds[kDirect], kStatusOffline));
    for (size_t camera : {kRaw, kDirect}) {
        out_.fpsUpdate[camera] = SetParams(camera, FpsParams(kNewFps));
    }
    for (size_t camera : {kRaw, kDirect}) {
        out_.keyFrame[camera] = Send(camera, KX_CMD_TRIGGER_IFRAME);
    }
    PushRaw(kFramesPerRoad - 1);
    PushDirect(kFramesPerRoad - 1);
    for (size_t camera : {kRaw, kDirect}) {
        out_.close[camera] = Send(camera, KX_CMD_CLOSE);
    }
    out_.release = table_.releaseService();
    Observe(baseline);
    CheckFrames();
    // A stop whose join failed left its thread, gone by now, to the framework
    // to join; the others refuse a second join.
    if (out_.releasedAll) {
        for (TALVOThread thread : threads_) {
            (void)TALVOThreadJoinFw(thread, nullptr);
        }
    }
    EncoderPacer::Get().Watch({});
    EncoderPacer::Get().RepairLocksAfterUnlockCall(0);
    TalvoTestReset();
    return out_;
}

void Run::Observe(int64_t baseline)
{
    // Threads first: once they are gone nothing reads the records release freed.
    const bool threadsGone = PluginThreadsGone();
    out_.encoderPauses = EncoderPacer::Get().Pauses();
    for (int fn = 0; fn < TALVO_FN_COUNT; ++fn) {
        out_.calls[fn] = TalvoTestCallCount(static_cast<TalvoTestFn>(fn));
    }
    for (const auto &unit : UnitSink::Get().Units(KX_MSG_BITSTREAM)) {
        out_.rawPosted.push_back(RawFrameOf(unit.bytes));
        EXPECT_EQ(unit.identity, kVendorIds[kRaw]) << "a bitstream names its camera by the vendor id";
    }
    for (const auto &unit : UnitSink::Get().Units(KX_MSG_CAMERA_FRAME)) {
        out_.directPosted.push_back(DirectUnitOf(unit.bytes));
        EXPECT_EQ(unit.identity, kServiceIds[kDirect]) << "a frame handed on names its camera by the service id";
    }
    for (const auto &call : CallbackLog::Get().CmdCalls()) {
        out_.stateReports += call.code == KX_MSG_CAMERA_STATE ? 1 : 0;
        out_.binaryReports += call.code == KX_MSG_BINARY_DATA ? 1 : 0;
    }
    out_.notifications = CallbackLog::Get().GlbCalls().size();
    out_.updateConfigCalls = FakeCamera()->CallsTo("UpdateConfig").size();
    out_.keyFrameCalls = FakeCamera()->CallsTo("BusinessControl").size();
    bool camerasClosed = false;
    {
        std::lock_guard lock(FakeCamera()->mutex);
        camerasClosed = FakeCamera()->frameCallbacks.empty();
    }
    out_.releasedAll = g_cameraModule.inited == 0 && camerasClosed && FakeEncoder()->LiveInstances() == 0 &&
                       threadsGone;
    // Units the framework was handed were freed by the sink as they arrived.
    out_.blocksLeft = TalvoTestOutstandingAllocs() - baseline;
    out_.log = kxtest::DumpLogs();

    EXPECT_EQ(out_.release, 0);
    EXPECT_EQ(g_cameraModule.inited, 0) << "release leaves the module not initialised";
    EXPECT_TRUE(camerasClosed) << "a camera is still open at the vendor after release";
    EXPECT_EQ(FakeEncoder()->LiveInstances(), 0u) << "an encoder instance outlived release";
    EXPECT_TRUE(threadsGone) << "an encoder thread or the event queue's thread outlived release";
    EXPECT_EQ(out_.blocksLeft, 0) << "blocks taken and not given back";
}

// A frame reaches the framework at most once, and only one the vendor
// handed over successfully; a frame that did not reach it was released,
// which the block count has checked.
void Run::CheckFrames()
{
    const auto check = [](const std::vector<uint32_t> &posted, const std::vector<int32_t> &pushes, const char *road) {
        std::vector<uint32_t> seen;
        for (uint32_t index : posted) {
            ASSERT_LT(index, kFramesPerRoad) << road << ": the framework got a unit that no frame was made into";
            EXPECT_EQ(std::count(seen.begin(), seen.end(), index), 0) << road << ": frame " << index << " posted twice";
            seen.push_back(index);
            ASSERT_LT(index, pushes.size());
            EXPECT_EQ(pushes[index], 0) << road << ": frame " << index << " posted though its delivery failed";
        }
    };
    check(out_.rawPosted, out_.rawPushes, "raw road");
    check(out_.directPosted, out_.directPushes, "direct road");
    // A unit the camera that encodes its own stream delivers is handed on at
    // once, once the camera has its callback and its codec type.
    for (uint32_t i = 0; i < out_.directPushes.size(); ++i) {
        if (out_.directPushes[i] == 0 && out_.cmdCb[kDirect] == 0 && out_.openParams[kDirect] == 0) {
            EXPECT_EQ(std::count(out_.directPosted.begin(), out_.directPosted.end(), i), 1)
                << "direct road: frame " << i << " accepted but never handed on";
        }
    }
}

} // namespace

const char *FnName(TalvoTestFn fn)
{
    static const char *const kNames[TALVO_FN_COUNT] = {
        "MALLOC",        "MUTEX_INIT",  "MUTEX_LOCK",    "MUTEX_UNLOCK", "MUTEX_DESTROY",
        "THREAD_CREATE", "THREAD_JOIN", "EVENTS_CREATE", "EVENTS_CALL",  "PACKET_INIT",
        "PACKET_WRITE",  "DLOPEN",      "DLSYM",
    };
    return fn >= 0 && fn < TALVO_FN_COUNT ? kNames[fn] : "?";
}

Outcome RunScenario(const Injection &injection)
{
    return Run(injection).Go();
}

} // namespace kxfault
