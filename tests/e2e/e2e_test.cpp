// SPDX-License-Identifier: Apache-2.0
// camhost streams each kind of camera through the plugin and the reference
// vendor libraries; FFmpeg decodes the files and each picture must be the
// test pattern frame it came from.
#include <sys/stat.h>
#include <sys/wait.h>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "av_decode.h"
#include "pattern.h"

namespace {

struct CommandResult {
    int exitCode = -1;
    bool signalled = false;
    std::string output;
};

CommandResult RunCommand(const std::string &command)
{
    CommandResult run;
    FILE *pipe = popen((command + " 2>&1").c_str(), "r");
    if (pipe == nullptr) {
        return run;
    }
    char buffer[4096];
    size_t got = 0;
    while ((got = std::fread(buffer, 1, sizeof(buffer), pipe)) > 0) {
        run.output.append(buffer, got);
    }
    const int status = pclose(pipe);
    run.signalled = WIFSIGNALED(status);
    run.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return run;
}

std::vector<uint8_t> ReadFile(const std::filesystem::path &path)
{
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

class EndToEndTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        dir_ =
            std::filesystem::temp_directory_path() / ("kxcamera-e2e-" + std::to_string(::getpid()) + "-" +
                                                      ::testing::UnitTest::GetInstance()->current_test_info()->name());
        std::filesystem::remove_all(dir_);
        std::filesystem::create_directories(dir_);
        if (RunCommand("command -v ffmpeg").exitCode != 0) {
            FAIL() << "ffmpeg is needed to judge the streams (scripts/install-deps.sh installs it)";
        }
    }
    void TearDown() override { std::filesystem::remove_all(dir_); }

    CommandResult Camhost(const std::string &args) { return RunCommand(std::string(KX_E2E_CAMHOST) + " " + args); }

    std::filesystem::path dir_;
};

// Every picture matches its pattern frame: a wrong colour matrix, stride or
// plane order costs far more than the codec's loss, which stays above 30 dB
// at these bit rates. A camera that falls behind skips slots, and its frame
// numbers with them, and a receiver may join a few frames late: each
// picture is matched with the best of the next few frames.
void ExpectPatternPictures(const std::vector<uint8_t> &pictures, int width, int height)
{
    const size_t pictureBytes = static_cast<size_t>(width) * height * 3 / 2;
    auto pattern = kxpattern::PatternGenerator::Create(kxpattern::PixelFormat::kI420, width, height);
    ASSERT_TRUE(pattern.has_value());
    std::vector<uint8_t> expected(pattern->frameBytes());
    uint64_t next = 0;
    for (size_t i = 0; i < pictures.size() / pictureBytes; ++i) {
        std::span<const uint8_t> picture(pictures.data() + i * pictureBytes, pictureBytes);
        double best = 0;
        uint64_t bestIndex = next;
        for (uint64_t index = next; index < next + 6; ++index) {
            ASSERT_TRUE(pattern->RenderTo(index, expected));
            const double luma = kxtest::PlanePsnr(picture, expected, width, height)[0];
            if (luma > best) {
                best = luma;
                bestIndex = index;
            }
        }
        ASSERT_GT(best, 30.0) << "picture " << i << " is not a pattern frame";
        ASSERT_TRUE(pattern->RenderTo(bestIndex, expected));
        const auto planes = kxtest::PlanePsnr(picture, expected, width, height);
        EXPECT_GT(planes[1], 30.0) << "U of picture " << i;
        EXPECT_GT(planes[2], 30.0) << "V of picture " << i;
        next = bestIndex + 1;
    }
}

double ProbeDuration(const std::filesystem::path &file)
{
    CommandResult probe =
        RunCommand("ffprobe -v error -show_entries format=duration -of default=nw=1:nk=1 " + file.string());
    return probe.exitCode == 0 ? std::atof(probe.output.c_str()) : -1;
}

int CountKeyFrames(const std::string &output)
{
    int count = 0;
    for (size_t at = output.find("key_frame=1"); at != std::string::npos; at = output.find("key_frame=1", at + 1)) {
        ++count;
    }
    return count;
}

// Where a stream goes and who receives it.
enum class Delivery { kFile, kRtp, kUdp, kSrt };

