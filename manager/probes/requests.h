// The requests session of one probe: batches and changes in the order in which they were handed in, and once a second
// LIST and HISTORY INFO. Inside of probes/.
//
// Threads: run is the body of `probe-req`, started and joined by link_t; it ends when the context's `stop` is given.
// submit and change may be called by any thread. While there is no session and the last attempt to get one was vain,
// they answer themselves, on the caller's thread; so nobody waits for a probe that is down.
#pragma once

#include "model/lock.h"
#include "probes/context.h"

#include <deque>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <variant>

namespace kestrune::manager {

class requests_t {
public:
    explicit requests_t(const context_t &context) : context_(context) {} // borrowed
    void run();
    void wake_to_stop(); // after the context's stop was given
    void poll_now();     // the probe's other connection has ended: has this one?
    void submit(batch_t batch);
    void change(const probe_change_t &change, std::function<void(std::string)> done);

private:
    struct change_work_t {
        probe_change_t change;
        std::function<void(std::string)> done;
    };
    using work_t = std::variant<batch_t, change_work_t>;
    struct ended_t {
        milliseconds_t stood{0};
        bool at_once = false; // try again without a pause, and keep what waits until then
        probe_state_t state = probe_state_t::DOWN;
    };

    ended_t hold_session();
    ended_t tell_end(const client_error_t &error, uint64_t number, milliseconds_t stood);
    msg_hb_info_t greet(session_t *session);
    void serve(session_t *session, uint64_t number);
    size_t list(session_t *session, uint64_t number) const;
    void poll(session_t *session, uint64_t number);
    void carry_out(session_t *session, uint64_t number, work_t work);
    void send(session_t *session, uint64_t number, const batch_t &batch);
    void send_run(session_t *session, uint64_t number, std::span<const ask_t> run,
                  std::vector<answer_t> *answers);
    void apply(session_t *session, const change_work_t &work);
    std::string apply_history(session_t *session, const history_change_t &change);

    enum class turn_t : uint8_t { WORK, POLL, STOP };
    turn_t next_turn(steady_t::time_point next_poll, std::optional<work_t> *work);
    void put_back(work_t work);
    void set_accepting(bool accepting);
    void refuse(work_t work) const;
    void tell(uint64_t number, std::vector<answer_t> answers) const;

    const context_t &context_;
    bool was_cut_off_ = false; // run: the last session ended at its first request
    lock_t lock_;
    condition_t news_;
    std::deque<work_t> work_ KS_GUARDED_BY(lock_);
    bool accepting_ KS_GUARDED_BY(lock_) = true;
    bool poll_now_ KS_GUARDED_BY(lock_) = false;
    bool stopping_ KS_GUARDED_BY(lock_) = false;
};

} // namespace kestrune::manager
