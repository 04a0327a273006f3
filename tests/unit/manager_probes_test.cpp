// The manager's sessions with probes, against a fake probe that fails in any message; the log of events; what is
// measured. Real probes are asked where the manager is driven as a program.
#include "probes/probes.h"

#include "client/error.h"
#include "probes/metrics.h"
#include "probes/series.h"
#include "support/local_server.h"

#include <atomic>
#include <condition_variable>
#include <future>

namespace {

using namespace kestrune;
using namespace kestrune::manager;
using namespace std::chrono_literals;
using bytes_t = std::vector<uint8_t>;

ip_addr_t addr(uint8_t last)
{
    return {{0xFF, 0xFF, 0xFF, 0xFF, last, 0, 0, 10}};
}

template <typename... T>
bytes_t message(uint8_t code, const T &...parts)
{
    bytes_t bytes(512);
    msg_writer_t out = msg_writer(bytes.data(), 512);
    EXPECT_TRUE(msg_encode(&out, msg_answer(code)) && (true && ... && msg_encode(&out, parts)));
    bytes.resize(out.used);
    return bytes;
}

enum class trouble_t { NONE, CLOSE, CUT, LIE, HANG, FLOOD };

// Answers as a probe does: ADD always, DETAIL for an odd address, an empty LIST.
class fake_probe_t {
public:
    fake_probe_t() : server_([this](int fd) { talk(fd); }) {}
    probe_settings_t settings(const std::string &name) const { return {name, server_.endpoint, "", {}, ""}; }
    // The next request of this action (any: 0xFF) meets the trouble; with `always` all later ones too.
    void arm(uint8_t action, trouble_t trouble, bool always = false)
    {
        action_ = action;
        always_ = always;
        trouble_ = trouble;
    }
    std::atomic<uint64_t> changes = 0; // of the history

private:
    static bool get(int fd, void *room, size_t size)
    {
        return recv(fd, room, size, MSG_WAITALL) == static_cast<ssize_t>(size);
    }

    void talk(int fd)
    {
        uint8_t header[4];
        uint8_t payload[512];
        while (get(fd, header, 4)) {
            const uint8_t action = header[2];
            const bool valued = (action == msg_action::HISTORY && header[3] == msg_target::ON) ||
                                action == msg_action::REQ_HS;
            const size_t size = action == msg_action::ADD                                      ? MSG_ADD_SIZE
                                : action == msg_action::REMOVE || action == msg_action::DETAIL ? MSG_ADDR_SIZE
                                : valued ? MSG_VALUE_SIZE
                                         : 0;
            if ((size > 0 && !get(fd, payload, size)) ||
                (action == msg_action::ADD && !get(fd, payload + size, payload[size - 1]))) {
                return;
            }
            trouble_t trouble = trouble_t::NONE;
            if (action_ == action || action_ == 0xFF) {
                trouble = always_ ? trouble_.load() : trouble_.exchange(trouble_t::NONE);
            }
            if (!answer(fd, trouble, reply(header, payload))) {
                return;
            }
        }
    }

    static bool answer(int fd, trouble_t trouble, const bytes_t &reply)
    {
        const bytes_t bytes = trouble == trouble_t::LIE ? bytes_t{0, 9, 99, 0} : reply;
        const size_t size = trouble == trouble_t::CLOSE || trouble == trouble_t::HANG ? 0
                            : trouble == trouble_t::CUT                               ? bytes.size() / 2
                                                                                      : bytes.size();
        send(fd, bytes.data(), size, MSG_NOSIGNAL);
        const bytes_t update = message(msg_code::UPDATE, msg_update_incident_t{1, addr(1)});
        while (trouble == trouble_t::FLOOD && send(fd, update.data(), update.size(), MSG_NOSIGNAL) > 0) {
        }
        uint8_t more = 0;
        while (trouble == trouble_t::HANG && get(fd, &more, 1)) {
        }
        return trouble == trouble_t::NONE || trouble == trouble_t::LIE;
    }

