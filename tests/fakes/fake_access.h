// SPDX-License-Identifier: Apache-2.0
// How a test reaches the vendor library doubles: their directories, their
// controls, and the vendor search path.
#ifndef KXCAMERA_TESTS_FAKES_FAKE_ACCESS_H
#define KXCAMERA_TESTS_FAKES_FAKE_ACCESS_H

#include <initializer_list>
#include <string>

#include "fake_camera.h"
#include "fake_encoder.h"

// Absolute directories in the build tree, each holding one library under its
// vendor file name (the *NoGetter ones lack the getter symbol).
inline constexpr const char *kFakeCameraDir = KXCAMERA_FAKE_CAMERA_DIR;
inline constexpr const char *kFakeCameraNoGetterDir = KXCAMERA_FAKE_CAMERA_NOGETTER_DIR;
inline constexpr const char *kFakeEncoderDir = KXCAMERA_FAKE_ENCODER_DIR;
inline constexpr const char *kFakeEncoderNoGetterDir = KXCAMERA_FAKE_ENCODER_NOGETTER_DIR;
inline constexpr const char *kFakeEmptyDir = KXCAMERA_FAKE_EMPTY_DIR;

// The controls of the normal variants, opened once by full path and kept
// open for the whole process so their state outlives the plugin's own
// handle. Null on failure, with dlerror() on stderr.
FakeCameraControl *FakeCamera();
FakeEncoderControl *FakeEncoder();

// TALVO_VENDOR_PATH = the directories joined by ':'; an empty list unsets it.
void SetVendorPath(std::initializer_list<const char *> dirs);

#endif // KXCAMERA_TESTS_FAKES_FAKE_ACCESS_H
