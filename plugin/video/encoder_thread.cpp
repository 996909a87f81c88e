// SPDX-License-Identifier: Apache-2.0
// The encoder thread of a raw-frame camera: takes queued frames, prepares
// and encodes them, and posts every bitstream unit to the framework.
#include "common/limits.h"
#include "common/log.h"
#include "common/memory.h"
#include "talvo/securec.h"
#include "video/video.h"

namespace {

constexpr char kThreadName[] = "talvovencoder";
constexpr uint64_t kThreadLevel = 2;
constexpr int32_t kRgb565BytesPerPixel = 2;

// vencRunning is written by the command thread and polled by the encoder
// thread; vencThreadStarted is also read by the frame intake.
bool Running(const KxCameraService *service)
{
    return __atomic_load_n(&service->vencRunning, __ATOMIC_ACQUIRE) != 0;
}

void SetRunning(KxCameraService *service, uint8_t value)
{
    __atomic_store_n(&service->vencRunning, value, __ATOMIC_RELEASE);
}

// vencThreadStarted also counts the frames the intake is queueing (1 plus
// their number while the thread runs).
bool ThreadStarted(const KxCameraService *service)
{
    return __atomic_load_n(&service->vencThreadStarted, __ATOMIC_ACQUIRE) != 0;
}

// Waits until no frame is on its way into the queue, then marks the thread
// stopped, after which no frame enters. Queueing holds the queue lock for one
// list operation only, so the wait is short.
void CloseQueue(KxCameraService *service)
{
    uint8_t idle = 1;
    while (!__atomic_compare_exchange_n(&service->vencThreadStarted, &idle, 0, false, __ATOMIC_ACQ_REL,
                                        __ATOMIC_ACQUIRE)) {
        if (idle == 0) {
            return;
        }
        idle = 1;
        (void)TALVOSleep(0);
    }
}

// The encoder thread's own record, so that a stop made from inside one of
// the thread's callbacks does not wait for the thread itself.
thread_local const KxCameraService *t_encoderOf = nullptr;

// A thread that could not be joined was still told to stop and leaves its
// loop within one frame or one pause; until then it reads the record, its
// queue and its buffers, which the stop is about to release.
void WaitForThreadExit(const KxCameraService *service)
{
    if (t_encoderOf == service) {
        return;
    }
    while (__atomic_load_n(&service->vencThreadLive, __ATOMIC_ACQUIRE) != 0) {
        (void)TALVOSleep(static_cast<uint32_t>(kx::kVencSleepMs));
    }
}

void ResetQueue(TALVODllHead *queue)
{
    queue->first = reinterpret_cast<TALVODllNode *>(queue);
    queue->last = reinterpret_cast<TALVODllNode *>(queue);
    queue->count = 0;
}

// Walks the nodes from the first until the walk is back at the head; the head
// itself is left as it is, the next start empties it.
void ReleaseQueue(TALVODllHead *queue)
{
    const auto *head = reinterpret_cast<const TALVODllNode *>(queue);
    if (queue->count == 0 || queue->first == nullptr) {
        return;
    }
    for (TALVODllNode *node = queue->first; node != nullptr && node != head;) {
        TALVODllNode *next = node->next;
        FreeVideoNode(node);
        node = next;
    }
}

KxImage ImageOf(int32_t csp, const KxVideoAccessUnit *frame, uint8_t *data)
{
    const int32_t stride = csp == KX_CSP_RGB565 ? frame->width * kRgb565BytesPerPixel : frame->width;
    return KxImage{csp, frame->width, frame->height, stride, data};
}

// The per-frame buffers hold one 12-bit-per-pixel frame, which only even
// sizes fill exactly, and the frame's own bytes must cover its size.
bool FrameUsable(const KxVideoAccessUnit *frame)
{
    const bool usable = frame->data != nullptr && frame->width > 0 && frame->height > 0 && frame->width % 2 == 0 &&
                        frame->height % 2 == 0 &&
                        frame->length >= GetVideoFrameSize(frame->width, frame->height, frame->csp) &&
                        GetVideoFrameSize(frame->width, frame->height, KX_CSP_I420) > 0;
    if (!usable) {
        LOGE("video frame %d x %d csp %d length %d is not usable, drop it", frame->width, frame->height, frame->csp,
             frame->length);
    }
    return usable;
}

void EncodeFrame(KxCameraService *service, const KxVideoEncoderHandler *handler, const KxVideoAccessUnit *frame)
{
    KxVencOutput output{};
    KxVencInputFrame input{};
    int32_t ret = VideoPreprocess(frame, &service->convFrame, &service->encFrame);
    if (ret != 0) {
        LOGE("VideoPreprocess failed ,error code %d", ret);
        return;
    }
    input.data = service->encFrame.data;
    input.length = static_cast<uint32_t>(GetVideoFrameSize(frame->width, frame->height, KX_CSP_I420));
    input.csp = service->encFrame.csp;
    input.timeStamp = frame->timeStamp;
    input.width = static_cast<uint32_t>(frame->width);
    input.height = static_cast<uint32_t>(frame->height);
    if (handler->VideoEncoderProcess(service->vencHandle, &input, 0, &output) != 0) {
        LOGW("AudioDecoderProcess process failed");
    }
    if (output.bsLength != 0 && output.bsBuf != nullptr) {
        PostVideoBs(service, &output);
    }
}

} // namespace

