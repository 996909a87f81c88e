// SPDX-License-Identifier: Apache-2.0
// The reference encoder library through its getter: what it offers, what a
// decoder makes of its output, its rate control, and what it refuses.
#include "kxcamera/video_encoder.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <random>
#include <thread>
#include <vector>

#include "av_decode.h"
#include "kxcamera/camera_handler.h"
#include "pattern.h"
#include "vendor_library.h"

namespace {

using kxpattern::PatternGenerator;
using kxpattern::PixelFormat;
using kxtest::Codec;

std::vector<uint8_t> Render(uint32_t w, uint32_t h)
{
    auto generator = PatternGenerator::Create(PixelFormat::kI420, w, h);
    std::vector<uint8_t> frame(generator->frameBytes());
    generator->RenderTo(0, frame);
    return frame;
}

class EncoderLibrary : public testing::Test {
protected:
    static void SetUpTestSuite()
    {
        library_ = new kxtest::VendorLibrary(KXCAMERA_TEST_ENCODER_LIB);
        ASSERT_TRUE(library_->loaded()) << dlerror();
        ASSERT_EQ(library_->Fill(KX_VIDEO_ENCODER_GETTER, venc_), 0);
    }
    static void TearDownTestSuite()
    {
        delete library_;
        library_ = nullptr;
    }

    // An instance created and configured, destroyed with the test.
    struct Instance {
        void *handle = nullptr;
        ~Instance()
        {
            if (handle != nullptr) {
                venc_.VideoEncoderDestroy(&handle);
            }
        }
    };

    static int32_t Open(Instance &instance, uint32_t w, uint32_t h, int32_t csp, uint32_t fps, uint32_t bitRate)
    {
        KxVencCreateParams create{};
        create.width = w;
        create.height = h;
        create.mColorType = static_cast<uint32_t>(csp);
        int32_t status = venc_.VideoEncoderCreate(&instance.handle, &create);
        if (status != 0) {
            return status;
        }
        const KxVencConfigParams config{fps, fps, bitRate, bitRate, 0};
        return venc_.VideoEncoderConfigure(instance.handle, &config);
    }

    static int32_t Encode(void *handle, std::vector<uint8_t> &frame, uint32_t w, uint32_t h, int32_t csp,
                          int64_t timeStamp, KxVencOutput &output, uint32_t flags = 0)
    {
        KxVencInputFrame input{frame.data(), static_cast<uint32_t>(frame.size()), csp, timeStamp, w, h};
        output = {};
        return venc_.VideoEncoderProcess(handle, &input, flags, &output);
    }

