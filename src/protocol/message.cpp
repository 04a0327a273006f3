#include "protocol/message.h"

#include <tuple>

namespace {

bool put(msg_writer_t *out, const ip_addr_t &addr)
{
    return msg_put_bytes(out, addr.bytes, sizeof addr.bytes);
}

bool get(msg_reader_t *in, ip_addr_t *addr)
{
    *addr = {};
    return msg_get_bytes(in, addr->bytes, sizeof addr->bytes);
}

template <typename T>
bool put(msg_writer_t *out, T value)
{
    uint8_t bytes[sizeof(T)];
    for (uint32_t i = 0; i < sizeof(T); i++) {
        bytes[i] = static_cast<uint8_t>(value >> (8 * i));
    }
    return msg_put_bytes(out, bytes, sizeof bytes);
}

template <typename T>
bool get(msg_reader_t *in, T *value)
{
    uint8_t bytes[sizeof(T)] = {};
    const bool read = msg_get_bytes(in, bytes, sizeof bytes);
    uint64_t sum = 0;
    for (uint32_t i = 0; i < sizeof(T); i++) {
        sum |= static_cast<uint64_t>(bytes[i]) << (8 * i);
    }
    *value = static_cast<T>(sum);
    return read;
}

// The layout of a message: its fields in wire order, each with the size of its type, preceded by the type
// byte of an update. Encoder and decoder both follow it.
template <typename... Field>
struct layout_t {
    int type; // msg_update code of the first byte; NO_TYPE: the message has no such byte
    std::tuple<Field...> fields;
};
constexpr int NO_TYPE = -1;

template <typename... Field>
constexpr layout_t<Field...> layout_of(int type, Field... fields)
{
    return {type, {fields...}};
}

template <typename Message>
constexpr auto LAYOUT = nullptr;

template <>
constexpr auto LAYOUT<msg_header_t> = layout_of(NO_TYPE, &msg_header_t::version_major,
                                                &msg_header_t::version_minor, &msg_header_t::code,
                                                &msg_header_t::target);
template <>
constexpr auto LAYOUT<msg_add_t> = layout_of(NO_TYPE, &msg_add_t::addr, &msg_add_t::packet_limit,
                                             &msg_add_t::time_limit_s, &msg_add_t::name_length);
template <>
constexpr auto LAYOUT<msg_ip_list_item_t> = layout_of(NO_TYPE, &msg_ip_list_item_t::addr,
                                                      &msg_ip_list_item_t::direction);
template <>
constexpr auto
    LAYOUT<msg_ip_detail_t> = layout_of(NO_TYPE, &msg_ip_detail_t::addr, &msg_ip_detail_t::direction,
                                        &msg_ip_detail_t::history_progress, &msg_ip_detail_t::packets,
                                        &msg_ip_detail_t::packet_limit, &msg_ip_detail_t::elapsed_s,
                                        &msg_ip_detail_t::time_limit_s, &msg_ip_detail_t::name_length);
template <>
constexpr auto
    LAYOUT<msg_hb_info_t> = layout_of(NO_TYPE, &msg_hb_info_t::queue_count, &msg_hb_info_t::packets,
                                      &msg_hb_info_t::time_span_avg_s, &msg_hb_info_t::time_span_min_s,
                                      &msg_hb_info_t::time_span_max_s, &msg_hb_info_t::rules,
                                      &msg_hb_info_t::heavy_size, &msg_hb_info_t::size, &msg_hb_info_t::free);
template <>
constexpr auto LAYOUT<msg_update_incident_t> = layout_of(msg_update::INCIDENT,
                                                         &msg_update_incident_t::rule_id,
                                                         &msg_update_incident_t::addr);
template <>
constexpr auto LAYOUT<msg_update_capture_t> = layout_of(msg_update::CAPTURE, &msg_update_capture_t::rule_id,
                                                        &msg_update_capture_t::progress);
template <>
constexpr auto LAYOUT<msg_update_visual_t> = layout_of(msg_update::VISUAL, &msg_update_visual_t::rule_id,
                                                       &msg_update_visual_t::history_packets,
                                                       &msg_update_visual_t::live_packets,
                                                       &msg_update_visual_t::history_length,
                                                       &msg_update_visual_t::live_length);

// Bytes of a message on the wire.
template <typename Message>
constexpr uint32_t size_of()
{
    const uint32_t type_size = LAYOUT<Message>.type == NO_TYPE ? 0 : MSG_UPDATE_TYPE_SIZE;
    return std::apply(
        [&](auto... field) {
            return (type_size + ... + static_cast<uint32_t>(sizeof(std::declval<Message &>().*field)));
        },
        LAYOUT<Message>.fields);
}
static_assert(size_of<msg_header_t>() == MSG_HEADER_SIZE && size_of<msg_add_t>() == MSG_ADD_SIZE);
static_assert(size_of<msg_ip_list_item_t>() == MSG_IP_LIST_ITEM_SIZE);
static_assert(size_of<msg_ip_detail_t>() == MSG_IP_DETAIL_SIZE &&
              size_of<msg_hb_info_t>() == MSG_HB_INFO_SIZE);
static_assert(size_of<msg_update_incident_t>() == MSG_UPDATE_INCIDENT_SIZE);
static_assert(size_of<msg_update_capture_t>() == MSG_UPDATE_CAPTURE_SIZE);
static_assert(size_of<msg_update_visual_t>() == MSG_UPDATE_VISUAL_SIZE);

} // namespace

