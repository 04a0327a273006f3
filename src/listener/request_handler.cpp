#include "listener/request_handler.h"

#include "common/log.h"
#include "common/printable.h"
#include "common/settings.h"
#include "common/thread.h"
#include "listener/history_requests.h"
#include "listener/receive.h"
#include "listener/reply.h"
#include "listener/slot.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

namespace {

bool receive_addr(const ls_client_t *slot, ip_addr_t *addr)
{
    uint8_t bytes[MSG_ADDR_SIZE];
    if (!ls_receive(slot, bytes, sizeof bytes)) {
        return false;
    }
    msg_reader_t in = msg_reader(bytes, sizeof bytes);
    return msg_get_addr(&in, addr);
}

void log_added(const char *name, const timeval &received)
{
    if (own_verbose_level() < LOG_EVENT) {
        return;
    }
    char date[50] = "";
    tm local = {};
    localtime_r(&received.tv_sec, &local);
    std::strftime(date, sizeof date, "%Y-%m-%d %H:%M:%S", &local);
    printable_t space;
    KS_INFO(LOG_EVENT, "kestrune: Listener: Rule for %s added, timestamp: %s,%06u", printable(name, &space),
            date, static_cast<unsigned>(received.tv_usec));
}

// A name becomes part of a path. It must not lead out of the export directory or end early.
bool name_is_usable(const uint8_t *name, uint32_t length)
{
    if (length == 0 || length > MSG_NAME_MAX) {
        KS_INFO(LOG_EVENT, "kestrune: Listener: Rule not added: invalid name lenght");
        return false;
    }
    if (std::memchr(name, '/', length) != nullptr || std::memchr(name, '\0', length) != nullptr) {
        KS_INFO(LOG_EVENT, "kestrune: Listener: Rule not added: invalid character in name");
        return false;
    }
    return true;
}

bool handle_add(ls_client_t *slot, uint8_t target, const timeval &received)
{
    uint8_t bytes[MSG_ADD_SIZE];
    uint8_t name[MSG_NAME_WIRE_MAX + 1] = {};
    msg_add_t add = {};
    if (target > BOTH) {
        return ls_reply_status(slot, msg_code::UNRECOGNIZED);
    }
    if (!ls_receive(slot, bytes, sizeof bytes)) {
        KS_ERROR("kestrune: Listener: ADD details not received");
        return false;
    }
    msg_reader_t in = msg_reader(bytes, sizeof bytes);
    msg_decode(&in, &add);
    if (!ls_receive(slot, name, add.name_length)) {
        KS_ERROR("kestrune: Listener: ADD, name not received");
        return false;
    }
    ls_begin_work(slot);
    if (!name_is_usable(name, add.name_length)) {
        return ls_reply_status(slot, msg_code::FAIL);
    }
    const char *text = reinterpret_cast<const char *>(name);
    if (rm_add_rule(slot->rm, &add.addr, target, add.packet_limit, add.time_limit_s, text, add.name_length) !=
        RM_OK) {
        return ls_reply_status(slot, msg_code::FAIL);
    }
    log_added(text, received);
    return ls_reply_status(slot, msg_code::SUCCESS);
}

bool handle_remove(ls_client_t *slot, uint8_t target)
{
    ip_addr_t addr = {};
    if (!receive_addr(slot, &addr)) {
        KS_ERROR("kestrune: Listener: request remove, IP address was not received");
        return false;
    }
    ls_begin_work(slot);
    if (rm_drop_rule(slot->rm, &addr, target) != RM_OK) {
        KS_INFO(LOG_DETAIL, "kestrune: Listener: Address to remove was not found");
        return ls_reply_status(slot, msg_code::FAIL);
    }
    KS_INFO(LOG_DEBUG, "kestrune: Listener: Rule removed, pcap file closed");
    return ls_reply_status(slot, msg_code::SUCCESS);
}

bool handle_list(ls_client_t *slot, uint8_t target)
{
    if (target > msg_target::ALL) {
        return ls_reply_status(slot, msg_code::UNRECOGNIZED);
    }
    msg_ip_list_item_t *items = nullptr;
    const int32_t count = rm_address_list(slot->rm, target, &items);
    if (count < 0) {
        return ls_reply_status(slot, msg_code::FAIL);
    }
    return ls_reply_list(slot, items, static_cast<uint32_t>(count));
}

bool handle_detail(ls_client_t *slot, uint8_t target)
{
    ip_addr_t addr = {};
    rm_detail_t detail;
    if (target > BOTH) {
        return ls_reply_status(slot, msg_code::UNRECOGNIZED);
    }
    if (!receive_addr(slot, &addr)) {
        KS_ERROR("kestrune: Listener: request detail, IP address was not received");
        return false;
    }
    ls_begin_work(slot);
    if (rm_address_detail(slot->rm, &detail, &addr) != RM_OK) {
        KS_INFO(LOG_DETAIL,
                "kestrune: Listener: Detail of address could not be send, because the address is not "
                "in the rules");
        return ls_reply_status(slot, msg_code::FAIL);
    }
    return ls_reply_detail(slot, detail);
}

bool handle_info_on(ls_client_t *slot)
{
    KS_INFO(LOG_DEBUG, "kestrune: Listener: Request for turning on sending updates");
    if (rm_register_client(slot->rm, slot->fd, &slot->channel) != RM_OK) {
        KS_INFO(LOG_EVENT, "kestrune: Listener: Register new client for updates was not success");
        return ls_reply_status(slot, msg_code::FAIL);
    }
    return ls_reply_status(slot, msg_code::SUCCESS);
}

bool handle_info_off(ls_client_t *slot)
{
    KS_INFO(LOG_DEBUG, "kestrune: Listener: Request for turning off sending updates");
    if (rm_unregister_client(slot->rm, slot->fd) != RM_OK) {
        KS_INFO(LOG_EVENT,
                "kestrune: Listener: unregister new client for updates was not success. The client was "
                "not registered.");
        return ls_reply_status(slot, msg_code::FAIL);
    }
    return ls_reply_status(slot, msg_code::SUCCESS);
}

bool handle_info(ls_client_t *slot, uint8_t target)
{
    if (target == msg_target::ON) {
        return handle_info_on(slot);
    }
    if (target == msg_target::OFF) {
        return handle_info_off(slot);
    }
    KS_INFO(LOG_DEBUG, "kestrune: Listener: Request for INFO but with invalid target");
    return ls_reply_status(slot, msg_code::UNRECOGNIZED);
}

bool handle_heavy_size(ls_client_t *slot, uint8_t target)
{
    if (target == msg_target::AUTO) {
        KS_INFO(LOG_START, "kestrune: Listener: REQ_HS AUTO not supported yet");
        return ls_reply_status(slot, msg_code::UNRECOGNIZED);
    }
    if (target != msg_target::HEAVY_SIZE) {
        KS_INFO(LOG_EVENT, "kestrune: Listener: Unrecognized target in REQ_HS");
        return ls_reply_status(slot, msg_code::UNRECOGNIZED);
    }
    uint32_t packets = 0;
    if (!ls_receive_value(slot, &packets)) {
        KS_ERROR("kestrune: Listener: Heavy size, but the argument was not received.");
        return false;
    }
    ls_begin_work(slot);
    set_heavy_size(packets);
    KS_INFO(LOG_EVENT, "kestrune: Listener: Heavy size set to %u", packets);
    return ls_reply_status(slot, msg_code::SUCCESS);
}

// Whether bytes follow the request's header.
bool has_payload(const msg_header_t &header)
{
    switch (header.code) {
    case msg_action::ADD:
    case msg_action::DETAIL:
        return header.target <= BOTH;
    case msg_action::REMOVE:
        return true;
    case msg_action::HISTORY:
        return header.target == msg_target::ON;
    case msg_action::REQ_HS:
        return header.target == msg_target::HEAVY_SIZE;
    default:
        return false;
    }
}

// Carry out a request, from the bytes after its header. Each handler receives its part, then begins the work.
bool dispatch(ls_client_t *slot, const msg_header_t &header, const timeval &received)
{
    switch (header.code) {
    case msg_action::ADD:
        return handle_add(slot, header.target, received);
    case msg_action::REMOVE:
        return handle_remove(slot, header.target);
    case msg_action::LIST:
        return handle_list(slot, header.target);
    case msg_action::DETAIL:
        return handle_detail(slot, header.target);
    case msg_action::HISTORY:
        return ls_handle_history(slot, header.target);
    case msg_action::INFO:
        return handle_info(slot, header.target);
    case msg_action::QUIT:
        KS_INFO(LOG_DETAIL, "kestrune: Listener: Connection closed: received quit message");
        return false;
    case msg_action::REQ_HS:
        return handle_heavy_size(slot, header.target);
    default:
        KS_INFO(LOG_EVENT, "kestrune: Listener: Unrecognized action");
        return ls_reply_status(slot, msg_code::UNRECOGNIZED);
    }
}

// One request from its header to its reply.
bool serve_request(ls_client_t *slot)
{
    uint8_t bytes[MSG_HEADER_SIZE];
    const bool waited = ls_must_wait(slot);
    if (!ls_receive(slot, bytes, sizeof bytes)) {
        return false;
    }
    slot->permit.leads = waited && slot->served; // the first ones of many connections come all at once
    slot->served = true;
    timeval received = {};
    gettimeofday(&received, nullptr);
    msg_header_t header = {};
    msg_reader_t in = msg_reader(bytes, sizeof bytes);
    msg_decode(&in, &header);
    KS_INFO(LOG_DEBUG, "kestrune: Listener: Received header v: %d.%d a: %d t: %d", header.version_major,
            header.version_minor, header.code, header.target);
    if (!msg_version_supported(header)) {
        KS_INFO(LOG_EVENT, "kestrune: Listener: Connection closed: protocol version not supported");
        return false;
    }
    if (!has_payload(header)) {
        ls_begin_work(slot);
    }
    return dispatch(slot, header, received);
}

} // namespace

void *ls_client_handler(void *argument)
{
    auto *slot = static_cast<ls_client_t *>(argument);
    thread_begin("ks-client");
    KS_INFO(LOG_DETAIL, "kestrune: Listener: Client handler spawned successfuly");
    pthread_cleanup_push(ls_client_handler_cleanup, slot);
    while (serve_request(slot)) {
    }
    pthread_cleanup_pop(1);
    return nullptr;
}

void ls_client_handler_cleanup(void *argument)
{
    auto *slot = static_cast<ls_client_t *>(argument);
    KS_INFO(LOG_DETAIL, "kestrune: Listener: Terminating client handler");
    ls_permit_close(slot->permits, &slot->permit);
    rm_forget_client(slot->rm, slot->fd); // INFO ON may have been sent twice
    std::free(slot->reply);
    slot->reply = nullptr;
    close(slot->fd);
    slot->used.store(0, std::memory_order_release);
}
