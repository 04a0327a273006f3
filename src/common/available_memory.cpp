#include "common/available_memory.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sys/resource.h>
#include <sys/sysinfo.h>
#include <unistd.h>

namespace {

constexpr uint64_t NOT_LIMITED = MEMORY_NOT_LIMITED;
constexpr uint64_t NO_LIMIT_V1 = uint64_t{1} << 62; // the first hierarchy writes 2^63 less a page

// A kind of control group hierarchy, and the files of its groups.
struct hierarchy_t {
    const char *mount_type;
    const char *controller; // named by its mount and in /proc/self/cgroup; "" in the unified one
    struct {
        const char *limit;
        const char *use;
    } limits[2];
    const char *cache_keys[2]; // of memory.stat, with the groups below
};

constexpr hierarchy_t HIERARCHIES[] = {
    {"cgroup",
     "memory",
     {{"memory.limit_in_bytes", "memory.usage_in_bytes"},
      {"memory.memsw.limit_in_bytes", "memory.memsw.usage_in_bytes"}},
     {"total_inactive_file", "total_active_file"}},
    {"cgroup2",
     "",
     {{"memory.max", "memory.current"}, {"memory.high", "memory.current"}},
     {"inactive_file", "active_file"}},
};

struct query_t {
    const char *root; // before every path
    uint64_t least;   // smallest figure so far
    bool failed;      // a file is there and could not be read
};

// A line of /proc/self/mountinfo.
struct mount_t {
    char *root; // directory of the mounted file system
    char *point;
    char *type;
    char *options; // of the file system
};

// Call each(line) for each line of a file, without its newline. False when this process cannot see the file.
template <class Each>
bool read_lines(query_t *query, const char *path, Each each)
{
    char full[PATH_MAX];
    if (static_cast<size_t>(std::snprintf(full, sizeof full, "%s%s", query->root, path)) >= sizeof full) {
        return false;
    }
    FILE *file = std::fopen(full, "re");
    if (file == nullptr) {
        query->failed = query->failed || (errno != ENOENT && errno != ENOTDIR && errno != EACCES);
        return false;
    }
    char *line = nullptr;
    size_t size = 0;
    while (getline(&line, &size, file) > 0) {
        line[std::strcspn(line, "\n")] = '\0';
        each(line);
    }
    query->failed = query->failed || std::feof(file) == 0;
    std::free(line);
    std::fclose(file);
    return true;
}

// The number in a file that holds nothing else; `otherwise` for a word ("max") or a missing file.
uint64_t read_number(query_t *query, const char *folder, const char *name, uint64_t otherwise)
{
    char path[PATH_MAX];
    uint64_t value = otherwise;
    if (static_cast<size_t>(std::snprintf(path, sizeof path, "%s/%s", folder, name)) < sizeof path) {
        read_lines(query, path, [&](const char *line) {
            value = line[0] >= '0' && line[0] <= '9' ? std::strtoull(line, nullptr, 10) : otherwise;
        });
    }
    return value;
}

// The number after the key at the start of the line; 0 for another line.
uint64_t number_of_key(const char *line, const char *key)
{
    const size_t length = std::strlen(key);
    const bool found = std::strncmp(line, key, length) == 0 && (line[length] == ' ' || line[length] == ':');
    return found ? std::strtoull(line + length + 1, nullptr, 10) : 0;
}

uint64_t less(uint64_t limit, uint64_t use)
{
    return limit - std::min(limit, use);
}

// Droppable page cache of the group and of the groups below it.
uint64_t droppable_cache(query_t *query, const hierarchy_t &hierarchy, const char *folder)
{
    char path[PATH_MAX];
    uint64_t cache = 0;
    if (static_cast<size_t>(std::snprintf(path, sizeof path, "%s/memory.stat", folder)) < sizeof path) {
        read_lines(query, path, [&](const char *line) {
            for (const char *key : hierarchy.cache_keys) {
                cache += number_of_key(line, key);
            }
        });
    }
    return cache;
}

void ask_group(query_t *query, const hierarchy_t &hierarchy, const char *folder)
{
    for (const auto &[limit_file, use_file] : hierarchy.limits) {
        const uint64_t limit = read_number(query, folder, limit_file, NOT_LIMITED);
        if (limit >= NO_LIMIT_V1) {
            continue; // skip the statistics: reading them takes the kernel milliseconds
        }
        const uint64_t use = read_number(query, folder, use_file, 0);
        const uint64_t cache = droppable_cache(query, hierarchy, folder);
        query->least = std::min(query->least, less(limit, less(use, cache)));
    }
}

// Query the group below the mount point and every group above it.
void ask_groups_up(query_t *query, const hierarchy_t &hierarchy, const char *point, const char *group)
{
    char folder[PATH_MAX];
    if (static_cast<size_t>(std::snprintf(folder, sizeof folder, "%s%s", point, group)) >= sizeof folder) {
        return;
    }
    char *below_point = folder + std::strlen(point);
    ask_group(query, hierarchy, folder);
    for (char *end = nullptr; (end = std::strrchr(below_point, '/')) != nullptr;) {
        *end = '\0';
        ask_group(query, hierarchy, folder);
    }
}

// Whether a comma-separated list contains the word.
bool has_word(const char *list, const char *word)
{
    const size_t length = std::strlen(word);
    for (const char *item = list; item != nullptr; item = std::strchr(item, ',')) {
        item += *item == ',' ? 1 : 0;
        if (std::strncmp(item, word, length) == 0 && (item[length] == ',' || item[length] == '\0')) {
            return true;
        }
    }
    return false;
}

// Undo the octal escapes (\040) of a field.
void unescape(char *field)
{
    char *to = field;
    for (const char *from = field; *from != '\0'; to++) {
        if (from[0] == '\\' && std::strspn(from + 1, "01234567") >= 3) {
            *to = static_cast<char>((from[1] - '0') << 6 | (from[2] - '0') << 3 | (from[3] - '0'));
            from += 4;
        } else {
            *to = *from++;
        }
    }
    *to = '\0';
}

bool parse_mount(char *line, mount_t *mount)
{
    char *after = std::strstr(line, " - ");
    if (after == nullptr) {
        return false;
    }
    *after = '\0';
    after += 3;
    char *fields[5];
    for (char *&field : fields) {
        field = strsep(&line, " ");
    }
    *mount = {fields[3], fields[4], strsep(&after, " "), nullptr};
    strsep(&after, " "); // the source
    mount->options = strsep(&after, " ");
    if (mount->point == nullptr || mount->options == nullptr) {
        return false;
    }
    unescape(mount->root);
    unescape(mount->point);
    return true;
}

// Path of the group as seen from the root of a mount, or null when it lies outside.
const char *path_from(const char *root, const char *group)
{
    const size_t length = std::strcmp(root, "/") == 0 ? 0 : std::strlen(root);
    const bool inside =
        std::strncmp(group, root, length) == 0 && (group[length] == '/' || group[length] == '\0');
    // A group above the root of this namespace shows as "/..".
    return inside && std::strncmp(group + length, "/../", 4) != 0 ? group + length : nullptr;
}

// Query the process's group and the groups above it through every mount that shows them. Without such a
// mount, query the mounts of the hierarchy alone.
void ask_hierarchy(query_t *query, const hierarchy_t &hierarchy, const char *group)
{
    bool found = false;
    for (const bool inside : {true, false}) {
        if (found) {
            return;
        }
        read_lines(query, "/proc/self/mountinfo", [&](char *line) {
            mount_t mount = {};
            if (!parse_mount(line, &mount) || std::strcmp(mount.type, hierarchy.mount_type) != 0 ||
                (hierarchy.controller[0] != '\0' && !has_word(mount.options, hierarchy.controller))) {
                return;
            }
            const char *path = path_from(mount.root, group);
            if ((path != nullptr) == inside) {
                ask_groups_up(query, hierarchy, mount.point, inside ? path : "");
                found = true;
            }
        });
    }
}

void ask_groups(query_t *query)
{
    read_lines(query, "/proc/self/cgroup", [&](char *line) { // ID:CONTROLLERS:PATH
        strsep(&line, ":");
        const char *controllers = strsep(&line, ":");
        if (line == nullptr) {
            return;
        }
        for (const hierarchy_t &hierarchy : HIERARCHIES) {
            if (has_word(controllers, hierarchy.controller)) {
                ask_hierarchy(query, hierarchy, line);
            }
        }
    });
}

// What the process already uses (statm of proc(5)), bytes.
struct own_use_t {
    uint64_t mapped;
    uint64_t resident;
    uint64_t data; // with the stack
};

own_use_t own_use(query_t *query)
{
    uint64_t pages[6] = {}; // size, resident, shared, text, none, data
    read_lines(query, "/proc/self/statm", [&](char *line) {
        for (uint64_t &field : pages) {
            field = std::strtoull(line, &line, 10);
        }
    });
    const auto page_size = static_cast<uint64_t>(sysconf(_SC_PAGESIZE));
    return {pages[0] * page_size, pages[1] * page_size, pages[5] * page_size};
}

// False when the system does not say how much is available.
bool ask_system(query_t *query, const own_use_t &own)
{
    bool asked = false;
    read_lines(query, "/proc/meminfo", [&](const char *line) {
        if (std::strncmp(line, "MemAvailable:", 13) == 0) {
            query->least = std::min(query->least, number_of_key(line, "MemAvailable") << 10);
            asked = true;
        }
    });
    struct sysinfo system = {};
    if (!asked && sysinfo(&system) == 0) {
        query->least =
            std::min(query->least, less(uint64_t{system.totalram} * system.mem_unit, own.resident));
    }
    return asked;
}

uint64_t limit_less_use(int resource, uint64_t use)
{
    rlimit limit = {};
    const bool limited = getrlimit(resource, &limit) == 0 && limit.rlim_cur != RLIM_INFINITY;
    return limited ? less(limit.rlim_cur, use) : NOT_LIMITED;
}

} // namespace

available_memory_t available_memory()
{
    return available_memory_below("");
}

available_memory_t available_memory_below(const char *root)
{
    query_t query = {root, NOT_LIMITED, false};
    const own_use_t own = own_use(&query);
    const bool system_asked = ask_system(&query, own);
    ask_groups(&query);
    const uint64_t addresses =
        std::min(limit_less_use(RLIMIT_AS, own.mapped), limit_less_use(RLIMIT_DATA, own.data));
    return {query.failed ? 0 : query.least, addresses, system_asked};
}
