// SPDX-License-Identifier: Apache-2.0
// Judging encoded output with libavcodec: decoding access units, finding
// their NAL unit types, and comparing pictures with the pattern they came from.
#ifndef KXCAMERA_TESTS_VENDOR_AV_DECODE_H
#define KXCAMERA_TESTS_VENDOR_AV_DECODE_H

#include <cstdint>
#include <span>
#include <vector>

struct AVCodecContext;

namespace kxtest {

enum class Codec { kH264, kH265 };

class Decoder {
public:
    explicit Decoder(Codec codec);
    ~Decoder();
    Decoder(const Decoder &) = delete;
    Decoder &operator=(const Decoder &) = delete;

    // Decodes one access unit; false when the decoder reports an error or a
    // picture is not 4:2:0 of `width` x `height`. Finished pictures are
    // appended as packed I420; `keys` counts those that are key frames.
    bool Decode(std::span<const uint8_t> unit, std::vector<std::vector<uint8_t>> &pictures, int width, int height,
                int *keys = nullptr);

private:
    AVCodecContext *context_ = nullptr;
};

// The unit decodes alone, on a fresh decoder, to one picture: it is a key
// frame and carries its parameter sets.
bool DecodesAlone(Codec codec, std::span<const uint8_t> unit, int width, int height);

// PSNR in dB of each plane (Y, U, V) of two packed I420 frames of the given
// size; 99 for identical planes.
std::vector<double> PlanePsnr(std::span<const uint8_t> a, std::span<const uint8_t> b, int width, int height);

} // namespace kxtest

#endif // KXCAMERA_TESTS_VENDOR_AV_DECODE_H
