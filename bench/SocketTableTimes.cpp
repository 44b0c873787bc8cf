// SocketTableTimes [TIMES]: reads the socket table of this host, with both sources of holders, and
// prints for each the milliseconds of every reading, one line a source. What it is compared with,
// and the host that it is read on, are made by net_bench.py.

#include "HolderChoice.h"
#include "SocketTable.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>

namespace {

using Clock = std::chrono::steady_clock;

int Measure(const char* source, int times) {
    auto holders = NetCollect::StartHolderSource(source);
    if (holders == nullptr) {
        std::fprintf(stderr, "source %s does not work here\n", source);
        return 1;
    }
    NetCollect::SocketTable sockets(std::move(holders));
    std::printf("%s", source);
    std::size_t rows = 0;
    for (int i = 0; i < times; ++i) {
        NetCollect::SocketTable::Table table;
        const auto start = Clock::now();
        sockets.Read(table);
        std::printf(" %.3f",
                    std::chrono::duration<double, std::milli>(Clock::now() - start).count());
        rows = table.size();
    }
    std::printf(" rows %lu\n", static_cast<unsigned long>(rows));
    return 0;
}

}  // namespace

int main(int count, char** arguments) {
    const int times = count > 1 ? std::atoi(arguments[1]) : 5;
    return Measure("bpf", times) + Measure("proc", times);
}
