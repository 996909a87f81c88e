// SPDX-License-Identifier: Apache-2.0
// The entry point, its table, the version query and the global callback.
#include "kxcamera/plugin.h"

#include <cstring>

#include "support.h"

namespace kxtest {
namespace {

class EntryTest : public PluginTest {};

TEST_F(EntryTest, TableHoldsTheEntryPointsInSlotOrderAndSlotEightEmpty)
{
    KxServiceHandler table;
    std::memset(&table, 0xA5, sizeof(table)); // every slot must be written
    ASSERT_EQ(TALVOGetCameraServiceHandler(&table), 0);
    EXPECT_EQ(table.getVersion, &TALVOCameraGetVersion);
    EXPECT_EQ(table.getCommand, &TALVOCameraGetCommand);
    EXPECT_EQ(table.setGlbCmdCb, &TALVOCameraSetGlbCmdCb);
    EXPECT_EQ(table.reserved8, nullptr);
    // Filling twice gives the same table and touches no module state.
    KxServiceHandler again{};
    ASSERT_EQ(TALVOGetCameraServiceHandler(&again), 0);
    EXPECT_EQ(std::memcmp(&table, &again, sizeof(table)), 0);
    EXPECT_EQ(g_cameraModule.inited, 0);
}

TEST_F(EntryTest, VersionIsMajorOneBeforeAnyLoad)
{
    uint64_t version = 0;
    ASSERT_EQ(TALVOCameraGetVersion(&version), 0);
    EXPECT_EQ(version, 0x0001000000000000ULL);
    EXPECT_EQ(version >> 48, KX_CAMREA_VRESION_MAJOR);
    auto lines = LogsWithFormat("get camera version: 0x%0x");
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].level, 4);
    EXPECT_EQ(lines[0].func, "TALVOCameraGetVersion");
}

TEST_F(EntryTest, VersionRefusesNullWithoutWriting)
{
    EXPECT_EQ(TALVOCameraGetVersion(nullptr), -13);
    EXPECT_TRUE(HasLog(1, "get camera lib version failed, input version is NULL")) << DumpLogs();
}

TEST_F(EntryTest, GetCommandIgnoresItsArgumentsSilently)
{
    KxCommand command{};
    command.code = 0xFFFFFFFFu;
    EXPECT_EQ(TALVOCameraGetCommand(nullptr, nullptr), 0);
    EXPECT_EQ(TALVOCameraGetCommand(nullptr, &command), 0);
    EXPECT_EQ(command.output, nullptr);
    EXPECT_TRUE(CapturedLogs().empty());
}

int32_t FirstGlobalCallback(const KxCommand *) { return 1; }
int32_t SecondGlobalCallback(const KxCommand *) { return 2; }

TEST_F(EntryTest, GlobalCallbackRefusedBeforeLoadAndLeftEmpty)
{
    EXPECT_EQ(TALVOCameraSetGlbCmdCb(nullptr, FirstGlobalCallback), -4);
    EXPECT_EQ(g_cameraModule.glbCmdCb, nullptr);
    EXPECT_TRUE(HasLog(1, "camera module is not init, please init first")) << DumpLogs();
}

TEST_F(EntryTest, GlobalCallbackStoredUnderTheLockAndReplaced)
{
    ASSERT_EQ(TALVOMutexInit(&g_cameraModule.lock), 0);
    g_cameraModule.inited = 1;
    const uint64_t locksBefore = TalvoTestCallCount(TALVO_FN_MUTEX_LOCK);
    EXPECT_EQ(TALVOCameraSetGlbCmdCb(nullptr, FirstGlobalCallback), 0);
    EXPECT_EQ(g_cameraModule.glbCmdCb, &FirstGlobalCallback);
    EXPECT_EQ(TALVOCameraSetGlbCmdCb(reinterpret_cast<void *>(0x1), SecondGlobalCallback), 0);
    EXPECT_EQ(g_cameraModule.glbCmdCb, &SecondGlobalCallback);
    EXPECT_EQ(TalvoTestCallCount(TALVO_FN_MUTEX_LOCK) - locksBefore, 2u);
    EXPECT_EQ(LogsWithFormat("TALVOcameraSetGlbCmdCb success").size(), 2u);
    // A null callback is stored too, and the lock was released each time.
    EXPECT_EQ(TALVOCameraSetGlbCmdCb(nullptr, nullptr), 0);
    EXPECT_EQ(g_cameraModule.glbCmdCb, nullptr);
    ASSERT_EQ(TALVOMutexLock(&g_cameraModule.lock), 0);
    ASSERT_EQ(TALVOMutexUnlock(&g_cameraModule.lock), 0);
    EXPECT_EQ(TALVOMutexDestroy(&g_cameraModule.lock), 0);
}

TEST_F(EntryTest, ExportedConstantsHoldTheirValues)
{
    const std::pair<int32_t, int32_t> constants[] = {
        {DEFAULT_FPS, 30},           {DEFAULT_FRAME_RATE, 30},        {MAX_FRAME_RATE, 120},
        {DEFAULT_I_INTERVAL, 60},    {VENC_SLEEP_MS, 3},              {MAX_VIDEO_DATA_LENGTH, 52428800},
        {MAX_CAMERA_ABILITY_COUNT, 10}, {BITS_PER_PIXEL_12, 12},      {BITS_PER_PIXEL_16, 16},
        {BITS_PER_PIXEL_24, 24},     {BIT_PER_BYTE, 8},               {MODULE_DEVICE, 3},
        {DEVICE_SERVICE_TYPE_CAMERA, 1}, {CAMEAR_MODULE, 6},          {CAMERA_INT_STRING_LEN, 16},
        {CAMERA_STATE_FACING, 1},    {CAMERA_STATE_DEGREE, 2},        {CAMERA_WD_CRYPTO_VERSION, 1},
        {CAMREA_WD_CRYPTO_ABILITY, 1}, {CAMERA_WD_CRYPTO_ALG, 1},
    };
    for (const auto &[actual, expected] : constants) {
        EXPECT_EQ(actual, expected);
    }
    EXPECT_EQ(KX_CAMREA_VRESION_MAJOR, 1);
    EXPECT_EQ(KX_CAMREA_VRESION_SUB, 0);
    EXPECT_EQ(KX_CAMREA_VRESION_PATCH, 0);
    EXPECT_EQ(KX_CAMREA_VRESION_BETA, 0);
}

} // namespace
} // namespace kxtest
