#include "client/ctl/advice.h"

#include "protocol/message.h"

namespace kestrune {

namespace {

int status_of(failure_t failure)
{
    switch (failure) {
    case failure_t::CONNECT:
    case failure_t::NO_LISTENER:
        return EXIT_NO_CONNECTION;
    case failure_t::REFUSED:
    case failure_t::UNRECOGNIZED:
        return EXIT_REFUSED;
    case failure_t::INTERRUPTED:
        return EXIT_INTERRUPTED;
    default:
        return EXIT_FAILED;
    }
}

std::string advice(const client_error_t &error, const options_t &options, const std::string &probe)
{
    std::string what = error.what();
    switch (error.failure()) {
    case failure_t::CONNECT:
    case failure_t::NO_LISTENER:
        return "cannot connect to " + probe + ": " + what +
               ". Is the probe running there with the plugin loaded, and is this the plugin's port? Name "
               "another "
               "with -s HOST:PORT";
    case failure_t::TIMEOUT:
        return what + ". The probe may be stopped or busy: try again, or wait longer with --timeout; or "
                      "another service listens there";
    case failure_t::CLOSED:
        return what +
               ". It serves 128 connections at a time, and may just have been stopped; its log says why";
    case failure_t::MALFORMED:
    case failure_t::VERSION:
        return what + ". Does another service or another version listen there?";
    case failure_t::REFUSED:
        return error.action() != -1
                   ? refusal_text(error.action(), options.addrs.empty() ? ip_addr_t{} : options.addrs.front(),
                                  options)
                   : what;
    case failure_t::UNRECOGNIZED:
        return what + ": its plugin is of another version than this program";
    default:
        return what;
    }
}

} // namespace

std::string refusal_text(int action, const ip_addr_t &of, const options_t &options)
{
    const std::string addr = ip_addr_text(of).text;
    switch (action) {
    case msg_action::ADD:
        return "the plugin refused to add " + addr +
               ", without saying why. Possible causes: it has a rule of another name (see 'list'; give that "
               "rule's name with -n, or 'remove' it first); its live capture is over while its history is "
               "still "
               "searched (wait until 'list' no longer shows it); the probe lacks memory, or a file name for "
               "the "
               "rule (see the probe's log)";
    case msg_action::REMOVE:
        return "there is no rule for " + addr +
               (options.direction == BOTH ? std::string() : " that holds this direction") +
               ": 'list' shows the rules and their directions";
    case msg_action::DETAIL:
        return "no live capture of " + addr +
               " is running: 'list' shows whether its rule is still searching the history, 'add' starts one";
    case msg_action::HISTORY:
        return options.command == command_t::HISTORY_OFF ? "the history buffers are off already, all or some "
                                                           "of them; 'history status' shows what is left"
                                                         : "the plugin did not turn the history buffers on: "
                                                           "they are on already, all or some of them "
                                                           "(see 'history status', and turn them 'off' "
                                                           "first), or the probe lacks memory for this size";
    case msg_action::INFO:
        return "the plugin takes no more clients for updates (128 at most): stop another 'watch' or '--wait'";
    default:
        return "the plugin refused; the probe's log says why";
    }
}

answer_t failed_answer(const client_error_t &error, const options_t &options, const endpoint_t *endpoint)
{
    const std::string probe = endpoint != nullptr ? endpoint->text() : "";
    return {
        probe, command_name(options.command), status_of(error.failure()), advice(error, options, probe), {}};
}

} // namespace kestrune
