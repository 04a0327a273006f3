#include "storage/fhf_table.h"

#include "support/fault.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <bit>
#include <cstring>
#include <functional>
#include <gtest/gtest.h>
#include <memory>
#include <numeric>
#include <optional>
#include <random>
#include <thread>
#include <tuple>
#include <utility>
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

// By the definition of the table: the hash, seeded with the table's address, modulo the rows.
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

TEST(FhfTable, RefusesInvalidSizesAlignsItsBlocksAndChoosesTheHashByKeySize)
{
    using sizes_t = std::tuple<uint64_t, uint32_t, uint32_t>;
    for (const auto &[rows, key_size, data_size] :
         {sizes_t{0, 16, 8}, sizes_t{3, 16, 8}, sizes_t{100, 16, 8}, sizes_t{128, 0, 8}, sizes_t{128, 16, 0},
          sizes_t{uint64_t{1} << 61, 16, 8}, sizes_t{uint64_t{1} << 63, ~0U, ~0U}}) {
        EXPECT_EQ(make_table(rows, key_size, data_size), nullptr) << rows << " " << key_size;
    }
    EXPECT_EQ(make_table(128, 16, 40)->hash, fhf_hash_div8);
    EXPECT_EQ(make_table(1, 40, 1)->hash, fhf_hash_40);
    EXPECT_EQ(make_table(2, 12, 1)->hash, fhf_hash);
    const table_ptr table = make_table(1, 1, 1);
    for (const void *block : std::initializer_list<const void *>{
             table.get(), table->keys, table->data, table->free_flags, table->locks, table->tags}) {
        EXPECT_EQ(reinterpret_cast<uintptr_t>(block) % 64, 0U);
    }
    for (unsigned flags = 0; flags < 255; flags++) {
        ASSERT_EQ(fhf_lt_free_flag[flags], std::countr_one(flags));
    }
}

TEST(FhfTable, FullRowRefusesANinthKeyAndReusesTheFreedSlot)
{
    const table_ptr table = make_table(16);
    const std::vector<uint64_t> numbers = numbers_of_row(table.get(), 5, 9);
    const auto stands_in = [&](size_t slot, uint64_t number) {
        return std::memcmp(table->keys + (40 + slot) * sizeof(key_t), make_key(number).data(),
                           sizeof(key_t)) == 0;
    };
    for (size_t slot = 0; slot < 8; slot++) {
        ASSERT_EQ(insert(table.get(), numbers[slot], slot), FHF_OK);
        EXPECT_TRUE(stands_in(slot, numbers[slot]));
        EXPECT_NE(insert(table.get(), numbers[slot], 77), FHF_OK) << "a present key is refused";
        EXPECT_EQ(look_up(table.get(), numbers[slot]), slot) << "and its data stays";
    }
    EXPECT_NE(insert(table.get(), numbers[8], 8), FHF_OK);
    EXPECT_EQ(look_up(table.get(), numbers[8]), std::nullopt);
    EXPECT_EQ(remove(table.get(), numbers[2]), FHF_OK);
    EXPECT_EQ(look_up(table.get(), numbers[2]), std::nullopt);
    EXPECT_EQ(insert(table.get(), numbers[8], 8), FHF_OK);
    EXPECT_TRUE(stands_in(2, numbers[8]));
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
    for (int i = 0; i < 2; i++) { // a walk stays at its end
        EXPECT_NE(fhf_get_next(iter.get()), FHF_OK);
        EXPECT_EQ(iter->row, -2);
        EXPECT_EQ(iter->slot, -2);
    }
    uint64_t stored = 0;
    for (uint64_t number = 0; number < 40; number++) {
        stored += insert(table.get(), number, number) == FHF_OK ? 1 : 0;
    }
    for (const bool removing : {false, true, false}) {
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
        stored = removing ? 0 : stored;
        EXPECT_TRUE(std::is_sorted(order.begin(), order.end(), std::less_equal<>()));
        expect_consistent(table.get());
    }
}

TEST(FhfTable, AbandonedWalkReleasesItsRowAndClearEmptiesEveryRow)
{
    const table_ptr table = make_table(4);
    for (int round = 0; round < 2; round++) {
        for (uint64_t row = 0; row < 4; row++) {
            for (const uint64_t number : numbers_of_row(table.get(), row, 8)) {
                ASSERT_EQ(insert(table.get(), number, number), FHF_OK);
            }
        }
        iter_ptr iter = make_iter(table.get());
        ASSERT_EQ(fhf_get_next(iter.get()), FHF_OK);
        EXPECT_EQ(table->locks[0].load(), 1);
        round == 0 ? fhf_reinit_iter(iter.get()) : iter.reset();
        expect_consistent(table.get());
        fhf_clear(table.get());
        for (uint64_t number = 0; number < 200; number++) {
            ASSERT_EQ(look_up(table.get(), number), std::nullopt);
        }
    }
}

TEST(FhfTable, EveryFailingAllocationGivesNull)
{
    for (int n = 1; n <= 6; n++) { // the record and its five blocks
        fault::fail_call(n);
        EXPECT_EQ(make_table(128, 16, 40), nullptr) << n;
    }
    fault::fail_call(7);
    const table_ptr table = make_table(128, 16, 40);
    EXPECT_NE(table, nullptr);
    EXPECT_EQ(fault::calls(), 6);
    EXPECT_EQ(make_iter(table.get()), nullptr);
    fault::fail_call(0);
}

