// SPDX-License-Identifier: Apache-2.0
// The encoder thread: start and stop, frames through the fake encoder to the
// framework, and posting bitstream units.
#include "video/lane.h"
#include "video/video.h"

#include <cstdio>
#include <string>
#include <vector>

#include "video_support.h"

namespace kxtest {
namespace {

constexpr int32_t kMax = 52428800;
// Large enough that a conversion done in place would corrupt its chroma.
constexpr int32_t kW = 64, kH = 32;
constexpr uint32_t kFrameBytes = kW * kH * 3 / 2;

class VideoThreadTest : public VideoTest {
protected:
    void SetUp() override
    {
        VideoTest::SetUp();
        camera_->negParams = KxNegParams{kW, kH, 30, 0, 2};
    }
    void PushFrames(int count)
    {
        for (int i = 0; i < count; ++i) {
            ASSERT_EQ(Push(Nv21Pattern(kW, kH, kW, static_cast<uint8_t>(i))), 0);
        }
    }
};

TEST_F(VideoThreadTest, StopIsHarmlessWhenNothingRunsAndIdempotent)
{
    EXPECT_EQ(StopVideoEncoderThread(camera_), 0); // never started
    TalvoTestFailNth(TALVO_FN_THREAD_CREATE, 1);
    EXPECT_EQ(StartVideoEncoderThread(camera_), -99);
    EXPECT_TRUE(HasLog(1, "create audio decode thread failed, error code -99"));
    EXPECT_EQ(camera_->vencRunning, 0);
    PushFrames(1);
    EXPECT_EQ(camera_->counters.droppedError, 1u) << "no queue without a thread";
    EXPECT_EQ(StopVideoEncoderThread(camera_), 0); // after a failed start
    EXPECT_EQ(TalvoTestCallCount(TALVO_FN_THREAD_JOIN), 0u);
    EXPECT_EQ(TalvoTestCallCount(TALVO_FN_MUTEX_DESTROY), 1u) << "only the failed start's own lock";

    ASSERT_EQ(StartVideoEncoderThread(camera_), 0); // empty queue: polls until told to stop
    EXPECT_EQ(StopVideoEncoderThread(camera_), 0);
    EXPECT_EQ(LogsWithFormat("exit thread AudioDeocoderThread").size(), 1u) << "left its loop before the join";
    EXPECT_EQ(StopVideoEncoderThread(camera_), 0); // second stop
    EXPECT_EQ(TalvoTestCallCount(TALVO_FN_THREAD_JOIN), 1u);
    EXPECT_EQ(TalvoTestCallCount(TALVO_FN_MUTEX_DESTROY), 2u);
    EXPECT_EQ(LogsWithFormat("begin to join thread video encoder").size(), 4u);
}

struct StopRow {
    const char *name;
    TalvoTestFn failing; // TALVO_FN_COUNT: none
    const char *error;
    int32_t endStatus;
};

class VideoStopTest : public VideoThreadTest, public ::testing::WithParamInterface<StopRow> {};

TEST_P(VideoStopTest, QueuedFramesAndBuffersReleased)
{
    ArmQueue(true);
    PushFrames(3);
    ASSERT_EQ(camera_->vencQueue.count, 3u);
    camera_->laneThread->encFrame.data = static_cast<uint8_t *>(TalvoMalloc(2, 8));
    camera_->laneThread->convFrame.data = static_cast<uint8_t *>(TalvoMalloc(2, 8));
    const int64_t before = TalvoTestOutstandingAllocs();
    TalvoTestFailNth(GetParam().failing, GetParam().failing == TALVO_FN_COUNT ? 0 : 1);
    EXPECT_EQ(StopVideoEncoderThread(camera_), 0);
    EXPECT_EQ(TalvoTestOutstandingAllocs(), before - 3 * 3 - 3) << "nodes, units, data; both buffers and the lane";
    EXPECT_EQ(TalvoTestCallCount(TALVO_FN_MUTEX_DESTROY), 1u);
    EXPECT_EQ(TextsAtLevel(1), *GetParam().error ? std::vector<std::string>{GetParam().error}
                                                 : std::vector<std::string>{});
    EXPECT_TRUE(HasLog(4, "end to join thread audio encoder, ret " + std::to_string(GetParam().endStatus)));
    if (GetParam().failing == TALVO_FN_THREAD_JOIN) {
        EXPECT_EQ(TALVOThreadJoinFw(camera_->vencThread, nullptr), 0) << "the stop did not join";
    }
}

INSTANTIATE_TEST_SUITE_P(
    Rows, VideoStopTest,
    ::testing::Values(StopRow{"Clean", TALVO_FN_COUNT, "", 0},
                      StopRow{"JoinFails", TALVO_FN_THREAD_JOIN, "TALVOThreadJoinFw failed, error code -99", 0},
                      StopRow{"DestroyFails", TALVO_FN_MUTEX_DESTROY, "TALVOMutexDestroy failed, error code -99", -99}),
    [](const auto &info) { return std::string(info.param.name); });

TEST(VideoFrameSizeTest, BitsPerPixelOfTheFormat)
{
    const int32_t rows[][4] = {{1920, 1080, 0, 3110400}, {1920, 1080, 1, 3110400}, {640, 480, 2, 460800},
                               {640, 480, 4, 614400},    {640, 480, 3, 921600},    {640, 480, 5, 921600}};
    for (const auto &row : rows) {
        EXPECT_EQ(GetVideoFrameSize(row[0], row[1], row[2]), row[3]) << "format " << row[2];
    }
}

struct PipelineRow {
    const char *name;
    int32_t mask; // of the encoder's one ability: 6 gives NV12, the others I420
    FakeEncoderOutputMode mode;
    int32_t processStatus;
};

// Without libyuv no frame can be prepared; the conversion suite covers that.
#if KXCAMERA_WITH_LIBYUV
class VideoPipelineTest : public VideoThreadTest, public ::testing::WithParamInterface<PipelineRow> {};

TEST_P(VideoPipelineTest, FramesPreparedEncodedAndPostedInOrder)
{
    LoadEncoder({Ability(0, GetParam().mask)});
    FakeEncoder()->outputMode = GetParam().mode;
    FakeEncoder()->status.process = GetParam().processStatus;
    FakeEncoder()->inputCopyBytes = kFrameBytes;
    ASSERT_EQ(CreateVideoEncoder(camera_), 0) << DumpLogs();
    ASSERT_EQ(StartVideoEncoderThread(camera_), 0);
    PushFrames(3);
    const bool arrived = sink_.WaitFor(3);
    EXPECT_EQ(StopVideoEncoderThread(camera_), 0);
    EXPECT_EQ(DestoryVideoEncoder(camera_), 0);
    ASSERT_TRUE(arrived) << DumpLogs();

    const bool nv12 = GetParam().mask == 6;
    auto calls = FakeEncoder()->CallsTo("VideoEncoderProcess");
    auto units = sink_.Units();
    ASSERT_EQ(calls.size(), 3u);
    ASSERT_EQ(units.size(), 3u);
    for (uint32_t i = 0; i < 3; ++i) {
        const auto i420 = Nv21ToI420(Nv21Pattern(kW, kH, kW, static_cast<uint8_t>(i)), kW, kH, kW);
        const auto expected = nv12 ? I420ToNv12(i420, kW, kH) : i420;
        const KxVencInputFrame &input = calls[i].input;
        EXPECT_EQ(input.csp, nv12 ? KX_CSP_NV12 : KX_CSP_I420);
        EXPECT_EQ(std::vector<uint32_t>({input.length, input.width, input.height}),
                  std::vector<uint32_t>({kFrameBytes, kW, kH}));
        EXPECT_EQ(calls[i].inputHead, expected) << "frame " << i;
        EXPECT_NE(input.timeStamp, 0);
        EXPECT_EQ(units[i].code, 5u);
        EXPECT_EQ(units[i].identity, "cam0");
        EXPECT_EQ(units[i].timeStamp, input.timeStamp);
        EXPECT_EQ(units[i].bytes, FakeEncoderBitstream(i, expected.data(), kFrameBytes));
    }
    EXPECT_EQ(LogsWithFormat("AudioDecoderProcess process failed").size(), GetParam().processStatus != 0 ? 3u : 0u);
}

INSTANTIATE_TEST_SUITE_P(Rows, VideoPipelineTest,
                         ::testing::Values(PipelineRow{"I420Returned", 1, kFakeOutputReturn, 0},
                                           PipelineRow{"Nv12Returned", 6, kFakeOutputReturn, 0},
                                           PipelineRow{"Nv12ByCallback", 6, kFakeOutputCallback, 0},
                                           PipelineRow{"I420ByVendorThread", 7, kFakeOutputCallbackThread, 0},
                                           PipelineRow{"ProcessFailureStillPosts", 1, kFakeOutputReturn, -1}),
                         [](const auto &info) { return std::string(info.param.name); });
#endif

struct PostRow {
    const char *name;
    bool viaCallback, nullBuffer;
    int32_t length;
    bool posted;
    const char *error; // "": none; "invalid": the output callback's line
};

class VideoPostTest : public VideoThreadTest, public ::testing::WithParamInterface<PostRow> {};

TEST_P(VideoPostTest, Row)
{
    static std::vector<uint8_t> big(kMax + 1, 0x3C);
    const PostRow &row = GetParam();
    const KxVencOutput output{row.nullBuffer ? nullptr : big.data(), row.length, 0, 0x123456789ABLL};
    if (row.viaCallback) {
        VEncOutputCallback(&output, camera_);
    } else {
        PostVideoBs(camera_, &output);
    }
    auto units = sink_.Units();
    ASSERT_EQ(units.size(), row.posted ? 1u : 0u);
    if (row.posted) {
        EXPECT_EQ(units[0].code, 5u);
        EXPECT_EQ(units[0].outputLen, 160u);
        EXPECT_EQ(units[0].identity, "cam0") << "bitstream units name the vendor id";
        EXPECT_EQ(units[0].serviceType, 1u);
        EXPECT_TRUE(units[0].payloadZeroButData);
        EXPECT_EQ(units[0].timeStamp, 0x123456789ABLL) << "the encoder's time stamp";
        EXPECT_EQ(units[0].streamType, 0);
        EXPECT_EQ(units[0].dataType, 102);
        EXPECT_EQ(units[0].bytes.size(), static_cast<size_t>(row.length));
    }
    char invalid[128];
    std::snprintf(invalid, sizeof(invalid), "outputData->bsBuf is %p outputData->bsLength %d is invalid, check it",
                  static_cast<void *>(output.bsBuf), row.length);
    const std::string error = std::string(row.error) == "invalid" ? invalid : row.error;
    EXPECT_EQ(TextsAtLevel(1), error.empty() ? std::vector<std::string>{} : std::vector<std::string>{error});
}

INSTANTIATE_TEST_SUITE_P(
    Rows, VideoPostTest,
    ::testing::Values(
        PostRow{"Largest", false, false, kMax, true, ""},
        PostRow{"TooLarge", false, false, kMax + 1, false, "output video stream is too large, ignore it, length 52428801"},
        PostRow{"Empty", false, false, 0, false, ""}, PostRow{"Negative", false, false, -1, false, ""},
        PostRow{"NullBuffer", false, true, 10, false, ""},
        PostRow{"CallbackLargest", true, false, kMax, true, ""},
        PostRow{"CallbackTooLarge", true, false, kMax + 1, false, "invalid"},
        PostRow{"CallbackNullBuffer", true, true, 10, false, "invalid"},
        PostRow{"CallbackEmpty", true, false, 0, false, ""}),
    [](const auto &info) { return std::string(info.param.name); });

} // namespace
} // namespace kxtest
