// SPDX-License-Identifier: Apache-2.0
// Colour conversion: the refusals before any converter, and each supported
// pair against a reference built here (or its refusal without libyuv).
#include "kxcamera/color_convert.h"

#include <cmath>
#include <vector>

#include "video_support.h"

namespace kxtest {
namespace {

struct RefusalRow {
    const char *name;
    int32_t srcCsp, dstCsp, dstHeight;
    bool srcData, dstData;
    int32_t result;
    const char *error; // "": no error line
};

class ColorConvertRefusalTest : public PluginTest, public ::testing::WithParamInterface<RefusalRow> {};

TEST_P(ColorConvertRefusalTest, Refused)
{
    const RefusalRow &row = GetParam();
    std::vector<uint8_t> src(640 * 480 * 2, 0x40), dst(640 * 480 * 2, 0xAB);
    const KxImage a{row.srcCsp, 640, 480, 640, row.srcData ? src.data() : nullptr};
    const KxImage b{row.dstCsp, 640, row.dstHeight, 640, row.dstData ? dst.data() : nullptr};
    EXPECT_EQ(TALVOColorConvert(&a, &b), row.result);
    if (std::string(row.error).empty()) {
        EXPECT_TRUE(TextsAtLevel(1).empty()) << DumpLogs();
    } else {
        EXPECT_EQ(TextsAtLevel(1), std::vector<std::string>{row.error});
        EXPECT_EQ(CapturedLogs().back().tag, "TALVO_MediaDataProc");
    }
    EXPECT_EQ(dst, std::vector<uint8_t>(dst.size(), 0xAB));
}

INSTANTIATE_TEST_SUITE_P(
    Rows, ColorConvertRefusalTest,
    ::testing::Values(
        RefusalRow{"NoSourceData", 2, 0, 360, false, true, -13, "srcImg or dstImg is null"},
        RefusalRow{"NoDestinationData", 2, 0, 480, true, false, -13, "srcImg or dstImg is null"},
        RefusalRow{"SizesDiffer", 2, 0, 360, true, true, -8005,
                   "srcImg width 640  dstImg width 640 , srcImg height 480 dstImg height 360, maybe not equal"},
        RefusalRow{"I420ToI420", 0, 0, 480, true, true, -8005, ""},
        RefusalRow{"Nv12ToI420", 1, 0, 480, true, true, -8005, ""},
        RefusalRow{"Rgb565ToNv12", 4, 1, 480, true, true, -8005, ""}),
    [](const auto &info) { return std::string(info.param.name); });

struct Yuv {
    double y, u, v;
};

// BT.601, limited range.
Yuv Bt601(uint16_t rgb565)
{
    const int r5 = rgb565 >> 11, g6 = (rgb565 >> 5) & 0x3F, b5 = rgb565 & 0x1F;
    const double r = (r5 << 3) | (r5 >> 2), g = (g6 << 2) | (g6 >> 4), b = (b5 << 3) | (b5 >> 2);
    return Yuv{16 + (65.481 * r + 128.553 * g + 24.966 * b) / 255.0,
               128 + (-37.797 * r - 74.203 * g + 112.0 * b) / 255.0,
               128 + (112.0 * r - 93.786 * g - 18.214 * b) / 255.0};
}

// A supported pair: source, reference output, tolerance per byte.
struct PairCase {
    int32_t srcCsp, dstCsp, width, height, srcStride;
    std::vector<uint8_t> source, expected;
    int tolerance;
};

// Four 2x2 blocks: red, green, blue, white.
PairCase Rgb565()
{
    const uint16_t colours[] = {0xF800, 0x07E0, 0x001F, 0xFFFF};
    PairCase c{4, 0, 8, 2, 16, {}, {}, 2};
    for (int32_t px = 0; px < 16; ++px) {
        c.source.push_back(static_cast<uint8_t>(colours[px % 8 / 2] & 0xFF));
        c.source.push_back(static_cast<uint8_t>(colours[px % 8 / 2] >> 8));
        c.expected.push_back(static_cast<uint8_t>(std::lround(Bt601(colours[px % 8 / 2]).y)));
    }
    for (double Yuv::*plane : {&Yuv::u, &Yuv::v}) {
        for (uint16_t colour : colours) {
            c.expected.push_back(static_cast<uint8_t>(std::lround(Bt601(colour).*plane)));
        }
    }
    return c;
}

PairCase Nv21() // rows padded: the stride must be honoured
{
    auto nv21 = Nv21Pattern(8, 4, 12, 3);
    return PairCase{2, 0, 8, 4, 12, nv21, Nv21ToI420(nv21, 8, 4, 12), 0};
}

PairCase I420()
{
    auto i420 = Nv21ToI420(Nv21Pattern(8, 4, 8, 9), 8, 4, 8);
    return PairCase{0, 1, 8, 4, 8, i420, I420ToNv12(i420, 8, 4), 0};
}

class ColorConvertPairTest : public PluginTest, public ::testing::WithParamInterface<PairCase (*)()> {};

TEST_P(ColorConvertPairTest, SupportedPair)
{
    PairCase c = GetParam()();
    std::vector<uint8_t> out(c.expected.size(), 0xAB);
    const KxImage src{c.srcCsp, c.width, c.height, c.srcStride, c.source.data()};
    const KxImage dst{c.dstCsp, c.width, c.height, c.width, out.data()};
#if KXCAMERA_WITH_LIBYUV
    ASSERT_EQ(TALVOColorConvert(&src, &dst), 0) << DumpLogs();
    for (size_t i = 0; i < out.size(); ++i) {
        EXPECT_NEAR(out[i], c.expected[i], c.tolerance) << "byte " << i;
    }
#else
    EXPECT_EQ(TALVOColorConvert(&src, &dst), -1);
    EXPECT_EQ(TextsAtLevel(4).size(), 1u);
    EXPECT_EQ(TextsAtLevel(1), std::vector<std::string>{"unsupport libyuv, check it"});
    EXPECT_EQ(CapturedLogs().back().tag, "TALVO_MediaDataProc");
    EXPECT_EQ(out, std::vector<uint8_t>(out.size(), 0xAB));
#endif
}

INSTANTIATE_TEST_SUITE_P(Pairs, ColorConvertPairTest, ::testing::Values(&Rgb565, &Nv21, &I420));

} // namespace
} // namespace kxtest
