// SPDX-License-Identifier: Apache-2.0
// The reference camera handler library through its getter, driven the way
// the plugin drives it: what it offers, what its cameras deliver and when,
// what it refuses, and the environment settings that shape it.
#include "kxcamera/camera_handler.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <thread>

#include "av_decode.h"
#include "camera_list.h"
#include "pattern.h"

namespace {

using namespace std::chrono_literals;
using kxpattern::PixelFormat;
using kxtest::Codec;
using Frames = std::vector<std::vector<uint8_t>>;

// What the callbacks saw. A frame callback carries no user data, so the
// record is process-wide; each test starts a fresh one.
struct Seen {
    std::mutex mutex;
    std::condition_variable wake;
    Frames frames;
    std::vector<std::chrono::steady_clock::time_point> at;
    std::vector<std::string> statuses; // "id:status"
    void (*hook)() = nullptr;          // runs inside the frame callback
    bool closed = false;               // CloseCamera has returned
    int running = 0;                   // frame callbacks under way
    int late = 0;                      // frame callbacks begun after CloseCamera returned

    // The first n frames (or reports), once there are n or after ten seconds: a bound, not a measurement.
    Frames Count(size_t n)
    {
        std::unique_lock lock(mutex);
        wake.wait_for(lock, 10s, [&] { return std::max(frames.size(), statuses.size()) >= n; });
        return Frames(frames.begin(), frames.begin() + static_cast<ptrdiff_t>(std::min(n, frames.size())));
    }
    size_t Size()
    {
        const std::lock_guard lock(mutex);
        return frames.size();
    }
} *g_seen = new Seen;

int32_t OnFrame(const char *, uint32_t, const uint8_t *data, uint32_t length)
{
    std::unique_lock lock(g_seen->mutex);
    g_seen->late += g_seen->closed ? 1 : 0;
    ++g_seen->running;
    g_seen->frames.emplace_back(data, data + length);
    g_seen->at.push_back(std::chrono::steady_clock::now());
    g_seen->wake.notify_all();
    lock.unlock();
    if (g_seen->hook != nullptr) {
        g_seen->hook();
    }
    lock.lock();
    return --g_seen->running * 0;
}

int32_t OnStatus(const char *id, uint32_t idLen, uint32_t status)
{
    const std::lock_guard lock(g_seen->mutex);
    g_seen->statuses.push_back(std::string(id, idLen) + ":" + std::to_string(status));
    g_seen->wake.notify_all();
    return 0;
}

// Frames k = 0, 1, ... of the pattern, byte for byte.
void ExpectPattern(PixelFormat format, uint32_t w, uint32_t h, std::span<const std::vector<uint8_t>> frames)
{
    auto pattern = kxpattern::PatternGenerator::Create(format, w, h);
    for (size_t k = 0; k < frames.size(); ++k) {
        EXPECT_TRUE(std::ranges::equal(pattern->Frame(k), frames[k])) << "frame " << k;
    }
}

int32_t Start(const KxCameraHandler &cam, const char *id, uint32_t w, uint32_t h, uint32_t fps, uint32_t fmt)
{
    const KxCameraOpenParams params{id, static_cast<uint32_t>(std::strlen(id)), w, h, fps, fmt, 0};
    return cam.StartCamera(&params);
}

class CameraLibrary : public testing::Test {
protected:
    static void SetUpTestSuite()
    {
        ASSERT_EQ(kxtest::LoadVendor(KXCAMERA_TEST_CAMERA_LIB, KX_CAMERA_HANDLER_GETTER, cam_), 0);
    }
    // No camera streams between tests, so no callback reads the old record.
    void SetUp() override { delete std::exchange(g_seen, new Seen); }
    void TearDown() override
    {
        for (const char *id : {"0", "1", "2"}) {
            cam_.CloseCamera(id, 1);
        }
    }
    static inline KxCameraHandler cam_{};
};

TEST_F(CameraLibrary, RawCameraStreamsThePatternAndFollowsRestartRateAndClose)
{
    KxCameraCapability *items = nullptr;
    uint32_t num = 0;
    ASSERT_EQ(cam_.GetCameraCapability(&items, &num), 0);
    ASSERT_EQ(num, 3u);
    // Camera by camera: id, formats, and of each ability its list lengths and last entries.
    std::string seen;
    for (uint32_t c = 0; c < num; ++c) {
        seen += std::string(items[c].id, items[c].idLen) + (items[c].id[items[c].idLen] == '\0' ? " " : "?") +
                items[c].extendInfos[1].key + ":";
        for (const KxCameraAbility &a : std::span(items[c].abilities, items[c].abilityNum)) {
            seen += std::to_string(a.dataFmt) + "/" + std::to_string(a.fpsRangeNum) + std::to_string(a.sizeNum) + "/" +
                    std::to_string(a.supportFpsRanges[1].min) + "x" + std::to_string(a.supportSizes[2].width) + " ";
        }
    }
    EXPECT_EQ(seen, "0 orientation:17/23/30x1920 4/23/30x1920 1 orientation:1/23/30x1920 "
                    "2 orientation:2/23/30x1920 ");
    KxCameraCapability *again = nullptr;
    ASSERT_EQ(cam_.GetCameraCapability(&again, &num), 0);
    EXPECT_EQ(again, items) << "the array stays the library's, at one place";
    EXPECT_EQ(cam_.ReleaseCameraCapability(1, items, num), 0);
    KxCameraCapability foreign[3]{};
    EXPECT_LT(cam_.ReleaseCameraCapability(1, foreign, 3), 0);

    ASSERT_EQ(cam_.OpenCamera("0", 1, OnFrame), 0);
    ASSERT_EQ(Start(cam_, "0", 640, 480, 30, KX_DATA_FMT_NV21), 0);
    ExpectPattern(PixelFormat::kNV21, 640, 480, g_seen->Count(3));
    // A second start ends the old stream before the new one counts from frame 0.
    ASSERT_EQ(Start(cam_, "0", 1280, 720, 30, KX_DATA_FMT_RGB565), 0);
    const Frames frames = g_seen->Count(g_seen->Size() + 3);
    const auto first = std::ranges::find_if(frames, [](const auto &f) { return f.size() == 1280 * 720 * 2; });
    ASSERT_GE(frames.end() - first, 2);
    EXPECT_TRUE(std::all_of(first, frames.end(), [&](const auto &f) { return f.size() == first->size(); }));
    ExpectPattern(PixelFormat::kRGB565, 1280, 720, std::span(first, frames.end()));

    // Frames come late but never early: six periods at 15 fps take 400 ms, at 30 fps 200.
    ASSERT_EQ(cam_.UpdateConfig("0", 1, 1, "15", 2), 0);
    const size_t changed = g_seen->Size() + 1;
    g_seen->Count(changed + 7);
    {
        const std::lock_guard lock(g_seen->mutex);
        EXPECT_GE(g_seen->at.at(changed + 6) - g_seen->at.at(changed), 330ms);
        g_seen->hook = [] { std::this_thread::sleep_for(20ms); }; // a slow consumer as the close comes in
    }
    ASSERT_EQ(cam_.CloseCamera("0", 1), 0);
    {
        const std::lock_guard lock(g_seen->mutex);
        g_seen->closed = true;
        EXPECT_EQ(g_seen->running, 0) << "a callback still runs";
    }
    std::this_thread::sleep_for(100ms);
    EXPECT_EQ(g_seen->Count(0).size() * 0 + g_seen->late, 0) << "a frame came after the close";

    // A close from the camera's own callback would wait for itself.
    static std::atomic<int32_t> fromCallback;
    fromCallback = 1;
    delete std::exchange(g_seen, new Seen);
    g_seen->hook = [] { fromCallback = fromCallback == 1 ? cam_.CloseCamera("0", 1) : fromCallback.load(); };
    ASSERT_EQ(cam_.OpenCamera("0", 1, OnFrame), 0);
    ASSERT_EQ(Start(cam_, "0", 640, 480, 30, KX_DATA_FMT_NV21), 0);
    EXPECT_EQ(g_seen->Count(2).size(), 2u) << "the camera stopped";
    EXPECT_LT(fromCallback, 0);
}

class SelfEncodingCamera : public CameraLibrary, public testing::WithParamInterface<Codec> {};

// The camera encodes at constant quality, near 40 dB for this pattern at
// 640x480; 30 dB still fails a swapped plane or a wrong stride by far.
TEST_P(SelfEncodingCamera, UnitsDecodeToThePatternAndAKeyFrameRequestBringsAnIdr)
{
    const Codec codec = GetParam();
    const char *id = codec == Codec::kH264 ? "1" : "2";
    const uint32_t fmt = codec == Codec::kH264 ? KX_DATA_FMT_H264 : KX_DATA_FMT_H265;
    ASSERT_EQ(cam_.OpenCamera(id, 1, OnFrame), 0);
    EXPECT_LT(Start(cam_, id, 640, 480, 30, KX_DATA_FMT_H264 + KX_DATA_FMT_H265 - fmt), 0);
    ASSERT_EQ(Start(cam_, id, 640, 480, 30, fmt), 0);
    const Frames units = g_seen->Count(4);
    auto pattern = kxpattern::PatternGenerator::Create(PixelFormat::kI420, 640, 480);
    const std::vector<kxtest::Picture> pictures = kxtest::DecodeEach(codec, units, 640, 480);
    ASSERT_EQ(pictures.size(), 4u);
    for (size_t k = 0; k < units.size(); ++k) {
        for (const double psnr : kxtest::PlanePsnr(pictures[k].i420, pattern->Frame(k), 640, 480)) {
            EXPECT_GT(psnr, 30.0) << "unit " << k;
        }
        EXPECT_EQ(pictures[k].key, k == 0) << "the next key frame is due two seconds in";
    }
    EXPECT_TRUE(kxtest::DecodesAlone(codec, units[0], 640, 480));
    // A unit delivered or being encoded as the request comes in may still be a P frame.
    const size_t requested = g_seen->Size();
    ASSERT_EQ(cam_.BusinessControl(1, nullptr, 0, nullptr, 0), 0);
    const Frames after = g_seen->Count(requested + 3);
    ASSERT_EQ(after.size(), requested + 3);
    EXPECT_TRUE(std::any_of(after.begin() + static_cast<ptrdiff_t>(requested), after.end(),
                            [codec](const auto &u) { return kxtest::DecodesAlone(codec, u, 640, 480); }));
}

INSTANTIATE_TEST_SUITE_P(Codecs, SelfEncodingCamera, testing::Values(Codec::kH264, Codec::kH265));

// In order, with camera 0 opened and not started, then closed: every refusal
// is negative and sends nothing.
TEST_F(CameraLibrary, RefusesWhatItCannotDoAndSendsNothing)
{
    ASSERT_EQ(cam_.OpenCamera("0", 1, OnFrame), 0);
    const auto &c = cam_;
    int n = 0;
    for (const int32_t status :
         {c.OpenCamera("7", 1, OnFrame), c.OpenCamera("01", 2, OnFrame), c.OpenCamera("1", 1, nullptr),
          Start(c, "2", 640, 480, 30, 2), Start(c, "0", 800, 600, 30, 17), Start(c, "0", 640, 480, 31, 17),
          Start(c, "0", 640, 480, 14, 17), Start(c, "0", 640, 480, 30, 1), c.UpdateConfig("0", 1, 2, "20", 2),
          c.UpdateConfig("0", 1, 1, "20x", 3), c.UpdateConfig("0", 1, 1, "", 0), c.UpdateConfig("0", 1, 1, "31", 2),
          c.UpdateConfig("0", 1, 1, "00000000000000020", 17), c.BusinessControl(2, nullptr, 0, nullptr, 0),
          c.RegisterListener(nullptr)}) {
        EXPECT_LT(status, 0) << "call " << n++;
    }
    ASSERT_EQ(cam_.CloseCamera("0", 1), 0);
    EXPECT_LT(Start(c, "0", 640, 480, 30, 17), 0);
    EXPECT_EQ(g_seen->Size(), 0u);
}

TEST_F(CameraLibrary, ReportsEveryCameraStatusAfterRegistrationWhenTheEnvironmentAsks)
{
    ASSERT_EQ(setenv("TALVO_VCAM_REPORT_STATUS", " 2 @ 0", 1), 0);
    KxServiceListener listener{OnStatus, nullptr};
    ASSERT_EQ(cam_.RegisterListener(&listener), 0);
    listener = {}; // lent for the call only: the library keeps its own copy
    unsetenv("TALVO_VCAM_REPORT_STATUS");
    g_seen->Count(3);
    const std::lock_guard lock(g_seen->mutex);
    EXPECT_EQ(g_seen->statuses, (std::vector<std::string>{"0:2", "1:2", "2:2"}));
}

// The camera list is read once, when the library is loaded: each list is
// tried in a child process of its own.
TEST(CameraLibraryEnvironment, CameraListComesFromTheEnvironmentAndAnInvalidOneMakesTheGetterRefuse)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    KxCameraHandler cam{};
    KxCameraCapability *items = nullptr;
    uint32_t num = 0;
    const auto load = [&cam](const char *list) {
        setenv("TALVO_VCAM_CAMERAS", list, 1);
        return kxtest::LoadVendor(KXCAMERA_TEST_CAMERA_LIB, KX_CAMERA_HANDLER_GETTER, cam);
    };
    EXPECT_EXIT(std::exit(load("front:h265, back : raw") == 0 && cam.GetCameraCapability(&items, &num) == 0 &&
                                  num == 2 && items[0].abilities[0].dataFmt == KX_DATA_FMT_H265 &&
                                  cam.OpenCamera("0", 1, OnFrame) < 0 && cam.OpenCamera("back", 4, OnFrame) == 0
                              ? 0
                              : 1),
                testing::ExitedWithCode(0), "");
    EXPECT_EXIT(std::exit(load("0:raw,0:h264") < 0 ? 0 : 1), testing::ExitedWithCode(0), "appears twice");
}

