// SPDX-License-Identifier: Apache-2.0
// The vendor library doubles obey their controls, so plugin tests can trust them.
#include "fake_access.h"

#include <dlfcn.h>
#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <thread>

namespace {

template <typename Table>
std::vector<uintptr_t> SlotWords(const Table &table)
{
    std::vector<uintptr_t> words(sizeof(Table) / sizeof(uintptr_t));
    std::memcpy(words.data(), &table, sizeof(Table));
    return words;
}

// ---------------------------------------------------------------- camera

class FakeCameraTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        camera_ = FakeCamera();
        ASSERT_NE(camera_, nullptr);
        camera_->Reset();
        getter_ = reinterpret_cast<KxGetCameraHandlerFn>(dlsym(FakeCameraLibrary(), KX_CAMERA_HANDLER_GETTER));
        ASSERT_NE(getter_, nullptr);
        ASSERT_EQ(getter_(&table_), 0);
    }

    FakeCameraControl *camera_ = nullptr;
    KxGetCameraHandlerFn getter_ = nullptr;
    KxCameraHandler table_{};
};

TEST_F(FakeCameraTest, GetterFillsAllNineSlotsExceptMaskedOnes)
{
    for (uint32_t masked = 0; masked <= kCamSlotCount; ++masked) {
        SCOPED_TRACE(masked);
        camera_->nullSlots = masked < kCamSlotCount ? 1u << masked : 0;
        KxCameraHandler table;
        std::memset(&table, 0x5a, sizeof(table));
        ASSERT_EQ(getter_(&table), 0);
        std::vector<uintptr_t> words = SlotWords(table);
        for (uint32_t slot = 0; slot < kCamSlotCount; ++slot) {
            EXPECT_EQ(words[slot] == 0, slot == masked) << "slot " << slot;
        }
    }
}

TEST_F(FakeCameraTest, GetterReturnsScriptedStatusAndStillFillsTable)
{
    camera_->getterResult = -7;
    KxCameraHandler table{};
    EXPECT_EQ(getter_(&table), -7);
    EXPECT_NE(table.OpenCamera, nullptr);
    EXPECT_EQ(camera_->CallsTo(KX_CAMERA_HANDLER_GETTER).back().result, -7);
}

TEST_F(FakeCameraTest, DefaultCapabilitiesDescribeOneRawAndOneH264Camera)
{
    KxCameraCapability *items = nullptr;
    uint32_t num = 0;
    ASSERT_EQ(table_.GetCameraCapability(&items, &num), 0);
    ASSERT_EQ(num, 2u);
    ASSERT_NE(items, nullptr);
    const uint32_t formats[] = {KX_DATA_FMT_NV21, KX_DATA_FMT_H264};
    for (uint32_t i = 0; i < num; ++i) {
        SCOPED_TRACE(i);
        const KxCameraCapability &cap = items[i];
        EXPECT_EQ(std::string(cap.id, cap.idLen), std::to_string(i));
        EXPECT_EQ(cap.id[cap.idLen], '\0');
        ASSERT_EQ(cap.abilityNum, 1u);
        const KxCameraAbility &ability = cap.abilities[0];
        EXPECT_EQ(ability.dataFmt, formats[i]);
        ASSERT_EQ(ability.fpsRangeNum, 2u);
        EXPECT_EQ(ability.supportFpsRanges[0].min, 15u);
        EXPECT_EQ(ability.supportFpsRanges[0].max, 30u);
        EXPECT_EQ(ability.supportFpsRanges[1].min, 30u);
        ASSERT_EQ(ability.sizeNum, 2u);
        EXPECT_EQ(ability.supportSizes[0].width, 640u);
        EXPECT_EQ(ability.supportSizes[1].height, 720u);
        ASSERT_EQ(cap.extendInfoNum, 1u);
        EXPECT_NE(cap.extendInfos[0].key, nullptr);
        EXPECT_NE(cap.extendInfos[0].value, nullptr);
    }
}

