#include "archive/summary.h"
#include "model/times.h"

#include <nlohmann/json.hpp>

namespace kestrune::manager {

namespace {

using json_t = nlohmann::ordered_json;

json_t time_json(uint64_t ns)
{
    return ns == 0 ? json_t() : json_t(time_text(ns));
}

json_t shares_json(const std::vector<share_t> &shares)
{
    json_t list = json_t::array();
    for (const share_t &share : shares) {
        list.push_back({{"name", share.name}, {"packets", share.packets}, {"bytes", share.bytes}});
    }
    return list;
}

json_t port_json(const std::optional<uint16_t> &port)
{
    return port ? json_t(*port) : json_t();
}

json_t conversation_json(const conversation_t &conversation)
{
    return {{"a", conversation.a},
            {"a_port", port_json(conversation.a_port)},
            {"b", conversation.b},
            {"b_port", port_json(conversation.b_port)},
            {"protocol", conversation.protocol},
            {"packets", conversation.packets},
            {"bytes", conversation.bytes},
            {"first", time_json(conversation.first)},
            {"last", time_json(conversation.last)}};
}

} // namespace

std::string summary_text(const summary_t &summary)
{
    json_t origins = json_t::array();
    for (const summary_origin_t &origin : summary.origins) {
        origins.push_back({{"probe", origin.probe},
                           {"origin", origin.origin},
                           {"packets", origin.packets},
                           {"bytes", origin.bytes}});
    }
    json_t conversations = json_t::array();
    for (const conversation_t &conversation : summary.conversations) {
        conversations.push_back(conversation_json(conversation));
    }
    const json_t whole = {{"format", "kestrune-summary/1"},
                          {"id", summary.id.text()},
                          {"packets", summary.packets},
                          {"bytes", summary.bytes},
                          {"first", time_json(summary.first)},
                          {"last", time_json(summary.last)},
                          {"step_ns", summary.step_ns},
                          {"from", time_json(summary.from)},
                          {"origins", origins},
                          {"conversations", conversations},
                          {"conversations_more", summary.conversations_more},
                          {"protocols", shares_json(summary.protocols)},
                          {"ports", shares_json(summary.ports)}};
    return whole.dump() + "\n";
}

} // namespace kestrune::manager
