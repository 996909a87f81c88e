// SPDX-License-Identifier: Apache-2.0
// The raw road when the encoder cannot keep up. Frames are fed at a paced
// 30 fps, as a camera delivers them, through the framework layer, the plugin
// and the reference encoder library, which its own environment knob slows
// down: to 2x or 4x its capacity for a while, or into one long stall. Each
// scenario runs in a process of its own, so that its memory is its own. The
// capacity run counts the cameras the plugin keeps at full rate against as
// many FFmpeg processes fed the same way.
#include <dlfcn.h>
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdarg>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <mutex>
#include <span>
#include <string>
#include <thread>
#include <vector>

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include "bench_support.h"
#include "pattern.h"
#include "talvo/talvo.h"

extern char **environ;

namespace {

using Clock = std::chrono::steady_clock;
using kxbench::Percentile;

constexpr uint32_t kFps = 30;
constexpr int64_t kIntervalUs = 1000000 / kFps;
constexpr int32_t kNegColorNv21 = 2;
// One second of distinct frames, cycled: enough for x264 to see motion.
constexpr size_t kDistinctFrames = kFps;
constexpr int kDrainTimeoutMs = 20000;
// FFmpeg reads up to 5 MB ahead to probe its input, 4 frames at 720p.
constexpr uint64_t kFfmpegStartFrames = 6;
// The plugin's encoder library offers at most this many instances.
constexpr uint32_t kMaxCameras = 16;

struct Options {
    std::string run = "all"; // all, none, overload, stall, capacity
    uint32_t width = 1280;
    uint32_t height = 720;
    double warmUp = 5;
    double overload = 60;
    double recovery = 5;
    std::vector<uint32_t> factors{2, 4};
    uint32_t factor = 2;
    uint32_t stallMs = 2000;
    double encodeMs = 0; // the encoder's own time per frame, for the delay
    double capacitySeconds = 10;
    uint32_t cameras = 0; // --run capacity: one probe of this many, or 0 for the whole search
    std::string self;     // this program, for the child processes
    std::string outputDir = ".";
};

std::string SizeText(const Options &opt)
{
    return std::to_string(opt.width) + "x" + std::to_string(opt.height);
}
size_t FrameBytes(const Options &opt)
{
    return size_t{opt.width} * opt.height * 3 / 2;
}

std::vector<std::vector<uint8_t>> MakeFrames(const Options &opt)
{
    std::vector<std::vector<uint8_t>> frames;
    auto generator = kxpattern::PatternGenerator::Create(kxpattern::PixelFormat::kNV21, opt.width, opt.height);
    for (size_t i = 0; generator && i < kDistinctFrames; ++i) {
        const auto frame = generator->Frame(static_cast<uint32_t>(i));
        frames.emplace_back(frame.begin(), frame.end());
    }
    return frames;
}

void SetEnv(const char *name, uint64_t value)
{
    setenv(name, std::to_string(value).c_str(), 1);
}

void ClearSlowdown()
{
    for (const char *name : {"TALVO_VENC_DELAY_MS", "TALVO_VENC_DELAY_FROM", "TALVO_VENC_DELAY_FRAMES",
                             "TALVO_VENC_STALL_MS", "TALVO_VENC_STALL_AT"}) {
        unsetenv(name);
    }
}

// What left the plugin for one camera: each unit's intake stamp and the time
// it came out, and optionally its bytes in an Annex B file.
class Sink {
public:
    struct Unit {
        int64_t stampUs;
        int64_t outUs;
    };

    explicit Sink(const std::string &path)
    {
        units_.reserve(size_t{1} << 16);
        if (!path.empty()) {
            file_ = std::fopen(path.c_str(), "wb");
        }
    }
    ~Sink() { Close(); }
    Sink(const Sink &) = delete;
    Sink &operator=(const Sink &) = delete;

    void OnMessage(const camhost::CameraMessage &message)
    {
        KxVideoAccessUnit *unit = camhost::TakeVideoUnit(message);
        if (unit == nullptr) {
            return;
        }
        const int64_t now = TALVOSystemTimeUs();
        {
            std::lock_guard lock(mutex_);
            units_.push_back({unit->timeStamp, now});
            if (file_ != nullptr) {
                std::fwrite(unit->data, 1, static_cast<size_t>(unit->length), file_);
            }
        }
        camhost::FreeVideoUnit(unit);
    }

    size_t Count() const
    {
        std::lock_guard lock(mutex_);
        return units_.size();
    }

    std::vector<Unit> Units() const
    {
        std::lock_guard lock(mutex_);
        return units_;
    }

