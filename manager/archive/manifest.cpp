#include "archive/manifest.h"

#include "archive/sha256.h"
#include "client/text_forms.h"
#include "model/times.h"

#include <nlohmann/json.hpp>

namespace kestrune::manager {

namespace {

using json_t = nlohmann::ordered_json;

constexpr std::string_view MANIFEST_FORMAT = "kestrune-manifest/1";
constexpr std::string_view TOMBSTONE_FORMAT = "kestrune-tombstone/1";
constexpr std::string_view CHECKSUM_KEY = ",\n  \"checksum\": \"";
constexpr std::string_view CHECKSUM_END = "\"\n}\n";
constexpr size_t CHECKSUM_SIZE = 64;
constexpr std::string_view TOMBSTONE_KEY = ",\n  \"manifest\": ";
constexpr std::string_view TOMBSTONE_END = "\n}\n";

json_t time_json(uint64_t ns)
{
    return ns == 0 ? json_t() : json_t(time_text(ns));
}

json_t text_json(std::string_view text) // empty: none
{
    return text.empty() ? json_t() : json_t(text);
}

template <typename number_t>
json_t number_json(const std::optional<number_t> &number)
{
    return number ? json_t(*number) : json_t();
}

json_t limits_json(const std::optional<limits_t> &limits)
{
    return limits ? json_t{{"packets", limits->packets}, {"seconds", limits->seconds}} : json_t();
}

json_t reach_json(const std::optional<reach_t> &reach)
{
    return reach ? json_t{{"avg", reach->avg}, {"min", reach->min}, {"max", reach->max}} : json_t();
}

json_t drops_json(const std::optional<drops_t> &drops)
{
    return drops ? json_t{{"kernel", drops->kernel}, {"interface", drops->interface}} : json_t();
}

json_t said_found_json(const said_found_t &counts)
{
    return {{"said", number_json(counts.said)}, {"found", number_json(counts.found)}};
}

json_t source_json(const manifest_source_t &source)
{
    return {{"name", source.name},
            {"origin", source.origin},
            {"bytes", source.bytes},
            {"packets", source.packets},
            {"torn", source.torn},
            {"kept", source.kept},
            {"modified_at", time_json(source.mtime_ns)}};
}

json_t part_json(const manifest_part_t &whole)
{
    const part_t &part = whole.part;
    json_t sources = json_t::array();
    for (const manifest_source_t &source : whole.sources) {
        sources.push_back(source_json(source));
    }
    return {{"probe", part.probe},
            {"state", text_of(part.state)},
            {"live", text_of(part.live)},
            {"started_at", time_json(part.started_at)},
            {"ended_at", time_json(part.ended_at)},
            {"ended_by", text_json(text_of(part.ended_by))},
            {"error", text_json(part.error)},
            {"reach_s", reach_json(part.reach)},
            {"heavy", number_json(part.heavy)},
            {"drops", drops_json(part.drops)},
            {"live_packets", said_found_json(whole.live)},
            {"history_packets", said_found_json(whole.history)},
            {"differences", whole.differences},
            {"sources", sources},
            {"elsewhere", part.elsewhere}};
}

json_t file_json(const manifest_file_t &file)
{
    return {{"name", file.name},
            {"bytes", file.bytes},
            {"sha256", file.sha256},
            {"packets", number_json(file.packets)},
            {"first", time_json(file.first)},
            {"last", time_json(file.last)}};
}

template <typename item_t, typename form_t>
json_t list_json(const std::vector<item_t> &items, form_t form)
{
    json_t list = json_t::array();
    for (const item_t &item : items) {
        list.push_back(form(item));
    }
    return list;
}

json_t manifest_json(const manifest_t &manifest)
{
    const capture_t &capture = manifest.capture;
    const auto origin_json = [](const manifest_origin_t &origin) {
        return json_t{{"interface", origin.interface}, {"packets", origin.packets}};
    };
    return {{"format", MANIFEST_FORMAT},
            {"versions", {{"manager", manifest.manager_version}, {"protocol", manifest.protocol_version}}},
            {"id", capture.id.text()},
            {"address", ip_addr_text(capture.addr).text},
            {"direction", text_of_direction(capture.direction)},
            {"reason", text_json(capture.reason)},
            {"reference", capture.reference.empty() ? json_t() : json_t::parse(capture.reference)},
            {"requested_by", capture.requested_by},
            {"requested_at", time_json(capture.requested_at)},
            {"started_at", time_json(capture.started_at)},
            {"ended_at", time_json(capture.ended_at)},
            {"sealed_at", time_json(capture.sealed_at)},
            {"limits", limits_json(capture.limits)},
            {"origins", list_json(manifest.origins, origin_json)},
            {"parts", list_json(manifest.parts, part_json)},
            {"files", list_json(manifest.files, file_json)}};
}

// What a probe said may be no UTF-8; that becomes replacement characters.
std::string dump(const json_t &json)
{
    return json.dump(2, ' ', false, json_t::error_handler_t::replace);
}

// Readers. nlohmann's own exceptions say what is missing.

uint64_t read_time(const json_t &json)
{
    if (json.is_null()) {
        return 0;
    }
    const std::optional<uint64_t> time = parse_time(json.get<std::string>());
    if (!time) {
        throw manifest_error_t("a time is no time");
    }
    return *time;
}

std::string read_text(const json_t &json)
{
    return json.is_null() ? std::string() : json.get<std::string>();
}

template <typename number_t>
std::optional<number_t> read_number(const json_t &json)
{
    return json.is_null() ? std::nullopt : std::optional(json.get<number_t>());
}

template <typename word_t>
word_t read_word(const json_t &json, word_t last)
{
    const std::string text = read_text(json);
    for (int i = 0; i <= static_cast<int>(last); i++) {
        if (text_of(static_cast<word_t>(i)) == text) {
            return static_cast<word_t>(i);
        }
    }
    throw manifest_error_t("\"" + text + "\" is no known word");
}

said_found_t read_said_found(const json_t &json)
{
    return {read_number<uint64_t>(json.at("said")), read_number<uint64_t>(json.at("found"))};
}

manifest_part_t read_part(const json_t &json)
{
    manifest_part_t whole;
    part_t &part = whole.part;
    part.probe = json.at("probe").get<std::string>();
    part.state = read_word(json.at("state"), part_state_t::FAILED);
    part.live = read_word(json.at("live"), live_t::OVER);
    part.started_at = read_time(json.at("started_at"));
    part.ended_at = read_time(json.at("ended_at"));
    part.ended_by = read_word(json.at("ended_by"), ended_by_t::UNKNOWN);
    part.error = read_text(json.at("error"));
    part.percent = 100;
    whole.live = read_said_found(json.at("live_packets"));
    whole.history = read_said_found(json.at("history_packets"));
    part.live_packets = whole.live.found.value_or(whole.live.said.value_or(0));
    part.history_packets = whole.history.found.value_or(whole.history.said.value_or(0));
    part.local = whole.live.found.has_value();
    whole.differences = json.at("differences").get<std::vector<std::string>>();
    part.elsewhere = json.at("elsewhere").get<std::vector<std::string>>();
    part.heavy = read_number<uint32_t>(json.at("heavy"));
    if (const json_t &reach = json.at("reach_s"); !reach.is_null()) {
        part.reach = {reach.at("avg"), reach.at("min"), reach.at("max")};
    }
    if (const json_t &drops = json.at("drops"); !drops.is_null()) {
        part.drops = {drops.at("kernel"), drops.at("interface")};
    }
    for (const json_t &source : json.at("sources")) {
        whole.sources.push_back({source.at("name"), source.at("origin"), source.at("bytes"),
                                 source.at("packets"), source.at("torn"), source.at("kept"),
                                 read_time(source.at("modified_at"))});
    }
    return whole;
}

void read_capture(const json_t &json, capture_t *capture)
{
    const std::optional<ulid_t> id = parse_ulid(json.at("id").get<std::string>());
    const std::optional<uint8_t> direction = parse_direction(json.at("direction").get<std::string>());
    if (!id || !direction) {
        throw manifest_error_t("its id or direction is none");
    }
    capture->id = *id;
    capture->addr = parse_address(json.at("address").get<std::string>());
    capture->direction = *direction;
    capture->reason = read_text(json.at("reason"));
    capture->reference = json.at("reference").is_null() ? "" : json.at("reference").dump();
    capture->requested_by = json.at("requested_by").get<std::string>();
    capture->requested_at = read_time(json.at("requested_at"));
    capture->started_at = read_time(json.at("started_at"));
    capture->ended_at = read_time(json.at("ended_at"));
    capture->sealed_at = read_time(json.at("sealed_at"));
    if (const json_t &limits = json.at("limits"); !limits.is_null()) {
        capture->limits = {limits.at("packets"), limits.at("seconds")};
    }
}

manifest_t read_manifest(const json_t &json)
{
    if (json.at("format") != MANIFEST_FORMAT) {
        throw manifest_error_t("its format is not " + std::string(MANIFEST_FORMAT));
    }
    manifest_t manifest;
    manifest.manager_version = json.at("versions").at("manager");
    manifest.protocol_version = json.at("versions").at("protocol");
    read_capture(json, &manifest.capture);
    for (const json_t &origin : json.at("origins")) {
        manifest.origins.push_back({origin.at("interface"), origin.at("packets")});
    }
    for (const json_t &part : json.at("parts")) {
        manifest.parts.push_back(read_part(part));
        manifest.capture.parts.push_back(manifest.parts.back().part);
    }
    for (const json_t &file : json.at("files")) {
        manifest.files.push_back({file.at("name"), file.at("bytes"), file.at("sha256"),
                                  read_number<uint64_t>(file.at("packets")), read_time(file.at("first")),
                                  read_time(file.at("last"))});
    }
    return manifest;
}

// Runs a reader; what the JSON library or a text form throws becomes a sentence.
template <typename read_t>
auto guarded(read_t read)
{
    try {
        return read();
    } catch (const manifest_error_t &) {
        throw;
    } catch (const std::exception &error) {
        throw manifest_error_t(std::string("it is not in its form: ") + error.what());
    }
}

} // namespace

std::string manifest_text(const manifest_t &manifest)
{
    std::string text = dump(manifest_json(manifest));
    text.resize(text.size() - TOMBSTONE_END.size() + 1); // "\n}"
    const std::string checksum = sha256_hex(text);
    return text.append(CHECKSUM_KEY).append(checksum).append(CHECKSUM_END);
}

manifest_t parse_manifest(std::string_view text)
{
    const size_t tail = CHECKSUM_KEY.size() + CHECKSUM_SIZE + CHECKSUM_END.size();
    const std::string_view body = text.substr(0, text.size() - std::min(tail, text.size()));
    const std::string expected = std::string(CHECKSUM_KEY) + sha256_hex(body) + std::string(CHECKSUM_END);
    if (text.substr(body.size()) != expected) {
        throw manifest_error_t("it was changed: its checksum is not that of its text");
    }
    return guarded([&] { return read_manifest(json_t::parse(text)); });
}

std::string tombstone_text(const tombstone_t &tombstone, const ulid_t &id)
{
    std::string text = dump({{"format", TOMBSTONE_FORMAT},
                             {"id", id.text()},
                             {"cause", tombstone.cause},
                             {"deleted_at", time_text(tombstone.at)}});
    text.resize(text.size() - TOMBSTONE_END.size() + 1);
    text.append(TOMBSTONE_KEY);
    text.append(tombstone.manifest, 0, tombstone.manifest.size() - 1); // without its newline
    return text.append(TOMBSTONE_END);
}

tombstone_t parse_tombstone(std::string_view text)
{
    const size_t at = text.find(TOMBSTONE_KEY);
    if (at == std::string_view::npos || !text.ends_with(TOMBSTONE_END)) {
        throw manifest_error_t("it is not in its form");
    }
    return guarded([&] {
        const json_t json = json_t::parse(text);
        const size_t begin = at + TOMBSTONE_KEY.size();
        tombstone_t tombstone = {json.at("cause"), read_time(json.at("deleted_at")), {}};
        tombstone.manifest.assign(text.substr(begin, text.size() - TOMBSTONE_END.size() - begin));
        tombstone.manifest += '\n';
        return tombstone;
    });
}

uint64_t found_packets(const manifest_part_t &part, bool live)
{
    uint64_t packets = 0;
    for (const manifest_source_t &source : part.sources) {
        packets += (source.origin == "live") == live ? source.packets : 0;
    }
    return packets;
}

} // namespace kestrune::manager
