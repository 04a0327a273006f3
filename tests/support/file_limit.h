// A full disk: limits the size of this process's files while this object exists.
#pragma once

#include <csignal>
#include <sys/resource.h>

class file_limit_t {
public:
    explicit file_limit_t(rlim_t bytes)
    {
        handler_ = std::signal(SIGXFSZ, SIG_IGN);
        getrlimit(RLIMIT_FSIZE, &before_);
        rlimit limit = before_;
        limit.rlim_cur = bytes;
        setrlimit(RLIMIT_FSIZE, &limit);
    }
    ~file_limit_t()
    {
        setrlimit(RLIMIT_FSIZE, &before_);
        std::signal(SIGXFSZ, handler_);
    }
    file_limit_t(const file_limit_t &) = delete;
    file_limit_t &operator=(const file_limit_t &) = delete;

private:
    rlimit before_ = {};
    void (*handler_)(int) = SIG_DFL;
};
