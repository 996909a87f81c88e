// SPDX-License-Identifier: Apache-2.0
// Makes the encoder library slower on purpose, so that benchmarks and tests
// can see how the plugin behaves when its encoder falls behind or stalls.
#ifndef KXCAMERA_VENDOR_ENCODER_SLOWDOWN_H
#define KXCAMERA_VENDOR_ENCODER_SLOWDOWN_H

#include <cstdint>

namespace kxvendor {

// Frame numbers count an instance's Process calls from 0.
struct Slowdown {
    uint32_t delayMs = 0;              // added to every frame in the window below
    uint64_t delayFrom = 0;            // first delayed frame
    uint64_t delayFrames = UINT64_MAX; // how many frames are delayed
    uint32_t stallMs = 0;              // one stall of this length ...
    uint64_t stallAt = 0;              // ... before this frame

    // TALVO_VENC_DELAY_MS, TALVO_VENC_DELAY_FROM, TALVO_VENC_DELAY_FRAMES,
    // TALVO_VENC_STALL_MS and TALVO_VENC_STALL_AT; a malformed value is
    // reported on stderr and leaves its setting off.
    static Slowdown FromEnvironment();
    // Sleeps for as long as frame `frame` should be held up.
    void Hold(uint64_t frame) const;
};

} // namespace kxvendor

#endif // KXCAMERA_VENDOR_ENCODER_SLOWDOWN_H
