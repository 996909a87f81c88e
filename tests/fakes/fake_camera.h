// SPDX-License-Identifier: Apache-2.0
// Scriptable stand-in for the vendor camera handler library: the control
// record a test reaches through FakeCameraGetControl().
#ifndef KXCAMERA_TESTS_FAKES_FAKE_CAMERA_H
#define KXCAMERA_TESTS_FAKES_FAKE_CAMERA_H

#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "fake_common.h"
#include "kxcamera/camera_handler.h"

// Where a push reaches the plugin: on the caller's thread, or on a thread of
// the fake that is joined before the push returns.
enum FakeDelivery : uint32_t {
    kFakeOnCaller = 0,
    kFakeOnVendorThread = 1,
};

// Slot numbers of the camera handler table, for nullSlots.
enum FakeCameraSlot : uint32_t {
    kCamOpenCamera = 0,
    kCamStartCamera,
    kCamCloseCamera,
    kCamUpdateConfig,
    kCamGetCameraCapability,
    kCamReserved5,
    kCamReleaseCameraCapability,
    kCamRegisterListener,
    kCamBusinessControl,
    kCamSlotCount,
};

// One call into the fake, arguments copied at the time of the call. Only the
// fields of the called slot are set; pointers are kept as values, never read later.
struct FakeCameraCall {
    std::string slot{}; // "TALVOGetCameraHandler", "OpenCamera", ... as in the table
    int32_t result = 0;
    // OpenCamera, CloseCamera, UpdateConfig: the id argument; StartCamera: params->vendorId.
    bool idNull = false;
    std::string vendorId{}; // vendorIdLen bytes
    uint32_t vendorIdLen = 0;
    KxFrameCallback callback = nullptr; // OpenCamera
    bool recordNull = false;            // StartCamera params / RegisterListener listener / capability outputs
    KxCameraOpenParams params{};        // StartCamera
    uint32_t item = 0;                  // UpdateConfig
    bool valueNull = false;
    std::string value{}; // UpdateConfig, valueLen bytes
    uint32_t valueLen = 0;
    uint32_t kind = 0;                          // ReleaseCameraCapability
    const KxCameraCapability *items = nullptr;  // ReleaseCameraCapability
    uint32_t num = 0;                           // ReleaseCameraCapability
    KxServiceListener listener{};               // RegisterListener
    int32_t control = 0;                        // BusinessControl
    const void *in = nullptr;
    uint32_t inLen = 0;
    const void *out = nullptr;
    uint32_t outLen = 0;
};

// What the fake does; Reset() brings every field back to these defaults.
struct FakeCameraScript {
    int32_t getterResult = 0;
    uint32_t nullSlots = 0; // bit n: the getter leaves slot n null
    struct {
        int32_t openCamera = 0;
        int32_t startCamera = 0;
        int32_t closeCamera = 0;
        int32_t updateConfig = 0;
        int32_t reserved5 = 0;
        int32_t releaseCameraCapability = 0;
        int32_t registerListener = 0;
        int32_t businessControl = 0;
    } status;
    // Written to GetCameraCapability's outputs whatever the status. Defaults to
    // the fake's own two cameras; a test may point it at records it owns.
    struct {
        KxCameraCapability *items = nullptr;
        uint32_t num = 0;
        int32_t status = 0;
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

// Entry points of the fake library behind the members below.
struct FakeCameraOps {
    void (*reset)();
    int32_t (*pushFrame)(const char *vendorId, uint32_t vendorIdLen, const uint8_t *data, uint32_t length,
                         FakeDelivery how);
    int32_t (*pushStatus)(const char *id, uint32_t idLen, uint32_t status, FakeDelivery how);
    int32_t (*pushAction)(const char *id, uint32_t idLen, uint32_t type, const char *value, uint32_t valueLen,
                          FakeDelivery how);
};

// Script fields while no vendor call can be in flight, or hold `mutex`.
struct FakeCameraControl : FakeCameraScript, FakeCameraObserved {
    mutable std::mutex mutex;
    FakeCameraOps ops{};

    // Defaults back, record and kept callbacks cleared.
    void Reset() { ops.reset(); }

    // Sends a frame through the callback kept for vendorId; returns its status.
    int32_t PushFrame(std::string_view vendorId, const void *data, uint32_t length,
                      FakeDelivery how = kFakeOnCaller)
    {
        std::string id(vendorId);
        return ops.pushFrame(id.c_str(), static_cast<uint32_t>(id.size()), static_cast<const uint8_t *>(data),
                             length, how);
    }
    // Service status report through the registered listener.
    int32_t PushStatus(std::string_view id, uint32_t status, FakeDelivery how = kFakeOnCaller)
    {
        std::string text(id);
        return ops.pushStatus(text.c_str(), static_cast<uint32_t>(text.size()), status, how);
    }
    // Service action (type, value text) through the registered listener.
    int32_t PushAction(std::string_view id, uint32_t type, std::string_view value, FakeDelivery how = kFakeOnCaller)
    {
        std::string idText(id);
        std::string valueText(value);
        return ops.pushAction(idText.c_str(), static_cast<uint32_t>(idText.size()), type, valueText.c_str(),
                              static_cast<uint32_t>(valueText.size()), how);
    }
    // The same with every pointer and length as given: null ids, lengths that disagree with the text.
    int32_t PushStatusRaw(const char *id, uint32_t idLen, uint32_t status, FakeDelivery how = kFakeOnCaller)
    {
        return ops.pushStatus(id, idLen, status, how);
    }
    int32_t PushActionRaw(const char *id, uint32_t idLen, uint32_t type, const char *value, uint32_t valueLen,
                          FakeDelivery how = kFakeOnCaller)
    {
        return ops.pushAction(id, idLen, type, value, valueLen, how);
    }

    std::vector<FakeCameraCall> Calls() const
    {
        std::lock_guard lock(mutex);
        return calls;
    }
    std::vector<FakeCameraCall> CallsTo(std::string_view slot) const
    {
        std::vector<FakeCameraCall> out;
        std::lock_guard lock(mutex);
        for (const auto &call : calls) {
            if (call.slot == slot) {
                out.push_back(call);
            }
        }
        return out;
    }
    bool HasFrameCallback(std::string_view vendorId) const
    {
        std::lock_guard lock(mutex);
        return frameCallbacks.find(vendorId) != frameCallbacks.end();
    }
};

#define FAKE_CAMERA_CONTROL_SYMBOL "FakeCameraGetControl"
using FakeCameraGetControlFn = FakeCameraControl *(*)();

extern "C" FAKE_EXPORT FakeCameraControl *FakeCameraGetControl();

#endif // KXCAMERA_TESTS_FAKES_FAKE_CAMERA_H
