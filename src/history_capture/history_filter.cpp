#include "history_capture/history_filter.h"

#include "common/log.h"
#include "common/thread.h"
#include "storage/pcap_writer.h"

#include <unistd.h>

namespace {

// Write the record with this header at p to the rule's file, in two pieces where it is split. When the disk
// took only part of a record, the file ends there. Failures are logged.
void write_record(const history_capture_t *hc, const hc_record_header_t *header, uint64_t p, hc_rule_t *rule)
    KS_REQUIRES_SHARED(hc->state_lock)
{
    const int fd = rule->fd;
    const uint64_t begin = p + HC_RECORD_HEADER;
    const uint32_t length = header->length;
    int result = -1; // behind a torn record; and a damaged length may exceed a tiny ring: no such data
    if (rule->torn == 0 && begin + length <= hc->size) {
        result = write_pcap_packet(fd, hc->buffer + begin, length, header->timestamp);
    } else if (rule->torn == 0 && length <= hc->size) {
        const auto before_end = static_cast<uint32_t>(hc->size - begin);
        result = write_pcap_divided_packet(fd, hc->buffer + begin, before_end, hc->buffer,
                                           length - before_end, length, header->timestamp);
    }
    if (result == 0) {
        rule->file_size += PCAP_RECORD_HEADER_SIZE + length;
        return;
    }
    rule->torn = lseek(fd, 0, SEEK_CUR) != static_cast<off_t>(rule->file_size) ? 1 : 0;
    KS_ERROR("kestrune: History_capture: Slow search: Packet was not stored to file.");
    KS_ERROR("kestrune: history_capture: It was not possible to write the packet into the file.");
}

// Offer the record to the rule of one of its addresses. The rule's row is held while the record is written.
bool filter_side(const history_capture_t *hc, fhf_table_t *table, uint64_t p, const ip_addr_t *ip,
                 uint8_t side) KS_REQUIRES_SHARED(hc->state_lock)
{
    const fhf_place_t place = fhf_place_of(table, ip);
    if (!fhf_may_hold(table, place)) {
        return false;
    }
    const hc_record_header_t *header = hc_record_at(hc, p);
    bool written = false;
    const int cancel_state = thread_cancel_suspend(); // the host's packet thread must not die with a row
    fhf_lock_t *row = nullptr;
    auto *rule = static_cast<hc_rule_t *>(fhf_get_placed_locked(table, place, ip, &row));
    if (rule != nullptr) {
        if ((rule->direction == side || rule->direction == BOTH) && rule->time >= header->time) {
            write_record(hc, header, p, rule);
            rule->packets++;
            written = true;
        }
        fhf_unlock(row);
    }
    thread_cancel_restore(cancel_state);
    return written;
}

} // namespace

int32_t hc_filter_ip(history_capture_t *hc, fhf_table_t *table, uint64_t p)
{
    const hc_record_header_t *header = hc_record_at(hc, p);
    if (header->testing_value != HC_TESTING_VALUE) {
        KS_ERROR("kestrune: History_capture: hc_filter_ip function - Testing value not correct");
    }
    const bool as_source = filter_side(hc, table, p, &header->src_ip, SRC);
    const bool as_destination = filter_side(hc, table, p, &header->dst_ip, DST);
    return as_source || as_destination ? HC_WRITTEN : HC_NOT_WRITTEN;
}
