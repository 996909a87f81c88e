// SPDX-License-Identifier: Apache-2.0
// Scoped hold of a framework mutex.
#pragma once

#include <cstdint>

#include "talvo/talvo.h"

namespace kx {

// Takes the mutex on construction and releases it on destruction, but only
// if the lock was granted: callers decide what a failed lock means.
class MutexGuard {
public:
    explicit MutexGuard(TALVOMutex *mutex) : mutex_(mutex), status_(TALVOMutexLock(mutex)) {}
    ~MutexGuard()
    {
        if (status_ == 0) {
            (void)TALVOMutexUnlock(mutex_);
        }
    }
    MutexGuard(const MutexGuard &) = delete;
    MutexGuard &operator=(const MutexGuard &) = delete;

    [[nodiscard]] bool Locked() const { return status_ == 0; }
    [[nodiscard]] int32_t Status() const { return status_; }

private:
    TALVOMutex *mutex_;
    int32_t status_;
};

} // namespace kx
