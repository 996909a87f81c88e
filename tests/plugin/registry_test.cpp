// SPDX-License-Identifier: Apache-2.0
// Camera records from the vendor's capabilities: what a framework is told and
// can ask, the ability text byte for byte, and the records refused.
#include <cstring>
#include <memory>

#include "support.h"

namespace kxtest {
namespace {

constexpr const char *kStreamExample =
    R"({"id": "Camera_0", "streamAbility": {"supportStreamTypes": {"H264":{"supportFpsRange": [{"min":15, "max":30},{"min":30, "max":30}],"supportSizes": [{"width": 1280, "height": 720}, {"width": 1920, "height": 1080}]}}}, "extendInfos": {}})";
constexpr const char *kFrameExample =
    R"({"id": "Camera_1", "frameAbility": {"supportFpsRange": [{"min":30, "max":30}],"supportSizes": [{"width": 640, "height": 480}], "supportFormats": ["RGB565"]}, "extendInfos": {"k": "v"}})";

class RegistryTest : public PluginTest {
protected:
    // Drafts the fake camera reports instead of its own cameras.
    void Report(std::initializer_list<CapabilityDraft *> drafts)
    {
        items_.clear();
        for (CapabilityDraft *draft : drafts) {
            items_.push_back(draft->Record());
        }
        FakeCamera()->capability.items = items_.data();
        FakeCamera()->capability.num = static_cast<uint32_t>(items_.size());
    }
    std::string Ability(const std::string &vendorId)
    {
        const KxServiceIdDesc index = IndexOf(vendorId);
        KxCommand command{};
        command.code = KX_CMD_GET_ABILITY;
        EXPECT_EQ(Fw().table.setCommand(&index, &command), 0);
        EXPECT_EQ(command.outputLen, sizeof(KxAbilityInfo));
        const auto *info = static_cast<const KxAbilityInfo *>(command.output);
        EXPECT_EQ(info->abilityParam, 2014u);
        return info->ability;
    }
    std::vector<KxCameraCapability> items_;
};

TEST_F(RegistryTest, GoodRecordsAnnouncedInOrderWithTheirAbilityTexts)
{
    CapabilityDraft stream("0"), broken("5"), frame("1");
    stream.Ability(KX_DATA_FMT_H264, {{15, 30}, {30, 30}}, {{1280, 720}, {1920, 1080}});
    broken.Ability(KX_DATA_FMT_NV21, {{1, 1}}, {{1, 1}});
    broken.Abilities()[0].supportSizes = nullptr;
    frame.Ability(KX_DATA_FMT_RGB565, {{30, 30}}, {{640, 480}}).Extend("k", "v");
    Report({&stream, &broken, &frame});
    ASSERT_EQ(Fw().Load(), 0);
    ASSERT_EQ(Fw().announced.size(), 2u) << "a bad record hides no other camera";
    EXPECT_EQ(Fw().announced[0].id, "Camera_0");
    EXPECT_EQ(Fw().announced[1].id, "Camera_1");
    EXPECT_EQ(Ability("0"), kStreamExample);
    EXPECT_EQ(Ability("1"), kFrameExample);
    EXPECT_TRUE(LogsInOrder(4, {"get camera id Ca****_0 ability success", "get camera id Ca****_1 ability success"}))
        << DumpLogs();
    EXPECT_EQ(Camera("5"), nullptr);
    const auto released = FakeCamera()->CallsTo("ReleaseCameraCapability");
    ASSERT_EQ(released.size(), 1u) << "the vendor's records are given back once";
    EXPECT_EQ(released[0].kind, 1u);
    EXPECT_EQ(released[0].items, items_.data());
    EXPECT_EQ(released[0].num, 3u);
    const KxServiceIdDesc unknown{"Camera_9", 8, 1};
    KxCommand command{};
    EXPECT_EQ(Fw().table.setCommand(&unknown, &command), -5);
    EXPECT_TRUE(HasLog(1, "do get camera ability failed")) << DumpLogs();
}

TEST_F(RegistryTest, AbilityTextFitsInTwoMoreBytesThanItsLengthAndNeverOverruns)
{
    CapabilityDraft stream("0");
    stream.Ability(KX_DATA_FMT_H264, {{15, 30}, {30, 30}}, {{1280, 720}, {1920, 1080}});
    const auto length = static_cast<int32_t>(std::strlen(kStreamExample));
    for (int32_t size = length - 1; size <= length + 3; ++size) {
        // Exactly size bytes on the heap, so the sanitizer sees a write past them.
        auto block = std::make_unique<char[]>(static_cast<size_t>(size));
        std::memset(block.get(), '\x7f', static_cast<size_t>(size));
        const int32_t status = BuildCameraAbilityString(&stream.Record(), block.get(), size);
        EXPECT_EQ(block[static_cast<size_t>(size) - 1], '\x7f') << size;
        if (size >= length + 2) {
            EXPECT_EQ(status, 0) << size;
            EXPECT_STREQ(block.get(), kStreamExample);
        } else {
            EXPECT_NE(status, 0) << size;
        }
    }
    char tiny[1] = {'x'};
    EXPECT_EQ(BuildCameraAbilityString(&stream.Record(), tiny, 1), -5);
    EXPECT_EQ(tiny[0], 'x');
}

// A vendor record broken in one place.
struct RecordCase {
    const char *name;
    void (*breakIt)(KxCameraCapability &record, std::string &id);
    int32_t status;
    const char *message;
};
void PrintTo(const RecordCase &c, std::ostream *out)
{
    *out << c.name;
}

class RecordRefusal : public PluginTest, public ::testing::WithParamInterface<RecordCase> {};

TEST_P(RecordRefusal, StatusAndMessage)
{
    const RecordCase &c = GetParam();
    CapabilityDraft draft("7");
    draft.Ability(KX_DATA_FMT_NV21, {{1, 1}}, {{1, 1}}).Ability(KX_DATA_FMT_H264, {{1, 1}}, {{1, 1}}).Extend("k", "v");
    KxCameraCapability record = draft.Record();
    std::vector<KxCameraAbility> abilities = draft.Abilities();
    record.abilities = abilities.data();
    std::string id;
    c.breakIt(record, id);
    EXPECT_EQ(CheckCameraAbility(&record), c.status);
    if (c.message != nullptr) {
        EXPECT_TRUE(HasLog(1, c.message)) << DumpLogs();
    }
}

// The record and its entries are the test's own.
KxCameraAbility &At(KxCameraCapability &r, size_t i)
{
    return const_cast<KxCameraAbility &>(r.abilities[i]);
}

void UseId(KxCameraCapability &r, std::string &id, size_t len, uint32_t idLen)
{
    id.assign(len, 'a');
    r.id = id.c_str();
    r.idLen = idLen;
}

INSTANTIATE_TEST_SUITE_P(
    Records, RecordRefusal,
    ::testing::Values(
        RecordCase{"Whole", [](KxCameraCapability &, std::string &) {}, 0, nullptr},
        RecordCase{"IdOfLongestLength", [](KxCameraCapability &r, std::string &id) { UseId(r, id, 64, 64); }, 0,
                   nullptr},
        RecordCase{"IdOneTooLong", [](KxCameraCapability &r, std::string &id) { UseId(r, id, 65, 65); }, -13, nullptr},
        RecordCase{"IdLongerThanItsLength", [](KxCameraCapability &r, std::string &id) { UseId(r, id, 3, 2); }, -5,
                   "capabilities id not end width string end flag"},
        RecordCase{"NoId", [](KxCameraCapability &r, std::string &) { r.id = nullptr; }, -13,
                   "capabilities id is nullptr"},
        RecordCase{"NoAbilities", [](KxCameraCapability &r, std::string &) { r.abilities = nullptr; }, -13,
                   "abilityItems abilities is nullptr"},
        RecordCase{"FirstWithoutRanges",
                   [](KxCameraCapability &r, std::string &) { At(r, 0).supportFpsRanges = nullptr; }, -13,
                   "capabilities supportFpsRanges is nullptr"},
        RecordCase{"LaterWithoutSizes", [](KxCameraCapability &r, std::string &) { At(r, 1).supportSizes = nullptr; },
                   -13, "capabilities ability 1 supportSizes is nullptr, count 1"},
        RecordCase{"LaterListingNothing",
                   [](KxCameraCapability &r, std::string &) {
                       At(r, 1).supportSizes = nullptr;
                       At(r, 1).sizeNum = 0;
                   },
                   0, nullptr},
        RecordCase{
            "ExtendInfoWithoutValue",
            [](KxCameraCapability &r, std::string &) { const_cast<KxExtendInfo *>(r.extendInfos)[0].value = nullptr; },
            -13, "capabilities extendInfo 0 key or value is nullptr"}),
    [](const auto &info) { return std::string(info.param.name); });

} // namespace
} // namespace kxtest
