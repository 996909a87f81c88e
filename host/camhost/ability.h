// SPDX-License-Identifier: Apache-2.0
// A camera's ability text as this host reads it: every entry kept, and what
// the camera offers, to say why an open was refused.
#pragma once

#include <nlohmann/json.hpp>

#include <string>
#include <vector>

namespace camhost {

// The text parsed with a key repeated in one object (one "frameAbility" per
// format) turned into an array of all its values, where a plain parser keeps
// only the last. Discarded (is_discarded()) when the text is not JSON.
nlohmann::json ParseAbility(const std::string &text);

struct Offers {
    std::vector<std::string> formats; // "NV21", "RGB565", "H264", "H265"
    std::vector<std::pair<int, int>> sizes;
    std::vector<std::pair<int, int>> fpsRanges; // min, max
};
Offers ReadOffers(const nlohmann::json &ability);

// Which of format, size and rate the offers lack, with what they hold
// instead; empty when all three are offered.
std::string Unoffered(const Offers &offers, const std::string &format, int width, int height, int fps);

} // namespace camhost
