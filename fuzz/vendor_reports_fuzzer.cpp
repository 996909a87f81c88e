// SPDX-License-Identifier: Apache-2.0
// What the vendor camera library sends, on a module loaded with the vendor
// doubles: frames through the frame callback the plugin handed to
// OpenCamera, and service status and service action reports through the
// listener it registered, mixed with the framework's commands that change how
// they are handled (callbacks, negotiated parameters, open, close).
//
// Only properties are checked, whatever the plugin decides: every message the
// framework gets is well formed; a refused frame reaches nothing; a frame
// reaches the framework at most once, whole; after each input, with the
// cameras closed and the event queue drained, the framework heap is back where
// it started with no encoder instance left, which is where a leaked block or
// an orphaned encoder shows.
//
// Input: a sequence of operations, each one byte (mod 7) and its fields,
// little-endian; fields past the end read as zero.
//   0 frame   u8 sender (mod 4: camera 0, camera 1, text {u8 len mod 70,
//             bytes}, null), u8 mode (mod 3): 0 {u16 len, bytes}, 1 no data
//             {u32 length}, 2 a length over the limit {u16 excess}
//   1 status  vendor id, u8 status (mod 4; 0xf0 and above: u32 follows)
//   2 action  vendor id, u8 type (mod 9; 0xf0 and above: u32 follows),
//             u8 flags (1: value null), u8 valueLen (mod 24), value bytes
//   3 cmdcb   u8 camera, u8 mode (0 set, 1 clear, 2 set the getter's)
//   4 params  u8 camera, u8 kind: 0 open {u8 codec, u8 width/2, u8 height/2,
//             u8 colour}, 1 update {u8 fps}, 2 text {u8 len, bytes},
//             3 a size alone {u8 width, u8 height: indices into
//             kHostileSizes}, refused yet stored, so that later frames
//             disagree with it
//   5 open    u8 camera
//   6 close   u8 camera
// A vendor id is u8 kind (mod 4: camera 0, camera 1, bytes, null), then for
// bytes u8 len (mod 70) and the bytes, for null a u8 length.
#include <atomic>
#include <cstring>
#include <future>
#include <mutex>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>

#include "command/command.h"
#include "events/events.h"
#include "fake_access.h"
#include "fuzz_support.h"
#include "registry/registry.h"
#include "talvo/testing.h"

