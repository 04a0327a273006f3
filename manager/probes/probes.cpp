#include "probes/probes.h"

#include "model/lock.h"
#include "probes/link.h"
#include "probes/updates.h"

#include <algorithm>
#include <pthread.h>
#include <utility>

namespace kestrune::manager {

link_t::link_t(const probe_settings_t &settings, uint32_t min_reach_s, const probe_sink_t &sink,
               std::atomic<uint64_t> *sessions, events_t *events)
    : record_(settings, min_reach_s, events), context_{settings, sink, sessions, &record_, {}, {}},
      requests_(context_)
{
    const auto start = [this](const char *name, auto body) {
        threads_.emplace_back([name, body] {
            pthread_setname_np(pthread_self(), name);
            body();
        });
    };
    start("probe-req", [this] { requests_.run(); });
    start("probe-upd", [this] { run_updates(context_, [this] { requests_.poll_now(); }); });
    if (settings.metrics) {
        start("probe-met", [this] { run_metrics(context_); });
    }
}

link_t::~link_t()
{
    request_stop();
    join();
}

void link_t::request_stop()
{
    context_.stop.give();
    requests_.wake_to_stop();
}

void link_t::join()
{
    for (std::thread &thread : threads_) {
        thread.join();
    }
    threads_.clear();
}

namespace {

class sessions_t : public probes_t {
public:
    sessions_t(probe_sink_t sink, events_t *events) : sink_(std::move(sink)), events_(events) {}
    ~sessions_t() override { stop(); }

    void configure(const std::vector<probe_settings_t> &probes, uint32_t min_reach_s) override
    {
        const links_t before = links();
        std::vector<std::shared_ptr<link_t>> ended;
        links_t after;
        for (const std::shared_ptr<link_t> &link : before) {
            if (std::ranges::none_of(probes, [&](const auto &probe) { return probe == link->settings(); })) {
                link->request_stop();
                ended.push_back(link);
            }
        }
        finish(ended);
        for (const probe_settings_t &probe : probes) {
            const auto kept =
                std::ranges::find_if(before, [&](const auto &link) { return link->settings() == probe; });
            if (kept != before.end()) {
                (*kept)->record().set_min_reach(min_reach_s);
                after.push_back(*kept);
            } else {
                after.push_back(
                    std::make_shared<link_t>(probe, min_reach_s, sink_, &session_count_, events_));
            }
        }
        const hold_lock_t held(lock_);
        links_ = std::move(after);
    }

    void stop() override
    {
        const links_t all = links();
        for (const std::shared_ptr<link_t> &link : all) {
            link->request_stop();
        }
        for (const std::shared_ptr<link_t> &link : all) {
            link->join();
        }
    }

    void submit(const std::string &probe, batch_t batch) override
    {
        if (const std::shared_ptr<link_t> link = find(probe)) {
            link->requests().submit(std::move(batch));
            return;
        }
        answers_t answers = {probe, 0, {}};
        for (const ask_t &ask : batch) {
            answers.answers.push_back({ask.kind, ask.tag, outcome_t::NOT_SENT, {}});
        }
        sink_(std::move(answers));
    }

    void change(const std::string &probe, const probe_change_t &change,
                std::function<void(std::string)> done) override
    {
        if (const std::shared_ptr<link_t> link = find(probe)) {
            link->requests().change(change, std::move(done));
            return;
        }
        done("there is no probe of this name");
    }

    std::vector<probe_view_t> views() const override
    {
        std::vector<probe_view_t> views;
        for (const std::shared_ptr<link_t> &link : links()) {
            views.push_back(link->record().view());
        }
        return views;
    }

    std::optional<probe_view_t> view(const std::string &probe) const override
    {
        const std::shared_ptr<link_t> link = find(probe);
        return link ? std::optional(link->record().view()) : std::nullopt;
    }

    std::optional<series_t> series(const std::string &probe, uint64_t from, uint32_t step_s) const override
    {
        const std::shared_ptr<link_t> link = find(probe);
        return link ? std::optional(link->record().series(from, step_s)) : std::nullopt;
    }

private:
    using links_t = std::vector<std::shared_ptr<link_t>>;

    links_t links() const
    {
        const hold_lock_t held(lock_);
        return links_;
    }

    std::shared_ptr<link_t> find(const std::string &probe) const
    {
        for (const std::shared_ptr<link_t> &link : links()) {
            if (link->settings().name == probe) {
                return link;
            }
        }
        return nullptr;
    }

    static void finish(const links_t &ended)
    {
        for (const std::shared_ptr<link_t> &link : ended) {
            link->join();
            link->record().retire();
        }
    }

    const probe_sink_t sink_;
    events_t *const events_;
    std::atomic<uint64_t> session_count_ = 0;
    mutable lock_t lock_;
    links_t links_ KS_GUARDED_BY(lock_); // in the order of the configuration
};

} // namespace

std::unique_ptr<probes_t> make_probes(probe_sink_t sink, events_t *events)
{
    return std::make_unique<sessions_t>(std::move(sink), events);
}

} // namespace kestrune::manager
