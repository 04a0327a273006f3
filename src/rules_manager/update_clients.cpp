#include "rules_manager/update_clients.h"

#include "common/log.h"
#include "rules_manager/rule_files.h"

#include <algorithm>
#include <cstring>

namespace {

// The type with which log messages print a message's size.
using size_in_log_t = unsigned long;

// Send to the client of one slot. False after logging that it did not go out whole.
bool send_to_slot(rules_manager_t *rm, uint32_t slot, iovec *parts, uint32_t part_count,
                  uint32_t message_size) KS_REQUIRES_SHARED(rm->lock)
{
    if (rm_channel_update(rm->channels[slot], parts, part_count, message_size)) {
        return true;
    }
    KS_INFO(LOG_EVENT, "kestrune: Connection to INFO socket failed");
    KS_ERROR("kestrune: Info thread: Send failed");
    return false;
}

void free_slot(rules_manager_t *rm, uint32_t slot) KS_REQUIRES(rm->lock)
{
    rm->clients[slot] = -1;
    rm->channels[slot] = nullptr;
    rm->client_count--;
}

// Free the first slot of the descriptor.
bool free_slot_of(rules_manager_t *rm, int32_t fd) KS_REQUIRES(rm->lock)
{
    for (uint32_t i = 0; fd >= 0 && i < RM_MAX_CLIENTS; i++) {
        if (rm->clients[i] == fd) {
            free_slot(rm, i);
            return true;
        }
    }
    return false;
}

} // namespace

int32_t rm_register_client(rules_manager_t *rm, int32_t fd, rm_channel_t *channel)
{
    rwlock_write(&rm->lock);
    if (rm->client_count >= static_cast<int32_t>(RM_MAX_CLIENTS)) {
        rwlock_write_unlock(&rm->lock);
        return RM_ALL_REGISTERED;
    }
    uint32_t slot = 0;
    while (slot < RM_MAX_CLIENTS && rm->clients[slot] != -1) {
        slot++;
    }
    if (slot == RM_MAX_CLIENTS) {
        rwlock_write_unlock(&rm->lock);
        KS_ERROR(
            "kestrune: Rules_manager: Register client. There should be place for a client but there is not.");
        return RM_NO_SLOT;
    }
    rm->clients[slot] = fd;
    rm->channels[slot] = channel;
    const int32_t count = ++rm->client_count;
    rwlock_write_unlock(&rm->lock);
    KS_INFO(LOG_DETAIL, "kestrune: Rules_manager: register client. Actual count: %u",
            static_cast<unsigned>(count));
    return RM_OK;
}

int32_t rm_unregister_client(rules_manager_t *rm, int32_t fd)
{
    rwlock_write(&rm->lock);
    const bool found = free_slot_of(rm, fd);
    const int32_t count = rm->client_count;
    rwlock_write_unlock(&rm->lock);
    if (!found) {
        KS_ERROR("kestrune: rules_manager: Trying to unregister not registred client");
        return RM_NOT_REGISTERED;
    }
    KS_INFO(LOG_DETAIL, "kestrune: Rules_manager: unregister client. Actual count: %u",
            static_cast<unsigned>(count));
    return RM_OK;
}

void rm_forget_client(rules_manager_t *rm, int32_t fd)
{
    rwlock_write(&rm->lock);
    const int32_t before = rm->client_count;
    while (free_slot_of(rm, fd)) {
    }
    const int32_t count = rm->client_count;
    rwlock_write_unlock(&rm->lock);
    if (count != before) {
        KS_INFO(LOG_DETAIL, "kestrune: Rules_manager: unregister client. Actual count: %u",
                static_cast<unsigned>(count));
    }
}

