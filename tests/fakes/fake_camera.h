// SPDX-License-Identifier: Apache-2.0
// Scriptable stand-in for the vendor camera handler library: the control
// record a test reaches through FakeCameraGetControl().
#ifndef KXCAMERA_TESTS_FAKES_FAKE_CAMERA_H
#define KXCAMERA_TESTS_FAKES_FAKE_CAMERA_H

#include <map>

#include "fake_common.h"
#include "kxcamera/camera_handler.h"

// One call into the fake, arguments copied at the time of the call. Only the
// fields of the called slot are set; pointers are kept as values, never read later.
struct FakeCameraCall {
    std::string slot{}; // "TALVOGetCameraHandler", "OpenCamera", ... as in the table
    int32_t result = 0;
    // OpenCamera, CloseCamera, UpdateConfig: the id argument; StartCamera: params->vendorId.
    std::string vendorId{}; // vendorIdLen bytes
    uint32_t vendorIdLen = 0;
    KxFrameCallback callback = nullptr; // OpenCamera
    KxCameraOpenParams params{};        // StartCamera
    uint32_t item = 0;                  // UpdateConfig
    std::string value{};                // UpdateConfig, valueLen bytes
    uint32_t valueLen = 0;
    uint32_t kind = 0;                         // ReleaseCameraCapability
    const KxCameraCapability *items = nullptr; // ReleaseCameraCapability
    uint32_t num = 0;                          // ReleaseCameraCapability
    KxServiceListener listener{};              // RegisterListener
    int32_t control = 0;                       // BusinessControl
};

// What the fake does; Reset() brings every field back to these defaults.
struct FakeCameraScript {
    int32_t getterResult = 0;
    struct {
        int32_t openCamera = 0;
        int32_t closeCamera = 0;
        int32_t registerListener = 0;
        int32_t businessControl = 0;
    } status;
    // Written to GetCameraCapability's outputs. Defaults to the fake's own
    // two cameras; a test may point it at records it owns.
    struct {
        KxCameraCapability *items = nullptr;
        uint32_t num = 0;
    } capability;
};

// What the fake saw and kept.
struct FakeCameraObserved {
    std::vector<FakeCameraCall> calls;
    // Kept by a successful OpenCamera, dropped by a successful CloseCamera.
    std::map<std::string, KxFrameCallback, std::less<>> frameCallbacks;
    // Copied by a successful RegisterListener.
    KxServiceListener listener{};
};

// The pushes play the vendor: they call what the plugin handed over, with
// the pointers and lengths given (null ids, lengths that disagree with the
// text), and return its status.
struct FakeCameraControl : FakeControl<FakeCameraCall, FakeCameraScript, FakeCameraObserved> {
    // A frame through the callback kept for vendorId.
    int32_t PushFrame(const char *id, uint32_t idLen, const void *data, uint32_t length,
                      FakeDelivery how = kFakeOnCaller)
    {
        KxFrameCallback callback = nullptr;
        {
            std::lock_guard lock(mutex);
            auto it = frameCallbacks.find(FakeText(id, idLen));
            callback = it == frameCallbacks.end() ? nullptr : it->second;
        }
        return callback == nullptr
                   ? kFakeNotDelivered
                   : FakeDeliver(how, [&] { return callback(id, idLen, static_cast<const uint8_t *>(data), length); });
    }
    int32_t PushFrame(std::string_view id, const void *data, uint32_t length, FakeDelivery how = kFakeOnCaller)
    {
        return PushFrame(std::string(id).c_str(), static_cast<uint32_t>(id.size()), data, length, how);
    }
    // A service status report through the registered listener.
    int32_t PushStatusRaw(const char *id, uint32_t idLen, uint32_t status, FakeDelivery how = kFakeOnCaller)
    {
        const KxUpdateServiceStatus entry = Listener().updateServiceStatus;
        return entry == nullptr ? kFakeNotDelivered : FakeDeliver(how, [&] { return entry(id, idLen, status); });
    }
    int32_t PushStatus(std::string_view id, uint32_t status, FakeDelivery how = kFakeOnCaller)
    {
        return PushStatusRaw(std::string(id).c_str(), static_cast<uint32_t>(id.size()), status, how);
    }
    // A service action (type, value text) through the registered listener.
    int32_t PushActionRaw(const char *id, uint32_t idLen, uint32_t type, const char *value, uint32_t valueLen,
                          FakeDelivery how = kFakeOnCaller)
    {
        const KxUpdateServiceAction entry = Listener().updateServiceAction;
        const KxServiceAction action{type, 0, value, valueLen, 0};
        return entry == nullptr ? kFakeNotDelivered : FakeDeliver(how, [&] { return entry(id, idLen, &action); });
    }
    int32_t PushAction(std::string_view id, uint32_t type, std::string_view value, FakeDelivery how = kFakeOnCaller)
    {
        return PushActionRaw(std::string(id).c_str(), static_cast<uint32_t>(id.size()), type,
                             std::string(value).c_str(), static_cast<uint32_t>(value.size()), how);
    }

private:
    KxServiceListener Listener() const
    {
        std::lock_guard lock(mutex);
        return listener;
    }
};

#define FAKE_CAMERA_CONTROL_SYMBOL "FakeCameraGetControl"

extern "C" FAKE_EXPORT FakeCameraControl *FakeCameraGetControl();

#endif // KXCAMERA_TESTS_FAKES_FAKE_CAMERA_H
