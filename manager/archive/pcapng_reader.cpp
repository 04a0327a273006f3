#include "archive/pcapng_reader.h"

#include "archive/file_io.h"
#include "archive/pcapng.h"

#include <cstring>
#include <memory>
#include <string_view>

namespace kestrune::manager {

namespace {

constexpr size_t BUFFER_SIZE = 2 * size_t{pcapng::BLOCK_MAX};
constexpr uint32_t BLOCK_MIN = 12;
constexpr uint32_t INTERFACE_FIXED = 16; // bytes before the options
constexpr size_t PACKET_CAPTURED = 20;   // offset of the captured length
constexpr size_t PACKET_FIXED = 28;

uint32_t u32_at(const uint8_t *at)
{
    uint32_t value;
    std::memcpy(&value, at, sizeof value);
    return value;
}

uint16_t u16_at(const uint8_t *at)
{
    uint16_t value;
    std::memcpy(&value, at, sizeof value);
    return value;
}

class parser_t {
public:
    explicit parser_t(pcapng_content_t *content) : content_(content) {}

    // Takes the whole blocks of these bytes and returns their size.
    size_t take(const uint8_t *bytes, size_t size)
    {
        size_t at = 0;
        while (content_->wrong.empty() && size - at >= BLOCK_MIN) {
            const uint32_t length = u32_at(bytes + at + 4);
            if (length < BLOCK_MIN || length % 4 != 0 || length > pcapng::BLOCK_MAX) {
                say("the length of the block", offset_ + at);
                break;
            }
            if (size - at < length) {
                break;
            }
            if (!block(bytes + at, length)) {
                say("the block", offset_ + at);
                break;
            }
            at += length;
        }
        offset_ += at;
        return at;
    }
    void end(size_t rest)
    {
        if (content_->wrong.empty() && (rest > 0 || offset_ == 0)) {
            content_->wrong = "it ends in the middle of a block";
        }
    }

private:
    void say(const char *what, uint64_t offset)
    {
        content_->wrong = std::string(what) + " at byte " + std::to_string(offset) +
                          " is not as kestrune-manager writes it";
    }

    bool block(const uint8_t *at, uint32_t length)
    {
        if (u32_at(at + length - 4) != length) {
            return false;
        }
        const uint32_t type = u32_at(at);
        if (begun_ == (type == pcapng::SECTION)) {
            return false; // exactly one section, at the begin
        }
        begun_ = true;
        switch (type) {
        case pcapng::SECTION:
            return length >= 28 && u32_at(at + 8) == pcapng::BYTE_ORDER_MARK;
        case pcapng::INTERFACE:
            return interface(at, length);
        case pcapng::PACKET:
            return packet(at, length);
        case pcapng::STATISTICS:
            return length >= 24 && u32_at(at + 8) < content_->packets.size();
        default:
            return false;
        }
    }

    bool interface(const uint8_t *at, uint32_t length)
    {
        std::string name;
        for (uint32_t option = INTERFACE_FIXED; option + 8 <= length;) {
            const uint16_t code = u16_at(at + option);
            const uint16_t size = u16_at(at + option + 2);
            if (code == pcapng::END || option + 4 + size + 4 > length) {
                break;
            }
            if (code == pcapng::INTERFACE_NAME) {
                name.assign(reinterpret_cast<const char *>(at + option + 4), size);
            }
            option += static_cast<uint32_t>(4 + pcapng::padded(size));
        }
        content_->interfaces.push_back(name);
        content_->packets.push_back(0);
        return !name.empty();
    }

    bool packet(const uint8_t *at, uint32_t length)
    {
        if (length < pcapng::PACKET_OVERHEAD) {
            return false;
        }
        const uint32_t interface = u32_at(at + 8);
        const uint32_t captured = u32_at(at + PACKET_CAPTURED);
        if (interface >= content_->packets.size() || captured > length ||
            length < PACKET_FIXED + pcapng::padded(captured) + 4) {
            return false;
        }
        const uint64_t time_ns = uint64_t{u32_at(at + 12)} << 32 | u32_at(at + 16);
        if (time_ns < content_->last_ns) {
            return false;
        }
        if (content_->first_ns == 0) {
            content_->first_ns = time_ns;
        }
        content_->last_ns = time_ns;
        content_->packets[interface]++;
        return true;
    }

    pcapng_content_t *content_;
    uint64_t offset_ = 0; // in the file, of what comes next
    bool begun_ = false;
};

} // namespace

pcapng_content_t read_pcapng(int fd, const std::string &what, const std::function<bool()> &stop)
{
    pcapng_content_t content;
    parser_t parser(&content);
    auto buffer = std::make_unique_for_overwrite<uint8_t[]>(BUFFER_SIZE);
    auto hashed = std::make_unique_for_overwrite<uint8_t[]>(BUFFER_SIZE);
    side_hash_t hash; // of one buffer while the other is read
    size_t rest = 0;  // begin of a block that goes on
    for (;;) {
        if (stop && stop()) {
            throw stopped_t();
        }
        const size_t got = read_fully(fd, buffer.get() + rest, BUFFER_SIZE - rest, what);
        if (got > 0) {
            hash.add(buffer.get() + rest, got);
        }
        content.bytes += got;
        const size_t size = rest + got;
        const size_t taken = content.wrong.empty() ? parser.take(buffer.get(), size) : size;
        if (size < BUFFER_SIZE) {
            parser.end(size - taken);
            break;
        }
        rest = content.wrong.empty() ? size - taken : 0;
        std::memcpy(hashed.get(), buffer.get() + taken, rest);
        std::swap(buffer, hashed);
    }
    content.sha256 = hash.hex();
    return content;
}

} // namespace kestrune::manager
