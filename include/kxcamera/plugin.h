/* SPDX-License-Identifier: Apache-2.0 */
/*
 * The camera plugin as the framework sees it: the entry point and the table
 * it fills, the framework's callback tables, the module state and the
 * exported constants.
 */
#ifndef KXCAMERA_PLUGIN_H
#define KXCAMERA_PLUGIN_H

#include <stdint.h>

#include "kxcamera/abi_check.h"
#include "kxcamera/camera_handler.h"
#include "kxcamera/types.h"
#include "kxcamera/video_encoder.h"
#include "talvo/talvo.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Marks what the plugin exports; everything else in it stays hidden. */
#if defined(__GNUC__)
#define KXCAMERA_API __attribute__((visibility("default")))
#else
#define KXCAMERA_API
#endif

/* The framework's per-camera command callback; result ignored. */
typedef int32_t (*KxCmdCallback)(const KxServiceIdDesc *identity, const KxCommand *message, void *userData);
/* The framework's global command callback; takes a notification message. */
typedef int32_t (*KxGlbCmdCallback)(const KxCommand *message);

typedef int32_t (*KxSetCommandFn)(const KxServiceIdDesc *index, KxCommand *command);
typedef int32_t (*KxSetCmdCbFn)(const KxServiceIdDesc *index, KxCmdCallback callback, void *userData);

/* Per-camera operations handed to AddService; lent for the call. */
typedef struct {
    KxSetCommandFn setCommand;
    KxSetCommandFn getCommand;
    KxSetCmdCbFn setCmdCb;
    KxSetCmdCbFn getCmdCb;
} KxServiceOps;
KX_ABI_SIZE(KxServiceOps, 32);

/* The framework's service callbacks given to service loading. */
typedef struct {
    int32_t (*AddService)(const KxServiceIdDesc *info, const KxServiceOps *ops);
    int32_t (*DeleteService)(const KxServiceIdDesc *info);
    void (*reserved)(void); /* stored, never called */
} KxServiceCallbacks;
KX_ABI_SIZE(KxServiceCallbacks, 24);

/* The service operations table filled by TALVOGetCameraServiceHandler. */
typedef struct {
    int32_t (*getVersion)(uint64_t *version);
    int32_t (*loadService)(const KxServiceCallbacks *callbacks);
    KxSetCmdCbFn setCmdCb;
    KxSetCmdCbFn getCmdCb;
    KxSetCommandFn setCommand;
    KxSetCommandFn getCommand;
    int32_t (*releaseService)(void);
    int32_t (*setGlbCmdCb)(void *unused, KxGlbCmdCallback callback);
    void *reserved8; /* always null */
} KxServiceHandler;
KX_ABI_SIZE(KxServiceHandler, 9 * 8);
KX_ABI_OFFSET(KxServiceHandler, getVersion, 0);
KX_ABI_OFFSET(KxServiceHandler, loadService, 8);
KX_ABI_OFFSET(KxServiceHandler, setCmdCb, 16);
KX_ABI_OFFSET(KxServiceHandler, getCmdCb, 24);
KX_ABI_OFFSET(KxServiceHandler, setCommand, 32);
KX_ABI_OFFSET(KxServiceHandler, getCommand, 40);
KX_ABI_OFFSET(KxServiceHandler, releaseService, 48);
KX_ABI_OFFSET(KxServiceHandler, setGlbCmdCb, 56);
KX_ABI_OFFSET(KxServiceHandler, reserved8, 64);

#define KX_VENC_ABILITY_CAPACITY 2

/* The process-wide state of the plugin; zero at load, never allocated. */
typedef struct {
    uint8_t inited;                /* 1 while the service is loaded */
    TALVOMutex lock;               /* the module lock */
    KxCameraHandler cameraHandler; /* filled by the camera handler library */
    uint32_t vencAbilityNum;       /* 0..2; above 0: an encoder is available */
    KxVencAbility vencAbility[KX_VENC_ABILITY_CAPACITY];
    KxVideoEncoderHandler vencHandler; /* filled by the video encoder library */
    TALVODllHead serviceList;          /* camera service records, vendor order */
    KxServiceCallbacks serviceCb;      /* copy of the framework's table */
    void *cameraLibHandle;
    void *vencLibHandle;
    void *eventsHandle; /* the module event queue */
    KxGlbCmdCallback glbCmdCb;
} KxCameraModule;

KXCAMERA_API extern KxCameraModule g_cameraModule;

