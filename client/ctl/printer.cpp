#include "client/ctl/printer.h"

namespace kestrune {

namespace {

std::string indented(const std::string &text)
{
    std::string out = "  ";
    for (const char c : text) {
        out += c;
        if (c == '\n') {
            out += "  ";
        }
    }
    return out;
}

} // namespace

void printer_t::print(const answer_t &answer)
{
    print(std::span(&answer, 1));
}

void printer_t::print(std::span<const answer_t> answers)
{
    std::string text;
    for (const answer_t &answer : answers) {
        if (options_.json) {
            console_.data(to_json(answer));
            continue;
        }
        if (!answer.error.empty()) {
            note(answer, paint_t::RED, answer.error);
            continue;
        }
        if (!answer.hint.empty()) {
            note(answer, paint_t::BOLD, answer.hint);
        }
        const std::string one = to_text(answer.result);
        if (one.empty()) { // a list
            note(answer, paint_t::PLAIN, "no rules");
        }
        text += (text.empty() || one.empty() ? "" : "\n") + one;
    }
    if (!text.empty()) {
        console_.data(text_of(answers.front(), text));
    }
}

void printer_t::print(const event_t &event)
{
    if (options_.json) {
        console_.data(to_json(event));
        return;
    }
    const paint_t paint = std::holds_alternative<visual_t>(event.update) ? paint_t::GREEN : paint_t::PLAIN;
    console_.data(event.time + " " + (options_.probes.size() > 1 ? event.probe + " " : "") +
                  console_.painted(stdout, paint, to_text(event)));
}

void printer_t::repaint(const answer_t &answer)
{
    if (options_.json || !console_.has_screen()) {
        print(answer);
        return;
    }
    const std::lock_guard guard(lock_);
    const std::string rules = to_text(answer.result);
    painted_[answer.probe] = text_of(
        answer, !answer.error.empty() ? console_.painted(stdout, paint_t::RED, printable(answer.error))
                : rules.empty()       ? "no rules"
                                      : rules);
    std::string text;
    for (const endpoint_t &probe : options_.probes) {
        if (const auto found = painted_.find(probe.text()); found != painted_.end()) {
            text += found->second + "\n";
        }
    }
    console_.paint_screen(text);
}

void printer_t::note(const answer_t &answer, paint_t paint, const std::string &text)
{
    const bool named = options_.probes.size() > 1 && !answer.probe.empty();
    console_.note(console_.painted(stderr, paint, "kestrunectl:") + " " + (named ? answer.probe + ": " : "") +
                  printable(text));
}

// The text, with the probe's name when there are several.
std::string printer_t::text_of(const answer_t &answer, const std::string &text) const
{
    const bool named = options_.probes.size() > 1 && !answer.probe.empty();
    return named ? console_.painted(stdout, paint_t::BOLD, answer.probe + ":") + "\n" + indented(text) : text;
}

} // namespace kestrune