struct StreamCase {
    const char *name;
    const char *camera;
    const char *format;
    int fps;
    Delivery delivery;
    const char *file; // kFile: the output's name, its extension choosing the container
    bool raw;         // encoded by the plugin, so it needs the colour converters
};

class CameraStreamTest : public EndToEndTest, public ::testing::WithParamInterface<StreamCase> {};

// Each output kind carries every frame asked for, decodable and in order; a
// container plays for as long as the recording took, whatever the rate; a
// receiver on the loopback address gets all but the few frames sent before
// it joined.
TEST_P(CameraStreamTest, EveryDecodedPictureIsItsPatternFrame)
{
    const StreamCase &param = GetParam();
#ifndef KX_E2E_WITH_LIBYUV
    if (param.raw) {
        GTEST_SKIP() << "this build has no colour converters";
    }
#endif
    constexpr int kWidth = 640;
    constexpr int kHeight = 480;
    constexpr int kFrames = 60;
    const int port = 20000 + (::getpid() % 4000) * 10;
    const auto yuv = dir_ / "decoded.yuv";
    // Receivers start at once and stop on their own; nothing may hang a run.
    const std::string ffmpeg = "timeout -s KILL 60 ffmpeg -v error -analyzeduration 500000 ";
    const std::string decodeTo = " -f rawvideo -fps_mode passthrough -pix_fmt yuv420p -y " + yuv.string();
    const std::string camhost = "timeout -s KILL 60 " + std::string(KX_E2E_CAMHOST) + " --camera " + param.camera +
                                " --format " + param.format + " --size 640x480 --fps " + std::to_string(param.fps) +
                                " --frames " + std::to_string(kFrames) + " --stats-json " +
                                (dir_ / "stats.json").string() + " --output ";
    const auto file = dir_ / (param.file != nullptr ? param.file : "");
    std::string script;
    switch (param.delivery) {
    case Delivery::kFile:
        script = camhost + file.string() + " && ffmpeg -v error -i " + file.string() + decodeTo;
        break;
    case Delivery::kRtp: {
        // The receiver reads the session description as camhost writes it;
        // RTP has no end, so it is stopped once camhost is done and the
        // receiver, slower on a busy machine, has had time to catch up.
        const auto sdp = dir_ / "stream.sdp";
        ASSERT_EQ(::mkfifo(sdp.c_str(), 0600), 0);
        script = ffmpeg + "-protocol_whitelist file,rtp,udp -i " + sdp.string() + decodeTo + " & r=$!; " + camhost +
                 "rtp://127.0.0.1:" + std::to_string(port) + " -y --keyframe-at 2 --sdp " + sdp.string() +
                 "; c=$?; sleep 3; kill -INT $r; wait $r; exit $c";
        break;
    }
    case Delivery::kUdp:
        script = ffmpeg + "-i 'udp://127.0.0.1:" + std::to_string(port + 2) + "?timeout=1500000'" + decodeTo +
                 " & r=$!; sleep 1; " + camhost + "udp://127.0.0.1:" + std::to_string(port + 2) +
                 "; c=$?; wait $r; exit $c";
        break;
    case Delivery::kSrt:
        script = camhost + "srt://:" + std::to_string(port + 4) + " & c=$!; sleep 1; " + ffmpeg +
                 "-i srt://127.0.0.1:" + std::to_string(port + 4) + decodeTo + "; wait $c";
        break;
    }
    script = "{ " + script + "; }";
    CommandResult run = RunCommand(script);
    ASSERT_EQ(run.exitCode, 0) << script << "\n" << run.output;

    const std::vector<uint8_t> pictures = ReadFile(yuv);
    const size_t pictureBytes = kWidth * kHeight * 3 / 2;
    // A receiver stopped mid-picture leaves part of one; a file decodes whole.
    const size_t count = pictures.size() / pictureBytes;
    if (param.delivery == Delivery::kFile) {
        ASSERT_EQ(pictures.size() % pictureBytes, 0u) << "pictures of another size";
        EXPECT_EQ(count, static_cast<size_t>(kFrames)) << run.output;
    } else {
        // A receiver that starts listening late decodes from the next key
        // frame on: the encoders make one every 60 frames, and the test asks
        // for one at frame 2.
        EXPECT_LE(count, static_cast<size_t>(kFrames)) << run.output;
        EXPECT_GE(count, static_cast<size_t>(kFrames - 8)) << run.output;
    }
    // As long as the recording took: kFrames / fps, unless the camera had to
    // skip frames.
    if (param.delivery == Delivery::kFile && !std::string(param.file).ends_with(".h265")) {
        const auto stats = nlohmann::json::parse(ReadFile(dir_ / "stats.json"), nullptr, false);
        ASSERT_TRUE(stats.contains("cameras")) << run.output;
        EXPECT_NEAR(ProbeDuration(file), stats["cameras"][0]["seconds"].get<double>() + 1.0 / param.fps,
                    1.0 / param.fps);
    }
    ExpectPatternPictures(pictures, kWidth, kHeight);
}

