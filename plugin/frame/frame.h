// SPDX-License-Identifier: Apache-2.0
// Plugin frame and lifecycle: what the other subsystems call.
#pragma once

#include <cstdint>

#include "kxcamera/plugin.h"

extern "C" {
// Load the vendor libraries into the module state; called by service loading.
KXCAMERA_API int32_t CameraInit(void);
KXCAMERA_API int32_t CameraVEncInit(void);
// Hands the plugin's service listener to the vendor camera handler.
KXCAMERA_API void CameraGlbRegisterListener(void);
}

namespace kx {
// Unloads a vendor library and forgets its handle; harmless without one.
void CloseLibrary(void *&handle);
} // namespace kx
