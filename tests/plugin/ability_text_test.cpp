// SPDX-License-Identifier: Apache-2.0
// The camera ability text: exact pieces and separators, list caps, and what
// happens when the text does not fit its buffer.
#include "registry/registry.h"

#include <climits>
#include <cstring>
#include <memory>
#include <string>

#include "registry_support.h"
#include "support.h"
#include "talvo/securec.h"

namespace kxtest {
namespace {

constexpr int32_t kRoomy = 1 << 16;

size_t Occurrences(const std::string &text, const std::string &piece)
{
    size_t count = 0;
    for (size_t at = text.find(piece); at != std::string::npos; at = text.find(piece, at + 1)) {
        ++count;
    }
    return count;
}

class AbilityTextTest : public PluginTest {
protected:
    std::string Build(CapabilityDraft &draft, int32_t size = kRoomy)
    {
        return AbilityText(draft.Record(), size, &status_);
    }

    int32_t status_ = 0x7fffffff;
};

TEST_F(AbilityTextTest, StreamCameraExampleByteForByte)
{
    CapabilityDraft camera("0");
    camera.Ability(1, {{15, 30}, {30, 30}}, {{1280, 720}, {1920, 1080}});
    const std::string expected =
        R"({"id": "Camera_0", "streamAbility": {"supportStreamTypes": {"H264":{"supportFpsRange": [{"min":15, "max":30},{"min":30, "max":30}],"supportSizes": [{"width": 1280, "height": 720}, {"width": 1920, "height": 1080}]}}}, "extendInfos": {}})";
    ASSERT_EQ(expected.size(), 235u);
    EXPECT_EQ(Build(camera), expected);
    EXPECT_EQ(status_, 0);
    EXPECT_TRUE(HasLog(4, "get camera ability string")) << DumpLogs();
}

TEST_F(AbilityTextTest, RawFrameCameraExampleByteForByte)
{
    CapabilityDraft camera("1");
    camera.Ability(4, {{30, 30}}, {{640, 480}}).Extend("k", "v");
    EXPECT_EQ(
        Build(camera),
        R"({"id": "Camera_1", "frameAbility": {"supportFpsRange": [{"min":30, "max":30}],"supportSizes": [{"width": 640, "height": 480}], "supportFormats": ["RGB565"]}, "extendInfos": {"k": "v"}})");
    EXPECT_EQ(status_, 0);
}

// One ability entry; the text around its section is always the same.
struct SectionCase {
    const char *name;
    uint32_t dataFmt;
    std::vector<KxFpsRange> ranges;
    std::vector<KxPictureSize> sizes;
    const char *section;
};

class AbilitySectionTest : public AbilityTextTest, public ::testing::WithParamInterface<SectionCase> {};

TEST_P(AbilitySectionTest, EntryGivesItsSection)
{
    const SectionCase &c = GetParam();
    CapabilityDraft camera("7");
    camera.Ability(c.dataFmt, c.ranges, c.sizes);
    EXPECT_EQ(Build(camera), std::string(R"({"id": "Camera_7")") + c.section + R"(, "extendInfos": {}})");
    EXPECT_EQ(status_, 0);
}

INSTANTIATE_TEST_SUITE_P(
    DataFormats, AbilitySectionTest,
    ::testing::Values(
        SectionCase{"H265Stream", 2, {{1, 2}}, {{3, 4}},
                    R"(, "streamAbility": {"supportStreamTypes": {"H265":{"supportFpsRange": [{"min":1, "max":2}],"supportSizes": [{"width": 3, "height": 4}]}}})"},
        SectionCase{"Rgb565Frame", 4, {{1, 2}}, {{3, 4}},
                    R"(, "frameAbility": {"supportFpsRange": [{"min":1, "max":2}],"supportSizes": [{"width": 3, "height": 4}], "supportFormats": ["RGB565"]})"},
        SectionCase{"Code3IsNv21", 3, {{1, 2}}, {{3, 4}},
                    R"(, "frameAbility": {"supportFpsRange": [{"min":1, "max":2}],"supportSizes": [{"width": 3, "height": 4}], "supportFormats": ["NV21"]})"},
        SectionCase{"Code17IsNv21", 17, {{1, 2}}, {{3, 4}},
                    R"(, "frameAbility": {"supportFpsRange": [{"min":1, "max":2}],"supportSizes": [{"width": 3, "height": 4}], "supportFormats": ["NV21"]})"},
        SectionCase{"Code0IsNv21", 0, {{1, 2}}, {{3, 4}},
                    R"(, "frameAbility": {"supportFpsRange": [{"min":1, "max":2}],"supportSizes": [{"width": 3, "height": 4}], "supportFormats": ["NV21"]})"},
        SectionCase{"EmptyStreamLists", 1, {}, {},
                    R"(, "streamAbility": {"supportStreamTypes": {"H264":{"supportFpsRange": [],"supportSizes": []}}})"},
        SectionCase{"EmptyFrameLists", 17, {}, {},
                    R"(, "frameAbility": {"supportFpsRange": [],"supportSizes": [], "supportFormats": ["NV21"]})"},
        SectionCase{"ThreeItemsJoinedByTheirSeparators", 1, {{1, 2}, {3, 4}, {5, 6}}, {{7, 8}, {9, 10}, {11, 12}},
                    R"(, "streamAbility": {"supportStreamTypes": {"H264":{"supportFpsRange": [{"min":1, "max":2},{"min":3, "max":4},{"min":5, "max":6}],"supportSizes": [{"width": 7, "height": 8}, {"width": 9, "height": 10}, {"width": 11, "height": 12}]}}})"},
        SectionCase{"UnsignedAboveIntMaxPrintsSigned", 4, {{0, 4294967295u}}, {{2147483648u, 1}},
                    R"(, "frameAbility": {"supportFpsRange": [{"min":0, "max":-1}],"supportSizes": [{"width": -2147483648, "height": 1}], "supportFormats": ["RGB565"]})"}),
    [](const auto &info) { return std::string(info.param.name); });

TEST_F(AbilityTextTest, SeveralEntriesGiveOneSectionEachInEntryOrder)
{
    CapabilityDraft camera("2");
    camera.Ability(1, {{1, 1}}, {{10, 10}}).Ability(17, {{2, 2}}, {{20, 20}}).Ability(1, {{3, 3}}, {{30, 30}});
    EXPECT_EQ(
        Build(camera),
        R"({"id": "Camera_2", "streamAbility": {"supportStreamTypes": {"H264":{"supportFpsRange": [{"min":1, "max":1}],"supportSizes": [{"width": 10, "height": 10}]}}}, "frameAbility": {"supportFpsRange": [{"min":2, "max":2}],"supportSizes": [{"width": 20, "height": 20}], "supportFormats": ["NV21"]}, "streamAbility": {"supportStreamTypes": {"H264":{"supportFpsRange": [{"min":3, "max":3}],"supportSizes": [{"width": 30, "height": 30}]}}}, "extendInfos": {}})");
    EXPECT_EQ(status_, 0);
}

TEST_F(AbilityTextTest, ExtendInfosJoinedByCommaAndBlankInOrder)
{
    CapabilityDraft camera("3");
    camera.Ability(1, {{1, 1}}, {{1, 1}}).Extend("a", "1").Extend("b", "2").Extend("c", "3");
    const std::string text = Build(camera);
    EXPECT_EQ(status_, 0);
    const std::string tail = R"(, "extendInfos": {"a": "1", "b": "2", "c": "3"}})";
    ASSERT_GE(text.size(), tail.size());
    EXPECT_EQ(text.substr(text.size() - tail.size()), tail);
}

TEST_F(AbilityTextTest, QuotesAndBackslashesAreCopiedUnescaped)
{
    CapabilityDraft camera(R"(a"b)");
    camera.Ability(1, {}, {}).Extend(R"(k"ey)", R"(va\"l)");
    EXPECT_EQ(
        Build(camera),
        R"({"id": "Camera_a"b", "streamAbility": {"supportStreamTypes": {"H264":{"supportFpsRange": [],"supportSizes": []}}}, "extendInfos": {"k"ey": "va\"l"}})");
}

class CappedListTest : public AbilityTextTest, public ::testing::WithParamInterface<uint32_t> {};

TEST_P(CappedListTest, RangesAndSizesStopAtFiveHundredExtendInfosDoNot)
{
    const uint32_t count = GetParam();
    const uint32_t printed = count < 500 ? count : 500;
    std::vector<KxFpsRange> ranges;
    std::vector<KxPictureSize> sizes;
    CapabilityDraft camera("9");
    for (uint32_t i = 1; i <= count; ++i) {
        ranges.push_back({i, i});
        sizes.push_back({i, i});
        camera.Extend("k" + std::to_string(i), "v");
    }
    camera.Ability(17, ranges, sizes);
    const std::string text = Build(camera, 1 << 20);
    ASSERT_EQ(status_, 0) << DumpLogs();
    EXPECT_EQ(Occurrences(text, "{\"min\":"), printed);
    EXPECT_EQ(Occurrences(text, "{\"width\": "), printed);
    EXPECT_EQ(Occurrences(text, "\": \"v\""), count);
    const std::string last = std::to_string(printed);
    EXPECT_NE(text.find("{\"min\":" + last + ", \"max\":" + last + "}],\"supportSizes\": ["), std::string::npos);
    EXPECT_NE(text.find("{\"width\": " + last + ", \"height\": " + last + "}], \"supportFormats\""),
              std::string::npos);
    EXPECT_EQ(text.find("\"min\":" + std::to_string(printed + 1) + ","), std::string::npos);
}

INSTANTIATE_TEST_SUITE_P(Counts, CappedListTest, ::testing::Values(499u, 500u, 501u, 1000u));

class TooSmallBufferTest : public AbilityTextTest, public ::testing::WithParamInterface<int32_t> {};

TEST_P(TooSmallBufferTest, RefusedWithoutWriting)
{
    CapabilityDraft camera("0");
    camera.Ability(1, {{1, 1}}, {{1, 1}});
    char buffer[4] = {'x', 'y', 'z', 'w'};
    EXPECT_EQ(BuildCameraAbilityString(&camera.Record(), buffer, GetParam()), -5);
    EXPECT_EQ(std::string(buffer, 4), "xyzw");
    EXPECT_TRUE(HasLog(1, "BuildAudioAbilityString dst buffer size is too small, maxlength " +
                              std::to_string(GetParam())))
        << DumpLogs();
}

INSTANTIATE_TEST_SUITE_P(Sizes, TooSmallBufferTest, ::testing::Values(1, 0, -1, INT32_MIN));

// The worked stream example with buffers of every size around its length.
class AbilityBoundaryTest : public AbilityTextTest {
protected:
    void SetUp() override
    {
        AbilityTextTest::SetUp();
        camera_.Ability(1, {{15, 30}, {30, 30}}, {{1280, 720}, {1920, 1080}});
        full_ = Build(camera_);
        ASSERT_EQ(status_, 0);
        TalvoTestLogClear();
    }

