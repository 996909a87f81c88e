// SPDX-License-Identifier: Apache-2.0
// Opening and closing a camera at the vendor, and the state reports that
// tell the framework about it.
#include "command/command.h"

#include "common/limits.h"
#include "common/log.h"
#include "common/module.h"
#include "events/events.h"
#include "video/lane.h"
#include "video/video.h"

namespace {

constexpr uint32_t kStateOpened = 4;
constexpr uint32_t kStateClosed = 3;
constexpr int32_t kFacingOpened = 1;
constexpr int32_t kFacingClosed = -1;
constexpr int32_t kDegreeOpened = 270;

} // namespace

int32_t DoOpenCameraCmd(KxCameraService *service, KxCommand *)
{
    const KxCameraHandler &vendor = g_cameraModule.cameraHandler;
    KxCameraOpenParams params{};
    ConvertNegParamsToCameraParams(service, &params);

    int32_t ret = vendor.OpenCamera(service->vendorId, service->vendorIdLen, OutputCameraDataCB);
    if (ret != 0) {
        LOGE("open vendor camera failed, id %s error %d", service->anonyServiceId, ret);
        return ret;
    }
    ret = vendor.StartCamera(&params);
    if (ret != 0) {
        // The vendor camera stays opened; the next close closes it.
        LOGE("open camera:id %s width %d height %d fps %d dataFmt %d failed", service->anonyServiceId, params.width,
             params.height, params.fps, params.dataFmt);
        return ret;
    }
    DoNotifyCameraState(service, kStateOpened);
    SetCameraFacing(service, kFacingOpened);
    SetCameraDegree(service, kDegreeOpened);
    service->isOpened = 1;
    LOGI("open camera:id %s width %d height %d fps %d dataFmt %d success", service->anonyServiceId, params.width,
         params.height, params.fps, params.dataFmt);
    return 0;
}

int32_t DoCloseCameraCmd(KxCameraService *service, KxCommand *)
{
    if (!kx::ModuleInited()) {
        LOGE("camera module not inited");
        return kx::kErrNotInited;
    }
    // A camera the vendor would not close keeps everything, encoder included:
    // it may still deliver frames.
    const int32_t ret = g_cameraModule.cameraHandler.CloseCamera(service->vendorId, service->vendorIdLen);
    if (ret != 0) {
        return ret;
    }
    // The thread before the encoder, not the other way round: the thread
    // calls the encoder until it has been joined.
    if (service->negParams.codecType == 0 && kx::ModuleHasVideoEncoder()) {
        kx::LaneTearDown(service);
    }
    if (service->isOpened == 1) {
        DoNotifyCameraState(service, kStateClosed);
        SetCameraFacing(service, kFacingClosed);
    }
    service->isOpened = 0;
    LOGI("camera [%s] close success", service->anonyServiceId);
    return 0;
}
