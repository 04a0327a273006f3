#include "protocol/message.h"

namespace {

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

// Reads an update's type byte; any other type than the wanted one fails the cursor.
bool get_type(msg_reader_t *in, uint8_t type)
{
    uint8_t found = 0;
    if (msg_get_u8(in, &found) && found != type) {
        in->failed = true;
    }
    return !in->failed;
}

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

bool msg_put_u8(msg_writer_t *out, uint8_t value)
{
    return put(out, value);
}

bool msg_get_u8(msg_reader_t *in, uint8_t *value)
{
    return get(in, value);
}

bool msg_put_u16(msg_writer_t *out, uint16_t value)
{
    return put(out, value);
}

bool msg_get_u16(msg_reader_t *in, uint16_t *value)
{
    return get(in, value);
}

bool msg_put_u32(msg_writer_t *out, uint32_t value)
{
    return put(out, value);
}

bool msg_get_u32(msg_reader_t *in, uint32_t *value)
{
    return get(in, value);
}

bool msg_put_u64(msg_writer_t *out, uint64_t value)
{
    return put(out, value);
}

bool msg_get_u64(msg_reader_t *in, uint64_t *value)
{
    return get(in, value);
}

bool msg_put_addr(msg_writer_t *out, const ip_addr_t &addr)
{
    return msg_put_bytes(out, addr.bytes, sizeof addr.bytes);
}

bool msg_get_addr(msg_reader_t *in, ip_addr_t *addr)
{
    *addr = {};
    return msg_get_bytes(in, addr->bytes, sizeof addr->bytes);
}

bool msg_encode_header(msg_writer_t *out, const msg_header_t &header)
{
    msg_put_u8(out, header.version_major);
    msg_put_u8(out, header.version_minor);
    msg_put_u8(out, header.code);
    return msg_put_u8(out, header.target);
}

bool msg_decode_header(msg_reader_t *in, msg_header_t *header)
{
    msg_get_u8(in, &header->version_major);
    msg_get_u8(in, &header->version_minor);
    msg_get_u8(in, &header->code);
    return msg_get_u8(in, &header->target);
}

bool msg_encode_add(msg_writer_t *out, const msg_add_t &add)
{
    msg_put_addr(out, add.addr);
    msg_put_u32(out, add.packet_limit);
    msg_put_u32(out, add.time_limit_s);
    return msg_put_u8(out, add.name_length);
}

bool msg_decode_add(msg_reader_t *in, msg_add_t *add)
{
    msg_get_addr(in, &add->addr);
    msg_get_u32(in, &add->packet_limit);
    msg_get_u32(in, &add->time_limit_s);
    return msg_get_u8(in, &add->name_length);
}

bool msg_encode_ip_list_item(msg_writer_t *out, const msg_ip_list_item_t &item)
{
    msg_put_addr(out, item.addr);
    return msg_put_u8(out, item.direction);
}

bool msg_decode_ip_list_item(msg_reader_t *in, msg_ip_list_item_t *item)
{
    msg_get_addr(in, &item->addr);
    return msg_get_u8(in, &item->direction);
}

bool msg_encode_ip_detail(msg_writer_t *out, const msg_ip_detail_t &detail)
{
    msg_put_addr(out, detail.addr);
    msg_put_u8(out, detail.direction);
    msg_put_u8(out, detail.history_progress);
    msg_put_u32(out, detail.packets);
    msg_put_u32(out, detail.packet_limit);
    msg_put_u32(out, detail.elapsed_s);
    msg_put_u32(out, detail.time_limit_s);
    return msg_put_u8(out, detail.name_length);
}

bool msg_decode_ip_detail(msg_reader_t *in, msg_ip_detail_t *detail)
{
    msg_get_addr(in, &detail->addr);
    msg_get_u8(in, &detail->direction);
    msg_get_u8(in, &detail->history_progress);
    msg_get_u32(in, &detail->packets);
    msg_get_u32(in, &detail->packet_limit);
    msg_get_u32(in, &detail->elapsed_s);
    msg_get_u32(in, &detail->time_limit_s);
    return msg_get_u8(in, &detail->name_length);
}

bool msg_encode_hb_info(msg_writer_t *out, const msg_hb_info_t &info)
{
    msg_put_u32(out, info.queue_count);
    msg_put_u32(out, info.packets);
    msg_put_u32(out, info.time_span_avg_s);
    msg_put_u32(out, info.time_span_min_s);
    msg_put_u32(out, info.time_span_max_s);
    msg_put_u32(out, info.rules);
    msg_put_u32(out, info.heavy_size);
    msg_put_u64(out, info.size);
    return msg_put_u64(out, info.free);
}

bool msg_decode_hb_info(msg_reader_t *in, msg_hb_info_t *info)
{
    msg_get_u32(in, &info->queue_count);
    msg_get_u32(in, &info->packets);
    msg_get_u32(in, &info->time_span_avg_s);
    msg_get_u32(in, &info->time_span_min_s);
    msg_get_u32(in, &info->time_span_max_s);
    msg_get_u32(in, &info->rules);
    msg_get_u32(in, &info->heavy_size);
    msg_get_u64(in, &info->size);
    return msg_get_u64(in, &info->free);
}

bool msg_encode_update_incident(msg_writer_t *out, const msg_update_incident_t &update)
{
    msg_put_u8(out, msg_update::INCIDENT);
    msg_put_u32(out, update.rule_id);
    return msg_put_addr(out, update.addr);
}

bool msg_decode_update_incident(msg_reader_t *in, msg_update_incident_t *update)
{
    get_type(in, msg_update::INCIDENT);
    msg_get_u32(in, &update->rule_id);
    return msg_get_addr(in, &update->addr);
}

bool msg_encode_update_capture(msg_writer_t *out, const msg_update_capture_t &update)
{
    msg_put_u8(out, msg_update::CAPTURE);
    msg_put_u32(out, update.rule_id);
    return msg_put_u8(out, update.progress);
}

bool msg_decode_update_capture(msg_reader_t *in, msg_update_capture_t *update)
{
    get_type(in, msg_update::CAPTURE);
    msg_get_u32(in, &update->rule_id);
    return msg_get_u8(in, &update->progress);
}

bool msg_encode_update_visual(msg_writer_t *out, const msg_update_visual_t &update)
{
    msg_put_u8(out, msg_update::VISUAL);
    msg_put_u32(out, update.rule_id);
    msg_put_u32(out, update.history_packets);
    msg_put_u32(out, update.live_packets);
    msg_put_u16(out, update.history_length);
    return msg_put_u16(out, update.live_length);
}

bool msg_decode_update_visual(msg_reader_t *in, msg_update_visual_t *update)
{
    get_type(in, msg_update::VISUAL);
    msg_get_u32(in, &update->rule_id);
    msg_get_u32(in, &update->history_packets);
    msg_get_u32(in, &update->live_packets);
    msg_get_u16(in, &update->history_length);
    return msg_get_u16(in, &update->live_length);
}
