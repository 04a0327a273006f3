// Whether the output is coloured.
#pragma once

namespace kestrune {

enum class colour_t { AUTO, ALWAYS, NEVER };

} // namespace kestrune
