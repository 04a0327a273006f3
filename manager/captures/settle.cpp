// What follows a commit: requests to the probes, events, answers.
#include "captures/cover.h"
#include "captures/life.h"
#include "common/clock.h"

#include <algorithm>
#include <iterator>
#include <utility>

namespace kestrune::manager {

namespace {

// A batch's order: first what makes room, last what tells what came of the rest.
int rank(ask_kind_t kind)
{
    constexpr int RANKS[] = {1, 0, 2, 3}; // by ask_kind_t
    return RANKS[static_cast<size_t>(kind)];
}

} // namespace

effects_t life_t::settle()
{
    effects_t effects;
    settle_entries(&effects);
    settle_answers(&effects);
    settle_polls();
    settle_asks(&effects);
    effects.jobs = std::move(notes_.jobs);
    for (std::string &probe : looks_) {
        effects.jobs.emplace_back(look_job_t{std::move(probe)});
    }
    looks_.clear();
    effects.alarms = std::move(notes_.alarms);
    effects.log = std::move(notes_.log);
    for (const uint64_t tag : used_tags_) {
        askers_.erase(tag);
    }
    const std::vector<ulid_t> touched = book_.touched();
    book_.keep();
    for (const ulid_t &id : touched) {
        const entry_t *entry = book_.find(id);
        if (entry != nullptr && is_settled(*entry)) {
            book_.drop(id);
        }
    }
    return effects;
}

bool life_t::is_settled(const entry_t &entry) const
{
    const capture_t &capture = entry.capture;
    if (capture.state == capture_state_t::DELETED) {
        return capture.deleted->files_gone;
    }
    return may_go(capture) && entry.sealing == sealing_t::NONE;
}

void life_t::settle_entries(effects_t *effects)
{
    for (const ulid_t &id : book_.marked_ids()) {
        entry_t *entry = book_.find(id);
        const bool is_progress = entry->told_state == entry->capture.state && entry->told_at != 0;
        if (is_progress && now_.mono < entry->told_at + POLL_NS * 9 / 10) {
            continue; // the next one tells
        }
        entry->told_at = now_.mono;
        entry->told_state = entry->capture.state;
        effects->events.emplace_back(event_of(entry->capture));
    }
}

void life_t::settle_answers(effects_t *effects)
{
    for (pending_t &pending : pending_) {
        pending.reply.captures = captures_of(pending.ids);
        effects->answers.emplace_back(std::move(pending.done), std::move(pending.reply));
    }
    pending_.clear();
    std::move(new_waiters_.begin(), new_waiters_.end(), std::back_inserter(waiters_));
    new_waiters_.clear();
    answer_waiters(effects);
}

void life_t::answer_waiters(effects_t *effects)
{
    const auto waits_for = [this](const ulid_t &id) {
        const entry_t *entry = book_.find(id);
        for (size_t i = 0; entry != nullptr && i < entry->runs.size(); ++i) {
            if (entry->capture.parts[i].state == part_state_t::REQUESTED &&
                entry->runs[i].phase != phase_t::WAITING) {
                return true;
            }
        }
        return false;
    };
    std::erase_if(waiters_, [&](waiter_t &waiter) {
        if (now_.mono < waiter.until && std::any_of(waiter.ids.begin(), waiter.ids.end(), waits_for)) {
            return false;
        }
        reply_t reply{waiter.created ? result_t::CREATED : result_t::OK, {}, {}, captures_of(waiter.ids)};
        effects->answers.emplace_back(std::move(waiter.done), std::move(reply));
        return true;
    });
}

std::vector<capture_t> life_t::captures_of(const std::vector<ulid_t> &ids)
{
    std::vector<ulid_t> elsewhere;
    for (const ulid_t &id : ids) {
        if (book_.find(id) == nullptr) {
            elsewhere.push_back(id);
        }
    }
    std::vector<capture_t> found;
    if (!elsewhere.empty()) {
        try {
            found = neighbours_.catalogue->find_all(elsewhere);
        } catch (const catalogue_error_t &) { // what was asked for is done; the answer lacks them
        }
    }
    std::vector<capture_t> captures;
    for (const ulid_t &id : ids) {
        const entry_t *entry = book_.find(id);
        const auto same =
            std::find_if(found.begin(), found.end(), [&](const capture_t &c) { return c.id == id; });
        if (entry != nullptr) {
            captures.push_back(entry->capture);
        } else if (same != found.end()) {
            captures.push_back(std::move(*same));
        }
    }
    return captures;
}

void life_t::settle_asks(effects_t *effects)
{
    for (auto &[probe, asks] : notes_.asks) {
        std::stable_sort(asks.begin(), asks.end(), [](const asked_t &a, const asked_t &b) {
            return rank(a.ask.kind) < rank(b.ask.kind);
        });
        batch_t batch;
        bool list = false;
        for (asked_t &asked : asks) {
            asked.ask.tag = ++last_tag_;
            askers_[last_tag_] = std::move(asked.asker);
            list = list || asked.ask.kind == ask_kind_t::ADD || asked.ask.kind == ask_kind_t::REMOVE;
            batch.push_back(std::move(asked.ask));
        }
        if (list) {
            batch.emplace_back(); // a LIST, which says what came of it
        }
        effects->batches.emplace_back(probe, std::move(batch));
    }
    notes_.asks.clear();
}

void life_t::undo()
{
    pending_.clear();
    new_waiters_.clear();
    used_tags_.clear();
    book_.undo();
}

effects_t life_t::give_up()
{
    effects_t effects;
    for (waiter_t &waiter : waiters_) {
        waiter.until = 0;
    }
    answer_waiters(&effects);
    return effects;
}

// DETAIL for running parts, in turn, and for rules that nothing explains. No change that a commit must precede.
void life_t::settle_polls()
{
    for (auto &[name, track] : tracks_) {
        if (track.session == 0 || track.polls_out != 0 || now_.mono < track.polled_at + POLL_NS) {
            continue;
        }
        track.polled_at = now_.mono;
        auto &asks = notes_.asks[name];
        const size_t before = asks.size();
        const auto &entries = book_.entries();
        auto next = entries.upper_bound(track.polled);
        for (size_t seen = 0; seen < entries.size() && asks.size() < before + POLL_MOST; ++seen, ++next) {
            next = next == entries.end() ? entries.begin() : next;
            poll(name, next->second.get(), &asks);
            track.polled = next->first;
        }
        while (!track.to_ask.empty() && asks.size() < before + POLL_MOST) {
            ask_t ask;
            ask.kind = ask_kind_t::DETAIL;
            ask.addr = track.to_ask.back();
            asks.push_back({ask, {std::nullopt, name, ask.addr, true}});
            track.to_ask.pop_back();
        }
        track.polls_out = asks.size() - before;
        if (asks.empty()) {
            notes_.asks.erase(name);
        }
    }
}

void life_t::poll(const std::string &probe, entry_t *entry, std::vector<asked_t> *asks)
{
    const capture_t &capture = entry->capture;
    for (size_t i = 0; i < entry->runs.size(); ++i) {
        run_t &run = entry->runs[i];
        if (capture.parts[i].probe == probe && capture.parts[i].state == part_state_t::RECORDING &&
            run.phase == phase_t::STANDS && !run.detail_out && run.live_over_at == 0) {
            run.detail_out = true;
            ask_t ask;
            ask.kind = ask_kind_t::DETAIL;
            ask.addr = capture.addr;
            asks->push_back({ask, {capture.id, probe, capture.addr, true}});
        }
    }
}

} // namespace kestrune::manager
