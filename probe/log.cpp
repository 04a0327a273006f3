#include "probe/log.h"

#include "common/host_interface.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

namespace probe {
namespace {

// Syslog severities, which the journal reads at the start of a line.
enum : int { PRIORITY_ERROR = 3, PRIORITY_WARNING = 4, PRIORITY_INFO = 6, PRIORITY_DEBUG = 7 };

constexpr int LEVEL_DEBUG = 4; // and above

thread_local plugin_errors_t *kept_errors = nullptr;

// JOURNAL_STREAM names device and inode of the stream that the journal reads.
bool journal_reads_stderr()
{
    const char *stream = std::getenv("JOURNAL_STREAM");
    struct stat status = {};
    if (stream == nullptr || fstat(STDERR_FILENO, &status) != 0) {
        return false;
    }
    return std::to_string(status.st_dev) + ":" + std::to_string(status.st_ino) == stream;
}

std::string time_text()
{
    timespec now = {};
    clock_gettime(CLOCK_REALTIME, &now);
    tm local = {};
    localtime_r(&now.tv_sec, &local);
    char seconds[32];
    char zone[16];
    char text[80];
    std::strftime(seconds, sizeof seconds, "%Y-%m-%dT%H:%M:%S", &local);
    std::strftime(zone, sizeof zone, "%z", &local);
    std::snprintf(text, sizeof text, "%s.%06ld%s ", seconds, now.tv_nsec / 1000, zone);
    return text;
}

std::string head(int priority, const char *level)
{
    static const bool journal = journal_reads_stderr();
    if (journal) {
        return "<" + std::to_string(priority) + ">";
    }
    return time_text() + level + " ";
}

// Keeps a line one line, whatever names it quotes.
void replace_control_characters(std::string *text)
{
    std::replace_if(
        text->begin(), text->end(), [](char c) { return static_cast<unsigned char>(c) < 0x20 || c == 0x7F; },
        '?');
}

__attribute__((format(printf, 3, 0))) void write_line(int priority, const char *level, const char *format,
                                                      va_list arguments)
{
    const int saved_errno = errno;
    char buffer[2048];
    std::vsnprintf(buffer, sizeof buffer, format, arguments);
    std::string text = buffer;
    replace_control_characters(&text);
    const std::string line = head(priority, level) + text + "\n";
    // A log that cannot be written cannot report it.
    [[maybe_unused]] const ssize_t written = write(STDERR_FILENO, line.data(), line.size());
    errno = saved_errno;
}

__attribute__((format(printf, 2, 0))) void write_info(int level, const char *format, va_list arguments)
{
    const std::string name = "INFO(" + std::to_string(level) + ")";
    write_line(level >= LEVEL_DEBUG ? PRIORITY_DEBUG : PRIORITY_INFO, name.c_str(), format, arguments);
}

__attribute__((format(printf, 1, 0))) void keep_error(const char *format, va_list arguments)
{
    if (kept_errors == nullptr) {
        return;
    }
    const int saved_errno = errno;
    va_list copy;
    va_copy(copy, arguments);
    char buffer[512];
    std::vsnprintf(buffer, sizeof buffer, format, copy);
    va_end(copy);
    kept_errors->text.append(buffer).append("\n");
    errno = saved_errno;
}

} // namespace

void log_error(const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    write_line(PRIORITY_ERROR, "ERROR", format, arguments);
    va_end(arguments);
}

void log_warning(const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    write_line(PRIORITY_WARNING, "WARNING", format, arguments);
    va_end(arguments);
}

void log_info(int level, const char *format, ...)
{
    if (host_verbose_level() < level) {
        return;
    }
    va_list arguments;
    va_start(arguments, format);
    write_info(level, format, arguments);
    va_end(arguments);
}

void log_plugin(int level, const char *format, va_list arguments)
{
    if (level < 0) {
        keep_error(format, arguments);
        write_line(PRIORITY_ERROR, "ERROR", format, arguments);
    } else {
        write_info(level, format, arguments);
    }
}

plugin_errors_t::plugin_errors_t()
{
    kept_errors = this;
}

plugin_errors_t::~plugin_errors_t()
{
    kept_errors = nullptr;
}

} // namespace probe
