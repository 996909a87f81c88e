// SPDX-License-Identifier: Apache-2.0
// Negotiated parameter texts and the open parameters made from them.
#include "command/command.h"

#include <cstring>
#include <string>

#include "camera_support.h"

namespace kxtest {
namespace {

constexpr KxNegParams kOld = {11, 22, 33, 44, 55};
constexpr uint32_t kUnsetMsgType = 77;

bool SameParams(const KxNegParams &a, const KxNegParams &b)
{
    return a.width == b.width && a.height == b.height && a.fps == b.fps && a.codecType == b.codecType &&
           a.colorFmt == b.colorFmt;
}

std::string Describe(const KxNegParams &p)
{
    return "{w " + std::to_string(p.width) + " h " + std::to_string(p.height) + " fps " + std::to_string(p.fps) +
           " codec " + std::to_string(p.codecType) + " color " + std::to_string(p.colorFmt) + "}";
}

struct ParamCase {
    const char *name;
    const char *text;
    int32_t result;
    uint32_t msgType;
    KxNegParams after;
    int32_t level;   // of the message below; 0: none expected
    const char *log; // exact text, %s already filled in
};

void PrintTo(const ParamCase &c, std::ostream *out) { *out << c.name; }

class NegParamsTest : public CameraModuleTest {};

class NegParamsTextTest : public NegParamsTest, public ::testing::WithParamInterface<ParamCase> {};

TEST_P(NegParamsTextTest, ReadsTheTextIntoNegotiatedParameters)
{
    const ParamCase &c = GetParam();
    KxNegParams params = kOld;
    uint32_t msgType = kUnsetMsgType;
    EXPECT_EQ(GetNegCameraParams(c.text, &params, &msgType), c.result) << DumpLogs();
    EXPECT_EQ(msgType, c.msgType);
    EXPECT_TRUE(SameParams(params, c.after)) << Describe(params) << " expected " << Describe(c.after);
    if (c.level != 0) {
        EXPECT_TRUE(HasLog(c.level, c.log)) << DumpLogs();
    }
}

const ParamCase kParamCases[] = {
    {"OpenMessage", R"({"Width":1280,"Height":720,"ColorFormat":4,"CodecType":1})", 0, 0, {1280, 720, 33, 1, 4}, 4,
     "camera params: width 1280 height 720 colorfmt 4 codecType 1"},
    {"OpenMessageIgnoresFps", R"({"Width":640,"Height":480,"ColorFormat":2,"CodecType":0,"Fps":15})", 0, 0,
     {640, 480, 33, 0, 2}, 4, "get open camera params"},
    {"ValuesAsText", R"({"Width":"320","Height":"240","ColorFormat":"2","CodecType":"2"})", 0, 0,
     {320, 240, 33, 2, 2}, 0, ""},
    {"UpdateMessage", R"({"Fps":25,"Height":1})", 0, 1, {11, 22, 25, 44, 55}, 4, "camera params: fps=25"},
    {"MissingWidthAndFps", R"({"Height":720})", -5, kUnsetMsgType, kOld, 1,
     R"(unknow params msg type, {"Height":720})"},
    {"MalformedText", R"({"Width":1280,)", -5, kUnsetMsgType, kOld, 1, R"(unknow params msg type, {"Width":1280,)"},
    {"NotAnObject", "Width=1280", -5, kUnsetMsgType, kOld, 1, "unknow params msg type, Width=1280"},
    {"MissingHeight", R"({"Width":800})", -1001, 0, {800, 22, 33, 44, 55}, 1,
     R"(get CameraParams Height, paramString [{"Width":800}])"},
    {"MissingColorFormatKeepsEarlierWrites", R"({"Width":800,"Height":600,"CodecType":1})", -1001, 0,
     {800, 600, 33, 44, 55}, 1, R"(get CameraParams ColorFormat, paramString [{"Width":800,"Height":600,"CodecType":1}])"},
    {"MissingCodecType", R"({"Width":800,"Height":600,"ColorFormat":4})", -1001, 0, {800, 600, 33, 44, 4}, 1,
     R"(get CameraParams CodecType, paramString [{"Width":800,"Height":600,"ColorFormat":4}])"},
    {"CodecTypeAboveTwoBecomesRaw", R"({"Width":1,"Height":2,"ColorFormat":2,"CodecType":3})", 0, 0, {1, 2, 33, 0, 2},
     2, "set parameter of codec type (3) has over max video codec type (3), use default."},
    {"NegativeCodecTypeKept", R"({"Width":1,"Height":2,"ColorFormat":2,"CodecType":-1})", 0, 0, {1, 2, 33, -1, 2}, 4,
     "camera params: width 1 height 2 colorfmt 2 codecType -1"},
};

INSTANTIATE_TEST_SUITE_P(Texts, NegParamsTextTest, ::testing::ValuesIn(kParamCases),
                         [](const auto &info) { return std::string(info.param.name); });

TEST_F(NegParamsTest, NegativeCodecTypeGivesNoWarning)
{
    KxNegParams params = kOld;
    uint32_t msgType = kUnsetMsgType;
    ASSERT_EQ(GetNegCameraParams(R"({"Width":1,"Height":2,"ColorFormat":2,"CodecType":-7})", &params, &msgType), 0);
    EXPECT_TRUE(LogsWithFormat("set parameter of codec type (%d) has over max video codec type (%d), use default.")
                    .empty());
}

TEST_F(NegParamsTest, OpenReadsTheKeysInOrderEachAnnounced)
{
    KxNegParams params = kOld;
    ASSERT_EQ(GetCameraOpenParams(R"({"Width":1,"Height":2,"ColorFormat":2,"CodecType":0})", &params), 0);
    std::vector<std::string> debug;
    for (const auto &line : CapturedLogs()) {
        if (line.level == 3) {
            debug.push_back(line.text);
        }
    }
    const std::vector<std::string> expected = {"GetNegCameraParams Width", "GetNegCameraParams Height",
                                               "GetNegCameraParams ColorFormat", "GetNegCameraParams CodecType",
                                               "GetNegCameraParams negCodecType"};
    EXPECT_EQ(debug, expected);
}

TEST_F(NegParamsTest, UpdateWithoutFpsIsRefused)
{
    KxNegParams params = kOld;
    EXPECT_EQ(GetCameraUpdateParams(R"({"Width":3})", &params), -1001);
    EXPECT_TRUE(SameParams(params, kOld));
    EXPECT_TRUE(HasLog(1, R"(get CameraParams fps, paramString [{"Width":3}])")) << DumpLogs();
}

struct ConvertCase {
    int32_t codecType;
    int32_t colorFmt;
    uint32_t dataFmt;
    bool warns;
};

void PrintTo(const ConvertCase &c, std::ostream *out)
{
    *out << "codecType " << c.codecType << " colorFmt " << c.colorFmt;
}

class OpenParamsMappingTest : public NegParamsTest, public ::testing::WithParamInterface<ConvertCase> {};

TEST_P(OpenParamsMappingTest, MapsCodecAndColourToTheVendorsDataFormat)
{
    KxCameraService *camera = AddCamera("cam7");
    ASSERT_NE(camera, nullptr);
    camera->negParams = {1920, 1080, 24, GetParam().codecType, GetParam().colorFmt};
    KxCameraOpenParams open{};
    ConvertNegParamsToCameraParams(camera, &open);
    EXPECT_EQ(open.dataFmt, GetParam().dataFmt);
    EXPECT_EQ(open.vendorId, camera->vendorId);
    EXPECT_EQ(open.vendorIdLen, 4u);
    EXPECT_EQ(open.width, 1920u);
    EXPECT_EQ(open.height, 1080u);
    EXPECT_EQ(open.fps, 24u);
    EXPECT_EQ(HasLog(2, "unknown color format, set open camera fmt default value 17"), GetParam().warns) << DumpLogs();
    EXPECT_TRUE(HasLog(4, std::string("open camera params: id ") + camera->anonyServiceId +
                              " width 1920 heigth 1080 colorformat " + std::to_string(GetParam().dataFmt) +
                              " fps 24"))
        << DumpLogs();
}

INSTANTIATE_TEST_SUITE_P(Table, OpenParamsMappingTest,
                         ::testing::Values(ConvertCase{1, 2, 1, false}, ConvertCase{1, 99, 1, false},
                                           ConvertCase{2, 0, 2, false}, ConvertCase{-1, 0, 2, false},
                                           ConvertCase{7, 4, 2, false}, ConvertCase{0, 2, 17, false},
                                           ConvertCase{0, 4, 4, false}, ConvertCase{0, 0, 17, true},
                                           ConvertCase{0, 3, 17, true}));

TEST_F(NegParamsTest, MissingFrameRateDefaultsToThirtyAndStays)
{
    KxCameraService *camera = AddCamera("0");
    ASSERT_NE(camera, nullptr);
    camera->negParams = {640, 480, 0, 1, 0};
    KxCameraOpenParams open{};
    ConvertNegParamsToCameraParams(camera, &open);
    EXPECT_EQ(open.fps, 30u);
    EXPECT_EQ(camera->negParams.fps, 30);
    EXPECT_EQ(camera->negParams.width, 640);
}

} // namespace
} // namespace kxtest
