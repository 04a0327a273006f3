// The packet path and another client beside a client that floods the control port. The built plugin runs in
// this process with one packet thread per queue; the attacker and the bystander are separate processes. Every
// case is measured quiet and attacked on one start of the plugin.
//
//   attack_bench [PLUGIN [SECONDS [CASE]]]    path of the plugin, seconds each, part of a case name
#include "client/session.h"
#include "common/clock.h"
#include "plugin/plugin.h"
#include "protocol/message.h"
#include "support/host_records.h"
#include "support/test_host.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <dlfcn.h>
#include <fcntl.h>
#include <filesystem>
#include <memory>
#include <netinet/in.h>
#include <poll.h>
#include <pthread.h>
#include <spawn.h>
#include <string>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

constexpr uint32_t RULES = 1000;
constexpr int64_t SCHEDULE_NS = 5000;  // between two packets of a paced thread
constexpr int ATTACK_PAUSE_MS = 100;   // between two rounds of the attacker over its connections
constexpr int ATTACK_ROOM = 1 << 20;   // bytes of its receive buffers, so it rarely has to read
constexpr size_t ATTACK_BATCH = 32768; // bytes of requests per round and connection
constexpr int BYSTANDER_PAUSE_MS = 25;
constexpr int TURNS = 3; // quiet and attacked of one case

int64_t now_ns()
{
    return static_cast<int64_t>(monotonic_now_ns());
}

double cpu_seconds()
{
    rusage usage = {};
    getrusage(RUSAGE_SELF, &usage);
    const auto seconds = [](const timeval &time) {
        return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) * 1e-6;
    };
    return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

bool stdin_ended()
{
    pollfd end = {STDIN_FILENO, POLLIN, 0};
    return poll(&end, 1, 0) == 1;
}

// The attacker's requests. Each connection has its own addresses.
class requests_t {
public:
    requests_t(std::string kind, uint32_t connection) : kind_(std::move(kind)), number_(connection << 16) {}
    // The next ATTACK_BATCH bytes of requests. Unsent ones come first.
    std::string &bytes()
    {
        while (pending_.size() < ATTACK_BATCH) {
            append();
        }
        return pending_;
    }

private:
    void append()
    {
        if (kind_ == "LIST") {
            put(msg_action::LIST, msg_target::ALL, {});
        } else if (kind_ == "INFO") {
            put(msg_action::HISTORY, msg_target::INFO, {});
        } else {
            const ip_addr_t addr = numbered_address(number_++);
            uint8_t bytes[MSG_ADD_SIZE + 1] = {};
            msg_writer_t out = msg_writer(bytes, MSG_ADD_SIZE);
            msg_encode(&out, msg_add_t{addr, 1000, 3600, 1});
            bytes[MSG_ADD_SIZE] = 'a';
            put(msg_action::ADD, BOTH, {bytes, sizeof bytes});
            put(msg_action::REMOVE, BOTH, {addr.bytes, sizeof addr.bytes});
        }
    }
    void put(uint8_t action, uint8_t target, std::span<const uint8_t> payload)
    {
        uint8_t header[MSG_HEADER_SIZE];
        msg_writer_t out = msg_writer(header, sizeof header);
        msg_encode(&out, msg_request(action, target));
        pending_.append(reinterpret_cast<const char *>(header), sizeof header);
        pending_.append(reinterpret_cast<const char *>(payload.data()), payload.size());
    }

    std::string kind_;
    uint32_t number_;
    std::string pending_;
};

// A connection to the plugin, open until the process ends.
int connect_to(uint16_t port)
{
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (connect(fd, reinterpret_cast<sockaddr *>(&address), sizeof address) != 0) {
        throw std::runtime_error("cannot connect to the plugin");
    }
    return fd;
}

