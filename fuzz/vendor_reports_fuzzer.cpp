// SPDX-License-Identifier: Apache-2.0
// What the vendor camera library sends, on a module loaded with the vendor
// doubles: frames through the frame callback the plugin handed to
// OpenCamera, and service status and service action reports through the
// listener it registered, mixed with the framework's commands that change how
// they are handled (callbacks, negotiated parameters, open, close).
//
// Each report is checked against what the framework must then see: a frame on
// the direct road reaches the camera's command callback once, intact; a
// camera state action becomes a state message; a status or a notification
// event becomes exactly one notification packet, byte for byte. Every block
// the plugin allocates must be handed over or released: after each input the
// cameras are closed, the event queue drained, and the framework heap must be
// back where it started, with no encoder instance left.
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
#include <condition_variable>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

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

constexpr int32_t kErrBadCamera = -2;
constexpr int32_t kErrInvalid = -5;
constexpr int32_t kErrMissing = -13;

constexpr uint32_t kStateOpened = 4;
constexpr uint32_t kStateClosed = 3;

// What the framework's callbacks saw, copied while they ran. The framework
// owns every unit and value text it is handed and frees them here.
struct CmdSeen {
    std::string identity;
    uint32_t identityLen = 0;
    uint32_t serviceType = 0;
    uint32_t code = 0;
    uint32_t outputLen = 0;
    uint32_t module = 0;
    uint32_t type = 0;
    std::string bytes; // frame data or value text
    int32_t streamType = 0;
    int32_t dataType = 0;
    void *userData = nullptr;
};

struct GlbSeen {
    uint32_t code = 0;
    uint32_t outputLen = 0;
    uint32_t module = 0;
    uint32_t type = 0;
    std::string packet;
};

class Framework {
public:
    static Framework &Get()
    {
        static Framework framework;
        return framework;
    }

    void Clear()
    {
        std::lock_guard lock(mutex_);
        cmd_.clear();
        glb_.clear();
    }
    // Camera messages other than bitstream units, which the encoder thread
    // sends at its own pace.
    std::vector<CmdSeen> Cmd() const
    {
        std::lock_guard lock(mutex_);
        return cmd_;
    }
    std::vector<GlbSeen> Glb() const
    {
        std::lock_guard lock(mutex_);
        return glb_;
    }

    static int32_t CmdCallback(const KxServiceIdDesc *identity, const KxCommand *message, void *userData)
    {
        FUZZ_CHECK(identity != nullptr && identity->id != nullptr && message != nullptr && message->output != nullptr,
                   "command callback without identity, message or payload");
        const auto *payload = static_cast<const KxCallbackPayload *>(message->output);
        CmdSeen seen;
        seen.identity.assign(identity->id, identity->idLen);
        seen.identityLen = identity->idLen;
        seen.serviceType = identity->serviceType;
        seen.code = message->code;
        seen.outputLen = message->outputLen;
        seen.module = payload->module;
        seen.type = payload->type;
        seen.userData = userData;
        switch (message->code) {
            case KX_MSG_CAMERA_FRAME:
            case KX_MSG_BITSTREAM: {
                auto *unit = static_cast<KxVideoAccessUnit *>(payload->data);
                FUZZ_CHECK(unit != nullptr && unit->data != nullptr && unit->length >= 0,
                           "message %u without a unit or its data", message->code);
                seen.bytes.assign(reinterpret_cast<const char *>(unit->data), static_cast<size_t>(unit->length));
                seen.streamType = unit->streamType;
                seen.dataType = unit->dataType;
                TalvoFree(unit->data);
                TalvoFree(unit);
                break;
            }
            case KX_MSG_BINARY_DATA:
                FUZZ_CHECK(payload->data != nullptr, "binary data without its text");
                seen.bytes.assign(static_cast<const char *>(payload->data), payload->len);
                TalvoFree(payload->data);
                break;
            default:
                break;
        }
        if (message->code == KX_MSG_BITSTREAM) {
            FUZZ_CHECK(seen.dataType == KX_VIDEO_DATA_TYPE && !seen.bytes.empty() && seen.serviceType == 1 &&
                           (seen.identity == kVendorIds[0] || seen.identity == kVendorIds[1]),
                       "bitstream unit: data type %d, %zu bytes, identity '%s'", seen.dataType, seen.bytes.size(),
                       seen.identity.c_str());
            return 0;
        }
        Framework &self = Get();
        std::lock_guard lock(self.mutex_);
        self.cmd_.push_back(std::move(seen));
        return 0;
    }

