// Creates capture files, the same way for all captures: write-only, never over an existing file,
// close-on-exec, mode 0640 whatever the process's umask.
#pragma once

#include <fcntl.h>
#include <sys/stat.h>

// An open descriptor, or -1 with errno set.
[[nodiscard]] inline int create_capture_file(const char *path)
{
    const int fd = open(path, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0640);
    if (fd != -1) {
        fchmod(fd, 0640); // fails on file systems that have no modes
    }
    return fd;
}