    bytes_t reply(const uint8_t header[4], const uint8_t *payload)
    {
        switch (header[2]) {
        case msg_action::LIST:
            return {0, 9, msg_code::IP_LIST, 0, 0, 0, 0, 0};
        case msg_action::DETAIL:
            return payload[4] % 2 == 1 ? message(msg_code::IP_DETAIL,
                                                 msg_ip_detail_t{addr(payload[4]), BOTH, 0, 1, 2, 3, 4, 0})
                                       : message(msg_code::FAIL);
        case msg_action::HISTORY:
            if (header[3] != msg_target::INFO) {
                changes++;
                ring_ = header[3] == msg_target::ON ? uint64_t{payload[0]} << 20 : 0;
                return message(msg_code::SUCCESS);
            }
            return message(msg_code::HB_INFO, msg_hb_info_t{1, 2, 3, 3, 3, 0, 20, ring_, 0});
        default:
            return message(msg_code::SUCCESS);
        }
    }

    std::atomic<uint8_t> action_ = 0;
    std::atomic<trouble_t> trouble_ = trouble_t::NONE;
    std::atomic<bool> always_ = false;
    std::atomic<uint64_t> ring_ = 0; // bytes
    local_server_t server_;
};

// Keeps what the sink is told, and waits for it.
class watched_t {
public:
    watched_t()
        : events(7), probes(make_probes([this](observation_t seen) { take(std::move(seen)); }, &events))
    {
    }
    ~watched_t() { probes->stop(); }

    // Waits until so many of this kind, of this probe, came after the last call of forget.
    template <typename T>
    std::vector<T> wait(const std::string &probe, size_t count)
    {
        std::unique_lock held(lock_);
        std::vector<T> found;
        news_.wait_for(held, 20s, [&] {
            found.clear();
            for (const observation_t &one : seen_) {
                if (const T *of = std::get_if<T>(&one); of != nullptr && of->probe == probe) {
                    found.push_back(*of);
                }
            }
            return found.size() >= count;
        });
        EXPECT_GE(found.size(), count) << probe;
        return found;
    }
    std::vector<answer_t> wait_answers(const std::string &probe, size_t count)
    {
        std::vector<answer_t> answers;
        for (size_t runs = 1; answers.size() < count && !::testing::Test::HasFailure(); runs++) {
            answers.clear();
            for (answers_t &run : wait<answers_t>(probe, runs)) {
                answers.insert(answers.end(), run.answers.begin(), run.answers.end());
            }
        }
        return answers;
    }
    void forget()
    {
        const std::lock_guard held(lock_);
        seen_.clear();
    }
    bool wait_state(const std::string &probe, probe_state_t state) const
    {
        const auto end = std::chrono::steady_clock::now() + 20s;
        while (probes->view(probe)->state != state && std::chrono::steady_clock::now() < end) {
            std::this_thread::sleep_for(5ms);
        }
        return probes->view(probe)->state == state;
    }