    // Stored by the getter entry and never called.
    static int32_t GetterCallback(const KxServiceIdDesc *, const KxCommand *message, void *)
    {
        FUZZ_CHECK(false, "the getter's callback was called with message %u", message == nullptr ? 0 : message->code);
        return 0;
    }

    static int32_t GlbCallback(const KxCommand *message)
    {
        FUZZ_CHECK(message != nullptr && message->output != nullptr, "global callback without message or payload");
        const auto *payload = static_cast<const KxCallbackPayload *>(message->output);
        GlbSeen seen{message->code, message->outputLen, payload->module, payload->type, {}};
        if (payload->data != nullptr) {
            seen.packet.assign(static_cast<const char *>(payload->data), payload->len);
        }
        Framework &self = Get();
        std::lock_guard lock(self.mutex_);
        self.glb_.push_back(std::move(seen));
        // The plugin must not care.
        return -1;
    }

private:
    mutable std::mutex mutex_;
    std::vector<CmdSeen> cmd_;
    std::vector<GlbSeen> glb_;
};

// Two distinct user data pointers the framework hands over.
int g_userData = 0;
int g_getterUserData = 0;

// The framework's view of each camera, as its own calls set it.
struct CameraModel {
    bool callbackSet = true;
    void *userData = &g_userData;
};

struct Harness {
    KxServiceHandler table{};
    KxServiceListener listener{};
    KxFrameCallback frameCallback = nullptr;
    std::string abilityText[kCameraCount];
    KxCameraService *record[kCameraCount] = {};
    int64_t allocBaseline = 0;
    CameraModel model[kCameraCount];
};

Harness g_h;

int32_t AddService(const KxServiceIdDesc *, const KxServiceOps *)
{
    return 0;
}

int32_t DeleteService(const KxServiceIdDesc *)
{
    return 0;
}

KxServiceIdDesc Descriptor(uint32_t camera)
{
    return KxServiceIdDesc{kServiceIds[camera], 8, 1};
}

int32_t Command(uint32_t camera, uint32_t code, void *input = nullptr, uint32_t inputLen = 0)
{
    const KxServiceIdDesc index = Descriptor(camera);
    KxCommand command{};
    command.code = code;
    command.input = input;
    command.inputLen = inputLen;
    return g_h.table.setCommand(&index, &command);
}

// Returns once the module event queue has run every event posted before: it
// runs them one at a time in post order.
void DrainEvents()
{
    struct Marker {
        std::mutex mutex;
        std::condition_variable ran;
        bool done = false;
    } marker;
    auto run = [](uint32_t, void *raw) -> int32_t {
        auto *m = static_cast<Marker *>(raw);
        std::lock_guard lock(m->mutex);
        m->done = true;
        m->ran.notify_all();
        return 0;
    };
    FUZZ_CHECK(TALVOEventsCall(g_cameraModule.eventsHandle, run, 0, &marker, nullptr) == 0,
               "the module event queue refused the drain marker");
    std::unique_lock lock(marker.mutex);
    marker.ran.wait(lock, [&marker] { return marker.done; });
}

std::string BigEndian(uint32_t value)
{
    const char bytes[4] = {static_cast<char>(value >> 24), static_cast<char>(value >> 16),
                           static_cast<char>(value >> 8), static_cast<char>(value)};
    return std::string(bytes, 4);
}

// The notification packet for one camera, field by field.
std::string ExpectedPacket(uint32_t camera, uint32_t event)
{
    std::string packet = BigEndian(8) + kServiceIds[camera] + BigEndian(event);
    if (event == 201) {
        packet += BigEndian(static_cast<uint32_t>(g_h.abilityText[camera].size())) + g_h.abilityText[camera];
    }
    return packet;
}

// The camera whose vendor id is exactly this text.
std::optional<uint32_t> CameraOf(const char *text)
{
    for (uint32_t camera = 0; camera < kCameraCount; ++camera) {
        if (std::strcmp(text, kVendorIds[camera]) == 0) {
            return camera;
        }
    }
    return std::nullopt;
}