TEST_F(FakeCameraTest, ScriptedCapabilitiesAndReleaseAreRecorded)
{
    KxCameraCapability mine[1] = {};
    camera_->capability = {mine, 1, -3};
    KxCameraCapability *items = nullptr;
    uint32_t num = 0;
    EXPECT_EQ(table_.GetCameraCapability(&items, &num), -3);
    EXPECT_EQ(items, mine);
    EXPECT_EQ(num, 1u);

    camera_->status.releaseCameraCapability = 9;
    EXPECT_EQ(table_.ReleaseCameraCapability(1, items, num), 9);
    auto release = camera_->CallsTo("ReleaseCameraCapability");
    ASSERT_EQ(release.size(), 1u);
    EXPECT_EQ(release[0].kind, 1u);
    EXPECT_EQ(release[0].items, mine);
    EXPECT_EQ(release[0].num, 1u);
}

int32_t IgnoreFrame(const char *, uint32_t, const uint8_t *, uint32_t)
{
    return 0;
}

TEST_F(FakeCameraTest, RecordsCallsInOrderWithCopiedArguments)
{
    camera_->status.startCamera = -5;
    camera_->status.updateConfig = 3;
    camera_->status.businessControl = -8;
    char id[] = "cam0";
    ASSERT_EQ(table_.OpenCamera(id, 4, IgnoreFrame), 0);
    KxCameraOpenParams params = {id, 4, 1280, 720, 25, KX_DATA_FMT_NV21, 0};
    EXPECT_EQ(table_.StartCamera(&params), -5);
    char fps[] = "25";
    EXPECT_EQ(table_.UpdateConfig(id, 4, 1, fps, 2), 3);
    EXPECT_EQ(table_.BusinessControl(1, nullptr, 0, nullptr, 0), -8);
    EXPECT_EQ(table_.CloseCamera(id, 4), 0);
    std::memcpy(id, "XXXX", 4); // the record must hold copies
    std::memcpy(fps, "99", 2);

    auto calls = camera_->Calls();
    std::vector<std::string> slots;
    for (const auto &call : calls) {
        slots.push_back(call.slot);
    }
    EXPECT_EQ(slots, (std::vector<std::string>{KX_CAMERA_HANDLER_GETTER, "OpenCamera", "StartCamera",
                                               "UpdateConfig", "BusinessControl", "CloseCamera"}));
    ASSERT_EQ(calls.size(), 6u);
    EXPECT_EQ(calls[1].vendorId, "cam0");
    EXPECT_EQ(calls[1].callback, &IgnoreFrame);
    EXPECT_EQ(calls[2].vendorId, "cam0");
    EXPECT_EQ(calls[2].params.width, 1280u);
    EXPECT_EQ(calls[2].params.height, 720u);
    EXPECT_EQ(calls[2].params.fps, 25u);
    EXPECT_EQ(calls[2].params.dataFmt, static_cast<uint32_t>(KX_DATA_FMT_NV21));
    EXPECT_EQ(calls[2].result, -5);
    EXPECT_EQ(calls[3].item, 1u);
    EXPECT_EQ(calls[3].value, "25");
    EXPECT_EQ(calls[3].valueLen, 2u);
    EXPECT_EQ(calls[4].control, 1);
    EXPECT_EQ(calls[4].in, nullptr);
    EXPECT_EQ(calls[4].outLen, 0u);
    EXPECT_EQ(calls[5].vendorIdLen, 4u);
}

TEST_F(FakeCameraTest, ResetRestoresDefaultsAndForgetsEverything)
{
    static const KxServiceListener listener = {[](const char *, uint32_t, uint32_t) { return 0; }, nullptr};
    ASSERT_EQ(table_.OpenCamera("0", 1, IgnoreFrame), 0);
    ASSERT_EQ(table_.RegisterListener(&listener), 0);
    camera_->getterResult = -1;
    camera_->nullSlots = 0x1ff;
    camera_->status.openCamera = -1;
    camera_->capability = {nullptr, 0, -1};

    camera_->Reset();
    EXPECT_TRUE(camera_->Calls().empty());
    EXPECT_FALSE(camera_->HasFrameCallback("0"));
    EXPECT_EQ(camera_->PushStatus("0", 1), kFakeNotDelivered);
    KxCameraHandler table{};
    EXPECT_EQ(getter_(&table), 0);
    EXPECT_NE(table.BusinessControl, nullptr);
    EXPECT_EQ(table.OpenCamera("0", 1, IgnoreFrame), 0);
    KxCameraCapability *items = nullptr;
    uint32_t num = 0;
    EXPECT_EQ(table.GetCameraCapability(&items, &num), 0);
    EXPECT_EQ(num, 2u);
    EXPECT_NE(items, nullptr);
}

