#include "client/merge.h"

#include "client/error.h"
#include "common/clock.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <linux/fs.h>
#include <memory>
#include <pcap/pcap.h>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>

namespace kestrune {

namespace {

[[noreturn]] void fail(const std::string &text)
{
    throw client_error_t(failure_t::LOCAL, text);
}

[[noreturn]] void fail_errno(const std::string &text)
{
    fail(text + ": " + std::generic_category().message(errno));
}

// Where a packet is, and its time.
struct place_t {
    uint64_t time_ns;
    int64_t offset; // of its record in the file
    uint32_t input;
};

class input_t {
public:
    input_t(const std::string &path, bool cut_allowed) : path_(path), cut_allowed_(cut_allowed)
    {
        FILE *file = std::fopen(path.c_str(), "rbe");
        if (file == nullptr) {
            fail_errno(path);
        }
        std::array<char, PCAP_ERRBUF_SIZE> why = {};
        pcap_.reset(pcap_fopen_offline_with_tstamp_precision(file, PCAP_TSTAMP_PRECISION_NANO, why.data()));
        if (!pcap_) {
            std::fclose(file);
            fail(path + " is no capture file: " + why.data());
        }
    }

    const std::string &path() const { return path_; }
    int link_type() const { return pcap_datalink(pcap_.get()); }
    int snap_length() const { return pcap_snapshot(pcap_.get()); }
    int64_t offset() const { return ftello(pcap_file(pcap_.get())); }
    bool cut() const { return cut_; } // ended in a cut record

    // The next packet, valid until the next call; false at the end of the file.
    bool next(pcap_pkthdr **header, const u_char **data)
    {
        const int result = pcap_next_ex(pcap_.get(), header, data);
        if (result == PCAP_ERROR) {
            const std::string why = pcap_geterr(pcap_.get());
            cut_ = why.starts_with("truncated ");
            if (!cut_ || !cut_allowed_) {
                fail(path_ + " cannot be read to its end (" + why + ")" +
                     (cut_ ? "; if it is still being written, merge when its rule has finished; "
                             "--cut takes what stands before a cut record"
                           : ""));
            }
        }
        return result == 1;
    }

    // Does not seek while packets are read in file order.
    void move_to(int64_t offset)
    {
        if (this->offset() != offset && fseeko(pcap_file(pcap_.get()), offset, SEEK_SET) != 0) {
            fail_errno(path_);
        }
    }

private:
    struct close_t {
        void operator()(pcap_t *pcap) const { pcap_close(pcap); }
    };
    std::string path_;
    bool cut_allowed_;
    bool cut_ = false;
    std::unique_ptr<pcap_t, close_t> pcap_; // owns the stream as well
};

// A file beside the output. It takes the output's name at the end, and is deleted otherwise.
class output_t {
public:
    output_t(const std::string &path, bool overwrite) : path_(path), part_(path + ".part-XXXXXX")
    {
        if (!overwrite && access(path.c_str(), F_OK) == 0) {
            fail(path + " exists: choose another name or give --force");
        }
        const int fd = mkostemp(part_.data(), O_CLOEXEC);
        if (fd < 0) {
            fail_errno("cannot create a file beside " + path);
        }
        file_ = fdopen(fd, "wb");
        if (file_ == nullptr || fchmod(fd, 0640) != 0) {
            file_ == nullptr ? close(fd) : std::fclose(file_);
            unlink(part_.c_str());
            fail_errno(part_);
        }
        overwrite_ = overwrite;
    }
    ~output_t()
    {
        if (dumper_ != nullptr) {
            pcap_dump_close(dumper_);
        } else if (file_ != nullptr) {
            std::fclose(file_);
        }
        if (!part_.empty()) {
            unlink(part_.c_str());
        }
        if (dead_ != nullptr) {
            pcap_close(dead_);
        }
    }
    output_t(const output_t &) = delete;
    output_t &operator=(const output_t &) = delete;

    void begin(int link_type, int snap_length)
    {
        dead_ = pcap_open_dead_with_tstamp_precision(link_type, snap_length, PCAP_TSTAMP_PRECISION_NANO);
        dumper_ = dead_ != nullptr ? pcap_dump_fopen(dead_, file_) : nullptr;
        if (dumper_ == nullptr) {
            fail(path_ + " cannot be written");
        }
    }

