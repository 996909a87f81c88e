// SPDX-License-Identifier: Apache-2.0
// The capability records of the virtual cameras.
#include "catalog.h"

#include <algorithm>
#include <iterator>

namespace kxvcam {
namespace {

constexpr KxFpsRange kFpsRanges[] = {{15, 30}, {30, 30}};
constexpr KxPictureSize kSizes[] = {{640, 480}, {1280, 720}, {1920, 1080}};

constexpr KxCameraAbility Ability(uint32_t dataFmt)
{
    return {kFpsRanges, std::size(kFpsRanges), 0, kSizes, std::size(kSizes), dataFmt};
}

constexpr KxCameraAbility kRawAbilities[] = {Ability(KX_DATA_FMT_NV21), Ability(KX_DATA_FMT_RGB565)};
constexpr KxCameraAbility kH264Abilities[] = {Ability(KX_DATA_FMT_H264)};
constexpr KxCameraAbility kH265Abilities[] = {Ability(KX_DATA_FMT_H265)};

constexpr KxExtendInfo kRawInfos[] = {{"model", 0, "virtual camera (raw)", 0}, {"orientation", 0, "0", 0}};
constexpr KxExtendInfo kH264Infos[] = {{"model", 0, "virtual camera (H.264)", 0}, {"orientation", 0, "0", 0}};
constexpr KxExtendInfo kH265Infos[] = {{"model", 0, "virtual camera (H.265)", 0}, {"orientation", 0, "0", 0}};

std::span<const KxCameraAbility> AbilitiesOf(CameraKind kind)
{
    switch (kind) {
    case CameraKind::kH264:
        return kH264Abilities;
    case CameraKind::kH265:
        return kH265Abilities;
    case CameraKind::kRaw:
        break;
    }
    return kRawAbilities;
}

std::span<const KxExtendInfo> InfosOf(CameraKind kind)
{
    switch (kind) {
    case CameraKind::kH264:
        return kH264Infos;
    case CameraKind::kH265:
        return kH265Infos;
    case CameraKind::kRaw:
        break;
    }
    return kRawInfos;
}

} // namespace

bool OffersRate(uint32_t fps)
{
    return std::any_of(std::begin(kFpsRanges), std::end(kFpsRanges),
                       [fps](const KxFpsRange &r) { return fps >= r.min && fps <= r.max; });
}

bool OffersSize(uint32_t width, uint32_t height)
{
    return std::any_of(std::begin(kSizes), std::end(kSizes),
                       [&](const KxPictureSize &s) { return s.width == width && s.height == height; });
}

bool OffersFormat(CameraKind kind, uint32_t dataFmt)
{
    const auto abilities = AbilitiesOf(kind);
    return std::any_of(abilities.begin(), abilities.end(),
                       [dataFmt](const KxCameraAbility &a) { return a.dataFmt == dataFmt; });
}

Catalog::Catalog(std::vector<CameraEntry> cameras) : cameras_(std::move(cameras))
{
    items_.reserve(cameras_.size());
    for (const CameraEntry &camera : cameras_) {
        const auto abilities = AbilitiesOf(camera.kind);
        const auto infos = InfosOf(camera.kind);
        items_.push_back({camera.id.c_str(), static_cast<uint32_t>(camera.id.size()), 0, abilities.data(),
                          static_cast<uint32_t>(abilities.size()), 0, infos.data(), static_cast<uint32_t>(infos.size()),
                          0});
    }
}

} // namespace kxvcam