// What the plugin side of a push saw; pushes join before returning.
struct Seen {
    std::thread::id thread{};
    std::string id{};
    std::vector<uint8_t> data{};
    uint32_t status = 0;
    uint32_t type = 0;
    std::string value{};
} g_seen;

void SeeCaller(const char *id, uint32_t idLen)
{
    g_seen = Seen();
    g_seen.thread = std::this_thread::get_id();
    g_seen.id.assign(id, idLen);
}

int32_t SeeFrame(const char *id, uint32_t idLen, const uint8_t *data, uint32_t length)
{
    SeeCaller(id, idLen);
    g_seen.data.assign(data, data + length);
    return 42;
}

int32_t SeeStatus(const char *id, uint32_t idLen, uint32_t status)
{
    SeeCaller(id, idLen);
    g_seen.status = status;
    return 11;
}

int32_t SeeAction(const char *id, uint32_t idLen, const KxServiceAction *action)
{
    SeeCaller(id, idLen);
    g_seen.type = action->type;
    g_seen.value.assign(action->value, action->valueLen);
    return 12;
}

class FakeCameraPushTest : public FakeCameraTest, public ::testing::WithParamInterface<FakeDelivery> {
protected:
    void ExpectThread() const
    {
        EXPECT_EQ(g_seen.thread == std::this_thread::get_id(), GetParam() == kFakeOnCaller);
    }
};

TEST_P(FakeCameraPushTest, FrameReachesCallbackKeptForItsCamera)
{
    const uint8_t frame[] = {1, 2, 3, 4, 5};
    EXPECT_EQ(camera_->PushFrame("1", frame, sizeof(frame), GetParam()), kFakeNotDelivered);
    camera_->status.openCamera = -1;
    ASSERT_EQ(table_.OpenCamera("1", 1, SeeFrame), -1);
    EXPECT_FALSE(camera_->HasFrameCallback("1"));

    camera_->status.openCamera = 0;
    ASSERT_EQ(table_.OpenCamera("1", 1, SeeFrame), 0);
    g_seen = {};
    EXPECT_EQ(camera_->PushFrame("1", frame, sizeof(frame), GetParam()), 42);
    EXPECT_EQ(g_seen.id, "1");
    EXPECT_EQ(g_seen.data, std::vector<uint8_t>(frame, frame + sizeof(frame)));
    ExpectThread();
    EXPECT_EQ(camera_->PushFrame("0", frame, sizeof(frame), GetParam()), kFakeNotDelivered);

    ASSERT_EQ(table_.CloseCamera("1", 1), 0);
    EXPECT_EQ(camera_->PushFrame("1", frame, sizeof(frame), GetParam()), kFakeNotDelivered);
}

