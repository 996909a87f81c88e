// SPDX-License-Identifier: Apache-2.0
// Helpers of the reference tests: loading a vendor library as the plugin
// does, decoding access units with libavcodec and comparing pictures with
// the pattern they came from.
#ifndef KXCAMERA_TESTS_VENDOR_AV_DECODE_H
#define KXCAMERA_TESTS_VENDOR_AV_DECODE_H

#include <dlfcn.h>

#include <cstdint>
#include <span>
#include <vector>

namespace kxtest {

enum class Codec { kH264, kH265 };

struct Picture {
    std::vector<uint8_t> i420; // packed
    bool key = false;
};

// The units in order on one decoder without reordering delay, a picture
// each; empty when the decoder reports an error or a unit does not give
// exactly one 4:2:0 picture of `width` x `height`.
std::vector<Picture> DecodeEach(Codec codec, std::span<const std::vector<uint8_t>> units, int width, int height);

// PSNR in dB of each plane (Y, U, V) of two packed I420 frames of the given
// size; 99 for identical planes.
std::vector<double> PlanePsnr(std::span<const uint8_t> a, std::span<const uint8_t> b, int width, int height);

// Loads a library by path and fills `table` through its getter, as the plugin does; the library stays loaded.
// Returns the getter's status, or -1 when the library or the symbol is missing.
template <typename Table> int LoadVendor(const char *path, const char *getter, Table &table)
{
    void *library = dlopen(path, RTLD_NOW | RTLD_LOCAL);
    void *symbol = library == nullptr ? nullptr : dlsym(library, getter);
    return symbol == nullptr ? -1 : reinterpret_cast<int (*)(Table *)>(symbol)(&table);
}

} // namespace kxtest

#endif // KXCAMERA_TESTS_VENDOR_AV_DECODE_H
