// SPDX-License-Identifier: Apache-2.0
// Colour conversion between the camera layouts and the encoder layouts.
#include "common/limits.h"
#include "common/log.h"
#include "video/video.h"

#if KXCAMERA_WITH_LIBYUV
#include <libyuv.h>
#endif

#define MEDIA_LOGE(fmt, ...) KX_LOG(::kx::kLogError, ::kx::kMediaTag, fmt __VA_OPT__(, ) __VA_ARGS__)
#define MEDIA_LOGI(fmt, ...) KX_LOG(::kx::kLogInfo, ::kx::kMediaTag, fmt __VA_OPT__(, ) __VA_ARGS__)

namespace {

#if KXCAMERA_WITH_LIBYUV

// Where the planes of a 4:2:0 image sit. The descriptor carries the first
// plane's stride only; the chroma planes take the layout's usual stride and
// follow each other without padding. Odd sizes round the chroma up, as the
// published layouts do.
struct Planes {
    uint8_t *y;
    int32_t yStride;
    uint8_t *u; // I420: U; NV12/NV21: the interleaved plane
    uint8_t *v; // I420 only
    int32_t cStride;
};

Planes I420Planes(const KxImage *img)
{
    const int32_t cStride = (img->stride + 1) / 2;
    uint8_t *u = img->data + static_cast<ptrdiff_t>(img->stride) * img->height;
    uint8_t *v = u + static_cast<ptrdiff_t>(cStride) * ((img->height + 1) / 2);
    return Planes{img->data, img->stride, u, v, cStride};
}

Planes SemiPlanes(const KxImage *img)
{
    uint8_t *uv = img->data + static_cast<ptrdiff_t>(img->stride) * img->height;
    return Planes{img->data, img->stride, uv, nullptr, (img->stride + 1) & ~1};
}

// libyuv reads a negative height as "flip vertically" and trusts strides;
// neither may happen by accident.
bool GeometryUsable(const KxImage *src, int32_t srcBytesPerPixel, const KxImage *dst)
{
    const bool usable = src->width > 0 && src->height > 0 &&
                        static_cast<int64_t>(src->stride) >= static_cast<int64_t>(src->width) * srcBytesPerPixel &&
                        dst->stride >= dst->width;
    if (!usable) {
        MEDIA_LOGE("image geometry not usable: width %d height %d src stride %d dst stride %d", src->width, src->height,
                   src->stride, dst->stride);
    }
    return usable;
}

// Runs one libyuv conversion on images whose geometry it can trust.
template <typename Call> int32_t Convert(const KxImage *src, int32_t srcBytesPerPixel, const KxImage *dst, Call call)
{
    if (!GeometryUsable(src, srcBytesPerPixel, dst)) {
        return ::kx::kErrUnsupported;
    }
    return call() == 0 ? 0 : ::kx::kErrUnsupported;
}

#else

int32_t Unsupported()
{
    MEDIA_LOGE("unsupport libyuv, check it");
    return ::kx::kErrUnsupported;
}

#endif

} // namespace

#if KXCAMERA_WITH_LIBYUV

int32_t ColorConvertRGB5652I420(const KxImage *srcImg, const KxImage *dstImg)
{
    return Convert(srcImg, 2, dstImg, [&] {
        const Planes dst = I420Planes(dstImg);
        return libyuv::RGB565ToI420(srcImg->data, srcImg->stride, dst.y, dst.yStride, dst.u, dst.cStride, dst.v,
                                    dst.cStride, srcImg->width, srcImg->height);
    });
}

int32_t ColorConvertNV212I420(const KxImage *srcImg, const KxImage *dstImg)
{
    return Convert(srcImg, 1, dstImg, [&] {
        const Planes src = SemiPlanes(srcImg);
        const Planes dst = I420Planes(dstImg);
        return libyuv::NV21ToI420(src.y, src.yStride, src.u, src.cStride, dst.y, dst.yStride, dst.u, dst.cStride, dst.v,
                                  dst.cStride, srcImg->width, srcImg->height);
    });
}

int32_t ColorConvertI4202NV12(const KxImage *srcImg, const KxImage *dstImg)
{
    return Convert(srcImg, 1, dstImg, [&] {
        const Planes src = I420Planes(srcImg);
        const Planes dst = SemiPlanes(dstImg);
        return libyuv::I420ToNV12(src.y, src.yStride, src.u, src.cStride, src.v, src.cStride, dst.y, dst.yStride, dst.u,
                                  dst.cStride, srcImg->width, srcImg->height);
    });
}

#else

int32_t ColorConvertRGB5652I420(const KxImage *, const KxImage *)
{
    return Unsupported();
}
int32_t ColorConvertNV212I420(const KxImage *, const KxImage *)
{
    return Unsupported();
}
int32_t ColorConvertI4202NV12(const KxImage *, const KxImage *)
{
    return Unsupported();
}

#endif

int32_t TALVOColorConvert(const KxImage *srcImg, const KxImage *dstImg)
{
    if (srcImg == nullptr || dstImg == nullptr || srcImg->data == nullptr || dstImg->data == nullptr) {
        MEDIA_LOGE("srcImg or dstImg is null");
        return ::kx::kErrMissing;
    }
    if (srcImg->width != dstImg->width || srcImg->height != dstImg->height) {
        MEDIA_LOGE("srcImg width %d  dstImg width %d , srcImg height %d dstImg height %d, maybe not equal",
                   srcImg->width, dstImg->width, srcImg->height, dstImg->height);
        return ::kx::kErrColorSpace;
    }
    MEDIA_LOGI("srcImg info: width %d height %d stride %d csp %d, dstImg info: width %d height %d stride %d csp %d",
               srcImg->width, srcImg->height, srcImg->stride, srcImg->csp, dstImg->width, dstImg->height,
               dstImg->stride, dstImg->csp);
    if (srcImg->csp == KX_CSP_NV21 && dstImg->csp == KX_CSP_I420) {
        return ColorConvertNV212I420(srcImg, dstImg);
    }
    if (srcImg->csp == KX_CSP_RGB565 && dstImg->csp == KX_CSP_I420) {
        return ColorConvertRGB5652I420(srcImg, dstImg);
    }
    if (srcImg->csp == KX_CSP_I420 && dstImg->csp == KX_CSP_NV12) {
        return ColorConvertI4202NV12(srcImg, dstImg);
    }
    return ::kx::kErrColorSpace;
}
