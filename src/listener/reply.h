// Replies. Each is encoded whole, sent at once, and ends the work on its request (ls_end_work). False ends
// the connection: the reply did not go out, and the reason has been logged.
#pragma once

#include "listener/slot.h"
#include "protocol/message.h"

#include <cstdint>

// SUCCESS, FAIL or UNRECOGNIZED.
[[nodiscard]] bool ls_reply_status(ls_client_t *slot, uint8_t code);
// Frees the items.
[[nodiscard]] bool ls_reply_list(ls_client_t *slot, msg_ip_list_item_t *items, uint32_t count);
[[nodiscard]] bool ls_reply_detail(ls_client_t *slot, const rm_detail_t &detail);
[[nodiscard]] bool ls_reply_history(ls_client_t *slot, const msg_hb_info_t &info);
