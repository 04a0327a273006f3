#include "probe/plugin_module.h"

#include "probe/error.h"
#include "probe/log.h"

#include <dlfcn.h>
#include <filesystem>
#include <system_error>

namespace probe {
namespace {

constexpr int32_t INTERFACE_VERSION = 4;
constexpr int32_t PROCESS_PLUGIN = 4; // the host's number for plugins that are handed packets
constexpr const char *INSTALLED_PLUGIN = "/usr/lib/kestrune/kestrune.so";

std::string loader_error()
{
    const char *text = dlerror();
    return text != nullptr ? text : "unknown error of the loader";
}

} // namespace

template <class Pointer>
Pointer plugin_module_t::symbol(const char *name) const
{
    void *address = dlsym(library_, name);
    if (address == nullptr) {
        throw error_t(path_ + " is no process plugin: it lacks " + name);
    }
    return reinterpret_cast<Pointer>(address);
}

plugin_module_t::plugin_module_t(const std::string &path) : path_(path)
{
    // A bare name is a file here, as on every command line, before it is one of the loader's folders.
    std::error_code error;
    const std::string file = std::filesystem::exists(path, error) ? "./" + path : path;
    library_ = dlopen(path.starts_with("/") ? path.c_str() : file.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (library_ == nullptr) {
        throw error_t("cannot load the plugin: " + loader_error());
    }
    try {
        read_entry_points();
    } catch (...) {
        dlclose(library_);
        throw;
    }
}

void plugin_module_t::read_entry_points()
{
    const int32_t version = *symbol<const int32_t *>("vantor_api_version");
    const int32_t kind = *symbol<const int32_t *>("plugin_type");
    if (version != INTERFACE_VERSION || kind != PROCESS_PLUGIN) {
        throw error_t(path_ + " has interface version " + std::to_string(version) + " and kind " +
                      std::to_string(kind) + "; version 4 and kind 4 (process plugin) are needed");
    }
    const auto describe = symbol<const plugin_desc_t *(*)()>("plugin_process_desc");
    init_ = symbol<decltype(init_)>("plugin_process_init");
    init_queue_ = symbol<decltype(init_queue_)>("plugin_process_init_queue");
    symbol<int (*)()>("plugin_process_filter"); // part of the interface; the probe filters nothing
    update_ = symbol<update_function_t>("plugin_process_update");
    shutdown_ = symbol<decltype(shutdown_)>("plugin_process_shutdown");
    description_ = describe();
}

plugin_module_t::~plugin_module_t()
{
    stop();
    dlclose(library_);
}

void plugin_module_t::start(const std::string &params, uint32_t queue_count)
{
    // The second and third argument are the host's own; no plugin reads them.
    private_ = init_(params.c_str(), nullptr, nullptr, static_cast<int32_t>(queue_count));
    if (private_ == nullptr) {
        throw error_t("plugin " + std::string(description_->name) + " did not start");
    }
}

void *plugin_module_t::instance(uint32_t queue) const
{
    return init_queue_(private_, static_cast<int32_t>(queue));
}

void plugin_module_t::stop()
{
    if (private_ == nullptr) {
        return;
    }
    const int status = shutdown_(private_);
    private_ = nullptr;
    if (status != 0) {
        log_warning("the plugin's shutdown answered %d", status);
    }
}

std::string default_plugin_path()
{
    std::error_code error;
    const std::filesystem::path program = std::filesystem::read_symlink("/proc/self/exe", error);
    const std::filesystem::path beside = program.parent_path() / "kestrune.so";
    return std::filesystem::exists(beside, error) ? beside.string() : INSTALLED_PLUGIN;
}

} // namespace probe
