// SPDX-License-Identifier: Apache-2.0
// Device service notification packets through the global command callback.
#include "events/events.h"

#include <cstring>
#include <string>
#include <vector>

#include "camera_support.h"

namespace kxtest {
namespace {

std::vector<uint8_t> BigEndian(uint32_t value)
{
    return {static_cast<uint8_t>(value >> 24), static_cast<uint8_t>(value >> 16), static_cast<uint8_t>(value >> 8),
            static_cast<uint8_t>(value)};
}

void Append(std::vector<uint8_t> &out, const std::vector<uint8_t> &more) { out.insert(out.end(), more.begin(), more.end()); }
void Append(std::vector<uint8_t> &out, const std::string &text) { out.insert(out.end(), text.begin(), text.end()); }

// The packet as the framework must read it, built independently of the plugin.
std::vector<uint8_t> ExpectedPacket(const std::string &serviceId, uint32_t event, const std::string *ability)
{
    std::vector<uint8_t> bytes;
    Append(bytes, BigEndian(static_cast<uint32_t>(serviceId.size())));
    Append(bytes, serviceId);
    Append(bytes, BigEndian(event));
    if (ability != nullptr) {
        Append(bytes, BigEndian(static_cast<uint32_t>(ability->size())));
        Append(bytes, *ability);
    }
    return bytes;
}

// Owns a module event message built the way the listener entries build it.
struct Message {
    explicit Message(const std::string &vendorId, uint32_t event)
        : msg(CameraEventsHandlerMsgInit(8, vendorId.c_str(), static_cast<uint32_t>(vendorId.size())))
    {
        if (msg != nullptr) {
            msg->notifyEvent = event;
        }
    }
    ~Message() { CameraModuleEventsMsgFree(8, msg); }
    Message(const Message &) = delete;
    Message &operator=(const Message &) = delete;
    KxModuleEventMsg *msg;
};

class NotifyTest : public CameraModuleTest {
protected:
    void SetUp() override
    {
        CameraModuleTest::SetUp();
        ability_ = TextOfLength(235, 'x');
        camera_ = AddCamera("0", ability_);
        ASSERT_NE(camera_, nullptr);
        g_cameraModule.glbCmdCb = CallbackLog::GlbCallback;
    }

    void ExpectNothingSent() { EXPECT_TRUE(CallbackLog::Get().GlbCalls().empty()); }
    void ExpectOnlyErrors(const std::vector<std::string> &texts) { EXPECT_EQ(TextsAtLevel(1), texts) << DumpLogs(); }

