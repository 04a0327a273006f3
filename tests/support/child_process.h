// A program run by a test: started, signalled, waited for, its output kept.
#pragma once

#include "support/pcap_read.h"

#include <string>
#include <sys/types.h>
#include <vector>

class child_process_t {
public:
    // Start argv[0], looked up in PATH, with standard output and error kept in files.
    explicit child_process_t(const std::vector<std::string> &argv);
    // Kills the program if it still runs.
    ~child_process_t();
    child_process_t(const child_process_t &) = delete;
    child_process_t &operator=(const child_process_t &) = delete;

    pid_t pid() const { return pid_; }
    void signal(int number) const;
    // Wait for the end: the exit status, 128 + N after signal N, or -1 when it did not end in time.
    int wait(int milliseconds = 30000);
    // Everything written so far.
    std::string out() const { return read("out"); }
    std::string err() const { return read("err"); }

private:
    std::string read(const std::string &name) const;

    temp_dir_t dir_;
    pid_t pid_;
    int status_ = -1;
};

std::string read_text(const std::string &path);
bool program_exists(const std::string &name);
