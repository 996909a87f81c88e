// SPDX-License-Identifier: Apache-2.0
#include "video_support.h"

#include "video/lane.h"

#include <algorithm>
#include <chrono>
#include <cstring>

#include "frame/frame.h"
#include "video/video.h"

namespace kxtest {

int32_t VideoSink::Callback(const KxServiceIdDesc *identity, const KxCommand *message, void *userData)
{
    auto *sink = static_cast<VideoSink *>(userData);
    SunkUnit got;
    got.code = message->code;
    got.identity.assign(identity->id, identity->idLen);
    got.serviceType = identity->serviceType;
    got.outputLen = message->outputLen;
    KxCallbackPayload payload;
    std::memcpy(&payload, message->output, sizeof(payload));
    auto *unit = static_cast<KxVideoAccessUnit *>(payload.data);
    payload.data = nullptr;
    const KxCallbackPayload zero{};
    got.payloadZeroButData = message->input == nullptr && std::memcmp(&payload, &zero, sizeof(payload)) == 0;
    got.bytes.assign(unit->data, unit->data + unit->length);
    got.timeStamp = unit->timeStamp;
    got.streamType = unit->streamType;
    got.dataType = unit->dataType;
    TalvoFree(unit->data);
    TalvoFree(unit);
    std::lock_guard lock(sink->mutex_);
    sink->units_.push_back(std::move(got));
    sink->arrived_.notify_all();
    return -1;
}

bool VideoSink::WaitFor(size_t n)
{
    std::unique_lock lock(mutex_);
    return arrived_.wait_for(lock, std::chrono::seconds(30), [&] { return units_.size() >= n; });
}

std::vector<SunkUnit> VideoSink::Units() const
{
    std::lock_guard lock(mutex_);
    return units_;
}

void VideoTest::SetUp()
{
    CameraModuleTest::SetUp();
    camera_ = AddCamera("cam0");
    ASSERT_NE(camera_, nullptr);
    camera_->vencHandler = &g_cameraModule.vencHandler;
    camera_->cmdCb = VideoSink::Callback;
    camera_->cmdCbUserData = &sink_;
}

void VideoTest::TearDown()
{
    // Whatever a test armed and did not stop is taken down here.
    if (camera_ != nullptr && camera_->laneGate != 0) {
        camera_->vencRunning = 0;
        EXPECT_EQ(StopVideoEncoderThread(camera_), 0);
    }
    CameraModuleTest::TearDown();
}

void VideoTest::ArmQueue(bool withThread)
{
    ASSERT_EQ(TALVOMutexInit(&camera_->vencLock), 0);
    auto *head = reinterpret_cast<TALVODllNode *>(&camera_->vencQueue);
    camera_->vencQueue = TALVODllHead{head, head, nullptr, 0};
    camera_->laneLockLive = 1;
    if (withThread) {
        auto *lane = static_cast<KxLaneThread *>(TalvoMalloc(2, sizeof(KxLaneThread)));
        *lane = KxLaneThread{};
        lane->service = camera_;
        const TALVOThreadParam param{2, nullptr, "trivial"};
        ASSERT_EQ(TALVOThreadFw(&lane->thread, [](void *) -> void * { return nullptr; }, &param), 0);
        camera_->vencThread = lane->thread;
        camera_->laneThread = lane;
    }
    camera_->vencRunning = 1;
    camera_->laneGate = 1;
}

int32_t VideoTest::Push(const std::vector<uint8_t> &bytes, const char *vendorId)
{
    return OutputCameraDataCB(vendorId, static_cast<uint32_t>(std::strlen(vendorId)), bytes.data(),
                              static_cast<uint32_t>(bytes.size()));
}

void VideoTest::LoadEncoder(std::initializer_list<KxVencAbility> abilities)
{
    std::copy(abilities.begin(), abilities.end(), FakeEncoder()->ability.items.begin());
    FakeEncoder()->ability.num = static_cast<uint32_t>(abilities.size());
    ASSERT_EQ(CameraVEncInit(), 0) << DumpLogs();
}

KxVencAbility Ability(int32_t codecType, int32_t mask)
{
    KxVencAbility ability = FakeEncoder()->ability.items[0];
    ability.codecType = codecType;
    ability.cspTypeMask = mask;
    return ability;
}

std::vector<uint8_t> Nv21Pattern(int32_t width, int32_t height, int32_t stride, uint8_t seed)
{
    std::vector<uint8_t> image(static_cast<size_t>(stride) * height * 3 / 2, 0xEE); // 0xEE: row padding
    for (int32_t row = 0; row < height * 3 / 2; ++row) {
        for (int32_t col = 0; col < width; ++col) {
            image[static_cast<size_t>(row) * stride + col] = static_cast<uint8_t>(seed + row * 7 + col * 3);
        }
    }
    return image;
}

std::vector<uint8_t> Nv21ToI420(const std::vector<uint8_t> &nv21, int32_t width, int32_t height, int32_t stride)
{
    const size_t w = width, h = height, s = stride, quarter = w * h / 4;
    std::vector<uint8_t> out(w * h * 3 / 2);
    for (size_t row = 0; row < h; ++row) {
        std::memcpy(&out[row * w], &nv21[row * s], w);
    }
    for (size_t row = 0; row < h / 2; ++row) {
        for (size_t col = 0; col < w / 2; ++col) {
            const uint8_t *vu = &nv21[s * (h + row) + 2 * col];
            out[w * h + row * w / 2 + col] = vu[1];
            out[w * h + quarter + row * w / 2 + col] = vu[0];
        }
    }
    return out;
}

std::vector<uint8_t> I420ToNv12(const std::vector<uint8_t> &i420, int32_t width, int32_t height)
{
    const size_t luma = static_cast<size_t>(width) * height, quarter = luma / 4;
    std::vector<uint8_t> out(i420.begin(), i420.begin() + static_cast<ptrdiff_t>(luma));
    for (size_t i = 0; i < quarter; ++i) {
        out.push_back(i420[luma + i]);
        out.push_back(i420[luma + quarter + i]);
    }
    return out;
}

} // namespace kxtest
