#include "catalogue/rows.h"

#include <algorithm>
#include <cstring>

namespace kestrune::manager {

// Times are nanoseconds since the epoch. Words of the model are stored as their numbers (model/capture.h), which
// therefore never change. `open`: the captures thread has something to do with it.
const char *const SCHEMA = R"(
CREATE TABLE captures (
    id BLOB PRIMARY KEY, address BLOB NOT NULL, direction INTEGER NOT NULL, state INTEGER NOT NULL,
    reason TEXT NOT NULL, reference TEXT NOT NULL, requested_by TEXT NOT NULL, requested_at INTEGER NOT NULL,
    started_at INTEGER, ended_at INTEGER, sealed_at INTEGER, stop_at INTEGER, stop_why TEXT NOT NULL,
    lookup_until INTEGER NOT NULL, limit_packets INTEGER, limit_seconds INTEGER,
    file_bytes INTEGER, file_packets INTEGER, file_sha256 TEXT, manifest_sha256 TEXT NOT NULL,
    hold_at INTEGER, hold_why TEXT, hold_by TEXT, seal_error TEXT NOT NULL,
    deleted_at INTEGER, deleted_cause TEXT, files_gone INTEGER,
    open INTEGER NOT NULL, packets INTEGER NOT NULL
) WITHOUT ROWID;
CREATE INDEX captures_time ON captures (requested_at);
CREATE INDEX captures_address ON captures (address, requested_at);
CREATE INDEX captures_state ON captures (state, requested_at);
CREATE INDEX captures_open ON captures (open) WHERE open = 1;
CREATE INDEX captures_lookup ON captures (lookup_until) WHERE lookup_until > 0;
CREATE TABLE parts (
    capture BLOB NOT NULL, position INTEGER NOT NULL, probe TEXT NOT NULL, local INTEGER NOT NULL,
    state INTEGER NOT NULL, live INTEGER NOT NULL, sent INTEGER NOT NULL, removed INTEGER NOT NULL,
    percent INTEGER NOT NULL, live_packets INTEGER NOT NULL, history_packets INTEGER NOT NULL,
    said_live INTEGER, said_history INTEGER, ended_by INTEGER NOT NULL, error TEXT NOT NULL,
    sent_at INTEGER, started_at INTEGER, ended_at INTEGER,
    reach_avg INTEGER, reach_min INTEGER, reach_max INTEGER, heavy INTEGER,
    begin_kernel INTEGER, begin_interface INTEGER, drops_kernel INTEGER, drops_interface INTEGER,
    elsewhere BLOB NOT NULL,
    PRIMARY KEY (capture, position)
) WITHOUT ROWID;
CREATE TABLE audit (
    number INTEGER PRIMARY KEY AUTOINCREMENT, at INTEGER NOT NULL, who TEXT NOT NULL, origin TEXT NOT NULL,
    action TEXT NOT NULL, object TEXT NOT NULL, detail TEXT NOT NULL
);
CREATE TABLE kept_answers (
    who TEXT NOT NULL, key TEXT NOT NULL, body_sha256 TEXT NOT NULL, at INTEGER NOT NULL, created INTEGER NOT NULL,
    ids BLOB NOT NULL, PRIMARY KEY (who, key)
) WITHOUT ROWID;
CREATE INDEX kept_answers_at ON kept_answers (at);
)";

const std::string CAPTURE_COLUMNS =
    "id, address, direction, state, reason, reference, requested_by, requested_at, started_at, ended_at, "
    "sealed_at, stop_at, stop_why, lookup_until, limit_packets, limit_seconds, file_bytes, file_packets, "
    "file_sha256, manifest_sha256, hold_at, hold_why, hold_by, seal_error, deleted_at, deleted_cause, "
    "files_gone";

