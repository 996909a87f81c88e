// SPDX-License-Identifier: Apache-2.0
// Camera service records: capability checks, identifiers, enumeration of the
// vendor's cameras, announcement to the framework and the two lookups.
#include "registry/registry.h"

#include <cstring>
#include <functional>
#include <string>

#include "registry_support.h"
#include "fake_access.h"
#include "frame/frame.h"
#include "support.h"

namespace kxtest {
namespace {

// ---------------------------------------------------------------------------
// Capability checks

struct CheckCase {
    const char *name;
    std::function<void(CapabilityDraft &, KxCameraCapability &)> breakIt;
    int32_t status;
    const char *message; // null: no message expected
};

class CapabilityCheckTest : public PluginTest, public ::testing::WithParamInterface<CheckCase> {
protected:
    // Two ability entries and one extend-info entry, all valid.
    static CapabilityDraft Valid(std::string id = "cam")
    {
        CapabilityDraft draft(std::move(id));
        draft.Ability(1, {{30, 30}}, {{640, 480}}).Ability(17, {{15, 15}}, {{320, 240}}).Extend("k", "v");
        return draft;
    }
};

TEST_P(CapabilityCheckTest, ResultAndMessage)
{
    const CheckCase &c = GetParam();
    CapabilityDraft draft = Valid();
    KxCameraCapability &record = draft.Record();
    c.breakIt(draft, record);
    EXPECT_EQ(CheckCameraAbility(&record), c.status);
    if (c.message != nullptr) {
        EXPECT_TRUE(HasLog(1, c.message)) << DumpLogs();
    } else {
        EXPECT_TRUE(CapturedLogs().empty()) << DumpLogs();
    }
}

const char kId64[] = "0123456789abcdef0123456789abcdef0123456789abcdef0123456789abcdef";
const char kId65[] = "0123456789abcdef0123456789abcdef0123456789abcdef0123456789abcdefX";
const char kIdLonger[] = "cam0";

INSTANTIATE_TEST_SUITE_P(
    Cases, CapabilityCheckTest,
    ::testing::Values(
        CheckCase{"Valid", [](CapabilityDraft &, KxCameraCapability &) {}, 0, nullptr},
        CheckCase{"IdOf64", [](CapabilityDraft &, KxCameraCapability &r) { r.id = kId64, r.idLen = 64; }, 0, nullptr},
        CheckCase{"IdOf65", [](CapabilityDraft &, KxCameraCapability &r) { r.id = kId65, r.idLen = 65; }, -13,
                  "capabilities id 0123456789abcdef0123456789abcdef0123456789abcdef0123456789abcdefX length is "
                  "too large"},
        CheckCase{"IdLongerThanIdLen", [](CapabilityDraft &, KxCameraCapability &r) { r.id = kIdLonger, r.idLen = 3; },
                  -5, "capabilities id not end width string end flag"},
        CheckCase{"NoAbilityCountIsNotExamined",
                  [](CapabilityDraft &, KxCameraCapability &r) { r.abilityNum = 0; }, 0, nullptr},
        CheckCase{"NullId", [](CapabilityDraft &, KxCameraCapability &r) { r.id = nullptr; }, -13,
                  "capabilities id is nullptr"},
        CheckCase{"NullAbilities", [](CapabilityDraft &, KxCameraCapability &r) { r.abilities = nullptr; }, -13,
                  "abilityItems abilities is nullptr"},
        CheckCase{"FirstEntryWithoutRanges",
                  [](CapabilityDraft &s, KxCameraCapability &) { s.Abilities()[0].supportFpsRanges = nullptr; }, -13,
                  "capabilities supportFpsRanges is nullptr"},
        CheckCase{"FirstEntryWithoutRangesEvenWhenItListsNone",
                  [](CapabilityDraft &s, KxCameraCapability &) {
                      s.Abilities()[0].supportFpsRanges = nullptr;
                      s.Abilities()[0].fpsRangeNum = 0;
                  },
                  -13, "capabilities supportFpsRanges is nullptr"},
        CheckCase{"FirstEntryWithoutSizes",
                  [](CapabilityDraft &s, KxCameraCapability &) { s.Abilities()[0].supportSizes = nullptr; }, -13,
                  "capabilities supportSizes is nullptr"},
        CheckCase{"LaterEntryWithoutRanges",
                  [](CapabilityDraft &s, KxCameraCapability &) { s.Abilities()[1].supportFpsRanges = nullptr; }, -13,
                  "capabilities ability 1 supportFpsRanges is nullptr, count 1"},
        CheckCase{"LaterEntryWithoutSizes",
                  [](CapabilityDraft &s, KxCameraCapability &) { s.Abilities()[1].supportSizes = nullptr; }, -13,
                  "capabilities ability 1 supportSizes is nullptr, count 1"},
        CheckCase{"LaterEntryWithoutListsThatListsNothing",
                  [](CapabilityDraft &s, KxCameraCapability &) {
                      s.Abilities()[1] = KxCameraAbility{nullptr, 0, 0, nullptr, 0, 17};
                  },
                  0, nullptr},
        CheckCase{"EntryPastAbilityNumIsNotRead",
                  [](CapabilityDraft &s, KxCameraCapability &r) {
                      s.Abilities()[1].supportSizes = nullptr;
                      r.abilityNum = 1;
                  },
                  0, nullptr},
        CheckCase{"ExtendInfosMissing", [](CapabilityDraft &, KxCameraCapability &r) { r.extendInfos = nullptr; },
                  -13, "capabilities extendInfos is nullptr, count 1"},
        CheckCase{"ExtendInfosMissingAndNone",
                  [](CapabilityDraft &, KxCameraCapability &r) {
                      r.extendInfos = nullptr;
                      r.extendInfoNum = 0;
                  },
                  0, nullptr},
        CheckCase{"ExtendKeyMissing",
                  [](CapabilityDraft &s, KxCameraCapability &) { s.ExtendInfos()[0].key = nullptr; }, -13,
                  "capabilities extendInfo 0 key or value is nullptr"},
        CheckCase{"ExtendValueMissing",
                  [](CapabilityDraft &s, KxCameraCapability &) { s.ExtendInfos()[0].value = nullptr; }, -13,
                  "capabilities extendInfo 0 key or value is nullptr"}),
    [](const auto &info) { return std::string(info.param.name); });

class CapabilityPresenceTest : public PluginTest {};

TEST_F(CapabilityPresenceTest, MissingCapabilityIsRefused)
{
    EXPECT_EQ(CheckCameraAbility(nullptr), -13);
    EXPECT_TRUE(HasLog(1, "capabilities is nullptr")) << DumpLogs();
}

// ---------------------------------------------------------------------------
// Identifiers

class ServiceIdTest : public PluginTest {
protected:
    void SetUp() override
    {
        PluginTest::SetUp();
        std::memset(&record_, 0, sizeof(record_));
    }
    KxCameraService record_;
};

TEST_F(ServiceIdTest, VendorIdThatDoesNotFitItsBufferIsACopyFailure)
{
    const std::string id(kServiceIdSize, 'a');
    EXPECT_EQ(InitCameraServiceId(id.c_str(), &record_), -1000);
    EXPECT_EQ(LogsWithFormat("init camera service id copy failed, error %d").size(), 1u) << DumpLogs();
}

TEST_F(ServiceIdTest, ServiceIdThatDoesNotFitIsAFormatFailure)
{
    const std::string id(kServiceIdSize - 7, 'a'); // fits vendorId, not "Camera_" + id
    EXPECT_EQ(InitCameraServiceId(id.c_str(), &record_), -1);
    EXPECT_TRUE(HasLog(1, "init anony camera id string failed, error -1")) << DumpLogs();
}

// ---------------------------------------------------------------------------
// Enumeration and registration, against the fake camera library

class RegistryTest : public PluginTest {
protected:
    void SetUp() override
    {
        PluginTest::SetUp();
        camera_ = FakeCamera();
        ASSERT_NE(camera_, nullptr);
        camera_->Reset();
        SetVendorPath({kFakeCameraDir});
        ASSERT_EQ(CameraInit(), 0) << DumpLogs();
        g_cameraModule.serviceCb = RecordingCallbacks();
        TalvoTestLogClear();
    }
    void TearDown() override
    {
        PluginTest::TearDown();
        camera_->Reset();
        SetVendorPath({});
    }