namespace {

constexpr uint32_t kCameraCount = 2;
constexpr const char *kVendorIds[kCameraCount] = {"0", "1"};
constexpr const char *kServiceIds[kCameraCount] = {"Camera_0", "Camera_1"};
constexpr size_t kMaxOps = 48;
constexpr uint32_t kMaxVideoData = 52428800;

int g_userData = 0;
int g_getterUserData = 0;
KxServiceHandler g_table{};
KxFrameCallback g_frameCallback = nullptr;
KxCameraService *g_record[kCameraCount] = {};
int64_t g_allocBaseline = 0;
// What the framework saw of camera frames (the direct road); the encoder
// thread sends the rest at its own pace, so no count of it says anything.
std::atomic<uint32_t> g_frames{0};
std::atomic<int64_t> g_lastFrameLength{-1};

// A camera's vendor id or service id.
bool IsCamera(const char *id, uint32_t len)
{
    const std::string_view name(id, len);
    return name == "0" || name == "1" || name == "Camera_0" || name == "Camera_1";
}

uint32_t BigEndian(const uint8_t *p)
{
    return uint32_t{p[0]} << 24 | uint32_t{p[1]} << 16 | uint32_t{p[2]} << 8 | p[3];
}

// The framework owns every unit and text it is handed and frees them here. A
// null where a pointer belongs crashes on its own.
int32_t CmdCallback(const KxServiceIdDesc *identity, const KxCommand *message, void *userData)
{
    const uint32_t code = message->code;
    const auto *payload = static_cast<const KxCallbackPayload *>(message->output);
    const bool state = code == KX_MSG_CAMERA_STATE || code == KX_MSG_BINARY_DATA;
    auto *unit = state ? nullptr : static_cast<KxVideoAccessUnit *>(payload->data);
    FUZZ_CHECK(IsCamera(identity->id, identity->idLen) && identity->serviceType == 1 &&
                   (userData == &g_userData || userData == &g_getterUserData) &&
                   (state
                        ? message->outputLen == KX_STATE_PAYLOAD_LEN &&
                              (code == KX_MSG_CAMERA_STATE || std::memchr(payload->data, '\0', payload->len) == nullptr)
                        : (code == KX_MSG_CAMERA_FRAME || code == KX_MSG_BITSTREAM) && unit->data != nullptr &&
                              unit->dataType == KX_VIDEO_DATA_TYPE &&
                              (code == KX_MSG_BITSTREAM || message->outputLen == sizeof(KxCallbackPayload))),
               "message %u", code);
    if (code == KX_MSG_CAMERA_FRAME) {
        g_lastFrameLength = unit->length;
        ++g_frames;
    }
    TalvoFree(code == KX_MSG_BINARY_DATA ? payload->data : (state ? nullptr : unit->data));
    TalvoFree(unit);
    return 0;
}

// A notification packet: {u32 8, service id, u32 event} and, for an added
// camera, {u32 length, ability text}, all big-endian.
int32_t GlbCallback(const KxCommand *message)
{
    const auto *payload = static_cast<const KxCallbackPayload *>(message->output);
    const auto *packet = static_cast<const uint8_t *>(payload->data);
    const uint32_t event = BigEndian(packet + 12);
    const size_t want = event == 201 && payload->len >= 20 ? 20 + size_t{BigEndian(packet + 16)} : 16;
    FUZZ_CHECK(message->code == KX_MSG_DEVICE_NOTIFY && message->outputLen == sizeof(KxCallbackPayload) &&
                   payload->len == want && BigEndian(packet) == 8 &&
                   IsCamera(reinterpret_cast<const char *>(packet + 4), 8),
               "event %u: %u bytes", event, payload->len);
    return -1; // the plugin must not care
}

int32_t Command(uint32_t camera, uint32_t code, void *input = nullptr, uint32_t inputLen = 0)
{
    const KxServiceIdDesc index{kServiceIds[camera], 8, 1};
    KxCommand command{.code = code, .input = input, .inputLen = inputLen};
    return g_table.setCommand(&index, &command);
}

// Stored by the getter entry and never called.
int32_t GetterCallback(const KxServiceIdDesc *, const KxCommand *message, void *)
{
    FUZZ_CHECK(false, "the getter's callback got message %u", message->code);
    return 0;
}

void OpFrame(FuzzInput &in)
{
    const uint8_t sender = in.U8() % 4;
    const std::string name = sender == 2 ? in.Bytes(in.U8() % 70) : std::string(sender < 2 ? kVendorIds[sender] : "");
    const char *id = sender == 3 ? nullptr : name.c_str();
    const uint8_t mode = in.U8() % 3;
    const std::string bytes = mode == 0 ? in.Bytes(in.Take<uint16_t>()) : std::string(mode == 2 ? 1 : 0, '\0');
    const uint32_t length = mode == 0 ? static_cast<uint32_t>(bytes.size())
                                      : (mode == 1 ? in.Take<uint32_t>() : kMaxVideoData + 1 + in.Take<uint16_t>());
    const uint32_t idLen = static_cast<uint32_t>(std::strlen(name.c_str()));

    const uint32_t framesBefore = g_frames;
    const int32_t rc = g_frameCallback(id, idLen, mode == 1 ? nullptr : Block<uint8_t>(bytes).get(), length);
    const uint32_t frames = g_frames - framesBefore;
    FUZZ_CHECK((rc == -5 ? frames == 0 : rc == 0 && id != nullptr && mode != 1 && length <= kMaxVideoData) &&
                   (frames == 0 || (frames == 1 && g_lastFrameLength == length)),
               "rc %d, %u units", rc, frames);
}

void OpReport(FuzzInput &in, bool action)
{
    const uint8_t kind = in.U8() % 4;
    const std::string id = kind == 2 ? in.Bytes(in.U8() % 70) : std::string(kVendorIds[kind % 2]);
    const auto idBlock = kind == 3 ? nullptr : Block(id);
    const uint32_t idLen = kind == 3 ? in.U8() : static_cast<uint32_t>(id.size());
    const uint8_t code = in.U8();
    const uint32_t value = code < 0xf0 ? code % (action ? 9 : 4) : in.Take<uint32_t>();
    if (action) {
        const bool null = (in.U8() & 1) != 0;
        const std::string text = in.Bytes(in.U8() % 24);
        (void)FakeCamera()->PushActionRaw(idBlock.get(), idLen, value, null ? nullptr : Block(text).get(),
                                          static_cast<uint32_t>(text.size()));
    } else {
        (void)FakeCamera()->PushStatusRaw(idBlock.get(), idLen, value);
    }
}

// Sides whose products overflow 32 bits, or nearly, or are odd or empty.
constexpr int64_t kHostileSizes[] = {0,     1,     2,     64,         48,         46340, 46342,
                                     32768, 65536, 65537, 2147483646, 2147483647, -2,    -2147483648};

std::string ParamsText(FuzzInput &in)
{
    using nlohmann::json;
    const auto size = [&in] { return kHostileSizes[in.U8() % std::size(kHostileSizes)]; };
    switch (in.U8() % 4) {
    case 0: {
        const auto codec = static_cast<int8_t>(in.U8());
        return json{{"Width", in.U8() * 2}, {"Height", in.U8() * 2}, {"ColorFormat", in.U8()}, {"CodecType", codec}}
            .dump();
    }
    case 1:
        return json{{"Fps", in.U8()}}.dump();
    case 2:
        return in.Bytes(in.U8());
    default:
        return json{{"Width", size()}, {"Height", size()}}.dump();
    }
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    SetVendorPath({kFakeCameraDir, kFakeEncoderDir});
    static const KxServiceCallbacks callbacks{[](const KxServiceIdDesc *, const KxServiceOps *) { return 0; },
                                              [](const KxServiceIdDesc *) { return 0; }, nullptr};
    FUZZ_CHECK(TALVOGetCameraServiceHandler(&g_table) == 0 && g_table.loadService(&callbacks) == 0 &&
                   g_table.setGlbCmdCb(nullptr, GlbCallback) == 0 && Command(1, KX_CMD_OPEN) == 0,
               "load or open");
    for (uint32_t camera = 0; camera < kCameraCount; ++camera) {
        g_record[camera] = GetCameraHandlerById(kServiceIds[camera], 8);
    }
    // The frame callback is whatever the plugin hands the vendor at open.
    {
        std::lock_guard lock(FakeCamera()->mutex);
        g_frameCallback = FakeCamera()->frameCallbacks[kVendorIds[1]];
    }
    FUZZ_CHECK(g_frameCallback != nullptr && Command(1, KX_CMD_CLOSE) == 0);
    g_allocBaseline = TalvoTestOutstandingAllocs();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    // Back to the state after loading: callbacks set, nothing negotiated.
    for (uint32_t camera = 0; camera < kCameraCount; ++camera) {
        const KxServiceIdDesc index{kServiceIds[camera], 8, 1};
        FUZZ_CHECK(g_table.setCmdCb(&index, CmdCallback, &g_userData) == 0);
        g_record[camera]->negParams = KxNegParams{};
    }
    {
        // The doubles record every call; only the calls of one input matter.
        std::scoped_lock lock(FakeCamera()->mutex, FakeEncoder()->mutex);
        FakeCamera()->calls.clear();
        FakeEncoder()->calls.clear();
    }
    FuzzInput in(data, size);
    for (size_t op = 0; op < kMaxOps && !in.Empty(); ++op) {
        const uint8_t code = in.U8() % 7;
        const uint32_t camera = code < 3 ? 0 : in.U8() % kCameraCount;
        const KxServiceIdDesc index{kServiceIds[camera], 8, 1};
        if (code == 0) {
            OpFrame(in);
        } else if (code < 3) {
            OpReport(in, code == 2);
        } else if (code == 3) {
            const uint8_t mode = in.U8() % 3;
            FUZZ_CHECK((mode == 2 ? g_table.getCmdCb(&index, GetterCallback, &g_getterUserData)
                                  : g_table.setCmdCb(&index, mode == 0 ? CmdCallback : nullptr, &g_userData)) == 0,
                       "mode %u", mode);
        } else if (code == 4) {
            const std::string text = ParamsText(in);
            KxSetParamsInput input{.para = text.c_str()};
            (void)Command(camera, KX_CMD_SET_PARAMS, &input, sizeof(input));
        } else {
            FUZZ_CHECK(Command(camera, code == 5 ? KX_CMD_OPEN : KX_CMD_CLOSE) == 0);
        }
    }
    // Stopping the cameras stops their encoder threads, which release what
    // they still hold.
    for (uint32_t camera = 0; camera < kCameraCount; ++camera) {
        FUZZ_CHECK(Command(camera, KX_CMD_CLOSE) == 0 &&
                       __atomic_load_n(&g_record[camera]->laneGate, __ATOMIC_ACQUIRE) == 0 &&
                       g_record[camera]->vencHandle == nullptr,
                   "camera %u", camera);
    }
    // The event queue runs its events one at a time in post order: once it
    // runs this one, it has run every event posted before.
    std::promise<void> ran;
    auto run = [](uint32_t, void *raw) { return static_cast<std::promise<void> *>(raw)->set_value(), int32_t{0}; };
    FUZZ_CHECK(TALVOEventsCall(g_cameraModule.eventsHandle, run, 0, &ran, nullptr) == 0);
    ran.get_future().wait();
    FUZZ_CHECK(FakeEncoder()->LiveInstances() == 0 && TalvoTestOutstandingAllocs() == g_allocBaseline);
    return 0;
}