    std::string ability_;
    KxCameraService *camera_ = nullptr;
};

TEST_F(NotifyTest, OnlineEventCarriesTheAbilityTextByteForByte)
{
    Message message("0", 201);
    ASSERT_NE(message.msg, nullptr);
    CameraModuleEventsNotify(message.msg);
    auto calls = CallbackLog::Get().GlbCalls();
    ASSERT_EQ(calls.size(), 1u) << DumpLogs();
    const GlbCbCall &call = calls[0];
    EXPECT_EQ(call.code, 2u);
    EXPECT_EQ(call.input, nullptr);
    EXPECT_EQ(call.inputLen, 0u);
    EXPECT_EQ(call.outputLen, 160u);
    EXPECT_EQ(call.payload.module, 3u);
    EXPECT_EQ(call.payload.type, 1u);
    EXPECT_EQ(call.payload.len, 255u);
    KxCallbackPayload zero{};
    EXPECT_EQ(std::memcmp(call.payload.reserved0, zero.reserved0, sizeof(zero.reserved0)), 0);
    EXPECT_EQ(std::memcmp(call.payload.reserved1, zero.reserved1, sizeof(zero.reserved1)), 0);

    const std::vector<uint8_t> head = {0, 0, 0, 8, 'C', 'a', 'm', 'e', 'r', 'a', '_', '0', 0, 0, 0, 0xC9, 0, 0, 0, 0xEB};
    ASSERT_EQ(call.packet.size(), 255u);
    EXPECT_EQ(std::vector<uint8_t>(call.packet.begin(), call.packet.begin() + 20), head);
    EXPECT_EQ(std::string(call.packet.begin() + 20, call.packet.end()), ability_);
    EXPECT_EQ(call.packet, ExpectedPacket("Camera_0", 201, &ability_));
    EXPECT_TRUE(HasLog(3, "setGlbCb, module: 6, type: 1, len: 255")) << DumpLogs();
    ExpectOnlyErrors({});
}

class NotifyEventTest : public NotifyTest, public ::testing::WithParamInterface<uint32_t> {};

TEST_P(NotifyEventTest, OtherEventsCarryOnlyIdAndEvent)
{
    Message message("0", GetParam());
    CameraModuleEventsNotify(message.msg);
    auto calls = CallbackLog::Get().GlbCalls();
    ASSERT_EQ(calls.size(), 1u) << DumpLogs();
    EXPECT_EQ(calls[0].payload.len, 16u);
    EXPECT_EQ(calls[0].packet, ExpectedPacket("Camera_0", GetParam(), nullptr));
    EXPECT_TRUE(HasLog(3, "setGlbCb, module: 6, type: 1, len: 16"));
}

INSTANTIATE_TEST_SUITE_P(Events, NotifyEventTest, ::testing::Values(205u, 208u));

class InvalidEventTest : public NotifyTest, public ::testing::WithParamInterface<uint32_t> {};

TEST_P(InvalidEventTest, IsRefusedAndNothingSent)
{
    Message message("0", GetParam());
    CameraModuleEventsNotify(message.msg);
    ExpectNothingSent();
    ExpectOnlyErrors({"is not valid Notify Event"});
    EXPECT_EQ(TalvoTestCallCount(TALVO_FN_PACKET_INIT), 0u);
}

INSTANTIATE_TEST_SUITE_P(Events, InvalidEventTest, ::testing::Values(0u, 3u, 4u, 200u, 202u, 206u, 207u, 209u));

TEST_F(NotifyTest, LongestVendorIdStillFits)
{
    const std::string id = TextOfLength(56, '5');
    ASSERT_NE(AddCamera(id), nullptr);
    Message message(id, 208);
    CameraModuleEventsNotify(message.msg);
    auto calls = CallbackLog::Get().GlbCalls();
    ASSERT_EQ(calls.size(), 1u) << DumpLogs();
    EXPECT_EQ(calls[0].payload.len, 63u + 8u);
    EXPECT_EQ(calls[0].packet, ExpectedPacket("Camera_" + id, 208, nullptr));
}

TEST_F(NotifyTest, VendorIdOneTooLongIsRefused)
{
    const std::string id = TextOfLength(57, '5');
    ASSERT_NE(AddCamera(id), nullptr);
    Message message(id, 208);
    CameraModuleEventsNotify(message.msg);
    ExpectNothingSent();
    ExpectOnlyErrors({"create camera real id failed", "get camera real id failed"});
}

TEST_F(NotifyTest, NothingSentWithoutAGlobalCallback)
{
    g_cameraModule.glbCmdCb = nullptr;
    Message message("0", 201);
    CameraModuleEventsNotify(message.msg);
    ExpectOnlyErrors({"get camera real id invalid param", "get camera real id failed"});
    EXPECT_EQ(TalvoTestCallCount(TALVO_FN_PACKET_INIT), 0u);
}

TEST_F(NotifyTest, MissingMessageIsAnInvalidParameter)
{
    CameraModuleEventsNotify(nullptr);
    ExpectNothingSent();
    ExpectOnlyErrors({"get camera real id invalid param", "get camera real id failed"});
}

TEST_F(NotifyTest, UnknownCameraIsLoggedByItsVendorId)
{
    Message message("9", 201);
    CameraModuleEventsNotify(message.msg);
    ExpectNothingSent();
    ExpectOnlyErrors({"Can not find camera service, id: 9", "get camera real id failed"});
}

TEST_F(NotifyTest, PacketThatCannotBeCreatedSendsNothing)
{
    TalvoTestFailNth(TALVO_FN_PACKET_INIT, 1);
    Message message("0", 201);
    CameraModuleEventsNotify(message.msg);
    ExpectNothingSent();
    ExpectOnlyErrors({"TALVO Packet Init failed"});
}

class PacketWriteFailureTest : public NotifyTest, public ::testing::WithParamInterface<uint32_t> {};

TEST_P(PacketWriteFailureTest, EndsSilentlyAndReleasesThePacket)
{
    TalvoTestFailNth(TALVO_FN_PACKET_WRITE, GetParam());
    Message message("0", 201);
    CameraModuleEventsNotify(message.msg);
    ExpectNothingSent();
    ExpectOnlyErrors({});
    EXPECT_EQ(TalvoTestCallCount(TALVO_FN_PACKET_WRITE), GetParam()) << "no write after the failing one";
    // The fixture's allocation balance shows the packet was released.
}

// Five writes: id length, id, event, ability length, ability text.
INSTANTIATE_TEST_SUITE_P(Writes, PacketWriteFailureTest, ::testing::Values(1u, 2u, 3u, 4u, 5u));

TEST_F(NotifyTest, SendWithoutGlobalCallbackFailsQuietly)
{
    g_cameraModule.glbCmdCb = nullptr;
    uint8_t bytes[4] = {1, 2, 3, 4};
    EXPECT_NE(SendDeviceServiceNotify(bytes, sizeof(bytes)), 0);
    EXPECT_TRUE(CapturedLogs().empty()) << DumpLogs();
}

TEST_F(NotifyTest, AbilityFieldsOnlyForTheOnlineEventOfAKnownCamera)
{
    Message online("0", 201);
    Message offline("0", 208);
    EXPECT_EQ(AddCameraAbilityLengthIfNeed("Camera_0", 8, online.msg), 235u + 4u);
    EXPECT_EQ(AddCameraAbilityLengthIfNeed("Camera_0", 8, offline.msg), 0u);
    EXPECT_EQ(AddCameraAbilityLengthIfNeed("Camera_9", 8, online.msg), 0u);
    EXPECT_EQ(AddCameraAbilityLengthIfNeed(nullptr, 8, online.msg), 0u);
    EXPECT_EQ(AddCameraAbilityLengthIfNeed("Camera_0", 0, online.msg), 0u);
    EXPECT_EQ(AddCameraAbilityLengthIfNeed("Camera_0", 8, nullptr), 0u);

    TALVOPacket packet{};
    ASSERT_EQ(TALVOPacketInit(&packet, nullptr, 300), 0);
    EXPECT_EQ(AddCameraAbilityIfNeed(nullptr, "Camera_0", 8, online.msg), -2);
    EXPECT_EQ(AddCameraAbilityIfNeed(&packet, nullptr, 8, online.msg), -2);
    EXPECT_EQ(AddCameraAbilityIfNeed(&packet, "Camera_0", 0, online.msg), -2);
    EXPECT_EQ(AddCameraAbilityIfNeed(&packet, "Camera_0", 8, nullptr), -2);
    EXPECT_EQ(AddCameraAbilityIfNeed(&packet, "Camera_0", 8, offline.msg), 0);
    EXPECT_EQ(AddCameraAbilityIfNeed(&packet, "Camera_9", 8, online.msg), -4);
    EXPECT_EQ(packet.length, 0u) << "nothing written by the refusals";
    EXPECT_EQ(AddCameraAbilityIfNeed(&packet, "Camera_0", 8, online.msg), 0);
    EXPECT_EQ(packet.length, 239u);
    EXPECT_EQ(TALVOPacketRelease(&packet), 0);

    TALVOPacket tooSmall{};
    ASSERT_EQ(TALVOPacketInit(&tooSmall, nullptr, 100), 0);
    EXPECT_EQ(AddCameraAbilityIfNeed(&tooSmall, "Camera_0", 8, online.msg), -5);
    EXPECT_EQ(TALVOPacketRelease(&tooSmall), 0);
}

} // namespace
} // namespace kxtest
