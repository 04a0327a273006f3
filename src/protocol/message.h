// The control protocol, version 0.9: its codes, its messages and their bytes. docs/protocol.md
// describes the conversation for authors of clients. Only this header and message.cpp know the
// layouts, for the plugin and for its clients.
//
// A structure here holds decoded values and is never cast onto the wire. message.cpp lists the fields of each
// message once; encoder and decoder follow that list through a cursor over the caller's bytes: msg_writer_t
// and msg_reader_t. A cursor never leaves its bytes. A request for more than is left makes it fail; it stays
// failed and does nothing more, so a chain of steps needs one check at its end.
//
// Integers are little-endian on the wire, addresses are the 16 bytes of ip_addr_t unchanged, there is no
// padding. Names and file names follow their fixed part without a terminator (msg_put_bytes, msg_get_bytes).
//
// Nothing here allocates, blocks, logs or keeps state; any thread may use it on cursors of its own.
#pragma once

#include "common/ip_addr.h"

#include <cstdint>

constexpr uint8_t MSG_VERSION_MAJOR = 0;
constexpr uint8_t MSG_VERSION_MINOR = 9;

// Byte 2 of a request.
namespace msg_action {
enum : uint8_t { ADD = 0, REMOVE = 1, LIST = 2, DETAIL = 3, HISTORY = 4, INFO = 5, QUIT = 6, REQ_HS = 7 };
}

// Byte 3 of a request. The first three are the direction codes of ip_addr.h.
namespace msg_target {
enum : uint8_t {
    SRC = ::SRC,
    DST = ::DST,
    BOTH = ::BOTH,
    ALL = 3,
    ON = 4,
    OFF = 5,
    INFO = 6,
    AUTO = 7,
    HEAVY_SIZE = 8
};
}

// Byte 2 of a message from the server.
namespace msg_code {
enum : uint8_t {
    SUCCESS = 0,
    FAIL = 1,
    UNRECOGNIZED = 2,
    IP_LIST = 3,
    IP_DETAIL = 4,
    HB_INFO = 5,
    UPDATE = 6
};
}

// Byte 0 of the payload of an UPDATE.
namespace msg_update {
enum : uint8_t { INCIDENT = 2, CAPTURE = 3, VISUAL = 4 };
}

// Bytes on the wire.
constexpr uint32_t MSG_HEADER_SIZE = 4;
constexpr uint32_t MSG_ADDR_SIZE = 16; // REMOVE and DETAIL requests
constexpr uint32_t MSG_VALUE_SIZE = 4; // HISTORY ON, REQ_HS HEAVY_SIZE and the count of an IP_LIST
constexpr uint32_t MSG_ADD_SIZE = 25;  // without the name
constexpr uint32_t MSG_IP_LIST_ITEM_SIZE = 17;
constexpr uint32_t MSG_IP_DETAIL_SIZE = 35; // without the name
constexpr uint32_t MSG_HB_INFO_SIZE = 44;
constexpr uint32_t MSG_UPDATE_TYPE_SIZE = 1; // counted in each of the three below
constexpr uint32_t MSG_UPDATE_INCIDENT_SIZE = 21;
constexpr uint32_t MSG_UPDATE_CAPTURE_SIZE = 6;
constexpr uint32_t MSG_UPDATE_VISUAL_SIZE = 17; // without the two texts

constexpr uint32_t MSG_NAME_MAX = 127;        // longest name that a rule may have
constexpr uint32_t MSG_NAME_WIRE_MAX = 255;   // longest name that a length byte can announce
constexpr uint32_t MSG_TEXT_WIRE_MAX = 65535; // longest text that a VISUAL can announce

static_assert(MSG_ADDR_SIZE == sizeof(ip_addr_t));

// First four bytes of every message in both directions.
struct msg_header_t {
    uint8_t version_major;
    uint8_t version_minor;
    uint8_t code;   // msg_action of a request, msg_code of a server message
    uint8_t target; // msg_target of a request, 0 in a server message
};

// Fixed part of an ADD request; name_length bytes of the name follow.
struct msg_add_t {
    ip_addr_t addr;
    uint32_t packet_limit; // packets of the live capture; 0: no live capture
    uint32_t time_limit_s; // of the live capture; 0: no live capture
    uint8_t name_length;   // bytes; valid are 1 to MSG_NAME_MAX
};

