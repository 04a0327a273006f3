#include "probe/pipe_input.h"

#include "probe/error.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

namespace probe {
namespace {

// Opens a named pipe without waiting for its writer; the first read waits.
int open_pipe(const std::string &path)
{
    const int fd = path == "-" ? fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 0)
                               : open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) {
        throw error_t("cannot read " + path + ": " + std::strerror(errno));
    }
    return fd;
}

} // namespace

bool is_pipe(const std::string &path)
{
    struct stat status = {};
    return path == "-" || (stat(path.c_str(), &status) == 0 && !S_ISREG(status.st_mode));
}

pipe_input_t::pipe_input_t(const std::string &path, const stop_event_t &stop, packet_sink_t *sink)
    : fd_(open_pipe(path)), stop_(stop), sink_(sink)
{
}

pipe_input_t::~pipe_input_t()
{
    close(fd_);
}

FILE *pipe_input_t::stream()
{
    FILE *stream = fopencookie(this, "r", {read_some, nullptr, nullptr, nullptr});
    if (stream == nullptr) {
        throw error_t("cannot allocate a stream");
    }
    return stream;
}

void pipe_input_t::rethrow() const
{
    if (failure_) {
        std::rethrow_exception(failure_);
    }
}

bool pipe_input_t::wait_for_data()
{
    pollfd events[] = {{fd_, POLLIN, 0}, {stop_.fd(), POLLIN, 0}};
    if (poll(events, 1, 0) == 0) {
        sink_->flush();
        poll(events, 2, -1);
    }
    return !stop_.requested();
}

ssize_t pipe_input_t::read_some(void *input, char *buffer, size_t size) noexcept
{
    auto *self = static_cast<pipe_input_t *>(input);
    try {
        while (self->wait_for_data()) {
            const ssize_t got = read(self->fd_, buffer, size);
            if (got >= 0 || (errno != EINTR && errno != EAGAIN)) {
                return got;
            }
        }
        return 0;
    } catch (...) {
        self->failure_ = std::current_exception();
        errno = EIO;
        return -1;
    }
}

} // namespace probe
