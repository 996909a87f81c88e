// SPDX-License-Identifier: Apache-2.0
// Whether the service is loaded. Vendor threads read it without the module
// lock, so the flag is published with release and read with acquire: a
// reader that sees it set also sees the registry that load built before.
#pragma once

#include "kxcamera/plugin.h"

namespace kx {

inline bool ModuleInited()
{
    return __atomic_load_n(&g_cameraModule.inited, __ATOMIC_ACQUIRE) != 0;
}

inline void SetModuleInited(bool inited)
{
    __atomic_store_n(&g_cameraModule.inited, static_cast<uint8_t>(inited ? 1 : 0), __ATOMIC_RELEASE);
}

} // namespace kx
