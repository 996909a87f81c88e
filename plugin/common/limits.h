// SPDX-License-Identifier: Apache-2.0
// Limits and defaults used inside the plugin; the exported constants are
// defined from these so the two can never disagree.
#pragma once

#include <cstdint>

namespace kx {

inline constexpr int32_t kDefaultFps = 30;
inline constexpr int32_t kDefaultFrameRate = 30;
inline constexpr int32_t kMaxFrameRate = 120;
inline constexpr int32_t kDefaultIInterval = 60;
inline constexpr int32_t kVencSleepMs = 3;
inline constexpr int32_t kMaxVideoDataLength = 52428800;
inline constexpr int32_t kMaxCameraAbilityCount = 10;
// The raw-frame queue's bound: a burst of several frames fits, a backlog does not.
inline constexpr int32_t kVencQueueMaxFrames = 16;
inline constexpr int32_t kVencQueueMaxBytes = 64 << 20;
inline constexpr int32_t kVencQueueMaxAgeIntervals = 2;
inline constexpr int32_t kBitsPerPixel12 = 12;
inline constexpr int32_t kBitsPerPixel16 = 16;
inline constexpr int32_t kBitsPerPixel24 = 24;
inline constexpr int32_t kBitPerByte = 8;
inline constexpr int32_t kModuleDevice = 3;
inline constexpr int32_t kDeviceServiceTypeCamera = 1;
inline constexpr int32_t kCameraModule = 6;
inline constexpr int32_t kCameraIntStringLen = 16;
inline constexpr int32_t kCameraStateFacing = 1;
inline constexpr int32_t kCameraStateDegree = 2;
inline constexpr int32_t kCryptoVersion = 1;
inline constexpr int32_t kCryptoAbility = 1;
inline constexpr int32_t kCryptoAlg = 1;

inline constexpr uint8_t kVersionMajor = 1;
inline constexpr uint8_t kVersionSub = 0;
inline constexpr uint8_t kVersionPatch = 0;
inline constexpr uint8_t kVersionBeta = 0;

// Four 16-bit fields, major on top.
inline constexpr uint64_t kVersion = (uint64_t{kVersionMajor} << 48) | (uint64_t{kVersionSub} << 32) |
                                     (uint64_t{kVersionPatch} << 16) | uint64_t{kVersionBeta};
static_assert(kVersion == 0x0001000000000000ULL);

// Status codes of the plugin's own.
inline constexpr int32_t kErrUnsupported = -1;
inline constexpr int32_t kErrBadCamera = -2;
inline constexpr int32_t kErrNoMemory = -3;
inline constexpr int32_t kErrNotReady = -4;
inline constexpr int32_t kErrInvalid = -5;
inline constexpr int32_t kErrMissing = -13;      // a pointer, entry point or library is missing
inline constexpr int32_t kErrCannotCreate = -13; // a buffer, message or queue cannot be made
inline constexpr int32_t kErrNotInited = -1000;  // the service is not loaded
inline constexpr int32_t kErrNoArgument = -1000; // the framework passed no index or command
inline constexpr int32_t kErrTextFailed = -1000; // a text copy or formatting failed
inline constexpr int32_t kErrNoEncoderHandler = -1000;
inline constexpr int32_t kErrNoNegParam = -1001;
inline constexpr int32_t kErrEncoderRefused = -2000;
inline constexpr int32_t kErrNoEncoderInstance = -8001;
inline constexpr int32_t kErrNoEncoderAbility = -8002;
inline constexpr int32_t kErrFrameSize = -8003;
inline constexpr int32_t kErrColorSpace = -8005;

} // namespace kx
