// SPDX-License-Identifier: Apache-2.0
// Vendor reports: the listener entries on a vendor thread, the module event
// queue and its handler, end to end to the framework's callbacks.
#include "events/events.h"

#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "camera_support.h"
#include "fake_access.h"

namespace kxtest {
namespace {

using Texts = std::vector<std::string>;

// Runs fn on a thread of its own, as the vendor library calls the listener.
template <typename Fn>
int32_t OnVendorThread(Fn fn)
{
    int32_t result = 0;
    std::thread vendor([&result, &fn] { result = fn(); });
    vendor.join();
    return result;
}

int32_t Status(const char *id, uint32_t status)
{
    return OnVendorThread([&] { return CameraUpdateServiceStatus(id, id == nullptr ? 1 : TALVOStrlen(id), status); });
}

int32_t Action(const char *id, uint32_t type, const char *value)
{
    return OnVendorThread([&] {
        const KxServiceAction action{type, 0, value, TALVOStrlen(value), 0};
        return CameraUpdateServiceAction(id, id == nullptr ? 1 : TALVOStrlen(id), &action);
    });
}

class VendorReportTest : public CameraModuleTest {
protected:
    void SetUp() override
    {
        CameraModuleTest::SetUp();
        ability_ = TextOfLength(235, 'x');
        KxCameraService *camera = AddCamera("0", ability_);
        ASSERT_NE(camera, nullptr);
        camera->cmdCb = CallbackLog::CmdCallback;
        g_cameraModule.glbCmdCb = CallbackLog::GlbCallback;
        CreateEventQueue();
    }
    static uint64_t Posts() { return TalvoTestCallCount(TALVO_FN_EVENTS_CALL); }
    static void ExpectNothingReported()
    {
        EXPECT_TRUE(CallbackLog::Get().CmdCalls().empty());
        EXPECT_TRUE(CallbackLog::Get().GlbCalls().empty());
    }

