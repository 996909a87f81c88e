// SPDX-License-Identifier: Apache-2.0
// Opens the vendor library doubles for tests and points the vendor search at them.
#include "fake_access.h"

#include <dlfcn.h>

#include <cstdio>
#include <cstdlib>

namespace {

void *OpenKept(const char *dir, const char *file)
{
    std::string path = FakeLibraryPath(dir, file);
    void *handle = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (handle == nullptr) {
        std::fprintf(stderr, "cannot open %s: %s\n", path.c_str(), dlerror());
    }
    return handle;
}

template <typename Fn>
Fn Lookup(void *handle, const char *symbol)
{
    if (handle == nullptr) {
        return nullptr;
    }
    void *address = dlsym(handle, symbol);
    if (address == nullptr) {
        std::fprintf(stderr, "no %s: %s\n", symbol, dlerror());
    }
    return reinterpret_cast<Fn>(address);
}

} // namespace

std::string FakeLibraryPath(const char *dir, const char *file)
{
    return std::string(dir) + "/" + file;
}

void *FakeCameraLibrary()
{
    static void *const handle = OpenKept(kFakeCameraDir, KX_CAMERA_HANDLER_LIB);
    return handle;
}

void *FakeEncoderLibrary()
{
    static void *const handle = OpenKept(kFakeEncoderDir, KX_VIDEO_ENCODER_LIB);
    return handle;
}

FakeCameraControl *FakeCamera()
{
    auto get = Lookup<FakeCameraGetControlFn>(FakeCameraLibrary(), FAKE_CAMERA_CONTROL_SYMBOL);
    return get == nullptr ? nullptr : get();
}

FakeEncoderControl *FakeEncoder()
{
    auto get = Lookup<FakeEncoderGetControlFn>(FakeEncoderLibrary(), FAKE_ENCODER_CONTROL_SYMBOL);
    return get == nullptr ? nullptr : get();
}

void SetVendorPath(std::initializer_list<const char *> dirs)
{
    if (dirs.size() == 0) {
        unsetenv("TALVO_VENDOR_PATH");
        return;
    }
    std::string joined;
    for (const char *dir : dirs) {
        if (dir != *dirs.begin()) {
            joined += ':';
        }
        joined += dir;
    }
    setenv("TALVO_VENDOR_PATH", joined.c_str(), 1);
}
