// SPDX-License-Identifier: Apache-2.0
// Writes one camera's units to a bare stream, a timed container or the network.
#include "output.h"

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <vector>

extern "C" {
#include <libavformat/avformat.h>
#include <libavutil/error.h>
}

namespace camhost {

const char kOutputKinds[] = ".h264 .h265 (bare stream), .mp4, .mkv, .ts, - (bare stream to standard output), "
                            "rtp://HOST:PORT, udp://HOST:PORT (MPEG-TS), srt://[HOST]:PORT (MPEG-TS; no host: "
                            "listen for a viewer)";

namespace {

enum class Kind { kBare, kFile, kRtp, kUdp, kSrt, kUnknown };

struct Target {
    Kind kind = Kind::kUnknown;
    const char *muxer = nullptr;
};

bool EndsWith(const std::string &text, const char *suffix)
{
    const size_t n = std::strlen(suffix);
    return text.size() > n && text.compare(text.size() - n, n, suffix) == 0;
}

Target Classify(const std::string &target)
{
    if (target.rfind("rtp://", 0) == 0) {
        return {Kind::kRtp, "rtp"};
    }
    if (target.rfind("udp://", 0) == 0) {
        return {Kind::kUdp, "mpegts"};
    }
    if (target.rfind("srt://", 0) == 0) {
        return {Kind::kSrt, "mpegts"};
    }
    if (target == "-" || EndsWith(target, ".h264") || EndsWith(target, ".h265")) {
        return {Kind::kBare, nullptr};
    }
    static constexpr std::pair<const char *, const char *> kContainers[] = {
        {".mp4", "mp4"}, {".mkv", "matroska"}, {".ts", "mpegts"}};
    for (const auto &[extension, muxer] : kContainers) {
        if (EndsWith(target, extension)) {
            return {Kind::kFile, muxer};
        }
    }
    return {};
}

std::string AvError(int code)
{
    char text[AV_ERROR_MAX_STRING_SIZE] = {};
    av_strerror(code, text, sizeof(text));
    return text;
}

// Annex B NAL units of `unit`, each without its start code.
template <typename Visit> void ForEachNal(std::span<const uint8_t> unit, Visit &&visit)
{
    size_t start = SIZE_MAX;
    for (size_t i = 0; i + 2 < unit.size(); ++i) {
        if (unit[i] == 0 && unit[i + 1] == 0 && unit[i + 2] == 1) {
            if (start != SIZE_MAX) {
                size_t end = i;
                while (end > start && unit[end - 1] == 0) {
                    --end; // the zero of a four-byte start code
                }
                visit(unit.subspan(start, end - start));
            }
            start = i + 3;
            i += 2;
        }
    }
    if (start != SIZE_MAX && start < unit.size()) {
        visit(unit.subspan(start));
    }
}

// The parameter sets a key unit carries, as Annex B: what containers and the
// session description need before the first picture.
std::vector<uint8_t> ParameterSets(std::span<const uint8_t> unit, int32_t codecType)
{
    std::vector<uint8_t> sets;
    ForEachNal(unit, [&](std::span<const uint8_t> nal) {
        const int type = codecType == 2 ? (nal[0] >> 1) & 0x3f : nal[0] & 0x1f;
        const bool parameterSet = codecType == 2 ? (type >= 32 && type <= 34) : (type == 7 || type == 8);
        if (parameterSet) {
            sets.insert(sets.end(), {0, 0, 0, 1});
            sets.insert(sets.end(), nal.begin(), nal.end());
        }
    });
    return sets;
}

// Flushed per unit, so a reader of a pipe sees every unit as it arrives.
class BareOutput : public Output {
public:
    BareOutput(FILE *file, bool owned, std::string description) : file_(file), owned_(owned)
    {
        description_ = std::move(description);
    }
    ~BareOutput() override { Finish(); }

    bool Write(std::span<const uint8_t> unit, int64_t, bool) override
    {
        if (file_ == nullptr) {
            return false;
        }
        if (std::fwrite(unit.data(), 1, unit.size(), file_) != unit.size() || std::fflush(file_) != 0) {
            readerGone_ = errno == EPIPE;
            writeError_ = std::strerror(errno);
            return false;
        }
        return true;
    }

    bool Finish() override
    {
        if (file_ == nullptr) {
            return writeError_.empty();
        }
        const bool ok = owned_ ? std::fclose(file_) == 0 : std::fflush(file_) == 0 || errno == EPIPE;
        file_ = nullptr;
        return ok && writeError_.empty();
    }

private:
    FILE *file_;
    bool owned_;
};

class AvOutput : public Output {
public:
    ~AvOutput() override
    {
        Finish();
        av_packet_free(&packet_);
    }

