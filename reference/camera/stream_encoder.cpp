// SPDX-License-Identifier: GPL-2.0-or-later
// The encoders inside the self-encoding virtual cameras: x264 and x265.
#include "stream_encoder.h"

#include <mutex>

#include <x265.h>

#include "vendor_common.h"
#include "x264_session.h"

namespace kxvcam {
namespace {

using kxvendor::kDeviceError;
using kxvendor::kNoMemory;
using kxvendor::kOk;

constexpr char kLogTag[] = "libtalvocamerahandler";

// About 0.15 bit per pixel at 30 frames per second: 1.4 Mbit/s at 640x480,
// 9.3 Mbit/s at 1920x1080. The pattern rarely needs it; it bounds bursts.
uint32_t CeilingFor(uint32_t width, uint32_t height)
{
    return static_cast<uint32_t>(uint64_t{width} * height * 30 * 15 / 100);
}

class H264Encoder final : public StreamEncoder {
public:
    int32_t Open(uint32_t width, uint32_t height, uint32_t fps)
    {
        kxvendor::X264Settings settings;
        settings.width = width;
        settings.height = height;
        settings.fps = fps;
        settings.keyInterval = 2 * fps;
        settings.maxBitRate = CeilingFor(width, height);
        settings.crf = 23.0f;
        settings.logTag = kLogTag;
        return session_.Open(settings);
    }

    int32_t Encode(std::span<const uint8_t> i420, bool forceIdr, std::vector<uint8_t> &au) override
    {
        return session_.Encode(i420, forceIdr, au);
    }

private:
    kxvendor::X264Session session_;
};

// x265 sets up process-wide tables when an encoder opens; opening and
// closing are kept to one thread at a time.
std::mutex g_x265Mutex;

class H265Encoder final : public StreamEncoder {
public:
    ~H265Encoder() override
    {
        const std::lock_guard lock(g_x265Mutex);
        if (encoder_ != nullptr) {
            x265_encoder_close(encoder_);
        }
        if (picture_ != nullptr) {
            x265_picture_free(picture_);
        }
        if (param_ != nullptr) {
            x265_param_free(param_);
        }
    }

    int32_t Open(uint32_t width, uint32_t height, uint32_t fps)
    {
        const std::lock_guard lock(g_x265Mutex);
        param_ = x265_param_alloc();
        picture_ = x265_picture_alloc();
        if (param_ == nullptr || picture_ == nullptr) {
            return kNoMemory;
        }
        if (x265_param_default_preset(param_, "ultrafast", "zerolatency") < 0) {
            return kDeviceError;
        }
        param_->sourceWidth = static_cast<int>(width);
        param_->sourceHeight = static_cast<int>(height);
        param_->internalCsp = X265_CSP_I420;
        param_->fpsNum = fps;
        param_->fpsDenom = 1;
        param_->keyframeMax = static_cast<int>(2 * fps);
        // Closed GOPs: every key frame is an IDR a decoder can start from.
        param_->bOpenGOP = 0;
        param_->lookaheadSlices = 0;
        param_->bRepeatHeaders = 1;
        param_->bAnnexB = 1;
        param_->logLevel = X265_LOG_WARNING;
        param_->rc.rateControlMode = X265_RC_CRF;
        param_->rc.rfConstant = 25;
        param_->rc.vbvMaxBitrate = static_cast<int>(CeilingFor(width, height) / 1000);
        param_->rc.vbvBufferSize = param_->rc.vbvMaxBitrate / 2;
        param_->vui.bEnableVideoSignalTypePresentFlag = 1;
        param_->vui.colorPrimaries = 6;
        param_->vui.transferCharacteristics = 6;
        param_->vui.matrixCoeffs = 6;
        param_->vui.bEnableColorDescriptionPresentFlag = 1;
        encoder_ = x265_encoder_open(param_);
        if (encoder_ == nullptr) {
            return kDeviceError;
        }
        x265_picture_init(param_, picture_);
        width_ = width;
        height_ = height;
        return kOk;
    }

    int32_t Encode(std::span<const uint8_t> i420, bool forceIdr, std::vector<uint8_t> &au) override
    {
        au.clear();
        const size_t luma = size_t{width_} * height_;
        if (i420.size() < luma * 3 / 2) {
            return kxvendor::kBadArgument;
        }
        // x265 only reads the planes; its picture type is not const-correct.
        auto *base = const_cast<uint8_t *>(i420.data());
        picture_->planes[0] = base;
        picture_->planes[1] = base + luma;
        picture_->planes[2] = base + luma + luma / 4;
        picture_->stride[0] = static_cast<int>(width_);
        picture_->stride[1] = static_cast<int>(width_ / 2);
        picture_->stride[2] = static_cast<int>(width_ / 2);
        picture_->sliceType = forceIdr ? X265_TYPE_IDR : X265_TYPE_AUTO;
        picture_->pts = pts_++;

        x265_nal *nals = nullptr;
        uint32_t nalCount = 0;
        if (x265_encoder_encode(encoder_, &nals, &nalCount, picture_, nullptr) < 0) {
            return kDeviceError;
        }
        for (uint32_t i = 0; i < nalCount; ++i) {
            au.insert(au.end(), nals[i].payload, nals[i].payload + nals[i].sizeBytes);
        }
        return kOk;
    }

private:
    x265_param *param_ = nullptr;
    x265_picture *picture_ = nullptr;
    x265_encoder *encoder_ = nullptr;
    uint32_t width_ = 0;
    uint32_t height_ = 0;
    int64_t pts_ = 0;
};

template <typename Encoder>
int32_t OpenInto(uint32_t width, uint32_t height, uint32_t fps, std::unique_ptr<StreamEncoder> &out)
{
    auto encoder = std::make_unique<Encoder>();
    const int32_t status = encoder->Open(width, height, fps);
    if (status == kOk) {
        out = std::move(encoder);
    }
    return status;
}

} // namespace

int32_t CreateStreamEncoder(CameraKind kind, uint32_t width, uint32_t height, uint32_t fps,
                            std::unique_ptr<StreamEncoder> &encoder)
{
    switch (kind) {
    case CameraKind::kH264:
        return OpenInto<H264Encoder>(width, height, fps, encoder);
    case CameraKind::kH265:
        return OpenInto<H265Encoder>(width, height, fps, encoder);
    case CameraKind::kRaw:
        break;
    }
    return kxvendor::kUnsupported;
}

void ReleaseStreamEncoders()
{
    const std::lock_guard lock(g_x265Mutex);
    x265_cleanup();
}

} // namespace kxvcam
