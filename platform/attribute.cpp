// SPDX-License-Identifier: Apache-2.0
// GetAttribute: one top-level value of a JSON object, as text.
#include <cstring>
#include <string>

#include <nlohmann/json.hpp>

#include "internal.h"

namespace {

using Json = nlohmann::json;

// Strings lose their quotes, null becomes empty text, everything else is its
// compact JSON form (numbers in their shortest exact text, true/false).
std::string ValueText(const Json &value)
{
    switch (value.type()) {
    case Json::value_t::string:
        return value.get_ref<const std::string &>();
    case Json::value_t::null:
        return {};
    default:
        return value.dump(-1, ' ', false, Json::error_handler_t::replace);
    }
}

} // namespace

bool GetAttribute(const char *text, const char *key, char *value, uint32_t valueSize)
{
    if (value == nullptr || valueSize == 0) {
        return false;
    }
    value[0] = '\0';
    if (text == nullptr || key == nullptr) {
        return false;
    }
    // Without exceptions: malformed text comes back as a discarded value.
    const Json document = Json::parse(text, nullptr, false);
    if (!document.is_object()) {
        return false;
    }
    const auto found = document.find(key);
    if (found == document.end()) {
        return false;
    }
    const std::string rendered = ValueText(*found);
    if (rendered.size() >= valueSize) {
        return false;
    }
    std::memcpy(value, rendered.c_str(), rendered.size() + 1);
    return true;
}
