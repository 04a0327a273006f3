// The catalogue: what was written is read again, also after a kill, and GET /captures answers as a model does.
#include "catalogue/catalogue.h"

#include "client/text_forms.h"

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <random>
#include <sys/wait.h>
#include <unistd.h>

using namespace kestrune;
using namespace kestrune::manager;

namespace {

class CatalogueTest : public testing::Test {
protected:
    CatalogueTest()
    {
        std::string name = "/tmp/catalogue-XXXXXX";
        directory_ = mkdtemp(name.data());
        file_ = directory_ / "catalogue.db";
    }
    ~CatalogueTest() override { std::filesystem::remove_all(directory_); }

    std::filesystem::path directory_;
    std::filesystem::path file_;
};

// Every field has a value of its own.
capture_t full_capture(ulid_t id)
{
    capture_t capture;
    capture.id = id;
    capture.addr = parse_address("2001:db8::17");
    capture.direction = DST;
    capture.state = capture_state_t::DELETED;
    capture.reason = "reason \xC3\xA9";
    capture.reference = R"({"case":[1,2]})";
    capture.requested_by = "alice";
    capture.requested_at = 11;
    capture.started_at = 12;
    capture.ended_at = 13;
    capture.sealed_at = 14;
    capture.stop_at = 15;
    capture.stop_why = "disk";
    capture.lookup_until = LOOKUP_OPEN;
    capture.limits = {4294967295U, 604800};
    capture.file = {INT64_MAX, 16, std::string(64, 'a')};
    capture.manifest_sha256 = std::string(64, 'b');
    capture.hold = {"why", "bob", 17};
    capture.seal_error = "seal";
    capture.deleted = {"quota", 18, true};
    part_t part;
    part.probe = "north";
    part.local = part.sent = part.removed = true;
    part.state = part_state_t::FAILED;
    part.live = live_t::REFUSED;
    part.percent = 99;
    part.live_packets = 21;
    part.history_packets = 22;
    part.said_live = 23;
    part.said_history = 24;
    part.ended_by = ended_by_t::PROBE_GONE;
    part.error = "error";
    part.sent_at = 25;
    part.started_at = 26;
    part.ended_at = 27;
    part.reach = {28, 29, 30};
    part.heavy = 31;
    part.drops_begin = {32, 33};
    part.drops = {34, 35};
    part.elsewhere = {"a file", "another"};
    capture.parts = {part, part_t{}};
    capture.parts.back().probe = "south";
    return capture;
}

void expect_same(const part_t &a, const part_t &b)
{
    const auto drops = [](const part_t &part) { return std::tie(part.drops_begin, part.drops); };
    EXPECT_EQ(std::tie(a.probe, a.local, a.state, a.live, a.sent, a.removed, a.percent, a.live_packets),
              std::tie(b.probe, b.local, b.state, b.live, b.sent, b.removed, b.percent, b.live_packets));
    EXPECT_EQ(std::tie(a.history_packets, a.said_live, a.said_history, a.ended_by, a.error, a.sent_at),
              std::tie(b.history_packets, b.said_live, b.said_history, b.ended_by, b.error, b.sent_at));
    EXPECT_EQ(std::tie(a.started_at, a.ended_at, a.heavy, a.elsewhere),
              std::tie(b.started_at, b.ended_at, b.heavy, b.elsewhere));
    EXPECT_TRUE(a.reach == b.reach && drops(a) == drops(b));
}

void expect_same(const capture_t &a, const capture_t &b)
{
    EXPECT_EQ(
        std::tie(a.id, a.addr, a.direction, a.state, a.reason, a.reference, a.requested_by, a.requested_at),
        std::tie(b.id, b.addr, b.direction, b.state, b.reason, b.reference, b.requested_by, b.requested_at));
    EXPECT_EQ(std::tie(a.started_at, a.ended_at, a.sealed_at, a.stop_at, a.stop_why, a.lookup_until),
              std::tie(b.started_at, b.ended_at, b.sealed_at, b.stop_at, b.stop_why, b.lookup_until));
    EXPECT_EQ(std::tie(a.manifest_sha256, a.seal_error), std::tie(b.manifest_sha256, b.seal_error));
    EXPECT_TRUE(a.limits == b.limits);
    EXPECT_EQ(std::tie(a.file->bytes, a.file->packets, a.file->sha256),
              std::tie(b.file->bytes, b.file->packets, b.file->sha256));
    EXPECT_EQ(std::tie(a.hold->why, a.hold->by, a.hold->at), std::tie(b.hold->why, b.hold->by, b.hold->at));
    EXPECT_EQ(std::tie(a.deleted->cause, a.deleted->at, a.deleted->files_gone),
              std::tie(b.deleted->cause, b.deleted->at, b.deleted->files_gone));
    ASSERT_EQ(a.parts.size(), b.parts.size());
    for (size_t i = 0; i < a.parts.size(); i++) {
        expect_same(a.parts[i], b.parts[i]);
    }
}

TEST_F(CatalogueTest, ReadsWhatWasWritten)
{
    ulid_maker_t ids;
    const capture_t capture = full_capture(ids.make(1));
    const audit_t row = {0, 41, "alice", "192.0.2.1", "record", "object", "detail"};
    const kept_answer_t answer = {"alice", "key", "body", KEY_KEPT_NS, true, {ids.make(2), ids.make(3)}};
    open_catalogue(file_)->commit({{&capture}, {row, row}, {answer}}, durability_t::DURABLE);

    const std::unique_ptr<catalogue_t> catalogue = open_catalogue(file_);
    expect_same(catalogue->find(capture.id).value(), capture);
    EXPECT_FALSE(catalogue->find(answer.ids[0]));
    EXPECT_EQ(catalogue->newest_id(), capture.id);
    const audit_page_t page = catalogue->audit(0, 1);
    EXPECT_EQ(page.next, 2U);
    EXPECT_EQ(catalogue->audit(page.next, 1).audit.at(0).number, 1U);
    EXPECT_EQ(std::tie(page.audit[0].at, page.audit[0].from, page.audit[0].detail),
              std::tie(row.at, row.from, row.detail));
    EXPECT_EQ(catalogue->kept_answer("alice", "key", 2 * KEY_KEPT_NS - 1).value().ids, answer.ids);
    EXPECT_FALSE(catalogue->kept_answer("alice", "key", 2 * KEY_KEPT_NS)) << "a day old";
    EXPECT_FALSE(catalogue->kept_answer("bob", "key", KEY_KEPT_NS)) << "another's";
    EXPECT_EQ(catalogue->totals().deleted_bytes_ever, capture.file->bytes);
    EXPECT_EQ(std::filesystem::status(file_).permissions(), std::filesystem::perms(0600));
}

// One process at a time; nothing of another version or of another kind.
TEST_F(CatalogueTest, RefusesWhatItCannotUse)
{
    const auto failure = [this] {
        try {
            open_catalogue(file_);
        } catch (const catalogue_error_t &error) {
            EXPECT_NE(std::string(error.what()).find(file_), std::string::npos) << error.what();
            return error.failure();
        }
        return catalogue_failure_t::BROKEN;
    };
    {
        const std::unique_ptr<catalogue_t> first = open_catalogue(file_);
        EXPECT_EQ(failure(), catalogue_failure_t::LOCKED);
    }
    std::fstream file(file_, std::ios::in | std::ios::out | std::ios::binary);
    file.seekp(63).put(9).flush(); // user_version
    EXPECT_EQ(failure(), catalogue_failure_t::NEWER);
    file.seekp(0) << "no database at all" << std::flush;
    EXPECT_EQ(failure(), catalogue_failure_t::DAMAGED);
}

capture_t random_capture(ulid_t id, std::mt19937 *random)
{
    const auto below = [random](uint32_t limit) {
        return std::uniform_int_distribution(0U, limit - 1)(*random);
    };
    capture_t capture;
    capture.id = id;
    capture.addr = parse_address((below(2) == 0 ? "192.0.2." : "2001:db8::") + std::to_string(below(5)));
    capture.state = static_cast<capture_state_t>(below(CAPTURE_STATE_COUNT));
    capture.reason = below(2) == 0 ? "100% sure" : "Worm_1";
    capture.requested_at = 1000 + below(50);
    capture.lookup_until = below(8) == 0 ? 500 + below(10) : 0;
    capture.parts.resize(2);
    capture.parts[0].probe = below(2) == 0 ? "north" : "east";
    capture.parts[1].local = below(2) == 0;
    capture.parts[1].live_packets = below(10);
    if (capture.state == capture_state_t::SEALED || capture.state == capture_state_t::DELETED) {
        capture.file = {below(10), below(10), ""};
    }
    if (capture.state == capture_state_t::DELETED) {
        capture.deleted = {"", 1, below(2) == 0};
    }
    return capture;
}

bool matches(const capture_query_t &query, const capture_t &capture)
{
    const auto has = [&](const std::string &text) { return capture.reason.find(text) != std::string::npos; };
    const bool state = query.states.empty()
                           ? capture.state != capture_state_t::DELETED
                           : std::count(query.states.begin(), query.states.end(), capture.state);
    return capture.lookup_until == 0 && state && (!query.addr || *query.addr == capture.addr) &&
           (query.probe.empty() || query.probe == capture.parts[0].probe) &&
           capture.requested_at >= query.since && (query.until == 0 || capture.requested_at < query.until) &&
           (query.text.empty() || has(query.text));
}

// What the captures are sorted by, the id last.
auto sort_key(const capture_query_t &query, const capture_t &capture)
{
    const auto file = capture.file;
    const uint64_t numbers[] = {capture.requested_at, 0,
                                file ? file->packets : live_packets(capture) + history_packets(capture),
                                file ? file->bytes : 0};
    const std::string addr = query.sort == sort_t::ADDRESS ? ip_addr_text(capture.addr).text : "";
    return std::tuple(numbers[static_cast<size_t>(query.sort)], addr, capture.id);
}

TEST_F(CatalogueTest, AnswersEveryQueryAsTheModelDoes)
{
    std::mt19937 random(20261123);
    ulid_maker_t ids;
    std::vector<capture_t> model;
    for (int i = 0; i < 600; i++) {
        model.push_back(random_capture(ids.make(1), &random));
    }
    std::unique_ptr<catalogue_t> catalogue = open_catalogue(file_);
    for (int round = 0; round < 2; round++) { // the second writes over the first
        changes_t changes;
        for (capture_t &capture : model) {
            capture = random_capture(capture.id, &random);
            changes.captures.push_back(&capture);
        }
        catalogue->commit(changes, durability_t::ORDERLY);
    }

    totals_t totals;
    std::vector<ulid_t> open;
    std::vector<ulid_t> expired;
    for (const capture_t &capture : model) {
        totals.by_state[static_cast<size_t>(capture.state)]++;
        totals.sealed_bytes += capture.state == capture_state_t::SEALED ? capture.file->bytes : 0;
        totals.sealed_bytes_ever += capture.file ? capture.file->bytes : 0;
        totals.leaving_bytes += capture.deleted && !capture.deleted->files_gone ? capture.file->bytes : 0;
        const bool ended = capture.state == capture_state_t::FAILED ||
                           capture.state == capture_state_t::SEALED ||
                           (capture.state == capture_state_t::FINISHED && !capture.waits_for_sealing()) ||
                           (capture.deleted && capture.deleted->files_gone);
        ended ? void() : open.push_back(capture.id);
        const bool over =
            capture.state >= capture_state_t::FINISHED && capture.state <= capture_state_t::FAILED;
        over &&capture.lookup_until > 0 && capture.lookup_until < 505 ? expired.push_back(capture.id)
                                                                      : void();
    }
    for (int opened = 0; opened < 2; opened++) {
        const totals_t found = catalogue->totals();
        EXPECT_EQ(found.by_state, totals.by_state);
        EXPECT_EQ(found.sealed_bytes, totals.sealed_bytes);
        EXPECT_EQ(found.sealed_bytes_ever, totals.sealed_bytes_ever);
        EXPECT_EQ(found.leaving_bytes, totals.leaving_bytes);
        EXPECT_EQ(found.sealed_bytes + found.deleted_bytes_ever, totals.sealed_bytes_ever);
        catalogue.reset();
        catalogue = open_catalogue(file_);
    }
    std::vector<ulid_t> found_open;
    for (const capture_t &capture : catalogue->unfinished()) {
        found_open.push_back(capture.id);
    }
    EXPECT_EQ(found_open, open);
    std::vector<ulid_t> found_expired = catalogue->expired_lookups(505, 1000);
    std::sort(found_expired.begin(), found_expired.end());
    EXPECT_EQ(found_expired, expired);

    for (int i = 0; i < 400; i++) {
        const auto below = [&](uint32_t limit) {
            return std::uniform_int_distribution(0U, limit - 1)(random);
        };
        capture_query_t query;
        query.addr = below(2) == 0 ? std::optional(model[below(600)].addr) : std::nullopt;
        query.probe = below(3) == 0 ? "north" : "";
        for (uint32_t n = below(3); n > 0; n--) {
            query.states.push_back(static_cast<capture_state_t>(below(CAPTURE_STATE_COUNT)));
        }
        query.since = below(3) == 0 ? 1000 + below(50) : 0;
        query.until = below(3) == 0 ? 1000 + below(60) : 0;
        query.text = below(3) == 0 ? "0%" : below(3) == 0 ? "m_" : "";
        query.sort = static_cast<sort_t>(below(4));
        query.descending = below(2) == 0;
        query.limit = 1 + below(100);
        std::vector<capture_t> expected;
        std::copy_if(model.begin(), model.end(), std::back_inserter(expected),
                     [&](const capture_t &capture) { return matches(query, capture); });
        std::sort(expected.begin(), expected.end(), [&](const capture_t &a, const capture_t &b) {
            const bool before = sort_key(query, a) < sort_key(query, b);
            return a.id != b.id && before != query.descending;
        });
        size_t at = 0;
        do {
            const capture_page_t page = catalogue->query(query);
            ASSERT_EQ(page.captures.size(), std::min<size_t>(query.limit, expected.size() - at)) << i;
            for (const capture_t &capture : page.captures) {
                ASSERT_EQ(capture.id.text(), expected[at++].id.text()) << i;
            }
            query.cursor = page.next;
        } while (!query.cursor.empty());
        ASSERT_EQ(at, expected.size()) << i;
    }
    for (const char *cursor :
         {"t", "x1.", "t1.ABC", "a5.01ARZ3NDEKTSV4RRFFQ69G5FAV", "t-1.01ARZ3NDEKTSV4RRFFQ69G5FAV"}) {
        capture_query_t query;
        query.cursor = cursor;
        EXPECT_THROW(catalogue->query(query), std::invalid_argument) << cursor;
    }
}

// A child commits and says each number once it is in; it is killed at any moment. Nothing that was said is lost, and
// the rows of one commit are there together.
TEST_F(CatalogueTest, LosesNothingWhenItIsKilled)
{
    for (int round = 0; round < 5; round++) {
        int pipe_fds[2];
        ASSERT_EQ(pipe(pipe_fds), 0);
        const pid_t child = fork();
        if (child == 0) {
            const std::unique_ptr<catalogue_t> catalogue = open_catalogue(file_);
            ulid_maker_t ids(catalogue->newest_id());
            for (;;) {
                capture_t capture = full_capture(ids.make(1));
                catalogue->commit({{&capture}, {audit_t{0, 1, "", "", "", capture.id.text(), ""}}, {}},
                                  durability_t::ORDERLY);
                if (write(pipe_fds[1], &capture.id, sizeof capture.id) < 0) {
                    _exit(1);
                }
            }
        }
        close(pipe_fds[1]);
        ulid_t told;
        for (int i = 0; i < 100 + 37 * round; i++) {
            ASSERT_EQ(read(pipe_fds[0], &told, sizeof told), ssize_t{sizeof told});
        }
        kill(child, SIGKILL);
        while (read(pipe_fds[0], &told, sizeof told) == ssize_t{sizeof told}) {
        }
        close(pipe_fds[0]);
        waitpid(child, nullptr, 0);
        const std::unique_ptr<catalogue_t> catalogue = open_catalogue(file_);
        EXPECT_GE(catalogue->newest_id(), told);
        EXPECT_EQ(catalogue->audit(0, 1).audit.at(0).object, catalogue->newest_id().text());
        expect_same(catalogue->find(told).value(), full_capture(told));
    }
}

} // namespace
