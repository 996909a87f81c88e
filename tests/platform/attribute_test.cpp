// SPDX-License-Identifier: Apache-2.0
// Copyright (C) 2026 The kxcamera authors
// GetAttribute: top-level values of a JSON object as text; every failed
// lookup gives false and an empty value.
#include "talvo/talvo.h"

#include <cstring>
#include <string>

#include "support.h"

namespace talvotest {
namespace {

constexpr char kOpen[] = R"({"Width": 1280, "Height": 720, "ColorFormat": 2, "CodecType": 0})";
constexpr char kMixed[] = R"({"Name": "front \"cam\"", "Ratio": 0.5, "On": true, "None": null,)"
                          R"( "Size": {"Width": 640}, "List": [1, "a"]})";

struct Lookup {
    const char *text;
    const char *key;
    uint32_t size;
    const char *value; // null: not found
};

class AttributeTest : public PlatformTest, public ::testing::WithParamInterface<Lookup> {};

TEST_P(AttributeTest, GivesTheValueAsTextOrFalse)
{
    const Lookup &c = GetParam();
    char value[64];
    std::memset(value, 'X', sizeof(value));
    EXPECT_EQ(GetAttribute(c.text, c.key, value, c.size), c.value != nullptr);
    EXPECT_STREQ(value, c.value != nullptr ? c.value : "");
    EXPECT_EQ(value[c.size], 'X') << "nothing is written past the given size";
}

INSTANTIATE_TEST_SUITE_P(
    Lookups, AttributeTest,
    ::testing::Values(Lookup{kOpen, "Width", 50, "1280"}, Lookup{kOpen, "CodecType", 50, "0"},
                      Lookup{R"({"Fps": 25})", "Fps", 50, "25"}, Lookup{kOpen, "Fps", 50, nullptr},
                      Lookup{kOpen, "width", 50, nullptr}, Lookup{kMixed, "Width", 50, nullptr}, // nested only
                      Lookup{kMixed, "Name", 50, "front \"cam\""}, Lookup{kMixed, "Ratio", 50, "0.5"},
                      Lookup{kMixed, "On", 50, "true"}, Lookup{kMixed, "None", 50, ""},
                      Lookup{kMixed, "Size", 50, R"({"Width":640})"}, Lookup{kMixed, "List", 50, R"([1,"a"])"},
                      Lookup{kOpen, "Width", 5, "1280"}, Lookup{kOpen, "Width", 4, nullptr}, // fit, one short
                      Lookup{R"({"Width": 1280,)", "Width", 50, nullptr}, Lookup{"Width=1280", "Width", 50, nullptr},
                      Lookup{R"([{"Width": 1280}])", "Width", 50, nullptr}, Lookup{"", "Width", 50, nullptr},
                      Lookup{nullptr, "Width", 50, nullptr}, Lookup{kOpen, nullptr, 50, nullptr}));

TEST(AttributeBufferTest, MissingOrEmptyValueBufferIsNotWritten)
{
    char value[4] = "old";
    EXPECT_FALSE(GetAttribute(kOpen, "Width", value, 0));
    EXPECT_STREQ(value, "old");
    EXPECT_FALSE(GetAttribute(kOpen, "Width", nullptr, 8));
}

} // namespace
} // namespace talvotest
