// Which sealed captures go, and whether there is room: pure functions.
#pragma once

#include "config/settings.h"
#include "model/receipt.h"

#include <cstdint>
#include <string>
#include <vector>

namespace kestrune::manager {

struct sealed_entry_t {
    ulid_t id;
    uint64_t sealed_at = 0;
    uint64_t bytes = 0;
};

struct victim_t {
    ulid_t id;
    std::string cause; // "older than 30 days", "quota", "free space"
};

// `oldest`: oldest first, none of them on hold. For age, quota and free space, in this order.
std::vector<victim_t> choose_victims(const std::vector<sealed_entry_t> &oldest, const archive_view_t &view,
                                     const archive_settings_t &settings, uint64_t now);
// After all victims that there are: view.room.
room_t room_left(const archive_view_t &view);

} // namespace kestrune::manager
