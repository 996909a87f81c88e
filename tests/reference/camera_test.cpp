// SPDX-License-Identifier: Apache-2.0
// The reference camera handler library through its getter: what it offers,
// what its cameras deliver, how they are paced and controlled, and what it
// refuses.
#include "kxcamera/camera_handler.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "av_decode.h"
#include "pattern.h"
#include "vendor_library.h"

namespace {

using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;
using kxpattern::PatternGenerator;
using kxpattern::PixelFormat;
using kxtest::Codec;

struct Delivery {
    std::string id;
    std::vector<uint8_t> bytes;
    Clock::time_point at;
};

// What the frame callback saw. A frame callback carries no user data, so
// the record is process-wide and each test starts it afresh.
class FrameLog {
public:
    static FrameLog &Get()
    {
        static FrameLog log;
        return log;
    }

    void Reset(std::function<void()> hook = nullptr)
    {
        const std::lock_guard lock(mutex_);
        deliveries_.clear();
        hook_ = std::move(hook);
        closed_ = false;
        afterClose_ = 0;
        inFlight_ = 0;
    }

    void Add(const char *id, uint32_t idLen, const uint8_t *data, uint32_t length)
    {
        std::function<void()> hook;
        {
            const std::lock_guard lock(mutex_);
            afterClose_ += closed_ ? 1 : 0;
            ++inFlight_;
            deliveries_.push_back({std::string(id, idLen), std::vector<uint8_t>(data, data + length), Clock::now()});
            hook = hook_;
        }
        cv_.notify_all();
        if (hook) {
            hook();
        }
        const std::lock_guard lock(mutex_);
        --inFlight_;
    }

    // All deliveries once `done` holds for them, or after ten seconds (a
    // generous bound, not a measurement).
    std::vector<Delivery> WaitUntil(const std::function<bool(const std::vector<Delivery> &)> &done)
    {
        std::unique_lock lock(mutex_);
        cv_.wait_for(lock, 10s, [&] { return done(deliveries_); });
        return deliveries_;
    }

    // The first `count` deliveries of camera `id`; fewer if they do not come.
    std::vector<Delivery> WaitFor(const std::string &id, size_t count)
    {
        const auto ofCamera = [&id, count](const std::vector<Delivery> &all) {
            std::vector<Delivery> found;
            for (const Delivery &d : all) {
                if (d.id == id && found.size() < count) {
                    found.push_back(d);
                }
            }
            return found;
        };
        return ofCamera(WaitUntil([&](const std::vector<Delivery> &all) { return ofCamera(all).size() == count; }));
    }

    size_t Count()
    {
        const std::lock_guard lock(mutex_);
        return deliveries_.size();
    }

    // Marks the moment CloseCamera returned; returns callbacks still running.
    int MarkClosed()
    {
        const std::lock_guard lock(mutex_);
        closed_ = true;
        return inFlight_;
    }

    int AfterClose()
    {
        const std::lock_guard lock(mutex_);
        return afterClose_;
    }

private:
    std::mutex mutex_;
    std::condition_variable cv_;
    std::vector<Delivery> deliveries_;
    std::function<void()> hook_;
    bool closed_ = false;
    int afterClose_ = 0;
    int inFlight_ = 0;
};

int32_t RecordFrame(const char *id, uint32_t idLen, const uint8_t *data, uint32_t length)
{
    FrameLog::Get().Add(id, idLen, data, length);
    return 0;
}

class CameraLibrary : public testing::Test {
protected:
    static void SetUpTestSuite()
    {
        library_ = new kxtest::VendorLibrary(KXCAMERA_TEST_CAMERA_LIB);
        ASSERT_TRUE(library_->loaded()) << dlerror();
        ASSERT_EQ(library_->Fill(KX_CAMERA_HANDLER_GETTER, cam_), 0);
    }
    static void TearDownTestSuite()
    {
        delete library_;
        library_ = nullptr;
    }
    void SetUp() override { FrameLog::Get().Reset(); }
    void TearDown() override
    {
        for (const char *id : {"0", "1", "2"}) {
            cam_.CloseCamera(id, 1);
        }
    }

