// SPDX-License-Identifier: Apache-2.0
// The framework heap: alignment, accounting and the reuse of frame-sized
// blocks, which is what keeps a stream from page-faulting on every frame.
#include <cstdint>
#include <cstring>
#include <set>
#include <vector>

#include "support.h"
#include "talvo/talvo.h"

namespace {

using talvotest::PlatformTest;

constexpr size_t kFrame720p = 1280 * 720 * 3 / 2;

#if defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define MEMORY_TEST_SANITIZED 1
#endif
#endif
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__) || defined(MEMORY_TEST_SANITIZED)
constexpr bool kReuses = false; // the sanitizers see every block go
#else
constexpr bool kReuses = true;
#endif

class MemoryTest : public PlatformTest, public ::testing::WithParamInterface<size_t> {};

TEST_P(MemoryTest, BlocksAreAlignedWritableAndCounted)
{
    const int64_t before = TalvoTestOutstandingAllocs();
    std::vector<void *> blocks;
    for (int i = 0; i < 3; ++i) {
        void *block = TalvoMalloc(0, GetParam());
        ASSERT_NE(block, nullptr);
        EXPECT_EQ(reinterpret_cast<uintptr_t>(block) % alignof(std::max_align_t), 0u);
        std::memset(block, 0xa5, GetParam());
        blocks.push_back(block);
    }
    EXPECT_EQ(std::set<void *>(blocks.begin(), blocks.end()).size(), blocks.size());
    EXPECT_EQ(TalvoTestOutstandingAllocs(), before + 3);
    for (void *block : blocks) {
        TalvoFree(block);
    }
    EXPECT_EQ(TalvoTestOutstandingAllocs(), before);
}

// Small, just below the cached sizes, at them, a 720p frame, beyond the cache.
INSTANTIATE_TEST_SUITE_P(Sizes, MemoryTest,
                         ::testing::Values(size_t{0}, size_t{24}, size_t{256 << 10} - 1, size_t{256 << 10},
                                           kFrame720p, size_t{80} << 20));

// Sizes no heap can serve, among them those that round up past SIZE_MAX.
TEST_F(PlatformTest, SizesThatCannotBeServedGiveNull)
{
    const int64_t before = TalvoTestOutstandingAllocs();
    for (const size_t size : {SIZE_MAX, SIZE_MAX - 15, SIZE_MAX - (size_t{64} << 10) + 1, SIZE_MAX / 2 + 1}) {
        void *block = TalvoMalloc(0, size);
        EXPECT_EQ(block, nullptr) << size;
        TalvoFree(block);
    }
    EXPECT_EQ(TalvoTestOutstandingAllocs(), before);
}

TEST_F(PlatformTest, AFreedFrameBufferIsHandedOutAgainForTheSameSize)
{
    if (!kReuses) {
        GTEST_SKIP() << "blocks are not kept under the sanitizers";
    }
    // Four frames in flight, as on the raw road: each new one reuses a freed one.
    std::vector<void *> first;
    for (int i = 0; i < 4; ++i) {
        first.push_back(TalvoMalloc(0, kFrame720p));
    }
    const std::set<void *> seen(first.begin(), first.end());
    for (void *block : first) {
        TalvoFree(block);
    }
    for (int i = 0; i < 4; ++i) {
        void *again = TalvoMalloc(0, kFrame720p - 100); // same size class
        EXPECT_EQ(seen.count(again), 1u);
        TalvoFree(again);
    }
}

TEST_F(PlatformTest, SmallBlocksAndOtherSizeClassesAreNotServedFromFrameBlocks)
{
    if (!kReuses) {
        GTEST_SKIP() << "blocks are not kept under the sanitizers";
    }
    void *frame = TalvoMalloc(0, kFrame720p);
    TalvoFree(frame);
    void *bigger = TalvoMalloc(0, 2 * kFrame720p);
    void *small = TalvoMalloc(0, 64);
    EXPECT_NE(bigger, frame);
    EXPECT_NE(small, frame);
    std::memset(bigger, 1, 2 * kFrame720p); // must own all of it
    TalvoFree(bigger);
    TalvoFree(small);
}

} // namespace
