// SPDX-License-Identifier: Apache-2.0
// Helpers of the suites that drive a loaded service over the fake vendor
// libraries the way the framework does: through the service operations
// table, with a command callback that takes over what it is handed.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include "camera_support.h"
#include "fake_access.h"

struct KxCameraService;

namespace kxtest {

// A frame or bitstream unit the framework received, copied during the call.
struct ReceivedUnit {
    uint32_t code = 0;
    std::string identity;
    uint32_t outputLen = 0;
    int32_t streamType = 0;
    int32_t dataType = 0;
    int64_t timeStamp = 0;
    int64_t arrivedUs = 0; // when the framework got it, on the unit's clock
    std::vector<uint8_t> bytes;
};

// The framework's command callback. Units (codes 0 and 5) are copied and
// freed, since they belong to the framework; every other message goes to
// CallbackLog. Shared with the plugin's and the fakes' threads.
class UnitSink {
public:
    static UnitSink &Get();
    static int32_t CmdCallback(const KxServiceIdDesc *identity, const KxCommand *message, void *userData);

    void Clear();
    // Keep the bytes of received units; off, only their count is kept.
    void KeepBytes(bool keep);
    std::vector<ReceivedUnit> Units(uint32_t code) const;
    uint64_t Count(uint32_t code) const;
    // True once count units of code have arrived; false when the hang guard
    // ran out first.
    bool WaitFor(uint32_t code, uint64_t count);

private:
    mutable std::mutex mutex_;
    std::condition_variable arrived_;
    bool keepBytes_ = true;
    std::vector<ReceivedUnit> units_;
    uint64_t frames_ = 0;
    uint64_t bitstreams_ = 0;
};

// A service loaded through the table with the fakes' two cameras, "0" and
// "1", each with the sink as its command callback. Released at TearDown, so
// that no encoder thread outlives the test.
class ServiceTest : public PluginTest {
protected:
    void SetUp() override;
    void TearDown() override;
    // Scripts the fakes before the load.
    virtual void ScriptVendors() {}

    KxCameraService *Camera(const std::string &vendorId) const;
    int32_t Send(const std::string &vendorId, uint32_t code);
    int32_t SetParams(const std::string &vendorId, const std::string &text, uint32_t inputLen = 160);
    int32_t Release() { return table_.releaseService(); }

    static std::string OpenParams(int32_t width, int32_t height, int32_t colorFmt, int32_t codecType);
    static std::string FpsParams(int32_t fps);

    KxServiceHandler table_{};
    KxServiceCallbacks callbacks_{};
};

// False in the build without colour conversion, where no raw frame can be
// prepared for the encoder.
bool ColourConversionBuiltIn();

// Formats of the captured messages, in order, restricted to those listed.
std::vector<std::string> FormatsAmong(const std::vector<std::string> &wanted);

} // namespace kxtest