// An encoder thread takes and releases blocks at its own pace; the heap can
// be compared across one report only while none runs.
bool HeapSettled()
{
    for (const KxCameraService *record : g_h.record) {
        if (__atomic_load_n(&record->laneGate, __ATOMIC_ACQUIRE) != 0) {
            return false;
        }
    }
    return true;
}

// The heap is where it was before the report, when that can be told.
void CheckHeapBack(int64_t before, const char *what)
{
    if (HeapSettled()) {
        FUZZ_CHECK(TalvoTestOutstandingAllocs() == before, "%s left blocks behind", what);
    }
}

// A vendor id as the listener gets it: a block of exactly idLen bytes, no terminator.
struct VendorId {
    std::unique_ptr<char[]> block;
    const char *id = nullptr;
    uint32_t idLen = 0;

    // The id as the plugin's copy reads it: up to idLen bytes, up to a NUL.
    std::string Text() const { return id == nullptr ? std::string() : std::string(id, strnlen(id, idLen)); }
    bool HasNul() const { return id != nullptr && strnlen(id, idLen) != idLen; }
};

VendorId ReadVendorId(FuzzInput &in)
{
    VendorId out;
    const uint8_t kind = in.U8() % 4;
    if (kind == 3) {
        out.idLen = in.U8();
        return out;
    }
    std::vector<uint8_t> bytes;
    if (kind == 2) {
        bytes = in.Bytes(in.U8() % 70);
    } else {
        bytes.push_back(static_cast<uint8_t>(kVendorIds[kind][0]));
    }
    out.block = std::make_unique<char[]>(bytes.size());
    std::copy(bytes.begin(), bytes.end(), out.block.get());
    out.id = out.block.get();
    out.idLen = static_cast<uint32_t>(bytes.size());
    return out;
}

void CheckStateMessage(const CmdSeen &m, uint32_t camera, uint32_t state)
{
    FUZZ_CHECK(m.code == KX_MSG_CAMERA_STATE && m.outputLen == KX_STATE_PAYLOAD_LEN && m.type == state &&
                   m.module == 0 && m.identity == kVendorIds[camera] && m.identityLen == 1 && m.serviceType == 1 &&
                   m.userData == g_h.model[camera].userData,
               "state message code %u len %u state %u (want %u) module %u identity '%s'", m.code, m.outputLen, m.type,
               state, m.module, m.identity.c_str());
}

void CheckBinaryMessage(const CmdSeen &m, uint32_t camera, uint32_t type, const char *value)
{
    FUZZ_CHECK(m.code == KX_MSG_BINARY_DATA && m.outputLen == KX_STATE_PAYLOAD_LEN && m.type == type &&
                   m.module == 6 && m.bytes == value && m.identity == kVendorIds[camera] &&
                   m.userData == g_h.model[camera].userData,
               "binary message code %u len %u type %u (want %u) module %u value '%s' (want '%s')", m.code,
               m.outputLen, m.type, type, m.module, m.bytes.c_str(), value);
}

void CheckNotification(const GlbSeen &m, const std::string &packet)
{
    FUZZ_CHECK(m.code == KX_MSG_DEVICE_NOTIFY && m.outputLen == sizeof(KxCallbackPayload) && m.module == 3 &&
                   m.type == 1 && m.packet == packet,
               "notification code %u len %u module %u type %u, packet of %zu bytes (want %zu)", m.code, m.outputLen,
               m.module, m.type, m.packet.size(), packet.size());
}