    static inline kxtest::VendorLibrary *library_ = nullptr;
    static inline KxVideoEncoderHandler venc_{};
};

TEST_F(EncoderLibrary, OffersOneH264AbilityForI420AndNv12)
{
    KxVencAbility abilities[2]{};
    uint32_t num = 99;
    ASSERT_EQ(venc_.VideoEncoderGetAbility(abilities, 2, &num), 0);
    ASSERT_EQ(num, 1u);
    EXPECT_EQ(abilities[0].codecType, 0);
    EXPECT_EQ(abilities[0].cspTypeMask, (1 << KX_CSP_I420) | (1 << KX_CSP_NV12));
    EXPECT_EQ(abilities[0].minEncWidth, 64);
    EXPECT_EQ(abilities[0].minEncHeigth, 64);
    EXPECT_EQ(abilities[0].maxEncWidth, 3840);
    EXPECT_EQ(abilities[0].maxEncHeight, 2160);
    EXPECT_GE(abilities[0].maxCodecNum, 8);
    EXPECT_EQ(abilities[0].asynOutput, 0);

    ASSERT_EQ(venc_.VideoEncoderGetAbility(nullptr, 0, &num), 0);
    EXPECT_EQ(num, 0u);
    EXPECT_LT(venc_.VideoEncoderGetAbility(abilities, 2, nullptr), 0);
}

struct RoundTrip {
    int32_t csp;
    uint32_t w;
    uint32_t h;
};

class EncoderRoundTrip : public EncoderLibrary, public testing::WithParamInterface<RoundTrip> {};

// 3 Mbit/s at 640x480 and 30 fps is about 0.33 bit per pixel; x264's
// fastest preset keeps this pattern above 35 dB on every plane. A stride,
// plane order or colour space mistake leaves a plane far below 30 dB.
TEST_P(EncoderRoundTrip, EveryUnitDecodesToItsSourceFrame)
{
    const auto [csp, w, h] = GetParam();
    Instance instance;
    ASSERT_EQ(Open(instance, w, h, csp, 30, 3000000), 0);
    auto source = PatternGenerator::Create(csp == KX_CSP_NV12 ? PixelFormat::kNV12 : PixelFormat::kI420, w, h);
    auto reference = PatternGenerator::Create(PixelFormat::kI420, w, h);
    kxtest::Decoder decoder(Codec::kH264);
    for (uint64_t index = 0; index < 30; ++index) {
        const auto frameView = source->Frame(index);
        std::vector<uint8_t> frame(frameView.begin(), frameView.end());
        KxVencOutput output;
        const int64_t timeStamp = 1000000 + static_cast<int64_t>(index) * 33333;
        ASSERT_EQ(Encode(instance.handle, frame, w, h, csp, timeStamp, output), 0);
        ASSERT_NE(output.bsBuf, nullptr);
        ASSERT_GT(output.bsLength, 0) << "x264 held frame " << index << " back";
        EXPECT_EQ(output.timeStamp, timeStamp);
        const std::span<const uint8_t> unit(output.bsBuf, static_cast<size_t>(output.bsLength));
        if (index == 0) {
            EXPECT_TRUE(kxtest::HasParameterSets(Codec::kH264, unit));
            EXPECT_TRUE(kxtest::HasIdr(Codec::kH264, unit));
        }
        std::vector<kxtest::Picture> pictures;
        ASSERT_TRUE(decoder.Decode(unit, pictures)) << "frame " << index;
        ASSERT_EQ(pictures.size(), 1u) << "frame " << index;
        ASSERT_EQ(pictures[0].width, static_cast<int>(w));
        ASSERT_EQ(pictures[0].height, static_cast<int>(h));
        const auto psnr = kxtest::PlanePsnr(pictures[0], reference->Frame(index));
        for (size_t plane = 0; plane < psnr.size(); ++plane) {
            EXPECT_GT(psnr[plane], 30.0) << "frame " << index << " plane " << plane;
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Layouts, EncoderRoundTrip,
                         testing::Values(RoundTrip{KX_CSP_I420, 640, 480}, RoundTrip{KX_CSP_NV12, 640, 480},
                                         RoundTrip{KX_CSP_I420, 64, 64}, RoundTrip{KX_CSP_NV12, 1280, 720}),
                         [](const auto &info) {
                             return std::string(info.param.csp == KX_CSP_NV12 ? "NV12_" : "I420_") +
                                    std::to_string(info.param.w) + "x" + std::to_string(info.param.h);
                         });

// The pattern alone is too easy to fill a budget: sensor-like noise on the
// luma makes the rate control, not the content, decide the stream size.
std::vector<uint8_t> NoisyFrame(PatternGenerator &source, uint64_t index)
{
    const auto view = source.Frame(index);
    std::vector<uint8_t> frame(view.begin(), view.end());
    std::minstd_rand noise(static_cast<uint32_t>(index) + 1);
    const size_t luma = size_t{source.width()} * source.height();
    for (size_t i = 0; i < luma; ++i) {
        const int value = frame[i] + static_cast<int>(noise() % 25) - 12;
        frame[i] = static_cast<uint8_t>(std::clamp(value, 0, 255));
    }
    return frame;
}

class EncoderBitRate : public EncoderLibrary, public testing::WithParamInterface<uint32_t> {};

// The ceiling equals the target with half a second of buffer, so over four
// seconds the stream may exceed the target by an eighth at most; a rate
// control that ignored the target would miss it by a factor.
TEST_P(EncoderBitRate, StreamKeepsToTheConfiguredBitRate)
{
    constexpr uint32_t w = 320;
    constexpr uint32_t h = 240;
    constexpr uint64_t frames = 120;
    const uint32_t target = GetParam();
    Instance instance;
    ASSERT_EQ(Open(instance, w, h, KX_CSP_I420, 30, target), 0);
    auto source = PatternGenerator::Create(PixelFormat::kI420, w, h);
    size_t bytes = 0;
    for (uint64_t index = 0; index < frames; ++index) {
        std::vector<uint8_t> frame = NoisyFrame(*source, index);
        KxVencOutput output;
        ASSERT_EQ(Encode(instance.handle, frame, w, h, KX_CSP_I420, static_cast<int64_t>(index), output), 0);
        bytes += static_cast<size_t>(output.bsLength);
    }
    const double rate = static_cast<double>(bytes) * 8.0 * 30 / frames;
    EXPECT_LT(rate, target * 1.125);
    EXPECT_GT(rate, target * 0.75);
}

INSTANTIATE_TEST_SUITE_P(Targets, EncoderBitRate, testing::Values(150000u, 400000u, 2000000u));

TEST_F(EncoderLibrary, ReconfiguringKeepsTheStreamDecodable)
{
    constexpr uint32_t w = 320;
    constexpr uint32_t h = 240;
    Instance instance;
    ASSERT_EQ(Open(instance, w, h, KX_CSP_I420, 30, 800000), 0);
    auto source = PatternGenerator::Create(PixelFormat::kI420, w, h);
    kxtest::Decoder decoder(Codec::kH264);
    std::vector<bool> idr;
    for (uint64_t index = 0; index < 12; ++index) {
        if (index == 4) {
            const KxVencConfigParams bitRateOnly{30, 30, 400000, 400000, 0};
            ASSERT_EQ(venc_.VideoEncoderConfigure(instance.handle, &bitRateOnly), 0);
        }
        if (index == 8) {
            const KxVencConfigParams newRate{15, 15, 400000, 400000, 0};
            ASSERT_EQ(venc_.VideoEncoderConfigure(instance.handle, &newRate), 0);
        }
        const auto view = source->Frame(index);
        std::vector<uint8_t> frame(view.begin(), view.end());
        KxVencOutput output;
        ASSERT_EQ(Encode(instance.handle, frame, w, h, KX_CSP_I420, 0, output, index == 6 ? 1u : 0u), 0);
        const std::span<const uint8_t> unit(output.bsBuf, static_cast<size_t>(output.bsLength));
        idr.push_back(kxtest::HasIdr(Codec::kH264, unit));
        std::vector<kxtest::Picture> pictures;
        ASSERT_TRUE(decoder.Decode(unit, pictures)) << index;
        ASSERT_EQ(pictures.size(), 1u) << index;
    }
    // IDRs: the start, the key-frame flag (6) and the new frame rate (8);
    // a bit-rate change alone (4) continues the stream.
    const std::vector<bool> expected = {true, false, false, false, false, false, true, false,
                                        true, false, false, false};
    EXPECT_EQ(idr, expected);
}

// The plugin sends key-frame requests and rate changes to the camera only;
// the raw camera passes them on to the encoder instances of its frame size,
// and to no other.
TEST_F(EncoderLibrary, RawCameraReachesItsEncoderThroughThePrivateLink)
{
    constexpr uint32_t w = 640;
    constexpr uint32_t h = 480;
    kxtest::VendorLibrary cameraLibrary(KXCAMERA_TEST_CAMERA_LIB);
    KxCameraHandler cam{};
    ASSERT_EQ(cameraLibrary.Fill(KX_CAMERA_HANDLER_GETTER, cam), 0);
    const KxCameraOpenParams params{"0", 1, w, h, 30, KX_DATA_FMT_NV21, 0};
    ASSERT_EQ(cam.OpenCamera("0", 1, [](const char *, uint32_t, const uint8_t *, uint32_t) { return 0; }),
              0);
    ASSERT_EQ(cam.StartCamera(&params), 0);
    Instance linked;
    Instance otherSize;
    ASSERT_EQ(Open(linked, w, h, KX_CSP_I420, 30, 400000), 0);
    ASSERT_EQ(Open(otherSize, 320, 240, KX_CSP_I420, 30, 400000), 0);
    auto source = PatternGenerator::Create(PixelFormat::kI420, w, h);
    std::vector<uint8_t> small = Render(320, 240);
    uint64_t index = 0;
    // Bytes of `count` frames, and whether the first was an IDR.
    auto encode = [&](int count, bool &firstIdr) {
        size_t bytes = 0;
        for (int i = 0; i < count; ++i) {
            std::vector<uint8_t> frame = NoisyFrame(*source, index++);
            KxVencOutput output;
            EXPECT_EQ(Encode(linked.handle, frame, w, h, KX_CSP_I420, 0, output), 0);
            bytes += static_cast<size_t>(output.bsLength);
            firstIdr = i == 0 ? kxtest::HasIdr(Codec::kH264, {output.bsBuf, static_cast<size_t>(output.bsLength)})
                              : firstIdr;
        }
        return bytes;
    };
    bool idr = false;
    encode(10, idr);
    const size_t at30 = encode(20, idr);
    KxVencOutput output;
    ASSERT_EQ(Encode(otherSize.handle, small, 320, 240, KX_CSP_I420, 0, output), 0);

    ASSERT_EQ(cam.BusinessControl(1, nullptr, 0, nullptr, 0), 0);
    encode(1, idr);
    EXPECT_TRUE(idr) << "the key-frame request did not reach the encoder";
    encode(1, idr);
    EXPECT_FALSE(idr);
    ASSERT_EQ(Encode(otherSize.handle, small, 320, 240, KX_CSP_I420, 0, output), 0);
    EXPECT_FALSE(kxtest::HasIdr(Codec::kH264, {output.bsBuf, static_cast<size_t>(output.bsLength)}));

    // Half the rate at the same bit rate: twice the bytes per frame.
    ASSERT_EQ(cam.UpdateConfig("0", 1, 1, "15", 2), 0);
    encode(10, idr);
    const size_t at15 = encode(20, idr);
    EXPECT_GT(static_cast<double>(at15), 1.7 * static_cast<double>(at30)) << at30 << " then " << at15;
    EXPECT_EQ(cam.CloseCamera("0", 1), 0);
}

TEST_F(EncoderLibrary, InstancesEncodeIndependentlyOnTheirOwnThreads)
{
    const RoundTrip streams[] = {
        {KX_CSP_I420, 320, 240}, {KX_CSP_NV12, 352, 288}, {KX_CSP_I420, 640, 360}, {KX_CSP_NV12, 176, 144}};
    std::vector<int> decoded(std::size(streams), 0);
    std::vector<std::thread> threads;
    for (size_t s = 0; s < std::size(streams); ++s) {
        threads.emplace_back([&, s] {
            const auto [csp, w, h] = streams[s];
            Instance instance;
            if (Open(instance, w, h, csp, 30, 1000000) != 0) {
                return;
            }
            auto source = PatternGenerator::Create(csp == KX_CSP_NV12 ? PixelFormat::kNV12 : PixelFormat::kI420, w, h);
            auto reference = PatternGenerator::Create(PixelFormat::kI420, w, h);
            kxtest::Decoder decoder(Codec::kH264);
            for (uint64_t index = 0; index < 20; ++index) {
                const auto view = source->Frame(index);
                std::vector<uint8_t> frame(view.begin(), view.end());
                KxVencOutput output;
                std::vector<kxtest::Picture> pictures;
                if (Encode(instance.handle, frame, w, h, csp, 0, output) != 0 ||
                    !decoder.Decode({output.bsBuf, static_cast<size_t>(output.bsLength)}, pictures) ||
                    pictures.size() != 1 || pictures[0].width != static_cast<int>(w) ||
                    kxtest::PlanePsnr(pictures[0], reference->Frame(index))[0] < 30.0) {
                    return;
                }
                ++decoded[s];
            }
        });
    }
    for (auto &thread : threads) {
        thread.join();
    }
    EXPECT_EQ(decoded, std::vector<int>(std::size(streams), 20));
}

TEST_F(EncoderLibrary, CreatesUpToItsAdvertisedNumberOfInstances)
{
    KxVencAbility ability{};
    uint32_t num = 0;
    ASSERT_EQ(venc_.VideoEncoderGetAbility(&ability, 1, &num), 0);
    std::vector<Instance> instances(static_cast<size_t>(ability.maxCodecNum));
    KxVencCreateParams create{};
    create.width = 64;
    create.height = 64;
    for (auto &instance : instances) {
        ASSERT_EQ(venc_.VideoEncoderCreate(&instance.handle, &create), 0);
    }
    void *extra = nullptr;
    EXPECT_LT(venc_.VideoEncoderCreate(&extra, &create), 0);
    EXPECT_EQ(extra, nullptr);
    ASSERT_EQ(venc_.VideoEncoderDestroy(&instances.back().handle), 0);
    EXPECT_EQ(instances.back().handle, nullptr);
    EXPECT_EQ(venc_.VideoEncoderCreate(&instances.back().handle, &create), 0);
}

TEST_F(EncoderLibrary, DestroyIsHarmlessOnNull)
{
    void *none = nullptr;
    EXPECT_EQ(venc_.VideoEncoderDestroy(&none), 0);
    EXPECT_LT(venc_.VideoEncoderDestroy(nullptr), 0);
}

struct CreateCase {
    const char *name;
    uint32_t w;
    uint32_t h;
    uint32_t colour;
};

class EncoderCreateRefusal : public EncoderLibrary, public testing::WithParamInterface<CreateCase> {};

TEST_P(EncoderCreateRefusal, IsNegativeAndCreatesNothing)
{
    KxVencCreateParams create{};
    create.width = GetParam().w;
    create.height = GetParam().h;
    create.mColorType = GetParam().colour;
    void *handle = nullptr;
    EXPECT_LT(venc_.VideoEncoderCreate(&handle, &create), 0);
    EXPECT_EQ(handle, nullptr);
}

INSTANTIATE_TEST_SUITE_P(Cases, EncoderCreateRefusal,
                         testing::Values(CreateCase{"TooNarrow", 62, 64, 0}, CreateCase{"TooLow", 64, 62, 0},
                                         CreateCase{"TooWide", 3842, 2160, 0}, CreateCase{"TooHigh", 3840, 2162, 0},
                                         CreateCase{"OddWidth", 641, 480, 0}, CreateCase{"Nv21", 640, 480, 2},
                                         CreateCase{"Rgb565", 640, 480, 4}),
                         [](const auto &info) { return std::string(info.param.name); });

TEST_F(EncoderLibrary, CreateAndConfigureRefuseMissingOrUnusableRecords)
{
    KxVencCreateParams create{};
    create.width = 64;
    create.height = 64;
    void *handle = nullptr;
    EXPECT_LT(venc_.VideoEncoderCreate(nullptr, &create), 0);
    EXPECT_LT(venc_.VideoEncoderCreate(&handle, nullptr), 0);
    Instance instance;
    ASSERT_EQ(venc_.VideoEncoderCreate(&instance.handle, &create), 0);
    EXPECT_LT(venc_.VideoEncoderConfigure(instance.handle, nullptr), 0);
    const KxVencConfigParams noBitRate{30, 30, 0, 0, 0};
    EXPECT_LT(venc_.VideoEncoderConfigure(instance.handle, &noBitRate), 0);
    const KxVencConfigParams absurdRate{5000, 5000, 1000000, 1000000, 0};
    EXPECT_LT(venc_.VideoEncoderConfigure(instance.handle, &absurdRate), 0);
    // A rate left at 0 means the usual 30 frames per second.
    const KxVencConfigParams unsetRate{0, 0, 1000000, 1000000, 0};
    EXPECT_EQ(venc_.VideoEncoderConfigure(instance.handle, &unsetRate), 0);
}

struct ProcessCase {
    const char *name;
    std::function<void(KxVencInputFrame &, uint32_t &)> spoil;
};

class EncoderProcessRefusal : public EncoderLibrary, public testing::WithParamInterface<ProcessCase> {};

TEST_P(EncoderProcessRefusal, IsNegativeAndTheInstanceGoesOn)
{
    constexpr uint32_t w = 160;
    constexpr uint32_t h = 120;
    Instance instance;
    ASSERT_EQ(Open(instance, w, h, KX_CSP_I420, 30, 500000), 0);
    std::vector<uint8_t> frame(Render(w, h));
    KxVencInputFrame input{frame.data(), static_cast<uint32_t>(frame.size()), KX_CSP_I420, 0, w, h};
    uint32_t flags = 0;
    GetParam().spoil(input, flags);
    KxVencOutput output{};
    EXPECT_LT(venc_.VideoEncoderProcess(instance.handle, &input, flags, &output), 0);
    KxVencOutput good{};
    ASSERT_EQ(Encode(instance.handle, frame, w, h, KX_CSP_I420, 0, good), 0);
    EXPECT_GT(good.bsLength, 0);
}

INSTANTIATE_TEST_SUITE_P(
    Cases, EncoderProcessRefusal,
    testing::Values(ProcessCase{"WiderThanCreated", [](KxVencInputFrame &f, uint32_t &) { f.width += 2; }},
                    ProcessCase{"LowerThanCreated", [](KxVencInputFrame &f, uint32_t &) { f.height -= 2; }},
                    ProcessCase{"OtherColourSpace", [](KxVencInputFrame &f, uint32_t &) { f.csp = KX_CSP_NV12; }},
                    ProcessCase{"OneByteShort", [](KxVencInputFrame &f, uint32_t &) { f.length -= 1; }},
                    ProcessCase{"NoData", [](KxVencInputFrame &f, uint32_t &) { f.data = nullptr; }},
                    ProcessCase{"UnknownFlag", [](KxVencInputFrame &, uint32_t &flags) { flags = 2; }}),
    [](const auto &info) { return std::string(info.param.name); });

TEST_F(EncoderLibrary, ProcessRefusesMissingRecordsAndUnconfiguredInstances)
{
    constexpr uint32_t w = 64;
    constexpr uint32_t h = 64;
    std::vector<uint8_t> frame(Render(w, h));
    KxVencInputFrame input{frame.data(), static_cast<uint32_t>(frame.size()), KX_CSP_I420, 0, w, h};
    KxVencOutput output{};
    KxVencCreateParams create{};
    create.width = w;
    create.height = h;
    Instance instance;
    ASSERT_EQ(venc_.VideoEncoderCreate(&instance.handle, &create), 0);
    EXPECT_LT(venc_.VideoEncoderProcess(instance.handle, &input, 0, &output), 0);
    EXPECT_LT(venc_.VideoEncoderProcess(nullptr, &input, 0, &output), 0);
    EXPECT_LT(venc_.VideoEncoderProcess(instance.handle, nullptr, 0, &output), 0);
    EXPECT_LT(venc_.VideoEncoderProcess(instance.handle, &input, 0, nullptr), 0);
}

} // namespace
