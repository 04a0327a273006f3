// The fixed-size hash table: fixed-length byte keys with fixed-length data items, in a power-of-two
// number of rows of eight slots. A key lives only in the row that its hash selects; the table never
// grows, and a full row refuses a ninth key. The live capture has one table for its watched addresses,
// every history capture two for its rules.
//
// A row r in each block (each block has cache lines of its own):
//
//   tags        t0 t1 t2 t3 t4 t5 t6 t7    one 64-bit word; 0 = free slot, else 8 bits of the key's hash
//   free_flags  f                          bit i set: slot i holds an entry
//   locks       l                          0 free, 1 locked
//   keys        k0 .. k7                   slot i of row r at (r * 8 + i) * key_size
//   data        d0 .. d7                   slot i of row r at (r * 8 + i) * data_size
//
// Threads: any number may use one table; the row locks are the only synchronisation. Nearly every look-up on
// the packet path is for an absent key, so the tags alone answer it. The tags of a row are one word, written
// only when the row's entries change; a look-up compares all eight bytes with the key's tag at once. Without
// a match the key is absent, and the look-up has written neither the lock nor any other shared line. A match
// is settled by comparing keys under the lock.
//
// Invariants, all kept under the row's lock:
//   1. tag i is 0 exactly when bit i of the flags is 0.
//   2. A slot's tag is stored, sequentially consistent, before the operation that fills the slot returns. So
//      a look-up that begins after an insertion has returned sees its tag.
//   3. A held row is held by one thread; that thread starts no other key operation or walk on this table.
//
// Pointers to keys and data point into the table and are valid only while their row is held. Data is copied
// bytewise; the caller releases what it refers to (descriptors).
#pragma once

#include "common/export.h"
#include "common/lock.h"
#include "storage/fhf_hash.h"

#include <atomic>
#include <bit>
#include <cstdint>
#include <cstring>

constexpr uint32_t FHF_ROW_SLOTS = 8;
constexpr uint8_t FHF_ROW_FULL = 255;
constexpr uint32_t FHF_ADDRESS_SIZE = 16; // key size of the tables on the packet path

enum : int {
    FHF_OK = 0,
    FHF_REFUSED = -1, // key present already, or row full; key not in the held row
    FHF_END = -1,     // a walk has no more entries
};

// A row's lock byte. Its address is the handle that releases a held row.
using fhf_lock_t = std::atomic<uint8_t>;
static_assert(sizeof(fhf_lock_t) == 1);

struct fhf_table_t {
    uint64_t table_size;                                   // rows, a power of two, at least 1
    uint32_t key_size;                                     // bytes, at least 1
    uint32_t data_size;                                    // bytes, at least 1
    uint8_t *keys;                                         // owned; guarded by the rows' locks
    uint8_t *data;                                         // owned; guarded by the rows' locks
    uint8_t *free_flags;                                   // owned; guarded by the rows' locks
    fhf_lock_t *locks;                                     // owned
    uint64_t (*hash)(const uint8_t *, uint32_t, uint64_t); // chosen by key_size
    std::atomic<uint64_t> *tags; // owned; written under the row's lock, read without
};

struct fhf_iter_t {
    fhf_table_t *table; // borrowed
    int64_t row;        // of the current entry, whose row is held; -1 before the first, -2 after the last
    int32_t slot;       // within the row; -1 before the first, -2 after the last
    uint8_t *key;       // inside the table, or null
    uint8_t *data;      // inside the table, or null
};

constexpr int64_t FHF_BEFORE_FIRST = -1;
constexpr int64_t FHF_AFTER_LAST = -2;

// An iterator in the caller's memory, before the first entry: for walks that must not fail. Not for
// fhf_destroy_iter; a walk that ends early releases its row with fhf_reinit_iter.
inline fhf_iter_t fhf_begin(fhf_table_t *table)
{
    return {table, FHF_BEFORE_FIRST, static_cast<int32_t>(FHF_BEFORE_FIRST), nullptr, nullptr};
}

// Index of the lowest clear bit of a flag byte from 0 to 254. A full row has no clear
// bit and is never looked up.
KS_EXPORT const uint8_t fhf_lt_free_flag[255];
// 2 to the power i.
KS_EXPORT const uint8_t fhf_lt_pow_of_two[8];

// A new table, empty and unlocked. Null, with nothing allocated, when a size is 0, table_size is no power of
// two or memory is short. Released with fhf_destroy.
KS_EXPORT fhf_table_t *fhf_init(uint64_t table_size, uint32_t key_size, uint32_t data_size);
// Release a table of fhf_init that no thread uses any more. Not null.
KS_EXPORT void fhf_destroy(fhf_table_t *table);
// Remove every entry, row by row.
KS_EXPORT void fhf_clear(fhf_table_t *table);

