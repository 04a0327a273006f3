#include "probe/capture_file.h"

#include "common/clock.h"
#include "probe/error.h"
#include "probe/log.h"

#include <cstdio>

namespace probe {
namespace {

pcap_t *open_file(const std::string &path, pipe_input_t *pipe)
{
    char error[PCAP_ERRBUF_SIZE] = "";
    pcap_t *pcap = nullptr;
    if (pipe == nullptr) {
        pcap = pcap_open_offline_with_tstamp_precision(path.c_str(), PCAP_TSTAMP_PRECISION_NANO, error);
    } else {
        FILE *stream = pipe->stream();
        pcap = pcap_fopen_offline_with_tstamp_precision(stream, PCAP_TSTAMP_PRECISION_NANO, error);
        if (pcap == nullptr) {
            fclose(stream);
        }
    }
    if (pcap == nullptr) {
        const std::string text = error;
        // libpcap begins some of its texts with the file's name.
        throw error_t("cannot read " + (text.starts_with(path + ": ") ? text : path + ": " + text));
    }
    return pcap;
}

std::unique_ptr<pipe_input_t> open_pipe(const std::string &path, const stop_event_t &stop,
                                        packet_sink_t *sink)
{
    return is_pipe(path) ? std::make_unique<pipe_input_t>(path, stop, sink) : nullptr;
}

// One file of one pass.
class file_replay_t {
public:
    file_replay_t(const std::string &path, const stop_event_t &stop, reader_counters_t *counters,
                  packet_sink_t *sink)
        : file_(path, stop, sink), reader_(file_.link_type(), counters, sink), stop_(stop), sink_(sink)
    {
    }

    capture_file_t::result_t run(replay_clock_t *clock)
    {
        clock->file_begins();
        captured_t captured = {};
        capture_file_t::result_t result = capture_file_t::result_t::END;
        while (!stop_.requested() && (result = file_.next(&captured)) == capture_file_t::result_t::PACKET) {
            const replay_clock_t::due_t due = clock->next(captured.timestamp_ns);
            if (!wait_for(due)) {
                break;
            }
            reader_.read(captured.data, captured.size, due.timestamp_ns);
        }
        return stop_.requested() ? capture_file_t::result_t::END : result;
    }

private:
    bool wait_for(const replay_clock_t::due_t &due)
    {
        if (due.monotonic_ns == 0 || due.monotonic_ns <= monotonic_now_ns()) {
            return true;
        }
        sink_->flush();
        return stop_.sleep_until(due.monotonic_ns);
    }

    capture_file_t file_;
    frame_reader_t reader_;
    const stop_event_t &stop_;
    packet_sink_t *sink_; // borrowed
};

// Null when a stop came before the file's link type.
std::unique_ptr<file_replay_t> open_replay(const std::string &path, const stop_event_t &stop,
                                           reader_counters_t *counters, packet_sink_t *sink)
{
    try {
        return std::make_unique<file_replay_t>(path, stop, counters, sink);
    } catch (const error_t &) {
        if (stop.requested()) {
            return nullptr;
        }
        throw;
    }
}

} // namespace

capture_file_t::capture_file_t(const std::string &path) : capture_file_t(path, nullptr) {}

capture_file_t::capture_file_t(const std::string &path, const stop_event_t &stop, packet_sink_t *sink)
    : capture_file_t(path, open_pipe(path, stop, sink))
{
}

capture_file_t::capture_file_t(const std::string &path, std::unique_ptr<pipe_input_t> pipe)
    : path_(path), pipe_(std::move(pipe)), pcap_(open_file(path, pipe_.get()), &pcap_close)
{
    link_type_ = link_type_of(pcap_datalink(pcap_.get()), path);
}

capture_file_t::result_t capture_file_t::next(captured_t *out)
{
    pcap_pkthdr *header = nullptr;
    const u_char *data = nullptr;
    const int status = pcap_next_ex(pcap_.get(), &header, &data);
    if (status == PCAP_ERROR_BREAK) { // libpcap's code for the end of a file
        return result_t::END;
    }
    if (status != 1) {
        if (pipe_) {
            pipe_->rethrow();
        }
        FILE *stream = pcap_file(pcap_.get());
        if (feof(stream) != 0 && ferror(stream) == 0) {
            return result_t::CUT;
        }
        throw error_t(path_ + " is damaged: " + pcap_geterr(pcap_.get()));
    }
    // With nanosecond precision tv_usec holds nanoseconds.
    const uint64_t seconds = static_cast<uint64_t>(header->ts.tv_sec);
    *out = {data, header->caplen, seconds * NS_PER_S + static_cast<uint64_t>(header->ts.tv_usec)};
    return result_t::PACKET;
}

void replay_files(const replay_options_t &options, const stop_event_t &stop, reader_counters_t *counters,
                  packet_sink_t *sink)
{
    replay_clock_t clock({options.speed, options.passes != 1, options.rebase}, wall_now_ns, monotonic_now_ns);
    for (uint64_t pass = 0; options.passes == 0 || pass < options.passes; pass++) {
        const uint64_t read_before = counters->read.get();
        for (const std::string &path : options.files) {
            const auto replay = open_replay(path, stop, counters, sink);
            if (replay && replay->run(&clock) == capture_file_t::result_t::CUT && pass == 0) {
                log_warning("%s ends in a cut record; read up to it", path.c_str());
            }
        }
        if (stop.requested() || counters->read.get() == read_before) { // without packets the passes never end
            break;
        }
    }
}

} // namespace probe