    void Close()
    {
        std::lock_guard lock(mutex_);
        if (file_ != nullptr) {
            std::fclose(file_);
            file_ = nullptr;
        }
    }

private:
    mutable std::mutex mutex_;
    std::vector<Unit> units_;
    FILE *file_ = nullptr;
};

// The plugin as a host runs it, with raw cameras "0".."N-1" of the virtual
// camera, negotiated and never opened: the only frames are the ones fed here.
class Plugin {
public:
    bool Start(const Options &opt, uint32_t cameras, const std::string &outputPath, std::string &error)
    {
        std::string list;
        for (uint32_t i = 0; i < cameras; ++i) {
            list += (i == 0 ? "" : ",") + std::to_string(i) + ":raw";
        }
        kxbench::UseBuildTreeVendors(list);
        if (!host_.Load(kxbench::PluginPath()) || !host_.LoadService()) {
            error = host_.error();
            return false;
        }
        void *plugin = dlopen(kxbench::PluginPath().c_str(), RTLD_NOW | RTLD_NOLOAD);
        if (plugin != nullptr) {
            intake_ = reinterpret_cast<IntakeFn>(dlsym(plugin, "OutputCameraDataCB"));
            counters_ = reinterpret_cast<CountersFn>(dlsym(plugin, "KxCameraGetFrameCounters"));
            const auto *frames = static_cast<const int32_t *>(dlsym(plugin, "VENC_QUEUE_MAX_FRAMES"));
            const auto *bytes = static_cast<const int32_t *>(dlsym(plugin, "VENC_QUEUE_MAX_BYTES"));
            if (frames != nullptr && bytes != nullptr) {
                queueCapBytes_ = std::min<uint64_t>(uint64_t(*frames) * FrameBytes(opt), uint64_t(*bytes));
            }
            dlclose(plugin);
        }
        if (intake_ == nullptr || counters_ == nullptr || queueCapBytes_ == 0 ||
            !encoderTimes_.Attach(kxbench::EncoderShimPath())) {
            error = "the plugin or the encoder stand-in lacks a symbol";
            return false;
        }
        const nlohmann::json params = {{"Width", opt.width},
                                       {"Height", opt.height},
                                       {"ColorFormat", kNegColorNv21},
                                       {"CodecType", 0},
                                       {"Fps", kFps}};
        for (uint32_t i = 0; i < cameras; ++i) {
            sinks_.push_back(std::make_unique<Sink>(i == 0 ? outputPath : std::string()));
            Sink *sink = sinks_.back().get();
            const std::string service = "Camera_" + std::to_string(i);
            host_.SetCallback(service, [sink](const camhost::CameraMessage &m) { sink->OnMessage(m); });
            if (host_.SetParams(service, params.dump()) != 0) {
                error = service + " refused its parameters";
                return false;
            }
        }
        return true;
    }

    bool Feed(uint32_t camera, std::span<const uint8_t> frame)
    {
        const std::string id = std::to_string(camera);
        return intake_(id.c_str(), static_cast<uint32_t>(id.size()), frame.data(),
                       static_cast<uint32_t>(frame.size())) == 0;
    }

    KxCameraFrameCounters Counters(uint32_t camera)
    {
        const std::string id = "Camera_" + std::to_string(camera);
        const KxServiceIdDesc index{id.c_str(), static_cast<uint32_t>(id.size()), 1};
        KxCameraFrameCounters counters{};
        (void)counters_(&index, &counters);
        return counters;
    }

    // Waits until every frame taken has been encoded or dropped, and every
    // encoded unit has reached its sink.
    bool Drain()
    {
        const auto deadline = Clock::now() + std::chrono::milliseconds(kDrainTimeoutMs);
        for (uint32_t i = 0; i < sinks_.size(); ++i) {
            for (;;) {
                const KxCameraFrameCounters c = Counters(i);
                if (c.framesEncoded + c.droppedOverload + c.droppedError == c.framesIn &&
                    sinks_[i]->Count() >= c.framesEncoded) {
                    break;
                }
                if (Clock::now() > deadline) {
                    return false;
                }
                std::this_thread::sleep_for(std::chrono::milliseconds(10));
            }
        }
        return true;
    }

    // Encoder times, keyed by frame stamp; read before Release.
    std::map<int64_t, int64_t> EncodeUs()
    {
        std::map<int64_t, int64_t> times;
        for (const auto &[stamp, micros] : encoderTimes_.Take()) {
            times.emplace(stamp, micros);
        }
        return times;
    }

    Sink &sink(uint32_t camera) { return *sinks_[camera]; }
    uint64_t queueCapBytes() const { return queueCapBytes_; }
    void Release()
    {
        host_.Release();
        for (auto &sink : sinks_) {
            sink->Close();
        }
    }

private:
    using IntakeFn = int32_t (*)(const char *, uint32_t, const uint8_t *, uint32_t);
    using CountersFn = int32_t (*)(const KxServiceIdDesc *, KxCameraFrameCounters *);