// A table beside the values that its keys should have (0: not there): the same operations, the same answers.
class model_t {
public:
    model_t(uint64_t rows, uint32_t key_size, unsigned seed)
        : table(make_table(rows, key_size)), random(seed), values(rows * 10), in_row(rows)
    {
        for (uint32_t number = 0; number < values.size(); number++) {
            keys.push_back({});
            for (size_t i = 0; i < std::min(key_size, 12U); i++) {
                keys[number][i] = static_cast<uint8_t>(number >> (8 * (i % 4)));
            }
            rows_of.push_back(row_of(table.get(), keys[number].data()));
        }
    }
    bool step()
    {
        const uint64_t number = random() % values.size();
        uint64_t &expected = values[number];
        int &fill = in_row[rows_of[number]];
        const uint64_t what = random() % 8;
        const uint64_t value = random() | 1;
        if (what < 3) {
            const bool fits = expected == 0 && fill < 8;
            fill += fits ? 1 : 0;
            expected = fits ? value : expected;
            return (fhf_insert(table.get(), keys[number].data(), &value) == FHF_OK) == fits;
        }
        fhf_lock_t *row;
        auto *data = static_cast<uint64_t *>(fhf_get_data_locked(table.get(), keys[number].data(), &row));
        if (data == nullptr || expected == 0) {
            return data == nullptr && expected == 0;
        }
        const bool same = *data == expected;
        if (what == 3) {
            fill--;
            expected = 0;
            return same && fhf_remove_locked(table.get(), keys[number].data(), row) == FHF_OK;
        }
        expected = *data = what == 4 ? value : expected;
        fhf_unlock(row);
        return same;
    }
    // Compare everything, taking every third entry out on the way.
    void walk()
    {
        const iter_ptr iter = make_iter(table.get());
        std::vector<uint64_t> unseen = values;
        while (fhf_get_next(iter.get()) == FHF_OK) {
            uint32_t number;
            std::memcpy(&number, iter->key, sizeof number);
            ASSERT_LT(number, values.size());
            ASSERT_EQ(std::memcmp(iter->key, keys[number].data(), table->key_size), 0);
            ASSERT_EQ(*reinterpret_cast<uint64_t *>(iter->data), std::exchange(unseen[number], 0));
            if (random() % 3 == 0) {
                fhf_remove_iter(iter.get());
                values[number] = 0;
                in_row[rows_of[number]]--;
            }
        }
        ASSERT_EQ(std::count(unseen.begin(), unseen.end(), 0U), static_cast<std::ptrdiff_t>(unseen.size()));
        expect_consistent(table.get());
    }
    void clear()
    {
        fhf_clear(table.get());
        values.assign(values.size(), 0);
        in_row.assign(in_row.size(), 0);
    }

private:
    table_ptr table;
    std::mt19937_64 random;
    std::vector<key_t> keys;
    std::vector<uint64_t> rows_of, values;
    std::vector<int> in_row;
};

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr int MODEL_STEPS = 5000;
#else
constexpr int MODEL_STEPS = 50000;
#endif

TEST(FhfTable, AgreesWithAMapOverAMillionOperations) // 8 sizes * 3 keys * 50000, a tenth under a sanitizer
{
    for (uint64_t rows = 1; rows <= 128; rows *= 2) {
        for (const uint32_t key_size : {16U, 12U, 8U}) {
            model_t model(rows, key_size, static_cast<unsigned>(rows + key_size));
            for (int step = 1; step <= MODEL_STEPS; step++) {
                ASSERT_TRUE(model.step()) << "rows " << rows << " key size " << key_size;
                if (step % (MODEL_STEPS / 10) == 0) {
                    ASSERT_NO_FATAL_FAILURE(model.walk());
                }
                if (step % (MODEL_STEPS * 2 / 5) == 0) {
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
    for (int step = 0; step < 100000; step++) {
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
    tally_t sum;
    for (size_t i = 0; i < tallies.size(); i++) {
        threads[i].join();
        sum.added += tallies[i].added;
        sum.removed += tallies[i].removed;
        sum.entries += tallies[i].entries;
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
    EXPECT_GT(sum.added, 100000U);
    expect_consistent(table.get());
}

// Each thread has a key of its own, all in one row: what it put in is there until it takes it out, whatever
// the others do to the row meanwhile.
TEST(FhfTable, LookUpBegunAfterAnInsertionReturnedNeverMisses)
{
    const table_ptr table = make_table(1);
    std::atomic<uint64_t> wrong{0};
    std::vector<std::thread> threads;
    for (uint64_t number = 0; number < 4; number++) {
        threads.emplace_back([&, number] {
            for (uint64_t value = 0; value < 50000; value++) {
                wrong += insert(table.get(), number, value) != FHF_OK ? 1 : 0;
                wrong += look_up(table.get(), number) != value ? 1 : 0;
                wrong += remove(table.get(), number) != FHF_OK ? 1 : 0;
            }
        });
    }
    for (std::thread &thread : threads) {
        thread.join();
    }
    EXPECT_EQ(wrong.load(), 0U);
    expect_consistent(table.get());
}

} // namespace