    static int32_t Open(const char *id)
    {
        return cam_.OpenCamera(id, static_cast<uint32_t>(std::strlen(id)), RecordFrame);
    }
    static int32_t Start(const char *id, uint32_t w, uint32_t h, uint32_t fps, uint32_t dataFmt)
    {
        const KxCameraOpenParams params{id, static_cast<uint32_t>(std::strlen(id)), w, h, fps, dataFmt, 0};
        return cam_.StartCamera(&params);
    }
    static int32_t SetRate(const char *id, const std::string &fps)
    {
        return cam_.UpdateConfig(id, static_cast<uint32_t>(std::strlen(id)), 1, fps.c_str(),
                                 static_cast<uint32_t>(fps.size()));
    }

    static inline kxtest::VendorLibrary *library_ = nullptr;
    static inline KxCameraHandler cam_{};
};

TEST_F(CameraLibrary, DescribesThreeCamerasWithTheirFormatsRatesSizesAndFacts)
{
    KxCameraCapability *items = nullptr;
    uint32_t num = 0;
    ASSERT_EQ(cam_.GetCameraCapability(&items, &num), 0);
    ASSERT_EQ(num, 3u);
    const std::vector<std::vector<uint32_t>> formats = {{17, 4}, {1}, {2}};
    for (uint32_t c = 0; c < num; ++c) {
        const KxCameraCapability &item = items[c];
        EXPECT_EQ(std::string(item.id, item.idLen), std::to_string(c));
        EXPECT_EQ(item.id[item.idLen], '\0');
        ASSERT_EQ(item.abilityNum, formats[c].size());
        for (uint32_t a = 0; a < item.abilityNum; ++a) {
            const KxCameraAbility &ability = item.abilities[a];
            EXPECT_EQ(ability.dataFmt, formats[c][a]);
            ASSERT_EQ(ability.fpsRangeNum, 2u);
            EXPECT_EQ(ability.supportFpsRanges[0].min, 15u);
            EXPECT_EQ(ability.supportFpsRanges[0].max, 30u);
            EXPECT_EQ(ability.supportFpsRanges[1].min, 30u);
            EXPECT_EQ(ability.supportFpsRanges[1].max, 30u);
            ASSERT_EQ(ability.sizeNum, 3u);
            EXPECT_EQ(ability.supportSizes[0].width, 640u);
            EXPECT_EQ(ability.supportSizes[1].height, 720u);
            EXPECT_EQ(ability.supportSizes[2].width, 1920u);
        }
        std::vector<std::string> keys;
        for (uint32_t e = 0; e < item.extendInfoNum; ++e) {
            keys.emplace_back(item.extendInfos[e].key);
            EXPECT_NE(item.extendInfos[e].value, nullptr);
        }
        EXPECT_EQ(keys, (std::vector<std::string>{"model", "orientation"}));
    }

    KxCameraCapability *again = nullptr;
    ASSERT_EQ(cam_.GetCameraCapability(&again, &num), 0);
    EXPECT_EQ(again, items) << "the array must stay the library's, at one place";
    EXPECT_EQ(cam_.ReleaseCameraCapability(1, items, num), 0);
    KxCameraCapability foreign[3]{};
    EXPECT_LT(cam_.ReleaseCameraCapability(1, foreign, 3), 0);
    EXPECT_LT(cam_.GetCameraCapability(nullptr, &num), 0);
    EXPECT_LT(cam_.GetCameraCapability(&items, nullptr), 0);
}

struct RawCase {
    uint32_t dataFmt;
    uint32_t w;
    uint32_t h;
};

class RawCamera : public CameraLibrary, public testing::WithParamInterface<RawCase> {};

// Frame k of a stream is pattern frame k, byte for byte.
TEST_P(RawCamera, DeliversTheExactPatternFramesInTheRequestedFormat)
{
    const auto [dataFmt, w, h] = GetParam();
    const PixelFormat format = dataFmt == KX_DATA_FMT_RGB565 ? PixelFormat::kRGB565 : PixelFormat::kNV21;
    ASSERT_EQ(Open("0"), 0);
    ASSERT_EQ(Start("0", w, h, 30, dataFmt), 0);
    const std::vector<Delivery> frames = FrameLog::Get().WaitFor("0", 4);
    ASSERT_EQ(cam_.CloseCamera("0", 1), 0);
    ASSERT_EQ(frames.size(), 4u);
    auto reference = PatternGenerator::Create(format, w, h);
    for (size_t k = 0; k < frames.size(); ++k) {
        ASSERT_EQ(frames[k].bytes.size(), kxpattern::FrameBytes(format, w, h)) << "frame " << k;
        const auto expected = reference->Frame(k);
        EXPECT_TRUE(std::equal(expected.begin(), expected.end(), frames[k].bytes.begin())) << "frame " << k;
    }
}

INSTANTIATE_TEST_SUITE_P(FormatsAndSizes, RawCamera,
                         testing::Values(RawCase{KX_DATA_FMT_NV21, 640, 480}, RawCase{KX_DATA_FMT_RGB565, 640, 480},
                                         RawCase{KX_DATA_FMT_NV21, 1920, 1080},
                                         RawCase{KX_DATA_FMT_RGB565, 1280, 720}),
                         [](const auto &info) {
                             return std::string(info.param.dataFmt == KX_DATA_FMT_NV21 ? "NV21_" : "RGB565_") +
                                    std::to_string(info.param.w) + "x" + std::to_string(info.param.h);
                         });

TEST_F(CameraLibrary, StartingAgainRestartsWithTheNewParameters)
{
    const size_t oldBytes = kxpattern::FrameBytes(PixelFormat::kNV21, 640, 480);
    const size_t newBytes = kxpattern::FrameBytes(PixelFormat::kRGB565, 1280, 720);
    ASSERT_EQ(Open("0"), 0);
    ASSERT_EQ(Start("0", 640, 480, 30, KX_DATA_FMT_NV21), 0);
    ASSERT_EQ(FrameLog::Get().WaitFor("0", 2).size(), 2u);
    ASSERT_EQ(Start("0", 1280, 720, 30, KX_DATA_FMT_RGB565), 0);
    const auto newFrames = [&](const std::vector<Delivery> &all) {
        return std::count_if(all.begin(), all.end(), [&](const Delivery &d) { return d.bytes.size() == newBytes; });
    };
    const std::vector<Delivery> frames =
        FrameLog::Get().WaitUntil([&](const std::vector<Delivery> &all) { return newFrames(all) >= 2; });
    ASSERT_EQ(cam_.CloseCamera("0", 1), 0);
    ASSERT_GE(newFrames(frames), 2);
    // The old stream ends before the new one begins, and the new one counts
    // from frame 0 again.
    const auto first = std::find_if(frames.begin(), frames.end(), [&](const Delivery &d) { return d.bytes.size() == newBytes; });
    EXPECT_TRUE(std::all_of(frames.begin(), first, [&](const Delivery &d) { return d.bytes.size() == oldBytes; }));
    EXPECT_TRUE(std::all_of(first, frames.end(), [&](const Delivery &d) { return d.bytes.size() == newBytes; }));
    auto reference = PatternGenerator::Create(PixelFormat::kRGB565, 1280, 720);
    for (uint64_t k = 0; k < 2; ++k) {
        const auto expected = reference->Frame(k);
        EXPECT_TRUE(std::equal(expected.begin(), expected.end(), first[static_cast<ptrdiff_t>(k)].bytes.begin()))
            << "frame " << k;
    }
}

struct EncodedCase {
    const char *id;
    uint32_t dataFmt;
    Codec codec;
};

class SelfEncodingCamera : public CameraLibrary, public testing::WithParamInterface<EncodedCase> {};

// The camera encodes at constant quality; at 640x480 this pattern comes out
// near 40 dB. 30 dB still fails a swapped plane or a wrong stride by far.
TEST_P(SelfEncodingCamera, EveryUnitDecodesToItsPatternFrame)
{
    const auto [id, dataFmt, codec] = GetParam();
    ASSERT_EQ(Open(id), 0);
    ASSERT_EQ(Start(id, 640, 480, 30, dataFmt), 0);
    const std::vector<Delivery> units = FrameLog::Get().WaitFor(id, 8);
    ASSERT_EQ(cam_.CloseCamera(id, 1), 0);
    ASSERT_EQ(units.size(), 8u);
    EXPECT_TRUE(kxtest::HasParameterSets(codec, units[0].bytes));
    EXPECT_TRUE(kxtest::HasIdr(codec, units[0].bytes));
    auto reference = PatternGenerator::Create(PixelFormat::kI420, 640, 480);
    kxtest::Decoder decoder(codec);
    for (size_t k = 0; k < units.size(); ++k) {
        std::vector<kxtest::Picture> pictures;
        ASSERT_TRUE(decoder.Decode(units[k].bytes, pictures)) << "unit " << k;
        ASSERT_EQ(pictures.size(), 1u) << "unit " << k;
        EXPECT_EQ(pictures[0].width, 640);
        EXPECT_EQ(pictures[0].height, 480);
        const auto psnr = kxtest::PlanePsnr(pictures[0], reference->Frame(k));
        for (size_t plane = 0; plane < psnr.size(); ++plane) {
            EXPECT_GT(psnr[plane], 30.0) << "unit " << k << " plane " << plane;
        }
    }
}

TEST_P(SelfEncodingCamera, KeyFrameRequestMakesTheNextUnitsAnIdrWithParameterSets)
{
    const auto [id, dataFmt, codec] = GetParam();
    ASSERT_EQ(Open(id), 0);
    ASSERT_EQ(Start(id, 640, 480, 30, dataFmt), 0);
    ASSERT_EQ(FrameLog::Get().WaitFor(id, 4).size(), 4u);
    // Everything delivered before the request was made before it.
    const size_t requested = FrameLog::Get().Count();
    ASSERT_EQ(cam_.BusinessControl(1, nullptr, 0, nullptr, 0), 0);
    const std::vector<Delivery> units = FrameLog::Get().WaitFor(id, requested + 3);
    ASSERT_EQ(cam_.CloseCamera(id, 1), 0);
    ASSERT_EQ(units.size(), requested + 3);
    // Without the request the next IDR would be two seconds in.
    for (size_t k = 1; k < requested; ++k) {
        EXPECT_FALSE(kxtest::HasIdr(codec, units[k].bytes)) << "unit " << k;
    }
    // A unit delivered or being encoded while the request came in may still
    // be a P frame.
    bool found = false;
    for (size_t k = requested; k < units.size() && !found; ++k) {
        found = kxtest::HasIdr(codec, units[k].bytes) && kxtest::HasParameterSets(codec, units[k].bytes);
    }
    EXPECT_TRUE(found);
}

INSTANTIATE_TEST_SUITE_P(Codecs, SelfEncodingCamera,
                         testing::Values(EncodedCase{"1", KX_DATA_FMT_H264, Codec::kH264},
                                         EncodedCase{"2", KX_DATA_FMT_H265, Codec::kH265}),
                         [](const auto &info) { return std::string(info.param.codec == Codec::kH264 ? "H264" : "H265"); });

// The only measurement here: 3 s at 30 fps is 90 frames on an absolute
// deadline grid; +-2 allows for the wake-up latency of the first and last
// frame on a shared machine.
TEST_F(CameraLibrary, PacesThirtyFramesPerSecondWithoutDrift)
{
    ASSERT_EQ(Open("0"), 0);
    ASSERT_EQ(Start("0", 640, 480, 30, KX_DATA_FMT_NV21), 0);
    const std::vector<Delivery> first = FrameLog::Get().WaitFor("0", 1);
    ASSERT_EQ(first.size(), 1u);
    std::this_thread::sleep_until(first[0].at + 3s + 200ms);
    ASSERT_EQ(cam_.CloseCamera("0", 1), 0);
    const std::vector<Delivery> frames = FrameLog::Get().WaitFor("0", FrameLog::Get().Count());
    const auto inWindow = std::count_if(frames.begin(), frames.end(),
                                        [&](const Delivery &d) { return d.at < first[0].at + 3s; });
    EXPECT_GE(inWindow, 88);
    EXPECT_LE(inWindow, 92);
}

// Frames can come late but never early, so a lower bound on the spacing is
// safe on a loaded machine: at 30 fps the mean spacing is 33 ms, at 15 fps 67.
TEST_F(CameraLibrary, RateUpdateSlowsTheStreamAtOnce)
{
    ASSERT_EQ(Open("0"), 0);
    ASSERT_EQ(Start("0", 640, 480, 30, KX_DATA_FMT_NV21), 0);
    ASSERT_EQ(FrameLog::Get().WaitFor("0", 3).size(), 3u);
    ASSERT_EQ(SetRate("0", "15"), 0);
    const size_t changed = FrameLog::Get().Count();
    const std::vector<Delivery> frames = FrameLog::Get().WaitFor("0", changed + 8);
    ASSERT_EQ(cam_.CloseCamera("0", 1), 0);
    ASSERT_EQ(frames.size(), changed + 8);
    const auto span = frames.back().at - frames[changed + 1].at;
    EXPECT_GE(span / 6, 55ms);
}

TEST_F(CameraLibrary, NoFrameArrivesAfterCloseReturns)
{
    // A slow consumer keeps a callback running when the close comes in.
    FrameLog::Get().Reset([] { std::this_thread::sleep_for(20ms); });
    ASSERT_EQ(Open("0"), 0);
    ASSERT_EQ(Start("0", 640, 480, 30, KX_DATA_FMT_NV21), 0);
    ASSERT_EQ(FrameLog::Get().WaitFor("0", 3).size(), 3u);
    ASSERT_EQ(cam_.CloseCamera("0", 1), 0);
    EXPECT_EQ(FrameLog::Get().MarkClosed(), 0) << "a callback still runs";
    const size_t count = FrameLog::Get().Count();
    std::this_thread::sleep_for(200ms);
    EXPECT_EQ(FrameLog::Get().AfterClose(), 0);
    EXPECT_EQ(FrameLog::Get().Count(), count);
}

TEST_F(CameraLibrary, CloseFromItsOwnCallbackIsRefusedInsteadOfHanging)
{
    static std::atomic<int32_t> fromCallback{1};
    fromCallback = 1;
    FrameLog::Get().Reset([] {
        if (fromCallback == 1) {
            fromCallback = cam_.CloseCamera("0", 1);
        }
    });
    ASSERT_EQ(Open("0"), 0);
    ASSERT_EQ(Start("0", 640, 480, 30, KX_DATA_FMT_NV21), 0);
    ASSERT_EQ(FrameLog::Get().WaitFor("0", 2).size(), 2u);
    EXPECT_LT(fromCallback.load(), 0);
    EXPECT_EQ(cam_.CloseCamera("0", 1), 0);
}

struct BadCall {
    const char *name;
    std::function<int32_t(const KxCameraHandler &)> call;
};

class CameraRefusal : public CameraLibrary, public testing::WithParamInterface<BadCall> {};

TEST_P(CameraRefusal, ReturnsANegativeStatus)
{
    EXPECT_LT(GetParam().call(cam_), 0);
    EXPECT_EQ(FrameLog::Get().Count(), 0u);
}

// Runs `call` on camera 0 opened (not started), then closes it again.
std::function<int32_t(const KxCameraHandler &)> OnOpened(std::function<int32_t(const KxCameraHandler &)> call)
{
    return [call](const KxCameraHandler &cam) {
        if (cam.OpenCamera("0", 1, RecordFrame) != 0) {
            return 0; // fails the expectation: the open itself should work
        }
        const int32_t status = call(cam);
        cam.CloseCamera("0", 1);
        return status;
    };
}

int32_t StartWith(const KxCameraHandler &cam, const char *id, uint32_t w, uint32_t h, uint32_t fps, uint32_t fmt)
{
    const KxCameraOpenParams params{id, static_cast<uint32_t>(std::strlen(id)), w, h, fps, fmt, 0};
    return cam.StartCamera(&params);
}

int32_t Rate(const KxCameraHandler &cam, uint32_t item, const char *value, uint32_t len)
{
    return cam.UpdateConfig("0", 1, item, value, len);
}

INSTANTIATE_TEST_SUITE_P(
    Calls, CameraRefusal,
    testing::Values(
        BadCall{"OpenUnknownId", [](const auto &cam) { return cam.OpenCamera("7", 1, RecordFrame); }},
        BadCall{"OpenIdWithTrailingText", [](const auto &cam) { return cam.OpenCamera("01", 2, RecordFrame); }},
        BadCall{"OpenWithoutId", [](const auto &cam) { return cam.OpenCamera(nullptr, 0, RecordFrame); }},
        BadCall{"OpenWithoutCallback", [](const auto &cam) { return cam.OpenCamera("0", 1, nullptr); }},
        BadCall{"StartWithoutParams", [](const auto &cam) { return cam.StartCamera(nullptr); }},
        BadCall{"StartWithoutOpen", [](const auto &cam) { return StartWith(cam, "0", 640, 480, 30, 17); }},
        BadCall{"StartUnknownId", [](const auto &cam) { return StartWith(cam, "9", 640, 480, 30, 17); }},
        BadCall{"StartSizeNotOffered", OnOpened([](const auto &cam) { return StartWith(cam, "0", 800, 600, 30, 17); })},
        BadCall{"StartRateAboveRanges", OnOpened([](const auto &cam) { return StartWith(cam, "0", 640, 480, 60, 17); })},
        BadCall{"StartRateBelowRanges", OnOpened([](const auto &cam) { return StartWith(cam, "0", 640, 480, 10, 17); })},
        BadCall{"StartStreamOnRawCamera", OnOpened([](const auto &cam) { return StartWith(cam, "0", 640, 480, 30, 1); })},
        BadCall{"StartUnknownFormat", OnOpened([](const auto &cam) { return StartWith(cam, "0", 640, 480, 30, 3); })},
        BadCall{"RateOfUnknownId", [](const auto &cam) { return cam.UpdateConfig("5", 1, 1, "20", 2); }},
        BadCall{"RateOtherItem", [](const auto &cam) { return Rate(cam, 2, "20", 2); }},
        BadCall{"RateNotANumber", [](const auto &cam) { return Rate(cam, 1, "2x", 2); }},
        BadCall{"RateEmpty", [](const auto &cam) { return Rate(cam, 1, "", 0); }},
        BadCall{"RateWithoutValue", [](const auto &cam) { return Rate(cam, 1, nullptr, 2); }},
        BadCall{"RateNotOffered", [](const auto &cam) { return Rate(cam, 1, "60", 2); }},
        BadCall{"RateValueTooLong", [](const auto &cam) { return Rate(cam, 1, "00000000000000020", 17); }},
        BadCall{"CloseUnknownId", [](const auto &cam) { return cam.CloseCamera("x", 1); }},
        BadCall{"UnknownBusinessControl", [](const auto &cam) { return cam.BusinessControl(2, nullptr, 0, nullptr, 0); }},
        BadCall{"RegisterWithoutListener", [](const auto &cam) { return cam.RegisterListener(nullptr); }}),
    [](const auto &info) { return std::string(info.param.name); });

TEST_F(CameraLibrary, StartsSelfEncodingCamerasOnlyInTheirOwnFormat)
{
    ASSERT_EQ(Open("1"), 0);
    EXPECT_LT(Start("1", 640, 480, 30, KX_DATA_FMT_NV21), 0);
    EXPECT_LT(Start("1", 640, 480, 30, KX_DATA_FMT_H265), 0);
    ASSERT_EQ(Open("2"), 0);
    EXPECT_LT(Start("2", 640, 480, 30, KX_DATA_FMT_H264), 0);
    EXPECT_EQ(FrameLog::Get().Count(), 0u);
    // A rate within the offered ranges is accepted while the camera is idle.
    EXPECT_EQ(SetRate("1", "25"), 0);
}

struct StatusRecord {
    std::string id;
    uint32_t status;
};

std::mutex g_statusMutex;
std::condition_variable g_statusWake;
std::vector<StatusRecord> g_statuses;

int32_t RecordStatus(const char *id, uint32_t idLen, uint32_t status)
{
    {
        const std::lock_guard lock(g_statusMutex);
        g_statuses.push_back({std::string(id, idLen), status});
    }
    g_statusWake.notify_all();
    return 0;
}

int32_t RecordAction(const char *, uint32_t, const KxServiceAction *)
{
    return 0;
}

struct ReportCase {
    const char *setting;
    uint32_t status;
};

class StatusReport : public CameraLibrary, public testing::WithParamInterface<ReportCase> {};

TEST_P(StatusReport, ComesForEveryCameraAfterRegistrationWhenTheEnvironmentAsks)
{
    {
        const std::lock_guard lock(g_statusMutex);
        g_statuses.clear();
    }
    ASSERT_EQ(setenv("TALVO_VCAM_REPORT_STATUS", GetParam().setting, 1), 0);
    KxServiceListener listener{RecordStatus, RecordAction};
    ASSERT_EQ(cam_.RegisterListener(&listener), 0);
    listener = {}; // lent for the call only: the library keeps its own copy
    unsetenv("TALVO_VCAM_REPORT_STATUS");
    std::vector<StatusRecord> seen;
    {
        std::unique_lock lock(g_statusMutex);
        g_statusWake.wait_for(lock, 10s, [] { return g_statuses.size() >= 3; });
        seen = g_statuses;
    }
    ASSERT_EQ(seen.size(), 3u);
    for (size_t c = 0; c < seen.size(); ++c) {
        EXPECT_EQ(seen[c].id, std::to_string(c));
        EXPECT_EQ(seen[c].status, GetParam().status);
    }
}

INSTANTIATE_TEST_SUITE_P(Settings, StatusReport,
                         testing::Values(ReportCase{"1@20", 1}, ReportCase{"2", 2}, ReportCase{" 1 @ 0 ", 1}));

// The camera list is read once, when the library is loaded, so each case
// runs in a child process of its own.
TEST(CameraLibraryEnvironment, CameraListComesFromTheEnvironment)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            setenv("TALVO_VCAM_CAMERAS", "front:h265, back : raw", 1);
            kxtest::VendorLibrary library(KXCAMERA_TEST_CAMERA_LIB);
            KxCameraHandler cam{};
            KxCameraCapability *items = nullptr;
            uint32_t num = 0;
            const bool ok = library.Fill(KX_CAMERA_HANDLER_GETTER, cam) == 0 &&
                            cam.GetCameraCapability(&items, &num) == 0 && num == 2 &&
                            std::string(items[0].id) == "front" && items[0].abilities[0].dataFmt == 2 &&
                            std::string(items[1].id) == "back" && items[1].abilityNum == 2 &&
                            cam.OpenCamera("0", 1, RecordFrame) < 0 && cam.OpenCamera("back", 4, RecordFrame) == 0 &&
                            cam.CloseCamera("back", 4) == 0;
            std::exit(ok ? 0 : 1);
        },
        testing::ExitedWithCode(0), "");
}

TEST(CameraLibraryEnvironment, InvalidCameraListMakesTheGetterRefuse)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            setenv("TALVO_VCAM_CAMERAS", "0:raw,0:h264", 1);
            kxtest::VendorLibrary library(KXCAMERA_TEST_CAMERA_LIB);
            KxCameraHandler cam{};
            std::exit(library.loaded() && library.Fill(KX_CAMERA_HANDLER_GETTER, cam) < 0 ? 0 : 1);
        },
        testing::ExitedWithCode(0), "appears twice");
}

} // namespace
