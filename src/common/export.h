// How a symbol of the plugin becomes visible to the host: C name, default visibility. Everything else is
// hidden; src/plugin/exports.map lists the same symbols once more for the linker.
#pragma once

#define KS_EXPORT extern "C" __attribute__((visibility("default")))