namespace {

constexpr size_t IPV4_SIZE = 4;
constexpr size_t IPV6_SIZE = 16;

const std::string PART_COLUMNS =
    "probe, local, state, live, sent, removed, percent, live_packets, history_packets, said_live, "
    "said_history, ended_by, error, sent_at, started_at, ended_at, reach_avg, reach_min, reach_max, "
    "heavy, begin_kernel, begin_interface, drops_kernel, drops_interface, elsewhere";

// "?, ?, ..." for a list of columns.
std::string marks(const std::string &columns)
{
    std::string text = "?";
    for (const char c : columns) {
        text += c == ',' ? ", ?" : "";
    }
    return text;
}

bool is_open(const capture_t &capture)
{
    switch (capture.state) {
    case capture_state_t::REQUESTED:
    case capture_state_t::RECORDING:
    case capture_state_t::SEARCHING:
        return true;
    case capture_state_t::FINISHED:
        return capture.waits_for_sealing();
    case capture_state_t::DELETED:
        return !capture.deleted || !capture.deleted->files_gone;
    default:
        return false;
    }
}

// File names have no zero byte.
std::string joined(const std::vector<std::string> &names)
{
    std::string text;
    for (const std::string &name : names) {
        text += name;
        text += '\0';
    }
    return text;
}

std::vector<std::string> parted(const blob_t &bytes)
{
    std::vector<std::string> names;
    for (auto at = bytes.begin(); at != bytes.end();) {
        const auto end = std::find(at, bytes.end(), 0);
        names.emplace_back(at, end);
        at = end == bytes.end() ? end : end + 1;
    }
    return names;
}

void write_part(connection_t *connection, const ulid_t &id, size_t position, const part_t &part)
{
    static const std::string SQL = "INSERT OR REPLACE INTO parts (capture, position, " + PART_COLUMNS +
                                   ") VALUES (?, ?, " + marks(PART_COLUMNS) + ")";
    const auto number_of = [](const auto &record, auto field) {
        return record ? std::optional<uint64_t>((*record).*field) : std::nullopt;
    };
    const std::string elsewhere = joined(part.elsewhere);
    statement_t statement = connection->prepare(SQL);
    statement.bind(id).bind(uint64_t{position}).bind_text(part.probe).bind(uint64_t{part.local});
    statement.bind(static_cast<uint64_t>(part.state)).bind(static_cast<uint64_t>(part.live));
    statement.bind(uint64_t{part.sent}).bind(uint64_t{part.removed}).bind(uint64_t{part.percent});
    statement.bind(part.live_packets).bind(part.history_packets);
    statement.bind_optional(part.said_live).bind_optional(part.said_history);
    statement.bind(static_cast<uint64_t>(part.ended_by)).bind_text(part.error);
    statement.bind_time(part.sent_at).bind_time(part.started_at).bind_time(part.ended_at);
    statement.bind_optional(number_of(part.reach, &reach_t::avg));
    statement.bind_optional(number_of(part.reach, &reach_t::min));
    statement.bind_optional(number_of(part.reach, &reach_t::max)).bind_optional(part.heavy);
    for (const std::optional<drops_t> *drops : {&part.drops_begin, &part.drops}) {
        statement.bind_optional(number_of(*drops, &drops_t::kernel));
        statement.bind_optional(number_of(*drops, &drops_t::interface));
    }
    statement.bind_blob(elsewhere.data(), elsewhere.size()).run();
}

part_t read_part(statement_t *row)
{
    part_t part;
    part.probe = row->text();
    part.local = row->number() != 0;
    part.state = row->as<part_state_t>();
    part.live = row->as<live_t>();
    part.sent = row->number() != 0;
    part.removed = row->number() != 0;
    part.percent = row->as<uint8_t>();
    part.live_packets = row->number();
    part.history_packets = row->number();
    part.said_live = row->optional<uint32_t>();
    part.said_history = row->optional<uint32_t>();
    part.ended_by = row->as<ended_by_t>();
    part.error = row->text();
    part.sent_at = row->number();
    part.started_at = row->number();
    part.ended_at = row->number();
    const auto avg = row->optional<uint32_t>();
    const auto min = row->as<uint32_t>();
    const auto max = row->as<uint32_t>();
    if (avg) {
        part.reach = {*avg, min, max};
    }
    part.heavy = row->optional<uint32_t>();
    for (std::optional<drops_t> *drops : {&part.drops_begin, &part.drops}) {
        const auto kernel = row->optional<uint64_t>();
        const uint64_t interface = row->number();
        if (kernel) {
            *drops = {*kernel, interface};
        }
    }
    part.elsewhere = parted(row->blob());
    return part;
}

} // namespace

