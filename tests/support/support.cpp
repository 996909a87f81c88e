// SPDX-License-Identifier: Apache-2.0
// Log capture, a clean module and the framework double every plugin suite uses.
#include "support.h"

#include <algorithm>
#include <chrono>
#include <cstring>
#include <iterator>
#include <sstream>

#include "kxcamera/color_convert.h"
#include "video/video.h"

namespace kxtest {

// Only a hang guard, never a measurement.
constexpr auto kHangGuard = std::chrono::seconds(30);

std::vector<LogLine> CapturedLogs()
{
    std::vector<LogLine> lines;
    TalvoTestLogEntry entry{};
    for (uint32_t i = 0; i < TalvoTestLogCount() && TalvoTestLogGet(i, &entry) == 0; ++i) {
        lines.push_back({entry.level, entry.fmt, entry.text});
    }
    return lines;
}

bool HasLog(int32_t level, const std::string &text)
{
    return std::ranges::any_of(CapturedLogs(), [&](const LogLine &l) { return l.level == level && l.text == text; });
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

bool LogsInOrder(int32_t level, const std::vector<std::string> &texts)
{
    const std::vector<std::string> logged = TextsAtLevel(level);
    auto at = logged.begin();
    for (const std::string &text : texts) {
        at = std::find(at, logged.end(), text);
        if (at == logged.end()) {
            return false;
        }
        ++at;
    }
    return true;
}

std::string DumpLogs()
{
    std::ostringstream out;
    for (const auto &line : CapturedLogs()) {
        out << "  [" << line.level << "] " << line.text << "\n";
    }
    return out.str();
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

int32_t RecordAddService(const KxServiceIdDesc *info, const KxServiceOps *ops)
{
    Fw().announced.push_back({std::string(info->id, info->idLen), info->idLen, info->serviceType, *ops});
    return -77; // the plugin must not care what the framework answers
}

int32_t RefuseDeleteService(const KxServiceIdDesc *)
{
    ADD_FAILURE() << "DeleteService is stored, never called";
    return 0;
}

void Reserved() {}

} // namespace

bool DrainEventQueue()
{
    Marker marker;
    int32_t ret = TALVOEventsCall(g_cameraModule.eventsHandle, RunMarker, 0, &marker, nullptr);
    if (ret == TALVO_TEST_INJECTED_ERROR) { // fires once
        ret = TALVOEventsCall(g_cameraModule.eventsHandle, RunMarker, 0, &marker, nullptr);
    }
    if (ret != 0) {
        ADD_FAILURE() << "the module event queue refused the marker";
        return false;
    }
    std::unique_lock lock(marker.mutex);
    if (marker.ran.wait_for(lock, kHangGuard, [&marker] { return marker.done; })) {
        return true;
    }
    ADD_FAILURE() << "the module event queue did not reach the marker";
    marker.ran.wait(lock, [&marker] { return marker.done; }); // the marker lives on this stack
    return false;
}

CapabilityDraft &CapabilityDraft::Ability(uint32_t dataFmt, std::vector<KxFpsRange> ranges,
                                          std::vector<KxPictureSize> sizes)
{
    auto &r = ranges_.emplace_back(std::move(ranges));
    auto &s = sizes_.emplace_back(std::move(sizes));
    abilities_.push_back(KxCameraAbility{r.data(), static_cast<uint32_t>(r.size()), 0, s.data(),
                                         static_cast<uint32_t>(s.size()), dataFmt});
    return *this;
}

CapabilityDraft &CapabilityDraft::Extend(std::string key, std::string value)
{
    KxExtendInfo info{};
    info.key = texts_.emplace_back(std::move(key)).c_str();
    info.value = texts_.emplace_back(std::move(value)).c_str();
    extendInfos_.push_back(info);
    return *this;
}

KxCameraCapability &CapabilityDraft::Record()
{
    record_ = KxCameraCapability{};
    record_.id = id_.c_str();
    record_.idLen = static_cast<uint32_t>(id_.size());
    record_.abilities = abilities_.data();
    record_.abilityNum = static_cast<uint32_t>(abilities_.size());
    record_.extendInfos = extendInfos_.data();
    record_.extendInfoNum = static_cast<uint32_t>(extendInfos_.size());
    return record_;
}

Framework &Framework::Get()
{
    static Framework framework;
    return framework;
}

void Framework::Reset()
{
    std::lock_guard lock(mutex_);
    table = {};
    callbacks = {RecordAddService, RefuseDeleteService, Reserved};
    announced.clear();
    messages_.clear();
    packets_.clear();
    payloads_.clear();
}

int32_t Framework::Load()
{
    if (TALVOGetCameraServiceHandler(&table) != 0) {
        return -1;
    }
    return table.loadService(&callbacks);
}

void Framework::Attach()
{
    EXPECT_EQ(table.setGlbCmdCb(nullptr, GlbCallback), 0);
    for (const Announced &camera : announced) {
        const KxServiceIdDesc index{camera.id.c_str(), camera.idLen, camera.serviceType};
        EXPECT_EQ(table.setCmdCb(&index, CmdCallback, nullptr), 0) << camera.id;
    }
}

KxServiceIdDesc IndexOf(const std::string &vendorId)
{
    static thread_local std::string id;
    id = "Camera_" + vendorId;
    return KxServiceIdDesc{id.c_str(), static_cast<uint32_t>(id.size()), 1};
}

int32_t Framework::Send(const std::string &vendorId, uint32_t code)
{
    const KxServiceIdDesc index = IndexOf(vendorId);
    KxCommand command{};
    command.code = code;
    return table.setCommand(&index, &command);
}

int32_t Framework::SetParams(const std::string &vendorId, const std::string &text, uint32_t inputLen)
{
    const KxServiceIdDesc index = IndexOf(vendorId);
    KxSetParamsInput input{};
    input.para = text.c_str();
    KxCommand command{};
    command.code = KX_CMD_SET_PARAMS;
    command.input = &input;
    command.inputLen = inputLen;
    return table.setCommand(&index, &command);
}

int32_t Framework::CmdCallback(const KxServiceIdDesc *identity, const KxCommand *message, void *userData)
{
    Message m;
    m.code = message->code;
    m.identity.assign(identity->id, identity->idLen);
    m.serviceType = identity->serviceType;
    m.outputLen = message->outputLen;
    m.userData = userData;
    if (message->output != nullptr) {
        std::memcpy(&m.payload, message->output, sizeof(m.payload));
    }
    if (m.code == KX_MSG_CAMERA_FRAME || m.code == KX_MSG_BITSTREAM) {
        auto *unit = static_cast<KxVideoAccessUnit *>(m.payload.data);
        m.bytes.assign(unit->data, unit->data + unit->length);
        m.timeStamp = unit->timeStamp;
        m.streamType = unit->streamType;
        m.dataType = unit->dataType;
        OutputCameraDataFree(unit, nullptr);
    } else if (m.code == KX_MSG_BINARY_DATA && m.payload.data != nullptr) {
        m.value.assign(static_cast<const char *>(m.payload.data), m.payload.len);
        TalvoFree(m.payload.data);
    }
    Framework &fw = Get();
    {
        std::lock_guard lock(fw.mutex_);
        fw.messages_.push_back(std::move(m));
    }
    fw.arrived_.notify_all();
    return -1; // ignored by the plugin
}

int32_t Framework::GlbCallback(const KxCommand *message)
{
    const auto *payload = static_cast<const KxCallbackPayload *>(message->output);
    const auto *bytes = static_cast<const uint8_t *>(payload->data);
    Framework &fw = Get();
    std::lock_guard lock(fw.mutex_);
    EXPECT_EQ(message->code, KX_MSG_DEVICE_NOTIFY);
    fw.packets_.emplace_back(bytes, bytes + payload->len);
    fw.payloads_.push_back(*payload);
    return -1;
}

std::vector<Message> Framework::Messages(uint32_t code) const
{
    std::lock_guard lock(mutex_);
    std::vector<Message> found;
    std::ranges::copy_if(messages_, std::back_inserter(found), [code](const Message &m) { return m.code == code; });
    return found;
}

std::vector<std::vector<uint8_t>> Framework::Notifications() const
{
    std::lock_guard lock(mutex_);
    return packets_;
}

std::vector<KxCallbackPayload> Framework::NotificationPayloads() const
{
    std::lock_guard lock(mutex_);
    return payloads_;
}

size_t Framework::Count(uint32_t code) const
{
    std::lock_guard lock(mutex_);
    return static_cast<size_t>(std::ranges::count(messages_, code, &Message::code));
}

bool Framework::WaitFor(uint32_t code, size_t count)
{
    std::unique_lock lock(mutex_);
    return arrived_.wait_for(lock, kHangGuard, [&] {
        return static_cast<size_t>(std::ranges::count(messages_, code, &Message::code)) >= count;
    });
}

KxCameraService *Camera(const std::string &vendorId)
{
    const KxServiceIdDesc index = IndexOf(vendorId);
    return GetCameraHandlerById(index.id, index.idLen);
}

KxCameraFrameCounters Counters(const std::string &vendorId)
{
    KxCameraFrameCounters counters{};
    const KxServiceIdDesc index = IndexOf(vendorId);
    EXPECT_EQ(KxCameraGetFrameCounters(&index, &counters), 0);
    return counters;
}

std::string OpenParams(int32_t width, int32_t height, int32_t colorFmt, int32_t codecType)
{
    return "{\"Width\":" + std::to_string(width) + ",\"Height\":" + std::to_string(height) +
           ",\"ColorFormat\":" + std::to_string(colorFmt) + ",\"CodecType\":" + std::to_string(codecType) + "}";
}

std::string FpsParams(int32_t fps)
{
    return "{\"Fps\":" + std::to_string(fps) + "}";
}

bool ColourConversionBuiltIn()
{
    std::vector<uint8_t> src(4 * 4 * 3 / 2), dst(src.size());
    const KxImage from{KX_CSP_NV21, 4, 4, 4, src.data()};
    const KxImage to{KX_CSP_I420, 4, 4, 4, dst.data()};
    return TALVOColorConvert(&from, &to) == 0;
}

void ResetModule()
{
    KxCameraModule &module = g_cameraModule;
    if (module.eventsHandle != nullptr) {
        TALVOEventsDestroy(module.eventsHandle);
    }
    auto *head = reinterpret_cast<TALVODllNode *>(&module.serviceList);
    for (TALVODllNode *node = module.serviceList.first; node != nullptr && node != head;) {
        TALVODllNode *next = node->next;
        TalvoFree(node->data);
        TalvoFree(node);
        node = next;
    }
    for (void *library : {module.cameraLibHandle, module.vencLibHandle}) {
        if (library != nullptr) {
            TALVODlClose(library);
        }
    }
    std::memset(&module, 0, sizeof(module));
}

void PluginTest::SetUp()
{
    TalvoTestReset();
    ResetModule();
    ASSERT_NE(FakeCamera(), nullptr);
    ASSERT_NE(FakeEncoder(), nullptr);
    FakeCamera()->Reset();
    FakeEncoder()->Reset();
    SetVendorPath({kFakeCameraDir, kFakeEncoderDir});
    Fw().Reset();
    TalvoTestLogCapture(1);
    allocBaseline_ = TalvoTestOutstandingAllocs();
}

void PluginTest::TearDown()
{
    if (Fw().table.releaseService != nullptr) {
        EXPECT_EQ(Fw().Release(), 0);
    }
    ResetModule();
    EXPECT_EQ(FakeEncoder()->LiveInstances(), 0u) << "encoder instances left behind";
    EXPECT_EQ(TalvoTestOutstandingAllocs(), allocBaseline_) << "blocks taken and not given back";
    Fw().Reset();
    TalvoTestReset();
}

void ServiceTest::SetUp()
{
    PluginTest::SetUp();
    ASSERT_EQ(Fw().Load(), 0) << DumpLogs();
    ASSERT_EQ(g_cameraModule.inited, 1) << DumpLogs();
    Fw().Attach();
    TalvoTestLogClear();
}

} // namespace kxtest
