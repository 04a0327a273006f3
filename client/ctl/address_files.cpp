#include "client/ctl/address_files.h"

#include "client/error.h"
#include "client/find_addresses.h"

#include <array>
#include <cerrno>
#include <cstdio>
#include <memory>
#include <set>
#include <system_error>

namespace kestrune {

namespace {

constexpr size_t FILE_SIZE_MAX = size_t{64} << 20;

[[noreturn]] void fail(const std::string &text)
{
    throw client_error_t(failure_t::LOCAL, text);
}

std::string name_of(const std::string &path)
{
    return path == "-" ? "standard input" : path;
}

std::string read_file(const std::string &path)
{
    struct close_t {
        void operator()(FILE *file) const { file != stdin ? std::fclose(file) : 0; }
    };
    const std::unique_ptr<FILE, close_t> file(path == "-" ? stdin : std::fopen(path.c_str(), "re"));
    std::string text;
    std::array<char, 65536> room;
    while (file && text.size() <= FILE_SIZE_MAX) {
        const size_t size = std::fread(room.data(), 1, room.size(), file.get());
        if (size == 0) {
            break;
        }
        text.append(room.data(), size);
    }
    if (!file || std::ferror(file.get()) != 0) {
        fail(name_of(path) + " cannot be read: " + std::generic_category().message(errno));
    }
    if (text.size() > FILE_SIZE_MAX) {
        fail(name_of(path) + " is larger than 64 MiB, more than any list of addresses needs");
    }
    return text;
}

} // namespace

std::vector<std::string> read_address_files(options_t *options)
{
    std::vector<std::string> left_out;
    std::set<std::string> seen;
    for (const ip_addr_t &addr : options->addrs) {
        seen.insert(ip_addr_text(addr).text);
    }
    for (const std::string &path : options->from) {
        found_addresses_t found = find_addresses(read_file(path));
        for (const ip_addr_t &addr : found.addrs) {
            if (seen.insert(ip_addr_text(addr).text).second) {
                options->addrs.push_back(addr);
            }
        }
        for (const std::string &text : found.left_out) {
            left_out.push_back(name_of(path) + ", " + text);
        }
    }
    if (options->addrs.empty()) {
        fail("there is no address in " + name_of(options->from.front()) +
             (options->from.size() > 1 ? " and the other files" : "") +
             (left_out.empty() ? "" : " that a rule can watch: " + left_out.front()));
    }
    return left_out;
}

} // namespace kestrune
