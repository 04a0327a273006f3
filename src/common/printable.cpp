#include "common/printable.h"

#include <cstdio>
#include <cstring>

namespace {

bool is_control(char c)
{
    const auto byte = static_cast<uint8_t>(c);
    return byte < 0x20 || byte == 0x7F;
}

bool has_control(const char *text)
{
    for (; *text != '\0'; text++) {
        if (is_control(*text)) {
            return true;
        }
    }
    return false;
}

} // namespace

const char *printable(const char *text, printable_t *space)
{
    static constexpr char cut[] = "...";
    static constexpr uint32_t escape_size = 4;
    if (!has_control(text)) {
        return text;
    }
    uint32_t used = 0;
    for (; *text != '\0'; text++) {
        if (used + escape_size + sizeof cut > sizeof space->text) {
            std::memcpy(space->text + used, cut, sizeof cut);
            return space->text;
        }
        if (is_control(*text)) {
            const unsigned value = static_cast<uint8_t>(*text);
            std::snprintf(space->text + used, escape_size + 1, "\\x%02x", value);
            used += escape_size;
        } else {
            space->text[used++] = *text;
        }
    }
    space->text[used] = '\0';
    return space->text;
}
