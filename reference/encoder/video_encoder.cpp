// SPDX-License-Identifier: GPL-2.0-or-later
// Reference video encoder library: the five-slot encoder table over x264.
//
// Every instance owns its own x264 encoder and encodes on the caller's
// thread (x264 runs single-threaded here), so instances are independent and
// each may be driven from a thread of its own. Output is synchronous
// (asynOutput 0): Process fills the output record and the output callback
// given at creation is kept but never called, so no unit is posted twice.
#include <algorithm>
#include <atomic>
#include <memory>
#include <mutex>
#include <vector>

#include "encoder_link.h"
#include "kxcamera/video_encoder.h"
#include "slowdown.h"
#include "vendor_common.h"
#include "x264_session.h"

namespace kxvendor {
namespace {

constexpr int32_t kMinSide = 64;
constexpr int32_t kMaxWidth = 3840;
constexpr int32_t kMaxHeight = 2160;
constexpr int32_t kMaxInstances = 16;
constexpr uint32_t kDefaultFps = 30;
constexpr uint32_t kMaxFps = 1000;
constexpr uint32_t kMinBitRate = 1000;
// Process flag: encode this frame as an IDR (the plugin passes 0).
constexpr uint32_t kFlagForceIdr = 1u << 0;
constexpr char kLogTag[] = "libtalvovideoencoder";

constexpr KxVencAbility kAbility = {
    .codecType = 0,
    .cspTypeMask = (1 << KX_CSP_I420) | (1 << KX_CSP_NV12),
    .maxEncWidth = kMaxWidth,
    .maxEncHeight = kMaxHeight,
    .minEncWidth = kMinSide,
    .minEncHeigth = kMinSide,
    .widthAlign = 2,
    .heightAlign = 2,
    .ProfileMask = 1, // bit 0: constrained baseline, what the ultrafast preset produces
    .maxCodecNum = kMaxInstances,
    .asynOutput = 0,
};

std::atomic<int32_t> g_instances{0};

struct Instance;
// Live instances, for the camera library's requests (encoder_link.h).
std::mutex g_liveMutex;
std::vector<Instance *> g_live;

struct Instance {
    uint32_t width;
    uint32_t height;
    int32_t csp;
    void *privateData;
    KxVencOutputCallback outputCallback; // kept for the record; output is synchronous
    X264Session session;
    std::vector<uint8_t> unit; // the last access unit, lent through bsBuf
    // Requests from the camera library, taken by the next Process on the
    // encoding thread, so x264 is only ever touched there.
    std::atomic<bool> keyFrameRequested{false};
    std::atomic<uint32_t> requestedFps{0};
    Slowdown slowdown;
    uint64_t frames; // Process calls so far, which the slowdown counts in