    camhost::PluginHost host_;
    kxbench::EncoderTimes encoderTimes_;
    std::vector<std::unique_ptr<Sink>> sinks_;
    IntakeFn intake_ = nullptr;
    CountersFn counters_ = nullptr;
    uint64_t queueCapBytes_ = 0;
};

struct RssSample {
    int64_t us;
    uint64_t bytes;
};

// Feeds `perCamera` frames to each camera at 30 fps, the cameras spread
// evenly over the interval. Returns camera 0's feed times (taken just before
// its intake stamps them) and the resident set every 100 ms.
bool FeedPaced(Plugin &plugin, const std::vector<std::vector<uint8_t>> &frames, uint32_t cameras, uint64_t perCamera,
               std::vector<int64_t> &feedUs, std::vector<RssSample> &rss)
{
    const auto start = Clock::now();
    const uint64_t ticks = perCamera * cameras;
    feedUs.reserve(perCamera);
    rss.reserve(perCamera / 3 + 1);
    for (uint64_t tick = 0; tick < ticks; ++tick) {
        std::this_thread::sleep_until(start + std::chrono::microseconds(tick * kIntervalUs / cameras));
        const auto camera = static_cast<uint32_t>(tick % cameras);
        const uint64_t index = tick / cameras;
        if (camera == 0) {
            feedUs.push_back(TALVOSystemTimeUs());
            if (index % 3 == 0) {
                rss.push_back({feedUs.back(), kxbench::RssBytes()});
            }
        }
        if (!plugin.Feed(camera, frames[index % frames.size()])) {
            return false;
        }
    }
    return true;
}

// Runs ffprobe on the written stream; true when it decodes `units` frames
// and reports nothing else.
bool Decodes(const std::string &path, size_t units, std::string &report)
{
    const std::string command = "ffprobe -v error -count_frames -select_streams v:0 -show_entries "
                                "stream=nb_read_frames -of csv=p=0 '" +
                                path + "' 2>&1";
    FILE *pipe = popen(command.c_str(), "r");
    if (pipe == nullptr) {
        report = "ffprobe did not run";
        return false;
    }
    char buffer[256];
    while (std::fgets(buffer, sizeof(buffer), pipe) != nullptr) {
        report += buffer;
    }
    const int status = pclose(pipe);
    while (!report.empty() && report.back() == '\n') {
        report.pop_back();
    }
    return status == 0 && report == std::to_string(units);
}

void Target(const char *scenario, const std::string &what, bool met)
{
    std::printf("target %s: %s: %s\n", scenario, what.c_str(), met ? "met" : "not met");
}

[[gnu::format(printf, 1, 2)]] std::string Format(const char *format, ...)
{
    char text[256];
    va_list args;
    va_start(args, format);
    std::vsnprintf(text, sizeof(text), format, args);
    va_end(args);
    return text;
}

double Intervals(int64_t us)
{
    return static_cast<double>(us) / kIntervalUs;
}
double Mb(uint64_t bytes)
{
    return static_cast<double>(bytes) / 1e6;
}

// What one camera's run left behind, read before the plugin is released.
struct Recording {
    KxCameraFrameCounters counters{};
    std::map<int64_t, int64_t> encodeUs; // the encoder's own time, by frame stamp
    std::vector<Sink::Unit> units;
    std::vector<int64_t> feedUs;
    std::vector<RssSample> rss;
    uint64_t queueCapBytes = 0;
};

bool Record(const Options &opt, uint64_t frameCount, const std::string &stream, Recording &out)
{
    const auto frames = MakeFrames(opt);
    Plugin plugin;
    std::string error;
    if (frames.empty() || !plugin.Start(opt, 1, stream, error)) {
        std::fprintf(stderr, "overload: %s\n", error.c_str());
        return false;
    }
    if (!FeedPaced(plugin, frames, 1, frameCount, out.feedUs, out.rss) || !plugin.Drain()) {
        std::fprintf(stderr, "overload: the plugin refused a frame or did not drain\n");
        return false;
    }
    out.rss.push_back({TALVOSystemTimeUs(), kxbench::RssBytes()});
    out.counters = plugin.Counters(0);
    out.encodeUs = plugin.EncodeUs();
    out.units = plugin.sink(0).Units();
    out.queueCapBytes = plugin.queueCapBytes();
    plugin.Release();
    return true;
}

struct Figures {
    uint64_t fed = 0;       // frames fed during the event
    uint64_t delivered = 0; // of those, delivered
    int64_t longestOutGapUs = 0;
    uint64_t longestMissing = 0; // frames missing in a row
    std::vector<double> addedMs; // over the event and the second after it
    double encodeMs = 0;         // median encoder time during the event
    double recoveryS = -1;       // from the event's end to full rate; < 0 never
    uint64_t rssStart = 0;
    uint64_t rssPeak = 0;
    uint64_t rssSettled = 0; // 5 s into the event
    uint64_t rssSettledPeak = 0;

