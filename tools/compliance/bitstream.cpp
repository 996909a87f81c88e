// SPDX-License-Identifier: Apache-2.0
// Annex B parsing and libavcodec decoding of encoded units.
#include "bitstream.h"

#include <algorithm>

#ifdef KXCOMPLIANCE_WITH_AVCODEC
extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/error.h>
}
#endif

namespace kxcompliance {
namespace {

constexpr int kH264Idr = 5;
constexpr int kH264Sps = 7;
constexpr int kH264Pps = 8;
constexpr int kH265IdrWithLeading = 19;
constexpr int kH265IdrPlain = 20;
constexpr int kH265Vps = 32;
constexpr int kH265Sps = 33;
constexpr int kH265Pps = 34;

} // namespace

bool StartsWithStartCode(std::span<const uint8_t> unit)
{
    static constexpr uint8_t kShort[] = {0, 0, 1};
    static constexpr uint8_t kLong[] = {0, 0, 0, 1};
    return (unit.size() > 3 && std::equal(std::begin(kShort), std::end(kShort), unit.begin())) ||
           (unit.size() > 4 && std::equal(std::begin(kLong), std::end(kLong), unit.begin()));
}

std::vector<int> NalTypes(Codec codec, std::span<const uint8_t> unit)
{
    std::vector<int> types;
    for (size_t i = 0; i + 3 < unit.size(); ++i) {
        if (unit[i] == 0 && unit[i + 1] == 0 && unit[i + 2] == 1) {
            const uint8_t header = unit[i + 3];
            types.push_back(codec == Codec::kH264 ? header & 0x1f : (header >> 1) & 0x3f);
            i += 2;
        }
    }
    return types;
}

bool IsIdrWithParameterSets(Codec codec, std::span<const uint8_t> unit)
{
    const std::vector<int> types = NalTypes(codec, unit);
    const auto has = [&](int type) { return std::find(types.begin(), types.end(), type) != types.end(); };
    if (codec == Codec::kH264) {
        return has(kH264Idr) && has(kH264Sps) && has(kH264Pps);
    }
    return (has(kH265IdrWithLeading) || has(kH265IdrPlain)) && has(kH265Vps) && has(kH265Sps) && has(kH265Pps);
}

#ifdef KXCOMPLIANCE_WITH_AVCODEC

Decoder::Decoder(Codec codec)
{
    const AVCodec *decoder = avcodec_find_decoder(codec == Codec::kH264 ? AV_CODEC_ID_H264 : AV_CODEC_ID_HEVC);
    if (decoder == nullptr || (context_ = avcodec_alloc_context3(decoder)) == nullptr) {
        return;
    }
    context_->thread_count = 1; // one unit in, its picture out: no frame threading delay
    if (avcodec_open2(context_, decoder, nullptr) < 0) {
        avcodec_free_context(&context_);
    }
}

Decoder::~Decoder()
{
    avcodec_free_context(&context_);
}

std::optional<std::string> Decoder::Decode(std::span<const uint8_t> unit, std::vector<PictureSize> &pictures)
{
    AVPacket *packet = av_packet_alloc();
    AVFrame *frame = av_frame_alloc();
    std::optional<std::string> complaint;
    const auto describe = [](int error) {
        char text[AV_ERROR_MAX_STRING_SIZE] = {};
        av_strerror(error, text, sizeof(text));
        return std::string(text);
    };
    if (packet == nullptr || frame == nullptr) {
        complaint = "out of memory";
    } else {
        packet->data = const_cast<uint8_t *>(unit.data());
        packet->size = static_cast<int>(unit.size());
        const int sent = avcodec_send_packet(context_, unit.empty() ? nullptr : packet);
        if (sent < 0 && sent != AVERROR_EOF) {
            complaint = describe(sent);
        }
        int got = 0;
        while ((got = avcodec_receive_frame(context_, frame)) >= 0) {
            pictures.push_back({frame->width, frame->height});
            av_frame_unref(frame);
        }
        if (got != AVERROR(EAGAIN) && got != AVERROR_EOF && !complaint) {
            complaint = describe(got);
        }
    }
    av_frame_free(&frame);
    av_packet_free(&packet);
    return complaint;
}

#else

Decoder::Decoder(Codec) {}
Decoder::~Decoder() = default;
std::optional<std::string> Decoder::Decode(std::span<const uint8_t>, std::vector<PictureSize> &)
{
    return "built without libavcodec";
}

#endif

} // namespace kxcompliance
