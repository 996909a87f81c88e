// SPDX-License-Identifier: Apache-2.0
// The encoder lane under hostile input and load: sizes that overflow or
// disagree with the frame, an encoder that falls behind, callbacks that close
// or reconfigure from inside the encoding path, a vendor that will not close,
// callbacks replaced while frames flow, reports during load and release.
#include "kxcamera/plugin.h"

#include <atomic>
#include <chrono>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "service_support.h"
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
Bytes Frame(uint8_t index, uint32_t size = kRgbSize) { return Bytes(size, index); }

template <typename Pred>
bool WaitUntil(Pred pred)
{
    for (auto until = std::chrono::steady_clock::now() + 10s; std::chrono::steady_clock::now() < until;) {
        if (pred()) {
            return true;
        }
        std::this_thread::sleep_for(1ms);
    }
    return pred();
}

class LaneTest : public ServiceTest {
protected:
    KxCameraFrameCounters Counters(const char *serviceId = "Camera_0")
    {
        KxCameraFrameCounters counters{};
        const KxServiceIdDesc desc{serviceId, static_cast<uint32_t>(std::strlen(serviceId)), 1};
        EXPECT_EQ(KxCameraGetFrameCounters(&desc, &counters), 0);
        return counters;
    }
    // Every frame taken in has been encoded or dropped.
    bool Settled()
    {
        const KxCameraFrameCounters c = Counters();
        return c.framesIn == c.framesEncoded + c.droppedOverload + c.droppedError;
    }
    void OpenRaw(int32_t colorFmt = 4)
    {
        ASSERT_EQ(SetParams("0", OpenParams(kWidth, kHeight, colorFmt, 0)), 0) << DumpLogs();
        ASSERT_EQ(Send("0", KX_CMD_OPEN), 0) << DumpLogs();
    }
    size_t Processed() const { return FakeEncoder()->CallsTo("VideoEncoderProcess").size(); }
};

TEST_F(LaneTest, HostileSizesNeverReachTheConverterOrTheEncoder)
{
    EXPECT_EQ(GetVideoFrameSize(2147483646, 2147483646, KX_CSP_I420), -1);
    EXPECT_EQ(GetVideoFrameSize(32768, 32768, KX_CSP_RGB565), -1);
    if (!ColourConversionBuiltIn()) {
        GTEST_SKIP() << "no raw frame is encoded without colour conversion";
    }
    OpenRaw();
    ASSERT_EQ(FakeCamera()->PushFrame("0", Frame(1).data(), kRgbSize), 0);
    ASSERT_TRUE(WaitUntil([&] { return Processed() == 1; }));

    // Refused, yet its size is kept: the next frame is far too short for it.
    EXPECT_EQ(SetParams("0", R"({"Width":32768,"Height":32768})"), -1001);
    TalvoTestLogClear();
    ASSERT_EQ(FakeCamera()->PushFrame("0", Frame(2).data(), kRgbSize), 0);
    ASSERT_TRUE(WaitUntil([&] { return Settled(); }));
    EXPECT_TRUE(HasLog(1, "VideoPreprocess failed ,error code -5")) << DumpLogs();

    // A size the frame covers, but not the one the encoder was made for.
    EXPECT_EQ(SetParams("0", R"({"Width":32,"Height":24})"), -1001);
    TalvoTestLogClear();
    for (uint8_t i = 0; i < 3; ++i) {
        ASSERT_EQ(FakeCamera()->PushFrame("0", Frame(i, 32 * 24 * 2).data(), 32 * 24 * 2), 0);
    }
    ASSERT_TRUE(WaitUntil([&] { return Settled(); }));
    EXPECT_EQ(Processed(), 1u) << "no frame of another size reached the encoder";
    EXPECT_EQ(TextsAtLevel(1).size(), 1u) << "a run of them is reported once: " << DumpLogs();
    EXPECT_EQ(Counters().droppedError, 4u);
}

