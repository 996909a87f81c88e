// SPDX-License-Identifier: Apache-2.0
// The entry point, the module state and the entry points that need nothing else.
#include "frame/frame.h"

#include "common/limits.h"
#include "common/log.h"
#include "common/module.h"
#include "common/mutex.h"

extern "C" {

KxCameraModule g_cameraModule;

const int32_t DEFAULT_FPS = kx::kDefaultFps;
const int32_t DEFAULT_FRAME_RATE = kx::kDefaultFrameRate;
const int32_t MAX_FRAME_RATE = kx::kMaxFrameRate;
const int32_t DEFAULT_I_INTERVAL = kx::kDefaultIInterval;
const int32_t VENC_SLEEP_MS = kx::kVencSleepMs;
const int32_t MAX_VIDEO_DATA_LENGTH = kx::kMaxVideoDataLength;
const int32_t MAX_CAMERA_ABILITY_COUNT = kx::kMaxCameraAbilityCount;
const int32_t BITS_PER_PIXEL_12 = kx::kBitsPerPixel12;
const int32_t BITS_PER_PIXEL_16 = kx::kBitsPerPixel16;
const int32_t BITS_PER_PIXEL_24 = kx::kBitsPerPixel24;
const int32_t BIT_PER_BYTE = kx::kBitPerByte;
const int32_t MODULE_DEVICE = kx::kModuleDevice;
const int32_t DEVICE_SERVICE_TYPE_CAMERA = kx::kDeviceServiceTypeCamera;
const int32_t CAMEAR_MODULE = kx::kCameraModule;
const int32_t CAMERA_INT_STRING_LEN = kx::kCameraIntStringLen;
const int32_t CAMERA_STATE_FACING = kx::kCameraStateFacing;
const int32_t CAMERA_STATE_DEGREE = kx::kCameraStateDegree;
const int32_t CAMERA_WD_CRYPTO_VERSION = kx::kCryptoVersion;
const int32_t CAMREA_WD_CRYPTO_ABILITY = kx::kCryptoAbility;
const int32_t CAMERA_WD_CRYPTO_ALG = kx::kCryptoAlg;
const uint8_t KX_CAMREA_VRESION_MAJOR = kx::kVersionMajor;
const uint8_t KX_CAMREA_VRESION_SUB = kx::kVersionSub;
const uint8_t KX_CAMREA_VRESION_PATCH = kx::kVersionPatch;
const uint8_t KX_CAMREA_VRESION_BETA = kx::kVersionBeta;
const int32_t VENC_QUEUE_MAX_FRAMES = kx::kVencQueueMaxFrames;
const int32_t VENC_QUEUE_MAX_BYTES = kx::kVencQueueMaxBytes;
const int32_t VENC_QUEUE_MAX_AGE_INTERVALS = kx::kVencQueueMaxAgeIntervals;

} // extern "C"

namespace {

// Slot 8 is reserved and stays null.
constexpr KxServiceHandler kServiceHandler = {
    .getVersion = TALVOCameraGetVersion,
    .loadService = TALVOCameraLoadService,
    .setCmdCb = TALVOCameraSetCmdCb,
    .getCmdCb = TALVOCameraGetCmdCb,
    .setCommand = TALVOCameraSetCommand,
    .getCommand = TALVOCameraGetCommand,
    .releaseService = TALVOCameraReleaseService,
    .setGlbCmdCb = TALVOCameraSetGlbCmdCb,
    .reserved8 = nullptr,
};

} // namespace

int32_t TALVOGetCameraServiceHandler(KxServiceHandler *table)
{
    *table = kServiceHandler;
    return 0;
}

int32_t TALVOCameraGetVersion(uint64_t *version)
{
    if (version == nullptr) {
        LOGE("get camera lib version failed, input version is NULL");
        return kx::kErrMissing;
    }
    *version = kx::kVersion;
    // The message's %0x takes an unsigned int: the low 32 bits are what it shows.
    LOGI("get camera version: 0x%0x", static_cast<unsigned int>(*version));
    return 0;
}

int32_t TALVOCameraGetCommand(const KxServiceIdDesc *, KxCommand *)
{
    return 0;
}

int32_t TALVOCameraSetGlbCmdCb(void *, KxGlbCmdCallback callback)
{
    if (!kx::ModuleInited()) {
        LOGE("camera module is not init, please init first");
        return kx::kErrNotReady;
    }
    {
        kx::MutexGuard guard(&g_cameraModule.lock);
        g_cameraModule.glbCmdCb = callback;
    }
    LOGD("TALVOcameraSetGlbCmdCb success");
    return 0;
}
