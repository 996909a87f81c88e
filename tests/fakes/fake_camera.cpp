// SPDX-License-Identifier: Apache-2.0
// Test double of the vendor camera handler library: records every call and
// replays what the test scripted.
#include "fake_camera.h"

#include <cstring>
#include <thread>

namespace {

// Static, not heap: a library unloaded by its last user takes its state along.
FakeCameraControl &Control()
{
    static FakeCameraControl control;
    return control;
}

const KxFpsRange kFpsRanges[] = {{15, 30}, {30, 30}};
const KxPictureSize kSizes[] = {{640, 480}, {1280, 720}};
const KxCameraAbility kAbilityNv21[] = {{kFpsRanges, 2, 0, kSizes, 2, KX_DATA_FMT_NV21}};
const KxCameraAbility kAbilityH264[] = {{kFpsRanges, 2, 0, kSizes, 2, KX_DATA_FMT_H264}};
const KxExtendInfo kExtendBack[] = {{"position", 0, "back", 0}};
const KxExtendInfo kExtendFront[] = {{"position", 0, "front", 0}};
KxCameraCapability g_defaultCapabilities[] = {
    {"0", 1, 0, kAbilityNv21, 1, 0, kExtendBack, 1, 0},
    {"1", 1, 0, kAbilityH264, 1, 0, kExtendFront, 1, 0},
};

FakeCameraScript DefaultScript()
{
    FakeCameraScript script;
    script.capability.items = g_defaultCapabilities;
    script.capability.num = 2;
    return script;
}

std::string CopyText(const char *text, uint32_t len)
{
    return text == nullptr ? std::string() : std::string(text, len);
}

template <typename Fn>
int32_t Deliver(FakeDelivery how, Fn fn)
{
    if (how == kFakeOnCaller) {
        return fn();
    }
    int32_t result = 0;
    std::thread vendor([&result, &fn] { result = fn(); });
    vendor.join();
    return result;
}

int32_t OpenCamera(const char *vendorId, uint32_t vendorIdLen, KxFrameCallback callback)
{
    FakeCameraCall call{.slot = "OpenCamera"};
    call.idNull = vendorId == nullptr;
    call.vendorId = CopyText(vendorId, vendorIdLen);
    call.vendorIdLen = vendorIdLen;
    call.callback = callback;
    std::lock_guard lock(Control().mutex);
    call.result = Control().status.openCamera;
    if (call.result == 0) {
        Control().frameCallbacks[call.vendorId] = callback;
    }
    Control().calls.push_back(call);
    return call.result;
}

int32_t StartCamera(const KxCameraOpenParams *params)
{
    FakeCameraCall call{.slot = "StartCamera"};
    call.recordNull = params == nullptr;
    if (params != nullptr) {
        call.params = *params;
        call.idNull = params->vendorId == nullptr;
        call.vendorId = CopyText(params->vendorId, params->vendorIdLen);
        call.vendorIdLen = params->vendorIdLen;
    }
    std::lock_guard lock(Control().mutex);
    call.result = call.recordNull ? kFakeBadArgument : Control().status.startCamera;
    Control().calls.push_back(call);
    return call.result;
}

int32_t CloseCamera(const char *vendorId, uint32_t vendorIdLen)
{
    FakeCameraCall call{.slot = "CloseCamera"};
    call.idNull = vendorId == nullptr;
    call.vendorId = CopyText(vendorId, vendorIdLen);
    call.vendorIdLen = vendorIdLen;
    std::lock_guard lock(Control().mutex);
    call.result = Control().status.closeCamera;
    if (call.result == 0) {
        Control().frameCallbacks.erase(call.vendorId);
    }
    Control().calls.push_back(call);
    return call.result;
}

int32_t UpdateConfig(const char *vendorId, uint32_t vendorIdLen, uint32_t item, const char *value,
                     uint32_t valueLen)
{
    FakeCameraCall call{.slot = "UpdateConfig"};
    call.idNull = vendorId == nullptr;
    call.vendorId = CopyText(vendorId, vendorIdLen);
    call.vendorIdLen = vendorIdLen;
    call.item = item;
    call.valueNull = value == nullptr;
    call.value = CopyText(value, valueLen);
    call.valueLen = valueLen;
    std::lock_guard lock(Control().mutex);
    call.result = Control().status.updateConfig;
    Control().calls.push_back(call);
    return call.result;
}

int32_t GetCameraCapability(KxCameraCapability **items, uint32_t *num)
{
    FakeCameraCall call{.slot = "GetCameraCapability"};
    call.recordNull = items == nullptr || num == nullptr;
    std::lock_guard lock(Control().mutex);
    call.result = call.recordNull ? kFakeBadArgument : Control().capability.status;
    if (!call.recordNull) {
        *items = Control().capability.items;
        *num = Control().capability.num;
    }
    Control().calls.push_back(call);
    return call.result;
}

int32_t Reserved5()
{
    FakeCameraCall call{.slot = "Reserved5"};
    std::lock_guard lock(Control().mutex);
    call.result = Control().status.reserved5;
    Control().calls.push_back(call);
    return call.result;
}

int32_t ReleaseCameraCapability(uint32_t kind, KxCameraCapability *items, uint32_t num)
{
    FakeCameraCall call{.slot = "ReleaseCameraCapability"};
    call.kind = kind;
    call.items = items;
    call.num = num;
    std::lock_guard lock(Control().mutex);
    call.result = Control().status.releaseCameraCapability;
    Control().calls.push_back(call);
    return call.result;
}

int32_t RegisterListener(const KxServiceListener *listener)
{
    FakeCameraCall call{.slot = "RegisterListener"};
    call.recordNull = listener == nullptr;
    if (listener != nullptr) {
        call.listener = *listener;
    }
    std::lock_guard lock(Control().mutex);
    call.result = call.recordNull ? kFakeBadArgument : Control().status.registerListener;
    if (call.result == 0) {
        Control().listener = call.listener;
    }
    Control().calls.push_back(call);
    return call.result;
}

int32_t BusinessControl(int32_t control, void *in, uint32_t inLen, void *out, uint32_t outLen)
{
    FakeCameraCall call{.slot = "BusinessControl"};
    call.control = control;
    call.in = in;
    call.inLen = inLen;
    call.out = out;
    call.outLen = outLen;
    std::lock_guard lock(Control().mutex);
    call.result = Control().status.businessControl;
    Control().calls.push_back(call);
    return call.result;
}

constexpr KxCameraHandler kTable = {
    .OpenCamera = OpenCamera,
    .StartCamera = StartCamera,
    .CloseCamera = CloseCamera,
    .UpdateConfig = UpdateConfig,
    .GetCameraCapability = GetCameraCapability,
    .Reserved5 = Reserved5,
    .ReleaseCameraCapability = ReleaseCameraCapability,
    .RegisterListener = RegisterListener,
    .BusinessControl = BusinessControl,
};
static_assert(sizeof(kTable) / sizeof(void (*)()) == kCamSlotCount, "the camera handler has nine slots");

void Reset()
{
    std::lock_guard lock(Control().mutex);
    static_cast<FakeCameraScript &>(Control()) = DefaultScript();
    static_cast<FakeCameraObserved &>(Control()) = FakeCameraObserved();
}

int32_t PushFrame(const char *vendorId, uint32_t vendorIdLen, const uint8_t *data, uint32_t length,
                  FakeDelivery how)
{
    KxFrameCallback callback = nullptr;
    {
        std::lock_guard lock(Control().mutex);
        auto it = Control().frameCallbacks.find(CopyText(vendorId, vendorIdLen));
        if (it != Control().frameCallbacks.end()) {
            callback = it->second;
        }
    }
    if (callback == nullptr) {
        return kFakeNotDelivered;
    }
    return Deliver(how, [&] { return callback(vendorId, vendorIdLen, data, length); });
}

KxServiceListener Listener()
{
    std::lock_guard lock(Control().mutex);
    return Control().listener;
}

int32_t PushStatus(const char *id, uint32_t idLen, uint32_t status, FakeDelivery how)
{
    KxUpdateServiceStatus entry = Listener().updateServiceStatus;
    if (entry == nullptr) {
        return kFakeNotDelivered;
    }
    return Deliver(how, [&] { return entry(id, idLen, status); });
}

int32_t PushAction(const char *id, uint32_t idLen, uint32_t type, const char *value, uint32_t valueLen,
                   FakeDelivery how)
{
    KxUpdateServiceAction entry = Listener().updateServiceAction;
    if (entry == nullptr) {
        return kFakeNotDelivered;
    }
    KxServiceAction action{};
    action.type = type;
    action.value = value;
    action.valueLen = valueLen;
    return Deliver(how, [&] { return entry(id, idLen, &action); });
}

struct Init {
    Init()
    {
        Control().ops = {Reset, PushFrame, PushStatus, PushAction};
        Reset();
    }
} g_init;

} // namespace

extern "C" FAKE_EXPORT FakeCameraControl *FakeCameraGetControl()
{
    return &Control();
}

#ifndef FAKE_OMIT_GETTER
extern "C" FAKE_EXPORT int32_t TALVOGetCameraHandler(KxCameraHandler *handler)
{
    std::lock_guard lock(Control().mutex);
    FakeCameraCall call{.slot = KX_CAMERA_HANDLER_GETTER};
    call.recordNull = handler == nullptr;
    call.result = call.recordNull ? kFakeBadArgument : Control().getterResult;
    if (handler != nullptr) {
        *handler = kTable;
        for (uint32_t slot = 0; slot < kCamSlotCount; ++slot) {
            if ((Control().nullSlots & (1u << slot)) != 0) {
                std::memset(reinterpret_cast<char *>(handler) + slot * sizeof(void *), 0, sizeof(void *));
            }
        }
    }
    Control().calls.push_back(call);
    return call.result;
}
#endif
