// SPDX-License-Identifier: Apache-2.0
// Frames from the vendor camera: copied into a video access unit, then handed
// to the framework or queued for the camera's encoder thread.
#include "common/limits.h"
#include "common/log.h"
#include "common/memory.h"
#include "common/mutex.h"
#include "talvo/securec.h"
#include "video/video.h"

namespace {

// Negotiated colour format codes of raw frames.
constexpr int32_t kNegColorFmtRgb565 = 4;

// The record's negotiated parameters and callback change on the command
// thread while frames arrive; they are read here without the module lock, so
// every read is an atomic one.
template <typename T>
T Peek(const T &field)
{
    return __atomic_load_n(&field, __ATOMIC_RELAXED);
}

// vencThreadStarted is 0 while no encoder thread runs and otherwise 1 plus
// the number of frames being queued at this moment. A frame enters only
// while it is non-zero, so the stop, which brings it from 1 to 0, knows that
// no frame is on its way into the queue or its lock any more.
bool EnterQueue(KxCameraService *service)
{
    uint8_t users = __atomic_load_n(&service->vencThreadStarted, __ATOMIC_ACQUIRE);
    do {
        if (users == 0 || users == UINT8_MAX) {
            return false;
        }
    } while (!__atomic_compare_exchange_n(&service->vencThreadStarted, &users, static_cast<uint8_t>(users + 1), true,
                                          __ATOMIC_ACQ_REL, __ATOMIC_ACQUIRE));
    return true;
}

void LeaveQueue(KxCameraService *service)
{
    (void)__atomic_sub_fetch(&service->vencThreadStarted, 1, __ATOMIC_RELEASE);
}

void DropRawFrame(KxCameraService *service, KxVideoAccessUnit *unit)
{
    OutputCameraDataFree(unit, nullptr);
    uint32_t dropped = __atomic_add_fetch(&service->droppedFrames, 1, __ATOMIC_RELAXED);
    LOGD("raw frame of %s released, no encoder thread runs, %u released so far", service->anonyServiceId, dropped);
}

int32_t HandOverFrame(const KxCameraService *service, KxVideoAccessUnit *unit)
{
    // Frames handed on directly name the camera by its service id.
    const KxServiceIdDesc identity{service->serviceId, TALVOStrlen(service->serviceId),
                                   kx::kDeviceServiceTypeCamera};
    kx::HandUnitToFramework(service, identity, KX_MSG_CAMERA_FRAME, unit);
    return 0;
}

int32_t AppendRawFrame(KxCameraService *service, KxVideoAccessUnit *unit)
{
    const int32_t colorFmt = Peek(service->negParams.colorFmt);
    unit->csp = colorFmt == kNegColorFmtRgb565 ? KX_CSP_RGB565 : KX_CSP_NV21;
    unit->width = Peek(service->negParams.width);
    unit->height = Peek(service->negParams.height);

    auto *node = static_cast<TALVODllNode *>(kx::Alloc(sizeof(TALVODllNode)));
    if (node == nullptr) {
        OutputCameraDataFree(unit, nullptr);
        return kx::kErrNoMemory;
    }
    node->data = unit;
    kx::MutexGuard guard(&service->vencLock);
    if (!guard.Locked()) {
        LOGE("lock video encoder queue failed, error code %d", guard.Status());
        TalvoFree(node);
        OutputCameraDataFree(unit, nullptr);
        return guard.Status();
    }
    (void)TALVODllInsertInMiddle(&service->vencQueue, service->vencQueue.last, node);
    return 0;
}

int32_t QueueRawFrame(KxCameraService *service, KxVideoAccessUnit *unit)
{
    if (!EnterQueue(service)) {
        DropRawFrame(service, unit);
        return 0;
    }
    // A stopping thread takes no more frames.
    if (__atomic_load_n(&service->vencRunning, __ATOMIC_ACQUIRE) == 0) {
        LeaveQueue(service);
        DropRawFrame(service, unit);
        return 0;
    }
    const int32_t ret = AppendRawFrame(service, unit);
    LeaveQueue(service);
    return ret;
}

} // namespace

void kx::HandUnitToFramework(const KxCameraService *service, const KxServiceIdDesc &identity, uint32_t code,
                             KxVideoAccessUnit *unit)
{
    KxCmdCallback cmdCb = Peek(service->cmdCb);
    if (cmdCb == nullptr) {
        OutputCameraDataFree(unit, nullptr);
        return;
    }
    KxCallbackPayload payload{};
    payload.data = unit;
    KxCommand message{};
    message.code = code;
    message.output = &payload;
    message.outputLen = sizeof(payload);
    (void)cmdCb(&identity, &message, Peek(service->cmdCbUserData));
}

KxVideoAccessUnit *CreateTALVOServiceOpsBuffer(const uint8_t *data, int32_t length)
{
    auto *unit = static_cast<KxVideoAccessUnit *>(kx::Alloc(sizeof(KxVideoAccessUnit)));
    if (unit == nullptr) {
        LOGE("malloc for video access unit failed");
        return nullptr;
    }
    const auto size = static_cast<size_t>(static_cast<int64_t>(length));
    unit->data = static_cast<uint8_t *>(kx::Alloc(size));
    if (unit->data == nullptr) {
        LOGE("malloc for video access unit data failed");
        TalvoFree(unit);
        return nullptr;
    }
    if (memcpy_s(unit->data, size, data, size) != 0) {
        kx::FreeAndClear(unit->data);
        TalvoFree(unit);
        return nullptr;
    }
    unit->length = length;
    return unit;
}

void OutputCameraDataFree(KxVideoAccessUnit *unit, void *extra)
{
    if (unit != nullptr) {
        TalvoFree(unit->data);
        TalvoFree(unit);
    }
    TalvoFree(extra);
}

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
    KxCameraService *service = GetCameraHandlerByVendorId(vendorId, vendorIdLen);
    if (service == nullptr) {
        OutputCameraDataFree(unit, nullptr);
        return kx::kErrInvalid;
    }
    const int32_t codecType = Peek(service->negParams.codecType);
    unit->timeStamp = TALVOSystemTimeUs();
    unit->streamType = codecType;
    unit->dataType = KX_VIDEO_DATA_TYPE;
    LOGT("Camera output id %s output data length %d ts %lld", service->anonyServiceId, length,
         static_cast<long long>(unit->timeStamp));
    return codecType != 0 ? HandOverFrame(service, unit) : QueueRawFrame(service, unit);
}
