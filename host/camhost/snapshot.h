// SPDX-License-Identifier: Apache-2.0
// Decodes an Annex B stream and writes its last picture as a PNG.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace camhost {

// codecType: 0 or 1 H.264, 2 H.265. Returns an empty string on success, else
// what went wrong. width/height receive the picture's size.
std::string WriteSnapshot(const std::vector<uint8_t> &stream, int32_t codecType, const std::string &pngPath, int &width,
                          int &height);

} // namespace camhost
