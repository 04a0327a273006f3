#include "storage/fhf_table.h"

#include "support/fault.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <bit>
#include <cstring>
#include <functional>
#include <gtest/gtest.h>
#include <map>
#include <memory>
#include <numeric>
#include <optional>
#include <random>
#include <thread>
#include <tuple>
#include <vector>

namespace {

using table_ptr = std::unique_ptr<fhf_table_t, decltype(&fhf_destroy)>;
using iter_ptr = std::unique_ptr<fhf_iter_t, decltype(&fhf_destroy_iter)>;
using key_t = std::array<uint8_t, 16>;

table_ptr make_table(uint64_t rows, uint32_t key_size = sizeof(key_t), uint32_t data_size = sizeof(uint64_t))
{
    return {fhf_init(rows, key_size, data_size), fhf_destroy};
}

iter_ptr make_iter(fhf_table_t *table)
{
    return {fhf_init_iter(table), fhf_destroy_iter};
}

key_t make_key(uint64_t number)
{
    key_t key = {};
    std::memcpy(key.data() + 3, &number, sizeof number);
    return key;
}

int insert(fhf_table_t *table, uint64_t number, uint64_t value)
{
    return fhf_insert(table, make_key(number).data(), &value);
}

// The value stored under a key, or nothing.
std::optional<uint64_t> look_up(fhf_table_t *table, uint64_t number)
{
    fhf_lock_t *row;
    const void *data = fhf_get_data_locked(table, make_key(number).data(), &row);
    if (data == nullptr) {
        return std::nullopt;
    }
    uint64_t value;
    std::memcpy(&value, data, sizeof value);
    fhf_unlock(row);
    return value;
}

int remove(fhf_table_t *table, uint64_t number)
{
    fhf_lock_t *row;
    const key_t key = make_key(number);
    return fhf_get_data_locked(table, key.data(), &row) != nullptr ? fhf_remove_locked(table, key.data(), row)
                                                                   : FHF_REFUSED;
}

// The row by the definition of the table: the hash, seeded with the table's address, modulo the rows.
uint64_t row_of(const fhf_table_t *table, const void *key)
{
    return fhf_hash(static_cast<const uint8_t *>(key), table->key_size, reinterpret_cast<uint64_t>(table)) %
           table->table_size;
}

// The first `count` numbers whose keys belong to one row.
std::vector<uint64_t> numbers_of_row(const fhf_table_t *table, uint64_t row, size_t count)
{
    std::vector<uint64_t> numbers;
    for (uint64_t number = 0; numbers.size() < count; number++) {
        if (row_of(table, make_key(number).data()) == row) {
            numbers.push_back(number);
        }
    }
    return numbers;
}

// Tags, flags and locks of a table that nobody uses agree.
void expect_consistent(const fhf_table_t *table)
{
    for (uint64_t row = 0; row < table->table_size; row++) {
        ASSERT_EQ(table->locks[row].load(), 0) << "row " << row << " is held";
        const uint64_t tags = table->tags[row].load();
        for (unsigned slot = 0; slot < FHF_ROW_SLOTS; slot++) {
            ASSERT_EQ((tags >> (8 * slot) & 0xFF) != 0, (table->free_flags[row] >> slot & 1) != 0);
        }
    }
}

TEST(FhfHash, GivesTheFixedValuesAndAgreesWhereLengthsOverlap)
{
    std::array<uint8_t, 40> counting;
    std::iota(counting.begin(), counting.end(), uint8_t{0});
    const std::array<uint8_t, 16> zeros = {};
    EXPECT_EQ(fhf_hash_div8(zeros.data(), 16, 0), 0x23d8439d23573deeU);
    EXPECT_EQ(fhf_hash_div8(counting.data(), 16, 0), 0x541407f3ad7ce9b7U);
    EXPECT_EQ(fhf_hash(counting.data(), 12, 0), 0xa696f6345881a75cU);
    EXPECT_EQ(fhf_hash_40(counting.data(), 0, 0), 0xba48c38ef0cd9957U);
    for (uint64_t seed : {uint64_t{0}, uint64_t{1}, ~uint64_t{0}}) {
        EXPECT_EQ(fhf_hash(counting.data(), 40, seed), fhf_hash_40(counting.data(), 7, seed));
        EXPECT_EQ(fhf_hash(counting.data(), 16, seed), fhf_hash_div8(counting.data(), 23, seed));
        EXPECT_EQ(fhf_hash(counting.data(), 16, seed), fhf_hash_16(counting.data(), seed));
    }
}

TEST(FhfTable, LookupTablesDescribeFlagBytes)
{
    for (unsigned flags = 0; flags < 255; flags++) {
        ASSERT_EQ(fhf_lt_free_flag[flags], std::countr_one(flags));
    }
    for (unsigned slot = 0; slot < 8; slot++) {
        ASSERT_EQ(fhf_lt_pow_of_two[slot], 1U << slot);
    }
}

TEST(FhfTable, RefusesInvalidSizesAndChoosesTheHashByKeySize)
{
    for (const auto &[rows, key_size, data_size] :
         std::vector<std::tuple<uint64_t, uint32_t, uint32_t>>{{0, 16, 8},
                                                               {3, 16, 8},
                                                               {100, 16, 8},
                                                               {128, 0, 8},
                                                               {128, 16, 0},
                                                               {uint64_t{1} << 61, 16, 8},
                                                               {uint64_t{1} << 63, ~0U, ~0U}}) {
        EXPECT_EQ(make_table(rows, key_size, data_size), nullptr)
            << rows << " " << key_size << " " << data_size;
    }
    EXPECT_EQ(make_table(128, 16, 40)->hash, fhf_hash_div8);
    EXPECT_EQ(make_table(1, 40, 1)->hash, fhf_hash_40);
    EXPECT_EQ(make_table(2, 12, 1)->hash, fhf_hash);
}

TEST(FhfTable, EveryBlockBeginsOnACacheLineOfItsOwn)
{
    const table_ptr table = make_table(1, 1, 1);
    for (const void *block : std::initializer_list<const void *>{
             table.get(), table->keys, table->data, table->free_flags, table->locks, table->tags}) {
        EXPECT_EQ(reinterpret_cast<uintptr_t>(block) % 64, 0U);
    }
}

TEST(FhfTable, FullRowRefusesANinthKeyAndReusesTheFreedSlot)
{
    const table_ptr table = make_table(16);
    const std::vector<uint64_t> numbers = numbers_of_row(table.get(), 5, 9);
    for (size_t slot = 0; slot < 8; slot++) {
        ASSERT_EQ(insert(table.get(), numbers[slot], slot), FHF_OK);
        const key_t key = make_key(numbers[slot]);
        EXPECT_EQ(std::memcmp(table->keys + (40 + slot) * sizeof key, key.data(), sizeof key), 0);
        EXPECT_NE(insert(table.get(), numbers[slot], 77), FHF_OK) << "a present key is refused";
        EXPECT_EQ(look_up(table.get(), numbers[slot]), slot) << "and its data stays";
    }
    EXPECT_EQ(table->free_flags[5], FHF_ROW_FULL);
    EXPECT_NE(insert(table.get(), numbers[8], 8), FHF_OK);
    EXPECT_EQ(look_up(table.get(), numbers[8]), std::nullopt);

    EXPECT_EQ(remove(table.get(), numbers[2]), FHF_OK);
    EXPECT_EQ(look_up(table.get(), numbers[2]), std::nullopt);
    EXPECT_EQ(insert(table.get(), numbers[8], 8), FHF_OK);
    EXPECT_EQ(
        std::memcmp(table->keys + (5 * 8 + 2) * sizeof(key_t), make_key(numbers[8]).data(), sizeof(key_t)),
        0);
    expect_consistent(table.get());
}

TEST(FhfTable, RemovalOfAKeyThatIsNotInTheHeldRowReleasesTheRow)
{
    const table_ptr table = make_table(2);
    const std::vector<uint64_t> here = numbers_of_row(table.get(), 0, 2);
    const uint64_t elsewhere = numbers_of_row(table.get(), 1, 1)[0];
    ASSERT_EQ(insert(table.get(), here[0], 1), FHF_OK);
    ASSERT_EQ(insert(table.get(), elsewhere, 2), FHF_OK);
    for (const uint64_t wrong : {here[1], elsewhere}) {
        fhf_lock_t *row;
        ASSERT_NE(fhf_get_data_locked(table.get(), make_key(here[0]).data(), &row), nullptr);
        EXPECT_NE(fhf_remove_locked(table.get(), make_key(wrong).data(), row), FHF_OK);
        expect_consistent(table.get());
    }
    EXPECT_EQ(look_up(table.get(), here[0]), 1U);
    EXPECT_EQ(look_up(table.get(), elsewhere), 2U);
}

TEST(FhfTable, WalksInOrderRemovesWhileWalkingAndEnds)
{
    const table_ptr table = make_table(8);
    EXPECT_EQ(fhf_init_iter(nullptr), nullptr);
    const iter_ptr iter = make_iter(table.get());
    EXPECT_EQ(iter->row, -1);
    EXPECT_EQ(iter->slot, -1);
    EXPECT_NE(fhf_get_next(iter.get()), FHF_OK) << "an empty table has no entry";
    EXPECT_EQ(iter->row, -2);
    EXPECT_EQ(iter->slot, -2);
    EXPECT_NE(fhf_get_next(iter.get()), FHF_OK) << "and the walk stays at its end";

    uint64_t stored = 0;
    for (uint64_t number = 0; number < 40; number++) {
        stored += insert(table.get(), number, number) == FHF_OK ? 1 : 0;
    }
    for (const bool removing : {false, true}) {
        fhf_reinit_iter(iter.get());
        std::vector<int64_t> order;
        while (fhf_get_next(iter.get()) == FHF_OK) {
            EXPECT_EQ(table->locks[iter->row].load(), 1);
            order.push_back(iter->row * 8 + iter->slot);
            if (removing) {
                fhf_remove_iter(iter.get());
                EXPECT_EQ(iter->data, nullptr);
                fhf_remove_iter(iter.get()); // nothing stands here any more
            }
        }
        EXPECT_EQ(order.size(), stored);
        EXPECT_TRUE(std::is_sorted(order.begin(), order.end(), std::less_equal<>()));
        expect_consistent(table.get());
    }
    EXPECT_TRUE(
        std::all_of(table->free_flags, table->free_flags + 8, [](uint8_t flags) { return flags == 0; }));
}

TEST(FhfTable, AbandonedWalkReleasesItsRowAndClearEmptiesEveryRow)
{
    const table_ptr table = make_table(4);
    const auto fill = [&] {
        for (uint64_t row = 0; row < 4; row++) {
            for (const uint64_t number : numbers_of_row(table.get(), row, 8)) {
                ASSERT_EQ(insert(table.get(), number, number), FHF_OK);
            }
        }
    };
    fill();
    iter_ptr iter = make_iter(table.get());
    for (const bool destroy : {false, true}) {
        ASSERT_EQ(fhf_get_next(iter.get()), FHF_OK);
        EXPECT_EQ(table->locks[0].load(), 1);
        if (destroy) {
            iter.reset();
        } else {
            fhf_reinit_iter(iter.get());
        }
        expect_consistent(table.get());
    }
    fhf_clear(table.get());
    for (uint64_t number = 0; number < 200; number++) {
        ASSERT_EQ(look_up(table.get(), number), std::nullopt);
    }
    fill();
    expect_consistent(table.get());
}

TEST(FhfTable, EveryFailingAllocationGivesNull)
{
    int failures = 0;
    for (bool created = false; !created; failures++) {
        fault::fail_call(failures + 1);
        fhf_table_t *table = fhf_init(128, 16, 40);
        fault::fail_call(0);
        created = table != nullptr;
        if (created) {
            fault::fail_call(1);
            EXPECT_EQ(fhf_init_iter(table), nullptr);
            fault::fail_call(0);
            fhf_destroy(table);
        }
    }
    EXPECT_EQ(failures - 1, 6) << "the record and its five blocks";
}

// One table beside a plain map: the same operations give the same answers.
class model_t {
public:
    model_t(uint64_t rows, uint32_t key_size, unsigned seed)
        : table_(make_table(rows, key_size)), random_(seed), key_count_(rows * 10)
    {
    }

