// SPDX-License-Identifier: Apache-2.0
// Judging encoded output with libavcodec.
#include "av_decode.h"

#include <cmath>
#include <cstring>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/frame.h>
}

namespace kxtest {
namespace {

double Psnr(const uint8_t *a, const uint8_t *b, size_t n)
{
    double sum = 0;
    for (size_t i = 0; i < n; ++i) {
        const double d = static_cast<double>(a[i]) - static_cast<double>(b[i]);
        sum += d * d;
    }
    return sum == 0 ? 99.0 : 10.0 * std::log10(255.0 * 255.0 / (sum / static_cast<double>(n)));
}

} // namespace

Decoder::Decoder(Codec codec)
{
    const AVCodec *decoder = avcodec_find_decoder(codec == Codec::kH264 ? AV_CODEC_ID_H264 : AV_CODEC_ID_HEVC);
    context_ = decoder == nullptr ? nullptr : avcodec_alloc_context3(decoder);
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

bool Decoder::Decode(std::span<const uint8_t> unit, std::vector<std::vector<uint8_t>> &pictures, int width,
                     int height, int *keys)
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
    int ignored = 0;
    while (ok && avcodec_receive_frame(context_, frame) == 0) {
        // A picture of another size or layout is a failure, not something to convert.
        ok = frame->format == AV_PIX_FMT_YUV420P && frame->width == width && frame->height == height;
        *(keys != nullptr ? keys : &ignored) += frame->key_frame;
        std::vector<uint8_t> &out = pictures.emplace_back();
        for (int plane = 0; ok && plane < 3; ++plane) {
            const int w = plane == 0 ? width : width / 2;
            for (int row = 0; row < (plane == 0 ? height : height / 2); ++row) {
                const uint8_t *line = frame->data[plane] + static_cast<ptrdiff_t>(row) * frame->linesize[plane];
                out.insert(out.end(), line, line + w);
            }
        }
        av_frame_unref(frame);
    }
    av_frame_free(&frame);
    av_packet_free(&packet);
    return ok;
}

bool DecodesAlone(Codec codec, std::span<const uint8_t> unit, int width, int height)
{
    std::vector<std::vector<uint8_t>> pictures;
    int keys = 0;
    return Decoder(codec).Decode(unit, pictures, width, height, &keys) && pictures.size() == 1 && keys == 1;
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

} // namespace kxtest
