#include "http/api.h"

#include "common/clock.h"
#include "forms/forms.h"
#include "http/limits.h"
#include "http/metrics.h"
#include "http/query.h"
#include "http/range.h"
#include "http/tokens.h"
#include "model/log.h"
#include "model/times.h"

#include <algorithm>

namespace kestrune::manager {
namespace {

constexpr uint64_t TURN_MAX_NS = 10 * NS_PER_S; // since the captures thread last turned
constexpr uint64_t SERIES_NS = 24ULL * 3600 * NS_PER_S;
constexpr size_t KEY_MAX = 128; // characters of an Idempotency-Key
constexpr uint32_t STEP_UNIT_S = 10;

// An answer that ends the work on a request.
struct refusal_t {
    http_answer_t answer;
};

[[noreturn]] void refuse(unsigned status, const std::string &detail, const std::string &field = "")
{
    throw refusal_t{problem(status, detail, field)};
}

unsigned status_of(result_t result)
{
    switch (result) {
    case result_t::CREATED:
        return 201;
    case result_t::OK:
        return 200;
    case result_t::BAD_VALUE:
        return 400;
    case result_t::NOT_FOUND:
        return 404;
    case result_t::WRONG_STATE:
    case result_t::OTHER_DIRECTION:
        return 409;
    case result_t::OTHER_BODY:
        return 422;
    case result_t::NO_ROOM:
        return 507;
    case result_t::BROKEN:
        break;
    }
    return 503;
}

bool is_success(result_t result)
{
    return result == result_t::CREATED || result == result_t::OK;
}

// Changes that were refused for what they ask, which the audit shows. Not those that were not understood.
bool is_refused_change(const route_t &route, unsigned status)
{
    const bool changes = std::string_view(route.method) != "GET";
    return changes && (status == 409 || status == 422 || status == 503 || status == 507);
}

http_answer_t of_disk(const catalogue_error_t &error)
{
    return error.failure() == catalogue_failure_t::FULL
               ? problem(507, "the disk of the catalogue is full")
               : problem(503, "the catalogue cannot be used just now");
}

http_answer_t of_archive(const archive_error_t &error)
{
    return error.failure() == archive_failure_t::MISSING
               ? problem(409, "there is no such file of this capture")
               : problem(503, "the archive cannot be read just now");
}

request_key_t key_of(const http_request_t &request)
{
    if (!request.fields.idempotency_key) {
        return {};
    }
    const std::string &key = *request.fields.idempotency_key;
    const auto printable_character = [](char c) { return c >= '!' && c <= '~'; };
    if (key.empty() || key.size() > KEY_MAX || !std::all_of(key.begin(), key.end(), printable_character)) {
        throw form_error_t("Idempotency-Key", "a key has 1 to 128 printable characters without blanks");
    }
    return {key, sha256_hex(request.body)};
}

ulid_t id_of(const http_request_t &request)
{
    const std::optional<ulid_t> id = parse_ulid(request.segments.at(0));
    if (!id) {
        refuse(404, "there is no such id");
    }
    return *id;
}

// Routes that have no parameters refuse them all.
void check_query(const http_request_t &request, const route_t &route)
{
    switch (route.action) {
    case action_t::GET_SERIES:
    case action_t::LIST_CAPTURES:
    case action_t::LIST_AUDIT:
        return; // they look themselves
    default:
        break;
    }
    query_t query(query_of(request.target));
    if ((route.flags & ROUTE_TICKET) != 0) {
        (void)query.take("ticket"); // the gate has seen it
    }
    query.finish();
}

http_answer_t no_content()
{
    http_answer_t answer;
    answer.status = 204;
    return answer;
}

} // namespace

struct api_t::task_t {
    http_request_t request;
    const route_t *route;
    answer_to_t answer_to;
    const api_t *api;

    void answer(http_answer_t given) const { answer_to(std::move(given)); }

