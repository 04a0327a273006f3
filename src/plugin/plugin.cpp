#include "plugin/plugin.h"

#include "common/log.h"
#include "history_capture/packet_path.h"
#include "live_capture/packet_path.h"
#include "plugin/paths.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace {

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

// Warn when the administrator's size exceeds what is available. It is used all the
// same where the kernel grants it.
void compare_with_available(uint64_t total)
{
    const uint64_t available = ring_memory_available();
    if (total > available) {
        KS_ERROR(
            "kestrune: Plugin: buffer_size is %lu MB and %lu MB of memory are available for it: once the "
            "history fills, the system may kill the host",
            total >> 20, available >> 20);
    }
}

// One history capture and one instance per queue, with the configured memory divided evenly. False after
// logging which one could not be created.
bool create_queues(plugin_private_t *plugin, int32_t queue_count)
{
    const auto total = static_cast<uint64_t>(static_cast<int64_t>(default_buffer_size) << 20);
    const uint64_t ring_size = total / static_cast<uint64_t>(queue_count);
    if (total > 0) {
        compare_with_available(total);
    }
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

// Create everything that plugin owns, in order. False after logging why; the teardown
// releases what was created.
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

// Set the settings from the parameters. False after logging why.
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

inline hc_ends_t ipv4_ends(const host_header_t *header)
{
    return {ip_addr_from_ipv4(header->addr.ipv4.src), ip_addr_from_ipv4(header->addr.ipv4.dst)};
}

inline hc_ends_t ipv6_ends(const host_header_t *header)
{
    return {ip_addr_from_ipv6(header->addr.ipv6.src), ip_addr_from_ipv6(header->addr.ipv6.dst)};
}

// Offer a packet to the live capture and, if that did not take it and its flow is light, to the history.
// False: a rule was released to the ring after the live capture was asked, so the live capture may take the
// packet now (history_capture.h). `offers` is read for heavy flows too: a branch would cost every packet
// more. Inline, so that each kind of address gets its own compiled copy: half of an IPv4 key's hash is then
// known, as long as the keys are made after `offers` is read.
template <hc_ends_t ENDS(const host_header_t *)>
[[gnu::always_inline]] inline bool offer(plugin_instance_t *instance, const host_flow_t *flow,
                                         const host_packet_t *packet)
{
    const uint64_t offers = hc_offers(instance->history); // before the look
    const hc_ends_t ends = ENDS(packet->header);
    const uint64_t timestamp = packet->header->timestamp;
    if (lc_filter(instance->live, &ends.src, &ends.dst, packet->data, packet->length, timestamp) != 0 ||
        flow->packets >= heavy_size() || !hc_may_store(offers)) {
        return true;
    }
    return hc_enqueue_compared(instance->history, &ends, packet->data, packet->length, timestamp, offers) !=
           HC_LOOK_AGAIN;
}

// Repeats as often as rules are released meanwhile. Not inlined: a loop would take
// registers from every packet.
template <hc_ends_t ENDS(const host_header_t *)>
[[gnu::noinline, gnu::cold]] void offer_again(plugin_instance_t *instance, const host_flow_t *flow,
                                              const host_packet_t *packet)
{
    while (!offer<ENDS>(instance, flow, packet)) {
    }
}

} // namespace

plugin_private_t *plugin_process_init(const char *params, const void * /*host_1*/, const void * /*host_2*/,
                                      int32_t queue_count)
{
    plugin_private_t *plugin = start(params, queue_count);
    if (plugin == nullptr) {
        forget_paths();
    }
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
    const uint8_t version = packet->header->ip_version;
    if (version == 4) [[likely]] {
        if (!offer<ipv4_ends>(instance, flow, packet)) [[unlikely]] {
            offer_again<ipv4_ends>(instance, flow, packet);
        }
    } else if (version == 6) {
        if (!offer<ipv6_ends>(instance, flow, packet)) [[unlikely]] {
            offer_again<ipv6_ends>(instance, flow, packet);
        }
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
