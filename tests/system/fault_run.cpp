// One run of the fault sweep (fault_sweep.py), a process of its own: starts the built plugin, feeds packets
// and rules to it while one of its calls fails, stops it, looks at what is left and starts it once more.
//
//   fault_run SCENARIO [CALL NTH COUNT ERROR]    from the nth of these calls on, COUNT of them fail
//
// The entry of this call in the library's table of imported functions is replaced: the plugin runs as it was
// built, and the calls of everybody else are not touched. Exit status 0, 1, or 3 when no call failed.
#include "client/session.h"
#include "plugin/plugin.h"
#include "support/host_records.h"
#include "support/pcap_read.h"
#include "support/test_host.h"

#include <algorithm>
#include <atomic>
#include <dlfcn.h>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <link.h>
#include <memory>
#include <set>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <thread>

using namespace std::chrono_literals;
using kestrune::client_error_t;
using kestrune::failure_t;
using kestrune::session_t;
using std::chrono::steady_clock;

namespace {

constexpr int32_t QUEUES = 2;
constexpr int SHORT = 1 << 16;   // for an error: only a part is written
constexpr int FOR_EVER = 100000; // failing calls
constexpr int SPINNING = 1000;   // failing calls of one run
constexpr int SPEED_UP = 100;    // of the pauses of the plugin's threads

struct {
    std::string call; // "": none
    int nth, count, error;

    bool is_one_of(const std::string &calls) const
    {
        return (" " + calls + " ").find(" " + call + " ") != std::string::npos;
    }
    // Nothing may come of it.
    bool is_nothing() const { return call.empty() || error == EINTR; }
    // Records may be missing.
    bool is_of_files() const { return !is_nothing() && is_one_of("write writev lseek"); }
    // Clients may wait in vain.
    bool is_of_accepting() const { return !is_nothing() && is_one_of("accept4 poll listen"); }
} fault;

bool failed = false;

void expect(bool condition, const std::string &text)
{
    if (!condition) {
        failed = true;
        std::cerr << "FAULT: " << text << "\n";
    }
}

// The hooks. Every call in question takes at most six integers and pointers, and one function can stand for
// all.

using call_t = long (*)(long, long, long, long, long, long);
call_t real_call, real_poll, real_sleep;
long failure; // what the failing call returns
std::atomic<bool> armed;
std::atomic<int> calls_made, failures;

// Threads are cancelled in here: no marks of the address sanitizer may stay on their stacks.
#define UNMARKED __attribute__((no_sanitize("address")))

UNMARKED long failing(long a, long b, long c, long d, long e, long f)
{
    const int number = armed ? ++calls_made : 0;
    if (number < fault.nth || number >= fault.nth + fault.count) {
        return real_call(a, b, c, d, e, f);
    }
    ++failures;
    pthread_testcancel(); // as the call itself would
    if (fault.error == SHORT && fault.call == "sendmsg") {
        const iovec *piece = reinterpret_cast<const msghdr *>(b)->msg_iov;
        return send(static_cast<int>(a), piece->iov_base, (piece->iov_len + 1) / 2, static_cast<int>(c));
    }
    if (fault.error == SHORT) {
        return real_call(a, b, fault.call == "writev" ? c - 1 : (c + 1) / 2, d, e, f);
    }
    if (fault.call == "close") { // says that it failed and closes
        real_call(a, b, c, d, e, f);
    }
    errno = fault.error;
    return failure;
}

UNMARKED long shorter_poll(long descriptors, long count, long time, long d, long e, long f)
{
    const long pause = static_cast<int>(time) / (count == 0 ? SPEED_UP : 1);
    return (fault.call == "poll" ? failing : real_poll)(descriptors, count, pause, d, e, f);
}

UNMARKED long shorter_sleep(long clock, long flags, long until, long rest, long e, long f)
{
    const auto *end = reinterpret_cast<const timespec *>(until);
    timespec now = {};
    if ((flags & TIMER_ABSTIME) != 0) {
        clock_gettime(static_cast<clockid_t>(clock), &now);
    }
    const long left = (end->tv_sec - now.tv_sec) * 1000000000 + end->tv_nsec - now.tv_nsec;
    const timespec pause = {0, std::clamp(left / SPEED_UP, 0L, 999999999L)};
    const long time = reinterpret_cast<long>(&pause);
    return (fault.call == "clock_nanosleep" ? failing : real_sleep)(clock, 0, time, rest, e, f);
}

void redirect(void **slot, call_t hook, call_t *real)
{
    const uintptr_t at = reinterpret_cast<uintptr_t>(slot) & ~uintptr_t{4095};
    mprotect(reinterpret_cast<void *>(at), 4096, PROT_READ | PROT_WRITE);
    *real = reinterpret_cast<call_t>(*slot);
    *slot = reinterpret_cast<void *>(hook);
}

void install_hooks(void *library)
{
    failure = fault.is_one_of("malloc calloc realloc aligned_alloc fopen") ? 0
              : fault.is_one_of("pthread_create pthread_mutex_init pthread_cond_init pthread_rwlock_init "
                                "posix_spawn posix_spawnattr_init clock_nanosleep getaddrinfo")
                  ? fault.error
                  : -1;
    link_map *map = nullptr;
    dlinfo(library, RTLD_DI_LINKMAP, &map);
    std::map<ElfW(Sxword), ElfW(Addr)> tags;
    for (const ElfW(Dyn) *entry = map->l_ld; entry->d_tag != DT_NULL; entry++) {
        tags[entry->d_tag] = entry->d_un.d_ptr;
    }
    for (const auto &[table, size] : {std::pair{DT_JMPREL, DT_PLTRELSZ}, std::pair{DT_RELA, DT_RELASZ}}) {
        const auto *entry = reinterpret_cast<const ElfW(Rela) *>(tags[table]);
        for (const auto *end = entry + tags[size] / sizeof *entry; entry < end; entry++) {
            const auto *symbols = reinterpret_cast<const ElfW(Sym) *>(tags[DT_SYMTAB]);
            const std::string name =
                reinterpret_cast<const char *>(tags[DT_STRTAB]) + symbols[ELF64_R_SYM(entry->r_info)].st_name;
            auto **slot = reinterpret_cast<void **>(map->l_addr + entry->r_offset);
            if (!name.empty() && name == fault.call) {
                redirect(slot, failing, &real_call);
            }
            if (name == "poll" || name == "clock_nanosleep") {
                name == "poll" ? redirect(slot, shorter_poll, &real_poll)
                               : redirect(slot, shorter_sleep, &real_sleep);
            }
        }
    }
}

using numbers_t = std::set<uint64_t>; // of packets, as they were fed

// A rule that was answered with SUCCESS, and the packets that must be in its files.
struct rule_t {
    uint32_t address;
    std::string live_file; // "": none
    std::map<std::string, numbers_t> expected;
};

class run_t {
public:
    run_t()
    {
        install_hooks(library);
        std::ofstream(scripts.path("script")) << "echo \"$1\" >> " << scripts.path("ran") << "\n";
        before = resources();
    }

