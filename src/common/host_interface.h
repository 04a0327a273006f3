// The host probe's side of the plugin interface: what the plugin imports from the host, and
// the host's packet, parsed-header, flow, description and option records. Only the named
// fields are known; the rest of each record is the host's own. All records are for a
// little-endian 64-bit target; the offsets are checked below.
//
// Threads: verbose_msg may be called from any thread. config_set_values is called by the host's thread only.
// Ownership: every record belongs to the host; the plugin reads it during the call that hands it over.
#pragma once

#include <cstddef>
#include <cstdint>

// Imported from the host when the plugin is loaded.
struct config_option_t;
extern "C" int config_set_values(const char *params, config_option_t *options);
extern "C" void verbose_msg(int level, int flag, const char *format, ...)
    __attribute__((format(printf, 3, 4)));
extern "C" int32_t verbose_level; // may change at any time: read it through host_verbose_level()

inline int32_t host_verbose_level()
{
    return __atomic_load_n(&verbose_level, __ATOMIC_RELAXED);
}

// Kinds of config_option_t. A table of options ends with a record of kind CONFIG_END.
enum : int32_t { CONFIG_INT = 0, CONFIG_STRING = 1, CONFIG_END = -1 };

struct config_option_t {
    const char *name; // key as written in the parameter string; null at the end of the table
    void *target;     // int32_t * for CONFIG_INT, char ** for CONFIG_STRING; the value is stored through it
    int32_t kind;
    int32_t alignment; // not read
};
static_assert(sizeof(config_option_t) == 24 && offsetof(config_option_t, kind) == 16);

struct plugin_desc_t {
    const char *name;
    const char *info; // help text, several lines
    int32_t reserved_0;
    int32_t reserved_4;
};
static_assert(sizeof(plugin_desc_t) == 24 && offsetof(plugin_desc_t, reserved_0) == 16);

// Addresses are least significant byte first: an IPv4 address as a 32-bit number, an IPv6 address as a
// 128-bit number (the network-order bytes reversed).
struct host_header_t {
    uint8_t host_0[8];
    uint64_t timestamp; // nanoseconds since the Unix epoch
    uint8_t host_16[20];
    union {
        struct {
            uint8_t src[4];
            uint8_t dst[4];
        } ipv4;
        struct {
            uint8_t src[16];
            uint8_t dst[16];
        } ipv6;
    } addr;
    uint8_t host_68[1];
    uint8_t ip_version; // 4 or 6; anything else: the packet is not IP
    uint8_t host_70[2];
};
static_assert(offsetof(host_header_t, timestamp) == 8 && offsetof(host_header_t, addr) == 36);
static_assert(offsetof(host_header_t, addr.ipv4.dst) == 40 && offsetof(host_header_t, addr.ipv6.dst) == 52);
static_assert(offsetof(host_header_t, ip_version) == 69);

struct host_packet_t {
    const host_header_t *header;
    const uint8_t *data; // the bytes as captured, from the Ethernet header on; null: nothing to process
    uint8_t host_16[8];
    uint16_t length; // bytes at data
    uint8_t host_26[6];
};
static_assert(offsetof(host_packet_t, data) == 8 && offsetof(host_packet_t, length) == 24);

struct host_flow_t {
    uint8_t host_0[24];
    uint32_t packets; // packets of the flow so far
    uint8_t host_28[4];
};
static_assert(offsetof(host_flow_t, packets) == 24);
