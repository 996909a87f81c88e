// SPDX-License-Identifier: Apache-2.0
// One camera's stream on the host side: writes every unit the plugin hands
// over, keeps the figures for the progress line, and frees what it receives.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <mutex>
#include <string>
#include <vector>

#include "plugin_host.h"

namespace camhost {

struct StreamFigures {
    uint64_t units = 0;
    uint64_t bytes = 0;
    double seconds = 0;    // since the first unit
    double meanLatencyMs = 0;
    double p99LatencyMs = 0;
    uint64_t idrUnits = 0; // units that start with a key frame
};

class CameraStream {
public:
    CameraStream(std::string serviceId, int32_t codecType, bool keepBytes);
    ~CameraStream();
    CameraStream(const CameraStream &) = delete;
    CameraStream &operator=(const CameraStream &) = delete;

    // "-" writes to standard output.
    bool OpenOutput(const std::string &path, std::string &error);
    void OnMessage(const CameraMessage &message);

    // Waits until at least `units` have arrived or the timeout passes.
    bool WaitUnits(uint64_t units, int timeoutMs);
    StreamFigures Figures() const;
    std::vector<uint8_t> Bytes() const;
    const std::string &serviceId() const { return serviceId_; }
    int32_t codecType() const { return codecType_; }
    bool writeFailed() const { return writeFailed_; }

private:
    void Consume(const KxVideoAccessUnit *unit);

    std::string serviceId_;
    int32_t codecType_;
    bool keepBytes_;
    FILE *out_ = nullptr;
    bool ownsOut_ = false;
    bool writeFailed_ = false;
    mutable std::mutex mutex_;
    std::condition_variable arrived_;
    uint64_t units_ = 0;
    uint64_t bytes_ = 0;
    uint64_t idrUnits_ = 0;
    int64_t firstUs_ = 0;
    int64_t lastUs_ = 0;
    std::vector<int64_t> latenciesUs_;
    std::vector<uint8_t> kept_;
};

// True when the Annex B unit holds an IDR picture (H.264) or an IRAP (H.265).
bool HasKeyFrame(const uint8_t *data, size_t length, int32_t codecType);

} // namespace camhost
