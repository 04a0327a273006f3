// Random actions with exact accounting: numbered packets on several queues, clients that ask for anything at
// any time, a stop at any moment; then each file is checked against what its packets say of themselves, and
// what was left behind.
//
// A packet belongs to a *stream* with each of its addresses: queue, address, side and whether its flow is
// heavy. It carries its number in the queue and, for each address, its count in the stream. What a rule is
// owed is an interval of counts: a missing packet is seen without a copy of what was sent. An address gets
// packets in one slot, from the moment the slot's client turns to it until it turns to another; it never
// comes back.
//
// KESTRUNE_SEED repeats a life that failed; KESTRUNE_WINDOWS and KESTRUNE_LIVES say how many, KESTRUNE_LONG:
// many.
#include "client/session.h"
#include "common/settings.h"
#include "history_capture/history_state.h"
#include "plugin/plugin.h"
#include "rules_manager/rules_manager.h"
#include "support/host_records.h"
#include "support/pcap_read.h"
#include "support/test_host.h"

#include <algorithm>
#include <dlfcn.h>
#include <fstream>
#include <malloc.h>
#include <memory>
#include <numeric>
#include <random>
#include <regex>
#include <sys/wait.h>

namespace {

using namespace std::chrono_literals;
using kestrune::client_error_t;
using kestrune::session_t;
using steady = std::chrono::steady_clock;
template <class T, size_t N>
using atomics_t = std::array<std::atomic<T>, N>;

constexpr uint32_t QUEUES = 4; // at most
constexpr uint32_t SLOTS = 8;
constexpr uint32_t CLIENTS = 4;                  // each with a slot of its own
constexpr uint32_t STREAMS = QUEUES * 4;         // of an address
constexpr uint32_t THRESHOLDS[] = {5, 20, 1000}; // flows of one packet are light, of a thousand heavy
constexpr uint32_t MAX_LENGTH = 1500;
constexpr uint64_t FIRST_NS = 1700000000000000000;
// Of a ring's size, what it may not hold: the end that no header fits in, what was freed beyond the need.
constexpr uint64_t UNSURE = 3 * (MAX_LENGTH + 2 * HC_RECORD_HEADER);
constexpr uint32_t UNLIMITED = 1U << 30;
constexpr const char *LIBRARY = KESTRUNE_BUILD_DIR "/kestrune.so";
const bool LONG = std::getenv("KESTRUNE_LONG") != nullptr;

struct end_t {
    uint32_t address, count; // 0: nobody's
    uint64_t previous;       // `at` of the stream's packet before
};
// What a packet says of itself; a pattern follows that its number sets off.
struct label_t {
    uint64_t number, at; // at: bytes that the queue's earlier packets take in a ring
    uint32_t queue, heavy, length;
    end_t ends[2]; // SRC, DST
    uint32_t stream(uint32_t side) const { return queue * 4 + side * 2 + heavy; }
};
using marks_t = std::array<uint32_t, STREAMS>; // packets of each stream that the plugin has returned from
using keys_t = std::vector<uint64_t>;          // of packets in streams, sorted

// A start of the plugin and what happens in it.
struct options_t {
    uint32_t queues = 1;
    uint64_t ring = 0;    // bytes of each; 0: off
    uint32_t windows = 0; // rules of each client that come amid their packets; then nothing else is asked
    bool toggles = false; // the history goes on and off
    bool finishes = true; // every rule is waited for; else the stop comes in the middle
    uint32_t run_ms = 0;
    uint32_t seed = 0;
    const char *script = nullptr;
};

// A time in which a live capture is known to run.
struct span_t {
    uint8_t direction;
    marks_t from, to;
};
// A rule as its client knows it.
struct rule_t {
    uint32_t address, limit;
    std::string name; // of no other rule
    uint8_t direction;
    bool first;                              // of its address
    marks_t before;                          // the request
    std::array<uint64_t, QUEUES> bytes = {}; // sent by the answer
    bool answered = false, changed = false;  // changed: renewed, widened or narrowed
    std::vector<span_t> spans = {};
};

struct tally_t {
    uint64_t files, packets, announced, windows;
};

uint32_t setting(const char *name, uint32_t otherwise)
{
    const char *value = std::getenv(name);
    return value != nullptr ? static_cast<uint32_t>(std::stoul(value)) : otherwise;
}
bool has_side(uint8_t direction, uint32_t side)
{
    return direction == BOTH || direction == side;
}
uint64_t key_of(uint32_t address, uint32_t stream, uint32_t count)
{
    return (uint64_t{address} * STREAMS + stream) << 32 | count;
}
const std::string PATTERN = [] {
    std::string bytes(256 + MAX_LENGTH, '\0');
    std::iota(bytes.begin(), bytes.end(), '\0');
    return bytes;
}();

// The plugin linked into this program, or a loaded one.
struct entry_points_t {
    decltype(&plugin_process_init) init = plugin_process_init;
    decltype(&plugin_process_init_queue) init_queue = plugin_process_init_queue;
    decltype(&plugin_process_update) update = plugin_process_update;
    decltype(&plugin_process_shutdown) stop = plugin_process_shutdown;
};

// What the threads of one life share.
struct life_t {
    // Packets as fast as they can, on the thread of a queue.
    void feed(uint32_t queue)
    {
        plugin_instance_t *instance = entry.init_queue(plugin, static_cast<int32_t>(queue));
        std::minstd_rand random(options.seed + queue);
        end_t next[SLOTS][4] = {};
        host_record_t record(4, {}, {}, std::string(MAX_LENGTH, '\0'));
        auto *data = const_cast<uint8_t *>(record.packet.data);
        for (label_t label = {0, 0, queue, 0, 0, {}}; !fed; label.number++) {
            const auto pick = static_cast<uint32_t>(random());
            const uint32_t slot[2] = {pick / 32 % SLOTS, (pick / 32 + 1 + pick / 256 % (SLOTS - 1)) % SLOTS};
            label.heavy = pick % 8 == 0 ? 1 : 0;
            label.length = sizeof label + (pick % 509 == 0 ? MAX_LENGTH - sizeof label : pick / 512 % 64);
            for (uint32_t side = 0; side < 2; side++) {
                end_t *end = &next[slot[side]][side * 2 + label.heavy];
                *end = end->address == slots[slot[side]] ? *end : end_t{slots[slot[side]], 0, 0};
                // Where windows are counted, no other live capture takes a rule's packets.
                label.ends[side] = options.windows != 0 && side == pick / 16 % 2 ? end_t{} : *end;
                std::memcpy(side == SRC ? record.header.addr.ipv4.src : record.header.addr.ipv4.dst,
                            numbered_address(label.ends[side].address).bytes + 4, 4);
            }
            std::memcpy(data, &label, sizeof label);
            std::memcpy(data + sizeof label, &PATTERN[label.number % 256], label.length - sizeof label);
            record.header.timestamp = FIRST_NS + label.number;
            record.packet.length = static_cast<uint16_t>(label.length);
            record.flow.packets = label.heavy != 0 ? 1000 : 1;
            entry.update(instance, &record.flow, &record.packet);
            for (uint32_t side = 0; side < 2; side++) {
                if (const end_t end = label.ends[side]; end.address != 0) {
                    next[slot[side]][side * 2 + label.heavy] = {end.address, end.count + 1, label.at};
                    sent[slot[side]][label.stream(side)] = uint64_t{end.address} << 32 | (end.count + 1);
                }
            }
            label.at += HC_RECORD_HEADER + label.length;
            sent_bytes[queue] = label.at;
        }
    }
    // A thread: what it throws is a failure, unless the plugin is being stopped.
    template <class Body>
    std::jthread start(Body body)
    {
        return std::jthread([this, body] {
            try {
                body();
            } catch (const client_error_t &error) {
                EXPECT_TRUE(stopping) << error.what();
            }
        });
    }
    std::unique_ptr<session_t> connect() const
    {
        return std::make_unique<session_t>(kestrune::endpoint_t{"127.0.0.1", port},
                                           kestrune::session_options_t{.answer_time = 60s});
    }
    // The one client that is registered throughout; the plugin's end throws.
    void collect(session_t *session)
    {
        while (true) {
            const auto update = session->next_update(steady::time_point::max());
            if (const auto *end = std::get_if<kestrune::visual_t>(&*update)) {
                reports.push_back(*end);
                unfinished--;
            }
        }
    }

