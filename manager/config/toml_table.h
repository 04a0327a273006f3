// Reads the keys of one TOML table (inside of config/). What nobody took is unknown. All throw settings_error_t.
#pragma once

#include "config/settings.h"

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <toml++/toml.h>
#include <vector>

namespace kestrune::manager {

// A value and the line that has it.
template <typename T>
struct located_t {
    T value;
    uint32_t line;
};

class toml_table_t {
public:
    // `name` is for the errors: "http", "probe"; empty: the file itself. The table is borrowed.
    toml_table_t(const std::filesystem::path &file, std::string name, const toml::table &table);

    // A table of this table; nothing when it is not there.
    const toml::table *take_table(std::string_view key);
    // An array of tables; empty when it is not there.
    std::vector<const toml::table *> take_tables(std::string_view key);
    std::optional<located_t<std::string>> take_string(std::string_view key);
    std::optional<located_t<bool>> take_bool(std::string_view key);
    std::optional<located_t<uint64_t>> take_number(std::string_view key, uint64_t least, uint64_t most);
    std::vector<located_t<std::string>> take_strings(std::string_view key);
    void finish() const;

    [[noreturn]] void fail(uint32_t line, const std::string &text) const;
    uint32_t line() const; // where the table begins

private:
    const toml::node *take(std::string_view key);
    std::string path_of(std::string_view key) const;
    [[noreturn]] void fail_type(const toml::node &node, std::string_view key, const char *type) const;

    const std::filesystem::path file_;
    const std::string name_;
    const toml::table &table_;
    std::vector<std::string> taken_;
};

} // namespace kestrune::manager
