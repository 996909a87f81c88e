// SPDX-License-Identifier: Apache-2.0
// Video encoder library checks: the table and ability records, refused
// parameters, then one encoding run judged unit by unit and by libavcodec,
// then destroying an instance right after a frame.
#include <algorithm>
#include <chrono>
#include <climits>
#include <condition_variable>
#include <mutex>
#include <optional>
#include <thread>

#include "bitstream.h"
#include "checks.h"
#include "kxcamera/video_encoder.h"

namespace kxcompliance {
namespace {

using namespace std::chrono_literals;

// Not square, so that a library that swaps width and height shows.
constexpr int32_t kWidth = 640;
constexpr int32_t kHeight = 360;
constexpr uint32_t kFps = 30;
constexpr uint32_t kBitRate = 1'500'000;
// Above 2^32, so that a library keeping time stamps in 32 bits shows.
constexpr int64_t kFirstStamp = 5'000'000'000;
constexpr int64_t kStampStep = 33'333;

struct Unit {
    int64_t timeStamp;
    std::vector<uint8_t> bytes;
};

// Units that come through the output callback.
class OutputSink {
public:
    static OutputSink &Get()
    {
        static OutputSink sink;
        return sink;
    }

    static void Callback(const KxVencOutput *output, void *privateData)
    {
        OutputSink &sink = Get();
        {
            const std::lock_guard lock(sink.mutex_);
            if (sink.destroyed_) {
                ++sink.late_;
            }
            if (privateData != &sink || output == nullptr) {
                ++sink.wrongArguments_;
            } else if (output->bsBuf != nullptr && output->bsLength > 0) {
                sink.units_.push_back({output->timeStamp, {output->bsBuf, output->bsBuf + output->bsLength}});
            }
        }
        sink.changed_.notify_all();
    }

    void Reset()
    {
        const std::lock_guard lock(mutex_);
        units_.clear();
        destroyed_ = false;
        late_ = 0;
        wrongArguments_ = 0;
    }

    std::optional<Unit> Wait(size_t index, std::chrono::milliseconds timeout)
    {
        std::unique_lock lock(mutex_);
        if (!changed_.wait_for(lock, timeout, [&] { return units_.size() > index; })) {
            return std::nullopt;
        }
        return units_[index];
    }

    size_t Count()
    {
        const std::lock_guard lock(mutex_);
        return units_.size();
    }

    void MarkDestroyed()
    {
        const std::lock_guard lock(mutex_);
        destroyed_ = true;
    }

    int Late()
    {
        const std::lock_guard lock(mutex_);
        return late_;
    }

