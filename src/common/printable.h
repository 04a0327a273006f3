// Names come from clients and end up in log messages. A terminal or a log reader must not take part of a name
// for a command or for another line, so control characters are written out.
#pragma once

#include <cstdint>

constexpr uint32_t PRINTABLE_SIZE = 2048; // bytes of an escaped text with its terminator

struct printable_t {
    char text[PRINTABLE_SIZE];
};

// The text itself when it holds no control character (below 0x20, or 0x7F); else a copy in *space in which
// each stands as \xNN, cut to "..." where it does not fit. The result lives as long as both arguments.
const char *printable(const char *text, printable_t *space);
