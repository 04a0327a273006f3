// How a part begins, what the answers to its requests make of it, and how it ends. part_watch.cpp has the rest.
#include "captures/part_life.h"

#include "common/clock.h"

#include <algorithm>
#include <utility>

namespace kestrune::manager {

namespace {

std::string stop_text(const capture_t &capture)
{
    return capture.stop_why.empty() ? "stopped before it began" : capture.stop_why;
}

// Of the live capture, from what DETAIL says; 100 only when it is over.
uint8_t live_percent(const msg_ip_detail_t &fields)
{
    const auto share = [](uint64_t value, uint64_t limit) { return limit == 0 ? 0 : value * 100 / limit; };
    const uint64_t percent =
        std::max(share(fields.packets, fields.packet_limit), share(fields.elapsed_s, fields.time_limit_s));
    return static_cast<uint8_t>(std::min<uint64_t>(percent, 99));
}

} // namespace

void part_life_t::begin(const now_t &now, notes_t *notes)
{
    now_ = now;
    notes_ = notes;
}

track_t &part_life_t::track_of(const entry_t &entry, size_t part)
{
    return (*tracks_)[entry.capture.parts[part].probe];
}

// What begins a part.

// Also without a session: the probe's requests wait for one that is on its way, and say at once when there is none.
void part_life_t::request(entry_t *entry, size_t part)
{
    send(entry, part);
}

void part_life_t::send(entry_t *entry, size_t part)
{
    book_->mark(*entry);
    notes_->durable = true; // it must not be forgotten that an ADD went out
    part_t &values = entry->capture.parts[part];
    values.sent = true;
    values.sent_at = now_.wall;
    const uint8_t refusals = entry->runs[part].refusals;
    entry->runs[part] = {};
    entry->runs[part].phase = phase_t::SENT;
    entry->runs[part].refusals = refusals;
    ask_part(entry, part, ask_kind_t::ADD);
    if (entry->capture.limits) {
        ask_part(entry, part, ask_kind_t::DETAIL);
    }
}

void part_life_t::ask_part(entry_t *entry, size_t part, ask_kind_t kind)
{
    book_->touch(*entry);
    const capture_t &capture = entry->capture;
    run_t &run = entry->runs[part];
    (kind == ask_kind_t::ADD      ? run.add_out
     : kind == ask_kind_t::REMOVE ? run.remove_out
                                  : run.detail_out) = true;
    ask_t ask;
    ask.kind = kind;
    ask.addr = capture.addr;
    ask.direction = kind == ask_kind_t::REMOVE ? uint8_t{BOTH} : capture.direction;
    ask.limits = capture.limits.value_or(limits_t{});
    ask.name = kind == ask_kind_t::ADD ? entry->name : std::string();
    const std::string &probe = capture.parts[part].probe;
    notes_->asks[probe].push_back({std::move(ask), {capture.id, probe, capture.addr, false}});
}

void part_life_t::renew(entry_t *entry, size_t part)
{
    run_t &run = entry->runs[part];
    if (run.phase == phase_t::SENT || run.phase == phase_t::FIND) {
        book_->touch(*entry);
        run.renew_wanted = true; // once DETAIL has its name
        return;
    }
    if (run.phase != phase_t::STANDS || entry->capture.parts[part].state != part_state_t::RECORDING) {
        return;
    }
    book_->mark(*entry);
    notes_->durable = true;
    entry->capture.parts[part].sent_at = now_.wall;
    ask_part(entry, part, ask_kind_t::ADD);
    ask_part(entry, part, ask_kind_t::DETAIL);
}

void part_life_t::stop(entry_t *entry, size_t part)
{
    run_t &run = entry->runs[part];
    if (run.phase == phase_t::WAITING) {
        fail(entry, part, stop_text(entry->capture));
    } else if (run.phase == phase_t::STANDS && entry->capture.parts[part].state == part_state_t::RECORDING &&
               !run.detail_out) {
        ask_part(entry, part, ask_kind_t::DETAIL); // whose answer sends the REMOVE
    }
}

void part_life_t::resume(entry_t *entry, size_t part)
{
    const part_t &values = entry->capture.parts[part];
    if (is_over(values)) {
        return;
    }
    if (!values.sent) {
        wait_for_address(entry, part);
        return;
    }
    entry->runs[part].lost = true;
    find(entry, part);
}

void part_life_t::revive(entry_t *entry, size_t part)
{
    part_t &values = entry->capture.parts[part];
    if (values.state != part_state_t::FAILED || !values.sent || !values.local) {
        return;
    }
    book_->mark(*entry);
    values.state = part_state_t::FINISHED;
    values.live = entry->capture.limits ? live_t::UNKNOWN : live_t::NONE;
    values.ended_by = ended_by_t::UNKNOWN;
    values.started_at = stood(values) ? values.started_at : values.sent_at;
    values.error = "the probe took the request, but did not answer in time";
    follow(entry);
}

// Answers.

void part_life_t::answered(entry_t *entry, size_t part, uint64_t session, const answer_t &answer)
{
    book_->touch(*entry);
    switch (answer.kind) {
    case ask_kind_t::ADD:
        entry->runs[part].add_out = false;
        add_answered(entry, part, session, answer.outcome);
        break;
    case ask_kind_t::DETAIL:
        entry->runs[part].detail_out = false;
        detail_answered(entry, part, answer);
        break;
    case ask_kind_t::REMOVE:
        entry->runs[part].remove_out = false;
        remove_answered(entry, part, answer.outcome);
        break;
    case ask_kind_t::LIST:
        break;
    }
}

void part_life_t::add_answered(entry_t *entry, size_t part, uint64_t session, outcome_t outcome)
{
    part_t &values = entry->capture.parts[part];
    run_t &run = entry->runs[part];
    if (run.phase == phase_t::STANDS && outcome == outcome_t::DONE) { // renewed
        run.stood_at = now_.mono;
        run.live_over_at = 0;
    }
    if (run.phase != phase_t::SENT) {
        return;
    }
    if (outcome == outcome_t::NOT_SENT) {
        book_->mark(*entry);
        values.sent = false;
        fail(entry, part, "the probe is down");
    } else if (outcome == outcome_t::LOST ||
               (outcome == outcome_t::DONE && track_of(*entry, part).session != session)) {
        run.lost = true;
        find(entry, part);
    } else if (outcome == outcome_t::REFUSED) {
        run.refused = true;
    } else {
        book_->mark(*entry);
        run.acked = true;
        run.stood_at = now_.mono;
        values.started_at = now_.wall;
        if (!entry->capture.limits) {
            search(entry, part, live_t::NONE);
        }
    }
}

void part_life_t::detail_answered(entry_t *entry, size_t part, const answer_t &answer)
{
    run_t &run = entry->runs[part];
    if (answer.outcome == outcome_t::LOST || answer.outcome == outcome_t::NOT_SENT) {
        if (run.phase == phase_t::SENT && run.acked) {
            run.lost = true;
            find(entry, part);
        } else if (run.phase == phase_t::SENT && run.refused) {
            wait_for_address(entry, part);
        }
    } else if (answer.outcome == outcome_t::REFUSED) {
        detail_refused(entry, part);
    } else if (answer.detail && answer.detail->name == entry->name) {
        record(entry, part, *answer.detail);
    } else if (answer.detail) {
        const auto other = parse_ulid(answer.detail->name);
        const bool is_foreign = !other || book_->find(*other) == nullptr;
        if (is_foreign || (run.phase != phase_t::SENT && run.phase != phase_t::WAITING)) {
            detail_foreign(entry, part);
        } else if (run.refused) {
            wait_for_address(entry, part); // for another capture of ours
        }
    }
}

void part_life_t::detail_refused(entry_t *entry, size_t part)
{
    run_t &run = entry->runs[part];
    if (run.phase == phase_t::SENT && run.refused) {
        wait_for_address(entry, part);
        return;
    }
    if (run.phase == phase_t::STANDS && entry->capture.parts[part].state == part_state_t::RECORDING &&
        run.live_over_at == 0) {
        run.live_over_at = now_.mono;
    }
    run.detail_refused = true; // the next LIST says the rest
    if (run.phase == phase_t::FIND) {
        judge(entry, part);
    }
}

// Another's live capture has the address.
void part_life_t::detail_foreign(entry_t *entry, size_t part)
{
    const run_t &run = entry->runs[part];
    if (run.phase == phase_t::OVER) {
        return;
    }
    if ((run.phase == phase_t::SENT && run.acked) || stood(entry->capture.parts[part]) || run.files) {
        over(entry, part);
    } else {
        fail(entry, part, "recorded by another client");
    }
}

void part_life_t::remove_answered(entry_t *entry, size_t part, outcome_t outcome)
{
    part_t &values = entry->capture.parts[part];
    if (outcome != outcome_t::DONE || is_over(values)) {
        return;
    }
    book_->mark(*entry);
    values.removed = true;
    if (values.state == part_state_t::RECORDING) {
        entry->runs[part].live_over_at = now_.mono;
        entry->runs[part].detail_refused = true;
    }
}

// A rule of our name runs.
void part_life_t::record(entry_t *entry, size_t part, const detail_t &detail)
{
    part_t &values = entry->capture.parts[part];
    run_t &run = entry->runs[part];
    if (run.phase == phase_t::OVER || run.phase == phase_t::WAITING) {
        return;
    }
    run.detail_refused = run.refused = false;
    run.gone_since = 0;
    run.seen_at = now_.mono;
    run.seen_elapsed_s = detail.fields.elapsed_s;
    if (run.told_over) { // another rule of its name, before it was renewed
        run.told_over = false;
        run.said_live_before = values.said_live.value_or(0);
        run.said_history_before = values.said_history.value_or(0);
    }
    run.phase = phase_t::STANDS;
    const uint8_t percent = live_percent(detail.fields);
    const uint64_t packets = uint64_t{run.said_live_before} + detail.fields.packets;
    if (values.state != part_state_t::RECORDING || values.live != live_t::RUNNING ||
        values.percent != percent || values.live_packets != packets) {
        book_->mark(*entry);
        values.state = part_state_t::RECORDING;
        values.live = live_t::RUNNING;
        values.percent = percent;
        values.live_packets = packets;
        const uint64_t elapsed = std::min(detail.fields.elapsed_s * NS_PER_S, now_.wall);
        values.started_at = // not before it was asked for, whatever the probe says
            stood(values) ? values.started_at : std::max(now_.wall - elapsed, values.sent_at);
        follow(entry);
    }
    if (entry->capture.stop_at != 0 && !values.removed && !run.remove_out) {
        ask_part(entry, part, ask_kind_t::REMOVE);
    } else if (std::exchange(run.renew_wanted, false) && entry->capture.stop_at == 0) {
        renew(entry, part);
    }
}

// No live capture of it runs, its rule stands.
void part_life_t::search(entry_t *entry, size_t part, live_t live)
{
    part_t &values = entry->capture.parts[part];
    run_t &run = entry->runs[part];
    book_->mark(*entry);
    values.state = part_state_t::SEARCHING;
    values.live = live;
    values.started_at = stood(values) ? values.started_at : values.sent_at;
    run.phase = phase_t::STANDS;
    run.detail_refused = false;
    follow(entry);
}

// Ends.

void part_life_t::over(entry_t *entry, size_t part, bool gone)
{
    book_->mark(*entry);
    part_t &values = entry->capture.parts[part];
    run_t &run = entry->runs[part];
    const bool was_refused = values.live == live_t::REFUSED && values.said_live.value_or(0) == 0;
    if (was_refused && values.said_history == 0U) {
        fail(entry, part, "the probe began no live capture and found no history");
        return;
    }
    values.live = !entry->capture.limits ? live_t::NONE : was_refused ? live_t::REFUSED : live_t::OVER;
    values.live_packets = values.said_live.value_or(static_cast<uint32_t>(values.live_packets));
    values.ended_by = cause(*entry, part, gone);
    values.state = part_state_t::FINISHED;
    values.started_at = stood(values) ? values.started_at : values.sent_at;
    values.ended_at = now_.wall;
    values.percent = 100;
    values.error = values.removed                              ? entry->capture.stop_why
                   : values.ended_by == ended_by_t::PROBE_GONE ? "the probe ended or was not reachable"
                   : was_refused                               ? "the probe began no live capture"
                                                               : "";
    run.phase = phase_t::OVER;
    follow(entry);
}

ended_by_t part_life_t::cause(const entry_t &entry, size_t part, bool gone) const
{
    const part_t &values = entry.capture.parts[part];
    const run_t &run = entry.runs[part];
    const bool lost = gone || (run.lost && !values.said_history);
    if (!entry.capture.limits) {
        return lost ? ended_by_t::PROBE_GONE : ended_by_t::NONE;
    }
    if (values.removed) {
        return ended_by_t::REMOVED;
    }
    if (std::max<uint64_t>(values.live_packets, values.said_live.value_or(0)) >=
        entry.capture.limits->packets) {
        return ended_by_t::PACKETS;
    }
    // As long as its session lasted, it ended when that was seen; else some time after it was seen last.
    const uint64_t end = run.live_over_at != 0 ? run.live_over_at : now_.mono;
    const uint64_t begin = run.seen_at != 0 ? run.seen_at - run.seen_elapsed_s * NS_PER_S : run.stood_at;
    const uint64_t limit_ns = (entry.capture.limits->seconds - 1) * NS_PER_S; // DETAIL tells whole seconds
    const uint64_t last = lost ? run.seen_at + MONITOR_PASS_S * NS_PER_S : end;
    if (begin != 0 && std::min(last, end) >= begin + limit_ns) {
        return ended_by_t::TIME;
    }
    if (values.live == live_t::REFUSED) {
        return ended_by_t::ERROR;
    }
    return lost ? ended_by_t::PROBE_GONE : ended_by_t::UNKNOWN;
}

void part_life_t::fail(entry_t *entry, size_t part, const std::string &error)
{
    book_->mark(*entry);
    part_t &values = entry->capture.parts[part];
    values.state = part_state_t::FAILED;
    values.ended_at = now_.wall;
    values.ended_by = error == "unknown" ? ended_by_t::UNKNOWN : ended_by_t::ERROR;
    values.error = error == "unknown"
                       ? "unknown: the probe's answer was lost, and no rule or file of it was found"
                       : error;
    entry->runs[part].phase = phase_t::OVER;
    follow(entry);
}

void part_life_t::follow(entry_t *entry)
{
    capture_t &capture = entry->capture;
    if (capture.state == capture_state_t::SEALED || capture.state == capture_state_t::DELETED) {
        return;
    }
    const capture_state_t state = state_of_parts(capture.parts);
    for (const part_t &part : capture.parts) {
        if (part.started_at != 0 && (capture.started_at == 0 || part.started_at < capture.started_at)) {
            capture.started_at = part.started_at;
        }
    }
    if (state == capture.state) {
        return;
    }
    capture.state = state;
    notes_->log.push_back("capture " + entry->name + ' ' + std::string(text_of(state)));
    if (state != capture_state_t::FINISHED && state != capture_state_t::FAILED) {
        return;
    }
    capture.ended_at = now_.wall;
    if (capture.waits_for_sealing()) {
        entry->sealing = sealing_t::LATER;
        entry->seal_at = now_.mono;
    } else if (capture.lookup_until == LOOKUP_OPEN) {
        capture.lookup_until = now_.wall + LOOKUP_KEPT_NS;
    }
}

} // namespace kestrune::manager
