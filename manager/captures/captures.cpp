// The captures thread: turns of life_t, with a commit each.
#include "captures/captures.h"

#include "captures/keeper.h"
#include "captures/life.h"
#include "common/clock.h"
#include "model/lock.h"
#include "model/log.h"

#include <algorithm>
#include <chrono>
#include <deque>
#include <set>
#include <thread>
#include <utility>

namespace kestrune::manager {

namespace {

constexpr std::chrono::milliseconds TICK{50}; // while captures run
constexpr std::chrono::milliseconds IDLE{1000};
constexpr size_t RETAINED_MAX = 100'000; // observations, while the catalogue cannot be written

// What the queue holds. A command brings its own answer, which is given when it cannot be carried out.
struct command_t {
    std::function<void(life_t *, done_t)> run;
    done_t done;
};
struct settings_note_t {
    settings_t settings;
};
using item_t = std::variant<command_t, observation_t, keeper_result_t, audit_t, settings_note_t>;

now_t now()
{
    return {wall_now_ns(), monotonic_now_ns()};
}

class captures_thread_t : public captures_t {
public:
    captures_thread_t(settings_t settings, const neighbours_t &neighbours)
        : settings_(std::move(settings)), neighbours_(neighbours), life_(settings_, neighbours),
          keeper_(neighbours.archive, neighbours.catalogue,
                  [this](keeper_result_t result) { kept(std::move(result)); })
    {
    }
    ~captures_thread_t() override { stop(); }

    void start() override;
    void reload(const settings_t &settings) override;
    void stop() override;
    void observe(observation_t observation) override { push(std::move(observation)); }

    void record(capture_request_t request, caller_t caller, request_key_t key, done_t done) override
    {
        command(std::move(done),
                [request = std::move(request), caller = std::move(caller), key = std::move(key)](
                    life_t *life, done_t answer) { life->record(request, caller, key, answer); });
    }
    void stop_capture(const ulid_t &id, caller_t caller, done_t done) override
    {
        command(std::move(done), [id, caller = std::move(caller)](life_t *life, done_t answer) {
            life->stop(id, caller, answer);
        });
    }
    void hold(const ulid_t &id, bool on, std::string why, caller_t caller, done_t done) override
    {
        command(std::move(done),
                [id, on, why = std::move(why), caller = std::move(caller)](life_t *life, done_t answer) {
                    life->hold(id, on, why, caller, answer);
                });
    }
    void erase(const ulid_t &id, caller_t caller, done_t done) override
    {
        command(std::move(done), [id, caller = std::move(caller)](life_t *life, done_t answer) {
            life->erase(id, caller, answer);
        });
    }
    void lookup(const ip_addr_t &addr, std::vector<std::string> probes, caller_t caller, done_t done) override
    {
        command(std::move(done),
                [addr, probes = std::move(probes), caller = std::move(caller)](life_t *life, done_t answer) {
                    life->lookup(addr, probes, caller, answer);
                });
    }
    void keep_lookup(const ulid_t &id, caller_t caller, done_t done) override
    {
        command(std::move(done), [id, caller = std::move(caller)](life_t *life, done_t answer) {
            life->keep_lookup(id, caller, answer);
        });
    }
    void drop_lookup(const ulid_t &id, caller_t caller, done_t done) override
    {
        command(std::move(done), [id, caller = std::move(caller)](life_t *life, done_t answer) {
            life->drop_lookup(id, caller, answer);
        });
    }
    void audit(audit_t row) override
    {
        row.at = row.at != 0 ? row.at : wall_now_ns();
        push(std::move(row));
    }

    captures_stats_t stats() const override
    {
        const hold_lock_t held(view_lock_);
        return stats_;
    }
    archive_view_t archive_view() const override
    {
        const hold_lock_t held(view_lock_);
        return room_;
    }

private:
    void command(done_t done, std::function<void(life_t *, done_t)> run)
    {
        push(command_t{std::move(run), std::move(done)});
    }
    void push(item_t item);
    void kept(keeper_result_t result);
    void run();
    bool take(std::vector<item_t> *items); // false: stop
    void turn(std::vector<item_t> items);
    void apply(item_t *item);
    void commit();
    void failed(std::vector<item_t> items, const catalogue_error_t &error);
    void shorten();
    void carry_out(effects_t effects);

