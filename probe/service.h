// The probe as a systemd service: state notifications (sd_notify(3)), and a check that the unit's address
// restriction works. Without NOTIFY_SOCKET in the environment the notifications do nothing.
//
// Threads: the main thread only, so the watchdog watches that thread. A queue that a
// slow disk holds up is no hang.
#pragma once

#include <cstdint>
#include <string>

namespace probe {

class service_t {
public:
    // Removes its variables from the environment, which the plugin's programs inherit.
    service_t();

    bool active() const { return !socket_.empty(); }
    void ready(const std::string &status);
    void stopping();
    // Call it about once in period_ns(): it feeds the watchdog.
    void alive(const std::string &status) const;
    uint64_t period_ns() const { return period_ns_; } // UINT64_MAX: never

private:
    void send(const std::string &text) const;

    std::string socket_; // address; empty: none
    uint64_t period_ns_ = UINT64_MAX;
    bool stopping_ = false;
};

// Whether the addresses that this process can reach are restricted (systemd's
// IPAddressDeny=any). The system then refuses to send to an unused address. The packet goes to
// the loopback interface and never leaves the machine.
bool addresses_restricted();

// Drop the capabilities of programs that the plugin starts; the probe keeps its own.
void keep_capabilities_from_children();

} // namespace probe
