#include "listener/reply.h"

#include "common/log.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace {

bool send_reply(ls_client_t *slot, const msg_writer_t &out)
{
    if (!out.failed && msg_channel_reply(&slot->channel, out.bytes, out.used) == 0) {
        return true;
    }
    KS_INFO(LOG_EVENT, "kestrune: Listener: Connection closed: send failed");
    KS_ERROR("kestrune: send failed: %s", strerror(errno));
    return false;
}

} // namespace

bool ls_reply_status(ls_client_t *slot, uint8_t code)
{
    if (code == msg_code::SUCCESS) {
        KS_INFO(LOG_DETAIL, "kestrune: Listener: Sending success to client");
    } else if (code == msg_code::FAIL) {
        KS_INFO(LOG_DETAIL, "kestrune: Listener: Sending fail to client");
    } else {
        KS_INFO(LOG_EVENT, "kestrune: Listener: Unrecognized action");
    }
    uint8_t bytes[MSG_HEADER_SIZE];
    msg_writer_t out = msg_writer(bytes, sizeof bytes);
    msg_encode_header(&out, msg_answer(code));
    return send_reply(slot, out);
}

bool ls_reply_list(ls_client_t *slot, msg_ip_list_item_t *items, uint32_t count)
{
    const uint64_t size = MSG_HEADER_SIZE + MSG_VALUE_SIZE + uint64_t{count} * MSG_IP_LIST_ITEM_SIZE;
    // The slot owns the bytes: a handler that is cancelled while it sends frees them in its clean-up.
    slot->reply = size <= UINT32_MAX ? static_cast<uint8_t *>(std::malloc(size)) : nullptr;
    if (slot->reply == nullptr) {
        std::free(items);
        KS_ERROR("kestrune: Listener: No memory for a list of %u addresses", count);
        return ls_reply_status(slot, msg_code::FAIL);
    }
    msg_writer_t out = msg_writer(slot->reply, static_cast<uint32_t>(size));
    msg_encode_header(&out, msg_answer(msg_code::IP_LIST));
    msg_put_u32(&out, count);
    for (uint32_t i = 0; i < count; i++) {
        msg_encode_ip_list_item(&out, items[i]);
    }
    std::free(items);
    const bool sent = send_reply(slot, out);
    std::free(slot->reply);
    slot->reply = nullptr;
    if (sent) {
        KS_INFO(LOG_DETAIL, "kestrune: Listener: Sending IP list");
    }
    return sent;
}

bool ls_reply_detail(ls_client_t *slot, const rm_detail_t &detail)
{
    uint8_t bytes[MSG_HEADER_SIZE + MSG_IP_DETAIL_SIZE + MSG_NAME_WIRE_MAX];
    msg_writer_t out = msg_writer(bytes, sizeof bytes);
    msg_encode_header(&out, msg_answer(msg_code::IP_DETAIL));
    msg_encode_ip_detail(&out, detail.fixed);
    msg_put_bytes(&out, detail.name, detail.fixed.name_length);
    const bool sent = send_reply(slot, out);
    if (sent) {
        KS_INFO(LOG_DEBUG, "kestrune: Listener: Sending IP details");
    }
    return sent;
}

bool ls_reply_history(ls_client_t *slot, const msg_hb_info_t &info)
{
    uint8_t bytes[MSG_HEADER_SIZE + MSG_HB_INFO_SIZE];
    msg_writer_t out = msg_writer(bytes, sizeof bytes);
    msg_encode_header(&out, msg_answer(msg_code::HB_INFO));
    msg_encode_hb_info(&out, info);
    KS_INFO(LOG_EVENT, "kestrune: Listener: History buffer INFO");
    return send_reply(slot, out);
}
