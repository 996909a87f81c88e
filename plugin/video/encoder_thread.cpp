// SPDX-License-Identifier: Apache-2.0
// The encoder thread of a raw-frame camera: takes queued frames, prepares
// and encodes them, and posts every bitstream unit to the framework.
#include "common/limits.h"
#include "common/log.h"
#include "common/memory.h"
#include "common/rate_limit.h"
#include "talvo/securec.h"
#include "video/lane.h"
#include "video/video.h"

namespace {

constexpr char kThreadName[] = "talvovencoder";
constexpr int32_t kRgb565BytesPerPixel = 2;

// The calling encoder thread's lane; null on every other thread.
thread_local KxLaneThread *t_lane = nullptr;

KxImage ImageOf(int32_t csp, const KxVideoAccessUnit *frame, uint8_t *data)
{
    const int32_t stride = csp == KX_CSP_RGB565 ? frame->width * kRgb565BytesPerPixel : frame->width;
    return KxImage{csp, frame->width, frame->height, stride, data};
}

// The per-frame buffers hold one 12-bit-per-pixel frame, which only even
// sizes fill exactly, and the frame's own bytes must cover its size: sizes
// come from negotiated text, which a refused message may have changed.
bool FrameUsable(const KxVideoAccessUnit *frame)
{
    const int32_t needed = GetVideoFrameSize(frame->width, frame->height, frame->csp);
    const bool usable = frame->data != nullptr && frame->width > 0 && frame->height > 0 && frame->width % 2 == 0 &&
                        frame->height % 2 == 0 && needed > 0 && frame->length >= needed &&
                        GetVideoFrameSize(frame->width, frame->height, KX_CSP_I420) > 0;
    if (!usable) {
        LOGE("video frame %d x %d csp %d length %d is not usable, drop it", frame->width, frame->height, frame->csp,
             frame->length);
    }
    return usable;
}

// An encoder is only ever handed frames of the size it was made for.
bool FitsEncoder(KxLaneThread *lane, const KxVideoAccessUnit *frame)
{
    if (frame->width == lane->width && frame->height == lane->height) {
        return true;
    }
    KxCameraService *service = lane->service;
    if (kx::OncePerSecond(&service->sizeLogUs)) {
        LOGE("frames of %s are %d x %d, its encoder was made for %d x %d: dropped until it is set up again",
             service->anonyServiceId, frame->width, frame->height, lane->width, lane->height);
    }
    return false;
}

void EncodeFrame(KxLaneThread *lane, const KxVideoAccessUnit *frame)
{
    KxCameraService *service = lane->service;
    KxVencOutput output{};
    KxVencInputFrame input{};
    int32_t ret = VideoPreprocess(frame, &lane->convFrame, &lane->encFrame);
    if (ret != 0) {
        LOGE("VideoPreprocess failed ,error code %d", ret);
        kx::CountFrame(service, kx::FrameFate::kDroppedError);
        return;
    }
    if (!FitsEncoder(lane, frame)) {
        kx::CountFrame(service, kx::FrameFate::kDroppedError);
        return;
    }
    input.data = lane->encFrame.data;
    input.length = static_cast<uint32_t>(GetVideoFrameSize(frame->width, frame->height, KX_CSP_I420));
    input.csp = lane->encFrame.csp;
    input.timeStamp = frame->timeStamp;
    input.width = static_cast<uint32_t>(frame->width);
    input.height = static_cast<uint32_t>(frame->height);
    if (lane->handler->VideoEncoderProcess(lane->vencHandle, &input, 0, &output) != 0) {
        LOGW("AudioDecoderProcess process failed");
        kx::CountFrame(service, kx::FrameFate::kDroppedError);
    } else {
        kx::CountFrame(service, kx::FrameFate::kEncoded);
    }
    if (output.bsLength != 0 && output.bsBuf != nullptr) {
        PostVideoBs(service, &output);
    }
}

} // namespace

