// A probe's export directory: the raw files of captures, by the names that the plugin gives them.
//
//   ULID_RULE             live capture          ULID_RULE_hc_QUEUE             history
//   ULID_RULE_VERSION     when that existed     ULID_RULE_VERSION_hc_QUEUE
//
// Only regular files directly in the directory count, and no link is followed: what a probe names is never opened.
// Errors: archive_error_t UNREADABLE.
#pragma once

#include "archive/archive.h"
#include "archive/file_io.h"

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <sys/types.h>
#include <vector>

namespace kestrune::manager {

struct raw_name_t {
    ulid_t id;
    uint32_t rule = 0;
    uint32_t version = 0;
    std::optional<uint32_t> queue; // none: the live capture

    bool is_live() const { return !queue; }
    std::string origin() const; // live or history-QUEUE
};
std::optional<raw_name_t> parse_raw_name(std::string_view name);

struct raw_entry_t {
    std::string name;
    ulid_t id;
    dev_t device = 0;
    ino_t inode = 0;
    uint64_t bytes = 0;
    uint64_t mtime_ns = 0;
    bool operator==(const raw_entry_t &) const = default;
};

class raw_directory_t {
public:
    explicit raw_directory_t(std::filesystem::path path);
    // All files ULID_*, or those of one capture; in the order of their names.
    std::vector<raw_entry_t> list(const std::optional<ulid_t> &id = {}) const;
    fd_t open(const raw_entry_t &entry) const; // the same file as when it was listed
    // Nothing when it is not there.
    std::optional<raw_entry_t> look(const std::string &name) const;
    void remove(const std::string &name) const;

private:
    std::filesystem::path path_;
    fd_t fd_;
};

} // namespace kestrune::manager
