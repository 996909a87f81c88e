// SPDX-License-Identifier: Apache-2.0
// Command dispatch and the ability and work-mode queries.
#include "command/command.h"

#include <cstring>
#include <string>

#include "camera_support.h"

namespace kxtest {
namespace {

using Texts = std::vector<std::string>;

class DispatchTest : public CameraModuleTest {
protected:
    void SetUp() override
    {
        CameraModuleTest::SetUp();
        camera_ = AddCamera("0");
        ASSERT_NE(camera_, nullptr);
        index_ = DescriptorOf(camera_);
    }
    int32_t Send(KxCommand &command) { return TALVOCameraSetCommand(&index_, &command); }

    KxCameraService *camera_ = nullptr;
    KxServiceIdDesc index_{};
};

enum class Fault { kNone, kNullIndex, kNullCommand, kNotLoadedNullId, kNullId, kLockFails, kOtherCamera };

struct Refusal {
    const char *name;
    Fault fault;
    uint32_t code;
    int32_t result;
    const char *error;
    bool locks;
};

void PrintTo(const Refusal &r, std::ostream *out) { *out << r.name; }

class CommandRefusalTest : public DispatchTest, public ::testing::WithParamInterface<Refusal> {};

TEST_P(CommandRefusalTest, RefusesInOrderAndGivesTheLockBack)
{
    const Refusal &r = GetParam();
    KxServiceIdDesc noId{nullptr, 8, 1};
    KxServiceIdDesc other{"Camera_9", 8, 1};
    const KxServiceIdDesc *index = &index_;
    KxCommand command{};
    command.code = r.code;
    KxCommand *target = &command;
    switch (r.fault) {
        case Fault::kNullIndex:
            index = nullptr;
            g_cameraModule.inited = 0; // the argument check comes first
            break;
        case Fault::kNullCommand:
            target = nullptr;
            g_cameraModule.inited = 0;
            break;
        case Fault::kNotLoadedNullId:
            index = &noId;
            g_cameraModule.inited = 0;
            break;
        case Fault::kNullId:
            index = &noId;
            break;
        case Fault::kLockFails:
            TalvoTestFailNth(TALVO_FN_MUTEX_LOCK, 1);
            break;
        case Fault::kOtherCamera:
            index = &other;
            break;
        case Fault::kNone:
            break;
    }
    EXPECT_EQ(TALVOCameraSetCommand(index, target), r.result);
    EXPECT_EQ(TextsAtLevel(1), Texts{r.error}) << DumpLogs();
    EXPECT_EQ(command.output, nullptr);
    EXPECT_EQ(TalvoTestCallCount(TALVO_FN_MUTEX_LOCK), r.locks ? 1u : 0u);
    EXPECT_EQ(TalvoTestCallCount(TALVO_FN_MUTEX_UNLOCK), r.locks && r.fault != Fault::kLockFails ? 1u : 0u);

    // Nothing is left held: the next command goes through.
    g_cameraModule.inited = 1;
    KxCommand probe{};
    probe.code = 8;
    EXPECT_EQ(Send(probe), 0) << DumpLogs();
}

INSTANTIATE_TEST_SUITE_P(
    Cases, CommandRefusalTest,
    ::testing::Values(
        Refusal{"NullIndex", Fault::kNullIndex, 0, -1000, "camera set cmd params is null", false},
        Refusal{"NullCommand", Fault::kNullCommand, 0, -1000, "camera set cmd params is null", false},
        Refusal{"NotLoaded", Fault::kNotLoadedNullId, 0, -1000, "camera module is not init, please init first", false},
        Refusal{"NullId", Fault::kNullId, 0, -13, "camera service set command params: is is nullptr", false},
        Refusal{"LockFails", Fault::kLockFails, 0, -99, "lock camera module failed ,error code -99", true},
        // The camera is looked up before the code is examined.
        Refusal{"UnknownCamera", Fault::kOtherCamera, 8, -5, "do get camera ability failed", true},
        Refusal{"UnknownCameraAndCode", Fault::kOtherCamera, 0xFFFFFFFFu, -5, "do get camera ability failed", true},
        Refusal{"Code1", Fault::kNone, 1, -5, "unknown camera set cmd type 1", true},
        Refusal{"Code5", Fault::kNone, 5, -5, "unknown camera set cmd type 5", true},
        Refusal{"Code6", Fault::kNone, 6, -5, "unknown camera set cmd type 6", true},
        Refusal{"Code11", Fault::kNone, 11, -5, "unknown camera set cmd type 11", true},
        Refusal{"AllBitsSet", Fault::kNone, 0xFFFFFFFFu, -5, "unknown camera set cmd type -1", true},
        // Codes 4 and 10 reach their handlers, which refuse what this module
        // lacks (open and close are driven through the vendor in their own suite).
        Refusal{"SetParamsWithoutInput", Fault::kNone, 4, -13, "camera service set command params: input is nullptr",
                true},
        Refusal{"KeyFrameWithoutVendor", Fault::kNone, 10, -13, "camera south interface business control is null",
                true}),
    [](const auto &info) { return std::string(info.param.name); });

TEST_F(DispatchTest, ParameterCheckRefusesMissingPointers)
{
    KxCommand command{};
    EXPECT_EQ(CameraCheckSetCommandPrams(&index_, nullptr), -13);
    EXPECT_EQ(CameraCheckSetCommandPrams(nullptr, &command), -13);
    EXPECT_EQ(LogsWithFormat("camera service set command params: index %p command %p invalid").size(), 2u);
    EXPECT_EQ(CameraCheckSetCommandPrams(&index_, &command), 0);
}

TEST_F(DispatchTest, CodesEightAndNineAreAcceptedAndChangeNothing)
{
    for (uint32_t code : {8u, 9u}) {
        TalvoTestLogClear();
        int marker = 0;
        KxCommand command{};
        command.code = code;
        command.input = &marker;
        command.inputLen = 3;
        const KxCommand before = command;
        EXPECT_EQ(Send(command), 0);
        EXPECT_EQ(std::memcmp(&command, &before, sizeof(command)), 0);
        const std::string line = std::string("do camera service id ") + camera_->anonyServiceId + " operation cmd " +
                                 std::to_string(code);
        EXPECT_EQ(TextsAtLevel(3), Texts{line});
        EXPECT_EQ(CapturedLogs().size(), 1u) << DumpLogs();
    }
}

TEST_F(DispatchTest, AbilityQueryAnswersTheRecordsOwnBlock)
{
    std::snprintf(camera_->abilityText, sizeof(camera_->abilityText), "%s", "{\"k\":1}");
    int marker = 0;
    for (int round = 0; round < 2; ++round) {
        KxCommand command{};
        command.input = &marker;
        command.inputLen = 7;
        ASSERT_EQ(Send(command), 0) << DumpLogs();
        EXPECT_EQ(command.output, &camera_->abilityInfo);
        EXPECT_EQ(command.outputLen, 152u);
        EXPECT_EQ(command.input, &marker);
        EXPECT_EQ(command.inputLen, 7u);
    }
    const auto *block = reinterpret_cast<const uint8_t *>(&camera_->abilityInfo);
    const char *ability = nullptr;
    uint32_t param = 0;
    std::memcpy(&ability, block + 136, sizeof(ability));
    std::memcpy(&param, block + 144, sizeof(param));
    EXPECT_EQ(ability, camera_->abilityText);
    EXPECT_EQ(param, 2014u);
    const std::string line = std::string("get camera id ") + camera_->anonyServiceId + " ability success";
    EXPECT_EQ(TextsAtLevel(4), (Texts{line, line}));
}

struct WorkModeCase {
    uint32_t vencAbilityNum;
    uint8_t isSupportVenc;
};

void PrintTo(const WorkModeCase &c, std::ostream *out) { *out << "vencAbilityNum " << c.vencAbilityNum; }

class WorkModeTest : public DispatchTest, public ::testing::WithParamInterface<WorkModeCase> {};

TEST_P(WorkModeTest, AnswersTheFixedModeAndEncoderSupport)
{
    g_cameraModule.vencAbilityNum = GetParam().vencAbilityNum;
    int marker = 0;
    KxCommand command{};
    command.code = 7;
    command.input = &marker;
    command.inputLen = 160;
    ASSERT_EQ(Send(command), 0) << DumpLogs();
    EXPECT_EQ(command.output, &camera_->workMode);
    EXPECT_EQ(command.outputLen, 172u);
    EXPECT_EQ(command.input, &marker);
    EXPECT_EQ(command.inputLen, 160u);

    // Byte for byte as the framework reads it (little-endian target).
    uint8_t expected[172] = {};
    const uint8_t tail[] = {GetParam().isSupportVenc, 1, 1, 0, 1, 0, 0, 0, 1, 0, 0, 0, 1, 0, 0, 0, 1, 0, 0, 0};
    std::memcpy(expected + 136, tail, sizeof(tail));
    EXPECT_EQ(std::memcmp(command.output, expected, sizeof(expected)), 0);

    const std::string anony = camera_->anonyServiceId;
    EXPECT_EQ(TextsAtLevel(4),
              (Texts{"service " + anony + " getWorkMode: isRtp 1 isNeedTimeSyn 1 dataMode 0 direction 0 transMode 1",
                     "service " + anony + " getWorkMode: crypro info version 1 ability 1 alg 1"}));
}

INSTANTIATE_TEST_SUITE_P(EncoderAbilities, WorkModeTest,
                         ::testing::Values(WorkModeCase{0, 0}, WorkModeCase{1, 1}, WorkModeCase{2, 1},
                                           // Compared as a signed value: a wrapped count is no encoder.
                                           WorkModeCase{0x80000000u, 0}));

} // namespace
} // namespace kxtest
