// The text of manifest.json and tombstone.json (docs/openapi.yaml: manifest), and what is read out of them.
//
// The last key of a manifest is "checksum": the SHA-256 of all bytes before the comma in front of it. So a changed
// byte is found without the log, which has the hash of the whole manifest. A tombstone has the manifest's bytes in it.
#pragma once

#include "model/receipt.h"

#include <stdexcept>
#include <string>
#include <string_view>

namespace kestrune::manager {

constexpr const char *MANIFEST_NAME = "manifest.json";
constexpr const char *SUMMARY_NAME = "summary.json";
constexpr const char *TOMBSTONE_NAME = "tombstone.json";
constexpr size_t MANIFEST_SIZE_MAX = size_t{64} << 20; // bytes; 4,160 raw files make some MiB

// Its text is a sentence.
class manifest_error_t : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

std::string manifest_text(const manifest_t &manifest);
// Checks the checksum first. Throws manifest_error_t.
manifest_t parse_manifest(std::string_view text);

struct tombstone_t {
    std::string cause;
    uint64_t at = 0;
    std::string manifest; // its text
};
std::string tombstone_text(const tombstone_t &tombstone, const ulid_t &id);
tombstone_t parse_tombstone(std::string_view text); // throws manifest_error_t

// The counts of packets that were found in the files, summed over a part's sources.
uint64_t found_packets(const manifest_part_t &part, bool live);

} // namespace kestrune::manager
