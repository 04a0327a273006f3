#include "http/tokens.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <openssl/crypto.h>
#include <openssl/sha.h>
#include <sstream>
#include <stdexcept>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

namespace kestrune::manager {
namespace {

constexpr size_t FILE_MAX = size_t{1024} * 1024; // bytes
constexpr size_t NAME_MAX_SIZE = 63;
constexpr size_t TOKEN_MIN = 20;
constexpr size_t TOKEN_MAX = 256;
constexpr size_t MADE_TOKEN_BYTES = 32;

constexpr std::string_view ALPHANUMERIC = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789";

struct descriptor_t {
    int fd;
    explicit descriptor_t(int given) : fd(given) {}
    ~descriptor_t()
    {
        if (fd >= 0) {
            close(fd);
        }
    }
    descriptor_t(const descriptor_t &) = delete;
    descriptor_t &operator=(const descriptor_t &) = delete;
};

[[noreturn]] void fail(const std::string &path, const std::string &what)
{
    throw std::runtime_error(path + ": " + what);
}

[[noreturn]] void fail_errno(const std::string &path)
{
    fail(path, std::strerror(errno));
}

bool consists_of(std::string_view text, std::string_view others, size_t least, size_t most)
{
    const std::string allowed = std::string(ALPHANUMERIC) + std::string(others);
    return text.size() >= least && text.size() <= most &&
           text.find_first_not_of(allowed) == std::string_view::npos;
}

role_t parse_role(const std::string &text)
{
    return text == "read"     ? role_t::READ
           : text == "record" ? role_t::RECORD
           : text == "admin"  ? role_t::ADMIN
                              : role_t::NONE;
}

void check_private(int fd, const std::string &path)
{
    struct stat status = {};
    if (fstat(fd, &status) != 0) {
        fail_errno(path);
    }
    if (!S_ISREG(status.st_mode)) {
        fail(path, "is no regular file");
    }
    if (status.st_uid != geteuid()) {
        fail(path, "belongs to another user; it must be of the one who runs the manager");
    }
    if ((status.st_mode & 077) != 0) {
        fail(path, "others may read it; use chmod 600");
    }
    if (static_cast<uint64_t>(status.st_size) > FILE_MAX) {
        fail(path, "is larger than 1 MiB");
    }
}

std::string read_all(int fd, const std::string &path)
{
    std::string text(FILE_MAX + 1, '\0');
    size_t size = 0;
    while (size < text.size()) {
        const ssize_t got = ::read(fd, text.data() + size, text.size() - size);
        if (got < 0) {
            fail_errno(path);
        }
        if (got == 0) {
            break;
        }
        size += static_cast<size_t>(got);
    }
    text.resize(size);
    return text;
}

std::string hex_of(const unsigned char *bytes, size_t size)
{
    static constexpr char DIGITS[] = "0123456789abcdef";
    std::string text;
    for (size_t i = 0; i < size; ++i) {
        text += DIGITS[bytes[i] >> 4];
        text += DIGITS[bytes[i] & 15];
    }
    return text;
}

void sync_folder_of(const std::string &path)
{
    const std::string folder = std::filesystem::path(path).parent_path().string();
    const descriptor_t directory(
        open(folder.empty() ? "." : folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (directory.fd < 0 || fsync(directory.fd) != 0) {
        fail_errno(path);
    }
}

} // namespace

std::shared_ptr<const token_table_t> token_table_t::read(const std::string &path)
{
    const descriptor_t file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
    if (file.fd < 0) {
        fail_errno(path);
    }
    check_private(file.fd, path);
    auto table = std::make_shared<token_table_t>();
    std::istringstream lines(read_all(file.fd, path));
    unsigned number = 0;
    for (std::string line; std::getline(lines, line);) {
        table->add_line(line, path + ":" + std::to_string(++number));
    }
    if (table->entries_.empty()) {
        fail(path, "has no token; remove the file, and one is made");
    }
    return table;
}

void token_table_t::add_line(const std::string &line, const std::string &place)
{
    std::istringstream words(line);
    std::string name;
    std::string role_name;
    std::string token;
    std::string more;
    words >> name >> role_name >> token >> more;
    if (name.empty() || name[0] == '#') {
        return;
    }
    if (token.empty() || !more.empty()) {
        fail(place, "a line is NAME ROLE TOKEN");
    }
    if (!consists_of(name, "._-", 1, NAME_MAX_SIZE)) {
        fail(place, "a name has 1 to 63 characters of A-Z a-z 0-9 . _ -");
    }
    const role_t role = parse_role(role_name);
    if (role == role_t::NONE) {
        fail(place, "the role is read, record or admin");
    }
    if (!consists_of(token, "._~+/=-", TOKEN_MIN, TOKEN_MAX)) {
        fail(place, "a token has 20 to 256 characters of A-Z a-z 0-9 . _ ~ + / = -");
    }
    if (find(token) != nullptr) {
        fail(place, "the token stands in a line before");
    }
    entry_t entry = {{name, role}, {}};
    SHA256(reinterpret_cast<const unsigned char *>(token.data()), token.size(), entry.digest.data());
    entries_.push_back(entry);
}

const token_table_t::owner_t *token_table_t::find(std::string_view token) const
{
    digest_t digest = {};
    SHA256(reinterpret_cast<const unsigned char *>(token.data()), token.size(), digest.data());
    const owner_t *found = nullptr;
    for (const entry_t &entry : entries_) { // every one, so that the time tells nothing
        if (CRYPTO_memcmp(entry.digest.data(), digest.data(), digest.size()) == 0) {
            found = &entry.owner;
        }
    }
    return found;
}

std::string token_table_t::names() const
{
    static constexpr const char *ROLES[] = {"none", "read", "record", "admin"};
    std::string text;
    for (const entry_t &entry : entries_) {
        text.append(text.empty() ? "" : ", ").append(entry.owner.name).append(" (");
        text.append(ROLES[static_cast<size_t>(entry.owner.role)]).append(")");
    }
    return text;
}

bool make_token_file(const std::string &path)
{
    const descriptor_t file(open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0600));
    if (file.fd < 0 && errno == EEXIST) {
        return false;
    }
    if (file.fd < 0) {
        fail_errno(path);
    }
    const std::string text =
        "# NAME ROLE TOKEN; see manager.toml(5)\nadmin admin " + random_hex(MADE_TOKEN_BYTES) + "\n";
    if (write(file.fd, text.data(), text.size()) != static_cast<ssize_t>(text.size()) ||
        fsync(file.fd) != 0) {
        const int error = errno;
        unlink(path.c_str()); // half a file would open nothing and stay
        errno = error;
        fail_errno(path);
    }
    sync_folder_of(path);
    return true;
}

std::string best_token(const std::string &path)
{
    const descriptor_t file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
    if (file.fd < 0) {
        fail_errno(path);
    }
    std::istringstream lines(read_all(file.fd, path));
    std::string best;
    role_t best_role = role_t::NONE;
    for (std::string line; std::getline(lines, line);) {
        std::istringstream words(line);
        std::string name;
        std::string role_name;
        std::string token;
        words >> name >> role_name >> token;
        const role_t role = name.starts_with('#') ? role_t::NONE : parse_role(role_name);
        if (role > best_role) {
            best = token;
            best_role = role;
        }
    }
    return best;
}

std::string sha256_hex(const std::string &text)
{
    std::array<unsigned char, SHA256_DIGEST_LENGTH> digest = {};
    SHA256(reinterpret_cast<const unsigned char *>(text.data()), text.size(), digest.data());
    return hex_of(digest.data(), digest.size());
}

std::string random_hex(size_t bytes)
{
    std::vector<unsigned char> random(bytes);
    if (getrandom(random.data(), random.size(), 0) != static_cast<ssize_t>(random.size())) {
        throw std::runtime_error(std::string("random numbers: ") + std::strerror(errno));
    }
    return hex_of(random.data(), random.size());
}

} // namespace kestrune::manager
