#include "storage/fhf_table.h"

#include "common/memory.h"

#include <cstdlib>

// Lowest clear bits follow the ruler sequence: 0 1 0 2 0 1 0 3 ...
const uint8_t fhf_lt_free_flag[255] = {
    0, 1, 0, 2, 0, 1, 0, 3, 0, 1, 0, 2, 0, 1, 0, 4, 0, 1, 0, 2, 0, 1, 0, 3, 0, 1, 0, 2, 0, 1, 0, 5,
    0, 1, 0, 2, 0, 1, 0, 3, 0, 1, 0, 2, 0, 1, 0, 4, 0, 1, 0, 2, 0, 1, 0, 3, 0, 1, 0, 2, 0, 1, 0, 6,
    0, 1, 0, 2, 0, 1, 0, 3, 0, 1, 0, 2, 0, 1, 0, 4, 0, 1, 0, 2, 0, 1, 0, 3, 0, 1, 0, 2, 0, 1, 0, 5,
    0, 1, 0, 2, 0, 1, 0, 3, 0, 1, 0, 2, 0, 1, 0, 4, 0, 1, 0, 2, 0, 1, 0, 3, 0, 1, 0, 2, 0, 1, 0, 7,
    0, 1, 0, 2, 0, 1, 0, 3, 0, 1, 0, 2, 0, 1, 0, 4, 0, 1, 0, 2, 0, 1, 0, 3, 0, 1, 0, 2, 0, 1, 0, 5,
    0, 1, 0, 2, 0, 1, 0, 3, 0, 1, 0, 2, 0, 1, 0, 4, 0, 1, 0, 2, 0, 1, 0, 3, 0, 1, 0, 2, 0, 1, 0, 6,
    0, 1, 0, 2, 0, 1, 0, 3, 0, 1, 0, 2, 0, 1, 0, 4, 0, 1, 0, 2, 0, 1, 0, 3, 0, 1, 0, 2, 0, 1, 0, 5,
    0, 1, 0, 2, 0, 1, 0, 3, 0, 1, 0, 2, 0, 1, 0, 4, 0, 1, 0, 2, 0, 1, 0, 3, 0, 1, 0, 2, 0, 1, 0,
};

const uint8_t fhf_lt_pow_of_two[8] = {1, 2, 4, 8, 16, 32, 64, 128};

namespace {

// Release every block that exists, then the record.
void release(fhf_table_t *table)
{
    std::free(table->tags);
    std::free(table->locks);
    std::free(table->free_flags);
    std::free(table->data);
    std::free(table->keys);
    std::free(table);
}

bool allocate_blocks(fhf_table_t *table)
{
    const uint64_t rows = table->table_size;
    table->keys = static_cast<uint8_t *>(zeroed_lines(rows, uint64_t{FHF_ROW_SLOTS} * table->key_size));
    if (table->keys == nullptr) {
        return false;
    }
    table->data = static_cast<uint8_t *>(zeroed_lines(rows, uint64_t{FHF_ROW_SLOTS} * table->data_size));
    if (table->data == nullptr) {
        return false;
    }
    table->free_flags = static_cast<uint8_t *>(zeroed_lines(rows, 1));
    if (table->free_flags == nullptr) {
        return false;
    }
    table->locks = static_cast<fhf_lock_t *>(zeroed_lines(rows, sizeof(fhf_lock_t)));
    if (table->locks == nullptr) {
        return false;
    }
    table->tags = static_cast<std::atomic<uint64_t> *>(zeroed_lines(rows, sizeof(std::atomic<uint64_t>)));
    return table->tags != nullptr;
}

void release_row(fhf_iter_t *iter)
{
    if (iter->row >= 0) {
        fhf_unlock(&iter->table->locks[iter->row]);
    }
}

} // namespace

fhf_table_t *fhf_init(uint64_t table_size, uint32_t key_size, uint32_t data_size)
{
    if (!std::has_single_bit(table_size) || key_size == 0 || data_size == 0) {
        return nullptr;
    }
    auto *table = static_cast<fhf_table_t *>(zeroed_lines(1, sizeof(fhf_table_t)));
    if (table == nullptr) {
        return nullptr;
    }
    table->table_size = table_size;
    table->key_size = key_size;
    table->data_size = data_size;
    if (!allocate_blocks(table)) {
        release(table);
        return nullptr;
    }
    table->hash = key_size == 40 ? fhf_hash_40 : key_size % 8 == 0 ? fhf_hash_div8 : fhf_hash;
    return table;
}

void fhf_destroy(fhf_table_t *table)
{
    release(table);
}

void fhf_clear(fhf_table_t *table)
{
    for (uint64_t row = 0; row < table->table_size; row++) {
        fhf_lock_row(&table->locks[row]);
        table->free_flags[row] = 0;
        table->tags[row].store(0, std::memory_order_seq_cst);
        fhf_unlock(&table->locks[row]);
    }
}

fhf_iter_t *fhf_init_iter(fhf_table_t *table)
{
    if (table == nullptr) {
        return nullptr;
    }
    auto *iter = static_cast<fhf_iter_t *>(std::calloc(1, sizeof(fhf_iter_t)));
    if (iter != nullptr) {
        *iter = fhf_begin(table);
    }
    return iter;
}

void fhf_reinit_iter(fhf_iter_t *iter)
{
    release_row(iter);
    *iter = fhf_begin(iter->table);
}

void fhf_destroy_iter(fhf_iter_t *iter)
{
    release_row(iter);
    std::free(iter);
}
