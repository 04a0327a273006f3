#include "common/settings.h"

int32_t vantor_api_version = 4;
int32_t plugin_type = 4;
int32_t default_buffer_size = 8192;
uint32_t hc_heavy_size = 20;
int32_t local_verbose_level = 0;
char *ks_capture_script = nullptr;
char *ks_exp_file_path = nullptr;
int32_t ks_exp_file_path_len = 0;
