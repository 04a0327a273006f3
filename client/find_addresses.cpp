#include "client/find_addresses.h"

#include "client/text_forms.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cctype>
#include <set>
#include <stdexcept>

namespace kestrune {

namespace {

constexpr std::string_view BLANKS = " \t\r\v\f";
constexpr std::string_view DIGITS = "0123456789";

bool is_word(char c)
{
    return std::isalnum(static_cast<unsigned char>(c)) != 0 || c == '_';
}

bool is_address_part(char c)
{
    return std::isxdigit(static_cast<unsigned char>(c)) != 0 || c == '.' || c == ':';
}

size_t count(std::string_view text, char c)
{
    return static_cast<size_t>(std::count(text.begin(), text.end(), c));
}

bool parses(int family, std::string_view text)
{
    unsigned char room[16];
    return inet_pton(family, std::string(text).c_str(), room) == 1;
}

std::string_view without_comment(std::string_view line)
{
    for (size_t i = line.find('#'); i != std::string_view::npos; i = line.find('#', i + 1)) {
        if (i == 0 || BLANKS.find(line[i - 1]) != std::string_view::npos) {
            return line.substr(0, i);
        }
    }
    return line;
}

// The run without surrounding punctuation.
std::string_view trimmed(std::string_view run)
{
    while (run.starts_with('.') || (run.starts_with(':') && !run.starts_with("::"))) {
        run.remove_prefix(1);
    }
    while (run.ends_with('.') || run.ends_with(":::") || (run.ends_with(':') && !run.ends_with("::"))) {
        run.remove_suffix(1);
    }
    return run;
}

// The IPv6 address in a run; empty without one.
std::string_view ipv6_in(std::string_view run)
{
    run = trimmed(run);
    if (count(run, ':') < 2 || run == "::") {
        return {};
    }
    if (parses(AF_INET6, run)) {
        return run;
    }
    run = run.substr(0, run.rfind('.')); // a packet dump's port
    return parses(AF_INET6, run) ? run : std::string_view();
}

// The IPv4 address in a run, between any colons.
std::string_view ipv4_in(std::string_view run)
{
    while (!run.empty()) {
        const size_t colon = std::min(run.find(':'), run.size());
        std::string_view part = trimmed(run.substr(0, colon));
        run.remove_prefix(std::min(colon + 1, run.size()));
        if (count(part, '.') == 4 && part.find_first_not_of("0123456789.") == std::string_view::npos) {
            part = part.substr(0, part.rfind('.')); // a packet dump's port
        }
        if (parses(AF_INET, part)) {
            return part;
        }
    }
    return {};
}

// "/24" at the front of the text, if it makes the address a network of more than one address.
std::string_view prefix_length(std::string_view text, bool ipv6)
{
    const size_t end = std::min(text.find_first_not_of(DIGITS, 1), text.size());
    const std::string_view length = text.substr(0, end);
    const bool another_word = end < text.size() && (is_word(text[end]) || text[end] == '/');
    const bool whole = length == (ipv6 ? "/128" : "/32");
    const bool network =
        length.size() > 1 && length.size() <= 4 && length[0] == '/' && !another_word && !whole;
    return network ? length : std::string_view();
}

class finder_t {
public:
    void take_line(std::string_view line)
    {
        line_++;
        line = without_comment(line);
        for (size_t begin = 0; begin < line.size(); begin++) {
            if (!is_address_part(line[begin])) {
                continue;
            }
            size_t end = begin;
            while (end < line.size() && is_address_part(line[end])) {
                end++;
            }
            take_run(line, begin, end);
            begin = end;
        }
    }

    found_addresses_t found() { return std::move(found_); }

private:
    void take_run(std::string_view line, size_t begin, size_t end)
    {
        const bool word_before = begin > 0 && is_word(line[begin - 1]);
        const bool word_behind = end < line.size() && is_word(line[end]);
        const size_t colon = line.substr(0, end).find(':', begin);
        if (word_before && colon == std::string_view::npos) {
            return;
        }
        if (word_before) { // "src:10.0.0.1"
            begin = colon + 1;
        }
        if (word_behind) { // "10.0.0.1:http"
            const size_t last = line.substr(0, end).rfind(':');
            if (last == std::string_view::npos || last < begin) {
                return;
            }
            end = last;
        }
        const std::string_view run = line.substr(begin, end - begin);
        const std::string_view ipv6 = ipv6_in(run);
        const std::string_view text = ipv6.empty() ? ipv4_in(run) : ipv6;
        if (text.empty()) {
            return;
        }
        const std::string_view length = prefix_length(line.substr(end), !ipv6.empty());
        take_address(std::string(text), length);
    }

    void take_address(const std::string &text, std::string_view length)
    {
        try {
            const ip_addr_t addr = parse_address(text + std::string(length));
            if (seen_.insert(ip_addr_text(addr).text).second) {
                found_.addrs.push_back(addr);
            }
        } catch (const std::invalid_argument &error) {
            found_.left_out.push_back("line " + std::to_string(line_) + ": " + error.what());
        }
    }

    found_addresses_t found_;
    std::set<std::string> seen_;
    size_t line_ = 0;
};

} // namespace

found_addresses_t find_addresses(std::string_view text)
{
    finder_t finder;
    while (!text.empty()) {
        const size_t end = std::min(text.find('\n'), text.size());
        finder.take_line(text.substr(0, end));
        text.remove_prefix(std::min(end + 1, text.size()));
    }
    return finder.found();
}

} // namespace kestrune
