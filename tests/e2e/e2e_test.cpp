// SPDX-License-Identifier: Apache-2.0
// camhost streams each kind of camera through the plugin and the reference
// vendor libraries; FFmpeg decodes the files and each picture must be the
// test pattern frame it came from.
#include <sys/wait.h>

#include <gtest/gtest.h>

#include <cstdio>
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
        dir_ = std::filesystem::temp_directory_path() /
               ("kxcamera-e2e-" + std::to_string(::getpid()) + "-" +
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

struct StreamCase {
    const char *name;
    const char *camera;
    const char *format;
    bool raw; // encoded by the plugin, so it needs the colour converters
};

class CameraStreamTest : public EndToEndTest, public ::testing::WithParamInterface<StreamCase> {};

// Every picture decodes at the negotiated size and matches its pattern frame:
// a wrong colour matrix, stride or plane order costs far more than the
// codec's loss, which stays above 30 dB at these bit rates.
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
    constexpr int kFrames = 45;
    const auto stream = dir_ / "stream.bin";
    CommandResult run = Camhost(std::string("--camera ") + param.camera + " --format " + param.format +
                      " --size 640x480 --frames " + std::to_string(kFrames) + " --output " + stream.string());
    ASSERT_EQ(run.exitCode, 0) << run.output;

    const auto yuv = dir_ / "decoded.yuv";
    CommandResult decode = RunCommand("ffmpeg -loglevel error -i " + stream.string() + " -f rawvideo -pix_fmt yuv420p -y " +
                            yuv.string());
    ASSERT_EQ(decode.exitCode, 0) << decode.output;
    const std::vector<uint8_t> pictures = ReadFile(yuv);
    const size_t pictureBytes = kWidth * kHeight * 3 / 2;
    ASSERT_EQ(pictures.size() % pictureBytes, 0u) << "pictures of another size";
    const size_t count = pictures.size() / pictureBytes;
    EXPECT_GE(count, static_cast<size_t>(kFrames)) << run.output;

    auto pattern = kxpattern::PatternGenerator::Create(kxpattern::PixelFormat::kI420, kWidth, kHeight);
    ASSERT_TRUE(pattern.has_value());
    std::vector<uint8_t> expected(pattern->frameBytes());
    // A camera that falls behind skips slots, and its frame numbers with
    // them: each picture is matched with the best of the next few frames.
    uint64_t next = 0;
    for (size_t i = 0; i < count; ++i) {
        std::span<const uint8_t> picture(pictures.data() + i * pictureBytes, pictureBytes);
        double best = 0;
        uint64_t bestIndex = next;
        for (uint64_t index = next; index < next + 6; ++index) {
            ASSERT_TRUE(pattern->RenderTo(index, expected));
            const double luma = kxtest::PlanePsnr(picture, expected, kWidth, kHeight)[0];
            if (luma > best) {
                best = luma;
                bestIndex = index;
            }
        }
        ASSERT_GT(best, 30.0) << "picture " << i << " is not a pattern frame";
        ASSERT_TRUE(pattern->RenderTo(bestIndex, expected));
        const auto planes = kxtest::PlanePsnr(picture, expected, kWidth, kHeight);
        EXPECT_GT(planes[1], 30.0) << "U of picture " << i;
        EXPECT_GT(planes[2], 30.0) << "V of picture " << i;
        next = bestIndex + 1;
    }
}

INSTANTIATE_TEST_SUITE_P(Cameras, CameraStreamTest,
                         ::testing::Values(StreamCase{"RawNV21", "0", "nv21", true},
                                           StreamCase{"RawRGB565", "0", "rgb565", true},
                                           StreamCase{"PassThroughH264", "1", "h264", false},
                                           StreamCase{"PassThroughH265", "2", "h265", false}),
                         [](const auto &info) { return std::string(info.param.name); });

int CountKeyFrames(const std::string &output)
{
    int count = 0;
    for (size_t at = output.find("key_frame=1"); at != std::string::npos; at = output.find("key_frame=1", at + 1)) {
        ++count;
    }
    return count;
}

TEST_F(EndToEndTest, KeyFrameRequestGivesAnIdrMidStream)
{
    const auto stream = dir_ / "camera1.h264";
    CommandResult run = Camhost("--camera 1 --size 640x480 --frames 60 --keyframe-at 30 --output " + stream.string());
    ASSERT_EQ(run.exitCode, 0) << run.output;
    EXPECT_NE(run.output.find("key frame requested, status 0"), std::string::npos) << run.output;
    CommandResult probe = RunCommand("ffprobe -loglevel error -select_streams v -show_entries frame=key_frame -of compact " +
                           stream.string());
    ASSERT_EQ(probe.exitCode, 0) << probe.output;
    EXPECT_GE(CountKeyFrames(probe.output), 2) << "only the first picture is a key frame";
}

TEST_F(EndToEndTest, FrameRateChangeSlowsARawCameraAtOnce)
{
#ifndef KX_E2E_WITH_LIBYUV
    GTEST_SKIP() << "this build has no colour converters";
#endif
    // 15 frames at 30 fps, then 45 at 15 fps (the lowest the camera offers):
    // about 3.5 s, 17 fps overall against 30 unchanged.
    CommandResult run = Camhost("--camera 0 --size 640x480 --fps 30 --frames 60 --fps-change 15:15 --output " +
                      (dir_ / "slow.h264").string());
    ASSERT_EQ(run.exitCode, 0) << run.output;
    EXPECT_NE(run.output.find("frame rate 15 requested, status 0"), std::string::npos) << run.output;
    const size_t summary = run.output.find("summary Camera_0: 60 frames");
    ASSERT_NE(summary, std::string::npos) << run.output;
    double fps = 0;
    ASSERT_EQ(std::sscanf(run.output.c_str() + summary, "summary Camera_0: 60 frames %lf fps", &fps), 1);
    EXPECT_LT(fps, 22.0) << "the camera kept its first rate";
}

class BadArgumentsTest : public EndToEndTest, public ::testing::WithParamInterface<const char *> {};

TEST_P(BadArgumentsTest, ClearErrorAndNonZeroExitNeverACrash)
{
    CommandResult run = Camhost(std::string(GetParam()) + " --output " + (dir_ / "out.h264").string());
    EXPECT_FALSE(run.signalled) << run.output;
    EXPECT_NE(run.exitCode, 0) << run.output;
    EXPECT_FALSE(run.output.empty());
}

INSTANTIATE_TEST_SUITE_P(Arguments, BadArgumentsTest,
                         ::testing::Values("--size 641x480", "--size big", "--fps 0", "--fps 500", "--frames -3",
                                           "--camera 9", "--format yuv444", "--fps-change 10", "--no-such-option",
                                           "--camera 0,1 --output -", "--plugin /nonexistent/libkxcamera.so",
                                           "--camera 1 --size 333x222"));

} // namespace
