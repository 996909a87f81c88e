// SPDX-License-Identifier: Apache-2.0
// Allocation helpers over the framework allocator; nothing in the plugin uses
// another heap.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "talvo/talvo.h"

namespace kx {

// The framework's pool tag for every allocation of this plugin.
inline constexpr uint32_t kMallocType = 2;

inline void *Alloc(size_t size)
{
    return TalvoMalloc(kMallocType, size);
}

// A zeroed T, or null.
template <typename T> T *AllocZeroed()
{
    void *block = Alloc(sizeof(T));
    if (block != nullptr) {
        std::memset(block, 0, sizeof(T));
    }
    return static_cast<T *>(block);
}

// Frees a block and clears the pointer that held it.
template <typename T> void FreeAndClear(T *&block)
{
    TalvoFree(block);
    block = nullptr;
}

} // namespace kx