void OpFrame(FuzzInput &in)
{
    const uint8_t sender = in.U8() % 4;
    std::unique_ptr<char[]> idBlock;
    const char *id = nullptr;
    if (sender < kCameraCount) {
        id = kVendorIds[sender];
    } else if (sender == 2) {
        const std::vector<uint8_t> bytes = in.Bytes(in.U8() % 70);
        idBlock = std::make_unique<char[]>(bytes.size() + 1);
        std::copy(bytes.begin(), bytes.end(), idBlock.get());
        idBlock[bytes.size()] = '\0';
        id = idBlock.get();
    }
    // The road: bytes from the input, no data, or a length over the limit.
    const uint8_t mode = in.U8() % 3;
    std::unique_ptr<uint8_t[]> block;
    uint32_t length = 0;
    if (mode == 0) {
        const std::vector<uint8_t> bytes = in.Bytes(in.U16());
        block = std::make_unique<uint8_t[]>(bytes.size());
        std::copy(bytes.begin(), bytes.end(), block.get());
        length = static_cast<uint32_t>(bytes.size());
    } else if (mode == 1) {
        length = in.U32();
    } else {
        block = std::make_unique<uint8_t[]>(1);
        length = kMaxVideoData + 1 + in.U16();
    }

    const int64_t allocsBefore = TalvoTestOutstandingAllocs();
    const size_t seenBefore = Framework::Get().Cmd().size();
    const uint32_t idLen = id == nullptr ? 0 : static_cast<uint32_t>(std::strlen(id));
    const int32_t rc = g_h.frameCallback(id, idLen, block.get(), length);
    const std::vector<CmdSeen> seen = Framework::Get().Cmd();

    const std::optional<uint32_t> camera = id == nullptr ? std::nullopt : CameraOf(id);
    if (id == nullptr || block == nullptr || length > kMaxVideoData || !camera) {
        FUZZ_CHECK(rc == kErrInvalid, "frame refused with %d, want -5", rc);
        CheckHeapBack(allocsBefore, "a refused frame");
        FUZZ_CHECK(seen.size() == seenBefore, "a refused frame reached the framework");
        return;
    }
    FUZZ_CHECK(rc == 0, "frame of camera %u: rc %d", *camera, rc);
    const KxCameraService *record = g_h.record[*camera];
    const int32_t codecType = __atomic_load_n(&record->negParams.codecType, __ATOMIC_RELAXED);
    if (codecType == 0) {
        FUZZ_CHECK(seen.size() == seenBefore, "a raw frame was handed to the framework directly");
        // Without an encoder thread the frame has nowhere to go but back.
        CheckHeapBack(allocsBefore, "a raw frame without encoder thread");
        return;
    }
    CheckHeapBack(allocsBefore, "an encoded frame neither handed over nor released");
    if (!g_h.model[*camera].callbackSet) {
        FUZZ_CHECK(seen.size() == seenBefore, "a frame reached a camera without command callback");
        return;
    }
    FUZZ_CHECK(seen.size() == seenBefore + 1, "%zu messages for one frame", seen.size() - seenBefore);
    const CmdSeen &m = seen.back();
    FUZZ_CHECK(m.code == KX_MSG_CAMERA_FRAME && m.outputLen == sizeof(KxCallbackPayload) &&
                   m.identity == kServiceIds[*camera] && m.identityLen == 8 && m.serviceType == 1 && m.module == 0 &&
                   m.type == 0 && m.userData == g_h.model[*camera].userData,
               "frame message code %u len %u identity '%s'/%u", m.code, m.outputLen, m.identity.c_str(),
               m.identityLen);
    FUZZ_CHECK(m.streamType == codecType && m.dataType == KX_VIDEO_DATA_TYPE,
               "unit stream type %d (want %d) data type %d", m.streamType, codecType, m.dataType);
    FUZZ_CHECK(m.bytes.size() == length && std::memcmp(m.bytes.data(), block.get(), length) == 0,
               "unit of %zu bytes differs from the %u bytes delivered", m.bytes.size(), length);
}

// After a report is handled: the notification it must produce, if any.
void CheckNotifications(size_t glbBefore, std::optional<uint32_t> camera, uint32_t event)
{
    const std::vector<GlbSeen> glb = Framework::Get().Glb();
    const bool sent = camera && (event == 201 || event == 205 || event == 208);
    FUZZ_CHECK(glb.size() == glbBefore + (sent ? 1 : 0), "%zu notifications for event %u, want %d",
               glb.size() - glbBefore, event, sent ? 1 : 0);
    if (sent) {
        CheckNotification(glb.back(), ExpectedPacket(*camera, event));
    }
}

