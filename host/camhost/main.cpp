// SPDX-License-Identifier: Apache-2.0
// camhost: plays the framework for the camera plugin. Loads it, announces its
// cameras, negotiates, streams each chosen camera into a file or onto the
// network, and reports what arrived.
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "ability.h"
#include "output.h"
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
    bool json = false;
    bool overwrite = false;
    int logLevel = 2;
    std::string fpsChange;
    int keyFrameAt = -1;
    std::string snapshot;
    std::string sdp;
    std::string statsJson;
    std::string plugin;
};

// Exit codes, as the README lists them.
constexpr int kExitFailed = 1;  // something failed while running
constexpr int kExitRefused = 2; // refused before anything started

volatile std::sig_atomic_t g_signal = 0;

void OnSignal(int signal)
{
    g_signal = signal;
}

// SIGINT and SIGTERM end the run the orderly way; a closed pipe shows up as
// a failed write instead of killing the process.
void InstallSignals()
{
    struct sigaction action {};
    action.sa_handler = OnSignal;
    sigemptyset(&action.sa_mask);
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
    std::signal(SIGPIPE, SIG_IGN);
}

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

// The drop counters the plugin exports once it counts them; looked up at run
// time so this host works with plugins with and without them.
struct FrameCounters {
    uint64_t framesIn;
    uint64_t framesEncoded;
    uint64_t droppedOverload;
    uint64_t droppedError;
};
using GetFrameCounters = int32_t (*)(const KxServiceIdDesc *, FrameCounters *);

std::optional<FrameCounters> ReadCounters(GetFrameCounters get, const std::string &serviceId)
{
    FrameCounters counters{};
    KxServiceIdDesc index{serviceId.c_str(), static_cast<uint32_t>(serviceId.size()), 1};
    if (get == nullptr || get(&index, &counters) != 0) {
        return std::nullopt;
    }
    return counters;
}

// What a camera is asked for: raw frames the plugin encodes, or its own stream.
struct Negotiation {
    int codecType = 0;   // 0 raw, 1 H.264, 2 H.265
    int colorFormat = 2; // raw frames: 2 NV21, 4 RGB565
    std::string format;  // as the ability text names it
};

bool ParseSize(const std::string &text, int &width, int &height)
{
    char extra = 0;
    return std::sscanf(text.c_str(), "%dx%d%c", &width, &height, &extra) == 2 && width > 0 && height > 0 &&
           width % 2 == 0 && height % 2 == 0;
}

// Picks from the offers unless the user forced a format.
bool Negotiate(const camhost::Offers &offers, const std::string &format, Negotiation &out, std::string &error)
{
    static const std::map<std::string, Negotiation> kForced = {
        {"nv21", {0, 2, "NV21"}}, {"rgb565", {0, 4, "RGB565"}}, {"h264", {1, 2, "H264"}}, {"h265", {2, 2, "H265"}}};
    if (format != "auto") {
        auto found = kForced.find(format);
        if (found == kForced.end()) {
            error = "unknown format '" + format + "' (auto, nv21, rgb565, h264 or h265)";
            return false;
        }
        out = found->second;
        return true;
    }
    for (const char *preferred : {"nv21", "rgb565", "h264", "h265"}) {
        const Negotiation &candidate = kForced.at(preferred);
        if (std::find(offers.formats.begin(), offers.formats.end(), candidate.format) != offers.formats.end()) {
            out = candidate;
            return true;
        }
    }
    error = "the camera offers nothing this host can take";
    return false;
}

// "0", " Camera_0" and "Camera_0" all name the service Camera_0.
std::string ServiceIdOf(std::string camera)
{
    camera.erase(0, camera.find_first_not_of(" \t"));
    camera.erase(camera.find_last_not_of(" \t") + 1);
    return camera.rfind("Camera_", 0) == 0 ? camera : "Camera_" + camera;
}

