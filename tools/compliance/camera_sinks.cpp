// SPDX-License-Identifier: Apache-2.0
// The frame callback and the service listener the checker hands a camera library.
#include "camera_sinks.h"

#include <algorithm>
#include <cstring>
#include <string_view>
#include <thread>

#include "talvo/talvo.h"

namespace kxcompliance {
namespace {

constexpr uint32_t kMaxIdLength = 64;
constexpr uint32_t kMaxActionValue = 16;
constexpr uint32_t kStateAction = 7;

} // namespace

FrameSink &FrameSink::Get()
{
    static FrameSink sink;
    return sink;
}

int32_t FrameSink::Callback(const char *id, uint32_t idLen, const uint8_t *data, uint32_t length)
{
    return Get().Receive(id, idLen, data, length);
}

void FrameSink::Arm(const std::string &id, bool keepData, std::chrono::milliseconds hold)
{
    const std::lock_guard lock(mutex_);
    id_ = id;
    keepData_ = keepData;
    hold_ = hold;
    frames_.clear();
    closedAtUs_ = 0;
    late_.clear();
    problems_.clear();
    inside_ = 0;
    overlapped_ = false;
}

void FrameSink::MarkClosed()
{
    const std::lock_guard lock(mutex_);
    closedAtUs_ = TALVOSystemTimeUs();
}

bool FrameSink::WaitFrames(size_t count, std::chrono::milliseconds timeout)
{
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, timeout, [&] { return frames_.size() >= count; });
}

bool FrameSink::WaitInside(std::chrono::milliseconds timeout)
{
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, timeout, [&] { return inside_ > 0; });
}

std::vector<Arrival> FrameSink::Frames()
{
    const std::lock_guard lock(mutex_);
    return frames_;
}

size_t FrameSink::Count()
{
    const std::lock_guard lock(mutex_);
    return frames_.size();
}

std::vector<int64_t> FrameSink::Late()
{
    const std::lock_guard lock(mutex_);
    return late_;
}

std::vector<std::string> FrameSink::Problems()
{
    const std::lock_guard lock(mutex_);
    return problems_;
}

bool FrameSink::Overlapped()
{
    const std::lock_guard lock(mutex_);
    return overlapped_;
}

int32_t FrameSink::Receive(const char *id, uint32_t idLen, const uint8_t *data, uint32_t length)
{
    const int64_t now = TALVOSystemTimeUs();
    std::chrono::milliseconds hold;
    {
        const std::lock_guard lock(mutex_);
        overlapped_ = overlapped_ || inside_ > 0;
        ++inside_;
        if (closedAtUs_ != 0) {
            late_.push_back(now - closedAtUs_);
        }
        if (id == nullptr || data == nullptr || std::string_view(id, strnlen(id, idLen)) != id_) {
            problems_.push_back("a frame came with " + std::string(id == nullptr     ? "no id"
                                                                   : data == nullptr ? "no data"
                                                                                     : "another camera's id"));
        }
        Arrival arrival{now, length, {}};
        if (keepData_ && data != nullptr) {
            arrival.data.assign(data, data + length);
        }
        frames_.push_back(std::move(arrival));
        hold = hold_;
    }
    changed_.notify_all();
    std::this_thread::sleep_for(hold);
    {
        const std::lock_guard lock(mutex_);
        --inside_;
    }
    return 0;
}

ReportSink &ReportSink::Get()
{
    static ReportSink sink;
    return sink;
}

int32_t ReportSink::OnStatus(const char *id, uint32_t idLen, uint32_t status)
{
    ReportSink &sink = Get();
    const std::lock_guard lock(sink.mutex_);
    const std::optional<std::string> name = sink.Id(id, idLen, "status report");
    if (status != 1 && status != 2) {
        sink.problems_.push_back("status report with status " + std::to_string(status) +
                                 "; only 1 (online) and 2 (offline) exist");
    }
    if (name) {
        sink.statuses_.push_back({TALVOSystemTimeUs(), *name, status});
    }
    return 0;
}

int32_t ReportSink::OnAction(const char *id, uint32_t idLen, const KxServiceAction *action)
{
    ReportSink &sink = Get();
    const std::lock_guard lock(sink.mutex_);
    sink.Id(id, idLen, "camera-state report");
    if (action == nullptr) {
        sink.problems_.push_back("camera-state report without its action record; the plugin reads it");
        return 0;
    }
    if (action->valueLen > kMaxActionValue) {
        sink.problems_.push_back("action value of " + std::to_string(action->valueLen) +
                                 " characters; at most 16 are taken");
    } else if (action->type == kStateAction) {
        const bool decimal =
            action->value != nullptr && action->valueLen > 0 &&
            std::all_of(action->value, action->value + action->valueLen, [](char c) { return c >= '0' && c <= '9'; });
        if (!decimal) {
            sink.problems_.push_back("camera-state value is not decimal text of valueLen characters");
        }
    }
    return 0;
}

int32_t ReportSink::StaleStatus(const char *, uint32_t, uint32_t)
{
    Get().Stale();
    return 0;
}

int32_t ReportSink::StaleAction(const char *, uint32_t, const KxServiceAction *)
{
    Get().Stale();
    return 0;
}

std::vector<std::string> ReportSink::Problems()
{
    const std::lock_guard lock(mutex_);
    return problems_;
}

std::vector<ReportSink::Status> ReportSink::Statuses()
{
    const std::lock_guard lock(mutex_);
    return statuses_;
}

std::optional<std::string> ReportSink::Id(const char *id, uint32_t idLen, const char *what)
{
    if (id == nullptr || idLen == 0 || idLen > kMaxIdLength || strnlen(id, idLen + 1) != idLen) {
        problems_.push_back(std::string(what) + " whose id is missing or not NUL-terminated at idLen");
        return std::nullopt;
    }
    return std::string(id, idLen);
}

void ReportSink::Stale()
{
    const std::lock_guard lock(mutex_);
    problems_.push_back("a report went through the listener record after RegisterListener returned; copy "
                        "its two entries instead of keeping the pointer");
}

} // namespace kxcompliance
