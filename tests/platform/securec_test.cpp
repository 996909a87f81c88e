// SPDX-License-Identifier: Apache-2.0
// Copyright (C) 2026 The kxcamera authors
// Bounds-checked functions: the exact room boundary, and what each does to
// its destination on a runtime-constraint violation.
#include "talvo/securec.h"

#include <cstring>
#include <string>

#include "support.h"

namespace talvotest {
namespace {

constexpr rsize_t kRoom = 8;
const char *volatile g_null = nullptr; // a null the compiler cannot see

// An 8-byte destination followed by guard bytes that must never change.
class SecurecTest : public PlatformTest {
protected:
    void SetUp() override
    {
        PlatformTest::SetUp();
        std::memset(buf_, '#', sizeof(buf_));
    }
    void TearDown() override
    {
        EXPECT_EQ(std::string(buf_ + kRoom, 4), "####") << "written past the room";
        PlatformTest::TearDown();
    }
    std::string Room() const { return std::string(buf_, kRoom); }
    char buf_[kRoom + 4];
};

TEST_F(SecurecTest, SprintfFitsRoomMinusOneAndFailsNegativeOneBeyond)
{
    EXPECT_EQ(sprintf_s(buf_, kRoom, "%s-%d", "abcd", 42), 7);
    EXPECT_STREQ(buf_, "abcd-42");
    EXPECT_LT(sprintf_s(buf_, kRoom, "%s-%d", "abcde", 42), 0);
    EXPECT_EQ(buf_[0], '\0');
}

TEST_F(SecurecTest, SprintfOtherViolationsReturnZero)
{
    // A negative room computed in signed arithmetic arrives as a huge size:
    // no byte may be written at all.
    EXPECT_EQ(sprintf_s(buf_, static_cast<rsize_t>(-5), "%d", 1), 0);
    EXPECT_EQ(sprintf_s(buf_, 0, "%d", 1), 0);
    EXPECT_EQ(Room(), "########");
    EXPECT_EQ(sprintf_s(nullptr, kRoom, "%d", 1), 0);

    int count = 0;
    EXPECT_EQ(sprintf_s(buf_, kRoom, "ab%n", &count), 0);
    EXPECT_EQ(buf_[0], '\0');
    EXPECT_EQ(count, 0) << "%n is not carried out";
    buf_[0] = '#';
    EXPECT_EQ(sprintf_s(buf_, kRoom, "%5.2f|%c|%ld|%s", 1.5, 'q', 7L, g_null), 0) << "null %s";
    EXPECT_EQ(buf_[0], '\0');
    buf_[0] = '#';
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
#pragma GCC diagnostic ignored "-Wformat-security"
    EXPECT_EQ(sprintf_s(buf_, kRoom, g_null), 0);
#pragma GCC diagnostic pop
    EXPECT_EQ(buf_[0], '\0');
}

TEST_F(SecurecTest, SprintfFindsANullStringBehindEveryKindOfConversion)
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

TEST_F(SecurecTest, StrcpyFitsRoomMinusOneAndEmptiesTheDestinationBeyond)
{
    EXPECT_EQ(strcpy_s(buf_, kRoom, "1234567"), 0);
    EXPECT_STREQ(buf_, "1234567");
    EXPECT_NE(strcpy_s(buf_, kRoom, "12345678"), 0);
    EXPECT_EQ(buf_[0], '\0');
    std::strcpy(buf_, "abc");
    EXPECT_NE(strcpy_s(buf_, kRoom, g_null), 0);
    EXPECT_EQ(buf_[0], '\0');
    std::strcpy(buf_, "abc");
    EXPECT_NE(strcpy_s(buf_ + 1, kRoom - 1, buf_), 0) << "overlap";
    EXPECT_NE(strcpy_s(buf_, RSIZE_MAX + 1, "a"), 0);
    EXPECT_EQ(buf_[0], 'a') << "an out-of-range size allows no write";
}

TEST_F(SecurecTest, StrcatFitsRoomMinusOneAndEmptiesTheDestinationBeyond)
{
    std::strcpy(buf_, "abc");
    EXPECT_EQ(strcat_s(buf_, kRoom, "defg"), 0);
    EXPECT_STREQ(buf_, "abcdefg");
    std::strcpy(buf_, "abc");
    EXPECT_NE(strcat_s(buf_, kRoom, "defgh"), 0);
    EXPECT_EQ(buf_[0], '\0');
    std::memset(buf_, 'a', kRoom);
    EXPECT_NE(strcat_s(buf_, kRoom, ""), 0) << "no terminator within the room";
    EXPECT_EQ(buf_[0], '\0');
    std::strcpy(buf_, "ab");
    EXPECT_NE(strcat_s(buf_, kRoom, buf_), 0) << "overlap";
    std::strcpy(buf_, "ab");
    EXPECT_NE(strcat_s(buf_, 0, "c"), 0);
    EXPECT_STREQ(buf_, "ab");
}

TEST_F(SecurecTest, MemcpyAboveTheRoomZeroesTheWholeRoom)
{
    EXPECT_EQ(memcpy_s(buf_, kRoom, "0123456789", 2), 0);
    EXPECT_EQ(Room(), "01######");
    EXPECT_NE(memcpy_s(buf_, kRoom, "0123456789", kRoom + 1), 0);
    EXPECT_EQ(Room(), std::string(kRoom, '\0'));
    std::memset(buf_, '#', kRoom);
    EXPECT_NE(memcpy_s(buf_, kRoom, buf_ + 2, 4), 0) << "overlap";
    EXPECT_EQ(Room(), std::string(kRoom, '\0'));
    std::memset(buf_, '#', kRoom);
    EXPECT_NE(memcpy_s(buf_, RSIZE_MAX + 1, "a", 1), 0);
    EXPECT_NE(memcpy_s(nullptr, kRoom, "a", 1), 0);
    EXPECT_EQ(Room(), "########");
}

TEST_F(SecurecTest, MemsetAboveTheRoomStillSetsTheRoomThenFails)
{
    EXPECT_EQ(memset_s(buf_, kRoom, 'z', 3), 0);
    EXPECT_EQ(Room(), "zzz#####");
    EXPECT_NE(memset_s(buf_, kRoom, 'y', kRoom + 1), 0);
    EXPECT_EQ(Room(), "yyyyyyyy");
    EXPECT_NE(memset_s(buf_, RSIZE_MAX + 1, 'x', 1), 0);
    EXPECT_EQ(Room(), "yyyyyyyy");
    EXPECT_NE(memset_s(nullptr, kRoom, 0, 1), 0);
}

} // namespace
} // namespace talvotest
