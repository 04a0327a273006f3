#include "unit/history_fixture.h"

#include "support/file_limit.h"

#include <random>

// While set, a run that has begun does not get its read lock, nor does a packet that waits for it.
static std::atomic<bool> hold_begun_run{false};

extern "C" int __real_pthread_rwlock_rdlock(pthread_rwlock_t *lock);
extern "C" int __wrap_pthread_rwlock_rdlock(pthread_rwlock_t *lock);
int __wrap_pthread_rwlock_rdlock(pthread_rwlock_t *lock)
{
    char name[16] = "";
    pthread_getname_np(pthread_self(), name, sizeof name);
    while (hold_begun_run && std::strcmp(name, "ks-search") == 0) {
        std::this_thread::yield();
    }
    return __real_pthread_rwlock_rdlock(lock);
}

static std::atomic<int> write_locks{0}; // how often a write lock was taken

extern "C" int __real_pthread_rwlock_wrlock(pthread_rwlock_t *lock);
extern "C" int __wrap_pthread_rwlock_wrlock(pthread_rwlock_t *lock);
int __wrap_pthread_rwlock_wrlock(pthread_rwlock_t *lock)
{
    const int result = __real_pthread_rwlock_wrlock(lock);
    write_locks++;
    return result;
}

extern "C" int __real_pthread_rwlock_tryrdlock(pthread_rwlock_t *lock);
extern "C" int __wrap_pthread_rwlock_tryrdlock(pthread_rwlock_t *lock);
int __wrap_pthread_rwlock_tryrdlock(pthread_rwlock_t *lock)
{
    return hold_begun_run ? EBUSY : __real_pthread_rwlock_tryrdlock(lock);
}

namespace {

// What a rule must get of the model's records, in the ring's order.
std::vector<pcap_record_t> owed(const ring_model_t &model, uint8_t number, uint8_t direction)
{
    std::vector<pcap_record_t> records;
    const ip_addr_t ip = numbered_address(number);
    for (const auto &[packet, at, time] : model.records) {
        const pcap_record_t record = {packet.timestamp, static_cast<uint32_t>(packet.data.size()),
                                      packet.data};
        records.insert(records.end(), direction != DST && packet.src == ip ? 1 : 0, record);
        records.insert(records.end(), direction != SRC && packet.dst == ip ? 1 : 0, record);
    }
    return records;
}

bool run_posted(history_capture_t *hc)
{
    spin_lock(&hc->position_lock);
    const bool posted = hc->run_posted;
    spin_unlock(&hc->position_lock);
    return posted;
}

} // namespace

// Random packets, rules at random moments and packets at full speed while their runs are under way: every
// rule gets exactly the records that the ring held when it came, in order, whichever of the two searches met
// them.
TEST(HistorySearch, EveryRuleGetsExactlyTheRecordsOfItsMoment)
{
    const int rounds = std::getenv("KESTRUNE_LONG") != nullptr ? 400 : 40;
    std::mt19937 random(3);
    const auto before = resources();
    uint64_t number = 0;
    for (const uint64_t size : {51UL, 60UL, 130UL, 700UL, 5000UL, 66000UL, 200000UL}) {
        ring_t ring(size, 2);
        ring_model_t model(size);
        const auto put = [&](uint32_t most) {
            const auto pair = random();
            const packet_t packet =
                make_packet(number++, static_cast<uint32_t>(random() % most), static_cast<uint8_t>(pair % 5),
                            static_cast<uint8_t>(pair / 5 % 5));
            ASSERT_EQ(enqueue(ring.hc, packet), model.add(packet, test_clock) ? HC_OK : HC_TOO_LARGE);
        };
        const uint32_t most = static_cast<uint32_t>(std::min<uint64_t>(size / 3 + 2, 1500));
        for (int round = 0; round < rounds; round++) {
            for (auto count = random() % (4 * size / (most / 2 + 51) + 4); count > 0; count--) {
                put(random() % 64 == 0 ? 65536 : most);
            }
            test_clock++;
            std::vector<std::vector<pcap_record_t>> expected;
            const auto rules = static_cast<uint8_t>(1 + random() % 5);
            for (uint8_t rule = 0; rule < rules; rule++) {
                const auto direction = static_cast<uint8_t>((rule + round) % 3);
                ASSERT_EQ(ring.add(rule, direction, "rule" + std::to_string(rule)), HC_OK);
                expected.push_back(owed(model, rule, direction));
            }
            test_clock++; // what comes now is newer than the rules
            for (auto count = random() % 400; count > 0; count--) {
                put(most);
            }
            for (uint8_t rule = 0; rule < rules; rule++) {
                ASSERT_TRUE(wait_until([&] {
                    put(most);
                    return progress_percent(ring.progress(rule)) == PROGRESS_DONE && ring.hc->searching == 0;
                }));
                const std::string path = ring.files.path("rule" + std::to_string(rule));
                ASSERT_EQ(read_pcap(path), expected[rule]) << "ring of " << size << ", round " << round;
                ASSERT_EQ(progress_packets(ring.progress(rule, 1)), expected[rule].size());
                ASSERT_EQ(progress_percent(ring.progress(rule)), PROGRESS_UNKNOWN);
                std::remove(path.c_str());
            }
        }
    }
    EXPECT_TRUE(resources_fall_to(before));
}

