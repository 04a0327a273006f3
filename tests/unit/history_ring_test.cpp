#include "unit/history_fixture.h"

#include <cstdlib>
#include <fstream>
#include <random>
#include <sys/resource.h>
#include <thread>

namespace {

// Bytes of the ring from an offset on, wrapping.
std::string ring_bytes(const history_capture_t *hc, uint64_t at, uint64_t length) KS_NO_ANALYSIS
{
    const auto *bytes = reinterpret_cast<const char *>(hc->buffer);
    const uint64_t before_end = std::min(length, hc->size - at % hc->size);
    return std::string(bytes + at % hc->size, before_end).append(bytes, length - before_end);
}

void expect_record(const history_capture_t *hc, const ring_model_t::record_t &expected)
{
    hc_record_header_t header;
    const std::string head = ring_bytes(hc, expected.at, HC_RECORD_HEADER);
    std::memcpy(&header, head.data(), sizeof header);
    ASSERT_EQ(header.timestamp, expected.packet.timestamp);
    ASSERT_EQ(header.time, expected.time);
    ASSERT_EQ(header.length, expected.packet.data.size());
    ASSERT_EQ(header.testing_value, HC_TESTING_VALUE);
    ASSERT_TRUE(header.src_ip == expected.packet.src && header.dst_ip == expected.packet.dst);
    ASSERT_EQ(ring_bytes(hc, expected.at + HC_RECORD_HEADER, header.length), expected.packet.data);
}

void expect_same(history_capture_t *hc, const ring_model_t &model, bool all) KS_NO_ANALYSIS
{
    ASSERT_EQ(hc->packets, model.records.size());
    ASSERT_EQ(hc->last, model.next);
    if (model.records.empty()) {
        return;
    }
    ASSERT_EQ(hc_canonical(hc, hc->first), model.records.front().at);
    expect_record(hc, model.records.front());
    expect_record(hc, model.records.back());
    for (size_t i = 0; all && i < model.records.size(); i++) {
        expect_record(hc, model.records[i]);
    }
}

// Lengths that fill, just miss and exceed what is left, and any others.
uint32_t random_length(std::mt19937 &random, uint64_t size)
{
    const auto pick = random() % 16;
    if (pick == 0) {
        return static_cast<uint32_t>(random() % 70000); // longer ones are cut
    }
    const uint64_t reach = pick < 4 ? size : std::min<uint64_t>(size / 4 + 4, 1600);
    return static_cast<uint32_t>(random() % (std::min<uint64_t>(reach, 65535) + 1));
}

} // namespace

TEST(HistoryRing, HoldsWhatTheModelHoldsInEverySize)
{
    std::mt19937 random(1);
    std::vector<uint64_t> sizes;
    for (uint64_t size = 1; size <= 160; size++) {
        sizes.push_back(size);
    }
    for (const uint64_t size : {204UL, 500UL, 1000UL, 5000UL, 65586UL, 131172UL, 200000UL}) {
        sizes.insert(sizes.end(), 6, size);
    }
    const int total = SANITIZED ? 100000 : 1010000;
    const int operations = total / static_cast<int>(sizes.size());
    uint64_t number = 0;
    for (const uint64_t size : sizes) {
        const ring_t ring(size);
        ring_model_t model(size);
        for (int i = 0; i < operations; i++) {
            test_clock += random() % 50 == 0 ? 1 : 0;
            const auto length = random_length(random, size);
            const packet_t packet = make_packet(number++, length, 1, 2);
            const bool fits = model.add(packet, test_clock);
            ASSERT_EQ(enqueue(ring.hc, packet), fits ? HC_OK : HC_TOO_LARGE) << size;
            const bool all = size <= 500 ? random() % 8 == 0 : random() % 512 == 0;
            ASSERT_NO_FATAL_FAILURE(expect_same(ring.hc, model, all)) << "ring of " << size << ", step " << i;
        }
    }
}

TEST(HistoryRing, TellsFullFromEmpty)
{
    const ring_t ring(3 * (HC_RECORD_HEADER + 49));
    EXPECT_EQ(ring.info().free, 300U);
    EXPECT_EQ(ring.info().time_span, 0U);
    for (int i = 0; i < 4; i++) { // the third reaches the end of a fresh ring and displaces the first
        test_clock += 7;
        EXPECT_EQ(enqueue(ring.hc, make_packet(1, 49, 1, 2)), HC_OK);
    }
    EXPECT_EQ(ring.info().packets, 3U);
    EXPECT_EQ(ring.info().free, 0U);
    EXPECT_EQ(ring.info().time_span, 14U);
    EXPECT_EQ(enqueue(ring.hc, make_packet(2, 250, 1, 2)), HC_TOO_LARGE); // and nothing is dropped for it
    EXPECT_EQ(ring.info().packets, 3U);
}

