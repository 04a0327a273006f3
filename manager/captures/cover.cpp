#include "captures/cover.h"

#include <algorithm>

namespace kestrune::manager {

namespace {

// A part that still records, or will. A search serves those that want no more.
bool serves(const capture_t &capture, const part_t &part, bool history_only)
{
    if (part.state == part_state_t::SEARCHING) {
        return history_only;
    }
    return !is_over(part) && (history_only || capture.limits.has_value());
}

bool takes_requests(const capture_t &capture)
{
    return capture.lookup_until == 0 && capture.stop_at == 0;
}

} // namespace

cover_t cover(book_t *book, const ip_addr_t &addr, const capture_request_t &request,
              const std::vector<std::string> &probes)
{
    cover_t result;
    result.probes = probes;
    for (const ulid_t &id : book->of(addr)) {
        const capture_t &capture = book->find(id)->capture;
        if (!takes_requests(capture)) {
            continue;
        }
        bool covers = false;
        for (const part_t &part : capture.parts) {
            const auto asked = std::find(result.probes.begin(), result.probes.end(), part.probe);
            if (asked != result.probes.end() && serves(capture, part, request.history_only)) {
                covers = true;
                result.probes.erase(asked);
            }
        }
        if (covers && capture.direction != BOTH && capture.direction != request.direction &&
            (!request.renew || request.history_only)) {
            result.conflict = id;
        }
        if (covers) {
            result.running.push_back(id);
        }
    }
    return result;
}

bool live_runs(book_t *book, const ip_addr_t &addr, const std::string &probe)
{
    for (const ulid_t &id : book->of(addr)) {
        const capture_t &capture = book->find(id)->capture;
        for (const part_t &part : capture.parts) {
            if (part.probe == probe && capture.limits &&
                (part.state == part_state_t::RECORDING || part.state == part_state_t::REQUESTED)) {
                return true;
            }
        }
    }
    return false;
}

bool may_go(const capture_t &capture)
{
    return capture.state == capture_state_t::SEALED || capture.state == capture_state_t::FAILED ||
           (capture.state == capture_state_t::FINISHED && !capture.waits_for_sealing());
}

} // namespace kestrune::manager
