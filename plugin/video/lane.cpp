// SPDX-License-Identifier: Apache-2.0
// The encoder lane of a raw-frame camera; video/lane.h says what its fields
// mean.
#include "video/lane.h"

#include "common/limits.h"
#include "common/list.h"
#include "common/log.h"
#include "common/memory.h"
#include "common/module.h"
#include "common/mutex.h"
#include "common/rate_limit.h"
#include "video/video.h"

namespace {

constexpr char kThreadName[] = "talvovencoder";
constexpr uint64_t kThreadLevel = 2;
constexpr int64_t kUsPerSecond = 1000000;

thread_local const KxCameraService *t_encodingPathOf = nullptr;

bool OnEncodingPath(const KxCameraService *service)
{
    return t_encodingPathOf == service;
}

void SetRunning(KxCameraService *service, uint8_t value)
{
    __atomic_store_n(&service->vencRunning, value, __ATOMIC_RELEASE);
}

bool Started(const KxCameraService *service)
{
    return __atomic_load_n(&service->laneGate, __ATOMIC_ACQUIRE) != 0;
}

// Waits until no frame is on its way into the queue, then closes the gate.
// Queueing holds the queue lock for a few list operations only.
void CloseGate(KxCameraService *service)
{
    uint32_t idle = 1;
    while (!__atomic_compare_exchange_n(&service->laneGate, &idle, 0, false, __ATOMIC_ACQ_REL, __ATOMIC_ACQUIRE)) {
        if (idle == 0) {
            return;
        }
        idle = 1;
        (void)TALVOSleep(0);
    }
}

void WaitUntilCleared(const uint8_t *flag)
{
    while (__atomic_load_n(flag, __ATOMIC_ACQUIRE) != 0) {
        (void)TALVOSleep(static_cast<uint32_t>(kx::kVencSleepMs));
    }
}

// A thread that could not be joined was still told to stop and leaves
// within one frame or one pause; until then it uses its state.
int32_t JoinLaneThread(KxLaneThread *lane)
{
    const int32_t ret = TALVOThreadJoinFw(lane->thread, nullptr);
    if (ret != 0) {
        WaitUntilCleared(&lane->live);
    }
    return ret;
}

void FreeLaneThread(KxLaneThread *lane)
{
    kx::FreeAndClear(lane->encFrame.data);
    kx::FreeAndClear(lane->convFrame.data);
    TalvoFree(lane);
}

void JoinRetiredLanes(KxCameraService *service)
{
    for (KxLaneThread *lane = service->retiredLanes; lane != nullptr;) {
        KxLaneThread *next = lane->next;
        const int32_t ret = JoinLaneThread(lane);
        if (ret != 0) {
            LOGE("join of a retired video encoder thread failed, error code %d", ret);
        }
        TalvoFree(lane);
        lane = next;
    }
    service->retiredLanes = nullptr;
}

// Frames still queued go with the lane; a stop releases them unencoded.
void ReleaseQueue(TALVODllHead &queue)
{
    kx::ListForEach(queue, [](TALVODllNode *node) { FreeVideoNode(node); });
}

int64_t FrameIntervalUs(const KxCameraService *service)
{
    const int32_t fps = __atomic_load_n(&service->negParams.fps, __ATOMIC_RELAXED);
    const int32_t rate = fps >= 1 && fps <= kx::kMaxFrameRate ? fps : kx::kDefaultFrameRate;
    return kUsPerSecond / rate;
}

const KxVideoAccessUnit &UnitOf(const TALVODllNode *node)
{
    return *static_cast<const KxVideoAccessUnit *>(node->data);
}

// The oldest frame goes while the queue is over its bound; the newest never
// does. Age counts from the newest frame, so a burst that arrived together
// stays whole however long the encoder was busy.
bool OverBound(const KxCameraService *service, const TALVODllHead &queue, int64_t ageBudgetUs)
{
    if (queue.count <= 1) {
        return false;
    }
    return queue.count > static_cast<uint32_t>(kx::kVencQueueMaxFrames) ||
           service->laneQueueBytes > static_cast<uint64_t>(kx::kVencQueueMaxBytes) ||
           UnitOf(queue.last).timeStamp - UnitOf(queue.first).timeStamp > ageBudgetUs;
}

void ReportOverload(KxCameraService *service)
{
    if (!kx::OncePerSecond(&service->overloadLogUs)) {
        return;
    }
    const KxCameraFrameCounters &c = service->counters;
    LOGW("encoder of %s falls behind, oldest frames dropped: %llu in, %llu encoded, %llu dropped for overload, "
         "%llu dropped for errors",
         service->anonyServiceId, static_cast<unsigned long long>(__atomic_load_n(&c.framesIn, __ATOMIC_RELAXED)),
         static_cast<unsigned long long>(__atomic_load_n(&c.framesEncoded, __ATOMIC_RELAXED)),
         static_cast<unsigned long long>(__atomic_load_n(&c.droppedOverload, __ATOMIC_RELAXED)),
         static_cast<unsigned long long>(__atomic_load_n(&c.droppedError, __ATOMIC_RELAXED)));
}

} // namespace

