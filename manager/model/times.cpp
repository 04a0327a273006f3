#include "model/times.h"

#include "common/clock.h"

#include <cstdio>
#include <ctime>

namespace kestrune::manager {

namespace {

// Reads exactly `count` digits at the front.
std::optional<uint32_t> take_digits(std::string_view *text, size_t count)
{
    if (text->size() < count) {
        return {};
    }
    uint32_t value = 0;
    for (const char c : text->substr(0, count)) {
        if (c < '0' || c > '9') {
            return {};
        }
        value = value * 10 + static_cast<uint32_t>(c - '0');
    }
    text->remove_prefix(count);
    return value;
}

bool take(std::string_view *text, std::string_view any_of)
{
    if (text->empty() || any_of.find(text->front()) == std::string_view::npos) {
        return false;
    }
    text->remove_prefix(1);
    return true;
}

std::optional<uint64_t> take_fraction(std::string_view *text)
{
    if (!take(text, ".")) {
        return 0;
    }
    uint64_t ns = 0;
    uint64_t scale = NS_PER_S;
    while (!text->empty() && text->front() >= '0' && text->front() <= '9') {
        scale /= 10;
        ns += static_cast<uint64_t>(text->front() - '0') * scale;
        text->remove_prefix(1);
        if (scale == 1) {
            break;
        }
    }
    if (scale == NS_PER_S) {
        return {};
    }
    return ns;
}

// Seconds east of UTC.
std::optional<int64_t> take_offset(std::string_view *text)
{
    if (take(text, "Zz")) {
        return 0;
    }
    const bool west = !text->empty() && text->front() == '-';
    if (!take(text, "+-")) {
        return {};
    }
    const auto hours = take_digits(text, 2);
    if (!hours || !take(text, ":")) {
        return {};
    }
    const auto minutes = take_digits(text, 2);
    if (!minutes || *hours > 23 || *minutes > 59) {
        return {};
    }
    const int64_t seconds = int64_t{*hours} * 3600 + int64_t{*minutes} * 60;
    return west ? -seconds : seconds;
}

// Date and time of the day up to the seconds; nothing for one that the calendar does not have.
std::optional<int64_t> take_seconds(std::string_view *text)
{
    uint32_t values[6];
    constexpr size_t SIZES[6] = {4, 2, 2, 2, 2, 2};
    constexpr std::string_view BEHIND[6] = {"-", "-", "Tt ", ":", ":", ""};
    for (size_t i = 0; i < 6; ++i) {
        const auto value = take_digits(text, SIZES[i]);
        if (!value || (!BEHIND[i].empty() && !take(text, BEHIND[i]))) {
            return {};
        }
        values[i] = *value;
    }
    if (values[0] < 1969 || values[0] > 2263) { // offsets reach into the years beside
        return {};
    }
    tm time = {};
    time.tm_year = static_cast<int>(values[0]) - 1900;
    time.tm_mon = static_cast<int>(values[1]) - 1;
    time.tm_mday = static_cast<int>(values[2]);
    time.tm_hour = static_cast<int>(values[3]);
    time.tm_min = static_cast<int>(values[4]);
    time.tm_sec = static_cast<int>(values[5]);
    tm same = time;
    const int64_t seconds = timegm(&same);
    const bool exists = same.tm_mon == time.tm_mon && same.tm_mday == time.tm_mday &&
                        same.tm_hour == time.tm_hour && same.tm_min == time.tm_min &&
                        same.tm_sec == time.tm_sec;
    return exists ? std::optional(seconds) : std::nullopt;
}

tm split(uint64_t ns)
{
    const auto seconds = static_cast<time_t>(ns / NS_PER_S);
    tm time = {};
    gmtime_r(&seconds, &time);
    return time;
}

} // namespace

std::string date_text(uint64_t ns)
{
    const tm time = split(ns);
    char text[16];
    const size_t size = strftime(text, sizeof text, "%Y-%m-%d", &time);
    return {text, size};
}

std::string time_text(uint64_t ns)
{
    const tm time = split(ns);
    char text[64];
    const size_t size = strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", &time);
    const int more =
        snprintf(text + size, sizeof text - size, ".%09uZ", static_cast<unsigned>(ns % NS_PER_S));
    return {text, size + static_cast<size_t>(more)};
}

std::optional<uint64_t> parse_time(std::string_view text)
{
    const auto seconds = take_seconds(&text);
    if (!seconds) {
        return {};
    }
    const auto fraction = take_fraction(&text);
    if (!fraction) {
        return {};
    }
    const auto offset = take_offset(&text);
    if (!offset || !text.empty()) {
        return {};
    }
    const int64_t utc = *seconds - *offset;
    if (utc < 0 || static_cast<uint64_t>(utc) >= TIME_MAX_NS / NS_PER_S) {
        return {};
    }
    return static_cast<uint64_t>(utc) * NS_PER_S + *fraction;
}

} // namespace kestrune::manager