// The settings' syntax: lists of cameras (how many each gives, 0 when
// refused) and status reports (refused ones only).
TEST(CameraLibrarySettings, ValidTextsParseAndTheRestIsRefusedWithAReason)
{
    std::string many;
    for (int i = 0; i < 17; ++i) {
        many += std::to_string(i) + ":raw,";
    }
    const std::pair<std::string, size_t> lists[] = {{" a : h265 ,b:raw", 2},
                                                    {"cam-1.left_2:raw", 1},
                                                    {std::string(64, 'x') + ":raw", 1},
                                                    {std::string(65, 'x') + ":raw", 0},
                                                    {many.substr(0, many.size() - 8), 16},
                                                    {many.substr(0, many.size() - 1), 0},
                                                    {"0:raw,", 0},
                                                    {"0", 0},
                                                    {":raw", 0},
                                                    {"0:RAW", 0},
                                                    {"a b:raw", 0},
                                                    {"a\"b:raw", 0},
                                                    {"0:raw:1", 0}};
    std::string error;
    for (const auto &[text, cameras] : lists) {
        error.clear();
        const auto parsed = kxvcam::ParseCameraList(text, error);
        EXPECT_EQ(parsed.value_or(std::vector<kxvcam::CameraEntry>{}).size(), cameras) << text;
        EXPECT_EQ(error.empty(), parsed.has_value()) << text;
    }
    EXPECT_EQ(kxvcam::ParseStatusReport(" 1 @ 60000 ", error), (kxvcam::StatusReport{1, 60000ms}));
    for (const char *bad : {"", "x", "1@", "@5", "1@60001", "1@-1", "1@5@6", "99999999999"}) {
        EXPECT_FALSE(kxvcam::ParseStatusReport(bad, error).has_value()) << bad;
    }
}

} // namespace
