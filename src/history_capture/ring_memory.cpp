#include "history_capture/ring_memory.h"

#include <cstdlib>
#include <sys/mman.h>

namespace {

// From here on a ring is mapped on its own: below, a huge page would not fit in it.
constexpr uint64_t MAPPED_SIZE = uint64_t{2} << 20;

} // namespace

uint8_t *ring_allocate(uint64_t size)
{
    if (size < MAPPED_SIZE) {
        return static_cast<uint8_t *>(std::calloc(1, size));
    }
    void *memory = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) {
        return nullptr;
    }
    madvise(memory, size, MADV_HUGEPAGE); // refused where huge pages are off: then small ones serve
    madvise(memory, size, MADV_DONTDUMP); // gigabytes of other people's packets
    return static_cast<uint8_t *>(memory);
}

void ring_free(uint8_t *buffer, uint64_t size)
{
    if (buffer == nullptr) {
        return;
    }
    if (size < MAPPED_SIZE) {
        std::free(buffer);
    } else {
        munmap(buffer, size);
    }
}
