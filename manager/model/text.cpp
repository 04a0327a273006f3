// The words of openapi.yaml for the states and causes.
#include "model/probe.h"
#include "model/receipt.h"

#include <algorithm>
#include <array>

namespace kestrune::manager {

namespace {

constexpr std::array<std::string_view, 5> PART_STATES = {"requested", "recording", "searching", "finished",
                                                         "failed"};
constexpr std::array<std::string_view, CAPTURE_STATE_COUNT> CAPTURE_STATES = {
    "requested", "recording", "searching", "finished", "sealed", "failed", "deleted"};
constexpr std::array<std::string_view, 5> LIVES = {"none", "unknown", "running", "refused", "over"};
constexpr std::array<std::string_view, 7> CAUSES = {"",      "packets",    "time",   "removed",
                                                    "error", "probe_gone", "unknown"};
constexpr std::array<std::string_view, 3> DIRECTIONS = {"src", "dst", "both"};
constexpr std::array<std::string_view, 3> PROBE_STATES = {"up", "down", "incompatible"};
constexpr std::array<std::string_view, 3> ROOMS = {"enough", "no_new", "end_running"};

template <size_t COUNT>
std::optional<size_t> index_of(const std::array<std::string_view, COUNT> &words, std::string_view text)
{
    const auto found = std::find(words.begin(), words.end(), text);
    if (found == words.end()) {
        return {};
    }
    return static_cast<size_t>(found - words.begin());
}

} // namespace

std::string_view text_of(part_state_t state)
{
    return PART_STATES.at(static_cast<size_t>(state));
}
std::string_view text_of(capture_state_t state)
{
    return CAPTURE_STATES.at(static_cast<size_t>(state));
}
std::string_view text_of(live_t live)
{
    return LIVES.at(static_cast<size_t>(live));
}
std::string_view text_of(ended_by_t ended_by)
{
    return CAUSES.at(static_cast<size_t>(ended_by));
}
std::string_view text_of(probe_state_t state)
{
    return PROBE_STATES.at(static_cast<size_t>(state));
}
std::string_view text_of(room_t room)
{
    return ROOMS.at(static_cast<size_t>(room));
}
std::string_view text_of_direction(uint8_t direction)
{
    return DIRECTIONS.at(direction);
}

std::optional<capture_state_t> parse_capture_state(std::string_view text)
{
    const auto index = index_of(CAPTURE_STATES, text);
    return index ? std::optional(static_cast<capture_state_t>(*index)) : std::nullopt;
}

std::optional<uint8_t> parse_direction(std::string_view text)
{
    const auto index = index_of(DIRECTIONS, text);
    return index ? std::optional(static_cast<uint8_t>(*index)) : std::nullopt;
}

} // namespace kestrune::manager
