// SPDX-License-Identifier: Apache-2.0
// The virtual camera library's environment settings.
#include "camera_list.h"

#include <gtest/gtest.h>

namespace {

using kxvcam::CameraKind;
using kxvcam::CameraEntry;

struct ListCase {
    std::string text;
    std::vector<CameraEntry> cameras; // empty: refused
};

class CameraListSyntax : public testing::TestWithParam<ListCase> {};

TEST_P(CameraListSyntax, ParsesValidListsAndRefusesTheRestWithAReason)
{
    std::string error;
    const auto parsed = kxvcam::ParseCameraList(GetParam().text, error);
    if (GetParam().cameras.empty()) {
        EXPECT_FALSE(parsed.has_value());
        EXPECT_FALSE(error.empty());
    } else {
        ASSERT_TRUE(parsed.has_value()) << error;
        EXPECT_EQ(*parsed, GetParam().cameras);
    }
}

INSTANTIATE_TEST_SUITE_P(
    Cases, CameraListSyntax,
    testing::Values(
        ListCase{"0:raw,1:h264,2:h265", kxvcam::DefaultCameras()},
        ListCase{" a : h265 ,b:raw", {{"a", CameraKind::kH265}, {"b", CameraKind::kRaw}}},
        ListCase{"cam-1.left_2:raw", {{"cam-1.left_2", CameraKind::kRaw}}},
        ListCase{std::string(64, 'x') + ":raw", {{std::string(64, 'x'), CameraKind::kRaw}}},
        ListCase{"0:raw,", {}}, ListCase{"0", {}}, ListCase{":raw", {}}, ListCase{"0:mjpeg", {}},
        ListCase{"0:RAW", {}}, ListCase{"a b:raw", {}}, ListCase{"a\"b:raw", {}}, ListCase{"0:raw,0:h264", {}},
        ListCase{"0:raw:1", {}}, ListCase{"0:raw,,1:raw", {}}));

TEST(CameraListSyntax, RefusesIdsLongerThan64AndMoreThan16Cameras)
{
    std::string error;
    EXPECT_FALSE(kxvcam::ParseCameraList(std::string(65, 'x') + ":raw", error).has_value());
    std::string many;
    for (int i = 0; i < 17; ++i) {
        many += (i == 0 ? "" : ",") + std::to_string(i) + ":raw";
    }
    EXPECT_FALSE(kxvcam::ParseCameraList(many, error).has_value());
    many.resize(many.rfind(','));
    EXPECT_EQ(kxvcam::ParseCameraList(many, error).value_or(std::vector<CameraEntry>{}).size(), 16u);
}

TEST(StatusReportSyntax, ReadsStatusAndOptionalDelay)
{
    using std::chrono::milliseconds;
    std::string error;
    EXPECT_EQ(kxvcam::ParseStatusReport("1", error), (kxvcam::StatusReport{1, milliseconds(100)}));
    EXPECT_EQ(kxvcam::ParseStatusReport("2@0", error), (kxvcam::StatusReport{2, milliseconds(0)}));
    EXPECT_EQ(kxvcam::ParseStatusReport(" 1 @ 60000 ", error), (kxvcam::StatusReport{1, milliseconds(60000)}));
    for (const char *bad : {"", "x", "1@", "@5", "1@60001", "1@-1", "-1", "1@5@6", "99999999999"}) {
        EXPECT_FALSE(kxvcam::ParseStatusReport(bad, error).has_value()) << bad;
    }
}

} // namespace
