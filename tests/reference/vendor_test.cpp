// SPDX-License-Identifier: Apache-2.0
// The reference vendor libraries through their getters, driven the way the
// plugin drives them. The camera library: what its cameras deliver and when,
// what it refuses, the environment settings that shape it. The encoder
// library: what a decoder makes of its output, its rate control and key
// frames, its instance bound, what it refuses, and the private link through
// which the raw camera reaches it. The moving test pattern both show: cheap
// redraws equal whole renders, every layout carries the picture of the I420
// one as libyuv reads it, and what cannot be laid out is refused. What every
// vendor library must do, the compliance checker judges on these same
// libraries (tests/compliance).
#include "kxcamera/camera_handler.h"
#include "kxcamera/video_encoder.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <functional>
#include <mutex>
#include <random>

#ifdef KXCAMERA_TEST_WITH_LIBYUV
#include <libyuv.h>
#endif

#include "av_decode.h"
#include "camera_list.h"
#include "pattern.h"

namespace {

using namespace std::chrono_literals;
using kxpattern::PixelFormat;
using enum kxpattern::PixelFormat;
using kxtest::Codec;
using Frames = std::vector<std::vector<uint8_t>>;

// What the callbacks saw. A frame callback carries no user data, so the
// record is process-wide; each test starts a fresh one.
struct Seen {
    std::mutex mutex;
    std::condition_variable wake;
    Frames frames;
    std::vector<std::chrono::steady_clock::time_point> at;
    std::function<void()> hook = [] {}; // runs once, in the next frame callback, after the frame is recorded

