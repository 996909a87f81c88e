// SPDX-License-Identifier: Apache-2.0
// Judging encoded output with libavcodec: decoding access units, finding
// NAL unit types, and comparing pictures with the pattern they came from.
#ifndef KXCAMERA_TESTS_VENDOR_AV_DECODE_H
#define KXCAMERA_TESTS_VENDOR_AV_DECODE_H

#include <cstdint>
#include <memory>
#include <span>
#include <vector>

struct AVCodecContext;

namespace kxtest {

enum class Codec { kH264, kH265 };

// A decoded 4:2:0 picture, planes packed (stride = width, width / 2).
struct Picture {
    int width = 0;
    int height = 0;
    std::vector<uint8_t> y;
    std::vector<uint8_t> u;
    std::vector<uint8_t> v;
};

class Decoder {
public:
    explicit Decoder(Codec codec);
    ~Decoder();
    Decoder(const Decoder &) = delete;
    Decoder &operator=(const Decoder &) = delete;

    // Decodes one access unit; false when the decoder reports an error.
    // Finished pictures are appended to `pictures`.
    bool Decode(std::span<const uint8_t> unit, std::vector<Picture> &pictures);

private:
    AVCodecContext *context_ = nullptr;
};

// NAL unit types in an Annex B buffer, in order.
std::vector<int> NalTypes(Codec codec, std::span<const uint8_t> unit);
bool HasIdr(Codec codec, std::span<const uint8_t> unit);
// SPS and PPS (and VPS for H.265) are all present.
bool HasParameterSets(Codec codec, std::span<const uint8_t> unit);

// PSNR in dB of each plane (Y, U, V) of `picture` against a packed I420
// frame of the same size; 99 for identical planes.
std::vector<double> PlanePsnr(const Picture &picture, std::span<const uint8_t> i420);

// Same for two packed I420 frames of the given size.
std::vector<double> PlanePsnr(std::span<const uint8_t> a, std::span<const uint8_t> b, int width, int height);

} // namespace kxtest

#endif // KXCAMERA_TESTS_VENDOR_AV_DECODE_H
