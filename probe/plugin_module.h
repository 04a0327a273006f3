// A process plugin: the shared object and its entry points, in the order in which the host calls them:
// description, start, one instance per queue, updates, shutdown, unload.
//
// Threads: the main thread, except for the function of update(), which every queue's
// thread calls with its own instance.
#pragma once

#include "common/host_interface.h"

#include <cstdint>
#include <string>

namespace probe {

using update_function_t = void (*)(void *instance, const host_flow_t *flow, const host_packet_t *packet);

class plugin_module_t {
public:
    // Load the shared object and read its description. Throws error_t when it cannot be loaded, lacks an
    // entry point, or is for another version or kind of the interface.
    explicit plugin_module_t(const std::string &path);
    // Stops the plugin if it runs, and unloads it.
    ~plugin_module_t();
    plugin_module_t(const plugin_module_t &) = delete;
    plugin_module_t &operator=(const plugin_module_t &) = delete;

    const plugin_desc_t &description() const { return *description_; }
    // Set the plugin's threshold of heavy flows. Throws error_t when it has none.
    void set_heavy(uint32_t packets) const;
    // Start the plugin. Throws error_t when it refuses; the text says what to change.
    void start(const std::string &params, uint32_t queue_count);
    // The plugin's data of one queue, owned by the plugin.
    void *instance(uint32_t queue) const;
    update_function_t update() const { return update_; }
    // Shut the plugin down; no thread may be in update() any more.
    void stop();

private:
    template <class Pointer>
    Pointer symbol(const char *name) const;
    void read_entry_points();

    std::string path_;
    void *library_;           // of dlopen
    void *private_ = nullptr; // the running plugin's root, or null
    const plugin_desc_t *description_ = nullptr;
    void *(*init_)(const char *, const void *, const void *, int32_t) = nullptr;
    void *(*init_queue_)(void *, int32_t) = nullptr;
    int (*shutdown_)(void *) = nullptr;
    update_function_t update_ = nullptr;
};

// kestrune.so beside this program, or else at its installed path.
std::string default_plugin_path();

} // namespace probe