kx::EncodingPathScope::EncodingPathScope(const KxCameraService *service) : previous_(t_encodingPathOf)
{
    t_encodingPathOf = service;
}

kx::EncodingPathScope::~EncodingPathScope()
{
    t_encodingPathOf = previous_;
}

bool kx::LaneEnter(KxCameraService *service)
{
    uint32_t users = __atomic_load_n(&service->laneGate, __ATOMIC_ACQUIRE);
    do {
        if (users == 0 || users == UINT32_MAX) {
            return false;
        }
    } while (
        !__atomic_compare_exchange_n(&service->laneGate, &users, users + 1, true, __ATOMIC_ACQ_REL, __ATOMIC_ACQUIRE));
    return true;
}

void kx::LaneLeave(KxCameraService *service)
{
    (void)__atomic_sub_fetch(&service->laneGate, 1, __ATOMIC_RELEASE);
}

bool kx::LaneRunning(const KxCameraService *service)
{
    return __atomic_load_n(&service->vencRunning, __ATOMIC_ACQUIRE) != 0;
}

bool kx::LaneExists(const KxCameraService *service)
{
    return Started(service) || service->vencHandle != nullptr;
}

void kx::CountFrame(KxCameraService *service, FrameFate fate)
{
    KxCameraFrameCounters &c = service->counters;
    uint64_t *counter = fate == FrameFate::kIn                ? &c.framesIn
                        : fate == FrameFate::kEncoded         ? &c.framesEncoded
                        : fate == FrameFate::kDroppedOverload ? &c.droppedOverload
                                                              : &c.droppedError;
    (void)__atomic_add_fetch(counter, 1, __ATOMIC_RELAXED);
}

void kx::LaneDropIdleFrame(KxCameraService *service, KxVideoAccessUnit *unit)
{
    OutputCameraDataFree(unit, nullptr);
    CountFrame(service, FrameFate::kDroppedError);
    if (OncePerSecond(&service->idleLogUs)) {
        LOGW("raw frames of %s released, no encoder thread runs, %llu dropped so far", service->anonyServiceId,
             static_cast<unsigned long long>(__atomic_load_n(&service->counters.droppedError, __ATOMIC_RELAXED)));
    }
}

int32_t kx::LaneQueueFrame(KxCameraService *service, KxVideoAccessUnit *unit)
{
    auto *node = static_cast<TALVODllNode *>(Alloc(sizeof(TALVODllNode)));
    if (node == nullptr) {
        OutputCameraDataFree(unit, nullptr);
        CountFrame(service, FrameFate::kDroppedError);
        return kErrNoMemory;
    }
    node->data = unit;
    const int64_t ageBudgetUs = FrameIntervalUs(service) * kVencQueueMaxAgeIntervals;
    TALVODllHead dropped{};
    ListReset(dropped);
    {
        MutexGuard guard(&service->vencLock);
        if (!guard.Locked()) {
            LOGE("lock video encoder queue failed, error code %d", guard.Status());
            TalvoFree(node);
            OutputCameraDataFree(unit, nullptr);
            CountFrame(service, FrameFate::kDroppedError);
            return guard.Status();
        }
        TALVODllHead &queue = service->vencQueue;
        (void)TALVODllInsertInMiddle(&queue, ListTail(queue), node);
        service->laneQueueBytes += static_cast<uint32_t>(unit->length);
        while (OverBound(service, queue, ageBudgetUs)) {
            TALVODllNode *oldest = TALVODllGet(&queue);
            service->laneQueueBytes -= static_cast<uint32_t>(UnitOf(oldest).length);
            (void)TALVODllInsertInMiddle(&dropped, ListTail(dropped), oldest);
        }
    }
    if (ListEmpty(dropped)) {
        return 0;
    }
    ListForEach(dropped, [service](TALVODllNode *old) {
        FreeVideoNode(old);
        CountFrame(service, FrameFate::kDroppedOverload);
    });
    ReportOverload(service);
    return 0;
}

