// SPDX-License-Identifier: Apache-2.0
// Commands as a framework sends them: queries, parameters, open, rate,
// key frame and close, with what the vendor and the framework see, and the
// commands refused.
#include "support.h"

namespace kxtest {
namespace {

class CommandTest : public ServiceTest {
protected:
    std::vector<std::pair<uint32_t, std::string>> Reports()
    {
        std::vector<std::pair<uint32_t, std::string>> seen;
        for (const Message &m : Fw().Messages(KX_MSG_CAMERA_STATE)) {
            seen.emplace_back(m.payload.type, "");
        }
        for (const Message &m : Fw().Messages(KX_MSG_BINARY_DATA)) {
            seen.emplace_back(m.payload.type, m.value);
        }
        return seen;
    }
};

TEST_F(CommandTest, CameraLifeAsTheFrameworkAndTheVendorSeeIt)
{
    const KxServiceIdDesc index = IndexOf("1");
    KxCommand query{};
    query.code = KX_CMD_GET_WORK_MODE;
    ASSERT_EQ(Fw().table.setCommand(&index, &query), 0);
    ASSERT_EQ(query.outputLen, sizeof(KxWorkMode));
    const auto *mode = static_cast<const KxWorkMode *>(query.output);
    EXPECT_EQ(mode->isSupportVenc, 1);
    EXPECT_EQ(mode->isRtp, 1);

    ASSERT_EQ(Fw().SetParams("1", OpenParams(640, 480, 4, 2)), 0);
    ASSERT_EQ(Fw().Send("1", KX_CMD_OPEN), 0) << DumpLogs();
    const auto starts = FakeCamera()->CallsTo("StartCamera");
    ASSERT_EQ(starts.size(), 1u);
    EXPECT_EQ(starts[0].vendorId, "1");
    EXPECT_EQ(starts[0].params.width, 640u);
    EXPECT_EQ(starts[0].params.height, 480u);
    EXPECT_EQ(starts[0].params.dataFmt, static_cast<uint32_t>(KX_DATA_FMT_H265));
    EXPECT_EQ(starts[0].params.fps, 30u) << "the default rate";
    // Opened (4), facing 1 and rotation 270.
    using Seen = std::vector<std::pair<uint32_t, std::string>>;
    EXPECT_EQ(Reports(), (Seen{{4, ""}, {1, "1"}, {2, "270"}}));

    EXPECT_EQ(Fw().SetParams("1", FpsParams(25)), 0);
    EXPECT_TRUE(FakeCamera()->CallsTo("UpdateConfig").empty()) << "no encoder lane runs for a stream camera";
    EXPECT_EQ(Fw().Send("1", KX_CMD_TRIGGER_IFRAME), 0);
    const auto controls = FakeCamera()->CallsTo("BusinessControl");
    ASSERT_EQ(controls.size(), 1u);
    EXPECT_EQ(controls[0].control, 1);

    // Closed (3) and facing -1; a second close has nothing to report.
    const Seen closed = {{4, ""}, {3, ""}, {1, "1"}, {2, "270"}, {1, "-1"}};
    ASSERT_EQ(Fw().Send("1", KX_CMD_CLOSE), 0);
    EXPECT_EQ(Reports(), closed);
    ASSERT_EQ(Fw().Send("1", KX_CMD_CLOSE), 0);
    EXPECT_EQ(Reports(), closed);
    EXPECT_EQ(FakeCamera()->CallsTo("CloseCamera").size(), 2u);

    // A raw camera's lane takes a new rate at once.
    ASSERT_EQ(Fw().SetParams("0", OpenParams(64, 48, 2, 0)), 0) << DumpLogs();
    ASSERT_EQ(Fw().SetParams("0", FpsParams(25)), 0);
    const auto updates = FakeCamera()->CallsTo("UpdateConfig");
    ASSERT_EQ(updates.size(), 1u);
    EXPECT_EQ(updates[0].item, 1u);
    EXPECT_EQ(updates[0].value, "25");
    // Parameters again tear the lane down before the new one starts.
    ASSERT_EQ(Fw().SetParams("0", OpenParams(64, 48, 2, 0)), 0);
    EXPECT_EQ(FakeEncoder()->LiveInstances(), 1u);
    EXPECT_EQ(FakeEncoder()->destroyed, 1u);
    // What an integrator follows in the log, at the level it looks for.
    EXPECT_TRUE(
        LogsInOrder(4, {"service Ca****_1 getWorkMode: isRtp 1 isNeedTimeSyn 1 dataMode 0 direction 0 transMode 1",
                        "open camera:id Ca****_1 width 640 height 480 fps 30 dataFmt 2 success",
                        "camera [Ca****_1] close success", "destory video encoder success"}))
        << DumpLogs();
}

// One command and what the framework must get back.
struct CommandCase {
    const char *name;
    int32_t (*send)();
    int32_t status;
    int32_t level;
    const char *message;
};
void PrintTo(const CommandCase &c, std::ostream *out)
{
    *out << c.name;
}

class CommandRefusal : public CommandTest, public ::testing::WithParamInterface<CommandCase> {};

TEST_P(CommandRefusal, StatusAndMessage)
{
    const CommandCase &c = GetParam();
    EXPECT_EQ(c.send(), c.status);
    if (c.message != nullptr) {
        EXPECT_TRUE(HasLog(c.level, c.message)) << DumpLogs();
    }
}

int32_t SendRaw(const char *id, KxCommand *command)
{
    const KxServiceIdDesc index{id, 8, 1};
    return Fw().table.setCommand(&index, command);
}

int32_t SetParamsThenCodec(const char *text)
{
    const int32_t ret = Fw().SetParams("1", text);
    return ret != 0 ? ret : Camera("1")->negParams.codecType;
}

INSTANTIATE_TEST_SUITE_P(
    Commands, CommandRefusal,
    ::testing::Values(
        CommandCase{"NoCommand", [] { return SendRaw("Camera_1", nullptr); }, -1000, 1,
                    "camera set cmd params is null"},
        CommandCase{"NoId",
                    [] {
                        KxCommand command{};
                        return SendRaw(nullptr, &command);
                    },
                    -13, 1, "camera service set command params: is is nullptr"},
        CommandCase{"UnknownCamera", [] { return Fw().Send("7", KX_CMD_OPEN); }, -5, 1, "do get camera ability failed"},
        CommandCase{"UnknownCode", [] { return Fw().Send("1", 11); }, -5, 1, "unknown camera set cmd type 11"},
        CommandCase{"ReservedCode", [] { return Fw().Send("1", KX_CMD_RESERVED_9); }, 0, 0, nullptr},
        CommandCase{"ParamsWithoutInput",
                    [] {
                        KxCommand command{};
                        command.code = KX_CMD_SET_PARAMS;
                        command.inputLen = 160;
                        return SendRaw("Camera_1", &command);
                    },
                    -13, 1, "camera service set command params: input is nullptr"},
        CommandCase{"ParamsInputOneShort", [] { return Fw().SetParams("1", OpenParams(8, 8, 2, 1), 159); }, -5, 1,
                    "camera service set command params: input length is not valid"},
        CommandCase{"ParamsInputOneLong", [] { return Fw().SetParams("1", OpenParams(8, 8, 2, 1), 161); }, -5, 1,
                    "camera service set command params: input length is not valid"},
        CommandCase{"ParamsOfNoKind", [] { return Fw().SetParams("1", "{}"); }, -5, 1, "unknow params msg type, {}"},
        CommandCase{"ParamsWithoutHeight", [] { return Fw().SetParams("1", R"({"Width":8})"); }, -1001, 1,
                    R"(get CameraParams Height, paramString [{"Width":8}])"},
        CommandCase{"LargestCodecKept",
                    [] { return SetParamsThenCodec(R"({"Width":8,"Height":8,"ColorFormat":2,"CodecType":2})"); }, 2, 0,
                    nullptr},
        CommandCase{"CodecBeyondTheLargestIsRaw",
                    [] { return SetParamsThenCodec(R"({"Width":8,"Height":8,"ColorFormat":2,"CodecType":3})"); }, 0, 2,
                    "set parameter of codec type (3) has over max video codec type (3), use default."},
        CommandCase{"VendorRefusesToOpen",
                    [] {
                        FakeCamera()->status.openCamera = -7;
                        return Fw().Send("1", KX_CMD_OPEN);
                    },
                    -7, 1, "open vendor camera failed, id Ca****_1 error -7"},
        CommandCase{"VendorRefusesKeyFrame",
                    [] {
                        FakeCamera()->status.businessControl = -9;
                        return Fw().Send("1", KX_CMD_TRIGGER_IFRAME);
                    },
                    -9, 1, "camera [Ca****_1] bussiness control set: 10, control: 1 ret: -9 error"},
        CommandCase{"EncoderOffersNoColourSpace",
                    [] {
                        g_cameraModule.vencAbility[0].cspTypeMask = 0;
                        return Fw().SetParams("0", OpenParams(64, 48, 2, 0));
                    },
                    -8005, 1, "unknow csp mask 0, check it"}),
    [](const auto &info) { return std::string(info.param.name); });

} // namespace
} // namespace kxtest
