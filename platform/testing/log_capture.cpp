// SPDX-License-Identifier: Apache-2.0
// Capture of the plugin's log messages, with the route each one took.
#include <atomic>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <vector>

#include "internal.h"
#include "testing/controls.h"

namespace talvo {
namespace {

template <size_t N> void CopyText(char (&out)[N], const char *text)
{
    std::snprintf(out, N, "%s", text != nullptr ? text : "");
}

// Route of the message that the next TalvoDfxlog on this thread belongs to:
// a plugin message reaches a hook or TALVOLog first, then TalvoDfxlog.
struct Pending {
    bool active;
    bool viaHook;
    bool viaLog;
    int32_t level;
    char tag[32];
    char func[64];
};
thread_local Pending t_pending;

// Takes this thread's pending route; a route left by another message (other
// level or tag) is dropped rather than misattributed.
Pending TakePending(int32_t level, const char *tag)
{
    Pending taken = t_pending;
    t_pending.active = false;
    char tagCopy[sizeof(taken.tag)];
    CopyText(tagCopy, tag);
    if (!taken.active || taken.level != level || std::strcmp(taken.tag, tagCopy) != 0) {
        taken = Pending{};
    }
    return taken;
}

std::atomic<bool> g_captureOn{false};
std::mutex g_captureLock;
std::vector<TalvoTestLogEntry> g_captured;

template <int32_t Level> void RecordingHook(const char *tag, const char *func, const char *fmt, ...)
{
    (void)fmt; // formatted once, by TalvoDfxlog
    RouteLog(Level, tag, func, true);
}

// slot = 4 - level
constexpr TALVOLogHook kRecordingHooks[4] = {RecordingHook<4>, RecordingHook<3>, RecordingHook<2>, RecordingHook<1>};

void RemoveRecordingHooks()
{
    for (size_t slot = 0; slot < 4; ++slot) {
        if (g_talvoLogFunc[slot] == kRecordingHooks[slot]) {
            g_talvoLogFunc[slot] = nullptr;
        }
    }
}

} // namespace

void RouteLog(int32_t level, const char *tag, const char *func, bool viaHook)
{
    t_pending.active = true;
    t_pending.viaHook = viaHook;
    t_pending.viaLog = !viaHook;
    t_pending.level = level;
    CopyText(t_pending.tag, tag);
    CopyText(t_pending.func, func);
}

void CaptureLog(int32_t level, const char *tag, const char *fmt, const char *text)
{
    const Pending route = TakePending(level, tag);
    if (!g_captureOn.load(std::memory_order_acquire)) {
        return;
    }
    TalvoTestLogEntry entry{};
    entry.level = level;
    CopyText(entry.tag, tag);
    CopyText(entry.func, route.func);
    CopyText(entry.fmt, fmt);
    CopyText(entry.text, text);
    entry.viaHook = route.viaHook ? 1 : 0;
    entry.viaLog = route.viaLog ? 1 : 0;
    std::lock_guard<std::mutex> guard(g_captureLock);
    g_captured.push_back(entry);
}

void StopAndClearLogCapture()
{
    TalvoTestLogCapture(0);
    TalvoTestLogClear();
}

} // namespace talvo

using namespace talvo;

void TalvoTestLogCapture(int enable)
{
    InstallTestHooks();
    if (enable != 0) {
        for (size_t slot = 0; slot < 4; ++slot) {
            g_talvoLogFunc[slot] = kRecordingHooks[slot];
        }
        g_captureOn.store(true, std::memory_order_release);
    } else {
        g_captureOn.store(false, std::memory_order_release);
        RemoveRecordingHooks();
    }
}

uint32_t TalvoTestLogCount(void)
{
    std::lock_guard<std::mutex> guard(g_captureLock);
    return static_cast<uint32_t>(g_captured.size());
}

int32_t TalvoTestLogGet(uint32_t index, TalvoTestLogEntry *entry)
{
    std::lock_guard<std::mutex> guard(g_captureLock);
    if (entry == nullptr || index >= g_captured.size()) {
        return -1;
    }
    *entry = g_captured[index];
    return 0;
}

void TalvoTestLogClear(void)
{
    std::lock_guard<std::mutex> guard(g_captureLock);
    g_captured.clear();
}