void OpStatus(FuzzInput &in)
{
    const VendorId vendor = ReadVendorId(in);
    const uint8_t code = in.U8();
    const uint32_t status = code < 0xf0 ? code % 4 : in.U32();

    const int64_t allocsBefore = TalvoTestOutstandingAllocs();
    const size_t cmdBefore = Framework::Get().Cmd().size();
    const size_t glbBefore = Framework::Get().Glb().size();
    const int32_t rc = g_h.listener.updateServiceStatus(vendor.id, vendor.idLen, status);
    const bool accepted = vendor.id != nullptr && vendor.idLen != 0 && (status == 1 || status == 2);
    FUZZ_CHECK(rc == (accepted ? 0 : kErrBadCamera), "status %u: rc %d", status, rc);
    DrainEvents();
    CheckHeapBack(allocsBefore, "a status report");
    FUZZ_CHECK(Framework::Get().Cmd().size() == cmdBefore, "a status report sent a camera message");
    // The notification names the camera by the id text up to its first NUL.
    CheckNotifications(glbBefore, accepted ? CameraOf(vendor.Text().c_str()) : std::nullopt, status == 1 ? 201 : 208);
}

void OpAction(FuzzInput &in)
{
    const VendorId vendor = ReadVendorId(in);
    const uint8_t code = in.U8();
    const uint32_t type = code < 0xf0 ? code % 9 : in.U32();
    const uint8_t flags = in.U8();
    const std::vector<uint8_t> value = in.Bytes(in.U8() % 24);
    // Exactly valueLen bytes: the record carries a length, not a terminator.
    auto valueBlock = std::make_unique<char[]>(value.size());
    std::copy(value.begin(), value.end(), valueBlock.get());
    KxServiceAction action{};
    action.type = type;
    action.value = (flags & 1) != 0 ? nullptr : valueBlock.get();
    action.valueLen = static_cast<uint32_t>(value.size());

    const int64_t allocsBefore = TalvoTestOutstandingAllocs();
    const size_t cmdBefore = Framework::Get().Cmd().size();
    const size_t glbBefore = Framework::Get().Glb().size();
    const int32_t rc = g_h.listener.updateServiceAction(vendor.id, vendor.idLen, &action);
    int32_t want = 0;
    if (action.valueLen > 16) {
        want = kErrInvalid;
    } else if (vendor.id == nullptr) {
        want = kErrMissing;
    }
    FUZZ_CHECK(rc == want, "action type %u value length %u: rc %d, want %d", type, action.valueLen, rc, want);
    DrainEvents();
    CheckHeapBack(allocsBefore, "an action report");

    const bool posted = rc == 0 && type == 7;
    // The value as its length bounds it.
    const std::string valueText =
        action.value == nullptr ? std::string() : std::string(action.value, strnlen(action.value, action.valueLen));
    const auto event = static_cast<uint32_t>(TalvoAtoi(valueText.c_str()));
    // The state report needs the whole id; the notification reads it as text.
    const std::optional<uint32_t> exact = posted && !vendor.HasNul() ? CameraOf(vendor.Text().c_str()) : std::nullopt;
    const std::vector<CmdSeen> cmd = Framework::Get().Cmd();
    const bool reported = exact && g_h.model[*exact].callbackSet;
    FUZZ_CHECK(cmd.size() == cmdBefore + (reported ? 1 : 0), "%zu camera messages for an action, want %d",
               cmd.size() - cmdBefore, reported ? 1 : 0);
    if (reported) {
        CheckStateMessage(cmd.back(), *exact, event);
    }
    CheckNotifications(glbBefore, posted ? CameraOf(vendor.Text().c_str()) : std::nullopt, event);
}

void OpCallback(FuzzInput &in)
{
    const uint32_t camera = in.U8() % kCameraCount;
    const uint8_t mode = in.U8() % 3;
    const KxServiceIdDesc index = Descriptor(camera);
    CameraModel &model = g_h.model[camera];
    int32_t rc = 0;
    if (mode == 0) {
        rc = g_h.table.setCmdCb(&index, Framework::CmdCallback, &g_userData);
        model = {true, &g_userData};
    } else if (mode == 1) {
        rc = g_h.table.setCmdCb(&index, nullptr, &g_userData);
        model = {false, &g_userData};
    } else {
        // The getter's entry replaces the user data, not the callback.
        rc = g_h.table.getCmdCb(&index, Framework::GetterCallback, &g_getterUserData);
        model.userData = &g_getterUserData;
    }
    FUZZ_CHECK(rc == 0, "callback entry %u of camera %u: rc %d", mode, camera, rc);
}

