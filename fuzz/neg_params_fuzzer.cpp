// SPDX-License-Identifier: Apache-2.0
// The negotiated parameter text: the whole input, NUL-terminated, is the text
// of a set-parameters command. The outcome is predicted from the framework's
// own attribute reader, so the check covers the message type decision, the
// order in which fields are stored, the codec type limit and the fields that
// must stay as they were.
#include <memory>

#include "command/command.h"
#include "fuzz_support.h"

namespace {

constexpr uint32_t kAttrValueSize = 50;
constexpr int32_t kErrInvalid = -5;
constexpr int32_t kErrNoNegParam = -1001;
constexpr uint32_t kUntouchedMsgType = 0xa5a5a5a5u;
// Recognisable values no text is likely to produce.
constexpr KxNegParams kBefore{-11111, -22222, -33333, -44444, -55555};

bool Read(const char *text, const char *key, int32_t *value)
{
    char buffer[kAttrValueSize] = {};
    if (!GetAttribute(text, key, buffer, kAttrValueSize)) {
        return false;
    }
    *value = TalvoAtoi(buffer);
    return true;
}

struct Outcome {
    int32_t rc = kErrInvalid;
    uint32_t msgType = kUntouchedMsgType;
    KxNegParams neg = kBefore;
};

// An open message stores each field as soon as it is read; a missing key ends
// it with the fields before it already stored.
Outcome PredictOpen(const char *text)
{
    Outcome out;
    out.msgType = kNegMsgOpen;
    out.rc = kErrNoNegParam;
    if (!Read(text, "Width", &out.neg.width) || !Read(text, "Height", &out.neg.height) ||
        !Read(text, "ColorFormat", &out.neg.colorFmt) || !Read(text, "CodecType", &out.neg.codecType)) {
        return out;
    }
    if (out.neg.codecType > 2) {
        out.neg.codecType = 0;
    }
    out.rc = 0;
    return out;
}

Outcome Predict(const char *text)
{
    int32_t value = 0;
    if (Read(text, "Width", &value)) {
        return PredictOpen(text);
    }
    Outcome out;
    if (Read(text, "Fps", &out.neg.fps)) {
        out.msgType = kNegMsgUpdate;
        out.rc = 0;
    }
    return out;
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    QuietPluginLog();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    // Exactly the text and its terminator: a read past it is an overflow.
    auto text = std::make_unique<char[]>(size + 1);
    std::memcpy(text.get(), data, size);
    text[size] = '\0';

    const Outcome want = Predict(text.get());
    Outcome got;
    got.rc = GetNegCameraParams(text.get(), &got.neg, &got.msgType);

    FUZZ_CHECK(got.rc == want.rc, "rc %d, want %d", got.rc, want.rc);
    FUZZ_CHECK(got.msgType == want.msgType, "message type %u, want %u", got.msgType, want.msgType);
    const KxNegParams &g = got.neg;
    const KxNegParams &w = want.neg;
    FUZZ_CHECK(g.width == w.width && g.height == w.height && g.fps == w.fps && g.codecType == w.codecType &&
                   g.colorFmt == w.colorFmt,
               "negParams {w %d h %d fps %d codec %d color %d}, want {w %d h %d fps %d codec %d color %d}", g.width,
               g.height, g.fps, g.codecType, g.colorFmt, w.width, w.height, w.fps, w.codecType, w.colorFmt);
    FUZZ_CHECK(g.codecType <= 2, "codec type %d stored above the largest one", g.codecType);
    return 0;
}
