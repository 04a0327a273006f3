#include "probe/params.h"

#include <algorithm>
#include <charconv>
#include <system_error>
#include <vector>

namespace probe {
namespace {

constexpr const char *SEPARATORS = "; \t\r\n";

struct assignment_t {
    const config_option_t *option;
    std::string text;
    int32_t number; // of a CONFIG_INT option
};

std::vector<std::string> items_of(const std::string &params)
{
    std::vector<std::string> items;
    size_t begin = params.find_first_not_of(SEPARATORS);
    while (begin != std::string::npos) {
        const size_t end = std::min(params.find_first_of(SEPARATORS, begin), params.size());
        items.push_back(params.substr(begin, end - begin));
        begin = params.find_first_not_of(SEPARATORS, end);
    }
    return items;
}

bool read_number(const std::string &text, int32_t *number, std::string *why)
{
    const char *end = text.data() + text.size();
    const auto [rest, result] = std::from_chars(text.data(), end, *number);
    if (result == std::errc::result_out_of_range) {
        *why = "the number does not fit 32 bits";
        return false;
    }
    if (result != std::errc() || rest != end) {
        *why = "not a number";
        return false;
    }
    return true;
}

bool read_item(const std::string &item, const config_option_t *options, assignment_t *out, std::string *why)
{
    const size_t equals = item.find('=');
    if (equals == std::string::npos) {
        *why = "KEY=VALUE expected";
        return false;
    }
    out->option = find_option(options, item.substr(0, equals));
    if (out->option == nullptr) {
        *why = "no such parameter";
        return false;
    }
    out->text = item.substr(equals + 1);
    return out->option->kind != CONFIG_INT || read_number(out->text, &out->number, why);
}

} // namespace

const config_option_t *find_option(const config_option_t *options, const std::string &name)
{
    for (const config_option_t *option = options; option->kind != CONFIG_END; option++) {
        if (name == option->name) {
            return option;
        }
    }
    return nullptr;
}

bool params_parser_t::parse(const std::string &params, const config_option_t *options, std::string *error)
{
    std::vector<assignment_t> assignments;
    for (const std::string &item : items_of(params)) {
        assignment_t assignment = {};
        std::string why;
        if (!read_item(item, options, &assignment, &why)) {
            error->assign("parameter \"").append(item).append("\": ").append(why);
            return false;
        }
        assignments.push_back(assignment);
    }
    for (const assignment_t &assignment : assignments) {
        if (assignment.option->kind == CONFIG_INT) {
            *static_cast<int32_t *>(assignment.option->target) = assignment.number;
        } else {
            *static_cast<char **>(assignment.option->target) = keep(assignment.text);
        }
    }
    return true;
}

std::optional<std::string> find_parameter(const std::string &params, const std::string &key)
{
    std::optional<std::string> value;
    for (const std::string &item : items_of(params)) {
        value = item.starts_with(key + "=") ? item.substr(key.size() + 1) : value;
    }
    return value;
}

char *params_parser_t::keep(const std::string &value)
{
    const auto found = std::find(kept_.begin(), kept_.end(), value);
    return found != kept_.end() ? found->data() : kept_.emplace_back(value).data();
}

} // namespace probe
