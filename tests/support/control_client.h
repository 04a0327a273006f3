// A control connection of a test to a plugin that runs in its process.
#pragma once

#include "support/control_fixture.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <stdexcept>

// The TCP port on which this process listens, or 0 while it does not.
inline uint16_t listening_port()
{
    for (int fd = 0; fd < 1024; fd++) {
        int listening = 0;
        socklen_t size = sizeof listening;
        sockaddr_in6 address = {}; // its port stands where that of a sockaddr_in stands
        socklen_t address_size = sizeof address;
        if (getsockopt(fd, SOL_SOCKET, SO_ACCEPTCONN, &listening, &size) == 0 && listening != 0 &&
            getsockname(fd, reinterpret_cast<sockaddr *>(&address), &address_size) == 0) {
            return ntohs(address.sin6_port);
        }
    }
    return 0;
}

class control_client_t {
public:
    // Connects to this machine; throws std::runtime_error when that fails.
    explicit control_client_t(uint16_t port) : stream(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0))
    {
        sockaddr_in address = {};
        address.sin_family = AF_INET;
        address.sin_port = htons(port);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        if (connect(stream.fd, reinterpret_cast<sockaddr *>(&address), sizeof address) != 0) {
            throw std::runtime_error("cannot connect to the plugin");
        }
    }

    // Send a request and answer with the reply's code (msg_code), or -1 when none came. For requests without
    // a payload in their reply, on a connection that is not registered for updates.
    int ask(uint8_t action, uint8_t target, const std::string &payload = "") const
    {
        const std::string reply = stream.ask(request(action, target, payload), MSG_HEADER_SIZE);
        return reply.size() == MSG_HEADER_SIZE ? reply[2] : -1;
    }
    int add(const ip_addr_t &addr, uint32_t packet_limit, uint32_t time_limit_s,
            const std::string &name) const
    {
        const std::string key(reinterpret_cast<const char *>(addr.bytes), sizeof addr.bytes);
        return ask(msg_action::ADD, msg_target::BOTH,
                   key + little_endian(packet_limit, 4) + little_endian(time_limit_s, 4) +
                       little_endian(name.size(), 1) + name);
    }
    // HISTORY INFO; all zero when no whole reply came.
    msg_hb_info_t history() const
    {
        msg_hb_info_t info = {};
        ask(msg_action::HISTORY, msg_target::INFO);
        const std::string bytes = stream.receive(MSG_HB_INFO_SIZE);
        msg_reader_t in =
            msg_reader(reinterpret_cast<const uint8_t *>(bytes.data()), static_cast<uint32_t>(bytes.size()));
        return msg_decode_hb_info(&in, &info) ? info : msg_hb_info_t{};
    }

private:
    stream_t stream;
};
