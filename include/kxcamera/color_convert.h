/* SPDX-License-Identifier: Apache-2.0 */
/* Colour conversion between the camera and encoder layouts. */
#ifndef KXCAMERA_COLOR_CONVERT_H
#define KXCAMERA_COLOR_CONVERT_H

#include <stdint.h>

#include "kxcamera/abi_check.h"

#ifdef __cplusplus
extern "C" {
#endif

/* One image: the caller owns data. Chroma strides follow the layout's usual
 * ones (half the Y stride for I420, the Y stride for NV12 and NV21). */
typedef struct {
    int32_t csp;    /* 0 I420, 1 NV12, 2 NV21, 4 RGB565 */
    int32_t width;  /* pixels */
    int32_t height; /* pixels */
    int32_t stride; /* bytes per row of the first plane */
    uint8_t *data;
} KxImage;
KX_ABI_SIZE(KxImage, 24);
KX_ABI_OFFSET(KxImage, csp, 0);
KX_ABI_OFFSET(KxImage, width, 4);
KX_ABI_OFFSET(KxImage, height, 8);
KX_ABI_OFFSET(KxImage, stride, 12);
KX_ABI_OFFSET(KxImage, data, 16);

#if defined(__GNUC__)
__attribute__((visibility("default")))
#endif
int32_t
TALVOColorConvert(const KxImage *srcImg, const KxImage *dstImg);

#ifdef __cplusplus
}
#endif

#endif /* KXCAMERA_COLOR_CONVERT_H */
