// How much more memory this process can take before the system, one of its control groups or one of its
// resource limits refuses. The figures hold for the moment at which they are read.
//
//   memory      the least of two: what the system has available (MemAvailable of proc(5); where that is
//               hidden, the machine's memory less the process's own), and limit less use of each control
//               group from the process's own up to the root, in both hierarchies. Droppable page cache
//               counts as free. The limits are memory.limit_in_bytes and memory.memsw.limit_in_bytes in the
//               first hierarchy, memory.max and memory.high in the unified one.
//   addresses   the least of RLIMIT_AS and RLIMIT_DATA, each less what counts against it
//
// Memory that is mapped but not yet touched counts against `addresses` and not against `memory`.
//
// /proc/self/mountinfo says where the groups are. For a group outside every mount, or a path
// that does not exist (as in some containers), the query begins at the mount. A limit that
// is missing or unreadable counts as none.
//
// Threads: any. Reads files, so not for the packet path. Contains cancellation points.
#pragma once

#include <cstdint>

constexpr uint64_t MEMORY_NOT_LIMITED = UINT64_MAX;

struct available_memory_t {
    uint64_t memory;    // bytes; MEMORY_NOT_LIMITED; 0 when a file exists but cannot be read
    uint64_t addresses; // bytes; MEMORY_NOT_LIMITED
    bool system_asked;  // false: /proc/meminfo is hidden, see above
};

[[nodiscard]] available_memory_t available_memory();

// The same, with all files below the folder `root`. For tests.
[[nodiscard]] available_memory_t available_memory_below(const char *root);
