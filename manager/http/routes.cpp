#include "http/routes.h"

namespace kestrune::manager {
namespace {

using enum action_t;
using enum role_t;

constexpr route_t ROUTES[] = {
    {"GET", "/", PAGE, NONE, ROUTE_QUICK},
    {"GET", "/assets/{}", PAGE, NONE, ROUTE_QUICK},
    {"GET", "/healthz", HEALTH, NONE, ROUTE_QUICK},
    {"GET", "/readyz", READY, READ, ROUTE_QUICK},
    {"GET", "/metrics", METRICS, READ, 0},
    {"GET", "/api/v1/probes", LIST_PROBES, READ, 0},
    {"GET", "/api/v1/probes/{}", GET_PROBE, READ, 0},
    {"GET", "/api/v1/probes/{}/series", GET_SERIES, READ, 0},
    {"PUT", "/api/v1/probes/{}/history", SET_HISTORY, ADMIN, ROUTE_BODY},
    {"PUT", "/api/v1/probes/{}/heavy", SET_HEAVY, ADMIN, ROUTE_BODY},
    {"POST", "/api/v1/captures", BEGIN_CAPTURES, RECORD, ROUTE_BODY},
    {"GET", "/api/v1/captures", LIST_CAPTURES, READ, 0},
    {"GET", "/api/v1/captures/{}", GET_CAPTURE, READ, 0},
    {"DELETE", "/api/v1/captures/{}", DELETE_CAPTURE, ADMIN, 0},
    {"POST", "/api/v1/captures/{}/stop", STOP_CAPTURE, RECORD, 0},
    {"PUT", "/api/v1/captures/{}/hold", HOLD_CAPTURE, RECORD, ROUTE_BODY},
    {"GET", "/api/v1/captures/{}/pcap", GET_PCAP, READ, ROUTE_TICKET},
    {"GET", "/api/v1/captures/{}/manifest", GET_MANIFEST, READ, 0},
    {"GET", "/api/v1/captures/{}/summary", GET_SUMMARY, READ, 0},
    {"POST", "/api/v1/captures/{}/ticket", MAKE_TICKET, READ, 0},
    {"POST", "/api/v1/lookups", LOOK_UP, RECORD, ROUTE_BODY},
    {"GET", "/api/v1/lookups/{}", GET_LOOKUP, READ, 0},
    {"DELETE", "/api/v1/lookups/{}", DROP_LOOKUP, RECORD, 0},
    {"POST", "/api/v1/lookups/{}/keep", KEEP_LOOKUP, RECORD, 0},
    {"GET", "/api/v1/alarms", LIST_ALARMS, READ, 0},
    {"GET", "/api/v1/archive", GET_ARCHIVE, READ, 0},
    {"GET", "/api/v1/audit", LIST_AUDIT, ADMIN, 0},
    {"GET", "/api/v1/events", EVENTS, READ, ROUTE_QUICK},
};

// Cuts the first segment, with the slash before it, off the path.
std::string_view take_segment(std::string_view *path)
{
    const size_t end = path->find('/', 1);
    const std::string_view segment = path->substr(0, end);
    *path = end == std::string_view::npos ? std::string_view() : path->substr(end);
    return segment;
}

bool fits(std::string_view pattern, std::string_view path, std::vector<std::string> *segments)
{
    segments->clear();
    while (!pattern.empty() && !path.empty()) {
        const std::string_view wanted = take_segment(&pattern);
        const std::string_view given = take_segment(&path);
        if (wanted == "/{}" && given.size() > 1) {
            segments->emplace_back(given.substr(1));
        } else if (wanted != given) {
            return false;
        }
    }
    return pattern.empty() && path.empty();
}

} // namespace

routed_t find_route(std::string_view method, std::string_view path)
{
    routed_t result;
    std::vector<std::string> segments;
    for (const route_t &route : ROUTES) {
        if (!fits(route.pattern, path, &segments)) {
            continue;
        }
        const std::string_view known = route.method;
        if (method == known || (method == "HEAD" && known == "GET")) {
            result.route = &route;
            result.segments = segments;
        }
        result.allow.append(result.allow.empty() ? "" : ", ")
            .append(known)
            .append(known == "GET" ? ", HEAD" : "");
    }
    return result;
}

} // namespace kestrune::manager
