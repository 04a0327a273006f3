// The two paths of the settings: the export directory and the capture script. Used by the host's thread
// during start and shutdown only.
#pragma once

// Normalise ks_exp_file_path (a '/' at its end) and test that it exists. True when it is unset or good; false
// after logging why not.
[[nodiscard]] bool prepare_export_path();

// Build ks_capture_script from the script's name; null: no script. False after logging why not.
[[nodiscard]] bool prepare_capture_script(const char *name);

// Release what the functions above allocated and let both settings be unset again.
void forget_paths();
