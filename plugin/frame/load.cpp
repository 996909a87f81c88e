// SPDX-License-Identifier: Apache-2.0
// Service loading: from not initialised to cameras announced and the
// vendor's reports routed to the module event queue.
#include "common/limits.h"
#include "common/log.h"
#include "common/module.h"
#include "events/events.h"
#include "frame/frame.h"
#include "registry/registry.h"

namespace {

// Queue arguments as the framework expects them for the module event queue.
constexpr char kEventsName[] = "talvocamera";
constexpr uint32_t kEventsThreads = 1;
constexpr uint32_t kEventsFlags = 0;
constexpr uint32_t kEventsCapacity = 100;

} // namespace

void CameraGlbRegisterListener(void)
{
    LOGD("camera registerListener callback");
    // Lent for the call: the vendor copies both entries.
    const KxServiceListener listener = {
        .updateServiceStatus = CameraUpdateServiceStatus,
        .updateServiceAction = CameraUpdateServiceAction,
    };
    const int32_t ret = g_cameraModule.cameraHandler.RegisterListener(&listener);
    if (ret != 0) {
        LOGE("reg camera listener failed, error %d", ret);
    }
}

int32_t TALVOCameraLoadService(const KxServiceCallbacks *callbacks)
{
    KxCameraModule &module = g_cameraModule;
    if (callbacks == nullptr) {
        LOGE("camera kx service callback is nullptr");
        return kx::kErrMissing;
    }
    if (callbacks->AddService == nullptr || callbacks->DeleteService == nullptr) {
        LOGE("camera kx service callback AddService or DeleteService is invalid");
        return kx::kErrMissing;
    }
    if (kx::ModuleInited()) {
        LOGE("camera module is init, just return");
        return 0;
    }
    int32_t ret = TALVOMutexInit(&module.lock);
    if (ret != 0) {
        LOGE("audio moudle lock inited failed, error code %d", ret);
        return ret;
    }
    // A load that stops early takes back the lock and the queue it made, so a
    // later load does not create them again over live ones (a queue has a
    // thread of its own).
    module.eventsHandle = TALVOEventsCreate(kEventsName, kEventsThreads, kEventsFlags, kEventsCapacity);
    if (module.eventsHandle == nullptr) {
        (void)TALVOMutexDestroy(&module.lock);
        return kx::kErrCannotCreate;
    }
    ret = CameraInit();
    if (ret != 0) {
        LOGI("CameraInit falied, error code %d", ret);
        (void)TALVOEventsDestroy(module.eventsHandle);
        module.eventsHandle = nullptr;
        (void)TALVOMutexDestroy(&module.lock);
        return 0;
    }
    // Without an encoder the plugin still serves cameras that encode their own stream.
    ret = CameraVEncInit();
    if (ret != 0) {
        LOGW("CameraVEnc init falied, error code %d", ret);
    }
    module.serviceCb = *callbacks;
    (void)GetCameraService();
    CameraGlbRegisterListener();
    kx::SetModuleInited(true);
    return 0;
}
