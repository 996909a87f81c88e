/* SPDX-License-Identifier: Apache-2.0 */
/*
 * The vendor camera handler library ("libtalvocamerahandler.so"): its
 * operations table and the records that pass through it.
 */
#ifndef KXCAMERA_CAMERA_HANDLER_H
#define KXCAMERA_CAMERA_HANDLER_H

#include <stdint.h>

#include "kxcamera/abi_check.h"

#ifdef __cplusplus
extern "C" {
#endif

#define KX_CAMERA_HANDLER_LIB "libtalvocamerahandler.so"
#define KX_CAMERA_HANDLER_GETTER "TALVOGetCameraHandler"

/* Data format codes of ability entries and open parameters. */
enum {
    KX_DATA_FMT_H264 = 1,
    KX_DATA_FMT_H265 = 2,
    KX_DATA_FMT_RGB565 = 4,
    KX_DATA_FMT_NV21 = 17,
};

typedef struct {
    uint32_t min;
    uint32_t max;
} KxFpsRange;
KX_ABI_SIZE(KxFpsRange, 8);

typedef struct {
    uint32_t width;
    uint32_t height;
} KxPictureSize;
KX_ABI_SIZE(KxPictureSize, 8);

/* One way a camera can deliver: a stream type or a pixel format. */
typedef struct {
    const KxFpsRange *supportFpsRanges;
    uint32_t fpsRangeNum;
    uint32_t reserved0;
    const KxPictureSize *supportSizes;
    uint32_t sizeNum;
    uint32_t dataFmt; /* 1 H.264, 2 H.265, 4 RGB565, anything else NV21 */
} KxCameraAbility;
KX_ABI_SIZE(KxCameraAbility, 32);
KX_ABI_OFFSET(KxCameraAbility, supportFpsRanges, 0);
KX_ABI_OFFSET(KxCameraAbility, fpsRangeNum, 8);
KX_ABI_OFFSET(KxCameraAbility, supportSizes, 16);
KX_ABI_OFFSET(KxCameraAbility, sizeNum, 24);
KX_ABI_OFFSET(KxCameraAbility, dataFmt, 28);

/* A free-form key/value fact about a camera. */
typedef struct {
    const char *key;
    uint64_t reserved0;
    const char *value;
    uint64_t reserved1;
} KxExtendInfo;
KX_ABI_SIZE(KxExtendInfo, 32);
KX_ABI_OFFSET(KxExtendInfo, key, 0);
KX_ABI_OFFSET(KxExtendInfo, value, 16);

/* The vendor's description of one camera; the array stays the vendor's. */
typedef struct {
    const char *id; /* vendor camera id, NUL at id[idLen] */
    uint32_t idLen; /* at most 64 */
    uint32_t reserved0;
    const KxCameraAbility *abilities;
    uint32_t abilityNum;
    uint32_t reserved1;
    const KxExtendInfo *extendInfos;
    uint32_t extendInfoNum;
    uint32_t reserved2;
} KxCameraCapability;
KX_ABI_SIZE(KxCameraCapability, 48);
KX_ABI_OFFSET(KxCameraCapability, id, 0);
KX_ABI_OFFSET(KxCameraCapability, idLen, 8);
KX_ABI_OFFSET(KxCameraCapability, abilities, 16);
KX_ABI_OFFSET(KxCameraCapability, abilityNum, 24);
KX_ABI_OFFSET(KxCameraCapability, extendInfos, 32);
KX_ABI_OFFSET(KxCameraCapability, extendInfoNum, 40);

/* What StartCamera is asked to deliver; lent for the call. */
typedef struct {
    const char *vendorId;
    uint32_t vendorIdLen;
    uint32_t width;
    uint32_t height;
    uint32_t fps;
    uint32_t dataFmt; /* 1 H.264, 2 H.265, 4 RGB565, 17 NV21 */
    uint32_t reserved;
} KxCameraOpenParams;
KX_ABI_SIZE(KxCameraOpenParams, 32);
KX_ABI_OFFSET(KxCameraOpenParams, vendorId, 0);
KX_ABI_OFFSET(KxCameraOpenParams, vendorIdLen, 8);
KX_ABI_OFFSET(KxCameraOpenParams, width, 12);
KX_ABI_OFFSET(KxCameraOpenParams, height, 16);
KX_ABI_OFFSET(KxCameraOpenParams, fps, 20);
KX_ABI_OFFSET(KxCameraOpenParams, dataFmt, 24);

/* A service action reported by the vendor; read only. */
typedef struct {
    uint32_t type; /* 7: camera state */
    uint32_t reserved0;
    const char *value; /* decimal text */
    uint32_t valueLen; /* at most 16 */
    uint32_t reserved1;
} KxServiceAction;
KX_ABI_SIZE(KxServiceAction, 24);
KX_ABI_OFFSET(KxServiceAction, type, 0);
KX_ABI_OFFSET(KxServiceAction, value, 8);
KX_ABI_OFFSET(KxServiceAction, valueLen, 16);

/* Frame callback handed to OpenCamera; called on the vendor's threads. */
typedef int32_t (*KxFrameCallback)(const char *vendorId, uint32_t vendorIdLen, const uint8_t *data, uint32_t length);

typedef int32_t (*KxUpdateServiceStatus)(const char *id, uint32_t idLen, uint32_t status);
typedef int32_t (*KxUpdateServiceAction)(const char *id, uint32_t idLen, const KxServiceAction *action);

/* The plugin's service listener; lent for the RegisterListener call only. */
typedef struct {
    KxUpdateServiceStatus updateServiceStatus;
    KxUpdateServiceAction updateServiceAction;
} KxServiceListener;
KX_ABI_SIZE(KxServiceListener, 16);
KX_ABI_OFFSET(KxServiceListener, updateServiceStatus, 0);
KX_ABI_OFFSET(KxServiceListener, updateServiceAction, 8);

/* Operations of the camera handler library; every slot but 5 is required. */
typedef struct {
    int32_t (*OpenCamera)(const char *vendorId, uint32_t vendorIdLen, KxFrameCallback callback);
    int32_t (*StartCamera)(const KxCameraOpenParams *params);
    int32_t (*CloseCamera)(const char *vendorId, uint32_t vendorIdLen);
    /* item 1: frame rate, value its decimal text */
    int32_t (*UpdateConfig)(const char *vendorId, uint32_t vendorIdLen, uint32_t item, const char *value,
                            uint32_t valueLen);
    int32_t (*GetCameraCapability)(KxCameraCapability **items, uint32_t *num);
    int32_t (*Reserved5)(void); /* never called; may be null */
    int32_t (*ReleaseCameraCapability)(uint32_t kind, KxCameraCapability *items, uint32_t num);
    int32_t (*RegisterListener)(const KxServiceListener *listener);
    /* control 1: next frame a key frame */
    int32_t (*BusinessControl)(int32_t control, void *in, uint32_t inLen, void *out, uint32_t outLen);
} KxCameraHandler;
KX_ABI_SIZE(KxCameraHandler, 9 * 8);

typedef int32_t (*KxGetCameraHandlerFn)(KxCameraHandler *handler);

#ifdef __cplusplus
}
#endif

#endif /* KXCAMERA_CAMERA_HANDLER_H */
