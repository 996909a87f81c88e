// SPDX-License-Identifier: Apache-2.0
// Moving test pattern for the virtual camera, its tests and benchmarks.
//
// A frame is colour bars over a grey ramp, a chequered block that moves with
// the frame index, and the frame index (modulo 10^8) printed in a black box
// at the top left. Its content depends only on (index, width, height); the
// pixel format only changes how it is stored, so a receiver can regenerate
// exactly the frame a sender produced. Colours are chosen on the RGB565 grid
// and turned into YUV with the BT.601 limited-range integer matrix that
// libyuv uses, so the RGB565 frame converted to I420 lands on (almost) the
// same samples as the I420 frame.
#ifndef KXCAMERA_VENDOR_PATTERN_PATTERN_H
#define KXCAMERA_VENDOR_PATTERN_PATTERN_H

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

namespace kxpattern {

enum class PixelFormat : uint8_t {
    kI420,   // Y plane, U plane, V plane, each row as wide as the image (chroma halved)
    kNV12,   // Y plane, then interleaved U,V
    kNV21,   // Y plane, then interleaved V,U
    kRGB565, // one little-endian 16-bit word per pixel, red in the top 5 bits
};

// Bytes of one tightly packed frame (stride = width, or 2 * width for RGB565).
size_t FrameBytes(PixelFormat format, uint32_t width, uint32_t height);

// Largest side accepted; far beyond any camera we simulate.
inline constexpr uint32_t kMaxSide = 8192;

// An axis-aligned rectangle in pixels; every field is even.
struct Rect {
    uint32_t x = 0;
    uint32_t y = 0;
    uint32_t w = 0;
    uint32_t h = 0;
};

class PatternGenerator {
public:
    // Width and height must be even, at least 2 and at most kMaxSide.
    static std::optional<PatternGenerator> Create(PixelFormat format, uint32_t width, uint32_t height);

    PixelFormat format() const { return format_; }
    uint32_t width() const { return width_; }
    uint32_t height() const { return height_; }
    size_t frameBytes() const { return background_.size(); }

    // Frame `index` in the generator's own buffer, valid until the next call.
    // Only the parts that moved since the previous call are redrawn, so
    // sequential use costs a few small rectangles per frame.
    std::span<const uint8_t> Frame(uint64_t index);

    // Frame `index` written whole into `out` (at least frameBytes() bytes).
    // Returns false, writing nothing, when `out` is too small.
    bool RenderTo(uint64_t index, std::span<uint8_t> out) const;

    // Where frame `index` draws its moving block and its number box.
    Rect BlockRect(uint64_t index) const;
    Rect NumberRect() const { return numberBox_; }

private:
    PatternGenerator(PixelFormat format, uint32_t width, uint32_t height);
    void BuildBackground();
    void DrawMoving(uint64_t index, uint8_t *frame) const;

    PixelFormat format_;
    uint32_t width_;
    uint32_t height_;
    uint32_t blockSide_ = 0;
    uint32_t cellSide_ = 0;
    uint32_t fontScale_ = 0;
    Rect numberBox_;
    std::vector<uint8_t> background_; // the static picture, in format_
    std::vector<uint8_t> frame_;      // Frame()'s buffer
    std::optional<Rect> drawnBlock_;  // block currently drawn in frame_
};

} // namespace kxpattern

#endif // KXCAMERA_VENDOR_PATTERN_PATTERN_H
