#include "model/capture.h"

#include <algorithm>

namespace kestrune::manager {

bool capture_t::has_local_part() const
{
    return std::any_of(parts.begin(), parts.end(), [](const part_t &part) { return part.local; });
}

bool capture_t::waits_for_sealing() const
{
    return state == capture_state_t::FINISHED && has_local_part();
}

capture_state_t state_of_parts(const std::vector<part_t> &parts)
{
    const auto any = [&](part_state_t state) {
        return std::any_of(parts.begin(), parts.end(),
                           [&](const part_t &part) { return part.state == state; });
    };
    if (any(part_state_t::RECORDING)) {
        return capture_state_t::RECORDING;
    }
    if (any(part_state_t::SEARCHING)) {
        return capture_state_t::SEARCHING;
    }
    if (any(part_state_t::REQUESTED)) {
        return capture_state_t::REQUESTED;
    }
    return any(part_state_t::FINISHED) ? capture_state_t::FINISHED : capture_state_t::FAILED;
}

bool is_over(const part_t &part)
{
    return part.state == part_state_t::FINISHED || part.state == part_state_t::FAILED;
}

uint64_t live_packets(const capture_t &capture)
{
    uint64_t sum = 0;
    for (const part_t &part : capture.parts) {
        sum += part.live_packets;
    }
    return sum;
}

uint64_t history_packets(const capture_t &capture)
{
    uint64_t sum = 0;
    for (const part_t &part : capture.parts) {
        sum += part.history_packets;
    }
    return sum;
}

uint8_t percent(const capture_t &capture)
{
    uint32_t sum = 0;
    uint32_t count = 0;
    for (const part_t &part : capture.parts) {
        if (part.state != part_state_t::FAILED) {
            sum += part.state == part_state_t::FINISHED ? 100U : part.percent;
            ++count;
        }
    }
    return static_cast<uint8_t>(count == 0 ? 100 : sum / count);
}

} // namespace kestrune::manager
