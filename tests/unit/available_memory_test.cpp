#include "common/available_memory.h"
#include "support/process.h"

#include <fstream>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

namespace {

const std::string V1 = "/sys/fs/cgroup/memory";
const std::string V2 = "/sys/fs/cgroup/unified";

std::string mib(uint64_t count)
{
    return std::to_string(count << 20) + "\n";
}

// A group of one of the two hierarchies; its folder, and MiB.
struct group_t {
    std::string path;
    uint64_t limit = 0, use = 0; // limit 0: none
    uint64_t cache = 0;          // of the use, what can be dropped
    uint64_t high = 0;           // a second limit, of the unified hierarchy
    uint64_t swap = 0;           // used beside it, and counted
};

// The files of a system below a folder.
class system_t {
public:
    void write(const std::string &path, const std::string &text) const
    {
        const std::filesystem::path file = root.path() + path;
        std::filesystem::create_directories(file.parent_path());
        std::ofstream(file) << text;
    }
    // A process in these groups of the two hierarchies ("": in none).
    void write_process(const std::string &v1, const std::string &v2) const
    {
        write("/proc/meminfo", "MemTotal: 99999999 kB\nMemFree: 1 kB\nMemAvailable:    1048576 kB\n");
        write("/proc/self/cgroup", (v1.empty() ? "" : "4:cpu,memory:" + v1 + "\n") + "3:cpuset:/wrong\n" +
                                       (v2.empty() ? "" : "0::" + v2 + "\n"));
    }
    void write_group(const group_t &group) const
    {
        const std::string inactive = mib(group.cache / 2), active = mib(group.cache - group.cache / 2);
        const std::string at = group.path + "/memory.";
        if (!group.path.starts_with(V1)) {
            write(at + "max", group.limit != 0 ? mib(group.limit) : "max\n");
            write(at + "high", group.high != 0 ? mib(group.high) : "max\n");
            write(at + "current", mib(group.use));
            write(at + "stat", "anon 12\ninactive_file " + inactive + "active_file " + active +
                                   "inactive_file_x 99999999999\n");
            return;
        }
        write(at + "limit_in_bytes", group.limit != 0 ? mib(group.limit) : "9223372036854771712\n");
        write(at + "usage_in_bytes", mib(group.use));
        write(at + "stat",
              "inactive_file 9999999999\ntotal_inactive_file " + inactive + "total_active_file " + active);
        if (group.swap != 0) {
            write(at + "memsw.limit_in_bytes", mib(group.limit));
            write(at + "memsw.usage_in_bytes", mib(group.use + group.swap));
        }
    }
    available_memory_t ask() const { return available_memory_below(root.path().c_str()); }

    temp_dir_t root;
};

std::string mount_v1(const std::string &top = "/")
{
    return "35 31 0:31 / /sys/fs/cgroup/cpuset rw - cgroup cgroup rw,cpuset\n35 31 0:32 " + top + " " + V1 +
           " rw,relatime shared:9 - cgroup  rw,cpu,memory\n";
}

std::string mount_v2(const std::string &top = "/", const std::string &point = V2)
{
    return "31 23 0:28 / /sys/fs/cgroup rw - tmpfs tmpfs rw\n41 31 0:38 " + top + " " + point +
           " rw - cgroup2 cgroup2 rw,nsdelegate\n";
}

} // namespace

TEST(AvailableMemory, IsTheLeastOfTheSystemAndEveryGroupUpToTheRootOfBothHierarchies)
{
    struct case_t {
        const char *what;
        uint64_t expected; // MiB
        std::string v1, v2;
        std::vector<group_t> groups;
        std::string mounts = mount_v1() + mount_v2();
    };
    const case_t cases[] = {
        {"no groups", 1024, "", "", {}, ""},
        {"first hierarchy", 240, "/a", "", {{V1 + "/a", 300, 100, 40}}},
        {"an ancestor", 200, "/a/b/c", "", {{V1 + "/a", 300, 100}, {V1 + "/a/b/c", 500, 50}}},
        {"no limit", 1024, "/a", "/a", {{V1 + "/a", 0, 900}, {V2 + "/a", 0, 900}}},
        {"swap counts", 80, "/a", "", {{V1 + "/a", 300, 100, 0, 0, 120}}},
        {"unified: high of an ancestor, less what cannot be dropped",
         201,
         "",
         "/a/b",
         {{V2 + "/a/b", 700, 300}, {V2 + "/a", 0, 450, 151, 500}}},
        {"more in use than the limit", 0, "", "/a", {{V2 + "/a", 0, 150, 20, 100}}},
        {"hybrid, unified less", 150, "/a", "/b", {{V1 + "/a", 300, 100}, {V2 + "/b", 250, 100}}},
        {"group below the one that a container sees as the mount",
         150,
         "/docker/id/x",
         "",
         {{V1 + "/x", 250, 100}, {V1, 300, 100}},
         mount_v1("/docker/id")},
        {"group outside of the mount", 200, "/docker/id2", "", {{V1, 300, 100}}, mount_v1("/docker/id")},
        {"group above the namespace", 200, "", "/../b", {{V2, 300, 100}, {"/sys/fs/cgroup/b", 1}}},
        {"mount of a foreign group beside the own",
         200,
         "",
         "/a",
         {{"/elsewhere", 1}, {V2 + "/a", 300, 100}},
         mount_v2("/b", "/elsewhere") + mount_v2()},
        {"mount point with a blank",
         200,
         "",
         "/a",
         {{"/my groups/a", 300, 100}},
         mount_v2("/", "/my\\040groups")},
        {"a limit that cannot be read", 0, "", "/a", {{V2 + "/a/memory.max/folder"}}},
    };
    for (const case_t &c : cases) {
        const system_t system;
        system.write_process(c.v1, c.v2);
        system.write("/proc/self/mountinfo", c.mounts);
        for (const group_t &group : c.groups) {
            system.write_group(group);
        }
        EXPECT_EQ(system.ask().memory, c.expected << 20) << c.what;
        EXPECT_TRUE(system.ask().system_asked);
    }
}

TEST(AvailableMemory, AddressesEndAtTheResourceLimits)
{
    const auto page = static_cast<uint64_t>(sysconf(_SC_PAGESIZE));
    const uint64_t limit = uint64_t{1} << 46; // above what a sanitizer maps
    const system_t system;
    system.write("/proc/self/statm", std::to_string((limit >> 1) / page) + " 1 1 1 0 " +
                                         std::to_string((limit >> 2) / page) + " 0\n");
    EXPECT_EQ(system.ask().addresses, MEMORY_NOT_LIMITED);
    EXPECT_FALSE(system.ask().system_asked);
    for (const auto &[resource, expected] :
         {std::pair{RLIMIT_AS, limit - (limit >> 1)}, {RLIMIT_DATA, limit - (limit >> 2)}}) {
        rlimit before = {};
        getrlimit(resource, &before);
        const rlimit lower = {limit, before.rlim_max};
        ASSERT_EQ(setrlimit(resource, &lower), 0);
        EXPECT_EQ(system.ask().addresses, expected);
        setrlimit(resource, &before);
    }
}
