#include "plugin/plugin.h"

#include "common/log.h"
#include "plugin/paths.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace {

bool start_failed = false; // the last start left its paths behind

// Parse the parameter string into the settings, *port and *script. False after logging why.
bool parse_parameters(const char *params, char **port, char **script)
{
    static char default_port[] = "37564";
    static char default_device[] = "/dev/pexacard/0";
    char *device = default_device; // accepted for compatibility and not used
    *port = default_port;
    *script = nullptr;
    config_option_t options[] = {
        {"port", port, CONFIG_STRING, 0},
        {"pexadev", &device, CONFIG_STRING, 0},
        {"capture_script", script, CONFIG_STRING, 0},
        {"export_path", &ks_exp_file_path, CONFIG_STRING, 0},
        {"verbose", &local_verbose_level, CONFIG_INT, 0},
        {"buffer_size", &default_buffer_size, CONFIG_INT, 0},
        {nullptr, nullptr, CONFIG_END, 0},
    };
    if (config_set_values(params, options) != 0) {
        KS_ERROR("kestrune: Plugin: Failed to parse input arguments");
        return false;
    }
    return true;
}

// One history capture and one instance per queue; the configured memory is divided evenly. False after
// logging that one could not be created.
bool create_queues(plugin_private_t *plugin, int32_t queue_count)
{
    const auto total = static_cast<uint64_t>(static_cast<int64_t>(default_buffer_size) << 20);
    const uint64_t ring_size = total / static_cast<uint64_t>(queue_count);
    for (int32_t i = 0; i < queue_count; i++) {
        plugin->instances[i].live = plugin->live;
        plugin->history[i] = hc_init(ring_size);
        if (plugin->history[i] == nullptr) {
            KS_ERROR("kestrune: Failed to create history buffer");
            return false;
        }
        plugin->count++;
        plugin->instances[i].history = plugin->history[i];
    }
    return true;
}

// Everything that plugin owns, in order. False after logging why; what was created stays for the teardown.
bool create_parts(plugin_private_t *plugin, const char *port, int32_t queue_count)
{
    plugin->live = lc_init();
    if (plugin->live == nullptr) {
        KS_ERROR("kestrune: Failed to create live capture filter");
        return false;
    }
    const auto count = static_cast<size_t>(queue_count);
    plugin->instances = static_cast<plugin_instance_t *>(std::calloc(count, sizeof(plugin_instance_t)));
    if (plugin->instances == nullptr) {
        KS_ERROR("kestrune: Failed to allocate prive structures for instances");
        return false;
    }
    // NOLINTNEXTLINE(bugprone-sizeof-expression): an array of pointers is what is meant
    plugin->history = static_cast<history_capture_t **>(std::calloc(count, sizeof(history_capture_t *)));
    if (plugin->history == nullptr) {
        KS_ERROR("kestrune: Failed to allocate memory for kestrune structures");
        return false;
    }
    if (!create_queues(plugin, queue_count)) {
        return false;
    }
    plugin->listener = ls_init(plugin->live, port, queue_count, plugin->history);
    if (plugin->listener == nullptr) {
        KS_ERROR("kestrune: Listener spawn failed: %s", strerror(errno));
        return false;
    }
    return true;
}

// Settings from the parameters. False after logging why.
bool prepare_settings(const char *params, int32_t queue_count, char **port)
{
    char *script = nullptr;
    if (queue_count < 1 || queue_count > MAX_QUEUES) {
        KS_ERROR("kestrune: Plugin: %d processing queues, 1 to %d are supported", queue_count, MAX_QUEUES);
        return false;
    }
    if (!parse_parameters(params, port, &script)) {
        return false;
    }
    if (host_verbose_level() > local_verbose_level) {
        local_verbose_level = host_verbose_level();
    }
    return prepare_export_path() && prepare_capture_script(script);
}

