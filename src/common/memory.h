// Memory on cache lines of its own, for data that threads share.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <cstring>

// Two lines of 64 bytes: the hardware fetches neighbouring lines in pairs.
constexpr uint64_t CACHE_LINES = 128;

// count * size zero bytes that share no cache line with other memory; null when memory is short or the
// product overflows. Released with std::free.
[[nodiscard]] inline void *zeroed_lines(uint64_t count, uint64_t size)
{
    uint64_t total = 0;
    if (__builtin_mul_overflow(count, size, &total) || total > UINT64_MAX - CACHE_LINES) {
        return nullptr;
    }
    total = (total + CACHE_LINES - 1) / CACHE_LINES * CACHE_LINES;
    void *memory = std::aligned_alloc(CACHE_LINES, total);
    if (memory != nullptr) {
        std::memset(memory, 0, total);
    }
    return memory;
}
