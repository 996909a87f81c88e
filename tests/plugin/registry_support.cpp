// SPDX-License-Identifier: Apache-2.0
#include "registry_support.h"

#include <gtest/gtest.h>

namespace kxtest {

CapabilityDraft &CapabilityDraft::Ability(uint32_t dataFmt, std::vector<KxFpsRange> ranges,
                                        std::vector<KxPictureSize> sizes)
{
    auto &storedRanges = ranges_.emplace_back(std::move(ranges));
    auto &storedSizes = sizes_.emplace_back(std::move(sizes));
    KxCameraAbility ability{};
    ability.supportFpsRanges = storedRanges.data();
    ability.fpsRangeNum = static_cast<uint32_t>(storedRanges.size());
    ability.supportSizes = storedSizes.data();
    ability.sizeNum = static_cast<uint32_t>(storedSizes.size());
    ability.dataFmt = dataFmt;
    abilities_.push_back(ability);
    return *this;
}

CapabilityDraft &CapabilityDraft::Extend(std::string key, std::string value)
{
    const char *storedKey = texts_.emplace_back(std::move(key)).c_str();
    const char *storedValue = texts_.emplace_back(std::move(value)).c_str();
    KxExtendInfo info{};
    info.key = storedKey;
    info.value = storedValue;
    extendInfos_.push_back(info);
    return *this;
}

KxCameraCapability &CapabilityDraft::Record()
{
    record_ = KxCameraCapability{};
    record_.id = id_.c_str();
    record_.idLen = static_cast<uint32_t>(id_.size());
    record_.abilities = abilities_.data();
    record_.abilityNum = static_cast<uint32_t>(abilities_.size());
    record_.extendInfos = extendInfos_.data();
    record_.extendInfoNum = static_cast<uint32_t>(extendInfos_.size());
    return record_;
}

std::vector<KxCameraCapability> CapabilityArray(std::initializer_list<CapabilityDraft *> drafts)
{
    std::vector<KxCameraCapability> array;
    for (CapabilityDraft *draft : drafts) {
        array.push_back(draft->Record());
    }
    return array;
}

namespace {

int32_t RecordAddService(const KxServiceIdDesc *info, const KxServiceOps *ops)
{
    Announced announced{};
    announced.idPointer = info->id;
    announced.id = info->id == nullptr ? std::string() : std::string(info->id);
    announced.idLen = info->idLen;
    announced.serviceType = info->serviceType;
    announced.ops = *ops;
    AnnouncedServices().push_back(announced);
    // The plugin must not care what the framework answers.
    return -77;
}

int32_t FailDeleteService(const KxServiceIdDesc *)
{
    ADD_FAILURE() << "DeleteService is stored, never called";
    return 0;
}

void ThirdEntry() {}

} // namespace

KxServiceCallbacks RecordingCallbacks()
{
    AnnouncedServices().clear();
    return KxServiceCallbacks{RecordAddService, FailDeleteService, ThirdEntry};
}

std::vector<Announced> &AnnouncedServices()
{
    static std::vector<Announced> announced;
    return announced;
}

std::vector<const KxCameraService *> RegisteredServices()
{
    std::vector<const KxCameraService *> records;
    TALVODllHead &list = g_cameraModule.serviceList;
    auto *head = reinterpret_cast<TALVODllNode *>(&list);
    for (TALVODllNode *node = list.first; node != nullptr && node != head; node = node->next) {
        records.push_back(static_cast<const KxCameraService *>(node->data));
    }
    return records;
}

std::string AbilityText(const KxCameraCapability &capability, int32_t size, int32_t *status)
{
    std::string buffer(static_cast<size_t>(size), '\x7f');
    *status = BuildCameraAbilityString(&capability, buffer.data(), size);
    return std::string(buffer.c_str());
}

} // namespace kxtest