// One record of an IP_LIST.
struct msg_ip_list_item_t {
    ip_addr_t addr;
    uint8_t direction; // SRC, DST or BOTH
};

// Fixed part of an IP_DETAIL; name_length bytes of the name follow.
struct msg_ip_detail_t {
    ip_addr_t addr;
    uint8_t direction;        // SRC, DST or BOTH
    uint8_t history_progress; // percent; 0 for a rule without history searches
    uint32_t packets;         // written so far by the live capture
    uint32_t packet_limit;
    uint32_t elapsed_s; // since the live capture started
    uint32_t time_limit_s;
    uint8_t name_length; // bytes
};

// The history buffers of all queues together.
struct msg_hb_info_t {
    uint32_t queue_count;
    uint32_t packets;         // records in all rings
    uint32_t time_span_avg_s; // seconds that a ring reaches back: average of the queues,
    uint32_t time_span_min_s; // smallest
    uint32_t time_span_max_s; // largest
    uint32_t rules;           // largest number of new rules waiting in one queue
    uint32_t heavy_size;      // hc_heavy_size, packets
    uint64_t size;            // bytes of all rings
    uint64_t free;            // bytes of these not in use
};

// UPDATE: a rule was created.
struct msg_update_incident_t {
    uint32_t rule_id;
    ip_addr_t addr;
};

// UPDATE: a rule's total progress changed.
struct msg_update_capture_t {
    uint32_t rule_id;
    uint8_t progress; // percent, 0 to 100
};

// UPDATE: a rule finished. history_length bytes of the history list follow (file names separated by ','),
// then live_length bytes of the live file's name; both relative to the export directory.
struct msg_update_visual_t {
    uint32_t rule_id;
    uint32_t history_packets;
    uint32_t live_packets;
    uint16_t history_length; // bytes
    uint16_t live_length;    // bytes
};

// Cursor that writes into the caller's bytes (borrowed).
struct msg_writer_t {
    uint8_t *bytes;
    uint32_t size; // bytes there
    uint32_t used; // bytes written
    bool failed;   // something did not fit; nothing has been written since
};

// Cursor that reads the caller's bytes (borrowed).
struct msg_reader_t {
    const uint8_t *bytes;
    uint32_t size; // bytes there
    uint32_t used; // bytes read
    bool failed;   // too few bytes or a wrong value; nothing has been read since
};

inline msg_writer_t msg_writer(uint8_t *bytes, uint32_t size)
{
    return {bytes, size, 0, false};
}

inline msg_reader_t msg_reader(const uint8_t *bytes, uint32_t size)
{
    return {bytes, size, 0, false};
}

inline msg_header_t msg_request(uint8_t action, uint8_t target)
{
    return {MSG_VERSION_MAJOR, MSG_VERSION_MINOR, action, target};
}

inline msg_header_t msg_answer(uint8_t code)
{
    return {MSG_VERSION_MAJOR, MSG_VERSION_MINOR, code, 0};
}

inline bool msg_version_supported(const msg_header_t &header)
{
    return header.version_major == MSG_VERSION_MAJOR && header.version_minor == MSG_VERSION_MINOR;
}

// The cursors' steps. Each advances the cursor by its whole size or makes it fail; on failure a reader's
// output is zero (msg_get_bytes leaves it unchanged). size may be 0 with a null pointer.
bool msg_put_u32(msg_writer_t *out, uint32_t value);
bool msg_get_u32(msg_reader_t *in, uint32_t *value);
bool msg_get_addr(msg_reader_t *in, ip_addr_t *addr);
bool msg_put_bytes(msg_writer_t *out, const void *bytes, uint32_t size);
bool msg_get_bytes(msg_reader_t *in, void *bytes, uint32_t size);

// For each of the messages above: true when the cursor has not failed. msg_encode writes part of a message
// that does not fit, so check the result before sending. msg_decode checks sizes and the type byte of an
// update. The caller checks the values (a version, a direction, a percentage).
template <typename Message>
bool msg_encode(msg_writer_t *out, const Message &message);
template <typename Message>
bool msg_decode(msg_reader_t *in, Message *message);
