// SPDX-License-Identifier: Apache-2.0
// Call counting and one-shot failure injection, and the hooks that bring
// them and the log capture into the framework calls.
#include <array>
#include <atomic>

#include "internal.h"
#include "testing/controls.h"

namespace talvo {

std::atomic<const TestHooks *> g_testHooks{nullptr};

namespace {

// failAt holds the call number (as counted by calls) that must fail, 0 for
// none. Only the call whose number matches, and which wins the exchange,
// fails: a failure fires exactly once even under concurrent calls.
std::array<std::atomic<uint64_t>, TALVO_FN_COUNT> g_calls{};
std::array<std::atomic<uint64_t>, TALVO_FN_COUNT> g_failAt{};

bool Known(TalvoTestFn fn)
{
    return fn >= 0 && fn < TALVO_FN_COUNT;
}

bool CountAndFail(TalvoTestFn fn)
{
    const uint64_t number = g_calls[fn].fetch_add(1, std::memory_order_relaxed) + 1;
    uint64_t target = g_failAt[fn].load(std::memory_order_relaxed);
    return target == number && g_failAt[fn].compare_exchange_strong(target, 0, std::memory_order_relaxed);
}

constexpr TestHooks kHooks{CountAndFail, RouteLog, CaptureLog};

} // namespace

void InstallTestHooks()
{
    g_testHooks.store(&kHooks, std::memory_order_release);
}

} // namespace talvo

using talvo::g_calls;
using talvo::g_failAt;

void TalvoTestFailNth(TalvoTestFn fn, uint32_t nth)
{
    talvo::InstallTestHooks();
    if (!talvo::Known(fn)) {
        return;
    }
    const uint64_t target = nth == 0 ? 0 : g_calls[fn].load(std::memory_order_relaxed) + nth;
    g_failAt[fn].store(target, std::memory_order_relaxed);
}

uint64_t TalvoTestCallCount(TalvoTestFn fn)
{
    talvo::InstallTestHooks();
    return talvo::Known(fn) ? g_calls[fn].load(std::memory_order_relaxed) : 0;
}

void TalvoTestReset(void)
{
    talvo::InstallTestHooks();
    for (int fn = 0; fn < TALVO_FN_COUNT; ++fn) {
        g_failAt[fn].store(0, std::memory_order_relaxed);
        g_calls[fn].store(0, std::memory_order_relaxed);
    }
    talvo::StopAndClearLogCapture();
}
