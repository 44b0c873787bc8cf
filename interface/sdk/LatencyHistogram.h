#pragma once

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>

namespace SDK {

/// How long things took: how many of them fell between each two of a few bounds, and the sum of
/// all. What it costs to add one does not depend on how many there were.
///
/// Threads: one at a time; who counts guards it as the rest of its books.
class LatencyHistogram {
public:
    using Duration = std::chrono::nanoseconds;

    /// What a bucket counts up to, itself included. They lie close around 2 and 10 ms, within which
    /// half and 99 of a hundred alarms are to be out.
    static constexpr std::array<Duration, 12> BOUNDS = {
        std::chrono::microseconds(250), std::chrono::microseconds(500),
        std::chrono::milliseconds(1),   std::chrono::milliseconds(2),
        std::chrono::milliseconds(5),   std::chrono::milliseconds(10),
        std::chrono::milliseconds(25),  std::chrono::milliseconds(50),
        std::chrono::milliseconds(100), std::chrono::milliseconds(250),
        std::chrono::seconds(1),        std::chrono::seconds(10)};

    /// Each bucket by itself; the last one is for what took longer than all bounds.
    using Counts = std::array<std::uint64_t, BOUNDS.size() + 1>;

    /// Adds what took so long. Less than nothing, as between two clocks, is nothing.
    void Add(Duration latency);

    const Counts& GetCounts() const { return m_counts; }

    /// How many were added.
    std::uint64_t Count() const;

    /// What all took together, in seconds. A number of nanoseconds would run over within a day when
    /// everything is late.
    double SumS() const { return m_sumS; }

private:
    Counts m_counts{};
    double m_sumS = 0;
};

}  // namespace SDK
