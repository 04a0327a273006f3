// The memory of a ring: zero-filled, in huge pages where the system has them. A large ring is only promised
// at first; another thread populates it part by part. The first touch of a page costs several times the copy
// of a packet, and the kernel may have to move memory to find a huge page.
//
// A client gets a ring only if all rings of the process together, once populated, take at most 15/16 of the
// available memory (common/available_memory.h): granting memory that does not exist would get the host killed
// later. The administrator's figure is taken wherever the kernel grants it. A ring beyond what is available
// is not populated ahead: it takes memory as packets fill it.
//
// Threads: any; ring_populate of one ring on one thread at a time.
#pragma once

#include <cstdint>

// The part of a ring that is not populated yet. Empty from the start for a small ring.
struct ring_rest_t {
    uint8_t *begin; // borrowed from the ring; null: not to be populated ahead
    uint64_t size;  // bytes
};

enum class ring_grant_t : uint8_t {
    WITHIN_AVAILABLE, // a client's request
    BY_KERNEL,        // the administrator's figure
};

// Bytes that a ring may take now within what is available. Logs once when the system
// does not say what is available.
[[nodiscard]] uint64_t ring_memory_available();

// `size` zero bytes, and in *rest what is to be populated; or null.
[[nodiscard]] uint8_t *ring_allocate(uint64_t size, ring_grant_t grant, ring_rest_t *rest);

// Populate the next part. Its bytes stay as they are, including those that another thread stores meanwhile.
// False when nothing is left or the system cannot; the rest is then allocated as it is touched. Takes well
// under a millisecond when memory is at hand. Not a cancellation point.
bool ring_populate(ring_rest_t *rest);

// Release memory of ring_allocate, given its size and what is left to populate. Null is accepted.
void ring_free(uint8_t *buffer, uint64_t size, const ring_rest_t *rest);
