// The little of SQLite's C interface that the catalogue needs: connections with their prepared statements, and results
// as exceptions (catalogue_error_t).
//
// Threads: a connection belongs to one thread at a time.
#pragma once

#include "catalogue/catalogue.h"

#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

struct sqlite3;
struct sqlite3_stmt;

namespace kestrune::manager {

using blob_t = std::vector<uint8_t>;

// One execution of a prepared statement: bind in order, then step and read in order. Resets it at its end.
class statement_t {
public:
    statement_t(sqlite3 *database, sqlite3_stmt *statement) : database_(database), statement_(statement) {}
    ~statement_t();
    statement_t(const statement_t &) = delete;
    statement_t &operator=(const statement_t &) = delete;

    statement_t &bind(uint64_t value); // at most INT64_MAX
    statement_t &bind_text(std::string_view value);
    statement_t &bind_blob(const void *bytes, size_t size); // copied
    statement_t &bind_null();
    statement_t &bind_time(uint64_t ns) { return ns == 0 ? bind_null() : bind(ns); }
    statement_t &bind(const ulid_t &id) { return bind_blob(id.bytes.data(), id.bytes.size()); }
    template <typename number_t>
    statement_t &bind_optional(const std::optional<number_t> &value)
    {
        return value ? bind(uint64_t{*value}) : bind_null();
    }

    bool step(); // true: there is a row
    void run();  // to its end

    // The columns of the row, from the left.
    uint64_t number(); // 0 for null
    bool is_null() const;
    void skip() { column_++; }
    template <typename number_t>
    number_t as()
    {
        return static_cast<number_t>(number());
    }
    template <typename number_t>
    std::optional<number_t> optional()
    {
        const bool none = is_null();
        const auto value = static_cast<number_t>(number());
        return none ? std::nullopt : std::optional(value);
    }
    std::string text();
    blob_t blob();
    ulid_t id();

private:
    void check(int result);
    sqlite3 *const database_;
    sqlite3_stmt *const statement_;
    int bound_ = 0;
    int column_ = 0;
};

class connection_t {
public:
    connection_t(const std::filesystem::path &file, bool writes);
    ~connection_t();
    connection_t(const connection_t &) = delete;
    connection_t &operator=(const connection_t &) = delete;

    // Prepared once for each text.
    statement_t prepare(const std::string &sql);
    void execute(const char *sql); // one or several statements without result
    uint64_t number(const std::string &sql);
    std::string text(const std::string &sql);
    // Pages that wait in the write-ahead log, as of the last commit.
    int log_pages() const { return log_pages_; }
    void checkpoint(); // as far as readers allow; a failure leaves the log as it is

private:
    sqlite3 *database_ = nullptr;
    std::unordered_map<std::string, sqlite3_stmt *> statements_;
    int log_pages_ = 0;
};

// A transaction that is rolled back unless it was committed.
class transaction_t {
public:
    transaction_t(connection_t *connection, const char *begin) : connection_(connection)
    {
        connection_->execute(begin);
    }
    ~transaction_t();
    transaction_t(const transaction_t &) = delete;
    transaction_t &operator=(const transaction_t &) = delete;
    void commit();

private:
    connection_t *connection_; // null once it is over
};

} // namespace kestrune::manager
