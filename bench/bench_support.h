// SPDX-License-Identifier: Apache-2.0
// Shared pieces of the benchmark programs: process figures, percentiles and
// the plugin with its vendor libraries set up the way a host runs it.
#pragma once

#include <cstdint>
#include <mutex>
#include <condition_variable>
#include <string>
#include <vector>

#include "plugin_host.h"

namespace kxbench {

// Resident set now, and CPU seconds (user + system) of the whole process.
uint64_t RssBytes();
uint64_t PeakRssBytes();
double CpuSeconds();
double Percentile(std::vector<double> values, double fraction);
double Median(std::vector<double> values);

// The encoder's own time per frame: the benchmark's stand-in for
// libtalvovideoencoder.so forwards to the real one and records how long each
// VideoEncoderProcess took, keyed by the frame's time stamp.
class EncoderTimes {
public:
    // Reads the recorder of the stand-in library at path; false if absent.
    bool Attach(const std::string &path);
    // Pairs of (frame time stamp, µs in the encoder) recorded since the last
    // call; valid until the plugin releases its vendor libraries.
    std::vector<std::pair<int64_t, int64_t>> Take();

private:
    using TakeFn = uint64_t (*)(int64_t *, int64_t *, uint64_t);
    TakeFn take_ = nullptr;
};

// Output of one camera: counts units, keeps intake-to-output latencies and
// frees every unit the way the framework does.
class UnitCounter {
public:
    // Room for the latencies of a long run up front, so that the figures
    // kept do not show as the process's memory growth.
    UnitCounter() { latencies_.reserve(size_t{1} << 16); }
    void OnMessage(const camhost::CameraMessage &message);
    // Waits until at least n units arrived; false after timeoutMs.
    bool WaitFor(uint64_t n, int timeoutMs);
    uint64_t Units() const;
    uint64_t Bytes() const;
    // Pairs of (intake time stamp, latency in µs), emptied by the call.
    std::vector<std::pair<int64_t, int64_t>> TakeLatencies();

private:
    mutable std::mutex mutex_;
    std::condition_variable arrived_;
    uint64_t units_ = 0;
    uint64_t bytes_ = 0;
    std::vector<std::pair<int64_t, int64_t>> latencies_;
};

// Build-tree locations, fixed at compile time.
std::string PluginPath();
// The bit rate the plugin configures its encoder with for this size and
// rate, as bench/peers.sh gives it to FFmpeg; 0 if the plugin cannot be asked.
uint32_t PluginBitrate(uint32_t width, uint32_t height, uint32_t fps);
std::string CameraDir();
std::string EncoderShimDir();
std::string EncoderShimPath();

// Points the framework at the virtual camera and the timing stand-in of the
// encoder, with the virtual camera offering `cameras` (TALVO_VCAM_CAMERAS).
void UseBuildTreeVendors(const std::string &cameras);

} // namespace kxbench
