// The built plugin, loaded, started, used, stopped and unloaded over and over in one process.
#include "plugin/plugin.h"
#include "support/control_client.h"
#include "support/host_records.h"
#include "support/pcap_read.h"
#include "support/test_host.h"

#include <algorithm>
#include <chrono>
#include <dlfcn.h>
#include <fstream>
#include <gtest/gtest.h>
#include <malloc.h>
#include <memory>
#include <unistd.h>

namespace {

constexpr const char *LIBRARY = KESTRUNE_BUILD_DIR "/kestrune.so";
constexpr int CYCLES = 200;
constexpr int WARM_UP = 20; // cycles until the C library has taken what it keeps
constexpr int32_t QUEUES = 2;

// The loaded library and its entry points.
struct library_t {
    ~library_t() { dlclose(handle); }

    template <class Function>
    Function *find(const char *name)
    {
        auto *function = reinterpret_cast<Function *>(dlsym(handle, name));
        return function != nullptr ? function : throw std::runtime_error(dlerror());
    }

    void *handle = dlopen(LIBRARY, RTLD_NOW | RTLD_LOCAL);
    decltype(&plugin_process_init) init = find<decltype(plugin_process_init)>("plugin_process_init");
    decltype(&plugin_process_init_queue) init_queue =
        find<decltype(plugin_process_init_queue)>("plugin_process_init_queue");
    decltype(&plugin_process_update) update = find<decltype(plugin_process_update)>("plugin_process_update");
    decltype(&plugin_process_shutdown) stop =
        find<decltype(plugin_process_shutdown)>("plugin_process_shutdown");
};

// Packets of 20 addresses for every queue.
void feed(const library_t &library, plugin_private_t *plugin)
{
    for (int32_t queue = 0; queue < QUEUES; queue++) {
        plugin_instance_t *instance = library.init_queue(plugin, queue);
        for (uint32_t n = 0; n < 100; n++) {
            const host_record_t record(4, numbered_address(n % 20), numbered_address(200),
                                       std::string(500, 'x'), n + 1);
            library.update(instance, &record.flow, &record.packet);
        }
    }
}

// Leave a connection that hears updates, one in the middle of a request, and three rules under way.
std::vector<std::unique_ptr<control_client_t>> steer(int cycle)
{
    uint16_t port = 0;
    EXPECT_TRUE(wait_until([&] { return (port = listening_port()) != 0; }));
    std::vector<std::unique_ptr<control_client_t>> clients;
    for (int i = 0; i < 2; i++) {
        clients.push_back(std::make_unique<control_client_t>(port));
    }
    for (uint32_t n = 0; n < 3; n++) {
        const std::string name = "c" + std::to_string(cycle) + "-" + std::to_string(n);
        EXPECT_EQ(clients[0]->add(numbered_address(n), 1000, 1000, name), msg_code::SUCCESS);
    }
    EXPECT_EQ(clients[0]->ask(msg_action::INFO, msg_target::ON), msg_code::SUCCESS);
    EXPECT_EQ(clients[1]->history().queue_count, static_cast<uint32_t>(QUEUES));
    return clients;
}

// One life, with and without rings, with and without clients and rules at its end. Seconds that the stop
// took.
double live(int cycle, const std::string &export_path)
{
    test_host::set_params(
        {{"port", "0"}, {"export_path", export_path}, {"buffer_size", cycle % 4 != 3 ? "8" : "0"}});
    const library_t library;
    plugin_private_t *plugin = library.init("", nullptr, nullptr, QUEUES);
    if (plugin == nullptr) {
        throw std::runtime_error("start failed");
    }
    feed(library, plugin);
    std::vector<std::unique_ptr<control_client_t>> clients;
    if (cycle % 4 < 2) {
        clients = steer(cycle);
        feed(library, plugin);
    }
    const auto began = std::chrono::steady_clock::now();
    EXPECT_EQ(library.stop(plugin), 0);
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - began).count();
}

TEST(Lifecycle, NothingRemainsOfTwoHundredLives)
{
    const temp_dir_t files;
    test_host::reset(0); // errors only
    const auto before = resources();
    const auto resident_pages = [] {
        long pages = 0;
        std::ifstream("/proc/self/statm") >> pages >> pages; // the second number
        return pages;
    };
    size_t allocated = 0;
    long resident = 0;
    double longest_stop = 0;
    for (int i = 0; i < CYCLES && !testing::Test::HasFailure(); i++) {
        if (i == WARM_UP) {
            allocated = mallinfo2().uordblks;
            resident = resident_pages();
        }
        longest_stop = std::max(longest_stop, live(i, files.path()));
        ASSERT_EQ(dlopen(LIBRARY, RTLD_NOW | RTLD_NOLOAD), nullptr) << "still loaded after cycle " << i;
        ASSERT_TRUE(resources_fall_to(before)) << "cycle " << i;
    }
    EXPECT_EQ(file_bytes("/proc/self/maps").find("kestrune.so"), std::string::npos);
    EXPECT_LT(longest_stop, 2);
    EXPECT_TRUE(test_host::messages().empty()) << test_host::messages()[0].text;
    if (!SANITIZED) { // there the leak detection speaks, and freed memory is kept aside
        EXPECT_LT(mallinfo2().uordblks, allocated + 16384);
        EXPECT_LT(resident_pages(), resident + 256);
    }
}

} // namespace
