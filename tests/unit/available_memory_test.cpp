#include "common/available_memory.h"
#include "support/process.h"

#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <map>
#include <string>
#include <sys/resource.h>
#include <unistd.h>

namespace {

using files_t = std::map<std::string, std::string>;

const std::string V1 = "/sys/fs/cgroup/memory";
const std::string V2 = "/sys/fs/cgroup/unified";

std::string mib(uint64_t count)
{
    return std::to_string(count << 20) + "\n";
}

std::string cgroups(const std::string &v1, const std::string &v2)
{
    return (v1.empty() ? "" : "4:cpu,memory:" + v1 + "\n") + "3:cpuset:/wrong\n" +
           (v2.empty() ? "" : "0::" + v2 + "\n");
}

std::string mount_v1(const std::string &root = "/", const std::string &point = V1)
{
    return "35 31 0:31 / /sys/fs/cgroup/cpuset rw - cgroup cgroup rw,cpuset\n35 31 0:32 " + root + " " +
           point + " rw,relatime shared:9 - cgroup  rw,cpu,memory\n";
}

std::string mount_v2(const std::string &root = "/", const std::string &point = V2)
{
    return "31 23 0:28 / /sys/fs/cgroup rw - tmpfs tmpfs rw\n41 31 0:38 " + root + " " + point +
           " rw - cgroup2 cgroup2 rw,nsdelegate\n";
}

files_t group_v1(const std::string &path, uint64_t limit, uint64_t use, uint64_t cache = 0)
{
    return {{path + "/memory.limit_in_bytes", mib(limit)},
            {path + "/memory.usage_in_bytes", mib(use)},
            {path + "/memory.stat", "inactive_file 9999999999\ntotal_inactive_file " + mib(cache / 2) +
                                        "total_active_file " + mib(cache - cache / 2)}};
}

files_t group_v2(const std::string &path, const std::string &max, const std::string &high, uint64_t use,
                 uint64_t cache = 0)
{
    return {{path + "/memory.max", max},
            {path + "/memory.high", high},
            {path + "/memory.current", mib(use)},
            {path + "/memory.stat", "anon 12\ninactive_file " + mib(cache / 2) + "active_file " +
                                        mib(cache - cache / 2) + "inactive_file_x 99999999999\n"}};
}

files_t operator+(files_t left, const files_t &right)
{
    left.insert(right.begin(), right.end());
    return left;
}

files_t process(const std::string &groups, const std::string &mounts)
{
    return {{"/proc/meminfo", "MemTotal: 99999999 kB\nMemFree: 1 kB\nMemAvailable:    1048576 kB\n"},
            {"/proc/self/cgroup", groups},
            {"/proc/self/mountinfo", mounts}};
}

available_memory_t ask(const files_t &files)
{
    const temp_dir_t root;
    for (const auto &[path, text] : files) {
        const std::filesystem::path file = root.path() + path;
        std::filesystem::create_directories(file.parent_path());
        if (text == "unreadable") {
            std::filesystem::create_directory(file);
        } else {
            std::ofstream(file) << text;
        }
    }
    return available_memory_below(root.path().c_str());
}

} // namespace

TEST(AvailableMemory, IsTheLeastOfTheSystemAndEveryGroupUpToTheRootOfBothHierarchies)
{
    const std::string none = "9223372036854771712\n";
    struct case_t {
        const char *what;
        files_t files;
        uint64_t expected; // MiB
    };
    const case_t cases[] = {
        {"no groups", process("", ""), 1024},
        {"first hierarchy", process(cgroups("/a", ""), mount_v1()) + group_v1(V1 + "/a", 300, 100, 40), 240},
        {"an ancestor",
         process(cgroups("/a/b/c", ""), mount_v1()) + group_v1(V1 + "/a", 300, 100) +
             group_v1(V1 + "/a/b/c", 500, 50),
         200},
        {"no limit",
         process(cgroups("/a", "/a"), mount_v1() + mount_v2()) +
             files_t{{V1 + "/a/memory.limit_in_bytes", none}} + group_v2(V2 + "/a", "max\n", "max\n", 900),
         1024},
        {"swap counts",
         process(cgroups("/a", ""), mount_v1()) + group_v1(V1 + "/a", 300, 100) +
             files_t{{V1 + "/a/memory.memsw.limit_in_bytes", mib(300)},
                     {V1 + "/a/memory.memsw.usage_in_bytes", mib(220)}},
         80},
        {"unified: high of an ancestor, less what cannot be dropped",
         process(cgroups("", "/a/b"), mount_v2()) + group_v2(V2 + "/a/b", mib(700), "max\n", 300) +
             group_v2(V2 + "/a", "max\n", mib(500), 450, 151),
         201},
        {"more in use than the limit",
         process(cgroups("", "/a"), mount_v2()) + group_v2(V2 + "/a", "max\n", mib(100), 150, 20), 0},
        {"hybrid, unified less",
         process(cgroups("/a", "/b"), mount_v2() + mount_v1()) + group_v1(V1 + "/a", 300, 100) +
             group_v2(V2 + "/b", mib(250), "max\n", 100),
         150},
        {"group below the one that a container sees as the mount",
         process(cgroups("/docker/id/x", ""), mount_v1("/docker/id")) + group_v1(V1 + "/x", 250, 100) +
             group_v1(V1, 300, 100),
         150},
        {"group outside of the mount",
         process(cgroups("/docker/id2", ""), mount_v1("/docker/id")) + group_v1(V1, 300, 100), 200},
        {"group above the namespace",
         process(cgroups("", "/../b"), mount_v2()) + group_v2(V2, mib(300), "max\n", 100) +
             group_v2("/sys/fs/cgroup/b", mib(1), "max\n", 0),
         200},
        {"mount of a foreign group beside the own",
         process(cgroups("", "/a"), mount_v2("/b", "/elsewhere") + mount_v2()) +
             group_v2("/elsewhere", mib(1), "max\n", 0) + group_v2(V2 + "/a", mib(300), "max\n", 100),
         200},
        {"mount point with a blank",
         process(cgroups("", "/a"), mount_v2("/", "/my\\040groups")) +
             group_v2("/my groups/a", mib(300), "max\n", 100),
         200},
        {"a limit that cannot be read",
         process(cgroups("", "/a"), mount_v2()) + files_t{{V2 + "/a/memory.max", "unreadable"}}, 0},
    };
    for (const case_t &c : cases) {
        const available_memory_t available = ask(c.files);
        EXPECT_EQ(available.memory, c.expected << 20) << c.what;
        EXPECT_TRUE(available.system_asked);
    }
}

TEST(AvailableMemory, AddressesEndAtTheResourceLimits)
{
    const auto page = static_cast<uint64_t>(sysconf(_SC_PAGESIZE));
    const uint64_t limit = uint64_t{1} << 46; // above what a sanitizer maps
    const files_t files = {{"/proc/self/statm", std::to_string((limit >> 1) / page) + " 1 1 1 0 " +
                                                    std::to_string((limit >> 2) / page) + " 0\n"}};
    EXPECT_EQ(ask(files).addresses, MEMORY_NOT_LIMITED);
    EXPECT_FALSE(ask(files).system_asked);
    for (const auto &[resource, expected] :
         {std::pair{RLIMIT_AS, limit - (limit >> 1)}, {RLIMIT_DATA, limit - (limit >> 2)}}) {
        rlimit before = {};
        getrlimit(resource, &before);
        const rlimit lower = {limit, before.rlim_max};
        ASSERT_EQ(setrlimit(resource, &lower), 0);
        EXPECT_EQ(ask(files).addresses, expected);
        setrlimit(resource, &before);
    }
}
