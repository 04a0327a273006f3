#include "archive/retention.h"

#include "common/clock.h"

#include <algorithm>

namespace kestrune::manager {

namespace {

constexpr uint64_t DAY_NS = 86'400 * NS_PER_S;
constexpr uint64_t QUOTA_MARGIN = 16; // a sixteenth of the quota is for what runs meanwhile

// What sealed and raw files together may take before captures are deleted.
uint64_t quota_goal(uint64_t quota)
{
    return quota - quota / QUOTA_MARGIN;
}

} // namespace

std::vector<victim_t> choose_victims(const std::vector<sealed_entry_t> &oldest, const archive_view_t &view,
                                     const archive_settings_t &settings, uint64_t now)
{
    std::vector<victim_t> victims;
    uint64_t used = view.bytes + view.raw_bytes;
    uint64_t room = view.archive_free_bytes;
    const uint64_t age =
        std::min<uint64_t>(settings.max_age_days, UINT64_MAX / DAY_NS) * DAY_NS; // 584 years at most
    for (const sealed_entry_t &entry : oldest) {
        std::string cause;
        if (age != 0 && now > age && entry.sealed_at < now - age) {
            cause = "older than " + std::to_string(settings.max_age_days) + " days";
        } else if (settings.quota_bytes != 0 && used > quota_goal(settings.quota_bytes)) {
            cause = "quota";
        } else if (room < settings.min_free_bytes) {
            cause = "free space";
        } else {
            continue;
        }
        victims.push_back({entry.id, cause});
        used -= std::min(used, entry.bytes);
        room += entry.bytes;
    }
    return victims;
}

room_t room_left(const archive_view_t &view)
{
    const uint64_t used = view.bytes + view.raw_bytes;
    if (view.free_bytes < view.min_free_bytes / 2 || (view.quota_bytes && used > *view.quota_bytes)) {
        return room_t::END_RUNNING;
    }
    if (view.free_bytes < view.min_free_bytes || (view.quota_bytes && used > quota_goal(*view.quota_bytes))) {
        return room_t::NO_NEW;
    }
    return room_t::ENOUGH;
}

} // namespace kestrune::manager
