// SPDX-License-Identifier: Apache-2.0
// Loading of the camera handler and video encoder libraries.
#include "frame/frame.h"

#include <string>

#include "fake_access.h"
#include "support.h"

namespace kxtest {
namespace {

constexpr char kDlopenFormat[] = "%s dlopen failed, err msg %s";

class CameraLibraryTest : public PluginTest {};

TEST_F(CameraLibraryTest, CompleteLibraryLoadsAndFillsTheTable)
{
    ASSERT_EQ(CameraInit(), 0) << DumpLogs();
    EXPECT_NE(g_cameraModule.cameraLibHandle, nullptr);
    EXPECT_NE(g_cameraModule.cameraHandler.OpenCamera, nullptr);
    EXPECT_NE(g_cameraModule.cameraHandler.BusinessControl, nullptr);
    EXPECT_EQ(FakeCamera()->CallsTo("TALVOGetCameraHandler").size(), 1u);
    EXPECT_TRUE(CapturedLogs().empty()) << DumpLogs();
}

TEST_F(CameraLibraryTest, MissingLibraryIsReportedWithTheLoaderText)
{
    SetVendorPath({kFakeEmptyDir});
    EXPECT_EQ(CameraInit(), -13);
    EXPECT_EQ(g_cameraModule.cameraLibHandle, nullptr);
    auto lines = LogsWithFormat(kDlopenFormat);
    ASSERT_EQ(lines.size(), 1u) << DumpLogs();
    EXPECT_EQ(lines[0].level, 1);
    const std::string prefix = "libtalvocamerahandler.so dlopen failed, err msg ";
    EXPECT_EQ(lines[0].text.rfind(prefix, 0), 0u) << lines[0].text;
    EXPECT_GT(lines[0].text.size(), prefix.size()) << "the loader's reason is part of the message";
}

TEST_F(CameraLibraryTest, LoaderFailureIsReportedAsMissingLibrary)
{
    TalvoTestFailNth(TALVO_FN_DLOPEN, 1);
    EXPECT_EQ(CameraInit(), -13);
    EXPECT_EQ(g_cameraModule.cameraLibHandle, nullptr);
    EXPECT_EQ(LogsWithFormat(kDlopenFormat).size(), 1u);
}

struct RefusedCamera {
    const char *name;
    const char *dir;
    int32_t getterResult;
    int32_t failSymbolLookup;
};

class CameraLibraryRefusedTest : public CameraLibraryTest, public ::testing::WithParamInterface<RefusedCamera> {};

TEST_P(CameraLibraryRefusedTest, LibraryIsClosedAgainAndLoadFails)
{
    const RefusedCamera &param = GetParam();
    SetVendorPath({param.dir});
    FakeCamera()->getterResult = param.getterResult;
    if (param.failSymbolLookup != 0) {
        TalvoTestFailNth(TALVO_FN_DLSYM, 1);
    }
    EXPECT_EQ(CameraInit(), -13);
    EXPECT_EQ(g_cameraModule.cameraLibHandle, nullptr);
    EXPECT_TRUE(HasLog(1, "get CameraModuelApi failed, error code")) << DumpLogs();
}

INSTANTIATE_TEST_SUITE_P(Cases, CameraLibraryRefusedTest,
                         ::testing::Values(RefusedCamera{"NoGetterSymbol", kFakeCameraNoGetterDir, 0, 0},
                                           RefusedCamera{"SymbolLookupFails", kFakeCameraDir, 0, 1},
                                           RefusedCamera{"GetterFails", kFakeCameraDir, -7, 0}),
                         [](const auto &info) { return std::string(info.param.name); });

class CameraSlotTest : public CameraLibraryTest, public ::testing::WithParamInterface<uint32_t> {};

TEST_P(CameraSlotTest, OnlySlotFiveMayBeEmpty)
{
    const uint32_t slot = GetParam();
    FakeCamera()->nullSlots = 1u << slot;
    if (slot == kCamReserved5) {
        EXPECT_EQ(CameraInit(), 0);
        EXPECT_NE(g_cameraModule.cameraLibHandle, nullptr);
        EXPECT_EQ(g_cameraModule.cameraHandler.Reserved5, nullptr);
    } else {
        EXPECT_EQ(CameraInit(), -13);
        EXPECT_EQ(g_cameraModule.cameraLibHandle, nullptr);
        EXPECT_TRUE(HasLog(1, "get CameraModuelApi failed, error code")) << DumpLogs();
    }
}

INSTANTIATE_TEST_SUITE_P(Slots, CameraSlotTest, ::testing::Range(0u, static_cast<uint32_t>(kCamSlotCount)));

class EncoderLibraryTest : public PluginTest {};

TEST_F(EncoderLibraryTest, AbilitiesAreQueriedWithCapacityTwoAndModuleMarkedInitialised)
{
    FakeEncoderControl &encoder = *FakeEncoder();
    encoder.ability.items[1] = encoder.ability.items[0];
    encoder.ability.items[1].codecType = 1;
    encoder.ability.items[1].cspTypeMask = 6;
    encoder.ability.num = 2;
    ASSERT_EQ(CameraVEncInit(), 0) << DumpLogs();
    EXPECT_NE(g_cameraModule.vencLibHandle, nullptr);
    EXPECT_EQ(g_cameraModule.inited, 1);
    EXPECT_EQ(g_cameraModule.vencAbilityNum, 2u);
    EXPECT_EQ(g_cameraModule.vencAbility[0].maxEncWidth, 4096);
    EXPECT_EQ(g_cameraModule.vencAbility[1].codecType, 1);
    EXPECT_EQ(g_cameraModule.vencAbility[1].cspTypeMask, 6);
    auto queries = encoder.CallsTo("VideoEncoderGetAbility");
    ASSERT_EQ(queries.size(), 1u);
    EXPECT_EQ(queries[0].capacity, 2u);
    EXPECT_TRUE(HasLog(3, "get vendor video encoder ability count 2")) << DumpLogs();
}

TEST_F(EncoderLibraryTest, ZeroAbilitiesStillInitialise)
{
    FakeEncoder()->ability.num = 0;
    ASSERT_EQ(CameraVEncInit(), 0);
    EXPECT_EQ(g_cameraModule.vencAbilityNum, 0u);
    EXPECT_EQ(g_cameraModule.inited, 1);
}

TEST_F(EncoderLibraryTest, FailedAbilityQueryIsReportedAndLoadGoesOn)
{
    FakeEncoder()->ability.status = -3;
    ASSERT_EQ(CameraVEncInit(), 0);
    EXPECT_TRUE(HasLog(1, "get vendor video encoder ability failed, error code -3")) << DumpLogs();
    EXPECT_EQ(g_cameraModule.inited, 1);
    EXPECT_NE(g_cameraModule.vencLibHandle, nullptr);
}

TEST_F(EncoderLibraryTest, MissingLibraryMeansNoEncoderButNoFailure)
{
    SetVendorPath({kFakeEmptyDir});
    g_cameraModule.vencAbilityNum = 2; // left over from an earlier load
    EXPECT_EQ(CameraVEncInit(), 0);
    EXPECT_EQ(g_cameraModule.vencLibHandle, nullptr);
    EXPECT_EQ(g_cameraModule.vencAbilityNum, 0u);
    EXPECT_EQ(g_cameraModule.inited, 0);
    auto lines = LogsWithFormat(kDlopenFormat);
    ASSERT_EQ(lines.size(), 1u) << DumpLogs();
    EXPECT_EQ(lines[0].text.rfind("libtalvovideoencoder.so dlopen failed, err msg ", 0), 0u);
}

TEST_F(EncoderLibraryTest, MissingGetterMeansNoEncoderButNoFailure)
{
    SetVendorPath({kFakeEncoderNoGetterDir});
    EXPECT_EQ(CameraVEncInit(), 0);
    EXPECT_EQ(g_cameraModule.vencLibHandle, nullptr);
    EXPECT_EQ(g_cameraModule.vencAbilityNum, 0u);
    EXPECT_EQ(g_cameraModule.inited, 0);
    EXPECT_TRUE(HasLog(1, "get AduioModuelApi failed, error code")) << DumpLogs();
}

TEST_F(EncoderLibraryTest, RefusingGetterFailsWithItsOwnCode)
{
    FakeEncoder()->getterResult = -1;
    EXPECT_EQ(CameraVEncInit(), -2000);
    EXPECT_EQ(g_cameraModule.vencLibHandle, nullptr);
    EXPECT_EQ(g_cameraModule.vencAbilityNum, 0u);
    EXPECT_EQ(g_cameraModule.inited, 0);
    EXPECT_TRUE(HasLog(1, "get TALVOGetVideoEncoderHandler failed, error code")) << DumpLogs();
    // What the getter wrote stays in place.
    EXPECT_NE(g_cameraModule.vencHandler.VideoEncoderCreate, nullptr);
}

class EncoderSlotTest : public EncoderLibraryTest, public ::testing::WithParamInterface<uint32_t> {};

TEST_P(EncoderSlotTest, EverySlotIsRequired)
{
    FakeEncoder()->nullSlots = 1u << GetParam();
    EXPECT_EQ(CameraVEncInit(), -2000);
    EXPECT_EQ(g_cameraModule.vencLibHandle, nullptr);
    EXPECT_EQ(g_cameraModule.inited, 0);
    EXPECT_TRUE(FakeEncoder()->CallsTo("VideoEncoderGetAbility").empty());
}

INSTANTIATE_TEST_SUITE_P(Slots, EncoderSlotTest, ::testing::Range(0u, static_cast<uint32_t>(kEncSlotCount)));

} // namespace
} // namespace kxtest
