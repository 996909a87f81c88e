// SPDX-License-Identifier: Apache-2.0
#include "stream.h"

#include <algorithm>
#include <chrono>
#include <numeric>

#include "talvo/talvo.h"

namespace camhost {

CameraStream::CameraStream(std::string serviceId, int32_t codecType, bool keepBytes)
    : serviceId_(std::move(serviceId)), codecType_(codecType), keepBytes_(keepBytes)
{
}

CameraStream::~CameraStream()
{
    if (ownsOut_ && out_ != nullptr) {
        std::fclose(out_);
    }
}

bool CameraStream::OpenOutput(const std::string &path, std::string &error)
{
    if (path == "-") {
        out_ = stdout;
        return true;
    }
    out_ = std::fopen(path.c_str(), "wb");
    if (out_ == nullptr) {
        error = "cannot write " + path;
        return false;
    }
    ownsOut_ = true;
    return true;
}

void CameraStream::OnMessage(const CameraMessage &message)
{
    // The unit and its bytes are ours from now on.
    KxVideoAccessUnit *unit = TakeVideoUnit(message);
    if (unit != nullptr) {
        Consume(unit);
        FreeVideoUnit(unit);
    }
}

void CameraStream::Consume(const KxVideoAccessUnit *unit)
{
    const int64_t now = TALVOSystemTimeUs();
    const bool key = HasKeyFrame(unit->data, static_cast<size_t>(std::max(unit->length, 0)), codecType_);
    {
        std::lock_guard lock(mutex_);
        if (out_ != nullptr && unit->length > 0 &&
            std::fwrite(unit->data, 1, static_cast<size_t>(unit->length), out_) != static_cast<size_t>(unit->length)) {
            writeFailed_ = true;
        }
        if (keepBytes_ && unit->length > 0) {
            kept_.insert(kept_.end(), unit->data, unit->data + unit->length);
        }
        if (units_ == 0) {
            firstUs_ = now;
        }
        lastUs_ = now;
        ++units_;
        bytes_ += static_cast<uint64_t>(std::max(unit->length, 0));
        idrUnits_ += key ? 1 : 0;
        latenciesUs_.push_back(now - unit->timeStamp);
    }
    arrived_.notify_all();
}

bool CameraStream::WaitUnits(uint64_t units, int timeoutMs)
{
    std::unique_lock lock(mutex_);
    return arrived_.wait_for(lock, std::chrono::milliseconds(timeoutMs), [&] { return units_ >= units; });
}

StreamFigures CameraStream::Figures() const
{
    std::lock_guard lock(mutex_);
    StreamFigures figures;
    figures.units = units_;
    figures.bytes = bytes_;
    figures.idrUnits = idrUnits_;
    figures.seconds = units_ > 1 ? static_cast<double>(lastUs_ - firstUs_) / 1e6 : 0;
    if (!latenciesUs_.empty()) {
        std::vector<int64_t> sorted = latenciesUs_;
        std::sort(sorted.begin(), sorted.end());
        figures.meanLatencyMs =
            static_cast<double>(std::accumulate(sorted.begin(), sorted.end(), int64_t{0})) / sorted.size() / 1e3;
        figures.p99LatencyMs = static_cast<double>(sorted[(sorted.size() - 1) * 99 / 100]) / 1e3;
    }
    return figures;
}

std::vector<uint8_t> CameraStream::Bytes() const
{
    std::lock_guard lock(mutex_);
    return kept_;
}

bool HasKeyFrame(const uint8_t *data, size_t length, int32_t codecType)
{
    for (size_t i = 0; i + 3 < length; ++i) {
        if (data[i] != 0 || data[i + 1] != 0 || data[i + 2] != 1) {
            continue;
        }
        const uint8_t header = data[i + 3];
        if (codecType == 2) {
            const int type = (header >> 1) & 0x3f;
            if (type >= 16 && type <= 21) {
                return true;
            }
        } else if ((header & 0x1f) == 5) {
            return true;
        }
    }
    return false;
}

} // namespace camhost
