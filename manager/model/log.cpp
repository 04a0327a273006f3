#include "model/log.h"

#include "client/text_forms.h"
#include "common/clock.h"
#include "model/times.h"

#include <cstdlib>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

namespace kestrune::manager {
namespace {

// Syslog severities, which the journal reads at the start of a line.
enum : int { PRIORITY_ERROR = 3, PRIORITY_WARNING = 4, PRIORITY_INFO = 6 };

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

void write_line(int priority, const char *level, std::string_view text)
{
    static const bool journal = journal_reads_stderr();
    const std::string head =
        journal ? "<" + std::to_string(priority) + ">" : time_text(wall_now_ns()) + " " + level + " ";
    const std::string line = head + printable(text) + "\n"; // one line, whatever names it quotes
    // A log that cannot be written cannot report it.
    [[maybe_unused]] const ssize_t written = write(STDERR_FILENO, line.data(), line.size());
}

} // namespace

void log_error(std::string_view text)
{
    write_line(PRIORITY_ERROR, "ERROR", text);
}

void log_warning(std::string_view text)
{
    write_line(PRIORITY_WARNING, "WARNING", text);
}

void log_info(std::string_view text)
{
    write_line(PRIORITY_INFO, "INFO", text);
}

} // namespace kestrune::manager
