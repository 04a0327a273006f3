// GET /captures in SQL: filters, order, and the place where the next page begins. The inside of catalogue/.
#pragma once

#include "catalogue/sqlite.h"
#include "model/capture.h"

namespace kestrune::manager {

// Throws std::invalid_argument for a bad cursor. Within the caller's transaction.
capture_page_t query_captures(connection_t *connection, const capture_query_t &query);

} // namespace kestrune::manager