blob_t address_key(const ip_addr_t &addr)
{
    const bool is_ipv4 = ip_addr_is_ipv4(addr);
    blob_t key = {static_cast<uint8_t>(is_ipv4 ? 4 : 6)};
    const uint8_t *begin = addr.bytes + (is_ipv4 ? IPV4_SIZE : 0); // behind the ones of an IPv4 key
    key.insert(key.end(), begin, begin + (is_ipv4 ? IPV4_SIZE : IPV6_SIZE));
    std::reverse(key.begin() + 1, key.end());
    return key;
}

ip_addr_t address_of_key(const blob_t &key)
{
    blob_t bytes = key;
    if (bytes.size() != 1 + IPV4_SIZE && bytes.size() != 1 + IPV6_SIZE) {
        throw catalogue_error_t(catalogue_failure_t::DAMAGED, "the catalogue: an address is none");
    }
    std::reverse(bytes.begin() + 1, bytes.end());
    return bytes.size() == 1 + IPV4_SIZE ? ip_addr_from_ipv4(bytes.data() + 1)
                                         : ip_addr_from_ipv6(bytes.data() + 1);
}

void write_capture(connection_t *connection, const capture_t &capture)
{
    static const std::string SQL = "INSERT OR REPLACE INTO captures (" + CAPTURE_COLUMNS +
                                   ", open, packets) VALUES (" + marks(CAPTURE_COLUMNS) + ", ?, ?)";
    const blob_t address = address_key(capture.addr);
    const auto text_or_null = [](statement_t *statement, bool there, const std::string &text) {
        there ? statement->bind_text(text) : statement->bind_null();
    };
    statement_t statement = connection->prepare(SQL);
    statement.bind(capture.id).bind_blob(address.data(), address.size()).bind(uint64_t{capture.direction});
    statement.bind(static_cast<uint64_t>(capture.state)).bind_text(capture.reason);
    statement.bind_text(capture.reference).bind_text(capture.requested_by).bind(capture.requested_at);
    statement.bind_time(capture.started_at).bind_time(capture.ended_at).bind_time(capture.sealed_at);
    statement.bind_time(capture.stop_at).bind_text(capture.stop_why).bind(capture.lookup_until);
    const std::optional<limits_t> &limits = capture.limits;
    statement.bind_optional(limits ? std::optional(limits->packets) : std::nullopt);
    statement.bind_optional(limits ? std::optional(limits->seconds) : std::nullopt);
    const std::optional<file_t> &file = capture.file;
    statement.bind_optional(file ? std::optional(file->bytes) : std::nullopt);
    statement.bind_optional(file ? std::optional(file->packets) : std::nullopt);
    text_or_null(&statement, file.has_value(), file.value_or(file_t()).sha256);
    statement.bind_text(capture.manifest_sha256);
    const hold_t hold = capture.hold.value_or(hold_t());
    statement.bind_optional(capture.hold ? std::optional(hold.at) : std::nullopt);
    text_or_null(&statement, capture.hold.has_value(), hold.why);
    text_or_null(&statement, capture.hold.has_value(), hold.by);
    statement.bind_text(capture.seal_error);
    const deleted_t deleted = capture.deleted.value_or(deleted_t());
    statement.bind_optional(capture.deleted ? std::optional(deleted.at) : std::nullopt);
    text_or_null(&statement, capture.deleted.has_value(), deleted.cause);
    statement.bind(uint64_t{deleted.files_gone}).bind(uint64_t{is_open(capture)});
    statement.bind(file ? file->packets : live_packets(capture) + history_packets(capture)).run();
    for (size_t i = 0; i < capture.parts.size(); i++) {
        write_part(connection, capture.id, i, capture.parts[i]);
    }
}

