#include "client/ctl/console.h"

#include "client/ctl/interrupt.h"
#include "client/text_forms.h"

#include <algorithm>
#include <cstdlib>
#include <string_view>
#include <sys/ioctl.h>
#include <unistd.h>

namespace kestrune {

namespace {

bool dumb_terminal()
{
    const char *terminal = std::getenv("TERM");
    return terminal == nullptr || std::string_view(terminal) == "dumb";
}

bool wants_colour(colour_t colour, FILE *stream)
{
    if (colour != colour_t::AUTO) {
        return colour == colour_t::ALWAYS;
    }
    const char *no_colour = std::getenv("NO_COLOR");
    return isatty(fileno(stream)) != 0 && !dumb_terminal() && (no_colour == nullptr || *no_colour == '\0');
}

struct terminal_size_t {
    unsigned columns = 80;
    unsigned rows = 24;
};

terminal_size_t terminal_size(FILE *stream)
{
    winsize size = {};
    const bool known = ioctl(fileno(stream), TIOCGWINSZ, &size) == 0 && size.ws_col > 0 && size.ws_row > 0;
    return known ? terminal_size_t{size.ws_col, size.ws_row} : terminal_size_t();
}

// As many characters as the terminal has columns, so that no line wraps. Control sequences take no column.
std::string clipped(const std::string &line, unsigned columns)
{
    unsigned used = 0;
    bool steering = false;
    std::string text;
    for (const char c : line) {
        const bool begins = (static_cast<unsigned char>(c) & 0xC0) != 0x80;
        steering = steering || c == '\033';
        used += begins && !steering ? 1 : 0;
        if (steering || used <= columns) {
            text += c;
        }
        steering = steering && c != 'm';
    }
    return text;
}

} // namespace

console_t::console_t(colour_t colour, bool bars, FILE *bar_stream)
    : colour_out_(wants_colour(colour, stdout)), colour_err_(wants_colour(colour, stderr)),
      bars_wanted_(bars && isatty(fileno(bar_stream)) != 0 && !dumb_terminal()),
      screen_(isatty(fileno(stdout)) != 0 && !dumb_terminal()), bar_stream_(bar_stream)
{
}

console_t::~console_t()
{
    erase_bars();
    std::fflush(bar_stream_);
}

std::string console_t::painted(FILE *stream, paint_t paint, const std::string &text) const
{
    static constexpr const char *STARTS[] = {"", "\033[1m", "\033[1;31m", "\033[32m"};
    const bool colour = stream == stdout ? colour_out_ : colour_err_;
    if (!colour || paint == paint_t::PLAIN) {
        return text;
    }
    return STARTS[static_cast<size_t>(paint)] + text + "\033[0m";
}

void console_t::set_bar(const std::string &key, const bar_t &bar)
{
    const std::lock_guard guard(lock_);
    if (bars_wanted_) {
        bars_[key] = bar;
        erase_bars();
        draw_bars();
    }
}

void console_t::remove_bar(const std::string &key)
{
    const std::lock_guard guard(lock_);
    if (bars_.erase(key) != 0) {
        erase_bars();
        draw_bars();
    }
}

bool console_t::output_good() const
{
    const std::lock_guard guard(lock_);
    return output_good_;
}

void console_t::print(FILE *stream, const std::string &text)
{
    if (text.empty()) {
        return;
    }
    const std::lock_guard guard(lock_);
    erase_bars();
    std::fflush(bar_stream_);
    if (stream == stdout) {
        write_out(text + "\n");
    } else {
        std::fputs((text + "\n").c_str(), stream);
        std::fflush(stream);
    }
    draw_bars();
}

void console_t::write_out(const std::string &text)
{
    std::fputs(text.c_str(), stdout);
    if (std::fflush(stdout) != 0) {
        output_good_ = false;
        raise_interrupt(); // no reader is left
    }
}

void console_t::paint_screen(const std::string &text)
{
    const terminal_size_t size = terminal_size(stdout);
    std::string painting = "\033[H";
    size_t lines = 0;
    const size_t all = static_cast<size_t>(std::count(text.begin(), text.end(), '\n'));
    for (size_t begin = 0; begin < text.size() && lines + 2 <= size.rows; lines++) {
        const size_t end = std::min(text.find('\n', begin), text.size());
        const bool last = lines + 2 == size.rows && all > lines + 1;
        painting += last ? "... and " + std::to_string(all - lines) + " lines more"
                         : clipped(text.substr(begin, end - begin), size.columns);
        painting += "\033[K\n";
        begin = end + 1;
    }
    const std::lock_guard guard(lock_);
    write_out((screen_cleared_ ? "" : "\033[2J") + painting + "\033[J");
    screen_cleared_ = true;
}

void console_t::erase_bars()
{
    for (; drawn_ > 0; drawn_--) {
        std::fputs("\033[1A\033[2K", bar_stream_);
    }
}

void console_t::draw_bars()
{
    const unsigned width = bars_.empty() ? 0 : terminal_size(bar_stream_).columns;
    for (const auto &[key, bar] : bars_) {
        std::fputs((bar_text(bar, width) + "\n").c_str(), bar_stream_);
        drawn_++;
    }
    std::fflush(bar_stream_);
}

// One line that is narrower than the terminal, so that erasing counts lines correctly.
std::string console_t::bar_text(const bar_t &bar, unsigned width) const
{
    static constexpr unsigned CELLS = 20;
    const unsigned full = CELLS * std::min(bar.percent, 100U) / 100;
    const std::string filled(full, '#');
    const std::string rest(CELLS - full, '-');
    std::string counts = std::to_string(bar.percent) + "%";
    counts.insert(0, 5 - std::min<size_t>(5, counts.size()), ' ');
    if (bar.packet_limit != 0) {
        counts += "  " + std::to_string(bar.packets) + "/" + std::to_string(bar.packet_limit) + " packets  " +
                  format_duration(bar.elapsed_s) + " of " + format_duration(bar.time_limit_s);
    }
    const size_t plain = bar.label.size() + 4 + CELLS + counts.size();
    if (plain >= width) {
        const std::string text = bar.label + counts;
        return text.substr(0, width > 0 ? width - 1 : 0);
    }
    return bar.label + "  [" + painted(bar_stream_, paint_t::GREEN, filled) + rest + "]" + counts;
}

} // namespace kestrune