    ~Instance()
    {
        {
            const std::lock_guard lock(g_liveMutex);
            std::erase(g_live, this);
        }
        g_instances.fetch_sub(1);
    }
};

template <typename Apply> void ForLiveInstances(uint32_t width, uint32_t height, Apply &&apply)
{
    const std::lock_guard lock(g_liveMutex);
    for (Instance *instance : g_live) {
        if (instance->width == width && instance->height == height) {
            apply(*instance);
        }
    }
}

void RequestKeyFrame(uint32_t width, uint32_t height)
{
    ForLiveInstances(width, height, [](Instance &instance) { instance.keyFrameRequested = true; });
}

void SetFrameRate(uint32_t width, uint32_t height, uint32_t fps)
{
    if (fps != 0 && fps <= kMaxFps) {
        ForLiveInstances(width, height, [fps](Instance &instance) { instance.requestedFps = fps; });
    }
}

// Reopens x264 at the camera's new rate with the same bit rates.
int32_t ApplyRequestedRate(Instance &instance)
{
    const uint32_t fps = instance.requestedFps.exchange(0);
    if (fps == 0 || fps == instance.session.settings().fps) {
        return kOk;
    }
    X264Settings settings = instance.session.settings();
    settings.fps = fps;
    settings.keyInterval = 2 * fps;
    return instance.session.Open(settings);
}

int32_t GetAbility(KxVencAbility *abilities, uint32_t capacity, uint32_t *num)
{
    if (num == nullptr || (abilities == nullptr && capacity != 0)) {
        return kBadArgument;
    }
    *num = 0;
    if (capacity >= 1) {
        abilities[0] = kAbility;
        *num = 1;
    }
    return kOk;
}

int32_t Create(void **handle, const KxVencCreateParams *params)
{
    if (handle == nullptr || params == nullptr) {
        return kBadArgument;
    }
    const int64_t w = params->width;
    const int64_t h = params->height;
    if (w < kMinSide || h < kMinSide || w > kMaxWidth || h > kMaxHeight || w % 2 != 0 || h % 2 != 0) {
        return kUnsupported;
    }
    if (params->mColorType != KX_CSP_I420 && params->mColorType != KX_CSP_NV12) {
        return kUnsupported;
    }
    if (g_instances.fetch_add(1) >= kMaxInstances) {
        g_instances.fetch_sub(1);
        return kBusy;
    }
    auto instance = std::unique_ptr<Instance>(new (std::nothrow) Instance{params->width,
                                                                          params->height,
                                                                          static_cast<int32_t>(params->mColorType),
                                                                          params->privateData,
                                                                          params->outputCallback,
                                                                          {},
                                                                          {},
                                                                          {},
                                                                          {},
                                                                          Slowdown::FromEnvironment(),
                                                                          0});
    if (instance == nullptr) {
        g_instances.fetch_sub(1);
        return kNoMemory;
    }
    {
        const std::lock_guard lock(g_liveMutex);
        g_live.push_back(instance.get());
    }
    *handle = instance.release();
    return kOk;
}

int32_t Configure(void *handle, const KxVencConfigParams *params)
{
    if (handle == nullptr || params == nullptr) {
        return kBadArgument;
    }
    auto &instance = *static_cast<Instance *>(handle);
    // The encoded rate is the output rate; a caller that leaves both rates
    // unset gets the usual camera rate rather than a refusal.
    uint32_t fps = params->outFrameRate != 0 ? params->outFrameRate : params->inFrameRate;
    if (fps == 0) {
        fps = kDefaultFps;
    }
    if (fps > kMaxFps || params->bitRate < kMinBitRate) {
        return kBadArgument;
    }
    const uint32_t ceiling = params->maxBitRate < params->bitRate ? params->bitRate : params->maxBitRate;
    if (instance.session.IsOpen() && instance.session.settings().fps == fps) {
        return instance.session.SetBitRates(params->bitRate, ceiling);
    }
    X264Settings settings = CameraStreamSettings(instance.width, instance.height,
                                                 instance.csp == KX_CSP_NV12 ? X264_CSP_NV12 : X264_CSP_I420, fps,
                                                 params->bitRate, ceiling);
    settings.logTag = kLogTag;
    return instance.session.Open(settings);
}

int32_t Process(void *handle, const KxVencInputFrame *input, uint32_t flags, KxVencOutput *output)
{
    if (handle == nullptr || input == nullptr || output == nullptr || input->data == nullptr) {
        return kBadArgument;
    }
    auto &instance = *static_cast<Instance *>(handle);
    if ((flags & ~kFlagForceIdr) != 0 || input->width != instance.width || input->height != instance.height ||
        input->csp != instance.csp || input->length < size_t{instance.width} * instance.height * 3 / 2) {
        return kBadArgument;
    }
    if (!instance.session.IsOpen()) {
        return kNotReady;
    }
    if (const int32_t status = ApplyRequestedRate(instance); status != kOk) {
        return status;
    }
    const bool forceIdr = (flags & kFlagForceIdr) != 0 || instance.keyFrameRequested.exchange(false);
    instance.slowdown.Hold(instance.frames++);
    const std::span<const uint8_t> frame(input->data, input->length);
    const int32_t status = instance.session.Encode(frame, forceIdr, instance.unit);
    if (status != kOk) {
        return status;
    }
    output->bsBuf = instance.unit.empty() ? nullptr : instance.unit.data();
    output->bsLength = static_cast<int32_t>(instance.unit.size());
    output->timeStamp = input->timeStamp;
    return kOk;
}

int32_t Destroy(void **handle)
{
    if (handle == nullptr) {
        return kBadArgument;
    }
    delete static_cast<Instance *>(*handle);
    *handle = nullptr;
    return kOk;
}

template <auto Fn, typename... Args> int32_t Entry(Args... args) noexcept
{
    return Guarded([&] { return Fn(args...); });
}

constexpr KxVideoEncoderHandler kTable = {
    .VideoEncoderGetAbility = Entry<GetAbility, KxVencAbility *, uint32_t, uint32_t *>,
    .VideoEncoderCreate = Entry<Create, void **, const KxVencCreateParams *>,
    .VideoEncoderConfigure = Entry<Configure, void *, const KxVencConfigParams *>,
    .VideoEncoderProcess = Entry<Process, void *, const KxVencInputFrame *, uint32_t, KxVencOutput *>,
    .VideoEncoderDestroy = Entry<Destroy, void **>,
};
static_assert(sizeof(kTable) == 5 * sizeof(void *), "the video encoder handler has five slots");

} // namespace
} // namespace kxvendor

extern "C" KX_VENDOR_EXPORT const kxvendor::EncoderLink TALVOReferenceEncoderLink = {
    kxvendor::RequestKeyFrame,
    kxvendor::SetFrameRate,
};

extern "C" KX_VENDOR_EXPORT int32_t TALVOGetVideoEncoderHandler(KxVideoEncoderHandler *handler)
{
    if (handler == nullptr) {
        return kxvendor::kBadArgument;
    }
    *handler = kxvendor::kTable;
    return kxvendor::kOk;
}
