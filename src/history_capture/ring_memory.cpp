#include "history_capture/ring_memory.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

namespace {

// From here on a ring is mapped on its own: below, a huge page would not fit in it.
constexpr uint64_t MAPPED_SIZE = uint64_t{2} << 20;
// One huge page at a time.
constexpr uint64_t POPULATE_SIZE = uint64_t{2} << 20;

// Bytes of all rings of this process, and of these the ones that are not populated yet: the system still
// counts them as available.
std::atomic<uint64_t> mapped{0};
std::atomic<uint64_t> promised{0};

// The file's text. False when it cannot be read; `absent` tells whether that is because the system has none.
bool read_text(const char *path, char *text, size_t size, bool *absent)
{
    const int fd = open(path, O_RDONLY | O_CLOEXEC);
    *absent = fd < 0 && (errno == ENOENT || errno == EACCES);
    const ssize_t length = fd >= 0 ? read(fd, text, size - 1) : -1;
    if (fd >= 0) {
        close(fd);
    }
    text[length > 0 ? length : 0] = '\0';
    return length > 0;
}

// Memory that the system could give without swapping (MemAvailable of proc(5)), bytes; UINT64_MAX on a system
// that does not say, 0 when it could not be asked.
uint64_t available_memory()
{
    char text[2048];
    bool absent;
    if (!read_text("/proc/meminfo", text, sizeof text, &absent)) {
        return absent ? UINT64_MAX : 0;
    }
    static constexpr char KEY[] = "MemAvailable:";
    const char *line = std::strstr(text, KEY);
    return line != nullptr ? std::strtoull(line + sizeof KEY - 1, nullptr, 10) << 10 : UINT64_MAX;
}

// Limit of the process's control group (memory.max of the unified hierarchy), bytes; UINT64_MAX without one,
// 0 when it could not be asked.
uint64_t group_limit()
{
    char text[2048];
    bool absent;
    if (!read_text("/proc/self/cgroup", text, sizeof text, &absent)) {
        return absent ? UINT64_MAX : 0;
    }
    static constexpr char KEY[] = "0::/";
    char *path = std::strncmp(text, KEY, sizeof KEY - 1) == 0 ? text : std::strstr(text, "\n0::/");
    if (path == nullptr) {
        return UINT64_MAX;
    }
    path = std::strchr(path, '/') + 1;
    path[std::strcspn(path, "\n")] = '\0';
    char file[sizeof text + 64];
    std::snprintf(file, sizeof file, "/sys/fs/cgroup/%s/memory.max", path);
    if (!read_text(file, text, sizeof text, &absent)) {
        return absent ? UINT64_MAX : 0;
    }
    return text[0] != 'm' ? std::strtoull(text, nullptr, 10) : UINT64_MAX; // "max"
}

// Some is left for everything else: the figures are estimates, and the rings take theirs at once.
bool fits(uint64_t size, uint64_t taken, uint64_t limit)
{
    limit -= limit / 16;
    return size <= limit && taken <= limit - size;
}

// Count `size` bytes as mapped and promised. False when the rings together would take more than there is: the
// kernel grants such memory and kills a process when it is used.
bool reserve(uint64_t size)
{
    if (!fits(size, mapped.fetch_add(size), group_limit())) {
        mapped -= size;
        return false;
    }
    uint64_t total = promised.load(); // before the system is asked: what is populated meanwhile counts twice
    do {
        if (!fits(size, total, available_memory())) {
            mapped -= size;
            return false;
        }
    } while (!promised.compare_exchange_weak(total, total + size));
    return true;
}

} // namespace

uint8_t *ring_allocate(uint64_t size, ring_rest_t *rest)
{
    *rest = {};
    if (size < MAPPED_SIZE) {
        return static_cast<uint8_t *>(std::calloc(1, size));
    }
    if (!reserve(size)) {
        return nullptr;
    }
    void *memory = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) {
        mapped -= size;
        promised -= size;
        return nullptr;
    }
    madvise(memory, size, MADV_HUGEPAGE); // refused where huge pages are off: then small ones serve
    madvise(memory, size, MADV_DONTDUMP); // gigabytes of other people's packets
    *rest = {static_cast<uint8_t *>(memory), size};
    return rest->begin;
}

bool ring_populate(ring_rest_t *rest)
{
    const uint64_t part = std::min(rest->size, POPULATE_SIZE);
    if (part == 0 || madvise(rest->begin, part, MADV_POPULATE_WRITE) != 0) {
        return false;
    }
    rest->begin += part;
    rest->size -= part;
    promised -= part;
    return true;
}

void ring_free(uint8_t *buffer, uint64_t size, const ring_rest_t *rest)
{
    if (buffer == nullptr) {
        return;
    }
    if (size < MAPPED_SIZE) {
        std::free(buffer);
    } else {
        munmap(buffer, size);
        mapped -= size;
        promised -= rest->size;
    }
}
