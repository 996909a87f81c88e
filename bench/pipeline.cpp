// SPDX-License-Identifier: GPL-2.0-or-later
// The raw road end to end against its bare limit. The same pre-generated NV21
// frames go (A) through the framework layer, the plugin and the x264 encoder
// library, and (B) through libyuv and x264 called directly with the encoder
// library's own settings, interleaved A B A B so that both see the same
// machine. The paced mode runs the virtual camera in real time instead.
// Links x264 for the bare road, hence the licence.
#include <dlfcn.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <CLI/CLI.hpp>
#include <libyuv.h>
#include <nlohmann/json.hpp>

#include "bench_support.h"
#include "pattern.h"
#include "x264_session.h"

namespace {

using Clock = std::chrono::steady_clock;
using kxbench::Median;
using kxbench::Percentile;

constexpr uint32_t kFps = 30;
constexpr int32_t kNegColorNv21 = 2;
constexpr int kOutputTimeoutMs = 10000;
constexpr int kDropPollMs = 20;

struct Size {
    uint32_t width = 0;
    uint32_t height = 0;
    std::string Text() const { return std::to_string(width) + "x" + std::to_string(height); }
    size_t Nv21Bytes() const { return size_t{width} * height * 3 / 2; }
};

bool ParseSize(const std::string &text, Size &size)
{
    unsigned w = 0;
    unsigned h = 0;
    char tail = 0;
    if (std::sscanf(text.c_str(), "%ux%u%c", &w, &h, &tail) != 2 || w < 64 || h < 64 || w % 2 || h % 2) {
        return false;
    }
    size = {w, h};
    return true;
}

struct Options {
    std::vector<std::string> sizes{"1280x720", "1920x1080"};
    uint32_t frames = 200;
    uint32_t rounds = 6;
    uint32_t depth = 4;
    std::string only;        // "plugin" or "bare": one road, one round
    std::string input;       // raw NV21 file instead of generated frames
    std::string writeFrames; // write the generated frames and stop
    double paced = 0;        // seconds of the paced run
    bool twoCameras = false;
    bool printBitrate = false;
};

// The frames of a round, in order: generated once and kept in memory, or
// read from a file frame by frame, as a host streaming from storage would.
class FrameSource {
public:
    static FrameSource Generated(const Size &size, uint32_t count)
    {
        FrameSource source;
        auto generator = kxpattern::PatternGenerator::Create(kxpattern::PixelFormat::kNV21, size.width, size.height);
        for (uint32_t i = 0; generator && i < count; ++i) {
            const auto frame = generator->Frame(i);
            source.frames_.emplace_back(frame.begin(), frame.end());
        }
        source.count_ = source.frames_.size();
        return source;
    }

    static FrameSource Streamed(const std::string &path, const Size &size, uint32_t limit)
    {
        FrameSource source;
        source.file_.open(path, std::ios::binary | std::ios::ate);
        source.buffer_.resize(size.Nv21Bytes());
        const auto bytes = static_cast<size_t>(std::max<std::streamoff>(0, source.file_.tellg()));
        source.count_ = std::min<size_t>(limit, bytes / source.buffer_.size());
        return source;
    }

    size_t count() const { return count_; }

    void Rewind()
    {
        next_ = 0;
        if (file_.is_open()) {
            file_.clear();
            file_.seekg(0);
        }
    }

    // The next frame, valid until the next call; empty when none is left.
    std::span<const uint8_t> Next()
    {
        if (next_ >= count_) {
            return {};
        }
        ++next_;
        if (!file_.is_open()) {
            return frames_[next_ - 1];
        }
        if (!file_.read(reinterpret_cast<char *>(buffer_.data()), std::streamsize(buffer_.size()))) {
            return {};
        }
        return buffer_;
    }

private:
    std::vector<std::vector<uint8_t>> frames_;
    std::ifstream file_;
    std::vector<uint8_t> buffer_;
    size_t count_ = 0;
    size_t next_ = 0;
};

struct RoundFigures {
    double fps = 0;
    double cpuPerFrameMs = 0;
};

// Times one round of n frames, `body` returning false on a failure.
template <typename Body> bool TimeRound(size_t n, RoundFigures &figures, Body body)
{
    const double cpu0 = kxbench::CpuSeconds();
    const auto start = Clock::now();
    if (!body()) {
        return false;
    }
    const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
    figures.fps = static_cast<double>(n) / seconds;
    figures.cpuPerFrameMs = (kxbench::CpuSeconds() - cpu0) * 1000 / static_cast<double>(n);
    return true;
}

// What the plugin is given per size: the raw camera of the virtual camera
// library, negotiated to NV21 and never opened, so that the only frames it
// sees are the ones this program hands to the intake.
class PluginRoad {
public:
    bool Start(std::string &error)
    {
        kxbench::UseBuildTreeVendors("0:raw");
        if (!host_.Load(kxbench::PluginPath()) || !host_.LoadService()) {
            error = host_.error();
            return false;
        }
        void *plugin = dlopen(kxbench::PluginPath().c_str(), RTLD_NOW | RTLD_NOLOAD);
        if (plugin != nullptr) {
            intake_ = reinterpret_cast<IntakeFn>(dlsym(plugin, "OutputCameraDataCB"));
            counters_ = reinterpret_cast<CountersFn>(dlsym(plugin, "KxCameraGetFrameCounters"));
            dlclose(plugin);
        }
        if (intake_ == nullptr || counters_ == nullptr || !encoderTimes_.Attach(kxbench::EncoderShimPath())) {
            error = "the plugin or the encoder stand-in lacks a symbol";
            return false;
        }
        host_.SetCallback(kService, [this](const camhost::CameraMessage &m) { counter_.OnMessage(m); });
        return true;
    }

