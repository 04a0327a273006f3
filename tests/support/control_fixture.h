// Shared by tests of the control plane: messages as bytes, connections, and the
// captures, registry and listener behind them.
#pragma once

#include "common/ip_addr.h"
#include "common/settings.h"
#include "history_capture/packet_path.h"
#include "listener/listener_state.h"
#include "listener/request_handler.h"
#include "listener/slot.h"
#include "live_capture/packet_path.h"
#include "rules_manager/rules_manager.h"
#include "support/host_records.h"
#include "support/pcap_read.h"
#include "support/test_host.h"

#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <poll.h>
#include <sstream>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

// "00 09" as two bytes.
inline std::string hex(const std::string &digits)
{
    std::istringstream in(digits);
    std::string bytes;
    for (std::string byte; in >> byte;) {
        bytes += static_cast<char>(std::stoi(byte, nullptr, 16));
    }
    return bytes;
}

// Parts of a message as the product encodes them.
template <typename... T>
std::string encoded(const T &...parts)
{
    uint8_t room[256];
    msg_writer_t out = msg_writer(room, sizeof room);
    EXPECT_TRUE((msg_encode(&out, parts) && ...));
    return {reinterpret_cast<const char *>(room), out.used};
}

inline std::string request(uint8_t action, uint8_t target, const std::string &payload = "")
{
    return encoded(msg_request(action, target)) + payload;
}

inline std::string add_request(uint8_t direction, uint32_t number, uint32_t packets, uint32_t seconds,
                               const std::string &name)
{
    const msg_add_t add = {numbered_address(number), packets, seconds, static_cast<uint8_t>(name.size())};
    return encoded(msg_request(msg_action::ADD, direction), add) + name;
}

inline const std::string SUCCESS = encoded(msg_answer(msg_code::SUCCESS));
inline const std::string FAIL = encoded(msg_answer(msg_code::FAIL));
inline const std::string UNRECOGNIZED = encoded(msg_answer(msg_code::UNRECOGNIZED));

inline std::string incident(uint32_t id, uint32_t number)
{
    return encoded(msg_answer(msg_code::UPDATE), msg_update_incident_t{id, numbered_address(number)});
}

inline std::string capture(uint32_t id, uint8_t percent)
{
    return encoded(msg_answer(msg_code::UPDATE), msg_update_capture_t{id, percent});
}

inline std::string visual(uint32_t id, uint32_t hist_packets, uint32_t live_packets, const std::string &list,
                          const std::string &name)
{
    const msg_update_visual_t fields = {id, hist_packets, live_packets, static_cast<uint16_t>(list.size()),
                                        static_cast<uint16_t>(name.size())};
    return encoded(msg_answer(msg_code::UPDATE), fields) + list + name;
}

// One end of a stream, closed at the end.
class stream_t {
public:
    explicit stream_t(int socket = -1) : fd(socket) {}
    ~stream_t() { end(); }
    stream_t(stream_t &&other) noexcept : fd(std::exchange(other.fd, -1)) {}
    stream_t &operator=(stream_t &&other) noexcept
    {
        std::swap(fd, other.fd);
        return *this;
    }
    void end()
    {
        if (fd != -1) {
            close(std::exchange(fd, -1));
        }
    }
    // On a port of the system's choice.
    static stream_t listening()
    {
        stream_t stream(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
        EXPECT_EQ(listen(stream.fd, 8), 0);
        return stream;
    }
    // Connected to the socket of this process that listens on it.
    static stream_t connected_to(int listening)
    {
        sockaddr_storage address = {}; // a wildcard address reaches this machine
        socklen_t size = sizeof address;
        getsockname(listening, reinterpret_cast<sockaddr *>(&address), &size);
        stream_t stream(socket(address.ss_family, SOCK_STREAM | SOCK_CLOEXEC, 0));
        EXPECT_EQ(connect(stream.fd, reinterpret_cast<sockaddr *>(&address), size), 0);
        return stream;
    }
    void send_bytes(const std::string &bytes) const
    {
        ASSERT_EQ(send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL), static_cast<ssize_t>(bytes.size()));
    }
    // Up to `size` bytes, as many as come before the time is over or the stream ends.
    std::string receive(size_t size, int milliseconds = 10000) const
    {
        std::string bytes;
        pollfd waiting = {fd, POLLIN, 0};
        while (bytes.size() < size && poll(&waiting, 1, milliseconds) == 1) {
            std::string part(std::min<size_t>(size - bytes.size(), 1 << 16), '\0');
            const ssize_t got = recv(fd, part.data(), part.size(), 0);
            if (got <= 0) {
                break;
            }
            bytes.append(part, 0, static_cast<size_t>(got));
        }
        return bytes;
    }
    // Everything until the other side closes the stream.
    std::string receive_all() const { return receive(1 << 24); }
    // Nothing more has come.
    bool is_quiet() const
    {
        char byte;
        return recv(fd, &byte, 1, MSG_DONTWAIT | MSG_PEEK) == -1 && errno == EAGAIN;
    }
    std::string ask(const std::string &bytes, size_t reply_size) const
    {
        send_bytes(bytes);
        return receive(reply_size);
    }

    int fd;
};

// Both ends of a TCP connection inside the test, with the sending side's channel.
struct connection_t {
    connection_t()
    {
        const stream_t port = stream_t::listening();
        client = stream_t::connected_to(port.fd);
        server = stream_t(accept4(port.fd, nullptr, nullptr, SOCK_CLOEXEC));
        rm_channel_open(&channel, server.fd);
    }
    // Fill the path to the client. Room reappears as long as bytes move on to the receiver, so the path is
    // full once nothing was taken for a while.
    void fill() const
    {
        const std::string bytes(4096, 'x');
        for (int refused = 0; refused < 5; refused++) {
            while (send(server.fd, bytes.data(), bytes.size(), MSG_DONTWAIT | MSG_NOSIGNAL) > 0) {
                refused = 0;
            }
            poll(nullptr, 0, 20);
        }
    }

