// Input whose data may be slow: standard input and pipes. A reader that has to wait first hands on everything
// read so far, and a stop ends its wait.
//
// Threads: one.
#pragma once

#include "probe/packet_sink.h"
#include "probe/stop_event.h"

#include <cstddef>
#include <cstdio>
#include <exception>
#include <string>
#include <sys/types.h>

namespace probe {

// "-", or anything that is not a regular file. False for a path that cannot be examined.
bool is_pipe(const std::string &path);

class pipe_input_t {
public:
    // Open a pipe; "-" is standard input. Both arguments are borrowed. Throws error_t.
    pipe_input_t(const std::string &path, const stop_event_t &stop, packet_sink_t *sink);
    ~pipe_input_t();
    pipe_input_t(const pipe_input_t &) = delete;
    pipe_input_t &operator=(const pipe_input_t &) = delete;

    // The data as a stream, which ends early when a stop is requested. The caller closes it
    // before this object ends. Throws error_t.
    FILE *stream();
    // Rethrow what the sink threw while the stream was read; C code lies between.
    void rethrow() const;

private:
    static ssize_t read_some(void *input, char *buffer, size_t size) noexcept;
    bool wait_for_data(); // false: a stop was requested

    int fd_;
    const stop_event_t &stop_;
    packet_sink_t *sink_;
    std::exception_ptr failure_;
};

} // namespace probe