    const options_t &options;
    const entry_points_t &entry;
    plugin_private_t *plugin;
    std::string port{};
    atomics_t<uint32_t, SLOTS> slots = {};                     // the address that gets packets
    std::array<atomics_t<uint64_t, STREAMS>, SLOTS> sent = {}; // address << 32 | packets
    atomics_t<uint64_t, QUEUES> sent_bytes = {};
    std::atomic<uint32_t> addresses{0}; // taken so far
    std::atomic<int64_t> unfinished{0}; // rules
    std::atomic<bool> ending{false};    // clients are to leave
    std::atomic<bool> fed{false};       // no more packets
    std::atomic<bool> stopping{false};  // connections may end
    std::array<std::vector<rule_t>, CLIENTS> rules{};
    std::vector<kestrune::visual_t> reports{};
};

// A client that steers the rules of its addresses, one address after the other.
class client_t {
public:
    client_t(life_t *shared, uint32_t number)
        : life(shared), slot(number), random(life->options.seed * 16 + number + 1), rules(life->rules[number])
    {
    }
    ~client_t() { close_span(); }
    void run()
    {
        session = life->connect();
        take_address();
        for (uint32_t i = 0; i < life->options.windows; i++) {
            make_window();
        }
        while (!life->ending) {
            ask_anything();
        }
        close_span();
        for (const rule_t &rule : rules) {
            (void)accepted([&] { session->remove(numbered_address(rule.address), BOTH); });
        }
    }

private:
    uint32_t pick(uint32_t choices) { return static_cast<uint32_t>(random() >> 4) % choices; }
    ip_addr_t key() const { return numbered_address(address); }
    marks_t marks() const
    {
        marks_t marks;
        std::transform(life->sent[slot].begin(), life->sent[slot].end(), marks.begin(), [&](uint64_t value) {
            return value >> 32 == address ? static_cast<uint32_t>(value) : 0;
        });
        return marks;
    }
    template <class Request>
    static bool accepted(Request request)
    {
        try {
            request();
        } catch (const client_error_t &error) {
            return error.failure() == kestrune::failure_t::REFUSED ? false : throw;
        }
        return true;
    }
    void close_span()
    {
        if (running) {
            rules.back().spans.back().to = marks();
        }
        running = false;
    }
    void open_span(uint8_t now)
    {
        rules.back().spans.push_back({now, marks(), {}});
        running = true;
    }
    // The rule runs without a limit: its client knows what becomes of it.
    bool is_known() const { return running && rules.back().limit == UNLIMITED; }
    uint8_t direction() const { return rules.back().spans.back().direction; }

