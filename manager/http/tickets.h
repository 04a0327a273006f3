// Tickets: each opens one capture's file for five minutes, in place of a token. They are held as SHA-256.
//
// Threads: any.
#pragma once

#include "model/ids.h"
#include "model/lock.h"

#include <array>
#include <chrono>
#include <map>
#include <optional>
#include <string>
#include <string_view>

namespace kestrune::manager {

class tickets_t {
public:
    // At most this many; the oldest goes for a new one.
    static constexpr size_t MOST = 4096;

    // `who` made it, and is the one who downloads with it. Throws std::runtime_error.
    std::string make(const ulid_t &id, const std::string &who);
    // The one who made it; nothing unless it opens this capture now.
    std::optional<std::string> owner(std::string_view ticket, const ulid_t &id) const;

private:
    using digest_t = std::array<unsigned char, 32>;
    struct ticket_t {
        ulid_t id;
        std::string who;
        std::chrono::steady_clock::time_point until;
    };
    static digest_t digest_of(std::string_view ticket);

    mutable lock_t lock_;
    std::map<digest_t, ticket_t> tickets_ KS_GUARDED_BY(lock_);
};

} // namespace kestrune::manager