INSTANTIATE_TEST_SUITE_P(
    Outputs, CameraStreamTest,
    ::testing::Values(StreamCase{"RawNV21Mp4", "0", "nv21", 15, Delivery::kFile, "stream.mp4", true},
                      StreamCase{"RawRGB565Mkv", "0", "rgb565", 30, Delivery::kFile, "stream.mkv", true},
                      StreamCase{"PassThroughH264Ts", "1", "h264", 15, Delivery::kFile, "stream.ts", false},
                      StreamCase{"PassThroughH265Bare", "2", "h265", 30, Delivery::kFile, "stream.h265", false},
                      StreamCase{"RawNV21Rtp", "0", "nv21", 30, Delivery::kRtp, nullptr, true},
                      StreamCase{"PassThroughH264Udp", "1", "h264", 30, Delivery::kUdp, nullptr, false},
                      StreamCase{"PassThroughH265Srt", "2", "h265", 30, Delivery::kSrt, nullptr, false}),
    [](const auto &info) { return std::string(info.param.name); });

// Three cameras side by side: each file holds exactly the frames asked for;
// a key-frame request reaches the raw camera's encoder as well as the
// self-encoding cameras; a rate change that cannot reach a camera says so.
TEST_F(EndToEndTest, SeveralCamerasKeyFramesAndWarnings)
{
#ifndef KX_E2E_WITH_LIBYUV
    GTEST_SKIP() << "this build has no colour converters";
#endif
    CommandResult run = Camhost("--camera '0, 1,Camera_2' --size 640x480 --frames 60 --keyframe-at 30 "
                                "--fps-change 59:30 --output " +
                                (dir_ / "cam{id}.mkv").string());
    ASSERT_EQ(run.exitCode, 0) << run.output;
    for (const char *id : {"0", "1", "2"}) {
        CommandResult probe =
            RunCommand("ffprobe -v error -select_streams v -show_entries frame=key_frame -of compact " +
                       (dir_ / ("cam" + std::string(id) + ".mkv")).string());
        ASSERT_EQ(probe.exitCode, 0) << probe.output;
        size_t frames = 0;
        for (size_t at = probe.output.find("frame|"); at != std::string::npos;
             at = probe.output.find("frame|", at + 1)) {
            ++frames;
        }
        EXPECT_EQ(frames, 60u) << "camera " << id;
        EXPECT_GE(CountKeyFrames(probe.output), 2) << "camera " << id << ": only the first picture is a key frame";
    }
    EXPECT_EQ(run.output.find("no key frame followed"), std::string::npos) << run.output;
    EXPECT_NE(run.output.find("Camera_1: warning: --fps-change cannot affect"), std::string::npos) << run.output;
    EXPECT_EQ(run.output.find("Camera_0: warning"), std::string::npos) << run.output;
}