// Sides whose products overflow 32 bits, or nearly, or are odd or empty.
constexpr int64_t kHostileSizes[] = {0,     1,     2,     64,         48,         46340,     46342,
                                     32768, 65536, 65537, 2147483646, 2147483647, -2,        -2147483648};

void OpParams(FuzzInput &in)
{
    const uint32_t camera = in.U8() % kCameraCount;
    const uint8_t kind = in.U8() % 4;
    std::string text;
    if (kind == 0) {
        const auto codec = static_cast<int8_t>(in.U8());
        const uint32_t width = in.U8() * 2u;
        const uint32_t height = in.U8() * 2u;
        const uint8_t colour = in.U8();
        text = "{\"Width\":" + std::to_string(width) + ",\"Height\":" + std::to_string(height) +
               ",\"ColorFormat\":" + std::to_string(colour) + ",\"CodecType\":" + std::to_string(codec) + "}";
    } else if (kind == 1) {
        text = "{\"Fps\":" + std::to_string(in.U8()) + "}";
    } else if (kind == 3) {
        const int64_t width = kHostileSizes[in.U8() % std::size(kHostileSizes)];
        const int64_t height = kHostileSizes[in.U8() % std::size(kHostileSizes)];
        text = "{\"Width\":" + std::to_string(width) + ",\"Height\":" + std::to_string(height) + "}";
    } else {
        const std::vector<uint8_t> bytes = in.Bytes(in.U8());
        text.assign(bytes.begin(), bytes.end());
    }
    KxSetParamsInput input{};
    input.para = text.c_str();
    (void)Command(camera, KX_CMD_SET_PARAMS, &input, sizeof(input));
    // Every encoder instance belongs to a record: none is orphaned by a
    // replaced or failed set-up.
    uint32_t held = 0;
    for (const KxCameraService *record : g_h.record) {
        held += record->vencHandle != nullptr ? 1 : 0;
    }
    FUZZ_CHECK(FakeEncoder()->LiveInstances() == held, "%zu encoder instances, records hold %u",
               FakeEncoder()->LiveInstances(), held);
}

void OpOpen(FuzzInput &in)
{
    const uint32_t camera = in.U8() % kCameraCount;
    const size_t before = Framework::Get().Cmd().size();
    FUZZ_CHECK(Command(camera, KX_CMD_OPEN) == 0, "open of camera %u failed", camera);
    const std::vector<CmdSeen> seen = Framework::Get().Cmd();
    if (!g_h.model[camera].callbackSet) {
        FUZZ_CHECK(seen.size() == before, "an open reported to a camera without command callback");
        return;
    }
    FUZZ_CHECK(seen.size() == before + 3, "open sent %zu messages, want 3", seen.size() - before);
    CheckStateMessage(seen[before], camera, kStateOpened);
    CheckBinaryMessage(seen[before + 1], camera, 1, "1");
    CheckBinaryMessage(seen[before + 2], camera, 2, "270");
}

void OpClose(uint32_t camera)
{
    const bool wasOpened = g_h.record[camera]->isOpened == 1;
    const size_t before = Framework::Get().Cmd().size();
    FUZZ_CHECK(Command(camera, KX_CMD_CLOSE) == 0, "close of camera %u failed", camera);
    const std::vector<CmdSeen> seen = Framework::Get().Cmd();
    const bool reported = wasOpened && g_h.model[camera].callbackSet;
    FUZZ_CHECK(seen.size() == before + (reported ? 2 : 0), "close sent %zu messages", seen.size() - before);
    if (reported) {
        CheckStateMessage(seen[before], camera, kStateClosed);
        CheckBinaryMessage(seen[before + 1], camera, 1, "-1");
    }
}

