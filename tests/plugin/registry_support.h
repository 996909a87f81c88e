// SPDX-License-Identifier: Apache-2.0
// Helpers of the registry and loading suites: vendor capability records
// owned by the test, and a framework whose AddService records what it is
// told.
#pragma once

#include <cstdint>
#include <deque>
#include <initializer_list>
#include <string>
#include <vector>

#include "kxcamera/plugin.h"
#include "registry/registry.h"

namespace kxtest {

// One vendor camera description; the record it hands out points into this
// object, so it must outlive every use of the record.
class CapabilityDraft {
public:
    explicit CapabilityDraft(std::string id) : id_(std::move(id)) {}

    CapabilityDraft &Ability(uint32_t dataFmt, std::vector<KxFpsRange> ranges, std::vector<KxPictureSize> sizes);
    CapabilityDraft &Extend(std::string key, std::string value);

    // The record as a vendor would report it, rebuilt from the draft on
    // every call.
    KxCameraCapability &Record();
    // Entries of the record, for tests that break one on purpose.
    std::vector<KxCameraAbility> &Abilities() { return abilities_; }
    std::vector<KxExtendInfo> &ExtendInfos() { return extendInfos_; }

private:
    std::string id_;
    std::deque<std::vector<KxFpsRange>> ranges_;
    std::deque<std::vector<KxPictureSize>> sizes_;
    std::deque<std::string> texts_;
    std::vector<KxCameraAbility> abilities_;
    std::vector<KxExtendInfo> extendInfos_;
    KxCameraCapability record_{};
};

// An array of vendor records, the shape GetCameraCapability reports.
std::vector<KxCameraCapability> CapabilityArray(std::initializer_list<CapabilityDraft *> drafts);

// What the framework's AddService was given, copied during the call.
struct Announced {
    const char *idPointer;
    std::string id;
    uint32_t idLen;
    uint32_t serviceType;
    KxServiceOps ops;
};

// A framework service callback table whose AddService records into
// AnnouncedServices() (cleared here); DeleteService must never be called.
KxServiceCallbacks RecordingCallbacks();
std::vector<Announced> &AnnouncedServices();

// Registry contents in list order, walked from the head the way the plugin does.
std::vector<const KxCameraService *> RegisteredServices();

// The ability text BuildCameraAbilityString gives for a record in a buffer
// of size bytes, with its status in *status.
std::string AbilityText(const KxCameraCapability &capability, int32_t size, int32_t *status);

} // namespace kxtest