    template <class Symbol>
    Symbol *find(const char *name) const
    {
        return reinterpret_cast<Symbol *>(dlsym(library, name));
    }

    bool start(const std::string &buffer_mb)
    {
        test_host::reset(0);
        test_host::set_params({{"port", "0"}, {"export_path", files.path()}, {"buffer_size", buffer_mb}});
        plugin = find<decltype(plugin_process_init)>("plugin_process_init")("", nullptr, nullptr, QUEUES);
        expect(plugin != nullptr || (errors() > 0 && !fault.is_nothing()),
               "refused start, or no message of it");
        if (plugin != nullptr) {
            *find<char *>("ks_capture_script") = strdup(scripts.path("script").c_str());
        }
        return plugin != nullptr;
    }

    // Go on with another connection; this one stays.
    void leave_connection() { earlier = std::move(session); }

    void stop()
    {
        find<decltype(plugin_process_shutdown)>("plugin_process_shutdown")(plugin);
        session.reset(); // later: what is sent to a closed connection fails
        earlier.reset();
    }

    // `count` packets of an address, for the queues in turn.
    void feed(uint32_t address, int count, size_t size = 100)
    {
        for (int i = 0; i < count; i++) {
            const uint64_t number = fed.size();
            const int32_t queue = i % QUEUES;
            std::string data(size, 'x');
            std::memcpy(data.data(), &number, sizeof number);
            const host_record_t record(4, numbered_address(address), numbered_address(200), data, number, 1);
            auto *instance =
                find<decltype(plugin_process_init_queue)>("plugin_process_init_queue")(plugin, queue);
            find<decltype(plugin_process_update)>("plugin_process_update")(instance, &record.flow,
                                                                           &record.packet);
            fed.push_back({address, queue});
            for (rule_t &rule : rules) {
                if (rule.address == address && !rule.live_file.empty()) {
                    rule.expected[rule.live_file].insert(number);
                }
            }
        }
    }

