// SPDX-License-Identifier: Apache-2.0
// Negotiated parameters applied to a camera, frame-rate updates and key-frame
// requests.
#include "command/command.h"

#include "common/limits.h"
#include "common/log.h"
#include "common/module.h"
#include "talvo/securec.h"
#include "video/lane.h"
#include "video/video.h"

namespace {

constexpr uint32_t kSetParamsInputLen = sizeof(KxSetParamsInput);
static_assert(kSetParamsInputLen == 160);
constexpr uint32_t kFpsTextSize = 50;
constexpr uint32_t kConfigItemFps = 1;
constexpr int32_t kControlKeyFrame = 1;

// The frame intake reads negParams on the vendor's threads without the module
// lock; the text is read into a copy and every field published atomically.
// Fields the reader wrote before it failed are published too.
int32_t ReadNegParams(const char *paramString, KxNegParams *target, uint32_t *msgType)
{
    KxNegParams copy = *target;
    const int32_t ret = GetNegCameraParams(paramString, &copy, msgType);
    __atomic_store_n(&target->width, copy.width, __ATOMIC_RELAXED);
    __atomic_store_n(&target->height, copy.height, __ATOMIC_RELAXED);
    __atomic_store_n(&target->fps, copy.fps, __ATOMIC_RELAXED);
    __atomic_store_n(&target->colorFmt, copy.colorFmt, __ATOMIC_RELAXED);
    __atomic_store_n(&target->codecType, copy.codecType, __ATOMIC_RELAXED);
    return ret;
}

} // namespace

int32_t CameraCheckSetParams(const KxCommand *command)
{
    if (command->input == nullptr) {
        LOGE("camera service set command params: input is nullptr");
        return kx::kErrMissing;
    }
    if (command->inputLen != kSetParamsInputLen) {
        LOGE("camera service set command params: input length is not valid");
        return kx::kErrInvalid;
    }
    if (static_cast<const KxSetParamsInput *>(command->input)->para == nullptr) {
        LOGE("camera service set command params: para is nullptr");
        return kx::kErrMissing;
    }
    return 0;
}

int32_t DoSetCameraParamsCmd(KxCameraService *service, KxCommand *command)
{
    LOGD("DoSetCameraParamsCmd");
    int32_t ret = CameraCheckSetParams(command);
    if (ret != 0) {
        return ret;
    }
    const auto *input = static_cast<const KxSetParamsInput *>(command->input);
    uint32_t msgType = kNegMsgOpen;
    ret = ReadNegParams(input->para, &service->negParams, &msgType);
    if (ret != 0) {
        return ret;
    }
    const KxNegParams &neg = service->negParams;
    if (msgType == kNegMsgUpdate && kx::LaneRunning(service)) {
        return UpdataCameraFps(service, neg.fps);
    }
    // Never two encoders or two threads over one record, and no encoder left
    // behind once the camera stops delivering raw frames: whatever an earlier
    // message set up goes before this one sets up anything.
    if (kx::LaneExists(service)) {
        kx::LaneTearDown(service);
    }
    if (neg.codecType == 0) {
        if (!kx::ModuleHasVideoEncoder()) {
            LOGE("not support any vendor codec, choose yuv data is invalid, check neg params");
            return kx::kErrInvalid;
        }
        ret = CreateVideoEncoder(service);
        if (ret != 0) {
            return ret;
        }
        // A thread that did not start leaves the encoder to the close.
        ret = StartVideoEncoderThread(service);
        if (ret != 0) {
            return ret;
        }
    }
    LOGI("open camera params:id %s width %d height %d fps %d codecType %d colorfmt %d", service->anonyServiceId,
         neg.width, neg.height, neg.fps, neg.codecType, neg.colorFmt);
    return 0;
}

int32_t UpdataCameraFps(KxCameraService *service, int32_t fps)
{
    char text[kFpsTextSize] = {};
    const int written = sprintf_s(text, sizeof(text), "%d", fps);
    if (written <= 0) {
        LOGE("sprintf_s failed, error code %d", written);
        return kx::kErrTextFailed;
    }
    const int32_t ret = g_cameraModule.cameraHandler.UpdateConfig(service->vendorId, service->vendorIdLen,
                                                                  kConfigItemFps, text, TALVOStrlen(text));
    if (ret != 0) {
        LOGE("camrea updateconfig fps failed, error code %d", ret);
        return ret;
    }
    return 0;
}

int32_t DoTALVOCameraTriggerIFrameCmd(KxCameraService *service, KxCommand *command)
{
    if (!kx::ModuleInited()) {
        LOGE("trigger I Frame camera module not inited");
        return kx::kErrNotInited;
    }
    const auto businessControl = g_cameraModule.cameraHandler.BusinessControl;
    if (businessControl == nullptr) {
        LOGE("camera south interface business control is null");
        return kx::kErrMissing;
    }
    LOGD("camera [%s] bussiness control set: %d, control: %d start", service->anonyServiceId, command->code,
         kControlKeyFrame);
    // The request names no camera: the vendor's next frame is a key frame.
    const int32_t ret = businessControl(kControlKeyFrame, nullptr, 0, nullptr, 0);
    if (ret != 0) {
        LOGE("camera [%s] bussiness control set: %d, control: %d ret: %d error", service->anonyServiceId, command->code,
             kControlKeyFrame, ret);
    }
    LOGD("camera [%s] bussiness control set: %d, control: %d ret: %d end", service->anonyServiceId, command->code,
         kControlKeyFrame, ret);
    return ret;
}
