// The archive: raw files become sealed ones, sealed ones are read and deleted. docs/manager.md has the steps.
//
//   DIRECTORY/DATE/ULID/   ULID.pcapng, summary.json, manifest.json; tombstone.json once deleted. DATE is the id's.
//
// Threads: seal, remove_raw, find, bury, raw_files and measure belong to the keeper; reading is for any.
// Errors: archive_error_t. Nothing here knows the catalogue.
#pragma once

#include "config/settings.h"
#include "model/capture.h"
#include "model/receipt.h"

#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace kestrune::manager {

enum class archive_failure_t : uint8_t {
    FULL,        // no room on the disk
    UNREADABLE,  // a raw directory or file cannot be read
    INTERRUPTED, // by `stop`
    BUSY,        // being read
    MISSING,
    BROKEN, // anything else
};

class archive_error_t : public std::runtime_error {
public:
    archive_error_t(archive_failure_t failure, const std::string &text)
        : std::runtime_error(text), failure_(failure)
    {
    }
    archive_failure_t failure() const { return failure_; }

private:
    archive_failure_t failure_;
};

// A sealed capture as its manifest says.
struct sealed_t {
    file_t file;
    std::string manifest_sha256;
    uint64_t sealed_at = 0;
    std::vector<part_t> parts; // of the capture, with the counts of the files
};

// A regular file ULID_* directly in a probe's directory.
struct raw_file_t {
    std::string probe;
    std::string name;
    ulid_t id;
    uint64_t bytes = 0;
    uint64_t mtime_ns = 0;
};

// What is being read is not deleted; lives as long as the reading. `fd` is owned.
class reading_t {
public:
    virtual ~reading_t() = default;
    virtual int fd() const = 0;
    virtual uint64_t size() const = 0;
};

class archive_t {
public:
    virtual ~archive_t() = default;
    virtual void configure(const archive_settings_t &settings,
                           const std::vector<probe_settings_t> &probes) = 0;

    // Steps 1 to 8. `stop` is asked at each packet or so; true ends it with INTERRUPTED. It may call raw_files and
    // measure, so that a long sealing does not hold up what watches the disk.
    virtual sealed_t seal(const capture_t &capture, const std::function<bool()> &stop) = 0;
    // Step 10; files that changed or are to be kept stay. True when none of the manifest's is left but kept ones.
    virtual bool remove_raw(const ulid_t &id) = 0;
    // The manifest of an earlier life, its files compared with it (length and hash). Nothing when there is none.
    virtual std::optional<sealed_t> find(const ulid_t &id) = 0;
    // Names of raw files that the manifest has; empty when there is none.
    virtual std::vector<std::string> sources(const ulid_t &id, const std::string &probe) = 0;
    // Tombstone (`cause`, `at`), then the files go. BUSY while one is being read. Again after a crash: the same.
    virtual void bury(const ulid_t &id, const std::string &cause, uint64_t at) = 0;
    // Any thread. A reading may begin right afterwards; bury then says BUSY.
    virtual bool is_read(const ulid_t &id) const = 0;
    // All raw files of a probe. UNREADABLE when its directory cannot be read.
    virtual std::vector<raw_file_t> raw_files(const std::string &probe) = 0;
    // Room on all file systems involved. `sealed_bytes` from the catalogue, `raw_bytes` as last listed.
    virtual archive_view_t measure(uint64_t sealed_bytes, uint64_t sealed_count, uint64_t oldest,
                                   uint64_t raw_bytes) = 0;

    virtual std::unique_ptr<reading_t> open_pcap(const ulid_t &id) = 0; // MISSING
    virtual std::string manifest_text(const ulid_t &id) = 0;            // also of a deleted one; MISSING
    virtual std::string summary_text(const ulid_t &id) = 0;             // MISSING
};

std::unique_ptr<archive_t> make_archive(const archive_settings_t &settings,
                                        const std::vector<probe_settings_t> &probes);

} // namespace kestrune::manager