    std::string ability_;
};

enum class Module { kLoaded, kReleased, kNoQueue };

struct Refusal {
    const char *name;
    Module module;
    int32_t (*report)();
    int32_t result;
    const char *error; // the one error message, or null for none
};

void PrintTo(const Refusal &r, std::ostream *out) { *out << r.name; }

class ReportRefusalTest : public VendorReportTest, public ::testing::WithParamInterface<Refusal> {};

TEST_P(ReportRefusalTest, IsAnsweredOnTheVendorThreadAndNothingIsPosted)
{
    const Refusal &r = GetParam();
    if (r.module != Module::kLoaded) {
        // What release leaves behind: no queue and, after it, no module.
        ASSERT_EQ(TALVOEventsDestroy(g_cameraModule.eventsHandle), 0);
        g_cameraModule.eventsHandle = nullptr;
        g_cameraModule.inited = r.module == Module::kReleased ? 0 : 1;
    }
    EXPECT_EQ(r.report(), r.result);
    EXPECT_EQ(TextsAtLevel(1), r.error == nullptr ? Texts{} : Texts{r.error}) << DumpLogs();
    EXPECT_EQ(LogsWithFormat("g_cameraModule callback event handler is null").size(),
              r.module == Module::kNoQueue ? 1u : 0u);
    EXPECT_EQ(Posts(), 0u);
    if (g_cameraModule.eventsHandle != nullptr) {
        ASSERT_TRUE(DrainEventQueue());
    }
    ExpectNothingReported();
}

INSTANTIATE_TEST_SUITE_P(
    Cases, ReportRefusalTest,
    ::testing::Values(
        Refusal{"UnknownStatus", Module::kLoaded, [] { return Status("0", 3); }, -2, "invalid status."},
        Refusal{"StatusWithoutId", Module::kLoaded, [] { return Status(nullptr, 1); }, -2, "invalid id"},
        Refusal{"StatusWithEmptyId", Module::kLoaded,
                [] { return OnVendorThread([] { return CameraUpdateServiceStatus("0", 0, 1); }); }, -2, "invalid id"},
        Refusal{"ActionValueOf17", Module::kLoaded, [] { return Action("0", 7, "00000000000000201"); }, -5,
                "camera action value bad len=17"},
        // Refused before any field is read: the vendor's thread must not crash.
        Refusal{"ActionRecordMissing", Module::kLoaded,
                [] { return OnVendorThread([] { return CameraUpdateServiceAction("0", 1, nullptr); }); }, -5,
                "camera update service action failed, action is nullptr"},
        Refusal{"ActionIdCannotBeCopied", Module::kLoaded, [] { return Action(nullptr, 7, "201"); }, -13, nullptr},
        Refusal{"ActionOfAnotherType", Module::kLoaded, [] { return Action("0", 5, "201"); }, 0, nullptr},
        Refusal{"StatusAfterRelease", Module::kReleased, [] { return Status("0", 1); }, -2,
                "camera is not init or destroyed"},
        Refusal{"ActionAfterRelease", Module::kReleased, [] { return Action("0", 7, "201"); }, -4,
                "camera is not init or destroyed"},
        Refusal{"StatusWithoutQueue", Module::kNoQueue, [] { return Status("0", 2); }, -2, nullptr},
        Refusal{"ActionWithoutQueue", Module::kNoQueue, [] { return Action("0", 7, "208"); }, -4, nullptr}),
    [](const auto &info) { return std::string(info.param.name); });

struct StatusCase {
    uint32_t status;
    uint8_t event;
    uint32_t packetLen;
};

void PrintTo(const StatusCase &c, std::ostream *out) { *out << "status " << c.status; }

class StatusReportTest : public VendorReportTest, public ::testing::WithParamInterface<StatusCase> {};

TEST_P(StatusReportTest, BecomesANotificationOnTheQueueThread)
{
    EXPECT_EQ(Status("0", GetParam().status), 0) << DumpLogs();
    ASSERT_TRUE(DrainEventQueue());
    auto glb = CallbackLog::Get().GlbCalls();
    ASSERT_EQ(glb.size(), 1u) << DumpLogs();
    EXPECT_EQ(glb[0].payload.len, GetParam().packetLen);
    ASSERT_EQ(glb[0].packet.size(), GetParam().packetLen);
    EXPECT_EQ(std::vector<uint8_t>(glb[0].packet.begin() + 12, glb[0].packet.begin() + 16),
              (std::vector<uint8_t>{0, 0, 0, GetParam().event}));
    EXPECT_TRUE(CallbackLog::Get().CmdCalls().empty()) << "a status is no camera state";
    EXPECT_TRUE(HasLog(3, "camera update service action end, ret 0, what: 8")) << DumpLogs();
    EXPECT_TRUE(TextsAtLevel(1).empty()) << DumpLogs();
}

INSTANTIATE_TEST_SUITE_P(Statuses, StatusReportTest,
                         ::testing::Values(StatusCase{1, 201, 255}, StatusCase{2, 208, 16}));

TEST_F(VendorReportTest, CameraStateReportsStateThenTheSamePacketAsStatusOne)
{
    // Sixteen characters are the most a value may have.
    EXPECT_EQ(Action("0", 7, "0000000000000201"), 0);
    ASSERT_TRUE(DrainEventQueue());
    auto cmd = CallbackLog::Get().CmdCalls();
    ASSERT_EQ(cmd.size(), 1u) << DumpLogs();
    EXPECT_EQ(cmd[0].code, 1u);
    EXPECT_EQ(cmd[0].payload.type, 201u);
    EXPECT_EQ(cmd[0].identityText, "0");
    auto fromAction = CallbackLog::Get().GlbCalls();
    ASSERT_EQ(fromAction.size(), 1u);

    CallbackLog::Get().Clear();
    EXPECT_EQ(Status("0", 1), 0);
    ASSERT_TRUE(DrainEventQueue());
    auto fromStatus = CallbackLog::Get().GlbCalls();
    ASSERT_EQ(fromStatus.size(), 1u);
    EXPECT_EQ(fromStatus[0].packet, fromAction[0].packet);
}

// The record's length bounds the value: what follows it, and a missing NUL,
// are not the vendor's to answer for.
TEST_F(VendorReportTest, StateValueIsReadWithinItsLengthOnly)
{
    const auto bytes = std::make_unique<char[]>(4);
    std::memcpy(bytes.get(), "2015", 4); // no terminator anywhere
    const KxServiceAction action{7, 0, bytes.get(), 3, 0};
    EXPECT_EQ(OnVendorThread([&] { return CameraUpdateServiceAction("0", 1, &action); }), 0);
    ASSERT_TRUE(DrainEventQueue());
    auto cmd = CallbackLog::Get().CmdCalls();
    ASSERT_EQ(cmd.size(), 1u) << DumpLogs();
    EXPECT_EQ(cmd[0].payload.type, 201u);
}

TEST_F(VendorReportTest, StateThatIsNoNotificationEventReportsOnlyTheState)
{
    EXPECT_EQ(Action("0", 7, "4"), 0);
    ASSERT_TRUE(DrainEventQueue());
    auto cmd = CallbackLog::Get().CmdCalls();
    ASSERT_EQ(cmd.size(), 1u) << DumpLogs();
    EXPECT_EQ(cmd[0].payload.type, 4u);
    EXPECT_TRUE(CallbackLog::Get().GlbCalls().empty());
    EXPECT_EQ(TextsAtLevel(1), Texts{"is not valid Notify Event"});
}

TEST_F(VendorReportTest, UnknownVendorIdIsPostedThenDropped)
{
    EXPECT_EQ(Status("9", 1), 0);
    ASSERT_TRUE(DrainEventQueue());
    ExpectNothingReported();
    EXPECT_EQ(TextsAtLevel(1), (Texts{"Can not find camera service, id: 9", "get camera real id failed"}));
}

TEST_F(VendorReportTest, EveryMessageIsReleasedExactlyOnce)
{
    const int64_t before = TalvoTestOutstandingAllocs();
    for (int i = 0; i < 20; ++i) {
        ASSERT_EQ(Status(i % 2 == 0 ? "0" : "9", 1 + i % 2), 0);
        ASSERT_EQ(Action("0", 7, i % 3 == 0 ? "205" : "3"), 0);
    }
    // Refused posts: the poster keeps and frees the message.
    for (int i = 0; i < 2; ++i) {
        TalvoTestFailNth(TALVO_FN_EVENTS_CALL, 1);
        ASSERT_EQ(i == 0 ? Status("0", 1) : Action("0", 7, "201"), 0);
    }
    ASSERT_TRUE(DrainEventQueue());
    EXPECT_EQ(TalvoTestOutstandingAllocs(), before);
    EXPECT_EQ(LogsWithFormat("camera update service action end, ret %d, what: %d").size(), 40u);
    EXPECT_EQ(CallbackLog::Get().CmdCalls().size(), 20u);
    // Status 1 of camera 0 (10) and state 205 of camera 0 (7).
    EXPECT_EQ(CallbackLog::Get().GlbCalls().size(), 17u);
}

class MessageAllocFailureTest : public VendorReportTest, public ::testing::WithParamInterface<uint32_t> {};

TEST_P(MessageAllocFailureTest, ReportFailsAndKeepsNothing)
{
    TalvoTestFailNth(TALVO_FN_MALLOC, GetParam());
    EXPECT_EQ(Status("0", 1), -13);
    TalvoTestFailNth(TALVO_FN_MALLOC, GetParam());
    EXPECT_EQ(Action("0", 7, "201"), -13);
    EXPECT_EQ(Posts(), 0u);
}

// The message, then the copy of the id.
INSTANTIATE_TEST_SUITE_P(Allocations, MessageAllocFailureTest, ::testing::Values(1u, 2u));

enum class HandlerFault { kNotInited, kOtherKind, kLockFails };

std::string HandlerFaultName(HandlerFault fault)
{
    switch (fault) {
        case HandlerFault::kNotInited:
            return "NotInitialised";
        case HandlerFault::kOtherKind:
            return "OtherKind";
        case HandlerFault::kLockFails:
            return "LockFails";
    }
    return "Unknown";
}

class EventHandlerTest : public VendorReportTest, public ::testing::WithParamInterface<HandlerFault> {};

TEST_P(EventHandlerTest, ReleasesTheMessageAndReportsNothing)
{
    const uint32_t what = GetParam() == HandlerFault::kOtherKind ? 9 : 7;
    KxModuleEventMsg *message = CameraEventsHandlerMsgInit(what, "0", 1);
    ASSERT_NE(message, nullptr);
    message->notifyEvent = 201;
    if (GetParam() == HandlerFault::kNotInited) {
        g_cameraModule.inited = 0;
    } else if (GetParam() == HandlerFault::kLockFails) {
        TalvoTestFailNth(TALVO_FN_MUTEX_LOCK, 1);
    }
    EXPECT_EQ(CameraModuleEventsHandler(what, message), 0);
    ExpectNothingReported();
    const bool locked = GetParam() != HandlerFault::kLockFails;
    EXPECT_EQ(TalvoTestCallCount(TALVO_FN_MUTEX_UNLOCK), locked ? 1u : 0u);
    EXPECT_EQ(TextsAtLevel(1), locked ? Texts{} : Texts{"lock camera module failed ,error code -99"});
    // The fixture's allocation balance shows the message was released.
}

INSTANTIATE_TEST_SUITE_P(Faults, EventHandlerTest,
                         ::testing::Values(HandlerFault::kNotInited, HandlerFault::kOtherKind,
                                           HandlerFault::kLockFails),
                         [](const auto &info) { return HandlerFaultName(info.param); });

TEST_F(VendorReportTest, HandlerGivenNoMessageStops)
{
    EXPECT_EQ(CameraModuleEventsHandler(8, nullptr), 0);
    EXPECT_EQ(TextsAtLevel(3), Texts{"camera update service action start"});
    EXPECT_EQ(TalvoTestCallCount(TALVO_FN_MUTEX_LOCK), 0u);
}

TEST_F(VendorReportTest, MessageHoldsATerminatedCopyOfTheId)
{
    const char id[] = "abcdef";
    KxModuleEventMsg *message = CameraEventsHandlerMsgInit(8, id, 3);
    ASSERT_NE(message, nullptr);
    EXPECT_NE(message->data, id);
    EXPECT_STREQ(message->data, "abc");
    EXPECT_EQ(message->len, 3u);
    CameraModuleEventsMsgFree(8, message);
    EXPECT_FALSE(CheckServiceStatusReportValid(1, nullptr));
}

int32_t AcceptService(const KxServiceIdDesc *, const KxServiceOps *) { return 0; }
int32_t AcceptDelete(const KxServiceIdDesc *) { return 0; }

// The service loaded from the vendor library double, whose listener entries
// the double calls on a thread of its own.
class LoadedServiceReportTest : public PluginTest {
protected:
    void SetUp() override
    {
        PluginTest::SetUp();
        CallbackLog::Get().Clear();
        camera_ = FakeCamera();
        ASSERT_NE(camera_, nullptr);
        camera_->Reset();
        SetVendorPath({kFakeCameraDir, kFakeEmptyDir});
        const KxServiceCallbacks callbacks = {AcceptService, AcceptDelete, nullptr};
        ASSERT_EQ(TALVOCameraLoadService(&callbacks), 0) << DumpLogs();
        ASSERT_EQ(g_cameraModule.inited, 1) << DumpLogs();
        ASSERT_EQ(TALVOCameraSetGlbCmdCb(nullptr, CallbackLog::GlbCallback), 0);
        for (const char *id : {"Camera_0", "Camera_1"}) {
            const KxServiceIdDesc index = {id, 8, 1};
            ASSERT_EQ(TALVOCameraSetCmdCb(&index, CallbackLog::CmdCallback, nullptr), 0) << DumpLogs();
        }
        TalvoTestLogClear();
    }
    void TearDown() override
    {
        SetVendorPath({});
        CallbackLog::Get().Clear();
        PluginTest::TearDown();
    }

