#include "probes/updates.h"

#include "common/clock.h"
#include "probes/metrics.h"

#include <algorithm>
#include <optional>
#include <utility>

namespace kestrune::manager {

namespace {

constexpr milliseconds_t METRICS_PERIOD{5000};
constexpr milliseconds_t METRICS_TIME{2000};
// The plugin ends a registration without notice when an INCIDENT found no room. After silence it is renewed.
constexpr milliseconds_t QUIET_TIME{60000};

void register_anew(session_t *session)
{
    try {
        session->updates_off();
    } catch (const client_error_t &error) {
        if (error.failure() != failure_t::REFUSED) { // that is a registration which is gone
            throw;
        }
    }
    session->updates_on();
}

// What a probe may send: far above what one does, whose rules each change their progress once in 5 s. More would fill
// the memory of whoever takes them.
class allowance_t {
public:
    bool take()
    {
        const auto now = steady_t::now();
        left_ = std::min(BURST, left_ + std::chrono::duration<double>(now - last_).count() * PER_S) - 1;
        last_ = now;
        return left_ >= 0;
    }

private:
    static constexpr double BURST = 50'000;
    static constexpr double PER_S = 10'000;
    double left_ = BURST;
    steady_t::time_point last_ = steady_t::now();
};

[[noreturn]] void pass_on(const context_t &context, session_t *session, uint64_t number)
{
    for (allowance_t allowance;;) {
        if (std::optional<update_t> update = session->next_update(steady_t::now() + QUIET_TIME)) {
            if (!allowance.take()) {
                throw client_error_t(failure_t::MALFORMED, "the probe sends updates without end");
            }
            context.sink(updated_t{context.settings.name, number, std::move(*update)});
        } else {
            register_anew(session);
        }
    }
}

// Holds a session until it ends; how long it stood, nothing when there was none.
std::optional<milliseconds_t> hold_session(const context_t &context)
{
    uint64_t number = 0;
    steady_t::time_point began;
    try {
        session_t session(context.settings.endpoint, context.session_options());
        session.updates_on();
        began = steady_t::now();
        number = context.next_session();
        context.record->set_updates_error("");
        context.sink(session_began_t{context.settings.name, number, true});
        pass_on(context, &session, number);
    } catch (const client_error_t &error) {
        const std::string text = error.failure() == failure_t::REFUSED
                                     ? "the probe takes no more clients for updates"
                                     : sentence(error);
        context.record->set_updates_error(text);
        context.sink(session_ended_t{context.settings.name, number, true,
                                     error.failure() == failure_t::NO_LISTENER, wall_now_ns(), text});
    }
    if (number == 0) {
        return std::nullopt;
    }
    return std::chrono::duration_cast<milliseconds_t>(steady_t::now() - began);
}

} // namespace

void run_updates(const context_t &context, const std::function<void()> &ended)
{
    backoff_t backoff;
    for (bool stopped = context.stopped(); !stopped;) {
        const std::optional<milliseconds_t> stood = hold_session(context);
        if (stood) {
            ended();
        }
        stopped = context.pause(backoff.after(stood.value_or(milliseconds_t{0})), &context.came_back);
    }
}

void run_metrics(const context_t &context)
{
    for (bool stopped = context.stopped(); !stopped; stopped = context.pause(METRICS_PERIOD)) {
        try {
            const std::string text = fetch_metrics(*context.settings.metrics, context.settings.metrics_path,
                                                   steady_t::now() + METRICS_TIME, context.stop.fd());
            context.record->counted(parse_metrics(text));
        } catch (const client_error_t &error) {
            context.record->not_counted(sentence(error));
        }
    }
}

} // namespace kestrune::manager
