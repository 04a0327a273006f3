// A progress value, as the captures report it in one 64-bit number: bits 0-7 a signed percentage (100
// finished, -2 unknown to a history search), bits 8-31 zero, bits 32-63 a packet count.
#pragma once

#include <cstdint>

constexpr int8_t PROGRESS_DONE = 100;
constexpr int8_t PROGRESS_UNKNOWN = -2;

constexpr uint64_t progress_value(int8_t percent, uint32_t packets)
{
    return static_cast<uint64_t>(packets) << 32 | static_cast<uint8_t>(percent);
}

constexpr int8_t progress_percent(uint64_t progress)
{
    return static_cast<int8_t>(progress & 0xFF);
}

constexpr uint32_t progress_packets(uint64_t progress)
{
    return static_cast<uint32_t>(progress >> 32);
}
