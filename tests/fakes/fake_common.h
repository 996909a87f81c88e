// SPDX-License-Identifier: Apache-2.0
// What the two vendor library doubles share: the call record behind one
// mutex, the scripted getter, and delivery on a vendor thread.
#ifndef KXCAMERA_TESTS_FAKES_FAKE_COMMON_H
#define KXCAMERA_TESTS_FAKES_FAKE_COMMON_H

#include <climits>
#include <cstdint>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

// The fakes build with hidden visibility; only getters and controls are seen.
#define FAKE_EXPORT __attribute__((visibility("default")))

// Returned for arguments no vendor could work with (null records, unknown handles).
inline constexpr int32_t kFakeBadArgument = -22;
// A push that found no callback or listener entry to call returns this.
inline constexpr int32_t kFakeNotDelivered = INT32_MIN;

// Where a push reaches the plugin: on the caller's thread, or on a thread of
// the fake that is joined before the push returns.
enum FakeDelivery : uint32_t {
    kFakeOnCaller = 0,
    kFakeOnVendorThread = 1,
};

template <typename Fn> int32_t FakeDeliver(FakeDelivery how, Fn fn)
{
    if (how == kFakeOnCaller) {
        return fn();
    }
    int32_t result = 0;
    std::thread vendor([&result, &fn] { result = fn(); });
    vendor.join();
    return result;
}

// A control: the script a test sets, what the fake observed, one mutex over
// both. Script fields while no vendor call can be in flight, or hold `mutex`.
// Reset runs inside the library, where the defaults live.
template <typename Call, typename Script, typename Observed> struct FakeControl : Script, Observed {
    mutable std::mutex mutex;
    void (*reset)() = nullptr;

    void Reset() { reset(); }
    std::vector<Call> Calls() const
    {
        std::lock_guard lock(mutex);
        return this->calls;
    }
    std::vector<Call> CallsTo(std::string_view slot) const
    {
        std::vector<Call> out;
        for (const Call &call : Calls()) {
            if (call.slot == slot) {
                out.push_back(call);
            }
        }
        return out;
    }
    // Inside the library: records `call` with the result `decide` gives
    // while the lock is held.
    template <typename Fn> int32_t Record(Call call, Fn decide)
    {
        std::lock_guard lock(mutex);
        call.result = decide(call);
        this->calls.push_back(call);
        return call.result;
    }
    // The getter: the whole table and the scripted result.
    template <typename Table> int32_t Getter(const char *name, Table *handler, const Table &table)
    {
        return Record(Call{.slot = name}, [&](Call &) {
            if (handler == nullptr) {
                return kFakeBadArgument;
            }
            *handler = table;
            return this->getterResult;
        });
    }
};

inline std::string FakeText(const char *text, uint32_t len)
{
    return text == nullptr ? std::string() : std::string(text, len);
}

#endif // KXCAMERA_TESTS_FAKES_FAKE_COMMON_H
