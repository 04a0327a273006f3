// Finishing rules, for the search thread and for hc_disable.
#pragma once

#include "history_capture/history_state.h"

// Close the files of the table's rules, list them as finished and empty the table. A null table is accepted.
void hc_clean_rules_from_fht(history_capture_t *hc, fhf_table_t *table);
