#include "http/gate.h"

#include "config/settings.h"
#include "http/limits.h"

#include <arpa/inet.h>
#include <strings.h>

namespace kestrune::manager {
namespace {

constexpr unsigned REFUSALS_REPORTED = 10; // a minute and address; more of them become one count
constexpr std::string_view SCHEME = "bearer ";
constexpr std::string_view TICKET = "ticket=";
constexpr std::string_view JSON_TYPE = "application/json";

std::string_view trim(std::string_view text)
{
    const size_t begin = text.find_first_not_of(" \t");
    return begin == std::string_view::npos ? std::string_view()
                                           : text.substr(begin, text.find_last_not_of(" \t") - begin + 1);
}

bool equal_ignoring_case(std::string_view a, std::string_view b)
{
    return a.size() == b.size() && strncasecmp(a.data(), b.data(), a.size()) == 0;
}

// application/json, with the only character set that JSON has or none.
bool is_json_type(std::string_view type)
{
    const size_t semicolon = std::min(type.find(';'), type.size());
    const std::string_view parameters = trim(type.substr(std::min(semicolon + 1, type.size())));
    return equal_ignoring_case(trim(type.substr(0, semicolon)), JSON_TYPE) &&
           (parameters.empty() || equal_ignoring_case(parameters, "charset=utf-8") ||
            equal_ignoring_case(parameters, "charset=\"utf-8\""));
}

// The last element: the one that the proxy on this machine added. What is no address is not believed.
std::string forwarded_address(std::string_view field, const std::string &peer)
{
    const size_t comma = field.rfind(',');
    const std::string address(trim(comma == std::string_view::npos ? field : field.substr(comma + 1)));
    in6_addr bytes = {};
    const bool literal =
        inet_pton(AF_INET, address.c_str(), &bytes) == 1 || inet_pton(AF_INET6, address.c_str(), &bytes) == 1;
    return literal ? address : peer;
}

std::string_view ticket_of(std::string_view query)
{
    return query.starts_with(TICKET) ? query.substr(TICKET.size()) : std::string_view();
}

std::optional<http_answer_t> check_body(const http_request_t &request, const route_t &route)
{
    const bool has_body = request.chunked || request.length.value_or(0) > 0;
    if ((route.flags & ROUTE_BODY) == 0) {
        return has_body ? std::optional(problem(400, "this request takes no body")) : std::nullopt;
    }
    if (!request.fields.content_type || !is_json_type(*request.fields.content_type)) {
        return problem(415, "the body is to be application/json");
    }
    if (request.length.value_or(0) > BODY_MAX) {
        return problem(413, "the body is larger than 1 MiB");
    }
    return has_body ? std::nullopt : std::optional(problem(400, "a body is missing"));
}

} // namespace

std::string_view path_of(std::string_view target)
{
    return target.substr(0, target.find('?'));
}

std::string_view query_of(std::string_view target)
{
    const size_t mark = target.find('?');
    return mark == std::string_view::npos ? std::string_view() : target.substr(mark + 1);
}

gate_t::gate_t(gate_settings_t settings, const tickets_t *tickets, refused_t refused)
    : tickets_(tickets), refused_(std::move(refused)),
      settings_(std::make_shared<const gate_settings_t>(std::move(settings)))
{
}

void gate_t::replace(gate_settings_t settings)
{
    auto replacement = std::make_shared<const gate_settings_t>(std::move(settings));
    const hold_lock_t hold(lock_);
    settings_.swap(replacement);
}

std::shared_ptr<const gate_settings_t> gate_t::settings() const
{
    const hold_lock_t hold(lock_);
    return settings_;
}

std::optional<http_answer_t> gate_t::check(http_request_t *request, const route_t **route)
{
    const std::shared_ptr<const gate_settings_t> settings = this->settings();
    if (settings->behind_proxy && request->fields.forwarded_for && is_loopback(request->caller.from)) {
        request->caller.from = forwarded_address(*request->fields.forwarded_for, request->caller.from);
    }
    if (!request->fields.repeated.empty()) {
        return problem(400, "the header has two fields " + request->fields.repeated);
    }
    routed_t routed = find_route(request->method, path_of(request->target));
    if (routed.allow.empty()) {
        return problem(404, "there is no such path; the interface is below /api/v1");
    }
    if (routed.route == nullptr) {
        http_answer_t answer = problem(405, "this path takes " + routed.allow);
        answer.fields.emplace_back("Allow", routed.allow);
        return answer;
    }
    *route = routed.route;
    request->segments = std::move(routed.segments);
    if (auto refusal = check_source(*settings, request)) {
        return refusal;
    }
    if (auto refusal = check_token(*settings, request, **route)) {
        return refusal;
    }
    return check_body(*request, **route);
}

std::optional<http_answer_t> gate_t::check_source(const gate_settings_t &settings, http_request_t *request)
{
    const http_fields_t &fields = request->fields;
    if (!fields.host) {
        return problem(400, "the header has no field Host");
    }
    if (!settings.hosts.host_allowed(*fields.host)) {
        return refuse(*request, 403,
                      "this interface is not reached under the name in the field Host; "
                      "names in the configuration's [http] adds one");
    }
    if (fields.origin && !host_check_t::origin_allowed(*fields.origin, *fields.host)) {
        return refuse(*request, 403, "a page of another origin asked");
    }
    return std::nullopt;
}

std::optional<http_answer_t> gate_t::check_token(const gate_settings_t &settings, http_request_t *request,
                                                 const route_t &route)
{
    if (route.role == role_t::NONE) {
        return std::nullopt;
    }
    const std::string_view ticket = ticket_of(query_of(request->target));
    if ((route.flags & ROUTE_TICKET) != 0 && !ticket.empty()) {
        const std::optional<ulid_t> id = parse_ulid(request->segments.at(0));
        if (const auto owner = id ? tickets_->owner(ticket, *id) : std::nullopt) {
            request->caller.who = *owner;
            request->role = role_t::READ;
            return std::nullopt;
        }
    }
    std::string_view given =
        request->fields.authorization ? *request->fields.authorization : std::string_view();
    const bool bearer =
        given.size() > SCHEME.size() && equal_ignoring_case(given.substr(0, SCHEME.size()), SCHEME);
    const token_table_t::owner_t *owner =
        bearer ? settings.tokens->find(trim(given.substr(SCHEME.size()))) : nullptr;
    if (owner == nullptr) {
        const bool wrong = bearer || !ticket.empty();
        if (wrong &&
            wrong_tokens_.add(request->caller.from, std::chrono::steady_clock::now()) > WRONG_TOKENS_MAX) {
            http_answer_t answer = *refuse(*request, 429, "too many wrong tokens from this address");
            answer.fields.emplace_back("Retry-After", "60");
            return answer;
        }
        http_answer_t answer = *refuse(
            *request, 401, wrong ? "the token is wrong" : "a token is needed: Authorization: Bearer TOKEN");
        answer.fields.emplace_back("WWW-Authenticate", "Bearer");
        return answer;
    }
    request->caller.who = owner->name;
    request->role = owner->role;
    if (owner->role < route.role) {
        static constexpr const char *ROLES[] = {"none", "read", "record", "admin"};
        return refuse(*request, 403,
                      std::string("this needs a token of role ") + ROLES[static_cast<size_t>(route.role)]);
    }
    return std::nullopt;
}

std::optional<http_answer_t> gate_t::refuse(const http_request_t &request, unsigned status,
                                            const std::string &detail)
{
    if (refusals_.add(request.caller.from, std::chrono::steady_clock::now()) <= REFUSALS_REPORTED) {
        refused_(request.caller, std::to_string(status) + " " + request.method + " " +
                                     std::string(path_of(request.target)).substr(0, 256) + ": " + detail);
    }
    return problem(status, detail);
}

void gate_t::report_counted()
{
    (void)wrong_tokens_.take_old(std::chrono::steady_clock::now());
    for (const address_counts_t::entry_t &entry : refusals_.take_old(std::chrono::steady_clock::now())) {
        if (entry.count > REFUSALS_REPORTED) {
            refused_({"", entry.address},
                     std::to_string(entry.count - REFUSALS_REPORTED) + " more refusals within a minute");
        }
    }
}

} // namespace kestrune::manager