    // Answers for a room: with what `good` makes of its reply, or with its refusal.
    template <typename F>
    static done_t done(const std::shared_ptr<const task_t> &task, F good)
    {
        return [task, owner = task->api->shared_from_this(), good](const reply_t &reply) {
            if (is_success(reply.result)) {
                task->answer(good(reply));
                return;
            }
            const unsigned status = status_of(reply.result);
            if (is_refused_change(*task->route, status)) {
                owner->audit(task->request.caller, "refused",
                             task->request.segments.empty() ? "" : task->request.segments[0],
                             std::to_string(status) + ": " + reply.text);
            }
            task->answer(problem(status, reply.text, reply.field));
        };
    }
};

api_t::api_t(const limit_settings_t &limits, const http_neighbours_t &rooms, tickets_t *tickets,
             const http_counters_t *counters)
    : rooms_(rooms), tickets_(tickets), counters_(counters), started_at_(wall_now_ns()),
      pages_(pages_t::read(page_folder())), limits_(limits)
{
}

void api_t::replace_limits(const limit_settings_t &limits)
{
    const hold_lock_t hold(lock_);
    limits_ = limits;
}

limit_settings_t api_t::limits() const
{
    const hold_lock_t hold(lock_);
    return limits_;
}

void api_t::audit(const caller_t &caller, const std::string &action, const std::string &object,
                  const std::string &detail) const
{
    audit_t row;
    row.who = caller.who;
    row.from = caller.from;
    row.action = action;
    row.object = object;
    row.detail = detail;
    rooms_.captures->audit(std::move(row));
}

http_answer_t api_t::quick(const http_request_t &request, const route_t &route) const
{
    if (route.action == action_t::READY) {
        return ready();
    }
    if (route.action == action_t::PAGE) {
        return pages_.answer(request);
    }
    http_answer_t answer;
    answer.content_type = "text/plain; charset=utf-8";
    answer.body = "ok\n";
    return answer;
}

void api_t::work(const http_request_t &request, const route_t &route, const answer_to_t &answer)
{
    const auto task = std::make_shared<const task_t>(task_t{request, &route, answer, this});
    try {
        check_query(request, route);
        dispatch(task);
    } catch (refusal_t &refusal) {
        answer(std::move(refusal.answer));
    } catch (const form_error_t &error) {
        answer(problem(400, error.what(), error.field()));
    } catch (const catalogue_error_t &error) {
        log_error(std::string("catalogue: ") + error.what());
        answer(of_disk(error));
    } catch (const archive_error_t &error) {
        log_error(std::string("archive: ") + error.what());
        answer(of_archive(error));
    }
}

void api_t::dispatch(const task_ptr_t &task)
{
    const http_request_t &request = task->request;
    switch (task->route->action) {
    case action_t::METRICS:
        return task->answer(metrics());
    case action_t::LIST_PROBES:
        return task->answer(list_probes());
    case action_t::GET_PROBE:
        return task->answer(get_probe(request.segments.at(0)));
    case action_t::GET_SERIES:
        return task->answer(get_series(request));
    case action_t::SET_HISTORY: {
        const history_request_t wish = parse_history_request(request.body);
        return change_probe(task, history_change_t{wish.on, wish.size_mb}, "history",
                            wish.on ? "on, " + std::to_string(wish.size_mb) + " MiB" : "off");
    }
    case action_t::SET_HEAVY: {
        const uint32_t packets = parse_heavy_request(request.body);
        return change_probe(task, heavy_change_t{packets}, "heavy", std::to_string(packets) + " packets");
    }
    case action_t::LIST_ALARMS:
        return task->answer(json_answer(200, json_of(rooms_.events->alarms())));
    case action_t::GET_ARCHIVE:
        return task->answer(json_answer(200, json_of(rooms_.captures->archive_view())));
    case action_t::LIST_AUDIT:
        return task->answer(list_audit(request));
    default:
        return dispatch_capture(task);
    }
}

void api_t::dispatch_capture(const task_ptr_t &task)
{
    const http_request_t &request = task->request;
    const auto capture = [](const reply_t &reply) { return json_answer(200, json_of(reply.captures.at(0))); };
    switch (task->route->action) {
    case action_t::BEGIN_CAPTURES:
        return record(task);
    case action_t::LIST_CAPTURES:
        return task->answer(list_captures(request));
    case action_t::GET_CAPTURE:
        return task->answer(get_capture(request));
    case action_t::DELETE_CAPTURE:
        return rooms_.captures->erase(id_of(request), request.caller,
                                      task_t::done(task, [](const reply_t &) { return no_content(); }));
    case action_t::STOP_CAPTURE:
        return rooms_.captures->stop_capture(id_of(request), request.caller, task_t::done(task, capture));
    case action_t::HOLD_CAPTURE: {
        const ulid_t id = id_of(request);
        hold_request_t wish = parse_hold_request(request.body);
        return rooms_.captures->hold(id, wish.hold, std::move(wish.why), request.caller,
                                     task_t::done(task, capture));
    }
    case action_t::GET_PCAP:
        return task->answer(get_pcap(request));
    case action_t::GET_MANIFEST:
        return task->answer(get_manifest(request));
    case action_t::GET_SUMMARY:
        return task->answer(get_summary(request));
    case action_t::MAKE_TICKET:
        return task->answer(make_ticket(request));
    default:
        return dispatch_lookup(task);
    }
}

void api_t::dispatch_lookup(const task_ptr_t &task)
{
    const http_request_t &request = task->request;
    switch (task->route->action) {
    case action_t::LOOK_UP: {
        lookup_request_t wish = parse_lookup_request(request.body);
        const auto accepted = [](const reply_t &reply) {
            return json_answer(202, json_of_lookup(reply.captures.at(0), ""));
        };
        return rooms_.captures->lookup(wish.addr, std::move(wish.probes), request.caller,
                                       task_t::done(task, accepted));
    }
    case action_t::GET_LOOKUP:
        return task->answer(get_lookup(request));
    case action_t::DROP_LOOKUP:
        return rooms_.captures->drop_lookup(id_of(request), request.caller,
                                            task_t::done(task, [](const reply_t &) { return no_content(); }));
    case action_t::KEEP_LOOKUP: {
        const auto kept = [](const reply_t &reply) {
            return json_answer(200, json_of(reply.captures.at(0)));
        };
        return rooms_.captures->keep_lookup(id_of(request), request.caller, task_t::done(task, kept));
    }
    default:
        return task->answer(problem(404, "there is no such path"));
    }
}

// The manager itself

http_answer_t api_t::ready() const
{
    const captures_stats_t stats = rooms_.captures->stats();
    if (!stats.ready) {
        return problem(503, "the state is being rebuilt");
    }
    if (monotonic_now_ns() - stats.turned_at > TURN_MAX_NS) {
        return problem(503, "the captures thread has not turned for ten seconds");
    }
    if (!stats.catalogue_writable) {
        return problem(503, "the catalogue cannot be written");
    }
    http_answer_t answer;
    answer.content_type = "text/plain; charset=utf-8";
    answer.body = "ready\n";
    return answer;
}

http_answer_t api_t::metrics() const
{
    metrics_t metrics;
    metrics.probes = rooms_.probes->views();
    metrics.totals = rooms_.catalogue->totals();
    metrics.captures = rooms_.captures->stats();
    metrics.archive = rooms_.captures->archive_view();
    metrics.alarms = rooms_.events->alarms().size();
    metrics.started_at = started_at_;
    http_answer_t answer;
    answer.content_type = "text/plain; version=0.0.4; charset=utf-8";
    answer.body = metrics_text(metrics, *counters_);
    return answer;
}

http_answer_t api_t::list_audit(const http_request_t &request) const
{
    query_t query(query_of(request.target));
    const auto limit = static_cast<uint32_t>(query.take_number("limit", 1, 1000).value_or(100));
    const uint64_t before = query.take_number("before", 1, INT64_MAX).value_or(0);
    query.finish();
    const audit_page_t page = rooms_.catalogue->audit(before, limit);
    return json_answer(200, json_of(page.audit, page.next));
}

// Probes

http_answer_t api_t::list_probes() const
{
    return json_answer(200, json_of(rooms_.probes->views()));
}

http_answer_t api_t::get_probe(const std::string &name) const
{
    const std::optional<probe_view_t> view = rooms_.probes->view(name);
    if (!view) {
        refuse(404, "there is no such probe");
    }
    return json_answer(200, json_of(*view));
}

http_answer_t api_t::get_series(const http_request_t &request) const
{
    query_t query(query_of(request.target));
    const uint64_t earliest = wall_now_ns() - SERIES_NS;
    const uint64_t from = std::max(query.take_time("from").value_or(0), earliest);
    const auto step =
        static_cast<uint32_t>(query.take_number("step", STEP_UNIT_S, 3600).value_or(STEP_UNIT_S));
    query.finish();
    if (step % STEP_UNIT_S != 0) {
        throw form_error_t("step", "step is a multiple of 10");
    }
    const std::optional<series_t> series = rooms_.probes->series(request.segments.at(0), from, step);
    if (!series) {
        refuse(404, "there is no such probe");
    }
    return json_answer(200, json_of(request.segments.at(0), *series));
}

void api_t::change_probe(const task_ptr_t &task, const probe_change_t &change, const std::string &action,
                         const std::string &detail)
{
    const std::string name = task->request.segments.at(0);
    const std::optional<probe_view_t> view = rooms_.probes->view(name);
    if (!view) {
        refuse(404, "there is no such probe");
    }
    rooms_.probes->change(
        name, change, [task, owner = shared_from_this(), name, action, detail](const std::string &error) {
            if (!error.empty()) {
                owner->audit(task->request.caller, "refused", name, action + " " + detail + ": " + error);
                task->answer(problem(409, error));
                return;
            }
            owner->audit(task->request.caller, action, name, detail);
            const std::optional<probe_view_t> now = owner->rooms_.probes->view(name);
            task->answer(now ? json_answer(200, json_of(*now))
                             : problem(404, "there is no such probe any more"));
        });
}

// Captures

void api_t::record(const task_ptr_t &task)
{
    request_key_t key = key_of(task->request);
    capture_request_t request = parse_capture_request(task->request.body, limits());
    rooms_.captures->record(std::move(request), task->request.caller, std::move(key),
                            task_t::done(task, [](const reply_t &reply) {
                                return json_answer(status_of(reply.result), json_of(reply.captures));
                            }));
}

http_answer_t api_t::list_captures(const http_request_t &request) const
{
    const capture_query_t query = parse_capture_query(query_of(request.target));
    try {
        return json_answer(200, json_of(rooms_.catalogue->query(query)));
    } catch (const std::invalid_argument &) {
        throw form_error_t("cursor", "the cursor is not of a page with these parameters");
    }
}

capture_t api_t::find(const http_request_t &request) const
{
    std::optional<capture_t> capture = rooms_.catalogue->find(id_of(request));
    if (!capture) {
        refuse(404, "there is no such capture");
    }
    return std::move(*capture);
}

http_answer_t api_t::get_capture(const http_request_t &request) const
{
    return json_answer(200, json_of(find(request)));
}

http_answer_t api_t::get_pcap(const http_request_t &request) const
{
    const capture_t capture = find(request);
    if (capture.state != capture_state_t::SEALED || !capture.file) {
        refuse(409, "the capture is " + std::string(text_of(capture.state)) + ", not sealed");
    }
    const std::string etag = "\"" + capture.file->sha256 + "\"";
    http_answer_t answer;
    answer.fields = {{"ETag", etag}};
    if (request.fields.if_none_match && matches_etag(*request.fields.if_none_match, etag)) {
        answer.status = 304;
        return answer;
    }
    std::shared_ptr<reading_t> reading = rooms_.archive->open_pcap(capture.id);
    const uint64_t size = reading->size();
    byte_range_t range;
    if (request.fields.range && range_applies(request.fields.if_range, etag)) {
        range = parse_range(*request.fields.range, size);
    }
    if (range.result == range_result_t::UNSATISFIABLE) {
        answer = problem(416, "the file has " + std::to_string(size) + " bytes");
        answer.fields.emplace_back("Content-Range", "bytes */" + std::to_string(size));
        return answer;
    }
    answer.content_type = "application/x-pcapng";
    answer.fields.emplace_back("Accept-Ranges", "bytes");
    answer.fields.emplace_back("Content-Disposition",
                               "attachment; filename=\"" + capture.id.text() + ".pcapng\"");
    answer.file = file_bytes_t{reading->fd(), 0, size, reading};
    std::string detail = "whole";
    if (range.result == range_result_t::PART) {
        answer.status = 206;
        answer.file->offset = range.offset;
        answer.file->length = range.length;
        detail =
            "bytes " + std::to_string(range.offset) + "-" + std::to_string(range.offset + range.length - 1);
        answer.fields.emplace_back("Content-Range", detail + "/" + std::to_string(size));
    }
    if (request.method == "GET") {
        audit(request.caller, "download", capture.id.text(), detail);
    }
    return answer;
}

http_answer_t api_t::get_manifest(const http_request_t &request) const
{
    const capture_t capture = find(request);
    if (capture.manifest_sha256.empty()) {
        refuse(409, "the capture is " + std::string(text_of(capture.state)) + " and has no manifest");
    }
    return json_answer(200, rooms_.archive->manifest_text(capture.id));
}

http_answer_t api_t::get_summary(const http_request_t &request) const
{
    const capture_t capture = find(request);
    if (capture.state != capture_state_t::SEALED) {
        refuse(409, "the capture is " + std::string(text_of(capture.state)) + ", not sealed");
    }
    return json_answer(200, rooms_.archive->summary_text(capture.id));
}

http_answer_t api_t::make_ticket(const http_request_t &request) const
{
    const capture_t capture = find(request);
    if (capture.state != capture_state_t::SEALED) {
        refuse(409, "the capture is " + std::string(text_of(capture.state)) + ", not sealed");
    }
    const std::string id = capture.id.text();
    const uint64_t until = wall_now_ns() + static_cast<uint64_t>(TICKET_TIME.count()) * NS_PER_S;
    const std::string ticket = tickets_->make(capture.id, request.caller.who);
    audit(request.caller, "ticket", id, "until " + time_text(until));
    return json_answer(201, ticket_json("/api/v1/captures/" + id + "/pcap?ticket=" + ticket, until));
}

// Lookups

http_answer_t api_t::get_lookup(const http_request_t &request) const
{
    const capture_t capture = find(request);
    if (capture.lookup_until == 0 || capture.lookup_until <= wall_now_ns() ||
        capture.state == capture_state_t::DELETED) {
        refuse(404, "there is no such lookup; it was kept, dropped, or is older than ten minutes");
    }
    const bool sealed = capture.state == capture_state_t::SEALED;
    return json_answer(200, json_of_lookup(capture, sealed ? rooms_.archive->summary_text(capture.id) : ""));
}

} // namespace kestrune::manager
