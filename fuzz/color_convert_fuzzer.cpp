// SPDX-License-Identifier: Apache-2.0
// TALVOColorConvert with arbitrary descriptors. Each image gets a buffer of
// exactly the size its descriptor describes (first plane stride x height,
// chroma planes at the layout's stride with odd sizes rounded up), ending
// right at a page the process may not touch: the converters run partly in
// libyuv, which the sanitizer does not instrument, so an overrun has to fault
// by itself. A successful conversion is checked against the layouts: the Y
// plane copied, the chroma planes split or interleaved, RGB in studio range.
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

#include "fuzz_support.h"
#include "kxcamera/color_convert.h"

namespace {

constexpr int32_t kCspI420 = 0;
constexpr int32_t kCspNv12 = 1;
constexpr int32_t kCspNv21 = 2;
constexpr int32_t kCspRgb565 = 4;

constexpr int32_t kErrUnsupported = -1;
constexpr int32_t kErrMissing = -13;
constexpr int32_t kErrColorSpace = -8005;

// Larger images add time, not paths.
constexpr int64_t kMaxImageBytes = int64_t{512} << 10;

// A block of exactly `size` bytes followed by an inaccessible page. The slack
// in front is poisoned, which catches underruns in instrumented code.
class GuardedBuffer {
public:
    explicit GuardedBuffer(size_t size) : size_(size)
    {
        const auto page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
        const size_t usable = (size + page - 1) / page * page;
        mapped_ = usable + page;
        void *base = mmap(nullptr, mapped_, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        FUZZ_CHECK(base != MAP_FAILED, "mmap of %zu bytes failed", mapped_);
        base_ = static_cast<uint8_t *>(base);
        FUZZ_CHECK(mprotect(base_ + usable, page, PROT_NONE) == 0, "mprotect failed");
        data_ = base_ + (usable - size);
        ASAN_POISON_MEMORY_REGION(base_, usable - size);
    }
    ~GuardedBuffer()
    {
        ASAN_UNPOISON_MEMORY_REGION(base_, mapped_ - static_cast<size_t>(sysconf(_SC_PAGESIZE)));
        (void)munmap(base_, mapped_);
    }
    GuardedBuffer(const GuardedBuffer &) = delete;
    GuardedBuffer &operator=(const GuardedBuffer &) = delete;

    uint8_t *data() const { return data_; }
    size_t size() const { return size_; }
    std::vector<uint8_t> Snapshot() const { return std::vector<uint8_t>(data_, data_ + size_); }

private:
    size_t size_;
    size_t mapped_ = 0;
    uint8_t *base_ = nullptr;
    uint8_t *data_ = nullptr;
};

int32_t ReadCsp(FuzzInput &in)
{
    const uint8_t code = in.U8();
    return code < 0xf0 ? code % 6 : in.I32();
}

int64_t BytesPerPixel(int32_t csp)
{
    return csp == kCspRgb565 ? 2 : 1;
}

bool Planar420(int32_t csp)
{
    return csp == kCspI420 || csp == kCspNv12 || csp == kCspNv21;
}

// Where the planes of a 4:2:0 image sit for a given first-plane stride.
struct Layout {
    int64_t yStride;
    int64_t rows;
    int64_t cStride;
    int64_t cRows;
    int64_t chromaOffset; // U for I420, the interleaved plane otherwise
    int64_t vOffset;      // I420 only
};

Layout LayoutOf(int32_t csp, int64_t stride, int64_t height)
{
    Layout l{stride, height, 0, (height + 1) / 2, stride * height, 0};
    if (csp == kCspI420) {
        l.cStride = (stride + 1) / 2;
        l.vOffset = l.chromaOffset + l.cStride * l.cRows;
    } else {
        l.cStride = (stride + 1) & ~int64_t{1};
    }
    return l;
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
    if (!Planar420(csp)) {
        return std::nullopt;
    }
    const Layout l = LayoutOf(csp, stride, height);
    return l.chromaOffset + l.cStride * l.cRows * (csp == kCspI420 ? 2 : 1);
}

bool Supported(int32_t src, int32_t dst)
{
    return (src == kCspNv21 && dst == kCspI420) || (src == kCspRgb565 && dst == kCspI420) ||
           (src == kCspI420 && dst == kCspNv12);
}

void CheckLuma(const KxImage &src, const KxImage &dst)
{
    for (int32_t y = 0; y < src.height; ++y) {
        const uint8_t *s = src.data + int64_t{y} * src.stride;
        const uint8_t *d = dst.data + int64_t{y} * dst.stride;
        FUZZ_CHECK(std::equal(s, s + src.width, d), "Y row %d not copied", y);
    }
}

void CheckNv21ToI420(const KxImage &src, const KxImage &dst)
{
    CheckLuma(src, dst);
    const Layout s = LayoutOf(kCspNv21, src.stride, src.height);
    const Layout d = LayoutOf(kCspI420, dst.stride, dst.height);
    const int64_t cWidth = (int64_t{src.width} + 1) / 2;
    for (int64_t cy = 0; cy < s.cRows; ++cy) {
        const uint8_t *vu = src.data + s.chromaOffset + cy * s.cStride;
        const uint8_t *u = dst.data + d.chromaOffset + cy * d.cStride;
        const uint8_t *v = dst.data + d.vOffset + cy * d.cStride;
        for (int64_t cx = 0; cx < cWidth; ++cx) {
            FUZZ_CHECK(u[cx] == vu[2 * cx + 1] && v[cx] == vu[2 * cx], "chroma %lld,%lld not split",
                       static_cast<long long>(cx), static_cast<long long>(cy));
        }
    }
}

void CheckI420ToNv12(const KxImage &src, const KxImage &dst)
{
    CheckLuma(src, dst);
    const Layout s = LayoutOf(kCspI420, src.stride, src.height);
    const Layout d = LayoutOf(kCspNv12, dst.stride, dst.height);
    const int64_t cWidth = (int64_t{src.width} + 1) / 2;
    for (int64_t cy = 0; cy < s.cRows; ++cy) {
        const uint8_t *u = src.data + s.chromaOffset + cy * s.cStride;
        const uint8_t *v = src.data + s.vOffset + cy * s.cStride;
        const uint8_t *uv = dst.data + d.chromaOffset + cy * d.cStride;
        for (int64_t cx = 0; cx < cWidth; ++cx) {
            FUZZ_CHECK(uv[2 * cx] == u[cx] && uv[2 * cx + 1] == v[cx], "chroma %lld,%lld not interleaved U first",
                       static_cast<long long>(cx), static_cast<long long>(cy));
        }
    }
}

// RGB becomes YUV of the studio range: Y 16..235, U and V 16..240.
void CheckRgb565ToI420(const KxImage &dst)
{
    const Layout d = LayoutOf(kCspI420, dst.stride, dst.height);
    for (int64_t y = 0; y < dst.height; ++y) {
        const uint8_t *row = dst.data + y * d.yStride;
        FUZZ_CHECK(std::all_of(row, row + dst.width, [](uint8_t p) { return p >= 16 && p <= 235; }),
                   "Y row %lld outside 16..235", static_cast<long long>(y));
    }
    const int64_t cWidth = (int64_t{dst.width} + 1) / 2;
    for (int64_t cy = 0; cy < d.cRows; ++cy) {
        for (const int64_t plane : {d.chromaOffset, d.vOffset}) {
            const uint8_t *row = dst.data + plane + cy * d.cStride;
            FUZZ_CHECK(std::all_of(row, row + cWidth, [](uint8_t p) { return p >= 16 && p <= 240; }),
                       "chroma row %lld outside 16..240", static_cast<long long>(cy));
        }
    }
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    QuietPluginLog();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    FuzzInput in(data, size);
    KxImage src{};
    KxImage dst{};
    src.csp = ReadCsp(in);
    dst.csp = ReadCsp(in);
    const uint8_t flags = in.U8();
    src.width = in.I16();
    src.height = in.I16();
    dst.width = (flags & 16) != 0 ? in.I16() : src.width;
    dst.height = (flags & 16) != 0 ? in.I16() : src.height;
    src.stride = static_cast<int32_t>(src.width * BytesPerPixel(src.csp) + in.I16());
    dst.stride = static_cast<int32_t>(dst.width * BytesPerPixel(dst.csp) + in.I16());
    const std::vector<uint8_t> fill = in.Rest();

    const std::optional<int64_t> srcBytes = ImageBytes(src.csp, src.width, src.height, src.stride);
    const std::optional<int64_t> dstBytes = ImageBytes(dst.csp, dst.width, dst.height, dst.stride);
    if (srcBytes.value_or(0) > kMaxImageBytes || dstBytes.value_or(0) > kMaxImageBytes) {
        return -1; // not worth keeping in the corpus
    }
    // An image without a layout gets one byte the converter must not touch.
    GuardedBuffer srcBuffer(static_cast<size_t>(srcBytes.value_or(1)));
    GuardedBuffer dstBuffer(static_cast<size_t>(dstBytes.value_or(1)));
    for (size_t i = 0; i < srcBuffer.size(); ++i) {
        srcBuffer.data()[i] = fill.empty() ? 0 : fill[i % fill.size()];
    }
    std::fill(dstBuffer.data(), dstBuffer.data() + dstBuffer.size(), uint8_t{0x5a});
    src.data = (flags & 4) != 0 ? nullptr : srcBuffer.data();
    dst.data = (flags & 8) != 0 ? nullptr : dstBuffer.data();
    const std::vector<uint8_t> srcBefore = srcBuffer.Snapshot();
    const std::vector<uint8_t> dstBefore = dstBuffer.Snapshot();

    const int32_t rc = TALVOColorConvert((flags & 1) != 0 ? nullptr : &src, (flags & 2) != 0 ? nullptr : &dst);

    FUZZ_CHECK(srcBuffer.Snapshot() == srcBefore, "the source image was written (rc %d)", rc);
    const bool dstUntouched = dstBuffer.Snapshot() == dstBefore;
    if ((flags & 15) != 0) {
        FUZZ_CHECK(rc == kErrMissing, "missing image or data: rc %d, want -13", rc);
        FUZZ_CHECK(dstUntouched, "missing image or data, yet the destination was written");
        return 0;
    }
    if (src.width != dst.width || src.height != dst.height || !Supported(src.csp, dst.csp)) {
        FUZZ_CHECK(rc == kErrColorSpace, "size mismatch or pair %d -> %d: rc %d, want -8005", src.csp, dst.csp, rc);
        FUZZ_CHECK(dstUntouched, "a refused conversion wrote the destination");
        return 0;
    }
#if KXCAMERA_WITH_LIBYUV
    const bool usable = src.width > 0 && src.height > 0 && int64_t{src.stride} >= src.width * BytesPerPixel(src.csp) &&
                        dst.stride >= dst.width;
    if (!usable) {
        FUZZ_CHECK(rc == kErrUnsupported, "%d x %d strides %d/%d: rc %d, want -1", src.width, src.height,
                   src.stride, dst.stride, rc);
        return 0;
    }
    FUZZ_CHECK(rc == 0, "%d x %d strides %d/%d pair %d -> %d: rc %d, want 0", src.width, src.height, src.stride,
               dst.stride, src.csp, dst.csp, rc);
    if (src.csp == kCspNv21) {
        CheckNv21ToI420(src, dst);
    } else if (src.csp == kCspI420) {
        CheckI420ToNv12(src, dst);
    } else {
        CheckRgb565ToI420(dst);
    }
#else
    FUZZ_CHECK(rc == kErrUnsupported, "a build without libyuv converted: rc %d", rc);
    FUZZ_CHECK(dstUntouched, "a build without libyuv wrote the destination");
#endif
    return 0;
}
