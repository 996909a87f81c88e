// SPDX-License-Identifier: Apache-2.0
// Micro-benchmarks of the plugin's per-frame and per-query paths, each
// registered beside the baseline it is judged against (name suffix
// "Baseline"): the ratio of the two in one run is the figure that counts.
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>
#include <libyuv.h>
#include <nlohmann/json.hpp>

#include "kxcamera/color_convert.h"
#include "kxcamera/plugin.h"
#include "registry/registry.h"
#include "talvo/talvo.h"
#include "video/video.h"

namespace {

constexpr int64_t kSizes[][2] = {{1280, 720}, {1920, 1080}};

void FrameSizes(benchmark::internal::Benchmark *b)
{
    for (const auto &size : kSizes) {
        b->Args({size[0], size[1]});
    }
}

std::vector<uint8_t> Bytes(size_t n)
{
    std::vector<uint8_t> bytes(n);
    for (size_t i = 0; i < n; ++i) {
        bytes[i] = static_cast<uint8_t>(i * 7 + (i >> 11));
    }
    return bytes;
}

// ---- the plugin loaded with the virtual camera: "0" raw, "1" H.264 ----

int32_t Announce(const KxServiceIdDesc *, const KxServiceOps *)
{
    return 0;
}
int32_t Withdraw(const KxServiceIdDesc *)
{
    return 0;
}

// Takes each unit over and frees it, as the framework does.
int32_t FreeUnit(const KxServiceIdDesc *, const KxCommand *message, void *)
{
    const auto *payload = static_cast<const KxCallbackPayload *>(message->output);
    auto *unit = static_cast<KxVideoAccessUnit *>(payload->data);
    TalvoFree(unit->data);
    TalvoFree(unit);
    return 0;
}

class LoadedModule {
public:
    static LoadedModule &Get()
    {
        static LoadedModule module;
        return module;
    }

    bool ok() const { return raw_ != nullptr && passThrough_ != nullptr; }
    ~LoadedModule()
    {
        if (table_.releaseService != nullptr) {
            table_.releaseService();
        }
    }

    KxCameraService *raw() const { return raw_; }
    const KxServiceHandler &table() const { return table_; }

    // The raw camera as a running encoder thread leaves it, without the
    // thread: the benchmark takes the frames off the queue itself.
    void ArmRawQueue()
    {
        (void)TALVOMutexInit(&raw_->vencLock);
        raw_->vencQueue.first = reinterpret_cast<TALVODllNode *>(&raw_->vencQueue);
        raw_->vencQueue.last = reinterpret_cast<TALVODllNode *>(&raw_->vencQueue);
        raw_->vencQueue.count = 0;
        __atomic_store_n(&raw_->vencRunning, 1, __ATOMIC_RELEASE);
        __atomic_store_n(&raw_->laneGate, 1, __ATOMIC_RELEASE);
    }

    void DisarmRawQueue()
    {
        __atomic_store_n(&raw_->laneGate, 0, __ATOMIC_RELEASE);
        __atomic_store_n(&raw_->vencRunning, 0, __ATOMIC_RELEASE);
        (void)TALVOMutexDestroy(&raw_->vencLock);
    }

private:
    LoadedModule()
    {
        KxServiceCallbacks callbacks{Announce, Withdraw, nullptr};
        if (TALVOGetCameraServiceHandler(&table_) != 0 || table_.loadService(&callbacks) != 0) {
            return;
        }
        raw_ = GetCameraHandlerByVendorId("0", 1);
        passThrough_ = GetCameraHandlerByVendorId("1", 1);
        if (passThrough_ == nullptr) {
            return;
        }
        KxServiceIdDesc id{passThrough_->serviceId, passThrough_->serviceIdLen, 1};
        (void)table_.setCmdCb(&id, FreeUnit, nullptr);
        passThrough_->negParams.codecType = 1;
    }

