#include "probe/run.h"

#include "common/clock.h"
#include "probe/distributor.h"
#include "probe/error.h"
#include "probe/log.h"
#include "probe/metrics.h"
#include "probe/offload.h"
#include "probe/packet_queue.h"
#include "probe/pipe_input.h"
#include "probe/plugin_module.h"
#include "probe/service.h"
#include "probe/signals.h"

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <functional>
#include <mutex>
#include <thread>

namespace probe {
namespace {

constexpr uint64_t FOR_EVER_NS = UINT64_MAX;

// The threads of a run. The first that fails ends the run; its error is the run's.
class workers_t {
public:
    explicit workers_t(stop_event_t *stop) : stop_(stop) {}
    ~workers_t()
    {
        if (!threads_.empty()) { // an exception ends the run
            stop_->request();
            join();
        }
    }
    workers_t(const workers_t &) = delete;
    workers_t &operator=(const workers_t &) = delete;

    void start(std::function<void()> body)
    {
        const signals_blocked_t blocked; // the signals are the main thread's
        running_.fetch_add(1);
        threads_.emplace_back([this, body = std::move(body)] { guarded(body); });
    }

    bool running() const { return running_.load() > 0; }

    void join()
    {
        for (std::thread &thread : threads_) {
            thread.join();
        }
        threads_.clear();
    }

    // After join.
    void rethrow() const
    {
        if (failure_) {
            std::rethrow_exception(failure_);
        }
    }

private:
    void guarded(const std::function<void()> &body)
    {
        try {
            body();
        } catch (...) {
            const std::lock_guard guard(mutex_);
            failure_ = failure_ ? failure_ : std::current_exception();
            stop_->request();
        }
        running_.fetch_sub(1);
        signals_wake();
    }

    stop_event_t *stop_; // borrowed
    std::atomic<int> running_ = 0;
    std::vector<std::thread> threads_;
    std::mutex mutex_;
    std::exception_ptr failure_; // under mutex_
};

class run_t {
public:
    explicit run_t(const options_t &options) : options_(options), plugin_(nullptr) {}

    void run()
    {
        check_surroundings();
        open_sources();
        plugin_module_t plugin(options_.plugin_path);
        plugin_ = &plugin;
        log_info(1, "plugin %s of %s, %u queues", plugin.description().name, options_.plugin_path.c_str(),
                 options_.queue_count);
        if (options_.heavy) {
            plugin.set_heavy(*options_.heavy);
        }
        plugin.start(options_.plugin_params, options_.queue_count);
        create_queues();
        start_metrics();
        service_.ready(status());
        serve(options_.delay_s > 0 ? monotonic_now_ns() + static_cast<uint64_t>(options_.delay_s * 1e9) : 0);
        hand_packets_on();
        if (options_.stay) {
            serve(FOR_EVER_NS);
        }
        service_.stopping();
        metrics_.reset();
        plugin.stop();
    }

    void print_counters() const
    {
        std::printf("%s\n", counters_text(groups()).c_str());
        std::fflush(stdout);
    }

    bool started() const { return !queues_.empty(); }

private:
    bool live() const { return options_.replay.files.empty(); }

    counter_groups_t groups() const
    {
        counter_groups_t groups;
        for (const auto &counters : reader_counters_) {
            groups.readers.push_back(counters.get());
        }
        for (const auto &queue : queues_) {
            groups.queues.push_back(&queue->counters());
        }
        return groups;
    }

    std::string status() const
    {
        const totals_t counted = totals(groups());
        return "queues: " + std::to_string(options_.queue_count) +
               ", packets: " + std::to_string(counted.read) +
               ", dropped by the kernel: " + std::to_string(counted.kernel_dropped);
    }

    void check_surroundings() const
    {
        if (service_.active() && !addresses_restricted()) {
            log_warning("the control port is open to other machines: the system does not enforce the unit's "
                        "IPAddressDeny=any, or the unit allows more; restrict who can reach it");
        }
        const std::string command = live() ? command_against_merging(options_.interface.name) : "";
        if (!command.empty()) {
            log_warning("%s merges received packets, and captures show them merged; '%s' ends that",
                        options_.interface.name.c_str(), command.c_str());
        }
    }

    void start_metrics()
    {
        if (metrics_ != nullptr) {
            const metrics_source_t source = {options_.interface.name, start_s_, groups()};
            metrics_->start([source] { return metrics_text(source); });
        }
    }

