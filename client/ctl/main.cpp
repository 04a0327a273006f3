// kestrunectl: reads the command line, runs the command on every probe in a thread of its own, and prints the
// answers in the order of the probes (those of --wait as they come).
#include "client/ctl/address_files.h"
#include "client/ctl/advice.h"
#include "client/ctl/commands.h"
#include "client/ctl/interrupt.h"
#include "client/ctl/list.h"
#include "client/ctl/printer.h"
#include "client/ctl/session_options.h"
#include "client/ctl/wait.h"
#include "client/ctl/watch.h"

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <functional>
#include <string>
#include <thread>
#include <vector>

namespace kestrune {

namespace {

using give_t = std::function<void(answer_t)>;

void run_command(const options_t &options, const endpoint_t &endpoint, console_t *console, printer_t *printer,
                 const give_t &give)
{
    session_t session(endpoint, session_options(options));
    if (options.command == command_t::WATCH) {
        watch(&session, options, endpoint, console, printer);
    }
    if (options.repeat) {
        watch_list(&session, options, endpoint, printer);
    }
    if (options.wait) {
        add_and_wait(&session, options, endpoint, console, give);
        return;
    }
    for (answer_t &answer : ask(&session, options, endpoint)) {
        give(std::move(answer));
    }
}

// The highest status of the probe's answers.
int run_on_probe(const options_t &options, const endpoint_t &endpoint, console_t *console, printer_t *printer,
                 const give_t &give)
{
    int status = EXIT_DONE;
    const auto note = [&](answer_t answer) {
        status = std::max(status, answer.status);
        give(std::move(answer));
    };
    try {
        run_command(options, endpoint, console, printer, note);
    } catch (const client_error_t &error) {
        note(failed_answer(error, options, &endpoint));
    } catch (const std::exception &error) {
        note(failed_answer(client_error_t(failure_t::LOCAL, error.what()), options, &endpoint));
    }
    return status;
}

int run_on_probes(const options_t &options, console_t *console, printer_t *printer)
{
    const bool endless = options.command == command_t::WATCH || options.repeat;
    const bool as_they_come = options.wait || endless;
    std::vector<std::vector<answer_t>> answers(options.probes.size()); // to print in order
    std::vector<int> statuses(options.probes.size());
    std::vector<std::thread> threads;
    for (size_t i = 0; i < options.probes.size(); i++) {
        threads.emplace_back([&, i] {
            statuses[i] = run_on_probe(options, options.probes[i], console, printer, [&](answer_t answer) {
                if (endless && answer.status == EXIT_INTERRUPTED) {
                    return; // the usual end
                }
                if (options.repeat && options.probes.size() > 1) {
                    printer->repaint(answer); // it would paint over other output
                } else if (as_they_come) {
                    printer->print(answer);
                } else {
                    answers[i].push_back(std::move(answer));
                }
            });
        });
    }
    for (size_t i = 0; i < options.probes.size(); i++) {
        threads[i].join();
        printer->print(answers[i]);
    }
    return *std::max_element(statuses.begin(), statuses.end());
}

// Commands on files of this machine.
int run_here(const options_t &options, printer_t *printer)
{
    std::vector<answer_t> answers;
    try {
        answers = options.command == command_t::VERIFY ? verify(options) : std::vector{merge(options)};
    } catch (const client_error_t &error) {
        answers = {failed_answer(error, options, nullptr)};
    } catch (const std::filesystem::filesystem_error &error) {
        answers = {failed_answer(client_error_t(failure_t::LOCAL, error.what()), options, nullptr)};
    }
    int status = EXIT_DONE;
    for (const answer_t &answer : answers) {
        status = std::max(status, answer.status);
    }
    printer->print(answers);
    return status;
}

// Runs before signals are caught, so that a signal ends a program that waits for its standard input.
void add_from_files(options_t *options)
{
    for (const std::string &left_out : read_address_files(options)) {
        std::fprintf(stderr, "kestrunectl: left out: %s\n", printable(left_out).c_str());
    }
}

bool is_local(command_t command)
{
    return command == command_t::MERGE || command == command_t::VERIFY;
}

int run(const options_t &options)
{
    catch_interrupts();
    // Bars replace lines that their stream would otherwise get: the updates of watch, the notes of --wait.
    const bool bars = !options.json && (options.command == command_t::WATCH || options.wait);
    console_t console(options.colour, bars, options.command == command_t::WATCH ? stdout : stderr);
    printer_t printer(options, &console);
    const int status =
        is_local(options.command) ? run_here(options, &printer) : run_on_probes(options, &console, &printer);
    return console.output_good() ? status : EXIT_FAILED;
}

int run_command_line(options_t options)
{
    if (!options.from.empty()) {
        try {
            add_from_files(&options);
        } catch (const client_error_t &error) {
            console_t console(options.colour, false, stderr);
            printer_t(options, &console).print(failed_answer(error, options, nullptr));
            return EXIT_FAILED;
        }
    }
    return run(options);
}

void print_usage_error(const command_line_t &line)
{
    if (line.json) {
        std::puts(to_json(answer_t{"", "", line.status, line.error}).c_str());
    } else {
        std::fprintf(stderr, "kestrunectl: %s\nSee kestrunectl --help\n", line.error.c_str());
    }
}

} // namespace

} // namespace kestrune

int main(int argc, char **argv)
{
    try {
        const kestrune::command_line_t line = kestrune::parse_command_line(argc, argv);
        if (!line.error.empty()) {
            kestrune::print_usage_error(line);
        }
        return line.options ? kestrune::run_command_line(*line.options) : line.status;
    } catch (const std::exception &error) {
        std::fprintf(stderr, "kestrunectl: %s\n", error.what());
        return kestrune::EXIT_FAILED;
    }
}
