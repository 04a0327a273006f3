// ULIDs: 48 bits of milliseconds since the epoch, 80 random bits, written as 26 characters of Crockford's base 32.
// Their order is the order of time. A capture's id is also its rules' name at the probes.
#pragma once

#include <array>
#include <compare>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

namespace kestrune::manager {

constexpr size_t ULID_TEXT_SIZE = 26;

struct ulid_t {
    std::array<uint8_t, 16> bytes = {}; // big-endian

    auto operator<=>(const ulid_t &) const = default;
    std::string text() const;
    uint64_t time_ms() const; // since the epoch
};

// Exactly 26 characters, upper case, the first at most 7; nothing for any other text.
std::optional<ulid_t> parse_ulid(std::string_view text);
// The id at the front of a raw file's name, ULID_..., or nothing.
std::optional<ulid_t> ulid_of_file(std::string_view name);

// Makes ids that only grow, also within a millisecond and when the clock is set back. Belongs to one thread.
class ulid_maker_t {
public:
    explicit ulid_maker_t(const ulid_t &above = {}) : last_(above) {}
    ulid_t make(uint64_t now_ns);

private:
    ulid_t last_;
};

} // namespace kestrune::manager

template <>
struct std::hash<kestrune::manager::ulid_t> {
    size_t operator()(const kestrune::manager::ulid_t &id) const noexcept
    {
        size_t value = 0; // the low random bytes
        for (size_t i = 8; i < id.bytes.size(); ++i) {
            value = value << 8 | id.bytes[i];
        }
        return value;
    }
};
