#include "rules_manager/rule_files.h"

#include "common/log.h"
#include "common/printable.h"
#include "common/settings.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <unistd.h>

namespace {

uint32_t directory_len()
{
    return ks_exp_file_path != nullptr ? static_cast<uint32_t>(std::max(ks_exp_file_path_len, 0)) : 0;
}

// Write the suffixes of id and version at `suffix`, which has RM_SUFFIX_SIZE bytes in the
// string at `path`. False when they do not fit.
bool append_suffixes(const char *path, char *suffix, uint32_t id)
{
    const int id_len = std::snprintf(suffix, RM_SUFFIX_SIZE, "_%u", id);
    if (id_len >= static_cast<int>(RM_SUFFIX_SIZE)) {
        return false;
    }
    const int left = static_cast<int>(RM_SUFFIX_SIZE) - id_len;
    for (int version = 1; version <= RM_MAX_VERSION && access(path, F_OK) == 0; version++) {
        printable_t space;
        KS_INFO(LOG_EVENT, "kestrune: Listener: Filename %s exists. Trying version %d",
                printable(path, &space), version);
        if (std::snprintf(suffix + id_len, static_cast<size_t>(left), "_%d", version) >= left) {
            return false;
        }
    }
    return true;
}

} // namespace

char *rm_name_live_file(const char *name, uint32_t name_len, uint32_t id)
{
    const uint32_t directory = directory_len();
    auto *path = static_cast<char *>(std::calloc(directory + name_len + RM_SUFFIX_SIZE, 1));
    if (path == nullptr) {
        KS_ERROR("kestrune: Rules_manager: Could not allocate string for new item.");
        return nullptr;
    }
    if (directory > 0) {
        std::memcpy(path, ks_exp_file_path, directory);
    }
    std::memcpy(path + directory, name, name_len);
    if (!append_suffixes(path, path + directory + name_len, id)) {
        KS_ERROR("kestrune: Rules_manager: Could not create new rule. The filename is too long.");
        std::free(path);
        return nullptr;
    }
    return path;
}

char *rm_name_history_file(const char *live_file, uint32_t queue)
{
    const size_t size = std::strlen(live_file) + RM_SUFFIX_SIZE;
    auto *path = static_cast<char *>(std::calloc(size, 1));
    if (path != nullptr &&
        static_cast<size_t>(std::snprintf(path, size, "%s_hc_%u", live_file, queue)) >= size) {
        std::free(path);
        return nullptr;
    }
    return path;
}

const char *rm_relative_name(const char *path)
{
    return path + std::min<size_t>(directory_len(), std::strlen(path));
}

void rm_release_rule(rm_rule_t *rule, uint32_t queue_count)
{
    if (rule == nullptr) {
        return;
    }
    if (rule->hist_files != nullptr) {
        for (uint32_t i = 0; i < queue_count; i++) {
            std::free(rule->hist_files[i]);
        }
        std::free(static_cast<void *>(rule->hist_files));
    }
    std::free(rule->live_file);
    std::free(rule);
}
