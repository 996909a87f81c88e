// SPDX-License-Identifier: Apache-2.0
// The encoder instance of a raw-frame camera: colour space, bit rate,
// creation, configuration and destruction.
#include "common/limits.h"
#include "common/log.h"
#include "video/video.h"

namespace {

struct BitrateRow {
    uint32_t width;
    uint32_t height;
    int32_t bitRate; // bits per second at kDefaultFrameRate
};

// Searched in this order; the first exact match wins.
constexpr BitrateRow kBitrateTable[] = {
    {480, 360, 1110000}, {640, 360, 1500000},  {640, 480, 1800000},   {720, 540, 2100000},   {960, 540, 2300000},
    {960, 720, 2800000}, {1280, 720, 3400000}, {1440, 1080, 5000000}, {1920, 1080, 6000000},
};
constexpr int32_t kDefaultBitrate = 500000;
// The largest product the bit-rate formula forms must fit 32 bits.
static_assert(int64_t{6000000} * kx::kMaxFrameRate <= INT32_MAX);

bool CspInMask(uint32_t csp, int32_t mask)
{
    return csp <= KX_CSP_NV21 && (static_cast<uint32_t>(mask) & (1u << csp)) != 0;
}

void LogAbilities()
{
    const KxCameraModule &module = g_cameraModule;
    for (uint32_t i = 0; i < module.vencAbilityNum && i < KX_VENC_ABILITY_CAPACITY; ++i) {
        const KxVencAbility &a = module.vencAbility[i];
        LOGI("ability index %d, codecType %d cspTypeMask %d maxEncWidth %d maxEncHeight %d", i, a.codecType,
             a.cspTypeMask, a.maxEncWidth, a.maxEncHeight);
        LOGI("minEncWidth %d minEncHeigth %d widthAlign %d heightAlign %d ProfileMask %d maxCodecNum %d asynOutput %d",
             a.minEncWidth, a.minEncHeigth, a.widthAlign, a.heightAlign, a.ProfileMask, a.maxCodecNum, a.asynOutput);
    }
}

} // namespace

int32_t GetCodecCsp(uint32_t cspMask, uint32_t *dstFmtCodec, uint32_t *dstFrmProcess)
{
    uint32_t csp = 0;
    if ((cspMask & (1u << KX_CSP_I420)) != 0) {
        csp = KX_CSP_I420;
    } else if ((cspMask & (1u << KX_CSP_NV12)) != 0) {
        csp = KX_CSP_NV12;
    } else if ((cspMask & (1u << KX_CSP_NV21)) != 0) {
        csp = KX_CSP_NV21;
    } else {
        LOGE("unknow csp mask %0x, check it", cspMask);
        return kx::kErrColorSpace;
    }
    *dstFmtCodec = csp;
    *dstFrmProcess = csp;
    LOGE("cspMask 0x%x dstFmtCodec %d dstFrmProcess %d", cspMask, *dstFmtCodec, *dstFrmProcess);
    return 0;
}

uint32_t GetVideoBitrate(uint32_t width, uint32_t height, uint32_t fps)
{
    int32_t base = kDefaultBitrate;
    for (const BitrateRow &row : kBitrateTable) {
        if (row.width == width && row.height == height) {
            base = row.bitRate;
            break;
        }
    }
    const int32_t rate =
        fps >= 1 && fps <= static_cast<uint32_t>(kx::kMaxFrameRate) ? static_cast<int32_t>(fps) : kx::kDefaultFrameRate;
    return static_cast<uint32_t>(base * rate / kx::kDefaultFrameRate);
}

int32_t FindMatchedEncoderAbility(const KxCameraService *service, int32_t *index)
{
    (void)service;
    const KxCameraModule &module = g_cameraModule;
    for (int32_t i = 0; i < static_cast<int32_t>(module.vencAbilityNum) && i < KX_VENC_ABILITY_CAPACITY; ++i) {
        if (module.vencAbility[i].codecType == 0) {
            *index = i;
            return 0;
        }
    }
    return kx::kErrNoEncoderAbility;
}

