// SPDX-License-Identifier: Apache-2.0
// Judging encoded output with libavcodec.
#include "av_decode.h"

#include <algorithm>
#include <cmath>
#include <cstring>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/frame.h>
}

namespace kxtest {
namespace {

void CopyPlane(const uint8_t *src, int linesize, int width, int height, std::vector<uint8_t> &dst)
{
    dst.resize(static_cast<size_t>(width) * height);
    for (int row = 0; row < height; ++row) {
        std::memcpy(dst.data() + static_cast<size_t>(row) * width, src + static_cast<ptrdiff_t>(row) * linesize,
                    static_cast<size_t>(width));
    }
}

double Psnr(const uint8_t *a, const uint8_t *b, size_t n)
{
    double sum = 0;
    for (size_t i = 0; i < n; ++i) {
        const double d = static_cast<double>(a[i]) - static_cast<double>(b[i]);
        sum += d * d;
    }
    if (sum == 0) {
        return 99.0;
    }
    return 10.0 * std::log10(255.0 * 255.0 / (sum / static_cast<double>(n)));
}

} // namespace

Decoder::Decoder(Codec codec)
{
    const AVCodec *decoder = avcodec_find_decoder(codec == Codec::kH264 ? AV_CODEC_ID_H264 : AV_CODEC_ID_HEVC);
    if (decoder == nullptr) {
        return;
    }
    context_ = avcodec_alloc_context3(decoder);
    if (context_ == nullptr) {
        return;
    }
    // One thread and no reordering delay: one unit in, one picture out.
    context_->thread_count = 1;
    context_->flags |= AV_CODEC_FLAG_LOW_DELAY;
    context_->err_recognition = AV_EF_EXPLODE;
    if (avcodec_open2(context_, decoder, nullptr) < 0) {
        avcodec_free_context(&context_);
    }
}

Decoder::~Decoder()
{
    avcodec_free_context(&context_);
}

bool Decoder::Decode(std::span<const uint8_t> unit, std::vector<Picture> &pictures)
{
    if (context_ == nullptr || unit.empty()) {
        return false;
    }
    std::vector<uint8_t> padded(unit.size() + AV_INPUT_BUFFER_PADDING_SIZE, 0);
    std::memcpy(padded.data(), unit.data(), unit.size());
    AVPacket *packet = av_packet_alloc();
    AVFrame *frame = av_frame_alloc();
    packet->data = padded.data();
    packet->size = static_cast<int>(unit.size());
    bool ok = avcodec_send_packet(context_, packet) == 0;
    while (ok) {
        const int status = avcodec_receive_frame(context_, frame);
        if (status == AVERROR(EAGAIN) || status == AVERROR_EOF) {
            break;
        }
        if (status < 0 || frame->format != AV_PIX_FMT_YUV420P) {
            ok = false;
            break;
        }
        Picture picture;
        picture.width = frame->width;
        picture.height = frame->height;
        CopyPlane(frame->data[0], frame->linesize[0], frame->width, frame->height, picture.y);
        CopyPlane(frame->data[1], frame->linesize[1], frame->width / 2, frame->height / 2, picture.u);
        CopyPlane(frame->data[2], frame->linesize[2], frame->width / 2, frame->height / 2, picture.v);
        pictures.push_back(std::move(picture));
        av_frame_unref(frame);
    }
    av_frame_free(&frame);
    av_packet_free(&packet);
    return ok;
}

std::vector<int> NalTypes(Codec codec, std::span<const uint8_t> unit)
{
    std::vector<int> types;
    for (size_t i = 0; i + 3 < unit.size(); ++i) {
        if (unit[i] == 0 && unit[i + 1] == 0 && unit[i + 2] == 1) {
            const uint8_t header = unit[i + 3];
            types.push_back(codec == Codec::kH264 ? header & 0x1F : (header >> 1) & 0x3F);
            i += 3;
        }
    }
    return types;
}

bool HasIdr(Codec codec, std::span<const uint8_t> unit)
{
    for (const int type : NalTypes(codec, unit)) {
        if (codec == Codec::kH264 ? type == 5 : (type == 19 || type == 20)) {
            return true;
        }
    }
    return false;
}

bool HasParameterSets(Codec codec, std::span<const uint8_t> unit)
{
    const std::vector<int> types = NalTypes(codec, unit);
    const auto has = [&](int t) { return std::find(types.begin(), types.end(), t) != types.end(); };
    return codec == Codec::kH264 ? has(7) && has(8) : has(32) && has(33) && has(34);
}

std::vector<double> PlanePsnr(std::span<const uint8_t> a, std::span<const uint8_t> b, int width, int height)
{
    const size_t luma = static_cast<size_t>(width) * height;
    if (a.size() < luma * 3 / 2 || b.size() < luma * 3 / 2) {
        return {0, 0, 0};
    }
    return {Psnr(a.data(), b.data(), luma), Psnr(a.data() + luma, b.data() + luma, luma / 4),
            Psnr(a.data() + luma + luma / 4, b.data() + luma + luma / 4, luma / 4)};
}

std::vector<double> PlanePsnr(const Picture &picture, std::span<const uint8_t> i420)
{
    std::vector<uint8_t> packed(picture.y);
    packed.insert(packed.end(), picture.u.begin(), picture.u.end());
    packed.insert(packed.end(), picture.v.begin(), picture.v.end());
    return PlanePsnr(packed, i420, picture.width, picture.height);
}

} // namespace kxtest