    KxServiceHandler table_{};
    KxCameraService *raw_ = nullptr;
    KxCameraService *passThrough_ = nullptr;
};

// Frame intake on the raw road: copy into a unit, queue it; the loop then
// takes it off the queue and frees it, as the encoder thread would.
void BM_IntakeRaw(benchmark::State &state)
{
    LoadedModule &module = LoadedModule::Get();
    if (!module.ok()) {
        state.SkipWithError("plugin did not load the virtual camera");
        return;
    }
    const auto frame = Bytes(static_cast<size_t>(state.range(0) * state.range(1) * 3 / 2));
    module.ArmRawQueue();
    for (auto _ : state) {
        if (OutputCameraDataCB("0", 1, frame.data(), static_cast<uint32_t>(frame.size())) != 0) {
            state.SkipWithError("intake refused the frame");
            break;
        }
        TALVODllNode *node = GetVencUnit(module.raw());
        benchmark::DoNotOptimize(node);
        FreeVideoNode(node);
    }
    module.DisarmRawQueue();
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(frame.size()));
}
BENCHMARK(BM_IntakeRaw)->Apply(FrameSizes);

// Frame intake on the pass-through road: copy into a unit, hand it on.
void BM_IntakePassThrough(benchmark::State &state)
{
    if (!LoadedModule::Get().ok()) {
        state.SkipWithError("plugin did not load the virtual camera");
        return;
    }
    // An encoded stream is far smaller than a raw frame; judge the copy anyway
    // at the raw size, the worst case.
    const auto frame = Bytes(static_cast<size_t>(state.range(0) * state.range(1) * 3 / 2));
    for (auto _ : state) {
        if (OutputCameraDataCB("1", 1, frame.data(), static_cast<uint32_t>(frame.size())) != 0) {
            state.SkipWithError("intake refused the frame");
            break;
        }
    }
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(frame.size()));
}
BENCHMARK(BM_IntakePassThrough)->Apply(FrameSizes);

// The same bytes copied into a fresh buffer that is then freed.
void BM_IntakeBaseline(benchmark::State &state)
{
    const auto frame = Bytes(static_cast<size_t>(state.range(0) * state.range(1) * 3 / 2));
    for (auto _ : state) {
        void *copy = std::malloc(frame.size());
        std::memcpy(copy, frame.data(), frame.size());
        benchmark::DoNotOptimize(copy);
        std::free(copy);
    }
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(frame.size()));
}
BENCHMARK(BM_IntakeBaseline)->Apply(FrameSizes);

// ---- colour conversion: the plugin's entry against libyuv called directly ----

struct Conversion {
    int32_t from;
    int32_t to;
};
constexpr Conversion kConversions[] = {
    {KX_CSP_NV21, KX_CSP_I420}, {KX_CSP_I420, KX_CSP_NV12}, {KX_CSP_RGB565, KX_CSP_I420}};

size_t ImageBytes(int32_t csp, int w, int h)
{
    return csp == KX_CSP_RGB565 ? size_t(w) * h * 2 : size_t(w) * h * 3 / 2;
}

void ConversionArgs(benchmark::internal::Benchmark *b)
{
    for (size_t c = 0; c < std::size(kConversions); ++c) {
        for (const auto &size : kSizes) {
            b->Args({static_cast<int64_t>(c), size[0], size[1]});
        }
    }
}

void Label(benchmark::State &state, const Conversion &c)
{
    static constexpr const char *kNames[] = {"I420", "NV12", "NV21", "?", "RGB565"};
    state.SetLabel(std::string(kNames[c.from]) + "->" + kNames[c.to]);
}

void BM_ColorConvert(benchmark::State &state)
{
    const Conversion c = kConversions[state.range(0)];
    const int w = static_cast<int>(state.range(1));
    const int h = static_cast<int>(state.range(2));
    auto src = Bytes(ImageBytes(c.from, w, h));
    std::vector<uint8_t> dst(ImageBytes(c.to, w, h));
    const KxImage in{c.from, w, h, c.from == KX_CSP_RGB565 ? 2 * w : w, src.data()};
    const KxImage out{c.to, w, h, w, dst.data()};
    for (auto _ : state) {
        if (TALVOColorConvert(&in, &out) < 0) {
            state.SkipWithError("conversion refused");
            break;
        }
        benchmark::DoNotOptimize(dst.data());
    }
    Label(state, c);
}
BENCHMARK(BM_ColorConvert)->Apply(ConversionArgs);

