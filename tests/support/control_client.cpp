#include "support/control_client.h"

#include <arpa/inet.h>
#include <filesystem>
#include <fstream>
#include <netinet/in.h>
#include <set>
#include <sstream>
#include <stdexcept>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

namespace {

constexpr const char *LISTENING = "0A"; // state in /proc/net/tcp
constexpr time_t PATIENCE_S = 20;

std::set<std::string> sockets_of(pid_t pid)
{
    std::set<std::string> inodes;
    std::error_code error;
    const std::string folder = "/proc/" + std::to_string(pid) + "/fd";
    for (const auto &entry : std::filesystem::directory_iterator(folder, error)) {
        const std::string target = std::filesystem::read_symlink(entry.path(), error).string();
        if (target.rfind("socket:[", 0) == 0) {
            inodes.insert(target.substr(8, target.size() - 9));
        }
    }
    return inodes;
}

// Of a table like /proc/net/tcp: "sl local_address rem_address st queues tr retrnsmt uid timeout inode ...".
uint16_t find_port(const std::string &path, const std::set<std::string> &inodes)
{
    std::ifstream table(path);
    for (std::string line; std::getline(table, line);) {
        std::istringstream fields(line);
        std::string skip;
        std::string local;
        std::string state;
        std::string inode;
        fields >> skip >> local >> skip >> state >> skip >> skip >> skip >> skip >> skip >> inode;
        if (state == LISTENING && inodes.count(inode) != 0) {
            return static_cast<uint16_t>(std::stoul(local.substr(local.find(':') + 1), nullptr, 16));
        }
    }
    return 0;
}

std::string number_bytes(uint32_t value)
{
    uint8_t bytes[4];
    msg_writer_t out = msg_writer(bytes, sizeof bytes);
    msg_put_u32(&out, value);
    return {reinterpret_cast<const char *>(bytes), sizeof bytes};
}

bool receive(int fd, uint8_t *bytes, size_t size)
{
    return recv(fd, bytes, size, MSG_WAITALL) == static_cast<ssize_t>(size);
}

} // namespace

uint16_t listening_port(pid_t pid)
{
    const std::set<std::string> inodes = sockets_of(pid);
    const uint16_t port = find_port("/proc/net/tcp", inodes);
    return port != 0 ? port : find_port("/proc/net/tcp6", inodes);
}

control_client_t::control_client_t(uint16_t port) : fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0))
{
    const timeval patience = {PATIENCE_S, 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (connect(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0) {
        close(fd);
        throw std::runtime_error("cannot connect to the plugin");
    }
}

control_client_t::~control_client_t()
{
    close(fd);
}

int control_client_t::ask(uint8_t action, uint8_t target, const std::string &payload)
{
    uint8_t bytes[MSG_HEADER_SIZE];
    msg_writer_t out = msg_writer(bytes, sizeof bytes);
    msg_encode_header(&out, msg_request(action, target));
    const std::string request(reinterpret_cast<const char *>(bytes), sizeof bytes);
    const std::string message = request + payload;
    if (send(fd, message.data(), message.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(message.size()) ||
        !receive(fd, bytes, sizeof bytes)) {
        return -1;
    }
    msg_reader_t in = msg_reader(bytes, sizeof bytes);
    msg_header_t reply = {};
    return msg_decode_header(&in, &reply) && msg_version_supported(reply) ? reply.code : -1;
}

int control_client_t::add(const ip_addr_t &addr, uint32_t packet_limit, uint32_t time_limit_s,
                          const std::string &name)
{
    uint8_t bytes[MSG_ADD_SIZE];
    msg_writer_t out = msg_writer(bytes, sizeof bytes);
    msg_encode_add(&out, {addr, packet_limit, time_limit_s, static_cast<uint8_t>(name.size())});
    return ask(msg_action::ADD, msg_target::BOTH,
               std::string(reinterpret_cast<const char *>(bytes), sizeof bytes) + name);
}

int control_client_t::set_heavy_size(uint32_t packets)
{
    return ask(msg_action::REQ_HS, msg_target::HEAVY_SIZE, number_bytes(packets));
}

msg_hb_info_t control_client_t::history()
{
    msg_hb_info_t info = {};
    uint8_t bytes[MSG_HB_INFO_SIZE];
    if (ask(msg_action::HISTORY, msg_target::INFO) != msg_code::HB_INFO ||
        !receive(fd, bytes, sizeof bytes)) {
        return {};
    }
    msg_reader_t in = msg_reader(bytes, sizeof bytes);
    msg_decode_hb_info(&in, &info);
    return info;
}
