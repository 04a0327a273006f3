#include "probe/service.h"

#include "probe/log.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <charconv>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <netinet/in.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace probe {
namespace {

constexpr uint64_t STATUS_PERIOD_NS = 10'000'000'000;
constexpr const char *RESERVED_ADDRESS = "240.0.0.1"; // class E: no machine has one

std::string take_variable(const char *name)
{
    const char *value = std::getenv(name);
    std::string text = value != nullptr ? value : "";
    unsetenv(name);
    return text;
}

uint64_t number(const std::string &text)
{
    uint64_t value = 0;
    std::from_chars(text.data(), text.data() + text.size(), value);
    return value;
}

} // namespace

service_t::service_t() : socket_(take_variable("NOTIFY_SOCKET"))
{
    const uint64_t watchdog_us = number(take_variable("WATCHDOG_USEC"));
    const std::string watched = take_variable("WATCHDOG_PID");
    if (!active()) {
        return;
    }
    period_ns_ = STATUS_PERIOD_NS;
    if (watchdog_us > 0 && (watched.empty() || number(watched) == static_cast<uint64_t>(getpid()))) {
        period_ns_ = std::min(STATUS_PERIOD_NS, watchdog_us * 1000 / 3);
    }
}

void service_t::ready(const std::string &status)
{
    send("READY=1\nSTATUS=" + status);
}

void service_t::stopping()
{
    if (!stopping_) {
        stopping_ = true;
        send("STOPPING=1\nSTATUS=stopping");
    }
}

void service_t::alive(const std::string &status) const
{
    send("WATCHDOG=1" + (stopping_ ? "" : "\nSTATUS=" + status));
}

// A name that begins with '@' is an abstract socket.
void service_t::send(const std::string &text) const
{
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    if (!active() || socket_.size() >= sizeof address.sun_path) {
        return;
    }
    std::memcpy(address.sun_path, socket_.data(), socket_.size());
    if (address.sun_path[0] == '@') {
        address.sun_path[0] = '\0';
    }
    const auto size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + socket_.size());
    const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0 || sendto(fd, text.data(), text.size(), MSG_NOSIGNAL, reinterpret_cast<sockaddr *>(&address),
                         size) < 0) {
        log_warning("cannot notify the service manager: %s", std::strerror(errno));
    }
    if (fd >= 0) {
        close(fd);
    }
}

bool addresses_restricted()
{
    const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        return false;
    }
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(9); // discard
    inet_pton(AF_INET, RESERVED_ADDRESS, &address.sin_addr);
    const bool refused = setsockopt(fd, SOL_SOCKET, SO_BINDTODEVICE, "lo", 3) == 0 &&
                         sendto(fd, "", 1, 0, reinterpret_cast<sockaddr *>(&address), sizeof address) < 0 &&
                         errno == EPERM;
    close(fd);
    return refused;
}

void keep_capabilities_from_children()
{
    prctl(PR_CAP_AMBIENT, PR_CAP_AMBIENT_CLEAR_ALL, 0, 0,
          0); // fails on kernels without them: none are passed on then
}

} // namespace probe
