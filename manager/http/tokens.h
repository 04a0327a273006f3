// The tokens that open the interface, as a file has them: lines NAME ROLE TOKEN, '#' begins a comment line. Tokens are
// held as SHA-256 only, so that no dump of this memory shows one.
//
// Threads: a table never changes once it is made; a reload makes another.
#pragma once

#include "http/message.h"

#include <array>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace kestrune::manager {

class token_table_t {
public:
    // Reads the file, which must be a regular one of this user, of mode 0600 or less. Throws std::runtime_error: one
    // line with file and line number, never with a token.
    static std::shared_ptr<const token_table_t> read(const std::string &path);

    // Name and role of a token; nothing for a wrong one. Takes the same time for every token.
    struct owner_t {
        std::string name;
        role_t role;
    };
    const owner_t *find(std::string_view token) const;

    // Names and roles in the file's order, for the audit.
    std::string names() const;

private:
    using digest_t = std::array<unsigned char, 32>;
    struct entry_t {
        owner_t owner;
        digest_t digest;
    };
    void add_line(const std::string &line, const std::string &place);

    std::vector<entry_t> entries_;
};

// Makes the file with one admin token of 256 random bits, mode 0600, durably. False when it is there already. Throws
// std::runtime_error.
bool make_token_file(const std::string &path);

// The token of the file's highest role, for a link that a person opens; empty: there is none. Does not ask whose the file
// is: who can read it may use it. Throws std::runtime_error.
std::string best_token(const std::string &path);

// SHA-256 as hexadecimal digits.
std::string sha256_hex(const std::string &text);

// `bytes` random ones as hexadecimal digits. Throws std::runtime_error.
std::string random_hex(size_t bytes);

} // namespace kestrune::manager
