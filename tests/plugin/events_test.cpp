// SPDX-License-Identifier: Apache-2.0
// Vendor reports as a framework sees them: camera state through the camera's
// callback, notification packets in network order through the global one.
#include <cstdio>
#include <cstring>

#include "support.h"

namespace kxtest {
namespace {

using Bytes = std::vector<uint8_t>;

void Put32(Bytes &out, uint32_t value)
{
    for (int shift = 24; shift >= 0; shift -= 8) {
        out.push_back(static_cast<uint8_t>(value >> shift));
    }
}

// The packet as the framework reads it, built apart from the plugin.
Bytes Packet(const std::string &serviceId, uint32_t event, const char *ability = nullptr)
{
    const size_t abilityLen = ability == nullptr ? 0 : std::strlen(ability);
    Bytes out;
    out.reserve(12 + serviceId.size() + abilityLen);
    Put32(out, static_cast<uint32_t>(serviceId.size()));
    out.insert(out.end(), serviceId.begin(), serviceId.end());
    Put32(out, event);
    if (ability != nullptr) {
        Put32(out, static_cast<uint32_t>(abilityLen));
        out.insert(out.end(), ability, ability + abilityLen);
    }
    return out;
}

class EventsTest : public ServiceTest {
protected:
    static int32_t Other(const KxServiceIdDesc *i, const KxCommand *m, void *)
    {
        return Framework::CmdCallback(i, m, nullptr);
    }
};

TEST_F(EventsTest, ReportsReachBothCallbacksAsTheFrameworkReadsThem)
{
    const std::string ability = Camera("0")->abilityText;
    ASSERT_EQ(FakeCamera()->PushStatus("0", 1), 0);
    ASSERT_EQ(FakeCamera()->PushAction("1", 7, "205"), 0);
    ASSERT_EQ(FakeCamera()->PushStatus("1", 2), 0);
    ASSERT_TRUE(DrainEventQueue());
    const std::vector<Bytes> expected = {Packet("Camera_0", 201, ability.c_str()), Packet("Camera_1", 205),
                                         Packet("Camera_1", 208)};
    EXPECT_EQ(Fw().Notifications(), expected);
    for (const KxCallbackPayload &payload : Fw().NotificationPayloads()) {
        EXPECT_EQ(payload.module, 3u);
        EXPECT_EQ(payload.type, 1u);
    }
    // Only the state action reaches the camera's own callback, under its vendor id.
    const auto states = Fw().Messages(KX_MSG_CAMERA_STATE);
    ASSERT_EQ(states.size(), 1u);
    EXPECT_EQ(states[0].identity, "1");
    EXPECT_EQ(states[0].serviceType, 1u);
    EXPECT_EQ(states[0].payload.type, 205u);
    EXPECT_EQ(states[0].outputLen, 148u);
}

TEST_F(EventsTest, GetCallbackKeepsTheCallbackButTakesItsUserData)
{
    const KxServiceIdDesc index = IndexOf("1");
    int first = 0, second = 0;
    ASSERT_EQ(Fw().table.setCmdCb(&index, Framework::CmdCallback, &first), 0);
    ASSERT_EQ(Fw().table.getCmdCb(&index, Other, &second), 0);
    ASSERT_EQ(FakeCamera()->PushAction("1", 7, "4"), 0);
    ASSERT_TRUE(DrainEventQueue());
    const auto states = Fw().Messages(KX_MSG_CAMERA_STATE);
    ASSERT_EQ(states.size(), 1u);
    EXPECT_EQ(states[0].userData, &second);
    EXPECT_EQ(Fw().table.setCmdCb(nullptr, Framework::CmdCallback, nullptr), -1000);
    EXPECT_EQ(Fw().table.getCmdCb(nullptr, Other, nullptr), -1000);
    char set[64];
    std::snprintf(set, sizeof(set), "CameraSetCmdCb %p success", reinterpret_cast<void *>(&Framework::CmdCallback));
    EXPECT_TRUE(LogsInOrder(4, {set, "CameraGetCmdCb success"})) << DumpLogs();
    EXPECT_TRUE(HasLog(1, "camera get cmd cb params is null")) << DumpLogs();
}

// One report of the vendor's listener, and what comes of it.
struct ReportCase {
    const char *name;
    int32_t (*send)();
    int32_t status;
    size_t notifications;
    int32_t level;
    const char *message;
};
void PrintTo(const ReportCase &c, std::ostream *out)
{
    *out << c.name;
}

class ReportRefusal : public EventsTest, public ::testing::WithParamInterface<ReportCase> {};

TEST_P(ReportRefusal, StatusNotificationsAndMessage)
{
    const ReportCase &c = GetParam();
    EXPECT_EQ(c.send(), c.status);
    ASSERT_TRUE(DrainEventQueue());
    EXPECT_EQ(Fw().Notifications().size(), c.notifications);
    if (c.message != nullptr) {
        EXPECT_TRUE(HasLog(c.level, c.message)) << DumpLogs();
    }
}

// 205 when read as 16 characters.
constexpr char kSeventeen[] = "00000000000002050";

INSTANTIATE_TEST_SUITE_P(
    Reports, ReportRefusal,
    ::testing::Values(
        ReportCase{"StatusWithoutId", [] { return FakeCamera()->PushStatusRaw(nullptr, 1, 1); }, -2, 0, 1,
                   "invalid id"},
        ReportCase{"StatusOfEmptyId", [] { return FakeCamera()->PushStatusRaw("0", 0, 1); }, -2, 0, 1, "invalid id"},
        ReportCase{"UnknownStatus", [] { return FakeCamera()->PushStatus("0", 3); }, -2, 0, 1, "invalid status."},
        ReportCase{"StatusOfUnknownCamera", [] { return FakeCamera()->PushStatus("9", 1); }, 0, 0, 1,
                   "Can not find camera service, id: 9"},
        ReportCase{"ActionValueOfLongestLength", [] { return FakeCamera()->PushActionRaw("1", 1, 7, kSeventeen, 16); },
                   0, 1, 0, nullptr},
        ReportCase{"ActionValueOneTooLong", [] { return FakeCamera()->PushActionRaw("1", 1, 7, kSeventeen, 17); }, -5,
                   0, 1, "camera action value bad len=17"},
        ReportCase{"OtherActionType", [] { return FakeCamera()->PushAction("1", 3, "205"); }, 0, 0, 0, nullptr},
        ReportCase{"ActionNotANotification", [] { return FakeCamera()->PushAction("1", 7, "4"); }, 0, 0, 1,
                   "is not valid Notify Event"}),
    [](const auto &info) { return std::string(info.param.name); });

} // namespace
} // namespace kxtest
