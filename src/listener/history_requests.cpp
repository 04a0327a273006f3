#include "listener/history_requests.h"

#include "common/log.h"
#include "common/settings.h"
#include "listener/receive.h"
#include "listener/reply.h"

#include <algorithm>

namespace {

constexpr uint64_t BYTES_PER_MB = 1048576;

// Turn the rings of all queues off, in order. False when a ring was off already; those before it are off now.
bool disable_all(const ls_client_t *slot) KS_REQUIRES(slot->rm->lock)
{
    for (int32_t i = 0; i < slot->queue_count; i++) {
        if (!hc_is_enabled(slot->history[i])) {
            KS_INFO(LOG_EVENT, "kestrune: Listener: Kestrune is not running");
            return false;
        }
        hc_disable(slot->history[i]);
        KS_INFO(LOG_DETAIL, "kestrune: Listener: Disabling history buffer %d", i);
    }
    return true;
}

// Turn the rings of all queues on with this many bytes each. False when any of them failed.
bool enable_all(const ls_client_t *slot, uint64_t size) KS_REQUIRES(slot->rm->lock)
{
    bool enabled = true;
    for (int32_t i = 0; i < slot->queue_count; i++) {
        const int32_t result = hc_enable(slot->history[i], size);
        if (result == HC_RUNNING) {
            KS_INFO(LOG_EVENT, "kestrune: Listener: History buffer is already running");
            if (i > 0) {
                KS_ERROR("kestrune: Listener: Some of the history buffers are enabled, some are disabled");
            }
            return false;
        }
        if (result == HC_NO_MEMORY) {
            KS_ERROR("kestrune: Listener: History buffer could not be initialized.");
            for (int32_t below = 0; below < i; below++) {
                hc_disable(slot->history[below]);
            }
        } else if (result != HC_OK) {
            KS_ERROR(
                "kestrune: Listener: History buffer could not be initialized. It returned unknown error");
        }
        enabled = enabled && result == HC_OK;
    }
    return enabled;
}

struct enabling_t {
    const ls_client_t *slot;
    uint64_t size; // bytes a queue
    bool enabled;
};

// Runs on the starter's thread, because search threads inherit its nice value.
void enable_as_host(void *argument)
{
    auto *enabling = static_cast<enabling_t *>(argument);
    const ls_client_t *slot = enabling->slot;
    rwlock_write(&slot->rm->lock);
    enabling->enabled = enable_all(slot, enabling->size);
    rwlock_write_unlock(&slot->rm->lock);
}

bool handle_off(ls_client_t *slot)
{
    KS_INFO(LOG_DETAIL, "kestrune: Listener: Request for turning off History buffer");
    rwlock_write(&slot->rm->lock);
    const bool disabled = disable_all(slot);
    rwlock_write_unlock(&slot->rm->lock);
    if (!disabled) {
        return ls_reply_status(slot, msg_code::FAIL);
    }
    KS_INFO(LOG_EVENT, "kestrune: Listener: Kestrune turned off");
    return ls_reply_status(slot, msg_code::SUCCESS);
}

bool handle_on(ls_client_t *slot)
{
    uint32_t megabytes = 0;
    KS_INFO(LOG_DEBUG, "kestrune: Listener: Request for turning on Kestrune");
    if (!ls_receive_value(slot, &megabytes)) {
        KS_ERROR("kestrune: Listener: Size of buffer for Kestrune was not received");
        return false;
    }
    ls_begin_work(slot);
    const auto queues = static_cast<uint64_t>(std::max(slot->queue_count, 1));
    enabling_t enabling = {slot, megabytes * BYTES_PER_MB / queues, false};
    ls_starter_run(slot->starter, enable_as_host, &enabling);
    if (!enabling.enabled) {
        return ls_reply_status(slot, msg_code::FAIL);
    }
    KS_INFO(LOG_EVENT,
            "kestrune: Listener: History buffer of size %u MB (for one instance) was successfuly created",
            megabytes);
    return ls_reply_status(slot, msg_code::SUCCESS);
}

bool handle_info(ls_client_t *slot)
{
    msg_hb_info_t sum = {};
    uint64_t time_spans = 0;
    sum.time_span_min_s = slot->queue_count > 0 ? UINT32_MAX : 0;
    for (int32_t i = 0; i < slot->queue_count; i++) {
        hc_info_t queue = {};
        hc_info(slot->history[i], &queue);
        sum.packets += queue.packets;
        sum.size += queue.size;
        sum.free += queue.free;
        sum.rules = std::max(sum.rules, queue.rules);
        time_spans += queue.time_span;
        sum.time_span_min_s = std::min(sum.time_span_min_s, queue.time_span);
        sum.time_span_max_s = std::max(sum.time_span_max_s, queue.time_span);
    }
    sum.queue_count = static_cast<uint32_t>(slot->queue_count);
    sum.time_span_avg_s = sum.queue_count > 0 ? static_cast<uint32_t>(time_spans / sum.queue_count) : 0;
    sum.heavy_size = heavy_size();
    return ls_reply_history(slot, sum);
}

} // namespace

bool ls_handle_history(ls_client_t *slot, uint8_t target)
{
    switch (target) {
    case msg_target::OFF:
        return handle_off(slot);
    case msg_target::ON:
        return handle_on(slot);
    case msg_target::INFO:
        return handle_info(slot);
    default:
        return ls_reply_status(slot, msg_code::UNRECOGNIZED);
    }
}
