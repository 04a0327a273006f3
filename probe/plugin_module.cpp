#include "probe/plugin_module.h"

#include "probe/error.h"
#include "probe/log.h"
#include "probe/params.h"

#include <cerrno>
#include <cstring>
#include <dlfcn.h>
#include <filesystem>
#include <system_error>

namespace probe {
namespace {

constexpr int32_t INTERFACE_VERSION = 4;
constexpr int32_t PROCESS_PLUGIN = 4;         // the host's number for packet plugins
constexpr const char *DEFAULT_PORT = "37564"; // of the plugin kestrune
constexpr const char *INSTALLED_PLUGIN = KESTRUNE_PLUGIN_DIR "/kestrune.so";

std::string loader_error()
{
    const char *text = dlerror();
    return text != nullptr ? text : "unknown error of the loader";
}

// What to change, judged by the errors that the plugin logged.
std::string start_advice(const std::string &errors, const std::string &params)
{
    const auto logged = [&errors](const char *text) { return errors.find(text) != std::string::npos; };
    const std::string port = find_parameter(params, "port").value_or(DEFAULT_PORT);
    const std::string path = find_parameter(params, "export_path").value_or("");
    if (logged("bind failed") && logged(std::strerror(EADDRINUSE))) {
        return ": port " + port +
               " is taken; give this probe a port of its own with -P port=N (params = port=N)";
    }
    if (logged("bind failed") || logged("Failed to process address")) {
        return ": port " + port + " cannot be used; set another with -P port=N (params = port=N)";
    }
    if (logged("Failed to parse input")) {
        return ": one of its parameters is wrong; change it in -P (params =)";
    }
    if (logged("Failed to create history buffer")) {
        return ": there is not enough memory for its history; set less with --history SIZE";
    }
    if (logged("export")) {
        return ": cannot use the directory " + path + "; set another with -P export_path=DIRECTORY";
    }
    return "";
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
    // A bare name means a file first, as on every command line, then a file in the loader's folders.
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

void plugin_module_t::set_heavy(uint32_t packets) const
{
    void *threshold = dlsym(library_, "hc_heavy_size");
    if (threshold == nullptr) {
        throw error_t(path_ + " has no threshold of heavy flows: leave --heavy out");
    }
    __atomic_store_n(static_cast<uint32_t *>(threshold), packets, __ATOMIC_RELAXED);
}

void plugin_module_t::start(const std::string &params, uint32_t queue_count)
{
    // The second and third argument belong to the host; no plugin reads them.
    const plugin_errors_t errors;
    private_ = init_(params.c_str(), nullptr, nullptr, static_cast<int32_t>(queue_count));
    if (private_ == nullptr) {
        throw error_t("plugin " + std::string(description_->name) + " did not start" +
                      start_advice(errors.text, params));
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
