// The bytes of one control connection, in segments, through the real request handler. The input is a row of
// segments: a length byte and as many bytes. A connection ends in every case, and what the server sent is
// whole messages.
#include "listener/listener_state.h"
#include "listener/request_handler.h"
#include "listener/slot.h"

#include "client/messages.h"
#include "common/thread.h"
#include "support/control_fixture.h"

#include <cstdio>
#include <cstdlib>
#include <span>

namespace {

[[noreturn]] void fail(const char *what)
{
    std::fprintf(stderr, "%s\n", what);
    std::abort();
}

// Everything that a connection needs, made once.
class world_t : public registry_t {
public:
    world_t() : registry_t(1) { test_host::reset(-2); }

    // What the last connection left is part of no other one.
    void clean()
    {
        rwlock_write(&rm.lock);
        if (rm.client_count != 0) {
            fail("a registration has outlived its connection");
        }
        rm.next_rule_id = 0;
        rwlock_write_unlock(&rm.lock);
        pass();
        rm_clean(&rm);
        lc_clean(live);
        hc_disable(history[0]);
        for (const auto &file : std::filesystem::directory_iterator(directory)) {
            std::filesystem::remove(file.path());
        }
    }
};

void check_messages(const std::string &received)
{
    std::span<const uint8_t> left(reinterpret_cast<const uint8_t *>(received.data()), received.size());
    while (!left.empty()) {
        size_t size = 0;
        const std::optional<kestrune::message_t> message = kestrune::decode_message(left, &size); // or throws
        if (!message) {
            fail("a message in part");
        }
        // Passes are made between connections only.
        const auto *update = std::get_if<kestrune::update_t>(&*message);
        if (update != nullptr && !std::holds_alternative<msg_update_incident_t>(*update)) {
            fail("an update nobody sent");
        }
        left = left.subspan(size);
    }
}

// Send the segments, reading what comes meanwhile; then end the sending side and read the rest.
std::string converse(const stream_t &client, const uint8_t *data, size_t size)
{
    std::string received;
    while (size > 0) {
        const size_t length = std::min<size_t>(data[0], size - 1);
        if (send(client.fd, data + 1, length, MSG_NOSIGNAL) < 0) {
            break;
        }
        data += length + 1;
        size -= length + 1;
        received += client.receive(1 << 24, 0);
    }
    shutdown(client.fd, SHUT_WR);
    return received + client.receive_all();
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
    slot.rm = &world.rm;
    slot.queue_count = 1;
    slot.history = world.history.data();
    slot.fd = ends[0];
    rm_channel_open(&slot.channel, ends[0]);
    slot.used.store(1);
    if (thread_start(&slot.thread, ls_client_handler, &slot) != 0) {
        fail("no handler");
    }
    check_messages(converse(stream_t(ends[1]), data, size));
    pthread_join(slot.thread, nullptr);
    if (slot.used.load() != 0 || slot.reply != nullptr) {
        fail("the slot is not free");
    }
    world.clean();
    return 0;
}