    int WrongArguments()
    {
        const std::lock_guard lock(mutex_);
        return wrongArguments_;
    }

private:
    std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<Unit> units_;
    bool destroyed_ = false;
    int late_ = 0;
    int wrongArguments_ = 0;
};

// A moving ramp, so that every frame differs from the last; 4:2:0 in the
// chosen colour space, planes packed.
std::vector<uint8_t> MakeFrame(int32_t csp, uint32_t index)
{
    const size_t luma = size_t{kWidth} * kHeight;
    std::vector<uint8_t> frame(luma * 3 / 2, 128);
    for (int32_t y = 0; y < kHeight; ++y) {
        for (int32_t x = 0; x < kWidth; ++x) {
            frame[static_cast<size_t>(y) * kWidth + x] = static_cast<uint8_t>(x + y + 4 * index);
        }
    }
    if (csp != KX_CSP_I420) {
        for (size_t i = luma; i < frame.size(); i += 2) {
            frame[i] = static_cast<uint8_t>(96 + index % 64); // one chroma plane moves, so order matters
        }
    }
    return frame;
}

std::string Describe(const char *call, int32_t status)
{
    return std::string(call) + " returned " + std::to_string(status);
}

struct Setup {
    KxVideoEncoderHandler api{};
    KxVencAbility ability{};
    int32_t csp = -1;
};

// The plugin's choice: the lowest of I420, NV12, NV21 in the first ability's mask.
int32_t ChooseCsp(int32_t mask)
{
    for (int32_t csp : {KX_CSP_I420, KX_CSP_NV12, KX_CSP_NV21}) {
        if ((mask & (1 << csp)) != 0) {
            return csp;
        }
    }
    return -1;
}

void CheckAbility(Report &report, Setup &setup)
{
    Check check(report, "table", "encoder.ability");
    KxVencAbility abilities[3] = {};
    std::fill(std::begin(abilities), std::end(abilities), KxVencAbility{-7, -7, -7, -7, -7, -7, -7, -7, -7, -7, -7});
    uint32_t num = 99;
    const int32_t status = setup.api.VideoEncoderGetAbility(abilities, 2, &num);
    if (!check.Expect(status == 0, Describe("VideoEncoderGetAbility", status)) ||
        !check.Expect(num >= 1 && num <= 2,
                      "VideoEncoderGetAbility reported " + std::to_string(num) + " abilities for a capacity of 2")) {
        return;
    }
    check.Expect(abilities[2].codecType == -7, "VideoEncoderGetAbility wrote past the capacity of 2 records");
    const KxVencAbility &a = abilities[0];
    check.Expect(a.codecType == 0, "the first ability has codecType " + std::to_string(a.codecType) +
                                       "; the plugin encodes with codecType 0");
    setup.ability = a;
    setup.csp = ChooseCsp(a.cspTypeMask);
    check.Expect(setup.csp >= 0,
                 "cspTypeMask " + std::to_string(a.cspTypeMask) + " has none of I420, NV12, NV21 (bits 0 to 2)");
    check.Expect(a.minEncWidth > 0 && a.minEncHeigth > 0 && a.minEncWidth <= a.maxEncWidth &&
                     a.minEncHeigth <= a.maxEncHeight,
                 "size limits are zero or out of order");
    check.Expect(a.minEncWidth <= kWidth && kWidth <= a.maxEncWidth && a.minEncHeigth <= kHeight &&
                     kHeight <= a.maxEncHeight,
                 "640x360 is outside the ability's sizes; the plugin streams such sizes");
    check.Expect(a.maxCodecNum > 0, "maxCodecNum is " + std::to_string(a.maxCodecNum) + "; it must be above 0");
    check.Note(std::to_string(num) + " abilities, colour space " + std::to_string(setup.csp) + " chosen");
}

void *Create(const Setup &setup, int32_t width, int32_t height, int32_t csp, int32_t &status)
{
    KxVencCreateParams params{};
    params.width = static_cast<uint32_t>(width);
    params.height = static_cast<uint32_t>(height);
    params.mColorType = static_cast<uint32_t>(csp);
    params.privateData = &OutputSink::Get();
    params.outputCallback = &OutputSink::Callback;
    void *handle = nullptr;
    status = setup.api.VideoEncoderCreate(&handle, &params);
    return handle;
}

// An even side beyond `max`, however large the library claims it to be.
int32_t Above(int32_t max)
{
    return max > INT32_MAX - 64 ? INT32_MAX - 1 : max + 64;
}

void CheckInvalid(Report &report, const Setup &setup)
{
    Check check(report, "configuration", "encoder.invalid-params");
    const struct {
        const char *what;
        int32_t width;
        int32_t height;
        int32_t csp;
    } cases[] = {
        {"size 0x0", 0, 0, setup.csp},
        {"a size above maxEncWidth x maxEncHeight", Above(setup.ability.maxEncWidth), Above(setup.ability.maxEncHeight),
         setup.csp},
        {"colour space 31", kWidth, kHeight, 31},
    };
    for (const auto &c : cases) {
        int32_t status = 0;
        void *handle = Create(setup, c.width, c.height, c.csp, status);
        if (!check.Expect(status < 0, "VideoEncoderCreate accepted " + std::string(c.what) + "; it must refuse it") &&
            handle != nullptr) {
            setup.api.VideoEncoderDestroy(&handle);
        }
    }
    check.Note(std::to_string(std::size(cases)) + " invalid creations refused");
}

void CheckEncoding(Report &report, const Setup &setup, const Options &options)
{
    OutputSink &sink = OutputSink::Get();
    sink.Reset();
    int32_t status = 0;
    void *handle = Create(setup, kWidth, kHeight, setup.csp, status);
    const KxVencConfigParams config{kFps, kFps, kBitRate, kBitRate, 0};
    const int32_t configured = status < 0 ? status : setup.api.VideoEncoderConfigure(handle, &config);
    std::vector<Unit> units;
    std::vector<int64_t> stamps;
    std::vector<std::string> heldBack;
    std::vector<std::string> processFailures;
    const auto frameTime = std::chrono::milliseconds(1000 / kFps);
    for (uint32_t i = 0; configured >= 0 && i < options.frames; ++i) {
        std::vector<uint8_t> frame = MakeFrame(setup.csp, i);
        const int64_t stamp = kFirstStamp + i * kStampStep + i % 3; // uneven, so nothing can be guessed
        stamps.push_back(stamp);
        const KxVencInputFrame input{frame.data(), static_cast<uint32_t>(frame.size()), setup.csp,
                                     stamp,        static_cast<uint32_t>(kWidth),       static_cast<uint32_t>(kHeight)};
        KxVencOutput output{};
        const size_t before = sink.Count();
        const int32_t processed = setup.api.VideoEncoderProcess(handle, &input, 0, &output);
        if (processed != 0) {
            processFailures.push_back("frame " + std::to_string(i) + ": " + Describe("VideoEncoderProcess", processed));
            continue;
        }
        if (output.bsBuf != nullptr && output.bsLength > 0) {
            units.push_back({output.timeStamp, {output.bsBuf, output.bsBuf + output.bsLength}});
            if (sink.Count() > before) {
                heldBack.push_back("frame " + std::to_string(i) + " came out twice, returned and through the callback");
            }
        } else if (auto unit = sink.Wait(before, frameTime)) {
            units.push_back(std::move(*unit));
        } else {
            heldBack.push_back("frame " + std::to_string(i) +
                               " gave no unit, neither returned nor through the "
                               "callback within one frame time");
        }
    }
    if (handle != nullptr) {
        setup.api.VideoEncoderDestroy(&handle);
    }
    const bool ran = status >= 0 && configured >= 0;
    const std::string notRun = "no encoder: " + Describe(status < 0 ? "VideoEncoderCreate" : "VideoEncoderConfigure",
                                                         status < 0 ? status : configured);
    {
        Check check(report, "encoding", "encoder.one-in-one-out");
        check.Expect(ran, notRun);
        for (const std::string &failure : processFailures) {
            check.Fail(failure);
        }
        for (const std::string &held : heldBack) {
            check.Fail(held + "; the plugin posts one unit per frame and holds none back");
        }
        check.Expect(sink.WrongArguments() == 0, "the output callback came without output or with another "
                                                 "privateData than VideoEncoderCreate was given");
        check.Note(std::to_string(units.size()) + " frames in, " + std::to_string(units.size()) + " units out");
    }
    {
        Check check(report, "encoding", "encoder.first-idr");
        if (units.empty()) {
            check.Skip("no unit came out");
        } else {
            check.Expect(IsIdrWithParameterSets(Codec::kH264, units[0].bytes),
                         "the first unit is not an IDR with SPS and PPS; a decoder cannot start");
        }
        check.Note("unit 0 is an IDR with SPS and PPS");
    }
    {
        Check check(report, "encoding", "encoder.annexb");
        Decoder decoder(Codec::kH264);
        std::vector<PictureSize> pictures;
        for (size_t i = 0; i < units.size(); ++i) {
            check.Expect(StartsWithStartCode(units[i].bytes), "unit " + std::to_string(i) +
                                                                  " does not begin with an "
                                                                  "Annex B start code");
            if (decoder.available()) {
                if (const auto complaint = decoder.Decode(units[i].bytes, pictures)) {
                    check.Fail("unit " + std::to_string(i) + " does not decode: " + *complaint);
                }
            }
        }
        if (!decoder.available()) {
            check.Skip("built without libavcodec: units not decoded");
        } else if (!units.empty()) {
            decoder.Decode({}, pictures);
            check.Expect(pictures.size() == units.size(), std::to_string(units.size()) + " units decode to " +
                                                              std::to_string(pictures.size()) + " pictures");
            for (size_t i = 0; i < pictures.size(); ++i) {
                check.Expect(pictures[i].width == kWidth && pictures[i].height == kHeight,
                             "picture " + std::to_string(i) + " is " + std::to_string(pictures[i].width) + "x" +
                                 std::to_string(pictures[i].height) +
                                 ", not 640x360 as created (height comes "
                                 "before width in the create record)");
            }
        }
        check.Note(std::to_string(pictures.size()) + " pictures of 640x360 decoded");
    }
    {
        Check check(report, "encoding", "encoder.timestamps");
        for (size_t i = 0; i < units.size() && i < stamps.size(); ++i) {
            check.Expect(units[i].timeStamp == stamps[i],
                         "unit " + std::to_string(i) + " carries time stamp " + std::to_string(units[i].timeStamp) +
                             ", the frame had " + std::to_string(stamps[i]) +
                             "; pass the input's 64-bit microseconds through unchanged");
        }
        if (units.empty()) {
            check.Skip("no unit came out");
        }
        check.Note("every unit carries its frame's time stamp");
    }
}

void CheckDestroy(Report &report, const Setup &setup)
{
    Check check(report, "encoding", "encoder.destroy");
    OutputSink &sink = OutputSink::Get();
    sink.Reset();
    int32_t status = 0;
    void *handle = Create(setup, kWidth, kHeight, setup.csp, status);
    const KxVencConfigParams config{kFps, kFps, kBitRate, kBitRate, 0};
    if (!check.Expect(status >= 0 && handle != nullptr, Describe("VideoEncoderCreate", status)) ||
        !check.Expect(setup.api.VideoEncoderConfigure(handle, &config) >= 0, "VideoEncoderConfigure failed")) {
        return;
    }
    std::vector<uint8_t> frame = MakeFrame(setup.csp, 0);
    const KxVencInputFrame input{frame.data(), static_cast<uint32_t>(frame.size()), setup.csp,
                                 kFirstStamp,  static_cast<uint32_t>(kWidth),       static_cast<uint32_t>(kHeight)};
    KxVencOutput output{};
    setup.api.VideoEncoderProcess(handle, &input, 0, &output);
    const int32_t destroyed = setup.api.VideoEncoderDestroy(&handle);
    sink.MarkDestroyed();
    check.Expect(destroyed == 0, Describe("VideoEncoderDestroy right after a frame", destroyed));
    check.Expect(handle == nullptr, "VideoEncoderDestroy left the handle set");
    std::this_thread::sleep_for(100ms);
    check.Expect(sink.Late() == 0, "the output callback ran after VideoEncoderDestroy returned");
    check.Note("destroyed right after a frame, no callback after");
}

} // namespace

void CheckEncoderLibrary(Report &report, const std::string &path, const Options &options)
{
    Setup setup;
    bool usable = false;
    bool loaded = false;
    {
        Check check(report, "table", "encoder.load");
        const std::string error = LoadVendorTable(path, KX_VIDEO_ENCODER_GETTER, &setup.api);
        loaded = check.Expect(error.empty(), error);
        check.Note(path);
    }
    {
        Check check(report, "table", "encoder.table");
        if (!loaded) {
            check.Skip("the library did not load");
        } else {
            const void *slots[] = {
                reinterpret_cast<const void *>(setup.api.VideoEncoderGetAbility),
                reinterpret_cast<const void *>(setup.api.VideoEncoderCreate),
                reinterpret_cast<const void *>(setup.api.VideoEncoderConfigure),
                reinterpret_cast<const void *>(setup.api.VideoEncoderProcess),
                reinterpret_cast<const void *>(setup.api.VideoEncoderDestroy),
            };
            usable = std::all_of(std::begin(slots), std::end(slots), [](const void *slot) { return slot != nullptr; });
            check.Expect(usable, "a slot of the five is null; the plugin then runs without an encoder");
            check.Note("the five slots are set");
        }
    }
    if (usable) {
        CheckAbility(report, setup);
    } else {
        Check(report, "table", "encoder.ability").Skip("the library's table is not usable");
    }
    if (!usable || setup.csp < 0) {
        for (const char *id : {"encoder.invalid-params", "encoder.one-in-one-out", "encoder.first-idr",
                               "encoder.annexb", "encoder.timestamps", "encoder.destroy"}) {
            Check(report, "encoding", id).Skip("the library's table or ability is not usable");
        }
        return;
    }
    CheckInvalid(report, setup);
    CheckEncoding(report, setup, options);
    CheckDestroy(report, setup);
}

} // namespace kxcompliance
