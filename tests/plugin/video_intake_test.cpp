// SPDX-License-Identifier: Apache-2.0
// Frame intake: the checks, the direct road, the queue for the encoder
// thread, and what every failure gives back.
#include "video/video.h"

#include <cstdio>
#include <vector>

#include "video_support.h"

namespace kxtest {
namespace {

constexpr uint32_t kMax = 52428800;

std::vector<uint8_t> Bytes(size_t n, uint8_t seed)
{
    std::vector<uint8_t> bytes(n);
    for (size_t i = 0; i < n; ++i) {
        bytes[i] = static_cast<uint8_t>(seed + i);
    }
    return bytes;
}

class VideoIntakeTest : public VideoTest, public ::testing::WithParamInterface<int32_t> {};

TEST_P(VideoIntakeTest, DirectRoadHandsTheUnitOverNamedByServiceId)
{
    camera_->negParams.codecType = GetParam();
    const auto bytes = Bytes(100, 9);
    const int64_t before = TALVOSystemTimeUs();
    EXPECT_EQ(Push(bytes), 0) << "the callback's failure does not matter";
    auto units = sink_.Units();
    ASSERT_EQ(units.size(), 1u);
    EXPECT_EQ(units[0].code, 0u);
    EXPECT_EQ(units[0].outputLen, 160u);
    EXPECT_EQ(units[0].identity, "Camera_cam0");
    EXPECT_EQ(units[0].serviceType, 1u);
    EXPECT_TRUE(units[0].payloadZeroButData);
    EXPECT_EQ(units[0].bytes, bytes);
    EXPECT_EQ(units[0].streamType, GetParam());
    EXPECT_EQ(units[0].dataType, 102);
    EXPECT_GE(units[0].timeStamp, before);
    camera_->cmdCb = nullptr; // without a callback the unit is released
    EXPECT_EQ(Push(bytes), 0);
}

INSTANTIATE_TEST_SUITE_P(CodecTypes, VideoIntakeTest, ::testing::Values(1, 2));

TEST_F(VideoTest, IntakeRefusesBeforeMakingAnything)
{
    camera_->negParams.codecType = 1;
    static std::vector<uint8_t> big(kMax + 1, 0x5C);
    EXPECT_EQ(OutputCameraDataCB("cam0", 4, big.data(), kMax), 0);
    ASSERT_EQ(sink_.Units().size(), 1u);
    EXPECT_EQ(sink_.Units()[0].bytes.size(), kMax);
    const char *id = "cam0";
    struct {
        const char *id;
        const uint8_t *data;
        uint32_t length;
    } rows[] = {{id, big.data(), kMax + 1}, {nullptr, big.data(), 1}, {id, nullptr, 1}};
    for (const auto &row : rows) {
        const uint64_t mallocs = TalvoTestCallCount(TALVO_FN_MALLOC);
        EXPECT_EQ(OutputCameraDataCB(row.id, 4, row.data, row.length), -5);
        char text[128];
        std::snprintf(text, sizeof(text), "camera id %p capture data %p length %d,invalid check it",
                      static_cast<const void *>(row.id), static_cast<const void *>(row.data), row.length);
        EXPECT_TRUE(HasLog(1, text)) << DumpLogs();
        EXPECT_EQ(TalvoTestCallCount(TALVO_FN_MALLOC), mallocs);
    }
    EXPECT_EQ(Push(Bytes(10, 0), "cam9"), -5);
    EXPECT_TRUE(HasLog(1, "can not find camera vendor id c**9 in service list")) << DumpLogs();
    EXPECT_EQ(sink_.Units().size(), 1u); // the fixture checks every block came back
}

class VideoQueueTest : public VideoTest {
protected:
    void SetUp() override
    {
        VideoTest::SetUp();
        camera_->negParams = KxNegParams{64, 48, 30, 0, 2};
        ArmQueue(false);
    }
    const KxVideoAccessUnit *Queued(size_t index) const
    {
        const TALVODllNode *node = camera_->vencQueue.first;
        for (size_t i = 0; i < index; ++i) {
            node = node->next;
        }
        return static_cast<const KxVideoAccessUnit *>(node->data);
    }
};

TEST_F(VideoQueueTest, RawFramesQueueInArrivalOrderWithTheNegotiatedGeometry)
{
    const std::pair<int32_t, int32_t> formats[] = {{2, KX_CSP_NV21}, {4, KX_CSP_RGB565}, {17, KX_CSP_NV21}};
    for (size_t i = 0; i < 3; ++i) {
        camera_->negParams.colorFmt = formats[i].first;
        ASSERT_EQ(Push(Bytes(20 + i, static_cast<uint8_t>(i))), 0);
    }
    EXPECT_TRUE(sink_.Units().empty());
    ASSERT_EQ(camera_->vencQueue.count, 3u);
    for (size_t i = 0; i < 3; ++i) {
        const KxVideoAccessUnit *unit = Queued(i);
        EXPECT_EQ(std::vector<uint8_t>(unit->data, unit->data + unit->length), Bytes(20 + i, static_cast<uint8_t>(i)));
        EXPECT_EQ(unit->csp, formats[i].second);
        EXPECT_EQ(unit->width, 64);
        EXPECT_EQ(unit->height, 48);
        EXPECT_EQ(unit->streamType, 0);
    }
}

TEST_F(VideoQueueTest, FailureRowsLoseTheFrameAndKeepNothing)
{
    const std::pair<uint32_t, const char *> rows[] = {
        {1, "malloc for video access unit failed"}, {2, "malloc for video access unit data failed"}, {3, nullptr}};
    for (const auto &[nth, message] : rows) {
        TalvoTestLogClear();
        TalvoTestFailNth(TALVO_FN_MALLOC, nth);
        EXPECT_EQ(Push(Bytes(16, 0)), -3) << nth;
        EXPECT_EQ(TextsAtLevel(1), message ? std::vector<std::string>{message} : std::vector<std::string>{});
    }
    TalvoTestFailNth(TALVO_FN_MUTEX_LOCK, 1);
    EXPECT_EQ(Push(Bytes(16, 0)), -99);
    EXPECT_EQ(camera_->vencQueue.count, 0u);
}

TEST_F(VideoTest, RawFrameWithoutEncoderThreadIsReleasedAndCounted)
{
    for (uint8_t started : {0, 1}) { // the thread never started, or is stopping
        camera_->laneGate = started;
        camera_->vencRunning = static_cast<uint8_t>(1 - started);
        EXPECT_EQ(Push(Bytes(16, 0)), 0);
    }
    camera_->laneGate = 0;
    EXPECT_EQ(camera_->counters.droppedError, 2u);
    EXPECT_EQ(TalvoTestCallCount(TALVO_FN_MUTEX_LOCK), 0u) << "no queue access";
    EXPECT_EQ(TextsAtLevel(2).size(), 1u) << "once per second, not per frame: " << DumpLogs();
}

} // namespace
} // namespace kxtest