    FakeCameraControl *camera_ = nullptr;
};

TEST_F(LoadedServiceReportTest, StatusFromTheVendorThreadReachesTheFramework)
{
    EXPECT_EQ(camera_->PushStatus("0", 1, kFakeOnVendorThread), 0);
    ASSERT_TRUE(DrainEventQueue());
    auto glb = CallbackLog::Get().GlbCalls();
    ASSERT_EQ(glb.size(), 1u) << DumpLogs();
    const KxCameraService *service = GetCameraHandlerById("Camera_0", 8);
    ASSERT_NE(service, nullptr);
    const std::string ability = service->abilityText;
    ASSERT_FALSE(ability.empty());
    EXPECT_EQ(glb[0].payload.len, 4u + 8u + 4u + 4u + ability.size());
    EXPECT_EQ(std::string(glb[0].packet.begin() + 20, glb[0].packet.end()), ability);
    EXPECT_TRUE(CallbackLog::Get().CmdCalls().empty());
}

TEST_F(LoadedServiceReportTest, CameraStateFromTheVendorThreadReachesBothCallbacks)
{
    EXPECT_EQ(camera_->PushAction("1", 7, "205", kFakeOnVendorThread), 0);
    EXPECT_EQ(camera_->PushAction("1", 7, "00000000000000205", kFakeOnVendorThread), -5);
    ASSERT_TRUE(DrainEventQueue());
    auto cmd = CallbackLog::Get().CmdCalls();
    ASSERT_EQ(cmd.size(), 1u) << DumpLogs();
    EXPECT_EQ(cmd[0].identityText, "1");
    EXPECT_EQ(cmd[0].payload.type, 205u);
    auto glb = CallbackLog::Get().GlbCalls();
    ASSERT_EQ(glb.size(), 1u);
    const std::vector<uint8_t> bytes = {0, 0, 0, 8, 'C', 'a', 'm', 'e', 'r', 'a', '_', '1', 0, 0, 0, 205};
    EXPECT_EQ(glb[0].packet, bytes);
}

} // namespace
} // namespace kxtest