    bool Configure(const Size &size)
    {
        const nlohmann::json open = {{"Width", size.width},
                                     {"Height", size.height},
                                     {"ColorFormat", kNegColorNv21},
                                     {"CodecType", 0},
                                     {"Fps", kFps}};
        return host_.SetParams(kService, open.dump()) == 0;
    }

    // Feeds every frame with at most `depth` frames inside the plugin.
    bool Run(FrameSource &frames, uint32_t depth, RoundFigures &figures)
    {
        frames.Rewind();
        const size_t n = frames.count();
        const uint64_t base = counter_.Units();
        return TimeRound(n, figures, [&] {
            for (size_t i = 0; i < n; ++i) {
                if (i >= depth && !WaitDone(base + i - depth + 1)) {
                    return false;
                }
                const auto frame = frames.Next();
                if (frame.empty() || intake_("0", 1, frame.data(), static_cast<uint32_t>(frame.size())) != 0) {
                    return false;
                }
            }
            return WaitDone(base + n);
        });
    }

    kxbench::UnitCounter &counter() { return counter_; }
    kxbench::EncoderTimes &encoderTimes() { return encoderTimes_; }

private:
    using IntakeFn = int32_t (*)(const char *, uint32_t, const uint8_t *, uint32_t);
    using CountersFn = int32_t (*)(const KxServiceIdDesc *, KxCameraFrameCounters *);
    static constexpr char kService[] = "Camera_0";

    // Until `n` frames came out or were dropped: a feeder stalled by a busy
    // machine may see the plugin drop a frame that waited too long.
    bool WaitDone(uint64_t n)
    {
        const KxServiceIdDesc id{kService, sizeof(kService) - 1, 1};
        for (int waited = 0; waited < kOutputTimeoutMs; waited += kDropPollMs) {
            KxCameraFrameCounters c{};
            const uint64_t dropped = counters_(&id, &c) == 0 ? c.droppedOverload + c.droppedError : 0;
            if (counter_.WaitFor(n > dropped ? n - dropped : 0, kDropPollMs)) {
                return true;
            }
        }
        return false;
    }

    camhost::PluginHost host_;
    kxbench::UnitCounter counter_;
    kxbench::EncoderTimes encoderTimes_;
    IntakeFn intake_ = nullptr;
    CountersFn counters_ = nullptr;
};

// The bare limit: one conversion into a buffer kept across frames, then x264
// with the settings the encoder library uses for the same stream.
class BareRoad {
public:
    bool Configure(const Size &size, uint32_t bitRate)
    {
        size_ = size;
        i420_.assign(size.Nv21Bytes(), 0);
        return session_.Open(
                   kxvendor::CameraStreamSettings(size.width, size.height, X264_CSP_I420, kFps, bitRate, bitRate)) == 0;
    }

