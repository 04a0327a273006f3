// What the probes and the keeper say, and what time does.
#include "captures/life.h"

#include "captures/cover.h"
#include "common/clock.h"

#include <algorithm>
#include <utility>

namespace kestrune::manager {

namespace {

constexpr uint64_t SEAL_AGAIN_NS = 5'000'000'000; // doubled with each failure
constexpr uint64_t SEAL_AGAIN_MOST_NS = 600'000'000'000;
constexpr uint64_t BURY_AGAIN_NS = 5'000'000'000;
constexpr size_t TO_ASK_MAX = 4096; // unexplained rules of a probe

// The capture whose rule left these files; the probe's script may have moved them into another directory.
std::optional<ulid_t> capture_of(const visual_t &visual)
{
    const auto of_path = [](const std::string &path) {
        const size_t slash = path.rfind('/');
        return ulid_of_file(std::string_view(path).substr(slash == std::string::npos ? 0 : slash + 1));
    };
    if (!visual.live_file.empty()) {
        return of_path(visual.live_file);
    }
    return visual.history_files.empty() ? std::nullopt : of_path(visual.history_files.front());
}

} // namespace

void life_t::for_parts(const std::string &probe, const std::function<void(entry_t *, size_t)> &function)
{
    for (const auto &[id, entry] : book_.entries()) {
        for (size_t i = 0; i < entry->runs.size(); ++i) {
            if (entry->runs[i].phase != phase_t::OVER && entry->capture.parts[i].probe == probe) {
                function(entry.get(), i);
            }
        }
    }
}

void life_t::observe(const observation_t &observation)
{
    std::visit([this](const auto &seen) { see(seen); }, observation);
}

void life_t::see(const session_began_t &seen)
{
    track_t &track = tracks_[seen.probe];
    if (seen.updates) {
        track.updates = seen.session;
        return;
    }
    track.session = seen.session;
    track.refused_since = track.down_mono = 0;
    track.polls_out = 0;
    track.asked.clear();
    track.to_ask.clear();
    for_parts(seen.probe, [this](entry_t *entry, size_t part) { parts_.session_began(entry, part); });
}

void life_t::see(const session_ended_t &seen)
{
    track_t &track = tracks_[seen.probe];
    if (seen.updates) {
        track.updates = 0;
        for_parts(seen.probe,
                  [this](entry_t *entry, size_t part) { // rule ids may mean other rules from now on
                      book_.touch(*entry);
                      entry->runs[part].rule.reset();
                  });
        return;
    }
    if (!seen.refused) {
        track.refused_since = 0;
    } else if (track.refused_since == 0) {
        track.refused_since = now_.mono;
    }
    if (seen.session != 0 && (seen.session == track.session || seen.session == track.ended)) {
        track.ended = seen.session;
        track.session = 0;
        track.down_mono = now_.mono;
        track.polls_out = 0;
        for_parts(seen.probe, [this](entry_t *entry, size_t part) { parts_.session_ended(entry, part); });
    }
}

void life_t::see(const answers_t &seen)
{
    for (const answer_t &answer : seen.answers) {
        const auto found = askers_.find(answer.tag);
        if (found == askers_.end()) {
            continue; // a LIST
        }
        const asker_t &asker = found->second;
        used_tags_.push_back(answer.tag);
        track_t &track = tracks_[seen.probe];
        track.polls_out -= asker.is_poll && track.polls_out != 0 ? 1 : 0;
        entry_t *entry = asker.id ? book_.find(*asker.id) : nullptr;
        if (!asker.id) {
            see_orphan(seen.probe, asker, answer);
        }
        for (size_t i = 0; entry != nullptr && i < entry->runs.size(); ++i) {
            if (entry->capture.parts[i].probe == asker.probe) {
                parts_.answered(entry, i, seen.session, answer);
            }
        }
    }
}

bool life_t::is_explained(const std::string &probe, const ip_addr_t &addr)
{
    for (const ulid_t &id : book_.of(addr)) {
        const entry_t *entry = book_.find(id);
        for (size_t i = 0; i < entry->runs.size(); ++i) {
            if (entry->runs[i].phase != phase_t::OVER && entry->capture.parts[i].probe == probe) {
                return true;
            }
        }
    }
    return false;
}

void life_t::see(const listed_t &seen)
{
    std::unordered_set<ip_addr_t, addr_hash_t> shown;
    for (const msg_ip_list_item_t &rule : seen.rules) {
        shown.insert(rule.addr);
    }
    for_parts(seen.probe, [&](entry_t *entry, size_t part) {
        parts_.listed(entry, part, seen.session, shown.contains(entry->capture.addr));
    });
    track_t &track = tracks_[seen.probe];
    std::erase_if(track.asked, [&](const ip_addr_t &addr) {
        return !shown.contains(addr) || is_explained(seen.probe, addr);
    });
    for (const ip_addr_t &addr : shown) {
        if (!is_explained(seen.probe, addr) && track.to_ask.size() < TO_ASK_MAX &&
            track.asked.insert(addr).second) {
            track.to_ask.push_back(addr);
        }
    }
}

// A rule that no running part explains. One of a name that this catalogue gave is removed: its part has failed, or
// the part's end was seen before its rule came to stand.
void life_t::see_orphan(const std::string &probe, const asker_t &asker, const answer_t &answer)
{
    if (answer.kind != ask_kind_t::DETAIL || !answer.detail) {
        return;
    }
    const auto id = parse_ulid(answer.detail->name);
    if (!id || is_explained(probe, asker.addr) ||
        (book_.find(*id) == nullptr && neighbours_.catalogue->states({*id}).empty())) {
        return;
    }
    ask_t ask;
    ask.kind = ask_kind_t::REMOVE;
    ask.addr = asker.addr;
    notes_.asks[probe].push_back({std::move(ask), {std::nullopt, probe, asker.addr, false}});
    notes_.log.push_back("probe " + probe + ": the rule of capture " + id->text() +
                         " is removed, the capture is over");
}

void life_t::see(const updated_t &seen)
{
    if (seen.session != tracks_[seen.probe].updates) {
        return;
    }
    if (const auto *incident = std::get_if<msg_update_incident_t>(&seen.update)) {
        for (const ulid_t &id : std::vector<ulid_t>(book_.of(incident->addr))) {
            entry_t *entry = book_.find(id);
            for (size_t i = 0; i < entry->runs.size(); ++i) {
                if (entry->capture.parts[i].probe == seen.probe) {
                    parts_.incident(entry, i, incident->rule_id);
                }
            }
        }
    } else if (const auto *progress = std::get_if<msg_update_capture_t>(&seen.update)) {
        for_parts(seen.probe, [&](entry_t *entry, size_t part) {
            if (entry->runs[part].rule == progress->rule_id) {
                parts_.progress(entry, part, progress->progress);
            }
        });
    } else if (const auto *visual = std::get_if<visual_t>(&seen.update)) {
        see_visual(seen.probe, *visual);
    }
}

void life_t::see_visual(const std::string &probe, const visual_t &visual)
{
    const auto id = capture_of(visual);
    for_parts(probe, [&](entry_t *entry, size_t part) {
        if (id ? entry->capture.id == *id : entry->runs[part].rule == visual.rule_id) {
            parts_.visual(entry, part, visual);
        }
    });
}

// The keeper.

void life_t::kept(const keeper_result_t &result)
{
    std::visit([this](const auto &seen) { see(seen); }, result);
}

void life_t::see(const seal_result_t &seen)
{
    entry_t *entry = book_.find(seen.id);
    if (entry == nullptr || !entry->capture.waits_for_sealing()) {
        return;
    }
    book_.touch(*entry);
    if (seen.sealed) {
        seal(entry, *seen.sealed);
        return;
    }
    entry->sealing = sealing_t::LATER;
    entry->seal_at = now_.mono + SEAL_AGAIN_NS;
    if (seen.early) {
        return;
    }
    const uint32_t doubled = std::min(entry->seal_tries++, 10U);
    entry->seal_at = now_.mono + std::min(SEAL_AGAIN_NS << doubled, SEAL_AGAIN_MOST_NS);
    book_.mark(*entry);
    entry->capture.seal_error = seen.error;
    notes_.alarms.push_back({"sealing/" + entry->name, "", severity_t::ERROR, seen.error});
    notes_.log.push_back("capture " + entry->name + " could not be sealed: " + seen.error);
}

void life_t::seal(entry_t *entry, const sealed_t &sealed)
{
    book_.mark(*entry);
    notes_.durable = true;
    capture_t &capture = entry->capture;
    capture.state = capture_state_t::SEALED;
    capture.sealed_at = sealed.sealed_at;
    capture.file = sealed.file;
    capture.manifest_sha256 = sealed.manifest_sha256;
    if (sealed.parts.size() == capture.parts.size()) {
        capture.parts = sealed.parts;
    }
    if (capture.lookup_until == LOOKUP_OPEN) {
        capture.lookup_until = now_.wall + LOOKUP_KEPT_NS;
    }
    if (!capture.seal_error.empty()) {
        notes_.alarms.push_back({"sealing/" + entry->name, "", severity_t::ERROR, ""});
        capture.seal_error.clear();
    }
    entry->sealing = sealing_t::NONE;
    note_audit({}, "seal", entry->name, "manifest sha256 " + sealed.manifest_sha256);
    notes_.log.push_back("capture " + entry->name + " sealed, manifest sha256 " + sealed.manifest_sha256);
    notes_.jobs.emplace_back(raw_job_t{capture.id});
}

void life_t::see(const bury_result_t &seen)
{
    entry_t *entry = book_.find(seen.id);
    if (entry == nullptr || !entry->capture.deleted) {
        return;
    }
    book_.touch(*entry);
    entry->bury_out = false;
    entry->bury_at = now_.mono + BURY_AGAIN_NS;
    if (seen.error.empty()) {
        book_.mark(*entry);
        entry->capture.deleted->files_gone = true;
    } else {
        notes_.log.push_back("capture " + entry->name + " could not be deleted: " + seen.error);
    }
}

void life_t::see(const look_result_t &seen)
{
    tracks_[seen.probe].look_out = false;
    for_parts(seen.probe, [&](entry_t *entry, size_t part) {
        parts_.looked(entry, part, seen.ids.contains(entry->capture.id));
    });
}

void life_t::see(const sweep_result_t &seen)
{
    std::string text = seen.error;
    if (text.empty() && seen.strays != 0) {
        text = std::to_string(seen.strays) + " files belong to no capture, for instance " + seen.example;
    }
    notes_.alarms.push_back({"files/" + seen.probe, seen.probe, severity_t::WARNING, text});
    for (const ulid_t &id : seen.unsealed) {
        entry_t *entry = take(id);
        for (size_t i = 0; entry != nullptr && i < entry->runs.size(); ++i) {
            if (entry->capture.parts[i].probe == seen.probe &&
                entry->capture.state != capture_state_t::SEALED &&
                entry->capture.state != capture_state_t::DELETED) {
                parts_.revive(entry, i);
            }
        }
    }
}

void life_t::see(const room_result_t &seen)
{
    room_ = seen.view;
    notes_.alarms.push_back({"disk", "", severity_t::ERROR,
                             room_.room == room_t::ENOUGH ? ""
                             : room_.room == room_t::NO_NEW
                                 ? "the disk is nearly full: requests are refused"
                                 : "the disk is full: requests are refused and running captures are ended"});
    for (const victim_t &victim : seen.victims) {
        entry_t *entry = take(victim.id);
        if (entry != nullptr && may_go(entry->capture) && !entry->capture.hold &&
            !neighbours_.archive->is_read(victim.id)) {
            note_audit({}, "delete", entry->name, victim.cause);
            erase_entry(entry, victim.cause);
        }
    }
    for (const auto &[id, entry] : book_.entries()) {
        if (room_.room == room_t::END_RUNNING && entry->capture.stop_at == 0 && entry->capture.limits &&
            (entry->capture.state == capture_state_t::RECORDING ||
             entry->capture.state == capture_state_t::REQUESTED)) {
            note_audit({}, "stop", entry->name, "the disk is full");
            stop_entry(entry.get(), "ended because the disk was full");
        }
    }
}

// Time.

void life_t::tick()
{
    for (const auto &[id, entry] : book_.entries()) {
        tick_entry(entry.get());
    }
    for (auto &[name, track] : tracks_) {
        if (track.look_wanted && !track.look_out) {
            track.look_wanted = false;
            track.look_out = true;
            looks_.push_back(name);
        }
    }
}

void life_t::tick_entry(entry_t *entry)
{
    for (size_t i = 0; i < entry->runs.size(); ++i) {
        parts_.tick(entry, i);
    }
    if (entry->sealing == sealing_t::LATER && now_.mono >= entry->seal_at) {
        book_.touch(*entry);
        entry->sealing = sealing_t::QUEUED;
        const auto &parts = entry->capture.parts;
        const bool must_rest = std::any_of(parts.begin(), parts.end(), [](const part_t &part) {
            return part.ended_by == ended_by_t::PROBE_GONE || part.ended_by == ended_by_t::UNKNOWN;
        });
        notes_.jobs.emplace_back(seal_job_t{entry->capture, must_rest});
    }
    const auto &deleted = entry->capture.deleted;
    if (deleted && !deleted->files_gone && !entry->bury_out && now_.mono >= entry->bury_at) {
        book_.touch(*entry);
        entry->bury_out = true;
        notes_.jobs.emplace_back(bury_job_t{entry->capture.id, deleted->cause, deleted->at});
    }
}

} // namespace kestrune::manager
