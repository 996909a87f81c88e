// SPDX-License-Identifier: Apache-2.0
// Per-camera command callbacks and the state, facing and rotation reports
// sent through them.
#include <cstring>

#include "common/limits.h"
#include "common/log.h"
#include "common/module.h"
#include "common/memory.h"
#include "common/mutex.h"
#include "events/events.h"
#include "talvo/securec.h"

namespace {

// Which of the record's callbacks an entry point replaces.
enum class CallbackSlot { kCmd, kGetCmd };

int32_t StoreCallback(const KxServiceIdDesc *index, KxCmdCallback callback, void *userData, CallbackSlot slot)
{
    if (!kx::ModuleInited()) {
        LOGE("camera module is not init, please init first");
        return kx::kErrNotInited;
    }
    const kx::LockedCamera camera(index, __func__);
    KxCameraService *service = camera.Get();
    if (service == nullptr) {
        return camera.Status();
    }
    // The user data is shared by both entries: the later call wins.
    if (slot == CallbackSlot::kCmd) {
        kx::PublishCmdCallback(service, callback, userData);
    } else {
        service->getCmdCb = callback;
        kx::PublishCmdCallback(service, service->cmdCb, userData);
    }
    return 0;
}

// Reports name the camera by its vendor id.
KxServiceIdDesc IdentityOf(const KxCameraService *service)
{
    return KxServiceIdDesc{service->vendorId, service->vendorIdLen, service->serviceType};
}

} // namespace

int32_t TALVOCameraSetCmdCb(const KxServiceIdDesc *index, KxCmdCallback callback, void *userData)
{
    if (index == nullptr) {
        return kx::kErrNoArgument;
    }
    int32_t ret = StoreCallback(index, callback, userData, CallbackSlot::kCmd);
    if (ret == 0) {
        LOGI("CameraSetCmdCb %p success", reinterpret_cast<void *>(callback));
    }
    return ret;
}

int32_t TALVOCameraGetCmdCb(const KxServiceIdDesc *index, KxCmdCallback callback, void *userData)
{
    if (index == nullptr) {
        LOGE("camera get cmd cb params is null");
        return kx::kErrNoArgument;
    }
    int32_t ret = StoreCallback(index, callback, userData, CallbackSlot::kGetCmd);
    if (ret == 0) {
        LOGI("CameraGetCmdCb success");
    }
    return ret;
}

void DoNotifyCameraState(const KxCameraService *service, uint32_t state)
{
    LOGD("notify camera state=%d", state);
    KxCallbackPayload payload{};
    payload.type = state;
    KxServiceIdDesc identity = IdentityOf(service);
    KxCommand message{};
    message.code = KX_MSG_CAMERA_STATE;
    message.output = &payload;
    message.outputLen = KX_STATE_PAYLOAD_LEN;
    if (service->cmdCb != nullptr) {
        (void)service->cmdCb(&identity, &message, service->cmdCbUserData);
    }
}

int32_t ReportLocalCameraNotify(const char *id, uint32_t idLen, uint32_t state)
{
    if (id == nullptr || std::strlen(id) != idLen) {
        LOGE("Local notify params invalid");
        return kx::kErrBadCamera;
    }
    char serviceId[kRealIdRoom + 1] = {};
    if (kx::FormatServiceId(serviceId, kRealIdRoom, id) <= 0) {
        LOGE("create camera real id failed");
        return kx::kErrNotReady;
    }
    const KxCameraService *service = GetCameraHandlerById(serviceId, TALVOStrlen(serviceId));
    if (service == nullptr) {
        LOGE("Can not find camera service, id: %s", id);
        return kx::kErrBadCamera;
    }
    DoNotifyCameraState(service, state);
    LOGD("notify local camera state success, id: %s, state: %d", service->anonyServiceId, state);
    return 0;
}

void DoSendCameraBinaryData(const KxCameraService *service, uint32_t type, int32_t value)
{
    LOGD("camera send binary data, type: %d, value: %d", type, value);
    KxCallbackPayload payload{};
    const auto textSize = static_cast<rsize_t>(kx::kCameraIntStringLen);
    char *text = static_cast<char *>(kx::Alloc(textSize));
    if (text == nullptr) {
        LOGE("camera send binary data malloc fail");
        return;
    }
    int written = 0;
    if (memset_s(text, textSize, 0, textSize) == 0) {
        written = sprintf_s(text, textSize, "%d", value);
    }
    if (written > 0 && service->cmdCb != nullptr) {
        payload.module = static_cast<uint32_t>(kx::kCameraModule);
        payload.type = type;
        payload.data = text;
        payload.len = static_cast<uint32_t>(written);
        KxServiceIdDesc identity = IdentityOf(service);
        KxCommand message{};
        message.code = KX_MSG_BINARY_DATA;
        message.output = &payload;
        message.outputLen = KX_STATE_PAYLOAD_LEN;
        // The text is the framework's from here on.
        (void)service->cmdCb(&identity, &message, service->cmdCbUserData);
        LOGD("camera send state success");
        return;
    }
    TalvoFree(text);
    LOGD("camera send state failed");
}

void SetCameraFacing(const KxCameraService *service, int32_t facing)
{
    DoSendCameraBinaryData(service, static_cast<uint32_t>(kx::kCameraStateFacing), facing);
}

void SetCameraDegree(const KxCameraService *service, int32_t degree)
{
    DoSendCameraBinaryData(service, static_cast<uint32_t>(kx::kCameraStateDegree), degree);
}
