#include "catalogue/sqlite.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <sqlite3.h>

namespace kestrune::manager {

namespace {

constexpr int BUSY_WAIT_MS = 5000; // only recovery after a crash makes one wait

catalogue_failure_t failure_of(sqlite3 *database, int result)
{
    switch (result & 0xFF) {
    case SQLITE_FULL:
        return catalogue_failure_t::FULL;
    case SQLITE_IOERR:
        return database != nullptr &&
                       (sqlite3_system_errno(database) == ENOSPC || sqlite3_system_errno(database) == EDQUOT)
                   ? catalogue_failure_t::FULL
                   : catalogue_failure_t::BROKEN;
    case SQLITE_CORRUPT:
    case SQLITE_NOTADB:
        return catalogue_failure_t::DAMAGED;
    case SQLITE_BUSY:
    case SQLITE_LOCKED:
        return catalogue_failure_t::LOCKED;
    default:
        return catalogue_failure_t::BROKEN;
    }
}

[[noreturn]] void fail(sqlite3 *database, int result)
{
    const char *file = sqlite3_db_filename(database, "main");
    throw catalogue_error_t(failure_of(database, result), std::string(file != nullptr ? file : "catalogue") +
                                                              ": " + sqlite3_errmsg(database));
}

int note_log_pages(void *pages, sqlite3 *, const char *, int count)
{
    *static_cast<int *>(pages) = count;
    return SQLITE_OK;
}

} // namespace

statement_t::~statement_t()
{
    sqlite3_reset(statement_);
    sqlite3_clear_bindings(statement_);
}

void statement_t::check(int result)
{
    if (result != SQLITE_OK) {
        fail(database_, result);
    }
}

statement_t &statement_t::bind(uint64_t value)
{
    check(sqlite3_bind_int64(statement_, ++bound_,
                             static_cast<int64_t>(std::min(value, static_cast<uint64_t>(INT64_MAX)))));
    return *this;
}

statement_t &statement_t::bind_text(std::string_view value)
{
    check(sqlite3_bind_text(statement_, ++bound_, value.data() != nullptr ? value.data() : "",
                            static_cast<int>(value.size()), SQLITE_TRANSIENT));
    return *this;
}

statement_t &statement_t::bind_blob(const void *bytes, size_t size)
{
    check(sqlite3_bind_blob(statement_, ++bound_, bytes, static_cast<int>(size), SQLITE_TRANSIENT));
    return *this;
}

statement_t &statement_t::bind_null()
{
    check(sqlite3_bind_null(statement_, ++bound_));
    return *this;
}

bool statement_t::step()
{
    column_ = 0;
    const int result = sqlite3_step(statement_);
    if (result != SQLITE_ROW && result != SQLITE_DONE) {
        fail(database_, result);
    }
    return result == SQLITE_ROW;
}

void statement_t::run()
{
    while (step()) {
    }
}

uint64_t statement_t::number()
{
    return static_cast<uint64_t>(sqlite3_column_int64(statement_, column_++));
}

bool statement_t::is_null() const
{
    return sqlite3_column_type(statement_, column_) == SQLITE_NULL;
}

std::string statement_t::text()
{
    const int column = column_++;
    const unsigned char *text = sqlite3_column_text(statement_, column);
    return text == nullptr ? std::string()
                           : std::string(reinterpret_cast<const char *>(text),
                                         static_cast<size_t>(sqlite3_column_bytes(statement_, column)));
}

blob_t statement_t::blob()
{
    const int column = column_++;
    const auto *bytes = static_cast<const uint8_t *>(sqlite3_column_blob(statement_, column));
    const auto size = static_cast<size_t>(sqlite3_column_bytes(statement_, column));
    return bytes == nullptr ? blob_t() : blob_t(bytes, bytes + size);
}

ulid_t statement_t::id()
{
    ulid_t id;
    const blob_t bytes = blob();
    if (bytes.size() != id.bytes.size()) {
        throw catalogue_error_t(catalogue_failure_t::DAMAGED, "the catalogue: an id is none");
    }
    std::copy(bytes.begin(), bytes.end(), id.bytes.begin());
    return id;
}

connection_t::connection_t(const std::filesystem::path &file, bool writes)
{
    const int flags = (writes ? SQLITE_OPEN_READWRITE : SQLITE_OPEN_READONLY) | SQLITE_OPEN_NOMUTEX;
    const int result = sqlite3_open_v2(file.c_str(), &database_, flags, nullptr);
    if (result != SQLITE_OK) {
        const catalogue_error_t error(failure_of(database_, result),
                                      file.string() + ": " + sqlite3_errstr(result));
        sqlite3_close(database_);
        throw error;
    }
    sqlite3_extended_result_codes(database_, 1);
    sqlite3_busy_timeout(database_, BUSY_WAIT_MS);
    sqlite3_wal_hook(database_, note_log_pages, &log_pages_); // in place of automatic checkpoints
}

connection_t::~connection_t()
{
    for (const auto &[sql, statement] : statements_) {
        sqlite3_finalize(statement);
    }
    sqlite3_close(database_);
}

statement_t connection_t::prepare(const std::string &sql)
{
    sqlite3_stmt *&statement = statements_[sql];
    if (statement == nullptr) {
        const int result = sqlite3_prepare_v3(database_, sql.c_str(), static_cast<int>(sql.size()),
                                              SQLITE_PREPARE_PERSISTENT, &statement, nullptr);
        if (result != SQLITE_OK) {
            fail(database_, result);
        }
    }
    return {database_, statement};
}

void connection_t::execute(const char *sql)
{
    const int result = sqlite3_exec(database_, sql, nullptr, nullptr, nullptr);
    if (result != SQLITE_OK) {
        fail(database_, result);
    }
}

uint64_t connection_t::number(const std::string &sql)
{
    statement_t statement = prepare(sql);
    return statement.step() ? statement.number() : 0;
}

std::string connection_t::text(const std::string &sql)
{
    statement_t statement = prepare(sql);
    return statement.step() ? statement.text() : std::string();
}

void connection_t::checkpoint()
{
    if (sqlite3_wal_checkpoint_v2(database_, nullptr, SQLITE_CHECKPOINT_PASSIVE, nullptr, nullptr) ==
        SQLITE_OK) {
        log_pages_ = 0;
    }
}

transaction_t::~transaction_t()
{
    if (connection_ != nullptr) {
        try {
            connection_->execute("ROLLBACK");
        } catch (const catalogue_error_t &) {
            // SQLite has rolled back by itself after some failures.
        }
    }
}

void transaction_t::commit()
{
    connection_->execute("COMMIT");
    connection_ = nullptr;
}

} // namespace kestrune::manager