capture_t read_capture(connection_t *connection, statement_t *row)
{
    static const std::string PARTS =
        "SELECT " + PART_COLUMNS + " FROM parts WHERE capture = ? ORDER BY position";
    capture_t capture;
    capture.id = row->id();
    capture.addr = address_of_key(row->blob());
    capture.direction = row->as<uint8_t>();
    capture.state = row->as<capture_state_t>();
    capture.reason = row->text();
    capture.reference = row->text();
    capture.requested_by = row->text();
    capture.requested_at = row->number();
    capture.started_at = row->number();
    capture.ended_at = row->number();
    capture.sealed_at = row->number();
    capture.stop_at = row->number();
    capture.stop_why = row->text();
    capture.lookup_until = row->number();
    const auto limit_packets = row->optional<uint32_t>();
    const auto limit_seconds = row->as<uint32_t>();
    if (limit_packets) {
        capture.limits = {*limit_packets, limit_seconds};
    }
    const auto file_bytes = row->optional<uint64_t>();
    file_t file = {file_bytes.value_or(0), row->number(), row->text()};
    if (file_bytes) {
        capture.file = std::move(file);
    }
    capture.manifest_sha256 = row->text();
    const auto hold_at = row->optional<uint64_t>();
    hold_t hold = {row->text(), row->text(), hold_at.value_or(0)};
    if (hold_at) {
        capture.hold = std::move(hold);
    }
    capture.seal_error = row->text();
    const auto deleted_at = row->optional<uint64_t>();
    deleted_t deleted = {row->text(), deleted_at.value_or(0), row->number() != 0};
    if (deleted_at) {
        capture.deleted = std::move(deleted);
    }
    statement_t parts = connection->prepare(PARTS);
    parts.bind(capture.id);
    while (parts.step()) {
        capture.parts.push_back(read_part(&parts));
    }
    return capture;
}

void write_audit(connection_t *connection, const audit_t &row)
{
    connection
        ->prepare("INSERT INTO audit (at, who, origin, action, object, detail) VALUES (?, ?, ?, ?, ?, ?)")
        .bind(row.at)
        .bind_text(row.who)
        .bind_text(row.from)
        .bind_text(row.action)
        .bind_text(row.object)
        .bind_text(row.detail)
        .run();
}

// Old ones go whenever a new one comes.
void write_kept_answer(connection_t *connection, const kept_answer_t &answer)
{
    if (answer.at > KEY_KEPT_NS) {
        connection->prepare("DELETE FROM kept_answers WHERE at < ?").bind(answer.at - KEY_KEPT_NS).run();
    }
    blob_t ids;
    for (const ulid_t &id : answer.ids) {
        ids.insert(ids.end(), id.bytes.begin(), id.bytes.end());
    }
    connection
        ->prepare("INSERT OR REPLACE INTO kept_answers (who, key, body_sha256, at, created, ids) "
                  "VALUES (?, ?, ?, ?, ?, ?)")
        .bind_text(answer.who)
        .bind_text(answer.key)
        .bind_text(answer.body_sha256)
        .bind(answer.at)
        .bind(uint64_t{answer.created})
        .bind_blob(ids.data(), ids.size())
        .run();
}

kept_answer_t read_kept_answer(statement_t *row)
{
    kept_answer_t answer;
    answer.who = row->text();
    answer.key = row->text();
    answer.body_sha256 = row->text();
    answer.at = row->number();
    answer.created = row->number() != 0;
    const blob_t ids = row->blob();
    for (size_t at = 0; at + sizeof(ulid_t) <= ids.size(); at += sizeof(ulid_t)) {
        std::memcpy(answer.ids.emplace_back().bytes.data(), ids.data() + at, sizeof(ulid_t));
    }
    return answer;
}

} // namespace kestrune::manager
