#include "ProcessCollectModule.h"

#include "FullTask.h"
#include "ProcessCollector.h"
#include "RealTask.h"
#include "SourceChoice.h"
#include "sdk/ProcessUtils.h"

#include <Poco/Util/AbstractConfiguration.h>
#include <Poco/Util/Application.h>

#include <cstdint>

namespace ProcessCollect {

namespace {

// Room for some ten thousand short-lived commands while the collector is held up. The mapping is
// counted twice in the agent's resident memory, because the ring is mapped twice in a row.
constexpr std::uint64_t kDefaultRingBytes = std::uint64_t{4} << 20;

// The kernel takes at most this much in one ring (RINGBUF_MAX_DATA_SZ is beyond it).
constexpr std::uint64_t kMaxRingBytes = std::uint64_t{1} << 30;

std::string ReadChoice() {
    return Poco::Util::Application::instance().config().getString("process_collect.source", "auto");
}

}  // namespace

ProcessCollectModule::ProcessCollectModule() : Framework::Module("process_collect_module") {}

ProcessCollectModule::~ProcessCollectModule() = default;

int ProcessCollectModule::Init() {
    if (!StartCollector()) {
        m_collector.reset();
        return -1;
    }
    if (!StartTasks()) {
        UnInit();
        return -1;
    }
    SDK::ProcessUtils::SetLookup(
        [collector = m_collector](int pid, SDK::ProcessUtils::procRecord& record) {
            return collector->Lookup(pid, record);
        });
    OpenBooks();
    return 0;
}

int ProcessCollectModule::UnInit() {
    SDK::ProcessUtils::SetLookup(nullptr);
    m_books.reset();
    const int result = Framework::Module::UnInit();
    if (m_collector != nullptr) {
        m_collector->Stop();
    }
    m_realTask = nullptr;
    m_fullTask = nullptr;
    m_collector.reset();
    return result;
}

bool ProcessCollectModule::StartCollector() {
    const std::uint64_t ringBytes =
        ReadNumber("process_collect.ring_bytes", kDefaultRingBytes, kMaxRingBytes);
    ProcessCollector::Limits limits;
    limits.m_backlog = ReadNumber("process_collect.backlog", limits.m_backlog, UINT32_MAX);
    std::unique_ptr<ProcessSource> source = StartSource(ReadChoice(), ringBytes);
    if (source == nullptr) {
        return false;
    }
    m_collector = std::make_shared<ProcessCollector>(std::move(source), limits);
    return m_collector->Start();
}

bool ProcessCollectModule::StartTasks() {
    m_realTask = new RealTask(m_collector);
    m_fullTask = new FullTask(m_collector);
    return RegisterTask(m_realTask.get(), false) == 0 && RegisterTask(m_fullTask.get(), true) == 0;
}

void ProcessCollectModule::OpenBooks() {
    const bool fallback = m_collector->SourceName() != "bpf" && ReadChoice() == "auto";
    m_books = std::make_unique<SDK::OpenLedger>([collector = m_collector, fallback] {
        SDK::Ledger books = collector->GetLedger();
        if (fallback) {
            books.m_trouble =
                "eBPF does not work here, so commands of processes that end at once may be missed";
        }
        return books;
    });
}

}  // namespace ProcessCollect
