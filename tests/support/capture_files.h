// Capture files in tests: a directory of their own, a reader that is independent of the writer, and the
// process's open descriptors.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

// A directory that lives as long as this object.
class temp_dir_t {
public:
    temp_dir_t()
    {
        std::string name = (std::filesystem::temp_directory_path() / "kestrune-XXXXXX").string();
        path_ = mkdtemp(name.data()) != nullptr ? name : "";
    }
    ~temp_dir_t()
    {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    temp_dir_t(const temp_dir_t &) = delete;
    temp_dir_t &operator=(const temp_dir_t &) = delete;

    [[nodiscard]] std::string file(const std::string &name) const { return path_ + "/" + name; }
    [[nodiscard]] const std::string &path() const { return path_; }

private:
    std::string path_;
};

using bytes_t = std::vector<uint8_t>;

inline bytes_t file_bytes(const std::string &path)
{
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

struct pcap_record_t {
    uint64_t timestamp;   // nanoseconds
    uint32_t full_length; // of the packet before it was cut
    bytes_t data;
};

struct pcap_file_t {
    bool valid = false; // begins with a whole header of the expected kind
    size_t torn = 0;    // bytes behind the last whole record
    std::vector<pcap_record_t> records;
};

inline pcap_file_t read_pcap(const std::string &path)
{
    static constexpr uint8_t header[24] = {0x4d, 0x3c, 0xb2, 0xa1, 2,    0,    4, 0, 0, 0, 0, 0,
                                           0,    0,    0,    0,    0xff, 0xff, 0, 0, 1, 0, 0, 0};
    const bytes_t bytes = file_bytes(path);
    pcap_file_t file;
    if (bytes.size() < sizeof header || std::memcmp(bytes.data(), header, sizeof header) != 0) {
        return file;
    }
    file.valid = true;
    size_t at = sizeof header;
    while (bytes.size() - at >= 16) {
        uint32_t fields[4];
        std::memcpy(fields, &bytes[at], sizeof fields);
        if (bytes.size() - at - 16 < fields[2]) {
            break;
        }
        const auto data = bytes.begin() + static_cast<std::ptrdiff_t>(at) + 16;
        file.records.push_back(
            {uint64_t{fields[0]} * 1'000'000'000 + fields[1], fields[3], {data, data + fields[2]}});
        at += 16 + fields[2];
    }
    file.torn = bytes.size() - at;
    return file;
}

inline size_t open_descriptors()
{
    const std::filesystem::directory_iterator entries("/proc/self/fd");
    return static_cast<size_t>(std::distance(begin(entries), end(entries)));
}
