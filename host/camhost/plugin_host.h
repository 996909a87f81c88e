// SPDX-License-Identifier: Apache-2.0
// Plays the framework's part towards the camera plugin: loads it, hands it
// the service callbacks and sends its commands.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "kxcamera/plugin.h"

namespace camhost {

// One message the plugin sent through a camera's command callback.
struct CameraMessage {
    uint32_t code;
    const KxCallbackPayload *payload;
};
using CameraSink = std::function<void(const CameraMessage &)>;

// The video unit a frame or bitstream message hands over, or null. Binary
// data, the other payload that becomes the host's, is freed here.
KxVideoAccessUnit *TakeVideoUnit(const CameraMessage &message);
// Frees a unit taken over from the plugin, with its bytes.
void FreeVideoUnit(KxVideoAccessUnit *unit);

class PluginHost {
public:
    PluginHost() = default;
    ~PluginHost();
    PluginHost(const PluginHost &) = delete;
    PluginHost &operator=(const PluginHost &) = delete;

    // Loads the library and takes its table; false with error() set.
    bool Load(const std::string &path);
    // Loads the camera service; the cameras it announces are in services().
    bool LoadService();
    void Release();

    const std::vector<std::string> &services() const { return services_; }
    const std::string &error() const { return error_; }
    uint64_t version() const { return version_; }
    // An optional export of the loaded plugin, or null.
    void *Symbol(const char *name) const;

    // Per-camera commands; each returns the plugin's status.
    int32_t SetCallback(const std::string &serviceId, CameraSink sink);
    int32_t Ability(const std::string &serviceId, std::string &text);
    int32_t WorkMode(const std::string &serviceId, KxWorkMode &mode);
    int32_t SetParams(const std::string &serviceId, const std::string &json);
    int32_t Open(const std::string &serviceId);
    int32_t Close(const std::string &serviceId);
    int32_t KeyFrame(const std::string &serviceId);

    // Device service notifications, printed by default.
    std::function<void(const std::string &serviceId, int32_t event)> onNotify;

private:
    int32_t Command(const std::string &serviceId, KxCommand &command);
    static int32_t AddService(const KxServiceIdDesc *info, const KxServiceOps *ops);
    static int32_t DeleteService(const KxServiceIdDesc *info);
    static int32_t GlobalCallback(const KxCommand *message);
    static int32_t CameraCallback(const KxServiceIdDesc *identity, const KxCommand *message, void *userData);

    void *library_ = nullptr;
    KxServiceHandler table_{};
    bool loaded_ = false;
    uint64_t version_ = 0;
    std::string error_;
    std::vector<std::string> services_;
    std::vector<std::unique_ptr<CameraSink>> sinks_;

    static PluginHost *current_;
};

} // namespace camhost
