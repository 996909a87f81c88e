// SPDX-License-Identifier: Apache-2.0
// State of the virtual camera library: its catalogue, its cameras, the
// listener the host registered, and the status reporter.
#ifndef KXCAMERA_VENDOR_CAMERA_CAMERA_MODULE_H
#define KXCAMERA_VENDOR_CAMERA_CAMERA_MODULE_H

#include <condition_variable>
#include <memory>
#include <mutex>
#include <optional>
#include <string_view>
#include <thread>
#include <vector>

#include "catalog.h"
#include "virtual_camera.h"

namespace kxvcam {

class CameraModule {
public:
    // Built on first use, from the environment; torn down when the library
    // is unloaded, stopping every stream and the reporter first.
    static CameraModule &Get();
    ~CameraModule();

    // False when TALVO_VCAM_CAMERAS could not be read; nothing is offered.
    bool usable() const { return catalog_.has_value(); }
    Catalog &catalog() { return *catalog_; }
    VirtualCamera *Find(const char *id, uint32_t idLen);
    std::vector<std::unique_ptr<VirtualCamera>> &cameras() { return cameras_; }

    void RegisterListener(const KxServiceListener &listener);

private:
    CameraModule();
    void StopReporter();
    void Report(KxServiceListener listener, StatusReport report);

    std::optional<Catalog> catalog_;
    std::vector<std::unique_ptr<VirtualCamera>> cameras_;

    std::mutex reporterMutex_;
    std::condition_variable reporterWake_;
    bool reporterStop_ = false;
    std::thread reporter_;
};

} // namespace kxvcam

#endif // KXCAMERA_VENDOR_CAMERA_CAMERA_MODULE_H
