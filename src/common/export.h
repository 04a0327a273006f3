// Makes a symbol of the plugin visible to the host: C name, default visibility. Everything else is hidden;
// src/plugin/exports.map lists the same symbols for the linker.
#pragma once

#define KS_EXPORT extern "C" __attribute__((visibility("default")))
