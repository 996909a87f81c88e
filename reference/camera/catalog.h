// SPDX-License-Identifier: Apache-2.0
// The capability records of the virtual cameras and what they offer.
#ifndef KXCAMERA_VENDOR_CAMERA_CATALOG_H
#define KXCAMERA_VENDOR_CAMERA_CATALOG_H

#include <span>
#include <vector>

#include "camera_list.h"
#include "kxcamera/camera_handler.h"

namespace kxvcam {

// Every camera offers the same rates and sizes; only the formats differ.
bool OffersRate(uint32_t fps);
bool OffersSize(uint32_t width, uint32_t height);
bool OffersFormat(CameraKind kind, uint32_t dataFmt);

// The capability array handed to GetCameraCapability. Built once; its
// records and everything they point to stay put while the object lives.
class Catalog {
public:
    explicit Catalog(std::vector<CameraEntry> cameras);
    Catalog(const Catalog &) = delete;
    Catalog &operator=(const Catalog &) = delete;

    const std::vector<CameraEntry> &cameras() const { return cameras_; }
    KxCameraCapability *items() { return items_.data(); }
    uint32_t count() const { return static_cast<uint32_t>(items_.size()); }

private:
    const std::vector<CameraEntry> cameras_;
    std::vector<KxCameraCapability> items_;
};

} // namespace kxvcam

#endif // KXCAMERA_VENDOR_CAMERA_CATALOG_H
