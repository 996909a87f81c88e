// SPDX-License-Identifier: Apache-2.0
// Test double of the vendor video encoder library: records every call,
// hands out opaque instances and produces a bitstream derived from the input.
#include "fake_encoder.h"

#include <algorithm>
#include <cstring>
#include <chrono>
#include <thread>

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
    FakeEncoderCall call{.slot = "VideoEncoderGetAbility"};
    call.capacity = capacity;
    call.argNull = abilities == nullptr || num == nullptr;
    std::lock_guard lock(Control().mutex);
    call.result = call.argNull ? kFakeBadArgument : Control().ability.status;
    if (!call.argNull) {
        uint32_t count = std::min({Control().ability.num, capacity, kFakeMaxAbilities});
        std::copy_n(Control().ability.items.begin(), count, abilities);
        *num = count;
    }
    Control().calls.push_back(call);
    return call.result;
}

int32_t Create(void **handle, const KxVencCreateParams *params)
{
    FakeEncoderCall call{.slot = "VideoEncoderCreate"};
    call.argNull = handle == nullptr || params == nullptr;
    if (params != nullptr) {
        call.create = *params;
    }
    std::lock_guard lock(Control().mutex);
    call.result = call.argNull ? kFakeBadArgument : Control().status.create;
    if (!call.argNull) {
        if (call.result >= 0) {
            *handle = NextHandle();
            Control().instances[*handle] = FakeEncoderInstance{.params = *params};
            ++Control().created;
            call.handleKnown = true;
        } else if (Control().writeHandleOnFailure) {
            *handle = Control().failedCreateHandle;
        }
        call.handle = *handle;
    }
    Control().calls.push_back(call);
    return call.result;
}

int32_t Configure(void *handle, const KxVencConfigParams *params)
{
    FakeEncoderCall call{.slot = "VideoEncoderConfigure"};
    call.handle = handle;
    call.argNull = params == nullptr;
    if (params != nullptr) {
        call.config = *params;
    }
    std::lock_guard lock(Control().mutex);
    call.handleKnown = Control().instances.count(handle) != 0;
    call.result = call.argNull || !call.handleKnown ? kFakeBadArgument : Control().status.configure;
    Control().calls.push_back(call);
    return call.result;
}

int32_t Process(void *handle, const KxVencInputFrame *input, uint32_t flags, KxVencOutput *output)
{
    FakeEncoderCall call{.slot = "VideoEncoderProcess"};
    call.handle = handle;
    call.flags = flags;
    call.argNull = input == nullptr || output == nullptr;
    if (input != nullptr) {
        call.input = *input;
        call.inputHash = FakeHash(input->data, input->length);
    }

    std::unique_lock lock(Control().mutex);
    auto it = Control().instances.find(handle);
    call.handleKnown = it != Control().instances.end();
    if (input != nullptr && input->data != nullptr) {
        uint32_t head = std::min(input->length, Control().inputCopyBytes);
        call.inputHead.assign(input->data, input->data + head);
    }
    if (call.argNull || !call.handleKnown) {
        call.result = kFakeBadArgument;
        Control().calls.push_back(call);
        return call.result;
    }
    call.result = Control().status.process;

    FakeEncoderInstance &instance = it->second;
    KxVencOutput out{};
    if (Control().scriptedOutput.enabled) {
        out.bsBuf = Control().scriptedOutput.bsBuf;
        out.bsLength = Control().scriptedOutput.bsLength;
    } else {
        instance.bitstream = FakeEncoderBitstream(instance.frames, input->data, input->length);
        out.bsBuf = instance.bitstream.data();
        out.bsLength = static_cast<int32_t>(instance.bitstream.size());
    }
    out.timeStamp = input->timeStamp;
    ++instance.frames;
    FakeEncoderOutputMode mode = Control().outputMode;
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
        if (callback != nullptr) {
            callback(&out, privateData);
        }
        break;
    case kFakeOutputCallbackThread:
        if (callback != nullptr) {
            std::thread vendor([&] { callback(&out, privateData); });
            vendor.join();
        }
        break;
    case kFakeOutputNone:
        break;
    }
    return call.result;
}

int32_t Destroy(void **handle)
{
    FakeEncoderCall call{.slot = "VideoEncoderDestroy"};
    call.argNull = handle == nullptr;
    std::lock_guard lock(Control().mutex);
    if (call.argNull) {
        call.result = kFakeBadArgument;
    } else if (*handle == nullptr) {
        call.result = 0;
    } else {
        call.handle = *handle;
        call.handleKnown = Control().instances.erase(*handle) != 0;
        if (call.handleKnown) {
            ++Control().destroyed;
            call.result = Control().status.destroy;
        } else {
            call.result = kFakeBadArgument;
        }
        *handle = nullptr;
    }
    Control().calls.push_back(call);
    return call.result;
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
    Init() { Control().ops = {Reset}; }
} g_init;

} // namespace

extern "C" FAKE_EXPORT FakeEncoderControl *FakeEncoderGetControl()
{
    return &Control();
}

#ifndef FAKE_OMIT_GETTER
extern "C" FAKE_EXPORT int32_t TALVOGetVideoEncoderHandler(KxVideoEncoderHandler *handler)
{
    std::lock_guard lock(Control().mutex);
    FakeEncoderCall call{.slot = KX_VIDEO_ENCODER_GETTER};
    call.argNull = handler == nullptr;
    call.result = call.argNull ? kFakeBadArgument : Control().getterResult;
    if (handler != nullptr) {
        *handler = kTable;
        for (uint32_t slot = 0; slot < kEncSlotCount; ++slot) {
            if ((Control().nullSlots & (1u << slot)) != 0) {
                std::memset(reinterpret_cast<char *>(handler) + slot * sizeof(void *), 0, sizeof(void *));
            }
        }
    }
    Control().calls.push_back(call);
    return call.result;
}
#endif
