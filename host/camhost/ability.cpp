// SPDX-License-Identifier: Apache-2.0
// Reads a camera's ability text into what camhost lists and checks against.
#include "ability.h"

#include <algorithm>
#include <set>

namespace camhost {

namespace {

using nlohmann::json;

// Builds the document like the library's own parser, except for a key
// repeated in one object, whose values gather into an array.
class MergingSax : public nlohmann::json_sax<json> {
public:
    json root;

    bool null() override { return Put(nullptr); }
    bool boolean(bool value) override { return Put(value); }
    bool number_integer(number_integer_t value) override { return Put(value); }
    bool number_unsigned(number_unsigned_t value) override { return Put(value); }
    bool number_float(number_float_t value, const string_t &) override { return Put(value); }
    bool string(string_t &value) override { return Put(value); }
    bool binary(binary_t &value) override { return Put(json::binary(value)); }
    bool start_object(std::size_t) override { return Open(json::object()); }
    bool start_array(std::size_t) override { return Open(json::array()); }
    bool end_object() override { return Close(); }
    bool end_array() override { return Close(); }
    bool key(string_t &value) override
    {
        key_ = value;
        return true;
    }
    bool parse_error(std::size_t, const std::string &, const nlohmann::detail::exception &) override { return false; }

private:
    struct Level {
        json *value;
        std::set<std::string> repeated; // keys already turned into arrays
    };

    json *Place(json value)
    {
        if (stack_.empty()) {
            root = std::move(value);
            return &root;
        }
        Level &top = stack_.back();
        if (top.value->is_array()) {
            top.value->push_back(std::move(value));
            return &top.value->back();
        }
        json &object = *top.value;
        if (!object.contains(key_)) {
            return &(object[key_] = std::move(value));
        }
        if (top.repeated.insert(key_).second) {
            object[key_] = json::array({std::move(object[key_])});
        }
        object[key_].push_back(std::move(value));
        return &object[key_].back();
    }
    bool Put(json value)
    {
        Place(std::move(value));
        return true;
    }
    bool Open(json value)
    {
        json *placed = Place(std::move(value));
        stack_.push_back({placed, {}});
        return true;
    }
    bool Close()
    {
        stack_.pop_back();
        return true;
    }

    std::string key_;
    std::vector<Level> stack_;
};

// A value that may be one object or an array of them.
template <typename Visit> void ForEach(const json &value, Visit &&visit)
{
    if (value.is_array()) {
        for (const auto &item : value) {
            visit(item);
        }
    } else if (!value.is_null()) {
        visit(value);
    }
}

void ReadRanges(const json &entry, Offers &offers)
{
    ForEach(entry.value("supportSizes", json()), [&](const json &size) {
        if (size.contains("width") && size.contains("height")) {
            const std::pair<int, int> wh{size["width"].get<int>(), size["height"].get<int>()};
            if (std::find(offers.sizes.begin(), offers.sizes.end(), wh) == offers.sizes.end()) {
                offers.sizes.push_back(wh);
            }
        }
    });
    ForEach(entry.value("supportFpsRange", json()), [&](const json &range) {
        if (range.contains("min") && range.contains("max")) {
            const std::pair<int, int> mm{range["min"].get<int>(), range["max"].get<int>()};
            if (std::find(offers.fpsRanges.begin(), offers.fpsRanges.end(), mm) == offers.fpsRanges.end()) {
                offers.fpsRanges.push_back(mm);
            }
        }
    });
}

} // namespace

json ParseAbility(const std::string &text)
{
    MergingSax sax;
    if (!json::sax_parse(text, &sax)) {
        return json(json::value_t::discarded);
    }
    return std::move(sax.root);
}

Offers ReadOffers(const json &ability)
{
    Offers offers;
    if (!ability.is_object()) {
        return offers;
    }
    ForEach(ability.value("frameAbility", json()), [&](const json &entry) {
        ForEach(entry.value("supportFormats", json()),
                [&](const json &format) { offers.formats.push_back(format.get<std::string>()); });
        ReadRanges(entry, offers);
    });
    const json streams = ability.value("streamAbility", json::object()).value("supportStreamTypes", json::object());
    for (const auto &[codec, entry] : streams.items()) {
        offers.formats.push_back(codec);
        ReadRanges(entry, offers);
    }
    return offers;
}

std::string Unoffered(const Offers &offers, const std::string &format, int width, int height, int fps)
{
    std::string why;
    auto add = [&](const std::string &text) { why += (why.empty() ? "" : "; ") + text; };
    if (std::find(offers.formats.begin(), offers.formats.end(), format) == offers.formats.end()) {
        std::string list;
        for (const auto &f : offers.formats) {
            list += (list.empty() ? "" : ", ") + f;
        }
        add("format " + format + " not offered (offers " + list + ")");
    }
    if (std::find(offers.sizes.begin(), offers.sizes.end(), std::pair{width, height}) == offers.sizes.end()) {
        std::string list;
        for (const auto &[w, h] : offers.sizes) {
            list += (list.empty() ? "" : ", ") + std::to_string(w) + "x" + std::to_string(h);
        }
        add("size " + std::to_string(width) + "x" + std::to_string(height) + " not offered (offers " + list + ")");
    }
    const bool rateOk = std::any_of(offers.fpsRanges.begin(), offers.fpsRanges.end(),
                                    [&](const auto &range) { return fps >= range.first && fps <= range.second; });
    if (!rateOk) {
        std::string list;
        for (const auto &[lo, hi] : offers.fpsRanges) {
            list += (list.empty() ? "" : ", ") +
                    (lo == hi ? std::to_string(lo) : std::to_string(lo) + "-" + std::to_string(hi));
        }
        add(std::to_string(fps) + " fps not offered (offers " + list + ")");
    }
    return why;
}

} // namespace camhost
