// The blocks of a sealed file (draft-ietf-opsawg-pcapng), in native byte order:
//
//   section header | interface description ... | enhanced packet ... | interface statistics ...
//
// Each begins with its type and its length (u32 each) and repeats the length at its end; lengths are multiples of 4.
// Packet's interface u32, time high u32, low u32, captured length u32, full length u32, bytes, padding.
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>

namespace kestrune::manager::pcapng {

static_assert(std::endian::native == std::endian::little);

enum block_t : uint32_t { SECTION = 0x0A0D0D0A, INTERFACE = 1, STATISTICS = 5, PACKET = 6 };
enum option_t : uint16_t {
    END = 0,
    COMMENT = 1,
    SECTION_APPLICATION = 4,
    INTERFACE_NAME = 2,
    INTERFACE_RESOLUTION = 9,
    STATISTICS_START = 2,
    STATISTICS_END = 3,
    STATISTICS_RECEIVED = 4,
    STATISTICS_INTERFACE_DROPS = 5,
    STATISTICS_KERNEL_DROPS = 7
};

constexpr uint32_t BYTE_ORDER_MARK = 0x1A2B3C4D;
constexpr uint16_t LINK_ETHERNET = 1;
constexpr uint8_t NANOSECONDS = 9;                // if_tsresol: ten to the minus nine
constexpr size_t PACKET_OVERHEAD = 32;            // bytes of a packet block beside the packet and its padding
constexpr uint32_t BLOCK_MAX = uint32_t{1} << 18; // more than any block here
constexpr uint32_t INTERFACES_MAX = 65536;

constexpr size_t padded(size_t size)
{
    return (size + 3) & ~size_t{3};
}

} // namespace kestrune::manager::pcapng
