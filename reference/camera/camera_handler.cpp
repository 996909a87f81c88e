// SPDX-License-Identifier: Apache-2.0
// Reference camera handler library: the nine-slot table over virtual cameras.
// The library's getter is its only export; every entry keeps exceptions in.
#include <charconv>

#include "camera_module.h"
#include "catalog.h"
#include "faults.h"
#include "kxcamera/camera_handler.h"
#include "vendor_common.h"

namespace kxvcam {
namespace {

using kxvendor::kBadArgument;
using kxvendor::kNoSuchCamera;
using kxvendor::kOk;

constexpr uint32_t kItemFrameRate = 1;
constexpr int32_t kControlKeyFrame = 1;
constexpr uint32_t kMaxValueLength = 16;

int32_t WithCamera(const char *id, uint32_t idLen, auto &&body)
{
    return kxvendor::Guarded([&]() -> int32_t {
        VirtualCamera *camera = CameraModule::Get().Find(id, idLen);
        return camera == nullptr ? kNoSuchCamera : body(*camera);
    });
}

int32_t OpenCamera(const char *vendorId, uint32_t vendorIdLen, KxFrameCallback callback)
{
    return WithCamera(vendorId, vendorIdLen, [&](VirtualCamera &camera) { return camera.Open(callback); });
}

int32_t StartCamera(const KxCameraOpenParams *params)
{
    if (params == nullptr) {
        return kBadArgument;
    }
    return WithCamera(params->vendorId, params->vendorIdLen,
                      [&](VirtualCamera &camera) { return camera.Start(*params); });
}

int32_t CloseCamera(const char *vendorId, uint32_t vendorIdLen)
{
    return WithCamera(vendorId, vendorIdLen, [](VirtualCamera &camera) { return camera.Close(); });
}

int32_t UpdateConfig(const char *vendorId, uint32_t vendorIdLen, uint32_t item, const char *value, uint32_t valueLen)
{
    return WithCamera(vendorId, vendorIdLen, [&](VirtualCamera &camera) -> int32_t {
        if (item != kItemFrameRate) {
            return kxvendor::kUnsupported;
        }
        if (value == nullptr || valueLen == 0 || valueLen > kMaxValueLength) {
            return kBadArgument;
        }
        uint32_t fps = 0;
        const auto [end, ec] = std::from_chars(value, value + valueLen, fps);
        if (ec != std::errc() || end != value + valueLen) {
            return kBadArgument;
        }
        if (!OffersRate(fps)) {
            return kxvendor::kUnsupported;
        }
        camera.SetRate(fps);
        return kOk;
    });
}

int32_t GetCameraCapability(KxCameraCapability **items, uint32_t *num)
{
    if (items == nullptr || num == nullptr) {
        return kBadArgument;
    }
    return kxvendor::Guarded([&]() -> int32_t {
        CameraModule &module = CameraModule::Get();
        *items = module.usable() ? module.catalog().items() : nullptr;
        *num = module.usable() ? module.catalog().count() : 0;
        return module.usable() ? kOk : kBadArgument;
    });
}

// The array is the library's for good; only the array handed out is taken back.
int32_t ReleaseCameraCapability(uint32_t /*kind*/, KxCameraCapability *items, uint32_t num)
{
    return kxvendor::Guarded([&]() -> int32_t {
        CameraModule &module = CameraModule::Get();
        const bool ours = module.usable() && items == module.catalog().items() && num == module.catalog().count();
        return ours ? kOk : kBadArgument;
    });
}

int32_t RegisterListener(const KxServiceListener *listener)
{
    if (listener == nullptr) {
        return kBadArgument;
    }
    return kxvendor::Guarded([&]() -> int32_t {
        CameraModule::Get().RegisterListener(*listener);
        KeepListenerForFaults(*listener);
        return kOk;
    });
}

// The key-frame request names no camera: every streaming self-encoding
// camera makes its next frame an IDR.
int32_t BusinessControl(int32_t control, void * /*in*/, uint32_t /*inLen*/, void * /*out*/, uint32_t /*outLen*/)
{
    if (control != kControlKeyFrame) {
        return kxvendor::kUnsupported;
    }
    return kxvendor::Guarded([]() -> int32_t {
        for (auto &camera : CameraModule::Get().cameras()) {
            camera->RequestKeyFrame();
        }
        return kOk;
    });
}

constexpr KxCameraHandler kTable = {
    .OpenCamera = OpenCamera,
    .StartCamera = StartCamera,
    .CloseCamera = CloseCamera,
    .UpdateConfig = UpdateConfig,
    .GetCameraCapability = GetCameraCapability,
    .Reserved5 = nullptr,
    .ReleaseCameraCapability = ReleaseCameraCapability,
    .RegisterListener = RegisterListener,
    .BusinessControl = BusinessControl,
};
static_assert(sizeof(kTable) == 9 * sizeof(void *), "the camera handler has nine slots");

} // namespace
} // namespace kxvcam

// Refused when TALVO_VCAM_CAMERAS is invalid, so the host fails to load
// rather than run without the cameras it asked for.
extern "C" KX_VENDOR_EXPORT int32_t TALVOGetCameraHandler(KxCameraHandler *handler)
{
    if (handler == nullptr) {
        return kxvendor::kBadArgument;
    }
    return kxvendor::Guarded([&]() -> int32_t {
        if (!kxvcam::CameraModule::Get().usable()) {
            return kxvendor::kBadArgument;
        }
        *handler = kxvcam::kTable;
        return kxvendor::kOk;
    });
}
