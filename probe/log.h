// Log lines on standard error, one write each, so that lines of several threads never mix:
//
//   2025-11-22T21:26:00.123456+0100 ERROR cannot read x.pcap: No such file or directory
//   <3>cannot read x.pcap: ...     when standard error is the journal (JOURNAL_STREAM), which adds the time
//
// Errors and warnings are always written, informational messages when their level is at most verbose_level.
//
// Threads: any.
#pragma once

#include <cstdarg>
#include <string>

namespace probe {

void log_error(const char *format, ...) __attribute__((format(printf, 1, 2)));
void log_warning(const char *format, ...) __attribute__((format(printf, 1, 2)));
// Levels 1 (starts and stops) to 5.
void log_info(int level, const char *format, ...) __attribute__((format(printf, 2, 3)));
// What the plugin logs: a negative level is an error. The plugin compares with verbose_level itself.
void log_plugin(int level, const char *format, va_list arguments) __attribute__((format(printf, 2, 0)));

// While it exists, also keeps the plugin's errors of this thread, one per line.
class plugin_errors_t {
public:
    plugin_errors_t();
    ~plugin_errors_t();
    plugin_errors_t(const plugin_errors_t &) = delete;
    plugin_errors_t &operator=(const plugin_errors_t &) = delete;

    std::string text;
};

} // namespace probe
