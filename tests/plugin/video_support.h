// SPDX-License-Identifier: Apache-2.0
// Helpers of the video suites: the framework's side of a camera, a record
// whose frame queue is armed without a consumer, and reference images.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <initializer_list>
#include <mutex>
#include <string>
#include <vector>

#include "camera_support.h"
#include "fake_access.h"
#include "registry/registry.h"

namespace kxtest {

// One unit the framework received, copied during the call.
struct SunkUnit {
    uint32_t code = 0;
    std::string identity;
    uint32_t serviceType = 0, outputLen = 0;
    bool payloadZeroButData = false;
    std::vector<uint8_t> bytes;
    int64_t timeStamp = 0;
    int32_t streamType = 0, dataType = 0;
};

// A command callback (user data: the sink) that takes each unit over, frees
// it as the framework would, and wakes waiters. It reports a failure, which
// the plugin must ignore.
class VideoSink {
public:
    static int32_t Callback(const KxServiceIdDesc *identity, const KxCommand *message, void *userData);
    bool WaitFor(size_t n); // false: a hang guard ran out, not a measurement
    std::vector<SunkUnit> Units() const;

private:
    mutable std::mutex mutex_;
    std::condition_variable arrived_;
    std::vector<SunkUnit> units_;
};

// Camera "cam0" with the sink attached and the module's encoder handler.
class VideoTest : public CameraModuleTest {
protected:
    void SetUp() override;
    void TearDown() override;
    // What a started encoder thread leaves, without the thread; withThread
    // adds a thread that ends at once, for the stop to join.
    void ArmQueue(bool withThread);
    int32_t Push(const std::vector<uint8_t> &bytes, const char *vendorId = "cam0");
    void LoadEncoder(std::initializer_list<KxVencAbility> abilities);

    KxCameraService *camera_ = nullptr;
    VideoSink sink_;
};

KxVencAbility Ability(int32_t codecType, int32_t mask);
// Built from the published layouts, independently of the plugin and libyuv.
std::vector<uint8_t> Nv21Pattern(int32_t width, int32_t height, int32_t stride, uint8_t seed);
std::vector<uint8_t> Nv21ToI420(const std::vector<uint8_t> &nv21, int32_t width, int32_t height, int32_t stride);
std::vector<uint8_t> I420ToNv12(const std::vector<uint8_t> &i420, int32_t width, int32_t height);

} // namespace kxtest
