// SPDX-License-Identifier: Apache-2.0
// Set-parameters and key-frame commands: what reaches the vendor, what the
// camera keeps, and that a camera never has more than one encoder.
#include "command/command.h"

#include <string>
#include <vector>

#include "registry/registry.h"
#include "service_support.h"

namespace kxtest {
namespace {

using Texts = std::vector<std::string>;

constexpr const char kParamsInfo[] = "open camera params:id %s width %d height %d fps %d codecType %d colorfmt %d";

class ReconfigTest : public ServiceTest {
protected:
    int32_t SendRaw(const std::string &vendorId, KxCommand &command)
    {
        const std::string id = "Camera_" + vendorId;
        const KxServiceIdDesc index{id.c_str(), static_cast<uint32_t>(id.size()), 1};
        return table_.setCommand(&index, &command);
    }
    size_t Calls(const char *slot) const { return FakeEncoder()->CallsTo(slot).size(); }
};

struct InputRefusal {
    const char *name;
    bool noInput;
    uint32_t inputLen;
    bool noText;
    int32_t result;
    const char *error;
};

void PrintTo(const InputRefusal &r, std::ostream *out) { *out << r.name; }

class SetParamsInputTest : public ReconfigTest, public ::testing::WithParamInterface<InputRefusal> {};

TEST_P(SetParamsInputTest, RefusedBeforeTheTextIsRead)
{
    const InputRefusal &r = GetParam();
    const std::string text = OpenParams(640, 480, 2, 0);
    KxSetParamsInput input{};
    input.para = r.noText ? nullptr : text.c_str();
    KxCommand command{};
    command.code = KX_CMD_SET_PARAMS;
    command.input = r.noInput ? nullptr : &input;
    command.inputLen = r.inputLen;
    EXPECT_EQ(SendRaw("0", command), r.result);
    EXPECT_EQ(TextsAtLevel(1), Texts{r.error}) << DumpLogs();
    EXPECT_EQ(Camera("0")->negParams.width, 0);
    EXPECT_EQ(Calls("VideoEncoderCreate"), 0u);
}

INSTANTIATE_TEST_SUITE_P(
    Cases, SetParamsInputTest,
    ::testing::Values(
        InputRefusal{"NoInput", true, 160, false, -13, "camera service set command params: input is nullptr"},
        InputRefusal{"Length159", false, 159, false, -5, "camera service set command params: input length is not valid"},
        InputRefusal{"Length161", false, 161, false, -5, "camera service set command params: input length is not valid"},
        InputRefusal{"NoText", false, 160, true, -13, "camera service set command params: para is nullptr"}),
    [](const auto &info) { return std::string(info.param.name); });

class FpsUpdateTest : public ReconfigTest, public ::testing::WithParamInterface<int32_t> {};

TEST_P(FpsUpdateTest, WhileTheThreadRunsGoesToTheVendorAsText)
{
    const int32_t vendorStatus = GetParam();
    ASSERT_EQ(SetParams("0", OpenParams(64, 48, 2, 0)), 0) << DumpLogs();
    TalvoTestLogClear();
    FakeCamera()->status.updateConfig = vendorStatus;
    EXPECT_EQ(SetParams("0", FpsParams(25)), vendorStatus);
    const auto updates = FakeCamera()->CallsTo("UpdateConfig");
    ASSERT_EQ(updates.size(), 1u);
    EXPECT_EQ(updates[0].vendorId, "0");
    EXPECT_EQ(updates[0].item, 1u);
    EXPECT_EQ(updates[0].value, "25");
    EXPECT_EQ(updates[0].valueLen, 2u);
    EXPECT_EQ(Camera("0")->negParams.fps, 25);
    // Our own encoder keeps what it was created with.
    EXPECT_EQ(Calls("VideoEncoderCreate"), 1u);
    EXPECT_TRUE(LogsWithFormat(kParamsInfo).empty());
    const Texts errors = vendorStatus == 0 ? Texts{} : Texts{"camrea updateconfig fps failed, error code -9"};
    EXPECT_EQ(TextsAtLevel(1), errors) << DumpLogs();
}

INSTANTIATE_TEST_SUITE_P(VendorStatus, FpsUpdateTest, ::testing::Values(0, -9));

TEST_F(ReconfigTest, FpsUpdateForEncodedStreamIsOnlyStored)
{
    ASSERT_EQ(SetParams("1", OpenParams(1280, 720, 0, 1)), 0);
    TalvoTestLogClear();
    ASSERT_EQ(SetParams("1", FpsParams(25)), 0);
    EXPECT_EQ(Camera("1")->negParams.fps, 25);
    EXPECT_TRUE(FakeCamera()->CallsTo("UpdateConfig").empty());
    const std::string line = std::string("open camera params:id ") + Camera("1")->anonyServiceId +
                             " width 1280 height 720 fps 25 codecType 1 colorfmt 0";
    EXPECT_EQ(TextsAtLevel(4), (Texts{"get update camera params", "camera params: fps=25", line}));
}

TEST_F(ReconfigTest, RawFramesWithoutEncoderAbilityAreRefusedButKept)
{
    g_cameraModule.vencAbilityNum = 0;
    EXPECT_EQ(SetParams("0", OpenParams(640, 480, 4, 0)), -5);
    EXPECT_EQ(TextsAtLevel(1), Texts{"not support any vendor codec, choose yuv data is invalid, check neg params"});
    const KxNegParams &neg = Camera("0")->negParams;
    EXPECT_EQ(neg.width, 640);
    EXPECT_EQ(neg.height, 480);
    EXPECT_EQ(neg.colorFmt, 4);
    EXPECT_EQ(neg.codecType, 0);
    EXPECT_EQ(Calls("VideoEncoderCreate"), 0u);
}

TEST_F(ReconfigTest, EncodedStreamCreatesNoEncoder)
{
    ASSERT_EQ(SetParams("0", OpenParams(1920, 1080, 0, 2)), 0);
    EXPECT_EQ(Calls("VideoEncoderCreate"), 0u);
    EXPECT_EQ(Camera("0")->laneGate, 0);
    EXPECT_EQ(LogsWithFormat(kParamsInfo).size(), 1u);
}

TEST_F(ReconfigTest, SecondOpenMessageReplacesTheRunningPair)
{
    ASSERT_EQ(SetParams("0", OpenParams(64, 48, 2, 0)), 0);
    void *const first = Camera("0")->vencHandle;
    ASSERT_NE(first, nullptr);
    TalvoTestLogClear();
    ASSERT_EQ(SetParams("0", OpenParams(32, 16, 2, 0)), 0) << DumpLogs();
    EXPECT_EQ(FakeEncoder()->LiveInstances(), 1u);
    EXPECT_EQ(FakeEncoder()->created, 2u);
    EXPECT_NE(Camera("0")->vencHandle, first);
    EXPECT_TRUE(TextsAtLevel(1) == Texts{"cspMask 0x1 dstFmtCodec 0 dstFrmProcess 0"}) << DumpLogs();
    EXPECT_EQ(FormatsAmong({"begin to join thread video encoder", "destory video encoder success"}),
              (Texts{"begin to join thread video encoder", "destory video encoder success"}));

    if (!ColourConversionBuiltIn()) {
        return; // no frame can be encoded in this build
    }
    // The new pair encodes: a frame reaches the new instance and comes back.
    ASSERT_EQ(Send("0", KX_CMD_OPEN), 0);
    const std::vector<uint8_t> frame(32 * 16 * 3 / 2, 0x80);
    ASSERT_EQ(FakeCamera()->PushFrame("0", frame.data(), static_cast<uint32_t>(frame.size()), kFakeOnVendorThread), 0);
    ASSERT_TRUE(UnitSink::Get().WaitFor(KX_MSG_BITSTREAM, 1));
    const auto processed = FakeEncoder()->CallsTo("VideoEncoderProcess");
    ASSERT_EQ(processed.size(), 1u);
    EXPECT_EQ(processed[0].handle, Camera("0")->vencHandle);
    EXPECT_EQ(processed[0].input.width, 32u);
}

TEST_F(ReconfigTest, OpenMessageForEncodedStreamRetiresTheRawPair)
{
    ASSERT_EQ(SetParams("0", OpenParams(64, 48, 2, 0)), 0);
    ASSERT_EQ(FakeEncoder()->LiveInstances(), 1u);
    ASSERT_EQ(SetParams("0", OpenParams(64, 48, 0, 1)), 0);
    EXPECT_EQ(FakeEncoder()->LiveInstances(), 0u);
    EXPECT_EQ(Camera("0")->laneGate, 0);
}

TEST_F(ReconfigTest, EncoderLeftByAFailedThreadStartIsReplacedNotDoubled)
{
    TalvoTestFailNth(TALVO_FN_THREAD_CREATE, 1);
    EXPECT_EQ(SetParams("0", OpenParams(64, 48, 2, 0)), -99);
    EXPECT_EQ(FakeEncoder()->LiveInstances(), 1u);
    EXPECT_EQ(Camera("0")->laneGate, 0);
    ASSERT_EQ(SetParams("0", FpsParams(20)), 0) << DumpLogs();
    EXPECT_EQ(FakeEncoder()->LiveInstances(), 1u);
    EXPECT_EQ(FakeEncoder()->created, 2u);
    EXPECT_NE(Camera("0")->laneGate, 0);
}

enum class KeyFrameFault { kNone, kNoBusinessControl, kNotInited };

struct KeyFrameCase {
    const char *name;
    KeyFrameFault fault;
    int32_t vendorStatus;
    int32_t result;
    Texts errors;
    size_t debugLines;
};

void PrintTo(const KeyFrameCase &c, std::ostream *out) { *out << c.name; }

class KeyFrameTest : public ReconfigTest, public ::testing::WithParamInterface<KeyFrameCase> {};

TEST_P(KeyFrameTest, AsksTheVendorForAKeyFrame)
{
    const KeyFrameCase &c = GetParam();
    FakeCamera()->status.businessControl = c.vendorStatus;
    KxCommand command{};
    command.code = KX_CMD_TRIGGER_IFRAME;
    int32_t result = 0;
    switch (c.fault) {
        case KeyFrameFault::kNone:
            result = SendRaw("1", command);
            break;
        case KeyFrameFault::kNoBusinessControl:
            g_cameraModule.cameraHandler.BusinessControl = nullptr;
            result = SendRaw("1", command);
            break;
        case KeyFrameFault::kNotInited:
            g_cameraModule.inited = 0;
            result = DoTALVOCameraTriggerIFrameCmd(Camera("1"), &command);
            g_cameraModule.inited = 1;
            break;
    }
    EXPECT_EQ(result, c.result);
    const std::string anony = Camera("1")->anonyServiceId;
    Texts errors;
    for (const auto &error : c.errors) {
        errors.push_back(error.empty() ? "camera [" + anony + "] bussiness control set: 10, control: 1 ret: -6 error"
                                       : error);
    }
    EXPECT_EQ(TextsAtLevel(1), errors) << DumpLogs();
    EXPECT_EQ(LogsWithFormat("camera [%s] bussiness control set: %d, control: %d start").size() +
                  LogsWithFormat("camera [%s] bussiness control set: %d, control: %d ret: %d end").size(),
              c.debugLines);
    const auto calls = FakeCamera()->CallsTo("BusinessControl");
    ASSERT_EQ(calls.size(), c.fault == KeyFrameFault::kNone ? 1u : 0u);
    if (!calls.empty()) {
        EXPECT_EQ(calls[0].control, 1);
        EXPECT_EQ(calls[0].in, nullptr);
        EXPECT_EQ(calls[0].inLen, 0u);
        EXPECT_EQ(calls[0].out, nullptr);
        EXPECT_EQ(calls[0].outLen, 0u);
    }
}

INSTANTIATE_TEST_SUITE_P(
    Cases, KeyFrameTest,
    ::testing::Values(KeyFrameCase{"Accepted", KeyFrameFault::kNone, 0, 0, {}, 2},
                      // "" stands for the vendor refusal line of this camera.
                      KeyFrameCase{"VendorRefuses", KeyFrameFault::kNone, -6, -6, {""}, 2},
                      KeyFrameCase{"NoBusinessControl", KeyFrameFault::kNoBusinessControl, 0, -13,
                                   {"camera south interface business control is null"}, 0},
                      KeyFrameCase{"NotInitialised", KeyFrameFault::kNotInited, 0, -1000,
                                   {"trigger I Frame camera module not inited"}, 0}),
    [](const auto &info) { return std::string(info.param.name); });

} // namespace
} // namespace kxtest
