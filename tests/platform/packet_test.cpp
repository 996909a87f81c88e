// SPDX-License-Identifier: Apache-2.0
// Copyright (C) 2026 The kxcamera authors
// Packets: exact bytes, refused overflows, and who frees the buffer.
#include "talvo/talvo.h"

#include <cstring>
#include <vector>

#include "support.h"

namespace talvotest {
namespace {

class PacketTest : public PlatformTest {};

TEST_F(PacketTest, IntegersAreBigEndianAndBytesAndStringsCarryNoFraming)
{
    TALVOPacket packet{};
    ASSERT_EQ(TALVOPacketInit(&packet, nullptr, 23), 0);
    const uint8_t raw[] = {0xde, 0x00, 0xbe};
    ASSERT_EQ(TALVOPacketWriteUint32(&packet, 0x01020304u), 0);
    ASSERT_EQ(TALVOPacketWriteInt32(&packet, -2), 0);
    ASSERT_EQ(TALVOPacketWriteBytes(&packet, raw, sizeof(raw)), 0);
    ASSERT_EQ(TALVOPacketWriteString(&packet, "Camera_01", 8), 0);
    ASSERT_EQ(TALVOPacketWriteInt32(&packet, 201), 0);
    const std::vector<uint8_t> expected = {1,   2,   3,   4,   0xff, 0xff, 0xff, 0xfe, 0xde, 0, 0xbe, 'C',
                                           'a', 'm', 'e', 'r', 'a',  '_',  '0',  0,    0,    0, 0xc9};
    EXPECT_EQ(std::vector<uint8_t>(packet.data, packet.data + packet.length), expected);
    EXPECT_EQ(TALVOPacketRelease(&packet), 0);
}

// (bytes already written, kind: 0 uint32, 1 int32, 2 bytes, 3 string; length of bytes or string)
class PacketOverflowTest : public PacketTest,
                           public ::testing::WithParamInterface<std::tuple<uint32_t, int, uint32_t>> {
protected:
    int32_t Write(TALVOPacket *packet)
    {
        static const char kData[] = "0123456789abcdef";
        const auto [used, kind, len] = GetParam();
        return kind == 0   ? TALVOPacketWriteUint32(packet, 0x11223344u)
               : kind == 1 ? TALVOPacketWriteInt32(packet, -1)
               : kind == 2 ? TALVOPacketWriteBytes(packet, reinterpret_cast<const uint8_t *>(kData), len)
                           : TALVOPacketWriteString(packet, kData, len);
    }
};

TEST_P(PacketOverflowTest, WriteBeyondTheCapacityWritesNothingAndFitsWithExactRoom)
{
    const auto [used, kind, len] = GetParam();
    const uint32_t need = kind < 2 ? 4 : len;
    uint8_t buffer[16];
    std::memset(buffer, 0x5a, sizeof(buffer));
    TALVOPacket packet{};
    ASSERT_EQ(TALVOPacketInit(&packet, buffer, used + need - 1), 0);
    packet.length = used;
    EXPECT_NE(Write(&packet), 0);
    EXPECT_EQ(packet.length, used);
    EXPECT_EQ(std::vector<uint8_t>(buffer, buffer + 16), std::vector<uint8_t>(16, 0x5a));
    ASSERT_EQ(TALVOPacketInit(&packet, buffer, used + need), 0);
    packet.length = used;
    EXPECT_EQ(Write(&packet), 0);
    EXPECT_EQ(packet.length, used + need);
}

INSTANTIATE_TEST_SUITE_P(Writes, PacketOverflowTest,
                         ::testing::Values(std::tuple{7u, 0, 0u}, std::tuple{0u, 1, 0u}, std::tuple{3u, 2, 8u},
                                           std::tuple{1u, 3, 10u}, std::tuple{10u, 2, 1u}));

TEST_F(PacketTest, ReleaseFreesOnlyTheBufferInitAllocated)
{
    const int64_t before = TalvoTestOutstandingAllocs();
    TALVOPacket owned{};
    ASSERT_EQ(TALVOPacketInit(&owned, nullptr, 32), 0);
    EXPECT_EQ(TalvoTestOutstandingAllocs(), before + 1) << "the packet heap is the counted one";
    EXPECT_EQ(TalvoTestCallCount(TALVO_FN_MALLOC), 0u) << "but it is not a TalvoMalloc call";
    EXPECT_EQ(TALVOPacketRelease(&owned), 0);
    EXPECT_EQ(TalvoTestOutstandingAllocs(), before);
    EXPECT_EQ(owned.data, nullptr);
    EXPECT_EQ(owned.capacity + owned.length, 0u);

    auto *callers = new uint8_t[8]; // on the heap, so a wrong free would be caught
    TALVOPacket borrowed{};
    ASSERT_EQ(TALVOPacketInit(&borrowed, callers, 8), 0);
    ASSERT_EQ(TALVOPacketWriteInt32(&borrowed, 0x0a0b0c0d), 0);
    EXPECT_NE(TALVOPacketWriteString(&borrowed, "ab", 3), 0) << "never reads past a text's terminator";
    EXPECT_EQ(TALVOPacketRelease(&borrowed), 0);
    EXPECT_EQ(callers[3], 0x0d);
    delete[] callers;

    EXPECT_NE(TALVOPacketInit(&owned, nullptr, 0), 0) << "nothing to allocate";
    EXPECT_NE(TALVOPacketWriteUint32(&owned, 1), 0) << "no buffer";
    EXPECT_NE(TALVOPacketRelease(nullptr), 0);
}

} // namespace
} // namespace talvotest
