// SPDX-License-Identifier: Apache-2.0
// Status codes and the exception barrier shared by the reference vendor
// libraries. Statuses are negative errno values, so a caller that only logs
// them still gets a readable cause from strerror(-status).
#ifndef KXCAMERA_VENDOR_COMMON_VENDOR_COMMON_H
#define KXCAMERA_VENDOR_COMMON_VENDOR_COMMON_H

#include <cerrno>
#include <cstdint>
#include <new>

#define KX_VENDOR_EXPORT __attribute__((visibility("default")))

namespace kxvendor {

inline constexpr int32_t kOk = 0;
inline constexpr int32_t kBadArgument = -EINVAL;    // missing record, malformed value, size mismatch
inline constexpr int32_t kUnsupported = -ENOTSUP;   // a format, size, rate or item not offered
inline constexpr int32_t kNoSuchCamera = -ENODEV;   // unknown camera id
inline constexpr int32_t kNotReady = -EPERM;        // start before open, encode before configure
inline constexpr int32_t kBusy = -EBUSY;            // no instance left
inline constexpr int32_t kWouldDeadlock = -EDEADLK; // a camera stopped from its own capture thread
inline constexpr int32_t kNoMemory = -ENOMEM;
inline constexpr int32_t kDeviceError = -EIO; // the codec failed

// Runs the body of a C entry point; no exception may cross the C ABI.
template <typename Body> int32_t Guarded(Body &&body) noexcept
{
    try {
        return body();
    } catch (const std::bad_alloc &) {
        return kNoMemory;
    } catch (...) {
        return kDeviceError;
    }
}

} // namespace kxvendor

#endif // KXCAMERA_VENDOR_COMMON_VENDOR_COMMON_H
