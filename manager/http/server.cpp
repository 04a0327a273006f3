#include "http/server.h"

#include "http/api.h"
#include "http/event_text.h"
#include "http/gate.h"
#include "model/log.h"

#include <atomic>

namespace kestrune::manager {
namespace {

class server_t final : public http_server_t {
public:
    server_t(const settings_t &settings, const http_neighbours_t &rooms)
        : settings_(settings), rooms_(rooms), events_(rooms.events),
          api_(std::make_shared<api_t>(settings.limits, rooms, &tickets_, &counters_))
    {
        rooms_.events->on_news([this] {
            if (http_engine_t *engine = running_.load()) {
                engine->wake();
            }
        });
    }
    ~server_t() override { stop(); }

    void start() override
    {
        try {
            if (make_token_file(settings_.http.token_file)) {
                log_info("made " + settings_.http.token_file.string() + " with one token of role admin");
                audit({}, "tokens", "made " + settings_.http.token_file.string());
            }
            gate_ = std::make_unique<gate_t>(gate_settings(settings_), &tickets_,
                                             [this](const caller_t &caller, const std::string &detail) {
                                                 audit(caller, "refused", detail);
                                             });
            engine_ = std::make_unique<http_engine_t>(
                engine_settings_t{settings_.http.host, settings_.http.port}, gate_.get(), &events_,
                &counters_,
                http_handlers_t{[this](const http_request_t &request, const route_t &route) {
                                    return api_->quick(request, route);
                                },
                                [this](const http_request_t &request, const route_t &route,
                                       const answer_to_t &answer) { api_->work(request, route, answer); }});
        } catch (const std::runtime_error &error) {
            throw http_error_t(error.what());
        }
        engine_->start();
        running_ = engine_.get();
    }

    uint16_t port() const override { return engine_->port(); }

    void reload(const settings_t &settings) override
    {
        try {
            gate_->replace(gate_settings(settings));
        } catch (const std::runtime_error &error) {
            throw http_error_t(error.what());
        }
        api_->replace_limits(settings.limits);
        audit({}, "reload", "names, tokens and limits were read anew");
    }

    void stop() override
    {
        if (engine_) {
            engine_->stop();
        }
    }

private:
    static gate_settings_t gate_settings(const settings_t &settings)
    {
        return {host_check_t(settings.http.host, settings.http.names),
                token_table_t::read(settings.http.token_file), settings.http.behind_proxy};
    }

    void audit(const caller_t &caller, const std::string &action, const std::string &detail)
    {
        audit_t row;
        row.who = caller.who;
        row.from = caller.from;
        row.action = action;
        row.detail = detail;
        rooms_.captures->audit(std::move(row));
    }

    const settings_t settings_; // of the start
    const http_neighbours_t rooms_;
    tickets_t tickets_;
    http_counters_t counters_;
    event_text_t events_;
    const std::shared_ptr<api_t> api_;
    std::unique_ptr<gate_t> gate_;
    std::unique_ptr<http_engine_t> engine_;
    std::atomic<http_engine_t *> running_{nullptr}; // for the events' threads
};

} // namespace

void check_http(const settings_t &settings)
{
    std::error_code missing;
    if (!std::filesystem::exists(std::filesystem::symlink_status(settings.http.token_file, missing))) {
        return; // it will be made
    }
    try {
        (void)token_table_t::read(settings.http.token_file);
    } catch (const std::runtime_error &error) {
        throw http_error_t(error.what());
    }
}

std::string page_url(const http_settings_t &settings, uint16_t port)
{
    try {
        const bool six = settings.host.find(':') != std::string::npos;
        return "http://" + (six ? "[" + settings.host + "]" : settings.host) + ":" + std::to_string(port) +
               "/#token=" + best_token(settings.token_file.string());
    } catch (const std::runtime_error &error) {
        throw http_error_t(error.what());
    }
}

std::unique_ptr<http_server_t> make_http_server(const settings_t &settings,
                                                const http_neighbours_t &neighbours)
{
    return std::make_unique<server_t>(settings, neighbours);
}

} // namespace kestrune::manager
