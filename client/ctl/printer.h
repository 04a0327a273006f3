// Prints answers in the form that the command line requests. A text names its probe when there are several.
#pragma once

#include "client/ctl/console.h"
#include "client/ctl/options.h"
#include "client/ctl/results.h"

#include <map>
#include <mutex>
#include <span>
#include <string>

namespace kestrune {

// Threads: any.
class printer_t {
public:
    // Both are borrowed.
    printer_t(const options_t &options, console_t *console) : options_(options), console_(*console) {}

    void print(const answer_t &answer);
    // The answers of one probe together.
    void print(std::span<const answer_t> answers);
    void print(const event_t &event);
    // Replaces the probe's previous answer on a terminal; otherwise like print.
    void repaint(const answer_t &answer);

private:
    void note(const answer_t &answer, paint_t paint, const std::string &text);
    std::string text_of(const answer_t &answer, const std::string &text) const;

    const options_t &options_;
    console_t &console_;
    std::mutex lock_;
    std::map<std::string, std::string> painted_; // the texts on the screen, by probe; under lock_
};

} // namespace kestrune
