// Growing files on a memory file system, and the floor of writing a packet: the two system calls alone.
#pragma once

#include "storage/pcap_writer.h"
#include "traffic.h"

#include <array>
#include <benchmark/benchmark.h>
#include <cstdint>
#include <fcntl.h>
#include <string>
#include <sys/uio.h>
#include <unistd.h>
#include <vector>

namespace append {

constexpr int BATCH = 1000; // records before the file is truncated, with the clock stopped

inline std::string scratch(const std::string &name)
{
    return "/dev/shm/kestrune-bench-" + std::to_string(getpid()) + "-" + name;
}

inline void cut(int fd)
{
    if (ftruncate(fd, PCAP_HEADER_SIZE) == 0) {
        lseek(fd, PCAP_HEADER_SIZE, SEEK_SET);
    }
}

// Batches of `write_one` on a file that `fd` writes.
template <typename F>
void batches(benchmark::State &state, int fd, F write_one)
{
    bool written = fd >= 0;
    for (auto _ : state) {
        for (int i = 0; i < BATCH; i++) {
            written &= write_one();
        }
        state.PauseTiming();
        cut(fd);
        state.ResumeTiming();
    }
    if (!written) {
        state.SkipWithError("a record was not written");
    }
    state.SetItemsProcessed(state.iterations() * BATCH); // records a second
    state.counters["each"] = traffic::time_each(static_cast<double>(state.iterations() * BATCH));
}

// The same bytes with lseek and writev alone.
inline void bare(benchmark::State &state)
{
    const auto length = static_cast<uint32_t>(state.range(0));
    std::vector<uint8_t> data(length);
    const std::string path = scratch("bare");
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    cut(fd);
    batches(state, fd, [&] {
        uint32_t header[4] = {1, 2, length, length};
        const std::array<iovec, 2> pieces = {{{header, sizeof header}, {data.data(), length}}};
        return lseek(fd, 0, SEEK_CUR) >= 24 && writev(fd, pieces.data(), 2) == ssize_t{16} + length;
    });
    close(fd);
    unlink(path.c_str());
}

} // namespace append
