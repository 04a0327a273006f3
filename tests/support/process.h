// The test's own process: a directory for its files, and what it must leave as it found it.
#pragma once

#include <cstdint>
#include <string>
#include <utility>

// Open descriptors and threads of this process: what a test must leave as it found them.
std::pair<long, long> resources();

// The TCP port on which this process listens, or 0 while it does not.
uint16_t listening_port();

// A fresh directory that is removed with everything in it at the end.
class temp_dir_t {
public:
    temp_dir_t();
    ~temp_dir_t();
    temp_dir_t(const temp_dir_t &) = delete;
    temp_dir_t &operator=(const temp_dir_t &) = delete;
    std::string path(const std::string &name = "") const { return root + "/" + name; }

private:
    std::string root;
};
