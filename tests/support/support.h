// SPDX-License-Identifier: Apache-2.0
// What every suite of the plugin shares: captured log lines, a clean module
// with an allocation baseline, the module event queue drained, vendor
// capability drafts, and the framework's side of the plugin.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <initializer_list>
#include <mutex>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "fake_access.h"
#include "kxcamera/plugin.h"
#include "registry/registry.h"
#include "talvo/testing.h"

namespace kxtest {

struct LogLine {
    int32_t level;
    std::string fmt;
    std::string text;
};
std::vector<LogLine> CapturedLogs();
bool HasLog(int32_t level, const std::string &text);
// Texts of one level, in order.
std::vector<std::string> TextsAtLevel(int32_t level);
// True when these texts were logged at this level in this order, others
// between them allowed.
bool LogsInOrder(int32_t level, const std::vector<std::string> &texts);
std::string DumpLogs();

// Returns once every event posted so far to the module event queue has run:
// the queue runs its events in post order, so a marker posted last runs
// after them. False when a hang guard ran out.
bool DrainEventQueue();

// One vendor camera description; the record it hands out points into this
// object, which must outlive every use of the record.
class CapabilityDraft {
public:
    explicit CapabilityDraft(std::string id) : id_(std::move(id)) {}
    CapabilityDraft &Ability(uint32_t dataFmt, std::vector<KxFpsRange> ranges, std::vector<KxPictureSize> sizes);
    CapabilityDraft &Extend(std::string key, std::string value);
    // Rebuilt from the draft on every call.
    KxCameraCapability &Record();
    std::vector<KxCameraAbility> &Abilities() { return abilities_; }

private:
    std::string id_;
    std::deque<std::vector<KxFpsRange>> ranges_;
    std::deque<std::vector<KxPictureSize>> sizes_;
    std::deque<std::string> texts_;
    std::vector<KxCameraAbility> abilities_;
    std::vector<KxExtendInfo> extendInfos_;
    KxCameraCapability record_{};
};

// One message the framework got through a camera's command callback, copied
// during the call. Units (codes 0 and 5) and binary-data texts were taken
// over and freed, as they belong to the framework.
struct Message {
    uint32_t code = 0;
    std::string identity;
    uint32_t serviceType = 0;
    uint32_t outputLen = 0;
    KxCallbackPayload payload{};
    std::string value;          // binary data: len bytes
    std::vector<uint8_t> bytes; // units: their bytes
    int64_t timeStamp = 0;
    int32_t streamType = 0, dataType = 0;
    void *userData = nullptr;
};

struct Announced {
    std::string id;
    uint32_t idLen = 0;
    uint32_t serviceType = 0;
    KxServiceOps ops{};
};

// The framework as the plugin sees it: takes the table from the entry
// point, loads the service with a table whose AddService records what it is
// told, holds the command and global callbacks and takes over the units it
// is handed. One per process; its callbacks may run on any thread.
class Framework {
public:
    static Framework &Get();
    void Reset();

    int32_t Load();
    int32_t Release() { return table.releaseService(); }
    // The framework's own callbacks for every announced camera and the global one.
    void Attach();
    int32_t Send(const std::string &vendorId, uint32_t code);
    int32_t SetParams(const std::string &vendorId, const std::string &text, uint32_t inputLen = 160);

    static int32_t CmdCallback(const KxServiceIdDesc *identity, const KxCommand *message, void *userData);
    static int32_t GlbCallback(const KxCommand *message);

    std::vector<Message> Messages(uint32_t code) const;
    std::vector<std::vector<uint8_t>> Notifications() const;
    std::vector<KxCallbackPayload> NotificationPayloads() const;
    size_t Count(uint32_t code) const;
    // True once count messages of code arrived; false when a hang guard ran out.
    bool WaitFor(uint32_t code, size_t count);

    KxServiceHandler table{};
    KxServiceCallbacks callbacks{};
    std::vector<Announced> announced;

private:
    mutable std::mutex mutex_;
    std::condition_variable arrived_;
    std::vector<Message> messages_;
    std::vector<std::vector<uint8_t>> packets_;
    std::vector<KxCallbackPayload> payloads_;
};

inline Framework &Fw()
{
    return Framework::Get();
}

// The index of camera vendorId; its text lives until the next call on this thread.
KxServiceIdDesc IndexOf(const std::string &vendorId);
KxCameraService *Camera(const std::string &vendorId);
KxCameraFrameCounters Counters(const std::string &vendorId);
std::string OpenParams(int32_t width, int32_t height, int32_t colorFmt, int32_t codecType);
std::string FpsParams(int32_t fps);
// False in the build without colour conversion.
bool ColourConversionBuiltIn();

// Returns the module to its state at library load, freeing records left in
// the registry.
void ResetModule();

// Clean module and fakes, no injected failure, capture on, the framework
// double cleared; at the end, a release and a check that every block taken
// was given back and no encoder instance is left.
class PluginTest : public ::testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;
    int64_t allocBaseline_ = 0;
};

// A service loaded over the fakes' cameras "0" (raw NV21) and "1" (H.264),
// the framework's callbacks attached.
class ServiceTest : public PluginTest {
protected:
    void SetUp() override;
};

} // namespace kxtest
