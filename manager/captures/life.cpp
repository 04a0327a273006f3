// Turns and commands. observe.cpp has observations and the keeper's results, settle.cpp what follows a commit.
#include "captures/life.h"

#include "captures/cover.h"
#include "common/clock.h"

#include <algorithm>
#include <utility>

namespace kestrune::manager {

namespace {

std::string text_of_addr(const ip_addr_t &addr)
{
    return ip_addr_text(addr).text;
}

std::string joined(const std::vector<std::string> &names)
{
    std::string text;
    for (const std::string &name : names) {
        text += (text.empty() ? "" : ", ") + name;
    }
    return text;
}

bool all_over(const capture_t &capture)
{
    return std::all_of(capture.parts.begin(), capture.parts.end(), is_over);
}

} // namespace

life_t::life_t(const settings_t &settings, const neighbours_t &neighbours)
    : settings_(settings), neighbours_(neighbours), ids_(neighbours.catalogue->newest_id()),
      parts_(&book_, &tracks_)
{
}

void life_t::configure(const settings_t &settings, const now_t &now)
{
    settings_ = settings;
    for (auto &[name, track] : tracks_) {
        track.configured = false;
    }
    for (const probe_settings_t &probe : settings.probes) {
        track_t &track = tracks_[probe.name];
        track.configured = true;
        track.local = !probe.files.empty();
    }
    for (auto &[name, track] : tracks_) {
        track.down_mono = track.down_mono != 0 ? track.down_mono : now.mono;
    }
}

void life_t::begin(const now_t &now)
{
    now_ = now;
    notes_ = {};
    pending_.clear();
    new_waiters_.clear();
    used_tags_.clear();
    views_.clear();
    parts_.begin(now_, &notes_);
}

void life_t::rebuild(std::vector<capture_t> unfinished)
{
    for (capture_t &capture : unfinished) {
        entry_t &entry = book_.add(std::move(capture));
        for (size_t i = 0; i < entry.runs.size(); ++i) {
            const auto track = tracks_.find(entry.capture.parts[i].probe);
            if (!is_over(entry.capture.parts[i]) && (track == tracks_.end() || !track->second.local)) {
                entry.capture.parts[i].local = false; // no longer configured so
            }
            tracks_[entry.capture.parts[i].probe].down_mono = now_.mono;
            parts_.resume(&entry, i);
        }
        if (entry.capture.waits_for_sealing()) {
            entry.sealing = sealing_t::LATER;
        }
    }
}

changes_t life_t::changes() const
{
    return {book_.marked(), notes_.audit, notes_.kept_answers};
}

// Commands.

void life_t::refuse(const done_t &done, result_t result, const std::string &text, const std::string &field)
{
    pending_.push_back({done, {result, text, field, {}}, {}});
}

void life_t::answer(const done_t &done, result_t result, std::vector<ulid_t> ids)
{
    pending_.push_back({done, {result, {}, {}, {}}, std::move(ids)});
}

void life_t::note_audit(const caller_t &caller, const char *action, const std::string &object,
                        const std::string &detail)
{
    notes_.audit.push_back({0, now_.wall, caller.who, caller.from, action, object, detail});
}

void life_t::audit(audit_t row)
{
    row.at = row.at != 0 ? row.at : now_.wall;
    notes_.audit.push_back(std::move(row));
}

probe_view_t life_t::view_of(const std::string &probe)
{
    const auto known = views_.find(probe);
    if (known != views_.end()) {
        return known->second;
    }
    return views_[probe] = neighbours_.probes->view(probe).value_or(probe_view_t{});
}

entry_t *life_t::take(const ulid_t &id)
{
    entry_t *entry = book_.find(id);
    if (entry != nullptr) {
        return entry;
    }
    auto capture = neighbours_.catalogue->find(id);
    return capture ? &book_.add(std::move(*capture)) : nullptr;
}

bool life_t::answer_from_key(const caller_t &caller, const request_key_t &key, const done_t &done)
{
    if (key.key.empty()) {
        return false;
    }
    std::optional<kept_answer_t> kept = neighbours_.catalogue->kept_answer(caller.who, key.key, now_.wall);
    for (const kept_answer_t &fresh : notes_.kept_answers) {
        if (fresh.who == caller.who && fresh.key == key.key) {
            kept = fresh;
        }
    }
    if (!kept) {
        return false;
    }
    if (kept->body_sha256 != key.body_sha256) {
        refuse(done, result_t::OTHER_BODY, "this Idempotency-Key was used with another body");
    } else {
        answer(done, kept->created ? result_t::CREATED : result_t::OK, kept->ids);
    }
    return true;
}

// Names the probes, in the order of the configuration; false when the request was refused.
bool life_t::check(const capture_request_t &request, std::vector<std::string> *probes, const done_t &done)
{
    for (size_t i = 0; i < request.probes.size(); ++i) {
        const auto track = tracks_.find(request.probes[i]);
        if (track == tracks_.end() || !track->second.configured) {
            refuse(done, result_t::BAD_VALUE, "there is no probe of this name",
                   "probes[" + std::to_string(i) + "]");
            return false;
        }
    }
    for (const probe_settings_t &probe : settings_.probes) {
        const auto &asked = request.probes;
        if (asked.empty() || std::find(asked.begin(), asked.end(), probe.name) != asked.end()) {
            probes->push_back(probe.name);
        }
    }
    if (request.addrs.empty() || request.addrs.size() > settings_.limits.max_addresses) {
        refuse(done, result_t::BAD_VALUE,
               "between 1 and " + std::to_string(settings_.limits.max_addresses) + " addresses may be named",
               "addresses");
        return false;
    }
    const limits_t &most = settings_.limits.most;
    if (request.limits.packets > most.packets || request.limits.seconds > most.seconds) {
        refuse(done, result_t::BAD_VALUE,
               "at most " + std::to_string(most.packets) + " packets and " + std::to_string(most.seconds) +
                   " seconds may be asked for",
               request.limits.packets > most.packets ? "packets" : "seconds");
        return false;
    }
    return true;
}

void life_t::record(const capture_request_t &request, const caller_t &caller, const request_key_t &key,
                    done_t done)
{
    std::vector<std::string> probes;
    if (answer_from_key(caller, key, done) || !check(request, &probes, done)) {
        return;
    }
    std::vector<cover_t> covers;
    bool created = false;
    for (size_t i = 0; i < request.addrs.size(); ++i) {
        covers.push_back(cover(&book_, request.addrs[i], request, probes));
        created = created || !covers.back().probes.empty();
        if (covers.back().conflict) {
            refuse(done, result_t::OTHER_DIRECTION,
                   "capture " + covers.back().conflict->text() +
                       " of this address runs with another direction",
                   "addresses[" + std::to_string(i) + "]");
            return;
        }
    }
    if ((created || request.renew) && room_.room != room_t::ENOUGH) {
        refuse(done, result_t::NO_ROOM, "the disk is full, and nothing may be deleted");
        return;
    }
    waiter_t waiter{{}, created, now_.mono + ANSWER_WAIT_NS, std::move(done)};
    for (size_t i = 0; i < request.addrs.size(); ++i) {
        for (const ulid_t &id : covers[i].running) {
            waiter.ids.push_back(id);
            if (request.renew && !request.history_only) {
                renew(book_.find(id), request, caller);
            }
        }
        if (!covers[i].probes.empty()) {
            waiter.ids.push_back(create(request.addrs[i], request, caller, covers[i].probes).capture.id);
        }
    }
    if (!key.key.empty()) {
        notes_.durable = true;
        notes_.kept_answers.push_back({caller.who, key.key, key.body_sha256, now_.wall, created, waiter.ids});
    }
    new_waiters_.push_back(std::move(waiter));
}

entry_t &life_t::create(const ip_addr_t &addr, const capture_request_t &request, const caller_t &caller,
                        const std::vector<std::string> &probes, bool is_lookup)
{
    capture_t capture;
    capture.id = ids_.make(now_.wall);
    capture.addr = addr;
    capture.direction = request.direction;
    capture.reason = request.reason;
    capture.reference = request.reference;
    capture.requested_by = caller.who;
    capture.requested_at = now_.wall;
    if (!request.history_only) {
        const limits_t &standard = settings_.limits.standard;
        capture.limits = limits_t{request.limits.packets != 0 ? request.limits.packets : standard.packets,
                                  request.limits.seconds != 0 ? request.limits.seconds : standard.seconds};
    }
    for (const std::string &probe : probes) {
        const probe_view_t view = view_of(probe);
        part_t part;
        part.probe = probe;
        part.local = tracks_[probe].local;
        part.live = request.history_only ? live_t::NONE : live_t::UNKNOWN;
        part.reach = view.history && view.history->on ? std::optional(view.history->reach) : std::nullopt;
        part.heavy = view.heavy;
        part.drops_begin = view.drops;
        capture.parts.push_back(std::move(part));
    }
    capture.lookup_until = is_lookup ? LOOKUP_OPEN : 0;
    entry_t &entry = book_.add(std::move(capture));
    book_.mark(entry);
    notes_.durable = true;
    note_audit(caller, is_lookup ? "lookup" : "record", entry.name,
               text_of_addr(addr) + " on " + joined(probes));
    notes_.log.push_back("capture " + entry.name + " of " + text_of_addr(addr) + " requested by " +
                         caller.who);
    for (size_t i = 0; i < entry.runs.size(); ++i) {
        if (is_lookup && live_runs(&book_, addr, probes[i])) {
            parts_.fail(&entry, i, "address in use"); // by a live capture of ours
        } else {
            parts_.request(&entry, i);
        }
    }
    return entry;
}

void life_t::renew(entry_t *entry, const capture_request_t &request, const caller_t &caller)
{
    capture_t &capture = entry->capture;
    if (!capture.limits) {
        return;
    }
    book_.mark(*entry);
    notes_.durable = true;
    const limits_t &standard = settings_.limits.standard;
    capture.limits = limits_t{request.limits.packets != 0 ? request.limits.packets : standard.packets,
                              request.limits.seconds != 0 ? request.limits.seconds : standard.seconds};
    if (capture.direction != request.direction) {
        capture.direction = BOTH;
    }
    note_audit(caller, "renew", entry->name, std::string(text_of_direction(capture.direction)));
    for (size_t i = 0; i < entry->runs.size(); ++i) {
        parts_.renew(entry, i);
    }
}

void life_t::stop(const ulid_t &id, const caller_t &caller, done_t done)
{
    entry_t *entry = take(id);
    if (entry == nullptr) {
        refuse(done, result_t::NOT_FOUND, "there is no such capture");
        return;
    }
    if (all_over(entry->capture)) {
        refuse(done, result_t::WRONG_STATE, "the capture is over");
        return;
    }
    if (entry->capture.stop_at == 0) {
        note_audit(caller, "stop", entry->name, "");
        stop_entry(entry, "");
    }
    answer(done, result_t::OK, {id});
}

void life_t::stop_entry(entry_t *entry, const std::string &why)
{
    book_.mark(*entry);
    notes_.durable = true;
    entry->capture.stop_at = now_.wall;
    entry->capture.stop_why = why;
    for (size_t i = 0; i < entry->runs.size(); ++i) {
        parts_.stop(entry, i);
    }
}

void life_t::hold(const ulid_t &id, bool on, const std::string &why, const caller_t &caller, done_t done)
{
    entry_t *entry = take(id);
    if (entry == nullptr) {
        refuse(done, result_t::NOT_FOUND, "there is no such capture");
        return;
    }
    if (entry->capture.state == capture_state_t::DELETED) {
        refuse(done, result_t::WRONG_STATE, "the capture is deleted");
        return;
    }
    book_.mark(*entry);
    notes_.durable = true;
    entry->capture.hold = on ? std::optional(hold_t{why, caller.who, now_.wall}) : std::nullopt;
    note_audit(caller, on ? "hold" : "release", entry->name, why);
    answer(done, result_t::OK, {id});
}

void life_t::erase(const ulid_t &id, const caller_t &caller, done_t done)
{
    entry_t *entry = take(id);
    if (entry == nullptr) {
        refuse(done, result_t::NOT_FOUND, "there is no such capture");
        return;
    }
    const capture_t &capture = entry->capture;
    const char *refusal = capture.state == capture_state_t::DELETED ? "the capture is deleted"
                          : capture.hold                            ? "the capture is on hold"
                          : !may_go(capture)                 ? "the capture runs, or waits for its sealing"
                          : neighbours_.archive->is_read(id) ? "the capture's file is being read"
                                                             : nullptr;
    if (refusal != nullptr) {
        refuse(done, result_t::WRONG_STATE, refusal);
        return;
    }
    note_audit(caller, "delete", entry->name, "");
    erase_entry(entry, "deleted by " + caller.who);
    answer(done, result_t::OK, {id});
}

void life_t::erase_entry(entry_t *entry, const std::string &cause)
{
    book_.mark(*entry);
    notes_.durable = true;
    entry->capture.state = capture_state_t::DELETED;
    entry->capture.deleted = deleted_t{cause, now_.wall, false};
    notes_.log.push_back("capture " + entry->name + " deleted: " + cause);
}

void life_t::lookup(const ip_addr_t &addr, const std::vector<std::string> &probes, const caller_t &caller,
                    done_t done)
{
    capture_request_t request;
    request.addrs = {addr};
    request.probes = probes;
    request.history_only = true;
    std::vector<std::string> names;
    if (!check(request, &names, done)) {
        return;
    }
    if (room_.room != room_t::ENOUGH) {
        refuse(done, result_t::NO_ROOM, "the disk is full, and nothing may be deleted");
        return;
    }
    answer(done, result_t::CREATED, {create(addr, request, caller, names, true).capture.id});
}

void life_t::keep_lookup(const ulid_t &id, const caller_t &caller, done_t done)
{
    entry_t *entry = take_lookup(id, done);
    if (entry == nullptr) {
        return;
    }
    book_.mark(*entry);
    notes_.durable = true;
    entry->capture.lookup_until = 0;
    note_audit(caller, "keep", entry->name, "");
    answer(done, result_t::OK, {id});
}

void life_t::drop_lookup(const ulid_t &id, const caller_t &caller, done_t done)
{
    entry_t *entry = take_lookup(id, done);
    if (entry == nullptr) {
        return;
    }
    book_.mark(*entry);
    notes_.durable = true;
    entry->capture.lookup_until = 1; // long ago: deleted once it is over
    note_audit(caller, "drop", entry->name, "");
    answer(done, result_t::OK, {id});
}

// Nothing when there is none any more; that was answered then.
entry_t *life_t::take_lookup(const ulid_t &id, const done_t &done)
{
    entry_t *entry = take(id);
    if (entry == nullptr || entry->capture.lookup_until == 0 || entry->capture.lookup_until <= now_.wall ||
        entry->capture.state == capture_state_t::DELETED) {
        refuse(done, result_t::NOT_FOUND, "there is no such lookup");
        return nullptr;
    }
    return entry;
}

} // namespace kestrune::manager
