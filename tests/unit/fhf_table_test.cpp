#include "storage/fhf_table.h"

#include "support/test_host.h"

#include <gtest/gtest.h>
#include <numeric>
#include <optional>
#include <random>

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

// Key number n; also its first eight bytes tell n.
key_t make_key(uint64_t number)
{
    key_t key = {};
    std::memcpy(key.data() + 3, &number, 4);
    return key;
}

int insert(fhf_table_t *table, uint64_t number, uint64_t value)
{
    return fhf_insert(table, make_key(number).data(), &value);
}

// Do something with the value stored under a key, its row held; false where there is none.
template <typename F>
bool with(fhf_table_t *table, uint64_t number, F use)
{
    fhf_lock_t *row;
    auto *value = static_cast<uint64_t *>(fhf_get_data_locked(table, make_key(number).data(), &row));
    if (value != nullptr) {
        use(value);
        fhf_unlock(row);
    }
    return value != nullptr;
}

std::optional<uint64_t> look_up(fhf_table_t *table, uint64_t number)
{
    std::optional<uint64_t> found;
    with(table, number, [&](const uint64_t *value) { found = *value; });
    return found;
}

// Take a key out: the value that it had.
std::optional<uint64_t> remove(fhf_table_t *table, uint64_t number)
{
    fhf_lock_t *row;
    const auto *data = static_cast<uint64_t *>(fhf_get_data_locked(table, make_key(number).data(), &row));
    const std::optional<uint64_t> value = data != nullptr ? std::optional(*data) : std::nullopt;
    EXPECT_TRUE(!value || fhf_remove_locked(table, make_key(number).data(), row) == FHF_OK);
    return value;
}

