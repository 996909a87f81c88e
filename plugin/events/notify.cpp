// SPDX-License-Identifier: Apache-2.0
// Device service notifications: a packet naming the camera service and the
// event, with the ability text for event 201, sent through the global
// command callback.
#include "common/limits.h"
#include "common/log.h"
#include "events/events.h"
#include "talvo/securec.h"

namespace {

// Packet bytes besides the service id: its length and the event.
constexpr uint32_t kPacketFixedLen = 8;
// The ability length written ahead of the ability text.
constexpr uint32_t kAbilityLengthField = 4;

bool IsNotifyEvent(uint32_t event)
{
    return event == kNotifyServiceOnline || event == kNotifyServiceChanged || event == kNotifyServiceOffline;
}

// Owns a packet from a successful init to the end of the scope.
class ScopedPacket {
public:
    explicit ScopedPacket(uint32_t capacity) : status_(TALVOPacketInit(&packet_, nullptr, capacity)) {}
    ~ScopedPacket()
    {
        if (status_ == 0) {
            (void)TALVOPacketRelease(&packet_);
        }
    }
    ScopedPacket(const ScopedPacket &) = delete;
    ScopedPacket &operator=(const ScopedPacket &) = delete;

    [[nodiscard]] bool Ready() const { return status_ == 0; }
    TALVOPacket *Get() { return &packet_; }

private:
    TALVOPacket packet_{};
    int32_t status_;
};

// Fields 1 to 5 of the packet; false at the first write that fails.
bool WritePacket(TALVOPacket *packet, const char *serviceId, uint32_t serviceIdLen, const KxModuleEventMsg *message)
{
    return TALVOPacketWriteUint32(packet, serviceIdLen) == 0 &&
           TALVOPacketWriteBytes(packet, reinterpret_cast<const uint8_t *>(serviceId), serviceIdLen) == 0 &&
           TALVOPacketWriteInt32(packet, static_cast<int32_t>(message->notifyEvent)) == 0 &&
           AddCameraAbilityIfNeed(packet, serviceId, serviceIdLen, message) == 0;
}

} // namespace

void CameraModuleEventsNotify(const KxModuleEventMsg *message)
{
    // A missing message is refused below as an invalid parameter.
    if (message != nullptr && !IsNotifyEvent(message->notifyEvent)) {
        LOGE("is not valid Notify Event");
        return;
    }
    char serviceId[kRealIdRoom + 1] = {};
    if (GetRealCameraIDFormEventMsg(message, serviceId, kRealIdRoom) != 0) {
        LOGE("get camera real id failed");
        return;
    }
    const uint32_t serviceIdLen = TALVOStrlen(serviceId);
    const uint32_t packetLen =
        AddCameraAbilityLengthIfNeed(serviceId, serviceIdLen, message) + serviceIdLen + kPacketFixedLen;

    ScopedPacket packet(packetLen);
    if (!packet.Ready()) {
        LOGE("TALVO Packet Init failed");
        return;
    }
    if (!WritePacket(packet.Get(), serviceId, serviceIdLen, message)) {
        return;
    }
    if (SendDeviceServiceNotify(packet.Get()->data, packetLen) != 0) {
        LOGE("camera notify service action fail");
    }
}

int32_t GetRealCameraIDFormEventMsg(const KxModuleEventMsg *message, char *serviceId, uint32_t room)
{
    if (g_cameraModule.glbCmdCb == nullptr || message == nullptr || serviceId == nullptr) {
        LOGE("get camera real id invalid param");
        return kx::kErrBadCamera;
    }
    if (message->data == nullptr || kx::FormatServiceId(serviceId, room, message->data) <= 0) {
        LOGE("create camera real id failed");
        return kx::kErrNotReady;
    }
    if (GetCameraHandlerById(serviceId, TALVOStrlen(serviceId)) == nullptr) {
        LOGE("Can not find camera service, id: %s", message->data);
        return kx::kErrNotReady;
    }
    return 0;
}

int32_t SendDeviceServiceNotify(uint8_t *packet, uint32_t length)
{
    const KxGlbCmdCallback callback = g_cameraModule.glbCmdCb;
    if (callback == nullptr) {
        return kx::kErrNotReady;
    }
    KxCallbackPayload payload{};
    payload.module = static_cast<uint32_t>(kx::kModuleDevice);
    payload.type = static_cast<uint32_t>(kx::kDeviceServiceTypeCamera);
    payload.data = packet;
    payload.len = length;
    KxCommand message{};
    message.code = KX_MSG_DEVICE_NOTIFY;
    message.output = &payload;
    message.outputLen = sizeof(payload);
    LOGD("setGlbCb, module: %d, type: %d, len: %d", kx::kCameraModule, kx::kDeviceServiceTypeCamera, length);
    // The framework copies what it keeps before returning.
    (void)callback(&message);
    return 0;
}

uint32_t AddCameraAbilityLengthIfNeed(const char *serviceId, uint32_t serviceIdLen, const KxModuleEventMsg *message)
{
    if (serviceId == nullptr || serviceIdLen == 0 || message == nullptr) {
        return 0;
    }
    if (message->notifyEvent != kNotifyServiceOnline) {
        return 0;
    }
    const KxCameraService *service = GetCameraHandlerById(serviceId, serviceIdLen);
    if (service == nullptr) {
        return 0;
    }
    return TALVOStrlen(service->abilityText) + kAbilityLengthField;
}

int32_t AddCameraAbilityIfNeed(TALVOPacket *packet, const char *serviceId, uint32_t serviceIdLen,
                               const KxModuleEventMsg *message)
{
    if (serviceId == nullptr || serviceIdLen == 0 || message == nullptr || packet == nullptr) {
        return kx::kErrBadCamera;
    }
    if (message->notifyEvent != kNotifyServiceOnline) {
        return 0;
    }
    const KxCameraService *service = GetCameraHandlerById(serviceId, serviceIdLen);
    if (service == nullptr) {
        return kx::kErrNotReady;
    }
    const uint32_t abilityLen = TALVOStrlen(service->abilityText);
    if (TALVOPacketWriteUint32(packet, abilityLen) != 0 ||
        TALVOPacketWriteString(packet, service->abilityText, abilityLen) != 0) {
        return kx::kErrInvalid;
    }
    return 0;
}