    void Script(std::vector<KxCameraCapability> &items)
    {
        camera_->capability.items = items.data();
        camera_->capability.num = static_cast<uint32_t>(items.size());
    }

    std::vector<std::string> VendorIds()
    {
        std::vector<std::string> ids;
        for (const KxCameraService *record : RegisteredServices()) {
            ids.emplace_back(record->vendorId);
        }
        return ids;
    }

    FakeCameraControl *camera_ = nullptr;
};

TEST_F(RegistryTest, EachCameraGetsAZeroedRecordWithIdentifiersAndAbilityText)
{
    CapabilityDraft first(kId64);
    first.Ability(1, {{15, 30}}, {{1280, 720}}).Extend("position", "back");
    CapabilityDraft second("1");
    second.Ability(4, {{30, 30}}, {{640, 480}});
    auto items = CapabilityArray({&first, &second});
    Script(items);

    ASSERT_EQ(GetCameraService(), 0);
    const auto records = RegisteredServices();
    ASSERT_EQ(records.size(), 2u);
    EXPECT_EQ(g_cameraModule.serviceList.count, 2u);
    for (size_t i = 0; i < records.size(); ++i) {
        const KxCameraService &record = *records[i];
        const KxCameraCapability &capability = items[i];
        SCOPED_TRACE(capability.id);
        EXPECT_EQ(std::string(record.serviceId), std::string("Camera_") + capability.id);
        EXPECT_EQ(record.serviceIdLen, std::strlen(record.serviceId));
        char anony[kServiceIdSize] = {};
        ASSERT_EQ(TALVOAnonyString(record.serviceId, anony, sizeof(anony)), 0);
        EXPECT_EQ(std::string(record.anonyServiceId), anony);
        EXPECT_TRUE(HasLog(4, "camera id: " + std::string(anony) + " " + record.serviceId)) << DumpLogs();
        EXPECT_EQ(std::string(record.vendorId), capability.id);
        EXPECT_EQ(record.vendorIdLen, capability.idLen);
        EXPECT_EQ(record.serviceType, 1u);
        EXPECT_EQ(record.vencHandler, &g_cameraModule.vencHandler);
        int32_t status = 0;
        EXPECT_EQ(std::string(record.abilityText), AbilityText(capability, kAbilityTextSize, &status));
        // Fields later subsystems own start out zero.
        KxCameraService zero{};
        EXPECT_EQ(std::memcmp(&record.negParams, &zero.negParams, sizeof(zero.negParams)), 0);
        EXPECT_EQ(record.vencRunning, 0);
        EXPECT_EQ(record.vencHandle, nullptr);
        EXPECT_EQ(record.cmdCb, nullptr);
        EXPECT_EQ(record.cmdCbUserData, nullptr);
        EXPECT_EQ(record.isOpened, 0);
        EXPECT_EQ(std::memcmp(&record.workMode, &zero.workMode, sizeof(zero.workMode)), 0);
        EXPECT_TRUE(HasLog(4, "add to service " + std::string(record.anonyServiceId) + " to camera list success"));
    }
    EXPECT_EQ(records[0]->serviceIdLen, 71u);
    EXPECT_TRUE(HasLog(4, "GetCameraCapability and build ability string success")) << DumpLogs();
    const auto releases = camera_->CallsTo("ReleaseCameraCapability");
    ASSERT_EQ(releases.size(), 1u);
    EXPECT_EQ(releases[0].kind, 1u);
    EXPECT_EQ(releases[0].items, items.data());
    EXPECT_EQ(releases[0].num, 2u);
}

TEST_F(RegistryTest, EveryRegisteredCameraIsAnnouncedWithItsInfoAndOps)
{
    CapabilityDraft first("0");
    first.Ability(1, {{30, 30}}, {{640, 480}});
    CapabilityDraft second("1");
    second.Ability(17, {{30, 30}}, {{640, 480}});
    auto items = CapabilityArray({&first, &second});
    Script(items);

    ASSERT_EQ(GetCameraService(), 0);
    const auto records = RegisteredServices();
    const auto &announced = AnnouncedServices();
    ASSERT_EQ(announced.size(), 2u);
    for (size_t i = 0; i < announced.size(); ++i) {
        EXPECT_EQ(announced[i].idPointer, records[i]->serviceId) << "the record's own text, valid until release";
        EXPECT_EQ(announced[i].id, std::string("Camera_") + items[i].id);
        EXPECT_EQ(announced[i].idLen, 8u);
        EXPECT_EQ(announced[i].serviceType, 1u);
        EXPECT_EQ(announced[i].ops.getCommand, &TALVOCameraGetCommand);
        EXPECT_EQ(announced[i].ops.setCommand, &TALVOCameraSetCommand);
        EXPECT_EQ(announced[i].ops.setCmdCb, &TALVOCameraSetCmdCb);
        EXPECT_EQ(announced[i].ops.getCmdCb, &TALVOCameraGetCmdCb);
    }
}

TEST_F(RegistryTest, ZeroCamerasWithNullArrayStillReleases)
{
    camera_->capability.items = nullptr;
    camera_->capability.num = 0;
    EXPECT_EQ(GetCameraService(), 0);
    EXPECT_TRUE(RegisteredServices().empty());
    EXPECT_EQ(g_cameraModule.serviceList.count, 0u);
    const auto releases = camera_->CallsTo("ReleaseCameraCapability");
    ASSERT_EQ(releases.size(), 1u);
    EXPECT_EQ(releases[0].items, nullptr);
    EXPECT_EQ(releases[0].num, 0u);
    EXPECT_TRUE(AnnouncedServices().empty());
}

TEST_F(RegistryTest, CountWithNullArrayIsRefusedWithoutRelease)
{
    camera_->capability.items = nullptr;
    camera_->capability.num = 3;
    EXPECT_EQ(GetCameraService(), -13);
    EXPECT_TRUE(RegisteredServices().empty());
    EXPECT_TRUE(camera_->CallsTo("ReleaseCameraCapability").empty());
    EXPECT_EQ(LogsWithFormat("GetCameraCapability failed num %d abilityItems %p").size(), 1u) << DumpLogs();
}

TEST_F(RegistryTest, VendorFailureLeavesAnEmptyRegistryAndSucceeds)
{
    camera_->capability.status = -7;
    EXPECT_EQ(GetCameraService(), 0);
    EXPECT_TRUE(RegisteredServices().empty());
    EXPECT_EQ(g_cameraModule.serviceList.count, 0u);
    EXPECT_TRUE(camera_->CallsTo("ReleaseCameraCapability").empty());
    EXPECT_TRUE(HasLog(1, "GetCameraCapability ret=-7")) << DumpLogs();
    EXPECT_TRUE(LogsWithFormat("GetCameraCapability and build ability string success").empty());
}

TEST_F(RegistryTest, MissingCapabilityEntryIsRefused)
{
    g_cameraModule.cameraHandler.GetCameraCapability = nullptr;
    EXPECT_EQ(GetCameraService(), -13);
    EXPECT_TRUE(HasLog(1, "camera handler for GetCameraCapability is NULL")) << DumpLogs();
}

TEST_F(RegistryTest, BadCamerasAreSkippedAndTheOthersRegister)
{
    CapabilityDraft good0("good0");
    good0.Ability(1, {{30, 30}}, {{640, 480}});
    CapabilityDraft tooLong(kId65);
    tooLong.Ability(1, {{30, 30}}, {{640, 480}});
    CapabilityDraft laterEntryBroken("broken");
    laterEntryBroken.Ability(1, {{30, 30}}, {{640, 480}}).Ability(17, {{30, 30}}, {{640, 480}});
    laterEntryBroken.Abilities()[1].supportSizes = nullptr;
    CapabilityDraft tooManySizes("fat");
    tooManySizes.Ability(1, {{30, 30}}, std::vector<KxPictureSize>(50, KxPictureSize{1920, 1080}));
    CapabilityDraft good1("good1");
    good1.Ability(17, {{30, 30}}, {{640, 480}});
    auto items = CapabilityArray({&good0, &tooLong, &laterEntryBroken, &tooManySizes, &good1});
    Script(items);

    EXPECT_EQ(GetCameraService(), 0);
    EXPECT_EQ(VendorIds(), (std::vector<std::string>{"good0", "good1"}));
    EXPECT_EQ(g_cameraModule.serviceList.count, 2u);
    EXPECT_EQ(AnnouncedServices().size(), 2u);
    EXPECT_EQ(LogsWithFormat("add camera service failed, create service failed").size(), 3u) << DumpLogs();
    EXPECT_TRUE(HasLog(2, "convert camera ability to string failed ")) << DumpLogs();
    // Two blocks per registered camera, nothing of the skipped ones.
    EXPECT_EQ(TalvoTestOutstandingAllocs() - allocBaseline_, 4);
}

TEST_F(RegistryTest, DuplicateIdsAreBothRegisteredAndLookupsFindTheFirst)
{
    CapabilityDraft first("dup");
    first.Ability(1, {{30, 30}}, {{640, 480}});
    CapabilityDraft second("dup");
    second.Ability(17, {{15, 15}}, {{320, 240}});
    auto items = CapabilityArray({&first, &second});
    Script(items);

    ASSERT_EQ(GetCameraService(), 0);
    const auto records = RegisteredServices();
    ASSERT_EQ(records.size(), 2u);
    EXPECT_EQ(GetCameraHandlerById("Camera_dup", 10), records[0]);
    EXPECT_EQ(GetCameraHandlerByVendorId("dup", 3), records[0]);
    EXPECT_NE(std::string(records[1]->abilityText).find("frameAbility"), std::string::npos);
}

TEST_F(RegistryTest, LookupsMatchWholeTextsOnly)
{
    CapabilityDraft a("front");
    a.Ability(1, {{30, 30}}, {{640, 480}});
    CapabilityDraft b("back");
    b.Ability(1, {{30, 30}}, {{640, 480}});
    auto items = CapabilityArray({&a, &b});
    Script(items);
    ASSERT_EQ(GetCameraService(), 0);
    const auto records = RegisteredServices();
    ASSERT_EQ(records.size(), 2u);

    EXPECT_EQ(GetCameraHandlerById("Camera_back", 0), records[1]) << "the length argument is not used";
    EXPECT_EQ(GetCameraHandlerById("Camera_bac", 11), nullptr);
    EXPECT_EQ(GetCameraHandlerById("back", 4), nullptr) << "a vendor id is not a service id";
    EXPECT_EQ(GetCameraHandlerByVendorId("back", 0), records[1]);
    EXPECT_EQ(GetCameraHandlerByVendorId("Camera_back", 11), nullptr);
}

TEST_F(RegistryTest, UnknownVendorIdIsLoggedMasked)
{
    const char unknown[] = "secret-camera-id";
    TalvoTestLogClear();
    EXPECT_EQ(GetCameraHandlerByVendorId(unknown, sizeof(unknown) - 1), nullptr);
    char anony[kServiceIdSize] = {};
    ASSERT_EQ(TALVOAnonyString(unknown, anony, sizeof(anony)), 0);
    EXPECT_TRUE(HasLog(1, "can not find camera vendor id " + std::string(anony) + " in service list")) << DumpLogs();
    for (const auto &line : CapturedLogs()) {
        EXPECT_EQ(line.text.find(unknown), std::string::npos) << line.text;
    }
}

TEST_F(RegistryTest, LookupByIdOnEmptyRegistryIsSilentAndNullIdIsReported)
{
    EXPECT_EQ(GetCameraHandlerById("Camera_0", 8), nullptr);
    EXPECT_TRUE(CapturedLogs().empty()) << DumpLogs();
    EXPECT_EQ(GetCameraHandlerById(nullptr, 0), nullptr);
    EXPECT_TRUE(HasLog(1, "get camera service by id, id is nullptr")) << DumpLogs();
}

// Each of the two blocks of a camera's registration failing in turn, with
// two cameras: exactly the camera being registered is skipped.
class RegistryAllocationTest : public RegistryTest, public ::testing::WithParamInterface<uint32_t> {};

TEST_P(RegistryAllocationTest, FailedBlockSkipsThatCameraWithoutLeaking)
{
    const uint32_t nth = GetParam();
    CapabilityDraft first("0");
    first.Ability(1, {{30, 30}}, {{640, 480}});
    CapabilityDraft second("1");
    second.Ability(17, {{30, 30}}, {{640, 480}});
    auto items = CapabilityArray({&first, &second});
    Script(items);

    const uint64_t mallocsBefore = TalvoTestCallCount(TALVO_FN_MALLOC);
    TalvoTestFailNth(TALVO_FN_MALLOC, nth);
    EXPECT_EQ(GetCameraService(), 0);
    // The failed call counts; the skipped camera takes no second block.
    const uint64_t expectedCalls = nth % 2 == 1 ? 3 : 4;
    EXPECT_EQ(TalvoTestCallCount(TALVO_FN_MALLOC) - mallocsBefore, expectedCalls);
    const std::string survivor = nth <= 2 ? "1" : "0";
    EXPECT_EQ(VendorIds(), std::vector<std::string>{survivor});
    EXPECT_EQ(AnnouncedServices().size(), 1u);
    EXPECT_EQ(LogsWithFormat("malloc for camera service failed").size(), 1u) << DumpLogs();
    EXPECT_EQ(LogsWithFormat("add camera service failed, create service failed").size(), 1u) << DumpLogs();
    EXPECT_EQ(TalvoTestOutstandingAllocs() - allocBaseline_, 2);
}

INSTANTIATE_TEST_SUITE_P(NthBlock, RegistryAllocationTest, ::testing::Values(1u, 2u, 3u, 4u));

TEST_F(RegistryTest, RecordAddedToANeverLinkedListStartsIt)
{
    CapabilityDraft only("solo");
    only.Ability(1, {{30, 30}}, {{640, 480}});
    std::memset(&g_cameraModule.serviceList, 0, sizeof(g_cameraModule.serviceList));
    KxCameraService *record = AddServiceToCameraList(&only.Record());
    ASSERT_NE(record, nullptr) << DumpLogs();
    EXPECT_EQ(RegisteredServices(), std::vector<const KxCameraService *>{record});
    EXPECT_EQ(GetCameraHandlerById("Camera_solo", 11), record);
}

} // namespace
} // namespace kxtest
