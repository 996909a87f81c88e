// SPDX-License-Identifier: Apache-2.0
// The moving test pattern: cheap redraws equal whole renders, layouts agree
// with each other and with libyuv, and what cannot be laid out is refused.
#include "pattern.h"

#include <gtest/gtest.h>

#include <algorithm>

#ifdef KXCAMERA_TEST_WITH_LIBYUV
#include <libyuv.h>
#endif

#include "av_decode.h"

namespace {

using kxpattern::PatternGenerator;
using kxpattern::PixelFormat;

std::vector<uint8_t> Render(PixelFormat format, uint32_t w, uint32_t h, uint64_t index)
{
    std::vector<uint8_t> frame(kxpattern::FrameBytes(format, w, h));
    EXPECT_TRUE(PatternGenerator::Create(format, w, h)->RenderTo(index, frame));
    return frame;
}

class PatternFormat : public testing::TestWithParam<PixelFormat> {};

// Jumps back and forth put the block anywhere relative to where it was: a
// redraw that forgot the old place shows up, and so does a frame number
// that is not drawn.
TEST_P(PatternFormat, IncrementalFramesEqualWholeRendersAndShortBuffersAndOddSizesAreRefused)
{
    for (const auto &[w, h] : {std::pair{640u, 480u}, std::pair{2u, 2u}, std::pair{1920u, 1080u}}) {
        auto pattern = PatternGenerator::Create(GetParam(), w, h);
        ASSERT_EQ(pattern->frameBytes(), GetParam() == PixelFormat::kRGB565 ? w * h * 2 : w * h * 3 / 2);
        for (const uint64_t index : {0ull, 1ull, 40ull, 39ull, 7ull, 99999999ull, 100000000ull, 5000000000ull, 2ull}) {
            ASSERT_TRUE(std::ranges::equal(pattern->Frame(index), Render(GetParam(), w, h, index))) << index;
        }
    }
    // The number box is drawn over the block: frames 10 and 11 differ inside it.
    const kxpattern::Rect box = PatternGenerator::Create(GetParam(), 640, 480)->NumberRect();
    const size_t bpp = GetParam() == PixelFormat::kRGB565 ? 2 : 1;
    const std::vector<uint8_t> a = Render(GetParam(), 640, 480, 10);
    const std::vector<uint8_t> b = Render(GetParam(), 640, 480, 11);
    bool differs = false;
    for (size_t y = box.y, at = (y * 640 + box.x) * bpp; y < box.y + box.h; ++y, at += 640 * bpp) {
        differs |= !std::equal(a.begin() + at, a.begin() + at + box.w * bpp, b.begin() + at);
    }
    EXPECT_TRUE(differs) << "the frame number is not drawn";
    std::vector<uint8_t> buffer(kxpattern::FrameBytes(GetParam(), 64, 64) - 1, 0xA5);
    EXPECT_FALSE(PatternGenerator::Create(GetParam(), 64, 64)->RenderTo(0, buffer));
    EXPECT_TRUE(std::ranges::all_of(buffer, [](uint8_t b) { return b == 0xA5; }));
    for (const auto &[w, h] :
         {std::pair{0u, 480u}, std::pair{641u, 480u}, std::pair{640u, 481u}, std::pair{kxpattern::kMaxSide + 2, 64u}}) {
        EXPECT_FALSE(PatternGenerator::Create(GetParam(), w, h).has_value()) << w << "x" << h;
    }
}

INSTANTIATE_TEST_SUITE_P(AllFormats, PatternFormat,
                         testing::Values(PixelFormat::kI420, PixelFormat::kNV12, PixelFormat::kNV21,
                                         PixelFormat::kRGB565));

// The plugin converts camera frames with libyuv: what it gets out of our
// NV21 and RGB565 frames must be the picture the I420 frame shows, and
// NV12 must carry the samples of I420 in its own order.
TEST(PatternLayouts, RawLayoutsCarryTheI420Picture)
{
    constexpr int w = 320;
    constexpr int h = 240;
    constexpr size_t luma = size_t{w} * h;
    const std::vector<uint8_t> i420 = Render(PixelFormat::kI420, w, h, 23);
    const std::vector<uint8_t> nv12 = Render(PixelFormat::kNV12, w, h, 23);
    const std::vector<uint8_t> nv21 = Render(PixelFormat::kNV21, w, h, 23);
    // NV12 is NV21 with each chroma pair swapped.
    for (size_t i = 0; i < nv21.size(); ++i) {
        ASSERT_EQ(nv12[i], nv21[i < luma ? i : i ^ 1]) << i;
    }
#ifdef KXCAMERA_TEST_WITH_LIBYUV
    std::vector<uint8_t> out(luma * 3 / 2);
    uint8_t *y = out.data();
    ASSERT_EQ(
        libyuv::NV21ToI420(nv21.data(), w, nv21.data() + luma, w, y, w, y + luma, w / 2, y + luma * 5 / 4, w / 2, w, h),
        0);
    EXPECT_EQ(out, i420);
    const std::vector<uint8_t> rgb565 = Render(PixelFormat::kRGB565, w, h, 23);
    ASSERT_EQ(libyuv::RGB565ToI420(rgb565.data(), 2 * w, y, w, y + luma, w / 2, y + luma * 5 / 4, w / 2, w, h), 0);
    // The 2x2 chroma mean may round one step apart; a swapped channel or byte order costs tens of dB.
    for (const double psnr : kxtest::PlanePsnr(out, i420, w, h)) {
        EXPECT_GT(psnr, 45.0);
    }
#endif
}

} // namespace
