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
#include <algorithm>
#include <atomic>
#include <cstring>
#include <future>
#include <memory>
#include <mutex>
#include <string>
#include <tuple>

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
constexpr int32_t kErrInvalid = -5;

int g_userData = 0;
int g_getterUserData = 0;

// What the framework saw of camera frames (the direct road); the encoder
// thread sends the rest at its own pace, so no count of it says anything.
std::atomic<uint32_t> g_frames{0};
std::atomic<int64_t> g_lastFrameLength{-1};

bool IsId(const char *id, uint32_t len, const char *const (&ids)[kCameraCount])
{
    return std::any_of(std::begin(ids), std::end(ids),
                       [&](const char *want) { return std::strlen(want) == len && std::memcmp(id, want, len) == 0; });
}

uint32_t BigEndian(const std::string &packet, size_t at)
{
    const auto *p = reinterpret_cast<const uint8_t *>(packet.data() + at);
    return uint32_t{p[0]} << 24 | uint32_t{p[1]} << 16 | uint32_t{p[2]} << 8 | p[3];
}

// The framework owns every unit and text it is handed and frees them here.
int32_t CmdCallback(const KxServiceIdDesc *identity, const KxCommand *message, void *userData)
{
    FUZZ_CHECK(identity != nullptr && identity->id != nullptr && message != nullptr && message->output != nullptr,
               "command callback without identity, message or payload");
    FUZZ_CHECK(identity->serviceType == 1 && (IsId(identity->id, identity->idLen, kVendorIds) ||
                                              IsId(identity->id, identity->idLen, kServiceIds)),
               "message %u for an unknown camera", message->code);
    FUZZ_CHECK(userData == &g_userData || userData == &g_getterUserData, "message %u with foreign user data",
               message->code);
    const auto *payload = static_cast<const KxCallbackPayload *>(message->output);
    const uint32_t code = message->code;
    if (code == KX_MSG_CAMERA_STATE || code == KX_MSG_BINARY_DATA) {
        FUZZ_CHECK(message->outputLen == KX_STATE_PAYLOAD_LEN &&
                       (code == KX_MSG_CAMERA_STATE ||
                        (payload->data != nullptr && std::memchr(payload->data, '\0', payload->len) == nullptr)),
                   "message %u of %u bytes, or binary data without its text", code, message->outputLen);
        if (code == KX_MSG_BINARY_DATA) {
            TalvoFree(payload->data);
        }
    } else {
        FUZZ_CHECK(code == KX_MSG_CAMERA_FRAME || code == KX_MSG_BITSTREAM, "unknown camera message code %u", code);
        auto *unit = static_cast<KxVideoAccessUnit *>(payload->data);
        FUZZ_CHECK(unit != nullptr && unit->data != nullptr && unit->dataType == KX_VIDEO_DATA_TYPE &&
                       unit->length >= (code == KX_MSG_BITSTREAM ? 1 : 0) &&
                       (code == KX_MSG_BITSTREAM || message->outputLen == sizeof(KxCallbackPayload)),
                   "message %u with a malformed unit", code);
        if (code == KX_MSG_CAMERA_FRAME) {
            g_lastFrameLength = unit->length;
            ++g_frames;
        }
        TalvoFree(unit->data);
        TalvoFree(unit);
    }
    return 0;
}

// Stored by the getter entry and never called.
int32_t GetterCallback(const KxServiceIdDesc *, const KxCommand *message, void *)
{
    FUZZ_CHECK(false, "the getter's callback was called with message %u", message == nullptr ? 0 : message->code);
    return 0;
}

// A notification packet: {u32 8, service id, u32 event} and, for an added
// camera, {u32 length, ability text}, all big-endian.
int32_t GlbCallback(const KxCommand *message)
{
    FUZZ_CHECK(message != nullptr && message->output != nullptr, "global callback without message or payload");
    const auto *payload = static_cast<const KxCallbackPayload *>(message->output);
    FUZZ_CHECK(message->code == KX_MSG_DEVICE_NOTIFY && message->outputLen == sizeof(KxCallbackPayload) &&
                   payload->data != nullptr && payload->len >= 16,
               "notification code %u len %u, packet of %u bytes", message->code, message->outputLen, payload->len);
    const std::string packet(static_cast<const char *>(payload->data), payload->len);
    FUZZ_CHECK(BigEndian(packet, 0) == 8 && IsId(packet.data() + 4, 8, kServiceIds), "notification names no camera");
    const uint32_t event = BigEndian(packet, 12);
    const size_t want = event == 201 && packet.size() >= 20 ? 20 + size_t{BigEndian(packet, 16)} : 16;
    FUZZ_CHECK(packet.size() == want, "notification for event %u of %zu bytes, want %zu", event, packet.size(), want);
    // The plugin must not care.
    return -1;
}

KxServiceHandler g_table{};
KxServiceListener g_listener{};
KxFrameCallback g_frameCallback = nullptr;
KxCameraService *g_record[kCameraCount] = {};
int64_t g_allocBaseline = 0;

