// SPDX-License-Identifier: Apache-2.0
// Camera handler library checks: the table and records without streaming,
// then refused configurations, then streaming every advertised combination,
// timing, key frames, start/stop cycles and close with a frame in flight.
#include <algorithm>
#include <chrono>
#include <cstring>
#include <functional>
#include <numeric>
#include <optional>
#include <set>
#include <span>
#include <string_view>
#include <thread>

#include "bitstream.h"
#include "camera_sinks.h"
#include "checks.h"
#include "kxcamera/camera_handler.h"
#include "talvo/talvo.h"

namespace kxcompliance {
namespace {

using namespace std::chrono_literals;

constexpr uint32_t kMaxIdLength = 64;
constexpr int64_t kUsPerSecond = 1'000'000;
// Longest silence of a streaming camera, first frame included; also how
// long the checker watches for callbacks after a close.
constexpr int64_t kMaxGapUs = kUsPerSecond;
constexpr double kRateTolerance = 0.10;
constexpr size_t kKeyFrameWithin = 5;
constexpr int kStartStopCycles = 3;
// Held by the callback in the close check, so that close meets a frame in flight.
constexpr auto kInFlightHold = 50ms;

std::string Quoted(const std::string &id)
{
    return "camera \"" + id + "\"";
}

const char *FormatName(uint32_t format)
{
    switch (format) {
    case KX_DATA_FMT_H264:
        return "H.264";
    case KX_DATA_FMT_H265:
        return "H.265";
    case KX_DATA_FMT_RGB565:
        return "RGB565";
    case KX_DATA_FMT_NV21:
        return "NV21";
    default:
        return "unknown";
    }
}

bool Encoded(uint32_t format)
{
    return format == KX_DATA_FMT_H264 || format == KX_DATA_FMT_H265;
}

// Bytes of one packed raw frame; 0 for encoded formats.
uint64_t RawFrameBytes(uint32_t format, uint32_t width, uint32_t height)
{
    const uint64_t pixels = uint64_t{width} * height;
    return format == KX_DATA_FMT_RGB565 ? pixels * 2 : Encoded(format) ? 0 : pixels * 3 / 2;
}

// The capability records, copied while the library lends them.
struct Ability {
    uint32_t format = 0;
    std::vector<KxPictureSize> sizes;
    std::vector<KxFpsRange> ranges;
};

struct Camera {
    std::string id;
    std::vector<Ability> abilities;

