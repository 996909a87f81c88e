// SPDX-License-Identifier: Apache-2.0
#include "camera_support.h"

#include <chrono>
#include <cstdio>
#include <cstring>

#include "registry/registry.h"

namespace kxtest {

CallbackLog &CallbackLog::Get()
{
    static CallbackLog log;
    return log;
}

void CallbackLog::Clear()
{
    std::lock_guard lock(mutex_);
    cmd_.clear();
    glb_.clear();
}

std::vector<CmdCbCall> CallbackLog::CmdCalls() const
{
    std::lock_guard lock(mutex_);
    return cmd_;
}

std::vector<GlbCbCall> CallbackLog::GlbCalls() const
{
    std::lock_guard lock(mutex_);
    return glb_;
}

int32_t CallbackLog::RecordCmd(const KxServiceIdDesc *identity, const KxCommand *message, void *userData, int which)
{
    CmdCbCall call;
    call.which = which;
    call.userData = userData;
    if (identity != nullptr) {
        call.identityId = identity->id;
        call.identityText = identity->id != nullptr ? std::string(identity->id, identity->idLen) : "";
        call.identityLen = identity->idLen;
        call.serviceType = identity->serviceType;
    }
    if (message != nullptr) {
        call.code = message->code;
        call.input = message->input;
        call.inputLen = message->inputLen;
        call.outputLen = message->outputLen;
        if (message->output != nullptr) {
            // The plugin lends a whole payload record even when outputLen is 148.
            std::memcpy(&call.payload, message->output, sizeof(call.payload));
        }
        if (message->code == KX_MSG_BINARY_DATA && call.payload.data != nullptr) {
            const auto *text = static_cast<const char *>(call.payload.data);
            call.value.assign(text, call.payload.len);
            call.valueBuffer.assign(text, text + CAMERA_INT_STRING_LEN);
            TalvoFree(call.payload.data);
        }
    }
    CallbackLog &log = Get();
    std::lock_guard lock(log.mutex_);
    log.cmd_.push_back(call);
    return 0;
}

int32_t CallbackLog::CmdCallback(const KxServiceIdDesc *identity, const KxCommand *message, void *userData)
{
    return RecordCmd(identity, message, userData, 1);
}

int32_t CallbackLog::OtherCmdCallback(const KxServiceIdDesc *identity, const KxCommand *message, void *userData)
{
    return RecordCmd(identity, message, userData, 2);
}

int32_t CallbackLog::GlbCallback(const KxCommand *message)
{
    GlbCbCall call;
    if (message != nullptr) {
        call.code = message->code;
        call.input = message->input;
        call.inputLen = message->inputLen;
        call.outputLen = message->outputLen;
        if (message->output != nullptr) {
            std::memcpy(&call.payload, message->output, sizeof(call.payload));
            const auto *bytes = static_cast<const uint8_t *>(call.payload.data);
            if (bytes != nullptr) {
                call.packet.assign(bytes, bytes + call.payload.len);
            }
        }
    }
    CallbackLog &log = Get();
    std::lock_guard lock(log.mutex_);
    log.glb_.push_back(call);
    // A non-zero result must not matter to the plugin.
    return -1;
}

void CameraModuleTest::SetUp()
{
    PluginTest::SetUp();
    CallbackLog::Get().Clear();
    KxCameraModule &module = g_cameraModule;
    ASSERT_EQ(TALVOMutexInit(&module.lock), 0);
    auto *head = reinterpret_cast<TALVODllNode *>(&module.serviceList);
    module.serviceList.first = head;
    module.serviceList.last = head;
    module.serviceList.count = 0;
    module.inited = 1;
}

void CameraModuleTest::TearDown()
{
    // The queue goes first: nothing may run while the registry is freed.
    if (g_cameraModule.eventsHandle != nullptr) {
        EXPECT_EQ(TALVOEventsDestroy(g_cameraModule.eventsHandle), 0);
        g_cameraModule.eventsHandle = nullptr;
    }
    CallbackLog::Get().Clear();
    PluginTest::TearDown();
}

KxCameraService *CameraModuleTest::AddCamera(const std::string &vendorId, const std::string &abilityText)
{
    auto *service = static_cast<KxCameraService *>(TalvoMalloc(2, sizeof(KxCameraService)));
    auto *node = static_cast<TALVODllNode *>(TalvoMalloc(2, sizeof(TALVODllNode)));
    if (service == nullptr || node == nullptr) {
        ADD_FAILURE() << "no memory for a camera record";
        TalvoFree(service);
        TalvoFree(node);
        return nullptr;
    }
    std::memset(service, 0, sizeof(*service));
    std::memset(node, 0, sizeof(*node));
    const std::string serviceId = "Camera_" + vendorId;
    std::snprintf(service->serviceId, sizeof(service->serviceId), "%s", serviceId.c_str());
    service->serviceIdLen = static_cast<uint32_t>(serviceId.size());
    (void)TALVOAnonyString(service->serviceId, service->anonyServiceId, sizeof(service->anonyServiceId));
    std::snprintf(service->vendorId, sizeof(service->vendorId), "%s", vendorId.c_str());
    service->vendorIdLen = static_cast<uint32_t>(vendorId.size());
    service->serviceType = 1;
    std::snprintf(service->abilityText, sizeof(service->abilityText), "%s", abilityText.c_str());
    node->data = service;
    TALVODllHead &list = g_cameraModule.serviceList;
    EXPECT_EQ(TALVODllInsertInMiddle(&list, list.last, node), 0);
    return service;
}

KxServiceIdDesc CameraModuleTest::DescriptorOf(const KxCameraService *service)
{
    return KxServiceIdDesc{service->serviceId, service->serviceIdLen, 1};
}

void CameraModuleTest::CreateEventQueue()
{
    g_cameraModule.eventsHandle = TALVOEventsCreate("talvocamera", 1, 0, 100);
    ASSERT_NE(g_cameraModule.eventsHandle, nullptr);
}

namespace {

struct Marker {
    std::mutex mutex;
    std::condition_variable ran;
    bool done = false;
};

int32_t RunMarker(uint32_t, void *raw)
{
    auto *marker = static_cast<Marker *>(raw);
    std::lock_guard lock(marker->mutex);
    marker->done = true;
    marker->ran.notify_all();
    return 0;
}

} // namespace

bool DrainEventQueue()
{
    Marker marker;
    if (TALVOEventsCall(g_cameraModule.eventsHandle, RunMarker, 0, &marker, nullptr) != 0) {
        ADD_FAILURE() << "the module event queue refused the marker";
        return false;
    }
    std::unique_lock lock(marker.mutex);
    // Generous bound: only guards against a hang, never a measurement.
    if (marker.ran.wait_for(lock, std::chrono::seconds(30), [&marker] { return marker.done; })) {
        return true;
    }
    ADD_FAILURE() << "the module event queue did not reach the marker";
    // The marker lives on this stack: wait for it to have run before leaving.
    marker.ran.wait(lock, [&marker] { return marker.done; });
    return false;
}

std::string TextOfLength(size_t n, char fill)
{
    return std::string(n, fill);
}

std::vector<std::string> TextsAtLevel(int32_t level)
{
    std::vector<std::string> texts;
    for (const auto &line : CapturedLogs()) {
        if (line.level == level) {
            texts.push_back(line.text);
        }
    }
    return texts;
}

} // namespace kxtest
