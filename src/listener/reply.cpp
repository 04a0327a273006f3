#include "listener/reply.h"

#include "common/log.h"
#include "listener/receive.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace {

bool send_reply(ls_client_t *slot, const msg_writer_t &out)
{
    rm_reply_t reply = {out.bytes, out.used, 0};
    int result = out.failed ? RM_FAILED : rm_channel_reply(&slot->channel, &reply);
    ls_end_work(slot);
    while (result == RM_WAITS) {
        result = RM_FAILED;
        if (rm_channel_wait(&slot->channel, &reply)) {
            ls_begin_work(slot); // sending is most of a long reply's work
            result = rm_channel_reply(&slot->channel, &reply);
            ls_end_work(slot);
        }
    }
    if (result == RM_SENT) {
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
    msg_encode(&out, msg_answer(code));
    return send_reply(slot, out);
}

bool ls_reply_list(ls_client_t *slot, msg_ip_list_item_t *items, uint32_t count)
{
    const uint64_t size = MSG_HEADER_SIZE + MSG_VALUE_SIZE + uint64_t{count} * MSG_IP_LIST_ITEM_SIZE;
    // The slot owns the bytes: the clean-up of a handler that is cancelled while it sends frees them.
    slot->reply = size <= UINT32_MAX ? static_cast<uint8_t *>(std::malloc(size)) : nullptr;
    if (slot->reply == nullptr) {
        std::free(items);
        KS_ERROR("kestrune: Listener: No memory for a list of %u addresses", count);
        return ls_reply_status(slot, msg_code::FAIL);
    }
    msg_writer_t out = msg_writer(slot->reply, static_cast<uint32_t>(size));
    msg_encode(&out, msg_answer(msg_code::IP_LIST));
    msg_put_u32(&out, count);
    for (uint32_t i = 0; i < count; i++) {
        msg_encode(&out, items[i]);
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
    msg_encode(&out, msg_answer(msg_code::IP_DETAIL));
    msg_encode(&out, detail.fixed);
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
    msg_encode(&out, msg_answer(msg_code::HB_INFO));
    msg_encode(&out, info);
    KS_INFO(LOG_EVENT, "kestrune: Listener: History buffer INFO");
    return send_reply(slot, out);
}