plugin_private_t *start(const char *params, int32_t queue_count)
{
    char *port = nullptr;
    if (!prepare_settings(params, queue_count, &port)) {
        return nullptr;
    }
    KS_INFO(LOG_START, "kestrune: Initializing...");
    auto *plugin = static_cast<plugin_private_t *>(std::calloc(1, sizeof(plugin_private_t)));
    if (plugin == nullptr) {
        KS_ERROR("kestrune: Failed to allocate memory in Plugin (plugin_private_t)");
        return nullptr;
    }
    KS_INFO(LOG_EVENT, "kestrune: Kestrune started");
    if (!create_parts(plugin, port, queue_count)) {
        plugin_private_destroy(plugin);
        return nullptr;
    }
    KS_INFO(LOG_START, "kestrune: Initialization done! Plugin is running...");
    return plugin;
}

// Offer a packet to the live capture and, where that did not take it and its flow is light, to the history.
// Inline, so that it is compiled once for each kind of address: the hash of an IPv4 key is half known then.
[[gnu::always_inline]] inline void offer(plugin_instance_t *instance, const host_flow_t *flow,
                                         const host_packet_t *packet, const ip_addr_t &src,
                                         const ip_addr_t &dst)
{
    const uint64_t timestamp = packet->header->timestamp;
    if (lc_filter(instance->live, &src, &dst, packet->data, packet->length, timestamp) == 0 &&
        flow->packets < heavy_size() && hc_is_enabled(instance->history)) {
        hc_enqueue(instance->history, &src, &dst, packet->data, packet->length, timestamp);
    }
}

} // namespace

plugin_private_t *plugin_process_init(const char *params, const void * /*host_1*/, const void * /*host_2*/,
                                      int32_t queue_count)
{
    if (start_failed) {
        forget_paths();
    }
    plugin_private_t *plugin = start(params, queue_count);
    start_failed = plugin == nullptr;
    return plugin;
}

plugin_instance_t *plugin_process_init_queue(plugin_private_t *plugin, int32_t index)
{
    return &plugin->instances[index];
}

int plugin_process_filter(...)
{
    return 0;
}

void plugin_process_update(plugin_instance_t *instance, const host_flow_t *flow, const host_packet_t *packet)
{
    if (packet->data == nullptr) {
        return;
    }
    const host_header_t *header = packet->header;
    if (header->ip_version == 4) {
        offer(instance, flow, packet, ip_addr_from_ipv4(header->addr.ipv4.src),
              ip_addr_from_ipv4(header->addr.ipv4.dst));
    } else if (header->ip_version == 6) {
        offer(instance, flow, packet, ip_addr_from_ipv6(header->addr.ipv6.src),
              ip_addr_from_ipv6(header->addr.ipv6.dst));
    }
}

int plugin_process_shutdown(plugin_private_t *plugin)
{
    KS_INFO(LOG_EVENT, "kestrune: Cleaning up private structures");
    plugin_private_destroy(plugin);
    KS_INFO(LOG_EVENT, "kestrune: Plugin shutdown");
    forget_paths();
    return 0;
}

void plugin_private_destroy(plugin_private_t *plugin)
{
    if (plugin == nullptr) {
        return;
    }
    if (plugin->listener != nullptr) {
        KS_INFO(LOG_EVENT, "kestrune: Cleaning listener");
        ls_destroy(plugin->listener);
    }
    if (plugin->live != nullptr) {
        KS_INFO(LOG_EVENT, "kestrune: Cleaning live capture filter");
        lc_destroy(plugin->live);
    }
    for (int32_t i = 0; plugin->history != nullptr && i < plugin->count; i++) {
        KS_INFO(LOG_EVENT, "kestrune: Cleaning history buffer %d", i);
        if (plugin->history[i] != nullptr) {
            hc_destroy(plugin->history[i]);
        }
    }
    std::free(plugin->history);
    std::free(plugin->instances);
    std::free(plugin);
}
