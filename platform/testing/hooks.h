// SPDX-License-Identifier: Apache-2.0
// The one door from the framework calls to the test controls.
#pragma once

#include <atomic>
#include <cstdint>

#include "talvo/testing.h"

namespace talvo {

// Installed by the first use of a test control and never removed; until
// then null, so a product run pays one well-predicted branch per call.
struct TestHooks {
    bool (*callFails)(TalvoTestFn fn);
    // A plugin message on its way to TalvoDfxlog: through a hook (with the
    // caller's function name) or through TALVOLog.
    void (*logRouted)(int32_t level, const char *tag, const char *func, bool viaHook);
    // A message reached TalvoDfxlog, formatted.
    void (*logReached)(int32_t level, const char *tag, const char *fmt, const char *text);
};

extern std::atomic<const TestHooks *> g_testHooks;

inline const TestHooks *ActiveTestHooks()
{
    return g_testHooks.load(std::memory_order_acquire);
}

// Counts one call of fn; true when a test asked this very call to fail.
inline bool CallFails(TalvoTestFn fn)
{
    const TestHooks *hooks = ActiveTestHooks();
    return hooks != nullptr && hooks->callFails(fn);
}

} // namespace talvo