TEST_F(LaneTest, SlowEncoderDropsTheOldestButKeepsBurstsAndTheNewest)
{
    if (!ColourConversionBuiltIn()) {
        GTEST_SKIP() << "no raw frame is encoded without colour conversion";
    }
    FakeEncoder()->processDelayMs = 600; // far slower than the 30 frames a second negotiated
    OpenRaw(2);
    const auto push = [](uint8_t index) {
        return FakeCamera()->PushFrame("0", Frame(index, kNv21Size).data(), kNv21Size);
    };
    // While frame 0 is encoded, a burst arrives at once: it waits whole.
    for (uint8_t i = 0; i < 6; ++i) {
        ASSERT_EQ(push(i), 0);
    }
    ASSERT_TRUE(WaitUntil([&] { return Processed() == 1; }));
    ASSERT_TRUE(WaitUntil([&] { return Settled(); }));
    EXPECT_EQ(Counters().droppedOverload, 0u);

    // Then frames far apart: each newcomer makes the ones waiting too old.
    for (uint8_t i = 6; i < 9; ++i) {
        ASSERT_EQ(push(i), 0);
        std::this_thread::sleep_for(100ms);
    }
    ASSERT_TRUE(WaitUntil([&] { return Settled(); }));
    const KxCameraFrameCounters c = Counters();
    EXPECT_EQ(c.framesIn, 9u);
    EXPECT_EQ(c.droppedOverload, 1u) << "frame 7 was waiting when 8 came";
    EXPECT_EQ(c.droppedError, 0u);
    std::vector<int> delivered;
    for (const ReceivedUnit &unit : UnitSink::Get().Units(KX_MSG_BITSTREAM)) {
        delivered.push_back(unit.bytes.at(kFakeBitstreamHeader));
    }
    EXPECT_EQ(delivered, (std::vector<int>{0, 1, 2, 3, 4, 5, 6, 8}));
    EXPECT_NE(DumpLogs().find("[2] ReportOverload: encoder of Ca****_0 falls behind"), std::string::npos)
        << DumpLogs();
}

// The framework's callback, run on the plugin's encoding path, closes the
// camera or sets it up anew.
struct Reaction {
    const char *name;
    FakeEncoderOutputMode output;
    bool reopen;
};

void PrintTo(const Reaction &r, std::ostream *out) { *out << r.name; }

class LaneCallbackTest : public LaneTest, public ::testing::WithParamInterface<Reaction> {
protected:
    static int32_t React(const KxServiceIdDesc *identity, const KxCommand *message, void *userData)
    {
        auto *self = static_cast<LaneCallbackTest *>(userData);
        if (message->code != KX_MSG_BITSTREAM && message->code != KX_MSG_CAMERA_FRAME) {
            return UnitSink::CmdCallback(identity, message, nullptr);
        }
        {
            auto *payload = static_cast<const KxCallbackPayload *>(message->output);
            OutputCameraDataFree(static_cast<KxVideoAccessUnit *>(payload->data), nullptr);
            if (self->reacted_.exchange(true)) {
                self->later_.fetch_add(1);
                return 0;
            }
            self->status_ = GetParam().reopen ? self->SetParams("0", OpenParams(kWidth, kHeight, 4, 0))
                                              : self->Send("0", KX_CMD_CLOSE);
            self->done_ = true;
        }
        return 0;
    }
    std::atomic<bool> reacted_{false};
    std::atomic<bool> done_{false};
    std::atomic<int> later_{0};
    std::atomic<int32_t> status_{1};
};

TEST_P(LaneCallbackTest, ReactionFromInsideFinishesWithoutWaitingForItself)
{
    if (!ColourConversionBuiltIn()) {
        GTEST_SKIP() << "no raw frame is encoded without colour conversion";
    }
    FakeEncoder()->outputMode = GetParam().output;
    OpenRaw();
    const KxServiceIdDesc desc{"Camera_0", 8, 1};
    ASSERT_EQ(table_.setCmdCb(&desc, React, this), 0);
    ASSERT_EQ(FakeCamera()->PushFrame("0", Frame(1).data(), kRgbSize), 0);
    ASSERT_TRUE(WaitUntil([&] { return done_.load(); })) << "deadlocked: " << DumpLogs();
    EXPECT_EQ(status_, 0) << DumpLogs();
    // The retired encoder goes once its thread has left it.
    ASSERT_TRUE(WaitUntil([&] { return FakeEncoder()->CallsTo("VideoEncoderDestroy").size() == 1; })) << DumpLogs();
    if (GetParam().reopen) {
        ASSERT_EQ(FakeCamera()->PushFrame("0", Frame(2).data(), kRgbSize), 0);
        ASSERT_TRUE(WaitUntil([&] { return later_.load() == 1; })) << "the new lane encodes: " << DumpLogs();
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
                                           Reaction{"ReopenOnEncoderOwnThread", kFakeOutputCallbackThread, true}));

