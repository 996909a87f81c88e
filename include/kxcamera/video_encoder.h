/* SPDX-License-Identifier: Apache-2.0 */
/*
 * The vendor video encoder library ("libtalvovideoencoder.so"): its
 * operations table and the records that pass through it.
 */
#ifndef KXCAMERA_VIDEO_ENCODER_H
#define KXCAMERA_VIDEO_ENCODER_H

#include <stdint.h>

#include "kxcamera/abi_check.h"

#ifdef __cplusplus
extern "C" {
#endif

#define KX_VIDEO_ENCODER_LIB "libtalvovideoencoder.so"
#define KX_VIDEO_ENCODER_GETTER "TALVOGetVideoEncoderHandler"

/* Colour space codes; bit n of cspTypeMask stands for code n. */
enum {
    KX_CSP_I420 = 0,
    KX_CSP_NV12 = 1,
    KX_CSP_NV21 = 2,
    KX_CSP_RGB565 = 4,
};

/* What one encoder of the library can do. */
typedef struct {
    int32_t codecType;   /* 0: the codec the plugin uses */
    int32_t cspTypeMask; /* bit 0 I420, bit 1 NV12, bit 2 NV21 */
    int32_t maxEncWidth;
    int32_t maxEncHeight;
    int32_t minEncWidth;
    int32_t minEncHeigth;
    int32_t widthAlign;
    int32_t heightAlign;
    int32_t ProfileMask;
    int32_t maxCodecNum; /* instances the library can create */
    int32_t asynOutput;  /* output comes through the output callback */
} KxVencAbility;
KX_ABI_SIZE(KxVencAbility, 44);
KX_ABI_OFFSET(KxVencAbility, codecType, 0);
KX_ABI_OFFSET(KxVencAbility, cspTypeMask, 4);
KX_ABI_OFFSET(KxVencAbility, maxEncWidth, 8);
KX_ABI_OFFSET(KxVencAbility, maxEncHeight, 12);
KX_ABI_OFFSET(KxVencAbility, minEncWidth, 16);
KX_ABI_OFFSET(KxVencAbility, minEncHeigth, 20);
KX_ABI_OFFSET(KxVencAbility, widthAlign, 24);
KX_ABI_OFFSET(KxVencAbility, heightAlign, 28);
KX_ABI_OFFSET(KxVencAbility, ProfileMask, 32);
KX_ABI_OFFSET(KxVencAbility, maxCodecNum, 36);
KX_ABI_OFFSET(KxVencAbility, asynOutput, 40);

/* Encoded bytes from the library; bsBuf stays the library's. */
typedef struct {
    uint8_t *bsBuf;
    int32_t bsLength;
    uint32_t reserved;
    int64_t timeStamp; /* microseconds, from the input frame */
} KxVencOutput;
KX_ABI_SIZE(KxVencOutput, 24);
KX_ABI_OFFSET(KxVencOutput, bsBuf, 0);
KX_ABI_OFFSET(KxVencOutput, bsLength, 8);
KX_ABI_OFFSET(KxVencOutput, timeStamp, 16);

/* May be called on the library's own thread. */
typedef void (*KxVencOutputCallback)(const KxVencOutput *outputData, void *privateData);

/* Lent for VideoEncoderCreate. Height comes before width. */
typedef struct {
    uint8_t reserved0[8];
    uint32_t height;
    uint32_t width;
    uint32_t mColorType; /* colour space code of the input frames */
    uint32_t reserved1;
    void *privateData; /* handed back to outputCallback */
    KxVencOutputCallback outputCallback;
} KxVencCreateParams;
KX_ABI_SIZE(KxVencCreateParams, 40);
KX_ABI_OFFSET(KxVencCreateParams, height, 8);
KX_ABI_OFFSET(KxVencCreateParams, width, 12);
KX_ABI_OFFSET(KxVencCreateParams, mColorType, 16);
KX_ABI_OFFSET(KxVencCreateParams, privateData, 24);
KX_ABI_OFFSET(KxVencCreateParams, outputCallback, 32);

/* Lent for VideoEncoderConfigure. */
typedef struct {
    uint32_t inFrameRate;  /* frames per second delivered */
    uint32_t outFrameRate; /* frames per second to encode */
    uint32_t bitRate;      /* target, bits per second */
    uint32_t maxBitRate;   /* ceiling, bits per second */
    uint32_t reserved;     /* 0 */
} KxVencConfigParams;
KX_ABI_SIZE(KxVencConfigParams, 20);

/* One frame for VideoEncoderProcess; lent for the call. */
typedef struct {
    uint8_t *data;     /* the prepared frame */
    uint32_t length;   /* bytes in data */
    int32_t csp;       /* colour space code of data */
    int64_t timeStamp; /* microseconds; comes back in KxVencOutput */
    uint32_t width;
    uint32_t height;
} KxVencInputFrame;
KX_ABI_SIZE(KxVencInputFrame, 32);
KX_ABI_OFFSET(KxVencInputFrame, data, 0);
KX_ABI_OFFSET(KxVencInputFrame, length, 8);
KX_ABI_OFFSET(KxVencInputFrame, csp, 12);
KX_ABI_OFFSET(KxVencInputFrame, timeStamp, 16);
KX_ABI_OFFSET(KxVencInputFrame, width, 24);
KX_ABI_OFFSET(KxVencInputFrame, height, 28);

/* Operations of the video encoder library; all five are required. */
typedef struct {
    int32_t (*VideoEncoderGetAbility)(KxVencAbility *abilities, uint32_t capacity, uint32_t *num);
    int32_t (*VideoEncoderCreate)(void **handle, const KxVencCreateParams *params);
    int32_t (*VideoEncoderConfigure)(void *handle, const KxVencConfigParams *params);
    int32_t (*VideoEncoderProcess)(void *handle, const KxVencInputFrame *input, uint32_t flags, KxVencOutput *output);
    int32_t (*VideoEncoderDestroy)(void **handle);
} KxVideoEncoderHandler;
KX_ABI_SIZE(KxVideoEncoderHandler, 5 * 8);

typedef int32_t (*KxGetVideoEncoderHandlerFn)(KxVideoEncoderHandler *handler);

#ifdef __cplusplus
}
#endif

#endif /* KXCAMERA_VIDEO_ENCODER_H */