bool msg_put_bytes(msg_writer_t *out, const void *bytes, uint32_t size)
{
    if (out->failed || size > out->size - out->used) {
        out->failed = true;
        return false;
    }
    if (size > 0) {
        std::memcpy(out->bytes + out->used, bytes, size);
    }
    out->used += size;
    return true;
}

bool msg_get_bytes(msg_reader_t *in, void *bytes, uint32_t size)
{
    if (in->failed || size > in->size - in->used) {
        in->failed = true;
        return false;
    }
    if (size > 0) {
        std::memcpy(bytes, in->bytes + in->used, size);
    }
    in->used += size;
    return true;
}

bool msg_put_u32(msg_writer_t *out, uint32_t value)
{
    return put(out, value);
}

bool msg_get_u32(msg_reader_t *in, uint32_t *value)
{
    return get(in, value);
}

bool msg_get_addr(msg_reader_t *in, ip_addr_t *addr)
{
    return get(in, addr);
}

template <typename Message>
bool msg_encode(msg_writer_t *out, const Message &message)
{
    if constexpr (LAYOUT<Message>.type != NO_TYPE) {
        put(out, static_cast<uint8_t>(LAYOUT<Message>.type));
    }
    std::apply([&](auto... field) { (put(out, message.*field), ...); }, LAYOUT<Message>.fields);
    return !out->failed;
}

template <typename Message>
bool msg_decode(msg_reader_t *in, Message *message)
{
    if constexpr (LAYOUT<Message>.type != NO_TYPE) {
        uint8_t type = 0;
        in->failed |= !get(in, &type) || type != LAYOUT<Message>.type;
    }
    std::apply([&](auto... field) { (get(in, &(message->*field)), ...); }, LAYOUT<Message>.fields);
    return !in->failed;
}

// NOLINTBEGIN(bugprone-macro-parentheses): a type in parentheses is no type
#define INSTANTIATE(Message)                                                                                 \
    template bool msg_encode(msg_writer_t *, const Message &);                                               \
    template bool msg_decode(msg_reader_t *, Message *);
INSTANTIATE(msg_header_t)
INSTANTIATE(msg_add_t)
INSTANTIATE(msg_ip_list_item_t)
INSTANTIATE(msg_ip_detail_t)
INSTANTIATE(msg_hb_info_t)
INSTANTIATE(msg_update_incident_t)
INSTANTIATE(msg_update_capture_t)
INSTANTIATE(msg_update_visual_t)
// NOLINTEND(bugprone-macro-parentheses)