    // Every frame so far, once there are n or after ten seconds: a bound, not a measurement.
    Frames Count(size_t n)
    {
        std::unique_lock lock(mutex);
        wake.wait_for(lock, 10s, [&] { return frames.size() >= n; });
        return frames;
    }
    // Sets the hook; returns the number of the frame whose callback will run it.
    size_t Hook(std::function<void()> next)
    {
        const std::lock_guard lock(mutex);
        hook = std::move(next);
        return frames.size();
    }
} *g_seen = new Seen;

int32_t OnFrame(const char *, uint32_t, const uint8_t *data, uint32_t length)
{
    std::unique_lock lock(g_seen->mutex);
    g_seen->frames.emplace_back(data, data + length);
    g_seen->at.push_back(std::chrono::steady_clock::now());
    g_seen->wake.notify_all();
    const std::function<void()> hook = std::exchange(g_seen->hook, [] {});
    lock.unlock();
    hook();
    return 0;
}

// A status report is recorded as a frame of its text, "id:status".
int32_t OnStatus(const char *id, uint32_t idLen, uint32_t status)
{
    const std::string text = std::string(id, idLen) + ":" + std::to_string(status);
    return OnFrame(id, idLen, reinterpret_cast<const uint8_t *>(text.data()), static_cast<uint32_t>(text.size()));
}

// Frame `index` of the pattern, rendered whole.
std::vector<uint8_t> Render(PixelFormat format, uint32_t w, uint32_t h, uint64_t index)
{
    std::vector<uint8_t> frame(kxpattern::FrameBytes(format, w, h));
    EXPECT_TRUE(kxpattern::PatternGenerator::Create(format, w, h)->RenderTo(index, frame));
    return frame;
}

// Frames k = 0, 1, ... of the pattern, byte for byte.
void ExpectPattern(PixelFormat format, uint32_t w, uint32_t h, std::span<const std::vector<uint8_t>> frames)
{
    for (size_t k = 0; k < frames.size(); ++k) {
        EXPECT_TRUE(frames[k] == Render(format, w, h, k)) << "frame " << k;
    }
}

// Decodes the units in order: unit k shows pattern frame k above 30 dB on
// every plane (a swapped plane or a wrong stride costs far more), and is a
// key frame exactly when it is one of `keys`.
void ExpectPatternUnits(Codec codec, const Frames &units, uint32_t w, uint32_t h, std::initializer_list<size_t> keys)
{
    const std::vector<kxtest::Picture> pictures = kxtest::DecodeEach(codec, units, int(w), int(h));
    ASSERT_EQ(pictures.size(), units.size()) << "a unit held back or undecodable";
    for (size_t k = 0; k < units.size(); ++k) {
        EXPECT_EQ(pictures[k].key, std::ranges::count(keys, k) == 1) << "unit " << k;
        for (const double psnr : kxtest::PlanePsnr(pictures[k].i420, Render(kI420, w, h, k), int(w), int(h))) {
            EXPECT_GT(psnr, 30.0) << "unit " << k;
        }
    }
}

// Both libraries are loaded, as the plugin loads them: the raw camera then
// reaches the encoder's instances through their private link.
class CameraLibrary : public testing::Test {
protected:
    static void SetUpTestSuite()
    {
        ASSERT_EQ(kxtest::LoadVendor(KXCAMERA_TEST_CAMERA_LIB, KX_CAMERA_HANDLER_GETTER, cam_), 0);
        ASSERT_EQ(kxtest::LoadVendor(KXCAMERA_TEST_ENCODER_LIB, KX_VIDEO_ENCODER_GETTER, venc_), 0);
    }
    // No camera streams between tests, so no callback reads the old record.
    void SetUp() override { delete std::exchange(g_seen, new Seen); }
    void TearDown() override { cam_.CloseCamera("0", 1), cam_.CloseCamera("1", 1), cam_.CloseCamera("2", 1); }
    static int32_t Start(const char *id, uint32_t w, uint32_t h, uint32_t fps, uint32_t fmt)
    {
        const KxCameraOpenParams params{id, static_cast<uint32_t>(std::strlen(id)), w, h, fps, fmt, 0};
        return cam_.StartCamera(&params);
    }
    static inline KxCameraHandler cam_{};
    static inline KxVideoEncoderHandler venc_{};
};

TEST_F(CameraLibrary, RawCameraRefusesWhatItCannotDoStreamsThePatternAndFollowsRestartRateAndClose)
{
    KxCameraCapability *items = nullptr;
    uint32_t num = 0;
    ASSERT_EQ(cam_.GetCameraCapability(&items, &num), 0);
    // The library's own array is taken back, and no other, not even a part of it.
    EXPECT_LT(cam_.ReleaseCameraCapability(1, items + 1, num - 1), 0);
    EXPECT_EQ(cam_.ReleaseCameraCapability(1, items, num), 0);

    // In order, with camera 0 opened and not started: every refusal is negative (and sends nothing: the pattern
    // counts from frame 0 after the start that follows).
    ASSERT_EQ(cam_.OpenCamera("0", 1, OnFrame), 0);
    const auto &c = cam_;
    int n = 0;
    for (const int32_t status :
         {c.OpenCamera("7", 1, OnFrame), c.OpenCamera("01", 2, OnFrame), c.OpenCamera("1", 1, nullptr),
          Start("2", 640, 480, 30, 2), Start("0", 800, 600, 30, 17), Start("0", 640, 480, 31, 17),
          Start("0", 640, 480, 14, 17), Start("0", 640, 480, 30, 1), c.UpdateConfig("0", 1, 2, "20", 2),
          c.UpdateConfig("0", 1, 1, "20x", 3), c.UpdateConfig("0", 1, 1, "", 0), c.UpdateConfig("0", 1, 1, "31", 2),
          c.UpdateConfig("0", 1, 1, "00000000000000020", 17), c.BusinessControl(2, nullptr, 0, nullptr, 0),
          c.RegisterListener(nullptr)}) {
        EXPECT_LT(status, 0) << "call " << n++;
    }

    ASSERT_EQ(Start("0", 640, 480, 30, KX_DATA_FMT_NV21), 0);
    ExpectPattern(kNV21, 640, 480, g_seen->Count(3));
    // A second start ends the old stream before the new one counts from frame 0.
    ASSERT_EQ(Start("0", 1280, 720, 30, KX_DATA_FMT_RGB565), 0);
    const Frames frames = g_seen->Count(g_seen->Count(0).size() + 3);
    const auto first = std::ranges::find_if(frames, [](const auto &f) { return f.size() == 1280 * 720 * 2; });
    ASSERT_GE(frames.end() - first, 2);
    ExpectPattern(kRGB565, 1280, 720, std::span(first, frames.end()));

    // Asked from a frame callback, a rate change puts the next frame one new period later: two periods at 15 fps
    // take 133 ms, at 30 fps or with a frame sent at once 67. A close from there would wait for itself.
    const size_t k = g_seen->Hook([] {
        EXPECT_EQ(cam_.UpdateConfig("0", 1, 1, "15", 2), 0);
        EXPECT_LT(cam_.CloseCamera("0", 1), 0);
    });
    g_seen->Count(k + 3);
    {
        const std::lock_guard lock(g_seen->mutex);
        EXPECT_GE(g_seen->at.at(k + 2) - g_seen->at.at(k), 100ms);
    }
    ASSERT_EQ(cam_.CloseCamera("0", 1), 0);
    EXPECT_LT(Start("0", 640, 480, 30, 17), 0);
}

class SelfEncodingCamera : public CameraLibrary, public testing::WithParamInterface<Codec> {};

// The camera encodes at constant quality, near 40 dB for this pattern at
// 640x480. A key-frame request from the callback of unit k makes unit k + 1
// an IDR, with its parameter sets; the next one that comes by itself is due
// two seconds in.
TEST_P(SelfEncodingCamera, UnitsDecodeToThePatternAndAKeyFrameRequestBringsAnIdr)
{
    const Codec codec = GetParam();
    const char *id = codec == Codec::kH264 ? "1" : "2";
    ASSERT_EQ(cam_.OpenCamera(id, 1, OnFrame), 0);
    ASSERT_EQ(Start(id, 640, 480, 30, codec == Codec::kH264 ? KX_DATA_FMT_H264 : KX_DATA_FMT_H265), 0);
    g_seen->Count(3);
    const size_t k = g_seen->Hook([] { cam_.BusinessControl(1, nullptr, 0, nullptr, 0); });
    const Frames units = g_seen->Count(k + 2);
    ExpectPatternUnits(codec, units, 640, 480, {0, k + 1});
    EXPECT_EQ(kxtest::DecodeEach(codec, Frames{units.at(k + 1)}, 640, 480).size(), 1u) << "an IDR that needs more";
}

INSTANTIATE_TEST_SUITE_P(Codecs, SelfEncodingCamera, testing::Values(Codec::kH264, Codec::kH265));

TEST_F(CameraLibrary, ReportsEveryCameraStatusAfterRegistrationWhenTheEnvironmentAsks)
{
    ASSERT_EQ(setenv("TALVO_VCAM_REPORT_STATUS", " 2 @ 0", 1), 0);
    KxServiceListener listener{OnStatus, nullptr};
    ASSERT_EQ(cam_.RegisterListener(&listener), 0);
    unsetenv("TALVO_VCAM_REPORT_STATUS");
    EXPECT_EQ(g_seen->Count(3), (Frames{{'0', ':', '2'}, {'1', ':', '2'}, {'2', ':', '2'}}));
}

// The settings' syntax: lists of cameras (how many each gives, 0 when
// refused, with a reason) and status reports; then the camera list as the
// library takes it from the environment, where an invalid one makes the
// getter refuse.
TEST(CameraLibrarySettings, ValidTextsParseTheRestIsRefusedWithAReasonAndTheLibraryTakesTheCameraList)
{
    const std::string many = "0:raw,1:raw,2:raw,3:raw,4:raw,5:raw,6:raw,7:raw,8:raw,9:raw,10:raw,11:raw,12:raw,13:raw,"
                             "14:raw,15:raw,16:raw"; // seventeen cameras
    const auto list = [](const std::string &text, size_t cameras) { return std::pair(text, cameras); };
    std::string error;
    for (const auto &[text, cameras] :
         {list(" a : h265 ,b:raw", 2), list("cam-1.left_2:raw", 1), list(std::string(64, 'x') + ":raw", 1),
          list(std::string(65, 'x') + ":raw", 0), list(many.substr(0, many.size() - 7), 16), list(many, 0),
          list("0:raw,", 0), list("0", 0), list(":raw", 0), list("0:RAW", 0), list("a b:raw", 0), list("a\"b:raw", 0),
          list("0:raw:1", 0)}) {
        error.clear();
        const auto parsed = kxvcam::ParseCameraList(text, error);
        EXPECT_EQ(parsed.value_or(std::vector<kxvcam::CameraEntry>{}).size(), cameras) << text;
        EXPECT_EQ(error.empty(), parsed.has_value()) << text;
    }
    EXPECT_EQ(kxvcam::ParseStatusReport(" 1 @ 60000 ", error), (kxvcam::StatusReport{1, 60000ms}));
    for (const char *bad : {"", "x", "1@", "@5", "1@60001", "1@-1", "1@5@6", "99999999999"}) {
        EXPECT_FALSE(kxvcam::ParseStatusReport(bad, error).has_value()) << bad;
    }
    // The camera list is read once, when the library is loaded: each list is tried in a child process of its own.
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const auto opens = [](const char *cameras, const char *id) {
        setenv("TALVO_VCAM_CAMERAS", cameras, 1);
        KxCameraHandler cam{};
        return kxtest::LoadVendor(KXCAMERA_TEST_CAMERA_LIB, KX_CAMERA_HANDLER_GETTER, cam) == 0 &&
               cam.OpenCamera(id, static_cast<uint32_t>(std::strlen(id)), OnFrame) == 0;
    };
    EXPECT_EXIT(std::exit(opens("front:h265, back : raw", "back") && !opens("", "0") ? 0 : 1),
                testing::ExitedWithCode(0), "");
    EXPECT_EXIT(std::exit(opens("0:raw,0:h264", "0") ? 1 : 0), testing::ExitedWithCode(0), "appears twice");
}

struct Stream {
    int32_t csp;
    uint32_t w, h;
};

class EncoderLibrary : public CameraLibrary {
protected:
    void TearDown() override { venc_.VideoEncoderDestroy(&handle_), CameraLibrary::TearDown(); }
    int32_t Open(Stream s, uint32_t bitRate)
    {
        const KxVencCreateParams create{{}, s.h, s.w, static_cast<uint32_t>(s.csp), 0, nullptr, nullptr};
        const KxVencConfigParams config{30, 30, bitRate, bitRate, 0};
        // x264 warns about settings that contradict each other, such as a buffer without a ceiling.
        testing::internal::CaptureStderr();
        const int32_t status = venc_.VideoEncoderCreate(&handle_, &create);
        const int32_t configured = status != 0 ? status : venc_.VideoEncoderConfigure(handle_, &config);
        EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
        return configured;
    }
    // Frame `index` of the pattern in the stream's layout, with sensor-like
    // noise on the luma when asked: then the rate control, not the content,
    // decides the size.
    std::vector<uint8_t> Encode(Stream s, uint64_t index, bool noise = false, uint32_t flags = 0)
    {
        std::vector<uint8_t> frame = Render(s.csp == KX_CSP_NV12 ? kNV12 : kI420, s.w, s.h, index);
        std::minstd_rand random(static_cast<uint32_t>(index) + 1);
        for (size_t i = 0; noise && i < size_t{s.w} * s.h; ++i) {
            frame[i] = static_cast<uint8_t>(std::clamp(frame[i] + static_cast<int>(random() % 25) - 12, 0, 255));
        }
        KxVencInputFrame input{
            frame.data(), static_cast<uint32_t>(frame.size()), s.csp, static_cast<int64_t>(index) * 33333, s.w, s.h};
        KxVencOutput output{};
        EXPECT_EQ(venc_.VideoEncoderProcess(handle_, &input, flags, &output), 0) << "frame " << index;
        EXPECT_EQ(output.timeStamp, input.timeStamp);
        return {output.bsBuf, output.bsBuf + std::max(output.bsLength, 0)};
    }
    void *handle_ = nullptr;
};

// 3 Mbit/s at 640x480 and 30 fps keeps this pattern above 35 dB on every
// plane. The rate changes on frame 8 and the key frame flag on 6 bring an
// IDR, a bit rate change on 4 continues the stream.
class EncoderRoundTrip : public EncoderLibrary, public testing::WithParamInterface<Stream> {};

TEST_P(EncoderRoundTrip, EveryUnitDecodesToItsSourceFrameAndKeyFramesComeWhenAsked)
{
    const Stream s = GetParam();
    ASSERT_EQ(Open(s, 3000000), 0);
    Frames units;
    for (uint64_t index = 0; index < 12; ++index) {
        const KxVencConfigParams config{index < 8 ? 30u : 15u, index < 8 ? 30u : 15u, 2000000, 2000000, 0};
        ASSERT_TRUE(index % 4 != 0 || index == 0 || venc_.VideoEncoderConfigure(handle_, &config) == 0);
        units.push_back(Encode(s, index, false, index == 6 ? 1 : 0));
    }
    ExpectPatternUnits(Codec::kH264, units, s.w, s.h, {0, 6, 8});
}

INSTANTIATE_TEST_SUITE_P(Layouts, EncoderRoundTrip,
                         testing::Values(Stream{KX_CSP_I420, 640, 480}, Stream{KX_CSP_NV12, 640, 480},
                                         Stream{KX_CSP_I420, 64, 64}, Stream{KX_CSP_NV12, 1280, 720}));

// The plugin sends key-frame requests and rate changes to the camera only;
// the raw camera passes them on to the encoder instances of its frame size.
TEST_F(EncoderLibrary, RawCameraReachesItsEncoderThroughThePrivateLink)
{
    const Stream s{KX_CSP_I420, 640, 480};
    ASSERT_EQ(cam_.OpenCamera("0", 1, [](const char *, uint32_t, const uint8_t *, uint32_t) { return 0; }), 0);
    ASSERT_EQ(Start("0", 640, 480, 30, KX_DATA_FMT_NV21), 0);
    ASSERT_EQ(Open(s, 400000), 0);
    uint64_t index = 0;
    const auto bytes = [&](int count) {
        size_t total = 0;
        for (int i = 0; i < count; ++i) {
            total += Encode(s, index++, true).size();
        }
        return total;
    };
    bytes(10);
    const size_t at30 = bytes(20);
    // Half a second of buffer lets 20 frames exceed the target by three quarters at most; a rate control
    // that ignored the target would miss it by a factor.
    EXPECT_LT(at30, size_t{20 * 400000 / 8 / 30 * 2}) << "bytes at 400 kbit/s";
    ASSERT_EQ(cam_.BusinessControl(1, nullptr, 0, nullptr, 0), 0);
    // Frames the instance cannot take are refused and leave the request to the next good one: too wide, too short,
    // another layout, one byte short, no data, and an unknown flag (carried in the time stamp field).
    std::vector<uint8_t> frame(640 * 480 * 3 / 2);
    using F = KxVencInputFrame;
    const auto n = static_cast<uint32_t>(frame.size());
    uint8_t *d = frame.data();
    for (const F &input : {F(d, n, 0, 0, 642, 480), F(d, n, 0, 0, 640, 478), F(d, n, KX_CSP_NV12, 0, 640, 480),
                           F(d, n - 1, 0, 0, 640, 480), F(nullptr, n, 0, 0, 640, 480), F(d, n, 0, 2, 640, 480)}) {
        KxVencOutput output{};
        EXPECT_LT(venc_.VideoEncoderProcess(handle_, &input, static_cast<uint32_t>(input.timeStamp), &output), 0)
            << input.width << "x" << input.height << " of " << input.length << " bytes";
    }
    const auto alone = kxtest::DecodeEach(Codec::kH264, Frames{Encode(s, index++, true)}, 640, 480);
    EXPECT_TRUE(alone.size() == 1 && alone[0].key) << "the key-frame request did not reach the encoder";
    // Half the rate at the same bit rate: about twice the bytes per frame.
    ASSERT_EQ(cam_.UpdateConfig("0", 1, 1, "15", 2), 0);
    bytes(10);
    const size_t at15 = bytes(20);
    EXPECT_GT(static_cast<double>(at15), 1.7 * static_cast<double>(at30)) << at30 << " then " << at15;
    // A destroyed instance is out of the link's reach (AddressSanitizer sees a request that touches it).
    ASSERT_EQ(venc_.VideoEncoderDestroy(&handle_), 0);
    EXPECT_EQ(cam_.BusinessControl(1, nullptr, 0, nullptr, 0), 0);
}

// What it offers, the records it refuses, and its instance bound (one
// instance is open already).
TEST_F(EncoderLibrary, OffersOneAbilityRefusesWhatItCannotTakeAndCreatesUpToItsBound)
{
    KxVencAbility ability{};
    uint32_t num = 99;
    ASSERT_EQ(venc_.VideoEncoderGetAbility(&ability, 1, &num), 0);
    ASSERT_EQ(num, 1u);
    for (const Stream bad :
         {Stream{0, 62, 64}, Stream{0, 64, 2162}, Stream{0, 160, 121}, Stream{KX_CSP_NV21, 64, 64}}) {
        EXPECT_LT(Open(bad, 500000), 0) << bad.w << "x" << bad.h << " colour " << bad.csp;
        EXPECT_EQ(handle_, nullptr);
    }
    ASSERT_EQ(Open({0, 64, 64}, 500000), 0);
    for (const KxVencConfigParams bad :
         {KxVencConfigParams{30, 30, 0, 0, 0}, KxVencConfigParams{5000, 5000, 500000, 500000, 0}}) {
        EXPECT_LT(venc_.VideoEncoderConfigure(handle_, &bad), 0);
    }
    std::vector<void *> handles(static_cast<size_t>(ability.maxCodecNum), nullptr);
    const KxVencCreateParams create{{}, 64, 64, KX_CSP_I420, 0, nullptr, nullptr};
    for (void *&handle : handles) {
        EXPECT_EQ(venc_.VideoEncoderCreate(&handle, &create) == 0, &handle != &handles.back());
    }
    ASSERT_EQ(venc_.VideoEncoderDestroy(&handles.front()), 0);
    EXPECT_EQ(handles.front(), nullptr);
    EXPECT_EQ(venc_.VideoEncoderCreate(&handles.back(), &create), 0);
    for (void *&handle : handles) {
        EXPECT_EQ(venc_.VideoEncoderDestroy(&handle), 0);
    }
}

class PatternFormat : public testing::TestWithParam<PixelFormat> {};

// Jumps back and forth put the block anywhere relative to where it was: a
// redraw that forgot the old place shows up. The frame number is drawn in a
// box above the block's path at frames 10 and 11, so the bytes of the rows
// down to the box's bottom (and further, in a 4:2:0 layout) differ between
// them only by the number.
TEST_P(PatternFormat, IncrementalFramesEqualWholeRendersCarryTheI420PictureAndBadSizesAreRefused)
{
    for (const auto &[w, h] : {std::pair{640u, 480u}, std::pair{2u, 2u}, std::pair{1920u, 1080u}}) {
        auto pattern = kxpattern::PatternGenerator::Create(GetParam(), w, h);
        for (const uint64_t index : {0ull, 1ull, 40ull, 39ull, 7ull, 99999999ull, 100000000ull, 5000000000ull, 2ull}) {
            ASSERT_TRUE(std::ranges::equal(pattern->Frame(index), Render(GetParam(), w, h, index))) << index;
        }
    }
    auto pattern = kxpattern::PatternGenerator::Create(GetParam(), 640, 480);
    const uint32_t rows = pattern->NumberRect().y + pattern->NumberRect().h;
    ASSERT_LT(rows * 3 / 2, pattern->BlockRect(10).y);
    const std::vector<uint8_t> a = Render(GetParam(), 640, 480, 10);
    const auto top = static_cast<ptrdiff_t>(kxpattern::FrameBytes(GetParam(), 640, rows));
    EXPECT_FALSE(std::equal(a.begin(), a.begin() + top, pattern->Frame(11).begin())) << "the number is not drawn";
    std::vector<uint8_t> buffer(kxpattern::FrameBytes(GetParam(), 64, 64) - 1, 0xA5);
    EXPECT_FALSE(kxpattern::PatternGenerator::Create(GetParam(), 64, 64)->RenderTo(0, buffer));
    EXPECT_TRUE(std::ranges::all_of(buffer, [](uint8_t b) { return b == 0xA5; }));
    for (const auto &[w, h] :
         {std::pair{0u, 480u}, std::pair{641u, 480u}, std::pair{640u, 481u}, std::pair{kxpattern::kMaxSide + 2, 64u}}) {
        EXPECT_FALSE(kxpattern::PatternGenerator::Create(GetParam(), w, h).has_value()) << w << "x" << h;
    }
    // NV12 is NV21 with each chroma pair swapped.
    const std::vector<uint8_t> nv21 = Render(kNV21, 640, 480, 10);
    for (size_t i = 0; GetParam() == kNV12 && i < a.size(); ++i) {
        ASSERT_EQ(a[i], nv21[i < 640 * 480 ? i : i ^ 1]) << i;
    }
#ifdef KXCAMERA_TEST_WITH_LIBYUV
    // What libyuv makes of the frame, as the plugin converts it, is the I420 frame's picture: exactly, but for the
    // 2x2 chroma mean of RGB565, which may round one step apart. A swapped plane, channel or byte order costs tens of
    // dB.
    // The libyuv names of the layouts, in PixelFormat's order.
    const uint32_t fourcc[] = {libyuv::FOURCC_I420, libyuv::FOURCC_NV12, libyuv::FOURCC_NV21, libyuv::FOURCC_RGBP};
    std::vector<uint8_t> out(640 * 480 * 3 / 2);
    uint8_t *u = out.data() + 640 * 480;
    ASSERT_EQ(libyuv::ConvertToI420(a.data(), a.size(), out.data(), 640, u, 320, u + 320 * 240, 320, 0, 0, 640, 480,
                                    640, 480, libyuv::kRotate0, fourcc[static_cast<size_t>(GetParam())]),
              0);
    for (const double psnr : kxtest::PlanePsnr(out, Render(kI420, 640, 480, 10), 640, 480)) {
        EXPECT_GT(psnr, GetParam() == kRGB565 ? 45.0 : 98.0);
    }
#endif
}

INSTANTIATE_TEST_SUITE_P(AllFormats, PatternFormat, testing::Values(kI420, kNV12, kNV21, kRGB565));

} // namespace