std::string ProgressLine(const camhost::CameraStream &stream, GetFrameCounters counters)
{
    const camhost::StreamFigures f = stream.Figures();
    const double fps = f.seconds > 0 ? static_cast<double>(f.units - 1) / f.seconds : 0;
    const double kbps = f.seconds > 0 ? static_cast<double>(f.bytes) * 8 / f.seconds / 1000 : 0;
    char line[300];
    int n = std::snprintf(line, sizeof(line),
                          "%s: %llu frames  %.1f fps  %.0f kbit/s  latency mean %.2f ms p50 %.2f ms p99 %.2f ms",
                          stream.serviceId().c_str(), static_cast<unsigned long long>(f.units), fps, kbps,
                          f.meanLatencyMs, f.p50LatencyMs, f.p99LatencyMs);
    if (auto c = ReadCounters(counters, stream.serviceId()); c && n > 0 && static_cast<size_t>(n) < sizeof(line)) {
        std::snprintf(line + n, sizeof(line) - static_cast<size_t>(n), "  dropped %llu overload, %llu error",
                      static_cast<unsigned long long>(c->droppedOverload),
                      static_cast<unsigned long long>(c->droppedError));
    }
    return line;
}

nlohmann::json StreamJson(const camhost::CameraStream &stream, GetFrameCounters counters)
{
    const camhost::StreamFigures f = stream.Figures();
    nlohmann::json entry = {
        {"id", stream.serviceId()},
        {"output", stream.output() != nullptr ? stream.output()->description() : ""},
        {"frames", f.units},
        {"seconds", f.seconds},
        {"fps", f.seconds > 0 ? static_cast<double>(f.units - 1) / f.seconds : 0},
        {"bytes", f.bytes},
        {"kbps", f.seconds > 0 ? static_cast<double>(f.bytes) * 8 / f.seconds / 1000 : 0},
        {"keyFrames", f.idrUnits},
        {"latencyMs", {{"mean", f.meanLatencyMs}, {"p50", f.p50LatencyMs}, {"p99", f.p99LatencyMs}}}};
    if (auto c = ReadCounters(counters, stream.serviceId())) {
        entry["counters"] = {{"framesIn", c->framesIn},
                             {"framesEncoded", c->framesEncoded},
                             {"droppedOverload", c->droppedOverload},
                             {"droppedError", c->droppedError}};
    }
    return entry;
}

int Fail(const std::string &message, int code = kExitFailed)
{
    std::fprintf(stderr, "camhost: %s\n", message.c_str());
    return code;
}

int Refuse(const std::string &message)
{
    return Fail(message, kExitRefused);
}

// Progress lines, one per camera, rewritten in place on a terminal; any
// other message goes above them.
class Console {
public:
    explicit Console(bool tty) : tty_(tty) {}

    void Progress(const std::vector<std::string> &lines)
    {
        if (tty_ && shown_ > 0) {
            std::fprintf(stderr, "\033[%zuA", shown_);
        }
        for (const auto &line : lines) {
            std::fprintf(stderr, tty_ ? "\r\033[K%s\n" : "%s\n", line.c_str());
        }
        shown_ = tty_ ? lines.size() : 0;
    }
    void Message(const std::string &text)
    {
        std::fprintf(stderr, "%s\n", text.c_str());
        shown_ = 0;
    }
    bool tty() const { return tty_; }

private:
    bool tty_;
    size_t shown_ = 0;
};

int ListCameras(camhost::PluginHost &host, bool json)
{
    nlohmann::json all = nlohmann::json::array();
    for (const auto &id : host.services()) {
        std::string text;
        KxWorkMode mode{};
        nlohmann::json entry = {{"id", id}};
        if (host.Ability(id, text) == 0) {
            const nlohmann::json ability = camhost::ParseAbility(text);
            entry["ability"] = ability.is_discarded() ? nlohmann::json(text) : ability;
        }
        if (host.WorkMode(id, mode) == 0) {
            entry["workMode"] = {{"encoder", mode.isSupportVenc != 0},
                                 {"rtp", mode.isRtp},
                                 {"timeSync", mode.isNeedTimeSyn},
                                 {"transport", mode.transMode}};
        }
        if (json) {
            all.push_back(entry);
            continue;
        }
        if (entry.contains("ability")) {
            std::printf("%s ability:\n%s\n", id.c_str(), entry["ability"].dump(2).c_str());
        }
        if (entry.contains("workMode")) {
            std::printf("%s work mode: encoder %s, rtp %d, time sync %d, transport %u\n", id.c_str(),
                        mode.isSupportVenc ? "available" : "absent", mode.isRtp, mode.isNeedTimeSyn, mode.transMode);
        }
    }
    if (json) {
        std::printf("%s\n", all.dump(2).c_str());
    }
    return 0;
}

} // namespace