    double Share() const { return fed == 0 ? 0 : 100.0 * static_cast<double>(delivered) / static_cast<double>(fed); }
};

Figures Analyse(const Recording &r, int64_t eventStart, int64_t eventEnd)
{
    Figures f;
    // A feed time falls between two stamps exactly when that frame went in
    // between them: feeds are timed just before the intake stamps a frame.
    auto fedBetween = [&](int64_t from, int64_t to) {
        return static_cast<uint64_t>(std::lower_bound(r.feedUs.begin(), r.feedUs.end(), to) -
                                     std::upper_bound(r.feedUs.begin(), r.feedUs.end(), from));
    };
    const auto &units = r.units;
    std::vector<double> eventEncodeMs;
    size_t fullRateFrom = units.size();
    for (size_t i = 0; i < units.size(); ++i) {
        const auto &unit = units[i];
        const uint64_t missing = i == 0 ? 0 : fedBetween(units[i - 1].stampUs, unit.stampUs) - 1;
        if (missing != 0 || fullRateFrom == units.size()) {
            fullRateFrom = unit.outUs >= eventEnd ? i : units.size();
        }
        const bool inEvent = unit.stampUs >= eventStart && unit.stampUs < eventEnd;
        if (inEvent) {
            ++f.delivered;
            f.longestMissing = std::max(f.longestMissing, missing);
        }
        if (i > 0 && unit.outUs > eventStart && unit.outUs <= eventEnd) {
            f.longestOutGapUs = std::max(f.longestOutGapUs, unit.outUs - units[i - 1].outUs);
        }
        const auto found = r.encodeUs.find(unit.stampUs);
        if (found == r.encodeUs.end()) {
            continue;
        }
        if (unit.stampUs >= eventStart && unit.stampUs < eventEnd + 1000000) {
            f.addedMs.push_back(static_cast<double>(unit.outUs - unit.stampUs - found->second) / 1000);
        }
        if (inEvent) {
            eventEncodeMs.push_back(static_cast<double>(found->second) / 1000);
        }
    }
    f.fed = fedBetween(eventStart - 1, eventEnd);
    f.encodeMs = kxbench::Median(eventEncodeMs);
    // Back at full rate once every frame is delivered again, for at least
    // half a second before the run ends.
    if (fullRateFrom < units.size() && units.back().outUs - units[fullRateFrom].outUs >= 500000) {
        f.recoveryS = static_cast<double>(std::max<int64_t>(0, units[fullRateFrom].outUs - eventEnd)) / 1e6;
    }
    f.rssStart = r.rss.front().bytes;
    for (const auto &sample : r.rss) {
        f.rssStart = sample.us <= eventStart ? sample.bytes : f.rssStart;
        f.rssPeak = std::max(f.rssPeak, sample.bytes);
        if (sample.us >= eventStart + 5000000 && sample.us <= eventEnd) {
            f.rssSettled = f.rssSettled == 0 ? sample.bytes : f.rssSettled;
            f.rssSettledPeak = std::max(f.rssSettledPeak, sample.bytes);
        }
    }
    return f;
}

// One camera through one scenario: a warm-up at full rate, then the encoder
// slowed to `factor` times its capacity for a while or stalled once, then a
// recovery at full rate. Returns 0, or 1 when the run itself failed.
int RunScenario(const Options &opt)
{
    const bool overload = opt.run == "overload";
    const bool stall = opt.run == "stall";
    const auto warmUpFrames = static_cast<uint64_t>(opt.warmUp * kFps);
    const double eventSeconds = overload ? opt.overload : stall ? opt.stallMs / 1000.0 : 0;
    ClearSlowdown();
    uint32_t delayMs = 0;
    if (overload) {
        // The encoder's time per frame becomes factor intervals.
        const double slowMs = opt.factor * kIntervalUs / 1000.0;
        delayMs = static_cast<uint32_t>(std::max(1L, std::lround(slowMs - opt.encodeMs)));
        SetEnv("TALVO_VENC_DELAY_MS", delayMs);
        SetEnv("TALVO_VENC_DELAY_FROM", warmUpFrames);
        SetEnv("TALVO_VENC_DELAY_FRAMES", static_cast<uint64_t>(opt.overload * 1000 / slowMs));
    } else if (stall) {
        SetEnv("TALVO_VENC_STALL_MS", opt.stallMs);
        SetEnv("TALVO_VENC_STALL_AT", warmUpFrames);
    }
    const std::string name = overload ? std::to_string(opt.factor) + "x" : opt.run;
    const std::string stream = opt.outputDir + "/overload-" + name + ".h264";
    Recording r;
    if (!Record(opt, warmUpFrames + static_cast<uint64_t>((eventSeconds + opt.recovery) * kFps), stream, r)) {
        return 1;
    }

    // The event runs from the first held-up encode's start to the last one's
    // end, as the encoder's own times show.
    int64_t eventStart = 0;
    int64_t eventEnd = 0;
    if (overload || stall) {
        const int64_t slowUs = overload ? int64_t{delayMs} * 500 : int64_t{opt.stallMs} * 500;
        for (const auto &unit : r.units) {
            const auto found = r.encodeUs.find(unit.stampUs);
            if (found != r.encodeUs.end() && found->second >= slowUs) {
                eventStart = eventStart == 0 ? unit.outUs - found->second : eventStart;
                eventEnd = unit.outUs;
            }
        }
        if (eventEnd == 0) {
            std::fprintf(stderr, "overload: the encoder was never held up; is the slow-down knob read?\n");
            return 1;
        }
    } else {
        eventStart = r.feedUs[std::min<size_t>(warmUpFrames, r.feedUs.size() - 1)];
        eventEnd = r.units.empty() ? eventStart : r.units.back().outUs;
    }
    const Figures f = Analyse(r, eventStart, eventEnd);
    const double p99 = Percentile(f.addedMs, 0.99);

    std::printf("scenario %s, %s at %u fps: %.0f s warm-up, %.1f s %s, %.0f s after\n", name.c_str(),
                SizeText(opt).c_str(), kFps, opt.warmUp, static_cast<double>(eventEnd - eventStart) / 1e6,
                overload ? Format("at %ux the encoder's capacity (+%u ms per frame)", opt.factor, delayMs).c_str()
                : stall  ? "of encoder stall"
                         : "at full rate",
                opt.recovery);
    std::printf("  frames: %llu in, %llu encoded, %llu dropped for overload, %llu dropped for errors\n",
                static_cast<unsigned long long>(r.counters.framesIn),
                static_cast<unsigned long long>(r.counters.framesEncoded),
                static_cast<unsigned long long>(r.counters.droppedOverload),
                static_cast<unsigned long long>(r.counters.droppedError));
    std::printf("  RSS: %.1f MB at the start, %.1f MB peak, %.1f MB at the end (queue bound %.1f MB)", Mb(f.rssStart),
                Mb(f.rssPeak), Mb(r.rss.back().bytes), Mb(r.queueCapBytes));
    if (f.rssSettled != 0) {
        std::printf("; from 5 s in to the end of the event %.1f -> %.1f MB peak", Mb(f.rssSettled),
                    Mb(f.rssSettledPeak));
    }
    std::printf("\n  added latency (intake to output minus the encoder's %.2f ms median): p50 %.2f ms, p99 %.2f ms\n",
                f.encodeMs, Percentile(f.addedMs, 0.5), p99);
    std::printf("  delivered %llu of %llu frames (%.1f %%); longest gap at the output %.2f intervals, at most "
                "%llu frames missing in a row",
                static_cast<unsigned long long>(f.delivered), static_cast<unsigned long long>(f.fed), f.Share(),
                Intervals(f.longestOutGapUs), static_cast<unsigned long long>(f.longestMissing));
    std::printf(overload || stall ? "; full rate %.3f s after the end\n" : "\n", f.recoveryS);
    std::string report;
    const bool decodes = Decodes(stream, r.units.size(), report);
    std::printf("  %s: %zu units, ffprobe: %s\n", stream.c_str(), r.units.size(), report.c_str());

    const char *tag = name.c_str();
    if (overload || stall) {
        Target(tag,
               Format("peak RSS %.1f MB <= start %.1f MB + queue bound %.1f MB", Mb(f.rssPeak), Mb(f.rssStart),
                      Mb(r.queueCapBytes)),
               f.rssPeak <= f.rssStart + r.queueCapBytes);
        const double allowanceMs = 3 * kIntervalUs / 1000.0 + f.encodeMs;
        Target(tag, Format("added latency p99 %.1f ms <= 3 intervals + one encode = %.1f ms", p99, allowanceMs),
               !f.addedMs.empty() && p99 <= allowanceMs);
        Target(tag, Format("full rate within 1 s of the end: %.3f s", f.recoveryS),
               f.recoveryS >= 0 && f.recoveryS <= 1);
    } else {
        Target(tag,
               Format("no frame dropped: %zu of %llu delivered", r.units.size(),
                      static_cast<unsigned long long>(r.counters.framesIn)),
               r.counters.droppedOverload + r.counters.droppedError == 0 && r.units.size() == r.counters.framesIn);
    }
    if (overload && opt.factor == 2) {
        Target(tag,
               Format("%.1f %% >= 45 %% delivered, longest gap %.2f <= 3 intervals, %llu <= 2 missing in a row",
                      f.Share(), Intervals(f.longestOutGapUs), static_cast<unsigned long long>(f.longestMissing)),
               f.Share() >= 45 && f.longestOutGapUs <= 3 * kIntervalUs && f.longestMissing <= 2);
    }
    Target(tag, "output decodes without errors", decodes);
    std::printf("encoder median %.3f ms\n", f.encodeMs);
    return decodes ? 0 : 1;
}

// N cameras at full rate: sustained when no frame is dropped after the
// first second and every other one comes out. Exit status 0 sustained, 3
// not, 1 failed.
int RunCapacityProbe(const Options &opt)
{
    ClearSlowdown();
    const auto frames = MakeFrames(opt);
    Plugin plugin;
    std::string error;
    if (frames.empty() || !plugin.Start(opt, opt.cameras, "", error)) {
        std::fprintf(stderr, "overload: %s\n", error.c_str());
        return 1;
    }
    std::vector<int64_t> feedUs;
    std::vector<RssSample> rss;
    const auto perCamera = static_cast<uint64_t>(opt.capacitySeconds * kFps);
    // The first second starts every encoder at once, all faulting in their
    // buffers together; only what follows counts, as for FFmpeg.
    const uint64_t startFrames = std::min<uint64_t>(kFps, perCamera);
    std::vector<uint64_t> droppedAtStart;
    if (!FeedPaced(plugin, frames, opt.cameras, startFrames, feedUs, rss)) {
        std::fprintf(stderr, "overload: the plugin refused a frame\n");
        return 1;
    }
    for (uint32_t i = 0; i < opt.cameras; ++i) {
        const KxCameraFrameCounters c = plugin.Counters(i);
        droppedAtStart.push_back(c.droppedOverload + c.droppedError);
    }
    const int64_t steadyFromUs = TALVOSystemTimeUs();
    if (!FeedPaced(plugin, frames, opt.cameras, perCamera - startFrames, feedUs, rss) || !plugin.Drain()) {
        std::fprintf(stderr, "overload: the plugin refused a frame or did not drain\n");
        return 1;
    }
    uint64_t startDrops = 0;
    uint64_t dropped = 0;
    uint64_t delivered = 0;
    // How long frames waited beside their encode, comparable with FFmpeg's.
    std::vector<double> waits;
    const auto encodeUs = plugin.EncodeUs();
    for (uint32_t i = 0; i < opt.cameras; ++i) {
        const KxCameraFrameCounters c = plugin.Counters(i);
        startDrops += droppedAtStart[i];
        dropped += c.droppedOverload + c.droppedError - droppedAtStart[i];
        for (const auto &unit : plugin.sink(i).Units()) {
            ++delivered;
            const auto found = encodeUs.find(unit.stampUs);
            if (found != encodeUs.end() && unit.stampUs >= steadyFromUs) {
                waits.push_back(Intervals(unit.outUs - unit.stampUs - found->second));
            }
        }
    }
    plugin.Release();
    const bool sustained = dropped == 0 && delivered + startDrops == perCamera * opt.cameras;
    std::printf("  plugin, %u cameras: %llu of %llu frames delivered, %llu dropped after the first second (%llu in "
                "it); waits beside the encode p99 %.2f, at most %.2f intervals\n",
                opt.cameras, static_cast<unsigned long long>(delivered),
                static_cast<unsigned long long>(perCamera * opt.cameras), static_cast<unsigned long long>(dropped),
                static_cast<unsigned long long>(startDrops), Percentile(waits, 0.99), Percentile(waits, 1));
    return sustained ? 0 : 3;
}

// Starts args[0] from the PATH; a descriptor >= 0 becomes its stdin or stdout.
pid_t Spawn(const std::vector<std::string> &args, int stdinFd, int stdoutFd = -1)
{
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    if (stdinFd >= 0) {
        posix_spawn_file_actions_adddup2(&actions, stdinFd, STDIN_FILENO);
    }
    if (stdoutFd >= 0) {
        posix_spawn_file_actions_adddup2(&actions, stdoutFd, STDOUT_FILENO);
    }
    std::vector<char *> argv;
    for (const auto &arg : args) {
        argv.push_back(const_cast<char *>(arg.c_str()));
    }
    argv.push_back(nullptr);
    pid_t pid = -1;
    if (posix_spawnp(&pid, argv[0], &actions, nullptr, argv.data(), environ) != 0) {
        pid = -1;
    }
    posix_spawn_file_actions_destroy(&actions);
    return pid;
}

int WaitFor(pid_t pid)
{
    int status = 0;
    if (pid < 0 || waitpid(pid, &status, 0) != pid || !WIFEXITED(status)) {
        return -1;
    }
    return WEXITSTATUS(status);
}

// N FFmpeg processes, each fed the same frames through a pipe at 30 fps with
// the x264 settings of bench/peers.sh. A write that completes more than two
// intervals after its time means a frame waited longer than the plugin lets
// one wait before it drops it. Lateness in intervals; most < 0 if a process
// failed.
struct Waits {
    double p99 = 0;
    double most = -1;
};

Waits FfmpegProbe(const Options &opt, uint32_t n, uint32_t kbps)
{
    // A process that dies shows as a failed write, not as our death.
    std::signal(SIGPIPE, SIG_IGN);
    const auto frames = MakeFrames(opt);
    const auto perProcess = static_cast<uint64_t>(opt.capacitySeconds * kFps);
    std::vector<pid_t> pids;
    std::vector<int> fds;
    for (uint32_t i = 0; i < n; ++i) {
        int pipeFds[2];
        if (pipe2(pipeFds, O_CLOEXEC) != 0) {
            break;
        }
        const std::string k = std::to_string(kbps);
        pids.push_back(Spawn({"ffmpeg",
                              "-nostdin",
                              "-hide_banner",
                              "-loglevel",
                              "error",
                              "-f",
                              "rawvideo",
                              "-pix_fmt",
                              "nv21",
                              "-s",
                              SizeText(opt),
                              "-r",
                              std::to_string(kFps),
                              "-i",
                              "pipe:0",
                              "-c:v",
                              "libx264",
                              "-preset",
                              "ultrafast",
                              "-tune",
                              "zerolatency",
                              "-threads",
                              "0",
                              "-thread_type",
                              "slice",
                              "-b:v",
                              k + "k",
                              "-maxrate",
                              k + "k",
                              "-bufsize",
                              std::to_string(kbps / 2) + "k",
                              "-g",
                              "60",
                              "-f",
                              "null",
                              "-"},
                             pipeFds[0]));
        close(pipeFds[0]);
        fds.push_back(pipeFds[1]);
    }
    std::vector<std::vector<double>> late(fds.size());
    std::vector<uint8_t> broken(fds.size(), 0); // one byte each: the feeders write them at once
    std::vector<std::thread> feeders;
    for (size_t i = 0; i < fds.size(); ++i) {
        feeders.emplace_back([&, i] {
            // The clock starts once FFmpeg has read ahead for its probe and
            // opened x264 on the first frame; only what follows the first
            // second counts, as for the plugin.
            auto start = Clock::now();
            for (uint64_t f = 0; f < perProcess; ++f) {
                const uint64_t paced = f < kFfmpegStartFrames ? 0 : f - kFfmpegStartFrames;
                const auto due = start + std::chrono::microseconds((paced * n + i) * kIntervalUs / n);
                if (f >= kFfmpegStartFrames) {
                    std::this_thread::sleep_until(due);
                }
                const auto &frame = frames[f % frames.size()];
                for (size_t done = 0; done < frame.size();) {
                    const ssize_t w = write(fds[i], frame.data() + done, frame.size() - done);
                    if (w <= 0) {
                        broken[i] = 1;
                        return;
                    }
                    done += static_cast<size_t>(w);
                }
                if (f + 1 == kFfmpegStartFrames) {
                    start = Clock::now();
                } else if (f >= kFfmpegStartFrames + kFps) {
                    late[i].push_back(
                        Intervals(std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - due).count()));
                }
            }
        });
    }
    for (auto &feeder : feeders) {
        feeder.join();
    }
    bool ok = pids.size() == n;
    std::vector<double> all;
    for (size_t i = 0; i < fds.size(); ++i) {
        close(fds[i]);
        ok = WaitFor(pids[i]) == 0 && broken[i] == 0 && ok;
        all.insert(all.end(), late[i].begin(), late[i].end());
    }
    return ok ? Waits{Percentile(all, 0.99), Percentile(all, 1)} : Waits{};
}

