// Messages of the control protocol as bytes, and the ends of streams.
#pragma once

#include "protocol/message.h"
#include "support/host_records.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <sstream>
#include <string>
#include <sys/socket.h>
#include <unistd.h>
#include <utility>

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