    void take_address()
    {
        close_span();
        address = ++life->addresses;
        first = true;
        life->slots[slot] = address;
    }
    void add(uint8_t wanted, uint32_t limit)
    {
        close_span();
        const std::string name = "c" + std::to_string(slot) + "-" + std::to_string(names++);
        rules.push_back({address, limit, name, wanted, first, marks()});
        if (!accepted([&] { session->add({key(), wanted, limit, 3600, name}); })) {
            rules.pop_back(); // the address has a rule that is not over
            return;
        }
        life->unfinished++;
        rules.back().answered = true;
        std::copy(life->sent_bytes.begin(), life->sent_bytes.end(), rules.back().bytes.begin());
        first = false;
        if (limit != 0) {
            open_span(wanted);
        }
    }
    void renew(uint8_t wanted)
    {
        const uint8_t after = wanted == direction() ? wanted : uint8_t{BOTH};
        close_span();
        rules.back().changed = true;
        session->add({key(), wanted, UNLIMITED, 3600, rules.back().name});
        open_span(after);
    }
    void remove(uint8_t dropped)
    {
        const uint8_t before = direction();
        const bool ends = dropped == BOTH || dropped == before;
        close_span();
        rules.back().changed = rules.back().changed || !ends;
        EXPECT_EQ(accepted([&] { session->remove(key(), dropped); }), ends || before == BOTH);
        if (!ends) {
            open_span(before != BOTH ? before : static_cast<uint8_t>(dropped == SRC ? DST : SRC));
        }
    }
    void look()
    {
        const auto listed = session->list(pick(2) == 0 ? direction() : uint8_t{msg_target::ALL});
        EXPECT_TRUE(std::ranges::any_of(listed, [&](const msg_ip_list_item_t &item) {
            return item.addr == key() && item.direction == direction();
        }));
        EXPECT_EQ(session->detail(key()).name, rules.back().name);
        EXPECT_EQ(session->history_info().queue_count, life->options.queues);
    }
    void ask_anything()
    {
        const auto any = static_cast<uint8_t>(pick(3));
        const uint32_t limits[] = {0, 1 + pick(500), UNLIMITED, UNLIMITED}, action = pick(16);
        if (action == 0) {
            take_address();
        } else if (action < 4 && !is_known()) {
            add(any, limits[pick(4)]);
        } else if (action < 8 && is_known()) {
            action == 1 ? look() : action == 2 ? renew(any) : remove(any);
        } else if (action == 8) {
            session->set_heavy_size(THRESHOLDS[pick(3)]);
        } else if (action == 9 && pick(4) == 0) { // leaves updates unread
            session->updates_on();
            session = life->connect();
        } else if (action == 10 && life->options.toggles && slot == 0) {
            (void)accepted([&] { pick(2) == 0 ? session->history_off() : session->history_on(pick(3)); });
        } else {
            std::this_thread::sleep_for(std::chrono::microseconds(pick(2000)));
        }
    }
    void wait_for_packets(uint32_t count) const
    {
        const marks_t begin = marks();
        for (uint32_t stream = 0; stream < life->options.queues * 4; stream += 2) { // the light ones
            while (marks()[stream] < begin[stream] + count) {
                std::this_thread::yield();
            }
        }
    }
    // A rule that comes amid its packets and is soon over.
    void make_window()
    {
        take_address();
        wait_for_packets(pick(20));
        add(BOTH, UNLIMITED);
        wait_for_packets(1 + pick(20));
        remove(BOTH);
        life->slots[slot] = 0;
        while (life->unfinished > 50) {
            std::this_thread::sleep_for(1ms);
        }
    }

