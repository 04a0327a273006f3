// The catalogue: captures, audit and kept answers in SQLite (WAL).
//
// Threads: one writer (commit, lock held for the transaction with its fsync); any number of readers, four at a
// time, who wait for a free connection. All functions but the constructors of readers block on the disk.
// Errors: catalogue_error_t.
#pragma once

#include "model/capture.h"

#include <array>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <unordered_map>
#include <vector>

namespace kestrune::manager {

enum class catalogue_failure_t : uint8_t {
    NEWER,  // of a newer version
    LOCKED, // another manager has it
    DAMAGED,
    FULL,   // the disk
    BROKEN, // any other failure of reading or writing
};

class catalogue_error_t : public std::runtime_error {
public:
    catalogue_error_t(catalogue_failure_t failure, const std::string &text)
        : std::runtime_error(text), failure_(failure)
    {
    }
    catalogue_failure_t failure() const { return failure_; }

private:
    catalogue_failure_t failure_;
};

enum class durability_t : uint8_t {
    ORDERLY, // not lost by a crash of the process, perhaps by one of the machine; never out of order
    DURABLE, // on the disk on return
};

// Whole captures, written over what is there; borrowed for the call.
struct changes_t {
    std::vector<const capture_t *> captures;
    std::vector<audit_t> audit;
    std::vector<kept_answer_t> kept_answers;
    bool empty() const { return captures.empty() && audit.empty() && kept_answers.empty(); }
};

struct totals_t {
    std::array<uint64_t, CAPTURE_STATE_COUNT> by_state = {}; // indexed by capture_state_t
    uint64_t sealed_bytes = 0;                               // of those that are sealed now
    uint64_t sealed_bytes_ever = 0;                          // also of those deleted since
    uint64_t deleted_bytes_ever = 0;
    uint64_t leaving_bytes = 0; // of those that are deleted, but whose files are still there
    uint64_t oldest_sealed = 0; // requested_at; 0: none
};

// A sealed capture without a hold.
struct candidate_t {
    ulid_t id;
    uint64_t requested_at = 0;
    uint64_t sealed_at = 0;
    uint64_t bytes = 0;
};

struct audit_page_t {
    std::vector<audit_t> audit;
    uint64_t next = 0; // 0: the last page
};

constexpr uint64_t KEY_KEPT_NS = 86'400'000'000'000; // a day

class catalogue_t {
public:
    virtual ~catalogue_t() = default;
    // All or nothing, in one transaction; nothing, DURABLE, shows whether the disk takes anything. Forgets kept answers that are older than a day now and then.
    virtual void commit(const changes_t &changes, durability_t durability) = 0;

    virtual std::optional<capture_t> find(const ulid_t &id) = 0;
    virtual std::vector<capture_t>
    find_all(const std::vector<ulid_t> &ids) = 0; // in this order, unknown ones left out
    virtual capture_page_t
    query(const capture_query_t &query) = 0; // throws std::invalid_argument for a bad cursor
    // All that need the captures thread: not over, waiting for sealing, or deleted with files still there.
    virtual std::vector<capture_t> unfinished() = 0;
    // States of these; unknown ids are left out.
    virtual std::unordered_map<ulid_t, capture_state_t> states(const std::vector<ulid_t> &ids) = 0;
    virtual std::vector<candidate_t> oldest_sealed(size_t most) = 0; // by requested_at
    virtual std::vector<ulid_t> expired_lookups(uint64_t now,
                                                size_t most) = 0; // over, no hold, lookup_until before now
    virtual std::optional<kept_answer_t> kept_answer(const std::string &who, const std::string &key,
                                                     uint64_t now) = 0;
    virtual audit_page_t audit(uint64_t before, uint32_t limit) = 0; // before 0: from the newest
    virtual totals_t totals() = 0;
    virtual ulid_t newest_id() = 0; // zero without captures
};

// Opens or makes FILE, mode 0600, and locks it against other managers.
std::unique_ptr<catalogue_t> open_catalogue(const std::filesystem::path &file);

} // namespace kestrune::manager
