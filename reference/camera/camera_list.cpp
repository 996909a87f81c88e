// SPDX-License-Identifier: Apache-2.0
// Parsing of the virtual camera library's environment settings.
#include "camera_list.h"

#include <algorithm>
#include <charconv>

namespace kxvcam {
namespace {

constexpr std::chrono::milliseconds kDefaultReportDelay{100};
constexpr uint32_t kMaxReportDelayMs = 60000;

std::string_view Trim(std::string_view text)
{
    const auto blank = [](char c) { return c == ' ' || c == '\t'; };
    while (!text.empty() && blank(text.front())) {
        text.remove_prefix(1);
    }
    while (!text.empty() && blank(text.back())) {
        text.remove_suffix(1);
    }
    return text;
}

// The id ends up verbatim in JSON text and log lines, so it stays plain.
bool IsIdChar(char c)
{
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '.' || c == '_' ||
           c == '-';
}

std::optional<CameraKind> KindOf(std::string_view name)
{
    if (name == "raw") {
        return CameraKind::kRaw;
    }
    if (name == "h264") {
        return CameraKind::kH264;
    }
    if (name == "h265") {
        return CameraKind::kH265;
    }
    return std::nullopt;
}

std::optional<uint32_t> ParseDecimal(std::string_view text)
{
    uint32_t value = 0;
    const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (text.empty() || ec != std::errc() || end != text.data() + text.size()) {
        return std::nullopt;
    }
    return value;
}

} // namespace

std::vector<CameraEntry> DefaultCameras()
{
    return {{"0", CameraKind::kRaw}, {"1", CameraKind::kH264}, {"2", CameraKind::kH265}};
}

std::optional<std::vector<CameraEntry>> ParseCameraList(std::string_view text, std::string &error)
{
    std::vector<CameraEntry> cameras;
    while (true) {
        const size_t comma = text.find(',');
        const std::string_view entry = Trim(text.substr(0, comma));
        const size_t colon = entry.find(':');
        if (colon == std::string_view::npos) {
            error = "entry '" + std::string(entry) + "' is not ID:KIND";
            return std::nullopt;
        }
        const std::string_view id = Trim(entry.substr(0, colon));
        const std::string_view kindName = Trim(entry.substr(colon + 1));
        if (id.empty() || id.size() > kMaxIdLength || !std::all_of(id.begin(), id.end(), IsIdChar)) {
            error = "camera id '" + std::string(id) + "' must be 1 to 64 of A-Z a-z 0-9 . _ -";
            return std::nullopt;
        }
        const std::optional<CameraKind> kind = KindOf(kindName);
        if (!kind) {
            error = "camera kind '" + std::string(kindName) + "' is not raw, h264 or h265";
            return std::nullopt;
        }
        if (std::any_of(cameras.begin(), cameras.end(), [&](const CameraEntry &c) { return c.id == id; })) {
            error = "camera id '" + std::string(id) + "' appears twice";
            return std::nullopt;
        }
        if (cameras.size() == kMaxCameras) {
            error = "more than 16 cameras";
            return std::nullopt;
        }
        cameras.push_back({std::string(id), *kind});
        if (comma == std::string_view::npos) {
            return cameras;
        }
        text.remove_prefix(comma + 1);
    }
}

std::optional<StatusReport> ParseStatusReport(std::string_view text, std::string &error)
{
    text = Trim(text);
    const size_t at = text.find('@');
    const std::optional<uint32_t> status = ParseDecimal(Trim(text.substr(0, at)));
    if (!status) {
        error = "status '" + std::string(text.substr(0, at)) + "' is not a decimal number";
        return std::nullopt;
    }
    if (at == std::string_view::npos) {
        return StatusReport{*status, kDefaultReportDelay};
    }
    const std::optional<uint32_t> delay = ParseDecimal(Trim(text.substr(at + 1)));
    if (!delay || *delay > kMaxReportDelayMs) {
        error = "delay '" + std::string(text.substr(at + 1)) + "' is not 0 to 60000 milliseconds";
        return std::nullopt;
    }
    return StatusReport{*status, std::chrono::milliseconds(*delay)};
}

} // namespace kxvcam
