// SPDX-License-Identifier: Apache-2.0
// The encoder library's deliberate slowness, read from the environment.
#include "slowdown.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <thread>

namespace kxvendor {
namespace {

// A minute per frame is more than any benchmark waits for.
constexpr uint64_t kMaxMs = 60000;

bool ReadNumber(const char *name, uint64_t max, uint64_t &value)
{
    const char *text = std::getenv(name);
    if (text == nullptr || *text == '\0') {
        return false;
    }
    char *end = nullptr;
    const unsigned long long number = std::strtoull(text, &end, 10);
    if (*end != '\0' || *text == '-' || number > max) {
        std::fprintf(stderr, "libtalvovideoencoder: %s=%s ignored (0 to %llu)\n", name, text,
                     static_cast<unsigned long long>(max));
        return false;
    }
    value = number;
    return true;
}

} // namespace

Slowdown Slowdown::FromEnvironment()
{
    Slowdown s;
    uint64_t number = 0;
    if (ReadNumber("TALVO_VENC_DELAY_MS", kMaxMs, number)) {
        s.delayMs = static_cast<uint32_t>(number);
    }
    (void)ReadNumber("TALVO_VENC_DELAY_FROM", UINT64_MAX, s.delayFrom);
    (void)ReadNumber("TALVO_VENC_DELAY_FRAMES", UINT64_MAX, s.delayFrames);
    if (ReadNumber("TALVO_VENC_STALL_MS", kMaxMs, number)) {
        s.stallMs = static_cast<uint32_t>(number);
    }
    (void)ReadNumber("TALVO_VENC_STALL_AT", UINT64_MAX, s.stallAt);
    return s;
}

void Slowdown::Hold(uint64_t frame) const
{
    uint64_t ms = 0;
    if (frame >= delayFrom && frame - delayFrom < delayFrames) {
        ms += delayMs;
    }
    if (frame == stallAt) {
        ms += stallMs;
    }
    if (ms != 0) {
        std::this_thread::sleep_for(std::chrono::milliseconds(ms));
    }
}

} // namespace kxvendor
