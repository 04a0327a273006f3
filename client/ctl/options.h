// The command line of kestrunectl.
#pragma once

#include "client/ctl/colour.h"
#include "client/ctl/exit_status.h"
#include "client/text_forms.h"
#include "protocol/message.h"

#include <chrono>
#include <cstdint>
#include <ctime>
#include <optional>
#include <string>
#include <vector>

namespace kestrune {

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
    MERGE,
    VERIFY
};

struct options_t {
    command_t command = command_t::LIST;
    std::vector<endpoint_t> probes;
    bool json = false;
    colour_t colour = colour_t::AUTO;
    std::chrono::milliseconds connect_time{5000};
    std::chrono::milliseconds answer_time{10000};

    std::vector<ip_addr_t> addrs;     // ADD, REMOVE, SHOW (one); each once
    bool several = false;             // ADD, REMOVE: the command line allows several addresses
    std::vector<std::string> from;    // ADD: files with more addresses, "-": standard input
    uint8_t direction = BOTH;         // ADD, REMOVE
    uint8_t filter = msg_target::ALL; // LIST: ALL or a direction
    bool brief = false;               // LIST
    bool repeat = false;              // LIST
    uint32_t packets = 100'000;       // ADD
    uint32_t time_limit_s = 300;
    std::string name;    // empty: made from the address and the time
    std::time_t now = 0; // the time in that name
    bool history_only = false;
    bool wait = false;
    std::optional<std::chrono::milliseconds> wait_time;

    uint32_t size_mb = 0; // HISTORY_ON; 0: the plugin's default
    uint32_t heavy = 0;   // HEAVY

    std::vector<std::string> inputs; // MERGE, VERIFY
    std::string output;
    bool force = false;
    bool cut = false;
};

// "add", "history status" and so on.
const char *command_name(command_t command);

struct command_line_t {
    std::optional<options_t> options; // empty: end with this status
    int status = EXIT_DONE;
    std::string error; // of EXIT_USAGE
    bool json = false; // form of the error
};

// Reads the command line. Help is printed here.
command_line_t parse_command_line(int argc, char **argv);

} // namespace kestrune
