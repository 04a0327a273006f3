#include "config/toml_table.h"

#include <algorithm>

namespace kestrune::manager {
namespace {

uint32_t line_of(const toml::node &node)
{
    return node.source().begin.line;
}

} // namespace

toml_table_t::toml_table_t(const std::filesystem::path &file, std::string name, const toml::table &table)
    : file_(file), name_(std::move(name)), table_(table)
{
}

void toml_table_t::fail(uint32_t line, const std::string &text) const
{
    throw settings_error_t(file_.string() + ":" + std::to_string(line) + ": " + text);
}

uint32_t toml_table_t::line() const
{
    return line_of(table_);
}

std::string toml_table_t::path_of(std::string_view key) const
{
    return name_.empty() ? printable(key) : name_ + "." + printable(key);
}

void toml_table_t::fail_type(const toml::node &node, std::string_view key, const char *type) const
{
    fail(line_of(node), path_of(key) + " is to be " + type);
}

const toml::node *toml_table_t::take(std::string_view key)
{
    taken_.emplace_back(key);
    return table_.get(key);
}

const toml::table *toml_table_t::take_table(std::string_view key)
{
    const toml::node *node = take(key);
    if (node != nullptr && !node->is_table()) {
        fail_type(*node, key, ("a table, [" + std::string(key) + "]").c_str());
    }
    return node == nullptr ? nullptr : node->as_table();
}

std::vector<const toml::table *> toml_table_t::take_tables(std::string_view key)
{
    std::vector<const toml::table *> tables;
    const toml::node *node = take(key);
    if (node == nullptr) {
        return tables;
    }
    const std::string type = "an array of tables, [[" + std::string(key) + "]]";
    if (!node->is_array_of_tables()) {
        fail_type(*node, key, type.c_str());
    }
    for (const toml::node &element : *node->as_array()) {
        tables.push_back(element.as_table());
    }
    return tables;
}

std::optional<located_t<std::string>> toml_table_t::take_string(std::string_view key)
{
    const toml::node *node = take(key);
    if (node == nullptr) {
        return std::nullopt;
    }
    if (!node->is_string()) {
        fail_type(*node, key, "a string");
    }
    return located_t<std::string>{node->as_string()->get(), line_of(*node)};
}

std::optional<located_t<bool>> toml_table_t::take_bool(std::string_view key)
{
    const toml::node *node = take(key);
    if (node == nullptr) {
        return std::nullopt;
    }
    if (!node->is_boolean()) {
        fail_type(*node, key, "true or false");
    }
    return located_t<bool>{node->as_boolean()->get(), line_of(*node)};
}

std::optional<located_t<uint64_t>> toml_table_t::take_number(std::string_view key, uint64_t least,
                                                             uint64_t most)
{
    const toml::node *node = take(key);
    if (node == nullptr) {
        return std::nullopt;
    }
    const int64_t value = node->is_integer() ? node->as_integer()->get() : -1;
    if (value < 0 || static_cast<uint64_t>(value) < least || static_cast<uint64_t>(value) > most) {
        const std::string type = "a number from " + std::to_string(least) + " to " + std::to_string(most);
        fail_type(*node, key, type.c_str());
    }
    return located_t<uint64_t>{static_cast<uint64_t>(value), line_of(*node)};
}

std::vector<located_t<std::string>> toml_table_t::take_strings(std::string_view key)
{
    std::vector<located_t<std::string>> texts;
    const toml::node *node = take(key);
    if (node == nullptr) {
        return texts;
    }
    if (!node->is_array()) {
        fail_type(*node, key, "an array of strings");
    }
    for (const toml::node &element : *node->as_array()) {
        if (!element.is_string()) {
            fail_type(element, key, "an array of strings");
        }
        texts.push_back({element.as_string()->get(), line_of(element)});
    }
    return texts;
}

// The first one of the file.
void toml_table_t::finish() const
{
    const toml::key *unknown = nullptr;
    for (const auto &[key, node] : table_) {
        const bool taken = std::find(taken_.begin(), taken_.end(), key.str()) != taken_.end();
        if (!taken && (unknown == nullptr || key.source().begin.line < unknown->source().begin.line)) {
            unknown = &key;
        }
    }
    if (unknown != nullptr) {
        fail(unknown->source().begin.line, "there is no key " + path_of(unknown->str()));
    }
}

} // namespace kestrune::manager
