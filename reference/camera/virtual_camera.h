// SPDX-License-Identifier: Apache-2.0
// One virtual camera: open/start/close, and the capture thread that paces
// and delivers its frames.
#ifndef KXCAMERA_VENDOR_CAMERA_VIRTUAL_CAMERA_H
#define KXCAMERA_VENDOR_CAMERA_VIRTUAL_CAMERA_H

#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "camera_list.h"
#include "faults.h"
#include "kxcamera/camera_handler.h"
#include "pattern.h"
#include "stream_encoder.h"

namespace kxvcam {

// A started camera: its capture thread renders frame n of the pattern (n
// counts from 0 at the start), encodes it for a self-encoding camera, and
// calls the frame callback with it at start + n / fps on the steady clock.
// A rate change re-anchors the grid at the last frame's deadline. A consumer
// slower than the rate makes it skip the deadlines already missed (the next
// frame still shows n + 1), never burst to catch up.
class Stream {
public:
    struct Settings {
        const void *owner; // the camera, to recognise calls from this thread
        std::string id;
        CameraKind kind;
        kxpattern::PixelFormat format;
        uint32_t width;
        uint32_t height;
        uint32_t fps;
        KxFrameCallback callback;
        Faults faults;
    };

    // Prepares the pattern and the encoder and starts the thread.
    static int32_t Start(Settings settings, std::unique_ptr<Stream> &stream);
    ~Stream();
    Stream(const Stream &) = delete;
    Stream &operator=(const Stream &) = delete;

    void SetRate(uint32_t fps);
    void RequestKeyFrame();
    // Returns once the thread has ended: no callback runs after it.
    void Stop();

private:
    Stream(Settings settings, kxpattern::PatternGenerator pattern, std::unique_ptr<StreamEncoder> encoder);
    void Run();
    // False when the stream was stopped during an injected pause.
    bool InjectFaults(uint64_t index, std::unique_lock<std::mutex> &lock);
    void Deliver(uint64_t index, bool keyFrame);

    const Settings settings_;
    kxpattern::PatternGenerator pattern_;
    std::unique_ptr<StreamEncoder> encoder_;
    std::vector<uint8_t> unit_;

    std::mutex mutex_;
    std::condition_variable wake_;
    uint32_t fps_;
    bool keyFrameRequested_ = false;
    bool stop_ = false;
    std::thread thread_;
};

class VirtualCamera {
public:
    explicit VirtualCamera(CameraEntry entry) : entry_(std::move(entry)) {}

    const CameraEntry &entry() const { return entry_; }

    // Opening an open camera stops its stream and takes the new callback.
    int32_t Open(KxFrameCallback callback);
    // Starting a started camera restarts it with the new parameters.
    int32_t Start(const KxCameraOpenParams &params);
    // Closing a closed camera succeeds and does nothing.
    int32_t Close();
    // Applies at once while streaming; otherwise the next start brings its own rate.
    void SetRate(uint32_t fps);
    void RequestKeyFrame();

private:
    bool OnOwnCaptureThread() const;
    std::shared_ptr<Stream> TakeStream();

    const CameraEntry entry_;
    // Serialises open, start and close; held while a stream is joined.
    std::mutex controlMutex_;
    KxFrameCallback callback_ = nullptr;
    Faults faults_;
    bool open_ = false;
    // Guards stream_ alone and is never held across a join, so that rate and
    // key-frame requests never wait for a capture thread to end.
    std::mutex streamMutex_;
    std::shared_ptr<Stream> stream_;
};

} // namespace kxvcam

#endif // KXCAMERA_VENDOR_CAMERA_VIRTUAL_CAMERA_H
