// SPDX-License-Identifier: Apache-2.0
// The ability text builder over arbitrary capability records and buffer
// sizes. Every list the record points at holds exactly the entries the
// builder may read. What the builder promises: the buffer's last byte stays
// untouched and the text ends before it; a text that fits in a buffer of its
// length plus two is built whole, in any less it fails; a failed build leaves
// a prefix of the whole text; a record whose texts need no escaping gives
// JSON that names the camera.
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

// Owns everything a capability record points at. A vector of n entries is a
// block of exactly n: one read more is an overflow.
struct Capability {
    KxCameraCapability record{};
    std::vector<KxCameraAbility> abilities;
    std::vector<std::vector<KxFpsRange>> ranges;
    std::vector<std::vector<KxPictureSize>> sizes;
    std::vector<KxExtendInfo> extendInfos;
    std::vector<std::unique_ptr<char[]>> texts;
    std::string printed; // every text the builder may print, end to end

    // A NUL-terminated copy of up to n input bytes, or null.
    const char *Text(FuzzInput &in, size_t n, bool null)
    {
        const char *text = texts.emplace_back(Block(in.Bytes(n), true)).get();
        printed += null ? "" : text;
        return null ? nullptr : text;
    }
};

void Read(FuzzInput &in, Capability &cap)
{
    const uint8_t flags = in.U8();
    cap.record.idLen = in.U8() % 65;
    cap.record.id = cap.Text(in, cap.record.idLen, (flags & 1) != 0);
    cap.abilities.resize(in.U8() % 17);
    for (KxCameraAbility &ability : cap.abilities) {
        ability.dataFmt = in.Take<uint32_t>();
        const uint8_t lists = in.U8();
        ability.fpsRangeNum = in.Take<uint16_t>() | ((lists & 4) != 0 ? kHugeCount : 0);
        ability.sizeNum = in.Take<uint16_t>() | ((lists & 8) != 0 ? kHugeCount : 0);
        auto &ranges = cap.ranges.emplace_back(std::min(ability.fpsRangeNum, kMaxListItems));
        for (KxFpsRange &range : ranges) {
            range = {in.Take<uint32_t>(), in.Take<uint32_t>()};
        }
        auto &sizes = cap.sizes.emplace_back(std::min(ability.sizeNum, kMaxListItems));
        for (KxPictureSize &picture : sizes) {
            picture = {in.Take<uint32_t>(), in.Take<uint32_t>()};
        }
        ability.supportFpsRanges = (lists & 1) != 0 ? nullptr : ranges.data();
        ability.supportSizes = (lists & 2) != 0 ? nullptr : sizes.data();
    }
    cap.extendInfos.resize(in.U8());
    for (KxExtendInfo &info : cap.extendInfos) {
        const uint8_t nulls = in.U8();
        info.key = cap.Text(in, in.U8(), (nulls & 1) != 0);
        info.value = cap.Text(in, in.U8(), (nulls & 2) != 0);
    }
    cap.record.abilities = (flags & 2) != 0 ? nullptr : cap.abilities.data();
    cap.record.abilityNum = static_cast<uint32_t>(cap.abilities.size());
    cap.record.extendInfos = (flags & 4) != 0 ? nullptr : cap.extendInfos.data();
    cap.record.extendInfoNum = static_cast<uint32_t>(cap.extendInfos.size());
}

// The builder's result and text for a buffer of `size` bytes, of which the
// last must stay as it was.
std::pair<int32_t, std::string> Build(const KxCameraCapability &cap, int32_t size)
{
    std::vector<char> buffer(static_cast<size_t>(std::max(size, 1)), kSentinel);
    const int32_t rc = BuildCameraAbilityString(&cap, buffer.data(), size);
    const size_t length = strnlen(buffer.data(), buffer.size());
    const bool untouched = std::all_of(buffer.begin(), buffer.end(), [](char c) { return c == kSentinel; });
    FUZZ_CHECK(untouched || (size > 1 && buffer.back() == kSentinel && length + 1 < buffer.size()), "size %d", size);
    return {rc, untouched ? std::string() : std::string(buffer.data(), length)};
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    FuzzInput in(data, size);
    const auto bufferSize = in.Take<int16_t>();
    Capability cap;
    Read(in, cap);

    const auto [rc, text] = Build(cap.record, bufferSize);
    if (bufferSize <= 1 || cap.record.id == nullptr ||
        (cap.record.abilityNum != 0 && cap.record.abilities == nullptr)) {
        FUZZ_CHECK(rc != 0 && text.empty() && (bufferSize > 1 || rc == -5), "size %d: rc %d", bufferSize, rc);
        return 0;
    }
    // Most records need a few kB; a text beyond 64 kB (the builder rescans it
    // on every piece) is left to the sizes the input asks for, and a record
    // the builder refuses has no whole text.
    auto [wholeRc, whole] = rc == 0 ? std::pair{rc, text} : Build(cap.record, 4096);
    if (wholeRc != 0) {
        std::tie(wholeRc, whole) = Build(cap.record, 1 << 16);
    }
    if (wholeRc != 0) {
        return 0;
    }
    FUZZ_CHECK(whole.starts_with(text) && (rc == 0) == (static_cast<size_t>(bufferSize) >= whole.size() + 2),
               "size %d:\n%s\n%s", bufferSize, text.c_str(), whole.c_str());
    const bool plain = std::all_of(cap.printed.begin(), cap.printed.end(),
                                   [](unsigned char c) { return c >= 0x20 && c < 0x80 && c != '"' && c != '\\'; });
    const nlohmann::json doc = plain ? nlohmann::json::parse(whole, nullptr, false) : nlohmann::json();
    FUZZ_CHECK(!plain || (doc.contains("id") && doc["id"] == "Camera_" + std::string(cap.record.id)), "%s",
               whole.c_str());
    return 0;
}
