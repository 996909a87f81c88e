// SPDX-License-Identifier: Apache-2.0
// TALVOColorConvert with arbitrary descriptors. Each image gets a buffer of
// exactly the size its descriptor describes (first plane stride x height,
// chroma planes at the layout's stride with odd sizes rounded up), ending
// right at a page the process may not touch: the converters run partly in
// libyuv, which the sanitizer does not instrument, so an overrun has to fault
// by itself. What any call promises: the source is never written, a refusal
// leaves the destination as it was, a missing image is -13; a conversion
// that succeeds copies the Y plane, keeps U and V apart, and gives RGB in
// studio range.
//
// Input, little-endian, fields past the end read as zero:
//   u8  source csp, u8 destination csp   (below 0xf0: the value mod 6;
//                                          otherwise an i32 code follows)
//   u8  flags        1: source null, 2: destination null, 4: source data null,
//                    8: destination data null, 16: destination size follows
//   i16 width, i16 height, [i16 destination width, i16 destination height]
//   i16 source stride - minimal stride, i16 destination stride - minimal stride
//   rest: source bytes, repeated over the whole source buffer
#include <sanitizer/asan_interface.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <optional>
#include <vector>

#include "fuzz_support.h"
#include "kxcamera/color_convert.h"

namespace {

constexpr int32_t kCspI420 = 0;
constexpr int32_t kCspNv12 = 1;
constexpr int32_t kCspNv21 = 2;
constexpr int32_t kCspRgb565 = 4;

// Larger images add time, not paths.
constexpr int64_t kMaxImageBytes = int64_t{512} << 10;

// A block of exactly `size` bytes followed by an inaccessible page. The slack
// in front is poisoned, which catches underruns in instrumented code.
struct GuardedBuffer {
    explicit GuardedBuffer(size_t bytes) : size(bytes), page(static_cast<size_t>(sysconf(_SC_PAGESIZE)))
    {
        const size_t usable = (size + page - 1) / page * page;
        void *mapped = mmap(nullptr, usable + page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        FUZZ_CHECK(mapped != MAP_FAILED, "mmap of %zu bytes failed", usable + page);
        base = static_cast<uint8_t *>(mapped);
        FUZZ_CHECK(mprotect(base + usable, page, PROT_NONE) == 0, "mprotect failed");
        data = base + (usable - size);
        ASAN_POISON_MEMORY_REGION(base, usable - size);
    }
    ~GuardedBuffer()
    {
        ASAN_UNPOISON_MEMORY_REGION(base, data - base);
        (void)munmap(base, static_cast<size_t>(data - base) + size + page);
    }
    std::vector<uint8_t> Snapshot() const { return std::vector<uint8_t>(data, data + size); }

    size_t size;
    size_t page;
    uint8_t *base = nullptr;
    uint8_t *data = nullptr;
};

int32_t ReadCsp(FuzzInput &in)
{
    const uint8_t code = in.U8();
    return code < 0xf0 ? code % 6 : in.Take<int32_t>();
}

int64_t BytesPerPixel(int32_t csp)
{
    return csp == kCspRgb565 ? 2 : 1;
}

// Where the planes of a 4:2:0 image sit for a given first-plane stride.
struct Layout {
    int64_t cStride;
    int64_t cRows;
    int64_t chromaOffset; // U for I420, the interleaved plane otherwise
    int64_t vOffset;      // I420 only
};

Layout LayoutOf(int32_t csp, int64_t stride, int64_t height)
{
    const int64_t cStride = csp == kCspI420 ? (stride + 1) / 2 : (stride + 1) & ~int64_t{1};
    return {cStride, (height + 1) / 2, stride * height, stride * height + cStride * ((height + 1) / 2)};
}

// Bytes the descriptor describes; nothing for a code or geometry without a layout.
std::optional<int64_t> ImageBytes(int32_t csp, int32_t width, int32_t height, int32_t stride)
{
    if (width <= 0 || height <= 0 || stride <= 0) {
        return std::nullopt;
    }
    if (csp == kCspRgb565) {
        return int64_t{stride} * height;
    }
    if (csp != kCspI420 && csp != kCspNv12 && csp != kCspNv21) {
        return std::nullopt;
    }
    const Layout l = LayoutOf(csp, stride, height);
    return l.chromaOffset + l.cStride * l.cRows * (csp == kCspI420 ? 2 : 1);
}

// The chroma sample at column cx of row cy, for each layout: U then V.
std::pair<uint8_t, uint8_t> Chroma(const KxImage &image, int64_t cx, int64_t cy)
{
    const Layout l = LayoutOf(image.csp, image.stride, image.height);
    const uint8_t *row = image.data + l.chromaOffset + cy * l.cStride;
    if (image.csp == kCspI420) {
        return {row[cx], image.data[l.vOffset + cy * l.cStride + cx]};
    }
    return image.csp == kCspNv12 ? std::pair{row[2 * cx], row[2 * cx + 1]} : std::pair{row[2 * cx + 1], row[2 * cx]};
}

void CheckConversion(const KxImage &src, const KxImage &dst)
{
    const auto studio = [](uint8_t p, int top) { return p >= 16 && p <= top; };
    for (int64_t y = 0; y < src.height; ++y) {
        for (int64_t x = 0; x < src.width; ++x) {
            const uint8_t luma = dst.data[y * dst.stride + x];
            FUZZ_CHECK(src.csp == kCspRgb565 ? studio(luma, 235) : luma == src.data[y * src.stride + x],
                       "Y at %lld,%lld", static_cast<long long>(x), static_cast<long long>(y));
        }
    }
    for (int64_t cy = 0; cy < (src.height + 1) / 2; ++cy) {
        for (int64_t cx = 0; cx < (src.width + 1) / 2; ++cx) {
            const auto [u, v] = Chroma(dst, cx, cy);
            FUZZ_CHECK(src.csp == kCspRgb565 ? studio(u, 240) && studio(v, 240)
                                             : Chroma(src, cx, cy) == std::pair(u, v),
                       "chroma at %lld,%lld", static_cast<long long>(cx), static_cast<long long>(cy));
        }
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    FuzzInput in(data, size);
    KxImage src{};
    KxImage dst{};
    src.csp = ReadCsp(in);
    dst.csp = ReadCsp(in);
    const uint8_t flags = in.U8();
    src.width = in.Take<int16_t>();
    src.height = in.Take<int16_t>();
    dst.width = (flags & 16) != 0 ? in.Take<int16_t>() : src.width;
    dst.height = (flags & 16) != 0 ? in.Take<int16_t>() : src.height;
    src.stride = static_cast<int32_t>(src.width * BytesPerPixel(src.csp) + in.Take<int16_t>());
    dst.stride = static_cast<int32_t>(dst.width * BytesPerPixel(dst.csp) + in.Take<int16_t>());
    const std::string fill = in.Bytes(size);

    const std::optional<int64_t> srcBytes = ImageBytes(src.csp, src.width, src.height, src.stride);
    const std::optional<int64_t> dstBytes = ImageBytes(dst.csp, dst.width, dst.height, dst.stride);
    if (srcBytes.value_or(0) > kMaxImageBytes || dstBytes.value_or(0) > kMaxImageBytes) {
        return -1; // not worth keeping in the corpus
    }
    // An image without a layout gets one byte the converter must not touch.
    GuardedBuffer srcBuffer(static_cast<size_t>(srcBytes.value_or(1)));
    GuardedBuffer dstBuffer(static_cast<size_t>(dstBytes.value_or(1)));
    for (size_t i = 0; i < srcBuffer.size; ++i) {
        srcBuffer.data[i] = fill.empty() ? 0 : fill[i % fill.size()];
    }
    std::fill(dstBuffer.data, dstBuffer.data + dstBuffer.size, uint8_t{0x5a});
    src.data = (flags & 4) != 0 ? nullptr : srcBuffer.data;
    dst.data = (flags & 8) != 0 ? nullptr : dstBuffer.data;
    const std::vector<uint8_t> srcBefore = srcBuffer.Snapshot();
    const std::vector<uint8_t> dstBefore = dstBuffer.Snapshot();

    const int32_t rc = TALVOColorConvert((flags & 1) != 0 ? nullptr : &src, (flags & 2) != 0 ? nullptr : &dst);

    FUZZ_CHECK(srcBuffer.Snapshot() == srcBefore, "the source image was written (rc %d)", rc);
    FUZZ_CHECK(rc == 0 || dstBuffer.Snapshot() == dstBefore, "refused with %d, yet the destination was written", rc);
    FUZZ_CHECK((rc == -13) == ((flags & 15) != 0), "missing image or data (flags %u): rc %d", flags, rc);
    FUZZ_CHECK(rc == 0 || rc == -1 || rc == -13 || rc == -8005, "rc %d", rc);
    if (rc == 0) {
        FUZZ_CHECK(src.width == dst.width && src.height == dst.height && dst.csp == kCspI420 + (src.csp == kCspI420),
                   "%d x %d (%d) -> %d x %d (%d) converted", src.width, src.height, src.csp, dst.width, dst.height,
                   dst.csp);
        CheckConversion(src, dst);
    }
    return 0;
}