    stream_t server;
    stream_t client;
    rm_channel_t channel;
};

// The captures of some queues, and the export directory of their files.
class captures_t {
public:
    explicit captures_t(int queues = 0, uint64_t ring_size = 0) : live(lc_init())
    {
        test_host::reset();
        for (int i = 0; i < queues; i++) {
            history.push_back(hc_init(ring_size));
            history.back()->search_pause_ms = 0;
        }
        directory = files.path();
        ks_exp_file_path = directory.data();
        ks_exp_file_path_len = static_cast<int32_t>(directory.size());
    }
    ~captures_t()
    {
        lc_destroy(live);
        for (history_capture_t *hc : history) {
            hc_destroy(hc);
        }
        ks_exp_file_path = nullptr;
        ks_exp_file_path_len = 0;
        ks_capture_script = nullptr;
    }
    captures_t(const captures_t &) = delete;
    captures_t &operator=(const captures_t &) = delete;

    // A packet from one address to another, offered to the live capture or stored in a queue's ring.
    void live_packet(uint32_t src, uint32_t dst) const
    {
        const ip_addr_t from = numbered_address(src), to = numbered_address(dst);
        (void)lc_filter(live, &from, &to, from.bytes, sizeof from.bytes, 1);
    }
    void ring_packet(size_t queue, uint32_t src, uint32_t dst) const
    {
        const ip_addr_t from = numbered_address(src), to = numbered_address(dst);
        (void)hc_enqueue(history[queue], &from, &to, from.bytes, sizeof from.bytes, 1);
    }
    bool search_ended(size_t queue, uint32_t number) const
    {
        const ip_addr_t addr = numbered_address(number);
        return (hc_search_progress(history[queue], &addr, 0) & 0xFF) == 100;
    }
    bool exists(const std::string &name) const { return std::filesystem::exists(directory + name); }
    // Files of the first versions of a name: without a version, then 1, 2, ...
    void create_versions(const std::string &name, int versions) const
    {
        for (int version = 0; version < versions; version++) {
            std::ofstream(directory + name + (version == 0 ? "" : "_" + std::to_string(version))).flush();
        }
    }
    // Make this text the capture script.
    void set_script(const std::string &text)
    {
        script = scripts.path("script");
        std::ofstream(script) << text;
        ks_capture_script = script.data();
    }

    live_capture_t *live;
    std::vector<history_capture_t *> history;
    std::string directory; // ends in '/'
    temp_dir_t scripts;

private:
    temp_dir_t files;
    std::string script;
};

// A registry whose passes the test makes itself, unless it lets the monitor make them.
class registry_t : public captures_t {
public:
    explicit registry_t(int queues = 0, uint64_t ring_size = 0, uint32_t pass_pause_ms = 1000000)
        : captures_t(queues, ring_size)
    {
        rm_pass_pause_ms = pass_pause_ms;
        EXPECT_EQ(rm_init(&rm, live, history.data(), queues), RM_OK);
    }
    ~registry_t() { rm_destroy(&rm); }

    int32_t add(uint32_t number, uint8_t direction, uint32_t packets, uint32_t seconds,
                const std::string &name)
    {
        const ip_addr_t addr = numbered_address(number);
        return rm_add_rule(&rm, &addr, direction, packets, seconds, name.data(),
                           static_cast<uint32_t>(name.size()));
    }
    int32_t drop(uint32_t number, uint8_t direction)
    {
        const ip_addr_t addr = numbered_address(number);
        return rm_drop_rule(&rm, &addr, direction);
    }
    // All zeros for a rule without a live capture.
    msg_ip_detail_t detail(uint32_t number)
    {
        const ip_addr_t addr = numbered_address(number);
        rm_detail_t reply = {};
        (void)rm_address_detail(&rm, &reply, &addr);
        return reply.fixed;
    }
    int32_t rules()
    {
        msg_ip_list_item_t *items = nullptr;
        const int32_t count = rm_address_list(&rm, msg_target::ALL, &items);
        std::free(items);
        return count;
    }
    int32_t register_client(connection_t &connection)
    {
        return rm_register_client(&rm, connection.server.fd, &connection.channel);
    }
    void pass() { rm_check_and_update(&rm); }
    // Makes passes until no rule is left.
    bool finishes()
    {
        return wait_until([&] {
            pass();
            return rules() == 0;
        });
    }

    rules_manager_t rm;
};

// A listener on a free port, with the monitor pauses that the test wants.
class server_t : public captures_t {
public:
    explicit server_t(int queues = 0, uint32_t pass_pause_ms = 1000000) : captures_t(queues)
    {
        rm_pass_pause_ms = pass_pause_ms;
        listener = ls_init(live, "0", queues, history.data());
        EXPECT_TRUE(listener != nullptr && wait_until([] { return listening_port() != 0; }));
    }
    ~server_t() { stop(); }
    void stop()
    {
        ls_destroy(listener);
        listener = nullptr;
    }
    stream_t connect_client() const { return stream_t::connected_to(listener->sock); }
    // Every handler waits for its client (the host is to keep the messages).
    static bool reads_no_more()
    {
        return wait_until([] {
            const int before = test_host::count("Received header");
            poll(nullptr, 0, 200);
            return test_host::count("Received header") == before;
        });
    }

    listener_t *listener;
};
