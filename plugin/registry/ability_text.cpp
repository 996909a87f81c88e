// SPDX-License-Identifier: Apache-2.0
// The camera's ability as one line of JSON text, appended piece by piece
// straight into the caller's buffer.
#include "common/limits.h"
#include "common/log.h"
#include "registry/registry.h"
#include "talvo/securec.h"

namespace {

// Items past this many are left out of a frame-rate or size list.
constexpr uint32_t kMaxListItems = 500;

// Where the next piece goes and how much room it may take. The room is
// size - 1 - length as a signed 32-bit value, so the text never reaches the
// buffer's last byte; a negative room becomes a size the bounds-checked
// writer refuses.
struct Tail {
    char *at;
    rsize_t room;
};

Tail TailOf(char *buffer, int32_t size)
{
    const uint32_t length = TALVOStrlen(buffer);
    const auto room = static_cast<int32_t>(int64_t{size} - 1 - int64_t{length});
    return {buffer + length, static_cast<rsize_t>(room)};
}

// Vendor counts are unsigned; the text prints them as signed decimals.
int32_t AsSigned(uint32_t value)
{
    return static_cast<int32_t>(value);
}

uint32_t Capped(uint32_t count)
{
    return count < kMaxListItems ? count : kMaxListItems;
}

// A bounds-checked write counts only when it wrote something.
bool Failed(int written)
{
    if (written <= 0) {
        LOGE("sprintf_s failed, error %d", written);
        return true;
    }
    return false;
}

} // namespace

// A macro rather than a function so that every format stays a literal the
// compiler checks against its arguments.
#define KX_APPEND(buffer, size, ...)                                                                                   \
    [&] {                                                                                                              \
        const Tail tail = TailOf(buffer, size);                                                                        \
        return sprintf_s(tail.at, tail.room, __VA_ARGS__);                                                             \
    }()

int32_t BuildSubFpsAbilityString(const KxCameraAbility *ability, char *buffer, int32_t size)
{
    const uint32_t count = Capped(ability->fpsRangeNum);
    if (count != 0 && ability->supportFpsRanges == nullptr) {
        LOGE("ability supportFpsRanges is nullptr with %d ranges", AsSigned(ability->fpsRangeNum));
        return kx::kErrInvalid;
    }
    if (Failed(KX_APPEND(buffer, size, "%s", "\"supportFpsRange\": ["))) {
        return kx::kErrInvalid;
    }
    for (uint32_t i = 0; i < count; ++i) {
        const KxFpsRange &range = ability->supportFpsRanges[i];
        const int written =
            (i + 1 < count)
                ? KX_APPEND(buffer, size, "{\"min\":%d, \"max\":%d},", AsSigned(range.min), AsSigned(range.max))
                : KX_APPEND(buffer, size, "{\"min\":%d, \"max\":%d}", AsSigned(range.min), AsSigned(range.max));
        if (Failed(written)) {
            return kx::kErrInvalid;
        }
    }
    if (Failed(KX_APPEND(buffer, size, "%s", "],"))) {
        return kx::kErrInvalid;
    }
    return 0;
}

int32_t BuildSubResAbilityString(const KxCameraAbility *ability, char *buffer, int32_t size)
{
    const uint32_t count = Capped(ability->sizeNum);
    if (count != 0 && ability->supportSizes == nullptr) {
        LOGE("ability supportSizes is nullptr with %d sizes", AsSigned(ability->sizeNum));
        return kx::kErrInvalid;
    }
    if (Failed(KX_APPEND(buffer, size, "%s", "\"supportSizes\": ["))) {
        return kx::kErrInvalid;
    }
    for (uint32_t i = 0; i < count; ++i) {
        const KxPictureSize &picture = ability->supportSizes[i];
        const int written = (i + 1 < count) ? KX_APPEND(buffer, size, "{\"width\": %d, \"height\": %d}, ",
                                                        AsSigned(picture.width), AsSigned(picture.height))
                                            : KX_APPEND(buffer, size, "{\"width\": %d, \"height\": %d}",
                                                        AsSigned(picture.width), AsSigned(picture.height));
        if (Failed(written)) {
            return kx::kErrInvalid;
        }
    }
    if (Failed(KX_APPEND(buffer, size, "%s", "]"))) {
        return kx::kErrInvalid;
    }
    return 0;
}

int32_t BuildSubFormatAbilityString(const KxCameraAbility *ability, char *buffer, int32_t size)
{
    const char *format = ability->dataFmt == KX_DATA_FMT_RGB565 ? "\"RGB565\"" : "\"NV21\"";
    if (Failed(KX_APPEND(buffer, size, "%s", ", \"supportFormats\": [")) ||
        Failed(KX_APPEND(buffer, size, "%s", format)) || Failed(KX_APPEND(buffer, size, "%s", "]"))) {
        return kx::kErrInvalid;
    }
    return 0;
}

