// A control connection of a test to a plugin that runs in some process.
#pragma once

#include "protocol/message.h"

#include <cstdint>
#include <string>
#include <sys/types.h>

// The TCP port on which the process listens, or 0 while it does not.
uint16_t listening_port(pid_t pid);

class control_client_t {
public:
    // Connects to this machine; throws std::runtime_error when that fails.
    explicit control_client_t(uint16_t port);
    ~control_client_t();
    control_client_t(const control_client_t &) = delete;
    control_client_t &operator=(const control_client_t &) = delete;

    // Send a request and answer with the reply's code (msg_code), or -1 when none came. For requests without
    // a payload in their reply, on a connection that is not registered for updates.
    int ask(uint8_t action, uint8_t target, const std::string &payload = "");
    int add(const ip_addr_t &addr, uint32_t packet_limit, uint32_t time_limit_s, const std::string &name);
    int set_heavy_size(uint32_t packets);
    // HISTORY INFO; all zero when no whole reply came.
    msg_hb_info_t history();

private:
    int fd;
};
