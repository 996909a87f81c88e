// SPDX-License-Identifier: Apache-2.0
// TALVOColorConvert with arbitrary descriptors. Each image gets a buffer of
// exactly the size its descriptor describes (first plane stride x height,
// chroma planes at the layout's stride with odd sizes rounded up), ending
// right at a page the process may not touch: the converters run partly in
// libyuv, which the sanitizer does not instrument, so an overrun has to fault
// by itself. What any call promises: the source is never written, a refusal
// leaves the destination as it was, a missing image is -13; a conversion
// that succeeds keeps every Y, U and V sample of a YUV source in its place,
// and gives studio-range YUV for RGB.
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
#include <array>
#include <optional>

#include "fuzz_support.h"
#include "kxcamera/color_convert.h"

namespace {

constexpr int32_t kCspI420 = 0;
constexpr int32_t kCspNv21 = 2;
constexpr int32_t kCspRgb565 = 4;

// Larger images add time, not paths.
constexpr int64_t kMaxImageBytes = int64_t{512} << 10;

// A block of exactly `size` zero bytes followed by an inaccessible page. The
// slack in front is poisoned, which catches underruns in instrumented code.
struct GuardedBuffer {
    explicit GuardedBuffer(size_t bytes) : size(bytes)
    {
        const auto page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
        length = (size + page - 1) / page * page + page;
        base =
            static_cast<uint8_t *>(mmap(nullptr, length, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
        FUZZ_CHECK(base != MAP_FAILED && mprotect(base + length - page, page, PROT_NONE) == 0, "%zu bytes", size);
        data = base + length - page - size;
        ASAN_POISON_MEMORY_REGION(base, data - base);
    }
    ~GuardedBuffer()
    {
        ASAN_UNPOISON_MEMORY_REGION(base, data - base);
        (void)munmap(base, length);
    }
    std::string Bytes() const { return std::string(reinterpret_cast<const char *>(data), size); }

    size_t size;
    size_t length;
    uint8_t *base;
    uint8_t *data;
};

// A 4:2:0 layout's chroma stride: half the first plane's for I420's two
// planes, all of it, even, for the interleaved one.
int64_t ChromaStride(const KxImage &image)
{
    return image.csp == kCspI420 ? (image.stride + 1) / 2 : (image.stride + 1) & ~int64_t{1};
}

// Bytes the descriptor describes; nothing for a code or geometry without a layout.
std::optional<int64_t> ImageBytes(const KxImage &image)
{
    if (image.width <= 0 || image.height <= 0 || image.stride <= 0 ||
        ((image.csp < 0 || image.csp > kCspNv21) && image.csp != kCspRgb565)) {
        return std::nullopt;
    }
    const int64_t chroma = image.csp == kCspRgb565 ? 0 : ChromaStride(image) * ((image.height + 1) / 2);
    return int64_t{image.stride} * image.height + chroma * (image.csp == kCspI420 ? 2 : 1);
}

// The Y, U and V samples of a 4:2:0 image, without padding.
std::array<std::string, 3> Samples(const KxImage &image)
{
    std::array<std::string, 3> yuv;
    const int64_t cStride = ChromaStride(image);
    const int64_t cRows = (image.height + 1) / 2;
    const bool nv21 = image.csp == kCspNv21;
    for (int64_t y = 0; y < image.height; ++y) {
        yuv[0].append(reinterpret_cast<const char *>(image.data) + y * image.stride, image.width);
    }
    for (int64_t y = 0; y < cRows; ++y) {
        const uint8_t *row = image.data + int64_t{image.stride} * image.height + y * cStride;
        for (int64_t x = 0; x < (image.width + 1) / 2; ++x) {
            yuv[1].push_back(static_cast<char>(image.csp == kCspI420 ? row[x] : row[2 * x + nv21]));
            yuv[2].push_back(static_cast<char>(image.csp == kCspI420 ? row[x + cRows * cStride] : row[2 * x + !nv21]));
        }
    }
    return yuv;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    FuzzInput in(data, size);
    const auto csp = [&in] {
        const uint8_t code = in.U8();
        return code < 0xf0 ? code % 6 : in.Take<int32_t>();
    };
    KxImage src{};
    KxImage dst{};
    src.csp = csp();
    dst.csp = csp();
    const uint8_t flags = in.U8();
    src.width = in.Take<int16_t>();
    src.height = in.Take<int16_t>();
    dst.width = (flags & 16) != 0 ? in.Take<int16_t>() : src.width;
    dst.height = (flags & 16) != 0 ? in.Take<int16_t>() : src.height;
    src.stride = src.width * (src.csp == kCspRgb565 ? 2 : 1) + in.Take<int16_t>();
    dst.stride = dst.width * (dst.csp == kCspRgb565 ? 2 : 1) + in.Take<int16_t>();
    const std::string fill = in.Bytes(size);

    const std::optional<int64_t> srcBytes = ImageBytes(src);
    const std::optional<int64_t> dstBytes = ImageBytes(dst);
    if (srcBytes.value_or(0) > kMaxImageBytes || dstBytes.value_or(0) > kMaxImageBytes) {
        return -1; // not worth keeping in the corpus
    }
    // An image without a layout gets one byte the converter must not touch.
    GuardedBuffer srcBuffer(static_cast<size_t>(srcBytes.value_or(1)));
    GuardedBuffer dstBuffer(static_cast<size_t>(dstBytes.value_or(1)));
    for (size_t i = 0; i < srcBuffer.size && !fill.empty(); ++i) {
        srcBuffer.data[i] = fill[i % fill.size()];
    }
    src.data = (flags & 4) != 0 ? nullptr : srcBuffer.data;
    dst.data = (flags & 8) != 0 ? nullptr : dstBuffer.data;
    const std::string srcBefore = srcBuffer.Bytes();

    const int32_t rc = TALVOColorConvert((flags & 1) != 0 ? nullptr : &src, (flags & 2) != 0 ? nullptr : &dst);

    FUZZ_CHECK(srcBuffer.Bytes() == srcBefore && (rc == 0 || dstBuffer.Bytes() == std::string(dstBuffer.size, '\0')));
    FUZZ_CHECK((rc == -13) == ((flags & 15) != 0), "rc %d", rc);
    if (rc != 0) {
        return 0;
    }
    FUZZ_CHECK(src.width == dst.width && src.height == dst.height && dst.csp == kCspI420 + (src.csp == kCspI420));
    // Unwritten samples stay 0, below studio range.
    const auto out = Samples(dst);
    const auto studio = [](const std::string &plane, unsigned char top) {
        return std::all_of(plane.begin(), plane.end(), [top](unsigned char p) { return p >= 16 && p <= top; });
    };
    FUZZ_CHECK(src.csp == kCspRgb565 ? studio(out[0], 235) && studio(out[1], 240) && studio(out[2], 240)
                                     : out == Samples(src));
    return 0;
}