void BM_ColorConvertBaseline(benchmark::State &state)
{
    const Conversion c = kConversions[state.range(0)];
    const int w = static_cast<int>(state.range(1));
    const int h = static_cast<int>(state.range(2));
    auto src = Bytes(ImageBytes(c.from, w, h));
    std::vector<uint8_t> dst(ImageBytes(c.to, w, h));
    const size_t luma = size_t(w) * h;
    uint8_t *s = src.data();
    uint8_t *d = dst.data();
    for (auto _ : state) {
        int ret = -1;
        if (c.from == KX_CSP_NV21) {
            ret = libyuv::NV21ToI420(s, w, s + luma, w, d, w, d + luma, w / 2, d + luma * 5 / 4, w / 2, w, h);
        } else if (c.from == KX_CSP_I420) {
            ret = libyuv::I420ToNV12(s, w, s + luma, w / 2, s + luma * 5 / 4, w / 2, d, w, d + luma, w, w, h);
        } else {
            ret = libyuv::RGB565ToI420(s, 2 * w, d, w, d + luma, w / 2, d + luma * 5 / 4, w / 2, w, h);
        }
        benchmark::DoNotOptimize(ret);
        benchmark::DoNotOptimize(dst.data());
    }
    Label(state, c);
}
BENCHMARK(BM_ColorConvertBaseline)->Apply(ConversionArgs);

// ---- ability text: the virtual raw camera's record ----

constexpr KxFpsRange kFps[] = {{15, 30}, {30, 30}};
constexpr KxPictureSize kPictures[] = {{640, 480}, {1280, 720}, {1920, 1080}};
constexpr KxCameraAbility kAbilities[] = {{kFps, 2, 0, kPictures, 3, 2}, {kFps, 2, 0, kPictures, 3, 4}};
constexpr KxExtendInfo kInfos[] = {{"model", 0, "virtual camera (raw)", 0}, {"orientation", 0, "0", 0}};
constexpr KxCameraCapability kCapability = {"0", 1, 0, kAbilities, 2, 0, kInfos, 2, 0};

void BM_AbilityText(benchmark::State &state)
{
    char text[kAbilityTextSize];
    for (auto _ : state) {
        if (BuildCameraAbilityString(&kCapability, text, sizeof(text)) != 0) {
            state.SkipWithError("ability text refused");
            break;
        }
        benchmark::DoNotOptimize(text);
    }
}
BENCHMARK(BM_AbilityText);

// The same text made with a JSON library from the plugin's own output
// parsed once: what a generic serialiser costs for the same document.
void BM_AbilityTextBaseline(benchmark::State &state)
{
    char text[kAbilityTextSize];
    if (BuildCameraAbilityString(&kCapability, text, sizeof(text)) != 0) {
        state.SkipWithError("ability text refused");
        return;
    }
    const nlohmann::ordered_json document = nlohmann::ordered_json::parse(text);
    for (auto _ : state) {
        std::string dumped = document.dump();
        benchmark::DoNotOptimize(dumped.data());
    }
}
BENCHMARK(BM_AbilityTextBaseline);

// The ability query as the framework makes it: command, lock, lookup and the
// camera's text. Its baseline is BM_AbilityText, building that text anew.
void BM_AbilityQuery(benchmark::State &state)
{
    LoadedModule &module = LoadedModule::Get();
    if (!module.ok()) {
        state.SkipWithError("plugin did not load the virtual camera");
        return;
    }
    KxServiceIdDesc id{module.raw()->serviceId, module.raw()->serviceIdLen, 1};
    for (auto _ : state) {
        KxCommand command{};
        command.code = KX_CMD_GET_ABILITY;
        if (module.table().setCommand(&id, &command) != 0) {
            state.SkipWithError("ability query refused");
            break;
        }
        benchmark::DoNotOptimize(command.output);
    }
}
BENCHMARK(BM_AbilityQuery);

} // namespace

int main(int argc, char **argv)
{
    // The framework reads these when the plugin loads its vendors.
    setenv("TALVO_VENDOR_PATH", KXBENCH_CAMERA_DIR, 0);
    setenv("TALVO_VCAM_CAMERAS", "0:raw,1:h264", 1);
    setenv("TALVO_LOG_LEVEL", "0", 0);
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return 1;
    }
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
