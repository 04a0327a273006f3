#include "captures/book.h"

#include <algorithm>
#include <utility>

namespace kestrune::manager {

entry_t *book_t::find(const ulid_t &id)
{
    const auto found = entries_.find(id);
    return found == entries_.end() ? nullptr : found->second.get();
}

const std::vector<ulid_t> &book_t::of(const ip_addr_t &addr) const
{
    static const std::vector<ulid_t> NONE;
    const auto found = by_addr_.find(addr);
    return found == by_addr_.end() ? NONE : found->second;
}

entry_t &book_t::add(capture_t capture)
{
    const ulid_t id = capture.id;
    auto entry = std::make_unique<entry_t>();
    entry->name = id.text();
    entry->runs.resize(capture.parts.size());
    std::vector<ulid_t> &same_addr = by_addr_[capture.addr];
    same_addr.insert(std::upper_bound(same_addr.begin(), same_addr.end(), id), id);
    entry->capture = std::move(capture);
    before_.emplace(id, std::nullopt);
    return *(entries_[id] = std::move(entry));
}

void book_t::touch(const entry_t &entry)
{
    before_.try_emplace(entry.capture.id, entry);
}

void book_t::mark(const entry_t &entry)
{
    touch(entry);
    if (is_marked_.insert(entry.capture.id).second) {
        marked_.push_back(entry.capture.id);
    }
}

std::vector<const capture_t *> book_t::marked() const
{
    std::vector<const capture_t *> captures;
    captures.reserve(marked_.size());
    for (const ulid_t &id : marked_) {
        captures.push_back(&entries_.at(id)->capture);
    }
    return captures;
}

std::vector<ulid_t> book_t::touched() const
{
    std::vector<ulid_t> ids;
    ids.reserve(before_.size());
    for (const auto &[id, entry] : before_) {
        ids.push_back(id);
    }
    return ids;
}

void book_t::keep()
{
    before_.clear();
    marked_.clear();
    is_marked_.clear();
}

void book_t::undo()
{
    for (auto &[id, entry] : before_) {
        if (entry) {
            *entries_.at(id) = std::move(*entry);
        } else {
            drop(id);
        }
    }
    keep();
}

void book_t::drop(const ulid_t &id)
{
    const auto found = entries_.find(id);
    if (found == entries_.end()) {
        return;
    }
    unlink(found->second->capture.addr, id);
    entries_.erase(found);
}

void book_t::unlink(const ip_addr_t &addr, const ulid_t &id)
{
    const auto same_addr = by_addr_.find(addr);
    if (same_addr == by_addr_.end()) {
        return;
    }
    std::erase(same_addr->second, id);
    if (same_addr->second.empty()) {
        by_addr_.erase(same_addr);
    }
}

} // namespace kestrune::manager
