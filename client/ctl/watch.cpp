// watch: a line per update, and on a terminal a bar per running rule. Updates name rules by id, and
// only an INCIDENT gives the address. Bars of rules that existed before come from LIST and DETAIL,
// by address, on a connection of their own: an update during a half-sent long reply is lost, and
// losing an INCIDENT ends the registration.
#include "client/ctl/watch.h"

#include "client/ctl/session_options.h"

#include <algorithm>
#include <ctime>
#include <map>
#include <memory>
#include <set>

namespace kestrune {

namespace {

using steady_t = std::chrono::steady_clock;

constexpr auto BAR_TIME = std::chrono::seconds(1);
// Without bars, a request only checks that the probe still answers.
constexpr auto LIVENESS_TIME = std::chrono::seconds(15);
constexpr size_t BARS_MAX = 16; // of one probe; terminals are not higher

std::string time_text()
{
    const std::time_t now = std::time(nullptr);
    std::tm parts = {};
    localtime_r(&now, &parts);
    char text[40] = "";
    std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S%z", &parts);
    return text;
}

class watcher_t {
public:
    watcher_t(session_t *session, const options_t &options, const endpoint_t &endpoint, console_t *console,
              printer_t *printer)
        : session_(*session), options_(options), console_(*console), printer_(*printer),
          probe_(endpoint.text())
    {
        if (console_.has_bars()) {
            bars_ = std::make_unique<session_t>(endpoint, session_options(options));
        }
    }

    [[noreturn]] void run()
    {
        session_.updates_on();
        for (;;) {
            const auto period = bars_ ? BAR_TIME : LIVENESS_TIME;
            if (std::optional<update_t> update = session_.next_update(next_poll_)) {
                take(*update);
            } else {
                poll();
                next_poll_ = steady_t::now() + period;
            }
        }
    }

private:
    void take(const update_t &update)
    {
        if (const auto *incident = std::get_if<msg_update_incident_t>(&update)) {
            addresses_[incident->rule_id] = ip_addr_text(incident->addr).text;
            print(incident->rule_id, update);
        } else if (const auto *capture = std::get_if<msg_update_capture_t>(&update)) {
            const std::string addr = address(capture->rule_id);
            progress_[addr] = capture->progress;
            const bool seen_in_bar = console_.has_bars() && !addr.empty();
            if (!seen_in_bar) {
                print(capture->rule_id, update);
            }
        } else if (const auto *visual = std::get_if<visual_t>(&update)) {
            print(visual->rule_id, update);
            progress_.erase(address(visual->rule_id));
            addresses_.erase(visual->rule_id);
        }
    }

    void print(uint32_t id, const update_t &update)
    {
        printer_.print(event_t{probe_, time_text(), address(id), update});
    }

    std::string address(uint32_t id) const
    {
        const auto found = addresses_.find(id);
        return found != addresses_.end() ? found->second : "";
    }

    // Throws when the probe no longer answers. Asks about an address that no packet
    // has: a short "no" is enough.
    void ask_whether_it_answers()
    {
        try {
            (void)session_.detail({});
        } catch (const client_error_t &error) {
            if (error.failure() != failure_t::REFUSED) {
                throw;
            }
        }
    }

    void poll()
    {
        ask_whether_it_answers();
        if (bars_) {
            show_bars();
        }
    }

    void show_bars()
    {
        const rule_list_t rules = bars_->list(msg_target::ALL);
        std::set<std::string> shown;
        for (size_t i = 0; i < rules.size() && i < BARS_MAX; i++) {
            const std::string addr = ip_addr_text(rules[i].addr).text;
            console_.set_bar(key(addr), bar_of(rules[i].addr, addr));
            shown.insert(addr);
        }
        for (const std::string &addr : shown_) {
            if (!shown.contains(addr)) {
                console_.remove_bar(key(addr));
            }
        }
        shown_ = shown;
    }

    bar_t bar_of(const ip_addr_t &key, const std::string &addr)
    {
        bar_t bar;
        bar.label = (options_.probes.size() > 1 ? probe_ + " " : "") + addr;
        try {
            const msg_ip_detail_t detail = bars_->detail(key).fields;
            bar.packets = detail.packets;
            bar.packet_limit = detail.packet_limit;
            bar.elapsed_s = detail.elapsed_s;
            bar.time_limit_s = detail.time_limit_s;
            bar.percent = live_percent(detail);
        } catch (const client_error_t &error) {
            if (error.failure() != failure_t::REFUSED) {
                throw; // refused: only its history is searched, so there are no live figures
            }
        }
        if (const auto known = progress_.find(addr); known != progress_.end()) {
            bar.percent = known->second;
        }
        return bar;
    }

    // The share that the plugin reports too: of packets or of time, whichever is larger.
    static unsigned live_percent(const msg_ip_detail_t &detail)
    {
        const auto share = [](uint64_t part, uint64_t whole) {
            return whole != 0 ? static_cast<unsigned>(std::min<uint64_t>(99, part * 100 / whole)) : 0U;
        };
        return std::max(share(detail.packets, detail.packet_limit),
                        share(detail.elapsed_s, detail.time_limit_s));
    }

    std::string key(const std::string &addr) const { return probe_ + " " + addr; }

    session_t &session_;              // registered for updates
    std::unique_ptr<session_t> bars_; // null without bars
    const options_t &options_;
    console_t &console_;
    printer_t &printer_;
    const std::string probe_;
    std::map<uint32_t, std::string> addresses_; // of the rules whose INCIDENT came
    std::map<std::string, unsigned> progress_;  // the last CAPTURE, by address
    std::set<std::string> shown_;               // addresses with a bar
    deadline_t next_poll_ = steady_t::now();
};

} // namespace

void watch(session_t *session, const options_t &options, const endpoint_t &endpoint, console_t *console,
           printer_t *printer)
{
    watcher_t(session, options, endpoint, console, printer).run();
}

} // namespace kestrune
