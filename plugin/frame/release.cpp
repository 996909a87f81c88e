// SPDX-License-Identifier: Apache-2.0
// Service release: every camera closed and freed, the event queue and both
// vendor libraries gone, the module back to not initialised.
#include "command/command.h"
#include "common/log.h"

namespace {

// Walks the registry from its first node, reading each successor before the
// visit, which may free the node.
template <typename Visit>
void ForEachCamera(TALVODllHead &list, Visit visit)
{
    auto *head = reinterpret_cast<TALVODllNode *>(&list);
    if (list.count == 0 || list.first == nullptr) {
        return;
    }
    for (TALVODllNode *node = list.first; node != nullptr;) {
        TALVODllNode *next = node->next == head ? nullptr : node->next;
        visit(node);
        node = next;
    }
}

// Every camera is closed before the first record is freed: a camera still
// open delivers frames whose lookup walks the whole registry.
void CloseAndFreeCameras(TALVODllHead &list)
{
    ForEachCamera(list, [](TALVODllNode *node) {
        auto *service = static_cast<KxCameraService *>(node->data);
        KxCommand close{};
        close.code = KX_CMD_CLOSE;
        const int32_t ret = DoCloseCameraCmd(service, &close);
        LOGI("close camera id %s success, ret %d", service->anonyServiceId, ret);
        // A close the vendor refused left the encoder thread running on a
        // record that is about to be freed.
        if (kx::HasVideoEncoder(service)) {
            kx::TearDownVideoEncoder(service);
        }
    });
    ForEachCamera(list, [](TALVODllNode *node) {
        TalvoFree(node->data);
        TalvoFree(node);
    });
    auto *head = reinterpret_cast<TALVODllNode *>(&list);
    list.first = head;
    list.last = head;
    list.count = 0;
}

void CloseLibrary(void *&handle)
{
    if (handle != nullptr) {
        (void)TALVODlClose(handle);
        handle = nullptr;
    }
}

} // namespace

int32_t TALVOCameraReleaseService(void)
{
    KxCameraModule &module = g_cameraModule;
    if (module.inited == 0) {
        LOGI("camera service is not init, release service just return");
        return 0;
    }
    LOGI("TALVOCameraReleaseService start");
    // The queue goes before the cameras: its handler reports through the
    // records, and destroying the queue lets the event in progress finish and
    // stops the worker, so no handler runs while the records are freed.
    if (module.eventsHandle != nullptr) {
        (void)TALVOEventsDestroy(module.eventsHandle);
        module.eventsHandle = nullptr;
    }
    CloseAndFreeCameras(module.serviceList);
    CloseLibrary(module.cameraLibHandle);
    CloseLibrary(module.vencLibHandle);
    module.inited = 0;
    LOGI("TALVOCameraReleaseService end");
    return 0;
}
