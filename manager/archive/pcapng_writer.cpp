#include "archive/pcapng_writer.h"

#include <cstring>

namespace kestrune::manager {

namespace {

template <typename number_t>
void put(std::string *block, number_t value)
{
    block->append(reinterpret_cast<const char *>(&value), sizeof value);
}

struct packet_header_t {
    uint32_t type;
    uint32_t length;
    uint32_t interface;
    uint32_t time_high;
    uint32_t time_low;
    uint32_t captured_length;
    uint32_t full_length;
};
static_assert(sizeof(packet_header_t) + sizeof(uint32_t) == pcapng::PACKET_OVERHEAD);

constexpr size_t OPTION_MAX = 65535;

} // namespace

void pcapng_writer_t::begin(uint32_t type)
{
    block_.clear();
    put(&block_, type);
    put(&block_, uint32_t{0}); // the length, known at the end
}

void pcapng_writer_t::option(uint16_t code, std::string_view value)
{
    value = value.substr(0, OPTION_MAX);
    put(&block_, code);
    put(&block_, static_cast<uint16_t>(value.size()));
    block_ += value;
    block_.resize(pcapng::padded(block_.size()));
}

void pcapng_writer_t::option_number(uint16_t code, uint64_t value)
{
    option(code, {reinterpret_cast<const char *>(&value), sizeof value});
}

void pcapng_writer_t::option_time(uint16_t code, uint64_t ns)
{
    option_number(code, ns << 32 | ns >> 32); // high half first
}

void pcapng_writer_t::end()
{
    put(&block_, uint32_t{pcapng::END});
    const auto length = static_cast<uint32_t>(block_.size() + sizeof(uint32_t));
    put(&block_, length);
    std::memcpy(block_.data() + sizeof(uint32_t), &length, sizeof length);
    output_->append(block_.data(), block_.size());
}

void pcapng_writer_t::section(std::string_view comment, std::string_view application)
{
    begin(pcapng::SECTION);
    put(&block_, pcapng::BYTE_ORDER_MARK);
    put(&block_, uint16_t{1}); // version 1.0
    put(&block_, uint16_t{0});
    put(&block_, UINT64_MAX); // the section's length is not told
    option(pcapng::COMMENT, comment);
    option(pcapng::SECTION_APPLICATION, application);
    end();
}

void pcapng_writer_t::interface(std::string_view name, uint32_t snap_length)
{
    begin(pcapng::INTERFACE);
    put(&block_, pcapng::LINK_ETHERNET);
    put(&block_, uint16_t{0});
    put(&block_, snap_length);
    option(pcapng::INTERFACE_NAME, name);
    option(pcapng::INTERFACE_RESOLUTION, {reinterpret_cast<const char *>(&pcapng::NANOSECONDS), 1});
    end();
}

void pcapng_writer_t::packet(const record_t &record)
{
    const size_t data_size = pcapng::padded(record.captured);
    const size_t size = pcapng::PACKET_OVERHEAD + data_size;
    const packet_header_t header = {
        .type = pcapng::PACKET,
        .length = static_cast<uint32_t>(size),
        .interface = record.origin,
        .time_high = static_cast<uint32_t>(record.time_ns >> 32),
        .time_low = static_cast<uint32_t>(record.time_ns),
        .captured_length = record.captured,
        .full_length = record.length,
    };
    uint8_t *at = output_->reserve(size);
    std::memcpy(at, &header, sizeof header);
    at += sizeof header;
    if (data_size != record.captured) {
        std::memset(at + data_size - sizeof(uint32_t), 0, sizeof(uint32_t)); // the padding
    }
    std::memcpy(at, record.data, record.captured);
    std::memcpy(at + data_size, &header.length, sizeof header.length);
    output_->commit(size);
}

void pcapng_writer_t::statistics(const interface_statistics_t &statistics)
{
    begin(pcapng::STATISTICS);
    put(&block_, statistics.interface);
    put(&block_, static_cast<uint32_t>(statistics.at_ns >> 32));
    put(&block_, static_cast<uint32_t>(statistics.at_ns));
    if (statistics.start_ns != 0) {
        option_time(pcapng::STATISTICS_START, statistics.start_ns);
    }
    if (statistics.end_ns != 0) {
        option_time(pcapng::STATISTICS_END, statistics.end_ns);
    }
    if (statistics.received) {
        option_number(pcapng::STATISTICS_RECEIVED, *statistics.received);
    }
    if (statistics.interface_drops) {
        option_number(pcapng::STATISTICS_INTERFACE_DROPS, *statistics.interface_drops);
    }
    if (statistics.kernel_drops) {
        option_number(pcapng::STATISTICS_KERNEL_DROPS, *statistics.kernel_drops);
    }
    end();
}

} // namespace kestrune::manager
