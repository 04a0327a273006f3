#include "archive/file_io.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>

namespace kestrune::manager {

namespace {

constexpr uint64_t FLUSH_STEP = uint64_t{16} << 20; // bytes

} // namespace

fd_t::~fd_t()
{
    if (fd_ >= 0) {
        close(fd_);
    }
}

void fail_errno(const std::string &what)
{
    throw std::system_error(errno, std::generic_category(), what);
}

fd_t open_file(int directory, const std::filesystem::path &path)
{
    // Without O_NONBLOCK a pipe of this name would block.
    fd_t fd(openat(directory, path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
    struct stat status = {};
    if (fd.get() < 0 || fstat(fd.get(), &status) != 0) {
        fail_errno(path);
    }
    if (!S_ISREG(status.st_mode)) {
        errno = EINVAL;
        fail_errno(path.string() + " is no regular file");
    }
    return fd;
}

fd_t open_directory(const std::filesystem::path &path)
{
    fd_t fd(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_DIRECTORY));
    if (fd.get() < 0) {
        fail_errno(path);
    }
    return fd;
}

size_t read_fully(int fd, void *bytes, size_t size, const std::string &what)
{
    size_t done = 0;
    while (done < size) {
        const ssize_t got = read(fd, static_cast<uint8_t *>(bytes) + done, size - done);
        if (got < 0 && errno != EINTR) {
            fail_errno(what);
        }
        if (got == 0) {
            break;
        }
        done += got > 0 ? static_cast<size_t>(got) : 0;
    }
    return done;
}

std::string read_whole(const std::filesystem::path &path, size_t most)
{
    const fd_t fd = open_file(AT_FDCWD, path);
    struct stat status = {};
    if (fstat(fd.get(), &status) != 0) {
        fail_errno(path);
    }
    if (static_cast<uint64_t>(status.st_size) > most) {
        errno = EFBIG;
        fail_errno(path);
    }
    std::string text(static_cast<size_t>(status.st_size), '\0');
    text.resize(read_fully(fd.get(), text.data(), text.size(), path));
    return text;
}

void sync_directory(const std::filesystem::path &path)
{
    const fd_t fd = open_directory(path);
    if (fsync(fd.get()) != 0) {
        fail_errno(path);
    }
}

output_t::output_t(std::filesystem::path path, bool hashed)
    : path_(std::move(path)),
      fd_(open(path_.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, 0640)),
      buffer_(std::make_unique_for_overwrite<uint8_t[]>(BUFFER_SIZE)),
      hash_(hashed ? std::make_unique<side_hash_t>() : nullptr)
{
    if (fd_.get() < 0) {
        fail_errno(path_);
    }
}

void output_t::append(const void *bytes, size_t size)
{
    for (size_t done = 0; done < size;) {
        const size_t step = std::min(size - done, BUFFER_SIZE);
        std::memcpy(reserve(step), static_cast<const uint8_t *>(bytes) + done, step);
        commit(step);
        done += step;
    }
}

void output_t::flush()
{
    if (hash_ && fill_ > 0) {
        hash_->add(buffer_.get(), fill_);
    }
    for (size_t done = 0; done < fill_;) {
        const ssize_t wrote = write(fd_.get(), buffer_.get() + done, fill_ - done);
        if (wrote < 0 && errno != EINTR) {
            fail_errno(path_);
        }
        done += wrote > 0 ? static_cast<size_t>(wrote) : 0;
    }
    written_ += fill_;
    fill_ = 0;
    if (hash_) {
        std::swap(buffer_, hashed_); // that one was hashed when the next was taken
        if (!buffer_) {
            buffer_ = std::make_unique_for_overwrite<uint8_t[]>(BUFFER_SIZE);
        }
    }
    if (written_ - flushing_ >= FLUSH_STEP) { // the disk works while we do; the result does not matter here
        sync_file_range(fd_.get(), static_cast<off64_t>(flushing_),
                        static_cast<off64_t>(written_ - flushing_), SYNC_FILE_RANGE_WRITE);
        flushing_ = written_;
    }
}

void output_t::sync()
{
    flush();
    if (fsync(fd_.get()) != 0) {
        fail_errno(path_);
    }
}

std::string output_t::hex()
{
    flush();
    return hash_->hex();
}

void write_whole(const std::filesystem::path &path, std::string_view text)
{
    output_t output(path, false);
    output.append(text.data(), text.size());
    output.sync();
}

} // namespace kestrune::manager