// The attacker's process: sends requests as fast as they are taken and copies nothing of the replies.
int attack(uint16_t port, const std::string &kind, uint32_t connections)
{
    std::vector<int> clients;
    std::vector<requests_t> requests;
    for (uint32_t i = 0; i < connections; i++) {
        clients.push_back(connect_to(port));
        requests.emplace_back(kind, i + 1);
        setsockopt(clients.back(), SOL_SOCKET, SO_RCVBUF, &ATTACK_ROOM, sizeof ATTACK_ROOM);
    }
    std::puts("ready");
    std::fflush(stdout);
    const double before = cpu_seconds();
    while (!stdin_ended()) {
        for (uint32_t i = 0; i < connections; i++) {
            const int fd = clients[i];
            std::string &bytes = requests[i].bytes();
            const ssize_t sent = send(fd, bytes.data(), bytes.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
            bytes.erase(0, sent > 0 ? static_cast<size_t>(sent) : 0);
            for (int n = 0; n < 2 && recv(fd, nullptr, size_t{1} << 20, MSG_DONTWAIT | MSG_TRUNC) > 0; n++) {
            }
        }
        poll(nullptr, 0, ATTACK_PAUSE_MS);
    }
    std::printf("%.2f\n", cpu_seconds() - before);
    return 0;
}

volatile sig_atomic_t attacked = 0; // the bystander counts; SIGUSR1 begins, SIGUSR2 ends

// The bystander's process: LIST again and again. Times in milliseconds: median, p99, maximum.
int stand_by(uint16_t port)
{
    for (const int number : {SIGUSR1, SIGUSR2}) {
        struct sigaction action = {};
        action.sa_handler = [](int which) { attacked = which == SIGUSR1 ? 1 : 0; };
        action.sa_flags = SA_RESTART;
        sigaction(number, &action, nullptr);
    }
    kestrune::session_options_t options;
    options.answer_time = std::chrono::seconds(60);
    kestrune::session_t session({"127.0.0.1", std::to_string(port)}, options);
    (void)session.list(msg_target::ALL);
    std::puts("ready");
    std::fflush(stdout);
    std::vector<double> times_ms = {0};
    while (!stdin_ended()) {
        const int64_t begin = now_ns();
        (void)session.list(msg_target::ALL);
        if (attacked != 0) {
            times_ms.push_back(static_cast<double>(now_ns() - begin) * 1e-6);
        }
        poll(nullptr, 0, BYSTANDER_PAUSE_MS);
    }
    std::sort(times_ms.begin(), times_ms.end());
    std::printf("%.2f %.2f %.2f\n", times_ms[times_ms.size() / 2], times_ms[times_ms.size() * 99 / 100],
                times_ms.back());
    return 0;
}

// This program in another role, until its standard input ends.
class child_t {
public:
    explicit child_t(std::vector<std::string> arguments)
    {
        int to[2], from[2];
        if (pipe2(to, O_CLOEXEC) != 0 || pipe2(from, O_CLOEXEC) != 0) {
            throw std::runtime_error("no pipe");
        }
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, to[0], STDIN_FILENO);
        posix_spawn_file_actions_adddup2(&actions, from[1], STDOUT_FILENO);
        std::vector<char *> argv = {const_cast<char *>("attack_bench")};
        for (std::string &argument : arguments) {
            argv.push_back(argument.data());
        }
        argv.push_back(nullptr);
        const int error = posix_spawn(&pid_, "/proc/self/exe", &actions, nullptr, argv.data(), environ);
        posix_spawn_file_actions_destroy(&actions);
        close(to[0]);
        close(from[1]);
        input_ = to[1];
        output_ = fdopen(from[0], "r");
        if (error != 0 || line() != "ready\n") {
            throw std::runtime_error("no child");
        }
    }
    ~child_t() { end(); }
    child_t(const child_t &) = delete;
    child_t &operator=(const child_t &) = delete;
    void signal(int number) const { kill(pid_, number); }
    // Ends it and returns its final output.
    std::string end()
    {
        if (pid_ <= 0) {
            return "";
        }
        close(input_);
        std::string said = line();
        said.resize(said.empty() ? 0 : said.size() - 1);
        std::fclose(output_);
        waitpid(std::exchange(pid_, -1), nullptr, 0);
        return said;
    }

private:
    std::string line()
    {
        char text[100] = "";
        return std::fgets(text, sizeof text, output_) != nullptr ? text : "";
    }

    pid_t pid_ = -1;
    int input_ = -1;
    FILE *output_ = nullptr;
};

