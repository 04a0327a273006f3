#include "http/workers.h"

#include <pthread.h>

namespace kestrune::manager {

void workers_t::start(size_t count)
{
    {
        const hold_lock_t hold(lock_);
        stopping_ = false;
    }
    for (size_t i = 0; i < count; ++i) {
        threads_.emplace_back([this] { run(); });
        pthread_setname_np(threads_.back().native_handle(), "http-work");
    }
}

void workers_t::stop()
{
    {
        const hold_lock_t hold(lock_);
        stopping_ = true;
    }
    news_.notify_all();
    for (std::thread &thread : threads_) {
        thread.join();
    }
    threads_.clear();
}

bool workers_t::add(job_t job, size_t most)
{
    {
        const hold_lock_t hold(lock_);
        if (stopping_ || jobs_.size() >= most) {
            return false;
        }
        jobs_.push_back(std::move(job));
    }
    news_.notify_one();
    return true;
}

void workers_t::run()
{
    for (;;) {
        job_t job;
        {
            const hold_lock_t hold(lock_);
            while (jobs_.empty() && !stopping_) {
                news_.wait(lock_);
            }
            if (jobs_.empty()) {
                return;
            }
            job = std::move(jobs_.front());
            jobs_.pop_front();
        }
        job();
    }
}

} // namespace kestrune::manager
