#include "http/engine.h"

#include "http/connection.h"

#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>
#include <pthread.h>
#include <stdexcept>
#include <thread>

namespace kestrune::manager {
namespace {

namespace asio = boost::asio;
using asio::ip::tcp;
using error_t = boost::system::error_code;

constexpr int BACKLOG = 512;
constexpr std::chrono::milliseconds ACCEPT_PAUSE{100}; // after an error: no descriptors are left, perhaps
constexpr std::chrono::seconds REPORT_PERIOD{1};
constexpr std::chrono::seconds STOP_TIME{5};

std::string address_text(const asio::ip::address &address)
{
    if (address.is_v6() && address.to_v6().is_v4_mapped()) {
        return asio::ip::make_address_v4(asio::ip::v4_mapped, address.to_v6()).to_string();
    }
    return address.to_string();
}

} // namespace

class http_engine_t::inside_t {
public:
    inside_t(const engine_settings_t &settings, std::shared_ptr<connections_t> shared)
        : shared_(std::move(shared)), acceptor_(shared_->io), retry_(shared_->io), ticks_(shared_->io)
    {
        listen(settings);
    }

    uint16_t port() const { return acceptor_.local_endpoint().port(); }

    void start()
    {
        shared_->workers.start(WORKER_COUNT);
        accept();
        tick();
        thread_ = std::thread([this] { shared_->io.run(); });
        pthread_setname_np(thread_.native_handle(), "http");
    }

    void stop()
    {
        if (!thread_.joinable()) {
            return;
        }
        asio::post(shared_->io, [this] { begin_stop(); });
        thread_.join();
        shared_->workers.stop();
        shared_->ended = true;
        // What was posted meanwhile holds connections, and they hold the context.
        shared_->io.restart();
        shared_->io.poll();
    }

    void wake()
    {
        if (!waking_.exchange(true)) {
            asio::post(shared_->io, [this] {
                waking_ = false;
                const auto all = shared_->all; // a listener that is lost leaves the set
                for (const auto &connection : all) {
                    connection->wake();
                }
            });
        }
    }

private:
    void listen(const engine_settings_t &settings)
    {
        const std::string where = settings.host + " port " + std::to_string(settings.port);
        try {
            const tcp::endpoint endpoint(asio::ip::make_address(settings.host), settings.port);
            acceptor_.open(endpoint.protocol());
            acceptor_.set_option(tcp::acceptor::reuse_address(true));
            acceptor_.bind(endpoint);
            acceptor_.listen(BACKLOG);
        } catch (const boost::system::system_error &error) {
            throw std::runtime_error("cannot listen on " + where + ": " + error.code().message());
        }
    }

    void accept()
    {
        acceptor_.async_accept([this](const error_t &error, tcp::socket socket) {
            if (shared_->stopping) {
                return;
            }
            if (error) {
                retry_.expires_after(ACCEPT_PAUSE);
                retry_.async_wait([this](const error_t &cancelled) {
                    if (!cancelled) {
                        accept();
                    }
                });
                return;
            }
            admit(std::move(socket));
            accept();
        });
    }

    void admit(tcp::socket socket)
    {
        error_t error;
        const tcp::endpoint peer = socket.remote_endpoint(error);
        if (error || !make_room()) {
            return; // gone already, or every place is taken by a request that is being answered
        }
        const auto connection =
            std::make_shared<connection_t>(shared_, std::move(socket), address_text(peer.address()));
        shared_->all.insert(connection);
        connection->start();
    }

    // One that waits for its client goes: idle, in the middle of a header, or at an answer that takes no token. Clients
    // that have a token go last, and those that are being served never.
    bool make_room()
    {
        if (shared_->all.size() < CONNECTIONS_MAX) {
            return true;
        }
        std::shared_ptr<connection_t> victim;
        for (const auto &connection : shared_->all) {
            if (connection->may_give_way() && (!victim || connection->worth() < victim->worth())) {
                victim = connection;
            }
        }
        if (victim) {
            victim->end();
        }
        return victim != nullptr;
    }

    void tick()
    {
        ticks_.expires_after(REPORT_PERIOD);
        ticks_.async_wait([this](const error_t &error) {
            if (error) {
                return;
            }
            shared_->gate->report_counted();
            if (shared_->stopping && (shared_->all.empty() || std::chrono::steady_clock::now() >= stop_by_)) {
                finish_stop();
            } else {
                tick();
            }
        });
    }

    void begin_stop()
    {
        shared_->stopping = true;
        stop_by_ = std::chrono::steady_clock::now() + STOP_TIME;
        error_t ignored;
        acceptor_.close(ignored);
        retry_.cancel();
        const auto all = shared_->all;
        for (const auto &connection : all) {
            connection->end_when_quiet();
        }
        if (shared_->all.empty()) {
            finish_stop();
        }
    }

    void finish_stop()
    {
        ticks_.cancel();
        const auto all = shared_->all;
        for (const auto &connection : all) {
            connection->end();
        }
        shared_->io.stop();
    }

    std::shared_ptr<connections_t> shared_;
    tcp::acceptor acceptor_;
    asio::steady_timer retry_;
    asio::steady_timer ticks_;
    std::thread thread_;
    std::atomic<bool> waking_{false};
    std::chrono::steady_clock::time_point stop_by_;
};

http_engine_t::http_engine_t(const engine_settings_t &settings, gate_t *gate, event_source_t *events,
                             http_counters_t *counters, http_handlers_t handlers)
{
    auto shared = std::make_shared<connections_t>();
    shared->gate = gate;
    shared->events = events;
    shared->counters = counters;
    shared->handlers = std::move(handlers);
    inside_ = std::make_shared<inside_t>(settings, std::move(shared));
}

http_engine_t::~http_engine_t() // NOLINT(bugprone-exception-escape): a lock that fails may end the program
{
    stop();
}

uint16_t http_engine_t::port() const
{
    return inside_->port();
}

void http_engine_t::start()
{
    inside_->start();
}

void http_engine_t::stop()
{
    inside_->stop();
}

void http_engine_t::wake()
{
    inside_->wake();
}

} // namespace kestrune::manager
