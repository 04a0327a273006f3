// SHA-256 (FIPS 180-4) of bytes that come in pieces, by libcrypto, which uses the processor's instructions for it.
#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>

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

std::string sha256_hex(std::string_view bytes);

} // namespace kestrune::manager
