// SPDX-License-Identifier: Apache-2.0
// One camera's stream on the host side: units in, figures and output out.
#include "stream.h"

#include <algorithm>
#include <chrono>
#include <cmath>

#include "talvo/talvo.h"

namespace camhost {

int64_t LatencyHistogram::UpperEdgeUs(size_t bucket)
{
    constexpr size_t fine = kFineEndUs / kFineUs;
    return bucket < fine ? static_cast<int64_t>(bucket + 1) * kFineUs
                         : kFineEndUs + static_cast<int64_t>(bucket - fine + 1) * kCoarseUs;
}

void LatencyHistogram::Add(int64_t us)
{
    us = std::max<int64_t>(us, 0);
    const size_t bucket =
        us < kFineEndUs
            ? static_cast<size_t>(us / kFineUs)
            : std::min(kBuckets - 1, static_cast<size_t>(kFineEndUs / kFineUs + (us - kFineEndUs) / kCoarseUs));
    ++buckets_[bucket];
    ++count_;
    sumUs_ += us;
}

double LatencyHistogram::MeanMs() const
{
    return count_ == 0 ? 0 : static_cast<double>(sumUs_) / static_cast<double>(count_) / 1e3;
}

double LatencyHistogram::QuantileMs(double fraction) const
{
    if (count_ == 0) {
        return 0;
    }
    const auto rank = static_cast<uint64_t>(std::ceil(fraction * static_cast<double>(count_)));
    uint64_t seen = 0;
    for (size_t bucket = 0; bucket < kBuckets; ++bucket) {
        seen += buckets_[bucket];
        if (seen >= std::max<uint64_t>(rank, 1)) {
            return static_cast<double>(UpperEdgeUs(bucket)) / 1e3;
        }
    }
    return static_cast<double>(kCoarseEndUs) / 1e3;
}

CameraStream::CameraStream(std::string serviceId, int32_t codecType, uint64_t limit, bool keepLastPicture)
    : serviceId_(std::move(serviceId)), codecType_(codecType), limit_(limit), keepLastPicture_(keepLastPicture)
{}

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
    const size_t length = static_cast<size_t>(std::max(unit->length, 0));
    const bool key = HasKeyFrame(unit->data, length, codecType_);
    {
        std::lock_guard lock(mutex_);
        if (outputEnded_ || (limit_ != 0 && units_ >= limit_)) {
            return;
        }
        if (output_ != nullptr && length > 0 && !output_->Write({unit->data, length}, unit->timeStamp, key)) {
            outputEnded_ = true;
        }
        if (keepLastPicture_ && length > 0) {
            if (key) {
                kept_.clear();
            }
            kept_.insert(kept_.end(), unit->data, unit->data + length);
        }
        if (units_ == 0) {
            firstUs_ = now;
        }
        lastUs_ = now;
        ++units_;
        bytes_ += length;
        idrUnits_ += key ? 1 : 0;
        latency_.Add(now - unit->timeStamp);
    }
    arrived_.notify_all();
}

void CameraStream::WaitUnits(uint64_t units, int timeoutMs)
{
    std::unique_lock lock(mutex_);
    arrived_.wait_for(lock, std::chrono::milliseconds(timeoutMs),
                      [&] { return units_ >= units || outputEnded_ || (limit_ != 0 && units_ >= limit_); });
}

bool CameraStream::done() const
{
    std::lock_guard lock(mutex_);
    return outputEnded_ || (limit_ != 0 && units_ >= limit_);
}

bool CameraStream::readerGone() const
{
    std::lock_guard lock(mutex_);
    return outputEnded_ && output_ != nullptr && output_->readerGone();
}

bool CameraStream::FinishOutput()
{
    std::lock_guard lock(mutex_);
    return output_ == nullptr || output_->Finish();
}

StreamFigures CameraStream::Figures() const
{
    std::lock_guard lock(mutex_);
    StreamFigures figures;
    figures.units = units_;
    figures.bytes = bytes_;
    figures.idrUnits = idrUnits_;
    figures.seconds = units_ > 1 ? static_cast<double>(lastUs_ - firstUs_) / 1e6 : 0;
    figures.meanLatencyMs = latency_.MeanMs();
    figures.p50LatencyMs = latency_.QuantileMs(0.50);
    figures.p99LatencyMs = latency_.QuantileMs(0.99);
    return figures;
}

std::vector<uint8_t> CameraStream::LastPictureBytes() const
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
