// SPDX-License-Identifier: Apache-2.0
// Process figures, percentiles and unit counting for the benchmark programs.
#include "bench_support.h"

#include <dlfcn.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>

#include "talvo/talvo.h"

namespace kxbench {

uint64_t RssBytes()
{
    FILE *file = std::fopen("/proc/self/statm", "r");
    if (file == nullptr) {
        return 0;
    }
    unsigned long size = 0;
    unsigned long resident = 0;
    const int read = std::fscanf(file, "%lu %lu", &size, &resident);
    std::fclose(file);
    return read == 2 ? uint64_t{resident} * static_cast<uint64_t>(sysconf(_SC_PAGESIZE)) : 0;
}

uint64_t PeakRssBytes()
{
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return static_cast<uint64_t>(usage.ru_maxrss) * 1024;
}

double CpuSeconds()
{
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    auto seconds = [](const timeval &t) {
        return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_usec) / 1e6;
    };
    return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

double Percentile(std::vector<double> values, double fraction)
{
    if (values.empty()) {
        return 0;
    }
    std::sort(values.begin(), values.end());
    const auto index = static_cast<size_t>(fraction * static_cast<double>(values.size() - 1) + 0.5);
    return values[std::min(index, values.size() - 1)];
}

double Median(std::vector<double> values)
{
    return Percentile(std::move(values), 0.5);
}

bool EncoderTimes::Attach(const std::string &path)
{
    // The framework loaded the stand-in already; this only finds it again.
    void *library = dlopen(path.c_str(), RTLD_NOW | RTLD_NOLOAD);
    if (library == nullptr) {
        return false;
    }
    take_ = reinterpret_cast<TakeFn>(dlsym(library, "KxBenchTakeEncodeTimes"));
    dlclose(library);
    return take_ != nullptr;
}

std::vector<std::pair<int64_t, int64_t>> EncoderTimes::Take()
{
    std::vector<std::pair<int64_t, int64_t>> samples;
    if (take_ == nullptr) {
        return samples;
    }
    std::vector<int64_t> stamps(1 << 16);
    std::vector<int64_t> micros(stamps.size());
    const uint64_t n = take_(stamps.data(), micros.data(), stamps.size());
    for (uint64_t i = 0; i < n; ++i) {
        samples.emplace_back(stamps[i], micros[i]);
    }
    return samples;
}

void UnitCounter::OnMessage(const camhost::CameraMessage &message)
{
    KxVideoAccessUnit *unit = camhost::TakeVideoUnit(message);
    if (unit == nullptr) {
        return;
    }
    const int64_t now = TALVOSystemTimeUs();
    {
        std::lock_guard lock(mutex_);
        ++units_;
        bytes_ += static_cast<uint64_t>(unit->length);
        latencies_.emplace_back(unit->timeStamp, now - unit->timeStamp);
    }
    arrived_.notify_all();
    camhost::FreeVideoUnit(unit);
}

bool UnitCounter::WaitFor(uint64_t n, int timeoutMs)
{
    std::unique_lock lock(mutex_);
    return arrived_.wait_for(lock, std::chrono::milliseconds(timeoutMs), [&] { return units_ >= n; });
}

uint64_t UnitCounter::Units() const
{
    std::lock_guard lock(mutex_);
    return units_;
}

uint64_t UnitCounter::Bytes() const
{
    std::lock_guard lock(mutex_);
    return bytes_;
}

std::vector<std::pair<int64_t, int64_t>> UnitCounter::TakeLatencies()
{
    std::lock_guard lock(mutex_);
    std::vector<std::pair<int64_t, int64_t>> taken;
    taken.swap(latencies_);
    latencies_.reserve(size_t{1} << 16);
    return taken;
}

std::string PluginPath()
{
    return KXBENCH_PLUGIN_PATH;
}

uint32_t PluginBitrate(uint32_t width, uint32_t height, uint32_t fps)
{
    void *plugin = dlopen(PluginPath().c_str(), RTLD_NOW | RTLD_LOCAL);
    if (plugin == nullptr) {
        return 0;
    }
    auto rate = reinterpret_cast<uint32_t (*)(uint32_t, uint32_t, uint32_t)>(dlsym(plugin, "GetVideoBitrate"));
    const uint32_t bitRate = rate != nullptr ? rate(width, height, fps) : 0;
    dlclose(plugin);
    return bitRate;
}
std::string CameraDir()
{
    return KXBENCH_CAMERA_DIR;
}
std::string EncoderShimDir()
{
    return KXBENCH_SHIM_DIR;
}
std::string EncoderShimPath()
{
    return EncoderShimDir() + "/libtalvovideoencoder.so";
}

void UseBuildTreeVendors(const std::string &cameras)
{
    setenv("TALVO_VENDOR_PATH", (EncoderShimDir() + ":" + CameraDir()).c_str(), 1);
    setenv("TALVO_VCAM_CAMERAS", cameras.c_str(), 1);
    // Only errors: a log line per frame would be part of what is measured.
    setenv("TALVO_LOG_LEVEL", "0", 0);
}

} // namespace kxbench
