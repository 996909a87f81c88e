// SPDX-License-Identifier: Apache-2.0
// Negotiated camera parameters: the framework's parameter text into negParams,
// and negParams into what the vendor camera is opened with.
#include "command/command.h"

#include "common/limits.h"
#include "common/log.h"

namespace {

// The framework's attribute reader is given exactly this much room.
constexpr uint32_t kAttrValueSize = 50;
constexpr int32_t kMaxCodecType = 2;
constexpr int32_t kVideoCodecTypeCount = 3;

struct AttrBuffer {
    char text[kAttrValueSize] = {};

    bool Read(const char *paramString, const char *key) { return GetAttribute(paramString, key, text, kAttrValueSize); }
    int32_t Value() const { return TalvoAtoi(text); }
};

uint32_t MapDataFmt(const KxNegParams &neg)
{
    if (neg.codecType == 1) {
        return KX_DATA_FMT_H264;
    }
    if (neg.codecType != 0) {
        return KX_DATA_FMT_H265;
    }
    switch (neg.colorFmt) {
    case kNegColorFmtNv21:
        return KX_DATA_FMT_NV21;
    case kNegColorFmtRgb565:
        return KX_DATA_FMT_RGB565;
    default:
        LOGW("unknown color format, set open camera fmt default value %d", KX_DATA_FMT_NV21);
        return KX_DATA_FMT_NV21;
    }
}

} // namespace

int32_t GetNegCameraParams(const char *paramString, KxNegParams *negParams, uint32_t *msgType)
{
    AttrBuffer attr;
    if (attr.Read(paramString, "Width")) {
        LOGI("get open camera params");
        *msgType = kNegMsgOpen;
        return GetCameraOpenParams(paramString, negParams);
    }
    if (attr.Read(paramString, "Fps")) {
        LOGI("get update camera params");
        *msgType = kNegMsgUpdate;
        return GetCameraUpdateParams(paramString, negParams);
    }
    LOGE("unknow params msg type, %s", paramString);
    return kx::kErrInvalid;
}

int32_t GetCameraOpenParams(const char *paramString, KxNegParams *negParams)
{
    AttrBuffer attr;
    // Each value is stored as soon as it is read: a later missing key leaves
    // the earlier ones written.
    LOGD("GetNegCameraParams Width");
    if (!attr.Read(paramString, "Width")) {
        LOGE("get CameraParams width, paramString [%s]", paramString);
        return kx::kErrNoNegParam;
    }
    negParams->width = attr.Value();

    LOGD("GetNegCameraParams Height");
    if (!attr.Read(paramString, "Height")) {
        LOGE("get CameraParams Height, paramString [%s]", paramString);
        return kx::kErrNoNegParam;
    }
    negParams->height = attr.Value();

    LOGD("GetNegCameraParams ColorFormat");
    if (!attr.Read(paramString, "ColorFormat")) {
        LOGE("get CameraParams ColorFormat, paramString [%s]", paramString);
        return kx::kErrNoNegParam;
    }
    negParams->colorFmt = attr.Value();

    LOGD("GetNegCameraParams CodecType");
    if (!attr.Read(paramString, "CodecType")) {
        LOGE("get CameraParams CodecType, paramString [%s]", paramString);
        return kx::kErrNoNegParam;
    }
    negParams->codecType = attr.Value();

    LOGD("GetNegCameraParams negCodecType");
    if (negParams->codecType > kMaxCodecType) {
        LOGW("set parameter of codec type (%d) has over max video codec type (%d), use default.", negParams->codecType,
             kVideoCodecTypeCount);
        negParams->codecType = 0;
    }
    LOGI("camera params: width %d height %d colorfmt %d codecType %d", negParams->width, negParams->height,
         negParams->colorFmt, negParams->codecType);
    return 0;
}

int32_t GetCameraUpdateParams(const char *paramString, KxNegParams *negParams)
{
    AttrBuffer attr;
    LOGD("GetNegCameraParams fps");
    if (!attr.Read(paramString, "Fps")) {
        LOGE("get CameraParams fps, paramString [%s]", paramString);
        return kx::kErrNoNegParam;
    }
    negParams->fps = attr.Value();
    LOGI("camera params: fps=%d", negParams->fps);
    return 0;
}

void ConvertNegParamsToCameraParams(KxCameraService *service, KxCameraOpenParams *openParams)
{
    KxNegParams &neg = service->negParams;
    openParams->vendorId = service->vendorId;
    openParams->vendorIdLen = service->vendorIdLen;
    openParams->width = static_cast<uint32_t>(neg.width);
    openParams->height = static_cast<uint32_t>(neg.height);
    openParams->dataFmt = MapDataFmt(neg);
    // The default stays in the record, so a reopen asks for the same rate.
    if (neg.fps == 0) {
        neg.fps = kx::kDefaultFps;
    }
    openParams->fps = static_cast<uint32_t>(neg.fps);
    LOGI("open camera params: id %s width %d heigth %d colorformat %d fps %d", service->anonyServiceId,
         openParams->width, openParams->height, openParams->dataFmt, openParams->fps);
}
