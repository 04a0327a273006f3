// What goes wrong between a client and a probe.
#pragma once

#include <stdexcept>
#include <string>

namespace kestrune {

enum class failure_t {
    CONNECT,      // no connection could be made
    NO_LISTENER,  // the machine answered that nothing listens there
    TIMEOUT,      // an answer or a send did not finish in time
    CLOSED,       // the probe ended the connection
    MALFORMED,    // the probe sent what the protocol does not allow
    VERSION,      // the probe, or whatever listens there, speaks another version
    REFUSED,      // the probe answered FAIL
    UNRECOGNIZED, // the probe does not know the request
    INTERRUPTED,  // the interrupt descriptor became readable
    LOCAL         // a file or a resource of this machine
};

class client_error_t : public std::runtime_error {
public:
    client_error_t(failure_t failure, const std::string &text, int action = -1)
        : std::runtime_error(text), failure_(failure), action_(action)
    {
    }
    failure_t failure() const { return failure_; }
    // The msg_action that the probe answered with FAIL or did not recognise; -1 for other failures.
    int action() const { return action_; }

private:
    failure_t failure_;
    int action_;
};

} // namespace kestrune
