// SPDX-License-Identifier: Apache-2.0
// The reference encoder library through its getter: what a decoder makes of
// its output, its rate control and key frames, its instance bound, and what
// it refuses.
#include "kxcamera/camera_handler.h"
#include "kxcamera/video_encoder.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>

#include "av_decode.h"
#include "pattern.h"

namespace {

using kxpattern::PixelFormat;
using kxtest::Codec;

struct Stream {
    int32_t csp;
    uint32_t w;
    uint32_t h;
};

class EncoderLibrary : public testing::Test {
protected:
    static void SetUpTestSuite()
    {
        ASSERT_EQ(kxtest::LoadVendor(KXCAMERA_TEST_ENCODER_LIB, KX_VIDEO_ENCODER_GETTER, venc_), 0);
    }
    void TearDown() override { venc_.VideoEncoderDestroy(&handle_); }

    int32_t Open(Stream s, uint32_t fps, uint32_t bitRate)
    {
        KxVencCreateParams create{};
        create.width = s.w;
        create.height = s.h;
        create.mColorType = static_cast<uint32_t>(s.csp);
        const KxVencConfigParams config{fps, fps, bitRate, bitRate, 0};
        const int32_t status = venc_.VideoEncoderCreate(&handle_, &create);
        return status != 0 ? status : venc_.VideoEncoderConfigure(handle_, &config);
    }
    // Frame `index` of the pattern in the stream's layout, with sensor-like
    // noise on the luma when asked: then the rate control, not the content,
    // decides the size.
    KxVencOutput Encode(Stream s, uint64_t index, bool noise = false, uint32_t flags = 0)
    {
        auto pattern = kxpattern::PatternGenerator::Create(
            s.csp == KX_CSP_NV12 ? PixelFormat::kNV12 : PixelFormat::kI420, s.w, s.h);
        std::vector<uint8_t> frame(pattern->frameBytes());
        pattern->RenderTo(index, frame);
        std::minstd_rand random(static_cast<uint32_t>(index) + 1);
        for (size_t i = 0; noise && i < size_t{s.w} * s.h; ++i) {
            frame[i] = static_cast<uint8_t>(std::clamp(frame[i] + static_cast<int>(random() % 25) - 12, 0, 255));
        }
        KxVencInputFrame input{
            frame.data(), static_cast<uint32_t>(frame.size()), s.csp, static_cast<int64_t>(index) * 33333, s.w, s.h};
        KxVencOutput output{};
        EXPECT_EQ(venc_.VideoEncoderProcess(handle_, &input, flags, &output), 0) << "frame " << index;
        EXPECT_EQ(output.timeStamp, input.timeStamp);
        return output;
    }
    static inline KxVideoEncoderHandler venc_{};
    void *handle_ = nullptr;
};

// 3 Mbit/s at 640x480 and 30 fps keeps this pattern above 35 dB on every
// plane; a stride, plane order or colour space mistake leaves a plane far
// below 30 dB. The rate changes on frame 8 and the key frame flag on 6 bring
// an IDR, a bit rate change on 4 continues the stream.
class EncoderRoundTrip : public EncoderLibrary, public testing::WithParamInterface<Stream> {};

TEST_P(EncoderRoundTrip, EveryUnitDecodesToItsSourceFrameAndKeyFramesComeWhenAsked)
{
    const Stream s = GetParam();
    ASSERT_EQ(Open(s, 30, 3000000), 0);
    std::vector<std::vector<uint8_t>> units;
    for (uint64_t index = 0; index < 12; ++index) {
        const KxVencConfigParams config{index < 8 ? 30u : 15u, index < 8 ? 30u : 15u, 2000000, 2000000, 0};
        ASSERT_TRUE(index % 4 != 0 || index == 0 || venc_.VideoEncoderConfigure(handle_, &config) == 0);
        const KxVencOutput unit = Encode(s, index, false, index == 6 ? 1 : 0);
        units.emplace_back(unit.bsBuf, unit.bsBuf + std::max(unit.bsLength, 0));
    }
    const std::vector<kxtest::Picture> pictures = kxtest::DecodeEach(Codec::kH264, units, int(s.w), int(s.h));
    ASSERT_EQ(pictures.size(), 12u) << "a unit held back or undecodable";
    auto reference = kxpattern::PatternGenerator::Create(PixelFormat::kI420, s.w, s.h);
    std::vector<bool> keys;
    for (uint64_t index = 0; index < 12; ++index) {
        keys.push_back(pictures[index].key);
        for (const double psnr : kxtest::PlanePsnr(pictures[index].i420, reference->Frame(index), int(s.w), int(s.h))) {
            EXPECT_GT(psnr, 30.0) << "frame " << index;
        }
    }
    EXPECT_EQ(keys, (std::vector<bool>{1, 0, 0, 0, 0, 0, 1, 0, 1, 0, 0, 0}));
}

INSTANTIATE_TEST_SUITE_P(Layouts, EncoderRoundTrip,
                         testing::Values(Stream{KX_CSP_I420, 640, 480}, Stream{KX_CSP_NV12, 640, 480},
                                         Stream{KX_CSP_I420, 64, 64}, Stream{KX_CSP_NV12, 1280, 720}));

// The plugin sends key-frame requests and rate changes to the camera only;
// the raw camera passes them on to the encoder instances of its frame size.
TEST_F(EncoderLibrary, RawCameraReachesItsEncoderThroughThePrivateLink)
{
    KxCameraHandler cam{};
    ASSERT_EQ(kxtest::LoadVendor(KXCAMERA_TEST_CAMERA_LIB, KX_CAMERA_HANDLER_GETTER, cam), 0);
    const Stream s{KX_CSP_I420, 640, 480};
    const KxCameraOpenParams params{"0", 1, s.w, s.h, 30, KX_DATA_FMT_NV21, 0};
    ASSERT_EQ(cam.OpenCamera("0", 1, [](const char *, uint32_t, const uint8_t *, uint32_t) { return 0; }), 0);
    ASSERT_EQ(cam.StartCamera(&params), 0);
    ASSERT_EQ(Open(s, 30, 400000), 0);
    uint64_t index = 0;
    const auto bytes = [&](int count) {
        size_t total = 0;
        for (int i = 0; i < count; ++i) {
            total += static_cast<size_t>(Encode(s, index++, true).bsLength);
        }
        return total;
    };
    bytes(10);
    const size_t at30 = bytes(20);
    // Half a second of buffer lets 20 frames exceed the target by three quarters at most; a rate control
    // that ignored the target would miss it by a factor.
    EXPECT_LT(at30, size_t{20 * 400000 / 8 / 30 * 2}) << "bytes at 400 kbit/s";
    ASSERT_EQ(cam.BusinessControl(1, nullptr, 0, nullptr, 0), 0);
    const KxVencOutput unit = Encode(s, index++, true);
    EXPECT_TRUE(kxtest::DecodesAlone(Codec::kH264, {unit.bsBuf, size_t(unit.bsLength)}, 640, 480))
        << "the key-frame request did not reach the encoder";
    // Half the rate at the same bit rate: about twice the bytes per frame.
    ASSERT_EQ(cam.UpdateConfig("0", 1, 1, "15", 2), 0);
    bytes(10);
    const size_t at15 = bytes(20);
    EXPECT_GT(static_cast<double>(at15), 1.7 * static_cast<double>(at30)) << at30 << " then " << at15;
    EXPECT_EQ(cam.CloseCamera("0", 1), 0);
}

// What it offers, the records and frames it refuses, and its instance bound
// (one instance is open already).
TEST_F(EncoderLibrary, OffersOneAbilityRefusesWhatItCannotTakeAndCreatesUpToItsBound)
{
    KxVencAbility ability{};
    uint32_t num = 99;
    ASSERT_EQ(venc_.VideoEncoderGetAbility(&ability, 1, &num), 0);
    ASSERT_EQ(num, 1u);
    EXPECT_EQ(std::vector<int32_t>({ability.cspTypeMask, ability.minEncWidth, ability.minEncHeigth, ability.maxEncWidth,
                                    ability.maxEncHeight, ability.asynOutput}),
              std::vector<int32_t>({(1 << KX_CSP_I420) | (1 << KX_CSP_NV12), 64, 64, 3840, 2160, 0}));
    for (const Stream bad :
         {Stream{0, 62, 64}, Stream{0, 64, 2162}, Stream{0, 160, 121}, Stream{KX_CSP_NV21, 64, 64}}) {
        EXPECT_LT(Open(bad, 30, 500000), 0) << bad.w << "x" << bad.h << " colour " << bad.csp;
        EXPECT_EQ(handle_, nullptr);
    }
    ASSERT_EQ(Open({0, 64, 64}, 30, 500000), 0);
    for (const KxVencConfigParams bad :
         {KxVencConfigParams{30, 30, 0, 0, 0}, KxVencConfigParams{5000, 5000, 500000, 500000, 0}}) {
        EXPECT_LT(venc_.VideoEncoderConfigure(handle_, &bad), 0);
    }
    // A frame the instance cannot take is refused, and the next good one encodes.
    const Stream s{KX_CSP_I420, 64, 64};
    std::vector<uint8_t> frame(s.w * s.h * 3 / 2);
    using F = KxVencInputFrame;
    const uint32_t n = s.w * s.h * 3 / 2;
    uint8_t *d = frame.data();
    // Too wide, too short, another layout, one byte short, no data, an unknown flag.
    for (auto [input, flags] : {std::pair{F{d, n, KX_CSP_I420, 0, 66, 64}, 0u},
                                {F{d, n, KX_CSP_I420, 0, 64, 62}, 0u},
                                {F{d, n, KX_CSP_NV12, 0, 64, 64}, 0u},
                                {F{d, n - 1, KX_CSP_I420, 0, 64, 64}, 0u},
                                {F{nullptr, n, KX_CSP_I420, 0, 64, 64}, 0u},
                                {F{d, n, KX_CSP_I420, 0, 64, 64}, 2u}}) {
        KxVencOutput output{};
        EXPECT_LT(venc_.VideoEncoderProcess(handle_, &input, flags, &output), 0) << input.width << "x" << input.height;
        EXPECT_GT(Encode(s, 0).bsLength, 0);
    }
    std::vector<void *> handles(static_cast<size_t>(ability.maxCodecNum), nullptr);
    KxVencCreateParams create{};
    create.width = 64;
    create.height = 64;
    for (void *&handle : handles) {
        EXPECT_EQ(venc_.VideoEncoderCreate(&handle, &create) == 0, &handle != &handles.back());
    }
    EXPECT_EQ(handles.back(), nullptr);
    ASSERT_EQ(venc_.VideoEncoderDestroy(&handles.front()), 0);
    EXPECT_EQ(handles.front(), nullptr);
    EXPECT_EQ(venc_.VideoEncoderCreate(&handles.back(), &create), 0);
    for (void *&handle : handles) {
        EXPECT_EQ(venc_.VideoEncoderDestroy(&handle), 0);
    }
}

} // namespace
