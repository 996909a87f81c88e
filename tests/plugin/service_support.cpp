// SPDX-License-Identifier: Apache-2.0
#include "service_support.h"

#include <chrono>
#include <cstring>

#include "kxcamera/color_convert.h"
#include "registry/registry.h"
#include "registry_support.h"

namespace kxtest {

UnitSink &UnitSink::Get()
{
    static UnitSink sink;
    return sink;
}

int32_t UnitSink::CmdCallback(const KxServiceIdDesc *identity, const KxCommand *message, void *userData)
{
    if (message == nullptr || (message->code != KX_MSG_CAMERA_FRAME && message->code != KX_MSG_BITSTREAM)) {
        return CallbackLog::CmdCallback(identity, message, userData);
    }
    const auto *payload = static_cast<const KxCallbackPayload *>(message->output);
    auto *unit = static_cast<KxVideoAccessUnit *>(payload->data);
    ReceivedUnit received;
    received.code = message->code;
    received.identity = std::string(identity->id, identity->idLen);
    received.outputLen = message->outputLen;
    received.streamType = unit->streamType;
    received.dataType = unit->dataType;
    received.timeStamp = unit->timeStamp;
    received.arrivedUs = TALVOSystemTimeUs();
    UnitSink &sink = Get();
    {
        std::lock_guard lock(sink.mutex_);
        if (sink.keepBytes_) {
            received.bytes.assign(unit->data, unit->data + unit->length);
            sink.units_.push_back(std::move(received));
        }
        ++(message->code == KX_MSG_BITSTREAM ? sink.bitstreams_ : sink.frames_);
    }
    sink.arrived_.notify_all();
    TalvoFree(unit->data);
    TalvoFree(unit);
    return 0;
}

void UnitSink::Clear()
{
    std::lock_guard lock(mutex_);
    keepBytes_ = true;
    units_.clear();
    frames_ = 0;
    bitstreams_ = 0;
}

void UnitSink::KeepBytes(bool keep)
{
    std::lock_guard lock(mutex_);
    keepBytes_ = keep;
}

std::vector<ReceivedUnit> UnitSink::Units(uint32_t code) const
{
    std::vector<ReceivedUnit> found;
    std::lock_guard lock(mutex_);
    for (const auto &unit : units_) {
        if (unit.code == code) {
            found.push_back(unit);
        }
    }
    return found;
}

uint64_t UnitSink::Count(uint32_t code) const
{
    std::lock_guard lock(mutex_);
    return code == KX_MSG_BITSTREAM ? bitstreams_ : frames_;
}

bool UnitSink::WaitFor(uint32_t code, uint64_t count)
{
    std::unique_lock lock(mutex_);
    // Only a hang guard: the wait ends as soon as the units are there.
    return arrived_.wait_for(lock, std::chrono::seconds(30),
                             [&] { return (code == KX_MSG_BITSTREAM ? bitstreams_ : frames_) >= count; });
}

void ServiceTest::SetUp()
{
    PluginTest::SetUp();
    CallbackLog::Get().Clear();
    UnitSink::Get().Clear();
    ScriptVendors();
    ASSERT_EQ(TALVOGetCameraServiceHandler(&table_), 0);
    callbacks_ = RecordingCallbacks();
    ASSERT_EQ(table_.loadService(&callbacks_), 0) << DumpLogs();
    ASSERT_EQ(g_cameraModule.inited, 1) << DumpLogs();
    for (const KxCameraService *service : RegisteredServices()) {
        const KxServiceIdDesc index{service->serviceId, service->serviceIdLen, 1};
        ASSERT_EQ(table_.setCmdCb(&index, UnitSink::CmdCallback, nullptr), 0);
    }
    TalvoTestLogClear();
}

void ServiceTest::TearDown()
{
    EXPECT_EQ(Release(), 0);
    PluginTest::TearDown();
    CallbackLog::Get().Clear();
    UnitSink::Get().Clear();
}

KxCameraService *ServiceTest::Camera(const std::string &vendorId) const
{
    const std::string id = "Camera_" + vendorId;
    return GetCameraHandlerById(id.c_str(), static_cast<uint32_t>(id.size()));
}

int32_t ServiceTest::Send(const std::string &vendorId, uint32_t code)
{
    const std::string id = "Camera_" + vendorId;
    const KxServiceIdDesc index{id.c_str(), static_cast<uint32_t>(id.size()), 1};
    KxCommand command{};
    command.code = code;
    return table_.setCommand(&index, &command);
}

int32_t ServiceTest::SetParams(const std::string &vendorId, const std::string &text, uint32_t inputLen)
{
    const std::string id = "Camera_" + vendorId;
    const KxServiceIdDesc index{id.c_str(), static_cast<uint32_t>(id.size()), 1};
    KxSetParamsInput input{};
    input.para = text.c_str();
    KxCommand command{};
    command.code = KX_CMD_SET_PARAMS;
    command.input = &input;
    command.inputLen = inputLen;
    return table_.setCommand(&index, &command);
}

std::string ServiceTest::OpenParams(int32_t width, int32_t height, int32_t colorFmt, int32_t codecType)
{
    return "{\"Width\":" + std::to_string(width) + ",\"Height\":" + std::to_string(height) +
           ",\"ColorFormat\":" + std::to_string(colorFmt) + ",\"CodecType\":" + std::to_string(codecType) + "}";
}

std::string ServiceTest::FpsParams(int32_t fps)
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

std::vector<std::string> FormatsAmong(const std::vector<std::string> &wanted)
{
    std::vector<std::string> found;
    for (const auto &line : CapturedLogs()) {
        for (const auto &fmt : wanted) {
            if (line.fmt == fmt) {
                found.push_back(fmt);
            }
        }
    }
    return found;
}

} // namespace kxtest
