// The check of sealed files against their manifest, shared by sealing, taking over and verifying.
#pragma once

#include "archive/pcapng_reader.h"
#include "model/receipt.h"

#include <filesystem>
#include <string>

namespace kestrune::manager {

// A sentence when the blocks are wrong, or interfaces and their packets are not the manifest's; else empty.
std::string wrong_with_content(const pcapng_content_t &content, const manifest_t &manifest, uint64_t packets);

// All files beside the manifest: there, of their length, with their SHA-256, and as above. A sentence, or empty.
std::string wrong_with_files(const std::filesystem::path &directory, const manifest_t &manifest);

} // namespace kestrune::manager
