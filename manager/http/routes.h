// The table of the interface's paths (docs/openapi.yaml).
#pragma once

#include "http/message.h"

#include <string>
#include <string_view>
#include <vector>

namespace kestrune::manager {

enum class action_t {
    PAGE,
    HEALTH,
    READY,
    METRICS,
    LIST_PROBES,
    GET_PROBE,
    GET_SERIES,
    SET_HISTORY,
    SET_HEAVY,
    BEGIN_CAPTURES,
    LIST_CAPTURES,
    GET_CAPTURE,
    DELETE_CAPTURE,
    STOP_CAPTURE,
    HOLD_CAPTURE,
    GET_PCAP,
    GET_MANIFEST,
    GET_SUMMARY,
    MAKE_TICKET,
    LOOK_UP,
    GET_LOOKUP,
    DROP_LOOKUP,
    KEEP_LOOKUP,
    LIST_ALARMS,
    GET_ARCHIVE,
    LIST_AUDIT,
    EVENTS,
};

enum : unsigned {
    ROUTE_BODY = 1,   // takes a JSON body; the others take none
    ROUTE_TICKET = 2, // a ticket in the query may stand for the token
    ROUTE_QUICK = 4,  // answered on the http thread: looks at memory only, whatever the disk does
};

struct route_t {
    const char *method;
    const char *pattern; // "{}" stands for one segment
    action_t action;
    role_t role; // NONE: no token is needed
    unsigned flags;
};

struct routed_t {
    const route_t *route = nullptr;    // nothing: no such path, or not this method
    std::string allow;                 // the methods that the path has; empty: there is no such path
    std::vector<std::string> segments; // what stands at the places of "{}"
};

// HEAD finds the route of GET. The path is compared as it is: no name that may stand in one needs an escape.
routed_t find_route(std::string_view method, std::string_view path);

} // namespace kestrune::manager
