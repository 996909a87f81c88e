// SPDX-License-Identifier: Apache-2.0
// Copyright (C) 2026 The kxcamera authors
// Text helpers: length, comparison, number parsing and id masking.
#include "talvo/talvo.h"

#include <climits>
#include <cstring>
#include <string>

#include "support.h"

namespace talvotest {
namespace {

class TextTest : public PlatformTest {};

TEST_F(TextTest, StrlenAndStrcmpTakeMissingTexts)
{
    EXPECT_EQ(TALVOStrlen("Camera_12"), 9u);
    EXPECT_EQ(TALVOStrlen(nullptr), 0u);
    EXPECT_EQ(TALVOStrcmp("Camera_1", "Camera_1"), 0);
    EXPECT_LT(TALVOStrcmp("Camera_1", "Camera_2"), 0);
    EXPECT_GT(TALVOStrcmp("Camera_10", "Camera_1"), 0);
    // A missing text sorts first and equals nothing, not even another one.
    EXPECT_LT(TALVOStrcmp(nullptr, ""), 0);
    EXPECT_GT(TALVOStrcmp("", nullptr), 0);
    EXPECT_NE(TALVOStrcmp(nullptr, nullptr), 0);
}

TEST_F(TextTest, AtoiReadsLikeAtoiButSaturates)
{
    const std::pair<const char *, int32_t> cases[] = {{"1280", 1280},
                                                      {"  -42", -42},
                                                      {"25fps", 25},
                                                      {"abc", 0},
                                                      {nullptr, 0},
                                                      {"2147483647", INT32_MAX},
                                                      {"2147483648", INT32_MAX},
                                                      {"-2147483649", INT32_MIN},
                                                      {"99999999999999999999", INT32_MAX}};
    for (const auto &[text, value] : cases) {
        EXPECT_EQ(TalvoAtoi(text), value) << (text ? text : "(null)");
    }
}

class AnonyTest : public TextTest, public ::testing::WithParamInterface<std::pair<const char *, const char *>> {};

TEST_P(AnonyTest, KeepsAQuarterAtEachEndAndNeverShowsTheMiddle)
{
    const std::string text = GetParam().first;
    char out[32];
    ASSERT_EQ(TALVOAnonyString(text.c_str(), out, sizeof(out)), 0);
    EXPECT_STREQ(out, GetParam().second);
    const size_t keep = text.size() / 4;
    if (text.size() > 2) {
        EXPECT_EQ(std::string(out).find(text.substr(keep, text.size() - 2 * keep)), std::string::npos);
    }
}

INSTANTIATE_TEST_SUITE_P(Texts, AnonyTest,
                         ::testing::Values(std::pair{"", ""}, std::pair{"ab", "**"}, std::pair{"abc", "***"},
                                           std::pair{"abcd", "a**d"}, std::pair{"abcdefgh", "ab****gh"},
                                           std::pair{"Camera_12345678", "Cam*********678"}));

TEST_F(TextTest, AnonyRefusesMissingTextOrTooSmallOutput)
{
    char out[8] = "keep";
    EXPECT_NE(TALVOAnonyString(nullptr, out, sizeof(out)), 0);
    EXPECT_EQ(out[0], '\0');
    EXPECT_NE(TALVOAnonyString("abc", nullptr, 8), 0);
    std::strcpy(out, "keep");
    EXPECT_NE(TALVOAnonyString("abcdefgh", out, 8), 0) << "8 characters need 9 bytes";
    EXPECT_EQ(out[0], '\0');
    EXPECT_EQ(TALVOAnonyString("abcdefg", out, 8), 0);
    EXPECT_STREQ(out, "a*****g");
}

} // namespace
} // namespace talvotest
