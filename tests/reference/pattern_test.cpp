// SPDX-License-Identifier: Apache-2.0
// The moving test pattern: exact regeneration, cheap redraws that leave no
// trace, and layouts that agree with each other and with libyuv.
#include "pattern.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <vector>

#ifdef KXCAMERA_TEST_WITH_LIBYUV
#include <libyuv.h>
#endif

#include "av_decode.h"

namespace {

using kxpattern::FrameBytes;
using kxpattern::PatternGenerator;
using kxpattern::PixelFormat;

std::vector<uint8_t> Render(PixelFormat format, uint32_t w, uint32_t h, uint64_t index)
{
    auto generator = PatternGenerator::Create(format, w, h);
    std::vector<uint8_t> frame(generator->frameBytes());
    EXPECT_TRUE(generator->RenderTo(index, frame));
    return frame;
}

struct Size {
    uint32_t w;
    uint32_t h;
};

class PatternRefusal : public testing::TestWithParam<Size> {};

TEST_P(PatternRefusal, SizesThatCannotBeLaidOutAreRefused)
{
    for (const PixelFormat format : {PixelFormat::kI420, PixelFormat::kNV12, PixelFormat::kNV21, PixelFormat::kRGB565}) {
        EXPECT_FALSE(PatternGenerator::Create(format, GetParam().w, GetParam().h).has_value());
    }
}

INSTANTIATE_TEST_SUITE_P(OddZeroOrHuge, PatternRefusal,
                         testing::Values(Size{0, 480}, Size{640, 0}, Size{641, 480}, Size{640, 481},
                                         Size{kxpattern::kMaxSide + 2, 64}));

class PatternFormat : public testing::TestWithParam<PixelFormat> {};

TEST_P(PatternFormat, IncrementalFramesEqualWholeRendersAtAnyIndexOrder)
{
    // Jumps back and forth make the block land anywhere relative to where it
    // was: a redraw that forgot to restore the old place shows up here.
    const uint64_t indices[] = {0, 1, 2, 3, 40, 39, 7, 1000, 99999999, 100000000, 5000000000ull, 2};
    for (const Size size : {Size{640, 480}, Size{64, 64}, Size{2, 2}, Size{1920, 1080}}) {
        auto generator = PatternGenerator::Create(GetParam(), size.w, size.h);
        ASSERT_TRUE(generator.has_value());
        const size_t expectedBytes =
            GetParam() == PixelFormat::kRGB565 ? size_t{size.w} * size.h * 2 : size_t{size.w} * size.h * 3 / 2;
        ASSERT_EQ(generator->frameBytes(), expectedBytes);
        ASSERT_EQ(FrameBytes(GetParam(), size.w, size.h), expectedBytes);
        for (const uint64_t index : indices) {
            const std::span<const uint8_t> frame = generator->Frame(index);
            const std::vector<uint8_t> whole = Render(GetParam(), size.w, size.h, index);
            ASSERT_TRUE(std::equal(frame.begin(), frame.end(), whole.begin(), whole.end()))
                << size.w << "x" << size.h << " frame " << index;
        }
    }
}

TEST_P(PatternFormat, OnlyTheBlockAndTheNumberChangeBetweenFrames)
{
    constexpr uint32_t w = 640;
    constexpr uint32_t h = 480;
    auto generator = PatternGenerator::Create(GetParam(), w, h);
    const std::vector<uint8_t> a = Render(GetParam(), w, h, 41);
    const std::vector<uint8_t> b = Render(GetParam(), w, h, 42);
    const auto inside = [](kxpattern::Rect r, uint32_t x, uint32_t y) {
        return x >= r.x && x < r.x + r.w && y >= r.y && y < r.y + r.h;
    };
    const kxpattern::Rect blockA = generator->BlockRect(41);
    const kxpattern::Rect blockB = generator->BlockRect(42);
    const kxpattern::Rect number = generator->NumberRect();
    EXPECT_FALSE(blockA.x == blockB.x && blockA.y == blockB.y);
    // Compare the first plane: luma, or the RGB565 words.
    const uint32_t bytesPerPixel = GetParam() == PixelFormat::kRGB565 ? 2 : 1;
    size_t changedOutside = 0;
    size_t changedInNumber = 0;
    for (uint32_t y = 0; y < h; ++y) {
        for (uint32_t x = 0; x < w; ++x) {
            const size_t at = (size_t{y} * w + x) * bytesPerPixel;
            const bool differs = std::memcmp(&a[at], &b[at], bytesPerPixel) != 0;
            if (inside(number, x, y)) {
                changedInNumber += differs ? 1 : 0;
            } else if (!inside(blockA, x, y) && !inside(blockB, x, y)) {
                changedOutside += differs ? 1 : 0;
            }
        }
    }
    EXPECT_EQ(changedOutside, 0u);
    EXPECT_GT(changedInNumber, 0u) << "the frame number is not drawn";
}

TEST_P(PatternFormat, ShortBufferIsLeftUntouched)
{
    auto generator = PatternGenerator::Create(GetParam(), 64, 64);
    std::vector<uint8_t> buffer(generator->frameBytes() - 1, 0xA5);
    EXPECT_FALSE(generator->RenderTo(0, buffer));
    EXPECT_TRUE(std::all_of(buffer.begin(), buffer.end(), [](uint8_t b) { return b == 0xA5; }));
}

INSTANTIATE_TEST_SUITE_P(AllFormats, PatternFormat,
                         testing::Values(PixelFormat::kI420, PixelFormat::kNV12, PixelFormat::kNV21,
                                         PixelFormat::kRGB565));

TEST(PatternLayouts, YuvLayoutsCarryTheSameSamples)
{
    constexpr uint32_t w = 320;
    constexpr uint32_t h = 240;
    constexpr size_t luma = size_t{w} * h;
    const std::vector<uint8_t> i420 = Render(PixelFormat::kI420, w, h, 17);
    const std::vector<uint8_t> nv12 = Render(PixelFormat::kNV12, w, h, 17);
    const std::vector<uint8_t> nv21 = Render(PixelFormat::kNV21, w, h, 17);
    ASSERT_TRUE(std::equal(i420.begin(), i420.begin() + luma, nv12.begin()));
    ASSERT_TRUE(std::equal(i420.begin(), i420.begin() + luma, nv21.begin()));
    for (size_t i = 0; i < luma / 4; ++i) {
        const uint8_t u = i420[luma + i];
        const uint8_t v = i420[luma + luma / 4 + i];
        ASSERT_EQ(nv12[luma + 2 * i], u) << i;
        ASSERT_EQ(nv12[luma + 2 * i + 1], v) << i;
        ASSERT_EQ(nv21[luma + 2 * i], v) << i;
        ASSERT_EQ(nv21[luma + 2 * i + 1], u) << i;
    }
}

#ifdef KXCAMERA_TEST_WITH_LIBYUV
// The plugin converts camera frames with libyuv; what it gets out of our
// NV21 and RGB565 frames must be the picture the I420 frame shows.
TEST(PatternLayouts, LibyuvConversionsOfRawFramesGiveTheI420Frame)
{
    constexpr int w = 640;
    constexpr int h = 480;
    constexpr size_t luma = size_t{w} * h;
    const std::vector<uint8_t> i420 = Render(PixelFormat::kI420, w, h, 23);
    const std::vector<uint8_t> nv21 = Render(PixelFormat::kNV21, w, h, 23);
    const std::vector<uint8_t> rgb565 = Render(PixelFormat::kRGB565, w, h, 23);

    std::vector<uint8_t> out(luma * 3 / 2);
    uint8_t *y = out.data();
    uint8_t *u = y + luma;
    uint8_t *v = u + luma / 4;
    ASSERT_EQ(libyuv::NV21ToI420(nv21.data(), w, nv21.data() + luma, w, y, w, u, w / 2, v, w / 2, w, h), 0);
    EXPECT_EQ(out, i420);

    ASSERT_EQ(libyuv::RGB565ToI420(rgb565.data(), 2 * w, y, w, u, w / 2, v, w / 2, w, h), 0);
    // Rounding of the 2x2 chroma mean may differ by one step; a swapped
    // channel or a wrong byte order costs tens of dB.
    for (const double psnr : kxtest::PlanePsnr(out, i420, w, h)) {
        EXPECT_GT(psnr, 45.0);
    }
}
#endif

} // namespace
