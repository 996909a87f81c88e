// SPDX-License-Identifier: Apache-2.0
// Command callbacks and the state, facing and rotation reports through them.
#include "events/events.h"

#include <cstring>
#include <string>

#include "camera_support.h"

namespace kxtest {
namespace {

using SetFn = int32_t (*)(const KxServiceIdDesc *, KxCmdCallback, void *);

void *UserData(uintptr_t value) { return reinterpret_cast<void *>(value); }

bool PayloadZeroExceptTypeUpTo(const KxCallbackPayload &payload, size_t end)
{
    KxCallbackPayload expected{};
    expected.type = payload.type;
    return std::memcmp(&expected, &payload, end) == 0;
}

class CallbackTest : public CameraModuleTest {
protected:
    void SetUp() override
    {
        CameraModuleTest::SetUp();
        camera_ = AddCamera("cam0");
        ASSERT_NE(camera_, nullptr);
        index_ = DescriptorOf(camera_);
    }
    KxCameraService *camera_ = nullptr;
    KxServiceIdDesc index_{};
};

TEST_F(CallbackTest, SetCmdCbStoresAndALaterCallReplaces)
{
    ASSERT_EQ(TALVOCameraSetCmdCb(&index_, CallbackLog::CmdCallback, UserData(1)), 0) << DumpLogs();
    EXPECT_EQ(camera_->cmdCb, &CallbackLog::CmdCallback);
    EXPECT_EQ(camera_->cmdCbUserData, UserData(1));
    ASSERT_EQ(TALVOCameraSetCmdCb(&index_, CallbackLog::OtherCmdCallback, UserData(2)), 0);
    EXPECT_EQ(camera_->cmdCb, &CallbackLog::OtherCmdCallback);
    EXPECT_EQ(camera_->cmdCbUserData, UserData(2));
    EXPECT_EQ(camera_->getCmdCb, nullptr);
    auto lines = LogsWithFormat("CameraSetCmdCb %p success");
    ASSERT_EQ(lines.size(), 2u) << DumpLogs();
    EXPECT_EQ(lines[0].level, 4);
    EXPECT_EQ(TalvoTestCallCount(TALVO_FN_MUTEX_LOCK), TalvoTestCallCount(TALVO_FN_MUTEX_UNLOCK));
}

TEST_F(CallbackTest, GetCmdCbReplacesUserDataButNotTheCallback)
{
    ASSERT_EQ(TALVOCameraSetCmdCb(&index_, CallbackLog::CmdCallback, UserData(1)), 0);
    ASSERT_EQ(TALVOCameraGetCmdCb(&index_, CallbackLog::OtherCmdCallback, UserData(2)), 0) << DumpLogs();
    EXPECT_EQ(camera_->cmdCb, &CallbackLog::CmdCallback);
    EXPECT_EQ(camera_->getCmdCb, &CallbackLog::OtherCmdCallback);
    EXPECT_TRUE(HasLog(4, "CameraGetCmdCb success")) << DumpLogs();

    DoNotifyCameraState(camera_, 4);
    auto calls = CallbackLog::Get().CmdCalls();
    ASSERT_EQ(calls.size(), 1u);
    EXPECT_EQ(calls[0].which, 1) << "getCmdCb is stored, never called";
    EXPECT_EQ(calls[0].userData, UserData(2));
}

TEST_F(CallbackTest, NullDescriptorRefused)
{
    EXPECT_EQ(TALVOCameraSetCmdCb(nullptr, CallbackLog::CmdCallback, nullptr), -1000);
    EXPECT_TRUE(CapturedLogs().empty()) << DumpLogs();
    EXPECT_EQ(TALVOCameraGetCmdCb(nullptr, CallbackLog::CmdCallback, nullptr), -1000);
    EXPECT_TRUE(HasLog(1, "camera get cmd cb params is null")) << DumpLogs();
    EXPECT_EQ(CapturedLogs().size(), 1u);
    EXPECT_EQ(TalvoTestCallCount(TALVO_FN_MUTEX_LOCK), 0u);
}

class CallbackEntryTest : public CallbackTest, public ::testing::WithParamInterface<SetFn> {};

TEST_P(CallbackEntryTest, RefusedWhenNotLoaded)
{
    g_cameraModule.inited = 0;
    EXPECT_EQ(GetParam()(&index_, CallbackLog::CmdCallback, UserData(1)), -1000);
    EXPECT_TRUE(HasLog(1, "camera module is not init, please init first")) << DumpLogs();
    EXPECT_EQ(camera_->cmdCbUserData, nullptr);
    EXPECT_EQ(TalvoTestCallCount(TALVO_FN_MUTEX_LOCK), 0u);
}

TEST_P(CallbackEntryTest, LockFailureReturnsItsCode)
{
    TalvoTestFailNth(TALVO_FN_MUTEX_LOCK, 1);
    EXPECT_EQ(GetParam()(&index_, CallbackLog::CmdCallback, UserData(1)), TALVO_TEST_INJECTED_ERROR);
    EXPECT_TRUE(HasLog(1, "lock camera module failed ,error code -99")) << DumpLogs();
    EXPECT_EQ(camera_->cmdCbUserData, nullptr);
    EXPECT_EQ(TalvoTestCallCount(TALVO_FN_MUTEX_UNLOCK), 0u);
}

TEST_P(CallbackEntryTest, UnknownCameraChangesNothingAndReleasesTheLock)
{
    AddCamera("cam1");
    KxServiceIdDesc other{"Camera_cam9", 11, 1};
    EXPECT_EQ(GetParam()(&other, CallbackLog::CmdCallback, UserData(1)), -5);
    EXPECT_TRUE(HasLog(1, "do get camera ability failed")) << DumpLogs();
    EXPECT_EQ(camera_->cmdCb, nullptr);
    EXPECT_EQ(camera_->getCmdCb, nullptr);
    EXPECT_EQ(camera_->cmdCbUserData, nullptr);
    EXPECT_EQ(TalvoTestCallCount(TALVO_FN_MUTEX_LOCK), TalvoTestCallCount(TALVO_FN_MUTEX_UNLOCK));
    // The lock is free again: the same call for a known camera succeeds.
    EXPECT_EQ(GetParam()(&index_, CallbackLog::CmdCallback, UserData(1)), 0) << DumpLogs();
}

INSTANTIATE_TEST_SUITE_P(Entries, CallbackEntryTest, ::testing::Values(&TALVOCameraSetCmdCb, &TALVOCameraGetCmdCb),
                         [](const auto &info) { return info.index == 0 ? "SetCmdCb" : "GetCmdCb"; });

class StateReportTest : public CallbackTest {
protected:
    void SetUp() override
    {
        CallbackTest::SetUp();
        camera_->cmdCb = CallbackLog::CmdCallback;
        camera_->cmdCbUserData = UserData(0x5A);
    }