TEST_P(FakeCameraPushTest, ReportsReachCopiedListener)
{
    EXPECT_EQ(camera_->PushStatus("0", 1, GetParam()), kFakeNotDelivered);
    KxServiceListener listener = {SeeStatus, SeeAction};
    camera_->status.registerListener = -2;
    ASSERT_EQ(table_.RegisterListener(&listener), -2);
    EXPECT_EQ(camera_->PushStatus("0", 1, GetParam()), kFakeNotDelivered);
    camera_->status.registerListener = 0;
    ASSERT_EQ(table_.RegisterListener(&listener), 0);
    listener = {}; // lent for the call only

    g_seen = {};
    EXPECT_EQ(camera_->PushStatus("0", 2, GetParam()), 11);
    EXPECT_EQ(g_seen.id, "0");
    EXPECT_EQ(g_seen.status, 2u);
    ExpectThread();

    g_seen = {};
    EXPECT_EQ(camera_->PushAction("1", 7, "201", GetParam()), 12);
    EXPECT_EQ(g_seen.id, "1");
    EXPECT_EQ(g_seen.type, 7u);
    EXPECT_EQ(g_seen.value, "201");
    ExpectThread();

    auto registered = camera_->CallsTo("RegisterListener");
    ASSERT_EQ(registered.size(), 2u);
    EXPECT_EQ(registered[1].listener.updateServiceStatus, &SeeStatus);
    EXPECT_EQ(registered[1].listener.updateServiceAction, &SeeAction);
}

INSTANTIATE_TEST_SUITE_P(Delivery, FakeCameraPushTest, ::testing::Values(kFakeOnCaller, kFakeOnVendorThread),
                         [](const auto &info) { return info.param == kFakeOnCaller ? "OnCaller" : "OnVendorThread"; });

// ------------------------------------------------------- getter-less builds

struct NoGetterCase {
    const char *name;
    const char *normalDir;
    const char *noGetterDir;
    const char *file;
    const char *getter;
    const char *control;
};

class FakeNoGetterTest : public ::testing::TestWithParam<NoGetterCase> {};

TEST_P(FakeNoGetterTest, OnlyTheGetterIsMissing)
{
    const NoGetterCase &c = GetParam();
    // Kept open: the library's state must not go away under a later test.
    void *normal = dlopen(FakeLibraryPath(c.normalDir, c.file).c_str(), RTLD_NOW | RTLD_LOCAL);
    void *bare = dlopen(FakeLibraryPath(c.noGetterDir, c.file).c_str(), RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(normal, nullptr) << dlerror();
    ASSERT_NE(bare, nullptr) << dlerror();
    EXPECT_NE(normal, bare);
    EXPECT_NE(dlsym(normal, c.getter), nullptr);
    EXPECT_EQ(dlsym(bare, c.getter), nullptr);
    EXPECT_NE(dlsym(bare, c.control), nullptr);
}

INSTANTIATE_TEST_SUITE_P(
    Libraries, FakeNoGetterTest,
    ::testing::Values(NoGetterCase{"Camera", kFakeCameraDir, kFakeCameraNoGetterDir, KX_CAMERA_HANDLER_LIB,
                                   KX_CAMERA_HANDLER_GETTER, FAKE_CAMERA_CONTROL_SYMBOL},
                      NoGetterCase{"Encoder", kFakeEncoderDir, kFakeEncoderNoGetterDir, KX_VIDEO_ENCODER_LIB,
                                   KX_VIDEO_ENCODER_GETTER, FAKE_ENCODER_CONTROL_SYMBOL}),
    [](const auto &info) { return std::string(info.param.name); });

TEST(FakeAccessTest, SameFileGivesSameStateAsThePluginWouldSee)
{
    void *again = dlopen(FakeLibraryPath(kFakeCameraDir, KX_CAMERA_HANDLER_LIB).c_str(), RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(again, nullptr);
    EXPECT_EQ(again, FakeCameraLibrary());
    auto get = reinterpret_cast<FakeCameraGetControlFn>(dlsym(again, FAKE_CAMERA_CONTROL_SYMBOL));
    ASSERT_NE(get, nullptr);
    EXPECT_EQ(get(), FakeCamera());
    dlclose(again);
    EXPECT_NE(dlsym(FakeCameraLibrary(), FAKE_CAMERA_CONTROL_SYMBOL), nullptr);
}

TEST(FakeAccessTest, VendorPathJoinsDirectoriesOrUnsets)
{
    SetVendorPath({kFakeEmptyDir, kFakeCameraDir});
    ASSERT_NE(getenv("TALVO_VENDOR_PATH"), nullptr);
    EXPECT_EQ(std::string(getenv("TALVO_VENDOR_PATH")), std::string(kFakeEmptyDir) + ":" + kFakeCameraDir);
    SetVendorPath({});
    EXPECT_EQ(getenv("TALVO_VENDOR_PATH"), nullptr);
}

// --------------------------------------------------------------- encoder

class FakeEncoderTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        encoder_ = FakeEncoder();
        ASSERT_NE(encoder_, nullptr);
        encoder_->Reset();
        getter_ = reinterpret_cast<KxGetVideoEncoderHandlerFn>(
            dlsym(FakeEncoderLibrary(), KX_VIDEO_ENCODER_GETTER));
        ASSERT_NE(getter_, nullptr);
        ASSERT_EQ(getter_(&table_), 0);
    }
    void TearDown() override { EXPECT_EQ(encoder_->LiveInstances(), 0u); }

    void *Create(void *privateData = nullptr, KxVencOutputCallback callback = nullptr)
    {
        KxVencCreateParams params{};
        params.height = 480;
        params.width = 640;
        params.mColorType = KX_CSP_I420;
        params.privateData = privateData;
        params.outputCallback = callback;
        void *handle = nullptr;
        EXPECT_EQ(table_.VideoEncoderCreate(&handle, &params), 0);
        return handle;
    }

    FakeEncoderControl *encoder_ = nullptr;
    KxGetVideoEncoderHandlerFn getter_ = nullptr;
    KxVideoEncoderHandler table_{};
};

