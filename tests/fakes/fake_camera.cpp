// SPDX-License-Identifier: Apache-2.0
// Test double of the vendor camera handler library: records every call and
// replays what the test scripted.
#include "fake_camera.h"

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

FakeCameraCall CallWithId(const char *slot, const char *vendorId, uint32_t vendorIdLen)
{
    return {.slot = slot, .vendorId = FakeText(vendorId, vendorIdLen), .vendorIdLen = vendorIdLen};
}

int32_t OpenCamera(const char *vendorId, uint32_t vendorIdLen, KxFrameCallback callback)
{
    FakeCameraCall call = CallWithId("OpenCamera", vendorId, vendorIdLen);
    call.callback = callback;
    return Control().Record(call, [](FakeCameraCall &c) {
        if (Control().status.openCamera == 0) {
            Control().frameCallbacks[c.vendorId] = c.callback;
        }
        return Control().status.openCamera;
    });
}

int32_t StartCamera(const KxCameraOpenParams *params)
{
    FakeCameraCall call{.slot = "StartCamera"};
    if (params != nullptr) {
        call = CallWithId("StartCamera", params->vendorId, params->vendorIdLen);
        call.params = *params;
    }
    return Control().Record(call, [params](FakeCameraCall &) { return params == nullptr ? kFakeBadArgument : 0; });
}

int32_t CloseCamera(const char *vendorId, uint32_t vendorIdLen)
{
    return Control().Record(CallWithId("CloseCamera", vendorId, vendorIdLen), [](FakeCameraCall &c) {
        if (Control().status.closeCamera == 0) {
            Control().frameCallbacks.erase(c.vendorId);
        }
        return Control().status.closeCamera;
    });
}

int32_t UpdateConfig(const char *vendorId, uint32_t vendorIdLen, uint32_t item, const char *value, uint32_t valueLen)
{
    FakeCameraCall call = CallWithId("UpdateConfig", vendorId, vendorIdLen);
    call.item = item;
    call.value = FakeText(value, valueLen);
    call.valueLen = valueLen;
    return Control().Record(call, [](FakeCameraCall &) { return 0; });
}

int32_t GetCameraCapability(KxCameraCapability **items, uint32_t *num)
{
    return Control().Record({.slot = "GetCameraCapability"}, [=](FakeCameraCall &) {
        if (items == nullptr || num == nullptr) {
            return kFakeBadArgument;
        }
        *items = Control().capability.items;
        *num = Control().capability.num;
        return 0;
    });
}

int32_t Reserved5()
{
    return Control().Record({.slot = "Reserved5"}, [](FakeCameraCall &) { return 0; });
}

int32_t ReleaseCameraCapability(uint32_t kind, KxCameraCapability *items, uint32_t num)
{
    return Control().Record({.slot = "ReleaseCameraCapability", .kind = kind, .items = items, .num = num},
                            [](FakeCameraCall &) { return 0; });
}

int32_t RegisterListener(const KxServiceListener *listener)
{
    FakeCameraCall call{.slot = "RegisterListener"};
    call.listener = listener == nullptr ? KxServiceListener{} : *listener;
    return Control().Record(call, [listener](FakeCameraCall &c) {
        if (listener == nullptr) {
            return kFakeBadArgument;
        }
        if (Control().status.registerListener == 0) {
            Control().listener = c.listener;
        }
        return Control().status.registerListener;
    });
}

int32_t BusinessControl(int32_t control, void *in, uint32_t inLen, void *out, uint32_t outLen)
{
    return Control().Record(
        {.slot = "BusinessControl", .control = control, .in = in, .inLen = inLen, .out = out, .outLen = outLen},
        [](FakeCameraCall &) { return Control().status.businessControl; });
}

// The build without a getter leaves the table unused.
[[maybe_unused]] constexpr KxCameraHandler kTable = {
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

void Reset()
{
    std::lock_guard lock(Control().mutex);
    static_cast<FakeCameraScript &>(Control()) = FakeCameraScript{};
    Control().capability.items = g_defaultCapabilities;
    Control().capability.num = 2;
    static_cast<FakeCameraObserved &>(Control()) = FakeCameraObserved();
}

struct Init {
    Init()
    {
        Control().reset = Reset;
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
    return Control().Getter(KX_CAMERA_HANDLER_GETTER, handler, kTable);
}
#endif
