// Writes the blocks of a sealed file (archive/pcapng.h).
#pragma once

#include "archive/file_io.h"
#include "archive/pcapng.h"
#include "archive/sorted_input.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace kestrune::manager {

struct interface_statistics_t {
    uint32_t interface = 0; // its number, in the order of the interface blocks
    uint64_t start_ns = 0;  // 0: not known
    uint64_t end_ns = 0;
    uint64_t at_ns = 0; // the time of the block itself
    std::optional<uint64_t> received;
    std::optional<uint64_t> interface_drops;
    std::optional<uint64_t> kernel_drops;
};

class pcapng_writer_t {
public:
    explicit pcapng_writer_t(output_t *output) : output_(output) {} // borrowed
    void section(std::string_view comment, std::string_view application);
    void interface(std::string_view name, uint32_t snap_length);
    void packet(const record_t &record);
    void statistics(const interface_statistics_t &statistics);

private:
    void begin(uint32_t type);
    void option(uint16_t code, std::string_view value);
    void option_number(uint16_t code, uint64_t value);
    void option_time(uint16_t code, uint64_t ns);
    void end();

    output_t *output_;
    std::string block_; // of the block that is being built
};

} // namespace kestrune::manager
