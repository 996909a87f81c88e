// SPDX-License-Identifier: Apache-2.0
// State of the virtual camera library.
#include "camera_module.h"

#include <cstdio>
#include <cstdlib>

#include "stream_encoder.h"

namespace kxvcam {

CameraModule &CameraModule::Get()
{
    static CameraModule module;
    return module;
}

CameraModule::CameraModule()
{
    std::vector<CameraEntry> entries = DefaultCameras();
    const char *text = std::getenv(kCamerasEnv);
    if (text != nullptr && *text != '\0') {
        std::string error;
        auto parsed = ParseCameraList(text, error);
        if (!parsed) {
            std::fprintf(stderr, "libtalvocamerahandler: %s: %s\n", kCamerasEnv, error.c_str());
            return;
        }
        entries = std::move(*parsed);
    }
    catalog_.emplace(std::move(entries));
    for (const CameraEntry &camera : catalog_->cameras()) {
        cameras_.push_back(std::make_unique<VirtualCamera>(camera));
    }
}

CameraModule::~CameraModule()
{
    StopReporter();
    for (auto &camera : cameras_) {
        camera->Close();
    }
    cameras_.clear();
    ReleaseStreamEncoders();
}

VirtualCamera *CameraModule::Find(const char *id, uint32_t idLen)
{
    if (id == nullptr) {
        return nullptr;
    }
    const std::string_view wanted(id, idLen);
    for (auto &camera : cameras_) {
        if (camera->entry().id == wanted) {
            return camera.get();
        }
    }
    return nullptr;
}

void CameraModule::StopReporter()
{
    {
        const std::lock_guard lock(reporterMutex_);
        reporterStop_ = true;
    }
    reporterWake_.notify_all();
    if (reporter_.joinable()) {
        reporter_.join();
    }
    const std::lock_guard lock(reporterMutex_);
    reporterStop_ = false;
}

void CameraModule::RegisterListener(const KxServiceListener &listener)
{
    // A new registration replaces the old one, and a report still pending
    // for the old listener is dropped.
    StopReporter();
    const char *text = std::getenv(kReportEnv);
    if (text == nullptr || *text == '\0' || listener.updateServiceStatus == nullptr) {
        return;
    }
    std::string error;
    const std::optional<StatusReport> report = ParseStatusReport(text, error);
    if (!report) {
        std::fprintf(stderr, "libtalvocamerahandler: %s: %s\n", kReportEnv, error.c_str());
        return;
    }
    reporter_ = std::thread(&CameraModule::Report, this, listener, *report);
}

void CameraModule::Report(KxServiceListener listener, StatusReport report)
{
    {
        std::unique_lock lock(reporterMutex_);
        if (reporterWake_.wait_for(lock, report.delay, [this] { return reporterStop_; })) {
            return;
        }
    }
    for (const CameraEntry &camera : catalog_->cameras()) {
        listener.updateServiceStatus(camera.id.c_str(), static_cast<uint32_t>(camera.id.size()), report.status);
    }
}

} // namespace kxvcam