std::vector<std::string> ChildArgs(const Options &opt, const std::string &run)
{
    return {opt.self,
            "--run",
            run,
            "--size",
            SizeText(opt),
            "--warm-up",
            std::to_string(opt.warmUp),
            "--overload-seconds",
            std::to_string(opt.overload),
            "--recovery",
            std::to_string(opt.recovery),
            "--stall-ms",
            std::to_string(opt.stallMs),
            "--encode-ms",
            std::to_string(opt.encodeMs),
            "--capacity-seconds",
            std::to_string(opt.capacitySeconds),
            "--output-dir",
            opt.outputDir};
}

// Runs a scenario in a child process; its output is passed on and kept.
int RunChild(const std::vector<std::string> &args, std::vector<std::string> &lines)
{
    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0) {
        return -1;
    }
    const pid_t pid = Spawn(args, -1, fds[1]);
    close(fds[1]);
    FILE *output = fdopen(fds[0], "r");
    char buffer[1024];
    while (output != nullptr && std::fgets(buffer, sizeof(buffer), output) != nullptr) {
        std::fputs(buffer, stdout);
        std::fflush(stdout);
        lines.emplace_back(buffer);
    }
    if (output != nullptr) {
        std::fclose(output);
    } else {
        close(fds[0]);
    }
    return WaitFor(pid);
}

