// SPDX-License-Identifier: Apache-2.0
// Copyright (C) 2026 The kxcamera authors
// Logging: the stderr sink, the diagnostics flight recorder and the test
// capture of plugin messages.
#include <array>
#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <vector>

#include "internal.h"
#include "log_line.h"

TALVOLogHook g_talvoLogFunc[4] = {nullptr, nullptr, nullptr, nullptr};

namespace talvo {
namespace {

constexpr size_t kTextMax = 512;

template <size_t N>
void CopyText(char (&out)[N], const char *text)
{
    std::snprintf(out, N, "%s", text != nullptr ? text : "");
}

[[gnu::format(printf, 3, 0)]] void FormatText(char *out, size_t size, const char *fmt, va_list args)
{
    if (fmt == nullptr) {
        out[0] = '\0';
        return;
    }
    if (std::vsnprintf(out, size, fmt, args) < 0) {
        out[0] = '\0';
    }
}

// Flight recorder: the last 256 lines, overwritten oldest first. Nothing
// reads it at run time; it is there for a debugger or a core dump.
struct DfxLine {
    int64_t timeUs;
    int32_t level;
    char tag[32];
    char text[kTextMax - 48];
};
struct DfxRing {
    std::mutex lock;
    std::array<DfxLine, 256> lines;
    uint64_t written = 0;
};
DfxRing g_dfxRing;

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

void SetPending(int32_t level, const char *tag, const char *func, bool viaHook)
{
    t_pending.active = true;
    t_pending.viaHook = viaHook;
    t_pending.viaLog = !viaHook;
    t_pending.level = level;
    CopyText(t_pending.tag, tag);
    CopyText(t_pending.func, func);
}

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

template <int32_t Level>
void RecordingHook(const char *tag, const char *func, const char *fmt, ...)
{
    (void)fmt; // formatted once, by TalvoDfxlog
    SetPending(Level, tag, func, true);
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

void Capture(int32_t level, const char *tag, const char *fmt, const char *text, const Pending &route)
{
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

} // namespace

void StopAndClearLogCapture()
{
    TalvoTestLogCapture(0);
    TalvoTestLogClear();
}

} // namespace talvo

using namespace talvo;

void TALVOLog(int32_t level, const char *tag, const char *fmt, ...)
{
    SetPending(level, tag, "", false);
    // Read at each call so that a test or an operator can change it live.
    if (level > ParseLogThreshold(std::getenv("TALVO_LOG_LEVEL"))) {
        return;
    }
    char text[kTextMax];
    va_list args;
    va_start(args, fmt);
    FormatText(text, sizeof(text), fmt, args);
    va_end(args);
    char line[kTextMax + 128];
    const size_t len = FormatLogLine(line, sizeof(line), TALVOSystemTimeUs(), level, tag, text);
    // One write per line keeps lines from several threads whole.
    (void)std::fwrite(line, 1, len, stderr);
}

void TalvoDfxlog(int32_t level, const char *tag, const char *fmt, ...)
{
    const Pending route = TakePending(level, tag);
    char text[kTextMax];
    va_list args;
    va_start(args, fmt);
    FormatText(text, sizeof(text), fmt, args);
    va_end(args);
    const int64_t now = TALVOSystemTimeUs();
    {
        std::lock_guard<std::mutex> guard(g_dfxRing.lock);
        DfxLine &line = g_dfxRing.lines[g_dfxRing.written++ % g_dfxRing.lines.size()];
        line.timeUs = now;
        line.level = level;
        CopyText(line.tag, tag);
        CopyText(line.text, text);
    }
    if (g_captureOn.load(std::memory_order_acquire)) {
        Capture(level, tag, fmt, text, route);
    }
}

void TalvoTestLogCapture(int enable)
{
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
