// SPDX-License-Identifier: Apache-2.0
// The ability text builder over arbitrary capability records and buffer
// sizes. Every list the record points at is allocated with exactly the
// entries the builder may read. What the builder promises: the buffer's
// last byte stays untouched and the text ends before it; a text that fits
// in a buffer of its length plus two is built whole, in any less it fails;
// a failed build leaves a prefix of the whole text; a record whose id and
// keys need no escaping gives JSON that names the camera.
//
// Input, little-endian, fields past the end read as zero:
//   i16 size                 buffer size handed to the builder
//   u8  flags                1: id null, 2: abilities null, 4: extendInfos null
//   u8  idLen (mod 65), idLen bytes of id
//   u8  abilityNum (mod 17), then per ability entry:
//       u32 dataFmt
//       u8  list flags       1: ranges null, 2: sizes null,
//                            4: range count + 0xffff0000, 8: size count + 0xffff0000
//       u16 fpsRangeNum, u16 sizeNum
//       min(fpsRangeNum, 500) x (u32 min, u32 max), then min(sizeNum, 500) x (u32 w, u32 h)
//   u8  extendInfoNum, then per entry:
//       u8 flags (1: key null, 2: value null), u8 keyLen, key, u8 valueLen, value
#include <algorithm>
#include <cstring>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "fuzz_support.h"
#include "kxcamera/camera_handler.h"
#include "registry/registry.h"

