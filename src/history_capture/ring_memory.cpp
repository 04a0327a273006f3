#include "history_capture/ring_memory.h"

#include "common/available_memory.h"
#include "common/log.h"

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <sys/mman.h>

namespace {

// From this size on a ring is mapped separately and counted. Smaller rings are not
// counted: together they stay small.
constexpr uint64_t MAPPED_SIZE = uint64_t{256} << 10;
// One huge page at a time.
constexpr uint64_t POPULATE_SIZE = uint64_t{2} << 20;

// Bytes of the rings that are mapped and not populated yet: the system still counts them as available.
std::atomic<uint64_t> promised{0};

// Bytes left for rings when `taken` bytes are promised already. Keeps a reserve for
// everything else, since the figures are estimates.
uint64_t left_for_rings(uint64_t taken)
{
    static std::atomic<bool> told{false};
    const available_memory_t available = available_memory();
    if (!available.system_asked && !told.exchange(true)) {
        KS_ERROR(
            "kestrune: History_capture: /proc/meminfo cannot be read: the size of the history is compared "
            "with all memory of the machine, not with what is available");
    }
    const uint64_t memory = available.memory - available.memory / 16;
    const uint64_t addresses = available.addresses - available.addresses / 16;
    return std::min(memory - std::min(memory, taken), addresses);
}

// Count `size` bytes as promised. Returns what was left for them.
uint64_t promise(uint64_t size)
{
    // Count first, then ask: memory populated meanwhile counts twice, and two rings see each other.
    const uint64_t before = promised.fetch_add(size);
    return left_for_rings(before);
}

} // namespace

uint64_t ring_memory_available()
{
    return left_for_rings(promised.load());
}

uint8_t *ring_allocate(uint64_t size, ring_grant_t grant, ring_rest_t *rest)
{
    *rest = {};
    if (size < MAPPED_SIZE) {
        return static_cast<uint8_t *>(std::calloc(1, size));
    }
    const uint64_t left = promise(size);
    const bool available = size <= left;
    void *memory = MAP_FAILED;
    if (!available && grant == ring_grant_t::WITHIN_AVAILABLE) {
        KS_ERROR("kestrune: History_capture: Buffer of %lu MB refused: %lu MB of memory are available",
                 size >> 20, left >> 20);
    } else {
        memory = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    }
    if (memory == MAP_FAILED) {
        promised -= size;
        return nullptr;
    }
    madvise(memory, size, MADV_HUGEPAGE); // refused where huge pages are off; small ones do
    madvise(memory, size, MADV_DONTDUMP); // gigabytes of other people's packets
    auto *ring = static_cast<uint8_t *>(memory);
    *rest = {available ? ring : nullptr, size};
    return ring;
}

bool ring_populate(ring_rest_t *rest)
{
    const uint64_t part = std::min(rest->size, POPULATE_SIZE);
    if (rest->begin == nullptr || part == 0 || madvise(rest->begin, part, MADV_POPULATE_WRITE) != 0) {
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
