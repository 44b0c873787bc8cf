#include "RecordTask.h"

#include "AgentLog.h"
#include "SocketChanges.h"
#include "filenotify/FileNotifyWatchMessage.h"
#include "framework/Engine.h"
#include "net_collect/NetProcsFullTask.h"
#include "process_collect/ProcsFullTask.h"
#include "process_collect/ProcsRegistMessage.h"
#include "sdk/FileUtils.h"
#include "sdk/ProcessUtils.h"

#include <algorithm>
#include <filesystem>
#include <iterator>
#include <system_error>
#include <utility>

namespace Agent {

namespace {

using Engine::FileNotifyMessage;
using Engine::ProcsMessage;
using Kind = RecordedEvent::Kind;

// A disk that stands still for a second must not cost a fork storm's events; what comes after that
// waits with the collectors.
constexpr unsigned int kInboxCapacity = 65536;
constexpr int kBatch = 1024;

// As often as the detection looks at the sockets.
constexpr std::chrono::seconds kLookPeriod(10);

// Losses that go on must not be answered by nothing but snapshots.
constexpr std::chrono::seconds kSnapshotPeriod(1);

/// A task of a collector that answers calls, or null.
template <typename TaskT>
TaskT* FindCollector(const char* name) {
    Framework::Engine* engine = Framework::Engine::Current();
    return dynamic_cast<TaskT*>(engine == nullptr ? nullptr : engine->FindTask(name));
}

/// What the kernel had no room for, by what it was.
std::map<std::string, std::uint64_t> ReadCollectorLosses() {
    std::map<std::string, std::uint64_t> losses;
    for (const SDK::Ledger& ledger : SDK::OpenLedger::ReadAll()) {
        for (const char* reason : {"in_kernel", "times_in_kernel"}) {
            const auto found = ledger.m_lost.find(reason);
            if (found != ledger.m_lost.end()) {
                losses[ledger.m_name + ' ' + reason] = found->second;
            }
        }
    }
    return losses;
}

/// Where a path leads; "" when it leads nowhere.
std::string RealPath(const std::string& path) {
    std::error_code error;
    return std::filesystem::canonical(path, error).string();
}

}  // namespace

RecordTask::RecordTask(std::unique_ptr<Recording> recording)
    : Framework::Task(NAME, "", Framework::TaskCondition::RESIDENT_TASK, kInboxCapacity),
      m_recording(std::move(recording)) {}

RecordTask::~RecordTask() = default;

void RecordTask::TakeDirectories(std::set<std::string> directories) {
    {
        const SDK::LockGuard lock(m_mutex);
        m_directories = std::move(directories);
    }
    GetEventWaiter().Wakeup();
}

int RecordTask::Init() {
    m_collectorLosses = ReadCollectorLosses();
    Subscribe<Engine::ProcsRegistMessage>();
    m_subscribed = true;
    return 0;
}

int RecordTask::UnInit() {
    Unsubscribe();
    TakeRest();
    TakeLastSockets();
    NoteLosses();
    NoteCollectorLosses();
    m_recording->End("stopped");
    return Framework::Task::UnInit();
}

int RecordTask::Run() {
    if (!std::exchange(m_begun, true)) {
        TakeSnapshot();
        TakeSockets();
    }
    while (state() != TASK_CANCELLING) {
        FollowDirectories();
        m_recording->Flush();
        if (m_recording->Ended()) {
            Unsubscribe();  // it costs nothing more
        }
        if (GetEventWaiter().WaitAndHandleEvent(MillisecondsLeft(), kBatch) == -1 ||
            !m_held.empty()) {
            TakeEvents();
        }
        NoteLosses();
        if (Clock::now() >= m_nextLook) {
            TakeSockets();
            NoteCollectorLosses();
        }
    }
    return 0;
}

int RecordTask::MillisecondsLeft() const {
    using std::chrono::milliseconds;
    if (!m_held.empty()) {
        return 0;
    }
    const auto left = std::chrono::ceil<milliseconds>(m_nextLook - Clock::now());
    return static_cast<int>(std::max(milliseconds(0), left).count());
}

template <typename MessageT>
void RecordTask::Subscribe() {
    for (const unsigned int type : {ProcsMessage::FORK, ProcsMessage::EXEC, ProcsMessage::EXIT}) {
        SendDirectMsg("procs_real_task", new MessageT(type, this));
    }
}

void RecordTask::Unsubscribe() {
    if (std::exchange(m_subscribed, false)) {
        Subscribe<Engine::ProcsUnRegistMessage>();
        for (const std::string& path : std::exchange(m_watched, {})) {
            Watch(path, false);
        }
    }
}

void RecordTask::FollowDirectories() {
    std::set<std::string> wanted;
    {
        const SDK::LockGuard lock(m_mutex);
        wanted = m_directories;
    }
    if (!m_subscribed || wanted == m_watched) {
        return;
    }
    for (const std::string& path : std::set<std::string>(m_watched)) {
        if (wanted.count(path) == 0 && Watch(path, false)) {
            m_watched.erase(path);
        }
    }
    for (const std::string& path : wanted) {
        if (m_watched.count(path) == 0 && Watch(path, true)) {
            m_watched.insert(path);
        }
    }
}

/// Asks for a directory as the detection does.
bool RecordTask::Watch(const std::string& path, bool add) {
    _FileNotifyOpt options;
    options.m_recursive = true;
    (add ? options.m_add : options.m_remove) = true;
    const std::vector<unsigned int> masks{Engine::FileNotifyWatchMessage::ALL_ACCESS};
    if (SendDirectMsg("filenotify_task",
                      new Engine::FileNotifyWatchMessage(this, path, masks, options)) != 0) {
        return false;
    }
    RecordedEvent event;
    event.m_kind = add ? Kind::WATCH : Kind::UNWATCH;
    event.m_path = path;
    event.m_realPath = RealPath(path);
    m_recording->Add(std::move(event));
    return true;
}

void RecordTask::TakeEvents() {
    Messages messages = std::exchange(m_held, {});
    BulkRecvMsg(messages, kBatch);
    const auto isFile = [](const auto& message) {
        return dynamic_cast<const FileNotifyMessage*>(message.get()) != nullptr;
    };
    const auto file = std::find_if(messages.begin(), messages.end(), isFile);
    if (file == messages.end()) {
        AddProcesses(messages);
        return;
    }
    // Any question makes the collector hand over what it has been told.
    SDK::ProcessUtils::procStatus ignored;
    SDK::ProcessUtils::GetProcessStatusInfo(
        static_cast<const FileNotifyMessage&>(**file).GetEventProcessId(), ignored);
    Messages later;
    BulkRecvMsg(later, static_cast<int>(GetInbox()->Capacity()));
    AddProcesses(messages);
    AddProcesses(later);
    AddFiles(messages);
    std::copy_if(later.begin(), later.end(), std::back_inserter(m_held), isFile);
}

void RecordTask::TakeRest() {
    while (!GetInbox()->Empty() || !m_held.empty()) {
        TakeEvents();
        m_recording->Flush();
    }
}

void RecordTask::AddProcesses(const Messages& messages) {
    for (const auto& message : messages) {
        const auto* event = dynamic_cast<const ProcsMessage*>(message.get());
        if (event == nullptr) {
            continue;
        }
        std::shared_ptr<ProcsMessage::procInfo> info;
        event->GetProcInfo(info);
        RecordedEvent recorded;
        if (event->GetProcFlag() == ProcsMessage::EXIT) {
            recorded.m_kind = Kind::EXIT;
            recorded.m_process.m_pid = event->GetProcPid();
        } else if (info != nullptr) {
            recorded.m_kind = event->GetProcFlag() == ProcsMessage::FORK ? Kind::FORK : Kind::EXEC;
            recorded.m_process = *info;
        } else {
            continue;
        }
        m_recording->Add(std::move(recorded));
    }
}

void RecordTask::AddFiles(const Messages& messages) {
    for (const auto& message : messages) {
        const auto* event = dynamic_cast<const FileNotifyMessage*>(message.get());
        if (event == nullptr) {
            continue;
        }
        RecordedEvent recorded;
        recorded.m_kind = Kind::FILE;
        recorded.m_process.m_pid = event->GetEventProcessId();
        recorded.m_mask = event->GetEventMask();
        recorded.m_path = event->GetEventFilePath();
        // The detection asks this of the host, at this moment.
        recorded.m_regular = SDK::FileUtils::IsFile(recorded.m_path);
        m_recording->Add(std::move(recorded));
    }
}

void RecordTask::TakeSnapshot() {
    auto* collector = FindCollector<Engine::ProcsFullTask>("procs_full_task");
    std::map<int, std::shared_ptr<ProcsMessage::procInfo>> processes;
    if (collector != nullptr) {
        collector->GetProcsMap(processes);
    }
    if (processes.empty()) {
        SDK::LogError(Logger(), "The collector of processes names none, nothing can be recorded");
        m_recording->End("failed");
        return;
    }
    std::uint64_t left = processes.size();
    std::vector<RecordedEvent> events;
    for (const auto& [pid, info] : processes) {
        RecordedEvent& event = events.emplace_back();
        event.m_kind = Kind::SNAPSHOT;
        event.m_process = *info;
        event.m_left = --left;
    }
    m_recording->Add(std::move(events));
}

/// @return false when there is no collector
bool RecordTask::ReadSockets(SocketMap& table) {
    auto* collector = FindCollector<Engine::NetProcsFullTask>("netproc_full_task");
    if (collector != nullptr) {
        collector->GetNetCacheMap(table);
    }
    return collector != nullptr;
}

/// What was closed since the last look is not told, or it might never have been open for the
/// detection, which looks at times of its own.
void RecordTask::TakeLastSockets() {
    SocketMap table;
    if (m_recording->Ended() || !ReadSockets(table)) {
        return;
    }
    std::vector<RecordedEvent> changes = SocketChanges::Between(m_sockets, table);
    std::erase_if(changes, [](RecordedEvent& change) {
        change.m_closed.clear();
        return change.m_opened.empty();
    });
    m_recording->Add(std::move(changes));
}

void RecordTask::TakeSockets() {
    SocketMap table;
    if (!m_recording->Ended() && ReadSockets(table)) {
        std::vector<RecordedEvent> changes = SocketChanges::Between(m_sockets, table);
        if (!std::exchange(m_socketsTold, true) && changes.empty()) {
            // That there are none is told, too: where nothing is, nobody looked.
            changes.emplace_back().m_kind = Kind::SOCKETS;
        }
        m_recording->Add(std::move(changes));
        m_sockets = std::move(table);
    }
    // From its end on: so each table holds for no less than the period in which a detection looks.
    m_nextLook = Clock::now() + kLookPeriod;
}

void RecordTask::NoteLosses() {
    const std::uint64_t lost = GetInbox()->Lost();
    if (lost != m_lost) {
        RecordedEvent gap;
        gap.m_kind = Kind::GAP;
        gap.m_lost = lost - m_lost;
        gap.m_reason = "behind";
        m_recording->CountLost(gap.m_lost);
        m_recording->Add(std::move(gap));
        m_lost = lost;
        m_snapshotDue = true;
    }
    // What happened to processes in the gap only another snapshot can tell, when it is over.
    if (m_snapshotDue && GetInbox()->Empty() && Clock::now() >= m_nextSnapshot) {
        m_snapshotDue = false;
        m_nextSnapshot = Clock::now() + kSnapshotPeriod;
        TakeSnapshot();
    }
}

void RecordTask::NoteCollectorLosses() {
    for (const auto& [what, lost] : ReadCollectorLosses()) {
        const std::uint64_t before = std::exchange(m_collectorLosses[what], lost);
        if (lost > before) {
            RecordedEvent gap;
            gap.m_kind = Kind::GAP;
            gap.m_lost = lost - before;
            gap.m_reason = what;
            m_recording->Add(std::move(gap));
        }
    }
}

}  // namespace Agent