/* Limits and defaults. */
KXCAMERA_API extern const int32_t DEFAULT_FPS;
KXCAMERA_API extern const int32_t DEFAULT_FRAME_RATE;
KXCAMERA_API extern const int32_t MAX_FRAME_RATE;
KXCAMERA_API extern const int32_t DEFAULT_I_INTERVAL;
KXCAMERA_API extern const int32_t VENC_SLEEP_MS;
KXCAMERA_API extern const int32_t MAX_VIDEO_DATA_LENGTH;
KXCAMERA_API extern const int32_t MAX_CAMERA_ABILITY_COUNT;
KXCAMERA_API extern const int32_t BITS_PER_PIXEL_12;
KXCAMERA_API extern const int32_t BITS_PER_PIXEL_16;
KXCAMERA_API extern const int32_t BITS_PER_PIXEL_24;
KXCAMERA_API extern const int32_t BIT_PER_BYTE;
KXCAMERA_API extern const int32_t MODULE_DEVICE;
KXCAMERA_API extern const int32_t DEVICE_SERVICE_TYPE_CAMERA;
KXCAMERA_API extern const int32_t CAMEAR_MODULE;
KXCAMERA_API extern const int32_t CAMERA_INT_STRING_LEN;
KXCAMERA_API extern const int32_t CAMERA_STATE_FACING;
KXCAMERA_API extern const int32_t CAMERA_STATE_DEGREE;
KXCAMERA_API extern const int32_t CAMERA_WD_CRYPTO_VERSION;
KXCAMERA_API extern const int32_t CAMREA_WD_CRYPTO_ABILITY;
KXCAMERA_API extern const int32_t CAMERA_WD_CRYPTO_ALG;
KXCAMERA_API extern const uint8_t KX_CAMREA_VRESION_MAJOR;
KXCAMERA_API extern const uint8_t KX_CAMREA_VRESION_SUB;
KXCAMERA_API extern const uint8_t KX_CAMREA_VRESION_PATCH;
KXCAMERA_API extern const uint8_t KX_CAMREA_VRESION_BETA;

/*
 * The bound on a raw-frame camera's queue of frames waiting for its encoder
 * thread. When a frame arrives, the oldest waiting frames are dropped while
 * the queue holds more than VENC_QUEUE_MAX_FRAMES frames or more than
 * VENC_QUEUE_MAX_BYTES bytes, or while the oldest arrived more than
 * VENC_QUEUE_MAX_AGE_INTERVALS frame intervals (of the negotiated rate)
 * before the newest. The newest frame is never dropped, and frames that
 * arrive together are never dropped for their age.
 */
KXCAMERA_API extern const int32_t VENC_QUEUE_MAX_FRAMES;
KXCAMERA_API extern const int32_t VENC_QUEUE_MAX_BYTES;
KXCAMERA_API extern const int32_t VENC_QUEUE_MAX_AGE_INTERVALS;

/* What became of one camera's frames since service load. */
typedef struct {
    uint64_t framesIn;        /* frames the camera delivered and the plugin took */
    uint64_t framesEncoded;   /* raw frames encoded, or frames passed on as they came */
    uint64_t droppedOverload; /* raw frames dropped because the encoder fell behind */
    uint64_t droppedError;    /* frames dropped for any other reason */
} KxCameraFrameCounters;
KX_ABI_SIZE(KxCameraFrameCounters, 32);
KX_ABI_OFFSET(KxCameraFrameCounters, droppedError, 24);

/*
 * Copies the counters of the camera named by index->id (its service id).
 * Returns 0, -13 for a null argument, -1000 when the service is not loaded,
 * -5 for an unknown camera.
 */
KXCAMERA_API int32_t KxCameraGetFrameCounters(const KxServiceIdDesc *index, KxCameraFrameCounters *counters);

/* The entry point: fills the nine slots, returns 0. */
KXCAMERA_API int32_t TALVOGetCameraServiceHandler(KxServiceHandler *table);

KXCAMERA_API int32_t TALVOCameraGetVersion(uint64_t *version);
KXCAMERA_API int32_t TALVOCameraLoadService(const KxServiceCallbacks *callbacks);
KXCAMERA_API int32_t TALVOCameraSetCmdCb(const KxServiceIdDesc *index, KxCmdCallback callback, void *userData);
KXCAMERA_API int32_t TALVOCameraGetCmdCb(const KxServiceIdDesc *index, KxCmdCallback callback, void *userData);
KXCAMERA_API int32_t TALVOCameraSetCommand(const KxServiceIdDesc *index, KxCommand *command);
KXCAMERA_API int32_t TALVOCameraGetCommand(const KxServiceIdDesc *index, KxCommand *command);
KXCAMERA_API int32_t TALVOCameraReleaseService(void);
KXCAMERA_API int32_t TALVOCameraSetGlbCmdCb(void *unused, KxGlbCmdCallback callback);

#ifdef __cplusplus
}
#endif

#endif /* KXCAMERA_PLUGIN_H */