    // Ask something of the plugin; false when it did not answer SUCCESS.
    template <class Ask>
    bool ask(const Ask &what)
    {
        try {
            if (!session) {
                const auto wait = fault.is_of_accepting() ? 300ms : 10000ms;
                wait_until([] { return listening_port() != 0; }, static_cast<int>(wait.count()));
                const kestrune::endpoint_t plugin_port = {"127.0.0.1", std::to_string(listening_port())};
                session = std::make_unique<session_t>(plugin_port, kestrune::session_options_t{wait, wait});
            }
            what(*session);
            return true;
        } catch (const client_error_t &error) {
            const auto why = error.failure();
            expect(!fault.is_nothing() && why != failure_t::MALFORMED &&
                       (fault.is_of_accepting() || (why != failure_t::TIMEOUT && why != failure_t::CONNECT)),
                   std::string("request: ") + error.what());
            if (why != failure_t::REFUSED) {
                session.reset();
            }
            return false;
        }
    }

    // Add a rule; what was fed of its address is in the rings.
    void add(uint32_t address, const std::string &name, uint32_t packets)
    {
        const int refusals = test_host::count("Could not a"); // of its captures
        const bool added = ask([&](session_t &s) {
            s.add({numbered_address(address), BOTH, packets, 1000, name});
        });
        if (!added || test_host::count("Could not a") != refusals) {
            return;
        }
        rule_t rule = {address, "", {}};
        for (const auto &entry : std::filesystem::directory_iterator(files.path())) {
            const std::string file = entry.path().filename();
            const bool is_own = file.starts_with(name + "_");
            rule.live_file = is_own && queue_of(file) == -1 ? file : rule.live_file;
            for (uint64_t number = 0; is_own && number < fed.size(); number++) {
                if (fed[number] == std::pair{address, queue_of(file)}) {
                    rule.expected[file].insert(number);
                }
            }
        }
        const bool is_in_rings = std::count(fed.begin(), fed.end(), std::pair{address, 0}) != 0;
        expect(rule.live_file.empty() == (packets == 0) && (!is_in_rings || rule.expected.size() == QUEUES),
               name + ": a file is missing"); // those without packets may be gone already
        rules.push_back(rule);
    }

    // Wait until no rule is left, or take them out. With a fault for ever they may stay.
    void finish(int visuals, bool taking_out)
    {
        const bool must = fault.count != FOR_EVER && fault.call != "listen";
        const auto end = steady_clock::now() + (must ? 15s : 1s);
        bool empty = false;
        while (!empty && steady_clock::now() < end) {
            ask([&](session_t &s) {
                const auto left = s.list(msg_target::ALL);
                empty = left.empty();
                if (!empty && taking_out && !fault.is_nothing()) { // the request for it may have failed
                    s.remove(left[0].addr, left[0].direction);
                }
            });
            std::this_thread::sleep_for(2ms);
        }
        expect(empty || !must, "rules do not end");
        for (bool more = true; more;) {
            more = false;
            ask([&](session_t &s) {
                const auto wait = fault.is_nothing() && visuals > 0 ? 10s : 0s;
                const auto got = s.next_update(steady_clock::now() + wait);
                more = got.has_value();
                visuals -= more && std::holds_alternative<kestrune::visual_t>(*got) ? 1 : 0;
            });
        }
        expect(visuals <= 0 || !fault.is_nothing(), "a rule's end was not told");
    }

    // After the stop: threads, descriptors, processes, messages and files.
    void check_what_is_left()
    {
        expect(resources_fall_to(before), "threads or descriptors are left");
        expect(waitpid(-1, nullptr, WNOHANG) == -1 || fault.is_one_of("waitid waitpid"), "a process is left");
        expect(failures < SPINNING, "spins on the failing call");
        expect(errors() == 0 || !fault.is_nothing(), "an error is logged");
        for (const auto &entry : std::filesystem::directory_iterator(files.path())) {
            numbers_in(entry.path().filename());
        }
        for (const rule_t &rule : rules) {
            for (const auto &[file, numbers] : rule.expected) {
                const numbers_t found = numbers_in(file);
                expect(std::includes(found.begin(), found.end(), numbers.begin(), numbers.end()) ||
                           fault.is_of_files(),
                       file + " lacks records: " + std::to_string(found.size()));
            }
        }
    }

private:
    static int queue_of(const std::string &file) // -1: a live capture's
    {
        const size_t at = file.find("_hc_");
        return at == std::string::npos ? -1 : file[at + 4] - '0';
    }

