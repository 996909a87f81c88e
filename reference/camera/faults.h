// SPDX-License-Identifier: Apache-2.0
// Faults a device maker's checker must catch, injected on request through
// KXVCAM_* variables read at every OpenCamera.
#ifndef KXCAMERA_VENDOR_CAMERA_FAULTS_H
#define KXCAMERA_VENDOR_CAMERA_FAULTS_H

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

#include "kxcamera/camera_handler.h"

namespace kxvcam {

struct Faults {
    uint32_t dropPercent = 0;             // KXVCAM_DROP_PERCENT, 0 to 100
    std::chrono::milliseconds stall{0};   // KXVCAM_STALL_MS, once, before frame kStallFrame
    std::optional<uint64_t> disconnectAt; // KXVCAM_DISCONNECT_AT, a frame index
    uint32_t lengthShortBy = 0;           // KXVCAM_BAD_LENGTH, raw frames only

    static constexpr uint64_t kStallFrame = 5;
    static constexpr std::chrono::milliseconds kOfflineTime{300};

    // Invalid values are reported on stderr and leave that fault off.
    static Faults FromEnvironment();

    // Drops are spread evenly: frame n goes when floor(n * p / 100) moves.
    bool Drops(uint64_t index) const { return (index + 1) * dropPercent / 100 != index * dropPercent / 100; }
};

// The listener the host registered, kept for the disconnect fault's reports.
void KeepListenerForFaults(const KxServiceListener &listener);
void ReportStatusForFaults(const std::string &id, uint32_t status);

} // namespace kxvcam

#endif // KXCAMERA_VENDOR_CAMERA_FAULTS_H
