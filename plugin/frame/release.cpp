// SPDX-License-Identifier: Apache-2.0
// Service release: every camera closed and freed, the event queue and both
// vendor libraries gone, the module back to not initialised.
#include "command/command.h"
#include "common/list.h"
#include "common/log.h"
#include "common/vendor_gate.h"
#include "common/module.h"
#include "frame/frame.h"
#include "video/lane.h"
#include "video/video.h"

namespace {

// Every camera is closed before the first record is freed: a camera still
// open delivers frames whose lookup walks the whole registry.
void CloseAndFreeCameras(TALVODllHead &list)
{
    kx::ListForEach(list, [](TALVODllNode *node) {
        auto *service = static_cast<KxCameraService *>(node->data);
        KxCommand close{};
        close.code = KX_CMD_CLOSE;
        const int32_t ret = DoCloseCameraCmd(service, &close);
        LOGI("close camera id %s success, ret %d", service->anonyServiceId, ret);
        // A close the vendor refused left the encoder thread running on a
        // record that is about to be freed; a lane retired from a callback
        // still has a thread to join.
        kx::LaneTearDown(service);
    });
    kx::ListForEach(list, [](TALVODllNode *node) {
        TalvoFree(node->data);
        TalvoFree(node);
    });
    kx::ListReset(list);
}

} // namespace

int32_t TALVOCameraReleaseService(void)
{
    KxCameraModule &module = g_cameraModule;
    if (!kx::ModuleInited()) {
        LOGI("camera service is not init, release service just return");
        return 0;
    }
    LOGI("TALVOCameraReleaseService start");
    // Vendor threads may call at any time, and one that would not close a
    // camera goes on calling: none may be inside while the queue and the
    // records go, and each that comes meanwhile is turned away.
    kx::ShutVendorGate();
    // The queue goes before the cameras: its handler reports through the
    // records, and destroying the queue lets the event in progress finish and
    // stops the worker, so no handler runs while the records are freed.
    if (module.eventsHandle != nullptr) {
        (void)TALVOEventsDestroy(module.eventsHandle);
        module.eventsHandle = nullptr;
    }
    CloseAndFreeCameras(module.serviceList);
    kx::CloseLibrary(module.cameraLibHandle);
    kx::CloseLibrary(module.vencLibHandle);
    kx::SetModuleInited(false);
    kx::OpenVendorGate();
    LOGI("TALVOCameraReleaseService end");
    return 0;
}