    // Finds errors in the sources before the plugin starts.
    void open_sources()
    {
        if (live()) {
            captures_ = interface_capture_t::open(options_.interface);
            keep_capabilities_from_children();
        }
        if (!options_.metrics_address.empty()) {
            metrics_ = std::make_unique<metrics_server_t>(options_.metrics_address);
        }
        for (const std::string &path : options_.replay.files) {
            if (!is_pipe(path)) { // a pipe's data would be lost
                const capture_file_t file(path);
            }
        }
        const uint32_t readers = live() ? options_.queue_count : 1;
        for (uint32_t i = 0; i < readers; i++) {
            reader_counters_.push_back(std::make_unique<reader_counters_t>());
        }
    }

    void create_queues()
    {
        for (uint32_t i = 0; i < options_.queue_count; i++) {
            queues_.push_back(
                std::make_unique<packet_queue_t>(plugin_->update(), plugin_->instance(i), options_.flows));
        }
    }

    // Let the plugin serve until this time, or until stopped.
    void serve(uint64_t until_ns)
    {
        while (!stop_.requested() && monotonic_now_ns() < until_ns) {
            wait_and_answer(until_ns);
        }
    }

    void wait_and_answer(uint64_t until_ns)
    {
        answer(signals_wait(std::min(until_ns, next_alive_ns_)));
        const uint64_t now = monotonic_now_ns();
        if (service_.active() && now >= next_alive_ns_) {
            service_.alive(status());
            next_alive_ns_ = now + service_.period_ns();
        }
    }

    void answer(const wake_reasons_t &reasons)
    {
        if (reasons.counters) {
            print_counters();
        }
        if (reasons.stop) {
            log_info(1, "stopping");
            service_.stopping();
            stop_.request();
        }
    }

    void hand_packets_on()
    {
        if (stop_.requested()) {
            return;
        }
        workers_t workers(&stop_);
        if (live()) {
            start_captures(&workers);
        } else {
            start_replay(&workers);
        }
        while (workers.running()) {
            wait_and_answer(FOR_EVER_NS);
        }
        workers.join();
        workers.rethrow();
    }

    void start_captures(workers_t *workers)
    {
        const uint64_t start_ns = wall_now_ns();
        log_info(1, "capturing on %s", options_.interface.name.c_str());
        for (uint32_t i = 0; i < options_.queue_count; i++) {
            workers->start([this, i, start_ns] {
                captures_[i]->run(start_ns, stop_, reader_counters_[i].get(), queues_[i].get());
            });
        }
    }

    // A single queue reads for itself; several get their packets from a reading thread.
    void start_replay(workers_t *workers)
    {
        if (options_.queue_count == 1) {
            workers->start([this] { replay(queues_[0].get()); });
            return;
        }
        distributor_ = std::make_unique<distributor_t>(options_.queue_count);
        // The queues' threads wait for finish, even if a thread cannot be started.
        try {
            for (uint32_t i = 0; i < options_.queue_count; i++) {
                workers->start([this, i] { distributor_->lane(i).run(queues_[i].get()); });
            }
            workers->start([this] { replay_to_queues(); });
        } catch (...) {
            distributor_->finish();
            throw;
        }
    }

    void replay_to_queues()
    {
        try {
            replay(distributor_.get());
        } catch (...) {
            distributor_->finish();
            throw;
        }
        distributor_->finish();
    }

    void replay(packet_sink_t *sink)
    {
        replay_files(options_.replay, stop_, reader_counters_[0].get(), sink);
    }

    const options_t &options_;
    service_t service_;
    uint64_t next_alive_ns_ = service_.active() ? 0 : FOR_EVER_NS;
    double start_s_ = static_cast<double>(wall_now_ns()) / 1e9;
    plugin_module_t *plugin_; // borrowed, while run() runs
    stop_event_t stop_;
    std::vector<std::unique_ptr<interface_capture_t>> captures_;
    std::vector<std::unique_ptr<reader_counters_t>> reader_counters_;
    std::vector<std::unique_ptr<packet_queue_t>> queues_;
    std::unique_ptr<distributor_t> distributor_;
    std::unique_ptr<metrics_server_t> metrics_; // reads the counters, so they outlive it
};

} // namespace

void run(const options_t &options)
{
    signals_install();
    run_t run(options);
    try {
        run.run();
    } catch (...) {
        if (run.started()) {
            run.print_counters();
        }
        throw;
    }
    run.print_counters();
}

} // namespace probe
