// SPDX-License-Identifier: Apache-2.0
// Paces a camera's encoder thread so that the fault sweep's counts are stable.
#include "encoder_pacer.h"

#include <chrono>
#include <cstring>
#include <thread>

#include <dlfcn.h>
#include <pthread.h>

#include "registry/registry.h"
#include "talvo/talvo.h"
#include "talvo/testing.h"

namespace kxfault {
namespace {

constexpr char kEncoderThreadName[] = "talvovencoder";
// How often a parked thread looks at its stop flag, which nothing signals.
constexpr auto kStopPoll = std::chrono::milliseconds(1);
// A stopping thread is held back a little, as one busy with a frame would
// be, so that a stop that does not wait for the thread frees what the
// thread still reads while it still reads it.
constexpr auto kStopLag = std::chrono::milliseconds(20);
// Only a hang guard, never a measurement.
constexpr auto kHangGuard = std::chrono::seconds(30);

bool OnEncoderThread()
{
    char name[16] = {};
    return pthread_getname_np(pthread_self(), name, sizeof(name)) == 0 && std::strcmp(name, kEncoderThreadName) == 0;
}

bool Running(const KxCameraService *service)
{
    return __atomic_load_n(&service->vencRunning, __ATOMIC_ACQUIRE) != 0;
}

} // namespace

EncoderPacer &EncoderPacer::Get()
{
    static EncoderPacer pacer;
    return pacer;
}

void EncoderPacer::Watch(const std::array<KxCameraService *, kCameras> &services)
{
    std::lock_guard lock(mutex_);
    for (size_t i = 0; i < kCameras; ++i) {
        paced_[i] = Paced{};
        paced_[i].service = services[i];
    }
    pauses_ = 0;
    changed_.notify_all();
}

void EncoderPacer::RepairLocksAfterUnlockCall(uint64_t call)
{
    std::lock_guard lock(mutex_);
    repairAfter_ = call;
}

EncoderPacer::Paced *EncoderPacer::Find(const KxCameraService *service)
{
    for (Paced &paced : paced_) {
        if (service != nullptr && paced.service == service) {
            return &paced;
        }
    }
    return nullptr;
}

EncoderPacer::Paced *EncoderPacer::ClaimForThisThread()
{
    const pthread_t self = pthread_self();
    for (Paced &paced : paced_) {
        if (paced.service != nullptr && paced.owned && pthread_equal(paced.thread, self) != 0) {
            return &paced;
        }
    }
    // A record is marked running before its thread is created.
    for (Paced &paced : paced_) {
        if (paced.service != nullptr && !paced.owned && Running(paced.service)) {
            paced.owned = true;
            paced.thread = self;
            return &paced;
        }
    }
    return nullptr;
}

void EncoderPacer::Step(const KxCameraService *service)
{
    std::lock_guard lock(mutex_);
    if (Paced *paced = Find(service); paced != nullptr) {
        ++paced->steps;
        changed_.notify_all();
    }
}

bool EncoderPacer::WaitParked(const KxCameraService *service)
{
    std::unique_lock lock(mutex_);
    Paced *paced = Find(service);
    return paced != nullptr &&
           changed_.wait_for(lock, kHangGuard, [paced] { return paced->parked && paced->steps == 0; });
}

uint64_t EncoderPacer::Pauses() const
{
    std::lock_guard lock(mutex_);
    return pauses_;
}

bool EncoderPacer::Pause()
{
    if (!OnEncoderThread()) {
        return false;
    }
    std::unique_lock lock(mutex_);
    Paced *paced = ClaimForThisThread();
    if (paced == nullptr) {
        return false;
    }
    if (repairAfter_ != 0 && TalvoTestCallCount(TALVO_FN_MUTEX_UNLOCK) >= repairAfter_) {
        // Refused unless this thread holds the lock.
        (void)TALVOMutexUnlock(&paced->service->vencLock);
    }
    ++pauses_;
    paced->parked = true;
    changed_.notify_all();
    while (paced->steps == 0) {
        if (!Running(paced->service)) {
            // The thread leaves; the record's next thread is claimed afresh.
            paced->parked = false;
            paced->owned = false;
            changed_.notify_all();
            lock.unlock();
            std::this_thread::sleep_for(kStopLag);
            return true;
        }
        changed_.wait_for(lock, kStopPoll);
    }
    --paced->steps;
    paced->parked = false;
    changed_.notify_all();
    return true;
}

} // namespace kxfault

// The plugin imports the framework's sleep by name; defined here and exported
// from the executable, this one is found first.
extern "C" int32_t TALVOSleep(uint32_t ms)
{
    if (kxfault::EncoderPacer::Get().Pause()) {
        return 0;
    }
    using SleepFn = int32_t (*)(uint32_t);
    static const auto framework = reinterpret_cast<SleepFn>(dlsym(RTLD_NEXT, "TALVOSleep"));
    return framework != nullptr ? framework(ms) : -1;
}