TEST_F(FakeEncoderTest, GetterFillsAllFiveSlotsExceptMaskedOnes)
{
    for (uint32_t masked = 0; masked <= kEncSlotCount; ++masked) {
        SCOPED_TRACE(masked);
        encoder_->nullSlots = masked < kEncSlotCount ? 1u << masked : 0;
        KxVideoEncoderHandler table;
        std::memset(&table, 0x5a, sizeof(table));
        ASSERT_EQ(getter_(&table), 0);
        std::vector<uintptr_t> words = SlotWords(table);
        for (uint32_t slot = 0; slot < kEncSlotCount; ++slot) {
            EXPECT_EQ(words[slot] == 0, slot == masked) << "slot " << slot;
        }
    }
    encoder_->getterResult = -2000;
    KxVideoEncoderHandler table{};
    EXPECT_EQ(getter_(&table), -2000);
    EXPECT_NE(table.VideoEncoderDestroy, nullptr);
}

TEST_F(FakeEncoderTest, AbilitiesAreClippedToCapacity)
{
    std::array<KxVencAbility, 3> out{};
    out[1].codecType = -1;
    uint32_t num = 99;
    ASSERT_EQ(table_.VideoEncoderGetAbility(out.data(), 2, &num), 0);
    ASSERT_EQ(num, 1u);
    EXPECT_EQ(out[0].codecType, 0);
    EXPECT_EQ(out[0].cspTypeMask, 1);
    EXPECT_EQ(out[0].minEncWidth, 16);
    EXPECT_EQ(out[0].maxEncHeight, 4096);
    EXPECT_EQ(out[0].maxCodecNum, 4);
    EXPECT_EQ(out[1].codecType, -1);

    encoder_->ability.num = 3;
    encoder_->ability.items[2].codecType = 5;
    encoder_->ability.status = -9;
    out[2].codecType = -1;
    EXPECT_EQ(table_.VideoEncoderGetAbility(out.data(), 2, &num), -9);
    EXPECT_EQ(num, 2u);
    EXPECT_EQ(out[2].codecType, -1);
    EXPECT_EQ(encoder_->CallsTo("VideoEncoderGetAbility").back().capacity, 2u);
}