// A disable that comes when a run has swapped the tables and not taken its read lock yet, while a packet
// waits inside the gate for the run to move.
TEST(HistorySearch, DisableLeavesABegunRunItsLock)
{
    const ring_t ring(3 * 151);
    ring.put(0, 6, 1, 2);
    hold_begun_run = true;
    ASSERT_EQ(ring.add(1, BOTH, "rule"), HC_OK);
    ASSERT_TRUE(wait_until([&] { return ring.hc->searching == 1; }));
    std::thread writer([&] { ring.put(6, 7, 7, 8); });
    ASSERT_TRUE(wait_until([&] { return ring.hc->appending == 1; }));
    const int before = write_locks;
    std::thread stopper([&] { hc_disable(ring.hc); });
    EXPECT_TRUE(wait_until([&] { return write_locks > before; })); // the disable has had it
    hold_begun_run = false;
    writer.join();
    stopper.join();
    EXPECT_EQ(ring.progress(1), progress_value(PROGRESS_DONE, 3));
}

TEST(HistorySearch, NothingFollowsARecordThatWentOutInPart)
{
    const ring_t ring(10 * 151, 60000);
    ring.let_rules_wait(); // their packets are written when they are dropped
    ring.put(0, 10, 1, 2);
    ASSERT_EQ(ring.add(1, BOTH, "rule"), HC_OK);
    const uint32_t held = ring.info().packets;
    test_host::reset();
    {
        const file_limit_t full(24 + 2 * 116 + 50);
        ring.put(0, 6, 5, 6); // drops them
    }
    ring.put(6, 12, 5, 6); // there is room again
    EXPECT_EQ(progress_packets(ring.progress(1)), held);
    for (const char *message : {"Slow search: Packet was not stored to file.", // for each that is missing
                                "It was not possible to write the packet into the file."}) {
        EXPECT_EQ(test_host::count(message), static_cast<int>(held) - 2);
    }
    size_t torn = 0;
    EXPECT_EQ(read_pcap(ring.files.path("rule"), &torn).size(), 2U);
    EXPECT_EQ(torn, 50U);
}

// A run that was woken for another rule meets a held one: neither is searched, and the held one gets every
// record up to its release, also those of later seconds that are dropped meanwhile, and none behind it.
TEST(HistoryHold, HeldRuleTakesEverythingUpToItsRelease)
{
    const ring_t ring(5 * 151);
    rwlock_read(&ring.hc->state_lock); // no run begins meanwhile
    EXPECT_EQ(ring.add(2, BOTH, "other"), HC_OK);
    EXPECT_EQ(ring.hold(1, "held"), HC_OK);
    rwlock_read_unlock(&ring.hc->state_lock);
    ASSERT_TRUE(wait_until([&] { return !run_posted(ring.hc); })); // the run has met it
    for (uint64_t n = 0; n < 12; n++) {
        test_clock++;
        ring.put(n, n + 1, 1, 3);
    }
    EXPECT_EQ(ring.hc->searching, 0);
    EXPECT_EQ(ring.info().rules, 2U);
    EXPECT_EQ(progress_percent(ring.progress(1)), 0);
    EXPECT_GT(progress_packets(ring.progress(1)), 6U); // what the ring has dropped
    rwlock_read(&ring.hc->state_lock);
    ring.release(1);
    test_clock++;
    ring.put(12, 15, 1, 3);
    rwlock_read_unlock(&ring.hc->state_lock);
    ASSERT_TRUE(ring.finishes(1));
    EXPECT_EQ(progress_percent(ring.progress(2)), PROGRESS_DONE);
    const std::vector<pcap_record_t> records = read_pcap(ring.files.path("held"));
    ASSERT_EQ(records.size(), 12U);
    for (uint64_t n = 0; n < records.size(); n++) {
        EXPECT_EQ(records[n].timestamp, n);
    }
}

