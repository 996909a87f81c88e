// SPDX-License-Identifier: Apache-2.0
// Commands, frames and vendor reports all at once: a vendor thread pushes
// frames as fast as it can and another reports service changes while the
// framework reconfigures, opens and closes the cameras. Run under the thread
// sanitizer, this is the suite that finds races between those threads.
#include "kxcamera/plugin.h"

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "registry/registry.h"
#include "service_support.h"

namespace kxtest {
namespace {

constexpr int32_t kWidth = 64;
constexpr int32_t kHeight = 48;
constexpr uint32_t kFrameSize = kWidth * kHeight * 3 / 2;
constexpr int kRounds = 60;
constexpr uint64_t kMaxReports = 400;

// What the vendor side sent, counted on its own threads.
struct VendorTraffic {
    std::atomic<bool> stop{false};
    std::atomic<uint64_t> rawDelivered{0};
    std::atomic<uint64_t> directDelivered{0};
    std::atomic<uint64_t> refusedFrames{0};
    std::atomic<int32_t> lastRefusal{0};
    std::atomic<uint64_t> reports{0};
};

void PushFrames(VendorTraffic &traffic)
{
    const std::vector<uint8_t> frame(kFrameSize, 0x5A);
    while (!traffic.stop.load()) {
        for (const char *id : {"0", "1"}) {
            const int32_t ret = FakeCamera()->PushFrame(id, frame.data(), kFrameSize);
            if (ret == kFakeNotDelivered) {
                continue; // the camera is closed at the vendor
            }
            ++(id[0] == '0' ? traffic.rawDelivered : traffic.directDelivered);
            if (ret != 0) {
                ++traffic.refusedFrames;
                traffic.lastRefusal = ret;
            }
        }
    }
}

void PushReports(VendorTraffic &traffic)
{
    while (!traffic.stop.load() && traffic.reports.load() < kMaxReports) {
        (void)FakeCamera()->PushStatus("0", traffic.reports % 2 == 0 ? 1 : 2);
        (void)FakeCamera()->PushAction("1", 7, "205");
        traffic.reports += 2;
        std::this_thread::yield();
    }
}

class ConcurrencyTest : public ServiceTest {};

TEST_F(ConcurrencyTest, FramesCommandsAndReportsTogetherLoseAndLeakNothing)
{
    // Without colour conversion every raw frame is dropped before encoding.
    const bool encodes = ColourConversionBuiltIn();
    UnitSink::Get().KeepBytes(false);
    ASSERT_EQ(table_.setGlbCmdCb(nullptr, CallbackLog::GlbCallback), 0);
    // Camera 1 hands its encoded stream straight on; camera 0 is encoded here.
    ASSERT_EQ(SetParams("1", OpenParams(kWidth, kHeight, 0, 1)), 0);
    ASSERT_EQ(Send("1", KX_CMD_OPEN), 0);

    VendorTraffic traffic;
    std::thread frames(PushFrames, std::ref(traffic));
    std::thread reports(PushReports, std::ref(traffic));
    std::vector<std::string> failures;
    std::thread commands([&] {
        const std::string raw = OpenParams(kWidth, kHeight, 2, 0);
        auto expect = [&](int32_t ret, const std::string &what) {
            if (ret != 0) {
                failures.push_back(what + " returned " + std::to_string(ret));
            }
        };
        for (int round = 0; round < kRounds && failures.empty(); ++round) {
            // Frames that arrive before the encoder exists are dropped.
            expect(Send("0", KX_CMD_OPEN), "open");
            expect(SetParams("0", raw), "parameters");
            const uint64_t before = UnitSink::Get().Count(KX_MSG_BITSTREAM);
            if (encodes && !UnitSink::Get().WaitFor(KX_MSG_BITSTREAM, before + 1)) {
                failures.push_back("no bitstream in round " + std::to_string(round));
            }
            expect(SetParams("0", FpsParams(15 + round)), "frame rate");
            expect(Send("0", KX_CMD_TRIGGER_IFRAME), "key frame");
            // Replaces the running encoder and thread while frames arrive.
            expect(SetParams("0", raw), "new parameters");
            expect(Send("0", KX_CMD_CLOSE), "close");
        }
    });
    commands.join();
    traffic.stop = true;
    frames.join();
    reports.join();
    EXPECT_EQ(failures, std::vector<std::string>{});
    ASSERT_TRUE(DrainEventQueue());

    // Every raw frame the plugin took was encoded and posted, dropped for
    // want of a running thread, or released at a stop; the allocation count
    // below shows the last.
    const uint64_t processed = FakeEncoder()->CallsTo("VideoEncoderProcess").size();
    const uint64_t dropped = Camera("0")->counters.droppedError;
    EXPECT_EQ(traffic.refusedFrames.load(), 0u) << "last refused with " << traffic.lastRefusal.load();
    EXPECT_GE(processed, encodes ? static_cast<uint64_t>(kRounds) : 0u);
    EXPECT_EQ(UnitSink::Get().Count(KX_MSG_BITSTREAM), processed);
    EXPECT_LE(processed + dropped, traffic.rawDelivered.load());
    EXPECT_EQ(UnitSink::Get().Count(KX_MSG_CAMERA_FRAME), traffic.directDelivered.load());
    EXPECT_EQ(FakeEncoder()->LiveInstances(), 0u);
    EXPECT_EQ(FakeEncoder()->created, 2u * kRounds);
    EXPECT_EQ(FakeCamera()->CallsTo("UpdateConfig").size(), static_cast<size_t>(kRounds));

    ASSERT_EQ(Send("1", KX_CMD_CLOSE), 0);
    ASSERT_EQ(Release(), 0);
    EXPECT_EQ(TalvoTestOutstandingAllocs(), allocBaseline_);
}

} // namespace
} // namespace kxtest
