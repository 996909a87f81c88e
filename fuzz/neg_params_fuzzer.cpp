// SPDX-License-Identifier: Apache-2.0
// The negotiated parameter text: the whole input, NUL-terminated, is the text
// of a set-parameters command. The outcome must agree with what the JSON
// library and the framework's attribute reader find in the text: the message
// type follows the keys present, a failure leaves everything as it was, an
// update touches the rate alone, an integer is stored as the number it is.
#include <cstring>
#include <nlohmann/json.hpp>

#include "command/command.h"
#include "fuzz_support.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    // Exactly the text and its terminator: a read past it is an overflow.
    const auto text = Block(std::string(reinterpret_cast<const char *>(data), size), true);
    // Recognisable values no text is likely to produce.
    constexpr KxNegParams kBefore{-11111, -22222, -33333, -44444, -55555};
    constexpr uint32_t kUntouched = 0xa5a5a5a5u;
    const auto same = [](const KxNegParams &a, const KxNegParams &b) { return std::memcmp(&a, &b, sizeof(a)) == 0; };
    const auto has = [&text](const char *key) {
        char value[50];
        return GetAttribute(text.get(), key, value, sizeof(value));
    };
    KxNegParams neg = kBefore;
    uint32_t msgType = kUntouched;
    const int32_t rc = GetNegCameraParams(text.get(), &neg, &msgType);

    if (!has("Width") && !has("Fps")) {
        FUZZ_CHECK(rc == -5 && msgType == kUntouched && same(neg, kBefore), "rc %d", rc);
        return 0;
    }
    const bool open = has("Width");
    const bool complete = has("Height") && has("ColorFormat") && has("CodecType");
    FUZZ_CHECK(msgType == (open ? kNegMsgOpen : kNegMsgUpdate) && rc == (open && !complete ? -1001 : 0),
               "type %u, rc %d", msgType, rc);
    FUZZ_CHECK(
        same(neg, open ? KxNegParams{neg.width, neg.height, kBefore.fps, neg.codecType, neg.colorFmt}
                       : KxNegParams{kBefore.width, kBefore.height, neg.fps, kBefore.codecType, kBefore.colorFmt}),
        "type %u", msgType);
    FUZZ_CHECK(rc != 0 || !open || neg.codecType <= 2, "codec type %d", neg.codecType);
    // The number a key holds, when it is an integer the plugin can store.
    const nlohmann::json doc = nlohmann::json::parse(text.get(), nullptr, false);
    const nlohmann::json value = doc.contains(open ? "Width" : "Fps") ? doc[open ? "Width" : "Fps"] : nlohmann::json();
    const int32_t stored = open ? neg.width : neg.fps;
    FUZZ_CHECK(!value.is_number_integer() || value < INT32_MIN || value > INT32_MAX || value == stored,
               "%s stored as %d", value.dump().c_str(), stored);
    return 0;
}