    void step()
    {
        const key_t key = pick();
        const bool present = content_.contains(key);
        const uint64_t value = random_();
        switch (random_() % 8) {
        case 0:
        case 1:
        case 2: {
            const bool fits = !present && in_row_[row_of(table_.get(), key.data())] < 8;
            ASSERT_EQ(fhf_insert(table_.get(), key.data(), &value) == FHF_OK, fits);
            if (fits) {
                enter(key, value);
            }
            break;
        }
        case 3:
            change(key, present, value);
            break;
        case 4:
            take_out(key, present);
            break;
        default:
            change(key, present, 0);
            break;
        }
    }

    // Compare everything, taking every third entry out on the way.
    void walk()
    {
        const iter_ptr iter = make_iter(table_.get());
        std::map<key_t, uint64_t> seen;
        std::vector<key_t> taken;
        while (fhf_get_next(iter.get()) == FHF_OK) {
            key_t key = {};
            std::memcpy(key.data(), iter->key, table_->key_size);
            ASSERT_TRUE(seen.emplace(key, load(iter->data)).second) << "visited twice";
            if (random_() % 3 == 0) {
                fhf_remove_iter(iter.get());
                taken.push_back(key);
            }
        }
        ASSERT_EQ(seen, content_);
        for (const key_t &key : taken) {
            leave(key);
        }
        expect_consistent(table_.get());
    }