int32_t CheckCfgParams(const KxCameraService *service)
{
    int32_t index = -1;
    int32_t ret = FindMatchedEncoderAbility(service, &index);
    if (ret != 0) {
        return ret;
    }
    const KxVencAbility &ability = g_cameraModule.vencAbility[index];
    const KxNegParams &neg = service->negParams;
    if (neg.width < ability.minEncWidth || neg.width > ability.maxEncWidth) {
        LOGE("invalid video width %d,  should be in range [%d, %d]", neg.width, ability.minEncWidth,
             ability.maxEncWidth);
        return kx::kErrFrameSize;
    }
    if (neg.height < ability.minEncHeigth || neg.height > ability.maxEncHeight) {
        LOGE("invalid video height %d,  should be in range [%d, %d]", neg.height, ability.minEncHeigth,
             ability.maxEncHeight);
        return kx::kErrFrameSize;
    }
    if (!CspInMask(service->dstFmtCodec, ability.cspTypeMask)) {
        LOGE("mColorType %d can not match cspTypeMask 0x%x", service->dstFmtCodec, ability.cspTypeMask);
        return kx::kErrColorSpace;
    }
    if (ability.maxCodecNum <= 0) {
        LOGE("total create video encoder number is %d, too small", ability.maxCodecNum);
        return kx::kErrNoEncoderInstance;
    }
    return 0;
}

int32_t CreateVideoEncoder(KxCameraService *service)
{
    const KxVideoEncoderHandler *handler = service->vencHandler;
    if (handler == nullptr) {
        LOGE("camera encoder handler is null");
        return kx::kErrNoEncoderHandler;
    }
    LogAbilities();
    // The colour space comes from the first ability, whatever its codec.
    int32_t ret = GetCodecCsp(static_cast<uint32_t>(g_cameraModule.vencAbility[0].cspTypeMask), &service->dstFmtCodec,
                              &service->dstFrmProcess);
    if (ret < 0) {
        return ret;
    }
    // Frames reach the encoder as I420 or, after a second step, NV12; nothing
    // produces NV21 for it.
    if (service->dstFmtCodec == KX_CSP_NV21) {
        LOGE("video encoder wants NV21 input, frames can only be converted to I420 or NV12");
        return kx::kErrColorSpace;
    }
    service->encFrame.csp = static_cast<int32_t>(service->dstFmtCodec);

    const KxNegParams &neg = service->negParams;
    KxVencCreateParams createParams{};
    createParams.height = static_cast<uint32_t>(neg.height);
    createParams.width = static_cast<uint32_t>(neg.width);
    createParams.mColorType = service->dstFmtCodec;
    createParams.privateData = service;
    createParams.outputCallback = VEncOutputCallback;
    ret = handler->VideoEncoderCreate(&service->vencHandle, &createParams);
    if (ret < 0) {
        return ret;
    }
    service->vencWidth = neg.width;
    service->vencHeight = neg.height;

    const auto fps = static_cast<uint32_t>(neg.fps);
    const uint32_t bitRate = GetVideoBitrate(createParams.width, createParams.height, fps);
    const KxVencConfigParams configParams{fps, fps, bitRate, bitRate, 0};
    ret = handler->VideoEncoderConfigure(service->vencHandle, &configParams);
    if (ret < 0) {
        LOGE("VideoEncoderConfigure failed, error code %d", ret);
        if (service->vencHandle != nullptr) {
            (void)handler->VideoEncoderDestroy(&service->vencHandle);
            service->vencHandle = nullptr;
        }
        return ret;
    }
    return 0;
}

int32_t DestoryVideoEncoder(KxCameraService *service)
{
    const KxVideoEncoderHandler *handler = service->vencHandler;
    if (handler == nullptr) {
        LOGE("camera encoder handler is null");
        return kx::kErrNoEncoderHandler;
    }
    // A camera closed without ever getting an instance has nothing to destroy.
    if (service->vencHandle == nullptr) {
        LOGD("no video encoder to destory");
        return 0;
    }
    if (handler->VideoEncoderDestroy(&service->vencHandle) != 0) {
        LOGE("destory video encoder failed");
    } else {
        LOGI("destory video encoder success");
    }
    service->vencHandle = nullptr;
    return 0;
}
