// JSON from outside (inside of forms/): what RFC 8259 allows, without repeated names, of bounded depth and size.
#pragma once

#include "forms/forms.h"

#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kestrune::manager {

using json_t = nlohmann::ordered_json; // answers keep the order of the document, references their own

// Throws form_error_t.
json_t parse_strictly(std::string_view text);

// UTF-8 without control characters (C0, DEL, C1). Throws form_error_t with the field.
void check_text(const std::string &text, size_t size_max, const std::string &field);

// The fields of one object. Each is taken once; what nobody took is unknown. All throw form_error_t.
class fields_t {
public:
    explicit fields_t(const json_t &object);

    // Nothing when it is not there. null is a value like any other, and of the wrong type.
    const json_t *take(const char *name);
    const json_t &take_required(const char *name);
    std::optional<bool> take_bool(const char *name);
    std::optional<uint32_t> take_number(const char *name, uint32_t least, uint32_t most);
    std::optional<std::string> take_string(const char *name, size_t size_max);
    // An array of 1 to `most` strings without control characters.
    std::optional<std::vector<std::string>> take_strings(const char *name, size_t most, size_t size_max);
    void finish() const;

private:
    const json_t &object_;
    std::vector<std::string> taken_;
};

} // namespace kestrune::manager
