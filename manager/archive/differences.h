// Why the files of a part do not hold what its probe counted: sentences for the manifest.
#pragma once

#include "model/receipt.h"

#include <string>
#include <vector>

namespace kestrune::manager {

std::vector<std::string> differences_of(const manifest_part_t &part);

} // namespace kestrune::manager