void *VideoEncoderThread(void *arg)
{
    auto *service = static_cast<KxCameraService *>(arg);
    if (service == nullptr) {
        LOGE("AudioDeocoderThread params is NULL, thread exit");
        return nullptr;
    }
    (void)TALVOThreadSetName(kThreadName, TALVOStrlen(kThreadName));
    KxLaneThread *lane = kx::LaneThreadBegin(service);
    t_lane = lane;
    while (lane != nullptr ? kx::LaneThreadKeepsRunning(lane) : kx::LaneRunning(service)) {
        TALVODllNode *node = GetVencUnit(service);
        if (node == nullptr) {
            (void)TALVOSleep(static_cast<uint32_t>(kx::kVencSleepMs));
            continue;
        }
        if (lane != nullptr && lane->handler != nullptr) {
            EncodeFrame(lane, static_cast<const KxVideoAccessUnit *>(node->data));
        }
        FreeVideoNode(node);
    }
    LOGI("exit thread AudioDeocoderThread");
    if (lane != nullptr) {
        kx::LaneThreadEnd(lane);
    }
    return nullptr;
}

TALVODllNode *GetVencUnit(KxCameraService *service)
{
    if (TALVOMutexLock(&service->vencLock) != 0) {
        LOGE("TALVOMutexLock for GetVencUnit failed");
        return nullptr;
    }
    // A retired thread learns it here, under the lock its teardown took, and
    // takes nothing more.
    const bool retired = t_lane != nullptr && t_lane->service == service && !kx::LaneThreadKeepsRunning(t_lane);
    TALVODllNode *node = retired ? nullptr : TALVODllGet(&service->vencQueue);
    if (node != nullptr) {
        service->laneQueueBytes -= static_cast<uint32_t>(static_cast<const KxVideoAccessUnit *>(node->data)->length);
    }
    if (TALVOMutexUnlock(&service->vencLock) != 0) {
        LOGE("TALVOMutexUnLock for GetVencUnit failed");
    }
    return node;
}

int32_t GetVideoFrameSize(int32_t width, int32_t height, int32_t format)
{
    int32_t bitsPerPixel = kx::kBitsPerPixel24;
    switch (format) {
    case KX_CSP_I420:
    case KX_CSP_NV12:
    case KX_CSP_NV21:
        bitsPerPixel = kx::kBitsPerPixel12;
        break;
    case KX_CSP_RGB565:
        bitsPerPixel = kx::kBitsPerPixel16;
        break;
    default:
        LOGW("unknow color format, set it with default value, bitPerPixel %d", bitsPerPixel);
        break;
    }
    // Sizes come from negotiated text; a product beyond 32 bits is no size.
    int64_t bits = 0;
    if (__builtin_mul_overflow(int64_t{width} * height, bitsPerPixel, &bits)) {
        return -1;
    }
    const int64_t size = bits / kx::kBitPerByte;
    if (size > INT32_MAX || size < INT32_MIN) {
        return -1;
    }
    return static_cast<int32_t>(size);
}

int32_t VideoPreprocess(const KxVideoAccessUnit *frame, KxVideoAccessUnit *convFrame, KxVideoAccessUnit *encFrame)
{
    if (frame == nullptr || convFrame == nullptr || encFrame == nullptr) {
        return kx::kErrMissing;
    }
    if (!FrameUsable(frame)) {
        return kx::kErrInvalid;
    }
    const auto size = static_cast<size_t>(GetVideoFrameSize(frame->width, frame->height, KX_CSP_I420));
    kx::FreeAndClear(encFrame->data);
    encFrame->data = static_cast<uint8_t *>(kx::Alloc(size));
    if (encFrame->data == nullptr) {
        return kx::kErrCannotCreate;
    }
    const bool twoSteps = encFrame->csp != KX_CSP_I420;
    if (twoSteps) {
        kx::FreeAndClear(convFrame->data);
        convFrame->data = static_cast<uint8_t *>(kx::Alloc(size));
        if (convFrame->data == nullptr) {
            return kx::kErrCannotCreate;
        }
    }
    const KxImage source = ImageOf(frame->csp, frame, frame->data);
    const KxImage i420 = ImageOf(KX_CSP_I420, frame, twoSteps ? convFrame->data : encFrame->data);
    int32_t ret = TALVOColorConvert(&source, &i420);
    if (ret < 0 || !twoSteps) {
        return ret;
    }
    const KxImage target = ImageOf(encFrame->csp, frame, encFrame->data);
    ret = TALVOColorConvert(&i420, &target);
    return ret < 0 ? ret : 0;
}
