// SPDX-License-Identifier: Apache-2.0
// Opening and closing a camera: what the vendor is asked, what the framework
// is told, and what a close tears down.
#include "command/command.h"

#include <string>
#include <vector>

#include "registry/registry.h"
#include "service_support.h"
#include "video/video.h"

namespace kxtest {
namespace {

using Texts = std::vector<std::string>;

constexpr const char kBeginJoin[] = "begin to join thread video encoder";
constexpr const char kEndJoin[] = "end to join thread audio encoder, ret %d";
constexpr const char kDestroyed[] = "destory video encoder success";

// The state and binary-data reports the framework got, one text each; every
// one must name the camera by its vendor id.
Texts Reports(const std::string &vendorId)
{
    Texts texts;
    for (const auto &call : CallbackLog::Get().CmdCalls()) {
        EXPECT_EQ(call.identityText, vendorId);
        if (call.code == KX_MSG_CAMERA_STATE) {
            EXPECT_EQ(call.outputLen, 148u);
            texts.push_back("state " + std::to_string(call.payload.type));
        } else if (call.code == KX_MSG_BINARY_DATA) {
            EXPECT_EQ(call.payload.module, 6u);
            EXPECT_EQ(call.payload.len, call.value.size());
            texts.push_back("binary " + std::to_string(call.payload.type) + " " + call.value);
        } else {
            texts.push_back("code " + std::to_string(call.code));
        }
    }
    return texts;
}

class OpenCloseTest : public ServiceTest {};

TEST_F(OpenCloseTest, OpenReportsStateFacingDegreeAndCloseReportsClosed)
{
    ASSERT_EQ(SetParams("1", OpenParams(1280, 720, 0, 1)), 0);
    ASSERT_EQ(Send("1", KX_CMD_OPEN), 0) << DumpLogs();
    EXPECT_EQ(Reports("1"), (Texts{"state 4", "binary 1 1", "binary 2 270"}));
    EXPECT_EQ(Camera("1")->isOpened, 1);

    const auto opens = FakeCamera()->CallsTo("OpenCamera");
    ASSERT_EQ(opens.size(), 1u);
    EXPECT_EQ(opens[0].vendorId, "1");
    EXPECT_EQ(opens[0].callback, &OutputCameraDataCB);
    const auto starts = FakeCamera()->CallsTo("StartCamera");
    ASSERT_EQ(starts.size(), 1u);
    EXPECT_EQ(starts[0].vendorId, "1");
    EXPECT_EQ(starts[0].params.width, 1280u);
    EXPECT_EQ(starts[0].params.height, 720u);
    EXPECT_EQ(starts[0].params.dataFmt, 1u);
    const std::string anony = Camera("1")->anonyServiceId;
    EXPECT_TRUE(HasLog(4, "open camera:id " + anony + " width 1280 height 720 fps 30 dataFmt 1 success"))
        << DumpLogs();

    CallbackLog::Get().Clear();
    ASSERT_EQ(Send("1", KX_CMD_CLOSE), 0);
    EXPECT_EQ(Reports("1"), (Texts{"state 3", "binary 1 -1"}));
    EXPECT_EQ(Camera("1")->isOpened, 0);
    EXPECT_TRUE(HasLog(4, "camera [" + anony + "] close success"));
    // A camera that encodes its own stream has no encoder of ours to tear down.
    EXPECT_TRUE(LogsWithFormat(kBeginJoin).empty()) << DumpLogs();
    EXPECT_TRUE(FakeEncoder()->CallsTo("VideoEncoderDestroy").empty());

    // Closing a closed camera asks the vendor again and reports nothing.
    CallbackLog::Get().Clear();
    ASSERT_EQ(Send("1", KX_CMD_CLOSE), 0);
    EXPECT_EQ(FakeCamera()->CallsTo("CloseCamera").size(), 2u);
    EXPECT_TRUE(Reports("1").empty());
}

TEST_F(OpenCloseTest, CameraOpenedWithoutParametersAsksForThirtyFramesAndKeepsThem)
{
    ASSERT_EQ(Camera("0")->negParams.fps, 0);
    ASSERT_EQ(Send("0", KX_CMD_OPEN), 0);
    const auto starts = FakeCamera()->CallsTo("StartCamera");
    ASSERT_EQ(starts.size(), 1u);
    EXPECT_EQ(starts[0].params.width, 0u);
    EXPECT_EQ(starts[0].params.height, 0u);
    EXPECT_EQ(starts[0].params.fps, 30u);
    EXPECT_EQ(starts[0].params.dataFmt, 17u);
    EXPECT_EQ(Camera("0")->negParams.fps, 30);
}

struct VendorRefusal {
    const char *name;
    int32_t openStatus;
    int32_t startStatus;
    const char *error;
    size_t starts;
};

void PrintTo(const VendorRefusal &r, std::ostream *out) { *out << r.name; }

class OpenRefusedTest : public OpenCloseTest, public ::testing::WithParamInterface<VendorRefusal> {};

TEST_P(OpenRefusedTest, ReportsNothingAndALaterCloseStaysQuiet)
{
    const VendorRefusal &r = GetParam();
    FakeCamera()->status.openCamera = r.openStatus;
    FakeCamera()->status.startCamera = r.startStatus;
    EXPECT_EQ(Send("1", KX_CMD_OPEN), r.openStatus != 0 ? r.openStatus : r.startStatus);
    EXPECT_EQ(LogsWithFormat(r.error).size(), 1u) << DumpLogs();
    EXPECT_EQ(FakeCamera()->CallsTo("StartCamera").size(), r.starts);
    EXPECT_TRUE(Reports("1").empty());
    EXPECT_EQ(Camera("1")->isOpened, 0);

    // The vendor camera may be left open: the close still asks it.
    EXPECT_EQ(Send("1", KX_CMD_CLOSE), 0);
    EXPECT_EQ(FakeCamera()->CallsTo("CloseCamera").size(), 1u);
    EXPECT_TRUE(Reports("1").empty());
}

INSTANTIATE_TEST_SUITE_P(
    Cases, OpenRefusedTest,
    ::testing::Values(VendorRefusal{"OpenCamera", -7, 0, "open vendor camera failed, id %s error %d", 0},
                      VendorRefusal{"StartCamera", 0, -8,
                                    "open camera:id %s width %d height %d fps %d dataFmt %d failed", 1}),
    [](const auto &info) { return std::string(info.param.name); });

TEST_F(OpenCloseTest, CloseOfRawFrameCameraStopsTheThreadBeforeDestroyingTheEncoder)
{
    ASSERT_EQ(SetParams("0", OpenParams(64, 48, 2, 0)), 0) << DumpLogs();
    ASSERT_EQ(Send("0", KX_CMD_OPEN), 0);
    ASSERT_EQ(FakeEncoder()->LiveInstances(), 1u);
    ASSERT_NE(Camera("0")->laneGate, 0);

    // A vendor that will not close keeps its camera streaming: nothing goes.
    CallbackLog::Get().Clear();
    FakeCamera()->status.closeCamera = -7;
    EXPECT_EQ(Send("0", KX_CMD_CLOSE), -7);
    EXPECT_EQ(Camera("0")->isOpened, 1);
    EXPECT_EQ(FakeEncoder()->LiveInstances(), 1u);
    EXPECT_NE(Camera("0")->laneGate, 0);
    EXPECT_TRUE(Reports("0").empty());

    FakeCamera()->status.closeCamera = 0;
    TalvoTestLogClear();
    ASSERT_EQ(Send("0", KX_CMD_CLOSE), 0);
    EXPECT_EQ(FakeEncoder()->LiveInstances(), 0u);
    EXPECT_EQ(Camera("0")->laneGate, 0);
    EXPECT_EQ(Camera("0")->vencHandle, nullptr);
    EXPECT_EQ(FormatsAmong({kBeginJoin, kEndJoin, kDestroyed}), (Texts{kBeginJoin, kEndJoin, kDestroyed}))
        << DumpLogs();
    EXPECT_EQ(Reports("0"), (Texts{"state 3", "binary 1 -1"}));

    // A second close finds nothing left to join or destroy.
    TalvoTestLogClear();
    ASSERT_EQ(Send("0", KX_CMD_CLOSE), 0);
    EXPECT_TRUE(TextsAtLevel(1).empty()) << DumpLogs();
    EXPECT_EQ(FakeEncoder()->destroyed, 1u);
}

TEST_F(OpenCloseTest, CloseIsRefusedWhileTheModuleIsNotInitialised)
{
    KxCommand close{};
    close.code = KX_CMD_CLOSE;
    g_cameraModule.inited = 0;
    EXPECT_EQ(DoCloseCameraCmd(Camera("0"), &close), -1000);
    g_cameraModule.inited = 1;
    EXPECT_EQ(TextsAtLevel(1), Texts{"camera module not inited"});
    EXPECT_TRUE(FakeCamera()->CallsTo("CloseCamera").empty());
}

} // namespace
} // namespace kxtest
