#include "catalogue/query.h"

#include "catalogue/rows.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <stdexcept>
#include <variant>

namespace kestrune::manager {

namespace {

using value_t = std::variant<uint64_t, std::string, blob_t, ulid_t>;

// A column to sort by, its letter in cursors. Equal ones are in the order of the ids.
struct order_t {
    const char *column;
    char letter;
};
constexpr std::array<order_t, 4> ORDERS = {
    {{"requested_at", 't'}, {"address", 'a'}, {"packets", 'p'}, {"coalesce(file_bytes, 0)", 'b'}}};

const order_t &order_of(const capture_query_t &query)
{
    return ORDERS.at(static_cast<size_t>(query.sort));
}

class condition_list_t {
public:
    template <typename... values_t>
    void add(const std::string &term, values_t... values)
    {
        sql_ += (sql_.empty() ? " WHERE " : " AND ") + term;
        (values_.emplace_back(std::move(values)), ...);
    }
    const std::string &sql() const { return sql_; }
    void bind(statement_t *statement) const
    {
        for (const value_t &value : values_) {
            if (const auto *number = std::get_if<uint64_t>(&value)) {
                statement->bind(*number);
            } else if (const auto *text = std::get_if<std::string>(&value)) {
                statement->bind_text(*text);
            } else if (const auto *blob = std::get_if<blob_t>(&value)) {
                statement->bind_blob(blob->data(), blob->size());
            } else {
                statement->bind(std::get<ulid_t>(value));
            }
        }
    }

private:
    std::string sql_;
    std::vector<value_t> values_;
};

std::string like_pattern(const std::string &text)
{
    std::string pattern = "%";
    for (const char c : text) {
        if (c == '%' || c == '_' || c == '\\') {
            pattern += '\\';
        }
        pattern += c;
    }
    return pattern + '%';
}

// A plus sign keeps SQLite from choosing the index of this column, where another one serves better: the address's, or
// for several states the one in the order that is asked for.
void add_states(const capture_query_t &query, condition_list_t *conditions)
{
    if (query.states.empty()) {
        conditions->add("state <> ?", static_cast<uint64_t>(capture_state_t::DELETED));
        return;
    }
    std::string list;
    for (const capture_state_t state : query.states) {
        list += (list.empty() ? "" : ", ") + std::to_string(static_cast<int>(state));
    }
    const bool by_index = query.states.size() == 1 && !query.addr && query.sort == sort_t::TIME;
    conditions->add((by_index ? "state IN (" : "+state IN (") + list + ")");
}

[[noreturn]] void refuse_cursor()
{
    throw std::invalid_argument("the cursor is not one that this query gave");
}

// LETTER VALUE . ULID; a value is a number, or the address key in hexadecimal digits.
std::string cursor_of(const capture_query_t &query, const capture_t &last)
{
    std::string value;
    switch (query.sort) {
    case sort_t::TIME:
        value = std::to_string(last.requested_at);
        break;
    case sort_t::ADDRESS:
        for (const uint8_t byte : address_key(last.addr)) {
            value += "0123456789abcdef"[byte >> 4];
            value += "0123456789abcdef"[byte & 15];
        }
        break;
    case sort_t::PACKETS:
        value = std::to_string(last.file ? last.file->packets : live_packets(last) + history_packets(last));
        break;
    case sort_t::BYTES:
        value = std::to_string(last.file ? last.file->bytes : 0);
        break;
    }
    return order_of(query).letter + value + '.' + last.id.text();
}

template <typename number_t>
number_t parse_whole(std::string_view text, int base)
{
    number_t number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number, base);
    if (error != std::errc() || end != text.data() + text.size()) {
        refuse_cursor();
    }
    return number;
}

value_t parse_cursor_value(const capture_query_t &query, std::string_view text)
{
    if (query.sort != sort_t::ADDRESS) {
        return parse_whole<uint64_t>(text, 10);
    }
    blob_t key;
    for (; text.size() >= 2; text.remove_prefix(2)) {
        key.push_back(parse_whole<uint8_t>(text.substr(0, 2), 16));
    }
    return key;
}

void add_cursor(const capture_query_t &query, condition_list_t *conditions)
{
    const std::string_view cursor = query.cursor;
    const size_t dot = cursor.find('.');
    if (cursor.front() != order_of(query).letter || dot == std::string_view::npos) {
        refuse_cursor();
    }
    const std::optional<ulid_t> id = parse_ulid(cursor.substr(dot + 1));
    if (!id) {
        refuse_cursor();
    }
    conditions->add("(" + std::string(order_of(query).column) + ", id) " + (query.descending ? "<" : ">") +
                        " (?, ?)",
                    parse_cursor_value(query, cursor.substr(1, dot - 1)), value_t(*id));
}

condition_list_t conditions_of(const capture_query_t &query)
{
    condition_list_t conditions;
    if (query.addr) {
        conditions.add("address = ?", address_key(*query.addr));
    }
    conditions.add("lookup_until = 0");
    add_states(query, &conditions);
    if (query.since != 0) {
        conditions.add("requested_at >= ?", query.since);
    }
    if (query.until != 0) {
        conditions.add("requested_at < ?", query.until);
    }
    if (!query.probe.empty()) {
        conditions.add("EXISTS (SELECT 1 FROM parts WHERE capture = captures.id AND probe = ?)", query.probe);
    }
    if (!query.text.empty()) {
        const std::string like = like_pattern(query.text);
        conditions.add(
            R"((reason LIKE ? ESCAPE '\' OR requested_by LIKE ? ESCAPE '\' OR reference LIKE ? ESCAPE '\'))",
            like, like, like);
    }
    if (!query.cursor.empty()) {
        add_cursor(query, &conditions);
    }
    return conditions;
}

} // namespace

capture_page_t query_captures(connection_t *connection, const capture_query_t &query)
{
    const condition_list_t conditions = conditions_of(query);
    const std::string direction = query.descending ? " DESC" : " ASC";
    statement_t rows = connection->prepare("SELECT " + CAPTURE_COLUMNS + " FROM captures" + conditions.sql() +
                                           " ORDER BY " + order_of(query).column + direction + ", id" +
                                           direction + " LIMIT " + std::to_string(query.limit + 1));
    conditions.bind(&rows);
    capture_page_t page;
    while (rows.step()) {
        if (page.captures.size() == query.limit) {
            page.next = cursor_of(query, page.captures.back());
            break;
        }
        page.captures.push_back(read_capture(connection, &rows));
    }
    return page;
}

} // namespace kestrune::manager