// A rate change mid-recording: the file plays for as long as the recording
// took (the summary's span plus the last frame), not at the first rate.
TEST_F(EndToEndTest, FrameRateChangeKeepsTheFileInRealTime)
{
#ifndef KX_E2E_WITH_LIBYUV
    GTEST_SKIP() << "this build has no colour converters";
#endif
    const auto file = dir_ / "slow.mp4";
    const auto stats = dir_ / "stats.json";
    CommandResult run = Camhost("--camera 0 --size 640x480 --fps 30 --frames 60 --fps-change 15:15 --output " +
                                file.string() + " --stats-json " + stats.string());
    ASSERT_EQ(run.exitCode, 0) << run.output;
    const auto summary = nlohmann::json::parse(ReadFile(stats), nullptr, false);
    ASSERT_TRUE(summary.contains("cameras")) << run.output;
    const auto &camera = summary["cameras"][0];
    EXPECT_EQ(camera["frames"], 60);
    EXPECT_LT(camera["fps"].get<double>(), 22.0) << "the camera kept its first rate";
    EXPECT_GT(camera["latencyMs"]["p99"].get<double>(), 0.0);
    EXPECT_GE(camera["latencyMs"]["p99"].get<double>(), camera["latencyMs"]["p50"].get<double>());
    EXPECT_NEAR(ProbeDuration(file), camera["seconds"].get<double>() + 1.0 / 15, 1.0 / 15);
}

// The abilities as JSON, every entry kept: the raw camera offers NV21 and
// RGB565 in two entries under one key.
TEST_F(EndToEndTest, ListAsJsonKeepsEveryAbility)
{
    CommandResult run = Camhost("--list --json");
    ASSERT_EQ(run.exitCode, 0) << run.output;
    const auto list = nlohmann::json::parse(run.output.substr(run.output.find('[')), nullptr, false);
    ASSERT_TRUE(list.is_array()) << run.output;
    ASSERT_EQ(list.size(), 3u);
    const auto &entries = list[0]["ability"]["frameAbility"];
    ASSERT_TRUE(entries.is_array()) << list[0].dump();
    std::vector<std::string> formats;
    for (const auto &entry : entries) {
        formats.push_back(entry["supportFormats"][0]);
    }
    EXPECT_EQ(formats, (std::vector<std::string>{"NV21", "RGB565"}));
}

struct StopCase {
    const char *name;
    const char *script; // bash; CAMHOST and FILE are filled in, its status is camhost's
    int exitCode;
    const char *file; // FILE's name when it holds camhost's whole output, else null
};

class StopTest : public EndToEndTest, public ::testing::WithParamInterface<StopCase> {};

// However the run ends, the cameras close, the output is complete up to the
// last frame, the summary is printed and the exit code tells how it ended.
TEST_P(StopTest, OutputDecodesToTheEndAndTheSummaryComes)
{
#ifndef KX_E2E_WITH_LIBYUV
    if (std::string(GetParam().script).find("--camera 0") != std::string::npos) {
        GTEST_SKIP() << "this build has no colour converters";
    }
#endif
    const auto file = dir_ / (GetParam().file != nullptr ? GetParam().file : "out");
    std::string script = GetParam().script;
    for (const auto &[name, value] :
         {std::pair<std::string, std::string>{"CAMHOST", std::string(KX_E2E_CAMHOST) + " --size 640x480 --frames 3000"},
          {"FILE", file.string()}}) {
        for (size_t at = script.find(name); at != std::string::npos; at = script.find(name)) {
            script.replace(at, name.size(), value);
        }
    }
    std::ofstream(dir_ / "run.sh") << script << "\necho exit=$? >&2\n";
    CommandResult run = RunCommand("bash " + (dir_ / "run.sh").string());
    EXPECT_NE(run.output.find("exit=" + std::to_string(GetParam().exitCode)), std::string::npos) << run.output;
    const size_t summary = run.output.find("summary Camera_");
    ASSERT_NE(summary, std::string::npos) << run.output;
    unsigned long frames = 0;
    ASSERT_EQ(std::sscanf(run.output.c_str() + run.output.find(':', summary), ": %lu frames", &frames), 1);
    EXPECT_GT(frames, 0u);
    if (GetParam().file != nullptr) {
        CommandResult decode = RunCommand("ffmpeg -v error -i " + file.string() + " -f null -");
        EXPECT_EQ(decode.exitCode, 0) << decode.output;
        EXPECT_EQ(decode.output, "") << "the end of the file does not decode";
        CommandResult count = RunCommand("ffprobe -v error -count_frames -show_entries stream=nb_read_frames "
                                         "-of default=nw=1:nk=1 " +
                                         file.string());
        EXPECT_EQ(std::strtoul(count.output.c_str(), nullptr, 10), frames) << count.output;
    }
}