namespace {

constexpr uint32_t kMaxListItems = 500;
constexpr uint32_t kHugeCount = 0xffff0000u;
constexpr char kSentinel = '\x7f';

// Owns everything a capability record points at.
struct Capability {
    KxCameraCapability record{};
    std::unique_ptr<char[]> id;
    std::unique_ptr<KxCameraAbility[]> abilities;
    std::vector<std::unique_ptr<KxFpsRange[]>> ranges;
    std::vector<std::unique_ptr<KxPictureSize[]>> sizes;
    std::unique_ptr<KxExtendInfo[]> extendInfos;
    std::vector<std::unique_ptr<char[]>> texts;
};

// A NUL-terminated copy of n input bytes in a block of exactly n + 1 bytes.
std::unique_ptr<char[]> TextOf(FuzzInput &in, size_t n)
{
    const std::string bytes = in.Bytes(n);
    auto text = std::make_unique<char[]>(bytes.size() + 1);
    std::copy(bytes.begin(), bytes.end(), text.get());
    text[bytes.size()] = '\0';
    return text;
}

uint32_t Printed(uint32_t count)
{
    return std::min(count, kMaxListItems);
}

void ReadCapability(FuzzInput &in, uint8_t flags, Capability &cap)
{
    const uint32_t idLen = in.U8() % 65;
    cap.id = TextOf(in, idLen);
    cap.record.id = (flags & 1) != 0 ? nullptr : cap.id.get();
    cap.record.idLen = idLen;

    const uint32_t abilityNum = in.U8() % 17;
    cap.abilities = std::make_unique<KxCameraAbility[]>(abilityNum);
    for (uint32_t i = 0; i < abilityNum; ++i) {
        KxCameraAbility &ability = cap.abilities[i];
        ability.dataFmt = in.Take<uint32_t>();
        const uint8_t listFlags = in.U8();
        ability.fpsRangeNum = in.Take<uint16_t>() | ((listFlags & 4) != 0 ? kHugeCount : 0);
        ability.sizeNum = in.Take<uint16_t>() | ((listFlags & 8) != 0 ? kHugeCount : 0);
        // Exactly the entries the builder prints: one more read is an overflow.
        auto ranges = std::make_unique<KxFpsRange[]>(Printed(ability.fpsRangeNum));
        for (uint32_t r = 0; r < Printed(ability.fpsRangeNum); ++r) {
            ranges[r].min = in.Take<uint32_t>();
            ranges[r].max = in.Take<uint32_t>();
        }
        auto sizes = std::make_unique<KxPictureSize[]>(Printed(ability.sizeNum));
        for (uint32_t s = 0; s < Printed(ability.sizeNum); ++s) {
            sizes[s].width = in.Take<uint32_t>();
            sizes[s].height = in.Take<uint32_t>();
        }
        ability.supportFpsRanges = (listFlags & 1) != 0 ? nullptr : ranges.get();
        ability.supportSizes = (listFlags & 2) != 0 ? nullptr : sizes.get();
        cap.ranges.push_back(std::move(ranges));
        cap.sizes.push_back(std::move(sizes));
    }
    cap.record.abilities = (flags & 2) != 0 ? nullptr : cap.abilities.get();
    cap.record.abilityNum = abilityNum;

    const uint32_t extendNum = in.U8();
    cap.extendInfos = std::make_unique<KxExtendInfo[]>(extendNum);
    for (uint32_t i = 0; i < extendNum; ++i) {
        const uint8_t entryFlags = in.U8();
        cap.texts.push_back(TextOf(in, in.U8()));
        cap.extendInfos[i].key = (entryFlags & 1) != 0 ? nullptr : cap.texts.back().get();
        cap.texts.push_back(TextOf(in, in.U8()));
        cap.extendInfos[i].value = (entryFlags & 2) != 0 ? nullptr : cap.texts.back().get();
    }
    cap.record.extendInfos = (flags & 4) != 0 ? nullptr : cap.extendInfos.get();
    cap.record.extendInfoNum = extendNum;
}

// The builder's result and text for a buffer of `size` bytes, of which the
// last must stay as it was.
std::pair<int32_t, std::string> Build(const KxCameraCapability &cap, int32_t size)
{
    std::vector<char> buffer(static_cast<size_t>(std::max(size, 1)), kSentinel);
    const int32_t rc = BuildCameraAbilityString(&cap, buffer.data(), size);
    const size_t length = strnlen(buffer.data(), buffer.size());
    const bool untouched = std::all_of(buffer.begin(), buffer.end(), [](char c) { return c == kSentinel; });
    FUZZ_CHECK(untouched || (size > 1 && buffer.back() == kSentinel && length + 1 < buffer.size()),
               "size %d: the last byte was written or no terminator before it (rc %d)", size, rc);
    return {rc, untouched ? std::string() : std::string(buffer.data(), length)};
}

// JSON needs no escaping in these: the text can be parsed as it is.
bool Plain(const char *text)
{
    return text != nullptr && std::none_of(text, text + std::strlen(text), [](char c) {
               return c == '"' || c == '\\' || static_cast<unsigned char>(c) < 0x20 ||
                      static_cast<unsigned char>(c) >= 0x80;
           });
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    FuzzInput in(data, size);
    const int32_t bufferSize = in.Take<int16_t>();
    const uint8_t flags = in.U8();
    Capability cap;
    ReadCapability(in, flags, cap);

    const auto [rc, text] = Build(cap.record, bufferSize);
    const bool refused = cap.record.id == nullptr || (cap.record.abilityNum != 0 && cap.record.abilities == nullptr);
    if (bufferSize <= 1 || refused) {
        FUZZ_CHECK(rc != 0 && text.empty(), "size %d: rc %d, %zu characters written", bufferSize, rc, text.size());
        FUZZ_CHECK(bufferSize > 1 || rc == -5, "size %d: rc %d, want -5", bufferSize, rc);
        return 0;
    }
    // Most records need a few kB; a text beyond 64 kB (the builder rescans it
    // on every piece) is left to the sizes the input asks for. A failed
    // build may have emptied the buffer: then there is no whole to compare.
    auto [wholeRc, whole] = rc == 0 ? std::pair{rc, text} : Build(cap.record, 4096);
    if (wholeRc != 0) {
        std::tie(wholeRc, whole) = Build(cap.record, 1 << 16);
    }
    if (wholeRc != 0 && whole.size() < text.size()) {
        return 0;
    }
    FUZZ_CHECK(whole.compare(0, text.size(), text) == 0, "not a prefix of the whole text\n  %s\n  %s", text.c_str(),
               whole.c_str());
    if (wholeRc != 0) {
        FUZZ_CHECK(rc != 0, "size %d: built although the whole text cannot be", bufferSize);
        return 0;
    }
    const auto limit = static_cast<int32_t>(whole.size()) + 2;
    FUZZ_CHECK((rc == 0) == (bufferSize >= limit) && (rc != 0 || text == whole), "size %d for %zu characters: rc %d",
               bufferSize, whole.size(), rc);
    bool plain = Plain(cap.record.id);
    for (uint32_t i = 0; i < cap.record.extendInfoNum && cap.record.extendInfos != nullptr; ++i) {
        plain = plain && Plain(cap.record.extendInfos[i].key) && Plain(cap.record.extendInfos[i].value);
    }
    const nlohmann::json doc = plain ? nlohmann::json::parse(whole, nullptr, false) : nlohmann::json();
    const auto id = doc.is_object() ? doc.find("id") : doc.end();
    FUZZ_CHECK(!plain || (id != doc.end() && *id == "Camera_" + std::string(cap.record.id)),
               "not JSON naming the camera:\n  %s", whole.c_str());
    return 0;
}