    life_t *life;
    const uint32_t slot;
    std::minstd_rand random;
    std::vector<rule_t> &rules; // the last is the address's
    std::unique_ptr<session_t> session{};
    uint32_t address = 0;
    bool first = true;    // the address had no rule yet
    bool running = false; // its rule's last span is open
    uint32_t names = 0;
};

// The files of one life.
class judge_t {
public:
    judge_t(const std::string &directory, const life_t &ended, tally_t *totals) : life(ended), tally(totals)
    {
        for (const auto &entry : std::filesystem::directory_iterator(directory)) {
            read(entry.path());
        }
        std::sort(live_keys.begin(), live_keys.end()); // some were written for both ends
        live_keys.erase(std::unique(live_keys.begin(), live_keys.end()), live_keys.end());
        std::set<std::string> announced;
        for (const kestrune::visual_t &report : life.reports) {
            size_t packets = 0;
            for (const std::string &file : report.history_files) {
                packets += files[file].size();
                announced.insert(file);
            }
            EXPECT_EQ(packets, report.history_packets) << report.rule_id;
            EXPECT_EQ(report.live_file.empty() ? 0 : files[report.live_file].size(), report.live_packets);
            announced.insert(report.live_file);
        }
        for (const auto &[file, labels] : files) {
            EXPECT_TRUE(announced.count(file) != 0 || !life.options.finishes) << file << " was not announced";
        }
        tally->announced += life.reports.size();
        for (const auto &rules : life.rules) {
            std::for_each(rules.begin(), rules.end(), [this](const rule_t &rule) { check(rule); });
        }
    }

private:
    // Each packet is what it says, and comes behind those of its queue that have a lower number.
    void read(const std::filesystem::path &path)
    {
        const std::string name = path.filename();
        const size_t hc = name.find("_hc_");
        std::array<int64_t, QUEUES> last;
        last.fill(-1);
        std::vector<label_t> &labels = files[name];
        for (const pcap_record_t &record : read_pcap(path)) {
            label_t label = {};
            std::memcpy(&label, record.data.data(), std::min(sizeof label, record.data.size()));
            ASSERT_TRUE(label.length >= sizeof label && label.length == record.data.size() &&
                        label.length == record.full_length && record.timestamp == FIRST_NS + label.number &&
                        record.data.compare(sizeof label, std::string::npos, PATTERN, label.number % 256,
                                            label.length - sizeof label) == 0)
                << name << ": torn";
            const auto number = static_cast<int64_t>(label.number);
            ASSERT_GT(number, std::exchange(last[label.queue], number)) << name << ": again or late";
            ASSERT_TRUE(hc == std::string::npos || name.substr(hc + 4) == std::to_string(label.queue))
                << name;
            labels.push_back(label);
            for (uint32_t side = 0; side < 2 && hc == std::string::npos; side++) {
                live_keys.push_back(
                    key_of(label.ends[side].address, label.stream(side), label.ends[side].count));
            }
        }
        tally->files++;
        tally->packets += labels.size();
    }