    bool Open(const OutputWanted &wanted, const Target &target, std::string &error)
    {
        wanted_ = wanted;
        kind_ = target.kind;
        int status = avformat_alloc_output_context2(&context_, nullptr, target.muxer, wanted.target.c_str());
        if (status < 0) {
            error = wanted.target + ": " + AvError(status);
            return false;
        }
        stream_ = avformat_new_stream(context_, nullptr);
        packet_ = av_packet_alloc();
        if (stream_ == nullptr || packet_ == nullptr) {
            error = "out of memory";
            return false;
        }
        AVCodecParameters *par = stream_->codecpar;
        par->codec_type = AVMEDIA_TYPE_VIDEO;
        par->codec_id = wanted.codecType == 2 ? AV_CODEC_ID_HEVC : AV_CODEC_ID_H264;
        par->width = wanted.width;
        par->height = wanted.height;
        stream_->time_base = {1, 90000};
        stream_->avg_frame_rate = {wanted.fps, 1};
        if (kind_ != Kind::kFile) {
            // A viewer sees each unit as soon as it exists.
            context_->flags |= AVFMT_FLAG_FLUSH_PACKETS;
        }
        AVDictionary *options = nullptr;
        if (kind_ == Kind::kUdp || kind_ == Kind::kSrt) {
            av_dict_set(&options, "pkt_size", "1316", 0); // seven TS packets
        }
        if (kind_ == Kind::kSrt && wanted.target.find("mode=") == std::string::npos &&
            wanted.target.rfind("srt://:", 0) == 0) {
            av_dict_set(&options, "mode", "listener", 0);
            std::fprintf(stderr, "waiting for a viewer to connect to %s\n", wanted.target.c_str());
        }
        status = avio_open2(&context_->pb, wanted.target.c_str(), AVIO_FLAG_WRITE, nullptr, &options);
        av_dict_free(&options);
        if (status < 0) {
            error = "cannot open " + wanted.target + ": " + AvError(status);
            return false;
        }
        description_ = wanted.target;
        // A receiver needs the session description before the first packet;
        // the parameter sets travel in-band with every key frame instead.
        if (kind_ == Kind::kRtp) {
            status = avformat_write_header(context_, nullptr);
            if (status < 0) {
                error = "cannot start " + wanted.target + ": " + AvError(status);
                return false;
            }
            headerWritten_ = true;
            if (!WriteSdp()) {
                error = writeError_;
                return false;
            }
        }
        return true;
    }

    bool Write(std::span<const uint8_t> unit, int64_t timeUs, bool key) override
    {
        if (failed_) {
            return false;
        }
        if (!started_) {
            if (!key) {
                return true; // nothing decodes before the first key frame
            }
            if (!headerWritten_ && !WriteHeader(unit)) {
                return Fail();
            }
            started_ = true;
            firstUs_ = timeUs;
        }
        int64_t ts = av_rescale_q(timeUs - firstUs_, {1, 1000000}, stream_->time_base);
        if (ts <= lastTs_) {
            ts = lastTs_ + 1; // a container wants strictly increasing times
        }
        // A unit lasts until the next; the last one as long as the one before.
        const int64_t duration = lastTs_ >= 0 ? ts - lastTs_ : av_rescale_q(1, {1, wanted_.fps}, stream_->time_base);
        lastTs_ = ts;
        if (av_new_packet(packet_, static_cast<int>(unit.size())) < 0) {
            return Fail();
        }
        std::memcpy(packet_->data, unit.data(), unit.size());
        packet_->pts = packet_->dts = ts;
        packet_->duration = duration;
        packet_->stream_index = 0;
        packet_->flags = key ? AV_PKT_FLAG_KEY : 0;
        const int status = av_write_frame(context_, packet_);
        av_packet_unref(packet_);
        if (status < 0) {
            writeError_ = AvError(status);
            return Fail();
        }
        return true;
    }

    bool Finish() override
    {
        if (context_ == nullptr) {
            return !failed_;
        }
        bool ok = !failed_;
        if (headerWritten_) {
            ok = av_write_trailer(context_) >= 0 && ok;
        }
        if (context_->pb != nullptr) {
            ok = avio_closep(&context_->pb) >= 0 && ok;
        }
        avformat_free_context(context_);
        context_ = nullptr;
        return ok;
    }

private:
    bool WriteHeader(std::span<const uint8_t> unit)
    {
        const std::vector<uint8_t> sets = ParameterSets(unit, wanted_.codecType);
        AVCodecParameters *par = stream_->codecpar;
        par->extradata = static_cast<uint8_t *>(av_mallocz(sets.size() + AV_INPUT_BUFFER_PADDING_SIZE));
        if (par->extradata == nullptr) {
            return false;
        }
        std::memcpy(par->extradata, sets.data(), sets.size());
        par->extradata_size = static_cast<int>(sets.size());
        const int status = avformat_write_header(context_, nullptr);
        if (status < 0) {
            writeError_ = "cannot start " + wanted_.target + ": " + AvError(status);
            return false;
        }
        headerWritten_ = true;
        return true;
    }

