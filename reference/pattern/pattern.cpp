// SPDX-License-Identifier: Apache-2.0
// Moving test pattern: static background built once, moving parts redrawn.
#include "pattern.h"

#include <algorithm>
#include <array>
#include <cstring>

namespace kxpattern {
namespace {

// A colour on the RGB565 grid, kept in 8-bit form as a decoder expands it.
struct Rgb {
    uint8_t r;
    uint8_t g;
    uint8_t b;
};

constexpr Rgb Quantise(uint8_t r, uint8_t g, uint8_t b)
{
    const uint8_t r5 = r >> 3;
    const uint8_t g6 = g >> 2;
    const uint8_t b5 = b >> 3;
    return {static_cast<uint8_t>((r5 << 3) | (r5 >> 2)), static_cast<uint8_t>((g6 << 2) | (g6 >> 4)),
            static_cast<uint8_t>((b5 << 3) | (b5 >> 2))};
}

constexpr uint16_t ToRgb565(Rgb c)
{
    return static_cast<uint16_t>(((c.r >> 3) << 11) | ((c.g >> 2) << 5) | (c.b >> 3));
}

// BT.601 limited range, the integer form libyuv uses for RGB to YUV.
constexpr uint8_t LumaOf(int r, int g, int b)
{
    return static_cast<uint8_t>((66 * r + 129 * g + 25 * b + 0x1080) >> 8);
}
constexpr uint8_t CbOf(int r, int g, int b)
{
    return static_cast<uint8_t>((112 * b - 74 * g - 38 * r + 0x8080) >> 8);
}
constexpr uint8_t CrOf(int r, int g, int b)
{
    return static_cast<uint8_t>((112 * r - 94 * g - 18 * b + 0x8080) >> 8);
}

constexpr std::array<Rgb, 8> kBars = {
    Quantise(255, 255, 255), Quantise(255, 255, 0), Quantise(0, 255, 255), Quantise(0, 255, 0),
    Quantise(255, 0, 255),   Quantise(255, 0, 0),   Quantise(0, 0, 255),   Quantise(0, 0, 0),
};
constexpr Rgb kBlockA = Quantise(255, 128, 0);
constexpr Rgb kBlockB = Quantise(0, 0, 128);
constexpr Rgb kBoxBack = Quantise(0, 0, 0);
constexpr Rgb kBoxInk = Quantise(255, 255, 255);

constexpr uint32_t kDigits = 8;
constexpr uint32_t kGlyphW = 5;
constexpr uint32_t kGlyphH = 7;
// 5x7 digits, one byte per row, bit 4 leftmost.
constexpr uint8_t kFont[10][kGlyphH] = {
    {0x0E, 0x11, 0x13, 0x15, 0x19, 0x11, 0x0E}, {0x04, 0x0C, 0x04, 0x04, 0x04, 0x04, 0x0E},
    {0x0E, 0x11, 0x01, 0x02, 0x04, 0x08, 0x1F}, {0x1F, 0x02, 0x04, 0x02, 0x01, 0x11, 0x0E},
    {0x02, 0x06, 0x0A, 0x12, 0x1F, 0x02, 0x02}, {0x1F, 0x10, 0x1E, 0x01, 0x01, 0x11, 0x0E},
    {0x06, 0x08, 0x10, 0x1E, 0x11, 0x11, 0x0E}, {0x1F, 0x01, 0x02, 0x04, 0x08, 0x08, 0x08},
    {0x0E, 0x11, 0x11, 0x0E, 0x11, 0x11, 0x0E}, {0x0E, 0x11, 0x11, 0x0F, 0x01, 0x02, 0x0C},
};

constexpr uint32_t Even(uint32_t v)
{
    return v & ~1u;
}

// One plane of a layout: where it starts, its row pitch, bytes per sample
// position and the subsampling shift of both axes.
struct Plane {
    size_t offset;
    size_t stride;
    uint32_t bytes;
    uint32_t shift;
};

struct Layout {
    std::array<Plane, 3> planes;
    uint32_t count;
};

Layout LayoutOf(PixelFormat format, uint32_t width, uint32_t height)
{
    const size_t luma = size_t{width} * height;
    switch (format) {
    case PixelFormat::kI420:
        return {{{{0, width, 1, 0}, {luma, width / 2, 1, 1}, {luma + luma / 4, width / 2, 1, 1}}}, 3};
    case PixelFormat::kNV12:
    case PixelFormat::kNV21:
        return {{{{0, width, 1, 0}, {luma, width, 2, 1}, {}}}, 2};
    case PixelFormat::kRGB565:
        break;
    }
    return {{{{0, size_t{width} * 2, 2, 0}, {}, {}}}, 1};
}

// What one colour writes into each plane of a layout.
using Paint = std::array<std::array<uint8_t, 2>, 3>;

Paint PaintOf(PixelFormat format, Rgb c)
{
    const uint8_t y = LumaOf(c.r, c.g, c.b);
    const uint8_t u = CbOf(c.r, c.g, c.b);
    const uint8_t v = CrOf(c.r, c.g, c.b);
    const uint16_t word = ToRgb565(c);
    switch (format) {
    case PixelFormat::kI420:
        return {{{y, y}, {u, u}, {v, v}}};
    case PixelFormat::kNV12:
        return {{{y, y}, {u, v}, {}}};
    case PixelFormat::kNV21:
        return {{{y, y}, {v, u}, {}}};
    case PixelFormat::kRGB565:
        break;
    }
    return {{{static_cast<uint8_t>(word & 0xFF), static_cast<uint8_t>(word >> 8)}, {}, {}}};
}

Rect Clip(Rect r, uint32_t width, uint32_t height)
{
    const uint32_t x0 = std::min(r.x, width);
    const uint32_t y0 = std::min(r.y, height);
    const uint32_t x1 = std::min(r.x + r.w, width);
    const uint32_t y1 = std::min(r.y + r.h, height);
    return {x0, y0, x1 - x0, y1 - y0};
}

struct Canvas {
    uint8_t *data;
    Layout layout;
    uint32_t width;
    uint32_t height;

