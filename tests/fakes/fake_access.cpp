// SPDX-License-Identifier: Apache-2.0
// Opens the vendor library doubles for tests and points the vendor search at them.
#include "fake_access.h"

#include <dlfcn.h>

#include <cstdio>
#include <cstdlib>

namespace {

void *OpenKept(const char *dir, const char *file)
{
    const std::string path = std::string(dir) + "/" + file;
    void *handle = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (handle == nullptr) {
        std::fprintf(stderr, "cannot open %s: %s\n", path.c_str(), dlerror());
    }
    return handle;
}

// The control behind `symbol`, or null with the reason on stderr.
template <typename Control> Control *ControlOf(void *library, const char *symbol)
{
    void *get = library == nullptr ? nullptr : dlsym(library, symbol);
    if (library != nullptr && get == nullptr) {
        std::fprintf(stderr, "no %s: %s\n", symbol, dlerror());
    }
    return get == nullptr ? nullptr : reinterpret_cast<Control *(*)()>(get)();
}

} // namespace

FakeCameraControl *FakeCamera()
{
    static void *const library = OpenKept(kFakeCameraDir, KX_CAMERA_HANDLER_LIB);
    return ControlOf<FakeCameraControl>(library, FAKE_CAMERA_CONTROL_SYMBOL);
}

FakeEncoderControl *FakeEncoder()
{
    static void *const library = OpenKept(kFakeEncoderDir, KX_VIDEO_ENCODER_LIB);
    return ControlOf<FakeEncoderControl>(library, FAKE_ENCODER_CONTROL_SYMBOL);
}

void SetVendorPath(std::initializer_list<const char *> dirs)
{
    std::string joined;
    for (const char *dir : dirs) {
        joined += (joined.empty() ? "" : ":") + std::string(dir);
    }
    if (dirs.size() == 0) {
        unsetenv("TALVO_VENDOR_PATH");
    } else {
        setenv("TALVO_VENDOR_PATH", joined.c_str(), 1);
    }
}
