// SPDX-License-Identifier: Apache-2.0
// Camera service registry: one record per vendor camera, its ability text and
// the lookups every other subsystem uses.
#pragma once

#include <cstdint>

#include "common/mutex.h"
#include "kxcamera/plugin.h"
#include "talvo/securec.h"

inline constexpr uint32_t kServiceIdSize = 100;
// A service id formed for a vendor report fits this room: vendor ids up to
// 56 characters.
inline constexpr uint32_t kRealIdRoom = 64;
// Negotiated colour format codes of raw frames.
inline constexpr int32_t kNegColorFmtNv21 = 2;
inline constexpr int32_t kNegColorFmtRgb565 = 4;
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

// The state of one encoder thread; video/lane.cpp.
struct KxLaneThread;

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
    // Beyond the fields above. The encoder lane's own state; video/lane.h
    // says what each means and is the only code that touches it.
    uint32_t laneGate;
    uint8_t laneLockLive;
    KxLaneThread *laneThread;
    KxLaneThread *laneStarting;
    KxLaneThread *retiredLanes;
    int32_t vencWidth;
    int32_t vencHeight;
    uint64_t laneQueueBytes;
    KxCameraFrameCounters counters;
    int64_t overloadLogUs;
    int64_t sizeLogUs;
    int64_t idleLogUs;
    // Even while cmdCb and cmdCbUserData match; see PublishCmdCallback.
    uint32_t cmdCbSeq;
};

namespace kx {

// The module lock held over a lookup by service id, as every entry point
// that names a camera begins. A failure is logged in their words and under
// the caller's name; Status() is then what the entry point returns.
class LockedCamera {
public:
    LockedCamera(const KxServiceIdDesc *index, const char *caller);
    [[nodiscard]] KxCameraService *Get() const { return service_; }
    [[nodiscard]] int32_t Status() const { return status_; }

private:
    MutexGuard guard_;
    KxCameraService *service_ = nullptr;
    int32_t status_ = 0;
};

// The service id of a vendor camera: "Camera_" and its vendor id. Returns
// what sprintf_s returns; 0 or less is a failure.
inline int FormatServiceId(char *serviceId, uint32_t room, const char *vendorId)
{
    return sprintf_s(serviceId, room, "Camera_%s", vendorId);
}

// A camera's command callback and the user data that goes with it.
struct CmdCallback {
    KxCmdCallback callback;
    void *userData;
};

// The pair is read on vendor and encoder threads without the module lock,
// so it is published under a sequence count: a reader never pairs one
// callback with another's user data. Writers hold the module lock.
inline void PublishCmdCallback(KxCameraService *service, KxCmdCallback callback, void *userData)
{
    const uint32_t seq = __atomic_load_n(&service->cmdCbSeq, __ATOMIC_RELAXED);
    __atomic_store_n(&service->cmdCbSeq, seq + 1, __ATOMIC_RELAXED);
    // Release: a reader that sees either new value also sees the odd count.
    __atomic_store_n(&service->cmdCb, callback, __ATOMIC_RELEASE);
    __atomic_store_n(&service->cmdCbUserData, userData, __ATOMIC_RELEASE);
    __atomic_store_n(&service->cmdCbSeq, seq + 2, __ATOMIC_RELEASE);
}

inline CmdCallback ReadCmdCallback(const KxCameraService *service)
{
    while (true) {
        const uint32_t before = __atomic_load_n(&service->cmdCbSeq, __ATOMIC_ACQUIRE);
        const CmdCallback pair{__atomic_load_n(&service->cmdCb, __ATOMIC_ACQUIRE),
                               __atomic_load_n(&service->cmdCbUserData, __ATOMIC_ACQUIRE)};
        if ((before & 1u) == 0 && __atomic_load_n(&service->cmdCbSeq, __ATOMIC_RELAXED) == before) {
            return pair;
        }
    }
}

} // namespace kx

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
