// Bodies of requests: what is refused, and for which field; and that no bytes at all break the decoder.
#include "forms/forms.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <random>

namespace kestrune::manager {
namespace {

constexpr const char *FULL =
    R"({"addresses":["10.0.0.1","::1","::ffff:10.0.0.1"],"probes":["b","a","b"],"direction":"src",)"
    R"("packets":5,"seconds":6,"reason":"why \u00e4","reference":{"z":{"y":[1,"x"]},"a":null},"renew":true})";

std::string levels(int count)
{
    std::string text = "1";
    for (int i = 0; i < count; ++i) {
        text = R"({"a":)" + text + "}";
    }
    return text;
}

// The field that is wrong, or "ok".
std::string verdict(const std::function<void()> &parse)
{
    try {
        parse();
        return "ok";
    } catch (const form_error_t &error) {
        EXPECT_STRNE(error.what(), "");
        return error.field();
    }
}

std::string verdict(const std::string &body)
{
    limit_settings_t limits;
    limits.max_addresses = 3;
    limits.most = {100, 200};
    return verdict([&] { (void)parse_capture_request(body, limits); });
}

TEST(ManagerForms, CaptureRequestIsTaken)
{
    const capture_request_t request = parse_capture_request(FULL, {});
    EXPECT_EQ(request.addrs.size(), 2U); // the mapped address is the first
    EXPECT_EQ(request.probes, (std::vector<std::string>{"b", "a"}));
    EXPECT_EQ(request.direction, SRC);
    EXPECT_EQ(request.limits, (limits_t{5, 6}));
    EXPECT_EQ(request.reason, "why \u00e4");
    EXPECT_EQ(request.reference, R"({"z":{"y":[1,"x"]},"a":null})"); // in its own order
    EXPECT_TRUE(request.renew);
    EXPECT_EQ(parse_capture_request(R"({"addresses":["::1"]})", {}).limits, limits_t{});
}

TEST(ManagerForms, CaptureRequestIsRefusedForTheRightField)
{
    const auto with = [](const std::string &fields) {
        return R"({"addresses":["10.0.0.1"],)" + fields + "}";
    };
    const std::string a8184(8184, 'a');
    const struct {
        std::string body;
        std::string field;
    } cases[] = {
        {"", ""},
        {"[]", ""},
        {"{}", "addresses"},
        {R"({"addresses":["10.0.0.1"]} x)", ""},
        {R"({"addresses":["10.0.0.1"],"addresses":["10.0.0.2"]})", "addresses"},
        {R"({"addresses":[]})", "addresses"},
        {R"({"addresses":"10.0.0.1"})", "addresses"},
        {R"({"addresses":["1.0.0.1","1.0.0.2","1.0.0.3"]})", "ok"},
        {R"({"addresses":["1.0.0.1","1.0.0.2","1.0.0.3","1.0.0.4"]})", "addresses"},
        {R"({"addresses":["1.0.0.1","example.org"]})", "addresses[1]"},
        {R"({"addresses":["1.0.0.1",2]})", "addresses[1]"},
        {with(R"("address":1)"), "address"},
        {with(R"("packets":100)"), "ok"},
        {with(R"("packets":101)"), "packets"},
        {with(R"("packets":0)"), "packets"},
        {with(R"("packets":-1)"), "packets"},
        {with(R"("packets":1.0)"), "packets"},
        {with(R"("packets":1e400)"), ""},
        {with(R"("packets":null)"), "packets"},
        {with(R"("packets":18446744073709551617)"), "packets"},
        {with(R"("seconds":201)"), "seconds"},
        {with(R"("seconds":"1")"), "seconds"},
        {with(R"("history_only":true)"), "ok"},
        {with(R"("history_only":true,"packets":1)"), "packets"},
        {with(R"("history_only":1)"), "history_only"},
        {with(R"("direction":"up")"), "direction"},
        {with(R"("probes":[])"), "probes"},
        {with(R"("reason":")" + std::string(1024, 'r') + "\""), "ok"},
        {with(R"("reason":")" + std::string(1025, 'r') + "\""), "reason"},
        {with(R"("reason":"a\nb")"), "reason"},
        {with(R"("reason":"\u0085")"), "reason"},
        {with(R"("reason":"\u007f")"), "reason"},
        {with("\"reason\":\"\xff\""), ""},
        {with(R"("reference":[])"), "reference"},
        {with(R"("reference":{"a":"\u0000"})"), "reference"},
        {with(R"("reference":{"a\tb":1})"), "reference"},
        {with(R"("reference":{"a":{"b":1,"b":2}})"), "b"},
        {with(R"("reference":)" + levels(16)), "ok"},
        {with(R"("reference":)" + levels(17)), ""},
        {with(R"("reference":{"a":")" + a8184 + "\"}"), "ok"}, // 8192 bytes
        {with(R"("reference":{"a":"a)" + a8184 + "\"}"), "reference"},
        {std::string(1 << 20, '['), ""},
    };
    for (const auto &[body, field] : cases) {
        EXPECT_EQ(verdict(body), field) << body.substr(0, 100);
    }
}

