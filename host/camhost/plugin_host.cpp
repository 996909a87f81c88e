// SPDX-License-Identifier: Apache-2.0
// The framework's side towards the plugin: loading, callbacks, commands.
#include "plugin_host.h"

#include <dlfcn.h>

#include <cstdio>
#include <cstring>

#include "talvo/talvo.h"

namespace camhost {

PluginHost *PluginHost::current_ = nullptr;

KxVideoAccessUnit *TakeVideoUnit(const CameraMessage &message)
{
    if (message.payload == nullptr) {
        return nullptr;
    }
    switch (message.code) {
    case KX_MSG_CAMERA_FRAME:
    case KX_MSG_BITSTREAM:
        return static_cast<KxVideoAccessUnit *>(message.payload->data);
    case KX_MSG_BINARY_DATA:
        TalvoFree(message.payload->data);
        return nullptr;
    default:
        return nullptr;
    }
}

void FreeVideoUnit(KxVideoAccessUnit *unit)
{
    if (unit != nullptr) {
        TalvoFree(unit->data);
        TalvoFree(unit);
    }
}

PluginHost::~PluginHost()
{
    Release();
    if (library_ != nullptr) {
        dlclose(library_);
    }
    if (current_ == this) {
        current_ = nullptr;
    }
}

bool PluginHost::Load(const std::string &path)
{
    library_ = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (library_ == nullptr) {
        error_ = std::string("cannot load the plugin: ") + dlerror();
        return false;
    }
    auto entry = reinterpret_cast<int32_t (*)(KxServiceHandler *)>(dlsym(library_, "TALVOGetCameraServiceHandler"));
    if (entry == nullptr || entry(&table_) != 0) {
        error_ = path + " has no usable entry point";
        return false;
    }
    if (table_.getVersion == nullptr || table_.loadService == nullptr || table_.setCommand == nullptr ||
        table_.setCmdCb == nullptr || table_.releaseService == nullptr || table_.setGlbCmdCb == nullptr) {
        error_ = path + " leaves a required slot of its table empty";
        return false;
    }
    table_.getVersion(&version_);
    return true;
}

void *PluginHost::Symbol(const char *name) const
{
    return library_ == nullptr ? nullptr : dlsym(library_, name);
}

bool PluginHost::LoadService()
{
    // The plugin's callbacks carry no context of ours but the camera's user data.
    current_ = this;
    KxServiceCallbacks callbacks{AddService, DeleteService, nullptr};
    int32_t status = table_.loadService(&callbacks);
    if (status != 0) {
        error_ = "service load failed with status " + std::to_string(status);
        return false;
    }
    if (table_.setGlbCmdCb(nullptr, GlobalCallback) != 0) {
        error_ = "the camera service did not initialise (is the camera handler library on TALVO_VENDOR_PATH?)";
        return false;
    }
    loaded_ = true;
    return true;
}

void PluginHost::Release()
{
    if (loaded_) {
        table_.releaseService();
        loaded_ = false;
    }
}

int32_t PluginHost::AddService(const KxServiceIdDesc *info, const KxServiceOps *)
{
    if (current_ != nullptr && info != nullptr && info->id != nullptr) {
        current_->services_.emplace_back(info->id, info->idLen);
    }
    return 0;
}

int32_t PluginHost::DeleteService(const KxServiceIdDesc *)
{
    return 0;
}

int32_t PluginHost::GlobalCallback(const KxCommand *message)
{
    if (message == nullptr || message->code != KX_MSG_DEVICE_NOTIFY || message->output == nullptr) {
        return 0;
    }
    // Packet: u32 id length, id bytes, s32 event (network order), then for 201 the ability.
    const auto *payload = static_cast<const KxCallbackPayload *>(message->output);
    const auto *bytes = static_cast<const uint8_t *>(payload->data);
    auto be32 = [](const uint8_t *p) {
        return (uint32_t{p[0]} << 24) | (uint32_t{p[1]} << 16) | (uint32_t{p[2]} << 8) | uint32_t{p[3]};
    };
    if (bytes == nullptr || payload->len < 8) {
        return 0;
    }
    uint32_t idLen = be32(bytes);
    if (idLen + 8 > payload->len) {
        return 0;
    }
    std::string id(reinterpret_cast<const char *>(bytes + 4), idLen);
    auto event = static_cast<int32_t>(be32(bytes + 4 + idLen));
    if (current_ != nullptr && current_->onNotify) {
        current_->onNotify(id, event);
    }
    return 0;
}

int32_t PluginHost::CameraCallback(const KxServiceIdDesc *, const KxCommand *message, void *userData)
{
    auto *sink = static_cast<CameraSink *>(userData);
    if (message == nullptr || sink == nullptr) {
        return 0;
    }
    (*sink)(CameraMessage{message->code, static_cast<const KxCallbackPayload *>(message->output)});
    return 0;
}

int32_t PluginHost::SetCallback(const std::string &serviceId, CameraSink sink)
{
    sinks_.push_back(std::make_unique<CameraSink>(std::move(sink)));
    KxServiceIdDesc index{serviceId.c_str(), static_cast<uint32_t>(serviceId.size()), 1};
    return table_.setCmdCb(&index, CameraCallback, sinks_.back().get());
}

int32_t PluginHost::Command(const std::string &serviceId, KxCommand &command)
{
    KxServiceIdDesc index{serviceId.c_str(), static_cast<uint32_t>(serviceId.size()), 1};
    return table_.setCommand(&index, &command);
}

int32_t PluginHost::Ability(const std::string &serviceId, std::string &text)
{
    KxCommand command{};
    command.code = KX_CMD_GET_ABILITY;
    int32_t status = Command(serviceId, command);
    if (status == 0 && command.output != nullptr) {
        text = static_cast<const KxAbilityInfo *>(command.output)->ability;
    }
    return status;
}

int32_t PluginHost::WorkMode(const std::string &serviceId, KxWorkMode &mode)
{
    KxCommand command{};
    command.code = KX_CMD_GET_WORK_MODE;
    int32_t status = Command(serviceId, command);
    if (status == 0 && command.output != nullptr) {
        std::memcpy(&mode, command.output, sizeof(mode));
    }
    return status;
}

int32_t PluginHost::SetParams(const std::string &serviceId, const std::string &json)
{
    KxSetParamsInput input{};
    input.para = json.c_str();
    KxCommand command{};
    command.code = KX_CMD_SET_PARAMS;
    command.input = &input;
    command.inputLen = sizeof(input);
    return Command(serviceId, command);
}

int32_t PluginHost::Open(const std::string &serviceId)
{
    KxCommand command{};
    command.code = KX_CMD_OPEN;
    return Command(serviceId, command);
}

int32_t PluginHost::Close(const std::string &serviceId)
{
    KxCommand command{};
    command.code = KX_CMD_CLOSE;
    return Command(serviceId, command);
}

int32_t PluginHost::KeyFrame(const std::string &serviceId)
{
    KxCommand command{};
    command.code = KX_CMD_TRIGGER_IFRAME;
    return Command(serviceId, command);
}

} // namespace camhost
