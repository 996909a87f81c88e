// SPDX-License-Identifier: Apache-2.0
// The vendor's service listener entries and the module event queue's handler.
// The entries run on a vendor thread: they check, copy and post, and never
// wait for the module lock.
#include <cstddef>

#include "common/limits.h"
#include "common/log.h"
#include "common/module.h"
#include "common/memory.h"
#include "common/mutex.h"
#include "common/vendor_gate.h"
#include "events/events.h"
#include "talvo/securec.h"

namespace {

constexpr uint32_t kMaxActionValueLen = 16;
constexpr uint32_t kStatusOnline = 1;
constexpr uint32_t kStatusOffline = 2;

// Hands the message to the queue; a refused post leaves it with us to free.
void PostEvent(uint32_t what, KxModuleEventMsg *message)
{
    if (TALVOEventsCall(g_cameraModule.eventsHandle, CameraModuleEventsHandler, what, message,
                        CameraModuleEventsMsgFree) != 0) {
        CameraModuleEventsMsgFree(what, message);
    }
}

// The record's length bounds the value: the vendor's text need not end in a
// NUL within it. Called once valueLen is known to be at most 16.
int32_t ActionValue(const KxServiceAction *action)
{
    char text[kMaxActionValueLen + 1] = {};
    if (action->value != nullptr) {
        (void)memcpy_s(text, kMaxActionValueLen, action->value, action->valueLen);
    }
    return TalvoAtoi(text);
}

} // namespace

KxModuleEventMsg *CameraEventsHandlerMsgInit(uint32_t what, const char *data, uint32_t len)
{
    auto *message = kx::AllocZeroed<KxModuleEventMsg>();
    if (message == nullptr) {
        return nullptr;
    }
    auto *copy = static_cast<char *>(kx::Alloc(static_cast<size_t>(len) + 1));
    if (copy == nullptr) {
        CameraModuleEventsMsgFree(what, message);
        return nullptr;
    }
    message->data = copy;
    message->len = len;
    if (memcpy_s(copy, len, data, len) != 0) {
        CameraModuleEventsMsgFree(what, message);
        return nullptr;
    }
    copy[len] = '\0';
    return message;
}

void CameraModuleEventsMsgFree(uint32_t, void *message)
{
    auto *event = static_cast<KxModuleEventMsg *>(message);
    if (event == nullptr) {
        return;
    }
    if (event->data != nullptr) {
        kx::FreeAndClear(event->data);
    }
    TalvoFree(event);
}

int32_t CameraUpdateServiceAction(const char *id, uint32_t idLen, const KxServiceAction *action)
{
    // Refused before any field is read: the vendor's thread must not crash.
    if (action == nullptr) {
        LOGE("camera update service action failed, action is nullptr");
        return kx::kErrInvalid;
    }
    LOGD("camera update service action start, type: %d", action->type);
    if (action->valueLen > kMaxActionValueLen) {
        LOGE("camera action value bad len=%d", action->valueLen);
        return kx::kErrInvalid;
    }
    const kx::VendorCall call;
    if (!call.Admitted() || !kx::ModuleInited()) {
        LOGE("camera is not init or destroyed");
        return kx::kErrNotReady;
    }
    if (g_cameraModule.eventsHandle == nullptr) {
        LOGD("g_cameraModule callback event handler is null");
        return kx::kErrNotReady;
    }
    KxModuleEventMsg *message = CameraEventsHandlerMsgInit(action->type, id, idLen);
    if (message == nullptr) {
        return kx::kErrCannotCreate;
    }
    if (action->type != kServiceActionCameraState) {
        CameraModuleEventsMsgFree(action->type, message);
        return 0;
    }
    message->notifyEvent = static_cast<uint32_t>(ActionValue(action));
    PostEvent(kEventCameraState, message);
    return 0;
}

bool CheckServiceStatusReportValid(uint32_t status, uint32_t *notifyEvent)
{
    if (notifyEvent == nullptr) {
        return false;
    }
    if (status == kStatusOnline) {
        *notifyEvent = kNotifyServiceOnline;
    } else if (status == kStatusOffline) {
        *notifyEvent = kNotifyServiceOffline;
    } else {
        LOGE("invalid status.");
        return false;
    }
    if (!kx::ModuleInited()) {
        LOGE("camera is not init or destroyed");
        return false;
    }
    if (g_cameraModule.eventsHandle == nullptr) {
        LOGD("g_cameraModule callback event handler is null");
        return false;
    }
    return true;
}

int32_t CameraUpdateServiceStatus(const char *id, uint32_t idLen, uint32_t status)
{
    if (id == nullptr || idLen == 0) {
        LOGE("invalid id");
        return kx::kErrBadCamera;
    }
    const kx::VendorCall call;
    if (!call.Admitted()) {
        LOGE("camera is not init or destroyed");
        return kx::kErrBadCamera;
    }
    uint32_t notifyEvent = 0;
    if (!CheckServiceStatusReportValid(status, &notifyEvent)) {
        return kx::kErrBadCamera;
    }
    KxModuleEventMsg *message = CameraEventsHandlerMsgInit(kEventServiceStatus, id, idLen);
    if (message == nullptr) {
        return kx::kErrCannotCreate;
    }
    message->notifyEvent = notifyEvent;
    PostEvent(kEventServiceStatus, message);
    return 0;
}

int32_t CameraModuleEventsHandler(uint32_t what, void *message)
{
    LOGD("camera update service action start");
    auto *event = static_cast<KxModuleEventMsg *>(message);
    if (event == nullptr) {
        return 0;
    }
    {
        kx::MutexGuard guard(&g_cameraModule.lock);
        if (!guard.Locked()) {
            // Nothing may be reported without the lock; the message is ours
            // to free all the same.
            LOGE("lock camera module failed ,error code %d", guard.Status());
            CameraModuleEventsMsgFree(what, event);
            return 0;
        }
        if (kx::ModuleInited()) {
            if (what == kEventCameraState) {
                (void)ReportLocalCameraNotify(event->data, event->len, event->notifyEvent);
                CameraModuleEventsNotify(event);
            } else if (what == kEventServiceStatus) {
                CameraModuleEventsNotify(event);
            }
        }
        CameraModuleEventsMsgFree(what, event);
    }
    LOGD("camera update service action end, ret %d, what: %d", 0, what);
    return 0;
}
