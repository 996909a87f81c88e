// SPDX-License-Identifier: Apache-2.0
// One virtual camera and its capture thread.
#include "virtual_camera.h"

#include <algorithm>
#include <chrono>
#include <utility>

#include "catalog.h"
#include "encoder_link.h"
#include "vendor_common.h"

namespace kxvcam {
namespace {

using Clock = std::chrono::steady_clock;
using kxvendor::kBadArgument;
using kxvendor::kOk;

// The camera whose capture thread this is, if any.
thread_local const void *t_captureOwner = nullptr;

// Time of grid slot `tick` at `fps`, exact in nanoseconds: no rounding
// accumulates however long the camera runs.
Clock::duration SlotTime(uint64_t tick, uint32_t fps)
{
    return std::chrono::duration_cast<Clock::duration>(std::chrono::nanoseconds(tick * 1'000'000'000ull / fps));
}

uint64_t SlotsIn(Clock::duration elapsed, uint32_t fps)
{
    return static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::nanoseconds>(elapsed).count()) * fps /
           1'000'000'000ull;
}

std::optional<kxpattern::PixelFormat> FormatFor(CameraKind kind, uint32_t dataFmt)
{
    if (!OffersFormat(kind, dataFmt)) {
        return std::nullopt;
    }
    switch (dataFmt) {
    case KX_DATA_FMT_RGB565:
        return kxpattern::PixelFormat::kRGB565;
    case KX_DATA_FMT_NV21:
        return kxpattern::PixelFormat::kNV21;
    default:
        return kxpattern::PixelFormat::kI420; // the encoders' input
    }
}

} // namespace

int32_t Stream::Start(Settings settings, std::unique_ptr<Stream> &stream)
{
    auto pattern = kxpattern::PatternGenerator::Create(settings.format, settings.width, settings.height);
    if (!pattern) {
        return kBadArgument;
    }
    std::unique_ptr<StreamEncoder> encoder;
    if (settings.kind != CameraKind::kRaw) {
        const int32_t status =
            CreateStreamEncoder(settings.kind, settings.width, settings.height, settings.fps, encoder);
        if (status != kOk) {
            return status;
        }
    }
    stream.reset(new Stream(std::move(settings), std::move(*pattern), std::move(encoder)));
    stream->thread_ = std::thread(&Stream::Run, stream.get());
    return kOk;
}

Stream::Stream(Settings settings, kxpattern::PatternGenerator pattern, std::unique_ptr<StreamEncoder> encoder)
    : settings_(std::move(settings)), pattern_(std::move(pattern)), encoder_(std::move(encoder)), fps_(settings_.fps)
{}

Stream::~Stream()
{
    Stop();
}

void Stream::Stop()
{
    {
        const std::lock_guard lock(mutex_);
        stop_ = true;
    }
    wake_.notify_all();
    if (thread_.joinable()) {
        thread_.join();
    }
}

void Stream::SetRate(uint32_t fps)
{
    {
        const std::lock_guard lock(mutex_);
        fps_ = fps;
    }
    wake_.notify_all();
    if (encoder_ == nullptr) {
        kxvendor::WithEncoderLink(
            [&](const kxvendor::EncoderLink &link) { link.setFrameRate(settings_.width, settings_.height, fps); });
    }
}

// A raw camera has no encoder of its own: the encoder that takes its frames does it.
void Stream::RequestKeyFrame()
{
    if (encoder_ == nullptr) {
        kxvendor::WithEncoderLink(
            [&](const kxvendor::EncoderLink &link) { link.requestKeyFrame(settings_.width, settings_.height); });
        return;
    }
    const std::lock_guard lock(mutex_);
    keyFrameRequested_ = true;
}

void Stream::Run()
{
    t_captureOwner = settings_.owner;
    std::unique_lock lock(mutex_);
    uint32_t fps = fps_;
    Clock::time_point anchor = Clock::now();
    uint64_t tick = 0;
    std::optional<Clock::time_point> lastDeadline;
    uint64_t index = 0;
    while (true) {
        const Clock::time_point deadline = anchor + SlotTime(tick, fps);
        wake_.wait_until(lock, deadline, [&] { return stop_ || fps_ != fps; });
        if (stop_) {
            return;
        }
        if (fps_ != fps) {
            // The next frame is one new period after the last one.
            fps = fps_;
            if (lastDeadline) {
                anchor = *lastDeadline;
                tick = 1;
            }
            continue;
        }
        if (!InjectFaults(index, lock)) {
            return;
        }
        const bool keyFrame = std::exchange(keyFrameRequested_, false);
        lock.unlock();
        Deliver(index++, keyFrame);
        lock.lock();
        lastDeadline = deadline;
        ++tick;
        const Clock::duration elapsed = Clock::now() - anchor;
        if (elapsed >= SlotTime(tick + 1, fps)) {
            tick = SlotsIn(elapsed, fps) + 1;
        }
    }
}

bool Stream::InjectFaults(uint64_t index, std::unique_lock<std::mutex> &lock)
{
    const Faults &faults = settings_.faults;
    const auto pause = [&](std::chrono::milliseconds time) {
        return !wake_.wait_for(lock, time, [this] { return stop_; });
    };
    if (index == Faults::kStallFrame && faults.stall.count() > 0 && !pause(faults.stall)) {
        return false;
    }
    if (faults.disconnectAt == index) {
        lock.unlock();
        ReportStatusForFaults(settings_.id, 2);
        lock.lock();
        if (!pause(Faults::kOfflineTime)) {
            return false;
        }
        lock.unlock();
        ReportStatusForFaults(settings_.id, 1);
        lock.lock();
    }
    return true;
}

void Stream::Deliver(uint64_t index, bool keyFrame)
{
    const std::span<const uint8_t> frame = pattern_.Frame(index);
    std::span<const uint8_t> out = frame;
    if (encoder_ != nullptr) {
        if (encoder_->Encode(frame, keyFrame, unit_) != kOk || unit_.empty()) {
            return;
        }
        out = unit_;
    }
    if (settings_.faults.Drops(index)) {
        return;
    }
    size_t length = out.size();
    if (encoder_ == nullptr) {
        length -= std::min<size_t>(settings_.faults.lengthShortBy, length);
    }
    settings_.callback(settings_.id.c_str(), static_cast<uint32_t>(settings_.id.size()), out.data(),
                       static_cast<uint32_t>(length));
}

bool VirtualCamera::OnOwnCaptureThread() const
{
    return t_captureOwner == this;
}

std::shared_ptr<Stream> VirtualCamera::TakeStream()
{
    const std::lock_guard lock(streamMutex_);
    return std::exchange(stream_, nullptr);
}

int32_t VirtualCamera::Open(KxFrameCallback callback)
{
    if (callback == nullptr) {
        return kBadArgument;
    }
    if (OnOwnCaptureThread()) {
        return kxvendor::kWouldDeadlock;
    }
    const std::lock_guard lock(controlMutex_);
    if (const auto old = TakeStream()) {
        old->Stop();
    }
    callback_ = callback;
    faults_ = Faults::FromEnvironment();
    open_ = true;
    return kOk;
}

int32_t VirtualCamera::Start(const KxCameraOpenParams &params)
{
    const std::optional<kxpattern::PixelFormat> format = FormatFor(entry_.kind, params.dataFmt);
    if (!format || !OffersSize(params.width, params.height) || !OffersRate(params.fps)) {
        return kxvendor::kUnsupported;
    }
    if (OnOwnCaptureThread()) {
        return kxvendor::kWouldDeadlock;
    }
    const std::lock_guard lock(controlMutex_);
    if (!open_) {
        return kxvendor::kNotReady;
    }
    // One stream per camera at any time: the old one ends before the new one starts.
    if (const auto old = TakeStream()) {
        old->Stop();
    }
    std::unique_ptr<Stream> stream;
    const int32_t status = Stream::Start(
        {this, entry_.id, entry_.kind, *format, params.width, params.height, params.fps, callback_, faults_}, stream);
    if (status != kOk) {
        return status;
    }
    const std::lock_guard streamLock(streamMutex_);
    stream_ = std::move(stream);
    return kOk;
}

int32_t VirtualCamera::Close()
{
    if (OnOwnCaptureThread()) {
        return kxvendor::kWouldDeadlock;
    }
    const std::lock_guard lock(controlMutex_);
    if (const auto old = TakeStream()) {
        old->Stop();
    }
    callback_ = nullptr;
    open_ = false;
    return kOk;
}

void VirtualCamera::SetRate(uint32_t fps)
{
    std::shared_ptr<Stream> stream;
    {
        const std::lock_guard lock(streamMutex_);
        stream = stream_;
    }
    if (stream != nullptr) {
        stream->SetRate(fps);
    }
}

void VirtualCamera::RequestKeyFrame()
{
    std::shared_ptr<Stream> stream;
    {
        const std::lock_guard lock(streamMutex_);
        stream = stream_;
    }
    if (stream != nullptr) {
        stream->RequestKeyFrame();
    }
}

} // namespace kxvcam