TEST_F(FakeEncoderTest, InstancesAreDistinctAndCounted)
{
    void *first = Create();
    void *second = Create();
    EXPECT_NE(first, nullptr);
    EXPECT_NE(first, second);
    EXPECT_EQ(encoder_->LiveInstances(), 2u);

    void *stale = first;
    EXPECT_EQ(table_.VideoEncoderDestroy(&first), 0);
    EXPECT_EQ(first, nullptr);
    EXPECT_EQ(encoder_->LiveInstances(), 1u);
    EXPECT_EQ(table_.VideoEncoderDestroy(&first), 0); // null instance: harmless
    EXPECT_EQ(table_.VideoEncoderDestroy(&stale), kFakeBadArgument);
    EXPECT_EQ(stale, nullptr);
    EXPECT_EQ(encoder_->LiveInstances(), 1u);
    encoder_->status.destroy = -1;
    EXPECT_EQ(table_.VideoEncoderDestroy(&second), -1);
    EXPECT_EQ(encoder_->LiveInstances(), 0u);

    auto destroys = encoder_->CallsTo("VideoEncoderDestroy");
    ASSERT_EQ(destroys.size(), 4u);
    EXPECT_TRUE(destroys[0].handleKnown);
    EXPECT_EQ(destroys[1].handle, nullptr);
    EXPECT_FALSE(destroys[2].handleKnown);
    EXPECT_EQ(encoder_->created, 2u);
    EXPECT_EQ(encoder_->destroyed, 2u);
}

TEST_F(FakeEncoderTest, FailedCreateLeavesHandleAsScripted)
{
    KxVencCreateParams params{};
    void *handle = reinterpret_cast<void *>(uintptr_t{0x99});
    encoder_->status.create = -4;
    EXPECT_EQ(table_.VideoEncoderCreate(&handle, &params), -4);
    EXPECT_EQ(handle, reinterpret_cast<void *>(uintptr_t{0x99}));
    encoder_->writeHandleOnFailure = true;
    EXPECT_EQ(table_.VideoEncoderCreate(&handle, &params), -4);
    EXPECT_EQ(handle, nullptr);
    EXPECT_EQ(encoder_->LiveInstances(), 0u);

    encoder_->status.create = 1; // not negative: a success
    EXPECT_EQ(table_.VideoEncoderCreate(&handle, &params), 1);
    EXPECT_NE(handle, nullptr);
    EXPECT_EQ(table_.VideoEncoderDestroy(&handle), 0);
}

TEST_F(FakeEncoderTest, ConfigureAndProcessAreRecorded)
{
    void *handle = Create();
    KxVencConfigParams config = {25, 25, 1500000, 1500000, 0};
    encoder_->status.configure = -6;
    EXPECT_EQ(table_.VideoEncoderConfigure(handle, &config), -6);

    std::vector<uint8_t> frame(100);
    for (size_t i = 0; i < frame.size(); ++i) {
        frame[i] = static_cast<uint8_t>(i * 7);
    }
    KxVencInputFrame input = {frame.data(), 100, KX_CSP_I420, 123456, 640, 480};
    KxVencOutput output{};
    encoder_->inputCopyBytes = 8;
    EXPECT_EQ(table_.VideoEncoderProcess(handle, &input, 0, &output), 0);
    EXPECT_EQ(table_.VideoEncoderProcess(nullptr, &input, 0, &output), kFakeBadArgument);

    auto calls = encoder_->Calls();
    ASSERT_EQ(calls.size(), 5u);
    EXPECT_EQ(calls[1].create.width, 640u);
    EXPECT_EQ(calls[1].create.height, 480u);
    EXPECT_EQ(calls[2].handle, handle);
    EXPECT_EQ(calls[2].config.inFrameRate, 25u);
    EXPECT_EQ(calls[2].config.maxBitRate, 1500000u);
    EXPECT_EQ(calls[2].result, -6);
    EXPECT_TRUE(calls[3].handleKnown);
    EXPECT_EQ(calls[3].input.timeStamp, 123456);
    EXPECT_EQ(calls[3].input.width, 640u);
    EXPECT_EQ(calls[3].inputHead, std::vector<uint8_t>(frame.begin(), frame.begin() + 8));
    EXPECT_EQ(calls[3].inputHash, FakeHash(frame.data(), 100));
    EXPECT_FALSE(calls[4].handleKnown);
    EXPECT_EQ(table_.VideoEncoderDestroy(&handle), 0);
}

