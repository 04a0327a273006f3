#include "archive/raw_directory.h"

#include "common/clock.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <memory>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>

namespace kestrune::manager {

namespace {

constexpr std::string_view HISTORY_MARK = "_hc_";

[[noreturn]] void fail(const std::filesystem::path &path, int error)
{
    throw archive_error_t(archive_failure_t::UNREADABLE, path.string() + ": " + std::strerror(error));
}

// Decimal digits without a leading zero, as printf writes them.
std::optional<uint32_t> parse_number(std::string_view text)
{
    uint32_t number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (error != std::errc() || end != text.data() + text.size() ||
        (text.size() > 1 && text.front() == '0')) {
        return {};
    }
    return number;
}

} // namespace

std::string raw_name_t::origin() const
{
    return queue ? "history-" + std::to_string(*queue) : "live";
}

std::optional<raw_name_t> parse_raw_name(std::string_view name)
{
    const std::optional<ulid_t> id = ulid_of_file(name);
    if (!id) {
        return {};
    }
    raw_name_t parsed;
    parsed.id = *id;
    std::string_view rest = name.substr(ULID_TEXT_SIZE + 1);
    if (const size_t mark = rest.find(HISTORY_MARK); mark != std::string_view::npos) {
        parsed.queue = parse_number(rest.substr(mark + HISTORY_MARK.size()));
        if (!parsed.queue) {
            return {};
        }
        rest = rest.substr(0, mark);
    }
    const size_t line = rest.find('_');
    const std::optional<uint32_t> rule = parse_number(rest.substr(0, line));
    const std::optional<uint32_t> version =
        line == std::string_view::npos ? 0 : parse_number(rest.substr(line + 1));
    if (!rule || !version) {
        return {};
    }
    parsed.rule = *rule;
    parsed.version = *version;
    return parsed;
}

raw_directory_t::raw_directory_t(std::filesystem::path path) : path_(std::move(path))
{
    try {
        fd_ = open_directory(path_);
    } catch (const std::system_error &error) {
        fail(path_, error.code().value());
    }
}

std::optional<raw_entry_t> raw_directory_t::look(const std::string &name) const
{
    const std::optional<ulid_t> id = ulid_of_file(name);
    struct stat status = {};
    if (!id || name.find('/') != std::string::npos) {
        return {};
    }
    if (fstatat(fd_.get(), name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) {
        if (errno != ENOENT) {
            fail(path_ / name, errno);
        }
        return {};
    }
    if (!S_ISREG(status.st_mode)) {
        return {};
    }
    return raw_entry_t{name,
                       *id,
                       status.st_dev,
                       status.st_ino,
                       static_cast<uint64_t>(status.st_size),
                       static_cast<uint64_t>(status.st_mtim.tv_sec) * NS_PER_S +
                           static_cast<uint64_t>(status.st_mtim.tv_nsec)};
}

std::vector<raw_entry_t> raw_directory_t::list(const std::optional<ulid_t> &id) const
{
    const int copy = openat(fd_.get(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC); // a position of its own
    const std::unique_ptr<DIR, int (*)(DIR *)> stream(copy < 0 ? nullptr : fdopendir(copy), closedir);
    if (!stream) {
        fail(path_, errno);
    }
    std::vector<raw_entry_t> entries;
    errno = 0;
    while (const dirent *entry = readdir(stream.get())) {
        const std::optional<ulid_t> found = ulid_of_file(entry->d_name);
        if (found && (!id || found == id)) {
            if (std::optional<raw_entry_t> file = look(entry->d_name)) {
                entries.push_back(std::move(*file));
            }
        }
        errno = 0;
    }
    if (errno != 0) {
        fail(path_, errno);
    }
    std::sort(entries.begin(), entries.end(),
              [](const raw_entry_t &a, const raw_entry_t &b) { return a.name < b.name; });
    return entries;
}

fd_t raw_directory_t::open(const raw_entry_t &entry) const
{
    struct stat status = {};
    fd_t fd;
    try {
        fd = open_file(fd_.get(), entry.name);
    } catch (const std::system_error &error) {
        fail(path_ / entry.name, error.code().value());
    }
    if (fstat(fd.get(), &status) != 0 || status.st_dev != entry.device || status.st_ino != entry.inode) {
        fail(path_ / entry.name, ESTALE);
    }
    return fd;
}

void raw_directory_t::remove(const std::string &name) const
{
    if (unlinkat(fd_.get(), name.c_str(), 0) != 0 && errno != ENOENT) {
        fail(path_ / name, errno);
    }
}

} // namespace kestrune::manager
