// SPDX-License-Identifier: Apache-2.0
// Text: comparison, numbers, id masking, JSON attributes and the
// bounds-checked functions, each at its exact room boundary.
#include "talvo/securec.h"

#include <climits>
#include <cstring>
#include <string>
#include <utility>

#include "support.h"

namespace {

using namespace talvotest;

const char *volatile g_null = nullptr; // a null the compiler cannot see

TEST_F(PlatformTest, TextHelpersTakeMissingTextsAndSaturate)
{
    EXPECT_EQ(TALVOStrlen("Camera_12") + TALVOStrlen(nullptr), 9u);
    EXPECT_EQ(TALVOStrcmp("Camera_1", "Camera_1"), 0);
    EXPECT_LT(TALVOStrcmp("Camera_1", "Camera_2"), 0);
    EXPECT_GT(TALVOStrcmp("Camera_10", "Camera_1"), 0);
    // A missing text sorts first and equals nothing, not even another one.
    EXPECT_LT(TALVOStrcmp(nullptr, ""), 0);
    EXPECT_GT(TALVOStrcmp("", nullptr), 0);
    EXPECT_NE(TALVOStrcmp(nullptr, nullptr), 0);
    const std::pair<const char *, int32_t> numbers[] = {
        {"  -42", -42}, {"25fps", 25}, {"abc", 0}, {nullptr, 0}, {"2147483648", INT32_MAX}, {"-2147483649", INT32_MIN}};
    for (const auto &[text, value] : numbers) {
        EXPECT_EQ(TalvoAtoi(text), value) << (text ? text : "(null)");
    }
}

// What a call leaves in a room of 8 bytes followed by 4 that must not change:
// masking and attributes write text, the bounds-checked functions anything.
struct Room {
    const char *name;
    const char *before; // the room's 8 bytes
    int (*call)(char *room);
    int result;
    const char *after; // '.': any byte
};

class RoomTest : public PlatformTable<Room> {};

TEST_P(RoomTest, FillsTheRoomOrReportsTheViolationLeavingItAsSpecified)
{
    const Room &c = GetParam();
    char buf[12];
    std::memcpy(buf, c.before, 8);
    std::memset(buf + 8, '#', 4);
    EXPECT_EQ(c.call(buf), c.result) << c.name;
    std::string room(buf, 8);
    for (size_t i = 0; i < 8; ++i) {
        room[i] = c.after[i] == '.' ? '.' : room[i];
    }
    EXPECT_EQ(room, std::string(c.after, 8)) << c.name;
    EXPECT_EQ(std::string(buf + 8, 4), "####") << c.name << ": written past the room";
}

constexpr char kFree[] = "########";
constexpr char kZeroed[] = "\0\0\0\0\0\0\0\0";
constexpr char kSize[] = R"({"Width": 1280, "Name": "front \"cam\"", "On": true, "None": null, "Size": {"W": 6}})";

int Attribute(char *b, const char *key, uint32_t size = 8)
{
    return GetAttribute(kSize, key, b, size) ? 0 : -1;
}

