// The search thread, for hc_enable and hc_disable.
#pragma once

// Body of the thread: populates the ring's memory, waits for rules, makes a run, pauses. The argument is the
// history capture. Can be cancelled between two parts of the memory, at its wait and at its pause only.
void *hc_search_thread(void *history_capture);
// Its clean-up: finishes the rules of a run.
void hc_clean_search_thread(void *history_capture);
