// SPDX-License-Identifier: Apache-2.0
// Paces a camera's encoder thread. The thread polls its frame queue and
// pauses between polls; left to a real clock it polls, and so takes its
// queue lock, a different number of times in every run. This executable
// replaces the framework's sleep as the plugin sees it: a pause of a watched
// camera's encoder thread ends only when the test steps it (or the thread is
// told to stop), so each run makes the same framework calls in the same order.
#pragma once

#include <array>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <mutex>

#include <pthread.h>

struct KxCameraService;

namespace kxfault {

class EncoderPacer {
public:
    static inline constexpr size_t kCameras = 2;

    static EncoderPacer &Get();

    // Paces the encoder threads of these records from now on (a null slot
    // paces nothing). Only one thread may start at a time: a thread is told
    // apart by the record that is running and has no thread of its own yet.
    void Watch(const std::array<KxCameraService *, kCameras> &services);
    // Once this many unlock calls have been made, a pause first gives back
    // the queue lock in case the thread kept it after a failed unlock. 0: never.
    void RepairLocksAfterUnlockCall(uint64_t call);

    // Lets one pause of the record's thread end.
    void Step(const KxCameraService *service);
    // True once the record's thread sits in a pause with no step pending;
    // false when the hang guard ran out first.
    bool WaitParked(const KxCameraService *service);
    // Pauses entered since Watch, all threads together.
    uint64_t Pauses() const;

    // The sleep replacement's side: true when the calling thread is a paced
    // encoder thread and its pause has been served here.
    bool Pause();

private:
    struct Paced {
        KxCameraService *service = nullptr;
        pthread_t thread{};
        bool owned = false; // thread is the record's current encoder thread
        bool parked = false;
        uint32_t steps = 0;
    };
    Paced *Find(const KxCameraService *service);
    Paced *ClaimForThisThread();

    mutable std::mutex mutex_;
    std::condition_variable changed_;
    std::array<Paced, kCameras> paced_{};
    uint64_t repairAfter_ = 0;
    uint64_t pauses_ = 0;
};

} // namespace kxfault
