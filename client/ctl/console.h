// Standard output and standard error of kestrunectl, shared by the threads of all probes, with a block of
// progress bars at the foot of the terminal.
//
// The bars are drawn on one of the two streams, if it is a terminal; other output appears above them.
// Threads: any; every function locks.
#pragma once

#include "client/ctl/colour.h"

#include <cstdint>
#include <cstdio>
#include <map>
#include <mutex>
#include <string>

namespace kestrune {

struct bar_t {
    std::string label;
    unsigned percent = 0;
    uint32_t packets = 0; // limits of 0: no live capture to show
    uint32_t packet_limit = 0;
    uint32_t elapsed_s = 0;
    uint32_t time_limit_s = 0;
};

enum class paint_t { PLAIN, BOLD, RED, GREEN };

class console_t {
public:
    // Bars are drawn on bar_stream (borrowed) if it is a terminal and bars are wanted.
    console_t(colour_t colour, bool bars, FILE *bar_stream);
    ~console_t(); // erases the bars
    console_t(const console_t &) = delete;
    console_t &operator=(const console_t &) = delete;

    bool has_bars() const { return bars_wanted_; }
    // Whether standard output is a terminal that can be repainted.
    bool has_screen() const { return screen_; }
    // Fills the terminal on standard output with these lines, as far as they fit.
    void paint_screen(const std::string &text);
    // Text of one or more whole lines without the last newline; empty prints nothing.
    void data(const std::string &text) { print(stdout, text); } // to standard output
    void note(const std::string &text) { print(stderr, text); } // to standard error
    // The text in this colour, if the stream is coloured.
    std::string painted(FILE *stream, paint_t paint, const std::string &text) const;

    // Draws, changes or removes a bar.
    void set_bar(const std::string &key, const bar_t &bar);
    void remove_bar(const std::string &key);

    // False when standard output could not be written (closed pipe, full disk).
    bool output_good() const;

private:
    void print(FILE *stream, const std::string &text);
    void erase_bars();
    void draw_bars();
    void write_out(const std::string &text);
    std::string bar_text(const bar_t &bar, unsigned width) const;

    mutable std::mutex lock_;
    bool colour_out_;
    bool colour_err_;
    bool bars_wanted_;
    bool screen_;
    FILE *bar_stream_;
    std::map<std::string, bar_t> bars_; // under lock_
    bool screen_cleared_ = false;       // under lock_
    size_t drawn_ = 0;                  // lines of bars on the screen; under lock_
    bool output_good_ = true;           // under lock_
};

} // namespace kestrune
