// SPDX-License-Identifier: Apache-2.0
// The two suites: each loads a vendor library by path, the way the plugin
// would, and checks it against what the plugin relies on.
#ifndef KXCAMERA_TOOLS_COMPLIANCE_CHECKS_H
#define KXCAMERA_TOOLS_COMPLIANCE_CHECKS_H

#include <cstdint>
#include <string>

#include "report.h"

namespace kxcompliance {

struct Options {
    uint32_t frames = 30;           // frames of the timing and encoding runs
    uint32_t combinationFrames = 3; // frames of every format x size x rate
};

void CheckCameraLibrary(Report &report, const std::string &path, const Options &options);
void CheckEncoderLibrary(Report &report, const std::string &path, const Options &options);

// Opens a vendor library and calls its getter into `table`; an empty result
// means success, anything else is why it failed. The library stays loaded
// for the life of the process, as the vendor's threads may outlive a check.
std::string LoadVendorTable(const std::string &path, const char *getter, void *table);

} // namespace kxcompliance

#endif // KXCAMERA_TOOLS_COMPLIANCE_CHECKS_H
