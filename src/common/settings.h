// The exported settings, under the names by which the host reads them. Every module reads them directly;
// those that another thread may change, through the inline functions below.
//
// Threads: the strings and default_buffer_size change only in plugin_process_init and
// plugin_process_shutdown, when no other thread of the plugin runs. hc_heavy_size and local_verbose_level are
// read without a lock. Ownership: ks_exp_file_path points to the host's string or to a string of the plugin
// (plugin/paths.cpp keeps track); ks_capture_script is the plugin's.
#pragma once

#include "common/export.h"

#include <cstdint>

KS_EXPORT int32_t vantor_api_version;   // version of the host's plugin interface
KS_EXPORT int32_t plugin_type;          // kind of plugin as the host numbers kinds: 4, a process plugin
KS_EXPORT int32_t default_buffer_size;  // history buffers of all queues together, MiB; 0: none at start
KS_EXPORT uint32_t hc_heavy_size;       // packets of a flow that the history keeps; later ones stay out
KS_EXPORT int32_t local_verbose_level;  // the plugin's own verbosity
KS_EXPORT char *ks_capture_script;      // full path of the capture script, or null
KS_EXPORT char *ks_exp_file_path;       // export directory ending in '/', or null: the working directory
KS_EXPORT int32_t ks_exp_file_path_len; // bytes of ks_exp_file_path, 0 when null

inline uint32_t heavy_size()
{
    return __atomic_load_n(&hc_heavy_size, __ATOMIC_RELAXED);
}

inline void set_heavy_size(uint32_t packets)
{
    __atomic_store_n(&hc_heavy_size, packets, __ATOMIC_RELAXED);
}

inline int32_t own_verbose_level()
{
    return __atomic_load_n(&local_verbose_level, __ATOMIC_RELAXED);
}
