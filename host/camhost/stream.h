// SPDX-License-Identifier: Apache-2.0
// One camera's stream on the host side: writes the units the plugin hands
// over (up to the number asked for), keeps the figures for the progress
// line, and frees what it receives.
#pragma once

#include <array>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "output.h"
#include "plugin_host.h"

namespace camhost {

// Latency samples in fixed buckets: 10 µs wide up to 100 ms, 1 ms wide up
// to 10 s, so a run of any length costs the same memory and time.
class LatencyHistogram {
public:
    void Add(int64_t us);
    uint64_t count() const { return count_; }
    double MeanMs() const;
    // The upper edge of the bucket holding the given fraction of samples.
    double QuantileMs(double fraction) const;

private:
    static constexpr int64_t kFineUs = 10;
    static constexpr int64_t kFineEndUs = 100'000;
    static constexpr int64_t kCoarseUs = 1'000;
    static constexpr int64_t kCoarseEndUs = 10'000'000;
    static constexpr size_t kBuckets = kFineEndUs / kFineUs + (kCoarseEndUs - kFineEndUs) / kCoarseUs + 1;
    static int64_t UpperEdgeUs(size_t bucket);

    std::array<uint32_t, kBuckets> buckets_{};
    uint64_t count_ = 0;
    int64_t sumUs_ = 0;
};

struct StreamFigures {
    uint64_t units = 0; // written
    uint64_t bytes = 0;
    double seconds = 0; // from the first unit written to the last
    double meanLatencyMs = 0;
    double p50LatencyMs = 0;
    double p99LatencyMs = 0;
    uint64_t idrUnits = 0; // units that start with a key frame
};

class CameraStream {
public:
    // limit: units to write, 0 for no limit; later units are freed unwritten.
    CameraStream(std::string serviceId, int32_t codecType, uint64_t limit, bool keepLastPicture);
    CameraStream(const CameraStream &) = delete;
    CameraStream &operator=(const CameraStream &) = delete;

    void SetOutput(std::unique_ptr<Output> output) { output_ = std::move(output); }
    void OnMessage(const CameraMessage &message);

    // Waits until the stream has `units` or is done, or the timeout passes.
    void WaitUnits(uint64_t units, int timeoutMs);
    StreamFigures Figures() const;
    // Written the units asked for, or the output took no more.
    bool done() const;
    // The output took no more because its reader went away.
    bool readerGone() const;
    // Completes the output; call once no callback can run any more.
    bool FinishOutput();
    // The stream from its last key frame on, for the snapshot.
    std::vector<uint8_t> LastPictureBytes() const;
    const std::string &serviceId() const { return serviceId_; }
    int32_t codecType() const { return codecType_; }
    const Output *output() const { return output_.get(); }

private:
    void Consume(const KxVideoAccessUnit *unit);

    const std::string serviceId_;
    const int32_t codecType_;
    const uint64_t limit_;
    const bool keepLastPicture_;
    std::unique_ptr<Output> output_;
    mutable std::mutex mutex_;
    std::condition_variable arrived_;
    bool outputEnded_ = false;
    uint64_t units_ = 0;
    uint64_t bytes_ = 0;
    uint64_t idrUnits_ = 0;
    int64_t firstUs_ = 0;
    int64_t lastUs_ = 0;
    LatencyHistogram latency_;
    std::vector<uint8_t> kept_;
};

// True when the Annex B unit holds an IDR picture (H.264) or an IRAP (H.265).
bool HasKeyFrame(const uint8_t *data, size_t length, int32_t codecType);

} // namespace camhost
