#include "http/tickets.h"

#include "http/limits.h"
#include "http/tokens.h"

#include <algorithm>
#include <openssl/sha.h>

namespace kestrune::manager {
namespace {

constexpr size_t TICKET_BYTES = 16; // random ones

} // namespace

tickets_t::digest_t tickets_t::digest_of(std::string_view ticket)
{
    digest_t digest = {};
    SHA256(reinterpret_cast<const unsigned char *>(ticket.data()), ticket.size(), digest.data());
    return digest;
}

std::string tickets_t::make(const ulid_t &id, const std::string &who)
{
    std::string text = random_hex(TICKET_BYTES);
    const auto now = std::chrono::steady_clock::now();
    const hold_lock_t hold(lock_);
    std::erase_if(tickets_, [now](const auto &item) { return item.second.until <= now; });
    if (tickets_.size() >= MOST) {
        tickets_.erase(std::min_element(tickets_.begin(), tickets_.end(), [](const auto &a, const auto &b) {
            return a.second.until < b.second.until;
        }));
    }
    tickets_[digest_of(text)] = {id, who, now + TICKET_TIME};
    return text;
}

std::optional<std::string> tickets_t::owner(std::string_view ticket, const ulid_t &id) const
{
    const digest_t digest = digest_of(ticket);
    const hold_lock_t hold(lock_);
    const auto found = tickets_.find(digest);
    if (found == tickets_.end() || found->second.id != id ||
        found->second.until <= std::chrono::steady_clock::now()) {
        return std::nullopt;
    }
    return found->second.who;
}

} // namespace kestrune::manager
