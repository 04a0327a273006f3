// kestrune-probe: a host program for process plugins.
#include "common/host_interface.h"
#include "probe/error.h"
#include "probe/log.h"
#include "probe/options.h"
#include "probe/plugin_module.h"
#include "probe/run.h"

#include <cstdio>
#include <exception>

namespace {

void print_plugin_info(const std::string &path)
{
    const probe::plugin_module_t plugin(path);
    std::printf("%s\n%s\n", plugin.description().name, plugin.description().info);
}

} // namespace

int main(int argc, char **argv)
{
    try {
        probe::options_t options;
        if (const auto status = probe::parse_options(argc, argv, &options)) {
            return *status;
        }
        verbose_level = options.verbosity;
        // Shows what the plugin prints on standard output at once, in a file or the journal too.
        std::setvbuf(stdout, nullptr, _IOLBF, 0);
        if (options.plugin_info) {
            print_plugin_info(options.plugin_path);
        } else {
            probe::run(options);
        }
        return probe::STATUS_DONE;
    } catch (const std::exception &failure) {
        probe::log_error("%s", failure.what());
        return probe::STATUS_FAILED;
    }
}
