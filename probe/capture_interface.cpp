#include "probe/capture_interface.h"

#include "common/clock.h"
#include "probe/error.h"
#include "probe/log.h"

#include <cerrno>
#include <cstring>
#include <exception>
#include <linux/if_packet.h>
#include <poll.h>
#include <sys/socket.h>

namespace probe {
namespace {

constexpr int SNAP_LENGTH = 65535;     // the most that a packet record can hold
constexpr int READ_TIMEOUT_MS = 10;    // longest wait of a packet in the kernel's block
constexpr int DISPATCH_PACKETS = 1024; // between two checks of the stop event
constexpr int POLL_TIMEOUT_MS = 250;   // age of the drop counter on a quiet interface

pcap_t *create(const std::string &name)
{
    char error[PCAP_ERRBUF_SIZE] = "";
    pcap_t *pcap = pcap_create(name.c_str(), error);
    if (pcap == nullptr) {
        throw error_t("cannot capture on " + name + ": " + error);
    }
    return pcap;
}

std::string activation_error(pcap_t *pcap, const std::string &name, int status)
{
    if (status == PCAP_ERROR_PERM_DENIED || status == PCAP_ERROR_PROMISC_PERM_DENIED) {
        return "permission denied; root or CAP_NET_RAW is needed";
    }
    if (status == PCAP_ERROR_NO_SUCH_DEVICE) {
        return "no such interface; set another with --interface ('ip link' lists them)";
    }
    if (status == PCAP_ERROR_IFACE_NOT_UP) {
        return "the interface is not up; 'ip link set " + name + " up' changes that";
    }
    return status == PCAP_ERROR ? pcap_geterr(pcap) : pcap_statustostr(status);
}

// The state that libpcap's callback needs. Exceptions must not pass through libpcap, which is C.
struct dispatch_t {
    pcap_t *pcap;
    frame_reader_t *reader;
    uint64_t start_ns;
    bool started; // a packet from after the start was seen; setting the clock back does no harm now
    std::exception_ptr failure;
};

void on_packet(u_char *user, const pcap_pkthdr *header, const u_char *data)
{
    auto *dispatch = reinterpret_cast<dispatch_t *>(user);
    const uint64_t timestamp_ns =
        static_cast<uint64_t>(header->ts.tv_sec) * NS_PER_S + static_cast<uint64_t>(header->ts.tv_usec);
    if (!dispatch->started && timestamp_ns < dispatch->start_ns) {
        return;
    }
    dispatch->started = true;
    try {
        dispatch->reader->read(data, header->caplen, timestamp_ns);
    } catch (...) {
        dispatch->failure = std::current_exception();
        pcap_breakloop(dispatch->pcap);
    }
}

} // namespace

interface_capture_t::interface_capture_t(const interface_options_t &options)
    : name_(options.name), pcap_(create(options.name), &pcap_close)
{
    pcap_t *pcap = pcap_.get();
    pcap_set_snaplen(pcap, SNAP_LENGTH);
    pcap_set_promisc(pcap, options.promiscuous ? 1 : 0);
    pcap_set_timeout(pcap, READ_TIMEOUT_MS);
    pcap_set_buffer_size(pcap, static_cast<int>(options.kernel_buffer_mib * 1024 * 1024));
    pcap_set_tstamp_precision(pcap, PCAP_TSTAMP_PRECISION_NANO);
    const int status = pcap_activate(pcap);
    if (status < 0) {
        throw error_t("cannot capture on " + name_ + ": " + activation_error(pcap, name_, status));
    }
    char error[PCAP_ERRBUF_SIZE] = "";
    if (pcap_get_tstamp_precision(pcap) != PCAP_TSTAMP_PRECISION_NANO) {
        throw error_t("cannot capture on " + name_ + ": it has no nanosecond timestamps");
    }
    if (pcap_setnonblock(pcap, 1, error) != 0) {
        throw error_t("cannot capture on " + name_ + ": " + error);
    }
    link_type_ = link_type_of(pcap_datalink(pcap), "interface " + name_);
}

// The first handle creates a group whose number the kernel chooses; the others join it.
void interface_capture_t::join_fanout(std::optional<uint16_t> *group)
{
    const int fd = pcap_fileno(pcap_.get());
    const int flags = PACKET_FANOUT_HASH | (group->has_value() ? 0 : PACKET_FANOUT_FLAG_UNIQUEID);
    int value = group->value_or(0) | flags << 16;
    socklen_t size = sizeof value;
    if (setsockopt(fd, SOL_PACKET, PACKET_FANOUT, &value, sizeof value) != 0 ||
        getsockopt(fd, SOL_PACKET, PACKET_FANOUT, &value, &size) != 0) {
        throw error_t("cannot share " + name_ + " between queues: " + std::strerror(errno));
    }
    *group = static_cast<uint16_t>(value & 0xFFFF);
}

std::vector<std::unique_ptr<interface_capture_t>>
interface_capture_t::open(const interface_options_t &options)
{
    std::vector<std::unique_ptr<interface_capture_t>> captures;
    std::optional<uint16_t> group;
    for (uint32_t i = 0; i < options.queue_count; i++) {
        captures.emplace_back(new interface_capture_t(options));
        captures.back()->first_ = i == 0;
        if (options.queue_count > 1) {
            captures.back()->join_fanout(&group);
        }
    }
    return captures;
}

void interface_capture_t::count_drops(reader_counters_t *counters)
{
    pcap_stat statistics = {};
    if (pcap_stats(pcap_.get(), &statistics) != 0) {
        return;
    }
    if (counting_) {
        counters->kernel_dropped.add(statistics.ps_drop - kernel_drops_);
        counters->interface_dropped.add(first_ ? statistics.ps_ifdrop - interface_drops_ : 0);
    }
    counting_ = true;
    kernel_drops_ = statistics.ps_drop;
    interface_drops_ = statistics.ps_ifdrop;
}

void interface_capture_t::run(uint64_t start_ns, const stop_event_t &stop, reader_counters_t *counters,
                              packet_sink_t *sink)
{
    frame_reader_t reader(link_type_, counters, sink);
    dispatch_t dispatch = {pcap_.get(), &reader, start_ns, false, nullptr};
    count_drops(counters);
    uint64_t counted_ns = monotonic_now_ns();
    while (!stop.requested()) {
        const int status =
            pcap_dispatch(pcap_.get(), DISPATCH_PACKETS, on_packet, reinterpret_cast<u_char *>(&dispatch));
        if (dispatch.failure) {
            std::rethrow_exception(dispatch.failure);
        }
        if (status < 0) {
            throw error_t("capturing on " + name_ + " failed: " + pcap_geterr(pcap_.get()));
        }
        if (status == 0) {
            sink->flush();
            pollfd events[] = {{pcap_get_selectable_fd(pcap_.get()), POLLIN, 0}, {stop.fd(), POLLIN, 0}};
            poll(events, 2, POLL_TIMEOUT_MS);
        }
        const uint64_t now_ns = monotonic_now_ns();
        if (now_ns - counted_ns >= POLL_TIMEOUT_MS * NS_PER_MS) {
            count_drops(counters);
            counted_ns = now_ns;
        }
    }
    count_drops(counters);
}

} // namespace probe
