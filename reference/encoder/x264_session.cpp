// SPDX-License-Identifier: GPL-2.0-or-later
// One x264 encoder set up for real-time use.
#include "x264_session.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>

#include "vendor_common.h"

namespace kxvendor {
namespace {

constexpr unsigned long kMaxThreads = 64;

// x264 reports through this; only warnings and errors reach stderr.
void ForwardLog(void *tag, int level, const char *format, va_list args)
{
    if (level > X264_LOG_WARNING) {
        return;
    }
    std::fprintf(stderr, "%s: x264 [%s]: ", static_cast<const char *>(tag),
                 level == X264_LOG_ERROR ? "error" : "warning");
    std::vfprintf(stderr, format, args);
}

int ToKbps(uint32_t bitsPerSecond)
{
    return static_cast<int>((bitsPerSecond + 999) / 1000);
}

void ApplyRates(x264_param_t &param, const X264Settings &s)
{
    if (s.bitRate != 0) {
        param.rc.i_rc_method = X264_RC_ABR;
        param.rc.i_bitrate = ToKbps(s.bitRate);
    } else {
        param.rc.i_rc_method = X264_RC_CRF;
        param.rc.f_rf_constant = s.crf;
    }
    const uint32_t ceiling = s.maxBitRate != 0 && s.maxBitRate < s.bitRate ? s.bitRate : s.maxBitRate;
    param.rc.i_vbv_max_bitrate = ToKbps(ceiling);
    param.rc.i_vbv_buffer_size = ToKbps(ceiling / 2);
}

} // namespace

X264Settings CameraStreamSettings(uint32_t width, uint32_t height, int csp, uint32_t fps, uint32_t bitRate,
                                  uint32_t maxBitRate)
{
    X264Settings settings;
    settings.width = width;
    settings.height = height;
    settings.csp = csp;
    settings.fps = fps;
    settings.keyInterval = 2 * fps;
    settings.bitRate = bitRate;
    settings.maxBitRate = maxBitRate < bitRate ? bitRate : maxBitRate;
    // A frame split in slices over all processors leaves the encoder soonest,
    // which is what a live stream wants; the peers' default does the same.
    settings.threads = 0;
    if (const char *text = std::getenv("TALVO_VENC_THREADS"); text != nullptr && *text != '\0') {
        char *end = nullptr;
        const unsigned long threads = std::strtoul(text, &end, 10);
        if (*end == '\0' && threads <= kMaxThreads) {
            settings.threads = static_cast<uint32_t>(threads);
        }
    }
    return settings;
}

X264Session::~X264Session()
{
    Close();
}

void X264Session::Close()
{
    if (encoder_ != nullptr) {
        x264_encoder_close(encoder_);
        encoder_ = nullptr;
    }
}

int32_t X264Session::Open(const X264Settings &settings)
{
    Close();
    x264_param_t param;
    if (x264_param_default_preset(&param, "ultrafast", "zerolatency") != 0) {
        return kDeviceError;
    }
    param.i_width = static_cast<int>(settings.width);
    param.i_height = static_cast<int>(settings.height);
    param.i_csp = settings.csp;
    param.i_fps_num = settings.fps;
    param.i_fps_den = 1;
    param.i_timebase_num = 1;
    param.i_timebase_den = settings.fps;
    param.b_vfr_input = 0;
    param.i_keyint_max = static_cast<int>(settings.keyInterval);
    // No frame threads and no lookahead thread: a frame leaves the encoder in
    // the call that gave it. Sliced threads split that one frame, if asked.
    param.i_threads = settings.threads == 0 ? X264_THREADS_AUTO : static_cast<int>(settings.threads);
    param.i_lookahead_threads = 1;
    param.b_sliced_threads = settings.threads != 1 ? 1 : 0;
    param.b_annexb = 1;
    param.b_repeat_headers = 1;
    param.vui.b_fullrange = 0;
    param.vui.i_colorprim = 6; // SMPTE 170M, the BT.601 the frames are made with
    param.vui.i_transfer = 6;
    param.vui.i_colmatrix = 6;
    param.i_log_level = X264_LOG_WARNING;
    param.pf_log = ForwardLog;
    param.p_log_private = const_cast<char *>(settings.logTag);
    ApplyRates(param, settings);

    x264_t *encoder = x264_encoder_open(&param);
    if (encoder == nullptr) {
        return kBadArgument;
    }
    encoder_ = encoder;
    param_ = param;
    settings_ = settings;
    pts_ = 0;
    return kOk;
}

int32_t X264Session::SetBitRates(uint32_t bitRate, uint32_t maxBitRate)
{
    if (encoder_ == nullptr) {
        return kNotReady;
    }
    X264Settings next = settings_;
    next.bitRate = bitRate;
    next.maxBitRate = maxBitRate;
    x264_param_t param = param_;
    ApplyRates(param, next);
    if (x264_encoder_reconfig(encoder_, &param) < 0) {
        return kBadArgument;
    }
    param_ = param;
    settings_ = next;
    return kOk;
}

int32_t X264Session::Encode(std::span<const uint8_t> frame, bool forceIdr, std::vector<uint8_t> &au, bool *idr)
{
    au.clear();
    if (encoder_ == nullptr) {
        return kNotReady;
    }
    if (frame.size() < FrameBytes()) {
        return kBadArgument;
    }
    const int w = static_cast<int>(settings_.width);
    const size_t luma = size_t{settings_.width} * settings_.height;
    // x264 only reads the planes; its picture type is not const-correct.
    auto *base = const_cast<uint8_t *>(frame.data());
    x264_picture_t in;
    x264_picture_init(&in);
    in.img.i_csp = settings_.csp;
    in.img.plane[0] = base;
    in.img.i_stride[0] = w;
    if (settings_.csp == X264_CSP_NV12) {
        in.img.i_plane = 2;
        in.img.plane[1] = base + luma;
        in.img.i_stride[1] = w;
    } else {
        in.img.i_plane = 3;
        in.img.plane[1] = base + luma;
        in.img.plane[2] = base + luma + luma / 4;
        in.img.i_stride[1] = w / 2;
        in.img.i_stride[2] = w / 2;
    }
    in.i_type = forceIdr ? X264_TYPE_IDR : X264_TYPE_AUTO;
    in.i_pts = pts_++;

    x264_nal_t *nals = nullptr;
    int nalCount = 0;
    x264_picture_t out;
    const int bytes = x264_encoder_encode(encoder_, &nals, &nalCount, &in, &out);
    if (bytes < 0) {
        return kDeviceError;
    }
    if (bytes > 0) {
        // x264 lays the payloads of one call out back to back.
        au.assign(nals[0].p_payload, nals[0].p_payload + bytes);
    }
    if (idr != nullptr) {
        *idr = bytes > 0 && out.b_keyframe != 0;
    }
    return kOk;
}

} // namespace kxvendor
