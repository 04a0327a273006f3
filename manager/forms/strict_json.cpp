#include "forms/strict_json.h"

#include <algorithm>
#include <set>

namespace kestrune::manager {
namespace {

// A reference may have 16 levels, and lies within the body's object.
constexpr int DEPTH_MAX = 17;
// Far above what the limits of all fields admit. An object looks its names up one by one.
constexpr size_t NAMES_MAX = 4096;

// Told of each element while the text is read.
class checker_t {
public:
    bool operator()(int depth, json_t::parse_event_t event, const json_t &element)
    {
        if (event == json_t::parse_event_t::object_start || event == json_t::parse_event_t::array_start) {
            if (depth >= DEPTH_MAX) {
                throw form_error_t("", "the JSON has too many levels");
            }
            names_.resize(static_cast<size_t>(depth) + 1);
            names_.back().clear();
        } else if (event == json_t::parse_event_t::key) {
            note_name(names_.at(static_cast<size_t>(depth) - 1), element.get<std::string>());
        }
        return true;
    }

private:
    void note_name(std::set<std::string> &names, const std::string &name)
    {
        if (!names.insert(name).second) {
            throw form_error_t(printable(name), "the field stands there twice");
        }
        if (++count_ > NAMES_MAX) {
            throw form_error_t("", "the JSON has too many fields");
        }
    }

    std::vector<std::set<std::string>> names_; // of the object at each depth
    size_t count_ = 0;
};

bool has_control_character(const std::string &text)
{
    for (size_t i = 0; i < text.size(); ++i) {
        const auto c = static_cast<unsigned char>(text[i]);
        const bool c1 = c == 0xC2 && i + 1 < text.size() && static_cast<unsigned char>(text[i + 1]) < 0xA0;
        if (c < 0x20 || c == 0x7F || c1) {
            return true;
        }
    }
    return false;
}

std::string text_of_string(const json_t &value, size_t size_max, const std::string &field)
{
    if (!value.is_string()) {
        throw form_error_t(field, field + " is to be a string");
    }
    auto text = value.get<std::string>();
    check_text(text, size_max, field);
    return text;
}

} // namespace

json_t parse_strictly(std::string_view text)
{
    try {
        return json_t::parse(text, checker_t());
    } catch (const json_t::parse_error &error) {
        throw form_error_t("", "the JSON is wrong at byte " + std::to_string(error.byte));
    } catch (const json_t::exception &) { // a number that no type holds
        throw form_error_t("", "the JSON is wrong");
    }
}

void check_text(const std::string &text, size_t size_max, const std::string &field)
{
    if (text.size() > size_max) {
        throw form_error_t(field, field + " has more than " + std::to_string(size_max) + " bytes");
    }
    if (has_control_character(text)) {
        throw form_error_t(field, field + " has control characters");
    }
}

fields_t::fields_t(const json_t &object) : object_(object)
{
    if (!object.is_object()) {
        throw form_error_t("", "the body is to be a JSON object");
    }
}

const json_t *fields_t::take(const char *name)
{
    const auto found = object_.find(name);
    if (found == object_.end()) {
        return nullptr;
    }
    taken_.emplace_back(name);
    return &*found;
}

const json_t &fields_t::take_required(const char *name)
{
    const json_t *value = take(name);
    if (value == nullptr) {
        throw form_error_t(name, std::string(name) + " is missing");
    }
    return *value;
}

std::optional<bool> fields_t::take_bool(const char *name)
{
    const json_t *value = take(name);
    if (value == nullptr) {
        return std::nullopt;
    }
    if (!value->is_boolean()) {
        throw form_error_t(name, std::string(name) + " is to be true or false");
    }
    return value->get<bool>();
}

std::optional<uint32_t> fields_t::take_number(const char *name, uint32_t least, uint32_t most)
{
    const json_t *value = take(name);
    if (value == nullptr) {
        return std::nullopt;
    }
    if (!value->is_number_unsigned() || value->get<uint64_t>() < least || value->get<uint64_t>() > most) {
        throw form_error_t(name, std::string(name) + " is to be a whole number from " +
                                     std::to_string(least) + " to " + std::to_string(most));
    }
    return static_cast<uint32_t>(value->get<uint64_t>());
}

std::optional<std::string> fields_t::take_string(const char *name, size_t size_max)
{
    const json_t *value = take(name);
    return value == nullptr ? std::nullopt : std::optional(text_of_string(*value, size_max, name));
}

std::optional<std::vector<std::string>> fields_t::take_strings(const char *name, size_t most, size_t size_max)
{
    const json_t *value = take(name);
    if (value == nullptr) {
        return std::nullopt;
    }
    if (!value->is_array() || value->empty() || value->size() > most) {
        throw form_error_t(name, std::string(name) + " is to be a list of 1 to " + std::to_string(most) +
                                     " strings");
    }
    std::vector<std::string> texts;
    for (const json_t &element : *value) {
        texts.push_back(text_of_string(element, size_max, name + ("[" + std::to_string(texts.size()) + "]")));
    }
    return texts;
}

void fields_t::finish() const
{
    for (const auto &[name, value] : object_.items()) {
        if (std::find(taken_.begin(), taken_.end(), name) == taken_.end()) {
            throw form_error_t(printable(name), "there is no such field");
        }
    }
}

} // namespace kestrune::manager
