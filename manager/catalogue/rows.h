// The tables of the catalogue and how captures are put into them and read out. The inside of catalogue/.
#pragma once

#include "catalogue/sqlite.h"
#include "model/capture.h"

#include <string>
#include <vector>

namespace kestrune::manager {

constexpr uint64_t SCHEMA_VERSION = 1;
extern const char *const SCHEMA; // makes the tables

// Addresses as they sort: the version (4 or 6), then the bytes in network order.
blob_t address_key(const ip_addr_t &addr);
ip_addr_t address_of_key(const blob_t &key);

void write_capture(connection_t *connection, const capture_t &capture);
void write_audit(connection_t *connection, const audit_t &row);
void write_kept_answer(connection_t *connection, const kept_answer_t &answer);

// Columns in the order of read_capture; "SELECT " + CAPTURE_COLUMNS + " FROM captures WHERE ...".
extern const std::string CAPTURE_COLUMNS;
// The rest of a row, with the capture's parts.
capture_t read_capture(connection_t *connection, statement_t *row);
kept_answer_t read_kept_answer(statement_t *row);

} // namespace kestrune::manager
