// SPDX-License-Identifier: Apache-2.0
// Plugin logging: routes each message to the framework's hook for its level
// or to TALVOLog, and always to TalvoDfxlog.
#pragma once

#include <cstdint>

#include "talvo/talvo.h"

namespace kx {

inline constexpr char kTag[] = "libKXCamera";
inline constexpr char kMediaTag[] = "TALVO_MediaDataProc";

enum LogLevel : int32_t {
    kLogError = 1,
    kLogWarning = 2,
    kLogDebug = 3,
    kLogInfo = 4,
    kLogTrace = 5, // per-frame messages only
};

// Never called: lets the compiler check a format against its arguments.
[[gnu::format(printf, 1, 2)]] inline void CheckFormat(const char *, ...) {}

// The format was checked at the call site (see KX_LOG); what reaches here is
// forwarded unchanged, so the non-literal warnings do not apply.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
#pragma GCC diagnostic ignored "-Wformat-security"
template <typename... Args> void Log(int32_t level, const char *tag, const char *func, const char *fmt, Args... args)
{
    if (level >= kLogError && level <= kLogInfo) {
        TALVOLogHook hook = g_talvoLogFunc[kLogInfo - level];
        if (hook != nullptr) {
            hook(tag, func, fmt, args...);
        } else {
            TALVOLog(level, tag, fmt, args...);
        }
    } else if (level == kLogTrace && g_talvoLogFunc[0] == nullptr) {
        TALVOLog(level, tag, fmt, args...);
    }
    TalvoDfxlog(level, tag, fmt, args...);
}
#pragma GCC diagnostic pop

} // namespace kx

// A message logged on behalf of `func`, for helpers that speak for their caller.
#define KX_LOG_AS(func, level, tag, fmt, ...)                                                                          \
    do {                                                                                                               \
        if (false) {                                                                                                   \
            ::kx::CheckFormat(fmt __VA_OPT__(, ) __VA_ARGS__);                                                         \
        }                                                                                                              \
        ::kx::Log(level, tag, func, fmt __VA_OPT__(, ) __VA_ARGS__);                                                   \
    } while (0)

#define KX_LOG(level, tag, fmt, ...) KX_LOG_AS(__func__, level, tag, fmt __VA_OPT__(, ) __VA_ARGS__)

#define LOGE(fmt, ...) KX_LOG(::kx::kLogError, ::kx::kTag, fmt __VA_OPT__(, ) __VA_ARGS__)
#define LOGW(fmt, ...) KX_LOG(::kx::kLogWarning, ::kx::kTag, fmt __VA_OPT__(, ) __VA_ARGS__)
#define LOGD(fmt, ...) KX_LOG(::kx::kLogDebug, ::kx::kTag, fmt __VA_OPT__(, ) __VA_ARGS__)
#define LOGI(fmt, ...) KX_LOG(::kx::kLogInfo, ::kx::kTag, fmt __VA_OPT__(, ) __VA_ARGS__)
#define LOGT(fmt, ...) KX_LOG(::kx::kLogTrace, ::kx::kTag, fmt __VA_OPT__(, ) __VA_ARGS__)