void rm_send_incident(rules_manager_t *rm, const rm_rule_t *rule)
{
    if (rm->client_count <= 0) {
        return;
    }
    uint8_t bytes[MSG_HEADER_SIZE + MSG_UPDATE_INCIDENT_SIZE];
    msg_writer_t out = msg_writer(bytes, sizeof bytes);
    msg_encode(&out, msg_answer(msg_code::UPDATE));
    msg_encode(&out, msg_update_incident_t{rule->id, rule->addr});
    KS_INFO(LOG_DEBUG, "kestrune: Rules_manager: message incident id  = %u, type = %u, size %lu", rule->id,
            static_cast<unsigned>(msg_update::INCIDENT), size_in_log_t{MSG_UPDATE_INCIDENT_SIZE});
    for (uint32_t i = 0; i < RM_MAX_CLIENTS; i++) {
        iovec part = {bytes, sizeof bytes};
        if (rm->clients[i] != -1 && !send_to_slot(rm, i, &part, 1, sizeof bytes)) {
            free_slot(rm, i);
        }
    }
}

void rm_batch_capture(rules_manager_t *rm, rm_capture_batch_t *batch, const rm_rule_t *rule)
{
    if (rm->client_count == 0) {
        return;
    }
    KS_INFO(LOG_DEBUG,
            "kestrune: Rules_manager: message capture id  = %u, type = %u, size %lu, progress = %u", rule->id,
            static_cast<unsigned>(msg_update::CAPTURE), size_in_log_t{MSG_UPDATE_CAPTURE_SIZE},
            static_cast<unsigned>(rule->last_progress));
    msg_writer_t out = msg_writer(batch->bytes + batch->used, RM_CAPTURE_BYTES);
    msg_encode(&out, msg_answer(msg_code::UPDATE));
    msg_encode(&out, msg_update_capture_t{rule->id, rule->last_progress});
    batch->used += RM_CAPTURE_BYTES;
    if (batch->used == sizeof batch->bytes) {
        rm_send_captures(rm, batch);
    }
}

void rm_send_captures(rules_manager_t *rm, rm_capture_batch_t *batch)
{
    if (batch->used == 0) {
        return;
    }
    for (uint32_t i = 0; i < RM_MAX_CLIENTS; i++) {
        iovec part = {batch->bytes, batch->used};
        if (rm->clients[i] != -1 && !batch->failed[i]) {
            batch->failed[i] = !send_to_slot(rm, i, &part, 1, RM_CAPTURE_BYTES);
        }
    }
    batch->used = 0;
}

void rm_send_visual(rules_manager_t *rm, const rm_rule_t *rule, const char *list, uint32_t list_len)
{
    if (rm->client_count == 0) {
        return;
    }
    const char *name = rm_relative_name(rule->live_file);
    const uint32_t name_len = std::min(static_cast<uint32_t>(std::strlen(name)), MSG_TEXT_WIRE_MAX);
    KS_INFO(LOG_DETAIL,
            "kestrune: Rules_manager: message visual id  = %u, type = %u, size %lu, hist %u, curr %u",
            rule->id, static_cast<unsigned>(msg_update::VISUAL), size_in_log_t{MSG_UPDATE_VISUAL_SIZE},
            list_len, name_len);
    uint8_t bytes[MSG_HEADER_SIZE + MSG_UPDATE_VISUAL_SIZE];
    msg_writer_t out = msg_writer(bytes, sizeof bytes);
    msg_encode(&out, msg_answer(msg_code::UPDATE));
    msg_encode(&out, msg_update_visual_t{rule->id, rule->hist_packets, rule->live_packets,
                                         static_cast<uint16_t>(list_len), static_cast<uint16_t>(name_len)});
    for (uint32_t i = 0; i < RM_MAX_CLIENTS; i++) {
        iovec parts[] = {{bytes, sizeof bytes},
                         {const_cast<char *>(list), list_len}, // sendmsg only reads
                         {const_cast<char *>(name), name_len}};
        if (rm->clients[i] != -1) {
            send_to_slot(rm, i, parts, 3, static_cast<uint32_t>(sizeof bytes) + list_len + name_len);
        }
    }
}
