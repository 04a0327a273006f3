// What one client may take of the server. Times hold for a whole step, whatever trickles in meanwhile.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>

namespace kestrune::manager {

constexpr uint32_t HEADER_MAX = 16 * 1024; // bytes
constexpr uint64_t BODY_MAX = 1024 * 1024; // bytes
constexpr size_t CONNECTIONS_MAX = 512;
constexpr size_t WORKER_COUNT = 4;
constexpr size_t WAITING_MAX = 256; // requests for a worker
constexpr size_t LISTENERS_MAX = 64;

constexpr size_t ANSWER_STEP = 64 * 1024; // bytes that must leave within ANSWER_TIME
constexpr uint64_t FILE_PIECE =
    1024 * 1024; // bytes that a worker sends at most before others have their turn
constexpr uint64_t LEFTOVER_MAX = 2 * BODY_MAX; // bytes of a refused body that are read and thrown away

constexpr std::chrono::seconds HEADER_TIME{10};
constexpr std::chrono::seconds BODY_TIME{30};
constexpr std::chrono::seconds IDLE_TIME{60};
constexpr std::chrono::seconds ANSWER_TIME{30};
constexpr std::chrono::seconds LEFTOVER_TIME{2};
constexpr std::chrono::seconds COMMENT_PERIOD{
    15}; // of a listener's stream, which keeps proxies from closing it
constexpr std::chrono::seconds TICKET_TIME{300};

constexpr unsigned WRONG_TOKENS_MAX = 10; // a minute and address; from the next on the answer is 429
constexpr size_t WRONG_ADDRESSES_MAX = 4096;
constexpr std::chrono::seconds WRONG_TOKENS_PERIOD{60};

} // namespace kestrune::manager
