// A server on a loopback port of the system's choice, which holds the same conversation with every connection.
#pragma once

#include "client/text_forms.h"

#include <functional>
#include <mutex>
#include <set>
#include <sys/socket.h>
#include <thread>
#include <vector>

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <unistd.h>

// Each conversation has a thread of its own, and ends at the latest when reading or sending fails: the destructor
// cuts all connections.
class local_server_t {
public:
    explicit local_server_t(std::function<void(int fd)> conversation)
        : conversation_(std::move(conversation)), listener_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0))
    {
        sockaddr_in address = {};
        socklen_t size = sizeof address;
        EXPECT_EQ(listen(listener_, 64), 0);
        EXPECT_EQ(getsockname(listener_, reinterpret_cast<sockaddr *>(&address), &size), 0);
        endpoint = {"127.0.0.1", std::to_string(ntohs(address.sin_port))};
        acceptor_ = std::thread([this] { accept_all(); });
    }
    ~local_server_t()
    {
        shutdown(listener_, SHUT_RDWR);
        acceptor_.join();
        cut_all();
        for (std::thread &talk : talks_) {
            talk.join();
        }
        close(listener_);
    }
    void cut_all()
    {
        const std::lock_guard held(lock_);
        for (const int fd : open_) {
            shutdown(fd, SHUT_RDWR);
        }
    }

    kestrune::endpoint_t endpoint;

private:
    void accept_all()
    {
        for (int fd = -1; (fd = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC)) >= 0;) {
            const std::lock_guard held(lock_);
            open_.insert(fd);
            talks_.emplace_back([this, fd] {
                conversation_(fd);
                const std::lock_guard ending(lock_);
                open_.erase(fd);
                close(fd);
            });
        }
    }

    const std::function<void(int)> conversation_;
    const int listener_;
    std::thread acceptor_;
    std::mutex lock_;
    std::set<int> open_;             // lock_
    std::vector<std::thread> talks_; // the acceptor's, then the destructor's
};
