// The command line of kestrunectl.
#pragma once

#include "client/text_forms.h"

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace kestrune {

// Exit statuses; with several probes the highest of any.
enum exit_status_t : int {
    EXIT_DONE = 0,
    EXIT_FAILED = 1,
    EXIT_USAGE = 2,
    EXIT_NO_CONNECTION = 3,
    EXIT_REFUSED = 4,
    EXIT_WAIT_TIME_OUT = 124,
    EXIT_INTERRUPTED = 130
};

enum class command_t {
    ADD,
    REMOVE,
    LIST,
    SHOW,
    HISTORY_ON,
    HISTORY_OFF,
    HISTORY_STATUS,
    HEAVY,
    WATCH,
    MERGE
};

enum class colour_t { AUTO, ALWAYS, NEVER };

struct options_t {
    command_t command = command_t::LIST;
    std::vector<endpoint_t> probes;
    bool json = false;
    colour_t colour = colour_t::AUTO;
    std::chrono::milliseconds connect_time{5000};
    std::chrono::milliseconds answer_time{10000};

    ip_addr_t addr = {};        // ADD, REMOVE, SHOW
    uint8_t direction = BOTH;   // ADD, REMOVE
    uint8_t filter = 3;         // LIST: a direction, or msg_target::ALL
    uint32_t packets = 100'000; // ADD
    uint32_t time_limit_s = 300;
    std::string name;
    bool history_only = false;
    bool wait = false;
    std::optional<std::chrono::milliseconds> wait_time;

    uint32_t size_mb = 0; // HISTORY_ON; 0: the plugin's default
    uint32_t heavy = 0;   // HEAVY

    std::vector<std::string> inputs; // MERGE
    std::string output;
    bool force = false;
    bool cut = false;
};

// "add", "history status" and so on.
const char *command_name(command_t command);

struct command_line_t {
    std::optional<options_t> options; // nothing: end with this status
    int status = EXIT_DONE;
};

// Reads the command line. Help, and what is wrong with it, are printed here.
command_line_t parse_command_line(int argc, char **argv);

} // namespace kestrune