struct library_t {
    explicit library_t(const std::string &path) : handle(dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL)) {}

    template <class Function>
    Function *find(const char *name)
    {
        void *function = handle != nullptr ? dlsym(handle, name) : nullptr;
        return function != nullptr ? reinterpret_cast<Function *>(function)
                                   : throw std::runtime_error(dlerror());
    }

    void *handle;
    decltype(&plugin_process_init) init = find<decltype(plugin_process_init)>("plugin_process_init");
    decltype(&plugin_process_init_queue) init_queue =
        find<decltype(plugin_process_init_queue)>("plugin_process_init_queue");
    decltype(&plugin_process_update) update = find<decltype(plugin_process_update)>("plugin_process_update");
    decltype(&plugin_process_shutdown) stop =
        find<decltype(plugin_process_shutdown)>("plugin_process_shutdown");
};

// A queue's packet thread on a processor of its own: at full speed or on a schedule.
class queue_t {
public:
    queue_t(const library_t &library, plugin_instance_t *instance, int number, bool paced)
        : update_(library.update), instance_(instance), paced_(paced)
    {
        for (uint32_t i = 0; i < 512; i++) {
            const auto n = static_cast<uint32_t>(number) << 12 | i;
            records_.push_back(std::make_unique<host_record_t>(
                4, numbered_address(0xF00000 | n), numbered_address(0xF80000 | n), std::string(60, 'x'), n));
        }
        thread_ = std::jthread([this](const std::stop_token &stop) { run(stop); });
    }
    void begin()
    {
        longest_ns = 0;
        packets_before_ = packets;
    }
    uint64_t since_begin() const { return packets - packets_before_; }

    std::atomic<int64_t> longest_ns{0}; // lateness of a packet, or length of 64 calls of an unpaced thread
    std::atomic<uint64_t> packets{0};

private:
    void offer(uint64_t n) const
    {
        const host_record_t &record = *records_[n % records_.size()];
        update_(instance_, &record.flow, &record.packet);
    }
    void run(const std::stop_token &stop)
    {
        uint64_t n = 0;
        int64_t due = now_ns();
        while (!stop.stop_requested()) {
            if (paced_) {
                due += SCHEDULE_NS;
                while (now_ns() < due) {
                }
                offer(n++);
            } else {
                due = now_ns();
                for (int i = 0; i < 64; i++) {
                    offer(n++);
                }
            }
            const int64_t late = now_ns() - due;
            if (late > longest_ns.load(std::memory_order_relaxed)) {
                longest_ns.store(late, std::memory_order_relaxed);
            }
            packets.store(n, std::memory_order_relaxed);
        }
    }

    decltype(&plugin_process_update) update_;
    plugin_instance_t *instance_;
    bool paced_;
    uint64_t packets_before_ = 0;
    std::vector<std::unique_ptr<host_record_t>> records_;
    std::jthread thread_;
};

struct case_t {
    std::string kind;
    int queues;
    uint32_t connections;
    std::string name() const
    {
        return kind + "/" + std::to_string(queues) + "/" + std::to_string(connections);
    }
};

struct measured_t {
    double rate;    // packets a second of all queues
    double longest; // milliseconds, of the worst queue
};

measured_t measure(std::vector<std::unique_ptr<queue_t>> &queues, double seconds)
{
    for (auto &queue : queues) {
        queue->begin();
    }
    const int64_t begin = now_ns();
    std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
    const double took = static_cast<double>(now_ns() - begin) * 1e-9;
    measured_t result = {};
    for (auto &queue : queues) {
        result.rate += static_cast<double>(queue->since_begin()) / took;
        result.longest = std::max(result.longest, static_cast<double>(queue->longest_ns) * 1e-6);
    }
    return result;
}

// RULES rules with a running live capture; the live capture's table refuses some addresses.
void add_rules(uint16_t port)
{
    kestrune::session_t session({"127.0.0.1", std::to_string(port)}, {});
    uint32_t running = 0;
    for (uint32_t number = 0; running < RULES && number < 20 * RULES; number++) {
        const ip_addr_t addr = numbered_address(number);
        session.add({addr, BOTH, 1000, 36000, "r"});
        try {
            (void)session.detail(addr);
            running++;
        } catch (const kestrune::client_error_t &) {
            session.remove(addr, BOTH);
        }
    }
}

// Quiet and attacked in turn. The rates' ratios of the turns, sorted; the longest of all
// turns; what the children said of the last.
struct turns_t {
    double quiet_rate = 0;
    std::vector<double> ratios;
    double quiet_longest = 0, attacked_longest = 0;
    std::string attacker, bystander;
};