int32_t BuildSubStreamAbilityString(const KxCameraAbility *ability, char *buffer, int32_t size)
{
    const char *type = ability->dataFmt == KX_DATA_FMT_H264 ? "\"H264\":{" : "\"H265\":{";
    if (Failed(KX_APPEND(buffer, size, "%s", ", \"streamAbility\": {")) ||
        Failed(KX_APPEND(buffer, size, "%s", "\"supportStreamTypes\": {")) ||
        Failed(KX_APPEND(buffer, size, "%s", type))) {
        return kx::kErrInvalid;
    }
    if (BuildSubFpsAbilityString(ability, buffer, size) != 0 || BuildSubResAbilityString(ability, buffer, size) != 0) {
        return kx::kErrInvalid;
    }
    if (Failed(KX_APPEND(buffer, size, "%s", "}}}"))) {
        return kx::kErrInvalid;
    }
    return 0;
}

int32_t BuildSubFrameAbilityString(const KxCameraAbility *ability, char *buffer, int32_t size)
{
    if (Failed(KX_APPEND(buffer, size, "%s", ", \"frameAbility\": {"))) {
        return kx::kErrInvalid;
    }
    if (BuildSubFpsAbilityString(ability, buffer, size) != 0 || BuildSubResAbilityString(ability, buffer, size) != 0 ||
        BuildSubFormatAbilityString(ability, buffer, size) != 0) {
        return kx::kErrInvalid;
    }
    if (Failed(KX_APPEND(buffer, size, "%s", "}"))) {
        return kx::kErrInvalid;
    }
    return 0;
}

int32_t BuildSubExtendInfoString(const KxExtendInfo *extendInfos, uint32_t extendInfoNum, char *buffer, int32_t size)
{
    if (extendInfoNum != 0 && extendInfos == nullptr) {
        LOGE("extendInfos is nullptr with %d entries", AsSigned(extendInfoNum));
        return kx::kErrInvalid;
    }
    if (Failed(KX_APPEND(buffer, size, "%s", ", \"extendInfos\": ")) || Failed(KX_APPEND(buffer, size, "%s", "{"))) {
        return kx::kErrInvalid;
    }
    for (uint32_t i = 0; i < extendInfoNum; ++i) {
        const KxExtendInfo &info = extendInfos[i];
        if (info.key == nullptr || info.value == nullptr) {
            LOGE("extendInfos %d key or value is nullptr", AsSigned(i));
            return kx::kErrInvalid;
        }
        const int written = (i + 1 < extendInfoNum) ? KX_APPEND(buffer, size, "\"%s\": \"%s\", ", info.key, info.value)
                                                    : KX_APPEND(buffer, size, "\"%s\": \"%s\"", info.key, info.value);
        if (Failed(written)) {
            return kx::kErrInvalid;
        }
    }
    if (Failed(KX_APPEND(buffer, size, "%s", "}"))) {
        return kx::kErrInvalid;
    }
    return 0;
}

int32_t BuildCameraAbilityString(const KxCameraCapability *capability, char *buffer, int32_t size)
{
    // size - 1 must stay positive; written this way it cannot overflow.
    if (size <= 1) {
        LOGE("BuildAudioAbilityString dst buffer size is too small, maxlength %d", size);
        return kx::kErrInvalid;
    }
    // The registry checks a capability before building; direct callers get a refusal, not a crash.
    if (capability == nullptr || capability->id == nullptr ||
        (capability->abilityNum != 0 && capability->abilities == nullptr)) {
        LOGE("camera capability, its id or its abilities is nullptr");
        return kx::kErrMissing;
    }
    int32_t ret = strcpy_s(buffer, static_cast<rsize_t>(size - 1), "{");
    if (ret != 0) {
        return ret;
    }
    ret = KX_APPEND(buffer, size, "\"id\": \"%s%s\"", "Camera_", capability->id);
    if (ret <= 0) {
        LOGE("sprint_s failed, error %d", ret);
        return ret;
    }
    for (uint32_t i = 0; i < capability->abilityNum; ++i) {
        const KxCameraAbility *ability = &capability->abilities[i];
        if (ability->dataFmt == KX_DATA_FMT_H264 || ability->dataFmt == KX_DATA_FMT_H265) {
            ret = BuildSubStreamAbilityString(ability, buffer, size);
            if (ret != 0) {
                LOGE("BuildSubCodecAbilityString failed, error code %d", ret);
                return ret;
            }
        } else {
            ret = BuildSubFrameAbilityString(ability, buffer, size);
            if (ret != 0) {
                LOGE("BuildSubFmtAbilityString failed, error code %d", ret);
                return ret;
            }
        }
    }
    ret = BuildSubExtendInfoString(capability->extendInfos, capability->extendInfoNum, buffer, size);
    if (ret != 0) {
        return ret;
    }
    ret = strcat_s(buffer, static_cast<rsize_t>(size - 1), "}");
    if (ret != 0) {
        return ret;
    }
    LOGI("get camera ability string");
    return 0;
}

#undef KX_APPEND
