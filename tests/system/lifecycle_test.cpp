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
constexpr double STOP_LIMIT_S = 2;

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool SANITIZED = true;
#else
constexpr bool SANITIZED = false;
#endif

// The loaded library and its entry points.
class library_t {
public:
    library_t() : handle(dlopen(LIBRARY, RTLD_NOW | RTLD_LOCAL))
    {
        if (handle == nullptr) {
            throw std::runtime_error(dlerror());
        }
        find("plugin_process_init", &init);
        find("plugin_process_init_queue", &init_queue);
        find("plugin_process_update", &update);
        find("plugin_process_shutdown", &stop);
    }
    ~library_t() { dlclose(handle); }
    library_t(const library_t &) = delete;
    library_t &operator=(const library_t &) = delete;

    decltype(&plugin_process_init) init;
    decltype(&plugin_process_init_queue) init_queue;
    decltype(&plugin_process_update) update;
    decltype(&plugin_process_shutdown) stop;

private:
    template <class Function>
    void find(const char *name, Function *function)
    {
        *function = reinterpret_cast<Function>(dlsym(handle, name));
        if (*function == nullptr) {
            throw std::runtime_error(dlerror());
        }
    }

    void *handle;
};

size_t resident_kib()
{
    std::ifstream statm("/proc/self/statm");
    size_t total = 0;
    size_t resident = 0;
    statm >> total >> resident;
    return resident * static_cast<size_t>(sysconf(_SC_PAGESIZE)) / 1024;
}

ip_addr_t ipv4(uint8_t last)
{
    const uint8_t bytes[4] = {last, 0, 0, 10};
    return ip_addr_from_ipv4(bytes);
}

// Whether the rings are on, whether clients are connected and rules run when the plugin is stopped.
struct cycle_t {
    int number;
    bool history() const { return number % 4 != 3; }
    bool clients() const { return number % 4 < 2; }
};

class Lifecycle : public testing::Test {
protected:
    void configure(const cycle_t &cycle)
    {
        test_host::on_config([this, cycle](const char *, config_option_t *options) {
            static char any_port[] = "0";
            for (; options->kind != CONFIG_END; options++) {
                const std::string name = options->name;
                if (name == "port") {
                    *static_cast<char **>(options->target) = any_port;
                } else if (name == "export_path") {
                    *static_cast<char **>(options->target) = export_path.data();
                } else if (name == "buffer_size") {
                    *static_cast<int32_t *>(options->target) = cycle.history() ? 8 : 0;
                }
            }
            return 0;
        });
    }

    // Packets of 20 addresses for every queue.
    static void feed(const library_t &library, plugin_private_t *plugin)
    {
        for (int32_t queue = 0; queue < QUEUES; queue++) {
            plugin_instance_t *instance = library.init_queue(plugin, queue);
            for (uint8_t n = 0; n < 100; n++) {
                const host_record_t record(4, ipv4(n % 20), ipv4(200), std::string(500, 'x'), n + 1U);
                library.update(instance, &record.flow, &record.packet);
            }
        }
    }

    // Leave a connection that hears updates, one in the middle of a request, and three rules under way.
    static std::vector<std::unique_ptr<control_client_t>> steer(const cycle_t &cycle)
    {
        uint16_t port = 0;
        EXPECT_TRUE(wait_until([&] { return (port = listening_port()) != 0; }));
        std::vector<std::unique_ptr<control_client_t>> clients;
        for (int i = 0; i < 2; i++) {
            clients.push_back(std::make_unique<control_client_t>(port));
        }
        for (uint8_t n = 0; n < 3; n++) {
            const std::string name = "c" + std::to_string(cycle.number) + "-" + std::to_string(n);
            EXPECT_EQ(clients[0]->add(ipv4(n), 1000, 1000, name), msg_code::SUCCESS);
        }
        EXPECT_EQ(clients[0]->ask(msg_action::INFO, msg_target::ON), msg_code::SUCCESS);
        EXPECT_EQ(clients[1]->history().queue_count, static_cast<uint32_t>(QUEUES));
        return clients;
    }

    // Seconds that the stop took.
    double run(const cycle_t &cycle)
    {
        configure(cycle);
        const library_t library;
        plugin_private_t *plugin = library.init("", nullptr, nullptr, QUEUES);
        if (plugin == nullptr) {
            ADD_FAILURE() << "start failed";
            return 0;
        }
        feed(library, plugin);
        std::vector<std::unique_ptr<control_client_t>> clients;
        if (cycle.clients()) {
            clients = steer(cycle);
            feed(library, plugin);
        }
        const auto began = std::chrono::steady_clock::now();
        EXPECT_EQ(library.stop(plugin), 0);
        return std::chrono::duration<double>(std::chrono::steady_clock::now() - began).count();
    }

    temp_dir_t files;
    std::string export_path = files.path();
};

TEST_F(Lifecycle, NothingRemainsOfTwoHundredLives)
{
    test_host::reset(0); // errors only
    const size_t descriptors = open_descriptors().size();
    const int threads = thread_count();
    size_t resident = 0;
    size_t allocated = 0;
    double longest_stop = 0;
    for (int i = 0; i < CYCLES && !HasFailure(); i++) {
        if (i == WARM_UP) {
            resident = resident_kib();
            allocated = mallinfo2().uordblks;
        }
        longest_stop = std::max(longest_stop, run({i}));
        ASSERT_EQ(dlopen(LIBRARY, RTLD_NOW | RTLD_NOLOAD), nullptr) << "still loaded after cycle " << i;
        ASSERT_EQ(open_descriptors().size(), descriptors) << "cycle " << i;
        ASSERT_TRUE(wait_until([&] { return thread_count() == threads; })) << "cycle " << i;
    }
    EXPECT_EQ(file_bytes("/proc/self/maps").find("kestrune.so"), std::string::npos);
    EXPECT_LT(longest_stop, STOP_LIMIT_S);
    EXPECT_TRUE(test_host::messages().empty()) << test_host::messages()[0].text;
    std::printf("longest stop %.3f s, resident %zu KiB, then %zu KiB\n", longest_stop, resident,
                resident_kib());
    if (!SANITIZED) { // there the leak detection speaks, and freed memory is kept aside
        EXPECT_LT(resident_kib(), resident + 1024);
        EXPECT_LT(mallinfo2().uordblks, allocated + 16384);
    }
}

} // namespace
