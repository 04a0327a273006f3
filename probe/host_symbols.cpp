// What the program provides to the plugin, under the names that host-symbols.list exports.
#include "common/host_interface.h"
#include "probe/capture_paths.h"
#include "probe/history_size.h"
#include "probe/log.h"
#include "probe/params.h"

#include <cstdarg>
#include <exception>
#include <string>

int32_t verbose_level = 0;

void verbose_msg(int level, int /*flag*/, const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    probe::log_plugin(level, format, arguments);
    va_end(arguments);
}

int config_set_values(const char *params, config_option_t *options)
{
    // The plugin may keep the strings for as long as the process runs.
    static probe::params_parser_t parser;
    try {
        std::string error;
        const std::string all = probe::with_history_size(params != nullptr ? params : "", options);
        if (parser.parse(all, options, &error)) {
            probe::check_capture_paths(all, options);
            return 0;
        }
        probe::log_error("%s", error.c_str());
    } catch (const std::exception &failure) { // exceptions must not pass through the plugin
        probe::log_error("parameters: %s", failure.what());
    }
    return -1;
}