INSTANTIATE_TEST_SUITE_P(
    Calls, RoomTest,
    ::testing::Values(
        // A quarter of an id kept at each end; the size counts the terminator.
        Room{"anony", kFree, [](char *b) { return TALVOAnonyString("abcdefg", b, 8); }, 0, "a*****g\0"},
        Room{"anony short", kFree, [](char *b) { return TALVOAnonyString("abc", b, 8); }, 0, "***\0####"},
        Room{"anony beyond", kFree, [](char *b) { return TALVOAnonyString("abcdefgh", b, 8); }, ERANGE, "\0#######"},
        Room{"anony null", kFree, [](char *b) { return TALVOAnonyString(g_null, b, 8); }, EINVAL, "\0#######"},
        // Top-level values as text; anything else is false and empty.
        Room{"attr number", kFree, [](char *b) { return Attribute(b, "Width", 5); }, 0, "1280\0###"},
        Room{"attr one short", kFree, [](char *b) { return Attribute(b, "Width", 4); }, -1, "\0#######"},
        Room{"attr string", kFree, [](char *b) { return GetAttribute(R"({"a": "x\"y"})", "a", b, 8) ? 0 : -1; }, 0, "x\"y\0####"},
        Room{"attr null", kFree, [](char *b) { return Attribute(b, "None"); }, 0, "\0#######"},
        Room{"attr object", kFree, [](char *b) { return Attribute(b, "Size"); }, 0, "{\"W\":6}\0"},
        Room{"attr nested", kFree, [](char *b) { return Attribute(b, "W"); }, -1, "\0#######"},
        Room{"attr broken", kFree, [](char *b) { return GetAttribute(R"({"W": 1,)", "W", b, 8) ? 0 : -1; }, -1, "\0#######"},
        Room{"attr no text", kFree, [](char *b) { return GetAttribute(g_null, "W", b, 8) ? 0 : -1; }, -1, "\0#######"},
        Room{"attr no room", kFree, [](char *b) { return Attribute(b, "On", 0); }, -1, kFree},
        Room{"sprintf fits", kFree, [](char *b) { return sprintf_s(b, 8, "%s-%d", "abcd", 42); }, 7, "abcd-42\0"},
        Room{"sprintf beyond", kFree, [](char *b) { return sprintf_s(b, 8, "%s-%d", "abcde", 42); }, -1, "\0......."},
        // A negative room computed in signed arithmetic arrives as a huge size.
        Room{"sprintf huge", kFree, [](char *b) { return sprintf_s(b, static_cast<rsize_t>(-5), "%d", 1); }, 0, kFree},
        Room{"sprintf no room", kFree, [](char *b) { return sprintf_s(b, 0, "%d", 1); }, 0, kFree},
        Room{"sprintf %n", kFree, [](char *b) { int n = 0; return sprintf_s(b, 8, "ab%n", &n) + n; }, 0, "\0#######"},
        Room{"sprintf null", kFree, [](char *b) { return sprintf_s(b, 8, "%5.2f|%c|%ld|%s", 1.5, 'q', 7L, g_null); }, 0,
             "\0#######"},
        Room{"strcpy fits", kFree, [](char *b) { return strcpy_s(b, 8, "1234567"); }, 0, "1234567\0"},
        Room{"strcpy beyond", kFree, [](char *b) { return strcpy_s(b, 8, "12345678"); }, ERANGE, "\0......."},
        Room{"strcpy null", "abc\0####", [](char *b) { return strcpy_s(b, 8, g_null); }, EINVAL, "\0bc\0####"},
        Room{"strcpy overlap", "abc\0####", [](char *b) { return strcpy_s(b + 1, 7, b); }, EINVAL, "a\0c\0####"},
        Room{"strcpy huge", "abc\0####", [](char *b) { return strcpy_s(b, RSIZE_MAX + 1, "x"); }, ERANGE, "abc\0####"},
        Room{"strcat fits", "abc\0####", [](char *b) { return strcat_s(b, 8, "defg"); }, 0, "abcdefg\0"},
        Room{"strcat beyond", "abc\0####", [](char *b) { return strcat_s(b, 8, "defgh"); }, ERANGE, "\0......."},
        Room{"strcat unended", "aaaaaaaa", [](char *b) { return strcat_s(b, 8, ""); }, EINVAL, "\0aaaaaaa"},
        Room{"strcat overlap", "ab\0#####", [](char *b) { return strcat_s(b, 8, b); }, EINVAL, "\0b\0#####"},
        Room{"strcat no room", "ab\0#####", [](char *b) { return strcat_s(b, 0, "c"); }, ERANGE, "ab\0#####"},
        Room{"memcpy fits", kFree, [](char *b) { return memcpy_s(b, 8, "0123456789", 2); }, 0, "01######"},
        Room{"memcpy beyond", kFree, [](char *b) { return memcpy_s(b, 8, "0123456789", 9); }, ERANGE, kZeroed},
        Room{"memcpy overlap", kFree, [](char *b) { return memcpy_s(b, 8, b + 2, 4); }, EINVAL, kZeroed},
        Room{"memcpy null", kFree, [](char *b) { return memcpy_s(b, 8, g_null, 1); }, EINVAL, kZeroed},
        Room{"memcpy huge", kFree, [](char *b) { return memcpy_s(b, RSIZE_MAX + 1, "a", 1); }, ERANGE, kFree},
        Room{"memset fits", kFree, [](char *b) { return memset_s(b, 8, 'z', 3); }, 0, "zzz#####"},
        Room{"memset beyond", kFree, [](char *b) { return memset_s(b, 8, 'y', 9); }, ERANGE, "yyyyyyyy"},
        Room{"memset huge", kFree, [](char *b) { return memset_s(b, RSIZE_MAX + 1, 'x', 1); }, ERANGE, kFree},
        Room{"no room at all", kFree, [](char *) { return memcpy_s(nullptr, 8, "a", 1) + memset_s(nullptr, 8, 0, 1) +
                                                          sprintf_s(nullptr, 8, "%d", 1) + TALVOAnonyString("a", nullptr, 8) +
                                                          GetAttribute(kSize, "On", nullptr, 8); }, 3 * EINVAL, kFree}));

TEST_F(PlatformTest, SprintfWalksEveryKindOfConversionToFindANullString)
{
    char out[64];
    const int n = sprintf_s(out, sizeof(out), "%*d|%.*s|%lld|%zu|%hhd|%%|%Lg|%p|%s", 4, 7, 2, "abc", 1LL << 40,
                            static_cast<size_t>(3), 65, 2.5L, static_cast<void *>(out), "end");
    EXPECT_EQ(n, static_cast<int>(std::strlen(out)));
    EXPECT_EQ(std::string(out).rfind("   7|ab|1099511627776|3|65|%|2.5|0x", 0), 0u) << out;
    EXPECT_EQ(sprintf_s(out, sizeof(out), "%*d|%.*s|%lld|%zu|%hhd|%%|%Lg|%p|%s", 4, 7, 2, "abc", 1LL << 40,
                        static_cast<size_t>(3), 65, 2.5L, static_cast<void *>(out), g_null),
              0);
}

} // namespace
