// SPDX-License-Identifier: Apache-2.0
// Frames from the vendor camera: copied into a video access unit, then handed
// to the framework or queued for the camera's encoder thread.
#include "common/limits.h"
#include "common/log.h"
#include "common/vendor_gate.h"
#include "video/lane.h"
#include "video/video.h"

namespace {

// The record's negotiated parameters and callback change on the command
// thread while frames arrive; they are read here without the module lock, so
// every read is an atomic one.
template <typename T> T Peek(const T &field)
{
    return __atomic_load_n(&field, __ATOMIC_RELAXED);
}

int32_t HandOverFrame(KxCameraService *service, KxVideoAccessUnit *unit)
{
    // Frames handed on directly name the camera by its service id.
    const KxServiceIdDesc identity{service->serviceId, TALVOStrlen(service->serviceId), kx::kDeviceServiceTypeCamera};
    kx::CountFrame(service, kx::FrameFate::kEncoded);
    kx::HandUnitToFramework(service, identity, KX_MSG_CAMERA_FRAME, unit);
    return 0;
}

int32_t QueueRawFrame(KxCameraService *service, KxVideoAccessUnit *unit)
{
    const int32_t colorFmt = Peek(service->negParams.colorFmt);
    unit->csp = colorFmt == kNegColorFmtRgb565 ? KX_CSP_RGB565 : KX_CSP_NV21;
    unit->width = Peek(service->negParams.width);
    unit->height = Peek(service->negParams.height);
    if (!kx::LaneEnter(service)) {
        kx::LaneDropIdleFrame(service, unit);
        return 0;
    }
    // A stopping thread takes no more frames.
    const int32_t ret =
        kx::LaneRunning(service) ? kx::LaneQueueFrame(service, unit) : (kx::LaneDropIdleFrame(service, unit), 0);
    kx::LaneLeave(service);
    return ret;
}

} // namespace

int32_t OutputCameraDataCB(const char *vendorId, uint32_t vendorIdLen, const uint8_t *data, uint32_t length)
{
    if (vendorId == nullptr || length > static_cast<uint32_t>(kx::kMaxVideoDataLength) || data == nullptr) {
        LOGE("camera id %p capture data %p length %d,invalid check it", static_cast<const void *>(vendorId),
             static_cast<const void *>(data), length);
        return kx::kErrInvalid;
    }
    KxVideoAccessUnit *unit = CreateTALVOServiceOpsBuffer(data, static_cast<int32_t>(length));
    if (unit == nullptr) {
        return kx::kErrNoMemory;
    }
    const kx::VendorCall call;
    KxCameraService *service = call.Admitted() ? GetCameraHandlerByVendorId(vendorId, vendorIdLen) : nullptr;
    if (service == nullptr) {
        OutputCameraDataFree(unit, nullptr);
        return kx::kErrInvalid;
    }
    kx::CountFrame(service, kx::FrameFate::kIn);
    const int32_t codecType = Peek(service->negParams.codecType);
    unit->timeStamp = TALVOSystemTimeUs();
    unit->streamType = codecType;
    unit->dataType = KX_VIDEO_DATA_TYPE;
    LOGT("Camera output id %s output data length %d ts %lld", service->anonyServiceId, length,
         static_cast<long long>(unit->timeStamp));
    return codecType != 0 ? HandOverFrame(service, unit) : QueueRawFrame(service, unit);
}
