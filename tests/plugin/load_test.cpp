// SPDX-License-Identifier: Apache-2.0
// Service loading: callbacks checked and kept, lock and event queue created,
// vendor libraries loaded, cameras announced, listener handed to the vendor.
#include "frame/frame.h"

#include <cstring>
#include <string>

#include "registry_support.h"
#include "events/events.h"
#include "fake_access.h"
#include "support.h"

namespace kxtest {
namespace {

class LoadTest : public PluginTest {
protected:
    void SetUp() override
    {
        PluginTest::SetUp();
        camera_ = FakeCamera();
        encoder_ = FakeEncoder();
        ASSERT_NE(camera_, nullptr);
        ASSERT_NE(encoder_, nullptr);
        camera_->Reset();
        encoder_->Reset();
        SetVendorPath({kFakeCameraDir, kFakeEncoderDir});
        callbacks_ = RecordingCallbacks();
    }
    void TearDown() override
    {
        PluginTest::TearDown();
        camera_->Reset();
        encoder_->Reset();
        SetVendorPath({});
    }

    std::vector<std::string> CameraSlotsCalled() const
    {
        std::vector<std::string> slots;
        for (const auto &call : camera_->Calls()) {
            slots.push_back(call.slot);
        }
        return slots;
    }

    std::vector<std::string> AnnouncedIds() const
    {
        std::vector<std::string> ids;
        for (const auto &announced : AnnouncedServices()) {
            ids.push_back(announced.id);
        }
        return ids;
    }