turns_t take_turns(const std::string &library_path, const case_t &what, bool paced, double seconds)
{
    const std::string directory = "/dev/shm/kestrune-attack-" + std::to_string(getpid());
    std::filesystem::create_directory(directory);
    test_host::set_params({{"port", "0"}, {"export_path", directory}, {"buffer_size", "64"}});
    library_t library(library_path);
    plugin_private_t *plugin = library.init("", nullptr, nullptr, what.queues);
    uint16_t port = 0;
    if (plugin == nullptr || !wait_until([&] { return (port = listening_port()) != 0; })) {
        throw std::runtime_error("the plugin did not start");
    }
    if (what.kind == "LIST") {
        add_rules(port);
    }
    turns_t result;
    {
        std::vector<std::unique_ptr<queue_t>> queues;
        for (int i = 0; i < what.queues; i++) {
            queues.push_back(std::make_unique<queue_t>(library, library.init_queue(plugin, i), i, paced));
        }
        child_t bystander({"--bystander", std::to_string(port)});
        std::this_thread::sleep_for(std::chrono::milliseconds(500)); // the rings fill
        for (int turn = 0; turn < TURNS; turn++) {
            const measured_t quiet = measure(queues, seconds);
            bystander.signal(SIGUSR1);
            child_t attacker({"--attack", std::to_string(port), what.kind, std::to_string(what.connections)});
            const measured_t busy = measure(queues, seconds);
            bystander.signal(SIGUSR2);
            result.attacker = attacker.end();
            std::this_thread::sleep_for(std::chrono::milliseconds(300)); // the handlers end
            result.quiet_rate += quiet.rate / TURNS;
            result.ratios.push_back(busy.rate / quiet.rate);
            result.quiet_longest = std::max(result.quiet_longest, quiet.longest);
            result.attacked_longest = std::max(result.attacked_longest, busy.longest);
        }
        std::sort(result.ratios.begin(), result.ratios.end());
        result.bystander = bystander.end();
    }
    library.stop(plugin);
    dlclose(library.handle);
    std::filesystem::remove_all(directory);
    return result;
}

void bench(const std::string &library, double seconds, const std::string &filter)
{
    std::printf(
        "case          packets: quiet Mpps, attacked | lateness ms: quiet attacked | another client's LIST: "
        "median p99 max ms | attacker's CPU s\n");
    for (const char *kind : {"LIST", "INFO", "ADD"}) {
        for (const int queues : {1, 2}) {
            for (const uint32_t connections : {64U, 128U}) {
                const case_t what = {kind, queues, connections};
                if (what.name().find(filter) == std::string::npos) {
                    continue;
                }
                const turns_t rate = take_turns(library, what, false, seconds);
                const turns_t paced = take_turns(library, what, true, seconds);
                std::printf("%-12s %6.1f %4.0f%% (%.0f to %.0f) | %6.1f %6.1f | %s (paced: %s) | %s\n",
                            what.name().c_str(), rate.quiet_rate * 1e-6, 100 * rate.ratios[TURNS / 2],
                            100 * rate.ratios.front(), 100 * rate.ratios.back(), paced.quiet_longest,
                            paced.attacked_longest, rate.bystander.c_str(), paced.bystander.c_str(),
                            rate.attacker.c_str());
                std::fflush(stdout);
            }
        }
    }
}

} // namespace

int main(int argc, char **argv)
{
    const std::vector<std::string> arguments(argv + 1, argv + argc);
    const auto argument = [&](size_t n, const std::string &otherwise) {
        return n < arguments.size() ? arguments[n] : otherwise;
    };
    if (argument(0, "") == "--attack") {
        return attack(static_cast<uint16_t>(std::stoi(arguments[1])), arguments[2],
                      static_cast<uint32_t>(std::stoul(arguments[3])));
    }
    if (argument(0, "") == "--bystander") {
        return stand_by(static_cast<uint16_t>(std::stoi(arguments[1])));
    }
    test_host::reset(-2); // the messages are not the subject
    bench(argument(0, KESTRUNE_BUILD_DIR "/kestrune.so"), std::stod(argument(1, "3")), argument(2, ""));
    return 0;
}