    bool Run(FrameSource &frames, RoundFigures &figures)
    {
        frames.Rewind();
        const size_t n = frames.count();
        const int w = static_cast<int>(size_.width);
        const int h = static_cast<int>(size_.height);
        const size_t luma = size_t{size_.width} * size_.height;
        uint8_t *y = i420_.data();
        uint8_t *u = y + luma;
        uint8_t *v = u + luma / 4;
        return TimeRound(n, figures, [&] {
            for (size_t i = 0; i < n; ++i) {
                const auto frame = frames.Next();
                if (frame.empty() ||
                    libyuv::NV21ToI420(frame.data(), w, frame.data() + luma, w, y, w, u, w / 2, v, w / 2, w, h) != 0 ||
                    session_.Encode(i420_, false, au_) != 0) {
                    return false;
                }
            }
            return true;
        });
    }

private:
    Size size_;
    std::vector<uint8_t> i420_;
    std::vector<uint8_t> au_;
    kxvendor::X264Session session_;
};

struct Latency {
    std::vector<double> totalMs;
    std::vector<double> addedMs; // total minus the encoder's own time
};

Latency CollectLatency(kxbench::UnitCounter &counter, kxbench::EncoderTimes &encoderTimes)
{
    std::map<int64_t, int64_t> encodeUs;
    for (const auto &[stamp, micros] : encoderTimes.Take()) {
        encodeUs.emplace(stamp, micros);
    }
    Latency latency;
    for (const auto &[stamp, micros] : counter.TakeLatencies()) {
        latency.totalMs.push_back(static_cast<double>(micros) / 1000);
        const auto found = encodeUs.find(stamp);
        if (found != encodeUs.end()) {
            latency.addedMs.push_back(static_cast<double>(micros - found->second) / 1000);
        }
    }
    return latency;
}

double MedianOf(const std::vector<RoundFigures> &rounds, double RoundFigures::*field)
{
    std::vector<double> values;
    for (const auto &round : rounds) {
        values.push_back(round.*field);
    }
    return Median(values);
}

int RunInterleaved(const Options &opt)
{
    PluginRoad plugin;
    std::string error;
    if (opt.only != "bare" && !plugin.Start(error)) {
        std::fprintf(stderr, "pipeline: %s\n", error.c_str());
        return 1;
    }
    std::vector<std::string> summary;
    for (const auto &text : opt.sizes) {
        Size size;
        if (!ParseSize(text, size)) {
            std::fprintf(stderr, "pipeline: bad size '%s'\n", text.c_str());
            return 2;
        }
        FrameSource frames = opt.input.empty() ? FrameSource::Generated(size, opt.frames)
                                               : FrameSource::Streamed(opt.input, size, opt.frames);
        if (frames.count() == 0) {
            std::fprintf(stderr, "pipeline: no frames of %s\n", text.c_str());
            return 1;
        }
        // The bit rate the plugin asks of its encoder for this size.
        const uint32_t bitRate = kxbench::PluginBitrate(size.width, size.height, kFps);
        BareRoad bare;
        if (bitRate == 0 || (opt.only != "bare" && !plugin.Configure(size)) ||
            (opt.only != "plugin" && !bare.Configure(size, bitRate))) {
            std::fprintf(stderr, "pipeline: cannot set up %s\n", text.c_str());
            return 1;
        }
        std::vector<RoundFigures> a;
        std::vector<RoundFigures> b;
        std::vector<uint64_t> rssAfterA;
        const uint32_t rounds = opt.only.empty() ? opt.rounds : 1;
        for (uint32_t round = 0; round < rounds; ++round) {
            RoundFigures figures;
            if (opt.only != "bare") {
                if (!plugin.Run(frames, opt.depth, figures)) {
                    std::fprintf(stderr, "pipeline: plugin road stalled at %s\n", text.c_str());
                    return 1;
                }
                a.push_back(figures);
                rssAfterA.push_back(kxbench::RssBytes());
            }
            if (opt.only != "plugin") {
                if (!bare.Run(frames, figures)) {
                    std::fprintf(stderr, "pipeline: bare road failed at %s\n", text.c_str());
                    return 1;
                }
                b.push_back(figures);
            }
            std::fprintf(stderr, "%s round %u:%s%s\n", text.c_str(), round + 1,
                         a.empty() ? "" : (" plugin " + std::to_string(a.back().fps) + " fps").c_str(),
                         b.empty() ? "" : (" bare " + std::to_string(b.back().fps) + " fps").c_str());
        }
        std::printf("%s, %zu frames x %u rounds, x264 bit rate %u:\n", text.c_str(), frames.count(), rounds, bitRate);
        if (!a.empty()) {
            const Latency latency = CollectLatency(plugin.counter(), plugin.encoderTimes());
            std::printf("  plugin: %.1f fps, %.3f ms CPU/frame, latency p50 %.2f ms p99 %.2f ms, "
                        "added p50 %.2f ms p99 %.2f ms, RSS %.1f MB after first round, %.1f MB after last\n",
                        MedianOf(a, &RoundFigures::fps), MedianOf(a, &RoundFigures::cpuPerFrameMs),
                        Percentile(latency.totalMs, 0.5), Percentile(latency.totalMs, 0.99),
                        Percentile(latency.addedMs, 0.5), Percentile(latency.addedMs, 0.99),
                        static_cast<double>(rssAfterA.front()) / 1e6, static_cast<double>(rssAfterA.back()) / 1e6);
        }
        if (!b.empty()) {
            std::printf("  bare:   %.1f fps, %.3f ms CPU/frame\n", MedianOf(b, &RoundFigures::fps),
                        MedianOf(b, &RoundFigures::cpuPerFrameMs));
        }
        if (!a.empty() && !b.empty()) {
            const double pa = MedianOf(a, &RoundFigures::fps);
            const double pb = MedianOf(b, &RoundFigures::fps);
            char line[200];
            std::snprintf(line, sizeof(line),
                          "pipeline %s: plugin/bare fps ratio %.2f (plugin %.1f fps, bare %.1f fps)", text.c_str(),
                          pa / pb, pa, pb);
            summary.emplace_back(line);
        }
    }
    std::printf("peak RSS %.1f MB\n", static_cast<double>(kxbench::PeakRssBytes()) / 1e6);
    for (const auto &line : summary) {
        std::printf("%s\n", line.c_str());
    }
    return 0;
}

int WriteFrames(const Options &opt)
{
    Size size;
    if (opt.sizes.size() != 1 || !ParseSize(opt.sizes.front(), size)) {
        std::fprintf(stderr, "pipeline: --write-frames takes exactly one --sizes entry\n");
        return 2;
    }
    std::ofstream out(opt.writeFrames, std::ios::binary | std::ios::trunc);
    auto generator = kxpattern::PatternGenerator::Create(kxpattern::PixelFormat::kNV21, size.width, size.height);
    for (uint32_t i = 0; out && generator && i < opt.frames; ++i) {
        const auto frame = generator->Frame(i);
        out.write(reinterpret_cast<const char *>(frame.data()), std::streamsize(frame.size()));
    }
    return out ? 0 : 1;
}

// The virtual camera in real time: what the plugin adds to each frame's way
// and what the process costs while it runs.
int RunPaced(const Options &opt)
{
    Size size;
    if (opt.sizes.empty() || !ParseSize(opt.sizes.front(), size)) {
        std::fprintf(stderr, "pipeline: bad size\n");
        return 2;
    }
    kxbench::UseBuildTreeVendors(opt.twoCameras ? "0:raw,1:h264" : "0:raw");
    camhost::PluginHost host;
    kxbench::EncoderTimes encoderTimes;
    if (!host.Load(kxbench::PluginPath()) || !host.LoadService() || !encoderTimes.Attach(kxbench::EncoderShimPath())) {
        std::fprintf(stderr, "pipeline: %s\n", host.error().c_str());
        return 1;
    }
    struct Camera {
        Camera(std::string s, int codec) : service(std::move(s)), codecType(codec) {}
        std::string service;
        int codecType;
        kxbench::UnitCounter counter;
    };
    std::vector<std::unique_ptr<Camera>> cameras;
    cameras.push_back(std::make_unique<Camera>("Camera_0", 0));
    if (opt.twoCameras) {
        cameras.push_back(std::make_unique<Camera>("Camera_1", 1));
    }
    for (auto &camera : cameras) {
        Camera *raw = camera.get();
        host.SetCallback(camera->service, [raw](const camhost::CameraMessage &m) { raw->counter.OnMessage(m); });
        const nlohmann::json open = {{"Width", size.width},
                                     {"Height", size.height},
                                     {"ColorFormat", kNegColorNv21},
                                     {"CodecType", camera->codecType},
                                     {"Fps", kFps}};
        if (host.SetParams(camera->service, open.dump()) != 0 || host.Open(camera->service) != 0) {
            std::fprintf(stderr, "pipeline: %s did not open\n", camera->service.c_str());
            return 1;
        }
    }
    const auto start = Clock::now();
    const double cpu0 = kxbench::CpuSeconds();
    std::vector<std::pair<double, uint64_t>> rss;
    // Warm-up: the first seconds fill the encoder and the allocator's pools.
    const double warmUp = std::min(10.0, opt.paced / 5);
    double cpuAfterWarmUp = cpu0;
    double next = 1;
    for (;;) {
        std::this_thread::sleep_until(start + std::chrono::duration<double>(next));
        const double t = std::chrono::duration<double>(Clock::now() - start).count();
        rss.emplace_back(t, kxbench::RssBytes());
        if (t >= warmUp && cpuAfterWarmUp == cpu0) {
            cpuAfterWarmUp = kxbench::CpuSeconds();
        }
        if (t >= opt.paced) {
            break;
        }
        next += 1;
    }
    const double wall = std::chrono::duration<double>(Clock::now() - start).count();
    const double cpu = kxbench::CpuSeconds();
    for (auto &camera : cameras) {
        host.Close(camera->service);
    }
    // The encoder stand-in goes with the release; its figures are read first.
    std::vector<Latency> latencies;
    for (auto &camera : cameras) {
        latencies.push_back(CollectLatency(camera->counter, encoderTimes));
    }
    host.Release();

    std::printf("paced %s at %u fps for %.0f s:\n", size.Text().c_str(), kFps, wall);
    for (size_t i = 0; i < cameras.size(); ++i) {
        const Camera &camera = *cameras[i];
        const Latency &latency = latencies[i];
        const auto units = static_cast<unsigned long long>(camera.counter.Units());
        if (camera.codecType == 0) {
            std::printf("  %s raw, encoded here: %llu units, latency p50 %.2f ms p99 %.2f ms, "
                        "added p50 %.2f ms p99 %.2f ms\n",
                        camera.service.c_str(), units, Percentile(latency.totalMs, 0.5),
                        Percentile(latency.totalMs, 0.99), Percentile(latency.addedMs, 0.5),
                        Percentile(latency.addedMs, 0.99));
        } else {
            std::printf("  %s pass-through: %llu units, intake to output p50 %.3f ms p99 %.3f ms\n",
                        camera.service.c_str(), units, Percentile(latency.totalMs, 0.5),
                        Percentile(latency.totalMs, 0.99));
        }
    }
    std::printf("  CPU %.1f %% of one core (%.1f %% after warm-up)\n", (cpu - cpu0) / wall * 100,
                (cpu - cpuAfterWarmUp) / (wall - warmUp) * 100);
    uint64_t warm = 0;
    uint64_t peak = 0;
    for (const auto &[t, bytes] : rss) {
        if (t >= warmUp && warm == 0) {
            warm = bytes;
        }
        peak = std::max(peak, bytes);
    }
    std::printf("  RSS over time (MB):");
    const size_t step = std::max<size_t>(1, rss.size() / 20);
    for (size_t i = 0; i < rss.size(); i += step) {
        std::printf(" %.0fs:%.1f", rss[i].first, static_cast<double>(rss[i].second) / 1e6);
    }
    std::printf("\n  RSS after warm-up %.1f MB, at end %.1f MB (%+.1f MB), peak %.1f MB\n",
                static_cast<double>(warm) / 1e6, static_cast<double>(rss.back().second) / 1e6,
                (static_cast<double>(rss.back().second) - static_cast<double>(warm)) / 1e6,
                static_cast<double>(peak) / 1e6);
    return 0;
}

} // namespace

