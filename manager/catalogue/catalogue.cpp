#include "catalogue/catalogue.h"

#include "catalogue/query.h"
#include "catalogue/rows.h"
#include "catalogue/sqlite.h"
#include "common/clock.h"
#include "model/lock.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

namespace kestrune::manager {

namespace {

constexpr size_t READERS = 4;
// The log goes into the database when it has this many pages, after a commit that nobody waits for; with the second
// figure after any.
constexpr int LOG_PAGES = 2'000;
constexpr int LOG_PAGES_MAX = 20'000;
constexpr uint64_t EVERYTHING = INT64_MAX;
const std::string SET_VERSION = "PRAGMA user_version = " + std::to_string(SCHEMA_VERSION);

[[noreturn]] void fail_file(const std::filesystem::path &file, catalogue_failure_t failure,
                            const std::string &why)
{
    throw catalogue_error_t(failure, file.string() + ": " + why);
}

// Held as long as the process lives; a lock of SQLite's own would keep our readers out.
class file_lock_t {
public:
    explicit file_lock_t(const std::filesystem::path &file)
        : fd_(open(file.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600))
    {
        if (fd_ < 0) {
            fail_file(file, catalogue_failure_t::BROKEN, std::strerror(errno));
        }
        if (flock(fd_, LOCK_EX | LOCK_NB) != 0) {
            close(fd_);
            fail_file(file, catalogue_failure_t::LOCKED, "another manager uses this catalogue");
        }
    }
    ~file_lock_t() { close(fd_); }
    file_lock_t(const file_lock_t &) = delete;
    file_lock_t &operator=(const file_lock_t &) = delete;

private:
    int fd_;
};

void make_file(const std::filesystem::path &file)
{
    const int fd = open(file.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (fd < 0) {
        fail_file(file, catalogue_failure_t::BROKEN, std::strerror(errno));
    }
    close(fd);
}

class sqlite_catalogue_t : public catalogue_t {
public:
    explicit sqlite_catalogue_t(const std::filesystem::path &file);

    void commit(const changes_t &changes, durability_t durability) override;
    std::optional<capture_t> find(const ulid_t &id) override;
    std::vector<capture_t> find_all(const std::vector<ulid_t> &ids) override;
    capture_page_t query(const capture_query_t &query) override;
    std::vector<capture_t> unfinished() override;
    std::unordered_map<ulid_t, capture_state_t> states(const std::vector<ulid_t> &ids) override;
    std::vector<candidate_t> oldest_sealed(size_t most) override;
    std::vector<ulid_t> expired_lookups(uint64_t now, size_t most) override;
    std::optional<kept_answer_t> kept_answer(const std::string &who, const std::string &key,
                                             uint64_t now) override;
    audit_page_t audit(uint64_t before, uint32_t limit) override;
    totals_t totals() override;
    ulid_t newest_id() override;

private:
    void prepare_schema(const std::filesystem::path &file) KS_REQUIRES(writing_);
    void count_all() KS_REQUIRES(writing_);
    void set_durability(durability_t durability) KS_REQUIRES(writing_);
    void count_change(const capture_t &capture, totals_t *totals) KS_REQUIRES(writing_);
    void write(const changes_t &changes, totals_t *totals) KS_REQUIRES(writing_);
    totals_t commit_and_count(const changes_t &changes, durability_t durability);

    // Runs `read` with a free reader, within a transaction: one state of the catalogue.
    template <typename read_t>
    auto with_reader(read_t read);
    std::unique_ptr<connection_t> take_reader();
    void give_back(std::unique_ptr<connection_t> reader);

    const file_lock_t file_lock_;
    lock_t writing_;
    std::unique_ptr<connection_t> writer_ KS_GUARDED_BY(writing_);
    bool synchronous_ KS_GUARDED_BY(writing_) = false; // each commit reaches the disk
    totals_t counted_ KS_GUARDED_BY(writing_);         // without leaving_bytes and oldest_sealed
    lock_t counting_;
    totals_t totals_ KS_GUARDED_BY(counting_); // the same, for those who must not wait for the disk
    lock_t reading_;
    condition_t reader_free_;
    std::vector<std::unique_ptr<connection_t>> readers_ KS_GUARDED_BY(reading_);
};

sqlite_catalogue_t::sqlite_catalogue_t(const std::filesystem::path &file)
    : file_lock_(file.string() + ".lock")
{
    make_file(file);
    {
        hold_lock_t writing(writing_);
        writer_ = std::make_unique<connection_t>(file, true);
        prepare_schema(file);
        count_all();
    }
    commit({}, durability_t::ORDERLY); // nothing; the totals are published
    hold_lock_t reading(reading_);
    for (size_t i = 0; i < READERS; i++) {
        readers_.push_back(std::make_unique<connection_t>(file, false));
    }
}

void sqlite_catalogue_t::prepare_schema(const std::filesystem::path &file)
{
    const uint64_t version = writer_->number("PRAGMA user_version");
    if (version > SCHEMA_VERSION) {
        fail_file(file, catalogue_failure_t::NEWER, "a newer kestrune-manager made this catalogue");
    }
    const std::string damage = writer_->text("PRAGMA quick_check(1)");
    if (damage != "ok") {
        fail_file(file, catalogue_failure_t::DAMAGED, damage);
    }
    writer_->execute("PRAGMA journal_mode = WAL; PRAGMA synchronous = NORMAL");
    if (version == 0) {
        transaction_t transaction(writer_.get(), "BEGIN IMMEDIATE");
        writer_->execute(SCHEMA);
        writer_->execute(SET_VERSION.c_str());
        transaction.commit();
    }
}

void sqlite_catalogue_t::count_all()
{
    totals_t totals;
    statement_t rows =
        writer_->prepare("SELECT state, count(*), total(file_bytes) FROM captures GROUP BY state");
    while (rows.step()) {
        const auto state = rows.as<capture_state_t>();
        totals.by_state.at(static_cast<size_t>(state)) = rows.number();
        const uint64_t bytes = rows.number();
        totals.sealed_bytes += state == capture_state_t::SEALED ? bytes : 0;
        totals.deleted_bytes_ever += state == capture_state_t::DELETED ? bytes : 0;
    }
    totals.sealed_bytes_ever = totals.sealed_bytes + totals.deleted_bytes_ever;
    counted_ = totals;
}

// It can only change between transactions.
void sqlite_catalogue_t::set_durability(durability_t durability)
{
    const bool synchronous = durability == durability_t::DURABLE;
    if (synchronous != synchronous_) {
        writer_->execute(synchronous ? "PRAGMA synchronous = FULL" : "PRAGMA synchronous = NORMAL");
        synchronous_ = synchronous;
    }
}

void sqlite_catalogue_t::count_change(const capture_t &capture, totals_t *totals)
{
    const auto count = [totals](capture_state_t state, uint64_t bytes, uint64_t one) { // one: 1, or minus 1
        totals->by_state.at(static_cast<size_t>(state)) += one;
        totals->sealed_bytes += state == capture_state_t::SEALED ? one * bytes : 0;
        totals->deleted_bytes_ever += state == capture_state_t::DELETED ? one * bytes : 0;
    };
    statement_t before = writer_->prepare("SELECT state, file_bytes FROM captures WHERE id = ?");
    if (before.bind(capture.id).step()) {
        const auto state = before.as<capture_state_t>();
        count(state, before.number(), UINT64_MAX);
    }
    count(capture.state, capture.file ? capture.file->bytes : 0, 1);
    totals->sealed_bytes_ever = totals->sealed_bytes + totals->deleted_bytes_ever;
}

void sqlite_catalogue_t::write(const changes_t &changes, totals_t *totals)
{
    transaction_t transaction(writer_.get(), "BEGIN IMMEDIATE");
    if (changes.empty() && synchronous_) {
        writer_->execute(SET_VERSION.c_str()); // the same as before, and yet a page that is written
    }
    for (const capture_t *capture : changes.captures) {
        count_change(*capture, totals);
        write_capture(writer_.get(), *capture);
    }
    for (const audit_t &row : changes.audit) {
        write_audit(writer_.get(), row);
    }
    for (const kept_answer_t &answer : changes.kept_answers) {
        write_kept_answer(writer_.get(), answer);
    }
    transaction.commit();
}

void sqlite_catalogue_t::commit(const changes_t &changes, durability_t durability)
{
    const totals_t totals = commit_and_count(changes, durability);
    hold_lock_t counting(counting_);
    totals_ = totals;
}

totals_t sqlite_catalogue_t::commit_and_count(const changes_t &changes, durability_t durability)
{
    hold_lock_t writing(writing_);
    totals_t totals = counted_;
    set_durability(durability);
    write(changes, &totals);
    counted_ = totals;
    const int pages = writer_->log_pages();
    if (pages > LOG_PAGES_MAX || (pages > LOG_PAGES && durability == durability_t::ORDERLY)) {
        writer_->checkpoint();
    }
    return totals;
}

std::unique_ptr<connection_t> sqlite_catalogue_t::take_reader()
{
    hold_lock_t reading(reading_);
    while (readers_.empty()) {
        reader_free_.wait(reading_);
    }
    std::unique_ptr<connection_t> reader = std::move(readers_.back());
    readers_.pop_back();
    return reader;
}

void sqlite_catalogue_t::give_back(std::unique_ptr<connection_t> reader)
{
    {
        hold_lock_t reading(reading_);
        readers_.push_back(std::move(reader));
    }
    reader_free_.notify_one();
}

template <typename read_t>
auto sqlite_catalogue_t::with_reader(read_t read)
{
    struct loan_t {
        sqlite_catalogue_t *owner;
        std::unique_ptr<connection_t> reader;
        ~loan_t() { owner->give_back(std::move(reader)); }
    };
    const loan_t loan = {this, take_reader()};
    transaction_t transaction(loan.reader.get(), "BEGIN");
    auto result = read(loan.reader.get());
    transaction.commit();
    return result;
}

std::vector<capture_t> sqlite_catalogue_t::find_all(const std::vector<ulid_t> &ids)
{
    static const std::string SQL = "SELECT " + CAPTURE_COLUMNS + " FROM captures WHERE id = ?";
    return with_reader([&ids](connection_t *reader) {
        std::vector<capture_t> captures;
        for (const ulid_t &id : ids) {
            statement_t row = reader->prepare(SQL);
            if (row.bind(id).step()) {
                captures.push_back(read_capture(reader, &row));
            }
        }
        return captures;
    });
}

std::optional<capture_t> sqlite_catalogue_t::find(const ulid_t &id)
{
    std::vector<capture_t> found = find_all({id});
    return found.empty() ? std::nullopt : std::optional(std::move(found.front()));
}

capture_page_t sqlite_catalogue_t::query(const capture_query_t &query)
{
    return with_reader([&query](connection_t *reader) { return query_captures(reader, query); });
}

std::vector<capture_t> sqlite_catalogue_t::unfinished()
{
    static const std::string SQL = "SELECT " + CAPTURE_COLUMNS + " FROM captures WHERE open = 1 ORDER BY id";
    return with_reader([](connection_t *reader) {
        std::vector<capture_t> captures;
        statement_t rows = reader->prepare(SQL);
        while (rows.step()) {
            captures.push_back(read_capture(reader, &rows));
        }
        return captures;
    });
}

std::unordered_map<ulid_t, capture_state_t> sqlite_catalogue_t::states(const std::vector<ulid_t> &ids)
{
    return with_reader([&ids](connection_t *reader) {
        std::unordered_map<ulid_t, capture_state_t> states;
        for (const ulid_t &id : ids) {
            statement_t row = reader->prepare("SELECT state FROM captures WHERE id = ?");
            if (row.bind(id).step()) {
                states[id] = row.as<capture_state_t>();
            }
        }
        return states;
    });
}

std::vector<candidate_t> sqlite_catalogue_t::oldest_sealed(size_t most)
{
    return with_reader([most](connection_t *reader) {
        std::vector<candidate_t> candidates;
        statement_t rows =
            reader->prepare("SELECT id, requested_at, sealed_at, file_bytes FROM captures "
                            "WHERE state = ? AND hold_at IS NULL ORDER BY requested_at LIMIT ?");
        rows.bind(static_cast<uint64_t>(capture_state_t::SEALED)).bind(uint64_t{most});
        while (rows.step()) {
            const ulid_t id = rows.id();
            const uint64_t requested_at = rows.number();
            const uint64_t sealed_at = rows.number();
            candidates.push_back({id, requested_at, sealed_at, rows.number()});
        }
        return candidates;
    });
}

std::vector<ulid_t> sqlite_catalogue_t::expired_lookups(uint64_t now, size_t most)
{
    return with_reader([now, most](connection_t *reader) {
        std::vector<ulid_t> ids;
        statement_t rows =
            reader->prepare("SELECT id FROM captures WHERE lookup_until > 0 AND lookup_until < ? "
                            "AND +state IN (?, ?, ?) AND hold_at IS NULL ORDER BY lookup_until LIMIT ?");
        rows.bind(now);
        for (const capture_state_t over :
             {capture_state_t::FINISHED, capture_state_t::SEALED, capture_state_t::FAILED}) {
            rows.bind(static_cast<uint64_t>(over));
        }
        rows.bind(uint64_t{most});
        while (rows.step()) {
            ids.push_back(rows.id());
        }
        return ids;
    });
}

std::optional<kept_answer_t> sqlite_catalogue_t::kept_answer(const std::string &who, const std::string &key,
                                                             uint64_t now)
{
    return with_reader([&](connection_t *reader) {
        statement_t row = reader->prepare("SELECT who, key, body_sha256, at, created, ids FROM kept_answers "
                                          "WHERE who = ? AND key = ? AND at > ?");
        row.bind_text(who).bind_text(key).bind(now > KEY_KEPT_NS ? now - KEY_KEPT_NS : 0);
        return row.step() ? std::optional(read_kept_answer(&row)) : std::nullopt;
    });
}

audit_page_t sqlite_catalogue_t::audit(uint64_t before, uint32_t limit)
{
    return with_reader([before, limit](connection_t *reader) {
        audit_page_t page;
        statement_t rows =
            reader->prepare("SELECT number, at, who, origin, action, object, detail FROM audit "
                            "WHERE number < ? ORDER BY number DESC LIMIT ?");
        rows.bind(before == 0 ? EVERYTHING : before).bind(uint64_t{limit} + 1);
        while (rows.step()) {
            if (page.audit.size() == limit) {
                page.next = page.audit.back().number;
                break;
            }
            audit_t &row = page.audit.emplace_back();
            row.number = rows.number();
            row.at = rows.number();
            row.who = rows.text();
            row.from = rows.text();
            row.action = rows.text();
            row.object = rows.text();
            row.detail = rows.text();
        }
        return page;
    });
}

totals_t sqlite_catalogue_t::totals()
{
    const auto [oldest, leaving] = with_reader([](connection_t *reader) {
        statement_t row = reader->prepare("SELECT min(requested_at) FROM captures WHERE state = ?");
        row.bind(static_cast<uint64_t>(capture_state_t::SEALED));
        statement_t sum =
            reader->prepare("SELECT total(file_bytes) FROM captures WHERE open = 1 AND +state = ?");
        sum.bind(static_cast<uint64_t>(capture_state_t::DELETED));
        return std::pair(row.step() ? row.number() : 0, sum.step() ? sum.number() : 0);
    });
    hold_lock_t counting(counting_);
    totals_t totals = totals_;
    totals.leaving_bytes = leaving;
    totals.oldest_sealed = oldest;
    return totals;
}

ulid_t sqlite_catalogue_t::newest_id()
{
    return with_reader([](connection_t *reader) {
        statement_t row = reader->prepare("SELECT id FROM captures ORDER BY id DESC LIMIT 1");
        return row.step() ? row.id() : ulid_t();
    });
}

} // namespace

std::unique_ptr<catalogue_t> open_catalogue(const std::filesystem::path &file)
{
    return std::make_unique<sqlite_catalogue_t>(file);
}

} // namespace kestrune::manager
