// Names come from clients and appear in log messages. Control characters are escaped, so that no part of a
// name acts as a terminal command or as another log line.
#pragma once

#include <cstdint>

constexpr uint32_t PRINTABLE_SIZE = 2048; // bytes of an escaped text with its terminator

struct printable_t {
    char text[PRINTABLE_SIZE];
};

// The text itself when it holds no control character (below 0x20, or 0x7F). Otherwise a copy in *space with
// each written as \xNN, cut to "..." where it does not fit. The result lives as long as both arguments.
const char *printable(const char *text, printable_t *space);
