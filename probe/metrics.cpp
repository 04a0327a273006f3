#include "probe/metrics.h"

#include "common/clock.h"
#include "probe/error.h"
#include "probe/log.h"
#include "probe/signals.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <exception>
#include <httplib.h>
#include <netdb.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

namespace probe {
namespace {

constexpr int THREAD_COUNT = 2;
constexpr int NICE = 10;
constexpr int BACKLOG = 16;
constexpr size_t REQUEST_SIZE_MAX = 4096;
constexpr uint64_t REQUEST_NS = 500'000'000;      // to send the request
constexpr uint64_t CONNECTION_NS = 2'000'000'000; // and to take the response
constexpr uint64_t PAUSE_NS = 20'000'000;         // of a thread after each connection
constexpr const char *TYPE = "text/plain; version=0.0.4; charset=utf-8";

// One connection. Reading and writing end when their time is over, at a stop, and at the largest request.
class connection_t final : public httplib::Stream {
public:
    connection_t(int fd, const stop_event_t &stop) : fd_(fd), stop_(stop), began_ns_(monotonic_now_ns()) {}

    bool is_readable() const override { return true; }
    bool is_writable() const override { return true; }

    ssize_t read(char *bytes, size_t size) override
    {
        if (begin_ == end_) {
            if (end_ == buffer_.size() || !wait(POLLIN, REQUEST_NS)) {
                return -1;
            }
            const ssize_t got = recv(fd_, buffer_.data() + end_, buffer_.size() - end_, MSG_DONTWAIT);
            if (got <= 0) {
                return got;
            }
            end_ += static_cast<size_t>(got);
        }
        const size_t count = std::min(size, end_ - begin_);
        std::copy_n(buffer_.data() + begin_, count, bytes);
        begin_ += count;
        return static_cast<ssize_t>(count);
    }

    ssize_t write(const char *bytes, size_t size) override
    {
        return wait(POLLOUT, CONNECTION_NS) ? send(fd_, bytes, size, MSG_DONTWAIT | MSG_NOSIGNAL) : -1;
    }

    void get_remote_ip_and_port(std::string & /*ip*/, int & /*port*/) const override {}
    void get_local_ip_and_port(std::string & /*ip*/, int & /*port*/) const override {}
    socket_t socket() const override { return fd_; }

private:
    bool wait(short what, uint64_t limit_ns) const
    {
        const uint64_t passed_ns = monotonic_now_ns() - began_ns_;
        if (passed_ns >= limit_ns || stop_.requested()) {
            return false;
        }
        pollfd events[] = {{fd_, what, 0}, {stop_.fd(), POLLIN, 0}};
        return poll(events, 2, static_cast<int>((limit_ns - passed_ns) / NS_PER_MS) + 1) > 0 &&
               events[0].revents != 0;
    }

    int fd_;
    const stop_event_t &stop_;
    uint64_t began_ns_;
    std::array<char, REQUEST_SIZE_MAX> buffer_; // the whole request
    size_t begin_ = 0;                          // start of the unread part
    size_t end_ = 0;
};

[[noreturn]] void fail(const std::string &address, const std::string &why)
{
    throw error_t("cannot serve metrics on " + address + ": " + why +
                  "; set another ADDRESS:PORT with --metrics");
}

std::unique_ptr<addrinfo, decltype(&freeaddrinfo)> resolve(const std::string &address)
{
    const size_t colon = address.rfind(':');
    std::string host = address.substr(0, colon);
    if (host.size() > 2 && host.front() == '[' && host.back() == ']') {
        host = host.substr(1, host.size() - 2);
    }
    addrinfo hints = {};
    hints.ai_flags = AI_NUMERICHOST | AI_NUMERICSERV | AI_PASSIVE;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo *found = nullptr;
    const int error = getaddrinfo(host.c_str(), address.c_str() + colon + 1, &hints, &found);
    if (error != 0) {
        fail(address, gai_strerror(error));
    }
    return {found, &freeaddrinfo};
}

} // namespace

// The library reads requests and writes responses; this program provides the connections.
class metrics_server_t::http_t : public httplib::Server {
public:
    void answer(httplib::Stream *connection)
    {
        bool closed = false;
        process_request(*connection, true, closed, [](httplib::Request &request) {
            // A client must not make the server compress the text or send parts of it many times over.
            request.headers.erase("Accept-Encoding");
            request.ranges.clear();
        });
    }
};

metrics_server_t::metrics_server_t(const std::string &address) : fd_(-1)
{
    const auto found = resolve(address);
    const int on = 1;
    fd_ = socket(found->ai_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd_ < 0 || setsockopt(fd_, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) != 0 ||
        bind(fd_, found->ai_addr, found->ai_addrlen) != 0 || listen(fd_, BACKLOG) != 0) {
        const int error = errno;
        if (fd_ >= 0) {
            close(fd_);
        }
        fail(address, std::strerror(error));
    }
}

metrics_server_t::~metrics_server_t()
{
    stop_.request();
    for (std::thread &thread : threads_) {
        thread.join();
    }
    close(fd_);
}

void metrics_server_t::start(std::function<std::string()> text)
{
    http_ = std::make_unique<http_t>();
    http_->Get("/metrics",
               [text = std::move(text)](const httplib::Request & /*request*/, httplib::Response &response) {
                   response.set_content(text(), TYPE);
               });
    http_->set_payload_max_length(REQUEST_SIZE_MAX);
    const signals_blocked_t blocked; // the main thread takes the signals
    for (int i = 0; i < THREAD_COUNT; i++) {
        threads_.emplace_back([this] { serve(); });
    }
}

void metrics_server_t::serve()
{
    setpriority(PRIO_PROCESS, 0, NICE); // of this thread
    while (!stop_.requested()) {
        pollfd events[] = {{fd_, POLLIN, 0}, {stop_.fd(), POLLIN, 0}};
        poll(events, 2, -1);
        const int fd = stop_.requested() ? -1 : accept4(fd_, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
        if (fd >= 0) {
            answer(fd);
            close(fd);
        }
        stop_.sleep_until(monotonic_now_ns() + PAUSE_NS); // also after a lack of descriptors
    }
}

void metrics_server_t::answer(int fd)
{
    try {
        connection_t connection(fd, stop_);
        http_->answer(&connection);
        shutdown(fd, SHUT_WR);
    } catch (const std::exception &failure) {
        log_warning("a request for metrics failed: %s", failure.what());
    }
}

} // namespace probe
