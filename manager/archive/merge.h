// Merges the raw files of a capture into one stream of records in time order. Equal times come in the order of the
// inputs, then in the order of the file.
//
// A file whose records are further out of order than its window is first sorted into runs. More than INPUTS_MAX
// inputs are merged in rounds. Runs are nameless files in the scratch directory.
//
// Memory: `memory` bytes, however many packets there are; some hundred bytes an input.
#pragma once

#include "archive/sorted_input.h"

#include <cstdint>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

namespace kestrune::manager {

struct merge_input_t {
    std::function<fd_t()> open; // may be called more than once
    std::string name;           // for errors
    uint32_t origin = 0;
};

struct merge_settings_t {
    size_t memory = size_t{32} << 20;
    std::filesystem::path scratch;                     // a directory
    std::function<bool()> stop = [] { return false; }; // asked for each record; true ends it
};

struct merge_count_t {
    uint64_t packets = 0;
    input_end_t end = input_end_t::WHOLE;
};

class packet_sink_t {
public:
    virtual ~packet_sink_t() = default;
    // All records come from the first on (again): what came before does not count.
    virtual void begin() = 0;
    virtual void add(const record_t &record) = 0;
};

constexpr size_t INPUTS_MAX = 100; // merged at once

// What each input held. Throws stopped_t, std::system_error, and what the sink throws.
std::vector<merge_count_t> merge_inputs(const std::vector<merge_input_t> &inputs,
                                        const merge_settings_t &settings, packet_sink_t *sink);

} // namespace kestrune::manager
