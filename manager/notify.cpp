#include "notify.h"

#include "model/log.h"

#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace kestrune::manager {

// A name that begins with '@' is an abstract socket.
void notify_service(const std::string &text)
{
    const char *name = std::getenv("NOTIFY_SOCKET");
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    if (name == nullptr || name[0] == '\0' || std::strlen(name) >= sizeof address.sun_path) {
        return;
    }
    std::memcpy(address.sun_path, name, std::strlen(name));
    if (address.sun_path[0] == '@') {
        address.sun_path[0] = '\0';
    }
    const auto size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + std::strlen(name));
    const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0 || sendto(fd, text.data(), text.size(), MSG_NOSIGNAL, reinterpret_cast<sockaddr *>(&address),
                         size) < 0) {
        log_warning(std::string("cannot notify the service manager: ") + std::strerror(errno));
    }
    if (fd >= 0) {
        close(fd);
    }
}

} // namespace kestrune::manager
