// The filter of both searches: the packet thread uses it on an evicted record (slow search), the search
// thread on an examined one (fast search).
#pragma once

#include "history_capture/history_state.h"

enum : int32_t {
    HC_WRITTEN = 1,     // written for at least one rule
    HC_NOT_WRITTEN = 2, // no rule matched
};

// Write the record at p for every rule of the table that matches it. HC_WRITTEN or HC_NOT_WRITTEN. A failed
// write is logged. Holds one row at a time while it writes.
int32_t hc_filter_ip(history_capture_t *hc, fhf_table_t *table, uint64_t p)
    KS_REQUIRES_SHARED(hc->state_lock);
