// The bytes of one control connection, in segments, through the real request handler. The input is a row of
// segments: a length byte and as many bytes. A connection ends in every case, and what the server sent is
// whole messages.
#include "listener/listener.h"

#include "common/settings.h"
#include "common/thread.h"
#include "protocol/message.h"
#include "tests/support/test_host.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <sys/socket.h>
#include <unistd.h>

namespace {

[[noreturn]] void fail(const char *what)
{
    std::fprintf(stderr, "%s\n", what);
    std::abort();
}

// Everything that a connection needs, made once.
class world_t {
public:
    world_t()
    {
        test_host::reset(-2);
        char pattern[] = "/tmp/kestrune-fuzz-XXXXXX";
        directory = std::string(mkdtemp(pattern)) + "/";
        ks_exp_file_path = directory.data();
        ks_exp_file_path_len = static_cast<int32_t>(directory.size());
        live = lc_init();
        history = hc_init(0);
        history->search_pause_ms = 0;
        rm_pass_pause_ms = 1000000;
        if (live == nullptr || history == nullptr || rm_init(&rm, live, &history, 1) != RM_OK) {
            fail("no registry");
        }
    }
    ~world_t()
    {
        rm_destroy(&rm);
        lc_destroy(live);
        hc_destroy(history);
        std::filesystem::remove_all(directory);
    }
    world_t(const world_t &) = delete;
    world_t &operator=(const world_t &) = delete;

    // What the last connection left is part of no other one.
    void clean()
    {
        rwlock_write(&rm.lock);
        if (rm.client_count != 0) {
            fail("a registration has outlived its connection");
        }
        rm.next_rule_id = 0;
        rwlock_write_unlock(&rm.lock);
        rm_check_and_update(&rm);
        rm_clean(&rm);
        lc_clean(live);
        hc_disable(history);
        for (const auto &file : std::filesystem::directory_iterator(directory)) {
            std::filesystem::remove(file.path());
        }
    }

    rules_manager_t rm;
    live_capture_t *live;
    history_capture_t *history;

private:
    std::string directory;
};

// Size of the server's message that these bytes begin with, 0 while that is open.
uint64_t message_size(msg_reader_t in)
{
    msg_header_t header;
    uint8_t type = 0;
    if (!msg_decode_header(&in, &header)) {
        return 0;
    }
    if (!msg_version_supported(header) || header.target != 0) {
        fail("not a header of the server");
    }
    uint32_t count = 0;
    msg_ip_detail_t detail = {};
    switch (header.code) {
    case msg_code::SUCCESS:
    case msg_code::FAIL:
    case msg_code::UNRECOGNIZED:
        return MSG_HEADER_SIZE;
    case msg_code::IP_LIST:
        return msg_get_u32(&in, &count)
                   ? MSG_HEADER_SIZE + MSG_VALUE_SIZE + uint64_t{count} * MSG_IP_LIST_ITEM_SIZE
                   : 0;
    case msg_code::IP_DETAIL:
        return msg_decode_ip_detail(&in, &detail) ? MSG_HEADER_SIZE + MSG_IP_DETAIL_SIZE + detail.name_length
                                                  : 0;
    case msg_code::HB_INFO:
        return MSG_HEADER_SIZE + MSG_HB_INFO_SIZE;
    case msg_code::UPDATE: // passes are made between connections only
        if (msg_get_u8(&in, &type) && type != msg_update::INCIDENT) {
            fail("an update nobody sent");
        }
        return MSG_HEADER_SIZE + MSG_UPDATE_INCIDENT_SIZE;
    default:
        fail("unknown code");
    }
}

void check_messages(const std::string &received)
{
    const auto *bytes = reinterpret_cast<const uint8_t *>(received.data());
    uint64_t at = 0;
    while (at < received.size()) {
        const uint64_t size =
            message_size(msg_reader(bytes + at, static_cast<uint32_t>(received.size() - at)));
        if (size == 0 || size > received.size() - at) {
            fail("a message in part");
        }
        at += size;
    }
}

void drain(int fd, std::string *received, int flags)
{
    char part[4096];
    ssize_t got = 0;
    while ((got = recv(fd, part, sizeof part, flags)) > 0) {
        received->append(part, static_cast<size_t>(got));
    }
}

// Send the segments, reading what comes meanwhile; then end the sending side and read the rest.
std::string converse(int fd, const uint8_t *data, size_t size)
{
    std::string received;
    while (size > 0) {
        const size_t length = std::min<size_t>(data[0], size - 1);
        if (send(fd, data + 1, length, MSG_NOSIGNAL) < 0) {
            break;
        }
        data += length + 1;
        size -= length + 1;
        drain(fd, &received, MSG_DONTWAIT);
    }
    shutdown(fd, SHUT_WR);
    drain(fd, &received, 0);
    return received;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static world_t world;
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) {
        fail("no sockets");
    }
    ls_client_t slot = {};
    slot.live = world.live;
    slot.rm = &world.rm;
    slot.queue_count = 1;
    slot.history = &world.history;
    slot.fd = ends[0];
    msg_channel_open(&slot.channel, ends[0]);
    slot.used.store(1);
    if (thread_start(&slot.thread, ls_client_handler, &slot) != 0) {
        fail("no handler");
    }
    check_messages(converse(ends[1], data, size));
    pthread_join(slot.thread, nullptr);
    close(ends[1]);
    if (slot.used.load() != 0 || slot.reply != nullptr) {
        fail("the slot is not free");
    }
    world.clean();
    return 0;
}
