// The keeper: the archive's work, one job after the other, and between them what is due: each second the room on
// the disk and what retention chooses, each minute the sweep of the raw directories. What makes room goes before what
// needs it: deletions wait for no sealing.
//
// Threads: one, begun by start and ended by stop; give is for any. A long sealing asks the same "what is due?"
// at its packets, so that all else is not held up by it.
#pragma once

#include "captures/notes.h"
#include "model/lock.h"

#include <atomic>
#include <cstdint>
#include <deque>
#include <functional>
#include <string>
#include <thread>
#include <vector>

namespace kestrune::manager {

class keeper_t {
public:
    using told_t = std::function<void(keeper_result_t)>; // called on the keeper's thread; must not block

    // Borrowed; they outlive the keeper.
    keeper_t(archive_t *archive, catalogue_t *catalogue, told_t told);
    ~keeper_t();
    void start(const settings_t &settings);
    void reload(const settings_t &settings); // taken between two jobs
    void stop();                             // ends a sealing at its next packet; waits
    void give(std::vector<job_t> jobs);

private:
    void run();
    bool take(job_t *job); // false: stop
    void between();        // what is due; also in the middle of a sealing
    void take_settings();
    void do_job(const seal_job_t &job);
    void do_job(const raw_job_t &job);
    void do_job(const bury_job_t &job);
    void do_job(const look_job_t &job);
    bool has_changed_lately(const capture_t &capture);
    void measure();
    // Of the oldest captures; `leaving_bytes` are being deleted already.
    std::vector<victim_t> victims(const std::vector<candidate_t> &oldest, archive_view_t view,
                                  uint64_t leaving_bytes);
    void add_lookups(std::vector<victim_t> *victims); // those that are over and were not kept
    void list_raw(const std::string &probe, bool is_sweep);
    void sweep(const std::vector<raw_file_t> &files, sweep_result_t *result);
    bool is_source(const raw_file_t &file); // its capture's manifest names it

    archive_t *archive_;
    catalogue_t *catalogue_;
    told_t told_;
    std::thread thread_;
    std::atomic<bool> stop_{false};

    lock_t lock_;
    condition_t work_;
    std::deque<job_t> sealings_ KS_GUARDED_BY(lock_);
    std::deque<job_t> small_ KS_GUARDED_BY(lock_); // all others, which go first
    std::optional<settings_t> fresh_ KS_GUARDED_BY(lock_);

    // The thread's own.
    settings_t settings_;
    uint64_t measured_at_ = 0; // monotonic
    uint64_t swept_at_ = 0;
    uint64_t raw_listed_at_ = 0;
    uint64_t raw_bytes_ = 0;
    uint64_t chosen_at_ = 0; // retention chose something
    bool is_buried_ = false; // a job since the last measure made or freed room
};

} // namespace kestrune::manager
