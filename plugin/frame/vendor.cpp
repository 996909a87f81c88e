// SPDX-License-Identifier: Apache-2.0
// Loading of the two vendor libraries into the module state.
#include "common/limits.h"
#include "common/log.h"
#include "common/module.h"
#include "frame/frame.h"

namespace {

constexpr int32_t kDlOpenMode = 1;

// Slot 5 is never called, so a library may leave it empty.
bool CameraHandlerComplete(const KxCameraHandler &handler)
{
    return handler.OpenCamera != nullptr && handler.StartCamera != nullptr && handler.CloseCamera != nullptr &&
           handler.UpdateConfig != nullptr && handler.GetCameraCapability != nullptr &&
           handler.ReleaseCameraCapability != nullptr && handler.RegisterListener != nullptr &&
           handler.BusinessControl != nullptr;
}

bool EncoderHandlerComplete(const KxVideoEncoderHandler &handler)
{
    return handler.VideoEncoderGetAbility != nullptr && handler.VideoEncoderCreate != nullptr &&
           handler.VideoEncoderConfigure != nullptr && handler.VideoEncoderProcess != nullptr &&
           handler.VideoEncoderDestroy != nullptr;
}

} // namespace

void kx::CloseLibrary(void *&handle)
{
    if (handle != nullptr) {
        (void)TALVODlClose(handle);
        handle = nullptr;
    }
}

int32_t CameraInit(void)
{
    KxCameraModule &module = g_cameraModule;
    module.cameraLibHandle = nullptr;
    module.cameraLibHandle = TALVODlOpen(KX_CAMERA_HANDLER_LIB, kDlOpenMode);
    if (module.cameraLibHandle == nullptr) {
        LOGE("%s dlopen failed, err msg %s", KX_CAMERA_HANDLER_LIB, TALVODlError());
        return kx::kErrMissing;
    }
    auto getter = reinterpret_cast<KxGetCameraHandlerFn>(TALVODlSym(module.cameraLibHandle, KX_CAMERA_HANDLER_GETTER));
    if (getter != nullptr && getter(&module.cameraHandler) == 0 && CameraHandlerComplete(module.cameraHandler)) {
        return 0;
    }
    // What the getter wrote stays: nothing calls it while the module is not initialised.
    LOGE("get CameraModuelApi failed, error code");
    kx::CloseLibrary(module.cameraLibHandle);
    return kx::kErrMissing;
}

int32_t CameraVEncInit(void)
{
    KxCameraModule &module = g_cameraModule;
    module.vencAbilityNum = 0;
    module.vencLibHandle = TALVODlOpen(KX_VIDEO_ENCODER_LIB, kDlOpenMode);
    // Without an encoder the plugin still serves cameras that encode their own stream.
    if (module.vencLibHandle == nullptr) {
        LOGE("%s dlopen failed, err msg %s", KX_VIDEO_ENCODER_LIB, TALVODlError());
        return 0;
    }
    auto getter =
        reinterpret_cast<KxGetVideoEncoderHandlerFn>(TALVODlSym(module.vencLibHandle, KX_VIDEO_ENCODER_GETTER));
    if (getter == nullptr) {
        LOGE("get AduioModuelApi failed, error code");
        kx::CloseLibrary(module.vencLibHandle);
        return 0;
    }
    if (getter(&module.vencHandler) != 0 || !EncoderHandlerComplete(module.vencHandler)) {
        LOGE("get TALVOGetVideoEncoderHandler failed, error code");
        kx::CloseLibrary(module.vencLibHandle);
        return kx::kErrEncoderRefused;
    }
    module.vencAbilityNum = 0;
    int32_t ret =
        module.vencHandler.VideoEncoderGetAbility(module.vencAbility, KX_VENC_ABILITY_CAPACITY, &module.vencAbilityNum);
    if (ret != 0) {
        LOGE("get vendor video encoder ability failed, error code %d", ret);
    }
    // A library that claims more than it was given room for must not make us
    // read past the array.
    if (module.vencAbilityNum > KX_VENC_ABILITY_CAPACITY) {
        LOGW("vendor video encoder ability count %u above capacity %u", module.vencAbilityNum,
             static_cast<unsigned int>(KX_VENC_ABILITY_CAPACITY));
        module.vencAbilityNum = KX_VENC_ABILITY_CAPACITY;
    }
    LOGD("get vendor video encoder ability count %d", module.vencAbilityNum);
    kx::SetModuleInited(true);
    return 0;
}
