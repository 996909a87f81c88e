// SPDX-License-Identifier: Apache-2.0
// Messages about conditions that repeat with every frame are written at most
// once per second.
#pragma once

#include <cstdint>

#include "talvo/talvo.h"

namespace kx {

// True for the first call and then at most once per second for the same
// `lastUs`, which starts at 0; safe from any thread.
inline bool OncePerSecond(int64_t *lastUs)
{
    constexpr int64_t kSecondUs = 1000000;
    const int64_t now = TALVOSystemTimeUs();
    int64_t last = __atomic_load_n(lastUs, __ATOMIC_RELAXED);
    if (last != 0 && now - last < kSecondUs) {
        return false;
    }
    // 0 means "never"; a clock that reads 0 still counts as a time.
    return __atomic_compare_exchange_n(lastUs, &last, now != 0 ? now : 1, false, __ATOMIC_RELAXED, __ATOMIC_RELAXED);
}

} // namespace kx