    void write(const pcap_pkthdr *header, const u_char *data)
    {
        pcap_dump(reinterpret_cast<u_char *>(dumper_), header, data);
        if (std::ferror(file_) != 0) {
            fail_errno(path_ + " cannot be written");
        }
    }

    void finish()
    {
        if (pcap_dump_flush(dumper_) != 0 || fsync(fileno(file_)) != 0) {
            fail_errno(path_ + " cannot be written");
        }
        int failed = renameat2(AT_FDCWD, part_.c_str(), AT_FDCWD, path_.c_str(),
                               overwrite_ ? 0U : static_cast<unsigned>(RENAME_NOREPLACE));
        if (failed != 0 && errno == EINVAL && access(path_.c_str(), F_OK) != 0) {
            failed = rename(part_.c_str(), path_.c_str()); // a file system without RENAME_NOREPLACE
        }
        if (failed != 0) {
            fail_errno(path_ + " cannot be given its name");
        }
        part_.clear();
    }

private:
    std::string path_;
    std::string part_; // empty once renamed
    bool overwrite_ = false;
    FILE *file_ = nullptr; // owned by dumper_ once that is there
    pcap_t *dead_ = nullptr;
    pcap_dumper_t *dumper_ = nullptr;
};

void stop_when_asked(const merge_options_t &options)
{
    if (options.stop()) {
        throw client_error_t(failure_t::INTERRUPTED, "interrupted");
    }
}

// A pcap record has unsigned 32-bit seconds; libpcap returns them signed.
uint64_t time_of(const pcap_pkthdr &header)
{
    const auto seconds = static_cast<uint32_t>(header.ts.tv_sec);
    return seconds * NS_PER_S + static_cast<uint64_t>(header.ts.tv_usec);
}

void add_places(uint32_t index, input_t *input, const merge_options_t &options, std::vector<place_t> *places)
{
    pcap_pkthdr *header = nullptr;
    const u_char *data = nullptr;
    for (int64_t offset = input->offset(); input->next(&header, &data); offset = input->offset()) {
        stop_when_asked(options);
        places->push_back({time_of(*header), offset, index});
    }
}

std::vector<std::unique_ptr<input_t>> open_inputs(const merge_options_t &options, int *snap_length)
{
    std::vector<std::unique_ptr<input_t>> inputs;
    *snap_length = 0;
    for (const std::string &path : options.inputs) {
        inputs.push_back(std::make_unique<input_t>(path, options.cut));
        *snap_length = std::max(*snap_length, inputs.back()->snap_length());
        if (inputs.back()->link_type() != inputs.front()->link_type()) {
            fail(path + " has another link type than " + inputs.front()->path() +
                 ": they cannot be one file");
        }
    }
    if (inputs.empty()) {
        fail("there is no file to merge");
    }
    return inputs;
}

} // namespace

merge_result_t merge_files(const merge_options_t &options)
{
    int snap_length = 0;
    const std::vector<std::unique_ptr<input_t>> inputs = open_inputs(options, &snap_length);
    output_t output(options.output, options.overwrite);
    output.begin(inputs.front()->link_type(), snap_length);

    merge_result_t result;
    std::vector<place_t> places;
    for (uint32_t i = 0; i < inputs.size(); i++) {
        const size_t before = places.size();
        add_places(i, inputs[i].get(), options, &places);
        result.packets.push_back(places.size() - before);
        result.cut.push_back(inputs[i]->cut());
    }
    std::stable_sort(places.begin(), places.end(),
                     [](const place_t &a, const place_t &b) { return a.time_ns < b.time_ns; });

    for (const place_t &place : places) {
        stop_when_asked(options);
        pcap_pkthdr *header = nullptr;
        const u_char *data = nullptr;
        inputs[place.input]->move_to(place.offset);
        if (!inputs[place.input]->next(&header, &data)) {
            fail(inputs[place.input]->path() + " became shorter while it was merged");
        }
        output.write(header, data);
    }
    output.finish();
    result.total = places.size();
    result.first_ns = places.empty() ? 0 : places.front().time_ns;
    result.last_ns = places.empty() ? 0 : places.back().time_ns;
    return result;
}

} // namespace kestrune
