#include "unit/history_fixture.h"

#include <random>
#include <sys/resource.h>

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
    std::vector<uint64_t> sizes(160);
    std::iota(sizes.begin(), sizes.end(), 1);
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

TEST(HistoryRing, SpansNoTimeWhenTheClockWasSetBackAndIsAskedForTheOldestRecordNowAndThenOnly)
{
    const ring_t ring(250); // two records
    const time_t now = test_clock;
    for (const time_t time : {now, now - 10}) {
        test_clock = time;
        EXPECT_EQ(enqueue(ring.hc, make_packet(1, 50, 1, 2)), HC_OK);
        EXPECT_EQ(ring.info().time_span, 0U);
    }
    test_clock = now + 7; // the look at the oldest record was a moment ago: its time is known
    EXPECT_EQ(enqueue(ring.hc, make_packet(1, 50, 1, 2)), HC_OK);
    hc_info_t info = {};
    hc_info(ring.hc, &info);
    EXPECT_EQ(info.time_span, 7U);
    EXPECT_EQ(ring.info().time_span, 17U);
}

TEST(HistoryLife, RefusesMemoryThatIsNotToBeHad)
{
    EXPECT_EQ(hc_init(uint64_t{1} << 48), nullptr); // not even mapped
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

TEST(HistoryLife, TakesTheAdministratorsSizeBeyondWhatIsAvailableAndMapsItOnly)
{
    const uint64_t size = ring_memory_available() / 32 * 33; // the kernel grants it: less than there is
    const ring_t ring(size);
    ASSERT_NE(ring.hc, nullptr);
    EXPECT_EQ(ring.hc->unpopulated.begin, nullptr);
    EXPECT_EQ(ring.hc->unpopulated.size, size);
    EXPECT_EQ(enqueue(ring.hc, make_packet(1, 10, 1, 2)), HC_OK);
    EXPECT_LT(ring_memory_available(), size / 32); // all of it is promised
    hc_disable(ring.hc);
    EXPECT_EQ(hc_enable(ring.hc, size), HC_NO_MEMORY); // which a client cannot have
    EXPECT_EQ(hc_enable(ring.hc, size / 2), HC_OK);    // and nothing is promised any more
}
