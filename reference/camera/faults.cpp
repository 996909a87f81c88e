// SPDX-License-Identifier: Apache-2.0
// Fault knobs of the virtual camera.
#include "faults.h"

#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>

namespace kxvcam {
namespace {

std::optional<uint64_t> Number(const char *name, uint64_t max)
{
    const char *text = std::getenv(name);
    if (text == nullptr || *text == '\0') {
        return std::nullopt;
    }
    uint64_t value = 0;
    const char *end = text + std::strlen(text);
    const auto [last, ec] = std::from_chars(text, end, value);
    if (ec != std::errc() || last != end || value > max) {
        std::fprintf(stderr, "libtalvocamerahandler: %s: \"%s\" is not a number from 0 to %llu; fault off\n", name,
                     text, static_cast<unsigned long long>(max));
        return std::nullopt;
    }
    return value;
}

std::mutex g_listenerMutex;
KxServiceListener g_listener{};

} // namespace

Faults Faults::FromEnvironment()
{
    Faults faults;
    faults.dropPercent = static_cast<uint32_t>(Number("KXVCAM_DROP_PERCENT", 100).value_or(0));
    faults.stall = std::chrono::milliseconds(Number("KXVCAM_STALL_MS", 60000).value_or(0));
    faults.disconnectAt = Number("KXVCAM_DISCONNECT_AT", UINT64_MAX);
    faults.lengthShortBy = static_cast<uint32_t>(Number("KXVCAM_BAD_LENGTH", 4096).value_or(0));
    return faults;
}

void KeepListenerForFaults(const KxServiceListener &listener)
{
    const std::lock_guard lock(g_listenerMutex);
    g_listener = listener;
}

void ReportStatusForFaults(const std::string &id, uint32_t status)
{
    KxUpdateServiceStatus report = nullptr;
    {
        const std::lock_guard lock(g_listenerMutex);
        report = g_listener.updateServiceStatus;
    }
    if (report != nullptr) {
        report(id.c_str(), static_cast<uint32_t>(id.size()), status);
    }
}

} // namespace kxvcam
