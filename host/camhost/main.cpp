// SPDX-License-Identifier: Apache-2.0
// camhost: plays the framework for the camera plugin. Loads it, announces its
// cameras, negotiates, streams each chosen camera into a file and reports
// what arrived.
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "plugin_host.h"
#include "snapshot.h"
#include "stream.h"

namespace {

struct Options {
    std::vector<std::string> cameras{"0"};
    std::string size = "1280x720";
    int fps = 30;
    int frames = 300;
    double duration = 0;
    std::string output;
    std::string format = "auto";
    bool list = false;
    int logLevel = 2;
    std::string fpsChange;
    int keyFrameAt = -1;
    std::string snapshot;
    std::string plugin;
};

// Installed, the plugin and the reference vendors lie beside the executable's
// prefix; in the build tree they are where the build put them.
struct Defaults {
    std::string plugin = CAMHOST_PLUGIN_PATH;
    std::string vendorPath = CAMHOST_VENDOR_PATH;
};

Defaults FindDefaults()
{
    Defaults defaults;
    std::error_code error;
    const std::filesystem::path exeDir = std::filesystem::read_symlink("/proc/self/exe", error).parent_path();
    if (error) {
        return defaults;
    }
    // The build tree has the same bin/lib shape, so only a copy outside it counts as installed.
    if (std::filesystem::equivalent(exeDir, CAMHOST_BUILD_BIN_DIR, error)) {
        return defaults;
    }
    const std::filesystem::path installed = exeDir / CAMHOST_INSTALLED_PLUGIN;
    if (std::filesystem::exists(installed, error)) {
        defaults.plugin = installed.lexically_normal().string();
        defaults.vendorPath.clear();
        std::string dirs = CAMHOST_INSTALLED_VENDOR;
        for (size_t start = 0; start <= dirs.size();) {
            size_t end = dirs.find(':', start);
            end = end == std::string::npos ? dirs.size() : end;
            defaults.vendorPath += (defaults.vendorPath.empty() ? "" : ":") +
                                   (exeDir / dirs.substr(start, end - start)).lexically_normal().string();
            start = end + 1;
        }
    }
    return defaults;
}

// What a camera is asked for: raw frames the plugin encodes, or its own stream.
struct Negotiation {
    int codecType = 0;   // 0 raw, 1 H.264, 2 H.265
    int colorFormat = 2; // raw frames: 2 NV21, 4 RGB565
};

bool ParseSize(const std::string &text, int &width, int &height)
{
    char extra = 0;
    return std::sscanf(text.c_str(), "%dx%d%c", &width, &height, &extra) == 2 && width > 0 && height > 0 &&
           width % 2 == 0 && height % 2 == 0;
}

// Picks from the ability text unless the user forced a format.
bool Negotiate(const std::string &ability, const std::string &format, Negotiation &out, std::string &error)
{
    static const std::map<std::string, Negotiation> kForced = {
        {"nv21", {0, 2}}, {"rgb565", {0, 4}}, {"h264", {1, 2}}, {"h265", {2, 2}}};
    if (format != "auto") {
        auto found = kForced.find(format);
        if (found == kForced.end()) {
            error = "unknown format '" + format + "' (auto, nv21, rgb565, h264 or h265)";
            return false;
        }
        out = found->second;
        return true;
    }
    // The text may repeat a key per ability entry; the parser keeps the last.
    if (ability.find("\"frameAbility\"") != std::string::npos) {
        out = ability.find("\"NV21\"") != std::string::npos ? Negotiation{0, 2} : Negotiation{0, 4};
    } else if (ability.find("\"H264\"") != std::string::npos) {
        out = {1, 2};
    } else if (ability.find("\"H265\"") != std::string::npos) {
        out = {2, 2};
    } else {
        error = "the camera offers nothing this host can take";
        return false;
    }
    return true;
}

std::string Pretty(const std::string &text)
{
    auto json = nlohmann::json::parse(text, nullptr, false);
    return json.is_discarded() ? text : json.dump(2);
}

std::string ProgressLine(const camhost::CameraStream &stream)
{
    const camhost::StreamFigures f = stream.Figures();
    const double fps = f.seconds > 0 ? (f.units - 1) / f.seconds : 0;
    const double kbps = f.seconds > 0 ? f.bytes * 8 / f.seconds / 1000 : 0;
    char line[200];
    std::snprintf(line, sizeof(line), "%s: %llu frames  %.1f fps  %.0f kbit/s  latency mean %.2f ms p99 %.2f ms",
                  stream.serviceId().c_str(), static_cast<unsigned long long>(f.units), fps, kbps, f.meanLatencyMs,
                  f.p99LatencyMs);
    return line;
}

int Fail(const std::string &message)
{
    std::fprintf(stderr, "camhost: %s\n", message.c_str());
    return 1;
}

} // namespace