KxLaneThread *kx::LaneThreadBegin(KxCameraService *service)
{
    t_encodingPathOf = service;
    return __atomic_exchange_n(&service->laneStarting, nullptr, __ATOMIC_ACQ_REL);
}

bool kx::LaneThreadKeepsRunning(const KxLaneThread *lane)
{
    return __atomic_load_n(&lane->retired, __ATOMIC_ACQUIRE) == 0 && LaneRunning(lane->service);
}

void kx::LaneThreadEnd(KxLaneThread *lane)
{
    // A retired lane's encoder and buffers are its thread's to release; the
    // record already belongs to whatever came next.
    if (__atomic_load_n(&lane->retired, __ATOMIC_ACQUIRE) != 0) {
        if (lane->vencHandle != nullptr && lane->handler != nullptr) {
            (void)lane->handler->VideoEncoderDestroy(&lane->vencHandle);
        }
        FreeAndClear(lane->encFrame.data);
        FreeAndClear(lane->convFrame.data);
    }
    __atomic_store_n(&lane->live, 0, __ATOMIC_RELEASE);
}

int32_t StartVideoEncoderThread(KxCameraService *service)
{
    // Re-initialising the lock of a running lane would pull it from under the
    // thread; the caller tears the running lane down first.
    if (Started(service)) {
        LOGE("video encoder thread of %s already runs", service->anonyServiceId);
        return kx::kErrInvalid;
    }
    auto *lane = kx::AllocZeroed<KxLaneThread>();
    if (lane == nullptr) {
        LOGE("malloc for video encoder thread of %s failed", service->anonyServiceId);
        return kx::kErrNoMemory;
    }
    int32_t ret = 0;
    const bool lockWasLive = service->laneLockLive != 0;
    if (!lockWasLive) {
        ret = TALVOMutexInit(&service->vencLock);
        if (ret != 0) {
            LOGE("video encoder lock inited failed, error code %d", ret);
            TalvoFree(lane);
            return ret;
        }
        service->laneLockLive = 1;
    }
    SetRunning(service, 1);
    if (lockWasLive) {
        // A retired thread may still look at the queue under its lock.
        kx::MutexGuard guard(&service->vencLock);
        kx::ListReset(service->vencQueue);
    } else {
        kx::ListReset(service->vencQueue);
    }
    service->laneQueueBytes = 0;
    lane->service = service;
    lane->handler = service->vencHandler;
    lane->vencHandle = service->vencHandle;
    lane->width = service->vencWidth;
    lane->height = service->vencHeight;
    lane->encFrame.csp = service->encFrame.csp;
    lane->live = 1;
    // A lane retired before its thread began hands over first.
    while (__atomic_load_n(&service->laneStarting, __ATOMIC_ACQUIRE) != nullptr) {
        (void)TALVOSleep(0);
    }
    __atomic_store_n(&service->laneStarting, lane, __ATOMIC_RELEASE);
    const TALVOThreadParam param{kThreadLevel, service, kThreadName};
    ret = TALVOThreadFw(&lane->thread, VideoEncoderThread, &param);
    if (ret != 0) {
        LOGE("create audio decode thread failed, error code %d", ret);
        // Back to "not started": the stop has nothing to join, and no frame
        // is queued for a thread that does not exist.
        __atomic_store_n(&service->laneStarting, nullptr, __ATOMIC_RELEASE);
        TalvoFree(lane);
        SetRunning(service, 0);
        if (service->retiredLanes == nullptr) {
            (void)TALVOMutexDestroy(&service->vencLock);
            service->laneLockLive = 0;
        }
        return ret;
    }
    service->vencThread = lane->thread;
    service->laneThread = lane;
    __atomic_store_n(&service->laneGate, 1, __ATOMIC_RELEASE);
    return 0;
}

