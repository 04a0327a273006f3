#include "probe/capture_paths.h"

#include "probe/log.h"
#include "probe/params.h"

#include <cerrno>
#include <cstring>
#include <optional>
#include <unistd.h>

namespace probe {
namespace {

constexpr const char *SCRIPT_FOLDER = "/usr/bin/kestrune/"; // where the plugin runs scripts

void check_directory(const std::string &path)
{
    // The plugin itself refuses a directory that is missing.
    if (access(path.c_str(), W_OK | X_OK) != 0 && errno != ENOENT && errno != ENOTDIR) {
        log_warning("captures cannot be written to the directory %s: %s; let this user write there, or set "
                    "another with -P export_path=DIRECTORY",
                    path.c_str(), std::strerror(errno));
    }
}

void check_script(const std::string &name)
{
    const std::string path = SCRIPT_FOLDER + name;
    if (access(path.c_str(), R_OK) != 0) {
        log_warning("the capture script %s cannot be read: %s; put it there, or change -P capture_script=",
                    path.c_str(), std::strerror(errno));
    }
}

} // namespace

void check_capture_paths(const std::string &params, const config_option_t *options)
{
    if (find_option(options, "export_path") != nullptr) {
        check_directory(find_parameter(params, "export_path").value_or("."));
    }
    const std::optional<std::string> script = find_parameter(params, "capture_script");
    if (find_option(options, "capture_script") != nullptr && script && !script->empty()) {
        check_script(*script);
    }
}

} // namespace probe
