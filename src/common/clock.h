// The system's clocks in nanoseconds, for the plugin, the probe and the client.
//
// Threads: any. Nothing here is a cancellation point.
#pragma once

#include <cstdint>
#include <ctime>

constexpr uint64_t NS_PER_S = 1'000'000'000;
constexpr uint64_t NS_PER_MS = 1'000'000;

inline uint64_t clock_now_ns(clockid_t clock)
{
    timespec now = {};
    clock_gettime(clock, &now);
    return static_cast<uint64_t>(now.tv_sec) * NS_PER_S + static_cast<uint64_t>(now.tv_nsec);
}

inline uint64_t monotonic_now_ns()
{
    return clock_now_ns(CLOCK_MONOTONIC);
}

// Since the Unix epoch.
inline uint64_t wall_now_ns()
{
    return clock_now_ns(CLOCK_REALTIME);
}

inline timespec timespec_of(uint64_t ns)
{
    return {static_cast<time_t>(ns / NS_PER_S), static_cast<long>(ns % NS_PER_S)};
}
