// SPDX-License-Identifier: Apache-2.0
// Command handling: dispatch, the two queries, negotiated parameters and the
// handlers the dispatcher runs with the module lock held.
#pragma once

#include <cstdint>

#include "kxcamera/plugin.h"
#include "registry/registry.h"

namespace kx {
// The module has a video encoder ability; the count is compared signed, as
// the framework's own field is.
inline bool ModuleHasVideoEncoder()
{
    return static_cast<int32_t>(g_cameraModule.vencAbilityNum) > 0;
}
} // namespace kx

// Message types of a negotiated parameter text.
inline constexpr uint32_t kNegMsgOpen = 0;
inline constexpr uint32_t kNegMsgUpdate = 1;

extern "C" {
// Boundary checks of TALVOCameraSetCommand; 0 or -13.
KXCAMERA_API int32_t CameraCheckSetCommandPrams(const KxServiceIdDesc *index, const KxCommand *command);

// Queries: answer blocks inside the record, pointed at by command->output.
KXCAMERA_API int32_t DoGetCameraAbilityCmd(KxCameraService *service, KxCommand *command);
KXCAMERA_API int32_t DoCameraGetWorkModeOpt(KxCameraService *service, KxCommand *command);

// Handlers of codes 2, 3, 4 and 10. Release also closes through
// DoCloseCameraCmd, without the module lock.
KXCAMERA_API int32_t DoOpenCameraCmd(KxCameraService *service, KxCommand *command);
KXCAMERA_API int32_t DoCloseCameraCmd(KxCameraService *service, KxCommand *command);
KXCAMERA_API int32_t DoSetCameraParamsCmd(KxCameraService *service, KxCommand *command);
KXCAMERA_API int32_t DoTALVOCameraTriggerIFrameCmd(KxCameraService *service, KxCommand *command);
// The set-parameters input: 0, -5 or -13.
KXCAMERA_API int32_t CameraCheckSetParams(const KxCommand *command);
// A new frame rate for the vendor camera; 0, -1000 or the vendor's code.
KXCAMERA_API int32_t UpdataCameraFps(KxCameraService *service, int32_t fps);

// Negotiated parameter text (JSON) into the record's negParams.
KXCAMERA_API int32_t GetNegCameraParams(const char *paramString, KxNegParams *negParams, uint32_t *msgType);
KXCAMERA_API int32_t GetCameraOpenParams(const char *paramString, KxNegParams *negParams);
KXCAMERA_API int32_t GetCameraUpdateParams(const char *paramString, KxNegParams *negParams);
// What the vendor's StartCamera is asked for; may write the default fps back.
KXCAMERA_API void ConvertNegParamsToCameraParams(KxCameraService *service, KxCameraOpenParams *openParams);
}