namespace {

// From inside the lane's own encoding path: nothing that path still uses is
// released or waited for. The thread learns it is retired under the queue
// lock, so it takes no frame after this.
void RetireLane(KxCameraService *service)
{
    KxLaneThread *lane = service->laneThread;
    CloseGate(service);
    TALVODllHead queued{};
    kx::ListReset(queued);
    {
        kx::MutexGuard guard(&service->vencLock);
        queued = service->vencQueue;
        if (!kx::ListEmpty(queued)) {
            // Relink the moved nodes to the copied head.
            queued.first->prev = kx::ListHead(queued);
            queued.last->next = kx::ListHead(queued);
        }
        kx::ListReset(service->vencQueue);
        service->laneQueueBytes = 0;
        // The encoder goes with the thread, which is still inside it.
        service->vencHandle = nullptr;
        __atomic_store_n(&lane->retired, 1, __ATOMIC_RELEASE);
    }
    ReleaseQueue(queued);
    lane->next = service->retiredLanes;
    service->retiredLanes = lane;
    service->laneThread = nullptr;
}

// Returns the status of destroying the queue lock.
int32_t StopFromOutside(KxCameraService *service, int32_t *joinStatus)
{
    KxLaneThread *lane = service->laneThread;
    if (Started(service) && lane != nullptr) {
        *joinStatus = JoinLaneThread(lane);
        FreeLaneThread(lane);
        service->laneThread = nullptr;
    }
    CloseGate(service);
    JoinRetiredLanes(service);
    int32_t ret = 0;
    if (service->laneLockLive != 0) {
        ret = TALVOMutexDestroy(&service->vencLock);
        service->laneLockLive = 0;
        ReleaseQueue(service->vencQueue);
        kx::ListReset(service->vencQueue);
        service->laneQueueBytes = 0;
    }
    return ret;
}

} // namespace

int32_t StopVideoEncoderThread(KxCameraService *service)
{
    LOGI("begin to join thread video encoder");
    SetRunning(service, 0);
    if (OnEncodingPath(service)) {
        if (Started(service)) {
            RetireLane(service);
        }
        LOGI("end to join thread audio encoder, ret %d", 0);
        return 0;
    }
    int32_t joinStatus = 0;
    const int32_t ret = StopFromOutside(service, &joinStatus);
    if (joinStatus != 0) {
        LOGE("TALVOThreadJoinFw failed, error code %d", joinStatus);
    }
    if (ret != 0) {
        LOGE("TALVOMutexDestroy failed, error code %d", ret);
    }
    LOGI("end to join thread audio encoder, ret %d", ret);
    return 0;
}

void kx::LaneTearDown(KxCameraService *service)
{
    (void)StopVideoEncoderThread(service);
    (void)DestoryVideoEncoder(service);
}

int32_t KxCameraGetFrameCounters(const KxServiceIdDesc *index, KxCameraFrameCounters *counters)
{
    if (index == nullptr || index->id == nullptr || counters == nullptr) {
        return kx::kErrMissing;
    }
    if (!kx::ModuleInited()) {
        return kx::kErrNotInited;
    }
    const kx::LockedCamera camera(index, __func__);
    const KxCameraService *service = camera.Get();
    if (service == nullptr) {
        return camera.Status();
    }
    const KxCameraFrameCounters &c = service->counters;
    counters->framesIn = __atomic_load_n(&c.framesIn, __ATOMIC_RELAXED);
    counters->framesEncoded = __atomic_load_n(&c.framesEncoded, __ATOMIC_RELAXED);
    counters->droppedOverload = __atomic_load_n(&c.droppedOverload, __ATOMIC_RELAXED);
    counters->droppedError = __atomic_load_n(&c.droppedError, __ATOMIC_RELAXED);
    return 0;
}
