// The memory of a ring: zero-filled, untouched until packets reach it, in huge pages where the system has
// them (filling small pages for the first time costs several times the copy itself).
//
// All rings of the process together never ask for more than the system has available at that moment: clients
// choose the size, and memory that is granted but does not exist would get the host killed later.
// Threads: any.
#pragma once

#include <cstdint>

// `size` zero bytes, or null. Never touches the memory of a large ring.
[[nodiscard]] uint8_t *ring_allocate(uint64_t size);

// Release memory of ring_allocate with its size. Null is accepted.
void ring_free(uint8_t *buffer, uint64_t size);
