// SPDX-License-Identifier: Apache-2.0
// Events and notifications: the vendor's service listener, the module event
// queue, device service notifications and per-camera state reports.
#pragma once

#include <cstdint>

#include "kxcamera/plugin.h"
#include "registry/registry.h"

// Event kinds on the module event queue.
inline constexpr uint32_t kEventCameraState = 7;   // a camera state action
inline constexpr uint32_t kEventServiceStatus = 8; // a service status report

// The one service action type the plugin handles.
inline constexpr uint32_t kServiceActionCameraState = 7;

// Notification events of a device service notification.
inline constexpr uint32_t kNotifyServiceOnline = 201;
inline constexpr uint32_t kNotifyServiceChanged = 205;
inline constexpr uint32_t kNotifyServiceOffline = 208;

// One vendor report on its way through the module event queue. Created on the
// vendor's thread, owned by the queue once posted, freed by the handler.
struct KxModuleEventMsg {
    char *data;           // NUL-terminated copy of the vendor camera id
    uint32_t len;         // characters in data, without the terminator
    uint32_t notifyEvent; // camera state value, or 201/208 for a status
};

extern "C" {
// The service listener entries handed to the vendor camera handler.
KXCAMERA_API int32_t CameraUpdateServiceStatus(const char *id, uint32_t idLen, uint32_t status);
KXCAMERA_API int32_t CameraUpdateServiceAction(const char *id, uint32_t idLen, const KxServiceAction *action);
KXCAMERA_API bool CheckServiceStatusReportValid(uint32_t status, uint32_t *notifyEvent);

// Module event messages and the queue's handler for them.
KXCAMERA_API KxModuleEventMsg *CameraEventsHandlerMsgInit(uint32_t what, const char *data, uint32_t len);
KXCAMERA_API void CameraModuleEventsMsgFree(uint32_t what, void *message);
KXCAMERA_API int32_t CameraModuleEventsHandler(uint32_t what, void *message);

// Device service notification through the global command callback. The
// caller holds the module lock.
KXCAMERA_API void CameraModuleEventsNotify(const KxModuleEventMsg *message);
KXCAMERA_API int32_t GetRealCameraIDFormEventMsg(const KxModuleEventMsg *message, char *serviceId, uint32_t room);
KXCAMERA_API int32_t SendDeviceServiceNotify(uint8_t *packet, uint32_t length);
KXCAMERA_API uint32_t AddCameraAbilityLengthIfNeed(const char *serviceId, uint32_t serviceIdLen,
                                                   const KxModuleEventMsg *message);
KXCAMERA_API int32_t AddCameraAbilityIfNeed(TALVOPacket *packet, const char *serviceId, uint32_t serviceIdLen,
                                            const KxModuleEventMsg *message);

// Reports through a camera's command callback. No lock taken: callers hold
// the module lock.
KXCAMERA_API void DoNotifyCameraState(const KxCameraService *service, uint32_t state);
KXCAMERA_API int32_t ReportLocalCameraNotify(const char *id, uint32_t idLen, uint32_t state);
KXCAMERA_API void DoSendCameraBinaryData(const KxCameraService *service, uint32_t type, int32_t value);
KXCAMERA_API void SetCameraFacing(const KxCameraService *service, int32_t facing);
KXCAMERA_API void SetCameraDegree(const KxCameraService *service, int32_t degree);
}