static int posts(const ring_t &ring) // of the semaphore that the search thread has not taken
{
    int value = -1;
    sem_getvalue(&ring.hc->search_semaphore, &value);
    return value;
}

// An empty run would cost five seconds of pause, a missing one its rules.
TEST(HistoryHold, EveryRunIsPostedOnceByTheLastRelease)
{
    const ring_t ring(5000, 60000);
    ring.let_rules_wait();
    ASSERT_EQ(ring.hold(1, "a"), HC_OK);
    ASSERT_EQ(ring.hold(2, "b"), HC_OK);
    ring.release(1);
    EXPECT_EQ(posts(ring), 0);
    ring.release(2);
    EXPECT_EQ(posts(ring), 1);
    ASSERT_EQ(ring.add(3, BOTH, "c"), HC_OK);
    EXPECT_EQ(posts(ring), 1);
    ASSERT_EQ(ring.hold(4, "d"), HC_OK);
    EXPECT_EQ(ring.hold(4, "e"), HC_NOT_ADDED);
    ring.release(4);
    ring.release(4); // not held any more
    EXPECT_EQ(posts(ring), 1);
}

TEST(HistoryHold, DisableFinishesAHeldRule)
{
    const ring_t ring(5000);
    ASSERT_EQ(ring.hold(1, "held"), HC_OK);
    hc_disable(ring.hc);
    EXPECT_EQ(ring.progress(1, 1), progress_value(PROGRESS_DONE, 0));
    ring.release(1);
    ASSERT_EQ(hc_enable(ring.hc, 5000), HC_OK);
    ASSERT_EQ(ring.add(2, BOTH, "next"), HC_OK);
    EXPECT_TRUE(ring.finishes(2)); // nobody waits for the one that is gone
}

TEST(HistoryHold, AppendAfterAReleaseStoresNothingAndLooksAgain)
{
    const ring_t ring(1000, 60000);
    const packet_t packet = make_packet(1, 100, 1, 2);
    const packet_t large = make_packet(2, 2000, 1, 2);
    const auto append = [&](const packet_t &p, uint64_t offers) {
        const hc_ends_t ends = {p.src, p.dst};
        return hc_enqueue_compared(ring.hc, &ends, reinterpret_cast<const uint8_t *>(p.data.data()),
                                   static_cast<uint32_t>(p.data.size()), p.timestamp, offers);
    };
    const uint64_t before = hc_offers(ring.hc);
    ASSERT_EQ(ring.add(1, BOTH, "rule"), HC_OK);
    const uint64_t now = hc_offers(ring.hc);
    EXPECT_EQ(append(packet, before), HC_LOOK_AGAIN);
    EXPECT_EQ(append(large, before), HC_LOOK_AGAIN);
    EXPECT_EQ(ring.info().packets, 0U);
    EXPECT_EQ(append(large, now), HC_TOO_LARGE);
    EXPECT_EQ(append(packet, now), HC_OK);
    hc_disable(ring.hc);
    EXPECT_EQ(append(packet, before), HC_LOOK_AGAIN); // the release came before the disable
    EXPECT_EQ(append(packet, now), HC_LOOK_AGAIN);
    EXPECT_FALSE(hc_may_store(hc_offers(ring.hc)));
    ASSERT_EQ(hc_enable(ring.hc, 1000), HC_OK);
    EXPECT_EQ(append(packet, now), HC_LOOK_AGAIN); // it has missed a disable
    EXPECT_EQ(append(packet, hc_offers(ring.hc)), HC_OK);
}
