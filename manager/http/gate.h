// What is checked of a request before its body is read: method and path, Host, Origin, token, role, content type and
// length, in this order. It looks at memory only.
//
// Threads: check and the counts belong to the http thread; settings may be replaced by any.
#pragma once

#include "http/address_counts.h"
#include "http/host_check.h"
#include "http/message.h"
#include "http/routes.h"
#include "http/tickets.h"
#include "http/tokens.h"
#include "model/lock.h"

#include <functional>
#include <memory>
#include <optional>

namespace kestrune::manager {

// What a reload may change.
struct gate_settings_t {
    host_check_t hosts;
    std::shared_ptr<const token_table_t> tokens;
    bool behind_proxy = false;
};

class gate_t {
public:
    // Told of refusals, for the audit: who asked, and a sentence. Must not block.
    using refused_t = std::function<void(const caller_t &caller, const std::string &detail)>;

    gate_t(gate_settings_t settings, const tickets_t *tickets, refused_t refused);

    void replace(gate_settings_t settings);

    // The answer of a refusal, or nothing; then `route` is the request's, and segments, caller and role are set.
    std::optional<http_answer_t> check(http_request_t *request, const route_t **route);

    // Once a second or so: reports refusals that were only counted.
    void report_counted();

private:
    std::optional<http_answer_t> check_source(const gate_settings_t &settings, http_request_t *request);
    std::optional<http_answer_t> check_token(const gate_settings_t &settings, http_request_t *request,
                                             const route_t &route);
    std::optional<http_answer_t> refuse(const http_request_t &request, unsigned status,
                                        const std::string &detail);
    std::shared_ptr<const gate_settings_t> settings() const;

    const tickets_t *const tickets_; // borrowed
    const refused_t refused_;
    mutable lock_t lock_;
    std::shared_ptr<const gate_settings_t> settings_ KS_GUARDED_BY(lock_);
    address_counts_t wrong_tokens_;
    address_counts_t refusals_;
};

// The path and the query of a target.
std::string_view path_of(std::string_view target);
std::string_view query_of(std::string_view target);

} // namespace kestrune::manager