    void Fill(Rect r, const Paint &paint) const
    {
        r = Clip(r, width, height);
        for (uint32_t p = 0; p < layout.count; ++p) {
            const Plane &pl = layout.planes[p];
            const size_t samples = r.w >> pl.shift;
            uint8_t *row = data + pl.offset + (r.y >> pl.shift) * pl.stride + (r.x >> pl.shift) * pl.bytes;
            for (uint32_t line = 0; line < (r.h >> pl.shift); ++line, row += pl.stride) {
                if (pl.bytes == 1) {
                    std::memset(row, paint[p][0], samples);
                    continue;
                }
                for (size_t i = 0; i < samples; ++i) {
                    row[2 * i] = paint[p][0];
                    row[2 * i + 1] = paint[p][1];
                }
            }
        }
    }

    void CopyFrom(const uint8_t *source, Rect r) const
    {
        r = Clip(r, width, height);
        for (uint32_t p = 0; p < layout.count; ++p) {
            const Plane &pl = layout.planes[p];
            const size_t at = pl.offset + (r.y >> pl.shift) * pl.stride + (r.x >> pl.shift) * pl.bytes;
            for (uint32_t line = 0; line < (r.h >> pl.shift); ++line) {
                const size_t offset = at + line * pl.stride;
                std::memcpy(data + offset, source + offset, (r.w >> pl.shift) * pl.bytes);
            }
        }
    }
};

// Period of a bouncing coordinate over [0, range]; the index is reduced by
// it first so that huge indices cannot overflow.
uint32_t Bounce(uint64_t index, uint32_t step, uint32_t range)
{
    if (range == 0) {
        return 0;
    }
    const uint64_t period = 2ull * range;
    const uint64_t p = ((index % period) * step) % period;
    return static_cast<uint32_t>(p <= range ? p : period - p);
}

} // namespace

size_t FrameBytes(PixelFormat format, uint32_t width, uint32_t height)
{
    const size_t pixels = size_t{width} * height;
    return format == PixelFormat::kRGB565 ? pixels * 2 : pixels * 3 / 2;
}

std::optional<PatternGenerator> PatternGenerator::Create(PixelFormat format, uint32_t width, uint32_t height)
{
    if (width < 2 || height < 2 || width > kMaxSide || height > kMaxSide || width % 2 != 0 || height % 2 != 0) {
        return std::nullopt;
    }
    switch (format) {
    case PixelFormat::kI420:
    case PixelFormat::kNV12:
    case PixelFormat::kNV21:
    case PixelFormat::kRGB565:
        break;
    default:
        return std::nullopt;
    }
    return PatternGenerator(format, width, height);
}

PatternGenerator::PatternGenerator(PixelFormat format, uint32_t width, uint32_t height)
    : format_(format), width_(width), height_(height)
{
    blockSide_ = std::max(2u, Even(std::min(width, height) / 5));
    cellSide_ = std::max(2u, Even(blockSide_ / 4));
    fontScale_ = std::max(2u, Even(height / 120));
    const uint32_t s = fontScale_;
    numberBox_ = Clip({2 * s, 2 * s, (kDigits * (kGlyphW + 1) + 1) * s, (kGlyphH + 2) * s}, width, height);
    BuildBackground();
}

void PatternGenerator::BuildBackground()
{
    const uint32_t w = width_;
    const uint32_t h = height_;
    const uint32_t barsHeight = Even(h * 2 / 3);
    // Both halves vary along x only, so one row of each describes them.
    std::vector<Rgb> bars(w);
    std::vector<Rgb> ramp(w);
    for (uint32_t x = 0; x < w; ++x) {
        bars[x] = kBars[std::min<size_t>(kBars.size() - 1, size_t{x} * kBars.size() / w)];
        const auto v = static_cast<uint8_t>(size_t{x} * 255 / (w - 1));
        ramp[x] = Quantise(v, v, v);
    }

    background_.assign(FrameBytes(format_, w, h), 0);
    const Layout layout = LayoutOf(format_, w, h);
    uint8_t *out = background_.data();
    for (uint32_t y = 0; y < h; ++y) {
        const std::vector<Rgb> &row = y < barsHeight ? bars : ramp;
        if (format_ == PixelFormat::kRGB565) {
            for (uint32_t x = 0; x < w; ++x) {
                const uint16_t word = ToRgb565(row[x]);
                out[(size_t{y} * w + x) * 2] = static_cast<uint8_t>(word & 0xFF);
                out[(size_t{y} * w + x) * 2 + 1] = static_cast<uint8_t>(word >> 8);
            }
            continue;
        }
        for (uint32_t x = 0; x < w; ++x) {
            out[size_t{y} * w + x] = LumaOf(row[x].r, row[x].g, row[x].b);
        }
        if (y % 2 != 0) {
            continue;
        }
        // Chroma of a 2x2 block from its mean colour; both rows are alike.
        for (uint32_t x = 0; x < w; x += 2) {
            const int r = (row[x].r + row[x + 1].r + 1) >> 1;
            const int g = (row[x].g + row[x + 1].g + 1) >> 1;
            const int b = (row[x].b + row[x + 1].b + 1) >> 1;
            const uint8_t u = CbOf(r, g, b);
            const uint8_t v = CrOf(r, g, b);
            const size_t cy = y / 2;
            const size_t cx = x / 2;
            const Plane &p1 = layout.planes[1];
            if (format_ == PixelFormat::kI420) {
                out[p1.offset + cy * p1.stride + cx] = u;
                out[layout.planes[2].offset + cy * p1.stride + cx] = v;
            } else {
                const bool uFirst = format_ == PixelFormat::kNV12;
                out[p1.offset + cy * p1.stride + 2 * cx] = uFirst ? u : v;
                out[p1.offset + cy * p1.stride + 2 * cx + 1] = uFirst ? v : u;
            }
        }
    }
}

Rect PatternGenerator::BlockRect(uint64_t index) const
{
    const uint32_t rangeX = width_ > blockSide_ ? width_ - blockSide_ : 0;
    const uint32_t rangeY = height_ > blockSide_ ? height_ - blockSide_ : 0;
    const uint32_t x = Bounce(index, std::max(2u, Even(width_ / 64)), rangeX);
    const uint32_t y = Bounce(index, std::max(2u, Even(height_ / 48)), rangeY);
    return Clip({x, y, blockSide_, blockSide_}, width_, height_);
}

void PatternGenerator::DrawMoving(uint64_t index, uint8_t *frame) const
{
    const Canvas canvas{frame, LayoutOf(format_, width_, height_), width_, height_};
    const Paint a = PaintOf(format_, kBlockA);
    const Paint b = PaintOf(format_, kBlockB);
    const Rect block = BlockRect(index);
    for (uint32_t cy = 0; cy * cellSide_ < block.h; ++cy) {
        for (uint32_t cx = 0; cx * cellSide_ < block.w; ++cx) {
            const Rect cell{block.x + cx * cellSide_, block.y + cy * cellSide_,
                            std::min(cellSide_, block.w - cx * cellSide_),
                            std::min(cellSide_, block.h - cy * cellSide_)};
            canvas.Fill(cell, ((cx + cy) & 1u) != 0 ? b : a);
        }
    }

    // The number box is opaque and always in one place, so it needs no
    // restoring: it is simply painted over whatever is below.
    canvas.Fill(numberBox_, PaintOf(format_, kBoxBack));
    const Paint ink = PaintOf(format_, kBoxInk);
    const uint32_t s = fontScale_;
    uint64_t value = index % 100000000u;
    for (uint32_t d = kDigits; d-- > 0; value /= 10) {
        const uint8_t(&glyph)[kGlyphH] = kFont[value % 10];
        const uint32_t left = numberBox_.x + s + d * (kGlyphW + 1) * s;
        for (uint32_t row = 0; row < kGlyphH; ++row) {
            for (uint32_t col = 0; col < kGlyphW; ++col) {
                if ((glyph[row] & (0x10u >> col)) != 0) {
                    canvas.Fill({left + col * s, numberBox_.y + s + row * s, s, s}, ink);
                }
            }
        }
    }
}

std::span<const uint8_t> PatternGenerator::Frame(uint64_t index)
{
    if (frame_.empty()) {
        frame_ = background_;
    } else if (drawnBlock_) {
        Canvas{frame_.data(), LayoutOf(format_, width_, height_), width_, height_}.CopyFrom(background_.data(),
                                                                                            *drawnBlock_);
    }
    DrawMoving(index, frame_.data());
    drawnBlock_ = BlockRect(index);
    return frame_;
}

bool PatternGenerator::RenderTo(uint64_t index, std::span<uint8_t> out) const
{
    if (out.size() < background_.size()) {
        return false;
    }
    std::memcpy(out.data(), background_.data(), background_.size());
    DrawMoving(index, out.data());
    return true;
}

} // namespace kxpattern
