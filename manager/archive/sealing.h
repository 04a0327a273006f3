// Sealing one capture: steps 1 to 8 of docs/manager.md, "Sealing". The inside of archive/.
#pragma once

#include "archive/archive.h"

#include <cstddef>
#include <filesystem>
#include <functional>
#include <map>
#include <string>

namespace kestrune::manager {

struct sealing_t {
    std::filesystem::path root;                         // of the archive
    std::map<std::string, std::filesystem::path> files; // by probe: its directory; a probe elsewhere has none
    size_t memory = size_t{24} << 20;                   // for the merge's windows
    std::function<bool()> stop = [] { return false; };
    std::function<void(int)> after_step = [](int) {}; // for tests
    bool read_back = true;                            // false: for measuring
};

// ROOT/DATE/ULID.
std::filesystem::path capture_directory(const std::filesystem::path &root, const ulid_t &id);
std::string sealed_name(const ulid_t &id);

// What the manifest says of a capture that is sealed.
sealed_t sealed_of(const manifest_t &manifest, const std::string &manifest_text);

// Throws archive_error_t UNREADABLE for what concerns raw files, stopped_t, and std::exception for the rest. What it
// wrote is gone then; raw files are never touched.
sealed_t seal_capture(const capture_t &capture, const sealing_t &sealing);

} // namespace kestrune::manager
