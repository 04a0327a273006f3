#include "client/ctl/commands.h"

#include "client/ctl/add.h"
#include "client/ctl/advice.h"
#include "client/ctl/interrupt.h"
#include "client/ctl/list.h"
#include "manager/archive/verify.h"

namespace kestrune {

namespace {

result_t result_of(session_t *session, const options_t &options)
{
    switch (options.command) {
    case command_t::SHOW:
        return shown_t{session->detail(options.addrs.front())};
    case command_t::HISTORY_ON:
        session->history_on(options.size_mb);
        return history_on_t{options.size_mb};
    case command_t::HISTORY_OFF:
        session->history_off();
        return history_off_t{};
    case command_t::HISTORY_STATUS:
        return history_state_t{session->history_info()};
    case command_t::HEAVY:
        session->set_heavy_size(options.heavy);
        return heavy_t{options.heavy};
    default: // the others do more than one request
        return {};
    }
}

std::vector<answer_t> add(session_t *session, const options_t &options, const endpoint_t &endpoint)
{
    std::vector<answer_t> answers = add_rules(session, options, endpoint);
    if (options.several) {
        answers.push_back(summary_of(answers, options, endpoint));
    }
    return answers;
}

std::vector<answer_t> remove(session_t *session, const options_t &options, const endpoint_t &endpoint)
{
    std::vector<bool> taken;
    session->remove_many(options.addrs, options.direction, &taken);
    std::vector<answer_t> answers;
    for (size_t i = 0; i < taken.size(); i++) {
        const removed_t removed = {options.addrs[i], options.direction};
        answers.push_back({endpoint.text(), command_name(options.command), EXIT_DONE, "", removed});
        if (!taken[i]) {
            answers.back().status = EXIT_REFUSED;
            answers.back().error = refusal_text(msg_action::REMOVE, removed.addr, options);
        }
    }
    return answers;
}

} // namespace

std::vector<answer_t> ask(session_t *session, const options_t &options, const endpoint_t &endpoint)
{
    switch (options.command) {
    case command_t::ADD:
        return add(session, options, endpoint);
    case command_t::REMOVE:
        return remove(session, options, endpoint);
    case command_t::LIST:
        return {list_rules(session, options, endpoint)};
    default:
        return {{endpoint.text(), command_name(options.command), EXIT_DONE, "", result_of(session, options)}};
    }
}

answer_t merge(const options_t &options)
{
    const merge_result_t result =
        merge_files({options.inputs, options.output, options.force, options.cut, interrupted});
    return {"", command_name(options.command), EXIT_DONE, "",
            merged_t{options.output, options.inputs, result}};
}

std::vector<answer_t> verify(const options_t &options)
{
    std::vector<answer_t> answers;
    for (const std::string &path : options.inputs) {
        for (const manager::verdict_t &verdict : manager::verify_path(path)) {
            const int status = verdict.good ? EXIT_DONE : EXIT_FAILED;
            const std::string error = verdict.good ? "" : verdict.path.string() + ": " + verdict.text;
            answers.push_back({"", command_name(options.command), status, error,
                               verified_t{verdict.path.string(), verdict.good, verdict.text}});
        }
    }
    return answers;
}

} // namespace kestrune
