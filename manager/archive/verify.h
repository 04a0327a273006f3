// Checks of sealed captures, for sealing, for crashes and for `kestrunectl verify`.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

namespace kestrune::manager {

struct verdict_t {
    std::filesystem::path path;
    bool good = false;
    std::string text; // a sentence: what is wrong, or what was found
};

// A directory with a manifest, a manifest, or a tree of them. One verdict a manifest; one bad verdict for a path
// without any.
std::vector<verdict_t> verify_path(const std::filesystem::path &path);

} // namespace kestrune::manager
