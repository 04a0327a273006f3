#include "plugin/plugin.h"

namespace {

constexpr const char *HELP =
    "Plugin to do live and hitory capture of traffic to files in libpcap format with configurable\n"
    "  filter.\n"
    "Parameters:\n"
    "  port=<port number>   Communication port number for clients.  verbose=<0-5>  local verbose value\n"
    "  buffer_size=<MB> Default size of buffer for history captture (0 = no buffer)  export_path=<path> "
    "Path, where the captured files will be stored.\n"
    "  capture_script=<script name>   Name of script which is launched after the capturing is done.\n"
    "                 Default path of script folder is:/usr/bin/kestrune";

plugin_desc_t description = {"kestrune", HELP, 0, 4};

} // namespace

plugin_desc_t *plugin_process_desc()
{
    return &description;
}
