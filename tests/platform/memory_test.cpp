// SPDX-License-Identifier: Apache-2.0
// Memory and the structures built on it: the heap, packets and lists.
#include <cstdint>
#include <cstring>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include "support.h"

namespace {

using namespace talvotest;

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kKeepsFrames = false; // the sanitizers must see every block go
#else
constexpr bool kKeepsFrames = true;
#endif

// size -> served (aligned, writable, distinct, counted until freed; or NULL),
// and whether a freed block serves the next request of its size: frames are
// kept so that their pages stay mapped.
class HeapTest : public PlatformTable<std::tuple<size_t, bool, bool>> {};

TEST_P(HeapTest, ServedBlocksAreAlignedWritableDistinctAndCountedUntilFreed)
{
    const auto [size, served, kept] = GetParam();
    const int64_t before = TalvoTestOutstandingAllocs();
    std::set<void *> blocks;
    for (int i = 0; i < 3; ++i) {
        void *block = TalvoMalloc(0, size);
        ASSERT_EQ(block != nullptr, served) << size;
        if (block != nullptr) {
            EXPECT_EQ(reinterpret_cast<uintptr_t>(block) % alignof(std::max_align_t), 0u);
            blocks.insert(std::memset(block, 0xa5, size));
        }
    }
    EXPECT_EQ(TalvoTestOutstandingAllocs() - before, served ? 3 : 0);
    EXPECT_EQ(blocks.size(), served ? 3u : 0u);
    for (void *block : blocks) {
        TalvoFree(block);
    }
    void *again = TalvoMalloc(0, size);
    EXPECT_TRUE(!kept || !kKeepsFrames || blocks.count(again) == 1) << "a freed frame block is kept for the next";
    TalvoFree(again);
    EXPECT_EQ(TalvoTestOutstandingAllocs(), before);
}

// Around the cached sizes, a 720p frame, beyond the cache; then sizes no heap
// serves, among them those that would round up past SIZE_MAX.
INSTANTIATE_TEST_SUITE_P(Sizes, HeapTest,
                         ::testing::Values(std::tuple{0, true, false}, std::tuple{(256 << 10) - 1, true, false},
                                           std::tuple{256 << 10, true, true},
                                           std::tuple{1280 * 720 * 3 / 2, true, true},
                                           std::tuple{size_t{80} << 20, true, false},
                                           std::tuple{SIZE_MAX, false, false}, std::tuple{SIZE_MAX - 15, false, false},
                                           std::tuple{SIZE_MAX - 40000, false, false},
                                           std::tuple{SIZE_MAX / 2 + 1, false, false}));

// Filled to the exact capacity, then refused; a buffer of its own freed on release.
TEST_F(PlatformTest, PacketIntegersAreBigEndianAndOnlyTheBufferInitAllocatedIsFreed)
{
    const int64_t before = TalvoTestOutstandingAllocs();
    TALVOPacket packet{};
    ASSERT_EQ(TALVOPacketInit(&packet, nullptr, 23), 0);
    EXPECT_EQ(TalvoTestOutstandingAllocs(), before + 1) << "the packet heap is the counted one";
    const uint8_t raw[] = {0xde, 0x00, 0xbe};
    EXPECT_EQ(TALVOPacketWriteUint32(&packet, 0x01020304u) + TALVOPacketWriteInt32(&packet, -2) +
                  TALVOPacketWriteBytes(&packet, raw, sizeof(raw)) + TALVOPacketWriteString(&packet, "Camera_01", 8) +
                  TALVOPacketWriteInt32(&packet, 201),
              0);
    EXPECT_EQ(std::string(packet.data, packet.data + packet.length), std::string("\1\2\3\4\xff\xff\xff\xfe\xde\0\xbe"
                                                                                 "Camera_0\0\0\0\xc9",
                                                                                 23));
    EXPECT_EQ(TALVOPacketWriteBytes(&packet, raw, 1) + TALVOPacketWriteInt32(&packet, 1), 2 * ENOSPC) << "full";
    EXPECT_EQ(packet.length, 23u);
    EXPECT_EQ(TALVOPacketRelease(&packet), 0);
    EXPECT_EQ(TalvoTestOutstandingAllocs(), before);
    EXPECT_EQ(packet.data, nullptr);

    auto *callers = new uint8_t[8]; // on the heap, so a wrong free would be caught
    ASSERT_EQ(TALVOPacketInit(&packet, callers, 8), 0);
    EXPECT_EQ(TALVOPacketWriteString(&packet, "ab", 3), EINVAL) << "never reads past a text's terminator";
    EXPECT_EQ(TALVOPacketRelease(&packet), 0);
    delete[] callers;
    EXPECT_EQ(TALVOPacketInit(&packet, nullptr, 0), EINVAL) << "nothing to allocate";
    EXPECT_EQ(TALVOPacketWriteUint32(&packet, 1), EINVAL) << "no buffer";
}

TEST_F(PlatformTest, ListInsertsAfterTheGivenNodeAndGetTakesTheFirst)
{
    TALVODllHead head{}; // zeroed: empty, linked to itself on the first insert
    auto *self = reinterpret_cast<TALVODllNode *>(&head);
    TALVODllNode nodes[4]{};
    // Node indexes walking next from the head, then prev from its end.
    auto links = [&] {
        std::string text;
        for (TALVODllNode *n = head.first; n != self && text.size() < 9; n = n->next) {
            text += static_cast<char>('0' + (n - nodes));
        }
        for (TALVODllNode *n = head.last; n != self && text.size() < 18; n = n->prev) {
            text += static_cast<char>('0' + (n - nodes));
        }
        return text + "/" + std::to_string(head.count);
    };
    EXPECT_EQ(TALVODllGet(&head), nullptr);
    ASSERT_EQ(TALVODllInsertInMiddle(&head, self, &nodes[0]), 0);
    ASSERT_EQ(TALVODllInsertInMiddle(&head, head.last, &nodes[1]), 0); // append
    ASSERT_EQ(TALVODllInsertInMiddle(&head, self, &nodes[2]), 0);      // in front
    ASSERT_EQ(TALVODllInsertInMiddle(&head, &nodes[0], &nodes[3]), 0); // in the middle
    EXPECT_EQ(links(), "20311302/4");
    EXPECT_EQ(TALVODllInsertInMiddle(nullptr, self, &nodes[0]) + TALVODllInsertInMiddle(&head, nullptr, &nodes[0]) +
                  TALVODllInsertInMiddle(&head, self, nullptr),
              3 * EINVAL);
    EXPECT_EQ(TALVODllGet(&head), &nodes[2]);
    EXPECT_EQ(TALVODllGet(&head), &nodes[0]);
    EXPECT_EQ(links(), "3113/2");
    EXPECT_EQ(TALVODllGet(&head), &nodes[3]);
    EXPECT_EQ(TALVODllGet(&head), &nodes[1]);
    EXPECT_EQ(links(), "/0");
    EXPECT_EQ(TALVODllGet(&head), nullptr);
    EXPECT_EQ(TALVODllGet(nullptr), nullptr);
}

} // namespace