    void check(const rule_t &rule)
    {
        keys_t live, history, both;
        marks_t first, end = {}; // count of each light stream's first packet, and behind its last
        first.fill(UINT32_MAX);
        std::array<uint64_t, STREAMS> previous = {}; // of the first
        const std::string prefix = rule.name + "_";
        for (auto file = files.lower_bound(prefix); file != files.end() && file->first.starts_with(prefix);
             file++) {
            const bool is_live = file->first.find("_hc_") == std::string::npos;
            for (const label_t &label : file->second) {
                const uint32_t side = label.ends[DST].address == rule.address ? DST : SRC;
                const uint32_t stream = label.stream(side), count = label.ends[side].count;
                ASSERT_EQ(label.ends[side].address, rule.address) << file->first;
                ASSERT_TRUE(has_side(rule.direction, side) || (is_live && rule.changed)) << file->first;
                ASSERT_TRUE(is_live || label.heavy == 0) << file->first;
                (is_live ? live : history).push_back(key_of(rule.address, stream, count));
                if (!is_live || is_whole(rule)) {
                    previous[stream] = count < first[stream] ? label.ends[side].previous : previous[stream];
                    first[stream] = std::min(first[stream], count);
                    end[stream] = std::max(end[stream], count + 1);
                }
            }
        }
        std::sort(live.begin(), live.end());
        std::sort(history.begin(), history.end());
        std::set_intersection(history.begin(), history.end(), live_keys.begin(), live_keys.end(),
                              back_inserter(both));
        EXPECT_TRUE(both.empty()) << rule.name << ": " << both.size() << " of its history in live files too";
        EXPECT_TRUE(rule.changed || live.size() <= rule.limit) << rule.name << ": " << live.size();
        for (uint32_t queue = 0; queue < QUEUES; queue++) {
            uint32_t missing = 0, past = 0, now = 0;
            for (uint32_t i = queue * 4; i < queue * 4 + 4; i++) {
                check_spans(rule, i, live);
                if (i % 2 == 0 && has_side(rule.direction, i / 2 % 2)) {
                    const auto [from, to] = owed(rule, i, first[i], end[i], previous[i]);
                    past += among(history, rule, i, 0, UINT32_MAX);
                    now += among(live, rule, i, 0, UINT32_MAX);
                    missing +=
                        to - from - among(history, rule, i, from, to) - among(live_keys, rule, i, from, to);
                }
            }
            EXPECT_EQ(missing, 0U) << rule.name << ": packets of queue " << queue << " in no file";
            tally->windows += is_whole(rule) && past != 0 && now != 0 ? 1 : 0;
        }
    }

    // How many of these counts there are.
    static uint32_t among(const keys_t &keys, const rule_t &rule, uint32_t stream, uint32_t from, uint32_t to)
    {
        return static_cast<uint32_t>(
            std::lower_bound(keys.begin(), keys.end(), key_of(rule.address, stream, to)) -
            std::lower_bound(keys.begin(), keys.end(), key_of(rule.address, stream, from)));
    }
    // Every search of the rule was made, on a ring that was on from the start.
    bool is_whole(const rule_t &rule) const
    {
        return life.options.finishes && !life.options.toggles && life.options.ring != 0 && rule.answered &&
               !rule.changed;
    }

