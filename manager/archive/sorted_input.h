// One input of the merge: a raw capture file of a probe (pcap with nanoseconds, see storage/pcap_writer.h), or a run
// that the merge itself wrote. Its records come out in time order, equal times in the file's order.
//
// The queues of a probe share a live file, so records lie a little out of order there. A window over the file sorts
// them: a record may come before everything else that the window holds. A record that is older than one that has left
// the window is found (DISORDER); the merge sorts such a file beforehand.
//
//   file     ... | chunk | chunk | chunk | ...        each is read by one call, and free when its records are gone
//                  \________ window ________/
//   piles    ascending times each; a record goes to the first pile whose newest one is not newer than it. A file in
//            order needs one pile, a file of n queues that are each in order about n.
//
// Memory: the window, and 16 bytes for each record in it.
#pragma once

#include "archive/file_io.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace kestrune::manager {

struct record_t {
    uint64_t time_ns = 0;          // since the epoch
    const uint8_t *data = nullptr; // `captured` bytes, valid until the input's next step
    uint32_t captured = 0;
    uint32_t length = 0; // on the wire
    uint32_t origin = 0; // number of its interface block
};

enum class input_end_t : uint8_t {
    WHOLE,  // after a whole record
    TORN,   // in the middle of a record or of the header: a full disk, a killed probe
    DAMAGED // bytes that the probe does not write; nothing behind them was read
};

constexpr uint32_t CAPTURED_MAX = 65535; // longest captured length of a probe, bytes

class sorted_input_t {
public:
    // A raw file with this origin, or without one a run. `what` names it in errors.
    sorted_input_t(fd_t fd, std::string what, std::optional<uint32_t> origin, size_t window);

    enum class step_t : uint8_t { RECORD, END, DISORDER };
    step_t next();
    const record_t &record() const { return record_; }

    // To sort a file piece by piece: fills the window, then hands out what it holds. False at the end of the file.
    bool begin_piece();
    bool next_of_piece();

    uint64_t packets() const { return packets_; } // read so far
    input_end_t end() const { return end_; }

private:
    struct chunk_t {
        std::unique_ptr<uint8_t[]> memory;
        uint64_t offset = 0;  // in the file, of the bytes behind the headroom
        uint32_t records = 0; // that were not released
    };
    // Place: offset in the file (48 bits), chunk (16 bits), so that equal times compare by offset.
    struct entry_t {
        uint64_t time_ns;
        uint64_t place;
        auto operator<=>(const entry_t &) const = default;
    };
    struct pile_t {
        std::vector<entry_t> entries;
        size_t head = 0; // of the first that is left
        bool empty() const { return head == entries.size(); }
        const entry_t &front() const { return entries[head]; }
        void push(const entry_t &entry);
    };

    void fill();
    void load(uint16_t index);
    const uint8_t *check_header(const uint8_t *at, const uint8_t *end);
    const uint8_t *parse(uint16_t index, const uint8_t *at, const uint8_t *end);
    void insert(const entry_t &entry);
    bool take_first();
    void release();
    const uint8_t *address(uint64_t place) const;

    fd_t fd_;
    const std::string what_;
    const std::optional<uint32_t> origin_;
    const size_t header_size_; // of a record
    size_t chunk_size_;
    std::vector<chunk_t> chunks_;
    std::vector<uint16_t> free_;     // chunks without records
    const uint8_t *carry_ = nullptr; // begin of the record that goes on in the next chunk
    size_t carry_size_ = 0;
    uint64_t read_ = 0; // bytes of the file
    bool at_end_ = false;
    bool disorder_ = false;
    std::vector<pile_t> piles_; // their newest times descend
    uint64_t left_ns_ = 0;      // time of the last record that left the window
    record_t record_;
    std::optional<uint16_t> record_chunk_; // to be released
    uint64_t packets_ = 0;
    input_end_t end_ = input_end_t::WHOLE;
};

// Writes a run, the other form that a sorted_input_t reads: as a raw file, without file header, each record with its
// origin. Its name is gone at once, the file with its descriptor.
class run_writer_t {
public:
    explicit run_writer_t(const std::filesystem::path &directory);
    void add(const record_t &record);
    fd_t finish(); // for reading

private:
    output_t output_;
    fd_t reader_;
};

} // namespace kestrune::manager
