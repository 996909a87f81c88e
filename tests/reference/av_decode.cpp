// SPDX-License-Identifier: Apache-2.0
// Judging encoded output with libavcodec.
#include "av_decode.h"

#include <algorithm>
#include <cmath>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/imgutils.h>
}

namespace kxtest {

std::vector<Picture> DecodeEach(Codec codec, std::span<const std::vector<uint8_t>> units, int width, int height)
{
    const AVCodec *decoder = avcodec_find_decoder(codec == Codec::kH264 ? AV_CODEC_ID_H264 : AV_CODEC_ID_HEVC);
    AVCodecContext *context = avcodec_alloc_context3(decoder);
    // One thread and no reordering delay: one unit in, one picture out.
    context->thread_count = 1;
    context->flags |= AV_CODEC_FLAG_LOW_DELAY;
    context->err_recognition = AV_EF_EXPLODE;
    std::vector<Picture> pictures;
    bool ok = avcodec_open2(context, decoder, nullptr) == 0;
    AVPacket *packet = av_packet_alloc();
    AVFrame *frame = av_frame_alloc();
    for (size_t u = 0; ok && u < units.size(); ++u) {
        std::vector<uint8_t> padded(units[u].size() + AV_INPUT_BUFFER_PADDING_SIZE, 0);
        std::copy(units[u].begin(), units[u].end(), padded.begin());
        packet->data = padded.data();
        packet->size = static_cast<int>(units[u].size());
        ok = !units[u].empty() && avcodec_send_packet(context, packet) == 0;
        while (ok && avcodec_receive_frame(context, frame) == 0) {
            // A picture of another size or layout is a failure, not something to convert.
            ok = frame->format == AV_PIX_FMT_YUV420P && frame->width == width && frame->height == height;
            Picture &out = pictures.emplace_back(
                Picture{std::vector<uint8_t>(size_t(width) * height * 3 / 2), frame->key_frame != 0});
            ok = ok && av_image_copy_to_buffer(out.i420.data(), static_cast<int>(out.i420.size()), frame->data,
                                               frame->linesize, AV_PIX_FMT_YUV420P, width, height, 1) > 0;
            av_frame_unref(frame);
        }
        ok = ok && pictures.size() == u + 1;
    }
    av_frame_free(&frame);
    av_packet_free(&packet);
    avcodec_free_context(&context);
    return ok ? pictures : std::vector<Picture>{};
}

std::vector<double> PlanePsnr(std::span<const uint8_t> a, std::span<const uint8_t> b, int width, int height)
{
    const size_t luma = static_cast<size_t>(width) * height;
    std::vector<double> psnr;
    for (const auto &[from, to] : {std::pair{size_t{0}, luma}, {luma, luma * 5 / 4}, {luma * 5 / 4, luma * 3 / 2}}) {
        double sum = 0;
        for (size_t i = from; i < to; ++i) {
            const double d = i < std::min(a.size(), b.size()) ? double(a[i]) - double(b[i]) : 255;
            sum += d * d;
        }
        psnr.push_back(sum == 0 ? 99.0 : 10.0 * std::log10(255.0 * 255.0 * double(to - from) / sum));
    }
    return psnr;
}

} // namespace kxtest
