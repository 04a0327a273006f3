// The memory of a ring: zero-filled, in huge pages where the system has them. A large ring is only promised
// at first and populated part by part on another thread: the first touch of a page costs several times the
// copy of a packet, and the kernel may have to move memory about before it finds a huge page.
//
// All rings of the process together never ask for more than 15/16 of what the system has available at that
// moment, or of the limit of the process's control group: clients choose the size, and memory that is granted
// but does not exist would get the host killed later.
// Threads: any; ring_populate of one ring on one thread at a time.
#pragma once

#include <cstdint>

// The end of a ring that is not populated yet. Empty from the start for a small ring.
struct ring_rest_t {
    uint8_t *begin; // borrowed from the ring
    uint64_t size;  // bytes
};

// `size` zero bytes and what of them is to be populated, or null.
[[nodiscard]] uint8_t *ring_allocate(uint64_t size, ring_rest_t *rest);

// Populate the next part, which leaves the bytes as they are, also those that another thread stores
// meanwhile. False when nothing is left, or when the system cannot; then the rest becomes real as it is
// touched. Takes well under a millisecond where memory is at hand. Not a cancellation point.
bool ring_populate(ring_rest_t *rest);

// Release memory of ring_allocate with its size and what is left to populate. Null is accepted.
void ring_free(uint8_t *buffer, uint64_t size, const ring_rest_t *rest);
