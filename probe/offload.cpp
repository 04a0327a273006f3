#include "probe/offload.h"

#include <cstdint>
#include <cstring>
#include <linux/ethtool.h>
#include <linux/sockios.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

namespace probe {
namespace {

// The value of a request that returns one number; 0 if the interface does not know the request.
uint32_t ask(int fd, const std::string &interface, uint32_t request)
{
    ethtool_value value = {request, 0};
    ifreq message = {};
    std::strncpy(message.ifr_name, interface.c_str(), sizeof message.ifr_name - 1);
    message.ifr_data = reinterpret_cast<char *>(&value);
    return ioctl(fd, SIOCETHTOOL, &message) == 0 ? value.data : 0;
}

} // namespace

std::string command_against_merging(const std::string &interface)
{
    const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        return "";
    }
    std::string features;
    features += ask(fd, interface, ETHTOOL_GGRO) != 0 ? " gro off" : "";
    features += (ask(fd, interface, ETHTOOL_GFLAGS) & ETH_FLAG_LRO) != 0 ? " lro off" : "";
    close(fd);
    return features.empty() ? "" : "ethtool -K " + interface + features;
}

} // namespace probe