TEST(ManagerForms, OtherRequestsAreRefusedForTheRightField)
{
    const auto lookup = [](const char *body) { return verdict([&] { (void)parse_lookup_request(body); }); };
    const auto hold = [](const char *body) { return verdict([&] { (void)parse_hold_request(body); }); };
    const auto history = [](const char *body) { return verdict([&] { (void)parse_history_request(body); }); };
    const auto heavy = [](const char *body) { return verdict([&] { (void)parse_heavy_request(body); }); };
    EXPECT_EQ(lookup(R"({"address":"::1","probes":["a"]})"), "ok");
    EXPECT_EQ(lookup(R"({"probes":["a"]})"), "address");
    EXPECT_EQ(hold(R"({"hold":false})"), "ok");
    EXPECT_EQ(hold(R"({"hold":"true"})"), "hold");
    EXPECT_EQ(hold(R"({"hold":true,"whom":""})"), "whom");
    EXPECT_EQ(history(R"({"on":true,"size_mb":1})"), "ok");
    EXPECT_EQ(history(R"({"on":true})"), "size_mb");
    EXPECT_EQ(history(R"({"on":false,"size_mb":1})"), "size_mb");
    EXPECT_EQ(heavy(R"({"packets":4294967295})"), "ok");
    EXPECT_EQ(heavy(R"({"packets":4294967296})"), "packets");
}

// Cut and spoilt bodies are refused or taken, and nothing else.
TEST(ManagerForms, DamagedBodiesDoNoHarm)
{
    const std::string whole = FULL;
    for (size_t size = 0; size < whole.size(); ++size) {
        EXPECT_NE(verdict(whole.substr(0, size)), "ok") << size;
    }
    constexpr std::string_view SPOILING = "{}[]\",:\\u0e-\x80\xc2 ";
    std::mt19937 random(7);
    for (int round = 0; round < 20'000; ++round) {
        std::string body = whole;
        for (int i = 0; i < 3; ++i) {
            body[random() % body.size()] = SPOILING[random() % SPOILING.size()];
        }
        (void)verdict(body);
    }
}

// Names from a probe may have any bytes; the answer is JSON all the same.
TEST(ManagerForms, AnswersAreJsonWhateverAProbeSaid)
{
    capture_t capture;
    capture.parts.emplace_back();
    capture.parts[0].elsewhere = {"a\xff\"\n"};
    const nlohmann::json form = nlohmann::json::parse(json_of(capture));
    EXPECT_EQ(form["parts"][0]["files"][0], "a\ufffd\"\n");
    EXPECT_TRUE(form["file"].is_null() && form["hold"].is_null() && form["limits"].is_null());
}

} // namespace
} // namespace kestrune::manager
