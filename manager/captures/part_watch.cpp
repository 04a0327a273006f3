// What lists, sessions, updates and time make of a part.
#include "captures/part_life.h"

#include "common/clock.h"
#include "model/times.h"

#include <algorithm>

namespace kestrune::manager {

namespace {

constexpr uint32_t SEARCH_AT_MOST_S = 600;     // of a history-only part, when nobody answers
constexpr size_t ELSEWHERE_MAX = 256;          // names kept of a probe that is not local
constexpr uint64_t RENEWED_NS = 2'000'000'000; // an INCIDENT this soon after an ADD is that ADD's

uint32_t add_capped(uint32_t a, uint32_t b)
{
    return static_cast<uint32_t>(std::min<uint64_t>(uint64_t{a} + b, UINT32_MAX));
}

std::vector<std::string> names_of(const visual_t &visual)
{
    std::vector<std::string> names;
    for (const std::string &name : visual.history_files) {
        if (names.size() < ELSEWHERE_MAX) {
            names.push_back(printable(name));
        }
    }
    if (!visual.live_file.empty()) {
        names.push_back(printable(visual.live_file));
    }
    return names;
}

} // namespace

// Lists.

void part_life_t::listed(entry_t *entry, size_t part, uint64_t session, bool shown)
{
    run_t &run = entry->runs[part];
    if (run.phase == phase_t::OVER || run.add_out || session != track_of(*entry, part).session) {
        return;
    }
    book_->touch(*entry);
    switch (run.phase) {
    case phase_t::WAITING:
        if (!shown) {
            send(entry, part);
        } else if (!run.detail_out) {
            ask_part(entry, part, ask_kind_t::DETAIL);
        }
        break;
    case phase_t::SENT:
        listed_sent(entry, part, shown);
        break;
    case phase_t::STANDS:
        listed_standing(entry, part, shown);
        break;
    case phase_t::FIND:
        listed_find(entry, part, shown);
        break;
    case phase_t::OVER:
        break;
    }
}

void part_life_t::listed_sent(entry_t *entry, size_t part, bool shown)
{
    run_t &run = entry->runs[part];
    if (run.detail_out || (!run.acked && !run.refused)) {
        return;
    }
    if (run.acked && shown) {
        if (run.detail_refused) {
            search(entry, part, live_t::REFUSED);
        } else {
            ask_part(entry, part, ask_kind_t::DETAIL);
        }
    } else if (run.acked) {
        run.phase = phase_t::STANDS; // it was over at once
        run.gone_since = now_.mono;
    } else if (shown) {
        ask_part(entry, part, ask_kind_t::DETAIL); // whose rule is it?
    } else if (++run.refusals >= 2) {
        fail(entry, part, "refused by the probe");
    } else {
        send(entry, part);
    }
}

void part_life_t::listed_standing(entry_t *entry, size_t part, bool shown)
{
    run_t &run = entry->runs[part];
    if (!shown) {
        run.gone_since = run.gone_since != 0 ? run.gone_since : now_.mono;
        if (run.told_over) {
            over(entry, part);
        }
        return;
    }
    if (run.detail_refused && !run.detail_out &&
        entry->capture.parts[part].state == part_state_t::RECORDING) {
        search(entry, part, live_t::OVER);
    }
}

void part_life_t::listed_find(entry_t *entry, size_t part, bool shown)
{
    run_t &run = entry->runs[part];
    if (run.until == 0) {
        run.until = now_.mono + FIND_WAIT_NS;
    }
    run.shown = shown;
    if (!run.files && entry->capture.parts[part].local) {
        track_of(*entry, part).look_wanted = true;
    }
    judge(entry, part);
    if (run.phase == phase_t::FIND && shown && !run.detail_out) {
        run.detail_refused = false;
        ask_part(entry, part, ask_kind_t::DETAIL);
    }
}

void part_life_t::looked(entry_t *entry, size_t part, bool files)
{
    run_t &run = entry->runs[part];
    if (run.phase != phase_t::FIND) {
        return;
    }
    book_->touch(*entry);
    run.looked = true;
    run.files = run.files || files; // the next LIST judges: a rule appears there after its files
}

void part_life_t::wait_for_address(entry_t *entry, size_t part)
{
    book_->mark(*entry);
    notes_->durable = true;
    run_t &run = entry->runs[part];
    const uint64_t until = run.until != 0 ? run.until : now_.mono + ADDRESS_WAIT_NS;
    run = {};
    run.phase = phase_t::WAITING;
    run.until = until;
    entry->capture.parts[part].sent = false;
    if (entry->capture.stop_at != 0) {
        stop(entry, part);
    }
}

void part_life_t::find(entry_t *entry, size_t part)
{
    book_->touch(*entry);
    run_t &run = entry->runs[part];
    run.phase = phase_t::FIND;
    run.until = 0;
    run.gone_since = 0;
    run.shown.reset();
    run.looked = run.files = run.detail_refused = run.told_over = false;
    if (entry->capture.parts[part].local) {
        track_of(*entry, part).look_wanted = true;
    }
}

// FIND: after a LIST, or the DETAIL behind it.
void part_life_t::judge(entry_t *entry, size_t part)
{
    run_t &run = entry->runs[part];
    const part_t &values = entry->capture.parts[part];
    const bool certain = stood(values) || run.files;
    if (!run.shown || !certain) {
        return;
    }
    if (!*run.shown) {
        run.phase = phase_t::STANDS; // it did; its VISUAL may still come
        run.gone_since = now_.mono;
    } else if (run.detail_refused) {
        const live_t live = !entry->capture.limits           ? live_t::NONE
                            : values.live == live_t::REFUSED ? live_t::REFUSED
                            : stood(values)                  ? live_t::OVER
                                                             : live_t::UNKNOWN;
        search(entry, part, live);
    }
}

// Sessions and updates.

void part_life_t::session_began(entry_t *entry, size_t part)
{
    part_t &values = entry->capture.parts[part];
    if (!is_over(values) && !values.error.empty()) {
        book_->mark(*entry);
        values.error.clear();
    }
}

void part_life_t::session_ended(entry_t *entry, size_t part)
{
    part_t &values = entry->capture.parts[part];
    run_t &run = entry->runs[part];
    if (run.phase == phase_t::OVER) {
        return;
    }
    book_->touch(*entry);
    if (run.phase == phase_t::STANDS || (run.phase == phase_t::SENT && run.acked)) {
        run.lost = true;
        find(entry, part);
    } else if (run.phase == phase_t::FIND) {
        find(entry, part); // the next session is asked anew
    }
    if (values.error.empty()) {
        book_->mark(*entry);
        values.error = "the probe is not reachable since " + time_text(now_.wall);
    }
}

void part_life_t::incident(entry_t *entry, size_t part, uint32_t rule)
{
    run_t &run = entry->runs[part];
    if (run.phase != phase_t::SENT && run.phase != phase_t::STANDS) {
        return;
    }
    book_->touch(*entry);
    const bool is_ours = run.add_out || now_.mono < run.stood_at + RENEWED_NS;
    if (is_ours) {
        run.rule = rule;
    } else if (run.phase != phase_t::STANDS || run.rule == rule) {
        return;
    } else if (entry->capture.parts[part].state == part_state_t::RECORDING && !run.detail_out) {
        ask_part(entry, part, ask_kind_t::DETAIL); // it may have come late
    } else if (run.rule && entry->capture.parts[part].state == part_state_t::SEARCHING) {
        over(entry, part); // the address has another rule now
    }
}

void part_life_t::progress(entry_t *entry, size_t part, uint8_t percent)
{
    part_t &values = entry->capture.parts[part];
    percent = std::min<uint8_t>(percent, 99);
    if (values.state == part_state_t::SEARCHING && percent > values.percent) {
        book_->mark(*entry);
        values.percent = percent;
    }
}

void part_life_t::visual(entry_t *entry, size_t part, const visual_t &visual)
{
    part_t &values = entry->capture.parts[part];
    run_t &run = entry->runs[part];
    if (run.phase == phase_t::OVER || run.phase == phase_t::WAITING) {
        return;
    }
    book_->mark(*entry);
    values.said_live = add_capped(run.said_live_before, visual.live_packets);
    values.said_history = add_capped(run.said_history_before, visual.history_packets);
    values.history_packets = *values.said_history;
    if (!values.local) {
        values.elsewhere = names_of(visual);
    }
    if (run.rule && *run.rule != visual.rule_id) { // it was renewed as another rule
        run.said_live_before = *values.said_live;
        run.said_history_before = *values.said_history;
    } else if (run.add_out || (run.phase == phase_t::SENT && !run.acked)) {
        run.told_over = true; // DETAIL and LIST behind the ADD decide
    } else {
        over(entry, part);
    }
}

// Time.

void part_life_t::tick(entry_t *entry, size_t part)
{
    const run_t &run = entry->runs[part];
    const track_t &track = track_of(*entry, part);
    if (run.phase == phase_t::OVER) {
        return;
    }
    if (run.phase == phase_t::WAITING && now_.mono >= run.until && !address_is_ours(*entry, part)) {
        fail(entry, part, track.session == 0 ? "the probe is down" : "address in use");
    } else if (run.phase == phase_t::STANDS && run.gone_since != 0 &&
               (run.told_over || now_.mono >= run.gone_since + VISUAL_WAIT_NS)) {
        over(entry, part);
    } else if (track.session == 0) {
        tick_down(entry, part, track);
    } else if (run.phase == phase_t::FIND && run.until != 0 && now_.mono >= run.until && !run.files &&
               !stood(entry->capture.parts[part]) && (run.looked || !entry->capture.parts[part].local)) {
        fail(entry, part, "unknown");
    }
}

void part_life_t::tick_down(entry_t *entry, size_t part, const track_t &track)
{
    const part_t &values = entry->capture.parts[part];
    const run_t &run = entry->runs[part];
    const uint32_t seconds = entry->capture.limits ? entry->capture.limits->seconds : SEARCH_AT_MOST_S;
    const bool is_refused = track.refused_since != 0 && now_.mono >= track.refused_since + REFUSED_GONE_NS;
    const bool is_removed = !track.configured && now_.mono >= track.down_mono + REFUSED_GONE_NS;
    const bool is_silent = now_.wall >= values.sent_at + seconds * NS_PER_S + SILENT_GONE_NS;
    if ((!is_refused && !is_removed && !is_silent) || run.phase == phase_t::SENT) {
        return;
    }
    if (run.phase == phase_t::WAITING) {
        fail(entry, part, "the probe is down");
    } else if (stood(values) || run.files) {
        over(entry, part, true);
    } else if (values.local && track.configured && !run.looked) {
        track_of(*entry, part).look_wanted = true;
    } else {
        fail(entry, part, "unknown");
    }
}

// A part of another capture of ours has the address there, and its end is only a matter of time.
bool part_life_t::address_is_ours(const entry_t &entry, size_t part) const
{
    for (const ulid_t &id : book_->of(entry.capture.addr)) {
        const entry_t *other = book_->find(id);
        for (size_t i = 0; id < entry.capture.id && i < other->runs.size(); ++i) {
            if (other->runs[i].phase == phase_t::STANDS &&
                other->capture.parts[i].probe == entry.capture.parts[part].probe) {
                return true;
            }
        }
    }
    return false;
}

} // namespace kestrune::manager