    FakeCameraControl *camera_ = nullptr;
    FakeEncoderControl *encoder_ = nullptr;
    KxServiceCallbacks callbacks_{};
};

int32_t AnyGlobalCallback(const KxCommand *) { return 0; }

TEST_F(LoadTest, LoadAnnouncesEveryCameraAndRegistersTheListener)
{
    ASSERT_EQ(TALVOCameraLoadService(&callbacks_), 0) << DumpLogs();
    const KxCameraModule &module = g_cameraModule;
    EXPECT_EQ(module.inited, 1);
    EXPECT_NE(module.eventsHandle, nullptr);
    EXPECT_NE(module.cameraLibHandle, nullptr);
    EXPECT_NE(module.vencLibHandle, nullptr);
    EXPECT_EQ(module.vencAbilityNum, 1u);
    EXPECT_EQ(std::memcmp(&module.serviceCb, &callbacks_, sizeof(callbacks_)), 0) << "all three entries kept";
    EXPECT_EQ(TalvoTestCallCount(TALVO_FN_MUTEX_INIT), 1u);
    EXPECT_EQ(TalvoTestCallCount(TALVO_FN_EVENTS_CREATE), 1u);

    EXPECT_EQ(AnnouncedIds(), (std::vector<std::string>{"Camera_0", "Camera_1"}));
    EXPECT_EQ(module.serviceList.count, 2u);
    EXPECT_EQ(CameraSlotsCalled(), (std::vector<std::string>{"TALVOGetCameraHandler", "GetCameraCapability",
                                                              "ReleaseCameraCapability", "RegisterListener"}));
    const auto registrations = camera_->CallsTo("RegisterListener");
    ASSERT_EQ(registrations.size(), 1u);
    EXPECT_EQ(registrations[0].listener.updateServiceStatus, &CameraUpdateServiceStatus);
    EXPECT_EQ(registrations[0].listener.updateServiceAction, &CameraUpdateServiceAction);
    EXPECT_TRUE(HasLog(3, "camera registerListener callback")) << DumpLogs();
    EXPECT_TRUE(LogsWithFormat("reg camera listener failed, error %d").empty()) << DumpLogs();
    // Entry points that need an initialised module now work.
    EXPECT_EQ(TALVOCameraSetGlbCmdCb(nullptr, AnyGlobalCallback), 0);
    // The framework reaches this entry through slot 1 of the table.
    KxServiceHandler table{};
    ASSERT_EQ(TALVOGetCameraServiceHandler(&table), 0);
    EXPECT_EQ(table.loadService, &TALVOCameraLoadService);
}

TEST_F(LoadTest, SecondLoadWhileInitialisedChangesNothing)
{
    ASSERT_EQ(TALVOCameraLoadService(&callbacks_), 0);
    TalvoTestLogClear();
    KxServiceCallbacks other = callbacks_;
    other.reserved = nullptr;
    EXPECT_EQ(TALVOCameraLoadService(&other), 0);
    EXPECT_TRUE(HasLog(1, "camera module is init, just return")) << DumpLogs();
    EXPECT_EQ(AnnouncedServices().size(), 2u);
    EXPECT_EQ(g_cameraModule.serviceList.count, 2u);
    EXPECT_NE(g_cameraModule.serviceCb.reserved, nullptr);
    EXPECT_EQ(TalvoTestCallCount(TALVO_FN_MUTEX_INIT), 1u);
    EXPECT_EQ(TalvoTestCallCount(TALVO_FN_EVENTS_CREATE), 1u);
    EXPECT_EQ(camera_->CallsTo("GetCameraCapability").size(), 1u);
}

enum class BadTable { kNone, kNoAddService, kNoDeleteService };

class RefusedCallbacksTest : public LoadTest, public ::testing::WithParamInterface<BadTable> {};

TEST_P(RefusedCallbacksTest, RefusedBeforeAnythingIsCreated)
{
    KxServiceCallbacks table = callbacks_;
    const KxServiceCallbacks *given = &table;
    std::string message = "camera kx service callback AddService or DeleteService is invalid";
    switch (GetParam()) {
    case BadTable::kNone:
        given = nullptr;
        message = "camera kx service callback is nullptr";
        break;
    case BadTable::kNoAddService:
        table.AddService = nullptr;
        break;
    case BadTable::kNoDeleteService:
        table.DeleteService = nullptr;
        break;
    }
    EXPECT_EQ(TALVOCameraLoadService(given), -13);
    EXPECT_TRUE(HasLog(1, message)) << DumpLogs();
    EXPECT_EQ(g_cameraModule.inited, 0);
    EXPECT_EQ(TalvoTestCallCount(TALVO_FN_MUTEX_INIT), 0u);
    EXPECT_EQ(TalvoTestCallCount(TALVO_FN_EVENTS_CREATE), 0u);
    EXPECT_TRUE(camera_->Calls().empty());
    EXPECT_EQ(g_cameraModule.serviceCb.AddService, nullptr);
}

INSTANTIATE_TEST_SUITE_P(Tables, RefusedCallbacksTest,
                         ::testing::Values(BadTable::kNone, BadTable::kNoAddService, BadTable::kNoDeleteService));

TEST_F(LoadTest, LockFailureEndsTheLoadWithItsCode)
{
    TalvoTestFailNth(TALVO_FN_MUTEX_INIT, 1);
    EXPECT_EQ(TALVOCameraLoadService(&callbacks_), TALVO_TEST_INJECTED_ERROR);
    EXPECT_TRUE(HasLog(1, "audio moudle lock inited failed, error code " + std::to_string(TALVO_TEST_INJECTED_ERROR)))
        << DumpLogs();
    EXPECT_EQ(g_cameraModule.inited, 0);
    EXPECT_EQ(TalvoTestCallCount(TALVO_FN_EVENTS_CREATE), 0u);
    EXPECT_TRUE(camera_->Calls().empty());
}

TEST_F(LoadTest, EventQueueFailureEndsTheLoadSilentlyAndALaterLoadWorks)
{
    TalvoTestFailNth(TALVO_FN_EVENTS_CREATE, 1);
    EXPECT_EQ(TALVOCameraLoadService(&callbacks_), -13);
    EXPECT_EQ(g_cameraModule.inited, 0);
    EXPECT_EQ(g_cameraModule.eventsHandle, nullptr);
    EXPECT_EQ(g_cameraModule.cameraLibHandle, nullptr);
    EXPECT_TRUE(camera_->Calls().empty());
    EXPECT_TRUE(CapturedLogs().empty()) << DumpLogs();
    EXPECT_EQ(TalvoTestCallCount(TALVO_FN_MUTEX_DESTROY), 1u) << "the lock is taken back";

    EXPECT_EQ(TALVOCameraLoadService(&callbacks_), 0);
    EXPECT_EQ(g_cameraModule.inited, 1);
    EXPECT_EQ(TalvoTestCallCount(TALVO_FN_MUTEX_INIT), 2u);
    EXPECT_EQ(AnnouncedServices().size(), 2u);
}

// Without a usable camera library the load succeeds but the module stays down.
class MissingCameraLibraryTest : public LoadTest, public ::testing::WithParamInterface<const char *> {};

TEST_P(MissingCameraLibraryTest, LoadSucceedsButModuleStaysUninitialised)
{
    SetVendorPath({GetParam(), kFakeEncoderDir});
    EXPECT_EQ(TALVOCameraLoadService(&callbacks_), 0);
    EXPECT_TRUE(HasLog(4, "CameraInit falied, error code -13")) << DumpLogs();
    EXPECT_EQ(g_cameraModule.inited, 0);
    EXPECT_EQ(g_cameraModule.cameraLibHandle, nullptr);
    EXPECT_EQ(g_cameraModule.vencLibHandle, nullptr) << "the encoder is not loaded without cameras";
    EXPECT_EQ(g_cameraModule.eventsHandle, nullptr) << "the queue and its thread are taken back";
    EXPECT_EQ(TalvoTestCallCount(TALVO_FN_MUTEX_DESTROY), 1u);
    EXPECT_TRUE(AnnouncedServices().empty());
    EXPECT_EQ(TALVOCameraSetGlbCmdCb(nullptr, AnyGlobalCallback), -4);
}

INSTANTIATE_TEST_SUITE_P(Libraries, MissingCameraLibraryTest, ::testing::Values(kFakeEmptyDir, kFakeCameraNoGetterDir));

TEST_F(LoadTest, MissingEncoderLibraryGivesAModuleWithoutEncoder)
{
    SetVendorPath({kFakeCameraDir, kFakeEmptyDir});
    EXPECT_EQ(TALVOCameraLoadService(&callbacks_), 0);
    EXPECT_EQ(g_cameraModule.inited, 1);
    EXPECT_EQ(g_cameraModule.vencLibHandle, nullptr);
    EXPECT_EQ(g_cameraModule.vencAbilityNum, 0u);
    EXPECT_EQ(AnnouncedServices().size(), 2u);
    EXPECT_TRUE(LogsWithFormat("CameraVEnc init falied, error code %d").empty()) << DumpLogs();
}

TEST_F(LoadTest, EncoderThatRefusesItsHandlerIsAWarningOnly)
{
    encoder_->getterResult = -3;
    EXPECT_EQ(TALVOCameraLoadService(&callbacks_), 0);
    EXPECT_TRUE(HasLog(2, "CameraVEnc init falied, error code -2000")) << DumpLogs();
    EXPECT_EQ(g_cameraModule.inited, 1);
    EXPECT_EQ(g_cameraModule.vencAbilityNum, 0u);
    EXPECT_EQ(AnnouncedServices().size(), 2u);
    EXPECT_EQ(camera_->CallsTo("RegisterListener").size(), 1u);
}

TEST_F(LoadTest, ListenerRegistrationFailureStillInitialises)
{
    camera_->status.registerListener = -8;
    EXPECT_EQ(TALVOCameraLoadService(&callbacks_), 0);
    EXPECT_TRUE(HasLog(1, "reg camera listener failed, error -8")) << DumpLogs();
    EXPECT_EQ(g_cameraModule.inited, 1);
    EXPECT_EQ(g_cameraModule.serviceList.count, 2u);
}

TEST_F(LoadTest, EnumerationFailureGivesAnInitialisedModuleWithoutCameras)
{
    camera_->capability.items = nullptr;
    camera_->capability.num = 3;
    EXPECT_EQ(TALVOCameraLoadService(&callbacks_), 0);
    EXPECT_EQ(g_cameraModule.inited, 1);
    EXPECT_EQ(g_cameraModule.serviceList.count, 0u);
    EXPECT_TRUE(AnnouncedServices().empty());
    EXPECT_EQ(camera_->CallsTo("RegisterListener").size(), 1u);
}

TEST_F(LoadTest, CameraWhoseRecordCannotBeAllocatedIsLeftOut)
{
    // The first block of the load is the first camera's record.
    TalvoTestFailNth(TALVO_FN_MALLOC, 1);
    EXPECT_EQ(TALVOCameraLoadService(&callbacks_), 0);
    EXPECT_EQ(g_cameraModule.inited, 1);
    EXPECT_EQ(AnnouncedIds(), std::vector<std::string>{"Camera_1"});
    EXPECT_TRUE(HasLog(1, "malloc for camera service failed")) << DumpLogs();
    EXPECT_EQ(TalvoTestOutstandingAllocs() - allocBaseline_, 2);
}

} // namespace
} // namespace kxtest
