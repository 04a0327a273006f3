// The bodies of requests.
#include "forms/strict_json.h"

#include "client/text_forms.h"

#include <algorithm>
#include <limits>

namespace kestrune::manager {
namespace {

constexpr size_t REASON_MAX = 1024;    // bytes
constexpr size_t REFERENCE_MAX = 8192; // bytes of JSON
constexpr size_t ADDRESS_MAX = 64;     // bytes; the longest form has fewer
constexpr size_t PROBES_MAX = 64;
constexpr size_t PROBE_NAME_MAX = 63; // bytes
constexpr uint32_t UINT32_ANY = std::numeric_limits<uint32_t>::max();

ip_addr_t parse_addr_field(const std::string &text, const std::string &field)
{
    try {
        return parse_address(text);
    } catch (const std::invalid_argument &error) {
        throw form_error_t(field, error.what());
    }
}

// Each once, in their order.
std::vector<ip_addr_t> take_addresses(fields_t *fields, uint32_t most)
{
    (void)fields->take_required("addresses");
    const std::vector<std::string> texts = *fields->take_strings("addresses", most, ADDRESS_MAX);
    std::vector<ip_addr_t> addrs;
    for (size_t i = 0; i < texts.size(); ++i) {
        const ip_addr_t addr = parse_addr_field(texts[i], "addresses[" + std::to_string(i) + "]");
        if (std::find(addrs.begin(), addrs.end(), addr) == addrs.end()) {
            addrs.push_back(addr);
        }
    }
    return addrs;
}

std::vector<std::string> take_probes(fields_t *fields)
{
    std::vector<std::string> probes;
    for (std::string &name : fields->take_strings("probes", PROBES_MAX, PROBE_NAME_MAX).value_or(probes)) {
        if (std::find(probes.begin(), probes.end(), name) == probes.end()) {
            probes.push_back(std::move(name));
        }
    }
    return probes;
}

void check_strings_in(const json_t &value)
{
    if (value.is_string()) {
        check_text(value.get<std::string>(), REFERENCE_MAX, "reference");
    }
    if (!value.is_structured()) {
        return;
    }
    for (const auto &[name, element] : value.items()) {
        if (value.is_object()) {
            check_text(name, REFERENCE_MAX, "reference");
        }
        check_strings_in(element);
    }
}

std::string take_reference(fields_t *fields)
{
    const json_t *value = fields->take("reference");
    if (value == nullptr) {
        return "";
    }
    if (!value->is_object()) {
        throw form_error_t("reference", "reference is to be a JSON object");
    }
    check_strings_in(*value);
    std::string text = value->dump();
    check_text(text, REFERENCE_MAX, "reference");
    return text;
}

uint8_t take_direction(fields_t *fields)
{
    const std::optional<std::string> text = fields->take_string("direction", 8);
    if (!text) {
        return BOTH;
    }
    const std::optional<uint8_t> direction = parse_direction(*text);
    if (!direction) {
        throw form_error_t("direction", "direction is to be src, dst or both");
    }
    return *direction;
}

} // namespace

capture_request_t parse_capture_request(std::string_view body, const limit_settings_t &limits)
{
    const json_t object = parse_strictly(body);
    fields_t fields(object);
    capture_request_t request;
    request.addrs = take_addresses(&fields, limits.max_addresses);
    request.probes = take_probes(&fields);
    request.direction = take_direction(&fields);
    const auto packets = fields.take_number("packets", 1, limits.most.packets);
    const auto seconds = fields.take_number("seconds", 1, limits.most.seconds);
    request.limits = {packets.value_or(0), seconds.value_or(0)};
    request.history_only = fields.take_bool("history_only").value_or(false);
    request.reason = fields.take_string("reason", REASON_MAX).value_or("");
    request.reference = take_reference(&fields);
    request.renew = fields.take_bool("renew").value_or(false);
    fields.finish();
    if (request.history_only && (packets || seconds)) {
        throw form_error_t(packets ? "packets" : "seconds",
                           "history_only has no live capture that could be limited");
    }
    return request;
}

lookup_request_t parse_lookup_request(std::string_view body)
{
    const json_t object = parse_strictly(body);
    fields_t fields(object);
    (void)fields.take_required("address");
    lookup_request_t request;
    request.addr = parse_addr_field(*fields.take_string("address", ADDRESS_MAX), "address");
    request.probes = take_probes(&fields);
    fields.finish();
    return request;
}

hold_request_t parse_hold_request(std::string_view body)
{
    const json_t object = parse_strictly(body);
    fields_t fields(object);
    (void)fields.take_required("hold");
    hold_request_t request;
    request.hold = *fields.take_bool("hold");
    request.why = fields.take_string("why", REASON_MAX).value_or("");
    fields.finish();
    return request;
}

history_request_t parse_history_request(std::string_view body)
{
    const json_t object = parse_strictly(body);
    fields_t fields(object);
    (void)fields.take_required("on");
    history_request_t request;
    request.on = *fields.take_bool("on");
    const auto size = fields.take_number("size_mb", 1, UINT32_ANY);
    fields.finish();
    if (request.on != size.has_value()) {
        throw form_error_t("size_mb", request.on ? "size_mb is needed to turn the history on"
                                                 : "size_mb has no meaning where the history is turned off");
    }
    request.size_mb = size.value_or(0);
    return request;
}

uint32_t parse_heavy_request(std::string_view body)
{
    const json_t object = parse_strictly(body);
    fields_t fields(object);
    (void)fields.take_required("packets");
    const uint32_t packets = *fields.take_number("packets", 0, UINT32_ANY);
    fields.finish();
    return packets;
}

} // namespace kestrune::manager
