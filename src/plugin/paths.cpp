#include "plugin/paths.h"

#include "common/log.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <unistd.h>

namespace {

constexpr char SCRIPT_FOLDER[] = "/usr/bin/kestrune";

char *owned_export_path = nullptr; // ks_exp_file_path when the plugin allocated it, else null

// Replace the export path with a copy that ends in '/'. False without memory.
bool append_slash(size_t length)
{
    auto *path = static_cast<char *>(std::calloc(length + 2, 1));
    if (path == nullptr) {
        return false;
    }
    std::memcpy(path, ks_exp_file_path, length);
    path[length] = '/';
    owned_export_path = path;
    ks_exp_file_path = path;
    ks_exp_file_path_len++;
    return true;
}

} // namespace

bool prepare_export_path()
{
    if (ks_exp_file_path == nullptr) {
        return true;
    }
    const size_t length = std::strlen(ks_exp_file_path);
    ks_exp_file_path_len = static_cast<int32_t>(length);
    if (length == 0) {
        KS_ERROR("kestrune: Plugin: Failed to read export path.");
        return false;
    }
    if (ks_exp_file_path[length - 1] != '/' && !append_slash(length)) {
        KS_ERROR("kestrune: Plugin: Failed to allocate path.");
        return false;
    }
    KS_INFO(LOG_START, "kestrune: Export path for files set: %s", ks_exp_file_path);
    if (access(ks_exp_file_path, F_OK) != 0) {
        KS_ERROR("kestrune: Plugin: Could not access the export directory");
        return false;
    }
    return true;
}

bool prepare_capture_script(const char *name)
{
    if (name == nullptr) {
        return true;
    }
    const size_t size = sizeof SCRIPT_FOLDER + 1 + std::strlen(name); // the terminator is in the first
    ks_capture_script = static_cast<char *>(std::calloc(size, 1));
    if (ks_capture_script == nullptr) {
        KS_ERROR("kestrune: Plugin: Allocation error. Path for script was not allocated");
        return false;
    }
    std::snprintf(ks_capture_script, size, "%s/%s", SCRIPT_FOLDER, name);
    KS_INFO(LOG_EVENT, "kestrune: Capture script is: %s", ks_capture_script);
    return true;
}

void forget_paths()
{
    std::free(owned_export_path);
    owned_export_path = nullptr;
    ks_exp_file_path = nullptr;
    ks_exp_file_path_len = 0;
    std::free(ks_capture_script);
    ks_capture_script = nullptr;
}
