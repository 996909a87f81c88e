// SPDX-License-Identifier: Apache-2.0
// Copyright (C) 2026 The kxcamera authors
// The framework heap: malloc with a count of outstanding blocks.
#include <atomic>
#include <cstdlib>

#include "internal.h"

namespace talvo {
namespace {

std::atomic<int64_t> g_outstanding{0};

} // namespace

void *AllocCounted(size_t size)
{
    // malloc(0) may legally return NULL; a caller that asked for nothing
    // still gets a block of its own, so NULL always means failure.
    void *block = std::malloc(size == 0 ? 1 : size);
    if (block != nullptr) {
        g_outstanding.fetch_add(1, std::memory_order_relaxed);
    }
    return block;
}

void FreeCounted(void *block)
{
    if (block == nullptr) {
        return;
    }
    std::free(block);
    g_outstanding.fetch_sub(1, std::memory_order_relaxed);
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

void TalvoFree(void *ptr) { talvo::FreeCounted(ptr); }

int64_t TalvoTestOutstandingAllocs(void) { return talvo::g_outstanding.load(std::memory_order_relaxed); }