    // A heap block of exactly size bytes, so that the sanitizer sees any
    // write past it; the last byte must come back untouched.
    int32_t BuildExact(int32_t size, std::string *text)
    {
        auto block = std::make_unique<char[]>(static_cast<size_t>(size));
        std::memset(block.get(), '\x7f', static_cast<size_t>(size));
        const int32_t status = BuildCameraAbilityString(&camera_.Record(), block.get(), size);
        EXPECT_EQ(block[static_cast<size_t>(size) - 1], '\x7f') << "last byte written at size " << size;
        *text = std::string(block.get(), strnlen(block.get(), static_cast<size_t>(size)));
        return status;
    }

    CapabilityDraft camera_{"0"};
    std::string full_;
};

TEST_F(AbilityBoundaryTest, FitsInExactlyTwoMoreBytesThanItsLength)
{
    const auto length = static_cast<int32_t>(full_.size());
    std::string text;
    EXPECT_EQ(BuildExact(length + 2, &text), 0);
    EXPECT_EQ(text, full_);
    EXPECT_EQ(BuildExact(length + 3, &text), 0);
    EXPECT_EQ(text, full_);
    // Every smaller buffer fails, never with a success code.
    for (int32_t size = 2; size < length + 2; ++size) {
        EXPECT_NE(BuildExact(size, &text), 0) << "size " << size;
    }
}

TEST_F(AbilityBoundaryTest, OnlyTheFinalBraceMissingGivesTheConcatCode)
{
    char probe[3] = "ab";
    const errno_t concatFull = strcat_s(probe, sizeof(probe), "}");
    ASSERT_NE(concatFull, 0);
    std::string text;
    EXPECT_EQ(BuildExact(static_cast<int32_t>(full_.size()) + 1, &text), concatFull);
    EXPECT_TRUE(LogsWithFormat("sprintf_s failed, error %d").empty()) << DumpLogs();
}

TEST_F(AbilityBoundaryTest, SectionPieceThatDoesNotFitFailsTheSection)
{
    // Room for everything up to the stream section's closing braces but one.
    const size_t closing = full_.find("}}}") + 3;
    std::string text;
    EXPECT_EQ(BuildExact(static_cast<int32_t>(closing) + 1, &text), -5);
    EXPECT_EQ(text, full_.substr(0, closing - 3));
    EXPECT_TRUE(HasLog(1, "sprintf_s failed, error -1")) << DumpLogs();
    EXPECT_TRUE(HasLog(1, "BuildSubCodecAbilityString failed, error code -5")) << DumpLogs();
}

TEST_F(AbilityBoundaryTest, ExtendInfoPieceThatDoesNotFitIsPassedBackWithoutSectionMessage)
{
    const size_t closing = full_.find("}}}") + 3;
    std::string text;
    EXPECT_EQ(BuildExact(static_cast<int32_t>(closing) + 2, &text), -5);
    EXPECT_EQ(text, full_.substr(0, closing));
    EXPECT_TRUE(HasLog(1, "sprintf_s failed, error -1")) << DumpLogs();
    EXPECT_TRUE(LogsWithFormat("BuildSubCodecAbilityString failed, error code %d").empty()) << DumpLogs();
}

TEST_F(AbilityBoundaryTest, IdPieceThatDoesNotFitReturnsTheWriteResult)
{
    std::string text;
    EXPECT_EQ(BuildExact(3, &text), -1);
    EXPECT_EQ(text, "{");
    EXPECT_TRUE(HasLog(1, "sprint_s failed, error -1")) << DumpLogs();
}

TEST_F(AbilityBoundaryTest, OpeningBraceThatDoesNotFitReturnsTheCopyCode)
{
    char probe[1];
    const errno_t copyFull = strcpy_s(probe, sizeof(probe), "{");
    ASSERT_NE(copyFull, 0);
    std::string text;
    EXPECT_EQ(BuildExact(2, &text), copyFull);
    EXPECT_TRUE(CapturedLogs().empty()) << DumpLogs();
}

TEST_F(AbilityTextTest, FrameSectionFailureNamesTheFormatBuilder)
{
    CapabilityDraft camera("5");
    camera.Ability(4, {{30, 30}}, {{640, 480}});
    const std::string full = Build(camera);
    ASSERT_EQ(status_, 0);
    // The format list's closing bracket is the piece that no longer fits.
    const size_t formats = full.find("[\"RGB565\"]") + std::strlen("[\"RGB565\"]");
    Build(camera, static_cast<int32_t>(formats) + 1);
    EXPECT_EQ(status_, -5);
    EXPECT_TRUE(HasLog(1, "BuildSubFmtAbilityString failed, error code -5")) << DumpLogs();
}

TEST_F(AbilityTextTest, FiftyFourDigitSizesDoNotFitTheRecordBuffer)
{
    std::vector<KxPictureSize> sizes(50, KxPictureSize{1920, 1080});
    CapabilityDraft camera("0");
    camera.Ability(1, {{30, 30}}, sizes);
    Build(camera, static_cast<int32_t>(kAbilityTextSize));
    EXPECT_EQ(status_, -5);
    EXPECT_TRUE(HasLog(1, "BuildSubCodecAbilityString failed, error code -5")) << DumpLogs();
}

TEST_F(AbilityTextTest, BuildersRefuseListsTheyCannotRead)
{
    const KxCameraAbility noRanges = {nullptr, 2, 0, nullptr, 0, 1};
    const KxCameraAbility noSizes = {nullptr, 0, 0, nullptr, 3, 1};
    const KxExtendInfo noValue[] = {{"k", 0, nullptr, 0}};
    char buffer[256] = "";
    EXPECT_EQ(BuildSubFpsAbilityString(&noRanges, buffer, sizeof(buffer)), -5);
    EXPECT_EQ(BuildSubResAbilityString(&noSizes, buffer, sizeof(buffer)), -5);
    EXPECT_EQ(BuildSubExtendInfoString(nullptr, 1, buffer, sizeof(buffer)), -5);
    EXPECT_EQ(BuildSubExtendInfoString(noValue, 1, buffer, sizeof(buffer)), -5);
    EXPECT_EQ(BuildCameraAbilityString(nullptr, buffer, sizeof(buffer)), -13);
    // Empty lists need no storage at all.
    buffer[0] = '\0';
    EXPECT_EQ(BuildSubExtendInfoString(nullptr, 0, buffer, sizeof(buffer)), 0);
    EXPECT_EQ(std::string(buffer), R"(, "extendInfos": {})");
}

} // namespace
} // namespace kxtest
