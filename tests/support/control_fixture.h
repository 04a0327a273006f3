// Shared by tests of the control plane: connections, and the captures, registry and listener behind them.
#pragma once

#include "common/ip_addr.h"
#include "common/settings.h"
#include "history_capture/packet_path.h"
#include "listener/listener_state.h"
#include "listener/request_handler.h"
#include "listener/slot.h"
#include "live_capture/packet_path.h"
#include "rules_manager/rules_manager.h"
#include "support/pcap_read.h"
#include "support/test_host.h"
#include "support/wire.h"

#include <filesystem>
#include <fstream>
#include <vector>

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