TEST_F(FakeEncoderTest, ProcessReturnsBitstreamDerivedFromInput)
{
    void *handle = Create();
    std::vector<uint8_t> frame(40, 0xab);
    frame[0] = 0x11;
    KxVencInputFrame input = {frame.data(), 40, KX_CSP_I420, 777, 640, 480};
    KxVencOutput output{};
    encoder_->status.process = -1; // output is still handed over
    ASSERT_EQ(table_.VideoEncoderProcess(handle, &input, 0, &output), -1);
    ASSERT_NE(output.bsBuf, nullptr);
    std::vector<uint8_t> first(output.bsBuf, output.bsBuf + output.bsLength);
    EXPECT_EQ(output.timeStamp, 777);
    EXPECT_EQ(first, FakeEncoderBitstream(0, frame.data(), 40));
    ASSERT_EQ(first.size(), kFakeBitstreamHeader + kFakeBitstreamInputBytes);
    EXPECT_EQ(std::string(first.begin(), first.begin() + 4), "FKBS");
    EXPECT_EQ(first[kFakeBitstreamHeader], 0x11);

    ASSERT_EQ(table_.VideoEncoderProcess(handle, &input, 0, &output), -1);
    EXPECT_EQ(output.bsBuf[4], 1); // the frame counter moved on
    EXPECT_NE(std::vector<uint8_t>(output.bsBuf, output.bsBuf + output.bsLength), first);

    uint8_t mine[3] = {9, 8, 7};
    encoder_->scriptedOutput = {true, mine, 3};
    output = {};
    ASSERT_EQ(table_.VideoEncoderProcess(handle, &input, 0, &output), -1);
    EXPECT_EQ(output.bsBuf, mine);
    EXPECT_EQ(output.bsLength, 3);
    EXPECT_EQ(table_.VideoEncoderDestroy(&handle), 0);
}

struct Delivered {
    std::thread::id thread{};
    void *privateData = nullptr;
    std::vector<uint8_t> bytes{};
    int64_t timeStamp = 0;
    int calls = 0;
} g_delivered;

void SeeOutput(const KxVencOutput *output, void *privateData)
{
    g_delivered.thread = std::this_thread::get_id();
    g_delivered.privateData = privateData;
    g_delivered.bytes.assign(output->bsBuf, output->bsBuf + output->bsLength);
    g_delivered.timeStamp = output->timeStamp;
    ++g_delivered.calls;
}

class FakeEncoderCallbackTest : public FakeEncoderTest,
                                public ::testing::WithParamInterface<FakeEncoderOutputMode> {};

TEST_P(FakeEncoderCallbackTest, OutputGoesThroughCallbackInstead)
{
    int owner = 0;
    void *handle = Create(&owner, SeeOutput);
    encoder_->outputMode = GetParam();
    uint8_t frame[20] = {5};
    KxVencInputFrame input = {frame, 20, KX_CSP_I420, 55, 640, 480};
    KxVencOutput output{};
    g_delivered = {};
    ASSERT_EQ(table_.VideoEncoderProcess(handle, &input, 0, &output), 0);
    EXPECT_EQ(output.bsBuf, nullptr);
    EXPECT_EQ(output.bsLength, 0);
    EXPECT_EQ(g_delivered.calls, 1);
    EXPECT_EQ(g_delivered.privateData, &owner);
    EXPECT_EQ(g_delivered.timeStamp, 55);
    EXPECT_EQ(g_delivered.bytes, FakeEncoderBitstream(0, frame, 20));
    EXPECT_EQ(g_delivered.thread == std::this_thread::get_id(), GetParam() == kFakeOutputCallback);
    EXPECT_EQ(table_.VideoEncoderDestroy(&handle), 0);
}

INSTANTIATE_TEST_SUITE_P(Modes, FakeEncoderCallbackTest,
                         ::testing::Values(kFakeOutputCallback, kFakeOutputCallbackThread),
                         [](const auto &info) { return info.param == kFakeOutputCallback ? "InProcess" : "OnVendorThread"; });

} // namespace