    static int errors()
    {
        int count = 0;
        std::set<std::string> texts; // a text once
        for (const test_host::message_t &message : test_host::messages()) {
            std::cerr << (texts.insert(message.text).second ? message.text + "\n" : "");
            count += message.level == -1 ? 1 : 0;
        }
        return count;
    }

    // The numbers of a file's records: all were fed, for its queue, and come in order; none without the file.
    numbers_t numbers_in(const std::string &file)
    {
        numbers_t found;
        const size_t size = file_bytes(files.path(file)).size();
        if (file.empty() || size < 24) {
            expect(file.empty() || size == 0 || fault.is_of_files(), file + ": no whole header");
            return found;
        }
        size_t torn = 0;
        for (const pcap_record_t &record : read_pcap(files.path(file), &torn)) {
            uint64_t number = 0;
            std::memcpy(&number, record.data.data(), sizeof number);
            expect(number == record.timestamp && number < fed.size() &&
                       (queue_of(file) == -1 || fed[number].second == queue_of(file)) &&
                       (found.empty() || number > *found.rbegin()),
                   file + ": a strange record");
            found.insert(number);
        }
        expect(torn == 0 || fault.is_of_files(), file + ": torn");
        return found;
    }

    void *library = dlopen(KESTRUNE_BUILD_DIR "/kestrune.so", RTLD_NOW | RTLD_LOCAL);
    plugin_private_t *plugin = nullptr;
    const temp_dir_t files, scripts;
    std::pair<long, long> before;
    std::vector<std::pair<uint32_t, int>> fed; // address and queue of each packet
    std::vector<rule_t> rules;
    std::unique_ptr<session_t> session, earlier;
};

// The scenarios. The call fails from `armed` on.

void start_and_stop(run_t *run)
{
    armed = true;
    if (run->start("8")) {
        run->ask([](session_t &s) { s.list(msg_target::ALL); });
        run->stop();
    }
}

void capture(run_t *run) // rules with history and live capture up to their end
{
    run->start("2");
    run->feed(1, 20);
    run->feed(2, 7);
    armed = true;
    const bool registered = run->ask([](session_t &s) { s.updates_on(); });
    run->add(1, "one", 10);
    run->add(2, "two", 0);
    run->add(3, "none", 1);
    run->ask([](session_t &s) { s.detail(numbered_address(1)); });
    run->feed(1, 10);
    run->feed(3, 1);
    run->finish(registered ? 3 : 0, false);
    run->stop();
}

void evict(run_t *run) // packets of waiting rules are dropped from the rings, and a stop in the middle
{
    run->start("1");
    run->feed(1, 100, 1000);
    armed = true;
    run->add(9, "first", 0);
    run->add(1, "slow", 1000);
    run->feed(2, 1200, 1000);
    run->add(3, "late", 0);
    run->stop();
}

void steer(run_t *run) // every request
{
    run->start("0");
    armed = true;
    run->ask([](session_t &s) { s.updates_on(); });
    run->ask([](session_t &s) { s.history_on(8); });
    run->feed(5, 10);
    run->add(1, "one", 100);
    run->feed(1, 4);
    run->ask([](session_t &s) { s.history_info(); });
    run->ask([](session_t &s) { s.remove(numbered_address(1), SRC); });
    run->ask([](session_t &s) { s.set_heavy_size(10); });
    run->leave_connection();
    run->add(2, "two", 0);
    run->ask([](session_t &s) { s.remove(numbered_address(1), DST); });
    run->ask([](session_t &s) { s.history_off(); });
    run->finish(0, true);
    run->stop();
}

} // namespace

int main(int count, char **arguments)
{
    const std::vector<std::string> words(arguments + 1, arguments + count);
    if (words.size() == 5) {
        fault = {words[1], std::stoi(words[2]), std::stoi(words[3]), std::stoi(words[4])};
    }
    const std::map<std::string, void (*)(run_t *)> scenarios = {
        {"start", start_and_stop}, {"capture", capture}, {"evict", evict}, {"steer", steer}};
    run_t run;
    scenarios.at(words.at(0))(&run);
    run.check_what_is_left();
    armed = false;
    expect(run.start("2"), "does not start again");
    run.stop();
    return failed ? 1 : failures > 0 || fault.call.empty() ? 0 : 3;
}