TEST_F(LaneTest, ReleaseWaitsForTheFrameInsideAndThenFindsNoRecord)
{
    // The framework's callback holds a frame inside the intake while release runs.
    static std::atomic<int> stage;
    static std::atomic<bool> released;
    static std::atomic<bool> releasedUnderneath;
    stage = 0;
    released = false;
    releasedUnderneath = false;
    const KxCmdCallback hold = [](const KxServiceIdDesc *identity, const KxCommand *message, void *) -> int32_t {
        if (message->code != KX_MSG_CAMERA_FRAME) {
            return UnitSink::CmdCallback(identity, message, nullptr);
        }
        auto *payload = static_cast<const KxCallbackPayload *>(message->output);
        OutputCameraDataFree(static_cast<KxVideoAccessUnit *>(payload->data), nullptr);
        stage = 1;
        while (stage != 2) {
            std::this_thread::yield();
        }
        std::this_thread::sleep_for(100ms);
        releasedUnderneath = released.load();
        return 0;
    };
    ASSERT_EQ(SetParams("1", OpenParams(kWidth, kHeight, 2, 1)), 0);
    ASSERT_EQ(Send("1", KX_CMD_OPEN), 0);
    const KxServiceIdDesc desc{"Camera_1", 8, 1};
    ASSERT_EQ(table_.setCmdCb(&desc, hold, nullptr), 0);
    FakeCamera()->status.closeCamera = -7; // the vendor keeps delivering
    const Bytes unit(64, 1);
    std::thread vendor([&] { FakeCamera()->PushFrame("1", unit.data(), 64); });
    while (stage != 1) {
        std::this_thread::yield();
    }
    stage = 2;
    EXPECT_EQ(Release(), 0);
    released = true;
    vendor.join();
    EXPECT_FALSE(releasedUnderneath) << "the record went while a frame was inside";
    EXPECT_EQ(FakeCamera()->PushFrame("1", unit.data(), 64), -5) << "after release no record is found";
    FakeCamera()->status.closeCamera = 0;
    ASSERT_EQ(table_.loadService(&callbacks_), 0); // for the fixture's own release
}

TEST_F(LaneTest, CallbackAndUserDataArriveAsThePairThatWasSet)
{
    struct Tag {
        std::atomic<int> mismatches{0};
        std::atomic<int> frames{0};
    };
    static Tag tags[2];
    static constexpr auto kCheck = [](const KxServiceIdDesc *identity, const KxCommand *message, void *userData,
                                       Tag *expected) {
        if (message->code != KX_MSG_CAMERA_FRAME) {
            (void)UnitSink::CmdCallback(identity, message, nullptr);
            return;
        }
        auto *payload = static_cast<const KxCallbackPayload *>(message->output);
        OutputCameraDataFree(static_cast<KxVideoAccessUnit *>(payload->data), nullptr);
        expected->frames.fetch_add(1);
        if (userData != expected) {
            expected->mismatches.fetch_add(1);
        }
    };
    const KxCmdCallback callbacks[2] = {
        [](const KxServiceIdDesc *i, const KxCommand *m, void *u) -> int32_t { return kCheck(i, m, u, &tags[0]), 0; },
        [](const KxServiceIdDesc *i, const KxCommand *m, void *u) -> int32_t { return kCheck(i, m, u, &tags[1]), 0; },
    };
    ASSERT_EQ(SetParams("1", OpenParams(kWidth, kHeight, 2, 1)), 0);
    ASSERT_EQ(Send("1", KX_CMD_OPEN), 0);
    std::atomic<bool> stop{false};
    std::thread vendor([&] {
        const Bytes unit(32, 1);
        while (!stop) {
            FakeCamera()->PushFrame("1", unit.data(), 32, kFakeOnVendorThread);
        }
    });
    const KxServiceIdDesc desc{"Camera_1", 8, 1};
    for (int i = 0; tags[0].frames + tags[1].frames < 400; ++i) {
        ASSERT_EQ(table_.setCmdCb(&desc, callbacks[i % 2], &tags[i % 2]), 0);
    }
    stop = true;
    vendor.join();
    EXPECT_EQ(tags[0].mismatches + tags[1].mismatches, 0);
}

TEST_F(LaneTest, ReportsDuringReleaseAndReloadAreSafe)
{
    std::atomic<bool> stop{false};
    std::thread vendor([&] {
        while (!stop) {
            FakeCamera()->PushStatus("0", 1, kFakeOnVendorThread);
        }
    });
    for (int i = 0; i < 20; ++i) {
        ASSERT_EQ(Release(), 0);
        ASSERT_EQ(table_.loadService(&callbacks_), 0);
    }
    stop = true;
    vendor.join();
}

} // namespace
} // namespace kxtest
