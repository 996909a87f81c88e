// SPDX-License-Identifier: Apache-2.0
// Text of one stderr log line and the level threshold, kept apart from the
// sink so that tests can check them without reading stderr.
#pragma once

#include <cinttypes>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

namespace talvo {

inline constexpr int32_t kDefaultLogThreshold = 2; // errors and warnings

// E error, W warning, D debug, I info, T trace; '?' for anything else.
inline char LevelLetter(int32_t level)
{
    return level >= 1 && level <= 5 ? "EWDIT"[level - 1] : '?';
}

// The value of TALVO_LOG_LEVEL: a decimal number, anything else (or
// nothing) gives the default.
inline int32_t ParseLogThreshold(const char *setting)
{
    if (setting == nullptr || setting[0] == '\0') {
        return kDefaultLogThreshold;
    }
    char *end = nullptr;
    const long value = std::strtol(setting, &end, 10);
    if (*end != '\0' || value < INT32_MIN || value > INT32_MAX) {
        return kDefaultLogThreshold;
    }
    return static_cast<int32_t>(value);
}

// "<seconds>.<microseconds> <letter> <tag>: <text>\n", cut to fit but
// always ending in a newline. Returns the line's length.
inline size_t FormatLogLine(char *out, size_t size, int64_t monotonicUs, int32_t level, const char *tag,
                            const char *text)
{
    if (out == nullptr || size < 2) {
        return 0;
    }
    // Cutting a long line is the point here, not an accident. Clang has no
    // such warning and would reject the unknown group.
#pragma GCC diagnostic push
#if !defined(__clang__)
#pragma GCC diagnostic ignored "-Wformat-truncation"
#endif
    const int n = std::snprintf(out, size - 1, "%" PRId64 ".%06" PRId64 " %c %s: %s", monotonicUs / 1000000,
                                monotonicUs % 1000000, LevelLetter(level), tag != nullptr ? tag : "",
                                text != nullptr ? text : "");
#pragma GCC diagnostic pop
    size_t len = n < 0 ? 0 : static_cast<size_t>(n);
    if (len > size - 2) {
        len = size - 2;
    }
    out[len] = '\n';
    out[len + 1] = '\0';
    return len + 1;
}

} // namespace talvo