int32_t StartVideoEncoderThread(KxCameraService *service)
{
    // Re-initialising the lock of a running pair would pull it from under the
    // thread; the caller tears the running pair down first.
    if (ThreadStarted(service)) {
        LOGE("video encoder thread of %s already runs", service->anonyServiceId);
        return kx::kErrInvalid;
    }
    int32_t ret = TALVOMutexInit(&service->vencLock);
    if (ret != 0) {
        LOGE("video encoder lock inited failed, error code %d", ret);
        return ret;
    }
    SetRunning(service, 1);
    ResetQueue(&service->vencQueue);
    __atomic_store_n(&service->vencThreadLive, 1, __ATOMIC_RELEASE);
    const TALVOThreadParam param{kThreadLevel, service, kThreadName};
    ret = TALVOThreadFw(&service->vencThread, VideoEncoderThread, &param);
    if (ret != 0) {
        LOGE("create audio decode thread failed, error code %d", ret);
        // Back to "not started", so that the stop has nothing to join or
        // destroy and no frame is queued for a thread that does not exist.
        __atomic_store_n(&service->vencThreadLive, 0, __ATOMIC_RELEASE);
        SetRunning(service, 0);
        (void)TALVOMutexDestroy(&service->vencLock);
        return ret;
    }
    __atomic_store_n(&service->vencThreadStarted, 1, __ATOMIC_RELEASE);
    return 0;
}

int32_t StopVideoEncoderThread(KxCameraService *service)
{
    LOGI("begin to join thread video encoder");
    SetRunning(service, 0);
    int32_t ret = 0;
    if (ThreadStarted(service)) {
        ret = TALVOThreadJoinFw(service->vencThread, nullptr);
        if (ret != 0) {
            LOGE("TALVOThreadJoinFw failed, error code %d", ret);
            WaitForThreadExit(service);
        }
        CloseQueue(service);
        ret = TALVOMutexDestroy(&service->vencLock);
        if (ret != 0) {
            LOGE("TALVOMutexDestroy failed, error code %d", ret);
        }
        ReleaseQueue(&service->vencQueue);
    }
    // The per-frame buffers belong to the thread's lifetime.
    kx::FreeAndClear(service->encFrame.data);
    kx::FreeAndClear(service->convFrame.data);
    LOGI("end to join thread audio encoder, ret %d", ret);
    return 0;
}

void *VideoEncoderThread(void *arg)
{
    auto *service = static_cast<KxCameraService *>(arg);
    if (service == nullptr) {
        LOGE("AudioDeocoderThread params is NULL, thread exit");
        return nullptr;
    }
    (void)TALVOThreadSetName(kThreadName, TALVOStrlen(kThreadName));
    t_encoderOf = service;
    const KxVideoEncoderHandler *handler = service->vencHandler;
    while (true) {
        if (!Running(service)) {
            LOGI("exit thread AudioDeocoderThread");
            // The last touch of the record: a stop whose join failed frees it after this.
            __atomic_store_n(&service->vencThreadLive, 0, __ATOMIC_RELEASE);
            return nullptr;
        }
        TALVODllNode *node = GetVencUnit(service);
        if (node == nullptr) {
            (void)TALVOSleep(static_cast<uint32_t>(kx::kVencSleepMs));
            continue;
        }
        if (handler != nullptr) {
            EncodeFrame(service, handler, static_cast<const KxVideoAccessUnit *>(node->data));
        }
        FreeVideoNode(node);
    }
}

TALVODllNode *GetVencUnit(KxCameraService *service)
{
    if (TALVOMutexLock(&service->vencLock) != 0) {
        LOGE("TALVOMutexLock for GetVencUnit failed");
        return nullptr;
    }
    TALVODllNode *node = TALVODllGet(&service->vencQueue);
    if (TALVOMutexUnlock(&service->vencLock) != 0) {
        LOGE("TALVOMutexUnLock for GetVencUnit failed");
    }
    return node;
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
    const int64_t size = int64_t{width} * height * bitsPerPixel / kx::kBitPerByte;
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
        return kx::kErrMissing;
    }
    const bool twoSteps = encFrame->csp != KX_CSP_I420;
    if (twoSteps) {
        kx::FreeAndClear(convFrame->data);
        convFrame->data = static_cast<uint8_t *>(kx::Alloc(size));
        if (convFrame->data == nullptr) {
            return kx::kErrMissing;
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
    auto *unit = static_cast<KxVideoAccessUnit *>(kx::Alloc(sizeof(KxVideoAccessUnit)));
    if (unit == nullptr) {
        LOGE("malloc for video bit stream buffer unit falied");
        return;
    }
    const auto size = static_cast<size_t>(static_cast<int64_t>(output->bsLength));
    unit->data = static_cast<uint8_t *>(kx::Alloc(size));
    if (unit->data == nullptr) {
        TalvoFree(unit);
        LOGE("malloc for video bit stream buffer failed");
        return;
    }
    if (memcpy_s(unit->data, size, output->bsBuf, size) != 0) {
        OutputCameraDataFree(unit, nullptr);
        return;
    }
    const int32_t streamType = __atomic_load_n(&service->negParams.codecType, __ATOMIC_RELAXED);
    unit->streamType = streamType;
    unit->length = output->bsLength;
    unit->timeStamp = output->timeStamp;
    unit->dataType = KX_VIDEO_DATA_TYPE;

    // Bitstream units name the camera by its vendor id.
    const KxServiceIdDesc identity{service->vendorId, service->vendorIdLen, service->serviceType};
    kx::HandUnitToFramework(service, identity, KX_MSG_BITSTREAM, unit);
    LOGT("id %s video stream type %d length %d timeStamp %lld", service->anonyServiceId, streamType,
         output->bsLength, static_cast<long long>(output->timeStamp));
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
    PostVideoBs(static_cast<KxCameraService *>(privateData), outputData);
}