    bool operator==(const Camera &other) const
    {
        const auto same = [](const Ability &a, const Ability &b) {
            return a.format == b.format && a.sizes.size() == b.sizes.size() && a.ranges.size() == b.ranges.size() &&
                   std::equal(a.sizes.begin(), a.sizes.end(), b.sizes.begin(),
                              [](auto x, auto y) { return x.width == y.width && x.height == y.height; }) &&
                   std::equal(a.ranges.begin(), a.ranges.end(), b.ranges.begin(),
                              [](auto x, auto y) { return x.min == y.min && x.max == y.max; });
        };
        return id == other.id &&
               std::equal(abilities.begin(), abilities.end(), other.abilities.begin(), other.abilities.end(), same);
    }
};

struct Session {
    KxCameraHandler api{};
    std::vector<Camera> cameras;
    std::vector<std::string> lengthProblems; // from every stream, judged at the end
};

// Opens and starts a camera, waits for `frames` frames, closes it.
struct StreamRun {
    int32_t open = 0;
    int32_t start = 0;
    int32_t close = 0;
    int64_t startedUs = 0;
    size_t midwayAfter = 0; // frames received before `midway` ran
    std::vector<Arrival> frames;
};

// `midway`, if set, runs once half the frames have arrived.
StreamRun Stream(Session &session, const Camera &camera, uint32_t format, KxPictureSize size, uint32_t fps,
                 size_t frames, const std::function<void()> &midway = {})
{
    FrameSink &sink = FrameSink::Get();
    sink.Arm(camera.id, Encoded(format));
    StreamRun run;
    const auto idLen = static_cast<uint32_t>(camera.id.size());
    run.open = session.api.OpenCamera(camera.id.c_str(), idLen, &FrameSink::Callback);
    if (run.open == 0) {
        const KxCameraOpenParams params{camera.id.c_str(), idLen, size.width, size.height, fps, format, 0};
        run.start = session.api.StartCamera(&params);
        run.startedUs = TALVOSystemTimeUs();
        // Room for a stall of the maximum gap on top of twice the stream's time.
        const auto budget = std::chrono::milliseconds(2000 * frames / std::max(fps, 1u) + 2 * kMaxGapUs / 1000);
        if (run.start == 0 && midway) {
            sink.WaitFrames(frames / 2, budget);
            run.midwayAfter = sink.Count();
            midway();
        }
        if (run.start == 0) {
            sink.WaitFrames(frames, budget);
        }
        run.close = session.api.CloseCamera(camera.id.c_str(), idLen);
        sink.MarkClosed();
    }
    run.frames = sink.Frames();
    for (const std::string &problem : sink.Problems()) {
        session.lengthProblems.push_back(Quoted(camera.id) + ": " + problem);
    }
    const uint64_t want = RawFrameBytes(format, size.width, size.height);
    for (size_t i = 0; i < run.frames.size(); ++i) {
        const Arrival &frame = run.frames[i];
        const std::string where = Quoted(camera.id) + " " + FormatName(format) + " " + std::to_string(size.width) +
                                  "x" + std::to_string(size.height) + " frame " + std::to_string(i);
        if (want != 0 && frame.length != want) {
            session.lengthProblems.push_back(where + " has " + std::to_string(frame.length) +
                                             " bytes; the format and size need " + std::to_string(want) +
                                             " (packed, stride = width)");
        } else if (Encoded(format) && !StartsWithStartCode(frame.data)) {
            session.lengthProblems.push_back(where + " is not an Annex B unit (no start code)");
        }
    }
    return run;
}

std::string Describe(const char *call, int32_t status)
{
    return std::string(call) + " returned " + std::to_string(status);
}

bool Streamed(Check &check, const Camera &camera, const StreamRun &run, size_t frames, const std::string &what)
{
    return check.Expect(run.open == 0, Quoted(camera.id) + " " + what + ": " + Describe("OpenCamera", run.open)) &&
           check.Expect(run.start == 0, Quoted(camera.id) + " " + what + ": " + Describe("StartCamera", run.start)) &&
           check.Expect(run.frames.size() >= frames, Quoted(camera.id) + " " + what + ": " +
                                                         std::to_string(run.frames.size()) + " of " +
                                                         std::to_string(frames) + " frames arrived") &&
           check.Expect(run.close == 0, Quoted(camera.id) + " " + what + ": " + Describe("CloseCamera", run.close));
}

// --- without streaming ---------------------------------------------------

std::optional<std::vector<Camera>> ReadCapabilities(Session &session, Check &check)
{
    KxCameraCapability *items = nullptr;
    uint32_t num = 0;
    const int32_t status = session.api.GetCameraCapability(&items, &num);
    if (!check.Expect(status == 0, Describe("GetCameraCapability", status)) ||
        !check.Expect(num == 0 || items != nullptr,
                      "GetCameraCapability gave " + std::to_string(num) + " records and no array")) {
        return std::nullopt;
    }
    std::vector<Camera> cameras;
    for (uint32_t i = 0; i < num; ++i) {
        const KxCameraCapability &item = items[i];
        const std::string at = "record " + std::to_string(i);
        if (!check.Expect(item.id != nullptr && item.idLen > 0 && item.idLen <= kMaxIdLength &&
                              strnlen(item.id, item.idLen + 1) == item.idLen,
                          at + ": id missing, longer than 64 or not NUL-terminated at idLen")) {
            continue;
        }
        Camera camera{std::string(item.id, item.idLen), {}};
        const std::string who = Quoted(camera.id);
        check.Expect(item.abilityNum > 0 && item.abilities != nullptr, who + ": no abilities (or a null list)");
        for (uint32_t a = 0; item.abilities != nullptr && a < item.abilityNum; ++a) {
            const KxCameraAbility &ability = item.abilities[a];
            const std::string where = who + " ability " + std::to_string(a) + " (" + FormatName(ability.dataFmt) + ")";
            if (!check.Expect(ability.sizeNum > 0 && ability.supportSizes != nullptr && ability.fpsRangeNum > 0 &&
                                  ability.supportFpsRanges != nullptr,
                              where + ": sizes or rate ranges missing, or a count without its list")) {
                continue;
            }
            Ability copy{ability.dataFmt, {}, {}};
            for (uint32_t s = 0; s < ability.sizeNum; ++s) {
                const KxPictureSize size = ability.supportSizes[s];
                check.Expect(size.width > 0 && size.height > 0 && size.width % 2 == 0 && size.height % 2 == 0,
                             where + ": size " + std::to_string(size.width) + "x" + std::to_string(size.height) +
                                 " is not even and non-zero");
                copy.sizes.push_back(size);
            }
            for (uint32_t r = 0; r < ability.fpsRangeNum; ++r) {
                const KxFpsRange range = ability.supportFpsRanges[r];
                check.Expect(range.min > 0 && range.min <= range.max,
                             where + ": rate range " + std::to_string(range.min) + "-" + std::to_string(range.max) +
                                 " is empty or starts at 0");
                copy.ranges.push_back(range);
            }
            // The plugin reads any other code as NV21 and then starts the camera with 17.
            check.Expect(std::string_view(FormatName(ability.dataFmt)) != "unknown",
                         where + ": data format " + std::to_string(ability.dataFmt) +
                             " is none of 1, 2, 4 and 17; NV21 must be advertised as 17");
            camera.abilities.push_back(std::move(copy));
        }
        check.Expect(item.extendInfoNum == 0 || item.extendInfos != nullptr,
                     who + ": extendInfoNum without extendInfos");
        for (uint32_t e = 0; item.extendInfos != nullptr && e < item.extendInfoNum; ++e) {
            check.Expect(item.extendInfos[e].key != nullptr && item.extendInfos[e].value != nullptr,
                         who + ": extend info " + std::to_string(e) + " without key or value");
        }
        cameras.push_back(std::move(camera));
    }
    session.api.ReleaseCameraCapability(1, items, num);
    return cameras;
}

void CheckStatic(Report &report, Session &session)
{
    {
        Check check(report, "table", "camera.listener");
        KxServiceListener listener{&ReportSink::OnStatus, &ReportSink::OnAction};
        const int32_t status = session.api.RegisterListener(&listener);
        // Lent for the call only: a library that kept the pointer now calls the stand-ins.
        listener = {&ReportSink::StaleStatus, &ReportSink::StaleAction};
        check.Expect(status == 0, Describe("RegisterListener", status));
        check.Note("accepted; reports are judged for the whole run (camera.reports)");
    }
    {
        Check check(report, "table", "camera.capabilities");
        if (auto cameras = ReadCapabilities(session, check)) {
            session.cameras = std::move(*cameras);
        }
        std::set<std::string> ids;
        for (const Camera &camera : session.cameras) {
            check.Expect(ids.insert(camera.id).second, Quoted(camera.id) + " is listed twice");
        }
        check.Expect(!session.cameras.empty(), "no camera is offered");
        check.Note(std::to_string(session.cameras.size()) + " cameras, records well formed");
    }
    {
        Check check(report, "table", "camera.enumeration");
        for (int call = 2; call <= 3; ++call) {
            Report quietReport(nullptr); // the records were judged above
            Check quiet(quietReport, "", "");
            const auto again = ReadCapabilities(session, quiet);
            check.Expect(again && *again == session.cameras,
                         "call " + std::to_string(call) + " of GetCameraCapability gave other cameras or abilities");
        }
        check.Note("the same list on three calls");
    }
}

// --- refused configurations ------------------------------------------------

void CheckInvalid(Report &report, Session &session)
{
    Check check(report, "configuration", "camera.invalid-config");
    if (session.cameras.empty() || session.cameras[0].abilities.empty()) {
        check.Skip("no camera to configure");
        return;
    }
    const Camera &camera = session.cameras[0];
    const Ability &ability = camera.abilities[0];
    uint32_t maxRate = 0;
    for (const Ability &a : camera.abilities) {
        for (const KxFpsRange &range : a.ranges) {
            maxRate = std::max(maxRate, range.max);
        }
    }
    const KxPictureSize size = ability.sizes[0];
    const uint32_t rate = ability.ranges[0].max;
    const struct {
        const char *what;
        KxPictureSize size;
        uint32_t fps;
        uint32_t format;
    } cases[] = {
        {"size 0x0", {0, 0}, rate, ability.format},
        {"size 16384x16384", {16384, 16384}, rate, ability.format},
        {"data format 0x7fff", size, rate, 0x7fff},
        {"a rate above every range", size, maxRate + 1, ability.format},
    };
    FrameSink &sink = FrameSink::Get();
    sink.Arm(camera.id, false);
    const auto idLen = static_cast<uint32_t>(camera.id.size());
    const int32_t open = session.api.OpenCamera(camera.id.c_str(), idLen, &FrameSink::Callback);
    if (!check.Expect(open == 0, Quoted(camera.id) + ": " + Describe("OpenCamera", open))) {
        return;
    }
    for (const auto &c : cases) {
        const KxCameraOpenParams params{camera.id.c_str(), idLen, c.size.width, c.size.height, c.fps, c.format, 0};
        const int32_t status = session.api.StartCamera(&params);
        check.Expect(status != 0, Quoted(camera.id) + ": StartCamera accepted " + c.what + "; it must refuse it");
    }
    std::this_thread::sleep_for(200ms);
    check.Expect(sink.Count() == 0, Quoted(camera.id) + ": frames arrived although every StartCamera was refused");
    session.api.CloseCamera(camera.id.c_str(), idLen);
    check.Note(std::to_string(std::size(cases)) + " invalid configurations refused");
}

// --- streaming -------------------------------------------------------------

void CheckCombinations(Report &report, Session &session, const Options &options)
{
    Check check(report, "streaming", "camera.combinations");
    size_t runs = 0;
    for (const Camera &camera : session.cameras) {
        for (const Ability &ability : camera.abilities) {
            std::set<uint32_t> rates;
            for (const KxFpsRange &range : ability.ranges) {
                rates.insert({range.min, range.max});
            }
            for (const KxPictureSize size : ability.sizes) {
                for (const uint32_t fps : rates) {
                    const StreamRun run = Stream(session, camera, ability.format, size, fps, options.combinationFrames);
                    Streamed(check, camera, run, options.combinationFrames,
                             std::string(FormatName(ability.format)) + " " + std::to_string(size.width) + "x" +
                                 std::to_string(size.height) + " at " + std::to_string(fps) + " fps");
                    ++runs;
                }
            }
        }
    }
    check.Note(std::to_string(runs) + " format x size x rate combinations streamed");
}

// Offline windows the library reported, per camera: gaps inside them are excused.
bool WithinOffline(const std::vector<ReportSink::Status> &statuses, const std::string &id, int64_t from, int64_t to)
{
    for (size_t i = 0; i < statuses.size(); ++i) {
        if (statuses[i].id != id || statuses[i].status != 2) {
            continue;
        }
        int64_t back = INT64_MAX;
        for (size_t j = i + 1; j < statuses.size(); ++j) {
            if (statuses[j].id == id && statuses[j].status == 1) {
                back = statuses[j].us;
                break;
            }
        }
        if (statuses[i].us <= to && back >= from) {
            return true;
        }
    }
    return false;
}

struct TimingRun {
    const Camera *camera;
    uint32_t format;
    uint32_t fps;
    std::string who;
    int32_t control = 0; // the key-frame request's status
    StreamRun run;
};

void CheckTiming(Report &report, Session &session, const Options &options)
{
    std::vector<TimingRun> runs;
    for (const Camera &camera : session.cameras) {
        if (camera.abilities.empty()) {
            continue;
        }
        // The first ability at its first size and its highest rate.
        const Ability &ability = camera.abilities[0];
        uint32_t fps = 0;
        for (const KxFpsRange &range : ability.ranges) {
            fps = std::max(fps, range.max);
        }
        TimingRun &t = runs.emplace_back(
            TimingRun{&camera, ability.format, fps, Quoted(camera.id) + " at " + std::to_string(fps) + " fps", 0, {}});
        const auto requestKeyFrame = [&] { t.control = session.api.BusinessControl(1, nullptr, 0, nullptr, 0); };
        t.run = Stream(session, camera, ability.format, ability.sizes[0], fps, options.frames,
                       Encoded(ability.format) ? std::function<void()>(requestKeyFrame) : nullptr);
    }
    const std::vector<ReportSink::Status> statuses = ReportSink::Get().Statuses();
    {
        Check check(report, "streaming", "camera.frame-timing");
        std::string note;
        for (const TimingRun &t : runs) {
            if (!Streamed(check, *t.camera, t.run, options.frames, "timing run")) {
                continue;
            }
            const std::vector<Arrival> &frames = t.run.frames;
            std::vector<int64_t> intervals;
            for (size_t i = 1; i < frames.size(); ++i) {
                const int64_t from = frames[i - 1].us;
                const int64_t to = frames[i].us;
                check.Expect(from > 0 && to > from, t.who + ": arrival stamps of frames " + std::to_string(i - 1) +
                                                        " and " + std::to_string(i) + " are not increasing");
                // Gaps over the limit are camera.stall's; reported outages are camera.reports'.
                if (to - from <= kMaxGapUs && !WithinOffline(statuses, t.camera->id, from, to)) {
                    intervals.push_back(to - from);
                }
            }
            // A tenth trimmed off each end: an encoder's warm-up or a scheduling
            // hiccup is not a rate fault, frames dropped by the dozen are.
            std::sort(intervals.begin(), intervals.end());
            const size_t trim = intervals.size() / 10;
            const auto kept = std::span(intervals).subspan(trim, intervals.size() - 2 * trim);
            const double period = static_cast<double>(kUsPerSecond) / t.fps;
            const int64_t sum = std::accumulate(kept.begin(), kept.end(), int64_t{0});
            const double mean = kept.empty() ? 0.0 : static_cast<double>(sum) / static_cast<double>(kept.size());
            const std::string shown = std::to_string(static_cast<int64_t>(mean)) + " us";
            check.Expect(std::abs(mean - period) <= kRateTolerance * period,
                         t.who + ": mean frame interval " + shown + ", not within 10 % of " +
                             std::to_string(static_cast<int64_t>(period)) +
                             " us; frames are dropped or paced at another rate");
            note += (note.empty() ? "" : ", ") + t.who + " " + shown;
        }
        check.Expect(!FrameSink::Get().Overlapped(), "frame callbacks overlapped; deliver one camera's frames one "
                                                     "at a time");
        check.Note("mean intervals: " + note);
    }
    {
        Check check(report, "streaming", "camera.stall");
        int64_t longest = 0;
        for (const TimingRun &t : runs) {
            const std::vector<Arrival> &frames = t.run.frames;
            if (frames.empty()) {
                continue; // camera.frame-timing says so
            }
            check.Expect(frames[0].us - t.run.startedUs <= kMaxGapUs,
                         t.who + ": first frame " + std::to_string((frames[0].us - t.run.startedUs) / 1000) +
                             " ms after StartCamera returned; at most 1000 ms");
            for (size_t i = 1; i < frames.size(); ++i) {
                const int64_t gap = frames[i].us - frames[i - 1].us;
                longest = std::max(longest, gap);
                check.Expect(gap <= kMaxGapUs || WithinOffline(statuses, t.camera->id, frames[i - 1].us, frames[i].us),
                             t.who + ": no frame for " + std::to_string(gap / 1000) + " ms after frame " +
                                 std::to_string(i - 1) + "; a streaming camera must never stall for over 1000 ms");
            }
        }
        check.Note("longest gap " + std::to_string(longest / 1000) + " ms");
    }
    Check check(report, "streaming", "camera.keyframe");
    size_t checked = 0;
    for (const TimingRun &t : runs) {
        if (!Encoded(t.format) || t.run.frames.empty()) {
            continue;
        }
        const Codec codec = t.format == KX_DATA_FMT_H265 ? Codec::kH265 : Codec::kH264;
        const std::vector<Arrival> &frames = t.run.frames;
        check.Expect(IsIdrWithParameterSets(codec, frames[0].data),
                     t.who + ": the first unit is not an IDR with its parameter sets; a decoder cannot start");
        check.Expect(t.control == 0, t.who + ": " + Describe("BusinessControl(1) (key frame)", t.control));
        bool found = false;
        for (size_t i = t.run.midwayAfter; i < frames.size() && i < t.run.midwayAfter + kKeyFrameWithin; ++i) {
            found = found || IsIdrWithParameterSets(codec, frames[i].data);
        }
        check.Expect(found, t.who + ": no IDR with parameter sets within 5 frames of the key-frame request");
        ++checked;
    }
    if (checked == 0) {
        check.Skip("no self-encoding camera");
    }
    check.Note(std::to_string(checked) + " self-encoding cameras: IDR first and within 5 frames of a request");
}

void CheckStartStop(Report &report, Session &session)
{
    Check check(report, "streaming", "camera.start-stop");
    for (const Camera &camera : session.cameras) {
        if (camera.abilities.empty()) {
            continue;
        }
        const Ability &ability = camera.abilities[0];
        for (int cycle = 1; cycle <= kStartStopCycles; ++cycle) {
            const StreamRun run = Stream(session, camera, ability.format, ability.sizes[0], ability.ranges[0].max, 2);
            if (!Streamed(check, camera, run, 2, "cycle " + std::to_string(cycle))) {
                break;
            }
        }
    }
    check.Note(std::to_string(kStartStopCycles) + " open/start/close cycles per camera");
}

// The plugin changes a streaming camera's rate with item 1 and decimal text.
void CheckUpdateConfig(Report &report, Session &session)
{
    Check check(report, "streaming", "camera.update-config");
    for (const Camera &camera : session.cameras) {
        if (camera.abilities.empty()) {
            continue;
        }
        const Ability &ability = camera.abilities[0];
        const KxFpsRange range = ability.ranges[0];
        const auto idLen = static_cast<uint32_t>(camera.id.size());
        const auto update = [&](uint32_t fps) {
            const std::string text = std::to_string(fps);
            return session.api.UpdateConfig(camera.id.c_str(), idLen, 1, text.c_str(),
                                            static_cast<uint32_t>(text.size()));
        };
        uint32_t maxRate = 0;
        for (const Ability &a : camera.abilities) {
            for (const KxFpsRange &r : a.ranges) {
                maxRate = std::max(maxRate, r.max);
            }
        }
        int32_t inside = 0;
        int32_t outside = 0;
        const StreamRun run = Stream(session, camera, ability.format, ability.sizes[0], range.max, 4, [&] {
            inside = update(range.min);
            outside = update(maxRate + 1);
        });
        if (!Streamed(check, camera, run, 4, "rate change")) {
            continue;
        }
        check.Expect(inside == 0, Quoted(camera.id) + ": UpdateConfig to " + std::to_string(range.min) +
                                      " fps, inside its range, returned " + std::to_string(inside));
        check.Expect(outside != 0, Quoted(camera.id) + ": UpdateConfig accepted " + std::to_string(maxRate + 1) +
                                       " fps, above every range; it must refuse it");
    }
    check.Note("rates inside a range taken while streaming, others refused; frames go on");
}

void CheckCloseInFlight(Report &report, Session &session)
{
    Check check(report, "streaming", "camera.close-in-flight");
    FrameSink &sink = FrameSink::Get();
    for (const Camera &camera : session.cameras) {
        if (camera.abilities.empty()) {
            continue;
        }
        const Ability &ability = camera.abilities[0];
        const auto idLen = static_cast<uint32_t>(camera.id.size());
        sink.Arm(camera.id, false, kInFlightHold);
        if (!check.Expect(session.api.OpenCamera(camera.id.c_str(), idLen, &FrameSink::Callback) == 0,
                          Quoted(camera.id) + ": OpenCamera failed")) {
            continue;
        }
        const KxPictureSize size = ability.sizes[0];
        const KxCameraOpenParams params{camera.id.c_str(),     idLen,          size.width, size.height,
                                        ability.ranges[0].max, ability.format, 0};
        const int32_t start = session.api.StartCamera(&params);
        const bool inFlight = start == 0 && sink.WaitInside(std::chrono::milliseconds(2 * kMaxGapUs / 1000));
        const int64_t before = TALVOSystemTimeUs();
        const int32_t close = session.api.CloseCamera(camera.id.c_str(), idLen);
        sink.MarkClosed();
        const int64_t took = TALVOSystemTimeUs() - before;
        if (!check.Expect(start == 0 && inFlight, Quoted(camera.id) + ": no frame arrived to close against")) {
            continue;
        }
        check.Expect(close == 0, Quoted(camera.id) + ": " + Describe("CloseCamera with a frame in flight", close));
        check.Expect(took <= kMaxGapUs, Quoted(camera.id) + ": CloseCamera took " + std::to_string(took / 1000) +
                                            " ms with a frame in flight; at most 1000 ms");
        std::this_thread::sleep_for(std::chrono::microseconds(kMaxGapUs));
        const std::vector<int64_t> late = sink.Late();
        check.Expect(late.empty(), Quoted(camera.id) + ": " + std::to_string(late.size()) +
                                       " frame callbacks after CloseCamera returned (the first " +
                                       std::to_string(late.empty() ? 0 : late[0] / 1000) +
                                       " ms after); the plugin frees the camera's state once close returns");
    }
    check.Note("close returns promptly and ends the callbacks");
}

void CheckReports(Report &report, Session &session)
{
    {
        Check check(report, "streaming", "camera.frame-length");
        for (const std::string &problem : session.lengthProblems) {
            check.Fail(problem);
        }
        check.Note("every frame of every run has the length its format and size need");
    }
    Check check(report, "streaming", "camera.reports");
    for (const std::string &problem : ReportSink::Get().Problems()) {
        check.Fail(problem);
    }
    const std::vector<ReportSink::Status> statuses = ReportSink::Get().Statuses();
    for (const ReportSink::Status &status : statuses) {
        const bool known = std::any_of(session.cameras.begin(), session.cameras.end(),
                                       [&](const Camera &c) { return c.id == status.id; });
        check.Expect(known, "status report for " + Quoted(status.id) + ", which GetCameraCapability does not list");
        check.Expect(status.status != 2, Quoted(status.id) + " reported itself offline (status 2) during the run; "
                                                             "a camera that streams must stay online, and the "
                                                             "framework drops a device that goes away");
    }
    check.Note(std::to_string(statuses.size()) + " status reports, all well formed");
}

} // namespace

void CheckCameraLibrary(Report &report, const std::string &path, const Options &options)
{
    Session session;
    bool usable = false;
    bool loaded = false;
    {
        Check check(report, "table", "camera.load");
        const std::string error = LoadVendorTable(path, KX_CAMERA_HANDLER_GETTER, &session.api);
        loaded = check.Expect(error.empty(), error);
        check.Note(path);
    }
    {
        Check check(report, "table", "camera.table");
        if (!loaded) {
            check.Skip("the library did not load");
        } else {
            const void *slots[] = {
                reinterpret_cast<const void *>(session.api.OpenCamera),
                reinterpret_cast<const void *>(session.api.StartCamera),
                reinterpret_cast<const void *>(session.api.CloseCamera),
                reinterpret_cast<const void *>(session.api.UpdateConfig),
                reinterpret_cast<const void *>(session.api.GetCameraCapability),
                nullptr, // slot 5 is never called and may be null
                reinterpret_cast<const void *>(session.api.ReleaseCameraCapability),
                reinterpret_cast<const void *>(session.api.RegisterListener),
                reinterpret_cast<const void *>(session.api.BusinessControl),
            };
            static constexpr const char *kNames[] = {"OpenCamera",
                                                     "StartCamera",
                                                     "CloseCamera",
                                                     "UpdateConfig",
                                                     "GetCameraCapability",
                                                     "Reserved5",
                                                     "ReleaseCameraCapability",
                                                     "RegisterListener",
                                                     "BusinessControl"};
            usable = true;
            for (size_t i = 0; i < std::size(slots); ++i) {
                usable = check.Expect(i == 5 || slots[i] != nullptr,
                                      "slot " + std::to_string(i) + " (" + kNames[i] +
                                          ") is null; the plugin refuses a table with an empty required slot") &&
                         usable;
            }
            check.Note("the eight required slots are set");
        }
    }
    static constexpr const char *kStreamingChecks[] = {
        "camera.invalid-config", "camera.combinations", "camera.frame-timing",  "camera.stall",
        "camera.keyframe",       "camera.start-stop",   "camera.update-config", "camera.close-in-flight",
        "camera.frame-length",   "camera.reports"};
    if (!usable) {
        for (const char *id : {"camera.listener", "camera.capabilities", "camera.enumeration"}) {
            Check(report, "table", id).Skip("the library's table is not usable");
        }
    } else {
        CheckStatic(report, session);
    }
    if (session.cameras.empty()) {
        for (const char *id : kStreamingChecks) {
            Check(report, "streaming", id).Skip(usable ? "no camera to stream" : "the library's table is not usable");
        }
        return;
    }
    CheckInvalid(report, session);
    CheckCombinations(report, session, options);
    CheckTiming(report, session, options);
    CheckStartStop(report, session);
    CheckUpdateConfig(report, session);
    CheckCloseInFlight(report, session);
    CheckReports(report, session);
}

} // namespace kxcompliance
