// Reads pcap and pcapng files, with nanosecond timestamps, and replays them.
//
// Threads: one.
#pragma once

#include "probe/counters.h"
#include "probe/link_type.h"
#include "probe/packet_sink.h"
#include "probe/pipe_input.h"
#include "probe/replay_clock.h"
#include "probe/stop_event.h"

#include <cstdint>
#include <memory>
#include <pcap/pcap.h>
#include <string>
#include <vector>

namespace probe {

struct captured_t {
    const uint8_t *data; // valid until the next record is read
    uint32_t size;       // bytes captured
    uint64_t timestamp_ns;
};

class capture_file_t {
public:
    // Opens a file. Throws error_t when it cannot be opened, is no capture file, or
    // has a link type that cannot be read.
    explicit capture_file_t(const std::string &path);
    // The same for a pipe; "-" is standard input. A stop ends the file early, possibly within a record. A
    // stop before the link type is read throws error_t.
    capture_file_t(const std::string &path, const stop_event_t &stop, packet_sink_t *sink);

    enum class result_t : uint8_t {
        PACKET,
        END,
        CUT // the file ends within a record; every record before it was read
    };
    // The next record. Throws error_t when the file is damaged.
    result_t next(captured_t *out);
    link_type_t link_type() const { return link_type_; }

private:
    capture_file_t(const std::string &path, std::unique_ptr<pipe_input_t> pipe);

    std::string path_;
    std::unique_ptr<pipe_input_t> pipe_; // null: a regular file. Outlives pcap_, which reads from it
    std::unique_ptr<pcap_t, decltype(&pcap_close)> pcap_;
    link_type_t link_type_ = link_type_t::ETHERNET;
};

struct replay_options_t {
    std::vector<std::string> files; // read one after the other
    double speed = 1;               // factor of the recorded pace; 0: as fast as possible
    uint64_t passes = 1;            // over all files; 0: for ever
    bool rebase = false;            // timestamps are moved to now
};

// Read all files, at the recorded pace if requested, until they end or a stop is requested. A cut file is
// logged once. Throws error_t; everything read before that has reached the sink.
void replay_files(const replay_options_t &options, const stop_event_t &stop, reader_counters_t *counters,
                  packet_sink_t *sink);

} // namespace probe
