// The check of one sealed file against its manifest, shared by sealing and verifying.
#pragma once

#include "archive/pcapng_reader.h"
#include "model/receipt.h"

#include <string>

namespace kestrune::manager {

// A sentence when the blocks are wrong, or interfaces and their packets are not the manifest's; else empty.
std::string wrong_with_content(const pcapng_content_t &content, const manifest_t &manifest, uint64_t packets);

} // namespace kestrune::manager
