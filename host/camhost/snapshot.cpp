// SPDX-License-Identifier: Apache-2.0
// The last picture of an Annex B stream as a PNG.
#include "snapshot.h"

#include <png.h>

#include <cstdio>
#include <memory>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/imgutils.h>
#include <libswscale/swscale.h>
}

namespace camhost {
namespace {

struct CodecContextFree {
    void operator()(AVCodecContext *context) const { avcodec_free_context(&context); }
};
struct FrameFree {
    void operator()(AVFrame *frame) const { av_frame_free(&frame); }
};
struct PacketFree {
    void operator()(AVPacket *packet) const { av_packet_free(&packet); }
};
struct ParserClose {
    void operator()(AVCodecParserContext *parser) const { av_parser_close(parser); }
};
struct FileClose {
    void operator()(FILE *file) const { std::fclose(file); }
};

std::string WritePng(const std::string &path, const uint8_t *rgb, int stride, int width, int height)
{
    std::unique_ptr<FILE, FileClose> file(std::fopen(path.c_str(), "wb"));
    if (!file) {
        return "cannot write " + path;
    }
    png_structp png = png_create_write_struct(PNG_LIBPNG_VER_STRING, nullptr, nullptr, nullptr);
    png_infop info = png != nullptr ? png_create_info_struct(png) : nullptr;
    if (png == nullptr || info == nullptr) {
        png_destroy_write_struct(&png, &info);
        return "cannot create a PNG writer";
    }
    if (setjmp(png_jmpbuf(png)) != 0) {
        png_destroy_write_struct(&png, &info);
        return "PNG write failed";
    }
    png_init_io(png, file.get());
    png_set_IHDR(png, info, static_cast<png_uint_32>(width), static_cast<png_uint_32>(height), 8, PNG_COLOR_TYPE_RGB,
                 PNG_INTERLACE_NONE, PNG_COMPRESSION_TYPE_DEFAULT, PNG_FILTER_TYPE_DEFAULT);
    png_write_info(png, info);
    for (int y = 0; y < height; ++y) {
        png_write_row(png, rgb + static_cast<ptrdiff_t>(y) * stride);
    }
    png_write_end(png, nullptr);
    png_destroy_write_struct(&png, &info);
    return {};
}

} // namespace

std::string WriteSnapshot(const std::vector<uint8_t> &stream, int32_t codecType, const std::string &pngPath, int &width,
                          int &height)
{
    const AVCodec *codec = avcodec_find_decoder(codecType == 2 ? AV_CODEC_ID_HEVC : AV_CODEC_ID_H264);
    if (codec == nullptr) {
        return "no decoder for the stream";
    }
    std::unique_ptr<AVCodecContext, CodecContextFree> context(avcodec_alloc_context3(codec));
    std::unique_ptr<AVCodecParserContext, ParserClose> parser(av_parser_init(codec->id));
    std::unique_ptr<AVPacket, PacketFree> packet(av_packet_alloc());
    std::unique_ptr<AVFrame, FrameFree> frame(av_frame_alloc());
    std::unique_ptr<AVFrame, FrameFree> last(av_frame_alloc());
    if (!context || !parser || !packet || !frame || !last || avcodec_open2(context.get(), codec, nullptr) < 0) {
        return "cannot set up the decoder";
    }
    bool decoded = false;
    auto drain = [&] {
        while (avcodec_receive_frame(context.get(), frame.get()) == 0) {
            av_frame_unref(last.get());
            av_frame_move_ref(last.get(), frame.get());
            decoded = true;
        }
    };
    const uint8_t *data = stream.data();
    size_t left = stream.size();
    while (left > 0) {
        int used = av_parser_parse2(parser.get(), context.get(), &packet->data, &packet->size, data,
                                    static_cast<int>(left), AV_NOPTS_VALUE, AV_NOPTS_VALUE, 0);
        if (used < 0) {
            return "the stream cannot be parsed";
        }
        data += used;
        left -= static_cast<size_t>(used);
        if (packet->size > 0 && avcodec_send_packet(context.get(), packet.get()) == 0) {
            drain();
        }
    }
    // Flush what the parser and the decoder still hold.
    av_parser_parse2(parser.get(), context.get(), &packet->data, &packet->size, nullptr, 0, AV_NOPTS_VALUE,
                     AV_NOPTS_VALUE, 0);
    if (packet->size > 0 && avcodec_send_packet(context.get(), packet.get()) == 0) {
        drain();
    }
    avcodec_send_packet(context.get(), nullptr);
    drain();
    if (!decoded) {
        return "no picture could be decoded";
    }
    width = last->width;
    height = last->height;
    SwsContext *scale = sws_getContext(width, height, static_cast<AVPixelFormat>(last->format), width, height,
                                       AV_PIX_FMT_RGB24, SWS_BILINEAR, nullptr, nullptr, nullptr);
    if (scale == nullptr) {
        return "cannot convert the picture";
    }
    std::vector<uint8_t> rgb(static_cast<size_t>(width) * height * 3);
    uint8_t *planes[1] = {rgb.data()};
    int strides[1] = {width * 3};
    sws_scale(scale, last->data, last->linesize, 0, height, planes, strides);
    sws_freeContext(scale);
    return WritePng(pngPath, rgb.data(), width * 3, width, height);
}

} // namespace camhost