int main(int argc, char **argv)
{
    const Defaults defaults = FindDefaults();
    Options opt;
    opt.plugin = defaults.plugin;
    CLI::App app{"camhost: drives the camera plugin the way the framework does, and records what it streams"};
    app.add_option("-c,--camera", opt.cameras, "vendor camera ids, comma separated")->delimiter(',');
    app.add_option("-s,--size", opt.size, "picture size WxH (even numbers)");
    app.add_option("-r,--fps", opt.fps, "frame rate")->check(CLI::Range(1, 120));
    auto *framesOpt = app.add_option("-n,--frames", opt.frames, "frames to record per camera")->check(CLI::PositiveNumber);
    app.add_option("-d,--duration", opt.duration, "seconds to record instead of a frame count")
        ->check(CLI::PositiveNumber)
        ->excludes(framesOpt);
    app.add_option("-o,--output", opt.output, "output file ('-' for stdout); default camera<ID>.h264 or .h265");
    app.add_option("-f,--format", opt.format, "auto, nv21, rgb565 (raw, encoded by the plugin), h264 or h265");
    app.add_flag("-l,--list", opt.list, "list the cameras and their abilities, then exit");
    app.add_option("--log-level", opt.logLevel, "framework log level: 1 error .. 5 trace")->check(CLI::Range(1, 5));
    app.add_option("--fps-change", opt.fpsChange, "FRAME:FPS, change the frame rate once FRAME frames arrived");
    app.add_option("--keyframe-at", opt.keyFrameAt, "request a key frame once this many frames arrived")
        ->check(CLI::NonNegativeNumber);
    app.add_option("--snapshot", opt.snapshot, "write the last received picture of the first camera as PNG");
    app.add_option("--plugin", opt.plugin, "path of libkxcamera.so");
    CLI11_PARSE(app, argc, argv);

    int width = 0;
    int height = 0;
    if (!ParseSize(opt.size, width, height)) {
        return Fail("bad size '" + opt.size + "': expected WxH with even numbers, e.g. 1280x720");
    }
    int changeAt = -1;
    int changeFps = 0;
    if (!opt.fpsChange.empty()) {
        char extra = 0;
        if (std::sscanf(opt.fpsChange.c_str(), "%d:%d%c", &changeAt, &changeFps, &extra) != 2 || changeAt < 0 ||
            changeFps < 1 || changeFps > 120) {
            return Fail("bad --fps-change '" + opt.fpsChange + "': expected FRAME:FPS, e.g. 150:15");
        }
    }
    if (opt.output == "-" && opt.cameras.size() > 1) {
        return Fail("several cameras cannot share standard output");
    }
    if (!opt.output.empty() && opt.output != "-" && opt.cameras.size() > 1) {
        return Fail("--output names one file; with several cameras each gets camera<ID>.<codec>");
    }
    setenv("TALVO_LOG_LEVEL", std::to_string(opt.logLevel).c_str(), 1);
    setenv("TALVO_VENDOR_PATH", defaults.vendorPath.c_str(), 0);

    camhost::PluginHost host;
    host.onNotify = [](const std::string &id, int32_t event) {
        std::fprintf(stderr, "notification: %s event %d\n", id.c_str(), event);
    };
    if (!host.Load(opt.plugin)) {
        return Fail(host.error());
    }
    std::fprintf(stderr, "plugin %s version %llu.%llu.%llu.%llu\n", opt.plugin.c_str(),
                 static_cast<unsigned long long>(host.version() >> 48),
                 static_cast<unsigned long long>((host.version() >> 32) & 0xffff),
                 static_cast<unsigned long long>((host.version() >> 16) & 0xffff),
                 static_cast<unsigned long long>(host.version() & 0xffff));
    if (!host.LoadService()) {
        return Fail(host.error());
    }
    for (const auto &id : host.services()) {
        std::fprintf(stderr, "announced %s\n", id.c_str());
    }
    if (opt.list) {
        for (const auto &id : host.services()) {
            std::string ability;
            KxWorkMode mode{};
            if (host.Ability(id, ability) == 0) {
                std::printf("%s ability:\n%s\n", id.c_str(), Pretty(ability).c_str());
            }
            if (host.WorkMode(id, mode) == 0) {
                std::printf("%s work mode: encoder %s, rtp %d, time sync %d, transport %u\n", id.c_str(),
                            mode.isSupportVenc ? "available" : "absent", mode.isRtp, mode.isNeedTimeSyn,
                            mode.transMode);
            }
        }
        return 0;
    }

    // Set every camera up before any streams, so they run side by side.
    std::vector<std::unique_ptr<camhost::CameraStream>> streams;
    for (const auto &camera : opt.cameras) {
        const std::string serviceId = "Camera_" + camera;
        std::string ability;
        if (host.Ability(serviceId, ability) != 0) {
            return Fail("no camera '" + camera + "' (see --list)");
        }
        Negotiation neg;
        std::string error;
        if (!Negotiate(ability, opt.format, neg, error)) {
            return Fail(serviceId + ": " + error);
        }
        const std::string path =
            !opt.output.empty() ? opt.output : "camera" + camera + (neg.codecType == 2 ? ".h265" : ".h264");
        auto stream = std::make_unique<camhost::CameraStream>(serviceId, neg.codecType, !opt.snapshot.empty());
        if (!stream->OpenOutput(path, error)) {
            return Fail(error);
        }
        camhost::CameraStream *raw = stream.get();
        host.SetCallback(serviceId, [raw](const camhost::CameraMessage &message) { raw->OnMessage(message); });
        nlohmann::json open = {{"Width", width}, {"Height", height}, {"ColorFormat", neg.colorFormat},
                               {"CodecType", neg.codecType}};
        int32_t status = host.SetParams(serviceId, open.dump());
        if (status != 0) {
            return Fail(serviceId + ": parameters refused with status " + std::to_string(status));
        }
        // Stored for the open even when the camera cannot take it yet.
        host.SetParams(serviceId, nlohmann::json{{"Fps", opt.fps}}.dump());
        status = host.Open(serviceId);
        if (status != 0) {
            host.Close(serviceId);
            return Fail(serviceId + ": open refused with status " + std::to_string(status) + " (size " + opt.size +
                        " at " + std::to_string(opt.fps) + " fps offered?)");
        }
        std::fprintf(stderr, "%s: streaming %dx%d at %d fps, %s, into %s\n", serviceId.c_str(), width, height, opt.fps,
                     neg.codecType == 0 ? (neg.colorFormat == 4 ? "raw RGB565 encoded by the plugin"
                                                                : "raw NV21 encoded by the plugin")
                                        : (neg.codecType == 1 ? "H.264 from the camera" : "H.265 from the camera"),
                     path == "-" ? "standard output" : path.c_str());
        streams.push_back(std::move(stream));
    }

    const bool tty = isatty(STDERR_FILENO) != 0;
    const auto start = std::chrono::steady_clock::now();
    const uint64_t target = static_cast<uint64_t>(opt.frames);
    bool changed = false;
    bool keyed = false;
    uint64_t lastSeen = 0;
    auto lastProgress = start;
    auto lastPrint = start;
    int exitCode = 0;
    for (;;) {
        streams.front()->WaitUnits(lastSeen + 1, 100);
        const auto now = std::chrono::steady_clock::now();
        const double elapsed = std::chrono::duration<double>(now - start).count();
        uint64_t least = UINT64_MAX;
        uint64_t total = 0;
        for (const auto &stream : streams) {
            const uint64_t units = stream->Figures().units;
            least = std::min(least, units);
            total += units;
        }
        const uint64_t first = streams.front()->Figures().units;
        if (!changed && changeAt >= 0 && first >= static_cast<uint64_t>(changeAt)) {
            changed = true;
            for (const auto &stream : streams) {
                int32_t status = host.SetParams(stream->serviceId(), nlohmann::json{{"Fps", changeFps}}.dump());
                std::fprintf(stderr, "%s%s: frame rate %d requested, status %d\n", tty ? "\n" : "",
                             stream->serviceId().c_str(), changeFps, status);
            }
        }
        if (!keyed && opt.keyFrameAt >= 0 && first >= static_cast<uint64_t>(opt.keyFrameAt)) {
            keyed = true;
            for (const auto &stream : streams) {
                int32_t status = host.KeyFrame(stream->serviceId());
                std::fprintf(stderr, "%s%s: key frame requested, status %d\n", tty ? "\n" : "",
                             stream->serviceId().c_str(), status);
            }
        }
        if (total != lastSeen) {
            lastSeen = total;
            lastProgress = now;
        }
        if (now - lastPrint >= std::chrono::milliseconds(tty ? 200 : 1000)) {
            lastPrint = now;
            for (const auto &stream : streams) {
                std::fprintf(stderr, tty ? "\r%s" : "%s\n", ProgressLine(*stream).c_str());
            }
        }
        if (opt.duration > 0 ? elapsed >= opt.duration : least >= target) {
            break;
        }
        if (now - lastProgress > std::chrono::seconds(5)) {
            std::fprintf(stderr, "%scamhost: no frame for 5 s, giving up\n", tty ? "\n" : "");
            exitCode = 1;
            break;
        }
    }
    for (const auto &stream : streams) {
        host.Close(stream->serviceId());
    }
    host.Release();
    if (tty) {
        std::fputc('\n', stderr);
    }
    for (const auto &stream : streams) {
        std::fprintf(stderr, "summary %s (%llu key frames)\n", ProgressLine(*stream).c_str(),
                     static_cast<unsigned long long>(stream->Figures().idrUnits));
        if (stream->writeFailed()) {
            exitCode = Fail(stream->serviceId() + ": writing the output failed");
        }
    }
    if (!opt.snapshot.empty()) {
        int w = 0;
        int h = 0;
        std::string error = camhost::WriteSnapshot(streams.front()->Bytes(), streams.front()->codecType(),
                                                   opt.snapshot, w, h);
        if (!error.empty()) {
            return Fail("snapshot: " + error);
        }
        std::fprintf(stderr, "snapshot %dx%d written to %s\n", w, h, opt.snapshot.c_str());
    }
    return exitCode;
}
