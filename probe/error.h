// Ends a run with status 1. Its text is the one line that the user sees.
#pragma once

#include <stdexcept>

namespace probe {

class error_t : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

} // namespace probe
