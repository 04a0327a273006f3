// The threads that answer requests and send files, and their queue. A job may wait for the disk or the catalogue, never
// for a client.
//
// Threads: any may add; start and stop belong to the server.
#pragma once

#include "model/lock.h"

#include <cstddef>
#include <deque>
#include <functional>
#include <thread>
#include <vector>

namespace kestrune::manager {

class workers_t {
public:
    using job_t = std::function<void()>; // throws nothing

    workers_t() = default;
    ~workers_t() { stop(); }
    workers_t(const workers_t &) = delete;
    workers_t &operator=(const workers_t &) = delete;

    void start(size_t count);
    // Carries out what waits, then ends the threads.
    void stop();

    // False when `most` jobs wait already, or after stop; the job is not taken then.
    [[nodiscard]] bool add(job_t job, size_t most);

private:
    void run();

    lock_t lock_;
    condition_t news_;
    std::deque<job_t> jobs_ KS_GUARDED_BY(lock_);
    bool stopping_ KS_GUARDED_BY(lock_) = true;
    std::vector<std::thread> threads_; // of start and stop
};

} // namespace kestrune::manager
