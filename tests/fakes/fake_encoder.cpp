// SPDX-License-Identifier: Apache-2.0
// Test double of the vendor video encoder library: records every call,
// hands out opaque instances and produces a bitstream derived from the input.
#include "fake_encoder.h"

#include <algorithm>
#include <cstring>
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

int32_t GetAbility(KxVencAbility *abilities, uint32_t capacity, uint32_t *num)
{
    return Control().Record({.slot = "VideoEncoderGetAbility", .capacity = capacity}, [=](FakeEncoderCall &) {
        if (abilities == nullptr || num == nullptr) {
            return kFakeBadArgument;
        }
        *num = std::min({Control().ability.num, capacity, kFakeMaxAbilities});
        std::copy_n(Control().ability.items.begin(), *num, abilities);
        return Control().ability.status;
    });
}

int32_t Create(void **handle, const KxVencCreateParams *params)
{
    FakeEncoderCall call{.slot = "VideoEncoderCreate"};
    call.create = params == nullptr ? KxVencCreateParams{} : *params;
    return Control().Record(call, [=](FakeEncoderCall &c) {
        if (handle == nullptr || params == nullptr) {
            return kFakeBadArgument;
        }
        if (Control().status.create >= 0) {
            *handle = NextHandle();
            Control().instances[*handle] = FakeEncoderInstance{.params = *params};
            ++Control().created;
            c.handleKnown = true;
        } else if (Control().writeHandleOnFailure) {
            *handle = Control().failedCreateHandle;
        }
        c.handle = *handle;
        return Control().status.create;
    });
}

int32_t Configure(void *handle, const KxVencConfigParams *params)
{
    FakeEncoderCall call{.slot = "VideoEncoderConfigure", .handle = handle};
    call.config = params == nullptr ? KxVencConfigParams{} : *params;
    return Control().Record(call, [=](FakeEncoderCall &c) {
        c.handleKnown = Control().instances.count(handle) != 0;
        return params == nullptr || !c.handleKnown ? kFakeBadArgument : Control().status.configure;
    });
}

int32_t Process(void *handle, const KxVencInputFrame *input, uint32_t flags, KxVencOutput *output)
{
    FakeEncoderCall call{.slot = "VideoEncoderProcess", .handle = handle, .flags = flags};
    std::unique_lock lock(Control().mutex);
    if (input != nullptr) {
        call.input = *input;
        call.inputHash = FakeHash(input->data, input->length);
        const uint32_t head = input->data == nullptr ? 0 : std::min(input->length, Control().inputCopyBytes);
        call.inputHead.assign(input->data, input->data + head);
    }
    auto it = Control().instances.find(handle);
    call.handleKnown = it != Control().instances.end();
    if (input == nullptr || output == nullptr || !call.handleKnown) {
        call.result = kFakeBadArgument;
        Control().calls.push_back(call);
        return call.result;
    }
    call.result = Control().status.process;

    FakeEncoderInstance &instance = it->second;
    instance.bitstream = FakeEncoderBitstream(instance.frames++, input->data, input->length);
    KxVencOutput out{instance.bitstream.data(), static_cast<int32_t>(instance.bitstream.size()), 0,
                     input->timeStamp};
    if (Control().scriptedOutput.enabled) {
        out.bsBuf = Control().scriptedOutput.bsBuf;
        out.bsLength = Control().scriptedOutput.bsLength;
    }
    const FakeEncoderOutputMode mode = Control().outputMode;
    const auto delay = std::chrono::milliseconds(Control().processDelayMs);
    KxVencOutputCallback callback = instance.params.outputCallback;
    void *privateData = instance.params.privateData;
    Control().calls.push_back(call);
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
    return call.result;
}

int32_t Destroy(void **handle)
{
    return Control().Record({.slot = "VideoEncoderDestroy"}, [=](FakeEncoderCall &c) {
        if (handle == nullptr || *handle == nullptr) {
            return handle == nullptr ? kFakeBadArgument : 0;
        }
        c.handle = std::exchange(*handle, nullptr);
        c.handleKnown = Control().instances.erase(c.handle) != 0;
        Control().destroyed += c.handleKnown ? 1 : 0;
        return c.handleKnown ? Control().status.destroy : kFakeBadArgument;
    });
}

constexpr KxVideoEncoderHandler kTable = {
    .VideoEncoderGetAbility = GetAbility,
    .VideoEncoderCreate = Create,
    .VideoEncoderConfigure = Configure,
    .VideoEncoderProcess = Process,
    .VideoEncoderDestroy = Destroy,
};
static_assert(sizeof(kTable) / sizeof(void (*)()) == kEncSlotCount, "the encoder handler has five slots");

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
