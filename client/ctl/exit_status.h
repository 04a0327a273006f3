// How kestrunectl ends. Scripts rely on the values.
#pragma once

namespace kestrune {

// Of several answers the highest wins.
enum exit_status_t : int {
    EXIT_DONE = 0,
    EXIT_FAILED = 1,
    EXIT_USAGE = 2,
    EXIT_NO_CONNECTION = 3,
    EXIT_REFUSED = 4,
    EXIT_WAIT_TIME_OUT = 124,
    EXIT_INTERRUPTED = 130
};

} // namespace kestrune
