// A process plugin that records what the probe hands to it. Its parameters:
//   out=PATH   a record_t per packet and the packet's bytes go to PATH.<queue>
//   refuse=1   start fails
#include "common/export.h"
#include "common/host_interface.h"

#include <cstring>
#include <fstream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

KS_EXPORT int32_t vantor_api_version;
KS_EXPORT int32_t plugin_type;
KS_EXPORT const plugin_desc_t *plugin_process_desc();
KS_EXPORT void *plugin_process_init(const char *params, void *x, void *y, int32_t queue_count);
KS_EXPORT void *plugin_process_init_queue(void *root, int32_t index);
KS_EXPORT int plugin_process_filter();
KS_EXPORT void plugin_process_update(void *data, const host_flow_t *flow, const host_packet_t *packet);
KS_EXPORT int plugin_process_shutdown(void *data);
int32_t vantor_api_version = 4;
int32_t plugin_type = 4;

namespace {

struct record_t {
    uint64_t timestamp;
    uint32_t flow_packets;
    uint16_t length;
    uint8_t ip_version;
    uint8_t foreign_thread; // 1: not the thread of the queue's first packet
    uint8_t src[16], dst[16];
};
static_assert(sizeof(record_t) == 48);

struct instance_t {
    std::ofstream file{};
    std::thread::id thread{}; // of the first packet
};

using root_t = std::vector<instance_t>;

} // namespace

const plugin_desc_t *plugin_process_desc()
{
    static const plugin_desc_t description = {"witness", "out=<path>  refuse=<0-1>", 0, 4};
    return &description;
}

void *plugin_process_init(const char *params, void * /*x*/, void * /*y*/, int32_t queue_count)
{
    char *out = nullptr;
    int32_t refuse = 0;
    config_option_t options[] = {{"out", &out, CONFIG_STRING, 0},
                                 {"refuse", &refuse, CONFIG_INT, 0},
                                 {nullptr, nullptr, CONFIG_END, 0}};
    if (config_set_values(params, options) != 0 || refuse != 0) {
        return nullptr;
    }
    auto root = std::make_unique<root_t>(static_cast<size_t>(queue_count));
    for (size_t i = 0; out != nullptr && i < root->size(); i++) {
        (*root)[i].file.open(std::string(out) + "." + std::to_string(i), std::ios::binary);
    }
    if (verbose_level >= 1) {
        verbose_msg(1, 1, "witness: started with %d queues", queue_count);
    }
    return root.release();
}

void *plugin_process_init_queue(void *root, int32_t index)
{
    return &(*static_cast<root_t *>(root))[static_cast<size_t>(index)];
}

int plugin_process_filter()
{
    return 0;
}

void plugin_process_update(void *data, const host_flow_t *flow, const host_packet_t *packet)
{
    auto *instance = static_cast<instance_t *>(data);
    if (instance->thread == std::thread::id()) {
        instance->thread = std::this_thread::get_id();
    }
    const host_header_t *header = packet->header;
    const bool foreign = instance->thread != std::this_thread::get_id();
    record_t record = {header->timestamp, flow->packets, packet->length, header->ip_version, foreign, {}, {}};
    const bool v4 = header->ip_version == 4;
    std::memcpy(record.src, v4 ? header->addr.ipv4.src : header->addr.ipv6.src, v4 ? 4 : 16);
    std::memcpy(record.dst, v4 ? header->addr.ipv4.dst : header->addr.ipv6.dst, v4 ? 4 : 16);
    instance->file.write(reinterpret_cast<const char *>(&record), sizeof record);
    instance->file.write(reinterpret_cast<const char *>(packet->data), packet->length);
}

int plugin_process_shutdown(void *data)
{
    delete static_cast<root_t *>(data);
    return 0;
}