INSTANTIATE_TEST_SUITE_P(
    Endings, StopTest,
    ::testing::Values(
        StopCase{"SigintMidMp4", "CAMHOST --camera 0 -o FILE & c=$!; sleep 2; kill -INT $c; wait $c", 130, "cut.mp4"},
        StopCase{"SigtermMidH264", "CAMHOST --camera 1 -o FILE & c=$!; sleep 2; kill -TERM $c; wait $c", 143,
                 "cut.h264"},
        StopCase{"ReaderOfThePipeGoes", "CAMHOST --camera 1 -o - | head -c 30000 >/dev/null; (exit ${PIPESTATUS[0]})",
                 0, nullptr}),
    [](const auto &info) { return std::string(info.param.name); });

struct RefusalCase {
    const char *args;
    const char *says; // what the message must name
};

class RefusalTest : public EndToEndTest, public ::testing::WithParamInterface<RefusalCase> {};

// Refused before anything starts: a clear message, exit code 2, no crash,
// and no output file left behind (an existing one untouched).
TEST_P(RefusalTest, NamesTheProblemAndCreatesNothing)
{
    std::ofstream(dir_ / "exists.mp4") << "keep";
    std::string args = GetParam().args;
    for (size_t at = args.find("DIR"); at != std::string::npos; at = args.find("DIR")) {
        args.replace(at, 3, dir_.string());
    }
    CommandResult run = Camhost(args);
    EXPECT_FALSE(run.signalled) << run.output;
    EXPECT_EQ(run.exitCode, 2) << run.output;
    EXPECT_NE(run.output.find(GetParam().says), std::string::npos) << run.output;
    std::vector<std::string> left;
    for (const auto &entry : std::filesystem::directory_iterator(dir_)) {
        left.push_back(entry.path().filename().string());
    }
    EXPECT_EQ(left, std::vector<std::string>{"exists.mp4"});
    EXPECT_EQ(ReadFile(dir_ / "exists.mp4").size(), 4u);
}

INSTANTIATE_TEST_SUITE_P(
    Arguments, RefusalTest,
    ::testing::Values(
        RefusalCase{"--size 641x480 -o DIR/a.mp4", "bad size"}, RefusalCase{"--size big -o DIR/a.mp4", "bad size"},
        RefusalCase{"--fps 0 -o DIR/a.mp4", "--fps"}, RefusalCase{"--frames -3 -o DIR/a.mp4", "--frames"},
        RefusalCase{"--no-such-option", "no-such-option"}, RefusalCase{"--fps-change 10 -o DIR/a.mp4", "--fps-change"},
        RefusalCase{"--camera 9 -o DIR/a.mp4", "no camera 'Camera_9'"},
        RefusalCase{"--camera 0,Camera_0 -o DIR/a{id}.mp4", "named twice"},
        RefusalCase{"--camera 0,1 -o DIR/a.mp4", "{id}"}, RefusalCase{"--camera 0,1 -o -", "standard output"},
        RefusalCase{"--format yuv444 -o DIR/a.mp4", "unknown format"},
        RefusalCase{"--camera 1 --size 640x360 -o DIR/a.mp4", "size 640x360 not offered"},
        RefusalCase{"--camera 1 --format nv21 -o DIR/a.mp4", "format NV21 not offered"},
        RefusalCase{"--camera 0 --fps 60 -o DIR/a.mp4", "60 fps not offered"},
        RefusalCase{"-o DIR/a.avi", "outputs: .h264"}, RefusalCase{"--camera 2 -o DIR/a.h264", "H.265"},
        RefusalCase{"-o DIR/exists.mp4", "-y overwrites"}, RefusalCase{"-o DIR/missing/a.mp4", "no directory"},
        RefusalCase{"-o DIR/a.mp4 --snapshot DIR/missing/last.png", "snapshot"},
        RefusalCase{"-o DIR/a.mp4 --plugin /nonexistent/libkxcamera.so", "cannot load the plugin"}));

} // namespace