    void ExpectIdentity(const CmdCbCall &call)
    {
        EXPECT_EQ(call.identityId, camera_->vendorId) << "reports name the camera by its vendor id";
        EXPECT_EQ(call.identityLen, 4u);
        EXPECT_EQ(call.serviceType, 1u);
        EXPECT_EQ(call.userData, UserData(0x5A));
        EXPECT_EQ(call.input, nullptr);
        EXPECT_EQ(call.inputLen, 0u);
    }
    void ExpectState(const CmdCbCall &call, uint32_t state)
    {
        ExpectIdentity(call);
        EXPECT_EQ(call.code, 1u);
        EXPECT_EQ(call.outputLen, 148u);
        EXPECT_EQ(call.payload.type, state);
        EXPECT_TRUE(PayloadZeroExceptTypeUpTo(call.payload, 148));
    }
    void ExpectBinary(const CmdCbCall &call, uint32_t type, const std::string &value)
    {
        ExpectIdentity(call);
        EXPECT_EQ(call.code, 4u);
        EXPECT_EQ(call.outputLen, 148u);
        EXPECT_EQ(call.payload.module, 6u);
        EXPECT_EQ(call.payload.type, type);
        EXPECT_EQ(call.value, value);
        EXPECT_EQ(call.payload.len, value.size());
        ASSERT_EQ(call.valueBuffer.size(), 16u);
        for (size_t i = value.size(); i < 16; ++i) {
            EXPECT_EQ(call.valueBuffer[i], 0) << "value text byte " << i;
        }
        for (uint8_t byte : std::vector<uint8_t>(call.payload.reserved0, call.payload.reserved0 + 136)) {
            ASSERT_EQ(byte, 0);
        }
    }
};

TEST_F(StateReportTest, OpenSequenceReachesTheCallbackInOrder)
{
    DoNotifyCameraState(camera_, 4);
    SetCameraFacing(camera_, 1);
    SetCameraDegree(camera_, 270);
    auto calls = CallbackLog::Get().CmdCalls();
    ASSERT_EQ(calls.size(), 3u);
    ExpectState(calls[0], 4);
    ExpectBinary(calls[1], 1, "1");
    ExpectBinary(calls[2], 2, "270");
    EXPECT_TRUE(HasLog(3, "notify camera state=4"));
    EXPECT_TRUE(HasLog(3, "camera send binary data, type: 2, value: 270"));
    EXPECT_EQ(LogsWithFormat("camera send state success").size(), 2u);
}

TEST_F(StateReportTest, CloseSequenceReachesTheCallbackInOrder)
{
    DoNotifyCameraState(camera_, 3);
    SetCameraFacing(camera_, -1);
    auto calls = CallbackLog::Get().CmdCalls();
    ASSERT_EQ(calls.size(), 2u);
    ExpectState(calls[0], 3);
    ExpectBinary(calls[1], 1, "-1");
}

TEST_F(StateReportTest, NothingReportedWithoutACallback)
{
    camera_->cmdCb = nullptr;
    DoNotifyCameraState(camera_, 4);
    SetCameraFacing(camera_, 1);
    EXPECT_TRUE(CallbackLog::Get().CmdCalls().empty());
    std::vector<std::string> texts;
    for (const auto &line : CapturedLogs()) {
        texts.push_back(line.text);
    }
    const std::vector<std::string> expected = {"notify camera state=4", "camera send binary data, type: 1, value: 1",
                                               "camera send state failed"};
    EXPECT_EQ(texts, expected);
    // The fixture checks that the value text was given back.
}

TEST_F(StateReportTest, ValueTextThatCannotBeAllocatedSendsNothing)
{
    TalvoTestFailNth(TALVO_FN_MALLOC, 1);
    SetCameraDegree(camera_, 270);
    EXPECT_TRUE(CallbackLog::Get().CmdCalls().empty());
    EXPECT_TRUE(HasLog(1, "camera send binary data malloc fail")) << DumpLogs();
    EXPECT_TRUE(LogsWithFormat("camera send state failed").empty());
}

TEST_F(StateReportTest, WidestValuesFitTheText)
{
    DoSendCameraBinaryData(camera_, 2, INT32_MIN);
    auto calls = CallbackLog::Get().CmdCalls();
    ASSERT_EQ(calls.size(), 1u);
    ExpectBinary(calls[0], 2, "-2147483648");
}

struct LocalCase {
    const char *name;
    const char *id; // null: the registered "cam0"; "57"/"56": that many characters
    int32_t idLenDelta;
    int32_t result;
    const char *error; // the exact error text, or null for none
};

void PrintTo(const LocalCase &c, std::ostream *out) { *out << c.name; }

class LocalNotifyTest : public StateReportTest, public ::testing::WithParamInterface<LocalCase> {};

TEST_P(LocalNotifyTest, FormsTheServiceIdAndReportsTheState)
{
    const LocalCase &c = GetParam();
    std::string id = c.id == nullptr ? std::string("cam0") : std::string(c.id);
    if (id == "56" || id == "57") {
        id = TextOfLength(static_cast<size_t>(std::stoi(id)), 'v');
        KxCameraService *longer = AddCamera(id);
        ASSERT_NE(longer, nullptr);
        longer->cmdCb = CallbackLog::CmdCallback;
    }
    const auto idLen = static_cast<uint32_t>(static_cast<int32_t>(id.size()) + c.idLenDelta);
    EXPECT_EQ(ReportLocalCameraNotify(id.c_str(), idLen, 201), c.result) << DumpLogs();
    EXPECT_EQ(TextsAtLevel(1), c.error == nullptr ? std::vector<std::string>{} : std::vector<std::string>{c.error});
    auto calls = CallbackLog::Get().CmdCalls();
    ASSERT_EQ(calls.size(), c.result == 0 ? 1u : 0u);
    if (c.result == 0) {
        EXPECT_EQ(calls[0].identityText, id);
        EXPECT_EQ(calls[0].payload.type, 201u);
        const KxCameraService *target = GetCameraHandlerById(("Camera_" + id).c_str(), 0);
        ASSERT_NE(target, nullptr);
        EXPECT_TRUE(HasLog(3, std::string("notify local camera state success, id: ") + target->anonyServiceId +
                                  ", state: 201"))
            << DumpLogs();
    }
}

INSTANTIATE_TEST_SUITE_P(
    Cases, LocalNotifyTest,
    ::testing::Values(LocalCase{"Registered", nullptr, 0, 0, nullptr},
                      LocalCase{"LengthOneMore", nullptr, 1, -2, "Local notify params invalid"},
                      LocalCase{"LengthOneLess", nullptr, -1, -2, "Local notify params invalid"},
                      LocalCase{"VendorId56", "56", 0, 0, nullptr},
                      LocalCase{"VendorId57", "57", 0, -4, "create camera real id failed"},
                      // Named by the vendor's own id.
                      LocalCase{"Unknown", "cam9", 0, -2, "Can not find camera service, id: cam9"}),
    [](const auto &info) { return std::string(info.param.name); });

TEST_F(StateReportTest, LocalNotifyWithoutIdIsRefused)
{
    EXPECT_EQ(ReportLocalCameraNotify(nullptr, 0, 4), -2);
    EXPECT_TRUE(HasLog(1, "Local notify params invalid"));
}

} // namespace
} // namespace kxtest
