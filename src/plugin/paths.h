// The two paths of the settings: the export directory and the capture script. Used by the host's thread
// during start and shutdown only.
#pragma once

// Normalise ks_exp_file_path (a '/' at its end) and check that it exists. True when it is
// unset or valid; false after logging why not.
[[nodiscard]] bool prepare_export_path();

// Build ks_capture_script from the script's name; null: no script. False after logging why not.
[[nodiscard]] bool prepare_capture_script(const char *name);

// Release what the functions above allocated and unset both settings.
void forget_paths();
