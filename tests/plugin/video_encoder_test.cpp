// SPDX-License-Identifier: Apache-2.0
// The camera's encoder instance over the fake encoder library: colour space,
// bit rate, creation, destruction, and the configuration check.
#include "video/video.h"

#include <cstdio>

#include "video_support.h"

namespace kxtest {
namespace {

TEST(VideoCspTest, LowestOfTheThreeBitsDecides)
{
    const std::pair<uint32_t, int32_t> rows[] = {{1, 0}, {7, 0}, {6, 1}, {2, 1}, {4, 2}, {0xFC, 2}, {8, -1}, {0, -1}};
    for (const auto &[mask, csp] : rows) {
        uint32_t fmt = 99, process = 98;
        EXPECT_EQ(GetCodecCsp(mask, &fmt, &process), csp < 0 ? -8005 : 0) << mask;
        EXPECT_EQ(fmt, csp < 0 ? 99u : static_cast<uint32_t>(csp)) << mask;
        EXPECT_EQ(process, csp < 0 ? 98u : static_cast<uint32_t>(csp)) << mask;
    }
}

TEST(VideoBitrateTest, WorkedExamples)
{
    const uint32_t rows[][4] = {{1280, 720, 30, 3400000}, {1280, 720, 60, 6800000}, {1280, 720, 15, 1700000},
                                {1920, 1080, 0, 6000000}, {1920, 1080, 121, 6000000}, {1920, 1080, 120, 24000000},
                                {800, 600, 30, 500000},   {640, 480, 25, 1500000},   {640, 481, 25, 416666},
                                {360, 480, 30, 500000}};
    for (const auto &row : rows) {
        EXPECT_EQ(GetVideoBitrate(row[0], row[1], row[2]), row[3]) << row[0] << "x" << row[1] << "@" << row[2];
    }
}

struct CreateRow {
    const char *name;
    int32_t firstCodec, firstMask, secondMask; // secondMask < 0: one ability
    int32_t create, configure, result;
    int32_t csp; // created colour space
};

class VideoEncoderCreateTest : public VideoTest, public ::testing::WithParamInterface<CreateRow> {};

TEST_P(VideoEncoderCreateTest, Row)
{
    const CreateRow &row = GetParam();
    if (row.secondMask < 0) {
        LoadEncoder({Ability(row.firstCodec, row.firstMask)});
    } else {
        LoadEncoder({Ability(row.firstCodec, row.firstMask), Ability(0, row.secondMask)});
    }
    FakeEncoder()->status.create = row.create;
    FakeEncoder()->status.configure = row.configure;
    camera_->negParams = KxNegParams{640, 480, 25, 0, 2};
    EXPECT_EQ(CreateVideoEncoder(camera_), row.result) << DumpLogs();
    const bool kept = row.result == 0;
    EXPECT_EQ(camera_->vencHandle != nullptr, kept);
    EXPECT_EQ(FakeEncoder()->LiveInstances(), kept ? 1u : 0u) << "a failed configuration destroys the instance";
    auto creates = FakeEncoder()->CallsTo("VideoEncoderCreate");
    if (row.result == -8005) {
        EXPECT_TRUE(creates.empty()) << "refused before the library is asked";
        return;
    }
    EXPECT_EQ(camera_->dstFmtCodec, static_cast<uint32_t>(row.csp));
    EXPECT_EQ(camera_->dstFrmProcess, static_cast<uint32_t>(row.csp));
    EXPECT_EQ(camera_->encFrame.csp, row.csp) << "decides the second conversion step";
    ASSERT_EQ(creates.size(), 1u);
    const KxVencCreateParams &params = creates[0].create;
    EXPECT_EQ(params.width, 640u);
    EXPECT_EQ(params.height, 480u);
    EXPECT_EQ(params.mColorType, static_cast<uint32_t>(row.csp));
    EXPECT_EQ(params.privateData, camera_);
    EXPECT_EQ(params.outputCallback, &VEncOutputCallback);
    auto configures = FakeEncoder()->CallsTo("VideoEncoderConfigure");
    if (row.create < 0) {
        EXPECT_TRUE(configures.empty());
        return;
    }
    ASSERT_EQ(configures.size(), 1u);
    const KxVencConfigParams &c = configures[0].config;
    EXPECT_EQ(std::vector<uint32_t>({c.inFrameRate, c.outFrameRate, c.bitRate, c.maxBitRate, c.reserved}),
              std::vector<uint32_t>({25, 25, 1500000, 1500000, 0}));
    if (row.configure < 0) {
        EXPECT_TRUE(HasLog(1, "VideoEncoderConfigure failed, error code " + std::to_string(row.configure)));
    }
    EXPECT_EQ(DestoryVideoEncoder(camera_), 0);
}

INSTANTIATE_TEST_SUITE_P(
    Rows, VideoEncoderCreateTest,
    ::testing::Values(CreateRow{"Mask6IsNv12", 0, 6, -1, 0, 0, 0, 1}, CreateRow{"Mask7IsI420", 0, 7, -1, 0, 0, 0, 0},
                      CreateRow{"Mask8Refused", 0, 8, -1, 0, 0, -8005, 0},
                      CreateRow{"Nv21Refused", 0, 4, -1, 0, 0, -8005, 2},
                      CreateRow{"CspFromTheFirstAbility", 1, 2, 1, 0, 0, 0, 1},
                      CreateRow{"PositiveStatusesSucceed", 0, 1, -1, 1, 1, 0, 0},
                      CreateRow{"CreateFails", 0, 1, -1, -7, 0, -7, 0},
                      CreateRow{"ConfigureFails", 0, 1, -1, 0, -1, -1, 0}),
    [](const auto &info) { return std::string(info.param.name); });

TEST_F(VideoTest, DestroyHarmlessWithoutInstanceAndAlwaysClears)
{
    LoadEncoder({Ability(0, 1)});
    EXPECT_EQ(DestoryVideoEncoder(camera_), 0);
    EXPECT_TRUE(FakeEncoder()->CallsTo("VideoEncoderDestroy").empty()) << "no call for a null instance";
    for (int32_t status : {0, -3}) {
        ASSERT_EQ(CreateVideoEncoder(camera_), 0);
        FakeEncoder()->status.destroy = status;
        EXPECT_EQ(DestoryVideoEncoder(camera_), 0);
        EXPECT_EQ(camera_->vencHandle, nullptr);
    }
    EXPECT_TRUE(HasLog(4, "destory video encoder success"));
    EXPECT_TRUE(HasLog(1, "destory video encoder failed"));
    camera_->vencHandler = nullptr;
    EXPECT_EQ(CreateVideoEncoder(camera_), -1000);
    EXPECT_EQ(DestoryVideoEncoder(camera_), -1000);
    EXPECT_EQ(LogsWithFormat("camera encoder handler is null").size(), 2u);
}

struct CheckRow {
    const char *name;
    int32_t width, height;
    uint32_t csp;
    int32_t firstCodec, mask, maxCodecNum, result;
    const char *error; // "": none
};

class VideoCheckCfgTest : public VideoTest, public ::testing::WithParamInterface<CheckRow> {};

TEST_P(VideoCheckCfgTest, Row)
{
    const CheckRow &row = GetParam();
    KxVencAbility limits{};
    limits.cspTypeMask = row.mask;
    limits.maxEncWidth = 1280;
    limits.maxEncHeight = 720;
    limits.minEncWidth = limits.minEncHeigth = 16;
    limits.maxCodecNum = row.maxCodecNum;
    g_cameraModule.vencAbility[0] = limits;
    g_cameraModule.vencAbility[0].codecType = row.firstCodec;
    g_cameraModule.vencAbility[1] = limits; // second, only counted when the first is not codec 0
    g_cameraModule.vencAbilityNum = row.firstCodec == 0 ? 1 : 2;
    camera_->negParams.width = row.width;
    camera_->negParams.height = row.height;
    camera_->dstFmtCodec = row.csp;
    EXPECT_EQ(CheckCfgParams(camera_), row.result);
    EXPECT_EQ(TextsAtLevel(1), *row.error ? std::vector<std::string>{row.error} : std::vector<std::string>{});
}

INSTANTIATE_TEST_SUITE_P(
    Rows, VideoCheckCfgTest,
    ::testing::Values(
        CheckRow{"Fits", 1280, 720, 1, 0, 2, 1, 0, ""},
        CheckRow{"SecondAbilityMatches", 16, 16, 0, 1, 1, 1, 0, ""},
        CheckRow{"TooWide", 1920, 1080, 0, 0, 1, 1, -8003, "invalid video width 1920,  should be in range [16, 1280]"},
        CheckRow{"TooHigh", 1280, 1080, 0, 0, 1, 1, -8003, "invalid video height 1080,  should be in range [16, 720]"},
        CheckRow{"TooNarrow", 8, 720, 0, 0, 1, 1, -8003, "invalid video width 8,  should be in range [16, 1280]"},
        CheckRow{"CspNotInMask", 640, 480, 2, 0, 3, 1, -8005, "mColorType 2 can not match cspTypeMask 0x3"},
        CheckRow{"UnknownCsp", 640, 480, 3, 0, 15, 1, -8005, "mColorType 3 can not match cspTypeMask 0xf"},
        CheckRow{"NoInstance", 640, 480, 0, 0, 1, 0, -8001, "total create video encoder number is 0, too small"}),
    [](const auto &info) { return std::string(info.param.name); });

TEST_F(VideoTest, NoEncoderAbilityOfCodecZero)
{
    g_cameraModule.vencAbility[0].codecType = 1;
    g_cameraModule.vencAbility[1].codecType = 0; // beyond the count
    g_cameraModule.vencAbilityNum = 1;
    int32_t index = 7;
    EXPECT_EQ(FindMatchedEncoderAbility(camera_, &index), -8002);
    EXPECT_EQ(index, 7);
    EXPECT_EQ(CheckCfgParams(camera_), -8002);
    EXPECT_TRUE(CapturedLogs().empty());
}

} // namespace
} // namespace kxtest