// The largest count in [1, most] that holds, by bisection, one probe a step
// so that two searches can take turns on the same machine.
struct Bisection {
    uint32_t ok = 0;
    uint32_t failed;
    explicit Bisection(uint32_t most) : failed(most + 1) {}
    bool Done() const { return failed - ok <= 1; }
    uint32_t Next() const { return (ok + failed) / 2; }
    void Record(uint32_t n, bool holds) { (holds ? ok : failed) = n; }
};

int RunCapacity(const Options &opt, std::vector<std::string> &lines)
{
    const uint32_t kbps = kxbench::PluginBitrate(opt.width, opt.height, kFps) / 1000;
    if (kbps == 0) {
        return 1;
    }
    std::printf("capacity, %s at %u fps, %.0f s per probe, no frame dropped or held more than 2 intervals:\n",
                SizeText(opt).c_str(), kFps, opt.capacitySeconds);
    bool failed = false;
    Bisection plugin(kMaxCameras);
    // FFmpeg has no such limit; twice the plugin's shows whether it is reached.
    Bisection ffmpeg(2 * kMaxCameras);
    while (!plugin.Done() || !ffmpeg.Done()) {
        if (!plugin.Done()) {
            const uint32_t n = plugin.Next();
            std::vector<std::string> args = ChildArgs(opt, "capacity");
            args.insert(args.end(), {"--cameras", std::to_string(n)});
            const int status = RunChild(args, lines);
            failed = failed || (status != 0 && status != 3);
            plugin.Record(n, status == 0);
        }
        if (!ffmpeg.Done()) {
            const uint32_t n = ffmpeg.Next();
            const Waits waits = FfmpegProbe(opt, n, kbps);
            std::printf("  FFmpeg, %u processes: frames taken after their time p99 %.2f, at most %.2f intervals\n", n,
                        waits.p99, waits.most);
            std::fflush(stdout);
            failed = failed || waits.most < 0;
            ffmpeg.Record(n, waits.most >= 0 && waits.most <= 2);
        }
    }
    const std::string line =
        Format("capacity %s: plugin %u cameras%s, FFmpeg %u processes (ratio %.2f)\n", SizeText(opt).c_str(), plugin.ok,
               plugin.ok == kMaxCameras ? " (all the encoder library offers)" : "", ffmpeg.ok,
               ffmpeg.ok == 0 ? 0.0 : static_cast<double>(plugin.ok) / ffmpeg.ok);
    std::fputs(line.c_str(), stdout);
    lines.push_back(line);
    return failed ? 1 : 0;
}

