// SPDX-License-Identifier: Apache-2.0
// The plugin's side of a camera handler library, as the checker plays it:
// the frame callback and the service listener, recording what arrives.
#ifndef KXCAMERA_TOOLS_COMPLIANCE_CAMERA_SINKS_H
#define KXCAMERA_TOOLS_COMPLIANCE_CAMERA_SINKS_H

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "kxcamera/camera_handler.h"

namespace kxcompliance {

struct Arrival {
    int64_t us = 0; // framework clock, as the plugin stamps frames
    uint32_t length = 0;
    std::vector<uint8_t> data; // kept for encoded formats only
};

// Where every frame callback lands. The callback carries no user data, so
// one sink serves the camera under test.
class FrameSink {
public:
    static FrameSink &Get();
    static int32_t Callback(const char *id, uint32_t idLen, const uint8_t *data, uint32_t length);

    // Starts a new stream of `id`; each callback then sleeps `hold`.
    void Arm(const std::string &id, bool keepData, std::chrono::milliseconds hold = std::chrono::milliseconds(0));
    // From now on every callback is late.
    void MarkClosed();
    bool WaitFrames(size_t count, std::chrono::milliseconds timeout);
    // Waits until a callback is running.
    bool WaitInside(std::chrono::milliseconds timeout);

    std::vector<Arrival> Frames();
    size_t Count();
    // Microseconds after the close of each callback that came after it.
    std::vector<int64_t> Late();
    std::vector<std::string> Problems();
    bool Overlapped();

private:
    int32_t Receive(const char *id, uint32_t idLen, const uint8_t *data, uint32_t length);

    std::mutex mutex_;
    std::condition_variable changed_;
    std::string id_;
    bool keepData_ = false;
    std::chrono::milliseconds hold_{0};
    std::vector<Arrival> frames_;
    int64_t closedAtUs_ = 0;
    std::vector<int64_t> late_;
    std::vector<std::string> problems_;
    int inside_ = 0;
    bool overlapped_ = false;
};

// Reports from the library's listener calls, judged while the pointers are lent.
class ReportSink {
public:
    struct Status {
        int64_t us;
        std::string id;
        uint32_t status;
    };

    static ReportSink &Get();
    static int32_t OnStatus(const char *id, uint32_t idLen, uint32_t status);
    static int32_t OnAction(const char *id, uint32_t idLen, const KxServiceAction *action);
    // Stand in for the listener record once RegisterListener has returned.
    static int32_t StaleStatus(const char *id, uint32_t idLen, uint32_t status);
    static int32_t StaleAction(const char *id, uint32_t idLen, const KxServiceAction *action);

    std::vector<std::string> Problems();
    std::vector<Status> Statuses();

private:
    std::optional<std::string> Id(const char *id, uint32_t idLen, const char *what);
    void Stale();

    std::mutex mutex_;
    std::vector<std::string> problems_;
    std::vector<Status> statuses_;
};

} // namespace kxcompliance

#endif // KXCAMERA_TOOLS_COMPLIANCE_CAMERA_SINKS_H
