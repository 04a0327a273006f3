// A host for plugin code that is linked into a test: it provides config_set_values, verbose_msg and
// verbose_level, and keeps every message that the plugin logs.
#pragma once

#include "support/process.h"

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

struct config_option_t;

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool SANITIZED = true; // much slower: fewer repetitions
#else
constexpr bool SANITIZED = false;
#endif

namespace test_host {

struct message_t {
    int level;
    int flag;
    std::string text;
};

// All messages since the last clear, oldest first. Any thread may log meanwhile.
std::vector<message_t> messages();
// How many messages contain this text.
int count(const std::string &part);
bool logged(const std::string &part);
// Forget the messages and set the host's level (the default lets everything through).
void reset(int32_t level = 5);
// What config_set_values does; the default answers 0 and stores nothing.
void on_config(std::function<int(const char *, config_option_t *)> parse);
// Make it find these items in the parameter string.
void set_params(const std::map<std::string, std::string> &params);

} // namespace test_host

// Wait until the condition holds, at most this long. True when it held.
bool wait_until(const std::function<bool()> &condition, int milliseconds = 10000);
// Wait until there are at most this many descriptors and threads. A thread is counted for a moment after its
// join, so fewer than before are possible too.
bool resources_fall_to(const std::pair<long, long> &most);
