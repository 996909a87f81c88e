// SPDX-License-Identifier: Apache-2.0
// The ability text builder over arbitrary capability records and buffer
// sizes. Every list the record points at is allocated with exactly the
// entries the builder may read, and the text is compared with one rendered
// here independently, piece by piece, so that both a wrong character and a
// wrong decision to fail or succeed are caught.
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
#include <memory>
#include <string>

#include "fuzz_support.h"
#include "kxcamera/camera_handler.h"
#include "registry/registry.h"

namespace {

constexpr uint32_t kMaxListItems = 500;
constexpr uint32_t kHugeCount = 0xffff0000u;
constexpr char kSentinel = '\x7f';
constexpr int32_t kErrInvalid = -5;

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
    const std::vector<uint8_t> bytes = in.Bytes(n);
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
        ability.dataFmt = in.U32();
        const uint8_t listFlags = in.U8();
        ability.fpsRangeNum = in.U16() | ((listFlags & 4) != 0 ? kHugeCount : 0);
        ability.sizeNum = in.U16() | ((listFlags & 8) != 0 ? kHugeCount : 0);
        // Exactly the entries the builder prints: one more read is an overflow.
        auto ranges = std::make_unique<KxFpsRange[]>(Printed(ability.fpsRangeNum));
        for (uint32_t r = 0; r < Printed(ability.fpsRangeNum); ++r) {
            ranges[r].min = in.U32();
            ranges[r].max = in.U32();
        }
        auto sizes = std::make_unique<KxPictureSize[]>(Printed(ability.sizeNum));
        for (uint32_t s = 0; s < Printed(ability.sizeNum); ++s) {
            sizes[s].width = in.U32();
            sizes[s].height = in.U32();
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

// How a piece that does not fit fails the build.
enum class Kind {
    kOpen,    // strcpy_s: its non-zero errno
    kId,      // the id piece: the negative sprintf_s result
    kPiece,   // any section or list piece: -5
    kClose,   // strcat_s: its non-zero errno
    kRefused, // a list that is absent although counted: -5 when reached
};

struct Piece {
    Kind kind;
    std::string text;
};

// "%d" of a u32 field: its value as a signed 32-bit number.
std::string Decimal(uint32_t value)
{
    return std::to_string(static_cast<int32_t>(value));
}

// The text as the published format lays it out, as a list of the pieces the
// builder writes one by one.
class Renderer {
public:
    std::vector<Piece> Render(const KxCameraCapability &cap)
    {
        Add(Kind::kOpen, "{");
        Add(Kind::kId, std::string("\"id\": \"Camera_") + cap.id + "\"");
        for (uint32_t i = 0; i < cap.abilityNum; ++i) {
            const KxCameraAbility &ability = cap.abilities[i];
            if (ability.dataFmt == KX_DATA_FMT_H264 || ability.dataFmt == KX_DATA_FMT_H265) {
                Add(", \"streamAbility\": {");
                Add("\"supportStreamTypes\": {");
                Add(ability.dataFmt == KX_DATA_FMT_H264 ? "\"H264\":{" : "\"H265\":{");
                FpsList(ability);
                SizeList(ability);
                Add("}}}");
            } else {
                Add(", \"frameAbility\": {");
                FpsList(ability);
                SizeList(ability);
                Add(", \"supportFormats\": [");
                Add(ability.dataFmt == KX_DATA_FMT_RGB565 ? "\"RGB565\"" : "\"NV21\"");
                Add("]");
                Add("}");
            }
        }
        ExtendInfos(cap.extendInfos, cap.extendInfoNum);
        Add(Kind::kClose, "}");
        return std::move(pieces_);
    }

private:
    void Add(Kind kind, std::string text) { pieces_.push_back({kind, std::move(text)}); }
    void Add(std::string text) { Add(Kind::kPiece, std::move(text)); }

    void FpsList(const KxCameraAbility &ability)
    {
        const uint32_t count = Printed(ability.fpsRangeNum);
        if (count != 0 && ability.supportFpsRanges == nullptr) {
            Add(Kind::kRefused, "");
            return;
        }
        Add("\"supportFpsRange\": [");
        for (uint32_t i = 0; i < count; ++i) {
            const KxFpsRange &r = ability.supportFpsRanges[i];
            Add("{\"min\":" + Decimal(r.min) + ", \"max\":" + Decimal(r.max) + (i + 1 < count ? "}," : "}"));
        }
        Add("],");
    }

    void SizeList(const KxCameraAbility &ability)
    {
        const uint32_t count = Printed(ability.sizeNum);
        if (count != 0 && ability.supportSizes == nullptr) {
            Add(Kind::kRefused, "");
            return;
        }
        Add("\"supportSizes\": [");
        for (uint32_t i = 0; i < count; ++i) {
            const KxPictureSize &s = ability.supportSizes[i];
            Add("{\"width\": " + Decimal(s.width) + ", \"height\": " + Decimal(s.height) +
                (i + 1 < count ? "}, " : "}"));
        }
        Add("]");
    }

    void ExtendInfos(const KxExtendInfo *infos, uint32_t count)
    {
        if (count != 0 && infos == nullptr) {
            Add(Kind::kRefused, "");
            return;
        }
        Add(", \"extendInfos\": ");
        Add("{");
        for (uint32_t i = 0; i < count; ++i) {
            if (infos[i].key == nullptr || infos[i].value == nullptr) {
                Add(Kind::kRefused, "");
                return;
            }
            Add(std::string("\"") + infos[i].key + "\": \"" + infos[i].value + (i + 1 < count ? "\", " : "\""));
        }
        Add("}");
    }

    std::vector<Piece> pieces_;
};

// What the build must produce: the whole text, or the failure of the first
// piece that does not fit or is refused, with the text written before it.
struct Expected {
    bool ok = true;
    Kind failedAt = Kind::kPiece;
    std::string text;
};

Expected Simulate(const std::vector<Piece> &pieces, int32_t size)
{
    Expected out;
    // The text never reaches the buffer's last byte: at most size - 2 characters.
    const size_t limit = static_cast<size_t>(size) - 2;
    for (const Piece &piece : pieces) {
        if (piece.kind == Kind::kRefused || out.text.size() + piece.text.size() > limit) {
            out.ok = false;
            out.failedAt = piece.kind;
            return out;
        }
        out.text += piece.text;
    }
    return out;
}

bool Untouched(const char *buffer, size_t size)
{
    return std::all_of(buffer, buffer + size, [](char c) { return c == kSentinel; });
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    QuietPluginLog();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    FuzzInput in(data, size);
    const int32_t bufferSize = in.I16();
    const uint8_t flags = in.U8();
    Capability cap;
    ReadCapability(in, flags, cap);

    // Exactly bufferSize bytes (one for a size below 1, never handed over).
    const size_t allocated = bufferSize > 0 ? static_cast<size_t>(bufferSize) : 1;
    auto buffer = std::make_unique<char[]>(allocated);
    std::fill(buffer.get(), buffer.get() + allocated, kSentinel);

    const int32_t rc = BuildCameraAbilityString(&cap.record, buffer.get(), bufferSize);

    if (bufferSize <= 1) {
        FUZZ_CHECK(rc == kErrInvalid, "size %d: rc %d, want -5", bufferSize, rc);
        FUZZ_CHECK(Untouched(buffer.get(), allocated), "size %d: buffer written", bufferSize);
        return 0;
    }
    if (cap.record.id == nullptr || (cap.record.abilityNum != 0 && cap.record.abilities == nullptr)) {
        FUZZ_CHECK(rc != 0, "a record without id or abilities was accepted");
        FUZZ_CHECK(Untouched(buffer.get(), allocated), "a refused record had its buffer written");
        return 0;
    }

    const Expected expected = Simulate(Renderer().Render(cap.record), bufferSize);
    const char *text = buffer.get();
    FUZZ_CHECK(buffer[allocated - 1] == kSentinel, "size %d: the last byte was written (rc %d)", bufferSize, rc);
    const size_t length = strnlen(text, allocated);
    FUZZ_CHECK(length < allocated - 1, "size %d: no terminator before the last byte (rc %d)", bufferSize, rc);

    if (expected.ok) {
        FUZZ_CHECK(rc == 0, "size %d: rc %d for a text of %zu characters that fits", bufferSize, rc,
                   expected.text.size());
        FUZZ_CHECK(expected.text == text, "size %d: text differs\n  want %s\n  got  %s", bufferSize,
                   expected.text.c_str(), text);
        return 0;
    }
    switch (expected.failedAt) {
        case Kind::kOpen:
        case Kind::kClose:
            // The bounds-checked copy's errno, passed on unchanged.
            FUZZ_CHECK(rc > 0, "size %d: rc %d where the copy's errno was due", bufferSize, rc);
            break;
        case Kind::kId:
            FUZZ_CHECK(rc < 0, "size %d: rc %d where the id write failed", bufferSize, rc);
            break;
        case Kind::kPiece:
        case Kind::kRefused:
            FUZZ_CHECK(rc == kErrInvalid, "size %d: rc %d where a section failed", bufferSize, rc);
            break;
    }
    // Whatever was written before the failing write stays; nothing after it.
    FUZZ_CHECK(expected.text.compare(0, length, text, length) == 0 && length <= expected.text.size(),
               "size %d: after a failure the buffer is no prefix of the text\n  want %s\n  got  %s", bufferSize,
               expected.text.c_str(), text);
    return 0;
}