int main(int argc, char **argv)
{
    Options opt;
    CLI::App app{"The plugin's raw road against libyuv + x264 called directly"};
    app.add_option("--sizes", opt.sizes, "frame sizes, WxH, comma separated")->delimiter(',');
    app.add_option("--frames", opt.frames, "frames per round")->check(CLI::Range(1u, 100000u));
    app.add_option("--rounds", opt.rounds, "A B rounds")->check(CLI::Range(1u, 1000u));
    app.add_option("--depth", opt.depth, "frames inside the plugin at most")->check(CLI::Range(1u, 64u));
    app.add_option("--only", opt.only, "run one road once")->check(CLI::IsMember({"plugin", "bare"}));
    app.add_option("--input", opt.input, "raw NV21 frames of the one size given")->check(CLI::ExistingFile);
    app.add_option("--write-frames", opt.writeFrames, "write the generated NV21 frames to this file and stop");
    app.add_option("--paced", opt.paced, "seconds of a real-time run of the virtual camera instead")
        ->check(CLI::Range(1.0, 3600.0));
    app.add_flag("--two-cameras", opt.twoCameras, "paced run: a pass-through H.264 camera beside the raw one");
    app.add_flag("--print-bitrate", opt.printBitrate, "print the bit rate (kbit/s) the plugin asks for the one size");
    CLI11_PARSE(app, argc, argv);
    if (opt.printBitrate) {
        Size size;
        if (opt.sizes.size() != 1 || !ParseSize(opt.sizes.front(), size) ||
            kxbench::PluginBitrate(size.width, size.height, kFps) == 0) {
            return 2;
        }
        std::printf("%u\n", kxbench::PluginBitrate(size.width, size.height, kFps) / 1000);
        return 0;
    }
    if (!opt.writeFrames.empty()) {
        return WriteFrames(opt);
    }
    return opt.paced > 0 ? RunPaced(opt) : RunInterleaved(opt);
}
