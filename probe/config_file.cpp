#include "probe/config_file.h"

#include "probe/error.h"

#include <cerrno>
#include <cstring>
#include <fstream>

namespace probe {
namespace {

constexpr const char *BLANKS = " \t\r";

std::string trimmed(const std::string &text)
{
    const size_t begin = text.find_first_not_of(BLANKS);
    return begin == std::string::npos ? "" : text.substr(begin, text.find_last_not_of(BLANKS) - begin + 1);
}

std::string without_comment(const std::string &line)
{
    for (size_t i = line.find('#'); i != std::string::npos; i = line.find('#', i + 1)) {
        if (i == 0 || std::strchr(BLANKS, line[i - 1]) != nullptr) {
            return line.substr(0, i);
        }
    }
    return line;
}

} // namespace

std::vector<config_item_t> read_config(const std::string &name)
{
    const bool may_be_missing = name.starts_with("-");
    const std::string path = name.substr(may_be_missing ? 1 : 0);
    std::ifstream file(path);
    if (!file.is_open()) {
        if (may_be_missing && errno == ENOENT) {
            return {};
        }
        throw error_t("cannot read the configuration file " + path + ": " + std::strerror(errno));
    }
    std::vector<config_item_t> items;
    std::string line;
    for (int number = 1; std::getline(file, line); number++) {
        const std::string text = trimmed(without_comment(line));
        const std::string where = path + ":" + std::to_string(number);
        const size_t equals = text.find('=');
        if (text.empty()) {
            continue;
        }
        if (equals == std::string::npos || equals == 0) {
            throw error_t(std::string(where).append(": KEY = VALUE expected, not \"").append(text) + "\"");
        }
        items.push_back({trimmed(text.substr(0, equals)), trimmed(text.substr(equals + 1)), where});
    }
    if (file.bad() || (file.fail() && !file.eof())) {
        throw error_t("cannot read the configuration file " + path + ": " + std::strerror(errno));
    }
    return items;
}

} // namespace probe
