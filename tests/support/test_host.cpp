#include "support/test_host.h"

#include "common/host_interface.h"

#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <mutex>
#include <thread>

int32_t verbose_level = 5;

namespace {
std::mutex lock;
std::vector<test_host::message_t> kept;
std::function<int(const char *, config_option_t *)> parser;
} // namespace

void verbose_msg(int level, int flag, const char *format, ...)
{
    char text[4096];
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    const std::lock_guard guard(lock);
    kept.push_back({level, flag, text});
}

int config_set_values(const char *params, config_option_t *options)
{
    return parser ? parser(params, options) : 0;
}

namespace test_host {

std::vector<message_t> messages()
{
    const std::lock_guard guard(lock);
    return kept;
}

int count(const std::string &part)
{
    int found = 0;
    for (const message_t &message : messages()) {
        found += message.text.find(part) != std::string::npos ? 1 : 0;
    }
    return found;
}

bool logged(const std::string &part)
{
    return count(part) > 0;
}

void reset(int32_t level)
{
    const std::lock_guard guard(lock);
    kept.clear();
    __atomic_store_n(&verbose_level, level, __ATOMIC_RELAXED);
}

void on_config(std::function<int(const char *, config_option_t *)> parse)
{
    parser = std::move(parse);
}

void set_params(const std::map<std::string, std::string> &params)
{
    static std::map<std::string, std::string> kept; // the plugin may point into the host's strings
    kept = params;
    on_config([](const char *, config_option_t *options) {
        for (config_option_t *option = options; option->kind != CONFIG_END; option++) {
            const auto item = kept.find(option->name);
            if (item != kept.end() && option->kind == CONFIG_INT) {
                *static_cast<int32_t *>(option->target) = std::stoi(item->second);
            } else if (item != kept.end()) {
                *static_cast<char **>(option->target) = item->second.data();
            }
        }
        return 0;
    });
}

} // namespace test_host

bool wait_until(const std::function<bool()> &condition, int milliseconds)
{
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(milliseconds);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

bool resources_fall_to(const std::pair<long, long> &most)
{
    return wait_until([&] {
        const auto [descriptors, threads] = resources();
        return descriptors <= most.first && threads <= most.second;
    });
}