// A walk: rows ascending, slots ascending; the row of the current entry is held. An iterator left on an entry
// holds its row until fhf_destroy_iter or fhf_reinit_iter. Null for a null table or without memory.
KS_EXPORT fhf_iter_t *fhf_init_iter(fhf_table_t *table);
KS_EXPORT void fhf_reinit_iter(fhf_iter_t *iter);
KS_EXPORT void fhf_destroy_iter(fhf_iter_t *iter);

// Row locks. The analysis cannot follow them: which lock is taken depends on the key.
inline void fhf_lock_row(fhf_lock_t *lock)
{
    int spins = 0;
    while (lock->exchange(1, std::memory_order_seq_cst) != 0) {
        while (lock->load(std::memory_order_relaxed) != 0) {
            spin_pause(&spins); // the holder may be preempted
        }
    }
}

// Release the row of this handle. A full fence: every thread sees the work done under
// the row before anything that follows.
inline void fhf_unlock(fhf_lock_t *lock)
{
    lock->store(0, std::memory_order_seq_cst);
}

// Where a key belongs: its row and its tag, both from one hash.
struct fhf_place_t {
    uint64_t row;
    uint8_t tag; // never 0
};

inline fhf_place_t fhf_place_of_hash(const fhf_table_t *table, uint64_t hash)
{
    const auto tag = static_cast<uint8_t>(hash >> 56); // the row takes the lowest bits
    return {hash & (table->table_size - 1), static_cast<uint8_t>(tag == 0 ? 1 : tag)};
}

// In a table of 16-byte keys.
inline fhf_place_t fhf_place_of_16(const fhf_table_t *table, const void *key)
{
    return fhf_place_of_hash(
        table, fhf_hash_16(static_cast<const uint8_t *>(key), reinterpret_cast<uint64_t>(table)));
}

inline fhf_place_t fhf_place_of(const fhf_table_t *table, const void *key)
{
    if (table->key_size == FHF_ADDRESS_SIZE) {
        return fhf_place_of_16(table, key);
    }
    const auto *bytes = static_cast<const uint8_t *>(key);
    return fhf_place_of_hash(table, table->hash(bytes, table->key_size, reinterpret_cast<uint64_t>(table)));
}

// The top bit of every byte of the row's tag word that equals the tag; bytes above a
// match may be marked falsely.
inline uint64_t fhf_tag_matches(const fhf_table_t *table, fhf_place_t place)
{
    constexpr uint64_t ONES = 0x0101010101010101U;
    const uint64_t tags = table->tags[place.row].load(std::memory_order_acquire);
    const uint64_t difference = tags ^ (ONES * place.tag);
    return (difference - ONES) & ~difference & (ONES << 7);
}

inline bool fhf_key_equal(const fhf_table_t *table, uint64_t number, const void *key)
{
    if (table->key_size == FHF_ADDRESS_SIZE) {
        return std::memcmp(table->keys + number * FHF_ADDRESS_SIZE, key, FHF_ADDRESS_SIZE) == 0;
    }
    return std::memcmp(table->keys + number * table->key_size, key, table->key_size) == 0;
}

// The slot of the key in its held row; -1 when it is absent.
inline int fhf_find_slot(const fhf_table_t *table, fhf_place_t place, const void *key)
{
    const uint8_t flags = table->free_flags[place.row];
    for (uint64_t marks = fhf_tag_matches(table, place); marks != 0; marks &= marks - 1) {
        const int slot = std::countr_zero(marks) / 8;
        if ((flags & fhf_lt_pow_of_two[slot]) != 0 &&
            fhf_key_equal(table, place.row * FHF_ROW_SLOTS + static_cast<uint64_t>(slot), key)) {
            return slot;
        }
    }
    return -1;
}

// Store the tag of one slot of a held row; 0 frees it.
inline void fhf_set_tag(fhf_table_t *table, uint64_t row, int slot, uint8_t tag)
{
    const uint64_t tags = table->tags[row].load(std::memory_order_relaxed);
    const uint64_t cleared = tags & ~(uint64_t{0xFF} << (8 * slot));
    table->tags[row].store(cleared | uint64_t{tag} << (8 * slot), std::memory_order_seq_cst);
}

inline void fhf_free_slot(fhf_table_t *table, uint64_t row, int slot)
{
    table->free_flags[row] = static_cast<uint8_t>(table->free_flags[row] & ~fhf_lt_pow_of_two[slot]);
    fhf_set_tag(table, row, slot, 0);
}

