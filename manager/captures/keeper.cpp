#include "captures/keeper.h"

#include "common/clock.h"
#include "model/log.h"

#include <algorithm>
#include <chrono>
#include <unordered_map>
#include <utility>

namespace kestrune::manager {

namespace {

constexpr uint64_t MEASURE_NS = 1'000'000'000;
constexpr uint64_t SWEEP_NS = 60'000'000'000;
constexpr uint64_t RAW_LIST_NS = 5'000'000'000;
constexpr uint64_t REST_NS =
    10'000'000'000;                // files of a probe that is gone must not have changed for so long
constexpr size_t CANDIDATES = 256; // looked at by retention at a time
constexpr uint64_t DELETION_NS = 5'000'000'000; // so long room is awaited from what was chosen

} // namespace

keeper_t::keeper_t(archive_t *archive, catalogue_t *catalogue, told_t told)
    : archive_(archive), catalogue_(catalogue), told_(std::move(told))
{
}

keeper_t::~keeper_t()
{
    stop();
}

void keeper_t::start(const settings_t &settings)
{
    settings_ = settings;
    thread_ = std::thread([this] { run(); });
}

void keeper_t::reload(const settings_t &settings)
{
    const hold_lock_t held(lock_);
    fresh_ = settings;
    work_.notify_one();
}

void keeper_t::stop()
{
    if (!thread_.joinable()) {
        return;
    }
    {
        const hold_lock_t held(lock_);
        stop_ = true;
        work_.notify_one();
    }
    thread_.join();
}

void keeper_t::give(std::vector<job_t> jobs)
{
    const hold_lock_t held(lock_);
    for (job_t &job : jobs) {
        (std::holds_alternative<seal_job_t>(job) ? sealings_ : small_).push_back(std::move(job));
    }
    work_.notify_one();
}

void keeper_t::run()
{
    job_t job;
    while (take(&job)) {
        std::visit([this](const auto &what) { do_job(what); }, job);
    }
}

bool keeper_t::take(job_t *job)
{
    for (;;) {
        take_settings();
        between();
        const hold_lock_t held(lock_);
        if (stop_) {
            return false;
        }
        if (!small_.empty()) {
            continue;
        }
        if (!sealings_.empty()) {
            *job = std::move(sealings_.front());
            sealings_.pop_front();
            return true;
        }
        if (!fresh_) {
            (void)work_.wait_until(lock_, std::chrono::steady_clock::now() + std::chrono::seconds(1));
        }
    }
}

void keeper_t::take_settings()
{
    {
        const hold_lock_t held(lock_);
        if (!fresh_) {
            return;
        }
        settings_ = std::move(*fresh_);
        fresh_.reset();
    }
    archive_->configure(settings_.archive, settings_.probes);
}

void keeper_t::between()
{
    for (;;) {
        job_t job;
        {
            const hold_lock_t held(lock_);
            if (stop_ || small_.empty()) {
                break;
            }
            job = std::move(small_.front());
            small_.pop_front();
        }
        std::visit([this](const auto &what) { do_job(what); }, job);
    }
    if (!stop_ && (is_buried_ || monotonic_now_ns() >= measured_at_ + MEASURE_NS)) {
        is_buried_ = false;
        measure();
        measured_at_ = monotonic_now_ns();
    }
}

// Jobs.

bool keeper_t::has_changed_lately(const capture_t &capture)
{
    const uint64_t now = wall_now_ns();
    for (const part_t &part : capture.parts) {
        if (!part.local) {
            continue;
        }
        for (const raw_file_t &file : archive_->raw_files(part.probe)) {
            // One of the future was not written now: the clock was set back.
            const bool is_fresh = file.mtime_ns + REST_NS > now && file.mtime_ns < now + REST_NS;
            if (file.id == capture.id && is_fresh) {
                return true;
            }
        }
    }
    return false;
}

void keeper_t::do_job(const seal_job_t &job)
{
    const uint64_t begin = monotonic_now_ns();
    uint64_t asked = 0;
    const auto stop = [this, &asked] {
        if (++asked % 4096 == 0) {
            between();
        }
        return stop_.load();
    };
    seal_result_t result{job.capture.id, {}, false, {}, 0};
    try {
        result.sealed = archive_->find(job.capture.id); // by an earlier life, before the catalogue knew
        if (!result.sealed && job.must_rest && has_changed_lately(job.capture)) {
            result.early = true;
        } else if (!result.sealed) {
            result.sealed = archive_->seal(job.capture, stop);
        }
    } catch (const archive_error_t &error) {
        result.early = error.failure() == archive_failure_t::INTERRUPTED;
        result.error = error.what();
    }
    result.seconds = static_cast<double>(monotonic_now_ns() - begin) * 1e-9;
    is_buried_ = true;
    told_(std::move(result));
}

void keeper_t::do_job(const raw_job_t &job)
{
    try {
        (void)archive_->remove_raw(job.id); // what stays is told by the sweep
        is_buried_ = true;
        raw_listed_at_ = 0; // else they count twice, as raw and as sealed ones
    } catch (const archive_error_t &error) {
        log_warning("raw files of " + job.id.text() + ": " + error.what());
    }
}

void keeper_t::do_job(const bury_job_t &job)
{
    bury_result_t result{job.id, {}};
    try {
        (void)archive_->remove_raw(job.id);
        archive_->bury(job.id, job.cause, job.at);
        is_buried_ = true;
        raw_listed_at_ = 0;
    } catch (const archive_error_t &error) {
        result.error = error.what();
    }
    told_(std::move(result));
}

void keeper_t::do_job(const look_job_t &job)
{
    look_result_t result{job.probe, false, {}};
    try {
        for (const raw_file_t &file : archive_->raw_files(job.probe)) {
            result.ids.insert(file.id);
        }
        result.readable = true;
    } catch (const archive_error_t &error) {
        log_warning("files of " + job.probe + ": " + error.what());
    }
    told_(std::move(result));
}

// What is due.

// Raw directories are listed now and then; the free space, which decides, is asked each time.
void keeper_t::measure()
{
    const uint64_t now = monotonic_now_ns();
    if (raw_listed_at_ == 0 || now >= raw_listed_at_ + RAW_LIST_NS) {
        raw_listed_at_ = now;
        const bool is_sweep = swept_at_ == 0 || now >= swept_at_ + SWEEP_NS;
        swept_at_ = is_sweep ? now : swept_at_;
        raw_bytes_ = 0;
        for (const probe_settings_t &probe : settings_.probes) {
            if (!probe.files.empty()) {
                list_raw(probe.name, is_sweep);
            }
        }
    }
    try {
        // Candidates first: one whose deletion is committed meanwhile is among both, never among neither.
        const std::vector<candidate_t> oldest = catalogue_->oldest_sealed(CANDIDATES);
        const totals_t totals = catalogue_->totals();
        room_result_t result;
        result.view = archive_->measure(totals.sealed_bytes,
                                        totals.by_state[static_cast<size_t>(capture_state_t::SEALED)],
                                        totals.oldest_sealed, raw_bytes_);
        result.victims = victims(oldest, result.view, totals.leaving_bytes);
        chosen_at_ = result.victims.empty() ? chosen_at_ : now;
        const bool makes_room =
            !result.victims.empty() ||
            (totals.leaving_bytes != 0 && now < chosen_at_ + DELETION_NS && chosen_at_ != 0);
        result.view.room = makes_room ? room_t::ENOUGH : room_left(result.view);
        add_lookups(&result.victims);
        told_(std::move(result));
    } catch (const std::runtime_error &error) { // of the archive or the catalogue
        log_warning(std::string("the room on the disk is not known: ") + error.what());
    }
}

// The room of captures whose deletion is decided, but not done, is not free yet. It counts as if it were: else each
// look at the disk until then would choose others in addition.
std::vector<victim_t> keeper_t::victims(const std::vector<candidate_t> &oldest, archive_view_t view,
                                        uint64_t leaving_bytes)
{
    std::vector<sealed_entry_t> entries;
    for (const candidate_t &candidate : oldest) {
        if (!archive_->is_read(candidate.id)) {
            entries.push_back({candidate.id, candidate.sealed_at, candidate.bytes});
        }
    }
    view.archive_free_bytes += leaving_bytes;
    return choose_victims(entries, view, settings_.archive, wall_now_ns());
}

void keeper_t::add_lookups(std::vector<victim_t> *victims)
{
    for (const ulid_t &id : catalogue_->expired_lookups(wall_now_ns(), CANDIDATES)) {
        if (!archive_->is_read(id)) {
            victims->push_back({id, "a lookup that was not kept"});
        }
    }
}

void keeper_t::list_raw(const std::string &probe, bool is_sweep)
{
    sweep_result_t result{probe, {}, {}, 0, {}};
    try {
        const std::vector<raw_file_t> files = archive_->raw_files(probe);
        for (const raw_file_t &file : files) {
            raw_bytes_ += file.bytes;
        }
        if (is_sweep) {
            sweep(files, &result);
        }
    } catch (const std::runtime_error &error) { // of the archive or the catalogue
        result.error = error.what();
    }
    if (is_sweep || !result.error.empty()) {
        told_(std::move(result));
    }
}

// Whose are the raw files? Those of sealed captures go, as far as the manifest names them.
void keeper_t::sweep(const std::vector<raw_file_t> &files, sweep_result_t *result)
{
    std::vector<ulid_t> ids;
    ids.reserve(files.size());
    for (const raw_file_t &file : files) {
        ids.push_back(file.id);
    }
    std::sort(ids.begin(), ids.end());
    ids.erase(std::unique(ids.begin(), ids.end()), ids.end());
    const auto states = catalogue_->states(ids);
    for (const ulid_t &id : ids) {
        const auto state = states.find(id);
        if (state != states.end() && state->second == capture_state_t::SEALED) {
            try {
                (void)archive_->remove_raw(id);
            } catch (const archive_error_t &error) { // the others are looked at all the same
                result->error = id.text() + ": " + error.what();
            }
        } else if (state != states.end() && state->second != capture_state_t::DELETED) {
            result->unsealed.push_back(id);
        }
    }
    for (const raw_file_t &file : files) {
        const auto state = states.find(file.id);
        const bool is_stray = state == states.end() || state->second == capture_state_t::DELETED ||
                              (state->second == capture_state_t::SEALED && !is_source(file));
        result->strays += is_stray ? 1 : 0;
        result->example = is_stray && result->example.empty() ? file.name : result->example;
    }
}

bool keeper_t::is_source(const raw_file_t &file)
{
    try {
        const std::vector<std::string> sources = archive_->sources(file.id, file.probe);
        return std::find(sources.begin(), sources.end(), file.name) != sources.end();
    } catch (const archive_error_t &) { // told by the sweep
        return true;
    }
}

} // namespace kestrune::manager