    bool WriteSdp()
    {
        char sdp[4096] = {};
        if (av_sdp_create(&context_, 1, sdp, sizeof(sdp)) < 0) {
            writeError_ = "cannot describe the RTP session";
            return false;
        }
        if (wanted_.sdpPath.empty()) {
            std::printf("%s\n", sdp);
            std::fflush(stdout);
            return true;
        }
        FILE *file = std::fopen(wanted_.sdpPath.c_str(), "w");
        const bool ok = file != nullptr && std::fputs(sdp, file) >= 0 && std::fputc('\n', file) != EOF;
        if (file != nullptr && std::fclose(file) != 0) {
            return false;
        }
        if (!ok) {
            writeError_ = "cannot write " + wanted_.sdpPath;
        } else {
            std::fprintf(stderr,
                         "session description written to %s (open it with ffplay -protocol_whitelist "
                         "file,rtp,udp %s)\n",
                         wanted_.sdpPath.c_str(), wanted_.sdpPath.c_str());
        }
        return ok;
    }

    bool Fail()
    {
        failed_ = true;
        if (writeError_.empty()) {
            writeError_ = "out of memory";
        }
        return false;
    }

    OutputWanted wanted_;
    Kind kind_ = Kind::kUnknown;
    AVFormatContext *context_ = nullptr;
    AVStream *stream_ = nullptr;
    AVPacket *packet_ = nullptr;
    bool headerWritten_ = false;
    bool started_ = false;
    bool failed_ = false;
    int64_t firstUs_ = 0;
    int64_t lastTs_ = -1;
};

} // namespace

std::string CheckNewFile(const std::string &path, bool overwrite)
{
    namespace fs = std::filesystem;
    std::error_code error;
    const fs::path file(path);
    if (fs::is_directory(file, error)) {
        return path + " is a directory";
    }
    if (fs::exists(file, error) && !overwrite) {
        return path + " exists (-y overwrites it)";
    }
    const fs::path dir = file.has_parent_path() ? file.parent_path() : fs::path(".");
    if (!fs::is_directory(dir, error)) {
        return "no directory " + dir.string() + " for " + path;
    }
    if (::access(dir.c_str(), W_OK) != 0 || (fs::exists(file, error) && ::access(file.c_str(), W_OK) != 0)) {
        return "cannot write " + path + ": " + std::strerror(errno);
    }
    return {};
}

std::string CheckOutput(const OutputWanted &wanted)
{
    const Target target = Classify(wanted.target);
    switch (target.kind) {
    case Kind::kUnknown:
        return "cannot write '" + wanted.target + "'; outputs: " + kOutputKinds;
    case Kind::kBare:
        if (wanted.target == "-") {
            return {};
        }
        if (EndsWith(wanted.target, wanted.codecType == 2 ? ".h264" : ".h265")) {
            return wanted.target + ": the camera streams " +
                   (wanted.codecType == 2 ? "H.265 (.h265)" : "H.264 (.h264)");
        }
        return CheckNewFile(wanted.target, wanted.overwrite);
    case Kind::kFile:
        return CheckNewFile(wanted.target, wanted.overwrite);
    case Kind::kRtp:
        return wanted.sdpPath.empty() ? std::string() : CheckNewFile(wanted.sdpPath, wanted.overwrite);
    default:
        return {};
    }
}

std::unique_ptr<Output> OpenOutput(const OutputWanted &wanted, std::string &error)
{
    const Target target = Classify(wanted.target);
    if (target.kind == Kind::kBare) {
        if (wanted.target == "-") {
            return std::make_unique<BareOutput>(stdout, false, "standard output");
        }
        FILE *file = std::fopen(wanted.target.c_str(), "wb");
        if (file == nullptr) {
            error = "cannot write " + wanted.target + ": " + std::strerror(errno);
            return nullptr;
        }
        return std::make_unique<BareOutput>(file, true, wanted.target);
    }
    auto output = std::make_unique<AvOutput>();
    if (!output->Open(wanted, target, error)) {
        return nullptr;
    }
    return output;
}

} // namespace camhost
