// SPDX-License-Identifier: Apache-2.0
// Test double of the vendor video encoder library: records every call,
// hands out opaque instances and produces a bitstream derived from the input.
#include "fake_encoder.h"

#include <algorithm>
#include <chrono>
#include <thread>
#include <utility>

namespace {

// Static, not heap: a library unloaded by its last user takes its state along.
FakeEncoderControl &Control()
{
    static FakeEncoderControl control;
    return control;
}

// Handles are made-up addresses that are never reused, so a stale handle
// can never alias a newer instance.
void *NextHandle()
{
    static uintptr_t serial = 0;
    return reinterpret_cast<void *>(uintptr_t{0x7ace0000} + (++serial) * 16);
}

// I420 only, 16 to 4096 in steps of 2, four instances, output returned.
constexpr KxVencAbility kAbility{0, 1 << KX_CSP_I420, 4096, 4096, 16, 16, 2, 2, 1, 4, 0};

int32_t GetAbility(KxVencAbility *abilities, uint32_t capacity, uint32_t *num)
{
    return Control().Record({.slot = "VideoEncoderGetAbility"}, [=](FakeEncoderCall &) {
        if (abilities == nullptr || num == nullptr) {
            return kFakeBadArgument;
        }
        *num = std::min(capacity, 1u);
        std::fill_n(abilities, *num, kAbility);
        return 0;
    });
}

int32_t Create(void **handle, const KxVencCreateParams *params)
{
    return Control().Record({.slot = "VideoEncoderCreate"}, [=](FakeEncoderCall &c) {
        if (handle == nullptr || params == nullptr) {
            return kFakeBadArgument;
        }
        c.handle = *handle = NextHandle();
        Control().instances[*handle] = FakeEncoderInstance{.params = *params};
        return 0;
    });
}

int32_t Configure(void *handle, const KxVencConfigParams *params)
{
    return Control().Record({.slot = "VideoEncoderConfigure", .handle = handle}, [=](FakeEncoderCall &) {
        return params == nullptr || Control().instances.count(handle) == 0 ? kFakeBadArgument : 0;
    });
}

int32_t Process(void *handle, const KxVencInputFrame *input, uint32_t flags, KxVencOutput *output)
{
    FakeEncoderCall call{.slot = "VideoEncoderProcess", .handle = handle, .flags = flags};
    std::unique_lock lock(Control().mutex);
    auto it = Control().instances.find(handle);
    call.result = input == nullptr || output == nullptr || it == Control().instances.end() ? kFakeBadArgument : 0;
    Control().calls.push_back(call);
    if (call.result != 0) {
        return call.result;
    }
    FakeEncoderInstance &instance = it->second;
    instance.bitstream = FakeEncoderBitstream(instance.frames++, input->data, input->length);
    KxVencOutput out{instance.bitstream.data(), static_cast<int32_t>(instance.bitstream.size()), 0, input->timeStamp};
    const FakeEncoderOutputMode mode = Control().outputMode;
    const auto delay = std::chrono::milliseconds(Control().processDelayMs);
    KxVencOutputCallback callback = instance.params.outputCallback;
    void *privateData = instance.params.privateData;
    lock.unlock();
    std::this_thread::sleep_for(delay);

    // The plugin's callback may take its own locks: never call it with ours held.
    switch (mode) {
    case kFakeOutputReturn:
        *output = out;
        break;
    case kFakeOutputCallback:
    case kFakeOutputCallbackThread:
        if (callback != nullptr) {
            FakeDeliver(mode == kFakeOutputCallback ? kFakeOnCaller : kFakeOnVendorThread, [&] {
                callback(&out, privateData);
                return 0;
            });
        }
        break;
    case kFakeOutputNone:
        break;
    }
    return 0;
}

int32_t Destroy(void **handle)
{
    return Control().Record({.slot = "VideoEncoderDestroy"}, [=](FakeEncoderCall &c) {
        if (handle == nullptr || *handle == nullptr) {
            return handle == nullptr ? kFakeBadArgument : 0;
        }
        c.handle = std::exchange(*handle, nullptr);
        const bool known = Control().instances.erase(c.handle) != 0;
        Control().destroyed += known ? 1 : 0;
        return known ? 0 : kFakeBadArgument;
    });
}

// The build without a getter leaves the table unused.
[[maybe_unused]] constexpr KxVideoEncoderHandler kTable = {
    .VideoEncoderGetAbility = GetAbility,
    .VideoEncoderCreate = Create,
    .VideoEncoderConfigure = Configure,
    .VideoEncoderProcess = Process,
    .VideoEncoderDestroy = Destroy,
};

void Reset()
{
    std::lock_guard lock(Control().mutex);
    static_cast<FakeEncoderScript &>(Control()) = FakeEncoderScript();
    static_cast<FakeEncoderObserved &>(Control()) = FakeEncoderObserved();
}

struct Init {
    Init() { Control().reset = Reset; }
} g_init;

} // namespace

extern "C" FAKE_EXPORT FakeEncoderControl *FakeEncoderGetControl()
{
    return &Control();
}

#ifndef FAKE_OMIT_GETTER
extern "C" FAKE_EXPORT int32_t TALVOGetVideoEncoderHandler(KxVideoEncoderHandler *handler)
{
    return Control().Getter(KX_VIDEO_ENCODER_GETTER, handler, kTable);
}
#endif
