#include "probes/requests.h"

#include "common/clock.h"

#include <algorithm>
#include <utility>

namespace kestrune::manager {

namespace {

constexpr milliseconds_t POLL_PERIOD{1000};
constexpr milliseconds_t FULL_TIME{100}; // in which a probe without a free place for a connection ends it
constexpr milliseconds_t INCOMPATIBLE_PAUSE{10000};
constexpr size_t RULES_MAX = 65536; // no probe has so many; longer lists each second would fill the memory
constexpr uint64_t BYTES_PER_MB = 1048576;
constexpr const char *UNKNOWN_END = "the connection was lost before the probe answered: it may have done it";

milliseconds_t since(steady_t::time_point begin)
{
    return std::chrono::duration_cast<milliseconds_t>(steady_t::now() - begin);
}

// Asks that one call of the session can take.
bool same_run(const ask_t &a, const ask_t &b)
{
    return a.kind == b.kind && a.kind != ask_kind_t::LIST &&
           (a.kind != ask_kind_t::REMOVE || a.direction == b.direction);
}

std::vector<answer_t> answers_for(std::span<const ask_t> asks, outcome_t outcome)
{
    std::vector<answer_t> answers;
    answers.reserve(asks.size());
    for (const ask_t &ask : asks) {
        answers.push_back({ask.kind, ask.tag, outcome, {}});
    }
    return answers;
}

std::vector<ip_addr_t> addresses_of(std::span<const ask_t> asks)
{
    std::vector<ip_addr_t> addrs;
    addrs.reserve(asks.size());
    for (const ask_t &ask : asks) {
        addrs.push_back(ask.addr);
    }
    return addrs;
}

std::vector<add_request_t> adds_of(std::span<const ask_t> asks)
{
    std::vector<add_request_t> adds;
    adds.reserve(asks.size());
    for (const ask_t &ask : asks) {
        adds.push_back({ask.addr, ask.direction, ask.limits.packets, ask.limits.seconds, ask.name});
    }
    return adds;
}

// Runs a call that fills one item an answered ask, and copies what was answered, also when the call throws.
template <typename Item, typename Call, typename Copy>
void keep_answered(const Call &call, const Copy &copy)
{
    std::vector<Item> items;
    const auto copy_all = [&] {
        for (size_t i = 0; i < items.size(); i++) {
            copy(i, items[i]);
        }
    };
    try {
        call(&items);
    } catch (const client_error_t &) {
        copy_all();
        throw;
    }
    copy_all();
}

bool is_of_another_version(const client_error_t &error)
{
    return error.failure() == failure_t::VERSION || error.failure() == failure_t::UNRECOGNIZED;
}

} // namespace

void requests_t::run()
{
    backoff_t backoff;
    for (bool stopped = context_.stopped(); !stopped;) {
        const ended_t ended = hold_session();
        if (!ended.at_once) {
            set_accepting(false);
        }
        milliseconds_t pause{0};
        if (ended.at_once) {
            backoff = {};
        } else {
            pause = backoff.after(ended.stood);
        }
        stopped = context_.pause(ended.state == probe_state_t::INCOMPATIBLE ? INCOMPATIBLE_PAUSE : pause);
    }
    set_accepting(false);
}

void requests_t::wake_to_stop()
{
    const hold_lock_t held(lock_);
    stopping_ = true;
    news_.notify_all();
}

// Connects, and serves until the session ends.
requests_t::ended_t requests_t::hold_session()
{
    uint64_t number = 0;
    auto began = steady_t::now();
    bool connected = false;
    try {
        session_t session(context_.settings.endpoint, context_.session_options());
        connected = true;
        const msg_hb_info_t info = greet(&session);
        was_cut_off_ = connected = false;
        number = context_.next_session();
        began = steady_t::now();
        context_.record->came_up();
        context_.sink(session_began_t{context_.settings.name, number, false});
        context_.came_back.give();
        set_accepting(true);
        context_.record->polled(info, {});
        serve(&session, number);
        return tell_end(client_error_t(failure_t::INTERRUPTED, "the manager no longer asks this probe"),
                        number, {});
    } catch (const client_error_t &error) {
        const bool cut_off = connected && error.failure() == failure_t::CLOSED;
        if (cut_off && was_cut_off_) {
            return tell_end(client_error_t(failure_t::VERSION,
                                           "the probe ends the connection at the first request: "
                                           "its plugin is of another version"),
                            0, {});
        }
        was_cut_off_ = cut_off;
        return tell_end(error, number, number != 0 ? since(began) : milliseconds_t{0});
    }
}

// The first request. A plugin of another version ends the connection at it, one that serves all the connections it
// can does so before it.
msg_hb_info_t requests_t::greet(session_t *session)
{
    if (was_cut_off_) {
        try {
            (void)session->next_update(steady_t::now() + FULL_TIME);
        } catch (const client_error_t &error) {
            throw client_error_t(error.failure() == failure_t::CLOSED ? failure_t::CONNECT : error.failure(),
                                 "the probe has no place for a connection more, or is about to end");
        }
    }
    return session->history_info();
}

requests_t::ended_t requests_t::tell_end(const client_error_t &error, uint64_t number, milliseconds_t stood)
{
    const std::string text = sentence(error);
    const ended_t ended = {stood, number != 0 && error.failure() == failure_t::CLOSED && stood >= STEADY_TIME,
                           is_of_another_version(error) ? probe_state_t::INCOMPATIBLE : probe_state_t::DOWN};
    if (!context_.stopped()) { // else nothing is wrong
        context_.record->went_down(ended.state, text);
    }
    context_.sink(session_ended_t{context_.settings.name, number, false,
                                  error.failure() == failure_t::NO_LISTENER, wall_now_ns(), text});
    return ended;
}

// Until it is time to stop; the session's errors end it.
void requests_t::serve(session_t *session, uint64_t number)
{
    auto next_poll = steady_t::now();
    for (;;) {
        std::optional<work_t> work;
        switch (next_turn(next_poll, &work)) {
        case turn_t::STOP:
            return;
        case turn_t::WORK:
            carry_out(session, number, std::move(*work));
            break;
        case turn_t::POLL:
            poll(session, number);
            next_poll = steady_t::now() + POLL_PERIOD;
            break;
        }
    }
}

// Told before it returns.
size_t requests_t::list(session_t *session, uint64_t number) const
{
    rule_list_t rules = session->list(msg_target::ALL);
    if (rules.size() > RULES_MAX) {
        throw client_error_t(failure_t::MALFORMED,
                             "the probe lists " + std::to_string(rules.size()) + " rules");
    }
    const size_t rule_count = rules.size();
    context_.sink(listed_t{context_.settings.name, number, std::move(rules)});
    return rule_count;
}

void requests_t::poll(session_t *session, uint64_t number)
{
    const size_t rule_count = list(session, number);
    context_.record->polled(session->history_info(), rule_count);
}

void requests_t::carry_out(session_t *session, uint64_t number, work_t work)
{
    try { // a connection that has ended meanwhile is noticed before anything is sent on it
        (void)session->next_update(steady_t::now());
    } catch (const client_error_t &) {
        put_back(std::move(work));
        throw;
    }
    if (const auto *batch = std::get_if<batch_t>(&work)) {
        send(session, number, *batch);
    } else {
        apply(session, std::get<change_work_t>(work));
    }
}

void requests_t::send(session_t *session, uint64_t number, const batch_t &batch)
{
    const std::span<const ask_t> asks(batch);
    for (size_t begin = 0, end = 0; begin < asks.size(); begin = end) {
        for (end = begin + 1; end < asks.size() && same_run(asks[begin], asks[end]);) {
            end++;
        }
        const std::span<const ask_t> run = asks.subspan(begin, end - begin);
        std::vector<answer_t> answers = answers_for(run, outcome_t::LOST);
        try {
            send_run(session, number, run, &answers);
        } catch (const client_error_t &) {
            std::ranges::move(answers_for(asks.subspan(end), outcome_t::NOT_SENT),
                              std::back_inserter(answers));
            tell(number, std::move(answers));
            throw;
        }
        tell(number, std::move(answers));
    }
}

void requests_t::send_run(session_t *session, uint64_t number, std::span<const ask_t> run,
                          std::vector<answer_t> *answers)
{
    const auto copy_status = [&](size_t i, bool taken) {
        (*answers)[i].outcome = taken ? outcome_t::DONE : outcome_t::REFUSED;
    };
    switch (run.front().kind) {
    case ask_kind_t::ADD:
        keep_answered<bool>([&](auto *taken) { session->add_many(adds_of(run), taken); }, copy_status);
        break;
    case ask_kind_t::REMOVE:
        keep_answered<bool>(
            [&](auto *taken) { session->remove_many(addresses_of(run), run.front().direction, taken); },
            copy_status);
        break;
    case ask_kind_t::DETAIL:
        keep_answered<std::optional<detail_t>>(
            [&](auto *details) { session->detail_many(addresses_of(run), details); },
            [&](size_t i, std::optional<detail_t> &detail) {
                copy_status(i, detail.has_value());
                (*answers)[i].detail = std::move(detail);
            });
        break;
    case ask_kind_t::LIST:
        (void)list(session, number);
        copy_status(0, true);
        break;
    }
}

void requests_t::apply(session_t *session, const change_work_t &work)
{
    std::string text;
    try {
        if (const auto *history = std::get_if<history_change_t>(&work.change)) {
            text = apply_history(session, *history);
        } else {
            session->set_heavy_size(std::get<heavy_change_t>(work.change).packets);
        }
        context_.record->polled(session->history_info(), {}); // whoever waits reads the new state
    } catch (const client_error_t &) {
        work.done(UNKNOWN_END);
        throw;
    }
    work.done(text);
}

// The sentence for a refusal; empty when the history is as wanted.
std::string requests_t::apply_history(session_t *session, const history_change_t &change)
{
    const msg_hb_info_t info = session->history_info();
    const uint64_t queues = std::max<uint32_t>(info.queue_count, 1);
    const uint64_t size =
        change.on ? change.size_mb * BYTES_PER_MB / queues * queues : 0; // as the plugin divides it
    if (info.size == size) {
        return "";
    }
    try {
        if (info.size > 0) {
            session->history_off();
        }
        if (change.on) {
            session->history_on(change.size_mb);
        }
    } catch (const client_error_t &error) {
        if (error.failure() != failure_t::REFUSED) {
            throw;
        }
        return error.action() == msg_action::HISTORY && change.on
                   ? "the probe refused a history of this size: it may lack the memory (its log says why)"
                   : "the probe refused: some of its queues have a history and others none (its log says "
                     "why)";
    }
    return "";
}

void requests_t::poll_now()
{
    const hold_lock_t held(lock_);
    poll_now_ = true;
    news_.notify_one();
}

void requests_t::submit(batch_t batch)
{
    {
        const hold_lock_t held(lock_);
        if (accepting_) {
            work_.emplace_back(std::move(batch));
            news_.notify_one();
            return;
        }
    }
    refuse(std::move(batch));
}

void requests_t::change(const probe_change_t &change, std::function<void(std::string)> done)
{
    {
        const hold_lock_t held(lock_);
        if (accepting_) {
            work_.emplace_back(change_work_t{change, std::move(done)});
            news_.notify_one();
            return;
        }
    }
    refuse(change_work_t{change, std::move(done)});
}

// Waits for work, the time of the next poll, or the stop. A poll that is overdue by a whole period goes first, so
// that batches without end cannot hide that a rule is over.
requests_t::turn_t requests_t::next_turn(steady_t::time_point next_poll, std::optional<work_t> *work)
{
    const hold_lock_t held(lock_);
    while (!stopping_) {
        const auto now = steady_t::now();
        if (!work_.empty() && now < next_poll + POLL_PERIOD) {
            *work = std::move(work_.front());
            work_.pop_front();
            return turn_t::WORK;
        }
        if (now >= next_poll || poll_now_) {
            poll_now_ = false;
            return turn_t::POLL;
        }
        (void)news_.wait_until(lock_, next_poll);
    }
    return turn_t::STOP;
}

void requests_t::put_back(work_t work)
{
    const hold_lock_t held(lock_);
    work_.push_front(std::move(work));
}

// Without accepting, what waits is refused.
void requests_t::set_accepting(bool accepting)
{
    std::deque<work_t> waiting;
    {
        const hold_lock_t held(lock_);
        accepting_ = accepting;
        if (!accepting) {
            waiting.swap(work_);
        }
    }
    for (work_t &work : waiting) {
        refuse(std::move(work));
    }
}

void requests_t::refuse(work_t work) const
{
    if (const auto *batch = std::get_if<batch_t>(&work)) {
        tell(0, answers_for(*batch, outcome_t::NOT_SENT));
    } else {
        std::get<change_work_t>(work).done("the probe is not reachable");
    }
}

void requests_t::tell(uint64_t number, std::vector<answer_t> answers) const
{
    if (!answers.empty()) {
        context_.sink(answers_t{context_.settings.name, number, std::move(answers)});
    }
}

} // namespace kestrune::manager
