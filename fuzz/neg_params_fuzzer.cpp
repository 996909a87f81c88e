// SPDX-License-Identifier: Apache-2.0
// The negotiated parameter text: the whole input, NUL-terminated, is the text
// of a set-parameters command. The outcome must agree with what the JSON
// library and the framework's attribute reader find in the text: the message
// type follows the keys present, a failure leaves everything as it was, an
// update touches the rate alone, an integer is stored as the number it is.
#include <climits>
#include <cstring>
#include <memory>
#include <nlohmann/json.hpp>

#include "command/command.h"
#include "fuzz_support.h"

namespace {

// Recognisable values no text is likely to produce.
constexpr KxNegParams kBefore{-11111, -22222, -33333, -44444, -55555};
constexpr uint32_t kUntouched = 0xa5a5a5a5u;

bool Same(const KxNegParams &a, const KxNegParams &b)
{
    return a.width == b.width && a.height == b.height && a.fps == b.fps && a.codecType == b.codecType &&
           a.colorFmt == b.colorFmt;
}

// The number a key holds, when it is an integer the plugin can store.
bool Integer(const nlohmann::json &doc, const char *key, int32_t *value)
{
    const auto found = doc.is_object() ? doc.find(key) : doc.end();
    if (found == doc.end() || !found->is_number_integer() || *found < INT32_MIN || *found > INT32_MAX) {
        return false;
    }
    *value = found->get<int32_t>();
    return true;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    // Exactly the text and its terminator: a read past it is an overflow.
    auto text = std::make_unique<char[]>(size + 1);
    std::memcpy(text.get(), data, size);
    text[size] = '\0';
    const auto has = [&text](const char *key) {
        char value[50];
        return GetAttribute(text.get(), key, value, sizeof(value));
    };
    KxNegParams neg = kBefore;
    uint32_t msgType = kUntouched;
    const int32_t rc = GetNegCameraParams(text.get(), &neg, &msgType);

    if (!has("Width") && !has("Fps")) {
        FUZZ_CHECK(rc == -5 && msgType == kUntouched && Same(neg, kBefore), "no key: rc %d, type %u", rc, msgType);
        return 0;
    }
    const bool open = has("Width");
    const bool complete = has("Height") && has("ColorFormat") && has("CodecType");
    FUZZ_CHECK(msgType == (open ? kNegMsgOpen : kNegMsgUpdate), "message type %u", msgType);
    FUZZ_CHECK(rc == (open && !complete ? -1001 : 0), "rc %d (open %d, complete %d)", rc, open, complete);
    FUZZ_CHECK(
        Same(neg, open ? KxNegParams{neg.width, neg.height, kBefore.fps, neg.codecType, neg.colorFmt}
                       : KxNegParams{kBefore.width, kBefore.height, neg.fps, kBefore.codecType, kBefore.colorFmt}),
        "a field outside the message changed");
    FUZZ_CHECK(rc != 0 || !open || neg.codecType <= 2, "codec type %d stored above the largest one", neg.codecType);
    const nlohmann::json doc = nlohmann::json::parse(text.get(), nullptr, false);
    int32_t value = 0;
    FUZZ_CHECK(!Integer(doc, open ? "Width" : "Fps", &value) || value == (open ? neg.width : neg.fps),
               "%d stored as %d", value, open ? neg.width : neg.fps);
    return 0;
}
