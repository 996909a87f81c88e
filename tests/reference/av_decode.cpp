// SPDX-License-Identifier: Apache-2.0
// Judging encoded output with libavcodec.
#include "av_decode.h"

#include <cmath>
#include <algorithm>

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
            Picture &out = pictures.emplace_back(Picture{{}, frame->key_frame != 0});
            for (int plane = 0; ok && plane < 3; ++plane) {
                for (int row = 0; row < (plane == 0 ? height : height / 2); ++row) {
                    const uint8_t *line = frame->data[plane] + static_cast<ptrdiff_t>(row) * frame->linesize[plane];
                    out.i420.insert(out.i420.end(), line, line + (plane == 0 ? width : width / 2));
                }
            }
            av_frame_unref(frame);
        }
        ok = ok && pictures.size() == u + 1;
    }
    av_frame_free(&frame);
    av_packet_free(&packet);
    avcodec_free_context(&context);
    return ok ? pictures : std::vector<Picture>{};
}

bool DecodesAlone(Codec codec, std::span<const uint8_t> unit, int width, int height)
{
    const std::vector<uint8_t> units[] = {{unit.begin(), unit.end()}};
    const std::vector<Picture> pictures = DecodeEach(codec, units, width, height);
    return pictures.size() == 1 && pictures[0].key;
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
