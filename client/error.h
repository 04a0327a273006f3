// What goes wrong between a client and a probe.
#pragma once

#include <stdexcept>
#include <string>

namespace kestrune {

enum class failure_t {
    CONNECT,      // no connection could be made
    TIMEOUT,      // an answer or a send did not come to its end in time
    CLOSED,       // the probe ended the connection
    MALFORMED,    // the probe sent what the protocol does not allow
    REFUSED,      // the probe answered FAIL
    UNRECOGNIZED, // the probe does not know the request
    INTERRUPTED,  // the interrupt descriptor became readable
    LOCAL         // a file or a resource of this machine
};

class client_error_t : public std::runtime_error {
public:
    client_error_t(failure_t failure, const std::string &text) : std::runtime_error(text), failure_(failure)
    {
    }
    failure_t failure() const { return failure_; }

private:
    failure_t failure_;
};

} // namespace kestrune
