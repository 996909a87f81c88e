// SPDX-License-Identifier: Apache-2.0
// Loads the camera plugin as a host process would (the framework function set
// comes from this process, linked against libtalvo) and prints its version.
#include <dlfcn.h>

#include <cinttypes>
#include <cstdio>
#include <filesystem>
#include <string>

#include "kxcamera/plugin.h"

// Installed, the plugin lies under the executable's prefix; otherwise it is
// where the build put it.
std::string DefaultPlugin()
{
    std::error_code error;
    const auto installed =
        std::filesystem::read_symlink("/proc/self/exe", error).parent_path() / KXPROBE_INSTALLED_PLUGIN;
    return !error && std::filesystem::exists(installed, error) ? installed.lexically_normal().string()
                                                               : KXPROBE_DEFAULT_PLUGIN;
}

int main(int argc, char **argv)
{
    const std::string pluginPath = argc > 1 ? argv[1] : DefaultPlugin();
    const char *path = pluginPath.c_str();
    void *plugin = dlopen(path, RTLD_NOW | RTLD_LOCAL);
    if (plugin == nullptr) {
        std::fprintf(stderr, "kxprobe: cannot load %s: %s\n", path, dlerror());
        return 1;
    }
    auto entry = reinterpret_cast<int32_t (*)(KxServiceHandler *)>(dlsym(plugin, "TALVOGetCameraServiceHandler"));
    if (entry == nullptr) {
        std::fprintf(stderr, "kxprobe: %s has no entry point\n", path);
        dlclose(plugin);
        return 1;
    }
    KxServiceHandler table{};
    uint64_t version = 0;
    if (entry(&table) != 0 || table.getVersion == nullptr || table.getVersion(&version) != 0) {
        std::fprintf(stderr, "kxprobe: version query failed\n");
        dlclose(plugin);
        return 1;
    }
    std::printf("%s: camera plugin version %" PRIu64 ".%" PRIu64 ".%" PRIu64 ".%" PRIu64 " (0x%016" PRIx64 ")\n", path,
                version >> 48, (version >> 32) & 0xffff, (version >> 16) & 0xffff, version & 0xffff, version);
    dlclose(plugin);
    return 0;
}