// Copy key and data in. FHF_REFUSED, with the table unchanged, when the key is
// present already or its row is full.
[[nodiscard]] inline int fhf_insert(fhf_table_t *table, const void *key, const void *data)
{
    const fhf_place_t place = fhf_place_of(table, key);
    fhf_lock_t *lock = &table->locks[place.row];
    fhf_lock_row(lock);
    const uint8_t flags = table->free_flags[place.row];
    if (fhf_find_slot(table, place, key) >= 0 || flags == FHF_ROW_FULL) {
        fhf_unlock(lock);
        return FHF_REFUSED;
    }
    const uint8_t slot = fhf_lt_free_flag[flags];
    const uint64_t number = place.row * FHF_ROW_SLOTS + slot;
    std::memcpy(table->keys + number * table->key_size, key, table->key_size);
    std::memcpy(table->data + number * table->data_size, data, table->data_size);
    table->free_flags[place.row] = static_cast<uint8_t>(flags + fhf_lt_pow_of_two[slot]);
    fhf_set_tag(table, place.row, slot, place.tag);
    fhf_unlock(lock);
    return FHF_OK;
}

// False: the key is not in the table. True: it may be; fhf_get_placed_locked decides.
// Takes no lock and writes nothing.
inline bool fhf_may_hold(const fhf_table_t *table, fhf_place_t place)
{
    return fhf_tag_matches(table, place) != 0;
}

// Look up a key whose place is known. The data of its entry, with the row held and its handle
// in *lock; or null with the row released.
inline void *fhf_get_placed_locked(fhf_table_t *table, fhf_place_t place, const void *key, fhf_lock_t **lock)
{
    fhf_lock_row(&table->locks[place.row]);
    const int slot = fhf_find_slot(table, place, key);
    if (slot < 0) {
        table->locks[place.row].store(0, std::memory_order_release); // nothing changed: no fence
        return nullptr;
    }
    *lock = &table->locks[place.row];
    return table->data + (place.row * FHF_ROW_SLOTS + static_cast<uint64_t>(slot)) * table->data_size;
}

// Look up a key, as fhf_get_placed_locked. The tags usually show that a key is absent, without the lock.
inline void *fhf_get_data_locked(fhf_table_t *table, const void *key, fhf_lock_t **lock)
{
    const fhf_place_t place = fhf_place_of(table, key);
    return fhf_may_hold(table, place) ? fhf_get_placed_locked(table, place, key, lock) : nullptr;
}

// Remove the key from the row that the handle of fhf_get_data_locked holds. The row is released in every
// case. FHF_REFUSED when the key belongs to another row or is absent.
[[nodiscard]] inline int fhf_remove_locked(fhf_table_t *table, const void *key, fhf_lock_t *lock)
{
    const fhf_place_t place = fhf_place_of(table, key);
    const int slot = lock == &table->locks[place.row] ? fhf_find_slot(table, place, key) : -1;
    if (slot >= 0) {
        fhf_free_slot(table, place.row, slot);
    }
    fhf_unlock(lock);
    return slot >= 0 ? FHF_OK : FHF_REFUSED;
}

// Move to the lowest occupied slot above `above` of a held row; false when there is none.
inline bool fhf_iter_enter(fhf_iter_t *iter, int64_t row, int above)
{
    const fhf_table_t *table = iter->table;
    const unsigned rest = table->free_flags[row] & (~0U << (above + 1));
    if (rest == 0) {
        return false;
    }
    iter->row = row;
    iter->slot = std::countr_zero(rest);
    const uint64_t number = static_cast<uint64_t>(row) * FHF_ROW_SLOTS + static_cast<uint64_t>(iter->slot);
    iter->key = table->keys + number * table->key_size;
    iter->data = table->data + number * table->data_size;
    return true;
}

// Step to the next entry. FHF_OK: key and data are set and the entry's row is held.
// FHF_END: no more entries, no row held.
[[nodiscard]] inline int fhf_get_next(fhf_iter_t *iter)
{
    if (iter->row == FHF_AFTER_LAST) {
        return FHF_END;
    }
    if (iter->row >= 0) {
        if (fhf_iter_enter(iter, iter->row, iter->slot)) {
            return FHF_OK;
        }
        fhf_unlock(&iter->table->locks[iter->row]);
    }
    for (int64_t row = iter->row + 1; row < static_cast<int64_t>(iter->table->table_size); row++) {
        fhf_lock_row(&iter->table->locks[row]);
        if (fhf_iter_enter(iter, row, -1)) {
            return FHF_OK;
        }
        fhf_unlock(&iter->table->locks[row]);
    }
    iter->row = FHF_AFTER_LAST;
    iter->slot = static_cast<int32_t>(FHF_AFTER_LAST);
    iter->key = nullptr;
    iter->data = nullptr;
    return FHF_END;
}

// Remove the current entry of the iterator. Its row stays held, and the walk continues after it.
inline void fhf_remove_iter(fhf_iter_t *iter)
{
    if (iter->row < 0 || (iter->table->free_flags[iter->row] & fhf_lt_pow_of_two[iter->slot]) == 0) {
        return;
    }
    fhf_free_slot(iter->table, static_cast<uint64_t>(iter->row), iter->slot);
    iter->key = nullptr;
    iter->data = nullptr;
}