int RunAll(Options opt)
{
    std::ifstream loadavg("/proc/loadavg");
    std::string load;
    std::getline(loadavg, load);
    std::printf("load average before the run: %s\n", load.c_str());
    std::fflush(stdout);
    std::vector<std::string> lines;
    int failures = RunChild(ChildArgs(opt, "none"), lines) != 0;
    for (const auto &line : lines) {
        std::sscanf(line.c_str(), "encoder median %lf ms", &opt.encodeMs);
    }
    for (uint32_t factor : opt.factors) {
        auto args = ChildArgs(opt, "overload");
        args.insert(args.end(), {"--factor", std::to_string(factor)});
        failures += RunChild(args, lines) != 0;
    }
    failures += RunChild(ChildArgs(opt, "stall"), lines) != 0;
    if (opt.capacitySeconds > 0) {
        failures += RunCapacity(opt, lines) != 0;
    }
    std::printf("summary:\n");
    for (const auto &line : lines) {
        if (line.starts_with("target") || line.starts_with("capacity ")) {
            std::fputs(line.c_str(), stdout);
        }
    }
    return failures == 0 ? 0 : 1;
}

} // namespace

int main(int argc, char **argv)
{
    Options opt;
    std::string size = "1280x720";
    CLI::App app{"The raw road when its encoder falls behind or stalls, and how many cameras it sustains"};
    app.add_option("--run", opt.run, "all, or one part: none, overload, stall, capacity")
        ->check(CLI::IsMember({"all", "none", "overload", "stall", "capacity"}));
    app.add_option("--size", size, "frame size, WxH");
    app.add_option("--warm-up", opt.warmUp, "seconds at full rate first")->check(CLI::Range(1.0, 600.0));
    app.add_option("--overload-seconds", opt.overload, "seconds of overload")->check(CLI::Range(1.0, 3600.0));
    app.add_option("--recovery", opt.recovery, "seconds at full rate after")->check(CLI::Range(1.0, 600.0));
    app.add_option("--factors", opt.factors, "overloads to run, as multiples of the encoder's capacity")
        ->delimiter(',')
        ->check(CLI::Range(2u, 16u));
    app.add_option("--factor", opt.factor, "--run overload: multiple of the encoder's capacity")
        ->check(CLI::Range(2u, 16u));
    app.add_option("--stall-ms", opt.stallMs, "length of the encoder stall")->check(CLI::Range(1u, 60000u));
    app.add_option("--encode-ms", opt.encodeMs,
                   "--run overload: the encoder's own time per frame, taken off the delay (all measures it)");
    app.add_option("--capacity-seconds", opt.capacitySeconds, "seconds per capacity probe; 0 skips the capacity")
        ->check(CLI::Range(0.0, 600.0));
    app.add_option("--cameras", opt.cameras, "--run capacity: one probe of this many cameras at once")
        ->check(CLI::Range(1u, kMaxCameras));
    app.add_option("--output-dir", opt.outputDir, "where the encoded streams are written")
        ->check(CLI::ExistingDirectory);
    CLI11_PARSE(app, argc, argv);
    std::error_code ignored;
    opt.self = std::filesystem::read_symlink("/proc/self/exe", ignored).string();
    char tail = 0;
    if (std::sscanf(size.c_str(), "%ux%u%c", &opt.width, &opt.height, &tail) != 2 || opt.width < 64 ||
        opt.height < 64 || opt.width % 2 != 0 || opt.height % 2 != 0) {
        std::fprintf(stderr, "overload: bad size '%s'\n", size.c_str());
        return 2;
    }
    if (opt.run == "all") {
        return RunAll(opt);
    }
    if (opt.run == "capacity") {
        std::vector<std::string> lines;
        return opt.cameras != 0 ? RunCapacityProbe(opt) : RunCapacity(opt, lines);
    }
    return RunScenario(opt);
}