    void clear()
    {
        fhf_clear(table_.get());
        content_.clear();
        in_row_.clear();
    }

private:
    static uint64_t load(const void *data)
    {
        uint64_t value;
        std::memcpy(&value, data, sizeof value);
        return value;
    }

    key_t pick()
    {
        const uint64_t number = random_() % key_count_;
        key_t key = {};
        for (size_t i = 0; i < std::min<size_t>(table_->key_size, 12); i++) {
            key[i] = static_cast<uint8_t>(number >> (8 * (i % 4)));
        }
        return key;
    }

    void change(const key_t &key, bool present, uint64_t value)
    {
        fhf_lock_t *row;
        void *data = fhf_get_data_locked(table_.get(), key.data(), &row);
        ASSERT_EQ(data != nullptr, present);
        if (data == nullptr) {
            return;
        }
        EXPECT_EQ(load(data), content_[key]);
        if (value != 0) {
            std::memcpy(data, &value, sizeof value);
            content_[key] = value;
        }
        fhf_unlock(row);
    }

    void take_out(const key_t &key, bool present)
    {
        fhf_lock_t *row;
        ASSERT_EQ(fhf_get_data_locked(table_.get(), key.data(), &row) != nullptr, present);
        if (present) {
            ASSERT_EQ(fhf_remove_locked(table_.get(), key.data(), row), FHF_OK);
            leave(key);
        }
    }

