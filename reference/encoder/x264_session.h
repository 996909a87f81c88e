// SPDX-License-Identifier: GPL-2.0-or-later
// One x264 encoder set up for real-time use, shared by the encoder library
// and the virtual camera's H.264 stream.
#ifndef KXCAMERA_VENDOR_ENCODER_X264_SESSION_H
#define KXCAMERA_VENDOR_ENCODER_X264_SESSION_H

#include <cstdint>
#include <span>
#include <vector>

#include <x264.h>

namespace kxvendor {

struct X264Settings {
    uint32_t width = 0;
    uint32_t height = 0;
    int csp = X264_CSP_I420; // X264_CSP_I420 or X264_CSP_NV12, planes packed with stride = width
    uint32_t fps = 30;
    uint32_t keyInterval = 60; // frames between IDRs at most
    // Average bit rate in bits per second; 0 selects constant quality (crf).
    uint32_t bitRate = 0;
    // Ceiling in bits per second (VBV, half a second of buffer); 0 = none.
    uint32_t maxBitRate = 0;
    float crf = 23.0f;
    const char *logTag = "x264"; // prefix of forwarded warnings; must outlive the session
    // Sliced threads of one encoder: 1 encodes on the caller's thread alone,
    // 0 lets x264 choose from the processor count.
    uint32_t threads = 1;
};

// What the encoder library configures for a camera stream: the encoded rate
// as the time base, an IDR every two seconds, the given average rate capped
// at maxBitRate, and sliced threads as x264 chooses them (TALVO_VENC_THREADS
// overrides). Benchmarks use it to run bare x264 exactly as the library does.
X264Settings CameraStreamSettings(uint32_t width, uint32_t height, int csp, uint32_t fps, uint32_t bitRate,
                                  uint32_t maxBitRate);

class X264Session {
public:
    X264Session() = default;
    ~X264Session();
    X264Session(const X264Session &) = delete;
    X264Session &operator=(const X264Session &) = delete;

    // (Re)opens the encoder; 0 or a negative status. The next frame is an IDR.
    int32_t Open(const X264Settings &settings);
    // Changes the bit rates of an open encoder in place.
    int32_t SetBitRates(uint32_t bitRate, uint32_t maxBitRate);
    bool IsOpen() const { return encoder_ != nullptr; }
    const X264Settings &settings() const { return settings_; }

    // Encodes one frame of FrameBytes() bytes into one Annex B access unit,
    // which replaces the contents of `au` (empty if x264 held the frame back).
    int32_t Encode(std::span<const uint8_t> frame, bool forceIdr, std::vector<uint8_t> &au, bool *idr = nullptr);
    size_t FrameBytes() const { return size_t{settings_.width} * settings_.height * 3 / 2; }

private:
    void Close();

    x264_t *encoder_ = nullptr;
    x264_param_t param_{};
    X264Settings settings_;
    int64_t pts_ = 0;
};

} // namespace kxvendor

#endif // KXCAMERA_VENDOR_ENCODER_X264_SESSION_H
