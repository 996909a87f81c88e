// SPDX-License-Identifier: Apache-2.0
// Video pipeline: frame intake, the camera's encoder and its thread, colour
// conversion.
#pragma once

#include <cstdint>

#include "kxcamera/color_convert.h"
#include "kxcamera/plugin.h"
#include "registry/registry.h"

extern "C" {
// Frame intake; called by the vendor camera on its own threads.
KXCAMERA_API int32_t OutputCameraDataCB(const char *vendorId, uint32_t vendorIdLen, const uint8_t *data,
                                        uint32_t length);
KXCAMERA_API KxVideoAccessUnit *CreateTALVOServiceOpsBuffer(const uint8_t *data, int32_t length);
KXCAMERA_API void OutputCameraDataFree(KxVideoAccessUnit *unit, void *extra);

// The camera's encoder instance; called with the module lock held.
KXCAMERA_API int32_t CreateVideoEncoder(KxCameraService *service);
KXCAMERA_API int32_t DestoryVideoEncoder(KxCameraService *service);
KXCAMERA_API int32_t GetCodecCsp(uint32_t cspMask, uint32_t *dstFmtCodec, uint32_t *dstFrmProcess);
KXCAMERA_API uint32_t GetVideoBitrate(uint32_t width, uint32_t height, uint32_t fps);
KXCAMERA_API int32_t FindMatchedEncoderAbility(const KxCameraService *service, int32_t *index);
KXCAMERA_API int32_t CheckCfgParams(const KxCameraService *service);

// The camera's encoder thread and its output.
KXCAMERA_API int32_t StartVideoEncoderThread(KxCameraService *service);
KXCAMERA_API int32_t StopVideoEncoderThread(KxCameraService *service);
KXCAMERA_API void *VideoEncoderThread(void *service);
KXCAMERA_API TALVODllNode *GetVencUnit(KxCameraService *service);
KXCAMERA_API void FreeVideoNode(TALVODllNode *node);
KXCAMERA_API int32_t VideoPreprocess(const KxVideoAccessUnit *frame, KxVideoAccessUnit *convFrame,
                                     KxVideoAccessUnit *encFrame);
KXCAMERA_API int32_t GetVideoFrameSize(int32_t width, int32_t height, int32_t format);
KXCAMERA_API void PostVideoBs(KxCameraService *service, const KxVencOutput *output);
KXCAMERA_API void VEncOutputCallback(const KxVencOutput *outputData, void *privateData);

// The converters behind TALVOColorConvert; called only after its checks.
KXCAMERA_API int32_t ColorConvertRGB5652I420(const KxImage *srcImg, const KxImage *dstImg);
KXCAMERA_API int32_t ColorConvertNV212I420(const KxImage *srcImg, const KxImage *dstImg);
KXCAMERA_API int32_t ColorConvertI4202NV12(const KxImage *srcImg, const KxImage *dstImg);
}

namespace kx {

// Hands a unit to the camera's command callback as message `code`, naming
// the camera by `identity`; the unit is the framework's from then on. With
// no callback set it is released here.
void HandUnitToFramework(const KxCameraService *service, const KxServiceIdDesc &identity, uint32_t code,
                         KxVideoAccessUnit *unit);

} // namespace kx
