// SPDX-License-Identifier: Apache-2.0
// The door every call from a vendor thread passes: frames and reports.
// Release shuts it and waits for the calls inside before it takes anything
// away, so that no vendor thread reads a freed record or a destroyed queue;
// a vendor that would not close a camera may go on calling meanwhile.
#pragma once

#include <cstdint>

#include "talvo/talvo.h"

namespace kx {

inline uint32_t g_vendorCalls = 0;
inline uint8_t g_vendorGateShut = 0;
// This thread's calls inside, so that a release made from a callback of
// such a call does not wait for itself.
inline thread_local uint32_t t_vendorCallDepth = 0;

class VendorCall {
public:
    VendorCall()
    {
        (void)__atomic_add_fetch(&g_vendorCalls, 1, __ATOMIC_SEQ_CST);
        admitted_ = __atomic_load_n(&g_vendorGateShut, __ATOMIC_SEQ_CST) == 0;
        ++t_vendorCallDepth;
    }
    ~VendorCall()
    {
        --t_vendorCallDepth;
        (void)__atomic_sub_fetch(&g_vendorCalls, 1, __ATOMIC_RELEASE);
    }
    VendorCall(const VendorCall &) = delete;
    VendorCall &operator=(const VendorCall &) = delete;

    // False while release runs: the call must touch nothing of the module.
    [[nodiscard]] bool Admitted() const { return admitted_; }

private:
    bool admitted_ = false;
};

inline void ShutVendorGate()
{
    __atomic_store_n(&g_vendorGateShut, 1, __ATOMIC_SEQ_CST);
    while (__atomic_load_n(&g_vendorCalls, __ATOMIC_SEQ_CST) > t_vendorCallDepth) {
        (void)TALVOSleep(0);
    }
}

inline void OpenVendorGate()
{
    __atomic_store_n(&g_vendorGateShut, 0, __ATOMIC_SEQ_CST);
}

} // namespace kx