int main(int argc, char **argv)
{
    InstallSignals();
    const Defaults defaults = FindDefaults();
    Options opt;
    opt.plugin = defaults.plugin;
    CLI::App app{"camhost: drives the camera plugin the way the framework does, and records or sends what it "
                 "streams"};
    app.option_defaults()->always_capture_default();
    app.set_version_flag("--version", std::string("camhost ") + CAMHOST_VERSION);
    app.add_option("-c,--camera", opt.cameras,
                   "cameras, comma separated: vendor ids (0) or names as --list shows "
                   "them (Camera_0)")
        ->delimiter(',');
    app.add_option("-s,--size", opt.size, "picture size WxH (even numbers)");
    app.add_option("-r,--fps", opt.fps, "frame rate")->check(CLI::Range(1, 120));
    auto *framesOpt =
        app.add_option("-n,--frames", opt.frames, "frames to record per camera")->check(CLI::PositiveNumber);
    app.add_option("-d,--duration", opt.duration, "seconds to record instead of a frame count")
        ->check(CLI::PositiveNumber)
        ->excludes(framesOpt);
    app.add_option("-o,--output", opt.output,
                   std::string("where the stream goes (default camera<ID>.mp4; with several cameras {id} in the "
                               "name stands for each id): ") +
                       camhost::kOutputKinds);
    app.add_flag("-y,--overwrite", opt.overwrite, "overwrite existing output and snapshot files");
    app.add_option("--sdp", opt.sdp, "RTP output: write the session description to this file instead of stdout");
    app.add_option("-f,--format", opt.format, "auto, nv21, rgb565 (raw, encoded by the plugin), h264 or h265");
    app.add_flag("-l,--list", opt.list, "list the cameras and their abilities, then exit");
    app.add_flag("--json", opt.json, "with --list: print the list as JSON");
    app.add_option("--stats-json", opt.statsJson, "write the summary as JSON to this file");
    app.add_option("--log-level", opt.logLevel,
                   "framework log level: 1 error .. 5 trace (a raw camera's open logs the encoder's colour space "
                   "at error level; that line is not a failure)")
        ->check(CLI::Range(1, 5));
    app.add_option("--fps-change", opt.fpsChange,
                   "FRAME:FPS, change the frame rate once FRAME frames arrived (cameras that encode themselves "
                   "keep their rate)");
    app.add_option("--keyframe-at", opt.keyFrameAt, "request a key frame once this many frames arrived (-1: never)")
        ->check(CLI::Range(-1, INT32_MAX));
    app.add_option("--snapshot", opt.snapshot, "write the last received picture of the first camera as PNG");
    app.add_option("--plugin", opt.plugin, "path of libkxcamera.so");
    app.footer("Exit codes: 0 done (also when the reader of a pipe went away), 1 failed while running, 2 refused "
               "before starting, 130 stopped by SIGINT, 143 stopped by SIGTERM.");
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError &e) {
        const int code = app.exit(e);
        return code == 0 ? 0 : kExitRefused;
    }

    int width = 0;
    int height = 0;
    if (!ParseSize(opt.size, width, height)) {
        return Refuse("bad size '" + opt.size + "': expected WxH with even numbers, e.g. 1280x720");
    }
    int changeAt = -1;
    int changeFps = 0;
    if (!opt.fpsChange.empty()) {
        char extra = 0;
        if (std::sscanf(opt.fpsChange.c_str(), "%d:%d%c", &changeAt, &changeFps, &extra) != 2 || changeAt < 0 ||
            changeFps < 1 || changeFps > 120) {
            return Refuse("bad --fps-change '" + opt.fpsChange + "': expected FRAME:FPS, e.g. 150:15");
        }
    }
    std::vector<std::string> serviceIds;
    for (const auto &camera : opt.cameras) {
        if (camera.find_first_not_of(" \t") == std::string::npos) {
            continue;
        }
        const std::string id = ServiceIdOf(camera);
        if (std::find(serviceIds.begin(), serviceIds.end(), id) != serviceIds.end()) {
            return Refuse("camera " + id + " is named twice");
        }
        serviceIds.push_back(id);
    }
    if (serviceIds.empty() && !opt.list) {
        return Refuse("no camera named");
    }
    if (serviceIds.size() > 1 && opt.output == "-") {
        return Refuse("several cameras cannot share standard output");
    }
    if (serviceIds.size() > 1 && !opt.output.empty() && opt.output.find("{id}") == std::string::npos) {
        return Refuse("several cameras cannot share one output; put {id} in --output (e.g. cam{id}.mp4)");
    }
    if (!opt.snapshot.empty()) {
        if (!opt.snapshot.ends_with(".png")) {
            return Refuse("the snapshot is a PNG: name it *.png");
        }
        if (const std::string why = camhost::CheckNewFile(opt.snapshot, opt.overwrite); !why.empty()) {
            return Refuse("snapshot: " + why);
        }
    }
    if (!opt.statsJson.empty()) {
        if (const std::string why = camhost::CheckNewFile(opt.statsJson, opt.overwrite); !why.empty()) {
            return Refuse("--stats-json: " + why);
        }
    }
    setenv("TALVO_LOG_LEVEL", std::to_string(opt.logLevel).c_str(), 1);
    setenv("TALVO_VENDOR_PATH", defaults.vendorPath.c_str(), 0);

    camhost::PluginHost host;
    Console console(isatty(STDERR_FILENO) != 0);
    host.onNotify = [&console](const std::string &id, int32_t event) {
        console.Message("notification: " + id + " event " + std::to_string(event));
    };
    if (!host.Load(opt.plugin)) {
        return Refuse(host.error());
    }
    std::fprintf(stderr, "plugin %s version %llu.%llu.%llu.%llu\n", opt.plugin.c_str(),
                 static_cast<unsigned long long>(host.version() >> 48),
                 static_cast<unsigned long long>((host.version() >> 32) & 0xffff),
                 static_cast<unsigned long long>((host.version() >> 16) & 0xffff),
                 static_cast<unsigned long long>(host.version() & 0xffff));
    if (!host.LoadService()) {
        return Refuse(host.error());
    }
    for (const auto &id : host.services()) {
        std::fprintf(stderr, "announced %s\n", id.c_str());
    }
    if (opt.list) {
        return ListCameras(host, opt.json);
    }
    const auto counters = reinterpret_cast<GetFrameCounters>(host.Symbol("KxCameraGetFrameCounters"));

    // Everything is checked before any output is created or camera opened.
    struct Plan {
        std::string serviceId;
        Negotiation neg;
        camhost::Offers offers;
        camhost::OutputWanted output;
    };
    std::vector<Plan> plans;
    for (const auto &serviceId : serviceIds) {
        std::string text;
        if (host.Ability(serviceId, text) != 0) {
            return Refuse("no camera '" + serviceId + "' (see --list)");
        }
        Plan plan;
        plan.serviceId = serviceId;
        plan.offers = camhost::ReadOffers(camhost::ParseAbility(text));
        std::string error;
        if (!Negotiate(plan.offers, opt.format, plan.neg, error)) {
            return Refuse(serviceId + ": " + error);
        }
        if (const std::string why = camhost::Unoffered(plan.offers, plan.neg.format, width, height, opt.fps);
            !why.empty()) {
            return Refuse(serviceId + ": " + why);
        }
        const std::string vendorId = serviceId.substr(std::string("Camera_").size());
        std::string target = opt.output.empty() ? "camera{id}.mp4" : opt.output;
        for (size_t at = target.find("{id}"); at != std::string::npos; at = target.find("{id}", at)) {
            target.replace(at, 4, vendorId);
        }
        plan.output = {target, plan.neg.codecType == 2 ? 2 : 1, width, height, opt.fps, opt.overwrite, opt.sdp};
        if (const std::string why = camhost::CheckOutput(plan.output); !why.empty()) {
            return Refuse(serviceId + ": " + why);
        }
        if (plan.neg.codecType != 0 && changeAt >= 0) {
            console.Message(serviceId + ": warning: --fps-change cannot affect this camera: it encodes itself, and "
                                        "the plugin passes a rate change only to its own encoder");
        }
        plans.push_back(std::move(plan));
    }

    // Set every camera up before any streams, so they run side by side.
    std::vector<std::unique_ptr<camhost::CameraStream>> streams;
    auto closeAll = [&] {
        for (const auto &stream : streams) {
            host.Close(stream->serviceId());
        }
        host.Release();
        for (const auto &stream : streams) {
            stream->FinishOutput();
        }
    };
    const uint64_t limit = opt.duration > 0 ? 0 : static_cast<uint64_t>(opt.frames);
    for (const Plan &plan : plans) {
        const std::string &serviceId = plan.serviceId;
        auto stream = std::make_unique<camhost::CameraStream>(serviceId, plan.neg.codecType, limit,
                                                              streams.empty() && !opt.snapshot.empty());
        std::string error;
        auto output = camhost::OpenOutput(plan.output, error);
        if (output == nullptr || g_signal != 0) {
            closeAll();
            return g_signal != 0 ? 128 + g_signal : Fail(serviceId + ": " + error);
        }
        stream->SetOutput(std::move(output));
        camhost::CameraStream *raw = stream.get();
        host.SetCallback(serviceId, [raw](const camhost::CameraMessage &message) { raw->OnMessage(message); });
        streams.push_back(std::move(stream));
        const std::string why = camhost::Unoffered(plan.offers, plan.neg.format, width, height, opt.fps);
        nlohmann::json open = {{"Width", width},
                               {"Height", height},
                               {"ColorFormat", plan.neg.colorFormat},
                               {"CodecType", plan.neg.codecType}};
        int32_t status = host.SetParams(serviceId, open.dump());
        if (status != 0) {
            closeAll();
            return Fail(serviceId + ": parameters refused with status " + std::to_string(status) +
                        (why.empty() ? "" : ": " + why));
        }
        // Stored for the open even when the camera cannot take it yet.
        host.SetParams(serviceId, nlohmann::json{{"Fps", opt.fps}}.dump());
        status = host.Open(serviceId);
        if (status != 0) {
            closeAll();
            return Fail(serviceId + ": open refused with status " + std::to_string(status) + ": " +
                        (why.empty() ? "the camera offers " + plan.neg.format + " at " + opt.size + " and " +
                                           std::to_string(opt.fps) + " fps; see the log above"
                                     : why));
        }
        console.Message(serviceId + ": streaming " + opt.size + " at " + std::to_string(opt.fps) + " fps, " +
                        (plan.neg.codecType == 0 ? "raw " + plan.neg.format + " encoded by the plugin"
                                                 : plan.neg.format + " from the camera") +
                        ", into " + streams.back()->output()->description());
        if (plan.neg.codecType == 0) {
            console.Message(serviceId + ": (the plugin logs its encoder's colour space, \"cspMask ...\", at error "
                                        "level; that line is not a failure)");
        }
    }

    const auto start = std::chrono::steady_clock::now();
    bool changed = false;
    bool keyed = false;
    std::vector<std::pair<uint64_t, uint64_t>> keyWatch; // per stream: units, key units at the request
    uint64_t lastSeen = 0;
    auto lastProgress = start;
    auto lastPrint = start;
    int exitCode = 0;
    for (;;) {
        for (const auto &stream : streams) {
            if (!stream->done()) {
                stream->WaitUnits(stream->Figures().units + 1, 100);
                break;
            }
        }
        if (g_signal != 0) {
            console.Message(g_signal == SIGINT ? "interrupted" : "terminated");
            exitCode = 128 + g_signal;
            break;
        }
        const auto now = std::chrono::steady_clock::now();
        const double elapsed = std::chrono::duration<double>(now - start).count();
        uint64_t total = 0;
        bool allDone = true;
        bool readerGone = false;
        for (const auto &stream : streams) {
            total += stream->Figures().units;
            allDone = allDone && stream->done();
            readerGone = readerGone || stream->readerGone();
        }
        const uint64_t first = streams.front()->Figures().units;
        if (!changed && changeAt >= 0 && first >= static_cast<uint64_t>(changeAt)) {
            changed = true;
            for (const auto &stream : streams) {
                int32_t status = host.SetParams(stream->serviceId(), nlohmann::json{{"Fps", changeFps}}.dump());
                console.Message(stream->serviceId() + ": frame rate " + std::to_string(changeFps) +
                                " requested, status " + std::to_string(status));
            }
        }
        if (!keyed && opt.keyFrameAt >= 0 && first >= static_cast<uint64_t>(opt.keyFrameAt)) {
            keyed = true;
            for (const auto &stream : streams) {
                int32_t status = host.KeyFrame(stream->serviceId());
                const camhost::StreamFigures f = stream->Figures();
                keyWatch.emplace_back(f.units, f.idrUnits);
                console.Message(stream->serviceId() + ": key frame requested, status " + std::to_string(status));
            }
        }
        // A request the plugin accepts may still reach nothing that encodes.
        for (size_t i = 0; i < keyWatch.size(); ++i) {
            const camhost::StreamFigures f = streams[i]->Figures();
            if (keyWatch[i].first != UINT64_MAX && f.idrUnits > keyWatch[i].second) {
                keyWatch[i].first = UINT64_MAX;
            } else if (keyWatch[i].first != UINT64_MAX && f.units >= keyWatch[i].first + 10) {
                keyWatch[i].first = UINT64_MAX;
                console.Message(streams[i]->serviceId() +
                                ": warning: no key frame followed the request within 10 frames");
            }
        }
        if (total != lastSeen) {
            lastSeen = total;
            lastProgress = now;
        }
        if (now - lastPrint >= std::chrono::milliseconds(console.tty() ? 200 : 1000)) {
            lastPrint = now;
            std::vector<std::string> lines;
            for (const auto &stream : streams) {
                lines.push_back(ProgressLine(*stream, counters));
            }
            console.Progress(lines);
        }
        if (readerGone) {
            console.Message("the reader of the output went away; stopping");
            break;
        }
        if (opt.duration > 0 ? elapsed >= opt.duration : allDone) {
            break;
        }
        if (now - lastProgress > std::chrono::seconds(5)) {
            console.Message("camhost: no frame for 5 s, giving up");
            exitCode = kExitFailed;
            break;
        }
    }
    for (const auto &stream : streams) {
        host.Close(stream->serviceId());
    }
    nlohmann::json summary = {{"cameras", nlohmann::json::array()}};
    std::vector<std::string> failures;
    for (const auto &stream : streams) {
        summary["cameras"].push_back(StreamJson(*stream, counters));
        if (!stream->FinishOutput() && !stream->readerGone()) {
            failures.push_back(stream->serviceId() + ": writing " + stream->output()->description() +
                               " failed: " + stream->output()->writeError());
        }
    }
    for (const auto &stream : streams) {
        std::fprintf(stderr, "summary %s (%llu key frames)\n", ProgressLine(*stream, counters).c_str(),
                     static_cast<unsigned long long>(stream->Figures().idrUnits));
    }
    host.Release();
    for (const auto &failure : failures) {
        exitCode = exitCode != 0 ? exitCode : kExitFailed;
        Fail(failure);
    }
    if (!opt.snapshot.empty()) {
        int w = 0;
        int h = 0;
        std::string error = camhost::WriteSnapshot(streams.front()->LastPictureBytes(), streams.front()->codecType(),
                                                   opt.snapshot, w, h);
        if (!error.empty()) {
            exitCode = exitCode != 0 ? exitCode : kExitFailed;
            Fail("snapshot: " + error);
        } else {
            std::fprintf(stderr, "snapshot %dx%d written to %s\n", w, h, opt.snapshot.c_str());
        }
    }
    if (!opt.statsJson.empty()) {
        summary["exitCode"] = exitCode;
        std::ofstream out(opt.statsJson);
        out << summary.dump(2) << '\n';
        if (!out) {
            exitCode = exitCode != 0 ? exitCode : kExitFailed;
            Fail("cannot write " + opt.statsJson);
        }
    }
    return exitCode;
}
