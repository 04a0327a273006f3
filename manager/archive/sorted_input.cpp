#include "archive/sorted_input.h"

#include "common/clock.h"
#include "storage/pcap_writer.h"

#include <algorithm>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

namespace kestrune::manager {

namespace {

struct raw_header_t {
    uint32_t seconds;
    uint32_t nanoseconds;
    uint32_t captured;
    uint32_t length;
};
static_assert(sizeof(raw_header_t) == PCAP_RECORD_HEADER_SIZE);
static_assert(CAPTURED_MAX == PCAP_SNAPLEN);

constexpr size_t RUN_HEADER_SIZE = sizeof(raw_header_t) + sizeof(uint32_t);
constexpr uint32_t RAW_MAGIC = 0xa1b23c4d;
constexpr size_t HEADROOM =
    RUN_HEADER_SIZE + CAPTURED_MAX; // a record less one byte lies before a chunk at most
constexpr size_t CHUNK_MIN = size_t{64} << 10;
constexpr size_t CHUNK_MAX = size_t{512} << 10;
constexpr unsigned CHUNK_BITS = 16;

// Nothing that a probe writes; zeros are what a file system leaves behind a power failure.
bool is_plausible(const raw_header_t &header)
{
    return header.nanoseconds < NS_PER_S && header.captured <= CAPTURED_MAX &&
           header.captured <= header.length && header.length > 0;
}

} // namespace

void sorted_input_t::pile_t::push(const entry_t &entry)
{
    if (empty()) {
        entries.clear();
        head = 0;
    } else if (entries.size() == entries.capacity() && head > entries.size() / 2) {
        entries.erase(entries.begin(), entries.begin() + static_cast<ptrdiff_t>(head));
        head = 0;
    }
    entries.push_back(entry);
}

sorted_input_t::sorted_input_t(fd_t fd, std::string what, std::optional<uint32_t> origin, size_t window)
    : fd_(std::move(fd)), what_(std::move(what)), origin_(origin),
      header_size_(origin ? sizeof(raw_header_t) : RUN_HEADER_SIZE),
      chunk_size_(std::clamp(window / 8, CHUNK_MIN, CHUNK_MAX)), piles_(1)
{
    const size_t count = std::clamp<size_t>(window / chunk_size_, 2, (size_t{1} << CHUNK_BITS) - 1);
    chunks_.resize(count);
    for (size_t i = count; i > 0; i--) {
        free_.push_back(static_cast<uint16_t>(i - 1));
    }
    posix_fadvise(fd_.get(), 0, 0, POSIX_FADV_SEQUENTIAL);
}

const uint8_t *sorted_input_t::address(uint64_t place) const
{
    const chunk_t &chunk = chunks_[place & ((1U << CHUNK_BITS) - 1)];
    return chunk.memory.get() + HEADROOM - chunk.offset + (place >> CHUNK_BITS);
}

sorted_input_t::step_t sorted_input_t::next()
{
    release();
    fill();
    if (disorder_) {
        return step_t::DISORDER;
    }
    return take_first() ? step_t::RECORD : step_t::END;
}

bool sorted_input_t::begin_piece()
{
    release();
    left_ns_ = 0;
    fill();
    return !piles_.front().empty();
}

bool sorted_input_t::next_of_piece()
{
    release();
    return take_first();
}

void sorted_input_t::fill()
{
    while (!free_.empty() && !at_end_) {
        const uint16_t index = free_.back();
        free_.pop_back();
        load(index);
        if (chunks_[index].records == 0) {
            free_.push_back(index);
        }
    }
}

// The begin of a record that the chunk before cut off goes in front of what is read.
void sorted_input_t::load(uint16_t index)
{
    chunk_t &chunk = chunks_[index];
    if (!chunk.memory) {
        chunk.memory = std::make_unique_for_overwrite<uint8_t[]>(HEADROOM + chunk_size_);
    }
    uint8_t *data = chunk.memory.get() + HEADROOM;
    if (carry_size_ > 0) {
        std::memmove(data - carry_size_, carry_, carry_size_);
    }
    if (read_ == 0 && lseek(fd_.get(), 0, SEEK_SET) != 0) {
        fail_errno(what_);
    }
    const size_t got = read_fully(fd_.get(), data, chunk_size_, what_);
    const uint8_t *begin = data - carry_size_;
    const uint8_t *end = data + got;
    chunk.offset = read_;
    if (origin_ && read_ == 0) {
        begin = check_header(begin, end);
    }
    read_ += got;
    at_end_ = at_end_ || got < chunk_size_;
    const uint8_t *rest = parse(index, begin, end);
    carry_ = rest;
    carry_size_ = end_ == input_end_t::DAMAGED ? 0 : static_cast<size_t>(end - rest);
    if (at_end_ && carry_size_ > 0) {
        end_ = input_end_t::TORN;
    }
}

const uint8_t *sorted_input_t::check_header(const uint8_t *at, const uint8_t *end)
{
    uint32_t magic = 0;
    if (end - at < static_cast<ptrdiff_t>(PCAP_HEADER_SIZE)) {
        end_ = input_end_t::TORN;
        return end;
    }
    std::memcpy(&magic, at, sizeof magic);
    if (magic != RAW_MAGIC) {
        end_ = input_end_t::DAMAGED;
        at_end_ = true;
        return end;
    }
    return at + PCAP_HEADER_SIZE;
}

// Returns the end of the last whole record.
const uint8_t *sorted_input_t::parse(uint16_t index, const uint8_t *at, const uint8_t *end)
{
    chunk_t &chunk = chunks_[index];
    const uint8_t *data = chunk.memory.get() + HEADROOM;
    while (static_cast<size_t>(end - at) >= header_size_) {
        raw_header_t header;
        std::memcpy(&header, at, sizeof header);
        if (!is_plausible(header)) {
            end_ = input_end_t::DAMAGED;
            at_end_ = true;
            break;
        }
        if (static_cast<size_t>(end - at) < header_size_ + header.captured) {
            break;
        }
        const uint64_t offset = chunk.offset + static_cast<uint64_t>(at - data);
        insert({header.seconds * NS_PER_S + header.nanoseconds, offset << CHUNK_BITS | index});
        chunk.records++;
        packets_++;
        at += header_size_ + header.captured;
    }
    return at;
}

void sorted_input_t::insert(const entry_t &entry)
{
    disorder_ = disorder_ || entry.time_ns < left_ns_;
    for (pile_t &pile : piles_) {
        if (pile.empty() || pile.entries.back().time_ns <= entry.time_ns) {
            pile.push(entry);
            return;
        }
    }
    piles_.emplace_back().push(entry);
}

// Empty piles are the last ones, since the newest times descend.
bool sorted_input_t::take_first()
{
    pile_t *first = &piles_.front();
    if (first->empty()) {
        return false;
    }
    for (size_t i = 1; i < piles_.size(); i++) {
        if (piles_[i].front() < first->front()) {
            first = &piles_[i];
        }
    }
    const entry_t entry = first->front();
    first->head++;
    while (piles_.size() > 1 && piles_.back().empty()) {
        piles_.pop_back();
    }
    left_ns_ = entry.time_ns;
    const uint8_t *at = address(entry.place);
    raw_header_t header;
    std::memcpy(&header, at, sizeof header);
    record_ = {entry.time_ns, at + header_size_, header.captured, header.length, origin_.value_or(0)};
    if (!origin_) {
        std::memcpy(&record_.origin, at + sizeof header, sizeof record_.origin);
    }
    record_chunk_ = static_cast<uint16_t>(entry.place);
    return true;
}

void sorted_input_t::release()
{
    if (record_chunk_) {
        if (--chunks_[*record_chunk_].records == 0) {
            free_.push_back(*record_chunk_);
        }
        record_chunk_.reset();
    }
}

namespace {

std::filesystem::path run_path(const std::filesystem::path &directory)
{
    return directory / "merge.run";
}

} // namespace

run_writer_t::run_writer_t(const std::filesystem::path &directory) : output_(run_path(directory), false)
{
    reader_ = open_file(AT_FDCWD, run_path(directory));
    unlink(run_path(directory).c_str());
}

void run_writer_t::add(const record_t &record)
{
    const raw_header_t header = {static_cast<uint32_t>(record.time_ns / NS_PER_S),
                                 static_cast<uint32_t>(record.time_ns % NS_PER_S), record.captured,
                                 record.length};
    uint8_t *at = output_.reserve(RUN_HEADER_SIZE + record.captured);
    std::memcpy(at, &header, sizeof header);
    std::memcpy(at + sizeof header, &record.origin, sizeof record.origin);
    std::memcpy(at + RUN_HEADER_SIZE, record.data, record.captured);
    output_.commit(RUN_HEADER_SIZE + record.captured);
}

fd_t run_writer_t::finish()
{
    output_.flush();
    return std::move(reader_);
}

} // namespace kestrune::manager
