#include "history_capture/ring_memory.h"

#include <algorithm>
#include <atomic>
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

// Bytes of all rings of this process that are not populated yet: the system still counts them as available.
std::atomic<uint64_t> promised{0};

// Memory that the system could give without swapping (MemAvailable of proc(5)), bytes; UINT64_MAX when it
// does not say.
uint64_t available_memory()
{
    const int fd = open("/proc/meminfo", O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        return UINT64_MAX;
    }
    char text[2048];
    const ssize_t length = read(fd, text, sizeof text - 1);
    close(fd);
    text[length > 0 ? length : 0] = '\0';
    static constexpr char KEY[] = "MemAvailable:";
    const char *line = std::strstr(text, KEY);
    return line != nullptr ? std::strtoull(line + sizeof KEY - 1, nullptr, 10) << 10 : UINT64_MAX;
}

// Count `size` bytes as promised. False when the rings together would take more than there is: the kernel
// grants such memory and kills a process when it is used.
bool reserve(uint64_t size)
{
    const uint64_t available = available_memory();
    uint64_t total = promised.load();
    do {
        if (size > available || total > available - size) {
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
        promised -= rest->size;
    }
}