    static void check_spans(const rule_t &rule, uint32_t stream, const keys_t &live)
    {
        for (const span_t &span : rule.spans) {
            const uint32_t from = span.from[stream] + 1, to = span.to[stream]; // one may have been under way
            if (live.size() < rule.limit && has_side(span.direction, stream / 2 % 2) && from < to) {
                EXPECT_EQ(among(live, rule, stream, from, to), to - from)
                    << rule.name << ": live packets from " << from << " to " << to << " of stream " << stream;
            }
        }
    }

    // The counts that must be in the rule's files, but for those that another live capture wrote.
    std::pair<uint32_t, uint32_t> owed(const rule_t &rule, uint32_t stream, uint32_t first, uint32_t end,
                                       uint64_t previous) const
    {
        if (!is_whole(rule)) { // what was found in the ring has no holes
            return {std::min(first, end), end};
        }
        const uint64_t bytes = rule.bytes[stream / 4] + UNSURE;
        const bool held_all = bytes <= life.options.ring;
        const bool held_previous = first != 0 && end != 0 && bytes - previous <= life.options.ring;
        end = std::max(end, rule.before[stream]);
        first = std::min(first, end);
        return {!rule.first ? first : held_all ? 0 : held_previous ? first - 1 : first, end};
    }

    const life_t &life;
    tally_t *tally;
    std::map<std::string, std::vector<label_t>> files{};
    keys_t live_keys{}; // of all live files
};

// One start of the plugin, steered, stopped and checked.
void live(const entry_points_t &entry, const options_t &options, tally_t *tally)
{
    SCOPED_TRACE("KESTRUNE_SEED=" + std::to_string(options.seed) + ", queues " +
                 std::to_string(options.queues) + ", ring " + std::to_string(options.ring));
    const bool linked = entry.init == plugin_process_init;
    const temp_dir_t files, scripts;
    test_host::reset(0); // errors only
    test_host::set_params(
        {{"port", "0"},
         {"export_path", files.path()},
         {"buffer_size", std::to_string(linked ? 0 : options.queues * options.ring >> 20)}});
    life_t life{options, entry, entry.init("", nullptr, nullptr, static_cast<int32_t>(options.queues))};
    ASSERT_NE(life.plugin, nullptr) << test_host::messages()[0].text;
    ASSERT_TRUE(wait_until([] { return listening_port() != 0; }));
    life.port = std::to_string(listening_port());
    for (uint32_t queue = 0; linked && queue < options.queues; queue++) {
        life.plugin->history[queue]->search_pause_ms = options.seed % 3;
        ASSERT_TRUE(options.ring == 0 || hc_enable(life.plugin->history[queue], options.ring) == HC_OK);
    }
    if (options.script != nullptr) {
        std::ofstream(scripts.path("script")) << options.script;
        ks_capture_script = strdup(scripts.path("script").c_str()); // the plugin's to free
    }
    std::vector<std::jthread> packets, collector, clients;
    for (uint32_t queue = 0; queue < options.queues; queue++) {
        packets.push_back(life.start([&life, queue] { life.feed(queue); }));
    }
    const auto session = life.connect();
    session->updates_on();
    session->set_heavy_size(THRESHOLDS[0]);
    collector.push_back(life.start([&] { life.collect(session.get()); }));
    for (uint32_t slot = 0; slot < CLIENTS; slot++) {
        clients.push_back(life.start([&life, slot] { client_t(&life, slot).run(); }));
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(options.run_ms));
    if (options.finishes) {
        life.ending = true;
        clients.clear(); // joined
        EXPECT_TRUE(wait_until([&] { return life.unfinished == 0; }, 120000)) << life.unfinished << " rules";
    }
    life.fed = true;
    packets.clear();
    life.stopping = true;
    const auto began = steady::now();
    EXPECT_EQ(entry.stop(life.plugin), 0);
    EXPECT_LT(steady::now() - began, SANITIZED ? 10s : 2s);
    life.ending = true;
    clients.clear();
    collector.clear();
    EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1) << "a child is left";
    for (const test_host::message_t &message : test_host::messages()) {
        // A client dropped a rule whose live capture was over, or left while updates went out to it.
        const std::regex expected("but not in live capture|[Ss]end failed");
        EXPECT_TRUE(std::regex_search(message.text, expected)) << message.text;
    }
    judge_t(files.path(), life, tally);
}

