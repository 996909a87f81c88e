// SPDX-License-Identifier: Apache-2.0
// Frames on both roads as a framework receives them, the frames refused, and
// the encoder lane under hostile sizes, load and callbacks that close or
// reconfigure from inside the encoding path.
#include <atomic>
#include <chrono>
#include <thread>

#include "support.h"
#include "video/video.h"

namespace kxtest {
namespace {

using namespace std::chrono_literals;
using Bytes = std::vector<uint8_t>;

constexpr int32_t kWidth = 64;
constexpr int32_t kHeight = 48;
constexpr uint32_t kRgbSize = kWidth * kHeight * 2;
constexpr uint32_t kNv21Size = kWidth * kHeight * 3 / 2;

// An NV21 frame's luma passes conversion unchanged, so its fill byte names
// it in the bitstream; RGB565 frames are only ever counted.
Bytes Frame(uint8_t index, uint32_t size = kRgbSize)
{
    return Bytes(size, index);
}

template <typename Pred> bool WaitUntil(Pred pred)
{
    for (auto until = std::chrono::steady_clock::now() + 10s; std::chrono::steady_clock::now() < until;) {
        if (pred()) {
            return true;
        }
        std::this_thread::sleep_for(1ms);
    }
    return pred();
}

class VideoTest : public ServiceTest {
protected:
    void SetUp() override
    {
        ServiceTest::SetUp();
        if (!ColourConversionBuiltIn()) {
            GTEST_SKIP() << "no raw frame is encoded without colour conversion";
        }
    }
    // Every frame taken in has been encoded or dropped.
    bool Settled()
    {
        const KxCameraFrameCounters c = Counters("0");
        return c.framesIn == c.framesEncoded + c.droppedOverload + c.droppedError;
    }
    void OpenRaw(int32_t colorFmt = 4)
    {
        ASSERT_EQ(Fw().SetParams("0", OpenParams(kWidth, kHeight, colorFmt, 0)), 0) << DumpLogs();
        ASSERT_EQ(Fw().Send("0", KX_CMD_OPEN), 0) << DumpLogs();
    }
    size_t Processed() const { return FakeEncoder()->CallsTo("VideoEncoderProcess").size(); }
    size_t Waiting()
    {
        KxCameraService *camera = Camera("0");
        EXPECT_EQ(TALVOMutexLock(&camera->vencLock), 0);
        const size_t count = camera->vencQueue.count;
        EXPECT_EQ(TALVOMutexUnlock(&camera->vencLock), 0);
        return count;
    }
};

TEST_F(VideoTest, BothRoadsDeliverWhatTheCameraGave)
{
    ASSERT_EQ(Fw().SetParams("1", OpenParams(kWidth, kHeight, 2, 1)), 0);
    ASSERT_EQ(Fw().Send("1", KX_CMD_OPEN), 0);
    const Bytes unit = {0, 0, 0, 1, 0x65, 7, 7, 7};
    ASSERT_EQ(FakeCamera()->PushFrame("1", unit.data(), static_cast<uint32_t>(unit.size())), 0);
    const auto frames = Fw().Messages(KX_MSG_CAMERA_FRAME);
    ASSERT_EQ(frames.size(), 1u);
    EXPECT_EQ(frames[0].identity, "Camera_1");
    EXPECT_EQ(frames[0].bytes, unit);
    EXPECT_EQ(frames[0].streamType, 1);
    EXPECT_EQ(frames[0].dataType, KX_VIDEO_DATA_TYPE);

    // NV21: luma, then V and U interleaved; the encoder wants I420.
    OpenRaw(2);
    Bytes nv21(kNv21Size), i420(kNv21Size);
    const size_t luma = kWidth * kHeight, quarter = luma / 4;
    for (size_t i = 0; i < nv21.size(); ++i) {
        nv21[i] = static_cast<uint8_t>(i * 7 + i / 61);
    }
    std::copy(nv21.begin(), nv21.begin() + luma, i420.begin());
    for (size_t i = 0; i < quarter; ++i) {
        i420[luma + i] = nv21[luma + 2 * i + 1];
        i420[luma + quarter + i] = nv21[luma + 2 * i];
    }
    ASSERT_EQ(FakeCamera()->PushFrame("0", nv21.data(), kNv21Size), 0);
    ASSERT_TRUE(Fw().WaitFor(KX_MSG_BITSTREAM, 1)) << DumpLogs();
    const Message bitstream = Fw().Messages(KX_MSG_BITSTREAM).at(0);
    EXPECT_EQ(bitstream.identity, "0");
    EXPECT_EQ(bitstream.bytes, FakeEncoderBitstream(0, i420.data(), kNv21Size));
    EXPECT_EQ(bitstream.streamType, 0);
    EXPECT_EQ(bitstream.dataType, KX_VIDEO_DATA_TYPE);
    ASSERT_TRUE(WaitUntil([&] { return Settled(); }));
    EXPECT_EQ(Counters("0").framesEncoded, 1u);
    EXPECT_EQ(Counters("1").framesEncoded, 1u);
}

// One frame from the vendor and what becomes of it.
struct FrameCase {
    const char *name;
    int32_t (*push)();
    int32_t status;
    size_t handedOn;
    int32_t level;
    const char *message;
};
void PrintTo(const FrameCase &c, std::ostream *out)
{
    *out << c.name;
}

class FrameRefusal : public ServiceTest, public ::testing::WithParamInterface<FrameCase> {};

TEST_P(FrameRefusal, StatusDeliveryAndMessage)
{
    const FrameCase &c = GetParam();
    ASSERT_EQ(Fw().SetParams("1", OpenParams(kWidth, kHeight, 2, 1)), 0);
    EXPECT_EQ(c.push(), c.status);
    EXPECT_EQ(Fw().Count(KX_MSG_CAMERA_FRAME), c.handedOn);
    if (c.message != nullptr) {
        EXPECT_TRUE(HasLog(c.level, c.message)) << DumpLogs();
    }
}

int32_t PushOfLength(uint32_t length)
{
    static const Bytes big(static_cast<size_t>(MAX_VIDEO_DATA_LENGTH) + 1, 3);
    return OutputCameraDataCB("1", 1, big.data(), length);
}

INSTANTIATE_TEST_SUITE_P(
    Frames, FrameRefusal,
    ::testing::Values(
        FrameCase{"NoVendorId", [] { return OutputCameraDataCB(nullptr, 0, Frame(1).data(), 4); }, -5, 0, 0, nullptr},
        FrameCase{"NoData", [] { return OutputCameraDataCB("1", 1, nullptr, 4); }, -5, 0, 0, nullptr},
        FrameCase{"LongestLength", [] { return PushOfLength(MAX_VIDEO_DATA_LENGTH); }, 0, 1, 0, nullptr},
        FrameCase{"OneTooLong", [] { return PushOfLength(MAX_VIDEO_DATA_LENGTH + 1); }, -5, 0, 0, nullptr},
        FrameCase{"UnknownCamera", [] { return OutputCameraDataCB("9", 1, Frame(1).data(), 4); }, -5, 0, 0, nullptr},
        FrameCase{"NoCallbackSet",
                  [] {
                      const KxServiceIdDesc index = IndexOf("1");
                      EXPECT_EQ(Fw().table.setCmdCb(&index, nullptr, nullptr), 0);
                      return OutputCameraDataCB("1", 1, Frame(1).data(), 4);
                  },
                  0, 0, 0, nullptr},
        FrameCase{"RawWithoutEncoderThread", [] { return OutputCameraDataCB("0", 1, Frame(1).data(), 4); }, 0, 0, 2,
                  "raw frames of Ca****_0 released, no encoder thread runs, 1 dropped so far"}),
    [](const auto &info) { return std::string(info.param.name); });

TEST_F(VideoTest, HostileSizesNeverReachTheConverterOrTheEncoder)
{
    EXPECT_EQ(GetVideoFrameSize(2147483646, 2147483646, KX_CSP_I420), -1);
    EXPECT_EQ(GetVideoFrameSize(32768, 32768, KX_CSP_RGB565), -1);
    OpenRaw();
    ASSERT_EQ(FakeCamera()->PushFrame("0", Frame(1).data(), kRgbSize), 0);
    ASSERT_TRUE(WaitUntil([&] { return Processed() == 1; }));

    // Refused, yet its size is kept: the next frame is far too short for it.
    EXPECT_EQ(Fw().SetParams("0", R"({"Width":32768,"Height":32768})"), -1001);
    TalvoTestLogClear();
    ASSERT_EQ(FakeCamera()->PushFrame("0", Frame(2).data(), kRgbSize), 0);
    ASSERT_TRUE(WaitUntil([&] { return Settled(); }));
    EXPECT_TRUE(HasLog(1, "VideoPreprocess failed ,error code -5")) << DumpLogs();

    // A size the frame covers, but not the one the encoder was made for.
    EXPECT_EQ(Fw().SetParams("0", R"({"Width":32,"Height":24})"), -1001);
    TalvoTestLogClear();
    for (uint8_t i = 0; i < 3; ++i) {
        ASSERT_EQ(FakeCamera()->PushFrame("0", Frame(i, 32 * 24 * 2).data(), 32 * 24 * 2), 0);
    }
    ASSERT_TRUE(WaitUntil([&] { return Settled(); }));
    EXPECT_EQ(Processed(), 1u) << "no frame of another size reached the encoder";
    EXPECT_EQ(TextsAtLevel(1).size(), 1u) << "a run of them is reported once: " << DumpLogs();
    EXPECT_EQ(Counters("0").droppedError, 4u);
}

TEST_F(VideoTest, SlowEncoderDropsTheOldestButKeepsBurstsAndTheNewest)
{
    FakeEncoder()->processDelayMs = 600; // far slower than the 30 frames a second negotiated
    OpenRaw(2);
    const auto push = [](uint8_t index) {
        return FakeCamera()->PushFrame("0", Frame(index, kNv21Size).data(), kNv21Size);
    };
    // While frame 0 is encoded, a burst as long as the queue's bound waits whole.
    ASSERT_EQ(push(0), 0);
    ASSERT_TRUE(WaitUntil([&] { return Waiting() == 0; }));
    for (uint8_t i = 1; i <= VENC_QUEUE_MAX_FRAMES; ++i) {
        ASSERT_EQ(push(i), 0);
    }
    EXPECT_EQ(Counters("0").droppedOverload, 0u);
    // One more drops the oldest waiting, and so would frames far apart.
    ASSERT_EQ(push(VENC_QUEUE_MAX_FRAMES + 1), 0);
    EXPECT_EQ(Counters("0").droppedOverload, 1u);
    std::this_thread::sleep_for(100ms);
    ASSERT_EQ(push(VENC_QUEUE_MAX_FRAMES + 2), 0);
    const uint64_t dropped = Counters("0").droppedOverload;
    EXPECT_GT(dropped, 1u) << "frames waiting longer than two intervals go";
    {
        std::lock_guard lock(FakeEncoder()->mutex);
        FakeEncoder()->processDelayMs = 0;
    }
    ASSERT_TRUE(WaitUntil([&] { return Settled(); }));
    std::vector<int> delivered;
    for (const Message &unit : Fw().Messages(KX_MSG_BITSTREAM)) {
        delivered.push_back(unit.bytes.at(kFakeBitstreamHeader));
    }
    ASSERT_FALSE(delivered.empty());
    EXPECT_EQ(delivered.front(), 0);
    EXPECT_EQ(delivered.back(), VENC_QUEUE_MAX_FRAMES + 2) << "the newest is never dropped";
    EXPECT_EQ(delivered.size() + dropped, VENC_QUEUE_MAX_FRAMES + 3u);
    EXPECT_NE(DumpLogs().find("encoder of Ca****_0 falls behind"), std::string::npos) << DumpLogs();
}

// The framework's callback, run on the plugin's encoding path, closes the
// camera or sets it up anew.
struct Reaction {
    const char *name;
    FakeEncoderOutputMode output;
    bool reopen;
};
void PrintTo(const Reaction &r, std::ostream *out)
{
    *out << r.name;
}

class LaneCallbackTest : public VideoTest, public ::testing::WithParamInterface<Reaction> {
protected:
    static int32_t React(const KxServiceIdDesc *identity, const KxCommand *message, void *userData)
    {
        auto *self = static_cast<LaneCallbackTest *>(userData);
        (void)Framework::CmdCallback(identity, message, nullptr);
        if (message->code != KX_MSG_BITSTREAM || self->reacted_.exchange(true)) {
            return 0;
        }
        self->status_ =
            GetParam().reopen ? Fw().SetParams("0", OpenParams(kWidth, kHeight, 4, 0)) : Fw().Send("0", KX_CMD_CLOSE);
        self->done_ = true;
        return 0;
    }
    std::atomic<bool> reacted_{false};
    std::atomic<bool> done_{false};
    std::atomic<int32_t> status_{1};
};

TEST_P(LaneCallbackTest, ReactionFromInsideFinishesWithoutWaitingForItself)
{
    FakeEncoder()->outputMode = GetParam().output;
    OpenRaw();
    const KxServiceIdDesc index = IndexOf("0");
    ASSERT_EQ(Fw().table.setCmdCb(&index, React, this), 0);
    ASSERT_EQ(FakeCamera()->PushFrame("0", Frame(1).data(), kRgbSize), 0);
    ASSERT_TRUE(WaitUntil([&] { return done_.load(); })) << "deadlocked: " << DumpLogs();
    EXPECT_EQ(status_, 0) << DumpLogs();
    // The retired encoder goes once its thread has left it.
    ASSERT_TRUE(WaitUntil([&] {
        std::lock_guard lock(FakeEncoder()->mutex);
        return FakeEncoder()->destroyed == 1;
    })) << DumpLogs();
    if (GetParam().reopen) {
        ASSERT_EQ(FakeCamera()->PushFrame("0", Frame(2).data(), kRgbSize), 0);
        ASSERT_TRUE(Fw().WaitFor(KX_MSG_BITSTREAM, 2)) << "the new lane encodes: " << DumpLogs();
        EXPECT_EQ(FakeEncoder()->LiveInstances(), 1u);
    } else {
        EXPECT_EQ(FakeEncoder()->LiveInstances(), 0u);
    }
}

INSTANTIATE_TEST_SUITE_P(Paths, LaneCallbackTest,
                         ::testing::Values(Reaction{"CloseOnEncoderThread", kFakeOutputReturn, false},
                                           Reaction{"CloseInOutputCallback", kFakeOutputCallback, false},
                                           Reaction{"CloseOnEncoderOwnThread", kFakeOutputCallbackThread, false},
                                           Reaction{"ReopenOnEncoderThread", kFakeOutputReturn, true},
                                           Reaction{"ReopenOnEncoderOwnThread", kFakeOutputCallbackThread, true}),
                         [](const auto &info) { return std::string(info.param.name); });

// A vendor thread keeps delivering or reporting while the framework acts.
class LaneRaceTest : public ServiceTest {
protected:
    template <typename Body> void WhileVendorRuns(Body body, const char *vendorId, bool reports = false)
    {
        std::atomic<bool> stop{false};
        std::thread vendor([&] {
            const Bytes unit(64, 1);
            while (!stop) {
                last_ = reports ? FakeCamera()->PushStatus(vendorId, 1, kFakeOnVendorThread)
                                : FakeCamera()->PushFrame(vendorId, unit.data(), 64, kFakeOnVendorThread);
            }
        });
        body();
        stop = true;
        vendor.join();
    }
    std::atomic<int32_t> last_{0};
};

TEST_F(LaneRaceTest, ReleaseWaitsForTheFrameInsideAndThenFindsNoRecord)
{
    // The framework's callback holds a frame inside the intake while release runs.
    static std::atomic<int> stage;
    static std::atomic<bool> released;
    static std::atomic<bool> releasedUnderneath;
    stage = 0;
    released = false;
    releasedUnderneath = false;
    const KxCmdCallback hold = [](const KxServiceIdDesc *identity, const KxCommand *message, void *) -> int32_t {
        (void)Framework::CmdCallback(identity, message, nullptr);
        if (message->code != KX_MSG_CAMERA_FRAME) {
            return 0;
        }
        stage = 1;
        while (stage != 2) {
            std::this_thread::yield();
        }
        std::this_thread::sleep_for(100ms);
        releasedUnderneath = released.load();
        return 0;
    };
    ASSERT_EQ(Fw().SetParams("1", OpenParams(kWidth, kHeight, 2, 1)), 0);
    ASSERT_EQ(Fw().Send("1", KX_CMD_OPEN), 0);
    const KxServiceIdDesc index = IndexOf("1");
    ASSERT_EQ(Fw().table.setCmdCb(&index, hold, nullptr), 0);
    FakeCamera()->status.closeCamera = -7; // the vendor keeps delivering
    const Bytes unit(64, 1);
    std::thread vendor([&] { FakeCamera()->PushFrame("1", unit.data(), 64); });
    while (stage != 1) {
        std::this_thread::yield();
    }
    stage = 2;
    EXPECT_EQ(Fw().Release(), 0);
    released = true;
    vendor.join();
    EXPECT_FALSE(releasedUnderneath) << "the record went while a frame was inside";
    EXPECT_EQ(FakeCamera()->PushFrame("1", unit.data(), 64), -5) << "after release no record is found";
}

TEST_F(LaneRaceTest, CallbackAndUserDataArriveAsThePairThatWasSet)
{
    struct Tag {
        std::atomic<int> mismatches{0};
        std::atomic<int> frames{0};
    };
    static Tag tags[2];
    static constexpr auto kCheck = [](const KxServiceIdDesc *identity, const KxCommand *message, void *userData,
                                      Tag *expected) {
        (void)Framework::CmdCallback(identity, message, nullptr);
        expected->frames.fetch_add(1);
        expected->mismatches.fetch_add(userData != expected ? 1 : 0);
    };
    const KxCmdCallback callbacks[2] = {
        [](const KxServiceIdDesc *i, const KxCommand *m, void *u) -> int32_t { return kCheck(i, m, u, &tags[0]), 0; },
        [](const KxServiceIdDesc *i, const KxCommand *m, void *u) -> int32_t { return kCheck(i, m, u, &tags[1]), 0; },
    };
    ASSERT_EQ(Fw().SetParams("1", OpenParams(kWidth, kHeight, 2, 1)), 0);
    ASSERT_EQ(Fw().Send("1", KX_CMD_OPEN), 0);
    const KxServiceIdDesc index = IndexOf("1");
    WhileVendorRuns(
        [&] {
            for (int i = 0; tags[0].frames + tags[1].frames < 400; ++i) {
                ASSERT_EQ(Fw().table.setCmdCb(&index, callbacks[i % 2], &tags[i % 2]), 0);
            }
        },
        "1");
    EXPECT_EQ(tags[0].mismatches + tags[1].mismatches, 0);
}

TEST_F(LaneRaceTest, ReportsDuringReleaseAndReloadAreSafe)
{
    WhileVendorRuns(
        [] {
            for (int i = 0; i < 20; ++i) {
                ASSERT_EQ(Fw().Release(), 0);
                ASSERT_EQ(Fw().table.loadService(&Fw().callbacks), 0);
            }
        },
        "0", true);
}

} // namespace
} // namespace kxtest