// Back to the state after loading: callbacks set, nothing negotiated.
void ResetCameras()
{
    for (uint32_t camera = 0; camera < kCameraCount; ++camera) {
        const KxServiceIdDesc index = Descriptor(camera);
        FUZZ_CHECK(g_h.table.setCmdCb(&index, Framework::CmdCallback, &g_userData) == 0, "set callback failed");
        g_h.model[camera] = CameraModel{};
        g_h.record[camera]->negParams = KxNegParams{};
    }
    // The doubles record every call; only the calls of one input matter.
    {
        std::lock_guard lock(FakeCamera()->mutex);
        FakeCamera()->calls.clear();
    }
    {
        std::lock_guard lock(FakeEncoder()->mutex);
        FakeEncoder()->calls.clear();
    }
    Framework::Get().Clear();
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    QuietPluginLog();
    FUZZ_CHECK(FakeCamera() != nullptr && FakeEncoder() != nullptr, "vendor doubles not found");
    FakeCamera()->Reset();
    FakeEncoder()->Reset();
    SetVendorPath({kFakeCameraDir, kFakeEncoderDir});

    FUZZ_CHECK(TALVOGetCameraServiceHandler(&g_h.table) == 0, "no service table");
    static const KxServiceCallbacks callbacks{AddService, DeleteService, nullptr};
    FUZZ_CHECK(g_h.table.loadService(&callbacks) == 0 && g_cameraModule.inited == 1, "service load failed");
    FUZZ_CHECK(g_h.table.setGlbCmdCb(nullptr, Framework::GlbCallback) == 0, "global callback refused");
    {
        std::lock_guard lock(FakeCamera()->mutex);
        g_h.listener = FakeCamera()->listener;
    }
    FUZZ_CHECK(g_h.listener.updateServiceStatus != nullptr && g_h.listener.updateServiceAction != nullptr,
               "the plugin registered no listener");
    for (uint32_t camera = 0; camera < kCameraCount; ++camera) {
        g_h.record[camera] = GetCameraHandlerById(kServiceIds[camera], 8);
        FUZZ_CHECK(g_h.record[camera] != nullptr, "camera %u not registered", camera);
        const KxServiceIdDesc index = Descriptor(camera);
        KxCommand query{};
        query.code = KX_CMD_GET_ABILITY;
        FUZZ_CHECK(g_h.table.setCommand(&index, &query) == 0, "ability query failed");
        g_h.abilityText[camera] = static_cast<const KxAbilityInfo *>(query.output)->ability;
    }
    // The frame callback is whatever the plugin hands the vendor at open.
    FUZZ_CHECK(Command(1, KX_CMD_OPEN) == 0, "open failed");
    {
        std::lock_guard lock(FakeCamera()->mutex);
        const auto found = FakeCamera()->frameCallbacks.find(kVendorIds[1]);
        g_h.frameCallback = found == FakeCamera()->frameCallbacks.end() ? nullptr : found->second;
    }
    FUZZ_CHECK(g_h.frameCallback != nullptr, "the plugin handed no frame callback to the vendor");
    FUZZ_CHECK(Command(1, KX_CMD_CLOSE) == 0, "close failed");
    g_h.allocBaseline = TalvoTestOutstandingAllocs();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    ResetCameras();
    FuzzInput in(data, size);
    for (size_t op = 0; op < kMaxOps && !in.Empty(); ++op) {
        switch (in.U8() % 7) {
            case 0:
                OpFrame(in);
                break;
            case 1:
                OpStatus(in);
                break;
            case 2:
                OpAction(in);
                break;
            case 3:
                OpCallback(in);
                break;
            case 4:
                OpParams(in);
                break;
            case 5:
                OpOpen(in);
                break;
            default:
                OpClose(in.U8() % kCameraCount);
                break;
        }
    }
    // Stopping the cameras stops their encoder threads, which release what
    // they still hold.
    for (uint32_t camera = 0; camera < kCameraCount; ++camera) {
        OpClose(camera);
        FUZZ_CHECK(__atomic_load_n(&g_h.record[camera]->laneGate, __ATOMIC_ACQUIRE) == 0 &&
                       g_h.record[camera]->vencHandle == nullptr,
                   "camera %u keeps its encoder after close", camera);
    }
    DrainEvents();
    FUZZ_CHECK(FakeEncoder()->LiveInstances() == 0, "%zu encoder instances left", FakeEncoder()->LiveInstances());
    const int64_t outstanding = TalvoTestOutstandingAllocs();
    FUZZ_CHECK(outstanding == g_h.allocBaseline, "%lld framework blocks outstanding after the input, %lld before",
               static_cast<long long>(outstanding), static_cast<long long>(g_h.allocBaseline));
    return 0;
}
