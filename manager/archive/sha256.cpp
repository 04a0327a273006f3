#include "archive/sha256.h"

#include <array>
#include <new>
#include <openssl/evp.h>

namespace kestrune::manager {

void sha256_t::free_t::operator()(evp_md_ctx_st *context) const
{
    EVP_MD_CTX_free(context);
}

// The calls that follow fail on a missing context or algorithm only; both are excluded here.
sha256_t::sha256_t() : context_(EVP_MD_CTX_new())
{
    if (!context_ || EVP_DigestInit_ex(context_.get(), EVP_sha256(), nullptr) != 1) {
        throw std::bad_alloc();
    }
}

void sha256_t::add(const void *bytes, size_t size)
{
    EVP_DigestUpdate(context_.get(), bytes, size);
}

std::string sha256_t::hex()
{
    std::array<unsigned char, EVP_MAX_MD_SIZE> digest = {};
    unsigned int size = 0;
    EVP_DigestFinal_ex(context_.get(), digest.data(), &size);
    std::string text;
    for (unsigned int i = 0; i < size; i++) {
        text += "0123456789abcdef"[digest[i] >> 4];
        text += "0123456789abcdef"[digest[i] & 15];
    }
    return text;
}

side_hash_t::~side_hash_t()
{
    {
        hold_lock_t hold(lock_);
        stop_ = true;
    }
    changed_.notify_all();
    if (thread_.joinable()) {
        thread_.join();
    }
}

void side_hash_t::wait_until_free()
{
    while (!piece_.empty()) {
        changed_.wait(lock_);
    }
}

void side_hash_t::add(const void *bytes, size_t size)
{
    if (!begun_) {
        begun_ = true;
        hash_.add(bytes, size);
        return;
    }
    if (!thread_.joinable()) {
        thread_ = std::thread(&side_hash_t::run, this);
    }
    {
        hold_lock_t hold(lock_);
        wait_until_free();
        piece_ = {static_cast<const char *>(bytes), size};
    }
    changed_.notify_all();
}

std::string side_hash_t::hex()
{
    hold_lock_t hold(lock_);
    wait_until_free();
    return hash_.hex();
}

// The side thread.
void side_hash_t::run()
{
    for (;;) {
        std::string_view piece;
        {
            hold_lock_t hold(lock_);
            while (piece_.empty() && !stop_) {
                changed_.wait(lock_);
            }
            piece = piece_;
            if (piece.empty()) {
                return;
            }
        }
        hash_.add(piece.data(), piece.size());
        {
            hold_lock_t hold(lock_);
            piece_ = {};
        }
        changed_.notify_all();
    }
}

std::string sha256_hex(std::string_view bytes)
{
    sha256_t hash;
    hash.add(bytes.data(), bytes.size());
    return hash.hex();
}

} // namespace kestrune::manager
