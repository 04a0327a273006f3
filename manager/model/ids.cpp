#include "model/ids.h"

#include <cerrno>
#include <sys/random.h>
#include <system_error>

namespace kestrune::manager {

namespace {

constexpr std::string_view DIGITS = "0123456789ABCDEFGHJKMNPQRSTVWXYZ";
constexpr size_t TIME_SIZE = 6; // bytes

void put_time(ulid_t *id, uint64_t ms)
{
    for (size_t i = TIME_SIZE; i-- > 0; ms >>= 8) {
        id->bytes[i] = static_cast<uint8_t>(ms);
    }
}

// The whole 128 bits plus one. They do not overflow before the year 10889.
void increment(ulid_t *id)
{
    for (size_t i = id->bytes.size(); i-- > 0;) {
        if (++id->bytes[i] != 0) {
            return;
        }
    }
}

void fill_random(uint8_t *bytes, size_t size)
{
    if (getrandom(bytes, size, 0) != static_cast<ssize_t>(size)) { // not cut short up to 256 bytes
        throw std::system_error(errno, std::generic_category(), "getrandom");
    }
}

} // namespace

std::string ulid_t::text() const
{
    // 26 digits of 5 bits are 130 bits: the first digit has 3 bits.
    std::string text(ULID_TEXT_SIZE, '0');
    for (size_t i = 0; i < ULID_TEXT_SIZE; ++i) {
        const size_t end = 3 + 5 * i; // of the digit's bits, from the front
        uint32_t value = 0;
        for (size_t bit = end < 5 ? 0 : end - 5; bit < end; ++bit) {
            value = value << 1 | (bytes[bit / 8] >> (7 - bit % 8) & 1U);
        }
        text[i] = DIGITS[value];
    }
    return text;
}

uint64_t ulid_t::time_ms() const
{
    uint64_t ms = 0;
    for (size_t i = 0; i < TIME_SIZE; ++i) {
        ms = ms << 8 | bytes[i];
    }
    return ms;
}

std::optional<ulid_t> parse_ulid(std::string_view text)
{
    if (text.size() != ULID_TEXT_SIZE || text[0] > '7') {
        return {};
    }
    ulid_t id;
    for (const char c : text) {
        const size_t value = DIGITS.find(c);
        if (value == std::string_view::npos) {
            return {};
        }
        uint32_t carry = static_cast<uint32_t>(value); // id = id * 32 + value
        for (size_t i = id.bytes.size(); i-- > 0; carry >>= 8) {
            carry |= static_cast<uint32_t>(id.bytes[i]) << 5;
            id.bytes[i] = static_cast<uint8_t>(carry);
        }
    }
    return id;
}

std::optional<ulid_t> ulid_of_file(std::string_view name)
{
    if (name.size() <= ULID_TEXT_SIZE || name[ULID_TEXT_SIZE] != '_') {
        return {};
    }
    return parse_ulid(name.substr(0, ULID_TEXT_SIZE));
}

ulid_t ulid_maker_t::make(uint64_t now_ns)
{
    ulid_t id;
    put_time(&id, now_ns / 1'000'000);
    fill_random(id.bytes.data() + TIME_SIZE, id.bytes.size() - TIME_SIZE);
    id.bytes[TIME_SIZE] &= 0x7F; // so that those of one millisecond have room to grow
    if (id.time_ms() <= last_.time_ms()) {
        id = last_;
        increment(&id);
    }
    last_ = id;
    return id;
}

} // namespace kestrune::manager
