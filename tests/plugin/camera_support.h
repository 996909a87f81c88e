// SPDX-License-Identifier: Apache-2.0
// Helpers of the command and event suites: a module with hand-built camera
// records, recording doubles of the framework's callbacks, and a way to wait
// for the module event queue.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include "support.h"

struct KxCameraService;

namespace kxtest {

// One call of a camera's command callback, copied while it ran.
struct CmdCbCall {
    const void *identityId = nullptr;
    std::string identityText;
    uint32_t identityLen = 0;
    uint32_t serviceType = 0;
    uint32_t code = 0;
    const void *input = nullptr;
    uint32_t inputLen = 0;
    uint32_t outputLen = 0;
    KxCallbackPayload payload{};
    std::string value; // binary data: len bytes of data
    std::vector<uint8_t> valueBuffer; // binary data: the whole 16-byte text buffer
    void *userData = nullptr;
    int which = 0; // 1: CmdCallback, 2: OtherCmdCallback
};

// One call of the global command callback, copied while it ran.
struct GlbCbCall {
    uint32_t code = 0;
    const void *input = nullptr;
    uint32_t inputLen = 0;
    uint32_t outputLen = 0;
    KxCallbackPayload payload{};
    std::vector<uint8_t> packet;
};

// What the framework doubles saw; shared with the module event queue's thread.
class CallbackLog {
public:
    static CallbackLog &Get();
    void Clear();
    std::vector<CmdCbCall> CmdCalls() const;
    std::vector<GlbCbCall> GlbCalls() const;

    // The doubles. The command callback frees a binary-data value text,
    // which belongs to the framework once handed over.
    static int32_t CmdCallback(const KxServiceIdDesc *identity, const KxCommand *message, void *userData);
    static int32_t OtherCmdCallback(const KxServiceIdDesc *identity, const KxCommand *message, void *userData);
    static int32_t GlbCallback(const KxCommand *message);

private:
    static int32_t RecordCmd(const KxServiceIdDesc *identity, const KxCommand *message, void *userData, int which);
    mutable std::mutex mutex_;
    std::vector<CmdCbCall> cmd_;
    std::vector<GlbCbCall> glb_;
};

// Base of the command and event suites: an initialised module (lock, empty
// registry) without vendor libraries; cameras are added by the test.
class CameraModuleTest : public PluginTest {
protected:
    void SetUp() override;
    void TearDown() override;

    // A zeroed record named as registration names it, appended to the registry.
    KxCameraService *AddCamera(const std::string &vendorId, const std::string &abilityText = "{}");
    static KxServiceIdDesc DescriptorOf(const KxCameraService *service);

    // Creates the module event queue as service loading does.
    void CreateEventQueue();
};

// Returns once every event posted so far to the module event queue has been
// handled: the queue runs its events one at a time in post order, so a marker
// posted last runs after them. False if the marker did not run in time (a
// hang guard, not a measurement).
bool DrainEventQueue();

// A text of n characters, none of them special to JSON.
std::string TextOfLength(size_t n, char fill = 'a');

// Texts of the captured messages of one level, in order.
std::vector<std::string> TextsAtLevel(int32_t level);

} // namespace kxtest
