// SPDX-License-Identifier: Apache-2.0
// What the files of the test controls share.
#pragma once

#include <cstdint>

namespace talvo {

void RouteLog(int32_t level, const char *tag, const char *func, bool viaHook);
void CaptureLog(int32_t level, const char *tag, const char *fmt, const char *text);
void StopAndClearLogCapture();

// Every test control calls this first; calls are counted from then on.
void InstallTestHooks();

} // namespace talvo
