// SPDX-License-Identifier: Apache-2.0
// The private line between our two reference vendor libraries, as a vendor
// shipping a camera and an encoder together would have one: the plugin
// passes key-frame requests to the camera only and rate changes to the
// camera only, so the raw camera forwards them to the encoder instances that
// encode its frames. Instances are found by frame size, the one thing both
// sides know; two raw streams of one size share their requests.
//
// The encoder library exports one symbol besides its getter, the link
// table. Both libraries are loaded privately (RTLD_LOCAL), so the camera
// side finds the encoder library among the loaded objects by file name and
// looks the table up afresh for every request: no pointer into a library
// that may be unloaded in between is ever kept.
#ifndef KXCAMERA_VENDOR_COMMON_ENCODER_LINK_H
#define KXCAMERA_VENDOR_COMMON_ENCODER_LINK_H

#include <dlfcn.h>
#include <link.h>

#include <cstdint>
#include <cstring>
#include <string>

namespace kxvendor {

struct EncoderLink {
    // Every live instance of this size makes its next frame an IDR.
    void (*requestKeyFrame)(uint32_t width, uint32_t height);
    // Every live instance of this size encodes at fps from its next frame
    // on, so its rate control spends the bit rate over the new rate.
    void (*setFrameRate)(uint32_t width, uint32_t height, uint32_t fps);
};

inline constexpr char kEncoderLinkSymbol[] = "TALVOReferenceEncoderLink";
inline constexpr char kEncoderLibraryFile[] = "libtalvovideoencoder.so";

// Runs use(link) when the reference encoder library is loaded in this
// process; does nothing otherwise (another vendor's encoder, or none).
template <typename Use> void WithEncoderLink(Use &&use)
{
    std::string path;
    dl_iterate_phdr(
        [](dl_phdr_info *info, size_t, void *out) {
            const char *name = info->dlpi_name;
            const char *base = std::strrchr(name, '/');
            if (std::strcmp(base != nullptr ? base + 1 : name, kEncoderLibraryFile) != 0) {
                return 0;
            }
            *static_cast<std::string *>(out) = name;
            return 1;
        },
        &path);
    if (path.empty()) {
        return;
    }
    void *library = dlopen(path.c_str(), RTLD_NOW | RTLD_NOLOAD | RTLD_LOCAL);
    if (library == nullptr) {
        return;
    }
    if (const auto *link = static_cast<const EncoderLink *>(dlsym(library, kEncoderLinkSymbol))) {
        use(*link);
    }
    dlclose(library);
}

} // namespace kxvendor

#endif // KXCAMERA_VENDOR_COMMON_ENCODER_LINK_H