    settings_t settings_;
    neighbours_t neighbours_;
    life_t life_;
    keeper_t keeper_;
    std::thread thread_;

    lock_t queue_lock_;
    condition_t work_;
    std::vector<item_t> queue_ KS_GUARDED_BY(queue_lock_);
    bool stopped_ KS_GUARDED_BY(queue_lock_) = false;

    mutable lock_t view_lock_;
    captures_stats_t stats_ KS_GUARDED_BY(view_lock_);
    archive_view_t room_ KS_GUARDED_BY(view_lock_);

    // The thread's own.
    std::vector<item_t> retained_; // observations of turns that were undone
    bool is_writable_ = true;
};

void captures_thread_t::start()
{
    life_.configure(settings_, now());
    std::vector<capture_t> unfinished = neighbours_.catalogue->unfinished();
    life_.begin(now());
    life_.rebuild(std::move(unfinished));
    neighbours_.catalogue->commit(life_.changes(), life_.durability());
    carry_out(life_.settle());
    {
        const hold_lock_t held(view_lock_);
        stats_.ready = true;
        stats_.turned_at = monotonic_now_ns();
    }
    keeper_.start(settings_);
    thread_ = std::thread([this] { run(); });
}

void captures_thread_t::reload(const settings_t &settings)
{
    keeper_.reload(settings);
    push(settings_note_t{settings});
}

void captures_thread_t::stop()
{
    if (!thread_.joinable()) {
        return;
    }
    keeper_.stop(); // its last results are still taken
    {
        const hold_lock_t held(queue_lock_);
        stopped_ = true;
        work_.notify_one();
    }
    thread_.join();
}

void captures_thread_t::push(item_t item)
{
    {
        const hold_lock_t held(queue_lock_);
        if (!stopped_) {
            queue_.push_back(std::move(item));
            work_.notify_one();
            return;
        }
    }
    if (auto *late = std::get_if<command_t>(&item)) {
        late->done({result_t::BROKEN, "the manager stops", {}, {}});
    }
}

void captures_thread_t::kept(keeper_result_t result)
{
    {
        const hold_lock_t held(view_lock_);
        if (const auto *room = std::get_if<room_result_t>(&result)) {
            room_ = room->view;
        } else if (const auto *seal = std::get_if<seal_result_t>(&result); seal != nullptr && seal->sealed) {
            size_t bound = 0;
            while (bound < SEALING_BOUNDS_S.size() && seal->seconds > SEALING_BOUNDS_S[bound]) {
                ++bound;
            }
            ++stats_.sealing_counts[bound];
            stats_.sealing_seconds += seal->seconds;
        } else if (seal != nullptr && !seal->early) {
            ++stats_.sealing_failures;
        }
    }
    push(std::move(result));
}

void captures_thread_t::run()
{
    for (bool goes_on = true; goes_on;) {
        std::vector<item_t> items;
        goes_on = take(&items);
        turn(std::move(items));
    }
    carry_out(life_.give_up());
}

bool captures_thread_t::take(std::vector<item_t> *items)
{
    const bool is_busy = !life_.is_idle() && is_writable_;
    const auto until = std::chrono::steady_clock::now() + (is_busy ? TICK : IDLE);
    const hold_lock_t held(queue_lock_);
    while (queue_.empty() && !stopped_ && work_.wait_until(queue_lock_, until)) {
    }
    items->swap(queue_);
    return !stopped_;
}

void captures_thread_t::turn(std::vector<item_t> items)
{
    std::vector<item_t> all = std::exchange(retained_, {});
    std::move(items.begin(), items.end(), std::back_inserter(all));
    life_.begin(now());
    try {
        for (item_t &item : all) {
            apply(&item);
        }
        life_.tick();
        commit();
        carry_out(life_.settle());
    } catch (const catalogue_error_t &error) {
        failed(std::move(all), error);
    }
    const hold_lock_t held(view_lock_);
    stats_.turned_at = monotonic_now_ns();
    stats_.catalogue_writable = is_writable_;
}

void captures_thread_t::commit()
{
    const changes_t changes = life_.changes();
    if (changes.empty() && is_writable_) {
        return;
    }
    // One that failed is tried also when nothing waits: who looks at /readyz first would never send a request.
    neighbours_.catalogue->commit(changes, changes.empty() ? durability_t::DURABLE : life_.durability());
    if (!is_writable_) {
        is_writable_ = true;
        neighbours_.events->end("catalogue", wall_now_ns());
        log_info("the catalogue can be written again");
    }
}

// The turn is undone: commands are refused, the rest is applied again later.
void captures_thread_t::failed(std::vector<item_t> items, const catalogue_error_t &error)
{
    life_.undo();
    carry_out(life_.give_up()); // who waits for a part's answer has waited long enough
    if (is_writable_) {
        is_writable_ = false;
        log_error(std::string("the catalogue cannot be written: ") + error.what());
    }
    neighbours_.events->raise("catalogue", "", severity_t::ERROR, error.what(), wall_now_ns());
    const bool is_full = error.failure() == catalogue_failure_t::FULL;
    for (item_t &item : items) {
        if (auto *command = std::get_if<command_t>(&item)) {
            command->done({is_full ? result_t::NO_ROOM : result_t::BROKEN,
                           is_full ? "the disk of the catalogue is full" : "the catalogue cannot be written",
                           {},
                           {}});
        } else {
            retained_.push_back(std::move(item));
        }
    }
    if (retained_.size() > RETAINED_MAX) {
        shorten();
    }
}

// Of the lists only the last one of each probe stays, of the looks at the disk the last, of the rows for the audit none:
// what else has waited so long is not repeated by anybody.
void captures_thread_t::shorten()
{
    std::set<std::string> seen;
    bool is_room_seen = false;
    std::vector<item_t> kept;
    for (auto item = retained_.rbegin(); item != retained_.rend(); ++item) {
        const auto *observation = std::get_if<observation_t>(&*item);
        const auto *list = observation != nullptr ? std::get_if<listed_t>(observation) : nullptr;
        const auto *result = std::get_if<keeper_result_t>(&*item);
        const bool is_room = result != nullptr && std::holds_alternative<room_result_t>(*result);
        const bool is_repeated = (list != nullptr && !seen.insert(list->probe).second) ||
                                 (is_room && std::exchange(is_room_seen, true));
        if (!std::holds_alternative<audit_t>(*item) && !is_repeated) {
            kept.push_back(std::move(*item));
        }
    }
    retained_.assign(std::make_move_iterator(kept.rbegin()), std::make_move_iterator(kept.rend()));
}

void captures_thread_t::carry_out(effects_t effects)
{
    for (auto &[probe, batch] : effects.batches) {
        neighbours_.probes->submit(probe, std::move(batch));
    }
    for (auto &[done, reply] : effects.answers) {
        done(std::move(reply));
    }
    for (event_body_t &event : effects.events) {
        neighbours_.events->publish(std::move(event));
    }
    for (const alarm_note_t &alarm : effects.alarms) {
        if (alarm.text.empty()) {
            neighbours_.events->end(alarm.key, wall_now_ns());
        } else {
            neighbours_.events->raise(alarm.key, alarm.probe, alarm.severity, alarm.text, wall_now_ns());
        }
    }
    for (const std::string &line : effects.log) {
        log_info(line);
    }
    if (!effects.jobs.empty()) {
        keeper_.give(std::move(effects.jobs));
    }
}

void captures_thread_t::apply(item_t *item)
{
    if (auto *command = std::get_if<command_t>(item)) {
        command->run(&life_, command->done);
    } else if (const auto *observation = std::get_if<observation_t>(item)) {
        life_.observe(*observation);
    } else if (const auto *result = std::get_if<keeper_result_t>(item)) {
        life_.kept(*result);
    } else if (const auto *row = std::get_if<audit_t>(item)) {
        life_.audit(*row);
    } else if (const auto *note = std::get_if<settings_note_t>(item)) {
        life_.configure(note->settings, now());
    }
}

} // namespace

std::unique_ptr<captures_t> make_captures(const settings_t &settings, const neighbours_t &neighbours)
{
    return std::make_unique<captures_thread_t>(settings, neighbours);
}

} // namespace kestrune::manager
