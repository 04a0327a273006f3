// The captures whose life is not over, and what a turn of the captures thread has changed of them. A turn either
// stands as a whole, or is undone as a whole.
//
// Threads: the captures thread only.
#pragma once

#include "captures/entry.h"

#include <cstddef>
#include <cstring>
#include <map>
#include <memory>
#include <optional>
#include <unordered_map>
#include <unordered_set>
#include <vector>

namespace kestrune::manager {

struct addr_hash_t {
    size_t operator()(const ip_addr_t &addr) const noexcept
    {
        uint64_t words[2];
        std::memcpy(words, addr.bytes, sizeof words);
        return static_cast<size_t>((words[0] ^ words[1] * 0x9E3779B97F4A7C15U) * 0xFF51AFD7ED558CCDU >> 7U);
    }
};

class book_t {
public:
    entry_t *find(const ulid_t &id);
    // Ids of entries of this address, oldest first.
    const std::vector<ulid_t> &of(const ip_addr_t &addr) const;
    const std::map<ulid_t, std::unique_ptr<entry_t>> &entries() const { return entries_; } // oldest first
    size_t size() const { return entries_.size(); }

    // A capture that comes into memory: a new one (to be committed), or one that the catalogue has.
    entry_t &add(capture_t capture);
    // Before anything of an entry is changed in this turn.
    void touch(const entry_t &entry);
    // Its capture was changed and must be written. Touches it.
    void mark(const entry_t &entry);

    std::vector<const capture_t *> marked() const; // valid until the turn ends
    const std::vector<ulid_t> &marked_ids() const { return marked_; }
    std::vector<ulid_t> touched() const; // also those that came in this turn
    // Ends the turn: what was changed stands, or everything is again as it was.
    void keep();
    void undo();
    // After keep: it is no longer needed here.
    void drop(const ulid_t &id);

private:
    void unlink(const ip_addr_t &addr, const ulid_t &id);

    std::map<ulid_t, std::unique_ptr<entry_t>> entries_;
    std::unordered_map<ip_addr_t, std::vector<ulid_t>, addr_hash_t> by_addr_;
    std::unordered_map<ulid_t, std::optional<entry_t>> before_; // nothing: it came in this turn
    std::vector<ulid_t> marked_;
    std::unordered_set<ulid_t> is_marked_;
};

} // namespace kestrune::manager
