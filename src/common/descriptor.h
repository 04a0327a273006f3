// Files of captures are created in one way everywhere: write-only, never over an existing file, closed in the
// capture script's process.
#pragma once

#include <fcntl.h>

// An open descriptor, or -1 with errno set.
[[nodiscard]] inline int create_capture_file(const char *path)
{
    return open(path, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0640);
}
