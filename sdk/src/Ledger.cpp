#include "sdk/Ledger.h"

#include "sdk/Mutex.h"

#include <numeric>
#include <utility>

namespace SDK {

namespace {

struct Registry {
    Mutex m_mutex;
    std::uint64_t m_opened SDK_GUARDED_BY(m_mutex) = 0;
    std::map<std::uint64_t, OpenLedger::Source> m_sources SDK_GUARDED_BY(m_mutex);

    std::uint64_t Add(OpenLedger::Source source) {
        const LockGuard lock(m_mutex);
        m_sources.emplace(++m_opened, std::move(source));
        return m_opened;
    }
};

Registry& AllLedgers() {
    // Never destroyed: modules may close theirs until the very end of the process.
    static auto* const registry = new Registry;
    return *registry;
}

std::uint64_t Sum(const std::map<std::string, std::uint64_t>& counts) {
    return std::accumulate(counts.begin(), counts.end(), std::uint64_t{0},
                           [](std::uint64_t sum, const auto& count) { return sum + count.second; });
}

}  // namespace

std::uint64_t Ledger::Filtered() const { return Sum(m_filtered); }

std::uint64_t Ledger::Lost() const { return Sum(m_lost); }

OpenLedger::OpenLedger(Source source) : m_number(AllLedgers().Add(std::move(source))) {}

OpenLedger::~OpenLedger() {
    Registry& registry = AllLedgers();
    const LockGuard lock(registry.m_mutex);
    registry.m_sources.erase(m_number);
}

std::vector<Ledger> OpenLedger::ReadAll() {
    Registry& registry = AllLedgers();
    const LockGuard lock(registry.m_mutex);
    std::vector<Ledger> ledgers;
    ledgers.reserve(registry.m_sources.size());
    for (const auto& [number, source] : registry.m_sources) {
        ledgers.push_back(source());
    }
    return ledgers;
}

}  // namespace SDK
