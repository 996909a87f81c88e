// SPDX-License-Identifier: Apache-2.0
// Logging: the stderr sink and the diagnostics flight recorder.
#include <array>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>

#include "internal.h"
#include "log_line.h"

TALVOLogHook g_talvoLogFunc[4] = {nullptr, nullptr, nullptr, nullptr};

namespace talvo {
namespace {

constexpr size_t kTextMax = 512;

template <size_t N> void CopyText(char (&out)[N], const char *text)
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

} // namespace
} // namespace talvo

using namespace talvo;

void TALVOLog(int32_t level, const char *tag, const char *fmt, ...)
{
    if (const TestHooks *hooks = ActiveTestHooks()) {
        hooks->logRouted(level, tag, "", false);
    }
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
    if (const TestHooks *hooks = ActiveTestHooks()) {
        hooks->logReached(level, tag, fmt, text);
    }
}
