#include "probe/history_size.h"

#include "common/available_memory.h"
#include "probe/log.h"
#include "probe/params.h"

#include <algorithm>

namespace probe {
namespace {

constexpr const char *KEY = "buffer_size";
constexpr uint64_t MOST_MIB = 8192;

int32_t default_size_mib()
{
    const available_memory_t available = available_memory();
    const uint64_t quarter = std::min(available.memory, available.addresses) / 4;
    return static_cast<int32_t>(std::min(quarter >> 20, MOST_MIB));
}

} // namespace

std::string with_history_size(const std::string &params, const config_option_t *options)
{
    const config_option_t *option = find_option(options, KEY);
    if (option == nullptr || option->kind != CONFIG_INT || find_parameter(params, KEY)) {
        return params;
    }
    const int32_t size = default_size_mib();
    log_warning(
        "no --history: the history takes %d MiB, a quarter of the memory that is available (at most %d)",
        size, static_cast<int>(MOST_MIB));
    return params + ";" + KEY + "=" + std::to_string(size);
}

} // namespace probe