    events_t events;
    std::atomic<size_t> updates = 0; // told so far

private:
    void take(observation_t seen)
    {
        if (std::holds_alternative<updated_t>(seen)) {
            updates++;
            return;
        }
        const std::lock_guard held(lock_);
        seen_.push_back(std::move(seen));
        news_.notify_all();
    }
    std::mutex lock_;
    std::condition_variable news_;
    std::vector<observation_t> seen_;

public:
    std::unique_ptr<probes_t> probes; // ends before what its sink needs
};

const batch_t BATCH = {
    {ask_kind_t::ADD, 0, addr(1), BOTH, {1, 1}, "a"}, {ask_kind_t::ADD, 1, addr(2), BOTH, {1, 1}, "b"},
    {ask_kind_t::DETAIL, 2, addr(1), BOTH, {}, ""},   {ask_kind_t::DETAIL, 3, addr(2), BOTH, {}, ""},
    {ask_kind_t::REMOVE, 4, addr(2), BOTH, {}, ""},   {ask_kind_t::LIST, 5, {}, BOTH, {}, ""}};

std::string outcomes(const std::vector<answer_t> &answers)
{
    std::string text;
    for (size_t i = 0; i < answers.size(); i++) {
        EXPECT_EQ(answers[i].tag, i % BATCH.size());
        text += "drln"[static_cast<size_t>(answers[i].outcome)];
    }
    return text;
}

TEST(Probes, EachAskHasOneAnswerInOrderWhateverTheProbeDoesAndAnotherProbeGoesOn)
{
    const std::pair<uint8_t, std::string> cases[] = {
        {msg_action::INFO, "dddrdd"}, // once registered it is not asked
        {msg_action::ADD, "llnnnn"},
        {msg_action::DETAIL, "ddllnn"},
        {msg_action::REMOVE, "dddrln"},
        {msg_action::LIST, "dddrdl"}};
    fake_probe_t good;
    for (const auto &[action, expected] : cases) {
        for (const trouble_t trouble : {trouble_t::CLOSE, trouble_t::CUT, trouble_t::LIE}) {
            SCOPED_TRACE(std::to_string(action) + " " + std::to_string(static_cast<int>(trouble)));
            fake_probe_t bad;
            watched_t watched;
            watched.probes->configure({bad.settings("bad"), good.settings("good")}, 0);
            watched.wait<listed_t>("bad", 1);
            watched.wait<session_began_t>("bad", 2);
            watched.forget();
            bad.arm(action, trouble);
            watched.probes->submit("bad", BATCH);
            watched.probes->submit("good", BATCH);
            EXPECT_EQ(outcomes(watched.wait_answers("bad", 6)), expected);
            EXPECT_EQ(outcomes(watched.wait_answers("good", 6)), "dddrdd");
            if (action != msg_action::INFO) {
                EXPECT_EQ(watched.wait<session_ended_t>("bad", 1)[0].updates, false);
                EXPECT_GT(watched.wait<session_began_t>("bad", 1)[0].session, 4U);
            }
        }
    }
}

TEST(Probes, OneThatHangsHoldsUpNeitherAnotherNorTheStop)
{
    fake_probe_t hanging;
    fake_probe_t good;
    watched_t watched;
    watched.probes->configure({hanging.settings("hanging"), good.settings("good")}, 0);
    watched.wait<listed_t>("hanging", 1);
    watched.wait<listed_t>("good", 1);
    const auto start = std::chrono::steady_clock::now();
    hanging.arm(msg_action::ADD, trouble_t::HANG);
    watched.probes->submit("hanging", BATCH);
    watched.probes->submit("hanging", BATCH);
    watched.probes->submit("good", BATCH);
    EXPECT_EQ(outcomes(watched.wait_answers("good", 6)), "dddrdd");
    watched.probes->configure({good.settings("good")}, 0);
    EXPECT_EQ(outcomes(watched.wait_answers("hanging", 12)), "llnnnnnnnnnn");
    EXPECT_LT(std::chrono::steady_clock::now() - start, 5s);
    EXPECT_FALSE(watched.probes->view("hanging"));
}

TEST(Probes, ThoseThatAreNotThereOrSpeakAnotherVersionAreShownAndAnswerAtOnce)
{
    fake_probe_t old;
    fake_probe_t wrong;
    old.arm(0xFF, trouble_t::CLOSE, true); // as a plugin of another version does
    wrong.arm(0xFF, trouble_t::LIE, true);
    probe_settings_t nobody = old.settings("nobody");
    nobody.endpoint = fake_probe_t().settings("").endpoint;
    watched_t watched;
    watched.probes->configure({old.settings("old"), wrong.settings("wrong"), nobody}, 0);
    EXPECT_TRUE(watched.wait_state("old", probe_state_t::INCOMPATIBLE));
    EXPECT_TRUE(watched.wait<session_ended_t>("nobody", 1)[0].refused);
    EXPECT_FALSE(watched.wait<session_ended_t>("wrong", 1)[0].refused);
    for (const char *probe : {"old", "wrong", "nobody", "unknown"}) {
        watched.probes->submit(probe, BATCH);
        EXPECT_EQ(outcomes(watched.wait_answers(probe, 6)), "nnnnnn");
    }
    std::string refusal;
    watched.probes->change("nobody", heavy_change_t{1}, [&](std::string text) { refusal = std::move(text); });
    EXPECT_NE(refusal, "");
    EXPECT_EQ(watched.events.alarms().size(), 3U);
    watched.probes->configure({}, 0);
    EXPECT_EQ(watched.events.alarms().size(), 0U);
}

TEST(Probes, UpdatesWithoutEndEndTheirSessionAndNothingElse)
{
    fake_probe_t probe;
    probe.arm(msg_action::INFO, trouble_t::FLOOD);
    watched_t watched;
    watched.probes->configure({probe.settings("p")}, 0);
    EXPECT_TRUE(watched.wait<session_ended_t>("p", 1)[0].updates);
    EXPECT_TRUE(watched.updates > 10'000 && watched.updates < 500'000);
    EXPECT_EQ(watched.wait<session_began_t>("p", 3).back().updates, true); // anew
    EXPECT_EQ(watched.probes->view("p")->state, probe_state_t::UP);
}

TEST(Probes, TheHistoryIsChangedOnlyWhenItsSizeIsAnother)
{
    fake_probe_t probe;
    watched_t watched;
    watched.probes->configure({probe.settings("p")}, 60);
    watched.wait<listed_t>("p", 1);
    const std::tuple<history_change_t, uint64_t, uint64_t> cases[] = {// MiB afterwards, requests besides INFO
                                                                      {{true, 3}, 3, 1},
                                                                      {{true, 3}, 3, 0},
                                                                      {{true, 5}, 5, 2},
                                                                      {{false, 0}, 0, 1},
                                                                      {{false, 0}, 0, 0}};
    for (const auto &[change, size, requests] : cases) {
        std::promise<std::string> done;
        const uint64_t before = probe.changes;
        watched.probes->change("p", change, [&](std::string text) { done.set_value(std::move(text)); });
        EXPECT_EQ(done.get_future().get(), "");
        EXPECT_EQ(watched.probes->view("p")->history->size_bytes, size << 20);
        EXPECT_EQ(probe.changes - before, requests);
        EXPECT_EQ(watched.events.alarms().size(), size > 0 ? 1U : 0U); // a reach of 3 s
    }
}

TEST(Events, TheLastTenThousandAreKeptAndWhatIsNoLongerThereIsSaid)
{
    events_t events(1);
    EXPECT_FALSE(events.after(0, 10).reset);
    EXPECT_TRUE(events.after(1, 10).reset);
    for (size_t i = 0; i < EVENTS_KEPT + 5; i++) {
        events.publish(alarm_t{});
    }
    EXPECT_TRUE(events.after(4, 10).reset);
    const missed_events_t most = events.after(5, EVENTS_KEPT);
    EXPECT_TRUE(!most.reset && most.events.size() == EVENTS_KEPT && most.events.front()->number == 6);
    EXPECT_EQ(events.after(5, 10).events.back()->number, 15U);
    EXPECT_TRUE(events.after(events.last(), 10).events.empty());
    events.raise("a", "p", severity_t::ERROR, "text", 1);
    events.raise("a", "p", severity_t::ERROR, "text", 2); // nothing new
    events.raise("a", "p", severity_t::ERROR, "other", 3);
    EXPECT_EQ(events.alarms().at(0).since, 1U);
    events.end("a", 4);
    events.end("a", 5);
    const missed_events_t news = events.after(EVENTS_KEPT + 5, 10);
    ASSERT_EQ(news.events.size(), 3U);
    EXPECT_EQ(std::get<alarm_t>(news.events.back()->body).ended_at, 4U);
}

TEST(Series, StepsAreSummedUpAndADayIsKept)
{
    series_ring_t ring;
    constexpr int64_t START = 1'700'000'000;
    ring.add_reach(START, 10, 5, 20);
    ring.add_reach(START + 9, 20, 6, 30);
    ring.add_rates(START + 5, 1000, 10, 5);
    ring.add_rates(START + 9, 3000, 0, 5);
    ring.add_reach(START + 20, 45, 40, 50);
    const series_point_t step = ring.read(START, START + 10);
    EXPECT_TRUE(step.reach_avg_s == 15 && step.reach_min_s == 5 && step.reach_max_s == 30);
    EXPECT_TRUE(step.packets_per_s == 400 && step.drops_per_s == 1);
    EXPECT_FALSE(ring.read(START + 10, START + 20).reach_avg_s); // not measured
    const series_point_t all = ring.read(START, START + 30);
    EXPECT_TRUE(all.reach_avg_s == 30 && all.reach_min_s == 5 && all.reach_max_s == 50 &&
                all.packets_per_s == 400);
    ring.add_rates(START + 24 * 3600, 1, 1, 1); // into the slot of the first step
    EXPECT_FALSE(ring.read(START, START + 10).reach_avg_s);
    EXPECT_FALSE(ring.read(START + 24 * 3600, START + 24 * 3600 + 10).reach_avg_s);
}

TEST(Metrics, AreReadFromAnyOrderOfLinesAndLabelsAndNonsenseIsRefused)
{
    const std::string rest = "kestrune_probe_kernel_dropped_packets_total 3\n"
                             "kestrune_probe_interface_dropped_packets_total 4\n";
    const std::pair<std::string, uint64_t> cases[] = {
        {rest + "kestrune_probe_read_packets_total{queue=\"0\"} "
                "5\nkestrune_probe_read_packets_total{queue=\"1\"} 7",
         12},
        {"# HELP kestrune_probe_read_packets_total x 9\r\nkestrune_probe_read_packets_total 5\r\n" + rest, 5},
        {"kestrune_probe_read_packets_total{a=\"} \\\" 8\"} 6 1700000000\n" + rest, 6},
        {"kestrune_probe_read_packets_totals 9\nkestrune_probe_read_packets_total 1e3\n" + rest, 1000}};
    for (const auto &[text, packets] : cases) {
        const probe_counters_t counters = parse_metrics(text);
        EXPECT_TRUE(counters.packets == packets && counters.kernel_drops == 3 &&
                    counters.interface_drops == 4)
            << text;
    }
    for (const char *value : {"", " ", " x", " -1", " nan", " inf", " 1e300", "{a=\"} 1", " 1x", "{"}) {
        EXPECT_THROW(parse_metrics(rest + "kestrune_probe_read_packets_total" + value), client_error_t)
            << value;
    }
    EXPECT_THROW(parse_metrics(rest), client_error_t);
}

TEST(Metrics, AreFetchedWithinTimeAndSize)
{
    const std::string head = "HTTP/1.1 200 OK\r\n";
    const std::string mega(METRICS_SIZE_MAX, 'a');
    const std::tuple<std::string, bool, std::optional<failure_t>> cases[] = {
        // the server hangs up behind it
        {head + "Content-Length: 2\r\n\r\nab", false, {}},
        {head + "\r\nab", true, {}},
        {head + "content-length: 3\r\n\r\nab", true, failure_t::CLOSED},
        {head + "\r\nab", false, failure_t::TIMEOUT},
        {head, true, failure_t::CLOSED},
        {"", false, failure_t::TIMEOUT},
        {"HTTP/1.1 404 Not Found\r\nContent-Length: 0\r\n\r\n", false, failure_t::MALFORMED},
        {"HTTP/1.\r\n\r\n", true, failure_t::MALFORMED},
        {head + "Content-Length: 99999999999\r\n\r\n", false, failure_t::MALFORMED},
        {head + "\r\n" + mega, false, failure_t::MALFORMED},
        {mega + mega, false, failure_t::MALFORMED}};
    for (const auto &[bytes, hang_up, failure] : cases) {
        const local_server_t server([&bytes = bytes, &hang_up = hang_up](int fd) {
            char room[1024];
            if (recv(fd, room, sizeof room, 0) > 0) {
                send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL);
            }
            while (!hang_up && recv(fd, room, sizeof room, 0) > 0) {
            }
        });
        std::optional<failure_t> found;
        std::string body = "ab";
        try {
            body = fetch_metrics(server.endpoint, "/metrics", std::chrono::steady_clock::now() + 300ms,
                                 NO_INTERRUPT);
        } catch (const client_error_t &error) {
            found = error.failure();
        }
        EXPECT_TRUE(found == failure && body == "ab") << bytes.substr(0, 80);
    }
}

} // namespace
