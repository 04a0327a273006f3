// Logging. KS_INFO(level, format, ...) and KS_ERROR(format, ...) state level and format once; the host's form
// and the standard-output form are both made from them, and the compiler checks the arguments.
//
//   level of the host  >= L        verbose_msg(L, 1, format, ...)
//   else own level     >= L        "INFO(L) " + message + newline on standard output
//   else                           nothing
//
// An error goes to verbose_msg(-1, 0, ...) when the host's level is at least -1, and never to standard
// output. Both levels are read anew for every message. Every text begins with "kestrune: ". Message texts are
// an interface, misspellings included: programs match them, so do not correct them.
//
// Threads: any. May be called with locks held, but the host's function decides how long it
// takes. errno is unchanged after the call. Not a cancellation point in threads started by
// thread_start, which run with cancellation disabled.
#pragma once

#include "common/host_interface.h"
#include "common/settings.h"

#include <cerrno>
#include <cstdio>

// Levels in use.
enum : int32_t { LOG_START = 1, LOG_EVENT = 3, LOG_DETAIL = 4, LOG_DEBUG = 5, LOG_ERROR = -1 };

inline bool log_to_host(int32_t level)
{
    return host_verbose_level() >= level;
}

inline bool log_to_stdout(int32_t level)
{
    return own_verbose_level() >= level;
}

#define KS_INFO(level, format, ...)                                                                          \
    do {                                                                                                     \
        const int ks_errno_ = errno;                                                                         \
        if (log_to_host(level)) {                                                                            \
            verbose_msg(level, 1, format __VA_OPT__(, ) __VA_ARGS__);                                        \
        } else if (log_to_stdout(level)) {                                                                   \
            std::printf("INFO(%d) " format "\n", static_cast<int>(level) __VA_OPT__(, ) __VA_ARGS__);        \
        }                                                                                                    \
        errno = ks_errno_;                                                                                   \
    } while (false)

#define KS_ERROR(format, ...)                                                                                \
    do {                                                                                                     \
        const int ks_errno_ = errno;                                                                         \
        if (log_to_host(LOG_ERROR)) {                                                                        \
            verbose_msg(LOG_ERROR, 0, format __VA_OPT__(, ) __VA_ARGS__);                                    \
        }                                                                                                    \
        errno = ks_errno_;                                                                                   \
    } while (false)
