// SPDX-License-Identifier: Apache-2.0
// Scriptable stand-in for the vendor video encoder library: the control
// record a test reaches through FakeEncoderGetControl().
#ifndef KXCAMERA_TESTS_FAKES_FAKE_ENCODER_H
#define KXCAMERA_TESTS_FAKES_FAKE_ENCODER_H

#include <array>
#include <cstdint>
#include <map>

#include "fake_common.h"
#include "kxcamera/video_encoder.h"

// Slot numbers of the video encoder table, for nullSlots.
enum FakeEncoderSlot : uint32_t {
    kEncGetAbility = 0,
    kEncCreate,
    kEncConfigure,
    kEncProcess,
    kEncDestroy,
    kEncSlotCount,
};

// How VideoEncoderProcess hands its bitstream over.
enum FakeEncoderOutputMode : uint32_t {
    kFakeOutputReturn = 0,     // fills the caller's output record
    kFakeOutputCallback,       // calls the output callback inside Process
    kFakeOutputCallbackThread, // calls it from a fake thread joined before Process returns
    kFakeOutputNone,           // hands nothing over
};

inline constexpr uint32_t kFakeMaxAbilities = 4;
inline constexpr uint32_t kFakeBitstreamHeader = 16;
inline constexpr uint32_t kFakeBitstreamInputBytes = 16;

// FNV-1a over every input byte, so that the whole lent frame is read.
inline uint32_t FakeHash(const uint8_t *data, uint32_t length)
{
    uint32_t hash = 2166136261u;
    for (uint32_t i = 0; data != nullptr && i < length; ++i) {
        hash = (hash ^ data[i]) * 16777619u;
    }
    return hash;
}

// The bitstream the fake produces for the counter-th frame (from 0) of an
// instance: "FKBS", then counter, length and FakeHash of the input (u32
// little-endian each), then the first kFakeBitstreamInputBytes input bytes.
inline std::vector<uint8_t> FakeEncoderBitstream(uint32_t counter, const uint8_t *data, uint32_t length)
{
    std::vector<uint8_t> bs = {'F', 'K', 'B', 'S'};
    for (uint32_t word : {counter, length, FakeHash(data, length)}) {
        for (int shift = 0; shift < 32; shift += 8) {
            bs.push_back(static_cast<uint8_t>(word >> shift));
        }
    }
    uint32_t copied = data == nullptr ? 0 : (length < kFakeBitstreamInputBytes ? length : kFakeBitstreamInputBytes);
    bs.insert(bs.end(), data, data + copied);
    return bs;
}

// One call into the fake; only the fields of the called slot are set.
struct FakeEncoderCall {
    std::string slot{}; // "TALVOGetVideoEncoderHandler", "VideoEncoderCreate", ...
    int32_t result = 0;
    // Configure, Process: the instance passed. Destroy: *handle on entry.
    // Create: what *handle held on return.
    void *handle = nullptr;
    bool handleKnown = false;         // handle named a live instance of the fake
    uint32_t capacity = 0;            // GetAbility
    KxVencCreateParams create{};      // Create
    KxVencConfigParams config{};      // Configure
    KxVencInputFrame input{};         // Process
    std::vector<uint8_t> inputHead{}; // Process: first inputCopyBytes of input.data
    uint32_t inputHash = 0;           // Process: FakeHash of all input.length bytes
    uint32_t flags = 0;               // Process
};

// One live encoder instance; its handle is never dereferenced by the fake.
struct FakeEncoderInstance {
    KxVencCreateParams params{};
    uint32_t frames = 0;          // Process calls so far
    std::vector<uint8_t> bitstream{}; // the last output, lent to the plugin
};

// What the fake does; Reset() brings every field back to these defaults.
struct FakeEncoderScript {
    int32_t getterResult = 0;
    uint32_t nullSlots = 0; // bit n: the getter leaves slot n null
    // GetAbility writes min(num, capacity) of these and that count.
    struct {
        // I420 only, 16 to 4096 in steps of 2, four instances, output returned.
        std::array<KxVencAbility, kFakeMaxAbilities> items{{{0, 1 << KX_CSP_I420, 4096, 4096, 16, 16, 2, 2, 1, 4, 0}}};
        uint32_t num = 1;
        int32_t status = 0;
    } ability;
    struct {
        int32_t create = 0; // a negative one creates nothing
        int32_t configure = 0;
        int32_t process = 0; // output is handed over whatever it is
        int32_t destroy = 0; // the instance is gone whatever it is
    } status;
    // A failing Create leaves *handle alone unless told what to write.
    bool writeHandleOnFailure = false;
    void *failedCreateHandle = nullptr;
    uint32_t inputCopyBytes = 64;
    FakeEncoderOutputMode outputMode = kFakeOutputReturn;
    uint32_t processDelayMs = 0; // a slow encoder: every Process takes at least this long
    // Handed over instead of the generated bitstream; the test owns bsBuf.
    struct {
        bool enabled = false;
        uint8_t *bsBuf = nullptr;
        int32_t bsLength = 0;
    } scriptedOutput;
};

// What the fake saw and kept.
struct FakeEncoderObserved {
    std::vector<FakeEncoderCall> calls;
    std::map<void *, FakeEncoderInstance> instances;
    uint32_t created = 0;
    uint32_t destroyed = 0;
};

struct FakeEncoderControl : FakeControl<FakeEncoderCall, FakeEncoderScript, FakeEncoderObserved> {
    size_t LiveInstances() const
    {
        std::lock_guard lock(mutex);
        return instances.size();
    }
};

#define FAKE_ENCODER_CONTROL_SYMBOL "FakeEncoderGetControl"

extern "C" FAKE_EXPORT FakeEncoderControl *FakeEncoderGetControl();

#endif // KXCAMERA_TESTS_FAKES_FAKE_ENCODER_H
