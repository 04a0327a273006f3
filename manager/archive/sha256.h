// SHA-256 (FIPS 180-4) of bytes that come in pieces, by libcrypto, which uses the processor's instructions for it.
//
// Threads: an object belongs to one thread. side_hash_t has a thread of its own inside, which it starts and ends; that
// one touches the piece that waits and the hash, nothing else. Two processors then halve the time of a sealing, since
// hashing takes as long as everything else.
#pragma once

#include "model/lock.h"

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>
#include <thread>

struct evp_md_ctx_st;

namespace kestrune::manager {

class sha256_t {
public:
    sha256_t(); // throws std::bad_alloc
    void add(const void *bytes, size_t size);
    // 64 hexadecimal digits. Nothing may be added afterwards.
    std::string hex();

private:
    struct free_t {
        void operator()(evp_md_ctx_st *context) const;
    };
    std::unique_ptr<evp_md_ctx_st, free_t> context_;
};

// The same beside the caller's own work.
class side_hash_t {
public:
    side_hash_t() = default;
    ~side_hash_t();
    side_hash_t(const side_hash_t &) = delete;
    side_hash_t &operator=(const side_hash_t &) = delete;

    // The bytes are borrowed until the next call returns: use two buffers in turn. The first piece is hashed at once,
    // so that small files need no thread. Throws std::system_error when the thread cannot be started.
    void add(const void *bytes, size_t size);
    std::string hex();

private:
    void run();
    void wait_until_free() KS_REQUIRES(lock_);

    std::thread thread_;
    bool begun_ = false;
    sha256_t hash_; // of the thread while a piece waits, else of the caller
    lock_t lock_;
    condition_t changed_;
    std::string_view piece_ KS_GUARDED_BY(lock_); // empty: none waits
    bool stop_ KS_GUARDED_BY(lock_) = false;
};

std::string sha256_hex(std::string_view bytes);

} // namespace kestrune::manager