int32_t Command(uint32_t camera, uint32_t code, void *input = nullptr, uint32_t inputLen = 0)
{
    const KxServiceIdDesc index{kServiceIds[camera], 8, 1};
    KxCommand command{};
    std::tie(command.code, command.input, command.inputLen) = std::tie(code, input, inputLen);
    return g_table.setCommand(&index, &command);
}

// Returns once the module event queue has run every event posted before: it
// runs them one at a time in post order.
void DrainEvents()
{
    std::promise<void> ran;
    std::future<void> done = ran.get_future();
    auto run = [](uint32_t, void *raw) { return static_cast<std::promise<void> *>(raw)->set_value(), int32_t{0}; };
    FUZZ_CHECK(TALVOEventsCall(g_cameraModule.eventsHandle, run, 0, &ran, nullptr) == 0, "no drain marker");
    done.wait();
}

void OpFrame(FuzzInput &in)
{
    const uint8_t sender = in.U8() % 4;
    const std::string text = sender == 2 ? in.Bytes(in.U8() % 70) : std::string();
    const char *id = sender < kCameraCount ? kVendorIds[sender] : (sender == 2 ? text.c_str() : nullptr);
    const uint8_t mode = in.U8() % 3;
    const std::string bytes = mode == 0 ? in.Bytes(in.Take<uint16_t>()) : std::string(mode == 2 ? 1 : 0, '\0');
    const uint32_t length = mode == 0 ? static_cast<uint32_t>(bytes.size())
                                      : (mode == 1 ? in.Take<uint32_t>() : kMaxVideoData + 1 + in.Take<uint16_t>());
    const auto block = mode == 1 ? nullptr : Block<uint8_t>(bytes);

    const uint32_t framesBefore = g_frames;
    g_lastFrameLength = -1;
    const uint32_t idLen = id == nullptr ? 0 : static_cast<uint32_t>(std::strlen(id));
    const int32_t rc = g_frameCallback(id, idLen, block.get(), length);
    FUZZ_CHECK(rc == 0 || rc == kErrInvalid, "frame answered %d", rc);
    FUZZ_CHECK(rc == kErrInvalid || (id != nullptr && block != nullptr && length <= kMaxVideoData),
               "a frame without sender or data, or over the limit, was taken");
    const uint32_t frames = g_frames - framesBefore;
    FUZZ_CHECK(rc == 0 || frames == 0, "a refused frame reached the framework");
    FUZZ_CHECK(frames == 0 || (frames == 1 && g_lastFrameLength == length), "%u units for one frame of %u bytes",
               frames, length);
}

void OpReport(FuzzInput &in, bool action)
{
    const uint8_t kind = in.U8() % 4;
    const std::string idBytes = kind == 2 ? in.Bytes(in.U8() % 70) : std::string(kVendorIds[kind % 2]);
    const auto idBlock = kind == 3 ? nullptr : Block(idBytes);
    const uint32_t idLen = kind == 3 ? in.U8() : static_cast<uint32_t>(idBytes.size());
    const uint8_t code = in.U8();
    const uint32_t value = code < 0xf0 ? code % (action ? 9 : 4) : in.Take<uint32_t>();
    if (!action) {
        (void)g_listener.updateServiceStatus(idBlock.get(), idLen, value);
    } else {
        const uint8_t flags = in.U8();
        const std::string text = in.Bytes(in.U8() % 24);
        const auto valueBlock = Block(text);
        KxServiceAction report{};
        report.type = value;
        report.value = (flags & 1) != 0 ? nullptr : valueBlock.get();
        report.valueLen = static_cast<uint32_t>(text.size());
        (void)g_listener.updateServiceAction(idBlock.get(), idLen, &report);
    }
}

void OpCallback(FuzzInput &in)
{
    const uint32_t camera = in.U8() % kCameraCount;
    const uint8_t mode = in.U8() % 3;
    const KxServiceIdDesc index{kServiceIds[camera], 8, 1};
    const int32_t rc = mode == 2   ? g_table.getCmdCb(&index, GetterCallback, &g_getterUserData)
                       : mode == 0 ? g_table.setCmdCb(&index, CmdCallback, &g_userData)
                                   : g_table.setCmdCb(&index, nullptr, &g_userData);
    FUZZ_CHECK(rc == 0, "callback entry %u of camera %u: rc %d", mode, camera, rc);
}

// Sides whose products overflow 32 bits, or nearly, or are odd or empty.
constexpr int64_t kHostileSizes[] = {0,     1,     2,     64,         48,         46340, 46342,
                                     32768, 65536, 65537, 2147483646, 2147483647, -2,    -2147483648};

