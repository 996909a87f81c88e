// SPDX-License-Identifier: Apache-2.0
// The framework heap: malloc with a count of outstanding blocks, and a small
// cache of large blocks.
//
// Video frames of 1-3 MB are allocated and freed on every frame, several in
// flight at once on different threads. malloc serves them from the heap top
// and gives the pages back to the kernel whenever the top grows past its trim
// threshold, so without the cache most frames page-faulted on every page of
// their buffer. A freed large block is kept instead, and the next request of
// the same size class takes it back with its pages still mapped.
#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <mutex>

#include "internal.h"

namespace talvo {
namespace {

std::atomic<int64_t> g_outstanding{0};

// Every block carries its capacity in front, so that a free knows whether it
// may keep the block; the header keeps the payload aligned like malloc's.
constexpr size_t kHeaderSize = alignof(std::max_align_t);
static_assert(kHeaderSize >= sizeof(size_t));

// Blocks from 256 KiB are cached, their sizes rounded up to 64 KiB so that
// frames of one stream land in one class. At most 8 blocks and 64 MiB wait.
constexpr size_t kCacheMinBytes = size_t{256} << 10;
constexpr size_t kCacheGranule = size_t{64} << 10;
constexpr size_t kCacheSlots = 8;
constexpr size_t kCacheMaxBytes = size_t{64} << 20;

// The sanitizers must see every free to catch a use after it. GCC defines
// the macros, clang answers __has_feature.
#if defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define TALVO_HEAP_SANITIZED 1
#endif
#endif
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__) || defined(TALVO_HEAP_SANITIZED)
constexpr bool kCacheEnabled = false;
#else
constexpr bool kCacheEnabled = true;
#endif

struct BlockCache {
    std::mutex lock;
    std::array<void *, kCacheSlots> blocks{}; // raw blocks, header included
    std::array<size_t, kCacheSlots> capacities{};
    size_t count = 0;
    size_t bytes = 0;

    // Takes entry i out, keeping the others oldest first.
    void RemoveAt(size_t i)
    {
        bytes -= capacities[i];
        --count;
        for (; i < count; ++i) {
            blocks[i] = blocks[i + 1];
            capacities[i] = capacities[i + 1];
        }
    }

    void DropOldest()
    {
        std::free(blocks[0]);
        RemoveAt(0);
    }
};

// Never destroyed: a block may be freed by a static destructor or a thread
// that outlives main. What waits in it stays reachable and bounded.
BlockCache &Cache()
{
    static BlockCache *cache = new BlockCache;
    return *cache;
}

// TALVO_HEAP_CACHE=0 turns the cache off for a run under a memory checker,
// which must see every free as well.
bool CacheOn()
{
    static const bool on = [] {
        const char *text = std::getenv("TALVO_HEAP_CACHE");
        return kCacheEnabled && (text == nullptr || text[0] != '0');
    }();
    return on;
}

// No object may span more than PTRDIFF_MAX bytes, so anything above, header
// and rounding included, is refused before it reaches the arithmetic below
// (rounding a size near SIZE_MAX up would wrap to 0) or malloc.
constexpr size_t kLargestRequest = PTRDIFF_MAX - kHeaderSize - kCacheGranule;

size_t CapacityFor(size_t size)
{
    if (!CacheOn() || size < kCacheMinBytes) {
        return size == 0 ? 1 : size;
    }
    return (size + kCacheGranule - 1) / kCacheGranule * kCacheGranule;
}

void *TakeCached(size_t capacity)
{
    BlockCache &cache = Cache();
    std::lock_guard<std::mutex> guard(cache.lock);
    // Newest first: its pages are the most likely to be in the caches.
    for (size_t i = cache.count; i-- > 0;) {
        if (cache.capacities[i] == capacity) {
            void *raw = cache.blocks[i];
            cache.RemoveAt(i);
            return raw;
        }
    }
    return nullptr;
}

bool KeepCached(void *raw, size_t capacity)
{
    if (capacity > kCacheMaxBytes) {
        return false;
    }
    BlockCache &cache = Cache();
    std::lock_guard<std::mutex> guard(cache.lock);
    // The oldest go first: a stream that changed size leaves its old class.
    while (cache.count == kCacheSlots || cache.bytes + capacity > kCacheMaxBytes) {
        cache.DropOldest();
    }
    cache.blocks[cache.count] = raw;
    cache.capacities[cache.count] = capacity;
    ++cache.count;
    cache.bytes += capacity;
    return true;
}

} // namespace

void *AllocCounted(size_t size)
{
    // malloc(0) may legally return NULL; a caller that asked for nothing
    // still gets a block of its own, so NULL always means failure.
    if (size > kLargestRequest) {
        return nullptr;
    }
    const size_t capacity = CapacityFor(size);
    void *raw = capacity >= kCacheMinBytes && CacheOn() ? TakeCached(capacity) : nullptr;
    if (raw == nullptr) {
        raw = std::malloc(kHeaderSize + capacity);
    }
    if (raw == nullptr) {
        return nullptr;
    }
    *static_cast<size_t *>(raw) = capacity;
    g_outstanding.fetch_add(1, std::memory_order_relaxed);
    return static_cast<unsigned char *>(raw) + kHeaderSize;
}

void FreeCounted(void *block)
{
    if (block == nullptr) {
        return;
    }
    void *raw = static_cast<unsigned char *>(block) - kHeaderSize;
    const size_t capacity = *static_cast<const size_t *>(raw);
    g_outstanding.fetch_sub(1, std::memory_order_relaxed);
    if (capacity >= kCacheMinBytes && CacheOn() && KeepCached(raw, capacity)) {
        return;
    }
    std::free(raw);
}

} // namespace talvo

void *TalvoMalloc(uint32_t type, size_t size)
{
    (void)type;
    if (talvo::CallFails(TALVO_FN_MALLOC)) {
        return nullptr;
    }
    return talvo::AllocCounted(size);
}

void TalvoFree(void *ptr)
{
    talvo::FreeCounted(ptr);
}

int64_t TalvoTestOutstandingAllocs(void)
{
    return talvo::g_outstanding.load(std::memory_order_relaxed);
}
