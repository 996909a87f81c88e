// SPDX-License-Identifier: Apache-2.0
// Stand-in for libtalvovideoencoder.so in the benchmarks: forwards every call
// to the real encoder library and times VideoEncoderProcess, so that the time
// the plugin adds can be told apart from the time the encoder takes.
#include <dlfcn.h>

#include <chrono>
#include <cstdint>
#include <mutex>
#include <utility>
#include <vector>

#include "kxcamera/video_encoder.h"

namespace {

KxVideoEncoderHandler g_real{};
std::mutex g_lock;
std::vector<std::pair<int64_t, int64_t>> g_samples; // (frame time stamp, µs)

int32_t TimedProcess(void *handle, const KxVencInputFrame *input, uint32_t flags, KxVencOutput *output)
{
    const auto start = std::chrono::steady_clock::now();
    const int32_t status = g_real.VideoEncoderProcess(handle, input, flags, output);
    const auto micros =
        std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::steady_clock::now() - start).count();
    if (input != nullptr) {
        std::lock_guard lock(g_lock);
        g_samples.emplace_back(input->timeStamp, micros);
    }
    return status;
}

} // namespace

extern "C" [[gnu::visibility("default")]] int32_t TALVOGetVideoEncoderHandler(KxVideoEncoderHandler *handler)
{
    static void *real = dlopen(KXBENCH_REAL_ENCODER, RTLD_NOW | RTLD_LOCAL);
    {
        // Reserved once, so that the samples do not show as memory growth.
        std::lock_guard lock(g_lock);
        g_samples.reserve(size_t{1} << 16);
    }
    if (real == nullptr || handler == nullptr) {
        return -1;
    }
    auto getter = reinterpret_cast<int32_t (*)(KxVideoEncoderHandler *)>(dlsym(real, "TALVOGetVideoEncoderHandler"));
    if (getter == nullptr || getter(&g_real) != 0) {
        return -1;
    }
    *handler = g_real;
    handler->VideoEncoderProcess = TimedProcess;
    return 0;
}

// Moves up to capacity samples out; returns how many were written.
extern "C" [[gnu::visibility("default")]] uint64_t KxBenchTakeEncodeTimes(int64_t *stamps, int64_t *micros,
                                                                          uint64_t capacity)
{
    std::lock_guard lock(g_lock);
    const uint64_t n = std::min<uint64_t>(capacity, g_samples.size());
    for (uint64_t i = 0; i < n; ++i) {
        stamps[i] = g_samples[i].first;
        micros[i] = g_samples[i].second;
    }
    g_samples.erase(g_samples.begin(), g_samples.begin() + static_cast<std::ptrdiff_t>(n));
    return n;
}
