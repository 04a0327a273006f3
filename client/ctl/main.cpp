// kestrunectl: reads the command line, runs the command on every probe in a thread of its own, and prints the
// answers in the order in which the probes were named (those of --wait as they come).
#include "client/ctl/commands.h"
#include "client/ctl/interrupt.h"
#include "client/merge.h"

#include <algorithm>
#include <functional>
#include <string>
#include <thread>
#include <vector>

namespace kestrune {

session_options_t session_options(const options_t &options)
{
    session_options_t session;
    session.connect_time = options.connect_time;
    session.answer_time = options.answer_time;
    session.interrupt_fd = interrupt_fd();
    // An interrupted --wait has to know whether its rule was added, and to remove it.
    session.finish_requests = options.wait;
    return session;
}

// FAIL gives no reason; the one that users meet can be asked for.
void add_rule(session_t *session, const options_t &options)
{
    try {
        session->add({options.addr, options.direction, options.packets, options.time_limit_s, options.name});
    } catch (const client_error_t &refusal) {
        std::string other;
        try {
            other = refusal.failure() == failure_t::REFUSED ? session->detail(options.addr).name : "";
        } catch (const client_error_t &error) {
            if (error.failure() == failure_t::INTERRUPTED) {
                throw;
            }
            throw refusal; // without a live capture nothing is known of a rule
        }
        if (other.empty() || other.starts_with(options.name)) {
            throw;
        }
        throw client_error_t(failure_t::REFUSED, std::string(ip_addr_text(options.addr).text) +
                                                     " is recorded already, under the name '" +
                                                     printable(other) +
                                                     "': give that name with -n to renew its limits, or "
                                                     "'remove' it first");
    }
}

namespace {

answer_t add(session_t *session, const options_t &options, const endpoint_t &endpoint)
{
    add_rule(session, options);
    answer_t answer = good_answer(options, &endpoint);
    answer.fields["address"] = ip_addr_text(options.addr).text;
    answer.fields["direction"] = direction_name(options.direction);
    answer.fields["name"] = options.name;
    answer.fields["packet_limit"] = options.packets;
    answer.fields["time_limit_s"] = options.time_limit_s;
    return answer;
}

answer_t ask(session_t *session, const options_t &options, const endpoint_t &endpoint)
{
    answer_t answer = good_answer(options, &endpoint);
    switch (options.command) {
    case command_t::ADD:
        return add(session, options, endpoint);
    case command_t::REMOVE:
        session->remove(options.addr, options.direction);
        answer.fields["address"] = ip_addr_text(options.addr).text;
        answer.fields["direction"] = direction_name(options.direction);
        break;
    case command_t::LIST:
        answer.fields["rules"] = rules_fields(session->list(options.filter));
        break;
    case command_t::SHOW:
        answer.fields.update(detail_fields(session->detail(options.addr)));
        break;
    case command_t::HISTORY_ON:
        session->history_on(options.size_mb);
        answer.fields["size_mb"] = options.size_mb != 0 ? json_t(options.size_mb) : json_t(nullptr);
        break;
    case command_t::HISTORY_OFF:
        session->history_off();
        break;
    case command_t::HISTORY_STATUS:
        answer.fields.update(history_fields(session->history_info()));
        break;
    case command_t::HEAVY:
        session->set_heavy_size(options.heavy);
        answer.fields["heavy_size"] = options.heavy;
        break;
    default:
        break;
    }
    return answer;
}

answer_t run_on_probe(const options_t &options, const endpoint_t &endpoint, console_t *console)
{
    try {
        session_t session(endpoint, session_options(options));
        if (options.command == command_t::WATCH) {
            watch(&session, options, endpoint, console);
        }
        return options.wait ? add_and_wait(&session, options, endpoint, console)
                            : ask(&session, options, endpoint);
    } catch (const client_error_t &error) {
        return failed_answer(error, options, &endpoint);
    } catch (const std::exception &error) {
        return failed_answer(client_error_t(failure_t::LOCAL, error.what()), options, &endpoint);
    }
}

int run_on_probes(const options_t &options, console_t *console)
{
    const bool as_they_come = options.wait || options.command == command_t::WATCH;
    const auto print = [&](const answer_t &answer) {
        const bool stopped = options.command == command_t::WATCH && answer.status == EXIT_INTERRUPTED;
        if (!stopped) { // the usual end of a watch
            print_answer(answer, options, console);
        }
    };
    std::vector<answer_t> answers(options.probes.size());
    std::vector<std::thread> threads;
    for (size_t i = 0; i < answers.size(); i++) {
        threads.emplace_back([&, i] {
            answers[i] = run_on_probe(options, options.probes[i], console);
            if (as_they_come) {
                print(answers[i]);
            }
        });
    }
    int status = EXIT_DONE;
    for (size_t i = 0; i < answers.size(); i++) {
        threads[i].join();
        status = std::max(status, answers[i].status);
        if (!as_they_come) {
            print(answers[i]);
        }
    }
    return status;
}

std::string seconds_text(uint64_t nanoseconds)
{
    const std::string fraction = std::to_string(nanoseconds % 1'000'000'000);
    return std::to_string(nanoseconds / 1'000'000'000) + "." + std::string(9 - fraction.size(), '0') +
           fraction;
}

answer_t merge(const options_t &options)
{
    try {
        const merge_result_t result =
            merge_files({options.inputs, options.output, options.force, options.cut, interrupted});
        answer_t answer = good_answer(options, nullptr);
        answer.fields["output"] = options.output;
        answer.fields["packets"] = result.total;
        answer.fields["first"] = result.total != 0 ? json_t(seconds_text(result.first_ns)) : json_t(nullptr);
        answer.fields["last"] = result.total != 0 ? json_t(seconds_text(result.last_ns)) : json_t(nullptr);
        answer.fields["files"] = json_t::array();
        for (size_t i = 0; i < options.inputs.size(); i++) {
            answer.fields["files"].push_back(
                {{"file", options.inputs[i]}, {"packets", result.packets[i]}, {"cut", bool{result.cut[i]}}});
        }
        return answer;
    } catch (const client_error_t &error) {
        return failed_answer(error, options, nullptr);
    }
}

int run(const options_t &options)
{
    catch_interrupts();
    // Bars show what their stream would otherwise get as lines: the updates of watch, the notes of --wait.
    const bool bars = !options.json && (options.command == command_t::WATCH || options.wait);
    console_t console(options.colour, bars, options.command == command_t::WATCH ? stdout : stderr);
    int status = EXIT_DONE;
    if (options.command == command_t::MERGE) {
        const answer_t answer = merge(options);
        print_answer(answer, options, &console);
        status = answer.status;
    } else {
        status = run_on_probes(options, &console);
    }
    return console.output_good() ? status : EXIT_FAILED;
}

} // namespace

} // namespace kestrune

int main(int argc, char **argv)
{
    try {
        const kestrune::command_line_t line = kestrune::parse_command_line(argc, argv);
        return line.options ? kestrune::run(*line.options) : line.status;
    } catch (const std::exception &error) {
        std::fprintf(stderr, "kestrunectl: %s\n", error.what());
        return kestrune::EXIT_FAILED;
    }
}
