// When a packet of a capture file is handed on, and which timestamp it carries then.
//
//   plain     the recorded timestamps, unchanged
//   looped    the first pass as recorded; a later file is shifted if it would begin before something already
//             replayed, so that timestamps keep rising from pass to pass
//   rebased   the time of the replay: the first packet of a file carries the present time, the others follow
//             at the recorded distance divided by the speed; at speed 0 each carries its hand-over time
//
// The pace is kept per file: its first packet is due at once, the others at the recorded distance divided by
// the speed. The time between two files is not waited for.
//
// Threads: one.
#pragma once

#include <cstdint>
#include <functional>

namespace probe {

struct replay_mode_t {
    double speed = 1;    // factor of the recorded pace; 0: as fast as possible
    bool looped = false; // files are replayed more than once
    bool rebased = false;
};

class replay_clock_t {
public:
    using clock_t = std::function<uint64_t()>; // nanoseconds

    replay_clock_t(const replay_mode_t &mode, clock_t wall, clock_t monotonic);

    // The next packet is the first one of a file.
    void file_begins() { first_of_file_ = true; }

    struct due_t {
        uint64_t monotonic_ns; // 0: at once
        uint64_t timestamp_ns;
    };
    due_t next(uint64_t recorded_ns);

private:
    void begin_file(uint64_t recorded_ns);
    uint64_t scaled(uint64_t recorded_ns, uint64_t base_ns) const;

    replay_mode_t mode_;
    clock_t wall_;
    clock_t monotonic_;
    bool first_of_file_ = true;
    uint64_t file_first_ns_ = 0; // recorded time of the file's first packet
    uint64_t file_wall_ns_ = 0;  // timestamp that it carries when rebased
    uint64_t file_monotonic_ns_ = 0;
    uint64_t shift_ns_ = 0;  // looped: added to recorded times
    uint64_t newest_ns_ = 0; // highest timestamp so far
};

} // namespace probe
