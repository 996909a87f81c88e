// SPDX-License-Identifier: Apache-2.0
// Which cameras the virtual camera library offers, and its environment.
//
// TALVO_VCAM_CAMERAS=ID:KIND[,ID:KIND...]
//   ID    1 to 64 characters of A-Z a-z 0-9 . _ -, unique in the list
//   KIND  raw   frames in NV21 (dataFmt 17) or RGB565 (dataFmt 4)
//         h264  an H.264 stream the camera encodes itself (dataFmt 1)
//         h265  an H.265 stream the camera encodes itself (dataFmt 2)
//   At most 16 entries; blanks around tokens are ignored. Unset or empty
//   means "0:raw,1:h264,2:h265". An invalid value is reported on stderr and
//   makes the library refuse its getter, so a host fails to load it.
//
// TALVO_VCAM_REPORT_STATUS=STATUS[@DELAY_MS]
//   Read at every RegisterListener: DELAY_MS (default 100, at most 60000)
//   milliseconds after registration a library thread reports service status
//   STATUS (decimal, e.g. 1 online, 2 offline) for every camera, in list
//   order. Unset or empty: no report. Invalid: reported on stderr, no report.
#ifndef KXCAMERA_VENDOR_CAMERA_CAMERA_LIST_H
#define KXCAMERA_VENDOR_CAMERA_CAMERA_LIST_H

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kxvcam {

inline constexpr char kCamerasEnv[] = "TALVO_VCAM_CAMERAS";
inline constexpr char kReportEnv[] = "TALVO_VCAM_REPORT_STATUS";
inline constexpr size_t kMaxCameras = 16;
inline constexpr size_t kMaxIdLength = 64;

enum class CameraKind : uint8_t { kRaw, kH264, kH265 };

struct CameraEntry {
    std::string id;
    CameraKind kind;

    bool operator==(const CameraEntry &) const = default;
};

struct StatusReport {
    uint32_t status;
    std::chrono::milliseconds delay;

    bool operator==(const StatusReport &) const = default;
};

std::vector<CameraEntry> DefaultCameras();

// Parses the TALVO_VCAM_CAMERAS syntax; on failure returns nothing and says
// why in `error`.
std::optional<std::vector<CameraEntry>> ParseCameraList(std::string_view text, std::string &error);

// Parses the TALVO_VCAM_REPORT_STATUS syntax (not empty).
std::optional<StatusReport> ParseStatusReport(std::string_view text, std::string &error);

} // namespace kxvcam

#endif // KXCAMERA_VENDOR_CAMERA_CAMERA_LIST_H