    void enter(const key_t &key, uint64_t value)
    {
        content_.emplace(key, value);
        in_row_[row_of(table_.get(), key.data())]++;
    }

    void leave(const key_t &key)
    {
        content_.erase(key);
        in_row_[row_of(table_.get(), key.data())]--;
    }

    table_ptr table_;
    std::mt19937_64 random_;
    uint64_t key_count_;
    std::map<key_t, uint64_t> content_;
    std::map<uint64_t, int> in_row_;
};

TEST(FhfTable, AgreesWithAMapOverAMillionOperations) // 8 sizes * 3 keys * 50000
{
    unsigned seed = 1;
    for (uint64_t rows = 1; rows <= 128; rows *= 2) {
        for (const uint32_t key_size : {16U, 12U, 8U}) {
            model_t model(rows, key_size, seed++);
            for (int step = 1; step <= 50000; step++) {
                ASSERT_NO_FATAL_FAILURE(model.step()) << "rows " << rows << " key size " << key_size;
                if (step % 5000 == 0) {
                    ASSERT_NO_FATAL_FAILURE(model.walk());
                }
                if (step % 20000 == 0) {
                    model.clear();
                }
            }
        }
    }
}

struct tally_t {
    uint64_t added = 0;   // sum of what this thread added to entries
    uint64_t removed = 0; // sum of the entries' values when this thread took them out
    int64_t entries = 0;  // insertions less removals
};

void meddle(fhf_table_t *table, unsigned seed, tally_t *tally)
{
    std::mt19937_64 random(seed);
    for (int step = 0; step < 200000; step++) {
        const key_t key = make_key(random() % 60);
        const uint64_t zero = 0;
        fhf_lock_t *row;
        const uint64_t what = random() % 16;
        if (what < 4) {
            tally->entries += fhf_insert(table, key.data(), &zero) == FHF_OK ? 1 : 0;
        } else if (what == 15) {
            const iter_ptr iter = make_iter(table);
            while (fhf_get_next(iter.get()) == FHF_OK && random() % 32 != 0) {
                auto *value = reinterpret_cast<uint64_t *>(iter->data);
                ++*value;
                tally->added++;
                if (random() % 16 == 0) {
                    tally->removed += *value;
                    tally->entries--;
                    fhf_remove_iter(iter.get());
                }
            }
        } else if (auto *value = static_cast<uint64_t *>(fhf_get_data_locked(table, key.data(), &row))) {
            ++*value;
            tally->added++;
            if (what != 4) {
                fhf_unlock(row);
                continue;
            }
            tally->removed += *value;
            tally->entries -= fhf_remove_locked(table, key.data(), row) == FHF_OK ? 1 : 0;
        }
    }
}

TEST(FhfTable, ManyThreadsLoseNoChangeAndNoEntry)
{
    const table_ptr table = make_table(8);
    std::array<tally_t, 4> tallies;
    std::vector<std::thread> threads;
    for (size_t i = 0; i < tallies.size(); i++) {
        threads.emplace_back(meddle, table.get(), static_cast<unsigned>(i + 1), &tallies[i]);
    }
    for (std::thread &thread : threads) {
        thread.join();
    }
    tally_t sum;
    for (const tally_t &tally : tallies) {
        sum.added += tally.added;
        sum.removed += tally.removed;
        sum.entries += tally.entries;
    }
    const iter_ptr iter = make_iter(table.get());
    uint64_t kept = 0;
    int64_t entries = 0;
    while (fhf_get_next(iter.get()) == FHF_OK) {
        kept += *reinterpret_cast<uint64_t *>(iter->data);
        entries++;
    }
    EXPECT_EQ(sum.added, sum.removed + kept);
    EXPECT_EQ(sum.entries, entries);
    EXPECT_GT(sum.added, 200000U);
    expect_consistent(table.get());
}

// Key `n` goes in on one thread and is looked up and taken out by another that only learns that the insertion
// has returned; meanwhile two threads keep changing the other slots of the same row.
TEST(FhfTable, LookUpBegunAfterAnInsertionReturnedNeverMisses)
{
    constexpr uint64_t ROUNDS = 50000;
    const table_ptr table = make_table(1);
    std::atomic<uint64_t> inserted{0};
    std::atomic<uint64_t> taken{0};
    std::atomic<bool> stop{false};
    std::vector<std::thread> churn;
    for (uint64_t base : {uint64_t{1} << 40, uint64_t{1} << 41}) {
        churn.emplace_back([&, base] {
            for (uint64_t i = 0; !stop.load(std::memory_order_relaxed); i++) {
                (void)insert(table.get(), base + i % 3, i);
                (void)remove(table.get(), base + (i + 1) % 3);
                if (i % 64 == 0) {
                    std::this_thread::yield();
                }
            }
        });
    }
    uint64_t missed = 0;
    std::thread taker([&] {
        for (uint64_t n = 1; n <= ROUNDS; n++) {
            while (inserted.load(std::memory_order_acquire) < n) {
                std::this_thread::yield();
            }
            missed += look_up(table.get(), n) == n ? 0 : 1;
            missed += remove(table.get(), n) == FHF_OK ? 0 : 1;
            taken.store(n, std::memory_order_release);
        }
    });
    uint64_t refused = 0;
    for (uint64_t n = 1; n <= ROUNDS; n++) {
        refused += insert(table.get(), n, n) == FHF_OK ? 0 : 1;
        inserted.store(n, std::memory_order_release);
        while (taken.load(std::memory_order_acquire) < n) {
            std::this_thread::yield();
        }
    }
    taker.join();
    stop.store(true);
    for (std::thread &thread : churn) {
        thread.join();
    }
    EXPECT_EQ(missed, 0U);
    EXPECT_EQ(refused, 0U);
}

} // namespace
