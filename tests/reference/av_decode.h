// SPDX-License-Identifier: Apache-2.0
// Judging encoded output with libavcodec: decoding access units and
// comparing pictures with the pattern they came from.
#ifndef KXCAMERA_TESTS_VENDOR_AV_DECODE_H
#define KXCAMERA_TESTS_VENDOR_AV_DECODE_H

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

// The unit decodes alone, on a fresh decoder, to a key frame: it carries its parameter sets.
bool DecodesAlone(Codec codec, std::span<const uint8_t> unit, int width, int height);

// PSNR in dB of each plane (Y, U, V) of two packed I420 frames of the given
// size; 99 for identical planes.
std::vector<double> PlanePsnr(std::span<const uint8_t> a, std::span<const uint8_t> b, int width, int height);

} // namespace kxtest

#endif // KXCAMERA_TESTS_VENDOR_AV_DECODE_H
