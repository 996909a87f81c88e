// SPDX-License-Identifier: Apache-2.0
// Scriptable stand-in for the vendor video encoder library: the control
// record a test reaches through FakeEncoderGetControl().
#ifndef KXCAMERA_TESTS_FAKES_FAKE_ENCODER_H
#define KXCAMERA_TESTS_FAKES_FAKE_ENCODER_H

#include <cstdint>
#include <map>

#include "fake_common.h"
#include "kxcamera/video_encoder.h"

// How VideoEncoderProcess hands its bitstream over.
enum FakeEncoderOutputMode : uint32_t {
    kFakeOutputReturn = 0,     // fills the caller's output record
    kFakeOutputCallback,       // calls the output callback inside Process
    kFakeOutputCallbackThread, // calls it from a fake thread joined before Process returns
};

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
};

// One live encoder instance; its handle is never dereferenced by the fake.
struct FakeEncoderInstance {
    KxVencCreateParams params{};
    uint32_t frames = 0;              // Process calls so far
    std::vector<uint8_t> bitstream{}; // the last output, lent to the plugin
};

// What the fake does; Reset() brings every field back to these defaults.
struct FakeEncoderScript {
    int32_t getterResult = 0;
    FakeEncoderOutputMode outputMode = kFakeOutputReturn;
    uint32_t processDelayMs = 0; // a slow encoder: every Process takes at least this long
};

// What the fake saw and kept.
struct FakeEncoderObserved {
    std::vector<FakeEncoderCall> calls;
    std::map<void *, FakeEncoderInstance> instances;
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
