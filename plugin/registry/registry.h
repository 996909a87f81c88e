// SPDX-License-Identifier: Apache-2.0
// Camera service registry: one record per vendor camera, its ability text and
// the lookups every other subsystem uses.
#pragma once

#include <cstdint>

#include "kxcamera/plugin.h"

inline constexpr uint32_t kServiceIdSize = 100;
inline constexpr uint32_t kAbilityTextSize = 1400;
inline constexpr uint32_t kMaxVendorIdLen = 64;

// Negotiated camera parameters, as the framework's parameter text set them.
struct KxNegParams {
    int32_t width;
    int32_t height;
    int32_t fps;       // 0: not negotiated yet
    int32_t codecType; // 0 raw frames encoded here, 1 H.264, 2 H.265 from the vendor
    int32_t colorFmt;  // colour format of raw frames
};

// One camera service. Zeroed at creation, freed at service release; a pointer
// from a lookup stays valid until then.
struct KxCameraService {
    char serviceId[kServiceIdSize]; // "Camera_" + vendor id
    uint32_t serviceIdLen;
    char anonyServiceId[kServiceIdSize]; // for log lines only
    char vendorId[kServiceIdSize];
    uint32_t vendorIdLen;
    uint32_t serviceType; // always 1
    KxNegParams negParams;
    uint8_t vencRunning; // 1 while the encoder thread is to run
    TALVOMutex vencLock; // guards vencQueue only
    TALVOThread vencThread;
    TALVODllHead vencQueue; // raw frames waiting for the encoder thread
    KxVideoEncoderHandler *vencHandler;
    void *vencHandle; // the encoder instance
    uint32_t dstFmtCodec;
    uint32_t dstFrmProcess;
    KxVideoAccessUnit convFrame; // intermediate conversion buffer
    KxVideoAccessUnit encFrame;  // encoder input buffer
    char abilityText[kAbilityTextSize];
    KxCmdCallback cmdCb;
    KxCmdCallback getCmdCb; // stored, never called
    KxAbilityInfo abilityInfo;
    void *cmdCbUserData;
    KxWorkMode workMode;
    uint8_t isOpened;
    // Beyond the fields above, kept for a safe teardown:
    uint8_t vencThreadStarted; // the thread was created and not yet joined
    uint8_t vencThreadLive;    // set before the thread is created, cleared by the thread as it leaves
    uint32_t droppedFrames;    // raw frames released because no encoder thread ran
};

extern "C" {
KXCAMERA_API int32_t GetCameraService(void);
KXCAMERA_API KxCameraService *AddServiceToCameraList(const KxCameraCapability *capability);
KXCAMERA_API int32_t CheckCameraAbility(const KxCameraCapability *capability);
KXCAMERA_API int32_t InitCameraServiceId(const char *vendorId, KxCameraService *service);
// idLen is passed along by callers; the match is on the text alone.
KXCAMERA_API KxCameraService *GetCameraHandlerById(const char *id, uint32_t idLen);
KXCAMERA_API KxCameraService *GetCameraHandlerByVendorId(const char *vendorId, uint32_t vendorIdLen);

KXCAMERA_API int32_t BuildCameraAbilityString(const KxCameraCapability *capability, char *buffer, int32_t size);
KXCAMERA_API int32_t BuildSubStreamAbilityString(const KxCameraAbility *ability, char *buffer, int32_t size);
KXCAMERA_API int32_t BuildSubFrameAbilityString(const KxCameraAbility *ability, char *buffer, int32_t size);
KXCAMERA_API int32_t BuildSubFpsAbilityString(const KxCameraAbility *ability, char *buffer, int32_t size);
KXCAMERA_API int32_t BuildSubResAbilityString(const KxCameraAbility *ability, char *buffer, int32_t size);
KXCAMERA_API int32_t BuildSubFormatAbilityString(const KxCameraAbility *ability, char *buffer, int32_t size);
KXCAMERA_API int32_t BuildSubExtendInfoString(const KxExtendInfo *extendInfos, uint32_t extendInfoNum, char *buffer,
                                              int32_t size);
}