// By the definition of the table: the hash, seeded with the table's address, modulo the rows.
uint64_t row_of(const fhf_table_t *table, uint64_t number)
{
    return fhf_hash(make_key(number).data(), table->key_size, reinterpret_cast<uint64_t>(table)) %
           table->table_size;
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

TEST(FhfTable, RefusesInvalidSizes)
{
    constexpr uint64_t ONE = 1;
    for (const auto &[rows, key_size, data_size] : {std::tuple{0 * ONE, 16U, 8U},
                                                    {3, 16, 8},
                                                    {100, 16, 8},
                                                    {128, 0, 8},
                                                    {128, 16, 0},
                                                    {ONE << 61, 16, 8},
                                                    {ONE << 63, ~0U, ~0U}}) {
        EXPECT_EQ(make_table(rows, key_size, data_size), nullptr) << rows << " " << key_size;
    }
}

// The same operations on a table and on the values that its keys should have (0: not there).
void compare_with_values(uint64_t rows, uint32_t key_size, int steps)
{
    const table_ptr table = make_table(rows, key_size);
    std::mt19937_64 random(rows + key_size);
    std::vector<uint64_t> values(rows * 10);
    std::vector<int> in_row(rows);
    for (int step = 1; step <= steps; step++) {
        const uint64_t number = random() % values.size(), new_value = random() | 1, what = random() % 8;
        uint64_t &value = values[number];
        int &fill = in_row[row_of(table.get(), number)];
        if (what < 3) {
            const bool taken = value == 0 && fill < 8;
            ASSERT_EQ(insert(table.get(), number, new_value), taken ? FHF_OK : FHF_REFUSED);
            value = taken ? new_value : value;
            fill += taken ? 1 : 0;
        } else if (what == 3) {
            fill -= value != 0 ? 1 : 0;
            ASSERT_EQ(remove(table.get(), number).value_or(0), std::exchange(value, 0));
        } else {
            ASSERT_EQ(look_up(table.get(), number).value_or(0), value);
        }
        if (step % (steps * 2 / 5) == 0) {
            fhf_clear(table.get());
            values.assign(values.size(), 0);
            in_row.assign(rows, 0);
        }
        if (step % (steps / 10) != 0) {
            continue;
        }
        // Walk, taking every third entry out on the way, after a walk that is given up.
        const iter_ptr iter = make_iter(table.get());
        std::vector<uint64_t> unseen = values;
        (void)fhf_get_next(iter.get());
        fhf_reinit_iter(iter.get());
        while (fhf_get_next(iter.get()) == FHF_OK) {
            uint32_t at;
            std::memcpy(&at, iter->key + 3, sizeof at);
            ASSERT_LT(at, values.size());
            ASSERT_EQ(std::memcmp(iter->key, make_key(at).data(), key_size), 0);
            ASSERT_EQ(*reinterpret_cast<uint64_t *>(iter->data), std::exchange(unseen[at], 0));
            if (random() % 3 == 0) {
                fhf_remove_iter(iter.get());
                fhf_remove_iter(iter.get()); // nothing stands here any more
                values[at] = 0;
                in_row[row_of(table.get(), at)]--;
            }
        }
        ASSERT_NE(fhf_get_next(iter.get()), FHF_OK); // a walk stays at its end
        ASSERT_EQ(unseen, std::vector<uint64_t>(values.size()));
        expect_consistent(table.get());
    }
}

TEST(FhfTable, AgreesWithAMapOverAMillionOperations) // 8 sizes * 3 keys * 50000, a tenth under a sanitizer
{
    for (uint64_t rows = 1; rows <= 128; rows *= 2) {
        for (const uint32_t key_size : {16U, 12U, 8U}) {
            SCOPED_TRACE("rows " + std::to_string(rows) + ", key size " + std::to_string(key_size));
            ASSERT_NO_FATAL_FAILURE(compare_with_values(rows, key_size, SANITIZED ? 5000 : 50000));
        }
    }
}

// Random operations of several threads: what is added to entries leaves with them.
TEST(FhfTable, ManyThreadsLoseNoChangeAndNoEntry)
{
    const table_ptr table = make_table(8);
    std::atomic<uint64_t> added{0}, entries{0};
    const auto add_one = [&](uint64_t *value) {
        ++*value;
        ++added;
    };
    const auto meddle = [&](unsigned seed) {
        std::mt19937_64 random(seed);
        for (int step = 0; step < 100000; step++) {
            const uint64_t number = random() % 60, what = random() % 16;
            if (what < 4) {
                entries += insert(table.get(), number, 0) == FHF_OK ? 1 : 0;
            } else if (what == 4) {
                const std::optional<uint64_t> value = remove(table.get(), number);
                added -= value.value_or(0);
                entries -= value ? 1 : 0;
            } else if (what < 15) {
                with(table.get(), number, add_one);
            } else {
                const iter_ptr iter = make_iter(table.get());
                while (fhf_get_next(iter.get()) == FHF_OK && random() % 32 != 0) {
                    add_one(reinterpret_cast<uint64_t *>(iter->data));
                }
            }
        }
    };
    {
        const std::jthread first(meddle, 1), second(meddle, 2), third(meddle, 3), fourth(meddle, 4);
    }
    for (uint64_t number = 0; number < 60; number++) {
        const std::optional<uint64_t> value = remove(table.get(), number);
        added -= value.value_or(0);
        entries -= value ? 1 : 0;
    }
    EXPECT_EQ(added, 0U);
    EXPECT_EQ(entries, 0U);
    expect_consistent(table.get());
}

// Each thread has a key of its own, all in one row: what it put in is there until it takes it out, whatever
// the others do to the row meanwhile.
TEST(FhfTable, LookUpBegunAfterAnInsertionReturnedNeverMisses)
{
    const table_ptr table = make_table(1);
    std::atomic<uint64_t> wrong{0};
    std::vector<std::jthread> threads;
    for (uint64_t number = 0; number < 4; number++) {
        threads.emplace_back([&, number] {
            for (uint64_t value = 0; value < 50000; value++) {
                wrong += insert(table.get(), number, value) != FHF_OK ? 1 : 0;
                wrong += look_up(table.get(), number) != value ? 1 : 0;
                wrong += remove(table.get(), number) != value ? 1 : 0;
            }
        });
    }
    threads.clear(); // joined
    EXPECT_EQ(wrong.load(), 0U);
    expect_consistent(table.get());
}

} // namespace