void OpParams(FuzzInput &in)
{
    const uint32_t camera = in.U8() % kCameraCount;
    const uint8_t kind = in.U8() % 4;
    std::string text;
    if (kind == 0) {
        const auto codec = static_cast<int8_t>(in.U8());
        const uint32_t width = in.U8() * 2u;
        const uint32_t height = in.U8() * 2u;
        text = "{\"Width\":" + std::to_string(width) + ",\"Height\":" + std::to_string(height) +
               ",\"ColorFormat\":" + std::to_string(in.U8()) + ",\"CodecType\":" + std::to_string(codec) + "}";
    } else if (kind == 1) {
        text = "{\"Fps\":" + std::to_string(in.U8()) + "}";
    } else if (kind == 3) {
        const int64_t width = kHostileSizes[in.U8() % std::size(kHostileSizes)];
        const int64_t height = kHostileSizes[in.U8() % std::size(kHostileSizes)];
        text = "{\"Width\":" + std::to_string(width) + ",\"Height\":" + std::to_string(height) + "}";
    } else {
        text = in.Bytes(in.U8());
    }
    KxSetParamsInput input{};
    input.para = text.c_str();
    (void)Command(camera, KX_CMD_SET_PARAMS, &input, sizeof(input));
}

// Back to the state after loading: callbacks set, nothing negotiated.
void ResetCameras()
{
    for (uint32_t camera = 0; camera < kCameraCount; ++camera) {
        const KxServiceIdDesc index{kServiceIds[camera], 8, 1};
        FUZZ_CHECK(g_table.setCmdCb(&index, CmdCallback, &g_userData) == 0, "set callback failed");
        g_record[camera]->negParams = KxNegParams{};
    }
    // The doubles record every call; only the calls of one input matter.
    std::scoped_lock lock(FakeCamera()->mutex, FakeEncoder()->mutex);
    FakeCamera()->calls.clear();
    FakeEncoder()->calls.clear();
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    FUZZ_CHECK(FakeCamera() != nullptr && FakeEncoder() != nullptr, "vendor doubles not found");
    FakeCamera()->Reset();
    FakeEncoder()->Reset();
    SetVendorPath({kFakeCameraDir, kFakeEncoderDir});

    FUZZ_CHECK(TALVOGetCameraServiceHandler(&g_table) == 0, "no service table");
    static const KxServiceCallbacks callbacks{[](const KxServiceIdDesc *, const KxServiceOps *) { return 0; },
                                              [](const KxServiceIdDesc *) { return 0; }, nullptr};
    FUZZ_CHECK(g_table.loadService(&callbacks) == 0 && g_cameraModule.inited == 1, "service load failed");
    FUZZ_CHECK(g_table.setGlbCmdCb(nullptr, GlbCallback) == 0, "global callback refused");
    {
        std::lock_guard lock(FakeCamera()->mutex);
        g_listener = FakeCamera()->listener;
    }
    FUZZ_CHECK(g_listener.updateServiceStatus != nullptr && g_listener.updateServiceAction != nullptr,
               "the plugin registered no listener");
    for (uint32_t camera = 0; camera < kCameraCount; ++camera) {
        g_record[camera] = GetCameraHandlerById(kServiceIds[camera], 8);
        FUZZ_CHECK(g_record[camera] != nullptr, "camera %u not registered", camera);
    }
    // The frame callback is whatever the plugin hands the vendor at open.
    FUZZ_CHECK(Command(1, KX_CMD_OPEN) == 0, "open failed");
    {
        std::lock_guard lock(FakeCamera()->mutex);
        const auto found = FakeCamera()->frameCallbacks.find(kVendorIds[1]);
        g_frameCallback = found == FakeCamera()->frameCallbacks.end() ? nullptr : found->second;
    }
    FUZZ_CHECK(g_frameCallback != nullptr, "the plugin handed no frame callback to the vendor");
    FUZZ_CHECK(Command(1, KX_CMD_CLOSE) == 0, "close failed");
    g_allocBaseline = TalvoTestOutstandingAllocs();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    ResetCameras();
    FuzzInput in(data, size);
    for (size_t op = 0; op < kMaxOps && !in.Empty(); ++op) {
        const uint8_t code = in.U8() % 7;
        if (code == 0) {
            OpFrame(in);
        } else if (code == 1 || code == 2) {
            OpReport(in, code == 2);
        } else if (code == 3) {
            OpCallback(in);
        } else if (code == 4) {
            OpParams(in);
        } else {
            const uint32_t camera = in.U8() % kCameraCount;
            FUZZ_CHECK(Command(camera, code == 5 ? KX_CMD_OPEN : KX_CMD_CLOSE) == 0, "open or close failed");
        }
    }
    // Stopping the cameras stops their encoder threads, which release what
    // they still hold.
    for (uint32_t camera = 0; camera < kCameraCount; ++camera) {
        FUZZ_CHECK(Command(camera, KX_CMD_CLOSE) == 0, "close of camera %u failed", camera);
        FUZZ_CHECK(__atomic_load_n(&g_record[camera]->laneGate, __ATOMIC_ACQUIRE) == 0 &&
                       g_record[camera]->vencHandle == nullptr,
                   "camera %u keeps its encoder after close", camera);
    }
    DrainEvents();
    FUZZ_CHECK(FakeEncoder()->LiveInstances() == 0, "%zu encoder instances left", FakeEncoder()->LiveInstances());
    const int64_t outstanding = TalvoTestOutstandingAllocs();
    FUZZ_CHECK(outstanding == g_allocBaseline, "%lld framework blocks outstanding after the input, %lld before",
               static_cast<long long>(outstanding), static_cast<long long>(g_allocBaseline));
    return 0;
}
