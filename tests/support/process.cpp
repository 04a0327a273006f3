#include "support/process.h"

#include "support/test_host.h"

#include <cstdlib>
#include <filesystem>
#include <iterator>
#include <netinet/in.h>
#include <stdexcept>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

std::pair<long, long> resources()
{
    // The thread sanitizer starts a thread of its own with a program's first one: it counts from the
    // beginning.
    [[maybe_unused]] static const bool first = [] {
        pid_t id = 0;
        std::thread([&id] { id = gettid(); }).join();
        const std::string entry = "/proc/self/task/" + std::to_string(id);
        return wait_until(
            [&] { return !std::filesystem::exists(entry); }); // stays for a moment after the join
    }();
    const auto entries = [](const char *folder) {
        const std::filesystem::directory_iterator all(folder);
        return std::distance(begin(all), end(all));
    };
    return {entries("/proc/self/fd"), entries("/proc/self/task")};
}

uint16_t listening_port()
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

temp_dir_t::temp_dir_t()
{
    std::string pattern = (std::filesystem::temp_directory_path() / "kestrune-test-XXXXXX").string();
    if (mkdtemp(pattern.data()) == nullptr) {
        throw std::runtime_error("no temporary directory");
    }
    root = pattern;
}

temp_dir_t::~temp_dir_t()
{
    std::error_code error;
    std::filesystem::remove_all(root, error);
}
