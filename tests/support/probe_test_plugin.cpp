// A process plugin that writes down what the probe hands to it. Its parameters:
//   out=PATH   one line per packet goes to PATH.<queue>: source, destination, length, timestamp, flow
//              counter, hash of the bytes
//   refuse=1   start fails
#include "common/export.h"
#include "common/host_interface.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cinttypes>
#include <cstdio>
#include <memory>
#include <pthread.h>
#include <string>
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

struct instance_t {
    FILE *file = nullptr;
    pthread_t thread = 0; // of the first packet
    bool threaded = false;
};

struct root_t {
    std::vector<instance_t> instances;
};

std::string address_text(const uint8_t *bytes, size_t size, int family)
{
    std::vector<uint8_t> network(bytes, bytes + size);
    std::reverse(network.begin(), network.end());
    char text[INET6_ADDRSTRLEN] = "";
    inet_ntop(family, network.data(), text, sizeof text);
    return text;
}

// FNV-1a, 64 bits.
uint64_t hash(const uint8_t *data, size_t size)
{
    uint64_t value = 0xCBF29CE484222325;
    for (size_t i = 0; i < size; i++) {
        value = (value ^ data[i]) * 0x100000001B3;
    }
    return value;
}

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
    auto root = std::make_unique<root_t>();
    root->instances.resize(static_cast<size_t>(queue_count));
    for (size_t i = 0; out != nullptr && i < root->instances.size(); i++) {
        root->instances[i].file = std::fopen((std::string(out) + "." + std::to_string(i)).c_str(), "we");
    }
    if (verbose_level >= 1) {
        verbose_msg(1, 1, "witness: started with %d queues", queue_count);
    }
    return root.release();
}

void *plugin_process_init_queue(void *root, int32_t index)
{
    return &static_cast<root_t *>(root)->instances[static_cast<size_t>(index)];
}

int plugin_process_filter()
{
    return 0;
}

void plugin_process_update(void *data, const host_flow_t *flow, const host_packet_t *packet)
{
    auto *instance = static_cast<instance_t *>(data);
    if (!instance->threaded) {
        instance->thread = pthread_self();
        instance->threaded = true;
    }
    if (instance->file == nullptr) {
        return;
    }
    const host_header_t *header = packet->header;
    const bool v4 = header->ip_version == 4;
    const std::string src = v4 ? address_text(header->addr.ipv4.src, 4, AF_INET)
                               : address_text(header->addr.ipv6.src, 16, AF_INET6);
    const std::string dst = v4 ? address_text(header->addr.ipv4.dst, 4, AF_INET)
                               : address_text(header->addr.ipv6.dst, 16, AF_INET6);
    std::fprintf(instance->file, "%s %s %u %" PRIu64 " %u %016" PRIx64 "%s\n", src.c_str(), dst.c_str(),
                 packet->length, header->timestamp, flow->packets, hash(packet->data, packet->length),
                 pthread_equal(instance->thread, pthread_self()) != 0 ? "" : " foreign-thread");
}

int plugin_process_shutdown(void *data)
{
    const std::unique_ptr<root_t> root(static_cast<root_t *>(data));
    for (const instance_t &instance : root->instances) {
        if (instance.file != nullptr) {
            std::fclose(instance.file);
        }
    }
    return 0;
}
