// SPDX-License-Identifier: Apache-2.0
// Video access units: made from the bytes a vendor lends, released, and
// handed to the framework, to which they belong from then on.
#include "common/limits.h"
#include "common/log.h"
#include "common/memory.h"
#include "talvo/securec.h"
#include "video/lane.h"
#include "video/video.h"

namespace {

enum class CopyFailure { kNone, kUnit, kData, kCopy };

// A unit holding a copy of `length` bytes; the caller names the failure.
KxVideoAccessUnit *CopyIntoUnit(const uint8_t *data, int32_t length, CopyFailure *failure)
{
    auto *unit = static_cast<KxVideoAccessUnit *>(kx::Alloc(sizeof(KxVideoAccessUnit)));
    if (unit == nullptr) {
        *failure = CopyFailure::kUnit;
        return nullptr;
    }
    const auto size = static_cast<size_t>(static_cast<int64_t>(length));
    unit->data = static_cast<uint8_t *>(kx::Alloc(size));
    if (unit->data == nullptr) {
        TalvoFree(unit);
        *failure = CopyFailure::kData;
        return nullptr;
    }
    if (memcpy_s(unit->data, size, data, size) != 0) {
        kx::FreeAndClear(unit->data);
        TalvoFree(unit);
        *failure = CopyFailure::kCopy;
        return nullptr;
    }
    unit->length = length;
    *failure = CopyFailure::kNone;
    return unit;
}

} // namespace

void kx::HandUnitToFramework(const KxCameraService *service, const KxServiceIdDesc &identity, uint32_t code,
                             KxVideoAccessUnit *unit)
{
    const CmdCallback target = ReadCmdCallback(service);
    if (target.callback == nullptr) {
        OutputCameraDataFree(unit, nullptr);
        return;
    }
    KxCallbackPayload payload{};
    payload.data = unit;
    KxCommand message{};
    message.code = code;
    message.output = &payload;
    message.outputLen = sizeof(payload);
    (void)target.callback(&identity, &message, target.userData);
}

KxVideoAccessUnit *CreateTALVOServiceOpsBuffer(const uint8_t *data, int32_t length)
{
    CopyFailure failure = CopyFailure::kNone;
    KxVideoAccessUnit *unit = CopyIntoUnit(data, length, &failure);
    if (failure == CopyFailure::kUnit) {
        LOGE("malloc for video access unit failed");
    } else if (failure == CopyFailure::kData) {
        LOGE("malloc for video access unit data failed");
    }
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

void FreeVideoNode(TALVODllNode *node)
{
    if (node == nullptr) {
        LOGE("video node is NULL, igonre this video node");
        return;
    }
    auto *unit = static_cast<KxVideoAccessUnit *>(node->data);
    if (unit != nullptr) {
        kx::FreeAndClear(unit->data);
        TalvoFree(unit);
    }
    node->data = nullptr;
    TalvoFree(node);
}

void PostVideoBs(KxCameraService *service, const KxVencOutput *output)
{
    if (service == nullptr || output == nullptr) {
        return;
    }
    if (output->bsLength > kx::kMaxVideoDataLength) {
        LOGE("output video stream is too large, ignore it, length %d", output->bsLength);
        return;
    }
    // No unit can be made of nothing.
    if (output->bsLength <= 0 || output->bsBuf == nullptr) {
        LOGD("empty video stream output of %s, length %d, not posted", service->anonyServiceId, output->bsLength);
        return;
    }
    CopyFailure failure = CopyFailure::kNone;
    KxVideoAccessUnit *unit = CopyIntoUnit(output->bsBuf, output->bsLength, &failure);
    if (failure == CopyFailure::kUnit) {
        LOGE("malloc for video bit stream buffer unit falied");
    } else if (failure == CopyFailure::kData) {
        LOGE("malloc for video bit stream buffer failed");
    }
    if (unit == nullptr) {
        return;
    }
    const int32_t streamType = __atomic_load_n(&service->negParams.codecType, __ATOMIC_RELAXED);
    unit->streamType = streamType;
    unit->timeStamp = output->timeStamp;
    unit->dataType = KX_VIDEO_DATA_TYPE;

    // Bitstream units name the camera by its vendor id.
    const KxServiceIdDesc identity{service->vendorId, service->vendorIdLen, service->serviceType};
    kx::HandUnitToFramework(service, identity, KX_MSG_BITSTREAM, unit);
    LOGT("id %s video stream type %d length %d timeStamp %lld", service->anonyServiceId, streamType, output->bsLength,
         static_cast<long long>(output->timeStamp));
}

void VEncOutputCallback(const KxVencOutput *outputData, void *privateData)
{
    if (privateData == nullptr) {
        LOGE("privateData is NULL");
        return;
    }
    if (outputData == nullptr) {
        LOGE("video bs outputData is NULL");
        return;
    }
    if (outputData->bsBuf == nullptr || outputData->bsLength > kx::kMaxVideoDataLength) {
        LOGE("outputData->bsBuf is %p outputData->bsLength %d is invalid, check it",
             static_cast<const void *>(outputData->bsBuf), outputData->bsLength);
        return;
    }
    auto *service = static_cast<KxCameraService *>(privateData);
    // The encoder may call from a thread of its own while the encoder thread
    // waits for it: a teardown from here must not wait for either.
    const kx::EncodingPathScope path(service);
    PostVideoBs(service, outputData);
}
