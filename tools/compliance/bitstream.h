// SPDX-License-Identifier: Apache-2.0
// What the checker reads in encoded units: Annex B framing, NAL unit types,
// and pictures decoded by libavcodec.
#ifndef KXCAMERA_TOOLS_COMPLIANCE_BITSTREAM_H
#define KXCAMERA_TOOLS_COMPLIANCE_BITSTREAM_H

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

struct AVCodecContext;

namespace kxcompliance {

enum class Codec { kH264, kH265 };

bool StartsWithStartCode(std::span<const uint8_t> unit);
std::vector<int> NalTypes(Codec codec, std::span<const uint8_t> unit);
// An IDR picture and every parameter set a decoder needs to start there.
bool IsIdrWithParameterSets(Codec codec, std::span<const uint8_t> unit);

struct PictureSize {
    int width = 0;
    int height = 0;
};

// Decodes units one by one. Without libavcodec in the build, available()
// is false and the checks that need pictures are skipped.
class Decoder {
public:
    explicit Decoder(Codec codec);
    ~Decoder();
    Decoder(const Decoder &) = delete;
    Decoder &operator=(const Decoder &) = delete;

    bool available() const { return context_ != nullptr; }
    // Appends the pictures that came out; an empty unit drains the decoder.
    // Returns the decoder's complaint, if any.
    std::optional<std::string> Decode(std::span<const uint8_t> unit, std::vector<PictureSize> &pictures);

private:
    AVCodecContext *context_ = nullptr;
};

} // namespace kxcompliance

#endif // KXCAMERA_TOOLS_COMPLIANCE_BITSTREAM_H