class Oracle : public testing::Test {
protected:
    Oracle() { rm_pass_pause_ms = 1; }
    void TearDown() override
    {
        EXPECT_TRUE(resources_fall_to(before));
        std::printf(
            "KESTRUNE_SEED=%u: %lu files, %lu packets, %lu rules announced; %lu windows between history and "
            "live capture\n",
            seed, tally.files, tally.packets, tally.announced, tally.windows);
    }
    const std::pair<long, long> before = resources();
    const uint32_t seed = setting("KESTRUNE_SEED", std::random_device()() % 1000000);
    tally_t tally = {};
};

// Rules added while their packets come as fast as they can: each packet is in exactly one of the files.
TEST_F(Oracle, NoPacketIsBetweenHistoryAndLiveCapture)
{
    const uint32_t windows = setting("KESTRUNE_WINDOWS", LONG ? 20000 : 500);
    for (uint32_t life = seed; tally.windows < windows; life++) {
        options_t options = {.queues = 1U << life % 3, .ring = life / 3 % 2 == 0 ? 100U << 10 : 64U << 20};
        options.windows = std::min(windows / 6, 500U) / options.queues / CLIENTS + 1;
        options.seed = life;
        live({}, options, &tally);
    }
}

TEST_F(Oracle, EveryFileHoldsWhatItsPacketsSay)
{
    const uint32_t lives = setting("KESTRUNE_LIVES", LONG ? 400 : 20);
    for (uint32_t i = 0; i < lives && !HasFailure(); i++) {
        options_t options = {.seed = seed + i};
        std::minstd_rand random(options.seed + 1);
        const auto pick = [&](uint32_t choices) { return static_cast<uint32_t>(random() >> 4) % choices; };
        options.queues = 1 + pick(QUEUES);
        options.ring = pick(4) == 0 ? 0 : pick(2) == 0 ? 100U << 10 : 4U << 20;
        options.toggles = pick(3) == 0;
        options.run_ms = pick(4) == 0 ? pick(50) : 200 + pick(200);
        options.finishes = pick(2) == 0;
        options.script = pick(3) == 0 ? "exit 0" : pick(2) == 0 && !options.finishes ? "sleep 1000" : nullptr;
        live({}, options, &tally);
    }
    EXPECT_TRUE(lives < 20 || tally.announced > 2 * lives) << "too little happened";
}

// The built plugin, loaded, stopped at any moment and unloaded over and over.
TEST_F(Oracle, NothingRemainsOfTwoHundredLives)
{
    const auto resident_pages = [] {
        long pages = 0;
        std::ifstream("/proc/self/statm") >> pages >> pages; // the second number
        return pages;
    };
    size_t allocated = 0;
    long resident = 0;
    for (uint32_t i = 0; i < 200 && !HasFailure(); i++) {
        if (i == 20) { // by now the C library has taken what it keeps
            allocated = mallinfo2().uordblks;
            resident = resident_pages();
        }
        void *library = dlopen(LIBRARY, RTLD_NOW | RTLD_LOCAL);
        ASSERT_NE(library, nullptr) << dlerror();
        const auto find = [library]<class Function>(Function, const char *name) {
            return reinterpret_cast<Function>(dlsym(library, name));
        };
        entry_points_t entry;
        entry = {find(entry.init, "plugin_process_init"), find(entry.init_queue, "plugin_process_init_queue"),
                 find(entry.update, "plugin_process_update"), find(entry.stop, "plugin_process_shutdown")};
        options_t options = {.queues = 2, .toggles = i % 8 == 0, .finishes = false, .seed = seed + i};
        options.ring = i % 4 != 3 ? 4U << 20 : 0;
        options.run_ms = i % 10;
        live(entry, options, &tally);
        dlclose(library);
        ASSERT_EQ(dlopen(LIBRARY, RTLD_NOW | RTLD_NOLOAD), nullptr) << "still loaded";
    }
    EXPECT_EQ(file_bytes("/proc/self/maps").find("kestrune.so"), std::string::npos);
    if (!SANITIZED) { // there the leak detection speaks, and freed memory is kept aside
        EXPECT_LT(mallinfo2().uordblks, allocated + 16384);
        EXPECT_LT(resident_pages(), resident + 1024);
    }
}

} // namespace
