// SPDX-License-Identifier: Apache-2.0
// The encoder inside a self-encoding virtual camera.
#ifndef KXCAMERA_VENDOR_CAMERA_STREAM_ENCODER_H
#define KXCAMERA_VENDOR_CAMERA_STREAM_ENCODER_H

#include <cstdint>
#include <memory>
#include <span>
#include <vector>

#include "camera_list.h"

namespace kxvcam {

class StreamEncoder {
public:
    virtual ~StreamEncoder() = default;
    // Encodes one packed I420 frame into one Annex B access unit, replacing
    // the contents of `au`; an IDR carries its parameter sets.
    virtual int32_t Encode(std::span<const uint8_t> i420, bool forceIdr, std::vector<uint8_t> &au) = 0;
};

// An H.264 (x264) or H.265 (x265) encoder for `kind`, real-time settings,
// constant quality under a ceiling that grows with the picture size.
int32_t CreateStreamEncoder(CameraKind kind, uint32_t width, uint32_t height, uint32_t fps,
                            std::unique_ptr<StreamEncoder> &encoder);

// Releases the codec libraries' process-wide state; no encoder may be left.
void ReleaseStreamEncoders();

} // namespace kxvcam

#endif // KXCAMERA_VENDOR_CAMERA_STREAM_ENCODER_H
