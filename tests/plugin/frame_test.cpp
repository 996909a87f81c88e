// SPDX-License-Identifier: Apache-2.0
// Load and release as a framework does them, and the loads it must refuse.
#include <cstring>

#include "events/events.h"
#include "support.h"

namespace kxtest {
namespace {

class FrameTest : public PluginTest {};

TEST_F(FrameTest, LoadAnnouncesReleaseTakesEverythingBackReloadWorks)
{
    uint64_t version = 0;
    ASSERT_EQ(TALVOGetCameraServiceHandler(&Fw().table), 0);
    ASSERT_EQ(Fw().table.getVersion(&version), 0);
    EXPECT_EQ(version, uint64_t{1} << 48);
    for (int round = 0; round < 2; ++round) {
        Fw().announced.clear();
        ASSERT_EQ(Fw().Load(), 0) << DumpLogs();
        ASSERT_EQ(g_cameraModule.inited, 1);
        ASSERT_EQ(Fw().announced.size(), 2u);
        for (size_t i = 0; i < 2; ++i) {
            const Announced &a = Fw().announced[i];
            EXPECT_EQ(a.id, "Camera_" + std::to_string(i));
            EXPECT_EQ(a.idLen, 8u);
            EXPECT_EQ(a.serviceType, 1u);
            EXPECT_EQ(a.ops.setCommand, &TALVOCameraSetCommand);
            EXPECT_EQ(a.ops.getCommand, &TALVOCameraGetCommand);
            EXPECT_EQ(a.ops.setCmdCb, &TALVOCameraSetCmdCb);
            EXPECT_EQ(a.ops.getCmdCb, &TALVOCameraGetCmdCb);
        }
        const auto listeners = FakeCamera()->CallsTo("RegisterListener");
        ASSERT_EQ(listeners.size(), static_cast<size_t>(round + 1));
        EXPECT_EQ(listeners.back().listener.updateServiceStatus, &CameraUpdateServiceStatus);
        EXPECT_EQ(listeners.back().listener.updateServiceAction, &CameraUpdateServiceAction);
        // A second load while loaded changes nothing.
        EXPECT_EQ(Fw().Load(), 0);
        EXPECT_EQ(Fw().announced.size(), 2u);

        Fw().Attach();
        ASSERT_EQ(Fw().SetParams("0", OpenParams(64, 48, 2, 0)), 0) << DumpLogs();
        ASSERT_EQ(Fw().Send("0", KX_CMD_OPEN), 0);
        ASSERT_EQ(Fw().Send("1", KX_CMD_OPEN), 0);
        ASSERT_EQ(FakeEncoder()->LiveInstances(), 1u);
        const int64_t beforeRelease = TalvoTestOutstandingAllocs();
        EXPECT_EQ(Fw().Release(), 0);
        EXPECT_EQ(g_cameraModule.inited, 0);
        EXPECT_EQ(g_cameraModule.eventsHandle, nullptr);
        EXPECT_EQ(g_cameraModule.serviceList.count, 0u);
        EXPECT_LT(TalvoTestOutstandingAllocs(), beforeRelease);
        EXPECT_EQ(FakeEncoder()->LiveInstances(), 0u);
        EXPECT_TRUE(FakeCamera()->frameCallbacks.empty()) << "every camera closed at the vendor";
        EXPECT_EQ(Fw().Release(), 0) << "a second release is harmless";
        EXPECT_EQ(Fw().Send("0", KX_CMD_OPEN), -1000);
        EXPECT_TRUE(LogsInOrder(4, {"TALVOCameraReleaseService start", "close camera id Ca****_0 success, ret 0",
                                    "close camera id Ca****_1 success, ret 0", "TALVOCameraReleaseService end"}))
            << DumpLogs();
        TalvoTestLogClear();
    }
    EXPECT_EQ(TalvoTestOutstandingAllocs(), allocBaseline_);
}

// Loads a framework may attempt, and what it must see.
struct LoadCase {
    const char *name;
    void (*arrange)(KxServiceCallbacks &callbacks);
    bool noTable;
    int32_t status;
    bool inited;
    int32_t level;
    const char *message;
};
void PrintTo(const LoadCase &c, std::ostream *out)
{
    *out << c.name;
}

class LoadRefusal : public PluginTest, public ::testing::WithParamInterface<LoadCase> {};

TEST_P(LoadRefusal, StatusStateAndMessage)
{
    const LoadCase &c = GetParam();
    ASSERT_EQ(TALVOGetCameraServiceHandler(&Fw().table), 0);
    c.arrange(Fw().callbacks);
    EXPECT_EQ(Fw().table.loadService(c.noTable ? nullptr : &Fw().callbacks), c.status);
    EXPECT_EQ(g_cameraModule.inited, c.inited ? 1 : 0);
    EXPECT_TRUE(HasLog(c.level, c.message)) << DumpLogs();
    if (!c.inited) {
        EXPECT_EQ(g_cameraModule.eventsHandle, nullptr) << "a load that stops takes its queue back";
        EXPECT_TRUE(Fw().announced.empty());
    } else {
        EXPECT_EQ(Fw().announced.size(), 2u);
    }
}

const auto kNoChange = [](KxServiceCallbacks &) {};

INSTANTIATE_TEST_SUITE_P(
    Loads, LoadRefusal,
    ::testing::Values(LoadCase{"NoTable", kNoChange, true, -13, false, 1, "camera kx service callback is nullptr"},
                      LoadCase{"NoAddService", [](KxServiceCallbacks &c) { c.AddService = nullptr; }, false, -13, false,
                               1, "camera kx service callback AddService or DeleteService is invalid"},
                      LoadCase{"NoDeleteService", [](KxServiceCallbacks &c) { c.DeleteService = nullptr; }, false, -13,
                               false, 1, "camera kx service callback AddService or DeleteService is invalid"},
                      LoadCase{"NoCameraLibrary",
                               [](KxServiceCallbacks &) {
                                   SetVendorPath({kFakeEmptyDir, kFakeEncoderDir});
                               },
                               false, 0, false, 4, "CameraInit falied, error code -13"},
                      LoadCase{"CameraLibraryWithoutGetter",
                               [](KxServiceCallbacks &) {
                                   SetVendorPath({kFakeCameraNoGetterDir, kFakeEncoderDir});
                               },
                               false, 0, false, 4, "CameraInit falied, error code -13"},
                      LoadCase{"EncoderRefusesItsHandler",
                               [](KxServiceCallbacks &) { FakeEncoder()->getterResult = -3; }, false, 0, true, 2,
                               "CameraVEnc init falied, error code -2000"},
                      LoadCase{"EncoderLibraryWithoutGetter",
                               [](KxServiceCallbacks &) {
                                   SetVendorPath({kFakeCameraDir, kFakeEncoderNoGetterDir});
                               },
                               false, 0, true, 1, "get AduioModuelApi failed, error code"},
                      LoadCase{"ListenerRefused",
                               [](KxServiceCallbacks &) { FakeCamera()->status.registerListener = -8; }, false, 0, true,
                               1, "reg camera listener failed, error -8"}),
    [](const auto &info) { return std::string(info.param.name); });

} // namespace
} // namespace kxtest