TEST(HistoryLife, EnablesDisablesAndEnablesAgain)
{
    const ring_t ring(0);
    EXPECT_EQ(enqueue(ring.hc, make_packet(1, 10, 1, 2)), HC_DISABLED);
    EXPECT_EQ(ring.add(1, BOTH, "none"), HC_DISABLED);
    EXPECT_FALSE(std::ifstream(ring.files.path("none")).good());
    hc_disable(ring.hc);
    for (int i = 0; i < 3; i++) {
        ASSERT_EQ(hc_enable(ring.hc, 0), HC_OK);
        EXPECT_EQ(hc_enable(ring.hc, 5), HC_RUNNING);
        EXPECT_EQ(ring.info().size, HC_DEFAULT_SIZE);
        EXPECT_EQ(enqueue(ring.hc, make_packet(1, 10, 1, 2)), HC_OK);
        EXPECT_EQ(ring.info().packets, 1U);
        ASSERT_EQ(ring.add(1, BOTH, "rule" + std::to_string(i)), HC_OK);
        ASSERT_TRUE(
            ring.finishes(1)); // also after a disable: the count of waiting rules and the wake-up agree
        EXPECT_EQ(progress_packets(ring.progress(1, 1)), 1U);
        hc_disable(ring.hc);
        const hc_info_t info = ring.info();
        EXPECT_EQ(info.packets + info.size + info.free + info.time_span + info.rules, 0U);
    }
}

TEST(HistoryLife, RefusesMemoryThatIsNotToBeHad)
{
    EXPECT_EQ(hc_init(uint64_t{1} << 46), nullptr);
    const ring_t ring(0);
    EXPECT_EQ(hc_enable(ring.hc, uint64_t{1} << 46), HC_NO_MEMORY);
    EXPECT_EQ(hc_enable(ring.hc, 1000), HC_OK);

    // What the system has cannot be asked without a descriptor.
    const ring_t first(0);
    rlimit before = {};
    getrlimit(RLIMIT_NOFILE, &before);
    const rlimit none = {0, before.rlim_max};
    setrlimit(RLIMIT_NOFILE, &none);
    EXPECT_EQ(hc_enable(first.hc, uint64_t{4} << 20), HC_NO_MEMORY);
    setrlimit(RLIMIT_NOFILE, &before);

    // Two rings that fit one by one and not together: the kernel would grant both. Each takes from 9/16 to
    // 3/4 of what there is.
    uint64_t size = uint64_t{1} << 40;
    while (hc_enable(first.hc, size) != HC_OK) {
        size = size / 4 * 3;
    }
    hc_disable(first.hc);
    size = size / 4 * 3;
    EXPECT_EQ(hc_enable(first.hc, size), HC_OK);
    const ring_t second(0);
    EXPECT_EQ(hc_enable(second.hc, size), HC_NO_MEMORY);
    hc_disable(first.hc);
    EXPECT_EQ(hc_enable(second.hc, size), HC_OK);
}

// Packets, rules, questions and switching on and off from several threads at once.
TEST(HistoryLife, SurvivesEverythingAtOnce)
{
    const int seconds = std::getenv("KESTRUNE_LONG") != nullptr ? 30 : 2;
    const auto before = resources();
    {
        const ring_t ring(30000, 1);
        std::atomic<bool> stop{false};
        std::atomic<uint64_t> stored{0};
        std::atomic<uint64_t> rules{0};
        std::vector<std::jthread> workers;
        workers.emplace_back([&] {
            for (uint64_t n = 0; !stop; n++) {
                const packet_t packet =
                    make_packet(n, static_cast<uint32_t>(n % 900), static_cast<uint8_t>(n % 50), 99);
                stored += enqueue(ring.hc, packet) == HC_OK ? 1 : 0;
            }
        });
        workers.emplace_back([&] {
            for (int n = 0; !stop; n++) {
                const std::string name = "r" + std::to_string(n);
                rules += ring.add(static_cast<uint8_t>(n % 60), BOTH, name) == HC_OK ? 1 : 0;
                std::remove(ring.files.path(name).c_str());
            }
        });
        workers.emplace_back([&] {
            std::mt19937 random(2);
            while (!stop) {
                const int percent =
                    progress_percent(ring.progress(static_cast<uint8_t>(random() % 60), random() % 2));
                ASSERT_TRUE(percent >= PROGRESS_UNKNOWN && percent <= 100);
                ASSERT_LE(ring.info().free, 30000U);
            }
        });
        workers.emplace_back([&] {
            while (!stop) {
                hc_disable(ring.hc);
                std::this_thread::yield();
                ASSERT_NE(hc_enable(ring.hc, 30000), HC_NO_MEMORY);
                std::this_thread::sleep_for(std::chrono::microseconds(700)); // let work happen in between
            }
        });
        std::this_thread::sleep_for(std::chrono::seconds(seconds));
        EXPECT_TRUE(wait_until([&] { return stored > 1000 && rules > 50; })); // also on a busy machine
        stop = true;
        workers.clear(); // joined
    }
    EXPECT_TRUE(resources_fall_to(before));
}
