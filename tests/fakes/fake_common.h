// SPDX-License-Identifier: Apache-2.0
// Pieces shared by the vendor library test doubles.
#ifndef KXCAMERA_TESTS_FAKES_FAKE_COMMON_H
#define KXCAMERA_TESTS_FAKES_FAKE_COMMON_H

#include <climits>
#include <cstdint>

// The fakes build with hidden visibility; only getters and controls are seen.
#define FAKE_EXPORT __attribute__((visibility("default")))

// Returned for arguments no vendor could work with (null records, unknown handles).
inline constexpr int32_t kFakeBadArgument = -22;
// A push that found no callback or listener entry to call returns this.
inline constexpr int32_t kFakeNotDelivered = INT32_MIN;

#endif // KXCAMERA_TESTS_FAKES_FAKE_COMMON_H
