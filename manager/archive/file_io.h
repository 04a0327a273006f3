// Files of the archive: descriptors, an output that is hashed as it is written, and what a crash must not undo.
// Errors throw std::system_error with the path.
#pragma once

#include "archive/sha256.h"

#include <cstdint>
#include <filesystem>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>

namespace kestrune::manager {

class fd_t {
public:
    fd_t() = default;
    explicit fd_t(int fd) : fd_(fd) {}
    fd_t(fd_t &&other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    fd_t &operator=(fd_t &&other) noexcept
    {
        std::swap(fd_, other.fd_);
        return *this;
    }
    ~fd_t();
    int get() const { return fd_; }

private:
    int fd_ = -1;
};

// Long work was asked to end.
class stopped_t : public std::runtime_error {
public:
    stopped_t() : std::runtime_error("stopped") {}
};

[[noreturn]] void fail_errno(const std::string &what);

// A regular file for reading, without following a link at its end. `directory` may be AT_FDCWD.
fd_t open_file(int directory, const std::filesystem::path &path);
fd_t open_directory(const std::filesystem::path &path);
// Up to `size` bytes, fewer only at the end of the file.
size_t read_fully(int fd, void *bytes, size_t size, const std::string &what);
std::string read_whole(const std::filesystem::path &path, size_t most);
// What was created, renamed or unlinked in a directory reaches the disk.
void sync_directory(const std::filesystem::path &path);

// A new file of mode 0640, written through a buffer. It replaces what a dead attempt left there.
class output_t {
public:
    output_t(std::filesystem::path path, bool hashed);

    // Room for at most OUTPUT_RESERVE bytes; what is not committed was not written.
    uint8_t *reserve(size_t size)
    {
        if (fill_ + size > BUFFER_SIZE) {
            flush();
        }
        return buffer_.get() + fill_;
    }
    void commit(size_t size) { fill_ += size; }
    void append(const void *bytes, size_t size);

    void flush();
    void sync();       // flush, and to the disk
    std::string hex(); // of all that was written; ends the hashing
    uint64_t size() const { return written_ + fill_; }
    int fd() const { return fd_.get(); }
    const std::filesystem::path &path() const { return path_; }

    static constexpr size_t BUFFER_SIZE = size_t{256} << 10;

private:
    std::filesystem::path path_;
    fd_t fd_;
    std::unique_ptr<uint8_t[]> buffer_;
    std::unique_ptr<uint8_t[]> hashed_; // the one before, which may still be hashed
    size_t fill_ = 0;
    uint64_t written_ = 0;
    uint64_t flushing_ = 0;             // bytes whose way to the disk was begun
    std::unique_ptr<side_hash_t> hash_; // ends before the buffers do
};

// Writes and syncs a whole small file.
void write_whole(const std::filesystem::path &path, std::string_view text);

} // namespace kestrune::manager
